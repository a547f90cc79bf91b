// docs_sample_cache DIR: writes DIR/kpidata.1700000000, a cache file of
// twelve windows of every KPI kind, for the documentation's example commands.
#include <fstream>

#include "kpi_windows.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        fprintf(stderr, "usage: docs_sample_cache DIR\n");
        return 2;
    }
    olvan::KPIData d;
    for (uint32_t k = 0; k < 12; ++k) {
        zem_tools_test::appendWindows(&d, 10 * k, k % 3, 40 + k, 50 + k, 45.5f, {k % 2, k, 3, 1},
                                      "E" + std::to_string(k) + ": timeout");
    }
    std::ofstream out(std::string(argv[1]) + "/kpidata.1700000000", std::ios::binary);
    return d.SerializeToOstream(&out) && out.flush() ? 0 : 1;
}
