#include "BusValues.h"

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <utility>

namespace hxf_tool {

namespace {

constexpr std::pair<int, const char*> kErrorNames[] = {
    {HXF_ERROR_TIMED_OUT, "org.hxf.Error.TimedOut"},
    {HXF_ERROR_CREATE_FAILED, "org.hxf.Error.CreateFailed"},
    {HXF_ERROR_INVALID_PARAMETER, "org.hxf.Error.InvalidParameter"},
    {HXF_ERROR_OUT_OF_MEMORY, "org.hxf.Error.OutOfMemory"},
    {HXF_ERROR_NOT_FOUND, "org.hxf.Error.NotFound"},
    {HXF_ERROR_TYPE_MISMATCH, "org.hxf.Error.TypeMismatch"},
    {HXF_ERROR_INVALID_HANDLE, "org.hxf.Error.InvalidHandle"},
    {HXF_ERROR_INVALID_CLIENT, "org.hxf.Error.InvalidClient"},
    {HXF_ERROR_INVALID_TRANSACTION, "org.hxf.Error.InvalidTransaction"},
    {HXF_ERROR_INVALID_SERVICE_NAME, "org.hxf.Error.InvalidServiceName"},
    {HXF_ERROR_OPERATION_FAILED, "org.hxf.Error.OperationFailed"},
};

// Reads one basic value of D-Bus type `type` (the variant's contents) as JSON; false for a
// type a property cannot have.
int ReadValue(sd_bus_message* m, char type, nlohmann::json* value) {
  union {
    int b;
    int64_t x;
    uint64_t t;
    int32_t i;
    uint32_t u;
    int16_t n;
    uint16_t q;
    uint8_t y;
    double d;
    const char* s;
  } raw{};
  const int r = sd_bus_message_read_basic(m, type, &raw);
  if (r < 0) return r;
  switch (type) {
    case 'b':
      *value = raw.b != 0;
      break;
    case 'x':
      *value = raw.x;
      break;
    case 't':
      *value = static_cast<int64_t>(raw.t);
      break;  // the core's integers are signed
    case 'i':
      *value = raw.i;
      break;
    case 'u':
      *value = raw.u;
      break;
    case 'n':
      *value = raw.n;
      break;
    case 'q':
      *value = raw.q;
      break;
    case 'y':
      *value = raw.y;
      break;
    case 'd':
      *value = raw.d;
      break;
    default:
      *value = std::string(raw.s);
      break;
  }
  return r;
}

}  // namespace

const char* ErrorName(int code) {
  for (const auto& [known, name] : kErrorNames) {
    if (known == code) return name;
  }
  return "org.hxf.Error.OperationFailed";
}

int ErrorCode(const char* name) {
  for (const auto& [code, known] : kErrorNames) {
    if (name != nullptr && std::strcmp(known, name) == 0) return code;
  }
  return HXF_ERROR_OPERATION_FAILED;
}

int AppendDevice(sd_bus_message* m, const Device& device) {
  int r = sd_bus_message_open_container(m, 'a', "{sv}");
  const std::pair<const char*, const std::string*> fields[] = {
      {"device_id", &device.id},
      {"device_name", &device.name},
      {"address", &device.address},
      {"interface_name", &device.interface_name},
      {"interface_type", &device.interface_type},
      {"ui_meta", &device.ui_meta},
      {"service", &device.service}};
  for (const auto& [key, value] : fields) {
    if (r >= 0) r = sd_bus_message_append(m, "{sv}", key, "s", value->c_str());
  }
  return r < 0 ? r : sd_bus_message_close_container(m);
}

int ReadDevice(sd_bus_message* m, Device* device) {
  std::vector<PropertyValue> fields;
  std::string problem;
  const int r = ReadProperties(m, &fields, &problem);
  if (r < 0) return r;
  const std::pair<const char*, std::string*> known[] = {{"device_id", &device->id},
                                                        {"device_name", &device->name},
                                                        {"address", &device->address},
                                                        {"interface_name", &device->interface_name},
                                                        {"interface_type", &device->interface_type},
                                                        {"ui_meta", &device->ui_meta},
                                                        {"service", &device->service}};
  for (const PropertyValue& field : fields) {
    for (const auto& [key, value] : known) {
      if (field.name == key && field.value.is_string()) *value = field.value.get<std::string>();
    }
  }
  return r;
}

int AppendProperties(sd_bus_message* m, const std::vector<PropertyValue>& properties) {
  int r = sd_bus_message_open_container(m, 'a', "{sv}");
  for (const PropertyValue& p : properties) {
    if (r < 0) break;
    const char* name = p.name.c_str();
    if (p.value.is_boolean()) {
      r = sd_bus_message_append(m, "{sv}", name, "b", static_cast<int>(p.value.get<bool>()));
    } else if (p.value.is_number_integer()) {
      r = sd_bus_message_append(m, "{sv}", name, "x", p.value.get<int64_t>());
    } else if (p.value.is_number()) {
      r = sd_bus_message_append(m, "{sv}", name, "d", p.value.get<double>());
    } else {
      r = sd_bus_message_append(m, "{sv}", name, "s", p.value.get<std::string>().c_str());
    }
  }
  return r < 0 ? r : sd_bus_message_close_container(m);
}

int ReadProperties(sd_bus_message* m, std::vector<PropertyValue>* properties,
                   std::string* problem) {
  int r = sd_bus_message_enter_container(m, 'a', "{sv}");
  if (r < 0) return r;
  while ((r = sd_bus_message_enter_container(m, 'e', "sv")) > 0) {
    const char* name = nullptr;
    const char* type = nullptr;
    if ((r = sd_bus_message_read(m, "s", &name)) < 0) return r;
    if ((r = sd_bus_message_peek_type(m, nullptr, &type)) < 0) return r;
    if (type == nullptr || std::strlen(type) != 1 ||
        std::strchr("bxtiunqyds", type[0]) == nullptr) {
      *problem = std::string("property ") + name + " has type " + (type != nullptr ? type : "?") +
                 ": a property is a boolean, an integer, a double or a string";
      return -EINVAL;
    }
    PropertyValue property{name, nullptr};
    if ((r = sd_bus_message_enter_container(m, 'v', type)) < 0) return r;
    if ((r = ReadValue(m, type[0], &property.value)) < 0) return r;
    properties->push_back(std::move(property));
    if ((r = sd_bus_message_exit_container(m)) < 0) return r;  // v
    if ((r = sd_bus_message_exit_container(m)) < 0) return r;  // e
  }
  if (r < 0) return r;
  return sd_bus_message_exit_container(m);
}

int ConnectBus(const std::string& where, sd_bus** bus) {
  if (where == "session") return sd_bus_open_user(bus);
  if (where == "system") return sd_bus_open_system(bus);
  int r = sd_bus_new(bus);
  if (r >= 0) r = sd_bus_set_address(*bus, where.c_str());
  if (r >= 0) r = sd_bus_set_bus_client(*bus, 1);
  if (r >= 0) r = sd_bus_start(*bus);
  if (r < 0) *bus = sd_bus_unref(*bus);
  return r;
}

}  // namespace hxf_tool
