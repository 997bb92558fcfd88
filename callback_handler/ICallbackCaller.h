#pragma once

#include "CallbackHandlerTypes.h"

namespace HXFramework::Core {

// Performs the C call behind a handler: callback(event arguments..., user data).
class ICallbackCaller {
 public:
  virtual ~ICallbackCaller() = default;
  virtual void CallPluginLoadHandler(hxf_plugin_loaded_cb cb, void* user_data, hxf_string name,
                                     hxf_plugin_load_result_e result) = 0;
  virtual void CallAddDeviceHandler(hxf_service_handler_add_device_cb cb, void* user_data,
                                    void* handle, void* endpoint) = 0;
  virtual void CallServiceSessionCreatedHandler(hxf_service_handler_service_session_created_cb cb,
                                                void* user_data, void* first, void* second) = 0;
  virtual void CallDiscoveredHandler(hxf_client_endpoint_discovered_cb cb, void* user_data,
                                     hxf_client_h client, hxf_string service_name,
                                     hxf_endpoint_discovery_result_e result,
                                     hxf_endpoint_h endpoint) = 0;
  virtual void CallDeviceListDiscoveredHandler(hxf_client_device_list_discovered_cb cb,
                                               void* user_data, hxf_client_h client,
                                               hxf_string service_name,
                                               hxf_endpoint_discovery_result_e result,
                                               hxf_endpoint_list_h list) = 0;
  virtual void CallServiceNotificationHandler(hxf_client_service_notification_cb cb,
                                              void* user_data, hxf_string service_name,
                                              void* session, void* property_list, void* transaction,
                                              hxf_error_e error) = 0;
  virtual void CallGetServicePropertyResultHandler(hxf_get_service_property_result_cb cb,
                                                   void* user_data, void* handle,
                                                   hxf_string service_name, void* property_list,
                                                   hxf_error_e error) = 0;
  virtual void CallSetServicePropertyResultHandler(hxf_client_request_result_cb cb, void* user_data,
                                                   hxf_client_h client,
                                                   hxf_service_session_h session,
                                                   hxf_property_list_h property_list,
                                                   hxf_transaction_h transaction,
                                                   hxf_error_e error) = 0;
  virtual void CallGetServicePropertyHandler(hxf_get_service_property_cb cb, void* user_data,
                                             hxf_string service_name, void* property_list) = 0;
  virtual void CallSetServicePropertyHandler(hxf_service_handler_set_request_service_cb cb,
                                             void* user_data, void* handle, void* transaction,
                                             void* property_list) = 0;
  virtual void CallSearchHandler(hxf_service_handler_search_cb cb, void* user_data,
                                 hxf_service_handler_h handle, hxf_string service_name) = 0;
  virtual void CallSearchStopHandler(hxf_service_handler_search_stop_cb cb, void* user_data,
                                     hxf_service_handler_h handle, hxf_string service_name) = 0;
  virtual void CallGetDeviceListHandler(hxf_service_handler_get_device_list_cb cb, void* user_data,
                                        hxf_service_handler_h handle, hxf_string service_name) = 0;
  virtual void CallListenHandler(hxf_service_handler_listen_cb cb, void* user_data,
                                 hxf_service_handler_h handle, hxf_string service_name) = 0;
  virtual void CallListenStopHandler(hxf_service_handler_listen_stop_cb cb, void* user_data,
                                     hxf_service_handler_h handle, hxf_string service_name) = 0;
  virtual void CallClientDestroyedHandler(hxf_client_destroyed_cb cb, void* user_data,
                                          hxf_client_h client) = 0;
  virtual void CallServiceHandlerDestroyedHandler(hxf_service_handler_destroyed_cb cb,
                                                  void* user_data,
                                                  hxf_service_handler_h handle) = 0;
};

}  // namespace HXFramework::Core
