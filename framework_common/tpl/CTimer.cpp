#include "CTimer.h"

#include <utility>

namespace HXFramework::TPL {

// The name only labels a timer for its creator and is not kept: a copy per timer was a heap
// allocation for every transaction (its label is longer than the short-string buffer).
ITimer* ITimer::Create(const std::string& /*name*/) {
  return new CTimer();
}

CTimer::~CTimer() {
  CTimerService::GetInstance().StopAll(&armed_);
}

uint32_t CTimer::Start(std::function<void()> handler, uint32_t timeout_ms) {
  if (!handler) throw std::bad_function_call();
  return CTimerService::GetInstance().Start(&armed_, std::move(handler), timeout_ms);
}

void CTimer::Stop(uint32_t id) {
  CTimerService::GetInstance().Stop(&armed_, id);
}

}  // namespace HXFramework::TPL
