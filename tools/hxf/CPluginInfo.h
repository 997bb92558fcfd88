// What a plugin library says about itself, read from the file without loading it: the
// KEY=VALUE texts its HXF_PLUGIN_INFO() lines put into the ELF section ".hxf_plugin_info".
#pragma once

#include <cstddef>
#include <map>
#include <string>
#include <vector>

namespace hxf_tool {

struct PluginInfo {
  std::string name;  // NAME of libhxf-plugin-NAME.so
  std::string path;
  std::map<std::string, std::string> info;  // empty when the library describes nothing

  std::string Description() const;
  bool Hidden() const { return info.count("hidden") != 0; }
  // The services it declares (`services`, comma-separated), in their order. Empty when it
  // declares none, or when the variable its `config_env` names is set in this process: the
  // configuration the plugin then reads may offer others. Empty means "may offer any".
  std::vector<std::string> Services() const;
};

// Reads the info section of the ELF file at `path` (32 or 64 bit, in this machine's byte
// order: plugins are built for the machine the tool runs on). False when the file cannot be
// read or is no ELF file; a library without the section gives an empty map.
bool ReadPluginInfo(const std::string& path, std::map<std::string, std::string>* info);
// The same from a file's bytes in memory.
bool ReadPluginInfo(const void* data, size_t size, std::map<std::string, std::string>* info);

// Every libhxf-plugin-NAME.so in `folder`, sorted by name, with what each says of itself.
std::vector<PluginInfo> ListPlugins(const std::string& folder);

}  // namespace hxf_tool
