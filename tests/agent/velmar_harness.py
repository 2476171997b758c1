"""Test harness: starts velmar-snmp-agent (or the test host) on free loopback ports,
queries it with the Net-SNMP command-line tools and with pysnmp, and derives the expected
rows of the four tables from a state file independently of the agent's own code.

Every process started here is stopped by process id; every wait is bounded.

Clean-up has one style: a test case derives from AgentCase (a temporary directory and a
state file per test, every process it starts stopped at the end), and code outside a test
case uses the context managers:

    with h.TempDir() as tmp, h.Agent(tmp.file("state.json")) as agent:
        ...

free_port and mixed_state serve bench/ too.
"""

import contextlib
import json
import os
import random
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

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
# The feed's health scalars (velmarDaemonFeed), served beside the tables by the agent and the
# dlmod bridge. A walk of ROOT with walk() or pysnmp_walk() leaves them out: it is the tables.
FEED = ROOT + (4,)
FEED_OBJECTS = {
    "source": 1, "state": 2, "changeAge": 3, "readAge": 4, "lastChange": 5, "lastRead": 6, "lastRefusal": 7,
    "daemons": 8, "rows": 9, "reloads": 10, "refusals": 11, "skippedNow": 12, "skipped": 13, "lastSkip": 14,
}
FEED_STATES = {"ok": 1, "refused": 2, "gone": 3, "busLost": 4, "notLoaded": 5}
# The daemon history (velmarDaemonHistoryTable), also served beside the four tables and also
# left out of a walk of ROOT by walk() and pysnmp_walk().
HISTORY = ROOT + (2, 3)
HISTORY_COLUMNS = {"runningChanges": 2, "enabledChanges": 3, "lastRunningChange": 4, "lastEnabledChange": 5,
                   "lastRunningChangeTime": 6}
BESIDE = (FEED, HISTORY)


def _beside(oid):
    return any(tuple(oid[:len(b)]) == b for b in BESIDE)


def without_feed(rows):
    """rows ([(oid, value)]) without the feed's health scalars and the history table."""
    return [r for r in rows if not _beside(r[0])]


def without_feed_text(out):
    """snmpwalk -On output without the lines of the feed's health scalars and the history."""
    prefixes = tuple(oid_str(b) + "." for b in BESIDE)
    kept, keep = [], True
    for line in out.splitlines(True):
        if line.startswith("."):
            keep = not line.startswith(prefixes)
        if keep:   # a value's continuation lines go with its first line
            kept.append(line)
    return "".join(kept)

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
    """A port of host that nothing is bound to now (UDP unless kind says otherwise)."""
    family = socket.AF_INET6 if ":" in host else socket.AF_INET
    with socket.socket(family, kind) as s:
        s.bind((host, 0))
        return s.getsockname()[1]


def mixed_state(rng, daemons=40, key_bytes=20, value_chars=30, keys=6, edge_value=10240):
    """A state file's content with names and keys of mixed lengths and bytes, so that
    shorter-first order matters, and the edge lengths: a 32-byte name, a 64-byte key, an
    edge_value-byte value and an empty key. rng: a random.Random or a seed."""
    if not isinstance(rng, random.Random):
        rng = random.Random(rng)
    alphabet = ["a", "b", "z", "A", "0", "-", "_", ".", "\u0001", "\u007f", "\u00e9", "\u20ac"]

    def word(lo, hi, limit):
        while True:
            w = "".join(rng.choice(alphabet) for _ in range(rng.randint(lo, hi)))
            if 1 <= len(w.encode()) <= limit:
                return w

    state = {"daemons": {}}
    for _ in range(daemons):
        name = word(1, 12, 32)
        d = {}
        if rng.random() < 0.85:
            d["config"] = {"enabled": rng.random() < 0.6,
                           "options": {word(0, key_bytes, 64): word(1, value_chars, 10240)
                                       for _ in range(rng.randint(0, keys))}}
        if rng.random() < 0.85:
            d["status"] = {"running": rng.random() < 0.5,
                           "data": {word(0, key_bytes, 64): word(1, value_chars, 10240)
                                    for _ in range(rng.randint(0, keys))}}
        state["daemons"][name] = d
    state["daemons"]["n" * 32] = {"config": {"enabled": True, "options": {"k" * 64: "v" * edge_value, "": "empty key"}},
                                  "status": {"running": True, "data": {"pid": "1"}}}
    return state


def write_state(path, state):
    tmp = path + ".tmp"
    with open(tmp, "w", encoding="utf-8") as f:
        json.dump(state, f)
    os.rename(tmp, path)


class Process:
    """A server process started with a ready line on standard output."""

    def __init__(self, argv, ready_text, env=None, timeout=15.0, ready=None, cwd=None):
        """With ready_text None, ready is a callable polled until it returns true (for
        servers that print nothing when they are ready)."""
        self.argv = argv
        self.stderr_lines = []
        self.stdout_lines = []
        self.proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                                     env=env, cwd=cwd, text=True, errors="replace")
        self._ready = threading.Event()
        self._threads = [threading.Thread(target=self._pump, args=(self.proc.stdout, self.stdout_lines, ready_text), daemon=True),
                         threading.Thread(target=self._pump, args=(self.proc.stderr, self.stderr_lines, ready_text), daemon=True)]
        for t in self._threads:
            t.start()
        if ready_text is None and ready is not None:
            if not self._poll_ready(ready, timeout):
                self.stop()
                raise RuntimeError("%s did not get ready in %.0f s; output:\n%s" % (argv[0], timeout, self.output()))
        elif not self._ready.wait(timeout):
            self.stop()
            raise RuntimeError("%s did not get ready in %.0f s; stderr:\n%s" % (argv[0], timeout, self.stderr()))

    def _poll_ready(self, ready, timeout):
        deadline = time.time() + timeout
        while time.time() < deadline:
            if self.proc.poll() is not None:
                return False
            if ready():
                return True
            time.sleep(0.05)
        return False

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

    def output(self):
        """Standard output, then standard error."""
        return "\n".join(self.stdout_lines + self.stderr_lines)

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

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.stop()
        return False


class Agent(Process):
    """velmar-snmp-agent in master mode on a free UDP port of 127.0.0.1."""

    def __init__(self, state_file, extra=(), port=None, binary=None, listen=None, env=None, cwd=None):
        self.port = port or free_port()
        self.listen = listen or ["udp:127.0.0.1:%d" % self.port]
        argv = [binary or AGENT, "--state", state_file]
        for l in self.listen:
            argv += ["--listen", l]
        argv += list(extra)
        super().__init__(argv, "serving VELMAR-DAEMON-MIB", env=env, cwd=cwd)


SNMPD = os.environ.get("VELMAR_SNMPD", "/usr/sbin/snmpd")


class Snmpd(Process):
    """Net-SNMP's snmpd as AgentX master on a free UDP port of 127.0.0.1, with a private
    configuration and persistent directory inside `directory`.

    It serves our subtree only, read-only to `community` from 127.0.0.1, and initialises
    only the modules it needs for that (`modules`, snmpd's -I list), so that none of its own
    MIB modules answers inside or beside the walks.  It prints no ready line: it is ready when
    its UDP port answers, which it opens after the AgentX socket.  Its log (-Lo) is on standard
    output: output() returns it.
    """

    def __init__(self, directory, agentx, port=None, community="public", modules="agentx,vacm_conf",
                 extra_conf=(), timeout=15.0):
        self.port = port or free_port()
        self.agentx = agentx
        self.config = os.path.join(directory, "snmpd-%d.conf" % self.port)
        persistent = os.path.join(directory, "snmpd-persistent")
        os.makedirs(persistent, exist_ok=True)
        lines = ["master agentx",
                 "agentXSocket %s" % agentx,
                 "agentXPerms 0660 0700",
                 "agentXTimeout 2",
                 "agentXRetries 2",
                 "view velmar included %s" % oid_str(ROOT),
                 "rocommunity %s 127.0.0.1 -V velmar" % community,
                 "dontLogTCPWrappersConnects yes"] + list(extra_conf)
        with open(self.config, "w", encoding="utf-8") as f:
            f.write("\n".join(lines) + "\n")
        env = dict(os.environ)
        env.update(MIBS="", SNMP_PERSISTENT_DIR=persistent, SNMPCONFPATH=directory, HOME=directory)
        argv = [SNMPD, "-f", "-Lo", "-C", "-c", self.config, "-I", modules, "udp:127.0.0.1:%d" % self.port]
        super().__init__(argv, None, env=env, timeout=timeout, ready=lambda: udp_answers(self.port, community))


def _ber(tag, payload):
    n = len(payload)
    if n < 0x80:
        head = bytes([n])
    else:
        size = n.to_bytes((n.bit_length() + 7) // 8, "big")
        head = bytes([0x80 | len(size)]) + size
    return bytes([tag]) + head + payload


def _ber_int(v):
    return _ber(0x02, v.to_bytes(max(1, (v.bit_length() + 8) // 8), "big", signed=True))


def _ber_oid(oid):
    out = bytearray([40 * oid[0] + oid[1]])
    for x in oid[2:]:
        chunk = [x & 0x7F]
        x >>= 7
        while x:
            chunk.append(0x80 | (x & 0x7F))
            x >>= 7
        out.extend(reversed(chunk))
    return _ber(0x06, bytes(out))


def udp_answers(port, community="public", timeout=0.2):
    """True if an SNMPv2c GET sent to 127.0.0.1:port gets any answer within timeout."""
    varbind = _ber(0x30, _ber_oid(ROOT) + b"\x05\x00")
    pdu = _ber(0xA0, _ber_int(0x5EED) + _ber_int(0) + _ber_int(0) + _ber(0x30, varbind))
    message = _ber(0x30, _ber_int(1) + _ber(0x04, community.encode()) + pdu)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.settimeout(timeout)
        try:
            s.sendto(message, ("127.0.0.1", port))
            return len(s.recv(65535)) > 0
        except OSError:  # timeout, or refused while nothing listens yet
            return False


def _ber_read(data, pos):
    """(tag, payload, next position) of the BER element at pos (definite lengths only)."""
    tag, n = data[pos], data[pos + 1]
    pos += 2
    if n & 0x80:
        size = n & 0x7F
        n = int.from_bytes(data[pos:pos + size], "big")
        pos += size
    return tag, data[pos:pos + n], pos + n


def response_status(answer):
    """(error status, number of varbinds) of a v1/v2c response message."""
    _, msg, _ = _ber_read(answer, 0)
    _, _, at = _ber_read(msg, 0)          # version
    _, _, at = _ber_read(msg, at)         # community
    _, pdu, _ = _ber_read(msg, at)
    _, _, at = _ber_read(pdu, 0)          # request id
    _, status, at = _ber_read(pdu, at)
    _, _, at = _ber_read(pdu, at)         # error index
    _, varbinds, _ = _ber_read(pdu, at)
    count, at = 0, 0
    while at < len(varbinds):
        _, _, at = _ber_read(varbinds, at)
        count += 1
    return int.from_bytes(status, "big", signed=True), count


def v3_discover(port, timeout=2.0):
    """(engine ID, engine boots, engine time) that the agent on 127.0.0.1:port reports to an
    SNMPv3 discovery request (RFC 3414 4: an unauthenticated, reportable request with an
    empty engine ID, answered by a Report)."""
    usm = _ber(0x30, _ber(0x04, b"") + _ber_int(0) + _ber_int(0) + _ber(0x04, b"") + _ber(0x04, b"") + _ber(0x04, b""))
    header = _ber(0x30, _ber_int(0x5EED) + _ber_int(65507) + _ber(0x04, b"\x04") + _ber_int(3))
    pdu = _ber(0xA0, _ber_int(0x5EED) + _ber_int(0) + _ber_int(0) + _ber(0x30, b""))
    scoped = _ber(0x30, _ber(0x04, b"") + _ber(0x04, b"") + pdu)
    message = _ber(0x30, _ber_int(3) + header + _ber(0x04, usm) + scoped)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.settimeout(timeout)
        s.sendto(message, ("127.0.0.1", port))
        reply = s.recv(65535)
    _, body, _ = _ber_read(reply, 0)
    _, _, pos = _ber_read(body, 0)              # msgVersion
    _, _, pos = _ber_read(body, pos)            # msgGlobalData
    _, params, _ = _ber_read(body, pos)         # msgSecurityParameters
    _, seq, _ = _ber_read(params, 0)
    _, engine_id, pos = _ber_read(seq, 0)
    _, boots, pos = _ber_read(seq, pos)
    _, etime, pos = _ber_read(seq, pos)
    return bytes(engine_id), int.from_bytes(boots, "big"), int.from_bytes(etime, "big")


class TempDir:
    """A temporary directory, removed with everything in it by cleanup() or at the end of
    a with block."""

    def __init__(self):
        self.path = tempfile.mkdtemp(prefix="velmar-test-")

    def file(self, name):
        return os.path.join(self.path, name)

    def cleanup(self):
        shutil.rmtree(self.path, ignore_errors=True)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.cleanup()
        return False


@contextlib.contextmanager
def stopping(process):
    """Any started thing with a stop() (a Process, a receiver): stopped at the end of the block."""
    try:
        yield process
    finally:
        process.stop()


class AgentCase(unittest.TestCase):
    """The base of agent test cases: each test gets a temporary directory (self.tmp) and,
    when the class names a STATE, a state file holding it (self.state); whatever it starts
    through started() or start_agent() is stopped at its end, the directory removed after."""

    STATE = None

    def setUp(self):
        super().setUp()
        self.tmp = TempDir()
        self.addCleanup(self.tmp.cleanup)
        self.state = self.tmp.file("state.json")
        if self.STATE is not None:
            write_state(self.state, self.STATE)

    def started(self, process):
        """process, stopped at the end of the test (before the directory goes)."""
        self.addCleanup(process.stop)
        return process

    def start_agent(self, extra=(), env=None, state=None, **kwargs):
        return self.started(Agent(state or self.state, extra=extra, env=env, **kwargs))

    def config(self, text, name="access.conf"):
        """A file of the temporary directory holding text; its path."""
        path = self.tmp.file(name)
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)
        return path


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
    rows = parse_tool_output(out)
    # An empty subtree followed by others: the tool, having found nothing inside, GETs the
    # subtree's own OID. Nothing is there.
    if rows == [(tuple(subtree), "No Such Object available on this agent at this OID")]:
        rows = []
    return without_feed(rows) if tuple(subtree) == ROOT else rows


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
    return without_feed(out) if tuple(subtree) == ROOT else out


def feed_health(port, community="public"):
    """The feed's health scalars by name (FEED_OBJECTS): texts and times as bytes, the rest int."""
    rc, out, err = run_tool("snmpget", common_args(port, community) +
                            [oid_str(FEED + (n, 0)) for n in FEED_OBJECTS.values()])
    if rc != 0:
        raise RuntimeError("snmpget failed (%d): %s" % (rc, err))
    by_oid = {}
    for oid, value in parse_tool_output(out):
        if isinstance(value, str):
            kind, _, number = value.partition(":")
            if kind not in ("Gauge32", "Counter32"):
                raise RuntimeError("unexpected value for %s: %s" % (oid_str(oid), value))
            value = int(number)
        by_oid[oid] = value
    return {name: by_oid[FEED + (n, 0)] for name, n in FEED_OBJECTS.items()}


def pysnmp_v3_get(port, oid, user, auth_key, priv_key, context=""):
    from pysnmp.hlapi import (ContextData, ObjectIdentity, ObjectType, SnmpEngine, UdpTransportTarget, UsmUserData,
                              getCmd, usmAesCfb128Protocol, usmHMACSHAAuthProtocol)
    err_ind, err_stat, _, var_binds = next(getCmd(
        SnmpEngine(), UsmUserData(user, auth_key, priv_key, authProtocol=usmHMACSHAAuthProtocol,
                                  privProtocol=usmAesCfb128Protocol),
        UdpTransportTarget(("127.0.0.1", port), timeout=3, retries=1), ContextData(contextName=context),
        ObjectType(ObjectIdentity(oid_str(oid)[1:])), lookupMib=False))
    return err_ind, err_stat, var_binds


# Debian's libnetsnmp 5.9.3 leaks the peer address it allocates for each read of a Unix-domain
# socket when that read fails (as it does with ECONNRESET once a master dies with our answer
# still unread): one struct sockaddr_un, 110 bytes, from calloc, per failed read.  Under
# AddressSanitizer that leak makes the agent's exit code 1; it is accepted when it is the only
# thing the sanitizers report.
LIBRARY_LEAK_SIZE = 110
LEAK_BLOCK = re.compile(r"^(Direct|Indirect) leak of (\d+) byte\(s\) in (\d+) object\(s\) allocated from:\n"
                        r"((?:[ \t]+#\d+ [^\n]*(?:\n|$))*)", re.M)


def sanitizer_problems(stderr):
    """What the sanitizers reported in stderr apart from the library's leak above: a list of texts."""
    problems = []
    for marker in ("ERROR: AddressSanitizer", "runtime error:", "ERROR: UndefinedBehaviorSanitizer"):
        if marker in stderr:
            problems.append(marker)
    for m in LEAK_BLOCK.finditer(stderr):
        kind, size, count, frames = m.group(1), int(m.group(2)), int(m.group(3)), m.group(4).splitlines()
        known = (kind == "Direct" and size == LIBRARY_LEAK_SIZE * count and len(frames) >= 2
                 and "calloc" in frames[0] and "libnetsnmp.so" in frames[1])
        if not known:
            problems.append(m.group(0))
    if "LeakSanitizer" in stderr and not LEAK_BLOCK.search(stderr):
        problems.append("unparsed leak report")
    return problems


def exited_clean(proc, stderr):
    """True when proc exited 0, or 1 with nothing from the sanitizers but the library's known leak."""
    if proc.returncode == 0:
        return True
    return proc.returncode == 1 and "LeakSanitizer" in stderr and sanitizer_problems(stderr) == []


def sanitized(binary=None):
    """True when binary (the agent under test by default) is built with AddressSanitizer."""
    try:
        libs = subprocess.run(["ldd", binary or AGENT], capture_output=True, text=True, timeout=30).stdout
    except (OSError, subprocess.SubprocessError):
        return False
    return "libasan" in libs


def flag_oid(table, name):
    """The value instance of a flag table's row for daemon name."""
    sub, col, _ = TABLES[table]
    return sub + (1, col) + index_of(name)


def value_oid(table, name, key):
    """The value instance of an option or data table's row (name, key)."""
    sub, col, _ = TABLES[table]
    return sub + (1, col) + index_of(name, key)


def get_one(port, oid):
    """The value of one object, or None when the agent has no such row."""
    rc, rows, err = get(port, [oid])
    if rc != 0 or not rows or not isinstance(rows[0][1], (int, bytes)):
        return None
    return rows[0][1]


def history_oid(name, column="runningChanges"):
    """The instance of a history table column for daemon name."""
    return HISTORY + (1, HISTORY_COLUMNS[column]) + index_of(name)


def counter(port, oid):
    """The value of a Counter32 object as an int, or None when the agent has no such row."""
    rc, rows, err = get(port, [oid])
    if rc != 0 or not rows or not str(rows[0][1]).startswith("Counter32:"):
        return None
    return int(rows[0][1].split(":")[1])


def within(port, oid, wanted, limit=1.0, since=None):
    """Polls a GET of oid until it reads wanted (None: no row; a callable: a test of the
    value) or limit seconds pass since `since` (default: now); the seconds it took, or None."""
    start = since if since is not None else time.monotonic()
    while True:
        got = get_one(port, oid)
        if (wanted(got) if callable(wanted) else got == wanted):
            return time.monotonic() - start
        if time.monotonic() - start > limit:
            return None
        time.sleep(0.02)
