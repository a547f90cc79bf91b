#include "HostWire.h"

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstddef>

namespace android {
namespace hostbinder {

namespace {

socklen_t makeAddress(const std::string& name, sockaddr_un* addr) {
    memset(addr, 0, sizeof(*addr));
    addr->sun_family = AF_UNIX;
    // Abstract namespace: a leading 0 byte, then the name (not terminated).
    memcpy(addr->sun_path + 1, name.data(), name.size());
    return static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + 1 + name.size());
}

}  // namespace

bool readFully(int fd, void* buf, size_t len) {
    uint8_t* p = static_cast<uint8_t*>(buf);
    while (len > 0) {
        const ssize_t n = recv(fd, p, len, 0);
        if (n > 0) {
            p += n;
            len -= static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            return false;
        }
    }
    return true;
}

bool writeFully(int fd, const void* buf, size_t len) {
    const uint8_t* p = static_cast<const uint8_t*>(buf);
    while (len > 0) {
        // A peer that went away must give an error, not SIGPIPE.
        const ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
        if (n > 0) {
            p += n;
            len -= static_cast<size_t>(n);
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            return false;
        }
    }
    return true;
}

int connectAbstract(const std::string& name) {
    if (name.empty() || name.size() > kMaxSocketName) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_un addr;
    const socklen_t len = makeAddress(name, &addr);
    int rc;
    do {
        rc = connect(fd, reinterpret_cast<sockaddr*>(&addr), len);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        const int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

int listenAbstract(const std::string& name) {
    if (name.empty() || name.size() > kMaxSocketName) {
        errno = ENAMETOOLONG;
        return -1;
    }
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return -1;
    sockaddr_un addr;
    const socklen_t len = makeAddress(name, &addr);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 || listen(fd, SOMAXCONN) != 0) {
        const int saved = errno;
        close(fd);
        errno = saved;
        return -1;
    }
    return fd;
}

size_t bufferBytes(size_t dataSize, size_t objectCount) {
    auto round8 = [](size_t n) { return (n + 7) & ~static_cast<size_t>(7); };
    return round8(dataSize) + round8(objectCount * sizeof(uint64_t));
}

bool BufferBudget::reserve(size_t bytes, bool oneway) {
    std::lock_guard<std::mutex> lock(mLock);
    if (bytes > kProcessBufferBytes - mUsed) return false;
    if (oneway && bytes > kOnewayBufferBytes - mOnewayUsed) return false;
    mUsed += bytes;
    if (oneway) mOnewayUsed += bytes;
    return true;
}

void BufferBudget::release(size_t bytes, bool oneway) {
    std::lock_guard<std::mutex> lock(mLock);
    mUsed -= bytes;
    if (oneway) mOnewayUsed -= bytes;
}

void setReceiveTimeout(int fd, int millis) {
    timeval tv;
    tv.tv_sec = millis / 1000;
    tv.tv_usec = (millis % 1000) * 1000;
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(tv));
}

}  // namespace hostbinder
}  // namespace android
