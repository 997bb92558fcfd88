#pragma once

#include <memory>
#include <string>

#include "CNoncopyable.h"
#include "CallbackHandlerTypes.h"

namespace HXFramework::Core {

class IEndpointHelper;
class IPropertyListHelper;
class IServiceSession;
class ITransaction;

// The core's record of one provider object of a plugin: its callbacks and its sessions.
class IServiceHandler : private CNoncopyable {
 public:
  static std::shared_ptr<IServiceHandler> Create(const std::string& name, void* user_data);

  virtual ~IServiceHandler() = default;
  virtual hxf_service_handler_h GetHandle() const = 0;
  virtual std::string GetName() const = 0;
  virtual void Init() = 0;
  virtual void Termi() = 0;
  virtual void TermiAsync(const ServiceHandlerDestroyedHandler_t& destroyed) = 0;
  virtual void SetSearchCallback(const SearchHandler_t& handler) = 0;
  virtual void SetSearchStopCallback(const SearchStopHandler_t& handler) = 0;
  virtual void SetGetDeviceListCallback(const GetDeviceListHandler_t& handler) = 0;
  virtual void SetListenCallback(const ListenHandler_t& handler) = 0;
  virtual void SetListenStopCallback(const ListenStopHandler_t& handler) = 0;
  virtual void StartActiveSearch(const std::string& service_name) = 0;
  virtual void StopActiveSearch(const std::string& service_name) = 0;
  virtual void GetDeviceList(const std::string& service_name) = 0;
  virtual void StartPassiveSearch(const std::string& service_name) = 0;
  virtual void StopPassiveSearch(const std::string& service_name) = 0;
  virtual void AddDevice(hxf_service_session_h session,
                         const std::shared_ptr<IEndpointHelper>& endpoint) = 0;
  virtual void RequestService(const std::shared_ptr<ITransaction>& transaction,
                              const std::shared_ptr<IPropertyListHelper>& list) = 0;
  virtual void Notify(const std::string& service_name,
                      const std::shared_ptr<IPropertyListHelper>& list,
                      hxf_transaction_h transaction, hxf_error_e error) = 0;
  virtual void SetAddDeviceCallback(const AddDeviceHandler_t& handler) = 0;
  virtual void SetRequestServiceCallback(const SetServicePropertyHandler_t& handler) = 0;
  virtual void SetServiceSessionCreatedCallback(const ServiceSessionCreatedHandler_t& handler) = 0;
  virtual void ServiceSessionCreated(const std::shared_ptr<IServiceSession>& session) = 0;
  virtual void SendRequestResult(const std::string& service_name,
                                 const std::shared_ptr<IPropertyListHelper>& list,
                                 hxf_transaction_h transaction, hxf_error_e error) = 0;
};

}  // namespace HXFramework::Core
