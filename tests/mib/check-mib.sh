#!/usr/bin/env bash
# Checks VELMAR-DAEMON-MIB and the demo launcher state:
#   - smilint at level 6 has nothing to say about the module,
#   - every object resolves (with Net-SNMP's snmptranslate) to the OID the agent
#     serves, under the enterprise number the build is configured with,
#   - the value and index columns carry their DISPLAY-HINTs, the columns their
#     access,
#   - the file stays plain text within 80 columns,
#   - examples/demo-state.json is valid and within the limits the agent serves.
#
# Usage: check-mib.sh SOURCE_DIR ENTERPRISE_NUMBER
#
# The IETF base modules (SNMPv2-SMI, SNMPv2-TC, SNMPv2-CONF) are not shipped by
# Debian; scripts/install-deps puts them under .deps/.  VELMAR_BASE_MIBS
# overrides where they are looked for.
set -euo pipefail

if [ $# -ne 2 ]; then
  echo "usage: $0 SOURCE_DIR ENTERPRISE_NUMBER" >&2
  exit 2
fi
src=$(cd "$1" && pwd)
ent=$2
case $ent in
  '' | *[!0-9]*) echo "check-mib: enterprise number must be numeric: $ent" >&2; exit 2 ;;
esac

mib_dir=$src/mib
mib_file=$mib_dir/VELMAR-DAEMON-MIB.txt
base_dir=${VELMAR_BASE_MIBS:-$src/.deps/node_modules/net-snmp/lib/mibs}
demo=$src/examples/demo-state.json

for tool in smilint snmptranslate /usr/bin/python3; do
  if ! command -v "$tool" >/dev/null 2>&1; then
    echo "check-mib: $tool not found (run scripts/install-deps)" >&2
    exit 2
  fi
done
for f in "$mib_file" "$base_dir/SNMPv2-SMI.mib" "$base_dir/SNMPv2-TC.mib" \
         "$base_dir/SNMPv2-CONF.mib" "$demo"; do
  if [ ! -f "$f" ]; then
    echo "check-mib: missing $f (base MIBs come from scripts/install-deps)" >&2
    exit 2
  fi
done

work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

# Both tools find modules by name.  A directory of links named after the
# modules works whatever file extensions a tool version looks for, and keeps
# anything else lying in mib/ or the base directory out of the way.
mods=$work/mibs
mkdir -p "$mods"
for m in SNMPv2-SMI SNMPv2-TC SNMPv2-CONF; do
  ln -s "$base_dir/$m.mib" "$mods/$m"
  ln -s "$base_dir/$m.mib" "$mods/$m.txt"
done
ln -s "$mib_file" "$mods/VELMAR-DAEMON-MIB"
ln -s "$mib_file" "$mods/VELMAR-DAEMON-MIB.txt"

# Keep the user's and the system's Net-SNMP configuration out of the checks.
# (Net-SNMP announces on stderr each persistent directory it has to create.)
mkdir -p "$work/home" "$work/conf" "$work/persist/cert_indexes"
export HOME=$work/home SNMPCONFPATH=$work/conf SNMP_PERSISTENT_DIR=$work/persist
unset MIBS MIBDIRS MIBFILES PREFIX || true

passed=0
failed=0
pass() { passed=$((passed + 1)); }
fail() { failed=$((failed + 1)); echo "FAIL: $*"; }

# --- smilint -----------------------------------------------------------------
out=$(SMIPATH=$mods smilint -l 6 -s -m "$mib_file" 2>&1) || true
if [ -z "$out" ]; then
  pass
else
  fail "smilint -l 6 reports problems:"
  printf '%s\n' "$out"
fi
# smilint stays silent when it checks nothing, so make sure it did load the
# module: a module without its imports must be reported.
out=$(SMIPATH=$work/empty smilint -l 6 "$mib_file" 2>&1) || true
if grep -q "failed to locate MIB module" <<<"$out"; then
  pass
else
  fail "smilint did not notice missing imports; is it checking the module at all?"
fi

# --- text layout ---------------------------------------------------------------
bad=$(LC_ALL=C awk '
  length($0) > 80 { print FILENAME ":" FNR ": longer than 80 columns" }
  /[ \t\r]$/     { print FILENAME ":" FNR ": trailing whitespace" }
  /\t/            { print FILENAME ":" FNR ": tab" }
  /[^ -~\t\r]/    { print FILENAME ":" FNR ": not plain ASCII" }' "$mib_file")
if [ -z "$bad" ]; then
  pass
else
  fail "layout of $mib_file:"
  printf '%s\n' "$bad"
fi

# --- OIDs ----------------------------------------------------------------------
translate() {
  snmptranslate -M "$mods" -m VELMAR-DAEMON-MIB "$@"
}

e=".1.3.6.1.4.1.$ent"
m="$e.3.17"
expected=(
  "velmar                       $e"
  "velmarMibs                   $e.3"
  "velmarDaemonMIB              $m"
  "velmarDaemonNotifications    $m.0"
  "velmarDaemonRunningChange    $m.0.1"
  "velmarDaemonEnabledChange    $m.0.2"
  "velmarDaemonGone             $m.0.3"
  "velmarDaemonConfig           $m.1"
  "velmarDaemonStatus           $m.2"
  "velmarDaemonConformance      $m.3"
  "velmarDaemonFeed             $m.4"
  "velmarFeedSource             $m.4.1"
  "velmarFeedState              $m.4.2"
  "velmarFeedChangeAge          $m.4.3"
  "velmarFeedReadAge            $m.4.4"
  "velmarFeedLastChange         $m.4.5"
  "velmarFeedLastRead           $m.4.6"
  "velmarFeedLastRefusal        $m.4.7"
  "velmarFeedDaemons            $m.4.8"
  "velmarFeedRows               $m.4.9"
  "velmarFeedReloads            $m.4.10"
  "velmarFeedRefusals           $m.4.11"
  "velmarFeedSkippedNow         $m.4.12"
  "velmarFeedSkipped            $m.4.13"
  "velmarFeedLastSkip           $m.4.14"
  "velmarDaemonEnabledTable     $m.1.1"
  "velmarDaemonEnabledEntry     $m.1.1.1"
  "velmarDaemonEnabledAgentName $m.1.1.1.1"
  "velmarDaemonEnabled          $m.1.1.1.2"
  "velmarDaemonOptionTable      $m.1.2"
  "velmarDaemonOptionEntry      $m.1.2.1"
  "velmarDaemonOptionAgentName  $m.1.2.1.1"
  "velmarDaemonOptionKey        $m.1.2.1.2"
  "velmarDaemonOptionValue      $m.1.2.1.3"
  "velmarDaemonRunningTable     $m.2.1"
  "velmarDaemonRunningEntry     $m.2.1.1"
  "velmarDaemonRunningAgentName $m.2.1.1.1"
  "velmarDaemonRunning          $m.2.1.1.2"
  "velmarDaemonDataTable        $m.2.2"
  "velmarDaemonDataEntry        $m.2.2.1"
  "velmarDaemonDataAgentName    $m.2.2.1.1"
  "velmarDaemonDataKey          $m.2.2.1.2"
  "velmarDaemonDataValue        $m.2.2.1.3"
  "velmarDaemonHistoryTable     $m.2.3"
  "velmarDaemonHistoryEntry     $m.2.3.1"
  "velmarDaemonHistoryAgentName $m.2.3.1.1"
  "velmarDaemonRunningChanges   $m.2.3.1.2"
  "velmarDaemonEnabledChanges   $m.2.3.1.3"
  "velmarDaemonLastRunningChange $m.2.3.1.4"
  "velmarDaemonLastEnabledChange $m.2.3.1.5"
  "velmarDaemonLastRunningChangeTime $m.2.3.1.6"
  "velmarDaemonGroups           $m.3.1"
  "velmarDaemonConfigGroup      $m.3.1.1"
  "velmarDaemonStatusGroup      $m.3.1.2"
  "velmarDaemonNotificationGroup $m.3.1.3"
  "velmarDaemonFeedGroup        $m.3.1.4"
  "velmarDaemonHistoryGroup     $m.3.1.5"
  "velmarDaemonCompliances      $m.3.2"
  "velmarDaemonCompliance       $m.3.2.1"
)
for line in "${expected[@]}"; do
  read -r name oid <<<"$line"
  if got=$(translate -On "VELMAR-DAEMON-MIB::$name" 2>"$work/err") \
     && [ "$got" = "$oid" ] && [ ! -s "$work/err" ]; then
    pass
  else
    fail "$name: expected $oid, got '${got:-}' $(cat "$work/err")"
  fi
done

# Nothing beyond the list above is defined in the module: every OID that
# snmptranslate knows under the module's subtree must have been checked.
known=$(translate -Tso 2>/dev/null | awk -v p="$m" '$1 == p || index($1, p ".") == 1 { print $1 }' | sort -u)
listed=$(for line in "${expected[@]}"; do read -r _ oid <<<"$line"; \
           case $oid in "$m"|"$m".*) echo "$oid" ;; esac; done | sort -u)
if [ -n "$known" ] && [ "$known" = "$listed" ]; then
  pass
else
  fail "objects under $m differ from the checked list:"
  diff <(printf '%s\n' "$listed") <(printf '%s\n' "$known") || true
fi

# --- syntax, DISPLAY-HINTs and access -------------------------------------------
# name  access  pattern that -Td must show
details=(
  "velmarDaemonEnabledAgentName not-accessible DISPLAY-HINT[[:space:]]+\"32t\""
  "velmarDaemonEnabled          read-only      -- TEXTUAL CONVENTION TruthValue$"
  "velmarDaemonOptionAgentName  not-accessible DISPLAY-HINT[[:space:]]+\"32t\""
  "velmarDaemonOptionKey        not-accessible DISPLAY-HINT[[:space:]]+\"64t\""
  "velmarDaemonOptionValue      read-only      DISPLAY-HINT[[:space:]]+\"10240t\""
  "velmarDaemonRunningAgentName not-accessible DISPLAY-HINT[[:space:]]+\"32t\""
  "velmarDaemonRunning          read-only      -- TEXTUAL CONVENTION TruthValue$"
  "velmarDaemonDataAgentName    not-accessible DISPLAY-HINT[[:space:]]+\"32t\""
  "velmarDaemonDataKey          not-accessible DISPLAY-HINT[[:space:]]+\"64t\""
  "velmarDaemonDataValue        read-only      DISPLAY-HINT[[:space:]]+\"10240t\""
  "velmarFeedSource             read-only      DISPLAY-HINT[[:space:]]+\"1024t\""
  "velmarFeedLastRefusal        read-only      DISPLAY-HINT[[:space:]]+\"1024t\""
  "velmarFeedLastSkip           read-only      DISPLAY-HINT[[:space:]]+\"1024t\""
  "velmarFeedLastRead           read-only      -- TEXTUAL CONVENTION DateAndTime$"
  "velmarFeedReadAge            read-only      SYNTAX[[:space:]]+Gauge32"
)
for line in "${details[@]}"; do
  read -r name access pattern <<<"$line"
  d=$(translate -Td "VELMAR-DAEMON-MIB::$name" 2>/dev/null) || d=
  if grep -Eq "^[[:space:]]*$pattern" <<<"$d"; then
    pass
  else
    fail "$name: -Td does not show $pattern"
  fi
  if grep -Eq "^[[:space:]]*MAX-ACCESS[[:space:]]+$access\$" <<<"$d"; then
    pass
  else
    fail "$name: MAX-ACCESS is not $access"
  fi
done
# The sizes the agent serves: values 1 to 10240 octets, names 1 to 32, keys 0 to 64 (an
# option or data key may be empty).
sizes=(
  "velmarDaemonOptionValue 1..10240" "velmarDaemonDataValue 1..10240"
  "velmarDaemonEnabledAgentName 1..32" "velmarDaemonOptionAgentName 1..32"
  "velmarDaemonRunningAgentName 1..32" "velmarDaemonDataAgentName 1..32"
  "velmarDaemonOptionKey 0..64" "velmarDaemonDataKey 0..64"
)
for line in "${sizes[@]}"; do
  read -r name range <<<"$line"
  d=$(translate -Td "VELMAR-DAEMON-MIB::$name" 2>/dev/null) || d=
  if grep -Fq "OCTET STRING (${range})" <<<"$(grep -E '^[[:space:]]*SYNTAX' <<<"$d")"; then
    pass
  else
    fail "$name: SYNTAX is not OCTET STRING (${range})"
  fi
done
# The tables are indexed as the agent expects.
indexes=(
  "velmarDaemonEnabledEntry velmarDaemonEnabledAgentName"
  "velmarDaemonOptionEntry  velmarDaemonOptionAgentName, velmarDaemonOptionKey"
  "velmarDaemonRunningEntry velmarDaemonRunningAgentName"
  "velmarDaemonDataEntry    velmarDaemonDataAgentName, velmarDaemonDataKey"
)
for line in "${indexes[@]}"; do
  read -r name index <<<"$line"
  d=$(translate -Td "VELMAR-DAEMON-MIB::$name" 2>/dev/null) || d=
  if grep -Fq "INDEX		{ $index }" <<<"$d"; then
    pass
  else
    fail "$name: INDEX is not { $index }"
  fi
done

# --- demo state ------------------------------------------------------------------
# One line per check: "pass <what>" or "fail <what>".
results=$(/usr/bin/python3 -c '
import json, sys

NAME_MAX, KEY_MAX, VALUE_MAX = 32, 64, 10240
path = sys.argv[1]

def report(ok, what):
    print(("pass " if ok else "fail ") + what)

try:
    with open(path, encoding="utf-8") as f:
        state = json.load(f)
except (OSError, ValueError) as e:
    report(False, "%s is not valid JSON: %s" % (path, e))
    sys.exit(0)
report(True, "valid JSON")

problems = []
def octets(s):
    return len(s.encode("utf-8"))

def check_map(where, m):
    if not isinstance(m, dict):
        problems.append("%s: not an object" % where)
        return
    for k, v in m.items():
        if octets(k) > KEY_MAX:
            problems.append("%s: key %r longer than %d octets" % (where, k, KEY_MAX))
        if not isinstance(v, str):
            problems.append("%s.%s: value is not a string" % (where, k))
        elif v == "":
            problems.append("%s.%s: empty value" % (where, k))
        elif octets(v) > VALUE_MAX:
            problems.append("%s.%s: value longer than %d octets" % (where, k, VALUE_MAX))

def check_part(where, part, flag, listing):
    if not isinstance(part, dict):
        problems.append("%s: not an object" % where)
        return
    extra = set(part) - {flag, listing}
    if extra:
        problems.append("%s: unknown members %s" % (where, sorted(extra)))
    if not isinstance(part.get(flag), bool):
        problems.append("%s.%s: missing or not true/false" % (where, flag))
    if listing in part:
        check_map("%s.%s" % (where, listing), part[listing])

daemons = state.get("daemons") if isinstance(state, dict) else None
if not isinstance(daemons, dict) or not daemons or set(state) != {"daemons"}:
    problems.append("top level must be an object with one non-empty member \"daemons\"")
    daemons = {}
for name, d in daemons.items():
    if name == "" or octets(name) > NAME_MAX:
        problems.append("daemon name %r empty or longer than %d octets" % (name, NAME_MAX))
    if not isinstance(d, dict):
        problems.append("%s: not an object" % name)
        continue
    extra = set(d) - {"config", "status"}
    if extra:
        problems.append("%s: unknown members %s" % (name, sorted(extra)))
    if "config" in d:
        check_part(name + ".config", d["config"], "enabled", "options")
    if "status" in d:
        check_part(name + ".status", d["status"], "running", "data")
report(not problems, "shape and limits" + "".join("\n fail   " + p for p in problems))

ds = [d for d in daemons.values() if isinstance(d, dict)]
def has(d, part, flag, value):
    return isinstance(d.get(part), dict) and d[part].get(flag) is value
report(len(daemons) >= 10, "at least ten daemons (%d)" % len(daemons))
report(any("status" not in d for d in ds), "a daemon without status")
report(any("config" not in d for d in ds), "a daemon without config")
report(any(has(d, "config", "enabled", True) for d in ds)
       and any(has(d, "config", "enabled", False) for d in ds),
       "enabled and disabled daemons")
report(any(has(d, "status", "running", True) for d in ds)
       and any(has(d, "status", "running", False) for d in ds),
       "running and stopped daemons")
report(len({octets(n) for n in daemons}) >= 3, "names of differing lengths")
' "$demo" 2>&1) || results="fail python: $results"
while IFS= read -r line; do
  case $line in
    "pass "*) pass ;;
    "fail "*) fail "demo-state.json: ${line#fail }" ;;
    " fail "*) echo "  ${line# fail }" ;;
    *) [ -n "$line" ] && fail "demo-state.json: $line" ;;
  esac
done <<<"$results"

echo "mib checks: $passed passed, $failed failed"
[ "$failed" -eq 0 ]
