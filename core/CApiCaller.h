// Where the current call into the API came from: the return address of the exported
// function, kept for the call's duration on the calling thread. The plugin manager uses it
// to see that a plugin is unloading itself, whose code the call returns into.
#pragma once

namespace HXFramework::Core {

class CApiCaller {
 public:
  explicit CApiCaller(const void* return_address) : previous_(current_) { current_ = return_address; }
  ~CApiCaller() { current_ = previous_; }
  CApiCaller(const CApiCaller&) = delete;
  CApiCaller& operator=(const CApiCaller&) = delete;

  // The innermost caller on this thread, or null outside an API call that records it.
  static const void* ReturnAddress() { return current_; }

 private:
  static thread_local const void* current_;
  const void* previous_;
};

}  // namespace HXFramework::Core
