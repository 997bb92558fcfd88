#pragma once

#include <cstddef>
#include <memory>
#include <string>
#include <unordered_map>

#include "IServiceHandler.h"
#include "TPLContext"

namespace HXFramework::Core {

// Holds a plugin's eight callbacks and calls them on its own context; keeps weak references
// to the sessions opened on it so that results and notifications reach their consumers.
class CServiceHandler : public IServiceHandler, TPL::CContext<CServiceHandler> {
 public:
  explicit CServiceHandler(const std::string& name);
  ~CServiceHandler() override;

  hxf_service_handler_h GetHandle() const override;
  std::string GetName() const override { return name; }
  void Init() override;
  void Termi() override;
  void TermiAsync(const ServiceHandlerDestroyedHandler_t& destroyed) override;
  void SetSearchCallback(const SearchHandler_t& handler) override;
  void SetSearchStopCallback(const SearchStopHandler_t& handler) override;
  void SetGetDeviceListCallback(const GetDeviceListHandler_t& handler) override;
  void SetListenCallback(const ListenHandler_t& handler) override;
  void SetListenStopCallback(const ListenStopHandler_t& handler) override;
  void StartActiveSearch(const std::string& service_name) override;
  void StopActiveSearch(const std::string& service_name) override;
  void GetDeviceList(const std::string& service_name) override;
  void StartPassiveSearch(const std::string& service_name) override;
  void StopPassiveSearch(const std::string& service_name) override;
  void AddDevice(hxf_service_session_h session,
                 const std::shared_ptr<IEndpointHelper>& endpoint) override;
  void RequestService(const std::shared_ptr<ITransaction>& transaction,
                      const std::shared_ptr<IPropertyListHelper>& list) override;
  void Notify(const std::string& service_name, const std::shared_ptr<IPropertyListHelper>& list,
              hxf_transaction_h transaction, hxf_error_e error) override;
  void SetAddDeviceCallback(const AddDeviceHandler_t& handler) override;
  void SetRequestServiceCallback(const SetServicePropertyHandler_t& handler) override;
  void SetServiceSessionCreatedCallback(const ServiceSessionCreatedHandler_t& handler) override;
  void ServiceSessionCreated(const std::shared_ptr<IServiceSession>& session) override;
  void SendRequestResult(const std::string& service_name,
                         const std::shared_ptr<IPropertyListHelper>& list,
                         hxf_transaction_h transaction, hxf_error_e error) override;

 private:
  friend class IServiceHandler;  // the factory hands the context its owner

  // Helpers write their lines in the name of the operation that calls them.
  template <typename Slot>
  void _SetSlot(CLogFunction hxf_log_function_, Slot& slot, const Slot& handler, const char* kind);
  void _CallSearchSlot(CLogFunction hxf_log_function_, const SearchHandler_t& slot,
                       const std::string& service_name);
  // Drops the entries of ended sessions once the map has doubled since the last sweep, so
  // that sessions opened and ended without any result in between do not pile up either.
  void _SweepEndedSessions();
  template <typename Body>
  void _ForEachLiveSession(CLogFunction hxf_log_function_, Body&& body);

  void _SetSearchCallback(const SearchHandler_t& handler);
  void _SetSearchStopCallback(const SearchStopHandler_t& handler);
  void _SetGetDeviceListCallback(const GetDeviceListHandler_t& handler);
  void _SetListenCallback(const ListenHandler_t& handler);
  void _SetListenStopCallback(const ListenStopHandler_t& handler);
  void _SetAddDeviceCallback(const AddDeviceHandler_t& handler);
  void _SetServiceSessionCreatedCallback(const ServiceSessionCreatedHandler_t& handler);
  void _SetRequestServiceCallback(const SetServicePropertyHandler_t& handler);
  void _StartActiveSearch(const std::string& service_name);
  void _StopActiveSearch(const std::string& service_name);
  void _GetDeviceList(const std::string& service_name);
  void _StartPassiveSearch(const std::string& service_name);
  void _StopPassiveSearch(const std::string& service_name);
  void _AddDevice(hxf_service_session_h session, const std::shared_ptr<IEndpointHelper>& endpoint);
  void _RequestService(const std::shared_ptr<ITransaction>& transaction,
                       const std::shared_ptr<IPropertyListHelper>& list);
  void _ServiceSessionCreated(const std::shared_ptr<IServiceSession>& session);
  void _SendRequestResult(const std::string& service_name,
                          const std::shared_ptr<IPropertyListHelper>& list,
                          hxf_transaction_h transaction, hxf_error_e error);
  void _Notify(const std::string& service_name, const std::shared_ptr<IPropertyListHelper>& list,
               hxf_transaction_h transaction, hxf_error_e error);
  void _TermiAsync(const ServiceHandlerDestroyedHandler_t& destroyed);

  // Everything below is touched only by tasks of this handler's context.
  std::string name;
  SearchHandler_t search_cb_;
  SearchStopHandler_t search_stop_cb_;
  GetDeviceListHandler_t get_device_list_cb_;
  ListenHandler_t listen_cb_;
  ListenStopHandler_t listen_stop_cb_;
  AddDeviceHandler_t add_device_cb_;
  ServiceSessionCreatedHandler_t service_session_created_cb_;  // stored, never called: kept so
  SetServicePropertyHandler_t request_service_cb_;
  std::unordered_map<hxf_service_session_h, std::weak_ptr<IServiceSession>> service_session_map_;
  static constexpr std::size_t kFirstSweepAt = 64;
  std::size_t sweep_at_ = kFirstSweepAt;
};

}  // namespace HXFramework::Core
