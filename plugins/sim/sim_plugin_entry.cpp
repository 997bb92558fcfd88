// The two entry points the core resolves when it loads libhxf-plugin-sim.so.
#include <memory>

#include "SimPlugin.h"
#include "hxf_plugin.h"

HXF_PLUGIN_DESCRIPTION("a simulated home: lights, audio and climate devices (HXF_SIM_CONFIG)");

namespace {
std::unique_ptr<hxf_sim::Plugin> g_plugin;  // touched only by CreatePlugin and DestroyPlugin
}

bool CreatePlugin(void) {
  g_plugin = std::make_unique<hxf_sim::Plugin>();
  g_plugin->Start();  // returns at once; the worker reports the load result when ready
  return true;
}

bool DestroyPlugin(void) {
  if (g_plugin == nullptr) return false;
  g_plugin->Stop();  // returns once no plugin code runs again
  g_plugin.reset();
  return true;
}
