// The per-sample path must not allocate: this binary replaces the global
// allocation functions (every other form forwards to these) and counts
// calls while samples land in an open window.
#include <google/protobuf/text_format.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "TestUtil.h"
#include "kpi/KPI.h"
#include "serializer/KPISerializer.h"

static std::atomic<long> allocations{0};

// free() behind a call the compiler cannot see through: an inlined free()
// next to a new expression draws a mismatched-allocation warning.
__attribute__((noinline)) static void release(void* p) {
    std::free(p);
}

void* operator new(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    release(p);
}
void operator delete(void* p, std::size_t) noexcept {
    release(p);
}

namespace {

TEST(KpiAllocationTest, SamplesInAnOpenWindowAllocateNothing) {
    zem_test::TempDir dir;
    KPISerializer serializer(dir.path(), nullptr);
    const std::string numeric = "type: KPI_NUMERIC nof_samples: 2000000 subType: ";
    std::string square, even;  // the two bound searches
    for (uint32_t b = 0; b < 1024; ++b) {
        square += " bucket_bounds: " + std::to_string(b * b);
        even += " bucket_bounds: " + std::to_string(b << 20);
    }
    const std::string histogram =
            "type: KPI_NUMERIC subType: HISTOGRAM duration_msecs: 3600000 "
            "h_cfg { overflow_en: true underflow_en: true ";
    const std::string cfgs[] = {numeric + "COUNTER",
                                numeric + "GAUGE g_cfg { min: true max: true mean: true }",
                                histogram + square + " }", histogram + even + " }"};
    for (const std::string& text : cfgs) {
        KPICfg cfg;
        ASSERT_TRUE(google::protobuf::TextFormat::ParseFromString(text, &cfg));
        std::unique_ptr<KPI> kpi = KPI::Create(cfg, serializer);
        ASSERT_NE(nullptr, kpi) << text;
        kpi->AddSample(1);  // the first sample opens the window
        const long before = allocations.load();
        for (unsigned int i = 0; i < 1000000; ++i) kpi->AddSample(i * 2654435761u);
        EXPECT_EQ(before, allocations.load()) << text;
        EXPECT_EQ(1000001u, kpi->sampleCount());
    }
    ASSERT_GT(allocations.load(), 0);  // the counting operator new is the one in use
}

}  // namespace
