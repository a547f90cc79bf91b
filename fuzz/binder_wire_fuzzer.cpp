// Frames on the host binder runtime's sockets.
//
//  - mode 0: bytes sent to this process's endpoint, as another process's
//    transaction or death link arrives (acceptor, then a pool thread reading
//    the parcel and running the transaction on the object it names: the
//    daemon stand-in is object 1, the client's callback object 2);
//  - mode 1: bytes sent to the published service's socket (lookups);
//  - mode 2: bytes answering a call this process makes through a BpZEMManager
//    on a peer endpoint (reply frames, status and out values).
// Each exchange must end: the runtime closes a connection it has answered,
// refused or handed to its death watch once the peer has closed its side.
//
// Input: u8 mode (% 3), for mode 2 u8 call (% 4, the manager's slot), then a
// frame: u8 form; form bit 0 set: the rest of the input as it is; clear: u8
// kind (% 5), u8 object (% 4), u8 code (% 8), u8 flags (bit 0: one-way), u32
// status, u8 object count (% 3) and that many u16 object offsets, u8 cut
// (bytes dropped from the end of the frame), then parcel ops (see
// BinderFuzzSupport.h) for the frame's parcel.
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "fuzz/BinderFuzzSupport.h"
#include "platform/host/binder/HostRuntime.h"

namespace {

using android::hostbinder::FrameHeader;

// An exchange that takes longer than this is a hang.
constexpr int kExchangeTimeoutMs = 10000;

std::string registryPrefix() {
    return "host_binder/" + std::to_string(getuid()) + "/" + getenv("HOST_BINDER_REGISTRY") + "/";
}

std::string buildFrame(zem_fuzz::ByteReader& in, uint32_t defaultKind) {
    if (in.flag()) return in.rest();
    FrameHeader header;
    const uint32_t kind = in.u8() % 5;
    header.kind = kind == 0 ? defaultKind : kind;
    header.object = in.u8() % 4;
    header.code = in.u8() % 8;
    header.flags = in.flag() ? android::IBinder::FLAG_ONEWAY : 0;
    header.status = static_cast<int32_t>(in.u32());
    std::vector<uint64_t> offsets(in.u8() % 3);
    for (uint64_t& off : offsets) off = in.u16();
    const uint8_t cut = in.u8();
    android::Parcel parcel;
    zem_fuzz::buildParcel(in, &parcel);
    header.dataSize = static_cast<uint32_t>(parcel.dataSize());
    header.objectCount = static_cast<uint32_t>(offsets.size());
    std::string frame(reinterpret_cast<const char*>(&header), sizeof(header));
    frame.append(reinterpret_cast<const char*>(parcel.data()), parcel.dataSize());
    frame.append(reinterpret_cast<const char*>(offsets.data()), offsets.size() * sizeof(uint64_t));
    frame.resize(frame.size() - std::min<size_t>(cut, frame.size()));
    return frame;
}

// Sends `frame` on the connection `fd`, closes the sending side, reads
// whatever comes back until the other side closes, and closes `fd`. False
// when the other side neither closed nor answered in time.
bool sendAndDrain(int fd, const std::string& frame) {
    android::hostbinder::setReceiveTimeout(fd, kExchangeTimeoutMs);
    // The other side may close early (a bad header); the rest is then refused.
    if (!frame.empty()) send(fd, frame.data(), frame.size(), MSG_NOSIGNAL);
    shutdown(fd, SHUT_WR);
    char buf[4096];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof(buf), 0)) > 0 || (n < 0 && errno == EINTR)) {
    }
    close(fd);
    return n == 0 || errno == ECONNRESET;
}

// Sends `frame` to the runtime's socket `name`; the runtime must close the
// connection once it has answered or refused it.
void exchange(const std::string& name, const std::string& frame) {
    const int fd = android::hostbinder::connectAbstract(name);
    if (fd < 0) abort();
    if (!sendAndDrain(fd, frame)) __builtin_trap();
}

// A peer endpoint that answers every connection with the frame it holds,
// then reads the caller's request until the caller closes.
class Peer {
  public:
    Peer() : name(registryPrefix() + "proc/fuzz-peer-" + std::to_string(getpid())) {
        listenFd = android::hostbinder::listenAbstract(name);
        if (listenFd < 0) abort();
        std::thread([this] { serve(); }).detach();
    }
    const std::string name;

    void setAnswer(const std::string& frame) {
        std::lock_guard<std::mutex> lock(mutex);
        answer = frame;
    }

  private:
    void serve() {
        for (;;) {
            const int fd = accept(listenFd, nullptr, nullptr);
            if (fd < 0) continue;
            std::string frame;
            {
                std::lock_guard<std::mutex> lock(mutex);
                frame = answer;
            }
            sendAndDrain(fd, frame);
        }
    }

    int listenFd = -1;
    std::mutex mutex;
    std::string answer;
};

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    zem_fuzz::binderWorld();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static Peer* peer = new Peer();
    zem_fuzz::ByteReader in(data, size);
    switch (in.u8() % 3) {
        case 0:
            exchange(android::hostbinder::HostRuntime::get().endpoint(),
                     buildFrame(in, android::hostbinder::kTransact));
            break;
        case 1:
            exchange(registryPrefix() + "svc/" + zem_fuzz::kServiceName,
                     buildFrame(in, android::hostbinder::kLookup));
            break;
        default: {
            const uint8_t call = in.u8();
            peer->setAnswer(buildFrame(in, android::hostbinder::kReply));
            zem_fuzz::callManager(new BpZEMManager(android::BpBinder::create(peer->name, 1)), call);
            break;
        }
    }
    zem_fuzz::endInput();
    return 0;
}
