#include "HXCALLTRACE.h"

namespace HXFramework::Core {

HXCALLTRACE::HXCALLTRACE(int priority, const char* file, const char* function, int line)
    : priority_(priority), file_(file), function_(function), line_(line) {
  dlog_print(static_cast<log_priority>(priority_), HXF_TAG_FW, "%s : %s(%d) > Entered\n", file_,
             function_, line_);
}

HXCALLTRACE::~HXCALLTRACE() {
  dlog_print(static_cast<log_priority>(priority_), HXF_TAG_FW, "%s : %s(%d) > Left\n", file_,
             function_, line_);
}

}  // namespace HXFramework::Core
