// The broker on D-Bus: one core client per caller (its unique bus name), searches, listens
// and sessions as objects of their caller, device lists and requests answered
// asynchronously, and a monitor of every event.
//
// Threads: everything here runs on the bus thread (the sd-event loop), except the core's
// callbacks. The callbacks copy what they were given into a task and post it; the
// task runs on the bus thread, so no sd-bus object and none of the maps below is touched by
// any other thread (CLoopTasks hands the tasks over).
#pragma once

#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "BusValues.h"
#include "CLoopTasks.h"
#include "CoreValues.h"
#include "hxf_core.h"

namespace hxfd {

// A D-Bus caller waits 25 s for an answer unless it says otherwise (the default of libdbus,
// sd-bus and GDBus); a time-out that long would be answered after the caller gave up.
constexpr uint32_t kCallTimeoutMs = 25000;

class CBusBroker {
 public:
  CBusBroker(sd_bus* bus, sd_event* event);
  ~CBusBroker();
  CBusBroker(const CBusBroker&) = delete;
  CBusBroker& operator=(const CBusBroker&) = delete;

  // Registers the broker object and asks for the bus name. A negative errno on failure.
  int Start();
  // Destroys every caller's client; the loop must not run any more.
  void Stop();
  // Records a plugin's load, or its failure and why: the Plugins and Services properties
  // change (PropertiesChanged) and monitors hear of it.
  void PluginLoaded(const std::string& name, bool ok, const std::string& reason = "");

 private:
  struct Plugin {  // an entry of the Plugins property
    std::string name, description, reason;
    bool loaded = false;
    std::vector<std::string> services;  // declared; empty: it may offer any
  };
  struct Session {  // org.hxf.Session1
    std::string path, owner, service;
    hxf_service_session_h handle = nullptr;
    CBusBroker* broker = nullptr;
    sd_bus_slot* slot = nullptr;
  };
  struct Caller {
    hxf_client_h client = nullptr;
    sd_bus_slot* gone = nullptr;  // the NameOwnerChanged match for this name
    std::set<std::string> objects;
    std::map<std::string, std::unique_ptr<Session>> direct;  // Broker1.Request's, by service
  };
  struct Watch {  // a search or a listen: org.hxf.Search1
    std::string path, owner, service;
    bool listen = false;
    bool found_any = false;
    CBusBroker* broker = nullptr;
    sd_bus_slot* slot = nullptr;
    sd_event_source* timer = nullptr;  // a search's own deadline
  };
  struct Call {                         // a method call answered later
    sd_bus_message* message = nullptr;  // referenced
    std::string owner, service;
    std::string operation;  // a request's: a time-out's result carries none
  };

  // ---- bus thread ----
  Caller* CallerOf(sd_bus_message* message, sd_bus_error* error);
  // Reads the service name that starts `m`, and finds or makes its caller; null (with the
  // error set) on an empty name.
  Caller* ReadService(sd_bus_message* m, std::string* service, sd_bus_error* error);
  // A session of `caller` on `service`, with no object yet; null (error set) if refused.
  std::unique_ptr<Session> MakeSession(const Caller& caller, sd_bus_message* m,
                                       const std::string& service, sd_bus_error* error);
  void ForgetCaller(const std::string& name);
  std::string NewPath(const char* kind);
  template <typename Object>
  Object* Owned(std::map<std::string, std::unique_ptr<Object>>& objects, sd_bus_message* message,
                void* userdata, sd_bus_error* error);
  void RemoveObject(const std::string& path);
  void SendTo(const std::string& owner, const std::string& path, const char* interface,
              const char* member, const std::function<int(sd_bus_message*)>& fill);
  // An Event signal to every monitor: the payload appends one a{sv}.
  void Monitor(const std::string& type, const std::string& caller, const std::string& service,
               const std::string& operation, uint64_t transaction,
               const std::function<int(sd_bus_message*)>& payload);
  // A search's or listen's news; a null device when a search that found nothing ended.
  void Found(hxf_client_h client, const std::string& service, int result,
             const hxf_tool::Device* device);
  void Listed(hxf_client_h client, const std::string& service, int result,
              std::vector<hxf_tool::Device> devices);
  // A request's result, or a notification (which answers the request it names, if any).
  void Answered(hxf_service_session_h session, hxf_transaction_h transaction,
                const std::string& operation,
                const std::vector<hxf_tool::PropertyValue>& properties, int error,
                bool notification);
  void FinishWatch(Watch* watch, const char* reason);

 public:
  // Method handlers, named in the vtables.
  static int OnSearch(sd_bus_message* m, void* self, sd_bus_error* error);
  static int OnListen(sd_bus_message* m, void* self, sd_bus_error* error);
  static int OnGetDevices(sd_bus_message* m, void* self, sd_bus_error* error);
  static int OnSubscribe(sd_bus_message* m, void* self, sd_bus_error* error);
  static int OnMonitor(sd_bus_message* m, void* self, sd_bus_error* error);
  static int OnStop(sd_bus_message* m, void* self, sd_bus_error* error);
  static int OnRequest(sd_bus_message* m, void* self, sd_bus_error* error);
  // Broker1.Request: a request on the caller's own session of the service, for callers that
  // make one call per connection (busctl, gdbus, scripts).
  static int OnDirectRequest(sd_bus_message* m, void* self, sd_bus_error* error);
  static int OnClose(sd_bus_message* m, void* self, sd_bus_error* error);
  static int OnNameOwnerChanged(sd_bus_message* m, void* self, sd_bus_error* error);
  // Broker1's properties.
  static int GetVersion(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                        void*, sd_bus_error*);
  static int GetPlugins(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                        void* self, sd_bus_error*);
  static int GetServices(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply,
                         void* self, sd_bus_error*);
  static int GetServicesKnown(sd_bus*, const char*, const char*, const char*,
                              sd_bus_message* reply, void* self, sd_bus_error*);

 private:
  int StartWatch(sd_bus_message* m, bool listen, sd_bus_error* error);
  // Reads "sa{sv}u" (operation, properties, time-out) from `m` and sends the request.
  int SendRequest(sd_bus_message* m, const Session& session, sd_bus_error* error);
  static int OnWatchTimer(sd_event_source*, uint64_t, void* watch);

  // The core's callbacks (pool threads): copy and Post.
  static void OnFound(hxf_client_h client, hxf_string service,
                      hxf_endpoint_discovery_result_e result, hxf_endpoint_h endpoint, void* self);
  static void OnList(hxf_client_h client, hxf_string service,
                     hxf_endpoint_discovery_result_e result, hxf_endpoint_list_h list, void* self);
  static void OnResult(hxf_client_h, hxf_service_session_h session, hxf_property_list_h list,
                       hxf_transaction_h transaction, hxf_error_e error, void* self);
  static void OnNotification(hxf_string service, hxf_service_session_h session,
                             hxf_property_list_h list, hxf_transaction_h transaction,
                             hxf_error_e error, void* self);
  // Copies a result or notification out of the callback and hands it to Answered.
  void PostAnswer(hxf_service_session_h session, hxf_property_list_h list,
                  hxf_transaction_h transaction, int error, bool notification);

  sd_bus* bus_;
  sd_event* event_;
  sd_bus_slot* broker_slot_ = nullptr;
  hxf_tool::CLoopTasks tasks_;  // the core's callbacks reach the bus thread through it

  // Bus thread only.
  uint64_t next_object_ = 1;
  std::map<std::string, Caller> callers_;                      // by unique bus name
  std::map<std::string, std::unique_ptr<Watch>> watches_;      // by object path
  std::map<std::string, std::unique_ptr<Session>> sessions_;   // by object path
  std::map<std::pair<std::string, std::string>, Call> lists_;  // by (caller, service)
  std::map<hxf_transaction_h, Call> requests_;
  std::set<std::string> monitors_;  // callers that asked for every event
  std::vector<Plugin> plugins_;     // in load order
};

}  // namespace hxfd
