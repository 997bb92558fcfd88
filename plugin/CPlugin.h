#pragma once

#include <string>

#include "CLibraryGate.h"
#include "IPlugin.h"
#include "TPLContext"

namespace HXFramework::Core {

// Opens "libhxf-plugin-<name>.so" from the plugin directory, starts it through
// "CreatePlugin", stops it through "DestroyPlugin" and closes it. All work runs on the
// plugin's own context: loading and load results on the pool, unloading on the caller.
class CPlugin : public IPlugin, TPL::CContext<CPlugin> {
 public:
  CPlugin(const std::string& name, const std::string& path);
  ~CPlugin() override;

  void Init() override;
  void Termi() override;
  void Load(const PluginLoadHandler_t& handler) override;
  void Unload() override;
  void SendLoadResult(hxf_plugin_load_result_e result) override;

 private:
  friend class IPlugin;  // the factory hands the context its owner
  friend class TPL::CContext<CPlugin>;
  using EntryPoint = bool (*)();

  void _Load(const PluginLoadHandler_t& handler);
  void _Unload(const void* requester);
  void _SendLoadResult(hxf_plugin_load_result_e result);
  void _LoadDelegate();
  void _UnloadDelegate(const void* requester);
  void _InitLibrary();
  void _TermiLibrary();
  std::string _GetFilePath();
  void _ReportLoadResult(hxf_plugin_load_result_e result);

  EntryPoint create_fn_ = nullptr;
  EntryPoint destroy_fn_ = nullptr;
  void* plugin_lib_ = nullptr;
  CLibraryGate* gate_ = nullptr;  // of the open library: when it may be closed
  bool initialized_ = false;
  std::string plugin_name_;
  std::string plugin_path_;  // empty: the plugin folder's file
  PluginLoadHandler_t loaded_cb_;
};

}  // namespace HXFramework::Core
