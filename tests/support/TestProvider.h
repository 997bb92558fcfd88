// A provider made through the public service-handler API, whose callbacks record what the
// core asks and can answer searches with devices.
#pragma once

#include <string>
#include <vector>

#include "FakeClient.h"
#include "Str.h"
#include "hxf_core.h"

namespace HXFramework::Test {

inline hxf_endpoint_h MakeEndpoint(const std::string& service, const std::string& device_id) {
  hxf_endpoint_h endpoint = hxf_endpoint_create(Str(service));
  hxf_endpoint_set_device_id(endpoint, Str(device_id));
  return endpoint;
}

// Reports one found device of `service` for `handler` (the core works on its own copy).
inline void ReportFound(hxf_service_handler_h handler, const std::string& service,
                        const std::string& device_id) {
  hxf_endpoint_h endpoint = MakeEndpoint(service, device_id);
  hxf_core_service_handler_report_device_found(handler, endpoint);
  hxf_endpoint_destroy(endpoint);
}

class TestProvider {
 public:
  explicit TestProvider(const std::string& name, bool with_callbacks = true) {
    handle = hxf_core_service_handler_create(Str(name), this);
    if (!with_callbacks) return;
    hxf_core_service_handler_set_search_callback(handle, &TestProvider::OnSearch, this);
    hxf_core_service_handler_set_search_stop_callback(handle, &TestProvider::OnSearchStop, this);
    hxf_core_service_handler_set_get_device_list_callback(handle, &TestProvider::OnDeviceList,
                                                          this);
    hxf_core_service_handler_set_listen_callback(handle, &TestProvider::OnListen, this);
    hxf_core_service_handler_set_listen_stop_callback(handle, &TestProvider::OnListenStop, this);
  }

  // Destroys the handler asynchronously and waits for its destroyed callback: from then on
  // no callback of this provider can run, so its memory may go.
  ~TestProvider() {
    if (hxf_core_service_handler_destroy_async(handle, &TestProvider::OnDestroyed, this) ==
        HXF_ERROR_NONE) {
      events.WaitCount("destroyed", 1);
    }
  }
  TestProvider(const TestProvider&) = delete;
  TestProvider& operator=(const TestProvider&) = delete;

  // Devices reported (one by one, or as one list) when asked to search or list.
  std::vector<std::string> devices;
  hxf_service_handler_h handle = nullptr;
  EventLog events;

 private:
  static TestProvider* Self(void* user_data) { return static_cast<TestProvider*>(user_data); }

  static void OnSearch(hxf_service_handler_h h, hxf_string name, void* ud) {
    TestProvider* self = Self(ud);
    for (const std::string& id : self->devices) ReportFound(h, Text(name), id);
    self->events.Add("search " + Text(name));
  }
  static void OnDestroyed(hxf_service_handler_h h, void* ud) {
    TestProvider* self = Self(ud);
    self->events.Add(h == self->handle ? "destroyed" : "destroyed with a wrong handle");
  }
  static void OnSearchStop(hxf_service_handler_h, hxf_string name, void* ud) {
    Self(ud)->events.Add("search stop " + Text(name));
  }
  static void OnListen(hxf_service_handler_h, hxf_string name, void* ud) {
    Self(ud)->events.Add("listen " + Text(name));
  }
  static void OnListenStop(hxf_service_handler_h, hxf_string name, void* ud) {
    Self(ud)->events.Add("listen stop " + Text(name));
  }
  static void OnDeviceList(hxf_service_handler_h h, hxf_string name, void* ud) {
    TestProvider* self = Self(ud);
    if (!self->devices.empty()) {
      hxf_endpoint_list_h list = hxf_endpoint_list_create();
      for (const std::string& id : self->devices) {
        hxf_endpoint_h endpoint = MakeEndpoint(Text(name), id);
        hxf_endpoint_list_push_endpoint(list, endpoint, HXF_ERROR_NONE);
        hxf_endpoint_destroy(endpoint);
      }
      hxf_core_service_handler_report_device_list(h, list);
      hxf_endpoint_list_destroy(list);
    }
    self->events.Add("device list " + Text(name));
  }
};

}  // namespace HXFramework::Test
