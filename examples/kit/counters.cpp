// A provider plugin in C++ on the plugin kit (hxf::plugin-kit): the service "counters" with
// two devices, each a number that "get" reads and "add" raises (add amount=N, 1 by default).
// The kit owns the handlers and the core's callbacks; this file says what the devices do.
#include <map>
#include <string>

#include "PluginKit.h"
#include "hxf_plugin.h"

HXF_PLUGIN_DESCRIPTION("an example on the C++ plugin kit: two counters");
HXF_PLUGIN_INFO(services, "counters");

namespace {

using hxf_plugin_kit::EndpointInfo;
using hxf_plugin_kit::Push;

class Counters : public hxf_plugin_kit::Provider<Counters> {
 public:
  Counters() : Provider("counters", "COUNTERS") {}

  // From CreatePlugin: the counters answer at once, so there is nothing to start.
  void Start() { SendLoadResult(AddService("counters") != nullptr); }
  // From DestroyPlugin: once the handlers are gone, no callback runs again.
  void Stop() { DestroyServices(std::chrono::seconds(5)); }

 private:
  friend class hxf_plugin_kit::Provider<Counters>;

  // The kit's one hand-off. Every answer here is quick, so it runs on the core's thread that
  // called; those may be several at once, hence the lock around the counts.
  void Post(Task task) { task(); }

  void OnSearch(Service& service) {
    for (const EndpointInfo& device : kDevices) ReportDevice(service, device);
  }
  void OnDeviceList(Service& service) { ReportDeviceList(service, {&kDevices[0], &kDevices[1]}); }
  void OnRequest(Service& service, hxf_transaction_h transaction,
                 const hxf_plugin_kit::List& request) {
    const std::string operation = hxf_property_list_get_name(request.get());
    const std::string id = hxf_plugin_kit::FindText(request.get(), "device_id");
    if (id != kDevices[0].id && id != kDevices[1].id) {
      Refuse(service, transaction, operation, "no counter " + id, HXF_ERROR_NOT_FOUND);
      return;
    }
    if (operation != "get" && operation != "add") {
      RefuseOperation(service, transaction, operation, "get or add");
      return;
    }
    int64_t amount = 1;
    hxf_plugin_kit::Value value;
    hxf_property_h given = hxf_property_list_find(request.get(), hxf_string_from_cstr("amount"));
    if (given != nullptr && hxf_plugin_kit::ReadProperty(given, &value) &&
        std::holds_alternative<int64_t>(value))
      amount = std::get<int64_t>(value);
    int64_t count = 0;
    {
      HXFramework::CMutexLock lock(mutex_);
      if (operation == "add") counts_[id] += amount;
      count = counts_[id];
    }
    hxf_property_list_h result = hxf_property_list_create(hxf_plugin_kit::View(operation));
    Push(result, "device_id", id);
    Push(result, "count", count);
    SendResult(service, transaction, result, HXF_ERROR_NONE);
  }

  static inline const EndpointInfo kDevices[] = {
      {"counter-1", "Front door visitors", "lo", "example", "127.0.0.1", "{}"},
      {"counter-2", "Back door visitors", "lo", "example", "127.0.0.1", "{}"}};

  HXFramework::CMutex mutex_;
  std::map<std::string, int64_t> counts_ HXF_GUARDED_BY(mutex_);
};

}  // namespace

bool CreatePlugin(void) {
  return hxf_plugin_kit::Entry<Counters>::Create();
}

bool DestroyPlugin(void) {
  return hxf_plugin_kit::Entry<Counters>::Destroy();
}
