// The "audio" service on UPnP media renderers (MediaRenderer:1 and later, with
// RenderingControl and AVTransport): what the plugin knows of a renderer, and the readers of
// what renderers send, each bounded. Everything here comes from the network and is checked:
// a value out of range or of an unknown form is refused, never taken.
#pragma once

#include <libgupnp/gupnp.h>

#include <cstdint>
#include <functional>
#include <optional>
#include <string>

#include "UpnpAudioReaders.h"

namespace hxf_upnp {

// A media renderer's two services (owned references) and what is known of it.
struct Renderer {
  GUPnPServiceProxy* rendering = nullptr;  // RenderingControl
  GUPnPServiceProxy* transport = nullptr;  // AVTransport
  AudioState state;
  // What watchers were told last (without the position), once they have been told.
  std::optional<AudioState> told;
};
// Fills `renderer` when the device of `device_type` is a MediaRenderer with both services.
void FindRenderer(GUPnPDeviceInfo* info, const std::string& device_type, Renderer* renderer);
void ReleaseRenderer(Renderer* renderer);

// One SOAP action of a sequence on a renderer: on its AVTransport (`transport`) or its
// RenderingControl, made when its turn comes, and its result read into the renderer's state
// and into what the sequence itself read (null: nothing to read but the success).
struct AudioStep {
  bool transport;
  const char* name;
  std::function<GUPnPServiceProxyAction*()> make;
  std::function<bool(GUPnPServiceProxyAction*, AudioState* state, AudioState* read, GError**)>
      read;
};

}  // namespace hxf_upnp
