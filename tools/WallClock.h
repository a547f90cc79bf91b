// WallClock: turns the steady-clock times of KPI windows into wall-clock
// times.
//
// Records carry window times as steady-clock tenths of a second, which only
// mean something on the host and boot that wrote them. One reference pair
// (a steady-clock reading and the wall-clock time at that instant) maps them:
// zemd takes the pair when a file arrives, since its clients run on the same
// host; zemdump takes it from the command line (--clock-ref), for example the
// pair zemd printed when it started.
//
//   zemtools::WallClock clock = zemtools::WallClock::now();
//   std::string when = clock.iso(meta.ts_start());   // "2026-11-23T11:40:01.3Z"
//
// A plain value; copy it freely.
#pragma once

#include <cstdint>
#include <string>

namespace zemtools {

class WallClock {
  public:
    // No reference: known() is false and every time maps to "".
    WallClock() = default;
    // The pair read from this host's clocks now.
    static WallClock now();
    // Parses "STEADY=WALL": STEADY in steady-clock seconds (as the tools print
    // window times, "12345.6"), WALL as ISO 8601 UTC ("2026-11-23T11:40:00.5Z")
    // or Unix seconds ("1795434000.5"); or "now". False with a message when
    // `text` is neither.
    static bool parse(const std::string& text, WallClock* clock, std::string* error);

    bool known() const { return haveRef; }
    // Unix time in nanoseconds of a window time given in steady-clock tenths.
    int64_t unixNanos(uint64_t tenths) const;
    double unixSeconds(uint64_t tenths) const { return unixNanos(tenths) / 1e9; }
    // ISO 8601 UTC to the tenth of a second; "" when no reference is known.
    std::string iso(uint64_t tenths) const;
    // The reference pair in the form parse() reads, to the millisecond.
    std::string reference() const;

  private:
    bool haveRef = false;
    int64_t steadyNs = 0;  // a steady-clock reading
    int64_t wallNs = 0;    // the Unix time at that reading
};

// ISO 8601 UTC of `unixNanos`, with `decimals` (0 to 9) digits of seconds.
std::string isoTime(int64_t unixNanos, int decimals);

}  // namespace zemtools
