#include <gtest/gtest.h>

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "Eventually.h"
#include "IPropertyListHelper.h"
#include "ITransaction.h"
#include "ITransactionResult.h"
#include "LogCapture.h"

using namespace HXFramework::Core;  // NOLINT
using HXFramework::Test::Eventually;
using HXFramework::Test::LogCapture;
using HXFramework::Test::WaitUntil;

namespace {
struct TimedOut {
  std::mutex mutex;
  std::condition_variable cv;
  hxf_transaction_h handle = nullptr;
  std::thread::id thread;
};
}  // namespace

TEST(Transaction, HandleIsTheObjectsAddressAndCreateIsTraced) {
  LogCapture capture;
  auto transaction = ITransaction::Create();
  EXPECT_EQ(transaction->GetHandle(), static_cast<void*>(transaction.get()));
  EXPECT_TRUE(capture.Contains("ITransaction : Create("));
}

TEST(Transaction, StopTimerWithoutStartDoesNothing) {
  auto transaction = ITransaction::Create();
  TimedOut seen;
  transaction->SetHandler(nullptr, [&](hxf_transaction_h handle) {
    std::lock_guard<std::mutex> lock(seen.mutex);
    seen.handle = handle;
    seen.cv.notify_all();
  });
  LogCapture capture;
  transaction->StopTimer();  // nothing armed: nothing stopped, nothing broken
  transaction->StopTimer();
  EXPECT_FALSE(capture.Contains("Exception !!"));
  transaction->StartTimer(1);  // and the timer still works afterwards
  EXPECT_TRUE(WaitUntil(seen.mutex, seen.cv, [&] { return seen.handle != nullptr; }));
}

TEST(Transaction, TimeoutCallsTheTimeoutHandlerWithTheHandleOnTheTimerThread) {
  auto transaction = ITransaction::Create();
  TimedOut seen;
  transaction->SetHandler(nullptr, [&](hxf_transaction_h handle) {
    std::lock_guard<std::mutex> lock(seen.mutex);
    seen.handle = handle;
    seen.thread = std::this_thread::get_id();
    seen.cv.notify_all();
  });
  transaction->StartTimer(5);
  ASSERT_TRUE(WaitUntil(seen.mutex, seen.cv, [&] { return seen.handle != nullptr; }));
  EXPECT_EQ(seen.handle, transaction->GetHandle());
  EXPECT_NE(seen.thread, std::this_thread::get_id());
}

TEST(Transaction, AStoppedTimerNeverCallsTheTimeoutHandler) {
  auto transaction = ITransaction::Create();
  bool called = false;
  transaction->SetHandler(nullptr, [&](hxf_transaction_h) { called = true; });
  transaction->StartTimer(3600 * 1000);
  transaction->StopTimer();
  EXPECT_FALSE(called);
}

TEST(Transaction, ARunningTimerHoldsTheTransactionAliveUntilItFires) {
  auto transaction = ITransaction::Create();
  std::weak_ptr<ITransaction> watch = transaction;
  TimedOut seen;
  transaction->SetHandler(nullptr, [&](hxf_transaction_h handle) {
    std::lock_guard<std::mutex> lock(seen.mutex);
    seen.handle = handle;
    seen.cv.notify_all();
  });
  transaction->StartTimer(20);
  transaction.reset();
  EXPECT_FALSE(watch.expired());  // the armed timer's handler holds it
  ASSERT_TRUE(WaitUntil(seen.mutex, seen.cv, [&] { return seen.handle != nullptr; }));
  EXPECT_TRUE(Eventually([&] { return watch.expired(); }));  // and lets it go once fired
}

TEST(Transaction, DestructionStopsTheTimerFirst) {
  LogCapture capture;
  {
    auto transaction = ITransaction::Create();
    transaction->SetHandler(nullptr, [](hxf_transaction_h) {});
  }
  std::vector<std::string> order;
  for (const auto& line : capture.Lines()) {
    if (line.text.find("~CTransaction(") != std::string::npos &&
        line.text.find("Entered") != std::string::npos)
      order.push_back("destructor");
    if (line.text.find("StopTimer(") != std::string::npos &&
        line.text.find("Entered") != std::string::npos)
      order.push_back("stop");
  }
  EXPECT_EQ(order, (std::vector<std::string>{"destructor", "stop"}));
}

TEST(Transaction, GetResultHandlerReturnsACopyOfTheStoredOne) {
  auto transaction = ITransaction::Create();
  int calls = 0;
  transaction->SetHandler([&](hxf_client_h, hxf_service_session_h, hxf_property_list_h,
                              hxf_transaction_h, hxf_error_e) { ++calls; },
                          nullptr);
  transaction->GetResultHandler()(nullptr, nullptr, nullptr, nullptr, HXF_ERROR_NONE);
  EXPECT_EQ(calls, 1);
}

TEST(TransactionResult, ANullPropertyListIsValid) {
  auto result = ITransactionResult::Create(nullptr, HXF_ERROR_TIMED_OUT);
  EXPECT_EQ(result->GetPropertyList(), nullptr);
  EXPECT_EQ(result->GetErrorCode(), HXF_ERROR_TIMED_OUT);
}

TEST(TransactionResult, CarriesItsListAndError) {
  hxf_property_list_h list = hxf_property_list_create(hxf_string_from_cstr("get"));
  auto wrapper = IPropertyListHelper::Create(list);
  auto result = ITransactionResult::Create(wrapper, HXF_ERROR_NONE);
  EXPECT_EQ(result->GetPropertyList(), wrapper);
  hxf_property_list_destroy(list);
}
