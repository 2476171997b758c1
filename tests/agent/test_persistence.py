"""SNMPv3 engine persistence of velmar-snmp-agent: with the same --persistent-dir, every
restart keeps the engine ID, counts engine boots up by one and answers the same authPriv
user, to fresh managers and to one that remembers the engine from before the restart."""

import os
import unittest

import velmar_harness as h

STATE = {"daemons": {"bgpd": {"config": {"enabled": True, "options": {"asn": "65001"}},
                              "status": {"running": True, "data": {"pid": "4242"}}}}}
USER, AUTH, PRIV = "keeper", "authpass-4567", "privpass-4567"
RESTARTS = 10


def v3_get_args(port, oid):
    return ["-v", "3", "-u", USER, "-l", "authPriv", "-a", "SHA", "-A", AUTH, "-x", "AES", "-X", PRIV,
            "-On", "-Ox", "-Oe", "-r", "1", "-t", "2", "udp:127.0.0.1:%d" % port, h.oid_str(oid)]


class RememberingManager:
    """One pysnmp engine for every request, so that it keeps what it learnt of the agent's
    engine (ID, boots, time) across the agent's restarts, as a long-running manager does."""

    def __init__(self):
        from pysnmp.hlapi import SnmpEngine
        self.engine = SnmpEngine()

    def get(self, port, oid):
        from pysnmp.hlapi import (ContextData, ObjectIdentity, ObjectType, UdpTransportTarget, UsmUserData, getCmd,
                                  usmAesCfb128Protocol, usmHMACSHAAuthProtocol)
        err_ind, err_stat, _, var_binds = next(getCmd(
            self.engine, UsmUserData(USER, AUTH, PRIV, authProtocol=usmHMACSHAAuthProtocol,
                                     privProtocol=usmAesCfb128Protocol),
            UdpTransportTarget(("127.0.0.1", port), timeout=2, retries=2), ContextData(),
            ObjectType(ObjectIdentity(h.oid_str(oid)[1:])), lookupMib=False))
        return err_ind, err_stat, var_binds


class PersistenceTest(unittest.TestCase):
    def setUp(self):
        self.tmp = h.TempDir()
        self.state_file = self.tmp.file("state.json")
        h.write_state(self.state_file, STATE)
        self.config = self.tmp.file("access.conf")
        with open(self.config, "w") as f:
            f.write('createUser %s SHA "%s" AES "%s"\nrouser %s priv\n' % (USER, AUTH, PRIV, USER))
        self.persistent = self.tmp.file("persistent")
        self.agent = None

    def tearDown(self):
        if self.agent:
            self.agent.stop()
        self.tmp.cleanup()

    def test_restarts_keep_the_engine_and_count_boots(self):
        oid, value = h.expected_rows(STATE)["enabled"][0]
        port = h.free_port()
        manager = RememberingManager()
        seen = []
        for restart in range(RESTARTS):
            self.agent = h.Agent(self.state_file, port=port,
                                 extra=["--config", self.config, "--persistent-dir", self.persistent])
            engine_id, boots, _ = h.v3_discover(port)
            seen.append((engine_id, boots))

            rc, out, err = h.run_tool("snmpget", v3_get_args(port, oid))
            self.assertEqual(rc, 0, "restart %d: snmpget: %s%s\nagent:\n%s" % (restart, out, err, self.agent.output()))
            self.assertEqual(h.parse_tool_output(out), [(oid, value)])
            err_ind, err_stat, var_binds = manager.get(port, oid)
            self.assertFalse(err_ind, "restart %d: remembering manager: %s" % (restart, err_ind))
            self.assertFalse(err_stat)
            self.assertEqual([(tuple(n), int(v)) for n, v in var_binds], [(oid, value)])

            self.assertNotIn("buffer too small", self.agent.output())
            self.assertEqual(self.agent.stop(), 0)
            self.agent = None

        first_id, first_boots = seen[0]
        self.assertEqual(first_boots, 1, "a new persistent directory starts at boot 1")
        for restart, (engine_id, boots) in enumerate(seen):
            self.assertEqual(engine_id.hex(), first_id.hex(), "engine ID changed at restart %d" % restart)
            self.assertEqual(boots, first_boots + restart, "engine boots at restart %d" % restart)
        self.assertTrue(os.path.isfile(os.path.join(self.persistent, "velmar-snmp-agent.conf")))

    def test_relative_persistent_dir_is_used_where_it_is(self):
        cwd = self.tmp.path
        port = h.free_port()
        for _ in range(2):
            self.agent = h.Agent(self.state_file, port=port,
                                 extra=["--config", self.config, "--persistent-dir", "relative-persistent"],
                                 cwd=cwd)
            h.v3_discover(port)
            self.assertEqual(self.agent.stop(), 0)
            self.agent = None
        persistent = os.path.join(cwd, "relative-persistent")
        self.assertTrue(os.path.isfile(os.path.join(persistent, "velmar-snmp-agent.conf")))
        with open(os.path.join(persistent, "velmar-snmp-agent.conf")) as f:
            self.assertIn("engineBoots 2", f.read())


if __name__ == "__main__":
    unittest.main()
