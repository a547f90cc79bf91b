"""Prints the benchmark table from the results of scripts/bench.

Each row: what was measured, our figure, the baseline it is compared with
(a floor or a peer library, measured in the same run), the ratio, the target
and whether it is met.
"""
import json
import os
import sys

out = sys.argv[1]


def load(name):
    path = os.path.join(out, name + ".json")
    if not os.path.exists(path):
        return {}
    with open(path) as f:
        data = json.load(f)
    runs = {}
    for b in data.get("benchmarks", []):
        runs[b.get("run_name", b["name"]) if b.get("aggregate_name") is None
             else b["name"]] = b
    return runs


def ns(b, field="cpu_time"):
    """Nanoseconds per item of a benchmark entry."""
    if b is None:
        return None
    scale = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}[b.get("time_unit", "ns")]
    if "items_per_second" in b and field == "per_item":
        return 1e9 / b["items_per_second"]
    return b[field] * scale


zem = load("zem_log_bench")
ser = load("serializer_bench")
grpc = load("grpc_bench")

rows = []


def row(path, ours, base, base_name, target, ok):
    rows.append((path, ours, base, base_name, target, ok))


def fmt_ns(v):
    return "-" if v is None else ("%.1f ns" % v)


floor = ns(zem.get("BM_Floor_ClockReadPlusAdd"))


def vs_floor(name, label, limit, peer=None, peer_label=None):
    ours = ns(zem.get(name))
    if ours is None or floor is None:
        return
    ratio = ours / floor
    row(label, fmt_ns(ours), fmt_ns(floor), "floor (clock + add)",
        "<= %.2fx floor" % limit, "%.2fx %s" % (ratio, "ok" if ratio <= limit else "MISSED"))
    if peer:
        p = ns(zem.get(peer))
        if p is not None:
            row(label, fmt_ns(ours), fmt_ns(p), peer_label, "faster than peer",
                "%.2fx %s" % (ours / p, "ok" if ours < p else "MISSED"))


vs_floor("BM_ZemLog_Counter/1024", "zem_log counter, 1024 KPIs", 1.25,
         "BM_Peer_PrometheusCounterIncrement", "prometheus Counter::Increment + clock")
vs_floor("BM_ZemLog_Gauge", "zem_log gauge, all flags", 1.3,
         "BM_Peer_PrometheusGaugeSet", "prometheus Gauge::Set + clock")
vs_floor("BM_ZemLog_Histogram/1024", "zem_log histogram, 1024 bounds", 1.6,
         "BM_Peer_PrometheusHistogramObserve/1024", "prometheus Histogram::Observe + clock")

blob = zem.get("BM_ZemLogBlob_64")
if blob:
    v = ns(blob, "per_item")
    row("zem_log_blob, 64 bytes", fmt_ns(v), "-", "", "< 80 ns", "ok" if v < 80 else "MISSED")
close = load("zem_log_close").get("BM_ZemLog_WindowClose")
if close:
    v = ns(close)
    row("window close (counter, record queued)", fmt_ns(v), "-", "", "< 400 ns",
        "ok" if v < 400 else "MISSED")
t1 = zem.get("BM_ZemLog_Threads/real_time/threads:1")
t2 = zem.get("BM_ZemLog_Threads/real_time/threads:2")
if t1 and t2:
    r = t2["items_per_second"] / t1["items_per_second"]
    row("two threads, distinct KPIs", "%.1f M/s" % (t2["items_per_second"] / 1e6),
        "%.1f M/s" % (t1["items_per_second"] / 1e6), "one thread", ">= 1.8x",
        "%.2fx %s" % (r, "ok" if r >= 1.8 else "MISSED"))
w = ser.get("BM_WriterThroughput/200000/real_time")
raw = ser.get("BM_Baseline_RawWrite/200000/real_time")
if w and raw:
    rate, rawrate = w["items_per_second"], raw["items_per_second"]
    row("writer thread, counter records", "%.0f k/s" % (rate / 1e3), "%.0f k/s" % (rawrate / 1e3),
        "raw write(2) per record", ">= 500 k/s, >= 0.5x raw",
        "%.2fx %s" % (rate / rawrate, "ok" if rate >= 5e5 and rate >= rawrate / 2 else "MISSED"))
send = grpc.get("BM_SendDataVsUnixSocket/4194304/manual_time")
if send:
    slower = 1 / send["grpc_vs_unix"]
    row("SendData of a 4 MiB file over gRPC", "%.0f MB/s" % send["grpc_MBps"],
        "%.0f MB/s" % send["unix_MBps"], "same bytes over a plain Unix socket",
        "<= 2x the socket's time", "%.2fx %s" % (slower, "ok" if slower <= 2 else "MISSED"))
for size in ("4096", "4194304"):
    b = grpc.get("BM_StopToDelivered/%s/manual_time" % size)
    if b:
        row("stopCampaign to file at the daemon, %s bytes" % size, "%.2f ms" % (ns(b, "real_time") / 1e6),
            "-", "", "reported", "-")
reg = zem.get("BM_ZemRegister/iterations:200/repeats:5_median")
if reg:
    v = ns(reg) / 1e3
    row("zem_register (median)", "%.1f us" % v, "-", "", "< 50 us", "ok" if v < 50 else "MISSED")
mem = load("zem_log_memory").get("BM_Memory_CollectorWith1024Counters/iterations:1")
if mem:
    v = mem["rss_kib_per_collector"]
    row("resident memory per collector, 1024 counters", "%.0f KiB" % v, "-", "", "< 2048 KiB",
        "ok" if v < 2048 else "MISSED")
with open(os.path.join(out, "so_size.txt")) as f:
    size = int(f.read())
row("libzem_sdk.so stripped", "%.0f KiB" % (size / 1024), "-", "", "< 1024 KiB",
    "ok" if size < 1 << 20 else "MISSED")
instr = {}
with open(os.path.join(out, "instructions.txt")) as f:
    for line in f:
        k, v = line.split()
        instr[k] = float(v)
for kind in ("counter", "gauge", "histogram", "blob"):
    if kind in instr and "clock" in instr:
        extra = instr[kind] - instr["clock"]
        target = "< 45 beyond clock" if kind == "counter" else "reported"
        ok = ("ok" if extra < 45 else "MISSED") if kind == "counter" else "-"
        row("instructions per sample, %s" % kind, "%.1f" % instr[kind], "%.1f" % instr["clock"],
            "clock read + add", target, "%+.1f %s" % (extra, ok))

headers = ("path", "ours", "baseline", "baseline is", "target", "result")
widths = [max(len(str(r[i])) for r in rows + [headers]) for i in range(6)]
line = "  ".join(h.ljust(w) for h, w in zip(headers, widths))
print(line)
print("-" * len(line))
for r in rows:
    print("  ".join(str(c).ljust(w) for c, w in zip(r, widths)))
