"""The daemon history over SNMP (velmarDaemonHistoryTable): velmar-snmp-agent serving a state
file that is rewritten, each rewrite applied before the next, and read back with the Net-SNMP
tools: counts of running and enabled changes, their TimeStamps and the DateAndTime of the last
running change; a row that appears at zero and goes with its daemon; rewrites that change no
flag count nothing; nothing in the table can be set. The dlmod bridge and the AgentX
subagent serve the same table."""

import copy
import os
import time
import unittest

import velmar_harness as h

BASE = {"daemons": {
    "bgpd": {"config": {"enabled": True, "options": {"asn": "65001"}}, "status": {"running": True, "data": {"pid": "1"}}},
    "ntpd": {"config": {"enabled": False}, "status": {"running": False}},
    "sshd": {"config": {"enabled": True}, "status": {"running": True}},
}}
TIMEOUT = 10.0
COL = h.HISTORY_COLUMNS
SYS_UPTIME = (1, 3, 6, 1, 2, 1, 1, 3, 0)


def instance(column, name):
    return h.HISTORY + (1, COL[column]) + h.index_of(name)


def number(value):
    """The number of a tool's "Counter32: 5" or "Timeticks: (123) 0:00:01.23"."""
    kind, _, rest = value.partition(":")
    rest = rest.strip()
    if kind == "Timeticks":
        return int(rest[1:rest.index(")")])
    return int(rest)


def wait_until(what, timeout=TIMEOUT, step=0.05):
    deadline = time.time() + timeout
    while time.time() < deadline:
        got = what()
        if got:
            return got
        time.sleep(step)
    return what()


class HistoryReader:
    """Reads one daemon's history row from an agent's port."""

    def __init__(self, port, community="public"):
        self.port = port
        self.community = community

    def row(self, name):
        """{column: value}: numbers for counters and TimeStamps, bytes for the DateAndTime, and
        None for an instance the agent does not have."""
        rc, got, err = h.get(self.port, [instance(c, name) for c in COL], community=self.community)
        if rc != 0:
            raise RuntimeError("snmpget failed (%d): %s" % (rc, err))
        by_oid = dict(got)
        out = {}
        for c in COL:
            v = by_oid.get(instance(c, name))
            if isinstance(v, str) and v.startswith("No Such Instance"):
                out[c] = None
            elif isinstance(v, str):
                out[c] = number(v)
            else:
                out[c] = v
        return out

    def count(self, name):
        return self.row(name)["runningChanges"]


class AgentHistoryTest(unittest.TestCase):
    def setUp(self):
        self.assertTrue(h.AGENT and os.path.exists(h.AGENT), "VELMAR_AGENT does not name the built agent")
        self.tmp = h.TempDir()
        self.addCleanup(self.tmp.cleanup)
        self.path = self.tmp.file("state.json")
        self.state = copy.deepcopy(BASE)
        h.write_state(self.path, self.state)

    def start(self, extra=()):
        agent = h.Agent(self.path, list(extra))
        self.addCleanup(agent.stop)
        return agent, HistoryReader(agent.port)

    def rewrite(self, agent, mutate=None):
        """Rewrites the state file (changed by mutate) and waits until the agent applied it."""
        before = h.feed_health(agent.port)["reloads"]
        if mutate:
            mutate(self.state["daemons"])
        h.write_state(self.path, self.state)
        self.assertTrue(wait_until(lambda: h.feed_health(agent.port)["reloads"] > before),
                        "the rewrite was not applied:\n" + agent.stderr())

    def test_five_applied_flips_read_five_and_a_daemon_that_never_changed_reads_zero(self):
        agent, history = self.start()
        for c in ("runningChanges", "enabledChanges", "lastRunningChange", "lastEnabledChange"):
            self.assertEqual(history.row("bgpd")[c], 0, c)
        self.assertIsNone(history.row("bgpd")["lastRunningChangeTime"], "no DateAndTime before any change")
        stamps, times = [], []
        for i in range(5):
            running = i % 2 == 1
            self.rewrite(agent, lambda d: d["bgpd"]["status"].update(running=running))
            row = history.row("bgpd")
            self.assertEqual(row["runningChanges"], i + 1, "after flip %d" % (i + 1))
            stamps.append(row["lastRunningChange"])
            times.append(row["lastRunningChangeTime"])
            time.sleep(1.1)   # DateAndTime has tenths of seconds; TimeStamp hundredths
        self.assertEqual(history.count("bgpd"), 5)
        self.assertEqual(history.row("bgpd")["enabledChanges"], 0)
        # TimeStamps move forward, and none is later than sysUpTime now.
        self.assertTrue(all(a < b for a, b in zip(stamps, stamps[1:])), stamps)
        rc, got, err = h.get(agent.port, [SYS_UPTIME])
        self.assertLessEqual(stamps[-1], number(got[0][1]))
        # DateAndTime: 11 octets, UTC, moving forward, close to now.
        self.assertTrue(all(len(t) == 11 and t[8:9] == b"+" for t in times), times)
        self.assertTrue(all(a < b for a, b in zip(times, times[1:])), times)
        now = time.gmtime()
        self.assertEqual((times[-1][0] << 8 | times[-1][1], times[-1][2], times[-1][3]),
                         (now.tm_year, now.tm_mon, now.tm_mday))
        for name in ("ntpd", "sshd"):
            row = history.row(name)
            self.assertEqual((row["runningChanges"], row["enabledChanges"], row["lastRunningChange"]), (0, 0, 0), name)
            self.assertIsNone(row["lastRunningChangeTime"], name)

    def test_enabled_changes_are_counted_apart(self):
        agent, history = self.start()
        self.rewrite(agent, lambda d: d["ntpd"]["config"].update(enabled=True))
        row = history.row("ntpd")
        self.assertEqual((row["enabledChanges"], row["runningChanges"]), (1, 0))
        self.assertGreater(row["lastEnabledChange"], 0)
        self.assertIsNone(row["lastRunningChangeTime"])

    def test_an_identical_rewrite_and_a_rewrite_of_other_values_count_nothing(self):
        agent, history = self.start()
        self.rewrite(agent, lambda d: d["bgpd"]["status"].update(running=False))
        self.assertEqual(history.count("bgpd"), 1)
        self.rewrite(agent)   # the same state again
        self.rewrite(agent, lambda d: (d["bgpd"]["config"]["options"].update(asn="65002"),
                                       d["bgpd"]["status"]["data"].update(pid="2"),
                                       d["bgpd"]["status"].update(running=False)))
        row = history.row("bgpd")
        self.assertEqual((row["runningChanges"], row["enabledChanges"]), (1, 0))

    def test_a_daemon_removed_and_added_again_starts_at_zero(self):
        agent, history = self.start()
        self.rewrite(agent, lambda d: d["sshd"]["status"].update(running=False))
        self.assertEqual(history.count("sshd"), 1)
        self.rewrite(agent, lambda d: d.pop("sshd"))
        rc, got, err = h.get(agent.port, [instance("runningChanges", "sshd")])
        self.assertTrue(got[0][1].startswith("No Such Instance"), got)
        self.rewrite(agent, lambda d: d.update(sshd={"config": {"enabled": True}, "status": {"running": False}}))
        row = history.row("sshd")
        self.assertEqual((row["runningChanges"], row["lastRunningChange"]), (0, 0))
        self.assertIsNone(row["lastRunningChangeTime"])

    def test_a_walk_shows_every_served_daemon_in_index_order(self):
        agent, history = self.start()
        self.rewrite(agent, lambda d: (d["bgpd"]["status"].update(running=False),
                                       d.update(lldpd={"status": {"running": True}})))
        names = sorted(self.state["daemons"], key=lambda n: (len(n.encode()), n.encode()))
        expected = []
        for c in ("runningChanges", "enabledChanges", "lastRunningChange", "lastEnabledChange"):
            expected += [instance(c, n) for n in names]
        expected.append(instance("lastRunningChangeTime", "bgpd"))   # the only running change
        for bulk in (True, False):
            rows = h.walk(agent.port, h.HISTORY, bulk=bulk)
            self.assertEqual([oid for oid, _ in rows], expected, "bulk" if bulk else "getnext")
        got = dict(h.walk(agent.port, h.HISTORY))
        self.assertEqual(got[instance("runningChanges", "bgpd")], "Counter32: 1")
        self.assertEqual(got[instance("runningChanges", "lldpd")], "Counter32: 0")

    def test_set_on_any_column_is_refused_not_writable(self):
        config = self.tmp.file("rw.conf")
        with open(config, "w", encoding="utf-8") as f:
            # Write access cannot be configured (--config refuses it): a second read community.
            f.write("rocommunity private 127.0.0.1\n")
        agent, history = self.start(["--config", config])
        values = {"runningChanges": ("u", "7"), "enabledChanges": ("u", "7"), "lastRunningChange": ("t", "7"),
                  "lastEnabledChange": ("t", "7"), "lastRunningChangeTime": ("x", "07E80101000000002B0000")}
        for column, (kind, value) in values.items():
            rc, out, err = h.run_tool("snmpset", h.common_args(agent.port, "private") +
                                      [h.oid_str(instance(column, "bgpd")), kind, value])
            self.assertNotEqual(rc, 0, column)
            self.assertIn("noAccess", out + err, column)
        self.assertEqual(HistoryReader(agent.port, "private").count("bgpd"), 0)


class HostsHistoryTest(unittest.TestCase):
    """The same table from the snmpd dlmod bridge and from an AgentX subagent."""

    def setUp(self):
        self.tmp = h.TempDir()
        self.addCleanup(self.tmp.cleanup)
        self.path = self.tmp.file("state.json")
        self.state = copy.deepcopy(BASE)
        h.write_state(self.path, self.state)

    def flip_and_read(self, port):
        history = HistoryReader(port)
        self.assertTrue(wait_until(lambda: h.walk(port, h.HISTORY)), "the history table is not served")
        self.assertEqual(history.count("bgpd"), 0)
        for i, running in enumerate((False, True)):
            self.state["daemons"]["bgpd"]["status"]["running"] = running
            h.write_state(self.path, self.state)
            self.assertTrue(wait_until(lambda: history.count("bgpd") == i + 1), "flip %d not counted" % (i + 1))
        self.assertIsNotNone(history.row("bgpd")["lastRunningChangeTime"])
        self.assertEqual(history.count("sshd"), 0)

    @unittest.skipUnless(os.access(h.SNMPD, os.X_OK), "snmpd is not installed")
    def test_the_dlmod_bridge_serves_the_history(self):
        bridge = os.environ.get("VELMAR_DLMOD", "")
        self.assertTrue(bridge and os.path.exists(bridge), "VELMAR_DLMOD does not name the built bridge")
        import test_dlmod
        snmpd = test_dlmod.Snmpd(self.tmp.path, test_dlmod.dlmod_lines(self.path))
        self.addCleanup(snmpd.stop)
        self.assertTrue(snmpd.wait_log("serving VELMAR-DAEMON-MIB", timeout=10.0), snmpd.log())
        self.flip_and_read(snmpd.port)
        self.assertEqual(snmpd.trouble(), [])

    @unittest.skipUnless(os.access(h.SNMPD, os.X_OK), "snmpd is not installed")
    def test_an_agentx_subagent_serves_the_history(self):
        sock = self.tmp.file("agentx.sock")
        snmpd = h.Snmpd(self.tmp.path, sock)
        self.addCleanup(snmpd.stop)
        agent = h.Process([h.AGENT, "--agentx", sock, "--agentx-ping", "1", "--state", self.path],
                          "serving VELMAR-DAEMON-MIB")
        self.addCleanup(agent.stop)
        self.flip_and_read(snmpd.port)


if __name__ == "__main__":
    unittest.main()
