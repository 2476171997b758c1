#!/usr/bin/python3
"""Runs every benchmark and writes bench/results/: results.json, results.md, performance.png.

Run through scripts/bench (which builds the release preset first):

    scripts/bench            # the full run: 1,000, 10,000 and 100,000 rows per table
    scripts/bench --quick    # under a minute: 1,000 and 10,000 rows, fewer samples

What it measures (docs/performance.md explains method and fairness):

  side by side   one velmar-bench-host process serves the same option rows four ways
                 (module, container, naive, floor); velmar-bench-client walks and GETs each
                 and reports agent and client CPU separately
  deployments    the module as users run it: velmar-snmp-agent standalone, velmar-snmp-agent
                 as an AgentX subagent of Debian's snmpd, and the dlmod bridge inside snmpd
  memory         resident memory of velmar-snmp-agent with a 100,000-row file against an
                 empty one
  reload         velmar-bench-reload: a one-value reload of a 100,000-row file against parsing it
  micro          velmar-bench-model (Google Benchmark)
"""

import argparse
import datetime
import json
import os
import platform
import shutil
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

MODULE_ROOT = "1.3.6.1.4.1.32473.3.17.1.2"
BASELINE_ROOTS = {
    "container": "1.3.6.1.4.1.32473.99.2.1.2",
    "naive": "1.3.6.1.4.1.32473.99.3.1.2",
    "floor": "1.3.6.1.4.1.32473.99.4.1.2",
}
WAYS = ["module", "container", "naive", "floor"]
WALKS = ["bulk10", "bulk50", "getnext"]
SNMP_ENV = dict(os.environ, MIBS="", MIBDIRS="/nonexistent")


def log(*parts):
    print("bench:", *parts, file=sys.stderr, flush=True)


def load_average():
    return list(os.getloadavg())


class Proc:
    """A child process we started, stopped by its own pid only."""

    def __init__(self, cmd, name, env=None, cwd=None):
        self.name = name
        self.log_path = tempfile.mktemp(prefix=f"velmar-bench-{name}-", suffix=".log")
        self.log = open(self.log_path, "w")
        # Standard output and error together (the agent's start line is in its log, on
        # standard error), copied to the log by a thread so that the process never blocks.
        self.proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, env=env, cwd=cwd, text=True)
        self.pid = self.proc.pid
        self.lines = []
        self.pump = threading.Thread(target=self._pump, daemon=True)
        self.pump.start()

    def _pump(self):
        for line in self.proc.stdout:
            self.lines.append(line)
            self.log.write(line)

    def wait_line(self, word, timeout=120):
        deadline = time.time() + timeout
        seen = 0
        while time.time() < deadline:
            while seen < len(self.lines):
                if word in self.lines[seen]:
                    return self.lines[seen]
                seen += 1
            if self.proc.poll() is not None and not self.pump.is_alive():
                break
            time.sleep(0.01)
        tail = "".join(self.lines)[-2000:]
        raise RuntimeError(f"{self.name} did not say '{word}'; its output ends:\n{tail}")

    def stop(self):
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout=30)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.pump.join(5)
        self.log.close()
        # What it logged is in the exception of a failed wait_line; nothing stays in /tmp.
        try:
            os.unlink(self.log_path)
        except FileNotFoundError:
            pass


def snmp_answers(port, oid, timeout=60):
    """Waits until the agent on port answers a GETNEXT of oid inside that subtree."""
    deadline = time.time() + timeout
    while time.time() < deadline:
        r = subprocess.run(["snmpgetnext", "-v2c", "-c", "public", "-On", "-t", "1", "-r", "0",
                            f"udp:127.0.0.1:{port}", "." + oid], capture_output=True, text=True, env=SNMP_ENV)
        if r.returncode == 0 and r.stdout.startswith("." + oid + "."):
            return True
        time.sleep(0.2)
    return False


def rss_kb(pid):
    with open(f"/proc/{pid}/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    return 0


def run_json_lines(cmd, timeout=3600):
    r = subprocess.run(cmd, capture_output=True, text=True, timeout=timeout, env=SNMP_ENV)
    if r.returncode != 0:
        raise RuntimeError(f"{' '.join(cmd)} failed:\n{r.stderr}")
    return [json.loads(line) for line in r.stdout.splitlines() if line.startswith("{")]


class Bench:
    def __init__(self, args):
        self.args = args
        self.quick = args.quick
        self.build = os.path.abspath(args.build_dir)
        self.bin = os.path.join(self.build, "bench")
        self.module = os.path.join(self.build, "modules", "VelmarDaemonMIB.so")
        self.agent = os.path.join(self.build, "agent", "velmar-snmp-agent")
        self.dlmod = os.path.join(self.build, "dlmod", "velmar_daemon_mib.so")
        self.work = tempfile.mkdtemp(prefix="velmar-bench-")
        self.sizes = [1000, 10000] if self.quick else [1000, 10000, 100000]
        self.results = {
            "quick": self.quick,
            "started": datetime.datetime.now(datetime.timezone.utc).isoformat(timespec="seconds"),
            "machine": self.machine(),
            "side_by_side": [],
            "get_latency": [],
            "deployments": [],
            "states": {},
            "skipped": [],
        }

    # -------------------------------------------------------------------------------------

    def machine(self):
        def first_line(cmd):
            try:
                return subprocess.run(cmd, capture_output=True, text=True).stdout.splitlines()[0].strip()
            except Exception:
                return "unknown"

        cpu = "unknown"
        try:
            with open("/proc/cpuinfo") as f:
                for line in f:
                    if line.startswith("model name"):
                        cpu = line.split(":", 1)[1].strip()
                        break
        except OSError:
            pass
        return {
            "cpu": cpu,
            "cores": os.cpu_count(),
            "kernel": platform.release(),
            "netsnmp": first_line(["dpkg-query", "-W", "-f=${Version}", "libsnmp40"]),
            "snmpd": first_line(["dpkg-query", "-W", "-f=${Version}", "snmpd"]),
            "compiler": first_line(["c++", "--version"]),
            "build": "release preset (CMAKE_BUILD_TYPE=Release, -O3 -DNDEBUG)",
            "commit": first_line(["git", "-C", ROOT, "rev-parse", "--short", "HEAD"]),
            "load_before": load_average(),
        }

    def state_file(self, option_rows, data_rows):
        key = f"{option_rows}x{data_rows}"
        path = os.path.join(self.work, f"state-{key}.json")
        if key not in self.results["states"]:
            out = run_json_lines([os.path.join(self.bin, "velmar-bench-state"), "--option-rows", str(option_rows),
                                  "--data-rows", str(data_rows), "--out", path])
            self.results["states"][key] = out[0]
        return path

    # -------------------------------------------------------------------------------------
    # Side by side: one process, four ways.

    def naive_limit(self, rows):
        if rows <= 1000:
            return 0
        if rows <= 10000 and not self.quick:
            return 0
        return 200 if self.quick else 300

    def side_by_side(self, rows):
        state = self.state_file(rows, rows)
        port = free_port()
        host = Proc([os.path.join(self.bin, "velmar-bench-host"), "--state", state, "--module", self.module,
                     "--listen", f"udp:127.0.0.1:{port}", "--dir", os.path.join(self.work, f"host-{rows}")],
                    f"host-{rows}", env=SNMP_ENV)
        try:
            host.wait_line("ready")
            if not snmp_answers(port, MODULE_ROOT):
                raise RuntimeError("the bench host does not answer")
            cmd = [os.path.join(self.bin, "velmar-bench-client"), "--peer", f"udp:127.0.0.1:{port}",
                   "--pids", str(host.pid), "--rows", str(rows),
                   "--way", f"module={MODULE_ROOT}"]
            cmd += [a for w in ("container", "naive", "floor") for a in ("--way", f"{w}={BASELINE_ROOTS[w]}")]
            limit = self.naive_limit(rows)
            if limit:
                cmd += ["--limit", f"naive={limit}"]
            gets = 500 if self.quick else 3000
            absent = 10 if self.quick else (60 if rows < 100000 else 30)
            cmd += ["--gets", str(gets), "--absent", str(absent), "--repeat", "1" if self.quick else "3",
                    "--get-limit", f"naive={50 if self.quick else 200}", "--repeat-way", "naive=1"]
            log(f"side by side, {rows} rows per table")
            for r in run_json_lines(cmd):
                r["deployment"] = "bench host (standalone)"
                self.results["side_by_side"].append(r)
        finally:
            host.stop()

    # -------------------------------------------------------------------------------------
    # GET latency against table size, measured side by side: one host per size, all up at
    # once, and the client taking them in turns, so that each size sees the same load.

    def get_latency(self):
        hosts = {}
        try:
            for rows in self.sizes:
                state = self.state_file(rows, rows)
                port = free_port()
                host = Proc([os.path.join(self.bin, "velmar-bench-host"), "--state", state, "--module", self.module,
                             "--listen", f"udp:127.0.0.1:{port}", "--ways", "module,container,floor",
                             "--dir", os.path.join(self.work, f"latency-{rows}")], f"latency-{rows}", env=SNMP_ENV)
                hosts[rows] = (host, port)
            for rows, (host, port) in hosts.items():
                host.wait_line("ready")
                if not snmp_answers(port, MODULE_ROOT):
                    raise RuntimeError("a latency host does not answer")
            rounds = 2 if self.quick else 7
            log(f"GET latency side by side at {', '.join(str(r) for r in self.sizes)} rows, {rounds} rounds")
            for r in range(rounds):
                for rows, (host, port) in hosts.items():
                    cmd = [os.path.join(self.bin, "velmar-bench-client"), "--peer", f"udp:127.0.0.1:{port}",
                           "--pids", str(host.pid), "--rows", str(rows), "--workloads", "get",
                           "--gets", "200" if self.quick else "400", "--way", f"module={MODULE_ROOT}"]
                    cmd += [a for w in ("container", "floor") for a in ("--way", f"{w}={BASELINE_ROOTS[w]}")]
                    for rec in run_json_lines(cmd):
                        rec["round"] = r
                        self.results["get_latency"].append(rec)
        finally:
            for host, _ in hosts.values():
                host.stop()

    # -------------------------------------------------------------------------------------
    # Deployments of the module.

    def deployment_client(self, port, pids, rows, deployment):
        cmd = [os.path.join(self.bin, "velmar-bench-client"), "--peer", f"udp:127.0.0.1:{port}",
               "--pids", ",".join(str(p) for p in pids), "--rows", str(rows), "--way", f"module={MODULE_ROOT}",
               "--workloads", "bulk10,bulk50,getnext,get", "--gets", "300" if self.quick else "2000",
               "--timeout-ms", "120000"]
        log(f"{deployment}, {rows} rows per table")
        for r in run_json_lines(cmd):
            r["deployment"] = deployment
            self.results["deployments"].append(r)

    def standalone(self, rows):
        state = self.state_file(rows, rows)
        port = free_port()
        agent = Proc([self.agent, "--state", state, "--module", self.module, "--listen", f"udp:127.0.0.1:{port}"],
                     f"agent-{rows}")
        try:
            agent.wait_line("serving VELMAR-DAEMON-MIB")
            if not snmp_answers(port, MODULE_ROOT):
                raise RuntimeError("velmar-snmp-agent does not answer")
            self.deployment_client(port, [agent.pid], rows, "standalone")
        finally:
            agent.stop()

    def snmpd(self, name, port, extra_conf, modules):
        d = os.path.join(self.work, name)
        os.makedirs(d, exist_ok=True)
        conf = os.path.join(d, "snmpd.conf")
        with open(conf, "w") as f:
            f.write("rocommunity public 127.0.0.1\n")
            f.write("dontLogTCPWrappersConnects yes\n")
            f.write(extra_conf)
        # -C: this configuration only; -I: only the modules named (snmpd's own MIB modules
        # stay out); persistent files in a private directory.
        env = dict(SNMP_ENV, SNMP_PERSISTENT_DIR=d)
        cmd = [shutil.which("snmpd") or "/usr/sbin/snmpd", "-f", "-Lo", "-C", "-c", conf, "-I", modules,
               f"udp:127.0.0.1:{port}"]
        return Proc(cmd, name, env=env), d

    def agentx(self, rows):
        state = self.state_file(rows, rows)
        port = free_port()
        sock = os.path.join(self.work, f"agentx-{rows}.sock")
        snmpd, _ = self.snmpd(f"snmpd-agentx-{rows}", port,
                              f"master agentx\nagentXSocket {sock}\nagentXPerms 0600 0700\nagentXTimeout 30\n",
                              "vacm_conf,agentx")
        agent = None
        try:
            deadline = time.time() + 30
            while not os.path.exists(sock) and time.time() < deadline:
                time.sleep(0.1)
            agent = Proc([self.agent, "--state", state, "--module", self.module, "--agentx", sock], f"subagent-{rows}")
            agent.wait_line("serving VELMAR-DAEMON-MIB")
            if not snmp_answers(port, MODULE_ROOT):
                raise RuntimeError("snmpd does not answer for the subagent")
            self.deployment_client(port, [snmpd.pid, agent.pid], rows, "AgentX subagent of snmpd")
        finally:
            if agent:
                agent.stop()
            snmpd.stop()

    def dlmod_bridge(self, rows):
        if not os.path.exists(self.dlmod):
            self.results["skipped"].append(f"dlmod at {rows} rows: {self.dlmod} not built")
            return
        state = self.state_file(rows, rows)
        port = free_port()
        snmpd, _ = self.snmpd(f"snmpd-dlmod-{rows}", port,
                              f"dlmod velmar_daemon_mib {self.dlmod}\nvelmarStateFile {state}\n"
                              f"velmarModule {self.module}\n", "vacm_conf,dlmod")
        try:
            if not snmp_answers(port, MODULE_ROOT, timeout=120):
                raise RuntimeError("snmpd with the dlmod bridge does not answer")
            self.deployment_client(port, [snmpd.pid], rows, "dlmod bridge in snmpd")
        finally:
            snmpd.stop()

    # -------------------------------------------------------------------------------------

    def memory(self):
        rows = 100000
        full = self.state_file(rows // 2, rows - rows // 2)
        empty = os.path.join(self.work, "state-empty.json")
        with open(empty, "w") as f:
            f.write('{"daemons": {}}\n')

        def settled_rss(state):
            port = free_port()
            agent = Proc([self.agent, "--state", state, "--module", self.module, "--listen", f"udp:127.0.0.1:{port}"],
                         "agent-memory")
            try:
                agent.wait_line("serving VELMAR-DAEMON-MIB")
                snmp_answers(port, MODULE_ROOT, timeout=30) if state != empty else None
                # Resident memory once the worker's first reload is over, it has handed what
                # it released back to the system (a second after going idle), and nothing
                # changes any more.
                time.sleep(2.5)
                last, stable = -1, 0
                for _ in range(100):
                    time.sleep(0.2)
                    now = rss_kb(agent.pid)
                    stable = stable + 1 if now == last else 0
                    last = now
                    if stable >= 5:
                        break
                return last
            finally:
                agent.stop()

        base = settled_rss(empty)
        loaded = settled_rss(full)
        info = self.results["states"][f"{rows // 2}x{rows - rows // 2}"]
        key_rows = info["option_rows"] + info["data_rows"]
        delta = (loaded - base) * 1024
        self.results["memory"] = {
            "key_rows": key_rows,
            "model_rows": info["model_rows"],
            "rss_empty_kb": base,
            "rss_loaded_kb": loaded,
            "string_bytes": info["string_bytes"],
            "row_string_bytes": info.get("row_string_bytes", info["string_bytes"]),
            "bytes_per_row_beyond_strings": (delta - info["string_bytes"]) / key_rows,
        }
        log("memory:", self.results["memory"])

    def reload(self):
        rounds = "3" if self.quick else "9"
        out = run_json_lines([os.path.join(self.bin, "velmar-bench-reload"), "--rows", "100000", "--rounds", rounds,
                              "--cold-rounds", "1" if self.quick else "3",
                              "--dir", os.path.join(self.work, "reload")])
        self.results["reload"] = out[0]
        log("reload:", out[0])

    def micro(self):
        path = os.path.join(self.work, "micro.json")
        cmd = [os.path.join(self.bin, "velmar-bench-model"), "--benchmark_format=console",
               f"--benchmark_out={path}", "--benchmark_out_format=json"]
        cmd += ["--max-rows", "10000", "--benchmark_min_time=0.02"] if self.quick else \
               ["--max-rows", "1000000", "--benchmark_min_time=0.2"]
        log("microbenchmarks")
        r = subprocess.run(cmd, capture_output=True, text=True, env=SNMP_ENV)
        if r.returncode != 0:
            raise RuntimeError("velmar-bench-model failed:\n" + r.stderr)
        with open(path) as f:
            data = json.load(f)
        self.results["micro"] = [
            {"name": b["name"], "cpu_ns": b["cpu_time"], "real_ns": b["real_time"],
             "items_per_second": b.get("items_per_second"), "iterations": b["iterations"]}
            for b in data["benchmarks"]]

    # -------------------------------------------------------------------------------------

    def run(self):
        t0 = time.time()
        self.micro()
        for rows in self.sizes:
            self.side_by_side(rows)
        self.get_latency()
        for rows in self.sizes[:1] if self.quick else self.sizes:
            self.standalone(rows)
            self.agentx(rows)
            self.dlmod_bridge(rows)
        self.reload()
        self.memory()
        self.results["machine"]["load_after"] = load_average()
        self.results["duration_s"] = round(time.time() - t0, 1)
        import report
        report.derive(self.results)
        os.makedirs(self.args.out, exist_ok=True)
        with open(os.path.join(self.args.out, "results.json"), "w") as f:
            json.dump(self.results, f, indent=1)
        with open(os.path.join(self.args.out, "results.md"), "w") as f:
            f.write(report.markdown(self.results))
        report.plot(self.results, os.path.join(self.args.out, "performance.png"))
        # A full run into bench/results/ also refreshes the figures docs/performance.md shows.
        doc = os.path.join(ROOT, "docs", "performance.md")
        if not self.quick and os.path.abspath(self.args.out) == os.path.join(HERE, "results") and os.path.exists(doc):
            with open(doc) as f:
                text = f.read()
            begin, end = "<!-- figures: written by scripts/bench -->", "<!-- /figures -->"
            if begin in text and end in text:
                text = text[:text.index(begin) + len(begin)] + "\n" + report.headline(self.results) + \
                       text[text.index(end):]
                with open(doc, "w") as f:
                    f.write(text)
        shutil.rmtree(self.work, ignore_errors=True)
        log(f"done in {self.results['duration_s']} s; results in {self.args.out}")
        return 0


def main():
    p = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    p.add_argument("--quick", action="store_true", help="fewer sizes and samples: under a minute")
    p.add_argument("--build-dir", default=os.path.join(ROOT, "build", "release"))
    p.add_argument("--out", default=os.path.join(HERE, "results"))
    args = p.parse_args()
    sys.path.insert(0, HERE)
    return Bench(args).run()


if __name__ == "__main__":
    sys.exit(main())
