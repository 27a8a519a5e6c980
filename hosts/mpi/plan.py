#!/usr/bin/env python3
"""Plans an index over many machines: how many, and how long a query takes, by simulating queries.

plan.py                 prints the tables of docs/SCALE.md, measured and simulated
plan.py --write FILE    writes them between the marks of the file
plan.py --check FILE    fails if the file has others

What was measured is read from docs/benchmarks: core.json, which bench/run writes, and ranks.json, which
measure.py writes. What a network and a machine give is assumed, and can be said: --latency-us, --gbit,
--machine-gbs.
"""
import argparse
import json
import math
import pathlib
import random
import statistics
import sys

MEASURED = pathlib.Path(__file__).resolve().parents[2] / "docs/benchmarks"
ROWS, DIM, K, PROBES = 10_000_000_000, 768, 10, 64
VECTOR = 4 * DIM
ENGINE_ROW = 8 + 8  # the id and the table of ids, which are local numbers
HOST_ROW = 8 + 8  # the id and its place in the order of ids
LISTS_ROW = 8 + 4 + 8  # of an IVF structure: the row, its list, its place there
ENTRY = 20
QUESTION = 48  # what rank 0 was asked; the query comes with it
USABLE = 0.9  # of a machine's memory
SIMULATED = 300

# What measure.py measures.
BATCHES = (1, 8, 64)
LENGTHS = (10, 100, 1000)
NETWORKS = {"memory": "Ranks that share the memory of one machine, µs a query:",
            "tcp": "Ranks in network namespaces of their own, which talk by TCP through a bridge:"}
BASES = {"few": "100 words of 100 floats: next to nothing to scan",
         "words": "20,000 words of 100 floats, 8 MB",
         "drawn": "200,000 drawn rows of 768 floats, 614 MB"}


def read(name):
    return json.loads((MEASURED / name).read_text())


def reduced_at(ready, message):
    """When rank 0 has merged all lists: a binomial tree, in which each hop takes `message`."""
    times = list(ready)
    step = 1
    while step < len(times):
        for rank in range(0, len(times) - step, 2 * step):
            times[rank] = max(times[rank], times[rank + step] + message)
        step *= 2
    return times[0]


def simulate(local, spread, ranks, options):
    """The median time of a query, in seconds."""
    chance = random.Random(ranks)
    def hop(size):
        return options.latency_us * 1e-6 + 8 * size / (options.gbit * 1e9)
    # When each rank has what rank 0 sends: one hop for each bit of its number.
    asked = [bin(rank).count("1") * hop(QUESTION + VECTOR) for rank in range(ranks)]
    times = []
    for _ in range(SIMULATED):
        ready = [start + local * chance.uniform(1 - spread[0], 1 + spread[1]) for start in asked]
        times.append(reduced_at(ready, hop(K * ENTRY)))
    return statistics.median(times)


def duration(seconds):
    return f"{1e3 * seconds:.1f} ms" if seconds < 1 else f"{seconds:.2f} s"


def lists_for(rows, scanned, listed):
    """The number of lists, a power of two, with which a query through them is fastest."""
    def cost(lists):
        return lists * VECTOR / scanned + PROBES / lists * rows * listed
    best = min((2 ** power for power in range(10, 24)), key=cost)
    return best, cost(best)


def table(heads, rows):
    first, *others = (f"| {' | '.join(line)} |" for line in (heads, *rows))
    return "\n".join([first, "|" + "---:|" * len(heads), *others])


def wire_table():
    def row(ranks):
        hops = math.ceil(math.log2(ranks))
        return [f"{ranks:,}", f"{hops}", *(f"{hops * k * ENTRY:,}" for k in LENGTHS)]
    return table(["ranks", "hops, one after the other", "bytes of a result list, k = 10", "k = 100",
                  "k = 1000"], map(row, (2, 4, 16, 64, 256, 1024)))


def plan_table(scanned, listed, spread, options):
    def row(memory):
        # While the ranks of a machine load in turns, one of them has its vectors twice.
        taken = VECTOR + ENGINE_ROW + HOST_ROW + LISTS_ROW + VECTOR / options.ranks
        machines = math.ceil(ROWS / (USABLE * memory * 2 ** 30 // taken))
        ranks = machines * options.ranks
        rows = ROWS / ranks
        exact = simulate(rows * VECTOR / scanned, spread, ranks, options)
        lists, local = lists_for(rows, scanned, listed)
        probed = simulate(local, spread, ranks, options)
        return [f"{memory:,} GiB", f"{machines}", f"{ranks:,}", duration(exact), f"{lists:,}",
                duration(probed)]
    return table(["memory of a machine", "machines", "ranks", "exact", "lists", "through 64 lists"],
                 map(row, (512, 1024, 2048)))


def network_table(scanned, listed, spread, options):
    """What part of a query through lists the network is, as ranks grow and rows with them."""
    lists, local = lists_for(10_000_000, scanned, listed)
    def row(ranks):
        whole = simulate(local, spread, ranks, options)
        return [f"{ranks:,}", duration(whole), f"{100 * max(0, 1 - local / whole):.0f} %"]
    return table([f"ranks of 10 million rows, {lists:,} lists", "a query",
                  "of it on the network, and waiting"], map(row, (1, 16, 256, 1024, 4096)))


def simulated_part(found, options):
    core = found["scan_gbs"] * 1e9
    # Where all ranks of a machine read at once, its memory may give each less.
    scanned = min(core, options.machine_gbs * 1e9 / options.ranks)
    listed = found["listed_ns"] * 1e-9 * core / scanned  # seconds for a row of a list
    spread = found["scan_spread"]
    said = (f"Measured (`BENCHMARKS.md`): one core scans {found['scan_gbs']:.1f} GB/s, "
            f"-{100 * spread[0]:.0f} … +{100 * spread[1]:.0f} %. Assumed: {options.ranks} ranks to a "
            f"machine, whose memory gives {options.machine_gbs:g} GB/s in all; {options.latency_us:g} µs "
            f"and {options.gbit:g} Gbit/s for a message. So a rank scans {scanned / 1e9:.1f} GB/s, and "
            f"takes {1e9 * listed:.0f} ns for a row of a list.")
    return [wire_table(), said, plan_table(scanned, listed, spread, options),
            network_table(scanned, listed, spread, options)]


def measured_part(found):
    parts = [found["run"]]
    for network, title in NETWORKS.items():
        parts.append(title)
        for base in BASES:
            if (times := found.get(f"{network} {base}")) is not None:
                heads = ["1 query" if batch == 1 else f"{batch} at once" for batch in BATCHES]
                rows = [[ranks, *(f"{time:,.1f}" for time in row)] for ranks, row in times.items()]
                parts += [f"{BASES[base]}:", table(["ranks", *heads][:len(rows[0])], rows)]
    rows = []
    for ranks, row in found["bytes"].items():
        hops = int(ranks) - 1
        rows += [[ranks, f"{k:,}", f"{sent:,}", f"{hops * (QUESTION + 4 * 100 + ENTRY * k):,}",
                  f"{2 * hops}"] for k, sent in zip(LENGTHS, row)]
    return parts + ["What single queries of 100 floats send, with the headers of TCP, IP and Ethernet, "
                    "and with the message by which rank 0 ends or continues the measurement:",
                    table(["ranks", "k", "bytes a query, on all cards", "of it questions and lists",
                           "messages"], rows)]


def filled(text, parts):
    """A file's text with these parts between the marks of each program."""
    for program, made in parts.items():
        begin, end = f"<!-- {program} -->", f"<!-- end of {program} -->"
        before, rest = text.split(begin)
        text = "\n\n".join([before + begin, *made, end + rest.split(end)[1]])
    return text


def main():
    parser = argparse.ArgumentParser(prog="plan.py", description=__doc__.splitlines()[0])
    parser.add_argument("--ranks", type=int, default=8, help="ranks on each machine (8)")
    parser.add_argument("--machine-gbs", type=float, default=200, help="GB/s of a machine (200)")
    parser.add_argument("--latency-us", type=float, default=20, help="of a message (20)")
    parser.add_argument("--gbit", type=float, default=25, help="Gbit/s of a connection (25)")
    parser.add_argument("--write", type=pathlib.Path)
    parser.add_argument("--check", type=pathlib.Path)
    options = parser.parse_args()
    parts = {"measure.py": measured_part(read("ranks.json")),
             "plan.py": simulated_part(read("core.json"), options)}
    file = options.write or options.check
    if file is None:
        print("\n\n".join(sum(parts.values(), [])))
        return
    text = filled(file.read_text(), parts)
    if options.write:
        file.write_text(text)
    elif file.read_text() != text:
        sys.exit(f"plan: {file} has other tables; run plan.py --write {file}")
    print(f"the tables of {file} are those of the measurements and the simulation")


if __name__ == "__main__":
    main()
