#pragma once

#include "CEndpoint.h"
#include "CItemList.h"

namespace HXFramework::Common {

// An ordered list of endpoints. Behind every hxf_endpoint_list_h.
struct CEndpointList {
  CItemList<CEndpoint> items;
};

}  // namespace HXFramework::Common
