#include <gtest/gtest.h>

#include <string>

#include "hxf_common.h"

namespace {
hxf_string S(const char* text) {
  return hxf_string_from_cstr(text);
}
}  // namespace

TEST(Endpoint, CreateSetsServiceNameAndEmptyFields) {
  hxf_endpoint_h e = hxf_endpoint_create(S("lights"));
  ASSERT_NE(e, nullptr);
  EXPECT_STREQ(hxf_endpoint_get_service_name(e), "lights");
  EXPECT_STREQ(hxf_endpoint_get_device_id(e), "");
  EXPECT_STREQ(hxf_endpoint_get_ui_meta(e), "");
  hxf_endpoint_destroy(e);
}

TEST(Endpoint, SettersAndGettersRoundTripEveryField) {
  hxf_endpoint_h e = hxf_endpoint_create(S("audio"));
  EXPECT_EQ(hxf_endpoint_set_interface_name(e, S("if")), HXF_ERROR_NONE);
  EXPECT_EQ(hxf_endpoint_set_interface_type(e, S("type")), HXF_ERROR_NONE);
  EXPECT_EQ(hxf_endpoint_set_address(e, S("10.0.0.2")), HXF_ERROR_NONE);
  EXPECT_EQ(hxf_endpoint_set_device_id(e, S("spk-1")), HXF_ERROR_NONE);
  EXPECT_EQ(hxf_endpoint_set_device_name(e, S("Speaker")), HXF_ERROR_NONE);
  EXPECT_EQ(hxf_endpoint_set_ui_meta(e, S("{\"icon\":1}")), HXF_ERROR_NONE);
  EXPECT_STREQ(hxf_endpoint_get_interface_name(e), "if");
  EXPECT_STREQ(hxf_endpoint_get_interface_type(e), "type");
  EXPECT_STREQ(hxf_endpoint_get_address(e), "10.0.0.2");
  EXPECT_STREQ(hxf_endpoint_get_device_id(e), "spk-1");
  EXPECT_STREQ(hxf_endpoint_get_device_name(e), "Speaker");
  EXPECT_STREQ(hxf_endpoint_get_ui_meta(e), "{\"icon\":1}");
  hxf_endpoint_destroy(e);
}

TEST(Endpoint, CopyIsIndependentOfTheOriginal) {
  hxf_endpoint_h e = hxf_endpoint_create(S("lights"));
  hxf_endpoint_set_device_id(e, S("lamp"));
  hxf_endpoint_h copy = hxf_endpoint_copy(e);
  ASSERT_NE(copy, nullptr);
  ASSERT_NE(copy, e);
  hxf_endpoint_set_device_id(e, S("changed"));
  hxf_endpoint_destroy(e);
  EXPECT_STREQ(hxf_endpoint_get_device_id(copy), "lamp");
  EXPECT_STREQ(hxf_endpoint_get_service_name(copy), "lights");
  hxf_endpoint_destroy(copy);
}

TEST(Endpoint, TextIsTakenByLengthKeepingEmbeddedNul) {
  hxf_endpoint_h e = hxf_endpoint_create(hxf_string_new("ab\0cd", 5));
  ASSERT_NE(e, nullptr);
  EXPECT_STREQ(hxf_endpoint_get_service_name(e), "ab");  // C view stops at the NUL
  hxf_endpoint_h e2 = hxf_endpoint_create(hxf_string_new("lightsXXX", 6));
  EXPECT_STREQ(hxf_endpoint_get_service_name(e2), "lights");
  hxf_endpoint_destroy(e);
  hxf_endpoint_destroy(e2);
}

TEST(Endpoint, NullArgumentsGiveErrorsNotCrashes) {
  EXPECT_EQ(hxf_endpoint_copy(nullptr), nullptr);
  hxf_endpoint_destroy(nullptr);
  EXPECT_EQ(hxf_endpoint_get_service_name(nullptr), nullptr);
  EXPECT_EQ(hxf_endpoint_get_device_id(nullptr), nullptr);
  EXPECT_EQ(hxf_endpoint_set_address(nullptr, S("x")), HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(hxf_endpoint_create(hxf_string_new(nullptr, 3)), nullptr);
  hxf_endpoint_h e = hxf_endpoint_create(hxf_string_new(nullptr, 0));
  ASSERT_NE(e, nullptr);
  EXPECT_EQ(hxf_endpoint_set_address(e, hxf_string_new(nullptr, 2)), HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(hxf_endpoint_set_address(e, hxf_string_new(nullptr, 0)), HXF_ERROR_NONE);
  hxf_endpoint_destroy(e);
}

TEST(String, NewRefersToTheGivenCharacters) {
  const char text[] = "hello";
  hxf_string s = hxf_string_new(text, 5);
  EXPECT_EQ(s.str, text);
  EXPECT_EQ(s.len, 5u);
  hxf_string empty = hxf_string_from_cstr(nullptr);
  EXPECT_EQ(empty.len, 0u);
  EXPECT_EQ(hxf_string_from_cstr("abc").len, 3u);
}
