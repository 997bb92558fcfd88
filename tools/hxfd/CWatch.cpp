#include "CWatch.h"

#include <cerrno>

#include "BusValues.h"
#include "CBusContext.h"

namespace hxfd {

namespace {

const sd_bus_vtable kSearchVtable[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD("Stop", "", "", &CWatch::OnStop, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_SIGNAL_WITH_NAMES("DeviceFound", "a{sv}", SD_BUS_PARAM(device), 0),
    SD_BUS_SIGNAL_WITH_NAMES("DeviceLost", "a{sv}", SD_BUS_PARAM(device), 0),
    SD_BUS_SIGNAL_WITH_NAMES("Finished", "s", SD_BUS_PARAM(reason), 0),
    SD_BUS_VTABLE_END};

}  // namespace

const sd_bus_vtable* CWatch::Vtable() { return kSearchVtable; }

CWatch::CWatch(CBusContext& context, CCaller& caller, std::string service, bool listen)
    : context_(context), caller_(caller), service_(std::move(service)), listen_(listen) {}

std::unique_ptr<CWatch> CWatch::Start(CBusContext& context, CCaller& caller,
                                      const std::string& service, bool listen, uint32_t timeout_ms,
                                      sd_bus_error* error, int* r) {
  std::unique_ptr<CWatch> watch(new CWatch(context, caller, service, listen));
  watch->client_ = hxf_core_client_create(View(caller.Name()));
  if (watch->client_ == nullptr) {
    *r = Refuse(error, hxf_tool::ErrorName(HXF_ERROR_CREATE_FAILED),
                "no client for a search of " + caller.Name());
    return nullptr;
  }
  watch->path_ = context.NewPath(listen ? "listen" : "search");
  watch->object_ = context.Objects().Add(watch->path_, caller.Name(), watch.get());
  watch->token_ = context.Routes().Add(watch.get());
  void* token = CCoreRoutes::UserData(watch->token_);
  const hxf_error_e started =
      listen ? hxf_core_client_start_passive_search(watch->client_, View(service),
                                                    &CCoreRoutes::OnFound, token)
             : hxf_core_client_start_active_search(watch->client_, View(service),
                                                   &CCoreRoutes::OnFound, timeout_ms, token);
  if (started != HXF_ERROR_NONE) {
    *r = Refuse(error, hxf_tool::ErrorName(started), "cannot search " + service);
    return nullptr;
  }
  context.Searches().Begin(service, listen);
  watch->counted_ = true;
  if (!listen) {
    // The core reports no time-out once a device is found: the search keeps its own deadline.
    uint64_t now = 0;
    sd_event_now(context.Event(), CLOCK_MONOTONIC, &now);
    sd_event_add_time(context.Event(), hxf_tool::Out(watch->timer_), CLOCK_MONOTONIC,
                      now + timeout_ms * 1000ULL, 0, &CWatch::OnTimer, watch.get());
  }
  context.Monitor().Event(
      hxf_tool::MonitorType::kSearch, caller.Name(), service, "", 0, [&](sd_bus_message* mm) {
        return listen ? sd_bus_message_append(mm, "a{sv}", 1, "passive", "b", 1)
                      : sd_bus_message_append(mm, "a{sv}", 1, "timeout_ms", "u", timeout_ms);
      });
  return watch;
}

CWatch::~CWatch() {
  context_.Routes().AssertBusThread();
  if (token_ != 0) context_.Routes().Remove(token_);
  if (client_ != nullptr) {
    // Another caller's search of the service goes on: its provider is told to stop only when
    // nobody needs it.
    if (counted_ && context_.Searches().End(service_, listen_, true)) {
      if (listen_) {
        hxf_core_client_stop_passive_search(client_, View(service_));
      } else {
        hxf_core_client_stop_active_search(client_, View(service_));
      }
    }
    DestroyAfterQueuedWork(client_);  // after the stop
  }
}

void CWatch::Found(const FoundEvent& event) {
  // The core's time-out of a search is not this search's: the core keeps one per service,
  // which another caller's search moves or stops. The watch's own deadline ends it.
  if (!event.has_device) return;
  context_.Devices().Found(service_, event.device);
  const bool lost = hxf_tool::IsDeparture(event.device);
  if (!listen_) found_any_ = true;
  SendTo(context_.Bus(), caller_.Name(), path_, hxf_tool::kSearchInterface,
         lost ? "DeviceLost" : "DeviceFound",
         [&](sd_bus_message* m) { return hxf_tool::AppendDevice(m, event.device); });
  context_.Monitor().Event(
      lost ? hxf_tool::MonitorType::kLost : hxf_tool::MonitorType::kFound, caller_.Name(),
      service_, "", 0,
      [&](sd_bus_message* m) { return hxf_tool::AppendDevice(m, event.device); });
}

void CWatch::Finish(const char* reason) {
  SendTo(context_.Bus(), caller_.Name(), path_, hxf_tool::kSearchInterface, "Finished",
         [&](sd_bus_message* m) { return sd_bus_message_append(m, "s", reason); });
  caller_.EndWatch(path_);  // destroys this
}

int CWatch::OnStop(sd_bus_message* m, void* self, sd_bus_error* error) {
  auto* watch = static_cast<CWatch*>(self);
  if (!watch->caller_.Owns(m, error)) return -EACCES;
  const int r = sd_bus_reply_method_return(m, "");
  watch->Finish("stopped");
  return r;
}

int CWatch::OnTimer(sd_event_source*, uint64_t, void* self) {
  auto* watch = static_cast<CWatch*>(self);
  watch->Finish(watch->found_any_ ? "done" : "timed_out");
  return 0;
}

}  // namespace hxfd
