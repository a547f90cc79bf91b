// zemdump: prints the windows held in cache files, or a summary per KPI.
//
//   zemdump [--json] [--summary] [--html OUT.html] [--catalog FILE] [--campaign FILE]
//           [--clock-ref STEADY=WALL] FILE...
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

#include "tools/CampaignFile.h"
#include "tools/HtmlReport.h"
#include "tools/KPICatalog.h"
#include "tools/KPIDataFormat.h"
#include "tools/KPISummary.h"
#include "tools/WallClock.h"

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
            "usage: zemdump [--json] [--summary] [--html OUT.html] [--catalog FILE]\n"
            "               [--campaign FILE] [--clock-ref STEADY=WALL] FILE...\n"
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
            "  --html OUT    also write one self-contained HTML page with a chart per KPI\n"
            "              (time series, min-max bands, bin heat maps, blob sizes) and\n"
            "              a table of its windows\n"
            "  --catalog FILE   KPI names, units and bin labels (see tools/catalog.proto)\n"
            "  --campaign FILE  the campaign the files were written under: histogram\n"
            "              bins are labelled by its bounds, \"(10, 20]\" for bin 1\n"
            "  --clock-ref STEADY=WALL   date windows in UTC from one reference pair: a\n"
            "              steady-clock time in seconds and the wall-clock time at that\n"
            "              instant (ISO 8601 or Unix seconds), as zemd prints it in\n"
            "              \"clock_ref\" when it starts; \"now\" reads this host's clocks\n"
            "              (for files written on this host since it booted)\n"
            "\n"
            "Exit status: 0 when every file decoded, 1 when one could not be read or is\n"
            "not a cache file (the others are still printed), 2 for a usage error.\n"
            "\n"
            "examples:\n"
            "  zemdump /data/vendor/camera/zem/kpidata.1700000000\n"
            "  zemdump --json out/*.kpidata | grep '\"kind\":\"histogram\"'\n"
            "  zemdump --summary out/*.kpidata\n"
            "  zemdump --catalog names.txtpb --campaign c.txtpb --clock-ref now \\\n"
            "          --html report.html out/*.kpidata\n");
}

}  // namespace

int main(int argc, char** argv) {
    bool json = false;
    bool summary = false;
    std::vector<std::string> files;
    std::string htmlPath;
    zemtools::KPICatalog catalog;
    LTCCampaignDef campaign;
    bool haveCampaign = false;
    zemtools::WallClock clock;
    for (int i = 1; i < argc; ++i) {
        const bool hasValue = i + 1 < argc;
        std::string error;
        if (!hasValue &&
            (strcmp(argv[i], "--html") == 0 || strcmp(argv[i], "--catalog") == 0 ||
             strcmp(argv[i], "--campaign") == 0 || strcmp(argv[i], "--clock-ref") == 0)) {
            fprintf(stderr, "zemdump: %s needs a value\n", argv[i]);
            return 2;
        }
        if (strcmp(argv[i], "--html") == 0) {
            htmlPath = argv[++i];
        } else if (strcmp(argv[i], "--catalog") == 0) {
            if (!catalog.load(argv[++i], &error)) {
                fprintf(stderr, "zemdump: bad catalog file:\n%s", error.c_str());
                return 2;
            }
        } else if (strcmp(argv[i], "--campaign") == 0) {
            if (!zemtools::loadCampaignFile(argv[++i], &campaign, &error)) {
                fprintf(stderr, "zemdump: bad campaign file:\n%s", error.c_str());
                return 2;
            }
            haveCampaign = true;
        } else if (strcmp(argv[i], "--clock-ref") == 0) {
            if (!zemtools::WallClock::parse(argv[++i], &clock, &error)) {
                fprintf(stderr, "zemdump: %s\n", error.c_str());
                return 2;
            }
        } else if (strcmp(argv[i], "--json") == 0) {
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
    zemtools::HtmlReport report;
    zemtools::WindowContext context;
    context.catalog = &catalog;
    context.campaign = haveCampaign ? &campaign : nullptr;
    context.clock = &clock;
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
        if (!htmlPath.empty() || summary) {
            index.forEachWindow([&](const olvan::KPIData& one) {
                if (!htmlPath.empty()) report.add("", one, clock);
                if (summary) totals.add(one);
            });
        }
        if (summary) continue;
        if (!json) {
            printf("%s: %zu bytes, version %s, %zu windows\n", file.c_str(), bytes.size(),
                   olvan::KPIDataVersion_Name(index.version()).c_str(), index.windowCount());
        }
        const std::string prefix = "\"file\":" + zemtools::jsonString(file) + ",";
        index.forEachLine(
                json, prefix,
                [json](const std::string& line) {
                    printf("%s%s\n", json ? "" : "  ", line.c_str());
                },
                context);
    }
    if (summary) {
        for (const std::string& line : zemtools::formatSummary(totals.rows(), json, context)) {
            printf("%s\n", line.c_str());
        }
    }
    if (!htmlPath.empty()) {
        std::string error;
        if (!report.write(htmlPath, "zemdump report", catalog, context.campaign, &error)) {
            fprintf(stderr, "zemdump: %s\n", error.c_str());
            return 1;
        }
    }
    return status;
}
