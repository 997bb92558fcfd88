#include "CTransaction.h"

#include <string>
#include <typeinfo>

#include "HXCALLTRACE_OBJ.h"
#include "JobFrame.h"

namespace HXFramework::Core {

namespace {
// The label of every transaction's timer, made once rather than for each transaction.
const std::string& TimerName() {
  static const std::string* name = new std::string(typeid(CTransaction*).name());
  return *name;
}
}  // namespace

CTransaction::CTransaction() : timer_(TPL::ITimer::Create(TimerName())) {}

CTransaction::~CTransaction() {
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kSwallow, [this] { StopTimer(); });
}

void CTransaction::SetHandler(const SetServicePropertyResultHandler_t& result_handler,
                              const std::function<void(hxf_transaction_h)>& timeout_handler) {
  HXF_CALLTRACE_OBJ(this);
  result_handler_ = result_handler;
  timeout_handler_ = timeout_handler;
}

SetServicePropertyResultHandler_t CTransaction::GetResultHandler() {
  HXF_CALLTRACE_OBJ(this);
  return result_handler_;
}

void CTransaction::StartTimer(uint32_t timeout_ms) {
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kSwallow,
            [&] { timer_id_ = timer_->Start(_GetTimeoutHandler(), timeout_ms); });
}

void CTransaction::StopTimer() {
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kSwallow, [this] {
    const uint32_t id = timer_id_.load();
    if (id != 0) timer_->Stop(id);
  });
}

std::function<void()> CTransaction::_GetTimeoutHandler() {
  // The armed timer holds the transaction alive until it fires or is stopped.
  std::shared_ptr<CTransaction> self = shared_from_this();
  return [self] { self->_HandleTimeout(); };
}

void CTransaction::_HandleTimeout() {
  HXF_CALLTRACE_OBJ(this);
  RunLogged(HXF_LOG_SITE, OnException::kSwallow, [this] { timeout_handler_(GetHandle()); });
}

}  // namespace HXFramework::Core
