#pragma once

#include <cstdint>
#include <string>
#include <variant>

#include "hxf_common.h"

namespace HXFramework::Common {

// One named, typed value. Behind every hxf_property_h.
struct CProperty {
  std::string name;
  std::variant<int64_t, double, bool, std::string> value;

  hxf_property_type Type() const {
    static constexpr hxf_property_type kTypes[] = {HXF_PROPERTY_TYPE_INT, HXF_PROPERTY_TYPE_DOUBLE,
                                                   HXF_PROPERTY_TYPE_BOOL,
                                                   HXF_PROPERTY_TYPE_STRING};
    return kTypes[value.index()];
  }
};

}  // namespace HXFramework::Common
