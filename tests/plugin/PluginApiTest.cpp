// The plugin API through the shipped library, with real plugin libraries.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "LogCapture.h"
#include "Str.h"
#include "hxf_core.h"

using HXFramework::Test::LogCapture;
using HXFramework::Test::WaitUntil;

using HXFramework::Test::Str;

namespace {

std::string LibraryPath(const std::string& name) {
  return std::string(HXF_TEST_PLUGIN_DIR) + "libhxf-plugin-" + name + ".so";
}

// Whether the plugin's library is currently mapped in the process.
bool IsOpen(const std::string& name) {
  void* handle = dlopen(LibraryPath(name).c_str(), RTLD_NOW | RTLD_NOLOAD);
  if (handle == nullptr) return false;
  dlclose(handle);
  return true;
}

// Receives load results; every test waits on it instead of sleeping.
struct LoadResults {
  struct Result {
    std::string name;
    hxf_plugin_load_result_e result;
    void* user_data;
    std::thread::id thread;
  };
  std::mutex mutex;
  std::condition_variable cv;
  std::vector<Result> results;

  static void Callback(hxf_string name, hxf_plugin_load_result_e result, void* user_data) {
    auto* self = static_cast<LoadResults*>(user_data);
    std::lock_guard<std::mutex> lock(self->mutex);
    self->results.push_back(
        Result{std::string(name.str, name.len), result, user_data, std::this_thread::get_id()});
    self->cv.notify_all();
  }
  Result WaitFirst() {
    EXPECT_TRUE(WaitUntil(mutex, cv, [&] { return !results.empty(); }));
    std::lock_guard<std::mutex> lock(mutex);
    return results.empty() ? Result{"", HXF_PLUGIN_LOAD_RESULT_SUCCESS, nullptr, {}} : results[0];
  }
};

class PluginApi : public ::testing::Test {
 protected:
  void TearDown() override { hxf_core_plugin_unload_all(); }
  hxf_error_e Load(const std::string& name) {
    return hxf_core_plugin_load(Str(name), &LoadResults::Callback, &results_);
  }
  LoadResults results_;
};

}  // namespace

TEST_F(PluginApi, MissingLibraryReportsFailedAndLogsTheNameAndCode) {
  LogCapture capture;
  EXPECT_EQ(Load("missing"), HXF_ERROR_NONE);  // loading is asynchronous
  auto result = results_.WaitFirst();
  EXPECT_EQ(result.name, "missing");
  EXPECT_EQ(result.result, HXF_PLUGIN_LOAD_RESULT_FAILED);
  EXPECT_TRUE(capture.Contains(
      ")  Exception !! - failed to load plugin : missing(error:2)(error_code:2)\n"));
  EXPECT_TRUE(capture.Contains("path to load : " + LibraryPath("missing") + "(" +
                               std::to_string(LibraryPath("missing").size()) + ")\n"));
}

TEST_F(PluginApi, LoadCallbackReceivesNameResultAndUserDataUnchanged) {
  EXPECT_EQ(Load("async"), HXF_ERROR_NONE);
  auto result = results_.WaitFirst();
  EXPECT_EQ(result.name, "async");
  EXPECT_EQ(result.result, HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  EXPECT_EQ(result.user_data, &results_);
  EXPECT_NE(result.thread, std::this_thread::get_id());
}

TEST_F(PluginApi, CreatePluginRunsOnAPoolThreadNotTheCallers) {
  ASSERT_EQ(Load("async"), HXF_ERROR_NONE);
  results_.WaitFirst();
  void* lib = dlopen(LibraryPath("async").c_str(), RTLD_NOW | RTLD_NOLOAD);
  ASSERT_NE(lib, nullptr);
  auto create_thread = reinterpret_cast<pthread_t (*)()>(dlsym(lib, "hxf_test_create_thread"));
  ASSERT_NE(create_thread, nullptr);
  EXPECT_FALSE(pthread_equal(create_thread(), pthread_self()));
  dlclose(lib);
}

TEST_F(PluginApi, LoadingTheSameNameTwiceFailsAndLeavesTheFirstUntouched) {
  ASSERT_EQ(Load("async"), HXF_ERROR_NONE);
  LogCapture capture;
  LoadResults second;
  EXPECT_EQ(hxf_core_plugin_load(Str("async"), &LoadResults::Callback, &second),
            HXF_ERROR_OPERATION_FAILED);
  EXPECT_TRUE(capture.Contains(
      "Exception !! - requested plugin has already loaded!(error:2)(error_code:2)\n"));
  EXPECT_EQ(results_.WaitFirst().result, HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  EXPECT_TRUE(IsOpen("async"));
}

TEST_F(PluginApi, UnloadRunsDestroyPluginAndClosesTheLibraryBeforeReturning) {
  ASSERT_EQ(Load("async"), HXF_ERROR_NONE);
  results_.WaitFirst();
  ASSERT_TRUE(IsOpen("async"));
  LogCapture capture;
  EXPECT_EQ(hxf_core_plugin_unload(Str("async")), HXF_ERROR_NONE);
  EXPECT_FALSE(IsOpen("async"));
  EXPECT_TRUE(capture.Contains(")  UnloadPlugin End\n"));
  EXPECT_FALSE(capture.Contains("Exception !!"));
  // The object goes with its last reference, which a finishing pool drain may still hold.
  EXPECT_TRUE(capture.WaitFor(")  plugin destroyed: async\n"));
}

TEST_F(PluginApi, UnloadOfAnUnknownNameFails) {
  LogCapture capture;
  EXPECT_EQ(hxf_core_plugin_unload(Str("never-loaded")), HXF_ERROR_OPERATION_FAILED);
  EXPECT_TRUE(
      capture.Contains("Exception !! - No plugin exist to unload!!(error:2)(error_code:2)\n"));
}

TEST_F(PluginApi, LoadResultForAnUnknownNameIsOnlyLogged) {
  LogCapture capture;
  EXPECT_EQ(hxf_core_plugin_send_load_result(Str("ghost"), HXF_PLUGIN_LOAD_RESULT_SUCCESS),
            HXF_ERROR_NONE);
  EXPECT_TRUE(capture.Contains(
      ")  Exception !! - enable to find the plugin in map(error:2)(error_code:2)\n"));
}

TEST_F(PluginApi, UnloadAllOnAnEmptyRegistryLogsMapSizeZero) {
  LogCapture capture;
  EXPECT_EQ(hxf_core_plugin_unload_all(), HXF_ERROR_NONE);
  EXPECT_TRUE(capture.Contains(")  plugin map size: [0]\n"));
  EXPECT_FALSE(capture.Contains("try to unload"));
}

TEST_F(PluginApi, UnloadAllUnloadsEveryPlugin) {
  ASSERT_EQ(Load("async"), HXF_ERROR_NONE);
  results_.WaitFirst();
  LogCapture capture;
  EXPECT_EQ(hxf_core_plugin_unload_all(), HXF_ERROR_NONE);
  EXPECT_TRUE(capture.Contains(")  plugin map size: [1]\n"));
  EXPECT_TRUE(capture.Contains(")  try to unload [async] plugin\n"));
  EXPECT_FALSE(IsOpen("async"));
  EXPECT_EQ(hxf_core_plugin_unload(Str("async")), HXF_ERROR_OPERATION_FAILED);
}

TEST_F(PluginApi, NameWithAnEmbeddedNulIsKeptWhole) {
  const std::string name("async\0x", 7);
  EXPECT_EQ(Load(name), HXF_ERROR_NONE);
  auto result = results_.WaitFirst();
  EXPECT_EQ(result.name, name);                             // all seven bytes
  EXPECT_EQ(result.result, HXF_PLUGIN_LOAD_RESULT_FAILED);  // names no file
  EXPECT_FALSE(IsOpen("async"));
  EXPECT_EQ(hxf_core_plugin_unload(Str("async")), HXF_ERROR_OPERATION_FAILED);
  EXPECT_EQ(hxf_core_plugin_unload(Str(name)), HXF_ERROR_NONE);
}

TEST_F(PluginApi, NullNameWithALengthIsAnInvalidParameter) {
  LogCapture capture;
  EXPECT_EQ(hxf_core_plugin_load(hxf_string_new(nullptr, 4), &LoadResults::Callback, &results_),
            HXF_ERROR_INVALID_PARAMETER);
  EXPECT_TRUE(capture.Contains("Exception !! - string pointer is null(error:4)(error_code:4)\n"));
}

TEST_F(PluginApi, LibraryWithoutDestroyPluginIsReportedFailedAndStaysOpen) {
  LogCapture capture;
  ASSERT_EQ(Load("nodestroy"), HXF_ERROR_NONE);
  EXPECT_EQ(results_.WaitFirst().result, HXF_PLUGIN_LOAD_RESULT_FAILED);
  EXPECT_TRUE(capture.Contains(
      "Exception !! - failed to load a DestroyPlugin symbol !(error:2)(error_code:2)\n"));
  EXPECT_TRUE(IsOpen("nodestroy"));
}

TEST_F(PluginApi, CreatePluginReturningFalseReportsFailedAndUnloadKeepsTheLibraryOpen) {
  LogCapture capture;
  ASSERT_EQ(Load("createfails"), HXF_ERROR_NONE);
  EXPECT_EQ(results_.WaitFirst().result, HXF_PLUGIN_LOAD_RESULT_FAILED);
  EXPECT_TRUE(
      capture.Contains("Exception !! - failed to initialize plugin !(error:2)(error_code:2)\n"));
  EXPECT_EQ(hxf_core_plugin_unload(Str("createfails")), HXF_ERROR_NONE);
  EXPECT_TRUE(capture.Contains("Exception !! - No plugin to destroy(error:2)(error_code:2)\n"));
  EXPECT_TRUE(IsOpen("createfails"));  // the close step is skipped
  void* lib = dlopen(LibraryPath("createfails").c_str(), RTLD_NOW | RTLD_NOLOAD);
  auto destroy_calls = reinterpret_cast<int (*)()>(dlsym(lib, "hxf_test_destroy_calls"));
  EXPECT_EQ(destroy_calls(), 0);
  dlclose(lib);
}

TEST_F(PluginApi, DestroyPluginReturningFalseIsLoggedAndTheLibraryStaysOpen) {
  ASSERT_EQ(Load("destroyfails"), HXF_ERROR_NONE);
  EXPECT_EQ(results_.WaitFirst().result, HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  LogCapture capture;
  EXPECT_EQ(hxf_core_plugin_unload(Str("destroyfails")), HXF_ERROR_NONE);
  EXPECT_TRUE(
      capture.Contains("Exception !! - failed to finalize plugin !(error:2)(error_code:2)\n"));
  EXPECT_TRUE(IsOpen("destroyfails"));
}

// Regression: any application callback under way held every plugin's library open, so an
// unload of an idle plugin stalled 5 s and then left its library mapped.
TEST_F(PluginApi, AnApplicationCallbackUnderWayDoesNotHoldAnIdlePluginOpen) {
  ASSERT_EQ(Load("async"), HXF_ERROR_NONE);
  ASSERT_EQ(results_.WaitFirst().result, HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  // An application's provider whose search callback blocks on a pool thread.
  struct Blocker {
    std::mutex mutex;
    std::condition_variable cv;
    bool entered = false;
    bool released = false;
    bool returned = false;
  } blocker;
  hxf_service_handler_h handler = hxf_core_service_handler_create(Str("app"), nullptr);
  hxf_core_service_handler_set_search_callback(
      handler,
      [](hxf_service_handler_h, hxf_string, void* ud) {
        auto* b = static_cast<Blocker*>(ud);
        std::unique_lock<std::mutex> lock(b->mutex);
        b->entered = true;
        b->cv.notify_all();
        b->cv.wait(lock, [&] { return b->released; });
        b->returned = true;
        b->cv.notify_all();
      },
      &blocker);
  hxf_core_service_handler_subscribe_service(handler, Str("held"));
  hxf_client_h client = hxf_core_client_create(Str("ui"));
  hxf_core_client_start_active_search(
      client, Str("held"),
      [](hxf_client_h, hxf_string, hxf_endpoint_discovery_result_e, hxf_endpoint_h, void*) {},
      60000, nullptr);
  ASSERT_TRUE(WaitUntil(blocker.mutex, blocker.cv, [&] { return blocker.entered; }));

  LogCapture capture;
  EXPECT_EQ(hxf_core_plugin_unload(Str("async")), HXF_ERROR_NONE);
  EXPECT_FALSE(IsOpen("async"));  // closed at once: the blocked callback is not the plugin's
  EXPECT_FALSE(capture.Contains("callbacks still running"));

  {
    std::lock_guard<std::mutex> lock(blocker.mutex);
    blocker.released = true;
    blocker.cv.notify_all();
  }
  ASSERT_TRUE(WaitUntil(blocker.mutex, blocker.cv, [&] { return blocker.returned; }));
  hxf_core_client_destroy(client);
  hxf_core_service_handler_destroy(handler);
}
