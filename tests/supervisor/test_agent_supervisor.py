"""velmar-snmp-agent --supervisor against a real supervisord (Debian's), started here with a
private configuration and socket in a temporary directory, read over SNMP with Net-SNMP's
tools. With the event listener every change made with supervisorctl (or kill -9, or
supervisord itself going and coming) shows in an SNMP GET within one second; without it,
within the refresh interval.
"""

import os
import re
import signal
import sys
import tempfile
import time
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "agent"))
sys.path.insert(0, HERE)

import velmar_harness as h  # noqa: E402
import velmar_supervisord as vs  # noqa: E402

LISTENER = os.environ.get("VELMAR_SUPERVISOR_EVENTS", "")
BUS_LOST, OK = 4, 1
ISO = re.compile(rb"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\dZ$")

PROGRAMS = {
    "program:longrun": ["command=/bin/sleep 100000", "startsecs=1", "stopwaitsecs=2"],
    # Runs long enough to count as started, then fails; supervisord keeps the exit status
    # only while it is EXITED, so this one is not restarted by itself.
    "program:crasher": ['command=/bin/sh -c "sleep 1.2; exit 3"', "startsecs=1", "autorestart=false"],
    # Fails at once, again and again: supervisord restarts it after a back-off each time.
    "program:flapper": ['command=/bin/sh -c "exit 4"', "startsecs=1", "autorestart=true", "startretries=1000"],
    "program:broken": ["command=/nonexistent/velmar-no-such-program", "startretries=0"],
    "program:idle": ["command=/bin/sleep 100000", "autostart=false"],
    "program:pool": ["command=/bin/sleep 100000", "process_name=%(program_name)s_%(process_num)02d",
                     "numprocs=2", "startsecs=0"],
}


flag_oid, value_oid, get_one, within = h.flag_oid, h.value_oid, h.get_one, h.within


def start_agent(sup, events=True, refresh=60, extra=()):
    port = h.free_port()
    argv = [h.AGENT, "--supervisor", sup.url, "--refresh", str(refresh), "--listen", "udp:127.0.0.1:%d" % port]
    if events:
        argv += ["--supervisor-events", sup.events]
    agent = h.Process(argv + list(extra), "serving VELMAR-DAEMON-MIB")
    agent.port = port
    return agent


def setUpModule():
    if not h.AGENT or not LISTENER:
        raise unittest.SkipTest("VELMAR_AGENT and VELMAR_SUPERVISOR_EVENTS are not set (run under CTest)")
    if not os.access(vs.SUPERVISORD, os.X_OK):
        raise unittest.SkipTest("supervisord is not installed (Debian's supervisor package)")


class SupervisorCase(unittest.TestCase):
    listener = True
    refresh = 60
    programs = PROGRAMS
    running_at_start = ("longrun", "pool:pool_00", "pool:pool_01")
    sup = None
    agent = None

    @classmethod
    def agent_args(cls):
        """More arguments for the agent (made just before it starts)."""
        return ()

    @classmethod
    def setUpClass(cls):
        cls.sup = vs.Supervisord(cls.programs, listener=LISTENER if cls.listener else None)
        try:
            for name in cls.running_at_start:
                cls.sup.wait_state(name, "RUNNING")
            cls.agent = start_agent(cls.sup, events=cls.listener, refresh=cls.refresh, extra=cls.agent_args())
            if cls.listener and not cls.agent.wait_stderr("listener heard", timeout=10):
                raise RuntimeError("the agent never heard the listener:\n" + cls.agent.stderr())
        except Exception:
            cls.tearDownClass()
            raise

    @classmethod
    def tearDownClass(cls):
        if cls.agent:
            cls.agent.stop()
            cls.agent = None
        if cls.sup:
            cls.sup.cleanup()
            cls.sup = None

    @property
    def port(self):
        return self.agent.port

    def data(self, name, key):
        return get_one(self.port, value_oid("data", name, key))

    def option(self, name, key):
        return get_one(self.port, value_oid("option", name, key))

    def seen(self, oid, wanted, what, limit=1.0, since=None):
        took = within(self.port, oid, wanted, limit, since)
        self.assertIsNotNone(took, "%s not seen over SNMP within %.1f s; agent log:\n%s" % (what, limit, self.agent.stderr()[-3000:]))
        return took


class WithListenerTest(SupervisorCase):
    """One supervisord with the listener and one agent for all cases; each case leaves the
    programs as it found them."""

    def test_each_process_is_a_daemon_enabled_by_autostart(self):
        status = self.sup.status()
        for name in ("longrun", "crasher", "flapper", "broken", "idle", "pool:pool_00", "pool:pool_01", "velmar-events"):
            self.assertIn(name, status)
            wanted = h.FALSE if name == "idle" else h.TRUE
            self.assertEqual(get_one(self.port, flag_oid("enabled", name)), wanted, name)
        self.assertEqual(get_one(self.port, flag_oid("running", "idle")), h.FALSE)
        self.assertEqual(get_one(self.port, flag_oid("running", "longrun")), h.TRUE)
        self.assertIsNone(get_one(self.port, flag_oid("enabled", "pool")))

    def test_options_and_data_of_a_running_program(self):
        pid = self.sup.wait_state("longrun", "RUNNING")
        self.assertEqual(self.option("longrun", "command"), b"/bin/sleep")   # not its arguments
        self.assertEqual(self.option("longrun", "startsecs"), b"1")
        self.assertEqual(self.option("longrun", "startretries"), b"3")
        self.assertEqual(self.option("longrun", "stopsignal"), b"TERM")
        self.assertEqual(self.option("longrun", "priority"), b"999")
        self.assertEqual(self.option("longrun", "group"), b"longrun")
        self.assertEqual(self.option("pool:pool_01", "group"), b"pool")
        self.assertEqual(self.data("longrun", "statename"), b"RUNNING")
        self.assertEqual(self.data("longrun", "pid"), str(pid).encode())
        self.assertRegex(self.data("longrun", "start"), ISO)
        self.assertIsNone(self.data("pool:pool_00", "exitstatus"))   # never stopped
        self.assertEqual(self.data("idle", "statename"), b"STOPPED")
        self.assertTrue(self.data("idle", "description"))   # "Not started", or when it stopped

    def test_a_program_that_exits_non_zero_serves_its_exit_status_until_started_again(self):
        self.seen(value_oid("data", "crasher", "exitstatus"), b"3", "crasher's exit status 3", limit=8)
        self.assertEqual(self.data("crasher", "statename"), b"EXITED")
        self.assertRegex(self.data("crasher", "stop"), ISO)
        self.sup.ctl("start", "crasher")
        self.seen(flag_oid("running", "crasher"), h.TRUE, "crasher started again")
        self.assertIsNone(self.data("crasher", "exitstatus"))

    def test_a_program_that_fails_at_once_is_restarted_and_serves_its_spawn_error(self):
        self.seen(value_oid("data", "flapper", "spawnerr"), lambda v: v is not None and b"too quickly" in v,
                  "flapper's spawn error", limit=8)
        self.assertEqual(get_one(self.port, flag_oid("running", "flapper")), h.FALSE)
        # supervisord starts it again after a back-off of 1, 2, 3... s: its start time moves.
        first = self.data("flapper", "start")
        self.assertRegex(first, ISO)
        self.seen(value_oid("data", "flapper", "start"), lambda v: v is not None and v != first,
                  "flapper started again", limit=8)

    def test_a_program_that_cannot_start_serves_its_spawn_error(self):
        self.seen(value_oid("data", "broken", "statename"), b"FATAL", "broken FATAL", limit=8)
        self.assertIn(b"can't find command", self.data("broken", "spawnerr"))
        self.assertEqual(get_one(self.port, flag_oid("running", "broken")), h.FALSE)

    def test_stop_start_and_restart_are_seen_within_a_second(self):
        running = flag_oid("running", "longrun")
        self.sup.ctl("stop", "longrun")
        self.seen(running, h.FALSE, "stop")
        self.assertEqual(self.data("longrun", "statename"), b"STOPPED")
        self.assertRegex(self.data("longrun", "stop"), ISO)
        self.sup.ctl("start", "longrun")
        self.seen(running, h.TRUE, "start")
        old = self.data("longrun", "pid")
        self.sup.ctl("restart", "longrun")
        new = str(self.sup.wait_state("longrun", "RUNNING")).encode()
        self.assertNotEqual(old, new)
        self.seen(value_oid("data", "longrun", "pid"), new, "restart (new pid)")

    def test_kill_9_is_seen_within_a_second(self):
        pid = self.sup.wait_state("longrun", "RUNNING")
        self.seen(value_oid("data", "longrun", "pid"), str(pid).encode(), "pid before the kill")
        os.kill(pid, signal.SIGKILL)
        killed = time.monotonic()
        self.seen(value_oid("data", "longrun", "pid"), lambda v: v != str(pid).encode(), "kill -9", since=killed)
        self.sup.wait_state("longrun", "RUNNING")

    def test_update_after_adding_and_removing_a_program_is_seen_within_a_second(self):
        enabled = flag_oid("enabled", "added")
        self.assertIsNone(get_one(self.port, enabled))
        self.sup.add("program:added", ["command=/bin/sleep 100000", "startsecs=0"])
        self.sup.ctl("reread")
        self.assertIsNone(get_one(self.port, enabled))   # read, not yet in use
        self.sup.ctl("update")
        self.seen(enabled, h.TRUE, "the added program")
        self.sup.remove("program:added")
        self.sup.ctl("reread")
        self.sup.ctl("update")
        self.seen(enabled, None, "the removed program going")
        self.assertIsNone(self.data("added", "statename"))

    def test_a_disabled_program_started_by_hand_runs(self):
        running = flag_oid("running", "idle")
        self.sup.ctl("start", "idle")
        self.seen(running, h.TRUE, "idle started")
        self.sup.ctl("stop", "idle")
        self.seen(running, h.FALSE, "idle stopped")
        self.assertEqual(get_one(self.port, flag_oid("enabled", "idle")), h.FALSE)

    def test_feed_health_is_ok_and_names_the_source(self):
        health = h.feed_health(self.port)
        self.assertEqual(health["state"], OK)
        self.assertIn(b"supervisord on unix://", health["source"])


class HistoryAndNotificationsTest(SupervisorCase):
    """The history counts what supervisorctl and a killed process do, and snmptrapd hears
    each running change with the daemon's count: both hear the model, as for any source."""

    programs = {
        "program:steady": ["command=/bin/sleep 100000", "startsecs=1", "stopwaitsecs=2"],
        "program:kept": ["command=/bin/sleep 100000", "startsecs=1", "autorestart=true"],
    }
    running_at_start = ("steady", "kept")
    tmp = trapd = None

    @classmethod
    def agent_args(cls):
        import test_notify
        cls.tmp = h.TempDir()
        cls.trapd = test_notify.Trapd(cls.tmp.path)
        config = cls.tmp.file("access.conf")
        with open(config, "w") as f:
            f.write("rocommunity public 127.0.0.1\ntrap2sink udp:127.0.0.1:%d public\n" % cls.trapd.port)
        # No hold-down: the stop and the start are each sent on their own.
        return ["--config", config, "--notify-holddown", "0", "--notify-data", "statename"]

    @classmethod
    def tearDownClass(cls):
        super().tearDownClass()
        if cls.trapd:
            cls.trapd.stop()
            cls.trapd = None
        if cls.tmp:
            cls.tmp.cleanup()
            cls.tmp = None

    def changes(self, name):
        return h.counter(self.port, h.history_oid(name))

    def counted(self, name, wanted, limit=5.0):
        """Waits until the running changes of name read wanted, then checks they stay there."""
        deadline = time.monotonic() + limit
        got = self.changes(name)
        while got != wanted and time.monotonic() < deadline:
            time.sleep(0.02)
            got = self.changes(name)
        self.assertEqual(got, wanted, "%s: running changes; agent log:\n%s" % (name, self.agent.stderr()[-3000:]))
        time.sleep(0.5)
        self.assertEqual(self.changes(name), wanted, "%s: running changes moved on by themselves" % name)

    def notified(self, name, running, since, limit=5.0):
        """The varbinds ({name: value text}) of the first running change of name to running
        that snmptrapd logged after its first `since` notifications; fails after limit s."""
        flag = 'VELMAR-DAEMON-MIB::velmarDaemonRunning."%s"' % name
        wanted = "INTEGER: true(1)" if running else "INTEGER: false(2)"
        deadline = time.monotonic() + limit
        while True:
            for _, vars_ in self.trapd.notifications()[since:]:
                found = dict(vars_)
                if (found.get("SNMPv2-MIB::snmpTrapOID.0") == "OID: VELMAR-DAEMON-MIB::velmarDaemonRunningChange"
                        and found.get(flag) == wanted):
                    return found
            if time.monotonic() > deadline:
                self.fail("no running change of %s to %s at snmptrapd:\n%s" % (name, running, self.trapd.output()))
            time.sleep(0.05)

    def test_stop_then_start_counts_two_and_each_is_notified_with_the_count(self):
        running = flag_oid("running", "steady")
        self.seen(running, h.TRUE, "steady running", limit=5)
        before = self.changes("steady")
        self.assertIsNotNone(before, "no history row for steady")
        mark = len(self.trapd.notifications())
        self.sup.ctl("stop", "steady")
        self.seen(running, h.FALSE, "stop")
        self.sup.ctl("start", "steady")
        self.seen(running, h.TRUE, "start")
        self.counted("steady", before + 2)
        down = self.notified("steady", False, mark)
        self.assertEqual(down['VELMAR-DAEMON-MIB::velmarDaemonRunningChanges."steady"'], "Counter32: %d" % (before + 1))
        self.assertIn(down.get('VELMAR-DAEMON-MIB::velmarDaemonDataValue."steady"."statename"'),
                      ("STRING: STOPPING", "STRING: STOPPED"))
        up = self.notified("steady", True, mark)
        self.assertEqual(up['VELMAR-DAEMON-MIB::velmarDaemonRunningChanges."steady"'], "Counter32: %d" % (before + 2))
        self.assertEqual(up.get('VELMAR-DAEMON-MIB::velmarDaemonDataValue."steady"."statename"'), "STRING: RUNNING")

    def test_kill_9_of_a_program_restarted_by_supervisord_counts_down_and_up(self):
        pid = self.sup.wait_state("kept", "RUNNING")
        self.seen(value_oid("data", "kept", "pid"), str(pid).encode(), "pid before the kill", limit=5)
        before = self.changes("kept")
        self.assertIsNotNone(before, "no history row for kept")
        mark = len(self.trapd.notifications())
        os.kill(pid, signal.SIGKILL)
        # Down at once; up again once supervisord's restart has lasted startsecs (1 s).
        self.seen(value_oid("data", "kept", "pid"), lambda v: v is not None and v != str(pid).encode(),
                  "kept restarted with a new pid", limit=8)
        self.seen(flag_oid("running", "kept"), h.TRUE, "kept running again", limit=3)
        self.counted("kept", before + 2)
        down = self.notified("kept", False, mark)
        self.assertEqual(down['VELMAR-DAEMON-MIB::velmarDaemonRunningChanges."kept"'], "Counter32: %d" % (before + 1))
        self.assertNotEqual(down.get('VELMAR-DAEMON-MIB::velmarDaemonDataValue."kept"."statename"'), "STRING: RUNNING")
        up = self.notified("kept", True, mark)
        self.assertEqual(up['VELMAR-DAEMON-MIB::velmarDaemonRunningChanges."kept"'], "Counter32: %d" % (before + 2))


class SupervisordGoingTest(SupervisorCase):
    """supervisord restarted, then stopped and started again, under one agent (in this order)."""

    def test_1_restart_is_a_reconnect_not_a_loss(self):
        old = self.sup.wait_state("longrun", "RUNNING")
        mark = len(self.agent.stderr_lines)
        self.sup.ctl("reload")
        deadline = time.monotonic() + 20
        new = old
        while new == old and time.monotonic() < deadline:
            time.sleep(0.05)
            rc, out = self.sup.ctl("status", "longrun", check=False)
            m = re.search(r"RUNNING\s+pid (\d+)", out)
            new = int(m.group(1)) if m else old
        self.assertNotEqual(new, old, "supervisord did not restart longrun")
        self.seen(value_oid("data", "longrun", "pid"), str(new).encode(), "longrun after the restart")
        self.seen(h.FEED + (2, 0), OK, "health ok after the restart")
        removed = [l for l in self.agent.stderr_lines[mark:] if re.search(r"daemons: \d+ added, [1-9]", l)]
        self.assertEqual(removed, [], "daemons went during a restart")

    def test_2_stopped_supervisord_is_unreachable_keeps_the_last_state_and_recovers(self):
        pid = self.sup.wait_state("longrun", "RUNNING")
        self.seen(value_oid("data", "longrun", "pid"), str(pid).encode(), "pid before the stop")
        daemons = h.feed_health(self.port)["daemons"]
        self.sup.stop()
        self.seen(h.FEED + (2, 0), BUS_LOST, "health unreachable", limit=1.0)
        self.assertEqual(self.data("longrun", "pid"), str(pid).encode())   # the last state is served
        self.assertEqual(h.feed_health(self.port)["daemons"], daemons)
        self.assertTrue(self.agent.wait_stderr("lost: ", timeout=1), self.agent.stderr())
        self.sup.start()
        new = self.sup.wait_state("longrun", "RUNNING")
        back = time.monotonic()
        self.seen(value_oid("data", "longrun", "pid"), str(new).encode(), "longrun after supervisord came back", since=back)
        self.seen(h.FEED + (2, 0), OK, "health ok again", since=back)
        self.assertTrue(self.agent.wait_stderr("back; ", timeout=1), self.agent.stderr())


class PollingTest(SupervisorCase):
    """No listener: the agent reads every process each --refresh (1 s here)."""

    listener = False
    refresh = 1
    limit = 1.5   # the refresh interval, and the read itself

    def test_start_line_says_polled(self):
        line = [l for l in self.agent.stderr_lines if "serving VELMAR-DAEMON-MIB" in l][0]
        self.assertIn("from supervisord (%s, processes *, polled every 1 s)" % self.sup.url, line)

    def test_stop_and_start_are_seen_within_the_refresh_interval(self):
        running = flag_oid("running", "longrun")
        self.sup.ctl("stop", "longrun")
        self.seen(running, h.FALSE, "stop", limit=self.limit)
        self.sup.ctl("start", "longrun")
        self.seen(running, h.TRUE, "start", limit=self.limit)

    def test_update_is_seen_within_the_refresh_interval(self):
        enabled = flag_oid("enabled", "added")
        self.sup.add("program:added", ["command=/bin/sleep 100000", "startsecs=0"])
        self.sup.ctl("reread")
        self.sup.ctl("update")
        self.seen(enabled, h.TRUE, "the added program", limit=self.limit)
        self.sup.remove("program:added")
        self.sup.ctl("reread")
        self.sup.ctl("update")
        self.seen(enabled, None, "the removed program going", limit=self.limit)

    def test_z_stopped_supervisord_is_seen_and_recovery_too(self):
        self.sup.stop()
        self.seen(h.FEED + (2, 0), BUS_LOST, "health unreachable", limit=self.limit)
        self.assertEqual(get_one(self.port, flag_oid("enabled", "longrun")), h.TRUE)
        self.sup.start()
        new = self.sup.wait_state("longrun", "RUNNING")
        self.seen(value_oid("data", "longrun", "pid"), str(new).encode(), "after supervisord came back", limit=self.limit)


class InetWithCredentialsTest(unittest.TestCase):
    """[inet_http_server] on 127.0.0.1 with a user and password, read with --supervisor-auth."""

    @classmethod
    def setUpClass(cls):
        cls.sup = vs.Supervisord({"program:longrun": PROGRAMS["program:longrun"]}, inet_port=h.free_port(h.socket.SOCK_STREAM),
                                 auth=("velmar", "s3cret"))
        cls.auth = os.path.join(cls.sup.dir, "auth")
        with open(cls.auth, "w") as f:
            f.write("velmar:s3cret\n")
        cls.bad = os.path.join(cls.sup.dir, "bad-auth")
        with open(cls.bad, "w") as f:
            f.write("velmar:wrong\n")

    @classmethod
    def tearDownClass(cls):
        cls.sup.cleanup()

    def test_reads_over_http_with_credentials(self):
        agent = start_agent(self.sup, events=False, extra=["--supervisor-auth", self.auth])
        try:
            self.assertEqual(get_one(agent.port, flag_oid("enabled", "longrun")), h.TRUE)
        finally:
            agent.stop()

    def test_wrong_credentials_are_said_and_nothing_is_served(self):
        agent = start_agent(self.sup, events=False, extra=["--supervisor-auth", self.bad])
        try:
            line = agent.wait_stderr("401", timeout=3)
            self.assertIsNotNone(line, agent.stderr())
            self.assertIn("wrong or missing credentials", line)
            self.assertNotIn("s3cret", agent.stderr())
            self.assertNotIn("wrong", line.replace("wrong or missing", ""))
            self.assertIsNone(get_one(agent.port, flag_oid("enabled", "longrun")))
        finally:
            agent.stop()


DLMOD = os.environ.get("VELMAR_DLMOD", "")


@unittest.skipUnless(os.access("/usr/sbin/snmpd", os.X_OK), "Debian's snmpd is not installed")
class DlmodTest(unittest.TestCase):
    """snmpd with the dlmod bridge's velmarSupervisor and velmarSupervisorEvents lines."""

    def test_serves_supervisord_and_follows_a_stop(self):
        import test_dlmod
        self.assertTrue(DLMOD and os.path.exists(DLMOD), "VELMAR_DLMOD does not name the built bridge: %r" % DLMOD)
        sup = vs.Supervisord({"program:longrun": PROGRAMS["program:longrun"]}, listener=LISTENER)
        self.addCleanup(sup.cleanup)
        sup.wait_state("longrun", "RUNNING")
        snmpd = test_dlmod.Snmpd(sup.dir, ["dlmod velmar_daemon_mib %s" % DLMOD, "velmarSupervisor %s" % sup.socket,
                                           "velmarSupervisorEvents %s" % sup.events])
        self.addCleanup(snmpd.stop)
        line = snmpd.wait_log("serving VELMAR-DAEMON-MIB", timeout=10)
        self.assertIsNotNone(line, snmpd.log())
        self.assertIn("from supervisord (unix://%s, processes *, events %s)" % (sup.socket, sup.events), line)
        running = flag_oid("running", "longrun")
        self.assertIsNotNone(within(snmpd.port, running, h.TRUE, limit=5), snmpd.log())
        self.assertIsNotNone(snmpd.wait_log("listener heard", timeout=10), snmpd.log())
        sup.ctl("stop", "longrun")
        self.assertIsNotNone(within(snmpd.port, running, h.FALSE, limit=1.0), snmpd.log())
        self.assertEqual(snmpd.trouble(), [], snmpd.log())

    def test_velmar_supervisor_units_chooses_the_processes_and_a_bad_line_is_named(self):
        import test_dlmod
        self.assertTrue(DLMOD and os.path.exists(DLMOD), "VELMAR_DLMOD does not name the built bridge: %r" % DLMOD)
        sup = vs.Supervisord({"program:longrun": PROGRAMS["program:longrun"], "program:idle": PROGRAMS["program:idle"]})
        self.addCleanup(sup.cleanup)
        sup.wait_state("longrun", "RUNNING")
        # The bad line is reported with its line and changes nothing: the good one before it holds.
        snmpd = test_dlmod.Snmpd(sup.dir, ["dlmod velmar_daemon_mib %s" % DLMOD, "velmarSupervisor %s" % sup.socket,
                                           "velmarSupervisorUnits long*", "velmarSupervisorUnits a,,b"])
        self.addCleanup(snmpd.stop)
        bad = snmpd.wait_log("velmarSupervisorUnits a,,b: ", timeout=10)
        self.assertIsNotNone(bad, snmpd.log())
        self.assertIn("line 6", bad)
        line = snmpd.wait_log("serving VELMAR-DAEMON-MIB", timeout=10)
        self.assertIsNotNone(line, snmpd.log())
        self.assertIn("from supervisord (unix://%s, processes long*, " % sup.socket, line)
        self.assertIsNotNone(within(snmpd.port, flag_oid("running", "longrun"), h.TRUE, limit=5), snmpd.log())
        self.assertIsNone(get_one(snmpd.port, flag_oid("enabled", "idle")), "idle does not match long*")


class CommandLineTest(unittest.TestCase):
    """Bad --supervisor command lines are refused with one line naming what is wrong."""

    def refused(self, args):
        import subprocess
        p = subprocess.run([h.AGENT] + args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=30)
        self.assertEqual(p.returncode, 2, p.stderr)
        self.assertEqual(len(p.stderr.splitlines()), 1, p.stderr)
        return p.stderr

    def test_supervisor_excludes_the_other_sources(self):
        self.assertIn("--state, --systemd and --supervisor exclude each other",
                      self.refused(["--supervisor", "/x.sock", "--systemd"]))

    def test_a_bad_address_is_named(self):
        self.assertIn("--supervisor: supervisord address \"https://h:1\"", self.refused(["--supervisor", "https://h:1"]))

    def test_events_and_auth_need_supervisor(self):
        demo = os.path.join(h.SOURCE_DIR, "examples", "demo-state.json")
        for opt in ("--supervisor-events", "--supervisor-auth"):
            self.assertIn("%s applies to --supervisor only" % opt, self.refused(["--state", demo, opt, "/x"]))

    def test_bad_patterns_are_named(self):
        self.assertIn("--units a,,b", self.refused(["--supervisor", "/x.sock", "--units", "a,,b"]))

    def test_check_fails_while_supervisord_cannot_be_reached(self):
        import subprocess
        with tempfile.TemporaryDirectory() as d:
            p = subprocess.run([h.AGENT, "--supervisor", os.path.join(d, "none.sock"), "--check"],
                               stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=30)
        self.assertEqual(p.returncode, 2, p.stdout + p.stderr)
        self.assertIn("cannot connect: ", p.stderr)


if __name__ == "__main__":
    unittest.main()
