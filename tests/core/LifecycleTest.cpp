#include <gtest/gtest.h>

#include <string>

#include "CoreGlobals.h"
#include "LogCapture.h"
#include "hxf_core.h"

using HXFramework::Test::LogCapture;

namespace {

// Each test starts from the globals' load-time values and the host's default identity.
class Lifecycle : public ::testing::Test {
 protected:
  void SetUp() override {
    HXFramework::Core::g_caller_name = "invalid_name";
    HXFramework::Core::g_app_version = "invalid_version";
    hxf_host_reset_identity();
  }
  void TearDown() override { hxf_host_reset_identity(); }

  // The messages of platform-log lines of the lifecycle functions, in order.
  static std::vector<std::string> Messages(LogCapture& capture) {
    std::vector<std::string> out;
    for (const auto& line : capture.Lines()) {
      if (line.text.rfind("hxf_core_export : ", 0) != 0) continue;
      out.push_back(line.text.substr(line.text.find(")  ") + 3));
      EXPECT_EQ(line.priority, DLOG_ERROR) << line.text;
    }
    return out;
  }
};

}  // namespace

TEST_F(Lifecycle, InitializeReadsNameAndVersionAndLogsEachStep) {
  LogCapture capture;
  EXPECT_EQ(hxf_core_initialize(), HXF_ERROR_NONE);
  EXPECT_EQ(HXFramework::Core::g_caller_name, HXF_HOST_DEFAULT_APP_NAME);
  EXPECT_EQ(HXFramework::Core::g_app_version, HXF_HOST_DEFAULT_APP_VERSION);
  EXPECT_EQ(Messages(capture),
            (std::vector<std::string>{
                "hxf_core_initialize Entered\n", "app name : " HXF_HOST_DEFAULT_APP_NAME "\n",
                "app_version : " HXF_HOST_DEFAULT_APP_VERSION "\n", "hxf_core_initialize Left\n"}));
  EXPECT_TRUE(capture.Contains("hxf_core_export : hxf_core_initialize("));
  bool traced_entry = false;
  for (const auto& trace : capture.Traces()) {
    traced_entry |= trace.text == "[HXFW] hxf_core_initialize Entered\n";
  }
  EXPECT_TRUE(traced_entry);
}

TEST_F(Lifecycle, InitializeInitialisesClientManagerBeforeServiceManager) {
  LogCapture capture;
  hxf_core_initialize();
  std::vector<std::string> entered;
  for (const auto& line : capture.Lines()) {
    if (line.text.find("Initialize(") != std::string::npos &&
        line.text.find("> Entered") != std::string::npos) {
      entered.push_back(line.text.substr(0, line.text.find(' ')));
    }
  }
  EXPECT_EQ(entered, (std::vector<std::string>{"CClientMgr", "CServiceMgr"}));
}

TEST_F(Lifecycle, FailingAppNameWithoutTextKeepsInvalidNameAndReturnsNone) {
  hxf_host_set_app_name(-1, nullptr);
  LogCapture capture;
  EXPECT_EQ(hxf_core_initialize(), HXF_ERROR_NONE);
  EXPECT_EQ(HXFramework::Core::g_caller_name, "invalid_name");
  auto messages = Messages(capture);
  ASSERT_GE(messages.size(), 2u);
  EXPECT_EQ(messages[1], "failed to get app name\n");
  EXPECT_EQ(capture.Count("app name : "), 0);
  EXPECT_EQ(HXFramework::Core::g_app_version, HXF_HOST_DEFAULT_APP_VERSION);
}

TEST_F(Lifecycle, FailingAppNameThatStillProducesTextUsesTheText) {
  hxf_host_set_app_name(-1, "partial-app");
  LogCapture capture;
  EXPECT_EQ(hxf_core_initialize(), HXF_ERROR_NONE);
  EXPECT_EQ(HXFramework::Core::g_caller_name, "partial-app");
  auto messages = Messages(capture);
  ASSERT_GE(messages.size(), 3u);
  EXPECT_EQ(messages[1], "failed to get app name\n");
  EXPECT_EQ(messages[2], "app name : partial-app\n");
}

TEST_F(Lifecycle, FailingPackageLookupKeepsInvalidVersionAndReturnsNone) {
  hxf_host_set_package_info_result(-2);
  LogCapture capture;
  EXPECT_EQ(hxf_core_initialize(), HXF_ERROR_NONE);
  EXPECT_EQ(HXFramework::Core::g_app_version, "invalid_version");
  auto messages = Messages(capture);
  ASSERT_FALSE(messages.empty());
  EXPECT_EQ(messages.back(), "package_manager_get_package_info failed!\n");
}

TEST_F(Lifecycle, FailingVersionLookupKeepsInvalidVersionAndReturnsNone) {
  hxf_host_set_package_version(-3, nullptr);
  LogCapture capture;
  EXPECT_EQ(hxf_core_initialize(), HXF_ERROR_NONE);
  EXPECT_EQ(HXFramework::Core::g_app_version, "invalid_version");
  EXPECT_EQ(Messages(capture).back(), "package_info_get_version failed!\n");
}

TEST_F(Lifecycle, NullVersionIsLoggedAndKeepsInvalidVersion) {
  hxf_host_set_package_version(0, nullptr);
  LogCapture capture;
  EXPECT_EQ(hxf_core_initialize(), HXF_ERROR_NONE);
  EXPECT_EQ(HXFramework::Core::g_app_version, "invalid_version");
  EXPECT_EQ(Messages(capture).back(), "version null!\n");
}

TEST_F(Lifecycle, FinalizeWithoutInitializeReturnsNone) {
  LogCapture capture;
  EXPECT_EQ(hxf_core_finalize(), HXF_ERROR_NONE);
  EXPECT_EQ(Messages(capture),
            (std::vector<std::string>{"hxf_core_finalize Entered\n", "hxf_core_finalize Left\n"}));
  EXPECT_TRUE(capture.Contains("client map size: 0\n"));
  EXPECT_TRUE(capture.Contains("service_map_size: 0, service_handler_map_ size: 0\n"));
}

TEST_F(Lifecycle, FinalizeKeepsTheGlobals) {
  hxf_core_initialize();
  hxf_core_finalize();
  EXPECT_EQ(HXFramework::Core::g_caller_name, HXF_HOST_DEFAULT_APP_NAME);
  EXPECT_EQ(HXFramework::Core::g_app_version, HXF_HOST_DEFAULT_APP_VERSION);
}
