#include "CServiceMgr.h"

#include <vector>

#include "CException.h"
#include "CommonText.h"
#include "HXCALLTRACE_OBJ.h"
#include "HXLog.h"
#include "IClient.h"
#include "IEndpointHelper.h"
#include "IEndpointListHelper.h"
#include "IService.h"
#include "IServiceHandler.h"
#include "LeakySingleton.h"

namespace HXFramework::Core {

namespace {

const char kEverything[] = "*";

}  // namespace

IServiceMgr* IServiceMgr::GetInstance() {
  return &LeakySingleton<CServiceMgr>();
}

CServiceMgr::CServiceMgr() {
  service_map_.max_load_factor(1.0f);
  service_handler_map_.max_load_factor(1.0f);
}

// ---- helpers ----

std::shared_ptr<IServiceHandler> CServiceMgr::_CreateServiceHandler(const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  // The plugin's user data stays with its callbacks; the handler does not keep it.
  std::shared_ptr<IServiceHandler> handler = IServiceHandler::Create(name, nullptr);
  Require(service_handler_map_.emplace(handler->GetHandle(), handler).second,
          "Unable to insert service_handler to service_handler_map_!!", HXF_ERROR_CREATE_FAILED);
  HXLOG(DLOG_INFO, " [%s] service_handler has been created & inserted into service_handler_map_\n",
        name.c_str());
  return handler;
}

std::shared_ptr<IServiceHandler> CServiceMgr::_FindServiceHandler(
    hxf_service_handler_h handle) const {
  HXF_CALLTRACE_OBJ(this);
  auto found = service_handler_map_.find(handle);
  Require(found != service_handler_map_.end(),
          "service_handler not found in service_handler_map_!!", HXF_ERROR_INVALID_HANDLE);
  return found->second;
}

std::shared_ptr<IServiceHandler> CServiceMgr::_ReleaseServiceHandler(hxf_service_handler_h handle) {
  HXF_CALLTRACE_OBJ(this);
  auto found = service_handler_map_.find(handle);
  Require(found != service_handler_map_.end(),
          "service_handler not found in service_handler_map_!!", HXF_ERROR_INVALID_HANDLE);
  std::shared_ptr<IServiceHandler> handler = std::move(found->second);
  service_handler_map_.erase(found);
  HXLOG(DLOG_INFO, "service_handler[%p] deleted from service_handler map\n", handle);
  return handler;
}

std::shared_ptr<IService> CServiceMgr::_CreateService(const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  std::shared_ptr<IService> service = IService::Create(name);
  Require(service_map_.emplace(name, service).second, "Unable to insert service to service_map_!!",
          HXF_ERROR_CREATE_FAILED);
  service->Init();
  HXLOG(DLOG_INFO,
        " [%s] service has been created & inserted into service_map_ : [%p], ref_count:[%ld]\n",
        name.c_str(), static_cast<void*>(service.get()), service.use_count());
  return service;
}

std::shared_ptr<IService> CServiceMgr::_FindService(const std::string& name) const {
  HXF_CALLTRACE_OBJ(this);
  Require(!name.empty(), "service_name is empty!!", HXF_ERROR_INVALID_PARAMETER);
  auto found = service_map_.find(name);
  Require(found != service_map_.end(), "service not found", HXF_ERROR_OPERATION_FAILED);
  return found->second;
}

std::shared_ptr<IService> CServiceMgr::_GetService(const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  Require(!name.empty(), "service_name is empty!!", HXF_ERROR_INVALID_PARAMETER);
  auto found = service_map_.find(name);
  if (found != service_map_.end()) return found->second;
  HXLOG(DLOG_INFO, " [%s] service not found in service_map_\n", name.c_str());
  return _CreateService(name);
}

void CServiceMgr::_DestroyService(const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  service_map_.erase(name);
  HXLOG(DLOG_INFO, "service[%s] deleted from service map\n", name.c_str());
}

std::shared_ptr<IServiceHandler> CServiceMgr::_LookupServiceHandler(
    hxf_service_handler_h handle) const {
  CReadLock guard(lock_);
  return _FindServiceHandler(handle);
}

std::shared_ptr<IService> CServiceMgr::_LookupService(const std::string& name) const {
  CReadLock guard(lock_);
  return _FindService(name);
}

std::shared_ptr<IService> CServiceMgr::_LookupOrCreateService(const std::string& name) {
  CWriteLock guard(lock_);
  return _GetService(name);
}

template <typename Operation>
void CServiceMgr::_ForNamedOrEveryService(const std::string& name, Operation&& operation) {
  if (name != kEverything) {
    operation(_LookupOrCreateService(name));
    return;
  }
  // Reaches the services that exist now and creates none.
  std::vector<std::shared_ptr<IService>> services;
  {
    CReadLock guard(lock_);
    for (auto& [service_name, service] : service_map_) services.push_back(service);
  }
  for (const auto& service : services) operation(service);
}

// ---- lifecycle ----

void CServiceMgr::Initialize() {
  HXF_CALLTRACE_OBJ(this);
}

void CServiceMgr::Finalize() {
  HXF_CALLTRACE_OBJ(this);
  CWriteLock guard(lock_);
  HXLOG(DLOG_INFO, "service_map_size: %zu, service_handler_map_ size: %zu\n", service_map_.size(),
        service_handler_map_.size());
  for (auto& [name, service] : service_map_) {
    service->Termi();
    HXLOG(DLOG_INFO, "service_name:(%s)(%p), ref_count:(%ld)\n", name.c_str(),
          static_cast<void*>(service.get()), service.use_count());
  }
  for (auto& [handle, handler] : service_handler_map_) {
    HXLOG(DLOG_INFO, "service_handler_name:(%s)(%p), ref_count:(%ld)\n", handler->GetName().c_str(),
          handle, handler.use_count());
    handler->Termi();
  }
  service_map_.clear();
  service_handler_map_.clear();
}

// ---- handlers ----

void* CServiceMgr::CreateServiceHandler(const std::string& name, void* /*user_data*/) {
  HXF_CALLTRACE_OBJ(this);
  Require(!name.empty(), "service_handler_name is empty!!", HXF_ERROR_INVALID_PARAMETER);
  CWriteLock guard(lock_);
  std::shared_ptr<IServiceHandler> handler = _CreateServiceHandler(name);
  handler->Init();
  HXLOG(DLOG_INFO, " [%s] service_handler created [%p]\n", name.c_str(), handler->GetHandle());
  return handler->GetHandle();
}

void CServiceMgr::SetSearchCallback(hxf_service_handler_h h, const SearchHandler_t& cb) {
  HXF_CALLTRACE_OBJ(this);
  _LookupServiceHandler(h)->SetSearchCallback(cb);
}

void CServiceMgr::SetSearchStopCallback(hxf_service_handler_h h, const SearchStopHandler_t& cb) {
  HXF_CALLTRACE_OBJ(this);
  _LookupServiceHandler(h)->SetSearchStopCallback(cb);
}

void CServiceMgr::SetGetDeviceListCallback(hxf_service_handler_h h,
                                           const GetDeviceListHandler_t& cb) {
  HXF_CALLTRACE_OBJ(this);
  _LookupServiceHandler(h)->SetGetDeviceListCallback(cb);
}

void CServiceMgr::SetListenCallback(hxf_service_handler_h h, const ListenHandler_t& cb) {
  HXF_CALLTRACE_OBJ(this);
  _LookupServiceHandler(h)->SetListenCallback(cb);
}

void CServiceMgr::SetListenStopCallback(hxf_service_handler_h h, const ListenStopHandler_t& cb) {
  HXF_CALLTRACE_OBJ(this);
  _LookupServiceHandler(h)->SetListenStopCallback(cb);
}

void CServiceMgr::SetAddDeviceCallback(hxf_service_handler_h h, const AddDeviceHandler_t& cb) {
  HXF_CALLTRACE_OBJ(this);
  _LookupServiceHandler(h)->SetAddDeviceCallback(cb);
}

void CServiceMgr::SetServiceSessionCreatedCallback(hxf_service_handler_h h,
                                                   const ServiceSessionCreatedHandler_t& cb) {
  HXF_CALLTRACE_OBJ(this);
  _LookupServiceHandler(h)->SetServiceSessionCreatedCallback(cb);
}

void CServiceMgr::SetRequestServiceCallback(hxf_service_handler_h h,
                                            const SetServicePropertyHandler_t& cb) {
  HXF_CALLTRACE_OBJ(this);
  _LookupServiceHandler(h)->SetRequestServiceCallback(cb);
}

void CServiceMgr::SubscribeService(hxf_service_handler_h handle, const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  Require(handle != nullptr, "service_handler handle is null", HXF_ERROR_INVALID_HANDLE);
  Require(!name.empty(), "service name is empty", HXF_ERROR_INVALID_SERVICE_NAME);
  HXLOG(DLOG_INFO, "service name: %s\n", name.c_str());
  std::shared_ptr<IServiceHandler> handler;
  std::shared_ptr<IService> service;
  {
    CWriteLock guard(lock_);
    handler = _FindServiceHandler(handle);
    service = _GetService(name);
  }
  service->Subscribe(handler);
}

void CServiceMgr::UnsubscribeService(hxf_service_handler_h handle, const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  Require(handle != nullptr, "service handler handle is null", HXF_ERROR_INVALID_HANDLE);
  Require(!name.empty(), "service name is empty", HXF_ERROR_INVALID_SERVICE_NAME);
  HXLOG(DLOG_INFO, "service name: %s\n", name.c_str());
  std::shared_ptr<IService> service;
  {
    CWriteLock guard(lock_);
    service = _FindService(name);
    _DestroyService(name);
  }
  // Unsubscribing any one handler ends the whole service, whoever else it had: kept so.
  // Deliberately after the lock is released: stopping runs the jobs already queued on this
  // thread, and those may call back into the application, which may use the API.
  service->Unsubscribe(handle);
  service->Termi();
}

void CServiceMgr::DestroyServiceHandler(hxf_service_handler_h handle) {
  HXF_CALLTRACE_OBJ(this);
  std::shared_ptr<IServiceHandler> handler;
  {
    CWriteLock guard(lock_);
    handler = _ReleaseServiceHandler(handle);
  }
  // Deliberately outside the lock: the termination may run the handler's queued jobs (plugin
  // callbacks) on this thread, and those may use the API.
  handler->Termi();
}

void CServiceMgr::DestroyServiceHandlerAsync(hxf_service_handler_h handle,
                                             const ServiceHandlerDestroyedHandler_t& destroyed) {
  HXF_CALLTRACE_OBJ(this);
  if (handle == nullptr) {
    HXLOG(DLOG_ERROR, "invalid pointer\n");
    return;
  }
  HXLOG(DLOG_INFO, " [%p]\n", handle);
  std::shared_ptr<IServiceHandler> handler;
  {
    CWriteLock guard(lock_);
    handler = _ReleaseServiceHandler(handle);
  }
  handler->TermiAsync(destroyed);  // outside the lock, deliberately, as in DestroyServiceHandler
}

// ---- searches ----

void CServiceMgr::StartActiveSearch(const std::string& name, const std::shared_ptr<IClient>& client,
                                    uint32_t timeout) {
  HXF_CALLTRACE_OBJ(this);
  Require(!name.empty(), "service_name is emtpry!!", HXF_ERROR_INVALID_PARAMETER);
  Require(client != nullptr, "client is emtpry!!", HXF_ERROR_INVALID_PARAMETER);
  _ForNamedOrEveryService(
      name, [&](const std::shared_ptr<IService>& s) { s->StartActiveSearch(client, timeout); });
}

void CServiceMgr::GetDeviceList(const std::string& name, const std::shared_ptr<IClient>& client,
                                uint32_t timeout) {
  HXF_CALLTRACE_OBJ(this);
  Require(!name.empty(), "service_name is emtpry!!", HXF_ERROR_INVALID_PARAMETER);
  Require(client != nullptr, "client is emtpry!!", HXF_ERROR_INVALID_PARAMETER);
  _ForNamedOrEveryService(
      name, [&](const std::shared_ptr<IService>& s) { s->GetDeviceList(client, timeout); });
}

void CServiceMgr::StartPassiveSearch(const std::string& name,
                                     const std::shared_ptr<IClient>& client) {
  HXF_CALLTRACE_OBJ(this);
  Require(!name.empty(), "service_name is empty!!", HXF_ERROR_INVALID_PARAMETER);
  Require(client != nullptr, "client is emtpry!!", HXF_ERROR_INVALID_PARAMETER);
  _ForNamedOrEveryService(
      name, [&](const std::shared_ptr<IService>& s) { s->StartPassiveSearch(client); });
}

void CServiceMgr::SetSearchClient(const std::string& name, const std::shared_ptr<IClient>& client) {
  HXF_CALLTRACE_OBJ(this);
  Require(!name.empty(), "service_name is emtpry!!", HXF_ERROR_INVALID_PARAMETER);
  Require(client != nullptr, "client is emtpry!!", HXF_ERROR_INVALID_PARAMETER);
  _LookupOrCreateService(name)->SetSearchClient(client);
}

// No wildcard here: "*" is an ordinary name and fails unless such a service exists.
void CServiceMgr::StopActiveSearch(const std::string& name, hxf_client_h client) {
  HXF_CALLTRACE_OBJ(this);
  Require(!name.empty(), "service_name is emtpry!!", HXF_ERROR_INVALID_PARAMETER);
  Require(client != nullptr, "invalid client handle!!", HXF_ERROR_INVALID_PARAMETER);
  _LookupService(name)->StopActiveSearch(client);
}

void CServiceMgr::StopPassiveSearch(const std::string& name, hxf_client_h client) {
  HXF_CALLTRACE_OBJ(this);
  Require(!name.empty(), "valid service_name!!", HXF_ERROR_INVALID_PARAMETER);
  Require(client != nullptr, "invalid client handle!!", HXF_ERROR_INVALID_PARAMETER);
  _LookupService(name)->StopPassiveSearch(client);
}

void CServiceMgr::HandleSearchingTimerExpired(const std::string& /*name*/) {
  HXF_CALLTRACE_OBJ(this);
}

std::shared_ptr<IServiceHandler> CServiceMgr::GetServiceHandler(const std::string& name) {
  HXF_CALLTRACE_OBJ(this);
  HXLOG(DLOG_INFO, "service_name: %s\n", name.c_str());
  std::shared_ptr<IService> service = _LookupOrCreateService(name);
  try {
    return service->GetServiceHandler();
  } catch (const CException&) {
    // A name asked for and not provided is not kept for it.
    service->ReleaseIfIdle();
    throw;
  }
}

void CServiceMgr::GetServiceProperty(const std::string& name,
                                     const std::shared_ptr<IPropertyListHelper>& list,
                                     const GetServicePropertyResultHandler_t& handler,
                                     uint32_t timeout) {
  HXF_CALLTRACE_OBJ(this);
  Require(!name.empty(), "valid service_name!!", HXF_ERROR_INVALID_PARAMETER);
  _LookupService(name)->GetServiceProperty(list, handler, timeout);
}

void CServiceMgr::SetServiceProperty(const std::string& name,
                                     const std::shared_ptr<IPropertyListHelper>& list,
                                     const SetServicePropertyResultHandler_t& handler,
                                     uint32_t timeout) {
  HXF_CALLTRACE_OBJ(this);
  Require(!name.empty(), "valid service_name!!", HXF_ERROR_INVALID_PARAMETER);
  _LookupService(name)->SetServiceProperty(list, handler, timeout);
}

// ---- services nobody needs ----

// Deliberate: a service is otherwise kept from its first mention to the end, so that names
// searched for once and never provided would pile up for as long as the process runs.
void CServiceMgr::ReleaseIdleServices() {
  HXF_CALLTRACE_OBJ(this);
  std::vector<std::shared_ptr<IService>> services;
  {
    CReadLock guard(lock_);
    for (auto& [service_name, service] : service_map_) services.push_back(service);
  }
  for (const auto& service : services) service->ReleaseIfIdle();
}

bool CServiceMgr::ForgetIdleService(const std::string& name, const IService* service) {
  HXF_CALLTRACE_OBJ(this);
  std::shared_ptr<IService> forgotten;  // let go of after the lock
  CWriteLock guard(lock_);
  auto found = service_map_.find(name);
  if (found == service_map_.end() || found->second.get() != service) return false;
  forgotten = found->second;
  _DestroyService(name);
  return true;
}

std::size_t CServiceMgr::ServiceCount() const {
  CReadLock guard(lock_);
  return service_map_.size();
}

// ---- reports from plugins ----

// Routed by the endpoint's own service name; the reporting handler is only passed along.
void CServiceMgr::Discovered(hxf_service_handler_h handle,
                             const std::shared_ptr<IEndpointHelper>& endpoint) {
  HXF_CALLTRACE_OBJ(this);
  Require(handle != nullptr, "service_handler_h is invalid!!", HXF_ERROR_INVALID_PARAMETER);
  Require(endpoint != nullptr, "endpoint is invalid!!", HXF_ERROR_INVALID_PARAMETER);
  _LookupService(endpoint->GetServiceName())->Discovered(handle, endpoint);
}

void CServiceMgr::DeviceListDiscovered(hxf_service_handler_h handle,
                                       const std::shared_ptr<IEndpointListHelper>& list) {
  HXF_CALLTRACE_OBJ(this);
  Require(handle != nullptr, "service_handler_h is invalid!!", HXF_ERROR_INVALID_PARAMETER);
  Require(list != nullptr, "endpoint_list is invalid!!", HXF_ERROR_INVALID_PARAMETER);
  Require(!list->Empty(), "no endpoint in endpoint_list", HXF_ERROR_INVALID_PARAMETER);
  HXLOG(DLOG_INFO, "service handler h : [%p]\n", handle);
  const std::string name = CommonText(hxf_endpoint_get_service_name(list->GetFirst()));
  _LookupService(name)->DeviceListDiscovered(handle, list);
}

void CServiceMgr::SendRequestResult(hxf_service_handler_h handle, const std::string& name,
                                    const std::shared_ptr<IPropertyListHelper>& list,
                                    hxf_transaction_h transaction, hxf_error_e error) {
  HXF_CALLTRACE_OBJ(this);
  HXLOG(DLOG_ERROR, "pelnor debug1\n");
  _LookupServiceHandler(handle)->SendRequestResult(name, list, transaction, error);
}

void CServiceMgr::Notify(hxf_service_handler_h handle, const std::string& name,
                         const std::shared_ptr<IPropertyListHelper>& list,
                         hxf_transaction_h transaction, hxf_error_e error) {
  HXF_CALLTRACE_OBJ(this);
  _LookupServiceHandler(handle)->Notify(name, list, transaction, error);
}

}  // namespace HXFramework::Core
