#!/usr/bin/python3
"""Where velmar-snmp-agent's memory goes under churn: glibc's "in use bytes" (malloc_stats,
called in the running agent through gdb) measured around runs of reloads that each change one
kind of thing and then go back to the first state, so that every measurement is taken while the
same state is served.

    memory_probe.py [--agent PATH] [--reloads N]

Prints one line per kind of change with the in-use bytes before and after and the difference
per reload. A leak shows as a steady difference per reload; the allocator's caches as a cost
the first time a kind of change is made and none after. Needs gdb and root (ptrace).
"""

import argparse
import copy
import os
import random
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "agent"))
sys.path.insert(0, os.path.dirname(os.path.abspath(__file__)))
import soak  # noqa: E402
import velmar_harness as h  # noqa: E402


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--agent", default=h.AGENT)
    ap.add_argument("--reloads", type=int, default=1500)
    args = ap.parse_args()
    tmp = h.TempDir()
    try:
        path = tmp.file("state.json")
        churn = soak.Churn(path, random.Random(1))
        churn.publish()
        first = copy.deepcopy(churn.state)
        names = sorted(first["daemons"])
        agent = h.Agent(path, binary=args.agent)

        def in_use():
            mark = len(agent.stderr_lines)
            subprocess.run(["gdb", "-p", str(agent.pid), "-batch", "-ex", "call (void)malloc_stats()"],
                           capture_output=True, timeout=120)
            time.sleep(0.5)
            lines = [l for l in agent.stderr_lines[mark:] if "in use bytes" in l]
            return int(lines[-1].split("=")[1]) if lines else None

        def publish(state):
            churn.state = state
            churn.publish()

        def phase(name, make, n):
            publish(copy.deepcopy(first))
            time.sleep(2)
            a = in_use()
            for i in range(n):
                publish(make(i))
                time.sleep(1 / 40)
            publish(copy.deepcopy(first))
            time.sleep(2)
            b = in_use()
            print("%-34s %6d reloads: in use %d -> %d (%+.1f bytes a reload)" % (name, n, a, b, (b - a) / n),
                  flush=True)

        def changed(i, what):
            s = copy.deepcopy(first)
            d = s["daemons"][names[i % len(names)]]
            if what == "value":
                d.setdefault("config", {}).setdefault("options", {})["k1"] = "v%d" % i
            elif what == "flag":
                d.setdefault("status", {})["running"] = i % 2 == 0
            elif what == "row" and i % 2 == 0:
                s["daemons"][names[0]].setdefault("config", {}).setdefault("options", {})["new%d" % (i % 7)] = "x"
            elif what == "daemon" and i % 2 == 0:
                s["daemons"]["zz%d" % (i % 5)] = {"config": {"enabled": True, "options": {"a": "b"}},
                                                  "status": {"running": True, "data": {"c": "d"}}}
            return s

        phase("the same state rewritten", lambda i: copy.deepcopy(first), args.reloads // 2)
        for what in ("value", "flag", "row", "daemon"):
            phase({"value": "one value changed in place", "flag": "a flag flipped",
                   "row": "a key's row added and removed", "daemon": "a daemon added and removed"}[what],
                  lambda i, w=what: changed(i, w), args.reloads)
        agent.stop()
    finally:
        tmp.cleanup()


if __name__ == "__main__":
    main()
