#!/usr/bin/env python3
"""Turns the JSON output of the benchmarks into the figures of docs/performance.md and the
chart docs/performance.svg.

Each figure pairs a benchmark of the runtime (or of librk) with its reference from the same
run and reports the ratio of their medians beside the goal. The text of performance.md
outside the generated block is left as it is.

    bench/report.py [--build-dir DIR] [--repetitions N] teza_bench.json teza_bench_memory.json
"""

import argparse
import datetime
import json
import os
import platform
import re
import subprocess
import sys
from xml.sax.saxutils import escape

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DOC = os.path.join(ROOT, "docs", "performance.md")
CHART = os.path.join(ROOT, "docs", "performance.svg")
BEGIN = "<!-- BEGIN FIGURES: written by scripts/bench, do not edit by hand -->"
END = "<!-- END FIGURES -->"


class Figure:
    """One ratio: `subject` against `reference`, read from `metric` of their medians.

    kind "slower": ratio = subject time / reference time, goal is an upper bound.
    kind "faster": ratio = reference time / subject time, goal is a lower bound.
    kind "rate": ratio = subject rate / reference rate, goal is a lower bound.
    """

    def __init__(self, group, label, subject, reference, kind, goal, metric, limit=""):
        self.group = group
        self.label = label
        self.subject = subject
        self.reference = reference
        self.kind = kind
        self.goal = goal
        self.metric = metric
        self.limit = limit


LOG_LIMIT = (
    "the frame writes six log messages per call (open, cache look-up, connect, hand-back); "
    "each checks that /var/log/tezalog exists with access(2) even while logging is off, "
    "which the log file's design requires. Those system calls are most of the difference "
    "on this machine; the rest is the tracer's and descriptor's bookkeeping"
)
RECORD_LIMIT = (
    "the runtime's record keeps every field value in a heap object of its own (two "
    "arrays per record plus one allocation per set value, by design of the record storage), "
    "where the hand-written code fills plain members"
)

RESUMPTION_LIMIT = (
    "what resumption saves is the server's signature and the client's verification of the "
    "server's certificate chain; both sides still make a TLS 1.3 ephemeral key exchange "
    "(kept for forward secrecy; OpenSSL 3.0 cannot skip it), libcurl 7.88 still makes a "
    "new TLS context for every connection, and the connection, the two HTTP calls and "
    "the runtime cost the same on both sides (profile in \"TLS session resumption, "
    "measured on its own\" below)"
)

FIGURES = [
    Figure("Mapping", "20-field record, write", "mapping/record20_write/runtime",
           "mapping/record20_write/reference", "slower", 1.3, "cpu_time",
           "the record's values are read through the field descriptors, each out of a heap "
           "object of its own"),
    Figure("Mapping", "20-field record, read", "mapping/record20_read/runtime",
           "mapping/record20_read/reference", "slower", 1.3, "cpu_time", RECORD_LIMIT),
    Figure("Mapping", "10,000 nested records, write", "mapping/batch10000_write/runtime",
           "mapping/batch10000_write/reference", "slower", 1.3, "cpu_time",
           "the record writing's order of calls makes each nested item a tree of its own "
           "(a new element, filled, then attached), which librk keeps in an arena of its own "
           "and frees by a walk over its elements, where the hand-written code attaches each "
           "item first and its fields share the whole tree's arena"),
    Figure("Mapping", "10,000 nested records, read", "mapping/batch10000_read/runtime",
           "mapping/batch10000_read/reference", "slower", 2.0, "cpu_time", RECORD_LIMIT +
           ": six allocations per 4-field item, and as many releases, against none for the "
           "reference's vector of structs"),
    Figure("Invocation", "invoke with input and output (in-process)",
           "invocation/echo_inprocess/runtime", "invocation/echo_inprocess/reference",
           "slower", 1.25, "cpu_time", LOG_LIMIT),
    Figure("Invocation", "invoke without input or output (in-process)",
           "invocation/ping_inprocess/runtime", "invocation/ping_inprocess/reference",
           "slower", 1.25, "cpu_time", LOG_LIMIT),
    Figure("Connection cache", "HTTP: cached handle against a fresh one",
           "cache/http/runtime", "cache/http/reference", "faster", 2.0, "real_time",
           "a fresh handle costs one connection and one more round trip (the probe); on "
           "loopback about 2.2 is the most there is to gain"),
    Figure("Connection cache", "HTTPS: cached handle against a fresh one",
           "cache/https/runtime", "cache/https/reference", "faster", 10.0, "real_time",
           "the ratio is what a fresh handle adds (a connection, a TLS handshake with the "
           "test's ECDSA P-256 certificate, the probe's round trip; about 2 ms here) over one "
           "cached call, and a cached call's loopback round trip takes 200 to 300 µs on this "
           "machine (see the transport rows) instead of the usual tens of microseconds"),
    Figure("TLS session resumption",
           "fresh HTTPS handle through the runtime (connect, probe, call): resumed against a "
           "full handshake", "resumption/https_fresh/resumed", "resumption/https_fresh/full",
           "slower", 0.5, "real_time", RESUMPTION_LIMIT),
    Figure("TLS session resumption",
           "the same, the client's CPU time", "resumption/https_fresh/resumed",
           "resumption/https_fresh/full", "slower", 0.5, "cpu_time", RESUMPTION_LIMIT),
    Figure("Transport", "version probe, 1 thread", "transport/http/librk/account_get:0/threads:1",
           "transport/http/reference/account_get:0/threads:1", "rate", 0.8, "items_per_second",
           "librk writes the request as XML and parses the answer into a tree on every call"),
    Figure("Transport", "version probe, 2 threads", "transport/http/librk/account_get:0/threads:2",
           "transport/http/reference/account_get:0/threads:2", "rate", 0.8, "items_per_second",
           "librk writes the request as XML and parses the answer into a tree on every call; "
           "the two client threads share two cores with the server"),
    Figure("Transport", "account-get (nested answer), 1 thread",
           "transport/http/librk/account_get:1/threads:1",
           "transport/http/reference/account_get:1/threads:1", "rate", 0.8, "items_per_second",
           "librk writes the request as XML and parses the answer into a tree on every call"),
    Figure("Transport", "account-get (nested answer), 2 threads",
           "transport/http/librk/account_get:1/threads:2",
           "transport/http/reference/account_get:1/threads:2", "rate", 0.8, "items_per_second",
           "librk writes the request as XML and parses the answer into a tree on every call; "
           "the two client threads share two cores with the server"),
]

# Memory figures: (label, benchmark, counter, unit).
MEMORY = [
    ("Allocations per invoke, in-process echo: runtime", "memory/allocs_echo_inprocess/runtime",
     "allocs_per_call", ""),
    ("Allocations per call, in-process echo: bare rk_ calls",
     "memory/allocs_echo_inprocess/reference", "allocs_per_call", ""),
    ("Allocations per invoke, HTTP version probe: runtime", "memory/allocs_probe_http/runtime",
     "allocs_per_call", ""),
    ("Allocations per call, HTTP version probe: bare rk_server_invoke",
     "memory/allocs_probe_http/reference", "allocs_per_call", ""),
    ("Heap bytes per cached handle, HTTP", "memory/cached_handle/http", "bytes_per_handle",
     " B"),
    ("Allocations to open and cache one handle, HTTP", "memory/cached_handle/http",
     "allocs_per_handle", ""),
    ("Heap bytes per cached handle, HTTPS", "memory/cached_handle/https", "bytes_per_handle",
     " B"),
    ("Allocations to open and cache one handle, HTTPS", "memory/cached_handle/https",
     "allocs_per_handle", ""),
    ("Heap bytes per field, 20-field record: runtime record", "memory/record20_field/runtime",
     "bytes_per_field", " B"),
    ("Heap bytes per field, 20-field record: plain struct", "memory/record20_field/plain",
     "bytes_per_field", " B"),
    ("Heap bytes per field, 20-field record: element tree", "memory/record20_field/tree",
     "bytes_per_field", " B"),
    ("Heap bytes per field, 10,000 4-field items: runtime record", "memory/item_field/runtime",
     "bytes_per_field", " B"),
    ("Heap bytes per field, 10,000 4-field items: plain structs", "memory/item_field/plain",
     "bytes_per_field", " B"),
    ("Heap bytes per field, 10,000 4-field items: element tree", "memory/item_field/tree",
     "bytes_per_field", " B"),
]


def normalise(run_name):
    """Drops the parts Google Benchmark adds to a name (real_time, iterations:N)."""
    parts = [p for p in run_name.split("/")
             if p != "real_time" and not p.startswith("iterations:")]
    return "/".join(parts)


def load(paths):
    """Median, and spread (cv) by normalised name, and the context of the first file."""
    medians, spread, context = {}, {}, None
    for path in paths:
        with open(path) as f:
            data = json.load(f)
        context = context or data.get("context", {})
        for b in data["benchmarks"]:
            name = normalise(b.get("run_name", b["name"]))
            aggregate = b.get("aggregate_name")
            if aggregate == "median" or (aggregate is None and name not in medians):
                medians[name] = b
            elif aggregate == "cv":
                spread[name] = b
    return medians, spread, context


def value(bench, metric):
    if metric in ("cpu_time", "real_time"):
        return float(bench[metric])  # times of one benchmark share their unit
    return float(bench[metric])


def cv(spread, name, metric):
    b = spread.get(name)
    if b is None or metric not in b:
        return None
    return float(b[metric])


def evaluate(figure, medians, spread):
    s, r = medians.get(figure.subject), medians.get(figure.reference)
    if s is None or r is None or s.get("error_occurred") or r.get("error_occurred"):
        return None
    if s.get("time_unit") != r.get("time_unit") and figure.metric != "items_per_second":
        raise SystemExit(f"{figure.subject}: time units differ from its reference")
    sv, rv = value(s, figure.metric), value(r, figure.metric)
    if figure.kind == "slower":
        ratio, met = sv / rv, sv / rv <= figure.goal
    elif figure.kind == "faster":
        ratio, met = rv / sv, rv / sv >= figure.goal
    else:
        ratio, met = sv / rv, sv / rv >= figure.goal
    noise = [c for c in (cv(spread, figure.subject, figure.metric),
                         cv(spread, figure.reference, figure.metric)) if c is not None]
    spread_max = max(noise) if noise else None
    # A miss by less than the spread of the repetitions says little either way.
    within_noise = (not met and spread_max is not None and
                    abs(ratio / figure.goal - 1) < spread_max)
    return {"subject": sv, "reference": rv, "ratio": ratio, "met": met,
            "within_noise": within_noise, "unit": s.get("time_unit", ""), "cv": spread_max,
            "subject_cpu": float(s["cpu_time"]), "reference_cpu": float(r["cpu_time"])}


def shown(v, metric, unit):
    if metric == "items_per_second":
        return f"{v:,.0f} calls/s"
    scale = {"ns": 1e-9, "us": 1e-6, "ms": 1e-3, "s": 1.0}[unit]
    seconds = v * scale
    for name, size in (("s", 1.0), ("ms", 1e-3), ("µs", 1e-6)):
        if seconds >= size:
            return f"{seconds / size:.3g} {name}"
    return f"{seconds / 1e-9:.3g} ns"


def goal_text(figure):
    if figure.kind == "slower":
        return f"≤ {figure.goal:g}×"
    return f"≥ {figure.goal:g}×"


def run(command):
    try:
        return subprocess.run(command, capture_output=True, text=True, check=True,
                              shell=True).stdout.strip()
    except (OSError, subprocess.CalledProcessError):
        return "unknown"


def machine(build_dir, context, repetitions):
    cpu = "unknown"
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                cpu = line.split(":", 1)[1].strip()
                break
    cache = {}
    cache_path = os.path.join(build_dir, "CMakeCache.txt")
    if os.path.exists(cache_path):
        with open(cache_path) as f:
            for line in f:
                m = re.match(r"(CMAKE_CXX_COMPILER|CMAKE_BUILD_TYPE):[A-Z]+=(.*)", line)
                if m:
                    cache[m.group(1)] = m.group(2)
    compiler = run(f"'{cache.get('CMAKE_CXX_COMPILER', 'c++')}' --version | head -1")
    load = context.get("load_avg") or []
    return [
        ("Date", context.get("date", datetime.datetime.now().isoformat())),
        ("CPU", f"{cpu}, {os.cpu_count()} cores as seen by the system"
                f" ({context.get('mhz_per_cpu', '?')} MHz)"),
        ("Kernel", platform.release()),
        ("Compiler", compiler),
        ("Build type", cache.get("CMAKE_BUILD_TYPE", "unknown")),
        ("libcurl", run("curl-config --version")),
        ("Repetitions", f"{repetitions} per benchmark; medians shown"),
        ("Load average at start", ", ".join(f"{x:.2f}" for x in load) if load else "unknown"),
    ]


def table(rows):
    out = ["| " + " | ".join(rows[0]) + " |", "|" + "---|" * len(rows[0])]
    out += ["| " + " | ".join(str(c) for c in row) + " |" for row in rows[1:]]
    return "\n".join(out)


def previous_block(doc):
    """What the generated block of the run before holds, for a filtered run to keep: its
    ratio rows and missed-goal notes by figure, its memory rows by label, and its date."""
    start, end = doc.find(BEGIN), doc.find(END)
    kept = {"rows": {}, "notes": [], "memory": {}, "date": None}
    if start < 0 or end < start:
        return kept
    for line in doc[start:end].splitlines():
        kept_from = re.search(
            r"keep the figures of the earlier run of (.+?) \(with their notes\)", line)
        if kept_from:  # that run was a filtered one too: its kept rows are older
            kept["date"] = kept_from.group(1)
            continue
        if line.startswith("- "):
            kept["notes"].append(line)
            continue
        if not line.startswith("|"):
            continue
        cells = [c.strip() for c in line.strip().strip("|").split("|")]
        if len(cells) == 7:
            kept["rows"][cells[0]] = tuple(cells)
        elif len(cells) == 2 and cells[0] == "Date":
            kept["date"] = cells[1]
        elif len(cells) == 2:
            kept["memory"][cells[0]] = cells[1]
    return kept


def kept_row(figure, previous):
    """The row of `figure` from the run before, when that run measured it."""
    row = previous["rows"].get(f"{figure.group}: {figure.label}")
    if row is None or row[5] == "not measured":
        return None
    return row


def figures_markdown(results, medians, spread, machine_rows, previous):
    parts = ["### Machine", "", table([("", "")] + machine_rows), ""]
    if any(r is None and kept_row(f, previous) for f, r in results):
        parts += [f"This run measured only some of the figures (TEZA_BENCH_FILTER); the rows "
                  f"it did not run keep the figures of the earlier run of "
                  f"{previous['date'] or 'an unknown date'} (with their notes).", ""]
    parts += ["### Ratios against their references", "",
              "Times are medians of the repetitions (CPU time for the in-process figures, "
              "wall-clock time for the ones that go to tezad); the noise column is the "
              "larger coefficient of variation of the two sides.", ""]
    rows = [("Figure", "Runtime side", "Reference", "Ratio", "Goal", "Result", "Noise")]
    missed = []
    for figure, r in results:
        if r is None:
            row = kept_row(figure, previous)
            if row is not None:
                rows.append(row)
                missed.append((figure, None))
                continue
            rows.append((f"{figure.group}: {figure.label}", "not run", "", "", goal_text(figure),
                         "not measured", ""))
            continue
        status = "met" if r["met"] else \
            ("**missed** (within noise)" if r["within_noise"] else "**missed**")
        if not r["met"]:
            missed.append((figure, r))
        noise = f"{100 * r['cv']:.0f} %" if r["cv"] is not None else ""
        rows.append((f"{figure.group}: {figure.label}",
                     shown(r["subject"], figure.metric, r["unit"]),
                     shown(r["reference"], figure.metric, r["unit"]),
                     f"{r['ratio']:.2f}×", goal_text(figure), status, noise))
    parts += [table(rows), ""]
    if missed:
        checks = medians.get("invocation/log_checks/six")
        notes = []
        for figure, r in missed:
            if r is None:  # kept from the run before, with its note if it had one
                prefix = f"- {figure.group}, {figure.label} ("
                notes += [n for n in previous["notes"] if n.startswith(prefix)]
                continue
            note = ""
            if figure.group == "Invocation" and checks is not None:
                cost = float(checks["cpu_time"]) * {"ns": 1, "us": 1e3, "ms": 1e6}[
                    checks["time_unit"]] / {"ns": 1, "us": 1e3, "ms": 1e6}[r["unit"]]
                share = cost / (r["subject"] - r["reference"])
                note = (f" (measured in this run: the six checks take "
                        f"{shown(cost, 'cpu_time', r['unit'])}, {100 * share:.0f} % of the "
                        f"difference; without them the ratio would be "
                        f"{(r['subject'] - cost) / r['reference']:.2f}×)")
            if figure.metric == "items_per_second":
                note = (f" (client CPU time per call in this run: librk "
                        f"{shown(r['subject_cpu'], 'cpu_time', r['unit'])}, bare libcurl "
                        f"{shown(r['reference_cpu'], 'cpu_time', r['unit'])})")
            if r["within_noise"]:
                note += (f"; the miss is smaller than the spread of the repetitions "
                         f"({100 * r['cv']:.0f} %), so this run cannot tell it from a pass")
            notes.append(f"- {figure.group}, {figure.label} ({r['ratio']:.2f}× against "
                         f"{goal_text(figure)}): {figure.limit}{note}.")
        if notes:
            parts += ["Goals missed, and what limits them:", ""] + notes + [""]
    parts += ["### Memory", "", "Counted in a program of their own that counts every call of "
              "malloc, calloc, realloc and the aligned allocators of the process; heap bytes "
              "are mallinfo2's bytes in use. No goal was set for these.", ""]
    rows = [("Figure", "Value")]
    for label, name, counter, unit in MEMORY:
        b = medians.get(name)
        if b is None or counter not in b:
            rows.append((label, previous["memory"].get(label, "not measured")))
        else:
            rows.append((label, f"{float(b[counter]):,.1f}{unit}"))
    parts += [table(rows), "", "![Ratios against their goals](performance.svg)", ""]
    return "\n".join(parts)


def chart(results, previous):
    """Bars of goal attainment: 1 is the goal, longer is better, on a log scale."""
    import math

    rows = []
    for f, r in results:
        if r is None and kept_row(f, previous) is not None:
            row = kept_row(f, previous)
            r = {"ratio": float(row[3].rstrip("×")), "met": row[5] == "met"}
        if r is not None:
            rows.append((f, r))
    width, left, bar_h, gap, top = 980, 420, 18, 10, 50
    height = top + len(rows) * (bar_h + gap) + 40
    lo, hi = math.log10(0.05), math.log10(20)
    span = width - left - 120

    def x(v):
        v = min(max(v, 10 ** lo), 10 ** hi)
        return left + (math.log10(v) - lo) / (hi - lo) * span

    out = [f'<svg xmlns="http://www.w3.org/2000/svg" width="{width}" height="{height}" '
           f'viewBox="0 0 {width} {height}" font-family="sans-serif" font-size="12">',
           f'<rect width="{width}" height="{height}" fill="white"/>',
           '<text x="10" y="20" font-size="14" font-weight="bold">Each figure against its goal '
           '(goal attainment, log scale: 1 = goal, right of the line = met)</text>']
    for tick in (0.1, 0.2, 0.5, 1, 2, 5, 10):
        out.append(f'<line x1="{x(tick):.1f}" y1="{top - 8}" x2="{x(tick):.1f}" '
                   f'y2="{height - 30}" stroke="{"#000" if tick == 1 else "#ddd"}" '
                   f'stroke-width="{2 if tick == 1 else 1}"/>')
        out.append(f'<text x="{x(tick):.1f}" y="{height - 14}" text-anchor="middle">'
                   f'{tick:g}</text>')
    for i, (figure, r) in enumerate(rows):
        y = top + i * (bar_h + gap)
        attainment = figure.goal / r["ratio"] if figure.kind == "slower" else \
            r["ratio"] / figure.goal
        colour = "#2e7d32" if r["met"] else "#c62828"
        x0, x1 = x(1), x(attainment)
        out.append(f'<text x="{left - 8}" y="{y + 13}" text-anchor="end">'
                   f'{escape(figure.group + ": " + figure.label)}</text>')
        out.append(f'<rect x="{min(x0, x1):.1f}" y="{y}" width="{abs(x1 - x0):.1f}" '
                   f'height="{bar_h}" fill="{colour}"/>')
        out.append(f'<text x="{max(x0, x1) + 6:.1f}" y="{y + 13}">{r["ratio"]:.2f}× '
                   f'(goal {escape(goal_text(figure))})</text>')
    out.append("</svg>")
    return "\n".join(out) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--build-dir", default=os.path.join(ROOT, "build-bench"))
    parser.add_argument("--repetitions", default="?")
    parser.add_argument("json", nargs="+")
    args = parser.parse_args()

    medians, spread, context = load(args.json)
    results = [(f, evaluate(f, medians, spread)) for f in FIGURES]
    with open(DOC) as f:
        doc = f.read()
    # A filtered run (TEZA_BENCH_FILTER) rewrites the figures it measured and keeps the others.
    previous = previous_block(doc)
    block = figures_markdown(results, medians, spread,
                             machine(args.build_dir, context, args.repetitions), previous)

    start, end = doc.find(BEGIN), doc.find(END)
    if start < 0 or end < start:
        raise SystemExit(f"{DOC}: the markers of the generated block are missing")
    doc = doc[:start + len(BEGIN)] + "\n\n" + block + "\n" + doc[end:]
    with open(DOC, "w") as f:
        f.write(doc)
    with open(CHART, "w") as f:
        f.write(chart(results, previous))
    for figure, r in results:
        state = "not measured" if r is None else \
            f"{r['ratio']:.2f}x {'met' if r['met'] else 'MISSED'}"
        print(f"{figure.group}: {figure.label}: {state} (goal {goal_text(figure)})")
    print(f"wrote {DOC} and {CHART}")


if __name__ == "__main__":
    sys.exit(main())
