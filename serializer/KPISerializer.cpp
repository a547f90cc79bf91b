#include "serializer/KPISerializer.h"

#include <dirent.h>
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <climits>
#include <cstdlib>
#include <cstring>

#include "collector/zem_collector.h"
#include "common/ZemLog.h"

namespace {

// Short, so that at modest rates the writer is idle (and woken at once) by
// the time the next record comes: a record waits in memory, where a killed
// process loses it, at most this long.
constexpr std::chrono::milliseconds kWriterNap{1};

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
    using namespace std::chrono;
    return duration_cast<microseconds>(system_clock::now().time_since_epoch()).count() / 1000000;
}

std::string KPISerializer::GetCurrFileName() {
    std::lock_guard<std::mutex> lock(queueMutex);
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

    if (files.empty()) {
        createFout();
    } else {
        const size_t n = prefix.size();
        std::stable_sort(files.begin(), files.end(),
                         [n](const std::string& a, const std::string& b) {
                             return fileKey(a, n) < fileKey(b, n);
                         });
        // The newest leftover keeps growing; older ones stay where they are.
        const std::string path = cacheDir + "/" + files.back();
        if (!openForAppend(path)) {
            ZEM_LOGE("Failed to open file: %s", path.c_str());
            return -1;
        }
        std::lock_guard<std::mutex> lock(queueMutex);
        currFileName = path;
        currKey = static_cast<int64_t>(fileKey(files.back(), n));
        holdUntil = 0;
    }

    {
        std::lock_guard<std::mutex> lock(queueMutex);
        stopWriter = false;
    }
    writerThread = std::make_unique<std::thread>(&KPISerializer::writer_func, this);
    return 0;
}

bool KPISerializer::openForAppend(const std::string& path) {
    if (fd >= 0) close(fd);
    fd = open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0666);
    if (fd < 0) {
        failed = true;
        return false;
    }
    struct stat st;
    fileSize = fstat(fd, &st) == 0 ? st.st_size : 0;
    failed = false;
    return true;
}

void KPISerializer::createFout() {
    const int64_t key = nextFileKey();
    const std::string path = cacheDir + "/kpidata." + std::to_string(key);
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        currFileName = path;
        currKey = key;
    }
    // Two files created within one second share a name: the second one is
    // the first reopened for append. A failed open leaves the file failed.
    openForAppend(path);

    olvan::KPIData version;
    version.set_version(olvan::V1);
    Write(version);
}

int KPISerializer::Write(olvan::KPIData& data) {
    return Write(data, WindowNote{});
}

int KPISerializer::Write(olvan::KPIData& data, const WindowNote& note) {
    auto bytes = std::make_shared<std::string>();
    data.SerializeToString(bytes.get());
    bool wake;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        queue.push_back(Record{std::move(bytes), note});
        wake = writerIdle;
        writerIdle = false;
    }
    if (wake) queueCv.notify_one();
    return 0;
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
}

void KPISerializer::writeRecords(std::deque<Record>& records) {
    // Records go out in batches of one writev each. A batch ends at the first
    // record that takes the file past the threshold, so the file closes with
    // exactly the records it would hold if they were written one at a time.
    static constexpr int kMaxBatch = IOV_MAX < 256 ? IOV_MAX : 256;
    struct iovec iov[kMaxBatch];

    while (!records.empty()) {
        if (failed) {
            // A file that could not be opened or written swallows records.
            for (const Record& rec : records) printNote(rec.note);
            records.clear();
            return;
        }
        int count = 0;
        int64_t projected = fileSize;
        const unsigned int threshold = sizeThreshold.load(std::memory_order_relaxed);
        const bool held = rolloverHeld();
        bool rollover = false;
        while (count < kMaxBatch && count < static_cast<int>(records.size())) {
            const Record& rec = records[count];
            printNote(rec.note);
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
        if (!writeAll(iov, count)) failed = true;
        records.erase(records.begin(), records.begin() + count);
        if (rollover && !failed) rollOver();
    }
}

void KPISerializer::writer_func() {
    pthread_setname_np(pthread_self(), "zem_writer");
    std::deque<Record> batch;
    bool wrote = false;
    std::unique_lock<std::mutex> lock(queueMutex);
    for (;;) {
        if (queue.empty() && !stopWriter && wrote) {
            // More records are likely on their way: pick them up in one go.
            queueCv.wait_for(lock, kWriterNap);
        }
        while (queue.empty() && !stopWriter) {
            writerIdle = true;
            queueCv.wait(lock);
        }
        writerIdle = false;
        // On a stop request every record still queued is written first.
        if (queue.empty()) break;
        batch.swap(queue);
        lock.unlock();
        writeRecords(batch);
        wrote = true;
        lock.lock();
    }
}

void KPISerializer::stopWriterThread() {
    if (!writerThread) return;
    {
        std::lock_guard<std::mutex> lock(queueMutex);
        stopWriter = true;
        writerIdle = false;
    }
    // Wakes the writer whether it sleeps or naps.
    queueCv.notify_one();
    writerThread->join();
    writerThread.reset();
}

void KPISerializer::rollOver() {
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
