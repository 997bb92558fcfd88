// A second provider of "lights", beside the simulator: it reports one device of its own
// (HXF_PROVIDER_DEVICE), answers every request naming itself in a "provider" property, and
// notifies its state every 200 ms. Built as "strips" (strip-1, a device only it has) and as
// "lamps" (lamp-1, which the simulator reports too: a conflict). Made with the plugin kit, so it
// follows the kit's convention: "lights@NAME" and the provider in the UI meta data.
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <thread>

#include "PluginKit.h"
#include "hxf_plugin.h"

HXF_PLUGIN_INFO(services, "lights");

namespace {

constexpr const char* kName = HXF_PROVIDER_NAME;
constexpr const char* kService = "lights";
constexpr auto kNotifyEvery = std::chrono::milliseconds(200);

class Provider {
 public:
  void Start() {
    thread_ = std::thread([this] { Run(); });
    Post([this] { Setup(); });
  }
  void Stop() {
    {
      HXFramework::CMutexLock lock(mutex_);
      stopping_ = true;
      wake_.notify_all();
    }
    thread_.join();
    if (handler_ != nullptr)
      hxf_plugin_kit::DestroyHandlers(kName, {{kService, handler_}}, std::chrono::seconds(10));
  }

 private:
  void Post(std::function<void()> task) {
    HXFramework::CMutexLock lock(mutex_);
    tasks_.push_back(std::move(task));
    wake_.notify_all();
  }

  void Run() {
    auto next_notification = std::chrono::steady_clock::now() + kNotifyEvery;
    for (;;) {
      std::function<void()> task;
      {
        HXFramework::CMutexLock lock(mutex_);
        while (!stopping_ && tasks_.empty() &&
               wake_.wait_until(lock.Native(), next_notification) == std::cv_status::no_timeout) {
        }
        if (stopping_) return;
        if (!tasks_.empty()) {
          task = std::move(tasks_.front());
          tasks_.pop_front();
        }
      }
      if (task) {
        task();
      } else {
        next_notification = std::chrono::steady_clock::now() + kNotifyEvery;
        if (handler_ != nullptr) Notify();
      }
    }
  }

  void Setup() {
    handler_ = hxf_plugin_kit::CreateHandler(
        kName, std::string("test-") + kName, kService,
        {&Provider::OnSearch, &Provider::OnIgnored, &Provider::OnDeviceList, &Provider::OnSearch,
         &Provider::OnIgnored, &Provider::OnAddDevice, &Provider::OnSessionCreated,
         &Provider::OnRequest},
        this);
    hxf_core_plugin_send_load_result(hxf_string_from_cstr(kName),
                                     handler_ != nullptr ? HXF_PLUGIN_LOAD_RESULT_SUCCESS
                                                         : HXF_PLUGIN_LOAD_RESULT_FAILED);
  }

  static hxf_plugin_kit::EndpointInfo Device() {
    return {HXF_PROVIDER_DEVICE, std::string("Light of ") + kName, "eth0", "wire", "10.0.0.9",
            "{\"room\":\"test\"}"};
  }

  hxf_property_list_h State(const std::string& operation, const std::string& device_id) const {
    hxf_property_list_h list = hxf_property_list_create(hxf_plugin_kit::View(operation));
    hxf_plugin_kit::Push(list, "device_id", device_id);
    hxf_plugin_kit::Push(list, "provider", std::string(kName));
    return list;
  }

  void Notify() {
    hxf_property_list_h state = State("state", HXF_PROVIDER_DEVICE);
    hxf_core_service_handler_notify(handler_, hxf_plugin_kit::View(kService), state, nullptr,
                                    HXF_ERROR_NONE);
    hxf_property_list_destroy(state);
  }

  static Provider* Self(void* self) { return static_cast<Provider*>(self); }

  static void OnSearch(hxf_service_handler_h handler, hxf_string, void* self) {
    Self(self)->Post([handler] { hxf_plugin_kit::ReportFound(kName, handler, kService, Device()); });
  }
  static void OnDeviceList(hxf_service_handler_h handler, hxf_string, void* self) {
    Self(self)->Post([handler] {
      hxf_endpoint_list_h list = hxf_endpoint_list_create();
      hxf_endpoint_h endpoint = hxf_plugin_kit::MakeEndpoint(kName, kService, Device());
      hxf_endpoint_list_push_endpoint(list, endpoint, HXF_ERROR_NONE);
      hxf_endpoint_destroy(endpoint);
      hxf_core_service_handler_report_device_list(handler, list);
      hxf_endpoint_list_destroy(list);
    });
  }
  static void OnRequest(hxf_service_handler_h handler, hxf_transaction_h transaction,
                        hxf_property_list_h properties, void* self) {
    const std::string id = hxf_plugin_kit::FindText(properties, "device_id");
    const std::string operation = hxf_property_list_get_name(properties);
    const bool mine = id == HXF_PROVIDER_DEVICE;
    hxf_property_list_h result =
        mine ? Self(self)->State(operation, id)
             : hxf_plugin_kit::ErrorList(operation, std::string(kName) + ": unknown device " + id);
    hxf_core_service_handler_send_request_result(handler, hxf_plugin_kit::View(kService), result,
                                                 transaction,
                                                 mine ? HXF_ERROR_NONE : HXF_ERROR_NOT_FOUND);
    hxf_property_list_destroy(result);
  }
  static void OnIgnored(hxf_service_handler_h, hxf_string, void*) {}
  static void OnAddDevice(hxf_service_handler_h, hxf_endpoint_h, void*) {}
  static void OnSessionCreated(hxf_service_handler_h, hxf_service_session_h, void*) {}

  std::thread thread_;
  HXFramework::CMutex mutex_;
  std::condition_variable wake_;
  std::deque<std::function<void()>> tasks_ HXF_GUARDED_BY(mutex_);
  bool stopping_ HXF_GUARDED_BY(mutex_) = false;
  hxf_service_handler_h handler_ = nullptr;  // set and read on thread_, then by Stop after the join
};

}  // namespace

bool CreatePlugin(void) {
  return hxf_plugin_kit::Entry<Provider>::Create();
}

bool DestroyPlugin(void) {
  return hxf_plugin_kit::Entry<Provider>::Destroy();
}
