// The binder transport: the hand-written IZEMManager/IZEMCallback proxies and
// stubs byte for byte against libbinder's layout and against the platform
// code generator's classes (run in binder_aidl_peer), the host binder
// runtime's failure handling, and zemAIDLClient's table, events and death
// handling.
#include <binder/BpBinder.h>
#include <binder/IPCThreadState.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "TestUtil.h"
#include "collector/CollectorSeams.h"
#include "collector/zem_collector.h"
#include "e2e_util.h"
#include "metric.pb.h"
#include "platform/host/binder/HostWire.h"
#include "transport/IZEMCallback.h"
#include "transport/IZEMManager.h"
#include "transport/zemAIDLClient.h"

using android::BBinder;
using android::IBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::binder::Status;

namespace {

// Services of this test process stay invisible to every other test process.
const bool kPrivateRegistry = [] {
    setenv("HOST_BINDER_REGISTRY", ("binder_test_" + std::to_string(getpid())).c_str(), 1);
    return true;
}();

// ---- bytes ----------------------------------------------------------------

std::vector<uint8_t> hex(const std::string& text) {
    std::vector<uint8_t> out;
    std::string digits;
    for (char c : text) {
        if (isxdigit(static_cast<unsigned char>(c))) digits += c;
    }
    for (size_t i = 0; i + 1 < digits.size(); i += 2) {
        out.push_back(static_cast<uint8_t>(std::stoi(digits.substr(i, 2), nullptr, 16)));
    }
    return out;
}

std::vector<uint8_t> bytesOf(const Parcel& p) {
    return std::vector<uint8_t>(p.data(), p.data() + p.dataSize());
}

std::string hexDump(const std::vector<uint8_t>& b) {
    std::string s;
    char buf[4];
    for (size_t i = 0; i < b.size(); ++i) {
        snprintf(buf, sizeof(buf), "%02x", b[i]);
        s += buf;
        if (i % 4 == 3) s += ' ';
    }
    return s;
}

#define EXPECT_BYTES(expected, actual) EXPECT_EQ(hexDump(expected), hexDump(actual))

// Interface tokens as libbinder (Android 10) writes them: strict-mode word
// with the gather bit, unset work source, descriptor as String16.
const char* const kManagerToken =
        "00000080 ffffffff 0b000000 49005a00 45004d00 4d006100 6e006100 67006500 72000000";
const char* const kCallbackToken =
        "00000080 ffffffff 0c000000 49005a00 45004d00 43006100 6c006c00 62006100 63006b00 "
        "00000000";

// ---- in-process peers --------------------------------------------------------

// A remote stand-in: records each request and answers with scripted bytes.
class Recorder : public BBinder {
  public:
    status_t onTransact(uint32_t code, const Parcel& data, Parcel* reply, uint32_t flags) override {
        lastCode = code;
        lastFlags = flags;
        lastData = bytesOf(data);
        ++calls;
        if (reply != nullptr) reply->setData(replyBytes.data(), replyBytes.size());
        return answer;
    }
    uint32_t lastCode = 0, lastFlags = 0;
    std::vector<uint8_t> lastData, replyBytes;
    status_t answer = android::OK;
    int calls = 0;
};

class FakeManager : public BnZEMManager {
  public:
    Status registerZEMClient(const std::string& name, const sp<IZEMCallback>& cb,
                             std::string* token) override {
        std::lock_guard<std::mutex> lock(mutex);
        calls.push_back("register " + name);
        callback = cb;
        if (name == "refuse") return Status::fromServiceSpecificError(7, "full");
        *token = "tok-" + name;
        return Status::ok();
    }
    Status checkForPendingCampaign(const std::string& token) override {
        std::lock_guard<std::mutex> lock(mutex);
        calls.push_back("pending " + token);
        return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "ignored");
    }
    Status deregisterZEMClient(const std::string& token) override {
        std::lock_guard<std::mutex> lock(mutex);
        calls.push_back("deregister " + token);
        return Status::ok();
    }
    Status sendData(const std::vector<uint8_t>& data, const std::string& token,
                    bool* result) override {
        std::lock_guard<std::mutex> lock(mutex);
        calls.push_back("send " + token + " " + hexDump(data));
        if (token == "fail-me") return Status::fromServiceSpecificError(9, "disk full");
        *result = true;
        return Status::ok();
    }
    std::vector<std::string> callLog() {
        std::lock_guard<std::mutex> lock(mutex);
        return calls;
    }
    sp<IZEMCallback> lastCallback() {
        std::lock_guard<std::mutex> lock(mutex);
        return callback;
    }

  private:
    std::mutex mutex;
    std::vector<std::string> calls;
    sp<IZEMCallback> callback;
};

class FakeCallback : public BnZEMCallback {
  public:
    Status onCampaignEvent(int32_t eventType, int64_t campaignId,
                           const std::vector<uint8_t>& config, int32_t eventArg,
                           const std::string& token, int32_t* result) override {
        std::lock_guard<std::mutex> lock(mutex);
        events.push_back(std::to_string(eventType) + " " + std::to_string(campaignId) + " " +
                         hexDump(config) + "|" + std::to_string(eventArg) + " " + token);
        *result = 40 + eventType;
        return Status::ok();
    }
    std::vector<std::string> received() {
        std::lock_guard<std::mutex> lock(mutex);
        return events;
    }

  private:
    std::mutex mutex;
    std::vector<std::string> events;
};

// ---- golden bytes ----------------------------------------------------------

TEST(BinderWire, ProxiesWriteLibbindersLayoutForEveryRequest) {
    sp<Recorder> remote = new Recorder();
    sp<IZEMManager> manager = new BpZEMManager(remote);

    remote->replyBytes = hex("00000000");
    EXPECT_TRUE(manager->checkForPendingCampaign("t1").isOk());
    EXPECT_EQ(2u, remote->lastCode);
    EXPECT_EQ(static_cast<uint32_t>(IBinder::FLAG_ONEWAY), remote->lastFlags);
    EXPECT_BYTES(hex(std::string(kManagerToken) + "02000000 74003100 00000000"), remote->lastData);

    EXPECT_TRUE(manager->deregisterZEMClient("t1").isOk());
    EXPECT_EQ(3u, remote->lastCode);
    EXPECT_EQ(0u, remote->lastFlags);
    EXPECT_BYTES(hex(std::string(kManagerToken) + "02000000 74003100 00000000"), remote->lastData);

    // Byte vectors are padded with zeros to the next word.
    remote->replyBytes = hex("00000000 01000000");
    bool ok = false;
    EXPECT_TRUE(manager->sendData({1, 2, 3}, "t1", &ok).isOk());
    EXPECT_TRUE(ok);
    EXPECT_EQ(4u, remote->lastCode);
    EXPECT_BYTES(hex(std::string(kManagerToken) + "03000000 01020300 02000000 74003100 00000000"),
                 remote->lastData);

    // A string is UTF-16 from UTF-8, its length counted in UTF-16 units (the
    // last character is a surrogate pair), terminated, padded.
    remote->replyBytes = hex("00000000 01000000 61000000");
    std::string token;
    sp<FakeCallback> cb = new FakeCallback();
    EXPECT_TRUE(
            manager->registerZEMClient("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80", cb, &token).isOk());
    EXPECT_EQ("a", token);
    EXPECT_EQ(1u, remote->lastCode);
    const std::vector<uint8_t> head =
            hex(std::string(kManagerToken) + "04000000 e400ac20 3dd800de 00000000");
    ASSERT_GT(remote->lastData.size(), head.size());
    EXPECT_BYTES(head, std::vector<uint8_t>(remote->lastData.begin(),
                                            remote->lastData.begin() + head.size()));
    // Then the callback as a flat binder object naming this process's
    // endpoint, and its stability (vendor).
    android::hostbinder::FlatBinderHeader flat;
    memcpy(&flat, remote->lastData.data() + head.size(), sizeof(flat));
    EXPECT_EQ(android::hostbinder::kFlatBinderType, flat.type);
    EXPECT_NE(0u, flat.objectId);
    EXPECT_EQ(remote->lastData.size(),
              head.size() + sizeof(flat) + ((flat.endpointLength + 3) & ~3u) + 4);
    EXPECT_BYTES(hex("03000000"),
                 std::vector<uint8_t>(remote->lastData.end() - 4, remote->lastData.end()));

    sp<Recorder> cbRemote = new Recorder();
    sp<IZEMCallback> callback = new BpZEMCallback(cbRemote);
    cbRemote->replyBytes = hex("00000000 feffffff");
    int32_t result = 0;
    EXPECT_TRUE(
            callback->onCampaignEvent(256, 0x0102030405060708LL, {0xaa}, 9, "t1", &result).isOk());
    EXPECT_EQ(-2, result);
    EXPECT_EQ(1u, cbRemote->lastCode);
    EXPECT_EQ(0u, cbRemote->lastFlags);
    EXPECT_BYTES(hex(std::string(kCallbackToken) +
                     "00010000 08070605 04030201 01000000 aa000000 09000000 "
                     "02000000 74003100 00000000"),
                 cbRemote->lastData);
}

// The stub's answer to `request` sent as `code`, with its transaction status.
std::vector<uint8_t> answer(const sp<IBinder>& stub, uint32_t code,
                            const std::vector<uint8_t>& request, status_t* status,
                            uint32_t flags = 0) {
    Parcel data, reply;
    data.setData(request.data(), request.size());
    *status = stub->transact(code, data, &reply, flags);
    return bytesOf(reply);
}

TEST(BinderWire, StubsAnswerInLibbindersLayoutAndDispatchByTheRules) {
    sp<FakeManager> manager = new FakeManager();
    status_t st = 0;
    const std::string t1 = "02000000 74003100 00000000";

    EXPECT_BYTES(hex("00000000 01000000"),
                 answer(manager, 4, hex(std::string(kManagerToken) + "00000000" + t1), &st));
    EXPECT_EQ(android::OK, st);
    // A failed call carries the status only: exception, message, empty stack
    // trace header, service-specific code; no bool after it.
    EXPECT_BYTES(hex("f8ffffff 09000000 64006900 73006b00 20006600 75006c00 6c000000 "
                     "00000000 09000000"),
                 answer(manager, 4,
                        hex(std::string(kManagerToken) +
                            "00000000 07000000 66006100 69006c00 2d006d00 65000000"),
                        &st));
    EXPECT_EQ(android::OK, st);
    EXPECT_BYTES(hex("00000000"), answer(manager, 3, hex(std::string(kManagerToken) + t1), &st));
    // One-way: nothing written even though the implementation failed.
    EXPECT_BYTES(std::vector<uint8_t>(), answer(manager, 2, hex(std::string(kManagerToken) + t1),
                                                &st, IBinder::FLAG_ONEWAY));
    EXPECT_EQ(android::OK, st);
    EXPECT_EQ(
            (std::vector<std::string>{"send t1 ", "send fail-me ", "deregister t1", "pending t1"}),
            manager->callLog());

    // registerZEMClient: the token after an ok status; a refusal stops at it.
    sp<FakeCallback> cb = new FakeCallback();
    Parcel req, reply;
    req.writeInterfaceToken(IZEMManager::descriptor);
    req.writeUtf8AsUtf16("x");
    req.writeStrongBinder(cb);
    ASSERT_EQ(android::OK, manager->transact(1, req, &reply));
    EXPECT_BYTES(hex("00000000 05000000 74006f00 6b002d00 78000000"), bytesOf(reply));
    EXPECT_EQ(cb.get(), manager->lastCallback().get()) << "a local binder stays local";

    // Out-of-range codes go to BBinder: unknown, or the descriptor.
    EXPECT_TRUE(answer(manager, 5, hex(kManagerToken), &st).empty());
    EXPECT_EQ(android::UNKNOWN_TRANSACTION, st);
    sp<FakeCallback> cbStub = new FakeCallback();
    answer(cbStub, 2, hex(kCallbackToken), &st);
    EXPECT_EQ(android::UNKNOWN_TRANSACTION, st);
    Parcel none, iface;
    ASSERT_EQ(android::OK, cbStub->transact(IBinder::INTERFACE_TRANSACTION, none, &iface));
    EXPECT_EQ(String16("IZEMCallback"), iface.readString16());

    // The other interface's token is refused before any argument is read.
    const size_t before = manager->callLog().size();
    EXPECT_TRUE(answer(manager, 3, hex(std::string(kCallbackToken) + t1), &st).empty());
    EXPECT_EQ(android::BAD_TYPE, st);
    // The first argument that cannot be read is the result: a string cut
    // short, a byte vector longer than the parcel, a missing callback.
    answer(manager, 3, hex(std::string(kManagerToken) + "02000000 7400"), &st);
    EXPECT_NE(android::OK, st);
    answer(manager, 4, hex(std::string(kManagerToken) + "ffffff7f 00000000"), &st);
    EXPECT_EQ(android::BAD_VALUE, st);
    Parcel noCb, noCbReply;
    noCb.writeInterfaceToken(IZEMManager::descriptor);
    noCb.writeUtf8AsUtf16("x");
    noCb.writeStrongBinder(nullptr);
    EXPECT_EQ(android::UNEXPECTED_NULL, manager->transact(1, noCb, &noCbReply));
    EXPECT_EQ(before, manager->callLog().size()) << "no implementation call on a bad request";

    // onCampaignEvent: status, then the result.
    EXPECT_BYTES(hex("00000000 28020000"),
                 answer(cbStub, 1,
                        hex(std::string(kCallbackToken) +
                            "00020000 05000000 00000000 00000000 00000000" + t1),
                        &st));
    EXPECT_EQ((std::vector<std::string>{"512 5 |0 t1"}), cbStub->received());
}

// ---- proxy failure paths -----------------------------------------------------

class CountingDefault : public IZEMManager {
  public:
    // Owned by a unique_ptr, never by sp<>: with the weak lifetime libutils
    // frees its reference bookkeeping when the object is deleted.
    explicit CountingDefault(std::atomic<int>* destroyed) : destroyed(destroyed) {
        extendObjectLifetime(OBJECT_LIFETIME_WEAK);
    }
    ~CountingDefault() override { ++*destroyed; }
    Status registerZEMClient(const std::string&, const sp<IZEMCallback>&,
                             std::string* token) override {
        *token = "from-default";
        return Status::ok();
    }
    Status checkForPendingCampaign(const std::string&) override { return Status::ok(); }
    Status deregisterZEMClient(const std::string&) override {
        return Status::fromServiceSpecificError(77);
    }
    Status sendData(const std::vector<uint8_t>&, const std::string&, bool* r) override {
        *r = true;
        return Status::ok();
    }

  protected:
    IBinder* onAsBinder() override { return nullptr; }

  private:
    std::atomic<int>* const destroyed;
};

TEST(BinderProxy, ErrorsBecomeStatusesAndUnknownCodesFallBackToTheDefaultImplementation) {
    sp<Recorder> remote = new Recorder();
    sp<IZEMManager> manager = new BpZEMManager(remote);

    // A failed reply is not read past its status: the bool stays untouched.
    remote->replyBytes = hex("f8ffffff 00000000 00000000 00000000 0b000000");
    bool ok = false;
    Status s = manager->sendData({}, "t", &ok);
    EXPECT_EQ(Status::EX_SERVICE_SPECIFIC, s.exceptionCode());
    EXPECT_EQ(11, s.serviceSpecificErrorCode());
    EXPECT_FALSE(ok);
    // An ok status without its out value is a transaction failure.
    remote->replyBytes = hex("00000000");
    s = manager->sendData({}, "t", &ok);
    EXPECT_EQ(Status::EX_TRANSACTION_FAILED, s.exceptionCode());
    EXPECT_EQ(android::NOT_ENOUGH_DATA, s.transactionError());
    // Transport errors pass through.
    remote->answer = android::DEAD_OBJECT;
    EXPECT_EQ(android::DEAD_OBJECT, manager->deregisterZEMClient("t").transactionError());
    EXPECT_EQ(android::DEAD_OBJECT, manager->checkForPendingCampaign("t").transactionError());

    // UNKNOWN_TRANSACTION without a default implementation is an error ...
    remote->answer = android::UNKNOWN_TRANSACTION;
    std::string token;
    EXPECT_EQ(android::UNKNOWN_TRANSACTION,
              manager->registerZEMClient("n", nullptr, &token).transactionError());
    // ... with one, its answer is the call's answer. A second one replaces
    // (and destroys) the first; null is refused.
    std::atomic<int> destroyed{0};
    EXPECT_FALSE(IZEMManager::setDefaultImpl(nullptr));
    EXPECT_TRUE(IZEMManager::setDefaultImpl(std::make_unique<CountingDefault>(&destroyed)));
    EXPECT_TRUE(IZEMManager::setDefaultImpl(std::make_unique<CountingDefault>(&destroyed)));
    EXPECT_EQ(1, destroyed.load());
    EXPECT_TRUE(manager->registerZEMClient("n", nullptr, &token).isOk());
    EXPECT_EQ("from-default", token);
    EXPECT_EQ(77, manager->deregisterZEMClient("t").serviceSpecificErrorCode());
    EXPECT_TRUE(manager->checkForPendingCampaign("t").isOk());
    remote->answer = android::OK;
    remote->replyBytes = hex("00000000 00000000");
    ok = true;
    EXPECT_TRUE(manager->sendData({}, "t", &ok).isOk());
    EXPECT_FALSE(ok) << "a working remote is asked, not the default";

    // asInterface: null stays null, a local stub is itself, a remote gets a
    // proxy.
    EXPECT_EQ(nullptr, IZEMManager::asInterface(nullptr).get());
    sp<FakeManager> local = new FakeManager();
    EXPECT_EQ(static_cast<IZEMManager*>(local.get()), IZEMManager::asInterface(local).get());
    EXPECT_NE(nullptr, IZEMCallback::asInterface(remote).get());
}

// ---- parcels -------------------------------------------------------------------

TEST(BinderParcel, MalformedInputGivesErrorsNeverReadsOutsideTheData) {
    auto parcelOf = [](const std::string& h) {
        auto p = std::make_unique<Parcel>();
        const std::vector<uint8_t> b = hex(h);
        p->setData(b.data(), b.size());
        return p;
    };
    std::string s = "unchanged";
    EXPECT_EQ(android::UNEXPECTED_NULL, parcelOf("ffffffff")->readUtf8FromUtf16(&s));
    EXPECT_NE(android::OK, parcelOf("feffffff")->readUtf8FromUtf16(&s));
    EXPECT_NE(android::OK, parcelOf("ffffff7f 41004200")->readUtf8FromUtf16(&s));
    // No terminator where the length says.
    EXPECT_NE(android::OK, parcelOf("01000000 41004200")->readUtf8FromUtf16(&s));
    EXPECT_NE(android::OK, parcelOf("0100")->readUtf8FromUtf16(&s));
    std::vector<uint8_t> v;
    EXPECT_EQ(android::UNEXPECTED_NULL, parcelOf("ffffffff")->readByteVector(&v));
    EXPECT_EQ(android::BAD_VALUE, parcelOf("05000000 01020304")->readByteVector(&v));
    int64_t i64 = 0;
    EXPECT_EQ(android::NOT_ENOUGH_DATA, parcelOf("01000000")->readInt64(&i64));
    sp<IBinder> b;
    // Bytes that look like a flat object are not one unless written as one.
    EXPECT_EQ(android::BAD_TYPE,
              parcelOf("852a6873 00000000 01000000 00000000 04000000 00000000 61626364 03000000")
                      ->readStrongBinder(&b));
    EXPECT_FALSE(parcelOf("00000080 ffffffff 05000000 4100")->enforceInterface(String16("AAAAA")));

    // Round trips: empty and non-ASCII strings, null and empty vectors;
    // invalid UTF-8 cannot be written.
    Parcel p;
    EXPECT_EQ(android::OK, p.writeUtf8AsUtf16(""));
    EXPECT_EQ(android::OK, p.writeUtf8AsUtf16("gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80"));
    EXPECT_EQ(android::OK, p.writeByteVector(std::unique_ptr<std::vector<uint8_t>>()));
    EXPECT_EQ(android::OK, p.writeByteVector(std::vector<uint8_t>()));
    EXPECT_EQ(android::BAD_VALUE, p.writeUtf8AsUtf16("\xff\xfe"));
    p.setDataPosition(0);
    EXPECT_EQ(android::OK, p.readUtf8FromUtf16(&s));
    EXPECT_EQ("", s);
    EXPECT_EQ(android::OK, p.readUtf8FromUtf16(&s));
    EXPECT_EQ("gr\xc3\xbc\xc3\x9f \xf0\x9f\x98\x80", s);
    std::unique_ptr<std::vector<uint8_t>> nullable(new std::vector<uint8_t>{1});
    EXPECT_EQ(android::OK, p.readByteVector(&nullable));
    EXPECT_EQ(nullptr, nullable.get());
    EXPECT_EQ(android::OK, p.readByteVector(&v));
    EXPECT_TRUE(v.empty());

    // Statuses: a reply header is skipped; a stack trace header larger than
    // the parcel is an error, not a jump.
    Status st;
    EXPECT_EQ(android::OK, st.readFromParcel(*parcelOf("80ffffff 08000000 12345678 01000000")));
    EXPECT_TRUE(st.isOk());
    EXPECT_NE(android::OK, st.readFromParcel(*parcelOf("fdffffff 00000000 40000000")));
    EXPECT_EQ(Status::EX_TRANSACTION_FAILED, st.exceptionCode());
    Parcel sp1;
    Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "bad arg").writeToParcel(&sp1);
    sp1.setDataPosition(0);
    EXPECT_EQ(android::OK, st.readFromParcel(sp1));
    EXPECT_EQ(Status::EX_ILLEGAL_ARGUMENT, st.exceptionCode());
    EXPECT_STREQ("bad arg", st.exceptionMessage().string());
    // A transport failure is never written as an exception.
    Parcel sp2;
    EXPECT_EQ(android::DEAD_OBJECT, Status::fromStatusT(android::DEAD_OBJECT).writeToParcel(&sp2));
    EXPECT_EQ(0u, sp2.dataSize());
}

// Random requests behind a valid interface token: each is answered with a
// status and none reads outside its parcel (the address sanitizer build
// checks the latter).
TEST(BinderParcel, StubsAnswerRandomRequestsWithAStatus) {
    sp<FakeManager> manager = new FakeManager();
    sp<FakeCallback> callback = new FakeCallback();
    uint32_t seed = 12345;
    auto next = [&seed] {
        seed = seed * 1664525u + 1013904223u;
        return seed >> 8;
    };
    int answered = 0;
    for (int i = 0; i < 20000; ++i) {
        const bool toManager = (i & 1) != 0;
        std::vector<uint8_t> bytes = hex(toManager ? kManagerToken : kCallbackToken);
        // Well-formed pieces (a word, an int64, a string, a byte vector)
        // mixed with random words, so some requests are valid.
        static const char* const kPieces[] = {"00010000", "00000000 00000000",
                                              "02000000 74003100 00000000", "01000000 aa000000",
                                              "00000000 00000000"};
        const size_t pieces = next() % 8;
        for (size_t k = 0; k < pieces; ++k) {
            const uint32_t pick = next() % 7;
            if (pick < 5) {
                const std::vector<uint8_t> piece = hex(kPieces[pick]);
                bytes.insert(bytes.end(), piece.begin(), piece.end());
            } else {
                const uint32_t word = pick == 5 ? next() : 0xffffffffu - next() % 4;
                const uint8_t* w = reinterpret_cast<const uint8_t*>(&word);
                bytes.insert(bytes.end(), w, w + 4);
            }
        }
        Parcel data, reply;
        data.setData(bytes.data(), bytes.size());
        const uint32_t code = 1 + next() % 5;
        const sp<IBinder> stub = toManager ? sp<IBinder>(manager) : sp<IBinder>(callback);
        const status_t st = stub->transact(code, data, &reply);
        if (st == android::OK) ++answered;
    }
    EXPECT_GT(answered, 0);
}

// ---- across processes, against the generated classes --------------------------

struct Peer {
    Peer(const std::vector<std::string>& args)
        : child(withBinary(args), dir.file("out"), dir.file("err")) {}
    static std::vector<std::string> withBinary(std::vector<std::string> args) {
        args.insert(args.begin(), BINDER_AIDL_PEER_BIN);
        return args;
    }
    bool saw(const std::string& line) {
        return zem_e2e::eventually([&] { return hasLine(line); });
    }
    bool hasLine(const std::string& line) {
        for (const std::string& l : zem_e2e::lines(child.out())) {
            if (l == line) return true;
        }
        return false;
    }
    zem_test::TempDir dir;
    zem_e2e::Child child;
};

TEST(BinderInterop, HandWrittenProxiesTalkToGeneratedStubs) {
    Peer daemon({"daemon", "interop_daemon", "0a0b0c"});
    ASSERT_TRUE(daemon.saw("ready")) << daemon.child.err();
    android::ProcessState::self()->startThreadPool();
    sp<IBinder> binder = android::defaultServiceManager()->getService(String16("interop_daemon"));
    ASSERT_NE(nullptr, binder.get());
    EXPECT_EQ(String16("IZEMManager"), binder->getInterfaceDescriptor());
    sp<IZEMManager> manager = IZEMManager::asInterface(binder);
    sp<FakeCallback> cb = new FakeCallback();

    std::string token;
    ASSERT_TRUE(manager->registerZEMClient("hand", cb, &token).isOk());
    EXPECT_EQ("hand-1", token);
    EXPECT_TRUE(daemon.saw("register hand hand-1"));
    // The daemon answers the one-way call by calling our stub back.
    EXPECT_TRUE(manager->checkForPendingCampaign(token).isOk());
    EXPECT_TRUE(daemon.saw("event-result hand-1 256 0 296"));
    EXPECT_EQ((std::vector<std::string>{"256 7 0a0b0c|0 hand-1"}), cb->received());

    bool ok = false;
    EXPECT_TRUE(manager->sendData({0, 1, 0xfe, 0xff, 0x42}, token, &ok).isOk());
    EXPECT_TRUE(ok);
    EXPECT_TRUE(daemon.saw("send hand-1 5 0001feff42"));
    ok = false;
    Status s = manager->sendData({}, "fail-x", &ok);
    EXPECT_EQ(Status::EX_SERVICE_SPECIFIC, s.exceptionCode());
    EXPECT_EQ(5, s.serviceSpecificErrorCode());
    EXPECT_STREQ("refused", s.exceptionMessage().string());
    EXPECT_TRUE(manager->deregisterZEMClient(token).isOk());
    EXPECT_TRUE(daemon.saw("deregister hand-1"));

    daemon.child.send("event hand-1 512 -3 77 -");
    EXPECT_TRUE(daemon.saw("event-result hand-1 512 0 552"));
    EXPECT_EQ("512 -3 |77 hand-1", cb->received().back());
    daemon.child.send("quit");
    EXPECT_EQ(0, daemon.child.waitExit());
}

TEST(BinderInterop, GeneratedProxiesTalkToHandWrittenStubs) {
    sp<FakeManager> manager = new FakeManager();
    ASSERT_EQ(android::OK,
              android::defaultServiceManager()->addService(String16("interop_mgr"), manager));
    android::ProcessState::self()->startThreadPool();
    Peer client({"client", "interop_mgr"});
    ASSERT_TRUE(client.saw("deregistered 0")) << client.child.err();
    EXPECT_TRUE(client.hasLine("registered 0 tok-peer-client"));
    EXPECT_TRUE(client.hasLine("pending 0")) << "one-way: the stub's error never travels back";
    EXPECT_TRUE(client.hasLine("sent 0 true"));
    EXPECT_TRUE(client.hasLine("sent-fail -8 9 disk full"));
    // The one-way call may be served after the calls that follow it, as
    // with the platform's binder; the rest keep their order.
    std::vector<std::string> calls = manager->callLog();
    const auto pending = std::find(calls.begin(), calls.end(), "pending tok-peer-client");
    ASSERT_NE(calls.end(), pending);
    calls.erase(pending);
    EXPECT_EQ((std::vector<std::string>{"register peer-client", "send tok-peer-client 0001feff 42",
                                        "send fail-me ", "deregister tok-peer-client"}),
              calls);

    // The callback the generated client passed, called through our proxy.
    sp<IZEMCallback> cb = manager->lastCallback();
    ASSERT_NE(nullptr, cb.get());
    EXPECT_NE(nullptr, android::IInterface::asBinder(cb)->remoteBinder());
    int32_t result = 0;
    ASSERT_TRUE(cb->onCampaignEvent(256, 1LL << 40, {0xca, 0xfe}, -5, "tok-peer-client", &result)
                        .isOk());
    EXPECT_EQ(257, result);
    EXPECT_TRUE(client.saw("event 256 1099511627776 cafe -5 tok-peer-client"));
    client.child.closeStdin();
    EXPECT_EQ(0, client.child.waitExit()) << client.child.err();
}

// ---- host runtime ------------------------------------------------------------

class Obituaries : public IBinder::DeathRecipient {
  public:
    void binderDied(const android::wp<IBinder>&) override { ++count; }
    std::atomic<int> count{0};
};

TEST(HostBinder, RegistryDeathAndMalformedPeers) {
    android::ProcessState::self()->startThreadPool();
    auto sm = android::defaultServiceManager();
    EXPECT_EQ(nullptr, sm->checkService(String16("nobody_serves_this")).get());

    // getService waits for a service that is not published yet.
    Peer daemon({"daemon", "runtime_daemon"});
    ASSERT_NE(nullptr, sm->getService(String16("runtime_daemon")).get());
    ASSERT_TRUE(daemon.saw("ready"));
    sp<IBinder> binder = sm->checkService(String16("runtime_daemon"));
    ASSERT_NE(nullptr, binder.get());
    EXPECT_EQ(binder.get(), sm->checkService(String16("runtime_daemon")).get())
            << "one proxy per remote object";
    EXPECT_EQ(android::OK, binder->pingBinder());
    // Transaction errors travel back from the other process as they are.
    Parcel unknownCode, wrongToken, reply;
    unknownCode.writeInterfaceToken(IZEMManager::descriptor);
    EXPECT_EQ(android::UNKNOWN_TRANSACTION, binder->transact(5, unknownCode, &reply));
    wrongToken.writeInterfaceToken(IZEMCallback::descriptor);
    wrongToken.writeUtf8AsUtf16("t");
    EXPECT_EQ(android::BAD_TYPE, binder->transact(3, wrongToken, &reply));
    // A second process cannot take a live service's name.
    Peer rival({"daemon", "runtime_daemon"});
    EXPECT_TRUE(rival.saw("add-failed " + std::to_string(android::ALREADY_EXISTS)));

    // Garbage at the service socket and at the process endpoint: a header of
    // nonsense, an oversized parcel, an object offset outside the data, and
    // a connection that says nothing. The daemon keeps serving.
    using namespace android::hostbinder;
    const std::string prefix =
            "host_binder/" + std::to_string(getuid()) + "/" + getenv("HOST_BINDER_REGISTRY") + "/";
    auto sendRaw = [](const std::string& name, const void* bytes, size_t len) {
        const int fd = connectAbstract(name);
        if (fd < 0) return;
        writeFully(fd, bytes, len);
        char c;
        setReceiveTimeout(fd, 3000);
        recv(fd, &c, 1, 0);
        close(fd);
    };
    const std::string junk(64, 'x');
    sendRaw(prefix + "svc/runtime_daemon", junk.data(), junk.size());
    const std::string endpoint = binder->remoteBinder()->endpoint();
    FrameHeader huge;
    huge.kind = kTransact;
    huge.object = binder->remoteBinder()->objectId();
    huge.code = 1;
    huge.dataSize = 0xfffffff0u;
    sendRaw(endpoint, &huge, sizeof(huge));
    struct {
        FrameHeader h;
        uint8_t data[8];
        uint64_t offset;
    } badObject{};
    badObject.h.kind = kTransact;
    badObject.h.object = huge.object;
    badObject.h.code = 1;
    badObject.h.dataSize = 8;
    badObject.h.objectCount = 1;
    badObject.offset = 4;
    sendRaw(endpoint, &badObject, sizeof(badObject));
    sendRaw(endpoint, nullptr, 0);
    FrameHeader unknownObject = huge;
    unknownObject.dataSize = 0;
    unknownObject.object = 999999;
    sendRaw(endpoint, &unknownObject, sizeof(unknownObject));

    sp<IZEMManager> manager = IZEMManager::asInterface(binder);
    std::string token;
    EXPECT_TRUE(manager->registerZEMClient("after-junk", new FakeCallback(), &token).isOk());
    EXPECT_EQ("after-junk-1", token);

    // Death: each linked recipient hears it once, later calls fail at once.
    sp<Obituaries> obit = new Obituaries();
    sp<Obituaries> unlinked = new Obituaries();
    ASSERT_EQ(android::OK, binder->linkToDeath(obit));
    ASSERT_EQ(android::OK, binder->linkToDeath(unlinked));
    EXPECT_EQ(android::OK, binder->unlinkToDeath(unlinked));
    daemon.child.signal(SIGKILL);
    daemon.child.waitExit();
    EXPECT_TRUE(zem_e2e::eventually([&] { return obit->count.load() == 1; }));
    EXPECT_EQ(0, unlinked->count.load());
    EXPECT_FALSE(binder->isBinderAlive());
    EXPECT_EQ(android::DEAD_OBJECT, binder->pingBinder());
    EXPECT_EQ(android::DEAD_OBJECT, binder->linkToDeath(obit));
    EXPECT_EQ(nullptr, sm->checkService(String16("runtime_daemon")).get());
    EXPECT_EQ(1, obit->count.load());
}

TEST(HostBinder, TransactionsInFlightShareTheReceiversBuffer) {
    using namespace android::hostbinder;
    EXPECT_EQ(16u, bufferBytes(9, 0)) << "data rounded to 8 bytes";
    EXPECT_EQ(8u + 16u, bufferBytes(8, 2)) << "each object adds its 8-byte offset";
    BufferBudget budget;
    const size_t third = kProcessBufferBytes / 3;
    struct Step {
        bool reserve;  // false: release
        size_t bytes;
        bool oneway;
        bool fits;
    } steps[] = {
            {true, third, true, true},
            {true, third, true, false},       // one-way calls get half
                                              // the buffer
            {true, third, false, true},       // two-way ones the rest
            {true, third + 8, false, false},  // the whole buffer is taken
            {true, third, false, true},
            {true, 8, false, false},
            {false, third, true, true},
            {true, third, true, true},  // room again once a call was served
    };
    for (const Step& st : steps) {
        if (st.reserve) {
            EXPECT_EQ(st.fits, budget.reserve(st.bytes, st.oneway))
                    << st.bytes << (st.oneway ? " one-way" : " two-way");
        } else {
            budget.release(st.bytes, st.oneway);
        }
    }
}

TEST(HostBinder, OneWayCallsToOneObjectRunOneAtATimeInOrder) {
    android::ProcessState::self()->startThreadPool();
    sp<FakeManager> manager = new FakeManager();
    // A proxy on our own object, so that the calls go through the pool.
    Parcel flattened;
    ASSERT_EQ(android::OK, flattened.writeStrongBinder(manager));
    android::hostbinder::FlatBinderHeader flat;
    memcpy(&flat, flattened.data(), sizeof(flat));
    const std::string endpoint(reinterpret_cast<const char*>(flattened.data()) + sizeof(flat),
                               flat.endpointLength);
    sp<IZEMManager> proxy = new BpZEMManager(android::BpBinder::create(endpoint, flat.objectId));
    const int kCalls = 300;
    for (int i = 0; i < kCalls; ++i) {
        ASSERT_TRUE(proxy->checkForPendingCampaign(std::to_string(i)).isOk());
    }
    ASSERT_TRUE(zem_e2e::eventually([&] { return manager->callLog().size() == kCalls; }));
    const std::vector<std::string> calls = manager->callLog();
    for (int i = 0; i < kCalls; ++i) ASSERT_EQ("pending " + std::to_string(i), calls[i]);
}

// ---- zemAIDLClient ---------------------------------------------------------------

// A collector whose campaign and connection calls are only counted.
class RecordingCollector : public zem_collector {
  public:
    RecordingCollector(const std::string& name, const std::string& dir)
        : zem_collector(makeCfg(name, dir)) {}
    static zem_cfg_s makeCfg(const std::string& name, const std::string& dir) {
        static std::vector<std::string> keep;
        keep.push_back(name);
        keep.push_back(dir);
        zem_cfg_s cfg{};
        cfg.name = keep[keep.size() - 2].c_str();
        cfg.cache_dir = keep.back().c_str();
        cfg.transport = 1;
        return cfg;
    }
    int StartCampaign(const std::string& config) override {
        std::lock_guard<std::mutex> lock(mutex);
        starts.push_back(config);
        return 21;
    }
    int StopCampaign() override {
        ++stops;
        return 22;
    }
    int LostConn() override {
        ++lost;
        return 0;
    }
    std::vector<std::string> started() {
        std::lock_guard<std::mutex> lock(mutex);
        return starts;
    }
    std::mutex mutex;
    std::vector<std::string> starts;
    std::atomic<int> stops{0}, lost{0};
};

TEST(AIDLClient, WithoutTheServiceRegistrationFailsAndTheNextInstanceIsFresh) {
    zem_test::TempDir dir;
    RecordingCollector c("nosvc", dir.path());
    auto first = zemAIDLClient::getClientInstance();
    zem_test::LogCapture log;
    EXPECT_EQ(-1, first->registerClient("nosvc", 0x102, &c));
    const std::string& text = log.text();
    EXPECT_EQ(1, zem_test::countLogLines(text, 'I', "registerClient: called"));
    EXPECT_EQ(1, zem_test::countLogLines(text, 'I', "registerClient - created threadpool"));
    EXPECT_EQ(1, zem_test::countLogLines(text, 'E',
                                         "setZEMBinder - zemsdkservice service not available yet"));
    EXPECT_EQ(1, zem_test::countLogLines(text, 'E', "registerClient failed to set zem binder"));
    EXPECT_NE(first.get(), zemAIDLClient::getClientInstance().get());
    EXPECT_EQ(-1, first->sendData(dir.file("none"), "t"));
    EXPECT_EQ(-1, first->deRegisterClient("t"));
}

TEST(AIDLClient, EventsReachTheRightCollectorAndDeathReachesEveryOne) {
    zem_test::TempDir dir;
    Peer daemon({"daemon", "vendor_zemsdkservice", "c0ffee"});
    ASSERT_TRUE(daemon.saw("ready"));
    RecordingCollector a("alpha", dir.path());
    RecordingCollector b("beta", dir.path());
    auto client = zemAIDLClient::getClientInstance();
    {
        zem_test::LogCapture log;
        ASSERT_EQ(0, client->registerClient("alpha", 0x100, &a));
        ASSERT_EQ(0, zemAIDLClient::getClientInstance()->registerClient("beta", 0x100, &b));
        const std::string& text = log.text();
        EXPECT_EQ(1, zem_test::countLogLines(
                             text, 'I', "setZEMBinder - got new instance of zem client binder"));
        EXPECT_EQ(1, zem_test::countLogLines(text, 'I', "setZEMBinder: linkToDeath status: 0"));
        EXPECT_EQ(1, zem_test::countLogLines(text, 'I',
                                             "registerClient success. Token received - "
                                             "alpha-1"));
    }
    EXPECT_EQ(client.get(), zemAIDLClient::getClientInstance().get()) << "one per process";
    EXPECT_EQ("alpha-1", a.getToken());
    EXPECT_EQ("beta-2", b.getToken());
    // The pending campaign comes back through onCampaignEvent, byte for byte.
    ASSERT_TRUE(daemon.saw("event-result alpha-1 256 0 21"));
    ASSERT_TRUE(daemon.saw("event-result beta-2 256 0 21"));
    EXPECT_EQ((std::vector<std::string>{"\xc0\xff\xee"}), a.started());

    // Stop before start; other events and unknown tokens answer -1.
    {
        zem_test::LogCapture log;
        daemon.child.send("event beta-2 512 1 0 -");
        ASSERT_TRUE(daemon.saw("event-result beta-2 512 0 22"));
        daemon.child.send("event beta-2 768 1 0 -");
        ASSERT_TRUE(daemon.saw("event-result beta-2 768 0 -1"));
        daemon.child.send("event alpha-1 256 4294967297 0 08");
        ASSERT_TRUE(daemon.saw("event-result alpha-1 256 0 21"));
        client->forgetCollector(&b);
        daemon.child.send("event beta-2 512 1 0 -");
        ASSERT_TRUE(zem_e2e::eventually([&] {
            return zem_e2e::count(daemon.child.out(), "event-result beta-2 512 0 -1") == 1;
        }));
        const std::string& text = log.text();
        EXPECT_EQ(1,
                  zem_test::countLogLines(
                          text, 'I', "onCampaignEvent - camp stop event received, token - beta-2"));
        EXPECT_EQ(1, zem_test::countLogLines(text, 'I',
                                             "onCampaignEvent - camp start event received, camp "
                                             "Id - 1, token - alpha-1"));
        EXPECT_EQ(1, zem_test::countLogLines(text, 'E',
                                             "onCampaignEvent - No entry found for token: beta-2"));
    }
    EXPECT_EQ(1, b.stops.load());
    ASSERT_TRUE(client->registerClient("beta", 0x100, &b) == 0);

    // Files: sent and removed; refused and kept; missing sent empty.
    const std::string file = dir.file("kpidata.1");
    zem_test::writeFile(file, std::string("\x01\x02", 2));
    EXPECT_EQ(0, client->sendData(file, "alpha-1"));
    EXPECT_TRUE(daemon.saw("send alpha-1 2 0102"));
    EXPECT_FALSE(access(file.c_str(), F_OK) == 0);
    zem_test::writeFile(file, "x");
    {
        zem_test::LogCapture log;
        EXPECT_EQ(-1, client->sendData(file, "fail-1"));
        EXPECT_EQ(1, zem_test::countLogLines(log.text(), 'E', "sendData - failed with error - -8"));
    }
    EXPECT_TRUE(access(file.c_str(), F_OK) == 0);
    EXPECT_EQ(0, client->sendData(dir.file("missing"), "alpha-1"));
    EXPECT_TRUE(daemon.saw("send alpha-1 0 -"));

    // A file larger than one transaction may carry goes in parts, each a
    // cache file image, that merge into the file; the file is then removed.
    {
        std::string image("\x08\x01", 2);
        for (uint32_t i = 0; image.size() < 700 * 1024; ++i) {
            olvan::KPIData rec;
            olvan::Counter* c = rec.add_counters();
            c->mutable_meta()->set_id(i);
            c->set_value(i);
            image += rec.SerializeAsString();
        }
        const std::string big = dir.file("kpidata.2");
        zem_test::writeFile(big, image);
        EXPECT_EQ(0, client->sendData(big, "parts"));
        EXPECT_FALSE(access(big.c_str(), F_OK) == 0);
        olvan::KPIData whole, merged;
        ASSERT_TRUE(whole.ParseFromString(image));
        int parts = 0;
        ASSERT_TRUE(zem_e2e::eventually([&] {
            merged.Clear();
            parts = 0;
            for (const std::string& l : zem_e2e::lines(daemon.child.out())) {
                if (l.compare(0, 11, "send parts ") != 0) continue;
                const std::string hex = l.substr(l.rfind(' ') + 1);
                std::string bytes;
                for (size_t i = 0; i + 1 < hex.size(); i += 2) {
                    bytes.push_back(static_cast<char>(std::stoi(hex.substr(i, 2), nullptr, 16)));
                }
                olvan::KPIData part;
                if (!part.ParseFromString(bytes) || part.version() != olvan::V1) return false;
                merged.MergeFrom(part);
                ++parts;
            }
            return merged.counters_size() == whole.counters_size();
        }));
        EXPECT_GE(parts, 3);
        EXPECT_EQ(whole.SerializeAsString(), merged.SerializeAsString());
    }

    // The runtime holds transactions to the daemon's buffer, as a device
    // does: 1 MiB less two pages, half of it for a one-way call.
    {
        using android::hostbinder::kProcessBufferBytes;
        sp<IZEMManager> direct = IZEMManager::asInterface(
                android::defaultServiceManager()->checkService(String16("vendor_zemsdkservice")));
        ASSERT_NE(nullptr, direct.get());
        bool ok = false;
        const Status tooBig =
                direct->sendData(std::vector<uint8_t>(kProcessBufferBytes), "limit", &ok);
        EXPECT_EQ(android::FAILED_TRANSACTION, tooBig.transactionError());
        EXPECT_TRUE(direct->sendData(std::vector<uint8_t>(kProcessBufferBytes - 4096), "limit", &ok)
                            .isOk());
        // 300,000 characters travel as 600,000 bytes of UTF-16.
        const std::string longToken(300000, 't');
        EXPECT_EQ(android::FAILED_TRANSACTION,
                  direct->checkForPendingCampaign(longToken).transactionError());
        EXPECT_TRUE(direct->deregisterZEMClient(longToken).isOk());
    }
    EXPECT_EQ(0, client->deRegisterClient("alpha-1"));
    EXPECT_TRUE(daemon.saw("deregister alpha-1"));
    // Deregistration keeps the entry: events still arrive.
    daemon.child.send("event alpha-1 512 1 0 -");
    ASSERT_TRUE(daemon.saw("event-result alpha-1 512 0 22"));

    // The daemon dies: each collector hears it once and the instance is
    // dropped.
    {
        zem_test::LogCapture log;
        daemon.child.signal(SIGKILL);
        daemon.child.waitExit();
        ASSERT_TRUE(zem_e2e::eventually([&] { return a.lost.load() + b.lost.load() == 2; }));
        EXPECT_EQ(1, a.lost.load());
        EXPECT_EQ(1, b.lost.load());
        EXPECT_NE(client.get(), zemAIDLClient::getClientInstance().get());
        EXPECT_EQ(1, zem_test::countLogLines(log.text(), 'I',
                                             "DeathRecipientImpl - ZEM Server has died"));
    }
    EXPECT_EQ(-1, client->sendData(file, "alpha-1")) << "a dead daemon keeps the file";
    EXPECT_TRUE(access(file.c_str(), F_OK) == 0);

    // That failure dropped the dead proxy: a registration through the same
    // instance finds the restarted daemon instead of failing on it forever.
    Peer restarted({"daemon", "vendor_zemsdkservice"});
    ASSERT_TRUE(restarted.saw("ready"));
    EXPECT_EQ(0, client->registerClient("alpha", 0x100, &a));
    EXPECT_TRUE(restarted.saw("register alpha alpha-1"));
    client->forgetCollector(&a);
    client->forgetCollector(&b);
}

// Two collectors register at once through the process's instance while the
// service is not yet published: the first one's failed connection drops the
// instance from clientPtr just before the service appears and the second one
// registers on it. That collector must still receive its campaigns and the
// daemon's death, and later collectors must share its connection.
TEST(AIDLClient, ACollectorRegisteredOnAnInstanceAnotherFailureDroppedStillHearsTheDaemon) {
    zem_test::TempDir dir;
    RecordingCollector early("early", dir.path());
    RecordingCollector late("late", dir.path());
    auto shared = zemAIDLClient::getClientInstance();
    EXPECT_EQ(-1, shared->registerClient("early", 0x100, &early));
    Peer daemon({"daemon", "vendor_zemsdkservice", "c0ffee"});
    ASSERT_TRUE(daemon.saw("ready"));
    ASSERT_EQ(0, shared->registerClient("late", 0x100, &late));
    EXPECT_EQ(shared.get(), zemAIDLClient::getClientInstance().get());
    ASSERT_TRUE(daemon.saw("event-result late-1 256 0 21"));
    EXPECT_EQ(1u, late.started().size());

    daemon.child.signal(SIGKILL);
    daemon.child.waitExit();
    ASSERT_TRUE(zem_e2e::eventually([&] { return late.lost.load() == 1; }));
    EXPECT_EQ(0, early.lost.load());
    shared->forgetCollector(&early);
    shared->forgetCollector(&late);
}

}  // namespace
