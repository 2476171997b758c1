"""The man page velmar-snmp-agent.1 that the build makes with help2man from the agent's
--help: it renders without warnings, with man and with groff, has the hand-written
sections, and says everything --help says, every option included."""

import os
import re
import subprocess
import unittest

import velmar_harness as h

MAN_PAGE = os.environ.get("VELMAR_MAN_PAGE", "")


def run(argv, env=None, timeout=60):
    r = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, errors="replace",
                       env=env, timeout=timeout)
    if r.returncode != 0:
        raise AssertionError("%s failed (%d):\n%s" % (" ".join(argv), r.returncode, r.stderr))
    return r.stdout, r.stderr


def squeeze(text):
    return " ".join(text.split())


def agent_env():
    env = dict(os.environ)
    env.setdefault("ASAN_OPTIONS", "")
    env["ASAN_OPTIONS"] += ":detect_leaks=0"
    return env


class ManPageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not os.path.isfile(MAN_PAGE):
            raise AssertionError("no man page at %r: build the target velmar-man-page" % MAN_PAGE)
        # Plain text, one line per paragraph, no hyphenation: easy to search.
        cls.text, warnings = run(["groff", "-man", "-Tutf8", "-ww", "-rLL=4000n", "-rHY=0", "-P-cbou", MAN_PAGE])
        cls.groff_warnings = warnings
        cls.help, _ = run([h.AGENT, "--help"], env=agent_env())

    def test_groff_renders_it_without_warnings(self):
        self.assertEqual(self.groff_warnings, "")

    def test_man_renders_it(self):
        out, err = run(["man", "-l", MAN_PAGE], env=dict(os.environ, MANWIDTH="100", PAGER="cat", MANPAGER="cat"))
        self.assertRegex(out, r"^VELMAR-SNMP-AGENT\(1\)")
        self.assertIn("SYNOPSIS", out)
        self.assertEqual(err.strip(), "")

    def test_title_names_the_program_and_its_version(self):
        with open(MAN_PAGE, encoding="utf-8") as f:
            source = f.read()
        version, _ = run([h.AGENT, "--version"], env=agent_env())
        self.assertRegex(source, r'(?m)^\.TH VELMAR-SNMP-AGENT "1" "[^"]+" "%s" "User Commands"$' % re.escape(version.strip()))

    def test_every_option_of_help_is_in_it(self):
        options = re.findall(r"^\s+(?:-\w,)?(--[a-z][a-z-]*)", self.help, re.M)
        self.assertGreaterEqual(len(options), 12, self.help)
        for option in options:
            self.assertRegex(self.text, r"(?m)^\s+(-h,)?%s\b" % re.escape(option), option)

    def test_every_line_of_help_is_in_it(self):
        page = squeeze(self.text)
        for line in self.help.splitlines():
            line = squeeze(line)
            if not line or line in ("Options:",) or line.startswith("Usage:"):
                continue
            self.assertIn(line, page)

    def test_hand_written_sections_are_there(self):
        headings = re.findall(r"^([A-Z][A-Z ]+)$", self.text, re.M)
        for section in ("NAME", "SYNOPSIS", "DESCRIPTION", "OPTIONS", "STATE FILE", "SUPERVISORD SOURCE", "EXIT STATUS", "ENVIRONMENT",
                        "FILES", "EXAMPLES", "SEE ALSO"):
            self.assertIn(section, headings)
        self.assertLess(headings.index("OPTIONS"), headings.index("FILES"))

    def test_files_and_examples_name_the_installed_paths(self):
        for text in ("/usr/lib/velmar/modules/VelmarDaemonMIB.so", "/usr/share/velmar-daemon-mib/demo-state.json",
                     "/usr/share/snmp/mibs/VELMAR-DAEMON-MIB.txt", "/etc/snmp/snmpd.conf.d/velmar-daemon-mib.conf",
                     "/lib/systemd/system/velmar-snmp-agent.service",
                     "snmpbulkwalk -v2c -c public udp:127.0.0.1:1161 %s" % h.oid_str(h.ROOT),
                     '"daemons"', "velmar-snmp-agent --agentx /var/agentx/master --state /run/launcher/state.json"):
            self.assertIn(text, self.text)


if __name__ == "__main__":
    unittest.main()
