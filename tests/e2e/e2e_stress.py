#!/usr/bin/env python3
"""Logging at full speed while the daemon changes campaigns under it.

A real zemd and an e2e_client whose two threads log to their own
counter KPIs as fast as they can, with no lock of the application's, while
zemd starts a campaign, merges a second one into it, and stops it, every few
milliseconds, and is killed and restarted every couple of seconds. Run in
the sanitizer builds, this is where a logging thread reading a freed KPI or
a window serialized while a thread still adds to it shows up.

Every sample the client counted (zem_log answered 0) must be in a window
that the daemon received or that still sits in the cache folder: the merged
campaign names other KPIs, so no KPI is ever replaced and nothing is dropped
by design. A daemon killed while it stores a file may receive that file
again from the next run (at-least-once); that shows as samples received
twice and is reported, not failed.

  e2e_stress.py --zemd BIN --client BIN [--seconds N] [--kill-every N]
                [--transport T...] [--keep DIR]

Exit status 0 when every transport accounted for every sample, the client
quit cleanly (no sanitizer report, which makes it exit non-zero) and nothing
hung; 1 otherwise.
"""
import sys
import time

from harness import Rig, arguments, eventually, run_dir

WINDOW = 10000
MAIN = f"""
kpiCfgs {{ id: 1 type: KPI_NUMERIC subType: COUNTER c_cfg {{}} nof_samples: {WINDOW} }}
kpiCfgs {{ id: 2 type: KPI_NUMERIC subType: COUNTER c_cfg {{}} nof_samples: {WINDOW} }}
size_threshold: 65536
time_threshold: 60
cfg_payload: "stress"
"""
# Merged into a running campaign: new ids only, so ids 1 and 2 keep their
# KPIs and their open windows.
EXTRA = """
kpiCfgs { id: 3 type: KPI_NUMERIC subType: GAUGE g_cfg {} nof_samples: 5 }
kpiCfgs { id: 4 type: KPI_NUMERIC subType: HISTOGRAM h_cfg { bucket_bounds: [10, 20, 30] } nof_samples: 5 }
size_threshold: 65536
time_threshold: 60
cfg_payload: "stress extra"
"""


def samples(windows, kid):
    return sum(e.get("samples", 0) for e in windows if e.get("kind") == "counter"
               and e.get("id") == kid)


def run(args, transport, workdir):
    s = Rig(args, "stress", transport, workdir, MAIN)
    main_path, extra_path = s.campaign_file(), s.write("extra.txtpb", EXTRA)
    notes = []
    ok = True
    changes = kills = 0
    try:
        s.start_daemon()
        # The client gives up after three registration attempts: 2.5 s apart,
        # they span the few seconds a restarted daemon may take to come up on
        # a loaded machine, which 1 s apart they did not always.
        c = s.start_client(rate=0, threads=2, retry_ms=2500)
        if not eventually(lambda: s.running(), 15):
            notes.append("campaign never started")
            ok = False
        start = time.monotonic()
        next_kill = start + args.kill_every
        # Pushing the main campaign onto a running one would replace KPIs 1
        # and 2 and drop their open windows, as designed: the cycle always
        # stops before it starts the main campaign again.
        cycle = ("stop", f"push {main_path}", f"push {extra_path}")
        step = 0
        while time.monotonic() - start < args.seconds:
            s.control(cycle[step % 3], timeout=2)
            step += 1
            changes += 1
            time.sleep(0.003)
            if time.monotonic() >= next_kill:
                starts = len(s.client_events("start"))
                s.daemon().kill()
                kills += 1
                # The client notices (its campaign stops) before the new
                # daemon comes up, registers again (2.5 s apart) and gets the
                # campaign at registration; only then does the cycle go on,
                # so that no push of the main campaign meets a running one.
                if not eventually(lambda: not s.running(), 10):
                    notes.append("the client did not notice the daemon's death")
                s.start_daemon()
                if not eventually(lambda: len(s.client_events("start")) > starts, 15):
                    notes.append("the client did not get a campaign from the restarted daemon")
                    ok = False
                step = 0
                next_kill = time.monotonic() + args.kill_every
        # End on a fresh run of the main campaign, then stop it and let its
        # file arrive.
        s.control("stop", timeout=2)
        s.control(f"push {main_path}", timeout=2)
        eventually(lambda: s.running(), 10)
        s.stop_and_drain()
        if not s.quit_client(timeout=20):
            ok = False
        rc = c.p.returncode
        if rc != 0:
            notes.append(f"client exit status {rc}")
            ok = False
        err = c.err()
        for marker in ("ThreadSanitizer", "AddressSanitizer", "runtime error:"):
            if marker in err:
                i = err.index(marker)
                notes.append("sanitizer: " + err[max(0, i - 20):i + 300].replace("\n", " | "))
                ok = False
        logged = s.logged()
        received, cached = ([samples(w, k) for k in (1, 2)] for w in (s.received(), s.dumped()))
        starts = len(s.client_events("start"))
        stops = len(s.client_events("stop"))
        print(f"{transport:7} threads 2, campaign changes {changes} (client saw {starts} starts, "
              f"{stops} stops), daemon kills {kills}", flush=True)
        for t in range(2):
            kept = received[t] + cached[t]
            lost = logged[t] - kept
            print(f"        thread {t}: samples logged {logged[t]}, received {received[t]}, "
                  f"in cache {cached[t]}, lost {max(lost, 0)}"
                  + (f", received twice {-lost}" if lost < 0 else ""), flush=True)
            if lost > 0 or (lost < 0 and kills == 0):
                ok = False
    except Exception as e:  # a harness problem fails the run, not crashes it
        notes.append(f"ERROR {type(e).__name__}: {e}")
        ok = False
    finally:
        s.close()
    for n in notes:
        print(f"        {n}", flush=True)
    print(f"        {'ok' if ok else 'FAILED'}", flush=True)
    return ok


def main():
    def add(ap):
        ap.add_argument("--seconds", type=float, default=6)
        ap.add_argument("--kill-every", type=float, default=2)
        ap.add_argument("--transport", nargs="*", default=["grpc", "binder"])
    args = arguments(__doc__, add)
    with run_dir(args, "zem-stress-") as workdir:
        results = [run(args, t, workdir) for t in args.transport]
    return 0 if all(results) else 1


if __name__ == "__main__":
    sys.exit(main())
