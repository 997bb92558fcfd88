// org.hxf.Session1: a caller's session of a service, for requests and notifications. A
// session made for Broker1.Request has no object: its notifications go nowhere. With several
// providers of the service it holds one core session per provider ("S@PROVIDER"), so that it
// hears every provider's notifications and reaches each provider's devices (CDeviceRoutes).
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "CCallerObjects.h"
#include "CCoreRoutes.h"
#include "SdBusHolders.h"
#include "hxf_core.h"

namespace hxfd {

class CBusContext;
class CCaller;

class CSession {
 public:
  // A session on the caller's client, with an object when `with_object`; null with `error`
  // set when no provider offers the service.
  static std::unique_ptr<CSession> Make(CBusContext& context, CCaller& caller,
                                        const std::string& service, bool with_object,
                                        sd_bus_error* error, int* r);
  ~CSession();
  CSession(const CSession&) = delete;
  CSession& operator=(const CSession&) = delete;

  const std::string& Path() const { return path_; }
  const std::string& Service() const { return service_; }
  // The core session for `provider`'s devices: the service's own pick for none, or for a
  // provider this session does not reach on its own.
  hxf_service_session_h Handle(const std::string& provider = "") const;

  // Bus thread: a notification of this session; it answers the request it names, if any.
  void Notified(const AnswerEvent& event);

  // Session1's vtable, served for every session object by CCallerObjects.
  static const sd_bus_vtable* Vtable();
  // Method handlers, named in the vtable.
  static int OnRequest(sd_bus_message* m, void* self, sd_bus_error* error);
  static int OnClose(sd_bus_message* m, void* self, sd_bus_error* error);

 private:
  CSession(CBusContext& context, CCaller& caller, std::string service);

  CBusContext& context_;
  CCaller& caller_;
  const std::string service_;
  std::string path_;  // empty: no object
  hxf_service_session_h handle_ = nullptr;  // the service's own pick
  std::vector<std::pair<std::string, hxf_service_session_h>> providers_;  // "S@PROVIDER"'s
  uint64_t token_ = 0;
  CCallerObjects::Entry object_;  // its path, for its caller
};

}  // namespace hxfd
