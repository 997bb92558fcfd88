// Reads a fuzzer's bytes as a program: small numbers, choices and texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace hxf_fuzz {

class FuzzInput {
 public:
  FuzzInput(const uint8_t* data, size_t size) : data_(data), size_(size) {}

  bool Done() const { return offset_ >= size_; }
  uint8_t Byte() { return offset_ < size_ ? data_[offset_++] : 0; }
  uint32_t Number(uint32_t limit) { return limit == 0 ? 0 : (static_cast<uint32_t>(Byte()) << 8 | Byte()) % limit; }
  // A text of odd length that may hold NULs.
  std::string Text() {
    const size_t length = Byte() % 24;
    std::string text;
    for (size_t i = 0; i < length; ++i) text.push_back(static_cast<char>(Byte() % 4 == 0 ? '\0' : 'a' + Byte() % 26));
    return text;
  }

 private:
  const uint8_t* data_;
  size_t size_;
  size_t offset_ = 0;
};

}  // namespace hxf_fuzz
