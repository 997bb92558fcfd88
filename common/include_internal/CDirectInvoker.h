#pragma once

#include <functional>

#include "TPLExport.h"

namespace HXFramework::TPL {

// Runs a function at once on the calling thread; its exceptions reach the caller.
class HXF_TPL_API CDirectInvoker {
 public:
  static CDirectInvoker& GetInstance();

  // An empty function throws std::bad_function_call.
  void Invoke(std::function<void()>&& fn);

  CDirectInvoker(const CDirectInvoker&) = delete;
  CDirectInvoker& operator=(const CDirectInvoker&) = delete;

 private:
  CDirectInvoker() = default;
};

}  // namespace HXFramework::TPL
