// Loading a plugin from its path (host builds), through the shipped library.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "LogCapture.h"
#include "Str.h"
#include "hxf_core.h"

using HXFramework::Test::LogCapture;
using HXFramework::Test::Str;
using HXFramework::Test::WaitUntil;

namespace {

std::string LibraryPath(const std::string& name) {
  return std::string(HXF_TEST_PLUGIN_DIR) + "libhxf-plugin-" + name + ".so";
}

bool IsOpen(const std::string& path) {
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle == nullptr) return false;
  dlclose(handle);
  return true;
}

struct Reports {
  std::mutex mutex;
  std::condition_variable cv;
  std::vector<std::pair<std::string, hxf_plugin_load_result_e>> results;

  static void Callback(hxf_string name, hxf_plugin_load_result_e result, void* user_data) {
    auto* self = static_cast<Reports*>(user_data);
    std::lock_guard<std::mutex> lock(self->mutex);
    self->results.emplace_back(std::string(name.str, name.len), result);
    self->cv.notify_all();
  }
  std::pair<std::string, hxf_plugin_load_result_e> First() {
    EXPECT_TRUE(WaitUntil(mutex, cv, [&] { return !results.empty(); }));
    std::lock_guard<std::mutex> lock(mutex);
    return results.empty() ? std::make_pair(std::string(), HXF_PLUGIN_LOAD_RESULT_FAILED)
                           : results[0];
  }
};

class PluginPath : public ::testing::Test {
 protected:
  void TearDown() override { hxf_core_plugin_unload_all(); }
  hxf_error_e Load(const std::string& argument) {
    return hxf_core_plugin_load(Str(argument), &Reports::Callback, &reports_);
  }
  Reports reports_;
};

}  // namespace

TEST_F(PluginPath, APathLoadsThatLibraryUnderTheNameInItsFileName) {
  const std::string path = LibraryPath("async");
  LogCapture capture;
  ASSERT_EQ(Load(path), HXF_ERROR_NONE);
  const auto result = reports_.First();
  EXPECT_EQ(result.first, "async");
  EXPECT_EQ(result.second, HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  EXPECT_TRUE(IsOpen(path));
  EXPECT_TRUE(capture.Contains("path to load : " + path + "(" + std::to_string(path.size()) +
                               ")\n"));
  EXPECT_TRUE(capture.Contains(" [async] Plugin has been created & inserted into map\n"));
  // It is registered under its name: loaded once, unloaded by name.
  Reports second;
  EXPECT_EQ(hxf_core_plugin_load(Str("async"), &Reports::Callback, &second),
            HXF_ERROR_OPERATION_FAILED);
  EXPECT_EQ(hxf_core_plugin_unload(Str("async")), HXF_ERROR_NONE);
  EXPECT_FALSE(IsOpen(path));
}

TEST_F(PluginPath, ARelativePathIsTakenFromTheWorkingDirectoryOfTheCall) {
  char cwd[4096];
  ASSERT_NE(getcwd(cwd, sizeof cwd), nullptr);
  ASSERT_EQ(chdir(HXF_TEST_PLUGIN_DIR), 0);
  const hxf_error_e code = Load("./libhxf-plugin-async.so");
  ASSERT_EQ(chdir(cwd), 0);
  ASSERT_EQ(code, HXF_ERROR_NONE);
  // Opened later on a pool thread, from the folder it was named in, although the working
  // directory changed back in between.
  EXPECT_EQ(reports_.First(), std::make_pair(std::string("async"), HXF_PLUGIN_LOAD_RESULT_SUCCESS));
}

TEST_F(PluginPath, APathToNoFileIsNotFoundAtOnce) {
  LogCapture capture;
  EXPECT_EQ(Load("/nonexistent/libhxf-plugin-async.so"), HXF_ERROR_NOT_FOUND);
  EXPECT_TRUE(capture.Contains(
      "Exception !! - no plugin library at /nonexistent/libhxf-plugin-async.so(error:6)"));
  EXPECT_EQ(Load(HXF_TEST_PLUGIN_DIR "libhxf-plugin-.so"), HXF_ERROR_INVALID_PARAMETER);
}

TEST_F(PluginPath, APathToADirectoryIsNotFound) {
  const std::string folder = std::string(HXF_TEST_PLUGIN_DIR) + "libhxf-plugin-folder.so";
  ASSERT_TRUE(mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST);
  EXPECT_EQ(Load(folder), HXF_ERROR_NOT_FOUND);
  rmdir(folder.c_str());
}

TEST_F(PluginPath, AFileNotNamedLikeAPluginIsAnInvalidParameter) {
  LogCapture capture;
  EXPECT_EQ(Load("/usr/lib/libc.so"), HXF_ERROR_INVALID_PARAMETER);
  EXPECT_TRUE(capture.Contains(
      "Exception !! - not a plugin library (libhxf-plugin-NAME.so): /usr/lib/libc.so(error:4)"));
  EXPECT_EQ(Load("./libhxf-plugin-async.so.1"), HXF_ERROR_INVALID_PARAMETER);
  std::lock_guard<std::mutex> lock(reports_.mutex);
  EXPECT_TRUE(reports_.results.empty());  // refused, never loading
}
