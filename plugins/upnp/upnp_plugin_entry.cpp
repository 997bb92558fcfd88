// The two entry points the core resolves when it loads libhxf-plugin-upnp.so.
#include "PluginKit.h"
#include "UpnpPlugin.h"
#include "hxf_plugin.h"

HXF_PLUGIN_DESCRIPTION(
    "real UPnP devices on the network: lights (SwitchPower, Dimming), audio (media renderers) "
    "and upnp");
// kServices (UpnpPlugin.h).
HXF_PLUGIN_INFO(services, "lights,audio,upnp");

bool CreatePlugin(void) {
  return hxf_plugin_kit::Entry<hxf_upnp::Plugin>::Create();
}

bool DestroyPlugin(void) {
  return hxf_plugin_kit::Entry<hxf_upnp::Plugin>::Destroy();
}
