#include <cstring>

#include "hxf_common.h"

// The one list of the codes' names: the tool, hxfd and the docs all derive theirs from it.
// tests/common/ErrorNameTest.cpp checks it against the header's enumerators.
extern "C" const char* hxf_error_name(hxf_error code) {
  // Read as the int a C caller passed, whatever number it is: in C++ a load of an enum value
  // outside the enumerators' range is undefined (and trips UBSan).
  int value = 0;
  std::memcpy(&value, &code, sizeof value);
#define HXF_ERROR_NAME(name) \
  case name:                 \
    return #name
  switch (value) {
    HXF_ERROR_NAME(HXF_ERROR_NONE);
    HXF_ERROR_NAME(HXF_ERROR_TIMED_OUT);
    HXF_ERROR_NAME(HXF_ERROR_OPERATION_FAILED);
    HXF_ERROR_NAME(HXF_ERROR_CREATE_FAILED);
    HXF_ERROR_NAME(HXF_ERROR_INVALID_PARAMETER);
    HXF_ERROR_NAME(HXF_ERROR_OUT_OF_MEMORY);
    HXF_ERROR_NAME(HXF_ERROR_NOT_FOUND);
    HXF_ERROR_NAME(HXF_ERROR_TYPE_MISMATCH);
    HXF_ERROR_NAME(HXF_ERROR_INVALID_HANDLE);
    HXF_ERROR_NAME(HXF_ERROR_INVALID_CLIENT);
    HXF_ERROR_NAME(HXF_ERROR_INVALID_TRANSACTION);
    HXF_ERROR_NAME(HXF_ERROR_INVALID_SERVICE_NAME);
    default:
      return nullptr;
  }
#undef HXF_ERROR_NAME
}
