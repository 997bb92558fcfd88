/* A plugin without "DestroyPlugin". */
#include <stdbool.h>

__attribute__((visibility("default"))) bool CreatePlugin(void) {
  return true;
}
