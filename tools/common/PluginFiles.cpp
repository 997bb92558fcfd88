#include "PluginFiles.h"

#include <dlfcn.h>
#include <unistd.h>

#include <mutex>

namespace hxf_tool {

std::string PluginFolder() {
  return HXF_TOOL_PLUGIN_DIR;
}

std::string PluginPath(const std::string& name) {
  return PluginFolder() + "libhxf-plugin-" + name + ".so";
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
  std::mutex mutex;  // held while a watcher runs, so that removing it waits for the call
  LoadReportWatcher watcher = nullptr;
  void* data = nullptr;
};

Watch& TheWatch() {
  static Watch watch;
  return watch;
}

}  // namespace

void WatchLoadReports(LoadReportWatcher watcher, void* data) {
  Watch& watch = TheWatch();
  std::lock_guard<std::mutex> lock(watch.mutex);
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
    std::lock_guard<std::mutex> lock(watch.mutex);
    if (watch.watcher != nullptr && (plugin_name.str != nullptr || plugin_name.len == 0))
      watch.watcher(std::string(plugin_name.str != nullptr ? plugin_name.str : "", plugin_name.len),
                    result, watch.data);
  }
  return core != nullptr ? core(plugin_name, result) : HXF_ERROR_OPERATION_FAILED;
}
