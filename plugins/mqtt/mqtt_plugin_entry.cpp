// The two entry points the core resolves when it loads libhxf-plugin-mqtt.so.
#include "MqttPlugin.h"
#include "hxf_plugin.h"

HXF_PLUGIN_DESCRIPTION("other hosts' devices, read from an MQTT broker (HXF_MQTT_URL)");
// Its services are those the other nodes export, known only once it has read the broker: it
// declares none, which tools take as "any service", and names the variable that gives it a
// broker.
HXF_PLUGIN_INFO(services, "");
HXF_PLUGIN_INFO(config_env, "HXF_MQTT_URL");

bool CreatePlugin(void) {
  return hxf_plugin_kit::Entry<hxf_mqtt::Plugin>::Create();
}

bool DestroyPlugin(void) {
  return hxf_plugin_kit::Entry<hxf_mqtt::Plugin>::Destroy();
}
