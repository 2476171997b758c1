"""Turns the raw measurements of bench/harness.py into figures, target verdicts, a Markdown
report and a plot. Every ratio compares numbers taken in the same run."""

import statistics

WAYS = ["module", "container", "naive", "floor"]
WALKS = ["bulk10", "bulk50", "getnext"]
WALK_TITLES = {"bulk10": "GETBULK 10", "bulk50": "GETBULK 50", "getnext": "GETNEXT"}
WAY_TITLES = {
    "module": "module (ours)",
    "container": "table_container",
    "naive": "generated iterator",
    "floor": "floor",
}


def _median(values):
    return statistics.median(values) if values else None


def summarise(records):
    """{(deployment, way, rows, workload): figures}, repeats folded into their median."""
    groups = {}
    for r in records:
        groups.setdefault((r["deployment"], r["way"], r["rows"], r["workload"]), []).append(r)
    out = {}
    for key, rs in groups.items():
        workload = key[3]
        per_vb = [r["agent_cpu_s"] / r["varbinds"] * 1e6 for r in rs if r["varbinds"]]
        client_vb = [r["client_cpu_s"] / r["varbinds"] * 1e6 for r in rs if r["varbinds"]]
        s = {
            "samples": len(rs),
            "varbinds": rs[0]["varbinds"],
            "requests": rs[0]["requests"],
            "agent_us_per_varbind": _median(per_vb),
            "client_us_per_varbind": _median(client_vb),
            "agent_by_pid_us_per_varbind": {
                pid: _median([r["agent_cpu_by_pid_s"][pid] / r["varbinds"] * 1e6 for r in rs if r["varbinds"]])
                for pid in rs[0]["agent_cpu_by_pid_s"]},
            "wall_s": _median([r["wall_s"] for r in rs]),
            "problem": "; ".join(sorted({r.get("problem", "") for r in rs if r.get("problem")})),
        }
        if workload in WALKS:
            s["complete"] = all(r.get("complete") for r in rs)
            s["sampled"] = any(r.get("sampled") for r in rs)
            s["checksum_matches"] = [r.get("checksum_matches") for r in rs]
            if s["agent_us_per_varbind"]:
                s["varbinds_per_agent_cpu_s"] = 1e6 / s["agent_us_per_varbind"]
                # A full walk's agent CPU: measured, or per varbind times rows when sampled.
                s["full_walk_agent_s"] = s["agent_us_per_varbind"] * key[2] / 1e6
        else:
            s["latency_median_us"] = _median([r["latency_median_s"] * 1e6 for r in rs])
            s["latency_p90_us"] = _median([r["latency_p90_s"] * 1e6 for r in rs])
            s["answered"] = rs[0].get("answered")
            s["no_such"] = rs[0].get("no_such")
        out[key] = s
    return out


def latency_summary(results):
    """{(way, rows): median round trip over rounds, agent CPU per GET} from the interleaved GETs."""
    groups = {}
    for r in results.get("get_latency", []):
        groups.setdefault((r["way"], r["rows"]), []).append(r)
    return {k: {"median_us": _median([r["latency_median_s"] * 1e6 for r in rs]),
                "p90_us": _median([r["latency_p90_s"] * 1e6 for r in rs]),
                "agent_us_per_get": sum(r["agent_cpu_s"] for r in rs) / sum(r["requests"] for r in rs) * 1e6,
                "rounds": len(rs)}
            for k, rs in groups.items()}


def derive(results):
    side = summarise(results["side_by_side"])
    deps = summarise(results["deployments"])
    results["summary"] = [dict(zip(("deployment", "way", "rows", "workload"), k), **v) for k, v in sorted(side.items())]
    results["deployment_summary"] = [dict(zip(("deployment", "way", "rows", "workload"), k), **v)
                                     for k, v in sorted(deps.items())]
    host = "bench host (standalone)"
    sizes = sorted({k[2] for k in side})

    def fig(way, rows, workload, field="agent_us_per_varbind"):
        s = side.get((host, way, rows, workload))
        return s.get(field) if s else None

    targets = []
    # 1. Walk throughput against the table_container baseline, at every size.
    for workload in WALKS:
        ratios = {}
        for rows in sizes:
            m, c = fig("module", rows, workload), fig("container", rows, workload)
            if m and c:
                ratios[rows] = c / m
        if ratios:
            worst = min(ratios.values())
            targets.append({
                "id": f"throughput-vs-container-{workload}",
                "target": f"walk throughput ({WALK_TITLES[workload]}, varbinds per agent CPU second) of the module "
                          f">= 1.0 x the table_container baseline's, at every size",
                "value": round(worst, 3), "limit": 1.0, "met": worst >= 1.0,
                "detail": {str(k): round(v, 3) for k, v in ratios.items()}})
    # 2. GET latency flat in table size: from the interleaved rounds (every size under the
    # same load), the median over rounds of each round's median round trip.
    lat = latency_summary(results)
    results["get_latency_summary"] = [dict(way=w, rows=r, **v) for (w, r), v in sorted(lat.items())]
    lo, hi = min(sizes), max(sizes)
    if ("module", lo) in lat and ("module", hi) in lat:
        m_lo, m_hi = lat[("module", lo)]["median_us"], lat[("module", hi)]["median_us"]
        cpu_lo, cpu_hi = lat[("module", lo)]["agent_us_per_get"], lat[("module", hi)]["agent_us_per_get"]
        targets.append({
            "id": "get-latency-flat",
            "target": f"median GET latency at {hi:,} rows <= 1.25 x that at {lo:,} rows",
            "value": round(m_hi / m_lo, 3), "limit": 1.25, "met": m_hi / m_lo <= 1.25,
            "detail": {"median_us": {str(lo): round(m_lo, 1), str(hi): round(m_hi, 1)},
                       "agent_cpu_us_per_get": {str(lo): round(cpu_lo, 1), str(hi): round(cpu_hi, 1)},
                       "agent_cpu_ratio": round(cpu_hi / cpu_lo, 3)}})
    # 3. A full walk at 10,000 rows against the generated iterator.
    if 10000 in sizes:
        for workload in WALKS:
            m, n = fig("module", 10000, workload), fig("naive", 10000, workload)
            if m and n:
                targets.append({
                    "id": f"walk-vs-naive-{workload}",
                    "target": f"a full walk ({WALK_TITLES[workload]}) at 10,000 rows >= 100 x faster (agent CPU) "
                              f"than the generated iterator",
                    "value": round(n / m, 1), "limit": 100, "met": n / m >= 100,
                    "detail": {"naive_sampled": side[(host, "naive", 10000, workload)]["sampled"]}})
    # 4. Per-varbind agent CPU against the floor.
    for workload in WALKS:
        ratios = {}
        for rows in sizes:
            m, f = fig("module", rows, workload), fig("floor", rows, workload)
            if m and f:
                ratios[rows] = m / f
        if ratios:
            worst = max(ratios.values())
            targets.append({
                "id": f"per-varbind-vs-floor-{workload}",
                "target": f"per-varbind agent CPU ({WALK_TITLES[workload]}) <= 1.25 x the floor handler's",
                "value": round(worst, 3), "limit": 1.25, "met": worst <= 1.25,
                "detail": {str(k): round(v, 3) for k, v in ratios.items()}})
    # 5. Memory.
    mem = results.get("memory")
    if mem:
        v = mem["bytes_per_row_beyond_strings"]
        targets.append({
            "id": "memory-per-row",
            "target": "agent resident memory per row <= 200 bytes beyond the row's own strings, at 100,000 rows",
            "value": round(v, 1), "limit": 200, "met": v <= 200, "detail": mem})
    # 6. Reload.
    rl = results.get("reload")
    if rl:
        # The worse of a reload right after another and one after the worker handed its
        # memory back to the system (which then faults it in again).
        worst = max(rl["ratio"], rl.get("ratio_after_release", 0))
        ok = worst <= 1.5 and rl["rows_told"] == 0 and rl["same_row_objects"] and rl["in_place_only"]
        targets.append({
            "id": "reload",
            "target": "a reload changing one value of a 100,000-row file costs <= 1.5 x parsing it, and re-creates no row",
            "value": round(worst, 3), "limit": 1.5, "met": ok,
            "detail": {k: rl.get(k) for k in ("parse_s", "reload_s", "reload_after_release_s", "release_s", "apply_s",
                                              "rows_told", "same_row_objects", "in_place_only")}})
    # Checks: every complete walk of the module and the baselines returned the same rows.
    mismatches = [f"{k[1]} {k[3]} at {k[2]}" for k, s in side.items()
                  if k[3] in WALKS and k[1] != "floor" and not s["sampled"] and not all(s["checksum_matches"])]
    results["checks"] = {"walks_agree": not mismatches, "mismatches": mismatches,
                         "problems": [f"{k}: {s['problem']}" for k, s in list(side.items()) + list(deps.items())
                                      if s["problem"]]}
    results["targets"] = targets


# ---------------------------------------------------------------------------------------


def _f(v, digits=1):
    if v is None:
        return "–"
    if v >= 1000:
        return f"{v:,.0f}"
    return f"{v:.{digits}f}"


def markdown(results):
    m = results["machine"]
    out = []
    out.append("# Benchmark results\n")
    out.append(f"Generated by `scripts/bench{' --quick' if results['quick'] else ''}` on {results['started']} "
               f"in {results['duration_s']} s (commit {m['commit']}). Method and fairness: "
               "[docs/performance.md](../../docs/performance.md).\n")
    out.append(f"- Machine: {m['cpu']}, {m['cores']} cores, Linux {m['kernel']}; load average "
               f"{' / '.join(f'{x:.2f}' for x in m['load_before'])} before, "
               f"{' / '.join(f'{x:.2f}' for x in m.get('load_after', []))} after (1 / 5 / 15 min). The machine is "
               "shared: figures are CPU time of the agent process, which other load inflates less than wall time.")
    out.append(f"- Net-SNMP: Debian's libsnmp40 {m['netsnmp']}, snmpd {m['snmpd']} (built with TCP wrappers, "
               "consulted on every packet; `dontLogTCPWrappersConnects yes`). Compiler: "
               f"{m['compiler']}; {m['build']}.")
    if results.get("skipped"):
        out.append(f"- Skipped: {'; '.join(results['skipped'])}.")
    out.append("")

    out.append("## Targets\n")
    out.append("| target | value | limit | met |")
    out.append("|---|---|---|---|")
    for t in results["targets"]:
        out.append(f"| {t['target']} | {t['value']} | {t['limit']} | {'yes' if t['met'] else '**no**'} |")
    out.append("")
    checks = results["checks"]
    out.append(f"Every complete walk of the module, the table_container and the generated iterator returned the same "
               f"indexes and values: {'yes' if checks['walks_agree'] else 'NO: ' + ', '.join(checks['mismatches'])}.")
    if checks["problems"]:
        out.append(f"Problems: {'; '.join(checks['problems'])}.")
    out.append("")

    by = {(s["deployment"], s["way"], s["rows"], s["workload"]): s for s in results["summary"]}
    host = "bench host (standalone)"
    sizes = sorted({s["rows"] for s in results["summary"]})
    out.append("## Side by side: one agent process, four ways\n")
    out.append("Agent CPU per varbind (µs) for full walks, and per request for GETs; one varbind per GET. "
               "Throughput is varbinds per second of agent CPU. *Sampled*: the generated iterator walks only "
               "the first rows of large tables (its cost per row is the same all along); its full walk is "
               "extrapolated.\n")
    for rows in sizes:
        out.append(f"### {rows:,} rows per table\n")
        out.append("| way | GETBULK 10 µs/vb | GETBULK 50 µs/vb | GETNEXT µs/vb | full walk, GETBULK 50 (agent CPU s) "
                   "| GET median latency µs | GET agent µs | absent-row GET agent µs | client µs/vb (GETBULK 50) |")
        out.append("|---|---|---|---|---|---|---|---|---|")
        for way in WAYS:
            def g(w, field="agent_us_per_varbind"):
                s = by.get((host, way, rows, w))
                return s.get(field) if s else None
            sampled = by.get((host, way, rows, "bulk50"), {}).get("sampled")
            out.append(f"| {WAY_TITLES[way]}{' (sampled)' if sampled else ''} | {_f(g('bulk10'), 2)} | "
                       f"{_f(g('bulk50'), 2)} | {_f(g('getnext'), 2)} | {_f(g('bulk50', 'full_walk_agent_s'), 3)} | "
                       f"{_f(g('get', 'latency_median_us'))} | {_f(g('get'))} | {_f(g('absent'))} | "
                       f"{_f(g('bulk50', 'client_us_per_varbind'), 2)} |")
        out.append("")

    lat = {(x["way"], x["rows"]): x for x in results.get("get_latency_summary", [])}
    if lat:
        out.append("## GET latency against table size\n")
        out.append("One agent per size, all running at once; the client takes them in turns, batch by batch, so "
                   "every size sees the same load. Median over the rounds of each round's median round trip (µs), "
                   "and agent CPU per GET (µs).\n")
        lsizes = sorted({k[1] for k in lat})
        out.append("| way | " + " | ".join(f"{r:,} rows: median / agent" for r in lsizes) + " |")
        out.append("|---|" + "---|" * len(lsizes))
        for way in ("module", "container", "floor"):
            cells = [f"{_f(lat[(way, r)]['median_us'])} / {_f(lat[(way, r)]['agent_us_per_get'])}"
                     if (way, r) in lat else "–" for r in lsizes]
            out.append(f"| {WAY_TITLES[way]} | " + " | ".join(cells) + " |")
        out.append("")

    deps = {(s["deployment"], s["way"], s["rows"], s["workload"]): s for s in results["deployment_summary"]}
    if deps:
        out.append("## The module as it is deployed\n")
        out.append("Agent CPU per varbind (µs), all agent processes together (for AgentX: snmpd and the subagent; "
                   "their split in brackets), and full-walk wall time at GETBULK 50.\n")
        out.append("| deployment | rows | GETBULK 10 | GETBULK 50 | GETNEXT | full walk GETBULK 50, wall s | GET median latency µs |")
        out.append("|---|---|---|---|---|---|---|")
        for dep in sorted({k[0] for k in deps}, key=lambda d: ("standalone" not in d, "AgentX" in d, d)):
            for rows in sorted({k[2] for k in deps if k[0] == dep}):
                cells = []
                for w in WALKS:
                    s = deps.get((dep, "module", rows, w))
                    if not s:
                        cells.append("–")
                        continue
                    split = ""
                    if len(s["agent_by_pid_us_per_varbind"]) > 1:
                        split = " (" + " + ".join(_f(v, 1) for v in s["agent_by_pid_us_per_varbind"].values()) + ")"
                    cells.append(_f(s["agent_us_per_varbind"], 2) + split)
                walk = deps.get((dep, "module", rows, "bulk50"), {}).get("wall_s")
                get = deps.get((dep, "module", rows, "get"), {}).get("latency_median_us")
                out.append(f"| {dep} | {rows:,} | {' | '.join(cells)} | {_f(walk, 3)} | {_f(get)} |")
        out.append("")

    mem = results.get("memory")
    if mem:
        out.append("## Memory\n")
        out.append(f"velmar-snmp-agent resident set: {mem['rss_empty_kb']:,} KiB with an empty state file, "
                   f"{mem['rss_loaded_kb']:,} KiB with {mem['key_rows']:,} option and data rows "
                   f"({mem['model_rows']:,} rows in all four tables); the rows' own strings (every name once, "
                   f"every key and value) are {mem['string_bytes']:,} bytes. Beyond them: "
                   f"**{mem['bytes_per_row_beyond_strings']:.0f} bytes per row**.\n")
    rl = results.get("reload")
    if rl:
        out.append("## Reload\n")
        out.append(f"A {rl['key_rows']:,}-row file ({rl['file_bytes']:,} bytes): parsing it takes "
                   f"{rl['parse_s'] * 1000:.1f} ms; a reload that changes one value takes {rl['reload_s'] * 1000:.1f} ms "
                   f"of process CPU ({rl['ratio']:.2f} x) when it follows another reload, and "
                   f"{rl.get('reload_after_release_s', 0) * 1000:.1f} ms when the worker has handed its working "
                   f"memory back to the system in between (it does so once idle for a second, for "
                   f"{rl.get('release_s', 0) * 1000:.1f} ms of CPU), against {rl.get('parse_after_release_s', 0) * 1000:.1f} ms "
                   f"for a parse that also faults its memory in ({rl.get('ratio_after_release', 0):.2f} x). Of a reload, "
                   f"{rl['apply_s'] * 1e6:.1f} µs run on the agent's loop. "
                   f"Rows told to observers: {rl['rows_told']}; the same row objects before and after: "
                   f"{'yes' if rl['same_row_objects'] else 'no'}.\n")
    micro = results.get("micro")
    if micro:
        out.append("## Microbenchmarks (CPU ns per operation)\n")
        names = []
        sizes_m = []
        table = {}
        for b in micro:
            parts = b["name"].split("/")
            name = "/".join(parts[:2])
            size = int(parts[2]) if len(parts) > 2 else None
            if name not in names:
                names.append(name)
            if size and size not in sizes_m:
                sizes_m.append(size)
            per_item = 1e9 / b["items_per_second"] if b.get("items_per_second") else b["cpu_ns"]
            table[(name, size)] = per_item
        sizes_m.sort()
        out.append("| operation | " + " | ".join(f"{s:,} rows" for s in sizes_m) + " |")
        out.append("|---|" + "---|" * len(sizes_m))
        for name in names:
            if (name, None) in table:
                out.append(f"| {name} | " + " | ".join(_f(table[(name, None)], 2) if i == 0 else ""
                                                      for i, _ in enumerate(sizes_m)) + " |")
            else:
                out.append(f"| {name} | " + " | ".join(_f(table.get((name, s)), 1) for s in sizes_m) + " |")
        out.append("")
    return "\n".join(out) + "\n"


def headline(results):
    """The figures docs/performance.md shows: the targets and the main numbers by size."""
    m = results["machine"]
    by = {(x["way"], x["rows"], x["workload"]): x for x in results["summary"]}
    deps = {(x["deployment"], x["rows"], x["workload"]): x for x in results["deployment_summary"]}
    sizes = sorted({x["rows"] for x in results["summary"]})
    lat = {(x["way"], x["rows"]): x for x in results.get("get_latency_summary", [])}

    def lat_med(rows):
        if ("module", rows) in lat:
            return lat[("module", rows)]["median_us"]
        x = by.get(("module", rows, "get"))
        return x.get("latency_median_us") if x else None

    out = [f"Figures of the last full run ({results['started']}, commit {m['commit']}; load average "
           f"{m['load_before'][0]:.1f} before and {m.get('load_after', [0])[0]:.1f} after on {m['cores']} shared cores).",
           "", "| target | value | limit | met |", "|---|---|---|---|"]
    for t in results["targets"]:
        out.append(f"| {t['target']} | {t['value']} | {t['limit']} | {'yes' if t['met'] else '**no**'} |")
    out += ["", "Agent CPU per varbind (µs) in a full GETBULK 50 walk, and GETs of one varbind:", "",
            "| rows | module | table_container | floor | generated iterator | module throughput / container's "
            "| module / floor | GET median round trip, module (µs) | GET of an absent row, module (agent ms) "
            "| module as AgentX subagent | module in snmpd (dlmod) |",
            "|---|---|---|---|---|---|---|---|---|---|---|"]
    for rows in sizes:
        def g(way, workload="bulk50", field="agent_us_per_varbind"):
            x = by.get((way, rows, workload))
            return x.get(field) if x else None
        mod, con, flo, nai = g("module"), g("container"), g("floor"), g("naive")
        ax = deps.get(("AgentX subagent of snmpd", rows, "bulk50"), {}).get("agent_us_per_varbind")
        dl = deps.get(("dlmod bridge in snmpd", rows, "bulk50"), {}).get("agent_us_per_varbind")
        absent = g("module", "absent")
        out.append(f"| {rows:,} | {_f(mod, 2)} | {_f(con, 2)} | {_f(flo, 2)} | {_f(nai, 0)} | "
                   f"{_f(con / mod if mod and con else None, 2)} | {_f(mod / flo if mod and flo else None, 2)} | "
                   f"{_f(lat_med(rows))} | {_f(absent / 1000 if absent else None, 2)} | "
                   f"{_f(ax, 1)} | {_f(dl, 1)} |")
    mem, rl = results.get("memory"), results.get("reload")
    if mem and rl:
        out += ["", f"Memory: {mem['bytes_per_row_beyond_strings']:.0f} bytes per row beyond the rows' strings at "
                    f"{mem['key_rows']:,} rows. Reload of one value in a {rl['key_rows']:,}-row file: "
                    f"{rl['ratio']:.2f} x parsing it ({rl['reload_s'] * 1000:.0f} ms against {rl['parse_s'] * 1000:.0f} ms; "
                    f"{rl.get('ratio_after_release', 0):.2f} x when both fault their memory in after the worker handed it back), no row "
                    f"re-created."]
    return "\n".join(out) + "\n"


def plot(results, path):
    import matplotlib
    matplotlib.use("Agg")
    import matplotlib.pyplot as plt

    host = "bench host (standalone)"
    by = {(s["deployment"], s["way"], s["rows"], s["workload"]): s for s in results["summary"]}
    deps = {(s["deployment"], s["way"], s["rows"], s["workload"]): s for s in results["deployment_summary"]}
    sizes = sorted({s["rows"] for s in results["summary"]})
    fig, (walk_ax, get_ax) = plt.subplots(1, 2, figsize=(12, 5))
    styles = {"module": "o-", "container": "s-", "naive": "^-", "floor": "x-"}
    for way in WAYS:
        xs, ys = [], []
        for rows in sizes:
            s = by.get((host, way, rows, "bulk50"))
            if s and s.get("full_walk_agent_s"):
                xs.append(rows)
                ys.append(s["full_walk_agent_s"])
        if xs:
            walk_ax.plot(xs, ys, styles[way], label=WAY_TITLES[way] + (" (extrapolated where sampled)" if way == "naive" else ""))
    for dep, style in (("AgentX subagent of snmpd", "o--"), ("dlmod bridge in snmpd", "o:")):
        xs, ys = [], []
        for rows in sizes:
            s = deps.get((dep, "module", rows, "bulk50"))
            if s and s.get("full_walk_agent_s"):
                xs.append(rows)
                ys.append(s["full_walk_agent_s"])
        if xs:
            walk_ax.plot(xs, ys, style, label=f"module, {dep}")
    walk_ax.set_xscale("log")
    walk_ax.set_yscale("log")
    walk_ax.set_xlabel("rows in the table")
    walk_ax.set_ylabel("agent CPU for a full walk, GETBULK 50 (s)")
    walk_ax.set_title("Full walk")
    walk_ax.grid(True, which="both", alpha=0.3)
    walk_ax.legend(fontsize=8)

    lat = {(x["way"], x["rows"]): x for x in results.get("get_latency_summary", [])}
    for way in WAYS:
        xs, ys = [], []
        for rows in sizes:
            if (way, rows) in lat:
                xs.append(rows)
                ys.append(lat[(way, rows)]["median_us"])
            else:
                s = by.get((host, way, rows, "get"))
                if s and s.get("latency_median_us"):
                    xs.append(rows)
                    ys.append(s["latency_median_us"])
        if xs:
            get_ax.plot(xs, ys, styles[way], label=WAY_TITLES[way])
    xs, ys = [], []
    for rows in sizes:
        s = by.get((host, "module", rows, "absent"))
        if s and s.get("latency_median_us"):
            xs.append(rows)
            ys.append(s["latency_median_us"])
    if xs:
        get_ax.plot(xs, ys, "o:", label="module, rows that do not exist")
    get_ax.set_xscale("log")
    get_ax.set_yscale("log")
    get_ax.set_xlabel("rows in the table")
    get_ax.set_ylabel("median GET round trip (µs)")
    get_ax.set_title("GET of one varbind")
    get_ax.grid(True, which="both", alpha=0.3)
    get_ax.legend(fontsize=8)
    fig.suptitle("velmar-daemon-mib against Net-SNMP's table helpers (same agent process, loopback UDP)")
    fig.tight_layout()
    fig.savefig(path, dpi=110)
    plt.close(fig)
