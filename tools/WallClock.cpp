#include "tools/WallClock.h"

#include <time.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace zemtools {

namespace {

constexpr int64_t kNanos = 1000000000;
constexpr int64_t kNanosPerTenth = 100000000;

// Seconds with an optional fraction ("12345.6") as nanoseconds.
bool parseSeconds(const std::string& text, int64_t* nanos) {
    if (text.empty()) return false;
    char* end = nullptr;
    const double v = strtod(text.c_str(), &end);
    if (end != text.c_str() + text.size() || !std::isfinite(v) || v < 0 || v > 9.2e9) return false;
    *nanos = static_cast<int64_t>(std::llround(v * 1e9));
    return true;
}

// "YYYY-MM-DDTHH:MM:SS[.fff]Z" as Unix nanoseconds.
bool parseIso(const std::string& text, int64_t* nanos) {
    int year, mon, day, hour, min, sec, used = 0;
    if (sscanf(text.c_str(), "%4d-%2d-%2dT%2d:%2d:%2d%n", &year, &mon, &day, &hour, &min, &sec,
               &used) != 6 ||
        used != 19) {
        return false;
    }
    int64_t frac = 0;
    size_t pos = 19;
    if (pos < text.size() && text[pos] == '.') {
        int64_t scale = kNanos / 10;
        for (++pos; pos < text.size() && text[pos] >= '0' && text[pos] <= '9'; ++pos) {
            frac += (text[pos] - '0') * scale;
            scale /= 10;
        }
    }
    if (pos + 1 != text.size() || text[pos] != 'Z') return false;
    tm t{};
    t.tm_year = year - 1900;
    t.tm_mon = mon - 1;
    t.tm_mday = day;
    t.tm_hour = hour;
    t.tm_min = min;
    t.tm_sec = sec;
    const time_t secs = timegm(&t);
    if (secs == static_cast<time_t>(-1)) return false;
    *nanos = static_cast<int64_t>(secs) * kNanos + frac;
    return true;
}

}  // namespace

WallClock WallClock::now() {
    WallClock c;
    // Read the wall clock between two steady readings and take their middle.
    const auto s0 = std::chrono::steady_clock::now();
    const auto w = std::chrono::system_clock::now();
    const auto s1 = std::chrono::steady_clock::now();
    c.steadyNs = std::chrono::duration_cast<std::chrono::nanoseconds>(
                         (s0.time_since_epoch() + s1.time_since_epoch()) / 2)
                         .count();
    c.wallNs = std::chrono::duration_cast<std::chrono::nanoseconds>(w.time_since_epoch()).count();
    c.haveRef = true;
    return c;
}

bool WallClock::parse(const std::string& text, WallClock* clock, std::string* error) {
    if (text == "now") {
        *clock = now();
        return true;
    }
    const size_t eq = text.find('=');
    WallClock c;
    if (eq == std::string::npos || !parseSeconds(text.substr(0, eq), &c.steadyNs) ||
        !(parseIso(text.substr(eq + 1), &c.wallNs) ||
          parseSeconds(text.substr(eq + 1), &c.wallNs))) {
        *error = "a clock reference is STEADY_SECONDS=WALL_TIME (for example "
                 "12345.6=2026-11-23T11:40:00.5Z or 12345.6=1795434000.5) or 'now', not '" +
                 text + "'";
        return false;
    }
    c.haveRef = true;
    *clock = c;
    return true;
}

int64_t WallClock::unixNanos(uint64_t tenths) const {
    return static_cast<int64_t>(tenths) * kNanosPerTenth - steadyNs + wallNs;
}

std::string WallClock::iso(uint64_t tenths) const {
    return haveRef ? isoTime(unixNanos(tenths), 1) : std::string();
}

std::string WallClock::reference() const {
    char steady[48];
    snprintf(steady, sizeof steady, "%lld.%03lld", static_cast<long long>(steadyNs / kNanos),
             static_cast<long long>(steadyNs % kNanos / 1000000));
    return std::string(steady) + "=" + isoTime(wallNs, 3);
}

std::string isoTime(int64_t unixNanos, int decimals) {
    int64_t secs = unixNanos / kNanos;
    int64_t rest = unixNanos % kNanos;
    if (rest < 0) {
        rest += kNanos;
        secs -= 1;
    }
    const time_t t = static_cast<time_t>(secs);
    tm parts{};
    gmtime_r(&t, &parts);
    char buf[64];
    const size_t n = strftime(buf, sizeof buf, "%Y-%m-%dT%H:%M:%S", &parts);
    std::string out(buf, n);
    if (decimals > 0) {
        char frac[16];
        snprintf(frac, sizeof frac, "%09lld", static_cast<long long>(rest));
        out += "." + std::string(frac, static_cast<size_t>(decimals > 9 ? 9 : decimals));
    }
    return out + "Z";
}

}  // namespace zemtools
