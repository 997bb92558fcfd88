#include "CTransactionResult.h"

namespace HXFramework::Core {

std::shared_ptr<ITransactionResult> ITransactionResult::Create(
    const std::shared_ptr<IPropertyListHelper>& property_list, hxf_error_e error) {
  return std::make_shared<CTransactionResult>(property_list, error);
}

}  // namespace HXFramework::Core
