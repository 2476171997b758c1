"""Faults around velmar-snmp-agent: the state file's directory removed and recreated (alone,
with its parents, renamed away, put back at once) while clients walk, the file deleted and
written again, and the AgentX master killed with SIGKILL and restarted. The agent is never
restarted: it keeps serving the last state while the file is gone, takes the new one in once
it is back, and finds a new master by itself within its ping interval.

Every process is started on free loopback ports, stopped by process id, and every wait is
bounded.
"""

import copy
import os
import shutil
import signal
import threading
import time
import unittest

import velmar_harness as h

BASE = {"daemons": {
    "bgpd": {"config": {"enabled": True, "options": {"asn": "65001", "router-id": "10.0.0.1"}},
             "status": {"running": True, "data": {"pid": "4242"}}},
    "ntpd": {"config": {"enabled": False, "options": {"servers": "192.0.2.1"}}},
}}
BOUND = 5.0  # seconds from a file being back to its state being served


def all_tables(port, **kw):
    return {t: h.walk(port, sub, **kw) for t, (sub, _, _) in h.TABLES.items()}


def variant(n):
    s = copy.deepcopy(BASE)
    s["daemons"]["bgpd"]["config"]["options"]["asn"] = str(65000 + n)
    s["daemons"]["gen%d" % n] = {"status": {"running": n % 2 == 0, "data": {"round": str(n)}}}
    return s


class WalkLoop:
    """A client walking the whole subtree again and again; records each walk's outcome."""

    def __init__(self, port):
        self.port = port
        self.results = []  # (ended, rows or None, error)
        self.stop_event = threading.Event()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        while not self.stop_event.is_set():
            try:
                self.results.append((time.time(), h.walk(self.port, h.ROOT, max_rep=20), None))
            except Exception as e:  # noqa: BLE001 - recorded and judged by the test
                self.results.append((time.time(), None, str(e)))

    def stop(self):
        self.stop_event.set()
        self.thread.join(60)
        return not self.thread.is_alive()


def whole(expected):
    return sorted((r for rows in expected.values() for r in rows), key=lambda r: r[0])


class StateDirectoryTest(unittest.TestCase):
    def setUp(self):
        self.tmp = h.TempDir()
        self.addCleanup(self.tmp.cleanup)
        self.parent = self.tmp.file("run")
        self.dir = os.path.join(self.parent, "launcher")
        os.makedirs(self.dir)
        self.path = os.path.join(self.dir, "state.json")
        self.state = BASE
        h.write_state(self.path, self.state)
        self.agent = h.Agent(self.path)
        self.addCleanup(self.agent.stop)
        self.pid = self.agent.pid

    def wait_served(self, state, what):
        expected = h.expected_rows(state)
        deadline = time.time() + BOUND
        got = None
        while time.time() < deadline:
            got = all_tables(self.agent.port)
            if got == expected:
                return time.time()
            time.sleep(0.05)
        self.fail("%s: the state was not served within %.0f s\ngot %s\nagent:\n%s"
                  % (what, BOUND, got, self.agent.stderr()))

    def assert_same_agent(self):
        self.assertTrue(self.agent.alive(), self.agent.stderr())
        self.assertEqual(self.agent.pid, self.pid)

    def test_directory_removed_then_recreated_with_a_new_file(self):
        self.wait_served(self.state, "start")
        mark = len(self.agent.stderr_lines)
        shutil.rmtree(self.dir)
        self.assertIsNotNone(self.agent.wait_stderr("directory %s is gone" % self.dir, start=mark), self.agent.stderr())
        # While it is gone, the last state is served.
        for _ in range(3):
            self.assertEqual(all_tables(self.agent.port), h.expected_rows(self.state))
            time.sleep(0.3)
        os.makedirs(self.dir)
        self.assertIsNotNone(self.agent.wait_stderr("watching directory %s again" % self.dir, start=mark),
                             self.agent.stderr())
        self.assertEqual(all_tables(self.agent.port), h.expected_rows(self.state))  # empty directory: no change
        self.state = variant(1)
        h.write_state(self.path, self.state)
        self.wait_served(self.state, "new file in the recreated directory")
        self.assert_same_agent()

    def test_directory_removed_with_its_parents_and_recreated_in_cycles_while_clients_walk(self):
        self.wait_served(self.state, "start")
        walker = WalkLoop(self.agent.port)
        served = [self.state]
        try:
            for n in range(1, 6):
                kind = n % 3
                if kind == 0:
                    shutil.rmtree(self.parent)             # the parent goes too
                elif kind == 1:
                    os.rename(self.dir, self.dir + ".old")  # renamed away
                    shutil.rmtree(self.dir + ".old")
                else:
                    shutil.rmtree(self.dir)
                time.sleep(0.5 if n % 2 else 0.05)          # gone for a while, or back at once
                os.makedirs(self.dir)
                self.state = variant(n)
                served.append(self.state)
                h.write_state(self.path, self.state)
                self.wait_served(self.state, "cycle %d" % n)
            time.sleep(0.5)
        finally:
            self.assertTrue(walker.stop(), "the walking client did not finish")
        # Every walk ended, and every row it returned is a row of a state the file had (a
        # walk under way during a reload may see rows of two consecutive states: rows are
        # served live).
        rowsets = [set(whole(h.expected_rows(s))) for s in served]
        self.assertGreater(len(walker.results), 5)
        for ended, rows, error in walker.results:
            self.assertIsNone(error, error)
            for row in rows:
                self.assertTrue(any(row in rs for rs in rowsets), "row %s in no state" % (row,))
        self.assert_same_agent()
        gone = [l for l in self.agent.stderr_lines if "is gone" in l]
        back = [l for l in self.agent.stderr_lines if "watching directory" in l]
        self.assertGreaterEqual(len(back), 1, self.agent.stderr())
        print("\n%d walks during 5 removals of the directory; agent: %d 'gone', %d 'watching again' lines"
              % (len(walker.results), len(gone), len(back)))

    def test_file_deleted_then_written_again(self):
        self.wait_served(self.state, "start")
        mark = len(self.agent.stderr_lines)
        os.unlink(self.path)
        self.assertIsNotNone(self.agent.wait_stderr("removed; serving the last state", start=mark), self.agent.stderr())
        time.sleep(0.3)
        self.assertEqual(all_tables(self.agent.port), h.expected_rows(self.state))
        self.state = variant(7)
        h.write_state(self.path, self.state)
        self.wait_served(self.state, "file written again")
        self.assert_same_agent()

    def test_stops_cleanly_while_the_directory_is_gone(self):
        shutil.rmtree(self.parent)
        # On a slow machine the worker may still be setting up its watch when the directory
        # goes; it then says it cannot watch it rather than that it is gone.
        line = self.agent.wait_stderr("is gone") or self.agent.wait_stderr("cannot watch directory", timeout=0.1)
        self.assertIsNotNone(line, self.agent.stderr())
        self.assertEqual(self.agent.stop(), 0, self.agent.stderr())


@unittest.skipUnless(os.path.exists(h.SNMPD), "snmpd is not installed")
class MasterKilledTest(unittest.TestCase):
    """The AgentX master killed with SIGKILL and restarted on the same socket: the agent,
    pinging every PING seconds, is served by the new master within that interval (plus the
    time a registration takes), without being restarted."""

    PING = 2
    SLACK = 1.5  # registration and the check's own polling

    def test_reconnects_within_the_ping_interval(self):
        tmp = h.TempDir()
        processes = []
        try:
            sock = tmp.file("agentx.sock")
            port = h.free_port()
            state_file = tmp.file("state.json")
            h.write_state(state_file, BASE)
            expected = whole(h.expected_rows(BASE))
            master = h.Snmpd(tmp.path, sock, port=port)
            processes.append(master)
            agent = h.Process([h.AGENT, "--agentx", sock, "--agentx-ping", str(self.PING), "--state", state_file],
                              "serving VELMAR-DAEMON-MIB")
            processes.append(agent)

            def served():
                try:
                    return h.walk(port, h.ROOT, extra=["-t", "1", "-r", "0"]) == expected
                except RuntimeError:
                    return False

            def wait_served(limit):
                start = time.time()
                while time.time() - start < limit:
                    if served():
                        return time.time() - start
                    time.sleep(0.05)
                return None

            self.assertIsNotNone(wait_served(15), agent.stderr() + master.output())
            times = []
            for round_ in range(3):
                self.assertEqual(master.stop(signal.SIGKILL), -signal.SIGKILL)
                if os.path.exists(sock):
                    os.unlink(sock)  # a killed master leaves its socket behind
                time.sleep(0.2 + round_ * 0.7)  # killed for a while: shorter and longer than a ping
                master = h.Snmpd(tmp.path, sock, port=port)
                processes.append(master)
                took = wait_served(self.PING + self.SLACK + 5)
                self.assertIsNotNone(took, "not served again; agent:\n%s" % agent.stderr())
                self.assertTrue(agent.alive(), agent.stderr())
                times.append(took)
            print("\nserved again %s s after the new master was ready (ping interval %d s)"
                  % (", ".join("%.2f" % t for t in times), self.PING))
            for t in times:
                self.assertLessEqual(t, self.PING + self.SLACK, times)
            self.assertEqual(agent.stop(), 0, agent.stderr())
        finally:
            for p in reversed(processes):
                p.stop()
            tmp.cleanup()


if __name__ == "__main__":
    unittest.main()
