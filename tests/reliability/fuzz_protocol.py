#!/usr/bin/python3
"""Runs velmar-protocol-fuzz against a velmar-snmp-agent started here, and judges the agent.

The agent serves a fixed state (the demo state plus rows at the index limits: a 32-byte
name, a 64-byte key, an empty key, bytes above 127, a 10240-byte value) on a free UDP port of
127.0.0.1, with communities and v3 users for every way the fuzzer asks. Passes when the
fuzzer's checks all held, the agent is still running at the end, exits 0 on SIGTERM, and its
standard error has no sanitizer report.

    fuzz_protocol.py [--requests N] [--seed S] [--batch N] [--agent PATH] [--fuzzer PATH]

Paths default to VELMAR_AGENT and VELMAR_PROTOCOL_FUZZ (set by CTest).
"""

import argparse
import json
import os
import re
import signal
import subprocess
import sys
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "agent"))
import velmar_harness as h  # noqa: E402

AUTH, PRIV = "authpass-fuzz", "privpass-fuzz"
SANITIZER_MARKS = ("ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:", "SUMMARY: UndefinedBehavior",
                   "SUMMARY: AddressSanitizer")


def fuzz_state():
    with open(os.path.join(h.SOURCE_DIR, "examples", "demo-state.json"), encoding="utf-8") as f:
        state = json.load(f)
    d = state["daemons"]
    d["n" * 32] = {"config": {"enabled": True, "options": {"k" * 64: "v" * 10240, "": "empty key", "a": "1"}},
                   "status": {"running": True, "data": {"\u00e9t\u00e9": "\u20ac", "\u007f": "x"}}}
    d["a"] = {"config": {"enabled": False}, "status": {"running": True, "data": {"k": "v" * 300}}}
    d["\u00ff\u00fe"] = {"config": {"enabled": True, "options": {"x" * 63: "y"}}}
    return state


def config_text():
    return ("rocommunity public 127.0.0.1\n"
            "rocommunity private 127.0.0.1\n"
            'createUser fuzzro SHA "%s" AES "%s"\n' % (AUTH, PRIV) +
            'createUser fuzzrw SHA "%s" AES "%s"\n' % (AUTH, PRIV) +
            'createUser fuzzbad SHA "%s-other" AES "%s-other"\n' % (AUTH, PRIV) +
            "rouser fuzzro priv\n"
            "rouser fuzzrw auth\n"
            "rouser fuzzbad priv\n")


def sanitizer_lines(lines):
    return [l for l in lines if any(m in l for m in SANITIZER_MARKS)]


def main():
    ap = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    ap.add_argument("--requests", type=int, default=10000)
    ap.add_argument("--seed", type=int, default=1)
    ap.add_argument("--batch", type=int, default=1000)
    ap.add_argument("--agent", default=h.AGENT)
    ap.add_argument("--fuzzer", default=os.environ.get("VELMAR_PROTOCOL_FUZZ", ""))
    args = ap.parse_args()
    if not args.agent or not args.fuzzer:
        ap.error("give --agent and --fuzzer (or VELMAR_AGENT and VELMAR_PROTOCOL_FUZZ)")

    env = dict(os.environ)
    # The sanitizers' defaults for the agent, unless the caller chose: leaks reported at exit,
    # and an allocation too large for the allocator is an error, not a null pointer.
    env.setdefault("ASAN_OPTIONS", "detect_leaks=1:abort_on_error=0")
    env.setdefault("UBSAN_OPTIONS", "print_stacktrace=1:halt_on_error=1")
    tmp = h.TempDir()
    failures = []
    try:
        state_file = tmp.file("state.json")
        h.write_state(state_file, fuzz_state())
        conf = tmp.file("access.conf")
        with open(conf, "w", encoding="utf-8") as f:
            f.write(config_text())
        agent = h.Agent(state_file, binary=args.agent, env=env,
                        extra=["--config", conf, "--persistent-dir", tmp.file("persistent")])
        print("agent %s pid %d on udp:127.0.0.1:%d" % (args.agent, agent.pid, agent.port), flush=True)
        started = time.time()
        cmd = [args.fuzzer, "--port", str(agent.port), "--requests", str(args.requests), "--seed", str(args.seed),
               "--batch", str(args.batch), "--v3-auth", AUTH, "--v3-priv", PRIV, "--agent-pid", str(agent.pid)]
        print("$ " + " ".join(cmd), flush=True)
        fuzz = subprocess.run(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace",
                              env=dict(os.environ, ASAN_OPTIONS="detect_leaks=0"))
        print(fuzz.stdout, flush=True)
        if fuzz.returncode != 0:
            failures.append("the fuzzer's checks failed (exit %d)" % fuzz.returncode)
        alive = agent.alive()
        if not alive:
            failures.append("the agent is gone (exit %s)" % agent.proc.returncode)
        rss = None
        if alive:
            with open("/proc/%d/status" % agent.pid) as f:
                rss = next((l.split()[1] for l in f if l.startswith("VmRSS")), None)
        code = agent.stop(signal.SIGTERM, timeout=60)
        if alive and code != 0:
            failures.append("the agent exited %s on SIGTERM" % code)
        reports = sanitizer_lines(agent.stderr_lines)
        if reports:
            failures.append("sanitizer reports in the agent's standard error")
        other = [l for l in agent.stderr_lines if "applied" not in l and "stopping" not in l]
        print("agent: %s; exit on SIGTERM %s; resident %s kB before stopping; %d lines on standard error "
              "(%d besides the state and stop lines); %.0f s in all"
              % ("alive at the end" if alive else "GONE", code, rss, len(agent.stderr_lines), len(other),
                 time.time() - started))
        if reports:
            for line in reports[:40]:
                print("  agent: " + line)
        else:
            # What Net-SNMP logged about the malformed requests, by kind.
            kinds = {}
            for line in other:
                kind = re.sub(r"0x[0-9a-f]+|\([0-9a-f]+\)|\d+", "N", line)
                kinds[kind] = kinds.get(kind, 0) + 1
            for kind, n in sorted(kinds.items(), key=lambda kv: -kv[1])[:15]:
                print("  agent logged %6d x %s" % (n, kind))
    finally:
        tmp.cleanup()
    if failures:
        print("FAILED: " + "; ".join(failures))
        return 1
    print("PASSED")
    return 0


if __name__ == "__main__":
    sys.exit(main())
