# The settings window itself, its General tab and the key recorder.
target_sources(vocari_ui PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/LoginItem.cpp ${CMAKE_CURRENT_LIST_DIR}/LoginItem.h
  ${PROJECT_SOURCE_DIR}/src/hotkey/HotkeyRecorder.cpp
  ${PROJECT_SOURCE_DIR}/src/hotkey/HotkeyRecorder.h)
