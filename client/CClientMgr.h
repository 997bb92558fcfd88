#pragma once

#include <memory>
#include <shared_mutex>
#include <unordered_map>

#include "IClientMgr.h"

namespace HXFramework::Core {

class IClient;

class CClientMgr : public IClientMgr {
 public:
  CClientMgr() = default;
  ~CClientMgr() override = default;

  void Initialize() override;
  void Finalize() override;

 private:
  std::shared_mutex client_mutex_;  // guards client_map_
  std::unordered_map<void*, std::shared_ptr<IClient>> client_map_;
};

}  // namespace HXFramework::Core
