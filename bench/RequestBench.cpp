// Round trip of one request through the public API: consumer -> client context -> session ->
// handler -> provider callback, which answers at once -> session -> client -> result callback.
#include <benchmark/benchmark.h>

#include <condition_variable>
#include <mutex>

#include "hxf_core.h"

namespace {

struct Waiter {
  std::mutex mutex;
  std::condition_variable cv;
  long results = 0;
};

void Answer(hxf_service_handler_h handler, hxf_transaction_h transaction, hxf_property_list_h list,
            void*) {
  hxf_core_service_handler_send_request_result(handler, hxf_string_from_cstr("bench"), list,
                                               transaction, HXF_ERROR_NONE);
}

void OnResult(hxf_client_h, hxf_service_session_h, hxf_property_list_h, hxf_transaction_h,
              hxf_error_e, void* ud) {
  auto* waiter = static_cast<Waiter*>(ud);
  std::lock_guard<std::mutex> lock(waiter->mutex);
  ++waiter->results;
  waiter->cv.notify_all();
}

void OnNotify(hxf_string, hxf_service_session_h, hxf_property_list_h, hxf_transaction_h,
              hxf_error_e, void*) {}

}  // namespace

static void BM_RequestRoundTrip(benchmark::State& state) {
  hxf_core_initialize();
  hxf_service_handler_h handler =
      hxf_core_service_handler_create(hxf_string_from_cstr("bench-provider"), nullptr);
  hxf_core_service_handler_set_request_service_callback(handler, Answer, nullptr);
  hxf_core_service_handler_subscribe_service(handler, hxf_string_from_cstr("bench"));
  hxf_client_h client = hxf_core_client_create(hxf_string_from_cstr("bench-client"));
  hxf_service_session_h session =
      hxf_core_client_subscribe_service(client, hxf_string_from_cstr("bench"), OnNotify, nullptr);
  hxf_property_list_h list = hxf_property_list_create(hxf_string_from_cstr("get"));
  Waiter waiter;
  long sent = 0;
  for (auto _ : state) {
    hxf_transaction_h transaction = nullptr;
    hxf_core_client_request_service(client, session, list, OnResult, 10000, &transaction, &waiter);
    ++sent;
    std::unique_lock<std::mutex> lock(waiter.mutex);
    waiter.cv.wait(lock, [&] { return waiter.results >= sent; });
  }
  hxf_property_list_destroy(list);
  hxf_core_client_destroy(client);
  hxf_core_service_handler_destroy(handler);
  hxf_core_finalize();
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_RequestRoundTrip)->UseRealTime();
