#!/usr/bin/python3
"""Every C++ source and header of the tree is as clang-format writes it with the house
.clang-format: prints each file that is not, with the first lines clang-format would change,
and exits 1. Build directories and anything not tracked by the tree's layout (build*, .git)
are left out.

    check_format.py SOURCE_DIR            # the check
    check_format.py --self-test SOURCE_DIR  # a copy of a real file, badly indented, is refused
"""
import os
import shutil
import subprocess
import sys
import tempfile

SKIP_DIRS = {".git", "node_modules"}


def sources(root):
    for dirpath, dirnames, filenames in os.walk(root):
        dirnames[:] = sorted(d for d in dirnames if d not in SKIP_DIRS and not d.startswith("build"))
        for name in sorted(filenames):
            if name.endswith((".cpp", ".h")):
                yield os.path.join(dirpath, name)


def clang_format():
    exe = shutil.which("clang-format")
    if not exe:
        sys.exit("check_format: clang-format is not installed (scripts/install-deps installs it)")
    return exe


def unformatted(exe, files, style_root):
    """The files clang-format would change, each with its first complaint."""
    bad = []
    for i in range(0, len(files), 50):
        chunk = files[i:i + 50]
        p = subprocess.run([exe, "--dry-run", "--Werror", "--style=file:" + os.path.join(style_root, ".clang-format")]
                           + chunk, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        if p.returncode == 0:
            continue
        seen = {}
        for line in p.stderr.splitlines():
            for f in chunk:
                if line.startswith(f + ":") and f not in seen:
                    seen[f] = line
        bad += [seen[f] for f in chunk if f in seen] or [p.stderr.strip()]
    return bad


def main(argv):
    if len(argv) == 3 and argv[1] == "--self-test":
        root = os.path.abspath(argv[2])
        exe = clang_format()
        real = os.path.join(root, "feed", "core", "Source.h")
        with tempfile.TemporaryDirectory() as d:
            good = os.path.join(d, "Good.h")
            shutil.copy(real, good)
            if unformatted(exe, [good], root):
                sys.exit("self-test: a copy of %s was refused as it is" % real)
            worse = os.path.join(d, "Worse.h")
            with open(real) as f, open(worse, "w") as out:
                out.write(f.read().replace("\n    ", "\n  "))
            if not unformatted(exe, [worse], root):
                sys.exit("self-test: a copy of %s indented by two was not refused" % real)
        print("self-test: a well-formatted copy passes, a badly indented one is refused")
        return 0
    if len(argv) != 2:
        sys.exit(__doc__)
    root = os.path.abspath(argv[1])
    files = list(sources(root))
    bad = unformatted(clang_format(), files, root)
    for line in bad:
        print(line)
    if bad:
        print("%d of %d files are not as clang-format writes them: clang-format -i FILE" % (len(bad), len(files)))
        return 1
    print("%d files as clang-format writes them" % len(files))
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv))
