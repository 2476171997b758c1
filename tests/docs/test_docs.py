"""Every shell command shown in README.md and docs/*.md, run.

Each code block marked sh, bash or console is run from the top of the clone against real
processes on free loopback ports, or must carry the line `<!-- illustrative: REASON -->`
directly above its opening fence. docs/README.md ("Every command here is run") states the
rules a page is written for; in short:

- sh/bash blocks run as one `bash -e -o pipefail` script; a line ending in `&` starts a
  server, whose port is waited for and which is stopped by its process id afterwards;
- console blocks are `$ command` lines followed by the output they must print, compared
  with times, counters and versions masked (`...` stands for any number of lines);
- the documented ports 1161, 1162, 1620 and 9116 become free ports; `build/default/` the
  build directory under test; the package's paths point into the .deb unpacked with
  dpkg-deb -x; a block that talks to 1161 without starting an agent gets one serving
  examples/demo-state.json.

Run as `python3 test_docs.py --wait PORT KIND PID`, this file is the readiness wait that
the generated scripts call for each server they start.
"""

import contextlib
import glob
import os
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "agent"))
import velmar_harness as h  # noqa: E402

SOURCE_DIR = os.path.abspath(h.SOURCE_DIR)
BUILD_DIR = os.environ.get("VELMAR_BUILD_DIR", "")
ONLY = os.environ.get("VELMAR_DOCS_ONLY", "")
BLOCK_TIMEOUT = 90
RUNNABLE = ("sh", "bash", "console")
ILLUSTRATIVE = re.compile(r"^<!--\s*illustrative:(.*?)-->\s*$")
# The ports the pages document, by role.
PORTS = {"agent": 1161, "snmpd": 1162, "snmptrapd": 1620, "exporter": 9116}
# The package's paths, found inside the unpacked .deb.
PACKAGE_PATHS = ("/usr/share/snmp/mibs", "/usr/share/velmar-daemon-mib", "/usr/lib/velmar")


# --- reading the pages -----------------------------------------------------------------

class Block:
    def __init__(self, page, line, lang, text, reason):
        self.page, self.line, self.lang, self.text, self.reason = page, line, lang, text, reason

    def where(self):
        return "%s:%d" % (os.path.relpath(self.page, SOURCE_DIR), self.line)


def read_blocks(page):
    """The fenced code blocks of a Markdown page: (Block list, list of stray markers)."""
    with open(page, encoding="utf-8") as f:
        lines = f.read().split("\n")
    blocks, problems = [], []
    i = 0
    while i < len(lines):
        m = re.match(r"^```\s*([A-Za-z0-9_+-]*)\s*$", lines[i])
        if not m:
            if ILLUSTRATIVE.match(lines[i]) and not (i + 1 < len(lines) and lines[i + 1].startswith("```")):
                problems.append("%s:%d: an illustrative marker not directly above a code block"
                                % (os.path.relpath(page, SOURCE_DIR), i + 1))
            i += 1
            continue
        start, lang = i, m.group(1)
        i += 1
        body = []
        while i < len(lines) and not re.match(r"^```\s*$", lines[i]):
            body.append(lines[i])
            i += 1
        i += 1  # the closing fence
        reason = None
        if start > 0:
            mark = ILLUSTRATIVE.match(lines[start - 1])
            if mark:
                reason = mark.group(1).strip()
        blocks.append(Block(page, start + 1, lang, "\n".join(body) + "\n", reason))
    return blocks, problems


def pages():
    found = [os.path.join(SOURCE_DIR, "README.md")] + sorted(glob.glob(os.path.join(SOURCE_DIR, "docs", "*.md")))
    if ONLY:
        found = [p for p in found if os.path.relpath(p, SOURCE_DIR) == ONLY or os.path.basename(p) == ONLY]
    return found


# --- masking and comparing output -------------------------------------------------------

MASKS = [
    (re.compile(r"\d{4}-\d{1,2}-\d{1,2},\d{1,2}:\d{1,2}:\d{1,2}\.\d,[+-]\d{1,2}:\d{1,2}"), "<DATETIME>"),
    (re.compile(r"\d{4}-\d\d-\d\d[T ]\d\d:\d\d:\d\d(\.\d+)?(Z|[+-]\d{2}:?\d{2})?"), "<TIME>"),
    (re.compile(r"Gauge32: \d+ seconds"), "Gauge32: <N> seconds"),
    (re.compile(r"Counter32: \d+"), "Counter32: <N>"),
    (re.compile(r"Timeticks: \(\d+\) [\d:.]+"), "Timeticks: <TICKS>"),
    (re.compile(r"(velmar-snmp-agent )\d+\.\d+\.\d+"), r"\1<VERSION>"),
]


def mask(line):
    for pattern, replacement in MASKS:
        line = pattern.sub(replacement, line)
    return line.rstrip()


def output_matches(expected, actual):
    """expected and actual are lists of masked lines; a line "..." in expected matches any
    number of lines."""
    n, m = len(expected), len(actual)
    # can[i][j]: expected[i:] matches actual[j:]
    can = [[False] * (m + 1) for _ in range(n + 1)]
    can[n][m] = True
    for i in range(n - 1, -1, -1):
        for j in range(m, -1, -1):
            if expected[i] == "...":
                can[i][j] = can[i + 1][j] or (j < m and can[i][j + 1])
            else:
                can[i][j] = j < m and expected[i] == actual[j] and can[i + 1][j + 1]
    return can[0][0]


def first_difference(expected, actual):
    for k, (e, a) in enumerate(zip(expected, actual)):
        if e != a and e != "...":
            return "line %d:\n  expected: %s\n  printed:  %s" % (k + 1, e, a)
    return "expected %d lines, printed %d" % (len(expected), len(actual))


# --- waiting for a server ----------------------------------------------------------------

def port_bound(port):
    for table in ("/proc/net/udp", "/proc/net/udp6", "/proc/net/tcp", "/proc/net/tcp6"):
        try:
            with open(table) as f:
                next(f)
                for row in f:
                    local = row.split()[1]
                    if int(local.rsplit(":", 1)[1], 16) == port:
                        return True
        except OSError:
            continue
    return False


def wait_for_server(port, kind, pid, timeout=20.0):
    """0 once the server with process id pid has bound port (and, kind "snmp", answers an
    SNMP GET); 1 with a message if it exits or the time runs out."""
    deadline = time.time() + timeout
    while time.time() < deadline:
        if not os.path.exists("/proc/%d" % pid):
            print("docs test: the server started with & (pid %d) exited before port %d was ready" % (pid, port),
                  file=sys.stderr)
            return 1
        if port_bound(port) and (kind != "snmp" or h.udp_answers(port)):
            return 0
        time.sleep(0.1)
    print("docs test: port %d not ready after %.0f s" % (port, timeout), file=sys.stderr)
    return 1


def _alive(pid):
    try:
        with open("/proc/%d/stat" % pid) as f:
            return ") Z " not in f.read()
    except OSError:
        return False


def stop_pid(pid):
    """Stops a server a block started, by its process id (SIGTERM, then SIGKILL)."""
    try:
        os.kill(pid, signal.SIGTERM)
    except ProcessLookupError:
        return
    deadline = time.time() + 10
    while time.time() < deadline and _alive(pid):
        time.sleep(0.05)
    if _alive(pid):
        try:
            os.kill(pid, signal.SIGKILL)
        except ProcessLookupError:
            pass


# --- running the blocks ------------------------------------------------------------------

def logical_lines(text):
    """Lines with their backslash continuations joined (as the shell reads them)."""
    out, cur = [], ""
    for line in text.split("\n"):
        if line.endswith("\\"):
            cur += line + "\n"
            continue
        out.append(cur + line)
        cur = ""
    if cur:
        out.append(cur)
    return out


class Page:
    """One page's run: its temporary HOME, its free ports, the shell state it carries."""

    def __init__(self, test, exports):
        self.test = test
        self.exports = list(exports)
        self.dir = h.TempDir()
        self.tmp = self.dir.path
        self.home = os.path.join(self.tmp, "home")
        os.makedirs(os.path.join(self.home, "mibs"))
        deps = os.path.join(SOURCE_DIR, ".deps", "node_modules")
        os.symlink(deps, os.path.join(self.home, "mibs", "node_modules"))
        # Net-SNMP's persistent directory, as on a machine where its tools have run before
        # (a first run says "Created directory: .../cert_indexes").
        self.persistent = os.path.join(self.tmp, "persistent")
        os.makedirs(os.path.join(self.persistent, "cert_indexes"))
        self.counter = 0

    def cleanup(self):
        self.dir.cleanup()

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        self.cleanup()
        return False

    def env(self):
        env = {k: v for k, v in os.environ.items()
               if k not in ("MIBS", "MIBDIRS", "MIBFILES", "SNMPCONFPATH", "PREFIX") and not k.startswith("VELMAR_")}
        env.update(HOME=self.home, TMPDIR=self.tmp, SNMP_PERSISTENT_DIR=self.persistent,
                   PATH=os.path.dirname(os.path.abspath(h.AGENT)) + ":" + os.environ.get("PATH", "/usr/bin:/bin"))
        return env

    def rewrite(self, text, ports):
        for role, documented in PORTS.items():
            text = re.sub(r"(?<![\d.])%d(?!\d)" % documented, str(ports[role]), text)
        text = re.sub(r"(\$PWD/)?build/default/", lambda _: BUILD_DIR.rstrip("/") + "/", text)
        if any(p in text for p in PACKAGE_PATHS):
            root = self.test.package_root()
            for p in PACKAGE_PATHS:
                text = text.replace(p, root + p)
        return text

    def prologue(self):
        return "cd %s\n%s\n" % (shq(SOURCE_DIR), "\n".join(self.exports))

    def run_block(self, block):
        ports = {role: h.free_port(socket.SOCK_STREAM if role == "exporter" else socket.SOCK_DGRAM) for role in PORTS}
        text = self.rewrite(block.text, ports)
        self.counter += 1
        pids_file = os.path.join(self.tmp, "pids-%d" % self.counter)
        open(pids_file, "w").close()
        starts_agent = any(l.rstrip().endswith("&") and "velmar-snmp-agent" in l for l in logical_lines(text))
        needs_agent = str(ports["agent"]) in text and not starts_agent
        with (h.Agent("examples/demo-state.json", port=ports["agent"], cwd=SOURCE_DIR, env=self.env())
              if needs_agent else contextlib.nullcontext()):
            try:
                if block.lang == "console":
                    return self.run_console(block, text)
                return self.run_script(block, text, ports, pids_file)
            finally:
                with open(pids_file) as f:
                    for pid in [int(x) for x in f.read().split()]:
                        stop_pid(pid)

    def run_script(self, block, text, ports, pids_file):
        script = ["set -e -o pipefail", self.prologue()]
        for line in logical_lines(text):
            script.append(line)
            if line.rstrip().endswith("&"):
                port = next((p for p in ports.values() if str(p) in line), None)
                if port is None:
                    return "%s: a server line names none of the documented ports: %s" % (block.where(), line)
                kind = "snmp" if re.search(r"\b(snmpd|velmar-snmp-agent)\b", line) else "bound"
                script.append('echo $! >> %s' % shq(pids_file))
                script.append('/usr/bin/python3 %s --wait %d %s $!' % (shq(os.path.abspath(__file__)), port, kind))
        for line in text.split("\n"):
            if line.startswith("export "):
                self.exports.append(line)
        r = self.shell("\n".join(script) + "\n")
        if r is None:
            return "%s: did not finish in %d s" % (block.where(), BLOCK_TIMEOUT)
        if r.returncode != 0:
            return "%s: the block failed (exit status %d):\n%s\n--- output:\n%s" % (
                block.where(), r.returncode, text, head(r.stdout))
        return None

    def run_console(self, block, text):
        steps, cur = [], None
        for line in text.rstrip("\n").split("\n"):
            if line.startswith("$ "):
                cur = [line[2:], []]
                steps.append(cur)
            elif cur is None:
                return "%s: a console block must start with a '$ ' command line" % block.where()
            else:
                cur[1].append(line)
        for command, expected in steps:
            r = self.shell("set -o pipefail\n" + self.prologue() + command + "\n")
            if r is None:
                return "%s: `%s` did not finish in %d s" % (block.where(), command, BLOCK_TIMEOUT)
            got = [mask(l) for l in r.stdout.rstrip("\n").split("\n")] if r.stdout.strip() else []
            want = [mask(l) for l in expected]
            while want and want[-1] == "":
                want.pop()
            if r.returncode != 0:
                return "%s: `%s` failed (exit status %d):\n%s" % (block.where(), command, r.returncode, head(r.stdout))
            if not output_matches(want, got):
                return "%s: `%s` printed other than shown (%s)\n--- printed:\n%s" % (
                    block.where(), command, first_difference(want, got), head(r.stdout))
        return None

    def shell(self, script):
        """Runs script with bash; None when it runs out of time (then it is killed). The
        output goes to a file: a server the script leaves running keeps its descriptors,
        so a pipe would not end with the script."""
        self.counter += 1
        out_path = os.path.join(self.tmp, "out-%d" % self.counter)
        with open(out_path, "w") as out:
            p = subprocess.Popen(["bash", "-c", script], stdin=subprocess.DEVNULL, stdout=out,
                                 stderr=subprocess.STDOUT, env=self.env(), cwd=SOURCE_DIR, start_new_session=True)
        try:
            p.wait(timeout=BLOCK_TIMEOUT)
        except subprocess.TimeoutExpired:
            # The script and whatever it runs in the foreground: its own process group (the
            # session started for it); the servers it recorded are stopped by the caller.
            os.killpg(p.pid, signal.SIGKILL)
            p.wait(10)
            return None
        with open(out_path, errors="replace") as f:
            return subprocess.CompletedProcess(p.args, p.returncode, f.read())


def head(text, lines=30):
    """The first lines of a command's output, for a failure message."""
    parts = text.split("\n")
    return "\n".join(parts[:lines]) + ("\n... (%d more lines)" % (len(parts) - lines) if len(parts) > lines else "")


def shq(s):
    return "'" + s.replace("'", "'\\''") + "'"


class DocumentedCommandsTest(unittest.TestCase):
    _package_tmp = None
    _package_root = None

    @classmethod
    def tearDownClass(cls):
        if cls._package_tmp:
            shutil.rmtree(cls._package_tmp, ignore_errors=True)

    @classmethod
    def package_root(cls):
        """The .deb built by cpack from the build directory, unpacked with dpkg-deb -x."""
        if cls._package_root is None:
            cls._package_tmp = tempfile.mkdtemp(prefix="velmar-docs-deb-")
            out = os.path.join(cls._package_tmp, "out")
            r = subprocess.run(["cpack", "-G", "DEB", "--config", os.path.join(BUILD_DIR, "CPackConfig.cmake"),
                                "-B", out], cwd=BUILD_DIR, stdout=subprocess.PIPE, stderr=subprocess.STDOUT,
                               text=True, timeout=600)
            debs = glob.glob(os.path.join(out, "*.deb"))
            if r.returncode != 0 or len(debs) != 1:
                raise AssertionError("cpack failed (%d):\n%s" % (r.returncode, r.stdout))
            root = os.path.join(cls._package_tmp, "root")
            subprocess.run(["dpkg-deb", "-x", debs[0], root], check=True, timeout=120)
            cls._package_root = root
        return cls._package_root

    def setUp(self):
        if not h.AGENT or not BUILD_DIR:
            self.fail("VELMAR_AGENT and VELMAR_BUILD_DIR must name the agent and the build directory")
        if not os.path.isdir(os.path.join(SOURCE_DIR, ".deps", "node_modules")):
            self.fail("%s/.deps/node_modules is missing: run scripts/install-deps" % SOURCE_DIR)

    def test_every_block_runs_or_says_why_not(self):
        failures, ran, illustrative = [], 0, 0
        readme_exports = []
        for page in pages():
            blocks, problems = read_blocks(page)
            failures += problems
            is_readme = os.path.relpath(page, SOURCE_DIR) == "README.md"
            with Page(self, [] if is_readme else readme_exports) as run:
                for block in blocks:
                    if block.lang not in RUNNABLE:
                        continue
                    if block.reason is not None:
                        if not block.reason:
                            failures.append("%s: the illustrative marker gives no reason" % block.where())
                        illustrative += 1
                        if block.lang in ("sh", "bash"):
                            syntax = subprocess.run(["bash", "-n"], input=block.text, text=True,
                                                    stdout=subprocess.PIPE, stderr=subprocess.STDOUT, timeout=30)
                            if syntax.returncode != 0:
                                failures.append("%s: not even valid shell:\n%s" % (block.where(), syntax.stdout))
                        continue
                    ran += 1
                    problem = run.run_block(block)
                    if problem:
                        failures.append(problem)
                if is_readme:
                    readme_exports = list(run.exports)
        print("docs test: %d blocks run, %d illustrative" % (ran, illustrative), file=sys.stderr)
        self.assertGreater(ran, 0, "no block was run")
        self.assertFalse(failures, "\n\n".join(failures))


def slug(heading):
    """The anchor a Markdown renderer gives a heading (GitHub's rule: lower case, punctuation
    other than - and _ dropped, spaces as -)."""
    text = re.sub(r"[`*]", "", heading.strip().lower())
    return re.sub(r"[^\w\- ]", "", text).replace(" ", "-")


def anchors(page):
    with open(page, encoding="utf-8") as f:
        text = re.sub(r"^```.*?^```", "", f.read(), flags=re.S | re.M)
    return {slug(m.group(1)) for m in re.finditer(r"^#+\s+(.*)$", text, re.M)}


class LinksTest(unittest.TestCase):
    """Every relative link of the pages names a file of the clone, and an anchor of a page
    names one of its headings."""

    def test_relative_links_resolve(self):
        # Pages that docs/README.md's index lists as "(being written)" may be linked before
        # they exist; once one exists, its row must say so no longer.
        index = os.path.join(SOURCE_DIR, "docs", "README.md")
        pending = set()
        with open(index, encoding="utf-8") as f:
            for row in f:
                if "(being written)" in row:
                    pending.update(os.path.normpath(os.path.join(SOURCE_DIR, "docs", m))
                                   for m in re.findall(r"\]\(([^)#\s]+\.md)\)", row))
        broken = ["docs/README.md: %s exists: its row should no longer say (being written)"
                  % os.path.relpath(p, SOURCE_DIR) for p in sorted(pending) if os.path.exists(p)]
        for page in pages():
            with open(page, encoding="utf-8") as f:
                text = re.sub(r"^```.*?^```", "", f.read(), flags=re.S | re.M)
            for m in re.finditer(r"\]\(([^)\s]+)\)", text):
                target = m.group(1)
                if re.match(r"^[a-z]+:", target):
                    continue   # http:, https:, mailto:
                path, _, frag = target.partition("#")
                full = os.path.normpath(os.path.join(os.path.dirname(page), path)) if path else page
                where = os.path.relpath(page, SOURCE_DIR)
                if not os.path.exists(full):
                    if full in pending:
                        continue
                    broken.append("%s: %s: no such file" % (where, target))
                elif frag and full.endswith(".md") and frag not in anchors(full):
                    broken.append("%s: %s: no such heading in %s" % (where, target, os.path.relpath(full, SOURCE_DIR)))
        self.assertFalse(broken, "\n".join(broken))


class RunDemoTest(unittest.TestCase):
    """The README's first command: scripts/run-demo builds, serves the demo state and prints a
    walk, which prints what docs/walks.md shows."""

    def test_run_demo_serves_and_its_printed_walk_works(self):
        own = os.path.join(SOURCE_DIR, "build", "default")
        if not BUILD_DIR or os.path.realpath(BUILD_DIR) != os.path.realpath(own):
            self.skipTest("scripts/run-demo builds build/default of the clone; this build is %s" % BUILD_DIR)
        walk_block = next(b for b in read_blocks(os.path.join(SOURCE_DIR, "docs", "walks.md"))[0]
                          if b.lang == "console" and "snmpwalk" in b.text and "velmarDaemonMIB\n" in b.text)
        expected = [mask(l) for l in walk_block.text.rstrip("\n").split("\n")[1:]]
        run = self.enterContext(Page(self, []))
        port = h.free_port()
        log_path = os.path.join(run.tmp, "run-demo.log")
        with open(log_path, "w") as log:
            demo = subprocess.Popen(["bash", "scripts/run-demo", "--listen", "udp:127.0.0.1:%d" % port],
                                    cwd=SOURCE_DIR, stdin=subprocess.DEVNULL, stdout=log, stderr=subprocess.STDOUT,
                                    env=run.env(), start_new_session=True)
        children = []

        def stop():
            if demo.poll() is None:
                with open("/proc/%d/task/%d/children" % (demo.pid, demo.pid)) as f:
                    children.extend(int(c) for c in f.read().split())
                demo.send_signal(signal.SIGTERM)   # run-demo stops its agent on TERM
                try:
                    demo.wait(20)
                except subprocess.TimeoutExpired:
                    demo.kill()
                    demo.wait(5)
            for pid in children:
                stop_pid(pid)
        self.addCleanup(stop)

        deadline, printed = time.time() + 600, ""
        while time.time() < deadline and demo.poll() is None:
            with open(log_path, errors="replace") as f:
                printed = f.read()
            if "Ctrl-C stops the agent" in printed:
                break
            time.sleep(0.5)
        self.assertIn("Walk it from another shell:", printed, "run-demo did not say it serves:\n" + head(printed))
        shown = printed.split("Walk it from another shell:", 1)[1].split("Ctrl-C stops the agent", 1)[0]
        commands = "\n".join(l.strip() for l in shown.strip().split("\n"))
        self.assertIn("snmpwalk", commands)
        r = run.shell("set -e\n" + commands + "\n")
        self.assertIsNotNone(r, "the printed walk did not finish")
        got = [mask(l) for l in r.stdout.rstrip("\n").split("\n")]
        self.assertEqual(r.returncode, 0, head(r.stdout))
        self.assertTrue(output_matches(expected, got), "the printed walk (%s) printed other than docs/walks.md shows "
                        "(%s):\n%s" % (commands, first_difference(expected, got), head(r.stdout)))


class ReadingTest(unittest.TestCase):
    """The reader and the comparison themselves, on made-up pages."""

    def test_marker_directly_above_makes_a_block_illustrative(self):
        with tempfile.NamedTemporaryFile("w", suffix=".md", delete=False) as f:
            f.write("text\n<!-- illustrative: needs root -->\n```sh\nsudo true\n```\n\n```console\n$ echo a\na\n```\n"
                    "<!-- illustrative: stray -->\n\nmore\n")
        try:
            blocks, problems = read_blocks(f.name)
        finally:
            os.unlink(f.name)
        self.assertEqual([(b.lang, b.reason) for b in blocks], [("sh", "needs root"), ("console", None)])
        self.assertEqual(len(problems), 1)

    def test_heading_anchors(self):
        self.assertEqual(slug("Logs, errors and readiness"), "logs-errors-and-readiness")
        self.assertEqual(slug("The `--check` line"), "the---check-line")
        self.assertEqual(slug("Deploy on Debian"), "deploy-on-debian")

    def test_masked_comparison(self):
        want = [mask(l) for l in ["x.0 = Counter32: 2", "...", "t = STRING: 2026-11-23,21:15:12.5,+0:0 "]]
        self.assertTrue(output_matches(want, [mask(l) for l in
                                              ["x.0 = Counter32: 7", "a", "b", "t = STRING: 2031-1-2,3:04:05.6,+0:0"]]))
        self.assertFalse(output_matches(want, [mask("x.0 = Counter32: 7"), mask("t = STRING: other")]))
        self.assertFalse(output_matches([mask("a = Gauge32: 13")], [mask("a = Gauge32: 14")]))


if __name__ == "__main__":
    if len(sys.argv) == 5 and sys.argv[1] == "--wait":
        sys.exit(wait_for_server(int(sys.argv[2]), sys.argv[3], int(sys.argv[4])))
    unittest.main()
