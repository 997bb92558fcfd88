#pragma once

namespace HXFramework {

// Private base of managers, wrappers, interfaces and trace objects: they are never copied.
class CNoncopyable {
 protected:
  CNoncopyable() = default;
  ~CNoncopyable() = default;

 public:
  CNoncopyable(const CNoncopyable&) = delete;
  CNoncopyable& operator=(const CNoncopyable&) = delete;
};

}  // namespace HXFramework
