"""Process helpers shared by the harness scripts (the fault ledger, the stress,
the soak, memory_bounds): zemd and e2e_client as real processes, each in its
own process group, dying with the script, killed at the end of its run; their
output in files; zemd's JSON event lines and the client's "e2e:" lines read
back; every wait bounded, and every wait is eventually().
"""
import argparse
import contextlib
import ctypes
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time


def eventually(cond, timeout):
    """Polls `cond` every 20 ms until it holds or `timeout` seconds passed."""
    end = time.monotonic() + timeout
    while not cond():
        if time.monotonic() > end:
            return False
        time.sleep(0.02)
    return True


def _die_with_parent():
    ctypes.CDLL(None).prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


def read_text(path):
    with open(path, errors="replace") as f:
        return f.read()


class Proc:
    """A child in its own process group, output in files (none when `out` is
    None); killed on kill(). `quiet` keeps only the library's ERROR lines of
    its standard error (the window lines run to many MB/s)."""

    def __init__(self, argv, out, env, stdin=False, quiet=False):
        self.out_path, self.err_path = (out + ".out", out + ".err") if out else (os.devnull,) * 2
        err = open(self.err_path, "wb")
        group = dict(start_new_session=True, preexec_fn=_die_with_parent)
        self.p = subprocess.Popen(argv, stdout=open(self.out_path, "wb"),
                                  stderr=subprocess.PIPE if quiet else err,
                                  stdin=subprocess.PIPE if stdin else subprocess.DEVNULL, env=env,
                                  **group)
        self.grep = None
        if quiet:
            self.grep = subprocess.Popen(["grep", "-a", "--line-buffered", "zem_sdk E"],
                                         stdin=self.p.stderr, stdout=err, **group)
            self.p.stderr.close()

    def out(self):
        return read_text(self.out_path)

    def err(self):
        return read_text(self.err_path)

    def send(self, line):
        try:
            self.p.stdin.write((line + "\n").encode())
            self.p.stdin.flush()
        except OSError:
            pass

    def alive(self):
        return self.p.poll() is None

    def kill(self):
        for p in filter(None, (self.p, self.grep)):
            with contextlib.suppress(ProcessLookupError):
                os.killpg(p.pid, signal.SIGKILL)
            with contextlib.suppress(subprocess.TimeoutExpired):
                p.wait(timeout=10)


def json_lines(text):
    for line in text.splitlines():
        if line.startswith("{"):
            with contextlib.suppress(ValueError):
                yield json.loads(line)


def proc_status(pid, field):
    """A number of /proc/PID/status (VmRSS, VmHWM in kB, Threads), or None."""
    with contextlib.suppress(OSError):
        for line in read_text(f"/proc/{pid}/status").splitlines():
            if line.startswith(field + ":"):
                return int(line.split()[1])
    return None


def arguments(doc, add=lambda ap: None):
    """The options every script takes (--zemd, --client, --zemdump, --keep),
    and those `add` adds; zemdump defaults to the one beside zemd."""
    ap = argparse.ArgumentParser(description=doc,
                                 formatter_class=argparse.RawDescriptionHelpFormatter)
    ap.add_argument("--zemd", required=True)
    ap.add_argument("--client", required=True, help="the e2e_client program")
    ap.add_argument("--zemdump")
    ap.add_argument("--keep", help="keep the processes' output and files in this folder")
    add(ap)
    args = ap.parse_args()
    args.zemdump = args.zemdump or os.path.join(os.path.dirname(args.zemd), "zemdump")
    return args


@contextlib.contextmanager
def run_dir(args, prefix):
    """The folder of a run: --keep's, or a temporary one removed at the end."""
    path = args.keep or tempfile.mkdtemp(prefix=prefix)
    os.makedirs(path, exist_ok=True)
    try:
        yield path
    finally:
        if not args.keep:
            shutil.rmtree(path, ignore_errors=True)


class Rig:
    """zemd and e2e_client runs sharing one folder, socket, cache folder,
    ledger file and binder registry. The client methods act on the last
    client started."""

    def __init__(self, args, name, transport, workdir, campaign=""):
        self.args, self.name, self.transport, self.campaign = args, name, transport, campaign
        self.dir = os.path.join(workdir, f"{name}-{transport}")
        self.cache = os.path.join(self.dir, "cache")
        os.makedirs(self.cache)
        self.sock = os.path.join(self.dir, "spc.sock")
        self.ledger = os.path.join(self.dir, "ledger")
        self.env = dict(os.environ, HOST_BINDER_REGISTRY=f"zem_{os.getpid()}_{name}_{transport}")
        self.daemons, self.clients, self.notes, self.client_wrapper = [], [], [], []

    def write(self, name, text):
        path = os.path.join(self.dir, name)
        with open(path, "w") as f:
            f.write(text)
        return path

    def campaign_file(self):
        return self.write("campaign.txtpb", self.campaign)

    def start_daemon(self, faults=(), campaign=True, extra=(), quiet=False):
        """zemd with the campaign, up on both transports (on gRPC only when
        `quiet`: its output is dropped)."""
        argv = [self.args.zemd, "--socket", self.sock, "--out", os.path.join(self.dir, "out"),
                *extra, *([] if quiet else ["--json"])]
        argv += ["--campaign", self.campaign_file()] if campaign else []
        for f in faults:
            argv += ["--fault", f]
        d = Proc(argv, None if quiet else os.path.join(self.dir, f"zemd{len(self.daemons)}"),
                 self.env)
        self.daemons.append(d)
        up = (lambda: os.path.exists(self.sock)) if quiet else (
            lambda: any(e.get("event") == "binder" and e.get("status") == 0
                        for e in json_lines(d.out())))
        if not eventually(up, 10):
            raise RuntimeError(f"zemd did not come up: {d.err()[-500:]}")
        return d

    def start_client(self, rate=200, threads=1, quiet=False, retry_ms=None, extra=()):
        argv = self.client_wrapper + [
            self.args.client, "--transport", self.transport, "--cache", self.cache,
            "--threads", str(threads), "--rate", str(rate), "--ledger", self.ledger, *extra]
        argv += ["--retry-ms", str(retry_ms)] if retry_ms else []
        argv += ["--socket", self.sock] if self.transport == "grpc" else []
        c = Proc(argv, os.path.join(self.dir, f"client{len(self.clients)}"), self.env, stdin=True,
                 quiet=quiet)
        self.clients.append(c)
        return c

    def daemon(self):
        return self.daemons[-1]

    def client(self):
        return self.clients[-1]

    def control(self, command, timeout=10):
        """One zemd control command over its control socket; its answer."""
        try:
            with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as s:
                s.settimeout(timeout)
                s.connect(self.sock + ".ctl")
                s.sendall((command + "\n").encode())
                return b"".join(iter(lambda: s.recv(4096), b"")).decode(errors="replace")
        except OSError as e:
            return f"error {e}"

    # --- what the client says ------------------------------------------
    def client_events(self, word):
        """The numbers of the client's "e2e: WORD ..." lines ("start" and
        "stop" for the callbacks, "end"), one list per line."""
        out = []
        for line in self.client().out().splitlines():
            parts = line.split()
            if len(parts) >= 3 and parts[0] == "e2e:" and parts[1].replace("-callback", "") == word:
                out.append([int(x) for x in parts[2:5] if x.isdigit()])
        return out

    def running(self):
        """Whether the client's last campaign callback was a start."""
        last = [line.split()[1] for line in self.client().out().splitlines()
                if line.startswith(("e2e: start-callback", "e2e: stop-callback"))]
        return bool(last) and last[-1] == "start-callback"

    def wait_running(self, timeout=15):
        """Waits for a new campaign start, or for one that already runs."""
        n = len(self.client_events("start"))
        return eventually(lambda: self.running() or len(self.client_events("start")) > n, timeout)

    def logged(self):
        """Samples logged so far, per thread, from the ledger file."""
        try:
            with open(self.ledger, "rb") as f:
                return list(struct.unpack("<QQ", f.read(16)))
        except (OSError, struct.error):
            return [0, 0]

    def wait_logged(self, extra, timeout=15):
        base = sum(self.logged())
        return eventually(lambda: sum(self.logged()) >= base + extra, timeout)

    def started(self, samples, timeout=15):
        """Waits for a running campaign, then for `samples` more samples."""
        return self.wait_running(timeout) and self.wait_logged(samples, timeout)

    def received(self):
        """The counter windows of KPIs 1 and 2 that the daemons printed."""
        return [e for d in self.daemons for e in json_lines(d.out()) if e.get("event") == "window"
                and e.get("kind") == "counter" and e.get("id") in (1, 2)]

    def cache_files(self):
        with contextlib.suppress(OSError):
            return sorted(f for f in os.listdir(self.cache) if f.startswith("kpidata."))
        return []

    def dumped(self):
        """zemdump's JSON lines of the files left in the cache folder."""
        files = [os.path.join(self.cache, f) for f in self.cache_files()]
        if not files:
            return []
        r = subprocess.run([self.args.zemdump, "--json"] + files, capture_output=True, text=True,
                           timeout=120)
        return list(json_lines(r.stdout))

    def answers(self):
        """How many answers to commands the daemons have printed."""
        return sum(l.count('"event":"response"') for d in self.daemons for l in [d.out()])

    def stop_and_drain(self, timeout=15):
        """Stops the campaign from the daemon and waits for the client's
        answer, which it gives once the stop has written and delivered its
        last file (the cache folder alone can look empty between two files of
        a backlog); the daemon prints a file's windows before it answers the
        delivery, so they are printed by then."""
        stops, answers = len(self.client_events("stop")), self.answers()
        self.control("stop")
        if eventually(lambda: len(self.client_events("stop")) > stops and self.answers() > answers,
                      timeout):
            eventually(lambda: not self.cache_files(), timeout)

    def quit_client(self, timeout=15, rss_cap_kb=None):
        """Deregisters and ends the client. One that has not exited `timeout`
        seconds later, or whose memory passes `rss_cap_kb` meanwhile (a
        runaway queue must not take the machine with it), is killed and
        reported as a hang."""
        c = self.client()
        c.send("quit")
        t0 = time.monotonic()
        eventually(lambda: not c.alive() or (proc_status(c.p.pid, "VmRSS") or 0) > (
            rss_cap_kb or float("inf")), timeout)
        if c.alive():
            self.notes.append(f"HANG: client still running {time.monotonic() - t0:.1f}s after "
                              f"quit (resident {(proc_status(c.p.pid, 'VmRSS') or 0) // 1024} "
                              "MB); killed")
            c.kill()
            self.client_gone(c)
            return False
        if c.p.returncode != 0:
            self.notes.append(f"ERROR: client exited with status {c.p.returncode} after quit")
        ends = self.client_events("end")
        if ends and ends[-1][0] == 1:
            self.client_gone(c)
        return True

    def client_gone(self, c):
        """Called when client `c` went away with its campaign running."""

    def close(self):
        for p in self.clients + self.daemons:
            p.kill()


def largest_campaign():
    """A campaign at every limit: 1024 histograms of 1024 bounds, a 1 MiB payload."""
    bounds = ", ".join(str(10 * i) for i in range(1, 1025))
    kpis = "".join(f"kpiCfgs {{ id: {i} type: KPI_NUMERIC subType: HISTOGRAM "
                   f"h_cfg {{ bucket_bounds: [{bounds}] underflow_en: true overflow_en: true }} "
                   f"nof_samples: 1 }}\n" for i in range(1, 1025))
    return kpis + f'size_threshold: 4194304\ntime_threshold: 21600\ncfg_payload: "{"x" * 1048576}"\n'
