#pragma once

#include <string>

namespace HXFramework::Common {

// One device offering one service. Behind every hxf_endpoint_h.
struct CEndpoint {
  std::string service_name;
  std::string interface_name;
  std::string interface_type;
  std::string address;
  std::string device_id;
  std::string device_name;
  std::string ui_meta;
};

}  // namespace HXFramework::Common
