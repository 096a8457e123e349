# The Text, Popup, Permissions and About tabs of the settings window, the parts of the forms
# they share, and their pictures.
target_sources(vocari_ui PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/AboutTab.cpp ${CMAKE_CURRENT_LIST_DIR}/AboutTab.h
  ${CMAKE_CURRENT_LIST_DIR}/FormSection.cpp ${CMAKE_CURRENT_LIST_DIR}/FormSection.h
  ${CMAKE_CURRENT_LIST_DIR}/PermissionRow.cpp ${CMAKE_CURRENT_LIST_DIR}/PermissionRow.h
  ${CMAKE_CURRENT_LIST_DIR}/PermissionsTab.cpp ${CMAKE_CURRENT_LIST_DIR}/PermissionsTab.h
  ${CMAKE_CURRENT_LIST_DIR}/PopupTab.cpp ${CMAKE_CURRENT_LIST_DIR}/PopupTab.h
  ${CMAKE_CURRENT_LIST_DIR}/PositionGrid.cpp ${CMAKE_CURRENT_LIST_DIR}/PositionGrid.h
  ${CMAKE_CURRENT_LIST_DIR}/SegmentedPicker.cpp ${CMAKE_CURRENT_LIST_DIR}/SegmentedPicker.h
  ${CMAKE_CURRENT_LIST_DIR}/SettingBinding.cpp ${CMAKE_CURRENT_LIST_DIR}/SettingBinding.h
  ${CMAKE_CURRENT_LIST_DIR}/SoundSettings.cpp ${CMAKE_CURRENT_LIST_DIR}/SoundSettings.h
  ${CMAKE_CURRENT_LIST_DIR}/TabIcons.cpp ${CMAKE_CURRENT_LIST_DIR}/TabIcons.h
  ${CMAKE_CURRENT_LIST_DIR}/TextTab.cpp ${CMAKE_CURRENT_LIST_DIR}/TextTab.h
  ${CMAKE_CURRENT_LIST_DIR}/icons/about.qrc
  ${CMAKE_CURRENT_LIST_DIR}/icons/text_popup.qrc)
# The About tab shows the version of the build; only its source needs it.
set_property(SOURCE ${CMAKE_CURRENT_LIST_DIR}/AboutTab.cpp APPEND PROPERTY
  COMPILE_DEFINITIONS VOCARI_VERSION="${PROJECT_VERSION}")
