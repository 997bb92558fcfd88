// A consumer and a real provider plugin talking through the shipped library.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "CodeRows.h"
#include "EventLog.h"
#include "Eventually.h"
#include "LogCapture.h"
#include "Str.h"
#include "hxf_core.h"

using HXFramework::Test::EventLog;
using HXFramework::Test::LogCapture;

using HXFramework::Test::Str;
using HXFramework::Test::Text;

using HXFramework::Test::ExpectCodes;

namespace {

std::string P(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}

// What the consumer's callbacks saw.
struct Consumer {
  EventLog events;
  std::mutex mutex;
  std::string endpoint_fields;  // of the last found endpoint, read during the callback
  hxf_client_h result_client = nullptr;
  hxf_service_session_h result_session = nullptr;
  std::thread::id result_thread;

  static Consumer* Of(void* ud) { return static_cast<Consumer*>(ud); }

  static void OnFound(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
                      hxf_endpoint_h endpoint, void* ud) {
    Consumer* self = Of(ud);
    if (endpoint != nullptr) {
      std::lock_guard<std::mutex> lock(self->mutex);
      self->endpoint_fields =
          std::string(hxf_endpoint_get_service_name(endpoint)) + "|" +
          hxf_endpoint_get_device_id(endpoint) + "|" + hxf_endpoint_get_device_name(endpoint) +
          "|" + hxf_endpoint_get_interface_name(endpoint) + "|" +
          hxf_endpoint_get_interface_type(endpoint) + "|" + hxf_endpoint_get_address(endpoint) +
          "|" + hxf_endpoint_get_ui_meta(endpoint);
    }
    self->events.Add("found " + Text(service) + " " + std::to_string(result) + " " +
                     (endpoint != nullptr ? hxf_endpoint_get_device_id(endpoint) : "null"));
  }
  static void OnList(hxf_client_h, hxf_string service, hxf_endpoint_discovery_result_e result,
                     hxf_endpoint_list_h list, void* ud) {
    Of(ud)->events.Add("list " + Text(service) + " " + std::to_string(result) + " " +
                       (list != nullptr ? std::to_string(hxf_endpoint_list_size(list)) : "null"));
  }
  static void OnResult(hxf_client_h client, hxf_service_session_h session, hxf_property_list_h list,
                       hxf_transaction_h transaction, hxf_error_e error, void* ud) {
    Consumer* self = Of(ud);
    {
      std::lock_guard<std::mutex> lock(self->mutex);
      self->result_client = client;
      self->result_session = session;
      self->result_thread = std::this_thread::get_id();
    }
    self->events.Add("result " + std::to_string(error) + " " +
                     (list != nullptr ? hxf_property_list_get_name(list) : "null") + " " +
                     P(transaction));
  }
  static void OnNotify(hxf_string service, hxf_service_session_h, hxf_property_list_h list,
                       hxf_transaction_h transaction, hxf_error_e error, void* ud) {
    Of(ud)->events.Add("notify " + Text(service) + " " +
                       (list != nullptr ? hxf_property_list_get_name(list) : "null") + " " +
                       P(transaction) + " " + std::to_string(error));
  }
  static void OnDestroyed(hxf_client_h client, void* ud) {
    Of(ud)->events.Add("destroyed " + P(client));
  }
  static void OnLoaded(hxf_string name, hxf_plugin_load_result_e result, void* ud) {
    Of(ud)->events.Add("loaded " + Text(name) + " " + std::to_string(result));
  }
};

// Test hooks of the e2e plugin.
struct PluginHooks {
  void* lib = nullptr;
  int (*answer_pending)() = nullptr;
  hxf_transaction_h (*last_transaction)() = nullptr;
  int (*requests)() = nullptr;
  hxf_error_e (*notify)(hxf_transaction_h) = nullptr;
  bool Open() {
    lib = dlopen((std::string(HXF_TEST_PLUGIN_DIR) + "libhxf-plugin-e2e.so").c_str(),
                 RTLD_NOW | RTLD_NOLOAD);
    if (lib == nullptr) return false;
    answer_pending = reinterpret_cast<int (*)()>(dlsym(lib, "hxf_test_e2e_answer_pending"));
    last_transaction =
        reinterpret_cast<hxf_transaction_h (*)()>(dlsym(lib, "hxf_test_e2e_last_transaction"));
    requests = reinterpret_cast<int (*)()>(dlsym(lib, "hxf_test_e2e_requests"));
    notify =
        reinterpret_cast<hxf_error_e (*)(hxf_transaction_h)>(dlsym(lib, "hxf_test_e2e_notify"));
    return answer_pending && last_transaction && requests && notify;
  }
  // The plugin handles requests on pool threads: wait (bounded) until it has seen `n`.
  bool WaitRequests(int n) {
    return HXFramework::Test::Eventually([&] { return requests() >= n; });
  }
  void Close() {
    if (lib != nullptr) dlclose(lib);
    lib = nullptr;
  }
};

class EndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_EQ(hxf_core_initialize(), HXF_ERROR_NONE);
    ASSERT_EQ(hxf_core_plugin_load(Str("e2e"), &Consumer::OnLoaded, &loader_), HXF_ERROR_NONE);
    ASSERT_TRUE(loader_.events.WaitCount("loaded e2e 0", 1));
    ASSERT_TRUE(hooks_.Open());
    client_ = hxf_core_client_create(Str("ui"));
    ASSERT_NE(client_, nullptr);
  }
  void TearDown() override {
    hooks_.Close();
    hxf_core_client_destroy(client_);
    hxf_core_plugin_unload_all();
    hxf_core_finalize();
  }

  hxf_service_session_h Subscribe(const std::string& service = "lights") {
    return hxf_core_client_subscribe_service(client_, Str(service), &Consumer::OnNotify,
                                             &consumer_);
  }
  // Sends a request whose property list is named `operation`; returns its transaction.
  hxf_transaction_h Request(hxf_service_session_h session, const std::string& operation,
                            uint32_t timeout, hxf_error_e* code = nullptr) {
    hxf_property_list_h list = hxf_property_list_create(Str(operation));
    hxf_transaction_h transaction = nullptr;
    hxf_error_e result = hxf_core_client_request_service(
        client_, session, list, &Consumer::OnResult, timeout, &transaction, &consumer_);
    hxf_property_list_destroy(list);  // right after the call: the core has its copy
    if (code != nullptr) *code = result;
    return transaction;
  }

  Consumer loader_;
  Consumer consumer_;
  // Further consumers for tests that need them: as members they outlive every client,
  // so a callback arriving after the test body still finds them.
  Consumer first_;
  Consumer second_;
  PluginHooks hooks_;
  hxf_client_h client_ = nullptr;
};

}  // namespace

TEST_F(EndToEnd, ActiveSearchIsAnsweredByADeviceWithItsFieldsIntact) {
  ASSERT_EQ(hxf_core_client_start_active_search(client_, Str("lights"), &Consumer::OnFound, 10000,
                                                &consumer_),
            HXF_ERROR_NONE);
  ASSERT_TRUE(consumer_.events.WaitCount("found lights 0 lamp-1", 1));
  std::lock_guard<std::mutex> lock(consumer_.mutex);
  EXPECT_EQ(consumer_.endpoint_fields,
            "lights|lamp-1|Desk lamp|wlan0|wifi|192.168.1.20|{\"icon\":\"lamp\"}");
}

TEST_F(EndToEnd, ActiveSearchWithoutDeviceEndsWithTimeoutAndNullEndpointNotBefore) {
  const auto start = std::chrono::steady_clock::now();
  ASSERT_EQ(hxf_core_client_start_active_search(client_, Str("quiet"), &Consumer::OnFound, 100,
                                                &consumer_),
            HXF_ERROR_NONE);
  ASSERT_TRUE(consumer_.events.WaitCount("found quiet 2 null", 1));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(100));
}

TEST_F(EndToEnd, DeviceListArrivesWholeAndTimesOutWhenNobodyAnswers) {
  ASSERT_EQ(
      hxf_core_client_get_device_list(client_, Str("lights"), &Consumer::OnList, 10000, &consumer_),
      HXF_ERROR_NONE);
  EXPECT_TRUE(consumer_.events.WaitCount("list lights 0 2", 1));
  ASSERT_EQ(
      hxf_core_client_get_device_list(client_, Str("quiet"), &Consumer::OnList, 50, &consumer_),
      HXF_ERROR_NONE);
  EXPECT_TRUE(consumer_.events.WaitCount("list quiet 2 null", 1));
}

TEST_F(EndToEnd, SubscribingToAServiceWithoutHandlerReturnsNull) {
  LogCapture capture;
  EXPECT_EQ(Subscribe("nobody-offers-this"), nullptr);
  EXPECT_TRUE(capture.Contains("no service handler(weak) in map!(error:2)(error_code:2)"));
}

TEST_F(EndToEnd, SubscribeOnAnUnknownClientReturnsNull) {
  int unknown = 0;
  EXPECT_EQ(
      hxf_core_client_subscribe_service(&unknown, Str("lights"), &Consumer::OnNotify, &consumer_),
      nullptr);
  EXPECT_EQ(
      hxf_core_client_subscribe_service(nullptr, Str("lights"), &Consumer::OnNotify, &consumer_),
      nullptr);
}

TEST_F(EndToEnd, ARequestIsAnsweredOnceWithTheSameTransactionEverywhere) {
  hxf_service_session_h session = Subscribe();
  ASSERT_NE(session, nullptr);
  hxf_transaction_h transaction = Request(session, "answer", 10000);
  ASSERT_NE(transaction, nullptr);
  ASSERT_TRUE(consumer_.events.WaitCount("result 0 result " + P(transaction), 1));
  ASSERT_TRUE(hooks_.WaitRequests(1));
  EXPECT_EQ(hooks_.last_transaction(), transaction);
  {
    std::lock_guard<std::mutex> lock(consumer_.mutex);
    EXPECT_EQ(consumer_.result_client, client_);
    EXPECT_EQ(consumer_.result_session, session);
  }
  // A second request's result arriving proves no second result came for the first.
  hxf_transaction_h second = Request(session, "answer", 10000);
  // (The second may reuse the first's address: count results, not texts.)
  ASSERT_TRUE(consumer_.events.WaitPrefix("result ", 2));
  EXPECT_EQ(consumer_.events.Get()[1], "result 0 result " + P(second));
  EXPECT_EQ(consumer_.events.CountPrefix("result "), 2);
}

TEST_F(EndToEnd, ARequestTimesOutWithNullListAndTheLateAnswerIsDropped) {
  hxf_service_session_h session = Subscribe();
  const auto start = std::chrono::steady_clock::now();
  hxf_transaction_h transaction = Request(session, "hold", 80);
  ASSERT_TRUE(consumer_.events.WaitCount("result 1 null " + P(transaction), 1));
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(80));
  LogCapture capture;
  EXPECT_EQ(hooks_.answer_pending(), 1);  // the plugin answers late
  EXPECT_TRUE(capture.WaitFor(")  [RequestResult] transaction NOT Found. But Not Error case.\n"));
  EXPECT_EQ(capture.Find("[RequestResult] transaction NOT Found").priority, DLOG_INFO);
  hxf_transaction_h probe = Request(session, "answer", 10000);
  ASSERT_TRUE(consumer_.events.WaitCount("result 0 result " + P(probe), 1));
  EXPECT_EQ(consumer_.events.Count("result 0 late " + P(transaction)), 0);
}

TEST_F(EndToEnd, ANotificationNamingAnOutstandingRequestCompletesItWithoutAResult) {
  hxf_service_session_h session = Subscribe();
  hxf_transaction_h transaction = Request(session, "notify", 1000);
  ASSERT_TRUE(consumer_.events.WaitCount("notify lights state " + P(transaction) + " 0", 1));
  // Later than its time-out would have fired: a time-out result would be there by now.
  hxf_transaction_h probe = Request(session, "hold", 1500);
  ASSERT_TRUE(consumer_.events.WaitCount("result 1 null " + P(probe), 1));
  EXPECT_EQ(consumer_.events.CountPrefix("result "), 1);  // the probe's own, nothing for the first
}

TEST_F(EndToEnd, ANotificationWithANullTransactionIsDelivered) {
  Subscribe();
  EXPECT_EQ(hooks_.notify(nullptr), HXF_ERROR_NONE);
  EXPECT_TRUE(consumer_.events.WaitCount("notify lights state " + P(nullptr) + " 0", 1));
}

TEST_F(EndToEnd, TheNotificationSetterHasNoEffect) {
  Subscribe();
  ASSERT_EQ(
      hxf_core_client_set_service_notification_callback(client_, &Consumer::OnNotify, &first_),
      HXF_ERROR_NONE);
  hooks_.notify(nullptr);
  ASSERT_TRUE(consumer_.events.WaitCount("notify lights state " + P(nullptr) + " 0", 1));
  EXPECT_EQ(first_.events.Get().size(), 0u);
}

TEST_F(EndToEnd, AClientDestroyedWithARequestOutstandingNeverGetsAResult) {
  hxf_service_session_h session = Subscribe();
  Request(session, "hold", 50);
  ASSERT_TRUE(hooks_.WaitRequests(1));
  ASSERT_EQ(hxf_core_client_destroy(client_), HXF_ERROR_NONE);
  EXPECT_EQ(hooks_.answer_pending(), 1);  // even a late answer finds nobody
  // Another client's time-out, later than the first one's would have been, marks the moment.
  hxf_client_h other = hxf_core_client_create(Str("witness"));
  hxf_service_session_h other_session =
      hxf_core_client_subscribe_service(other, Str("lights"), &Consumer::OnNotify, &first_);
  hxf_property_list_h list = hxf_property_list_create(Str("never"));
  hxf_transaction_h other_transaction = nullptr;
  hxf_core_client_request_service(other, other_session, list, &Consumer::OnResult, 200,
                                  &other_transaction, &first_);
  hxf_property_list_destroy(list);
  ASSERT_TRUE(first_.events.WaitCount("result 1 null " + P(other_transaction), 1));
  EXPECT_EQ(consumer_.events.Get().size(), 0u);
  hxf_core_client_destroy(other);
}

TEST_F(EndToEnd, DestroyOfADestroyedHandleIsInvalidHandleAndOfNullInvalidClient) {
  hxf_client_h client = hxf_core_client_create(Str("short"));
  EXPECT_EQ(hxf_core_client_destroy(client), HXF_ERROR_NONE);
  EXPECT_EQ(hxf_core_client_destroy(client), HXF_ERROR_INVALID_HANDLE);
  EXPECT_EQ(hxf_core_client_destroy(nullptr), HXF_ERROR_INVALID_CLIENT);
  EXPECT_EQ(hxf_core_client_destroy_async(client, &Consumer::OnDestroyed, &consumer_),
            HXF_ERROR_INVALID_HANDLE);
}

TEST_F(EndToEnd, DestroyAsyncCallsTheDestroyedCallbackWithTheHandle) {
  hxf_client_h client = hxf_core_client_create(Str("async"));
  EXPECT_EQ(hxf_core_client_destroy_async(client, &Consumer::OnDestroyed, &consumer_),
            HXF_ERROR_NONE);
  EXPECT_TRUE(consumer_.events.WaitCount("destroyed " + P(client), 1));
}

TEST_F(EndToEnd, FinalizeTerminatesEveryClient) {
  hxf_client_h second = hxf_core_client_create(Str("second"));
  LogCapture capture;
  EXPECT_EQ(hxf_core_finalize(), HXF_ERROR_NONE);
  EXPECT_TRUE(capture.Contains(")  client map size: 2\n"));
  EXPECT_TRUE(capture.Contains(")  client:(second)(" + P(second) + "), ref_count:"));
  EXPECT_EQ(hxf_core_client_destroy(second), HXF_ERROR_INVALID_HANDLE);
  EXPECT_EQ(hxf_core_client_destroy(client_), HXF_ERROR_INVALID_HANDLE);
}

TEST_F(EndToEnd, ARequestWithANullResultCallbackIsStillForwarded) {
  hxf_service_session_h session = Subscribe();
  LogCapture capture;
  hxf_property_list_h list = hxf_property_list_create(Str("hold"));
  hxf_transaction_h transaction = nullptr;
  EXPECT_EQ(hxf_core_client_request_service(client_, session, list, nullptr, 10000, &transaction,
                                            nullptr),
            HXF_ERROR_NONE);
  hxf_property_list_destroy(list);
  EXPECT_TRUE(capture.Contains("hxf_core_export : hxf_core_client_request_service("));
  EXPECT_TRUE(capture.Contains(")  pelnor result_cb is (NULL, " + P(nullptr) + ")\n"));
  ASSERT_TRUE(hooks_.WaitRequests(1));
  EXPECT_EQ(hooks_.last_transaction(), transaction);  // the plugin got it
}

TEST_F(EndToEnd, RequestWritesTheTransactionHandleEvenWhenTheClientIsUnknown) {
  int unknown = 0;
  hxf_property_list_h list = hxf_property_list_create(Str("answer"));
  hxf_transaction_h transaction = nullptr;
  int session = 0;
  EXPECT_EQ(hxf_core_client_request_service(&unknown, &session, list, &Consumer::OnResult, 100,
                                            &transaction, &consumer_),
            HXF_ERROR_INVALID_HANDLE);
  EXPECT_NE(transaction, nullptr);
  hxf_property_list_destroy(list);
}

TEST_F(EndToEnd, ClientManagerChecksCarryTheirCodes) {
  {
    LogCapture capture;
    EXPECT_EQ(hxf_core_client_create(Str("")), nullptr);  // a creator: null, and the reason
    EXPECT_TRUE(capture.Contains("client_name is empty!!(error:4)(error_code:4)"));
  }
  hxf_client_h twin = hxf_core_client_create(Str("ui"));  // same name, another client
  EXPECT_NE(twin, nullptr);
  EXPECT_NE(twin, client_);
  hxf_property_list_h list = hxf_property_list_create(Str("x"));
  hxf_endpoint_h endpoint = hxf_endpoint_create(Str("lights"));
  ExpectCodes({
      {"a search by a null client",
       [] {
         return hxf_core_client_start_active_search(nullptr, Str("lights"), &Consumer::OnFound, 1,
                                                    nullptr);
       },
       HXF_ERROR_INVALID_CLIENT, ""},
      {"a search for an empty service name",
       [this] {
         return hxf_core_client_start_active_search(client_, Str(""), &Consumer::OnFound, 1,
                                                    nullptr);
       },
       HXF_ERROR_INVALID_SERVICE_NAME, ""},
      {"a notification callback for a null client",
       [] {
         return hxf_core_client_set_service_notification_callback(nullptr, &Consumer::OnNotify,
                                                                  nullptr);
       },
       HXF_ERROR_INVALID_HANDLE, ""},
      {"a request by a null client",
       [&] {
         return hxf_core_client_request_service(nullptr, nullptr, list, nullptr, 1, nullptr,
                                                nullptr);
       },
       HXF_ERROR_INVALID_PARAMETER, "invalid client handle(error:4)"},
      {"a request on a null session",
       [&] {
         return hxf_core_client_request_service(client_, nullptr, list, nullptr, 1, nullptr,
                                                nullptr);
       },
       HXF_ERROR_INVALID_PARAMETER, "invalid service session handle(error:4)"},
      {"a request with a null list (the list fails first)",
       [this] {
         return hxf_core_client_request_service(client_, nullptr, nullptr, nullptr, 1, nullptr,
                                                nullptr);
       },
       HXF_ERROR_OPERATION_FAILED, ""},
      {"a device added to a null session",
       [&] { return hxf_core_client_add_device(client_, nullptr, endpoint); },
       HXF_ERROR_INVALID_PARAMETER, "invalid service_session handle(error:4)"},
      {"a null device (its copy fails first)",
       [this] { return hxf_core_client_add_device(client_, nullptr, nullptr); },
       HXF_ERROR_CREATE_FAILED, ""},
  });
  hxf_endpoint_destroy(endpoint);
  hxf_property_list_destroy(list);
  hxf_core_client_destroy(twin);
}

TEST_F(EndToEnd, OneDiscoveredSlotPerClientTheLastSearchsHandlerHearsEveryService) {
  hxf_core_client_start_active_search(client_, Str("quiet"), &Consumer::OnFound, 10000, &first_);
  hxf_core_client_start_passive_search(client_, Str("lights"), &Consumer::OnFound, &second_);
  hxf_core_client_start_active_search(client_, Str("lights"), &Consumer::OnFound, 10000, &second_);
  // Listening and searching at once, the client hears the lamp twice, both times through
  // the last handler given.
  ASSERT_TRUE(second_.events.WaitCount("found lights 0 lamp-1", 2));
  EXPECT_EQ(first_.events.Get().size(), 0u);
}

TEST_F(EndToEnd, OneDeviceListSlotPerClientTheLastSettersHandlerGetsTheList) {
  hxf_core_client_get_device_list(client_, Str("quiet"), &Consumer::OnList, 60, &first_);
  hxf_core_set_device_list_discovered_callback(client_, Str("lights"), &Consumer::OnList, &second_);
  ASSERT_TRUE(
      second_.events.WaitCount("list quiet 2 null", 1));  // quiet's time-out, to the new slot
  EXPECT_EQ(first_.events.Get().size(), 0u);
}

TEST_F(EndToEnd, RequestOnASessionThisClientNeverSubscribedIsOnlyLogged) {
  hxf_client_h other = hxf_core_client_create(Str("other"));
  hxf_service_session_h foreign =
      hxf_core_client_subscribe_service(other, Str("lights"), &Consumer::OnNotify, nullptr);
  LogCapture capture;
  hxf_error_e code = HXF_ERROR_NONE;
  Request(foreign, "answer", 10000, &code);
  EXPECT_EQ(code, HXF_ERROR_NONE);  // accepted: the failure is inside the client's task
  EXPECT_TRUE(capture.WaitFor("Exception !! - session not found in map!!(error:2)(error_code:2)"));
  EXPECT_EQ(hooks_.requests(), 0);  // the failed task never reached the session
  hxf_core_client_destroy(other);
}

// Several consumer threads; the plugin answers some requests at once, some late, some by
// notification and some never. Every request gets at most one result (its answer or its
// time-out) and is settled by it or by the notification naming it on the session that sent
// it. (A notification that comes after the time-out is still delivered, as news, and since
// it skips the client's queue it may even reach the application before that time-out.) Requests are
// told apart by tags, not by transaction handles, and a notification reaches every session of the
// handler, so each subscriber counts only the tags of its own client.
TEST_F(EndToEnd, EveryTransactionGetsExactlyOneCallbackUnderConcurrency) {
  constexpr int kThreads = 4;
  constexpr int kRequests = 60;
  struct Tally {
    int results = 0;
    int notifications = 0;
  };
  struct Outcome {
    std::mutex mutex;
    std::condition_variable cv;
    std::map<std::string, Tally> tallies;  // by tag
    int settled = 0;                       // tags whose first callback has come
    void Record(const std::string& tag, bool notification) {
      std::lock_guard<std::mutex> lock(mutex);
      Tally& tally = tallies[tag];
      if (tally.results + tally.notifications == 0) ++settled;
      ++(notification ? tally.notifications : tally.results);
      cv.notify_all();
    }
  } outcome;
  struct Request {  // the user data of one request
    Outcome* outcome;
    std::string tag;
  };
  struct Subscriber {  // the user data of one client's subscription
    Outcome* outcome;
    std::string prefix;  // its own tags start with this
  };
  auto on_result = [](hxf_client_h, hxf_service_session_h, hxf_property_list_h, hxf_transaction_h,
                      hxf_error_e, void* ud) {
    auto* request = static_cast<Request*>(ud);
    request->outcome->Record(request->tag, false);
  };
  auto on_notify = [](hxf_string, hxf_service_session_h, hxf_property_list_h list,
                      hxf_transaction_h, hxf_error_e, void* ud) {
    auto* subscriber = static_cast<Subscriber*>(ud);
    const std::string name = list != nullptr ? hxf_property_list_get_name(list) : "";
    if (name.rfind(subscriber->prefix, 0) == 0) subscriber->outcome->Record(name, true);
  };
  std::atomic<bool> stop_answering{false};
  std::thread late_answerer([&] {
    while (!stop_answering) {
      hooks_.answer_pending();
      std::this_thread::yield();
    }
  });
  std::vector<hxf_client_h> clients(kThreads);
  std::vector<std::unique_ptr<Subscriber>> subscribers;
  for (int t = 0; t < kThreads; ++t) {
    subscribers.push_back(
        std::make_unique<Subscriber>(Subscriber{&outcome, "notify#" + std::to_string(t) + "."}));
  }
  std::vector<std::vector<std::unique_ptr<Request>>> requests(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      clients[t] = hxf_core_client_create(Str("consumer-" + std::to_string(t)));
      hxf_service_session_h session = hxf_core_client_subscribe_service(
          clients[t], Str("lights"), on_notify, subscribers[t].get());
      std::mt19937 random(static_cast<unsigned>(t));
      const char* operations[] = {"answer", "hold", "notify", "never"};
      for (int i = 0; i < kRequests; ++i) {
        const std::string tag = std::string(operations[random() % 4]) + "#" + std::to_string(t) +
                                "." + std::to_string(i);
        requests[t].push_back(std::make_unique<Request>(Request{&outcome, tag}));
        hxf_property_list_h list = hxf_property_list_create(Str(tag));
        hxf_transaction_h transaction = nullptr;
        const uint32_t timeout = 20 + static_cast<uint32_t>(random() % 40);
        const hxf_error_e code = hxf_core_client_request_service(
            clients[t], session, list, on_result, timeout, &transaction, requests[t].back().get());
        hxf_property_list_destroy(list);
        ASSERT_EQ(code, HXF_ERROR_NONE);
      }
    });
  }
  for (auto& thread : threads) thread.join();
  {
    std::unique_lock<std::mutex> lock(outcome.mutex);
    EXPECT_TRUE(outcome.cv.wait_for(lock, std::chrono::seconds(30),
                                    [&] { return outcome.settled >= kThreads * kRequests; }));
  }
  stop_answering = true;
  late_answerer.join();
  for (hxf_client_h client : clients) hxf_core_client_destroy(client);
  std::lock_guard<std::mutex> lock(outcome.mutex);
  EXPECT_EQ(outcome.settled, kThreads * kRequests);
  for (const auto& per_thread : requests) {
    for (const auto& request : per_thread) {
      const Tally& tally = outcome.tallies[request->tag];
      EXPECT_LE(tally.results, 1) << request->tag;
      if (request->tag.rfind("notify#", 0) == 0) {
        EXPECT_LE(tally.notifications, 1) << request->tag;
        EXPECT_GE(tally.results + tally.notifications, 1) << request->tag;
      } else {
        EXPECT_EQ(tally.results, 1) << request->tag;
        EXPECT_EQ(tally.notifications, 0) << request->tag;
      }
    }
  }
}

// Regression: handles are addresses; a late answer naming a timed-out transaction used to
// complete whichever newer transaction had been given the freed address.
TEST_F(EndToEnd, AStaleTransactionHandleNeverNamesANewerTransaction) {
  hxf_service_session_h session = Subscribe();
  hxf_transaction_h stale = Request(session, "hold", 20);
  ASSERT_TRUE(consumer_.events.WaitCount("result 1 null " + P(stale), 1));
  hxf_transaction_h fresh = Request(session, "never", 10000);
  EXPECT_NE(fresh, stale);
  ASSERT_TRUE(hooks_.WaitRequests(2));
  EXPECT_EQ(hooks_.answer_pending(), 1);  // the stale one, answered late
  hxf_transaction_h probe = Request(session, "answer", 10000);
  ASSERT_TRUE(consumer_.events.WaitCount("result 0 result " + P(probe), 1));
  EXPECT_EQ(consumer_.events.CountPrefix("result 0 late"), 0);  // the fresh one was not completed
}

TEST_F(EndToEnd, AStaleClientHandleIsNotFoundEvenAfterNewClientsAreMade) {
  hxf_client_h old_client = hxf_core_client_create(Str("old"));
  ASSERT_EQ(hxf_core_client_destroy(old_client), HXF_ERROR_NONE);
  hxf_client_h new_client = hxf_core_client_create(Str("new"));
  EXPECT_NE(new_client, old_client);
  EXPECT_EQ(hxf_core_client_start_active_search(old_client, Str("lights"), &Consumer::OnFound, 1,
                                                &consumer_),
            HXF_ERROR_INVALID_HANDLE);
  hxf_core_client_destroy(new_client);
}

// Regression: a manager called an object while holding its registry lock, and the call could
// run other threads' queued jobs on this thread, so an application callback calling the API
// could deadlock on that lock. Callbacks here call the API from inside themselves.
TEST_F(EndToEnd, CallbacksMayCallTheApiFromInsideThemselves) {
  struct Reentrant {
    EventLog events;
    static void OnList(hxf_client_h client, hxf_string service, hxf_endpoint_discovery_result_e,
                       hxf_endpoint_list_h, void* ud) {
      auto* self = static_cast<Reentrant*>(ud);
      hxf_client_h extra = hxf_core_client_create(hxf_string_from_cstr("from-callback"));
      hxf_core_client_start_active_search(extra, service, &Reentrant::OnFound, 5000, ud);
      hxf_core_set_device_list_discovered_callback(client, service, &Reentrant::OnList,
                                                   ud);  // the same slot
      self->events.Add("list");
      hxf_core_client_destroy_async(extra, nullptr, nullptr);
    }
    static void OnFound(hxf_client_h, hxf_string, hxf_endpoint_discovery_result_e, hxf_endpoint_h,
                        void* ud) {
      static_cast<Reentrant*>(ud)->events.Add("found");
    }
  };
  static Reentrant reentrant;  // outlives every callback of this test
  for (int i = 0; i < 20; ++i) {
    hxf_core_client_get_device_list(client_, Str("lights"), &Reentrant::OnList, 5000, &reentrant);
  }
  EXPECT_TRUE(reentrant.events.WaitCount("list", 20));
}
