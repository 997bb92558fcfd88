#include "CCheckPlugin.h"

#include <dirent.h>
#include <elf.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <map>
#include <nlohmann/json.hpp>
#include <set>
#include <sstream>
#include <thread>
#include <vector>

#include "CCheckProbe.h"
#include "CCommands.h"
#include "CLocks.h"
#include "CPluginInfo.h"
#include "PluginFiles.h"
#include "Presence.h"
#include "hxf_core.h"
#include "hxf_host_platform.h"

extern char** environ;

namespace hxf_tool {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// Every wait has its bound; the FAIL texts name it.
constexpr milliseconds kLoadBound{5000};
constexpr milliseconds kDuplicateGrace{500};  // how long a second load result or answer is awaited
constexpr uint32_t kSearchTimeout = 2000;
constexpr milliseconds kLateness{1000};  // beyond a time-out, before "nothing came"
constexpr milliseconds kStopGrace{500};
constexpr milliseconds kQuietWindow{1000};
constexpr uint32_t kListTimeout = 3000;
constexpr milliseconds kListenWindow{1500};
constexpr uint32_t kRequestTimeout = 3000;
constexpr size_t kMostDevicesAsked = 3;
constexpr milliseconds kCallbackBound{1000};
constexpr milliseconds kUnloadBound{5000};
constexpr milliseconds kThreadsBound{1000};
constexpr int kChildSilenceSeconds = 30;  // a child that prints nothing this long is stopped
// A child leaves with this code after a FAIL it printed itself (an unload that never returned).
constexpr int kChildGaveUp = 3;
constexpr char kNoSuchOperation[] = "hxf-check-no-such-operation";
constexpr char kNoSuchDevice[] = "hxf-check-no-such-device";

std::string Ms(milliseconds value) {
  return std::to_string(value.count()) + " ms";
}
std::string Ms(uint32_t value) {
  return std::to_string(value) + " ms";
}

std::vector<std::string> Split(const std::string& list) {
  std::vector<std::string> parts;
  std::stringstream stream(list);
  for (std::string part; std::getline(stream, part, ',');)
    if (!part.empty()) parts.push_back(part);
  return parts;
}

std::string Join(const std::vector<std::string>& parts) {
  std::string joined;
  for (const std::string& part : parts) joined += (joined.empty() ? "" : ",") + part;
  return joined;
}

// ---- the exported symbols, read from the file ----

template <typename Ehdr, typename Shdr, typename Sym>
bool DynamicSymbols(const std::string& bytes, std::vector<std::string>* names) {
  if (bytes.size() < sizeof(Ehdr)) return false;
  Ehdr header;
  std::memcpy(&header, bytes.data(), sizeof header);
  const uint64_t sections = header.e_shoff;
  if (header.e_shentsize != sizeof(Shdr) ||
      sections + uint64_t{header.e_shnum} * sizeof(Shdr) > bytes.size())
    return false;
  auto section = [&](size_t index) {
    Shdr entry;
    std::memcpy(&entry, bytes.data() + sections + index * sizeof(Shdr), sizeof entry);
    return entry;
  };
  for (size_t i = 0; i < header.e_shnum; ++i) {
    const Shdr symbols = section(i);
    if (symbols.sh_type != SHT_DYNSYM || symbols.sh_link >= header.e_shnum) continue;
    const Shdr strings = section(symbols.sh_link);
    if (symbols.sh_offset + symbols.sh_size > bytes.size() ||
        strings.sh_offset + strings.sh_size > bytes.size())
      return false;
    for (uint64_t at = 0; at + sizeof(Sym) <= symbols.sh_size; at += sizeof(Sym)) {
      Sym symbol;
      std::memcpy(&symbol, bytes.data() + symbols.sh_offset + at, sizeof symbol);
      // Defined here (not imported), not a version's name (absolute), visible to others.
      if (symbol.st_shndx == SHN_UNDEF || symbol.st_shndx == SHN_ABS) continue;
      const unsigned binding = symbol.st_info >> 4;
      if (binding != STB_GLOBAL && binding != STB_WEAK) continue;
      if (symbol.st_name >= strings.sh_size) continue;
      const char* name = bytes.data() + strings.sh_offset + symbol.st_name;
      const std::string text(name, strnlen(name, strings.sh_size - symbol.st_name));
      // The linker's own, present in every library.
      if (text == "_init" || text == "_fini") continue;
      names->push_back(text);
    }
  }
  return true;
}

// PASS, or why not.
std::string ExportsProblem(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  const std::string bytes((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
  if (bytes.size() < EI_NIDENT || std::memcmp(bytes.data(), ELFMAG, SELFMAG) != 0)
    return "not an ELF file: " + path;
  std::vector<std::string> names;
  const bool read = bytes[EI_CLASS] == ELFCLASS64
                        ? DynamicSymbols<Elf64_Ehdr, Elf64_Shdr, Elf64_Sym>(bytes, &names)
                        : DynamicSymbols<Elf32_Ehdr, Elf32_Shdr, Elf32_Sym>(bytes, &names);
  if (!read) return "its dynamic symbol table cannot be read";
  std::set<std::string> exported(names.begin(), names.end());
  std::vector<std::string> missing, extra;
  for (const char* entry : {"CreatePlugin", "DestroyPlugin"})
    if (exported.erase(entry) == 0) missing.push_back(entry);
  extra.assign(exported.begin(), exported.end());
  std::string problem;
  if (!missing.empty()) problem = "does not export " + Join(missing);
  if (!extra.empty()) {
    if (extra.size() > 5) extra.resize(5), extra.push_back("...");
    problem += (problem.empty() ? "" : "; ") + std::string("also exports ") + Join(extra) +
               " (build with hidden visibility)";
  }
  return problem;
}

// ---- the child ----

// What the consumer side heard, tagged by the check that asked.
struct Heard {
  int tag = 0;
  enum Kind { kFound, kTimeout, kList, kResult, kNotification } kind = kFound;
  std::string service;
  std::vector<std::string> endpoint_services, ids, metas;
  hxf_error_e error = HXF_ERROR_NONE;
  bool has_error_property = false;
  std::string error_text;
  bool names_transaction = false;
};

// What the consumer heard. A wait's condition reads it through AwaitFor, which holds the lock.
struct Record {
  std::vector<Heard> heard;
  int load_callbacks = 0;
  hxf_plugin_load_result_e load_result = HXF_PLUGIN_LOAD_RESULT_FAILED;
  std::vector<std::string> reported_names;
  bool destroy_failed = false;
};

struct Consumer {
  HXFramework::CMutex mutex;
  std::condition_variable changed;
  Record record HXF_GUARDED_BY(mutex);
};

Consumer& Seen() {
  static Consumer* consumer = new Consumer;  // plugin threads may outlive main()
  return *consumer;
}

void Add(Heard heard) {
  Consumer& seen = Seen();
  HXFramework::CMutexLock lock(seen.mutex);
  seen.record.heard.push_back(std::move(heard));
  seen.changed.notify_all();
}

int Tag(void* user_data) {
  return static_cast<int>(reinterpret_cast<intptr_t>(user_data));
}
void* TagData(int tag) {
  return reinterpret_cast<void*>(static_cast<intptr_t>(tag));
}

void Describe(hxf_endpoint_h endpoint, Heard* heard) {
  auto text = [](const char* value) { return std::string(value != nullptr ? value : ""); };
  heard->endpoint_services.push_back(text(hxf_endpoint_get_service_name(endpoint)));
  heard->ids.push_back(text(hxf_endpoint_get_device_id(endpoint)));
  heard->metas.push_back(text(hxf_endpoint_get_ui_meta(endpoint)));
}

void OnFound(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
             hxf_endpoint_h endpoint, void* user_data) {
  Heard heard;
  heard.tag = Tag(user_data);
  heard.service.assign(service.str != nullptr ? service.str : "", service.len);
  heard.kind = result == HXF_ENDPOINT_DISCOVERY_RESULT_FOUND ? Heard::kFound : Heard::kTimeout;
  if (endpoint != nullptr) Describe(endpoint, &heard);
  Add(std::move(heard));
}

void OnList(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
            hxf_endpoint_list_h list, void* user_data) {
  Heard heard;
  heard.tag = Tag(user_data);
  heard.service.assign(service.str != nullptr ? service.str : "", service.len);
  heard.kind = result == HXF_ENDPOINT_DISCOVERY_RESULT_FOUND && list != nullptr ? Heard::kList
                                                                                : Heard::kTimeout;
  for (hxf_endpoint_h endpoint = list != nullptr ? hxf_endpoint_list_get_first(list) : nullptr;
       endpoint != nullptr; endpoint = hxf_endpoint_list_get_next(list, endpoint))
    Describe(endpoint, &heard);
  Add(std::move(heard));
}

std::string ErrorText(hxf_property_list_h properties) {
  if (properties == nullptr) return "";
  hxf_property_h error = hxf_property_list_find(properties, hxf_string_from_cstr("error"));
  const char* text = nullptr;
  uint32_t length = 0;
  if (error == nullptr || hxf_property_get_string(error, &text, &length) != HXF_ERROR_NONE ||
      text == nullptr)
    return "";
  return std::string(text, length);
}

void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h properties,
              hxf_transaction_h, hxf_error_e error, void* user_data) {
  Heard heard;
  heard.tag = Tag(user_data);
  heard.kind = Heard::kResult;
  heard.error = error;
  heard.error_text = ErrorText(properties);
  heard.has_error_property = !heard.error_text.empty();
  Add(std::move(heard));
}

void OnNotification(hxf_string service, hxf_service_session_h, hxf_property_list_h properties,
                    hxf_transaction_h transaction, hxf_error_e error, void*) {
  Heard heard;
  heard.tag = 0;  // notifications belong to the session, not to a check
  heard.kind = Heard::kNotification;
  heard.service.assign(service.str != nullptr ? service.str : "", service.len);
  heard.error = error;
  heard.error_text = ErrorText(properties);
  heard.has_error_property = !heard.error_text.empty();
  heard.names_transaction = transaction != nullptr;
  Add(std::move(heard));
}

void OnLoaded(hxf_string, hxf_plugin_load_result_e result, void*) {
  Consumer& seen = Seen();
  HXFramework::CMutexLock lock(seen.mutex);
  ++seen.record.load_callbacks;
  seen.record.load_result = result;
  seen.changed.notify_all();
}

void OnReport(const std::string& name, hxf_plugin_load_result_e, void*) {
  Consumer& seen = Seen();
  HXFramework::CMutexLock lock(seen.mutex);
  seen.record.reported_names.push_back(name);
  seen.changed.notify_all();
}

void OnLog(int, const char*, const char* text, void*) {
  if (text == nullptr || std::strstr(text, "failed to finalize plugin") == nullptr) return;
  Consumer& seen = Seen();
  HXFramework::CMutexLock lock(seen.mutex);
  seen.record.destroy_failed = true;
}

// Waits until `done` holds (under the lock) or `bound` has passed; whether it holds.
bool AwaitFor(milliseconds bound, const std::function<bool(Record&)>& done) {
  Consumer& seen = Seen();
  HXFramework::CMutexLock lock(seen.mutex);
  const auto deadline = std::chrono::steady_clock::now() + bound;
  while (!done(seen.record))
    if (seen.changed.wait_until(lock.Native(), deadline) == std::cv_status::timeout)
      return done(seen.record);
  return true;
}

std::vector<Heard> HeardFor(int tag) {
  Consumer& seen = Seen();
  HXFramework::CMutexLock lock(seen.mutex);
  std::vector<Heard> found;
  for (const Heard& heard : seen.record.heard)
    if (heard.tag == tag) found.push_back(heard);
  return found;
}

hxf_string_t View(const std::string& text) {
  return hxf_string_new(text.data(), static_cast<uint32_t>(text.size()));
}

std::set<std::string> Threads() {
  std::set<std::string> threads;
  if (DIR* folder = opendir("/proc/self/task")) {
    while (dirent* entry = readdir(folder))
      if (entry->d_name[0] != '.') threads.insert(entry->d_name);
    closedir(folder);
  }
  return threads;
}

std::string ThreadName(const std::string& id) {
  std::ifstream comm("/proc/self/task/" + id + "/comm");
  std::string name;
  std::getline(comm, name);
  return name;
}

// GLib's own workers, started once per process at their first use (its worker context, GDBus,
// the settings backend, the shared thread pool and its spawner) and never ended by GLib: a
// plugin built on GLib cannot stop them, and no one unloads GLib. Not counted as left behind.
bool GlibWorker(const std::string& name) {
  for (const char* worker : {"gmain", "gdbus", "dconf worker", "pool-spawner", "pool"}) {
    if (name == worker) return true;
  }
  return false;
}

bool Mapped(const std::string& path) {
  char real[PATH_MAX];
  const std::string file = realpath(path.c_str(), real) != nullptr ? real : path;
  std::ifstream maps("/proc/self/maps");
  for (std::string line; std::getline(maps, line);) {
    const size_t at = line.find('/');
    if (at != std::string::npos && line.compare(at, std::string::npos, file) == 0) return true;
  }
  return false;
}

// What a UI meta text breaks of the documented form; empty when nothing.
std::string MetaProblem(const std::string& meta) {
  if (meta.empty()) return "";
  const nlohmann::ordered_json parsed = nlohmann::ordered_json::parse(meta, nullptr, false);
  if (parsed.is_discarded()) return "UI meta data is not JSON: " + meta.substr(0, 80);
  if (!parsed.is_object() || !parsed.contains(kPresenceKey)) return "";
  if (parsed.begin().key() != kPresenceKey) return "the presence mark is not first: " + meta;
  const auto& presence = parsed[kPresenceKey];
  if (!presence.is_string() ||
      (presence != kPresenceArrived && presence != kPresenceLeft))
    return "presence is neither \"arrived\" nor \"left\": " + meta.substr(0, 80);
  if (!parsed.contains("device") || !parsed["device"].is_object())
    return "a presence mark without the device's meta data as \"device\": " + meta.substr(0, 80);
  return "";
}

// The problems of what a search or listen reported for `service`.
std::string ReportProblem(const std::vector<Heard>& heard, const std::string& service) {
  for (const Heard& one : heard) {
    for (size_t i = 0; i < one.ids.size(); ++i) {
      if (one.endpoint_services[i] != service)
        return "device " + one.ids[i] + " reported under service '" + one.endpoint_services[i] + "'";
      if (one.ids[i].empty()) return "a device without an id";
      const std::string meta = MetaProblem(one.metas[i]);
      if (!meta.empty()) return "device " + one.ids[i] + ": " + meta;
    }
  }
  return "";
}

class CChild {
 public:
  CChild(std::string plugin, int first, std::vector<std::string> services)
      : plugin_(std::move(plugin)), name_(PluginName(plugin_)), first_(first),
        services_(std::move(services)) {}

  int Run() {
    hxf_host_log_set_sink(&OnLog, nullptr);
    ProbeEnable(true);
    hxf_core_initialize();
    client_ = hxf_core_client_create(hxf_string_from_cstr("hxf-check-plugin"));
    WarmUp();
    threads_before_ = Threads();
    WatchLoadReports(&OnReport, nullptr);
    const bool loaded = Load();
    if (loaded) {
      for (const std::string& service : services_) Discovery(service);
      if (services_.empty())
        Check("discovery", [] { return "SKIP the plugin declares no services "
                                       "(HXF_PLUGIN_INFO(services, ...))"; });
      for (const std::string& service : services_) Requests(service);
      if (services_.empty()) Check("requests", [] { return "SKIP the plugin declares no services"; });
      Check("answers-name-offered-services", [this] { return AnswersNameOffered(); });
      Check("callbacks-return-promptly", [this] { return Prompt(); });
    }
    Teardown(loaded);
    WatchLoadReports(nullptr, nullptr);
    if (client_ != nullptr) hxf_core_client_destroy(client_);
    hxf_core_finalize();
    std::printf("END\n");
    std::fflush(stdout);
    return 0;
  }

 private:
  // Runs check number N (counted the same in every child) unless an earlier child did.
  // `body` returns "" (PASS), "SKIP reason" or the failure.
  bool Check(const std::string& name, const std::function<std::string()>& body) {
    const int index = index_++;
    if (index < first_) return false;
    std::printf("BEGIN %d %s\n", index, name.c_str());
    std::fflush(stdout);
    const std::string problem = body();
    if (problem.empty())
      std::printf("PASS %s\n", name.c_str());
    else if (problem.rfind("SKIP ", 0) == 0)
      std::printf("SKIP %s: %s\n", name.c_str(), problem.c_str() + 5);
    else
      std::printf("FAIL %s: %s\n", name.c_str(), problem.c_str());
    std::fflush(stdout);
    return true;
  }

  // The core starts its pool and timer threads on first use: counted before the plugin's.
  void WarmUp() {
    const int tag = ++tag_;
    hxf_core_client_get_device_list(client_, hxf_string_from_cstr("hxf-check-warm-up"), &OnList, 1,
                                    TagData(tag));
    AwaitFor(kLateness, [&](Record& seen) {
      for (const Heard& heard : seen.heard)
        if (heard.tag == tag) return true;
      return false;
    });
  }

  bool Load() {
    std::string problem;
    const hxf_error_e code = hxf_core_plugin_load(View(plugin_), &OnLoaded, nullptr);
    bool ok = code == HXF_ERROR_NONE;
    if (!ok) problem = "the core refused to load it: " + LoadFailureReason(plugin_);
    if (ok) {
      // A report under another name never reaches the consumer: stop waiting when one comes.
      const bool reported = AwaitFor(kLoadBound, [](Record& seen) {
        return seen.load_callbacks > 0 || !seen.reported_names.empty();
      });
      AwaitFor(kDuplicateGrace, [](Record& seen) { return seen.load_callbacks > 1; });
      Consumer& seen = Seen();
      HXFramework::CMutexLock lock(seen.mutex);
      for (const std::string& name : seen.record.reported_names)
        if (name != name_ && problem.empty())
          problem = "reported its load result under the name '" + name + "', not its own ('" +
                    name_ + "')";
      if (problem.empty() && !reported)
        problem = "no load result within " + Ms(kLoadBound);
      if (problem.empty() && seen.record.load_callbacks > 1)
        problem = "the load result was reported " + std::to_string(seen.record.load_callbacks) +
                  " times";
      if (problem.empty() && seen.record.load_result != HXF_PLUGIN_LOAD_RESULT_SUCCESS) {
        problem = "the load failed: " + LoadFailureReason(plugin_);
        ok = false;
      }
    }
    Check("load-result", [&] { return problem; });
    return ok;
  }

  std::string Suffix(const std::string& check, const std::string& service) {
    return check + "/" + service;
  }

  void Discovery(const std::string& service) {
    Check(Suffix("search", service), [&]() -> std::string {
      const int tag = ++tag_;
      hxf_core_client_start_active_search(client_, View(service), &OnFound, kSearchTimeout,
                                          TagData(tag));
      const bool ended = AwaitFor(milliseconds(kSearchTimeout) + kLateness, [&](Record& seen) {
        for (const Heard& heard : seen.heard)
          if (heard.tag == tag && heard.kind == Heard::kTimeout) return true;
        return false;
      });
      hxf_core_client_stop_active_search(client_, View(service));
      const std::vector<Heard> heard = HeardFor(tag);
      for (const Heard& one : heard) devices_[service].insert(one.ids.begin(), one.ids.end());
      if (!ended && devices_[service].empty())
        return "neither a device nor the end of the search within " +
               Ms(milliseconds(kSearchTimeout) + kLateness);
      return ReportProblem(heard, service);
    });
    Check(Suffix("search-stop", service), [&]() -> std::string {
      const int tag = ++tag_;
      hxf_core_client_start_active_search(client_, View(service), &OnFound, 10 * kSearchTimeout,
                                          TagData(tag));
      hxf_core_client_stop_active_search(client_, View(service));
      return Quiet(tag, "stopped search");
    });
    Check(Suffix("device-list", service), [&]() -> std::string {
      const int tag = ++tag_;
      hxf_core_client_get_device_list(client_, View(service), &OnList, kListTimeout, TagData(tag));
      const bool came = AwaitFor(milliseconds(kListTimeout) + kLateness, [&](Record& seen) {
        for (const Heard& heard : seen.heard)
          if (heard.tag == tag) return true;
        return false;
      });
      if (!came)
        return "neither a list nor the time-out within " +
               Ms(milliseconds(kListTimeout) + kLateness);
      const std::vector<Heard> heard = HeardFor(tag);
      if (heard.front().kind == Heard::kTimeout) {
        if (!devices_[service].empty())
          return "no device list within its time-out of " + Ms(kListTimeout) +
                 " although a search found " + std::to_string(devices_[service].size()) +
                 " device(s)";
        return "SKIP no devices to list (an empty list cannot be reported)";
      }
      for (const Heard& one : heard) devices_[service].insert(one.ids.begin(), one.ids.end());
      return ReportProblem(heard, service);
    });
    const int listen_tag = ++tag_;
    Check(Suffix("listen", service), [&]() -> std::string {
      hxf_core_client_start_passive_search(client_, View(service), &OnFound, TagData(listen_tag));
      AwaitFor(kListenWindow, [](Record&) { return false; });  // a window to watch, not a wait
      hxf_core_client_stop_passive_search(client_, View(service));
      const std::vector<Heard> heard = HeardFor(listen_tag);
      if (heard.empty()) return "SKIP nothing reported within " + Ms(kListenWindow);
      for (const Heard& one : heard)
        if (one.kind != Heard::kFound) return "a report that is not a device";
      return ReportProblem(heard, service);
    });
    Check(Suffix("listen-stop", service), [&]() -> std::string {
      const int tag = ++tag_;
      hxf_core_client_start_passive_search(client_, View(service), &OnFound, TagData(tag));
      hxf_core_client_stop_passive_search(client_, View(service));
      return Quiet(tag, "stopped listen");
    });
  }

  // Nothing may come for `tag` after the stop's grace.
  std::string Quiet(int tag, const std::string& what) {
    AwaitFor(kStopGrace, [](Record&) { return false; });
    const size_t before = HeardFor(tag).size();
    AwaitFor(kQuietWindow, [](Record&) { return false; });
    const size_t after = HeardFor(tag).size();
    if (after > before)
      return std::to_string(after - before) + " report(s) of the " + what + " more than " +
             Ms(kStopGrace) + " after it was stopped";
    return "";
  }

  hxf_service_session_h Session(const std::string& service) {
    hxf_service_session_h& session = sessions_[service];
    if (session == nullptr)
      session = hxf_core_client_subscribe_service(client_, View(service), &OnNotification, nullptr);
    return session;
  }

  struct Answer {
    std::string problem;  // "" when answered once within the time-out
    hxf_error_e error = HXF_ERROR_NONE;
    bool has_error_property = false;
    std::string error_text;
    bool timed_out = false;
  };

  // Sends `operation` (with device=`device` unless empty) and watches it answered.
  Answer Ask(const std::string& service, const std::string& operation, const std::string& device) {
    Answer answer;
    const std::string what = operation + (device.empty() ? "" : " device_id=" + device);
    hxf_service_session_h session = Session(service);
    if (session == nullptr) {
      answer.problem = "cannot subscribe to " + service;
      return answer;
    }
    ProbeResetRequests();
    const int tag = ++tag_;
    hxf_property_list_h request = hxf_property_list_create(View(operation));
    if (!device.empty()) {
      hxf_property_h id = hxf_property_create_string(hxf_string_from_cstr("device_id"), View(device));
      hxf_property_list_push_property(request, id, HXF_ERROR_NONE);
      hxf_property_destroy(id);
    }
    size_t notes_before = 0;
    {
      Consumer& seen = Seen();
      HXFramework::CMutexLock lock(seen.mutex);
      for (const Heard& heard : seen.record.heard) notes_before += heard.kind == Heard::kNotification;
    }
    hxf_core_client_request_service(client_, session, request, &OnResult, kRequestTimeout,
                                    nullptr, TagData(tag));
    hxf_property_list_destroy(request);
    const bool came = AwaitFor(milliseconds(kRequestTimeout) + kLateness, [&](Record& seen) {
      size_t notes = 0;
      for (const Heard& heard : seen.heard) {
        if (heard.tag == tag) return true;
        if (heard.kind == Heard::kNotification && heard.names_transaction && ++notes > notes_before)
          return true;
      }
      return false;
    });
    AwaitFor(kDuplicateGrace, [](Record&) { return false; });  // room for a second answer
    const ProbeSnapshot probe = ProbeRead();
    const std::vector<Heard> heard = HeardFor(tag);
    if (!came) {
      answer.problem = what + ": no answer and no time-out within " +
                       Ms(milliseconds(kRequestTimeout) + kLateness);
    } else if (!heard.empty() && heard.front().kind == Heard::kResult &&
               heard.front().error == HXF_ERROR_TIMED_OUT && (probe.answers.empty() || probe.answers[0] == 0)) {
      answer.problem = what + ": not answered within its time-out of " + Ms(kRequestTimeout);
      answer.timed_out = true;
    } else if (!probe.answers.empty() && probe.answers[0] > 1) {
      answer.problem = what + ": answered " + std::to_string(probe.answers[0]) + " times";
    }
    if (!heard.empty()) {
      answer.error = heard.front().error;
      answer.has_error_property = heard.front().has_error_property;
      answer.error_text = heard.front().error_text;
    }
    return answer;
  }

  void Requests(const std::string& service) {
    const std::set<std::string>& devices = devices_[service];
    Check(Suffix("request-get", service), [&]() -> std::string {
      if (devices.empty()) return "SKIP no device was found to ask";
      // A device may sleep through a get (the time-out answers it); another must answer.
      size_t asked = 0;
      std::string silent;
      for (const std::string& device : devices) {
        if (asked++ == kMostDevicesAsked) break;
        const Answer answer = Ask(service, "get", device);
        if (answer.timed_out) {
          silent = answer.problem;
          continue;
        }
        if (!answer.problem.empty()) return answer.problem;
        if (answering_[service].empty()) answering_[service] = device;
        if (answer.error != HXF_ERROR_NONE)
          return "get device_id=" + device + " failed (error " + std::to_string(answer.error) + ": " +
                 hxf_error_name(answer.error) + ": " + answer.error_text + ")";
      }
      if (answering_[service].empty()) return silent;
      return "";
    });
    const std::string some = answering_[service];
    auto malformed = [&](const std::string& operation, const std::string& device) -> std::string {
      const Answer answer = Ask(service, operation, device);
      if (!answer.problem.empty()) return answer.problem;
      const std::string what = operation + " device_id=" + device;
      if (answer.error == HXF_ERROR_NONE) return what + ": answered as a success, not an error";
      if (!answer.has_error_property) return what + ": failed without an \"error\" property saying why";
      return "";
    };
    Check(Suffix("request-unknown-operation", service),
          [&] { return malformed(kNoSuchOperation, some.empty() ? kNoSuchDevice : some); });
    Check(Suffix("request-unknown-device", service), [&] { return malformed("get", kNoSuchDevice); });
  }

  std::string AnswersNameOffered() {
    const ProbeSnapshot probe = ProbeRead();
    const std::set<std::string> offered(services_.begin(), services_.end());
    if (offered.empty()) return "SKIP the plugin declares no services";
    // "S@NAME" is the plugin's own name for its service S, by which consumers reach this
    // provider alone when another offers S too.
    const auto offers = [&](const std::string& service) {
      const size_t at = service.find('@');
      if (at == std::string::npos) return offered.count(service) != 0;
      return offered.count(service.substr(0, at)) != 0 && service.substr(at + 1) == name_;
    };
    for (const std::string& service : probe.answered_services)
      if (!offers(service))
        return "an answer or notification named service '" + service +
               "', which the plugin does not declare";
    for (const std::string& service : probe.subscribed)
      if (!offers(service))
        return "subscribed to service '" + service + "', which the plugin does not declare";
    Consumer& seen = Seen();
    HXFramework::CMutexLock lock(seen.mutex);
    for (const Heard& heard : seen.record.heard)
      if (heard.kind == Heard::kNotification && !offers(heard.service))
        return "a notification of service '" + heard.service + "', which the plugin does not declare";
    return "";
  }

  std::string Prompt() {
    const ProbeSnapshot probe = ProbeRead();
    if (probe.longest_running > kCallbackBound)
      return "the " + probe.longest_running_kind + " callback has not returned after " +
             Ms(probe.longest_running) + " (bound " + Ms(kCallbackBound) + ")";
    if (probe.longest > kCallbackBound)
      return "the " + probe.longest_kind + " callback took " + Ms(probe.longest) + " (bound " +
             Ms(kCallbackBound) + ")";
    if (probe.callbacks == 0) return "SKIP no callback of the plugin ran";
    return "";
  }

  // Unloads on another thread so that a DestroyPlugin that never returns is a finding; the
  // child then ends at once (the parent goes on with the next check in a fresh one).
  std::string Unload(bool checking = true) {
    {
      Consumer& seen = Seen();
      HXFramework::CMutexLock lock(seen.mutex);
      seen.record.destroy_failed = false;
    }
    auto done = std::make_shared<std::promise<hxf_error_e>>();
    std::future<hxf_error_e> result = done->get_future();
    std::thread([this, done] { done->set_value(hxf_core_plugin_unload(View(name_))); }).detach();
    if (result.wait_for(kUnloadBound) != std::future_status::ready) {
      if (checking)
        std::printf("FAIL unload-returns: DestroyPlugin did not return within %s\n",
                    Ms(kUnloadBound).c_str());
      std::fflush(stdout);
      _exit(kChildGaveUp);
    }
    const hxf_error_e code = result.get();
    if (code != HXF_ERROR_NONE)
      return std::string("the unload failed (") + hxf_error_name(code) + ")";
    Consumer& seen = Seen();
    HXFramework::CMutexLock lock(seen.mutex);
    if (seen.record.destroy_failed) return "DestroyPlugin returned false (the library stays open)";
    return "";
  }

  // A thread ending as the unload returns gets kThreadsBound to be gone (polled: /proc has
  // nothing to wait on).
  std::string ThreadsLeft() {
    std::vector<std::string> left;
    const Clock::time_point deadline = Clock::now() + kThreadsBound;
    do {
      left.clear();
      for (const std::string& thread : Threads()) {
        if (threads_before_.count(thread) != 0) continue;
        const std::string name = ThreadName(thread);
        if (!GlibWorker(name)) left.push_back(thread + " (" + name + ")");
      }
      if (left.empty()) return "";
      std::this_thread::sleep_for(milliseconds(20));
    } while (Clock::now() < deadline);
    return std::to_string(left.size()) + " thread(s) started since the load still run " +
           Ms(kThreadsBound) + " after the unload: " +
           Join(left);
  }

  void Teardown(bool loaded) {
    const std::string not_loaded = "SKIP the plugin did not load";
    if (!loaded) {
      for (const char* name : {"unload-returns", "no-threads-left", "library-unmapped", "three-loads"})
        Check(name, [&] { return not_loaded; });
      return;
    }
    const std::string path = PluginPath(plugin_);
    // A fresh child after a crash must load it first, silently.
    if (!Check("unload-returns", [&] { return Unload(); })) Unload(false);
    Check("no-threads-left", [&] { return ThreadsLeft(); });
    Check("library-unmapped", [&]() -> std::string {
      if (Mapped(path)) return path + " is still mapped after the unload";
      return "";
    });
    Check("three-loads", [&]() -> std::string {
      for (int round = 2; round <= 3; ++round) {
        const std::string which = "load " + std::to_string(round) + ": ";
        {
          Consumer& seen = Seen();
          HXFramework::CMutexLock lock(seen.mutex);
          seen.record.load_callbacks = 0;
        }
        if (hxf_core_plugin_load(View(plugin_), &OnLoaded, nullptr) != HXF_ERROR_NONE)
          return which + "the core refused it: " + LoadFailureReason(plugin_);
        AwaitFor(kLoadBound, [](Record& seen) { return seen.load_callbacks > 0; });
        if (!services_.empty()) {
          const int tag = ++tag_;
          hxf_core_client_get_device_list(client_, View(services_.front()), &OnList, kListTimeout,
                                          TagData(tag));
          AwaitFor(milliseconds(kListTimeout) + kLateness, [&](Record& seen) {
            for (const Heard& heard : seen.heard)
              if (heard.tag == tag) return true;
            return false;
          });
        }
        const std::string unload = Unload(false);
        if (!unload.empty()) return which + unload;
        if (Mapped(path)) return which + path + " is still mapped after the unload";
        const std::string threads = ThreadsLeft();
        if (!threads.empty()) return which + threads;
      }
      return "";
    });
  }

  const std::string plugin_, name_;
  const int first_;
  const std::vector<std::string> services_;
  hxf_client_h client_ = nullptr;
  std::set<std::string> threads_before_;
  int index_ = 0;
  int tag_ = 0;
  std::map<std::string, std::set<std::string>> devices_;
  std::map<std::string, hxf_service_session_h> sessions_;
  std::map<std::string, std::string> answering_;  // per service, a device that answered a get
};

// ---- the parent ----

// The sanitizer's report that `line` of a child's stderr starts, as "NAME: what", or empty:
// "==12==ERROR: AddressSanitizer: heap-use-after-free on ...", "==12==ERROR: LeakSanitizer:
// detected memory leaks", "WARNING: ThreadSanitizer: data race ...", and UBSan's
// "file.c:12:5: runtime error: signed integer overflow: ...".
std::string SanitizerReport(const std::string& line) {
  for (const char* start : {"ERROR: ", "WARNING: "}) {
    const size_t at = line.find(start);
    if (at == std::string::npos) continue;
    const std::string rest = line.substr(at + std::strlen(start));
    const size_t colon = rest.find(": ");
    if (colon != std::string::npos && colon >= 9 &&
        rest.compare(colon - 9, 9, "Sanitizer") == 0 && rest.find(' ') > colon)
      return rest;
  }
  const size_t at = line.find(": runtime error: ");
  if (at != std::string::npos)
    return "UndefinedBehaviorSanitizer: " + line.substr(at + 2) + " (" + line.substr(0, at) + ")";
  return "";
}

class CParent {
 public:
  CParent(const COutput& out, std::string plugin) : out_(out), plugin_(std::move(plugin)) {}

  int Run() {
    const std::string path = PluginPath(plugin_);
    struct stat status {};
    if (stat(path.c_str(), &status) != 0) {
      out_.Fail("check-plugin: no plugin library at " + path, COutput::kNoCode, {{"plugin", plugin_}});
      return kFailed;
    }
    PluginInfo info;
    info.name = PluginName(plugin_);
    info.path = path;
    ReadPluginInfo(path, &info.info);
    services_ = info.Services();
    Report("exports", ExportsProblem(path));
    int first = 0;
    while (first >= 0) first = Child(first);
    return failed_ ? kFailed : kOk;
  }

 private:
  void Report(const std::string& name, const std::string& problem) {
    if (problem.empty()) return Line("PASS " + name);
    if (problem.rfind("SKIP ", 0) == 0) return Line("SKIP " + name + ": " + problem.substr(5));
    Line("FAIL " + name + ": " + problem);
  }

  // A child's line (PASS, FAIL or SKIP), printed or made an event.
  void Line(const std::string& line) {
    const size_t space = line.find(' ');
    const std::string verdict = line.substr(0, space);
    std::string rest = space == std::string::npos ? "" : line.substr(space + 1);
    const size_t colon = rest.find(": ");
    const std::string name = rest.substr(0, colon);
    const std::string reason = colon == std::string::npos ? "" : rest.substr(colon + 2);
    if (verdict == "FAIL") failed_ = true;
    if (!out_.Json()) return out_.Say(line);
    nlohmann::json event{{"check", name}, {"result", verdict == "PASS" ? "pass" : verdict == "FAIL" ? "fail" : "skip"}};
    if (!reason.empty()) event["reason"] = reason;
    out_.Emit("check", event);
  }

  // Runs a child from check `first`; the check to start the next child from, or -1 when done.
  int Child(int first) {
    int pipe_ends[2];
    if (pipe2(pipe_ends, O_CLOEXEC) != 0) {
      Report("child", "cannot make a pipe: " + std::string(std::strerror(errno)));
      return -1;
    }
    char self[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", self, sizeof self - 1);
    self[length > 0 ? length : 0] = '\0';
    const std::string from = std::to_string(first), services = Join(services_);
    std::vector<char*> argv{self, const_cast<char*>(kCheckPluginChild),
                            const_cast<char*>(plugin_.c_str()), const_cast<char*>(from.c_str()),
                            const_cast<char*>(services.c_str()), nullptr};
    // The child's stderr goes into the same pipe, so that a sanitizer's report arrives in its
    // place among the checks' lines. The core's and the plugin's log would interleave with the
    // lines: they are shown only with a log level.
    const bool show_log = std::getenv("HXF_LOG_LEVEL") != nullptr;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDOUT_FILENO);
    posix_spawn_file_actions_adddup2(&actions, pipe_ends[1], STDERR_FILENO);
    pid_t child = -1;
    const int spawned = posix_spawn(&child, self, &actions, nullptr, argv.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    close(pipe_ends[1]);
    if (spawned != 0) {
      close(pipe_ends[0]);
      Report("child", "cannot start " + std::string(self) + ": " + std::strerror(spawned));
      return -1;
    }
    std::string running;  // the check under way
    int running_index = -1;
    bool ended = false, hung = false;
    std::string buffer;
    std::string report;       // the first sanitizer report of this child
    std::string reported_in;  // the check under way then
    // Until the child closes its end: after END it may still write (a leak report at exit).
    for (;;) {
      pollfd wait{pipe_ends[0], POLLIN, 0};
      const int ready = poll(&wait, 1, kChildSilenceSeconds * 1000);
      if (ready < 0 && errno == EINTR) continue;
      if (ready == 0) {
        hung = true;
        kill(child, SIGKILL);
        break;
      }
      char chunk[4096];
      const ssize_t got = read(pipe_ends[0], chunk, sizeof chunk);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) break;
      buffer.append(chunk, static_cast<size_t>(got));
      for (size_t end; (end = buffer.find('\n')) != std::string::npos; buffer.erase(0, end + 1)) {
        const std::string line = buffer.substr(0, end);
        const std::string verdict = line.substr(0, 5);
        if (line == "END") {
          ended = true;
        } else if (!ended && line.rfind("BEGIN ", 0) == 0) {
          std::istringstream words(line.substr(6));
          words >> running_index >> running;
        } else if (!ended && (verdict == "PASS " || verdict == "FAIL " || verdict == "SKIP ")) {
          Line(line);
          running.clear();
        } else {
          if (show_log) std::fprintf(stderr, "%s\n", line.c_str());
          if (report.empty()) {
            report = SanitizerReport(line);
            reported_in = running;
          }
        }
      }
    }
    close(pipe_ends[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    const std::string exit_text =
        WIFSIGNALED(status) ? "the plugin crashed the checking process (signal " +
                                  std::to_string(WTERMSIG(status)) + ", " +
                                  strsignal(WTERMSIG(status)) + ")"
        : WIFEXITED(status) && WEXITSTATUS(status) != 0 && WEXITSTATUS(status) != kChildGaveUp
            ? "the checking process exited with code " + std::to_string(WEXITSTATUS(status))
            : "";
    if (running.empty()) {
      // A sanitizer's report, or an exit that was no success, between or after the checks.
      if (!report.empty())
        Report("sanitizer", report + (reported_in.empty() ? "" : " during " + reported_in) +
                                (exit_text.empty() ? "" : "; " + exit_text));
      else if (!exit_text.empty() && !hung)
        Report("process-exit", exit_text + " after its checks");
      if (ended) return -1;
      // Died between checks (after a FAIL it printed itself, such as a hung unload).
      return running_index >= 0 ? running_index + 1 : -1;
    }
    std::string why;
    if (hung)
      why = "printed nothing for " + std::to_string(kChildSilenceSeconds) + " s; the process was killed";
    else if (!exit_text.empty())
      why = exit_text + " in the middle of the check";
    else
      why = "the checking process ended in the middle of the check";
    Report(running, why + (report.empty() ? "" : ": " + report));
    return running_index + 1;
  }

  const COutput& out_;
  const std::string plugin_;
  std::vector<std::string> services_;
  bool failed_ = false;
};

}  // namespace

int CheckPlugin(const COutput& out, const std::string& plugin) {
  return CParent(out, plugin).Run();
}

int CheckPluginChild(int argc, char** argv) {
  if (argc < 5) return kUsage;
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  return CChild(argv[2], std::atoi(argv[3]), Split(argv[4])).Run();
}

}  // namespace hxf_tool
