// Taking a lock with a time limit by polling try_lock: the thread
// sanitizer's interceptors do not follow the timed-lock calls, so a timed
// mutex would hide the ordering it gives from the sanitizer.
#pragma once

#include <chrono>
#include <thread>

namespace zem {

// Tries to take `lock` (not yet owned) for up to `limit`; true once owned.
template <typename Lock>
bool lockWithin(Lock& lock, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!lock.try_lock()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

}  // namespace zem
