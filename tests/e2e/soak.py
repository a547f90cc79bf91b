#!/usr/bin/env python3
"""Bounded soak: one e2e_client logging from two threads at full speed
while zemd starts and stops its campaign every second and is killed
(SIGKILL) and restarted every 30 seconds. Samples the client's resident
memory, open descriptors and threads once a second, and at the end counts the
samples and windows the client closed against those zemd received.

  soak.py --zemd BIN --client BIN [--seconds N] [--transport grpc|binder]
          [--keep DIR] [--samples FILE]

Default 600 seconds; the script stops itself. Windows hold 1000 samples of
samples; the sum of the received windows' sample counts is the number of
samples delivered. Exit status 0 when no
sample was lost outside the documented cases (the open window at the client's
end; windows closed into a file whose delivery raced a daemon kill and that a
later file overtook) and the client's memory, descriptors and threads ended
flat; 1 otherwise.
"""
import os
import sys
import time

from e2e_fault_ledger import Scenario
from harness import arguments, proc_status, run_dir

WINDOW = 1000
CAMPAIGN = f"""
kpiCfgs {{ id: 1 type: KPI_NUMERIC subType: COUNTER c_cfg {{}} nof_samples: {WINDOW} }}
kpiCfgs {{ id: 2 type: KPI_NUMERIC subType: COUNTER c_cfg {{}} nof_samples: {WINDOW} }}
size_threshold: 65536
time_threshold: 60
cfg_payload: "soak"
"""


def proc_stats(pid):
    """Resident kB, open descriptors and threads of process `pid`, or None."""
    try:
        fds = len(os.listdir(f"/proc/{pid}/fd"))
    except OSError:
        return None
    return proc_status(pid, "VmRSS"), fds, proc_status(pid, "Threads")


def main():
    def add(ap):
        ap.add_argument("--seconds", type=int, default=600)
        ap.add_argument("--transport", default="grpc", choices=("grpc", "binder"))
        ap.add_argument("--samples")
    args = arguments(__doc__, add)
    with run_dir(args, "zem-soak-") as workdir:
        return soak(args, workdir)


def soak(args, workdir):
    s = Scenario(args, "soak", args.transport, workdir)
    s.campaign_file = lambda: s.write("campaign.txtpb", CAMPAIGN)
    samples = []
    restarts = 0
    try:
        s.start_daemon()
        # The library's per-window log lines would dominate the run; drop them.
        c = s.start_client(rate=0, threads=2, quiet=True)
        start = time.monotonic()
        next_sample = start
        next_restart = start + 30
        flip = 0
        while time.monotonic() - start < args.seconds:
            now = time.monotonic()
            if now >= next_restart:
                s.daemon().kill()
                s.start_daemon()
                restarts += 1
                next_restart += 30
            # Start and stop alternately, every half second.
            s.control("start" if flip % 2 == 0 else "stop", timeout=2)
            flip += 1
            if now >= next_sample:
                st = proc_stats(c.p.pid) if c.alive() else None
                if st is None:
                    s.notes.append(f"client died after {now - start:.0f}s, status {c.p.poll()}")
                    break
                samples.append((round(now - start, 1),) + st)
                next_sample += 1
            time.sleep(0.5)
        s.stop_and_drain(timeout=15)
        s.quit_client(timeout=30)
    finally:
        s.close()

    # The ledger, in samples and windows.
    logged = s.logged()
    closed_windows = 0
    c = s.clients[0]
    started = stopped = restarted = 0
    begin = None
    # A stop with no campaign running still reaches the stop callback; only
    # a stop that follows a start closes windows.
    for line in c.out().splitlines():
        parts = line.split()
        if len(parts) >= 4 and parts[0] == "e2e:" and parts[1] in ("start-callback", "stop-callback"):
            counts = [int(parts[2]), int(parts[3])]
            if parts[1] == "start-callback":
                started += 1
                # A start on a running campaign replaces its KPIs, whose
                # open windows go without being closed.
                restarted += begin is not None
                begin = begin or counts
            elif begin is not None:
                stopped += 1
                for t in range(2):
                    closed_windows += (counts[t] - begin[t] + WINDOW - 1) // WINDOW
                begin = None
    got_windows = len(s.received())
    got_samples = sum(e.get("samples", 0) for e in s.received())
    cached = 0
    for t in s.in_cache().values():
        cached += len(t)
    print(f"soak {args.seconds}s over {args.transport}: {restarts} daemon restarts, "
          f"{started} campaign starts ({restarted} on a running campaign), {stopped} stops")
    print(f"samples logged {sum(logged)}, delivered {got_samples}, lost {sum(logged) - got_samples}")
    print(f"windows closed {closed_windows}, received {got_windows}, "
          f"lost {closed_windows - got_windows}, left in the cache folder {cached}")
    ok = True
    for i, name in enumerate(("rss_kb", "fds", "threads"), start=1):
        vals = [x[i] for x in samples]
        if not vals:
            continue
        head = vals[: max(1, len(vals) // 10)]
        tail = vals[-max(1, len(vals) // 10):]
        print(f"{name:8} first {vals[0]:>8} last {vals[-1]:>8} max {max(vals):>8} "
              f"(first tenth max {max(head)}, last tenth max {max(tail)})")
        # Flat: the last tenth stays within the first tenth's range plus a margin.
        margin = {"rss_kb": 4096, "fds": 4, "threads": 4}[name]
        if len(vals) >= 20 and max(tail) > max(head) + margin:
            ok = False
            print(f"    {name} grew")
    for n in s.notes:
        print("   ", n)
    if args.samples:
        with open(args.samples, "w") as f:
            f.write("t rss_kb fds threads\n")
            for x in samples:
                f.write(" ".join(str(v) for v in x) + "\n")
    if any(n.startswith(("HANG", "client died")) for n in s.notes):
        ok = False
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
