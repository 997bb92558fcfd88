/*
 * hxf_common.h - types and functions of libhexmoor-framework-common.
 *
 * Shared by the core, applications and plugins: result codes, the length-delimited
 * string, endpoints, endpoint lists, typed properties and property lists.
 *
 * Ownership rules, the same for every container:
 *  - *_create and *_copy return a new object the caller destroys with *_destroy.
 *  - *_push_* copies the item: the caller keeps (and later destroys) its own handle.
 *  - *_pop hands out an item that the caller now owns and must destroy.
 *  - *_get_first, *_get_next and *_find return borrowed handles, valid until the item
 *    is popped or the container destroyed; never destroy them.
 *  - Text returned by a getter is owned by the object and valid until the object is
 *    changed or destroyed.
 * A NULL handle argument never crashes: functions returning hxf_error give
 * HXF_ERROR_INVALID_PARAMETER, functions returning a handle give NULL.
 * One object may be used by one thread at a time; distinct objects are independent.
 */
#ifndef HXF_COMMON_H
#define HXF_COMMON_H

#include <stdbool.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(HXF_COMMON_BUILDING)
#define HXF_COMMON_API __attribute__((visibility("default")))
#else
#define HXF_COMMON_API
#endif

/* Result code of every framework function. */
typedef enum hxf_error_e {
  HXF_ERROR_NONE = 0,                 /* success */
  HXF_ERROR_TIMED_OUT = 1,            /* a request's time-out expired before its result */
  HXF_ERROR_OPERATION_FAILED = 2,     /* generic failure */
  HXF_ERROR_CREATE_FAILED = 3,        /* an object could not be created or registered */
  HXF_ERROR_INVALID_PARAMETER = 4,    /* an argument is empty or null */
  HXF_ERROR_OUT_OF_MEMORY = 5,        /* allocation failed */
  HXF_ERROR_NOT_FOUND = 6,            /* nothing to pop, no such item */
  HXF_ERROR_TYPE_MISMATCH = 7,        /* typed getter used on a property of another type */
  HXF_ERROR_INVALID_HANDLE = 10,      /* no live service handler or client behind a handle */
  HXF_ERROR_INVALID_CLIENT = 12,      /* client handle null, or client not searching */
  HXF_ERROR_INVALID_TRANSACTION = 13, /* no outstanding transaction for a handle */
  HXF_ERROR_INVALID_SERVICE_NAME = 14 /* empty service name */
} hxf_error_e;
typedef hxf_error_e hxf_error;

/* A name crossing the C boundary: not necessarily NUL-terminated, may hold NULs. */
typedef struct hxf_string_t {
  const char* str;
  uint32_t len;
} hxf_string_t;
typedef hxf_string_t hxf_string;

typedef enum hxf_endpoint_discovery_result_e {
  HXF_ENDPOINT_DISCOVERY_RESULT_FOUND = 0,
  HXF_ENDPOINT_DISCOVERY_RESULT_LOST = 1,
  HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT = 2
} hxf_endpoint_discovery_result_e;
typedef hxf_endpoint_discovery_result_e hxf_endpoint_discovery_result;

typedef enum hxf_plugin_load_result_e {
  HXF_PLUGIN_LOAD_RESULT_SUCCESS = 0,
  HXF_PLUGIN_LOAD_RESULT_FAILED = 1
} hxf_plugin_load_result_e;
typedef hxf_plugin_load_result_e hxf_plugin_load_result;

typedef enum hxf_property_type_e {
  HXF_PROPERTY_TYPE_NONE = 0, /* reported for a NULL property */
  HXF_PROPERTY_TYPE_INT = 1,
  HXF_PROPERTY_TYPE_DOUBLE = 2,
  HXF_PROPERTY_TYPE_BOOL = 3,
  HXF_PROPERTY_TYPE_STRING = 4
} hxf_property_type_e;
typedef hxf_property_type_e hxf_property_type;

typedef void* hxf_endpoint_h;
typedef void* hxf_endpoint_list_h;
typedef void* hxf_property_h;
typedef void* hxf_property_list_h;

/* ---- strings ---- */

/* Refers to `len` bytes at `str`; copies nothing and owns nothing. */
HXF_COMMON_API hxf_string hxf_string_new(const char* str, uint32_t len);
/* Convenience: refers to a NUL-terminated text (NULL gives an empty string). */
HXF_COMMON_API hxf_string hxf_string_from_cstr(const char* str);

/* ---- endpoints: one device offering one service ---- */

HXF_COMMON_API hxf_endpoint_h hxf_endpoint_create(hxf_string service_name);
HXF_COMMON_API hxf_endpoint_h hxf_endpoint_copy(hxf_endpoint_h endpoint);
HXF_COMMON_API void hxf_endpoint_destroy(hxf_endpoint_h endpoint);

HXF_COMMON_API const char* hxf_endpoint_get_service_name(hxf_endpoint_h endpoint);
HXF_COMMON_API const char* hxf_endpoint_get_interface_name(hxf_endpoint_h endpoint);
HXF_COMMON_API const char* hxf_endpoint_get_interface_type(hxf_endpoint_h endpoint);
HXF_COMMON_API const char* hxf_endpoint_get_address(hxf_endpoint_h endpoint);
HXF_COMMON_API const char* hxf_endpoint_get_device_id(hxf_endpoint_h endpoint);
HXF_COMMON_API const char* hxf_endpoint_get_device_name(hxf_endpoint_h endpoint);
HXF_COMMON_API const char* hxf_endpoint_get_ui_meta(hxf_endpoint_h endpoint);

HXF_COMMON_API hxf_error hxf_endpoint_set_interface_name(hxf_endpoint_h endpoint, hxf_string value);
HXF_COMMON_API hxf_error hxf_endpoint_set_interface_type(hxf_endpoint_h endpoint, hxf_string value);
HXF_COMMON_API hxf_error hxf_endpoint_set_address(hxf_endpoint_h endpoint, hxf_string value);
HXF_COMMON_API hxf_error hxf_endpoint_set_device_id(hxf_endpoint_h endpoint, hxf_string value);
HXF_COMMON_API hxf_error hxf_endpoint_set_device_name(hxf_endpoint_h endpoint, hxf_string value);
HXF_COMMON_API hxf_error hxf_endpoint_set_ui_meta(hxf_endpoint_h endpoint, hxf_string value);

/* ---- endpoint lists: ordered; each item carries an hxf_error ---- */

HXF_COMMON_API hxf_endpoint_list_h hxf_endpoint_list_create(void);
HXF_COMMON_API hxf_endpoint_list_h hxf_endpoint_list_copy(hxf_endpoint_list_h list);
HXF_COMMON_API void hxf_endpoint_list_destroy(hxf_endpoint_list_h list);
/* Appends a copy of `endpoint`. */
HXF_COMMON_API hxf_error hxf_endpoint_list_push_endpoint(hxf_endpoint_list_h list,
                                                         hxf_endpoint_h endpoint, hxf_error error);
/* Removes the first item; the caller owns *endpoint. HXF_ERROR_NOT_FOUND when empty. */
HXF_COMMON_API hxf_error hxf_endpoint_list_pop(hxf_endpoint_list_h list, hxf_endpoint_h* endpoint,
                                               hxf_error* error);
/* First endpoint whose device id equals `device_id` (borrowed), or NULL. */
HXF_COMMON_API hxf_endpoint_h hxf_endpoint_list_find(hxf_endpoint_list_h list,
                                                     hxf_string device_id);
HXF_COMMON_API hxf_endpoint_h hxf_endpoint_list_get_first(hxf_endpoint_list_h list);
HXF_COMMON_API hxf_endpoint_h hxf_endpoint_list_get_next(hxf_endpoint_list_h list,
                                                         hxf_endpoint_h item);
/* True for an empty list and for NULL. */
HXF_COMMON_API bool hxf_endpoint_list_empty(hxf_endpoint_list_h list);
HXF_COMMON_API uint32_t hxf_endpoint_list_size(hxf_endpoint_list_h list);

/* ---- typed properties ---- */

HXF_COMMON_API hxf_property_h hxf_property_create_int(hxf_string name, int64_t value);
HXF_COMMON_API hxf_property_h hxf_property_create_double(hxf_string name, double value);
HXF_COMMON_API hxf_property_h hxf_property_create_bool(hxf_string name, bool value);
HXF_COMMON_API hxf_property_h hxf_property_create_string(hxf_string name, hxf_string value);
HXF_COMMON_API hxf_property_h hxf_property_copy(hxf_property_h property);
HXF_COMMON_API void hxf_property_destroy(hxf_property_h property);

HXF_COMMON_API const char* hxf_property_get_name(hxf_property_h property);
HXF_COMMON_API hxf_property_type hxf_property_get_type(hxf_property_h property);
/* Typed getters: HXF_ERROR_TYPE_MISMATCH when the property holds another type. */
HXF_COMMON_API hxf_error hxf_property_get_int(hxf_property_h property, int64_t* value);
HXF_COMMON_API hxf_error hxf_property_get_double(hxf_property_h property, double* value);
HXF_COMMON_API hxf_error hxf_property_get_bool(hxf_property_h property, bool* value);
/* *value is NUL-terminated and owned by the property; *length (may be NULL) its byte count. */
HXF_COMMON_API hxf_error hxf_property_get_string(hxf_property_h property, const char** value,
                                                 uint32_t* length);

/* ---- property lists: a name (the operation) plus ordered properties ---- */

HXF_COMMON_API hxf_property_list_h hxf_property_list_create(hxf_string name);
HXF_COMMON_API hxf_property_list_h hxf_property_list_copy(hxf_property_list_h list);
HXF_COMMON_API void hxf_property_list_destroy(hxf_property_list_h list);
HXF_COMMON_API const char* hxf_property_list_get_name(hxf_property_list_h list);
HXF_COMMON_API hxf_error hxf_property_list_set_name(hxf_property_list_h list, hxf_string name);
/* Appends a copy of `property`. */
HXF_COMMON_API hxf_error hxf_property_list_push_property(hxf_property_list_h list,
                                                         hxf_property_h property, hxf_error error);
/* Removes the first item; the caller owns *property. HXF_ERROR_NOT_FOUND when empty. */
HXF_COMMON_API hxf_error hxf_property_list_pop(hxf_property_list_h list, hxf_property_h* property,
                                               hxf_error* error);
/* First property named `name` (borrowed), or NULL. */
HXF_COMMON_API hxf_property_h hxf_property_list_find(hxf_property_list_h list, hxf_string name);
HXF_COMMON_API hxf_property_h hxf_property_list_get_first(hxf_property_list_h list);
HXF_COMMON_API hxf_property_h hxf_property_list_get_next(hxf_property_list_h list,
                                                         hxf_property_h item);
HXF_COMMON_API bool hxf_property_list_empty(hxf_property_list_h list);
HXF_COMMON_API uint32_t hxf_property_list_size(hxf_property_list_h list);

#ifdef __cplusplus
}
#endif

#endif /* HXF_COMMON_H */
