// zemdump: prints the windows held in cache files, or a summary per KPI.
//
//   zemdump [--json] [--summary] FILE...
//
// Each file is decoded as one KPIData (the concatenation of its records) and
// every window is printed as one line, one window in memory at a time (the
// file's bytes plus 16 bytes per window); --summary folds the windows of all
// files into one row per KPI with charts. Exit status: 0 when every file
// decoded, 1 when one could not be read or is not a cache file, 2 on a usage
// error.
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "tools/KPIDataFormat.h"
#include "tools/KPISummary.h"

namespace {

// The whole file in one string, read without intermediate copies.
bool readFile(const std::string& path, std::string* out) {
    FILE* f = fopen(path.c_str(), "rb");
    if (f == nullptr) return false;
    char buf[64 * 1024];
    size_t n;
    while ((n = fread(buf, 1, sizeof buf, f)) > 0) out->append(buf, n);
    const bool ok = !ferror(f);
    const int err = errno;
    fclose(f);
    errno = err;
    return ok;
}

void usage(FILE* out) {
    fprintf(out,
            "usage: zemdump [--json] [--summary] FILE...\n"
            "\n"
            "Decodes zem_sdk cache files (kpidata.<seconds>, or the files zemd stores)\n"
            "and prints one line per aggregation window: KPI id, kind, window span in\n"
            "steady-clock seconds, sample count and the window's value(s). Each file\n"
            "starts with a line naming it, its size, version and window count.\n"
            "\n"
            "  --json      one JSON object per window, with a \"file\" field (no file lines)\n"
            "  --summary   one row per KPI over all windows of all FILEs: kind, windows,\n"
            "              samples and totals (counter sum; gauge min, max, mean of the\n"
            "              windows' means; histogram bin totals; blob bytes), then a bar\n"
            "              chart of each histogram's bin totals and a sparkline of each\n"
            "              numeric KPI over its windows in time order. With --json: one\n"
            "              JSON object per KPI, the per-window values in \"series\".\n"
            "\n"
            "Exit status: 0 when every file decoded, 1 when one could not be read or is\n"
            "not a cache file (the others are still printed), 2 for a usage error.\n"
            "\n"
            "examples:\n"
            "  zemdump /data/vendor/camera/zem/kpidata.1700000000\n"
            "  zemdump --json out/*.kpidata | grep '\"kind\":\"histogram\"'\n"
            "  zemdump --summary out/*.kpidata\n");
}

}  // namespace

int main(int argc, char** argv) {
    bool json = false;
    bool summary = false;
    std::vector<std::string> files;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--json") == 0) {
            json = true;
        } else if (strcmp(argv[i], "--summary") == 0) {
            summary = true;
        } else if (strcmp(argv[i], "-h") == 0 || strcmp(argv[i], "--help") == 0) {
            usage(stdout);
            return 0;
        } else if (argv[i][0] == '-' && argv[i][1] != '\0') {
            fprintf(stderr, "zemdump: unknown option %s (see zemdump --help)\n", argv[i]);
            return 2;
        } else {
            files.push_back(argv[i]);
        }
    }
    if (files.empty()) {
        fprintf(stderr, "zemdump: no file given (see zemdump --help)\n");
        return 2;
    }

    int status = 0;
    zemtools::KPISummary totals;
    for (const std::string& file : files) {
        std::string bytes;
        if (!readFile(file, &bytes)) {
            fprintf(stderr, "zemdump: %s: cannot open: %s\n", file.c_str(), strerror(errno));
            status = 1;
            continue;
        }
        zemtools::CacheFileIndex index;
        if (!index.decode(bytes)) {
            fprintf(stderr, "zemdump: %s: not a cache file (%zu bytes do not parse as KPIData)\n",
                    file.c_str(), bytes.size());
            status = 1;
            continue;
        }
        if (summary) {
            index.forEachWindow([&totals](const olvan::KPIData& one) { totals.add(one); });
            continue;
        }
        if (!json) {
            printf("%s: %zu bytes, version %s, %zu windows\n", file.c_str(), bytes.size(),
                   olvan::KPIDataVersion_Name(index.version()).c_str(), index.windowCount());
        }
        const std::string prefix = "\"file\":" + zemtools::jsonString(file) + ",";
        index.forEachLine(json, prefix, [json](const std::string& line) {
            printf("%s%s\n", json ? "" : "  ", line.c_str());
        });
    }
    if (summary) {
        for (const std::string& line : zemtools::formatSummary(totals.rows(), json)) {
            printf("%s\n", line.c_str());
        }
    }
    return status;
}
