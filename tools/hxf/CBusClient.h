// hxfd over D-Bus, as the commands' broker: `hxf --bus`. Searches, listens and sessions are
// hxfd's objects, owned by this connection; their signals become the same events the core's
// callbacks make in process.
//
// Threads: the connection belongs to a bus thread that runs an sd-event loop. The main
// thread's calls are handed to it as tasks (CLoopTasks) and wait for their answer; the
// signals and the answers of long calls (device lists, requests) are read on the bus thread
// and pushed to the event queue. The maps below are touched by the bus thread only.
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "BusValues.h"
#include "CBroker.h"
#include "CLoopTasks.h"
#include "COutput.h"

namespace hxf_tool {

class CBusClient : public CBroker {
 public:
  CBusClient(CEventQueue& events, const COutput& out) : events_(events), out_(out) {}
  ~CBusClient() override;
  CBusClient(const CBusClient&) = delete;
  CBusClient& operator=(const CBusClient&) = delete;

  // Connects to `where` (ConnectBus) and makes sure hxfd answers there, which starts it when
  // the bus activates it; then starts the bus thread. False after an error message.
  bool Open(const std::string& where);

  int Search(const std::string& service, uint32_t timeout_ms) override;
  void StopSearch(const std::string& service) override;
  int Listen(const std::string& service) override;
  void StopListen(const std::string& service) override;
  int AskDevices(const std::string& service, uint32_t timeout_ms) override;
  int Subscribe(const std::string& service, uint64_t* session) override;
  int Request(uint64_t session, const std::string& operation,
              const std::vector<PropertyValue>& properties, uint32_t timeout_ms,
              uint64_t* transaction) override;
  int Monitor() override;
  // From hxfd's Services property, when its ServicesKnown is true; false when hxfd has no
  // such property (an older hxfd) or cannot tell.
  bool OfferedServices(std::vector<std::string>* services) override;
  // hxfd's Plugins property.
  bool LoadedPlugins(std::vector<LoadedPlugin>* plugins) override;

 private:
  // A call answered later: what its answer becomes.
  struct Pending {
    CBusClient* client;
    std::string service, operation;
    uint64_t transaction;
  };

  // Runs `call` on the bus thread and returns its result (the main thread waits).
  int OnBusThread(const std::function<int()>& call);
  // ---- bus thread ----
  // Calls Broker1.`method` and waits for the answer; with an object path answered, the
  // path. A refusal is returned as the core's error code.
  int CallBroker(const char* method, const std::function<int(sd_bus_message*)>& fill,
                 std::string* path);
  // Calls `method` of `interface` at `path` and answers through `on_reply` later.
  int CallLater(const std::string& path, const char* interface, const char* method,
                uint64_t timeout_ms, const std::function<int(sd_bus_message*)>& fill,
                sd_bus_message_handler_t on_reply, Pending pending);
  // Any thread: Broker1.`method` (Search or Listen), its object then followed for `service`.
  int StartWatch(const char* method, const std::string& service,
                 const std::function<int(sd_bus_message*)>& fill);
  void StopWatch(const std::string& service);
  // The core's code for a failed call (`r`, or the error it was answered with); a failure
  // that is not the broker's is logged.
  int CodeOf(int r, const sd_bus_error* error) const;
  static int OnSearchSignal(sd_bus_message* m, void* self, sd_bus_error*);
  static int OnNotification(sd_bus_message* m, void* self, sd_bus_error*);
  static int OnMonitorEvent(sd_bus_message* m, void* self, sd_bus_error*);
  static int OnDevices(sd_bus_message* m, void* pending, sd_bus_error*);
  static int OnResult(sd_bus_message* m, void* pending, sd_bus_error*);

  CEventQueue& events_;
  const COutput& out_;
  sd_event* event_ = nullptr;
  sd_bus* bus_ = nullptr;
  CLoopTasks tasks_;
  std::thread thread_;
  std::atomic<bool> loop_ended_{false};  // the bus thread's loop returned: no task runs any more

  // Bus thread only.
  std::map<std::string, std::string> watches_;   // search and listen objects: path -> service
  std::map<std::string, std::string> sessions_;  // session objects: path -> service
  std::map<uint64_t, std::string> session_paths_;
  uint64_t next_id_ = 1;
};

}  // namespace hxf_tool
