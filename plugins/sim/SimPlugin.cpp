#include "SimPlugin.h"

#include <chrono>
#include <cstdlib>

#include "SimSpeaker.h"
#include "hxf_host_platform.h"

namespace hxf_sim {

namespace {

constexpr const char* kTag = "HXF_SIM";
constexpr auto kDestroyWait = std::chrono::seconds(10);
constexpr uint32_t kDeviceListMs = 50;  // how long the home takes to list its devices

using hxf_plugin_kit::Push;
using hxf_plugin_kit::ReadProperty;

// A list named `name` holding the device id and every property of the device.
hxf_property_list_h DeviceState(const char* name, const Device& device) {
  hxf_property_list_h list = hxf_property_list_create(hxf_string_from_cstr(name));
  Push(list, "device_id", device.id);
  for (const Property& property : device.properties) Push(list, property.name, property.value);
  return list;
}

}  // namespace

Plugin::Plugin() : Provider(kName, kTag) {}

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
      SendLoadResult(false);
      return;
    }
    model_ = std::move(*loaded);
  } else {
    model_ = DefaultModel();
  }
  for (const std::string& name : model_.Services()) {
    if (AddService(name) == nullptr) {
      SendLoadResult(false);
      return;
    }
  }
  StartDrifts();
  const auto now = Speaker::Clock::now();
  for (Device& device : model_.devices) {
    if (device.speaker) device.speaker->told = Notified(StateOf(*device.speaker, now));
  }
  dlog_print(DLOG_INFO, kTag, "sim: %zu devices in %zu services\n", model_.devices.size(),
             ServiceCount());
  SendLoadResult(true);
}

void Plugin::Stop() {
  worker_.Stop();  // from here on no plugin task runs, and callbacks post into the void
  DestroyServices(kDestroyWait);
}

// ---- discovery ----

void Plugin::Report(Service& service, const Device& device, const char* presence) {
  worker_.AssertOnWorker();
  ReportDevice(service, device, presence);
}

void Plugin::OnSearch(Service& service) {
  const uint64_t generation = ++service.record.search_generation;
  uint32_t delay = 0;
  for (const Device& device : model_.devices) {
    if (device.service != service.name || device.arrive_after_ms != 0) continue;
    delay += model_.search_latency_ms;  // one by one, as a real network would answer
    const std::string id = device.id;
    worker_.Post(
        [this, &service, id, generation] {
          if (service.record.search_generation != generation) return;  // stopped meanwhile
          if (const Device* found = model_.Find(service.name, id)) Report(service, *found, nullptr);
        },
        delay);
  }
}

void Plugin::OnDeviceList(Service& service) {
  worker_.Post(
      [this, &service] {
        std::vector<const hxf_plugin_kit::EndpointInfo*> devices;
        for (const Device& device : model_.devices) {
          if (device.service == service.name && device.arrive_after_ms == 0)
            devices.push_back(&device);
        }
        ReportDeviceList(service, devices);
      },
      kDeviceListMs);
}

void Plugin::OnListen(Service& service) {
  const uint64_t generation = ++service.record.listen_generation;
  const auto still_listening = [&service, generation] {
    return service.record.listen_generation == generation;
  };
  uint32_t delay = 0;
  for (const Device& device : model_.devices) {
    if (device.service != service.name) continue;
    const std::string id = device.id;
    const bool arrives_later = device.arrive_after_ms != 0;
    const uint32_t arrive =
        arrives_later ? device.arrive_after_ms : (delay += model_.search_latency_ms);
    worker_.Post(
        [this, &service, id, still_listening, arrives_later] {
          if (!still_listening()) return;
          if (const Device* found = model_.Find(service.name, id))
            Report(service, *found, arrives_later ? hxf_tool::kPresenceArrived : nullptr);
        },
        arrive);
    if (device.depart_after_ms != 0) {
      worker_.Post(
          [this, &service, id, still_listening] {
            if (!still_listening()) return;
            if (const Device* found = model_.Find(service.name, id))
              Report(service, *found, hxf_tool::kPresenceLeft);
          },
          device.depart_after_ms);
    }
  }
}

void Plugin::OnAddDevice(Service& service, hxf_plugin_kit::EndpointInfo endpoint) {
  if (model_.Find(service.name, endpoint.id) != nullptr) return;
  Device device;
  static_cast<hxf_plugin_kit::EndpointInfo&>(device) = std::move(endpoint);
  device.service = service.name;
  if (device.service == kAudioService) {
    device.speaker.emplace();
    device.speaker->told = Notified(StateOf(*device.speaker, Speaker::Clock::now()));
  }
  dlog_print(DLOG_INFO, kTag, "sim: device %s added to %s\n", device.id.c_str(),
             device.service.c_str());
  model_.devices.push_back(std::move(device));
}

// ---- requests ----

void Plugin::OnRequest(Service& service, hxf_transaction_h transaction, const List& request) {
  const std::string operation = hxf_property_list_get_name(request.get());
  const std::string device_id = hxf_plugin_kit::FindText(request.get(), "device_id");
  if (device_id.empty()) {
    // A device protocol never guesses: without a device, nothing is read or changed.
    std::string devices;
    for (const std::string& id : model_.Ids(service.name))
      devices += (devices.empty() ? "" : ", ") + id;
    Refuse(service, transaction, operation,
           "device_id (device= in hxf) is required; devices: " + devices,
           HXF_ERROR_INVALID_PARAMETER);
    return;
  }
  Device* device = model_.Find(service.name, device_id);
  if (device == nullptr) {
    Refuse(service, transaction, operation, "unknown device " + device_id,
           HXF_ERROR_INVALID_PARAMETER);
    return;
  }
  if (device->speaker) {
    // The audio words are checked here, as a renderer's plugin checks them before anything is
    // sent: a bad request is refused at once, also by a slow or silent speaker.
    hxf_tool::audio::Request asked;
    const std::string problem = hxf_tool::audio::CheckRequest(operation, request.get(), &asked);
    if (!problem.empty()) {
      Refuse(service, transaction, operation, problem, HXF_ERROR_INVALID_PARAMETER);
      return;
    }
  }
  if (device->response == Response::kNever)
    return;  // an unresponsive device: the request times out
  auto respond = [this, &service, transaction, request, id = device->id] {
    Respond(service, transaction, request.get(), id);
  };
  if (device->response == Response::kSlow) {
    worker_.Post(respond, device->response_ms);
  } else {
    respond();
  }
}

void Plugin::Respond(Service& service, hxf_transaction_h transaction, hxf_property_list_h request,
                     const std::string& id) {
  const std::string operation = hxf_property_list_get_name(request);
  Device* device = model_.Find(service.name, id);
  if (device == nullptr) {
    Refuse(service, transaction, operation, "device " + id + " is gone",
           HXF_ERROR_OPERATION_FAILED);
  } else if (device->speaker) {
    Audio(service, transaction, request, device);
  } else if (operation == "get") {
    SendResult(service, transaction, DeviceState("get", *device), HXF_ERROR_NONE);
  } else if (operation == "set") {
    Set(service, transaction, request, device);
  } else {
    RefuseOperation(service, transaction, operation, "get or set");
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

void Plugin::Set(Service& service, hxf_transaction_h transaction, hxf_property_list_h request,
                 Device* device) {
  Changes changes;
  const std::string problem = CollectChanges(device, request, &changes);
  if (!problem.empty()) {
    Refuse(service, transaction, "set", problem, HXF_ERROR_INVALID_PARAMETER);
    return;
  }
  for (auto& [property, value] : changes) property->value = std::move(value);
  SendResult(service, transaction, DeviceState("set", *device), HXF_ERROR_NONE);
  NotifyState(*device);
}

void Plugin::NotifyState(const Device& device) {
  // Everyone subscribed hears the new state.
  if (const Service* service = FindService(device.service))
    SendNotification(*service, DeviceState("state", device));
}

// ---- speakers ----

void Plugin::Audio(Service& service, hxf_transaction_h transaction, hxf_property_list_h request,
                   Device* device) {
  const std::string operation = hxf_property_list_get_name(request);
  hxf_tool::audio::Request asked;
  hxf_tool::audio::CheckRequest(operation, request, &asked);  // passed when it came
  Speaker& speaker = *device->speaker;
  const auto now = Speaker::Clock::now();
  const uint64_t moved = speaker.generation;
  const std::string problem = Operate(&speaker, operation, asked, now);
  if (!problem.empty()) {
    Refuse(service, transaction, operation, problem, HXF_ERROR_OPERATION_FAILED);
    return;
  }
  SendResult(service, transaction,
             hxf_tool::audio::StateList(operation, device->id, StateOf(speaker, now)),
             HXF_ERROR_NONE);
  if (speaker.generation != moved) ScheduleEndOfMedia(*device);
  NotifySpeaker(*device);
}

void Plugin::NotifySpeaker(Device& device) {
  Speaker& speaker = *device.speaker;
  SpeakerState told = Notified(StateOf(speaker, Speaker::Clock::now()));
  if (speaker.told == told) return;  // nothing new
  speaker.told = told;
  if (const Service* service = FindService(device.service))
    SendNotification(*service, hxf_tool::audio::StateList(hxf_tool::audio::kState, device.id, told));
}

void Plugin::ScheduleEndOfMedia(const Device& device) {
  const Speaker& speaker = *device.speaker;
  if (speaker.transport != Speaker::Transport::kPlaying) return;
  worker_.Post(
      [this, service = device.service, id = device.id, generation = speaker.generation] {
        Device* playing = model_.Find(service, id);
        if (playing == nullptr || !playing->speaker || playing->speaker->generation != generation)
          return;  // moved meanwhile: that move scheduled its own end
        EndOfMedia(&*playing->speaker);
        NotifySpeaker(*playing);
      },
      MillisToEnd(speaker, Speaker::Clock::now()));
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
          NotifyState(*device);
        }
        ScheduleDrift(service, id, name, every_ms);
      },
      every_ms);
}

}  // namespace hxf_sim
