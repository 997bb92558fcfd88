#include "CCallerObjects.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace hxfd {

int CCallerObjects::Serve(sd_bus* bus, const char* prefix, const char* interface,
                          const sd_bus_vtable* vtable) {
  hxf_tool::BusSlot vtable_slot;
  int r = sd_bus_add_fallback_vtable(bus, hxf_tool::Out(vtable_slot), prefix, interface, vtable,
                                     &CCallerObjects::OnFind, this);
  if (r < 0) return r;
  slots_.push_back(std::move(vtable_slot));
  hxf_tool::BusSlot list_slot;
  r = sd_bus_add_node_enumerator(bus, hxf_tool::Out(list_slot), prefix,
                                 &CCallerObjects::OnEnumerate, this);
  if (r >= 0) slots_.push_back(std::move(list_slot));
  return r;
}

CCallerObjects::Entry CCallerObjects::Add(const std::string& path, const std::string& owner,
                                          void* object) {
  objects_[path] = Owned{owner, object};
  return Entry(this, path);
}

const char* CCallerObjects::Sender(sd_bus* bus) {
  sd_bus_message* m = sd_bus_get_current_message(bus);
  return m != nullptr ? sd_bus_message_get_sender(m) : nullptr;
}

int CCallerObjects::OnFind(sd_bus* bus, const char* path, const char*, void* self, void** found,
                           sd_bus_error*) {
  const auto& objects = static_cast<CCallerObjects*>(self)->objects_;
  const auto object = objects.find(path);
  if (object == objects.end()) return 0;
  // Not found rather than refused: that the path exists is not another caller's business.
  const char* sender = Sender(bus);
  if (sender == nullptr || object->second.owner != sender) return 0;
  *found = object->second.object;
  return 1;
}

int CCallerObjects::OnEnumerate(sd_bus* bus, const char* prefix, void* self, char*** nodes,
                                sd_bus_error*) {
  const char* sender = Sender(bus);
  const std::string under = std::string(prefix) + "/";
  std::vector<const std::string*> mine;
  if (sender != nullptr) {
    for (const auto& [path, owned] : static_cast<CCallerObjects*>(self)->objects_) {
      if (owned.owner == sender && path.compare(0, under.size(), under) == 0)
        mine.push_back(&path);
    }
  }
  // A strv that sd-bus frees.
  auto** list = static_cast<char**>(std::calloc(mine.size() + 1, sizeof(char*)));
  if (list == nullptr) return -ENOMEM;
  for (size_t i = 0; i < mine.size(); ++i) {
    list[i] = strdup(mine[i]->c_str());
    if (list[i] == nullptr) {
      for (size_t j = 0; j < i; ++j) std::free(list[j]);
      std::free(list);
      return -ENOMEM;
    }
  }
  *nodes = list;
  return 0;
}

}  // namespace hxfd
