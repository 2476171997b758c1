"""What the agent claims and what a peer or a configuration can get from it: nothing is
writable whatever --config says, one peer cannot flood the log, and refusals that say what
is wrong once and where (--config, the command line, --check).

Every agent runs on a free loopback port and is stopped by process id."""

import os
import socket
import subprocess
import sys
import time
import unittest

import velmar_harness as h

sys.path.insert(0, os.path.join(h.SOURCE_DIR, "bench"))
import log_flood  # noqa: E402  (the forged request of the flood benchmark)

STATE = {"daemons": {"bgpd": {"config": {"enabled": True, "options": {"asn": "65001"}},
                              "status": {"running": True, "data": {"pid": "4242"}}}}}
SYS = (1, 3, 6, 1, 2, 1, 1)
SYS_CONTACT, SYS_NAME, SYS_LOCATION = SYS + (4, 0), SYS + (5, 0), SYS + (6, 0)


def run_agent(args, timeout=30):
    p = subprocess.run([h.AGENT] + list(args), stdin=subprocess.DEVNULL, capture_output=True, text=True,
                       errors="replace", timeout=timeout)
    return p.returncode, p.stdout, p.stderr


class Fixture(unittest.TestCase):
    def setUp(self):
        self.tmp = h.TempDir()
        self.addCleanup(self.tmp.cleanup)
        self.state = self.tmp.file("state.json")
        h.write_state(self.state, STATE)

    def config(self, text, name="access.conf"):
        path = self.tmp.file(name)
        with open(path, "w", encoding="utf-8") as f:
            f.write(text)
        return path

    def start(self, extra=()):
        agent = h.Agent(self.state, extra=list(extra) + ([] if "--log" in extra else ["--log", "stderr"]))
        self.addCleanup(agent.stop)
        return agent


class NothingWritableTest(Fixture):
    def test_write_access_directives_are_refused_with_file_and_line(self):
        persistent = self.tmp.file("persistent")
        for directive, needle in (("rwcommunity private 127.0.0.1", "rwcommunity grants write access"),
                                  ("rwcommunity6 private ::1", "rwcommunity6 grants write access"),
                                  ('createUser w SHA "authpass123"\nrwuser w', "rwuser grants write access"),
                                  ("view all included .1\naccess g \"\" any noauth exact all all none",
                                   "access gives group g the write view all")):
            with self.subTest(directive):
                conf = self.config("rocommunity public 127.0.0.1\n" + directive + "\n")
                line = 1 + directive.count("\n") + 1
                rc, out, err = run_agent(["--state", self.state, "--listen", "udp:127.0.0.1:%d" % h.free_port(),
                                          "--config", conf, "--persistent-dir", persistent, "--log", "stderr"])
                self.assertEqual(rc, 2, out + err)
                self.assertIn("--config refused: %s: line %d: %s" % (conf, line, needle), err)
                self.assertNotIn("serving VELMAR-DAEMON-MIB", err)
                rc, out, err = run_agent(["--check", "--state", self.state, "--config", conf])
                self.assertEqual(rc, 2, out + err)
                self.assertIn(needle, err)

    def test_system_objects_take_no_set_and_nothing_is_persisted(self):
        persistent = self.tmp.file("persistent")
        conf = self.config("rocommunity public 127.0.0.1\nsysName configured-name\n")
        for _ in range(2):   # the second start reads what the first persisted
            agent = self.start(["--config", conf, "--persistent-dir", persistent])
            for oid in (SYS_NAME, SYS_CONTACT, SYS_LOCATION):
                rc, out, err = h.run_tool("snmpset", h.common_args(agent.port) + [h.oid_str(oid), "s", "set-by-a-peer"])
                self.assertNotEqual(rc, 0, out + err)
                rc, values, err = h.get(agent.port, [oid])
                self.assertEqual(rc, 0, err)
                self.assertNotIn("set-by-a-peer", str(values))
            agent.stop()
        for root, _, files in os.walk(persistent):
            for name in files:
                with open(os.path.join(root, name), "rb") as f:
                    self.assertNotIn(b"set-by-a-peer", f.read(), name)


class LogFloodTest(Fixture):
    def test_a_flood_of_forged_requests_costs_a_few_lines_and_a_count(self):
        conf = self.config('createUser ops SHA "authpass123" AES "privpass123"\nrouser ops auth\n')
        log = self.tmp.file("agent.log")
        port = h.free_port()
        agent = h.Process([h.AGENT, "--state", self.state, "--listen", "udp:127.0.0.1:%d" % port, "--config", conf,
                           "--log", "file:" + log], None,
                          ready=lambda: os.path.exists(log) and "serving VELMAR-DAEMON-MIB" in open(log).read())
        agent.port = port
        self.addCleanup(agent.stop)
        engine_id, boots, etime = h.v3_discover(agent.port)
        requests, answered = 3200, 0   # a multiple of the 16 in flight
        with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
            s.settimeout(2)
            packet = log_flood.forged_get(engine_id, boots, etime, 77)
            for i in range(requests):
                s.sendto(packet, ("127.0.0.1", agent.port))
                if i % 16 == 15:
                    for _ in range(16):
                        s.recv(65535)
                        answered += 1
        self.assertEqual(answered, requests)
        # The agent's own lines still come after the flood.
        h.write_state(self.state, {"daemons": {}})
        deadline = time.time() + 10
        while time.time() < deadline and "serving 0 daemons" not in open(log).read():
            time.sleep(0.1)
        agent.stop()
        lines = open(log).read().splitlines()
        failed = [l for l in lines if "Authentication failed" in l and "more lines like" not in l]
        self.assertGreater(len(failed), 0, "\n".join(lines))
        self.assertLessEqual(len(failed), 10, "%d lines of the flood written" % len(failed))
        summaries = [l for l in lines if "more lines like" in l]
        self.assertEqual(len(summaries), 1, "\n".join(lines[-5:]))
        self.assertIn("%d more lines like \"Authentication failed" % (requests - len(failed)), summaries[0])
        self.assertTrue(any("serving VELMAR-DAEMON-MIB" in l for l in lines))
        self.assertTrue(any("serving 0 daemons" in l for l in lines), "\n".join(lines[-5:]))
        self.assertTrue(lines[-1].endswith("stopping") or "stopping" in "".join(lines[-3:]))


class MessagesTest(Fixture):
    def test_config_complaints_come_once_each_without_foreign_advice(self):
        conf = self.config("rocommunity public 127.0.0.1\nsysLocaton Rack 7\nrocommunity\n")
        rc, out, err = run_agent(["--state", self.state, "--listen", "udp:127.0.0.1:%d" % h.free_port(),
                                  "--config", conf, "--log", "stderr"])
        self.assertEqual(rc, 2, err)
        self.assertEqual(err.count("Unknown token: sysLocaton"), 1, err)
        self.assertEqual(err.count("line 3: Error: Blank line following rocommunity token"), 1, err)
        # Nothing grants access: one line of our own, not Net-SNMP's block about another tool.
        conf = self.config("sysLocation Rack 7\n", "noaccess.conf")
        agent = self.start(["--config", conf])
        agent.stop()
        self.assertNotIn("snmpconf", agent.stderr())
        self.assertEqual(agent.stderr().count("no manager can query this agent"), 1, agent.stderr())

    def test_initial_load_is_one_reload(self):
        agent = self.start()
        time.sleep(1)   # the watch is armed and the file read once more meanwhile
        self.assertEqual(h.feed_health(agent.port)["reloads"], 1)
        h.write_state(self.state, {"daemons": {}})
        deadline = time.time() + 10
        while time.time() < deadline and h.feed_health(agent.port)["reloads"] != 2:
            time.sleep(0.1)
        self.assertEqual(h.feed_health(agent.port)["reloads"], 2)

    def test_state_file_with_a_byte_order_mark_is_named_so(self):
        with open(self.state, "wb") as f:
            f.write(b'\xef\xbb\xbf{"daemons": {}}')
        rc, out, err = run_agent(["--check", "--state", self.state])
        self.assertEqual(rc, 2, out + err)
        self.assertIn("state file %s: starts with a UTF-8 byte-order mark" % self.state, err)

    def test_run_demo_does_not_claim_another_process_s_answers(self):
        demo_agent = os.path.join(h.SOURCE_DIR, "build", "default", "agent", "velmar-snmp-agent")
        if os.path.realpath(demo_agent) != os.path.realpath(h.AGENT):
            self.skipTest("scripts/run-demo runs build/default, which is not the agent under test")
        other = self.start()   # answers community public on its port
        p = subprocess.run([os.path.join(h.SOURCE_DIR, "scripts", "run-demo"), "--listen",
                            "udp:127.0.0.1:%d" % other.port], cwd=h.SOURCE_DIR, stdin=subprocess.DEVNULL,
                           capture_output=True, text=True, timeout=300)
        out = p.stdout + p.stderr
        self.assertNotIn("velmar-snmp-agent answers on", out)
        self.assertIn("another process answers on udp:127.0.0.1:%d" % other.port, out)
        self.assertNotEqual(p.returncode, 0, out)

    def test_mistyped_option_gets_a_hint(self):
        rc, out, err = run_agent(["--state", self.state, "--lisen", "udp:127.0.0.1:1"])
        self.assertEqual(rc, 2)
        self.assertIn("unknown option --lisen: did you mean --listen?", err)

    def test_listen_given_twice_is_named(self):
        address = "udp:127.0.0.1:%d" % h.free_port()
        rc, out, err = run_agent(["--state", self.state, "--listen", address, "--listen", address])
        self.assertEqual(rc, 2)
        self.assertIn("--listen %s is given twice" % address, err)
        self.assertNotIn("another process", err)

    def test_check_warns_on_rouser_without_user_and_refuses_agentaddress(self):
        conf = self.config("rouser ops priv\n")
        rc, out, err = run_agent(["--check", "--state", self.state, "--config", conf])
        self.assertIn("%s: line 1: rouser ops has no createUser ops" % conf, err)
        conf = self.config("rocommunity public 127.0.0.1\nagentaddress udp:161\n")
        rc, out, err = run_agent(["--check", "--state", self.state, "--config", conf])
        self.assertEqual(rc, 2, out + err)
        self.assertIn("%s: line 2: agentaddress is not used by this agent" % conf, err)


if __name__ == "__main__":
    unittest.main()


import test_agentx  # noqa: E402  (its master and subagent fixture)


class AgentxRefusalTest(test_agentx.AgentxTestCase):
    def second_agent(self):
        b = h.Process([h.AGENT, "--agentx", self.agentx, "--agentx-ping", "1", "--state", self.state_file,
                       "--log", "stderr"], "the master already has this subtree")
        self.processes.append(b)
        return b

    def test_a_refused_registration_is_not_serving_and_is_tried_again(self):
        self.start_master()
        first = self.start_agent()
        second = self.second_agent()
        line = second.wait_stderr("the master already has this subtree", timeout=5)
        self.assertIsNotNone(line, second.stderr())
        self.assertIn("another subagent or the dlmod bridge", line)
        self.assertNotIn("serving VELMAR-DAEMON-MIB", second.stderr())
        self.assertNotIn("registering pdu failed", second.stderr())
        self.assertEqual(second.stderr().count("the master already has this subtree"), 1, second.stderr())
        # The first one goes: the second gets the subtree on a later try and says so.
        first.stop()
        self.assertIsNotNone(second.wait_stderr("serving VELMAR-DAEMON-MIB", timeout=10), second.stderr())
        self.assertTrue(h.walk(self.port, h.ROOT + (1, 1)), "the tables answer through the master")

    def test_tcp_agentx_needs_the_operator_to_say_so(self):
        for address in ("tcp:127.0.0.1:705", "127.0.0.1:705", "tcp6:[::1]:705"):
            with self.subTest(address):
                p = subprocess.run([h.AGENT, "--agentx", address, "--state", self.state_file, "--check"],
                                   capture_output=True, text=True, timeout=30)
                self.assertEqual(p.returncode, 2, p.stdout + p.stderr)
                self.assertIn("--agentx %s: not a Unix socket" % address, p.stderr)
                self.assertIn("--allow-tcp-agentx", p.stderr)
        p = subprocess.run([h.AGENT, "--agentx", "tcp:127.0.0.1:705", "--allow-tcp-agentx", "--state", self.state_file,
                            "--check"], capture_output=True, text=True, timeout=30)
        self.assertEqual(p.returncode, 0, p.stdout + p.stderr)

    def test_check_says_when_the_master_cannot_be_reached(self):
        missing = self.tmp.file("no-master.sock")
        p = subprocess.run([h.AGENT, "--check", "--agentx", missing, "--state", self.state_file],
                           capture_output=True, text=True, timeout=30)
        self.assertEqual(p.returncode, 0, p.stdout + p.stderr)
        self.assertIn("the AgentX master at %s cannot be reached now: no such file" % missing, p.stderr)
        self.assertFalse(os.path.exists(missing))

    def test_a_wrong_socket_path_says_why_once(self):
        missing = self.tmp.file("no-master.sock")
        a = h.Process([h.AGENT, "--agentx", missing, "--agentx-ping", "1", "--state", self.state_file, "--log", "stderr"],
                      "waiting for the master")
        self.processes.append(a)
        time.sleep(3)   # three more attempts
        a.stop()
        err = a.stderr()
        self.assertEqual(err.count("cannot reach the AgentX master at %s: no such file" % missing), 1, err)
        self.assertNotIn("Failed to connect to the agentx master agent", err)

    def test_subagent_and_master_stopping_together_stop_cleanly(self):
        master = self.start_master()
        agent = self.start_agent()
        os.kill(master.pid, 15)
        os.kill(agent.pid, 15)
        agent.stop()
        master.stop()
        err = agent.stderr()
        after = err[err.index("stopping"):]
        self.assertNotIn("lock_holded", after)
        self.assertNotIn("reconnecting", after)
        self.assertTrue(h.exited_clean(agent.proc, err), err)
