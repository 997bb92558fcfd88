#include "TPLCALLTRACE.h"

namespace HXFramework::Core {

TPLCALLTRACE::TPLCALLTRACE(int priority, const char* file, const char* function, int line,
                           const void* object)
    : priority_(priority), file_(file), function_(function), line_(line), object_(object) {
  dlog_print(static_cast<log_priority>(priority_), HXF_TAG_TPL, "%s : %s(%d) [%p] > Entered\n",
             file_, function_, line_, object_);
}

TPLCALLTRACE::~TPLCALLTRACE() {
  dlog_print(static_cast<log_priority>(priority_), HXF_TAG_TPL, "%s : %s(%d) [%p]> Left\n", file_,
             function_, line_, object_);
}

}  // namespace HXFramework::Core
