"""Prometheus: Debian's prometheus-snmp-exporter scrapes velmar-snmp-agent with the
module in prometheus/snmp.yml, directly and through Debian's snmpd with its stock
snmpd.conf and the installed AgentX or dlmod fragment enabled (community "public").

The committed snmp.yml must be what prometheus/generate makes of generator.yml today;
the flags read 1 (true) and 0 (false); option values arrive as labels of info-style
samples; numeric data values (PIDs, restart counts, memory, times) are the values of gauge
samples and text data gives none; every table labels the daemon `daemon` (and a key `key`);
the feed's health arrives as gauges and counters; a rewritten state file shows in the next
scrape.

Both servers listen on free loopback ports and are stopped by process id; every wait is
bounded. The exporter reaches nothing but the agent."""

import copy
import os
import re
import shutil
import signal
import socket
import subprocess
import time
import unittest
import urllib.error
import urllib.parse
import urllib.request

import stock_snmpd as stock
import velmar_harness as h

PROMETHEUS_DIR = os.path.join(h.SOURCE_DIR, "prometheus")
SNMP_YML = os.path.join(PROMETHEUS_DIR, "snmp.yml")
EXPORTER = os.environ.get("VELMAR_SNMP_EXPORTER", "prometheus-snmp-exporter")
GENERATOR = os.environ.get("VELMAR_SNMP_GENERATOR", "prometheus-snmp-generator")
MODULE = "velmar_daemon"

STATE = {"daemons": {
    "bgpd": {"config": {"enabled": True, "options": {"asn": "65001", "router-id": "10.0.0.1"}},
             "status": {"running": True, "data": {"pid": "4242", "uptime": "3d4h", "restarts": "3",
                                                   "memory-bytes": "183500800", "cpu-seconds": "12.75",
                                                   "started-at": "1795000000", "offset": "-0.004",
                                                   "version": "1.2.3"}}},
    "ntpd": {"config": {"enabled": False, "options": {"servers": "192.0.2.10,192.0.2.11"}},
             "status": {"running": False, "data": {"last-exit": "stopped by launcher"}}},
    "lldpd": {"config": {"enabled": True, "options": {"system-name": "leaf \"01\"\\a"}}},
    "dæmon": {"status": {"running": True, "data": {"clé": "välue"}}},
}}

# metric name: (walked table, value column, index labels)
METRICS = {
    "velmarDaemonEnabled": ("enabled", ["daemon"]),
    "velmarDaemonOptionValue": ("option", ["daemon", "key"]),
    "velmarDaemonRunning": ("running", ["daemon"]),
    "velmarDaemonDataValue": ("data", ["daemon", "key"]),
}
# The feed's health: metric name and its type in snmp.yml.
FEED_METRICS = {
    "velmarFeedSource": "DisplayString", "velmarFeedState": "gauge", "velmarFeedChangeAge": "gauge",
    "velmarFeedReadAge": "gauge", "velmarFeedLastChange": "DateAndTime", "velmarFeedLastRead": "DateAndTime",
    "velmarFeedLastRefusal": "DisplayString", "velmarFeedDaemons": "gauge", "velmarFeedRows": "gauge",
    "velmarFeedReloads": "counter", "velmarFeedRefusals": "counter", "velmarFeedSkippedNow": "gauge",
    "velmarFeedSkipped": "counter", "velmarFeedLastSkip": "DisplayString",
}
# The daemons' history: metric name, its type in snmp.yml and its column.
HISTORY_METRICS = {
    "velmarDaemonRunningChanges": ("counter", 2), "velmarDaemonEnabledChanges": ("counter", 3),
    "velmarDaemonLastRunningChange": ("gauge", 4), "velmarDaemonLastEnabledChange": ("gauge", 5),
    "velmarDaemonLastRunningChangeTime": ("DateAndTime", 6),
}
NUMBER = re.compile(r"[-+]?[0-9]+(\.[0-9]+)?([eE][-+]?[0-9]+)?")

_SAMPLE = re.compile(r'^([A-Za-z_:][A-Za-z0-9_:]*)(?:\{(.*)\})? (\S+)$')
_LABEL = re.compile(r'([A-Za-z_][A-Za-z0-9_]*)="((?:[^"\\]|\\.)*)",?')


def _unescape(v):
    return re.sub(r'\\(.)', lambda m: "\n" if m.group(1) == "n" else m.group(1), v)


def parse_exposition(text):
    """[(name, {label: value}, float)] of the samples in Prometheus' text format."""
    samples = []
    for line in text.splitlines():
        if not line or line.startswith("#"):
            continue
        m = _SAMPLE.match(line)
        if not m:
            raise ValueError("not a sample line: %r" % line)
        labels = {k: _unescape(v) for k, v in _LABEL.findall(m.group(2) or "")}
        samples.append((m.group(1), labels, float(m.group(3))))
    return samples


def http_get(url, timeout=10.0):
    with urllib.request.urlopen(url, timeout=timeout) as r:
        return r.status, r.read().decode("utf-8")


class Exporter:
    """prometheus-snmp-exporter on a free TCP port of 127.0.0.1 with our snmp.yml."""

    def __init__(self, directory, config=SNMP_YML, timeout=15.0):
        self.port = h.free_port(socket.SOCK_STREAM)
        self.log_path = os.path.join(directory, "exporter-%d.log" % self.port)
        self._log = open(self.log_path, "w")
        self.proc = subprocess.Popen(
            [EXPORTER, "--config.file=" + config, "--web.listen-address=127.0.0.1:%d" % self.port,
             "--log.level=debug"],
            stdin=subprocess.DEVNULL, stdout=self._log, stderr=subprocess.STDOUT)
        deadline = time.time() + timeout
        while time.time() < deadline:
            if self.proc.poll() is not None:
                break
            try:
                if http_get("http://127.0.0.1:%d/" % self.port, timeout=1.0)[0] == 200:
                    return
            except (OSError, urllib.error.URLError):
                pass
            time.sleep(0.05)
        self.stop()
        raise RuntimeError("%s did not get ready in %.0f s:\n%s" % (EXPORTER, timeout, self.log()))

    def log(self):
        with open(self.log_path, encoding="utf-8", errors="replace") as f:
            return f.read()

    def scrape(self, agent_port, module=MODULE):
        query = urllib.parse.urlencode({"target": "127.0.0.1:%d" % agent_port, "module": module})
        status, body = http_get("http://127.0.0.1:%d/snmp?%s" % (self.port, query))
        if status != 200:
            raise RuntimeError("scrape answered %d" % status)
        return parse_exposition(body)

    def stop(self, timeout=10.0):
        if self.proc.poll() is None:
            os.kill(self.proc.pid, signal.SIGTERM)
            try:
                self.proc.wait(timeout)
            except subprocess.TimeoutExpired:
                os.kill(self.proc.pid, signal.SIGKILL)
                self.proc.wait(5)
        self._log.close()
        return self.proc.returncode


def expected_samples(state):
    """{(metric, frozenset(labels))} of what the module should yield for a state, derived
    from the state itself: flags 1 or 0, option values as a label of a sample of value 1,
    data values that are numbers as the sample's value (other data: no sample)."""
    out = {}
    for name, d in state["daemons"].items():
        cfg, st = d.get("config"), d.get("status")
        out[("velmarDaemonEnabled", frozenset({"daemon": name}.items()))] = 1.0 if cfg and cfg.get("enabled") else 0.0
        out[("velmarDaemonRunning", frozenset({"daemon": name}.items()))] = 1.0 if st and st.get("running") else 0.0
        for key, value in ((cfg or {}).get("options") or {}).items():
            if value != "":
                labels = {"daemon": name, "key": key, "velmarDaemonOptionValue": value}
                out[("velmarDaemonOptionValue", frozenset(labels.items()))] = 1.0
        for key, value in ((st or {}).get("data") or {}).items():
            if NUMBER.fullmatch(value):
                out[("velmarDaemonDataValue", frozenset({"daemon": name, "key": key}.items()))] = float(value)
    return out


def served_samples(samples):
    """The samples of the four tables (the history has its own test)."""
    return {(n, frozenset(l.items())): v for n, l, v in samples
            if n.startswith("velmarDaemon") and n not in HISTORY_METRICS}


def require_tools(test):
    for tool in (EXPORTER, GENERATOR):
        if not shutil.which(tool):
            test.fail("%s is not installed (scripts/install-deps installs prometheus-snmp-exporter)" % tool)


class ConfigTest(unittest.TestCase):
    """snmp.yml is the generator's output for generator.yml, and says what docs/prometheus.md says."""

    def setUp(self):
        require_tools(self)
        self.tmp = h.TempDir()
        self.addCleanup(self.tmp.cleanup)

    def test_committed_snmp_yml_is_what_the_generator_makes(self):
        out = self.tmp.file("snmp.yml")
        r = subprocess.run(["bash", os.path.join(PROMETHEUS_DIR, "generate"), out], capture_output=True, text=True,
                           timeout=120, env=dict(os.environ, SNMP_GENERATOR=GENERATOR))
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        with open(out, encoding="utf-8") as f:
            generated = f.read()
        with open(SNMP_YML, encoding="utf-8") as f:
            committed = f.read()
        self.assertEqual(committed, generated, "prometheus/snmp.yml is stale: run prometheus/generate")

    def test_module_walks_the_tables_the_history_and_the_feed_with_one_daemon_label(self):
        with open(SNMP_YML, encoding="utf-8") as f:
            text = f.read()
        self.assertTrue(text.startswith("# WARNING: This file was auto-generated"), text[:200])
        self.assertIn("\n%s:\n" % MODULE, "\n" + text)
        walks = re.findall(r"^  - (\S+)$", text.split("  metrics:")[0], re.M)
        self.assertEqual(walks, [h.oid_str(sub)[1:] for sub, _, _ in h.TABLES.values()] +
                         [h.oid_str(h.HISTORY)[1:], h.oid_str(h.FEED)[1:]])
        names = re.findall(r"^  - name: (\S+)$", text, re.M)
        self.assertEqual(sorted(names), sorted(list(METRICS) + list(HISTORY_METRICS) + list(FEED_METRICS)))
        for metric, (kind, col) in HISTORY_METRICS.items():
            block = text.split("  - name: %s\n" % metric, 1)[1].split("\n  - name: ", 1)[0]
            self.assertIn("    type: %s\n" % kind, block)
            self.assertIn("    oid: %s\n" % h.oid_str(h.HISTORY + (1, col))[1:], block)
            self.assertEqual(re.findall(r"- labelname: (\S+)\n      type: DisplayString", block), ["daemon"], block)
        for metric, kind in FEED_METRICS.items():
            block = text.split("  - name: %s\n" % metric, 1)[1].split("\n  - name: ", 1)[0]
            self.assertIn("    type: %s\n" % kind, block)
            self.assertIn("    oid: %s.%d\n" % (h.oid_str(h.FEED)[1:], h.FEED_OBJECTS[metric[len("velmarFeed"):][0].lower() +
                                                                               metric[len("velmarFeed") + 1:]]), block)
        for metric, (table, labels) in METRICS.items():
            block = text.split("  - name: %s\n" % metric, 1)[1].split("\n  - name: ", 1)[0]
            sub, col, _ = h.TABLES[table]
            self.assertIn("    oid: %s\n" % h.oid_str(sub + (1, col))[1:], block)
            self.assertIn("    type: DisplayString\n", block)
            self.assertEqual(re.findall(r"- labelname: (\S+)\n      type: DisplayString", block), labels, block)

    def test_exporter_accepts_the_config(self):
        r = subprocess.run([EXPORTER, "--config.file=" + SNMP_YML, "--dry-run"], capture_output=True, text=True,
                           timeout=60)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)


class ScrapeTest(unittest.TestCase):
    def setUp(self):
        require_tools(self)
        self.tmp = h.TempDir()
        self.addCleanup(self.tmp.cleanup)
        self.path = self.tmp.file("state.json")
        self.state = copy.deepcopy(STATE)
        h.write_state(self.path, self.state)
        self.agent = h.Agent(self.path)
        self.addCleanup(self.agent.stop)
        self.exporter = Exporter(self.tmp.path)
        self.addCleanup(self.exporter.stop)

    def scrape(self):
        return served_samples(self.exporter.scrape(self.agent.port))

    def diagnostics(self):
        return "\nagent:\n%s\nexporter:\n%s" % (self.agent.stderr(), self.exporter.log()[-4000:])

    def wait_for(self, expected, timeout=5.0):
        deadline = time.time() + timeout
        got = None
        while time.time() < deadline:
            got = self.scrape()
            if got == expected:
                return got
            time.sleep(0.1)
        self.fail("scrape did not follow the state file:\nmissing %s\nextra %s%s" % (
            sorted(set(expected.items()) - set(got.items())), sorted(set(got.items()) - set(expected.items())),
            self.diagnostics()))

    def test_scrape_yields_every_row_and_nothing_else(self):
        self.assertEqual(self.scrape(), expected_samples(self.state), self.diagnostics())

    def test_running_reads_1_and_stopped_reads_0(self):
        got = self.scrape()
        key = lambda d: ("velmarDaemonRunning", frozenset({"daemon": d}.items()))
        self.assertEqual(got[key("bgpd")], 1.0)
        self.assertEqual(got[key("ntpd")], 0.0)       # status says running: false
        self.assertEqual(got[key("lldpd")], 0.0)      # no status at all
        self.assertEqual(got[key("dæmon")], 1.0)      # UTF-8 name as label text

    def test_enabled_reads_1_and_disabled_reads_0(self):
        got = self.scrape()
        key = lambda d: ("velmarDaemonEnabled", frozenset({"daemon": d}.items()))
        self.assertEqual(got[key("bgpd")], 1.0)
        self.assertEqual(got[key("ntpd")], 0.0)
        self.assertEqual(got[key("dæmon")], 0.0)      # no config at all

    def test_option_values_are_labels_of_info_samples(self):
        samples = self.exporter.scrape(self.agent.port)
        options = [l for n, l, v in samples if n == "velmarDaemonOptionValue" and v == 1.0]
        self.assertIn({"daemon": "lldpd", "key": "system-name", "velmarDaemonOptionValue": "leaf \"01\"\\a"}, options)

    def test_numeric_data_values_are_gauges_and_text_data_gives_no_sample(self):
        samples = self.exporter.scrape(self.agent.port)
        data = {(l["daemon"], l["key"]): v for n, l, v in samples if n == "velmarDaemonDataValue"}
        for n, l, v in samples:
            if n == "velmarDaemonDataValue":
                self.assertEqual(set(l), {"daemon", "key"}, "the value is not a label")
        self.assertEqual(data[("bgpd", "pid")], 4242.0)
        self.assertEqual(data[("bgpd", "restarts")], 3.0)
        self.assertEqual(data[("bgpd", "memory-bytes")], 183500800.0)
        self.assertEqual(data[("bgpd", "cpu-seconds")], 12.75)
        self.assertEqual(data[("bgpd", "started-at")], 1795000000.0)
        self.assertEqual(data[("bgpd", "offset")], -0.004)
        for text in (("bgpd", "uptime"), ("bgpd", "version"), ("ntpd", "last-exit"), ("dæmon", "clé")):
            self.assertNotIn(text, data)
        # A new PID is a new value of the same series.
        s = copy.deepcopy(self.state)
        s["daemons"]["bgpd"]["status"]["data"]["pid"] = "4343"
        h.write_state(self.path, s)
        got = self.wait_for(expected_samples(s))
        self.assertEqual(got[("velmarDaemonDataValue", frozenset({"daemon": "bgpd", "key": "pid"}.items()))], 4343.0)

    def test_feed_health_arrives_as_gauges_and_counters(self):
        samples = {n: (l, v) for n, l, v in self.exporter.scrape(self.agent.port) if n.startswith("velmarFeed")}
        self.assertEqual(samples["velmarFeedState"][1], 1.0)   # ok
        self.assertEqual(samples["velmarFeedDaemons"][1], float(len(self.state["daemons"])))
        self.assertEqual(samples["velmarFeedRows"][1], float(sum(len(r) for r in h.expected_rows(self.state).values())))
        self.assertGreaterEqual(samples["velmarFeedReloads"][1], 1.0)
        self.assertEqual(samples["velmarFeedRefusals"][1], 0.0)
        self.assertEqual(samples["velmarFeedSkippedNow"][1], 0.0)
        self.assertLess(samples["velmarFeedReadAge"][1], 60.0)
        self.assertLess(abs(samples["velmarFeedLastRead"][1] - time.time()), 60.0)   # a Unix time
        self.assertEqual(samples["velmarFeedSource"][0], {"velmarFeedSource": "state file " + self.path})
        # A refused file shows in the next scrape.
        with open(self.path + ".tmp", "w") as f:
            f.write("{")
        os.rename(self.path + ".tmp", self.path)
        deadline = time.time() + 5.0
        while time.time() < deadline:
            got = {n: v for n, l, v in self.exporter.scrape(self.agent.port) if n.startswith("velmarFeed")}
            if got["velmarFeedState"] == 2.0:
                break
            time.sleep(0.1)
        self.assertEqual(got["velmarFeedState"], 2.0, self.diagnostics())
        self.assertEqual(got["velmarFeedRefusals"], 1.0)

    def test_history_arrives_as_counters_and_the_last_change_as_gauges(self):
        def history():
            return {(n, l["daemon"]): v for n, l, v in self.exporter.scrape(self.agent.port) if n in HISTORY_METRICS}
        got = history()
        for name in self.state["daemons"]:
            for metric in ("velmarDaemonRunningChanges", "velmarDaemonEnabledChanges", "velmarDaemonLastRunningChange",
                           "velmarDaemonLastEnabledChange"):
                self.assertEqual(got[(metric, name)], 0.0, (metric, name))
            self.assertNotIn(("velmarDaemonLastRunningChangeTime", name), got)   # no change yet: no sample
        # bgpd stops and starts again: two changes, counted whatever the scrapes saw.
        for running in (False, True):
            s = copy.deepcopy(self.state)
            s["daemons"]["bgpd"]["status"]["running"] = running
            h.write_state(self.path, s)
            time.sleep(0.3)
        deadline = time.time() + 5.0
        while time.time() < deadline and got.get(("velmarDaemonRunningChanges", "bgpd")) != 2.0:
            time.sleep(0.1)
            got = history()
        self.assertEqual(got[("velmarDaemonRunningChanges", "bgpd")], 2.0, self.diagnostics())
        self.assertEqual(got[("velmarDaemonRunningChanges", "ntpd")], 0.0)
        self.assertGreater(got[("velmarDaemonLastRunningChange", "bgpd")], 0.0)
        self.assertLess(abs(got[("velmarDaemonLastRunningChangeTime", "bgpd")] - time.time()), 60.0)   # a Unix time

    def test_changed_option_shows_in_the_next_scrape(self):
        self.scrape()
        s = copy.deepcopy(self.state)
        s["daemons"]["bgpd"]["config"]["options"]["asn"] = "65002"
        h.write_state(self.path, s)
        got = self.wait_for(expected_samples(s))
        old = ("velmarDaemonOptionValue", frozenset({"daemon": "bgpd",
                                                     "key": "asn",
                                                     "velmarDaemonOptionValue": "65001"}.items()))
        self.assertNotIn(old, got)

    def test_stopped_daemon_and_removed_rows_follow_the_file(self):
        s = copy.deepcopy(self.state)
        s["daemons"]["bgpd"]["status"] = {"running": False, "data": {"last-exit": "exit code 1"}}
        del s["daemons"]["ntpd"]
        h.write_state(self.path, s)
        got = self.wait_for(expected_samples(s))
        self.assertEqual(got[("velmarDaemonRunning", frozenset({"daemon": "bgpd"}.items()))], 0.0)

    def test_unknown_module_is_refused_by_the_exporter(self):
        with self.assertRaises(urllib.error.HTTPError) as e:
            self.exporter.scrape(self.agent.port, module="no_such_module")
        self.assertEqual(e.exception.code, 400)


class StockSnmpdScrapeMixin:
    """The exporter scrapes Debian's snmpd, which runs with its stock snmpd.conf and one mode
    of the installed project enabled (tests/agent/stock_snmpd.py)."""

    mode = None

    @classmethod
    def setUpClass(cls):
        cls.install_dir = h.TempDir()
        try:
            cls.prefix = stock.install(cls.install_dir.path)
            cls.fragment = stock.enable(cls.prefix, cls.mode)
        except BaseException:
            cls.install_dir.cleanup()
            raise

    @classmethod
    def tearDownClass(cls):
        cls.install_dir.cleanup()

    def setUp(self):
        require_tools(self)
        if not os.access(h.SNMPD, os.X_OK):
            self.fail("Debian's snmpd is not installed (scripts/install-deps installs it)")
        self.tmp = h.TempDir()
        self.addCleanup(self.tmp.cleanup)
        self.path = self.tmp.file("state.json")
        self.state = copy.deepcopy(STATE)
        h.write_state(self.path, self.state)
        socket_path = self.tmp.file("agentx.sock")
        self.agent = None
        env_extra = {}
        if self.mode == "dlmod":
            from test_dlmod import sanitizer_env
            stock.point_dlmod_at(self.fragment, self.path)
            env_extra = sanitizer_env()
        self.snmpd = stock.StockSnmpd(self.tmp.path, stock.include_dir(self.prefix), socket_path, env_extra=env_extra)
        self.addCleanup(self.snmpd.stop)
        if self.mode == "agentx":
            self.agent = h.Process([os.path.join(self.prefix, "bin", "velmar-snmp-agent"), "--agentx", socket_path,
                                    "--agentx-ping", "1", "--state", self.path], "serving VELMAR-DAEMON-MIB")
            self.addCleanup(self.agent.stop)
        self.exporter = Exporter(self.tmp.path)
        self.addCleanup(self.exporter.stop)

    def diagnostics(self):
        return "\nsnmpd:\n%s\nagent:\n%s\nexporter:\n%s" % (
            self.snmpd.log()[-4000:], self.agent.stderr() if self.agent else "(none)", self.exporter.log()[-4000:])

    def wait_for(self, expected, timeout=15.0):
        deadline = time.time() + timeout
        got = None
        while time.time() < deadline:
            got = served_samples(self.exporter.scrape(self.snmpd.port))
            if got == expected:
                return got
            time.sleep(0.2)
        self.fail("scrape through snmpd:\nmissing %s\nextra %s%s" % (
            sorted(set(expected.items()) - set(got.items())), sorted(set(got.items()) - set(expected.items())),
            self.diagnostics()))

    def test_scrape_through_stock_snmpd_yields_every_row(self):
        got = self.wait_for(expected_samples(self.state))
        self.assertGreater(len(got), 0)
        s = copy.deepcopy(self.state)
        s["daemons"]["bgpd"]["status"]["running"] = False
        h.write_state(self.path, s)
        got = self.wait_for(expected_samples(s))
        self.assertEqual(got[("velmarDaemonRunning", frozenset({"daemon": "bgpd"}.items()))], 0.0)


class StockSnmpdAgentxScrapeTest(StockSnmpdScrapeMixin, unittest.TestCase):
    mode = "agentx"


class StockSnmpdDlmodScrapeTest(StockSnmpdScrapeMixin, unittest.TestCase):
    mode = "dlmod"


class LargeValuesScrapeTest(unittest.TestCase):
    """A scrape of ten daemons with three 10,000-byte options each (GETBULK replies that the
    agent trims to one datagram) yields every row."""

    def test_scrape_of_large_values_yields_every_row(self):
        import test_large_replies as big
        require_tools(self)
        tmp = h.TempDir()
        self.addCleanup(tmp.cleanup)
        path = tmp.file("state.json")
        h.write_state(path, big.STATE)
        agent = h.Agent(path)
        self.addCleanup(agent.stop)
        exporter = Exporter(tmp.path)
        self.addCleanup(exporter.stop)
        started = time.time()
        got = served_samples(exporter.scrape(agent.port))
        print("\nscrape of %d samples with 10,000-byte values: %.2f s" % (len(got), time.time() - started))
        self.assertEqual(got, expected_samples(big.STATE), "\nagent:\n%s\nexporter:\n%s" % (
            agent.stderr(), exporter.log()[-4000:]))


if __name__ == "__main__":
    unittest.main()
