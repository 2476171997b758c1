#!/usr/bin/python3
"""velmar-snmp-agent --systemd against the real systemd of the test sandbox
(tests/systemd/sandbox): prints numbers, asserts nothing.

  (a) from `systemctl stop` returning to an SNMP GET reading running false (trials, median, p99)
  (b) the agent's CPU over a quiet period with 500 loaded units and no change
  (c) the start-up load of 1,000 unit files of which 100 are loaded: agent start to its
      ready line (unit files listed, loaded units read)
  (d) snmpd with velmarSystemd (and, to compare, velmarStateFile): RSS over many SIGHUPs

    bench/systemd_bench.py [--agent PATH] [--dlmod PATH] [--trials 100] [--quiet 60] [--sighups 200]
                           [--out bench/results/systemd.md]

Needs root and what the sandbox needs; says why and exits 77 otherwise. The sandbox and the
agent are stopped by process id at the end, also on failure.
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
sys.path.insert(0, os.path.join(ROOT, "tests", "systemd"))
sys.path.insert(0, os.path.join(ROOT, "tests", "agent"))
from velmar_harness import free_port  # noqa: E402
import velmar_sandbox  # noqa: E402
from launcher_probe import RUNNING, TICK, Getter, cpu_ticks, index  # noqa: E402



def start_agent(agent, bus, units, port):
    t0 = time.monotonic()
    p = subprocess.Popen([agent, "--systemd", "--units", units, "--system-bus", bus,
                          "--listen", "udp:127.0.0.1:%d" % port],
                         stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    # The start line is in the agent's log (standard error); what follows is drained.
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
    return p.stderr.read()


def percentile(xs, q):
    xs = sorted(xs)
    return xs[min(len(xs) - 1, int(round(q * (len(xs) - 1))))]


def make_units(sb, first, last):
    sb.run("seq %d %d | xargs -P 8 -I@ systemd-run -q --unit=velmar-t-@ /bin/sleep 3600" % (first, last), timeout=600)


def make_files(sb, count, started):
    """count unit files velmar-f-N.service (none loaded), then started of them running."""
    sb.run("for i in $(seq 1 %d); do printf '[Unit]\\nDescription=bench %%s\\n[Service]\\nExecStart=/bin/sleep 3600\\n' $i"
           " > /etc/systemd/system/velmar-f-$i.service; done; systemctl daemon-reload" % count, timeout=600)
    sb.run("seq 1 %d | xargs -P 8 -I@ systemctl start velmar-f-@" % started, timeout=600)


def rss_kb(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def sighup_rss(sb, dlmod, lines, count):
    """RSS of snmpd (kB) before and after count SIGHUPs, each waited for until served again."""
    import signal
    import test_dlmod
    import velmar_harness as h
    tmp = h.TempDir()
    saved = os.environ.get("DBUS_SYSTEM_BUS_ADDRESS")
    os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = sb.bus
    snmpd = None
    try:
        snmpd = test_dlmod.Snmpd(tmp.path, ["dlmod velmar_daemon_mib %s" % dlmod] + lines)
        snmpd.wait_log("serving VELMAR-DAEMON-MIB", timeout=10)
        time.sleep(1)
        before = rss_kb(snmpd.pid)
        for _ in range(count):
            mark = len(snmpd.stdout_lines + snmpd.stderr_lines)
            os.kill(snmpd.pid, signal.SIGHUP)
            if not snmpd.wait_log("serving VELMAR-DAEMON-MIB", timeout=10, start=mark):
                break
        time.sleep(1)
        return before, rss_kb(snmpd.pid)
    finally:
        if snmpd:
            snmpd.stop()
        if saved is None:
            os.environ.pop("DBUS_SYSTEM_BUS_ADDRESS", None)
        else:
            os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = saved
        tmp.cleanup()


def main():
    ap = argparse.ArgumentParser()
    ap.add_argument("--agent", default=os.path.join(ROOT, "build", "default", "agent", "velmar-snmp-agent"))
    ap.add_argument("--trials", type=int, default=100)
    ap.add_argument("--quiet", type=int, default=60)
    ap.add_argument("--sighups", type=int, default=200)
    ap.add_argument("--dlmod", default=os.path.join(ROOT, "build", "default", "dlmod", "velmar_daemon_mib.so"))
    ap.add_argument("--out", default=os.path.join(HERE, "results", "systemd.md"))
    args = ap.parse_args()
    try:
        sb = velmar_sandbox.Sandbox(units=os.path.join(HERE, "systemd-units"))
    except velmar_sandbox.SandboxUnavailable as e:
        print("skipped: %s" % e)
        return 77
    agent = None
    lines = []

    def say(text):
        print(text, flush=True)
        lines.append(text)

    try:
        say("# systemd source (velmar-snmp-agent --systemd on the test sandbox's systemd)")
        say("")
        say("machine: %d cores, load average %s at start" % (os.cpu_count(), " ".join("%.2f" % x for x in os.getloadavg())))
        # (a) stop -> GET reads running false
        port = free_port()
        agent, _, _ = start_agent(args.agent, sb.bus, "velmar-*", port)
        g = Getter(port)
        oid = RUNNING + index("velmar-long")
        lat = []
        for _ in range(args.trials):
            sb.run("systemctl start velmar-long")
            deadline = time.monotonic() + 10
            while g.get(oid) != 1 and time.monotonic() < deadline:
                time.sleep(0.005)
            sb.run("systemctl stop velmar-long")
            t0 = time.monotonic()
            while g.get(oid) != 2 and time.monotonic() - t0 < 10:
                pass
            lat.append((time.monotonic() - t0) * 1000)
        say("")
        say("(a) systemctl stop returned -> GET reads running false, %d trials: median %.1f ms, p99 %.1f ms, max %.1f ms"
            " (targets: median <= 100 ms, p99 <= 500 ms)" % (len(lat), statistics.median(lat), percentile(lat, 0.99), max(lat)))
        stop(agent)
        agent = None

        # (b) CPU with 500 loaded units and no change
        t0 = time.monotonic()
        make_units(sb, 1, 500)
        say("")
        say("500 transient units started in %.1f s" % (time.monotonic() - t0))
        agent, ready, line = start_agent(args.agent, sb.bus, "velmar-*", free_port())
        time.sleep(2)
        c0, w0 = cpu_ticks(agent.pid), time.monotonic()
        time.sleep(args.quiet)
        c1, w1 = cpu_ticks(agent.pid), time.monotonic()
        pct = 100.0 * (c1 - c0) / TICK / (w1 - w0)
        say("(b) agent CPU over %.0f s, 501 loaded units, no change, --refresh 10: %.2f%% of one core (target <= 0.5%%)"
            % (w1 - w0, pct))
        stop(agent)
        agent = None

        # (c) start-up with 1,000 unit files of which 100 are loaded
        make_files(sb, 1000, 100)
        runs = []
        for _ in range(3):
            # systemd lists unit files for the agent stopped last even after it is gone, and
            # answers nothing else meanwhile: start each agent once systemd answers again.
            sb.run("systemctl show -P Version >/dev/null")
            agent, ready, line = start_agent(args.agent, sb.bus, "velmar-f-*", free_port())
            err = stop(agent)
            agent = None
            runs.append(ready)
        say("(c) start-up with 1,000 unit files of which 100 loaded (velmar-f-*), agent start to ready line:"
            " best %.3f s, worst %.3f s of 3 (target <= 1 s)" % (min(runs), max(runs)))
        say("    start line: %s" % line.split(": ", 1)[1] if ": " in line else line)
        applied = [l for l in err.splitlines() if "applied" in l]
        if applied:
            say("    %s" % applied[0].split(": ", 2)[-1])

        # (d) snmpd's RSS over SIGHUPs
        if args.sighups and os.path.exists(args.dlmod) and os.access("/usr/sbin/snmpd", os.X_OK):
            os.environ.setdefault("VELMAR_DLMOD", args.dlmod)
            for label, conf in (("velmarSystemd velmar-long", ["velmarSystemd velmar-long*"]),
                                ("velmarStateFile (to compare)",
                                 ["velmarStateFile %s" % os.path.join(ROOT, "examples", "demo-state.json")])):
                before, after = sighup_rss(sb, args.dlmod, conf, args.sighups)
                say("(d) snmpd with %s, %d SIGHUPs: RSS %d kB -> %d kB (%+.1f kB per SIGHUP)"
                    % (label, args.sighups, before, after, (after - before) / args.sighups))
        say("")
        say("load average at end: %s" % " ".join("%.2f" % x for x in os.getloadavg()))
    finally:
        if agent is not None:
            stop(agent)
        sb.stop()
    if args.out:
        os.makedirs(os.path.dirname(args.out), exist_ok=True)
        with open(args.out, "w") as f:
            f.write("\n".join(lines) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
