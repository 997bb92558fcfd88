#include <gtest/gtest.h>

#include <string>

#include "hxf_common.h"

namespace {
hxf_string S(const char* text) {
  return hxf_string_from_cstr(text);
}
}  // namespace

TEST(Property, EachTypeKeepsNameTypeAndValue) {
  hxf_property_h i = hxf_property_create_int(S("volume"), -5);
  hxf_property_h d = hxf_property_create_double(S("temperature"), 21.5);
  hxf_property_h b = hxf_property_create_bool(S("power"), true);
  hxf_property_h s = hxf_property_create_string(S("mode"), hxf_string_new("eco\0x", 5));
  EXPECT_STREQ(hxf_property_get_name(i), "volume");
  EXPECT_EQ(hxf_property_get_type(i), HXF_PROPERTY_TYPE_INT);
  EXPECT_EQ(hxf_property_get_type(d), HXF_PROPERTY_TYPE_DOUBLE);
  EXPECT_EQ(hxf_property_get_type(b), HXF_PROPERTY_TYPE_BOOL);
  EXPECT_EQ(hxf_property_get_type(s), HXF_PROPERTY_TYPE_STRING);
  int64_t iv = 0;
  double dv = 0;
  bool bv = false;
  const char* sv = nullptr;
  uint32_t len = 0;
  EXPECT_EQ(hxf_property_get_int(i, &iv), HXF_ERROR_NONE);
  EXPECT_EQ(iv, -5);
  EXPECT_EQ(hxf_property_get_double(d, &dv), HXF_ERROR_NONE);
  EXPECT_DOUBLE_EQ(dv, 21.5);
  EXPECT_EQ(hxf_property_get_bool(b, &bv), HXF_ERROR_NONE);
  EXPECT_TRUE(bv);
  EXPECT_EQ(hxf_property_get_string(s, &sv, &len), HXF_ERROR_NONE);
  EXPECT_EQ(std::string(sv, len), std::string("eco\0x", 5));
  for (hxf_property_h p : {i, d, b, s}) hxf_property_destroy(p);
}

TEST(Property, WrongTypedGetterReportsMismatchAndLeavesOutput) {
  hxf_property_h i = hxf_property_create_int(S("volume"), 3);
  double dv = 1.25;
  EXPECT_EQ(hxf_property_get_double(i, &dv), HXF_ERROR_TYPE_MISMATCH);
  EXPECT_DOUBLE_EQ(dv, 1.25);
  const char* sv = nullptr;
  EXPECT_EQ(hxf_property_get_string(i, &sv, nullptr), HXF_ERROR_TYPE_MISMATCH);
  hxf_property_destroy(i);
}

TEST(Property, CopyIsIndependent) {
  hxf_property_h s = hxf_property_create_string(S("mode"), S("eco"));
  hxf_property_h copy = hxf_property_copy(s);
  hxf_property_destroy(s);
  const char* sv = nullptr;
  EXPECT_EQ(hxf_property_get_string(copy, &sv, nullptr), HXF_ERROR_NONE);
  EXPECT_STREQ(sv, "eco");
  EXPECT_STREQ(hxf_property_get_name(copy), "mode");
  hxf_property_destroy(copy);
}

TEST(Property, NullArgumentsGiveErrorsNotCrashes) {
  int64_t iv = 0;
  EXPECT_EQ(hxf_property_copy(nullptr), nullptr);
  hxf_property_destroy(nullptr);
  EXPECT_EQ(hxf_property_get_name(nullptr), nullptr);
  EXPECT_EQ(hxf_property_get_type(nullptr), HXF_PROPERTY_TYPE_NONE);
  EXPECT_EQ(hxf_property_get_int(nullptr, &iv), HXF_ERROR_INVALID_PARAMETER);
  hxf_property_h i = hxf_property_create_int(S("x"), 1);
  EXPECT_EQ(hxf_property_get_int(i, nullptr), HXF_ERROR_INVALID_PARAMETER);
  hxf_property_destroy(i);
  EXPECT_EQ(hxf_property_create_int(hxf_string_new(nullptr, 4), 1), nullptr);
  EXPECT_EQ(hxf_property_create_string(S("x"), hxf_string_new(nullptr, 4)), nullptr);
}
