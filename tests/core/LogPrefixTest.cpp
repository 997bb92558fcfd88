// Every platform-log line names the source file and the operation that writes it, also when
// it is written from inside a lambda of the operation or from a helper working for it.
#include <gtest/gtest.h>

#include <regex>
#include <string>
#include <vector>

#include "EventLog.h"
#include "LogCapture.h"
#include "TestProvider.h"
#include "hxf_core.h"

using HXFramework::Test::EventLog;
using HXFramework::Test::LogCapture;
using HXFramework::Test::ReportFound;
using HXFramework::Test::Str;

namespace {

struct Expected {
  const char* file;
  const char* function;
  const char* message;  // the start of the message
};

// One sample line per row: the first line whose message starts with `message` must carry
// exactly the prefix "<file> : <function>(<line>)  ".
void ExpectPrefixes(LogCapture& capture, const std::vector<Expected>& rows) {
  const std::vector<HXFramework::Test::LogLine> lines = capture.Lines();
  for (const Expected& row : rows) {
    const std::regex pattern("^([A-Za-z_]+) : ([A-Za-z_~]+)\\((\\d+)\\)  (.*)\n$");
    bool found = false;
    for (const auto& line : lines) {
      std::smatch match;
      if (!std::regex_match(line.text, match, pattern)) continue;
      if (match[4].str().rfind(row.message, 0) != 0) continue;
      found = true;
      EXPECT_EQ(match[1].str() + " : " + match[2].str(),
                std::string(row.file) + " : " + row.function)
          << "line: " << line.text;
      break;
    }
    EXPECT_TRUE(found) << "no line starting with \"" << row.message << "\"";
  }
}

void OnRequest(void* handler, void* transaction, void* list, void*) {
  hxf_core_service_handler_send_request_result(static_cast<hxf_service_handler_h>(handler),
                                               Str("svc"), static_cast<hxf_property_list_h>(list),
                                               static_cast<hxf_transaction_h>(transaction),
                                               HXF_ERROR_NONE);
}
void OnListen(hxf_service_handler_h handler, hxf_string, void*) {
  ReportFound(handler, "svc", "dev-1");
}
void OnFound(hxf_client_h, hxf_string, hxf_endpoint_discovery_result_e, hxf_endpoint_h, void* ud) {
  static_cast<EventLog*>(ud)->Add("found");
}
void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h, hxf_transaction_h,
              hxf_error_e, void* ud) {
  static_cast<EventLog*>(ud)->Add("result");
}
void OnNotify(hxf_string, hxf_service_session_h, hxf_property_list_h, hxf_transaction_h,
              hxf_error_e, void* ud) {
  static_cast<EventLog*>(ud)->Add("notify");
}

}  // namespace

TEST(LogPrefix, LinesNameTheOperationNotALambdaOrAHelper) {
  ASSERT_EQ(hxf_core_initialize(), HXF_ERROR_NONE);
  LogCapture capture;
  EventLog events;
  hxf_core_plugin_load(Str("not-there"), nullptr, nullptr);
  hxf_service_handler_h handler = hxf_core_service_handler_create(Str("p"), nullptr);
  hxf_core_service_handler_set_request_service_callback(handler, &OnRequest, nullptr);
  hxf_core_service_handler_set_listen_callback(handler, &OnListen, nullptr);
  hxf_core_service_handler_set_search_callback(handler, nullptr, nullptr);
  hxf_core_service_handler_subscribe_service(handler, Str("svc"));
  hxf_client_h client = hxf_core_client_create(Str("ui"));
  hxf_service_session_h session =
      hxf_core_client_subscribe_service(client, Str("svc"), &OnNotify, &events);
  hxf_core_client_start_passive_search(client, Str("svc"), &OnFound, &events);
  hxf_core_client_start_passive_search(client, Str("svc"), &OnFound, &events);  // already there
  ASSERT_TRUE(events.WaitCount("found", 2));
  hxf_property_list_h list = hxf_property_list_create(Str("get"));
  hxf_transaction_h transaction = nullptr;
  hxf_core_client_request_service(client, session, list, &OnResult, 5000, &transaction, &events);
  ASSERT_TRUE(events.WaitCount("result", 1));
  hxf_core_service_handler_notify(handler, Str("svc"), list, nullptr, HXF_ERROR_NONE);
  ASSERT_TRUE(events.WaitCount("notify", 1));
  hxf_core_service_handler_send_request_result(handler, Str("svc"), list, transaction,
                                               HXF_ERROR_NONE);  // late: nobody holds it
  hxf_property_list_destroy(list);
  hxf_core_client_start_active_search(client, Str("svc"), &OnFound, 5000, &events);
  ASSERT_TRUE(capture.WaitFor("search callback is NULL, call skipped"));
  hxf_core_client_stop_passive_search(client, Str("svc"));
  ASSERT_TRUE(capture.WaitFor("] deleted from client map in CService[svc]"));
  ASSERT_TRUE(capture.WaitFor("Exception !! - failed to load plugin : not-there"));
  ASSERT_TRUE(capture.WaitFor("[RequestResult] transaction NOT Found"));
  hxf_core_client_destroy(client);
  hxf_core_service_handler_destroy(handler);
  hxf_core_plugin_unload_all();
  hxf_core_finalize();

  ExpectPrefixes(
      capture,
      {
          {"hxf_core_export", "print_app_info", "[hxf_core_client_create], caller_name:"},
          {"CPlugin", "_GetFilePath", "path to load : "},
          {"CPlugin", "_Load", "Exception !! - failed to load plugin : not-there"},
          {"CServiceMgr", "SubscribeService", "service name: svc"},
          {"CServiceHandler", "_SetRequestServiceCallback",
           "set request service callback has been"},
          {"CServiceHandler", "_SetListenCallback", "listen callback has been set["},
          {"CServiceHandler", "_ServiceSessionCreated", "pelnor service session map count : 1"},
          {"CServiceHandler", "_Notify", "service_name: svc, service_session: "},
          {"CServiceHandler", "_SendRequestResult", "pelnor debug3"},
          {"CClient", "_SubscribeService", "service_session added for svc."},
          {"CClient", "_Discovered", "a device discovered for svc"},
          {"CClient", "_SendRequestResult", "error(0), result("},
          {"CClient", "Termi", "client_name: ui, service_session_map size(): 1"},
          {"CService", "_InsertClientIfNotExist", "this client is already exist."},
          {"CService", "_ForEachClient", "service name:[svc], map size:[1]"},
          {"CService", "_RemoveClient", "client["},
          {"CServiceSession", "_RequestService", "service property name : get"},
          {"CServiceSession", "_ReleaseTransaction", "transaction["},
          {"CServiceSession", "_SendRequestResult", "[RequestResult] transaction NOT Found."},
          {"hxf_core_export", "hxf_core_client_request_service", "pelnor result_cb is"},
          {"CCallbackCallerLocal", "CallSearchHandler", "search callback is NULL, call skipped"},
          {"CClientMgr", "SubscribeService", "SubscribeService service name: svc"},
          {"CClientMgr", "RequestService", "service_session: "},
          {"CClientMgr", "Finalize", "client map size: "},
          {"CPropertyListHelper", "CPropertyListHelper",
           "pelnor (core)property list created for get"},
          {"CPluginMgr", "_CreatePlugin", " [not-there] Plugin has been created"},
          {"CPluginMgr", "UnloadAllPlugin", "try to unload [not-there] plugin"},
      });
}
