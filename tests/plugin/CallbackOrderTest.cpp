// What a consumer may rely on about the order of a session's callbacks: results one at a time
// and in the order the provider sent them; notifications one at a time and in the order sent.
// (A notification and a result travel apart, so nothing orders one against the other.)
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "Eventually.h"
#include "LogCapture.h"
#include "Str.h"
#include "hxf_core.h"

using HXFramework::Test::Eventually;
using HXFramework::Test::Str;
using HXFramework::Test::WaitUntil;

namespace {

constexpr int kCount = 200;

// Records the list names of one kind of callback, and whether two of them ever overlapped.
struct Arrivals {
  std::mutex mutex;
  std::condition_variable cv;
  std::vector<std::string> names;
  std::atomic<int> inside{0};
  std::atomic<bool> overlapped{false};

  void Arrive(hxf_property_list_h list) {
    if (inside.fetch_add(1) != 0) overlapped = true;
    // Stay a little, so that a second callback running beside this one would be seen.
    for (int i = 0; i < 50; ++i) std::this_thread::yield();
    // Done and told under the lock: the waiter may end the test, and destroy this, as soon as
    // it sees the count, so nothing here may touch this after the lock is let go.
    std::lock_guard<std::mutex> lock(mutex);
    const char* name = hxf_property_list_get_name(list);
    names.emplace_back(name != nullptr ? name : "");
    inside.fetch_sub(1);
    cv.notify_all();
  }
  bool WaitCount(size_t count) {
    return WaitUntil(mutex, cv, [&] { return names.size() >= count; });
  }
};

struct Consumer {
  Arrivals results;
  Arrivals notifications;
  static void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h list,
                       hxf_transaction_h, hxf_error_e, void* ud) {
    static_cast<Consumer*>(ud)->results.Arrive(list);
  }
  static void OnNotify(hxf_string, hxf_service_session_h, hxf_property_list_h list,
                       hxf_transaction_h, hxf_error_e, void* ud) {
    static_cast<Consumer*>(ud)->notifications.Arrive(list);
  }
};

struct Loads {
  std::mutex mutex;
  std::condition_variable cv;
  bool loaded = false;
  static void OnLoaded(hxf_string, hxf_plugin_load_result_e result, void* ud) {
    auto* self = static_cast<Loads*>(ud);
    std::lock_guard<std::mutex> lock(self->mutex);
    self->loaded = result == HXF_PLUGIN_LOAD_RESULT_SUCCESS;
    self->cv.notify_all();
  }
};

class CallbackOrder : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(hxf_core_initialize(), HXF_ERROR_NONE);
    ASSERT_EQ(hxf_core_plugin_load(Str("e2e"), &Loads::OnLoaded, &loads_), HXF_ERROR_NONE);
    ASSERT_TRUE(WaitUntil(loads_.mutex, loads_.cv, [&] { return loads_.loaded; }));
    lib_ = dlopen((std::string(HXF_TEST_PLUGIN_DIR) + "libhxf-plugin-e2e.so").c_str(),
                  RTLD_NOW | RTLD_NOLOAD);
    ASSERT_NE(lib_, nullptr);
    answer_pending_ = reinterpret_cast<int (*)()>(dlsym(lib_, "hxf_test_e2e_answer_pending"));
    requests_ = reinterpret_cast<int (*)()>(dlsym(lib_, "hxf_test_e2e_requests"));
    ASSERT_TRUE(answer_pending_ != nullptr && requests_ != nullptr);
    client_ = hxf_core_client_create(Str("ui"));
    ASSERT_NE(client_, nullptr);
    session_ = hxf_core_client_subscribe_service(client_, Str("lights"), &Consumer::OnNotify,
                                                 &consumer_);
    ASSERT_NE(session_, nullptr);
  }
  void TearDown() override {
    if (lib_ != nullptr) dlclose(lib_);
    hxf_core_client_destroy(client_);
    hxf_core_plugin_unload_all();
    hxf_core_finalize();
  }
  void Request(const std::string& operation) {
    hxf_property_list_h list = hxf_property_list_create(Str(operation));
    hxf_transaction_h transaction = nullptr;
    EXPECT_EQ(hxf_core_client_request_service(client_, session_, list, &Consumer::OnResult,
                                              30000, &transaction, &consumer_),
              HXF_ERROR_NONE);
    hxf_property_list_destroy(list);
  }
  static std::vector<std::string> Expected(const std::string& operation) {
    std::vector<std::string> names;
    for (int i = 0; i < kCount; ++i) names.push_back(operation + "#" + std::to_string(i));
    return names;
  }

  Loads loads_;
  Consumer consumer_;  // outlives the client, so a late callback still finds it
  void* lib_ = nullptr;
  int (*answer_pending_)() = nullptr;
  int (*requests_)() = nullptr;
  hxf_client_h client_ = nullptr;
  hxf_service_session_h session_ = nullptr;
};

}  // namespace

TEST_F(CallbackOrder, ResultsOfOneSessionArriveOneAtATimeInTheOrderTheProviderSentThem) {
  for (int i = 0; i < kCount; ++i) Request("hold#" + std::to_string(i));
  ASSERT_TRUE(Eventually([&] { return requests_() >= kCount; }));
  ASSERT_EQ(answer_pending_(), kCount);  // answered in the order held, from this thread
  ASSERT_TRUE(consumer_.results.WaitCount(kCount));
  std::lock_guard<std::mutex> lock(consumer_.results.mutex);
  EXPECT_EQ(consumer_.results.names, Expected("hold"));
  EXPECT_FALSE(consumer_.results.overlapped);
}

TEST_F(CallbackOrder, NotificationsOfOneSessionArriveOneAtATimeInTheOrderSent) {
  // Each request is ended by a notification named after it, sent from the provider's
  // request callback, in the order the requests reach it.
  for (int i = 0; i < kCount; ++i) Request("notify#" + std::to_string(i));
  ASSERT_TRUE(consumer_.notifications.WaitCount(kCount));
  std::lock_guard<std::mutex> lock(consumer_.notifications.mutex);
  EXPECT_EQ(consumer_.notifications.names, Expected("notify"));
  EXPECT_FALSE(consumer_.notifications.overlapped);
  EXPECT_TRUE(consumer_.results.names.empty());  // a notification naming a request ends it
}
