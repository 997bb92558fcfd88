// The two entry points the core resolves when it loads libhxf-plugin-upnp.so.
#include <memory>

#include "UpnpPlugin.h"
#include "hxf_plugin.h"

HXF_PLUGIN_DESCRIPTION("real UPnP devices on the network: lights (SwitchPower, Dimming) and upnp");

namespace {
std::unique_ptr<hxf_upnp::Plugin> g_plugin;  // touched only by CreatePlugin and DestroyPlugin
}

bool CreatePlugin(void) {
  g_plugin = std::make_unique<hxf_upnp::Plugin>();
  g_plugin->Start();  // the plugin thread reports the load result when it is ready
  return true;
}

bool DestroyPlugin(void) {
  if (g_plugin == nullptr) return false;
  g_plugin->Stop();  // returns once no plugin code runs again
  g_plugin.reset();
  return true;
}
