// The per-sample path must not allocate: this binary counts every call of
// the global allocation functions while samples land in an open window.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>

#include "TestUtil.h"
#include "kpi/KPI.h"
#include "serializer/KPISerializer.h"

namespace {
std::atomic<long> allocations{0};
}  // namespace

void* operator new(std::size_t size) {
    allocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) {
    return operator new(size);
}
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    allocations.fetch_add(1, std::memory_order_relaxed);
    return std::malloc(size ? size : 1);
}
void* operator new[](std::size_t size, const std::nothrow_t& tag) noexcept {
    return operator new(size, tag);
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete[](void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}
void operator delete[](void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

TEST(kpiAllocation, SamplesInAnOpenWindowAllocateNothing) {
    zem_test::TempDir dir;
    KPISerializer serializer(dir.path(), nullptr);
    KPICfg counter, gauge, histogram;
    counter.set_type(KPI_NUMERIC);
    counter.set_subtype(COUNTER);
    counter.set_nof_samples(2000000);
    gauge = counter;
    gauge.set_subtype(GAUGE);
    gauge.mutable_g_cfg()->set_min(true);
    gauge.mutable_g_cfg()->set_max(true);
    gauge.mutable_g_cfg()->set_mean(true);
    histogram = counter;
    histogram.set_subtype(HISTOGRAM);
    histogram.set_duration_msecs(3600000);
    for (uint32_t b = 0; b < 1024; ++b) histogram.mutable_h_cfg()->add_bucket_bounds(b * 64);
    histogram.mutable_h_cfg()->set_overflow_en(true);
    histogram.mutable_h_cfg()->set_underflow_en(true);

    for (const KPICfg* cfg : {&counter, &gauge, &histogram}) {
        std::unique_ptr<KPI> kpi = KPI::Create(*cfg, serializer);
        ASSERT_NE(nullptr, kpi);
        kpi->AddSample(1);  // the first sample opens the window
        const long before = allocations.load();
        for (unsigned int i = 0; i < 1000000; ++i) kpi->AddSample(i * 2654435761u);
        EXPECT_EQ(before, allocations.load()) << cfg->subtype();
        EXPECT_EQ(1000001u, kpi->sampleCount());
    }
}

}  // namespace
