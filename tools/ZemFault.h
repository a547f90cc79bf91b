// ZemFault: test-only misbehaviour of the reference daemon zemd, switched on
// with `--fault NAME[=VALUE]` (repeatable). It exists so that fault-injection
// tests can run a real client against a daemon that refuses, stalls, drops
// or garbles, without a second daemon program.
//
//   register-status=N  Register answers status N (gRPC: RegisterResponse.status
//                      with a token; binder: a service-specific error N)
//   hang-register      Register never answers
//   send-status=N      SendData fails without storing the file (gRPC: status
//                      code N; binder: service-specific error N)
//   hang-send          SendData never answers
//   slow-send=MS       SendData waits MS milliseconds before storing the file
//   drop-streams=P     each second, each command stream ends with probability
//                      P (0..1)
//   bad-campaign       campaign bytes are garbage (both transports)
//   bad-command        command requests carry an undecodable startCampaign
//   bad-reply          the binder Register reply is truncated
//   bad-event          the binder campaign event parcel is truncated
//   stop-in-register   the first binder Register sends the client a campaign
//                      stop (event 512) before it answers, as a call back
//                      into the client from inside the client's call
//   stop-in-send       the same from inside the first binder SendData
//
// Hooks are called from zemd's gRPC handler threads and binder pool threads;
// the settings are written once by main() before any of them start.
#pragma once

#include <chrono>
#include <string>
#include <vector>

#include "spc.pb.h"
#include "transport/IZEMCallback.h"

namespace zemfault {

// Adds one `NAME[=VALUE]` setting; false with a message for a bad one.
bool add(const std::string& option, std::string* error);

// Names of the faults switched on, for zemd's start-up line.
std::string describe();

// Blocks for ever when hang-register is on; else returns the status that
// Register answers (0 unless register-status is set).
int beforeRegister();

// True once, for the first call, under stop-in-register or stop-in-send.
bool stopInRegisterNow();
bool stopInSendNow();

// Applies hang-send and slow-send; returns the failure code SendData
// answers without storing (0: go on normally).
int beforeSend();

// True when a command stream should be ended now (drop-streams).
bool dropStreamNow();
// How long a command stream's handler may wait before asking dropStreamNow.
std::chrono::milliseconds streamPoll();

// Replaces the campaign bytes with garbage under bad-campaign.
void corruptCampaign(std::string* bytes);
// Makes `request` undecodable by the client under bad-command.
void corruptCommand(olvan::CommandRequest* request);

// bad-reply: ZemBinderService::onTransact (defined in ZemFault.cpp) answers
// Register with a truncated reply.
bool badReply();

// bad-event: sends `callback` a campaign start whose parcel ends after the
// event type; the transaction's status. Returns false (nothing sent) when
// bad-event is off.
bool sendBadEvent(const android::sp<IZEMCallback>& callback, android::binder::Status* status);

}  // namespace zemfault
