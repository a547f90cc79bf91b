// The per-sample path must not allocate: this binary replaces the global
// allocation functions (every other form forwards to these) and counts
// calls while samples land in an open window.
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

TEST(kpiAllocation, SamplesInAnOpenWindowAllocateNothing) {
    zem_test::TempDir dir;
    KPISerializer serializer(dir.path(), nullptr);
    KPICfg counter;
    counter.set_type(KPI_NUMERIC);
    counter.set_subtype(COUNTER);
    counter.set_nof_samples(2000000);
    KPICfg gauge = counter;
    gauge.set_subtype(GAUGE);
    gauge.mutable_g_cfg()->set_min(true);
    gauge.mutable_g_cfg()->set_max(true);
    gauge.mutable_g_cfg()->set_mean(true);
    KPICfg histogram = counter;
    histogram.set_subtype(HISTOGRAM);
    histogram.set_duration_msecs(3600000);
    for (uint32_t b = 0; b < 1024; ++b) histogram.mutable_h_cfg()->add_bucket_bounds(b * b);
    histogram.mutable_h_cfg()->set_overflow_en(true);
    histogram.mutable_h_cfg()->set_underflow_en(true);

    KPICfg evenHistogram = histogram;  // the other bound search
    evenHistogram.mutable_h_cfg()->clear_bucket_bounds();
    for (uint32_t b = 0; b < 1024; ++b) evenHistogram.mutable_h_cfg()->add_bucket_bounds(b << 20);

    for (const KPICfg* cfg : {&counter, &gauge, &histogram, &evenHistogram}) {
        std::unique_ptr<KPI> kpi = KPI::Create(*cfg, serializer);
        ASSERT_NE(nullptr, kpi);
        kpi->AddSample(1);  // the first sample opens the window
        const long before = allocations.load();
        for (unsigned int i = 0; i < 1000000; ++i) kpi->AddSample(i * 2654435761u);
        EXPECT_EQ(before, allocations.load()) << cfg->subtype();
        EXPECT_EQ(1000001u, kpi->sampleCount());
    }
    ASSERT_GT(allocations.load(), 0);  // the counting operator new is the one in use
}

}  // namespace
