"""Signals: SIGHUP and SIGUSR1 never end the agent. SIGHUP logs a line and reads the launcher
source again; SIGUSR1 logs a line and is otherwise ignored; the agent answers after each and
still stops cleanly on SIGTERM."""

import json
import os
import signal
import time
import unittest

import velmar_harness as h

STATE = {"daemons": {"bgpd": {"config": {"enabled": True, "options": {"asn": "65001"}}}}}


class SignalTest(unittest.TestCase):
    def setUp(self):
        self.tmp = h.TempDir()
        self.addCleanup(self.tmp.cleanup)
        self.path = path = self.tmp.file("state.json")
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
        self.check_signal(signal.SIGHUP, "SIGHUP: reading the state file %s again" % self.path)

    def test_sighup_reads_a_change_that_was_not_announced(self):
        # A writer that keeps the file open never closes its write, so nothing announces the
        # change; SIGHUP makes the agent read it anyway.
        changed = {"daemons": {"bgpd": {"config": {"enabled": True, "options": {"asn": "65002"}}}}}
        # The file source reads the file once more when it starts watching (for a change
        # made while it started; not counted as a reload when it finds none); the write below
        # must come after that read, which follows the start within milliseconds. Should it
        # not, the check before SIGHUP below says so.
        time.sleep(1.0)
        with open(self.path, "r+") as f:
            f.seek(0)
            f.truncate()
            f.write(json.dumps(changed))
            f.flush()
            os.fsync(f.fileno())
            time.sleep(0.5)
            self.assertEqual(h.walk(self.agent.port, h.TABLES["option"][0]), self.expected,
                             "the change was applied before SIGHUP: this case shows nothing")
            self.agent.proc.send_signal(signal.SIGHUP)
            want = h.expected_rows(changed)["option"]
            deadline = time.time() + 5
            got = None
            while time.time() < deadline:
                got = h.walk(self.agent.port, h.TABLES["option"][0])
                if got == want:
                    break
                time.sleep(0.05)
            self.assertEqual(got, want, self.agent.stderr())

    def test_sigusr1_logs_and_is_ignored(self):
        self.check_signal(signal.SIGUSR1, "SIGUSR1: ignored")


if __name__ == "__main__":
    unittest.main()
