#!/usr/bin/env python3
"""Plans an index over many machines: how many, and how long a query takes, by simulating queries.

plan.py                 prints the tables of docs/SCALE.md
plan.py --write FILE    writes them between the marks of the file
plan.py --check FILE    fails if the file has others

What a core reads in a second, and its spread, is taken from docs/BENCHMARKS.md; what a network and
a machine give is assumed, and can be said: --latency-us, --gbit, --machine-gbs.
"""
import argparse
import math
import pathlib
import random
import re
import statistics
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]
BENCHMARKS = ROOT / "docs/BENCHMARKS.md"
MARKS = ("<!-- plan.py -->", "<!-- end of plan.py -->")
ROWS, DIM, K, PROBES = 10_000_000_000, 768, 10, 64
VECTOR = 4 * DIM
ENGINE_ROW = 8 + 8  # the id and the table of ids, which are local numbers
HOST_ROW = 8 + 8  # the id and its place in the order of ids
LISTS_ROW = 8 + 4 + 8  # of an IVF structure: the row, its list, its place there
ENTRY = 20
QUESTION = 48  # what rank 0 was asked; the query comes with it
USABLE = 0.9  # of a machine's memory
SIMULATED = 300


def measured(options):
    """What one core did, and what a rank can then do: bytes a second of a scan, its spread, and
    seconds for a listed row."""
    text = BENCHMARKS.read_text()
    dram = text[text.index("### DRAM"):text.index("## Search of listed ids")]
    scan = re.search(rf"^\| {DIM} \| ([\d.]+) \|.*\| -(\d+) … \+(\d+) % \|$", dram, re.MULTILINE)
    listed = re.search(rf"^\| scatter_topk \| {DIM} \| 100000 \| 0 \| ([\d.]+) \|", text,
                       re.MULTILINE)
    core = float(scan[1]) * 1e9
    # Where all ranks of a machine read at once, its memory may give each less.
    shared = min(core, options.machine_gbs * 1e9 / options.ranks)
    spread = int(scan[2]) / 100, int(scan[3]) / 100
    return core, shared, spread, float(listed[1]) * 1e-9 * core / shared


def reduced_at(ready, message):
    """When rank 0 has merged all lists: a binomial tree, in which each hop takes `message`."""
    times = list(ready)
    step = 1
    while step < len(times):
        for rank in range(0, len(times) - step, 2 * step):
            times[rank] = max(times[rank], times[rank + step] + message)
        step *= 2
    return times[0]


def arrives_at(ranks, message):
    """When each rank has what rank 0 sends: one hop for each bit of its number."""
    return [bin(rank).count("1") * message for rank in range(ranks)]


def simulate(local, spread, ranks, options):
    """The median time of a query, in seconds."""
    chance = random.Random(ranks)
    def hop(size):
        return options.latency_us * 1e-6 + 8 * size / (options.gbit * 1e9)
    asked = arrives_at(ranks, hop(QUESTION + VECTOR))
    times = []
    for _ in range(SIMULATED):
        ready = [start + local * chance.uniform(1 - spread[0], 1 + spread[1]) for start in asked]
        times.append(reduced_at(ready, hop(K * ENTRY)))
    return statistics.median(times)


def duration(seconds):
    if seconds < 1:
        return f"{1e3 * seconds:.1f} ms"
    return f"{seconds:.2f} s"


def lists_for(rows, core, listed):
    """The number of lists, a power of two, with which a query through them is fastest."""
    def cost(lists):
        return lists * VECTOR / core + PROBES / lists * rows * listed
    best = min((2 ** power for power in range(10, 24)), key=cost)
    return best, cost(best)


def wire_table():
    lines = ["| ranks | hops, one after the other | bytes of a result list, k = 10 | k = 100 "
             "| k = 1000 |",
             "|---:|---:|---:|---:|---:|"]
    for ranks in (2, 4, 16, 64, 256, 1024):
        hops = math.ceil(math.log2(ranks))
        sizes = " | ".join(f"{hops * k * ENTRY:,}" for k in (10, 100, 1000))
        lines.append(f"| {ranks:,} | {hops} | {sizes} |")
    return lines


def plan_table(options):
    _, core, spread, listed = measured(options)
    lines = ["| memory of a machine | machines | ranks | exact | lists | through 64 lists |",
             "|---:|---:|---:|---:|---:|---:|"]
    # While the ranks of a machine load in turns, one of them has its vectors twice.
    row = VECTOR + ENGINE_ROW + HOST_ROW + LISTS_ROW + VECTOR / options.ranks
    for memory in (512, 1024, 2048):
        machines = math.ceil(ROWS / (USABLE * memory * 2 ** 30 // row))
        ranks = machines * options.ranks
        rows = ROWS / ranks
        exact = simulate(rows * VECTOR / core, spread, ranks, options)
        lists, local = lists_for(rows, core, listed)
        probed = simulate(local, spread, ranks, options)
        lines.append(f"| {memory:,} GiB | {machines} | {ranks:,} | {duration(exact)} | {lists:,} | "
                     f"{duration(probed)} |")
    return lines


def network_table(options):
    """What part of a query through lists the network is, as ranks grow and rows with them."""
    _, core, spread, listed = measured(options)
    rows = 10_000_000
    lists, local = lists_for(rows, core, listed)
    lines = [f"| ranks of 10 million rows, {lists:,} lists | a query "
             "| of it on the network, and waiting |",
             "|---:|---:|---:|"]
    for ranks in (1, 16, 256, 1024, 4096):
        whole = simulate(local, spread, ranks, options)
        lines.append(f"| {ranks:,} | {duration(whole)} | {100 * max(0, 1 - local / whole):.0f} % |")
    return lines


def tables(options):
    core, shared, spread, listed = measured(options)
    said = (f"Measured (`BENCHMARKS.md`): one core scans {core / 1e9:.1f} GB/s, "
            f"-{100 * spread[0]:.0f} … +{100 * spread[1]:.0f} %. Assumed: {options.ranks} ranks to a "
            f"machine, whose memory gives {options.machine_gbs:g} GB/s in all; {options.latency_us:g} µs "
            f"and {options.gbit:g} Gbit/s for a message. So a rank scans {shared / 1e9:.1f} GB/s, and "
            f"takes {1e9 * listed:.0f} ns for a row of a list.")
    parts = [wire_table(), [said], plan_table(options), network_table(options)]
    return "\n\n".join("\n".join(part) for part in parts)


def parts_of(file, marks):
    """The text of a file before two marks, between them, and after them."""
    before, rest = file.read_text().split(marks[0])
    return before, *rest.split(marks[1])


def write_between(file, marks, text):
    before, _, after = parts_of(file, marks)
    file.write_text(f"{before}{marks[0]}\n\n{text}\n\n{marks[1]}{after}")


def main():
    parser = argparse.ArgumentParser(prog="plan.py", description=__doc__.splitlines()[0])
    parser.add_argument("--ranks", type=int, default=8, help="ranks on each machine (8)")
    parser.add_argument("--machine-gbs", type=float, default=200, help="GB/s of a machine (200)")
    parser.add_argument("--latency-us", type=float, default=20, help="of a message (20)")
    parser.add_argument("--gbit", type=float, default=25, help="Gbit/s of a connection (25)")
    parser.add_argument("--write", type=pathlib.Path)
    parser.add_argument("--check", type=pathlib.Path)
    options = parser.parse_args()
    made = tables(options)
    file = options.write or options.check
    if file is None:
        print(made)
        return
    if options.write:
        write_between(file, MARKS, made)
    elif parts_of(file, MARKS)[1].strip() != made:
        sys.exit(f"plan: {file} has other tables; run plan.py --write {file}")
    print(f"the tables of {file} are those of the simulation")


if __name__ == "__main__":
    main()
