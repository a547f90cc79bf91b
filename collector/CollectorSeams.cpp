#include "collector/CollectorSeams.h"

#include <mutex>

#include "include/zem_sdk.h"
#include "transport/zemAIDLClient.h"
#include "transport/zemGRPCClient.h"

namespace zem {
namespace internal {

namespace {
constexpr std::chrono::milliseconds kDefaultRetryDelay{5000};
constexpr std::chrono::milliseconds kDefaultDisposePatience{5000};

std::mutex gSeamMutex;
TransportFactory gFactory;
std::chrono::milliseconds gRetryDelay = kDefaultRetryDelay;
std::chrono::milliseconds gDisposePatience = kDefaultDisposePatience;
bool gThreadStartFails = false;
}  // namespace

std::shared_ptr<zemTransportClient> makeDefaultTransport(uint32_t transport) {
    switch (transport) {
        case ZEM_TRANSPORT_BINDER:
            return zemAIDLClient::getClientInstance();
        case ZEM_TRANSPORT_GRPC:
            return std::make_shared<zemGRPCClient>();
        default:
            return nullptr;
    }
}

void setTransportFactory(TransportFactory factory) {
    std::lock_guard<std::mutex> lock(gSeamMutex);
    gFactory = std::move(factory);
}

void setRetryDelay(std::chrono::milliseconds delay) {
    std::lock_guard<std::mutex> lock(gSeamMutex);
    gRetryDelay = delay.count() > 0 ? delay : kDefaultRetryDelay;
}

void setDisposePatience(std::chrono::milliseconds patience) {
    std::lock_guard<std::mutex> lock(gSeamMutex);
    gDisposePatience = patience.count() > 0 ? patience : kDefaultDisposePatience;
}

std::shared_ptr<zemTransportClient> makeTransport(uint32_t transport) {
    TransportFactory factory;
    {
        std::lock_guard<std::mutex> lock(gSeamMutex);
        factory = gFactory;
    }
    return factory ? factory(transport) : makeDefaultTransport(transport);
}

void setThreadStartFailure(bool fail) {
    std::lock_guard<std::mutex> lock(gSeamMutex);
    gThreadStartFails = fail;
}

bool threadStartFails() {
    std::lock_guard<std::mutex> lock(gSeamMutex);
    return gThreadStartFails;
}

std::chrono::milliseconds retryDelay() {
    std::lock_guard<std::mutex> lock(gSeamMutex);
    return gRetryDelay;
}

std::chrono::milliseconds disposePatience() {
    std::lock_guard<std::mutex> lock(gSeamMutex);
    return gDisposePatience;
}

}  // namespace internal
}  // namespace zem
