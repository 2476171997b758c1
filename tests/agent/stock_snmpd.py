"""Debian's snmpd as a user runs it: with the snmpd package's own snmpd.conf, unchanged but
for its listening address and its include directory, and with this project installed
(cmake --install into a temporary prefix) and one mode enabled the way its installed
snmpd.conf.d file says: by uncommenting one includeFile line.

The stock configuration maps community "public" to its view "systemonly" before it reads
the include directory; the tables are readable only because the fragments add the subtree
to that view.  Every process is started on free loopback ports and stopped by process id;
every wait is bounded.
"""

import hashlib
import os
import re
import subprocess

import velmar_harness as h

STOCK_PATH = "/etc/snmp/snmpd.conf"
BUILD_DIR = os.environ.get("VELMAR_BUILD_DIR", "")
CMAKE = os.environ.get("VELMAR_CMAKE", "cmake")
# Where scripts/install-deps puts the package's snmpd.conf when /etc/snmp/snmpd.conf has
# been changed on this machine.
EXTRACTED_PATH = os.path.join(h.SOURCE_DIR, ".deps", "snmpd", "snmpd.conf")
INCLUDE_FILE = "etc/snmp/snmpd.conf.d/velmar-daemon-mib.conf"


def packaged_md5():
    """The MD5 sum dpkg recorded for the snmpd package's /etc/snmp/snmpd.conf, or None."""
    r = subprocess.run(["dpkg-query", "-W", "-f=${Conffiles}", "snmpd"], stdout=subprocess.PIPE,
                       stderr=subprocess.DEVNULL, text=True, timeout=60)
    for line in r.stdout.splitlines():
        fields = line.split()
        if len(fields) >= 2 and fields[0] == STOCK_PATH:
            return fields[1]
    return None


def stock_conf():
    """The text of snmpd.conf exactly as Debian's snmpd package ships it (checked against the
    sum dpkg recorded at installation): /etc/snmp/snmpd.conf if it is unchanged, otherwise
    the copy scripts/install-deps extracted from the package."""
    md5 = packaged_md5()
    if not md5:
        raise AssertionError("dpkg knows no %s of the snmpd package: is Debian's snmpd installed? "
                             "(scripts/install-deps installs it)" % STOCK_PATH)
    for path in (STOCK_PATH, EXTRACTED_PATH):
        try:
            with open(path, "rb") as f:
                data = f.read()
        except OSError:
            continue
        if hashlib.md5(data).hexdigest() == md5:
            return data.decode("utf-8")
    raise AssertionError("neither %s nor %s is the snmpd package's snmpd.conf (MD5 %s); scripts/install-deps "
                         "extracts it from the package" % (STOCK_PATH, EXTRACTED_PATH, md5))


def install(directory):
    """Installs the build (cmake --install) under directory/root; returns that prefix."""
    if not BUILD_DIR or not os.path.isfile(os.path.join(BUILD_DIR, "cmake_install.cmake")):
        raise AssertionError("VELMAR_BUILD_DIR must name a build directory: %r" % BUILD_DIR)
    prefix = os.path.join(directory, "root")
    r = subprocess.run([CMAKE, "--install", BUILD_DIR, "--prefix", prefix], stdout=subprocess.PIPE,
                       stderr=subprocess.STDOUT, text=True, timeout=120)
    if r.returncode != 0:
        raise AssertionError("cmake --install failed (%d):\n%s" % (r.returncode, r.stdout))
    return prefix


def include_dir(prefix):
    return os.path.dirname(os.path.join(prefix, INCLUDE_FILE))


def enable(prefix, mode):
    """Uncomments the includeFile line of `mode` (agentx or dlmod) in the installed
    snmpd.conf.d file, as its comment tells the user to; returns the fragment's path."""
    path = os.path.join(prefix, INCLUDE_FILE)
    fragment = os.path.join(prefix, "share", "velmar-daemon-mib", "snmpd-%s.conf" % mode)
    with open(path, encoding="utf-8") as f:
        text = f.read()
    text, n = re.subn(r"(?m)^#(includeFile %s)$" % re.escape(fragment), r"\1", text)
    if n != 1:
        raise AssertionError("%s has no commented line 'includeFile %s':\n%s" % (path, fragment, text))
    with open(path, "w", encoding="utf-8") as f:
        f.write(text)
    return fragment


def point_dlmod_at(fragment, state_file):
    """The dlmod fragment's velmarStateFile line names the site's state file: here the test's."""
    with open(fragment, encoding="utf-8") as f:
        text = f.read()
    text, n = re.subn(r"(?m)^velmarStateFile .*$", "velmarStateFile %s" % state_file, text)
    if n != 1:
        raise AssertionError("%s has no velmarStateFile line" % fragment)
    with open(fragment, "w", encoding="utf-8") as f:
        f.write(text)


class StockSnmpd(h.Process):
    """Debian's snmpd in the foreground with the stock snmpd.conf, its agentaddress line set
    to a free UDP port of 127.0.0.1 and its includeDir line to `includes`; nothing else in
    it changes.  The AgentX master socket is given on the command line (-x: the stock file
    says "master agentx" and leaves the socket to Net-SNMP's default, which belongs to the
    system's snmpd); -I -smux keeps SMUX's TCP port 199 closed.  Its log (-Lo) is standard
    output."""

    def __init__(self, directory, includes, agentx, port=None, env_extra=None, timeout=20.0):
        self.port = port or h.free_port()
        text = stock_conf()
        text, n_address = re.subn(r"(?m)^agentaddress\s.*$", "agentaddress udp:127.0.0.1:%d" % self.port, text)
        text, n_include = re.subn(r"(?m)^includeDir /etc/snmp/snmpd\.conf\.d\s*$", "includeDir %s" % includes, text)
        if (n_address, n_include) != (1, 1):
            raise AssertionError("the stock snmpd.conf has %d agentaddress and %d includeDir lines, not one each"
                                 % (n_address, n_include))
        self.config = os.path.join(directory, "snmpd-stock-%d.conf" % self.port)
        with open(self.config, "w", encoding="utf-8") as f:
            f.write(text)
        persistent = os.path.join(directory, "snmpd-persistent-%d" % self.port)
        os.makedirs(os.path.join(persistent, "cert_indexes"), exist_ok=True)
        env = dict(os.environ)
        env.update(MIBS="", SNMP_PERSISTENT_DIR=persistent, SNMPCONFPATH=directory, HOME=directory)
        env.update(env_extra or {})
        argv = [h.SNMPD, "-f", "-Lo", "-C", "-c", self.config, "-I", "-smux", "-x", "unix:%s" % agentx]
        super().__init__(argv, None, env=env, timeout=timeout, ready=lambda: h.udp_answers(self.port))

    def log(self):
        return self.output()
