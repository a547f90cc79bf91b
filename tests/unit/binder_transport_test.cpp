// The binder transport: the hand-written IZEMManager/IZEMCallback proxies and
// stubs byte for byte against libbinder's layout and against the platform
// code generator's classes (run in binder_aidl_peer), and zemAIDLClient's
// table, events, deliveries and death handling.
#include <binder/Parcel.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "BinderTestUtil.h"
#include "collector/zem_collector.h"
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

// ---- bytes ----------------------------------------------------------------

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

// Stubs with scripted answers; each call made is written to `calls`.
class FakeManager : public BnZEMManager {
  public:
    Status registerZEMClient(const std::string& name, const sp<IZEMCallback>& cb,
                             std::string* token) override {
        calls.push_back("register " + name);
        callback = cb;
        *token = "tok-" + name;
        return Status::ok();
    }
    Status checkForPendingCampaign(const std::string& token) override {
        calls.push_back("pending " + token);
        return Status::fromExceptionCode(Status::EX_ILLEGAL_STATE, "ignored");
    }
    Status deregisterZEMClient(const std::string& token) override {
        calls.push_back("deregister " + token);
        return Status::ok();
    }
    Status sendData(const std::vector<uint8_t>& data, const std::string& token,
                    bool* result) override {
        calls.push_back("send " + token + " " + hexDump(data));
        if (token == "fail-me") return Status::fromServiceSpecificError(9, "disk full");
        *result = true;
        return Status::ok();
    }
    std::vector<std::string> calls;
    sp<IZEMCallback> callback;
};

class FakeCallback : public BnZEMCallback {
  public:
    Status onCampaignEvent(int32_t eventType, int64_t campaignId,
                           const std::vector<uint8_t>& config, int32_t eventArg,
                           const std::string& token, int32_t* result) override {
        calls.push_back(std::to_string(eventType) + " " + std::to_string(campaignId) + " " +
                        hexDump(config) + "|" + std::to_string(eventArg) + " " + token);
        *result = 40 + eventType;
        return Status::ok();
    }
    std::vector<std::string> calls;
};

// ---- golden bytes ----------------------------------------------------------

class BinderTransportTest : public ::testing::Test {};

TEST_F(BinderTransportTest, ProxiesWriteLibbindersLayoutForEveryRequest) {
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
    EXPECT_TRUE(manager->registerZEMClient("\xc3\xa4\xe2\x82\xac\xf0\x9f\x98\x80",
                                           new FakeCallback(), &token)
                        .isOk());
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

TEST_F(BinderTransportTest, StubsAnswerInLibbindersLayoutAndDispatchByTheRules) {
    sp<FakeManager> manager = new FakeManager();
    sp<FakeCallback> callback = new FakeCallback();
    const std::string mgr = kManagerToken, cbk = kCallbackToken, t1 = " 02000000 74003100 00000000";
    const struct {
        IBinder* stub;
        uint32_t code, flags;
        std::string request;
        status_t status;
        const char* reply;
    } cases[] = {
            {manager.get(), 4, 0, mgr + " 00000000" + t1, android::OK, "00000000 01000000"},
            // A failed call carries the status only: exception, message, empty
            // stack trace header, service-specific code; no bool after it.
            {manager.get(), 4, 0, mgr + " 00000000 07000000 66006100 69006c00 2d006d00 65000000",
             android::OK,
             "f8ffffff 09000000 64006900 73006b00 20006600 75006c00 6c000000 00000000 09000000"},
            {manager.get(), 3, 0, mgr + t1, android::OK, "00000000"},
            // One-way: nothing written even though the implementation failed.
            {manager.get(), 2, IBinder::FLAG_ONEWAY, mgr + t1, android::OK, ""},
            // onCampaignEvent: status, then the result.
            {callback.get(), 1, 0,
             cbk + " 00020000 05000000 00000000 01000000 aa000000 4d000000" + t1, android::OK,
             "00000000 28020000"},
            // Out-of-range codes go to BBinder.
            {manager.get(), 5, 0, mgr, android::UNKNOWN_TRANSACTION, ""},
            {callback.get(), 2, 0, cbk, android::UNKNOWN_TRANSACTION, ""},
            // The other interface's token is refused before any argument is
            // read; the first argument that cannot be read is the result: a
            // string cut short, a byte vector longer than the parcel.
            {manager.get(), 3, 0, cbk + t1, android::BAD_TYPE, ""},
            {manager.get(), 3, 0, mgr + " 02000000 7400", android::UNEXPECTED_NULL, ""},
            {manager.get(), 4, 0, mgr + " ffffff7f 00000000", android::BAD_VALUE, ""},
    };
    for (const auto& c : cases) {
        const std::vector<uint8_t> request = hex(c.request);
        Parcel data, reply;
        data.setData(request.data(), request.size());
        EXPECT_EQ(c.status, c.stub->transact(c.code, data, &reply, c.flags)) << c.request;
        EXPECT_BYTES(hex(c.reply), bytesOf(reply)) << c.request;
    }
    // Bad requests never reach the implementation.
    EXPECT_EQ(
            (std::vector<std::string>{"send t1 ", "send fail-me ", "deregister t1", "pending t1"}),
            manager->calls);
    EXPECT_EQ((std::vector<std::string>{"512 5 aa|77 t1"}), callback->calls);

    // registerZEMClient: the token after an ok status; a missing callback is
    // refused.
    for (const sp<FakeCallback>& passed : {callback, sp<FakeCallback>()}) {
        Parcel req, reply;
        req.writeInterfaceToken(IZEMManager::descriptor);
        req.writeUtf8AsUtf16("x");
        req.writeStrongBinder(passed);
        EXPECT_EQ(passed != nullptr ? android::OK : android::UNEXPECTED_NULL,
                  manager->transact(1, req, &reply));
        EXPECT_BYTES(hex(passed != nullptr ? "00000000 05000000 74006f00 6b002d00 78000000" : ""),
                     bytesOf(reply));
    }
    EXPECT_EQ(callback.get(), manager->callback.get()) << "a local binder stays local";
    Parcel none, iface;
    ASSERT_EQ(android::OK, callback->transact(IBinder::INTERFACE_TRANSACTION, none, &iface));
    EXPECT_EQ(String16("IZEMCallback"), iface.readString16());
}

// ---- proxy failure paths -----------------------------------------------------

class DefaultManager : public IZEMManager {
  public:
    // Owned by a unique_ptr, never by sp<>: with the weak lifetime libutils
    // frees its reference bookkeeping when the object is deleted.
    DefaultManager() { extendObjectLifetime(OBJECT_LIFETIME_WEAK); }
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
};

TEST_F(BinderTransportTest,
       ProxyErrorsBecomeStatusesAndUnknownCodesFallBackToTheDefaultImplementation) {
    sp<Recorder> remote = new Recorder();
    sp<IZEMManager> manager = new BpZEMManager(remote);

    // A failed reply is not read past its status: the bool stays untouched.
    remote->replyBytes = hex("f8ffffff 00000000 00000000 00000000 0b000000");
    bool ok = false;
    Status s = manager->sendData({}, "t", &ok);
    EXPECT_EQ(11, s.serviceSpecificErrorCode());
    EXPECT_FALSE(ok);
    // An ok status without its out value is a transaction failure.
    remote->replyBytes = hex("00000000");
    s = manager->sendData({}, "t", &ok);
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
    // ... with one, its answer is the call's answer; null is refused.
    EXPECT_FALSE(IZEMManager::setDefaultImpl(nullptr));
    EXPECT_TRUE(IZEMManager::setDefaultImpl(std::make_unique<DefaultManager>()));
    EXPECT_TRUE(IZEMManager::setDefaultImpl(std::make_unique<DefaultManager>()));
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

// ---- zemAIDLClient ---------------------------------------------------------------

// A collector whose campaign and connection calls are only counted.
class RecordingCollector : public zem_collector {
  public:
    explicit RecordingCollector(const std::string& dir)
        : zem_collector(zem_cfg_s{"recorder", 0x100, dir.c_str(), nullptr, nullptr, 1}) {}
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

// Each of `lines` (priority, message) logged exactly once in `log`.
void expectLoggedOnce(const std::string& log,
                      const std::vector<std::pair<char, std::string>>& lines) {
    for (const auto& l : lines) EXPECT_EQ(1, zem_test::countLogLines(log, l.first, l.second));
}

class AIDLClientTest : public ::testing::Test {
  protected:
    zem_test::TempDir dir;
    RecordingCollector a{dir.path()}, b{dir.path()};
};

TEST_F(AIDLClientTest, WithoutTheServiceRegistrationFailsAndTheNextInstanceIsFresh) {
    auto first = zemAIDLClient::getClientInstance();
    zem_test::LogCapture log;
    EXPECT_EQ(-1, first->registerClient("nosvc", 0x102, &a));
    expectLoggedOnce(log.text(), {{'I', "registerClient: called"},
                                  {'I', "registerClient - created threadpool"},
                                  {'E', "setZEMBinder - zemsdkservice service not available yet"},
                                  {'E', "registerClient failed to set zem binder"}});
    EXPECT_NE(first.get(), zemAIDLClient::getClientInstance().get());
    EXPECT_EQ(-1, first->sendData(dir.file("none"), "t"));
    EXPECT_EQ(-1, first->deRegisterClient("t"));
}

TEST_F(AIDLClientTest, EventsReachTheRightCollectorAndDeathReachesEveryOne) {
    Peer daemon({"daemon", "vendor_zemsdkservice", "c0ffee"});
    ASSERT_TRUE(daemon.saw("ready"));
    auto client = zemAIDLClient::getClientInstance();
    {
        zem_test::LogCapture log;
        ASSERT_EQ(0, client->registerClient("alpha", 0x100, &a));
        ASSERT_EQ(0, zemAIDLClient::getClientInstance()->registerClient("beta", 0x100, &b));
        expectLoggedOnce(log.text(), {{'I', "setZEMBinder - got new instance of zem client binder"},
                                      {'I', "setZEMBinder: linkToDeath status: 0"},
                                      {'I', "registerClient success. Token received - alpha-1"}});
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
        ASSERT_TRUE(daemon.saw("event-result beta-2 512 0 -1"));
        expectLoggedOnce(
                log.text(),
                {{'I', "onCampaignEvent - camp stop event received, token - beta-2"},
                 {'I', "onCampaignEvent - camp start event received, camp Id - 1, token - alpha-1"},
                 {'E', "onCampaignEvent - No entry found for token: beta-2"}});
    }
    EXPECT_EQ(1, b.stops.load());
    ASSERT_EQ(0, client->registerClient("beta", 0x100, &b));

    // Files: sent and removed; refused and kept; missing sent empty.
    const std::string file = dir.file("kpidata.1");
    zem_test::writeFile(file, std::string("\x01\x02", 2));
    EXPECT_EQ(0, client->sendData(file, "alpha-1"));
    EXPECT_TRUE(daemon.saw("send alpha-1 2 0102"));
    EXPECT_NE(0, access(file.c_str(), F_OK));
    zem_test::writeFile(file, "x");
    {
        zem_test::LogCapture log;
        EXPECT_EQ(-1, client->sendData(file, "fail-1"));
        EXPECT_EQ(1, zem_test::countLogLines(log.text(), 'E', "sendData - failed with error - -8"));
    }
    EXPECT_EQ("x", zem_test::readFile(file));
    EXPECT_EQ(0, client->sendData(dir.file("missing"), "alpha-1"));
    EXPECT_TRUE(daemon.saw("send alpha-1 0 -"));

    // A file larger than one transaction may carry goes in parts, each a
    // cache file image, that merge into the file; the file is then removed.
    olvan::KPIData whole;
    whole.set_version(olvan::V1);
    for (uint32_t i = 0; i % 4096 != 0 || whole.ByteSizeLong() < 700 * 1024; ++i) {
        olvan::Counter* c = whole.add_counters();
        c->mutable_meta()->set_id(i);
        c->set_value(i);
    }
    const std::string big = dir.file("kpidata.2");
    zem_test::writeFile(big, whole.SerializeAsString());
    EXPECT_EQ(0, client->sendData(big, "parts"));
    EXPECT_NE(0, access(big.c_str(), F_OK));
    olvan::KPIData merged;
    int parts = 0;
    for (const std::string& l : zem_e2e::lines(daemon.child.out())) {
        if (l.compare(0, 11, "send parts ") != 0) continue;
        const std::vector<uint8_t> bytes = hex(l.substr(l.rfind(' ') + 1));
        olvan::KPIData part;
        ASSERT_TRUE(part.ParseFromArray(bytes.data(), static_cast<int>(bytes.size())));
        EXPECT_EQ(olvan::V1, part.version());
        merged.MergeFrom(part);
        ++parts;
    }
    EXPECT_GE(parts, 3);
    EXPECT_EQ(whole.SerializeAsString(), merged.SerializeAsString());

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
        EXPECT_EQ(a.lost.load(), b.lost.load());
        EXPECT_NE(client.get(), zemAIDLClient::getClientInstance().get());
        EXPECT_EQ(1, zem_test::countLogLines(log.text(), 'I',
                                             "DeathRecipientImpl - ZEM Server has died"));
    }
    EXPECT_EQ(-1, client->sendData(file, "alpha-1")) << "a dead daemon keeps the file";
    EXPECT_EQ("x", zem_test::readFile(file));

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
TEST_F(AIDLClientTest, ACollectorRegisteredOnAnInstanceAnotherFailureDroppedStillHearsTheDaemon) {
    auto shared = zemAIDLClient::getClientInstance();
    EXPECT_EQ(-1, shared->registerClient("early", 0x100, &a));
    Peer daemon({"daemon", "vendor_zemsdkservice", "c0ffee"});
    ASSERT_TRUE(daemon.saw("ready"));
    ASSERT_EQ(0, shared->registerClient("late", 0x100, &b));
    EXPECT_EQ(shared.get(), zemAIDLClient::getClientInstance().get());
    ASSERT_TRUE(daemon.saw("event-result late-1 256 0 21"));
    EXPECT_EQ(1u, b.started().size());

    daemon.child.signal(SIGKILL);
    daemon.child.waitExit();
    ASSERT_TRUE(zem_e2e::eventually([&] { return b.lost.load() == 1; }));
    EXPECT_EQ(0, a.lost.load());
    shared->forgetCollector(&a);
    shared->forgetCollector(&b);
}

}  // namespace
