#include "HXCALLTRACE.h"

namespace HXFramework::Core {

HXCALLTRACE::HXCALLTRACE(int priority, const char* file, const char* function, int line)
    : site_{priority, file, function, line, nullptr} {
  dlog_print(static_cast<log_priority>(site_.priority), HXF_TAG_FW, "%s : %s(%d) > Entered\n",
             site_.file, site_.function, site_.line);
}

HXCALLTRACE::~HXCALLTRACE() {
  dlog_print(static_cast<log_priority>(site_.priority), HXF_TAG_FW, "%s : %s(%d) > Left\n",
             site_.file, site_.function, site_.line);
}

}  // namespace HXFramework::Core
