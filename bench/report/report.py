#!/usr/bin/env python3
"""Writes the report of a run: report.py RESULTS FOLDER.

The folder receives BENCHMARKS.md and, in benchmarks/, the pictures.
"""

import os
import pathlib
import re
import sys

import machine
import plots
import targets
from results import Run
from tables import SECTIONS, section_tables, table


def introduction(run):
    kind = "\nThis was a quick run: fewer rounds and smaller sets than the targets name.\n"
    return f"""# Benchmarks

Written by `bench/run`; `bench/README.md` says how each figure is measured and how to read a row.
Every ratio is one of medians over interleaved rounds in one process, on the same data, in one
thread unless two are named. *Limit* is the least that the hardware must do, measured in the same run.
{kind if run.header["quick"] else ""}
{table(["machine", ""], machine.describe(run.header)).replace("---:|", "---|")}
"""


def verdict(outcome):
    return "yes" if outcome.met else "nearly" if outcome.nearly_met else "**no**"


def target_part(outcomes):
    rows = [[outcome.work, outcome.bound, outcome.reached(), verdict(outcome)]
            for outcome in outcomes]
    met = sum(outcome.met for outcome in outcomes)
    nearly = sum(outcome.nearly_met for outcome in outcomes)
    return f"""## Targets: {met} of {len(outcomes)} met, {nearly} nearly

*Reached* is the worst case, or the median where the target says so; in brackets the range. *Nearly*
is at most 10 % off the target, in memory 15 %: equal runs differ by as much. Targets were set on an
AMD EPYC (Zen 4); another machine reaches others.

{table(["work", "target", "reached", "met"], rows)}
"""


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: report.py RESULTS FOLDER")
    run, folder = Run(sys.argv[1]), pathlib.Path(sys.argv[2])
    (folder / "benchmarks").mkdir(parents=True, exist_ok=True)
    remarks = pathlib.Path(__file__).with_name("remarks.md").read_text(encoding="utf-8")
    remarks = re.split(r"^## (\w+)\n", remarks, flags=re.MULTILINE)
    remarks = dict(zip(remarks[1::2], map(str.strip, remarks[2::2])))
    outcomes = targets.outcomes(run)
    parts = [introduction(run), target_part(outcomes)]
    for section, (title, _, _) in SECTIONS.items():
        if not run.select(section):
            continue
        pictures = [picture for picture in plots.PICTURES if picture[1] == section]
        for name, _, _, draw in pictures:
            (folder / "benchmarks" / name).write_text(draw(run), encoding="utf-8")
        parts.append("\n\n".join([f"## {title}", remarks[section],
                                  *[f"![{shows}](benchmarks/{name})" for name, _, shows, _ in pictures],
                                  *section_tables(run, section)]) + "\n")
    path = folder / "BENCHMARKS.md"
    path.write_text("\n".join(parts), encoding="utf-8")
    for outcome in outcomes:
        mark = "met   " if outcome.met else "nearly" if outcome.nearly_met else "missed"
        print(f"{mark} {outcome.work}: {outcome.reached()}, target {outcome.bound}")
    print(f"Report: {os.path.relpath(path)}")


if __name__ == "__main__":
    main()
