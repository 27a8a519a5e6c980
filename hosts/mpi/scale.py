#!/usr/bin/env python3
"""Measures what a query of qx-mpi costs, and plans ten billion rows.

scale.py measure        writes docs/benchmarks/ranks.json: the best of interleaved rounds
scale.py write FILE     writes its tables, and the plan that follows, between the marks of docs/SCALE.md
scale.py check FILE     fails if the file has others
"""
import datetime
import json
import math
import os
import pathlib
import subprocess
import sys
import tempfile

import numpy as np

from words import ENVIRONMENT, ROOT, TOOL, mpirun, read_words

RESULTS = ROOT / "docs/benchmarks/ranks.json"
RANKS, BATCHES, ROUNDS = (1, 2, 4), (1, 8, 64), 3
NETWORKS = {"memory": ENVIRONMENT, "TCP": ENVIRONMENT | {"OMPI_MCA_btl": "tcp,self"}}
ROWS, DIM, K = 10_000_000_000, 768, 10
QUESTION, HIT = 3552, 12  # bytes
# What is assumed of a machine and a network.
CORES, USABLE, MACHINE_GBS, LATENCY_US, GBIT = 64, 0.9, 200, 20, 25


def measured(folder, name, ranks, network):
    """What the tool prints of a base: rows, bytes, and µs a query at each size of batch."""
    ran = mpirun(ranks, [TOOL, "--vectors", folder / f"{name}.npy", "--queries",
                         folder / f"{name}_queries.npy", "--batch", max(BATCHES), "--threads",
                         max(1, os.cpu_count() // ranks), "--measure", 1],
                 NETWORKS[network], timeout=900, check=True)
    fields = [line.split("\t") for line in ran.stdout.splitlines()[1:]]
    times = {int(field[3]): float(field[6]) for field in fields}
    return int(fields[0][1]), int(fields[0][2]), [times[batch] for batch in BATCHES]


def measure(folder):
    cpu = next(line.split(":")[1].strip() for line in open("/proc/cpuinfo")
               if line.startswith("model name"))
    found = {"run": "", "cores": os.cpu_count()}
    loads = [os.getloadavg()[0]]
    words = read_words()[1]
    drawn = np.random.default_rng(1).standard_normal((200_000, DIM), dtype="<f4")
    cases = [(ranks, network) for ranks in RANKS for network in NETWORKS
             if network == "memory" or ranks > 1]
    for name, vectors in (("few", words[:100]), ("words", words), ("drawn", drawn)):
        np.save(folder / f"{name}.npy", vectors)
        np.save(folder / f"{name}_queries.npy", vectors[:64])
        rounds = [{case: measured(folder, name, *case) for case in cases} for _ in range(ROUNDS)]
        loads.append(os.getloadavg()[0])
        rows, held, _ = rounds[0][cases[0]]
        found[name] = {"rows": rows, "dim": vectors.shape[1], "bytes": held} | {
            f"{ranks}, {network}": [min(times) for times in zip(
                *(one[ranks, network][2] for one in rounds))] for ranks, network in cases}
    found["run"] = (f"{cpu}, {os.cpu_count()} cores, {datetime.date.today()}: medians of a second, the best of "
                    f"{ROUNDS} interleaved rounds. The load was {min(loads):.1f} to {max(loads):.1f}, of which "
                    f"up to {max(RANKS)} are these ranks; the rest is other work.")
    return found


def table(heads, rows):
    first, *others = (f"| {' | '.join(line)} |" for line in (heads, *rows))
    return "\n".join([first, "|" + "---:|" * len(heads), *others])


def measured_part(found):
    parts = [found["run"]]
    for name in ("few", "words", "drawn"):
        base = found[name]
        rows = [[case, *(f"{time:,.1f}" for time in times)]
                for case, times in base.items() if isinstance(times, list)]
        parts += [f"{base['rows']:,} rows of {base['dim']} floats, µs a query:",
                  table(["ranks", *(f"{batch} at once" for batch in BATCHES)], rows)]
    return parts


def on_network(ranks, batch):
    """Seconds of messages, one after the other, along trees over the ranks."""
    sizes = [QUESTION, 8, 8, HIT * K * batch]
    if batch > 1:  # queries that have a message of their own, after their size and an agreement
        sizes += [16, 8, 8, 4 * DIM * batch]
    hop = sum(LATENCY_US * 1e-6 + 8 * size / (GBIT * 1e9) for size in sizes)
    return math.ceil(math.log2(ranks)) * hop


def plan_part(found):
    drawn = found["drawn"]
    row_bytes = drawn["bytes"] / drawn["rows"]
    speeds = [drawn["rows"] / time for time in drawn["1, memory"]]  # million rows a second
    def row(memory):
        # While rows are compacted, they are there twice.
        machines = math.ceil(ROWS * 2 * row_bytes / (USABLE * memory * 2 ** 30))
        least = ROWS / machines * (DIM + 5) / (MACHINE_GBS * 1e9)  # to read the codes once
        times = [max(least, ROWS / machines * batch / (speed * 1e6 * CORES / found["cores"]))
                 + on_network(machines, batch) for batch, speed in zip(BATCHES, speeds)]
        return [f"{memory:,} GiB", f"{machines}", f"{times[0]:.2f} s", f"{times[-1]:.2f} s"]
    said = (f"Measured: {row_bytes:,.0f} bytes a row of {DIM} floats; on {found['cores']} cores "
            f"{speeds[0]:,.1f} million rows a second for one query, and {speeds[-1]:,.1f} million for "
            f"each of {BATCHES[-1]}. Assumed: machines of {CORES} cores, in proportion, whose memory "
            f"gives {MACHINE_GBS} GB/s; {LATENCY_US} µs and {GBIT} Gbit/s for a message.")
    return [said, table(["memory of a machine", "machines", "one query", f"{BATCHES[-1]} at once"],
                        map(row, (512, 1024, 2048)))]


def filled(text):
    """A file's text with the tables between their marks."""
    found = json.loads(RESULTS.read_text())
    for mark, made in (("measured", measured_part(found)), ("planned", plan_part(found))):
        begin, end = f"<!-- {mark} -->", f"<!-- end of {mark} -->"
        before, rest = text.split(begin)
        text = "\n\n".join([before + begin, *made, end + rest.split(end)[1]])
    return text


def main():
    if sys.argv[1:] == ["measure"]:
        with tempfile.TemporaryDirectory() as folder:
            found = measure(pathlib.Path(folder))
        lines = (f"{json.dumps(name)}: {json.dumps(result)}" for name, result in found.items())
        RESULTS.write_text("{\n" + ",\n".join(lines) + "\n}\n")
    elif len(sys.argv) == 3 and sys.argv[1] in ("write", "check"):
        file = pathlib.Path(sys.argv[2])
        text = filled(file.read_text())
        if sys.argv[1] == "check" and file.read_text() != text:
            sys.exit(f"scale: {file} has other tables; run scale.py write {file}")
        file.write_text(text)
        print(f"the tables of {file} are those of the measurements and the plan")
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    try:
        main()
    except subprocess.CalledProcessError as error:
        sys.exit(f"scale: {error}\n{error.stderr}")
