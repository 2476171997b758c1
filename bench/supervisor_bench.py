#!/usr/bin/python3
"""velmar-snmp-agent --supervisor against a real supervisord (Debian's), started here with a
private configuration and socket in a temporary directory: prints numbers, asserts nothing.

  (a) from `supervisorctl stop` returning to an SNMP GET reading running false, with the
      event listener (trials, median, p99)
  (b) the agent's CPU over a quiet period with 200 programs and no change (listener on)
  (c) the start-up load of 500 programs: agent start to its ready line

    bench/supervisor_bench.py [--agent PATH] [--listener PATH] [--trials 100] [--quiet 60]
                              [--runs 5] [--only latency|cpu|startup] [--out FILE]

--only runs one part and writes no results file unless --out is given; without it every
part runs and the results go to bench/results/supervisor.md.

supervisord and the agent are stopped by process id at the end, also on failure.
"""

import argparse
import os
import statistics
import subprocess
import sys
import threading
import time
import http.client
import socket
import xmlrpc.client

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


class UnixProxy(xmlrpc.client.ServerProxy):
    """An XML-RPC client on supervisord's Unix socket."""

    def __init__(self, path):
        class Connection(http.client.HTTPConnection):
            def connect(self):
                self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
                self.sock.settimeout(60)
                self.sock.connect(path)

        class Transport(xmlrpc.client.Transport):
            def make_connection(self, host):
                return Connection("localhost")

        super().__init__("http://localhost/RPC2", transport=Transport())


def loadavg():
    with open("/proc/loadavg") as f:
        return " ".join(f.read().split()[:3])


def part_latency(args, held, say):
    """(a) stop -> GET reads running false, with the listener."""
    sup = held["sup"] = vs.Supervisord({"program:long": ["command=/bin/sleep 100000", "startsecs=0"]},
                                       listener=args.listener)
    sup.wait_state("long", "RUNNING")
    port = free_port()
    agent, _, _ = start_agent(args.agent, sup, port)
    held["agent"] = agent
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
    held["agent"] = None
    sup.cleanup()
    held["sup"] = None


def cpu_over(args, held, sup, events):
    agent, _, _ = start_agent(args.agent, sup, free_port(), events=events)
    held["agent"] = agent
    time.sleep(2)
    c0, w0 = cpu_ticks(agent.pid), time.monotonic()
    time.sleep(args.quiet)
    c1, w1 = cpu_ticks(agent.pid), time.monotonic()
    stop(agent)
    held["agent"] = None
    return w1 - w0, 100.0 * (c1 - c0) / TICK / (w1 - w0)


def part_cpu(args, held, say):
    """(b) CPU with 200 programs and no change, with the listener and without (polled)."""
    sup = held["sup"] = vs.Supervisord(pool(200), listener=args.listener)
    wait_all_running(sup, 200)
    took, pct = cpu_over(args, held, sup, True)
    say("(b) agent CPU over %.0f s, 200 programs (and the listener), no change, listener on, full read each 60 s: "
        "%.2f%% of one core (target <= 0.5%%)" % (took, pct))
    took, pct = cpu_over(args, held, sup, False)
    say("    without the listener (every process read each 10 s): %.2f%% of one core" % pct)
    sup.cleanup()
    held["sup"] = None


def xmlrpc_times(sup, rounds=3):
    """supervisord's own time for the two calls of a full read, one after the other and on
    two connections at once (the best of a few rounds, in seconds)."""
    def call(method):
        with UnixProxy(sup.socket) as proxy:
            t0 = time.monotonic()
            getattr(proxy.supervisor, method)()
            return time.monotonic() - t0

    serial_c, serial_p, together = [], [], []
    for _ in range(rounds):
        serial_c.append(call("getAllConfigInfo"))
        serial_p.append(call("getAllProcessInfo"))
        got = {}
        t0 = time.monotonic()
        threads = [threading.Thread(target=lambda m=m: got.__setitem__(m, call(m)))
                   for m in ("getAllConfigInfo", "getAllProcessInfo")]
        for t in threads:
            t.start()
        for t in threads:
            t.join(60)
        together.append(time.monotonic() - t0)
    return min(serial_c), min(serial_p), min(together)


def part_startup(args, held, say):
    """(c) start-up with 500 programs: agent start to its ready line."""
    sup = held["sup"] = vs.Supervisord(pool(500), listener=args.listener)
    wait_all_running(sup, 500, timeout=300)
    runs, loads, line = [], [], ""
    for _ in range(args.runs):
        loads.append(loadavg().split()[0])
        agent, ready, line = start_agent(args.agent, sup, free_port())
        held["agent"] = agent
        stop(agent)
        held["agent"] = None
        runs.append(ready)
    say("(c) start-up with 500 programs, agent start to ready line, %d runs: median %.3f s, best %.3f s, worst %.3f s"
        " (target <= 1 s)" % (len(runs), statistics.median(runs), min(runs), max(runs)))
    say("    each run (s): %s; 1-minute load average before each: %s"
        % (" ".join("%.3f" % r for r in runs), " ".join(loads)))
    say("    start line: %s" % (line.split(": ", 1)[1] if ": " in line else line))
    if sup.socket and not sup.inet_port:
        c, p, both = xmlrpc_times(sup)
        say("    supervisord itself (Python's xmlrpc client, best of 3): getAllConfigInfo %.3f s, getAllProcessInfo"
            " %.3f s, one after the other %.3f s, both at once on two connections %.3f s" % (c, p, c + p, both))
    sup.cleanup()
    held["sup"] = None


PARTS = {"latency": part_latency, "cpu": part_cpu, "startup": part_startup}


def main():
    ap = argparse.ArgumentParser()
    build = os.path.join(ROOT, "build", "default")
    ap.add_argument("--agent", default=os.path.join(build, "agent", "velmar-snmp-agent"))
    ap.add_argument("--listener", default=os.path.join(build, "feed", "supervisor", "velmar-supervisor-events"))
    ap.add_argument("--trials", type=int, default=100)
    ap.add_argument("--quiet", type=int, default=60)
    ap.add_argument("--runs", type=int, default=5, help="start-up runs (c)")
    ap.add_argument("--only", choices=("latency", "cpu", "startup"), help="run one part only")
    ap.add_argument("--out", help="results file (default with every part: bench/results/supervisor.md)")
    args = ap.parse_args()
    if args.out is None and not args.only:
        args.out = os.path.join(HERE, "results", "supervisor.md")
    if args.runs < 1 or args.trials < 1:
        ap.error("--runs and --trials must be at least 1")
    if not os.access(vs.SUPERVISORD, os.X_OK):
        print("skipped: supervisord is not installed (Debian's supervisor package)")
        return 77
    lines = []
    held = {"agent": None, "sup": None}   # stopped by process id at the end, also on failure

    def say(text):
        print(text, flush=True)
        lines.append(text)

    try:
        say("# supervisord source (velmar-snmp-agent --supervisor on a private supervisord %s)" %
            subprocess.run([vs.SUPERVISORD, "--version"], stdout=subprocess.PIPE, text=True).stdout.strip())
        say("")
        say("command: %s" % " ".join(["bench/supervisor_bench.py"] + sys.argv[1:]))
        say("date: %s" % time.strftime("%Y-%m-%d %H:%M UTC", time.gmtime()))
        say("machine: %d cores, load average %s at start" % (os.cpu_count(), loadavg()))
        for part in ("latency", "cpu", "startup"):
            if args.only in (None, part):
                PARTS[part](args, held, say)
        say("")
        say("load average at end: %s" % loadavg())
    finally:
        if held["agent"] is not None:
            stop(held["agent"])
        if held["sup"] is not None:
            held["sup"].cleanup()
    if args.out:
        os.makedirs(os.path.dirname(args.out), exist_ok=True)
        with open(args.out, "w") as f:
            f.write("\n".join(lines) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
