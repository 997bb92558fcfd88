/*
 * provider.c - a provider plugin, libhxf-plugin-example.so.
 *
 * Offers the service "greetings" with one device, "greeter-1". A "get" request with a text
 * property "name" is answered with a property "message" ("hello, NAME"). Everything happens
 * in the core's callbacks, so the plugin needs no thread of its own.
 */
#include <hxf_plugin.h>
#include <stdio.h>
#include <string.h>

#define PLUGIN_NAME "example"
#define SERVICE_NAME "greetings"

static hxf_service_handler_h handler;

/* A consumer searches: report our one device. The core copies the endpoint. */
static void on_search(hxf_service_handler_h h, hxf_string service_name, void* user_data) {
  (void)user_data;
  hxf_endpoint_h device = hxf_endpoint_create(service_name);
  hxf_endpoint_set_device_id(device, hxf_string_from_cstr("greeter-1"));
  hxf_endpoint_set_device_name(device, hxf_string_from_cstr("Example greeter"));
  hxf_core_service_handler_report_device_found(h, device);
  hxf_endpoint_destroy(device);
}

/* A consumer asks: answer at once, naming its transaction. */
static void on_request(hxf_service_handler_h h, hxf_transaction_h transaction,
                       hxf_property_list_h request, void* user_data) {
  (void)user_data;
  const char* name = "stranger";
  hxf_property_h given = hxf_property_list_find(request, hxf_string_from_cstr("name"));
  if (given != NULL && hxf_property_get_type(given) == HXF_PROPERTY_TYPE_STRING) {
    hxf_property_get_string(given, &name, NULL);
  }
  char text[128];
  snprintf(text, sizeof text, "hello, %s", name);

  hxf_property_list_h result = hxf_property_list_create(hxf_string_from_cstr("get"));
  hxf_property_h message =
      hxf_property_create_string(hxf_string_from_cstr("message"), hxf_string_from_cstr(text));
  hxf_property_list_push_property(result, message, HXF_ERROR_NONE);
  hxf_property_destroy(message);
  hxf_core_service_handler_send_request_result(h, hxf_string_from_cstr(SERVICE_NAME), result,
                                               transaction, HXF_ERROR_NONE);
  hxf_property_list_destroy(result);
}

bool CreatePlugin(void) {
  handler = hxf_core_service_handler_create(hxf_string_from_cstr(PLUGIN_NAME "-provider"), NULL);
  if (handler == NULL) return false;
  if (hxf_core_service_handler_set_search_callback(handler, on_search, NULL) != HXF_ERROR_NONE ||
      hxf_core_service_handler_set_request_service_callback(handler, on_request, NULL) !=
          HXF_ERROR_NONE ||
      hxf_core_service_handler_subscribe_service(handler, hxf_string_from_cstr(SERVICE_NAME)) !=
          HXF_ERROR_NONE) {
    hxf_core_service_handler_destroy(handler);
    handler = NULL;
    return false;
  }
  /* Ready at once: tell the application that loaded us. */
  hxf_core_plugin_send_load_result(hxf_string_from_cstr(PLUGIN_NAME),
                                   HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  return true;
}

bool DestroyPlugin(void) {
  /* Synchronous: when this returns no callback of the handler runs any more. */
  if (handler != NULL) hxf_core_service_handler_destroy(handler);
  handler = NULL;
  return true;
}
