#pragma once

#include <memory>
#include <string>
#include <unordered_map>

#include "CLocks.h"
#include "IServiceSession.h"
#include "TPLContext"

namespace HXFramework::Core {

// Links one client to the handler of one service: tracks the client's outstanding
// transactions and delivers results, time-outs and notifications, whichever comes first
// winning. Every task runs through the direct invoker, serialised by the context.
class CServiceSession : public IServiceSession, TPL::CContext<CServiceSession> {
 public:
  CServiceSession() { transaction_map_.max_load_factor(1.0f); }
  ~CServiceSession() override;

  void Initiate(const std::shared_ptr<IClient>& client, const std::string& service_name,
                const std::shared_ptr<IServiceHandler>& handler,
                const ServiceNotificationHandler_t& notification) override;
  void Terminate() override;
  hxf_service_session_h GetHandle() const override { return const_cast<CServiceSession*>(this); }
  void AddDevice(const std::shared_ptr<IEndpointHelper>& endpoint) override;
  void RequestService(const std::shared_ptr<IPropertyListHelper>& list,
                      const SetServicePropertyResultHandler_t& handler, uint32_t timeout,
                      const std::shared_ptr<ITransaction>& transaction) override;
  void ServiceSessionCreated() override;
  void Notify(const std::string& service_name, hxf_transaction_h transaction,
              const std::shared_ptr<ITransactionResult>& result) override;
  void SendRequestResult(const std::string& service_name, hxf_transaction_h transaction,
                         const std::shared_ptr<ITransactionResult>& result) override;
  std::string GetServiceName() override { return service_name_; }

 private:
  friend class IServiceSession;  // the factory hands the context its owner

  std::shared_ptr<IClient> _GetClient();
  std::shared_ptr<IServiceHandler> _GetServiceHandler() const;
  // The outstanding transaction, out of the map; null when it is not outstanding here.
  std::shared_ptr<ITransaction> _ReleaseTransaction(hxf_transaction_h transaction);
  std::function<void(hxf_transaction_h)> _GetTransactionTimeoutHandler();
  void _ForgetEverything();
  void _SetNotificationHandler(const ServiceNotificationHandler_t& handler)
      HXF_EXCLUDES(notification_mutex_);

  void _RequestService(const std::shared_ptr<IPropertyListHelper>& list,
                       const SetServicePropertyResultHandler_t& handler, uint32_t timeout,
                       const std::shared_ptr<ITransaction>& transaction);
  void _SendRequestResult(const std::string& service_name, hxf_transaction_h transaction,
                          const std::shared_ptr<ITransactionResult>& result);
  void _Notify(const std::string& service_name, hxf_transaction_h transaction,
               const std::shared_ptr<ITransactionResult>& result);
  void _ServiceSessionCreated();
  void _AddDevice(const std::shared_ptr<IEndpointHelper>& endpoint);

  // Written by Initiate before the context starts; afterwards touched only by its tasks.
  std::weak_ptr<IClient> client_;
  std::weak_ptr<IServiceHandler> service_handler_;
  std::unordered_map<hxf_transaction_h, std::shared_ptr<ITransaction>> transaction_map_;
  std::string service_name_;
  // Terminate drops the handler at once, from the thread destroying the client, while a
  // notification job may be reading it on another: the one field shared across threads.
  // The lock is held only to copy or reset the handler, never while it is called.
  CMutex notification_mutex_;
  ServiceNotificationHandler_t notification_handler_ HXF_GUARDED_BY(notification_mutex_);
};

}  // namespace HXFramework::Core
