#pragma once

#include <atomic>
#include <memory>

#include "ITimer.h"
#include "ITransaction.h"

namespace HXFramework::Core {

class CTransaction : public ITransaction, public std::enable_shared_from_this<CTransaction> {
 public:
  CTransaction();
  ~CTransaction() override;

  hxf_transaction_h GetHandle() override { return this; }
  void SetHandler(const SetServicePropertyResultHandler_t& result_handler,
                  const std::function<void(hxf_transaction_h)>& timeout_handler) override;
  SetServicePropertyResultHandler_t GetResultHandler() override;
  void StartTimer(uint32_t timeout_ms) override;
  void StopTimer() override;

 private:
  std::function<void()> _GetTimeoutHandler();
  void _HandleTimeout();

  std::atomic<uint32_t> timer_id_{0};  // read by whichever thread stops or destroys
  std::unique_ptr<TPL::ITimer> timer_;
  SetServicePropertyResultHandler_t result_handler_;
  std::function<void(hxf_transaction_h)> timeout_handler_;
};

}  // namespace HXFramework::Core
