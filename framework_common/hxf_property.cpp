// C functions of typed properties.
#include <memory>
#include <string>
#include <utility>

#include "CCommonGuard.h"
#include "CProperty.h"
#include "hxf_common.h"

using HXFramework::Common::CProperty;
using HXFramework::Common::Guarded;
using HXFramework::Common::ToStdString;

namespace {

CProperty* AsProperty(hxf_property_h handle) {
  return static_cast<CProperty*>(handle);
}

template <typename Value>
hxf_property_h Create(hxf_string name, Value&& value) {
  return Guarded<hxf_property_h>(nullptr, [&]() -> hxf_property_h {
    auto property = std::make_unique<CProperty>();
    if (!ToStdString(name, &property->name)) return nullptr;
    property->value = std::forward<Value>(value);
    return property.release();
  });
}

template <typename Value>
hxf_error Get(hxf_property_h handle, Value* out) {
  if (handle == nullptr || out == nullptr) return HXF_ERROR_INVALID_PARAMETER;
  const Value* value = std::get_if<Value>(&AsProperty(handle)->value);
  if (value == nullptr) return HXF_ERROR_TYPE_MISMATCH;
  *out = *value;
  return HXF_ERROR_NONE;
}

}  // namespace

extern "C" {

hxf_property_h hxf_property_create_int(hxf_string name, int64_t value) {
  return Create(name, value);
}
hxf_property_h hxf_property_create_double(hxf_string name, double value) {
  return Create(name, value);
}
hxf_property_h hxf_property_create_bool(hxf_string name, bool value) {
  return Create(name, value);
}

hxf_property_h hxf_property_create_string(hxf_string name, hxf_string value) {
  std::string text;
  if (!Guarded(false, [&] { return ToStdString(value, &text); })) return nullptr;
  return Create(name, std::move(text));
}

hxf_property_h hxf_property_copy(hxf_property_h property) {
  if (property == nullptr) return nullptr;
  return Guarded<hxf_property_h>(nullptr, [&] { return new CProperty(*AsProperty(property)); });
}

void hxf_property_destroy(hxf_property_h property) {
  delete AsProperty(property);
}

const char* hxf_property_get_name(hxf_property_h property) {
  return property == nullptr ? nullptr : AsProperty(property)->name.c_str();
}

hxf_property_type hxf_property_get_type(hxf_property_h property) {
  return property == nullptr ? HXF_PROPERTY_TYPE_NONE : AsProperty(property)->Type();
}

hxf_error hxf_property_get_int(hxf_property_h property, int64_t* value) {
  return Get(property, value);
}
hxf_error hxf_property_get_double(hxf_property_h property, double* value) {
  return Get(property, value);
}
hxf_error hxf_property_get_bool(hxf_property_h property, bool* value) {
  return Get(property, value);
}

hxf_error hxf_property_get_string(hxf_property_h property, const char** value, uint32_t* length) {
  if (property == nullptr || value == nullptr) return HXF_ERROR_INVALID_PARAMETER;
  const auto* text = std::get_if<std::string>(&AsProperty(property)->value);
  if (text == nullptr) return HXF_ERROR_TYPE_MISMATCH;
  *value = text->c_str();
  if (length != nullptr) *length = static_cast<uint32_t>(text->size());
  return HXF_ERROR_NONE;
}

}  // extern "C"
