// The host binder runtime's wire formats and socket helpers.
//
// Every process that serves objects listens on one abstract Unix socket, its
// endpoint "host_binder/<uid>/<registry>/proc/<pid>-<nonce>"; a published
// service listens on "host_binder/<uid>/<registry>/svc/<name>". <registry> is
// the environment variable HOST_BINDER_REGISTRY ("default" when unset), so
// tests can run side by side without seeing each other's services. Abstract
// sockets vanish with their process, so a killed process leaves nothing
// behind and its service name is free again at once.
//
// A connection carries one exchange, each message a frame: a FrameHeader,
// then `dataSize` parcel bytes, then `objectCount` 64-bit offsets of the flat
// binder objects inside those bytes.
//  - kTransact (to an endpoint): object id, code, flags and the request
//    parcel; for a two-way call the owner answers one kReply frame carrying
//    the transaction's status_t and the reply parcel. Before that answer the
//    owner may send two-way kTransact frames of its own on the same
//    connection (calls it makes back into the caller's process while serving
//    it); the caller runs each and answers it with a kReply there.
//  - kLookup (to a service socket): answered by a kReply whose parcel holds
//    the service object (a strong binder).
//  - kLink (to an endpoint): answered by a kReply with status only; the owner
//    then keeps the connection open and never writes to it, so its end of
//    file tells the proxy side that the owner went away.
//
// A flat binder object inside a parcel, 4-byte aligned: uint32 type
// (kFlatBinderType, or kFlatNullType for a null binder), uint32 flags (0),
// uint64 object id, uint32 endpoint length, uint32 reserved (0), then the
// endpoint name's bytes zero-padded to 4; the parcel then carries the
// object's int32 stability level.
#pragma once

#include <binder/IBinder.h>
#include <stddef.h>
#include <stdint.h>

#include <mutex>
#include <string>

namespace android {
namespace hostbinder {

constexpr uint32_t kFrameMagic = B_PACK_CHARS('H', 'B', 'W', '1');

enum FrameKind : uint32_t {
    kTransact = 1,
    kReply = 2,
    kLookup = 3,
    kLink = 4,
};

struct FrameHeader {
    uint32_t magic = kFrameMagic;
    uint32_t kind = 0;
    uint64_t object = 0;
    uint32_t code = 0;
    uint32_t flags = 0;
    int32_t status = 0;
    uint32_t dataSize = 0;
    uint32_t objectCount = 0;
    uint32_t reserved = 0;
};
static_assert(sizeof(FrameHeader) == 40, "frame header layout");

// The largest parcel a frame may carry.
constexpr size_t kMaxParcelBytes = 64u << 20;

// A device's binder driver maps 1 MiB minus two pages into each process for
// the transactions sent to it; every transaction in flight to the process
// (queued or being served, until its handler returns) holds its data and
// object offsets there, and one-way transactions may take only half of it.
// A transaction that does not fit fails with FAILED_TRANSACTION. The host
// runtime keeps the same account, so that a test fails where a device would.
constexpr size_t kProcessBufferBytes = (1u << 20) - 2 * 4096;
constexpr size_t kOnewayBufferBytes = kProcessBufferBytes / 2;

// What a transaction of `dataSize` bytes with `objectCount` objects takes in
// the receiver's buffer: the data and the offsets, each rounded up to 8 bytes
// as the driver allocates them.
size_t bufferBytes(size_t dataSize, size_t objectCount);

// The receiving side's account of that buffer. Thread-safe.
class BufferBudget {
  public:
    // Takes `bytes` for a transaction that has arrived; false (nothing taken)
    // when it does not fit in what the transactions in flight leave free.
    bool reserve(size_t bytes, bool oneway);
    // Gives back what reserve took, once the transaction has been served.
    void release(size_t bytes, bool oneway);

  private:
    std::mutex mLock;
    size_t mUsed = 0;
    size_t mOnewayUsed = 0;
};

constexpr uint32_t kFlatBinderType = B_PACK_CHARS('s', 'h', '*', 0x85);
constexpr uint32_t kFlatNullType = B_PACK_CHARS('s', 'b', '*', 0x85);

struct FlatBinderHeader {
    uint32_t type;
    uint32_t flags;
    uint64_t objectId;
    uint32_t endpointLength;
    uint32_t reserved;
};
static_assert(sizeof(FlatBinderHeader) == 24, "flat binder layout");

// Longest abstract socket name (sun_path less its leading 0 byte).
constexpr size_t kMaxSocketName = 107;

// Reads or writes exactly `len` bytes; false on end of file or error.
bool readFully(int fd, void* buf, size_t len);
bool writeFully(int fd, const void* buf, size_t len);

// A connected stream socket to the abstract name, or -1 (errno set).
int connectAbstract(const std::string& name);
// A listening stream socket bound to the abstract name, or -1 (errno set).
int listenAbstract(const std::string& name);

// Applies a receive timeout in milliseconds (0 = none).
void setReceiveTimeout(int fd, int millis);

}  // namespace hostbinder
}  // namespace android
