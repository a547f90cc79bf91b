// The host binder runtime: parcels and statuses, the service registry and
// death notification across processes, the receiver's transaction buffer and
// the order of one-way calls. The other process is binder_aidl_peer serving
// its IZEMManager.
#include <binder/BpBinder.h>
#include <binder/IServiceManager.h>
#include <binder/Parcel.h>
#include <binder/ProcessState.h>
#include <binder/Status.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "BinderTestUtil.h"
#include "platform/host/binder/HostWire.h"

using android::BBinder;
using android::IBinder;
using android::Parcel;
using android::sp;
using android::status_t;
using android::String16;
using android::binder::Status;
using namespace android::hostbinder;

namespace {

class BinderRuntimeTest : public ::testing::Test {
  protected:
    BinderRuntimeTest() { android::ProcessState::self()->startThreadPool(); }
    const sp<android::IServiceManager> sm = android::defaultServiceManager();
};

TEST_F(BinderRuntimeTest, ParcelsRefuseMalformedDataAndRoundTripWhatTheyWrite) {
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
    Parcel written;
    Status::fromExceptionCode(Status::EX_ILLEGAL_ARGUMENT, "bad arg").writeToParcel(&written);
    written.setDataPosition(0);
    EXPECT_EQ(android::OK, st.readFromParcel(written));
    EXPECT_EQ(Status::EX_ILLEGAL_ARGUMENT, st.exceptionCode());
    EXPECT_STREQ("bad arg", st.exceptionMessage().string());
    // A transport failure is never written as an exception.
    Parcel none;
    EXPECT_EQ(android::DEAD_OBJECT, Status::fromStatusT(android::DEAD_OBJECT).writeToParcel(&none));
    EXPECT_EQ(0u, none.dataSize());
}

class Obituaries : public IBinder::DeathRecipient {
  public:
    void binderDied(const android::wp<IBinder>&) override { ++count; }
    std::atomic<int> count{0};
};

TEST_F(BinderRuntimeTest, RegistryErrorsUnknownObjectsAndDeathAcrossProcesses) {
    EXPECT_EQ(nullptr, sm->checkService(String16("nobody_serves_this")).get());

    // getService waits for a service that is not published yet.
    Peer daemon({"daemon", "runtime_daemon"});
    sp<IBinder> binder = sm->getService(String16("runtime_daemon"));
    ASSERT_NE(nullptr, binder.get());
    EXPECT_EQ(binder.get(), sm->checkService(String16("runtime_daemon")).get())
            << "one proxy per remote object";
    EXPECT_EQ(android::OK, binder->pingBinder());
    // Transaction errors travel back from the other process as they are.
    Parcel unknownCode, wrongToken, reply;
    unknownCode.writeInterfaceToken(String16("IZEMManager"));
    EXPECT_EQ(android::UNKNOWN_TRANSACTION, binder->transact(5, unknownCode, &reply));
    wrongToken.writeInterfaceToken(String16("IZEMCallback"));
    wrongToken.writeUtf8AsUtf16("t");
    EXPECT_EQ(android::BAD_TYPE, binder->transact(3, wrongToken, &reply));
    // A second process cannot take a live service's name.
    Peer rival({"daemon", "runtime_daemon"});
    EXPECT_TRUE(rival.saw("add-failed " + std::to_string(android::ALREADY_EXISTS)));

    // A transaction for an object the daemon does not hold is answered as
    // dead, and the daemon keeps serving.
    FrameHeader unknownObject;
    unknownObject.kind = kTransact;
    unknownObject.object = 999999;
    const int fd = connectAbstract(binder->remoteBinder()->endpoint());
    setReceiveTimeout(fd, 10000);
    FrameHeader answer;
    ASSERT_TRUE(writeFully(fd, &unknownObject, sizeof(unknownObject)));
    ASSERT_TRUE(readFully(fd, &answer, sizeof(answer)));
    close(fd);
    EXPECT_EQ(android::DEAD_OBJECT, answer.status);
    EXPECT_EQ(android::UNKNOWN_TRANSACTION, binder->transact(5, unknownCode, &reply));

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

TEST_F(BinderRuntimeTest, TransactionsInFlightShareTheReceiversBufferAndNoneExceedsIt) {
    EXPECT_EQ(16u, bufferBytes(9, 0)) << "data rounded to 8 bytes";
    EXPECT_EQ(8u + 16u, bufferBytes(8, 2)) << "each object adds its 8-byte offset";
    BufferBudget budget;
    const size_t third = kProcessBufferBytes / 3;
    // One-way calls get half the buffer, two-way ones the rest, until the
    // whole buffer is taken.
    const struct {
        size_t bytes;
        bool oneway, fits;
    } steps[] = {
            {third, true, true},       {third, true, false}, {third, false, true},
            {third + 8, false, false}, {third, false, true}, {8, false, false},
    };
    for (const auto& st : steps) {
        EXPECT_EQ(st.fits, budget.reserve(st.bytes, st.oneway))
                << st.bytes << (st.oneway ? " one-way" : " two-way");
    }
    // Room again once a call was served.
    budget.release(third, true);
    EXPECT_TRUE(budget.reserve(third, true));

    // A transaction larger than an idle receiver's buffer (half of it for a
    // one-way call) fails at the sender; one that fits is served.
    Peer daemon({"daemon", "limit_daemon"});
    ASSERT_TRUE(daemon.saw("ready"));
    sp<IBinder> binder = sm->checkService(String16("limit_daemon"));
    ASSERT_NE(nullptr, binder.get());
    const struct {
        size_t bytes;
        uint32_t flags;
        status_t expected;
    } calls[] = {
            {kProcessBufferBytes + 8, 0, android::FAILED_TRANSACTION},
            {kProcessBufferBytes, 0, android::UNKNOWN_TRANSACTION},
            {kOnewayBufferBytes + 8, IBinder::FLAG_ONEWAY, android::FAILED_TRANSACTION},
            {kOnewayBufferBytes, IBinder::FLAG_ONEWAY, android::OK},
    };
    for (const auto& call : calls) {
        const std::vector<uint8_t> bytes(call.bytes);
        Parcel data, reply;
        data.setData(bytes.data(), bytes.size());
        EXPECT_EQ(call.expected, binder->transact(99, data, &reply, call.flags)) << call.bytes;
    }
}

// Records the codes of the transactions it serves.
class CodeLog : public BBinder {
  public:
    status_t onTransact(uint32_t code, const Parcel&, Parcel*, uint32_t) override {
        std::lock_guard<std::mutex> lock(mutex);
        codes.push_back(code);
        return android::OK;
    }
    std::vector<uint32_t> served() {
        std::lock_guard<std::mutex> lock(mutex);
        return codes;
    }

  private:
    std::mutex mutex;
    std::vector<uint32_t> codes;
};

TEST_F(BinderRuntimeTest, OneWayCallsToOneObjectRunOneAtATimeInOrder) {
    sp<CodeLog> local = new CodeLog();
    // A proxy on our own object, so that the calls go through the pool.
    Parcel flattened;
    ASSERT_EQ(android::OK, flattened.writeStrongBinder(local));
    FlatBinderHeader flat;
    memcpy(&flat, flattened.data(), sizeof(flat));
    const std::string endpoint(reinterpret_cast<const char*>(flattened.data()) + sizeof(flat),
                               flat.endpointLength);
    sp<IBinder> proxy = android::BpBinder::create(endpoint, flat.objectId);
    const uint32_t kCalls = 300;
    std::vector<uint32_t> sent;
    for (uint32_t code = 1; code <= kCalls; ++code) {
        Parcel none;
        ASSERT_EQ(android::OK, proxy->transact(code, none, nullptr, IBinder::FLAG_ONEWAY));
        sent.push_back(code);
    }
    ASSERT_TRUE(zem_e2e::eventually([&] { return local->served().size() == kCalls; }));
    EXPECT_EQ(sent, local->served());
}

}  // namespace
