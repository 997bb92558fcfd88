#include "CThreadPoolInvoker.h"

#include <algorithm>
#include <thread>

#include "CThreadPoolInvokerImpl.h"
#include "LeakySingleton.h"

namespace HXFramework::TPL {

namespace {
std::size_t PoolSize() {
  // Enough threads that one blocking plugin or application callback does not stall the rest.
  const std::size_t cores = std::max(1u, std::thread::hardware_concurrency());
  return std::clamp<std::size_t>(2 * cores, 4, 16);
}
}  // namespace

CThreadPoolInvoker& CThreadPoolInvoker::GetInstance() {
  return LeakySingleton<CThreadPoolInvoker>();
}

CThreadPoolInvoker::CThreadPoolInvoker() : impl_(new CThreadPoolInvokerImpl(PoolSize())) {}

void CThreadPoolInvoker::Invoke(std::function<void()>&& fn) {
  impl_->Invoke(std::move(fn));
}

}  // namespace HXFramework::TPL
