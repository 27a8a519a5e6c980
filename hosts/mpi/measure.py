#!/usr/bin/env python3
"""Measures what a query of qx-mpi costs: times with ranks that share one machine's memory and with ranks
that talk by TCP, and the bytes that a query sends. The results are docs/benchmarks/ranks.json, which
plan.py puts into docs/SCALE.md.

measure.py [--seconds S] [--rounds N] [--tool FILE] [--results FILE]

It needs root, for network namespaces. Its rounds are interleaved, and medians count.
"""
import argparse
import datetime
import json
import os
import pathlib
import statistics
import subprocess
import sys
import tempfile

import numpy as np

from machines import Machines
from mpirun import mpirun
from plan import BATCHES, LENGTHS, MEASURED

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "hosts"))
from word_vectors import read_words

RANKS = (1, 2, 4, 7)


def write_bases(folder):
    """Writes the files of the three bases; gives the arguments that name them, and sizes of batches."""
    words = read_words()[1]
    drawn = np.random.default_rng(1).standard_normal((200_000, 768), dtype="<f4")
    bases = {}
    for name, vectors, batches in (("few", words[:100], BATCHES), ("words", words, BATCHES),
                                   ("drawn", drawn, BATCHES[:2])):
        np.save(folder / f"{name}.npy", vectors)
        np.save(folder / f"{name}_queries.npy", vectors[:64])
        bases[name] = (["--vectors", folder / f"{name}.npy", "--queries",
                        folder / f"{name}_queries.npy", "--exact"], batches)
    return bases


def on_one_machine(ranks, command):
    return mpirun(ranks, command, timeout=600, check=True).stdout


def times(printed):
    """Of each size of batch: batches that were run, and µs a query."""
    fields = [line.split("\t") for line in printed.splitlines()[1:]]
    return {int(field[1]): (int(field[2]), float(field[5])) for field in fields}


def medians(run, base, options):
    """For each number of ranks, µs a query at each size of batch."""
    arguments, batches = base
    rounds = [{ranks: times(run(ranks, [options.tool, *arguments, "--batch", max(batches),
                                        "--measure", options.seconds])) for ranks in RANKS}
              for _ in range(options.rounds)]
    return {ranks: [statistics.median(found[ranks][batch][1] for found in rounds)
                    for batch in batches] for ranks in RANKS}


def sent(machines, base, ranks, k, options):
    """Bytes a query: two runs of different length differ by their queries alone."""
    points = []
    for seconds in (1, 2):
        before = machines.sent_bytes()
        printed = machines.run(ranks, [options.tool, *base[0], "--k", k, "--batch", 1,
                                       "--measure", seconds])
        points.append((times(printed)[1][0], machines.sent_bytes() - before))
    (few, less), (many, more) = points
    return round((more - less) / (many - few))


def measure(folder, options):
    bases = write_bases(folder)
    cpu = next(line.split(":")[1].strip() for line in open("/proc/cpuinfo")
               if line.startswith("model name"))
    found = {"run": f"{cpu}, {os.cpu_count()} cores, {datetime.date.today()}, medians of "
                    f"{options.rounds} interleaved rounds; the load was {os.getloadavg()[0]:.1f} before."}
    for name, base in bases.items():
        found[f"memory {name}"] = medians(on_one_machine, base, options)
    with Machines(max(RANKS)) as machines:
        for name in ("few", "words"):
            found[f"tcp {name}"] = medians(machines.run, bases[name], options)
        found["bytes"] = {ranks: [sent(machines, bases["words"], ranks, k, options) for k in LENGTHS]
                          for ranks in RANKS[1:]}
    return found


def main():
    parser = argparse.ArgumentParser(prog="measure.py", description=__doc__.splitlines()[0])
    parser.add_argument("--seconds", type=int, default=1, help="for each size of batch (1)")
    parser.add_argument("--rounds", type=int, default=3)
    parser.add_argument("--tool", type=pathlib.Path, default=ROOT / "build/mpi/hosts/mpi/qx-mpi")
    parser.add_argument("--results", type=pathlib.Path, default=MEASURED / "ranks.json")
    options = parser.parse_args()
    if options.seconds < 1 or options.rounds < 1:
        parser.error("--seconds and --rounds are 1 or more")
    if os.geteuid() != 0:
        sys.exit("measure: network namespaces need root")
    if not options.tool.exists():
        sys.exit(f"measure: {options.tool} is not built; hosts/mpi/demo does that")
    try:
        with tempfile.TemporaryDirectory() as folder:
            found = measure(pathlib.Path(folder), options)
    except subprocess.CalledProcessError as error:
        sys.exit(f"measure: {error}\n{error.stderr}")
    lines = (f"{json.dumps(name)}: {json.dumps(result)}" for name, result in found.items())
    options.results.write_text("{\n" + ",\n".join(lines) + "\n}\n")
    print(f"{options.results} has the results; plan.py --write docs/SCALE.md writes the tables")


if __name__ == "__main__":
    main()
