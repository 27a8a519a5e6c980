#!/usr/bin/env python3
"""Measures what a query of qx-mpi costs, and writes the tables of docs/SCALE.md: times with ranks that
share one machine's memory and with ranks that talk by TCP, and the bytes that a query sends.

measure.py [--seconds S] [--rounds N] [--tool FILE] [--file FILE]

It needs root, for network namespaces. Its rounds are interleaved, and medians count.
"""
import argparse
import datetime
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile

import numpy as np

from machines import Machines
from mpirun import mpirun
from plan import ENTRY, QUESTION, write_between

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "hosts"))
from word_vectors import read_words

MARKS = ("<!-- measure.py -->", "<!-- end of measure.py -->")
RANKS = (1, 2, 4, 7)


def write_bases(folder):
    """The files of the three bases, by what they are, with the sizes of batches to be measured."""
    words = read_words()[1]
    random = np.random.default_rng(1)
    bases = {}
    for name, title, vectors, batches in (
            ("few", "100 words of 100 floats: next to nothing to scan", words[:100], (1, 8, 64)),
            ("words", "20,000 words of 100 floats, 8 MB", words, (1, 8, 64)),
            ("drawn", "200,000 drawn rows of 768 floats, 614 MB",
             random.standard_normal((200_000, 768), dtype="<f4"), (1, 8))):
        np.save(folder / f"{name}.npy", vectors)
        np.save(folder / f"{name}_queries.npy", vectors[:64])
        bases[title] = (["--vectors", folder / f"{name}.npy", "--queries",
                         folder / f"{name}_queries.npy", "--exact"], batches)
    return bases


def on_one_machine(ranks, command):
    return mpirun(ranks, command, timeout=600, check=True).stdout


def times(printed):
    """Of each size of batch: batches that were run, and µs a query."""
    fields = [line.split("\t") for line in printed.splitlines()[1:]]
    return {int(field[1]): (int(field[2]), float(field[5])) for field in fields}


def time_table(run, base, options):
    arguments, batches = base
    found = {(ranks, batch): [] for ranks in RANKS for batch in batches}
    for _ in range(options.rounds):
        for ranks in RANKS:
            measured = times(run(ranks, [options.tool, *arguments, "--batch", max(batches),
                                         "--measure", options.seconds]))
            for batch in batches:
                found[ranks, batch].append(measured[batch][1])
    lines = ["| ranks | " + " | ".join("1 query" if batch == 1 else f"{batch} at once"
                                       for batch in batches) + " |",
             "|---:|" + "---:|" * len(batches)]
    for ranks in RANKS:
        cells = (f"{statistics.median(found[ranks, batch]):,.1f}" for batch in batches)
        lines.append(f"| {ranks} | " + " | ".join(cells) + " |")
    return lines


def bytes_table(machines, base, options):
    """Two runs of different length differ by their queries alone."""
    lines = ["| ranks | k | bytes a query, on all cards | of it questions and lists | messages |",
             "|---:|---:|---:|---:|---:|"]
    for ranks in RANKS[1:]:
        for k in (10, 100, 1000):
            points = []
            for seconds in (1, 2):
                before = machines.sent_bytes()
                printed = machines.run(ranks, [options.tool, *base[0], "--k", k, "--batch", 1,
                                               "--measure", seconds])
                points.append((times(printed)[1][0], machines.sent_bytes() - before))
            (few, less), (many, more) = points
            contents = (ranks - 1) * (QUESTION + 4 * 100 + ENTRY * k)
            lines.append(f"| {ranks} | {k:,} | {(more - less) / (many - few):,.0f} | {contents:,} | "
                         f"{2 * (ranks - 1)} |")
    return lines


def measure(folder, options):
    bases = write_bases(folder)
    load = os.getloadavg()[0]
    parts = ["Ranks that share the memory of one machine, µs a query:"]
    for title, base in bases.items():
        parts += [title + ":", "\n".join(time_table(on_one_machine, base, options))]
    with Machines(max(RANKS)) as machines:
        parts.append("Ranks in network namespaces of their own, which talk by TCP through a bridge:")
        for title, base in list(bases.items())[:2]:
            parts += [title + ":", "\n".join(time_table(machines.run, base, options))]
        parts += ["What single queries of 100 floats send, with the headers of TCP, IP and Ethernet, "
                  "and with the message by which rank 0 ends or continues the measurement:",
                  "\n".join(bytes_table(machines, bases[list(bases)[1]], options))]
    cpu = next(line.split(":")[1].strip() for line in open("/proc/cpuinfo")
               if line.startswith("model name"))
    parts.insert(0, f"{cpu}, {os.cpu_count()} cores, {datetime.date.today()}, medians of "
                    f"{options.rounds} interleaved rounds; the load was {load:.1f} before.")
    return "\n\n".join(parts)


def main():
    parser = argparse.ArgumentParser(prog="measure.py", description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=int, default=1, help="for each size of batch (1)")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--tool", type=pathlib.Path, default=ROOT / "build/mpi/hosts/mpi/qx-mpi")
    parser.add_argument("--file", type=pathlib.Path, default=ROOT / "docs/SCALE.md")
    options = parser.parse_args()
    if options.seconds < 1 or options.rounds < 1:
        parser.error("--seconds and --rounds are 1 or more")
    if os.geteuid() != 0:
        sys.exit("measure: network namespaces need root")
    if not options.tool.exists():
        sys.exit(f"measure: {options.tool} is not built; hosts/mpi/demo does that")
    try:
        with tempfile.TemporaryDirectory() as folder:
            tables = measure(pathlib.Path(folder), options)
    except subprocess.CalledProcessError as error:
        sys.exit(f"measure: {error}\n{error.stderr}")
    write_between(options.file, MARKS, tables)
    print(f"the tables of {options.file} are those of this run")


if __name__ == "__main__":
    main()
