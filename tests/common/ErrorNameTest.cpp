#include <gtest/gtest.h>

#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>

#include "hxf_common.h"

extern "C" const char* ErrorNameFromC(int number);  // ErrorNameFromC.c

namespace {

#define HXF_CODE(name) \
  { name, #name }
const std::map<int, std::string> kCodes = {
    HXF_CODE(HXF_ERROR_NONE),
    HXF_CODE(HXF_ERROR_TIMED_OUT),
    HXF_CODE(HXF_ERROR_OPERATION_FAILED),
    HXF_CODE(HXF_ERROR_CREATE_FAILED),
    HXF_CODE(HXF_ERROR_INVALID_PARAMETER),
    HXF_CODE(HXF_ERROR_OUT_OF_MEMORY),
    HXF_CODE(HXF_ERROR_NOT_FOUND),
    HXF_CODE(HXF_ERROR_TYPE_MISMATCH),
    HXF_CODE(HXF_ERROR_INVALID_HANDLE),
    HXF_CODE(HXF_ERROR_INVALID_CLIENT),
    HXF_CODE(HXF_ERROR_INVALID_TRANSACTION),
    HXF_CODE(HXF_ERROR_INVALID_SERVICE_NAME),
};
#undef HXF_CODE

// The enumerators of hxf_error_e as the installed header spells them, with their values.
std::map<int, std::string> HeaderEnumerators() {
  std::ifstream file(HXF_COMMON_HEADER);
  std::stringstream text;
  text << file.rdbuf();
  const std::string header = text.str();
  const size_t begin = header.find("typedef enum hxf_error_e {");
  const size_t end = header.find("} hxf_error_e;", begin);
  std::map<int, std::string> found;
  if (begin == std::string::npos || end == std::string::npos) return found;
  const std::string body = header.substr(begin, end - begin);
  const std::regex enumerator("(HXF_ERROR_[A-Z_]+) = ([0-9]+)");
  for (std::sregex_iterator it(body.begin(), body.end(), enumerator), last; it != last; ++it)
    found[std::stoi((*it)[2])] = (*it)[1];
  return found;
}

}  // namespace

TEST(ErrorName, EveryCodeHasItsEnumeratorsName) {
  for (const auto& [code, name] : kCodes) {
    const char* given = hxf_error_name(static_cast<hxf_error>(code));
    ASSERT_NE(given, nullptr) << code;
    EXPECT_EQ(given, name) << code;
  }
}

// A code added to the header without a name (or with another one) fails here, whatever the
// table above says.
TEST(ErrorName, EveryEnumeratorTheHeaderDeclaresIsNamed) {
  const std::map<int, std::string> declared = HeaderEnumerators();
  ASSERT_GE(declared.size(), 12u) << "no hxf_error_e enumerators read from " << HXF_COMMON_HEADER;
  EXPECT_EQ(declared, kCodes);
  for (const auto& [code, name] : declared) {
    const char* given = hxf_error_name(static_cast<hxf_error>(code));
    EXPECT_STREQ(given, name.c_str()) << code;
  }
}

TEST(ErrorName, ANumberThatIsNoCodeHasNoName) {
  // Only numbers in the enum's range (four bits): a C++ caller cannot make any other.
  for (int number : {8, 9, 11, 15}) {
    if (kCodes.count(number) != 0) continue;
    EXPECT_EQ(hxf_error_name(static_cast<hxf_error>(number)), nullptr) << number;
  }
}

TEST(ErrorName, ANumberFromCThatIsNoCodeHasNoName) {
  for (int number : {-1, 8, 15, 16, 99, 1 << 30})
    EXPECT_EQ(ErrorNameFromC(number), nullptr) << number;
  EXPECT_STREQ(ErrorNameFromC(14), "HXF_ERROR_INVALID_SERVICE_NAME");
}
