// KPITable: the collector's KPIs by id, in ascending id order.
//
// An ordered map kept as two sorted flat arrays: the ids alone, packed so a
// lookup touches few cache lines, and the owned aggregators beside them.
// Lookups are the per-sample hot path: no lock, no allocation.
//
// Not thread-safe. The table is changed only while a campaign starts or
// stops, when the application is not logging.
#pragma once

#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "kpi/KPI.h"

class KPITable {
  public:
    bool empty() const { return ids.empty(); }
    size_t size() const { return ids.size(); }

    // The KPI with `id`, or null.
    KPI* find(uint32_t id) const {
        // Branch-light lower bound over the packed ids.
        const uint32_t* base = ids.data();
        size_t n = ids.size();
        if (n == 0) return nullptr;
        while (n > 1) {
            const size_t half = n / 2;
            base = base[half] <= id ? base + half : base;
            n -= half;
        }
        return *base == id ? kpis[static_cast<size_t>(base - ids.data())].get() : nullptr;
    }

    // Stores `kpi` under `id`, replacing (and deleting) any KPI already there.
    void insertOrReplace(uint32_t id, std::unique_ptr<KPI> kpi) {
        auto it = std::lower_bound(ids.begin(), ids.end(), id);
        const size_t pos = static_cast<size_t>(it - ids.begin());
        if (it != ids.end() && *it == id) {
            kpis[pos] = std::move(kpi);
            return;
        }
        ids.insert(it, id);
        kpis.insert(kpis.begin() + static_cast<std::ptrdiff_t>(pos), std::move(kpi));
    }

    // Calls fn(id, kpi) for every entry in ascending id order.
    template <typename Fn>
    void forEach(Fn&& fn) const {
        for (size_t i = 0; i < ids.size(); ++i) fn(ids[i], *kpis[i]);
    }

    void clear() {
        kpis.clear();
        ids.clear();
    }

  private:
    std::vector<uint32_t> ids;
    std::vector<std::unique_ptr<KPI>> kpis;
};
