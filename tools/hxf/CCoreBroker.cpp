#include "CCoreBroker.h"

#include <algorithm>
#include <chrono>

#include "PluginFiles.h"

namespace hxf_tool {

namespace {

constexpr auto kLoadWait = std::chrono::seconds(10);

CCoreBroker* Self(void* user_data) {
  return static_cast<CCoreBroker*>(user_data);
}

Event MakeEvent(Event::Kind kind, const std::string& name, int code) {
  Event event{kind};
  event.name = name;
  event.code = code;
  return event;
}

// The list's name and properties, or nothing for a null list.
void ReadList(hxf_property_list_h list, Event* event) {
  if (list == nullptr) return;
  event->list_name = hxf_property_list_get_name(list);
  event->properties = ReadProperties(list);
}

hxf_string View(const std::string& text) {
  return hxf_string_new(text.data(), static_cast<uint32_t>(text.size()));
}

// Sessions and transactions are named to the commands by their handle's value.
template <typename Handle>
uint64_t Id(Handle handle) {
  return reinterpret_cast<uintptr_t>(handle);
}

}  // namespace

bool CCoreBroker::Open(const std::vector<std::string>& plugins) {
  if (hxf_core_initialize() != HXF_ERROR_NONE) {
    out_.Fail("the core failed to initialise");
    return false;
  }
  opened_ = true;
  WatchLoadReports(&CCoreBroker::OnReport, this);
  const bool loaded = LoadAll(plugins);
  WatchLoadReports(nullptr, nullptr);
  if (!loaded) return false;
  client_ = hxf_core_client_create(hxf_string_from_cstr("hxf"));
  if (client_ == nullptr) {
    out_.Fail("cannot create a client");
    return false;
  }
  return true;
}

bool CCoreBroker::LoadAll(const std::vector<std::string>& plugins) {
  for (const std::string& argument : plugins) {
    // A path loads under the NAME of its file name; the argument itself goes to the core.
    const std::string plugin = PluginName(argument);
    const std::string problem = PluginPathProblem(argument);
    if (!problem.empty()) {
      out_.Fail("plugin " + argument + ": " + problem, COutput::kNoCode, {{"plugin", argument}});
      return false;
    }
    {
      HXFramework::CMutexLock lock(names_mutex_);
      loading_ = plugin;
      known_.insert(plugin);
    }
    const hxf_error_e code = hxf_core_plugin_load(
        hxf_string_new(argument.data(), static_cast<uint32_t>(argument.size())),
        &CCoreBroker::OnLoaded, this);
    if (code != HXF_ERROR_NONE) {
      const bool path_refused = code == HXF_ERROR_INVALID_PARAMETER && IsPluginPath(argument);
      out_.Fail("plugin " + argument + ": load refused" +
                    (code == HXF_ERROR_OPERATION_FAILED ? ": it is already loaded"
                     : path_refused                     ? ": " + PluginPathRefusal()
                                                        : ""),
                code, {{"plugin", argument}});
      return false;
    }
    Event event{Event::kInterrupt};
    const auto deadline = CEventQueue::Clock::now() + kLoadWait;
    bool loaded = false;
    while (events_.Next(&event, deadline)) {
      if (event.kind == Event::kInterrupt) return false;
      if (event.kind == Event::kLoaded && event.name == plugin) {
        if (!event.caller.empty())
          out_.Log("hxf: plugin " + plugin + " reported its load result under the name '" +
                   event.caller + "'");
        loaded = event.code == HXF_PLUGIN_LOAD_RESULT_SUCCESS;
        if (!loaded)
          out_.Fail("plugin " + plugin + ": failed to load: " + LoadFailureReason(argument),
                    COutput::kNoCode, {{"plugin", plugin}});
        break;
      }
    }
    if (!loaded) {
      if (event.kind != Event::kLoaded)
        out_.Fail("plugin " + plugin + ": no load result within 10 s", HXF_ERROR_TIMED_OUT,
                  {{"plugin", plugin}});
      return false;
    }
    PluginInfo info;
    info.name = plugin;
    info.path = PluginPath(argument);
    ReadPluginInfo(info.path, &info.info);
    loaded_.push_back(std::move(info));
  }
  return true;
}

bool CCoreBroker::OfferedServices(std::vector<std::string>* services) {
  services->clear();
  for (const PluginInfo& plugin : loaded_) {
    const std::vector<std::string> offered = plugin.Services();
    if (offered.empty()) return false;  // it may offer any service
    for (const std::string& service : offered) {
      if (std::find(services->begin(), services->end(), service) == services->end())
        services->push_back(service);
    }
  }
  return true;
}

bool CCoreBroker::Providers(const std::string& service, std::vector<std::string>* providers) {
  providers->clear();
  for (const PluginInfo& plugin : loaded_) {
    const std::vector<std::string> offered = plugin.Services();
    if (offered.empty() || std::find(offered.begin(), offered.end(), service) != offered.end())
      providers->push_back(plugin.name);
  }
  return true;
}

void CCoreBroker::Close() {
  if (client_ != nullptr) hxf_core_client_destroy(client_);
  client_ = nullptr;
  if (!opened_) return;
  hxf_core_plugin_unload_all();
  hxf_core_finalize();
  loaded_.clear();
  opened_ = false;
}

int CCoreBroker::Search(const std::string& service, uint32_t timeout_ms) {
  return hxf_core_client_start_active_search(client_, View(service), &CCoreBroker::OnFound,
                                             timeout_ms, this);
}

void CCoreBroker::StopSearch(const std::string& service) {
  hxf_core_client_stop_active_search(client_, View(service));
}

int CCoreBroker::Listen(const std::string& service) {
  return hxf_core_client_start_passive_search(client_, View(service), &CCoreBroker::OnFound, this);
}

void CCoreBroker::StopListen(const std::string& service) {
  hxf_core_client_stop_passive_search(client_, View(service));
}

int CCoreBroker::AskDevices(const std::string& service, uint32_t timeout_ms) {
  return hxf_core_client_get_device_list(client_, View(service), &CCoreBroker::OnList, timeout_ms,
                                         this);
}

int CCoreBroker::Subscribe(const std::string& service, uint64_t* session) {
  hxf_service_session_h handle =
      hxf_core_client_subscribe_service(client_, View(service), &CCoreBroker::OnNotification, this);
  *session = Id(handle);
  return handle != nullptr ? HXF_ERROR_NONE : HXF_ERROR_NOT_FOUND;
}

int CCoreBroker::Request(uint64_t session, const std::string& operation,
                         const std::vector<PropertyValue>& properties, uint32_t timeout_ms,
                         uint64_t* transaction) {
  hxf_property_list_h list = MakeList(operation, properties);
  hxf_transaction_h handle = nullptr;
  const hxf_error_e sent = hxf_core_client_request_service(
      client_, reinterpret_cast<hxf_service_session_h>(static_cast<uintptr_t>(session)), list,
      &CCoreBroker::OnResult, timeout_ms, &handle, this);
  hxf_property_list_destroy(list);
  *transaction = Id(handle);
  return sent;
}

void CCoreBroker::OnLoaded(hxf_string name, hxf_plugin_load_result_e result, void* self) {
  Event event = MakeEvent(Event::kLoaded, Copy(name), result);
  Self(self)->events_.Push(std::move(event));
}

void CCoreBroker::OnReport(const std::string& name, hxf_plugin_load_result_e result, void* self) {
  CCoreBroker* broker = Self(self);
  Event event = MakeEvent(Event::kLoaded, "", result);
  {
    HXFramework::CMutexLock lock(broker->names_mutex_);
    if (broker->known_.count(name) != 0) return;  // the core delivers it to OnLoaded
    // Loads are one at a time: a report under a name the core does not know (it drops it)
    // is the plugin now loading's.
    event.name = broker->loading_;
  }
  event.caller = name;
  broker->events_.Push(std::move(event));
}

void CCoreBroker::OnFound(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
                          hxf_endpoint_h endpoint, void* self) {
  Event event = MakeEvent(Event::kFound, Copy(service), result);
  if (endpoint != nullptr) event.devices.push_back(ReadDevice(endpoint));
  Self(self)->events_.Push(std::move(event));
}

void CCoreBroker::OnList(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
                         hxf_endpoint_list_h list, void* self) {
  Event event = MakeEvent(Event::kList, Copy(service), result);
  for (hxf_endpoint_h e = hxf_endpoint_list_get_first(list); e != nullptr;
       e = hxf_endpoint_list_get_next(list, e)) {
    event.devices.push_back(ReadDevice(e));
  }
  Self(self)->events_.Push(std::move(event));
}

void CCoreBroker::OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h list,
                           hxf_transaction_h transaction, hxf_error_e error, void* self) {
  Event event = MakeEvent(Event::kResult, "", error);
  event.transaction = Id(transaction);
  ReadList(list, &event);
  Self(self)->events_.Push(std::move(event));
}

void CCoreBroker::OnNotification(hxf_string service, hxf_service_session_h,
                                 hxf_property_list_h list, hxf_transaction_h transaction,
                                 hxf_error_e error, void* self) {
  Event event = MakeEvent(Event::kNotification, Copy(service), error);
  event.transaction = Id(transaction);
  ReadList(list, &event);
  Self(self)->events_.Push(std::move(event));
}

}  // namespace hxf_tool
