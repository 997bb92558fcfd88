// CClient and CServiceSession on their own, with a real handler and test doubles.
#include <gtest/gtest.h>

#include <memory>
#include <string>

#include "CException.h"
#include "FakeClient.h"
#include "IClient.h"
#include "IPropertyListHelper.h"
#include "IServiceHandler.h"
#include "IServiceSession.h"
#include "ITransaction.h"
#include "ITransactionResult.h"
#include "LogCapture.h"
#include "TestProvider.h"

using namespace HXFramework::Core;  // NOLINT
using namespace HXFramework::Test;  // NOLINT

TEST(Client, TermiAsyncWithAnEmptyHandlerInstallsNothingAndStillTerminates) {
  auto client = IClient::Create("ui");
  client->Init();
  LogCapture capture;
  client->TermiAsync(nullptr);
  EXPECT_TRUE(capture.WaitFor(")  callback is nullptr!\n"));
  EXPECT_TRUE(capture.WaitFor("TerminateJob destroyed"));
  EXPECT_THROW(client->StopActiveSearch("lights"), HXFramework::CException);
}

TEST(Client, AResultWithoutResultObjectReachesTheHandlerWithError2) {
  auto client = IClient::Create("ui");
  client->Init();
  EventLog seen;
  auto transaction = ITransaction::Create();
  transaction->SetHandler(
      [&](hxf_client_h c, hxf_service_session_h s, hxf_property_list_h l, hxf_transaction_h t,
          hxf_error_e e) {
        seen.Add(FakeSession::Pointer(c) + " " + FakeSession::Pointer(s) + " " +
                 FakeSession::Pointer(l) + " " + FakeSession::Pointer(t) + " " + std::to_string(e));
      },
      nullptr);
  auto session = std::make_shared<FakeSession>();
  client->SendRequestResult(session, "lights", transaction, nullptr);  // direct: done on return
  EXPECT_EQ(seen.Get(),
            std::vector<std::string>{FakeSession::Pointer(client->GetHandle()) + " " +
                                     FakeSession::Pointer(session.get()) + " " +
                                     FakeSession::Pointer(nullptr) + " " +
                                     FakeSession::Pointer(transaction->GetHandle()) + " 2"});
  client->Termi();
}

TEST(Client, DestructionLogsNameAndAddress) {
  LogCapture capture;
  void* address = nullptr;
  {
    auto client = IClient::Create("short-lived");
    address = client->GetHandle();
    client->Init();
    client->Termi();
  }
  EXPECT_TRUE(capture.Contains(")  client destroyed: short-lived[" + FakeSession::Pointer(address) +
                               "]\n"));
}

namespace {

// A session wired to a fake client and a real handler whose plugin callback records.
struct Wired {
  std::shared_ptr<FakeClient> client = std::make_shared<FakeClient>("ui");
  std::shared_ptr<IServiceHandler> handler = IServiceHandler::Create("h", nullptr);
  std::shared_ptr<IServiceSession> session = IServiceSession::Create();
  EventLog requests;
  EventLog notifications;
  Wired() {
    handler->Init();
    handler->SetRequestServiceCallback(
        [this](void*, void* t, void*) { requests.Add(FakeSession::Pointer(t)); });
    session->Initiate(client, "lights", handler,
                      [this](hxf_string name, void*, void*, void* t, hxf_error_e e) {
                        notifications.Add(std::string(name.str, name.len) + " " +
                                          FakeSession::Pointer(t) + " " + std::to_string(e));
                      });
  }
  ~Wired() {
    session->Terminate();
    handler->Termi();
  }
};

std::shared_ptr<IPropertyListHelper> List(const char* name) {
  hxf_property_list_h list = hxf_property_list_create(hxf_string_from_cstr(name));
  auto wrapper = IPropertyListHelper::Create(list);
  hxf_property_list_destroy(list);
  return wrapper;
}

}  // namespace

TEST(ServiceSession, ReusingAnOutstandingTransactionFailsAndIsLogged) {
  Wired wired;
  auto transaction = ITransaction::Create();
  wired.session->RequestService(List("get"), nullptr, 10000, transaction);
  LogCapture capture;
  wired.session->RequestService(List("get"), nullptr, 10000, transaction);
  EXPECT_TRUE(capture.Contains(
      "Exception !! - unable to insert transacio to map!(error:2)(error_code:2)\n"));
  EXPECT_TRUE(wired.requests.WaitCount(FakeSession::Pointer(transaction->GetHandle()), 1));
}

TEST(ServiceSession, AResultForAnUnknownTransactionIsDroppedAsNotAnError) {
  Wired wired;
  LogCapture capture;
  int unknown = 0;
  wired.session->SendRequestResult("lights", &unknown,
                                   ITransactionResult::Create(nullptr, HXF_ERROR_NONE));
  auto line = capture.Find("[RequestResult] transaction NOT Found. But Not Error case.");
  EXPECT_EQ(line.priority, DLOG_INFO);
  EXPECT_FALSE(capture.Contains("Exception !!"));
}

TEST(ServiceSession, ANotificationUsesTheSessionsOwnServiceNameAndTheGivenTransaction) {
  Wired wired;
  LogCapture capture;
  int unknown = 0;
  wired.session->Notify("another-name", &unknown,
                        ITransactionResult::Create(nullptr, HXF_ERROR_INVALID_PARAMETER));
  EXPECT_EQ(wired.notifications.Get(),
            std::vector<std::string>{"lights " + FakeSession::Pointer(&unknown) + " 4"});
  EXPECT_TRUE(capture.Contains(
      ")  [Notify] transaction NOT Found. But Not Error case. keep going with null transaction\n"));
}

TEST(ServiceSession, ANotificationNamingAnOutstandingRequestStopsItsTimer) {
  Wired wired;
  auto transaction = ITransaction::Create();
  EventLog results;
  wired.session->RequestService(
      List("get"),
      [&](void*, void*, void*, void*, hxf_error_e e) { results.Add(std::to_string(e)); }, 30,
      transaction);
  wired.session->Notify("lights", transaction->GetHandle(),
                        ITransactionResult::Create(nullptr, HXF_ERROR_NONE));
  EXPECT_EQ(
      wired.notifications.Count("lights " + FakeSession::Pointer(transaction->GetHandle()) + " 0"),
      1);
  // The client double records nothing either way: the time-out would go through it.
  std::weak_ptr<ITransaction> watch = transaction;
  transaction.reset();
  EXPECT_TRUE(watch.expired());  // released at once: its timer no longer holds it
}

TEST(ServiceSession, ATimeOutAfterTheSessionIsGoneDoesNothing) {
  auto transaction = ITransaction::Create();
  {
    Wired wired;
    wired.session->RequestService(List("get"), nullptr, 10, transaction);
  }  // the session terminates and forgets the transaction; its timer was stopped
  std::weak_ptr<ITransaction> watch = transaction;
  transaction.reset();
  EXPECT_TRUE(watch.expired());
}
