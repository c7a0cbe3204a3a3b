#!/usr/bin/env python3
"""Writes docs/performance.md and docs/performance-growth.png from the CSV of
a flatmorph_bench run.

Usage: make_report.py CSV DOCS_DIR [--seconds N] [--arguments "ARGS"]

Two blocks of an existing performance.md are carried over between their
markers: the annotated assembly listing, which is written by hand, and the
acceptance table, unless this run measured all of its cases.
"""
import argparse
import csv
import datetime
import os
import subprocess

from report_tables import (Key, agreement_section, cases_sections, geomean, index, ms, small_section,
                           speedup_section, table, times)

DOC = "performance.md"
PLOT = "performance-growth.png"
PLOT_SCRIPT = os.path.join(os.path.dirname(os.path.abspath(__file__)), "growth.gp")

# The cases the ratio to OpenCV is judged on.
ACCEPTANCE = dict(side=4096, tag="avx2", threads=2, types=["uint8", "float32"],
                  masks=["rect3", "rect5", "disk7", "line21h"], operations=["imdilate", "imopen", "imtophat"])


def read_rows(path):
    rows = []
    with open(path, newline="") as f:
        for r in csv.DictReader(f):
            for key in ("side", "active", "threads", "ours_samples", "opencv_samples", "rim_differences"):
                r[key] = int(r[key])
            for key in ("ours_ms", "opencv_ms", "ratio", "ours_mpix_s", "floor_ms"):
                r[key] = float(r[key]) if r[key] else None
            rows.append(r)
    return rows


# ---- marked blocks ---------------------------------------------------------

def marker(name, end=False):
    return f"<!-- {name}: {'end' if end else 'begin'} -->"


def block_of(text, name):
    """The lines between the markers of `name` in `text`, or None."""
    begin, end = marker(name), marker(name, end=True)
    if begin not in text or end not in text:
        return None
    return text.split(begin, 1)[1].split(end, 1)[0].strip("\n")


def marked(name, body):
    return f"{marker(name)}\n{body}\n{marker(name, end=True)}"


# ---- sections --------------------------------------------------------------

def acceptance_section(rows, old_doc, run_label):
    a = ACCEPTANCE
    cases = index(rows, "cases")
    wanted = [Key(op, t, a["side"], m, a["tag"], a["threads"])
              for t in a["types"] for m in a["masks"] for op in a["operations"]]
    found = [cases.get(k) for k in wanted]
    if all(r and r["ours_ms"] for r in found):
        lines = [[r["type"], r["mask"], r["operation"], ms(r["ours_ms"]), ms(r["opencv_ms"]), times(r["ratio"])]
                 for r in found]
        lines.append(["**geomean**", "", "", "", "", f"**{times(geomean(r['ratio'] for r in found))}**"])
        body = (f"Measured in the run of {run_label}.\n\n"
                + table(["type", "mask", "filter", "ours ms", "OpenCV ms", "ours / OpenCV"], lines))
    else:
        body = block_of(old_doc, "acceptance-table") or (
            "_Not measured yet: a full run (`scripts/bench`) on a quiet machine fills this table._")
    return marked("acceptance-table", body)


def assembly_section(old_doc):
    body = block_of(old_doc, "assembly-listing") or (
        "_To be written: the interior-loop assembly of `imdilate_uint8_avx2`, annotated line by line "
        "(one unaligned load and one fold per active mask element, the mask byte test as the only "
        "branch). This block is kept as it is by `scripts/bench`._")
    return marked("assembly-listing", body)


def growth_section(rows, docs_dir):
    growth = [r for r in rows if r["study"] == "growth"]
    if not growth:
        return "_No `growth` study in this run._"
    g0 = growth[0]
    label = f"imdilate {g0['type']}, {g0['side']} x {g0['side']}, tag {g0['tag']}, {g0['threads']} threads"
    plot_growth(growth, os.path.join(docs_dir, PLOT), label)
    squares = sorted((r for r in growth if r["mask"].startswith("rect")), key=lambda r: r["active"])
    pixels = g0["side"] ** 2
    lines = [[r["mask"], r["active"], ms(r["ours_ms"]), ms(r["opencv_ms"]), times(r["ratio"]),
              "-" if r["ours_ms"] is None else f"{r['ours_ms'] * 1e9 / (pixels * r['active']):.1f}"]
             for r in squares]
    return (f"Time against the number of active mask elements ({label}):\n\n"
            f"![time against active mask elements]({PLOT})\n\n"
            "Squares from 3 x 3 to 31 x 31:\n\n"
            + table(["mask", "active", "ours ms", "OpenCV ms", "ours / OpenCV", "ours ps per pixel and element"],
                    lines))


def plot_growth(growth, png, label):
    data = png + ".dat"
    with open(data, "w") as f:
        for prefix in ("rect", "disk", "line"):
            for r in sorted((r for r in growth if r["mask"].startswith(prefix)), key=lambda r: r["active"]):
                f.write(f"{r['active']} {r['ours_ms'] if r['ours_ms'] else 'NaN'} {r['opencv_ms']}\n")
            f.write("\n\n")
    subprocess.run(["gnuplot", "-e", f"data='{data}'; output='{png}'; subtitle='{label}'", PLOT_SCRIPT],
                   check=True)
    os.remove(data)


# ---- the document ------------------------------------------------------------

def cpu_model():
    with open("/proc/cpuinfo") as f:
        for line in f:
            if line.startswith("model name"):
                return line.split(":", 1)[1].strip()
    return "unknown processor"


def opencv_version():
    result = subprocess.run(["pkg-config", "--modversion", "opencv4"], capture_output=True, text=True)
    return result.stdout.strip() or "unknown"


def document(rows, old_doc, docs_dir, seconds, arguments):
    today = datetime.date.today().isoformat()
    run_label = f"{today} on {cpu_model()} ({os.cpu_count()} cores)"
    command = "scripts/bench" + (f" {arguments}" if arguments else "")
    duration = (f", which took {seconds / 60:.0f} min" if seconds >= 60 else f", which took {seconds:.0f} s") \
        if seconds else ""
    parts = [
        "# Performance",
        f"Generated by `{command}` on {run_label}, OpenCV {opencv_version()}{duration}. "
        "Regenerate with `scripts/bench` (the full run; give it a quiet machine) or `scripts/bench --quick` "
        "(a subset, to try the harness). Every measurement is in [performance.csv](performance.csv).",
        "## How it is measured",
        "`bench/flatmorph_bench` times our variants and OpenCV's `cv::dilate`, `cv::erode` and "
        "`cv::morphologyEx` (open, close, top-hat, black-hat) on the same image and mask, with the same number "
        "of threads: `cv::setNumThreads(n)` for OpenCV and a `tbb::global_control` of n for ours (both run on "
        "oneTBB). OpenCV 4.6 runs these filters on the calling thread alone, whatever `cv::setNumThreads` "
        "says (its speed-up below stays at 1), so with 2 threads our two meet its one.\n\n"
        "- Images are square, uniform noise with a fixed seed; `bool` is a 0/1 byte image, which OpenCV filters "
        "as `uint8`.\n"
        "- The mask is OpenCV's kernel as it stands, with our origin ((s + 1) >> 1) - 1 as the anchor. All masks "
        "have odd sides and are point-symmetric, so our reflected dilation and OpenCV's unreflected one read the "
        "same samples.\n"
        "- Borders are neutral on both sides: our low pad is the lowest value of the type and the high pad the "
        "highest; OpenCV gets a constant border of its default value, which each of its stages turns into its "
        "neutral value.\n"
        "- A measurement is the median per call of repeated calls after one warm-up call, within a time budget "
        "(at least 3 samples; short calls are repeated within a sample).\n"
        "- Our time is reported only when the output of our last timed call equals OpenCV's, bit for bit, at "
        "least a mask size away from the border. Nearer the border the samples that differ are counted "
        "(see [Agreement with OpenCV](#agreement-with-opencv)).\n"
        "- The memory floor is the best copy of the image into another buffer, its rows shared among the same "
        "threads: what any filter that reads and writes the image once must pay. A 1024 x 1024 image (1 to "
        "4 MB) can stay in the last-level cache, so its floor is a cache figure rather than a memory one.\n"
        "- The ratio is ours / OpenCV: below 1 we are faster.",
        "## Acceptance",
        f"{ACCEPTANCE['side']} x {ACCEPTANCE['side']}, tag {ACCEPTANCE['tag']}, {ACCEPTANCE['threads']} threads, "
        f"types {', '.join(ACCEPTANCE['types'])}, masks {', '.join(ACCEPTANCE['masks'])}, filters "
        f"{', '.join(ACCEPTANCE['operations'])}: ours / OpenCV and its geometric mean.",
        acceptance_section(rows, old_doc, run_label),
        "## Results",
        *cases_sections(rows),
        "## Growth with the mask",
        growth_section(rows, docs_dir),
        "## Parallel speed-up",
        speedup_section(rows),
        "## Two-stage allocation on small images",
        small_section(rows),
        "## Agreement with OpenCV",
        agreement_section(rows),
        "## Interior loop",
        "The hot loop of the library: the interior tiles of the wide path.",
        assembly_section(old_doc),
    ]
    return "\n\n".join(parts) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("csv")
    parser.add_argument("docs_dir")
    parser.add_argument("--seconds", type=float, default=0, help="how long the run took")
    parser.add_argument("--arguments", default="", help="the options the run was given")
    args = parser.parse_args()

    path = os.path.join(args.docs_dir, DOC)
    old_doc = open(path).read() if os.path.exists(path) else ""
    text = document(read_rows(args.csv), old_doc, args.docs_dir, args.seconds, args.arguments)
    with open(path, "w") as f:
        f.write(text)


if __name__ == "__main__":
    main()
