#include "CDirectInvoker.h"

namespace HXFramework::TPL {

CDirectInvoker& CDirectInvoker::GetInstance() {
  static CDirectInvoker instance;
  return instance;
}

void CDirectInvoker::Invoke(std::function<void()>&& fn) {
  fn();  // an empty function throws std::bad_function_call here
}

}  // namespace HXFramework::TPL
