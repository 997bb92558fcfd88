#include "ITransaction.h"

#include "CTransaction.h"
#include "HXCALLTRACE.h"

namespace HXFramework::Core {

std::shared_ptr<ITransaction> ITransaction::Create() {
  HXF_CALLTRACE();
  return std::make_shared<CTransaction>();
}

}  // namespace HXFramework::Core
