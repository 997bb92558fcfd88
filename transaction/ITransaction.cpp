#include "ITransaction.h"

#include "CHandleQuarantine.h"
#include "CTransaction.h"
#include "HXCALLTRACE.h"

namespace HXFramework::Core {

std::shared_ptr<ITransaction> ITransaction::Create() {
  HXF_CALLTRACE();
  return CHandleQuarantine<CTransaction>::Make();
}

}  // namespace HXFramework::Core
