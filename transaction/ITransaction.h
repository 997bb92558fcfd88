#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "CNoncopyable.h"
#include "CallbackHandlerTypes.h"

namespace HXFramework::Core {

// One outstanding request: the client's result handler, a time-out timer and the time-out
// handler the session installs. Its handle is its own address.
class ITransaction : private CNoncopyable {
 public:
  static std::shared_ptr<ITransaction> Create();

  virtual ~ITransaction() = default;
  virtual hxf_transaction_h GetHandle() = 0;
  virtual void SetHandler(const SetServicePropertyResultHandler_t& result_handler,
                          const std::function<void(hxf_transaction_h)>& timeout_handler) = 0;
  virtual SetServicePropertyResultHandler_t GetResultHandler() = 0;
  virtual void StartTimer(uint32_t timeout_ms) = 0;
  virtual void StopTimer() = 0;
};

}  // namespace HXFramework::Core
