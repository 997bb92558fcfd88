// The UPnP plugin loaded, used and unloaded five times in one process. GLib, GSSDP, GUPnP
// and libsoup register GObject types that must outlive each unload, so the second load is
// the one that would fail ("cannot register existing type") if they were unmapped.
//
// Runs only inside the private network of tests/upnp/test_upnp.sh, with a light in it
// (HXF_UPNP_TEST_NETWORK=1); skipped anywhere else.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <string>

#include "EventLog.h"
#include "Eventually.h"
#include "Mapped.h"
#include "Str.h"
#include "hxf_core.h"

using HXFramework::Test::EventLog;
using HXFramework::Test::Eventually;
using HXFramework::Test::Mapped;
using HXFramework::Test::MappedLike;
using HXFramework::Test::Str;

namespace {

void OnLoaded(hxf_string, hxf_plugin_load_result_e result, void* log) {
  static_cast<EventLog*>(log)->Add("loaded " + std::to_string(result));
}

void OnFound(hxf_client_h, hxf_string, hxf_endpoint_discovery_result_e, hxf_endpoint_h endpoint,
             void* log) {
  if (endpoint != nullptr)
    static_cast<EventLog*>(log)->Add(std::string("found ") +
                                     hxf_endpoint_get_device_name(endpoint));
}

void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h list, hxf_transaction_h,
              hxf_error_e error, void* log) {
  bool power = false;
  hxf_property_h p = list != nullptr ? hxf_property_list_find(list, Str("power")) : nullptr;
  const bool has_power = p != nullptr && hxf_property_get_bool(p, &power) == HXF_ERROR_NONE;
  static_cast<EventLog*>(log)->Add("result " + std::to_string(error) +
                                   (has_power ? " with power" : " without power"));
}

void OnNotify(hxf_string, hxf_service_session_h, hxf_property_list_h, hxf_transaction_h,
              hxf_error_e, void*) {}

TEST(UpnpPlugin, LoadsFindsAnswersAndUnloadsFiveTimesInOneProcess) {
  const char* network = std::getenv("HXF_UPNP_TEST_NETWORK");
  if (network == nullptr || std::string(network) != "1")
    GTEST_SKIP() << "needs the private network of tests/upnp/test_upnp.sh";
  hxf_core_initialize();
  EventLog loads;
  for (int round = 1; round <= 5; ++round) {
    SCOPED_TRACE("round " + std::to_string(round));
    const auto start = std::chrono::steady_clock::now();
    ASSERT_EQ(hxf_core_plugin_load(Str("upnp"), &OnLoaded, &loads), HXF_ERROR_NONE);
    ASSERT_TRUE(loads.WaitCount("loaded 0", round));
    ASSERT_TRUE(Mapped("/libhxf-plugin-upnp.so"));

    hxf_client_h client = hxf_core_client_create(Str("reload"));
    EventLog events;
    ASSERT_EQ(hxf_core_client_start_active_search(client, Str("lights"), &OnFound, 8000, &events),
              HXF_ERROR_NONE);
    ASSERT_TRUE(events.WaitCount("found Hall light", 1));
    hxf_core_client_stop_active_search(client, Str("lights"));

    // A request answered by the light itself (GetStatus over SOAP).
    hxf_service_session_h session =
        hxf_core_client_subscribe_service(client, Str("lights"), &OnNotify, nullptr);
    ASSERT_NE(session, nullptr);
    hxf_property_list_h get = hxf_property_list_create(Str("get"));
    hxf_transaction_h transaction = nullptr;
    ASSERT_EQ(hxf_core_client_request_service(client, session, get, &OnResult, 5000, &transaction,
                                              &events),
              HXF_ERROR_NONE);
    hxf_property_list_destroy(get);
    ASSERT_TRUE(events.WaitCount("result 0 with power", 1));
    std::printf("round %d: loaded, found the light and read it in %lld ms\n", round,
                static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                           std::chrono::steady_clock::now() - start)
                                           .count()));

    hxf_core_client_destroy(client);
    ASSERT_EQ(hxf_core_plugin_unload(Str("upnp")), HXF_ERROR_NONE);
    // The plugin's own code goes; the libraries whose types stay registered stay mapped.
    EXPECT_TRUE(Eventually([] { return !Mapped("/libhxf-plugin-upnp.so"); }));
    EXPECT_TRUE(MappedLike("/libgupnp-1.6.so"));
  }
  hxf_core_finalize();
}

}  // namespace
