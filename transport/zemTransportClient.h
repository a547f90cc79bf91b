// zemTransportClient: how a collector reaches the collection daemon.
//
// Two implementations exist: zemGRPCClient (gRPC over a Unix socket, one per
// collector) and zemAIDLClient (binder, one per process, shared by every
// collector). The collector holds its client through a shared pointer.
//
// Threads: registerClient runs on the collector's registration thread,
// sendData on the serializer's writer thread (or the thread stopping a
// campaign), deRegisterClient on the application thread in zem_deregister.
// No operation throws; every failure is a non-zero result.
#pragma once

#include <cstdint>
#include <string>

class zem_collector;

class zemTransportClient {
  public:
    // Registers `name` and the packed `version` (major in bits 8 and up,
    // minor in the low 8 bits) with the daemon. On success the client has
    // written the daemon's token into `collector` and remembers `collector`
    // so that daemon commands reach it. Returns 0 on success.
    virtual int32_t registerClient(const std::string& name, uint32_t version,
                                   zem_collector* collector) = 0;

    // Sends the whole file at `filename` and removes it once the transport
    // succeeded; keeps it on failure. Returns 0 when delivered.
    virtual int32_t sendData(const std::string& filename, const std::string& token) = 0;

    // Ends the registration identified by `token`. Returns 0 when done.
    virtual int32_t deRegisterClient(const std::string& token) = 0;

    virtual ~zemTransportClient() = default;

    // Called by a collector that is going away. After it returns, no thread of
    // this client calls `collector` again; a call into `collector` still
    // running on another thread is waited for.
    virtual void forgetCollector(zem_collector* /*collector*/) {}
};
