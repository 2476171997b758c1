#!/usr/bin/python3
"""Churn soak of velmar-snmp-agent: the state file is rewritten many times a second with
random adds, removes and value changes while four clients walk the four tables without a
pause, and every walk is judged.

    soak.py [--seconds N] [--rate PER_SECOND] [--rss-at SECONDS] [--rss-tolerance PERCENT]
            [--agent PATH] [--seed S]

A writer publishes a new state --rate times a second (default 30; at least 20 must be reached) by atomic rename, each one
changing 1 to 6 things: a daemon added or removed, an option or data key added, removed or
changed (to an empty value too, which removes its row), a flag flipped, a config or status
section appearing or going. Each publication is kept with its time, as a timeline of values
per row.

Four clients (snmpbulkwalk with max-repetitions 10 and 50, snmpwalk with GETNEXT, and
snmpbulkwalk with 3, at nice 5 so that the writer and the agent keep their pace) each walk the four tables in turn, starting at different tables. A walk
passes when it ends in time with exit status 0, its OIDs are strictly increasing and inside
the table, and every value it returns is the value its row has in a state published during
the walk, or in the one in force when it began. "In force" allows the agent --lag seconds
(default 1) to take a file in: a walk that starts within that time after a publication may
still see the state before it. The largest such lag actually used is reported.

Resident memory (VmRSS) is sampled every second: the figure at --rss-at seconds (default
60, or a third of the run when that is shorter) and at the end are compared, and the run
fails when the end is more than --rss-tolerance percent larger (default 2; not judged for an
agent built with AddressSanitizer, whose quarantine holds freed memory on purpose). At the
end the agent gets SIGTERM: it must exit 0, and its standard error must have no sanitizer
report (a leak found by LeakSanitizer at exit included).
"""

import argparse
import bisect
import json
import os
import random
import signal
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "agent"))
import velmar_harness as h  # noqa: E402

SANITIZER_MARKS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:", "SUMMARY: UndefinedBehavior",
                   "SUMMARY: AddressSanitizer")
NAMES = ["d%02d" % i for i in range(60)] + ["bgpd", "ntpd", "sshd", "lldpd", "ospfd", "dhcp-relay", "n" * 32,
                                            "\u00e9t\u00e9", "a", "zz"]
KEYS = ["pid", "uptime", "asn", "log-level", "k", "router-id", "neighbors", "x" * 64, "", "\u20ac", "k1", "k22",
        "key-333", "a.b.c"]
CLIENTS = [("snmpbulkwalk", 10), ("snmpbulkwalk", 50), ("snmpwalk", 0), ("snmpbulkwalk", 3)]


class Churn:
    """The writer's state, its random changes, and the timeline of every row."""

    def __init__(self, path, rng):
        self.path = path
        self.rng = rng
        self.state = {"daemons": {}}
        for name in rng.sample(NAMES, 30):
            self.state["daemons"][name] = self.random_daemon()
        self.rows = {}           # oid -> value, as last published
        self.timeline = {}       # oid -> [(time, value or None)]
        self.times = {}          # oid -> [time] (for bisect)
        self.lock = threading.Lock()
        self.published = 0

    def value(self):
        r = self.rng.random()
        if r < 0.05:
            return ""
        if r < 0.1:
            return "v" * self.rng.randint(300, 3000)
        return "".join(self.rng.choice("abcxyz0123456789-.:\u00e9") for _ in range(self.rng.randint(1, 24)))

    def random_daemon(self):
        d = {}
        if self.rng.random() < 0.85:
            d["config"] = {"enabled": self.rng.random() < 0.6,
                           "options": {k: self.value() for k in self.rng.sample(KEYS, self.rng.randint(0, 5))}}
        if self.rng.random() < 0.85:
            d["status"] = {"running": self.rng.random() < 0.5,
                           "data": {k: self.value() for k in self.rng.sample(KEYS, self.rng.randint(0, 5))}}
        return d

    def change(self):
        """One random change to the state."""
        daemons = self.state["daemons"]
        r = self.rng.random()
        if r < 0.12 or not daemons:
            absent = [n for n in NAMES if n not in daemons]
            if absent:
                daemons[self.rng.choice(absent)] = self.random_daemon()
            return
        name = self.rng.choice(sorted(daemons))
        d = daemons[name]
        if r < 0.22:
            if len(daemons) > 5:
                del daemons[name]
            return
        if r < 0.30:  # a section appears or goes
            part = self.rng.choice(["config", "status"])
            if part in d:
                del d[part]
            else:
                d[part] = self.random_daemon().get(part) or {}
            return
        if r < 0.40:  # a flag flips
            part, flag = self.rng.choice([("config", "enabled"), ("status", "running")])
            if part in d:
                d[part][flag] = not d[part].get(flag, False)
            return
        part, member = self.rng.choice([("config", "options"), ("status", "data")])
        if part not in d:
            d[part] = {}
        kv = d[part].setdefault(member, {})
        if r < 0.55 or not kv:  # a key added (or set again)
            kv[self.rng.choice(KEYS)] = self.value()
        elif r < 0.70:  # a key removed
            del kv[self.rng.choice(sorted(kv))]
        else:  # a value changed
            kv[self.rng.choice(sorted(kv))] = self.value()

    def publish(self):
        rows = {}
        for table_rows in h.expected_rows(self.state).values():
            rows.update(table_rows)
        tmp = self.path + ".tmp"
        with open(tmp, "w", encoding="utf-8") as f:
            json.dump(self.state, f)
        # Recorded before the rename, with the time before it: a client that sees the new
        # state finds it here, however long this thread then waits for its turn.
        with self.lock:
            t = time.monotonic()
            for oid in set(rows) | set(self.rows):
                old, new = self.rows.get(oid), rows.get(oid)
                if oid not in self.timeline or old != new:
                    self.timeline.setdefault(oid, []).append((t, new))
                    self.times.setdefault(oid, []).append(t)
            self.rows = rows
            self.published += 1
        os.rename(tmp, self.path)
        return t

    def history(self, oid, value, t0):
        """When value was in force for oid, relative to t0 (for messages)."""
        with self.lock:
            tl = self.timeline.get(oid, [])
            spans = []
            for k, (t, v) in enumerate(tl):
                if v == value:
                    until = tl[k + 1][0] if k + 1 < len(tl) else None
                    spans.append("%+.3f..%s" % (t - t0, "now" if until is None else "%+.3f" % (until - t0)))
            if spans:
                return ", ".join(spans[-4:])
            # Never this row's: whose was it?
            others = []
            for o, otl in self.timeline.items():
                for k, (t, v) in enumerate(otl):
                    until = otl[k + 1][0] if k + 1 < len(otl) else t0 + 1e9
                    if v == value and t < t0 + 2 and until > t0 - 2 and not isinstance(value, int):
                        others.append("%s %+.3f..%+.3f" % (h.oid_str(o), t - t0, until - t0))
            return "never (other rows with it: %s)" % "; ".join(others[:3])

    def values_during(self, oid, t0, t1, lag):
        """{value: latest time it was in force} for oid's values in force from t0 - lag to t1;
        None stands for the row being absent."""
        with self.lock:
            tl = self.timeline.get(oid)
            times = self.times.get(oid)
            if not tl:
                return {None: t1}
            i = bisect.bisect_right(times, t0 - lag) - 1
            j = bisect.bisect_right(times, t1)
            out = {}
            if i < 0:
                out[None] = tl[0][0]
            for k in range(max(i, 0), j):
                until = tl[k + 1][0] if k + 1 < len(tl) else t1
                out[tl[k][1]] = max(out.get(tl[k][1], 0), until)
            return out


class Walker(threading.Thread):
    def __init__(self, number, port, churn, stop, lag, results):
        super().__init__(daemon=True)
        self.number, self.port, self.churn, self.stop, self.lag, self.results = number, port, churn, stop, lag, results
        self.tool, self.rep = CLIENTS[number % len(CLIENTS)]

    def run(self):
        tables = list(h.TABLES.items())
        i = self.number
        while not self.stop.is_set():
            table, (subtree, _, _) = tables[i % len(tables)]
            i += 1
            self.results.append(self.walk_once(table, subtree))

    def walk_once(self, table, subtree):
        args = (["-Cr%d" % self.rep] if self.rep else []) + ["-Cc"] + h.common_args(self.port) + [h.oid_str(subtree)]
        t0 = time.monotonic()
        try:
            # The clients run niced: the writer and the agent keep their pace on a busy machine.
            rc, out, err = h.run_tool("nice", ["-n", "5", self.tool] + args, timeout=60)
        except subprocess.TimeoutExpired:
            return {"ok": False, "why": "%s of %s did not end in 60 s" % (self.tool, table), "rows": 0}
        t1 = time.monotonic()
        if rc != 0:
            return {"ok": False, "why": "%s of %s exited %d: %s" % (self.tool, table, rc, err.strip()[:300]), "rows": 0}
        got = h.parse_tool_output(out)
        stale = 0.0
        prev = None
        for oid, value in got:
            if oid[:len(subtree)] != subtree:
                return {"ok": False, "why": "%s of %s left the table at %s" % (self.tool, table, h.oid_str(oid)),
                        "rows": len(got)}
            if prev is not None and not prev < oid:
                return {"ok": False, "why": "%s of %s: %s after %s is not increasing" % (
                    self.tool, table, h.oid_str(oid), h.oid_str(prev)), "rows": len(got)}
            prev = oid
            during = self.churn.values_during(oid, t0, t1, self.lag)
            if value not in during:
                return {"ok": False, "why": "%s of %s: %s = %r is in no state published during the walk (%s)" % (
                    self.tool, table, h.oid_str(oid), value[:60] if isinstance(value, bytes) else value,
                    sorted((repr(v)[:30] for v in during), key=str)) + "; in force at %s s from the walk's start, "
                    "which took %.3f s" % (self.churn.history(oid, value, t0), t1 - t0), "rows": len(got)}
            stale = max(stale, t0 - during[value])
        return {"ok": True, "rows": len(got), "stale": stale, "seconds": t1 - t0, "client": self.number}


def memory_kb(pid):
    """{"VmRSS": kB, "RssAnon": kB, "RssFile": kB} of pid, or None when it is gone."""
    try:
        with open("/proc/%d/status" % pid) as f:
            out = {l.split(":")[0]: int(l.split()[1]) for l in f if l.startswith(("VmRSS:", "RssAnon:", "RssFile:"))}
            return out if "VmRSS" in out else None
    except OSError:
        return None


def rss_kb(pid):
    m = memory_kb(pid)
    return m["VmRSS"] if m else None


def uses_asan(pid):
    try:
        with open("/proc/%d/maps" % pid) as f:
            return "libasan" in f.read()
    except OSError:
        return False


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--seconds", type=float, default=600)
    ap.add_argument("--rate", type=float, default=30, help="publications per second")
    ap.add_argument("--rss-at", type=float, default=None)
    ap.add_argument("--rss-tolerance", type=float, default=2.0, help="percent")
    ap.add_argument("--lag", type=float, default=1.0)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--agent", default=h.AGENT)
    args = ap.parse_args()
    if not args.agent:
        ap.error("give --agent (or VELMAR_AGENT)")
    rss_at = args.rss_at if args.rss_at is not None else min(60.0, args.seconds / 3)

    sys.setswitchinterval(0.001)  # the writer keeps its pace while the clients parse walks
    env = dict(os.environ)
    env.setdefault("ASAN_OPTIONS", "detect_leaks=1:abort_on_error=0")
    tmp = h.TempDir()
    failures = []
    try:
        path = tmp.file("state.json")
        churn = Churn(path, random.Random(args.seed))
        churn.publish()
        agent = h.Agent(path, binary=args.agent, env=env, extra=["--persistent-dir", tmp.file("persistent")])
        asan = uses_asan(agent.pid)
        print("agent %s pid %d on udp:127.0.0.1:%d%s; %.0f s, %.0f publications a second, 4 clients"
              % (args.agent, agent.pid, agent.port, " (AddressSanitizer)" if asan else "", args.seconds, args.rate),
              flush=True)
        stop = threading.Event()
        results = []
        rss = []
        parts = []
        start = time.monotonic()

        def sample():
            while not stop.is_set():
                m = memory_kb(agent.pid)
                if m is not None:
                    rss.append((time.monotonic() - start, m["VmRSS"]))
                    parts.append((time.monotonic() - start, m))
                stop.wait(1.0)

        sampler = threading.Thread(target=sample, daemon=True)
        sampler.start()
        walkers = [Walker(n, agent.port, churn, stop, args.lag, results) for n in range(4)]
        for w in walkers:
            w.start()
        period = 1.0 / args.rate
        next_at = time.monotonic()
        late = 0
        last_report = start
        while time.monotonic() - start < args.seconds:
            for _ in range(churn.rng.randint(1, 6)):
                churn.change()
            churn.publish()
            next_at += period
            delay = next_at - time.monotonic()
            if delay > 0:
                time.sleep(delay)
            else:
                # Behind (the machine is busy): catch up, unless far behind.
                late += 1
                if delay < -0.5:
                    next_at = time.monotonic()
            if time.monotonic() - last_report >= 60:
                last_report = time.monotonic()
                print("  %3.0f s: %d publications, %d walks, %d failed, VmRSS %s kB"
                      % (last_report - start, churn.published, len(results),
                         sum(1 for r in results if not r["ok"]), rss[-1][1] if rss else "?"), flush=True)
        elapsed = time.monotonic() - start
        stop.set()
        for w in walkers:
            w.join(90)
        sampler.join(5)
        if any(w.is_alive() for w in walkers):
            failures.append("a client did not finish its last walk")

        alive = agent.alive()
        end_rss = rss_kb(agent.pid) if alive else None
        code = agent.stop(signal.SIGTERM, timeout=120)
        reports = [l for l in agent.stderr_lines if any(m in l for m in SANITIZER_MARKS)]
        applied = sum(1 for l in agent.stderr_lines if "applied" in l)
        refused = [l for l in agent.stderr_lines
                   if "state file" in l and "applied" not in l and "serving VELMAR-DAEMON-MIB" not in l]

        ok_walks = [r for r in results if r["ok"]]
        bad_walks = [r for r in results if not r["ok"]]
        rows = sum(r["rows"] for r in ok_walks)
        print("publications: %d in %.1f s (%.1f a second; %d behind schedule); the agent logged %d applied reloads, "
              "%d other state-file lines" % (churn.published, elapsed, churn.published / elapsed, late, applied,
                                              len(refused)))
        for n in range(4):
            mine = [r for r in ok_walks if r.get("client") == n]
            tool, rep = CLIENTS[n]
            secs = [r["seconds"] for r in mine]
            print("client %d (%s%s): %d whole walks, %d rows checked, %.3f s a walk on average (longest %.3f s)"
                  % (n, tool, " -Cr%d" % rep if rep else "", len(mine), sum(r["rows"] for r in mine),
                     sum(secs) / len(secs) if secs else 0, max(secs) if secs else 0))
        print("walks: %d, passed %d, failed %d; values checked %d; largest lag used %.3f s (allowed %.1f s)"
              % (len(results), len(ok_walks), len(bad_walks), rows, max((r["stale"] for r in ok_walks), default=0),
                 args.lag))
        for r in bad_walks[:10]:
            print("  FAILED WALK: " + r["why"])
        if bad_walks:
            failures.append("%d walks failed" % len(bad_walks))
        if len(ok_walks) < 4:
            failures.append("fewer than 4 whole walks")
        if churn.published / elapsed < 20:
            failures.append("fewer than 20 publications a second")

        first = next((v for t, v in rss if t >= rss_at), None)
        last = rss[-1][1] if rss else None
        if end_rss is not None:
            last = end_rss
        peak = max((v for _, v in rss), default=None)
        if first and last:
            growth = 100.0 * (last - first) / first
            judged = not asan
            print("VmRSS: %d kB at %.0f s, %d kB at the end (%+.2f%%), peak %d kB; %s"
                  % (first, rss_at, last, growth, peak,
                     "limit +%.1f%%" % args.rss_tolerance if judged else "not judged under AddressSanitizer"))
            m0 = next((m for t, m in parts if t >= rss_at), None)
            m1 = parts[-1][1] if parts else None
            if m0 and m1:
                print("  of which anonymous (heap, stacks) %d -> %d kB, file-backed (code and data of the "
                      "binaries as pages are first touched) %d -> %d kB"
                      % (m0.get("RssAnon", 0), m1.get("RssAnon", 0), m0.get("RssFile", 0), m1.get("RssFile", 0)))
            if judged and growth > args.rss_tolerance:
                failures.append("resident memory grew %.2f%% (limit %.1f%%)" % (growth, args.rss_tolerance))
        else:
            failures.append("no memory figures")
        if not alive:
            failures.append("the agent died (exit %s)" % agent.proc.returncode)
        elif code != 0:
            failures.append("the agent exited %s on SIGTERM" % code)
        print("agent: exit %s on SIGTERM; %d lines on standard error; sanitizer reports: %d"
              % (code, len(agent.stderr_lines), len(reports)))
        for line in reports[:40]:
            print("  agent: " + line)
        if reports:
            failures.append("sanitizer reports (a leak included) in the agent's standard error")
        for line in refused[:5]:
            print("  agent: " + line)
        if refused:
            failures.append("the agent refused or missed a state file")
    finally:
        tmp.cleanup()
    if failures:
        print("FAILED: " + "; ".join(failures))
        return 1
    print("PASSED")
    return 0


if __name__ == "__main__":
    sys.exit(main())
