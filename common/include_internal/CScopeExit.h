// Runs a function when the scope ends, however it ends (also when an exception leaves it):
// the clean-up that must follow an operation whatever the operation did.
//   CScopeExit reopen([&] { closing_.clear(); });
#pragma once

#include <utility>

namespace HXFramework {

template <typename Function>
class CScopeExit {
 public:
  explicit CScopeExit(Function function) : function_(std::move(function)) {}
  ~CScopeExit() { function_(); }
  CScopeExit(const CScopeExit&) = delete;
  CScopeExit& operator=(const CScopeExit&) = delete;

 private:
  Function function_;
};

}  // namespace HXFramework
