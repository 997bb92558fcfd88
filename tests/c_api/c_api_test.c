/* Uses the public headers from plain C: lifecycle, strings, endpoints, lists, properties. */
#include <stdio.h>
#include <string.h>

#include "hxf_core.h"

#define CHECK(cond)                                                            \
  do {                                                                         \
    if (!(cond)) {                                                             \
      fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
      return 1;                                                                \
    }                                                                          \
  } while (0)

int main(void) {
  /* The version header hxf_core.h includes names the version the library was built as. */
  CHECK(strcmp(HXF_CORE_VERSION_STRING, HXF_EXPECTED_VERSION) == 0);
  CHECK(HXF_CORE_VERSION_HEX == ((HXF_CORE_VERSION_MAJOR << 16) | (HXF_CORE_VERSION_MINOR << 8) |
                                 HXF_CORE_VERSION_PATCH));

  CHECK(hxf_core_initialize() == HXF_ERROR_NONE);

  hxf_endpoint_h endpoint = hxf_endpoint_create(hxf_string_from_cstr("lights"));
  CHECK(endpoint != NULL);
  CHECK(hxf_endpoint_set_device_id(endpoint, hxf_string_new("lamp-1", 6)) == HXF_ERROR_NONE);
  hxf_endpoint_list_h list = hxf_endpoint_list_create();
  CHECK(hxf_endpoint_list_push_endpoint(list, endpoint, HXF_ERROR_NONE) == HXF_ERROR_NONE);
  hxf_endpoint_destroy(endpoint);
  CHECK(strcmp(hxf_endpoint_get_device_id(hxf_endpoint_list_get_first(list)), "lamp-1") == 0);
  hxf_endpoint_list_destroy(list);

  hxf_property_list_h props = hxf_property_list_create(hxf_string_from_cstr("set"));
  hxf_property_h brightness = hxf_property_create_int(hxf_string_from_cstr("brightness"), 70);
  CHECK(hxf_property_list_push_property(props, brightness, HXF_ERROR_NONE) == HXF_ERROR_NONE);
  hxf_property_destroy(brightness);
  int64_t value = 0;
  CHECK(hxf_property_get_int(hxf_property_list_find(props, hxf_string_from_cstr("brightness")),
                             &value) == HXF_ERROR_NONE);
  CHECK(value == 70);
  hxf_property_list_destroy(props);

  CHECK(hxf_core_finalize() == HXF_ERROR_NONE);
  puts("c api ok");
  return 0;
}
