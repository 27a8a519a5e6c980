#!/usr/bin/env python3
"""Writes the report of a run: report.py RESULTS FOLDER.

The folder receives BENCHMARKS.md and, in benchmarks/, the pictures, and core.json for hosts/mpi/plan.py.
"""

import datetime
import json
import os
import re
import sys

import machine
import plots
import tables
import targets
from results import Run

TITLES = {
    "scan": ("Exact search of the whole base", tables.scan_tables),
    "candidates": ("Search of listed ids", tables.candidates_table),
    "walk": ("The walk over visible rows", tables.walk_table),
    "match": ("Ids by label", tables.match_table),
    "filtered": ("Filtered search", tables.filtered_table),
    "ivf": ("Search through lists", tables.ivf_table),
    "topk": ("The result buffer", tables.topk_table),
    "mutation": ("Insert, delete, metadata, build", tables.mutation_table),
    "keys": ("Patterned keys", tables.keys_table),
    "header": ("The C++ header beside the C interface", tables.header_table),
    "environment": ("The host's floating-point environment", tables.environment_table),
    "readers": ("Two threads that read one handle", tables.readers_table),
}


def read_remarks():
    path = os.path.join(os.path.dirname(os.path.abspath(__file__)), "remarks.md")
    with open(path, encoding="utf-8") as file:
        parts = re.split(r"^## (\w+)\n", file.read(), flags=re.MULTILINE)
    return {name: text.strip() for name, text in zip(parts[1::2], parts[2::2])}


def introduction(run):
    kind = "\nThis was a quick run: fewer rounds and smaller sets than the targets name.\n"
    facts = machine.describe(run.header, datetime.date.today().isoformat())
    rows = [[name, value] for name, value in facts]
    return f"""# Benchmarks

Written by `bench/run`; `bench/README.md` says how each figure is measured and how to read a row.
Every ratio is one of medians over interleaved rounds in one process, on the same data, in one
thread unless two are named. *Limit* is the least that the hardware must do, measured in the same run.
{kind if run.header["quick"] else ""}
{tables.table(["machine", ""], rows).replace("---:|", "---|")}
"""


def target_part(run):
    outcomes = targets.outcomes(run)
    met = sum(outcome.met for outcome in outcomes)
    return f"""## Targets: {met} of {len(outcomes)} met

*Reached* is the worst case, or the median where the target says so; in brackets the range.

{tables.targets_table(outcomes)}
"""


def section_part(run, section, pictures, remarks):
    title, make_table = TITLES[section]
    parts = [f"## {title}", remarks.get(section, "")]
    parts += [f"![{words}](benchmarks/{name})" for name, words, of, _ in pictures if of == section]
    parts.append(make_table(run))
    return "\n\n".join(part for part in parts if part) + "\n"


def core(run):
    """What one core reads in memory, for plans of larger indexes; None where it was not measured."""
    scan = run.select("scan", set="DRAM", dim=768)
    listed = run.select("candidates", function="scatter_topk", dim=768, ids=100000)
    if not scan or not listed:
        return None
    time = scan[0].engine
    return {"scan_gbs": round(scan[0].gigabytes_per_second(), 1),
            "scan_spread": [round(1 - time["min"] / time["median"], 2),
                            round(time["max"] / time["median"] - 1, 2)],
            "listed_ns": round(listed[0].nanoseconds_per_item(), 2)}


def write_report(run, folder):
    pictures = plots.draw_all(run)
    remarks = read_remarks()
    parts = [introduction(run), target_part(run)]
    parts += [section_part(run, section, pictures, remarks) for section in TITLES
              if run.select(section)]
    os.makedirs(os.path.join(folder, "benchmarks"), exist_ok=True)
    for name, _, _, content in pictures:
        with open(os.path.join(folder, "benchmarks", name), "w", encoding="utf-8") as file:
            file.write(content)
    if core(run):
        with open(os.path.join(folder, "benchmarks", "core.json"), "w", encoding="utf-8") as file:
            file.write(json.dumps(core(run)) + "\n")
    path = os.path.join(folder, "BENCHMARKS.md")
    with open(path, "w", encoding="utf-8") as file:
        file.write("\n".join(parts))
    return path


def main():
    if len(sys.argv) != 3:
        print("usage: report.py RESULTS FOLDER", file=sys.stderr)
        return 2
    run = Run(sys.argv[1])
    path = write_report(run, sys.argv[2])
    for outcome in targets.outcomes(run):
        mark = "met   " if outcome.met else "missed"
        print(f"{mark} {outcome.target.work}: {outcome.reached()}, target {outcome.target.bound()}")
    print(f"Report: {os.path.relpath(path)}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
