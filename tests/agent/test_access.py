"""Access to velmar-snmp-agent: v2c and v3 (authPriv, SHA and AES) from a --config file,
wrong credentials refused, named contexts serving nothing, the MIB's names resolving."""

import os
import unittest

import velmar_harness as h

STATE = {"daemons": {
    "bgpd": {"config": {"enabled": True, "options": {"asn": "65001"}},
             "status": {"running": True, "data": {"pid": "4242"}}},
    "sshd": {"config": {"enabled": True, "options": {"port": "22"}}, "status": {"running": False}},
}}
USER, AUTH, PRIV = "velmar", "authpass-0123", "privpass-0123"


def v3_args(port, user=USER, auth=AUTH, priv=PRIV, level="authPriv", context=None):
    args = ["-v", "3", "-u", user, "-l", level, "-On", "-Ox", "-Oe", "-r", "1", "-t", "2"]
    if level in ("authNoPriv", "authPriv"):
        args += ["-a", "SHA", "-A", auth]
    if level == "authPriv":
        args += ["-x", "AES", "-X", priv]
    if context is not None:
        args += ["-n", context]
    return args + ["udp:127.0.0.1:%d" % port]


class AccessTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = h.TempDir()
        cls.state_file = cls.tmp.file("state.json")
        h.write_state(cls.state_file, STATE)
        cls.config = cls.tmp.file("access.conf")
        with open(cls.config, "w") as f:
            f.write("rocommunity velmar-ro 127.0.0.1\n"
                    'createUser %s SHA "%s" AES "%s"\n' % (USER, AUTH, PRIV) +
                    "rouser %s priv\n" % USER)
        cls.agent = h.Agent(cls.state_file, extra=["--config", cls.config, "--context", "other",
                                                   "--trace", "Snmp/2,8"])
        cls.expected = h.expected_rows(STATE)

    @classmethod
    def tearDownClass(cls):
        cls.agent.stop()
        cls.tmp.cleanup()

    def test_v2c_community_from_config_is_served(self):
        self.assertEqual(h.walk(self.agent.port, h.TABLES["option"][0], community="velmar-ro"), self.expected["option"])

    def test_default_community_is_not_in_a_custom_config(self):
        rc, out, err = h.run_tool("snmpget", h.common_args(self.agent.port, community="public") +
                                  [h.oid_str(self.expected["enabled"][0][0])])
        self.assertNotEqual(rc, 0)
        self.assertIn("Timeout", out + err)

    def test_v3_authpriv_walks_every_table(self):
        for table, (sub, _, _) in h.TABLES.items():
            rc, out, err = h.run_tool("snmpbulkwalk", v3_args(self.agent.port) + [h.oid_str(sub)])
            self.assertEqual(rc, 0, err)
            self.assertEqual(h.parse_tool_output(out), self.expected[table])

    def test_v3_with_pysnmp(self):
        oid, value = self.expected["option"][0]
        err_ind, err_stat, var_binds = h.pysnmp_v3_get(self.agent.port, oid, USER, AUTH, PRIV)
        self.assertFalse(err_ind, str(err_ind))
        self.assertFalse(err_stat)
        self.assertEqual(bytes(var_binds[0][1]), value)

    def test_v3_wrong_password_and_unknown_user_get_nothing(self):
        oid = h.oid_str(self.expected["enabled"][0][0])
        for args, needle in ((v3_args(self.agent.port, auth="wrong-password-1"), "Authentication failure"),
                             (v3_args(self.agent.port, user="nobody"), "Unknown user name")):
            rc, out, err = h.run_tool("snmpget", args + [oid])
            self.assertNotEqual(rc, 0)
            self.assertIn(needle, out + err)

    def test_v3_below_priv_is_refused(self):
        oid = h.oid_str(self.expected["enabled"][0][0])
        for level in ("authNoPriv", "noAuthNoPriv"):
            rc, out, err = h.run_tool("snmpget", v3_args(self.agent.port, level=level) + [oid])
            self.assertNotIn("INTEGER", out, level)

    def test_named_context_serves_nothing(self):
        rc, out, err = h.run_tool("snmpbulkwalk", v3_args(self.agent.port, context="other") + [h.oid_str(h.ROOT)])
        self.assertEqual(h.parse_tool_output(out), [])
        refusals = [l for l in self.agent.stderr_lines if 'in context "other" statebasePathWithContext not specified' in l]
        self.assertEqual(len(refusals), 4, self.agent.stderr())
        self.assertEqual(len([l for l in self.agent.stderr_lines if 'Initialized table' in l and 'context ""' in l]), 4)


class DefaultAccessTest(unittest.TestCase):
    def test_default_is_public_read_only_from_localhost(self):
        tmp = h.TempDir()
        try:
            path = tmp.file("state.json")
            h.write_state(path, STATE)
            agent = h.Agent(path)
            try:
                expected = h.expected_rows(STATE)
                self.assertEqual(h.walk(agent.port, h.TABLES["enabled"][0]), expected["enabled"])
                rc, out, err = h.run_tool("snmpset", h.common_args(agent.port) +
                                          [h.oid_str(expected["enabled"][0][0]), "i", "2"])
                self.assertNotEqual(rc, 0)
                self.assertEqual(h.walk(agent.port, h.TABLES["enabled"][0]), expected["enabled"])
            finally:
                self.assertEqual(agent.stop(), 0)
        finally:
            tmp.cleanup()


class MibNamesTest(unittest.TestCase):
    def test_walk_resolves_names_with_the_mib(self):
        mibs = os.path.join(h.SOURCE_DIR, ".deps", "node_modules", "net-snmp", "lib", "mibs")
        if not os.path.isdir(mibs):
            self.skipTest("base MIBs not installed (scripts/install-deps)")
        tmp = h.TempDir()
        try:
            path = tmp.file("state.json")
            h.write_state(path, STATE)
            agent = h.Agent(path)
            try:
                mibdir = tmp.file("mibs")
                os.mkdir(mibdir)
                for f in os.listdir(mibs):
                    if f.endswith(".mib"):
                        os.symlink(os.path.join(mibs, f), os.path.join(mibdir, f[:-4] + ".txt"))
                os.symlink(os.path.join(h.SOURCE_DIR, "mib", "VELMAR-DAEMON-MIB.txt"),
                           os.path.join(mibdir, "VELMAR-DAEMON-MIB.txt"))
                rc, out, err = h.run_tool("snmpwalk", ["-M", mibdir, "-m", "+VELMAR-DAEMON-MIB", "-v2c", "-c", "public",
                                                       "udp:127.0.0.1:%d" % agent.port, "VELMAR-DAEMON-MIB::velmarDaemonMIB"])
                self.assertEqual(rc, 0, err)
                self.assertIn('VELMAR-DAEMON-MIB::velmarDaemonOptionValue."bgpd"."asn" = STRING: 65001', out)
                self.assertIn('VELMAR-DAEMON-MIB::velmarDaemonEnabled."sshd" = INTEGER: true(1)', out)
                self.assertIn('VELMAR-DAEMON-MIB::velmarDaemonRunning."sshd" = INTEGER: false(2)', out)
                self.assertIn('VELMAR-DAEMON-MIB::velmarDaemonDataValue."bgpd"."pid" = STRING: 4242', out)
            finally:
                agent.stop()
        finally:
            tmp.cleanup()


if __name__ == "__main__":
    unittest.main()
