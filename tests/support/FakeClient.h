// Test doubles of the consumer side: a client and a session that record what reaches them.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "CException.h"
#include "EventLog.h"
#include "IClient.h"
#include "IEndpointHelper.h"
#include "IEndpointListHelper.h"
#include "IServiceSession.h"
#include "LogCapture.h"

namespace HXFramework::Test {

using HXFramework::CException;

class FakeClient : public Core::IClient {
 public:
  explicit FakeClient(std::string name) : name_(std::move(name)) {}

  hxf_client_h GetHandle() const override { return const_cast<FakeClient*>(this); }
  std::string GetName() const override { return name_; }
  void Init() override {}
  void Termi() override {}
  void TermiAsync(const Core::ClientDestroyedHandler_t&) override {}
  void AddDevice(hxf_service_session_h, const std::shared_ptr<Core::IEndpointHelper>&) override {}
  void SetDiscoveredCallback(const Core::DiscoveredHandler_t&) override {}
  void SetServiceNotificationCallback(const Core::ServiceNotificationHandler_t&) override {}
  void StartPassiveSearch(const std::string&, const Core::DiscoveredHandler_t&) override {}
  void StopPassiveSearch(const std::string&) override {}
  void StartActiveSearch(const std::string&, const Core::DiscoveredHandler_t&, uint32_t) override {}
  void StopActiveSearch(const std::string&) override {}
  void GetDeviceList(const std::string&, const Core::DeviceListDiscoveredHandler_t&,
                     uint32_t) override {}
  void HandleSearchingTimerExpired(const std::string& name) override {
    events.Add("search timeout " + name);
  }
  void HandleListSearchingTimerExpired(const std::string& name) override {
    events.Add("list timeout " + name);
  }
  void Discovered(const std::string& name, hxf_endpoint_discovery_result_e result,
                  const std::shared_ptr<Core::IEndpointHelper>& endpoint) override {
    RefuseIfTerminated();
    events.Add("found " + name + " " + std::to_string(result) + " " + endpoint->GetDeviceId());
  }
  void DeviceListDiscovered(const std::string& name, hxf_endpoint_discovery_result_e result,
                            std::shared_ptr<Core::IEndpointListHelper> list) override {
    events.Add("list " + name + " " + std::to_string(result) + " " +
               std::to_string(hxf_endpoint_list_size(list->GetHandle())));
  }
  void GetServiceProperty(const std::string&, const std::shared_ptr<Core::IPropertyListHelper>&,
                          const Core::GetServicePropertyResultHandler_t&, uint32_t) override {}
  void RequestService(hxf_service_session_h, const std::shared_ptr<Core::IPropertyListHelper>&,
                      const Core::SetServicePropertyResultHandler_t&, uint32_t,
                      const std::shared_ptr<Core::ITransaction>&) override {}
  void SendRequestResult(const std::shared_ptr<Core::IServiceSession>&, const std::string&,
                         const std::shared_ptr<Core::ITransaction>&,
                         const std::shared_ptr<Core::ITransactionResult>&) override {}
  void SubscribeService(const std::shared_ptr<Core::IServiceSession>&) override {}
  void SetDeviceListDiscoveredCallback(const std::string&,
                                       const Core::DeviceListDiscoveredHandler_t&) override {}

  // Behaves like a client whose context has been terminated while it is still held: every
  // posting is refused.
  bool terminated = false;
  EventLog events;

 private:
  void RefuseIfTerminated() const {
    if (terminated) throw CException("InvokeTask Fail!!", HXF_ERROR_OPERATION_FAILED);
  }
  std::string name_;
};

class FakeSession : public Core::IServiceSession {
 public:
  explicit FakeSession(hxf_service_session_h handle = nullptr) : handle_(handle) {}

  void Initiate(const std::shared_ptr<Core::IClient>&, const std::string&,
                const std::shared_ptr<Core::IServiceHandler>&,
                const Core::ServiceNotificationHandler_t&) override {}
  void Terminate() override {}
  hxf_service_session_h GetHandle() const override {
    return handle_ != nullptr ? handle_ : const_cast<FakeSession*>(this);
  }
  void AddDevice(const std::shared_ptr<Core::IEndpointHelper>&) override {}
  void RequestService(const std::shared_ptr<Core::IPropertyListHelper>&,
                      const Core::SetServicePropertyResultHandler_t&, uint32_t,
                      const std::shared_ptr<Core::ITransaction>&) override {}
  void ServiceSessionCreated() override {}
  void Notify(const std::string& name, hxf_transaction_h transaction,
              const std::shared_ptr<Core::ITransactionResult>&) override {
    events.Add("notify " + name + " " + Pointer(transaction));
  }
  void SendRequestResult(const std::string& name, hxf_transaction_h transaction,
                         const std::shared_ptr<Core::ITransactionResult>&) override {
    if (terminated) throw CException("InvokeTask Fail!!", HXF_ERROR_OPERATION_FAILED);
    events.Add("result " + name + " " + Pointer(transaction));
  }
  std::string GetServiceName() override { return ""; }

  static std::string Pointer(const void* p) {
    char text[32];
    std::snprintf(text, sizeof text, "%p", p);
    return text;
  }

  bool terminated = false;  // as FakeClient::terminated
  EventLog events;

 private:
  hxf_service_session_h handle_;
};

}  // namespace HXFramework::Test
