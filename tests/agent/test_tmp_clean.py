"""Tests leave nothing behind in the temporary directory: a few agent test modules (the
test host, the agent, Debian's snmpd with AgentX and dlmod) and a short run of the protocol
fuzzer run with a temporary directory of their own, which must be exactly as empty
afterwards as before.

Where the machine allows a private mount namespace (root, or unprivileged user
namespaces), they run with a private, empty tmpfs on /tmp and TMPDIR inside it, so that
whatever anything writes to /tmp, by TMPDIR or by a fixed path, is seen, and nothing of
other users of the machine's /tmp is: afterwards /tmp must hold only the TMPDIR directory,
and that must be empty.  Elsewhere only a fresh TMPDIR is checked (said on standard output),
and so it is when the clone or its build lives under /tmp, which a private tmpfs there would
hide from the tests.
"""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest

HERE = os.path.dirname(os.path.abspath(__file__))
FUZZER_SCRIPT = os.path.join(HERE, "..", "reliability", "fuzz_protocol.py")
MODULES = ["test_master", "test_stock_snmpd"]
MARK = "@@velmar-tmp-listing@@"

# Runs the tests with TMPDIR=$1, then lists what is left in $2 (the directory to check).
INNER = r'''
set -u
tmpdir=$1; check=$2; shift 2
if [ "$check" = /tmp ]; then
  mount -t tmpfs -o size=1g,mode=1777 velmar-private-tmp /tmp || exit 90
fi
mkdir -p "$tmpdir"
before=$(find "$check" -mindepth 1 | sort)
status=0
for m in "$@"; do
  TMPDIR=$tmpdir /usr/bin/python3 -m unittest "$m" >&2 || status=1
done
if [ -n "${VELMAR_PROTOCOL_FUZZ:-}" ]; then
  TMPDIR=$tmpdir /usr/bin/python3 "$FUZZER_SCRIPT" --requests 2000 --seed 3 >&2 || status=1
fi
echo "@@velmar-tmp-listing@@ before"
printf '%s\n' "$before"
echo "@@velmar-tmp-listing@@ after"
find "$check" -mindepth 1 | sort
exit $status
'''


def tree_under_tmp():
    """The first of the clone's and the build's paths that lies under /tmp, or None."""
    paths = [os.path.join(HERE, "..", "..")] + [v for k, v in os.environ.items()
                                                if k.startswith("VELMAR_") and v.startswith("/")]
    for p in paths:
        real = os.path.realpath(p)
        if real == "/tmp" or real.startswith("/tmp/"):
            return real
    return None


def namespace_prefix():
    """The unshare command that gives a private mount namespace here, or None."""
    if not shutil.which("unshare"):
        print("no unshare here")
        return None
    under = tree_under_tmp()
    if under:
        print("the tree is under /tmp (%s): a private tmpfs on /tmp would hide it" % under)
        return None
    for prefix in (["unshare", "--mount", "--propagation", "private"],
                   ["unshare", "--user", "--map-root-user", "--mount", "--propagation", "private"]):
        probe = subprocess.run(prefix + ["--", "/bin/sh", "-c", "mount -t tmpfs velmar-probe /tmp"],
                               stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, timeout=30)
        if probe.returncode == 0:
            return prefix
    print("no private mount namespace here")
    return None


class TemporaryDirectoryTest(unittest.TestCase):
    def test_agent_tests_leave_the_temporary_directory_as_they_found_it(self):
        env = dict(os.environ, FUZZER_SCRIPT=FUZZER_SCRIPT)
        prefix = namespace_prefix()
        outer = None
        left = []
        if prefix:
            argv = prefix + ["--", "/bin/sh", "-c", INNER, "inner", "/tmp/velmar-tmpdir", "/tmp"] + MODULES
            print("private /tmp (%s), TMPDIR=/tmp/velmar-tmpdir" % " ".join(prefix))
        else:
            outer = tempfile.mkdtemp(prefix="velmar-tmpcheck-")
            argv = ["/bin/sh", "-c", INNER, "inner", os.path.join(outer, "tmp"), outer] + MODULES
            print("only a fresh TMPDIR is checked, not /tmp itself")
        try:
            r = subprocess.run(argv, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, errors="replace",
                               env=env, cwd=HERE, timeout=900)
        finally:
            if outer:
                left = [os.path.join(d, n) for d, dirs, files in os.walk(outer) for n in dirs + files]
                shutil.rmtree(outer, ignore_errors=True)
        self.assertNotEqual(r.returncode, 90, "could not mount the private /tmp:\n" + r.stderr[-3000:])
        self.assertEqual(r.returncode, 0, "the tests themselves failed:\n" + r.stderr[-6000:])
        self.assertIn(MARK + " after", r.stdout, r.stdout)
        before_text, after_text = r.stdout.split(MARK + " before", 1)[1].split(MARK + " after", 1)
        before = [l for l in before_text.splitlines() if l.strip()]
        after = [l for l in after_text.splitlines() if l.strip()]
        tmpdir = "/tmp/velmar-tmpdir" if prefix else os.path.join(outer, "tmp")
        self.assertEqual(before, [tmpdir], "the temporary directory was not empty at the start")
        self.assertEqual(after, [tmpdir], "left behind:\n" + "\n".join(after))
        print("ran %s and the protocol fuzzer: nothing left behind" % ", ".join(MODULES))


if __name__ == "__main__":
    sys.exit(unittest.main())
