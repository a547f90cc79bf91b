// zemdump: prints the windows held in cache files.
//
//   zemdump [--json] FILE...
//
// Each file is decoded as one KPIData (the concatenation of its records) and
// every window is printed as one line. Exit status: 0 when every file
// decoded, 1 when one could not be read or is not a cache file, 2 on a usage
// error.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "tools/KPIDataFormat.h"

namespace {

void usage(FILE* out) {
    fprintf(out,
            "usage: zemdump [--json] FILE...\n"
            "\n"
            "Decodes zem_sdk cache files (kpidata.<seconds>, or the files zemd stores)\n"
            "and prints one line per aggregation window: KPI id, kind, window span in\n"
            "steady-clock seconds, sample count and the window's value(s).\n"
            "\n"
            "  --json   one JSON object per window, with a \"file\" field\n"
            "\n"
            "examples:\n"
            "  zemdump /data/vendor/camera/zem/kpidata.1700000000\n"
            "  zemdump --json out/*.kpidata | grep '\"kind\":\"histogram\"'\n");
}

}  // namespace

int main(int argc, char** argv) {
    bool json = false;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--json") == 0) {
            json = true;
        } else if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
            usage(stdout);
            return 0;
        } else if (argv[i][0] == '-' && argv[i][1] != '\0') {
            fprintf(stderr, "zemdump: unknown option %s\n", argv[i]);
            usage(stderr);
            return 2;
        } else {
            files.push_back(argv[i]);
        }
    }
    if (files.empty()) {
        usage(stderr);
        return 2;
    }

    int status = 0;
    for (const std::string& file : files) {
        std::ifstream in(file, std::ios::binary);
        if (!in) {
            fprintf(stderr, "zemdump: %s: cannot open: %s\n", file.c_str(), strerror(errno));
            status = 1;
            continue;
        }
        std::ostringstream ss;
        ss << in.rdbuf();
        const std::string bytes = ss.str();

        olvan::KPIData data;
        if (!zemtools::decodeCacheBytes(bytes, &data)) {
            fprintf(stderr, "zemdump: %s: not a cache file (%zu bytes do not parse as KPIData)\n",
                    file.c_str(), bytes.size());
            status = 1;
            continue;
        }
        if (!json) {
            printf("%s: %zu bytes, version %s, %zu windows\n", file.c_str(), bytes.size(),
                   olvan::KPIDataVersion_Name(data.version()).c_str(), zemtools::windowCount(data));
        }
        const std::string prefix = "\"file\":" + zemtools::jsonString(file) + ",";
        for (const std::string& line : zemtools::formatWindows(data, json, prefix)) {
            printf("%s%s\n", json ? "" : "  ", line.c_str());
        }
    }
    return status;
}
