// Sequences of CommandRequests into the gRPC command stream's dispatch,
// against a collector without a transport, as if read from the daemon's
// stream one after another. Every KPI a started campaign made gets samples of
// every kind before the next command, and the last command is followed by a
// campaign stop, as the collector's lost connection would do.
//
// Input: requests until the input ends, each blob(CommandRequest bytes).
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "fuzz/FuzzSupport.h"
#include "spc.pb.h"
#include "transport/zemGRPCClient.h"

namespace {

constexpr int kMaxCommands = 32;

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    // The dispatch prints its progress lines to standard output.
    if (freopen("/dev/null", "w", stdout) == nullptr) return 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    zem_collector collector(zem_fuzz::collectorCfg("fuzz.command", zem_fuzz::emptyScratch()));
    zem_fuzz::ByteReader in(data, size);
    for (int i = 0; i < kMaxCommands && !in.empty(); ++i) {
        olvan::CommandRequest request;
        if (!request.ParseFromString(in.blob())) continue;
        olvan::CommandResponse response;
        const bool answered = zem::internal::dispatchCommand(request, &collector, &response);
        // Every command is answered with seq_no 0; an empty request is not.
        if (answered !=
                    (request.event_oneof_case() != olvan::CommandRequest::EVENT_ONEOF_NOT_SET) ||
            response.seq_no() != 0) {
            __builtin_trap();
        }
        zem_fuzz::logIntoEveryKpi(collector);
    }
    collector.StopCampaign();
    return 0;
}
