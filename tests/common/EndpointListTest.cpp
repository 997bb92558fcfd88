#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "hxf_common.h"

namespace {

hxf_string S(const char* text) {
  return hxf_string_from_cstr(text);
}

hxf_endpoint_h Device(const char* id) {
  hxf_endpoint_h e = hxf_endpoint_create(S("lights"));
  hxf_endpoint_set_device_id(e, S(id));
  return e;
}

std::vector<std::string> Ids(hxf_endpoint_list_h list) {
  std::vector<std::string> ids;
  for (hxf_endpoint_h e = hxf_endpoint_list_get_first(list); e != nullptr;
       e = hxf_endpoint_list_get_next(list, e)) {
    ids.push_back(hxf_endpoint_get_device_id(e));
  }
  return ids;
}

}  // namespace

TEST(EndpointList, PushCopiesSoCallerKeepsAndDestroysItsOwn) {
  hxf_endpoint_list_h list = hxf_endpoint_list_create();
  hxf_endpoint_h e = Device("a");
  EXPECT_EQ(hxf_endpoint_list_push_endpoint(list, e, HXF_ERROR_NONE), HXF_ERROR_NONE);
  EXPECT_NE(hxf_endpoint_list_get_first(list), e);
  hxf_endpoint_destroy(e);
  EXPECT_EQ(Ids(list), std::vector<std::string>{"a"});
  hxf_endpoint_list_destroy(list);
}

TEST(EndpointList, IterationKeepsPushOrder) {
  hxf_endpoint_list_h list = hxf_endpoint_list_create();
  EXPECT_TRUE(hxf_endpoint_list_empty(list));
  for (const char* id : {"a", "b", "c"}) {
    hxf_endpoint_h e = Device(id);
    hxf_endpoint_list_push_endpoint(list, e, HXF_ERROR_NONE);
    hxf_endpoint_destroy(e);
  }
  EXPECT_FALSE(hxf_endpoint_list_empty(list));
  EXPECT_EQ(hxf_endpoint_list_size(list), 3u);
  EXPECT_EQ(Ids(list), (std::vector<std::string>{"a", "b", "c"}));
  hxf_endpoint_list_destroy(list);
}

TEST(EndpointList, PopHandsOutFirstItemWithItsErrorAndOwnership) {
  hxf_endpoint_list_h list = hxf_endpoint_list_create();
  hxf_endpoint_h a = Device("a");
  hxf_endpoint_h b = Device("b");
  hxf_endpoint_list_push_endpoint(list, a, HXF_ERROR_TIMED_OUT);
  hxf_endpoint_list_push_endpoint(list, b, HXF_ERROR_NONE);
  hxf_endpoint_destroy(a);
  hxf_endpoint_destroy(b);
  hxf_endpoint_h popped = nullptr;
  hxf_error error = HXF_ERROR_NONE;
  EXPECT_EQ(hxf_endpoint_list_pop(list, &popped, &error), HXF_ERROR_NONE);
  EXPECT_STREQ(hxf_endpoint_get_device_id(popped), "a");
  EXPECT_EQ(error, HXF_ERROR_TIMED_OUT);
  hxf_endpoint_destroy(popped);
  EXPECT_EQ(Ids(list), std::vector<std::string>{"b"});
  EXPECT_EQ(hxf_endpoint_list_pop(list, &popped, nullptr), HXF_ERROR_NONE);
  hxf_endpoint_destroy(popped);
  EXPECT_EQ(hxf_endpoint_list_pop(list, &popped, &error), HXF_ERROR_NOT_FOUND);
  EXPECT_EQ(popped, nullptr);
  hxf_endpoint_list_destroy(list);
}

TEST(EndpointList, FindMatchesDeviceIdAndReturnsBorrowedItem) {
  hxf_endpoint_list_h list = hxf_endpoint_list_create();
  for (const char* id : {"a", "b"}) {
    hxf_endpoint_h e = Device(id);
    hxf_endpoint_list_push_endpoint(list, e, HXF_ERROR_NONE);
    hxf_endpoint_destroy(e);
  }
  hxf_endpoint_h found = hxf_endpoint_list_find(list, S("b"));
  ASSERT_NE(found, nullptr);
  EXPECT_EQ(found, hxf_endpoint_list_get_next(list, hxf_endpoint_list_get_first(list)));
  EXPECT_EQ(hxf_endpoint_list_find(list, S("zzz")), nullptr);
  hxf_endpoint_list_destroy(list);
}

TEST(EndpointList, CopyIsDeepAndIndependent) {
  hxf_endpoint_list_h list = hxf_endpoint_list_create();
  hxf_endpoint_h e = Device("a");
  hxf_endpoint_list_push_endpoint(list, e, HXF_ERROR_NONE);
  hxf_endpoint_destroy(e);
  hxf_endpoint_list_h copy = hxf_endpoint_list_copy(list);
  hxf_endpoint_list_destroy(list);
  EXPECT_EQ(Ids(copy), std::vector<std::string>{"a"});
  hxf_endpoint_list_destroy(copy);
}

TEST(EndpointList, NextOfForeignOrLastItemIsNull) {
  hxf_endpoint_list_h list = hxf_endpoint_list_create();
  hxf_endpoint_h e = Device("a");
  hxf_endpoint_list_push_endpoint(list, e, HXF_ERROR_NONE);
  EXPECT_EQ(hxf_endpoint_list_get_next(list, e), nullptr);  // caller's own handle, not an item
  EXPECT_EQ(hxf_endpoint_list_get_next(list, hxf_endpoint_list_get_first(list)), nullptr);
  hxf_endpoint_destroy(e);
  hxf_endpoint_list_destroy(list);
}

TEST(EndpointList, NullArgumentsGiveErrorsNotCrashes) {
  hxf_endpoint_h popped = nullptr;
  hxf_endpoint_h e = Device("a");
  hxf_endpoint_list_h list = hxf_endpoint_list_create();
  EXPECT_EQ(hxf_endpoint_list_copy(nullptr), nullptr);
  hxf_endpoint_list_destroy(nullptr);
  EXPECT_EQ(hxf_endpoint_list_push_endpoint(nullptr, e, HXF_ERROR_NONE),
            HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(hxf_endpoint_list_push_endpoint(list, nullptr, HXF_ERROR_NONE),
            HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(hxf_endpoint_list_pop(nullptr, &popped, nullptr), HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(hxf_endpoint_list_pop(list, nullptr, nullptr), HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(hxf_endpoint_list_find(nullptr, S("a")), nullptr);
  EXPECT_EQ(hxf_endpoint_list_get_first(nullptr), nullptr);
  EXPECT_EQ(hxf_endpoint_list_get_next(nullptr, e), nullptr);
  EXPECT_EQ(hxf_endpoint_list_get_next(list, nullptr), nullptr);
  EXPECT_TRUE(hxf_endpoint_list_empty(nullptr));
  EXPECT_EQ(hxf_endpoint_list_size(nullptr), 0u);
  hxf_endpoint_destroy(e);
  hxf_endpoint_list_destroy(list);
}
