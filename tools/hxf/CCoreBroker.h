// The broker in this process: the core, initialised by Open with the plugins the command
// line names, and one client. The core's callbacks copy what they are given into events.
#pragma once

#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "CBroker.h"
#include "CLocks.h"
#include "COutput.h"
#include "CPluginInfo.h"
#include "hxf_core.h"

namespace hxf_tool {

class CCoreBroker : public CBroker {
 public:
  CCoreBroker(CEventQueue& events, const COutput& out) : events_(events), out_(out) {}
  ~CCoreBroker() override { Close(); }
  CCoreBroker(const CCoreBroker&) = delete;
  CCoreBroker& operator=(const CCoreBroker&) = delete;

  // Initialises the core, loads each plugin and waits for its load result; then makes the
  // client. False (after an error message) on any failure, or when interrupted.
  bool Open(const std::vector<std::string>& plugins);
  // Destroys the client, unloads the plugins and finalises the core.
  void Close();

  int Search(const std::string& service, uint32_t timeout_ms) override;
  void StopSearch(const std::string& service) override;
  int Listen(const std::string& service) override;
  void StopListen(const std::string& service) override;
  int AskDevices(const std::string& service, uint32_t timeout_ms) override;
  int Subscribe(const std::string& service, uint64_t* session) override;
  int Request(uint64_t session, const std::string& operation,
              const std::vector<PropertyValue>& properties, uint32_t timeout_ms,
              uint64_t* transaction) override;
  int Monitor() override { return HXF_ERROR_OPERATION_FAILED; }  // nobody else is here
  // The union of the loaded plugins' declared services, when every one declares them.
  bool OfferedServices(std::vector<std::string>* services) override;
  // The loaded plugins that declare `service`, or declare no services at all.
  bool Providers(const std::string& service, std::vector<std::string>* providers) override;

 private:
  // Loads each plugin in turn and waits for its load result; false after an error message.
  bool LoadAll(const std::vector<std::string>& plugins);
  // Every load result a plugin reports, on the plugin's thread (WatchLoadReports); one under
  // a name the core does not know becomes a kLoaded event of the plugin now loading, with
  // `caller` the name it was reported under.
  static void OnReport(const std::string& name, hxf_plugin_load_result_e result, void* self);
  // Callbacks of the core; user data is the broker.
  static void OnLoaded(hxf_string name, hxf_plugin_load_result_e result, void* self);
  static void OnFound(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
                      hxf_endpoint_h endpoint, void* self);
  static void OnList(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
                     hxf_endpoint_list_h list, void* self);
  static void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h list,
                       hxf_transaction_h transaction, hxf_error_e error, void* self);
  static void OnNotification(hxf_string service, hxf_service_session_h, hxf_property_list_h list,
                             hxf_transaction_h transaction, hxf_error_e error, void* self);

  CEventQueue& events_;
  const COutput& out_;
  bool opened_ = false;
  hxf_client_h client_ = nullptr;
  std::vector<PluginInfo> loaded_;  // what each loaded plugin says of itself, in load order
  HXFramework::CMutex names_mutex_;  // OnReport reads the names on the core's thread
  std::string loading_ HXF_GUARDED_BY(names_mutex_);
  // The names the core has been asked to load.
  std::set<std::string> known_ HXF_GUARDED_BY(names_mutex_);
};

}  // namespace hxf_tool
