/*
 * consumer.c - an application that uses the broker core.
 *
 * Loads the provider plugin "example", searches for a device offering "greetings",
 * subscribes to the service, sends one "get" request with a name and prints the answer.
 * Callbacks run on the core's threads; main() waits for each step on a condition variable,
 * with a time limit. Exit code 0 when the greeting arrived, 1 otherwise.
 */
#include <errno.h>
#include <hxf_core.h>
#include <pthread.h>
#include <stdio.h>
#include <string.h>
#include <time.h>

#define SERVICE_NAME "greetings"

/* What the callbacks tell main(), under one lock. */
static pthread_mutex_t lock = PTHREAD_MUTEX_INITIALIZER;
static pthread_cond_t changed = PTHREAD_COND_INITIALIZER;
static int plugin_result = -1; /* hxf_plugin_load_result_e once reported */
static char device_id[64];     /* the first device found */
static int search_over;
static char greeting[128];
static int request_error = -1; /* hxf_error_e once answered */

static void on_loaded(hxf_string name, hxf_plugin_load_result_e result, void* user_data) {
  (void)name, (void)user_data;
  pthread_mutex_lock(&lock);
  plugin_result = (int)result;
  pthread_cond_broadcast(&changed);
  pthread_mutex_unlock(&lock);
}

static void on_found(hxf_client_h client, hxf_string service_name,
                     hxf_endpoint_discovery_result_e result, hxf_endpoint_h endpoint,
                     void* user_data) {
  (void)client, (void)service_name, (void)user_data;
  pthread_mutex_lock(&lock);
  if (result == HXF_ENDPOINT_DISCOVERY_RESULT_FOUND && device_id[0] == '\0') {
    /* The endpoint is borrowed for this call: copy what we keep. */
    snprintf(device_id, sizeof device_id, "%s", hxf_endpoint_get_device_id(endpoint));
  } else if (result == HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT) {
    search_over = 1;
  }
  pthread_cond_broadcast(&changed);
  pthread_mutex_unlock(&lock);
}

static void on_result(hxf_client_h client, hxf_service_session_h session,
                      hxf_property_list_h result, hxf_transaction_h transaction, hxf_error_e error,
                      void* user_data) {
  (void)client, (void)session, (void)transaction, (void)user_data;
  pthread_mutex_lock(&lock);
  request_error = (int)error;
  const char* text = NULL;
  if (error == HXF_ERROR_NONE &&
      hxf_property_get_string(hxf_property_list_find(result, hxf_string_from_cstr("message")),
                              &text, NULL) == HXF_ERROR_NONE) {
    snprintf(greeting, sizeof greeting, "%s", text);
  }
  pthread_cond_broadcast(&changed);
  pthread_mutex_unlock(&lock);
}

static void on_notification(hxf_string service_name, hxf_service_session_h session,
                            hxf_property_list_h properties, hxf_transaction_h transaction,
                            hxf_error_e error, void* user_data) {
  (void)service_name, (void)session, (void)properties, (void)transaction, (void)error;
  (void)user_data;
}

/* With the lock held: waits until done() is true or `seconds` have passed. */
static int wait_for(int (*done)(void), int seconds) {
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += seconds;
  while (!done()) {
    if (pthread_cond_timedwait(&changed, &lock, &deadline) == ETIMEDOUT) return done();
  }
  return 1;
}
static int plugin_reported(void) {
  return plugin_result != -1;
}
static int device_known(void) {
  return device_id[0] != '\0' || search_over;
}
static int request_answered(void) {
  return request_error != -1;
}

int main(int argc, char** argv) {
  const char* name = argc > 1 ? argv[1] : "world";
  int status = 1;
  printf("hxf core %s\n", HXF_CORE_VERSION_STRING);
  hxf_core_initialize();

  pthread_mutex_lock(&lock);
  hxf_error_e rc = hxf_core_plugin_load(hxf_string_from_cstr("example"), on_loaded, NULL);
  if (rc != HXF_ERROR_NONE || !wait_for(plugin_reported, 5) ||
      plugin_result != HXF_PLUGIN_LOAD_RESULT_SUCCESS) {
    fprintf(stderr, "plugin example: not loaded (error %d, result %d)\n", rc, plugin_result);
    pthread_mutex_unlock(&lock);
    goto finalize;
  }
  printf("plugin example: loaded\n");
  pthread_mutex_unlock(&lock);

  hxf_client_h client = hxf_core_client_create(hxf_string_from_cstr("example-consumer"));
  if (client == NULL) goto unload;
  hxf_service_session_h session = NULL;

  pthread_mutex_lock(&lock);
  hxf_core_client_start_active_search(client, hxf_string_from_cstr(SERVICE_NAME), on_found, 2000,
                                      NULL);
  wait_for(device_known, 5);
  char device[sizeof device_id];
  memcpy(device, device_id, sizeof device);
  pthread_mutex_unlock(&lock);
  if (device[0] == '\0') {
    fprintf(stderr, "no device offers %s\n", SERVICE_NAME);
    goto destroy;
  }
  printf("found %s\n", device);

  session = hxf_core_client_subscribe_service(client, hxf_string_from_cstr(SERVICE_NAME),
                                              on_notification, NULL);
  if (session == NULL) goto destroy;

  /* The request names its device and carries the name to greet; the core copies the list. */
  hxf_property_list_h request = hxf_property_list_create(hxf_string_from_cstr("get"));
  hxf_property_h property =
      hxf_property_create_string(hxf_string_from_cstr("device_id"), hxf_string_from_cstr(device));
  hxf_property_list_push_property(request, property, HXF_ERROR_NONE);
  hxf_property_destroy(property);
  property = hxf_property_create_string(hxf_string_from_cstr("name"), hxf_string_from_cstr(name));
  hxf_property_list_push_property(request, property, HXF_ERROR_NONE);
  hxf_property_destroy(property);

  pthread_mutex_lock(&lock);
  hxf_transaction_h transaction = NULL;
  rc = hxf_core_client_request_service(client, session, request, on_result, 2000, &transaction,
                                       NULL);
  hxf_property_list_destroy(request);
  if (rc == HXF_ERROR_NONE) wait_for(request_answered, 5);
  if (rc == HXF_ERROR_NONE && request_error == HXF_ERROR_NONE) {
    printf("%s says: %s\n", device, greeting);
    status = 0;
  } else {
    fprintf(stderr, "request failed (error %d, result error %d)\n", rc, request_error);
  }
  pthread_mutex_unlock(&lock);

destroy:
  /* Synchronous: no callback of this client starts after it returns. */
  hxf_core_client_destroy(client);
unload:
  hxf_core_plugin_unload(hxf_string_from_cstr("example"));
finalize:
  hxf_core_finalize();
  return status;
}
