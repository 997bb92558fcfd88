#include "CClientMgr.h"

#include <mutex>

#include "HXCALLTRACE_OBJ.h"
#include "HXLog.h"

namespace HXFramework::Core {

IClientMgr* IClientMgr::GetInstance() {
  static CClientMgr instance;
  return &instance;
}

void CClientMgr::Initialize() { HXF_CALLTRACE_OBJ(this); }

void CClientMgr::Finalize() {
  HXF_CALLTRACE_OBJ(this);
  std::unique_lock<std::shared_mutex> lock(client_mutex_);
  HXLOG(DLOG_INFO, "client map size: %zu\n", client_map_.size());
  client_map_.clear();
}

}  // namespace HXFramework::Core
