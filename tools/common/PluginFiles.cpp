#include "PluginFiles.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CLocks.h"

namespace hxf_tool {

std::string PluginFolder() {
  return HXF_TOOL_PLUGIN_DIR;
}

std::string PluginPath(const std::string& name) {
  return IsPluginPath(name) ? name : PluginFolder() + "libhxf-plugin-" + name + ".so";
}

bool IsPluginPath(const std::string& plugin) {
  return plugin.find('/') != std::string::npos;
}

namespace {
constexpr char kPrefix[] = "libhxf-plugin-";
constexpr char kSuffix[] = ".so";
}  // namespace

std::string PluginName(const std::string& plugin) {
  if (!IsPluginPath(plugin)) return plugin;
  const std::string file = plugin.substr(plugin.rfind('/') + 1);
  const size_t prefix = sizeof kPrefix - 1;
  const size_t suffix = sizeof kSuffix - 1;
  if (file.size() <= prefix + suffix || file.compare(0, prefix, kPrefix) != 0 ||
      file.compare(file.size() - suffix, suffix, kSuffix) != 0)
    return file;
  return file.substr(prefix, file.size() - prefix - suffix);
}

std::string PluginPathRefusal() {
  return "this build loads plugins by name from " + PluginFolder() + " only, not from a path";
}

std::string PluginPathProblem(const std::string& plugin) {
  if (!IsPluginPath(plugin)) return "";
  const std::string file = plugin.substr(plugin.rfind('/') + 1);
  if (PluginName(plugin) == file)
    return "not a plugin library: its file name must be libhxf-plugin-NAME.so";
  struct stat status {};
  if (stat(plugin.c_str(), &status) != 0) return "no such file";
  if (!S_ISREG(status.st_mode)) return "not a file";
  return "";
}

// The core only reports that a load failed (its log names no reason), so look where and as
// the core does: the same path, the same dlopen flags. A library the core holds open is only
// referenced again, so none of its code runs here.
std::string LoadFailureReason(const std::string& plugin) {
  const std::string path = PluginPath(plugin);
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

namespace {

struct Watch {
  HXFramework::CMutex mutex;  // held while a watcher runs, so that removing it waits for the call
  LoadReportWatcher watcher HXF_GUARDED_BY(mutex) = nullptr;
  void* data HXF_GUARDED_BY(mutex) = nullptr;
};

Watch& TheWatch() {
  static Watch watch;
  return watch;
}

}  // namespace

void WatchLoadReports(LoadReportWatcher watcher, void* data) {
  Watch& watch = TheWatch();
  HXFramework::CMutexLock lock(watch.mutex);
  watch.watcher = watcher;
  watch.data = data;
}

}  // namespace hxf_tool

// Deliberately defined in the executable: a plugin's call resolves to the first definition in
// the dynamic linker's search order, which is the executable's, so every report passes here
// and goes on to the core's own function unchanged.
extern "C" __attribute__((visibility("default"))) hxf_error_e hxf_core_plugin_send_load_result(
    hxf_string_t plugin_name, hxf_plugin_load_result_e result) {
  using Forward = hxf_error_e (*)(hxf_string_t, hxf_plugin_load_result_e);
  static const auto core =
      reinterpret_cast<Forward>(dlsym(RTLD_NEXT, "hxf_core_plugin_send_load_result"));
  {
    hxf_tool::Watch& watch = hxf_tool::TheWatch();
    HXFramework::CMutexLock lock(watch.mutex);
    if (watch.watcher != nullptr && (plugin_name.str != nullptr || plugin_name.len == 0))
      watch.watcher(std::string(plugin_name.str != nullptr ? plugin_name.str : "", plugin_name.len),
                    result, watch.data);
  }
  return core != nullptr ? core(plugin_name, result) : HXF_ERROR_OPERATION_FAILED;
}
