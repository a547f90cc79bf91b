#!/usr/bin/env python3
"""Fault injection with a loss ledger: real zemd and e2e_fault_client
processes, the daemon killed, restarted, misbehaving on purpose (zemd
--fault), the cache folder taken away, the client killed.

Every window holds one sample (one-sample counter windows) whose value is the
sample's number, so the ledger knows exactly which windows the client closed
and which the daemon received. Per scenario it prints: windows closed,
received, lost (and of those, how many still sit in the cache folder), the
duplicates, and whether the scenario met its expectation.

  e2e_fault_ledger.py --zemd BIN --client BIN [--quick | --only NAME...]
                      [--list] [--keep DIR] [--markdown FILE]

--quick runs the scenarios that take a few seconds each (registered with
ctest); without it every scenario runs (about 15 minutes). Exit status 0
when every scenario met its expectation (no hang, no duplicate, and no loss
where the design keeps the data), 1 otherwise.

Every wait is bounded; every child runs in its own process group, dies with
this script, and is killed at the end of its scenario. Scenarios that need a
private mount (read-only folder, full disk) run the client under
`unshare -m` and are skipped without root.
"""
import argparse
import ctypes
import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

CAMPAIGN = """
kpiCfgs {{ id: 1 type: KPI_NUMERIC subType: COUNTER c_cfg {{}} nof_samples: 1 }}
kpiCfgs {{ id: 2 type: KPI_NUMERIC subType: COUNTER c_cfg {{}} nof_samples: 1 }}
size_threshold: {size}
time_threshold: 60
cfg_payload: "fault ledger"
"""

RETRY_S = 5  # the library's wait between registration attempts


def _die_with_parent():
    libc = ctypes.CDLL(None, use_errno=True)
    libc.prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


class Proc:
    """A child in its own process group, output in files; killed on close."""

    def __init__(self, argv, out, env=None, stdin=False, quiet=False):
        self.out_path, self.err_path = out + ".out", out + ".err"
        open(self.err_path, "wb").close()
        self.p = subprocess.Popen(
            argv, stdout=open(self.out_path, "wb"),
            stderr=subprocess.DEVNULL if quiet else open(self.err_path, "wb"),
            stdin=subprocess.PIPE if stdin else subprocess.DEVNULL, env=env,
            start_new_session=True, preexec_fn=_die_with_parent)

    def out(self):
        with open(self.out_path, errors="replace") as f:
            return f.read()

    def err(self):
        with open(self.err_path, errors="replace") as f:
            return f.read()

    def send(self, line):
        try:
            self.p.stdin.write((line + "\n").encode())
            self.p.stdin.flush()
            return True
        except (BrokenPipeError, OSError):
            return False

    def alive(self):
        return self.p.poll() is None

    def kill(self):
        try:
            os.killpg(self.p.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        try:
            self.p.wait(timeout=10)
        except subprocess.TimeoutExpired:
            pass

    def wait(self, timeout):
        try:
            return self.p.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            return None


def eventually(cond, timeout):
    end = time.monotonic() + timeout
    while time.monotonic() < end:
        if cond():
            return True
        time.sleep(0.02)
    return bool(cond())


def json_lines(text):
    for line in text.splitlines():
        if line.startswith("{"):
            try:
                yield json.loads(line)
            except ValueError:
                pass


class Scenario:
    def __init__(self, args, name, transport, workdir):
        self.args, self.name, self.transport = args, name, transport
        self.dir = os.path.join(workdir, f"{name}-{transport}")
        os.makedirs(self.dir)
        self.cache = os.path.join(self.dir, "cache")
        os.makedirs(self.cache)
        self.sock = os.path.join(self.dir, "spc.sock")
        self.ledger = os.path.join(self.dir, "ledger")
        self.env = dict(os.environ, HOST_BINDER_REGISTRY=f"fault_{os.getpid()}_{name}_{transport}")
        self.daemons, self.clients = [], []
        self.notes = []
        self.dropped_open = [0, 0]  # open windows dropped at destruction or kill, per thread
        self.campaign_size = 4096
        self.client_wrapper = []

    # --- processes -------------------------------------------------------
    def campaign_file(self):
        path = os.path.join(self.dir, "campaign.txtpb")
        with open(path, "w") as f:
            f.write(CAMPAIGN.format(size=self.campaign_size))
        return path

    def start_daemon(self, faults=(), campaign=True, extra=()):
        argv = [self.args.zemd, "--socket", self.sock, "--json", "--out",
                os.path.join(self.dir, "out")] + list(extra)
        if campaign:
            argv += ["--campaign", self.campaign_file()]
        for f in faults:
            argv += ["--fault", f]
        d = Proc(argv, os.path.join(self.dir, f"zemd{len(self.daemons)}"), env=self.env)
        self.daemons.append(d)
        ok = eventually(lambda: any(e.get("event") == "binder" and e.get("status") == 0
                                    for e in json_lines(d.out())), 10)
        if not ok:
            raise RuntimeError(f"zemd did not come up: {d.err()[-500:]}")
        return d

    def start_client(self, rate=200, threads=1, cache=None, quiet=False, retry_ms=None):
        argv = self.client_wrapper + [
            self.args.client, "--transport", self.transport, "--cache", cache or self.cache,
            "--threads", str(threads), "--rate", str(rate), "--ledger", self.ledger]
        if retry_ms:
            argv += ["--retry-ms", str(retry_ms)]
        if self.transport == "grpc":
            argv += ["--socket", self.sock]
        c = Proc(argv, os.path.join(self.dir, f"client{len(self.clients)}"), env=self.env,
                 stdin=True, quiet=quiet)
        self.clients.append(c)
        return c

    def daemon(self):
        return self.daemons[-1]

    def client(self):
        return self.clients[-1]

    def control(self, command, timeout=10):
        """One zemd control command over its control socket."""
        s = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        s.settimeout(timeout)
        try:
            s.connect(self.sock + ".ctl")
            s.sendall((command + "\n").encode())
            data = b""
            while True:
                chunk = s.recv(4096)
                if not chunk:
                    break
                data += chunk
            return data.decode(errors="replace")
        except OSError as e:
            return f"error {e}"
        finally:
            s.close()

    # --- what the client says ------------------------------------------
    def client_events(self, word, client=None):
        c = client or self.client()
        out = []
        for line in c.out().splitlines():
            parts = line.split()
            if len(parts) >= 4 and parts[0] == "fault:" and parts[1] == word:
                out.append([int(x) for x in parts[2:]])
        return out

    def logged(self):
        try:
            with open(self.ledger, "rb") as f:
                return list(struct.unpack("<QQ", f.read(16)))
        except (OSError, struct.error):
            return [0, 0]

    def wait_running(self, timeout=15, client=None):
        c = client or self.client()
        n = len(self.client_events("start", c))
        return eventually(lambda: len(self.client_events("start", c)) > len(self.client_events("stop", c))
                          or len(self.client_events("start", c)) > n, timeout)

    def running(self, client=None):
        c = client or self.client()
        return len(self.client_events("start", c)) > len(self.client_events("stop", c))

    def wait_logged(self, extra, timeout=15):
        base = sum(self.logged())
        return eventually(lambda: sum(self.logged()) >= base + extra, timeout)

    def cache_files(self, cache=None):
        d = cache or self.cache
        try:
            return sorted(f for f in os.listdir(d) if f.startswith("kpidata."))
        except OSError:
            return []

    def stop_and_drain(self, timeout=15):
        """Stops the campaign from the daemon and waits for the last file."""
        c = self.client()
        stops = len(self.client_events("stop", c))
        self.control("stop")
        stopped = eventually(lambda: len(self.client_events("stop", c)) > stops, timeout)
        if stopped:
            eventually(lambda: len(self.cache_files()) == 0, 5)
            time.sleep(0.3)  # the daemon prints a file's windows before it answers
        return stopped

    def quit_client(self, timeout=15, client=None):
        """Deregisters and ends the client; kills it (and says so) if it hangs."""
        c = client or self.client()
        c.send("quit")
        rc = c.wait(timeout)
        if rc is None:
            self.notes.append(f"HANG: client did not exit {timeout}s after quit; killed")
            c.kill()
            self.record_open_drop(c)
            return False
        if rc != 0:
            self.notes.append(f"ERROR: client exited with status {rc} after quit")
        ends = self.client_events("end", c)
        if ends and ends[-1][0] == 1:
            self.record_open_drop(c)
        return True

    def kill_client(self, client=None):
        c = client or self.client()
        c.kill()
        self.record_open_drop(c)

    def record_open_drop(self, c):
        """The window still open when a collector goes away is never closed."""
        starts = self.client_events("start", c)
        if not starts or not self.running(c):
            return
        now = self.logged()
        for t in range(2):
            if now[t] > starts[-1][t]:
                self.dropped_open[t] += 1

    # --- the ledger -----------------------------------------------------
    def received(self):
        got = {1: [], 2: []}
        for d in self.daemons:
            for e in json_lines(d.out()):
                if e.get("event") == "window" and e.get("kind") == "counter" and e.get("id") in got:
                    got[e["id"]].append(e["value"])
        return got

    def in_cache(self, cache=None):
        d = cache or self.cache
        vals = {1: set(), 2: set()}
        files = [os.path.join(d, f) for f in self.cache_files(d)]
        if not files:
            return vals
        r = subprocess.run([self.args.zemdump, "--json"] + files, capture_output=True, text=True,
                           timeout=60)
        for e in json_lines(r.stdout):
            if e.get("kind") == "counter" and e.get("id") in vals:
                vals[e["id"]].add(e["value"])
        return vals

    def ledger_row(self):
        logged = self.logged()
        got = self.received()
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
            missing = [v for v in range(n) if v not in uniq]
            # The last sample of an undelivered run is the dropped open window.
            lost_t = max(0, closed_t - rec)
            lost += lost_t
            stranded += len([v for v in missing if v in cached[kid]])
        return dict(closed=closed, received=received, lost=lost, stranded=stranded,
                    duplicates=dups, strangers=strangers, open_dropped=sum(self.dropped_open),
                    logged=sum(logged))

    def close(self):
        for p in self.clients + self.daemons:
            p.kill()


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
            if not s.wait_running():
                s.notes.append("campaign never started")
            s.wait_logged(300)
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
            s.wait_logged(200)
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
        if s.wait_running():
            s.wait_logged(50)
            s.stop_and_drain()
        s.quit_client()
        after = s.ledger_row()["received"] - before
        s.notes.append(f"a new client run delivered {after} more of the earlier windows with its own")
        return False
    return run


def cache_missing(s):
    shutil.rmtree(s.cache)
    s.start_daemon()
    c = s.start_client()
    eventually(lambda: "Error opening cache directory" in c.err(), 15)
    time.sleep(1)
    refused = [e for e in json_lines(s.daemon().out()) if e.get("event") == "response"
               and e.get("status") == -1]
    s.notes.append(f"campaign start answered -1: {'yes' if refused else 'no'}; "
                   f"'Error opening cache directory' logged: "
                   f"{'yes' if 'Error opening cache directory' in c.err() else 'no'}")
    s.quit_client()
    return True


def cache_is_file(s):
    shutil.rmtree(s.cache)
    with open(s.cache, "w") as f:
        f.write("not a folder")
    s.start_daemon()
    c = s.start_client()
    eventually(lambda: "Error opening cache directory" in c.err(), 15)
    time.sleep(1)
    s.notes.append("'Error opening cache directory' logged: "
                   + ("yes" if "Error opening cache directory" in c.err() else "no"))
    s.quit_client()
    return True


def in_private_mount(s, setup):
    """Runs the client under unshare -m with `setup` shell lines before it."""
    s.client_wrapper = ["unshare", "-m", "--propagation", "private", "sh", "-c",
                        setup + ' && exec "$0" "$@"']


def cache_readonly(s):
    in_private_mount(s, f"mount --bind {s.cache} {s.cache} && mount -o remount,bind,ro {s.cache}")
    s.start_daemon()
    c = s.start_client()
    if not s.wait_running():
        s.notes.append("campaign never started: " + c.err()[-300:])
    s.wait_logged(300)
    s.stop_and_drain()
    s.quit_client()
    s.notes.append("error lines from the library: "
                   + str(len([l for l in c.err().splitlines() if l.startswith("zem_sdk E ")])))
    return True


def cache_deleted(s):
    s.start_daemon()
    c = s.start_client()
    s.wait_running()
    s.wait_logged(300)
    shutil.rmtree(s.cache)
    s.wait_logged(300)
    s.stop_and_drain()
    os.makedirs(s.cache)
    s.control("start")
    if s.wait_running():
        s.wait_logged(200)
        s.stop_and_drain()
        s.notes.append("folder recreated: the next campaign delivers again")
    s.quit_client()
    return False  # records written into the unlinked file and the failed stream


def disk_full(s):
    s.campaign_size = 1 << 20  # the file outgrows the disk before its threshold
    in_private_mount(s, f"mount -t tmpfs -o size=16k zemfull {s.cache}")
    s.start_daemon()
    c = s.start_client(rate=2000)
    s.wait_running()
    s.wait_logged(3000, timeout=20)
    s.stop_and_drain()
    s.control("start")
    if s.wait_running():
        s.wait_logged(200)
        s.stop_and_drain()
        s.notes.append("after the stop freed the disk, the next campaign delivered again")
    s.quit_client()
    return True


def client_killed(s):
    s.start_daemon()
    s.start_client()
    s.wait_running()
    s.wait_logged(300)
    s.kill_client()
    # A window closed an instant before the kill may still be on its way from
    # the logging thread to the file: one per logging thread is lost with the
    # process's memory.
    s.kill_allowance = 2
    leftover = s.cache_files()
    s.notes.append(f"left in the cache folder at the kill: {len(leftover)} file(s)")
    s.start_client()
    s.wait_running()
    s.wait_logged(200)
    s.stop_and_drain()
    s.quit_client()
    return True


def broken(faults, settle=4.0, stop=True, keeps=True):
    """A daemon started with `faults`; `keeps` is False where the design
    drops what the daemon refuses or never takes."""
    def run(s):
        s.start_daemon(faults=faults)
        c = s.start_client()
        s.wait_running(timeout=settle)
        s.wait_logged(300, timeout=settle)
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
    end = time.monotonic() + 20
    while time.monotonic() < end:
        time.sleep(0.5)
    starts = len(s.client_events("start"))
    eventually(lambda: s.running(), 15)
    s.stop_and_drain()
    s.quit_client()
    s.notes.append(f"campaign started {starts} times in 20 s (a stream ends, the client re-registers)")
    # A stream dropped around the stop brings the campaign back with the
    # re-registration, so one may still run at deregistration: its file stays
    # in the cache folder for a later run.
    return False


def vm_hwm_kb(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmHWM:"):
                return int(line.split()[1])
    return 0


def limits_campaign(s):
    """A campaign at every limit: 1024 histograms of 1024 bounds, 1 MiB payload."""
    bounds = ", ".join(str(10 * i) for i in range(1, 1025))
    kpis = "".join(f"kpiCfgs {{ id: {i} type: KPI_NUMERIC subType: HISTOGRAM "
                   f"h_cfg {{ bucket_bounds: [{bounds}] underflow_en: true overflow_en: true }} "
                   f"nof_samples: 1 }}\n" for i in range(1, 1025))
    text = kpis + f'size_threshold: 4194304\ntime_threshold: 21600\ncfg_payload: "{"x" * 1048576}"\n'
    path = os.path.join(s.dir, "limits.txtpb")
    with open(path, "w") as f:
        f.write(text)
    s.campaign_file = lambda: path
    s.start_daemon()
    c = s.start_client()
    time.sleep(1)
    before = vm_hwm_kb(c.p.pid)
    if not s.wait_running(timeout=30):
        s.notes.append("campaign at the limits never started: " + c.err()[-200:])
    s.wait_logged(300)
    during = vm_hwm_kb(c.p.pid)
    s.stop_and_drain(timeout=30)
    after = vm_hwm_kb(c.p.pid)
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


def proc_ticks(path):
    try:
        with open(path) as f:
            fields = f.read().rsplit(")", 1)[1].split()
        return int(fields[11]) + int(fields[12])  # utime + stime
    except (OSError, IndexError, ValueError):
        return None


def writer_ticks(pid):
    """CPU ticks of each writer thread ("zem_writer") of the process, by tid."""
    out = {}
    try:
        tids = os.listdir(f"/proc/{pid}/task")
    except OSError:
        return out
    for tid in tids:
        try:
            with open(f"/proc/{pid}/task/{tid}/comm") as f:
                if f.read().strip() != "zem_writer":
                    continue
        except OSError:
            continue
        t = proc_ticks(f"/proc/{pid}/task/{tid}/stat")
        if t is not None:
            out[tid] = t
    return out


def vm_rss_kb(pid):
    try:
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                if line.startswith("VmRSS:"):
                    return int(line.split()[1])
    except OSError:
        pass
    return 0


def measure_window(c, seconds=2.0):
    """Writer CPU seconds, delivery ERROR lines and resident memory growth of
    client `c` over `seconds`, polling so that a writer ending meanwhile still
    counts."""
    hz = os.sysconf("SC_CLK_TCK")
    pid = c.p.pid
    start = writer_ticks(pid)
    last = dict(start)
    errors0, rss0 = delivery_errors(c.err()), vm_rss_kb(pid)
    end = time.monotonic() + seconds
    while time.monotonic() < end:
        time.sleep(0.1)
        last.update(writer_ticks(pid))
    cpu = sum(last[t] - start.get(t, 0) for t in last) / hz
    return dict(cpu=cpu, errors=delivery_errors(c.err()) - errors0,
                rss_mb=(vm_rss_kb(pid) - rss0) / 1024.0)


def quit_or_kill(s, c, timeout=20, rss_cap_kb=2 << 20):
    """quit_client for a client that may be spinning: killed (and reported)
    as soon as its memory passes `rss_cap_kb`, so a runaway queue cannot take
    the machine with it."""
    c.send("quit")
    t0 = time.monotonic()
    eventually(lambda: not c.alive() or vm_rss_kb(c.p.pid) > rss_cap_kb, timeout)
    if c.alive():
        s.notes.append(f"HANG: client still running {time.monotonic() - t0:.1f}s after quit "
                       f"(resident {vm_rss_kb(c.p.pid) // 1024} MB); killed")
        c.kill()
        return False
    s.notes.append(f"quit took {time.monotonic() - t0:.1f}s")
    return True


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
        quit_or_kill(s, c)
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
    eventually(lambda: len(s.cache_files()) == 0, 60)
    time.sleep(0.3)
    quit_or_kill(s, c)
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
scenario("cache-missing", ("grpc",), cache_missing, quick=True)
scenario("cache-is-a-file", ("grpc",), cache_is_file)
scenario("cache-read-only", ("grpc",), cache_readonly, root=True)
scenario("cache-deleted", ("grpc",), cache_deleted, quick=True)
scenario("disk-full", ("grpc",), disk_full, root=True)
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
    ap = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--zemd", required=True)
    ap.add_argument("--client", required=True)
    ap.add_argument("--zemdump")
    ap.add_argument("--quick", action="store_true")
    ap.add_argument("--only", nargs="*")
    ap.add_argument("--list", action="store_true")
    ap.add_argument("--keep")
    ap.add_argument("--markdown")
    args = ap.parse_args()
    if not args.zemdump:
        args.zemdump = os.path.join(os.path.dirname(args.zemd), "zemdump")
    chosen = [sc for sc in SCENARIOS
              if (not args.quick or sc["quick"])
              and (not args.only or sc["name"] in args.only or f"{sc['name']}/{sc['transport']}" in args.only)]
    if args.list:
        for sc in chosen:
            print(f"{sc['name']}/{sc['transport']}")
        return 0
    workdir = args.keep or tempfile.mkdtemp(prefix="zem-fault-")
    os.makedirs(workdir, exist_ok=True)
    rows, failed = [], 0
    head = f"{'scenario':34} {'transport':9} {'closed':>7} {'recvd':>7} {'lost':>5} {'cached':>6} {'dup':>4} {'open':>4} {'secs':>5}"
    print(head, flush=True)
    for sc in chosen:
        if sc["root"] and os.geteuid() != 0:
            print(f"{sc['name']:34} {sc['transport']:9} skipped (needs root)", flush=True)
            continue
        s = Scenario(args, sc["name"], sc["transport"], workdir)
        t0 = time.monotonic()
        try:
            kept = sc["func"](s)
        except Exception as e:  # a harness problem is a failed scenario, not a crash
            s.notes.append(f"ERROR {type(e).__name__}: {e}")
            kept = False
        finally:
            s.close()
        if getattr(s, "no_ledger", False):
            row = dict(closed=0, received=0, lost=0, stranded=0, duplicates=0, strangers=0,
                       open_dropped=0, logged=sum(s.logged()))
        else:
            row = s.ledger_row()
        secs = time.monotonic() - t0
        row.update(name=sc["name"], transport=sc["transport"], notes=s.notes, secs=round(secs, 1))
        # Every closed window arrived, or, where the design loses data, the
        # scenario says so (kept=False); never a duplicate, a stranger or a hang.
        bad = row["duplicates"] or row["strangers"] or any(n.startswith(("HANG", "ERROR")) for n in s.notes)
        allowance = getattr(s, "kill_allowance", 0)
        bad = bad or (kept and row["lost"] > allowance)
        if kept and 0 < row["lost"] <= allowance:
            s.notes.append(f"{row['lost']} window(s) lost, within what the scenario allows by design")
        failed += bool(bad)
        rows.append(row)
        print(f"{sc['name']:34} {sc['transport']:9} {row['closed']:7} {row['received']:7} "
              f"{row['lost']:5} {row['stranded']:6} {row['duplicates']:4} {row['open_dropped']:4} "
              f"{secs:5.1f}", flush=True)
        for n in s.notes:
            print(f"    {n}", flush=True)
    if args.markdown:
        with open(args.markdown, "w") as f:
            f.write("| scenario | transport | closed | received | lost | of which in cache | duplicates | open windows dropped | notes |\n")
            f.write("|---|---|---|---|---|---|---|---|---|\n")
            for r in rows:
                f.write(f"| {r['name']} | {r['transport']} | {r['closed']} | {r['received']} | {r['lost']} | "
                        f"{r['stranded']} | {r['duplicates']} | {r['open_dropped']} | {'; '.join(r['notes'])} |\n")
    if not args.keep:
        shutil.rmtree(workdir, ignore_errors=True)
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main())
