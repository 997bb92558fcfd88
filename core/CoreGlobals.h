#pragma once

#include <string>

namespace HXFramework::Core {

// Process-wide strings, created at library load. The caller name and version are written
// by hxf_core_initialize without a lock; initialisation runs before other threads use the
// library.
extern const std::string g_app_id;
extern std::string g_caller_name;
extern std::string g_app_version;
extern const std::string g_plugin_dir;
extern const std::string g_plugin_prefix;
extern const std::string g_plugin_suffix;
// Whether a plugin may also be loaded from a path (host builds; the device has one folder).
extern const bool g_plugin_paths;

}  // namespace HXFramework::Core
