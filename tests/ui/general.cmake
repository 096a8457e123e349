# The settings window, its General tab and the key recorder; AccessibilityCheck.h serves the
# tests of every tab.
find_package(Qt6 REQUIRED COMPONENTS Test)
target_sources(ui_tests PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/AccessibilityCheck.h
  ${CMAKE_CURRENT_LIST_DIR}/AccessibilityCheckTest.cpp)
target_link_libraries(ui_tests PRIVATE Qt6::Test)
