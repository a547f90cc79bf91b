// zem::Mutex, zem::MutexLock and zem::CondVar: std::mutex and
// std::condition_variable with clang's thread-safety annotations, so that
// the members a mutex guards are checked at compile time.
//
//   zem::Mutex mu;
//   int count ZEM_GUARDED_BY(mu);
//   void bump() ZEM_EXCLUDES(mu) { zem::MutexLock lock(&mu); ++count; }
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

#include "common/ThreadAnnotations.h"

namespace zem {

// The annotated wrapper around a standard mutex type; use the aliases below.
template <typename StdMutex>
class ZEM_CAPABILITY("mutex") BasicMutex {
  public:
    BasicMutex() = default;
    BasicMutex(const BasicMutex&) = delete;
    BasicMutex& operator=(const BasicMutex&) = delete;

    void lock() ZEM_ACQUIRE() { mu.lock(); }
    void unlock() ZEM_RELEASE() { mu.unlock(); }
    bool try_lock() ZEM_TRY_ACQUIRE(true) { return mu.try_lock(); }

    // Tries for up to `limit`, polling: the thread sanitizer does not follow
    // the timed-lock calls, so a timed mutex would hide the ordering it gives.
    bool lockWithin(std::chrono::milliseconds limit) ZEM_TRY_ACQUIRE(true) {
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (!mu.try_lock()) {
            if (std::chrono::steady_clock::now() >= deadline) return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        return true;
    }

    // For code whose locking the analysis cannot follow; says so to it.
    void assertHeld() ZEM_ASSERT_CAPABILITY(this) {}

  private:
    friend class CondVar;
    StdMutex mu;
};

using Mutex = BasicMutex<std::mutex>;
// For a lock that a callback may take again on the thread that holds it. The
// analysis does not model the recursion: take it once per function.
using RecursiveMutex = BasicMutex<std::recursive_mutex>;

// Holds a mutex for its scope.
template <typename M>
class ZEM_SCOPED_CAPABILITY BasicMutexLock {
  public:
    explicit BasicMutexLock(M* mu) ZEM_ACQUIRE(mu) : mu(mu) { mu->lock(); }
    ~BasicMutexLock() ZEM_RELEASE() { mu->unlock(); }
    BasicMutexLock(const BasicMutexLock&) = delete;
    BasicMutexLock& operator=(const BasicMutexLock&) = delete;

  private:
    M* const mu;
};

using MutexLock = BasicMutexLock<Mutex>;
using RecursiveMutexLock = BasicMutexLock<RecursiveMutex>;

// A condition variable whose waits name the Mutex they release and take
// again.
class CondVar {
  public:
    void wait(Mutex* mu) ZEM_REQUIRES(mu) {
        std::unique_lock<std::mutex> lock(mu->mu, std::adopt_lock);
        cv.wait(lock);
        lock.release();
    }
    // False when `limit` passed without a wake-up.
    template <typename Rep, typename Period>
    bool waitFor(Mutex* mu, std::chrono::duration<Rep, Period> limit) ZEM_REQUIRES(mu) {
        std::unique_lock<std::mutex> lock(mu->mu, std::adopt_lock);
        const bool woken = cv.wait_for(lock, limit) == std::cv_status::no_timeout;
        lock.release();
        return woken;
    }
    void notifyOne() { cv.notify_one(); }
    void notifyAll() { cv.notify_all(); }

  private:
    std::condition_variable cv;
};

}  // namespace zem
