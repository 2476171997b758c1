#!/usr/bin/env bash
# Where a walk's agent CPU goes, per way of serving the table: starts velmar-bench-host
# with ROWS rows (default 10000), records the agent with perf (DWARF call graphs) while
# velmar-bench-client walks one way's table with GETBULK 50 again and again, and prints
# the inclusive share of the handler chain's parts. docs/performance.md quotes its output.
#
#   bench/profile-walk.sh [ROWS] [WAY ...]     # ways: module container naive floor
#
# Needs perf (linux-perf) and the release build (scripts/bench builds it).
set -euo pipefail
here=$(cd "$(dirname "$0")/.." && pwd)
bin="$here/build/release/bench"
rows=${1:-10000}
shift || true
ways=("$@")
[ ${#ways[@]} -gt 0 ] || ways=(module container floor)
work=$(mktemp -d /tmp/velmar-profile.XXXXXX)
trap 'kill "$host" 2>/dev/null || true; rm -rf "$work"' EXIT
export MIBS= MIBDIRS=/nonexistent

"$bin/velmar-bench-state" --option-rows "$rows" --data-rows "$rows" --out "$work/state.json" >/dev/null
port=$(python3 -c 'import socket; s=socket.socket(socket.AF_INET, socket.SOCK_DGRAM); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
"$bin/velmar-bench-host" --state "$work/state.json" --module "$here/build/release/modules/VelmarDaemonMIB.so" \
  --listen "udp:127.0.0.1:$port" --dir "$work/host" >"$work/host.out" 2>"$work/host.err" &
host=$!
until grep -q ready "$work/host.out" 2>/dev/null; do sleep 0.2; done

declare -A root=([module]=1.3.6.1.4.1.32473.3.17.1.2 [container]=1.3.6.1.4.1.32473.99.2.1.2
                 [naive]=1.3.6.1.4.1.32473.99.3.1.2 [floor]=1.3.6.1.4.1.32473.99.4.1.2)
for way in "${ways[@]}"; do
  limit=()
  [ "$way" = naive ] && limit=(--limit naive=200)
  perf record -q --call-graph dwarf,16384 -F 1999 -p "$host" -o "$work/$way.data" -- sleep 3600 &
  perf_pid=$!
  sleep 1
  "$bin/velmar-bench-client" --peer "udp:127.0.0.1:$port" --pids "$host" --rows "$rows" \
    --way "$way=${root[$way]}" "${limit[@]}" --workloads bulk50 --repeat 10 >"$work/$way.json"
  kill -INT "$perf_pid"
  wait "$perf_pid" 2>/dev/null || true
  us=$(python3 -c 'import json,sys,statistics; r=[json.loads(l) for l in open(sys.argv[1])]; print("%.2f" % statistics.median(x["agent_cpu_s"]/x["varbinds"]*1e6 for x in r))' "$work/$way.json")
  echo "== $way: $us us of agent CPU per varbind (GETBULK 50, $rows rows); inclusive shares of the agent's samples:"
  perf report -i "$work/$way.data" --children --sort symbol --stdio 2>/dev/null |
    python3 -c '
import re, sys
wanted = re.compile(r"(handle_getnext_loop|handle_var_requests|netsnmp_call_handler|table_helper_handler|"
                    r"netsnmp_table_iterator_helper_handler|_container_table_handler|netsnmp_bulk_to_next_helper|"
                    r"netsnmp_serialize_helper_handler|vacm_in_view_callback|check_acm|netsnmp_add_varbind_to_cache|"
                    r"snmp_clone_varbind|netsnmp_check_getnext_reply|_sess_read|snmp_build|_int_malloc|_int_free|"
                    r"__libc_calloc|\(anonymous namespace\)::\w+<\(anonymous namespace\)::OptionTable>|"
                    r"Bench::\(anonymous namespace\)::\w+)$")
for line in sys.stdin:
    m = re.match(r"\s+([0-9.]+)%\s+([0-9.]+)%\s+\[\.\]\s+(.*?)\s+-\s+-", line)
    if m and wanted.match(m.group(3)):
        print("  %7s%%  %s" % (m.group(1), m.group(3)))
'
done
