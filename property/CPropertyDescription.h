#pragma once

#include <cstdint>
#include <string>

#include "hxf_common.h"

namespace HXFramework::Core {

// A plain record describing one property, with a text rendering.
class CPropertyDescription {
 public:
  CPropertyDescription(const std::string& name, const std::string& description,
                       hxf_property_type type, int64_t min, int64_t max);
  virtual ~CPropertyDescription();

  virtual std::string GetPropertyName() const;
  virtual std::string GetDescription() const;
  virtual hxf_property_type GetType() const;
  virtual int64_t GetMin() const;
  virtual int64_t GetMax() const;
  // Five lines; the third prints the name under a misspelled label, deliberately.
  virtual std::string GetFormatedDescription() const;

 private:
  std::string property_name_;
  std::string description_;
  hxf_property_type type_;
  int64_t min_;
  int64_t max_;
};

}  // namespace HXFramework::Core
