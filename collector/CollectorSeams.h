// Internal seams through which tests and tools change what a collector's
// registration thread does. Not part of the public C API.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "transport/zemTransportClient.h"

namespace zem {
namespace internal {

// Makes the transport client for a registration attempt from the record's
// transport value (1 binder, 2 gRPC). May return null: the attempt then runs
// with whatever client the collector already has.
using TransportFactory = std::function<std::shared_ptr<zemTransportClient>(uint32_t transport)>;

// Replaces the factory for every collector of the process; an empty function
// restores the built-in one.
void setTransportFactory(TransportFactory factory);

// The built-in factory's choice for `transport`.
std::shared_ptr<zemTransportClient> makeDefaultTransport(uint32_t transport);

// Replaces the wait between registration attempts (5 seconds); zero or a
// negative value restores the default.
void setRetryDelay(std::chrono::milliseconds delay);

// Replaces how long zem_deregister waits for a collector's threads to end
// (5 seconds) before it leaves them to finish on their own; zero or a
// negative value restores the default.
void setDisposePatience(std::chrono::milliseconds patience);

// Makes every later start of a registration thread fail as if the system
// had no thread left (std::system_error), or stops doing so.
void setThreadStartFailure(bool fail);

}  // namespace internal
}  // namespace zem
