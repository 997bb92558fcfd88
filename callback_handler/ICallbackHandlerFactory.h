#pragma once

#include <memory>

#include "ICallbackCaller.h"

namespace HXFramework::Core {

// Builds the handler objects. Each captures, by value, the shared caller, the C callback and
// its user data; a null callback still yields a non-empty handler.
class ICallbackHandlerFactory {
 public:
  static ICallbackHandlerFactory& GetInstance();
  using Caller = std::shared_ptr<ICallbackCaller>;

  virtual ~ICallbackHandlerFactory() = default;
  virtual PluginLoadHandler_t CreatePluginLoadHandler(const Caller&, hxf_plugin_loaded_cb,
                                                      void*) = 0;
  virtual DiscoveredHandler_t CreateDiscoveredHandler(const Caller&,
                                                      hxf_client_endpoint_discovered_cb, void*) = 0;
  virtual DeviceListDiscoveredHandler_t CreateDeviceListDiscoveredHandler(
      const Caller&, hxf_client_device_list_discovered_cb, void*) = 0;
  virtual ServiceNotificationHandler_t CreateServiceNotificationHandler(
      const Caller&, hxf_client_service_notification_cb, void*) = 0;
  virtual SetServicePropertyResultHandler_t CreateSetServicePropertyResultHandler(
      const Caller&, hxf_client_request_result_cb, void*) = 0;
  virtual AddDeviceHandler_t CreateAddDeviceHandler(const Caller&,
                                                    hxf_service_handler_add_device_cb, void*) = 0;
  virtual ServiceSessionCreatedHandler_t CreateServiceSessionCreatedHandler(
      const Caller&, hxf_service_handler_service_session_created_cb, void*) = 0;
  virtual GetServicePropertyHandler_t CreateGetServicePropertyHandler(const Caller&,
                                                                      hxf_get_service_property_cb,
                                                                      void*) = 0;
  virtual SetServicePropertyHandler_t CreateSetServicePropertyHandler(
      const Caller&, hxf_service_handler_set_request_service_cb, void*) = 0;
  virtual SearchHandler_t CreateSearchHandler(const Caller&, hxf_service_handler_search_cb,
                                              void*) = 0;
  virtual SearchStopHandler_t CreateSearchStopHandler(const Caller&,
                                                      hxf_service_handler_search_stop_cb,
                                                      void*) = 0;
  virtual GetDeviceListHandler_t CreateGetDeviceListHandler(const Caller&,
                                                            hxf_service_handler_get_device_list_cb,
                                                            void*) = 0;
  virtual ListenHandler_t CreateListenHandler(const Caller&, hxf_service_handler_listen_cb,
                                              void*) = 0;
  virtual ListenStopHandler_t CreateListenStopHandler(const Caller&,
                                                      hxf_service_handler_listen_stop_cb,
                                                      void*) = 0;
  virtual ClientDestroyedHandler_t CreateClientDestroyedHandler(const Caller&,
                                                                hxf_client_destroyed_cb, void*) = 0;
  virtual ServiceHandlerDestroyedHandler_t CreateServiceHandlerDestroyedHandler(
      const Caller&, hxf_service_handler_destroyed_cb, void*) = 0;
};

}  // namespace HXFramework::Core
