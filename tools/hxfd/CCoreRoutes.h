// The core's callbacks and their way to the bus thread.
//
// Every registration with the core (a watch's search, a caller's device lists and requests, a
// session's notifications) carries its own token as user data: a number, never a pointer.
// A callback (a pool thread) copies what it was given and posts it, with the token, through
// the one hand-off (CLoopTasks, an eventfd in the sd-event loop). On the bus thread the token
// is looked up in a hash map: the object it names, or nothing when that object has gone since.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <unordered_map>
#include <variant>
#include <vector>

#include "CLoopTasks.h"
#include "CoreValues.h"
#include "hxf_core.h"

namespace hxfd {

class CCaller;
class CDeviceRoutes;
class CSession;
class CWatch;

// What the core said, copied out of its callback.
struct FoundEvent {
  std::string service;
  int result = 0;
  bool has_device = false;
  hxf_tool::Device device;
};
struct ListEvent {
  std::string service;
  int result = 0;
  std::vector<hxf_tool::Device> devices;
};
struct AnswerEvent {
  hxf_transaction_h transaction = nullptr;
  std::string operation;
  std::vector<hxf_tool::PropertyValue> properties;
  int error = 0;
};

class CCoreRoutes {
 public:
  // A watch hears its searches; a caller its device lists and request results; a session its
  // notifications; the device routes the lists of their lookups.
  using Target = std::variant<CWatch*, CCaller*, CSession*, CDeviceRoutes*>;

  CCoreRoutes() = default;
  ~CCoreRoutes() { Stop(); }
  CCoreRoutes(const CCoreRoutes&) = delete;
  CCoreRoutes& operator=(const CCoreRoutes&) = delete;

  // On the bus thread. One routing table per process: the core's callbacks find it here.
  int Start(sd_event* event);
  // Callbacks still to come are dropped from now on.
  void Stop();

  // Aborts unless called on the bus thread: sd-bus objects and every map of hxfd live there.
  void AssertBusThread() const;
  // Runs `task` on the bus thread (any thread).
  void Post(std::function<void()> task) { tasks_.Post(std::move(task)); }

  // Bus thread: a new token naming `target`, valid until Remove.
  uint64_t Add(Target target);
  void Remove(uint64_t token);
  size_t Count() const { return targets_.size(); }
  static void* UserData(uint64_t token) { return reinterpret_cast<void*>(token); }

  // The core's callbacks (pool threads); the user data is a token.
  static void OnFound(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
                      hxf_endpoint_h endpoint, void* token);
  static void OnList(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
                     hxf_endpoint_list_h list, void* token);
  static void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h list,
                       hxf_transaction_h transaction, hxf_error_e error, void* token);
  static void OnNotification(hxf_string, hxf_service_session_h, hxf_property_list_h list,
                             hxf_transaction_h transaction, hxf_error_e error, void* token);

 private:
  // Any thread: hands `deliver` to the routing table of this process, if one runs.
  static void Hand(std::function<void(CCoreRoutes&)> deliver);
  // Bus thread: the target of `token`, or null.
  template <typename T>
  T* Find(uint64_t token) const;

  hxf_tool::CLoopTasks tasks_;
  uint64_t next_token_ = 1;                       // bus thread
  std::unordered_map<uint64_t, Target> targets_;  // bus thread
};

}  // namespace hxfd
