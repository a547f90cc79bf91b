#include "serializer/CacheFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "common/ZemLog.h"

namespace zem {

namespace {

const char* kindOf(mode_t mode) {
    if (S_ISLNK(mode)) return "a symbolic link";
    if (S_ISDIR(mode)) return "a directory";
    if (S_ISFIFO(mode)) return "a named pipe";
    if (S_ISSOCK(mode)) return "a socket";
    if (S_ISCHR(mode) || S_ISBLK(mode)) return "a device";
    return "not a regular file";
}

void logNotCacheFile(const std::string& path, const struct stat& st) {
    if (S_ISREG(st.st_mode)) {
        ZEM_LOGE("Not a cache file, left alone: %s (a regular file with %lu links)", path.c_str(),
                 static_cast<unsigned long>(st.st_nlink));
    } else {
        ZEM_LOGE("Not a cache file, left alone: %s (%s)", path.c_str(), kindOf(st.st_mode));
    }
}

// A cache file is a regular file that no other name shares: a hard link
// would let the folder reach a file that lives elsewhere.
bool isCacheFile(const struct stat& st) {
    return S_ISREG(st.st_mode) && st.st_nlink == 1;
}

int openEntry(const std::string& path, int flags, CacheOpen* why) {
    // Looked at before opening, so that a device or pipe is never opened at
    // all; the type is checked again on the descriptor, which is what counts
    // should the entry be swapped in between.
    struct stat st;
    if (lstat(path.c_str(), &st) == 0 && !isCacheFile(st)) {
        logNotCacheFile(path, st);
        *why = CacheOpen::kNotCacheFile;
        return -1;
    }
    const int fd = open(path.c_str(), flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC,
                        kCacheFileMode);
    if (fd < 0) {
        const int err = errno;
        if (lstat(path.c_str(), &st) == 0 && !isCacheFile(st)) {
            logNotCacheFile(path, st);
            *why = CacheOpen::kNotCacheFile;
        } else {
            *why = err == ENOENT ? CacheOpen::kMissing : CacheOpen::kFailed;
        }
        errno = err;
        return -1;
    }
    if (fstat(fd, &st) != 0) {
        const int err = errno;
        close(fd);
        *why = CacheOpen::kFailed;
        errno = err;
        return -1;
    }
    if (!isCacheFile(st)) {
        logNotCacheFile(path, st);
        close(fd);
        *why = CacheOpen::kNotCacheFile;
        return -1;
    }
    // A regular file: blocking I/O from here on, as for any file.
    const int fl = fcntl(fd, F_GETFL);
    if (fl >= 0) fcntl(fd, F_SETFL, fl & ~O_NONBLOCK);
    *why = CacheOpen::kOk;
    return fd;
}

}  // namespace

int openCacheFileForAppend(const std::string& path, CacheOpen* why) {
    const int fd = openEntry(path, O_WRONLY | O_CREAT | O_APPEND, why);
    if (fd < 0) return fd;
    // The umask may have taken bits off a new file, and a leftover may carry
    // a looser mode from elsewhere: every cache file is owner-only. A file
    // owned by somebody else keeps its mode.
    struct stat st;
    if (fstat(fd, &st) == 0 && (st.st_mode & 07777) != kCacheFileMode) {
        (void)fchmod(fd, kCacheFileMode);
    }
    return fd;
}

bool isNotCacheFile(const std::string& path) {
    struct stat st;
    return lstat(path.c_str(), &st) == 0 && !isCacheFile(st);
}

int openCacheFileForRead(const std::string& path, CacheOpen* why) {
    return openEntry(path, O_RDONLY, why);
}

CacheOpen readCacheFile(const std::string& path, std::string* content) {
    content->clear();
    CacheOpen why;
    const int fd = openCacheFileForRead(path, &why);
    if (fd < 0) {
        if (why == CacheOpen::kFailed) ZEM_LOGE("Failed to open file: %s", path.c_str());
        return why;
    }
    struct stat st;
    if (fstat(fd, &st) == 0 && st.st_size > 0) content->reserve(static_cast<size_t>(st.st_size));
    char buf[64 * 1024];
    for (;;) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n == 0) break;
        if (n < 0) {
            if (errno == EINTR) continue;
            const int err = errno;
            ZEM_LOGE("Failed to read file: %s: %s", path.c_str(), strerror(err));
            close(fd);
            content->clear();
            return CacheOpen::kFailed;
        }
        content->append(buf, static_cast<size_t>(n));
    }
    close(fd);
    return CacheOpen::kOk;
}

}  // namespace zem
