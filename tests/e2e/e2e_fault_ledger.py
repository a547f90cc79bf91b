#!/usr/bin/env python3
"""Fault injection with a loss ledger: real zemd and e2e_client
processes, the daemon killed, restarted, misbehaving on purpose (zemd
--fault), the cache folder taken away, the client killed.

Every window holds one sample (one-sample counter windows) whose value is the
sample's number, so the ledger knows exactly which windows the client closed
and which the daemon received. Per scenario it prints: windows closed,
received, lost (and of those, how many still sit in the cache folder), the
duplicates, and whether the scenario met its expectation.

  e2e_fault_ledger.py --zemd BIN --client BIN [--quick | --only NAME...]
                      [--transport grpc|binder] [--list] [--keep DIR]

--quick runs the scenarios that take a few seconds each (registered with
ctest, one entry per transport); without it every scenario runs (about 15
minutes). --transport runs only that transport's scenarios. Exit status 0
when every scenario met its expectation (no hang, no duplicate, and no loss
where the design keeps the data), 1 otherwise.

Every wait is bounded; every child runs in its own process group, dies with
this script, and is killed at the end of its scenario. Scenarios that need a
private mount (read-only folder, full disk) run the client under
`unshare -m` and are skipped without root.
"""
import contextlib
import os
import re
import shutil
import sys
import time

from harness import (Rig, arguments, eventually, json_lines, largest_campaign, proc_status,
                     read_text, run_dir)

CAMPAIGN = """
kpiCfgs {{ id: 1 type: KPI_NUMERIC subType: COUNTER c_cfg {{}} nof_samples: 1 }}
kpiCfgs {{ id: 2 type: KPI_NUMERIC subType: COUNTER c_cfg {{}} nof_samples: 1 }}
size_threshold: {size}
time_threshold: 60
cfg_payload: "fault ledger"
"""

RETRY_S = 5  # the library's wait between registration attempts


class Scenario(Rig):
    """A rig that keeps the ledger: what the client closed against what the
    daemons received."""

    def __init__(self, args, name, transport, workdir):
        super().__init__(args, name, transport, workdir)
        self.dropped_open = [0, 0]  # open windows dropped at destruction or kill, per thread
        self.campaign_size = 4096

    def campaign_file(self):
        return self.write("campaign.txtpb", CAMPAIGN.format(size=self.campaign_size))

    def client_gone(self, c):
        """The window still open when a collector goes away is never closed."""
        starts = self.client_events("start")
        if not starts or not self.running():
            return
        now = self.logged()
        for t in range(2):
            if now[t] > starts[-1][t]:
                self.dropped_open[t] += 1

    def received_values(self):
        got = {1: [], 2: []}
        for e in self.received():
            got[e["id"]].append(e["value"])
        return got

    def in_cache(self):
        vals = {1: set(), 2: set()}
        for e in self.dumped():
            if e.get("kind") == "counter" and e.get("id") in vals:
                vals[e["id"]].add(e["value"])
        return vals

    def ledger_row(self):
        logged = self.logged()
        got = self.received_values()
        cached = self.in_cache()
        closed = received = lost = stranded = dups = strangers = 0
        for t, kid in ((0, 1), (1, 2)):
            n = logged[t]
            closed_t = n - self.dropped_open[t]
            values = got[kid]
            uniq = set(values)
            dups += len(values) - len(uniq)
            strangers += len([v for v in uniq if v >= n])
            rec = len([v for v in uniq if v < n])
            closed += closed_t
            received += rec
            lost += max(0, closed_t - rec)
            stranded += len([v for v in range(n) if v not in uniq and v in cached[kid]])
        return dict(closed=closed, received=received, lost=lost, stranded=stranded,
                    duplicates=dups, strangers=strangers, open_dropped=sum(self.dropped_open),
                    logged=sum(logged))


# --- scenarios -----------------------------------------------------------
# Each returns (expectation met, why) given the ledger row; `s.notes` gathers
# observations. Each is bounded by its own waits.

def daemon_kill(when, delay):
    def run(s):
        hang = ["hang-register"] if when == "registration" else []
        slow = ["slow-send=3000"] if when == "senddata" else []
        s.start_daemon(faults=hang + slow, campaign=(when != "idle"))
        c = s.start_client()
        if when == "registration":
            # zemd holds the Register call; give the client time to make it.
            time.sleep(1.5)
        elif when == "idle":
            eventually(lambda: "SPC registration succeeded" in c.err(), 15)
            time.sleep(0.5)
        else:
            if not s.started(300):
                s.notes.append("campaign never started")
            if when == "senddata":
                # A file past the threshold is being sent (slow-send holds it).
                eventually(lambda: any(os.path.getsize(os.path.join(s.cache, f)) > s.campaign_size
                                       for f in s.cache_files()), 10)
                time.sleep(1.0)
        killed_at = time.monotonic()
        s.daemon().kill()
        time.sleep(delay)
        s.start_daemon()
        back = eventually(lambda: s.running(), max(12, 3 * RETRY_S + 5) if delay < 20 else 8)
        s.notes.append(f"restarted after {delay}s; campaign running again: {'yes' if back else 'no'}"
                       f" ({time.monotonic() - killed_at:.1f}s after the kill)")
        if not back and delay <= 1:
            s.notes.append("ERROR: the daemon came back within the retry window, "
                           "but the client never registered again")
        if back:
            s.started(200)
            s.stop_and_drain()
            s.quit_client()
            # A file whose delivery the kill cut short may be overtaken by the
            # next one and never be sent again.
            return when != "senddata"
        # The client gave up registering: show what a later run of the
        # process recovers from the cache folder.
        s.quit_client()
        row = s.ledger_row()
        s.notes.append(f"this run: {row['lost']} lost, {row['stranded']} of them in the cache folder")
        before = row["received"]
        s.start_client()
        if s.started(50):
            s.stop_and_drain()
        s.quit_client()
        after = s.ledger_row()["received"] - before
        s.notes.append(f"a new client run delivered {after} more of the earlier windows with its own")
        return False
    return run


def cache_unusable(as_file):
    """The cache folder missing, or a plain file in its place."""
    def run(s):
        shutil.rmtree(s.cache)
        if as_file:
            s.write("cache", "not a folder")
        s.start_daemon()
        c = s.start_client()
        refused = eventually(lambda: any(e.get("event") == "response" and e.get("status") == -1
                                         for e in json_lines(s.daemon().out())), 15)
        logged = eventually(lambda: "Error opening cache directory" in c.err(), 15)
        s.notes.append(f"campaign start answered -1: {'yes' if refused else 'no'}; "
                       f"'Error opening cache directory' logged: {'yes' if logged else 'no'}")
        s.quit_client()
        return True
    return run


def next_campaign(s, note):
    """Starts the campaign again after a stop; `note` when it delivers."""
    s.control("start")
    if s.started(200):
        s.stop_and_drain()
        s.notes.append(note)


def cache_deleted(s):
    s.start_daemon()
    s.start_client()
    s.started(300)
    shutil.rmtree(s.cache)
    s.wait_logged(300)
    s.stop_and_drain()
    os.makedirs(s.cache)
    next_campaign(s, "folder recreated: the next campaign delivers again")
    s.quit_client()
    return False  # records written into the unlinked file and the failed stream


def private_mount(mount, size=4096, rate=200, logged=300):
    """The client under `unshare -m` with `mount` (its "{c}" the cache
    folder) run first: a read-only folder, or a disk that fills."""
    def run(s):
        s.campaign_size = size
        s.client_wrapper = ["unshare", "-m", "--propagation", "private", "sh", "-c",
                            mount.format(c=s.cache) + ' && exec "$0" "$@"']
        s.start_daemon()
        c = s.start_client(rate=rate)
        if not s.started(logged, timeout=20):
            s.notes.append("campaign never started: " + c.err()[-300:])
        s.stop_and_drain()
        next_campaign(s, "after the stop, the next campaign delivered again")
        s.quit_client()
        s.notes.append("error lines from the library: "
                       + str(len([l for l in c.err().splitlines() if l.startswith("zem_sdk E ")])))
        return True
    return run


def client_killed(s):
    s.start_daemon()
    s.start_client()
    s.started(300)
    s.client().kill()
    s.client_gone(s.client())
    # A window closed an instant before the kill may still be on its way from
    # the logging thread to the file: one per logging thread is lost with the
    # process's memory.
    s.kill_allowance = 2
    leftover = s.cache_files()
    s.notes.append(f"left in the cache folder at the kill: {len(leftover)} file(s)")
    s.start_client()
    s.started(200)
    s.stop_and_drain()
    s.quit_client()
    return True


def broken(faults, settle=4.0, stop=True, keeps=True):
    """A daemon started with `faults`; `keeps` is False where the design
    drops what the daemon refuses or never takes."""
    def run(s):
        s.start_daemon(faults=faults)
        c = s.start_client()
        s.started(300, timeout=settle)
        time.sleep(1)
        if stop:
            s.stop_and_drain(timeout=5)
        quit_start = time.monotonic()
        s.quit_client(timeout=20)
        s.notes.append(f"client alive until quit: yes; quit took {time.monotonic() - quit_start:.1f}s")
        errs = [l for l in c.err().splitlines() if l.startswith("zem_sdk E ")]
        if errs:
            s.notes.append("first error line: " + errs[0][26:146])
        return keeps
    return run


def drop_streams(s):
    s.start_daemon(faults=["drop-streams=0.3"])
    s.start_client()
    s.wait_running()
    time.sleep(20)  # streams end at random meanwhile
    starts = len(s.client_events("start"))
    eventually(lambda: s.running(), 15)
    s.stop_and_drain()
    s.quit_client()
    s.notes.append(f"campaign started {starts} times in 20 s (a stream ends, the client re-registers)")
    # A stream dropped around the stop brings the campaign back with the
    # re-registration, so one may still run at deregistration: its file stays
    # in the cache folder for a later run.
    return False


def limits_campaign(s):
    """The largest campaign: the client's memory with it."""
    path = s.write("limits.txtpb", largest_campaign())
    s.campaign_file = lambda: path
    s.start_daemon()
    c = s.start_client()
    time.sleep(1)
    before = proc_status(c.p.pid, "VmHWM")
    if not s.started(300, timeout=30):
        s.notes.append("campaign at the limits never started: " + c.err()[-200:])
    during = proc_status(c.p.pid, "VmHWM")
    s.stop_and_drain(timeout=30)
    after = proc_status(c.p.pid, "VmHWM")
    s.notes.append(f"client VmHWM {before} kB registered, {during} kB with the campaign running, "
                   f"{after} kB after its stop")
    s.notes.append("a memory measurement: KPI 1 is a histogram here, which the ledger does not count")
    s.quit_client()
    return False


# Lines of a failed delivery, one per failed attempt on either transport.
DELIVERY_ERRORS = ("SendData failed", "sendData - failed", "sendData - Failed to get zem manager",
                   "no transport client, keeping")


def delivery_errors(text):
    return sum(1 for l in text.splitlines()
               if l.startswith("zem_sdk E ") and any(k in l for k in DELIVERY_ERRORS))


def writer_ticks(pid):
    """CPU ticks (user + system) of each writer thread ("zem_writer") of the
    process, by tid; a thread that ends meanwhile is left out."""
    out = {}
    with contextlib.suppress(OSError):
        for tid in os.listdir(f"/proc/{pid}/task"):
            task = f"/proc/{pid}/task/{tid}/"
            with contextlib.suppress(OSError, IndexError, ValueError):
                if read_text(task + "comm").strip() == "zem_writer":
                    fields = read_text(task + "stat").rsplit(")", 1)[1].split()
                    out[tid] = int(fields[11]) + int(fields[12])
    return out


def measure_window(c, seconds=2.0):
    """Writer CPU seconds, delivery ERROR lines and resident memory growth of
    client `c` over `seconds`, polling so that a writer ending meanwhile still
    counts."""
    hz = os.sysconf("SC_CLK_TCK")
    pid = c.p.pid
    start = writer_ticks(pid)
    last = dict(start)
    errors0, rss0 = delivery_errors(c.err()), (proc_status(pid, "VmRSS") or 0)
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        time.sleep(0.1)
        last.update(writer_ticks(pid))
    cpu = sum(last[t] - start.get(t, 0) for t in last) / hz
    return dict(cpu=cpu, errors=delivery_errors(c.err()) - errors0,
                rss_mb=((proc_status(pid, "VmRSS") or 0) - rss0) / 1024.0)


def rollover_failing(mode, rate):
    """A delivery fails at a rollover, the daemon refusing every SendData or
    killed, while the client logs at `rate` samples a second (0: full speed).
    The writer must go on with a file of its own name, making one attempt per
    file and not one per record."""
    def run(s):
        s.no_ledger = True  # the daemon takes nothing here; the figures are the point
        s.start_daemon(faults=["send-status=14"] if mode == "refused" else [])
        c = s.start_client(rate=rate)
        if not s.wait_running():
            s.notes.append("ERROR: campaign never started")
            return False
        if mode == "refused":
            eventually(lambda: delivery_errors(c.err()) > 0, 15)
        else:
            s.wait_logged(300)
            s.daemon().kill()
        m = measure_window(c)
        s.figures = m
        s.notes.append(f"over 2 s after the {'first refusal' if mode == 'refused' else 'kill'}: "
                       f"writer CPU {m['cpu']:.2f} s, {m['errors']} failed deliveries logged, "
                       f"client memory {m['rss_mb']:+.0f} MB")
        s.quit_client(timeout=20, rss_cap_kb=2 << 20)
        # One attempt a second, give or take the stop's: a loop makes thousands.
        if m["errors"] > 10:
            s.notes.append(f"ERROR: {m['errors']} failed deliveries in 2 s: a rollover loop")
        return False
    return run


def largest_threshold(s):
    """A campaign at the largest size threshold against a daemon with
    default limits: gRPC's 4 MiB receive limit, binder's buffer. Files pass
    4 MiB before they close, so each goes in parts; every window arrives."""
    s.campaign_size = 4194304
    s.start_daemon(extra=["--default-receive-limit"])
    c = s.start_client(rate=300000)
    if not s.wait_running():
        s.notes.append("ERROR: campaign never started")
    out = os.path.join(s.dir, "out")

    def data_events():
        return [e for d in s.daemons for e in json_lines(
            "\n".join(l for l in d.out().splitlines() if '"window"' not in l))
            if e.get("event") == "data"]

    # The first file closes once it passes 4 MiB; zemd stores what it takes.
    eventually(lambda: (os.path.isdir(out) and len(os.listdir(out)) > 0)
               or delivery_errors(c.err()) > 20, 40)
    s.wait_logged(100000, timeout=10)
    s.stop_and_drain(timeout=30)
    # Parts of 4 MiB take a while under a sanitizer: wait for the last file.
    eventually(lambda: not s.cache_files(), 60)
    s.quit_client(timeout=20, rss_cap_kb=2 << 20)
    events = data_events()
    sizes = [e.get("bytes", 0) for e in events]
    s.notes.append(f"{len(events)} calls delivered, largest {max(sizes) if sizes else 0} bytes; "
                   f"{delivery_errors(c.err())} failed deliveries logged; "
                   f"{len(s.cache_files())} file(s) left in the cache folder")
    if any(not e.get("parsed") or e.get("version") != "V1" for e in events):
        s.notes.append("ERROR: a delivered part is not a cache file image of its own")
    # While zemd decodes a 4 MiB file the writer waits for its answer and
    # records queue up; past the queue's byte bound they are dropped and
    # counted, by design. Those are the only windows this scenario may miss.
    dropped = sum(int(m) for m in re.findall(r"(\d+) records dropped while", c.err()))
    if dropped:
        s.kill_allowance = dropped
        s.notes.append(f"{dropped} records dropped by the full record queue (a design loss)")
    return True


SCENARIOS = []


def scenario(name, transports, func, quick=False, root=False):
    for t in transports:
        SCENARIOS.append(dict(name=name, transport=t, func=func, quick=quick, root=root))


BOTH = ("grpc", "binder")
for when in ("registration", "idle", "campaign", "senddata"):
    for delay in (0, 1, 10, 20):
        scenario(f"kill-{when}-restart-{delay}s", BOTH, daemon_kill(when, delay),
                 quick=(delay == 1 and when in ("registration", "campaign", "senddata")))
scenario("cache-missing", ("grpc",), cache_unusable(as_file=False), quick=True)
scenario("cache-is-a-file", ("grpc",), cache_unusable(as_file=True))
scenario("cache-read-only", ("grpc",), private_mount(
    "mount --bind {c} {c} && mount -o remount,bind,ro {c}"), root=True)
scenario("cache-deleted", ("grpc",), cache_deleted, quick=True)
# The file outgrows the disk before its threshold.
scenario("disk-full", ("grpc",), private_mount("mount -t tmpfs -o size=16k zemfull {c}",
                                               size=1 << 20, rate=2000, logged=3000), root=True)
scenario("client-killed", BOTH, client_killed, quick=True)
scenario("register-status-7", BOTH, broken(["register-status=7"], settle=8))
scenario("hang-register", BOTH, broken(["hang-register"], settle=3, stop=False))
scenario("send-status-14", BOTH, broken(["send-status=14"], keeps=False))
scenario("hang-send", BOTH, broken(["hang-send"], stop=False, keeps=False))
scenario("drop-streams-0.3", ("grpc",), drop_streams)
scenario("bad-campaign", BOTH, broken(["bad-campaign"], stop=False), quick=True)
scenario("bad-command", ("grpc",), broken(["bad-command"], stop=False), quick=True)
scenario("bad-reply", ("binder",), broken(["bad-reply"], stop=False), quick=True)
scenario("limits-campaign", BOTH, limits_campaign)
scenario("bad-event", ("binder",), broken(["bad-event"], stop=False), quick=True)
scenario("largest-threshold-default-limits", BOTH, largest_threshold, quick=True)
for mode in ("refused", "killed"):
    for rate in (5000, 0):
        scenario(f"rollover-{mode}-{'full-speed' if rate == 0 else rate}", BOTH,
                 rollover_failing(mode, rate))


def main():
    def add(ap):
        ap.add_argument("--quick", action="store_true")
        ap.add_argument("--only", nargs="*")
        ap.add_argument("--transport", choices=BOTH)
        ap.add_argument("--list", action="store_true")
    args = arguments(__doc__, add)
    chosen = [sc for sc in SCENARIOS
              if (not args.quick or sc["quick"])
              and args.transport in (None, sc["transport"])
              and (not args.only or sc["name"] in args.only or f"{sc['name']}/{sc['transport']}" in args.only)]
    if args.list:
        for sc in chosen:
            print(f"{sc['name']}/{sc['transport']}")
        return 0
    print(f"{'scenario':34} {'transport':9} {'closed':>7} {'recvd':>7} {'lost':>5} {'cached':>6} "
          f"{'dup':>4} {'open':>4} {'secs':>5}", flush=True)
    with run_dir(args, "zem-fault-") as workdir:
        rows = [run(args, sc, workdir) for sc in chosen]
    return 1 if any(r and r["bad"] for r in rows) else 0


def run(args, sc, workdir):
    """One scenario: its ledger row, or None when skipped."""
    if sc["root"] and os.geteuid() != 0:
        print(f"{sc['name']:34} {sc['transport']:9} skipped (needs root)", flush=True)
        return None
    s = Scenario(args, sc["name"], sc["transport"], workdir)
    t0 = time.monotonic()
    try:
        kept = sc["func"](s)
    except Exception as e:  # a harness problem is a failed scenario, not a crash
        s.notes.append(f"ERROR {type(e).__name__}: {e}")
        kept = False
    finally:
        s.close()
    row = dict.fromkeys(("closed", "received", "lost", "stranded", "duplicates", "strangers",
                         "open_dropped"), 0) if getattr(s, "no_ledger", False) else s.ledger_row()
    secs = time.monotonic() - t0
    # Every closed window arrived, or, where the design loses data, the
    # scenario says so (kept=False); never a duplicate, a stranger or a hang.
    bad = row["duplicates"] or row["strangers"] or any(n.startswith(("HANG", "ERROR")) for n in s.notes)
    allowance = getattr(s, "kill_allowance", 0)
    bad = bad or (kept and row["lost"] > allowance)
    if kept and 0 < row["lost"] <= allowance:
        s.notes.append(f"{row['lost']} window(s) lost, within what the scenario allows by design")
    row["bad"] = bool(bad)
    print(f"{sc['name']:34} {sc['transport']:9} {row['closed']:7} {row['received']:7} "
          f"{row['lost']:5} {row['stranded']:6} {row['duplicates']:4} {row['open_dropped']:4} "
          f"{secs:5.1f}", flush=True)
    for n in s.notes:
        print(f"    {n}", flush=True)
    return row


if __name__ == "__main__":
    sys.exit(main())
