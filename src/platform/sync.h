#pragma once
// Locks and conditions of the whole system, with the annotations that let clang check which lock
// guards what. The standard mutexes carry none, so no other file uses those directly.
// A member that a lock guards says ZR_GUARDED_BY(lock); a helper that expects the lock held says
// ZR_REQUIRES(lock); an operation that takes it says ZR_EXCLUDES(lock) unless it is recursive.

#include <chrono>
#include <condition_variable>
#include <mutex>

#if defined(__clang__)
#define ZR_ANNOTATION(x) __attribute__((x))
#else
#define ZR_ANNOTATION(x)
#endif
#define ZR_CAPABILITY(x) ZR_ANNOTATION(capability(x))
#define ZR_SCOPED_CAPABILITY ZR_ANNOTATION(scoped_lockable)
#define ZR_GUARDED_BY(x) ZR_ANNOTATION(guarded_by(x))
#define ZR_PT_GUARDED_BY(x) ZR_ANNOTATION(pt_guarded_by(x))
#define ZR_ACQUIRED_AFTER(...) ZR_ANNOTATION(acquired_after(__VA_ARGS__))
#define ZR_ACQUIRED_BEFORE(...) ZR_ANNOTATION(acquired_before(__VA_ARGS__))
#define ZR_REQUIRES(...) ZR_ANNOTATION(requires_capability(__VA_ARGS__))
#define ZR_ACQUIRE(...) ZR_ANNOTATION(acquire_capability(__VA_ARGS__))
#define ZR_RELEASE(...) ZR_ANNOTATION(release_capability(__VA_ARGS__))
#define ZR_TRY_ACQUIRE(...) ZR_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define ZR_EXCLUDES(...) ZR_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ZR_RETURN_CAPABILITY(x) ZR_ANNOTATION(lock_returned(x))
#define ZR_NO_THREAD_SAFETY_ANALYSIS ZR_ANNOTATION(no_thread_safety_analysis)

/// A plain mutex. Threads: any.
class ZR_CAPABILITY("mutex") ZrMutex {
 public:
  ZrMutex() = default;
  ZrMutex(const ZrMutex&) = delete;
  ZrMutex& operator=(const ZrMutex&) = delete;
  void lock() ZR_ACQUIRE() { mutex_.lock(); }
  void unlock() ZR_RELEASE() { mutex_.unlock(); }
  bool try_lock() ZR_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  friend class ZrCondition;
  std::mutex mutex_;
};

/// A mutex that its holder may take again. Threads: any.
class ZR_CAPABILITY("mutex") ZrRecursiveMutex {
 public:
  ZrRecursiveMutex() = default;
  ZrRecursiveMutex(const ZrRecursiveMutex&) = delete;
  ZrRecursiveMutex& operator=(const ZrRecursiveMutex&) = delete;
  void lock() ZR_ACQUIRE() { mutex_.lock(); }
  void unlock() ZR_RELEASE() { mutex_.unlock(); }
  bool try_lock() ZR_TRY_ACQUIRE(true) { return mutex_.try_lock(); }

 private:
  std::recursive_mutex mutex_;
};

/// Holds one lock for a scope.
template <class Mutex>
class ZR_SCOPED_CAPABILITY ZrLock {
 public:
  explicit ZrLock(Mutex& mutex) ZR_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~ZrLock() ZR_RELEASE() { mutex_.unlock(); }
  ZrLock(const ZrLock&) = delete;
  ZrLock& operator=(const ZrLock&) = delete;

 private:
  Mutex& mutex_;
};

/// Holds two locks for a scope; taken together without deadlock, whatever order other threads use.
template <class First, class Second>
class ZR_SCOPED_CAPABILITY ZrLockBoth {
 public:
  ZrLockBoth(First& first, Second& second) ZR_ACQUIRE(first, second)
      : first_(first), second_(second) {
    std::lock(first_, second_);
  }
  ~ZrLockBoth() ZR_RELEASE() {
    second_.unlock();
    first_.unlock();
  }
  ZrLockBoth(const ZrLockBoth&) = delete;
  ZrLockBoth& operator=(const ZrLockBoth&) = delete;

 private:
  First& first_;
  Second& second_;
};

/// A condition that is waited for with a ZrMutex held. Every wait has its predicate, which runs
/// with the mutex held; the state it reads changes only under that mutex. Threads: any.
class ZrCondition {
 public:
  void NotifyOne() noexcept { condition_.notify_one(); }
  void NotifyAll() noexcept { condition_.notify_all(); }

  template <class Predicate>
  void Wait(ZrMutex& mutex, Predicate ready) ZR_REQUIRES(mutex) {
    Adopted hold(mutex.mutex_);
    condition_.wait(hold.lock, ready);
  }
  /// Answers what the predicate says at the end. No: the deadline passed before it held.
  template <class Predicate>
  bool WaitUntil(ZrMutex& mutex, std::chrono::steady_clock::time_point deadline, Predicate ready)
      ZR_REQUIRES(mutex) {
    Adopted hold(mutex.mutex_);
    return condition_.wait_until(hold.lock, deadline, ready);
  }
  template <class Predicate>
  bool WaitFor(ZrMutex& mutex, std::chrono::steady_clock::duration limit, Predicate ready)
      ZR_REQUIRES(mutex) {
    return WaitUntil(mutex, std::chrono::steady_clock::now() + limit, ready);
  }

 private:
  // The caller keeps the mutex: the standard lock only borrows it for the wait.
  struct Adopted {
    explicit Adopted(std::mutex& mutex) : lock(mutex, std::adopt_lock) {}
    ~Adopted() { lock.release(); }
    std::unique_lock<std::mutex> lock;
  };
  std::condition_variable condition_;
};
