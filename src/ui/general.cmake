# The settings window itself, its General tab and the key recorder.
target_sources(vocari_ui PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/SettingsView.cpp ${CMAKE_CURRENT_LIST_DIR}/SettingsView.h
  ${CMAKE_CURRENT_LIST_DIR}/SettingsIcons.cpp ${CMAKE_CURRENT_LIST_DIR}/SettingsIcons.h
  ${CMAKE_CURRENT_LIST_DIR}/GeneralTab.cpp ${CMAKE_CURRENT_LIST_DIR}/GeneralTab.h
  ${CMAKE_CURRENT_LIST_DIR}/LoginItem.cpp ${CMAKE_CURRENT_LIST_DIR}/LoginItem.h
  ${PROJECT_SOURCE_DIR}/src/hotkey/HotkeyRecorder.cpp
  ${PROJECT_SOURCE_DIR}/src/hotkey/HotkeyRecorder.h
  ${CMAKE_CURRENT_LIST_DIR}/icons/settings.qrc)
