"""The live state feed of velmar-snmp-agent: changes to the state file show in the next
walk; refused files leave what is served byte for byte as it was."""

import copy
import json
import os
import subprocess
import time
import unittest

import velmar_harness as h

BASE = {"daemons": {
    "bgpd": {"config": {"enabled": True, "options": {"asn": "65001", "router-id": "10.0.0.1"}},
             "status": {"running": True, "data": {"pid": "4242"}}},
    "ntpd": {"config": {"enabled": False, "options": {"servers": "192.0.2.1"}}},
}}


def all_tables(port):
    return {t: h.walk(port, sub) for t, (sub, _, _) in h.TABLES.items()}


def raw_walk(port):
    rc, out, err = h.run_tool("snmpbulkwalk", ["-Cr20"] + h.common_args(port) + [h.oid_str(h.ROOT)])
    return h.without_feed_text(out)


class LiveFeedTest(unittest.TestCase):
    def setUp(self):
        self.tmp = h.TempDir()
        self.addCleanup(self.tmp.cleanup)
        self.path = self.tmp.file("state.json")
        self.state = copy.deepcopy(BASE)
        h.write_state(self.path, self.state)
        self.agent = h.Agent(self.path)
        self.addCleanup(self.agent.stop)

    def publish(self, state):
        self.state = state
        mark = len(self.agent.stderr_lines)
        h.write_state(self.path, state)
        return mark

    def wait_for(self, expected, timeout=5.0):
        deadline = time.time() + timeout
        got = None
        while time.time() < deadline:
            got = all_tables(self.agent.port)
            if got == expected:
                return got
            time.sleep(0.05)
        self.fail("served state did not follow the file:\n%s\nagent:\n%s" % (got, self.agent.stderr()))

    def test_initial_state_is_served(self):
        self.assertEqual(all_tables(self.agent.port), h.expected_rows(self.state))

    def test_added_daemon_appears(self):
        s = copy.deepcopy(self.state)
        s["daemons"]["lldpd"] = {"config": {"enabled": True, "options": {"tx-interval": "30"}},
                                 "status": {"running": True, "data": {"neighbors": "4"}}}
        self.publish(s)
        self.wait_for(h.expected_rows(s))

    def test_removed_option_disappears(self):
        s = copy.deepcopy(self.state)
        del s["daemons"]["bgpd"]["config"]["options"]["router-id"]
        self.publish(s)
        self.wait_for(h.expected_rows(s))

    def test_changed_value_shows_without_recreating_the_row(self):
        s = copy.deepcopy(self.state)
        s["daemons"]["bgpd"]["config"]["options"]["asn"] = "65002"
        mark = self.publish(s)
        self.wait_for(h.expected_rows(s))
        line = self.agent.wait_stderr("applied", start=mark)
        self.assertIsNotNone(line, self.agent.stderr())
        self.assertIn("rows: 0 added, 0 removed; 1 changed in place", line)

    def test_running_flag_flips(self):
        s = copy.deepcopy(self.state)
        s["daemons"]["bgpd"]["status"]["running"] = False
        mark = self.publish(s)
        got = self.wait_for(h.expected_rows(s))
        self.assertIn((h.TABLES["running"][0] + (1, 2) + h.index_of("bgpd"), h.FALSE), got["running"])
        self.assertIn("0 added, 0 removed", self.agent.wait_stderr("applied", start=mark) or "")

    def test_empty_value_removes_the_row_and_refilling_brings_it_back(self):
        s = copy.deepcopy(self.state)
        s["daemons"]["bgpd"]["config"]["options"]["asn"] = ""
        self.publish(s)
        self.wait_for(h.expected_rows(s))
        s = copy.deepcopy(s)
        s["daemons"]["bgpd"]["config"]["options"]["asn"] = "65003"
        self.publish(s)
        self.wait_for(h.expected_rows(s))

    def write_raw(self, content):
        tmp = self.path + ".tmp"
        with open(tmp, "w") as f:
            f.write(content if isinstance(content, str) else json.dumps(content))
        os.rename(tmp, self.path)

    def test_invalid_files_are_refused_or_skip_the_bad_daemon(self):
        before = raw_walk(self.agent.port)
        self.assertIn("65001", json.dumps(self.state))
        # Refused whole: nothing changes.
        whole = [
            ("bad JSON", '{"daemons": {"bgpd": {"config": {"enabled": tru}}}}', "line 1, column"),
            ("wrong top level", {"daemons": {}, "version": 2}, "unknown member \"version\""),
        ]
        for what, content, needle in whole:
            with self.subTest(what=what):
                mark = len(self.agent.stderr_lines)
                self.write_raw(content)
                line = self.agent.wait_stderr("state file " + self.path, start=mark)
                self.assertIsNotNone(line, self.agent.stderr())
                self.assertIn(needle, line)
                self.assertEqual(len([l for l in self.agent.stderr_lines[mark:] if "state file" in l]), 1)
                self.assertEqual(raw_walk(self.agent.port), before)
        # One bad daemon: ntpd (changed) is applied, the bad daemon keeps its rows (bgpd) or
        # is not served (a new one), with one line naming it and the item.
        ntpd = {"config": {"enabled": True, "options": {"servers": "192.0.2.7"}},
                "status": {"running": True, "data": {"pid": "77"}}}
        daemon_level = [
            ("long key", "bgpd", {"config": {"options": {"k" * 65: "v"}}}, "more than 64"),
            ("long value", "bgpd", {"config": {"options": {"asn": "v" * 10241}}}, "more than 10240"),
            ("wrong type", "bgpd", {"config": {"enabled": "yes"}}, "must be true or false"),
            ("long name", "n" * 33, {}, "more than 32"),
        ]
        for what, name, entry, needle in daemon_level:
            with self.subTest(what=what):
                self.publish(self.state)
                self.wait_for(h.expected_rows(self.state))
                mark = len(self.agent.stderr_lines)
                self.write_raw({"daemons": {name: entry, "ntpd": ntpd}})
                line = self.agent.wait_stderr("state file " + self.path, start=mark)
                self.assertIsNotNone(line, self.agent.stderr())
                self.assertIn(needle, line)
                expected = {"daemons": {"ntpd": ntpd}}
                if name in self.state["daemons"]:
                    self.assertTrue(line.endswith("; serving its last good state"), line)
                    expected["daemons"][name] = self.state["daemons"][name]
                else:
                    self.assertTrue(line.endswith("; not served"), line)
                self.wait_for(h.expected_rows(expected))
                self.assertEqual(len([l for l in self.agent.stderr_lines[mark:] if needle in l]), 1)
        # A good file afterwards is applied again.
        s = copy.deepcopy(self.state)
        s["daemons"]["bgpd"]["config"]["options"]["asn"] = "65009"
        self.publish(s)
        self.wait_for(h.expected_rows(s))


class LifecycleTest(unittest.TestCase):
    def test_sigterm_exits_zero_and_sigint_too(self):
        import signal
        tmp = h.TempDir()
        try:
            path = tmp.file("state.json")
            h.write_state(path, BASE)
            for sig in (signal.SIGTERM, signal.SIGINT):
                a = h.Agent(path)
                self.assertTrue(a.alive())
                self.assertEqual(a.stop(sig), 0, a.stderr())
                self.assertIn("stopping", a.stderr())
        finally:
            tmp.cleanup()

    def test_ready_line_says_what_and_where(self):
        tmp = h.TempDir()
        try:
            path = tmp.file("state.json")
            h.write_state(path, BASE)
            a = h.Agent(path)
            try:
                version = subprocess.run([h.AGENT, "--version"], capture_output=True, text=True,
                                         timeout=10).stdout.split()[-1]
                lines = [l for l in a.stderr_lines if "serving VELMAR-DAEMON-MIB" in l]
                self.assertEqual(len(lines), 1, a.stderr())
                # The version, the source, the address and the counts (BASE: 2 daemons).
                self.assertIn(" notice velmar-snmp-agent: velmar-snmp-agent %s serving VELMAR-DAEMON-MIB (enterprises.%d.3.17) "
                              "from state file %s on udp:127.0.0.1:%d: %d daemons, "
                              % (version, h.ENTERPRISE, path, a.port, len(BASE["daemons"])), lines[0])
                self.assertRegex(lines[0], r" daemons, \d+ rows \(enabled \d+, option \d+, running \d+, data \d+\)$")
                self.assertEqual(a.stdout_lines, [])
            finally:
                a.stop()
        finally:
            tmp.cleanup()

    def test_bad_command_lines_give_one_line_and_nonzero_exit(self):
        import subprocess
        demo = os.path.join(h.SOURCE_DIR, "examples", "demo-state.json")
        cases = [(["--bogus"], "--bogus"), (["--state", "/nonexistent/state.json"], "/nonexistent/state.json"),
                 (["--state", demo, "--config", "/nonexistent.conf"], "/nonexistent.conf"),
                 (["--listen", "udp:127.0.0.1:1", "--agentx", "/x"], "exclude"),
                 (["--state", demo, "--trace", "Snmp/x"], "--trace")]
        for args, needle in cases:
            with self.subTest(args=args):
                p = subprocess.run([h.AGENT] + args, capture_output=True, text=True, timeout=20)
                self.assertNotEqual(p.returncode, 0)
                lines = [l for l in p.stderr.splitlines() if l.strip()]
                self.assertEqual(len(lines), 1, p.stderr)
                self.assertIn(needle, lines[0])

    def test_bad_initial_state_file_is_refused_with_its_message(self):
        import subprocess
        tmp = h.TempDir()
        try:
            path = tmp.file("state.json")
            with open(path, "w") as f:
                f.write('{"daemons": {"x": {"config": {"enabled": true}}}, "version": 1}')
            p = subprocess.run([h.AGENT, "--state", path, "--listen", "udp:127.0.0.1:%d" % h.free_port()],
                               capture_output=True, text=True, timeout=20)
            self.assertEqual(p.returncode, 1)
            self.assertIn("state file " + path + ': top level: unknown member "version"', p.stderr)
        finally:
            tmp.cleanup()

    def test_initial_state_with_a_bad_daemon_serves_the_others(self):
        tmp = h.TempDir()
        try:
            path = tmp.file("state.json")
            with open(path, "w") as f:
                f.write('{"daemons": {"x": {"config": {"enabled": 1}}, "y": {"config": {"enabled": true}}}}')
            agent = h.Agent(path)
            try:
                self.assertIn('state file %s: daemon "x" config "enabled": must be true or false, not a number '
                              '(line 1); not served' % path, agent.stderr())
                sub = h.TABLES["enabled"][0]
                self.assertEqual(h.walk(agent.port, sub), [(sub + (1, 2) + h.index_of("y"), h.TRUE)])
            finally:
                agent.stop()
        finally:
            tmp.cleanup()

    def test_help_documents_every_option(self):
        import subprocess
        p = subprocess.run([h.AGENT, "--help"], capture_output=True, text=True, timeout=20)
        self.assertEqual(p.returncode, 0)
        for opt in ("--listen", "--agentx", "--state", "--config", "--context", "--module", "--trace", "--debug",
                    "--help", "--version"):
            self.assertIn(opt, p.stdout)


if __name__ == "__main__":
    unittest.main()
