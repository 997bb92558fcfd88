#pragma once

#include <string>

#include "CNoncopyable.h"
#include "CallbackHandlerTypes.h"

namespace HXFramework::Core {

// The process-wide registry of loaded plugins, keyed by plugin name.
class IPluginMgr : private CNoncopyable {
 public:
  static IPluginMgr& GetInstance();

  virtual ~IPluginMgr() = default;
  virtual void LoadPlugin(const std::string& name, const PluginLoadHandler_t& handler) = 0;
  virtual void UnloadPlugin(const std::string& name) = 0;
  virtual void UnloadAllPlugin() = 0;
  virtual void SendLoadResult(const std::string& name, hxf_plugin_load_result_e result) = 0;
};

}  // namespace HXFramework::Core
