#!/usr/bin/env python3
"""Makes tables and charts of what the benchmarks measured: reads every result file of a folder,
takes the median over the processes, prints the bounds with what was reached, and fails when one is
missed. With --docs, also rewrites the generated parts of docs/performance.md and its charts."""
import argparse
import json
import math
import pathlib
import re
import statistics
import sys

import chart

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCS = ROOT / "docs"

FILLINGS = ["all set", "random", "half of each"]
RIVALS = ["protobuf", "protobuf, arena", "nanopb", "Cap'n Proto", "msgpack-c"]
FORCED = "msgpack-c, forced"
CALLS = "two empty calls"

# Direction, message, entries; the limit, and how many times as long as it ours may take for records
# that are all set and for random ones; how many times as long as ours the fastest rival must take.
MEMCPY, HEAP_COPY = "memcpy", "malloc, copy, free"
BOUNDS = [
    ("encode", "OverloadAlarmInput", 0, MEMCPY, 3.0, 2.8, 3),
    ("encode", "AlarmInput", 0, MEMCPY, 3.4, 3.6, 2.5),
    ("encode", "SysDiskUseInfoResult", 0, MEMCPY, 3.0, 2.5, 3),
    ("encode fixed", "OverloadAlarmInput", 0, MEMCPY, 1.4, 1.2, 6),
    ("encode fixed", "SysDiskUseInfoResult", 0, MEMCPY, 1.4, 1.2, 6),
    ("encode", "FdProcInfoOutput", 100, MEMCPY, 2.6, 2.4, 1.7),
    ("encode", "FdProcInfoOutput", 10000, MEMCPY, 2.6, 2.4, 1.7),
    ("encode", "StorageEraseInfo", 100, MEMCPY, 4.0, 5.0, 1.3),
    ("encode", "StorageEraseInfo", 10000, MEMCPY, 4.0, 5.0, 1.3),
    ("decode", "SysOvLoadDiskThreshold", 0, MEMCPY, 1.9, 1.9, 5),
    ("decode", "StorageBadBlockInfoInput", 0, MEMCPY, 1.9, 1.9, 5),
    ("decode", "FdProcInfoInput", 0, MEMCPY, 1.9, 1.9, 5),
    ("decode", "AlarmOutput", 0, HEAP_COPY, 1.5, 1.5, 2),
]
RANDOM_TO_ALL_SET = 1.6  # time a byte
LARGEST_SECTION = 24 * 1024  # of the library's code, and of its tables
ARM_TO_X86 = 1.5  # instructions
ROUND_TRIPS = {("1", "latency to echo"): ("≤", 1.15), ("64", "throughput to echo"): ("≥", 0.9)}
MANY_ENTRIES = 1_000_000
# Decoded, these hold a text or a list: one block each. Nothing else may ask the heap for anything.
OWNING = {"AlarmInput", "AlarmOutput", "BrdPartInfo", "FdProcInfoOutput", "StorageEraseInfo",
          "StorageBadBlockInfo"}

# How contest.hpp has operations follow each other. Promises are about the first; the second is shown
# beside it where limits are concerned.
BACK_TO_BACK, ISOLATED = "back to back", "isolated"


def load_codecs(folder, pace):
    """Returns {(direction, message, entries, filling): {counter: median over the processes}}."""
    samples = {}
    for path in sorted(folder.glob("codec-*.json")):
        for row in json.loads(path.read_text())["benchmarks"]:
            direction, message, entries, filling = row["name"].split("/")[:4]
            counters = samples.setdefault((direction, message, int(entries), filling), {})
            for key, value in row.items():
                if key.startswith((pace, "bytes")):
                    counters.setdefault(key.removeprefix(f"{pace}/"), []).append(value)
    return {key: {name: statistics.median(values) for name, values in counters.items()}
            for key, counters in samples.items()}


def times_ours(row, rival):
    """How many times longer than ours a rival takes; infinite where it was not measured, 0
    where it takes no longer than the empty operation does."""
    ratio = row.get(f"ratio/{rival}")
    return math.inf if ratio is None else 1 / ratio if ratio > 0 else 0.0


def fastest_rival(row):
    return min((times_ours(row, rival), rival) for rival in RIVALS)


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "---|" * len(header)]
    return "\n".join(lines + ["| " + " | ".join(cells) + " |" for cells in rows])


def decodes(direction):
    return direction.startswith("decode")


def operation(direction, message, entries):
    count = f", {entries:,} {'entry' if entries == 1 else 'entries'}" if entries else ""
    return f"{direction} `{message}`{count}"


class Verdicts:
    """Counts what was promised and what was kept, and marks what was not."""

    def __init__(self):
        self.missed = []
        self.count = 0

    def mark(self, what, text, kept):
        self.count += 1
        if kept:
            return text
        self.missed.append(f"{what}: {text}")
        return f"**{text}**"

    def summary(self):
        return f"{self.count - len(self.missed)} of {self.count} bounds kept"


def bounds_table(codecs, verdicts):
    rows = []
    for direction, message, entries, limit, all_set, random, faster in BOUNDS:
        measured = [codecs.get((direction, message, entries, filling)) for filling in FILLINGS[:2]]
        what = operation(direction, message, entries)
        cells = [what, limit]
        if None in measured:
            rows.append(cells + [verdicts.mark(what, "not measured", False)] * 4)
            continue
        for row, bound, filling in zip(measured, (all_set, random), FILLINGS):
            ratio = row[f"ratio/{limit}"]
            cells.append(verdicts.mark(f"{what}, {filling}, to {limit}",
                                       f"{ratio:.2f} (≤ {bound})", 0 < ratio <= bound))
        for row, filling in zip(measured, FILLINGS):
            times, rival = fastest_rival(row)
            cells.append(verdicts.mark(f"{what}, {filling}, against {rival}",
                                       f"{times:.2f} × {rival} (≥ {faster})", times >= faster))
        rows.append(cells)
    return table(["operation", "limit", "all set: ratio", "random: ratio",
                  "all set: fastest rival takes", "random: fastest rival takes"], rows)


def per_byte_table(codecs, verdicts):
    """What a byte of a random message costs against one of a full message."""
    rows = []
    for (direction, message, entries, filling), row in codecs.items():
        if "ratio/ours, all set" not in row or decodes(direction) or entries == MANY_ENTRIES:
            continue
        what = operation(direction, message, entries)
        ratio = row["ratio/ours, all set"] * row["bytes all set"] / row["bytes"]
        rows.append([what, verdicts.mark(f"{what}, random to all set", f"{ratio:.2f}",
                                         ratio <= RANDOM_TO_ALL_SET)])
    return table(["operation", f"random to all set, per byte (≤ {RANDOM_TO_ALL_SET})"], rows)


def faster_rivals(codecs, verdicts):
    """Marks every row in which a rival is faster than ours."""
    for (direction, message, entries, filling), row in codecs.items():
        if entries == MANY_ENTRIES:
            continue
        times, rival = fastest_rival(row)
        verdicts.mark(f"{operation(direction, message, entries)}, {filling}",
                      f"{rival} takes {times:.2f} of ours", times >= 1)


def cell(codecs, key, form):
    """One figure for each of the three fillings."""
    return " / ".join(form(codecs[key + (filling,)]) if key + (filling,) in codecs else "–"
                      for filling in FILLINGS)


def rival_form(rival):
    """What a rival takes, bold where it beats ours: no promise is made about the forced one."""
    def form(row):
        times = times_ours(row, rival)
        if math.isinf(times):
            return "–"
        alone = times_ours(row, f"{rival}, encoding alone")
        figure = f"{times:.1f}" if times >= 1 or rival == FORCED else f"**{times:.1f}**"
        return figure + ("" if math.isinf(alone) else f" ({alone:.1f})")
    return form


def direction_table(codecs, direction):
    keys = list(dict.fromkeys(key[:3] for key in codecs
                              if key[0] == direction and key[2] != MANY_ENTRIES))
    rivals = RIVALS + ([] if decodes(direction) else [FORCED])
    limits = [MEMCPY, "memcpy of the record"]
    rows = []
    for key in keys:
        name = f"`{key[1]}`" + (f" {key[2]:,}" if key[2] else "")
        cells = [name, cell(codecs, key, lambda row: f"{row['bytes']:.0f}")]
        cells += [cell(codecs, key, lambda row, limit=limit: f"{row[f'ratio/{limit}']:.1f}"
                       if f"ratio/{limit}" in row else "–") for limit in limits]
        if not decodes(direction):
            cells.append(cell(codecs, key, lambda row: f"{times_ours(row, CALLS):.1f}"))
        rows.append(cells + [cell(codecs, key, rival_form(rival)) for rival in rivals])
    return table(["message", "bytes", "ours to memcpy", "ours to memcpy of the record"] +
                 ([] if decodes(direction) else [f"{CALLS} to ours"]) +
                 [f"{rival} to ours" for rival in rivals], rows)


def growth_table(codecs):
    """What an entry costs in lists of very different lengths."""
    rows = []
    for (direction, message, entries, filling), row in codecs.items():
        key = (direction, message, filling)
        if key == ("encode", "StorageEraseInfo", "random") and entries > 1:
            rows.append([f"{entries:,}", f"{row['ns/ours'] / entries:.2f} ns",
                         f"{row['ns/memcpy'] / entries:.2f} ns", f"{row['ratio/memcpy']:.1f}"])
    return table(["entries", "ours, an entry", "memcpy, an entry", "ratio"], rows)


def allocations_table(counts, verdicts):
    rows = []
    for message, candidates in counts.items():
        ours = candidates["ours"]
        kept = ours["encode"] == 0 and ours["decode"] == (message in OWNING)
        figures = [f"{candidates[name]['encode']} / {candidates[name]['decode']}"
                   for name in ["ours", *RIVALS]]
        figures[0] = verdicts.mark(f"allocations of {message}", figures[0], kept)
        rows.append([f"`{message}`", *figures])
    return table(["message: encode / decode", "ours", *RIVALS], rows)


def sizes_table(sizes, verdicts):
    rows = []
    for candidate, row in sizes.items():
        cells = [f"{row['code']:,}", f"{row['read-only']:,}"]
        if candidate.startswith("libkel_sys_diag.so"):
            cells = [verdicts.mark(f"{part} of {candidate}", f"{row[part]:,} (≤ {LARGEST_SECTION:,})",
                                   row[part] <= LARGEST_SECTION) for part in ("code", "read-only")]
        rows.append([candidate, *cells, f"{row.get('library code', 0):,}"])
    return table(["candidate", "code", "read-only tables", "code of its run-time library"], rows)


def instructions_table(instructions, verdicts):
    rows = {}
    for name, counts in instructions.items():
        direction, message, _ = name.split("/")
        x86, arm = counts["x86-64"], counts["aarch64"]
        ratio = verdicts.mark(f"instructions of {name}", f"{arm / x86:.2f}",
                              arm <= ARM_TO_X86 * x86)
        rows.setdefault(operation(direction, message, 0), []).append(
            (f"{x86:,.0f}", f"{arm:,.0f}", ratio))
    return table(["all set / random", "x86-64", "aarch64", f"ratio (≤ {ARM_TO_X86})"],
                 [[what, *map(" / ".join, zip(*fillings))] for what, fillings in rows.items()])


def round_trips_table(runs, verdicts):
    rows = []
    for callers in runs[0]:
        median = {key: statistics.median(run[callers][key] for run in runs)
                  for key in runs[0][callers]}
        cells = [callers, f"{median['latency']:.0f} µs", f"{median['echo latency']:.0f} µs"]
        for key in ("latency to echo", "throughput to echo"):
            cell_text = f"{median[key]:.2f}"
            if (callers, key) in ROUND_TRIPS:
                sign, bound = ROUND_TRIPS[callers, key]
                kept = median[key] <= bound if sign == "≤" else median[key] >= bound
                cell_text = verdicts.mark(f"{key}, {callers} callers",
                                          f"{cell_text} ({sign} {bound})", kept)
            cells.append(cell_text)
        rows.append(cells)
    return table(["callers", "latency, ours", "latency, echo", "latency to echo",
                  "throughput to echo"], rows)


def draw_chart(codecs, direction):
    messages = {}
    for (row_direction, message, entries, filling), row in codecs.items():
        if row_direction != direction or filling != "random" or entries not in (0, 100):
            continue
        name = message + (f", {entries} entries" if entries else "")
        to_memcpy = row[f"ratio/{MEMCPY}"]
        messages[name] = {"ours": to_memcpy} | {
            rival: to_memcpy * times_ours(row, rival) for rival in [*RIVALS, FORCED]
            if f"ratio/{rival}" in row}
    return chart.draw(f"{direction.capitalize()} random records: time, as a multiple of memcpy's", messages)


def rewrite_docs(parts, codecs):
    page = DOCS / "performance.md"
    content = page.read_text()
    missing = set(re.findall("<!-- begin (.*?) -->", content)) - parts.keys()
    if missing:
        sys.exit(f"{page.name} stays as it is, since the results lack: {', '.join(sorted(missing))}")
    for name, part in parts.items():
        content = re.sub(rf"(<!-- begin {name} -->\n).*?(<!-- end {name} -->)",
                         lambda match, part=part: f"{match[1]}\n{part}\n\n{match[2]}", content,
                         flags=re.DOTALL)
    page.write_text(content)
    for direction in ("encode", "decode"):
        (DOCS / f"{direction}.svg").write_text(draw_chart(codecs, direction))


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("folder", type=pathlib.Path, help="where the result files are")
    parser.add_argument("--docs", action="store_true", help="rewrite docs/performance.md's parts")
    arguments = parser.parse_args()
    folder = arguments.folder

    codecs = load_codecs(folder, BACK_TO_BACK)
    verdicts = Verdicts()
    in_isolation = Verdicts()
    parts = {
        "bounds": bounds_table(codecs, verdicts),
        "bounds in isolation": bounds_table(load_codecs(folder, ISOLATED), in_isolation),
        "per byte": per_byte_table(codecs, verdicts),
    }
    faster_rivals(codecs, verdicts)
    for direction in ("encode", "encode fixed", "decode", "decode fixed"):
        parts[direction] = direction_table(codecs, direction)
    if ("encode", "StorageEraseInfo", MANY_ENTRIES, "random") in codecs:
        parts["growth"] = growth_table(codecs)
    for name, make in (("allocations", allocations_table), ("sizes", sizes_table),
                       ("instructions", instructions_table)):
        if (folder / f"{name}.json").exists():
            parts[name] = make(json.loads((folder / f"{name}.json").read_text()), verdicts)
    runs = [json.loads(path.read_text()) for path in sorted(folder.glob("round-trips-*.json"))]
    if runs:
        parts["round trips"] = round_trips_table(runs, verdicts)

    for name, part in parts.items():
        print(f"\n{name}\n\n{part}")
    print(f"\nmedians over {len(list(folder.glob('codec-*.json')))} processes")
    print(f"in isolation, {in_isolation.summary()}\n{verdicts.summary()}")
    for missed in verdicts.missed:
        print(f"  missed: {missed}")
    if arguments.docs:
        rewrite_docs(parts, codecs)
    return 1 if verdicts.missed else 0


if __name__ == "__main__":
    sys.exit(main())
