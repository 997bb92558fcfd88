// The simulator provider: one service handler per service of its model, answering
// searches, listens, device lists and get/set requests from its worker thread.
#pragma once

#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "SimModel.h"
#include "SimWorker.h"
#include "hxf_core.h"

namespace hxf_sim {

class Plugin {
 public:
  static constexpr const char* kName = "sim";

  // Starts the worker, which sets everything up and reports the load result.
  void Start();
  // Stops the worker, destroys the handlers and returns once no plugin code runs again.
  void Stop();

 private:
  struct Service {
    hxf_service_handler_h handler = nullptr;
    uint64_t search_generation = 0;  // bumped to cancel a search's pending reports
    uint64_t listen_generation = 0;
  };

  // On the worker.
  void Setup();
  void Search(const std::string& service);
  void DeviceList(const std::string& service);
  void Listen(const std::string& service);
  using List = std::shared_ptr<void>;  // an owned property list
  void Request(const std::string& service, hxf_transaction_h transaction, const List& request);
  // Answers a request to device `id` (when it is due: a slow device answers late).
  void Respond(const std::string& service, hxf_transaction_h transaction,
               hxf_property_list_h request, const std::string& id);
  // Validates every change first: a bad value changes nothing.
  void Set(const std::string& service, hxf_transaction_h transaction, hxf_property_list_h request,
           Device* device);
  void NotifyState(const std::string& service, const Device& device);
  void StartDrifts();
  void ScheduleDrift(const std::string& service, const std::string& id, const std::string& name,
                     uint32_t every_ms);
  void AddDevice(Device device);
  void Report(const std::string& service, const Device& device, const char* presence);
  void Answer(const std::string& service, hxf_transaction_h transaction, hxf_property_list_h result,
              hxf_error_e error);

  // The core's callbacks: each copies what it needs and posts to the worker.
  static void OnSearch(hxf_service_handler_h, hxf_string name, void* self);
  static void OnSearchStop(hxf_service_handler_h, hxf_string name, void* self);
  static void OnDeviceList(hxf_service_handler_h, hxf_string name, void* self);
  static void OnListen(hxf_service_handler_h, hxf_string name, void* self);
  static void OnListenStop(hxf_service_handler_h, hxf_string name, void* self);
  static void OnAddDevice(hxf_service_handler_h, hxf_endpoint_h endpoint, void* self);
  static void OnRequest(hxf_service_handler_h, hxf_transaction_h transaction,
                        hxf_property_list_h properties, void* self);
  static void OnSessionCreated(hxf_service_handler_h, hxf_service_session_h, void*) {}

  Worker worker_;
  Model model_;              // worker only
  std::minstd_rand random_;  // worker only: which way a drifting value moves
  std::map<std::string, Service>
      services_;  // worker only (handlers are read by Stop after the join)
};

}  // namespace hxf_sim
