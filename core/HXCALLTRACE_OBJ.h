#pragma once

#include "CNoncopyable.h"
#include "CTraceSite.h"
#include "HXLog.h"

namespace HXFramework::Core {

// Entry and exit lines of a member function, with the object's address. The spacing
// differs between the two lines on purpose (two blanks after the address on entry).
class HXCALLTRACE_OBJ : private CNoncopyable {
 public:
  HXCALLTRACE_OBJ(int priority, const char* file, const char* function, int line,
                  const void* object);
  virtual ~HXCALLTRACE_OBJ();

 private:
  const CTraceSite site_;
};

}  // namespace HXFramework::Core

// Also makes every log line of the enclosing operation name it (see HXF_LOG_AS_OPERATION).
#define HXF_CALLTRACE_OBJ(object)                                                                \
  HXF_LOG_AS_OPERATION();                                                                        \
  ::HXFramework::Core::HXCALLTRACE_OBJ hxf_calltrace_(DLOG_INFO, HXF_SOURCE_NAME.file, __func__, \
                                                      __LINE__, (object))
