// Fuzzes the common library's endpoints, endpoint lists, properties and property lists with
// programs of calls on live objects and NULL. (Its handles are like FILE*: the library
// cannot tell a freed one from a live one, so freed handles are not tried here.)
#include <vector>

#include "FuzzInput.h"
#include "hxf_common.h"
#include "Str.h"

using hxf_fuzz::FuzzInput;

using HXFramework::Test::Str;

namespace {

template <typename T>
T Pick(FuzzInput& in, const std::vector<T>& items) {
  if (items.empty() || in.Byte() % 8 == 0) return nullptr;  // NULL now and then
  return items[in.Number(static_cast<uint32_t>(items.size()))];
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  FuzzInput in(data, size);
  std::vector<hxf_endpoint_h> endpoints;
  std::vector<hxf_endpoint_list_h> endpoint_lists;
  std::vector<hxf_property_h> properties;
  std::vector<hxf_property_list_h> property_lists;
  for (int step = 0; step < 256 && !in.Done(); ++step) {
    switch (in.Byte() % 20) {
      case 0: if (auto e = hxf_endpoint_create(Str(in.Text()))) endpoints.push_back(e); break;
      case 1: if (auto e = hxf_endpoint_copy(Pick(in, endpoints))) endpoints.push_back(e); break;
      case 2: hxf_endpoint_set_device_id(Pick(in, endpoints), Str(in.Text())); break;
      case 3: hxf_endpoint_set_ui_meta(Pick(in, endpoints), hxf_string_new(nullptr, in.Byte() % 2)); break;
      case 4: (void)hxf_endpoint_get_device_id(Pick(in, endpoints)); break;
      case 5: if (auto l = hxf_endpoint_list_create()) endpoint_lists.push_back(l); break;
      case 6: hxf_endpoint_list_push_endpoint(Pick(in, endpoint_lists), Pick(in, endpoints), HXF_ERROR_NONE); break;
      case 7: {
        hxf_endpoint_h popped = nullptr;
        hxf_error error;
        if (hxf_endpoint_list_pop(Pick(in, endpoint_lists), &popped, &error) == HXF_ERROR_NONE) endpoints.push_back(popped);
        break;
      }
      case 8: {
        hxf_endpoint_list_h list = Pick(in, endpoint_lists);
        for (hxf_endpoint_h e = hxf_endpoint_list_get_first(list); e != nullptr; e = hxf_endpoint_list_get_next(list, e)) {
          (void)hxf_endpoint_get_service_name(e);
        }
        (void)hxf_endpoint_list_find(list, Str(in.Text()));
        (void)hxf_endpoint_list_get_next(list, Pick(in, endpoints));  // not an item: NULL
        break;
      }
      case 9: if (auto l = hxf_endpoint_list_copy(Pick(in, endpoint_lists))) endpoint_lists.push_back(l); break;
      case 10: {
        const std::string name = in.Text();
        hxf_property_h p = nullptr;
        switch (in.Byte() % 4) {
          case 0: p = hxf_property_create_int(Str(name), static_cast<int64_t>(in.Number(65536)) - 32768); break;
          case 1: p = hxf_property_create_double(Str(name), in.Number(1000) / 7.0); break;
          case 2: p = hxf_property_create_bool(Str(name), in.Byte() % 2 == 0); break;
          default: p = hxf_property_create_string(Str(name), Str(in.Text())); break;
        }
        if (p != nullptr) properties.push_back(p);
        break;
      }
      case 11: {
        hxf_property_h p = Pick(in, properties);
        int64_t i;
        double d;
        bool b;
        const char* s;
        uint32_t length;
        (void)hxf_property_get_int(p, &i);
        (void)hxf_property_get_double(p, &d);
        (void)hxf_property_get_bool(p, &b);
        (void)hxf_property_get_string(p, &s, &length);
        (void)hxf_property_get_type(p);
        (void)hxf_property_get_name(p);
        break;
      }
      case 12: if (auto p = hxf_property_copy(Pick(in, properties))) properties.push_back(p); break;
      case 13: if (auto l = hxf_property_list_create(Str(in.Text()))) property_lists.push_back(l); break;
      case 14: hxf_property_list_push_property(Pick(in, property_lists), Pick(in, properties), HXF_ERROR_NONE); break;
      case 15: {
        hxf_property_h popped = nullptr;
        if (hxf_property_list_pop(Pick(in, property_lists), &popped, nullptr) == HXF_ERROR_NONE) properties.push_back(popped);
        break;
      }
      case 16: {
        hxf_property_list_h list = Pick(in, property_lists);
        (void)hxf_property_list_find(list, Str(in.Text()));
        for (hxf_property_h p = hxf_property_list_get_first(list); p != nullptr; p = hxf_property_list_get_next(list, p)) {
          (void)hxf_property_get_name(p);
        }
        hxf_property_list_set_name(list, Str(in.Text()));
        break;
      }
      case 17: if (auto l = hxf_property_list_copy(Pick(in, property_lists))) property_lists.push_back(l); break;
      case 18:
        if (!endpoints.empty()) {
          const size_t i = in.Number(static_cast<uint32_t>(endpoints.size()));
          hxf_endpoint_destroy(endpoints[i]);
          endpoints.erase(endpoints.begin() + static_cast<long>(i));
        }
        break;
      default:
        if (!properties.empty()) {
          const size_t i = in.Number(static_cast<uint32_t>(properties.size()));
          hxf_property_destroy(properties[i]);
          properties.erase(properties.begin() + static_cast<long>(i));
        }
        break;
    }
  }
  for (auto e : endpoints) hxf_endpoint_destroy(e);
  for (auto l : endpoint_lists) hxf_endpoint_list_destroy(l);
  for (auto p : properties) hxf_property_destroy(p);
  for (auto l : property_lists) hxf_property_list_destroy(l);
  return 0;
}
