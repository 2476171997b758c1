"""Bad state input: velmar-snmp-agent serving a good state is handed malformed state files
one after another (tests/agent/bad-states/, each with the message fragment it must produce in
expected.json), a file that vanishes, a file far over the size limit, and files swapped
faster than it can read them. A file refused whole (JSON syntax, a wrong top level, empty)
must log exactly one line naming the file and leave what is served byte for byte as it was.
A file whose only fault is in one daemon's entry is applied without that daemon: one line
names the file, the daemon and the item, the daemon keeps the rows it had (or gets none when
it was not served), and every other daemon follows the file. A burst of swaps must end on the
last good file and never serve a mix of two files in one response."""

import json
import os
import re
import sys
import threading
import time
import unittest

import velmar_harness as h

HERE = os.path.dirname(os.path.abspath(__file__))
BAD_DIR = os.path.join(HERE, "bad-states")
DEMO = os.path.join(h.SOURCE_DIR, "examples", "demo-state.json")
MAX_STATE_BYTES = 256 << 20
LINE_TIMEOUT = 10.0
# Files refused whole, by the start of their names; every other file's fault is in one daemon.
# A number too large for the reader stops it where it stands: the file is refused whole, with
# the daemon and item named all the same.
WHOLE_FILE = ("syntax-", "top-", "type-daemons-", "empty", "whitespace-only", "type-value-huge-number")


def daemon_rows(port, name):
    """Every row of the daemon called name, over the four tables."""
    index = h.index_of(name)
    out = []
    for t, (sub, col, _) in h.TABLES.items():
        prefix = sub + (1, col) + index
        out += [r for r in h.walk(port, sub, max_rep=25) if r[0][:len(prefix)] == prefix]
    return out


def served_names(port):
    sub, col, _ = h.TABLES["enabled"]
    # An empty table walks as one "No Such Object" line at the table's OID.
    return {bytes(oid[len(sub) + 3:]).decode() for oid, _ in h.walk(port, sub, max_rep=25) if len(oid) > len(sub) + 2}


def names_in(data):
    """The daemon names of a file Python can read, or none."""
    try:
        return set(json.loads(data.decode("utf-8"))["daemons"])
    except (ValueError, KeyError, TypeError, UnicodeDecodeError):
        return set()


def raw_walk(port):
    """The whole subtree as snmpbulkwalk prints it (numeric OIDs, hex strings)."""
    rc, out, err = h.run_tool("snmpbulkwalk", ["-Cr25"] + h.common_args(port) + [h.oid_str(h.ROOT)])
    if rc != 0:
        raise RuntimeError("snmpbulkwalk failed (%d): %s" % (rc, err))
    return h.without_feed_text(out)


def replace_atomically(path, data):
    """What the launcher does: write a temporary file in the same directory, rename it over."""
    tmp = path + ".tmp"
    with open(tmp, "wb") as f:
        f.write(data)
    os.rename(tmp, path)


def peak_rss_kib(pid):
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            if line.startswith("VmHWM:"):
                return int(line.split()[1])
    return 0


class BadStateTest(unittest.TestCase):
    """One agent for the whole class: the refusals are many and each is cheap."""

    @classmethod
    def setUpClass(cls):
        cls.tmp = h.TempDir()
        cls.path = cls.tmp.file("state.json")
        with open(DEMO, "rb") as f:
            cls.good = f.read()
        replace_atomically(cls.path, cls.good)
        cls.agent = h.Agent(cls.path)
        cls.prefix = "velmar-snmp-agent: state file %s: " % cls.path

    @classmethod
    def tearDownClass(cls):
        cls.agent.stop()
        cls.tmp.cleanup()

    def setUp(self):
        # Every test starts from the good file, served and settled.
        replace_atomically(self.path, self.good)
        self.wait_served(h.expected_rows(json.loads(self.good)))
        time.sleep(0.1)

    # --- helpers ------------------------------------------------------------------------

    def feed_lines(self, mark):
        return [l for l in self.agent.stderr_lines[mark:] if self.prefix in l]

    def wait_feed_line(self, mark, timeout=LINE_TIMEOUT):
        deadline = time.time() + timeout
        while time.time() < deadline:
            lines = self.feed_lines(mark)
            if lines:
                return lines[0]
            time.sleep(0.01)
        self.fail("no line for the state file after %.0f s; agent stderr:\n%s" % (timeout, self.agent.stderr()))

    def all_tables(self):
        return {t: h.walk(self.agent.port, sub, max_rep=25) for t, (sub, _, _) in h.TABLES.items()}

    def wait_served(self, expected, timeout=LINE_TIMEOUT):
        deadline = time.time() + timeout
        got = None
        while time.time() < deadline:
            got = self.all_tables()
            if got == expected:
                return
            time.sleep(0.05)
        self.fail("the served state did not follow the file:\n%s\nagent:\n%s" % (got, self.agent.stderr()))

    def assert_refused(self, data, fragment, what):
        """Replaces the file with data; exactly one line with fragment, nothing served changes."""
        before = raw_walk(self.agent.port)
        mark = len(self.agent.stderr_lines)
        replace_atomically(self.path, data)
        line = self.wait_feed_line(mark)
        self.assertIn(fragment, line, what)
        after = raw_walk(self.agent.port)
        self.assertEqual(after, before, "%s: the served state changed" % what)
        self.assertEqual(len(self.feed_lines(mark)), 1, "%s: more than one line:\n%s" % (what, "\n".join(self.feed_lines(mark))))
        return line

    # --- the corpus ---------------------------------------------------------------------

    def test_corpus_is_large_and_complete(self):
        with open(os.path.join(BAD_DIR, "expected.json")) as f:
            expected = json.load(f)
        files = sorted(n for n in os.listdir(BAD_DIR) if n != "expected.json")
        self.assertGreaterEqual(len(files), 50)
        self.assertEqual(sorted(expected), files, "every bad file has exactly one expected fragment")

    def assert_skipped(self, data, fragment, what):
        """Replaces the file with data, whose fault is in one daemon: one line naming it, the
        daemon keeps what it had (or stays unserved), every other daemon follows the file."""
        good_names = set(json.loads(self.good)["daemons"])
        reloads = h.feed_health(self.agent.port)["reloads"]
        mark = len(self.agent.stderr_lines)
        replace_atomically(self.path, data)
        line = self.wait_feed_line(mark)
        self.assertIn(fragment, line, what)
        m = re.match(r'daemon "((?:[^"\\]|\\.)*)"', line.split(self.prefix, 1)[1])
        self.assertIsNotNone(m, "%s: the line names no daemon: %s" % (what, line))
        bad = m.group(1)
        kept = bad in good_names
        self.assertTrue(line.endswith("; serving its last good state" if kept else "; not served"), line)
        expected = (names_in(data) - {bad}) | ({bad} if kept else set())
        deadline = time.time() + LINE_TIMEOUT
        while served_names(self.agent.port) != expected and time.time() < deadline:
            time.sleep(0.05)
        self.assertEqual(served_names(self.agent.port), expected, what)
        health = h.feed_health(self.agent.port)
        self.assertGreater(health["reloads"], reloads, what)
        self.assertEqual(health["state"], h.FEED_STATES["ok"], what)
        self.assertEqual(health["skippedNow"], 1, what)
        self.assertEqual(health["lastSkip"].decode("utf-8", "replace"), line.split("velmar-snmp-agent: ", 1)[1], what)
        skips = [l for l in self.feed_lines(mark) if fragment in l]
        self.assertEqual(len(skips), 1, "%s: not one line:\n%s" % (what, "\n".join(self.feed_lines(mark))))
        return bad if kept else None

    def test_every_bad_file_is_refused_or_skips_its_bad_daemon_with_its_message(self):
        with open(os.path.join(BAD_DIR, "expected.json")) as f:
            expected = json.load(f)
        served = raw_walk(self.agent.port)
        mark = len(self.agent.stderr_lines)
        whole = 0
        for name in sorted(n for n in expected if n.startswith(WHOLE_FILE)):
            with self.subTest(file=name):
                with open(os.path.join(BAD_DIR, name), "rb") as f:
                    data = f.read()
                self.assert_refused(data, expected[name], name)
                whole += 1
        # One line per file in all, and the same state served at the end as at the start.
        self.assertEqual(len(self.feed_lines(mark)), whole)
        self.assertEqual(raw_walk(self.agent.port), served)
        self.assertGreaterEqual(whole, 20)

        bgpd = daemon_rows(self.agent.port, "bgpd")
        self.assertTrue(bgpd)
        partial = 0
        for name in sorted(n for n in expected if not n.startswith(WHOLE_FILE)):
            with self.subTest(file=name):
                replace_atomically(self.path, self.good)
                self.wait_served(h.expected_rows(json.loads(self.good)))
                with open(os.path.join(BAD_DIR, name), "rb") as f:
                    data = f.read()
                kept = self.assert_skipped(data, expected[name], name)
                if kept is not None:
                    self.assertEqual(daemon_rows(self.agent.port, kept), bgpd, name)
                partial += 1
        self.assertGreaterEqual(partial, 30)
        # The feed still applies a good file afterwards.
        state = json.loads(self.good)
        state["daemons"]["bgpd"]["config"]["options"]["asn"] = "65077"
        mark = len(self.agent.stderr_lines)
        replace_atomically(self.path, json.dumps(state).encode())
        self.assertIn("applied", self.wait_feed_line(mark))
        self.wait_served(h.expected_rows(state))

    # --- files that are not there, or far too big ----------------------------------------

    def test_a_file_that_vanishes_leaves_the_state_served(self):
        before = raw_walk(self.agent.port)
        mark = len(self.agent.stderr_lines)
        os.unlink(self.path)
        line = self.wait_feed_line(mark)
        self.assertIn("removed; serving the last state", line)
        self.assertEqual(raw_walk(self.agent.port), before)
        time.sleep(0.3)
        self.assertEqual(len(self.feed_lines(mark)), 1, "\n".join(self.feed_lines(mark)))
        # Written again with other content: applied.
        state = json.loads(self.good)
        del state["daemons"]["ntpd"]
        mark = len(self.agent.stderr_lines)
        replace_atomically(self.path, json.dumps(state).encode())
        self.assertIn("applied", self.wait_feed_line(mark))
        self.wait_served(h.expected_rows(state))

    def test_a_huge_file_is_refused_without_being_read(self):
        # A sparse file one byte over the limit: no disk space, and the agent must not read it.
        peak = peak_rss_kib(self.agent.pid)
        tmp = self.path + ".huge"
        with open(tmp, "wb") as f:
            f.truncate(MAX_STATE_BYTES + 1)
        before = raw_walk(self.agent.port)
        mark = len(self.agent.stderr_lines)
        started = time.time()
        os.rename(tmp, self.path)
        line = self.wait_feed_line(mark)
        elapsed = time.time() - started
        self.assertIn("file is %d bytes, more than %d" % (MAX_STATE_BYTES + 1, MAX_STATE_BYTES), line)
        self.assertEqual(raw_walk(self.agent.port), before)
        self.assertEqual(len(self.feed_lines(mark)), 1)
        self.assertLess(elapsed, 5.0)
        # Reading it would have taken 256 MiB at least.
        self.assertLess(peak_rss_kib(self.agent.pid) - peak, 64 * 1024, "the agent's peak memory grew")

    def test_a_file_that_is_not_a_regular_file_is_refused(self):
        before = raw_walk(self.agent.port)
        mark = len(self.agent.stderr_lines)
        tmp = self.path + ".dir"
        os.mkdir(tmp)
        os.unlink(self.path)
        self.assertIn("removed; serving the last state", self.wait_feed_line(mark))
        mark = len(self.agent.stderr_lines)
        os.rename(tmp, self.path)
        try:
            self.assertIn("not a regular file", self.wait_feed_line(mark))
            self.assertEqual(raw_walk(self.agent.port), before)
            self.assertEqual(len(self.feed_lines(mark)), 1)
        finally:
            mark = len(self.agent.stderr_lines)
            os.rmdir(self.path)
            self.wait_feed_line(mark)   # its removal is said too

    # --- files swapped faster than they are read ---------------------------------------

    def test_files_replaced_mid_read_end_on_the_last_good_one_and_never_mix(self):
        def generation(i):
            """A state whose every value and flag says which file it came from."""
            daemons = {}
            for name in ("alpha", "bravo", "charlie"):
                daemons[name] = {"config": {"enabled": i % 2 == 0, "options": {"gen": str(i), "name": name + str(i)}},
                                 "status": {"running": i % 3 == 0, "data": {"gen": str(i)}}}
            if i % 2:
                daemons["odd"] = {"config": {"enabled": True, "options": {"gen": str(i)}}}
            return {"daemons": daemons}

        def rows(state):
            r = h.expected_rows(state)
            return sorted(row for t in r for row in r[t])

        count = 60
        states = {i: generation(i) for i in range(count + 1)}
        allowed = {tuple(rows(s)): i for i, s in states.items()}
        # Start from generation 0.
        mark0 = len(self.agent.stderr_lines)
        replace_atomically(self.path, json.dumps(states[0]).encode())
        self.wait_served(h.expected_rows(states[0]))

        stop = threading.Event()
        seen, mixes, errors = [], [], []

        def reader():
            # One GETBULK returns the whole subtree in one response, made in one turn of
            # the agent's loop: it must be exactly one of the states written.
            args = ["-Cn0", "-Cr80"] + h.common_args(self.agent.port) + [h.oid_str(h.ROOT)]
            while not stop.is_set():
                rc, out, err = h.run_tool("snmpbulkget", args)
                if rc != 0:
                    errors.append(err)
                    continue
                got = sorted((oid, v) for oid, v in h.without_feed(h.parse_tool_output(out)) if oid[:len(h.ROOT)] == h.ROOT)
                key = tuple(got)
                if key in allowed:
                    seen.append(allowed[key])
                else:
                    mixes.append(got)

        t = threading.Thread(target=reader, daemon=True)
        t.start()
        try:
            for i in range(1, count):
                good = json.dumps(states[i], indent=1).encode()
                replace_atomically(self.path, good)
                # A file cut off half-way, as a reader would see one that is still being
                # written, then a file that is not JSON at all.
                replace_atomically(self.path, good[: len(good) // 2])
                replace_atomically(self.path, b"\x00" * 64)
                time.sleep(0.02)
            replace_atomically(self.path, json.dumps(states[count]).encode())
            self.wait_served(h.expected_rows(states[count]))
            time.sleep(0.3)
        finally:
            stop.set()
            t.join(30)
        self.assertFalse(mixes, "responses that are no single file's state: %s" % mixes[:2])
        self.assertFalse(errors, errors[:2])
        self.assertTrue(seen, "the reader got no response")
        self.assertEqual(seen[-1], count, "the last response is not the last good file")
        lines = self.feed_lines(mark0)
        print("\nburst: %d files renamed in, %d whole-subtree responses checked, %d distinct files served, "
              "%d applied and %d refused reloads logged" % (3 * (count - 1) + 2, len(seen), len(set(seen)),
                                                             sum(" applied " in l for l in lines),
                                                             sum("invalid JSON" in l for l in lines)), file=sys.stderr)
        # Every line of the feed in the burst is an applied file or a refused one.
        for line in lines:
            rest = line.split(self.prefix, 1)[1]
            self.assertTrue(rest.startswith(("applied ", "recovered; it was refused")) or "invalid JSON" in rest, line)


if __name__ == "__main__":
    unittest.main()
