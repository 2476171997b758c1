"""Operating velmar-snmp-agent: the SNMPv2-MIB system group and engine objects of the
standalone agent, log lines with levels in each --log destination, refusals that say why
(a --config typo or bad argument, each reason an address cannot be listened on), readiness
(sd_notify READY and the watchdog on a NOTIFY_SOCKET of the test's own) and --check.

Every agent runs on a free loopback port and is stopped by process id."""

import json
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import time
import unittest

import velmar_harness as h

STATE = {"daemons": {
    "bgpd": {"config": {"enabled": True, "options": {"asn": "65001", "router-id": "192.0.2.1"}},
             "status": {"running": True, "data": {"pid": "4242"}}},
    "ntpd": {"config": {"enabled": False, "options": {}}},
}}
# bgpd: enabled, running, 2 options, 1 data; ntpd: enabled, running.
ROWS = 7

SYS = (1, 3, 6, 1, 2, 1, 1)
SYS_DESCR, SYS_OBJECT_ID, SYS_UPTIME = SYS + (1, 0), SYS + (2, 0), SYS + (3, 0)
SYS_CONTACT, SYS_NAME, SYS_LOCATION = SYS + (4, 0), SYS + (5, 0), SYS + (6, 0)
SYS_OR_ID = SYS + (9, 1, 2)
ENGINE = (1, 3, 6, 1, 6, 3, 10, 2, 1)
ENGINE_ID, ENGINE_BOOTS, ENGINE_TIME = ENGINE + (1, 0), ENGINE + (2, 0), ENGINE + (3, 0)
AGENT_OID = (1, 3, 6, 1, 4, 1, h.ENTERPRISE, 4, 1)
DAEMON_MIB = (1, 3, 6, 1, 4, 1, h.ENTERPRISE, 3, 17)

LEVELS = "(error|warning|notice|info|debug)"
STDERR_LINE = re.compile(r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}[+-]\d{4} " + LEVELS + r" velmar-snmp-agent: \S")
JOURNAL_LINE = re.compile(r"^<[3-7]>\S")


def get_one(port, oid, community="public"):
    rc, values, err = h.get(port, [oid], community=community)
    if rc != 0 or len(values) != 1:
        raise AssertionError("GET %s: rc %d, %s %s" % (h.oid_str(oid), rc, values, err))
    return values[0][1]


def run_agent(args, timeout=30, env=None):
    """Runs the agent to its end; returns (exit code, stdout, stderr)."""
    p = subprocess.run([h.AGENT] + list(args), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                       text=True, errors="replace", timeout=timeout, env=env)
    return p.returncode, p.stdout, p.stderr


class Fixture(h.AgentCase):
    STATE = STATE

    def start(self, extra=(), env=None):
        return self.start_agent(extra, env)


class SystemGroupTest(Fixture):
    def test_system_group_is_answered_and_uptime_grows(self):
        conf = self.config("rocommunity public 127.0.0.1\n"
                           "syslocation Rack 7, room 3\n"
                           "syscontact noc@example.org\n"
                           "sysname edge-router-1\n")
        agent = self.start(["--config", conf])
        descr = get_one(agent.port, SYS_DESCR)
        self.assertIn(b"velmar-snmp-agent", descr)
        version = subprocess.run([h.AGENT, "--version"], capture_output=True, text=True, timeout=10).stdout.split()[-1]
        self.assertIn(version.encode(), descr)
        self.assertEqual(get_one(agent.port, SYS_OBJECT_ID), "OID: " + h.oid_str(AGENT_OID))
        self.assertEqual(get_one(agent.port, SYS_LOCATION), b"Rack 7, room 3")
        self.assertEqual(get_one(agent.port, SYS_CONTACT), b"noc@example.org")
        self.assertEqual(get_one(agent.port, SYS_NAME), b"edge-router-1")

        def ticks():
            text = get_one(agent.port, SYS_UPTIME)
            m = re.match(r"Timeticks: \((\d+)\)", text)
            self.assertIsNotNone(m, text)
            return int(m.group(1))
        first = ticks()
        time.sleep(1.2)
        second = ticks()
        self.assertGreater(second, first)
        self.assertGreaterEqual(second - first, 50)   # at least half a second, in hundredths

        # sysORTable lists the daemon MIB.
        ids = [v for _, v in h.walk(agent.port, SYS_OR_ID)]
        self.assertIn("OID: " + h.oid_str(DAEMON_MIB), ids)
        # The tables are still served beside it.
        self.assertEqual(h.walk(agent.port, h.TABLES["option"][0]), h.expected_rows(STATE)["option"])

    def test_engine_objects_are_readable(self):
        agent = self.start()
        boots = get_one(agent.port, ENGINE_BOOTS)
        self.assertIsInstance(boots, int)
        self.assertGreaterEqual(boots, 1)
        engine_id = get_one(agent.port, ENGINE_ID)
        self.assertIsInstance(engine_id, bytes)
        self.assertGreaterEqual(len(engine_id), 5)
        self.assertIsInstance(get_one(agent.port, ENGINE_TIME), int)

    def test_config_sysdescr_replaces_the_default(self):
        conf = self.config("rocommunity public 127.0.0.1\nsysdescr lab agent 42\n")
        agent = self.start(["--config", conf])
        self.assertEqual(get_one(agent.port, SYS_DESCR), b"lab agent 42")


class LogDestinationTest(Fixture):
    def check_lines(self, lines, pattern):
        lines = [l for l in lines if l.strip()]
        self.assertTrue(lines)
        for line in lines:
            self.assertRegex(line, pattern)

    def run_and_stop(self, extra, env=None, stderr_path=None):
        """Starts the agent, waits for its start line in its log, stops it; returns its stderr."""
        port = h.free_port()
        argv = [h.AGENT, "--state", self.state, "--listen", "udp:127.0.0.1:%d" % port] + list(extra)
        err = open(stderr_path or self.tmp.file("stderr.txt"), "w+")
        proc = subprocess.Popen(argv, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=err, env=env)
        try:
            deadline = time.time() + 15
            while time.time() < deadline and not h.udp_answers(port):
                self.assertIsNone(proc.poll(), "agent exited")
                time.sleep(0.05)
            time.sleep(0.1)
        finally:
            proc.send_signal(signal.SIGTERM)
            self.assertEqual(proc.wait(10), 0)
        err.seek(0)
        text = err.read()
        err.close()
        return text

    def test_stderr_lines_have_timestamps_and_levels(self):
        text = self.run_and_stop(["--log", "stderr"])
        self.check_lines(text.splitlines(), STDERR_LINE)
        self.assertRegex(text, r" notice velmar-snmp-agent: velmar-snmp-agent \S+ serving VELMAR-DAEMON-MIB .* on "
                               r"udp:127\.0\.0\.1:\d+: 2 daemons, %d rows" % ROWS)
        self.assertRegex(text, r" notice velmar-snmp-agent: stopping")

    def test_journal_lines_have_priority_prefixes_and_no_timestamp(self):
        text = self.run_and_stop(["--log", "journal"])
        self.check_lines(text.splitlines(), JOURNAL_LINE)
        self.assertRegex(text, r"(?m)^<5>velmar-snmp-agent \S+ serving ")
        self.assertNotRegex(text, r"\d{4}-\d\d-\d\dT\d\d:")

    def test_auto_is_journal_only_when_stderr_is_the_journal_stream(self):
        path = self.tmp.file("stream.txt")
        open(path, "w").close()
        st = os.stat(path)
        env = dict(os.environ, JOURNAL_STREAM="%d:%d" % (st.st_dev, st.st_ino))
        self.check_lines(self.run_and_stop([], env=env, stderr_path=path).splitlines(), JOURNAL_LINE)
        # Standard error is another file than the one JOURNAL_STREAM names: timestamps.
        self.check_lines(self.run_and_stop([], env=env).splitlines(), STDERR_LINE)
        env.pop("JOURNAL_STREAM")
        self.check_lines(self.run_and_stop([], env=env).splitlines(), STDERR_LINE)

    def test_file_gets_every_line_and_sighup_reopens_it(self):
        log = self.tmp.file("agent.log")
        port = h.free_port()
        agent = h.Process([h.AGENT, "--state", self.state, "--listen", "udp:127.0.0.1:%d" % port, "--log", "file:" + log],
                          None, ready=lambda: h.udp_answers(port))
        self.addCleanup(agent.stop)
        self.assertEqual([l for l in agent.stderr_lines if l.strip()], [])
        with open(log) as f:
            first = f.read().splitlines()
        self.check_lines(first, STDERR_LINE)
        self.assertTrue(any("serving VELMAR-DAEMON-MIB" in l for l in first), first)
        rotated = self.tmp.file("agent.log.1")
        os.rename(log, rotated)
        agent.proc.send_signal(signal.SIGHUP)
        deadline = time.time() + 5
        while time.time() < deadline and not os.path.exists(log):
            time.sleep(0.05)
        self.assertEqual(agent.stop(), 0)
        with open(log) as f:
            after = f.read().splitlines()
        self.check_lines(after, STDERR_LINE)
        self.assertIn("SIGHUP: log file reopened", after[0])
        self.assertTrue(any(l.endswith("velmar-snmp-agent: stopping") for l in after), after)
        with open(rotated) as f:
            self.assertFalse(any("stopping" in l for l in f))
        self.assertEqual([l for l in agent.stderr_lines if l.strip()], [])

    def test_net_snmp_lines_come_with_levels_too(self):
        # Net-SNMP's debug output (snmp_log) goes through the same destination.
        text = self.run_and_stop(["--log", "stderr", "--debug", "snmp_agent"])
        self.check_lines(text.splitlines(), STDERR_LINE)
        self.assertRegex(text, r" debug velmar-snmp-agent: ")

    def test_bad_log_destination_is_refused(self):
        rc, out, err = run_agent(["--state", self.state, "--log", "kafka"])
        self.assertEqual(rc, 2, err)
        self.assertIn("--log kafka: unknown destination", err)
        rc, out, err = run_agent(["--state", self.state, "--log", "file:" + self.tmp.file("no/such/dir/x.log")])
        self.assertEqual(rc, 2, err)
        self.assertIn("cannot open", err)

    @unittest.skipUnless(shutil.which("unshare") and os.geteuid() == 0, "needs root for a private /dev")
    def test_syslog_lines_have_daemon_facility_and_levels(self):
        # In a private mount namespace with a private /dev, /dev/log is a socket of this test.
        script = r'''
import os, signal, socket, subprocess, sys, time
os.system("mount -t tmpfs velmar-dev /dev && mknod -m 666 /dev/null c 1 3 && mknod -m 666 /dev/urandom c 1 9")
s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
s.bind("/dev/log")
s.settimeout(0.2)
p = subprocess.Popen(sys.argv[1:], stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)
got = []
deadline = time.time() + 10
while time.time() < deadline and not any(b"serving VELMAR-DAEMON-MIB" in g for g in got):
    try:
        got.append(s.recv(65536))
    except socket.timeout:
        pass
p.send_signal(signal.SIGTERM)
p.wait(10)
try:
    while True:
        got.append(s.recv(65536))
except socket.timeout:
    pass
for g in got:
    print(g.decode("utf-8", "replace"))
print("STDERR:" + p.stderr.read().decode("utf-8", "replace").replace("\n", "|"))
'''
        port = h.free_port()
        r = subprocess.run(["unshare", "--mount", "--propagation", "private", "--", sys.executable, "-c", script,
                            h.AGENT, "--state", self.state, "--listen", "udp:127.0.0.1:%d" % port, "--log", "syslog"],
                           capture_output=True, text=True, timeout=60)
        lines = r.stdout.splitlines()
        self.assertEqual(lines[-1], "STDERR:", r.stdout + r.stderr)
        messages = lines[:-1]
        self.assertTrue(any("serving VELMAR-DAEMON-MIB" in m for m in messages), r.stdout + r.stderr)
        for m in messages:
            pri = re.match(r"^<(\d+)>", m)
            self.assertIsNotNone(pri, m)
            self.assertEqual(int(pri.group(1)) >> 3, 3, m)   # LOG_DAEMON
            self.assertIn("velmar-snmp-agent[", m)
        self.assertTrue(any(m.startswith("<29>") and "serving VELMAR-DAEMON-MIB" in m for m in messages), messages)   # notice


class RefusalTest(Fixture):
    def assert_refused(self, args, code, needles):
        rc, out, err = run_agent(["--state", self.state, "--log", "stderr"] + args)
        self.assertEqual(rc, code, err)
        for n in needles:
            self.assertIn(n, err)
        self.assertNotIn("serving VELMAR-DAEMON-MIB", out + err)
        return err

    def test_config_typo_is_refused_with_file_and_line(self):
        conf = self.config("rocommunity public 127.0.0.1\n\nsysLocaton Rack 7\n")
        err = self.assert_refused(["--listen", "udp:127.0.0.1:%d" % h.free_port(), "--config", conf], 2,
                                  ["--config refused: %s: line 3:" % conf, "Unknown token: sysLocaton"])
        self.assertRegex(err, r" error velmar-snmp-agent: --config refused")

    def test_config_bad_argument_is_refused_with_file_and_line(self):
        conf = self.config("rocommunity public 127.0.0.1\nrocommunity\n")
        self.assert_refused(["--listen", "udp:127.0.0.1:%d" % h.free_port(), "--config", conf], 2,
                            ["--config refused: %s: line 2: Error:" % conf, "rocommunity"])

    def test_access_directives_for_a_subagent_are_refused_saying_why(self):
        conf = self.config("rocommunity public 127.0.0.1\n")
        sock = os.path.join(os.path.dirname(conf), "no-master.sock")
        self.assert_refused(["--agentx", sock, "--config", conf], 2,
                            ["--config refused: %s: line 1:" % conf, "Unknown token: rocommunity",
                             "an AgentX subagent takes no access control"])

    def test_address_in_use(self):
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            s.bind(("127.0.0.1", 0))
            port = s.getsockname()[1]
            self.assert_refused(["--listen", "udp:127.0.0.1:%d" % port], 1,
                                ["cannot listen on udp:127.0.0.1:%d: address in use" % port])

    def test_second_address_in_use_is_the_one_named(self):
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
            s.bind(("127.0.0.1", 0))
            s.listen(1)
            port = s.getsockname()[1]
            free = h.free_port()
            self.assert_refused(["--listen", "udp:127.0.0.1:%d" % free, "--listen", "tcp:127.0.0.1:%d" % port], 1,
                                ["cannot listen on tcp:127.0.0.1:%d: address in use" % port])

    def test_not_an_address_of_this_host(self):
        # 192.0.2.1 (TEST-NET-1) is never assigned here; nothing is sent to it.
        self.assert_refused(["--listen", "udp:192.0.2.1:%d" % h.free_port()], 1,
                            ["cannot listen on udp:192.0.2.1:", "not an address of this host"])

    def test_bad_syntax(self):
        self.assert_refused(["--listen", "udp:127.0.0.999:1161"], 1,
                            ["cannot listen on udp:127.0.0.999:1161: not a valid address"])

    def test_permission(self):
        # A port below 1024 without the privilege: when this runs as root, as root without
        # CAP_NET_BIND_SERVICE (dropped from the bounding and inheritable sets), which still
        # reaches the agent and its libraries wherever the clone is (a mode-700 home too).
        try:
            with open("/proc/sys/net/ipv4/ip_unprivileged_port_start") as f:
                if int(f.read()) <= 161:
                    self.skipTest("this host lets anyone bind low ports")
        except OSError:
            pass
        prefix = []
        if os.geteuid() == 0:
            if not shutil.which("setpriv"):
                self.skipTest("no setpriv to drop CAP_NET_BIND_SERVICE")
            prefix = ["setpriv", "--bounding-set=-net_bind_service", "--inh-caps=-net_bind_service", "--"]
            probe = subprocess.run(prefix + ["true"], capture_output=True, text=True, timeout=10)
            if probe.returncode != 0:
                self.skipTest("setpriv cannot drop CAP_NET_BIND_SERVICE here: " + probe.stderr.strip())
        p = subprocess.run(prefix + [h.AGENT, "--state", self.state, "--log", "stderr", "--listen", "udp:127.0.0.1:161"],
                           capture_output=True, text=True, timeout=30)
        self.assertEqual(p.returncode, 1, p.stderr)
        self.assertIn("cannot listen on udp:127.0.0.1:161: permission denied", p.stderr)


class SymlinkTest(Fixture):
    def wait_options(self, port, state, timeout=10):
        expected = h.expected_rows(state)["option"]
        deadline = time.time() + timeout
        got = None
        while time.time() < deadline:
            got = h.walk(port, h.TABLES["option"][0])
            if got == expected:
                return
            time.sleep(0.1)
        self.assertEqual(got, expected)

    def state_with(self, asn):
        s = json.loads(json.dumps(STATE))
        s["daemons"]["bgpd"]["config"]["options"]["asn"] = asn
        return s

    def test_state_file_given_as_a_symlink_follows_its_target(self):
        # The link in one directory, its target in another (as a release directory would).
        real_dir = self.tmp.file("releases")
        os.mkdir(real_dir)
        target = os.path.join(real_dir, "state-1.json")
        h.write_state(target, self.state_with("1"))
        link = self.tmp.file("current.json")
        os.symlink(target, link)
        port = h.free_port()
        agent = h.Agent(link, port=port)
        self.addCleanup(agent.stop)
        self.wait_options(port, self.state_with("1"))

        # The target replaced by rename in its own directory.
        h.write_state(target, self.state_with("2"))
        self.wait_options(port, self.state_with("2"))

        # The target rewritten in place.
        with open(target, "w") as f:
            json.dump(self.state_with("3"), f)
        self.wait_options(port, self.state_with("3"))

        # The link pointed elsewhere (a new link renamed over it), then that target rewritten.
        other = os.path.join(real_dir, "state-2.json")
        h.write_state(other, self.state_with("4"))
        tmp_link = self.tmp.file("current.json.new")
        os.symlink(other, tmp_link)
        os.rename(tmp_link, link)
        self.wait_options(port, self.state_with("4"))
        h.write_state(other, self.state_with("5"))
        self.wait_options(port, self.state_with("5"))
        # The old target no longer counts.
        h.write_state(target, self.state_with("6"))
        time.sleep(0.5)
        self.wait_options(port, self.state_with("5"), timeout=1)

        # The link removed and made again in one step (ln -sf), to the first target.
        os.unlink(link)
        os.symlink(target, link)
        self.wait_options(port, self.state_with("6"))
        self.assertTrue(agent.alive())


class CheckTest(Fixture):
    def test_good_state_and_config(self):
        conf = self.config("rocommunity public 127.0.0.1\nsyslocation Rack 7\n")
        port = h.free_port()
        rc, out, err = run_agent(["--check", "--state", self.state, "--config", conf,
                                  "--listen", "udp:127.0.0.1:%d" % port])
        self.assertEqual(rc, 0, out + err)
        self.assertIn("state file %s: 2 daemons, %d rows" % (self.state, ROWS), out)
        self.assertIn("would listen on udp:127.0.0.1:%d" % port, out)
        self.assertIn(conf + ": accepted", out)
        # Nothing was opened: the port is still free.
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            s.bind(("127.0.0.1", port))

    def test_agentx_names_the_master(self):
        rc, out, err = run_agent(["--check", "--state", self.state, "--agentx", self.tmp.file("master")])
        self.assertEqual(rc, 0, out + err)
        self.assertIn("would register with the AgentX master at " + self.tmp.file("master"), out)
        self.assertFalse(os.path.exists(self.tmp.file("master")))

    def test_bad_state(self):
        # A file refused whole, and a file with one bad daemon entry (served without it, but
        # not what its writer meant).
        for name, text, needle in (("syntax", '{"daemons": {', "state file " + self.state),
                                   ("bad entry", '{"daemons": {"bgpd": {"config": {"enabled": "yes"}}, "ntpd": {}}}',
                                    'daemon "bgpd"')):
            with self.subTest(name):
                with open(self.state, "w") as f:
                    f.write(text)
                rc, out, err = run_agent(["--check", "--state", self.state])
                self.assertEqual(rc, 2, out + err)
                self.assertEqual(out, "")
                self.assertIn(needle, err)

    def test_bad_config(self):
        conf = self.config("rocommunity public 127.0.0.1\nrouser\n")
        rc, out, err = run_agent(["--check", "--state", self.state, "--config", conf])
        self.assertEqual(rc, 2, out + err)
        self.assertIn("%s: line 2:" % conf, err)

    def test_bad_address(self):
        rc, out, err = run_agent(["--check", "--state", self.state, "--listen", "udp:127.0.0.999:1161"])
        self.assertEqual(rc, 2, out + err)
        self.assertIn("--listen udp:127.0.0.999:1161: not a valid address", err)


class ReadinessTest(Fixture):
    def notify_socket(self):
        path = self.tmp.file("notify")
        s = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        s.bind(path)
        s.settimeout(0.2)
        self.addCleanup(s.close)
        return s, path

    def test_ready_once_the_tables_answer_and_watchdog_pings(self):
        sock, path = self.notify_socket()
        port = h.free_port()
        env = dict(os.environ, NOTIFY_SOCKET=path, WATCHDOG_USEC="400000")
        proc = subprocess.Popen([h.AGENT, "--state", self.state, "--listen", "udp:127.0.0.1:%d" % port, "--log", "stderr"],
                                stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, env=env)
        messages = []
        try:
            deadline = time.time() + 15
            while time.time() < deadline and not any("READY=1" in m for m in messages):
                self.assertIsNone(proc.poll(), "agent exited")
                try:
                    messages.append(sock.recv(4096).decode())
                except socket.timeout:
                    pass
            ready = [m for m in messages if "READY=1" in m]
            self.assertTrue(ready, messages)
            self.assertIn("serving VELMAR-DAEMON-MIB", ready[0])
            # READY comes after the tables are registered: they answer at once.
            self.assertEqual(h.walk(port, h.TABLES["option"][0]), h.expected_rows(STATE)["option"])
            deadline = time.time() + 5
            while time.time() < deadline and sum("WATCHDOG=1" in m for m in messages) < 3:
                try:
                    messages.append(sock.recv(4096).decode())
                except socket.timeout:
                    pass
            self.assertGreaterEqual(sum("WATCHDOG=1" in m for m in messages), 3, messages)
        finally:
            proc.send_signal(signal.SIGTERM)
            self.assertEqual(proc.wait(10), 0)
        try:
            while True:
                messages.append(sock.recv(4096).decode())
        except socket.timeout:
            pass
        self.assertTrue(any("STOPPING=1" in m for m in messages), messages)

    def test_no_ready_when_the_start_fails(self):
        sock, path = self.notify_socket()
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as busy:
            busy.bind(("127.0.0.1", 0))
            env = dict(os.environ, NOTIFY_SOCKET=path)
            rc, out, err = run_agent(["--state", self.state, "--listen", "udp:127.0.0.1:%d" % busy.getsockname()[1]],
                                     env=env)
        self.assertEqual(rc, 1, err)
        messages = []
        try:
            while True:
                messages.append(sock.recv(4096).decode())
        except socket.timeout:
            pass
        self.assertFalse(any("READY=1" in m for m in messages), messages)


if __name__ == "__main__":
    unittest.main()
