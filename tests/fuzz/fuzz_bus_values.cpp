// Fuzzes the D-Bus values hxfd and hxf --bus exchange (tools/common/BusValues), on messages
// built without a bus daemon:
// - property lists and devices of any values are written, sealed and read back: what the
//   writer takes comes back exactly (a double to the bit), what it refuses is a text D-Bus
//   cannot carry or a value of no property type;
// - messages of any D-Bus types, where the properties or inside their variants, are read:
//   the reader gives exactly what was written or refuses with the problem worded, and the
//   device reader agrees with it.
#include <cerrno>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BusValues.h"
#include "FuzzInput.h"
#include "MessageBus.h"

using hxf_fuzz::FuzzInput;
using hxf_tool::Device;
using hxf_tool::PropertyValue;

namespace {

using Message = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;

#define CHECK(condition, ...)                                                 \
  do {                                                                        \
    if (!(condition)) {                                                       \
      std::fprintf(stderr, "%s:%d: %s: ", __FILE__, __LINE__, #condition);    \
      std::fprintf(stderr, __VA_ARGS__);                                      \
      std::fputc('\n', stderr);                                               \
      std::abort();                                                           \
    }                                                                         \
  } while (0)

const hxf_test::MessageBus& Bus() {
  static const hxf_test::MessageBus bus;
  return bus;
}

Message New() {
  Message m(Bus().NewMessage(), &sd_bus_message_unref);
  CHECK(m != nullptr, "no message");
  return m;
}

uint64_t Bits(FuzzInput& in, int bytes) {
  uint64_t value = 0;
  for (int i = 0; i < bytes; ++i) value = value << 8 | in.Byte();
  return value;
}

// A text of any bytes: mostly characters of every UTF-8 length, now and then what UTF-8 is
// not (a lone continuation byte, a surrogate, an overlong form, a non-character) or a NUL.
std::string AnyText(FuzzInput& in) {
  static const char* const kPieces[] = {"a", "Z", " ", "=", "\xc3\xa9", "\xe2\x82\xac", "\xf0\x9f\x92\xa1",
                                        "\xef\xbf\xbd", "\x80", "\xed\xa0\x80", "\xc0\xaf", "\xef\xbf\xbe",
                                        "\xf4\x90\x80\x80"};
  const size_t length = in.Byte() % 12;
  std::string text;
  for (size_t i = 0; i < length; ++i) {
    const uint8_t pick = in.Byte();
    if (pick < 200) {
      text += static_cast<char>('a' + pick % 26);
    } else if (pick < 250) {
      text += kPieces[pick % 8];  // valid UTF-8
    } else if (pick == 250) {
      text += '\0';
    } else if (pick == 251) {
      text += static_cast<char>(in.Byte());
    } else {
      text += kPieces[8 + pick % 5];
    }
  }
  return text;
}

// A text D-Bus takes as it is: valid UTF-8 (sd-bus's own judgement) without a NUL.
bool Sendable(const std::string& text) {
  if (text.find('\0') != std::string::npos) return false;
  Message scratch = New();
  return sd_bus_message_append(scratch.get(), "s", text.c_str()) >= 0;
}

// Both values the same, a double to the bit (NaN, -0.0), an integer as int64.
bool Same(const nlohmann::json& sent, const nlohmann::json& read) {
  if (sent.is_boolean()) return read.is_boolean() && sent.get<bool>() == read.get<bool>();
  if (sent.is_number_integer()) {
    return read.is_number_integer() && !read.is_number_unsigned() &&
           sent.get<int64_t>() == read.get<int64_t>();
  }
  if (sent.is_number_float()) {
    const double a = sent.get<double>();
    const double b = read.is_number_float() ? read.get<double>() : 0.0;
    return read.is_number_float() && std::memcmp(&a, &b, sizeof a) == 0;
  }
  return sent.is_string() && read.is_string() && sent.get<std::string>() == read.get<std::string>();
}

std::string AboveInt64(const std::string& name, uint64_t value) {
  return "property " + name + " is " + std::to_string(value) + ": an integer property is at most 9223372036854775807";
}

nlohmann::json AnyValue(FuzzInput& in) {
  static const int64_t kEdges[] = {0, 1, -1, INT64_MIN, INT64_MAX, INT32_MIN, UINT32_MAX};
  switch (in.Byte() % 12) {
    case 0: return in.Byte() % 2 == 0;
    case 1: return static_cast<int64_t>(Bits(in, 8));
    case 2: return kEdges[in.Byte() % 7];
    case 3: return Bits(in, 8);  // unsigned: above INT64_MAX half the time
    case 4: return uint64_t{INT64_MAX} + in.Byte() % 2;
    case 5: {
      const uint64_t bits = Bits(in, 8);
      double value;
      std::memcpy(&value, &bits, sizeof value);
      return value;  // any double, NaN and infinities too
    }
    case 6: return static_cast<double>(static_cast<int16_t>(Bits(in, 2))) / 8;
    case 7: return nullptr;  // no property type
    case 8: return nlohmann::json::array({AnyText(in)});
    default: return AnyText(in);
  }
}

// Writes a property list, reads it back.
void RoundTripProperties(FuzzInput& in) {
  std::vector<PropertyValue> sent;
  const size_t count = in.Byte() % 8;
  for (size_t i = 0; i < count; ++i) sent.push_back({AnyText(in), AnyValue(in)});
  bool writable = true;
  for (const PropertyValue& p : sent) {
    writable = writable && Sendable(p.name) &&
               (p.value.is_boolean() || p.value.is_number() || (p.value.is_string() && Sendable(p.value.get<std::string>())));
  }
  Message m = New();
  int r = hxf_tool::AppendProperties(m.get(), sent);
  CHECK((r >= 0) == writable, "writer answered %d for a list it %s", r, writable ? "can send" : "cannot send");
  if (r < 0) return;
  CHECK(hxf_test::MessageBus::Seal(m.get()) >= 0, "seal");
  std::vector<PropertyValue> read;
  std::string problem;
  r = hxf_tool::ReadProperties(m.get(), &read, &problem);
  size_t expected = 0;
  for (; expected < sent.size(); ++expected) {
    const nlohmann::json& value = sent[expected].value;
    if (value.is_number_unsigned() && value.get<uint64_t>() > uint64_t{INT64_MAX}) break;
  }
  if (expected < sent.size()) {
    CHECK(r == -EINVAL, "an integer above INT64_MAX was read (%d)", r);
    const std::string wanted = AboveInt64(sent[expected].name, sent[expected].value.get<uint64_t>());
    CHECK(problem == wanted, "problem '%s', not '%s'", problem.c_str(), wanted.c_str());
  } else {
    CHECK(r >= 0, "the reader refused what the writer sent: %s", problem.c_str());
  }
  CHECK(read.size() == expected, "%zu properties read, not %zu", read.size(), expected);
  for (size_t i = 0; i < expected; ++i) {
    CHECK(read[i].name == sent[i].name, "name %zu", i);
    CHECK(Same(sent[i].value, read[i].value), "%s sent as %s, read as %s", sent[i].name.c_str(),
          sent[i].value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str(),
          read[i].value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
  }
}

// Writes a device, reads it back.
void RoundTripDevice(FuzzInput& in) {
  Device sent;
  std::string* fields[] = {&sent.service, &sent.id, &sent.name, &sent.address, &sent.interface_name,
                           &sent.interface_type, &sent.ui_meta};
  bool writable = true;
  for (std::string* field : fields) {
    *field = AnyText(in);
    writable = writable && Sendable(*field);
  }
  Message m = New();
  int r = hxf_tool::AppendDevice(m.get(), sent);
  CHECK((r >= 0) == writable, "device writer answered %d", r);
  if (r < 0) return;
  CHECK(hxf_test::MessageBus::Seal(m.get()) >= 0, "seal");
  Device read;
  r = hxf_tool::ReadDevice(m.get(), &read);
  CHECK(r >= 0, "device not read: %d", r);
  const std::string* got[] = {&read.service, &read.id, &read.name, &read.address, &read.interface_name,
                              &read.interface_type, &read.ui_meta};
  for (size_t i = 0; i < 7; ++i) CHECK(*got[i] == *fields[i], "device field %zu", i);
}

// ---- messages of any types ----

constexpr char kBasics[] = "ybnqiuxtdsog";

// A complete type; `depth` bounds the nesting.
std::string AnyType(FuzzInput& in, int depth) {
  const uint8_t pick = in.Byte() % 16;
  if (depth >= 3 || pick < 12) return std::string(1, kBasics[pick % 12]);
  switch (pick) {
    case 12: return "a" + AnyType(in, depth + 1);
    case 13: return "a{" + std::string(1, kBasics[in.Byte() % 12]) + AnyType(in, depth + 1) + "}";
    case 14: {
      std::string fields = "(";
      const int count = 1 + in.Byte() % 3;
      for (int i = 0; i < count; ++i) fields += AnyType(in, depth + 1);
      return fields + ")";
    }
    default: return "v";
  }
}

// The end of the complete type starting at `at` in `signature`.
size_t TypeEnd(const std::string& signature, size_t at) {
  const char c = signature[at];
  if (c == 'a') return TypeEnd(signature, at + 1);
  if (c == '(' || c == '{') {
    const char close = c == '(' ? ')' : '}';
    size_t next = at + 1;
    while (signature[next] != close) next = TypeEnd(signature, next);
    return next + 1;
  }
  return at + 1;
}

// What a basic value was written as, to be read back.
struct Written {
  char type;
  uint64_t bits;  // integers, booleans and doubles
  std::string text;
};

void AppendOf(sd_bus_message* m, FuzzInput& in, const std::string& type, int depth, Written* basic);

void AppendBasic(sd_bus_message* m, FuzzInput& in, char type, Written* written) {
  Written value{type, 0, ""};
  int r = 0;
  switch (type) {
    case 'y': { const uint8_t v = in.Byte(); value.bits = v; r = sd_bus_message_append_basic(m, type, &v); break; }
    case 'b': { const int v = in.Byte() % 3; value.bits = v != 0; r = sd_bus_message_append_basic(m, type, &v); break; }
    case 'n': case 'q': { const uint16_t v = static_cast<uint16_t>(Bits(in, 2)); value.bits = type == 'n' ? static_cast<uint64_t>(static_cast<int64_t>(static_cast<int16_t>(v))) : v; r = sd_bus_message_append_basic(m, type, &v); break; }
    case 'i': case 'u': { const uint32_t v = static_cast<uint32_t>(Bits(in, 4)); value.bits = type == 'i' ? static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(v))) : v; r = sd_bus_message_append_basic(m, type, &v); break; }
    case 'x': case 't': case 'd': { const uint64_t v = in.Byte() % 4 == 0 ? uint64_t{INT64_MAX} + in.Byte() % 2 : Bits(in, 8); value.bits = v; r = sd_bus_message_append_basic(m, type, &v); break; }
    case 's': {
      value.text = AnyText(in);
      if (!Sendable(value.text)) value.text = "text";
      r = sd_bus_message_append_basic(m, type, value.text.c_str());
      break;
    }
    case 'o': { value.text = in.Byte() % 2 ? "/" : "/org/hxf/" + std::string(1, static_cast<char>('a' + in.Byte() % 26)); r = sd_bus_message_append_basic(m, type, value.text.c_str()); break; }
    default: { static const char* const kSignatures[] = {"", "s", "a{sv}", "(ii)"}; value.text = kSignatures[in.Byte() % 4]; r = sd_bus_message_append_basic(m, type, value.text.c_str()); break; }
  }
  CHECK(r >= 0, "append %c: %d", type, r);
  if (written != nullptr) *written = value;
}

// Appends a value of the complete type `type`; `basic` gets the value when it is one.
void AppendOf(sd_bus_message* m, FuzzInput& in, const std::string& type, int depth, Written* basic) {
  const char c = type[0];
  int r = 0;
  if (c == 'a') {
    const std::string element = type.substr(1);
    r = sd_bus_message_open_container(m, 'a', element.c_str());
    CHECK(r >= 0, "open a%s: %d", element.c_str(), r);
    const int count = in.Byte() % 3;
    for (int i = 0; i < count; ++i) AppendOf(m, in, element, depth + 1, nullptr);
  } else if (c == '(' || c == '{') {
    const std::string inner = type.substr(1, type.size() - 2);
    r = sd_bus_message_open_container(m, c == '(' ? 'r' : 'e', inner.c_str());
    CHECK(r >= 0, "open %s: %d", type.c_str(), r);
    for (size_t at = 0; at < inner.size();) {
      const size_t end = TypeEnd(inner, at);
      AppendOf(m, in, inner.substr(at, end - at), depth + 1, nullptr);
      at = end;
    }
  } else if (c == 'v') {
    const std::string contents = AnyType(in, depth + 1);
    r = sd_bus_message_open_container(m, 'v', contents.c_str());
    CHECK(r >= 0, "open v %s: %d", contents.c_str(), r);
    AppendOf(m, in, contents, depth + 1, nullptr);
  } else {
    AppendBasic(m, in, c, basic);
    return;
  }
  r = sd_bus_message_close_container(m);
  CHECK(r >= 0, "close %s: %d", type.c_str(), r);
}

// What the reader must make of a property written as `value`.
nlohmann::json Expected(const Written& value) {
  switch (value.type) {
    case 'b': return value.bits != 0;
    case 'd': { double d; std::memcpy(&d, &value.bits, sizeof d); return d; }
    case 's': return value.text;
    default: return static_cast<int64_t>(value.bits);
  }
}

// Builds a message of fuzzer-chosen types (mostly an a{sv} whose variants hold any type) and
// reads it as properties and as a device.
void ReadAnyMessage(FuzzInput& in) {
  Message m = New();
  std::vector<PropertyValue> expected;
  std::string problem;  // what the reader must say, or nothing
  const uint8_t shape = in.Byte() % 8;
  if (shape == 0) {
    problem = "the message ends where its properties (a{sv}) should be";
  } else if (shape == 1) {
    const std::string type = AnyType(in, 0);
    AppendOf(m.get(), in, type, 0, nullptr);
    if (type != "a{sv}") problem = "the properties have type " + type + ", not a{sv}";
    else problem = "-";  // any a{sv}: its entries are not tracked here, only the reading's sanity
  } else {
    CHECK(sd_bus_message_open_container(m.get(), 'a', "{sv}") >= 0, "open a{sv}");
    const int count = in.Byte() % 8;
    for (int i = 0; i < count; ++i) {
      static const char* const kNames[] = {"device_id", "service", "device_name", "a"};
      const std::string name = shape <= 4 ? kNames[in.Byte() % 4] : AnyText(in);
      const std::string key = Sendable(name) ? name : "key";
      // Mostly a type a property may have.
      const std::string type = in.Byte() % 4 != 0 ? std::string(1, "bxtiunqyds"[in.Byte() % 10]) : AnyType(in, 1);
      Written value{0, 0, ""};
      CHECK(sd_bus_message_open_container(m.get(), 'e', "sv") >= 0, "open e");
      CHECK(sd_bus_message_append_basic(m.get(), 's', key.c_str()) >= 0, "key");
      CHECK(sd_bus_message_open_container(m.get(), 'v', type.c_str()) >= 0, "open v %s", type.c_str());
      AppendOf(m.get(), in, type, 1, &value);
      CHECK(sd_bus_message_close_container(m.get()) >= 0, "close v");
      CHECK(sd_bus_message_close_container(m.get()) >= 0, "close e");
      if (!problem.empty()) continue;
      if (type.size() != 1 || std::strchr("bxtiunqyds", type[0]) == nullptr) {
        problem = "property " + key + " has type " + type + ": a property is a boolean, an integer, a double or a string";
      } else if (type == "t" && value.bits > uint64_t{INT64_MAX}) {
        problem = AboveInt64(key, value.bits);
      } else {
        expected.push_back({key, Expected(value)});
      }
    }
    CHECK(sd_bus_message_close_container(m.get()) >= 0, "close a{sv}");
  }
  // Whatever follows the properties is not theirs to read.
  for (int i = shape == 0 ? 0 : in.Byte() % 3; i > 0; --i) AppendOf(m.get(), in, AnyType(in, 0), 0, nullptr);
  CHECK(hxf_test::MessageBus::Seal(m.get()) >= 0, "seal");

  std::vector<PropertyValue> read;
  std::string said;
  const int r = hxf_tool::ReadProperties(m.get(), &read, &said);
  if (problem == "-") {
    CHECK((r >= 0) == said.empty(), "answered %d with problem '%s'", r, said.c_str());
    return;
  }
  if (problem.empty()) {
    CHECK(r >= 0, "refused: %s", said.c_str());
  } else {
    CHECK(r == -EINVAL, "answered %d where it should say: %s", r, problem.c_str());
    CHECK(said == problem, "said '%s', not '%s'", said.c_str(), problem.c_str());
  }
  CHECK(read.size() == expected.size(), "%zu properties read, not %zu", read.size(), expected.size());
  for (size_t i = 0; i < read.size(); ++i) {
    CHECK(read[i].name == expected[i].name, "name %zu", i);
    CHECK(Same(expected[i].value, read[i].value), "%s: %s read as %s", read[i].name.c_str(),
          expected[i].value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str(),
          read[i].value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace).c_str());
  }

  // The device reader reads the same: the last text of each field it knows.
  CHECK(sd_bus_message_rewind(m.get(), 1) >= 0, "rewind");
  Device device;
  const int d = hxf_tool::ReadDevice(m.get(), &device);
  CHECK((d >= 0) == (r >= 0), "device reader answered %d, property reader %d", d, r);
  if (d < 0) return;
  std::string id, service;
  for (const PropertyValue& p : expected) {
    if (p.name == "device_id" && p.value.is_string()) id = p.value.get<std::string>();
    if (p.name == "service" && p.value.is_string()) service = p.value.get<std::string>();
  }
  CHECK(device.id == id, "device id '%s', not '%s'", device.id.c_str(), id.c_str());
  CHECK(device.service == service, "service '%s', not '%s'", device.service.c_str(), service.c_str());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  switch (in.Byte() % 3) {
    case 0: RoundTripProperties(in); break;
    case 1: RoundTripDevice(in); break;
    default: ReadAnyMessage(in); break;
  }
  return 0;
}
