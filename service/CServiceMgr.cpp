#include "CServiceMgr.h"

#include <mutex>

#include "HXCALLTRACE_OBJ.h"
#include "HXLog.h"

namespace HXFramework::Core {

IServiceMgr* IServiceMgr::GetInstance() {
  static CServiceMgr instance;
  return &instance;
}

void CServiceMgr::Initialize() { HXF_CALLTRACE_OBJ(this); }

void CServiceMgr::Finalize() {
  HXF_CALLTRACE_OBJ(this);
  std::unique_lock<std::shared_mutex> lock(service_mutex_);
  HXLOG(DLOG_INFO, "service_map_size: %zu, service_handler_map_ size: %zu\n",
        service_map_.size(), service_handler_map_.size());
  service_map_.clear();
  service_handler_map_.clear();
}

}  // namespace HXFramework::Core
