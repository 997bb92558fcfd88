#include "CPluginMgr.h"

#include <mutex>

#include "CException.h"
#include "HXCALLTRACE_OBJ.h"
#include "JobFrame.h"

namespace HXFramework::Core {

namespace {
void Fail(const std::string& message) {
  throw CException(message, HXF_ERROR_OPERATION_FAILED);
}

// Set while this thread holds the exclusive lock. A plugin that calls back into the manager
// from "DestroyPlugin" (which runs under the lock) must get an error, not a deadlock.
thread_local bool t_holds_plugin_lock = false;
}  // namespace

// The exclusive lock, refusing re-entry from the thread that already holds it.
class CPluginMgr::CWriteSection {
 public:
  explicit CWriteSection(std::shared_mutex& mutex) {
    if (t_holds_plugin_lock) Fail("plugin manager re-entered from a plugin entry point");
    lock_ = std::unique_lock<std::shared_mutex>(mutex);
    t_holds_plugin_lock = true;
  }
  ~CWriteSection() { t_holds_plugin_lock = false; }
  CWriteSection(const CWriteSection&) = delete;
  CWriteSection& operator=(const CWriteSection&) = delete;

 private:
  std::unique_lock<std::shared_mutex> lock_;
};

IPluginMgr& IPluginMgr::GetInstance() {
  // Never destroyed: plugins may still report from their threads while the process exits.
  static CPluginMgr* instance = new CPluginMgr();
  return *instance;
}

void CPluginMgr::LoadPlugin(const std::string& name, const PluginLoadHandler_t& handler) {
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    CWriteSection section(plugin_mutex_);
    if (_HasPlugin(name)) Fail("requested plugin has already loaded!");
    std::shared_ptr<IPlugin> plugin = _CreatePlugin(name);
    plugin->Init();
    plugin->Load(handler);  // returns at once; loading runs on a pool thread
  });
}

std::shared_ptr<IPlugin> CPluginMgr::_CreatePlugin(const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  std::shared_ptr<IPlugin> plugin = IPlugin::Create(name);
  bool inserted = false;
  {
    std::lock_guard<std::mutex> lock(map_mutex_);
    inserted = plugin_map_.emplace(name, plugin).second;
  }
  if (!inserted) Fail("failed to insert a plugin to map!");
  HXLOG(DLOG_INFO, " [%s] Plugin has been created & inserted into map\n", name.c_str());
  return plugin;
}

void CPluginMgr::UnloadPlugin(const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  HXLOG(DLOG_INFO, "UnloadPlugin Start\n");
  RunLogged(HXF_LOG_SITE, OnException::kRethrow, [&] {
    CWriteSection section(plugin_mutex_);
    if (!_HasPlugin(name)) Fail("No plugin exist to unload!!");
    std::shared_ptr<IPlugin> plugin = _ReleasePlugin(name);
    plugin->Unload();  // direct: "DestroyPlugin" and dlclose have run when this returns
    plugin->Termi();
    HXLOG(DLOG_INFO, "UnloadPlugin End\n");
  });
}

std::shared_ptr<IPlugin> CPluginMgr::_ReleasePlugin(const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  std::shared_ptr<IPlugin> plugin;
  {
    std::lock_guard<std::mutex> lock(map_mutex_);
    auto found = plugin_map_.find(name);
    if (found != plugin_map_.end()) {
      plugin = std::move(found->second);
      plugin_map_.erase(found);
    }
  }
  if (plugin == nullptr) Fail("enable to find the plugin in map");
  HXLOG(DLOG_INFO, "plugin[%p] deleted from plugin map\n", static_cast<void*>(plugin.get()));
  return plugin;
}

void CPluginMgr::UnloadAllPlugin() {
  HXF_CALLTRACE_OBJ(this);
  HXLOG(DLOG_INFO, "UnloadAllPlugin Start\n");
  CWriteSection section(plugin_mutex_);
  std::unordered_map<std::string, std::shared_ptr<IPlugin>> plugins;
  {
    std::lock_guard<std::mutex> lock(map_mutex_);
    plugins = plugin_map_;
  }
  HXLOG(DLOG_INFO, "plugin map size: [%zu]\n", plugins.size());
  for (auto& [name, plugin] : plugins) {
    HXLOG(DLOG_INFO, "try to unload [%s] plugin\n", name.c_str());
    if (plugin == nullptr) {
      HXLOG(DLOG_INFO, "%s plugin is null\n", name.c_str());
      continue;
    }
    plugin->Unload();
    plugin->Termi();
  }
  {
    std::lock_guard<std::mutex> lock(map_mutex_);
    plugin_map_.clear();
  }
  plugins.clear();  // the last references go: each plugin logs "plugin destroyed"
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
    std::lock_guard<std::mutex> lock(map_mutex_);
    auto found = plugin_map_.find(name);
    if (found != plugin_map_.end()) plugin = found->second;
  }
  if (plugin == nullptr) Fail("enable to find the plugin in map");
  return plugin;
}

bool CPluginMgr::_HasPlugin(const std::string& name) {
  std::lock_guard<std::mutex> lock(map_mutex_);
  return plugin_map_.count(name) != 0;
}

}  // namespace HXFramework::Core
