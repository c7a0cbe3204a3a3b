#!/usr/bin/env python3
"""Renders docs/performance.md and its growth plot from the CSV of a
flatmorph_bench run.

Usage: report.py CSV OUT_DIR [--seconds N] [--arguments "ARGS"]

Written by hand and carried over from the committed docs/performance.md: the
annotated assembly listing (between its markers) and the one-line reasons in
the list of losing cases. docs/performance-python.md, if present, is included
as it stands.
"""
import argparse
import csv
import datetime
import math
import os
import re
import subprocess
from collections import defaultdict

REPO = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
COMMITTED = os.path.join(REPO, "docs", "performance.md")
PYTHON_SECTION = os.path.join(REPO, "docs", "performance-python.md")
PLOT = "performance-growth.png"
FILTERS = ["imdilate", "imerode", "imopen", "imclose", "imtophat", "imbothat"]
TAGS = ["none", "avx", "avx2"]
# The all-round cases the goals are judged on; the other sizes and filters are reported.
JUDGED_SIDES, JUDGED_FILTERS = (512, 4096), ("imdilate", "imtophat")
# Growth goals at the large side: (smaller mask, larger mask, most our time may grow).
GROWTH_GOALS = [("rect3", "rect31", 4), ("line3h", "line31h", 4), ("line3v", "line31v", 4), ("disk7", "disk31", 8)]
GROWTH_SHAPES = [("rect", "", "squares"), ("disk", "", "disks"), ("line", "h", "horizontal lines"),
                 ("line", "v", "vertical lines")]
GNUPLOT = """
set terminal pngcairo size 1600,450 font ",10"
set output output
set multiplot layout 1,4 title "imdilate, time per call against the mask side: ".subtitle
set xlabel "mask side"; set ylabel "ms per call"; set key top left; set grid; set logscale xy
do for [i = 0:3] { set title word(titles, i + 1); plot data index i using 1:2 with linespoints pt 7 \
    title "flatmorph", data index i using 1:3 with linespoints pt 5 title "OpenCV" }
"""


# ---- data -------------------------------------------------------------------

def read_rows(path):
    rows = []
    with open(path, newline="") as f:
        for r in csv.DictReader(f):
            for key in ("side", "active", "threads", "ours_samples", "opencv_samples", "rim_differences"):
                r[key] = int(r[key])
            for key in ("ours_ms", "opencv_ms", "floor_ms"):
                r[key] = float(r[key]) if r[key] else None
            r["ratio"] = r["ours_ms"] / r["opencv_ms"] if r["ours_ms"] else None
            rows.append(r)
    return rows


def key(r):
    return r["filter"], r["type"], r["side"], r["mask"], r["tag"], r["threads"]


def study(rows, name, tag=None):
    return [r for r in rows if r["study"] == name and (tag is None or r["tag"] == tag)]


def in_order(values, order=()):
    """The distinct values, those in `order` first in its order, the others as they come."""
    values = list(dict.fromkeys(values))
    return sorted(values, key=lambda v: order.index(v) if v in order else len(order) + values.index(v))


def geomean(values):
    values = [v for v in values if v]
    return math.exp(sum(map(math.log, values)) / len(values)) if values else None


# ---- Markdown ---------------------------------------------------------------

def ms(v):
    return "-" if v is None else f"{v:.3f}" if v < 10 else f"{v:.1f}"


def x(v):
    return "-" if v is None else f"{v:.2f}"


def table(header, lines):
    out = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    return "\n".join(out + ["| " + " | ".join(str(c) for c in line) + " |" for line in lines])


def marked(name, body):
    return f"<!-- {name}: begin -->\n{body}\n<!-- {name}: end -->"


def block_of(text, name):
    match = re.search(f"<!-- {name}: begin -->\n(.*?)\n?<!-- {name}: end -->", text, re.S)
    return match.group(1) if match else None


def threads_label(n):
    return f"{n} thread{'s' if n > 1 else ''}"


def case_label(r):
    return f"{threads_label(r['threads'])}, {r['type']} {r['side']} x {r['side']} {r['mask']} {r['filter']}"


# ---- sections ---------------------------------------------------------------

def summary_section(allround, growth):
    if not allround:
        return "_No `allround` study in this run._"
    sides = sorted({r["side"] for r in allround})
    lines = []
    for n in sorted({r["threads"] for r in allround}):
        mine = [r for r in allround if r["threads"] == n and r["ratio"]]
        judged = [r for r in mine if r["side"] in JUDGED_SIDES and r["filter"] in JUDGED_FILTERS]
        worst = max(judged or mine, key=lambda r: r["ratio"])
        lines.append([threads_label(n), f"**{x(geomean(r['ratio'] for r in judged))}**",
                      f"{x(worst['ratio'])} ({worst['type']} {worst['side']} {worst['mask']} {worst['filter']})",
                      sum(r["ratio"] > 1 for r in judged), sum(r["ratio"] > 1 for r in mine),
                      *(x(geomean(r["ratio"] for r in mine if r["side"] == s)) for s in sides)])
    text = ("Ours / OpenCV on the all-round set (tag " + allround[0]["tag"] + "). Judged: sizes "
            f"{' and '.join(map(str, JUDGED_SIDES))}, filters {' and '.join(JUDGED_FILTERS)}, every type and "
            "mask; goals: at 1 thread no ratio above 1 and a geomean of at most 0.6, at 2 threads a geomean of at "
            "most 0.4. The geomeans by size take every filter.\n\n"
            + table(["threads", "geomean, judged", "worst, judged", "judged cases lost", "all cases lost",
                     *(f"geomean {s}" for s in sides)], lines))
    return text + "\n\n" + growth_goals(growth)


def growth_goals(growth):
    by_mask = {r["mask"]: r for r in growth}
    lines = [[f"{small} to {large}", x(by_mask[large]["ours_ms"] / by_mask[small]["ours_ms"]),
              x(by_mask[large]["opencv_ms"] / by_mask[small]["opencv_ms"]), f"at most {goal}"]
             for small, large, goal in GROWTH_GOALS
             if by_mask.get(small, {}).get("ours_ms") and by_mask.get(large, {}).get("ours_ms")]
    if not lines:
        return "_No growth ratios: this run has no `growth` study._"
    g = growth[0]
    return (f"Growth with the mask: time with the larger mask / time with the smaller, imdilate {g['type']}, "
            f"{g['side']} x {g['side']}, {threads_label(g['threads'])}:\n\n"
            + table(["masks", "ours", "OpenCV", "goal for ours"], lines))


def acceptance_section(acceptance):
    if not acceptance:
        return "_No `acceptance` study in this run._"
    tags = in_order((r["tag"] for r in acceptance), TAGS)
    best = [r for r in acceptance if r["tag"] == tags[-1]]
    lines = [[r["type"], r["mask"], r["filter"], ms(r["ours_ms"]), ms(r["opencv_ms"]), x(r["ratio"])] for r in best]
    lines.append(["**geomean**", "", "", "", "", f"**{x(geomean(r['ratio'] for r in best))}**"])
    types = in_order(r["type"] for r in acceptance)
    by_tag = [[tag, *(x(geomean(r["ratio"] for r in acceptance if r["tag"] == tag and r["type"] == t))
                      for t in types), x(geomean(r["ratio"] for r in acceptance if r["tag"] == tag))]
              for tag in tags]
    r0 = acceptance[0]
    return (f"The cases the first acceptance report was judged on, kept to check that nothing is lost on the "
            f"way: {r0['side']} x {r0['side']}, {threads_label(r0['threads'])}, tag {tags[-1]}:\n\n"
            + table(["type", "mask", "filter", "ours ms", "OpenCV ms", "ours / OpenCV"], lines)
            + "\n\nThe same cases on every tag (ours / OpenCV, geomean), to check that every tag gains:\n\n"
            + table(["tag", *types, "all"], by_tag))


def allround_section(allround, tags):
    out = []
    best = [r for r in allround if r["tag"] == tags[-1]]
    filters = in_order((r["filter"] for r in best), FILTERS)
    types, masks = in_order(r["type"] for r in best), in_order(r["mask"] for r in best)
    cases = {key(r): r for r in best}
    for side in sorted({r["side"] for r in best}):
        for n in sorted({r["threads"] for r in best}):
            lines = []
            for t in types:
                for m in masks:
                    row = [cases.get((f, t, side, m, tags[-1], n)) for f in filters]
                    if any(row):
                        cells = ["-" if not r or r["ours_ms"] is None
                                 else f"{ms(r['ours_ms'])} / {ms(r['opencv_ms'])} ({x(r['ratio'])})" for r in row]
                        lines.append([t, m, *cells, ms(next(r for r in row if r)["floor_ms"])])
            out.append(f"**{side} x {side}, tag {tags[-1]}, {threads_label(n)}** (ours ms / OpenCV ms (ratio); "
                       "floor: the memory floor)\n\n" + table(["type", "mask", *filters, "floor ms"], lines))
    if len(tags) > 1:
        groups = defaultdict(lambda: defaultdict(list))
        for r in allround:
            groups[(r["type"], r["side"], r["threads"])][r["tag"]].append(r["ratio"])
        lines = [[*k, *(x(geomean(g[tag])) for tag in tags)] for k, g in groups.items()]
        out.append("Ours / OpenCV by tag (geomean over masks and filters):\n\n"
                   + table(["type", "side", "threads", *tags], lines))
    return "\n\n".join(out) if out else "_No `allround` study in this run._"


def losses_section(allround, old_doc):
    """The losing cases as a list, each with its one-line reason carried over from the committed report."""
    why = dict(re.findall(r"^- (.*?): [0-9.]+; why: (.*)$", block_of(old_doc, "losses") or "", re.M))
    lost = sorted((r for r in allround if r["ratio"] and r["ratio"] > 1), key=lambda r: (r["threads"], -r["ratio"]))
    lines = [f"- {case_label(r)}: {r['ratio']:.2f}; why: {why.get(case_label(r), '?')}" for r in lost]
    return ("Every all-round case where ours / OpenCV is above 1, slowest first, with a one-line reason (written "
            "by hand in this file; `scripts/bench` keeps it for a case that still loses).\n\n"
            + marked("losses", "\n".join(lines) or "None: no case is slower than OpenCV."))


def growth_section(growth, out_dir):
    if not growth:
        return "_No `growth` study in this run._"
    g = growth[0]
    label = f"{g['type']}, {g['side']} x {g['side']}, tag {g['tag']}, {threads_label(g['threads'])}"
    by_mask = {r["mask"]: r for r in growth}
    sides = sorted({int(re.search(r"\d+", r["mask"]).group()) for r in growth})
    data = os.path.join(out_dir, PLOT + ".dat")
    with open(data, "w") as f:
        for shape, suffix, _ in GROWTH_SHAPES:
            for n in sides:
                r = by_mask.get(f"{shape}{n}{suffix}")
                if r:
                    f.write(f"{n} {r['ours_ms'] or 'NaN'} {r['opencv_ms']}\n")
            f.write("\n\n")
    titles = " ".join(f'"{title}"' for *_, title in GROWTH_SHAPES)
    subprocess.run(["gnuplot", "-e", f"data='{data}'; output='{os.path.join(out_dir, PLOT)}'; subtitle='{label}'; "
                    f"titles='{titles}'", "-"], input=GNUPLOT, text=True, check=True)
    os.remove(data)
    lines = [[n, *(" / ".join(ms(by_mask.get(f"{shape}{n}{suffix}", {}).get(k)) for k in ("ours_ms", "opencv_ms"))
                   for shape, suffix, _ in GROWTH_SHAPES)] for n in sides]
    return (f"imdilate {label}; log-log, so a slope of 1 is growth with the side and 2 with the area:\n\n"
            f"![time against the mask side]({PLOT})\n\n"
            + table(["side", *(f"{title}: ours / OpenCV ms" for *_, title in GROWTH_SHAPES)], lines))


def speedup_section(allround, tags):
    groups = defaultdict(lambda: ([], [], []))
    cases = {key(r): r for r in allround if r["tag"] == tags[-1]}
    for (f, t, side, m, tag, n), one in cases.items():
        two = cases.get((f, t, side, m, tag, 2))
        if n == 1 and two:
            ours, theirs, floor = groups[(side, t)]
            ours.append(one["ours_ms"] / two["ours_ms"] if one["ours_ms"] and two["ours_ms"] else None)
            theirs.append(one["opencv_ms"] / two["opencv_ms"])
            floor.append(one["floor_ms"] / two["floor_ms"])
    if not groups:
        return "_This run did not measure 1 and 2 threads on the same cases._"
    lines = [[side, t, *(x(geomean(v)) for v in g)] for (side, t), g in sorted(groups.items(), key=lambda kv: kv[0][0])]
    return ("Time with 1 thread / time with 2 threads, tag " + tags[-1] + ", geomean over masks and filters:\n\n"
            + table(["side", "type", "ours", "OpenCV", "memory floor"], lines))


def agreement_section(rows):
    counts = defaultdict(lambda: [0, 0])
    for r in rows:
        if r["check"] == "ok":
            counts[r["filter"]][0] += 1
            counts[r["filter"]][1] += r["rim_differences"] > 0
    text = ("Outputs equal to OpenCV's at least a mask size away from the border, and how many of them differ "
            "nearer it:\n\n" + table(["filter", "equal away from the border", "of which differ near it"],
                                     [[f, *counts[f]] for f in in_order(counts, FILTERS)])
            + "\n\nNear the border our `imclose` and `imbothat` differ by design: their erosion runs over an "
            "intermediate image that extends beyond the image and holds the dilation of the image and the low pad "
            "there, where OpenCV's erosion sees its neutral border.")
    bad = [r for r in rows if r["check"] != "ok"]
    if bad:
        text += ("\n\nThese outputs differed from OpenCV's away from the border, and were not timed:\n\n"
                 + table(["study", "case", "tag", "difference"], [[r["study"], case_label(r), r["tag"], r["check"]]
                                                                  for r in bad]))
    return text


# ---- the document -------------------------------------------------------------

def machine():
    model = next((line.split(":", 1)[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")),
                 "unknown processor")
    version = subprocess.run(["pkg-config", "--modversion", "opencv4"], capture_output=True, text=True).stdout
    return f"{model} ({os.cpu_count()} cores), OpenCV {version.strip() or 'unknown'}"


def document(rows, old_doc, out_dir, seconds, arguments):
    allround, growth = study(rows, "allround"), study(rows, "growth")
    tags = in_order((r["tag"] for r in allround), TAGS) or ["avx2"]
    load = open("/proc/loadavg").read().split()[:3]
    python = open(PYTHON_SECTION).read().strip() if os.path.exists(PYTHON_SECTION) else None
    parts = [
        "# Performance",
        f"Generated by `scripts/bench{' ' + arguments if arguments else ''}` on {datetime.date.today()} on "
        f"{machine()}, in {seconds / 60:.0f} min; load average at the end {' / '.join(load)} (1, 5, 15 min: "
        "the machine may have been shared, which shows as noise). Every measurement is in "
        "[performance.csv](performance.csv). Regenerate with `scripts/bench`, or try the harness with "
        "`scripts/bench --quick` (written to `build-bench/quick/`); `build-bench/bench/flatmorph_bench --help` "
        "lists every option.",
        "## How it is measured",
        "`bench/flatmorph_bench` times our variants and OpenCV's `cv::dilate`, `cv::erode` and "
        "`cv::morphologyEx` on the same image and mask with the same number of threads: `cv::setNumThreads(n)` "
        "for OpenCV and a `tbb::global_control` limit of n for ours. OpenCV 4.6 runs these filters on the "
        "calling thread whatever the count (its speed-up below stays near 1).\n\n"
        "- Images are square uniform noise with a fixed seed.\n"
        "- The mask is OpenCV's kernel as it stands with our origin ((s + 1) >> 1) - 1 as the anchor; all masks "
        "have odd sides and are point-symmetric, so our reflected dilation and OpenCV's unreflected one read the "
        "same samples. Borders are neutral on both sides.\n"
        "- Before timing, each of our outputs is checked bit for bit against OpenCV's at least a mask size away "
        "from the border; only outputs that agree are timed (see [Agreement with OpenCV](#agreement-with-opencv)).\n"
        "- Both contenders are timed side by side: after one warm-up call each, they take one sample in turn, "
        "at least 5 each (3 where a round takes over 0.2 s) and until the time budget is spent; a short call is "
        "repeated within a sample. The figure is the median per call.\n"
        "- The memory floor is the best copy of the image into another buffer, rows shared among the same "
        "threads: what any filter that reads and writes the image once must pay. Images up to 1024 x 1024 can "
        "stay in the last-level cache, so their floor is a cache figure.\n"
        "- Ratios are ours / OpenCV: below 1 we are faster.",
        "## Summary",
        summary_section(allround, growth),
        "## Acceptance set",
        acceptance_section(study(rows, "acceptance")),
        "## All-round set",
        allround_section(allround, tags),
        "## Where we lose",
        losses_section(allround, old_doc),
        "## Growth with the mask",
        growth_section(growth, out_dir),
        "## Parallel speed-up",
        speedup_section(allround, tags),
        "## Agreement with OpenCV",
        agreement_section(rows),
        *([python] if python and python.startswith("#") else ["## Python binding", python] if python else []),
        "## Interior loop",
        marked("assembly-listing", block_of(old_doc, "assembly-listing") or "_To be written by hand._"),
    ]
    return "\n\n".join(parts) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("csv")
    parser.add_argument("out_dir")
    parser.add_argument("--seconds", type=float, default=0, help="how long the run took")
    parser.add_argument("--arguments", default="", help="the options the run was given")
    args = parser.parse_args()
    old_doc = open(COMMITTED).read() if os.path.exists(COMMITTED) else ""
    text = document(read_rows(args.csv), old_doc, args.out_dir, args.seconds, args.arguments)
    with open(os.path.join(args.out_dir, "performance.md"), "w") as f:
        f.write(text)


if __name__ == "__main__":
    main()
