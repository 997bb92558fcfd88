#pragma once

#include <memory>
#include <string>

#include "CNoncopyable.h"
#include "CallbackHandlerTypes.h"

namespace HXFramework::Core {

// One dynamically loaded provider library, driven only by the plugin manager.
class IPlugin : private CNoncopyable {
 public:
  // `path`: the library's own path, or empty for the plugin folder's file of `name`.
  static std::shared_ptr<IPlugin> Create(const std::string& name, const std::string& path = "");

  virtual ~IPlugin() = default;
  virtual void Init() = 0;
  virtual void Termi() = 0;
  virtual void Load(const PluginLoadHandler_t& handler) = 0;
  virtual void Unload() = 0;
  virtual void SendLoadResult(hxf_plugin_load_result_e result) = 0;
};

}  // namespace HXFramework::Core
