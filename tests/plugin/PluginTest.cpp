// CPlugin on its own, without a library behind it.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "CException.h"
#include "IPlugin.h"
#include "LogCapture.h"
#include "PluginFile.h"

using HXFramework::CException;
using HXFramework::Core::IPlugin;
using HXFramework::Core::PluginFile;
using HXFramework::Core::ResolvePluginFile;
using HXFramework::Test::LogCapture;

TEST(Plugin, UnloadOfAPluginNeverLoadedLogsNoPluginToDestroyAndChangesNothing) {
  auto plugin = IPlugin::Create("never");
  plugin->Init();
  LogCapture capture;
  plugin->Unload();  // idle: runs before returning
  EXPECT_TRUE(capture.Contains(")  Exception !! - No plugin to destroy(error:2)(error_code:2)\n"));
  EXPECT_FALSE(capture.Contains("plugin_lib_ is null"));  // the close step is skipped
  plugin->Termi();
}

TEST(Plugin, LoadResultAfterUnloadFindsNoHandler) {
  auto plugin = IPlugin::Create("gone");
  plugin->Init();
  plugin->Unload();
  LogCapture capture;
  plugin->SendLoadResult(HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  EXPECT_TRUE(capture.WaitFor(")  plugin callback is null!\n"));
  EXPECT_EQ(capture.Find("plugin callback is null!").priority, DLOG_ERROR);
  plugin->Termi();
}

TEST(Plugin, PostingAfterTermiThrowsInvokeTaskFail) {
  auto plugin = IPlugin::Create("done");
  plugin->Init();
  plugin->Termi();
  EXPECT_THROW(plugin->SendLoadResult(HXF_PLUGIN_LOAD_RESULT_SUCCESS), HXFramework::CException);
  EXPECT_THROW(plugin->Unload(), HXFramework::CException);
}

TEST(Plugin, DestructionLogsThePluginName) {
  LogCapture capture;
  {
    auto plugin = IPlugin::Create("short-lived");
    plugin->Init();
    plugin->Termi();
  }
  auto line = capture.Find("plugin destroyed: short-lived");
  EXPECT_EQ(line.priority, DLOG_ERROR);
  bool traced = false;
  for (const auto& trace : capture.Traces())
    traced |= trace.text == "[HXFW] plugin destroyed: short-lived\n";
  EXPECT_TRUE(traced);
}

// The error code of ResolvePluginFile(argument, paths_allowed); HXF_ERROR_NONE when it resolves.
static hxf_error_e ResolveCode(const std::string& argument, bool paths_allowed) {
  try {
    ResolvePluginFile(argument, paths_allowed);
    return HXF_ERROR_NONE;
  } catch (const CException& e) {
    return e.code;
  }
}

TEST(PluginFile, ABareNameIsThePluginFoldersFileOnEveryBuild) {
  for (const bool paths_allowed : {true, false}) {
    const PluginFile file = ResolvePluginFile("sim", paths_allowed);
    EXPECT_EQ(file.name, "sim");
    EXPECT_EQ(file.path, "");
  }
}

// A folder of its own with an empty "libhxf-plugin-async.so", removed afterwards.
class PluginFileFolder : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/hxf-plugin-file-XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    folder_ = std::string(pattern) + "/";
    std::ofstream(folder_ + "libhxf-plugin-async.so").put('\0');
  }
  void TearDown() override {
    std::remove((folder_ + "libhxf-plugin-async.so").c_str());
    rmdir(folder_.c_str());
  }
  std::string folder_;
};

TEST_F(PluginFileFolder, DeviceBuildsRefuseEveryPath) {
  const std::string path = folder_ + "libhxf-plugin-async.so";
  EXPECT_EQ(ResolveCode(path, false), HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(ResolveCode("./libhxf-plugin-async.so", false), HXF_ERROR_INVALID_PARAMETER);
  try {
    ResolvePluginFile(path, false);
  } catch (const CException& e) {
    EXPECT_EQ(std::string(e.what()),
              "plugins load from their folder only, not from a path: " + path + "(error:4)");
  }
}

TEST_F(PluginFileFolder, HostBuildsTakeTheNameFromTheLibrarysFileName) {
  const std::string path = folder_ + "libhxf-plugin-async.so";
  const PluginFile file = ResolvePluginFile(path, true);
  EXPECT_EQ(file.name, "async");
  EXPECT_EQ(file.path, path);
}

TEST_F(PluginFileFolder, HostBuildsRefuseOtherFileNamesAndMissingFiles) {
  const std::string& folder = folder_;
  EXPECT_EQ(ResolveCode(folder + "libhxf-plugin-.so", true), HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(ResolveCode(folder + "hxf-plugin-async.so", true), HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(ResolveCode(folder + "libhxf-plugin-async.so.0", true), HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(ResolveCode(folder, true), HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(ResolveCode(folder + "libhxf-plugin-none.so", true), HXF_ERROR_NOT_FOUND);
}
