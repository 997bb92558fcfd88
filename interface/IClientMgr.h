#pragma once

#include "CNoncopyable.h"

namespace HXFramework::Core {

// Registry of the consumers' clients (process-wide singleton).
class IClientMgr : private CNoncopyable {
 public:
  static IClientMgr* GetInstance();

  virtual ~IClientMgr() = default;
  virtual void Initialize() = 0;
  // Terminates every remaining client synchronously and empties the registry.
  virtual void Finalize() = 0;
};

}  // namespace HXFramework::Core
