// Campaign files: an LTCCampaignDef written in protobuf text format, read by
// zemd (--campaign, the push command) and zemctl (check).
//
//   LTCCampaignDef def;
//   std::string error;
//   if (!zemtools::loadCampaignFile("c.txtpb", &def, &error)) fputs(error.c_str(), stderr);
//   for (const std::string& w : zemtools::campaignRefusals(def)) ...
//
// Plain functions; no shared state.
#pragma once

#include <string>
#include <vector>

#include "kpi.pb.h"

namespace zemtools {

// Reads `file` as `message` in protobuf text format; `what` names the kind of
// file in messages ("campaign"). On failure `error` holds one line per
// problem, the parser's as "FILE:LINE:COLUMN: message".
bool loadTextFile(const std::string& file, google::protobuf::Message* message, const char* what,
                  std::string* error);

// Reads and parses `file`. On failure `error` holds one line per problem, the
// parser's as "FILE:LINE:COLUMN: message", each ending in a newline.
bool loadCampaignFile(const std::string& file, LTCCampaignDef* def, std::string* error);

// Why a client refuses `def`, by the library's campaign rules: one line per
// campaign-wide limit broken (thresholds, KPI count, payload size) and per
// refused KPI, as in the client's detail lines; empty when it accepts.
std::vector<std::string> campaignRefusals(const LTCCampaignDef& def);

}  // namespace zemtools
