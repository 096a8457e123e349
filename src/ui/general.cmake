# The settings window itself, its General tab and the key recorder.
target_sources(vocari_ui PRIVATE
  ${PROJECT_SOURCE_DIR}/src/hotkey/HotkeyRecorder.cpp
  ${PROJECT_SOURCE_DIR}/src/hotkey/HotkeyRecorder.h)
