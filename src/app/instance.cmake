# The one-instance guard and remote control: the running Vocari owns a name on the session bus
# and a later "vocari toggle" (or a second start) reaches it there.
add_library(vocari_instance STATIC
  ${CMAKE_CURRENT_LIST_DIR}/ControlCommand.cpp ${CMAKE_CURRENT_LIST_DIR}/ControlCommand.h
  ${CMAKE_CURRENT_LIST_DIR}/InstanceBus.cpp ${CMAKE_CURRENT_LIST_DIR}/InstanceBus.h)
target_include_directories(vocari_instance PUBLIC ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(vocari_instance PUBLIC Qt6::Core Qt6::DBus)
