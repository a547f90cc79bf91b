#include "serializer/KPISerializer.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "collector/zem_collector.h"
#include "common/ZemLog.h"
#include "kpi/KPI.h"
#include "serializer/CacheFile.h"

namespace {

// Short, so that at modest rates the writer is idle (and woken at once) by
// the time the next record comes: a record waits in memory, where a killed
// process loses it, at most this long.
constexpr std::chrono::milliseconds kWriterNap{1};

// How many names after the current second's a new file may take when
// entries that are not cache files hold the names before it.
constexpr int64_t kMaxNameSkips = 64;
// Names of such entries remembered, so each is reported once.
constexpr size_t kMaxReportedEntries = 256;

// At most one line a second about dropped records.
constexpr std::chrono::seconds kDropReportInterval{1};

// The timestamp key of a cache file name: the number after the prefix, read
// as strtoull reads it (leading blanks and a sign accepted, stops at the
// first non-digit, no digits give 0).
unsigned long long fileKey(const std::string& name, size_t prefixLen) {
    return std::strtoull(name.c_str() + prefixLen, nullptr, 10);
}

}  // namespace

KPISerializer::KPISerializer(const std::string& cacheDir, zem_collector* collector)
    : prefix("kpidata."), cacheDir(cacheDir), collector(collector) {}

KPISerializer::~KPISerializer() {
    stopWriterThread();
    // An open file is closed without being handed to anybody.
    if (fd >= 0) close(fd);
}

int64_t KPISerializer::currTs() {
    return curr_ts();
}

std::string KPISerializer::GetCurrFileName() {
    zem::MutexLock lock(&queueMutex);
    return currFileName;
}

int KPISerializer::GetFilesFromCache(std::vector<std::string>& files) {
    DIR* dir = opendir(cacheDir.c_str());
    if (dir == nullptr) {
        ZEM_LOGE("Error opening cache directory: %s", cacheDir.c_str());
        return -1;
    }
    while (const dirent* entry = readdir(dir)) {
        if (std::strncmp(entry->d_name, prefix.c_str(), prefix.size()) == 0) {
            files.emplace_back(entry->d_name);
        }
    }
    closedir(dir);
    return 0;
}

int KPISerializer::Initialize(unsigned int size_threshold, unsigned int time_threshold) {
    if (writerThread) {
        // A campaign merged into a running one keeps the file and the writer.
        sizeThreshold = size_threshold;
        timeThreshold = time_threshold;
        return 0;
    }
    sizeThreshold = size_threshold;
    timeThreshold = time_threshold;

    std::vector<std::string> files;
    int rc = GetFilesFromCache(files);
    if (rc != 0) {
        ZEM_LOGE("Failed to get files from cache dir: %d", rc);
        return -1;
    }

    // The newest leftover cache file keeps growing; older ones stay where
    // they are. An entry that only looks like one (a link, a pipe, a
    // directory) is passed over, so the next older file is the newest.
    const size_t n = prefix.size();
    std::stable_sort(files.begin(), files.end(), [n](const std::string& a, const std::string& b) {
        return fileKey(a, n) < fileKey(b, n);
    });
    bool reopened = false;
    while (!files.empty() && !reopened) {
        const std::string path = cacheDir + "/" + files.back();
        const int64_t key = static_cast<int64_t>(fileKey(files.back(), n));
        files.pop_back();
        switch (openForAppend(path)) {
            case zem::CacheOpen::kOk: {
                zem::MutexLock lock(&queueMutex);
                currFileName = path;
                currKey = key;
                holdUntil = 0;
                reopened = true;
                break;
            }
            case zem::CacheOpen::kFailed:
                ZEM_LOGE("Failed to open file: %s", path.c_str());
                return -1;
            case zem::CacheOpen::kNotCacheFile:
            case zem::CacheOpen::kMissing:  // gone since the folder was read
                break;
        }
    }
    if (!reopened) createFout();

    {
        zem::MutexLock lock(&queueMutex);
        stopWriter = false;
    }
    writerThread = std::make_unique<std::thread>(&KPISerializer::writer_func, this);
    return 0;
}

zem::CacheOpen KPISerializer::openForAppend(const std::string& path) {
    if (fd >= 0) close(fd);
    zem::CacheOpen why;
    fd = zem::openCacheFileForAppend(path, &why);
    if (fd < 0) {
        failed = true;
        return why;
    }
    struct stat st;
    fileSize = fstat(fd, &st) == 0 ? st.st_size : 0;
    failed = false;
    writeErrorLogged = false;
    return why;
}

void KPISerializer::createFout() {
    // Two files created within one second share a name: the second one is
    // the first reopened for append. A name taken by something that is not
    // a cache file is skipped for the next second's, so that planted entries
    // cannot stop the campaign from writing.
    const int64_t first = nextFileKey();
    std::string path;
    zem::CacheOpen why = zem::CacheOpen::kFailed;
    for (int64_t ts = first; ts < first + kMaxNameSkips; ++ts) {
        path = cacheDir + "/kpidata." + std::to_string(ts);
        {
            zem::MutexLock lock(&queueMutex);
            currFileName = path;
            currKey = ts;
        }
        // An entry already reported is passed over quietly while it stays:
        // rollovers within one second meet the same names again.
        if (reportedEntries.count(path) != 0 && zem::isNotCacheFile(path)) {
            why = zem::CacheOpen::kNotCacheFile;
            continue;
        }
        why = openForAppend(path);
        if (why != zem::CacheOpen::kNotCacheFile) break;
        if (reportedEntries.size() >= kMaxReportedEntries) reportedEntries.clear();
        reportedEntries.insert(path);
    }
    // Records written to a file that could not be created are lost: say so
    // once, for this file.
    if (why != zem::CacheOpen::kOk) {
        const int err = errno;
        failed = true;
        if (why == zem::CacheOpen::kNotCacheFile) {
            ZEM_LOGE("Failed to open file: %s: no free cache file name", path.c_str());
        } else {
            ZEM_LOGE("Failed to open file: %s: %s", path.c_str(), strerror(err));
        }
        writeErrorLogged = true;
    }
    writeVersionRecord();
}

void KPISerializer::writeVersionRecord() {
    // Written at once rather than queued: records queued while the previous
    // file was being handed over, and the rest of the batch that filled it,
    // must land after the version record that starts the new file.
    if (failed) return;
    olvan::KPIData version;
    version.set_version(olvan::V1);
    const std::string bytes = version.SerializeAsString();
    struct iovec iov = {const_cast<char*>(bytes.data()), bytes.size()};
    if (!writeAll(&iov, 1)) writeFailed();
}

void KPISerializer::writeFailed() {
    const int err = errno;
    failed = true;
    if (!writeErrorLogged) {
        writeErrorLogged = true;
        ZEM_LOGE("Failed to write file: %s: %s", currFileName.c_str(), strerror(err));
    }
}

int KPISerializer::Write(olvan::KPIData& data) {
    return Write(data, WindowNote{});
}

int KPISerializer::Write(olvan::KPIData& data, const WindowNote& note) {
    queueRecord(data, note, /*bounded=*/true);
    return 0;
}

size_t KPISerializer::recordCost(const std::string& bytes) {
    // The record's buffer plus what holds it: the shared string, its control
    // block and its queue slot.
    return bytes.capacity() + kRecordOverhead;
}

void KPISerializer::WriteEmpty(const WindowNote& note) {
    pushRecord(Record{nullptr, note}, kRecordOverhead, /*bounded=*/true);
}

void KPISerializer::queueRecord(olvan::KPIData& data, const WindowNote& note, bool bounded) {
    auto bytes = std::make_shared<std::string>();
    data.SerializeToString(bytes.get());
    const size_t cost = recordCost(*bytes);
    pushRecord(Record{std::move(bytes), note}, cost, bounded);
}

void KPISerializer::pushRecord(Record&& record, size_t cost, bool bounded) {
    bool wake = false;
    uint64_t report = 0;
    {
        zem::MutexLock lock(&queueMutex);
        if (bounded && queuedBytes + cost > kMaxQueuedBytes) {
            // The writer has fallen that far behind: the newest record goes.
            droppedSinceFile.fetch_add(1, std::memory_order_relaxed);
            ++droppedSinceReport;
            const auto t = std::chrono::steady_clock::now();
            if (lastDropReport == std::chrono::steady_clock::time_point{} ||
                t - lastDropReport >= kDropReportInterval) {
                report = droppedSinceReport;
                droppedSinceReport = 0;
                lastDropReport = t;
            }
        } else {
            queuedBytes += cost;
            queue.push_back(std::move(record));
            wake = writerIdle;
            writerIdle = false;
        }
    }
    if (report != 0) {
        ZEM_LOGE("Record queue full (%zu bytes): %llu records dropped", kMaxQueuedBytes,
                 static_cast<unsigned long long>(report));
    }
    if (wake) queueCv.notifyOne();
}

bool KPISerializer::writeAll(const struct iovec* iov, int count) {
    std::vector<struct iovec> rest;
    while (count > 0) {
        ssize_t n = writev(fd, iov, count);
        if (n < 0) {
            if (errno == EINTR) continue;
            return false;
        }
        fileSize += n;
        // Skip what was written; a short write resumes mid-record.
        while (count > 0 && static_cast<size_t>(n) >= iov->iov_len) {
            n -= static_cast<ssize_t>(iov->iov_len);
            ++iov;
            --count;
        }
        if (count > 0 && n > 0) {
            rest.assign(iov, iov + count);
            rest[0].iov_base = static_cast<char*>(rest[0].iov_base) + n;
            rest[0].iov_len -= static_cast<size_t>(n);
            iov = rest.data();
        }
    }
    return true;
}

void KPISerializer::printNote(const WindowNote& note) {
    if (note.kind == nullptr) return;
    ZEM_LOGI("%s::Serialize(), numSamples=%d, tsStart=%ld, tsEnd=%ld", note.kind,
             static_cast<int>(note.numSamples), note.tsStart, note.tsEnd);
    if (note.numSamples < 1) ZEM_LOGI("numSamples < 1, so skipping");
}

void KPISerializer::writeRecords(std::deque<Record>& records) {
    assertOnWriter();
    // Records go out in batches of one writev each. A batch ends at the first
    // record that takes the file past the threshold, so the file closes with
    // exactly the records it would hold if they were written one at a time.
    static constexpr int kMaxBatch = IOV_MAX < 256 ? IOV_MAX : 256;
    struct iovec iov[kMaxBatch];

    // Every window of the batch closed before the writer took it, so before
    // any delivery the batch brings about: all their lines come first.
    for (const Record& rec : records) printNote(rec.note);

    while (!records.empty()) {
        if (failed) {
            // A file that could not be opened or written swallows records.
            records.clear();
            return;
        }
        int count = 0;     // iov entries
        size_t taken = 0;  // records, empty windows' included
        int64_t projected = fileSize;
        const unsigned int threshold = sizeThreshold.load(std::memory_order_relaxed);
        const bool held = rolloverHeld();
        bool rollover = false;
        while (count < kMaxBatch && taken < records.size()) {
            const Record& rec = records[taken++];
            if (!rec.bytes) continue;
            const std::string& bytes = *rec.bytes;
            iov[count].iov_base = const_cast<char*>(bytes.data());
            iov[count].iov_len = bytes.size();
            projected += static_cast<int64_t>(bytes.size());
            ++count;
            if (projected > static_cast<int64_t>(threshold) && !held) {
                rollover = true;
                break;
            }
        }
        if (!writeAll(iov, count)) writeFailed();
        records.erase(records.begin(), records.begin() + static_cast<std::ptrdiff_t>(taken));
        if (rollover && !failed) rollOver();
    }
}

void KPISerializer::writer_func() {
    pthread_setname_np(pthread_self(), "zem_writer");
    writerId.store(std::this_thread::get_id());
    std::deque<Record> batch;
    bool wrote = false;
    queueMutex.lock();
    for (;;) {
        if (queue.empty() && !stopWriter && wrote) {
            // More records are likely on their way: pick them up in one go.
            queueCv.waitFor(&queueMutex, kWriterNap);
        }
        while (queue.empty() && !stopWriter) {
            writerIdle = true;
            queueCv.wait(&queueMutex);
        }
        writerIdle = false;
        // On a stop request every record still queued is written first.
        if (queue.empty()) break;
        batch.swap(queue);
        // Every record of the batch stays counted until it is written.
        const size_t batchBytes = queuedBytes;
        queueMutex.unlock();
        writeRecords(batch);
        wrote = true;
        queueMutex.lock();
        queuedBytes -= batchBytes;
    }
    queueMutex.unlock();
    writerId.store(std::thread::id());
}

void KPISerializer::assertOnWriter() const {
    assert(writerId.load() == std::this_thread::get_id());
}

void KPISerializer::stopWriterThread() {
    if (!writerThread) return;
    {
        zem::MutexLock lock(&queueMutex);
        stopWriter = true;
        writerIdle = false;
    }
    // Wakes the writer whether it sleeps or naps.
    queueCv.notifyOne();
    writerThread->join();
    writerThread.reset();
}

void KPISerializer::rollOver() {
    assertOnWriter();
    Flush();
    // The transport removes a file it delivered; one still here was not.
    if (access(currFileName.c_str(), F_OK) == 0) keptKey = std::max(keptKey, currKey);
    createFout();
}

int64_t KPISerializer::nextFileKey() {
    const int64_t now = currTs();
    holdUntil = 0;
    // A kept file far ahead of the clock is not one of this writer's.
    if (keptKey < 0 || now > keptKey || keptKey > now + 1) return now;
    // This second's name belongs to a file whose delivery just failed:
    // reopening it would hand it over again at its next record, and again at
    // every record after. The next file takes the next second's name instead
    // and is not rolled over before that second has come, so names stay
    // unique and in order and a failing daemon costs at most one delivery
    // attempt a second, while records keep going to the file.
    holdUntil = keptKey + 1;
    return keptKey + 1;
}

bool KPISerializer::rolloverHeld() const {
    return holdUntil != 0 && currTs() < holdUntil;
}

int KPISerializer::Flush() {
    // The drops of a file's time are told with the file, so that a reader of
    // the log knows which delivery lacks them.
    const uint64_t dropped = droppedSinceFile.exchange(0, std::memory_order_relaxed);
    if (dropped != 0) {
        ZEM_LOGE("%llu records dropped while %s was open: the record queue was full",
                 static_cast<unsigned long long>(dropped), currFileName.c_str());
    }
    if (fd >= 0) {
        if (close(fd) != 0) failed = true;
        fd = -1;
    } else {
        failed = true;
    }
    if (collector != nullptr) collector->SendData(currFileName);
    return 0;
}

int KPISerializer::Finalize() {
    stopWriterThread();
    sizeThreshold = 0;
    timeThreshold = 0;
    return Flush();
}

int KPISerializer::SendToOlvan(std::string& filename) {
    if (collector != nullptr) collector->SendData(filename);
    return 0;
}
