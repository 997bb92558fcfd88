#pragma once

#include "ITransactionResult.h"

namespace HXFramework::Core {

class CTransactionResult : public ITransactionResult {
 public:
  CTransactionResult(const std::shared_ptr<IPropertyListHelper>& property_list, hxf_error_e error)
      : property_list_(property_list), error_(error) {}

  hxf_error_e GetErrorCode() const override { return error_; }
  std::shared_ptr<IPropertyListHelper> GetPropertyList() const override { return property_list_; }

 private:
  const std::shared_ptr<IPropertyListHelper> property_list_;
  const hxf_error_e error_;
};

}  // namespace HXFramework::Core
