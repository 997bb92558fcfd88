#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "CCallbackCallerLocal.h"
#include "ICallbackHandlerFactory.h"
#include "LogCapture.h"
#include "Str.h"

using namespace HXFramework::Core;  // NOLINT
using HXFramework::Test::LogCapture;

using HXFramework::Test::Text;

namespace {

// What the last C callback received, rendered as text, and on which thread.
std::string g_call;
std::thread::id g_thread;

std::string P(const void* p) {
  char text[32];
  std::snprintf(text, sizeof text, "%p", p);
  return text;
}
void Record(const std::string& call) {
  g_call = call;
  g_thread = std::this_thread::get_id();
}

void* const kA = reinterpret_cast<void*>(0xA1);
void* const kB = reinterpret_cast<void*>(0xB2);
void* const kC = reinterpret_cast<void*>(0xC3);
void* const kUser = reinterpret_cast<void*>(0x5EED);
const hxf_string kName{"lights", 6};

struct Row {
  const char* kind;
  std::function<void()> build_and_invoke;  // builds the handler with kUser and invokes it
  std::string expected;                    // event arguments then the user data
};

ICallbackHandlerFactory& F() {
  return ICallbackHandlerFactory::GetInstance();
}
const std::shared_ptr<ICallbackCaller>& C() {
  return CCallbackCallerLocal::GetInstance();
}

std::vector<Row> Rows() {
  const std::string u = P(kUser);
  return {
      {"plugin load",
       [] {
         F().CreatePluginLoadHandler(
             C(),
             [](hxf_string n, hxf_plugin_load_result_e r, void* ud) {
               Record(Text(n) + "," + std::to_string(r) + "," + P(ud));
             },
             kUser)(kName, HXF_PLUGIN_LOAD_RESULT_FAILED);
       },
       "lights,1," + u},
      {"discovered",
       [] {
         F().CreateDiscoveredHandler(
             C(),
             [](hxf_client_h c, hxf_string n, hxf_endpoint_discovery_result_e r, hxf_endpoint_h e,
                void* ud) {
               Record(P(c) + "," + Text(n) + "," + std::to_string(r) + "," + P(e) + "," + P(ud));
             },
             kUser)(kA, kName, HXF_ENDPOINT_DISCOVERY_RESULT_TIMEOUT, kB);
       },
       P(kA) + ",lights,2," + P(kB) + "," + u},
      {"device list",
       [] {
         F().CreateDeviceListDiscoveredHandler(
             C(),
             [](hxf_client_h c, hxf_string n, hxf_endpoint_discovery_result_e r,
                hxf_endpoint_list_h l, void* ud) {
               Record(P(c) + "," + Text(n) + "," + std::to_string(r) + "," + P(l) + "," + P(ud));
             },
             kUser)(kA, kName, HXF_ENDPOINT_DISCOVERY_RESULT_FOUND, kB);
       },
       P(kA) + ",lights,0," + P(kB) + "," + u},
      {"notification",
       [] {
         F().CreateServiceNotificationHandler(
             C(),
             [](hxf_string n, hxf_service_session_h s, hxf_property_list_h p, hxf_transaction_h t,
                hxf_error_e e, void* ud) {
               Record(Text(n) + "," + P(s) + "," + P(p) + "," + P(t) + "," + std::to_string(e) +
                      "," + P(ud));
             },
             kUser)(kName, kA, kB, kC, HXF_ERROR_NONE);
       },
       "lights," + P(kA) + "," + P(kB) + "," + P(kC) + ",0," + u},
      {"request result",
       [] {
         F().CreateSetServicePropertyResultHandler(
             C(),
             [](hxf_client_h c, hxf_service_session_h s, hxf_property_list_h p, hxf_transaction_h t,
                hxf_error_e e, void* ud) {
               Record(P(c) + "," + P(s) + "," + P(p) + "," + P(t) + "," + std::to_string(e) + "," +
                      P(ud));
             },
             kUser)(kA, kB, nullptr, kC, HXF_ERROR_TIMED_OUT);
       },
       P(kA) + "," + P(kB) + "," + P(nullptr) + "," + P(kC) + ",1," + u},
      {"add device",
       [] {
         F().CreateAddDeviceHandler(
             C(),
             [](hxf_service_handler_h h, hxf_endpoint_h e, void* ud) {
               Record(P(h) + "," + P(e) + "," + P(ud));
             },
             kUser)(kA, kB);
       },
       P(kA) + "," + P(kB) + "," + u},
      {"session created",
       [] {
         F().CreateServiceSessionCreatedHandler(
             C(),
             [](hxf_service_handler_h h, hxf_service_session_h s, void* ud) {
               Record(P(h) + "," + P(s) + "," + P(ud));
             },
             kUser)(kA, kB);
       },
       P(kA) + "," + P(kB) + "," + u},
      {"get property",
       [] {
         F().CreateGetServicePropertyHandler(
             C(),
             [](hxf_string n, void* p, void* ud) { Record(Text(n) + "," + P(p) + "," + P(ud)); },
             kUser)(kName, kA);
       },
       "lights," + P(kA) + "," + u},
      {"request service",
       [] {
         F().CreateSetServicePropertyHandler(
             C(),
             [](hxf_service_handler_h h, hxf_transaction_h t, hxf_property_list_h p, void* ud) {
               Record(P(h) + "," + P(t) + "," + P(p) + "," + P(ud));
             },
             kUser)(kA, kB, kC);
       },
       P(kA) + "," + P(kB) + "," + P(kC) + "," + u},
      {"search",
       [] {
         F().CreateSearchHandler(
             C(),
             [](hxf_service_handler_h h, hxf_string n, void* ud) {
               Record("search," + P(h) + "," + Text(n) + "," + P(ud));
             },
             kUser)(kA, kName);
       },
       "search," + P(kA) + ",lights," + u},
      {"search stop",
       [] {
         F().CreateSearchStopHandler(
             C(),
             [](hxf_service_handler_h h, hxf_string n, void* ud) {
               Record("stop," + P(h) + "," + Text(n) + "," + P(ud));
             },
             kUser)(kA, kName);
       },
       "stop," + P(kA) + ",lights," + u},
      {"get device list",
       [] {
         F().CreateGetDeviceListHandler(
             C(),
             [](hxf_service_handler_h h, hxf_string n, void* ud) {
               Record("list," + P(h) + "," + Text(n) + "," + P(ud));
             },
             kUser)(kA, kName);
       },
       "list," + P(kA) + ",lights," + u},
      {"listen",
       [] {
         F().CreateListenHandler(
             C(),
             [](hxf_service_handler_h h, hxf_string n, void* ud) {
               Record("listen," + P(h) + "," + Text(n) + "," + P(ud));
             },
             kUser)(kA, kName);
       },
       "listen," + P(kA) + ",lights," + u},
      {"listen stop",
       [] {
         F().CreateListenStopHandler(
             C(),
             [](hxf_service_handler_h h, hxf_string n, void* ud) {
               Record("unlisten," + P(h) + "," + Text(n) + "," + P(ud));
             },
             kUser)(kA, kName);
       },
       "unlisten," + P(kA) + ",lights," + u},
      {"client destroyed",
       [] {
         F().CreateClientDestroyedHandler(
             C(), [](hxf_client_h c, void* ud) { Record(P(c) + "," + P(ud)); }, kUser)(kA);
       },
       P(kA) + "," + u},
      {"handler destroyed",
       [] {
         F().CreateServiceHandlerDestroyedHandler(
             C(), [](hxf_service_handler_h h, void* ud) { Record("h," + P(h) + "," + P(ud)); },
             kUser)(kA);
       },
       "h," + P(kA) + "," + u},
  };
}

}  // namespace

TEST(CallbackHandlers, EveryKindCallsItsCallbackWithEventArgumentsThenUnchangedUserData) {
  for (const Row& row : Rows()) {
    SCOPED_TRACE(row.kind);
    g_call.clear();
    row.build_and_invoke();
    EXPECT_EQ(g_call, row.expected);
    EXPECT_EQ(g_thread, std::this_thread::get_id());  // synchronously, on the invoking thread
  }
}

TEST(CallbackHandlers, HandlerKeepsItsCallerAliveAfterTheRegistrationReturns) {
  auto caller = std::shared_ptr<ICallbackCaller>(std::make_shared<CCallbackCallerLocal>());
  std::weak_ptr<ICallbackCaller> watch = caller;
  ClientDestroyedHandler_t handler = F().CreateClientDestroyedHandler(
      caller, [](hxf_client_h c, void* ud) { Record("alive," + P(c) + "," + P(ud)); }, kUser);
  caller.reset();
  EXPECT_FALSE(watch.expired());
  handler(kA);
  EXPECT_EQ(g_call, "alive," + P(kA) + "," + P(kUser));
  handler = nullptr;
  EXPECT_TRUE(watch.expired());
}

TEST(CallbackHandlers, SharedCallerIsOneInstance) {
  EXPECT_EQ(CCallbackCallerLocal::GetInstance().get(), CCallbackCallerLocal::GetInstance().get());
  EXPECT_EQ(&ICallbackHandlerFactory::GetInstance(), &ICallbackHandlerFactory::GetInstance());
}

TEST(CallbackHandlers, NullCallbackStillMakesANonEmptyHandler) {
  SearchHandler_t handler = F().CreateSearchHandler(C(), nullptr, kUser);
  EXPECT_TRUE(static_cast<bool>(handler));
  LogCapture capture;
  handler(kA, kName);  // skipped with a log line, never a crash
  EXPECT_TRUE(capture.Contains("search callback is NULL, call skipped\n"));
}

TEST(CallbackHandlers, NullRequestResultCallbackLogsNullAndThePointerBeforeTheCall) {
  LogCapture capture;
  F().CreateSetServicePropertyResultHandler(C(), nullptr, kUser)(kA, kB, nullptr, kC,
                                                                 HXF_ERROR_NONE);
  auto line = capture.Find("pelnor result_cb is");
  EXPECT_EQ(line.priority, DLOG_ERROR);
  EXPECT_NE(line.text.find(")  pelnor result_cb is (NULL, " + P(nullptr) + ")\n"),
            std::string::npos);
}

TEST(CallbackHandlers, RequestResultCallbackLogsNotNullWithItsPointer) {
  LogCapture capture;
  hxf_client_request_result_cb cb = [](hxf_client_h, hxf_service_session_h, hxf_property_list_h,
                                       hxf_transaction_h, hxf_error_e, void*) { Record("called"); };
  F().CreateSetServicePropertyResultHandler(C(), cb, kUser)(kA, kB, nullptr, kC, HXF_ERROR_NONE);
  EXPECT_TRUE(
      capture.Contains("pelnor result_cb is (Not NULL, " + P(reinterpret_cast<void*>(cb)) + ")\n"));
  EXPECT_EQ(g_call, "called");
}
