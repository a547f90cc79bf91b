#!/usr/bin/env python3
"""Resident memory of a client and of zemd under loads that once grew without bound.

Run from a build tree (for example build/test-plain):

    python3 ../../tests/e2e/memory_bounds.py --zemd tools/zemd \\
        --client tests/e2e/e2e_client --zemdump tools/zemdump [--seconds 30] [--only NAME...]

Scenarios (gRPC, real processes, a private socket and cache folder each):
  one-sample   a counter with one-sample windows, logged at full speed: the
               writer cannot keep up, so the record queue's bound is what
               holds memory
  huge-blob    a blob KPI with a 4294967295-sample window, 512 KiB samples at
               full speed: the 512 KiB window bound closes every window
  zemd-empty   zemd receiving an 8 MiB cache file of empty windows (2 bytes
               each), and zemdump decoding the same file
  twenty-starts  the largest campaign (1024 histograms of 1024 bounds, a
               1 MiB payload) started 20 times without a stop: each start
               replaces every KPI, and the replaced ones are freed at once

For each it samples VmRSS every second and prints the first, lowest, highest
and last value and the peak (VmHWM), with the client's ERROR lines about
dropped records. Exit status 0 unless a process fails to come up.
"""
import os
import subprocess
import sys
import tempfile
import time

from harness import Rig, arguments, largest_campaign, proc_status, run_dir

KIB = 1024


class Run(Rig):
    """zemd (output dropped) with a campaign and one gRPC client whose
    standard error keeps only the library's ERROR lines."""

    def __init__(self, args, workdir, name, campaign, client_args=(), cache_files=None):
        super().__init__(args, name, "grpc", workdir, campaign)
        for fname, data in (cache_files or {}).items():
            with open(os.path.join(self.cache, fname), "wb") as f:
                f.write(data)
        self.start_daemon(quiet=True)
        self.start_client(threads=1, quiet=True, extra=client_args)
        if not self.wait_running(timeout=60):
            raise RuntimeError(f"{name}: campaign never started")

    def sample(self, pid, seconds):
        rss = []
        for _ in range(seconds):
            time.sleep(1)
            v = proc_status(pid, "VmRSS")
            if v is None:
                break
            rss.append(v)
        return rss, proc_status(pid, "VmHWM")

    def finish(self):
        self.quit_client(timeout=20)
        self.close()
        return self.client().err().splitlines()


def report(name, who, rss, hwm):
    mib = lambda kb: f"{kb / KIB:.1f}"
    if not rss:
        print(f"{name}: {who}: no samples")
        return
    print(f"{name}: {who} VmRSS MiB over {len(rss)} s: first {mib(rss[0])}, min {mib(min(rss))}, "
          f"max {mib(max(rss))}, last {mib(rss[-1])}; VmHWM {mib(hwm or 0)}")


def drops(errors):
    full = [e for e in errors if "Record queue full" in e]
    told = 0
    for e in errors:
        if " records dropped while " in e:
            told += int(e.split(" records dropped while ")[0].split()[-1])
    return f"{len(full)} 'Record queue full' lines, {told} drops told with their files"


LIMITS = "size_threshold: 4194304\ntime_threshold: 60\n"
ONE_SAMPLE = "kpiCfgs { id: 1 type: KPI_NUMERIC subType: COUNTER c_cfg {} nof_samples: 1 }\n" + LIMITS
HUGE_BLOB = ("kpiCfgs { id: 1 type: KPI_BLOB nof_samples: 4294967295 b_cfg { "
             "singleSampleSizeTresholdBytes: 524288 sampleRateThresholdPerSec: 1000 } }\n" + LIMITS)


def client_at_full_speed(name, campaign, *client_args):
    def run(args, workdir):
        r = Run(args, workdir, name, campaign, ["--rate", "0", *client_args])
        rss, hwm = r.sample(r.client().p.pid, args.seconds)
        errors = r.finish()
        report(name, "client", rss, hwm)
        print(f"{name}: {drops(errors)}")
    return run


def zemd_empty(args, workdir):
    # Version record, then empty counter windows (field 2, length 0).
    data = b"\x08\x01" + b"\x12\x00" * (4 * 1024 * 1024 - 1)
    # The client reopens the leftover at its campaign start; its first record
    # takes it past the threshold, so it is delivered at once.
    r = Run(args, workdir, "zemd-empty", ONE_SAMPLE, ["--rate", "200"], {"kpidata.1": data})
    rss, hwm = r.sample(r.daemon().p.pid, args.seconds)
    r.finish()
    report("zemd-empty", f"zemd ({len(data)} byte file)", rss, hwm)

    if args.zemdump:
        with tempfile.NamedTemporaryFile(prefix="zem_mem_dump.") as f:
            f.write(data)
            f.flush()
            for extra in ([], ["--json"], ["--summary"]):
                p = subprocess.Popen([args.zemdump, *extra, f.name], stdout=subprocess.DEVNULL)
                _, _, usage = os.wait4(p.pid, 0)
                print(f"zemd-empty: zemdump {' '.join(extra) or '(plain)'} peak "
                      f"{usage.ru_maxrss / KIB:.1f} MiB")


def twenty_starts(args, workdir):
    campaign = largest_campaign()
    r = Run(args, workdir, "twenty-starts", campaign, ["--rate", "200"])
    time.sleep(1)
    after_one = proc_status(r.client().p.pid, "VmRSS")
    rss = [after_one]
    for _ in range(19):
        r.control("start", timeout=30)
        # The client answers each start before zemd's control reply.
        time.sleep(0.5)
        rss.append(proc_status(r.client().p.pid, "VmRSS"))
    hwm = proc_status(r.client().p.pid, "VmHWM")
    r.finish()
    report("twenty-starts", "client (after each start)", rss, hwm)


SCENARIOS = {"one-sample": client_at_full_speed("one-sample", ONE_SAMPLE),
             "huge-blob": client_at_full_speed("huge-blob", HUGE_BLOB, "--blob-bytes", "524288"),
             "zemd-empty": zemd_empty, "twenty-starts": twenty_starts}


def main():
    def add(ap):
        ap.add_argument("--seconds", type=int, default=30)
        ap.add_argument("--only", nargs="*")
    args = arguments(__doc__, add)
    with run_dir(args, "zem-mem-") as workdir:
        for name, func in SCENARIOS.items():
            if not args.only or name in args.only:
                func(args, workdir)
                sys.stdout.flush()
    return 0


if __name__ == "__main__":
    sys.exit(main())
