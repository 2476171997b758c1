#!/usr/bin/python3
"""velmar-snmp-agent --supervisor against a real supervisord (Debian's), started here with a
private configuration and socket in a temporary directory: prints numbers, asserts nothing.

  (a) from `supervisorctl stop` returning to an SNMP GET reading running false, with the
      event listener (trials, median, p99)
  (b) the agent's CPU over a quiet period with 200 programs and no change (listener on)
  (c) the start-up load of 500 programs: agent start to its ready line

    bench/supervisor_bench.py [--agent PATH] [--listener PATH] [--trials 100] [--quiet 60]
                              [--out bench/results/supervisor.md]

supervisord and the agent are stopped by process id at the end, also on failure.
"""

import argparse
import os
import statistics
import subprocess
import sys
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
sys.path.insert(0, os.path.join(ROOT, "tests", "supervisor"))
sys.path.insert(0, os.path.join(ROOT, "tests", "agent"))
import velmar_supervisord as vs  # noqa: E402
from velmar_harness import free_port  # noqa: E402
from launcher_probe import RUNNING, TICK, Getter, cpu_ticks, index  # noqa: E402



def start_agent(agent, sup, port, events=True):
    argv = [agent, "--supervisor", sup.url, "--listen", "udp:127.0.0.1:%d" % port]
    if events:
        argv += ["--supervisor-events", sup.events]
    t0 = time.monotonic()
    p = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    line = ""
    for line in p.stderr:
        if "serving VELMAR-DAEMON-MIB" in line:
            break
    took = time.monotonic() - t0
    threading.Thread(target=lambda: [None for _ in p.stderr], daemon=True).start()
    return p, took, line.strip()


def stop(p):
    if p.poll() is None:
        p.terminate()
        try:
            p.wait(15)
        except subprocess.TimeoutExpired:
            p.kill()
            p.wait(5)


def percentile(xs, q):
    xs = sorted(xs)
    return xs[min(len(xs) - 1, int(round(q * (len(xs) - 1))))]


def pool(n):
    return {"program:bench": ["command=/bin/sleep 100000", "process_name=%(program_name)s_%(process_num)03d",
                              "numprocs=%d" % n, "startsecs=0"]}


def wait_all_running(sup, n, timeout=180):
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        rc, out = sup.ctl("status", check=False)
        if sum(1 for l in out.splitlines() if " RUNNING " in l) >= n:
            return
        time.sleep(0.5)
    raise RuntimeError("supervisord did not start %d programs in %d s" % (n, timeout))


def main():
    ap = argparse.ArgumentParser()
    build = os.path.join(ROOT, "build", "default")
    ap.add_argument("--agent", default=os.path.join(build, "agent", "velmar-snmp-agent"))
    ap.add_argument("--listener", default=os.path.join(build, "feed", "supervisor", "velmar-supervisor-events"))
    ap.add_argument("--trials", type=int, default=100)
    ap.add_argument("--quiet", type=int, default=60)
    ap.add_argument("--out", default=os.path.join(HERE, "results", "supervisor.md"))
    args = ap.parse_args()
    if not os.access(vs.SUPERVISORD, os.X_OK):
        print("skipped: supervisord is not installed (Debian's supervisor package)")
        return 77
    agent = sup = None
    lines = []

    def say(text):
        print(text, flush=True)
        lines.append(text)

    try:
        say("# supervisord source (velmar-snmp-agent --supervisor on a private supervisord %s)" %
            subprocess.run([vs.SUPERVISORD, "--version"], stdout=subprocess.PIPE, text=True).stdout.strip())
        say("")
        say("machine: %d cores, load average %s at start" % (os.cpu_count(), " ".join("%.2f" % x for x in os.getloadavg())))

        # (a) stop -> GET reads running false, with the listener
        sup = vs.Supervisord({"program:long": ["command=/bin/sleep 100000", "startsecs=0"]}, listener=args.listener)
        sup.wait_state("long", "RUNNING")
        port = free_port()
        agent, _, _ = start_agent(args.agent, sup, port)
        g = Getter(port)
        oid = RUNNING + index("long")
        time.sleep(1)
        lat, whole, ctl = [], [], []
        for _ in range(args.trials):
            sup.ctl("start", "long")
            deadline = time.monotonic() + 10
            while g.get(oid) != 1 and time.monotonic() < deadline:
                time.sleep(0.005)
            issued = time.monotonic()
            sup.ctl("stop", "long")
            t0 = time.monotonic()
            while g.get(oid) != 2 and time.monotonic() - t0 < 10:
                pass
            lat.append((time.monotonic() - t0) * 1000)
            whole.append((time.monotonic() - issued) * 1000)
            ctl.append((t0 - issued) * 1000)
        say("")
        say("(a) supervisorctl stop returned -> GET reads running false, listener on, %d trials: median %.1f ms, "
            "p99 %.1f ms, max %.1f ms (targets: median <= 100 ms, p99 <= 500 ms)"
            % (len(lat), statistics.median(lat), percentile(lat, 0.99), max(lat)))
        say("    from starting supervisorctl stop (the command itself took median %.1f ms): median %.1f ms, p99 %.1f ms"
            % (statistics.median(ctl), statistics.median(whole), percentile(whole, 0.99)))
        stop(agent)
        agent = None
        sup.cleanup()
        sup = None

        # (b) CPU with 200 programs and no change
        sup = vs.Supervisord(pool(200), listener=args.listener)
        wait_all_running(sup, 200)
        agent, ready, line = start_agent(args.agent, sup, free_port())
        time.sleep(2)
        c0, w0 = cpu_ticks(agent.pid), time.monotonic()
        time.sleep(args.quiet)
        c1, w1 = cpu_ticks(agent.pid), time.monotonic()
        pct = 100.0 * (c1 - c0) / TICK / (w1 - w0)
        say("(b) agent CPU over %.0f s, 200 programs (and the listener), no change, listener on, full read each 60 s: "
            "%.2f%% of one core (target <= 0.5%%)" % (w1 - w0, pct))
        stop(agent)
        agent = None
        # the same without the listener: polled every 10 s
        agent, ready, line = start_agent(args.agent, sup, free_port(), events=False)
        time.sleep(2)
        c0, w0 = cpu_ticks(agent.pid), time.monotonic()
        time.sleep(args.quiet)
        c1, w1 = cpu_ticks(agent.pid), time.monotonic()
        pct = 100.0 * (c1 - c0) / TICK / (w1 - w0)
        say("    without the listener (every process read each 10 s): %.2f%% of one core" % pct)
        stop(agent)
        agent = None
        sup.cleanup()
        sup = None

        # (c) start-up with 500 programs
        sup = vs.Supervisord(pool(500), listener=args.listener)
        wait_all_running(sup, 500, timeout=300)
        runs = []
        for _ in range(3):
            agent, ready, line = start_agent(args.agent, sup, free_port())
            stop(agent)
            agent = None
            runs.append(ready)
        say("(c) start-up with 500 programs, agent start to ready line: best %.3f s, worst %.3f s of 3"
            " (target <= 1 s)" % (min(runs), max(runs)))
        say("    start line: %s" % (line.split(": ", 1)[1] if ": " in line else line))
        say("")
        say("load average at end: %s" % " ".join("%.2f" % x for x in os.getloadavg()))
    finally:
        if agent is not None:
            stop(agent)
        if sup is not None:
            sup.cleanup()
    if args.out:
        os.makedirs(os.path.dirname(args.out), exist_ok=True)
        with open(args.out, "w") as f:
            f.write("\n".join(lines) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
