"""Replies that would not fit in one UDP datagram: with values near the 10,240-byte limit a
GETBULK reply is trimmed of its trailing varbinds until it fits (RFC 3416, 4.2.3), so bulk
walks at any max-repetitions return every row, standalone and inside snmpd through the
dlmod bridge; a GET of one 10,240-byte value comes back whole, and a GET whose reply cannot
fit is answered tooBig instead of not at all."""

import os
import socket
import unittest

import velmar_harness as h

MAX_UDP = 65507        # the largest UDP payload over IPv4
TOO_BIG = 1            # error-status tooBig
LONGEST = 10240        # the longest value a row may have


def filler(tag, size):
    """size bytes of text that differ from one row to the next."""
    unit = (tag + ":").encode()
    return (unit * (size // len(unit) + 1))[:size].decode()


def big_state():
    """Ten daemons with three 10,000-byte options each; the first publishes one value of
    the longest allowed length."""
    daemons = {}
    for i in range(10):
        name = "daemon%02d" % i
        daemons[name] = {
            "config": {"enabled": i % 2 == 0,
                       "options": {"opt%d" % k: filler("%s/opt%d" % (name, k), 10000) for k in range(3)}},
            "status": {"running": i % 3 != 0, "data": {"pid": str(4000 + i)}}}
    daemons["daemon00"]["status"]["data"]["dump"] = filler("daemon00/dump", LONGEST)
    return {"daemons": daemons}


STATE = big_state()
EXPECTED = h.expected_rows(STATE)
EVERY_ROW = sorted((row for rows in EXPECTED.values() for row in rows), key=lambda r: r[0])
DUMP_OID = h.TABLES["data"][0] + (1, 3) + h.index_of("daemon00", "dump")


def getbulk_message(oid, max_rep, community="public", request_id=0x5EED):
    varbind = h._ber(0x30, h._ber_oid(oid) + b"\x05\x00")
    pdu = h._ber(0xA5, h._ber_int(request_id) + h._ber_int(0) + h._ber_int(max_rep) + h._ber(0x30, varbind))
    return h._ber(0x30, h._ber_int(1) + h._ber(0x04, community.encode()) + pdu)


def get_message(oids, community="public", request_id=0x5EED):
    varbinds = b"".join(h._ber(0x30, h._ber_oid(o) + b"\x05\x00") for o in oids)
    pdu = h._ber(0xA0, h._ber_int(request_id) + h._ber_int(0) + h._ber_int(0) + h._ber(0x30, varbinds))
    return h._ber(0x30, h._ber_int(1) + h._ber(0x04, community.encode()) + pdu)


def ask(data, port, timeout=3.0):
    """Sends one datagram to 127.0.0.1:port; returns the answer, or None when none comes."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as s:
        s.settimeout(timeout)
        s.sendto(data, ("127.0.0.1", port))
        try:
            return s.recv(1 << 17)
        except socket.timeout:
            return None


class LargeRepliesChecks:
    """The checks, against self.port; self.log() returns the server's output."""

    def test_bulk_walks_return_every_row_at_every_max_repetitions(self):
        for max_rep in (1, 10, 25, 50):
            with self.subTest(max_repetitions=max_rep):
                got = h.walk(self.port, h.ROOT, max_rep=max_rep)
                self.assertEqual(len(got), len(EVERY_ROW), self.log()[-3000:])
                self.assertEqual(got, EVERY_ROW)
        self.assertNotIn("send response", self.log())

    def test_get_of_the_longest_value_comes_back_whole(self):
        rc, got, err = h.get(self.port, [DUMP_OID])
        self.assertEqual(rc, 0, err)
        self.assertEqual(got, [(DUMP_OID, STATE["daemons"]["daemon00"]["status"]["data"]["dump"].encode())])

    def test_oversized_getbulk_reply_is_trimmed_to_one_datagram(self):
        answer = ask(getbulk_message(h.TABLES["option"][0], 50), self.port)
        self.assertIsNotNone(answer, "no reply to GETBULK max-repetitions 50\n" + self.log()[-3000:])
        self.assertLessEqual(len(answer), MAX_UDP)
        status, count = h.response_status(answer)
        self.assertEqual(status, 0)
        # Six 10,000-byte values fit in 65,507 bytes, seven do not: the reply keeps as many
        # leading varbinds as fit.
        self.assertEqual(count, 6)

    def test_get_too_large_for_a_datagram_is_answered_too_big(self):
        oids = [oid for oid, _ in EXPECTED["option"][:7]]
        answer = ask(get_message(oids), self.port)
        self.assertIsNotNone(answer, "no reply to a GET of 70,000 bytes\n" + self.log()[-3000:])
        self.assertLessEqual(len(answer), MAX_UDP)
        self.assertEqual(h.response_status(answer)[0], TOO_BIG)


class StandaloneTest(LargeRepliesChecks, unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = h.TempDir()
        cls.state_file = cls.tmp.file("state.json")
        h.write_state(cls.state_file, STATE)
        cls.agent = h.Agent(cls.state_file)
        cls.port = cls.agent.port

    @classmethod
    def tearDownClass(cls):
        cls.agent.stop()
        cls.tmp.cleanup()

    def log(self):
        return self.agent.stderr()


@unittest.skipUnless(os.access(h.SNMPD, os.X_OK), "Debian's snmpd is not installed (apt-get install snmpd)")
class DlmodTest(LargeRepliesChecks, unittest.TestCase):
    """The same through snmpd with the dlmod bridge: snmpd builds the replies, and the bridge
    limits them as the agent does."""

    @classmethod
    def setUpClass(cls):
        import test_dlmod as d
        if not (d.BRIDGE and os.path.exists(d.BRIDGE)):
            raise AssertionError("VELMAR_DLMOD does not name the built bridge: %r" % d.BRIDGE)
        cls.tmp = h.TempDir()
        cls.state_file = cls.tmp.file("state.json")
        h.write_state(cls.state_file, STATE)
        cls.snmpd = d.Snmpd(cls.tmp.path, d.dlmod_lines(cls.state_file))
        cls.port = cls.snmpd.port
        if not cls.snmpd.wait_log("serving VELMAR-DAEMON-MIB", timeout=15):
            cls.snmpd.stop()
            raise AssertionError("the bridge did not start serving:\n" + cls.snmpd.log())

    @classmethod
    def tearDownClass(cls):
        cls.snmpd.stop()
        cls.tmp.cleanup()

    def log(self):
        return self.snmpd.log()


if __name__ == "__main__":
    unittest.main()
