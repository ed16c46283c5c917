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

ROOT = pathlib.Path(__file__).resolve().parent.parent
DOCS = ROOT / "docs"

SHAPES = ["all set", "random", "half of each"]
RIVALS = ["protobuf", "protobuf, arena", "nanopb", "Cap'n Proto", "msgpack-c"]
FORCED = "msgpack-c, forced"

# Direction, message, entries; the most that ours may take, divided by the limit, for records that
# are all set and random ones; how many times faster than the fastest rival it must be.
MEMCPY, HEAP_COPY = "memcpy", "malloc, copy, free"
BOUNDS = [
    ("encode", "OverloadAlarmInput", 0, MEMCPY, 3.0, 2.8, 3),
    ("encode", "AlarmInput", 0, MEMCPY, 3.4, 3.6, 2.5),
    ("encode", "SysDiskUseInfoResult", 0, MEMCPY, 3.0, 2.5, 3),
    ("fixed", "OverloadAlarmInput", 0, MEMCPY, 1.4, 1.2, 6),
    ("fixed", "SysDiskUseInfoResult", 0, MEMCPY, 1.4, 1.2, 6),
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

# How contest.hpp has operations follow each other. Promises are about the first; the second is shown
# beside it where limits are concerned.
BACK_TO_BACK, ISOLATED = "back to back", "isolated"


def load_codecs(folder, pace):
    """Returns {(direction, message, entries, shape): {counter: median over the processes}}."""
    samples = {}
    for path in sorted(folder.glob("codec-*.json")):
        for row in json.loads(path.read_text())["benchmarks"]:
            direction, message, entries, shape = row["name"].split("/")[:4]
            counters = samples.setdefault((direction, message, int(entries), shape), {})
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


def operation(direction, message, entries):
    count = f", {entries:,} entries" if entries else ""
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
        measured = [codecs.get((direction, message, entries, shape)) for shape in SHAPES[:2]]
        if None in measured:
            continue
        what = operation(direction, message, entries)
        cells = [what, limit]
        for row, bound, shape in zip(measured, (all_set, random), SHAPES):
            ratio = row[f"ratio/{limit}"]
            cells.append(verdicts.mark(f"{what}, {shape}, to {limit}", f"{ratio:.2f} (≤ {bound})",
                                       ratio <= bound))
        for row, shape in zip(measured, SHAPES):
            times, rival = fastest_rival(row)
            cells.append(verdicts.mark(f"{what}, {shape}, against {rival}",
                                       f"{times:.1f} × {rival} (≥ {faster})", times >= faster))
        rows.append(cells)
    return table(["operation", "limit", "all set: ratio", "random: ratio",
                  "all set: fastest rival takes", "random: fastest rival takes"], rows)


def per_byte_table(codecs, verdicts):
    """What a byte of a random message costs against one of a full message."""
    rows = []
    for (direction, message, entries, shape), row in codecs.items():
        if "ratio/ours, all set" not in row or direction == "decode":
            continue
        what = operation(direction, message, entries)
        ratio = row["ratio/ours, all set"] * row["bytes all set"] / row["bytes"]
        rows.append([what, verdicts.mark(f"{what}, random to all set", f"{ratio:.2f}",
                                         ratio <= RANDOM_TO_ALL_SET)])
    return table(["operation", f"random to all set, per byte (≤ {RANDOM_TO_ALL_SET})"], rows)


def faster_rivals(codecs, verdicts):
    """Marks every row in which a rival is faster than ours."""
    for (direction, message, entries, shape), row in codecs.items():
        times, rival = fastest_rival(row)
        verdicts.mark(f"{operation(direction, message, entries)}, {shape}",
                      f"{rival} takes {times:.2f} of ours", times >= 1)


def cell(codecs, key, form):
    """One figure for each of the three shapes."""
    return " / ".join(form(codecs[key + (shape,)]) if key + (shape,) in codecs else "–"
                      for shape in SHAPES)


def rival_form(rival):
    def form(row):
        times = times_ours(row, rival)
        if math.isinf(times):
            return "–"
        alone = times_ours(row, f"{rival}, encoding alone")
        return f"{times:.1f}" + ("" if math.isinf(alone) else f" ({alone:.1f})")
    return form


def direction_table(codecs, direction):
    keys = list(dict.fromkeys(key[:3] for key in codecs if key[0] == direction))
    rivals = RIVALS + ([] if direction == "decode" else [FORCED])
    limits = [MEMCPY, "memcpy of the record"]
    rows = []
    for key in keys:
        name = f"`{key[1]}`" + (f" {key[2]:,}" if key[2] else "")
        cells = [name, cell(codecs, key, lambda row: f"{row['bytes']:.0f}")]
        cells += [cell(codecs, key, lambda row, limit=limit: f"{row[f'ratio/{limit}']:.1f}"
                       if f"ratio/{limit}" in row else "–") for limit in limits]
        rows.append(cells + [cell(codecs, key, rival_form(rival)) for rival in rivals])
    return table(["message", "bytes", "ours to memcpy", "ours to memcpy of the record"] +
                 [f"{rival} to ours" for rival in rivals], rows)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("folder", type=pathlib.Path, help="where the result files are")
    parser.add_argument("--docs", action="store_true", help="rewrite docs/performance.md's parts")
    arguments = parser.parse_args()

    codecs = load_codecs(arguments.folder, BACK_TO_BACK)
    verdicts = Verdicts()
    in_isolation = Verdicts()
    parts = {
        "bounds": bounds_table(codecs, verdicts),
        "bounds in isolation": bounds_table(load_codecs(arguments.folder, ISOLATED), in_isolation),
        "per byte": per_byte_table(codecs, verdicts),
    }
    faster_rivals(codecs, verdicts)
    for direction in ("encode", "fixed", "decode"):
        parts[direction] = direction_table(codecs, direction)
    for name, text in parts.items():
        print(f"\n{name}\n\n{text}")
    print(f"\nin isolation, {in_isolation.summary()}\n{verdicts.summary()}")
    for missed in verdicts.missed:
        print(f"  missed: {missed}")
    return 1 if verdicts.missed else 0


if __name__ == "__main__":
    sys.exit(main())
