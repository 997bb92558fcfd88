#include "TPLCALLTRACE.h"

namespace HXFramework::Core {

TPLCALLTRACE::TPLCALLTRACE(int priority, const char* file, const char* function, int line,
                           const void* object)
    : site_{priority, file, function, line, object} {
  dlog_print(static_cast<log_priority>(site_.priority), HXF_TAG_TPL, "%s : %s(%d) [%p] > Entered\n",
             site_.file, site_.function, site_.line, site_.object);
}

TPLCALLTRACE::~TPLCALLTRACE() {
  dlog_print(static_cast<log_priority>(site_.priority), HXF_TAG_TPL, "%s : %s(%d) [%p]> Left\n",
             site_.file, site_.function, site_.line, site_.object);
}

}  // namespace HXFramework::Core
