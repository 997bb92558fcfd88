/* A plugin that starts a worker in CreatePlugin and reports its load result from there. */
#include <pthread.h>
#include <stdbool.h>

#include "hxf_core.h"

#define EXPORT __attribute__((visibility("default")))

static pthread_t g_worker;
static pthread_t g_create_thread;
static int g_destroyed;

static void* Worker(void* arg) {
  (void)arg;
  hxf_core_plugin_send_load_result(hxf_string_from_cstr("async"), HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  return NULL;
}

EXPORT bool CreatePlugin(void) {
  g_create_thread = pthread_self();
  g_destroyed = 0;
  return pthread_create(&g_worker, NULL, Worker, NULL) == 0;
}

EXPORT bool DestroyPlugin(void) {
  pthread_join(g_worker, NULL);
  g_destroyed = 1;
  return true;
}

/* Test hooks. */
EXPORT pthread_t hxf_test_create_thread(void) {
  return g_create_thread;
}
EXPORT int hxf_test_destroyed(void) {
  return g_destroyed;
}
