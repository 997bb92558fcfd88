// The two entry points the core resolves when it loads libhxf-plugin-sim.so.
#include "PluginKit.h"
#include "SimPlugin.h"
#include "hxf_plugin.h"

HXF_PLUGIN_DESCRIPTION("a simulated home: lights, audio and climate devices (HXF_SIM_CONFIG)");
// The default home's services (SimModel.cpp); a file in HXF_SIM_CONFIG may name others.
HXF_PLUGIN_INFO(services, "lights,audio,climate");
HXF_PLUGIN_INFO(config_env, "HXF_SIM_CONFIG");

bool CreatePlugin(void) {
  return hxf_plugin_kit::Entry<hxf_sim::Plugin>::Create();
}

bool DestroyPlugin(void) {
  return hxf_plugin_kit::Entry<hxf_sim::Plugin>::Destroy();
}
