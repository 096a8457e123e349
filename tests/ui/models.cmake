# The Models tab and the add-model dialog, with downloads the tests end themselves and with the
# real download from the loopback model hub of the model tests; the file browser against a file
# manager on a private message bus.
find_package(Qt6 REQUIRED COMPONENTS Test)
target_sources(ui_tests PRIVATE
  ${CMAKE_CURRENT_LIST_DIR}/ModelsTabTest.cpp
  ${CMAKE_CURRENT_LIST_DIR}/FileBrowserTest.cpp)
target_link_libraries(ui_tests PRIVATE vocari_hub_test_server Qt6::Test Qt6::DBus)
