#include "HXCALLTRACE_OBJ.h"

namespace HXFramework::Core {

HXCALLTRACE_OBJ::HXCALLTRACE_OBJ(int priority, const char* file, const char* function, int line,
                                 const void* object)
    : site_{priority, file, function, line, object} {
  dlog_print(static_cast<log_priority>(site_.priority), HXF_TAG_FW, "%s :[%p]  %s(%d) > Entered\n",
             site_.file, site_.object, site_.function, site_.line);
}

HXCALLTRACE_OBJ::~HXCALLTRACE_OBJ() {
  dlog_print(static_cast<log_priority>(site_.priority), HXF_TAG_FW, "%s :[%p] %s(%d) > Left\n",
             site_.file, site_.object, site_.function, site_.line);
}

}  // namespace HXFramework::Core
