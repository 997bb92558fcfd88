// Misbehaving plugins and bad reports cost an error code and a log line, never a crash or
// a hang.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "EventLog.h"
#include "Eventually.h"
#include "LogCapture.h"
#include "Str.h"
#include "hxf_core.h"

using HXFramework::Test::EventLog;
using HXFramework::Test::Eventually;
using HXFramework::Test::LogCapture;

using HXFramework::Test::Str;

namespace {

template <typename Fn>
Fn Hook(const std::string& plugin, const char* symbol) {
  void* lib = dlopen((std::string(HXF_TEST_PLUGIN_DIR) + "libhxf-plugin-" + plugin + ".so").c_str(),
                     RTLD_NOW | RTLD_NOLOAD);
  if (lib == nullptr) return nullptr;
  Fn fn = reinterpret_cast<Fn>(dlsym(lib, symbol));
  dlclose(lib);  // the core's own reference keeps it mapped
  return fn;
}

class FaultInjection : public ::testing::Test {
 protected:
  void SetUp() override { hxf_core_initialize(); }
  void TearDown() override {
    for (hxf_client_h client : clients_) hxf_core_client_destroy(client);
    hxf_core_plugin_unload_all();
    hxf_core_plugin_unload_all();  // what a plugin loaded from its DestroyPlugin
    hxf_core_finalize();
  }
  static void OnLoaded(hxf_string name, hxf_plugin_load_result_e result, void* ud) {
    static_cast<EventLog*>(ud)->Add(std::string(name.str, name.len) + " " + std::to_string(result));
  }
  static void OnFound(hxf_client_h, hxf_string, hxf_endpoint_discovery_result_e r, hxf_endpoint_h e,
                      void* ud) {
    static_cast<EventLog*>(ud)->Add(e != nullptr
                                        ? std::string("found ") + hxf_endpoint_get_device_id(e)
                                        : "ended " + std::to_string(r));
  }
  static void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h l,
                       hxf_transaction_h, hxf_error_e e, void* ud) {
    static_cast<EventLog*>(ud)->Add("result " + std::to_string(e) + " " +
                                    (l ? hxf_property_list_get_name(l) : "null"));
  }
  static void OnNotify(hxf_string, hxf_service_session_h, hxf_property_list_h l, hxf_transaction_h,
                       hxf_error_e, void* ud) {
    static_cast<EventLog*>(ud)->Add(std::string("notify ") +
                                    (l ? hxf_property_list_get_name(l) : "null"));
  }
  void Load(const std::string& plugin) {
    ASSERT_EQ(hxf_core_plugin_load(Str(plugin), &OnLoaded, &loads_), HXF_ERROR_NONE);
  }
  hxf_client_h Client() {
    clients_.push_back(hxf_core_client_create(Str("ui")));
    return clients_.back();
  }
  void Request(hxf_client_h client, hxf_service_session_h session, uint32_t timeout = 5000) {
    hxf_property_list_h list = hxf_property_list_create(Str("get"));
    hxf_transaction_h transaction = nullptr;
    hxf_core_client_request_service(client, session, list, &OnResult, timeout, &transaction,
                                    &events_);
    hxf_property_list_destroy(list);
  }

  EventLog loads_;
  EventLog events_;
  std::vector<hxf_client_h> clients_;
};

}  // namespace

TEST_F(FaultInjection, CreatePluginThrowingAStandardExceptionIsAFailedLoad) {
  LogCapture capture;
  Load("fault_throw_std");
  EXPECT_TRUE(loads_.WaitCount("fault_throw_std 1", 1));
  EXPECT_TRUE(capture.Contains("Exception !! - plugin start-up exploded\n\n"));
}

TEST_F(FaultInjection, CreatePluginThrowingAnythingElseIsAFailedLoad) {
  LogCapture capture;
  Load("fault_throw_int");
  EXPECT_TRUE(loads_.WaitCount("fault_throw_int 1", 1));
  EXPECT_TRUE(capture.Contains("Exception !! - unknown exception\n\n"));
}

TEST_F(FaultInjection, APluginCallingTheApiFromInsideEveryCallbackStillWorks) {
  Load("fault_reentrant");
  ASSERT_TRUE(loads_.WaitCount("fault_reentrant 0", 1));
  hxf_client_h client = Client();
  hxf_core_client_start_active_search(client, Str("echo"), &OnFound, 5000, &events_);
  ASSERT_TRUE(events_.WaitCount("found echo-1", 1));
  hxf_service_session_h session =
      hxf_core_client_subscribe_service(client, Str("echo"), &OnNotify, &events_);
  ASSERT_NE(session, nullptr);
  Request(client, session);
  Request(client, session);
  // Each request answered twice from inside the callback: one result each, the second
  // answer dropped; the notification naming an answered request is still news.
  ASSERT_TRUE(events_.WaitCount("result 0 answer", 2));
  EXPECT_TRUE(events_.WaitCount("notify news", 2));
  EXPECT_EQ(events_.Count("result 0 answer"), 2);
}

// Regression: unloading held the plugin manager's lock while "DestroyPlugin" ran, so a
// plugin using the plugin API from there waited on that lock (for 20 s, or for ever).
TEST_F(FaultInjection, DestroyPluginMayUseThePluginApi) {
  Load("fault_reentrant");
  ASSERT_TRUE(loads_.WaitCount("fault_reentrant 0", 1));
  LogCapture capture;
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(hxf_core_plugin_unload(Str("fault_reentrant")), HXF_ERROR_NONE);
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));  // no stall
  // The load it asked for was taken by the manager (and failed for want of a library).
  EXPECT_TRUE(capture.Contains(")  [hxf_core_plugin_load], caller_name:"));
  EXPECT_TRUE(capture.WaitFor("failed to load plugin : reentrant-from-destroy"));
}

TEST_F(FaultInjection, ALoadResultFromDestroyPluginDuringUnloadAllFindsItsPlugin) {
  Load("fault_reentrant");
  ASSERT_TRUE(loads_.WaitCount("fault_reentrant 0", 1));
  LogCapture capture;
  EXPECT_EQ(hxf_core_plugin_unload_all(), HXF_ERROR_NONE);
  // The report was made (from "DestroyPlugin", before the unload returned) and found the
  // plugin still in the map. (Its job may then be discarded by the plugin's termination;
  // when it runs, it finds no handler: "plugin callback is null!".)
  EXPECT_TRUE(capture.WaitFor("CPluginMgr :[", "] SendLoadResult("));  // its exit line
  EXPECT_FALSE(capture.Contains("enable to find the plugin in map"));
  EXPECT_EQ(capture.CountContaining(")  try to unload [fault_reentrant] plugin\n"), 1);
  EXPECT_EQ(capture.Find("try to unload").text.rfind("CPluginMgr : UnloadAllPlugin(", 0), 0u);
  EXPECT_EQ(hxf_core_plugin_unload(Str("fault_reentrant")), HXF_ERROR_OPERATION_FAILED);  // gone
}

TEST_F(FaultInjection, ALoadResultFromDestroyPluginDuringAnUnloadFindsNoPlugin) {
  Load("fault_reentrant");
  ASSERT_TRUE(loads_.WaitCount("fault_reentrant 0", 1));
  LogCapture capture;
  EXPECT_EQ(hxf_core_plugin_unload(Str("fault_reentrant")), HXF_ERROR_NONE);
  // One plugin's unload takes it out of the map first.
  EXPECT_TRUE(capture.WaitFor(
      "CPluginMgr : SendLoadResult(",
      ")  Exception !! - enable to find the plugin in map(error:2)(error_code:2)\n"));
  EXPECT_FALSE(capture.Contains("try to unload"));  // the unload-all's line only
}

TEST_F(FaultInjection, LoadingANameThatIsBeingUnloadedFailsUntilItsLibraryIsClosed) {
  // The application's load callback holds the plugin's context busy, so an unload started
  // meanwhile has to wait for it: the name is then being unloaded.
  struct Gate {
    std::mutex mutex;
    std::condition_variable cv;
    bool entered = false;
    bool open = false;
  } gate;
  auto on_loaded = [](hxf_string, hxf_plugin_load_result_e, void* ud) {
    auto* g = static_cast<Gate*>(ud);
    std::unique_lock<std::mutex> lock(g->mutex);
    g->entered = true;
    g->cv.notify_all();
    g->cv.wait(lock, [&] { return g->open; });
  };
  ASSERT_EQ(hxf_core_plugin_load(Str("fault_blocking"), on_loaded, &gate), HXF_ERROR_NONE);
  {
    std::unique_lock<std::mutex> lock(gate.mutex);
    ASSERT_TRUE(gate.cv.wait_for(lock, std::chrono::seconds(10), [&] { return gate.entered; }));
  }
  LogCapture capture;
  std::thread unloader(
      [] { EXPECT_EQ(hxf_core_plugin_unload(Str("fault_blocking")), HXF_ERROR_NONE); });
  ASSERT_TRUE(capture.WaitFor(")  plugin[", "] deleted from plugin map\n"));
  EXPECT_EQ(hxf_core_plugin_load(Str("fault_blocking"), &OnLoaded, &loads_),
            HXF_ERROR_OPERATION_FAILED);
  {
    std::lock_guard<std::mutex> lock(gate.mutex);
    gate.open = true;
    gate.cv.notify_all();
  }
  unloader.join();
  EXPECT_EQ(hxf_core_plugin_load(Str("fault_blocking"), &OnLoaded, &loads_),
            HXF_ERROR_NONE);  // free again
  EXPECT_TRUE(loads_.WaitCount("fault_blocking 0", 1));
}

TEST_F(FaultInjection, APluginBlockedInsideACallbackDoesNotStopOtherClients) {
  Load("fault_blocking");
  ASSERT_TRUE(loads_.WaitCount("fault_blocking 0", 1));
  auto blocked = Hook<int (*)()>("fault_blocking", "hxf_fault_blocked");
  auto release = Hook<void (*)()>("fault_blocking", "hxf_fault_release");
  ASSERT_NE(blocked, nullptr);
  hxf_client_h stuck = Client();
  hxf_core_client_start_active_search(stuck, Str("stuck"), &OnFound, 200, &events_);
  ASSERT_TRUE(Eventually([&] { return blocked() == 1; }));  // a pool thread is now held
  // The stuck client's own search still times out: timers do not need the blocked thread.
  EXPECT_TRUE(events_.WaitCount("ended 2", 1));
  hxf_client_h other = Client();
  hxf_service_session_h session =
      hxf_core_client_subscribe_service(other, Str("free"), &OnNotify, &events_);
  ASSERT_NE(session, nullptr);
  for (int i = 0; i < 20; ++i) Request(other, session);
  EXPECT_TRUE(events_.WaitCount("result 0 answer", 20));
  release();
}

TEST_F(FaultInjection, APluginUnloadingItselfFromItsOwnThreadKeepsItsCodeMapped) {
  Load("fault_self_unload");
  ASSERT_TRUE(loads_.WaitCount("fault_self_unload 0", 1));
  auto unload_myself = Hook<void (*)()>("fault_self_unload", "hxf_fault_unload_myself");
  auto returned = Hook<bool (*)()>("fault_self_unload", "hxf_fault_self_unload_returned");
  ASSERT_NE(unload_myself, nullptr);
  LogCapture capture;
  unload_myself();
  EXPECT_TRUE(Eventually([&] { return returned(); }));  // its thread came back into its code safely
  EXPECT_TRUE(
      capture.Contains("plugin fault_self_unload unloads itself: its library stays open\n"));
  EXPECT_EQ(hxf_core_plugin_unload(Str("fault_self_unload")),
            HXF_ERROR_OPERATION_FAILED);  // gone from the map
}

TEST_F(FaultInjection, ResultsAndNotificationsForTransactionsThatNeverExistedAreDropped) {
  hxf_service_handler_h handler = hxf_core_service_handler_create(Str("liar"), nullptr);
  hxf_core_service_handler_subscribe_service(handler, Str("lies"));
  hxf_client_h client = Client();
  hxf_service_session_h session =
      hxf_core_client_subscribe_service(client, Str("lies"), &OnNotify, &events_);
  ASSERT_NE(session, nullptr);
  LogCapture capture;
  hxf_property_list_h list = hxf_property_list_create(Str("made-up"));
  int never_issued = 0;
  EXPECT_EQ(hxf_core_service_handler_send_request_result(handler, Str("lies"), list, &never_issued,
                                                         HXF_ERROR_NONE),
            HXF_ERROR_NONE);
  EXPECT_TRUE(capture.WaitFor("[RequestResult] transaction NOT Found. But Not Error case."));
  EXPECT_EQ(
      hxf_core_service_handler_notify(handler, Str("lies"), list, &never_issued, HXF_ERROR_NONE),
      HXF_ERROR_NONE);
  EXPECT_TRUE(events_.WaitCount("notify made-up", 1));  // news, with the handle as given
  hxf_property_list_destroy(list);
  EXPECT_EQ(events_.CountPrefix("result"), 0);
  hxf_core_service_handler_destroy(handler);
}

TEST_F(FaultInjection, DeviceReportsForServicesThatDoNotExistFailWithCode2) {
  hxf_service_handler_h handler = hxf_core_service_handler_create(Str("ghost-reporter"), nullptr);
  hxf_endpoint_h endpoint = hxf_endpoint_create(Str("no-such-service"));
  hxf_endpoint_list_h list = hxf_endpoint_list_create();
  hxf_endpoint_list_push_endpoint(list, endpoint, HXF_ERROR_NONE);
  EXPECT_EQ(hxf_core_service_handler_report_device_found(handler, endpoint),
            HXF_ERROR_OPERATION_FAILED);
  EXPECT_EQ(hxf_core_service_handler_report_device_list(handler, list), HXF_ERROR_OPERATION_FAILED);
  hxf_endpoint_list_destroy(list);
  hxf_endpoint_destroy(endpoint);
  hxf_core_service_handler_destroy(handler);
}

TEST_F(FaultInjection, GarbageHandlesAreNotFoundNeverDereferenced) {
  void* garbage[] = {reinterpret_cast<void*>(0x1), reinterpret_cast<void*>(0xdeadbeef),
                     reinterpret_cast<void*>(~uintptr_t{0})};
  for (void* handle : garbage) {
    EXPECT_EQ(hxf_core_client_destroy(handle), HXF_ERROR_INVALID_HANDLE);
    EXPECT_EQ(hxf_core_client_stop_active_search(handle, Str("x")), HXF_ERROR_INVALID_HANDLE);
    EXPECT_EQ(hxf_core_client_subscribe_service(handle, Str("x"), &OnNotify, nullptr), nullptr);
    EXPECT_EQ(hxf_core_service_handler_destroy(handle), HXF_ERROR_INVALID_HANDLE);
    EXPECT_EQ(hxf_core_service_handler_subscribe_service(handle, Str("x")),
              HXF_ERROR_INVALID_HANDLE);
    EXPECT_EQ(hxf_core_service_handler_send_request_result(handle, Str("x"), nullptr, handle,
                                                           HXF_ERROR_NONE),
              HXF_ERROR_OPERATION_FAILED);  // the null list fails first
  }
}
