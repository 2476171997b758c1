"""Signals: SIGHUP and SIGUSR1 never end the agent. SIGHUP logs a line and reads the launcher
source again; SIGUSR1 logs a line and is otherwise ignored; the agent answers after each and
still stops cleanly on SIGTERM."""

import signal
import unittest

import velmar_harness as h

STATE = {"daemons": {"bgpd": {"config": {"enabled": True, "options": {"asn": "65001"}}}}}


class SignalTest(unittest.TestCase):
    def setUp(self):
        self.tmp = h.TempDir()
        self.addCleanup(self.tmp.cleanup)
        path = self.tmp.file("state.json")
        h.write_state(path, STATE)
        self.agent = h.Agent(path)
        self.addCleanup(self.agent.stop)
        self.expected = h.expected_rows(STATE)["option"]

    def check_signal(self, sig, line):
        for _ in range(3):
            mark = len(self.agent.stderr_lines)
            self.agent.proc.send_signal(sig)
            self.assertIsNotNone(self.agent.wait_stderr(line, start=mark), self.agent.stderr())
            self.assertTrue(self.agent.alive(), self.agent.stderr())
            self.assertEqual(h.walk(self.agent.port, h.TABLES["option"][0]), self.expected)
        self.assertEqual(self.agent.stop(), 0, self.agent.stderr())

    def test_sighup_logs_and_rereads_and_the_agent_runs_on(self):
        self.check_signal(signal.SIGHUP, "SIGHUP: reading the launcher source again")

    def test_sigusr1_logs_and_is_ignored(self):
        self.check_signal(signal.SIGUSR1, "SIGUSR1: ignored")


if __name__ == "__main__":
    unittest.main()
