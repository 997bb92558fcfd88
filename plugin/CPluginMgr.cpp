#include "CPluginMgr.h"

#include "CException.h"
#include "CScopeExit.h"
#include "CoreGlobals.h"
#include "HXCALLTRACE_OBJ.h"
#include "JobFrame.h"
#include "LeakySingleton.h"
#include "PluginFile.h"

namespace HXFramework::Core {

IPluginMgr& IPluginMgr::GetInstance() {
  return LeakySingleton<CPluginMgr>();  // plugins may still report while the process exits
}

void CPluginMgr::LoadPlugin(const std::string& name, const PluginLoadHandler_t& handler) {
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    const PluginFile file = ResolvePluginFile(name, g_plugin_paths);
    CWriteLock lock(plugin_mutex_);
    if (_HasPlugin(file.name) || closing_.count(file.name) != 0)
      Fail("requested plugin has already loaded!");
    std::shared_ptr<IPlugin> plugin = _CreatePlugin(file.name, file.path);
    plugin->Init();
    plugin->Load(handler);  // returns at once; loading runs on a pool thread
  });
}

std::shared_ptr<IPlugin> CPluginMgr::_CreatePlugin(const std::string& name,
                                                   const std::string& path) {
  HXF_CALLTRACE_OBJ(this);
  std::shared_ptr<IPlugin> plugin = IPlugin::Create(name, path);
  if (!plugin_map_.emplace(name, plugin).second) Fail("failed to insert a plugin to map!");
  HXLOG(DLOG_INFO, " [%s] Plugin has been created & inserted into map\n", name.c_str());
  return plugin;
}

void CPluginMgr::UnloadPlugin(const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  HXLOG(DLOG_INFO, "UnloadPlugin Start\n");
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    std::vector<std::pair<std::string, std::shared_ptr<IPlugin>>> released;
    {
      CWriteLock lock(plugin_mutex_);
      if (!_HasPlugin(name)) Fail("No plugin exist to unload!!");
      released.emplace_back(name, _ReleasePlugin(name));  // out of the map first
      closing_.insert(name);
    }
    _Close(hxf_log_function_, released, false);
    HXLOG(DLOG_INFO, "UnloadPlugin End\n");
  });
}

std::shared_ptr<IPlugin> CPluginMgr::_ReleasePlugin(const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  auto found = plugin_map_.find(name);
  if (found == plugin_map_.end()) Fail("enable to find the plugin in map");
  std::shared_ptr<IPlugin> plugin = std::move(found->second);
  plugin_map_.erase(found);
  HXLOG(DLOG_INFO, "plugin[%p] deleted from plugin map\n", static_cast<void*>(plugin.get()));
  return plugin;
}

void CPluginMgr::UnloadAllPlugin() {
  HXF_CALLTRACE_OBJ(this);
  HXLOG(DLOG_INFO, "UnloadAllPlugin Start\n");
  std::vector<std::pair<std::string, std::shared_ptr<IPlugin>>> unloading;
  {
    CWriteLock lock(plugin_mutex_);
    HXLOG(DLOG_INFO, "plugin map size: [%zu]\n", plugin_map_.size());
    for (auto& [name, plugin] : plugin_map_) {
      unloading.emplace_back(name, plugin);
      closing_.insert(name);
    }
  }
  // The entries stay in the map while the plugins are stopped, so that a plugin reporting
  // from its "DestroyPlugin" is still found; they are cleared afterwards, also when an
  // unload throws.
  CScopeExit clear([this, &unloading] {
    CWriteLock lock(plugin_mutex_);
    for (const auto& [name, plugin] : unloading) {
      auto entry = plugin_map_.find(name);
      if (entry != plugin_map_.end() && entry->second == plugin) plugin_map_.erase(entry);
    }
  });
  _Close(hxf_log_function_, unloading, true);
}

void CPluginMgr::_Close(
    CLogFunction hxf_log_function_,
    const std::vector<std::pair<std::string, std::shared_ptr<IPlugin>>>& plugins,
    bool unloading_all) {
  // The names are released again on every way out, also when an unload throws.
  CScopeExit reopen([this, &plugins] {
    CWriteLock lock(plugin_mutex_);
    for (const auto& entry : plugins) closing_.erase(entry.first);
  });
  for (const auto& [name, plugin] : plugins) {
    if (unloading_all) HXLOG(DLOG_INFO, "try to unload [%s] plugin\n", name.c_str());
    if (plugin == nullptr) {
      HXLOG(DLOG_INFO, "%s plugin is null\n", name.c_str());
      continue;
    }
    plugin->Unload();  // direct: "DestroyPlugin" and dlclose have run when this returns
    plugin->Termi();
  }
}

void CPluginMgr::SendLoadResult(const std::string& name, hxf_plugin_load_result_e result) {
  HXF_CALLTRACE_OBJ(this);
  // Logged and swallowed: a report for an unknown plugin is not the reporter's error.
  RunLogged(HXF_LOG_SITE, OnException::kSwallow,
            [&] { _FindPlugin(name)->SendLoadResult(result); });
}

std::shared_ptr<IPlugin> CPluginMgr::_FindPlugin(const std::string& name) {
  std::shared_ptr<IPlugin> plugin;
  {
    // Plugins report from their own threads while others load and unload: the shared side.
    CReadLock lock(plugin_mutex_);
    auto found = plugin_map_.find(name);
    if (found != plugin_map_.end()) plugin = found->second;
  }
  if (plugin == nullptr) Fail("enable to find the plugin in map");
  return plugin;
}

bool CPluginMgr::_HasPlugin(const std::string& name) {
  return plugin_map_.count(name) != 0;
}

}  // namespace HXFramework::Core
