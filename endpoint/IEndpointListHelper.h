#pragma once

#include <memory>
#include <string>

#include "CNoncopyable.h"
#include "hxf_common.h"

namespace HXFramework::Core {

// Owns a copy of an endpoint list for as long as the core needs it.
class IEndpointListHelper : private CNoncopyable {
 public:
  // Copies `handle`; a list that cannot be copied (null) throws std::invalid_argument.
  static std::shared_ptr<IEndpointListHelper> Create(void* handle);

  virtual ~IEndpointListHelper() = default;
  virtual void* GetHandle() = 0;
  virtual hxf_error Push(void* endpoint, hxf_error error) = 0;
  virtual hxf_error Pop(void** endpoint, hxf_error* error) = 0;
  virtual void* Find(const std::string& device_id) = 0;
  virtual void* GetFirst() = 0;
  virtual void* GetNext(void* item) = 0;
  virtual bool Empty() = 0;
};

}  // namespace HXFramework::Core
