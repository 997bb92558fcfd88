// What hxf reads of a plugin library without loading it: the info section of a real plugin,
// and files in the plugin folder that are cut short or corrupt.
#include <elf.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <map>
#include <string>
#include <vector>

#include "CPluginInfo.h"

namespace {

using Info = std::map<std::string, std::string>;

const std::string kSimulator = std::string(HXF_TEST_PLUGIN_DIR) + "libhxf-plugin-sim.so";

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

class PluginInfo : public ::testing::Test {
 protected:
  void SetUp() override {
    library_ = ReadFile(kSimulator);
    ASSERT_GT(library_.size(), sizeof(Elf64_Ehdr)) << kSimulator;
    ASSERT_EQ(library_[EI_CLASS], ELFCLASS64);
  }
  Elf64_Ehdr Header() const {
    Elf64_Ehdr header;
    std::memcpy(&header, library_.data(), sizeof header);
    return header;
  }
  void SetHeader(const Elf64_Ehdr& header) { std::memcpy(library_.data(), &header, sizeof header); }
  // The section header of the section names.
  Elf64_Shdr* NamesSection() {
    const Elf64_Ehdr header = Header();
    return reinterpret_cast<Elf64_Shdr*>(library_.data() + header.e_shoff) + header.e_shstrndx;
  }
  // Reads `bytes` from memory and, written to a file, from the file: both must agree.
  bool Read(const std::string& bytes, Info* info) {
    Info from_file;
    const std::string path = Scratch() + ".so";
    std::ofstream(path, std::ios::binary | std::ios::trunc) << bytes;
    const bool read_file = hxf_tool::ReadPluginInfo(path, &from_file);
    std::remove(path.c_str());
    const bool read = hxf_tool::ReadPluginInfo(bytes.data(), bytes.size(), info);
    EXPECT_EQ(read, read_file);
    if (read) {
      EXPECT_EQ(*info, from_file);
    }
    return read;
  }

  // A path of this test's own: ctest runs tests side by side.
  static std::string Scratch() {
    return ::testing::TempDir() + "plugin-info-" + ::testing::UnitTest::GetInstance()->current_test_info()->name() +
           "-" + std::to_string(getpid());
  }

  std::string library_;
};

TEST_F(PluginInfo, ReadsTheSimulatorsDescriptionFromTheFileAndFromMemory) {
  Info info;
  ASSERT_TRUE(Read(library_, &info));
  ASSERT_EQ(info.count("description"), 1u);
  EXPECT_EQ(info["description"].rfind("a simulated home", 0), 0u) << info["description"];
}

TEST_F(PluginInfo, MissingFileIsNoPlugin) {
  Info info;
  EXPECT_FALSE(hxf_tool::ReadPluginInfo(std::string(HXF_TEST_PLUGIN_DIR) + "libhxf-plugin-none.so", &info));
}

TEST_F(PluginInfo, LibraryCutShortIsNoPlugin) {
  for (size_t size : {size_t{0}, size_t{3}, size_t{EI_NIDENT}, sizeof(Elf64_Ehdr), library_.size() / 2,
                      library_.size() - 1}) {
    Info info;
    EXPECT_FALSE(Read(library_.substr(0, size), &info)) << size << " bytes";
  }
}

// Regression: a section size beyond the file was allocated as given (std::bad_alloc out of
// `hxf plugins` for one corrupt file in the plugin folder).
TEST_F(PluginInfo, SectionSizeBeyondTheFileIsRefusedWithoutAllocatingIt) {
  NamesSection()->sh_size = uint64_t{1} << 62;
  Info info;
  bool read = true;
  EXPECT_NO_THROW(read = Read(library_, &info));
  EXPECT_FALSE(read);
}

TEST_F(PluginInfo, SectionTableBeyondTheFileIsRefused) {
  for (uint64_t offset : {UINT64_MAX - 8, uint64_t{library_.size()}, uint64_t{library_.size()} - 8}) {
    Elf64_Ehdr header = Header();
    header.e_shoff = offset;
    SetHeader(header);
    Info info;
    EXPECT_FALSE(Read(library_, &info)) << offset;
  }
}

TEST_F(PluginInfo, SectionNamesIndexOutOfTheTableIsRefused) {
  Elf64_Ehdr header = Header();
  header.e_shstrndx = header.e_shnum;
  SetHeader(header);
  Info info;
  EXPECT_FALSE(Read(library_, &info));
}

TEST_F(PluginInfo, OtherByteOrderOrClassIsNoPlugin) {
  for (const auto& [at, value] : {std::pair<int, char>{EI_DATA, ELFDATA2MSB}, {EI_DATA, ELFDATANONE},
                                  {EI_CLASS, ELFCLASSNONE}, {EI_CLASS, 7}}) {
    std::string bytes = library_;
    bytes[at] = value;
    Info info;
    EXPECT_FALSE(Read(bytes, &info)) << at << "=" << int{value};
  }
}

// Regression: `hxf plugins --json` aborted (a JSON type error) on a description that is not
// UTF-8, and the text listing passed control characters to the terminal.
TEST_F(PluginInfo, TextThatIsNotUtf8OrControlIsReadWithReplacementCharacters) {
  const size_t at = library_.find("description=a simulated home");
  ASSERT_NE(at, std::string::npos);
  library_.replace(at + 12, 6, "\xff\xc0\xaf\x1b\xed\xa0", 6);  // was "a simu"
  Info info;
  ASSERT_TRUE(Read(library_, &info));
  const std::string r = "\xef\xbf\xbd";
  EXPECT_EQ(info["description"].substr(0, 6 * r.size() + 12), r + r + r + r + r + r + "lated home: ");
}

TEST_F(PluginInfo, FileNameThatIsNotUtf8IsNotListed) {
  const std::string folder = Scratch() + "/";
  ASSERT_EQ(system(("rm -rf '" + folder + "' && mkdir '" + folder + "'").c_str()), 0);
  for (const std::string name : {"libhxf-plugin-good.so", "libhxf-plugin-\xff.so", "libhxf-plugin-\x1b[2J.so"}) {
    std::ofstream(folder + name, std::ios::binary) << library_;
  }
  const std::vector<hxf_tool::PluginInfo> plugins = hxf_tool::ListPlugins(folder);
  ASSERT_EQ(plugins.size(), 1u);
  EXPECT_EQ(plugins[0].name, "good");
  EXPECT_EQ(plugins[0].Description().rfind("a simulated home", 0), 0u);
  ASSERT_EQ(system(("rm -rf '" + folder + "'").c_str()), 0);
}

TEST_F(PluginInfo, LibraryWithoutTheSectionDescribesNothing) {
  const Elf64_Shdr* names = NamesSection();
  const size_t at = library_.find(".hxf_plugin_info", names->sh_offset);
  ASSERT_LT(at, names->sh_offset + names->sh_size);
  library_[at + 1] = 'X';
  Info info{{"stale", "value"}};
  ASSERT_TRUE(Read(library_, &info));
  EXPECT_TRUE(info.empty());
}

}  // namespace
