// Which provider a caller's request for a device goes to, when several loaded plugins offer its
// service. A session is opened on one handler of its service, so each provider is reached
// through "S@PROVIDER" (Provider.h): the session holds one core session per provider, and a
// request naming device_id goes to the one of the provider that reported that device.
//
// The owners of the devices are learnt from what hxfd sees anyway: every device list a caller
// asked for and every device a search or listen found. A request for a device no provider has
// named yet waits while hxfd asks the service's device lists itself, on a client of its own,
// until every provider has answered (one without devices never does) or kLookupMs have passed;
// the requests of that service that came meanwhile go out together then. A known device costs
// two hash look-ups and no D-Bus call. A device that two providers report is refused.
#pragma once

#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "CCoreRoutes.h"
#include "DeviceOwners.h"
#include "SdBusHolders.h"
#include "hxf_core.h"

namespace hxfd {

class CBusContext;

class CDeviceRoutes {
 public:
  // How long a request waits for the device lists that tell its device's provider.
  static constexpr uint32_t kLookupMs = 1000;

  explicit CDeviceRoutes(CBusContext& context) : context_(context) {}
  ~CDeviceRoutes() { Stop(); }
  CDeviceRoutes(const CDeviceRoutes&) = delete;
  CDeviceRoutes& operator=(const CDeviceRoutes&) = delete;

  // Bus thread: the lookups' client is destroyed; requests still waiting are dropped.
  void Stop();

  // A loaded plugin and the services it declares (none: it may offer any).
  void AddProvider(const std::string& name, const std::vector<std::string>& services);
  // The providers of `service`, in load order.
  std::vector<std::string> ProvidersOf(const std::string& service) const;
  // Whether more than one provider offers `service`: only then are requests routed.
  bool Several(const std::string& service) const;

  // Bus thread: what hxfd saw of `service`'s devices.
  void Listed(const std::string& service, const std::vector<hxf_tool::Device>& devices);
  void Found(const std::string& service, const hxf_tool::Device& device);
  // The lookups' own device lists (CCoreRoutes).
  void LookupListed(const ListEvent& event);

  enum class Route { kReady, kConflict, kWait };
  // Bus thread: where a request of `service` for `device_id` goes. kReady with `*provider` the
  // device's provider, or empty for the service's own pick (one provider, no device_id, a
  // device no provider named); kConflict with `error` set; kWait when it is not known yet and
  // `may_wait`: `resume` runs on the bus thread once the lookup has ended, to ask again with
  // `may_wait` false.
  Route Find(const std::string& service, const std::string& device_id, bool may_wait,
             std::function<void()> resume, std::string* provider, sd_bus_error* error);

 private:
  struct Service {
    CDeviceRoutes* self = nullptr;
    std::string name;
    hxf_tool::CDeviceOwners owners;
    bool looking = false;
    std::set<std::string> answered;  // the providers whose list came during the lookup
    std::vector<std::function<void()>> waiting;
    hxf_tool::EventSource timer;  // the lookup's end
  };
  // The state of `service`, made at its first use (a node of the map: it stays where it is).
  Service& State(const std::string& service);
  void StartLookup(Service& state);
  // Ends the lookup of `state` if every provider has answered, or at once when `now`.
  void EndLookup(Service& state, bool now);
  static int OnLookupTimer(sd_event_source* source, uint64_t, void* state);

  CBusContext& context_;
  std::unordered_map<std::string, std::vector<std::string>> declared_;  // service: providers
  std::vector<std::string> any_;  // providers that may offer any service
  std::unordered_map<std::string, Service> services_;  // only services of several providers
  hxf_client_h client_ = nullptr;  // made at the first lookup
  uint64_t token_ = 0;
};

}  // namespace hxfd
