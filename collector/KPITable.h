// KPITable: the collector's KPIs by id, iterated in ascending id order.
//
// The entries live in two sorted flat arrays (ids, owned aggregators), which
// give the ordered walk that campaign stop needs. Lookups, the per-sample hot
// path, go through an open-addressing hash index beside them: one multiply
// and, at a load factor of at most a quarter, nearly always one probe of one
// cache line, where a binary search over 1024 ids is a chain of ten dependent
// loads. No lock, no allocation on lookup.
//
// Not thread-safe. A table is changed only by the thread that starts or
// stops a campaign; the collector publishes a new table rather than change
// one that logging threads may be reading (see zem_collector).
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

    KPITable() { rehash(kMinSlots); }

    // The KPI with `id`, or null.
    KPI* find(uint32_t id) const {
        for (uint32_t i = slotOf(id);; i = (i + 1) & mask) {
            const Slot& s = slots[i];
            if (s.kpi == nullptr) return nullptr;
            if (s.id == id) return s.kpi;
        }
    }

    // Stores `kpi` under `id`. Returns the KPI it replaces, if any, so the
    // caller decides when that one may be deleted.
    std::unique_ptr<KPI> insertOrReplace(uint32_t id, std::unique_ptr<KPI> kpi) {
        KPI* raw = kpi.get();
        auto it = std::lower_bound(ids.begin(), ids.end(), id);
        const size_t pos = static_cast<size_t>(it - ids.begin());
        if (it != ids.end() && *it == id) {
            std::swap(kpis[pos], kpi);
            indexInsert(id, raw);
            return kpi;
        }
        ids.insert(it, id);
        kpis.insert(kpis.begin() + static_cast<std::ptrdiff_t>(pos), std::move(kpi));
        if (4 * ids.size() > slots.size()) {
            rehash(8 * ids.size());
        } else {
            indexInsert(id, raw);
        }
        return nullptr;
    }

    // Takes over every entry of `from` (this table must be empty), with room
    // for `extra` more. `from` keeps its index, so a lookup still running in
    // it finds the same KPIs, but it owns nothing and must not be iterated.
    void adopt(KPITable& from, size_t extra) {
        ids = from.ids;
        kpis = std::move(from.kpis);
        from.kpis.clear();
        const size_t n = ids.size() + extra;
        ids.reserve(n);
        kpis.reserve(n);
        rehash(8 * n);
    }

    // Calls fn(id, kpi) for every entry in ascending id order.
    template <typename Fn>
    void forEach(Fn&& fn) const {
        for (size_t i = 0; i < ids.size(); ++i) fn(ids[i], *kpis[i]);
    }

    void clear() {
        kpis.clear();
        ids.clear();
        rehash(kMinSlots);
    }

  private:
    struct Slot {
        uint32_t id = 0;
        KPI* kpi = nullptr;  // null: free slot
    };

    // Fibonacci hashing: consecutive ids, the usual campaign layout, land in
    // distinct slots.
    uint32_t slotOf(uint32_t id) const { return (id * 0x9E3779B1u) >> shift; }

    void indexInsert(uint32_t id, KPI* kpi) {
        for (uint32_t i = slotOf(id);; i = (i + 1) & mask) {
            Slot& s = slots[i];
            if (s.kpi == nullptr || s.id == id) {
                s.id = id;
                s.kpi = kpi;
                return;
            }
        }
    }

    // Even an empty table has free slots, so a lookup needs no emptiness
    // test of its own.
    static constexpr size_t kMinSlots = 2;

    void rehash(size_t minSlots) {
        size_t n = kMinSlots;
        int bits = 1;
        while (n < minSlots) {
            n *= 2;
            ++bits;
        }
        slots.assign(n, Slot{});
        mask = static_cast<uint32_t>(n - 1);
        shift = 32 - bits;
        for (size_t i = 0; i < ids.size(); ++i) indexInsert(ids[i], kpis[i].get());
    }

    std::vector<Slot> slots;
    uint32_t mask = 0;
    int shift = 31;
    std::vector<uint32_t> ids;
    std::vector<std::unique_ptr<KPI>> kpis;
};
