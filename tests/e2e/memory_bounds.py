#!/usr/bin/env python3
"""Resident memory of a client and of zemd under loads that once grew without bound.

Run from a build tree (for example build/test-plain):

    python3 ../../tests/e2e/memory_bounds.py --zemd tools/zemd \\
        --client tests/e2e/e2e_fault_client --zemdump tools/zemdump [--seconds 30] [--only NAME...]

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
import argparse
import os
import resource
import shutil
import signal
import subprocess
import sys
import tempfile
import time

KIB = 1024


def status_kb(pid, field):
    try:
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                if line.startswith(field + ":"):
                    return int(line.split()[1])
    except OSError:
        pass
    return None


def wait_for(pred, seconds):
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        if pred():
            return True
        time.sleep(0.05)
    return pred()


class Run:
    """zemd with a campaign and one client, in a scratch directory."""

    def __init__(self, args, name, campaign, client_args=(), cache_files=None):
        self.args = args
        self.dir = tempfile.mkdtemp(prefix=f"zem_mem_{name}.")
        self.sock = os.path.join(self.dir, "spc.sock")
        self.cache = os.path.join(self.dir, "cache")
        os.mkdir(self.cache)
        for fname, data in (cache_files or {}).items():
            with open(os.path.join(self.cache, fname), "wb") as f:
                f.write(data)
        path = os.path.join(self.dir, "campaign.txtpb")
        with open(path, "w") as f:
            f.write(campaign)
        devnull = subprocess.DEVNULL
        self.zemd = subprocess.Popen([args.zemd, "--socket", self.sock, "--campaign", path],
                                     stdout=devnull, stderr=devnull, start_new_session=True)
        if not wait_for(lambda: os.path.exists(self.sock), 10):
            raise RuntimeError("zemd did not come up")
        self.errors = os.path.join(self.dir, "client.errors")
        self.client = subprocess.Popen(
            [args.client, "--transport", "grpc", "--socket", self.sock, "--cache", self.cache,
             *client_args], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
            stderr=subprocess.PIPE, start_new_session=True)
        # Only the ERROR lines are kept: the window lines run to many MB/s.
        with open(self.errors, "wb") as out:
            self.grep = subprocess.Popen(["grep", "-a", "--line-buffered", "zem_sdk E"],
                                         stdin=self.client.stderr, stdout=out)
        self.client.stderr.close()

    def wait_started(self, seconds=30):
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            line = self.client.stdout.readline().decode(errors="replace")
            if not line:
                return False
            if line.startswith("fault: start"):
                return True
        return False

    def sample(self, pid, seconds):
        rss = []
        for _ in range(seconds):
            time.sleep(1)
            v = status_kb(pid, "VmRSS")
            if v is None:
                break
            rss.append(v)
        return rss, status_kb(pid, "VmHWM")

    def finish(self):
        try:
            self.client.stdin.write(b"quit\n")
            self.client.stdin.flush()
        except BrokenPipeError:
            pass
        try:
            self.client.wait(timeout=20)
        except subprocess.TimeoutExpired:
            os.killpg(self.client.pid, signal.SIGKILL)
            self.client.wait()
        self.grep.wait(timeout=10)
        os.killpg(self.zemd.pid, signal.SIGTERM)
        try:
            self.zemd.wait(timeout=10)
        except subprocess.TimeoutExpired:
            os.killpg(self.zemd.pid, signal.SIGKILL)
            self.zemd.wait()
        with open(self.errors, errors="replace") as f:
            errors = f.read().splitlines()
        shutil.rmtree(self.dir, ignore_errors=True)
        return errors


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


def one_sample(args):
    campaign = ("kpiCfgs { id: 1 type: KPI_NUMERIC subType: COUNTER c_cfg {} nof_samples: 1 }\n"
                "size_threshold: 4194304\ntime_threshold: 60\n")
    r = Run(args, "one-sample", campaign, ["--rate", "0"])
    if not r.wait_started():
        raise RuntimeError("campaign never started")
    rss, hwm = r.sample(r.client.pid, args.seconds)
    errors = r.finish()
    report("one-sample", "client", rss, hwm)
    print(f"one-sample: {drops(errors)}")


def huge_blob(args):
    campaign = ("kpiCfgs { id: 1 type: KPI_BLOB nof_samples: 4294967295 b_cfg { "
                "singleSampleSizeTresholdBytes: 524288 sampleRateThresholdPerSec: 1000 } }\n"
                "size_threshold: 4194304\ntime_threshold: 60\n")
    r = Run(args, "huge-blob", campaign, ["--rate", "0", "--blob-bytes", "524288"])
    if not r.wait_started():
        raise RuntimeError("campaign never started")
    rss, hwm = r.sample(r.client.pid, args.seconds)
    errors = r.finish()
    report("huge-blob", "client", rss, hwm)
    print(f"huge-blob: {drops(errors)}")


def zemd_empty(args):
    # Version record, then empty counter windows (field 2, length 0).
    data = b"\x08\x01" + b"\x12\x00" * (4 * 1024 * 1024 - 1)
    campaign = ("kpiCfgs { id: 1 type: KPI_NUMERIC subType: COUNTER c_cfg {} nof_samples: 1 }\n"
                "size_threshold: 4194304\ntime_threshold: 60\n")
    # The client reopens the leftover at its campaign start; its first record
    # takes it past the threshold, so it is delivered at once.
    r = Run(args, "zemd-empty", campaign, ["--rate", "200"], {"kpidata.1": data})
    if not r.wait_started():
        raise RuntimeError("campaign never started")
    rss, hwm = r.sample(r.zemd.pid, args.seconds)
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


def control(sock, command):
    import socket
    s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    s.settimeout(30)
    try:
        s.connect(sock + ".ctl")
        s.sendall((command + "\n").encode())
        while s.recv(4096):
            pass
    finally:
        s.close()


def twenty_starts(args):
    bounds = ", ".join(str(10 * i) for i in range(1, 1025))
    campaign = "".join(
        f"kpiCfgs {{ id: {i} type: KPI_NUMERIC subType: HISTOGRAM h_cfg {{ bucket_bounds: "
        f"[{bounds}] underflow_en: true overflow_en: true }} nof_samples: 1 }}\n"
        for i in range(1, 1025))
    campaign += f'size_threshold: 4194304\ntime_threshold: 21600\ncfg_payload: "{"x" * 1048576}"\n'
    r = Run(args, "twenty-starts", campaign, ["--rate", "200"])
    if not r.wait_started(seconds=60):
        raise RuntimeError("campaign never started")
    time.sleep(1)
    after_one = status_kb(r.client.pid, "VmRSS")
    rss = [after_one]
    for _ in range(19):
        control(r.sock, "start")
        # The client answers each start before zemd's control reply.
        time.sleep(0.5)
        rss.append(status_kb(r.client.pid, "VmRSS"))
    hwm = status_kb(r.client.pid, "VmHWM")
    r.finish()
    report("twenty-starts", "client (after each start)", rss, hwm)


SCENARIOS = {"one-sample": one_sample, "huge-blob": huge_blob, "zemd-empty": zemd_empty,
             "twenty-starts": twenty_starts}


def main():
    ap = argparse.ArgumentParser(description=__doc__,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--zemd", required=True)
    ap.add_argument("--client", required=True)
    ap.add_argument("--zemdump")
    ap.add_argument("--seconds", type=int, default=30)
    ap.add_argument("--only", nargs="*")
    args = ap.parse_args()
    for name, func in SCENARIOS.items():
        if args.only and name not in args.only:
            continue
        func(args)
        sys.stdout.flush()
    return 0


if __name__ == "__main__":
    sys.exit(main())
