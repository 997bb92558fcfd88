#pragma once

#include <memory>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "CLocks.h"
#include "HXLog.h"
#include "IPlugin.h"
#include "IPluginMgr.h"

namespace HXFramework::Core {

class CPluginMgr : public IPluginMgr {
 public:
  void LoadPlugin(const std::string& name, const PluginLoadHandler_t& handler) override
      HXF_EXCLUDES(plugin_mutex_);
  void UnloadPlugin(const std::string& name) override HXF_EXCLUDES(plugin_mutex_);
  void UnloadAllPlugin() override HXF_EXCLUDES(plugin_mutex_);
  void SendLoadResult(const std::string& name, hxf_plugin_load_result_e result) override
      HXF_EXCLUDES(plugin_mutex_);

 private:
  std::shared_ptr<IPlugin> _CreatePlugin(const std::string& name, const std::string& path)
      HXF_REQUIRES(plugin_mutex_);
  std::shared_ptr<IPlugin> _ReleasePlugin(const std::string& name) HXF_REQUIRES(plugin_mutex_);
  bool _HasPlugin(const std::string& name) HXF_REQUIRES(plugin_mutex_);
  // Takes the shared side itself.
  std::shared_ptr<IPlugin> _FindPlugin(const std::string& name) HXF_EXCLUDES(plugin_mutex_);
  // Stops and closes plugins, outside the lock, then lets their names be loaded again.
  // `unloading_all`: the unload-all's own lines are written. Lines name the calling operation.
  void _Close(CLogFunction hxf_log_function_,
              const std::vector<std::pair<std::string, std::shared_ptr<IPlugin>>>& plugins,
              bool unloading_all) HXF_EXCLUDES(plugin_mutex_);

  // Guards plugin_map_ and closing_. Held only for their operations and for creating and
  // starting a plugin object, never while a plugin's code runs: "DestroyPlugin", and the
  // callbacks an unload waits for, may use the plugin API themselves. Load results read the
  // map under the shared side.
  CSharedMutex plugin_mutex_;
  std::unordered_map<std::string, std::shared_ptr<IPlugin>> plugin_map_
      HXF_GUARDED_BY(plugin_mutex_);
  // Names being unloaded: loading one again must wait until its library has been closed,
  // or two instances of one library would run at once.
  std::unordered_set<std::string> closing_ HXF_GUARDED_BY(plugin_mutex_);
};

}  // namespace HXFramework::Core
