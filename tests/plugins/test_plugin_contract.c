/* A well-behaved provider of "lights" (one lamp, found, listed, asked) that breaks one contract
 * hxf check-plugin names, chosen when built:
 *   HXF_CONTRACT_ANSWER_TWICE  every request is answered twice;
 *   HXF_CONTRACT_THREAD_LEFT   a thread started in CreatePlugin outlives DestroyPlugin;
 *   HXF_CONTRACT_UNDEFINED     a request for lamp-1 overflows a signed integer (built with
 *                              UndefinedBehaviorSanitizer, which reports it and goes on). */
#define _GNU_SOURCE /* pthread_setname_np */
#include <limits.h>
#include <pthread.h>
#include <signal.h>
#include <stdbool.h>
#include <string.h>
#include <unistd.h>

#include "hxf_core.h"
#include "hxf_plugin.h"

#if defined(HXF_CONTRACT_ANSWER_TWICE)
#define NAME "answertwice"
#define ANSWERS 2
#elif defined(HXF_CONTRACT_THREAD_LEFT)
#define NAME "threadleft"
#define ANSWERS 1
#elif defined(HXF_CONTRACT_UNDEFINED)
#define NAME "undefined"
#define ANSWERS 1
#else
#error "choose the broken contract"
#endif

HXF_PLUGIN_INFO(services, "lights");

static hxf_service_handler_h g_handler;

static hxf_string S(const char* text) {
  return hxf_string_from_cstr(text);
}

static bool Is(hxf_string text, const char* expected) {
  return text.str != NULL && text.len == strlen(expected) && memcmp(text.str, expected, text.len) == 0;
}

static hxf_endpoint_h Lamp(void) {
  hxf_endpoint_h endpoint = hxf_endpoint_create(S("lights"));
  hxf_endpoint_set_device_id(endpoint, S("lamp-1"));
  hxf_endpoint_set_device_name(endpoint, S("Desk lamp"));
  hxf_endpoint_set_interface_name(endpoint, S("wlan0"));
  hxf_endpoint_set_interface_type(endpoint, S("wifi"));
  hxf_endpoint_set_address(endpoint, S("192.168.1.20"));
  hxf_endpoint_set_ui_meta(endpoint, S("{}"));
  return endpoint;
}

static void OnSearch(hxf_service_handler_h handler, hxf_string service, void* user_data) {
  (void)user_data;
  if (!Is(service, "lights")) return;
  hxf_endpoint_h endpoint = Lamp();
  hxf_core_service_handler_report_device_found(handler, endpoint);
  hxf_endpoint_destroy(endpoint);
}

static void OnDeviceList(hxf_service_handler_h handler, hxf_string service, void* user_data) {
  (void)user_data;
  hxf_endpoint_list_h list = hxf_endpoint_list_create();
  if (Is(service, "lights")) {
    hxf_endpoint_h endpoint = Lamp();
    hxf_endpoint_list_push_endpoint(list, endpoint, HXF_ERROR_NONE);
    hxf_endpoint_destroy(endpoint);
  }
  hxf_core_service_handler_report_device_list(handler, list);
  hxf_endpoint_list_destroy(list);
}

static void OnRequest(hxf_service_handler_h handler, hxf_transaction_h transaction,
                      hxf_property_list_h properties, void* user_data) {
  (void)user_data;
  const char* operation = hxf_property_list_get_name(properties);
  hxf_property_h id = hxf_property_list_find(properties, S("device_id"));
  const char* device = NULL;
  uint32_t length = 0;
  if (id != NULL) hxf_property_get_string(id, &device, &length);
  const bool known = device != NULL && length == 6 && memcmp(device, "lamp-1", 6) == 0;
#if defined(HXF_CONTRACT_UNDEFINED)
  volatile int brightness = INT_MAX;
  if (known) brightness = brightness + 1; /* undefined: the sanitizer's report is the finding */
#endif
  const bool ok = known && operation != NULL && strcmp(operation, "get") == 0;
  hxf_property_list_h result = hxf_property_list_create(S(operation != NULL ? operation : ""));
  hxf_property_h value = ok ? hxf_property_create_int(S("brightness"), 42)
                            : hxf_property_create_string(S("error"), S(known ? "no such operation"
                                                                             : "no such device"));
  hxf_property_list_push_property(result, value, HXF_ERROR_NONE);
  hxf_property_destroy(value);
  for (int i = 0; i < ANSWERS; ++i)
    hxf_core_service_handler_send_request_result(handler, S("lights"), result, transaction,
                                                 ok ? HXF_ERROR_NONE : HXF_ERROR_NOT_FOUND);
  hxf_property_list_destroy(result);
}

#if defined(HXF_CONTRACT_THREAD_LEFT)
/* Never ends: every signal blocked, so that nothing wakes it into the unmapped library. */
static void* Forever(void* arg) {
  (void)arg;
  sigset_t all;
  sigfillset(&all);
  pthread_sigmask(SIG_BLOCK, &all, NULL);
  for (;;) pause();
  return NULL;
}
#endif

HXF_PLUGIN_EXPORT bool CreatePlugin(void) {
#if defined(HXF_CONTRACT_THREAD_LEFT)
  pthread_t thread;
  if (pthread_create(&thread, NULL, Forever, NULL) != 0) return false;
  pthread_setname_np(thread, "left-running");
  pthread_detach(thread);
#endif
  g_handler = hxf_core_service_handler_create(S(NAME "-lights"), NULL);
  if (g_handler == NULL) return false;
  hxf_core_service_handler_set_search_callback(g_handler, OnSearch, NULL);
  hxf_core_service_handler_set_get_device_list_callback(g_handler, OnDeviceList, NULL);
  hxf_core_service_handler_set_request_service_callback(g_handler, OnRequest, NULL);
  hxf_core_service_handler_subscribe_service(g_handler, S("lights"));
  hxf_core_plugin_send_load_result(S(NAME), HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  return true;
}

HXF_PLUGIN_EXPORT bool DestroyPlugin(void) {
  hxf_core_service_handler_destroy(g_handler);
  g_handler = NULL;
  return true;
}
