// Which provider reported which device of a service, read from the providers' own device lists
// (the core delivers one list per provider, and none from a provider without devices) and from
// found devices. Shared by hxf, which routes its own requests, and hxfd, which routes its
// callers': a request for a device goes to "S@PROVIDER" (Provider.h), a device no provider
// named to S as before, and one reported by two providers is refused.
#pragma once

#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "CoreValues.h"

namespace hxf_tool {

class CDeviceOwners {
 public:
  // A provider's device list (every device of one list names the same provider, or none):
  // it replaces what that provider listed before.
  void Listed(const std::vector<Device>& devices);
  // A device found by a search or a listen: added to its provider's; a departure removes it.
  void Found(const Device& device);
  // The providers that reported `device_id`, sorted; empty when none did (a device of a
  // provider that does not name itself has none).
  const std::set<std::string>& OwnersOf(const std::string& device_id) const;
  // Whether `provider` sent a list since this table was made.
  bool HasListed(const std::string& provider) const { return listed_.count(provider) != 0; }

 private:
  void Forget(const std::string& provider, const std::string& device_id);

  std::map<std::string, std::set<std::string>> by_provider_;       // provider: its device ids
  std::unordered_map<std::string, std::set<std::string>> owners_;  // device id: its providers
  std::set<std::string> listed_;
};

// The device lists of one service from each of its providers, merged: each provider's latest
// list, in the order the providers first answered.
class CProviderLists {
 public:
  // `expected`: the providers that may answer (hxf and hxfd know them from the plugins' declared
  // services); empty when unknown, and the first list then completes the merge.
  explicit CProviderLists(std::vector<std::string> expected = {}) : expected_(std::move(expected)) {}
  void Add(const std::vector<Device>& devices);
  // Whether every expected provider has answered (one without devices never does: the caller's
  // deadline ends the wait then).
  bool Complete() const;
  std::vector<Device> Devices() const;
  const CDeviceOwners& Owners() const { return owners_; }

 private:
  std::vector<std::string> expected_;
  std::vector<std::pair<std::string, std::vector<Device>>> lists_;  // by provider
  CDeviceOwners owners_;
  bool any_ = false;
};

// Where a request for `device_id` of `service` goes: "S@PROVIDER" of its one owner, S when no
// provider named it; empty when several did, with `conflict` set to the refusal's text.
std::string RequestTarget(const std::string& service, const std::string& device_id,
                          const std::set<std::string>& owners, std::string* conflict);

}  // namespace hxf_tool
