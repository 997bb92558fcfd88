/**
 * @file hxf_common.h
 * @brief Types and functions of libhexmoor-framework-common (`pkg-config hxf-common`).
 *
 * Shared by the core, applications and plugins: result codes, the length-delimited
 * string, endpoints, endpoint lists, typed properties and property lists.
 *
 * Ownership rules, the same for every container:
 *  - `*_create` and `*_copy` return a new object the caller destroys with `*_destroy`.
 *  - `*_push_*` copies the item: the caller keeps (and later destroys) its own handle.
 *  - `*_pop` hands out an item that the caller now owns and must destroy.
 *  - `*_get_first`, `*_get_next` and `*_find` return borrowed handles, valid until the item
 *    is popped or the container destroyed; never destroy them.
 *  - Text returned by a getter is owned by the object and valid until the object is
 *    changed or destroyed.
 *
 * A NULL handle argument never crashes: functions returning hxf_error give
 * HXF_ERROR_INVALID_PARAMETER, functions returning a handle or text give NULL. An
 * hxf_string with a NULL pointer and a non-zero length is refused the same way.
 * One object may be used by one thread at a time; distinct objects are independent.
 * Every function returns after its work is done; none calls back.
 */
#ifndef HXF_COMMON_H
#define HXF_COMMON_H

#include <stdbool.h>
#include <stddef.h> /* NULL, which these functions take and return */
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/** @cond INTERNAL */
#if defined(HXF_COMMON_BUILDING)
#define HXF_COMMON_API __attribute__((visibility("default")))
#else
#define HXF_COMMON_API
#endif
/** @endcond */

/** Result code of every framework function. */
typedef enum hxf_error_e {
  HXF_ERROR_NONE = 0,                 /**< success */
  HXF_ERROR_TIMED_OUT = 1,            /**< a request's time-out expired before its result */
  HXF_ERROR_OPERATION_FAILED = 2,     /**< generic failure */
  HXF_ERROR_CREATE_FAILED = 3,        /**< an object could not be created or registered */
  HXF_ERROR_INVALID_PARAMETER = 4,    /**< an argument is empty or null */
  HXF_ERROR_OUT_OF_MEMORY = 5,        /**< allocation failed */
  HXF_ERROR_NOT_FOUND = 6,            /**< nothing to pop, no such item */
  HXF_ERROR_TYPE_MISMATCH = 7,        /**< typed getter used on a property of another type */
  HXF_ERROR_INVALID_HANDLE = 10,      /**< no live service handler or client behind a handle */
  HXF_ERROR_INVALID_CLIENT = 12,      /**< client handle null, or client not searching */
  HXF_ERROR_INVALID_TRANSACTION = 13, /**< no outstanding transaction for a handle */
  HXF_ERROR_INVALID_SERVICE_NAME = 14 /**< empty service name */
} hxf_error_e;
/** Short name of ::hxf_error_e. */
typedef hxf_error_e hxf_error;

/** A name crossing the C boundary: not necessarily NUL-terminated, may hold NULs. It refers
 *  to the caller's bytes; whoever receives one copies what it keeps. */
typedef struct hxf_string_t {
  const char* str; /**< the first byte (NULL only with len 0) */
  uint32_t len;    /**< the number of bytes */
} hxf_string_t;
/** Short name of ::hxf_string_t. */
typedef hxf_string_t hxf_string;

/** What a discovery callback reports. The core itself produces FOUND and TIMEOUT; any other
 *  value comes from a plugin and is passed through unchanged. */
typedef enum hxf_endpoint_discovery_result_e {
  HXF_ENDPOINT_DISCOVERY_RESULT_FOUND = 0,  /**< an endpoint or a device list is delivered */
  HXF_ENDPOINT_DISCOVERY_RESULT_LOST = 1,   /**< a device went away (only if a plugin says so) */
  HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT = 2 /**< a timed search or list request ended; no data */
} hxf_endpoint_discovery_result_e;
/** Short name of ::hxf_endpoint_discovery_result_e. */
typedef hxf_endpoint_discovery_result_e hxf_endpoint_discovery_result;

/** How loading a plugin went. The core reports FAILED itself (library or entry point
 *  missing, CreatePlugin returned false); every other report comes from the plugin. */
typedef enum hxf_plugin_load_result_e {
  HXF_PLUGIN_LOAD_RESULT_SUCCESS = 0, /**< the plugin is ready */
  HXF_PLUGIN_LOAD_RESULT_FAILED = 1   /**< the plugin could not be loaded or started */
} hxf_plugin_load_result_e;
/** Short name of ::hxf_plugin_load_result_e. */
typedef hxf_plugin_load_result_e hxf_plugin_load_result;

/** The type of the value a property holds. */
typedef enum hxf_property_type_e {
  HXF_PROPERTY_TYPE_NONE = 0,   /**< reported for a NULL property */
  HXF_PROPERTY_TYPE_INT = 1,    /**< int64_t */
  HXF_PROPERTY_TYPE_DOUBLE = 2, /**< double */
  HXF_PROPERTY_TYPE_BOOL = 3,   /**< bool */
  HXF_PROPERTY_TYPE_STRING = 4  /**< text, NUL-terminated, may hold NULs */
} hxf_property_type_e;
/** Short name of ::hxf_property_type_e. */
typedef hxf_property_type_e hxf_property_type;

/** One device offering one service: service name, device id and name, address, network
 *  interface name and type, and free-form UI meta data (all text). */
typedef void* hxf_endpoint_h;
/** An ordered list of endpoints, each with an ::hxf_error. */
typedef void* hxf_endpoint_list_h;
/** A named value of one ::hxf_property_type. */
typedef void* hxf_property_h;
/** A name (the operation, such as "get") and an ordered list of properties, each with an
 *  ::hxf_error. Requests, results and notifications are property lists. */
typedef void* hxf_property_list_h;

/** @name Result codes */
/** @{ */

/** The name of a result code as this header spells it, for example "HXF_ERROR_TIMED_OUT".
 *  Safe from any thread. @return a static text, never freed; NULL for a value that is not
 *  an ::hxf_error_e enumerator. */
HXF_COMMON_API const char* hxf_error_name(hxf_error code);

/** @} */
/** @name Strings */
/** @{ */

/** Refers to `len` bytes at `str`; copies nothing and owns nothing. */
HXF_COMMON_API hxf_string hxf_string_new(const char* str, uint32_t len);
/** Refers to a NUL-terminated text; NULL gives an empty string. Copies nothing. */
HXF_COMMON_API hxf_string hxf_string_from_cstr(const char* str);

/** @} */
/** @name Endpoints: one device offering one service */
/** @{ */

/** A new endpoint of the service `service_name` (copied), every other field empty.
 *  @return the endpoint, to be destroyed with hxf_endpoint_destroy(); NULL if out of memory
 *          or the name is invalid. */
HXF_COMMON_API hxf_endpoint_h hxf_endpoint_create(hxf_string service_name);
/** A new endpoint with the fields of `endpoint`. @return the copy; NULL for NULL. */
HXF_COMMON_API hxf_endpoint_h hxf_endpoint_copy(hxf_endpoint_h endpoint);
/** Frees an endpoint the caller owns; NULL is ignored. Never destroy a borrowed one. */
HXF_COMMON_API void hxf_endpoint_destroy(hxf_endpoint_h endpoint);

/** The service name; owned by the endpoint. @return the text; NULL for NULL. */
HXF_COMMON_API const char* hxf_endpoint_get_service_name(hxf_endpoint_h endpoint);
/** The network interface's name (for example "wlan0"). @return the text; NULL for NULL. */
HXF_COMMON_API const char* hxf_endpoint_get_interface_name(hxf_endpoint_h endpoint);
/** The network interface's type (for example "wifi"). @return the text; NULL for NULL. */
HXF_COMMON_API const char* hxf_endpoint_get_interface_type(hxf_endpoint_h endpoint);
/** The device's address. @return the text; NULL for NULL. */
HXF_COMMON_API const char* hxf_endpoint_get_address(hxf_endpoint_h endpoint);
/** The device's id, unique within its service. @return the text; NULL for NULL. */
HXF_COMMON_API const char* hxf_endpoint_get_device_id(hxf_endpoint_h endpoint);
/** The device's name for people. @return the text; NULL for NULL. */
HXF_COMMON_API const char* hxf_endpoint_get_device_name(hxf_endpoint_h endpoint);
/** Free-form meta data for a user interface (often JSON). @return the text; NULL for NULL. */
HXF_COMMON_API const char* hxf_endpoint_get_ui_meta(hxf_endpoint_h endpoint);

/** Sets the interface name to a copy of `value`.
 *  @return HXF_ERROR_NONE; HXF_ERROR_INVALID_PARAMETER for a NULL endpoint or an invalid
 *          string; HXF_ERROR_OUT_OF_MEMORY. The same for every endpoint setter. */
HXF_COMMON_API hxf_error hxf_endpoint_set_interface_name(hxf_endpoint_h endpoint, hxf_string value);
/** Sets the interface type to a copy of `value`. @return as hxf_endpoint_set_interface_name(). */
HXF_COMMON_API hxf_error hxf_endpoint_set_interface_type(hxf_endpoint_h endpoint, hxf_string value);
/** Sets the address to a copy of `value`. @return as hxf_endpoint_set_interface_name(). */
HXF_COMMON_API hxf_error hxf_endpoint_set_address(hxf_endpoint_h endpoint, hxf_string value);
/** Sets the device id to a copy of `value`. @return as hxf_endpoint_set_interface_name(). */
HXF_COMMON_API hxf_error hxf_endpoint_set_device_id(hxf_endpoint_h endpoint, hxf_string value);
/** Sets the device name to a copy of `value`. @return as hxf_endpoint_set_interface_name(). */
HXF_COMMON_API hxf_error hxf_endpoint_set_device_name(hxf_endpoint_h endpoint, hxf_string value);
/** Sets the UI meta data to a copy of `value`. @return as hxf_endpoint_set_interface_name(). */
HXF_COMMON_API hxf_error hxf_endpoint_set_ui_meta(hxf_endpoint_h endpoint, hxf_string value);

/** @} */
/** @name Endpoint lists: ordered; each item carries an hxf_error */
/** @{ */

/** A new, empty list. @return the list, to be destroyed with hxf_endpoint_list_destroy();
 *  NULL if out of memory. */
HXF_COMMON_API hxf_endpoint_list_h hxf_endpoint_list_create(void);
/** A new list with copies of the items of `list`. @return the copy; NULL for NULL. */
HXF_COMMON_API hxf_endpoint_list_h hxf_endpoint_list_copy(hxf_endpoint_list_h list);
/** Frees a list the caller owns, with its items; NULL is ignored. */
HXF_COMMON_API void hxf_endpoint_list_destroy(hxf_endpoint_list_h list);
/** Appends a copy of `endpoint` with `error`; the caller keeps its endpoint.
 *  @return HXF_ERROR_NONE; HXF_ERROR_INVALID_PARAMETER for a NULL list or endpoint;
 *          HXF_ERROR_OUT_OF_MEMORY. */
HXF_COMMON_API hxf_error hxf_endpoint_list_push_endpoint(hxf_endpoint_list_h list,
                                                         hxf_endpoint_h endpoint, hxf_error error);
/** Removes the first item: `*endpoint` receives it (the caller now owns it) and `*error`
 *  (when `error` is not NULL) its error.
 *  @return HXF_ERROR_NONE; HXF_ERROR_NOT_FOUND when the list is empty (`*endpoint` NULL);
 *          HXF_ERROR_INVALID_PARAMETER for a NULL list or `endpoint`. */
HXF_COMMON_API hxf_error hxf_endpoint_list_pop(hxf_endpoint_list_h list, hxf_endpoint_h* endpoint,
                                               hxf_error* error);
/** The first endpoint whose device id equals `device_id`. @return a borrowed endpoint, or NULL. */
HXF_COMMON_API hxf_endpoint_h hxf_endpoint_list_find(hxf_endpoint_list_h list,
                                                     hxf_string device_id);
/** The first item. @return a borrowed endpoint; NULL for an empty or NULL list. */
HXF_COMMON_API hxf_endpoint_h hxf_endpoint_list_get_first(hxf_endpoint_list_h list);
/** The item after `item`, an endpoint of this list.
 *  @return a borrowed endpoint; NULL after the last item or for an item not in the list. */
HXF_COMMON_API hxf_endpoint_h hxf_endpoint_list_get_next(hxf_endpoint_list_h list,
                                                         hxf_endpoint_h item);
/** @return true for an empty list and for NULL. */
HXF_COMMON_API bool hxf_endpoint_list_empty(hxf_endpoint_list_h list);
/** @return the number of items; 0 for NULL. */
HXF_COMMON_API uint32_t hxf_endpoint_list_size(hxf_endpoint_list_h list);

/** @} */
/** @name Typed properties */
/** @{ */

/** A new integer property named `name` (copied). @return the property, to be destroyed with
 *  hxf_property_destroy(); NULL if out of memory or the name is invalid. The same for
 *  every creator. */
HXF_COMMON_API hxf_property_h hxf_property_create_int(hxf_string name, int64_t value);
/** A new decimal property. @return as hxf_property_create_int(). */
HXF_COMMON_API hxf_property_h hxf_property_create_double(hxf_string name, double value);
/** A new boolean property. @return as hxf_property_create_int(). */
HXF_COMMON_API hxf_property_h hxf_property_create_bool(hxf_string name, bool value);
/** A new text property holding a copy of `value`. @return as hxf_property_create_int(). */
HXF_COMMON_API hxf_property_h hxf_property_create_string(hxf_string name, hxf_string value);
/** A new property equal to `property`. @return the copy; NULL for NULL. */
HXF_COMMON_API hxf_property_h hxf_property_copy(hxf_property_h property);
/** Frees a property the caller owns; NULL is ignored. Never destroy a borrowed one. */
HXF_COMMON_API void hxf_property_destroy(hxf_property_h property);

/** The property's name; owned by the property. @return the text; NULL for NULL. */
HXF_COMMON_API const char* hxf_property_get_name(hxf_property_h property);
/** @return the type of the value; HXF_PROPERTY_TYPE_NONE for NULL. */
HXF_COMMON_API hxf_property_type hxf_property_get_type(hxf_property_h property);
/** Reads an integer value into `*value`.
 *  @return HXF_ERROR_NONE; HXF_ERROR_TYPE_MISMATCH when the property holds another type;
 *          HXF_ERROR_INVALID_PARAMETER for a NULL property or `value`. The same for every
 *          typed getter. */
HXF_COMMON_API hxf_error hxf_property_get_int(hxf_property_h property, int64_t* value);
/** Reads a decimal value. @return as hxf_property_get_int(). */
HXF_COMMON_API hxf_error hxf_property_get_double(hxf_property_h property, double* value);
/** Reads a boolean value. @return as hxf_property_get_int(). */
HXF_COMMON_API hxf_error hxf_property_get_bool(hxf_property_h property, bool* value);
/** Reads a text value: `*value` is NUL-terminated and owned by the property; `*length`
 *  (`length` may be NULL) receives its byte count, which counts embedded NULs.
 *  @return as hxf_property_get_int(). */
HXF_COMMON_API hxf_error hxf_property_get_string(hxf_property_h property, const char** value,
                                                 uint32_t* length);

/** @} */
/** @name Property lists: a name (the operation) plus ordered properties */
/** @{ */

/** A new, empty list named `name` (copied). @return the list, to be destroyed with
 *  hxf_property_list_destroy(); NULL if out of memory or the name is invalid. */
HXF_COMMON_API hxf_property_list_h hxf_property_list_create(hxf_string name);
/** A new list with the name and copies of the items of `list`. @return the copy; NULL for NULL. */
HXF_COMMON_API hxf_property_list_h hxf_property_list_copy(hxf_property_list_h list);
/** Frees a list the caller owns, with its items; NULL is ignored. */
HXF_COMMON_API void hxf_property_list_destroy(hxf_property_list_h list);
/** The list's name; owned by the list. @return the text; NULL for NULL. */
HXF_COMMON_API const char* hxf_property_list_get_name(hxf_property_list_h list);
/** Renames the list to a copy of `name`.
 *  @return HXF_ERROR_NONE; HXF_ERROR_INVALID_PARAMETER for a NULL list or an invalid
 *          string; HXF_ERROR_OUT_OF_MEMORY. */
HXF_COMMON_API hxf_error hxf_property_list_set_name(hxf_property_list_h list, hxf_string name);
/** Appends a copy of `property` with `error`; the caller keeps its property.
 *  @return HXF_ERROR_NONE; HXF_ERROR_INVALID_PARAMETER for a NULL list or property;
 *          HXF_ERROR_OUT_OF_MEMORY. */
HXF_COMMON_API hxf_error hxf_property_list_push_property(hxf_property_list_h list,
                                                         hxf_property_h property, hxf_error error);
/** Removes the first item: `*property` receives it (the caller now owns it) and `*error`
 *  (when `error` is not NULL) its error.
 *  @return HXF_ERROR_NONE; HXF_ERROR_NOT_FOUND when the list is empty (`*property` NULL);
 *          HXF_ERROR_INVALID_PARAMETER for a NULL list or `property`. */
HXF_COMMON_API hxf_error hxf_property_list_pop(hxf_property_list_h list, hxf_property_h* property,
                                               hxf_error* error);
/** The first property named `name`. @return a borrowed property, or NULL. */
HXF_COMMON_API hxf_property_h hxf_property_list_find(hxf_property_list_h list, hxf_string name);
/** The first item. @return a borrowed property; NULL for an empty or NULL list. */
HXF_COMMON_API hxf_property_h hxf_property_list_get_first(hxf_property_list_h list);
/** The item after `item`, a property of this list.
 *  @return a borrowed property; NULL after the last item or for an item not in the list. */
HXF_COMMON_API hxf_property_h hxf_property_list_get_next(hxf_property_list_h list,
                                                         hxf_property_h item);
/** @return true for an empty list and for NULL. */
HXF_COMMON_API bool hxf_property_list_empty(hxf_property_list_h list);
/** @return the number of items; 0 for NULL. */
HXF_COMMON_API uint32_t hxf_property_list_size(hxf_property_list_h list);

/** @} */

#ifdef __cplusplus
}
#endif

#endif /* HXF_COMMON_H */
