/*
 * hxf_core.h - the flat C interface of the device-and-service broker core.
 *
 * Consumers create clients, discover devices offering a named service, subscribe to a
 * service (a service session) and exchange property-list requests, results and
 * notifications. Providers (plugins, libhxf-plugin-NAME.so) create service handlers,
 * answer searches and requests, and report devices.
 *
 * Every function may be called from any thread. Names are taken by length, so they may
 * contain NUL bytes. Every handle, list and endpoint given to the core is copied on entry:
 * the caller keeps and frees its own. Handles and lists handed to a callback are borrowed
 * for the duration of the call. Each callback receives the user-data pointer given with it
 * as its last argument, unchanged. A stale or unknown handle yields an error code, never a
 * crash.
 */
#ifndef HXF_CORE_H
#define HXF_CORE_H

#include <stdint.h>

#include "hxf_common.h"
#include "hxf_core_version.h"

#ifdef __cplusplus
extern "C" {
#endif

#if defined(HXF_CORE_BUILDING)
#define HXF_CORE_API __attribute__((visibility("default")))
#else
#define HXF_CORE_API
#endif

typedef void* hxf_client_h;
typedef void* hxf_service_handler_h;
typedef void* hxf_service_session_h;
typedef void* hxf_transaction_h;

/* ---- callbacks of the application (consumer side) ---- */

typedef void (*hxf_plugin_loaded_cb)(hxf_string plugin_name, hxf_plugin_load_result_e result,
                                     void* user_data);
typedef void (*hxf_client_endpoint_discovered_cb)(hxf_client_h client, hxf_string service_name,
                                                  hxf_endpoint_discovery_result_e result,
                                                  hxf_endpoint_h endpoint, void* user_data);
typedef void (*hxf_client_device_list_discovered_cb)(hxf_client_h client, hxf_string service_name,
                                                     hxf_endpoint_discovery_result_e result,
                                                     hxf_endpoint_list_h endpoint_list,
                                                     void* user_data);
typedef void (*hxf_client_service_notification_cb)(hxf_string service_name,
                                                   hxf_service_session_h session,
                                                   hxf_property_list_h properties,
                                                   hxf_transaction_h transaction, hxf_error_e error,
                                                   void* user_data);
typedef void (*hxf_client_request_result_cb)(hxf_client_h client, hxf_service_session_h session,
                                             hxf_property_list_h properties,
                                             hxf_transaction_h transaction, hxf_error_e error,
                                             void* user_data);
typedef void (*hxf_client_destroyed_cb)(hxf_client_h client, void* user_data);

/* ---- callbacks of a service handler (provider side) ---- */

typedef void (*hxf_service_handler_search_cb)(hxf_service_handler_h handler,
                                              hxf_string service_name, void* user_data);
typedef void (*hxf_service_handler_search_stop_cb)(hxf_service_handler_h handler,
                                                   hxf_string service_name, void* user_data);
typedef void (*hxf_service_handler_get_device_list_cb)(hxf_service_handler_h handler,
                                                       hxf_string service_name, void* user_data);
typedef void (*hxf_service_handler_listen_cb)(hxf_service_handler_h handler,
                                              hxf_string service_name, void* user_data);
typedef void (*hxf_service_handler_listen_stop_cb)(hxf_service_handler_h handler,
                                                   hxf_string service_name, void* user_data);
typedef void (*hxf_service_handler_add_device_cb)(hxf_service_handler_h handler,
                                                  hxf_endpoint_h endpoint, void* user_data);
typedef void (*hxf_service_handler_service_session_created_cb)(hxf_service_handler_h handler,
                                                               hxf_service_session_h session,
                                                               void* user_data);
typedef void (*hxf_service_handler_set_request_service_cb)(hxf_service_handler_h handler,
                                                           hxf_transaction_h transaction,
                                                           hxf_property_list_h properties,
                                                           void* user_data);
typedef void (*hxf_service_handler_destroyed_cb)(hxf_service_handler_h handler, void* user_data);

/* ---- library lifecycle ---- */

HXF_CORE_API hxf_error_e hxf_core_initialize(void);
HXF_CORE_API hxf_error_e hxf_core_finalize(void);

/* ---- plugins ---- */

HXF_CORE_API hxf_error_e hxf_core_plugin_load(hxf_string_t plugin_name, hxf_plugin_loaded_cb cb,
                                              void* user_data);
HXF_CORE_API hxf_error_e hxf_core_plugin_unload(hxf_string_t plugin_name);
HXF_CORE_API hxf_error_e hxf_core_plugin_unload_all(void);
HXF_CORE_API hxf_error_e hxf_core_plugin_send_load_result(hxf_string_t plugin_name,
                                                          hxf_plugin_load_result_e result);

/* ---- service handlers (plugins) ---- */

HXF_CORE_API hxf_service_handler_h hxf_core_service_handler_create(hxf_string_t name,
                                                                   void* user_data);
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_search_callback(
    hxf_service_handler_h handler, hxf_service_handler_search_cb cb, void* user_data);
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_search_stop_callback(
    hxf_service_handler_h handler, hxf_service_handler_search_stop_cb cb, void* user_data);
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_get_device_list_callback(
    hxf_service_handler_h handler, hxf_service_handler_get_device_list_cb cb, void* user_data);
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_listen_callback(
    hxf_service_handler_h handler, hxf_service_handler_listen_cb cb, void* user_data);
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_listen_stop_callback(
    hxf_service_handler_h handler, hxf_service_handler_listen_stop_cb cb, void* user_data);
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_add_device_callback(
    hxf_service_handler_h handler, hxf_service_handler_add_device_cb cb, void* user_data);
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_service_session_created_callback(
    hxf_service_handler_h handler, hxf_service_handler_service_session_created_cb cb,
    void* user_data);
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_request_service_callback(
    hxf_service_handler_h handler, hxf_service_handler_set_request_service_cb cb, void* user_data);
HXF_CORE_API hxf_error_e hxf_core_service_handler_subscribe_service(hxf_service_handler_h handler,
                                                                    hxf_string_t service_name);
HXF_CORE_API hxf_error_e hxf_core_service_handler_unsubscribe_service(hxf_service_handler_h handler,
                                                                      hxf_string_t service_name);
HXF_CORE_API hxf_error_e hxf_core_service_handler_report_device_found(hxf_service_handler_h handler,
                                                                      hxf_endpoint_h endpoint);
HXF_CORE_API hxf_error_e hxf_core_service_handler_report_device_list(
    hxf_service_handler_h handler, hxf_endpoint_list_h endpoint_list);
HXF_CORE_API hxf_error_e hxf_core_service_handler_send_request_result(
    hxf_service_handler_h handler, hxf_string_t service_name, hxf_property_list_h properties,
    hxf_transaction_h transaction, hxf_error_e error);
HXF_CORE_API hxf_error_e hxf_core_service_handler_notify(hxf_service_handler_h handler,
                                                         hxf_string_t service_name,
                                                         hxf_property_list_h properties,
                                                         hxf_transaction_h transaction,
                                                         hxf_error_e error);
HXF_CORE_API hxf_error_e hxf_core_service_handler_destroy(hxf_service_handler_h handler);
HXF_CORE_API hxf_error_e hxf_core_service_handler_destroy_async(hxf_service_handler_h handler,
                                                                hxf_service_handler_destroyed_cb cb,
                                                                void* user_data);

/* ---- clients (consumers) ---- */

HXF_CORE_API hxf_client_h hxf_core_client_create(hxf_string_t name);
HXF_CORE_API hxf_error_e hxf_core_client_start_passive_search(hxf_client_h client,
                                                              hxf_string_t service_name,
                                                              hxf_client_endpoint_discovered_cb cb,
                                                              void* user_data);
HXF_CORE_API hxf_error_e hxf_core_client_stop_passive_search(hxf_client_h client,
                                                             hxf_string_t service_name);
/* timeout in milliseconds */
HXF_CORE_API hxf_error_e hxf_core_client_start_active_search(hxf_client_h client,
                                                             hxf_string_t service_name,
                                                             hxf_client_endpoint_discovered_cb cb,
                                                             uint32_t timeout, void* user_data);
HXF_CORE_API hxf_error_e hxf_core_client_stop_active_search(hxf_client_h client,
                                                            hxf_string_t service_name);
HXF_CORE_API hxf_error_e hxf_core_client_get_device_list(hxf_client_h client,
                                                         hxf_string_t service_name,
                                                         hxf_client_device_list_discovered_cb cb,
                                                         uint32_t timeout, void* user_data);
HXF_CORE_API hxf_error_e hxf_core_set_device_list_discovered_callback(
    hxf_client_h client, hxf_string_t service_name, hxf_client_device_list_discovered_cb cb,
    void* user_data);
HXF_CORE_API hxf_service_session_h
hxf_core_client_subscribe_service(hxf_client_h client, hxf_string_t service_name,
                                  hxf_client_service_notification_cb cb, void* user_data);
HXF_CORE_API hxf_error_e hxf_core_client_set_service_notification_callback(
    hxf_client_h client, hxf_client_service_notification_cb cb, void* user_data);
/* The new transaction's handle is written to *transaction before the request is sent. */
HXF_CORE_API hxf_error_e hxf_core_client_request_service(
    hxf_client_h client, hxf_service_session_h session, hxf_property_list_h properties,
    hxf_client_request_result_cb result_cb, uint32_t timeout, hxf_transaction_h* transaction,
    void* user_data);
HXF_CORE_API hxf_error_e hxf_core_client_add_device(hxf_client_h client,
                                                    hxf_service_session_h session,
                                                    hxf_endpoint_h endpoint);
HXF_CORE_API hxf_error_e hxf_core_client_destroy(hxf_client_h client);
HXF_CORE_API hxf_error_e hxf_core_client_destroy_async(hxf_client_h client,
                                                       hxf_client_destroyed_cb cb, void* user_data);

#ifdef __cplusplus
}
#endif

#endif /* HXF_CORE_H */
