#include "DeviceOwners.h"

#include <algorithm>

#include "Provider.h"

namespace hxf_tool {

void CDeviceOwners::Listed(const std::vector<Device>& devices) {
  if (devices.empty()) return;
  const std::string provider = ProviderOf(devices.front().ui_meta);
  listed_.insert(provider);
  std::set<std::string>& mine = by_provider_[provider];
  for (const std::string& id : std::set<std::string>(mine)) Forget(provider, id);
  for (const Device& device : devices) {
    mine.insert(device.id);
    if (!provider.empty()) owners_[device.id].insert(provider);
  }
}

void CDeviceOwners::Found(const Device& device) {
  const std::string provider = ProviderOf(device.ui_meta);
  if (IsDeparture(device)) return Forget(provider, device.id);
  by_provider_[provider].insert(device.id);
  if (!provider.empty()) owners_[device.id].insert(provider);
}

void CDeviceOwners::Forget(const std::string& provider, const std::string& device_id) {
  by_provider_[provider].erase(device_id);
  const auto found = owners_.find(device_id);
  if (found == owners_.end()) return;
  found->second.erase(provider);
  if (found->second.empty()) owners_.erase(found);
}

const std::set<std::string>& CDeviceOwners::OwnersOf(const std::string& device_id) const {
  static const std::set<std::string> kNone;
  const auto found = owners_.find(device_id);
  return found != owners_.end() ? found->second : kNone;
}

void CProviderLists::Add(const std::vector<Device>& devices) {
  if (devices.empty()) return;
  any_ = true;
  owners_.Listed(devices);
  const std::string provider = ProviderOf(devices.front().ui_meta);
  const auto same = [&](const auto& list) { return list.first == provider; };
  const auto found = std::find_if(lists_.begin(), lists_.end(), same);
  if (found != lists_.end())
    found->second = devices;
  else
    lists_.emplace_back(provider, devices);
}

bool CProviderLists::Complete() const {
  if (expected_.empty()) return any_;
  return std::all_of(expected_.begin(), expected_.end(),
                     [&](const std::string& provider) { return owners_.HasListed(provider); });
}

std::vector<Device> CProviderLists::Devices() const {
  std::vector<Device> merged;
  for (const auto& list : lists_) merged.insert(merged.end(), list.second.begin(), list.second.end());
  return merged;
}

std::string RequestTarget(const std::string& service, const std::string& device_id,
                          const std::set<std::string>& owners, std::string* conflict) {
  if (owners.size() > 1) {
    std::string names;
    for (const std::string& name : owners) names += (names.empty() ? "" : ", ") + name;
    *conflict = "device " + device_id + " of " + service + " is reported by several providers (" +
                names + "): load only one of them";
    return "";
  }
  if (owners.empty() || owners.begin()->empty()) return service;
  return ProviderService(service, *owners.begin());
}

}  // namespace hxf_tool
