#pragma once

// Locks the compiler checks. Clang builds (the device, and the host's
// clang-tsa preset with -Wthread-safety) see the platform's annotations; GCC
// (host default and armhf cross builds) does not know them and would reject
// them under -Werror, so there they expand to nothing.
//
// libstdc++'s std::mutex and its guards carry no annotations, so the analysis
// cannot see them being taken: the library's locks are the thin wrappers
// below, each a std::mutex or raw POSIX mutex underneath.

#include <pthread.h>

#include <mutex>

#if defined(__clang__)
#include <android-base/thread_annotations.h>
#else
#define CAPABILITY(x)
#define SCOPED_CAPABILITY
#define GUARDED_BY(x)
#define PT_GUARDED_BY(x)
#define ACQUIRED_BEFORE(...)
#define ACQUIRED_AFTER(...)
#define REQUIRES(...)
#define ACQUIRE(...)
#define RELEASE(...)
#define EXCLUDES(...)
#define NO_THREAD_SAFETY_ANALYSIS
#endif

namespace kivhal {

// A std::mutex the analysis can track.
class CAPABILITY("mutex") mutex {
  public:
    void lock() ACQUIRE() { _mutex.lock(); }
    void unlock() RELEASE() { _mutex.unlock(); }
    // For condition variables, through unique_lock::native().
    std::mutex& native() { return _mutex; }

  private:
    std::mutex _mutex;
};

// Holds a mutex for one scope.
class SCOPED_CAPABILITY lock_guard {
  public:
    explicit lock_guard(mutex& m) ACQUIRE(m) : _mutex(m) { _mutex.lock(); }
    ~lock_guard() RELEASE() { _mutex.unlock(); }
    lock_guard(const lock_guard&) = delete;
    lock_guard& operator=(const lock_guard&) = delete;

  private:
    mutex& _mutex;
};

// Holds a mutex for one scope, may drop and retake it inside, and lends the
// underlying std::unique_lock to a condition variable (whose wait returns with
// the lock held again, as the analysis assumes).
class SCOPED_CAPABILITY unique_lock {
  public:
    explicit unique_lock(mutex& m) ACQUIRE(m) : _lock(m.native()) {}
    ~unique_lock() RELEASE() {}
    void lock() ACQUIRE() { _lock.lock(); }
    void unlock() RELEASE() { _lock.unlock(); }
    std::unique_lock<std::mutex>& native() { return _lock; }
    unique_lock(const unique_lock&) = delete;
    unique_lock& operator=(const unique_lock&) = delete;

  private:
    std::unique_lock<std::mutex> _lock;
};

// A raw POSIX mutex the analysis can track; same layout and initialisers.
typedef pthread_mutex_t CAPABILITY("mutex") pthread_mutex;

inline void pthread_lock(pthread_mutex* m) ACQUIRE(*m) NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(m);
}
inline void pthread_unlock(pthread_mutex* m) RELEASE(*m) NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(m);
}

// Holds a raw POSIX mutex for one scope.
class SCOPED_CAPABILITY pthread_lock_guard {
  public:
    explicit pthread_lock_guard(pthread_mutex* m) ACQUIRE(*m) : _mutex(m) { pthread_lock(_mutex); }
    ~pthread_lock_guard() RELEASE() { pthread_unlock(_mutex); }
    pthread_lock_guard(const pthread_lock_guard&) = delete;
    pthread_lock_guard& operator=(const pthread_lock_guard&) = delete;

  private:
    pthread_mutex* _mutex;
};

}  // namespace kivhal
