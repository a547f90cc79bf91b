// KPISerializer: turns closed KPI windows into cache files and hands every
// finished file to its collector for delivery.
//
// Owned by one zem_collector. Write() is called by any thread that closes a
// window: it serializes the record on the caller's thread and queues the
// bytes. One writer thread ("zem_writer") appends queued records to the
// current "kpidata.<seconds>" file in the cache directory; once the file has
// grown past the size threshold it is closed, passed to
// zem_collector::SendData, and the next file is created. The writer runs from
// Initialize() (campaign start) until Finalize() or stopWriterThread().
//
// Locks: queueMutex guards the queue, the stop flag and the current file
// name, and is held only to push or pop records. File I/O and SendData run
// without it, so a producer never waits for the disk or the transport.
//
// Every closed window's log lines are printed by the writer too, in queue
// order: an emitted window's with its record, an empty window's from a
// record that carries only its lines. So the lines come out in the order the
// windows closed, and a batch's lines all come before the delivery of a
// file that the batch fills.
//
// Under a steady stream of records the writer wakes on its own every
// millisecond and writes what has queued in one batch, so producers do not
// make a system call per record; when the stream stops it sleeps until the
// next record.
//
// Memory: the queue holds at most kMaxQueuedBytes (records and their
// bookkeeping, counting the batch the writer is writing). A record that
// would pass it is dropped and counted; one ERROR line a second at most
// says how many went, and the count per file is logged when the file is
// closed. The version record of a new file is written as the file is
// created, never queued, so it cannot be dropped or overtaken.
//
// A cache file is the plain concatenation of serialized olvan::KPIData
// messages and parses as one KPIData holding every window. Each file the
// serializer creates gets one record holding only version = V1.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "common/Mutex.h"
#include "metric.pb.h"
#include "serializer/CacheFile.h"

class zem_collector;

class KPISerializer {
  public:
    // Creates no file and no thread. `collector` may be null: files are then
    // closed and left in `cacheDir`.
    KPISerializer(const std::string& cacheDir, zem_collector* collector);
    ~KPISerializer();

    KPISerializer(const KPISerializer&) = delete;
    KPISerializer& operator=(const KPISerializer&) = delete;

    // Arms the serializer for a campaign: stores the thresholds, reopens the
    // newest leftover cache file for append (or creates a new one), and starts
    // the writer thread. Returns 0, or -1 when the cache directory cannot be
    // read or the newest leftover file cannot be opened. Called again while
    // the writer runs (a campaign merged into a running one), it only takes
    // the new thresholds.
    int Initialize(unsigned int size_threshold, unsigned int time_threshold);

    // What a closed window says about itself in the log: printed as
    // "<kind>::Serialize(), numSamples=%d, tsStart=%ld, tsEnd=%ld", followed
    // by "numSamples < 1, so skipping" for an empty window, by the writer
    // thread when it takes the window's record, so that the logging thread
    // pays neither for the formatting nor for the log write.
    struct WindowNote {
        const char* kind = nullptr;  // null: nothing to print
        unsigned int numSamples = 0;
        long tsStart = 0;
        long tsEnd = 0;
    };

    // Serializes `data` now, on the calling thread, and queues it for the
    // writer. Returns 0. Any thread; never waits for I/O.
    int Write(olvan::KPIData& data);
    // The same, with the window's log line to print when it is written.
    int Write(olvan::KPIData& data, const WindowNote& note);
    // Queues the lines of an empty window, which has no record, behind the
    // records of the windows closed before it. Any thread; never waits for
    // I/O. It costs the queue kRecordOverhead and, like a record, is dropped
    // (and counted) when the queue is full.
    void WriteEmpty(const WindowNote& note);

    // Closes the current file and hands its path to the collector, even when
    // no file was open. Returns 0. Not while the writer thread runs.
    int Flush();

    // Stops the writer (queued records are still written), clears the
    // thresholds and flushes. Returns 0.
    int Finalize();

    // Asks the writer thread to finish, waits for it to write every queued
    // record, and joins it. Does nothing when no writer runs.
    void stopWriterThread();

    // Hands `filename` to the collector's SendData, if there is a collector.
    int SendToOlvan(std::string& filename);

    std::string GetCurrFileName();

    // Whole seconds of the system clock since the Unix epoch: the number that
    // names cache files.
    static int64_t currTs();

    // The record queue's bound: 16 MiB. At the largest size threshold a
    // campaign may set (4 MiB) the queue still takes four full files' worth
    // of records while the writer delivers one, and the largest record (a
    // blob window, about 1 MiB) fits many times over.
    static constexpr size_t kMaxQueuedBytes = 16u << 20;
    // What a queued record costs beyond its bytes: the shared string, its
    // control block and its queue slot.
    static constexpr size_t kRecordOverhead = 128;

    // The size threshold in force (0 between campaigns).
    unsigned int sizeThresholdForTest() const { return sizeThreshold; }
    bool writerRunning() const { return writerThread != nullptr; }

  private:
    // A window's record and its lines; an empty window's has no bytes.
    struct Record {
        std::shared_ptr<const std::string> bytes;
        WindowNote note;
    };

    int GetFilesFromCache(std::vector<std::string>& files);
    // Creates the next file and writes its version record.
    void createFout();
    void writeVersionRecord();
    // Marks the file failed after a write error, logged once per file.
    void writeFailed();
    void writer_func();
    // Appends `records` to the current file in order, closing the file and
    // creating the next one at the first record that takes it past the size
    // threshold. Runs on the writer thread only.
    void writeRecords(std::deque<Record>& records);
    zem::CacheOpen openForAppend(const std::string& path);
    void queueRecord(olvan::KPIData& data, const WindowNote& note, bool bounded);
    void pushRecord(Record&& record, size_t cost, bool bounded);
    static size_t recordCost(const std::string& bytes);

    // Hands the full file over and opens the next one. Writer thread only.
    void rollOver();
    // The number that names the next file: the current second, unless a
    // file of this second (or the next) is still here because its delivery
    // failed; see rolloverHeld.
    int64_t nextFileKey();
    // True while the current file, named ahead of the clock after a failed
    // delivery, must not be rolled over yet.
    bool rolloverHeld() const;
    static void printNote(const WindowNote& note);
    // Debug builds check that a writer-thread function runs there.
    void assertOnWriter() const;
    bool writeAll(const struct iovec* iov, int count);

    const std::string prefix;
    // The writer reads the size threshold to roll files over, and a campaign
    // merged into a running one may change it meanwhile: atomic. The time
    // threshold is kept for the campaign; nothing here reads it (windows
    // close by their KPIs' own rules).
    std::atomic<unsigned int> sizeThreshold{0};
    std::atomic<unsigned int> timeThreshold{0};
    const std::string cacheDir;
    zem_collector* const collector;

    // The open cache file: descriptor, its size, and whether the last open or
    // write failed (records written to a failed file are lost, and no size
    // rollover happens until the next file opens).
    int fd = -1;
    int64_t fileSize = 0;
    bool failed = false;
    bool writeErrorLogged = false;  // one line per file about a failed open or write
    // Entries under new files' names found not to be cache files (writer
    // side only), so that each gets one ERROR line rather than one per
    // rollover.
    std::set<std::string> reportedEntries;
    // Changed under queueMutex (GetCurrFileName reads it from any thread);
    // the writer, or the campaign thread while no writer runs, reads it
    // without.
    std::string currFileName;
    // The number in the current file's name, the highest number of a file
    // that a rollover handed over but that is still in the cache directory
    // (-1: none), and the second before which the current file is not rolled
    // over (0: no such hold). Writer thread only, or with no writer running.
    int64_t currKey = 0;
    int64_t keptKey = -1;
    int64_t holdUntil = 0;

    zem::Mutex queueMutex;
    std::deque<Record> queue ZEM_GUARDED_BY(queueMutex);
    zem::CondVar queueCv;
    bool stopWriter ZEM_GUARDED_BY(queueMutex) = false;
    // True while the writer sleeps with no deadline: only then does a
    // producer pay for waking it. After writing, the writer naps for
    // kWriterNap instead, collecting what arrives meanwhile in one batch.
    bool writerIdle ZEM_GUARDED_BY(queueMutex) = false;
    std::unique_ptr<std::thread> writerThread;
    // The writer thread while it runs, for the debug checks of the functions
    // only it may call.
    std::atomic<std::thread::id> writerId{};

    // The bound on the queue.
    size_t queuedBytes ZEM_GUARDED_BY(queueMutex) = 0;
    uint64_t droppedSinceReport ZEM_GUARDED_BY(queueMutex) = 0;
    std::chrono::steady_clock::time_point lastDropReport ZEM_GUARDED_BY(queueMutex){};
    // Drops since the current file opened; logged when it closes.
    std::atomic<uint64_t> droppedSinceFile{0};
};
