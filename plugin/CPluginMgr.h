#pragma once

#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "IPlugin.h"
#include "IPluginMgr.h"

namespace HXFramework::Core {

class CPluginMgr : public IPluginMgr {
 public:
  void LoadPlugin(const std::string& name, const PluginLoadHandler_t& handler) override;
  void UnloadPlugin(const std::string& name) override;
  void UnloadAllPlugin() override;
  void SendLoadResult(const std::string& name, hxf_plugin_load_result_e result) override;

 private:
  class CWriteSection;

  std::shared_ptr<IPlugin> _CreatePlugin(const std::string& name);
  std::shared_ptr<IPlugin> _ReleasePlugin(const std::string& name);
  std::shared_ptr<IPlugin> _FindPlugin(const std::string& name);
  bool _HasPlugin(const std::string& name);

  // Serialises load, unload and unload-all (only its exclusive side is used); they call into
  // plugins while holding it ("DestroyPlugin" runs under it).
  std::shared_mutex plugin_mutex_;
  // Guards plugin_map_ itself and is held only for map operations, never while plugin code
  // runs: a plugin's worker may report its load result while "DestroyPlugin" waits for that
  // worker under plugin_mutex_. Order: plugin_mutex_, then map_mutex_.
  std::mutex map_mutex_;
  std::unordered_map<std::string, std::shared_ptr<IPlugin>> plugin_map_;
};

}  // namespace HXFramework::Core
