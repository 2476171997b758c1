#!/usr/bin/env python3
"""Shows that check_layering.py fails on back edges: copies the product's layered folders
into a temporary directory, adds one forbidden include at a time, and expects a refusal
naming the file, the line and the edge; the unchanged copy must pass."""
import os
import shutil
import subprocess
import sys
import tempfile

checker, top = sys.argv[1], sys.argv[2]
FOLDERS = ["platform", "GenericAgent", "mib", "feed", "agent"]
CASES = [
    ("GenericAgent/DaemonMib.cpp", '#include "agent/Host.h"', "GenericAgent -> agent"),
    ("feed/core/StateDiff.cpp", "#include <net-snmp/net-snmp-config.h>", "feed -> netsnmp"),
    ("platform/orbel/Entity.cpp", '#include "GenericAgent/GenericAgentSnmp.h"', "orbel -> GenericAgent"),
    ("GenericAgent/TableIndex.cpp", '#include "snmp/HandlerRegistration.h"', "GenericAgent -> snmpplugin"),
]


def run(tree):
    return subprocess.run([sys.executable, checker, tree], capture_output=True, text=True)


failures = 0
with tempfile.TemporaryDirectory(prefix="velmar-layering.") as tmp:
    for f in FOLDERS:
        shutil.copytree(os.path.join(top, f), os.path.join(tmp, f), ignore=shutil.ignore_patterns("tests"))
    clean = run(tmp)
    if clean.returncode != 0:
        print("the unchanged copy is refused:\n" + clean.stdout)
        failures += 1
    for rel, line, edge in CASES:
        path = os.path.join(tmp, rel)
        with open(path) as fh:
            original = fh.read()
        with open(path, "a") as fh:
            fh.write("\n" + line + "\n")
        r = run(tmp)
        if r.returncode == 0 or edge not in r.stdout or rel not in r.stdout:
            print(f"not refused: {line} in {rel} (exit {r.returncode}):\n{r.stdout}")
            failures += 1
        with open(path, "w") as fh:
            fh.write(original)
print(f"{len(CASES) + 1 - failures} passed, {failures} failed")
sys.exit(1 if failures else 0)
