"""velmar-snmp-agent --systemd (and snmpd with velmarSystemd) against the real systemd of the
test sandbox, read over SNMP with Net-SNMP's tools: the agent runs outside the sandbox on its
bus socket, and every change made with systemctl shows in an SNMP GET within one second.
Skipped, with the reason, where the sandbox cannot boot (not root, no unshare or overlayfs).
"""

import os
import re
import signal
import subprocess
import sys
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "agent"))
sys.path.insert(0, HERE)

import velmar_harness as h  # noqa: E402
import velmar_sandbox  # noqa: E402

UNITS = "velmar-*"
LONG_NAME = "velmar-a-service-whose-name-is-well-over-32-bytes"
SANDBOX = None
SKIP = None


def setUpModule():
    global SANDBOX, SKIP
    try:
        SANDBOX = velmar_sandbox.Sandbox()
    except velmar_sandbox.SandboxUnavailable as e:
        SKIP = str(e)


def tearDownModule():
    if SANDBOX:
        SANDBOX.stop()


flag_oid, value_oid, get_one, within = h.flag_oid, h.value_oid, h.get_one, h.within


def sandbox_services():
    """{daemon name: (enabled, running)} of the sandbox's loaded velmar-* services, from
    systemctl itself."""
    out = SANDBOX.run("systemctl list-units --all --plain --no-legend --type=service 'velmar-*'")
    found = {}
    for line in out.splitlines():
        unit = line.split()[0]
        name = unit[: -len(".service")]
        state = SANDBOX.run("systemctl is-enabled %s; true" % unit).strip()
        sub = SANDBOX.run("systemctl show -P SubState %s" % unit).strip()
        found[name] = (state in ("enabled", "enabled-runtime"), sub in ("running", "reload"))
    return found


def start_agent(bus, extra=()):
    port = h.free_port()
    argv = [h.AGENT, "--systemd", "--units", UNITS, "--refresh", "1", "--system-bus", bus,
            "--listen", "udp:127.0.0.1:%d" % port] + list(extra)
    agent = h.Process(argv, "serving VELMAR-DAEMON-MIB")
    agent.port = port
    return agent


def start_line(agent):
    """The agent's start line (in its log, standard error by default)."""
    lines = [l for l in agent.stderr_lines if "serving VELMAR-DAEMON-MIB" in l]
    return lines[0] if lines else ""


class SandboxTest(unittest.TestCase):
    def setUp(self):
        if SKIP:
            self.skipTest(SKIP)


class AgentOnSandboxTest(SandboxTest):
    """One agent on the sandbox's bus for all cases; each case leaves the units as it found them."""

    agent = None

    @classmethod
    def setUpClass(cls):
        if SKIP:
            return
        cls.agent = start_agent(SANDBOX.bus)

    @classmethod
    def tearDownClass(cls):
        if cls.agent:
            cls.agent.stop()

    def running(self, name):
        return flag_oid("running", name)

    def enabled(self, name):
        return flag_oid("enabled", name)

    def test_start_line_names_systemd_and_counts_what_is_served(self):
        line = start_line(self.agent)
        self.assertIn("from systemd (system bus %s, units %s) on udp:127.0.0.1:%d: " % (SANDBOX.bus, UNITS, self.agent.port),
                      line)
        expected = len([n for n in sandbox_services() if len(n.encode()) <= 32])
        self.assertIn(": %d daemons, " % expected, line)
        self.assertIn("; 1 unit skipped (name over 32 bytes)", line)
        skipped = [l for l in self.agent.stderr_lines if LONG_NAME in l]
        self.assertEqual(len(skipped), 1, self.agent.stderr())

    def test_walk_shows_each_service_as_systemctl_does(self):
        services = sandbox_services()
        self.assertIn(LONG_NAME, services)
        running = {bytes(oid[len(h.TABLES["running"][0]) + 3:]).decode(): v
                   for oid, v in h.walk(self.agent.port, h.TABLES["running"][0])}
        enabled = {bytes(oid[len(h.TABLES["enabled"][0]) + 3:]).decode(): v
                   for oid, v in h.walk(self.agent.port, h.TABLES["enabled"][0])}
        del services[LONG_NAME]
        self.assertEqual(sorted(running), sorted(services))
        self.assertEqual(sorted(enabled), sorted(services))
        for name, (is_enabled, is_running) in services.items():
            if name == "velmar-flaky":
                continue  # restarts every second: running comes and goes
            self.assertEqual(enabled[name], h.TRUE if is_enabled else h.FALSE, name)
            self.assertEqual(running[name], h.TRUE if is_running else h.FALSE, name)
        self.assertEqual(get_one(self.agent.port, value_oid("option", "velmar-long", "ExecStart")), b"/bin/sleep")
        self.assertEqual(get_one(self.agent.port, value_oid("data", "velmar-once", "SubState")), b"exited")
        pid = SANDBOX.run("systemctl show -P MainPID velmar-long").strip()
        self.assertEqual(get_one(self.agent.port, value_oid("data", "velmar-long", "MainPID")), pid.encode())

    def test_stop_and_start_within_one_second(self):
        SANDBOX.run("systemctl stop velmar-long")
        self.assertIsNotNone(within(self.agent.port, self.running("velmar-long"), h.FALSE), self.agent.stderr())
        self.assertIsNone(get_one(self.agent.port, value_oid("data", "velmar-long", "MainPID")))
        SANDBOX.run("systemctl start velmar-long")
        self.assertIsNotNone(within(self.agent.port, self.running("velmar-long"), h.TRUE), self.agent.stderr())
        pid = SANDBOX.run("systemctl show -P MainPID velmar-long").strip()
        self.assertIsNotNone(within(self.agent.port, value_oid("data", "velmar-long", "MainPID"), pid.encode()))

    def test_kill_within_one_second(self):
        try:
            SANDBOX.run("systemctl kill -s KILL velmar-worker@1")
            self.assertIsNotNone(within(self.agent.port, self.running("velmar-worker@1"), h.FALSE), self.agent.stderr())
            self.assertIsNotNone(within(self.agent.port, value_oid("data", "velmar-worker@1", "Result"), b"signal"))
        finally:
            SANDBOX.run("systemctl reset-failed velmar-worker@1; systemctl start velmar-worker@1")
        self.assertIsNotNone(within(self.agent.port, self.running("velmar-worker@1"), h.TRUE))

    def test_enable_and_disable_within_one_second(self):
        SANDBOX.run("systemctl enable velmar-off 2>/dev/null")
        try:
            self.assertIsNotNone(within(self.agent.port, self.enabled("velmar-off"), h.TRUE), self.agent.stderr())
            self.assertIsNotNone(within(self.agent.port, value_oid("option", "velmar-off", "UnitFileState"), b"enabled"))
        finally:
            SANDBOX.run("systemctl disable velmar-off 2>/dev/null")
        self.assertIsNotNone(within(self.agent.port, self.enabled("velmar-off"), h.FALSE), self.agent.stderr())

    def test_daemon_reload_after_a_unit_file_changed_within_one_second(self):
        path = "/etc/systemd/system/velmar-once.service"
        mark = len(self.agent.stderr_lines)
        SANDBOX.run("sed -i 's/^Description=.*/Description=edited by the test/' %s && systemctl daemon-reload" % path)
        self.assertIsNotNone(within(self.agent.port, value_oid("option", "velmar-once", "Description"), b"edited by the test"),
                             self.agent.stderr())
        # A reload unloads and loads every unit: none of them may go meanwhile.
        gone = [l for l in self.agent.stderr_lines[mark:] if "daemons:" in l and " 0 removed;" not in l]
        self.assertEqual(gone, [])

    def test_removed_unit_goes_within_one_second(self):
        SANDBOX.run("printf '[Service]\\nExecStart=/bin/sleep infinity\\n' > /etc/systemd/system/velmar-gone.service && "
                    "systemctl daemon-reload && systemctl start velmar-gone")
        self.assertIsNotNone(within(self.agent.port, self.running("velmar-gone"), h.TRUE), self.agent.stderr())
        SANDBOX.run("systemctl stop velmar-gone && rm /etc/systemd/system/velmar-gone.service && systemctl daemon-reload")
        self.assertIsNotNone(within(self.agent.port, self.running("velmar-gone"), None), self.agent.stderr())
        self.assertIsNone(get_one(self.agent.port, self.enabled("velmar-gone")))

    def test_restarts_of_a_failing_service_are_counted(self):
        oid = value_oid("data", "velmar-flaky", "NRestarts")
        before = int(get_one(self.agent.port, oid) or b"0")
        deadline = time.monotonic() + 6
        now = before
        while time.monotonic() < deadline and now <= before:
            time.sleep(0.2)
            now = int(get_one(self.agent.port, oid) or b"0")
        self.assertGreater(now, before)

    def test_the_long_name_is_never_served(self):
        SANDBOX.run("systemctl restart %s.service" % LONG_NAME)
        time.sleep(0.3)
        rows = h.walk(self.agent.port, h.ROOT)
        self.assertFalse([oid for oid, _ in rows if bytes(LONG_NAME[:20], "ascii") in bytes(b for b in oid if b < 256)])
        self.assertEqual(len([l for l in self.agent.stderr_lines if LONG_NAME in l]), 1, self.agent.stderr())


class UnreachableBusTest(SandboxTest):
    def test_serves_nothing_says_so_once_and_connects_when_the_bus_appears(self):
        tmp = h.TempDir()
        self.addCleanup(tmp.cleanup)
        path = tmp.file("bus.sock")
        agent = start_agent("unix:path=" + path)
        self.addCleanup(agent.stop)
        line = start_line(agent)
        self.assertIn(": 0 daemons, 0 rows (", line)
        self.assertIn("; not connected to systemd yet, trying again", line)
        self.assertEqual(h.walk(agent.port, h.ROOT), [])
        time.sleep(1.5)                 # several retries
        self.assertTrue(agent.alive())
        lines = [l for l in agent.stderr_lines if "cannot connect" in l]
        self.assertEqual(len(lines), 1, agent.stderr())
        self.assertIn(path, lines[0])
        os.symlink("/proc/%d/root/run/dbus/system_bus_socket" % SANDBOX.systemd_pid, path)
        self.assertIsNotNone(agent.wait_stderr("connected; reading every unit", timeout=8), agent.stderr())
        self.assertIsNotNone(within(agent.port, flag_oid("running", "velmar-long"), h.TRUE), agent.stderr())


class NotificationOnSandboxTest(SandboxTest):
    def test_systemctl_stop_sends_a_running_change_trap(self):
        import test_notify as tn
        tmp = h.TempDir()
        self.addCleanup(tmp.cleanup)
        trapd = tn.Trapd(tmp.path)
        self.addCleanup(trapd.stop)
        config = tmp.file("access.conf")
        with open(config, "w") as f:
            f.write("rocommunity public 127.0.0.1\ntrap2sink udp:127.0.0.1:%d public\n" % trapd.port)
        agent = start_agent(SANDBOX.bus, ["--config", config])
        self.addCleanup(agent.stop)
        self.assertIsNotNone(within(agent.port, flag_oid("running", "velmar-long"), h.TRUE), agent.stderr())
        time.sleep(0.5)
        # velmar-flaky fails and is restarted every second: its notifications are real.
        at_load = [vars_ for _, vars_ in trapd.notifications() if '"velmar-flaky"' not in vars_[-1][0]]
        self.assertEqual(at_load, [], "loading systemd's units sent notifications")
        stopped = tn.trapd_named(tn.RUNNING_CHANGE, "velmar-long", True, False, 0)[:3]
        try:
            SANDBOX.run("systemctl stop velmar-long")
            deadline = time.time() + 5
            got = []
            while time.time() < deadline:
                got = [vars_[1:4] for _, vars_ in trapd.notifications()]
                if stopped in got:
                    break
                time.sleep(0.05)
            self.assertIn(stopped, got, "snmptrapd:\n%s\nagent:\n%s" % (trapd.output(), agent.stderr()))
        finally:
            SANDBOX.run("systemctl start velmar-long")
        self.assertIsNotNone(within(agent.port, flag_oid("running", "velmar-long"), h.TRUE), agent.stderr())


history_oid = h.history_oid


def running_changes(port, name):
    return h.counter(port, history_oid(name))


class HistoryOnSandboxTest(SandboxTest):
    """The history counts what systemctl and a killed process do, and a running change tells
    why through snmptrapd and the pysnmp receiver."""

    def setUp(self):
        super().setUp()
        import test_notify as tn
        self.tn = tn
        tmp = h.TempDir()
        self.addCleanup(tmp.cleanup)
        self.trapd = tn.Trapd(tmp.path)
        self.addCleanup(self.trapd.stop)
        self.recv = tn.PyReceiver() if tn.pysnmp_ok() else None
        if self.recv:
            self.addCleanup(self.recv.stop)
        config = tmp.file("access.conf")
        with open(config, "w") as f:
            f.write("rocommunity public 127.0.0.1\ntrap2sink udp:127.0.0.1:%d public\n" % self.trapd.port)
            if self.recv:
                f.write("trap2sink udp:127.0.0.1:%d public\n" % self.recv.port)
        # A short hold-down, so that each change of a restart is sent on its own.
        self.agent = start_agent(SANDBOX.bus, ["--config", config, "--notify-holddown", "0"])
        self.addCleanup(self.agent.stop)
        self.assertIsNotNone(within(self.agent.port, flag_oid("running", "velmar-always"), h.TRUE), self.agent.stderr())
        # Changes flow: velmar-flaky's restarts (one a second) are applied after the start
        # line, so the source hears systemd's signals before the case changes anything.
        serving = next(i for i, l in enumerate(self.agent.stderr_lines) if "serving VELMAR-DAEMON-MIB" in l)
        self.assertTrue(self.agent.wait_stderr("applied", timeout=10.0, start=serving + 1), self.agent.stderr())

    def wait_count(self, name, wanted, limit=10.0):
        deadline = time.monotonic() + limit
        got = None
        while time.monotonic() < deadline:
            got = running_changes(self.agent.port, name)
            if got == wanted:
                return got
            time.sleep(0.05)
        self.fail("%s: running changes %s, wanted %s\nagent:\n%s" % (name, got, wanted, self.agent.stderr()))

    def test_systemctl_restart_counts_two_changes(self):
        # A service that takes a moment to stop, as real daemons do: systemd announces it
        # stopping and starting again, and the history counts both, whatever a poll sees.
        self.assertIsNotNone(within(self.agent.port, flag_oid("running", "velmar-slowstop"), h.TRUE), self.agent.stderr())
        before = running_changes(self.agent.port, "velmar-slowstop")
        self.assertIsNotNone(before)
        SANDBOX.run("systemctl restart velmar-slowstop")
        self.wait_count("velmar-slowstop", before + 2)
        self.assertIsNotNone(within(self.agent.port, flag_oid("running", "velmar-slowstop"), h.TRUE))

    def test_restarts_of_a_service_that_stops_at_once_are_each_counted_twice(self):
        # sleep ends at SIGTERM (and the unit has no start limit): each restart is over
        # within milliseconds, and systemd's signals about it can arrive together. Three in
        # a row count six, whatever the load.
        self.assertIsNotNone(within(self.agent.port, flag_oid("running", "velmar-always"), h.TRUE), self.agent.stderr())
        before = running_changes(self.agent.port, "velmar-always")
        self.assertIsNotNone(before)
        for _ in range(3):
            SANDBOX.run("systemctl restart velmar-always")
        self.wait_count("velmar-always", before + 6)
        self.assertIsNotNone(within(self.agent.port, flag_oid("running", "velmar-always"), h.TRUE))
        pid = SANDBOX.run("systemctl show -P MainPID velmar-always").strip()
        self.assertIsNotNone(within(self.agent.port, value_oid("data", "velmar-always", "MainPID"), pid.encode()))

    def test_kill_9_of_a_restarted_service_is_counted_and_the_notification_says_why(self):
        before = running_changes(self.agent.port, "velmar-always")
        SANDBOX.run("systemctl kill -s KILL velmar-always")
        # Down, then up again a second later by Restart=always: a poller might see neither.
        self.wait_count("velmar-always", before + 1)
        self.wait_count("velmar-always", before + 2)
        name = '"velmar-always"'
        deadline = time.time() + 5
        down = None
        while time.time() < deadline and down is None:
            for _, vars_ in self.trapd.notifications():
                flags = dict(vars_)
                if flags.get('VELMAR-DAEMON-MIB::velmarDaemonRunning.%s' % name) == "INTEGER: false(2)":
                    down = flags
            time.sleep(0.05)
        self.assertIsNotNone(down, "no running change to false at snmptrapd:\n%s" % self.trapd.output())
        self.assertEqual(down['VELMAR-DAEMON-MIB::velmarDaemonRunningChanges.%s' % name], "Counter32: %d" % (before + 1))
        self.assertEqual(down['VELMAR-DAEMON-MIB::velmarDaemonDataValue.%s."Result"' % name], 'STRING: signal')
        self.assertEqual(down['VELMAR-DAEMON-MIB::velmarDaemonDataValue.%s."ExecMainStatus"' % name], 'STRING: 9')
        if self.recv:
            count_oid = history_oid("velmar-always")
            result_oid = value_oid("data", "velmar-always", "Result")
            status_oid = value_oid("data", "velmar-always", "ExecMainStatus")
            deadline = time.time() + 5
            seen = None
            while time.time() < deadline and seen is None:
                for vbs in self.recv.notifications():
                    d = dict(vbs)
                    if d.get(flag_oid("running", "velmar-always")) == h.FALSE:
                        seen = d
                time.sleep(0.05)
            self.assertIsNotNone(seen, "no running change to false at the pysnmp receiver:\n%s" % self.recv.output())
            self.assertEqual((seen.get(count_oid), seen.get(result_oid), seen.get(status_oid)),
                             (before + 1, "signal", "9"))


def sanitized_agent():
    """True when the agent under test is built with AddressSanitizer."""
    p = subprocess.run(["ldd", h.AGENT], stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, timeout=30)
    return "libasan" in p.stdout


class PackagedUnitBase(SandboxTest):
    """The packaged unit as shipped, with ExecStart replaced, installed into the sandbox."""

    def setUp(self):
        super().setUp()
        # The sandbox's root is an overlay of the host's root file system only.
        if SANDBOX.run("test -x %s && echo yes" % h.AGENT, check=False).strip() != "yes":
            self.skipTest("the built agent (%s) is on a mount the sandbox does not carry" % h.AGENT)
        # The shipped unit runs the agent as an unprivileged user of its own.
        if SANDBOX.run("setpriv --reuid=65534 --regid=65534 --clear-groups test -x %s && echo yes" % h.AGENT,
                       check=False).strip() != "yes":
            self.skipTest("the built agent (%s) is not reachable by an unprivileged user (a private home?)" % h.AGENT)
        SANDBOX.run("mkdir -p /run/velmar-test && chmod 755 /run/velmar-test")
        # The package's system user, made the way its postinst makes it.
        SANDBOX.run("systemd-sysusers %s" % os.path.join(h.SOURCE_DIR, "packaging", "velmar-daemon-mib.sysusers"))

    def install_unit(self, name, exec_args, extra="", exec_start=None):
        with open(os.path.join(h.SOURCE_DIR, "packaging", "velmar-snmp-agent.service")) as f:
            unit = f.read()
        unit = re.sub(r"^ExecStart=.*$", exec_start or "ExecStart=%s %s" % (h.AGENT, exec_args), unit, flags=re.M)
        if "--listen" in exec_args:
            # Master mode on an IP address: what the unit's comment says to override.
            unit += "\n[Service]\nIPAddressDeny=\n"
        # The build tree may be under /home; the installed agent is in /usr/bin.
        unit = unit.replace("ProtectHome=yes", "ProtectHome=no")
        if sanitized_agent():
            # The sanitizer runtime's exit makes system calls outside the filter's set (the
            # stop then hangs until systemd kills it): a sanitizer build runs without the
            # filter; the default build runs the unit as shipped.
            unit = re.sub(r"^SystemCallFilter=.*\n", "", unit, flags=re.M)
        unit += extra
        SANDBOX.run("cat > /etc/systemd/system/%s.service <<'UNIT_END'\n%sUNIT_END\n"
                    "systemctl daemon-reload" % (name, unit))
        self.addCleanup(SANDBOX.run, "systemctl stop %s; rm -f /etc/systemd/system/%s.service; systemctl daemon-reload"
                        % (name, name), 60.0, False)

    def show(self, name, prop):
        return SANDBOX.run("systemctl show -P %s %s" % (prop, name), check=False).strip()

class PackagedUnitTest(PackagedUnitBase):
    """The packaged unit (Type=notify, watchdog, hardening) run by the sandbox's systemd,
    with ExecStart pointing at the built agent: systemd learns when the agent serves, and a
    start that cannot serve fails instead of looking started."""

    def test_ready_once_serving_with_status_journal_and_reload(self):
        SANDBOX.run("cp %s /run/velmar-test/ok.json" % os.path.join(h.SOURCE_DIR, "examples", "demo-state.json"))
        self.install_unit("packaged-agent-ok", "--state /run/velmar-test/ok.json --listen udp:127.0.0.1:11161")
        out = SANDBOX.run("systemctl start packaged-agent-ok; echo rc=$?", timeout=60.0, check=False)
        self.assertIn("rc=0", out)
        self.assertEqual(self.show("packaged-agent-ok", "ActiveState"), "active")
        self.assertEqual(self.show("packaged-agent-ok", "Type"), "notify")
        self.assertIn("serving VELMAR-DAEMON-MIB", self.show("packaged-agent-ok", "StatusText"))
        # Ready means answering: the first GET after the start returns the row.
        rc, out, err = (lambda p: (p.returncode, p.stdout, p.stderr))(subprocess.run(
            ["nsenter", "-t", str(SANDBOX.systemd_pid), "-n", "snmpget", "-v2c", "-c", "public", "-r", "0", "-t", "2",
             "-On", "udp:127.0.0.1:11161", h.oid_str(flag_oid("enabled", "bgpd"))],
            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=30))
        self.assertEqual(rc, 0, out + err)
        self.assertIn("INTEGER: 1", out)
        # The journal has the lines with their priorities: notice for the start line.
        notices = SANDBOX.run("journalctl -u packaged-agent-ok -p notice --no-pager -o cat", check=False)
        self.assertIn("serving VELMAR-DAEMON-MIB", notices)
        # systemctl reload is SIGHUP: the source is read again.
        SANDBOX.run("systemctl reload packaged-agent-ok")
        deadline = time.time() + 5
        log = ""
        while time.time() < deadline and "SIGHUP: reading the state file" not in log:
            time.sleep(0.1)
            log = SANDBOX.run("journalctl -u packaged-agent-ok --no-pager -o cat", check=False)
        self.assertIn("SIGHUP: reading the state file /run/velmar-test/ok.json again", log)
        self.assertEqual(self.show("packaged-agent-ok", "ActiveState"), "active")

    def test_a_refused_state_file_fails_the_start(self):
        SANDBOX.run("echo '{\"daemons\": ' > /run/velmar-test/bad.json")
        self.install_unit("packaged-agent-bad", "--state /run/velmar-test/bad.json --listen udp:127.0.0.1:11162")
        out = SANDBOX.run("systemctl start packaged-agent-bad; echo rc=$?", timeout=60.0, check=False)
        self.assertNotIn("rc=0", out)
        self.assertNotEqual(self.show("packaged-agent-bad", "ActiveState"), "active")

    def test_a_master_that_never_comes_fails_the_start_after_its_timeout(self):
        SANDBOX.run("cp %s /run/velmar-test/ax.json" % os.path.join(h.SOURCE_DIR, "examples", "demo-state.json"))
        self.install_unit("packaged-agent-ax", "--agentx /run/velmar-test/no-master --state /run/velmar-test/ax.json",
                          "\n[Service]\nTimeoutStartSec=3s\nRestart=no\n")
        start = time.monotonic()
        out = SANDBOX.run("systemctl start packaged-agent-ax; echo rc=$?", timeout=60.0, check=False)
        self.assertNotIn("rc=0", out)
        self.assertGreaterEqual(time.monotonic() - start, 2.5, "the start did not wait for the master")
        self.assertEqual(self.show("packaged-agent-ax", "Result"), "timeout")
        log = SANDBOX.run("journalctl -u packaged-agent-ax --no-pager -o cat", check=False)
        self.assertIn("waiting for the master at /run/velmar-test/no-master", log)


class PackagedUnitPrivilegeTest(PackagedUnitBase):
    """What the shipped unit's settings leave a process that runs under them (a code
    execution bug in the agent, say): no systemd unit started over the bus, no /etc/shadow;
    and every mode still serves: AgentX to snmpd, the state file, systemd."""

    PROBE = ("id -u; "
             "if head -c1 /etc/shadow >/dev/null 2>&1; then echo shadow-read; else echo shadow-refused; fi; "
             "if systemd-run --no-block --unit=velmar-escape /bin/sleep 60 >/dev/null 2>&1; then echo unit-started; "
             "else echo unit-refused; fi")

    def test_the_unit_cannot_start_a_unit_or_read_shadow(self):
        self.install_unit("packaged-probe", "", "\n[Service]\nType=oneshot\nWatchdogSec=0\nRemainAfterExit=yes\n",
                          exec_start="ExecStart=/bin/sh -c '%s'" % self.PROBE)
        self.addCleanup(SANDBOX.run, "systemctl stop velmar-escape", 30.0, False)
        SANDBOX.run("systemctl start packaged-probe", timeout=60.0, check=False)
        out = SANDBOX.run("journalctl -u packaged-probe --no-pager -o cat", check=False)
        self.assertIn("shadow-refused", out)
        self.assertIn("unit-refused", out)
        self.assertNotIn("shadow-read", out)
        self.assertNotIn("unit-started", out)
        self.assertNotEqual(self.show("velmar-escape.service", "ActiveState"), "active")
        uid = [l for l in out.splitlines() if l.strip().isdigit()]
        self.assertTrue(uid and int(uid[0]) != 0, out)

    def wait_active(self, name, why=""):
        SANDBOX.run("systemctl start --no-block %s" % name)
        deadline = time.time() + 30
        while time.time() < deadline and self.show(name, "ActiveState") != "active":
            time.sleep(0.2)
        self.assertEqual(self.show(name, "ActiveState"), "active",
                         SANDBOX.run("journalctl -u %s --no-pager -o cat; %s" % (name, why or "true"), check=False))
        self.assertIn("serving VELMAR-DAEMON-MIB", self.show(name, "StatusText"))
        self.assertNotEqual(self.show(name, "MainPID"), "0")
        uid = SANDBOX.run("stat -c %%u /proc/%s" % self.show(name, "MainPID"), check=False).strip()
        self.assertNotEqual(uid, "0", "the agent runs as root")

    def snmpget(self, port, oid):
        p = subprocess.run(["nsenter", "-t", str(SANDBOX.systemd_pid), "-n", "snmpget", "-v2c", "-c", "public", "-r",
                            "1", "-t", "2", "-On", "udp:127.0.0.1:%d" % port, h.oid_str(oid)],
                           stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=30)
        return p.returncode, p.stdout + p.stderr

    def test_agentx_mode_serves_through_snmpd_with_the_shipped_socket_permissions(self):
        with open(os.path.join(h.SOURCE_DIR, "examples", "snmpd-agentx.conf")) as f:
            perms = re.search(r"^agentXPerms .*$", f.read(), re.M).group(0)
        SANDBOX.run("cp %s /run/velmar-test/ax-ok.json && chmod 644 /run/velmar-test/ax-ok.json"
                    % os.path.join(h.SOURCE_DIR, "examples", "demo-state.json"))
        conf = "\n".join(["master agentx", "agentXSocket /run/velmar-test/agentx/master", perms,
                          "view v included %s" % h.oid_str(h.ROOT), "rocommunity public 127.0.0.1 -V v", ""])
        SANDBOX.run("cat > /run/velmar-test/snmpd.conf <<'CONF_END'\n%sCONF_END\n" % conf)
        SANDBOX.run("systemd-run --unit=velmar-test-snmpd -p Environment=MIBS= /usr/sbin/snmpd -f -Lo -C "
                    "-c /run/velmar-test/snmpd.conf -I agentx,vacm_conf -u Debian-snmp -g Debian-snmp "
                    "udp:127.0.0.1:11171")
        self.addCleanup(SANDBOX.run, "systemctl stop velmar-test-snmpd", 30.0, False)
        deadline = time.time() + 10
        while time.time() < deadline and SANDBOX.run("test -S /run/velmar-test/agentx/master && echo yes",
                                                    check=False).strip() != "yes":
            time.sleep(0.1)
        self.install_unit("packaged-agent-agentx", "--agentx /run/velmar-test/agentx/master "
                          "--state /run/velmar-test/ax-ok.json --agentx-ping 1")
        self.wait_active("packaged-agent-agentx", "journalctl -u velmar-test-snmpd --no-pager -o cat; "
                         "ls -la /run/velmar-test/agentx")
        rc, out = self.snmpget(11171, flag_oid("enabled", "bgpd"))
        self.assertEqual(rc, 0, out)
        self.assertIn("INTEGER: 1", out)

    def test_state_file_mode_serves(self):
        SANDBOX.run("cp %s /run/velmar-test/st.json && chmod 644 /run/velmar-test/st.json"
                    % os.path.join(h.SOURCE_DIR, "examples", "demo-state.json"))
        self.install_unit("packaged-agent-st", "--state /run/velmar-test/st.json --listen udp:127.0.0.1:11172")
        self.wait_active("packaged-agent-st")
        rc, out = self.snmpget(11172, flag_oid("enabled", "bgpd"))
        self.assertEqual(rc, 0, out)

    def test_systemd_mode_serves(self):
        self.install_unit("packaged-agent-sd", "--systemd --listen udp:127.0.0.1:11173")
        self.wait_active("packaged-agent-sd")
        deadline = time.time() + 10   # the units are read after the start, not before it
        while True:
            rc, out = self.snmpget(11173, flag_oid("running", "velmar-long"))
            if "INTEGER: 1" in out or time.time() > deadline:
                break
            time.sleep(0.2)
        why = out + self.show("packaged-agent-sd", "StatusText") + SANDBOX.run(
            "journalctl -u packaged-agent-sd --no-pager -o cat | tail -5; systemctl is-active velmar-long", check=False)
        self.assertEqual(rc, 0, why)
        self.assertIn("INTEGER: 1", out, why)


class CommandLineTest(unittest.TestCase):
    def refused(self, args):
        p = subprocess.run([h.AGENT] + args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=30)
        self.assertEqual(p.returncode, 2, p.stderr)
        self.assertEqual(len(p.stderr.splitlines()), 1, p.stderr)
        return p.stderr

    def test_no_source_names_both(self):
        err = self.refused(["--listen", "udp:127.0.0.1:%d" % h.free_port()])
        self.assertIn("no launcher source: give --state FILE, --systemd or --supervisor", err)

    def test_state_and_systemd_exclude_each_other(self):
        demo = os.path.join(h.SOURCE_DIR, "examples", "demo-state.json")
        self.assertIn("--state, --systemd and --supervisor exclude each other", self.refused(["--state", demo, "--systemd"]))

    def test_systemd_options_need_systemd(self):
        demo = os.path.join(h.SOURCE_DIR, "examples", "demo-state.json")
        for opt, value in (("--units", "ssh.service"), ("--refresh", "5")):
            self.assertIn("%s applies to --systemd and --supervisor only" % opt, self.refused(["--state", demo, opt, value]))
        self.assertIn("--system-bus applies to --systemd only", self.refused(["--state", demo, "--system-bus", "unix:path=/x"]))

    def test_bad_patterns_are_named(self):
        err = self.refused(["--systemd", "--units", "ssh.service,,cron.service"])
        self.assertIn("--units ssh.service,,cron.service", err)
        self.assertIn("item 2 is empty", err)
        self.assertIn("--refresh", self.refused(["--systemd", "--refresh", "-1"]))

    def test_unreachable_bus_is_one_line_and_the_agent_runs_on(self):
        tmp = h.TempDir()
        self.addCleanup(tmp.cleanup)
        path = tmp.file("no-bus-here.sock")
        agent = start_agent("unix:path=" + path)
        self.addCleanup(agent.stop)
        self.assertIn("from systemd (system bus unix:path=%s, units %s)" % (path, UNITS), start_line(agent))
        line = start_line(agent)
        self.assertIn(": 0 daemons, 0 rows (", line)
        self.assertIn("; not connected to systemd yet, trying again", line)
        time.sleep(1.0)                 # several attempts
        self.assertTrue(agent.alive())
        self.assertEqual(h.walk(agent.port, h.ROOT), [])
        lines = [l for l in agent.stderr_lines if path in l and "serving VELMAR-DAEMON-MIB" not in l]
        self.assertEqual(len(lines), 1, agent.stderr())
        self.assertIn("cannot connect: No such file or directory; serving nothing, trying again", lines[0])
        self.assertEqual(agent.stop(), 0)

    def test_help_says_how(self):
        out = subprocess.run([h.AGENT, "--help"], stdout=subprocess.PIPE, text=True, timeout=30).stdout
        for opt in ("--systemd", "--units", "--refresh", "--system-bus"):
            self.assertIn(opt, out)


@unittest.skipUnless(os.access("/usr/sbin/snmpd", os.X_OK), "Debian's snmpd is not installed (apt-get install snmpd)")
class DlmodOnSandboxTest(SandboxTest):
    def test_velmar_systemd_serves_the_sandbox_and_follows_a_stop(self):
        import test_dlmod
        tmp = h.TempDir()
        self.addCleanup(tmp.cleanup)
        saved = os.environ.get("DBUS_SYSTEM_BUS_ADDRESS")
        os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = SANDBOX.bus
        try:
            snmpd = test_dlmod.Snmpd(tmp.path, ["dlmod velmar_daemon_mib %s" % test_dlmod.BRIDGE, "velmarSystemd " + UNITS])
        finally:
            if saved is None:
                del os.environ["DBUS_SYSTEM_BUS_ADDRESS"]
            else:
                os.environ["DBUS_SYSTEM_BUS_ADDRESS"] = saved
        self.addCleanup(snmpd.stop)
        self.assertIsNotNone(snmpd.wait_log("velmar_daemon_mib: serving VELMAR-DAEMON-MIB", timeout=10), snmpd.log())
        self.assertIsNotNone(within(snmpd.port, flag_oid("running", "velmar-long"), h.TRUE), snmpd.log())
        try:
            SANDBOX.run("systemctl stop velmar-long")
            self.assertIsNotNone(within(snmpd.port, flag_oid("running", "velmar-long"), h.FALSE), snmpd.log())
        finally:
            SANDBOX.run("systemctl start velmar-long")
        self.assertIsNotNone(within(snmpd.port, flag_oid("running", "velmar-long"), h.TRUE), snmpd.log())
        self.assertEqual(snmpd.stop(signal.SIGTERM, timeout=15.0), 0, snmpd.log())

    def test_velmar_systemd_with_velmar_state_file_serves_nothing(self):
        import test_dlmod
        tmp = h.TempDir()
        self.addCleanup(tmp.cleanup)
        demo = os.path.join(h.SOURCE_DIR, "examples", "demo-state.json")
        snmpd = test_dlmod.Snmpd(tmp.path, ["dlmod velmar_daemon_mib %s" % test_dlmod.BRIDGE, "velmarSystemd " + UNITS,
                                            'velmarStateFile "%s"' % demo])   # quoted: a clone's path may have a blank
        self.addCleanup(snmpd.stop)
        line = snmpd.wait_log("exclude each other (snmpd named the file and line above); serving nothing")
        self.assertIsNotNone(line, snmpd.log())
        self.assertIsNotNone(snmpd.wait_log("%s: line 5" % snmpd.config, timeout=1), snmpd.log())
        rows = h.walk(snmpd.port, h.ROOT)
        self.assertEqual([r for r in rows if isinstance(r[1], (int, bytes))], [], rows)


if __name__ == "__main__":
    unittest.main()
