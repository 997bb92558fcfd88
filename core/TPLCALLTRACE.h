#pragma once

#include "CNoncopyable.h"
#include "CTraceSite.h"
#include "HXLog.h"

namespace HXFramework::Core {

// Entry and exit lines of the execution context's job processing, under the context tag.
// No blank before ">" on the exit line, on purpose.
class TPLCALLTRACE : private CNoncopyable {
 public:
  TPLCALLTRACE(int priority, const char* file, const char* function, int line, const void* object);
  virtual ~TPLCALLTRACE();

 private:
  const CTraceSite site_;
};

}  // namespace HXFramework::Core

#define HXF_TPLCALLTRACE(object)                                                               \
  ::HXFramework::Core::TPLCALLTRACE hxf_calltrace_(DLOG_DEBUG, HXF_SOURCE_NAME.file, __func__, \
                                                   __LINE__, (object))
