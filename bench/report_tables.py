"""Tables of a flatmorph_bench run for docs/performance.md, in Markdown."""
import math
from collections import defaultdict, namedtuple

FILTERS = ["imdilate", "imerode", "imopen", "imclose", "imtophat", "imbothat"]
TAGS = ["none", "avx", "avx2"]


def geomean(values):
    values = [v for v in values if v]
    return math.exp(sum(math.log(v) for v in values) / len(values)) if values else None


def ms(v):
    if v is None:
        return "-"
    return f"{v:.3f}" if v < 10 else f"{v:.1f}"


def us(v):
    return "-" if v is None else f"{v * 1e3:.1f}"


def times(v):
    return "-" if v is None else f"{v:.2f}"


def table(header, lines):
    out = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    out += ["| " + " | ".join(str(c) for c in line) + " |" for line in lines]
    return "\n".join(out)


Key = namedtuple("Key", "operation type side mask tag threads")


def index(rows, study):
    """Rows of one study by their Key."""
    return {Key(r["operation"], r["type"], r["side"], r["mask"], r["tag"], r["threads"]): r
            for r in rows if r["study"] == study}


def in_run_order(rows, column):
    return list(dict.fromkeys(r[column] for r in rows))


def ordered(values, order):
    return sorted(set(values), key=lambda v: order.index(v) if v in order else len(order))


def cases_sections(rows):
    cases = index(rows, "cases")
    if not cases:
        return ["_No `cases` study in this run._"]
    types, masks = in_run_order(cases.values(), "type"), in_run_order(cases.values(), "mask")
    operations = ordered((k.operation for k in cases), FILTERS)
    tags = ordered((k.tag for k in cases), TAGS)
    best = tags[-1]
    out = []
    for side in sorted({k.side for k in cases}):
        for threads in sorted({k.threads for k in cases}):
            lines = []
            for t in types:
                for m in masks:
                    cells = []
                    for op in operations:
                        r = cases.get(Key(op, t, side, m, best, threads))
                        cells.append("-" if not r or r["ours_ms"] is None
                                     else f"{ms(r['ours_ms'])} / {ms(r['opencv_ms'])} ({times(r['ratio'])})")
                    if any(c != "-" for c in cells):
                        floor = next(r["floor_ms"] for r in cases.values()
                                     if r["type"] == t and r["side"] == side and r["threads"] == threads)
                        lines.append([t, m, *cells, ms(floor)])
            if lines:
                out.append(f"**{side} x {side}, tag {best}, {threads} thread{'s' if threads > 1 else ''}** "
                           "(ours ms / OpenCV ms (ratio)):\n\n"
                           + table(["type", "mask", *operations, "floor ms"], lines))
    if len(tags) > 1:
        out.append(tags_table(cases, tags, types))
    return out


def tags_table(cases, tags, types):
    """Our time of each tag relative to the best one, geomean over masks and filters."""
    best = tags[-1]
    by_group = defaultdict(lambda: defaultdict(list))
    for k, r in cases.items():
        base = cases.get(k._replace(tag=best))
        if r["ours_ms"] and base and base["ours_ms"]:
            by_group[(k.type, k.side, k.threads)][k.tag].append(r["ours_ms"] / base["ours_ms"])
    lines = [[t, side, threads, *(times(geomean(g[tag])) for tag in tags)]
             for (t, side, threads), g in sorted(by_group.items(), key=lambda kv: (types.index(kv[0][0]), kv[0][1:]))]
    return (f"Our time by instruction-set tag, relative to {best} (geomean over masks and filters):\n\n"
            + table(["type", "side", "threads", *tags], lines))


def speedup_section(rows):
    cases = index(rows, "cases")
    both = [k for k in cases if k.threads == 1 and k._replace(threads=2) in cases]
    if not both:
        return "_This run did not measure both 1 and 2 threads on the same case._"
    side = max(k.side for k in both)
    tag = ordered((k.tag for k in both), TAGS)[-1]
    groups = defaultdict(lambda: ([], [], []))
    for k in both:
        if k.side != side or k.tag != tag:
            continue
        one, two = cases[k], cases[k._replace(threads=2)]
        ours, theirs, floor = groups[(k.type, k.operation)]
        if one["ours_ms"] and two["ours_ms"]:
            ours.append(one["ours_ms"] / two["ours_ms"])
        theirs.append(one["opencv_ms"] / two["opencv_ms"])
        floor.append(one["floor_ms"] / two["floor_ms"])
    types = in_run_order(cases.values(), "type")
    lines = [[t, op, times(geomean(o)), times(geomean(c)), times(geomean(f))]
             for (t, op), (o, c, f) in sorted(groups.items(), key=lambda kv: (types.index(kv[0][0]),
                                                                              FILTERS.index(kv[0][1])))]
    return (f"Time with 1 thread divided by time with 2 threads, {side} x {side}, tag {tag}, "
            "geomean over masks:\n\n" + table(["type", "filter", "ours", "OpenCV", "memory floor"], lines))


def small_section(rows):
    small = index(rows, "small")
    if not small:
        return "_No `small` study in this run._"
    lines = []
    for k, r in small.items():
        if k.operation != "imopen":
            continue
        get = lambda name: small[k._replace(operation=name)]
        pair = get("imerode+imdilate")
        extra = None if r["ours_ms"] is None or pair["ours_ms"] is None else r["ours_ms"] - pair["ours_ms"]
        lines.append([k.type, k.mask, k.tag, k.threads, us(r["ours_ms"]), us(get("imerode")["ours_ms"]),
                      us(get("imdilate")["ours_ms"]), us(pair["ours_ms"]), us(extra),
                      "-" if extra is None else f"{100 * extra / pair['ours_ms']:+.0f} %",
                      us(r["opencv_ms"]), us(pair["opencv_ms"])])
    return ("Per call, in microseconds, 64 x 64 images. `imerode+imdilate` is two single-stage calls through "
            "an intermediate image allocated once beforehand; `imopen` allocates and frees its intermediate "
            "in every call.\n\n"
            + table(["type", "mask", "tag", "threads", "imopen", "imerode", "imdilate", "imerode+imdilate",
                     "imopen extra", "extra", "OpenCV open", "OpenCV erode+dilate"], lines))


def agreement_section(rows):
    per_operation = defaultdict(lambda: [0, 0])
    for r in rows:
        if r["check"] == "ok":
            per_operation[r["operation"]][0] += 1
            per_operation[r["operation"]][1] += r["rim_differences"] > 0
    order = FILTERS + ["imerode+imdilate"]
    lines = [[op, equal, rim] for op, (equal, rim) in sorted(per_operation.items(), key=lambda kv: order.index(kv[0]))]
    text = ("Outputs equal to OpenCV's at least a mask size away from the border, and how many of them differ "
            "nearer the border:\n\n"
            + table(["operation", "outputs equal away from the border", "of which differ near it"], lines)
            + "\n\nNear the border our `imclose` and `imbothat` differ by design: their erosion runs over an "
            "intermediate image that extends beyond the image and holds the dilation of the image and the low pad "
            "there, where OpenCV's erosion sees its neutral border. So at the rim our closing can come out lower, "
            "nearer the image, than OpenCV's.")
    bad = [r for r in rows if r["check"] != "ok"]
    if bad:
        lines = [[r["study"], r["operation"], r["type"], r["side"], r["mask"], r["tag"], r["threads"], r["check"]]
                 for r in bad]
        text += ("\n\nThese outputs differed from OpenCV's away from the border, and were not timed:\n\n"
                 + table(["study", "operation", "type", "side", "mask", "tag", "threads", "difference"], lines))
    return text
