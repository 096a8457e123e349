# The Models tab: one row per speech engine, and the dialog that adds a model of the user's own.
target_sources(vocari_ui PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/AddModelDialog.cpp ${CMAKE_CURRENT_LIST_DIR}/AddModelDialog.h
  ${CMAKE_CURRENT_LIST_DIR}/EngineRow.cpp ${CMAKE_CURRENT_LIST_DIR}/EngineRow.h
  ${CMAKE_CURRENT_LIST_DIR}/FileBrowser.cpp ${CMAKE_CURRENT_LIST_DIR}/FileBrowser.h
  ${CMAKE_CURRENT_LIST_DIR}/FlowLayout.cpp ${CMAKE_CURRENT_LIST_DIR}/FlowLayout.h
  ${CMAKE_CURRENT_LIST_DIR}/ModelIcons.cpp ${CMAKE_CURRENT_LIST_DIR}/ModelIcons.h
  ${CMAKE_CURRENT_LIST_DIR}/ModelsTab.cpp ${CMAKE_CURRENT_LIST_DIR}/ModelsTab.h
  ${CMAKE_CURRENT_LIST_DIR}/icons/models.qrc)
target_link_libraries(vocari_ui PRIVATE Qt6::DBus)
