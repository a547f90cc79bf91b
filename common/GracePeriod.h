// Deferred reclamation for data that logging threads read without a lock.
//
// A writer replaces a shared pointer, calls zem::waitForReaders() and only
// then frees what the pointer used to name: by the time the wait returns,
// every thread that could have loaded the old value has left the read
// section in which it used it. Readers never wait and never write a cache
// line another thread writes:
//
//   // logging thread                     // campaign thread
//   zem::ReadSection section;             published.store(next);
//   const Table* t = published.load();    zem::waitForReaders();
//   ... use t ...                         delete old;
//
// Each thread that reads has a record of its own, found through one
// thread-local pointer, holding a sequence number that is odd while the
// thread is inside a read section. Entering and leaving are two plain
// stores to that record. The writer makes them visible with one
// process-wide barrier, membarrier(MEMBARRIER_CMD_PRIVATE_EXPEDITED), which
// makes every running thread of the process execute a full fence; where the
// kernel does not offer it, entering a section costs a full fence instead.
// The writer then waits for each record it saw odd to change. This is the
// scheme of user-space RCU's memb flavour.
//
// A thread's record is made on its first read section (one allocation per
// thread, under a lock) and handed to the next new thread when the thread
// exits; records are never freed, so the writer can look at them without a
// lock. Read sections do not nest, and waitForReaders() must not be called
// from inside one.
#pragma once

#include <atomic>
#include <cstdint>

namespace zem {

namespace internal {

struct alignas(64) ReaderRecord {
    // Odd while the owning thread is inside a read section. Written only by
    // the owner.
    std::atomic<uint64_t> seq{0};
    ReaderRecord* next = nullptr;
    bool inUse = false;
};

// True once the process-wide barrier is registered (set before the first
// collector exists, never cleared).
extern std::atomic<bool> gExpedited;

// The calling thread's record, made on first use.
ReaderRecord* attachThread();

inline ReaderRecord*& threadRecord() {
    static thread_local ReaderRecord* record = nullptr;
    return record;
}

}  // namespace internal

// Registers the process-wide barrier if the kernel offers it. Cheap after
// the first call; call before any read section of the data it protects can
// run.
void initGracePeriods();

// Marks the calling thread as reading shared data for its scope.
class ReadSection {
  public:
    ReadSection() {
        internal::ReaderRecord* r = internal::threadRecord();
        if (__builtin_expect(r == nullptr, 0)) r = internal::attachThread();
        record = r;
        const uint64_t s = r->seq.load(std::memory_order_relaxed) + 1;
        if (__builtin_expect(internal::gExpedited.load(std::memory_order_relaxed), 1)) {
            r->seq.store(s, std::memory_order_relaxed);
            // Keeps the compiler from moving the section's loads above the
            // store; the writer's barrier does the same for the processor.
            std::atomic_signal_fence(std::memory_order_seq_cst);
        } else {
            r->seq.exchange(s, std::memory_order_seq_cst);
        }
    }
    ~ReadSection() {
        record->seq.store(record->seq.load(std::memory_order_relaxed) + 1,
                          std::memory_order_release);
    }
    ReadSection(const ReadSection&) = delete;
    ReadSection& operator=(const ReadSection&) = delete;

  private:
    internal::ReaderRecord* record;
};

// Returns once every read section that was running when it was called has
// ended. Call after publishing the new value with a sequentially consistent
// store and before freeing the old one. Blocks; never from a read section.
void waitForReaders();

}  // namespace zem
