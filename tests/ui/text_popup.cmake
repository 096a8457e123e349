# Tests of the Text, Popup, Permissions and About tabs.
find_package(Qt6 REQUIRED COMPONENTS Test)
target_sources(ui_tests PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/PermissionsAboutTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/TabTestSupport.h
  ${CMAKE_CURRENT_LIST_DIR}/TextPopupTest.cpp)
target_link_libraries(ui_tests PRIVATE Qt6::Test)
# The About tab's version is checked against the build's.
set_property(SOURCE ${CMAKE_CURRENT_LIST_DIR}/PermissionsAboutTest.cpp APPEND PROPERTY
  COMPILE_DEFINITIONS VOCARI_TEST_VERSION="${PROJECT_VERSION}")
