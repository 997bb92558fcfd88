// Ordered list of owned items, each with an hxf_error, addressable by the item's own
// address (the handle the C functions hand out). Every operation is O(1) except find.
#pragma once

#include <cstdint>
#include <list>
#include <memory>
#include <unordered_map>
#include <utility>

#include "hxf_common.h"

namespace HXFramework::Common {

template <typename T>
class CItemList {
 public:
  CItemList() = default;
  CItemList(const CItemList& other) {
    for (const Item& item : other.items_) Push(*item.value, item.error);
  }
  CItemList& operator=(const CItemList&) = delete;

  void Push(const T& value, hxf_error error) {
    items_.push_back(Item{std::make_unique<T>(value), error});
    auto last = std::prev(items_.end());
    index_.emplace(last->value.get(), last);
  }

  // Removes the first item and hands its ownership out; null when empty.
  std::unique_ptr<T> Pop(hxf_error* error) {
    if (items_.empty()) return nullptr;
    Item& front = items_.front();
    std::unique_ptr<T> value = std::move(front.value);
    if (error != nullptr) *error = front.error;
    index_.erase(value.get());
    items_.pop_front();
    return value;
  }

  T* First() const { return items_.empty() ? nullptr : items_.front().value.get(); }

  // Null when `item` is the last one or not an item of this list.
  T* Next(const void* item) const {
    auto found = index_.find(item);
    if (found == index_.end()) return nullptr;
    auto next = std::next(found->second);
    return next == items_.end() ? nullptr : next->value.get();
  }

  template <typename Predicate>
  T* FindIf(Predicate&& matches) const {
    for (const Item& item : items_) {
      if (matches(*item.value)) return item.value.get();
    }
    return nullptr;
  }

  bool Empty() const { return items_.empty(); }
  uint32_t Size() const { return static_cast<uint32_t>(items_.size()); }

 private:
  struct Item {
    std::unique_ptr<T> value;
    hxf_error error;
  };
  std::list<Item> items_;
  std::unordered_map<const void*, typename std::list<Item>::iterator> index_;
};

}  // namespace HXFramework::Common
