/* The provider of the end-to-end tests. Service "lights": searches find "lamp-1"; device
 * lists hold two lamps. Service "quiet": subscribed, never finds anything. Requests are
 * answered according to the property list's name:
 *   "answer"      at once, with a property list named "result" holding brightness=42;
 *   "hold"        not now: kept pending until hxf_test_e2e_answer_pending();
 *   "notify"      with a notification naming the request's transaction;
 *   anything else never.
 * A name may carry a tag after '#' ("notify#7"): the operation is the part before it, and
 * the result or notification list is then named with the whole tagged name. */
#include <pthread.h>
#include <stdbool.h>
#include <stdio.h>
#include <string.h>

#include "hxf_core.h"

#define EXPORT __attribute__((visibility("default")))
#define MAX_PENDING 4096

static hxf_service_handler_h g_handler;
static pthread_mutex_t g_mutex = PTHREAD_MUTEX_INITIALIZER;
static hxf_transaction_h g_pending[MAX_PENDING];
static char g_pending_names[MAX_PENDING][64];
static int g_pending_count;
static hxf_transaction_h g_last_transaction;
static int g_requests;

static hxf_string S(const char* text) {
  return hxf_string_from_cstr(text);
}

static hxf_endpoint_h Lamp(hxf_string service, const char* id) {
  hxf_endpoint_h endpoint = hxf_endpoint_create(service);
  hxf_endpoint_set_device_id(endpoint, S(id));
  hxf_endpoint_set_device_name(endpoint, S("Desk lamp"));
  hxf_endpoint_set_interface_name(endpoint, S("wlan0"));
  hxf_endpoint_set_interface_type(endpoint, S("wifi"));
  hxf_endpoint_set_address(endpoint, S("192.168.1.20"));
  hxf_endpoint_set_ui_meta(endpoint, S("{\"icon\":\"lamp\"}"));
  return endpoint;
}

static bool IsLights(hxf_string name) {
  return name.len == 6 && memcmp(name.str, "lights", 6) == 0;
}

static void OnSearch(hxf_service_handler_h handler, hxf_string name, void* user_data) {
  (void)user_data;
  if (!IsLights(name)) return;
  hxf_endpoint_h endpoint = Lamp(name, "lamp-1");
  hxf_core_service_handler_report_device_found(handler, endpoint);
  hxf_endpoint_destroy(endpoint);
}

static void OnDeviceList(hxf_service_handler_h handler, hxf_string name, void* user_data) {
  (void)user_data;
  if (!IsLights(name)) return;
  hxf_endpoint_list_h list = hxf_endpoint_list_create();
  const char* ids[] = {"lamp-1", "lamp-2"};
  for (int i = 0; i < 2; ++i) {
    hxf_endpoint_h endpoint = Lamp(name, ids[i]);
    hxf_endpoint_list_push_endpoint(list, endpoint, HXF_ERROR_NONE);
    hxf_endpoint_destroy(endpoint);
  }
  hxf_core_service_handler_report_device_list(handler, list);
  hxf_endpoint_list_destroy(list);
}

/* Whether `name` is `operation`, optionally followed by a '#' tag. */
static bool IsOperation(const char* name, const char* operation) {
  size_t length = strlen(operation);
  return strncmp(name, operation, length) == 0 && (name[length] == '\0' || name[length] == '#');
}

static const char* ReplyName(const char* request, const char* plain) {
  return strchr(request, '#') != NULL ? request : plain;
}

static void Answer(hxf_transaction_h transaction, const char* list_name) {
  hxf_property_list_h result = hxf_property_list_create(S(list_name));
  hxf_property_h brightness = hxf_property_create_int(S("brightness"), 42);
  hxf_property_list_push_property(result, brightness, HXF_ERROR_NONE);
  hxf_property_destroy(brightness);
  hxf_core_service_handler_send_request_result(g_handler, S("lights"), result, transaction,
                                               HXF_ERROR_NONE);
  hxf_property_list_destroy(result); /* the core works on its copy */
}

static void OnRequest(hxf_service_handler_h handler, hxf_transaction_h transaction,
                      hxf_property_list_h properties, void* user_data) {
  (void)handler;
  (void)user_data;
  const char* operation = hxf_property_list_get_name(properties);
  pthread_mutex_lock(&g_mutex);
  g_last_transaction = transaction;
  ++g_requests;
  if (IsOperation(operation, "hold") && g_pending_count < MAX_PENDING) {
    snprintf(g_pending_names[g_pending_count], sizeof g_pending_names[0], "%s",
             ReplyName(operation, "late"));
    g_pending[g_pending_count++] = transaction;
  }
  pthread_mutex_unlock(&g_mutex);
  if (IsOperation(operation, "answer")) {
    Answer(transaction, ReplyName(operation, "result"));
  } else if (IsOperation(operation, "notify")) {
    hxf_property_list_h state = hxf_property_list_create(S(ReplyName(operation, "state")));
    hxf_core_service_handler_notify(g_handler, S("lights"), state, transaction, HXF_ERROR_NONE);
    hxf_property_list_destroy(state);
  }
}

EXPORT bool CreatePlugin(void) {
  g_handler = hxf_core_service_handler_create(S("e2e-provider"), NULL);
  if (g_handler == NULL) return false;
  hxf_core_service_handler_set_search_callback(g_handler, OnSearch, NULL);
  hxf_core_service_handler_set_get_device_list_callback(g_handler, OnDeviceList, NULL);
  hxf_core_service_handler_set_request_service_callback(g_handler, OnRequest, NULL);
  hxf_core_service_handler_subscribe_service(g_handler, S("lights"));
  hxf_core_service_handler_subscribe_service(g_handler, S("quiet"));
  hxf_core_plugin_send_load_result(S("e2e"), HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  return true;
}

EXPORT bool DestroyPlugin(void) {
  hxf_core_service_handler_destroy(g_handler);
  g_handler = NULL;
  pthread_mutex_lock(&g_mutex);
  g_pending_count = 0;
  g_requests = 0;
  g_last_transaction = NULL;
  pthread_mutex_unlock(&g_mutex);
  return true;
}

/* ---- test hooks ---- */

/* Answers every held request now (a late answer, if they have timed out). */
EXPORT int hxf_test_e2e_answer_pending(void) {
  static hxf_transaction_h pending[MAX_PENDING];
  static char names[MAX_PENDING][64];
  static pthread_mutex_t answering = PTHREAD_MUTEX_INITIALIZER; /* one answerer at a time */
  pthread_mutex_lock(&answering);
  pthread_mutex_lock(&g_mutex);
  int count = g_pending_count;
  memcpy(pending, g_pending, sizeof(hxf_transaction_h) * (size_t)count);
  memcpy(names, g_pending_names, sizeof(names[0]) * (size_t)count);
  g_pending_count = 0;
  pthread_mutex_unlock(&g_mutex);
  for (int i = 0; i < count; ++i) Answer(pending[i], names[i]);
  pthread_mutex_unlock(&answering);
  return count;
}

EXPORT hxf_transaction_h hxf_test_e2e_last_transaction(void) {
  pthread_mutex_lock(&g_mutex);
  hxf_transaction_h last = g_last_transaction;
  pthread_mutex_unlock(&g_mutex);
  return last;
}

EXPORT int hxf_test_e2e_requests(void) {
  pthread_mutex_lock(&g_mutex);
  int requests = g_requests;
  pthread_mutex_unlock(&g_mutex);
  return requests;
}

/* Sends a notification naming `transaction` (may be NULL). */
EXPORT hxf_error_e hxf_test_e2e_notify(hxf_transaction_h transaction) {
  hxf_property_list_h state = hxf_property_list_create(S("state"));
  hxf_error_e result =
      hxf_core_service_handler_notify(g_handler, S("lights"), state, transaction, HXF_ERROR_NONE);
  hxf_property_list_destroy(state);
  return result;
}
