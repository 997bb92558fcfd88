#include "CCoreBroker.h"

#include <dlfcn.h>
#include <unistd.h>

#include <chrono>

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

// Why the core could not load a plugin. The core only reports that it failed (its log names
// no reason), so look where and as the core does: the same path, the same dlopen flags. A
// library the core holds open is only referenced again, so none of its code runs here.
std::string LoadFailureReason(const std::string& plugin) {
  const std::string path = std::string(HXF_TOOL_PLUGIN_DIR) + "libhxf-plugin-" + plugin + ".so";
  if (access(path.c_str(), F_OK) != 0) return path + " does not exist";
  void* library = dlopen(path.c_str(), RTLD_NOW);
  if (library == nullptr) {
    const char* why = dlerror();
    return why != nullptr ? why : path + " cannot be opened";
  }
  std::string reason;
  if (dlsym(library, "CreatePlugin") == nullptr) {
    reason = path + " does not export CreatePlugin";
  } else if (dlsym(library, "DestroyPlugin") == nullptr) {
    reason = path + " does not export DestroyPlugin";
  } else {
    reason = "the plugin itself reported the failure (" + path + ")";
  }
  dlclose(library);
  return reason;
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
  for (const std::string& plugin : plugins) {
    const hxf_error_e code =
        hxf_core_plugin_load(hxf_string_new(plugin.data(), static_cast<uint32_t>(plugin.size())),
                             &CCoreBroker::OnLoaded, this);
    if (code != HXF_ERROR_NONE) {
      out_.Fail("plugin " + plugin + ": load refused" +
                    (code == HXF_ERROR_OPERATION_FAILED ? ": it is already loaded" : ""),
                code, {{"plugin", plugin}});
      return false;
    }
    Event event{Event::kInterrupt};
    const auto deadline = CEventQueue::Clock::now() + kLoadWait;
    bool loaded = false;
    while (events_.Next(&event, deadline)) {
      if (event.kind == Event::kInterrupt) return false;
      if (event.kind == Event::kLoaded && event.name == plugin) {
        loaded = event.code == HXF_PLUGIN_LOAD_RESULT_SUCCESS;
        if (!loaded)
          out_.Fail("plugin " + plugin + ": failed to load: " + LoadFailureReason(plugin),
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
  }
  client_ = hxf_core_client_create(hxf_string_from_cstr("hxf"));
  if (client_ == nullptr) {
    out_.Fail("cannot create a client");
    return false;
  }
  return true;
}

void CCoreBroker::Close() {
  if (client_ != nullptr) hxf_core_client_destroy(client_);
  client_ = nullptr;
  if (!opened_) return;
  hxf_core_plugin_unload_all();
  hxf_core_finalize();
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
