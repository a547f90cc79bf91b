#include "tools/CampaignFile.h"

#include <google/protobuf/io/tokenizer.h>
#include <google/protobuf/text_format.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <sstream>

#include "collector/CampaignRules.h"

namespace zemtools {

namespace {

// Collects the text parser's complaints as "FILE:LINE:COLUMN: message".
class ParseErrors : public google::protobuf::io::ErrorCollector {
  public:
    explicit ParseErrors(std::string file) : file(std::move(file)) {}
    void AddError(int line, google::protobuf::io::ColumnNumber column,
                  const std::string& message) override {
        text += file + ":" + std::to_string(line + 1) + ":" + std::to_string(column + 1) + ": " +
                message + "\n";
    }
    std::string text;

  private:
    std::string file;
};

}  // namespace

bool loadTextFile(const std::string& file, google::protobuf::Message* message, const char* what,
                  std::string* error) {
    std::ifstream in(file);
    if (!in) {
        *error = std::string("cannot read ") + what + " file " + file + ": " + strerror(errno) +
                 "\n";
        return false;
    }
    std::stringstream ss;
    ss << in.rdbuf();
    ParseErrors errors(file);
    google::protobuf::TextFormat::Parser parser;
    parser.RecordErrorsTo(&errors);
    if (!parser.ParseFromString(ss.str(), message)) {
        *error = errors.text.empty() ? file + ": not a " + what + "\n" : errors.text;
        return false;
    }
    return true;
}

bool loadCampaignFile(const std::string& file, LTCCampaignDef* def, std::string* error) {
    return loadTextFile(file, def, "campaign", error);
}

std::vector<std::string> campaignRefusals(const LTCCampaignDef& def) {
    std::vector<std::string> out;
    for (const zem::CampaignProblem& problem : zem::campaignProblems(def)) {
        out.insert(out.end(), problem.details.begin(), problem.details.end());
    }
    return out;
}

}  // namespace zemtools
