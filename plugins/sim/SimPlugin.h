// The simulator provider: one service per service of its model (the plugin kit's Provider),
// answering searches, listens, device lists and get/set requests from its worker thread.
#pragma once

#include <random>
#include <string>

#include "PluginKit.h"
#include "SimModel.h"
#include "SimWorker.h"
#include "hxf_core.h"

namespace hxf_sim {

// What the simulator keeps per service: bumped to cancel a search's or a listen's pending
// reports.
struct Activity {
  uint64_t search_generation = 0;
  uint64_t listen_generation = 0;
};

class Plugin : public hxf_plugin_kit::Provider<Plugin, Activity> {
 public:
  static constexpr const char* kName = "sim";

  Plugin();
  // Starts the worker, which sets everything up and reports the load result.
  void Start();
  // Stops the worker, destroys the handlers and returns once no plugin code runs again.
  void Stop();

 private:
  friend class hxf_plugin_kit::Provider<Plugin, Activity>;
  using List = hxf_plugin_kit::List;

  // The kit's hand-offs: everything to the worker, except a request, answered on the core's
  // thread (a hand-off to the worker cost more than the answer).
  void Post(Task task, uint32_t delay_ms = 0) { worker_.Post(std::move(task), delay_ms); }
  void PostRequest(const Task& task) { worker_.RunNow(task); }

  // On the worker: the kit's hooks, then what they need.
  void OnSearch(Service& service);
  void OnSearchStop(Service& service) { ++service.record.search_generation; }
  void OnDeviceList(Service& service);
  void OnListen(Service& service);
  void OnListenStop(Service& service) { ++service.record.listen_generation; }
  void OnAddDevice(Service& service, hxf_plugin_kit::EndpointInfo endpoint);
  void OnRequest(Service& service, hxf_transaction_h transaction, const List& request);
  void Setup();
  // Answers a request to device `id` (when it is due: a slow device answers late).
  void Respond(Service& service, hxf_transaction_h transaction, hxf_property_list_h request,
               const std::string& id);
  // Validates every change first: a bad value changes nothing.
  void Set(Service& service, hxf_transaction_h transaction, hxf_property_list_h request,
           Device* device);
  void NotifyState(const Device& device);
  // A speaker's request, checked when it came (SimSpeaker.h carries it out).
  void Audio(Service& service, hxf_transaction_h transaction, hxf_property_list_h request,
             Device* device);
  // Tells subscribers a speaker's state when it differs from what they were told last.
  void NotifySpeaker(Device& device);
  // While the speaker plays: its media's end, when nothing moved it meanwhile.
  void ScheduleEndOfMedia(const Device& device);
  void StartDrifts();
  void ScheduleDrift(const std::string& service, const std::string& id, const std::string& name,
                     uint32_t every_ms);
  void Report(Service& service, const Device& device, const char* presence);

  Worker worker_;
  Model model_;              // worker only
  std::minstd_rand random_;  // worker only: which way a drifting value moves
};

}  // namespace hxf_sim
