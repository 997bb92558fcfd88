// The function objects the core holds instead of C callbacks. Each wraps one C callback
// and its user data; invoking it has an ICallbackCaller make the C call.
#pragma once

#include <functional>

#include "hxf_core.h"

// C callback types of the two handler kinds that have no public registration.
typedef void (*hxf_get_service_property_cb)(hxf_string service_name, void* property_list,
                                            void* user_data);
typedef void (*hxf_get_service_property_result_cb)(void* handle, hxf_string service_name,
                                                   void* property_list, hxf_error_e error,
                                                   void* user_data);

namespace HXFramework::Core {

using PluginLoadHandler_t = std::function<void(hxf_string, hxf_plugin_load_result_e)>;
using DiscoveredHandler_t =
    std::function<void(hxf_client_h, hxf_string, hxf_endpoint_discovery_result_e, hxf_endpoint_h)>;
using DeviceListDiscoveredHandler_t = std::function<void(
    hxf_client_h, hxf_string, hxf_endpoint_discovery_result_e, hxf_endpoint_list_h)>;
// (service name, session, property list, transaction, error)
using ServiceNotificationHandler_t =
    std::function<void(hxf_string, void*, void*, void*, hxf_error_e)>;
// (client, session, property list, transaction, error)
using SetServicePropertyResultHandler_t = std::function<void(
    hxf_client_h, hxf_service_session_h, hxf_property_list_h, hxf_transaction_h, hxf_error_e)>;
using GetServicePropertyResultHandler_t =
    std::function<void(void*, hxf_string, void*, hxf_error_e)>;
using AddDeviceHandler_t = std::function<void(void*, void*)>;
using ServiceSessionCreatedHandler_t = std::function<void(void*, void*)>;
using GetServicePropertyHandler_t = std::function<void(hxf_string, void*)>;
// Requests travel as set-service-property operations: (handler, transaction, property list).
using SetServicePropertyHandler_t = std::function<void(void*, void*, void*)>;
using SearchHandler_t = std::function<void(hxf_service_handler_h, hxf_string)>;
using SearchStopHandler_t = std::function<void(hxf_service_handler_h, hxf_string)>;
using GetDeviceListHandler_t = std::function<void(hxf_service_handler_h, hxf_string)>;
using ListenHandler_t = std::function<void(hxf_service_handler_h, hxf_string)>;
using ListenStopHandler_t = std::function<void(hxf_service_handler_h, hxf_string)>;
using ClientDestroyedHandler_t = std::function<void(hxf_client_h)>;
using ServiceHandlerDestroyedHandler_t = std::function<void(hxf_service_handler_h)>;

}  // namespace HXFramework::Core
