#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "CNoncopyable.h"
#include "CallbackHandlerTypes.h"

namespace HXFramework::Core {

class IClient;
class IEndpointHelper;
class IPropertyListHelper;
class IServiceHandler;
class ITransaction;
class ITransactionResult;

// Links one client to one service handler; carries requests, results and notifications.
class IServiceSession : private CNoncopyable {
 public:
  static std::shared_ptr<IServiceSession> Create();

  virtual ~IServiceSession() = default;
  virtual void Initiate(const std::shared_ptr<IClient>& client, const std::string& service_name,
                        const std::shared_ptr<IServiceHandler>& handler,
                        const ServiceNotificationHandler_t& notification) = 0;
  virtual void Terminate() = 0;
  virtual hxf_service_session_h GetHandle() const = 0;
  virtual void AddDevice(const std::shared_ptr<IEndpointHelper>& endpoint) = 0;
  virtual void RequestService(const std::shared_ptr<IPropertyListHelper>& list,
                              const SetServicePropertyResultHandler_t& handler, uint32_t timeout,
                              const std::shared_ptr<ITransaction>& transaction) = 0;
  virtual void ServiceSessionCreated() = 0;
  virtual void Notify(const std::string& service_name, hxf_transaction_h transaction,
                      const std::shared_ptr<ITransactionResult>& result) = 0;
  virtual void SendRequestResult(const std::string& service_name, hxf_transaction_h transaction,
                                 const std::shared_ptr<ITransactionResult>& result) = 0;
  virtual std::string GetServiceName() = 0;
};

}  // namespace HXFramework::Core
