#pragma once

#include <memory>

#include "hxf_common.h"

namespace HXFramework::Core {

class IPropertyListHelper;

// The immutable pair of a property list (may be null) and an error that travels back with a
// request result or a notification; shared freely between threads.
class ITransactionResult {
 public:
  static std::shared_ptr<ITransactionResult> Create(
      const std::shared_ptr<IPropertyListHelper>& property_list, hxf_error_e error);

  virtual ~ITransactionResult() = default;
  virtual hxf_error_e GetErrorCode() const = 0;
  virtual std::shared_ptr<IPropertyListHelper> GetPropertyList() const = 0;
};

}  // namespace HXFramework::Core
