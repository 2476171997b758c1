"""The installed project with Debian's stock snmpd.conf: a user enables the AgentX or the
dlmod mode by uncommenting one line of the installed snmpd.conf.d file, and community
"public" (which the stock file maps to its view "systemonly") walks the four tables.  With
nothing enabled, as installed, snmpd shows nothing of the subtree even with our subagent
registered, and still answers for its own system group.

Installs the build once per class into a temporary prefix (cmake --install); snmpd and the
agent run on free loopback ports with private directories and are stopped by process id.
"""

import copy
import os
import signal
import time
import unittest

import stock_snmpd as stock
import velmar_harness as h
from test_dlmod import TROUBLE, sanitizer_env

SYS_DESCR = (1, 3, 6, 1, 2, 1, 1, 1, 0)

STATE = {"daemons": {
    "bgpd": {"config": {"enabled": True, "options": {"asn": "65001", "router-id": "10.0.0.1"}},
             "status": {"running": True, "data": {"pid": "4242", "uptime": "3d4h"}}},
    "ntpd": {"config": {"enabled": False, "options": {"servers": "192.0.2.10"}},
             "status": {"running": False, "data": {"last-exit": "stopped by launcher"}}},
    "lldpd": {"config": {"enabled": True, "options": {"tx-interval": "30"}}},
    "dhcp-relay": {"status": {"running": True, "data": {"restarts": "5"}}},
}}


def all_tables(port):
    return {t: h.walk(port, sub) for t, (sub, _, _) in h.TABLES.items()}


def wait_tables(port, expected, timeout=15.0):
    """Walks the four tables until they are `expected` or the time is up; returns the last walk."""
    deadline = time.time() + timeout
    got = None
    while time.time() < deadline:
        try:
            got = all_tables(port)
        except RuntimeError as e:  # no answer yet
            got = str(e)
        if got == expected:
            break
        time.sleep(0.2)
    return got


def wait_line(process, text, timeout=5.0):
    """True once a line of the process's output contains text."""
    deadline = time.time() + timeout
    while time.time() < deadline:
        if any(text in l for l in process.stdout_lines + process.stderr_lines):
            return True
        time.sleep(0.05)
    return False


class StockTestCase(unittest.TestCase):
    mode = None  # agentx, dlmod or None (nothing enabled)

    @classmethod
    def setUpClass(cls):
        cls.tmp = h.TempDir()
        try:
            cls.prefix = stock.install(cls.tmp.path)
            cls.fragment = stock.enable(cls.prefix, cls.mode) if cls.mode else None
        except BaseException:
            cls.tmp.cleanup()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def setUp(self):
        self.dir = h.TempDir()
        self.addCleanup(self.dir.cleanup)
        self.state_file = self.dir.file("state.json")
        self.state = copy.deepcopy(STATE)
        h.write_state(self.state_file, self.state)
        self.socket = self.dir.file("agentx.sock")
        self.snmpd = None
        self.agent = None

    def start_snmpd(self, env_extra=None):
        self.snmpd = stock.StockSnmpd(self.dir.path, stock.include_dir(self.prefix), self.socket, env_extra=env_extra)
        self.addCleanup(self.snmpd.stop)
        return self.snmpd

    def start_agent(self):
        agent_bin = os.path.join(self.prefix, "bin", "velmar-snmp-agent")
        self.agent = h.Process([agent_bin, "--agentx", self.socket, "--agentx-ping", "1", "--state", self.state_file],
                               "serving VELMAR-DAEMON-MIB")
        # Stopped before snmpd (cleanups run last first).
        self.addCleanup(self.agent.stop)
        self.assertTrue(self.agent.alive(), self.agent.stderr())
        return self.agent

    def diag(self):
        parts = ["--- snmpd ---\n" + (self.snmpd.log() if self.snmpd else "(not started)")]
        if self.agent:
            parts.append("--- velmar-snmp-agent ---\n" + self.agent.stderr())
        return "\n" + "\n".join(parts)

    def assert_own_system_group_answers(self):
        rc, rows, err = h.get(self.snmpd.port, [SYS_DESCR])
        self.assertEqual(rc, 0, err)
        self.assertIsInstance(rows[0][1], bytes, rows)

    def stop_cleanly(self):
        if self.agent:
            self.assertEqual(self.agent.stop(), 0, self.agent.stderr())
        rc = self.snmpd.stop(signal.SIGTERM, timeout=15.0)
        self.assertEqual(rc, 0, self.diag())
        self.assertEqual([l for l in self.snmpd.stdout_lines + self.snmpd.stderr_lines if TROUBLE.search(l)], [],
                         self.diag())


@unittest.skipUnless(os.access(h.SNMPD, os.X_OK), "Debian's snmpd is not installed (apt-get install snmpd)")
class NothingEnabledTest(StockTestCase):
    """As installed: the snmpd.conf.d file enables nothing, and the stock view hides the
    subtree from public even when a subagent registers it."""

    def test_installed_file_changes_nothing_and_the_stock_view_hides_the_subtree(self):
        self.start_snmpd()
        self.start_agent()
        self.assertTrue(wait_line(self.agent, "AgentX subagent connected", timeout=10.0), self.diag())
        self.assert_own_system_group_answers()
        # A walk of the subtree: nothing in it (the stock view ends the walk).
        self.assertEqual(h.walk(self.snmpd.port, h.ROOT), [], self.diag())
        rc, rows, err = h.get(self.snmpd.port, [h.TABLES["enabled"][0] + (1, 2) + h.index_of("bgpd")])
        self.assertEqual(rc, 0, err)
        self.assertRegex(str(rows[0][1]), "No Such Object", self.diag())
        self.stop_cleanly()


@unittest.skipUnless(os.access(h.SNMPD, os.X_OK), "Debian's snmpd is not installed (apt-get install snmpd)")
class AgentxEnabledTest(StockTestCase):
    mode = "agentx"

    def test_public_walks_the_four_tables_through_the_master(self):
        self.start_snmpd()
        self.start_agent()
        expected = h.expected_rows(self.state)
        got = wait_tables(self.snmpd.port, expected)
        self.assertEqual(got, expected, self.diag())
        # GETNEXT one by one, with an independent client, over the whole subtree.
        self.assertEqual(h.pysnmp_walk(self.snmpd.port, h.ROOT),
                         expected["enabled"] + expected["option"] + expected["running"] + expected["data"])
        self.assert_own_system_group_answers()
        # A change of the state file shows through the master.
        s = copy.deepcopy(self.state)
        s["daemons"]["bgpd"]["config"]["options"]["asn"] = "65002"
        h.write_state(self.state_file, s)
        self.assertEqual(wait_tables(self.snmpd.port, h.expected_rows(s), timeout=5.0), h.expected_rows(s), self.diag())
        self.stop_cleanly()


@unittest.skipUnless(os.access(h.SNMPD, os.X_OK), "Debian's snmpd is not installed (apt-get install snmpd)")
class DlmodEnabledTest(StockTestCase):
    mode = "dlmod"

    def test_public_walks_the_four_tables_served_inside_snmpd(self):
        stock.point_dlmod_at(self.fragment, self.state_file)
        # For a bridge built with the sanitizers (snmpd is not): their runtime preloaded.
        self.start_snmpd(env_extra=sanitizer_env())
        self.assertTrue(wait_line(self.snmpd, "velmar_daemon_mib: serving VELMAR-DAEMON-MIB"), self.diag())
        expected = h.expected_rows(self.state)
        self.assertEqual(wait_tables(self.snmpd.port, expected, timeout=5.0), expected, self.diag())
        self.assertEqual(h.pysnmp_walk(self.snmpd.port, h.ROOT),
                         expected["enabled"] + expected["option"] + expected["running"] + expected["data"])
        self.assert_own_system_group_answers()
        self.stop_cleanly()


if __name__ == "__main__":
    unittest.main()
