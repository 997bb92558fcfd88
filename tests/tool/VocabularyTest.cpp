// The words hxf, hxfd, the completion and the docs share (tools/common): each doc and the
// completion lists exactly the table's words, in its order; the departure mark reads back.
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "DeviceFields.h"
#include "MonitorTypes.h"
#include "Presence.h"
#include "Provider.h"

namespace {

std::string Slurp(const std::string& relative) {
  std::ifstream in(std::string(HXF_SOURCE_DIR) + "/" + relative);
  EXPECT_TRUE(in) << relative;
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

// The text of `source` from the first match of `start` to the first `end` after it, with roff's
// font changes and escaped hyphens and line breaks undone.
std::string Between(const std::string& source, const std::string& start, const std::string& end) {
  const size_t from = source.find(start);
  EXPECT_NE(from, std::string::npos) << start;
  if (from == std::string::npos) return "";
  const size_t to = source.find(end, from + start.size());
  std::string text = source.substr(from + start.size(), to - from - start.size());
  text = std::regex_replace(text, std::regex(R"(\\f[BIR])"), "");
  text = std::regex_replace(text, std::regex(R"(\\-)"), "-");
  return std::regex_replace(text, std::regex(R"(\s+)"), " ");
}

// The words of a list such as "a, b, c and d" or "`a`, `b` or `c`", in order.
std::vector<std::string> Words(const std::string& list) {
  std::vector<std::string> words;
  const std::regex word(R"([a-z][a-z_-]*[a-z])");
  for (auto it = std::sregex_iterator(list.begin(), list.end(), word); it != std::sregex_iterator();
       ++it) {
    const std::string w = it->str();
    if (w != "and" && w != "or") words.push_back(w);
  }
  return words;
}

std::vector<std::string> DeviceKeys() {
  std::vector<std::string> keys;
  for (const hxf_tool::DeviceField& field : hxf_tool::kDeviceFields) keys.push_back(field.key);
  return keys;
}

std::vector<std::string> MonitorTypeNames() {
  return {std::begin(hxf_tool::kMonitorTypes), std::end(hxf_tool::kMonitorTypes)};
}

TEST(Vocabulary, DeviceFieldsInJsonDocAreTheTable) {
  EXPECT_EQ(Words(Between(Slurp("docs/json.md"), "A device is ", ", the same fields")),
            DeviceKeys());
}

TEST(Vocabulary, DeviceFieldsInHxfdManPageAreTheTable) {
  EXPECT_EQ(Words(Between(Slurp("docs/man/hxfd.1"), "A device is an a{sv} of ", ", all strings")),
            DeviceKeys());
}

// hxf's JSON said "name" where D-Bus said "device_name": one spelling now.
TEST(Vocabulary, DeviceNameIsSpeltOnce) {
  ASSERT_EQ(DeviceKeys().at(1), "device_name");
  EXPECT_EQ(std::string(hxf_tool::kDeviceFields[1].key), "device_name");
  EXPECT_EQ(hxf_tool::kDeviceFields[1].member, &hxf_tool::Device::name);
}

TEST(Vocabulary, MonitorTypesInJsonDocAreTheTable) {
  EXPECT_EQ(Words(Between(Slurp("docs/json.md"), "`type` (", ")")), MonitorTypeNames());
}

TEST(Vocabulary, MonitorTypesInManPagesAreTheTable) {
  EXPECT_EQ(Words(Between(Slurp("docs/man/hxf.1"), "\\fITYPE\\fR is ", ".\n")),
            MonitorTypeNames());
  EXPECT_EQ(Words(Between(Slurp("docs/man/hxfd.1"), "\\fItype\\fR is ", ".\n")),
            MonitorTypeNames());
}

TEST(Vocabulary, MonitorTypesInCompletionAreTheTable) {
  const std::string completion = Slurp("tools/hxf/hxf.bash-completion");
  const std::string type_case = Between(completion, "--type)", "return");
  EXPECT_EQ(Words(Between(type_case, "compgen -W \"", "\"")), MonitorTypeNames());
}

TEST(Vocabulary, MonitorTypeNamesFollowTheEnum) {
  EXPECT_STREQ(hxf_tool::Name(hxf_tool::MonitorType::kSearch), "search");
  EXPECT_STREQ(hxf_tool::Name(hxf_tool::MonitorType::kLost), "lost");
  EXPECT_STREQ(hxf_tool::Name(hxf_tool::MonitorType::kClientGone), "client-gone");
}

TEST(Vocabulary, DepartureMarkReadsBack) {
  hxf_tool::Device device;
  device.ui_meta = hxf_tool::MarkPresence(R"({"room":"hall"})", hxf_tool::kPresenceLeft);
  EXPECT_EQ(device.ui_meta, R"({"presence":"left","device":{"room":"hall"}})");
  EXPECT_TRUE(hxf_tool::IsDeparture(device));
  EXPECT_FALSE(hxf_tool::IsArrival(device));
  device.ui_meta = hxf_tool::MarkPresence("", hxf_tool::kPresenceArrived);
  EXPECT_EQ(device.ui_meta, R"({"presence":"arrived","device":{}})");
  EXPECT_TRUE(hxf_tool::IsArrival(device));
  EXPECT_EQ(hxf_tool::MarkPresence("{}", nullptr), "{}");
}

// The mark was looked for anywhere in the meta data: a provider's own "presence" inside it
// made a device found by a search read as one that left.
TEST(Vocabulary, AProvidersOwnPresenceIsNoDepartureMark) {
  hxf_tool::Device device;
  device.ui_meta = R"({"sensor":{"presence":"left"}})";
  EXPECT_FALSE(hxf_tool::IsDeparture(device));
  device.ui_meta = hxf_tool::MarkPresence(device.ui_meta, hxf_tool::kPresenceArrived);
  EXPECT_TRUE(hxf_tool::IsArrival(device));
  EXPECT_FALSE(hxf_tool::IsDeparture(device));
}

TEST(Vocabulary, DepartureMarkInJsonDocIsTheTable) {
  const std::string doc = Slurp("docs/json.md");
  EXPECT_NE(doc.find(hxf_tool::MarkPresence("META", hxf_tool::kPresenceLeft)), std::string::npos);
  EXPECT_NE(doc.find(hxf_tool::MarkPresence("META", hxf_tool::kPresenceArrived)),
            std::string::npos);
}

}  // namespace

// The provider the kit writes first in the meta data is read back, also from inside a
// departure mark; a "provider" elsewhere in a provider's own meta data is none.
TEST(Vocabulary, TheProviderIsReadWhereTheKitWritesIt) {
  EXPECT_EQ(hxf_tool::WithProvider("", "sim"), R"({"provider":"sim"})");
  EXPECT_EQ(hxf_tool::WithProvider("{}", "sim"), R"({"provider":"sim"})");
  EXPECT_EQ(hxf_tool::WithProvider(R"({"room":"hall"})", "sim"),
            R"({"provider":"sim","room":"hall"})");
  EXPECT_EQ(hxf_tool::WithProvider("plain text", "sim"), "plain text");
  const std::string meta = hxf_tool::WithProvider(R"({"room":"hall"})", "sim");
  EXPECT_EQ(hxf_tool::ProviderOf(meta), "sim");
  EXPECT_EQ(hxf_tool::ProviderOf(hxf_tool::MarkPresence(meta, hxf_tool::kPresenceLeft)), "sim");
  EXPECT_EQ(hxf_tool::ProviderOf(hxf_tool::MarkPresence(meta, hxf_tool::kPresenceArrived)), "sim");
  EXPECT_EQ(hxf_tool::ProviderOf(R"({"room":{"provider":"x"}})"), "");
  EXPECT_EQ(hxf_tool::ProviderService("lights", "sim"), "lights@sim");
  EXPECT_EQ(hxf_tool::BaseService("lights@sim"), "lights");
  EXPECT_EQ(hxf_tool::BaseService("lights"), "lights");
}
