// Services, service handlers and the service manager, driven through the public
// service-handler API with test-double clients.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "CException.h"
#include "Eventually.h"
#include "FakeClient.h"
#include "IServiceHandler.h"
#include "IServiceMgr.h"
#include "LogCapture.h"
#include "TestProvider.h"

using namespace HXFramework::Test;  // NOLINT
using HXFramework::CException;
using HXFramework::Core::IServiceMgr;

namespace {

IServiceMgr* Mgr() {
  return IServiceMgr::GetInstance();
}

class ServiceMgr : public ::testing::Test {
 protected:
  void TearDown() override { Mgr()->Finalize(); }
  std::shared_ptr<FakeClient> Client(const std::string& name) {
    return std::make_shared<FakeClient>(name);
  }
};

// Runs `call` and returns the code of the CException it throws (0 when none).
template <typename Call>
int CodeOf(Call&& call, std::string* what = nullptr) {
  try {
    call();
  } catch (const CException& e) {
    if (what != nullptr) *what = e.what();
    return e.code;
  }
  return 0;
}

}  // namespace

TEST_F(ServiceMgr, ActiveSearchReachesTheSubscribedHandlerAndItsDeviceReachesTheClient) {
  TestProvider provider("lamp-provider");
  provider.devices = {"lamp-1"};
  ASSERT_EQ(hxf_core_service_handler_subscribe_service(provider.handle, Str("lights")),
            HXF_ERROR_NONE);
  auto client = Client("ui");
  Mgr()->StartActiveSearch("lights", client, 10000);
  EXPECT_TRUE(client->events.WaitCount("found lights 0 lamp-1", 1));
  EXPECT_TRUE(provider.events.WaitCount("search lights", 1));
}

TEST_F(ServiceMgr, FoundDeviceStopsTheSearchTimer) {
  TestProvider provider("p");
  provider.devices = {"lamp-1"};
  hxf_core_service_handler_subscribe_service(provider.handle, Str("lights"));
  auto searcher = Client("searcher");
  Mgr()->StartActiveSearch("lights", searcher, 50);
  ASSERT_TRUE(searcher->events.WaitCount("found lights 0 lamp-1", 1));
  // A later time-out on another service marks the moment the first one would have fired.
  auto sentinel = Client("sentinel");
  Mgr()->StartActiveSearch("nobody-provides-this", sentinel, 300);
  ASSERT_TRUE(sentinel->events.WaitCount("search timeout nobody-provides-this", 1));
  EXPECT_EQ(searcher->events.Count("search timeout lights"), 0);
}

TEST_F(ServiceMgr, TwoClientsSearchingBothTimersFireEachReachingItsOwnClient) {
  auto first = Client("first");
  auto second = Client("second");
  // The second search overwrites the stored timer id; the first timer is not stopped and
  // fires later on its own. (Had the first fired first, its expiry would have stopped the
  // stored one: the second's.)
  Mgr()->StartActiveSearch("lights", first, 80);
  Mgr()->StartActiveSearch("lights", second, 40);
  EXPECT_TRUE(first->events.WaitCount("search timeout lights", 1));
  EXPECT_TRUE(second->events.WaitCount("search timeout lights", 1));
  EXPECT_EQ(first->events.Count("search timeout lights"), 1);
  EXPECT_EQ(second->events.Count("search timeout lights"), 1);
}

TEST_F(ServiceMgr, StopFromOneClientStopsTheTimerAndTellsEveryHandlerThoughAnotherStillSearches) {
  TestProvider provider("p");
  hxf_core_service_handler_subscribe_service(provider.handle, Str("lights"));
  auto a = Client("a");
  auto b = Client("b");
  LogCapture capture;
  Mgr()->StartActiveSearch("lights", a, 400);  // its timer id is overwritten by b's
  Mgr()->StartActiveSearch("lights", b, 200);
  Mgr()->StopActiveSearch("lights", a->GetHandle());  // stops the stored timer: b's
  EXPECT_TRUE(provider.events.WaitCount("search stop lights", 1));
  // a's timer still fires, but a has left the searching clients.
  EXPECT_TRUE(capture.WaitFor("client not found in search_client_map_!!(error:12)(error_code:12)"));
  EXPECT_EQ(a->events.Count("search timeout lights"), 0);
  EXPECT_EQ(b->events.Count("search timeout lights"), 0);  // b's earlier timer was stopped
}

TEST_F(ServiceMgr, ClientListeningAndSearchingHearsEachDeviceTwice) {
  TestProvider provider("p");
  provider.devices = {"lamp-1"};
  hxf_core_service_handler_subscribe_service(provider.handle, Str("lights"));
  auto client = Client("both");
  Mgr()->StartPassiveSearch("lights", client);
  ASSERT_TRUE(provider.events.WaitCount("listen lights", 1));
  Mgr()->StartActiveSearch("lights", client, 10000);
  EXPECT_TRUE(client->events.WaitCount("found lights 0 lamp-1", 2));
}

TEST_F(ServiceMgr, AFoundDeviceReachesEveryListenerThoughOthersAreBeingDestroyed) {
  TestProvider provider("p");
  provider.devices = {"lamp-1"};
  hxf_core_service_handler_subscribe_service(provider.handle, Str("lights"));
  auto live = Client("live");
  Mgr()->StartPassiveSearch("lights", live);
  // Then listeners whose contexts refuse postings, as while they are being destroyed; with so
  // many of them, the live one comes after at least one in the map's order.
  std::vector<std::shared_ptr<FakeClient>> going;
  for (int i = 0; i < 16; ++i) {
    going.push_back(Client("going"));
    going.back()->terminated = true;
    Mgr()->StartPassiveSearch("lights", going.back());
  }
  ASSERT_TRUE(provider.events.WaitCount("listen lights", 17));
  Mgr()->StartActiveSearch("lights", live, 10000);
  EXPECT_TRUE(live->events.WaitCount("found lights 0 lamp-1", 1));
}

TEST_F(ServiceMgr, DeviceListsGoOnlyToSearchingClients) {
  TestProvider provider("p");
  provider.devices = {"a", "b"};
  hxf_core_service_handler_subscribe_service(provider.handle, Str("lights"));
  auto listener = Client("listener");
  auto lister = Client("lister");
  Mgr()->StartPassiveSearch("lights", listener);
  Mgr()->GetDeviceList("lights", lister, 10000);
  EXPECT_TRUE(lister->events.WaitCount("list lights 0 2", 1));
  // The list is delivered in one task of the service: the listener was passed over.
  EXPECT_EQ(listener->events.Get().size(), 0u);
}

TEST_F(ServiceMgr, DeviceListTimesOutToItsClient) {
  auto client = Client("lister");
  Mgr()->GetDeviceList("lights", client, 30);
  EXPECT_TRUE(client->events.WaitCount("list timeout lights", 1));
}

TEST_F(ServiceMgr, GetServiceHandlerOnAServiceWithoutHandlerThrows) {
  std::string what;
  EXPECT_EQ(CodeOf([&] { Mgr()->GetServiceHandler("empty-service"); }, &what),
            HXF_ERROR_OPERATION_FAILED);
  EXPECT_EQ(what, "no service handler(weak) in map!(error:2)");
}

TEST_F(ServiceMgr, GetServiceHandlerReturnsTheSubscribedHandler) {
  TestProvider provider("p");
  hxf_core_service_handler_subscribe_service(provider.handle, Str("lights"));
  EXPECT_EQ(Mgr()->GetServiceHandler("lights")->GetHandle(), provider.handle);
}

TEST_F(ServiceMgr, OneOfTwoHandlersUnsubscribingEndsTheServiceForBoth) {
  TestProvider first("first");
  TestProvider second("second");
  hxf_core_service_handler_subscribe_service(first.handle, Str("lights"));
  hxf_core_service_handler_subscribe_service(second.handle, Str("lights"));
  LogCapture capture;
  EXPECT_EQ(hxf_core_service_handler_unsubscribe_service(first.handle, Str("lights")),
            HXF_ERROR_NONE);
  EXPECT_TRUE(capture.Contains(")  service[lights] deleted from service map\n"));
  // The next mention makes a fresh, empty service: the second handler is not in it.
  std::string what;
  EXPECT_EQ(CodeOf([&] { Mgr()->GetServiceHandler("lights"); }, &what), HXF_ERROR_OPERATION_FAILED);
  EXPECT_EQ(what, "no service handler(weak) in map!(error:2)");
  EXPECT_TRUE(capture.Contains(")   [lights] service not found in service_map_\n"));
}

TEST_F(ServiceMgr, ActiveSearchOnANameNobodyProvidesCreatesTheServiceAndAsksNoHandler) {
  TestProvider other("other");
  hxf_core_service_handler_subscribe_service(other.handle, Str("audio"));
  LogCapture capture;
  auto client = Client("ui");
  Mgr()->StartActiveSearch("nobody", client, 20);
  EXPECT_TRUE(capture.Contains(" [nobody] service has been created & inserted into service_map_"));
  EXPECT_TRUE(client->events.WaitCount("search timeout nobody", 1));
  EXPECT_EQ(other.events.Count("search audio"), 0);
}

TEST_F(ServiceMgr, WildcardStartReachesEveryExistingServiceAndCreatesNone) {
  TestProvider lights("lights-provider");
  TestProvider audio("audio-provider");
  hxf_core_service_handler_subscribe_service(lights.handle, Str("lights"));
  hxf_core_service_handler_subscribe_service(audio.handle, Str("audio"));
  LogCapture capture;
  auto client = Client("ui");
  Mgr()->StartActiveSearch("*", client, 10000);
  EXPECT_TRUE(lights.events.WaitCount("search lights", 1));
  EXPECT_TRUE(audio.events.WaitCount("search audio", 1));
  EXPECT_FALSE(capture.Contains("service has been created"));
  Mgr()->StartPassiveSearch("*", client);
  EXPECT_TRUE(lights.events.WaitCount("listen lights", 1));
  Mgr()->GetDeviceList("*", client, 10000);
  EXPECT_TRUE(audio.events.WaitCount("device list audio", 1));
  EXPECT_FALSE(capture.Contains("service has been created"));
}

TEST_F(ServiceMgr, WildcardStopIsAnOrdinaryUnknownName) {
  std::string what;
  EXPECT_EQ(CodeOf([&] { Mgr()->StopActiveSearch("*", Client("ui")->GetHandle()); }, &what),
            HXF_ERROR_OPERATION_FAILED);
  EXPECT_EQ(what, "service not found(error:2)");
  EXPECT_EQ(CodeOf([&] { Mgr()->StopPassiveSearch("*", Client("ui")->GetHandle()); }),
            HXF_ERROR_OPERATION_FAILED);
}

TEST_F(ServiceMgr, StopOnAnUnknownNameFailsWhileStartCreatesIt) {
  auto client = Client("ui");
  EXPECT_EQ(CodeOf([&] { Mgr()->StopActiveSearch("fresh", client->GetHandle()); }),
            HXF_ERROR_OPERATION_FAILED);
  Mgr()->StartActiveSearch("fresh", client, 10000);
  EXPECT_EQ(CodeOf([&] { Mgr()->StopActiveSearch("fresh", client->GetHandle()); }), 0);
}

TEST_F(ServiceMgr, ArgumentChecksCarryTheirMessagesAndCodes) {
  auto client = Client("ui");
  std::string what;
  EXPECT_EQ(CodeOf([&] { Mgr()->StartActiveSearch("", client, 1); }, &what),
            HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(what, "service_name is emtpry!!(error:4)");
  EXPECT_EQ(CodeOf([&] { Mgr()->StartActiveSearch("x", nullptr, 1); }, &what),
            HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(what, "client is emtpry!!(error:4)");
  EXPECT_EQ(CodeOf([&] { Mgr()->StartPassiveSearch("", client); }, &what),
            HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(what, "service_name is empty!!(error:4)");
  EXPECT_EQ(CodeOf([&] { Mgr()->StopPassiveSearch("", client->GetHandle()); }, &what),
            HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(what, "valid service_name!!(error:4)");
  EXPECT_EQ(CodeOf([&] { Mgr()->StopActiveSearch("x", nullptr); }, &what),
            HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(what, "invalid client handle!!(error:4)");
  EXPECT_EQ(CodeOf([&] { Mgr()->SetSearchClient("", client); }, &what),
            HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(CodeOf([&] { Mgr()->GetServiceProperty("", nullptr, nullptr, 1); }, &what),
            HXF_ERROR_INVALID_PARAMETER);
  EXPECT_EQ(what, "valid service_name!!(error:4)");
}

TEST_F(ServiceMgr, SetSearchClientMakesAClientHearDevicesWithoutAskingHandlers) {
  TestProvider provider("p");
  hxf_core_service_handler_subscribe_service(provider.handle, Str("lights"));
  auto client = Client("ui");
  Mgr()->SetSearchClient("lights", client);
  hxf_endpoint_h endpoint = MakeEndpoint("lights", "lamp-9");
  EXPECT_EQ(hxf_core_service_handler_report_device_found(provider.handle, endpoint),
            HXF_ERROR_NONE);
  hxf_endpoint_destroy(endpoint);
  EXPECT_TRUE(client->events.WaitCount("found lights 0 lamp-9", 1));
  EXPECT_EQ(provider.events.Count("search lights"), 0);
}

TEST_F(ServiceMgr, PropertyRequestsAddressedToAServiceAreAcceptedAndDropped) {
  Mgr()->StartActiveSearch("lights", Client("ui"), 10000);  // makes the service
  EXPECT_EQ(CodeOf([&] { Mgr()->SetServiceProperty("lights", nullptr, nullptr, 1); }), 0);
  EXPECT_EQ(CodeOf([&] { Mgr()->GetServiceProperty("lights", nullptr, nullptr, 1); }), 0);
  EXPECT_EQ(CodeOf([&] { Mgr()->GetServiceProperty("unknown", nullptr, nullptr, 1); }),
            HXF_ERROR_OPERATION_FAILED);
}

TEST_F(ServiceMgr, FinalizeTerminatesEveryServiceAndHandler) {
  TestProvider provider("p");
  hxf_core_service_handler_subscribe_service(provider.handle, Str("lights"));
  LogCapture capture;
  Mgr()->Finalize();
  EXPECT_TRUE(capture.Contains(")  service_map_size: 1, service_handler_map_ size: 1\n"));
  EXPECT_TRUE(capture.Contains(")  service_name:(lights)("));
  EXPECT_TRUE(capture.Contains(")  service_handler_name:(p)("));
  EXPECT_EQ(hxf_core_service_handler_destroy(provider.handle), HXF_ERROR_INVALID_HANDLE);
}

// ---- services nobody needs go ----

TEST_F(ServiceMgr, ServicesNamedOnlyBySearchesGoWhenTheirLastClientStops) {
  const std::size_t before = Mgr()->ServiceCount();
  auto client = Client("ui");
  constexpr int kNames = 200;
  for (int i = 0; i < kNames; ++i) {
    const std::string name = "made-up-" + std::to_string(i);
    Mgr()->StartPassiveSearch(name, client);
    Mgr()->StartActiveSearch(name, client, 10000);
  }
  EXPECT_EQ(Mgr()->ServiceCount(), before + kNames);
  for (int i = 0; i < kNames; ++i) {
    const std::string name = "made-up-" + std::to_string(i);
    Mgr()->StopPassiveSearch(name, client->GetHandle());
    Mgr()->StopActiveSearch(name, client->GetHandle());
  }
  EXPECT_TRUE(Eventually([&] { return Mgr()->ServiceCount() == before; }));
}

TEST_F(ServiceMgr, ServicesNamedOnlyBySearchesGoWhenTheirClientIsDestroyedWithoutStopping) {
  const std::size_t before = Mgr()->ServiceCount();
  hxf_client_h client = hxf_core_client_create(Str("leaver"));
  ASSERT_NE(client, nullptr);
  constexpr int kNames = 100;
  for (int i = 0; i < kNames; ++i) {
    const std::string name = "never-provided-" + std::to_string(i);
    ASSERT_EQ(hxf_core_client_start_passive_search(client, Str(name), nullptr, nullptr),
              HXF_ERROR_NONE);
    ASSERT_EQ(hxf_core_client_get_device_list(client, Str(name), nullptr, 10000, nullptr),
              HXF_ERROR_NONE);
  }
  EXPECT_TRUE(Eventually([&] { return Mgr()->ServiceCount() == before + kNames; }));
  ASSERT_EQ(hxf_core_client_destroy(client), HXF_ERROR_NONE);
  EXPECT_TRUE(Eventually([&] { return Mgr()->ServiceCount() == before; }));
}

TEST_F(ServiceMgr, AServiceWithAHandlerOrAnotherClientStaysWhenOneClientStops) {
  TestProvider provider("p");
  ASSERT_EQ(hxf_core_service_handler_subscribe_service(provider.handle, Str("lights")),
            HXF_ERROR_NONE);
  auto stopping = Client("stopping");
  auto staying = Client("staying");
  Mgr()->StartActiveSearch("lights", stopping, 10000);
  Mgr()->StartPassiveSearch("audio", stopping);
  Mgr()->StartPassiveSearch("audio", staying);
  const std::size_t before = Mgr()->ServiceCount();
  LogCapture capture;
  Mgr()->StopActiveSearch("lights", stopping->GetHandle());
  Mgr()->StopPassiveSearch("audio", stopping->GetHandle());
  // Queued behind the stops on each service's context: once they have run, so have those.
  Mgr()->StartPassiveSearch("lights", staying);
  Mgr()->StartPassiveSearch("audio", staying);
  EXPECT_TRUE(provider.events.WaitCount("listen lights", 1));
  EXPECT_TRUE(capture.WaitFor("this client is already exist."));
  EXPECT_EQ(Mgr()->ServiceCount(), before);
  EXPECT_FALSE(capture.Contains("deleted from service map"));
}

TEST_F(ServiceMgr, ANameAskedForAgainAfterItsServiceWentIsServedAsNew) {
  auto client = Client("ui");
  Mgr()->StartPassiveSearch("later", client);
  Mgr()->StopPassiveSearch("later", client->GetHandle());
  EXPECT_TRUE(Eventually([&] {
    return CodeOf([&] { Mgr()->StopPassiveSearch("later", client->GetHandle()); }) ==
           HXF_ERROR_OPERATION_FAILED;
  }));
  Mgr()->StartPassiveSearch("later", client);
  TestProvider provider("p");
  ASSERT_EQ(hxf_core_service_handler_subscribe_service(provider.handle, Str("later")),
            HXF_ERROR_NONE);
  hxf_endpoint_h endpoint = MakeEndpoint("later", "d-1");
  EXPECT_TRUE(Eventually([&] {
    return hxf_core_service_handler_report_device_found(provider.handle, endpoint) ==
           HXF_ERROR_NONE;
  }));
  hxf_endpoint_destroy(endpoint);
  EXPECT_TRUE(client->events.WaitCount("found later 0 d-1", 1));
}

TEST_F(ServiceMgr, AServiceHandlerAskedOfANameNobodyProvidesLeavesNoServiceBehind) {
  const std::size_t before = Mgr()->ServiceCount();
  EXPECT_EQ(CodeOf([&] { Mgr()->GetServiceHandler("nobody-provides-this"); }),
            HXF_ERROR_OPERATION_FAILED);
  EXPECT_TRUE(Eventually([&] { return Mgr()->ServiceCount() == before; }));
}
