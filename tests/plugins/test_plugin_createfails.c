/* A plugin whose "CreatePlugin" reports that it could not start. */
#include <stdbool.h>

static int g_destroy_calls;

__attribute__((visibility("default"))) bool CreatePlugin(void) {
  return false;
}
__attribute__((visibility("default"))) bool DestroyPlugin(void) {
  ++g_destroy_calls;
  return true;
}
__attribute__((visibility("default"))) int hxf_test_destroy_calls(void) {
  return g_destroy_calls;
}
