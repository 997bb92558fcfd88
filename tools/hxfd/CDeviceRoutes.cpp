#include "CDeviceRoutes.h"

#include <algorithm>
#include <ctime>

#include "BusValues.h"
#include "CBusContext.h"
#include "Provider.h"

namespace hxfd {

void CDeviceRoutes::Stop() {
  for (auto& entry : services_) {
    entry.second.waiting.clear();
    entry.second.timer.reset();
    entry.second.looking = false;
  }
  if (client_ != nullptr) {
    context_.Routes().Remove(token_);
    DestroyAfterQueuedWork(client_);
    client_ = nullptr;
  }
}

void CDeviceRoutes::AddProvider(const std::string& name, const std::vector<std::string>& services) {
  if (services.empty()) any_.push_back(name);
  for (const std::string& service : services) declared_[service].push_back(name);
}

std::vector<std::string> CDeviceRoutes::ProvidersOf(const std::string& service) const {
  std::vector<std::string> providers;
  const auto found = declared_.find(service);
  if (found != declared_.end()) providers = found->second;
  for (const std::string& name : any_) {
    if (std::find(providers.begin(), providers.end(), name) == providers.end())
      providers.push_back(name);
  }
  return providers;
}

bool CDeviceRoutes::Several(const std::string& service) const {
  if (any_.size() > 1) return true;
  const auto found = declared_.find(service);
  return (found != declared_.end() ? found->second.size() : 0) + any_.size() > 1;
}

CDeviceRoutes::Service& CDeviceRoutes::State(const std::string& service) {
  Service& state = services_[service];
  if (state.self == nullptr) {
    state.self = this;
    state.name = service;
  }
  return state;
}

void CDeviceRoutes::Listed(const std::string& service,
                           const std::vector<hxf_tool::Device>& devices) {
  if (devices.empty() || !Several(service)) return;
  Service& state = State(service);
  state.owners.Listed(devices);
  if (!state.looking) return;
  state.answered.insert(hxf_tool::ProviderOf(devices.front().ui_meta));
  EndLookup(state, false);
}

void CDeviceRoutes::Found(const std::string& service, const hxf_tool::Device& device) {
  if (Several(service)) State(service).owners.Found(device);
}

void CDeviceRoutes::LookupListed(const ListEvent& event) {
  // The core's time-out of a list is left to the lookup's own timer.
  if (event.result != HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT) Listed(event.service, event.devices);
}

CDeviceRoutes::Route CDeviceRoutes::Find(const std::string& service, const std::string& device_id,
                                         bool may_wait, std::function<void()> resume,
                                         std::string* provider, sd_bus_error* error) {
  provider->clear();
  if (device_id.empty() || !Several(service)) return Route::kReady;
  Service& state = State(service);
  const std::set<std::string>& owners = state.owners.OwnersOf(device_id);
  if (owners.empty() && may_wait) {
    state.waiting.push_back(std::move(resume));
    if (!state.looking) StartLookup(state);
    return state.looking ? Route::kWait : Route::kReady;
  }
  std::string conflict;
  const std::string target = hxf_tool::RequestTarget(service, device_id, owners, &conflict);
  if (target.empty()) {
    Refuse(error, hxf_tool::ErrorName(HXF_ERROR_INVALID_PARAMETER), conflict);
    return Route::kConflict;
  }
  if (!owners.empty()) *provider = *owners.begin();
  return Route::kReady;
}

void CDeviceRoutes::StartLookup(Service& state) {
  if (client_ == nullptr) {
    client_ = hxf_core_client_create(hxf_string_from_cstr("hxfd-device-routes"));
    if (client_ != nullptr) token_ = context_.Routes().Add(this);
  }
  const hxf_error_e asked =
      client_ == nullptr
          ? HXF_ERROR_CREATE_FAILED
          : hxf_core_client_get_device_list(client_, View(state.name), &CCoreRoutes::OnList,
                                            kLookupMs, CCoreRoutes::UserData(token_));
  if (asked != HXF_ERROR_NONE) {
    state.waiting.pop_back();  // goes out at once, to the service's own pick
    return;
  }
  state.looking = true;
  state.answered.clear();
  context_.Searches().Begin(state.name, false);
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const uint64_t at = static_cast<uint64_t>(ts.tv_sec) * 1000000ULL +
                      static_cast<uint64_t>(ts.tv_nsec) / 1000 + kLookupMs * 1000ULL;
  constexpr uint64_t kAccuracyUs = 1000;
  if (state.timer == nullptr) {
    sd_event_add_time(context_.Event(), hxf_tool::Out(state.timer), CLOCK_MONOTONIC, at,
                      kAccuracyUs, &CDeviceRoutes::OnLookupTimer, &state);
  } else {
    sd_event_source_set_time(state.timer.get(), at);
    sd_event_source_set_enabled(state.timer.get(), SD_EVENT_ONESHOT);
  }
}

int CDeviceRoutes::OnLookupTimer(sd_event_source*, uint64_t, void* state) {
  Service& service = *static_cast<Service*>(state);
  service.self->EndLookup(service, true);
  return 0;
}

void CDeviceRoutes::EndLookup(Service& state, bool now) {
  if (!state.looking) return;
  if (!now) {
    const std::vector<std::string> providers = ProvidersOf(state.name);
    const bool all = std::all_of(providers.begin(), providers.end(), [&](const std::string& p) {
      return state.answered.count(p) != 0;
    });
    if (!all) return;
  }
  state.looking = false;
  if (state.timer != nullptr) sd_event_source_set_enabled(state.timer.get(), SD_EVENT_OFF);
  if (context_.Searches().End(state.name, false, false))
    hxf_core_client_stop_active_search(client_, View(state.name));
  std::vector<std::function<void()>> waiting;
  waiting.swap(state.waiting);
  for (const std::function<void()>& resume : waiting) resume();
}

}  // namespace hxfd
