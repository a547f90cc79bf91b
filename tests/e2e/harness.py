"""Process helpers shared by the harness scripts (the fault ledger, the stress,
the soak, memory_bounds): zemd and e2e_client as real processes, each in its
own process group, dying with the script, killed at the end of its run; their
output in files; zemd's JSON event lines and the client's "e2e:" lines read
back; every wait bounded.
"""
import argparse
import ctypes
import itertools
import json
import os
import shutil
import signal
import socket
import struct
import subprocess
import tempfile
import time


def _die_with_parent():
    libc = ctypes.CDLL(None, use_errno=True)
    libc.prctl(1, signal.SIGKILL)  # PR_SET_PDEATHSIG


class Proc:
    """A child in its own process group, output in files; killed on kill().
    `quiet` keeps only the library's ERROR lines of its standard error (the
    window lines run to many MB/s) and drops its standard output when
    `out` is None."""

    def __init__(self, argv, out, env=None, stdin=False, quiet=False):
        if out is None:
            self.out_path = self.err_path = os.devnull
        else:
            self.out_path, self.err_path = out + ".out", out + ".err"
            open(self.err_path, "wb").close()
        err = subprocess.PIPE if quiet else open(self.err_path, "wb")
        self.p = subprocess.Popen(
            argv, stdout=open(self.out_path, "wb"), stderr=err,
            stdin=subprocess.PIPE if stdin else subprocess.DEVNULL, env=env,
            start_new_session=True, preexec_fn=_die_with_parent)
        self.grep = None
        if quiet:
            self.grep = subprocess.Popen(["grep", "-a", "--line-buffered", "zem_sdk E"],
                                         stdin=self.p.stderr, stdout=open(self.err_path, "wb"),
                                         start_new_session=True, preexec_fn=_die_with_parent)
            self.p.stderr.close()

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

    def wait(self, timeout):
        try:
            return self.p.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            return None

    def kill(self):
        for p in (self.p, self.grep):
            if p is None:
                continue
            try:
                os.killpg(p.pid, signal.SIGKILL)
            except ProcessLookupError:
                pass
            try:
                p.wait(timeout=10)
            except subprocess.TimeoutExpired:
                pass


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


def proc_status(pid, field):
    """A number of /proc/PID/status (VmRSS, VmHWM in kB, Threads), or None."""
    try:
        with open(f"/proc/{pid}/status") as f:
            for line in f:
                if line.startswith(field + ":"):
                    return int(line.split()[1])
    except OSError:
        pass
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


class Workdir:
    """The folder of a run: --keep's, or a temporary one removed at the end."""

    def __init__(self, args, prefix):
        self.keep = args.keep
        self.path = args.keep or tempfile.mkdtemp(prefix=prefix)
        os.makedirs(self.path, exist_ok=True)

    def __enter__(self):
        return self.path

    def __exit__(self, *exc):
        if not self.keep:
            shutil.rmtree(self.path, ignore_errors=True)


class Rig:
    """zemd and e2e_client runs sharing one folder, socket, cache folder,
    ledger file and binder registry."""

    def __init__(self, args, name, transport, workdir, campaign=""):
        self.args, self.name, self.transport = args, name, transport
        self.dir = os.path.join(workdir, f"{name}-{transport}")
        self.cache = os.path.join(self.dir, "cache")
        os.makedirs(self.cache)
        self.sock = os.path.join(self.dir, "spc.sock")
        self.ledger = os.path.join(self.dir, "ledger")
        self.env = dict(os.environ, HOST_BINDER_REGISTRY=f"zem_{os.getpid()}_{name}_{transport}")
        self.daemons, self.clients, self.notes = [], [], []
        self.client_wrapper = []
        self.campaign = campaign

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
        argv = [self.args.zemd, "--socket", self.sock, "--out", os.path.join(self.dir, "out")]
        argv += list(extra) + ([] if quiet else ["--json"])
        if campaign:
            argv += ["--campaign", self.campaign_file()]
        for f in faults:
            argv += ["--fault", f]
        out = None if quiet else os.path.join(self.dir, f"zemd{len(self.daemons)}")
        d = Proc(argv, out, env=self.env)
        self.daemons.append(d)
        up = (lambda: os.path.exists(self.sock)) if quiet else (
            lambda: any(e.get("event") == "binder" and e.get("status") == 0
                        for e in json_lines(d.out())))
        if not eventually(up, 10):
            raise RuntimeError(f"zemd did not come up: {d.err()[-500:]}")
        return d

    def start_client(self, rate=200, threads=1, cache=None, quiet=False, retry_ms=None,
                     extra=()):
        argv = self.client_wrapper + [
            self.args.client, "--transport", self.transport, "--cache", cache or self.cache,
            "--threads", str(threads), "--rate", str(rate), "--ledger", self.ledger, *extra]
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
        """One zemd control command over its control socket; its answer."""
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
        """The numbers of the client's "e2e: WORD ..." lines ("start" and
        "stop" for the callbacks, "end"), one list per line."""
        out = []
        for line in (client or self.client()).out().splitlines():
            parts = line.split()
            if len(parts) >= 3 and parts[0] == "e2e:" and parts[1].replace("-callback", "") == word:
                out.append([int(x) for x in itertools.takewhile(str.isdigit, parts[2:])])
        return out

    def running(self, client=None):
        """Whether the client's last campaign callback was a start."""
        c = client or self.client()
        last = [line.split()[1] for line in c.out().splitlines()
                if line.startswith(("e2e: start-callback", "e2e: stop-callback"))]
        return bool(last) and last[-1] == "start-callback"

    def wait_running(self, timeout=15, client=None):
        """Waits for a new campaign start, or for one that already runs."""
        c = client or self.client()
        n = len(self.client_events("start", c))
        return eventually(lambda: self.running(c) or len(self.client_events("start", c)) > n,
                          timeout)

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

    def cache_files(self, cache=None):
        try:
            return sorted(f for f in os.listdir(cache or self.cache) if f.startswith("kpidata."))
        except OSError:
            return []

    def dumped(self, cache=None):
        """zemdump's JSON lines of the files left in the cache folder."""
        d = cache or self.cache
        files = [os.path.join(d, f) for f in self.cache_files(d)]
        if not files:
            return []
        r = subprocess.run([self.args.zemdump, "--json"] + files, capture_output=True, text=True,
                           timeout=120)
        return list(json_lines(r.stdout))

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
            self.client_gone(c)
            return False
        if rc != 0:
            self.notes.append(f"ERROR: client exited with status {rc} after quit")
        ends = self.client_events("end", c)
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
