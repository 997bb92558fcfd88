// What the values on hxf's command line mean: NAME=VALUE properties, times in milliseconds.
// Each reader is a pure function that walks its argument once, by hand: no regular
// expression and no recursion, so an argument of any length costs time in proportion to its
// length and a fixed amount of stack (a std::regex once recursed per character and overflowed
// the stack on a value of 26 098 characters). Shared by the tool, its unit tests and its
// fuzzer.
#pragma once

#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace hxf_tool {

// A request's NAME=VALUE argument, as the property it becomes.
struct Assignment {
  std::string name;      // "device" becomes "device_id", the property naming the target device
  nlohmann::json value;  // a bool, a signed 64-bit integer, a double or a text
};

// Reads "NAME=VALUE". NAME is a letter or _ followed by letters, digits, _ . or -. VALUE is
// - true or false: a bool;
// - an integer, [+-]DIGITS: a signed 64-bit integer; one outside -2^63 .. 2^63-1 is refused,
//   never wrapped (the core's properties carry signed integers only);
// - a decimal, [+-]DIGITS with a point or an exponent or both (1e3, -0.5, .5, 5., 1E-3): a
//   double; one beyond a double's range (overflow, or a non-zero value that would round to
//   zero) is refused;
// - "TEXT" (in double quotes): TEXT, a text even when it looks like a number;
// - anything else: the text as it is, possibly empty.
// device=ID is the target device's id (device_id), always a text.
// Returns "" and fills `*assignment`, or what is wrong (a usage error) and leaves it alone.
std::string ParseAssignment(std::string_view argument, Assignment* assignment);

// The VALUE part alone, as ParseAssignment reads it for any NAME but device. Returns "" and
// sets `*value`, or what is wrong (without the name or the value).
std::string ParseValue(std::string_view text, nlohmann::json* value);

// A number of milliseconds, written as decimal digits only: 0 .. 4294967295. Returns "" and
// sets `*ms`, or what is wrong, naming `option`.
std::string ParseMilliseconds(std::string_view option, std::string_view text, uint32_t* ms);

// Whether `text` is well-formed UTF-8 (no overlong forms, no surrogates, nothing above
// U+10FFFF): what the JSON writer and D-Bus accept.
bool IsUtf8(std::string_view text);

// `text` for a message: as it is when short; a long one cut at 60 bytes (on a character
// boundary) with its length, so that one huge argument does not flood the terminal.
std::string Abbreviated(std::string_view text);

}  // namespace hxf_tool
