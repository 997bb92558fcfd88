#include "CPluginInfo.h"

#include <dirent.h>
#include <elf.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace hxf_tool {

namespace {

constexpr char kSection[] = ".hxf_plugin_info";

// The reader takes its bytes from a file or from memory. Every offset and length comes from
// the file itself, so each is checked against the size before anything is allocated.
class FileBytes {
 public:
  explicit FileBytes(const std::string& path) : file_(path, std::ios::binary) {
    if (file_ && file_.seekg(0, std::ios::end)) size_ = static_cast<uint64_t>(file_.tellg());
  }
  bool Open() const { return static_cast<bool>(file_); }
  uint64_t Size() const { return size_; }
  bool ReadAt(uint64_t offset, void* to, size_t size) {
    file_.clear();
    file_.seekg(static_cast<std::streamoff>(offset));
    file_.read(static_cast<char*>(to), static_cast<std::streamsize>(size));
    return static_cast<size_t>(file_.gcount()) == size;
  }

 private:
  std::ifstream file_;
  uint64_t size_ = 0;
};

class MemoryBytes {
 public:
  MemoryBytes(const void* data, size_t size) : data_(static_cast<const char*>(data)), size_(size) {}
  uint64_t Size() const { return size_; }
  bool ReadAt(uint64_t offset, void* to, size_t size) {
    if (size != 0) std::memcpy(to, data_ + offset, size);  // Fits: checked by Within
    return true;
  }

 private:
  const char* data_;
  size_t size_;
};

template <typename Bytes>
bool Within(const Bytes& bytes, uint64_t offset, uint64_t size) {
  return offset <= bytes.Size() && size <= bytes.Size() - offset;
}

template <typename Bytes>
bool ReadChecked(Bytes& bytes, uint64_t offset, void* to, uint64_t size) {
  return Within(bytes, offset, size) && bytes.ReadAt(offset, to, static_cast<size_t>(size));
}

// The bytes of section `wanted`, or nothing; one template for both ELF classes.
template <typename Ehdr, typename Shdr, typename Bytes>
bool SectionBytes(Bytes& file, const char* wanted, std::string* bytes) {
  Ehdr header;
  if (!ReadChecked(file, 0, &header, sizeof header) || header.e_shentsize != sizeof(Shdr)) return false;
  std::vector<Shdr> sections;
  const uint64_t table_size = uint64_t{header.e_shnum} * sizeof(Shdr);
  if (header.e_shnum == 0 || header.e_shstrndx >= header.e_shnum ||
      !Within(file, header.e_shoff, table_size)) {
    return false;
  }
  sections.resize(header.e_shnum);
  if (!ReadChecked(file, header.e_shoff, sections.data(), table_size)) return false;
  const Shdr& names_header = sections[header.e_shstrndx];
  if (!Within(file, names_header.sh_offset, names_header.sh_size)) return false;
  std::string names(static_cast<size_t>(names_header.sh_size), '\0');
  if (!ReadChecked(file, names_header.sh_offset, names.data(), names.size())) return false;
  bytes->clear();
  for (const Shdr& section : sections) {
    if (section.sh_name >= names.size() ||
        std::strcmp(names.c_str() + section.sh_name, wanted) != 0)
      continue;
    if (section.sh_type == SHT_NOBITS) return true;
    if (!Within(file, section.sh_offset, section.sh_size)) return false;
    bytes->resize(static_cast<size_t>(section.sh_size));
    return ReadChecked(file, section.sh_offset, bytes->data(), bytes->size());
  }
  return true;  // no such section
}

// `bytes` as one line of UTF-8 text: a byte that starts no valid character (a stray or
// overlong form, a surrogate, beyond U+10FFFF) and a control character each become U+FFFD.
// Whatever lies in the plugin folder ends up on a terminal and in --json lines.
std::string Text(const std::string& bytes) {
  static const char kReplacement[] = "\xef\xbf\xbd";
  std::string text;
  for (size_t at = 0; at < bytes.size();) {
    const auto byte = static_cast<unsigned char>(bytes[at]);
    size_t length = byte < 0x80 ? 1 : byte >= 0xc2 && byte <= 0xdf ? 2 : byte >= 0xe0 && byte <= 0xef ? 3
                                  : byte >= 0xf0 && byte <= 0xf4 ? 4 : 0;
    uint32_t point = length == 1 ? byte : length == 2 ? byte & 0x1f : length == 3 ? byte & 0x0f : byte & 0x07;
    for (size_t i = 1; i < length; ++i) {
      const auto next = at + i < bytes.size() ? static_cast<unsigned char>(bytes[at + i]) : 0;
      if ((next & 0xc0) != 0x80) {
        length = 0;
        break;
      }
      point = point << 6 | (next & 0x3f);
    }
    const bool valid = length != 0 && point >= 0x20 && point != 0x7f && !(point >= 0x80 && point < 0xa0) &&
                       !(length == 3 && point < 0x800) && !(length == 4 && (point < 0x10000 || point > 0x10ffff)) &&
                       !(point >= 0xd800 && point <= 0xdfff);
    if (valid) {
      text.append(bytes, at, length);
    } else {
      text += kReplacement;
    }
    at += valid ? length : 1;
  }
  return text;
}

template <typename Bytes>
bool ReadInfo(Bytes& file, std::map<std::string, std::string>* info) {
  unsigned char ident[EI_NIDENT] = {};
  if (!ReadChecked(file, 0, ident, sizeof ident) || std::memcmp(ident, ELFMAG, SELFMAG) != 0)
    return false;
  // Plugins are built for the machine the tool runs on: another byte order is no plugin.
  constexpr unsigned char kOrder = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__ ? ELFDATA2LSB : ELFDATA2MSB;
  if (ident[EI_DATA] != kOrder) return false;
  std::string bytes;
  bool read = false;
  if (ident[EI_CLASS] == ELFCLASS64) {
    read = SectionBytes<Elf64_Ehdr, Elf64_Shdr>(file, kSection, &bytes);
  } else if (ident[EI_CLASS] == ELFCLASS32) {
    read = SectionBytes<Elf32_Ehdr, Elf32_Shdr>(file, kSection, &bytes);
  }
  if (!read) return false;
  info->clear();
  // NUL-terminated KEY=VALUE texts, possibly padded with more NULs.
  for (size_t at = 0; at < bytes.size();) {
    const size_t end = std::min(bytes.find('\0', at), bytes.size());
    const std::string entry = bytes.substr(at, end - at);
    const size_t equals = entry.find('=');
    if (equals != std::string::npos) (*info)[Text(entry.substr(0, equals))] = Text(entry.substr(equals + 1));
    at = end + 1;
  }
  return true;
}

}  // namespace

std::string PluginInfo::Description() const {
  const auto found = info.find("description");
  return found != info.end() ? found->second : "(no description)";
}

std::vector<std::string> PluginInfo::Services() const {
  std::vector<std::string> services;
  const auto declared = info.find("services");
  const auto config = info.find("config_env");
  if (declared == info.end()) return services;
  if (config != info.end()) {
    const char* value = std::getenv(config->second.c_str());
    if (value != nullptr && *value != '\0') return services;
  }
  const std::string& list = declared->second;
  for (size_t at = 0; at <= list.size();) {
    const size_t end = std::min(list.find(',', at), list.size());
    const size_t first = list.find_first_not_of(' ', at);
    const size_t last = list.find_last_not_of(' ', end == 0 ? 0 : end - 1);
    if (first < end && last != std::string::npos && last >= first)
      services.push_back(list.substr(first, last - first + 1));
    at = end + 1;
  }
  return services;
}

bool ReadPluginInfo(const std::string& path, std::map<std::string, std::string>* info) {
  FileBytes file(path);
  return file.Open() && ReadInfo(file, info);
}

bool ReadPluginInfo(const void* data, size_t size, std::map<std::string, std::string>* info) {
  MemoryBytes bytes(data, size);
  return ReadInfo(bytes, info);
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
        file.compare(file.size() - kSuffix.size(), kSuffix.size(), kSuffix) != 0 || Text(file) != file) {
      continue;  // not a plugin's name, or no name that can be shown
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
