#!/usr/bin/env python3
"""Fails when an #include of the product's code crosses the layering.

Every non-test source and header of the product belongs to one component (by folder, and
for platform/snmp by file, since that folder holds two libraries). A component may include
its own headers, the headers of the components it may depend on (and theirs, transitively),
the C and C++ standard library and system headers, and the third-party headers it is
allowed. Anything else is a back edge or a stray dependency, and is reported with the file,
the line and the edge.

  check_layering.py SOURCE_DIR [--verbose]
"""
import os
import re
import sys

# component -> components it may depend on directly (transitively closed below).
ALLOWED = {
    "orbel": [],
    "statebase": ["orbel"],
    "launcher": ["orbel"],
    "snmpstring": ["orbel"],
    "snmpplugin": ["orbel", "statebase", "snmpstring"],
    "GenericAgent": ["orbel", "snmpstring", "launcher"],
    "mib": ["GenericAgent", "snmpstring", "snmpplugin", "netsnmp"],
    "feed": ["GenericAgent", "launcher", "orbel"],
    "feedfile": ["feed", "rapidjson", "xxhash"],
    "feedsystemd": ["feed", "libsystemd", "xxhash"],
    "feedsupervisor": ["feed", "libcurl", "expat"],
    "notify": ["GenericAgent", "launcher", "orbel", "feed", "netsnmp"],
    "history": ["notify", "GenericAgent", "snmpstring", "launcher", "orbel"],
    "agent": ["feed", "feedfile", "feedsystemd", "feedsupervisor", "notify", "history", "snmpplugin", "statebase", "GenericAgent", "netsnmp", "cli11"],
}

# Third-party headers by the first part of their include path.
THIRD_PARTY = {
    "net-snmp": "netsnmp",
    "rapidjson": "rapidjson",
    "xxhash.h": "xxhash",
    "systemd": "libsystemd",
    "CLI": "cli11",
    "curl": "libcurl",
    "expat.h": "expat",
}
# Include prefixes of the product's own include roots, and where they point.
ROOTS = {
    "orbel/": "platform/orbel/",
    "statebase/": "platform/statebase/",
    "launcher/": "platform/launcher/",
    "snmp/": "platform/snmp/",
    "GenericAgent/": "GenericAgent/",
    "feed/": "feed/",
    "agent/": "agent/",
}
# Folders whose code is not the product's (each checked by its own build) or not C++.
SKIPPED_DIRS = {"tests", "bench", "fuzz", "examples", "build", ".deps", "scripts", "packaging", "docs", "prometheus", ".git"}
SNMP_PLUGIN_FILES = {"HandlerRegistration", "SnmpUtil"}
INCLUDE = re.compile(r'^\s*#\s*include\s*([<"])([^>"]+)[>"]')


def component_of(rel):
    parts = rel.split("/")
    if parts[0] == "platform":
        if parts[1] == "snmp":
            stem = os.path.splitext(parts[-1])[0]
            return "snmpplugin" if stem in SNMP_PLUGIN_FILES else "snmpstring"
        return parts[1]
    if parts[0] == "feed":
        return {"core": "feed", "file": "feedfile", "systemd": "feedsystemd", "supervisor": "feedsupervisor"}.get(parts[1], "feed:" + parts[1])
    if parts[0] == "agent" and len(parts) > 2 and parts[1] in ("notify", "history"):
        return parts[1]
    if parts[0] in ("agent", "mib", "GenericAgent"):
        return parts[0]
    return None


def closure():
    full = {}
    for c in ALLOWED:
        seen, todo = set(), list(ALLOWED[c])
        while todo:
            d = todo.pop()
            if d in seen:
                continue
            seen.add(d)
            todo.extend(ALLOWED.get(d, []))
        full[c] = seen | {c}
    return full


def product_files(top):
    for dirpath, dirnames, filenames in os.walk(top):
        rel_dir = os.path.relpath(dirpath, top)
        dirnames[:] = [d for d in dirnames if d not in SKIPPED_DIRS and not (rel_dir == "." and d.startswith("."))]
        for f in filenames:
            if f.endswith((".h", ".hpp", ".cpp", ".cc", ".c")):
                rel = os.path.normpath(os.path.join(rel_dir, f))
                if component_of(rel):
                    yield rel


def target_of(top, rel, kind, name):
    """The component an include names, or None for the standard library and system headers."""
    if kind == '"':
        local = os.path.normpath(os.path.join(os.path.dirname(rel), name))
        if os.path.exists(os.path.join(top, local)):
            return component_of(local) or "outside:" + local
    for prefix, folder in ROOTS.items():
        if name.startswith(prefix):
            return component_of(folder + name[len(prefix):]) or "outside:" + name
    first = name.split("/")[0]
    if first in THIRD_PARTY:
        return THIRD_PARTY[first]
    if kind == '"':
        return "unresolved:" + name
    return None


def main():
    top = sys.argv[1]
    verbose = "--verbose" in sys.argv
    allowed = closure()
    problems, edges = [], 0
    for rel in sorted(product_files(top)):
        comp = component_of(rel)
        with open(os.path.join(top, rel), encoding="utf-8", errors="replace") as f:
            for n, line in enumerate(f, 1):
                m = INCLUDE.match(line)
                if not m:
                    continue
                target = target_of(top, rel, m.group(1), m.group(2))
                if target is None:
                    continue
                edges += 1
                if comp not in allowed:
                    problems.append(f"{rel}:{n}: {comp} is not a known component")
                elif target not in allowed[comp]:
                    problems.append(f"{rel}:{n}: {comp} -> {target} ({m.group(2)}) is not an allowed edge")
                elif verbose:
                    print(f"{rel}:{n}: {comp} -> {target}")
    for p in problems:
        print(p)
    print(f"{edges} includes checked, {len(problems)} not allowed")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main())
