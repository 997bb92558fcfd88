// Waits (bounded) for a condition that no callback signals, such as the last reference to an
// object going on another thread. Where a callback can signal, tests wait on it instead.
#pragma once

#include <chrono>
#include <thread>

namespace HXFramework::Test {

template <typename Condition>
bool Eventually(Condition&& condition, std::chrono::milliseconds limit = std::chrono::seconds(10)) {
  const auto deadline = std::chrono::steady_clock::now() + limit;
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(1));  // polls; does not spin
  }
  return true;
}

}  // namespace HXFramework::Test
