#include "PluginFile.h"

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include "CException.h"
#include "CoreGlobals.h"

namespace HXFramework::Core {

PluginFile ResolvePluginFile(const std::string& argument, bool paths_allowed) {
  const std::string::size_type slash = argument.rfind('/');
  if (slash == std::string::npos) return PluginFile{argument, ""};
  if (!paths_allowed)
    throw CException("plugins load from their folder only, not from a path: " + argument,
                     HXF_ERROR_INVALID_PARAMETER);
  const std::string file = argument.substr(slash + 1);
  const bool named = file.size() > g_plugin_prefix.size() + g_plugin_suffix.size() &&
                     file.compare(0, g_plugin_prefix.size(), g_plugin_prefix) == 0 &&
                     file.compare(file.size() - g_plugin_suffix.size(), std::string::npos,
                                  g_plugin_suffix) == 0;
  if (!named || argument.find('\0') != std::string::npos)
    throw CException("not a plugin library (" + g_plugin_prefix + "NAME" + g_plugin_suffix +
                         "): " + argument,
                     HXF_ERROR_INVALID_PARAMETER);
  struct stat status {};
  if (stat(argument.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
    throw CException("no plugin library at " + argument, HXF_ERROR_NOT_FOUND);
  // Anchored now: the library is opened later on a pool thread, when the working directory
  // may have changed.
  std::string path = argument;
  if (path[0] != '/') {
    char cwd[PATH_MAX];
    if (getcwd(cwd, sizeof cwd) == nullptr)
      throw CException("no working directory for " + argument, HXF_ERROR_NOT_FOUND);
    path = std::string(cwd) + "/" + argument;
  }
  return PluginFile{file.substr(g_plugin_prefix.size(),
                                file.size() - g_plugin_prefix.size() - g_plugin_suffix.size()),
                    path};
}

}  // namespace HXFramework::Core
