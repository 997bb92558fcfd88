#include "ArgumentValues.h"

#include <charconv>
#include <limits>
#include <system_error>

namespace hxf_tool {

namespace {

bool IsDigit(char c) {
  return c >= '0' && c <= '9';
}
bool IsLetter(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || c == '_';
}
bool IsNameChar(char c) {
  return IsLetter(c) || IsDigit(c) || c == '.' || c == '-';
}

bool IsName(std::string_view name) {
  if (name.empty() || !IsLetter(name.front())) return false;
  for (const char c : name) {
    if (!IsNameChar(c)) return false;
  }
  return true;
}

enum class Form { kText, kInteger, kDecimal };

// [+-]DIGITS is an integer; with a point (digits on at least one side) or an exponent, or
// both, a decimal; anything else is text.
Form FormOf(std::string_view text) {
  size_t i = 0;
  const size_t n = text.size();
  if (i < n && (text[i] == '+' || text[i] == '-')) ++i;
  size_t digits = 0;
  while (i < n && IsDigit(text[i])) ++i, ++digits;
  bool decimal = false;
  if (i < n && text[i] == '.') {
    decimal = true;
    ++i;
    while (i < n && IsDigit(text[i])) ++i, ++digits;
  }
  if (digits == 0) return Form::kText;
  if (i < n && (text[i] == 'e' || text[i] == 'E')) {
    decimal = true;
    ++i;
    if (i < n && (text[i] == '+' || text[i] == '-')) ++i;
    size_t exponent_digits = 0;
    while (i < n && IsDigit(text[i])) ++i, ++exponent_digits;
    if (exponent_digits == 0) return Form::kText;
  }
  if (i != n) return Form::kText;
  return decimal ? Form::kDecimal : Form::kInteger;
}

// An integer's digits, with their sign, as an int64; false when it does not fit.
bool ToInt64(std::string_view text, int64_t* value) {
  const bool negative = text.front() == '-';
  const size_t start = (text.front() == '-' || text.front() == '+') ? 1 : 0;
  const uint64_t limit =
      static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) + (negative ? 1 : 0);
  uint64_t magnitude = 0;
  for (size_t i = start; i < text.size(); ++i) {
    const uint64_t digit = static_cast<uint64_t>(text[i] - '0');
    if (magnitude > (limit - digit) / 10) return false;
    magnitude = magnitude * 10 + digit;
  }
  if (!negative) {
    *value = static_cast<int64_t>(magnitude);
  } else if (magnitude == limit) {
    *value = std::numeric_limits<int64_t>::min();
  } else {
    *value = -static_cast<int64_t>(magnitude);
  }
  return true;
}

// A decimal's text as a double; false beyond a double's range. std::from_chars neither
// depends on the locale nor reads more than it is given; it takes no leading '+'.
bool ToDouble(std::string_view text, double* value) {
  if (text.front() == '+') text.remove_prefix(1);
  double result = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), result);
  if (error != std::errc() || end != text.data() + text.size()) return false;
  *value = result;
  return true;
}

const char kIntegerRange[] =
    "the integer does not fit in 64 bits (a property's integers are signed: "
    "-9223372036854775808 to 9223372036854775807)";
const char kDecimalRange[] =
    "the decimal does not fit in a double (magnitudes from about 4.9e-324 to 1.8e308, or 0)";

}  // namespace

std::string ParseValue(std::string_view text, nlohmann::json* value) {
  if (text == "true" || text == "false") {
    *value = text == "true";
    return "";
  }
  switch (FormOf(text)) {
    case Form::kInteger: {
      int64_t integer = 0;
      if (!ToInt64(text, &integer)) return kIntegerRange;
      *value = integer;
      return "";
    }
    case Form::kDecimal: {
      double decimal = 0;
      if (!ToDouble(text, &decimal)) return kDecimalRange;
      *value = decimal;
      return "";
    }
    case Form::kText:
      break;
  }
  if (text.size() >= 2 && text.front() == '"' && text.back() == '"')
    text = text.substr(1, text.size() - 2);
  *value = std::string(text);
  return "";
}

std::string ParseAssignment(std::string_view argument, Assignment* assignment) {
  const size_t equals = argument.find('=');
  if (equals == std::string_view::npos)
    return "expected NAME=VALUE, got '" + Abbreviated(argument) + "'";
  const std::string_view name = argument.substr(0, equals);
  const std::string_view text = argument.substr(equals + 1);
  if (!IsName(name))
    return "'" + Abbreviated(argument) +
           "': a property's name is a letter or _ followed by letters, digits, _ . or -";
  // The target device's id is a text whatever it looks like, taken exactly as given.
  if (name == "device" || name == "device_id") {
    *assignment = {"device_id", std::string(text)};
    return "";
  }
  nlohmann::json value;
  const std::string problem = ParseValue(text, &value);
  if (!problem.empty()) return Abbreviated(argument) + ": " + problem;
  *assignment = {std::string(name), std::move(value)};
  return "";
}

std::string ParseMilliseconds(std::string_view option, std::string_view text, uint32_t* ms) {
  const std::string shown = std::string(option) + " " + Abbreviated(text);
  if (text.empty()) return std::string(option) + " takes a number of milliseconds, not ''";
  constexpr uint64_t kMax = std::numeric_limits<uint32_t>::max();
  uint64_t value = 0;
  for (const char c : text) {
    if (!IsDigit(c))
      return std::string(option) + " takes a whole number of milliseconds, not '" +
             Abbreviated(text) + "'";
    // Saturates: the digits are still checked to the end.
    if (value <= kMax) value = value * 10 + static_cast<uint64_t>(c - '0');
  }
  if (value > kMax) return shown + ": at most 4294967295 ms (about 49.7 days)";
  *ms = static_cast<uint32_t>(value);
  return "";
}

bool IsUtf8(std::string_view text) {
  const size_t n = text.size();
  size_t i = 0;
  while (i < n) {
    const auto byte = [&](size_t at) { return static_cast<unsigned char>(text[at]); };
    const unsigned char lead = byte(i);
    if (lead < 0x80) {
      ++i;
      continue;
    }
    size_t length = 0;
    unsigned char low = 0x80, high = 0xBF;  // the range of the byte after the lead
    if (lead >= 0xC2 && lead <= 0xDF) {
      length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
      length = 3;
      if (lead == 0xE0) low = 0xA0;   // overlong
      if (lead == 0xED) high = 0x9F;  // surrogates
    } else if (lead >= 0xF0 && lead <= 0xF4) {
      length = 4;
      if (lead == 0xF0) low = 0x90;   // overlong
      if (lead == 0xF4) high = 0x8F;  // above U+10FFFF
    } else {
      return false;
    }
    if (n - i < length) return false;
    if (byte(i + 1) < low || byte(i + 1) > high) return false;
    for (size_t k = 2; k < length; ++k) {
      if (byte(i + k) < 0x80 || byte(i + k) > 0xBF) return false;
    }
    i += length;
  }
  return true;
}

std::string Abbreviated(std::string_view text) {
  constexpr size_t kShown = 60;
  if (text.size() <= kShown + 4) return std::string(text);
  size_t cut = kShown;
  // Back over continuation bytes, so that a character is not split.
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return std::string(text.substr(0, cut)) + "... (" + std::to_string(text.size()) + " bytes)";
}

}  // namespace hxf_tool
