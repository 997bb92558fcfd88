// The broker's D-Bus error names, made from the common library's code names: the same names
// as before they were made, read back to their codes, and listed in hxfd(1). And why a bus
// could not be reached, in words.
#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <map>
#include <regex>
#include <set>
#include <sstream>
#include <string>

#include "BusValues.h"

namespace {

// Every code's name on the wire, as hxfd has always sent them.
const std::map<int, std::string> kWireNames = {
    {HXF_ERROR_TIMED_OUT, "org.hxf.Error.TimedOut"},
    {HXF_ERROR_OPERATION_FAILED, "org.hxf.Error.OperationFailed"},
    {HXF_ERROR_CREATE_FAILED, "org.hxf.Error.CreateFailed"},
    {HXF_ERROR_INVALID_PARAMETER, "org.hxf.Error.InvalidParameter"},
    {HXF_ERROR_OUT_OF_MEMORY, "org.hxf.Error.OutOfMemory"},
    {HXF_ERROR_NOT_FOUND, "org.hxf.Error.NotFound"},
    {HXF_ERROR_TYPE_MISMATCH, "org.hxf.Error.TypeMismatch"},
    {HXF_ERROR_INVALID_HANDLE, "org.hxf.Error.InvalidHandle"},
    {HXF_ERROR_INVALID_CLIENT, "org.hxf.Error.InvalidClient"},
    {HXF_ERROR_INVALID_TRANSACTION, "org.hxf.Error.InvalidTransaction"},
    {HXF_ERROR_INVALID_SERVICE_NAME, "org.hxf.Error.InvalidServiceName"},
};

// Every error code but HXF_ERROR_NONE, as the common library knows them.
std::set<int> ErrorCodes() {
  std::set<int> codes;
  for (int code = 0; code < hxf_tool::kCodeRange; ++code) {
    if (code != HXF_ERROR_NONE && hxf_error_name(static_cast<hxf_error>(code)) != nullptr)
      codes.insert(code);
  }
  return codes;
}

// The org.hxf.Error.* names the section ERRORS of hxfd(1) lists as its items.
std::set<std::string> ManPageErrorNames() {
  std::ifstream file(HXFD_MAN_PAGE);
  std::stringstream text;
  text << file.rdbuf();
  const std::string page = text.str();
  const size_t begin = page.find("\n.SH ERRORS\n");
  const size_t end = page.find("\n.SH ", begin + 1);
  std::set<std::string> names;
  if (begin == std::string::npos) return names;
  const std::string section = page.substr(begin, end - begin);
  const std::regex item("\n\\.TP\n\\.B (org\\.hxf\\.Error\\.[A-Za-z]+)\n");
  for (std::sregex_iterator it(section.begin(), section.end(), item), last; it != last; ++it)
    names.insert((*it)[1]);
  return names;
}

class Environment {
 public:
  Environment(const char* name, const char* value) : name_(name) {
    const char* old = std::getenv(name);
    had_ = old != nullptr;
    if (had_) old_ = old;
    if (value != nullptr)
      setenv(name, value, 1);
    else
      unsetenv(name);
  }
  ~Environment() {
    if (had_)
      setenv(name_, old_.c_str(), 1);
    else
      unsetenv(name_);
  }

 private:
  const char* name_;
  bool had_ = false;
  std::string old_;
};

}  // namespace

TEST(BusErrorNames, EveryCodeKeepsItsWireName) {
  EXPECT_EQ(ErrorCodes().size(), kWireNames.size());
  for (int code : ErrorCodes()) {
    ASSERT_EQ(kWireNames.count(code), 1u) << "no wire name pinned for " << code;
    EXPECT_EQ(hxf_tool::ErrorName(code), kWireNames.at(code)) << code;
  }
}

TEST(BusErrorNames, EveryNameReadsBackAsItsCode) {
  for (int code : ErrorCodes()) EXPECT_EQ(hxf_tool::ErrorCode(hxf_tool::ErrorName(code)), code);
}

TEST(BusErrorNames, NoErrorAndNumbersThatAreNoCodeAreSentAsOperationFailed) {
  for (int number : {static_cast<int>(HXF_ERROR_NONE), 8, 15, 16, 99, -1})
    EXPECT_STREQ(hxf_tool::ErrorName(number), "org.hxf.Error.OperationFailed") << number;
}

TEST(BusErrorNames, AnyOtherNameReadsAsOperationFailed) {
  for (const char* name : {"org.hxf.Error.None", "org.hxf.Error.InProgress", "org.hxf.Error.",
                           "org.hxf.Error.timedout", "org.freedesktop.DBus.Error.Failed", ""})
    EXPECT_EQ(hxf_tool::ErrorCode(name), HXF_ERROR_OPERATION_FAILED) << name;
  EXPECT_EQ(hxf_tool::ErrorCode(nullptr), HXF_ERROR_OPERATION_FAILED);
}

TEST(BusErrorNames, HxfdManPageListsExactlyTheBrokersErrorNames) {
  std::set<std::string> expected = {hxf_tool::kErrorInProgress, "org.hxf.Error.LimitsExceeded"};
  for (int code : ErrorCodes()) expected.insert(hxf_tool::ErrorName(code));
  EXPECT_EQ(ManPageErrorNames(), expected) << "the section ERRORS of " << HXFD_MAN_PAGE;
}

TEST(ConnectFailure, NoSessionBusWhenNothingNamesOne) {
  Environment address("DBUS_SESSION_BUS_ADDRESS", nullptr);
  Environment runtime("XDG_RUNTIME_DIR", nullptr);
  EXPECT_EQ(hxf_tool::ConnectFailure("session", -ENOMEDIUM)
                .rfind("no session bus: DBUS_SESSION_BUS_ADDRESS is not set (", 0),
            0u)
      << hxf_tool::ConnectFailure("session", -ENOMEDIUM);
}

TEST(ConnectFailure, TheSessionBusNamesTheAddressItTried) {
  {
    Environment address("DBUS_SESSION_BUS_ADDRESS", nullptr);
    Environment runtime("XDG_RUNTIME_DIR", "/run/user/1000");
    EXPECT_EQ(hxf_tool::ConnectFailure("session", -ENOENT),
              "no session bus: DBUS_SESSION_BUS_ADDRESS is not set, and at "
              "unix:path=/run/user/1000/bus the socket does not exist (is a dbus-daemon running "
              "there?)");
  }
  Environment address("DBUS_SESSION_BUS_ADDRESS", "unix:path=/tmp/b");
  EXPECT_EQ(hxf_tool::ConnectFailure("session", -ECONNREFUSED),
            "no session bus at unix:path=/tmp/b (DBUS_SESSION_BUS_ADDRESS): the connection was "
            "refused (is a dbus-daemon running there?)");
}

TEST(ConnectFailure, EachProblemAtAnAddressInWords) {
  const std::pair<int, const char*> problems[] = {
      {ENOENT, "the socket does not exist (is a dbus-daemon running there?)"},
      {ECONNREFUSED, "the connection was refused (is a dbus-daemon running there?)"},
      {EACCES,
       "permission denied (this user may not open the bus's socket, or the bus does not "
       "let this user in)"},
      {EPERM,
       "permission denied (this user may not open the bus's socket, or the bus does not "
       "let this user in)"},
      {EINVAL,
       "not a D-Bus address (unix:path=FILE, unix:abstract=NAME or tcp:host=HOST,port=PORT)"},
      {ECONNRESET, "the bus closed the connection before it was set up (is it a dbus-daemon?)"},
      {ETIMEDOUT, "the bus did not answer"},
  };
  for (const auto& [error, words] : problems)
    EXPECT_EQ(hxf_tool::ConnectFailure("unix:path=/x", -error),
              std::string("no bus at unix:path=/x: ") + words);
}

TEST(ConnectFailure, TheSystemBusNamesItsAddress) {
  {
    Environment address("DBUS_SYSTEM_BUS_ADDRESS", nullptr);
    EXPECT_EQ(
        hxf_tool::ConnectFailure("system", -EACCES)
            .rfind("no system bus at unix:path=/run/dbus/system_bus_socket: permission denied", 0),
        0u);
  }
  Environment address("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/s");
  EXPECT_EQ(hxf_tool::ConnectFailure("system", -ENOENT),
            "no system bus at unix:path=/s: the socket does not exist (is a dbus-daemon running "
            "there?)");
}
