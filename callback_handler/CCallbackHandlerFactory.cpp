#include "CCallbackHandlerFactory.h"

#include "CLibraryGate.h"

namespace HXFramework::Core {

namespace {

using Caller = ICallbackHandlerFactory::Caller;

// The one way a handler is built: a function object that, when invoked, hands its captured
// C callback and user data with the event's arguments to `call` on the captured caller. The
// callback's library is found once, here, and held open for the duration of every call.
template <typename Callback, typename... Args>
std::function<void(Args...)> Bind(const Caller& caller,
                                  void (ICallbackCaller::*call)(Callback, void*, Args...),
                                  Callback cb, void* user_data) {
  CLibraryGate* gate = CLibraryGate::For(reinterpret_cast<const void*>(cb));
  return [caller, call, cb, user_data, gate](Args... args) {
    CLibraryGate::CPass pass(gate);
    ((*caller).*call)(cb, user_data, args...);
  };
}

}  // namespace

ICallbackHandlerFactory& ICallbackHandlerFactory::GetInstance() {
  static CCallbackHandlerFactory instance;
  return instance;
}

PluginLoadHandler_t CCallbackHandlerFactory::CreatePluginLoadHandler(const Caller& caller,
                                                                     hxf_plugin_loaded_cb cb,
                                                                     void* user_data) {
  return Bind(caller, &ICallbackCaller::CallPluginLoadHandler, cb, user_data);
}

DiscoveredHandler_t CCallbackHandlerFactory::CreateDiscoveredHandler(
    const Caller& caller, hxf_client_endpoint_discovered_cb cb, void* user_data) {
  return Bind(caller, &ICallbackCaller::CallDiscoveredHandler, cb, user_data);
}

DeviceListDiscoveredHandler_t CCallbackHandlerFactory::CreateDeviceListDiscoveredHandler(
    const Caller& caller, hxf_client_device_list_discovered_cb cb, void* user_data) {
  return Bind(caller, &ICallbackCaller::CallDeviceListDiscoveredHandler, cb, user_data);
}

ServiceNotificationHandler_t CCallbackHandlerFactory::CreateServiceNotificationHandler(
    const Caller& caller, hxf_client_service_notification_cb cb, void* user_data) {
  return Bind(caller, &ICallbackCaller::CallServiceNotificationHandler, cb, user_data);
}

SetServicePropertyResultHandler_t CCallbackHandlerFactory::CreateSetServicePropertyResultHandler(
    const Caller& caller, hxf_client_request_result_cb cb, void* user_data) {
  return Bind(caller, &ICallbackCaller::CallSetServicePropertyResultHandler, cb, user_data);
}

AddDeviceHandler_t CCallbackHandlerFactory::CreateAddDeviceHandler(
    const Caller& caller, hxf_service_handler_add_device_cb cb, void* user_data) {
  return Bind(caller, &ICallbackCaller::CallAddDeviceHandler, cb, user_data);
}

ServiceSessionCreatedHandler_t CCallbackHandlerFactory::CreateServiceSessionCreatedHandler(
    const Caller& caller, hxf_service_handler_service_session_created_cb cb, void* user_data) {
  return Bind(caller, &ICallbackCaller::CallServiceSessionCreatedHandler, cb, user_data);
}

GetServicePropertyHandler_t CCallbackHandlerFactory::CreateGetServicePropertyHandler(
    const Caller& caller, hxf_get_service_property_cb cb, void* user_data) {
  return Bind(caller, &ICallbackCaller::CallGetServicePropertyHandler, cb, user_data);
}

SetServicePropertyHandler_t CCallbackHandlerFactory::CreateSetServicePropertyHandler(
    const Caller& caller, hxf_service_handler_set_request_service_cb cb, void* user_data) {
  return Bind(caller, &ICallbackCaller::CallSetServicePropertyHandler, cb, user_data);
}

SearchHandler_t CCallbackHandlerFactory::CreateSearchHandler(const Caller& caller,
                                                             hxf_service_handler_search_cb cb,
                                                             void* user_data) {
  return Bind(caller, &ICallbackCaller::CallSearchHandler, cb, user_data);
}

SearchStopHandler_t CCallbackHandlerFactory::CreateSearchStopHandler(
    const Caller& caller, hxf_service_handler_search_stop_cb cb, void* user_data) {
  return Bind(caller, &ICallbackCaller::CallSearchStopHandler, cb, user_data);
}

GetDeviceListHandler_t CCallbackHandlerFactory::CreateGetDeviceListHandler(
    const Caller& caller, hxf_service_handler_get_device_list_cb cb, void* user_data) {
  return Bind(caller, &ICallbackCaller::CallGetDeviceListHandler, cb, user_data);
}

ListenHandler_t CCallbackHandlerFactory::CreateListenHandler(const Caller& caller,
                                                             hxf_service_handler_listen_cb cb,
                                                             void* user_data) {
  return Bind(caller, &ICallbackCaller::CallListenHandler, cb, user_data);
}

ListenStopHandler_t CCallbackHandlerFactory::CreateListenStopHandler(
    const Caller& caller, hxf_service_handler_listen_stop_cb cb, void* user_data) {
  return Bind(caller, &ICallbackCaller::CallListenStopHandler, cb, user_data);
}

ClientDestroyedHandler_t CCallbackHandlerFactory::CreateClientDestroyedHandler(
    const Caller& caller, hxf_client_destroyed_cb cb, void* user_data) {
  return Bind(caller, &ICallbackCaller::CallClientDestroyedHandler, cb, user_data);
}

ServiceHandlerDestroyedHandler_t CCallbackHandlerFactory::CreateServiceHandlerDestroyedHandler(
    const Caller& caller, hxf_service_handler_destroyed_cb cb, void* user_data) {
  return Bind(caller, &ICallbackCaller::CallServiceHandlerDestroyedHandler, cb, user_data);
}

}  // namespace HXFramework::Core
