"""Notifications end to end: velmar-snmp-agent (master, AgentX subagent) and the snmpd bridge
send traps and informs to Net-SNMP's snmptrapd and to an independent pysnmp receiver when a
daemon starts or stops running, is enabled or disabled, appears or goes; flapping is held
down, loading and no-op reloads send nothing, and an unreachable inform receiver does not
slow the answering of requests.

Every receiver and agent listens on a free port of 127.0.0.1, with a private configuration;
every process is stopped by its id and every wait is bounded.
"""

import copy
import json
import os
import random
import re
import socket
import sys
import time
import unittest

import velmar_harness as h

SNMPTRAPD = os.environ.get("VELMAR_SNMPTRAPD", "/usr/sbin/snmptrapd")
SNMPD = os.environ.get("VELMAR_SNMPD", "/usr/sbin/snmpd")
BRIDGE = os.environ.get("VELMAR_DLMOD", "")
HERE = os.path.dirname(os.path.abspath(__file__))
MIBDIRS = ":".join([os.path.join(h.SOURCE_DIR, ".deps", "node_modules", "net-snmp", "lib", "mibs"),
                    os.path.join(h.SOURCE_DIR, "mib")])

NOTIFICATIONS = h.ROOT + (0,)
RUNNING_CHANGE, ENABLED_CHANGE, GONE = NOTIFICATIONS + (1,), NOTIFICATIONS + (2,), NOTIFICATIONS + (3,)
NAMES = {RUNNING_CHANGE: "velmarDaemonRunningChange", ENABLED_CHANGE: "velmarDaemonEnabledChange",
         GONE: "velmarDaemonGone"}
SYS_UPTIME = (1, 3, 6, 1, 2, 1, 1, 3, 0)
SNMP_TRAP_OID = (1, 3, 6, 1, 6, 3, 1, 1, 4, 1, 0)
V3_USER, V3_AUTH, V3_PRIV = "velmartrap", "trapauthpass", "trapprivpass"

BASE = {"daemons": {
    "bgpd": {"config": {"enabled": True, "options": {"asn": "65001"}}, "status": {"running": True, "data": {"pid": "1"}}},
    "ntpd": {"config": {"enabled": False}, "status": {"running": False}},
    "sshd": {"config": {"enabled": True}, "status": {"running": True}},
}}


def running_oid(name):
    return h.TABLES["running"][0] + (1, 2) + h.index_of(name)


def enabled_oid(name):
    return h.TABLES["enabled"][0] + (1, 2) + h.index_of(name)


def truth(b):
    return h.TRUE if b else h.FALSE


def running_changes_oid(name):
    return h.HISTORY + (1, h.HISTORY_COLUMNS["runningChanges"]) + h.index_of(name)


def data_value_oid(name, key):
    return h.TABLES["data"][0] + (1, 3) + h.index_of(name, key)


def _running_change_count(kind, changes):
    if kind == RUNNING_CHANGE and changes is None:
        raise ValueError("a running change carries the daemon's count of running changes: say which")
    return kind == RUNNING_CHANGE


def expected_varbinds(kind, name, enabled, running, changes=None, data=()):
    """What follows sysUpTime.0: snmpTrapOID.0, then the two flags in the MIB's OBJECTS order;
    for a running change then velmarDaemonRunningChanges and the chosen data values."""
    flags = [(running_oid(name), truth(running)), (enabled_oid(name), truth(enabled))]
    if kind == ENABLED_CHANGE:
        flags.reverse()
    extra = []
    if _running_change_count(kind, changes):
        extra = [(running_changes_oid(name), changes)] + [(data_value_oid(name, k), v) for k, v in data]
    return [(SNMP_TRAP_OID, kind)] + flags + extra


# --- snmptrapd ---------------------------------------------------------------------------

# With -F below, one line per notification: security information, then the varbinds by name.
TRAPD_LINE = re.compile(r"^NOTIFICATION (?P<sec>[^\t]*)\t(?P<vars>.*)$")
TRAPD_VAR = re.compile(r"^(?P<name>\S+) = (?P<value>.*)$")


class Trapd(h.Process):
    """Net-SNMP's snmptrapd in the foreground with a private configuration: logs every
    notification it accepts (v2c community public, v3 user V3_USER with authPriv) on standard
    output, one line each, names from our MIB."""

    def __init__(self, directory, port=None):
        self.port = port or h.free_port()
        conf = os.path.join(directory, "snmptrapd-%d.conf" % self.port)
        persistent = os.path.join(directory, "snmptrapd-%d" % self.port)
        os.makedirs(os.path.join(persistent, "cert_indexes"), exist_ok=True)
        with open(conf, "w", encoding="utf-8") as f:
            f.write("authCommunity log public\n"
                    "createUser %s SHA %s AES %s\n"
                    "authUser log %s priv\n" % (V3_USER, V3_AUTH, V3_PRIV, V3_USER))
        env = dict(os.environ)
        env.update(MIBS="", SNMP_PERSISTENT_DIR=persistent, SNMPCONFPATH=persistent, HOME=persistent)
        argv = [SNMPTRAPD, "-f", "-Lo", "-C", "-c", conf, "-M", MIBDIRS, "-m", "SNMPv2-MIB:VELMAR-DAEMON-MIB",
                "-F", "NOTIFICATION %P\t%v\n", "udp:127.0.0.1:%d" % self.port]
        super().__init__(argv, "NET-SNMP version", env=env)
        if not self.alive():
            raise RuntimeError("snmptrapd exited at start:\n" + self.output())

    def notifications(self):
        """[(security text, [(name, value text)])] in the order received."""
        out = []
        for line in list(self.stdout_lines):
            m = TRAPD_LINE.match(line)
            if not m:
                continue
            vars_ = []
            for part in m.group("vars").split("\t"):
                v = TRAPD_VAR.match(part)
                if v:
                    vars_.append((v.group("name"), v.group("value")))
            # Ours only: snmpd sends its own (coldStart) to the same sinks.
            if any(n == "SNMPv2-MIB::snmpTrapOID.0" and "VELMAR-DAEMON-MIB::" in v for n, v in vars_):
                out.append((m.group("sec"), vars_))
        return out


def trapd_named(kind, name, enabled, running, changes=None, data=()):
    """The varbinds as snmptrapd prints them with the MIB loaded (after sysUpTime.0)."""
    tv = lambda b: "INTEGER: true(1)" if b else "INTEGER: false(2)"
    flags = [('VELMAR-DAEMON-MIB::velmarDaemonRunning."%s"' % name, tv(running)),
             ('VELMAR-DAEMON-MIB::velmarDaemonEnabled."%s"' % name, tv(enabled))]
    if kind == ENABLED_CHANGE:
        flags.reverse()
    extra = []
    if _running_change_count(kind, changes):
        extra = [('VELMAR-DAEMON-MIB::velmarDaemonRunningChanges."%s"' % name, "Counter32: %d" % changes)]
        extra += [('VELMAR-DAEMON-MIB::velmarDaemonDataValue."%s"."%s"' % (name, k), 'STRING: %s' % v)
                  for k, v in data]
    return [("SNMPv2-MIB::snmpTrapOID.0", "OID: VELMAR-DAEMON-MIB::" + NAMES[kind])] + flags + extra


# --- the pysnmp receiver -----------------------------------------------------------------

class PyReceiver(h.Process):
    def __init__(self, port=None, v3=False):
        self.port = port or h.free_port()
        argv = ["/usr/bin/python3", os.path.join(HERE, "notify_receiver.py"), str(self.port)]
        if v3:
            argv += [V3_USER, V3_AUTH, V3_PRIV]
        super().__init__(argv, "ready")
        if not self.alive():
            raise RuntimeError("pysnmp receiver exited at start:\n" + self.output())

    def notifications(self):
        """[[(oid tuple, value)]] after sysUpTime.0, values as ints or OID tuples."""
        out = []
        for line in list(self.stdout_lines):
            if not line.startswith("{"):
                continue
            vbs = []
            for oid, kind, value in json.loads(line)["varbinds"]:
                vbs.append((h.parse_oid(oid), h.parse_oid(value) if kind == "OID" else value))
            out.append(vbs)
        return out


def wait_until(what, timeout, step=0.05):
    deadline = time.time() + timeout
    while time.time() < deadline:
        got = what()
        if got:
            return got
        time.sleep(step)
    return what()


def pysnmp_ok():
    try:
        import pysnmp  # noqa: F401
        return True
    except ImportError:
        return False


@unittest.skipUnless(os.access(SNMPTRAPD, os.X_OK), "snmptrapd is not installed (apt-get install snmptrapd)")
class NotifyTestBase(unittest.TestCase):
    def setUp(self):
        self.assertTrue(h.AGENT and os.path.exists(h.AGENT), "VELMAR_AGENT does not name the built agent")
        self.tmp = h.TempDir()
        self.addCleanup(self.tmp.cleanup)
        self.processes = []
        self.addCleanup(self._stop_all)
        self.state_file = self.tmp.file("state.json")
        self.state = copy.deepcopy(BASE)
        h.write_state(self.state_file, self.state)

    def _stop_all(self):
        problems = []
        for p in reversed(self.processes):
            rc = p.stop()
            if p.argv[0] == h.AGENT:
                # Our agent stops cleanly on SIGTERM, and the sanitizers (asan preset) found nothing.
                bad = [m for m in ("AddressSanitizer", "LeakSanitizer", "runtime error:") if m in p.stderr()]
                if rc != 0 or bad:
                    problems.append("agent exit %s %s:\n%s" % (rc, bad, p.stderr()[-4000:]))
        if problems:
            raise AssertionError("\n".join(problems))

    def keep(self, p):
        self.processes.append(p)
        return p

    def config(self, lines):
        path = self.tmp.file("agent-%d.conf" % len(self.processes))
        with open(path, "w", encoding="utf-8") as f:
            f.write("\n".join(["rocommunity public 127.0.0.1"] + list(lines)) + "\n")
        return path

    def start_agent(self, sinks, extra=()):
        return self.keep(h.Agent(self.state_file, ["--config", self.config(sinks)] + list(extra)))

    def change(self, mutate):
        mutate(self.state["daemons"])
        h.write_state(self.state_file, self.state)

    def wait_count(self, receiver, n, timeout=10.0):
        got = wait_until(lambda: len(receiver.notifications()) >= n and receiver.notifications(), timeout)
        self.assertGreaterEqual(len(got or []), n, "expected %d notifications; got:\n%s\n--- agent/receiver output:\n%s"
                                % (n, got, "\n".join(p.output() for p in self.processes)))
        return got


class MasterNotifyTest(NotifyTestBase):
    def test_v2c_traps_reach_snmptrapd_and_pysnmp_with_the_daemons_flags(self):
        trapd = self.keep(Trapd(self.tmp.path))
        recv = self.keep(PyReceiver()) if pysnmp_ok() else None
        sinks = ["trap2sink udp:127.0.0.1:%d public" % trapd.port]
        if recv:
            sinks.append("trap2sink udp:127.0.0.1:%d public" % recv.port)
        agent = self.start_agent(sinks)
        # Four kinds of change, each of a different daemon: all go out at once.
        steps = [
            (lambda d: d["bgpd"]["status"].update(running=False), (RUNNING_CHANGE, "bgpd", True, False, 1)),
            (lambda d: d["ntpd"]["config"].update(enabled=True), (ENABLED_CHANGE, "ntpd", True, False)),
            (lambda d: d.update(ospfd={"config": {"enabled": True}, "status": {"running": True}}),
             (RUNNING_CHANGE, "ospfd", True, True, 0)),   # new: its row starts at 0
            (lambda d: d.pop("sshd"), (GONE, "sshd", True, True)),
        ]
        for i, (mutate, expected) in enumerate(steps):
            self.change(mutate)
            got = self.wait_count(trapd, i + 1)
            sec, vars_ = got[i]
            self.assertIn("TRAP2, SNMP v2c, community public", sec)
            self.assertEqual(vars_[0][0], "SNMPv2-MIB::sysUpTime.0")
            self.assertEqual(vars_[1:], trapd_named(*expected), "notification %d" % (i + 1))
        if recv:
            got = self.wait_count(recv, len(steps))
            for i, (_, expected) in enumerate(steps):
                self.assertEqual(got[i][0][0], SYS_UPTIME)
                self.assertEqual(got[i][1:], expected_varbinds(*expected), "pysnmp, notification %d" % (i + 1))
        time.sleep(1.5)
        self.assertEqual(len(trapd.notifications()), len(steps), "nothing more than one per change")
        self.assertTrue(agent.alive())

    def test_v2c_and_v3_authpriv_informs_are_acknowledged(self):
        trapd = self.keep(Trapd(self.tmp.path))
        recv = self.keep(PyReceiver(v3=True)) if pysnmp_ok() else None
        sinks = ["informsink udp:127.0.0.1:%d public" % trapd.port,
                 "trapsess -v 3 -u %s -l authPriv -a SHA -A %s -x AES -X %s -Ci udp:127.0.0.1:%d"
                 % (V3_USER, V3_AUTH, V3_PRIV, trapd.port)]
        if recv:
            sinks.append("trapsess -v 3 -u %s -l authPriv -a SHA -A %s -x AES -X %s -Ci udp:127.0.0.1:%d"
                         % (V3_USER, V3_AUTH, V3_PRIV, recv.port))
        agent = self.start_agent(sinks, ["--debug", "trap"])
        self.change(lambda d: d["bgpd"]["config"].update(enabled=False))
        got = self.wait_count(trapd, 2)
        secs = sorted(sec for sec, _ in got)
        self.assertTrue(secs[0].startswith("INFORM, SNMP v2c, community public"), secs)
        self.assertTrue(secs[1].startswith("INFORM, SNMP v3, user %s" % V3_USER), secs)
        for _, vars_ in got:
            self.assertEqual(vars_[1:], trapd_named(ENABLED_CHANGE, "bgpd", False, True))
        if recv:
            got = self.wait_count(recv, 1)
            self.assertEqual(got[0][1:], expected_varbinds(ENABLED_CHANGE, "bgpd", False, True))
        # Each receiver answered: the agent logs every response, and nothing is sent again.
        expected_acks = 3 if recv else 2
        acks = wait_until(lambda: len([l for l in agent.stderr_lines if "received the inform response" in l])
                          >= expected_acks, 10.0)
        self.assertTrue(acks, "inform responses:\n" + agent.stderr())
        time.sleep(2.5)   # beyond the first retransmission time of the library (1 s)
        self.assertEqual(len(trapd.notifications()), 2, "an acknowledged inform is not sent again")
        if recv:
            self.assertEqual(len(recv.notifications()), 1)

    def test_initial_load_and_reloads_without_flag_changes_send_nothing(self):
        trapd = self.keep(Trapd(self.tmp.path))
        agent = self.start_agent(["trap2sink udp:127.0.0.1:%d public" % trapd.port], ["--notify-holddown", "200"])
        time.sleep(1.5)
        self.assertEqual(trapd.notifications(), [], "the initial load")
        # The same state again, then a change of options and data only.
        h.write_state(self.state_file, self.state)
        time.sleep(0.5)
        mark = len(agent.stderr_lines)
        self.change(lambda d: (d["bgpd"]["config"]["options"].update(asn="65002"),
                               d["bgpd"]["status"]["data"].update(pid="2")))
        self.assertTrue(agent.wait_stderr("applied", timeout=5.0, start=mark), agent.stderr())
        time.sleep(1.0)
        self.assertEqual(trapd.notifications(), [], "reloads that change no flag")
        # The receiver does hear a real change.
        self.change(lambda d: d["ntpd"]["status"].update(running=True))
        got = self.wait_count(trapd, 1)
        self.assertEqual(got[0][1][1:], trapd_named(RUNNING_CHANGE, "ntpd", False, True, 1))

    def test_bad_hold_down_or_rate_values_are_refused_naming_the_option(self):
        for option, value in (("--notify-rate", "0"), ("--notify-rate", "many"), ("--notify-holddown", "-1")):
            p = h.subprocess.run([h.AGENT, "--state", self.state_file, option, value], stdout=h.subprocess.PIPE,
                                 stderr=h.subprocess.PIPE, text=True, timeout=30)
            self.assertEqual(p.returncode, 2, (option, value, p.stderr))
            self.assertIn(option, p.stderr)
            self.assertIn(value, p.stderr)

    def test_a_daemon_flipped_100_times_in_10_seconds_yields_at_most_11_with_its_final_state_last(self):
        trapd = self.keep(Trapd(self.tmp.path))
        agent = self.start_agent(["trap2sink udp:127.0.0.1:%d public" % trapd.port])
        running = True
        start = time.time()
        counted = h.HISTORY + (1, h.HISTORY_COLUMNS["runningChanges"]) + h.index_of("bgpd")
        for i in range(100):
            running = not running
            self.change(lambda d: d["bgpd"]["status"].update(running=running))
            # Each flip applied before the next: the history has counted it.
            self.assertTrue(wait_until(lambda: h.get(agent.port, [counted])[1] == [(counted, "Counter32: %d" % (i + 1))],
                                       5.0, step=0.01), "flip %d not applied" % (i + 1))
            time.sleep(max(0.0, start + (i + 1) * 0.1 - time.time()))
        final = running
        # The last window ends at most a hold-down (1 s) after the last change.
        time.sleep(2.5)
        got = trapd.notifications()
        self.assertGreaterEqual(len(got), 2, agent.stderr())
        self.assertLessEqual(len(got), 11, "%d notifications for 100 flips in 10 s" % len(got))
        for _, vars_ in got:
            self.assertEqual(vars_[1][1], "OID: VELMAR-DAEMON-MIB::velmarDaemonRunningChange")
        last = got[-1][1][1:]
        self.assertEqual(last[:3], trapd_named(RUNNING_CHANGE, "bgpd", True, final, 0)[:3], "the last carries the final state")
        # ...and the count as it was when it was sent: flips after it that came back to the
        # same state sent nothing, so it may be below 100, but only by an even number.
        name, value = last[3]
        self.assertEqual(name, 'VELMAR-DAEMON-MIB::velmarDaemonRunningChanges."bgpd"')
        sent_count = int(value.split(":")[1])
        self.assertTrue(0 < sent_count <= 100 and sent_count % 2 == 0, value)
        # The counter has every flip: a poller sees 100 changes where the notifications said fewer.
        self.assertEqual(h.get(agent.port, [counted])[1], [(counted, "Counter32: 100")])

    def test_a_storm_beyond_the_budget_is_queued_and_every_final_state_arrives(self):
        trapd = self.keep(Trapd(self.tmp.path))
        self.state = {"daemons": {"d%03d" % i: {"config": {"enabled": True}, "status": {"running": True}} for i in range(60)}}
        h.write_state(self.state_file, self.state)
        agent = self.start_agent(["trap2sink udp:127.0.0.1:%d public" % trapd.port], ["--notify-rate", "20"])
        self.change(lambda d: [x["status"].update(running=False) for x in d.values()])
        line = agent.wait_stderr("notifications queued", timeout=5.0)
        self.assertTrue(line, agent.stderr())
        self.assertRegex(line, r"\b\d+ notifications queued")
        got = self.wait_count(trapd, 60, timeout=15.0)
        self.assertEqual(sorted(v[2][0] for _, v in got),
                         sorted('VELMAR-DAEMON-MIB::velmarDaemonRunning."d%03d"' % i for i in range(60)))
        for _, vars_ in got:
            self.assertEqual(vars_[2][1], "INTEGER: false(2)")


# --- GET latency while informs to a closed port wait -------------------------------------

def _get_message(request_id, oid):
    varbind = h._ber(0x30, h._ber_oid(oid) + b"\x05\x00")
    pdu = h._ber(0xA0, h._ber_int(request_id) + h._ber_int(0) + h._ber_int(0) + h._ber(0x30, varbind))
    return h._ber(0x30, h._ber_int(1) + h._ber(0x04, b"public") + pdu)


def get_latencies(port, oid, count, timeout=2.0):
    """Seconds each of count GETs took to be answered, one after another."""
    out = []
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.settimeout(timeout)
        s.connect(("127.0.0.1", port))
        rid = random.randint(1, 1 << 20)
        for _ in range(count):
            rid += 1
            msg = _get_message(rid, oid)
            marker = h._ber_int(rid)
            t0 = time.perf_counter()
            s.send(msg)
            while True:
                reply = s.recv(65535)
                if marker in reply:
                    break
            out.append(time.perf_counter() - t0)
    return out


def p99(samples):
    s = sorted(samples)
    return s[min(len(s) - 1, int(len(s) * 0.99))]


class UnreachableReceiverTest(NotifyTestBase):
    def test_get_latency_while_informs_to_a_closed_port_wait_stays_within_twice_idle(self):
        n = 300
        self.state = {"daemons": {"d%03d" % i: {"config": {"enabled": True}, "status": {"running": True}} for i in range(n)}}
        h.write_state(self.state_file, self.state)
        closed = h.free_port()   # nothing listens there
        agent = self.start_agent(["informsink udp:127.0.0.1:%d public" % closed], ["--notify-rate", "10"])
        target = running_oid("d000")
        get_latencies(agent.port, target, 50)   # warm up
        # On a shared machine one round can be disturbed by others: the property holds if any
        # of three rounds shows it (a loop blocked by a send would fail them all).
        results = []
        for round_ in range(3):
            idle = get_latencies(agent.port, target, 400)
            flip = round_ % 2 == 0
            mark = len(agent.stderr_lines)
            self.change(lambda d: [x["status"].update(running=not flip) for x in d.values()])
            self.assertTrue(agent.wait_stderr("notifications queued", timeout=5.0, start=mark), agent.stderr())
            busy = get_latencies(agent.port, target, 400)
            still = agent.wait_stderr("notifications queued", timeout=1.5, start=len(agent.stderr_lines) - 1)
            ratio = p99(busy) / p99(idle)
            results.append((p99(idle) * 1e3, p99(busy) * 1e3, ratio, bool(still)))
            print("round %d: idle p99 %.3f ms, queued p99 %.3f ms, ratio %.2f, still queued after: %s"
                  % ((round_ + 1,) + results[-1]), file=sys.stderr)
            if ratio <= 2.0:
                break
        self.assertTrue(any(r[2] <= 2.0 for r in results), "GET p99 while notifications wait (ms): %s" % results)
        self.assertTrue(agent.alive())


# --- through snmpd: AgentX master and the dlmod bridge ----------------------------------

@unittest.skipUnless(os.access(SNMPD, os.X_OK), "Debian's snmpd is not installed")
class SnmpdNotifyTest(NotifyTestBase):
    def test_a_subagent_notifies_through_its_agentx_master(self):
        trapd = self.keep(Trapd(self.tmp.path))
        sock = self.tmp.file("agentx.sock")
        self.keep(h.Snmpd(self.tmp.path, sock, extra_conf=["trap2sink udp:127.0.0.1:%d public" % trapd.port]))
        agent = self.keep(h.Process([h.AGENT, "--agentx", sock, "--agentx-ping", "1", "--state", self.state_file],
                                    "serving VELMAR-DAEMON-MIB"))
        # Served through the master: the subagent is registered.
        self.assertTrue(wait_until(lambda: h.walk(self.processes[1].port, h.TABLES["running"][0]), 10.0))
        self.change(lambda d: d["sshd"]["status"].update(running=False))
        got = self.wait_count(trapd, 1)
        self.assertEqual(got[0][1][1:], trapd_named(RUNNING_CHANGE, "sshd", True, False, 1))
        self.assertTrue(agent.alive())

    def test_the_dlmod_bridge_notifies_through_snmpds_sinks(self):
        self.assertTrue(BRIDGE and os.path.exists(BRIDGE), "VELMAR_DLMOD does not name the built bridge")
        import test_dlmod
        trapd = self.keep(Trapd(self.tmp.path))
        snmpd = self.keep(test_dlmod.Snmpd(self.tmp.path, ["trap2sink udp:127.0.0.1:%d public" % trapd.port]
                                           + test_dlmod.dlmod_lines(self.state_file)))
        self.assertTrue(snmpd.wait_log("serving VELMAR-DAEMON-MIB", timeout=10.0), snmpd.log())
        time.sleep(1.0)
        self.assertEqual(trapd.notifications(), [], "the initial load sends nothing")
        self.change(lambda d: d["bgpd"]["status"].update(running=False))
        got = self.wait_count(trapd, 1)
        self.assertEqual(got[0][1][1:], trapd_named(RUNNING_CHANGE, "bgpd", True, False, 1))
        self.assertEqual(snmpd.trouble(), [])

    def test_the_dlmod_bridge_takes_hold_down_and_rate_from_snmpd_conf(self):
        import test_dlmod
        trapd = self.keep(Trapd(self.tmp.path))
        snmpd = self.keep(test_dlmod.Snmpd(self.tmp.path, ["trap2sink udp:127.0.0.1:%d public" % trapd.port]
                                           + test_dlmod.dlmod_lines(self.state_file, "velmarNotifyHolddown 4000",
                                                                    "velmarNotifyRate 50")))
        self.assertTrue(snmpd.wait_log("serving VELMAR-DAEMON-MIB", timeout=10.0), snmpd.log())
        self.change(lambda d: d["bgpd"]["status"].update(running=False))
        self.wait_count(trapd, 1)
        self.change(lambda d: d["bgpd"]["status"].update(running=True))
        # Within the 4 s hold-down (the default would have sent it after 1 s) nothing more...
        time.sleep(2.0)
        self.assertEqual(len(trapd.notifications()), 1, trapd.notifications())
        # ...and at its end the final state.
        got = self.wait_count(trapd, 2)
        self.assertEqual(got[1][1][1:], trapd_named(RUNNING_CHANGE, "bgpd", True, True, 2))
        self.assertEqual(snmpd.trouble(), [])

    def test_the_dlmod_bridge_refuses_a_bad_rate_naming_it(self):
        import test_dlmod
        snmpd = self.keep(test_dlmod.Snmpd(self.tmp.path, test_dlmod.dlmod_lines(self.state_file, "velmarNotifyRate 0")))
        line = snmpd.wait_log("velmarNotifyRate 0: not a whole number from 1 to 1000000", timeout=10.0)
        self.assertIsNotNone(line, snmpd.log())
        self.assertIn(snmpd.config, line)


if __name__ == "__main__":
    unittest.main()
