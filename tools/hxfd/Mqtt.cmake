# hxfd's MQTT front (docs/MQTT.md), where libmosquitto is there (tools/common/Mqtt.cmake):
# hxfd --mqtt. Without it hxfd is built without the option.
if(TARGET PkgConfig::HXF_MOSQUITTO)
  add_library(hxfd-mqtt STATIC ${CMAKE_CURRENT_LIST_DIR}/CMqttClient.cpp
    ${CMAKE_CURRENT_LIST_DIR}/CMqttFront.cpp)
  target_include_directories(hxfd-mqtt PUBLIC ${CMAKE_CURRENT_LIST_DIR}
    PRIVATE ${PROJECT_SOURCE_DIR}/tools/hxf)
  # hxfd-objects brings CPluginInfo: which services the loaded plugins declare.
  target_link_libraries(hxfd-mqtt PUBLIC hxfd-objects hxf-tool-mqtt hxf-tool-bus
    PkgConfig::HXF_MOSQUITTO)
  target_compile_options(hxfd-mqtt PRIVATE ${HXF_WARNINGS})
  target_link_libraries(hxfd PRIVATE hxfd-mqtt)
  target_compile_definitions(hxfd PRIVATE HXFD_MQTT=1)
endif()
# The configuration file checks an `mqtt` URL as the front reads it.
target_link_libraries(hxfd PRIVATE hxf-tool-mqtt)
