/**
 * @file hxf_plugin.h
 * @brief The two functions a provider plugin exports, and the rules the core relies on.
 *
 * A provider plugin is a shared library named `libhxf-plugin-NAME.so` in the core's plugin
 * folder (fixed when the core is built; `pkg-config --variable=plugindir hxf-core` or the CMake
 * package's `HXF_PLUGIN_DIR` names it). `hxf_core_plugin_load("NAME", ...)` opens it with
 * `RTLD_NOW` and calls CreatePlugin(); `hxf_core_plugin_unload("NAME")` calls DestroyPlugin()
 * and closes it. Include this header in the file that defines the two functions: it gives
 * them C linkage and default visibility, so they stay visible in a library built with
 * hidden visibility (`hxf_add_plugin` builds plugins that way, and exports nothing else).
 *
 * On a host build a plugin may also be loaded from its path, without installing it:
 * `hxf_core_plugin_load("./build/libhxf-plugin-NAME.so", ...)` (any name with a '/'), and it
 * is then known as NAME. Device builds load from their one plugin folder only.
 *
 * The plugin talks to the core only through hxf_core.h (service handlers) and hxf_common.h
 * (the data it hands over).
 *
 * Conventions consumers and the tools rely on (the core itself reads none of them):
 * - Operations: a request's property-list name is its operation, any name the plugin chooses
 *   ("get", "set", ...). Answer an operation you do not know with a failed result.
 * - A failed result: hxf_core_service_handler_send_request_result() with an error other than
 *   HXF_ERROR_NONE, and a string property `error` in the list with the reason for people
 *   (hxf prints it; hxfd makes it its D-Bus error's message).
 * - Arrivals and departures during a listen: every report reaches consumers as
 *   HXF_ENDPOINT_DISCOVERY_RESULT_FOUND (a plugin cannot report
 *   HXF_ENDPOINT_DISCOVERY_RESULT_LOST). Wrap the endpoint's UI meta data, the mark first:
 *   `{"presence":"arrived","device":META}` for a device that came,
 *   `{"presence":"left","device":META}` for one that went (META: the device's own UI meta
 *   data, `{}` when it has none).
 * - Order: a notification travels apart from results, so one sent right after a result may
 *   reach the consumer first. When the order matters, end the request with the notification
 *   itself (name its transaction in hxf_core_service_handler_notify()).
 */
#ifndef HXF_PLUGIN_H
#define HXF_PLUGIN_H

#include <stdbool.h>

#include "hxf_core.h"

#ifdef __cplusplus
extern "C" {
#endif

/** Marks the two entry points visible in a plugin built with hidden visibility. */
#define HXF_PLUGIN_EXPORT __attribute__((visibility("default")))

/** The ELF section that holds a plugin's self-description (see HXF_PLUGIN_INFO()). */
#define HXF_PLUGIN_INFO_SECTION ".hxf_plugin_info"

/** @cond internal: a unique name for each HXF_PLUGIN_INFO() line */
#define HXF_PLUGIN_INFO_JOIN2_(a, b) a##b
#define HXF_PLUGIN_INFO_JOIN_(a, b) HXF_PLUGIN_INFO_JOIN2_(a, b)
/** @endcond */

/**
 * Describes the plugin to tools that read the library without loading it (`hxf plugins`):
 * puts the text `KEY=VALUE` into the section HXF_PLUGIN_INFO_SECTION. Write it at file scope,
 * once per key, in any source file of the plugin. Known keys:
 * - `description`: one line saying what the plugin offers (see HXF_PLUGIN_DESCRIPTION());
 * - `hidden`: why the plugin is not for users (test fixtures); `hxf plugins` then lists it
 *   only with `--all`.
 * - `services`: every service the plugin offers (subscribes its handlers to), separated by
 *   commas: `HXF_PLUGIN_INFO(services, "lights,audio")`. When every loaded plugin declares
 *   its services, `hxf` and hxfd know what is offered and refuse any other service at once,
 *   instead of letting a search wait its whole time-out. Declare all of them or leave the
 *   key out: a service missing from the list is refused although the plugin offers it.
 * - `config_env`: the environment variable that gives the plugin a configuration of its own
 *   (`HXF_PLUGIN_INFO(config_env, "HXF_SIM_CONFIG")`). While it is set and not empty in the
 *   process that loads the plugin, that configuration may offer other services than
 *   `services` lists, so tools take the plugin's services as unknown.
 * No code runs and nothing is exported: the text is only data in the file.
 */
#define HXF_PLUGIN_INFO(key, value)                                                  \
  __attribute__((section(HXF_PLUGIN_INFO_SECTION), used, aligned(1))) static const char \
      HXF_PLUGIN_INFO_JOIN_(hxf_plugin_info_, __LINE__)[] = #key "=" value

/** The plugin's one-line description, as `hxf plugins` shows it. */
#define HXF_PLUGIN_DESCRIPTION(text) HXF_PLUGIN_INFO(description, text)

/**
 * Starts the plugin. Called once per load, on a thread of the core's pool, after the library
 * has been opened.
 *
 * Return quickly: start a thread of your own for anything slow, create service handlers
 * (hxf_core_service_handler_create()) and subscribe them to the services you offer. When the
 * plugin is ready (at once, or later from your own thread) report it with
 * hxf_core_plugin_send_load_result(NAME, HXF_PLUGIN_LOAD_RESULT_SUCCESS), or
 * HXF_PLUGIN_LOAD_RESULT_FAILED when it cannot work; that report is what reaches the
 * application's hxf_plugin_loaded_cb.
 *
 * @return true when the plugin started. On false the core logs "failed to initialize
 *         plugin !" and reports HXF_PLUGIN_LOAD_RESULT_FAILED to the application; a later
 *         unload calls no DestroyPlugin() and leaves the library open.
 */
HXF_PLUGIN_EXPORT bool CreatePlugin(void);

/**
 * Stops the plugin. Called once, by hxf_core_plugin_unload() or hxf_core_plugin_unload_all(),
 * on the thread that called it (or on a pool thread, when the plugin's own work was still
 * under way at that moment); the library is closed after it returns true.
 *
 * Before returning: stop every thread of yours and destroy every service handler you created.
 * A handler destroyed with hxf_core_service_handler_destroy_async() is only gone when its
 * hxf_service_handler_destroyed_cb has run: wait for it here, or a callback still queued
 * would run after the library is closed. The core keeps the library mapped while one of your
 * callbacks is running, and never closes the library from a call your own code made
 * (an unload asked for from inside the plugin leaves it open).
 *
 * @return true when the plugin stopped. On false the core logs "failed to finalize plugin !"
 *         and leaves the library open.
 */
HXF_PLUGIN_EXPORT bool DestroyPlugin(void);

#ifdef __cplusplus
}
#endif

#endif /* HXF_PLUGIN_H */
