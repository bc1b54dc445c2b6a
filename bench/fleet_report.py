#!/usr/bin/env python3
"""Writes the fleet and compression figures of teza_bench_fleet's JSON into their own block of
docs/performance.md (between the FLEET FIGURES markers); the rest of the page is left as it is.

    bench/fleet_report.py fleet.json
"""

import datetime
import json
import os
import sys

ROOT = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
DOC = os.path.join(ROOT, "docs", "performance.md")
BEGIN = "<!-- BEGIN FLEET FIGURES: written by scripts/bench, do not edit by hand -->"
END = "<!-- END FLEET FIGURES -->"
GOAL_SECONDS = 0.5  # 1,000 servers, one call each, at 32 workers
GOAL_WORKERS = 32
GOAL_WIRE_RATIO = 0.25  # gzip body bytes against plain ones


def load_average():
    try:
        with open("/proc/loadavg", encoding="utf-8") as f:
            return f.read().split()[0]
    except OSError:
        return "?"


def block(data):
    servers = data["servers"]
    lines = [BEGIN, ""]
    lines.append(
        "Measured %s on %d cores, load average %s when the report was written, by "
        "`teza_bench_fleet` (Release build; each worker count in a client process of its own, "
        "%d rounds, median round reported):"
        % (datetime.date.today().isoformat(), os.cpu_count() or 0, load_average(),
           len(data["fleet"][0]["seconds"])))
    lines.append("")
    lines.append("| %s servers, one call each | Wall time | Calls/s | Peak RSS (client) | "
                 "Connections opened per round | Goal | Result |" % format(servers, ","))
    lines.append("|---|---|---|---|---|---|---|")
    for row in data["fleet"]:
        seconds = row["median_seconds"]
        opened = row["handles_opened"]
        goal, result = "-", "-"
        if row["workers"] == GOAL_WORKERS and servers == 1000:
            goal = "≤ %.1f s" % GOAL_SECONDS
            result = "met" if seconds <= GOAL_SECONDS else "**missed**"
        if row["failed"]:
            result += " (%d calls failed)" % row["failed"]
        lines.append("| %d workers | %.3f s (rounds %s) | %s | %.1f MiB | %s | %s | %s |" % (
            row["workers"], seconds, ", ".join("%.3f" % s for s in row["seconds"]),
            format(int(servers / seconds), ","), row["peak_rss_kb"] / 1024.0,
            format(int(sorted(opened)[len(opened) // 2]), ","), goal, result))
    c = data["compression"]
    ratio = c["gzip_body_bytes"] / float(c["plain_body_bytes"])
    lines.append("")
    lines.append("| A list of %s nested records (`batch-get`) | Body on the wire | Time per call "
                 "| Goal | Result |" % format(c["records"], ","))
    lines.append("|---|---|---|---|---|")
    lines.append("| plain | %s bytes | %.1f ms | | |" % (format(c["plain_body_bytes"], ","),
                                                       c["plain_ms_per_call"]))
    lines.append("| gzip (tezad `--gzip-above 4096`, librk decoding) | %s bytes (%.3f×) | "
                 "%.1f ms (%.2f×) | wire ≤ %.2f× | %s |" % (
                     format(c["gzip_body_bytes"], ","), ratio, c["gzip_ms_per_call"],
                     c["gzip_ms_per_call"] / c["plain_ms_per_call"], GOAL_WIRE_RATIO,
                     "met" if ratio <= GOAL_WIRE_RATIO else "**missed**"))
    lines.append("")
    lines.append(END)
    return "\n".join(lines)


def main():
    with open(sys.argv[1], encoding="utf-8") as f:
        data = json.load(f)
    with open(DOC, encoding="utf-8") as f:
        text = f.read()
    start, end = text.find(BEGIN), text.find(END)
    if start < 0 or end < 0:
        sys.exit("docs/performance.md has no FLEET FIGURES block")
    text = text[:start] + block(data) + text[end + len(END):]
    with open(DOC, "w", encoding="utf-8") as f:
        f.write(text)
    print("wrote the fleet figures into %s" % DOC)


if __name__ == "__main__":
    main()
