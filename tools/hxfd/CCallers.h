// The callers of hxfd: one core client per unique bus name, made at its first call and
// destroyed with everything it holds (watches, sessions, calls waiting for the core) when the
// name leaves the bus. Departures come through one NameOwnerChanged match for every caller,
// added once before hxfd serves: the bus sends a caller's departure after the calls it made,
// so a caller that left before its first call was handled is forgotten right after it.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "CCoreRoutes.h"
#include "CPendingCall.h"
#include "DeviceOwners.h"
#include "SdBusHolders.h"
#include "hxf_core.h"

namespace hxfd {

class CBusContext;
class CSession;
class CWatch;

// Everything hxfd holds for one caller, in one place.
class CCaller {
 public:
  CCaller(CBusContext& context, std::string name, hxf_client_h client);
  ~CCaller();
  CCaller(const CCaller&) = delete;
  CCaller& operator=(const CCaller&) = delete;

  const std::string& Name() const { return name_; }
  hxf_client_h Client() const { return client_; }
  // The token of this caller's device lists and request results.
  uint64_t Token() const { return token_; }

  // Broker1's methods, for this caller; each returns what the method handler returns.
  int StartWatch(sd_bus_message* m, const std::string& service, bool listen, uint32_t timeout_ms,
                 sd_bus_error* error);
  int GetDevices(sd_bus_message* m, const std::string& service, uint32_t timeout_ms,
                 sd_bus_error* error);
  int Subscribe(sd_bus_message* m, const std::string& service, sd_bus_error* error);
  int DirectRequest(sd_bus_message* m, const std::string& service, sd_bus_error* error);
  // Reads "sa{sv}u" (operation, properties, time-out) from `m` and sends it on `session`.
  int SendRequest(sd_bus_message* m, const CSession& session, sd_bus_error* error);

  // Ends an object of this caller (a watch that finished, a session closed). The path is a
  // copy: the object that passes its own goes with it.
  void EndWatch(std::string path);
  void EndSession(std::string path);
  // Whether `m` comes from this caller; `error` set when not.
  bool Owns(sd_bus_message* m, sd_bus_error* error) const;

  // Bus thread: the core's answers.
  void Listed(const ListEvent& event);
  // Whether `event` answered a request of this caller.
  bool Answered(const AnswerEvent& event);

  size_t Watches() const { return watches_.size(); }
  size_t Sessions() const { return sessions_.size() + direct_.size(); }
  size_t Pending() const { return lists_.size() + requests_.size() + waiting_.size(); }

 private:
  // Every call waiting for the core has a deadline here: hxfd answers it TimedOut when the
  // core has not by then (a provider or a core timer that never calls back). A list has its
  // own time-out here (the core keeps one per service, which another caller's list moves or
  // stops); a request its time-out and a grace.
  struct Deadline {
    std::string service;                    // a list's
    hxf_transaction_h transaction = nullptr;  // a request's
  };
  void Arm(CPendingCall& call, uint64_t after_us, Deadline what);
  void Disarm(const CPendingCall& call) { deadlines_.erase(call.Deadline()); }
  void Expire();
  static int OnDeadline(sd_event_source*, uint64_t, void* self);
  // Whether this caller may have one more waiting call, one more session; a request's
  // properties within the limits. `error` set when not.
  bool PendingFits(sd_bus_error* error) const;
  bool SessionFits(sd_bus_error* error) const;
  bool PropertiesFit(const std::vector<hxf_tool::PropertyValue>& properties,
                     sd_bus_error* error) const;
  // A list of `service` answered or given up: the provider's search may stop.
  void EndList(const std::string& service);

  // A request read from its call, to be sent once its device's provider is known.
  struct Request {
    hxf_tool::BusMessage call;
    std::string session_path;  // empty: Broker1.Request's session of `service`
    std::string service, operation, device_id;
    std::vector<hxf_tool::PropertyValue> properties;
    uint32_t timeout_ms = 0;
  };
  // Sends `request` on `session`, to the provider of its device; 1 when it went out or waits
  // for its device's provider (`may_wait`), or what the method handler returns on a refusal.
  int Route(Request request, const CSession& session, bool may_wait, sd_bus_error* error);
  // A request that waited for its device's provider goes out now (or is refused).
  void Resume(uint64_t id);

  // A device list being merged from the providers' own lists, with its call.
  struct List {
    CPendingCall call;
    hxf_tool::CProviderLists lists;
  };

  CBusContext& context_;
  const std::string name_;
  hxf_client_h client_;
  uint64_t token_ = 0;
  std::map<std::string, std::unique_ptr<CWatch>> watches_;             // by object path
  std::map<std::string, std::unique_ptr<CSession>> sessions_;          // by object path
  std::unordered_map<std::string, std::unique_ptr<CSession>> direct_;  // Broker1.Request's
  std::unordered_map<std::string, List> lists_;                        // by service
  std::unordered_map<hxf_transaction_h, CPendingCall> requests_;
  std::unordered_map<uint64_t, Request> waiting_;  // for their device's provider
  uint64_t next_waiting_ = 1;
  std::map<CPendingCall::DeadlineKey, Deadline> deadlines_;  // earliest first
  hxf_tool::EventSource deadline_timer_;  // at the earliest
  uint64_t next_deadline_ = 1;
};

class CCallers {
 public:
  explicit CCallers(CBusContext& context) : context_(context) {}
  // The one match for every caller's departure. A negative errno on failure.
  int Start();
  // Destroys every caller.
  void Stop();

  // The caller of `m`, made at its first call; null with `error` set when it cannot be.
  CCaller* Of(sd_bus_message* m, sd_bus_error* error);
  // The caller named `name`, if known.
  CCaller* Find(const std::string& name);
  // Tells the monitors and destroys what the caller held.
  void Forget(const std::string& name);
  size_t Count() const { return callers_.size(); }

 private:
  static int OnNameOwnerChanged(sd_bus_message* m, void* self, sd_bus_error* error);

  CBusContext& context_;
  hxf_tool::BusSlot departures_;
  std::unordered_map<std::string, std::unique_ptr<CCaller>> callers_;
};

}  // namespace hxfd
