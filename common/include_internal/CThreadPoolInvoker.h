#pragma once

#include <functional>

#include "LeakySingleton.h"
#include "TPLExport.h"

namespace HXFramework::TPL {

class CThreadPoolInvokerImpl;

// The process-wide pool: Invoke returns at once; the function runs later on a pool thread.
class HXF_TPL_API CThreadPoolInvoker {
 public:
  static CThreadPoolInvoker& GetInstance();

  void Invoke(std::function<void()>&& fn);

  CThreadPoolInvoker(const CThreadPoolInvoker&) = delete;
  CThreadPoolInvoker& operator=(const CThreadPoolInvoker&) = delete;

 private:
  template <typename Service>
  friend Service& HXFramework::LeakySingleton();
  CThreadPoolInvoker();
  CThreadPoolInvokerImpl* impl_;
};

}  // namespace HXFramework::TPL
