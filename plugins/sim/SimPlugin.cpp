#include "SimPlugin.h"

#include <chrono>
#include <cstdlib>
#include <cstring>

#include "hxf_host_platform.h"

namespace hxf_sim {

namespace {

constexpr const char* kTag = "HXF_SIM";
constexpr auto kDestroyWait = std::chrono::seconds(10);

using hxf_plugin_kit::ErrorList;
using hxf_plugin_kit::Push;
using hxf_plugin_kit::ReadProperty;
using hxf_plugin_kit::View;

Plugin* Self(void* user_data) {
  return static_cast<Plugin*>(user_data);
}

// A list named `name` holding the device id and every property of the device.
hxf_property_list_h DeviceState(const char* name, const Device& device) {
  hxf_property_list_h list = hxf_property_list_create(hxf_string_from_cstr(name));
  Push(list, "device_id", device.id);
  for (const Property& property : device.properties) Push(list, property.name, property.value);
  return list;
}

}  // namespace

void Plugin::Start() {
  worker_.Start();
  worker_.Post([this] { Setup(); });
}

void Plugin::Setup() {
  const char* config = std::getenv("HXF_SIM_CONFIG");
  if (config != nullptr && *config != '\0') {
    std::string error;
    std::optional<Model> loaded = LoadModel(config, &error);
    if (!loaded) {
      dlog_print(DLOG_ERROR, kTag, "sim: bad configuration %s\n", error.c_str());
      hxf_core_plugin_send_load_result(hxf_string_from_cstr(kName), HXF_PLUGIN_LOAD_RESULT_FAILED);
      return;
    }
    model_ = std::move(*loaded);
  } else {
    model_ = DefaultModel();
  }
  for (const std::string& name : model_.Services()) {
    hxf_service_handler_h handler = hxf_plugin_kit::CreateHandler(
        kName, "sim-" + name, name,
        {&Plugin::OnSearch, &Plugin::OnSearchStop, &Plugin::OnDeviceList, &Plugin::OnListen,
         &Plugin::OnListenStop, &Plugin::OnAddDevice, &Plugin::OnSessionCreated,
         &Plugin::OnRequest},
        this);
    if (handler == nullptr) {
      dlog_print(DLOG_ERROR, kTag, "sim: cannot create a handler for %s\n", name.c_str());
      hxf_core_plugin_send_load_result(hxf_string_from_cstr(kName), HXF_PLUGIN_LOAD_RESULT_FAILED);
      return;
    }
    services_[name].handler = handler;
  }
  StartDrifts();
  dlog_print(DLOG_INFO, kTag, "sim: %zu devices in %zu services\n", model_.devices.size(),
             services_.size());
  hxf_core_plugin_send_load_result(hxf_string_from_cstr(kName), HXF_PLUGIN_LOAD_RESULT_SUCCESS);
}

void Plugin::Stop() {
  worker_.Stop();  // from here on no plugin task runs, and callbacks post into the void
  hxf_plugin_kit::Handlers handlers;
  for (auto& [name, service] : services_) handlers.emplace_back(name, service.handler);
  if (!hxf_plugin_kit::DestroyHandlers(kName, handlers, kDestroyWait))
    dlog_print(DLOG_ERROR, kTag, "sim: handlers not destroyed in time\n");
}

// ---- discovery ----

void Plugin::Report(const std::string& service, const Device& device, const char* presence) {
  worker_.AssertOnWorker();
  hxf_plugin_kit::ReportFound(kName, services_[service].handler, service, device, presence);
}

void Plugin::Search(const std::string& service) {
  const uint64_t generation = ++services_[service].search_generation;
  uint32_t delay = 0;
  for (const Device& device : model_.devices) {
    if (device.service != service || device.arrive_after_ms != 0) continue;
    delay += model_.search_latency_ms;  // one by one, as a real network would answer
    const std::string id = device.id;
    worker_.Post(
        [this, service, id, generation] {
          if (services_[service].search_generation != generation) return;  // stopped meanwhile
          if (const Device* found = model_.Find(service, id)) Report(service, *found, nullptr);
        },
        delay);
  }
}

void Plugin::DeviceList(const std::string& service) {
  hxf_endpoint_list_h list = hxf_endpoint_list_create();
  for (const Device& device : model_.devices) {
    if (device.service != service || device.arrive_after_ms != 0) continue;
    hxf_endpoint_h endpoint = hxf_plugin_kit::MakeEndpoint(kName, service, device);
    hxf_endpoint_list_push_endpoint(list, endpoint, HXF_ERROR_NONE);
    hxf_endpoint_destroy(endpoint);
  }
  // An empty list cannot be reported: the consumer then sees its request time out.
  if (!hxf_endpoint_list_empty(list))
    hxf_core_service_handler_report_device_list(services_[service].handler, list);
  hxf_endpoint_list_destroy(list);
}

void Plugin::Listen(const std::string& service) {
  const uint64_t generation = ++services_[service].listen_generation;
  const auto still_listening = [this, service, generation] {
    return services_[service].listen_generation == generation;
  };
  uint32_t delay = 0;
  for (const Device& device : model_.devices) {
    if (device.service != service) continue;
    const std::string id = device.id;
    const bool arrives_later = device.arrive_after_ms != 0;
    const uint32_t arrive =
        arrives_later ? device.arrive_after_ms : (delay += model_.search_latency_ms);
    worker_.Post(
        [this, service, id, still_listening, arrives_later] {
          if (!still_listening()) return;
          if (const Device* found = model_.Find(service, id))
            Report(service, *found, arrives_later ? hxf_tool::kPresenceArrived : nullptr);
        },
        arrive);
    if (device.depart_after_ms != 0) {
      worker_.Post(
          [this, service, id, still_listening] {
            if (!still_listening()) return;
            if (const Device* found = model_.Find(service, id))
              Report(service, *found, hxf_tool::kPresenceLeft);
          },
          device.depart_after_ms);
    }
  }
}

void Plugin::AddDevice(Device device) {
  if (model_.Find(device.service, device.id) != nullptr) return;
  dlog_print(DLOG_INFO, kTag, "sim: device %s added to %s\n", device.id.c_str(),
             device.service.c_str());
  model_.devices.push_back(std::move(device));
}

// ---- requests ----

void Plugin::Answer(const std::string& service, hxf_transaction_h transaction,
                    hxf_property_list_h result, hxf_error_e error) {
  worker_.AssertOnWorker();
  hxf_core_service_handler_send_request_result(services_[service].handler, View(service), result,
                                               transaction, error);
  hxf_property_list_destroy(result);
}

void Plugin::Request(const std::string& service, hxf_transaction_h transaction,
                     const List& request) {
  const std::string device_id = hxf_plugin_kit::FindText(request.get(), "device_id");
  if (device_id.empty()) {
    // A device protocol never guesses: without a device, nothing is read or changed.
    std::string devices;
    for (const std::string& id : model_.Ids(service)) devices += (devices.empty() ? "" : ", ") + id;
    Answer(service, transaction,
           ErrorList(hxf_property_list_get_name(request.get()),
                     "device_id (device= in hxf) is required; devices: " + devices),
           HXF_ERROR_INVALID_PARAMETER);
    return;
  }
  Device* device = model_.Find(service, device_id);
  if (device == nullptr) {
    Answer(service, transaction,
           ErrorList(hxf_property_list_get_name(request.get()), "unknown device " + device_id),
           HXF_ERROR_INVALID_PARAMETER);
    return;
  }
  if (device->response == Response::kNever)
    return;  // an unresponsive device: the request times out
  auto respond = [this, service, transaction, request, id = device->id] {
    Respond(service, transaction, request.get(), id);
  };
  if (device->response == Response::kSlow) {
    worker_.Post(respond, device->response_ms);
  } else {
    respond();
  }
}

void Plugin::Respond(const std::string& service, hxf_transaction_h transaction,
                     hxf_property_list_h request, const std::string& id) {
  const std::string operation = hxf_property_list_get_name(request);
  Device* device = model_.Find(service, id);
  if (device == nullptr) {
    Answer(service, transaction, ErrorList(operation, "device " + id + " is gone"),
           HXF_ERROR_OPERATION_FAILED);
  } else if (operation == "get") {
    Answer(service, transaction, DeviceState("get", *device), HXF_ERROR_NONE);
  } else if (operation == "set") {
    Set(service, transaction, request, device);
  } else {
    Answer(service, transaction,
           ErrorList(operation, "unknown operation " + operation + " (get or set)"),
           HXF_ERROR_INVALID_PARAMETER);
  }
}

namespace {

using Changes = std::vector<std::pair<Property*, Value>>;

// The changes a "set" asks of `device`, each validated; empty text when all may be applied,
// else the first problem (then nothing is to change).
std::string CollectChanges(Device* device, hxf_property_list_h request, Changes* changes) {
  for (hxf_property_h p = hxf_property_list_get_first(request); p != nullptr;
       p = hxf_property_list_get_next(request, p)) {
    const std::string name = hxf_property_get_name(p);
    if (name == "device_id") continue;
    Property* property = nullptr;
    for (Property& candidate : device->properties) {
      if (candidate.name == name) property = &candidate;
    }
    Value value;
    if (property == nullptr) return "unknown property " + name;
    if (property->read_only) return name + " is read-only";
    if (!ReadProperty(p, &value)) return "unreadable value for " + name;
    const std::string problem = Validate(*property, value);
    if (!problem.empty()) return problem;
    if (std::holds_alternative<double>(property->value) && std::holds_alternative<int64_t>(value))
      value = static_cast<double>(std::get<int64_t>(value));
    changes->emplace_back(property, std::move(value));
  }
  return "";
}

}  // namespace

void Plugin::Set(const std::string& service, hxf_transaction_h transaction,
                 hxf_property_list_h request, Device* device) {
  Changes changes;
  const std::string problem = CollectChanges(device, request, &changes);
  if (!problem.empty()) {
    Answer(service, transaction, ErrorList("set", problem), HXF_ERROR_INVALID_PARAMETER);
    return;
  }
  for (auto& [property, value] : changes) property->value = std::move(value);
  Answer(service, transaction, DeviceState("set", *device), HXF_ERROR_NONE);
  NotifyState(service, *device);
}

void Plugin::NotifyState(const std::string& service, const Device& device) {
  // Everyone subscribed hears the new state; no transaction: no request is answered by it.
  hxf_property_list_h state = DeviceState("state", device);
  hxf_core_service_handler_notify(services_[service].handler, View(service), state, nullptr,
                                  HXF_ERROR_NONE);
  hxf_property_list_destroy(state);
}

// ---- devices living on their own ----

void Plugin::StartDrifts() {
  for (const Device& device : model_.devices) {
    for (const Property& property : device.properties) {
      if (property.drift)
        ScheduleDrift(device.service, device.id, property.name, property.drift->every_ms);
    }
  }
}

void Plugin::ScheduleDrift(const std::string& service, const std::string& id,
                           const std::string& name, uint32_t every_ms) {
  worker_.Post(
      [this, service, id, name, every_ms] {
        Device* device = model_.Find(service, id);
        if (device == nullptr) return;
        for (Property& property : device->properties) {
          if (property.name != name) continue;
          DriftStep(&property, random_() % 2 == 0);
          NotifyState(service, *device);
        }
        ScheduleDrift(service, id, name, every_ms);
      },
      every_ms);
}

// ---- callbacks (core threads): copy, post, return ----

void Plugin::OnSearch(hxf_service_handler_h, hxf_string name, void* self) {
  Self(self)->worker_.Post([plugin = Self(self), service = hxf_plugin_kit::CopyService(name)] {
    plugin->Search(service);
  });
}

void Plugin::OnSearchStop(hxf_service_handler_h, hxf_string name, void* self) {
  Self(self)->worker_.Post([plugin = Self(self), service = hxf_plugin_kit::CopyService(name)] {
    ++plugin->services_[service].search_generation;
  });
}

void Plugin::OnDeviceList(hxf_service_handler_h, hxf_string name, void* self) {
  Plugin* plugin = Self(self);
  plugin->worker_.Post(
      [plugin, service = hxf_plugin_kit::CopyService(name)] { plugin->DeviceList(service); }, 50);
}

void Plugin::OnListen(hxf_service_handler_h, hxf_string name, void* self) {
  Self(self)->worker_.Post([plugin = Self(self), service = hxf_plugin_kit::CopyService(name)] {
    plugin->Listen(service);
  });
}

void Plugin::OnListenStop(hxf_service_handler_h, hxf_string name, void* self) {
  Self(self)->worker_.Post([plugin = Self(self), service = hxf_plugin_kit::CopyService(name)] {
    ++plugin->services_[service].listen_generation;
  });
}

void Plugin::OnAddDevice(hxf_service_handler_h, hxf_endpoint_h endpoint, void* self) {
  Device device;
  device.service = hxf_endpoint_get_service_name(endpoint);
  device.id = hxf_endpoint_get_device_id(endpoint);
  device.name = hxf_endpoint_get_device_name(endpoint);
  device.interface_name = hxf_endpoint_get_interface_name(endpoint);
  device.interface_type = hxf_endpoint_get_interface_type(endpoint);
  device.address = hxf_endpoint_get_address(endpoint);
  device.ui_meta = hxf_endpoint_get_ui_meta(endpoint);
  Self(self)->worker_.Post([plugin = Self(self), device] { plugin->AddDevice(device); });
}

void Plugin::OnRequest(hxf_service_handler_h handler, hxf_transaction_h transaction,
                       hxf_property_list_h properties, void* self) {
  Plugin* plugin = Self(self);
  // The list is borrowed for this call only: keep a copy for a slow device's answer.
  List request(hxf_property_list_copy(properties), &hxf_property_list_destroy);
  // Answered on this thread (a hand-off to the worker cost more than the answer); which
  // service: the one this handler serves (handlers are per service).
  plugin->worker_.RunNow([plugin, handler, transaction, request] {
    for (auto& [name, service] : plugin->services_) {
      if (service.handler == handler) {
        plugin->Request(name, transaction, request);
        return;
      }
    }
  });
}

}  // namespace hxf_sim
