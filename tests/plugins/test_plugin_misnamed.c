/* A plugin that reports its load result under a name that is not its own ("misnamed"). */
#include <stdbool.h>

#include "hxf_plugin.h"

bool CreatePlugin(void) {
  return hxf_core_plugin_send_load_result(hxf_string_from_cstr("misnamed-v2"),
                                          HXF_PLUGIN_LOAD_RESULT_SUCCESS) == HXF_ERROR_NONE;
}

bool DestroyPlugin(void) {
  return true;
}
