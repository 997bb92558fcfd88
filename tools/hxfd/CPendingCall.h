// A method call answered later (GetDevices, a request): its message held until exactly one
// reply is sent. A call dropped unanswered (its caller has gone) sends nothing.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "CoreValues.h"
#include "SdBusHolders.h"

namespace hxfd {

class CPendingCall {
 public:
  CPendingCall(sd_bus_message* call, std::string service, std::string operation = "")
      : call_(hxf_tool::Hold(call)),
        service_(std::move(service)),
        operation_(std::move(operation)) {}

  const std::string& Service() const { return service_; }
  const std::string& Operation() const { return operation_; }
  bool Answered() const { return call_ == nullptr; }
  // This call's deadline at its caller (CCaller), which answers it when the core does not:
  // when (CLOCK_MONOTONIC, us) and its number.
  using DeadlineKey = std::pair<uint64_t, uint64_t>;
  const DeadlineKey& Deadline() const { return deadline_; }
  void SetDeadline(DeadlineKey key) { deadline_ = key; }

  // Each sends the one reply; later ones do nothing.
  void ReplyDevices(const std::vector<hxf_tool::Device>& devices);
  void ReplyProperties(const std::vector<hxf_tool::PropertyValue>& properties);
  void ReplyError(const char* name, const std::string& text);

 private:
  hxf_tool::BusMessage call_;
  std::string service_, operation_;
  DeadlineKey deadline_{0, 0};
};

}  // namespace hxfd
