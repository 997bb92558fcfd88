// The callers' objects (searches, listens, sessions), each seen by its own caller only. One
// fallback vtable per kind of object finds the object of a path for the call's sender, and
// the broker's node enumerator lists the sender's own paths: another caller's object is
// neither listed by introspection nor reachable (UnknownObject), whatever path it tries.
#pragma once

#include <systemd/sd-bus.h>

#include <string>
#include <unordered_map>
#include <vector>

#include "SdBusHolders.h"

namespace hxfd {

class CCallerObjects {
 public:
  // An object's registration, undone when destroyed.
  class Entry {
   public:
    Entry() = default;
    Entry(CCallerObjects* objects, std::string path)
        : objects_(objects), path_(std::move(path)) {}
    ~Entry() { Reset(); }
    Entry(Entry&& other) noexcept : objects_(other.objects_), path_(std::move(other.path_)) {
      other.objects_ = nullptr;
    }
    Entry& operator=(Entry&& other) noexcept {
      if (this != &other) {
        Reset();
        objects_ = other.objects_;
        path_ = std::move(other.path_);
        other.objects_ = nullptr;
      }
      return *this;
    }
    Entry(const Entry&) = delete;
    Entry& operator=(const Entry&) = delete;

   private:
    void Reset() {
      if (objects_ != nullptr) objects_->objects_.erase(path_);
      objects_ = nullptr;
    }
    CCallerObjects* objects_ = nullptr;
    std::string path_;
  };

  // Serves `vtable` of `interface` for every object under `prefix` (an object path), and
  // lists the sender's objects there.
  int Serve(sd_bus* bus, const char* prefix, const char* interface, const sd_bus_vtable* vtable);
  // `object` (a vtable's user data) at `path`, for calls from `owner` only.
  Entry Add(const std::string& path, const std::string& owner, void* object);
  // Takes the vtables off the bus.
  void Stop() { slots_.clear(); }

 private:
  struct Owned {
    std::string owner;
    void* object;
  };
  static const char* Sender(sd_bus* bus);
  static int OnFind(sd_bus* bus, const char* path, const char* interface, void* self,
                    void** found, sd_bus_error* error);
  static int OnEnumerate(sd_bus* bus, const char* prefix, void* self, char*** nodes,
                         sd_bus_error* error);

  std::unordered_map<std::string, Owned> objects_;  // by object path
  std::vector<hxf_tool::BusSlot> slots_;
};

}  // namespace hxfd
