"""velmar-snmp-agent in master mode, queried over UDP with the Net-SNMP tools and pysnmp.

Expected answers are derived from the state file by the harness, independently of the
agent's own ordering and encoding code.
"""

import json
import os
import random
import subprocess
import unittest

import velmar_harness as h


FIXTURES = {
    "empty": lambda rng: {"daemons": {}},
    "one": lambda rng: {"daemons": {"bgpd": {"config": {"enabled": True, "options": {"asn": "65001"}},
                                             "status": {"running": True, "data": {"pid": "4242"}}}}},
    "many": lambda rng: h.mixed_state(rng),
}


class MasterAgentTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.tmp = h.TempDir()
        cls.agents = {}
        cls.states = {}
        rng = random.Random(20261122)
        try:
            for name, make in FIXTURES.items():
                state = make(rng)
                path = cls.tmp.file(name + ".json")
                h.write_state(path, state)
                cls.states[name] = state
                cls.agents[name] = h.Agent(path)
        except Exception:
            cls.tearDownClass()
            raise

    @classmethod
    def tearDownClass(cls):
        for a in cls.agents.values():
            a.stop()
        cls.tmp.cleanup()

    def check_walk(self, got, expected, what):
        oids = [o for o, _ in got]
        self.assertEqual(oids, sorted(set(oids)), what + ": walk not strictly increasing")
        self.assertEqual(got, expected, what)

    def test_walks_of_every_table_equal_the_state(self):
        for fixture, agent in self.agents.items():
            expected = h.expected_rows(self.states[fixture])
            for table, (subtree, _, _) in h.TABLES.items():
                for bulk, rep in ((False, 0), (True, 1), (True, 10), (True, 50)):
                    with self.subTest(fixture=fixture, table=table, bulk=bulk, rep=rep):
                        got = h.walk(agent.port, subtree, bulk=bulk, max_rep=rep or 10)
                        self.check_walk(got, expected[table], "%s %s" % (fixture, table))

    def test_pysnmp_walks_equal_the_state(self):
        for fixture, agent in self.agents.items():
            expected = h.expected_rows(self.states[fixture])
            for table, (subtree, _, _) in h.TABLES.items():
                with self.subTest(fixture=fixture, table=table):
                    self.check_walk(h.pysnmp_walk(agent.port, subtree), expected[table], table)

    def test_get_of_every_row(self):
        agent = self.agents["many"]
        expected = h.expected_rows(self.states["many"])
        for table, rows in expected.items():
            for i in range(0, len(rows), 5):
                batch = rows[i:i + 5]
                rc, got, err = h.get(agent.port, [o for o, _ in batch])
                self.assertEqual(rc, 0, err)
                self.assertEqual(got, batch)

    def test_getnext_from_each_row_gives_the_following_row(self):
        agent = self.agents["many"]
        expected = h.expected_rows(self.states["many"])
        rows = expected["option"]
        for i, (oid, _) in enumerate(rows[:-1]):
            rc, got, err = h.get(agent.port, [oid], tool="snmpgetnext")
            self.assertEqual(rc, 0, err)
            self.assertEqual(got, [rows[i + 1]])
        # From the table's own OID: the first row.
        rc, got, _ = h.get(agent.port, [h.TABLES["option"][0]], tool="snmpgetnext")
        self.assertEqual(got, [rows[0]])

    def test_getnext_past_the_last_row_leaves_the_table(self):
        agent = self.agents["many"]
        rows = h.expected_rows(self.states["many"])
        # Past the option table's last row: the running table's first row.
        rc, got, err = h.get(agent.port, [rows["option"][-1][0]], tool="snmpgetnext")
        self.assertEqual(got, [rows["running"][0]])
        # Past the last row of the last table: the history's first instance; past the history,
        # the feed's first health object; and past the last of those out of the daemon MIB (to
        # the SNMP engine's objects, or the end of the agent's view).
        rc, out, err = h.run_tool("snmpgetnext", h.common_args(agent.port) + [h.oid_str(rows["data"][-1][0])])
        first_name = sorted(self.states["many"]["daemons"], key=lambda n: (len(n.encode()), n.encode()))[0]
        self.assertTrue(out.startswith(h.oid_str(h.HISTORY + (1, 2) + h.index_of(first_name)) + " = Counter32: 0"), out)
        rc, out, err = h.run_tool("snmpgetnext", h.common_args(agent.port) + [h.oid_str(h.HISTORY + (1, 5, 255))])
        self.assertTrue(out.startswith(h.oid_str(h.FEED + (1, 0)) + " = "), out)
        rc, out, err = h.run_tool("snmpgetnext", h.common_args(agent.port) + [h.oid_str(h.FEED + (14, 0))])
        self.assertEqual(rc, 0, err)
        first = out.split()[0]
        self.assertTrue("No more variables left in this MIB View" in out or h.parse_oid(first)[:len(h.ROOT)] != h.ROOT,
                        out)

    def test_get_of_absent_rows_answers_no_such_instance(self):
        agent = self.agents["one"]
        sub = h.TABLES["option"][0]
        for oid in [sub + (1, 3) + h.index_of("bgpd", "nope"), sub + (1, 3) + h.index_of("nope", "asn"),
                    sub + (1, 3, 4, 98), sub + (1, 2) + h.index_of("bgpd", "asn"), sub + (1, 4) + h.index_of("bgpd", "asn")]:
            rc, out, err = h.run_tool("snmpget", h.common_args(agent.port) + [h.oid_str(oid)])
            self.assertIn("No Such", out + err, h.oid_str(oid))

    def test_long_value_comes_back_whole(self):
        agent = self.agents["many"]
        oid = h.TABLES["option"][0] + (1, 3) + h.index_of("n" * 32, "k" * 64)
        rc, got, err = h.get(agent.port, [oid])
        self.assertEqual(rc, 0, err)
        self.assertEqual(got, [(oid, b"v" * 10240)])

    def test_bulkget_with_non_repeaters(self):
        agent = self.agents["many"]
        expected = h.expected_rows(self.states["many"])
        rc, out, err = h.run_tool("snmpbulkget", ["-Cn1", "-Cr7"] + h.common_args(agent.port) +
                                  [h.oid_str(h.TABLES["enabled"][0]), h.oid_str(h.TABLES["running"][0])])
        self.assertEqual(rc, 0, err)
        got = h.parse_tool_output(out)
        self.assertEqual(got[0], expected["enabled"][0])
        self.assertEqual(got[1:8], expected["running"][:7])

    def test_set_is_refused_on_every_table(self):
        agent = self.agents["one"]
        expected = h.expected_rows(self.states["one"])
        for table, rows in expected.items():
            oid = rows[0][0]
            typ, val = ("i", "1") if table in ("enabled", "running") else ("s", "x")
            rc, out, err = h.run_tool("snmpset", h.common_args(agent.port) + [h.oid_str(oid), typ, val])
            self.assertNotEqual(rc, 0)
            self.assertRegex(out + err, "noAccess|notWritable|Not writable|No Access")
        self.assertEqual(h.walk(agent.port, h.TABLES["option"][0]), expected["option"])

    def test_wrong_community_gets_nothing(self):
        agent = self.agents["one"]
        rc, out, err = h.run_tool("snmpget", h.common_args(agent.port, community="wrong") +
                                  [h.oid_str(h.expected_rows(self.states["one"])["enabled"][0][0])])
        self.assertNotEqual(rc, 0)
        self.assertIn("Timeout", out + err)


class EmptyValueTest(unittest.TestCase):
    """Rows whose value is empty exist only where the model is filled directly."""

    def test_empty_value_answers_generr(self):
        tmp = h.TempDir()
        try:
            fixture = tmp.file("fixture.json")
            h.write_state(fixture, {"daemons": {"bgpd": {"config": {"enabled": True, "options": {"asn": "", "x": "1"}},
                                                         "status": {"running": False, "data": {"pid": ""}}}}})
            port = h.free_port()
            host = h.Process([h.TEST_HOST, os.environ["VELMAR_MODULE"], fixture, str(port)], "serving")
            try:
                for table, key in (("option", "asn"), ("data", "pid")):
                    oid = h.TABLES[table][0] + (1, 3) + h.index_of("bgpd", key)
                    rc, out, err = h.run_tool("snmpget", h.common_args(port) + [h.oid_str(oid)])
                    self.assertNotEqual(rc, 0)
                    self.assertIn("genErr", out + err)
                rc, got, err = h.get(port, [h.TABLES["option"][0] + (1, 3) + h.index_of("bgpd", "x")])
                self.assertEqual(got[0][1], b"1")
            finally:
                self.assertEqual(host.stop(), 0)
        finally:
            tmp.cleanup()


if __name__ == "__main__":
    unittest.main()
