// The exported C functions. Each entry point is one row of the frame in ApiFrame.h:
// convert the arguments, call one manager operation.
#include <cstdlib>
#include <string>

#include "ApiFrame.h"
#include "CApiCaller.h"
#include "CCallbackCallerLocal.h"
#include "CoreGlobals.h"
#include "HXLog.h"
#include "ICallbackHandlerFactory.h"
#include "IClientMgr.h"
#include "IEndpointHelper.h"
#include "IEndpointListHelper.h"
#include "IPluginMgr.h"
#include "IPropertyListHelper.h"
#include "IServiceHandler.h"
#include "IServiceMgr.h"
#include "hxf_core.h"

namespace HXFramework::Core {

void print_app_info(std::string function_name) {
  print_app_info(function_name.c_str());
}

void print_app_info(const char* function_name) {
  if (!g_caller_name.empty() && !g_app_version.empty() && function_name[0] != '\0') {
    HXLOG(DLOG_ERROR, "[%s], caller_name:[%s], app_version:[%s]\n", function_name,
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

ICallbackHandlerFactory& Factory() {
  return ICallbackHandlerFactory::GetInstance();
}
const std::shared_ptr<ICallbackCaller>& Caller() {
  return CCallbackCallerLocal::GetInstance();
}

// The eight callback setters of a service handler: the factory makes the handler that calls
// `cb`, the manager installs it with `set`.
template <typename Handler, typename Callback>
hxf_error_e SetHandlerCallback(const CLogSite& site, hxf_service_handler_h handler,
                               void (IServiceMgr::*set)(hxf_service_handler_h, const Handler&),
                               Handler (ICallbackHandlerFactory::*make)(
                                   const ICallbackHandlerFactory::Caller&, Callback, void*),
                               Callback cb, void* user_data) {
  return ApiFrame(site, [&] {
    (IServiceMgr::GetInstance()->*set)(handler, (Factory().*make)(Caller(), cb, user_data));
  });
}

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
  return ApiFrame(
      HXF_LOG_SITE, [] { HXFramework::Core::hxf_core_initialize(); },
      /*log_caller=*/false);
}

HXF_CORE_API hxf_error_e hxf_core_finalize(void) {
  return ApiFrame(
      HXF_LOG_SITE, [] { HXFramework::Core::hxf_core_finalize(); },
      /*log_caller=*/false);
}

// ---- plugins ----

HXF_CORE_API hxf_error_e hxf_core_plugin_load(hxf_string_t plugin_name, hxf_plugin_loaded_cb cb,
                                              void* user_data) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IPluginMgr& manager = IPluginMgr::GetInstance();
    const std::string name = ToString(plugin_name);
    manager.LoadPlugin(name, Factory().CreatePluginLoadHandler(Caller(), cb, user_data));
  });
}

HXF_CORE_API hxf_error_e hxf_core_plugin_unload(hxf_string_t plugin_name) {
  const CApiCaller caller(__builtin_return_address(0));  // a plugin may be unloading itself
  return ApiFrame(HXF_LOG_SITE,
                  [&] { IPluginMgr::GetInstance().UnloadPlugin(ToString(plugin_name)); });
}

HXF_CORE_API hxf_error_e hxf_core_plugin_unload_all(void) {
  const CApiCaller caller(__builtin_return_address(0));
  return ApiFrame(HXF_LOG_SITE, [&] { IPluginMgr::GetInstance().UnloadAllPlugin(); });
}

HXF_CORE_API hxf_error_e hxf_core_plugin_send_load_result(hxf_string_t plugin_name,
                                                          hxf_plugin_load_result_e result) {
  return ApiFrame(HXF_LOG_SITE,
                  [&] { IPluginMgr::GetInstance().SendLoadResult(ToString(plugin_name), result); });
}

// ---- service handlers (plugins) ----

HXF_CORE_API hxf_service_handler_h hxf_core_service_handler_create(hxf_string_t name,
                                                                   void* user_data) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IServiceMgr* manager = IServiceMgr::GetInstance();
    return manager->CreateServiceHandler(ToString(name), user_data);
  });
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_set_search_callback(
    hxf_service_handler_h handler, hxf_service_handler_search_cb cb, void* user_data) {
  return SetHandlerCallback(HXF_LOG_SITE, handler, &IServiceMgr::SetSearchCallback,
                            &ICallbackHandlerFactory::CreateSearchHandler, cb, user_data);
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_set_search_stop_callback(
    hxf_service_handler_h handler, hxf_service_handler_search_stop_cb cb, void* user_data) {
  return SetHandlerCallback(HXF_LOG_SITE, handler, &IServiceMgr::SetSearchStopCallback,
                            &ICallbackHandlerFactory::CreateSearchStopHandler, cb, user_data);
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_set_get_device_list_callback(
    hxf_service_handler_h handler, hxf_service_handler_get_device_list_cb cb, void* user_data) {
  return SetHandlerCallback(HXF_LOG_SITE, handler, &IServiceMgr::SetGetDeviceListCallback,
                            &ICallbackHandlerFactory::CreateGetDeviceListHandler, cb, user_data);
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_set_listen_callback(
    hxf_service_handler_h handler, hxf_service_handler_listen_cb cb, void* user_data) {
  return SetHandlerCallback(HXF_LOG_SITE, handler, &IServiceMgr::SetListenCallback,
                            &ICallbackHandlerFactory::CreateListenHandler, cb, user_data);
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_set_listen_stop_callback(
    hxf_service_handler_h handler, hxf_service_handler_listen_stop_cb cb, void* user_data) {
  return SetHandlerCallback(HXF_LOG_SITE, handler, &IServiceMgr::SetListenStopCallback,
                            &ICallbackHandlerFactory::CreateListenStopHandler, cb, user_data);
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_set_add_device_callback(
    hxf_service_handler_h handler, hxf_service_handler_add_device_cb cb, void* user_data) {
  return SetHandlerCallback(HXF_LOG_SITE, handler, &IServiceMgr::SetAddDeviceCallback,
                            &ICallbackHandlerFactory::CreateAddDeviceHandler, cb, user_data);
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_set_service_session_created_callback(
    hxf_service_handler_h handler, hxf_service_handler_service_session_created_cb cb,
    void* user_data) {
  return SetHandlerCallback(HXF_LOG_SITE, handler, &IServiceMgr::SetServiceSessionCreatedCallback,
                            &ICallbackHandlerFactory::CreateServiceSessionCreatedHandler, cb,
                            user_data);
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_set_request_service_callback(
    hxf_service_handler_h handler, hxf_service_handler_set_request_service_cb cb, void* user_data) {
  return SetHandlerCallback(HXF_LOG_SITE, handler, &IServiceMgr::SetRequestServiceCallback,
                            &ICallbackHandlerFactory::CreateSetServicePropertyHandler, cb,
                            user_data);
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_subscribe_service(hxf_service_handler_h handler,
                                                                    hxf_string_t service_name) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IServiceMgr* manager = IServiceMgr::GetInstance();
    manager->SubscribeService(handler, ToString(service_name));
  });
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_unsubscribe_service(hxf_service_handler_h handler,
                                                                      hxf_string_t service_name) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IServiceMgr* manager = IServiceMgr::GetInstance();
    manager->UnsubscribeService(handler, ToString(service_name));
  });
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_report_device_found(hxf_service_handler_h handler,
                                                                      hxf_endpoint_h endpoint) {
  // The endpoint is copied before the manager is reached: a null one fails here.
  return ApiFrame(HXF_LOG_SITE, [&] {
    IServiceMgr* manager = IServiceMgr::GetInstance();
    manager->Discovered(handler, IEndpointHelper::Create(endpoint));
  });
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_report_device_list(
    hxf_service_handler_h handler, hxf_endpoint_list_h endpoint_list) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IServiceMgr* manager = IServiceMgr::GetInstance();
    manager->DeviceListDiscovered(handler, IEndpointListHelper::Create(endpoint_list));
  });
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_send_request_result(
    hxf_service_handler_h handler, hxf_string_t service_name, hxf_property_list_h properties,
    hxf_transaction_h transaction, hxf_error_e error) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IServiceMgr* manager = IServiceMgr::GetInstance();
    const std::string name = ToString(service_name);
    manager->SendRequestResult(handler, name, IPropertyListHelper::Create(properties), transaction,
                               error);
  });
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_notify(hxf_service_handler_h handler,
                                                         hxf_string_t service_name,
                                                         hxf_property_list_h properties,
                                                         hxf_transaction_h transaction,
                                                         hxf_error_e error) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IServiceMgr* manager = IServiceMgr::GetInstance();
    const std::string name = ToString(service_name);
    manager->Notify(handler, name, IPropertyListHelper::Create(properties), transaction, error);
  });
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_destroy(hxf_service_handler_h handler) {
  return ApiFrame(HXF_LOG_SITE,
                  [&] { IServiceMgr::GetInstance()->DestroyServiceHandler(handler); });
}

HXF_CORE_API hxf_error_e hxf_core_service_handler_destroy_async(hxf_service_handler_h handler,
                                                                hxf_service_handler_destroyed_cb cb,
                                                                void* user_data) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IServiceMgr* manager = IServiceMgr::GetInstance();
    manager->DestroyServiceHandlerAsync(
        handler, Factory().CreateServiceHandlerDestroyedHandler(Caller(), cb, user_data));
  });
}

// ---- clients (consumers) ----

HXF_CORE_API hxf_client_h hxf_core_client_create(hxf_string_t name) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IClientMgr* manager = IClientMgr::GetInstance();
    return manager->CreateClient(ToString(name));
  });
}

HXF_CORE_API hxf_error_e hxf_core_client_start_passive_search(hxf_client_h client,
                                                              hxf_string_t service_name,
                                                              hxf_client_endpoint_discovered_cb cb,
                                                              void* user_data) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IClientMgr* manager = IClientMgr::GetInstance();
    const std::string name = ToString(service_name);
    manager->StartPassiveSearch(client, name,
                                Factory().CreateDiscoveredHandler(Caller(), cb, user_data));
  });
}

HXF_CORE_API hxf_error_e hxf_core_client_stop_passive_search(hxf_client_h client,
                                                             hxf_string_t service_name) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IClientMgr* manager = IClientMgr::GetInstance();
    manager->StopPassiveSearch(client, ToString(service_name));
  });
}

HXF_CORE_API hxf_error_e hxf_core_client_start_active_search(hxf_client_h client,
                                                             hxf_string_t service_name,
                                                             hxf_client_endpoint_discovered_cb cb,
                                                             uint32_t timeout, void* user_data) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IClientMgr* manager = IClientMgr::GetInstance();
    const std::string name = ToString(service_name);
    manager->StartActiveSearch(client, name,
                               Factory().CreateDiscoveredHandler(Caller(), cb, user_data), timeout);
  });
}

HXF_CORE_API hxf_error_e hxf_core_client_stop_active_search(hxf_client_h client,
                                                            hxf_string_t service_name) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IClientMgr* manager = IClientMgr::GetInstance();
    manager->StopActiveSearch(client, ToString(service_name));
  });
}

HXF_CORE_API hxf_error_e hxf_core_client_get_device_list(hxf_client_h client,
                                                         hxf_string_t service_name,
                                                         hxf_client_device_list_discovered_cb cb,
                                                         uint32_t timeout, void* user_data) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IClientMgr* manager = IClientMgr::GetInstance();
    const std::string name = ToString(service_name);
    manager->GetDeviceList(client, name,
                           Factory().CreateDeviceListDiscoveredHandler(Caller(), cb, user_data),
                           timeout);
  });
}

HXF_CORE_API hxf_error_e hxf_core_set_device_list_discovered_callback(
    hxf_client_h client, hxf_string_t service_name, hxf_client_device_list_discovered_cb cb,
    void* user_data) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IClientMgr* manager = IClientMgr::GetInstance();
    const std::string name = ToString(service_name);
    manager->SetDeviceListDiscoveredCallback(
        client, name, Factory().CreateDeviceListDiscoveredHandler(Caller(), cb, user_data));
  });
}

HXF_CORE_API hxf_service_session_h
hxf_core_client_subscribe_service(hxf_client_h client, hxf_string_t service_name,
                                  hxf_client_service_notification_cb cb, void* user_data) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IClientMgr* manager = IClientMgr::GetInstance();
    const std::string name = ToString(service_name);
    return manager->SubscribeService(
        client, name, Factory().CreateServiceNotificationHandler(Caller(), cb, user_data));
  });
}

HXF_CORE_API hxf_error_e hxf_core_client_set_service_notification_callback(
    hxf_client_h client, hxf_client_service_notification_cb cb, void* user_data) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IClientMgr* manager = IClientMgr::GetInstance();
    manager->SetServiceNotificationCallback(
        client, Factory().CreateServiceNotificationHandler(Caller(), cb, user_data));
  });
}

HXF_CORE_API hxf_error_e hxf_core_client_request_service(
    hxf_client_h client, hxf_service_session_h session, hxf_property_list_h properties,
    hxf_client_request_result_cb result_cb, uint32_t timeout, hxf_transaction_h* transaction,
    void* user_data) {
  const CLogSite site = HXF_LOG_SITE;
  return ApiFrame(site, [&] {
    HXLOG_AT(site, DLOG_ERROR, "pelnor result_cb is (%s, %p)\n",
             result_cb != nullptr ? "Not NULL" : "NULL", reinterpret_cast<void*>(result_cb));
    IClientMgr* manager = IClientMgr::GetInstance();
    // The list is copied first: a null one fails before the manager is reached.
    std::shared_ptr<IPropertyListHelper> list = IPropertyListHelper::Create(properties);
    manager->RequestService(
        client, session, list,
        Factory().CreateSetServicePropertyResultHandler(Caller(), result_cb, user_data), timeout,
        transaction);
  });
}

HXF_CORE_API hxf_error_e hxf_core_client_add_device(hxf_client_h client,
                                                    hxf_service_session_h session,
                                                    hxf_endpoint_h endpoint) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IClientMgr* manager = IClientMgr::GetInstance();
    manager->AddDevice(client, session, IEndpointHelper::Create(endpoint));
  });
}

HXF_CORE_API hxf_error_e hxf_core_client_destroy(hxf_client_h client) {
  return ApiFrame(HXF_LOG_SITE, [&] { IClientMgr::GetInstance()->DestroyClient(client); });
}

HXF_CORE_API hxf_error_e hxf_core_client_destroy_async(hxf_client_h client,
                                                       hxf_client_destroyed_cb cb,
                                                       void* user_data) {
  return ApiFrame(HXF_LOG_SITE, [&] {
    IClientMgr* manager = IClientMgr::GetInstance();
    manager->DestroyClientAsync(client,
                                Factory().CreateClientDestroyedHandler(Caller(), cb, user_data));
  });
}

}  // extern "C"
