#pragma once

#include "CTimerService.h"
#include "ITimer.h"

namespace HXFramework::TPL {

class CTimer : public ITimer {
 public:
  CTimer() = default;
  ~CTimer() override;

  uint32_t Start(std::function<void()> handler, uint32_t timeout_ms) override;
  void Stop(uint32_t id) override;

 private:
  CTimerService::ShotSet armed_;  // guarded by the service's lock
};

}  // namespace HXFramework::TPL
