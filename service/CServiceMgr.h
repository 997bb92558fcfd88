#pragma once

#include <memory>
#include <shared_mutex>
#include <string>
#include <unordered_map>

#include "IServiceMgr.h"

namespace HXFramework::Core {

class IService;
class IServiceHandler;

class CServiceMgr : public IServiceMgr {
 public:
  CServiceMgr() = default;
  ~CServiceMgr() override = default;

  void Initialize() override;
  void Finalize() override;

 private:
  std::shared_mutex service_mutex_;  // guards both maps
  std::unordered_map<std::string, std::shared_ptr<IService>> service_map_;
  std::unordered_map<void*, std::shared_ptr<IServiceHandler>> service_handler_map_;
};

}  // namespace HXFramework::Core
