// The simulator plugin through the public API, as an application uses it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <string>

#include "EventLog.h"
#include "Eventually.h"
#include "LogCapture.h"
#include "Mapped.h"
#include "SimShared.h"
#include "Str.h"
#include "hxf_core.h"

using HXFramework::Test::EventLog;
using HXFramework::Test::Eventually;
using HXFramework::Test::LogCapture;
using HXFramework::Test::Mapped;
using HXFramework::Test::RefusedAs;
using HXFramework::Test::Render;

using HXFramework::Test::Str;

namespace {

class SimPlugin : public ::testing::Test {
 protected:
  static void OnLoaded(hxf_string, hxf_plugin_load_result_e result, void* ud) {
    static_cast<EventLog*>(ud)->Add("loaded " + std::to_string(result));
  }
  static void OnFound(hxf_client_h, hxf_string, hxf_endpoint_discovery_result_e result,
                      hxf_endpoint_h e, void* ud) {
    static_cast<EventLog*>(ud)->Add(e != nullptr
                                        ? std::string("found ") + hxf_endpoint_get_device_id(e)
                                        : "ended " + std::to_string(result));
  }
  static void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h list,
                       hxf_transaction_h, hxf_error_e error, void* ud) {
    static_cast<EventLog*>(ud)->Add("result " + std::to_string(error) + " " + Render(list));
  }
  static void OnNotify(hxf_string, hxf_service_session_h, hxf_property_list_h list,
                       hxf_transaction_h, hxf_error_e, void* ud) {
    static_cast<EventLog*>(ud)->Add("notify " + Render(list));
  }

  void SetUp() override {
    hxf_core_initialize();
    ASSERT_EQ(hxf_core_plugin_load(Str("sim"), &OnLoaded, &loaded_), HXF_ERROR_NONE);
    ASSERT_TRUE(loaded_.WaitCount("loaded 0", 1));
    client_ = hxf_core_client_create(Str("test"));
  }
  void TearDown() override {
    hxf_core_client_destroy(client_);
    hxf_core_plugin_unload_all();
    hxf_core_finalize();
  }
  void Send(hxf_service_session_h session, const char* operation, hxf_property_h a = nullptr,
            hxf_property_h b = nullptr, uint32_t timeout = 5000) {
    hxf_property_list_h list = hxf_property_list_create(Str(operation));
    for (hxf_property_h p : {a, b}) {
      if (p == nullptr) continue;
      hxf_property_list_push_property(list, p, HXF_ERROR_NONE);
      hxf_property_destroy(p);
    }
    hxf_transaction_h transaction = nullptr;
    hxf_core_client_request_service(client_, session, list, &OnResult, timeout, &transaction,
                                    &events_);
    hxf_property_list_destroy(list);
  }
  static hxf_property_h Id(const char* id) {
    return hxf_property_create_string(Str("device_id"), Str(id));
  }

  EventLog loaded_;
  EventLog events_;
  hxf_client_h client_ = nullptr;
};

}  // namespace

// The plugin exports its entry points only (no unique symbols pin it), so dlclose unmaps it
// and the next load starts from a fresh copy.
TEST_F(SimPlugin, AnUnloadedSimulatorIsNoLongerMappedAndLoadsAgain) {
  const std::string file = "/libhxf-plugin-sim.so";
  ASSERT_TRUE(Mapped(file));
  ASSERT_EQ(hxf_core_plugin_unload(Str("sim")), HXF_ERROR_NONE);
  EXPECT_TRUE(Eventually([&] { return !Mapped(file); }));
  ASSERT_EQ(hxf_core_plugin_load(Str("sim"), &OnLoaded, &loaded_), HXF_ERROR_NONE);
  ASSERT_TRUE(loaded_.WaitCount("loaded 0", 2));
  EXPECT_TRUE(Mapped(file));
  hxf_core_client_start_active_search(client_, Str("lights"), &OnFound, 5000, &events_);
  EXPECT_TRUE(events_.WaitCount("found ceiling-1", 1));
}

// Each unloaded copy's handlers leave their services, so whatever the handles' order, the
// session goes to the handler of the copy now loaded.
TEST_F(SimPlugin, AfterEveryReloadASessionReachesTheSimulatorNowLoaded) {
  for (int round = 2; round <= 6; ++round) {
    SCOPED_TRACE("load " + std::to_string(round));
    ASSERT_EQ(hxf_core_plugin_unload(Str("sim")), HXF_ERROR_NONE);
    ASSERT_EQ(hxf_core_plugin_load(Str("sim"), &OnLoaded, &loaded_), HXF_ERROR_NONE);
    ASSERT_TRUE(loaded_.WaitCount("loaded 0", round));
    hxf_service_session_h session =
        hxf_core_client_subscribe_service(client_, Str("lights"), &OnNotify, &events_);
    ASSERT_NE(session, nullptr);
    Send(session, "get", Id("lamp-1"));
    ASSERT_TRUE(events_.WaitCount(
        "result 0 get device_id=lamp-1 power=true brightness=70 color=warm", round - 1));
  }
}

TEST_F(SimPlugin, SearchReportsTheDevicesOfAServiceOneByOne) {
  hxf_core_client_start_active_search(client_, Str("lights"), &OnFound, 5000, &events_);
  ASSERT_TRUE(events_.WaitCount("found ceiling-1", 1));
  EXPECT_EQ(events_.Get(), (std::vector<std::string>{"found lamp-1", "found ceiling-1"}));
}

TEST_F(SimPlugin, ABadSetIsRefusedAndChangesNothing) {
  hxf_service_session_h session =
      hxf_core_client_subscribe_service(client_, Str("lights"), &OnNotify, &events_);
  ASSERT_NE(session, nullptr);
  Send(session, "set", Id("lamp-1"), hxf_property_create_int(Str("brightness"), 150));
  ASSERT_TRUE(events_.WaitCount("result 4 set error=brightness 150 is out of range 0..100", 1));
  Send(session, "set", Id("lamp-1"), hxf_property_create_string(Str("brightness"), Str("dim")));
  ASSERT_TRUE(events_.WaitCount("result 4 set error=brightness takes a int, not a string", 1));
  Send(session, "get", Id("lamp-1"));
  EXPECT_TRUE(
      events_.WaitCount("result 0 get device_id=lamp-1 power=true brightness=70 color=warm", 1));
}

TEST_F(SimPlugin, AGoodSetAnswersThenNotifiesTheNewState) {
  hxf_service_session_h session =
      hxf_core_client_subscribe_service(client_, Str("lights"), &OnNotify, &events_);
  Send(session, "set", Id("lamp-1"), hxf_property_create_int(Str("brightness"), 30));
  // The notification goes straight to the subscriber and may overtake the result, which
  // passes through the client's context.
  EXPECT_TRUE(
      events_.WaitCount("notify state device_id=lamp-1 power=true brightness=30 color=warm", 1));
  EXPECT_TRUE(
      events_.WaitCount("result 0 set device_id=lamp-1 power=true brightness=30 color=warm", 1));
}

TEST_F(SimPlugin, AnUnresponsiveDeviceLetsTheRequestTimeOut) {
  hxf_service_session_h session =
      hxf_core_client_subscribe_service(client_, Str("audio"), &OnNotify, &events_);
  Send(session, "get", Id("radio-1"), nullptr, 100);
  EXPECT_TRUE(events_.WaitCount("result 1 null", 1));
}

TEST_F(SimPlugin, AnUnknownDeviceOrOperationGetsAnErrorResult) {
  hxf_service_session_h session =
      hxf_core_client_subscribe_service(client_, Str("lights"), &OnNotify, &events_);
  Send(session, "get", Id("nope"));
  EXPECT_TRUE(events_.WaitCount("result 4 get error=unknown device nope", 1));
  Send(session, "reboot", Id("lamp-1"));
  EXPECT_TRUE(events_.WaitCount("result 4 reboot error=unknown operation reboot (get or set)", 1));
}

// Regression: a get or set without a device went to the service's first device (a set
// changed the lamp); a device protocol never guesses, so both are refused with the choices.
TEST_F(SimPlugin, AGetOrSetWithoutADeviceIsRefusedWithTheDevicesThatExist) {
  hxf_service_session_h session =
      hxf_core_client_subscribe_service(client_, Str("lights"), &OnNotify, &events_);
  ASSERT_NE(session, nullptr);
  const std::string refusal =
      " error=device_id (device= in hxf) is required; devices: lamp-1, ceiling-1, porch-1";
  Send(session, "set", hxf_property_create_int(Str("brightness"), 10));
  ASSERT_TRUE(events_.WaitCount("result 4 set" + refusal, 1));
  Send(session, "get");
  ASSERT_TRUE(events_.WaitCount("result 4 get" + refusal, 1));
  Send(session, "get", Id("lamp-1"));
  EXPECT_TRUE(
      events_.WaitCount("result 0 get device_id=lamp-1 power=true brightness=70 color=warm", 1));
  EXPECT_EQ(events_.Count("notify state device_id=lamp-1 power=true brightness=10 color=warm"), 0);
}

// Regression: a configuration nested 50 000 levels deep overflowed the stack (SIGSEGV) while
// its tree was built and released; nesting is now refused at the line that goes too deep.
TEST(SimConfig, NestingTooDeepIsRefusedAtItsLineInsteadOfOverflowingTheStack) {
  EXPECT_TRUE(RefusedAs("{\"devices\": [{\"id\": \"a\", \"service\": \"x\",\n\"ui_meta\": " +
                            std::string(50000, '[') + std::string(50000, ']') + "}]}\n",
                        "2: nested deeper than 100 levels"));
}

// Regression (found by fuzz_sim_config): a key holding an escaped newline was quoted as it is,
// and the refusal broke into two log lines.
TEST(SimConfig, ARefusalQuotingAControlCharacterStaysOneLine) {
  EXPECT_TRUE(RefusedAs("{\"devices\": [{\"id\": \"a\", \"service\": \"x\", \"a\\nb\": 1}]}\n",
                        "1: devices[0] (\"a\"): unknown key \"a\\x0ab\" (did you mean \"id\"?)"));
}
