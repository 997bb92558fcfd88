// Registries keyed by handle that hold their objects weakly (a service's clients and
// handlers, a handler's sessions). A handle is an address, and the handle quarantine lets
// an address go again after enough objects have retired: a newcomer can then arrive under
// the key of a predecessor that died while still registered. An entry whose object has
// expired therefore counts as absent, and the newcomer replaces it.
#pragma once

#include <memory>

#include "HXLog.h"
#include "JobFrame.h"

namespace HXFramework::Core {

// Inserts a weak reference to `object` under `key` unless a live object is registered
// there already. Returns false (and changes nothing) only for a live duplicate.
template <typename Map, typename Object>
bool InsertUnlessLive(Map& map, const typename Map::key_type& key,
                      const std::shared_ptr<Object>& object) {
  auto [entry, inserted] = map.emplace(key, object);
  if (inserted) return true;
  if (!entry->second.expired()) return false;
  entry->second = object;  // the dead predecessor at a recycled address
  return true;
}

// Calls `operation` with every live member of `map`, in map order, and `on_dead` for each
// expired entry (which stays). A member that refuses the call because its context has been
// terminated while something still held it (it is being destroyed) is logged at `site` and
// skipped. Deliberate: one member on its way out must not cost the members after it their
// event (a result, a found device, a search request).
template <typename Map, typename Operation, typename OnDead>
void ForEachLive(const CLogSite& site, Map& map, Operation&& operation, OnDead&& on_dead) {
  for (auto& entry : map) {
    auto member = entry.second.lock();
    if (member == nullptr) {
      on_dead();
      continue;
    }
    RunLogged(site, OnException::kSwallow, [&] { operation(member); });
  }
}

}  // namespace HXFramework::Core
