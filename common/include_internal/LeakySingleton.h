// The one instance of a process-wide service (a manager, the pool, the timer service), made
// on first use and never destroyed: pool and timer threads, and plugins' own threads, may
// still reach it while static objects are torn down at exit.
#pragma once

namespace HXFramework {

template <typename Service>
Service& LeakySingleton() {
  static Service* instance = new Service();
  return *instance;
}

}  // namespace HXFramework
