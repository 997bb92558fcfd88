#pragma once

#include <string>

#include "CTimerService.h"
#include "ITimer.h"

namespace HXFramework::TPL {

class CTimer : public ITimer {
 public:
  explicit CTimer(std::string name) : name_(std::move(name)) {}
  ~CTimer() override;

  uint32_t Start(std::function<void()> handler, uint32_t timeout_ms) override;
  void Stop(uint32_t id) override;

  const std::string& GetName() const { return name_; }

 private:
  std::string name_;              // labels the timer only
  CTimerService::ShotSet armed_;  // guarded by the service's lock
};

}  // namespace HXFramework::TPL
