// Fuzzes hxfd's D-Bus input: the broker's objects serve one end of a socketpair on their own
// bus thread (as in tests/hxfd), with the simulator in the core, and each input is a run of
// method calls from a few callers: the objects and members hxfd serves or made-up ones, with
// the methods' own signatures or any others, and any values (names too long, numbers above
// the signed range, nested variants). Between calls a caller may leave the bus. hxfd must
// answer every call it handles at once, survive every input, and hold no caller once all
// have left.
#include <sys/socket.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-event.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BusValues.h"
#include "CBusBroker.h"
#include "FuzzInput.h"
#include "hxf_core.h"

using hxf_fuzz::FuzzInput;

namespace {

#define CHECK(condition, ...)                                              \
  do {                                                                     \
    if (!(condition)) {                                                    \
      std::fprintf(stderr, "%s:%d: %s: ", __FILE__, __LINE__, #condition); \
      std::fprintf(stderr, __VA_ARGS__);                                   \
      std::fputc('\n', stderr);                                            \
      std::abort();                                                        \
    }                                                                      \
  } while (0)

// The broker and its client, for the whole run.
struct Rig {
  sd_bus* client = nullptr;
  hxfd::CBusBroker* broker = nullptr;
  uint64_t generation = 0;              // of the input being run
  std::vector<std::string> paths;       // objects the current input's calls made
};

Rig& TheRig() {
  static Rig* rig = [] {
    auto* r = new Rig;
    unsetenv("HXF_SIM_CONFIG");
    hxf_core_initialize();
    static int loaded = 0;
    CHECK(hxf_core_plugin_load(
              hxf_string{"sim", 3},
              [](hxf_string, hxf_plugin_load_result_e result, void*) {
                __atomic_store_n(&loaded, result == HXF_PLUGIN_LOAD_RESULT_SUCCESS ? 1 : -1,
                                 __ATOMIC_RELEASE);
              },
              nullptr) == HXF_ERROR_NONE,
          "the simulator cannot be loaded");
    for (int i = 0; i < 1000 && __atomic_load_n(&loaded, __ATOMIC_ACQUIRE) == 0; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    CHECK(__atomic_load_n(&loaded, __ATOMIC_ACQUIRE) == 1, "the simulator did not load");
    int fds[2];
    CHECK(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) == 0, "no socketpair");
    static std::atomic<hxfd::CBusBroker*> started{nullptr};
    // The bus thread runs until the process ends.
    std::thread([fd = fds[0]] {
      sd_event* event = nullptr;
      sd_bus* server = nullptr;
      sd_id128_t id;
      CHECK(sd_event_new(&event) >= 0 && sd_id128_randomize(&id) >= 0 && sd_bus_new(&server) >= 0 &&
                sd_bus_set_fd(server, fd, fd) >= 0 && sd_bus_set_server(server, 1, id) >= 0 &&
                sd_bus_set_anonymous(server, 1) >= 0 &&
                sd_bus_attach_event(server, event, SD_EVENT_PRIORITY_NORMAL) >= 0 &&
                sd_bus_start(server) >= 0,
            "the server end does not start");
      auto* broker = new hxfd::CBusBroker(server, event);
      CHECK(broker->Start(false) >= 0, "the broker does not start");
      started.store(broker);
      sd_event_loop(event);
    }).detach();
    for (int i = 0; i < 1000 && started.load() == nullptr; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    r->broker = started.load();
    CHECK(r->broker != nullptr, "the broker did not start");
    CHECK(sd_bus_new(&r->client) >= 0 && sd_bus_set_fd(r->client, fds[1], fds[1]) >= 0 &&
              sd_bus_set_anonymous(r->client, 1) >= 0 && sd_bus_start(r->client) >= 0,
          "the client end does not start");
    return r;
  }();
  return *rig;
}

// The broker's Callers property: every call before it has been handled when it returns.
uint32_t Callers(Rig& rig) {
  sd_bus_error e = SD_BUS_ERROR_NULL;
  uint32_t callers = 0;
  int r = -EINTR;
  // libFuzzer's own timer signal interrupts the wait: asked again (reading makes no caller).
  for (int attempt = 0; r == -EINTR && attempt < 100; ++attempt) {
    sd_bus_error_free(&e);
    r = sd_bus_get_property_trivial(rig.client, nullptr, hxf_tool::kBrokerPath,
                                    hxf_tool::kBrokerInterface, "Callers", &e, 'u', &callers);
  }
  CHECK(r >= 0, "hxfd does not answer: %s", e.message != nullptr ? e.message : "");
  sd_bus_error_free(&e);
  // Replies to earlier calls are dispatched now.
  while (sd_bus_process(rig.client, nullptr) > 0) {
  }
  return callers;
}

// Object paths from replies of the current input (a Search's, a Subscribe's).
int OnReply(sd_bus_message* m, void* generation, sd_bus_error*) {
  Rig& rig = TheRig();
  if (reinterpret_cast<uintptr_t>(generation) != rig.generation || sd_bus_message_is_method_error(m, nullptr))
    return 0;
  const char* path = nullptr;
  if (sd_bus_message_peek_type(m, nullptr, nullptr) > 0 &&
      sd_bus_message_read_basic(m, 'o', &path) > 0 && path != nullptr)
    rig.paths.emplace_back(path);
  return 0;
}

std::string Name(FuzzInput& in) {
  std::string name;
  const size_t length = 1 + in.Number(12);
  for (size_t i = 0; i < length; ++i) name.push_back(static_cast<char>('A' + in.Byte() % 26));
  return name;
}

// A text, sometimes far beyond hxfd's limits on names and values.
std::string Text(FuzzInput& in) {
  std::string text = in.Text();
  text = text.c_str();  // sd-bus carries no NUL in a string
  switch (in.Byte() % 8) {
    case 0: return std::string(200 + in.Number(400), 'n');
    case 1: return std::string(70 * 1024, 't');
    case 2: return in.Byte() % 2 ? "lights" : "audio";
    case 3: return in.Byte() % 2 ? "lamp-1" : "device_id";
    default: return text;
  }
}

const char* const kVariantTypes[] = {"s", "u", "i", "b", "d", "t", "x", "y", "n", "q", "o",
                                     "g", "as", "ay", "a{sv}", "(su)", "v", "ai", "a{ss}", "av"};

int Fill(sd_bus_message* m, const char** type, FuzzInput& in, int depth);

// One value of the complete type at *type, which then points past it.
int Fill(sd_bus_message* m, const char** type, FuzzInput& in, int depth) {
  const char c = **type;
  ++*type;
  switch (c) {
    case 's': {
      const std::string text = Text(in);
      return sd_bus_message_append_basic(m, 's', text.c_str());
    }
    case 'o': {
      const std::string path = std::string(hxf_tool::kBrokerPath) + (in.Byte() % 2 ? "" : "/" + Name(in));
      return sd_bus_message_append_basic(m, 'o', path.c_str());
    }
    case 'g': return sd_bus_message_append_basic(m, 'g', in.Byte() % 2 ? "su" : "");
    case 'b': {
      const int b = in.Byte() % 2;
      return sd_bus_message_append_basic(m, 'b', &b);
    }
    case 'y': {
      const uint8_t y = in.Byte();
      return sd_bus_message_append_basic(m, 'y', &y);
    }
    case 'n': case 'q': {
      const uint16_t v = static_cast<uint16_t>(in.Number(65536));
      return sd_bus_message_append_basic(m, c, &v);
    }
    case 'i': case 'u': {
      uint32_t v = in.Number(4);
      if (v == 3) v = 0xFFFFFFFFu - in.Byte();
      else if (v == 2) v = in.Number(70000);
      else v = in.Number(3000);
      return sd_bus_message_append_basic(m, c, &v);
    }
    case 'x': case 't': {
      uint64_t v = in.Number(70000);
      if (in.Byte() % 3 == 0) v |= 1ULL << 63;  // above the signed range
      return sd_bus_message_append_basic(m, c, &v);
    }
    case 'd': {
      const double d = static_cast<double>(static_cast<int32_t>(in.Number(100000))) / 7.0;
      return sd_bus_message_append_basic(m, 'd', &d);
    }
    case 'v': {
      const char* inner = depth > 4 ? "s" : kVariantTypes[in.Number(sizeof kVariantTypes / sizeof *kVariantTypes)];
      int r = sd_bus_message_open_container(m, 'v', inner);
      const char* at = inner;
      if (r >= 0) r = Fill(m, &at, in, depth + 1);
      return r < 0 ? r : sd_bus_message_close_container(m);
    }
    case 'a': {
      // The element's type: up to its end.
      const char* element = *type;
      const char* end = element;
      int nesting = 0;
      do {
        if (*end == '{' || *end == '(') ++nesting;
        if (*end == '}' || *end == ')') --nesting;
        ++end;
      } while (nesting > 0 || end[-1] == 'a');
      const std::string contents(element, end);
      *type = end;
      int r = sd_bus_message_open_container(m, 'a', contents.c_str());
      const size_t count = depth > 4 ? 0 : in.Number(5);
      for (size_t i = 0; r >= 0 && i < count; ++i) {
        const char* at = contents.c_str();
        r = Fill(m, &at, in, depth + 1);
      }
      return r < 0 ? r : sd_bus_message_close_container(m);
    }
    case '{': case '(': {
      const char* start = *type;
      int nesting = 1;
      const char* end = start;
      while (nesting > 0) {
        if (*end == '{' || *end == '(') ++nesting;
        if (*end == '}' || *end == ')') --nesting;
        ++end;
      }
      const std::string contents(start, end - 1);
      *type = end;
      int r = sd_bus_message_open_container(m, c == '{' ? 'e' : 'r', contents.c_str());
      for (const char* at = contents.c_str(); r >= 0 && *at != '\0';) r = Fill(m, &at, in, depth + 1);
      return r < 0 ? r : sd_bus_message_close_container(m);
    }
    default:
      return -EINVAL;
  }
}

struct Method {
  int object;  // 0 the broker, 1 a watch, 2 a session, 3 the broker's other interfaces
  const char* interface;
  const char* member;
  const char* signature;
};
const Method kMethods[] = {
    {0, "org.hxf.Broker1", "Search", "su"},
    {0, "org.hxf.Broker1", "Listen", "s"},
    {0, "org.hxf.Broker1", "GetDevices", "su"},
    {0, "org.hxf.Broker1", "Subscribe", "s"},
    {0, "org.hxf.Broker1", "Request", "ssa{sv}u"},
    {0, "org.hxf.Broker1", "Monitor", ""},
    {1, "org.hxf.Search1", "Stop", ""},
    {2, "org.hxf.Session1", "Request", "sa{sv}u"},
    {2, "org.hxf.Session1", "Close", ""},
    {3, "org.freedesktop.DBus.Properties", "Get", "ss"},
    {3, "org.freedesktop.DBus.Properties", "GetAll", "s"},
    {3, "org.freedesktop.DBus.Properties", "Set", "ssv"},
    {3, "org.freedesktop.DBus.Introspectable", "Introspect", ""},
    {3, "org.hxf.Monitor1", "Stop", ""},
};
const char* const kSignatures[] = {"", "s", "su", "u", "ss", "sa{sv}u", "ssa{sv}u", "a{sv}", "v",
                                   "t", "x", "as", "(su)", "sv", "sa{sv}", "ssa{sv}t", "ay"};

std::string Sender(FuzzInput& in) { return ":1." + std::to_string(1 + in.Byte() % 3); }

void Leave(Rig& rig, const std::string& caller) {
  sd_bus_message* m = nullptr;
  CHECK(sd_bus_message_new_signal(rig.client, &m, "/org/freedesktop/DBus", "org.freedesktop.DBus",
                                  "NameOwnerChanged") >= 0,
        "no signal");
  sd_bus_message_set_sender(m, "org.freedesktop.DBus");
  sd_bus_message_append(m, "sss", caller.c_str(), caller.c_str(), "");
  CHECK(sd_bus_send(rig.client, m, nullptr) >= 0, "cannot send");
  sd_bus_message_unref(m);
}

void Call(Rig& rig, FuzzInput& in) {
  const Method& method = kMethods[in.Number(sizeof kMethods / sizeof *kMethods)];
  std::string path = hxf_tool::kBrokerPath;
  if (method.object == 1 || method.object == 2) {
    if (!rig.paths.empty() && in.Byte() % 4 != 0) {
      path = rig.paths[in.Number(static_cast<uint32_t>(rig.paths.size()))];
    } else {
      path += method.object == 1 ? "/search/" : "/session/";
      path += in.Byte() % 2 ? "0000000000000001" : Name(in);
    }
  }
  std::string member = method.member;
  if (in.Byte() % 8 == 0) member = Name(in);
  const char* signature =
      in.Byte() % 4 == 0 ? kSignatures[in.Number(sizeof kSignatures / sizeof *kSignatures)]
                         : method.signature;
  sd_bus_message* m = nullptr;
  if (sd_bus_message_new_method_call(rig.client, &m, nullptr, path.c_str(), method.interface,
                                     member.c_str()) < 0)
    return;
  if (in.Byte() % 16 != 0) sd_bus_message_set_sender(m, Sender(in).c_str());  // else none
  int r = 0;
  for (const char* at = signature; r >= 0 && *at != '\0';) r = Fill(m, &at, in, 0);
  if (r >= 0)
    r = sd_bus_call_async(rig.client, nullptr, m, &OnReply,
                          reinterpret_cast<void*>(static_cast<uintptr_t>(rig.generation)),
                          2 * 1000 * 1000);
  sd_bus_message_unref(m);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Rig& rig = TheRig();
  ++rig.generation;
  rig.paths.clear();
  FuzzInput in(data, size);
  for (int step = 0; step < 24 && !in.Done(); ++step) {
    if (in.Byte() % 10 == 0) {
      Leave(rig, Sender(in));
    } else {
      Call(rig, in);
    }
    Callers(rig);  // handled, and hxfd alive
  }
  for (const char* caller : {":1.1", ":1.2", ":1.3"}) Leave(rig, caller);
  const uint32_t left = Callers(rig);
  CHECK(left == 0, "%u callers kept after every caller left", left);
  return 0;
}
