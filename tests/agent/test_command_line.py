"""The command line refuses what it cannot place, and a refused command line loses nothing:
a stray positional argument, a --listen value that is not a network transport, a Unix
socket over an existing file, empty --state or --config, no launcher source at all. Each
exits 2 with one line naming what was wrong, and the launcher's state file is left as it
was. Without --listen the agent listens on udp:127.0.0.1:1161 and udp6:[::1]:1161, and the
default access answers both."""

import os
import socket
import subprocess
import unittest

import velmar_harness as h

STATE = {"daemons": {"bgpd": {"config": {"enabled": True, "options": {"asn": "65001"}},
                              "status": {"running": True, "data": {"pid": "4242"}}}}}


def fingerprint(path):
    st = os.stat(path)
    with open(path, "rb") as f:
        return (st.st_ino, st.st_size, st.st_mtime_ns, st.st_mode, f.read())


class RefusedCommandLineTest(unittest.TestCase):
    def setUp(self):
        self.tmp = h.TempDir()
        self.addCleanup(self.tmp.cleanup)
        self.state = self.tmp.file("state.json")
        h.write_state(self.state, STATE)

    def test_refused_command_lines_exit_2_and_leave_the_state_file_untouched(self):
        port = "udp:127.0.0.1:%d" % h.free_port()
        s = self.state
        cases = [
            ("--state forgotten", ["--listen", port, s], s),
            ("stray argument", ["--state", s, "--listen", port, "extra"], "extra"),
            ("path as --listen", ["--state", s, "--listen", s], s),
            ("unix socket over the file", ["--state", s, "--listen", "unix:" + s], "not a socket"),
            ("unknown transport", ["--state", s, "--listen", "http:127.0.0.1:80"], "http"),
            ("transport without address", ["--state", s, "--listen", "udp:"], "udp:"),
            ("empty --state", ["--state", "", "--listen", port], "--state"),
            ("empty --config", ["--state", s, "--config", "", "--listen", port], "--config"),
            ("no source", ["--listen", port], "no launcher source: give --state FILE"),
        ]
        before = fingerprint(s)
        for name, args, needle in cases:
            with self.subTest(name):
                p = subprocess.run([h.AGENT] + args, capture_output=True, text=True, timeout=20)
                self.assertEqual(p.returncode, 2, p.stdout + p.stderr)
                lines = [l for l in p.stderr.splitlines() if l.strip()]
                self.assertEqual(len(lines), 1, p.stderr)
                self.assertIn(needle, lines[0])
                self.assertTrue(lines[0].startswith("velmar-snmp-agent: "), lines[0])
                self.assertEqual(p.stdout, "")
                self.assertEqual(fingerprint(s), before, "the state file changed after: %s" % args)

    def test_explicit_unix_socket_is_accepted(self):
        sock = self.tmp.file("agent.sock")
        before = fingerprint(self.state)
        a = h.Process([h.AGENT, "--state", self.state, "--listen", "unix:" + sock], "serving VELMAR-DAEMON-MIB")
        try:
            self.assertTrue(os.path.exists(sock), a.output())
        finally:
            self.assertEqual(a.stop(), 0)
        self.assertEqual(fingerprint(self.state), before)


def port_free(port):
    for family, host in ((socket.AF_INET, "127.0.0.1"), (socket.AF_INET6, "::1")):
        with socket.socket(family, socket.SOCK_DGRAM) as s:
            try:
                s.bind((host, port))
            except OSError:
                return False
    return True


class DefaultListenTest(unittest.TestCase):
    def test_default_listens_on_ipv4_and_ipv6_loopback_and_answers_both(self):
        if not port_free(1161):
            self.skipTest("port 1161 is in use on the loopback addresses")
        tmp = h.TempDir()
        try:
            path = tmp.file("state.json")
            h.write_state(path, STATE)
            a = h.Process([h.AGENT, "--state", path], "serving VELMAR-DAEMON-MIB")
            try:
                self.assertIn("on udp:127.0.0.1:1161,udp6:[::1]:1161", a.wait_stderr("serving VELMAR-DAEMON-MIB") or a.stderr())
                oid = h.expected_rows(STATE)["enabled"][0][0]
                for target in ("udp:127.0.0.1:1161", "udp6:[::1]:1161"):
                    rc, out, err = h.run_tool("snmpget", ["-v2c", "-c", "public", "-On", "-r", "1", "-t", "3", target,
                                                          h.oid_str(oid)])
                    self.assertEqual(rc, 0, target + ": " + err + a.output())
                    self.assertIn("INTEGER: 1", out, target)
            finally:
                self.assertEqual(a.stop(), 0)
        finally:
            tmp.cleanup()


if __name__ == "__main__":
    unittest.main()
