"""The feed's health over SNMP (velmarDaemonFeed): velmar-snmp-agent serving a state file is
taken through every state the file source can be in (fresh, refused, gone, recovered) and a
partly bad reload, and each is read back with snmpget: the state, the source, the counts of
daemons and rows, the reloads, refusals and skipped entries, the last refusal and skip, and
the ages and times of the last change and read. The log lines that go with them are checked
too."""

import copy
import json
import os
import time
import unittest

import velmar_harness as h

BASE = {"daemons": {
    "bgpd": {"config": {"enabled": True, "options": {"asn": "65001", "router-id": "10.0.0.1"}},
             "status": {"running": True, "data": {"pid": "4242"}}},
    "ntpd": {"config": {"enabled": False, "options": {"servers": "192.0.2.1"}}},
    "sshd": {"status": {"running": False, "data": {"last-exit": "stopped"}}},
}}
NEVER = 4294967295
TIMEOUT = 10.0


def replace_atomically(path, data):
    tmp = path + ".tmp"
    with open(tmp, "wb") as f:
        f.write(data)
    os.rename(tmp, path)


def row_count(state):
    return sum(len(r) for r in h.expected_rows(state).values())


def date_and_time(value):
    """(year, month, day, hour, minute, second) of an 11-octet UTC DateAndTime."""
    return (value[0] << 8 | value[1], value[2], value[3], value[4], value[5], value[6])


class FeedHealthTest(unittest.TestCase):
    def setUp(self):
        self.tmp = h.TempDir()
        self.addCleanup(self.tmp.cleanup)
        self.path = self.tmp.file("state.json")
        h.write_state(self.path, BASE)
        self.agent = h.Agent(self.path)
        self.addCleanup(self.agent.stop)
        self.prefix = "velmar-snmp-agent: state file %s: " % self.path

    def wait_health(self, pred, what):
        deadline = time.time() + TIMEOUT
        health = None
        while time.time() < deadline:
            health = h.feed_health(self.agent.port)
            if pred(health):
                return health
            time.sleep(0.05)
        self.fail("%s: the feed's health did not follow: %s\nagent:\n%s" % (what, health, self.agent.stderr()))

    def tables(self):
        return {t: h.walk(self.agent.port, sub, max_rep=25) for t, (sub, _, _) in h.TABLES.items()}

    def feed_lines(self, mark):
        return [l.split(self.prefix, 1)[1] for l in self.agent.stderr_lines[mark:] if self.prefix in l]

    def test_fresh_refused_gone_and_recovered_read_over_snmp(self):
        # Fresh: the first load, read at once.
        health = h.feed_health(self.agent.port)
        self.assertEqual(health["source"], ("state file " + self.path).encode())
        self.assertEqual(health["state"], h.FEED_STATES["ok"])
        self.assertEqual(health["daemons"], 3)
        self.assertEqual(health["rows"], row_count(BASE))
        self.assertGreaterEqual(health["reloads"], 1)
        self.assertEqual(health["refusals"], 0)
        self.assertEqual(health["lastRefusal"], b"")
        self.assertEqual((health["skippedNow"], health["skipped"], health["lastSkip"]), (0, 0, b""))
        self.assertLess(health["changeAge"], 60)
        self.assertLess(health["readAge"], 60)
        now = time.gmtime()
        for name in ("lastChange", "lastRead"):
            value = health[name]
            self.assertEqual(len(value), 11, name)
            self.assertEqual(value[8:], b"+\x00\x00", name)   # UTC
            self.assertEqual(date_and_time(value)[:3], (now.tm_year, now.tm_mon, now.tm_mday), name)
        served = self.tables()

        # The ages grow while nothing is written.
        time.sleep(2.2)
        later = h.feed_health(self.agent.port)
        self.assertGreaterEqual(later["changeAge"], health["changeAge"] + 2)
        self.assertGreaterEqual(later["readAge"], health["readAge"] + 2)
        self.assertEqual(later["lastChange"], health["lastChange"])

        # Refused: not JSON. The tables stay, the refusal is counted and readable.
        reloads = later["reloads"]
        mark = len(self.agent.stderr_lines)
        replace_atomically(self.path, b'{"daemons": {"bgpd": }}')
        refused = self.wait_health(lambda x: x["state"] == h.FEED_STATES["refused"], "refused")
        self.assertEqual(refused["refusals"], 1)
        self.assertEqual(refused["reloads"], reloads)
        self.assertEqual(refused["lastRefusal"].decode(),
                         "state file %s: line 1, column 22: invalid JSON: invalid value" % self.path)
        self.assertGreaterEqual(refused["readAge"], 2)   # the last good read is the old one
        self.assertEqual(refused["lastRead"], health["lastRead"])
        self.assertEqual(self.tables(), served)
        self.assertEqual(self.feed_lines(mark), ["line 1, column 22: invalid JSON: invalid value"])

        # Gone: the file is deleted. The tables stay.
        mark = len(self.agent.stderr_lines)
        os.unlink(self.path)
        gone = self.wait_health(lambda x: x["state"] == h.FEED_STATES["gone"], "gone")
        self.assertEqual(gone["refusals"], 1)
        self.assertEqual(gone["daemons"], 3)
        self.assertEqual(self.tables(), served)
        self.assertIsNotNone(self.agent.wait_stderr("removed; serving the last state", start=mark))

        # Recovered: a good file again, with one daemon fewer.
        state = copy.deepcopy(BASE)
        del state["daemons"]["ntpd"]
        mark = len(self.agent.stderr_lines)
        h.write_state(self.path, state)
        ok = self.wait_health(lambda x: x["state"] == h.FEED_STATES["ok"], "recovered")
        self.assertEqual(ok["reloads"], reloads + 1)
        self.assertEqual(ok["refusals"], 1)
        self.assertEqual(ok["lastRefusal"], refused["lastRefusal"])   # kept after recovery
        self.assertEqual(ok["daemons"], 2)
        self.assertEqual(ok["rows"], row_count(state))
        self.assertLess(ok["readAge"], 2)
        self.assertLess(ok["changeAge"], 2)
        self.assertEqual(self.tables(), h.expected_rows(state))
        self.assertIsNotNone(self.agent.wait_stderr("recovered; it was gone", start=mark), self.agent.stderr())
        lines = self.feed_lines(mark)
        self.assertEqual(lines, ["applied 3 changes (daemons: 0 added, 1 removed; rows: 0 added, 3 removed; "
                                 "0 changed in place); serving 2 daemons, %d rows" % row_count(state),
                                 "recovered; it was gone"])

        # A later good file that changes nothing says nothing and recovers nothing.
        mark = len(self.agent.stderr_lines)
        h.write_state(self.path, state)
        self.wait_health(lambda x: x["reloads"] == reloads + 2, "unchanged reload")
        time.sleep(0.2)
        self.assertEqual(self.feed_lines(mark), [])

    def test_partly_bad_reload_applies_every_good_daemon_and_keeps_the_bad_ones_last_state(self):
        before = self.tables()
        reloads = h.feed_health(self.agent.port)["reloads"]
        # bgpd: a value of the wrong type; ntpd: enabled now; sshd as it was; lldpd: new,
        # with a key too long to be an index: never served.
        bad = json.dumps(BASE["daemons"]["sshd"])
        text = ('{"daemons": {\n'
                '"bgpd": {"config": {"enabled": true, "options": {"asn": 65002}}},\n'
                '"ntpd": {"config": {"enabled": true, "options": {"servers": "192.0.2.9"}}},\n'
                '"lldpd": {"status": {"data": {"%s": "1"}}},\n'
                '"sshd": %s}}' % ("k" * 65, bad))
        mark = len(self.agent.stderr_lines)
        replace_atomically(self.path, text.encode())
        health = self.wait_health(lambda x: x["reloads"] > reloads and x["skippedNow"] == 2, "partial reload")
        expected_state = copy.deepcopy(BASE)
        expected_state["daemons"]["ntpd"]["config"] = {"enabled": True, "options": {"servers": "192.0.2.9"}}
        expected = h.expected_rows(expected_state)
        deadline = time.time() + TIMEOUT
        while self.tables() != expected and time.time() < deadline:
            time.sleep(0.05)
        got = self.tables()
        self.assertEqual(got, expected)
        # bgpd's rows are exactly what they were.
        bgpd = h.index_of("bgpd")
        for t, (sub, col, _) in h.TABLES.items():
            prefix = sub + (1, col) + bgpd
            self.assertEqual([r for r in got[t] if r[0][:len(prefix)] == prefix],
                             [r for r in before[t] if r[0][:len(prefix)] == prefix], t)
        lines = self.feed_lines(mark)
        skip_bgpd = ('daemon "bgpd" option "asn": value must be a string, not a number (line 2); '
                     'serving its last good state')
        skip_lldpd = 'daemon "lldpd" data "%s...": key is 65 bytes, more than 64 (line 4); not served' % ("k" * 64)
        self.assertEqual(lines[:2], [skip_bgpd, skip_lldpd])
        self.assertEqual(lines[2], "applied 2 changes (daemons: 0 added, 0 removed; rows: 0 added, 0 removed; "
                                   "2 changed in place); serving 3 daemons, %d rows" % row_count(expected_state))
        self.assertEqual(len(lines), 3, lines)
        # Counted as an applied reload with two skipped entries, not as a refusal.
        health = h.feed_health(self.agent.port)
        self.assertEqual(health["state"], h.FEED_STATES["ok"])
        self.assertEqual(health["reloads"], reloads + 1)
        self.assertEqual(health["refusals"], 0)
        self.assertEqual(health["skippedNow"], 2)
        self.assertEqual(health["skipped"], 2)
        self.assertEqual(health["lastSkip"].decode(), "state file %s: %s" % (self.path, skip_lldpd))
        self.assertEqual(health["lastRefusal"], b"")
        self.assertEqual(health["daemons"], 3)

        # Fixed: bgpd follows the file again, and nothing is skipped now.
        state = copy.deepcopy(expected_state)
        state["daemons"]["bgpd"]["config"]["options"]["asn"] = "65002"
        h.write_state(self.path, state)
        health = self.wait_health(lambda x: x["reloads"] == reloads + 2, "fixed")
        self.assertEqual((health["skippedNow"], health["skipped"]), (0, 2))
        deadline = time.time() + TIMEOUT
        while self.tables() != h.expected_rows(state) and time.time() < deadline:
            time.sleep(0.05)
        self.assertEqual(self.tables(), h.expected_rows(state))

    def test_health_is_read_only_and_only_its_fourteen_objects(self):
        oid = h.oid_str(h.FEED + (h.FEED_OBJECTS["state"], 0))
        rc, out, err = h.run_tool("snmpset", h.common_args(self.agent.port) + [oid, "i", "2"])
        self.assertNotEqual(rc, 0)
        self.assertEqual(h.feed_health(self.agent.port)["state"], h.FEED_STATES["ok"])
        # Beyond the last object and beside the instances: nothing.
        rc, got, err = h.get(self.agent.port, [h.FEED + (15, 0), h.FEED + (2, 1)])
        self.assertEqual([v for _, v in got], ["No Such Object available on this agent at this OID",
                                              "No Such Instance currently exists at this OID"])


if __name__ == "__main__":
    unittest.main()
