/* Initialises and finalises the core and prints every line it logged. Plain C on purpose:
 * it shows the public headers are usable from C. */
#include <stdio.h>

#include "hxf_core.h"
#include "hxf_host_platform.h"

static const char* PriorityName(int priority) {
  switch (priority) {
    case DLOG_DEBUG:
      return "debug";
    case DLOG_INFO:
      return "info";
    case DLOG_ERROR:
      return "error";
    default:
      return "other";
  }
}

static void PrintLine(int priority, const char* tag, const char* text, void* user_data) {
  unsigned* count = (unsigned*)user_data;
  ++*count;
  printf("%-5s %-15s %s", PriorityName(priority), tag, text);
}

int main(void) {
  unsigned lines = 0;
  hxf_host_log_set_sink(PrintLine, &lines);
  hxf_error_e init = hxf_core_initialize();
  hxf_error_e fini = hxf_core_finalize();
  hxf_host_log_set_sink(NULL, NULL);
  printf("hxf_core_initialize -> %d, hxf_core_finalize -> %d, %u log lines\n", (int)init, (int)fini,
         lines);
  return init == HXF_ERROR_NONE && fini == HXF_ERROR_NONE ? 0 : 1;
}
