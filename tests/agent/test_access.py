"""Access to velmar-snmp-agent: v2c and v3 (authPriv, SHA and AES) from a --config file,
wrong credentials refused, named contexts serving nothing, the MIB's names resolving; the
default answering 127.0.0.1 only; a v3-only configuration refusing everything below
authPriv; no SET of any type on any column changing anything, whatever the version,
community, user or mode; the AgentX socket of the recommended snmpd fragment not
world-writable."""

import os
import re
import socket
import stat
import time
import unittest

import velmar_harness as h

STATE = {"daemons": {
    "bgpd": {"config": {"enabled": True, "options": {"asn": "65001"}},
             "status": {"running": True, "data": {"pid": "4242"}}},
    "sshd": {"config": {"enabled": True, "options": {"port": "22"}}, "status": {"running": False}},
}}
USER, AUTH, PRIV = "velmar", "authpass-0123", "privpass-0123"


def v3_args(port, user=USER, auth=AUTH, priv=PRIV, level="authPriv", context=None, auth_protocol="SHA"):
    args = ["-v", "3", "-u", user, "-l", level, "-On", "-Ox", "-Oe", "-r", "1", "-t", "2"]
    if level in ("authNoPriv", "authPriv"):
        args += ["-a", auth_protocol, "-A", auth]
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



# --- Raw SNMPv1/v2c messages, for SETs of every type and requests from chosen sources ------

def _ber_unsigned(tag, v):
    body = v.to_bytes(max(1, (v.bit_length() + 8) // 8), "big")
    return h._ber(tag, body)


# (name, BER encoding of a value of that type): every type a varbind can carry in a SET.
SET_VALUES = [
    ("INTEGER", h._ber_int(1)),
    ("INTEGER false", h._ber_int(2)),
    ("OCTET STRING", h._ber(0x04, b"changed")),
    ("empty OCTET STRING", h._ber(0x04, b"")),
    ("BITS", h._ber(0x04, b"\x80")),
    ("NULL", b"\x05\x00"),
    ("OBJECT IDENTIFIER", h._ber_oid((1, 3, 6, 1, 4, 1))),
    ("IpAddress", h._ber(0x40, bytes([192, 0, 2, 1]))),
    ("Counter32", _ber_unsigned(0x41, 7)),
    ("Gauge32", _ber_unsigned(0x42, 7)),
    ("TimeTicks", _ber_unsigned(0x43, 7)),
    ("Opaque", h._ber(0x44, b"\x9f\x78\x04\x3f\x80\x00\x00")),
    ("Counter64", _ber_unsigned(0x46, 2 ** 40)),
]
ERRORS = ["noError", "tooBig", "noSuchName", "badValue", "readOnly", "genErr", "noAccess", "wrongType",
          "wrongLength", "wrongEncoding", "wrongValue", "noCreation", "inconsistentValue", "resourceUnavailable",
          "commitFailed", "undoFailed", "authorizationError", "notWritable", "inconsistentName"]


def message(version, community, pdu_tag, varbinds, request_id=0x5EED):
    """An SNMP message of version 0 (v1) or 1 (v2c) with (oid, encoded value) varbinds."""
    vbs = b"".join(h._ber(0x30, h._ber_oid(oid) + value) for oid, value in varbinds)
    pdu = h._ber(pdu_tag, h._ber_int(request_id) + h._ber_int(0) + h._ber_int(0) + h._ber(0x30, vbs))
    return h._ber(0x30, h._ber_int(version) + h._ber(0x04, community.encode()) + pdu)


def ask(data, port, host="127.0.0.1", source="127.0.0.1", timeout=1.0):
    """Sends one datagram from source; returns the answer, or None when none comes."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.bind((source, 0))
        s.settimeout(timeout)
        s.sendto(data, (host, port))
        try:
            return s.recv(65535)
        except socket.timeout:
            return None


def set_targets(expected):
    """OIDs to SET: every column of the first row of each table (the index columns, the value
    column and one past it), and the value column of a row that does not exist."""
    out = []
    for table, (sub, col, _) in h.TABLES.items():
        oid, _ = expected[table][0]
        index = oid[len(sub) + 2:]
        for c in range(1, col + 2):
            out.append(sub + (1, c) + index)
        out.append(sub + (1, col) + h.index_of("new-daemon", "new-key")[:len(index) + 12])
    return out


def whole_walk(port, **kw):
    return {t: h.walk(port, sub, **kw) for t, (sub, _, _) in h.TABLES.items()}


class SetRefusedTest(unittest.TestCase):
    """No SET changes anything, in any mode: v1 and v2c with two communities, v3 with two
    users, every type on every column. Write access cannot be configured (--config refuses
    it: test_trust.py), so every SET stops at the access check."""

    USER_RO, USER_RW = "reader", "writer"

    @classmethod
    def setUpClass(cls):
        cls.tmp = h.TempDir()
        cls.state_file = cls.tmp.file("state.json")
        h.write_state(cls.state_file, STATE)
        cls.config = cls.tmp.file("access.conf")
        with open(cls.config, "w") as f:
            f.write("rocommunity public 127.0.0.1\n"
                    "rocommunity private 127.0.0.1\n"
                    'createUser %s SHA "%s" AES "%s"\n' % (cls.USER_RO, AUTH, PRIV) +
                    'createUser %s SHA "%s" AES "%s"\n' % (cls.USER_RW, AUTH, PRIV) +
                    "rouser %s priv\n" % cls.USER_RO +
                    "rouser %s priv\n" % cls.USER_RW)
        cls.agent = h.Agent(cls.state_file, extra=["--config", cls.config])
        cls.expected = h.expected_rows(STATE)

    @classmethod
    def tearDownClass(cls):
        cls.agent.stop()
        cls.tmp.cleanup()

    def assert_unchanged(self):
        self.assertEqual(whole_walk(self.agent.port), self.expected)
        self.assertEqual(whole_walk(self.agent.port, bulk=False), self.expected)

    def test_v1_and_v2c_sets_of_every_type_on_every_column_are_refused(self):
        outcomes = {}
        for version, community in ((0, "public"), (0, "private"), (1, "public"), (1, "private")):
            for oid in set_targets(self.expected):
                for name, value in SET_VALUES:
                    answer = ask(message(version, community, 0xA3, [(oid, value)]), self.agent.port)
                    self.assertIsNotNone(answer, "no answer to a SET of %s (v%d %s)" % (name, version + 1, community))
                    status = h.response_status(answer)[0]
                    self.assertNotEqual(status, 0, "SET of %s to %s accepted (v%d %s)"
                                        % (name, h.oid_str(oid), version + 1, community))
                    key = ("v1" if version == 0 else "v2c") + " " + community
                    outcomes.setdefault(key, set()).add(ERRORS[status] if 0 <= status < len(ERRORS) else status)
        # Refused by the access check (values of a type no SET can carry, such as NULL, are
        # refused before it as wrongType).
        self.assertEqual(outcomes["v2c public"], {"noAccess", "wrongType"}, outcomes)
        self.assertEqual(outcomes["v2c private"], {"noAccess", "wrongType"}, outcomes)
        print("\nSET outcomes: %s" % {k: sorted(v) for k, v in sorted(outcomes.items())})
        self.assert_unchanged()

    def test_a_set_of_many_varbinds_is_refused_whole(self):
        varbinds = [(oid, value) for oid in set_targets(self.expected)[:6] for _, value in SET_VALUES[:3]]
        for version, community in ((0, "private"), (1, "private")):
            answer = ask(message(version, community, 0xA3, varbinds), self.agent.port)
            self.assertIsNotNone(answer)
            self.assertNotEqual(h.response_status(answer)[0], 0)
        self.assert_unchanged()

    def test_v3_sets_of_every_type_by_read_and_write_users_are_refused(self):
        from pysnmp.hlapi import (ContextData, ObjectIdentity, ObjectType, SnmpEngine, UdpTransportTarget,
                                  UsmUserData, setCmd, usmAesCfb128Protocol, usmHMACSHAAuthProtocol)
        from pysnmp.proto import rfc1902
        from pyasn1.type import univ
        values = [rfc1902.Integer32(1), rfc1902.OctetString(b"changed"), univ.Null(""),
                  rfc1902.ObjectName("1.3.6.1.4.1"), rfc1902.IpAddress("192.0.2.1"), rfc1902.Counter32(7),
                  rfc1902.Gauge32(7), rfc1902.TimeTicks(7), rfc1902.Opaque(b"\x01"), rfc1902.Counter64(2 ** 40),
                  rfc1902.Bits(b"\x80")]
        engine = SnmpEngine()
        target = UdpTransportTarget(("127.0.0.1", self.agent.port), timeout=2, retries=1)
        outcomes = {}
        for user in (self.USER_RO, self.USER_RW):
            auth = UsmUserData(user, AUTH, PRIV, authProtocol=usmHMACSHAAuthProtocol, privProtocol=usmAesCfb128Protocol)
            for oid in set_targets(self.expected):
                for value in values:
                    err_ind, err_stat, _, _ = next(setCmd(engine, auth, target, ContextData(),
                                                          ObjectType(ObjectIdentity(h.oid_str(oid)[1:]), value),
                                                          lookupMib=False))
                    self.assertFalse(err_ind, "%s: %s" % (user, err_ind))
                    self.assertTrue(err_stat, "SET of %s to %s by %s accepted" % (type(value).__name__,
                                                                                   h.oid_str(oid), user))
                    outcomes.setdefault(user, set()).add(err_stat.prettyPrint())
        self.assertIn("noAccess", outcomes[self.USER_RO], outcomes)
        self.assertIn("noAccess", outcomes[self.USER_RW], outcomes)
        self.assertNotIn("notWritable", outcomes[self.USER_RW], outcomes)
        print("\nv3 SET outcomes: %s" % {k: sorted(v) for k, v in outcomes.items()})
        self.assert_unchanged()


class SourceAddressTest(unittest.TestCase):
    """The default configuration answers 127.0.0.1 only: an agent listening on 127.0.0.2
    answers a request from 127.0.0.1 and ignores the same request from 127.0.0.2 and
    127.0.0.3 (the whole 127.0.0.0/8 reaches the loopback interface)."""

    def test_default_answers_only_127_0_0_1(self):
        tmp = h.TempDir()
        try:
            path = tmp.file("state.json")
            h.write_state(path, STATE)
            port = h.free_port(host="127.0.0.2")
            agent = h.Agent(path, port=port, listen=["udp:127.0.0.2:%d" % port])
            try:
                oid, value = h.expected_rows(STATE)["enabled"][0]
                get = message(1, "public", 0xA0, [(oid, b"\x05\x00")])
                answer = ask(get, port, host="127.0.0.2", source="127.0.0.1")
                self.assertIsNotNone(answer, agent.stderr())
                self.assertEqual(h.response_status(answer)[0], 0)
                self.assertIn(h._ber_int(value), answer)
                for source in ("127.0.0.2", "127.0.0.3"):
                    self.assertIsNone(ask(get, port, host="127.0.0.2", source=source), source)
                    self.assertIsNone(ask(message(1, "public", 0xA3, [(oid, h._ber_int(2))]), port, host="127.0.0.2",
                                          source=source), source)
                # Still answering 127.0.0.1 afterwards.
                self.assertIsNotNone(ask(get, port, host="127.0.0.2", source="127.0.0.1"))
            finally:
                self.assertEqual(agent.stop(), 0)
        finally:
            tmp.cleanup()

    def test_default_refuses_every_set_from_127_0_0_1(self):
        tmp = h.TempDir()
        try:
            path = tmp.file("state.json")
            h.write_state(path, STATE)
            agent = h.Agent(path)
            try:
                expected = h.expected_rows(STATE)
                for version in (0, 1):
                    for oid in set_targets(expected):
                        for name, value in SET_VALUES:
                            answer = ask(message(version, "public", 0xA3, [(oid, value)]), agent.port)
                            self.assertIsNotNone(answer)
                            self.assertNotEqual(h.response_status(answer)[0], 0, name)
                self.assertEqual(whole_walk(agent.port), expected)
            finally:
                self.assertEqual(agent.stop(), 0)
        finally:
            tmp.cleanup()


def listening_sockets(pid):
    """The TCP sockets listening and the UDP sockets bound, of process pid: [(proto, address)]
    with addresses as in /proc/net (hex address:port)."""
    inodes = set()
    for fd in os.listdir("/proc/%d/fd" % pid):
        try:
            target = os.readlink("/proc/%d/fd/%s" % (pid, fd))
        except OSError:
            continue
        if target.startswith("socket:["):
            inodes.add(target[8:-1])
    out = []
    for proto in ("tcp", "tcp6", "udp", "udp6"):
        with open("/proc/net/" + proto) as f:
            next(f)
            for line in f:
                fields = line.split()
                local, state, inode = fields[1], fields[3], fields[9]
                if inode in inodes and (proto.startswith("udp") or state == "0A"):  # 0A: LISTEN
                    out.append((proto, local))
    return out


class ListeningTest(unittest.TestCase):
    """The agent listens where --listen says and nowhere else: in particular not on SMUX's
    TCP port 199 of every address, which Debian's agent library opens unless told not to."""

    def test_only_the_listen_address_is_open(self):
        tmp = h.TempDir()
        try:
            path = tmp.file("state.json")
            h.write_state(path, STATE)
            agent = h.Agent(path)
            try:
                port = "%04X" % agent.port
                self.assertEqual(listening_sockets(agent.pid), [("udp", "0100007F:" + port)], agent.stderr())
                self.assertNotIn("smux", agent.stderr().lower())
            finally:
                self.assertEqual(agent.stop(), 0)
        finally:
            tmp.cleanup()


class V3OnlyTest(unittest.TestCase):
    """The v3-only configuration of docs/operations.md (authPriv, SHA-256 and AES): everything else is
    refused, communities included."""

    @classmethod
    def setUpClass(cls):
        cls.tmp = h.TempDir()
        cls.state_file = cls.tmp.file("state.json")
        h.write_state(cls.state_file, STATE)
        cls.config = cls.tmp.file("v3.conf")
        with open(cls.config, "w") as f:
            f.write('createUser ops SHA-256 "%s" AES "%s"\nrouser ops priv\n' % (AUTH, PRIV))
        cls.agent = h.Agent(cls.state_file, extra=["--config", cls.config])
        cls.oid = h.oid_str(h.expected_rows(STATE)["enabled"][0][0])

    @classmethod
    def tearDownClass(cls):
        cls.agent.stop()
        cls.tmp.cleanup()

    def get(self, **kw):
        return h.run_tool("snmpget", v3_args(self.agent.port, user="ops", auth_protocol="SHA-256", **kw) + [self.oid])

    def test_authpriv_is_served(self):
        rc, out, err = self.get()
        self.assertEqual(rc, 0, err)
        self.assertIn("INTEGER: 1", out)

    def test_no_auth_and_auth_without_priv_are_refused(self):
        for level in ("noAuthNoPriv", "authNoPriv"):
            rc, out, err = self.get(level=level)
            self.assertNotEqual(rc, 0, level)
            self.assertNotIn("INTEGER", out, level)
            self.assertRegex(out + err, "authorizationError|noAccess|Timeout|unsupportedSecurityLevel", level)

    def test_wrong_passwords_and_unknown_user_are_refused(self):
        cases = [({"auth": "wrong-auth-pass"}, "Authentication failure"),
                 ({"priv": "wrong-priv-pass"}, None),
                 ({"user": "nobody"}, "Unknown user name")]
        for kw, needle in cases:
            rc, out, err = h.run_tool("snmpget", v3_args(self.agent.port, **dict({"user": "ops", "auth_protocol": "SHA-256"},
                                                                                 **kw)) + [self.oid])
            self.assertNotEqual(rc, 0, kw)
            self.assertNotIn("INTEGER", out, kw)
            if needle:
                self.assertIn(needle, out + err, kw)

    def test_no_community_is_answered(self):
        get = lambda v: message(v, "public", 0xA0, [(h.parse_oid(self.oid), b"\x05\x00")])  # noqa: E731
        for version in (0, 1):
            self.assertIsNone(ask(get(version), self.agent.port), "v%d public" % (version + 1))


def _example_agentx_conf():
    with open(os.path.join(h.SOURCE_DIR, "examples", "snmpd-agentx.conf"), encoding="utf-8") as f:
        return f.read()


@unittest.skipUnless(os.path.exists(h.SNMPD), "snmpd is not installed")
class AgentxSocketTest(unittest.TestCase):
    """snmpd with the fragment of examples/snmpd-agentx.conf (its socket moved to a temporary
    directory): the socket is not world-writable, our agent registers through it, and a SET
    through the master with a write community changes nothing."""

    def test_recommended_socket_is_not_world_writable_and_sets_through_it_change_nothing(self):
        tmp = h.TempDir()
        processes = []
        try:
            conf = _example_agentx_conf()
            perms = re.search(r"^agentXPerms\s+(\d+)\s+(\d+)", conf, re.M)
            self.assertIsNotNone(perms, "the example sets no agentXPerms")
            self.assertEqual(int(perms.group(1), 8) & 0o002, 0, "the example's socket mode is world-writable")
            sock = os.path.join(tmp.path, "agentx", "master")
            # The example keeps Net-SNMP's default socket; this master's goes into the test's
            # own directory.
            self.assertIsNone(re.search(r"^agentXSocket\s", conf, re.M), "the example moves the socket")
            conf += "\nagentXSocket unix:%s\n" % sock
            conf = re.sub(r"^rocommunity\s+public\s+localhost", "rocommunity public 127.0.0.1", conf, flags=re.M)
            conf += "\nrwcommunity private 127.0.0.1 -V velmarDaemonView\ndontLogTCPWrappersConnects yes\n"
            path = tmp.file("snmpd.conf")
            with open(path, "w") as f:
                f.write(conf)
            persistent = tmp.file("persistent")
            os.makedirs(persistent)
            port = h.free_port()
            env = dict(os.environ, MIBS="", SNMP_PERSISTENT_DIR=persistent, SNMPCONFPATH=tmp.path, HOME=tmp.path)
            snmpd = h.Process([h.SNMPD, "-f", "-Lo", "-C", "-c", path, "-I", "agentx,vacm_conf",
                               "udp:127.0.0.1:%d" % port], None, env=env, ready=lambda: h.udp_answers(port))
            processes.append(snmpd)
            mode = stat.S_IMODE(os.stat(sock).st_mode)
            self.assertTrue(stat.S_ISSOCK(os.stat(sock).st_mode))
            self.assertEqual(mode & 0o002, 0, "socket mode %o is world-writable" % mode)
            self.assertEqual(mode, int(perms.group(1), 8), "socket mode %o" % mode)
            dir_mode = stat.S_IMODE(os.stat(os.path.dirname(sock)).st_mode)
            self.assertEqual(dir_mode & 0o002, 0, "directory mode %o is world-writable" % dir_mode)
            print("\nAgentX socket %o, its directory %o (agentXPerms %s %s)"
                  % (mode, dir_mode, perms.group(1), perms.group(2)))

            state_file = tmp.file("state.json")
            h.write_state(state_file, STATE)
            agent = h.Process([h.AGENT, "--agentx", sock, "--agentx-ping", "1", "--state", state_file], "serving VELMAR-DAEMON-MIB")
            processes.append(agent)
            expected = h.expected_rows(STATE)
            deadline = time.time() + 15
            while time.time() < deadline and whole_walk(port) != expected:
                time.sleep(0.2)
            self.assertEqual(whole_walk(port), expected, agent.stderr() + snmpd.output())
            statuses = set()
            for oid in set_targets(expected):
                for name, value in SET_VALUES:
                    answer = ask(message(1, "private", 0xA3, [(oid, value)]), port, timeout=5)
                    self.assertIsNotNone(answer, name)
                    status = h.response_status(answer)[0]
                    self.assertNotEqual(status, 0, "SET of %s to %s accepted through the master" % (name, oid))
                    statuses.add(ERRORS[status] if 0 <= status < len(ERRORS) else status)
            print("SET outcomes through the master: %s" % sorted(statuses))
            self.assertEqual(whole_walk(port), expected)
            self.assertTrue(agent.alive())
        finally:
            for p in reversed(processes):
                p.stop()
            tmp.cleanup()

if __name__ == "__main__":
    unittest.main()
