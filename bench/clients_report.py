#!/usr/bin/env python3
"""Writes the client comparison's figures (teza_bench_clients run) into docs/performance.md.

Reads the JSON lines of one run and replaces the block between the CLIENT COMPARISON markers
of docs/performance.md (the block is added at the end of the page the first time). Each ratio
is taken within one round, whose sides ran one after the other in shuffled order; the table
gives the median over the rounds and their range.
"""

import argparse
import json
import os
import platform
import re
import statistics
import subprocess
import sys

BEGIN = "<!-- BEGIN CLIENT COMPARISON: written by scripts/bench, do not edit by hand -->"
END = "<!-- END CLIENT COMPARISON -->"

SIDES = [
    ("runtime", "generated interface → runtime → librk → tezad"),
    ("librk", "bare librk → tezad"),
    ("curl", "bare libcurl → tezad"),
    ("grpc", "gRPC C++ sync unary (reference)"),
]


def load(path):
    runs = []
    with open(path, encoding="utf-8") as f:
        for line in f:
            line = line.strip()
            if line:
                runs.append(json.loads(line))
    return runs


def rounds_of(runs):
    """Splits the runs into rounds: every round ends with its big-hand run."""
    rounds, current = [], []
    for run in runs:
        if run["side"] == "machine":
            continue
        current.append(run)
        if run["side"] == "big-hand":
            rounds.append(current)
            current = []
    if current:
        rounds.append(current)
    return rounds


def find(round_runs, side, threads=None):
    for run in round_runs:
        if run["side"] == side and (threads is None or run.get("threads") == threads):
            return run
    return None


def fmt(value, digits=0):
    if value is None:
        return "–"
    if digits == 0:
        return f"{value:,.0f}"
    return f"{value:,.{digits}f}"


def spread(values, digits=0, unit=""):
    values = [v for v in values if v is not None]
    if not values:
        return "–"
    mid = statistics.median(values)
    if len(values) == 1:
        return f"{fmt(mid, digits)}{unit}"
    return f"{fmt(mid, digits)}{unit} ({fmt(min(values), digits)}–{fmt(max(values), digits)})"


def machine_rows(machine):
    cpu = "unknown"
    try:
        with open("/proc/cpuinfo", encoding="utf-8") as f:
            for line in f:
                if line.startswith("model name"):
                    cpu = line.split(":", 1)[1].strip()
                    break
    except OSError:
        pass
    try:
        grpc = subprocess.run(["pkg-config", "--modversion", "grpc++"], capture_output=True,
                              text=True, check=False).stdout.strip() or "not installed"
    except OSError:
        grpc = "not installed"
    machine = machine or {}
    return [
        ("Date", machine.get("date", "unknown")),
        ("CPU", f"{cpu}, {os.cpu_count()} cores as seen by the system"),
        ("Kernel", platform.release()),
        ("gRPC", grpc),
        ("Load average at the start and at the end",
         f"{machine.get('load_start', '?')}; {machine.get('load_end', '?')}"),
    ]


def ratio_rows(rounds, numerator, denominator, key, threads, adjust=None):
    ratios = []
    for r in rounds:
        a, b = find(r, numerator, threads), find(r, denominator, threads)
        if a is None or b is None or not b[key]:
            continue
        value = a[key]
        if adjust is not None:
            value = adjust(r, value)
        ratios.append(value / b[key])
    return ratios


def without_checks(round_runs, cpu):
    checks = find(round_runs, "logchecks")
    return cpu - (checks["cpu_us_per_call"] if checks else 0.0)


def verdict(ratios, goal, lower_is_better=True):
    if not ratios:
        return "not measured"
    mid = statistics.median(ratios)
    met = mid <= goal if lower_is_better else mid >= goal
    return "met" if met else "**missed**"


def render(runs, calls, notes):
    rounds = rounds_of(runs)
    out = [BEGIN, ""]
    out.append("### Machine")
    out.append("")
    out.append("|  |  |")
    out.append("|---|---|")
    for name, value in machine_rows(find(runs, "machine")):
        out.append(f"| {name} | {value} |")
    out.append(f"| Rounds | {len(rounds)}, sides in shuffled order within each |")
    out.append(f"| Calls per run | {calls:,}, after 200 untimed calls per thread |")
    out.append("")
    out.append("### Calls")
    out.append("")
    out.append("Medians over the rounds, their range in brackets. CPU is the client process's "
               "user + system time (getrusage, all its threads) per call.")
    out.append("")
    out.append("| Side | Client threads | p50 µs | p99 µs | calls/s | client CPU µs per call |")
    out.append("|---|---|---|---|---|---|")
    for side, label in SIDES:
        for threads in (1, 2):
            found = [find(r, side, threads) for r in rounds]
            found = [f for f in found if f]
            if not found:
                continue
            out.append(
                f"| {label} | {threads} | "
                f"{spread([f['p50_us'] for f in found])} | "
                f"{spread([f['p99_us'] for f in found])} | "
                f"{spread([f['calls_per_s'] for f in found])} | "
                f"{spread([f['cpu_us_per_call'] for f in found], 1)} |")
    checks = [find(r, "logchecks") for r in rounds]
    checks = [c for c in checks if c]
    if checks:
        out.append(
            f"| the runtime's eight existence checks of the log file, measured apart (part of "
            f"the runtime's rows) | 1 | – | – | – | "
            f"{spread([c['cpu_us_per_call'] for c in checks], 1)} |")
    out.append("")
    out.append("### Goals")
    out.append("")
    out.append("Ratios taken within each round, median and range over the rounds.")
    out.append("")
    out.append("| Figure | Ratio | Goal | Result |")
    out.append("|---|---|---|---|")
    for threads in (1, 2):
        for key, what in (("cpu_us_per_call", "client CPU"), ("p50_us", "p50")):
            ratios = ratio_rows(rounds, "runtime", "grpc", key, threads)
            out.append(f"| typed call against gRPC, {what}, {threads} thread"
                       f"{'s' if threads > 1 else ''} | {spread(ratios, 2, '×')} | ≤ 1.0× | "
                       f"{verdict(ratios, 1.0)} |")
    for threads in (1, 2):
        ratios = ratio_rows(rounds, "runtime", "librk", "cpu_us_per_call", threads,
                            adjust=without_checks)
        out.append(f"| the runtime's share: client CPU against bare librk, log-file checks "
                   f"counted out, {threads} thread{'s' if threads > 1 else ''} | "
                   f"{spread(ratios, 2, '×')} | ≤ 1.10× | {verdict(ratios, 1.10)} |")
    for threads in (1, 2):
        ratios = ratio_rows(rounds, "librk", "curl", "cpu_us_per_call", threads)
        out.append(f"| librk against bare libcurl, client CPU, {threads} thread"
                   f"{'s' if threads > 1 else ''} | {spread(ratios, 2, '×')} | ≤ 1.0× | "
                   f"{verdict(ratios, 1.0)} |")
    big = [find(r, "big-runtime") for r in rounds]
    big = [b for b in big if b]
    hand = [find(r, "big-hand") for r in rounds]
    hand = [h for h in hand if h]
    if big:
        volumes = big[0]["volumes"]
        ms = [b["ms_per_call"] for b in big]
        rss = [b["peak_rss_mb"] for b in big]
        out.append(f"| big answer ({volumes:,} volumes) through the generated interface, "
                   f"time per call | {spread(ms, 0, ' ms')} | ≤ 150 ms | "
                   f"{verdict(ms, 150)} |")
        out.append(f"| the same, the client's CPU time per call | "
                   f"{spread([b['cpu_ms_per_call'] for b in big], 0, ' ms')} | – | – |")
        out.append(f"| the same, peak RSS of the client process | {spread(rss, 0, ' MB')} | "
                   f"< 100 MB | {verdict(rss, 100)} |")
    preloaded = [find(r, "big-runtime-preloaded") for r in rounds]
    preloaded = [p for p in preloaded if p]
    if preloaded:
        name = preloaded[0].get("preloaded", "another malloc")
        out.append(f"| the same through the generated interface with {name} preloaded "
                   f"(LD_PRELOAD), time per call | "
                   f"{spread([p['ms_per_call'] for p in preloaded], 0, ' ms')} | – | – |")
        out.append(f"| the same with {name}, the client's CPU time per call and peak RSS | "
                   f"{spread([p['cpu_ms_per_call'] for p in preloaded], 0, ' ms')}; "
                   f"{spread([p['peak_rss_mb'] for p in preloaded], 0, ' MB')} | – | – |")
    if hand:
        out.append(f"| the same answer read by hand-written rk_ code into structs, time per "
                   f"call (reference) | {spread([h['ms_per_call'] for h in hand], 0, ' ms')} | "
                   f"– | – |")
        out.append(f"| the same, the client's CPU time per call (reference) | "
                   f"{spread([h['cpu_ms_per_call'] for h in hand], 0, ' ms')} | – | – |")
        out.append(f"| the same, peak RSS (reference) | "
                   f"{spread([h['peak_rss_mb'] for h in hand], 0, ' MB')} | – | – |")
    out.append("")
    out.append("The mapping goals (10,000 nested records read ≤ 2×, the 20-field record ≤ 1.3×) "
               "are the mapping rows of the table above.")
    out.append("")
    for note in notes:
        out.append(note)
    out.append(END)
    return "\n".join(out) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("results", help="JSON lines of teza_bench_clients run")
    parser.add_argument("--calls", type=int, default=20000)
    parser.add_argument("--doc", default=os.path.join(os.path.dirname(__file__), "..", "docs",
                                                      "performance.md"))
    parser.add_argument("--note", action="append", default=[],
                        help="a paragraph to add under the tables")
    args = parser.parse_args()
    block = render(load(args.results), args.calls, args.note)
    with open(args.doc, encoding="utf-8") as f:
        text = f.read()
    if BEGIN in text and END in text:
        text = re.sub(re.escape(BEGIN) + ".*?" + re.escape(END) + "\n?", lambda _: block, text,
                      flags=re.S)
    else:
        text = text.rstrip("\n") + "\n\n" + block
    with open(args.doc, "w", encoding="utf-8") as f:
        f.write(text)
    print(f"wrote the client comparison into {args.doc}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
