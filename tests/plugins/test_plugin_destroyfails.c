/* A plugin that reports success from inside "CreatePlugin" and fails to stop. */
#include <stdbool.h>

#include "hxf_core.h"

__attribute__((visibility("default"))) bool CreatePlugin(void) {
  hxf_core_plugin_send_load_result(hxf_string_from_cstr("destroyfails"),
                                   HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  return true;
}
__attribute__((visibility("default"))) bool DestroyPlugin(void) {
  return false;
}
