#include "CoreGlobals.h"

namespace HXFramework::Core {

const std::string g_app_id = "com.velkor.tv.hexmoor-app";
std::string g_caller_name = "invalid_name";
std::string g_app_version = "invalid_version";
const std::string g_plugin_dir = HXF_PLUGIN_DIR;
const std::string g_plugin_prefix = "libhxf-plugin-";
const std::string g_plugin_suffix = ".so";
const bool g_plugin_paths = HXF_PLUGIN_PATHS;

}  // namespace HXFramework::Core
