#include "CPluginInfo.h"

#include <dirent.h>
#include <elf.h>

#include <algorithm>
#include <cstring>
#include <fstream>

namespace hxf_tool {

namespace {

constexpr char kSection[] = ".hxf_plugin_info";

bool ReadAt(std::ifstream& file, uint64_t offset, void* to, size_t size) {
  file.seekg(static_cast<std::streamoff>(offset));
  file.read(static_cast<char*>(to), static_cast<std::streamsize>(size));
  return static_cast<size_t>(file.gcount()) == size;
}

// The bytes of section `wanted`, or nothing; one template for both ELF classes.
template <typename Ehdr, typename Shdr>
bool SectionBytes(std::ifstream& file, const char* wanted, std::string* bytes) {
  Ehdr header;
  if (!ReadAt(file, 0, &header, sizeof header) || header.e_shentsize != sizeof(Shdr)) return false;
  std::vector<Shdr> sections(header.e_shnum);
  if (sections.empty() || header.e_shstrndx >= sections.size() ||
      !ReadAt(file, header.e_shoff, sections.data(), sections.size() * sizeof(Shdr))) {
    return false;
  }
  const Shdr& names_header = sections[header.e_shstrndx];
  std::string names(names_header.sh_size, '\0');
  if (!ReadAt(file, names_header.sh_offset, names.data(), names.size())) return false;
  bytes->clear();
  for (const Shdr& section : sections) {
    if (section.sh_name >= names.size() ||
        std::strcmp(names.c_str() + section.sh_name, wanted) != 0)
      continue;
    if (section.sh_type == SHT_NOBITS) return true;
    bytes->resize(section.sh_size);
    return ReadAt(file, section.sh_offset, bytes->data(), bytes->size());
  }
  return true;  // no such section
}

}  // namespace

std::string PluginInfo::Description() const {
  const auto found = info.find("description");
  return found != info.end() ? found->second : "(no description)";
}

bool ReadPluginInfo(const std::string& path, std::map<std::string, std::string>* info) {
  std::ifstream file(path, std::ios::binary);
  unsigned char ident[EI_NIDENT] = {};
  if (!file || !ReadAt(file, 0, ident, sizeof ident) || std::memcmp(ident, ELFMAG, SELFMAG) != 0)
    return false;
  std::string bytes;
  const bool read = ident[EI_CLASS] == ELFCLASS64
                        ? SectionBytes<Elf64_Ehdr, Elf64_Shdr>(file, kSection, &bytes)
                        : SectionBytes<Elf32_Ehdr, Elf32_Shdr>(file, kSection, &bytes);
  if (!read) return false;
  info->clear();
  // NUL-terminated KEY=VALUE texts, possibly padded with more NULs.
  for (size_t at = 0; at < bytes.size();) {
    const size_t end = std::min(bytes.find('\0', at), bytes.size());
    const std::string entry = bytes.substr(at, end - at);
    const size_t equals = entry.find('=');
    if (equals != std::string::npos) (*info)[entry.substr(0, equals)] = entry.substr(equals + 1);
    at = end + 1;
  }
  return true;
}

std::vector<PluginInfo> ListPlugins(const std::string& folder) {
  static const std::string kPrefix = "libhxf-plugin-";
  static const std::string kSuffix = ".so";
  std::vector<PluginInfo> plugins;
  DIR* dir = opendir(folder.c_str());
  if (dir == nullptr) return plugins;
  while (const dirent* entry = readdir(dir)) {
    const std::string file = entry->d_name;
    if (file.size() <= kPrefix.size() + kSuffix.size() || file.rfind(kPrefix, 0) != 0 ||
        file.compare(file.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0) {
      continue;
    }
    PluginInfo plugin;
    plugin.name = file.substr(kPrefix.size(), file.size() - kPrefix.size() - kSuffix.size());
    plugin.path = folder + file;
    ReadPluginInfo(plugin.path, &plugin.info);
    plugins.push_back(std::move(plugin));
  }
  closedir(dir);
  std::sort(plugins.begin(), plugins.end(),
            [](const PluginInfo& a, const PluginInfo& b) { return a.name < b.name; });
  return plugins;
}

}  // namespace hxf_tool
