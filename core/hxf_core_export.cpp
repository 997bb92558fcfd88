// The exported C functions. Each entry point is one row of the frame in ApiFrame.h:
// convert the arguments, call one manager operation.
#include <cstdlib>
#include <string>

#include "ApiFrame.h"
#include "CCallbackCallerLocal.h"
#include "CoreGlobals.h"
#include "HXLog.h"
#include "ICallbackHandlerFactory.h"
#include "IClientMgr.h"
#include "IPluginMgr.h"
#include "IServiceMgr.h"
#include "hxf_core.h"

namespace HXFramework::Core {

void print_app_info(std::string function_name) {
  if (!g_caller_name.empty() && !g_app_version.empty() && !function_name.empty()) {
    HXLOG(DLOG_ERROR, "[%s], caller_name:[%s], app_version:[%s]\n", function_name.c_str(),
          g_caller_name.c_str(), g_app_version.c_str());
  } else {
    HXLOG(DLOG_ERROR, "caller_name or app_version or function_name is empty !\n");
  }
}

namespace {

// A name crossing the boundary: exactly `len` bytes, embedded NULs included.
std::string ToString(hxf_string_t text) {
  if (text.str == nullptr) {
    if (text.len != 0) throw CException("string pointer is null", HXF_ERROR_INVALID_PARAMETER);
    return std::string();
  }
  return std::string(text.str, text.len);
}

ICallbackHandlerFactory& Factory() { return ICallbackHandlerFactory::GetInstance(); }
const std::shared_ptr<ICallbackCaller>& Caller() { return CCallbackCallerLocal::GetInstance(); }

// Takes over a text the platform allocated with malloc.
std::string TakePlatformText(char* text) {
  std::string copy(text);
  std::free(text);
  return copy;
}

// Bodies of the two lifecycle functions, named after them so that their log lines carry
// the exported name. A failed platform look-up never fails initialisation.
void hxf_core_initialize() {
  HXLOG(DLOG_ERROR, "hxf_core_initialize Entered\n");
  IClientMgr::GetInstance()->Initialize();
  IServiceMgr::GetInstance()->Initialize();

  char* name = nullptr;
  if (app_get_name(&name) != 0) HXLOG(DLOG_ERROR, "failed to get app name\n");
  if (name != nullptr) {
    HXLOG(DLOG_ERROR, "app name : %s\n", name);
    g_caller_name = TakePlatformText(name);
  }

  package_info_h package_info = nullptr;  // owned by the platform, never released
  if (package_manager_get_package_info(g_app_id.c_str(), &package_info) != 0) {
    HXLOG(DLOG_ERROR, "package_manager_get_package_info failed!\n");
    return;
  }
  char* version = nullptr;
  if (package_info_get_version(package_info, &version) != 0) {
    HXLOG(DLOG_ERROR, "package_info_get_version failed!\n");
    return;
  }
  if (version == nullptr) {
    HXLOG(DLOG_ERROR, "version null!\n");
    return;
  }
  HXLOG(DLOG_ERROR, "app_version : %s\n", version);
  g_app_version = TakePlatformText(version);
  HXLOG(DLOG_ERROR, "hxf_core_initialize Left\n");
}

// Clients go first, as in initialisation; plugins stay loaded.
void hxf_core_finalize() {
  HXLOG(DLOG_ERROR, "hxf_core_finalize Entered\n");
  IClientMgr::GetInstance()->Finalize();
  IServiceMgr::GetInstance()->Finalize();
  HXLOG(DLOG_ERROR, "hxf_core_finalize Left\n");
}

}  // namespace

}  // namespace HXFramework::Core

// The entry points below are thin rows over the core's own names.
using namespace HXFramework::Core;  // NOLINT(google-build-using-namespace)

extern "C" {

HXF_CORE_API hxf_error_e hxf_core_initialize(void) {
  return ApiFrame(HXF_LOG_SITE, [] { HXFramework::Core::hxf_core_initialize(); },
                  /*log_caller=*/false);
}

HXF_CORE_API hxf_error_e hxf_core_finalize(void) {
  return ApiFrame(HXF_LOG_SITE, [] { HXFramework::Core::hxf_core_finalize(); },
                  /*log_caller=*/false);
}

// ---- plugins ----

HXF_CORE_API hxf_error_e hxf_core_plugin_load(hxf_string_t plugin_name, hxf_plugin_loaded_cb cb,
                                              void* user_data) {
  return HXF_API_FRAME(IPluginMgr& manager = IPluginMgr::GetInstance();
                       const std::string name = ToString(plugin_name);
                       manager.LoadPlugin(name, Factory().CreatePluginLoadHandler(Caller(), cb, user_data)););
}

HXF_CORE_API hxf_error_e hxf_core_plugin_unload(hxf_string_t plugin_name) {
  return HXF_API_FRAME(IPluginMgr::GetInstance().UnloadPlugin(ToString(plugin_name)););
}

HXF_CORE_API hxf_error_e hxf_core_plugin_unload_all(void) {
  return HXF_API_FRAME(IPluginMgr::GetInstance().UnloadAllPlugin(););
}

HXF_CORE_API hxf_error_e hxf_core_plugin_send_load_result(hxf_string_t plugin_name,
                                                          hxf_plugin_load_result_e result) {
  return HXF_API_FRAME(IPluginMgr::GetInstance().SendLoadResult(ToString(plugin_name), result););
}

}  // extern "C"
