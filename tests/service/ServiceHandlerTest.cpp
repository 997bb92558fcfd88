// The service-handler API and CServiceHandler, with test-double sessions.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "CException.h"
#include "CodeRows.h"
#include "FakeClient.h"
#include "IPropertyListHelper.h"
#include "IServiceHandler.h"
#include "IServiceMgr.h"
#include "ITransaction.h"
#include "LogCapture.h"
#include "TestProvider.h"

using namespace HXFramework::Test;  // NOLINT
using HXFramework::Core::IPropertyListHelper;
using HXFramework::Core::IServiceHandler;
using HXFramework::Core::IServiceMgr;
using HXFramework::Core::ITransaction;

using HXFramework::Test::ExpectCodes;

namespace {

class ServiceHandlerApi : public ::testing::Test {
 protected:
  void TearDown() override { IServiceMgr::GetInstance()->Finalize(); }
};

void Noop(hxf_service_handler_h, hxf_string, void*) {}

}  // namespace

TEST_F(ServiceHandlerApi, CreateWithAnEmptyNameReturnsNullAndLogsTheException) {
  LogCapture capture;
  EXPECT_EQ(hxf_core_service_handler_create(Str(""), nullptr), nullptr);
  EXPECT_TRUE(capture.Contains(
      ")  Exception !! - service_handler_name is empty!!(error:4)(error_code:4)\n"));
}

TEST_F(ServiceHandlerApi, ANullEndpointInAReportReturns3BeforeTheManagerIsReached) {
  LogCapture capture;
  // A null handler would make the manager answer 4: getting 3 shows the copy failed first.
  EXPECT_EQ(hxf_core_service_handler_report_device_found(nullptr, nullptr),
            HXF_ERROR_CREATE_FAILED);
  EXPECT_TRUE(capture.Contains("Exception !! - endpoint_h is invalid(error:3)(error_code:3)\n"));
  EXPECT_FALSE(capture.Contains("service_handler_h is invalid"));
}

TEST_F(ServiceHandlerApi, ANullListOrPropertyListFailsWithOperationFailed) {
  TestProvider provider("p");
  LogCapture capture;
  EXPECT_EQ(hxf_core_service_handler_report_device_list(provider.handle, nullptr),
            HXF_ERROR_OPERATION_FAILED);
  EXPECT_EQ(hxf_core_service_handler_send_request_result(provider.handle, Str("lights"), nullptr,
                                                         nullptr, HXF_ERROR_NONE),
            HXF_ERROR_OPERATION_FAILED);
  EXPECT_EQ(hxf_core_service_handler_notify(provider.handle, Str("lights"), nullptr, nullptr,
                                            HXF_ERROR_NONE),
            HXF_ERROR_OPERATION_FAILED);
  EXPECT_EQ(capture.CountContaining(")  failed to copy list\n"), 3);
  EXPECT_TRUE(capture.Contains(")  Exception !! - failed to create list\n"));
}

TEST_F(ServiceHandlerApi, ADeviceListWithoutEndpointsIsAnInvalidParameter) {
  TestProvider provider("p");
  hxf_endpoint_list_h empty = hxf_endpoint_list_create();
  LogCapture capture;
  EXPECT_EQ(hxf_core_service_handler_report_device_list(provider.handle, empty),
            HXF_ERROR_INVALID_PARAMETER);
  EXPECT_TRUE(capture.Contains("no endpoint in endpoint_list(error:4)(error_code:4)"));
  hxf_endpoint_list_destroy(empty);
}

TEST_F(ServiceHandlerApi, AFoundDeviceNamingAnUnknownServiceFailsWithCode2) {
  TestProvider provider("p");
  hxf_endpoint_h endpoint = MakeEndpoint("ghost-service", "d");
  LogCapture capture;
  EXPECT_EQ(hxf_core_service_handler_report_device_found(provider.handle, endpoint),
            HXF_ERROR_OPERATION_FAILED);
  EXPECT_TRUE(capture.Contains("Exception !! - service not found(error:2)(error_code:2)\n"));
  hxf_endpoint_destroy(endpoint);
}

TEST_F(ServiceHandlerApi, SubscribeChecksItsHandleAndName) {
  TestProvider provider("p");
  int stale = 0;
  ExpectCodes({
      {"subscribe: a null handle",
       [] { return hxf_core_service_handler_subscribe_service(nullptr, Str("x")); },
       HXF_ERROR_INVALID_HANDLE, "service_handler handle is null(error:10)"},
      {"subscribe: an empty service name",
       [&] { return hxf_core_service_handler_subscribe_service(provider.handle, Str("")); },
       HXF_ERROR_INVALID_SERVICE_NAME, "service name is empty(error:14)"},
      {"unsubscribe: a null handle",
       [] { return hxf_core_service_handler_unsubscribe_service(nullptr, Str("x")); },
       HXF_ERROR_INVALID_HANDLE, "service handler handle is null(error:10)"},
      {"subscribe: a handle that was never made",
       [&] { return hxf_core_service_handler_subscribe_service(&stale, Str("x")); },
       HXF_ERROR_INVALID_HANDLE, "service_handler not found in service_handler_map_!!(error:10)"},
  });
}

TEST_F(ServiceHandlerApi, SubscribingTheSameHandlerTwiceFails) {
  TestProvider provider("p");
  EXPECT_EQ(hxf_core_service_handler_subscribe_service(provider.handle, Str("lights")),
            HXF_ERROR_NONE);
  LogCapture capture;
  EXPECT_EQ(hxf_core_service_handler_subscribe_service(provider.handle, Str("lights")),
            HXF_ERROR_OPERATION_FAILED);
  EXPECT_TRUE(
      capture.Contains("Unable to insert service_handler to service_handler_map_!!(error:2)"));
}

TEST_F(ServiceHandlerApi, DestroyOfAnUnknownOrDestroyedHandleIsInvalidHandle) {
  hxf_service_handler_h handle = hxf_core_service_handler_create(Str("p"), nullptr);
  EXPECT_EQ(hxf_core_service_handler_destroy(handle), HXF_ERROR_NONE);
  LogCapture capture;
  EXPECT_EQ(hxf_core_service_handler_destroy(handle), HXF_ERROR_INVALID_HANDLE);
  EXPECT_TRUE(capture.Contains(
      "service_handler not found in service_handler_map_!!(error:10)(error_code:10)"));
  EXPECT_EQ(hxf_core_service_handler_set_search_callback(handle, &Noop, nullptr),
            HXF_ERROR_INVALID_HANDLE);
}

TEST_F(ServiceHandlerApi, DestroyAsyncCallsTheDestroyedCallbackWithTheHandle) {
  auto provider = std::make_unique<TestProvider>("p");
  const hxf_service_handler_h handle = provider->handle;
  provider.reset();  // destroys asynchronously and waits for "destroyed" with this handle
  EXPECT_EQ(hxf_core_service_handler_destroy(handle), HXF_ERROR_INVALID_HANDLE);
}

TEST_F(ServiceHandlerApi, DestroyAsyncOfANullHandleIsOnlyLogged) {
  LogCapture capture;
  EXPECT_EQ(hxf_core_service_handler_destroy_async(nullptr, nullptr, nullptr), HXF_ERROR_NONE);
  EXPECT_TRUE(capture.Contains(")  invalid pointer\n"));
}

TEST_F(ServiceHandlerApi, ASearchOnAHandlerWithoutSearchCallbackLogsCallbackIsNullptr) {
  TestProvider provider("bare", /*with_callbacks=*/false);
  hxf_core_service_handler_subscribe_service(provider.handle, Str("lights"));
  LogCapture capture;
  auto client = std::make_shared<FakeClient>("ui");
  IServiceMgr::GetInstance()->StartActiveSearch("lights", client, 10000);
  EXPECT_TRUE(capture.WaitFor(")  callback is nullptr!\n"));
  EXPECT_EQ(capture.Find("callback is nullptr!").priority, DLOG_ERROR);
}

TEST_F(ServiceHandlerApi, EverySetterButAddDeviceLogsThatItsCallbackHasBeenSet) {
  hxf_service_handler_h h = hxf_core_service_handler_create(Str("setters"), nullptr);
  LogCapture capture;
  hxf_core_service_handler_set_add_device_callback(
      h, [](hxf_service_handler_h, hxf_endpoint_h, void*) {}, nullptr);
  hxf_core_service_handler_set_search_callback(h, &Noop, nullptr);
  hxf_core_service_handler_set_search_stop_callback(h, &Noop, nullptr);
  hxf_core_service_handler_set_get_device_list_callback(h, &Noop, nullptr);
  hxf_core_service_handler_set_listen_callback(h, &Noop, nullptr);
  hxf_core_service_handler_set_listen_stop_callback(h, &Noop, nullptr);
  hxf_core_service_handler_set_service_session_created_callback(
      h, [](hxf_service_handler_h, hxf_service_session_h, void*) {}, nullptr);
  hxf_core_service_handler_set_request_service_callback(
      h, [](hxf_service_handler_h, hxf_transaction_h, hxf_property_list_h, void*) {}, nullptr);
  // The setters run on the handler's context, the pool ones and the direct one alike.
  for (const char* kind : {"search", "search stop", "get device list", "listen", "listen stop",
                           "session created", "set request service"}) {
    EXPECT_TRUE(capture.WaitFor(std::string(")  ") + kind + " callback has been set[")) << kind;
  }
  int set_lines = 0;
  for (const auto& line : capture.Lines())
    set_lines += line.text.find("callback has been set[") != std::string::npos;
  EXPECT_EQ(set_lines, 7);                                  // none for add device
  EXPECT_TRUE(capture.Contains("_SetAddDeviceCallback("));  // only its trace
  hxf_core_service_handler_destroy(h);
}

// ---- the handler with test-double sessions ----

TEST(ServiceHandler, AResultIsOfferedToEveryLiveSessionWhoeverOwnsTheTransaction) {
  auto handler = IServiceHandler::Create("h", nullptr);
  handler->Init();
  auto first = std::make_shared<FakeSession>();
  auto second = std::make_shared<FakeSession>();
  handler->ServiceSessionCreated(first);
  handler->ServiceSessionCreated(second);
  hxf_property_list_h list = hxf_property_list_create(Str("get"));
  int unknown_transaction = 0;
  handler->SendRequestResult("lights", IPropertyListHelper::Create(list), &unknown_transaction,
                             HXF_ERROR_NONE);
  const std::string expected = "result lights " + FakeSession::Pointer(&unknown_transaction);
  EXPECT_TRUE(first->events.WaitCount(expected, 1));
  EXPECT_TRUE(second->events.WaitCount(expected, 1));
  hxf_property_list_destroy(list);
  handler->Termi();
}

TEST(ServiceHandler, AResultReachesItsSessionThoughOtherSessionsAreBeingDestroyed) {
  auto handler = IServiceHandler::Create("h", nullptr);
  handler->Init();
  auto owner = std::make_shared<FakeSession>();
  handler->ServiceSessionCreated(owner);
  // Then sessions that refuse, as while being destroyed: some come before the owner.
  std::vector<std::shared_ptr<FakeSession>> going;
  for (int i = 0; i < 16; ++i) {
    going.push_back(std::make_shared<FakeSession>());
    going.back()->terminated = true;
    handler->ServiceSessionCreated(going.back());
  }
  LogCapture capture;
  hxf_property_list_h list = hxf_property_list_create(Str("get"));
  int transaction = 0;
  handler->SendRequestResult("lights", IPropertyListHelper::Create(list), &transaction,
                             HXF_ERROR_NONE);
  EXPECT_TRUE(owner->events.WaitCount("result lights " + FakeSession::Pointer(&transaction), 1));
  EXPECT_TRUE(capture.WaitFor("CServiceHandler : _SendRequestResult(",
                              ")  Exception !! - InvokeTask Fail!!(error:2)(error_code:2)\n"));
  hxf_property_list_destroy(list);
  handler->Termi();
}

TEST(ServiceHandler, NotificationsReachEveryLiveSessionAndDeadOnesAreSkipped) {
  auto handler = IServiceHandler::Create("h", nullptr);
  handler->Init();
  auto live = std::make_shared<FakeSession>();
  auto dead = std::make_shared<FakeSession>();
  handler->ServiceSessionCreated(live);
  handler->ServiceSessionCreated(dead);
  dead.reset();
  LogCapture capture;
  hxf_property_list_h list = hxf_property_list_create(Str("state"));
  handler->Notify("lights", IPropertyListHelper::Create(list), nullptr, HXF_ERROR_NONE);
  EXPECT_TRUE(live->events.WaitCount("notify lights " + FakeSession::Pointer(nullptr), 1));
  EXPECT_TRUE(capture.Contains(")  IServiceSession expired!\n"));
  EXPECT_TRUE(capture.Contains(
      "service_name: lights, service_session: " + FakeSession::Pointer(live.get()) +
      ", service property name: state\n"));
  EXPECT_TRUE(
      capture.Contains(")  pelnor service session map count : 2\n"));  // the dead entry stays
  hxf_property_list_destroy(list);
  handler->Termi();
}

TEST(ServiceHandler, ASecondSessionWithTheSameHandleFailsWithCode2AndTheFirstStays) {
  auto handler = IServiceHandler::Create("h", nullptr);
  handler->Init();
  int shared_handle = 0;
  auto first = std::make_shared<FakeSession>(&shared_handle);
  auto second = std::make_shared<FakeSession>(&shared_handle);
  LogCapture capture;
  handler->ServiceSessionCreated(first);  // direct: done on return
  handler->ServiceSessionCreated(second);
  EXPECT_EQ(capture.CountContaining("pelnor service session map count : 1\n"), 1);
  EXPECT_TRUE(
      capture.Contains("Exception !! - couldn't insert service session to "
                       "service_session_map_!!(error:2)(error_code:2)\n"));
  hxf_property_list_h list = hxf_property_list_create(Str("get"));
  handler->SendRequestResult("lights", IPropertyListHelper::Create(list), nullptr, HXF_ERROR_NONE);
  EXPECT_TRUE(first->events.WaitCount("result lights " + FakeSession::Pointer(nullptr), 1));
  EXPECT_EQ(second->events.Get().size(), 0u);
  hxf_property_list_destroy(list);
  handler->Termi();
}

TEST(ServiceHandler, TermiAsyncWithAnEmptyCallbackStillTerminates) {
  auto handler = IServiceHandler::Create("h", nullptr);
  handler->Init();
  LogCapture capture;
  handler->TermiAsync(nullptr);
  EXPECT_TRUE(capture.Contains(")  callback is nullptr!\n"));
  EXPECT_TRUE(capture.WaitFor("TerminateJob destroyed"));
  EXPECT_THROW(handler->StartActiveSearch("x"), HXFramework::CException);
}

TEST(ServiceHandler, RequestsReachThePluginOnTheCallersThreadWithHandleTransactionAndList) {
  struct Seen {
    void* handler = nullptr;
    void* transaction = nullptr;
    void* list = nullptr;
    std::thread::id thread;
  } seen;
  auto handler = IServiceHandler::Create("h", nullptr);
  handler->Init();
  handler->SetRequestServiceCallback([&](void* h, void* t, void* l) {
    seen = Seen{h, t, l, std::this_thread::get_id()};
  });
  auto transaction = ITransaction::Create();
  hxf_property_list_h list = hxf_property_list_create(Str("set"));
  auto wrapper = IPropertyListHelper::Create(list);
  handler->RequestService(transaction, wrapper);  // direct: done on return
  EXPECT_EQ(seen.handler, handler->GetHandle());
  EXPECT_EQ(seen.transaction, transaction->GetHandle());
  EXPECT_EQ(seen.list, wrapper->GetHandle());  // the core's copy, not the application's list
  EXPECT_NE(seen.list, list);
  EXPECT_EQ(seen.thread, std::this_thread::get_id());
  hxf_property_list_destroy(list);
  handler->Termi();
}

TEST(ServiceHandler, AddDeviceGivesThePluginTheHandlerAndTheEndpointButNotTheSession) {
  auto handler = IServiceHandler::Create("h", nullptr);
  handler->Init();
  EventLog seen;
  handler->SetAddDeviceCallback(
      [&](void* h, void* e) { seen.Add(FakeSession::Pointer(h) + " " + FakeSession::Pointer(e)); });
  hxf_endpoint_h endpoint = MakeEndpoint("lights", "lamp");
  auto wrapper = HXFramework::Core::IEndpointHelper::Create(endpoint);
  int session = 0;
  // Direct, but queued behind the setter if that is still on the pool: either way in order.
  handler->AddDevice(&session, wrapper);
  EXPECT_TRUE(seen.WaitCount(
      FakeSession::Pointer(handler->GetHandle()) + " " + FakeSession::Pointer(wrapper->GetHandle()),
      1));
  hxf_endpoint_destroy(endpoint);
  handler->Termi();
}

TEST(ServiceHandler, DestructionLogsTheHandlerName) {
  LogCapture capture;
  {
    auto handler = IServiceHandler::Create("short-lived", nullptr);
    handler->Init();
    handler->Termi();
  }
  auto line = capture.Find("service_handler destroyed: short-lived");
  EXPECT_EQ(line.priority, DLOG_INFO);
}

TEST(ServiceHandler, EndedSessionsLeaveTheMapAndAResultStillReachesItsLiveSessionOnce) {
  auto handler = IServiceHandler::Create("h", nullptr);
  handler->Init();
  auto live = std::make_shared<FakeSession>();
  handler->ServiceSessionCreated(live);
  LogCapture capture;
  // Distinct handles, as sessions that overlap in time have: none can replace another.
  constexpr int kEnded = 1000;
  std::vector<int> handles(kEnded);
  for (int& handle : handles) {
    auto ended = std::make_shared<FakeSession>(&handle);
    handler->ServiceSessionCreated(ended);  // direct: done on return; ends right after
  }
  // Without a single result in between, the map stays bounded by its sweeps.
  const auto counts = [&] {
    std::vector<std::size_t> found;
    const std::string prefix = "pelnor service session map count : ";
    for (const auto& line : capture.Lines()) {
      const std::size_t at = line.text.find(prefix);
      if (at != std::string::npos) found.push_back(std::stoul(line.text.substr(at + prefix.size())));
    }
    return found;
  };
  const std::vector<std::size_t> while_ending = counts();
  ASSERT_EQ(while_ending.size(), static_cast<std::size_t>(kEnded));
  EXPECT_LE(*std::max_element(while_ending.begin(), while_ending.end()), 64u);
  hxf_property_list_h list = hxf_property_list_create(Str("get"));
  int first = 0;
  int second = 0;
  handler->SendRequestResult("lights", IPropertyListHelper::Create(list), &first, HXF_ERROR_NONE);
  EXPECT_TRUE(live->events.WaitCount("result lights " + FakeSession::Pointer(&first), 1));
  // The first walk took out what the sweeps left; the next one finds the live session alone.
  handler->SendRequestResult("lights", IPropertyListHelper::Create(list), &second, HXF_ERROR_NONE);
  EXPECT_TRUE(live->events.WaitCount("result lights " + FakeSession::Pointer(&second), 1));
  EXPECT_EQ(counts().back(), 1u);
  EXPECT_EQ(live->events.Count("result lights " + FakeSession::Pointer(&first)), 1);
  EXPECT_EQ(live->events.Count("result lights " + FakeSession::Pointer(&second)), 1);
  hxf_property_list_destroy(list);
  handler->Termi();
}
