#include "HXCALLTRACE_OBJ.h"

namespace HXFramework::Core {

HXCALLTRACE_OBJ::HXCALLTRACE_OBJ(int priority, const char* file, const char* function, int line,
                                 const void* object)
    : priority_(priority), file_(file), function_(function), line_(line), object_(object) {
  dlog_print(static_cast<log_priority>(priority_), HXF_TAG_FW, "%s :[%p]  %s(%d) > Entered\n",
             file_, object_, function_, line_);
}

HXCALLTRACE_OBJ::~HXCALLTRACE_OBJ() {
  dlog_print(static_cast<log_priority>(priority_), HXF_TAG_FW, "%s :[%p] %s(%d) > Left\n", file_,
             object_, function_, line_);
}

}  // namespace HXFramework::Core
