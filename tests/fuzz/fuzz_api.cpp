// Fuzzes the public API with programs of calls whose handles are live, destroyed, NULL or
// garbage, whose names hold NULs and odd lengths, and whose lists and endpoints are built
// from the input. The program plays both sides: provider (service handlers) and consumer.
// Every input ends with everything destroyed, so nothing leaks from one input to the next.
#include <atomic>
#include <vector>

#include "FuzzInput.h"
#include "hxf_core.h"
#include "Str.h"

using hxf_fuzz::FuzzInput;

using HXFramework::Test::Str;

namespace {

std::atomic<long> g_callbacks{0};

void OnFound(hxf_client_h, hxf_string, hxf_endpoint_discovery_result_e, hxf_endpoint_h, void*) { ++g_callbacks; }
void OnList(hxf_client_h, hxf_string, hxf_endpoint_discovery_result_e, hxf_endpoint_list_h, void*) { ++g_callbacks; }
void OnNotify(hxf_string, hxf_service_session_h, hxf_property_list_h, hxf_transaction_h, hxf_error_e, void*) { ++g_callbacks; }
void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h, hxf_transaction_h, hxf_error_e, void*) { ++g_callbacks; }
void OnClientDestroyed(hxf_client_h, void*) { ++g_callbacks; }
void OnHandlerDestroyed(hxf_service_handler_h, void*) { ++g_callbacks; }
void OnSearch(hxf_service_handler_h, hxf_string, void*) { ++g_callbacks; }
void OnAddDevice(hxf_service_handler_h, hxf_endpoint_h, void*) { ++g_callbacks; }
void OnSessionCreated(hxf_service_handler_h, hxf_service_session_h, void*) { ++g_callbacks; }
void OnRequest(hxf_service_handler_h h, hxf_transaction_h t, hxf_property_list_h l, void*) {
  // Answers from inside the callback, re-entering the API.
  hxf_core_service_handler_send_request_result(h, hxf_string_from_cstr("svc"), l, t, HXF_ERROR_NONE);
}

// Handles of one kind: live ones, destroyed ones, and garbage.
struct Pool {
  std::vector<void*> live;
  std::vector<void*> dead;
  void* Pick(FuzzInput& in) {
    switch (in.Byte() % 6) {
      case 0: return nullptr;
      case 1: return dead.empty() ? nullptr : dead[in.Number(static_cast<uint32_t>(dead.size()))];
      case 2: return reinterpret_cast<void*>(static_cast<uintptr_t>(in.Number(65536)) << 4 | 1);  // garbage
      default: return live.empty() ? nullptr : live[in.Number(static_cast<uint32_t>(live.size()))];
    }
  }
  void Kill(void* handle) {
    for (size_t i = 0; i < live.size(); ++i) {
      if (live[i] == handle) {
        live.erase(live.begin() + static_cast<long>(i));
        dead.push_back(handle);
        return;
      }
    }
  }
};

std::string Name(FuzzInput& in) {
  switch (in.Byte() % 5) {
    case 0: return "svc";
    case 1: return "*";
    case 2: return "";
    default: return in.Text();
  }
}

hxf_property_list_h MakeList(FuzzInput& in) {
  if (in.Byte() % 10 == 0) return nullptr;
  hxf_property_list_h list = hxf_property_list_create(Str(in.Text()));
  for (int i = in.Byte() % 4; i > 0; --i) {
    hxf_property_h p = hxf_property_create_int(Str(in.Text()), in.Number(1000));
    hxf_property_list_push_property(list, p, HXF_ERROR_NONE);
    hxf_property_destroy(p);
  }
  return list;
}

hxf_endpoint_h MakeEndpoint(FuzzInput& in) {
  if (in.Byte() % 10 == 0) return nullptr;
  hxf_endpoint_h endpoint = hxf_endpoint_create(Str(Name(in)));
  hxf_endpoint_set_device_id(endpoint, Str(in.Text()));
  return endpoint;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  Pool clients, handlers, sessions, transactions;
  for (int step = 0; step < 128 && !in.Done(); ++step) {
    const uint32_t timeout = in.Byte() % 30;
    switch (in.Byte() % 24) {
      case 0: if (void* c = hxf_core_client_create(Str(in.Text()))) clients.live.push_back(c); break;
      case 1: { void* c = clients.Pick(in); if (hxf_core_client_destroy(c) == HXF_ERROR_NONE) clients.Kill(c); break; }
      case 2: {
        void* c = clients.Pick(in);
        if (hxf_core_client_destroy_async(c, in.Byte() % 4 ? OnClientDestroyed : nullptr, nullptr) == HXF_ERROR_NONE) clients.Kill(c);
        break;
      }
      case 3: hxf_core_client_start_active_search(clients.Pick(in), Str(Name(in)), OnFound, timeout, nullptr); break;
      case 4: hxf_core_client_stop_active_search(clients.Pick(in), Str(Name(in))); break;
      case 5: hxf_core_client_start_passive_search(clients.Pick(in), Str(Name(in)), in.Byte() % 4 ? OnFound : nullptr, nullptr); break;
      case 6: hxf_core_client_stop_passive_search(clients.Pick(in), Str(Name(in))); break;
      case 7: hxf_core_client_get_device_list(clients.Pick(in), Str(Name(in)), OnList, timeout, nullptr); break;
      case 8: hxf_core_set_device_list_discovered_callback(clients.Pick(in), Str(Name(in)), OnList, nullptr); break;
      case 9: if (void* s = hxf_core_client_subscribe_service(clients.Pick(in), Str(Name(in)), OnNotify, nullptr)) sessions.live.push_back(s); break;
      case 10: {
        hxf_property_list_h list = MakeList(in);
        hxf_transaction_h transaction = nullptr;
        hxf_core_client_request_service(clients.Pick(in), sessions.Pick(in), list, in.Byte() % 4 ? OnResult : nullptr,
                                        timeout, in.Byte() % 8 ? &transaction : nullptr, nullptr);
        if (transaction != nullptr) transactions.live.push_back(transaction);
        if (list != nullptr) hxf_property_list_destroy(list);
        break;
      }
      case 11: {
        hxf_endpoint_h endpoint = MakeEndpoint(in);
        hxf_core_client_add_device(clients.Pick(in), sessions.Pick(in), endpoint);
        if (endpoint != nullptr) hxf_endpoint_destroy(endpoint);
        break;
      }
      case 12: if (void* h = hxf_core_service_handler_create(Str(in.Text()), nullptr)) handlers.live.push_back(h); break;
      case 13: { void* h = handlers.Pick(in); if (hxf_core_service_handler_destroy(h) == HXF_ERROR_NONE) handlers.Kill(h); break; }
      case 14: {
        void* h = handlers.Pick(in);
        if (hxf_core_service_handler_destroy_async(h, OnHandlerDestroyed, nullptr) == HXF_ERROR_NONE) handlers.Kill(h);
        break;
      }
      case 15: {
        void* h = handlers.Pick(in);
        hxf_core_service_handler_set_search_callback(h, in.Byte() % 4 ? OnSearch : nullptr, nullptr);
        hxf_core_service_handler_set_listen_callback(h, OnSearch, nullptr);
        hxf_core_service_handler_set_get_device_list_callback(h, OnSearch, nullptr);
        hxf_core_service_handler_set_request_service_callback(h, in.Byte() % 4 ? OnRequest : nullptr, nullptr);
        break;
      }
      case 16: hxf_core_service_handler_subscribe_service(handlers.Pick(in), Str(Name(in))); break;
      case 17: hxf_core_service_handler_unsubscribe_service(handlers.Pick(in), Str(Name(in))); break;
      case 18: {
        hxf_endpoint_h endpoint = MakeEndpoint(in);
        hxf_core_service_handler_report_device_found(handlers.Pick(in), endpoint);
        if (endpoint != nullptr) hxf_endpoint_destroy(endpoint);
        break;
      }
      case 19: {
        hxf_endpoint_list_h list = in.Byte() % 8 ? hxf_endpoint_list_create() : nullptr;
        hxf_endpoint_h endpoint = MakeEndpoint(in);
        if (list != nullptr && endpoint != nullptr) hxf_endpoint_list_push_endpoint(list, endpoint, HXF_ERROR_NONE);
        hxf_core_service_handler_report_device_list(handlers.Pick(in), list);
        if (endpoint != nullptr) hxf_endpoint_destroy(endpoint);
        if (list != nullptr) hxf_endpoint_list_destroy(list);
        break;
      }
      case 20: {
        hxf_property_list_h list = MakeList(in);
        if (in.Byte() % 2) {
          hxf_core_service_handler_send_request_result(handlers.Pick(in), Str(Name(in)), list, transactions.Pick(in),
                                                       static_cast<hxf_error_e>(in.Byte() % 16));
        } else {
          hxf_core_service_handler_notify(handlers.Pick(in), Str(Name(in)), list, transactions.Pick(in),
                                          static_cast<hxf_error_e>(in.Byte() % 16));
        }
        if (list != nullptr) hxf_property_list_destroy(list);
        break;
      }
      case 21: {
        // The setters the calls above leave alone, each with and without a callback.
        void* h = handlers.Pick(in);
        hxf_core_service_handler_set_search_stop_callback(h, in.Byte() % 4 ? OnSearch : nullptr, nullptr);
        hxf_core_service_handler_set_listen_stop_callback(h, in.Byte() % 4 ? OnSearch : nullptr, nullptr);
        hxf_core_service_handler_set_add_device_callback(h, in.Byte() % 4 ? OnAddDevice : nullptr, nullptr);
        hxf_core_service_handler_set_service_session_created_callback(
            h, in.Byte() % 4 ? OnSessionCreated : nullptr, nullptr);
        break;
      }
      case 22:
        hxf_core_client_set_service_notification_callback(clients.Pick(in), in.Byte() % 4 ? OnNotify : nullptr,
                                                          nullptr);
        break;
      case 23: hxf_core_initialize(); break;  // again, while everything lives
      default: {
        // Plugin calls with names no library has (real plugins would run their own code).
        const std::string name = "fuzz-" + in.Text();
        switch (in.Byte() % 3) {
          case 0: hxf_core_plugin_send_load_result(Str(name), HXF_PLUGIN_LOAD_RESULT_SUCCESS); break;
          case 1: hxf_core_plugin_unload(Str(name)); break;
          default: hxf_core_plugin_load(Str(name), nullptr, nullptr); break;
        }
        break;
      }
    }
  }
  for (void* c : clients.live) hxf_core_client_destroy(c);
  for (void* h : handlers.live) hxf_core_service_handler_destroy(h);
  hxf_core_plugin_unload_all();
  hxf_core_finalize();
  return 0;
}
