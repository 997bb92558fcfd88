// Clang's thread-safety attributes, named for what they declare. Under clang with
// -Wthread-safety (the clang presets), the compiler checks that every field marked
// HXF_GUARDED_BY is touched only with its lock held, that HXF_REQUIRES helpers are called
// with it, and that HXF_EXCLUDES operations are entered without it. Other compilers see
// nothing.
#pragma once

#if defined(__clang__)
#define HXF_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define HXF_THREAD_ANNOTATION(x)
#endif

// A type that is a lock.
#define HXF_CAPABILITY(name) HXF_THREAD_ANNOTATION(capability(name))
// An RAII type that holds a lock for its scope.
#define HXF_SCOPED_CAPABILITY HXF_THREAD_ANNOTATION(scoped_lockable)
// The field is read and written only with `lock` held (reads may take its shared side).
#define HXF_GUARDED_BY(lock) HXF_THREAD_ANNOTATION(guarded_by(lock))
#define HXF_PT_GUARDED_BY(lock) HXF_THREAD_ANNOTATION(pt_guarded_by(lock))
// The lock order: this lock is taken only after (before) the ones named.
#define HXF_ACQUIRED_AFTER(...) HXF_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define HXF_ACQUIRED_BEFORE(...) HXF_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
// The function is called with the lock held (exclusively, or at least shared).
#define HXF_REQUIRES(...) HXF_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define HXF_REQUIRES_SHARED(...) HXF_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
// The function takes or releases the lock.
#define HXF_ACQUIRE(...) HXF_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define HXF_ACQUIRE_SHARED(...) HXF_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define HXF_RELEASE(...) HXF_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define HXF_RELEASE_SHARED(...) HXF_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define HXF_RELEASE_GENERIC(...) HXF_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
// The function must not be entered with the lock held (it takes it, or calls out).
#define HXF_EXCLUDES(...) HXF_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// The function returns a reference to the lock.
#define HXF_RETURN_CAPABILITY(x) HXF_THREAD_ANNOTATION(lock_returned(x))
// The analysis cannot follow this function (say why where it is used).
#define HXF_NO_THREAD_SAFETY_ANALYSIS HXF_THREAD_ANNOTATION(no_thread_safety_analysis)
