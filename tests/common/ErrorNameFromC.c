/* What a C caller may do and C++ may not: pass any number as an hxf_error. */
#include "hxf_common.h"

const char* ErrorNameFromC(int number);
const char* ErrorNameFromC(int number) {
  return hxf_error_name((hxf_error)number);
}
