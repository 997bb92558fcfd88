#pragma once

#include <string>

namespace HXFramework::Core {

// The library a load names. A bare name lies in the plugin folder; an argument with a '/'
// is the library's own path (host builds only), and the plugin's name is NAME of its file
// name "libhxf-plugin-NAME.so".
struct PluginFile {
  std::string name;  // what the plugin is registered, logged and reported under
  std::string path;  // absolute; empty: the plugin folder's file for `name`
};

// Throws CException: HXF_ERROR_INVALID_PARAMETER for a path where `paths_allowed` is false
// or whose file name is not "libhxf-plugin-NAME.so"; HXF_ERROR_NOT_FOUND for a path to no
// regular file.
PluginFile ResolvePluginFile(const std::string& argument, bool paths_allowed);

}  // namespace HXFramework::Core
