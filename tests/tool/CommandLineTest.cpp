// hxf's command-line readers: NAME=VALUE values, times, and argv read into a command.
#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "ArgumentValues.h"
#include "CommandLine.h"

namespace hxf_tool {
namespace {

nlohmann::json ValueOf(const std::string& text) {
  nlohmann::json value;
  EXPECT_EQ(ParseValue(text, &value), "") << text;
  return value;
}

std::string ProblemOf(const std::string& argument) {
  Assignment assignment;
  return ParseAssignment(argument, &assignment);
}

// ---- values ----

TEST(ArgumentValues, TrueAndFalseAreBooleans) {
  EXPECT_EQ(ValueOf("true"), nlohmann::json(true));
  EXPECT_EQ(ValueOf("false"), nlohmann::json(false));
  EXPECT_TRUE(ValueOf("True").is_string());
  EXPECT_TRUE(ValueOf("1").is_number_integer());
}

TEST(ArgumentValues, IntegersAreSigned64Bit) {
  struct Case {
    const char* text;
    int64_t value;
  };
  for (const Case& c :
       {Case{"0", 0}, Case{"-0", 0}, Case{"+5", 5}, Case{"007", 7}, Case{"-7", -7},
        Case{"9223372036854775807", INT64_MAX}, Case{"-9223372036854775808", INT64_MIN}}) {
    const nlohmann::json value = ValueOf(c.text);
    ASSERT_TRUE(value.is_number_integer()) << c.text;
    EXPECT_FALSE(value.is_number_unsigned()) << c.text;
    EXPECT_EQ(value.get<int64_t>(), c.value) << c.text;
  }
}

TEST(ArgumentValues, AnIntegerOutsideSigned64BitIsRefusedNeverWrapped) {
  for (const char* text : {"9223372036854775808", "18446744073709551615", "18446744073709551616",
                           "-9223372036854775809", "99999999999999999999999999"}) {
    nlohmann::json value = "untouched";
    EXPECT_NE(ParseValue(text, &value).find("does not fit in 64 bits"), std::string::npos) << text;
    EXPECT_EQ(value, "untouched") << text;
  }
  EXPECT_EQ(ProblemOf("count=9223372036854775808"),
            "count=9223372036854775808: the integer does not fit in 64 bits (a property's "
            "integers are signed: -9223372036854775808 to 9223372036854775807)");
}

TEST(ArgumentValues, DecimalsInEveryFormTheDocsShowAreDoubles) {
  struct Case {
    const char* text;
    double value;
  };
  for (const Case& c : {Case{"1e3", 1000.0}, Case{"-0.5", -0.5}, Case{".5", 0.5}, Case{"5.", 5.0},
                        Case{"1E-3", 0.001}, Case{"+1.5", 1.5}, Case{"-.25", -0.25},
                        Case{"2.5e+2", 250.0}, Case{"1.0", 1.0}, Case{"0.1", 0.1},
                        Case{"21.123456789", 21.123456789}, Case{"1e-320", 1e-320}}) {
    const nlohmann::json value = ValueOf(c.text);
    ASSERT_TRUE(value.is_number_float()) << c.text;
    EXPECT_EQ(value.get<double>(), c.value) << c.text;
  }
}

TEST(ArgumentValues, ADecimalBeyondADoublesRangeIsRefused) {
  for (const char* text : {"1e309", "-1e400", "1e-400", "1e99999999999999999999"}) {
    nlohmann::json value;
    EXPECT_NE(ParseValue(text, &value).find("does not fit in a double"), std::string::npos) << text;
  }
  nlohmann::json zero;
  EXPECT_EQ(ParseValue("0e99999", &zero), "");
  EXPECT_EQ(zero.get<double>(), 0.0);
}

TEST(ArgumentValues, WhatIsNoNumberIsText) {
  for (const char* text : {"", "-", "+", ".", "e3", "1e", "1e+", "1.2.3", "0x10", "1_000", " 5",
                           "5 ", "inf", "nan", "--5", "1..2", ".e1", "lamp-1", "10%"}) {
    const nlohmann::json value = ValueOf(text);
    ASSERT_TRUE(value.is_string()) << text;
    EXPECT_EQ(value.get<std::string>(), text);
  }
}

TEST(ArgumentValues, AQuotedValueIsTextWithoutItsQuotes) {
  EXPECT_EQ(ValueOf("\"42\""), nlohmann::json("42"));
  EXPECT_EQ(ValueOf("\"true\""), nlohmann::json("true"));
  EXPECT_EQ(ValueOf("\"\""), nlohmann::json(""));
  EXPECT_EQ(ValueOf("\""), nlohmann::json("\""));
  EXPECT_EQ(ValueOf("\"a\"b\""), nlohmann::json("a\"b"));
}

// ---- NAME=VALUE ----

TEST(ArgumentValues, DeviceNamesTheTargetDeviceAndStaysText) {
  Assignment assignment;
  ASSERT_EQ(ParseAssignment("device=42", &assignment), "");
  EXPECT_EQ(assignment.name, "device_id");
  EXPECT_EQ(assignment.value, nlohmann::json("42"));
  ASSERT_EQ(ParseAssignment("device_id=\"x\"", &assignment), "");
  EXPECT_EQ(assignment.name, "device_id");
  EXPECT_EQ(assignment.value, nlohmann::json("\"x\""));
}

TEST(ArgumentValues, TheValueIsEverythingAfterTheFirstEquals) {
  Assignment assignment;
  ASSERT_EQ(ParseAssignment("label=a=b", &assignment), "");
  EXPECT_EQ(assignment.name, "label");
  EXPECT_EQ(assignment.value, nlohmann::json("a=b"));
  ASSERT_EQ(ParseAssignment("x.y-z_1=", &assignment), "");
  EXPECT_EQ(assignment.value, nlohmann::json(""));
}

TEST(ArgumentValues, AMalformedAssignmentSaysWhatIsWrong) {
  EXPECT_EQ(ProblemOf("brightness"), "expected NAME=VALUE, got 'brightness'");
  EXPECT_EQ(ProblemOf("=5"),
            "'=5': a property's name is a letter or _ followed by letters, digits, _ . or -");
  EXPECT_NE(ProblemOf("1x=5"), "");
  EXPECT_NE(ProblemOf("a b=5"), "");
}

// The regression: std::regex recursed once per character and overflowed the stack on a value
// of 26 098 characters. A megabyte is read in one pass, quickly.
TEST(ArgumentValues, AMegabyteValueIsCarriedWithoutRecursion) {
  const std::string big(1 << 20, 'x');
  const auto start = std::chrono::steady_clock::now();
  Assignment assignment;
  ASSERT_EQ(ParseAssignment("device=" + big, &assignment), "");
  EXPECT_EQ(assignment.value.get<std::string>().size(), big.size());
  ASSERT_EQ(ParseAssignment("label=" + big, &assignment), "");
  EXPECT_EQ(assignment.value.get<std::string>().size(), big.size());
  const std::string digits(1 << 20, '7');
  EXPECT_NE(ParseAssignment("count=" + digits, &assignment).find("does not fit in 64 bits"),
            std::string::npos);
  ASSERT_EQ(ParseAssignment("level=0." + digits, &assignment), "");
  EXPECT_TRUE(assignment.value.is_number_float());
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
}

TEST(ArgumentValues, AProblemShowsAHugeArgumentAbbreviated) {
  const std::string problem = ProblemOf(std::string(100000, 'y'));
  EXPECT_LT(problem.size(), 200u);
  EXPECT_NE(problem.find("(100000 bytes)"), std::string::npos);
  EXPECT_EQ(Abbreviated("short"), "short");
  // Cut on a character boundary: "é" is two bytes.
  std::string accents;
  for (int i = 0; i < 50; ++i) accents += "\xC3\xA9";
  EXPECT_TRUE(IsUtf8(Abbreviated(accents)));
}

TEST(ArgumentValues, Utf8IsCheckedAsTheJsonWriterChecksIt) {
  for (const char* good :
       {"", "plain", "\xC3\xA9", "\xE2\x82\xAC", "\xF0\x9F\x92\xA1", "\xF4\x8F\xBF\xBF"}) {
    EXPECT_TRUE(IsUtf8(good)) << good;
    EXPECT_NO_THROW(nlohmann::json(good).dump());
  }
  for (const char* bad : {"\xFF", "\xC3", "\xC0\x80", "\xE0\x80\x80", "\xED\xA0\x80",
                          "\xF4\x90\x80\x80", "\xF8\x88\x80\x80\x80", "a\x80"}) {
    EXPECT_FALSE(IsUtf8(bad)) << bad;
    EXPECT_THROW(nlohmann::json(bad).dump(), nlohmann::json::type_error);
  }
}

// ---- milliseconds ----

TEST(ArgumentValues, MillisecondsAreWholeNumbersThatFit32Bits) {
  uint32_t ms = 7;
  EXPECT_EQ(ParseMilliseconds("--for", "0", &ms), "");
  EXPECT_EQ(ms, 0u);
  EXPECT_EQ(ParseMilliseconds("--for", "4294967295", &ms), "");
  EXPECT_EQ(ms, 4294967295u);
  EXPECT_EQ(ParseMilliseconds("--for", "4294967296", &ms),
            "--for 4294967296: at most 4294967295 ms (about 49.7 days)");
  EXPECT_EQ(ParseMilliseconds("--for", "99999999999999999999999", &ms),
            "--for 99999999999999999999999: at most 4294967295 ms (about 49.7 days)");
  for (const char* bad : {"", "-1", "+1", "1.5", "1e3", " 1", "10ms"}) {
    ms = 7;
    EXPECT_NE(ParseMilliseconds("--timeout", bad, &ms), "") << bad;
    EXPECT_EQ(ms, 7u) << bad;
  }
}

// ---- the command line ----

CommandLine Parse(std::vector<std::string> args, Environment env = {}) {
  return ParseCommandLine(args, env);
}

TEST(CommandLine, ARequestReadsItsServiceOperationAndProperties) {
  const CommandLine line =
      Parse({"request", "lights", "set", "device=lamp-1", "brightness=40", "--timeout", "500"});
  ASSERT_EQ(line.outcome, CommandLine::kRun) << line.text;
  EXPECT_EQ(line.options.command, "request");
  EXPECT_EQ(line.options.service, "lights");
  EXPECT_EQ(line.options.operation, "set");
  ASSERT_EQ(line.options.properties.size(), 2u);
  EXPECT_EQ(line.options.properties[0].name, "device_id");
  EXPECT_EQ(line.options.properties[1].value, nlohmann::json(40));
  EXPECT_EQ(line.options.timeout_ms, 500u);
}

TEST(CommandLine, TimeOutsHaveOneMeaningForEveryCommand) {
  for (const char* command : {"search", "devices"}) {
    const CommandLine line = Parse({command, "lights", "--timeout", "0"});
    EXPECT_EQ(line.outcome, CommandLine::kUsageError) << command;
    EXPECT_EQ(line.text, "--timeout 0: a result needs a time-out of at least 1 ms");
  }
  EXPECT_EQ(Parse({"request", "lights", "get", "--timeout", "0"}).outcome, CommandLine::kUsageError);
  for (const char* command : {"listen", "watch"}) {
    const CommandLine line = Parse({command, "lights", "--for", "0"});
    ASSERT_EQ(line.outcome, CommandLine::kRun) << command;
    EXPECT_EQ(line.options.for_ms, 0u);
  }
  EXPECT_EQ(Parse({"--bus", "monitor", "--for", "0"}).outcome, CommandLine::kRun);
  EXPECT_EQ(Parse({"search", "lights"}).options.timeout_ms, 3000u);
  EXPECT_EQ(Parse({"search", "lights", "--timeout", "4294967295"}).options.timeout_ms, 4294967295u);
  EXPECT_EQ(Parse({"search", "lights", "--timeout", "4294967296"}).outcome, CommandLine::kUsageError);
  EXPECT_EQ(Parse({"listen", "lights", "--for", "-1"}).outcome, CommandLine::kUsageError);
}

TEST(CommandLine, AnEmptyServiceOrOperationIsAUsageError) {
  for (const char* command : {"search", "listen", "devices", "watch"}) {
    const CommandLine line = Parse({command, ""});
    EXPECT_EQ(line.outcome, CommandLine::kUsageError) << command;
    EXPECT_EQ(line.text, std::string(command) + ": the service name is empty");
  }
  EXPECT_EQ(Parse({"request", "", "get"}).text, "request: the service name is empty");
  EXPECT_EQ(Parse({"request", "lights", ""}).text, "request: the operation is empty (get or set)");
  EXPECT_EQ(Parse({"--bus", "monitor", "--service", ""}).outcome, CommandLine::kUsageError);
}

TEST(CommandLine, HelpAndVersionAreReturnedNotPrinted) {
  testing::internal::CaptureStdout();
  testing::internal::CaptureStderr();
  const CommandLine help = Parse({"search", "--help"});
  const CommandLine version = Parse({"--version"});
  const CommandLine usage = Parse({"search"});
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
  EXPECT_EQ(help.outcome, CommandLine::kHelp);
  EXPECT_NE(help.text.find("Example: hxf search lights --timeout 1000"), std::string::npos);
  EXPECT_EQ(version.outcome, CommandLine::kVersion);
  EXPECT_EQ(version.text.rfind("hxf ", 0), 0u);
  EXPECT_EQ(usage.outcome, CommandLine::kUsageError);
  EXPECT_EQ(usage.text, "SERVICE is required");
  EXPECT_EQ(usage.usage, "Run 'hxf search --help' for more information.\n");
}

TEST(CommandLine, UnknownCommandsAndStrayArgumentsAreNamed) {
  EXPECT_EQ(Parse({"frobnicate"}).text, "unknown command 'frobnicate'");
  EXPECT_EQ(Parse({"--frobnicate"}).text, "unknown option '--frobnicate'");
  EXPECT_EQ(Parse({"search", "lights", "--frobnicate"}).text, "unexpected argument '--frobnicate'");
  const CommandLine none = Parse({});
  EXPECT_EQ(none.outcome, CommandLine::kUsageError);
  EXPECT_EQ(none.text, "");
  EXPECT_NE(none.usage.find("Usage: hxf [OPTIONS] [SUBCOMMAND]"), std::string::npos);
}

// Found by fuzz_cli: an argument with a newline split the problem's line.
TEST(CommandLine, AProblemIsOneLineWhateverItQuotes) {
  EXPECT_EQ(Parse({"s\nea", ""}).text, "unknown command 's\\x0aea'");
  EXPECT_EQ(Parse({"--log-level", "a\x1b[2Jb", "search", "x"}).text.find('\x1b'),
            std::string::npos);
  EXPECT_EQ(Parse({"request", "x", "get", "n\t=1"}).text.find('\t'), std::string::npos);
}

TEST(CommandLine, JsonIsKnownEvenWhenTheRestIsRefused) {
  EXPECT_TRUE(Parse({"--json", "frobnicate"}).json);
  EXPECT_TRUE(Parse({"search", "", "--json"}).json);
  EXPECT_FALSE(Parse({"frobnicate"}).json);
}

TEST(CommandLine, AnArgumentThatIsNotUtf8IsRefusedBeforeAnythingEchoesIt) {
  const CommandLine line = Parse({"--json", "request", "lights", "set", "label=\xFF"});
  EXPECT_EQ(line.outcome, CommandLine::kUsageError);
  EXPECT_EQ(line.text, "argument 5 is not valid UTF-8 text");
  EXPECT_TRUE(line.json);
}

// Found by fuzz_cli: HXF_LOG_LEVEL's value is echoed in its problem, and JSON mode threw on
// it.
TEST(CommandLine, AVariableThatIsNotUtf8IsRefusedBeforeAnythingEchoesIt) {
  const CommandLine level = Parse({"--json", "search", "x"}, {"lou\xFF", ""});
  EXPECT_EQ(level.outcome, CommandLine::kUsageError);
  EXPECT_EQ(level.text, "HXF_LOG_LEVEL is not valid UTF-8 text");
  const CommandLine bus = Parse({"search", "x"}, {"", "nowhere\xC3"});
  EXPECT_EQ(bus.text, "HXF_BUS is not valid UTF-8 text");
}

TEST(CommandLine, TheEnvironmentStandsInForOptionsNotGiven) {
  EXPECT_EQ(Parse({"search", "x"}, {"info", ""}).options.log_level, "info");
  EXPECT_EQ(Parse({"--log-level", "error", "search", "x"}, {"info", ""}).options.log_level,
            "error");
  EXPECT_EQ(Parse({"search", "x"}, {"loud", ""}).text,
            "HXF_LOG_LEVEL must be debug, info or error, not 'loud'");
  EXPECT_EQ(Parse({"search", "x"}, {"", "system"}).options.bus, "system");
  EXPECT_EQ(Parse({"--bus", "search", "x"}).options.bus, "session");
  EXPECT_EQ(Parse({"--bus", "nowhere", "search", "x"}).outcome, CommandLine::kUsageError);
  EXPECT_EQ(Parse({"--bus", "--plugin", "sim", "search", "x"}).outcome, CommandLine::kUsageError);
  EXPECT_EQ(Parse({"monitor"}).text, "monitor needs --bus: only hxfd sees what other processes do");
}

TEST(CommandLine, AMegabyteArgumentIsCarriedOrRefusedNeverACrash) {
  const std::string big(1 << 20, 'x');
  const CommandLine carried = Parse({"request", "lights", "get", "device=" + big});
  ASSERT_EQ(carried.outcome, CommandLine::kRun);
  EXPECT_EQ(carried.options.properties.at(0).value.get<std::string>().size(), big.size());
  const CommandLine refused = Parse({"request", "lights", "set", "n=" + std::string(1 << 20, '9')});
  EXPECT_EQ(refused.outcome, CommandLine::kUsageError);
  EXPECT_LT(refused.text.size(), 300u);
  EXPECT_EQ(Parse({"search", big}).options.service.size(), big.size());
  EXPECT_EQ(Parse({big}).outcome, CommandLine::kUsageError);
}

}  // namespace
}  // namespace hxf_tool
