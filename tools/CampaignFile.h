// Campaign files: an LTCCampaignDef written in protobuf text format, read by
// zemd (--campaign, the push command) and zemctl (check).
//
//   LTCCampaignDef def;
//   std::string error;
//   if (!zemtools::loadCampaignFile("c.txtpb", &def, &error)) fputs(error.c_str(), stderr);
//   for (const std::string& w : zemtools::campaignLimitProblems(def)) ...
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

// The campaign-wide limits a client enforces before it looks at any KPI
// (thresholds, KPI count, payload size): one description per value out of
// bounds, empty when the campaign passes.
std::vector<std::string> campaignLimitProblems(const LTCCampaignDef& def);

}  // namespace zemtools
