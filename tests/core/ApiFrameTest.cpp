#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "ApiFrame.h"
#include "CException.h"
#include "CoreGlobals.h"
#include "LogCapture.h"

using HXFramework::CException;
using HXFramework::Core::ApiFrame;
using HXFramework::Core::CLogSite;
using HXFramework::Test::LogCapture;

namespace {

const CLogSite kSite{"hxf_core_export", "core/hxf_core_export", "hxf_core_client_create", 99};

class ApiFrameTest : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_name_ = HXFramework::Core::g_caller_name;
    saved_version_ = HXFramework::Core::g_app_version;
  }
  void TearDown() override {
    HXFramework::Core::g_caller_name = saved_name_;
    HXFramework::Core::g_app_version = saved_version_;
  }
  std::string saved_name_;
  std::string saved_version_;
};

}  // namespace

TEST(CException, MessageCarriesCodeSuffixAndCodeIsReadable) {
  CException e("service_name is empty!!", HXF_ERROR_INVALID_PARAMETER);
  EXPECT_STREQ(e.what(), "service_name is empty!!(error:4)");
  EXPECT_EQ(e.code, HXF_ERROR_INVALID_PARAMETER);
  const std::domain_error& base = e;
  EXPECT_STREQ(base.what(), "service_name is empty!!(error:4)");
}

TEST_F(ApiFrameTest, CExceptionBecomesItsCodeAndIsLoggedWithBothSuffixes) {
  LogCapture capture;
  hxf_error_e result = ApiFrame(
      kSite, [] { throw CException("service_name is empty!!", HXF_ERROR_INVALID_PARAMETER); });
  EXPECT_EQ(result, HXF_ERROR_INVALID_PARAMETER);
  auto line = capture.Find("Exception !!");
  EXPECT_EQ(line.text,
            "hxf_core_export : hxf_core_client_create(99)  Exception !! - "
            "service_name is empty!!(error:4)(error_code:4)\n");
  EXPECT_EQ(line.priority, DLOG_ERROR);
  bool traced = false;
  for (const auto& trace : capture.Traces()) {
    traced |=
        trace.text == "[HXFW] Exception !! - service_name is empty!!(error:4)(error_code:4)\n";
  }
  EXPECT_TRUE(traced);
}

TEST_F(ApiFrameTest, StandardExceptionBecomesOperationFailed) {
  LogCapture capture;
  hxf_error_e result =
      ApiFrame(kSite, [] { throw std::invalid_argument("failed to create list"); });
  EXPECT_EQ(result, HXF_ERROR_OPERATION_FAILED);
  EXPECT_EQ(capture.Find("Exception !!").text,
            "hxf_core_export : hxf_core_client_create(99)  Exception !! - failed to create list\n");
}

TEST_F(ApiFrameTest, CreatorWhoseManagerThrowsReturnsNullNotCode) {
  LogCapture capture;
  void* handle = ApiFrame(kSite, []() -> void* {
    throw CException("client_name is empty!!", HXF_ERROR_INVALID_PARAMETER);
  });
  EXPECT_EQ(handle, nullptr);
  EXPECT_TRUE(capture.Contains("Exception !! - client_name is empty!!(error:4)(error_code:4)"));
  void* from_std = ApiFrame(kSite, []() -> void* { throw std::bad_alloc(); });
  EXPECT_EQ(from_std, nullptr);
}

TEST_F(ApiFrameTest, SuccessReturnsNoneOrTheHandle) {
  int object = 0;
  EXPECT_EQ(ApiFrame(kSite, [] {}), HXF_ERROR_NONE);
  EXPECT_EQ(ApiFrame(kSite, [&]() -> void* { return &object; }), &object);
}

TEST_F(ApiFrameTest, EntryPointBeforeInitializeLogsInvalidNameAndVersion) {
  HXFramework::Core::g_caller_name = "invalid_name";
  HXFramework::Core::g_app_version = "invalid_version";
  LogCapture capture;
  ApiFrame(kSite, [] {});
  auto lines = capture.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_NE(lines[0].text.find(" : print_app_info("), std::string::npos);
  EXPECT_NE(lines[0].text.find(")  [hxf_core_client_create], caller_name:[invalid_name], "
                               "app_version:[invalid_version]\n"),
            std::string::npos);
  EXPECT_EQ(lines[0].priority, DLOG_ERROR);
  ASSERT_EQ(capture.Traces().size(), 1u);
  EXPECT_EQ(capture.Traces()[0].text,
            "[HXFW] [hxf_core_client_create], caller_name:[invalid_name], "
            "app_version:[invalid_version]\n");
}

TEST_F(ApiFrameTest, EmptyCallerNameLogsTheEmptyNotice) {
  HXFramework::Core::g_caller_name.clear();
  LogCapture capture;
  HXFramework::Core::print_app_info("hxf_core_plugin_load");
  EXPECT_TRUE(capture.Contains(")  caller_name or app_version or function_name is empty !\n"));
  capture.Clear();
  HXFramework::Core::g_caller_name = "app";
  HXFramework::Core::print_app_info("");
  EXPECT_TRUE(capture.Contains("caller_name or app_version or function_name is empty !\n"));
}

TEST_F(ApiFrameTest, PrintAppInfoRunsBeforeTheBody) {
  LogCapture capture;
  ApiFrame(kSite, [] { dlog_print(DLOG_INFO, "TEST", "body\n"); });
  auto lines = capture.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_NE(lines[0].text.find("[hxf_core_client_create]"), std::string::npos);
  EXPECT_EQ(lines[1].text, "body\n");
}

TEST_F(ApiFrameTest, ExceptionOfAnotherTypeIsNotCaught) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(ApiFrame(kSite, [] { throw 42; }), "");
}
