#include "CCallbackCallerLocal.h"

#include "HXLog.h"

namespace HXFramework::Core {

namespace {

// The one place a C callback is called: event arguments first, user data last. A null
// callback registered by the application is skipped with a log line rather than crashing; the
// line names the Call... operation that asked.
template <typename Callback, typename... Args>
void Call(CLogFunction hxf_log_function_, const char* kind, Callback cb, void* user_data,
          Args... args) {
  if (cb == nullptr) {
    HXLOG(DLOG_ERROR, "%s callback is NULL, call skipped\n", kind);
    return;
  }
  cb(args..., user_data);  // its library is held open by the handler that calls here
}

}  // namespace

std::shared_ptr<ICallbackCaller>& CCallbackCallerLocal::GetInstance() {
  // Never destroyed, like the managers that hand it out.
  static auto* instance =
      new std::shared_ptr<ICallbackCaller>(std::make_shared<CCallbackCallerLocal>());
  return *instance;
}

void CCallbackCallerLocal::CallPluginLoadHandler(hxf_plugin_loaded_cb cb, void* user_data,
                                                 hxf_string name, hxf_plugin_load_result_e result) {
  Call(CLogFunction(__func__), "plugin load", cb, user_data, name, result);
}

void CCallbackCallerLocal::CallAddDeviceHandler(hxf_service_handler_add_device_cb cb,
                                                void* user_data, void* handle, void* endpoint) {
  Call(CLogFunction(__func__), "add device", cb, user_data, handle, endpoint);
}

void CCallbackCallerLocal::CallServiceSessionCreatedHandler(
    hxf_service_handler_service_session_created_cb cb, void* user_data, void* first, void* second) {
  Call(CLogFunction(__func__), "service session created", cb, user_data, first, second);
}

void CCallbackCallerLocal::CallDiscoveredHandler(hxf_client_endpoint_discovered_cb cb,
                                                 void* user_data, hxf_client_h client,
                                                 hxf_string service_name,
                                                 hxf_endpoint_discovery_result_e result,
                                                 hxf_endpoint_h endpoint) {
  Call(CLogFunction(__func__), "discovered", cb, user_data, client, service_name, result, endpoint);
}

void CCallbackCallerLocal::CallDeviceListDiscoveredHandler(hxf_client_device_list_discovered_cb cb,
                                                           void* user_data, hxf_client_h client,
                                                           hxf_string service_name,
                                                           hxf_endpoint_discovery_result_e result,
                                                           hxf_endpoint_list_h list) {
  Call(CLogFunction(__func__), "device list discovered", cb, user_data, client, service_name,
       result, list);
}

void CCallbackCallerLocal::CallServiceNotificationHandler(hxf_client_service_notification_cb cb,
                                                          void* user_data, hxf_string service_name,
                                                          void* session, void* property_list,
                                                          void* transaction, hxf_error_e error) {
  Call(CLogFunction(__func__), "service notification", cb, user_data, service_name, session,
       property_list, transaction, error);
}

void CCallbackCallerLocal::CallGetServicePropertyResultHandler(
    hxf_get_service_property_result_cb cb, void* user_data, void* handle, hxf_string service_name,
    void* property_list, hxf_error_e error) {
  Call(CLogFunction(__func__), "get service property result", cb, user_data, handle, service_name,
       property_list, error);
}

void CCallbackCallerLocal::CallSetServicePropertyResultHandler(hxf_client_request_result_cb cb,
                                                               void* user_data, hxf_client_h client,
                                                               hxf_service_session_h session,
                                                               hxf_property_list_h property_list,
                                                               hxf_transaction_h transaction,
                                                               hxf_error_e error) {
  HXLOG(DLOG_ERROR, "pelnor result_cb is (%s, %p)\n", cb != nullptr ? "Not NULL" : "NULL",
        reinterpret_cast<void*>(cb));
  Call(CLogFunction(__func__), "request result", cb, user_data, client, session, property_list,
       transaction, error);
}

void CCallbackCallerLocal::CallGetServicePropertyHandler(hxf_get_service_property_cb cb,
                                                         void* user_data, hxf_string service_name,
                                                         void* property_list) {
  Call(CLogFunction(__func__), "get service property", cb, user_data, service_name, property_list);
}

void CCallbackCallerLocal::CallSetServicePropertyHandler(
    hxf_service_handler_set_request_service_cb cb, void* user_data, void* handle, void* transaction,
    void* property_list) {
  Call(CLogFunction(__func__), "request service", cb, user_data, handle, transaction,
       property_list);
}

void CCallbackCallerLocal::CallSearchHandler(hxf_service_handler_search_cb cb, void* user_data,
                                             hxf_service_handler_h handle,
                                             hxf_string service_name) {
  Call(CLogFunction(__func__), "search", cb, user_data, handle, service_name);
}

void CCallbackCallerLocal::CallSearchStopHandler(hxf_service_handler_search_stop_cb cb,
                                                 void* user_data, hxf_service_handler_h handle,
                                                 hxf_string service_name) {
  Call(CLogFunction(__func__), "search stop", cb, user_data, handle, service_name);
}

void CCallbackCallerLocal::CallGetDeviceListHandler(hxf_service_handler_get_device_list_cb cb,
                                                    void* user_data, hxf_service_handler_h handle,
                                                    hxf_string service_name) {
  Call(CLogFunction(__func__), "get device list", cb, user_data, handle, service_name);
}

void CCallbackCallerLocal::CallListenHandler(hxf_service_handler_listen_cb cb, void* user_data,
                                             hxf_service_handler_h handle,
                                             hxf_string service_name) {
  Call(CLogFunction(__func__), "listen", cb, user_data, handle, service_name);
}

void CCallbackCallerLocal::CallListenStopHandler(hxf_service_handler_listen_stop_cb cb,
                                                 void* user_data, hxf_service_handler_h handle,
                                                 hxf_string service_name) {
  Call(CLogFunction(__func__), "listen stop", cb, user_data, handle, service_name);
}

void CCallbackCallerLocal::CallClientDestroyedHandler(hxf_client_destroyed_cb cb, void* user_data,
                                                      hxf_client_h client) {
  Call(CLogFunction(__func__), "client destroyed", cb, user_data, client);
}

void CCallbackCallerLocal::CallServiceHandlerDestroyedHandler(hxf_service_handler_destroyed_cb cb,
                                                              void* user_data,
                                                              hxf_service_handler_h handle) {
  Call(CLogFunction(__func__), "service handler destroyed", cb, user_data, handle);
}

}  // namespace HXFramework::Core
