#include "BusValues.h"

#include <array>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <utility>

#include "DeviceFields.h"

namespace hxf_tool {

namespace {

// "org.hxf.Error.TimedOut" for HXF_ERROR_TIMED_OUT: the part after HXF_ERROR_, CamelCased.
std::string BusErrorName(const char* code_name) {
  std::string name = "org.hxf.Error.";
  bool word_start = true;
  for (const char* c = code_name + std::strlen("HXF_ERROR_"); *c != '\0'; ++c) {
    if (*c == '_') {
      word_start = true;
      continue;
    }
    name += word_start ? *c : static_cast<char>(std::tolower(static_cast<unsigned char>(*c)));
    word_start = false;
  }
  return name;
}

// The broker's error names by code, made once from the common library's names; empty for
// HXF_ERROR_NONE (no error) and for numbers that are no code.
const std::array<std::string, kCodeRange>& BusErrorNames() {
  static const std::array<std::string, kCodeRange> names = [] {
    std::array<std::string, kCodeRange> made;
    for (int code = 0; code < kCodeRange; ++code) {
      const char* name = CodeName(code);
      if (name != nullptr && code != HXF_ERROR_NONE) made[code] = BusErrorName(name);
    }
    return made;
  }();
  return names;
}

// Reads one basic value of D-Bus type `type` (the variant's contents) as JSON. Every integer
// becomes a signed 64-bit one, as the core carries it; an unsigned one above that range is
// refused with -ERANGE (never wrapped), the value left in `*above`.
int ReadValue(sd_bus_message* m, char type, nlohmann::json* value, uint64_t* above) {
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
      if (raw.t > static_cast<uint64_t>(INT64_MAX)) {
        *above = raw.t;
        return -ERANGE;
      }
      *value = static_cast<int64_t>(raw.t);
      break;
    case 'i':
      *value = static_cast<int64_t>(raw.i);
      break;
    case 'u':
      *value = static_cast<int64_t>(raw.u);
      break;
    case 'n':
      *value = static_cast<int64_t>(raw.n);
      break;
    case 'q':
      *value = static_cast<int64_t>(raw.q);
      break;
    case 'y':
      *value = static_cast<int64_t>(raw.y);
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

// A text D-Bus carries as it is: sd-bus refuses invalid UTF-8 itself, but would cut a text
// at its first NUL without a word.
bool Carried(const std::string& text) { return text.find('\0') == std::string::npos; }

// The signature of the complete type peeked as `type` and `contents`.
std::string TypeText(char type, const char* contents) {
  const std::string inner = contents != nullptr ? contents : "";
  switch (type) {
    case 'a':
      return "a" + inner;
    case 'r':
      return "(" + inner + ")";
    case 'e':
      return "{" + inner + "}";
    default:
      return std::string(1, type);
  }
}

// Reads the entries of an a{sv} the reader has entered; the caller words sd-bus's own errors.
int ReadEntries(sd_bus_message* m, std::vector<PropertyValue>* properties, std::string* problem) {
  int r = 0;
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
    uint64_t above = 0;
    if ((r = sd_bus_message_enter_container(m, 'v', type)) < 0) return r;
    if ((r = ReadValue(m, type[0], &property.value, &above)) == -ERANGE) {
      *problem = std::string("property ") + name + " is " + std::to_string(above) +
                 ": an integer property is at most " + std::to_string(INT64_MAX);
      return -EINVAL;
    }
    if (r < 0) return r;
    properties->push_back(std::move(property));
    if ((r = sd_bus_message_exit_container(m)) < 0) return r;  // v
    if ((r = sd_bus_message_exit_container(m)) < 0) return r;  // e
  }
  return r;
}

}  // namespace

const char* ErrorName(int code) {
  const auto& names = BusErrorNames();
  if (code >= 0 && code < kCodeRange && !names[code].empty()) return names[code].c_str();
  return names[HXF_ERROR_OPERATION_FAILED].c_str();
}

int ErrorCode(const char* name) {
  const auto& names = BusErrorNames();
  for (int code = 0; name != nullptr && code < kCodeRange; ++code) {
    if (!names[code].empty() && names[code] == name) return code;
  }
  return HXF_ERROR_OPERATION_FAILED;
}

int AppendDevice(sd_bus_message* m, const Device& device) {
  int r = sd_bus_message_open_container(m, 'a', "{sv}");
  for (const DeviceField& field : kDeviceFields) {
    const std::string& value = device.*field.member;
    if (r >= 0)
      r = Carried(value) ? sd_bus_message_append(m, "{sv}", field.key, "s", value.c_str()) : -EINVAL;
  }
  return r < 0 ? r : sd_bus_message_close_container(m);
}

int ReadDevice(sd_bus_message* m, Device* device) {
  std::vector<PropertyValue> fields;
  std::string problem;
  const int r = ReadProperties(m, &fields, &problem);
  if (r < 0) return r;
  for (const PropertyValue& field : fields) {
    for (const DeviceField& known : kDeviceFields) {
      if (field.name == known.key && field.value.is_string())
        device->*known.member = field.value.get<std::string>();
    }
  }
  return r;
}

int AppendProperties(sd_bus_message* m, const std::vector<PropertyValue>& properties) {
  int r = sd_bus_message_open_container(m, 'a', "{sv}");
  for (const PropertyValue& p : properties) {
    if (r < 0) break;
    const char* name = p.name.c_str();
    if (!Carried(p.name)) {
      r = -EINVAL;
    } else if (p.value.is_boolean()) {
      r = sd_bus_message_append(m, "{sv}", name, "b", static_cast<int>(p.value.get<bool>()));
    } else if (p.value.is_number_unsigned() && p.value.get<uint64_t>() > static_cast<uint64_t>(INT64_MAX)) {
      r = sd_bus_message_append(m, "{sv}", name, "t", p.value.get<uint64_t>());
    } else if (p.value.is_number_integer()) {
      r = sd_bus_message_append(m, "{sv}", name, "x", p.value.get<int64_t>());
    } else if (p.value.is_number()) {
      r = sd_bus_message_append(m, "{sv}", name, "d", p.value.get<double>());
    } else if (p.value.is_string() && Carried(p.value.get_ref<const std::string&>())) {
      r = sd_bus_message_append(m, "{sv}", name, "s", p.value.get_ref<const std::string&>().c_str());
    } else {
      r = -EINVAL;
    }
  }
  return r < 0 ? r : sd_bus_message_close_container(m);
}

int ReadProperties(sd_bus_message* m, std::vector<PropertyValue>* properties,
                   std::string* problem) {
  char type = 0;
  const char* contents = nullptr;
  int r = sd_bus_message_peek_type(m, &type, &contents);
  if (r == 0) {
    *problem = "the message ends where its properties (a{sv}) should be";
    return -EINVAL;
  }
  if (r > 0 && (type != 'a' || contents == nullptr || std::strcmp(contents, "{sv}") != 0)) {
    *problem = "the properties have type " + TypeText(type, contents) + ", not a{sv}";
    return -EINVAL;
  }
  if (r >= 0) r = sd_bus_message_enter_container(m, 'a', "{sv}");
  if (r >= 0) r = ReadEntries(m, properties, problem);
  if (r >= 0) r = sd_bus_message_exit_container(m);
  if (r < 0 && problem->empty()) problem->assign("unreadable properties: ").append(std::strerror(-r));
  return r;
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

namespace {

std::string Variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

// What sd-bus's error `r` means at a bus's address, with what to check.
std::string AddressProblem(int r) {
  switch (-r) {
    case ENOENT:
      return "the socket does not exist (is a dbus-daemon running there?)";
    case ECONNREFUSED:
      return "the connection was refused (is a dbus-daemon running there?)";
    case EACCES:
    case EPERM:
      return "permission denied (this user may not open the bus's socket, or the bus does not "
             "let this user in)";
    case EINVAL:
      return "not a D-Bus address (unix:path=FILE, unix:abstract=NAME or tcp:host=HOST,port=PORT)";
    case ECONNRESET:
    case ECONNABORTED:
    case EPIPE:
      return "the bus closed the connection before it was set up (is it a dbus-daemon?)";
    case ETIMEDOUT:
      return "the bus did not answer";
    default:
      return std::strerror(-r);
  }
}

}  // namespace

std::string ConnectFailure(const std::string& where, int r) {
  if (where == "session") {
    // sd-bus's own order: the variable, else the socket in XDG_RUNTIME_DIR, else nothing
    // (ENOMEDIUM, "No medium found").
    const std::string address = Variable("DBUS_SESSION_BUS_ADDRESS");
    if (!address.empty())
      return "no session bus at " + address + " (DBUS_SESSION_BUS_ADDRESS): " + AddressProblem(r);
    const std::string runtime = Variable("XDG_RUNTIME_DIR");
    if (runtime.empty() || r == -ENOMEDIUM)
      return "no session bus: DBUS_SESSION_BUS_ADDRESS is not set (run inside a desktop session, "
             "start one with dbus-run-session, or name a bus by its address)";
    return "no session bus: DBUS_SESSION_BUS_ADDRESS is not set, and at unix:path=" + runtime +
           "/bus " + AddressProblem(r);
  }
  if (where == "system") {
    std::string address = Variable("DBUS_SYSTEM_BUS_ADDRESS");
    if (address.empty()) address = "unix:path=/run/dbus/system_bus_socket";
    return "no system bus at " + address + ": " + AddressProblem(r);
  }
  return "no bus at " + where + ": " + AddressProblem(r);
}

}  // namespace hxf_tool
