#pragma once

#include <string>

#include "CItemList.h"
#include "CProperty.h"

namespace HXFramework::Common {

// A named list of properties; the name is the operation ("get", "set"...). Behind every
// hxf_property_list_h.
struct CPropertyList {
  std::string name;
  CItemList<CProperty> items;
};

}  // namespace HXFramework::Common
