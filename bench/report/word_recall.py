"""Measures recall and queries a second on word vectors, and writes a page and a picture of them.

word_recall.py JSON DOCS    bench/word_recall calls it
"""
import os
import pathlib
import statistics
import sys
import time

import numpy as np

import machine
import plots
from words import read_vectors

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "bindings/python/ann_benchmarks"))
from module import QxRuntimeExact, QxRuntimeIVF  # noqa: E402

QUERIES, K, ROUNDS = 1000, 10, 5
LISTS = (512, 2048)
PROBES = (1, 2, 4, 8, 16, 32, 64, 128)


def progress(text):
    print(text, file=sys.stderr, flush=True)


def time_queries(contestant, queries):
    """Seconds for all queries, asked one by one: of the thread's CPU, of the clock. And what it found."""
    begin, busy = time.perf_counter(), time.thread_time()
    found = [contestant.query(query, K) for query in queries]
    return (time.thread_time() - busy, time.perf_counter() - begin), found


def measure(rows, queries):
    """For each name and probe count: recall and the seconds of each round."""
    exact = QxRuntimeExact("angular")
    exact.fit(rows)
    contestants = [("exact", exact, None)]
    for lists in LISTS:
        ivf = QxRuntimeIVF("angular", lists)
        begin = time.perf_counter()
        ivf.fit(rows)
        progress(f"{lists} lists made in {time.perf_counter() - begin:.0f} s")
        contestants += [(f"{lists} lists", ivf, probes) for probes in PROBES]
    truth = None
    seconds, recalls = {}, {}
    for number in range(ROUNDS):
        for name, contestant, probes in contestants:  # interleaved: a round asks each of them once
            if probes:
                contestant.set_query_arguments(probes)
            took, found = time_queries(contestant, queries)
            truth = truth if truth is not None else [set(ids.tolist()) for ids in found]
            seconds.setdefault((name, probes), []).append(took)
            hits = sum(len(best & set(ids.tolist())) for best, ids in zip(truth, found))
            recalls[name, probes] = hits / (K * len(queries))
        progress(f"round {number + 1} of {ROUNDS}")
    return [(name, probes, recalls[name, probes], times)
            for (name, probes), times in seconds.items()]


def rate(times, clock=0):
    """Queries a second of the CPU; or, with 1, of the clock."""
    return QUERIES / statistics.median(pair[clock] for pair in times)


def picture(results):
    series = []
    for name, colour in zip(dict.fromkeys(name for name, *_ in results), plots.COLOURS):
        points = [(recall, rate(times)) for other, _, recall, times in results if other == name]
        series.append(plots.Series(name, points, colour, 2.2 if len(points) > 1 else 4))
    axis = plots.Axis([(i / 10, f"{i / 10:.1f}") for i in range(11)], 0.0, 1.02,
                      label=f"recall of the {K} nearest")
    rates = plots.decades("queries a CPU second", [rate(times) for *_, times in results])
    return plots.chart("Words: recall and queries a CPU second, one thread", [("", axis, series)], rates)


def page(results, rows, dim, load):
    exact = next(rate(times) for name, *_, times in results if name == "exact")
    lines = f"""# Recall and speed on words

Written by `bench/word_recall`, which runs the adapter of `bindings/python/ann_benchmarks`.

{rows:,} words of dimension {dim} are searched, and {QUERIES:,} others, drawn with a fixed seed, are \
asked for, one at a time, for their {K} nearest by angle. One thread; {ROUNDS} interleaved rounds, of \
which the median counts. The time is that of a call of `Collection.search` in Python: a *CPU second* is \
one that the thread ran for, and the other column has the clock's, with the waits for other \
programs. Recall is the share of the ids that the exact search finds. `Collection.train` makes the lists.

{machine.cpu()}. The load of the machine was {load[0]:.1f} before and {load[1]:.1f} after: above 1, \
others shared its cores, caches and memory, so the figures are low. {time.strftime('%Y-%m-%d')}.

![Recall and queries a second](benchmarks/word_recall.svg)

| search | lists probed | recall | queries a CPU second | × exact | spread | queries a second |
|---|---:|---:|---:|---:|---:|---:|
"""
    for name, probes, recall, times in results:
        busy = [pair[0] for pair in times]
        low, high = (end(busy) / statistics.median(busy) * 100 - 100 for end in (min, max))
        lines += (f"| {name} | {probes or '–'} | {recall:.3f} | {rate(times):,.0f} | "
                  f"{rate(times) / exact:.1f} | {low:+.0f} … {high:+.0f} % | {rate(times, 1):,.0f} |\n")
    return lines + "\n*Spread* is that of the CPU time of a round around its median.\n"


def main():
    if len(sys.argv) != 3:
        sys.exit("usage: word_recall.py JSON DOCS")
    progress("Reading the words ...")
    vectors = read_vectors(sys.argv[1])
    order = np.random.default_rng(1).permutation(len(vectors))
    queries, rows = vectors[np.sort(order[:QUERIES])], vectors[np.sort(order[QUERIES:])]
    before = os.getloadavg()[0]
    results = measure(rows, queries)
    docs = pathlib.Path(sys.argv[2])
    (docs / "benchmarks/word_recall.svg").write_text(picture(results))
    text = page(results, len(rows), rows.shape[1], (before, os.getloadavg()[0]))
    (docs / "WORD_RECALL.md").write_text(text)
    print(text, end="")


if __name__ == "__main__":
    main()
