#!/usr/bin/python3
"""From a state change to the trap at the receiver: velmar-snmp-agent serves a 1,000-row
state (250 daemons, each with its enabled and running rows, one option and one data value),
sends SNMPv2c traps to a UDP socket of this script; each sample flips one daemon's running
flag, writes the whole file and renames it into place, and times from just before the
rename to the arrival of the trap that names that daemon. Prints the median and more, and
writes bench/results/notify-latency.md and .json.

    bench/notify_latency.py [--agent PATH] [--samples N] [--out DIR]

The agent defaults to the release build, then the default one. Everything runs on
127.0.0.1 on free ports; the agent is stopped by its process id.
"""

import argparse
import datetime
import json
import os
import platform
import signal
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

HERE = os.path.dirname(os.path.abspath(__file__))
ROOT = os.path.dirname(HERE)
# free_port (and the rest of the test harness) is shared with the tests.
sys.path.insert(0, os.path.join(ROOT, "tests", "agent"))
from velmar_harness import free_port  # noqa: E402
DAEMONS = 250
TARGET_MS = 50.0


def default_agent():
    for preset in ("release", "default"):
        p = os.path.join(ROOT, "build", preset, "agent", "velmar-snmp-agent")
        if os.access(p, os.X_OK):
            return p
    return None


def name(i):
    return "daemon-%03d" % i


def write_state(path, running):
    state = {"daemons": {name(i): {"config": {"enabled": True, "options": {"exec": "/usr/sbin/%s -f" % name(i)}},
                                   "status": {"running": running[i], "data": {"pid": str(1000 + i)}}}
                         for i in range(DAEMONS)}}
    tmp = path + ".tmp"
    with open(tmp, "w", encoding="utf-8") as f:
        json.dump(state, f)
    t0 = time.perf_counter()
    os.rename(tmp, path)
    return t0


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--agent", default=default_agent())
    ap.add_argument("--samples", type=int, default=200)
    ap.add_argument("--out", default=os.path.join(HERE, "results"))
    args = ap.parse_args()
    if not args.agent or not os.access(args.agent, os.X_OK):
        sys.exit("notify_latency: no velmar-snmp-agent (build one, or give --agent PATH)")

    tmp = tempfile.mkdtemp(prefix="velmar-bench-notify-")
    state_file = os.path.join(tmp, "state.json")
    running = [True] * DAEMONS
    write_state(state_file, running)
    receiver = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    receiver.bind(("127.0.0.1", 0))
    receiver.settimeout(2.0)
    conf = os.path.join(tmp, "agent.conf")
    with open(conf, "w", encoding="utf-8") as f:
        f.write("rocommunity public 127.0.0.1\ntrap2sink udp:127.0.0.1:%d public\n" % receiver.getsockname()[1])
    port = free_port()
    agent = subprocess.Popen([args.agent, "--state", state_file, "--config", conf, "--listen", "udp:127.0.0.1:%d" % port],
                             stdout=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True)
    latencies, lost = [], 0
    try:
        deadline = time.time() + 15
        line = ""
        while time.time() < deadline and "serving VELMAR-DAEMON-MIB" not in line:
            line = agent.stderr.readline()   # the agent's log
            if not line and agent.poll() is not None:
                sys.exit("notify_latency: the agent exited at start")
        threading.Thread(target=lambda: [None for _ in agent.stderr], daemon=True).start()
        time.sleep(0.5)
        for k in range(args.samples):
            i = k % DAEMONS   # a daemon not flipped within its hold-down: every change goes out at once
            running[i] = not running[i]
            marker = name(i).encode()
            t0 = write_state(state_file, running)
            got = False
            while True:
                try:
                    packet = receiver.recv(65535)
                except socket.timeout:
                    break
                if marker in packet:
                    latencies.append((time.perf_counter() - t0) * 1e3)
                    got = True
                    break
            if not got:
                lost += 1
            time.sleep(0.02)
    finally:
        if agent.poll() is None:
            os.kill(agent.pid, signal.SIGTERM)
            try:
                agent.wait(10)
            except subprocess.TimeoutExpired:
                os.kill(agent.pid, signal.SIGKILL)
                agent.wait(5)
        receiver.close()
        for f in os.listdir(tmp):
            os.unlink(os.path.join(tmp, f))
        os.rmdir(tmp)

    if not latencies:
        sys.exit("notify_latency: no trap arrived")
    s = sorted(latencies)
    result = {
        "what": "state file renamed into place (1,000 rows) to the SNMPv2c trap's arrival",
        "date": datetime.datetime.now().isoformat(timespec="seconds"),
        "machine": "%s, %d CPUs" % (platform.platform(), os.cpu_count() or 0),
        "agent": args.agent,
        "samples": len(s), "lost": lost,
        "median_ms": statistics.median(s), "p90_ms": s[int(len(s) * 0.9)], "p99_ms": s[min(len(s) - 1, int(len(s) * 0.99))],
        "min_ms": s[0], "max_ms": s[-1], "target_median_ms": TARGET_MS,
    }
    verdict = "meets" if result["median_ms"] <= TARGET_MS else "MISSES"
    text = ("state change to trap at the receiver (1,000-row state, %d samples, %d lost): median %.2f ms, "
            "p90 %.2f ms, p99 %.2f ms, min %.2f ms, max %.2f ms; target median <= %.0f ms: %s"
            % (len(s), lost, result["median_ms"], result["p90_ms"], result["p99_ms"], result["min_ms"],
               result["max_ms"], TARGET_MS, verdict))
    print(text)
    os.makedirs(args.out, exist_ok=True)
    with open(os.path.join(args.out, "notify-latency.json"), "w", encoding="utf-8") as f:
        json.dump(result, f, indent=2)
    with open(os.path.join(args.out, "notify-latency.md"), "w", encoding="utf-8") as f:
        f.write("# Notification latency\n\n`bench/notify_latency.py`, %s, %s, agent %s.\n\n"
                % (result["date"], result["machine"], os.path.relpath(args.agent, ROOT)))
        f.write("From the rename of a 1,000-row state file that flips one daemon's running flag to the "
                "arrival of the SNMPv2c trap at a UDP receiver on 127.0.0.1 (the whole file is parsed "
                "and compared on every change).\n\n")
        f.write("| samples | lost | median | p90 | p99 | min | max | target (median) |\n|---|---|---|---|---|---|---|---|\n")
        f.write("| %d | %d | %.2f ms | %.2f ms | %.2f ms | %.2f ms | %.2f ms | <= %.0f ms: %s |\n"
                % (len(s), lost, result["median_ms"], result["p90_ms"], result["p99_ms"], result["min_ms"],
                   result["max_ms"], TARGET_MS, verdict))


if __name__ == "__main__":
    main()
