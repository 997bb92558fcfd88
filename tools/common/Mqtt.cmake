# hxf on MQTT (docs/MQTT.md): the broker URL, the topic layout, the payloads and Home
# Assistant's discovery, shared by hxfd's MQTT front and the MQTT import plugin. It needs no
# MQTT library; the front needs libmosquitto (libmosquitto-dev; scripts/install-deps.sh mqtt),
# without which hxfd is built without --mqtt.
add_library(hxf-tool-mqtt STATIC ${CMAKE_CURRENT_LIST_DIR}/MqttTopics.cpp
  ${CMAKE_CURRENT_LIST_DIR}/MqttDiscovery.cpp)
target_include_directories(hxf-tool-mqtt PUBLIC ${CMAKE_CURRENT_LIST_DIR})
target_link_libraries(hxf-tool-mqtt PUBLIC hxf-tool-common)
target_compile_options(hxf-tool-mqtt PRIVATE ${HXF_WARNINGS})
if(PkgConfig_FOUND)
  pkg_check_modules(HXF_MOSQUITTO QUIET IMPORTED_TARGET GLOBAL libmosquitto)
endif()
if(NOT HXF_MOSQUITTO_FOUND)
  message(STATUS "hxfd --mqtt: not built (needs libmosquitto-dev: scripts/install-deps.sh mqtt)")
endif()
# The payload readers' libFuzzer harness (preset "fuzz"; scripts/fuzz.sh mqtt_payload), made
# where the library is and put beside the other harnesses.
if(HXF_BUILD_FUZZ)
  add_executable(fuzz_mqtt_payload ${PROJECT_SOURCE_DIR}/tests/fuzz/fuzz_mqtt_payload.cpp)
  target_link_libraries(fuzz_mqtt_payload PRIVATE hxf-tool-mqtt)
  target_compile_options(fuzz_mqtt_payload PRIVATE -fsanitize=fuzzer ${HXF_WARNINGS})
  target_link_options(fuzz_mqtt_payload PRIVATE -fsanitize=fuzzer)
  set_target_properties(fuzz_mqtt_payload PROPERTIES
    RUNTIME_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/tests/fuzz)
endif()
