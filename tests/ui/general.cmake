# The settings window, its General tab and the key recorder; AccessibilityCheck.h serves the
# tests of every tab.
find_package(Qt6 REQUIRED COMPONENTS Test)
target_sources(ui_tests PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/AccessibilityCheck.h
  ${CMAKE_CURRENT_LIST_DIR}/AccessibilityCheckTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/GeneralTabTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/SettingsViewTest.cpp)
target_link_libraries(ui_tests PRIVATE Qt6::Test)
# The login entry must look like the application's own desktop entry.
set_property(SOURCE ${CMAKE_CURRENT_LIST_DIR}/GeneralTabTest.cpp APPEND PROPERTY
  COMPILE_DEFINITIONS VOCARI_PACKAGED_DESKTOP_ENTRY="${PROJECT_SOURCE_DIR}/packaging/vocari.desktop")
