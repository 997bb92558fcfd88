#pragma once

#include "ICallbackHandlerFactory.h"

namespace HXFramework::Core {

class CCallbackHandlerFactory : public ICallbackHandlerFactory {
 public:
  PluginLoadHandler_t CreatePluginLoadHandler(const Caller&, hxf_plugin_loaded_cb, void*) override;
  DiscoveredHandler_t CreateDiscoveredHandler(const Caller&, hxf_client_endpoint_discovered_cb,
                                              void*) override;
  DeviceListDiscoveredHandler_t CreateDeviceListDiscoveredHandler(
      const Caller&, hxf_client_device_list_discovered_cb, void*) override;
  ServiceNotificationHandler_t CreateServiceNotificationHandler(const Caller&,
                                                                hxf_client_service_notification_cb,
                                                                void*) override;
  SetServicePropertyResultHandler_t CreateSetServicePropertyResultHandler(
      const Caller&, hxf_client_request_result_cb, void*) override;
  AddDeviceHandler_t CreateAddDeviceHandler(const Caller&, hxf_service_handler_add_device_cb,
                                            void*) override;
  ServiceSessionCreatedHandler_t CreateServiceSessionCreatedHandler(
      const Caller&, hxf_service_handler_service_session_created_cb, void*) override;
  GetServicePropertyHandler_t CreateGetServicePropertyHandler(const Caller&,
                                                              hxf_get_service_property_cb,
                                                              void*) override;
  SetServicePropertyHandler_t CreateSetServicePropertyHandler(
      const Caller&, hxf_service_handler_set_request_service_cb, void*) override;
  SearchHandler_t CreateSearchHandler(const Caller&, hxf_service_handler_search_cb, void*) override;
  SearchStopHandler_t CreateSearchStopHandler(const Caller&, hxf_service_handler_search_stop_cb,
                                              void*) override;
  GetDeviceListHandler_t CreateGetDeviceListHandler(const Caller&,
                                                    hxf_service_handler_get_device_list_cb,
                                                    void*) override;
  ListenHandler_t CreateListenHandler(const Caller&, hxf_service_handler_listen_cb, void*) override;
  ListenStopHandler_t CreateListenStopHandler(const Caller&, hxf_service_handler_listen_stop_cb,
                                              void*) override;
  ClientDestroyedHandler_t CreateClientDestroyedHandler(const Caller&, hxf_client_destroyed_cb,
                                                        void*) override;
  ServiceHandlerDestroyedHandler_t CreateServiceHandlerDestroyedHandler(
      const Caller&, hxf_service_handler_destroyed_cb, void*) override;
};

}  // namespace HXFramework::Core
