// Platform bookkeeping that ThreadSanitizer must not see.
//
// The simulated kernel keeps tables of its own (lock order, IRP owners, the
// clock, the per-object state of dispatcher objects) behind host mutexes that
// Windows does not have. If the race detector saw them, any two threads that
// pass through the kernel would look ordered and real races in the driver
// would stay hidden. Inside an untraced region the detector ignores both the
// synchronisation and the memory accesses of the calling thread; the data the
// regions guard is only ever touched inside such regions.
#pragma once

#include <mutex>

#if defined(__SANITIZE_THREAD__)
#define WINSIM_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define WINSIM_TSAN 1
#endif
#endif

#ifdef WINSIM_TSAN
extern "C" {
void AnnotateIgnoreSyncBegin(const char* file, int line);
void AnnotateIgnoreSyncEnd(const char* file, int line);
void __tsan_ignore_thread_begin();
void __tsan_ignore_thread_end();
}
#endif

namespace winsim::kernel {

inline void BeginUntraced() {
#ifdef WINSIM_TSAN
    AnnotateIgnoreSyncBegin(__FILE__, __LINE__);
    __tsan_ignore_thread_begin();
#endif
}

inline void EndUntraced() {
#ifdef WINSIM_TSAN
    __tsan_ignore_thread_end();
    AnnotateIgnoreSyncEnd(__FILE__, __LINE__);
#endif
}

// The calling thread is untraced for the object's lifetime.
class UntracedScope {
  public:
    UntracedScope() { BeginUntraced(); }
    ~UntracedScope() { EndUntraced(); }
    UntracedScope(const UntracedScope&) = delete;
    UntracedScope& operator=(const UntracedScope&) = delete;
};

// The calling thread's memory accesses are invisible to the detector for the
// object's lifetime; its synchronisation still counts. For fields that the
// platform and the driver both touch without a common lock on Windows too.
class UnwatchedAccessScope {
  public:
    UnwatchedAccessScope() {
#ifdef WINSIM_TSAN
        __tsan_ignore_thread_begin();
#endif
    }
    ~UnwatchedAccessScope() {
#ifdef WINSIM_TSAN
        __tsan_ignore_thread_end();
#endif
    }
    UnwatchedAccessScope(const UnwatchedAccessScope&) = delete;
    UnwatchedAccessScope& operator=(const UnwatchedAccessScope&) = delete;
};

// A mutex whose holder is untraced from lock to unlock: usable with
// std::lock_guard / std::unique_lock (not with std::condition_variable).
class UntracedMutex {
  public:
    void lock() {
        BeginUntraced();
        mutex_.lock();
    }
    void unlock() {
        mutex_.unlock();
        EndUntraced();
    }

  private:
    std::mutex mutex_;
};

}  // namespace winsim::kernel
