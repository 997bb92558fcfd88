// hxf check-plugin NAME|PATH: whether a plugin keeps the contracts the core and its
// consumers rely on. The plugin runs in a child process (this executable again, in the
// hidden mode kCheckPluginChild) so that a crash or a hang is a finding; the parent prints
// one line per check and starts a fresh child after a child that died.
#pragma once

#include <string>

#include "COutput.h"

namespace hxf_tool {

// argv[1] of the child mode: hxf --check-plugin-child PLUGIN FIRST SERVICES
constexpr const char* kCheckPluginChild = "--check-plugin-child";

// Runs every check of `plugin` (a name or a path) and prints them: 0 when none failed, 1
// otherwise.
int CheckPlugin(const COutput& out, const std::string& plugin);
// The child: argv as given to main().
int CheckPluginChild(int argc, char** argv);

}  // namespace hxf_tool
