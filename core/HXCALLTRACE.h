#pragma once

#include "CNoncopyable.h"
#include "CTraceSite.h"
#include "HXLog.h"

namespace HXFramework::Core {

// Writes "<file> : <function>(<line>) > Entered" on construction and "... > Left" on
// destruction (also when the scope is left by an exception). Platform log only.
class HXCALLTRACE : private CNoncopyable {
 public:
  HXCALLTRACE(int priority, const char* file, const char* function, int line);
  virtual ~HXCALLTRACE();

 private:
  const CTraceSite site_;
};

}  // namespace HXFramework::Core

#define HXF_CALLTRACE()                                                                      \
  ::HXFramework::Core::HXCALLTRACE hxf_calltrace_(DLOG_INFO, HXF_SOURCE_NAME.file, __func__, \
                                                  __LINE__)
