# The Models tab and the add-model dialog, with downloads the tests end themselves and with the
# real download from the loopback model hub of the model tests.
find_package(Qt6 REQUIRED COMPONENTS Test)
target_sources(ui_tests PRIVATE ${CMAKE_CURRENT_LIST_DIR}/ModelsTabTest.cpp)
target_link_libraries(ui_tests PRIVATE vocari_hub_test_server Qt6::Test)
