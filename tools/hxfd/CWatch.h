// org.hxf.Search1: a search or a listen of one caller on one service, with its own core client
// so that the core's news of it reach this watch and no other (the core keeps one search
// callback per client). It ends with Finished and is gone then.
#pragma once

#include <systemd/sd-bus.h>

#include <cstdint>
#include <memory>
#include <string>

#include "CCallerObjects.h"
#include "CCoreRoutes.h"
#include "SdBusHolders.h"
#include "hxf_core.h"

namespace hxfd {

class CBusContext;
class CCaller;

class CWatch {
 public:
  // A running watch; null with `error` set (and *r a negative errno) when refused.
  static std::unique_ptr<CWatch> Start(CBusContext& context, CCaller& caller,
                                       const std::string& service, bool listen, uint32_t timeout_ms,
                                       sd_bus_error* error, int* r);
  ~CWatch();
  CWatch(const CWatch&) = delete;
  CWatch& operator=(const CWatch&) = delete;

  const std::string& Path() const { return path_; }
  const std::string& Service() const { return service_; }
  bool Listen() const { return listen_; }

  // Bus thread: the core's news of this watch.
  void Found(const FoundEvent& event);

  // Search1's vtable, served for every watch by CCallerObjects.
  static const sd_bus_vtable* Vtable();
  // Search1.Stop, named in the vtable.
  static int OnStop(sd_bus_message* m, void* self, sd_bus_error* error);

 private:
  CWatch(CBusContext& context, CCaller& caller, std::string service, bool listen);
  // Sends Finished and ends the watch: `this` is gone when it returns.
  void Finish(const char* reason);
  static int OnTimer(sd_event_source*, uint64_t, void* self);

  CBusContext& context_;
  CCaller& caller_;
  const std::string service_;
  const bool listen_;
  std::string path_;
  bool found_any_ = false;
  bool counted_ = false;  // in the context's provider searches
  hxf_client_h client_ = nullptr;  // this watch's own
  uint64_t token_ = 0;
  CCallerObjects::Entry object_;  // its path, for its caller
  hxf_tool::EventSource timer_;  // a search's own deadline
};

}  // namespace hxfd
