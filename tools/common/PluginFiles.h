// The plugin folder as the core sees it, shared by hxf and hxfd: where a plugin's library
// lies, why the core could not load it, and which name a plugin reports its load under.
#pragma once

#include <string>

#include "hxf_core.h"

namespace hxf_tool {

// The core's plugin folder (fixed when the core is built), ending in '/'.
std::string PluginFolder();
// Where the core looks for plugin `name`: PluginFolder() + "libhxf-plugin-NAME.so", or `name`
// itself when it is a path.
std::string PluginPath(const std::string& name);
// Whether a --plugin argument is a library's path (it has a '/'), which host builds load.
bool IsPluginPath(const std::string& plugin);
// The name `plugin` loads and reports under: NAME of a path's "libhxf-plugin-NAME.so".
std::string PluginName(const std::string& plugin);
// Why the core refuses the path `plugin` at once, in words; empty when a host build takes it.
std::string PluginPathProblem(const std::string& plugin);
// Why a device build refuses every path, in words.
std::string PluginPathRefusal();

// Why the core could not load `plugin`, in words: the library is missing or cannot be opened
// (dlerror's text), lacks an entry point, or the plugin itself reported the failure.
std::string LoadFailureReason(const std::string& plugin);

// Called with every load result a plugin reports (hxf_core_plugin_send_load_result), on the
// reporting thread, before the core takes it; `data` is the pointer given with it.
using LoadReportWatcher = void (*)(const std::string& name, hxf_plugin_load_result_e result,
                                   void* data);
// Installs `watcher` (null removes it). Returns when no earlier watcher runs any more, so
// that its data may go. The core drops a report under a name it does not know and logs no
// name; the watcher is how a host learns the name a plugin used.
void WatchLoadReports(LoadReportWatcher watcher, void* data);

}  // namespace hxf_tool
