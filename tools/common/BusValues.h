// The broker's D-Bus names, and its values as D-Bus writes them: shared by hxfd, which
// serves them, and hxf --bus, which reads them. sd-bus (libsystemd).
//
// - A device is a{sv} of strings, its fields as DeviceFields.h names them.
// - Properties are a{sv}, each with its own type: b, x, d or s (any integer type is read, as a
//   signed 64-bit one: the core's integers are signed).
// - A core error code travels as an error name, org.hxf.Error.<Name>, with a message: for a
//   request the provider refused, the text of its "error" property.
#pragma once

#include <systemd/sd-bus.h>

#include <string>
#include <vector>

#include "CoreValues.h"

namespace hxf_tool {

constexpr const char* kBusName = "org.hxf.Broker";
constexpr const char* kBrokerPath = "/org/hxf/Broker";
constexpr const char* kBrokerInterface = "org.hxf.Broker1";
constexpr const char* kSearchInterface = "org.hxf.Search1";
constexpr const char* kSessionInterface = "org.hxf.Session1";
constexpr const char* kMonitorInterface = "org.hxf.Monitor1";

// The D-Bus error name of a core error code, made from its name in the common library
// (HXF_ERROR_TIMED_OUT: "org.hxf.Error.TimedOut"), and back. HXF_ERROR_NONE and a number that
// is no code are sent as org.hxf.Error.OperationFailed; a name that is not the broker's reads
// as HXF_ERROR_OPERATION_FAILED.
const char* ErrorName(int code);
int ErrorCode(const char* name);
// hxfd's one error name of its own, for a search, listen or device list the caller already
// has under way; it has no core code (read back, it is HXF_ERROR_OPERATION_FAILED).
constexpr const char* kErrorInProgress = "org.hxf.Error.InProgress";

// The writers refuse with -EINVAL a text holding a NUL (D-Bus would cut it there) and, like
// sd-bus, one that is not UTF-8; a value that is no boolean, number or text likewise.
int AppendDevice(sd_bus_message* m, const Device& device);
// Reads a device's a{sv}; fields it does not know are skipped.
int ReadDevice(sd_bus_message* m, Device* device);
// An integer above the signed 64-bit range goes as t (never wrapped), for the reader to refuse.
int AppendProperties(sd_bus_message* m, const std::vector<PropertyValue>& properties);
// Reads a{sv}: booleans, integers of any width (as int64_t), doubles and strings. Any failure
// sets `problem`: a value of another type, or an unsigned one above INT64_MAX, names its
// property; the reading stops there with -EINVAL.
int ReadProperties(sd_bus_message* m, std::vector<PropertyValue>* properties, std::string* problem);

// Connects to `where`: "session", "system" or a D-Bus address ("unix:path=...").
int ConnectBus(const std::string& where, sd_bus** bus);
// Why ConnectBus(where) failed with `r`, in words and with what to do, for example "no
// session bus: DBUS_SESSION_BUS_ADDRESS is not set (...)". Reads the environment as sd-bus
// does to name the address it tried.
std::string ConnectFailure(const std::string& where, int r);

}  // namespace hxf_tool
