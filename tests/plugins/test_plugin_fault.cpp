// Misbehaving providers for fault-injection tests, one library per behaviour
// (HXF_FAULT_MODE selects it):
//   throw_std    "CreatePlugin" throws a standard exception;
//   throw_int    "CreatePlugin" throws an int;
//   reentrant    every callback calls the API again (service "echo");
//   blocking     the search callback of service "stuck" blocks until released, while
//                service "free" keeps answering requests;
//   self_unload  a thread of the plugin unloads the plugin.
#include <atomic>
#include <condition_variable>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include "hxf_core.h"

#define EXPORT extern "C" __attribute__((visibility("default")))
#define MODE_IS(name) (std::string(HXF_FAULT_MODE) == name)

namespace {

hxf_string S(const char* text) {
  return hxf_string_from_cstr(text);
}
const char* PluginName() {
  return "fault_" HXF_FAULT_MODE;
}

hxf_service_handler_h g_handler = nullptr;
hxf_service_handler_h g_free_handler = nullptr;
std::mutex g_mutex;
std::condition_variable g_cv;
bool g_released = false;
std::atomic<int> g_blocked{0};
std::atomic<bool> g_self_unload_returned{false};

void Answer(hxf_service_handler_h handler, const char* service, hxf_transaction_h transaction) {
  hxf_property_list_h result = hxf_property_list_create(S("answer"));
  hxf_core_service_handler_send_request_result(handler, S(service), result, transaction,
                                               HXF_ERROR_NONE);
  hxf_property_list_destroy(result);
}

// ---- reentrant ----

void EchoSearch(hxf_service_handler_h handler, hxf_string name, void*);

void EchoRequest(hxf_service_handler_h handler, hxf_transaction_h transaction, hxf_property_list_h,
                 void*) {
  // Answers twice and notifies, all from inside the callback.
  Answer(handler, "echo", transaction);
  Answer(handler, "echo", transaction);
  hxf_property_list_h news = hxf_property_list_create(S("news"));
  hxf_core_service_handler_notify(handler, S("echo"), news, transaction, HXF_ERROR_NONE);
  hxf_property_list_destroy(news);
  hxf_core_service_handler_set_request_service_callback(handler, EchoRequest, nullptr);
}

void EchoSearch(hxf_service_handler_h handler, hxf_string name, void*) {
  hxf_endpoint_h endpoint = hxf_endpoint_create(name);
  hxf_endpoint_set_device_id(endpoint, S("echo-1"));
  hxf_core_service_handler_report_device_found(handler, endpoint);
  hxf_endpoint_destroy(endpoint);
  hxf_core_service_handler_set_search_callback(handler, EchoSearch, nullptr);  // again
  hxf_core_service_handler_subscribe_service(handler, S("echo"));              // already: error
  hxf_core_service_handler_subscribe_service(handler, S("echo-extra"));        // a new one
  hxf_core_plugin_send_load_result(S(PluginName()),
                                   HXF_PLUGIN_LOAD_RESULT_SUCCESS);  // no handler left
}

// ---- blocking ----

void StuckSearch(hxf_service_handler_h, hxf_string, void*) {
  ++g_blocked;
  std::unique_lock<std::mutex> lock(g_mutex);
  g_cv.wait(lock, [] { return g_released; });
}

void FreeRequest(hxf_service_handler_h handler, hxf_transaction_h transaction, hxf_property_list_h,
                 void*) {
  Answer(handler, "free", transaction);
}

}  // namespace

EXPORT bool CreatePlugin(void) {
  if (MODE_IS("throw_std")) throw std::runtime_error("plugin start-up exploded");
  if (MODE_IS("throw_int")) throw 42;
  if (MODE_IS("reentrant")) {
    g_handler = hxf_core_service_handler_create(S("echo-provider"), nullptr);
    hxf_core_service_handler_set_search_callback(g_handler, EchoSearch, nullptr);
    hxf_core_service_handler_set_request_service_callback(g_handler, EchoRequest, nullptr);
    hxf_core_service_handler_subscribe_service(g_handler, S("echo"));
  }
  if (MODE_IS("blocking")) {
    g_released = false;
    g_handler = hxf_core_service_handler_create(S("stuck-provider"), nullptr);
    hxf_core_service_handler_set_search_callback(g_handler, StuckSearch, nullptr);
    hxf_core_service_handler_subscribe_service(g_handler, S("stuck"));
    g_free_handler = hxf_core_service_handler_create(S("free-provider"), nullptr);
    hxf_core_service_handler_set_request_service_callback(g_free_handler, FreeRequest, nullptr);
    hxf_core_service_handler_subscribe_service(g_free_handler, S("free"));
  }
  hxf_core_plugin_send_load_result(S(PluginName()), HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  return true;
}

EXPORT bool DestroyPlugin(void) {
  if (MODE_IS("reentrant")) {
    // Using the plugin API from "DestroyPlugin" must work, not deadlock: this one fails
    // (no such library), which the test sees in the log.
    hxf_core_plugin_load(S("reentrant-from-destroy"), nullptr, nullptr);
    // And reports a load result while being unloaded.
    hxf_core_plugin_send_load_result(S(PluginName()), HXF_PLUGIN_LOAD_RESULT_SUCCESS);
  }
  {
    std::lock_guard<std::mutex> lock(g_mutex);
    g_released = true;  // never leave a core thread stuck in here
    g_cv.notify_all();
  }
  if (g_handler != nullptr) hxf_core_service_handler_destroy(g_handler);
  if (g_free_handler != nullptr) hxf_core_service_handler_destroy(g_free_handler);
  g_handler = g_free_handler = nullptr;
  return true;
}

// ---- test hooks ----

EXPORT int hxf_fault_blocked(void) {
  return g_blocked.load();
}

EXPORT void hxf_fault_release(void) {
  std::lock_guard<std::mutex> lock(g_mutex);
  g_released = true;
  g_cv.notify_all();
}

// Starts a thread of the plugin that unloads the plugin and then goes on running here.
EXPORT void hxf_fault_unload_myself(void) {
  std::thread([] {
    hxf_core_plugin_unload(S(PluginName()));
    g_self_unload_returned = true;  // still our code: the library must still be there
  }).detach();
}

EXPORT bool hxf_fault_self_unload_returned(void) {
  return g_self_unload_returned.load();
}
