#pragma once

#include "CNoncopyable.h"

namespace HXFramework::Core {

// Registry of services and service handlers (process-wide singleton).
class IServiceMgr : private CNoncopyable {
 public:
  static IServiceMgr* GetInstance();

  virtual ~IServiceMgr() = default;
  virtual void Initialize() = 0;
  // Terminates every service, then every handler, and empties both registries.
  virtual void Finalize() = 0;
};

}  // namespace HXFramework::Core
