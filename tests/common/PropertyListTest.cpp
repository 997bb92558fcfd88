#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hxf_common.h"

namespace {

hxf_string S(const char* text) {
  return hxf_string_from_cstr(text);
}

hxf_property_list_h MakeList(const char* name, std::initializer_list<const char*> props) {
  hxf_property_list_h list = hxf_property_list_create(S(name));
  int64_t value = 0;
  for (const char* prop : props) {
    hxf_property_h p = hxf_property_create_int(S(prop), value++);
    hxf_property_list_push_property(list, p, HXF_ERROR_NONE);
    hxf_property_destroy(p);
  }
  return list;
}

std::vector<std::string> Names(hxf_property_list_h list) {
  std::vector<std::string> names;
  for (hxf_property_h p = hxf_property_list_get_first(list); p != nullptr;
       p = hxf_property_list_get_next(list, p)) {
    names.push_back(hxf_property_get_name(p));
  }
  return names;
}

}  // namespace

TEST(PropertyList, NameIsSetAtCreationAndByLength) {
  hxf_property_list_h list = hxf_property_list_create(S("get"));
  EXPECT_STREQ(hxf_property_list_get_name(list), "get");
  EXPECT_EQ(hxf_property_list_set_name(list, hxf_string_new("settings", 3)), HXF_ERROR_NONE);
  EXPECT_STREQ(hxf_property_list_get_name(list), "set");
  hxf_property_list_destroy(list);
}

TEST(PropertyList, PushCopiesAndIterationKeepsOrder) {
  hxf_property_list_h list = MakeList("set", {"power", "brightness", "color"});
  EXPECT_EQ(Names(list), (std::vector<std::string>{"power", "brightness", "color"}));
  EXPECT_EQ(hxf_property_list_size(list), 3u);
  EXPECT_FALSE(hxf_property_list_empty(list));
  hxf_property_list_destroy(list);
}

TEST(PropertyList, FindMatchesPropertyName) {
  hxf_property_list_h list = MakeList("set", {"power", "brightness"});
  hxf_property_h found = hxf_property_list_find(list, S("brightness"));
  ASSERT_NE(found, nullptr);
  int64_t value = -1;
  EXPECT_EQ(hxf_property_get_int(found, &value), HXF_ERROR_NONE);
  EXPECT_EQ(value, 1);
  EXPECT_EQ(hxf_property_list_find(list, S("volume")), nullptr);
  hxf_property_list_destroy(list);
}

TEST(PropertyList, PopHandsOutFirstPropertyWithItsError) {
  hxf_property_list_h list = hxf_property_list_create(S("get"));
  hxf_property_h p = hxf_property_create_bool(S("power"), true);
  hxf_property_list_push_property(list, p, HXF_ERROR_INVALID_PARAMETER);
  hxf_property_destroy(p);
  hxf_property_h popped = nullptr;
  hxf_error error = HXF_ERROR_NONE;
  EXPECT_EQ(hxf_property_list_pop(list, &popped, &error), HXF_ERROR_NONE);
  EXPECT_EQ(error, HXF_ERROR_INVALID_PARAMETER);
  EXPECT_STREQ(hxf_property_get_name(popped), "power");
  hxf_property_destroy(popped);
  EXPECT_TRUE(hxf_property_list_empty(list));
  EXPECT_EQ(hxf_property_list_pop(list, &popped, &error), HXF_ERROR_NOT_FOUND);
  hxf_property_list_destroy(list);
}

TEST(PropertyList, CopyKeepsNameAndItemsIndependently) {
  hxf_property_list_h list = MakeList("set", {"a", "b"});
  hxf_property_list_h copy = hxf_property_list_copy(list);
  hxf_property_list_set_name(list, S("changed"));
  hxf_property_list_destroy(list);
  EXPECT_STREQ(hxf_property_list_get_name(copy), "set");
  EXPECT_EQ(Names(copy), (std::vector<std::string>{"a", "b"}));
  hxf_property_list_destroy(copy);
}

TEST(PropertyList, NullArgumentsGiveErrorsNotCrashes) {
  hxf_property_h popped = nullptr;
  hxf_property_h p = hxf_property_create_int(S("x"), 1);
  hxf_property_list_h list = hxf_property_list_create(S("get"));
  EXPECT_EQ(hxf_property_list_create(hxf_string_new(nullptr, 2)), nullptr);
  EXPECT_EQ(hxf_property_list_copy(nullptr), nullptr);
  hxf_property_list_destroy(nullptr);
  EXPECT_EQ(hxf_property_list_get_name(nullptr), nullptr);
  EXPECT_EQ(hxf_property_list_set_name(nullptr, S("a")), HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(hxf_property_list_set_name(list, hxf_string_new(nullptr, 1)),
            HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(hxf_property_list_push_property(nullptr, p, HXF_ERROR_NONE),
            HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(hxf_property_list_push_property(list, nullptr, HXF_ERROR_NONE),
            HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(hxf_property_list_pop(nullptr, &popped, nullptr), HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(hxf_property_list_find(nullptr, S("x")), nullptr);
  EXPECT_EQ(hxf_property_list_get_first(nullptr), nullptr);
  EXPECT_EQ(hxf_property_list_get_next(nullptr, p), nullptr);
  EXPECT_TRUE(hxf_property_list_empty(nullptr));
  hxf_property_destroy(p);
  hxf_property_list_destroy(list);
}
