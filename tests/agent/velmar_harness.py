"""Test harness: starts velmar-snmp-agent (or the test host) on free loopback ports,
queries it with the Net-SNMP command-line tools and with pysnmp, and derives the expected
rows of the four tables from a state file independently of the agent's own code.

Every process started here is stopped by process id; every wait is bounded.
"""

import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time

ENTERPRISE = int(os.environ.get("VELMAR_ENTERPRISE_NUMBER", "32473"))
ROOT = (1, 3, 6, 1, 4, 1, ENTERPRISE, 3, 17)
TABLES = {
    # name: (subtree, value column, two-component index)
    "enabled": (ROOT + (1, 1), 2, False),
    "option": (ROOT + (1, 2), 3, True),
    "running": (ROOT + (2, 1), 2, False),
    "data": (ROOT + (2, 2), 3, True),
}
TRUE, FALSE = 1, 2  # TruthValue

AGENT = os.environ.get("VELMAR_AGENT", "")
TEST_HOST = os.environ.get("VELMAR_TEST_HOST", "")
SOURCE_DIR = os.environ.get("VELMAR_SOURCE_DIR", os.path.join(os.path.dirname(__file__), "..", ".."))


def oid_str(oid):
    return "." + ".".join(str(x) for x in oid)


def parse_oid(text):
    return tuple(int(x) for x in text.strip().lstrip(".").split("."))


def index_of(*parts):
    """The OID suffix of length-prefixed octet-string index components."""
    out = []
    for p in parts:
        b = p.encode("utf-8") if isinstance(p, str) else bytes(p)
        out.append(len(b))
        out.extend(b)
    return tuple(out)


def expected_rows(state, serve_empty=False):
    """{table: [(oid, value)]} sorted by OID, from a launcher state (parsed JSON)."""
    rows = {t: [] for t in TABLES}
    for name, d in state.get("daemons", {}).items():
        cfg, st = d.get("config"), d.get("status")
        for table, flag_of in (("enabled", lambda: cfg and cfg.get("enabled")), ("running", lambda: st and st.get("running"))):
            sub, col, _ = TABLES[table]
            rows[table].append((sub + (1, col) + index_of(name), TRUE if flag_of() else FALSE))
        for table, part, member in (("option", cfg, "options"), ("data", st, "data")):
            if not part:
                continue
            sub, col, _ = TABLES[table]
            for key, value in part.get(member, {}).items():
                if value == "" and not serve_empty:
                    continue
                rows[table].append((sub + (1, col) + index_of(name, key), value.encode("utf-8")))
    for t in rows:
        rows[t].sort(key=lambda r: r[0])
    return rows


def free_port(kind=socket.SOCK_DGRAM, host="127.0.0.1"):
    family = socket.AF_INET6 if ":" in host else socket.AF_INET
    with socket.socket(family, kind) as s:
        s.bind((host, 0))
        return s.getsockname()[1]


def write_state(path, state):
    tmp = path + ".tmp"
    with open(tmp, "w", encoding="utf-8") as f:
        json.dump(state, f)
    os.rename(tmp, path)


class Process:
    """A server process started with a ready line on standard output."""

    def __init__(self, argv, ready_text, env=None, timeout=15.0):
        self.argv = argv
        self.stderr_lines = []
        self.stdout_lines = []
        self.proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     env=env, text=True, errors="replace")
        self._ready = threading.Event()
        self._threads = [threading.Thread(target=self._pump, args=(self.proc.stdout, self.stdout_lines, ready_text), daemon=True),
                         threading.Thread(target=self._pump, args=(self.proc.stderr, self.stderr_lines, None), daemon=True)]
        for t in self._threads:
            t.start()
        if not self._ready.wait(timeout):
            self.stop()
            raise RuntimeError("%s did not get ready in %.0f s; stderr:\n%s" % (argv[0], timeout, self.stderr()))

    def _pump(self, stream, sink, ready_text):
        for line in stream:
            sink.append(line.rstrip("\n"))
            if ready_text and ready_text in line:
                self._ready.set()
        if ready_text:
            self._ready.set()  # exited before being ready: stop waiting

    @property
    def pid(self):
        return self.proc.pid

    def alive(self):
        return self.proc.poll() is None

    def stderr(self):
        return "\n".join(self.stderr_lines)

    def wait_stderr(self, text, timeout=5.0, start=0):
        deadline = time.time() + timeout
        while time.time() < deadline:
            for line in self.stderr_lines[start:]:
                if text in line:
                    return line
            time.sleep(0.02)
        return None

    def stop(self, sig=signal.SIGTERM, timeout=10.0):
        """Stops the process by its id; returns its exit code."""
        if self.proc.poll() is None:
            try:
                os.kill(self.proc.pid, sig)
            except ProcessLookupError:
                pass
            try:
                self.proc.wait(timeout)
            except subprocess.TimeoutExpired:
                os.kill(self.proc.pid, signal.SIGKILL)
                self.proc.wait(5)
        for t in self._threads:
            t.join(2)
        for stream in (self.proc.stdout, self.proc.stderr):
            if stream and not stream.closed:
                stream.close()
        return self.proc.returncode


class Agent(Process):
    """velmar-snmp-agent in master mode on a free UDP port of 127.0.0.1."""

    def __init__(self, state_file, extra=(), port=None, binary=None, listen=None, env=None):
        self.port = port or free_port()
        self.listen = listen or ["udp:127.0.0.1:%d" % self.port]
        argv = [binary or AGENT, "--state", state_file]
        for l in self.listen:
            argv += ["--listen", l]
        argv += list(extra)
        super().__init__(argv, "serving", env=env)


class TempDir:
    def __init__(self):
        self.path = tempfile.mkdtemp(prefix="velmar-test-")

    def file(self, name):
        return os.path.join(self.path, name)

    def cleanup(self):
        shutil.rmtree(self.path, ignore_errors=True)


# --- Net-SNMP command-line tools ---------------------------------------------------------

def _tool_env():
    env = dict(os.environ)
    env["MIBS"] = ""
    env["SNMPCONFPATH"] = "/nonexistent"
    env["HOME"] = "/nonexistent"
    return env


def run_tool(tool, args, timeout=60):
    p = subprocess.run([tool] + args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, errors="replace",
                       timeout=timeout, env=_tool_env())
    return p.returncode, p.stdout, p.stderr


def parse_tool_output(text):
    """Parses -On -Ox -Oe output into [(oid, value)]: octet strings as bytes, integers as int."""
    out = []
    cur = None
    for line in text.splitlines():
        if line.startswith("."):
            if cur:
                out.append(cur)
            oid_text, _, rest = line.partition(" = ")
            cur = [parse_oid(oid_text), rest]
        elif cur is not None:
            cur[1] += " " + line
    if cur:
        out.append(cur)
    result = []
    for oid, rest in out:
        rest = rest.strip()
        if rest.startswith("No more variables left"):
            continue  # endOfMibView: the walk ran past the last registered subtree
        if rest.startswith("Hex-STRING:"):
            result.append((oid, bytes.fromhex(rest[len("Hex-STRING:"):].replace(" ", ""))))
        elif rest.startswith("STRING:"):
            s = rest[len("STRING:"):].strip()
            result.append((oid, s.strip('"').encode()))
        elif rest.startswith('""'):
            result.append((oid, b""))
        elif rest.startswith("INTEGER:"):
            result.append((oid, int(rest[len("INTEGER:"):].strip())))
        else:
            result.append((oid, rest))
    return result


def common_args(port, community="public", version="2c", extra=()):
    args = ["-v", version]
    if version in ("1", "2c"):
        args += ["-c", community]
    args += ["-On", "-Ox", "-Oe", "-r", "1", "-t", "3"] + list(extra) + ["udp:127.0.0.1:%d" % port]
    return args


def walk(port, subtree, bulk=True, max_rep=10, community="public", extra=()):
    tool = "snmpbulkwalk" if bulk else "snmpwalk"
    args = common_args(port, community, extra=extra)
    if bulk:
        args = ["-Cr%d" % max_rep] + args
    args.append(oid_str(subtree))
    rc, out, err = run_tool(tool, args)
    if rc != 0:
        raise RuntimeError("%s failed (%d): %s" % (tool, rc, err))
    return parse_tool_output(out)


def get(port, oids, community="public", tool="snmpget", extra=()):
    rc, out, err = run_tool(tool, common_args(port, community, extra=extra) + [oid_str(o) for o in oids])
    return rc, parse_tool_output(out), err


# --- pysnmp (an independent client) ------------------------------------------------------

def pysnmp_walk(port, subtree, community="public"):
    """Walks with GETNEXT through pysnmp; returns [(oid, value)] with bytes or int values."""
    from pysnmp.hlapi import (CommunityData, ContextData, ObjectIdentity, ObjectType, SnmpEngine,
                              UdpTransportTarget, nextCmd)
    from pysnmp.proto import rfc1902
    out = []
    for err_ind, err_stat, err_idx, var_binds in nextCmd(
            SnmpEngine(), CommunityData(community, mpModel=1), UdpTransportTarget(("127.0.0.1", port), timeout=3, retries=1),
            ContextData(), ObjectType(ObjectIdentity(oid_str(subtree)[1:])), lexicographicMode=False, lookupMib=False):
        if err_ind:
            raise RuntimeError(str(err_ind))
        if err_stat:
            raise RuntimeError(err_stat.prettyPrint())
        for name, val in var_binds:
            v = bytes(val) if isinstance(val, rfc1902.OctetString) else int(val)
            out.append((tuple(name), v))
    return out


def pysnmp_v3_get(port, oid, user, auth_key, priv_key, context=""):
    from pysnmp.hlapi import (ContextData, ObjectIdentity, ObjectType, SnmpEngine, UdpTransportTarget, UsmUserData,
                              getCmd, usmAesCfb128Protocol, usmHMACSHAAuthProtocol)
    err_ind, err_stat, _, var_binds = next(getCmd(
        SnmpEngine(), UsmUserData(user, auth_key, priv_key, authProtocol=usmHMACSHAAuthProtocol,
                                  privProtocol=usmAesCfb128Protocol),
        UdpTransportTarget(("127.0.0.1", port), timeout=3, retries=1), ContextData(contextName=context),
        ObjectType(ObjectIdentity(oid_str(oid)[1:])), lookupMib=False))
    return err_ind, err_stat, var_binds
