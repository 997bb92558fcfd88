/*
 * hxf_host_platform.h - host stand-ins for the platform services the core uses, so that
 * the core, its tests and its tools run on a plain Linux box:
 *   - the platform log (dlog_print), silent by default; HXF_LOG_LEVEL=debug|info|error
 *     prints lines of that priority and above on stderr;
 *   - the scope-trace facility (one handler per source location, with an enabled flag);
 *   - the application identity look-ups (name, package info, package version).
 * The hxf_host_* functions are test controls.
 */
#ifndef HXF_HOST_PLATFORM_H
#define HXF_HOST_PLATFORM_H

#include <stdbool.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(HXF_HOST_BUILDING)
#define HXF_HOST_API __attribute__((visibility("default")))
#else
#define HXF_HOST_API
#endif

/* ---- platform log ---- */

typedef enum log_priority {
  DLOG_UNKNOWN = 0,
  DLOG_DEFAULT = 1,
  DLOG_VERBOSE = 2,
  DLOG_DEBUG = 3,
  DLOG_INFO = 4,
  DLOG_WARN = 5,
  DLOG_ERROR = 6,
  DLOG_FATAL = 7,
  DLOG_SILENT = 8
} log_priority;

/* Formats one line and hands it to the current sink. Never truncates. Returns the number
 * of bytes formatted, or a negative value on a formatting error. */
HXF_HOST_API int dlog_print(log_priority prio, const char* tag, const char* fmt, ...)
    __attribute__((format(printf, 3, 4)));

/* ---- scope-trace facility ---- */

typedef struct scope_trace_handler scope_trace_handler;

/* The handler for a source location (for example "core/hxf_core_export"). Cheap: may be
 * called for every message. The pointer is valid on the calling thread until its next call. */
HXF_HOST_API scope_trace_handler* scope_trace_get_handler(const char* location);
HXF_HOST_API bool scope_trace_is_enabled(const scope_trace_handler* handler);
/* Accepts one pre-formatted line; ignored while the facility is disabled. */
HXF_HOST_API void scope_trace_write(scope_trace_handler* handler, const char* text);

/* ---- application identity ---- */

typedef void* package_info_h;

/* 0 on success; *name receives a malloc'ed text the caller frees (or stays NULL). */
HXF_HOST_API int app_get_name(char** name);
/* 0 on success; *package_info receives a handle owned by the platform. */
HXF_HOST_API int package_manager_get_package_info(const char* package_id,
                                                  package_info_h* package_info);
/* 0 on success; *version receives a malloc'ed text the caller frees (or stays NULL). */
HXF_HOST_API int package_info_get_version(package_info_h package_info, char** version);

/* ---- test controls ---- */

/* Receives every dlog_print line fully formatted. NULL restores the default sink. The sink is
 * called on the logging thread, possibly from many threads at once; it must not set a sink.
 * After hxf_host_log_set_sink returns, the previous sink is no longer running or called. */
typedef void (*hxf_host_log_sink)(int priority, const char* tag, const char* text, void* user_data);
HXF_HOST_API void hxf_host_log_set_sink(hxf_host_log_sink sink, void* user_data);

/* Lines for which `wants` returns false are dropped before they are formatted, whatever the
 * sink (dlog_print returns 0), so that a sink that shows few lines does not pay for the
 * others. NULL passes every line (the default). `wants` is called on the logging thread,
 * possibly from many threads at once, and must stay callable until the process ends. */
typedef bool (*hxf_host_log_filter)(int priority, const char* tag);
HXF_HOST_API void hxf_host_log_set_filter(hxf_host_log_filter wants);

/* A non-NULL sink enables the scope-trace facility and receives every line written to it
 * with its location; NULL disables it. Same calling rules as the log sink. */
typedef void (*hxf_host_trace_sink)(const char* location, const char* text, void* user_data);
HXF_HOST_API void hxf_host_trace_set_sink(hxf_host_trace_sink sink, void* user_data);

/* Make the following look-ups return these results; a NULL text means no text is produced.
 * They stay in force until changed. hxf_host_reset_identity restores the defaults. */
HXF_HOST_API void hxf_host_set_app_name(int result, const char* name);
HXF_HOST_API void hxf_host_set_package_info_result(int result);
HXF_HOST_API void hxf_host_set_package_version(int result, const char* version);
HXF_HOST_API void hxf_host_reset_identity(void);

/* Defaults of the identity look-ups. */
#define HXF_HOST_DEFAULT_APP_NAME "hxf-host-app"
#define HXF_HOST_DEFAULT_APP_VERSION "1.0.0"

#ifdef __cplusplus
}
#endif

#endif /* HXF_HOST_PLATFORM_H */
