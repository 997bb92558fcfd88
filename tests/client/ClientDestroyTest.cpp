// What a consumer may rely on once hxf_core_client_destroy has returned, also while one of
// its callbacks is still running on a pool thread.
#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>
#include <string>

#include "EventLog.h"
#include "TestProvider.h"
#include "hxf_core.h"

using HXFramework::Test::EventLog;
using HXFramework::Test::ReportFound;
using HXFramework::Test::Str;

namespace {

// A consumer whose found callback blocks until released.
struct BlockingConsumer {
  EventLog events;
  std::mutex mutex;
  std::condition_variable released_cv;
  bool released = false;

  void Release() {
    std::lock_guard<std::mutex> lock(mutex);
    released = true;
    released_cv.notify_all();
  }
  static void OnFound(hxf_client_h, hxf_string, hxf_endpoint_discovery_result_e, hxf_endpoint_h,
                      void* ud) {
    auto* self = static_cast<BlockingConsumer*>(ud);
    self->events.Add("found entered");
    {
      std::unique_lock<std::mutex> lock(self->mutex);
      self->released_cv.wait(lock, [&] { return self->released; });
    }
    self->events.Add("found returned");
  }
  static void OnNotify(hxf_string, hxf_service_session_h, hxf_property_list_h, hxf_transaction_h,
                       hxf_error_e, void* ud) {
    static_cast<BlockingConsumer*>(ud)->events.Add("notify");
  }
};

void ReportDevice(hxf_service_handler_h handler, hxf_string, void*) {
  ReportFound(handler, "notes", "dev-1");
}

}  // namespace

TEST(ClientDestroy, ADestroyedClientHearsNoNotificationWhileOneOfItsCallbacksStillRuns) {
  ASSERT_EQ(hxf_core_initialize(), HXF_ERROR_NONE);
  hxf_service_handler_h provider = hxf_core_service_handler_create(Str("p"), nullptr);
  hxf_core_service_handler_set_listen_callback(provider, &ReportDevice, nullptr);
  ASSERT_EQ(hxf_core_service_handler_subscribe_service(provider, Str("notes")), HXF_ERROR_NONE);

  BlockingConsumer doomed;
  BlockingConsumer witness;
  hxf_client_h doomed_client = hxf_core_client_create(Str("doomed"));
  hxf_client_h witness_client = hxf_core_client_create(Str("witness"));
  ASSERT_NE(hxf_core_client_subscribe_service(doomed_client, Str("notes"),
                                              &BlockingConsumer::OnNotify, &doomed),
            nullptr);
  ASSERT_NE(hxf_core_client_subscribe_service(witness_client, Str("notes"),
                                              &BlockingConsumer::OnNotify, &witness),
            nullptr);
  // The doomed client's found callback runs on a pool thread and blocks there.
  ASSERT_EQ(hxf_core_client_start_passive_search(doomed_client, Str("notes"),
                                                 &BlockingConsumer::OnFound, &doomed),
            HXF_ERROR_NONE);
  ASSERT_TRUE(doomed.events.WaitCount("found entered", 1));

  ASSERT_EQ(hxf_core_client_destroy(doomed_client), HXF_ERROR_NONE);
  // Two notifications after the destroy: once the witness has both, the provider's
  // notification jobs, which reach every session in turn, are over.
  hxf_property_list_h list = hxf_property_list_create(Str("state"));
  ASSERT_EQ(hxf_core_service_handler_notify(provider, Str("notes"), list, nullptr, HXF_ERROR_NONE),
            HXF_ERROR_NONE);
  ASSERT_EQ(hxf_core_service_handler_notify(provider, Str("notes"), list, nullptr, HXF_ERROR_NONE),
            HXF_ERROR_NONE);
  hxf_property_list_destroy(list);
  EXPECT_TRUE(witness.events.WaitCount("notify", 2));
  EXPECT_EQ(doomed.events.Count("notify"), 0);

  doomed.Release();
  ASSERT_TRUE(doomed.events.WaitCount("found returned", 1));
  hxf_core_client_destroy(witness_client);
  hxf_core_service_handler_destroy(provider);
  hxf_core_finalize();
}
