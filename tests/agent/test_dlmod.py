"""velmar_daemon_mib.so in Debian's own snmpd, loaded with its dlmod directive: the four
tables served from the state file, a live change, SIGHUP (snmpd unloads and reloads every
dlmod library), bad settings that serve nothing while snmpd runs on, and a clean stop.

snmpd runs with a private configuration in a temporary directory, on a free UDP port of
127.0.0.1, with `-I -smux` (every one of its own modules but SMUX, which would open TCP port
199): its own modules live outside our subtree and do not answer inside the walks.
"""

import copy
import json
import os
import re
import signal
import subprocess
import time
import unittest

import velmar_harness as h

BRIDGE = os.environ.get("VELMAR_DLMOD", "")
SNMPD = os.environ.get("VELMAR_SNMPD", "/usr/sbin/snmpd")
SYS_DESCR = (1, 3, 6, 1, 2, 1, 1, 1, 0)

BASE = {"daemons": {
    "bgpd": {"config": {"enabled": True, "options": {"asn": "65001", "router-id": "10.0.0.1"}},
             "status": {"running": True, "data": {"pid": "4242"}}},
    "ntpd": {"config": {"enabled": False, "options": {"servers": "192.0.2.1"}}},
    "sshd": {"status": {"running": False, "data": {"last-exit": "stopped"}}},
}}

# Lines that mean something went wrong inside snmpd, whoever wrote them.
TROUBLE = re.compile(r"ERROR|Assertion|AddressSanitizer|runtime error|Segmentation|Aborted|"
                     r"duplicate registration: MIB modules velmar|lock in _callback_lock|netsnmp_assert")


def sanitizer_env():
    """For a bridge built with AddressSanitizer: snmpd is not, so the ASan runtime must be
    preloaded (it has to come first), and snmpd's own leaks at exit are not ours to report."""
    try:
        out = subprocess.run(["ldd", BRIDGE], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True,
                             timeout=30).stdout
    except (OSError, subprocess.TimeoutExpired):
        return {}
    libs = dict(re.findall(r"^\s*(lib\S+?)\.so\S*\s+=>\s+(\S+)", out, re.M))
    if "libasan" not in libs:
        return {}
    # The C++ runtime goes in with it: ASan finds the functions it wraps (__cxa_throw) only in
    # libraries that are there when it starts, and snmpd is a C program.
    preload = [libs["libasan"]] + [libs[l] for l in ("libstdc++",) if l in libs]
    options = os.environ.get("ASAN_OPTIONS", "")
    options = ":".join(o for o in options.split(":") if o and not o.startswith("detect_leaks="))
    return {"LD_PRELOAD": " ".join(preload), "ASAN_OPTIONS": (options + ":" if options else "") + "detect_leaks=0"}


def blankless_bridge(directory, line):
    """snmpd's dlmod directive takes the library's path as one word without blanks: in a
    dlmod line, a bridge whose path has one is named through a link, in directory, to its
    folder (its RUNPATH in the build tree is absolute, so it loads from there alike)."""
    if not line.startswith("dlmod ") or not BRIDGE or not re.search(r"\s", BRIDGE) or BRIDGE not in line:
        return line
    link = os.path.join(directory, "bridge-folder")
    if not os.path.islink(link):
        os.symlink(os.path.dirname(BRIDGE), link)
    return line.replace(BRIDGE, os.path.join(link, os.path.basename(BRIDGE)))


class Snmpd(h.Process):
    """Debian's snmpd in the foreground with only the given configuration lines (after a
    read-only community for 127.0.0.1). Its log (-Lo) is standard output; it is ready once it
    logs its version, which it does after reading its configuration and opening its port."""

    def __init__(self, directory, lines, port=None, timeout=20.0):
        self.port = port or h.free_port()
        self.config = os.path.join(directory, "snmpd.conf")
        persistent = os.path.join(directory, "persistent")
        os.makedirs(os.path.join(persistent, "cert_indexes"), exist_ok=True)
        lines = [blankless_bridge(directory, l) for l in lines]
        with open(self.config, "w", encoding="utf-8") as f:
            f.write("\n".join(["dontLogTCPWrappersConnects yes", "rocommunity public 127.0.0.1"] + list(lines)) + "\n")
        env = dict(os.environ)
        env.update(MIBS="", SNMP_PERSISTENT_DIR=persistent, SNMPCONFPATH=directory, HOME=directory)
        env.update(sanitizer_env())
        argv = [SNMPD, "-f", "-Lo", "-C", "-c", self.config, "-I", "-smux", "udp:127.0.0.1:%d" % self.port]
        super().__init__(argv, "NET-SNMP version", env=env, timeout=timeout)
        if not self.alive():
            raise RuntimeError("snmpd exited at start:\n%s" % self.log())

    def log(self):
        return "\n".join(self.stdout_lines + self.stderr_lines)

    def wait_log(self, text, timeout=10.0, start=0):
        deadline = time.time() + timeout
        while time.time() < deadline:
            for line in (self.stdout_lines + self.stderr_lines)[start:]:
                if text in line:
                    return line
            time.sleep(0.05)
        return None

    def trouble(self):
        return [l for l in self.stdout_lines + self.stderr_lines if TROUBLE.search(l)]


def dlmod_lines(state_file, *extra):
    # The state file's path quoted, as snmpd.conf allows: it may have a blank (a clone's).
    return ["dlmod velmar_daemon_mib %s" % BRIDGE, 'velmarStateFile "%s"' % state_file] + list(extra)


def all_tables(port):
    return {t: h.walk(port, sub) for t, (sub, _, _) in h.TABLES.items()}


@unittest.skipUnless(os.access(SNMPD, os.X_OK), "Debian's snmpd is not installed (apt-get install snmpd)")
class DlmodTest(unittest.TestCase):
    def setUp(self):
        self.assertTrue(BRIDGE and os.path.exists(BRIDGE), "VELMAR_DLMOD does not name the built bridge: %r" % BRIDGE)
        self.tmp = h.TempDir()
        self.addCleanup(self.tmp.cleanup)
        self.path = self.tmp.file("state.json")
        self.state = copy.deepcopy(BASE)
        h.write_state(self.path, self.state)

    def start(self, lines):
        snmpd = Snmpd(self.tmp.path, lines)
        self.addCleanup(snmpd.stop)
        return snmpd

    def wait_for(self, snmpd, expected, timeout=5.0):
        deadline = time.time() + timeout
        got = None
        while time.time() < deadline:
            got = all_tables(snmpd.port)
            if got == expected:
                return
            time.sleep(0.05)
        self.fail("snmpd did not follow the state file within %.0f s:\n%s\nsnmpd:\n%s" % (timeout, got, snmpd.log()))

    def stop_cleanly(self, snmpd):
        rc = snmpd.stop(signal.SIGTERM, timeout=15.0)
        self.assertEqual(rc, 0, "snmpd exit code %s; log:\n%s" % (rc, snmpd.log()))
        self.assertEqual(snmpd.trouble(), [], snmpd.log())

    def test_serves_the_four_tables_of_the_demo_state(self):
        demo = os.path.join(h.SOURCE_DIR, "examples", "demo-state.json")
        with open(demo, encoding="utf-8") as f:
            state = json.load(f)
        snmpd = self.start(dlmod_lines(demo))
        self.assertIsNotNone(snmpd.wait_log("velmar_daemon_mib: serving VELMAR-DAEMON-MIB", timeout=1.0), snmpd.log())
        expected = h.expected_rows(state)
        self.assertEqual(all_tables(snmpd.port), expected)
        # GETNEXT one by one, with an independent client.
        self.assertEqual(h.pysnmp_walk(snmpd.port, h.ROOT),
                         expected["enabled"] + expected["option"] + expected["running"] + expected["data"])
        # The feed's health is served inside snmpd too.
        health = h.feed_health(snmpd.port)
        self.assertEqual(health["source"], ("state file " + demo).encode())
        self.assertEqual(health["state"], h.FEED_STATES["ok"])
        self.assertEqual(health["daemons"], len(state["daemons"]))
        self.assertEqual(health["rows"], sum(len(r) for r in expected.values()))
        self.stop_cleanly(snmpd)

    def test_live_change_is_served(self):
        snmpd = self.start(dlmod_lines(self.path))
        self.assertEqual(all_tables(snmpd.port), h.expected_rows(self.state))
        s = copy.deepcopy(self.state)
        s["daemons"]["lldpd"] = {"config": {"enabled": True, "options": {"tx-interval": "30"}},
                                 "status": {"running": True, "data": {"neighbors": "4"}}}
        s["daemons"]["bgpd"]["config"]["options"]["asn"] = "65002"
        del s["daemons"]["ntpd"]
        h.write_state(self.path, s)
        self.wait_for(snmpd, h.expected_rows(s))
        self.assertIsNotNone(snmpd.wait_log("velmar_daemon_mib: state file %s: applied" % self.path, start=0))
        self.stop_cleanly(snmpd)

    def test_refused_file_changes_nothing(self):
        snmpd = self.start(dlmod_lines(self.path))
        before = all_tables(snmpd.port)
        mark = len(snmpd.stdout_lines)
        with open(self.path + ".tmp", "w", encoding="utf-8") as f:
            f.write('{"daemons": {"bgpd": {"config": {"enabled": true}}}, "version": 1}')
        os.rename(self.path + ".tmp", self.path)
        line = snmpd.wait_log("velmar_daemon_mib: state file %s:" % self.path, start=mark)
        self.assertIsNotNone(line, snmpd.log())
        self.assertIn('unknown member "version"', line)
        self.assertEqual(all_tables(snmpd.port), before)
        self.assertEqual(h.feed_health(snmpd.port)["state"], h.FEED_STATES["refused"])
        # One bad daemon: the others follow the file, bgpd keeps its rows.
        s = copy.deepcopy(self.state)
        del s["daemons"]["ntpd"]
        text = json.dumps(s).replace('"enabled": true', '"enabled": 1', 1)
        mark = len(snmpd.stdout_lines)
        with open(self.path + ".tmp", "w", encoding="utf-8") as f:
            f.write(text)
        os.rename(self.path + ".tmp", self.path)
        line = snmpd.wait_log('velmar_daemon_mib: state file %s: daemon "bgpd"' % self.path, start=mark)
        self.assertIsNotNone(line, snmpd.log())
        self.assertTrue(line.rstrip().endswith("; serving its last good state"), line)
        self.wait_for(snmpd, h.expected_rows(s))
        self.assertEqual(h.feed_health(snmpd.port)["skippedNow"], 1)
        self.stop_cleanly(snmpd)

    def test_sighup_reloads_and_serves_on(self):
        snmpd = self.start(dlmod_lines(self.path, "velmarContext extra"))
        self.assertEqual(all_tables(snmpd.port), h.expected_rows(self.state))
        for round_ in range(2):
            mark = len(snmpd.stdout_lines)
            os.kill(snmpd.pid, signal.SIGHUP)
            self.assertIsNotNone(snmpd.wait_log("velmar_daemon_mib: stopped serving", start=mark), snmpd.log())
            self.assertIsNotNone(snmpd.wait_log("velmar_daemon_mib: serving VELMAR-DAEMON-MIB", start=mark), snmpd.log())
            self.assertTrue(snmpd.alive(), snmpd.log())
            self.wait_for(snmpd, h.expected_rows(self.state))
            s = copy.deepcopy(self.state)
            s["daemons"]["round%d" % round_] = {"config": {"enabled": True, "options": {}}}
            h.write_state(self.path, s)
            self.state = s
            self.wait_for(snmpd, h.expected_rows(s))
        self.stop_cleanly(snmpd)

    def assert_serves_nothing(self, snmpd):
        rc, rows, err = h.get(snmpd.port, [h.TABLES["enabled"][0] + (1, 2) + h.index_of("bgpd")])
        self.assertEqual(rc, 0, err)
        self.assertEqual(len(rows), 1)
        self.assertRegex(str(rows[0][1]), "No Such Object|No Such Instance", rows)
        # snmpd itself still answers.
        rc, rows, err = h.get(snmpd.port, [SYS_DESCR])
        self.assertEqual(rc, 0, err)
        self.assertIsInstance(rows[0][1], bytes, rows)

    def test_missing_state_file_is_named_and_serves_nothing(self):
        missing = self.tmp.file("nowhere/state.json")
        snmpd = self.start(dlmod_lines(missing))
        line = snmpd.wait_log("velmar_daemon_mib: velmarStateFile")
        self.assertIsNotNone(line, snmpd.log())
        self.assertIn(missing, line)
        self.assertIn("serving nothing", line)
        self.assert_serves_nothing(snmpd)
        self.assertEqual(snmpd.stop(signal.SIGTERM, timeout=15.0), 0, snmpd.log())

    def test_unloadable_module_is_named_and_serves_nothing(self):
        bad = self.tmp.file("VelmarDaemonMIB.so")
        with open(bad, "w", encoding="utf-8") as f:
            f.write("not a library\n")
        snmpd = self.start(dlmod_lines(self.path, "velmarModule %s" % bad))
        line = snmpd.wait_log("velmar_daemon_mib: velmarModule")
        self.assertIsNotNone(line, snmpd.log())
        self.assertIn(bad, line)
        self.assertIn("serving nothing", line)
        self.assert_serves_nothing(snmpd)
        self.assertEqual(snmpd.stop(signal.SIGTERM, timeout=15.0), 0, snmpd.log())

    def test_without_state_file_line_serves_nothing(self):
        snmpd = self.start(["dlmod velmar_daemon_mib %s" % BRIDGE])
        line = snmpd.wait_log("velmar_daemon_mib: no velmarStateFile line")
        self.assertIsNotNone(line, snmpd.log())
        self.assert_serves_nothing(snmpd)
        self.assertEqual(snmpd.stop(signal.SIGTERM, timeout=15.0), 0, snmpd.log())

    def test_directive_with_two_words_is_reported_with_its_line(self):
        snmpd = self.start(dlmod_lines(self.path, "velmarContext one two"))
        line = snmpd.wait_log("velmarContext takes one word")
        self.assertIsNotNone(line, snmpd.log())
        self.assertIn("line 5", line)   # the config file's line, from snmpd's own reporting
        self.assertEqual(all_tables(snmpd.port), h.expected_rows(self.state))
        self.assertEqual(snmpd.stop(signal.SIGTERM, timeout=15.0), 0, snmpd.log())


if __name__ == "__main__":
    unittest.main()
