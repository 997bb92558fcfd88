#pragma once

#include <memory>
#include <string>

#include "CNoncopyable.h"
#include "hxf_common.h"

namespace HXFramework::Core {

// Owns a copy of an application's property list for as long as the core needs it.
class IPropertyListHelper : private CNoncopyable {
 public:
  // Copies `handle`; a list that cannot be copied (null) throws std::invalid_argument.
  static std::shared_ptr<IPropertyListHelper> Create(void* handle);

  virtual ~IPropertyListHelper() = default;
  // The core's own copy; borrowed by whoever receives it.
  virtual void* GetHandle() = 0;
  virtual void SetName(const std::string& name) = 0;
  virtual std::string GetName() = 0;
  virtual void Push(void* property, hxf_error error) = 0;
  virtual hxf_error Pop(void** property, hxf_error* error) = 0;
  virtual void* Find(const std::string& name) = 0;
  virtual void* GetFirst() = 0;
  virtual void* GetNext(void* item) = 0;
  virtual bool Empty() = 0;
};

}  // namespace HXFramework::Core
