"""The Debian package: cpack builds velmar-daemon-mib_<version>-<revision>_<arch>.deb from the
build directory; its listing, control fields, RUNPATHs, copyright file, changelog and snmpd
fragments are checked, and lintian finds no error in it; it is unpacked into a
fresh temporary root, and the agent is run from there, without LD_LIBRARY_PATH, on the
packaged demo state: it must find its libraries and its module inside that root, answer a
walk, and stop with exit status 0 on SIGTERM.

One package is built for the whole class (cpack takes a few seconds); every process is
stopped by its id and every wait is bounded."""

import glob
import gzip
import json
import os
import re
import shutil
import subprocess
import tempfile
import unittest

import velmar_harness as h

BUILD_DIR = os.environ.get("VELMAR_BUILD_DIR", "")
VERSION = os.environ.get("VELMAR_VERSION", "")
REVISION = os.environ.get("VELMAR_DEBIAN_REVISION", "")
PACKAGE_VERSION = "%s-%s" % (VERSION, REVISION)
LINTIAN = os.environ.get("VELMAR_LINTIAN", "lintian")
ENTERPRISE = str(h.ENTERPRISE)

# Every regular file the package must hold, and the ELF files among them with the RUNPATH
# each must carry.
EXPECTED_FILES = {
    "./usr/bin/velmar-snmp-agent": "$ORIGIN/../lib/velmar",
    "./usr/lib/velmar/libvelmar-orbel.so": "$ORIGIN",
    "./usr/lib/velmar/libvelmar-statebase.so": "$ORIGIN",
    "./usr/lib/velmar/libvelmar-launcher.so": "$ORIGIN",
    "./usr/lib/velmar/libvelmar-snmpstring.so": "$ORIGIN",
    "./usr/lib/velmar/libvelmar-snmpplugin.so": "$ORIGIN",
    "./usr/lib/velmar/libvelmar-genericagent.so": "$ORIGIN",
    "./usr/lib/velmar/modules/VelmarDaemonMIB.so": "$ORIGIN/..",
    "./usr/lib/velmar/dlmod/velmar_daemon_mib.so": "$ORIGIN/..",
    "./usr/share/snmp/mibs/VELMAR-DAEMON-MIB.txt": None,
    "./usr/share/velmar-daemon-mib/demo-state.json": None,
    "./usr/share/man/man1/velmar-snmp-agent.1.gz": None,
    "./usr/share/velmar-daemon-mib/snmpd-agentx.conf": None,
    "./usr/share/velmar-daemon-mib/snmpd-dlmod.conf": None,
    "./usr/share/velmar-daemon-mib/velmar-snmp-agent-systemd.conf": None,
    "./usr/share/velmar-daemon-mib/velmar-snmp-agent-supervisor.conf": None,
    "./usr/share/doc/velmar-daemon-mib/supervisord-velmar-events.conf": None,
    "./usr/bin/velmar-supervisor-events": None,   # links no library of the project
    "./usr/share/doc/velmar-daemon-mib/copyright": None,
    "./usr/share/doc/velmar-daemon-mib/changelog.Debian.gz": None,
    "./lib/systemd/system/velmar-snmp-agent.service": None,
    "./usr/lib/sysusers.d/velmar-daemon-mib.conf": None,
    "./etc/snmp/snmpd.conf.d/velmar-daemon-mib.conf": None,
}
# Other files may only be further shared objects of the project, under its private
# library directory.
EXTRA_ALLOWED = re.compile(r"^\./usr/lib/velmar/.+\.so$")


def run(argv, timeout=120, **kw):
    r = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, errors="replace",
                       timeout=timeout, **kw)
    if r.returncode != 0:
        raise AssertionError("%s failed (%d):\n%s\n%s" % (" ".join(argv), r.returncode, r.stdout, r.stderr))
    return r.stdout


def dynamic_section(path):
    """(NEEDED list, RUNPATH or None, RPATH or None) of an ELF file, by readelf -d."""
    out = run(["readelf", "-d", path])
    needed = re.findall(r"\(NEEDED\)\s+Shared library: \[(.+)\]", out)
    runpath = re.search(r"\(RUNPATH\)\s+Library runpath: \[(.+)\]", out)
    rpath = re.search(r"\(RPATH\)\s+Library rpath: \[(.+)\]", out)
    return needed, runpath and runpath.group(1), rpath and rpath.group(1)


def is_elf(path):
    with open(path, "rb") as f:
        return f.read(4) == b"\x7fELF"


def clean_env():
    """The environment without anything that would find libraries for the loader."""
    env = {k: v for k, v in os.environ.items() if not k.startswith("LD_")}
    env["MIBS"] = ""
    return env


class DebianPackageTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if not BUILD_DIR or not os.path.isfile(os.path.join(BUILD_DIR, "CPackConfig.cmake")):
            raise AssertionError("VELMAR_BUILD_DIR must name a configured build directory (with CPackConfig.cmake)")
        cls.tmp = tempfile.mkdtemp(prefix="velmar-deb-")
        try:
            out = os.path.join(cls.tmp, "out")
            # Into a private directory: the build directory's _CPack_Packages stays untouched.
            cls.cpack_log = run(["cpack", "-G", "DEB", "--config", os.path.join(BUILD_DIR, "CPackConfig.cmake"),
                                 "-B", out], timeout=300, cwd=BUILD_DIR)
            debs = glob.glob(os.path.join(out, "*.deb"))
            if len(debs) != 1:
                raise AssertionError("cpack made %s:\n%s" % (debs, cls.cpack_log))
            cls.deb = debs[0]
            cls.root = os.path.join(cls.tmp, "root")
            os.mkdir(cls.root)
            run(["dpkg-deb", "-x", cls.deb, cls.root])
        except BaseException:
            shutil.rmtree(cls.tmp, ignore_errors=True)
            raise

    @classmethod
    def tearDownClass(cls):
        shutil.rmtree(cls.tmp, ignore_errors=True)

    def path(self, member):
        return os.path.join(self.root, member[2:])

    # --- what the package holds ------------------------------------------------------

    def test_file_name_says_package_version_and_architecture(self):
        arch = run(["dpkg", "--print-architecture"]).strip()
        self.assertRegex(REVISION, r"^[0-9]+$")
        self.assertEqual(os.path.basename(self.deb), "velmar-daemon-mib_%s_%s.deb" % (PACKAGE_VERSION, arch))

    def test_listing_has_every_expected_path_and_nothing_stray(self):
        listing = run(["dpkg-deb", "-c", self.deb])
        files = set()
        for line in listing.splitlines():
            fields = line.split()
            if fields[0].startswith("-"):
                files.add(fields[5])
            else:
                self.assertTrue(fields[0].startswith("d"), "not a file or directory: " + line)
        missing = set(EXPECTED_FILES) - files
        self.assertFalse(missing, "missing from the package:\n%s\nlisting:\n%s" % (sorted(missing), listing))
        stray = sorted(f for f in files - set(EXPECTED_FILES) if not EXTRA_ALLOWED.match(f))
        self.assertFalse(stray, "files the package should not hold: %s" % stray)

    def test_control_fields(self):
        fields = {}
        for name in ("Package", "Version", "Architecture", "Maintainer", "Depends", "Recommends", "Suggests",
                     "Section"):
            fields[name] = run(["dpkg-deb", "-f", self.deb, name]).strip()
        self.assertEqual(fields["Package"], "velmar-daemon-mib")
        self.assertEqual(fields["Version"], PACKAGE_VERSION)
        self.assertIn("@", fields["Maintainer"])
        depends = [d.strip().split()[0] for d in fields["Depends"].split(",")]
        for dep in ("libsnmp40", "libc6", "libstdc++6"):
            self.assertIn(dep, depends, fields["Depends"])
        # Nothing in the package runs the command-line tools: they are only suggested.
        self.assertNotIn("snmp", depends, fields["Depends"])
        self.assertIn("snmp", [d.strip().split()[0] for d in fields["Suggests"].split(",")], fields["Suggests"])
        self.assertNotIn("velmar", fields["Depends"])    # its own libraries are inside it
        self.assertIn("snmpd", fields["Recommends"])
        self.assertEqual(fields["Section"], "net")

    def test_snmpd_fragment_is_a_conffile(self):
        control = os.path.join(self.tmp, "control")
        run(["dpkg-deb", "-e", self.deb, control])
        with open(os.path.join(control, "conffiles")) as f:
            self.assertEqual(f.read().split(), ["/etc/snmp/snmpd.conf.d/velmar-daemon-mib.conf"])

    def test_elf_files_carry_relative_runpaths(self):
        for member, runpath in EXPECTED_FILES.items():
            if runpath is None:
                continue
            needed, got, rpath = dynamic_section(self.path(member))
            self.assertEqual(got, runpath, member)
            self.assertIsNone(rpath, member)

    def test_every_project_library_resolves_inside_the_root(self):
        """Every NEEDED libvelmar-* of every ELF file in the package is found through that
        file's own RUNPATH, inside the unpacked root (the loader does not search further)."""
        checked = 0
        for dirpath, _, names in os.walk(self.root):
            for n in names:
                p = os.path.join(dirpath, n)
                if os.path.islink(p) or not is_elf(p):
                    continue
                needed, runpath, _ = dynamic_section(p)
                for lib in (x for x in needed if x.startswith("libvelmar-")):
                    self.assertIsNotNone(runpath, "%s needs %s but has no RUNPATH" % (p, lib))
                    dirs = [d.replace("$ORIGIN", os.path.dirname(p)) for d in runpath.split(":")]
                    self.assertTrue(any(os.path.isfile(os.path.join(d, lib)) for d in dirs),
                                    "%s: %s not found through RUNPATH %s" % (p, lib, runpath))
                    checked += 1
        self.assertGreater(checked, 0)

    def test_stripped_binaries_keep_their_entry_points(self):
        out = run(["nm", "-D", "--defined-only", self.path("./usr/lib/velmar/modules/VelmarDaemonMIB.so")])
        self.assertRegex(out, r"init_VelmarDaemonMIB")

    def test_packaged_data_files_are_the_sources(self):
        for member, source in (("./usr/share/snmp/mibs/VELMAR-DAEMON-MIB.txt", "mib/VELMAR-DAEMON-MIB.txt"),
                               ("./usr/share/velmar-daemon-mib/demo-state.json", "examples/demo-state.json"),
                               ("./lib/systemd/system/velmar-snmp-agent.service", "packaging/velmar-snmp-agent.service")):
            with open(self.path(member), "rb") as a, open(os.path.join(h.SOURCE_DIR, source), "rb") as b:
                self.assertEqual(a.read(), b.read(), member)

    def test_snmpd_include_file_enables_nothing_until_one_line_is_uncommented(self):
        with open(self.path("./etc/snmp/snmpd.conf.d/velmar-daemon-mib.conf")) as f:
            text = f.read()
        active = [l for l in text.splitlines() if l.strip() and not l.lstrip().startswith("#")]
        self.assertEqual(active, [], "the installed snmpd file enables something by itself")
        includes = re.findall(r"^#includeFile (\S+)$", text, re.M)
        self.assertEqual(includes, ["/usr/share/velmar-daemon-mib/snmpd-agentx.conf",
                                    "/usr/share/velmar-daemon-mib/snmpd-dlmod.conf"])
        for target in includes:
            self.assertTrue(os.path.isfile(self.path("." + target)), target + " is not in the package")

    def test_snmpd_fragments_are_the_examples_and_add_the_subtree_to_the_stock_view(self):
        def directives(text):
            return [l.split() for l in text.splitlines() if l.strip() and not l.lstrip().startswith("#")]
        for mode in ("agentx", "dlmod"):
            with open(self.path("./usr/share/velmar-daemon-mib/snmpd-%s.conf" % mode)) as f:
                packaged = directives(f.read())
            with open(os.path.join(h.SOURCE_DIR, "examples/snmpd-%s.conf" % mode)) as f:
                example = directives(f.read().replace(".1.3.6.1.4.1.32473.", ".1.3.6.1.4.1.%s." % ENTERPRISE))
            self.assertEqual(packaged, example, mode)
            # Debian's stock snmpd.conf maps community public to the view systemonly first.
            self.assertIn(["view", "systemonly", "included", h.oid_str(h.ROOT)], packaged, mode)
        with open(self.path("./usr/share/velmar-daemon-mib/snmpd-dlmod.conf")) as f:
            dlmod = directives(f.read())
        self.assertIn(["dlmod", "velmar_daemon_mib", "/usr/lib/velmar/dlmod/velmar_daemon_mib.so"], dlmod)

    # --- Debian's documentation files ---------------------------------------------------

    def test_copyright_is_machine_readable_and_carries_the_license(self):
        with open(self.path("./usr/share/doc/velmar-daemon-mib/copyright"), encoding="utf-8") as f:
            copyright_text = f.read()
        self.assertTrue(copyright_text.startswith(
            "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\n"), copyright_text[:200])
        self.assertRegex(copyright_text, r"(?m)^Files: \*\nCopyright: .+\nLicense: BSD-3-Clause$")
        # The license paragraph is LICENSE's text from its first condition on, in DEP-5 form
        # (one space of indent, empty lines as " .").
        with open(os.path.join(h.SOURCE_DIR, "LICENSE"), encoding="utf-8") as f:
            license_lines = f.read().splitlines()
        start = next(i for i, l in enumerate(license_lines) if l.startswith("Redistribution"))
        paragraph = copyright_text.split("\nLicense: BSD-3-Clause\n", 2)[-1]
        got = [l[1:] if l != " ." else "" for l in paragraph.rstrip("\n").split("\n")]
        want = license_lines[start:]
        while want and not want[-1].strip():
            want.pop()
        self.assertEqual(got, want)
        holder = re.search(r"(?m)^Copyright \(c\) (\d{4}), (.+)$", "\n".join(license_lines))
        self.assertIsNotNone(holder)
        self.assertIn("Copyright: %s %s" % holder.groups(), copyright_text)

    def test_changelog_is_debian_format_for_this_version(self):
        with gzip.open(self.path("./usr/share/doc/velmar-daemon-mib/changelog.Debian.gz"), "rt") as f:
            text = f.read()
        r = subprocess.run(["dpkg-parsechangelog", "-l", "-", "-S", "Version"], input=text, capture_output=True,
                           text=True, timeout=60)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertEqual(r.stdout.strip(), PACKAGE_VERSION)
        r = subprocess.run(["dpkg-parsechangelog", "-l", "-", "-S", "Source"], input=text, capture_output=True,
                           text=True, timeout=60)
        self.assertEqual(r.stdout.strip(), "velmar-daemon-mib")
        with open(os.path.join(h.SOURCE_DIR, "packaging/changelog"), encoding="utf-8") as f:
            self.assertEqual(text, f.read())

    def test_lintian_finds_no_error(self):
        if not shutil.which(LINTIAN):
            self.fail("lintian is not installed (scripts/install-deps installs it)")
        r = subprocess.run([LINTIAN, "--no-tag-display-limit", self.deb], capture_output=True, text=True,
                           timeout=600)
        tags = [l for l in r.stdout.splitlines() if re.match(r"^[EWIPX]: ", l)]
        print("\nlintian %s:\n%s" % (os.path.basename(self.deb), "\n".join(tags) or "(no tags)"))
        errors = [l for l in tags if l.startswith("E: ")]
        self.assertEqual(errors, [], r.stdout + r.stderr)
        # Non-zero: an error tag, or lintian itself failed.
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        # Warnings only where there is nothing to fix: a package built outside Debian's
        # archive closes no bug with its first upload.
        unfixable = {"initial-upload-closes-no-bugs"}
        warnings = [l for l in tags if l.startswith("W: ") and l.split()[2] not in unfixable]
        self.assertEqual(warnings, [], "\n".join(tags))

    def test_maintainer_scripts_call_no_ldconfig(self):
        # The libraries are private (/usr/lib/velmar, found through RUNPATH).
        control = os.path.join(self.tmp, "control")
        shutil.rmtree(control, ignore_errors=True)
        run(["dpkg-deb", "-e", self.deb, control])
        for name in ("preinst", "postinst", "prerm", "postrm", "triggers"):
            path = os.path.join(control, name)
            if os.path.exists(path):
                with open(path, encoding="utf-8") as f:
                    code = [l for l in f.read().splitlines() if not l.lstrip().startswith("#")]
                self.assertFalse([l for l in code if "ldconfig" in l], name)

    def test_description_reads_as_written(self):
        text = run(["dpkg-deb", "-f", self.deb, "Description"])
        summary, _, extended = text.partition("\n")
        self.assertEqual(summary, "launcher daemon state over SNMP (VELMAR-DAEMON-MIB)")
        lines = [l for l in extended.splitlines() if l.strip()]
        for l in lines:
            self.assertLessEqual(len(l), 80, l)
        self.assertEqual(" ".join(l.strip() for l in lines),
                         "velmar-snmp-agent serves the daemons run by the launcher of a Velmar network operating "
                         "system as the four read-only tables of VELMAR-DAEMON-MIB: enabled, option, running and "
                         "data. It follows the launcher's JSON state file, or the service units of systemd, and "
                         "serves every valid change at once: as a master agent on its own addresses, as an AgentX "
                         "subagent of snmpd, or inside snmpd through its dlmod bridge.")

    def test_unit_starts_the_packaged_agent_as_subagent(self):
        with open(self.path("./lib/systemd/system/velmar-snmp-agent.service")) as f:
            unit = f.read()
        exec_start = re.findall(r"^ExecStart=(.*)$", unit, re.M)
        self.assertEqual(len(exec_start), 1, unit)
        argv = exec_start[0].split()
        self.assertEqual(argv[0], "/usr/bin/velmar-snmp-agent")
        self.assertIn("--agentx", argv)
        self.assertIn("--state", argv)
        self.assertIn("Restart=on-failure", unit.splitlines())
        # Ready only once registered (sd_notify), kept alive by the agent's loop.
        self.assertIn("Type=notify", unit.splitlines())
        self.assertTrue(any(l.startswith("WatchdogSec=") for l in unit.splitlines()), unit)
        for hardening in ("NoNewPrivileges=yes", "ProtectSystem=strict", "ProtectHome=yes", "PrivateTmp=yes",
                          "CapabilityBoundingSet="):
            self.assertIn(hardening, unit.splitlines())

    def test_unit_runs_as_the_user_the_package_creates(self):
        with open(self.path("./lib/systemd/system/velmar-snmp-agent.service")) as f:
            lines = f.read().splitlines()
        self.assertIn("User=velmar-snmp", lines)
        self.assertIn("SupplementaryGroups=Debian-snmp", lines)
        self.assertIn("IPAddressDeny=any", lines)
        with open(self.path("./usr/lib/sysusers.d/velmar-daemon-mib.conf")) as f:
            self.assertRegex(f.read(), r"(?m)^u velmar-snmp - ")
        r = subprocess.run(["dpkg-deb", "-I", self.deb, "postinst"], capture_output=True, text=True, timeout=60)
        self.assertEqual(r.returncode, 0, r.stderr)
        self.assertIn("systemd-sysusers velmar-daemon-mib.conf", r.stdout)

    @unittest.skipUnless(shutil.which("systemd-analyze"), "systemd-analyze is not installed")
    def test_unit_verifies(self):
        # The unit as packaged, with ExecStart pointing into the unpacked root.
        with open(self.path("./lib/systemd/system/velmar-snmp-agent.service")) as f:
            unit = f.read().replace("/usr/bin/velmar-snmp-agent", self.path("./usr/bin/velmar-snmp-agent"))
        copy = os.path.join(self.tmp, "velmar-snmp-agent.service")
        with open(copy, "w") as f:
            f.write(unit)
        r = subprocess.run(["systemd-analyze", "verify", "--man=no", copy], capture_output=True, text=True,
                           timeout=60)
        self.assertEqual(r.returncode, 0, r.stdout + r.stderr)
        self.assertNotIn("velmar-snmp-agent.service:", r.stderr)

    def test_packaged_man_page_renders_with_the_options(self):
        with gzip.open(self.path("./usr/share/man/man1/velmar-snmp-agent.1.gz"), "rt") as f:
            source = f.read()
        self.assertIn('.TH VELMAR-SNMP-AGENT "1"', source)
        text = run(["man", "-l", self.path("./usr/share/man/man1/velmar-snmp-agent.1.gz")],
                   env=dict(clean_env(), MANWIDTH="200", MAN_KEEP_FORMATTING="", PAGER="cat"))
        for option in ("--listen", "--agentx", "--state", "--config", "--module", "--version"):
            self.assertIn(option, text)

    # --- running it from the unpacked root ------------------------------------------------

    def test_agent_runs_from_the_root_without_ld_library_path(self):
        agent_bin = self.path("./usr/bin/velmar-snmp-agent")
        state = self.path("./usr/share/velmar-daemon-mib/demo-state.json")
        agent = h.Agent(state, binary=agent_bin, env=clean_env())
        try:
            with open("/proc/%d/maps" % agent.pid) as f:
                mapped = {line.split()[-1] for line in f if "velmar" in line.lower() and "/" in line}
            ours = sorted(p for p in mapped if os.path.basename(p).startswith(("libvelmar-", "VelmarDaemonMIB")))
            self.assertEqual(len(ours), 7, mapped)       # six libraries and the module
            for p in ours:
                self.assertTrue(p.startswith(self.root + "/"), "loaded from outside the root: " + p)
            # One table, walked with snmpbulkwalk, against the packaged demo state.
            with open(state, encoding="utf-8") as f:
                expected = h.expected_rows(json.load(f))
            sub, _, _ = h.TABLES["running"]
            self.assertEqual(h.walk(agent.port, sub), expected["running"])
        finally:
            rc = agent.stop()
        self.assertEqual(rc, 0, agent.stderr())
        self.assertIn("stopping", agent.stderr())

    def test_agent_version_from_the_root(self):
        out = run([self.path("./usr/bin/velmar-snmp-agent"), "--version"], env=clean_env())
        self.assertEqual(out.strip(), "velmar-snmp-agent " + VERSION)


if __name__ == "__main__":
    unittest.main()
