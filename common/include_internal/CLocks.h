// The locks of the core, annotated for clang's thread-safety analysis (ThreadAnnotations.h):
// thin wrappers over the standard ones, and the scoped holders that take them. A field a lock
// guards says so with HXF_GUARDED_BY; a helper that needs the lock says HXF_REQUIRES.
#pragma once

#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#include "ThreadAnnotations.h"

namespace HXFramework {

class HXF_CAPABILITY("mutex") CMutex {
 public:
  void Lock() HXF_ACQUIRE() { mutex_.lock(); }
  void Unlock() HXF_RELEASE() { mutex_.unlock(); }
  // For a condition variable's wait, through CMutexLock::Native.
  std::mutex& Native() { return mutex_; }

 private:
  std::mutex mutex_;
};

// A read-write lock: the registries' lookups share it, their changes take it alone.
class HXF_CAPABILITY("mutex") CSharedMutex {
 public:
  void Lock() HXF_ACQUIRE() { mutex_.lock(); }
  void Unlock() HXF_RELEASE() { mutex_.unlock(); }
  void LockShared() HXF_ACQUIRE_SHARED() { mutex_.lock_shared(); }
  void UnlockShared() HXF_RELEASE_SHARED() { mutex_.unlock_shared(); }

 private:
  std::shared_mutex mutex_;
};

// Taken again by the thread that holds it: a context's posting from inside its own drain.
class HXF_CAPABILITY("mutex") CRecursiveMutex {
 public:
  void Lock() HXF_ACQUIRE() { mutex_.lock(); }
  void Unlock() HXF_RELEASE() { mutex_.unlock(); }

 private:
  std::recursive_mutex mutex_;
};

// Holds a CMutex for its scope, or until Unlock; Lock takes it again. A condition variable
// waits on Native(), which gives the lock up while it waits and holds it again when it
// returns. (Wait in a loop written out in the caller, not with a predicate lambda: the
// analysis cannot see that a lambda runs with the lock held.)
class HXF_SCOPED_CAPABILITY CMutexLock {
 public:
  explicit CMutexLock(CMutex& mutex) HXF_ACQUIRE(mutex) : lock_(mutex.Native()) {}
  ~CMutexLock() HXF_RELEASE() {}
  CMutexLock(const CMutexLock&) = delete;
  CMutexLock& operator=(const CMutexLock&) = delete;

  void Unlock() HXF_RELEASE() { lock_.unlock(); }
  void Lock() HXF_ACQUIRE() { lock_.lock(); }

  std::unique_lock<std::mutex>& Native() { return lock_; }

 private:
  std::unique_lock<std::mutex> lock_;
};

// Holds a lock of type Mutex (CSharedMutex or CRecursiveMutex) exclusively for its scope, or
// until Unlock; Lock takes it again.
template <typename Mutex>
class HXF_SCOPED_CAPABILITY CUniqueLock {
 public:
  explicit CUniqueLock(Mutex& mutex) HXF_ACQUIRE(mutex) : mutex_(mutex) { mutex_.Lock(); }
  ~CUniqueLock() HXF_RELEASE() {
    if (held_) mutex_.Unlock();
  }
  CUniqueLock(const CUniqueLock&) = delete;
  CUniqueLock& operator=(const CUniqueLock&) = delete;

  void Unlock() HXF_RELEASE() {
    mutex_.Unlock();
    held_ = false;
  }
  void Lock() HXF_ACQUIRE() {
    mutex_.Lock();
    held_ = true;
  }

 private:
  Mutex& mutex_;
  bool held_ = true;
};

// Holds the shared side of a CSharedMutex for its scope.
class HXF_SCOPED_CAPABILITY CReadLock {
 public:
  explicit CReadLock(CSharedMutex& mutex) HXF_ACQUIRE_SHARED(mutex) : mutex_(mutex) {
    mutex_.LockShared();
  }
  ~CReadLock() HXF_RELEASE() { mutex_.UnlockShared(); }
  CReadLock(const CReadLock&) = delete;
  CReadLock& operator=(const CReadLock&) = delete;

 private:
  CSharedMutex& mutex_;
};

using CWriteLock = CUniqueLock<CSharedMutex>;
using CRecursiveLock = CUniqueLock<CRecursiveMutex>;

}  // namespace HXFramework
