#include "CToolRuntime.h"

#include <dlfcn.h>
#include <signal.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <ctime>

#include "hxf_host_platform.h"

namespace hxf_tool {

namespace {

constexpr auto kLoadWait = std::chrono::seconds(10);

CToolRuntime* Self(void* user_data) {
  return static_cast<CToolRuntime*>(user_data);
}

sigset_t StopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  return set;
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

}  // namespace

void CToolRuntime::OnLog(int priority, const char* tag, const char* text, void* self) {
  if (!ShowLogLine(priority, tag, Self(self)->log_threshold_)) return;
  std::string line = std::string(tag) + ": " + text;
  if (!line.empty() && line.back() == '\n') line.pop_back();
  Self(self)->out_.Log(line);
}

CToolRuntime::CToolRuntime(const std::string& log_level, const COutput& out)
    : log_threshold_(LogThreshold(log_level)), out_(out) {
  hxf_host_log_set_sink(&CToolRuntime::OnLog, this);
  sigset_t set = StopSignals();
  pthread_sigmask(SIG_BLOCK, &set, nullptr);  // inherited by every thread made from here on
  signal_thread_ = std::thread([this] { WatchSignals(); });
}

CToolRuntime::~CToolRuntime() {
  Close();
  closing_ = true;
  signal_thread_.join();
  hxf_host_log_set_sink(nullptr, nullptr);
}

void CToolRuntime::WatchSignals() {
  sigset_t set = StopSignals();
  const timespec tick{0, 100 * 1000 * 1000};
  while (!closing_) {
    if (sigtimedwait(&set, nullptr, &tick) > 0) {
      interrupted_ = true;
      events_.Push(Event{Event::kInterrupt});
    }
  }
}

bool CToolRuntime::Open(const std::vector<std::string>& plugins) {
  if (hxf_core_initialize() != HXF_ERROR_NONE) {
    out_.Fail("the core failed to initialise");
    return false;
  }
  opened_ = true;
  for (const std::string& plugin : plugins) {
    const hxf_error_e code =
        hxf_core_plugin_load(hxf_string_new(plugin.data(), static_cast<uint32_t>(plugin.size())),
                             &CToolRuntime::OnLoaded, this);
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

void CToolRuntime::Close() {
  if (client_ != nullptr) hxf_core_client_destroy(client_);
  client_ = nullptr;
  if (!opened_) return;
  hxf_core_plugin_unload_all();
  hxf_core_finalize();
  opened_ = false;
}

void CToolRuntime::OnLoaded(hxf_string name, hxf_plugin_load_result_e result, void* self) {
  Event event = MakeEvent(Event::kLoaded, Copy(name), result);
  Self(self)->events_.Push(std::move(event));
}

void CToolRuntime::OnFound(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
                           hxf_endpoint_h endpoint, void* self) {
  Event event = MakeEvent(Event::kFound, Copy(service), result);
  if (endpoint != nullptr) event.devices.push_back(ReadDevice(endpoint));
  Self(self)->events_.Push(std::move(event));
}

void CToolRuntime::OnList(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
                          hxf_endpoint_list_h list, void* self) {
  Event event = MakeEvent(Event::kList, Copy(service), result);
  for (hxf_endpoint_h e = hxf_endpoint_list_get_first(list); e != nullptr;
       e = hxf_endpoint_list_get_next(list, e)) {
    event.devices.push_back(ReadDevice(e));
  }
  Self(self)->events_.Push(std::move(event));
}

void CToolRuntime::OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h list,
                            hxf_transaction_h transaction, hxf_error_e error, void* self) {
  Event event = MakeEvent(Event::kResult, "", error);
  event.transaction = transaction;
  ReadList(list, &event);
  Self(self)->events_.Push(std::move(event));
}

void CToolRuntime::OnNotification(hxf_string service, hxf_service_session_h,
                                  hxf_property_list_h list, hxf_transaction_h transaction,
                                  hxf_error_e error, void* self) {
  Event event = MakeEvent(Event::kNotification, Copy(service), error);
  event.transaction = transaction;
  ReadList(list, &event);
  Self(self)->events_.Push(std::move(event));
}

}  // namespace hxf_tool
