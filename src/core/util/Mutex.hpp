// Mutex: a std::mutex that Clang's thread-safety analysis knows as a lock, the two
// scoped holders of it, and the macros that state which lock guards what.
//
// With Clang and -Wthread-safety (the clang build: OVL_THREAD_SAFETY_ANALYSIS, run by
// `make test-clang`) the compiler checks, function by function, that
//   - a member declared GUARDED_BY(m) is read or written only with m held;
//   - a function declared REQUIRES(m) is called only with m held, and its body may use
//     what m guards;
//   - a function declared EXCLUDES(m) is not called with m held (it takes m itself);
//   - every lock taken in a function is released on every path out of it (unless the
//     function says otherwise).
// With any other compiler the macros are empty and the types are exactly the standard
// ones underneath, with no cost beyond them.
//
// What the analysis does not follow, and how the code here deals with it:
//   - A lambda's body is a function of its own that holds nothing: a lambda run under a
//     lock declares REQUIRES(m) itself (`[&]() REQUIRES(m) { ... }`), or takes what it
//     needs through its captures.
//   - A condition-variable wait releases and retakes the mutex inside the standard
//     library; the analysis sees the lock held throughout, which is what holds when the
//     wait returns. Waits are written as `while (!ready) cv.wait(lock.native());` rather
//     than with a predicate lambda, so the condition is read where the lock is known held.
//   - Constructors and destructors are not checked, nor are the bodies of functions that
//     are declared to take or release a lock (a lock wrapper's own).
//   - NO_THREAD_SAFETY_ANALYSIS switches the check off for one function; it is kept for
//     small functions whose comment says why (a setter that runs before the object is
//     shared, say).
#pragma once

#include <mutex>

#if defined(__clang__)
#define OVL_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define OVL_THREAD_ANNOTATION(x)
#endif

// On a class: its objects are locks (`kind` names them in diagnostics).
#define CAPABILITY(kind) OVL_THREAD_ANNOTATION(capability(kind))
// On a class: its objects hold a lock from construction to destruction.
#define SCOPED_CAPABILITY OVL_THREAD_ANNOTATION(scoped_lockable)
// On a member: read and written only with the lock held.
#define GUARDED_BY(lock) OVL_THREAD_ANNOTATION(guarded_by(lock))
// On a raw pointer member: what it points to is used only with the lock held.
#define PT_GUARDED_BY(lock) OVL_THREAD_ANNOTATION(pt_guarded_by(lock))
// On a function: the caller holds the locks; they are held on return.
#define REQUIRES(...) OVL_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
// On a function: the caller does not hold the locks (the function takes them).
#define EXCLUDES(...) OVL_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
// On a function: takes the locks (none named: the object itself) and returns holding them.
#define ACQUIRE(...) OVL_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
// On a function: releases the locks (none named: the object itself).
#define RELEASE(...) OVL_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
// On a function: TRY_ACQUIRE(result, locks...) takes the locks when it returns `result`.
#define TRY_ACQUIRE(...) OVL_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
// On a function: not checked.
#define NO_THREAD_SAFETY_ANALYSIS OVL_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace storage::overlayprovider {

// A std::mutex known to the analysis. Not copyable or movable.
class CAPABILITY("mutex") Mutex {
 public:
  Mutex() = default;
  Mutex(Mutex const&) = delete;
  Mutex& operator=(Mutex const&) = delete;

  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }
  bool try_lock() TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class UniqueLock;
  std::mutex mutex_;
};

// Holds a Mutex from construction to destruction, as std::lock_guard.
class SCOPED_CAPABILITY LockGuard {
 public:
  explicit LockGuard(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~LockGuard() RELEASE() { mutex_.unlock(); }
  LockGuard(LockGuard const&) = delete;
  LockGuard& operator=(LockGuard const&) = delete;

 private:
  Mutex& mutex_;
};

// Holds a Mutex from construction; may let it go and take it again; releases it on
// destruction if it is held, as std::unique_lock (always locking on construction).
// native() is the std::unique_lock underneath, to be handed to a std::condition_variable
// wait (and waits of the same shape); it must not be unlocked, released or moved through.
class SCOPED_CAPABILITY UniqueLock {
 public:
  explicit UniqueLock(Mutex& mutex) ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~UniqueLock() RELEASE() {}
  UniqueLock(UniqueLock const&) = delete;
  UniqueLock& operator=(UniqueLock const&) = delete;

  void lock() ACQUIRE() { lock_.lock(); }
  void unlock() RELEASE() { lock_.unlock(); }

  std::unique_lock<std::mutex>& native() { return lock_; }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace storage::overlayprovider
