#include "common/GracePeriod.h"

#include <linux/membarrier.h>
#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cassert>
#include <mutex>
#include <thread>
#include <utility>
#include <vector>

namespace zem {
namespace internal {

std::atomic<bool> gExpedited{false};

namespace {

std::mutex gRecordsMutex;
// Every record ever made, newest first; only grows.
std::atomic<ReaderRecord*> gRecords{nullptr};
pthread_key_t gExitKey;

int membarrier(int cmd) {
    return static_cast<int>(syscall(__NR_membarrier, cmd, 0, 0));
}

// A thread's record is handed back when the thread exits.
void releaseRecord(void* p) {
    auto* record = static_cast<ReaderRecord*>(p);
    std::lock_guard<std::mutex> lock(gRecordsMutex);
    record->inUse = false;
    if (threadRecord() == record) threadRecord() = nullptr;
}

void makeExitKey() {
    pthread_key_create(&gExitKey, releaseRecord);
}

}  // namespace

ReaderRecord* attachThread() {
    static pthread_once_t once = PTHREAD_ONCE_INIT;
    pthread_once(&once, makeExitKey);
    ReaderRecord* record = nullptr;
    {
        std::lock_guard<std::mutex> lock(gRecordsMutex);
        for (ReaderRecord* r = gRecords.load(std::memory_order_relaxed); r != nullptr;
             r = r->next) {
            if (!r->inUse) {
                record = r;
                break;
            }
        }
        if (record == nullptr) {
            record = new ReaderRecord();
            record->next = gRecords.load(std::memory_order_relaxed);
            gRecords.store(record, std::memory_order_release);
        }
        record->inUse = true;
    }
    pthread_setspecific(gExitKey, record);
    threadRecord() = record;
    return record;
}

}  // namespace internal

void initGracePeriods() {
    static std::once_flag once;
    std::call_once(once, [] {
        const int supported = internal::membarrier(MEMBARRIER_CMD_QUERY);
        if (supported < 0 || (supported & MEMBARRIER_CMD_PRIVATE_EXPEDITED) == 0) return;
        if (internal::membarrier(MEMBARRIER_CMD_REGISTER_PRIVATE_EXPEDITED) != 0) return;
        internal::gExpedited.store(true, std::memory_order_relaxed);
    });
}

void waitForReaders() {
    using internal::ReaderRecord;
    if (internal::gExpedited.load(std::memory_order_relaxed)) {
        // Every other thread's section entry is now visible to us, and every
        // load it makes after that entry sees the value published before
        // this call.
        internal::membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED);
    }
    // Without the barrier, readers enter with a sequentially consistent
    // exchange; the publishing store and the loads below are sequentially
    // consistent too, so either a reader's entry is seen here or its load
    // sees the new value.
    const ReaderRecord* self = internal::threadRecord();
    std::vector<std::pair<const ReaderRecord*, uint64_t>> busy;
    for (const ReaderRecord* r = internal::gRecords.load(std::memory_order_acquire); r != nullptr;
         r = r->next) {
        const uint64_t s = r->seq.load(std::memory_order_seq_cst);
        if ((s & 1) == 0) continue;
        // A section of our own would never end while we wait for it.
        assert(r != self);
        if (r == self) continue;
        busy.emplace_back(r, s);
    }
    for (const auto& [record, seen] : busy) {
        // Any change means the section seen has ended; a later one started
        // after the new value was published and cannot hold the old one.
        for (int spins = 0; record->seq.load(std::memory_order_acquire) == seen; ++spins) {
            if (spins < 64) {
                std::this_thread::yield();
            } else {
                std::this_thread::sleep_for(std::chrono::microseconds(50));
            }
        }
    }
}

}  // namespace zem
