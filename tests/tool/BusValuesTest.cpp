// The D-Bus values hxfd and hxf --bus exchange: what the writers send, what the readers take
// and how they word what they refuse. Messages are built and read without a bus daemon.
#include <gtest/gtest.h>

#include <cerrno>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <string>
#include <vector>

#include "BusValues.h"
#include "MessageBus.h"

namespace {

using hxf_tool::Device;
using hxf_tool::PropertyValue;

using Message = std::unique_ptr<sd_bus_message, decltype(&sd_bus_message_unref)>;

class BusValues : public ::testing::Test {
 protected:
  Message New() {
    Message m(bus_.NewMessage(), &sd_bus_message_unref);
    EXPECT_NE(m, nullptr);
    return m;
  }
  // Writes `properties`, then reads them back as a receiver would.
  int RoundTrip(const std::vector<PropertyValue>& properties, std::vector<PropertyValue>* read,
                std::string* problem) {
    Message m = New();
    int r = hxf_tool::AppendProperties(m.get(), properties);
    if (r >= 0) r = hxf_test::MessageBus::Seal(m.get());
    return r < 0 ? r : hxf_tool::ReadProperties(m.get(), read, problem);
  }
  // Reads one property of D-Bus type `type` (written as `value`, promoted like varargs).
  template <typename T>
  int ReadOne(char type, T value, std::vector<PropertyValue>* read, std::string* problem) {
    Message m = New();
    const char contents[2] = {type, '\0'};
    int r = sd_bus_message_open_container(m.get(), 'a', "{sv}");
    if (r >= 0) r = sd_bus_message_open_container(m.get(), 'e', "sv");
    if (r >= 0) r = sd_bus_message_append(m.get(), "s", "level");
    if (r >= 0) r = sd_bus_message_open_container(m.get(), 'v', contents);
    if (r >= 0) r = sd_bus_message_append_basic(m.get(), type, &value);
    for (int i = 0; i < 3 && r >= 0; ++i) r = sd_bus_message_close_container(m.get());
    EXPECT_GE(r, 0);
    if (r >= 0) r = hxf_test::MessageBus::Seal(m.get());
    return r < 0 ? r : hxf_tool::ReadProperties(m.get(), read, problem);
  }

  hxf_test::MessageBus bus_;
};

// Regression: hxfd read t 18446744073709551615 as -1 (the core's integers are signed).
TEST_F(BusValues, UnsignedAboveInt64MaxIsRefusedNotWrapped) {
  std::vector<PropertyValue> read;
  std::string problem;
  EXPECT_EQ(ReadOne<uint64_t>('t', UINT64_MAX, &read, &problem), -EINVAL);
  EXPECT_EQ(problem, "property level is 18446744073709551615: an integer property is at most 9223372036854775807");
  EXPECT_TRUE(read.empty());
  problem.clear();
  EXPECT_EQ(ReadOne<uint64_t>('t', uint64_t{INT64_MAX} + 1, &read, &problem), -EINVAL);
  EXPECT_EQ(problem, "property level is 9223372036854775808: an integer property is at most 9223372036854775807");
}

TEST_F(BusValues, UnsignedUpToInt64MaxIsRead) {
  std::vector<PropertyValue> read;
  std::string problem;
  ASSERT_GE(ReadOne<uint64_t>('t', uint64_t{INT64_MAX}, &read, &problem), 0) << problem;
  ASSERT_EQ(read.size(), 1u);
  EXPECT_TRUE(read[0].value.is_number_integer());
  EXPECT_EQ(read[0].value.get<int64_t>(), INT64_MAX);
}

TEST_F(BusValues, EveryIntegerTypeIsReadAsASigned64BitInteger) {
  struct Case {
    char type;
    int64_t expected;
  };
  const Case cases[] = {{'y', 255}, {'n', INT16_MIN}, {'q', UINT16_MAX}, {'i', INT32_MIN},
                        {'u', UINT32_MAX}, {'x', INT64_MIN}, {'t', 42}};
  for (const Case& c : cases) {
    std::vector<PropertyValue> read;
    std::string problem;
    int r = 0;
    switch (c.type) {
      case 'y': r = ReadOne<uint8_t>('y', static_cast<uint8_t>(c.expected), &read, &problem); break;
      case 'n': r = ReadOne<int16_t>('n', static_cast<int16_t>(c.expected), &read, &problem); break;
      case 'q': r = ReadOne<uint16_t>('q', static_cast<uint16_t>(c.expected), &read, &problem); break;
      case 'i': r = ReadOne<int32_t>('i', static_cast<int32_t>(c.expected), &read, &problem); break;
      case 'u': r = ReadOne<uint32_t>('u', static_cast<uint32_t>(c.expected), &read, &problem); break;
      case 'x': r = ReadOne<int64_t>('x', c.expected, &read, &problem); break;
      default: r = ReadOne<uint64_t>('t', static_cast<uint64_t>(c.expected), &read, &problem); break;
    }
    ASSERT_GE(r, 0) << c.type << ": " << problem;
    ASSERT_EQ(read.size(), 1u) << c.type;
    EXPECT_TRUE(read[0].value.is_number_integer() && !read[0].value.is_number_unsigned()) << c.type;
    EXPECT_EQ(read[0].value.get<int64_t>(), c.expected) << c.type;
  }
}

TEST_F(BusValues, RoundTripKeepsEveryValueExactly) {
  const std::vector<PropertyValue> sent = {
      {"on", true},
      {"off", false},
      {"min", INT64_MIN},
      {"max", INT64_MAX},
      {"unsigned", uint64_t{7}},
      {"zero", 0},
      {"half", 0.5},
      {"negative zero", -0.0},
      {"tiny", std::numeric_limits<double>::denorm_min()},
      {"huge", std::numeric_limits<double>::max()},
      {"text", "warm white \xc3\xa9"},
      {"empty", ""},
      {"", "a property without a name"},
  };
  std::vector<PropertyValue> read;
  std::string problem;
  ASSERT_GE(RoundTrip(sent, &read, &problem), 0) << problem;
  ASSERT_EQ(read.size(), sent.size());
  for (size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(read[i].name, sent[i].name);
    EXPECT_EQ(read[i].value, sent[i].value) << sent[i].name;
    EXPECT_EQ(read[i].value.is_number_float(), sent[i].value.is_number_float()) << sent[i].name;
  }
  EXPECT_TRUE(std::signbit(read[7].value.get<double>()));
}

TEST_F(BusValues, RoundTripKeepsNotANumberAndInfinity) {
  std::vector<PropertyValue> read;
  std::string problem;
  ASSERT_GE(RoundTrip({{"nan", std::nan("")}, {"inf", -HUGE_VAL}}, &read, &problem), 0) << problem;
  ASSERT_EQ(read.size(), 2u);
  EXPECT_TRUE(std::isnan(read[0].value.get<double>()));
  EXPECT_EQ(read[1].value.get<double>(), -HUGE_VAL);
}

TEST_F(BusValues, WriterSendsUnsignedAboveInt64MaxAsUnsignedForTheReaderToRefuse) {
  Message m = New();
  ASSERT_GE(hxf_tool::AppendProperties(m.get(), {{"level", UINT64_MAX}}), 0);
  ASSERT_GE(hxf_test::MessageBus::Seal(m.get()), 0);
  ASSERT_GT(sd_bus_message_enter_container(m.get(), 'a', "{sv}"), 0);
  ASSERT_GT(sd_bus_message_enter_container(m.get(), 'e', "sv"), 0);
  ASSERT_GE(sd_bus_message_skip(m.get(), "s"), 0);
  const char* contents = nullptr;
  ASSERT_GT(sd_bus_message_peek_type(m.get(), nullptr, &contents), 0);
  EXPECT_STREQ(contents, "t");
  ASSERT_GE(sd_bus_message_rewind(m.get(), 1), 0);
  std::vector<PropertyValue> read;
  std::string problem;
  EXPECT_EQ(hxf_tool::ReadProperties(m.get(), &read, &problem), -EINVAL);
  EXPECT_EQ(problem, "property level is 18446744073709551615: an integer property is at most 9223372036854775807");
}

// Regression: a text holding a NUL was cut there without a word.
TEST_F(BusValues, WriterRefusesATextHoldingANulInsteadOfCuttingIt) {
  Message m = New();
  EXPECT_EQ(hxf_tool::AppendProperties(m.get(), {{"color", std::string("warm\0white", 10)}}), -EINVAL);
  Message n = New();
  EXPECT_EQ(hxf_tool::AppendProperties(n.get(), {{std::string("co\0lor", 6), "warm"}}), -EINVAL);
  Message d = New();
  Device device;
  device.id = std::string("lamp\0-1", 7);
  EXPECT_EQ(hxf_tool::AppendDevice(d.get(), device), -EINVAL);
}

// Regression: a value that is no boolean, number or text threw out of the writer.
TEST_F(BusValues, WriterRefusesAValueOfNoPropertyTypeWithoutThrowing) {
  for (const nlohmann::json& value : {nlohmann::json(), nlohmann::json::array({1}), nlohmann::json::object()}) {
    Message m = New();
    int r = 0;
    EXPECT_NO_THROW(r = hxf_tool::AppendProperties(m.get(), {{"odd", value}})) << value.dump();
    EXPECT_EQ(r, -EINVAL) << value.dump();
  }
}

TEST_F(BusValues, WriterRefusesATextThatIsNotUtf8) {
  Message m = New();
  EXPECT_LT(hxf_tool::AppendProperties(m.get(), {{"color", "\xff\xfe"}}), 0);
}

TEST_F(BusValues, ReaderNamesThePropertyOfAnUnknownType) {
  Message m = New();
  ASSERT_GE(sd_bus_message_append(m.get(), "a{sv}", 1, "colors", "as", 2, "warm", "cold"), 0);
  ASSERT_GE(hxf_test::MessageBus::Seal(m.get()), 0);
  std::vector<PropertyValue> read;
  std::string problem;
  EXPECT_EQ(hxf_tool::ReadProperties(m.get(), &read, &problem), -EINVAL);
  EXPECT_EQ(problem, "property colors has type as: a property is a boolean, an integer, a double or a string");
}

TEST_F(BusValues, ReaderSaysWhatStandsWhereThePropertiesShouldBe) {
  struct Case {
    const char* signature;
    const char* problem;
  };
  const Case cases[] = {{"", "the message ends where its properties (a{sv}) should be"},
                        {"s", "the properties have type s, not a{sv}"},
                        {"a{ss}", "the properties have type a{ss}, not a{sv}"},
                        {"(si)", "the properties have type (si), not a{sv}"},
                        {"v", "the properties have type v, not a{sv}"}};
  for (const Case& c : cases) {
    Message m = New();
    int r = 0;
    const std::string signature = c.signature;
    if (signature == "s") r = sd_bus_message_append(m.get(), "s", "lamp");
    if (signature == "a{ss}") r = sd_bus_message_append(m.get(), "a{ss}", 1, "color", "warm");
    if (signature == "(si)") r = sd_bus_message_append(m.get(), "(si)", "level", 3);
    if (signature == "v") r = sd_bus_message_append(m.get(), "v", "s", "lamp");
    ASSERT_GE(r, 0) << c.signature;
    ASSERT_GE(hxf_test::MessageBus::Seal(m.get()), 0);
    std::vector<PropertyValue> read;
    std::string problem;
    EXPECT_EQ(hxf_tool::ReadProperties(m.get(), &read, &problem), -EINVAL) << c.signature;
    EXPECT_EQ(problem, c.problem);
  }
}

TEST_F(BusValues, DeviceRoundTripKeepsEveryField) {
  Device sent;
  sent.service = "lights";
  sent.id = "lamp-1";
  sent.name = "Desk lamp \xe2\x80\x93 left";
  sent.address = "192.168.1.21";
  sent.interface_name = "sim";
  sent.interface_type = "simulated";
  sent.ui_meta = R"({"presence":"arrived"})";
  Message m = New();
  ASSERT_GE(hxf_tool::AppendDevice(m.get(), sent), 0);
  ASSERT_GE(hxf_test::MessageBus::Seal(m.get()), 0);
  Device read;
  ASSERT_GE(hxf_tool::ReadDevice(m.get(), &read), 0);
  EXPECT_EQ(read.service, sent.service);
  EXPECT_EQ(read.id, sent.id);
  EXPECT_EQ(read.name, sent.name);
  EXPECT_EQ(read.address, sent.address);
  EXPECT_EQ(read.interface_name, sent.interface_name);
  EXPECT_EQ(read.interface_type, sent.interface_type);
  EXPECT_EQ(read.ui_meta, sent.ui_meta);
}

}  // namespace
