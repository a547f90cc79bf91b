// CacheFile: how the library opens an entry of its cache folder.
//
// The cache folder may be shared with other software, or tampered with, so a
// name that looks like a cache file ("kpidata.<n>") is not trusted to be one.
// Only a regular file with a single link counts: symbolic links (followed
// nowhere), directories, named pipes, sockets, devices and hard links to
// files elsewhere are left alone, with one ERROR line naming the entry. No
// open can block on the entry (pipes are opened non-blocking until their
// type is known), and files created here get mode 0600 whatever the umask.
//
// The serializer opens cache files for append through openCacheFileForAppend;
// the transports read a finished file for delivery through readCacheFile.
// Plain functions without shared state; any thread.
//
//   std::string bytes;
//   if (zem::readCacheFile(path, &bytes) == zem::CacheOpen::kOk) send(bytes);
#pragma once

#include <string>

namespace zem {

enum class CacheOpen {
    kOk,
    kMissing,       // no entry of that name (only when not creating)
    kNotCacheFile,  // the entry exists but is not a cache file; logged
    kFailed,        // a regular file that could not be opened; errno says why
};

// The permissions of every cache file.
constexpr unsigned int kCacheFileMode = 0600;

// Opens the cache file at `path` for appending, creating it when missing.
// Returns the descriptor, or -1 with the reason in `*why` (and errno set for
// kFailed).
int openCacheFileForAppend(const std::string& path, CacheOpen* why);

// True when an entry exists at `path` and is not a cache file. Logs nothing.
bool isNotCacheFile(const std::string& path);

// Opens the cache file at `path` for reading. Returns the descriptor, or -1
// with the reason in `*why`.
int openCacheFileForRead(const std::string& path, CacheOpen* why);

// Reads the whole cache file at `path` into `*content`. On kMissing the
// content is empty; on kFailed "Failed to open file: %s" is logged (a read
// error after a successful open counts as kFailed too).
CacheOpen readCacheFile(const std::string& path, std::string* content);

// readCacheFile for a delivery: false when the file must not be sent (not a
// cache file, or unreadable; both logged). A missing file reads as empty and
// is sent so.
inline bool readForDelivery(const std::string& path, std::string* content) {
    const CacheOpen r = readCacheFile(path, content);
    return r == CacheOpen::kOk || r == CacheOpen::kMissing;
}

}  // namespace zem
