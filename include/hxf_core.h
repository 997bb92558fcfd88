/**
 * @file hxf_core.h
 * @brief The flat C interface of the device-and-service broker core
 *        (`pkg-config hxf-core`, CMake `hxf::core`).
 *
 * Consumers (the application) create clients, discover devices offering a named service,
 * subscribe to a service (a service session) and exchange property-list requests, results
 * and notifications. Providers (plugins, see hxf_plugin.h) create service handlers, answer
 * searches and requests, and report devices.
 *
 * **Calls.** Every function may be called from any thread, concurrently, and before or after
 * hxf_core_initialize(). Names are taken by length, so they may contain NUL bytes. Every
 * list and endpoint given to the core is copied on entry: the caller keeps and frees its
 * own, at once if it likes. Most functions check their arguments, queue the work on the
 * object's own serial execution context and return: an error found after that point is
 * logged, not returned. Each function says which.
 *
 * **Handles** are the addresses of the core's objects. A stale or unknown handle yields an
 * error code (or NULL), never a crash; an address is not given to a newer object of its kind
 * until 4096 later ones have come and gone, so a stale handle names nothing rather than
 * somebody else's object.
 *
 * **Callbacks** receive the user-data pointer given with them as their last argument,
 * unchanged. The handles, lists and endpoints a callback receives are borrowed for the
 * duration of the call: copy what you keep. Callbacks run on the core's threads: a thread
 * of its pool, or a timer thread for time-outs. The callbacks of one service handler never
 * run two at a time. A client's discovery callbacks and request results (time-outs included)
 * run one at a time, and the results of one session in the order the provider sent them.
 * The notifications of one session run one at a time and in the order sent, but apart from
 * the client's other callbacks: a notification may run while a result of the same client
 * runs, and one sent after a result may reach the consumer before it. A call that drives an
 * object's context synchronously (subscribing, destroying) may run a callback of that object
 * that was already queued on the calling thread before it returns; never hold a lock across
 * such a call that the callback also takes. A NULL callback is accepted: the core logs and skips
 * it when it would call it.
 *
 * **Codes.** Functions return ::hxf_error_e codes: HXF_ERROR_NONE on success; the failures
 * each function lists; and HXF_ERROR_OPERATION_FAILED when the object is being destroyed
 * and refuses new work, or for an unexpected failure such as running out of memory.
 */
#ifndef HXF_CORE_H
#define HXF_CORE_H

#include <stddef.h> /* NULL, which these functions take and return */
#include <stdint.h>

#include "hxf_common.h"
#include "hxf_core_version.h"

#ifdef __cplusplus
extern "C" {
#endif

/** @cond INTERNAL */
#if defined(HXF_CORE_BUILDING)
#define HXF_CORE_API __attribute__((visibility("default")))
#else
#define HXF_CORE_API
#endif
/** @endcond */

/** A consumer of services, made by hxf_core_client_create(). */
typedef void* hxf_client_h;
/** A provider's handler of services, made by hxf_core_service_handler_create(). */
typedef void* hxf_service_handler_h;
/** A client's subscription to one service, made by hxf_core_client_subscribe_service(). */
typedef void* hxf_service_session_h;
/** One outstanding request, made by hxf_core_client_request_service(). */
typedef void* hxf_transaction_h;

/** @name Callbacks of the application (consumer side) */
/** @{ */

/** How loading a plugin went: `result` comes from the plugin
 *  (hxf_core_plugin_send_load_result()), or is HXF_PLUGIN_LOAD_RESULT_FAILED from the core.
 *  Runs on a pool thread. */
typedef void (*hxf_plugin_loaded_cb)(hxf_string plugin_name, hxf_plugin_load_result_e result,
                                     void* user_data);
/** A search's news: HXF_ENDPOINT_DISCOVERY_RESULT_FOUND with a device's endpoint, or
 *  HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT with a NULL endpoint when a timed search ends
 *  without having found anything. Runs on a pool thread. */
typedef void (*hxf_client_endpoint_discovered_cb)(hxf_client_h client, hxf_string service_name,
                                                  hxf_endpoint_discovery_result_e result,
                                                  hxf_endpoint_h endpoint, void* user_data);
/** A device list: HXF_ENDPOINT_DISCOVERY_RESULT_FOUND with the list, or
 *  HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT with a NULL list. Runs on a pool thread. */
typedef void (*hxf_client_device_list_discovered_cb)(hxf_client_h client, hxf_string service_name,
                                                     hxf_endpoint_discovery_result_e result,
                                                     hxf_endpoint_list_h endpoint_list,
                                                     void* user_data);
/** A provider's notification on a session, with its properties and error. `transaction` is
 *  not NULL when the provider named one of this session's outstanding requests: that
 *  request then ends here and gets no result callback. Runs on a pool thread. */
typedef void (*hxf_client_service_notification_cb)(hxf_string service_name,
                                                   hxf_service_session_h session,
                                                   hxf_property_list_h properties,
                                                   hxf_transaction_h transaction, hxf_error_e error,
                                                   void* user_data);
/** A request's result: the provider's properties and error, or HXF_ERROR_TIMED_OUT with NULL
 *  properties when its time-out expired first (on a timer thread; otherwise on a pool
 *  thread). */
typedef void (*hxf_client_request_result_cb)(hxf_client_h client, hxf_service_session_h session,
                                             hxf_property_list_h properties,
                                             hxf_transaction_h transaction, hxf_error_e error,
                                             void* user_data);
/** A client destroyed by hxf_core_client_destroy_async() is gone. Runs on a pool thread. */
typedef void (*hxf_client_destroyed_cb)(hxf_client_h client, void* user_data);

/** @} */
/** @name Callbacks of a service handler (provider side)
 *  They run on a pool thread, one at a time per handler. */
/** @{ */

/** A consumer started an active search of `service_name`: report devices with
 *  hxf_core_service_handler_report_device_found(). */
typedef void (*hxf_service_handler_search_cb)(hxf_service_handler_h handler,
                                              hxf_string service_name, void* user_data);
/** A consumer stopped its active search of `service_name`. */
typedef void (*hxf_service_handler_search_stop_cb)(hxf_service_handler_h handler,
                                                   hxf_string service_name, void* user_data);
/** A consumer asked for the device list of `service_name`: answer with
 *  hxf_core_service_handler_report_device_list(). */
typedef void (*hxf_service_handler_get_device_list_cb)(hxf_service_handler_h handler,
                                                       hxf_string service_name, void* user_data);
/** A consumer started a passive search of `service_name`: report devices as they come. */
typedef void (*hxf_service_handler_listen_cb)(hxf_service_handler_h handler,
                                              hxf_string service_name, void* user_data);
/** A consumer stopped its passive search of `service_name`. */
typedef void (*hxf_service_handler_listen_stop_cb)(hxf_service_handler_h handler,
                                                   hxf_string service_name, void* user_data);
/** A consumer added a device (hxf_core_client_add_device()) on a session of this handler. */
typedef void (*hxf_service_handler_add_device_cb)(hxf_service_handler_h handler,
                                                  hxf_endpoint_h endpoint, void* user_data);
/** A consumer subscribed. Registered and kept, but this version of the core does not call
 *  it: a provider does not learn who subscribed. */
typedef void (*hxf_service_handler_service_session_created_cb)(hxf_service_handler_h handler,
                                                               hxf_service_session_h session,
                                                               void* user_data);
/** A consumer's request: the list's name is the operation (for example "get"). Answer, now
 *  or later and from any thread, with hxf_core_service_handler_send_request_result() naming
 *  `transaction`. Runs on the pool thread that carries the consumer's request. */
typedef void (*hxf_service_handler_set_request_service_cb)(hxf_service_handler_h handler,
                                                           hxf_transaction_h transaction,
                                                           hxf_property_list_h properties,
                                                           void* user_data);
/** A handler destroyed by hxf_core_service_handler_destroy_async() is gone. */
typedef void (*hxf_service_handler_destroyed_cb)(hxf_service_handler_h handler, void* user_data);

/** @} */
/** @name Library lifecycle */
/** @{ */

/**
 * Prepares the core and reads the application's name and version for the log. Call it
 * once, before other threads use the library. Loads no plugin.
 * @return HXF_ERROR_NONE, also when the application's identity cannot be read.
 */
HXF_CORE_API hxf_error_e hxf_core_initialize(void);
/**
 * Destroys every client (with its sessions) and then every service and service handler,
 * synchronously. Unloads no plugin: unload them first (hxf_core_plugin_unload_all()).
 * @return HXF_ERROR_NONE.
 */
HXF_CORE_API hxf_error_e hxf_core_finalize(void);

/** @} */
/** @name Plugins */
/** @{ */

/**
 * Loads the provider plugin `libhxf-plugin-NAME.so` from the plugin folder, asynchronously:
 * returns once the request is accepted; a pool thread opens the library and calls its
 * CreatePlugin(). `cb` (copied with `user_data`) then hears the plugin's own report
 * (hxf_core_plugin_send_load_result()), or HXF_PLUGIN_LOAD_RESULT_FAILED when the library or
 * an entry point is missing or CreatePlugin() returned false.
 *
 * On a host build `plugin_name` may also be a path (any name with a '/' in it, such as
 * "./build/libhxf-plugin-NAME.so"): that library is loaded, under the name NAME of its file
 * name, which is then the name to report, unload and be told about. Device builds load from
 * their one plugin folder only and refuse a path.
 * @return HXF_ERROR_NONE when accepted; HXF_ERROR_OPERATION_FAILED when a plugin of that name
 *         is already loaded ("requested plugin has already loaded!");
 *         HXF_ERROR_INVALID_PARAMETER for a path on a device build or a path whose file name
 *         is not `libhxf-plugin-NAME.so`; HXF_ERROR_NOT_FOUND for a path to no file.
 */
HXF_CORE_API hxf_error_e hxf_core_plugin_load(hxf_string_t plugin_name, hxf_plugin_loaded_cb cb,
                                              void* user_data);
/**
 * Unloads a plugin: calls its DestroyPlugin() and closes the library. Returns after both,
 * unless the plugin's load was still under way (then they follow it). The load callback is
 * not called for an unload. The library stays mapped while one of its callbacks is running,
 * and is not closed when the plugin itself asked for the unload.
 * @return HXF_ERROR_NONE; HXF_ERROR_OPERATION_FAILED for a name that is not loaded
 *         ("enable to find the plugin in map").
 */
HXF_CORE_API hxf_error_e hxf_core_plugin_unload(hxf_string_t plugin_name);
/**
 * Unloads every plugin, as hxf_core_plugin_unload() does, and forgets them all.
 * @return HXF_ERROR_NONE, also when none is loaded.
 */
HXF_CORE_API hxf_error_e hxf_core_plugin_unload_all(void);
/**
 * For a plugin: reports how its start went, once it knows (from CreatePlugin() or later from
 * its own thread). The application's hxf_plugin_loaded_cb receives `result` unchanged, on a
 * pool thread; this call returns before that.
 * @return HXF_ERROR_NONE, even for a name that is not loaded (only the log says so).
 */
HXF_CORE_API hxf_error_e hxf_core_plugin_send_load_result(hxf_string_t plugin_name,
                                                          hxf_plugin_load_result_e result);

/** @} */
/** @name Service handlers (providers) */
/** @{ */

/**
 * Creates a service handler named `name` (copied). Set its callbacks, then subscribe it to
 * the services it offers. `user_data` is not used.
 * @return the handler; NULL when the name is empty or the handler cannot be registered.
 *         Destroy it with hxf_core_service_handler_destroy() or _destroy_async().
 */
HXF_CORE_API hxf_service_handler_h hxf_core_service_handler_create(hxf_string_t name,
                                                                   void* user_data);
/**
 * Sets the callback that asks the handler to search actively; replaces an earlier one. The
 * change is queued on the handler's context (pool); a search asked for before it takes
 * effect goes to the earlier callback. The seven setters below work the same way, except
 * hxf_core_service_handler_set_request_service_callback(), which takes effect before it
 * returns.
 * @return HXF_ERROR_NONE; HXF_ERROR_INVALID_HANDLE for a NULL or unknown handler.
 */
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_search_callback(
    hxf_service_handler_h handler, hxf_service_handler_search_cb cb, void* user_data);
/** Sets the callback that stops an active search.
 *  @return as hxf_core_service_handler_set_search_callback(). */
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_search_stop_callback(
    hxf_service_handler_h handler, hxf_service_handler_search_stop_cb cb, void* user_data);
/** Sets the callback that asks for the device list.
 *  @return as hxf_core_service_handler_set_search_callback(). */
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_get_device_list_callback(
    hxf_service_handler_h handler, hxf_service_handler_get_device_list_cb cb, void* user_data);
/** Sets the callback that starts a passive search.
 *  @return as hxf_core_service_handler_set_search_callback(). */
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_listen_callback(
    hxf_service_handler_h handler, hxf_service_handler_listen_cb cb, void* user_data);
/** Sets the callback that stops a passive search.
 *  @return as hxf_core_service_handler_set_search_callback(). */
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_listen_stop_callback(
    hxf_service_handler_h handler, hxf_service_handler_listen_stop_cb cb, void* user_data);
/** Sets the callback that hears a device a consumer added.
 *  @return as hxf_core_service_handler_set_search_callback(). */
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_add_device_callback(
    hxf_service_handler_h handler, hxf_service_handler_add_device_cb cb, void* user_data);
/** Sets the session-created callback (kept, never called; see its type).
 *  @return as hxf_core_service_handler_set_search_callback(). */
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_service_session_created_callback(
    hxf_service_handler_h handler, hxf_service_handler_service_session_created_cb cb,
    void* user_data);
/** Sets the callback that receives consumers' requests; in effect when this returns.
 *  @return as hxf_core_service_handler_set_search_callback(). */
HXF_CORE_API hxf_error_e hxf_core_service_handler_set_request_service_callback(
    hxf_service_handler_h handler, hxf_service_handler_set_request_service_cb cb, void* user_data);
/**
 * Offers the service `service_name` through this handler: the service is created if no one
 * named it before, and its consumers' searches and requests reach the handler from now on.
 * Done when it returns.
 * @return HXF_ERROR_NONE; HXF_ERROR_INVALID_HANDLE for a NULL or unknown handler;
 *         HXF_ERROR_INVALID_SERVICE_NAME for an empty name.
 */
HXF_CORE_API hxf_error_e hxf_core_service_handler_subscribe_service(hxf_service_handler_h handler,
                                                                    hxf_string_t service_name);
/**
 * Ends the service `service_name` for everybody: the service is stopped and forgotten with
 * all its handlers, searches and consumers, not only this handler's subscription. The next
 * call that names it starts a new, empty one. Done when it returns.
 * @return HXF_ERROR_NONE; HXF_ERROR_INVALID_HANDLE for a NULL handler;
 *         HXF_ERROR_INVALID_SERVICE_NAME for an empty name; HXF_ERROR_OPERATION_FAILED when
 *         no service has that name ("service not found").
 */
HXF_CORE_API hxf_error_e hxf_core_service_handler_unsubscribe_service(hxf_service_handler_h handler,
                                                                      hxf_string_t service_name);
/**
 * Reports one device. It goes to the service named by the endpoint's own service name (not
 * by the handler's subscriptions), which passes it on to each of its searching consumers'
 * hxf_client_endpoint_discovered_cb, on pool threads, after this returns. The core copies
 * `endpoint`.
 * @return HXF_ERROR_NONE; HXF_ERROR_CREATE_FAILED for a NULL endpoint;
 *         HXF_ERROR_INVALID_PARAMETER for a NULL handler;
 *         HXF_ERROR_OPERATION_FAILED when no service has the endpoint's service name.
 */
HXF_CORE_API hxf_error_e hxf_core_service_handler_report_device_found(hxf_service_handler_h handler,
                                                                      hxf_endpoint_h endpoint);
/**
 * Answers a device-list request. The list goes to the service named by its first endpoint's
 * service name, and from there to the consumers that asked, after this returns. The core
 * copies `endpoint_list`.
 * @return HXF_ERROR_NONE; HXF_ERROR_OPERATION_FAILED for a NULL list or when no service has
 *         that name; HXF_ERROR_INVALID_PARAMETER for a NULL handler or an empty list.
 */
HXF_CORE_API hxf_error_e hxf_core_service_handler_report_device_list(
    hxf_service_handler_h handler, hxf_endpoint_list_h endpoint_list);
/**
 * Answers the request `transaction` with `properties` (copied) and `error`. Queued: the
 * consumer's hxf_client_request_result_cb runs on a pool thread after this returns. An
 * answer to a transaction that has already timed out or ended is dropped (logged, not an
 * error).
 * @return HXF_ERROR_NONE; HXF_ERROR_OPERATION_FAILED for NULL properties;
 *         HXF_ERROR_INVALID_HANDLE for a NULL or unknown handler.
 */
HXF_CORE_API hxf_error_e hxf_core_service_handler_send_request_result(
    hxf_service_handler_h handler, hxf_string_t service_name, hxf_property_list_h properties,
    hxf_transaction_h transaction, hxf_error_e error);
/**
 * Sends a notification (`properties`, copied, and `error`) to every session of this handler;
 * each consumer hears it through the notification callback it gave when subscribing, on a
 * pool thread, after this returns. With a `transaction` the session that holds that request
 * ends it: its consumer gets the notification instead of a result.
 * @return as hxf_core_service_handler_send_request_result().
 */
HXF_CORE_API hxf_error_e hxf_core_service_handler_notify(hxf_service_handler_h handler,
                                                         hxf_string_t service_name,
                                                         hxf_property_list_h properties,
                                                         hxf_transaction_h transaction,
                                                         hxf_error_e error);
/**
 * Destroys a handler synchronously: when it returns, the handler's queued work has run or
 * been dropped and no callback of it starts any more; one already running on another thread
 * may still be finishing. Its subscriptions simply lapse. The handle is stale afterwards.
 * @return HXF_ERROR_NONE; HXF_ERROR_INVALID_HANDLE for a NULL or unknown handler.
 */
HXF_CORE_API hxf_error_e hxf_core_service_handler_destroy(hxf_service_handler_h handler);
/**
 * Destroys a handler without waiting: the handle is stale when this returns, work already
 * queued on the handler still runs, and `cb` (with `user_data`) runs on a pool thread once
 * the handler has ended. A plugin that uses it must wait for `cb` before DestroyPlugin()
 * returns.
 * @return HXF_ERROR_NONE, also for a NULL handler (logged, nothing done);
 *         HXF_ERROR_INVALID_HANDLE for an unknown handler.
 */
HXF_CORE_API hxf_error_e hxf_core_service_handler_destroy_async(hxf_service_handler_h handler,
                                                                hxf_service_handler_destroyed_cb cb,
                                                                void* user_data);

/** @} */
/** @name Clients (consumers) */
/** @{ */

/**
 * Creates a client named `name` (copied).
 * @return the client; NULL for an empty name or when it cannot be registered. Destroy it
 *         with hxf_core_client_destroy() or _destroy_async().
 */
HXF_CORE_API hxf_client_h hxf_core_client_create(hxf_string_t name);
/**
 * Starts a passive search: the providers of `service_name` ("*" for every service that
 * exists now) report devices as they come and go, through `cb` (copied with `user_data`),
 * until hxf_core_client_stop_passive_search(). Queued: returns before the providers are
 * asked.
 * @return HXF_ERROR_NONE; HXF_ERROR_INVALID_CLIENT for a NULL client;
 *         HXF_ERROR_INVALID_SERVICE_NAME for an empty name; HXF_ERROR_INVALID_HANDLE for an
 *         unknown client. The same three for every search and list function.
 */
HXF_CORE_API hxf_error_e hxf_core_client_start_passive_search(hxf_client_h client,
                                                              hxf_string_t service_name,
                                                              hxf_client_endpoint_discovered_cb cb,
                                                              void* user_data);
/** Stops a passive search. Queued; a service that does not exist is only logged.
 *  @return as hxf_core_client_start_passive_search(). */
HXF_CORE_API hxf_error_e hxf_core_client_stop_passive_search(hxf_client_h client,
                                                             hxf_string_t service_name);
/**
 * Starts an active search of `service_name` ("*" for every service that exists now) for
 * `timeout` milliseconds. Devices arrive through `cb` (copied with `user_data`) with
 * HXF_ENDPOINT_DISCOVERY_RESULT_FOUND. The first found device stops the timer, so a search
 * that found something ends without a further call; one that found nothing ends with
 * HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT and a NULL endpoint. Queued: returns at once.
 * @return as hxf_core_client_start_passive_search().
 */
HXF_CORE_API hxf_error_e hxf_core_client_start_active_search(hxf_client_h client,
                                                             hxf_string_t service_name,
                                                             hxf_client_endpoint_discovered_cb cb,
                                                             uint32_t timeout, void* user_data);
/** Stops an active search early. Queued; a service that does not exist is only logged.
 *  @return as hxf_core_client_start_passive_search(). */
HXF_CORE_API hxf_error_e hxf_core_client_stop_active_search(hxf_client_h client,
                                                            hxf_string_t service_name);
/**
 * Asks the providers of `service_name` ("*" for every existing service) for their device
 * lists. Each list arrives through `cb` (copied with `user_data`) with
 * HXF_ENDPOINT_DISCOVERY_RESULT_FOUND; after `timeout` milliseconds without one, `cb` gets
 * HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT and a NULL list. Queued: returns at once.
 * @return as hxf_core_client_start_passive_search().
 */
HXF_CORE_API hxf_error_e hxf_core_client_get_device_list(hxf_client_h client,
                                                         hxf_string_t service_name,
                                                         hxf_client_device_list_discovered_cb cb,
                                                         uint32_t timeout, void* user_data);
/** Replaces the callback that receives device lists of `service_name`; in effect when it
 *  returns. @return as hxf_core_client_start_passive_search(). */
HXF_CORE_API hxf_error_e hxf_core_set_device_list_discovered_callback(
    hxf_client_h client, hxf_string_t service_name, hxf_client_device_list_discovered_cb cb,
    void* user_data);
/*
 * Several providers of one service: a session is opened on one handler of its service, so a
 * request on a session of "lights" reaches one plugin, whichever subscribed first. The plugins
 * of this project therefore subscribe each handler to its service S and to "S@PROVIDER"
 * (PROVIDER being the plugin's name, "lights@sim"), and write "provider" first in the UI meta
 * data of every endpoint they report ({"provider":"sim",...}; inside "device" of a departure
 * mark). Search, listen and ask for device lists on S: every provider answers. To request a
 * device, read "provider" from its endpoint's meta data and subscribe to "S@PROVIDER"; for the
 * notifications of every provider, hold one session per provider. A device id two providers
 * report is ambiguous: hxf and hxfd refuse such a request naming both.
 *
 * Each provider answers a device-list request with a list of its own (one without devices
 * sends none): collect the lists until every provider you expect has answered or your own
 * deadline passes, then pick the session:
 *
 *     const char* meta = hxf_endpoint_get_ui_meta(endpoint);   // {"provider":"sim",...}
 *     // PROVIDER: the text after {"provider":" up to the next quote; none: use S itself
 *     snprintf(name, sizeof name, "%s@%s", hxf_endpoint_get_service_name(endpoint), provider);
 *     session = hxf_core_client_subscribe_service(client, hxf_string_from_cstr(name), cb, NULL);
 *
 * docs/PLUGINS.md (section 8) has the whole function. Consumers of hxfd (D-Bus) need none of
 * this: hxfd routes each request that names device_id to that device's provider.
 */
/**
 * Subscribes the client to `service_name`, creating the service if no one named it before.
 * The session carries requests (hxf_core_client_request_service()) and receives the
 * provider's notifications through `cb` (copied with `user_data`). Done when it returns. The
 * session lives until the client is destroyed.
 * @return the session; NULL for a NULL, unknown or ending client or an empty name.
 */
HXF_CORE_API hxf_service_session_h
hxf_core_client_subscribe_service(hxf_client_h client, hxf_string_t service_name,
                                  hxf_client_service_notification_cb cb, void* user_data);
/**
 * Accepted and discarded: notifications go to the callback given with
 * hxf_core_client_subscribe_service().
 * @return HXF_ERROR_NONE; HXF_ERROR_INVALID_HANDLE for a NULL or unknown client.
 */
HXF_CORE_API hxf_error_e hxf_core_client_set_service_notification_callback(
    hxf_client_h client, hxf_client_service_notification_cb cb, void* user_data);
/**
 * Sends a request (`properties`, copied; the list's name is the operation) on a session of
 * this client. The new transaction's handle is written to `*transaction` (when `transaction`
 * is not NULL) before the request is sent. Queued: returns at once; the provider's request
 * callback runs on a pool thread.
 *
 * The request then gets exactly one answer: `result_cb` (copied with `user_data`) with the
 * provider's result, or with HXF_ERROR_TIMED_OUT and NULL properties after `timeout`
 * milliseconds; or the session's notification callback when the provider's notification
 * names the transaction. It gets none when the client is destroyed first, or when the
 * session is not one of this client's (logged).
 * @return HXF_ERROR_NONE; HXF_ERROR_INVALID_PARAMETER for a NULL client or session;
 *         HXF_ERROR_OPERATION_FAILED for NULL properties; HXF_ERROR_INVALID_HANDLE for an
 *         unknown client.
 */
HXF_CORE_API hxf_error_e hxf_core_client_request_service(
    hxf_client_h client, hxf_service_session_h session, hxf_property_list_h properties,
    hxf_client_request_result_cb result_cb, uint32_t timeout, hxf_transaction_h* transaction,
    void* user_data);
/**
 * Tells the session's provider of a device (`endpoint`, copied), through its
 * hxf_service_handler_add_device_cb. Queued: returns at once.
 * @return HXF_ERROR_NONE; HXF_ERROR_CREATE_FAILED for a NULL endpoint;
 *         HXF_ERROR_INVALID_PARAMETER for a NULL client or session;
 *         HXF_ERROR_INVALID_HANDLE for an unknown client.
 */
HXF_CORE_API hxf_error_e hxf_core_client_add_device(hxf_client_h client,
                                                    hxf_service_session_h session,
                                                    hxf_endpoint_h endpoint);
/**
 * Destroys a client synchronously: when it returns, no callback of the client or its
 * sessions starts any more (one already running on another thread may still be finishing),
 * its sessions are ended and its outstanding requests are dropped without a callback. The
 * handle is stale afterwards.
 * @return HXF_ERROR_NONE; HXF_ERROR_INVALID_CLIENT for a NULL client;
 *         HXF_ERROR_INVALID_HANDLE for an unknown one.
 */
HXF_CORE_API hxf_error_e hxf_core_client_destroy(hxf_client_h client);
/**
 * Destroys a client without waiting: the handle is stale when this returns, work already
 * queued on the client still runs, and `cb` (with `user_data`) runs on a pool thread once
 * the client has ended.
 * @return as hxf_core_client_destroy().
 */
HXF_CORE_API hxf_error_e hxf_core_client_destroy_async(hxf_client_h client,
                                                       hxf_client_destroyed_cb cb, void* user_data);

/** @} */

#ifdef __cplusplus
}
#endif

#endif /* HXF_CORE_H */
