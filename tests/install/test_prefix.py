"""cmake --install --prefix DIR: everything that names an installed path names DIR's, the
systemd unit's and the drop-in's ExecStart included, and the agent found there runs.
"""

import os
import re
import shlex
import subprocess
import unittest

import stock_snmpd as stock
import velmar_harness as h


class PrefixInstallTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = h.TempDir()
        try:
            # A prefix with a space in it: the paths must survive it too.
            cls.prefix = stock.install(cls.tmp.file("with space"))
        except BaseException:
            cls.tmp.cleanup()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.tmp.cleanup()

    def exec_starts(self, path):
        with open(path, encoding="utf-8") as f:
            text = f.read()
        return text, [shlex.split(v) for v in re.findall(r"^ExecStart=(.+)$", text, re.M)]

    def assert_names_the_prefix(self, path):
        text, starts = self.exec_starts(path)
        self.assertTrue(starts, text)
        agent = os.path.join(self.prefix, "bin", "velmar-snmp-agent")
        for argv in starts:
            self.assertEqual(argv[0], agent, text)
        self.assertNotIn("/usr/bin/velmar-snmp-agent", text)
        self.assertNotIn("/usr/share/velmar-daemon-mib", text)

    def test_unit_runs_the_agent_of_the_prefix(self):
        self.assert_names_the_prefix(os.path.join(self.prefix, "lib", "systemd", "system", "velmar-snmp-agent.service"))

    def test_systemd_drop_in_runs_the_agent_of_the_prefix(self):
        self.assert_names_the_prefix(os.path.join(self.prefix, "share", "velmar-daemon-mib",
                                                  "velmar-snmp-agent-systemd.conf"))

    def test_the_agent_named_there_runs(self):
        _, starts = self.exec_starts(os.path.join(self.prefix, "lib", "systemd", "system",
                                                  "velmar-snmp-agent.service"))
        r = subprocess.run([starts[0][0], "--version"], capture_output=True, text=True, timeout=30)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertIn("velmar-snmp-agent", r.stdout)


if __name__ == "__main__":
    unittest.main()
