"""Measures recall and speed of lists beside Faiss and hnswlib, and writes a page and pictures of them.

lists.py FOLDER JSON DOCS [--without-graph]    bench/lists calls it
"""
import json
import os
import pathlib
import subprocess
import sys
import time

import numpy as np

import machine
import plots
from words import read_vectors

HELD_OUT, QUERIES = 500, 200
SETS = {"words": ("All words", 600), "million": ("A made million", 1000)}
NAMES = {"lists": "qx_collection, lists", "inverted": "Faiss IndexIVFFlat", "graph": "hnswlib, graph",
         "exact": "qx_collection, exact"}


def million():
    """Rows about 10,000 centres, which are about 100."""
    numbers = np.random.default_rng(1)
    draw = lambda *shape: numbers.standard_normal(shape, dtype=np.float32)
    centres = np.repeat(draw(100, 128), 100, axis=0) + np.float32(0.8) * draw(10_000, 128)
    rows = centres[numbers.integers(10_000, size=1_000_000 + HELD_OUT)]
    return rows + np.float32(0.8) * draw(*rows.shape)


def write_set(name, folder, words):
    """Writes rows and queries of length 1, and returns their dimension."""
    vectors = read_vectors(words) if name == "words" else million()
    vectors /= np.maximum(np.linalg.norm(vectors, axis=1, keepdims=True), np.float32(1e-30))
    order = np.random.default_rng(1).permutation(len(vectors))
    vectors[np.sort(order[:HELD_OUT])[:QUERIES]].tofile(folder / f"{name}.queries")
    vectors[np.sort(order[HELD_OUT:])].tofile(folder / f"{name}.rows")
    return vectors.shape[1]


def measure(name, folder, words, may_lack_graph):
    dim = write_set(name, folder, words)
    graph = folder / f"{name}.graph"
    if may_lack_graph and not graph.with_suffix(".graph.cost").exists():
        graph = "-"
    lines = subprocess.run([folder / "lists", folder / f"{name}.rows", folder / f"{name}.queries", str(dim),
                            str(SETS[name][1]), graph], check=True, stdout=subprocess.PIPE, text=True,
                           env={**os.environ, "OPENBLAS_NUM_THREADS": "1"}).stdout
    return [json.loads(line) for line in lines.splitlines()]


def picture(title, points):
    exact = next(point["rate"] for point in points if point["name"] == "exact")
    least = min(point["recall"] for point in points) // 0.1 / 10
    series = [plots.Series(NAMES["exact"], [(least, exact), (1.0, exact)], plots.COLOURS[5], 1.6, "5 4")]
    for name, colour in zip(("lists", "inverted", "graph"), plots.COLOURS):
        found = [(point["recall"], point["rate"]) for point in points if point["name"] == name]
        series += [plots.Series(NAMES[name], found, colour)] if found else []
    ticks = [(i / 10, f"{i / 10:.1f}") for i in range(round(10 * least), 11)]
    return plots.chart(title, [("", plots.Axis(ticks, least, 1.005, label="recall of the 10 nearest"),
                                series[1:] + series[:1])],
                       plots.decades("queries a CPU second", [point["rate"] for point in points]))


def page_of(title, name, lines):
    built = {line["built"]: line for line in lines if "built" in line}
    rates = {(line["name"], line["effort"]): line for line in lines if "name" in line}
    exact = rates["exact", 0]["rate"]
    kept = built["rows"]["bytes"] + built["lists"]["bytes"]
    text = f"\n## {title}\n\n![Recall and queries a second](benchmarks/lists_{name}.svg)\n\n"
    text += "| | CPU seconds to make | MB |\n|---|---:|---:|\n"
    text += (f"| qx_collection: rows | {built['rows']['seconds']:.1f} | {built['rows']['bytes'] / 1e6:.0f} |\n"
             f"| and {SETS[name][1]} lists | {built['lists']['seconds']:.1f} | {kept / 1e6:.0f} |\n")
    for which in ("inverted", "graph"):
        if which in built:
            text += (f"| {NAMES[which]} | {built[which]['seconds']:.1f} | "
                     f"{built[which]['bytes'] / 1e6:.0f} |\n")
        else:
            text += f"| {NAMES[which]} | not made: `--without-graph` | |\n"
    text += ("\n| | probes, ef | recall | queries a CPU second | × exact | spread |\n"
             "|---|---:|---:|---:|---:|---:|\n")
    for (which, effort), line in sorted(rates.items(), key=lambda item: list(NAMES).index(item[0][0])):
        text += (f"| {NAMES[which]} | {effort or '–'} | {line['recall']:.3f} | {line['rate']:,.0f} | "
                 f"{line['rate'] / exact:.2f} | {line['least'] / line['rate'] * 100 - 100:+.0f} … "
                 f"{line['most'] / line['rate'] * 100 - 100:+.0f} % |\n")
    return text


def main():
    folder, words, docs = map(pathlib.Path, sys.argv[1:4])
    before, pages = os.getloadavg()[0], ""
    for name, (title, _) in SETS.items():
        lines = measure(name, folder, words, "--without-graph" in sys.argv[4:])
        points = [line for line in lines if "name" in line]
        (docs / f"benchmarks/lists_{name}.svg").write_text(
            picture(f"{title}: recall and queries a CPU second", points))
        pages += page_of(title, name, lines)
    text = f"""# Lists, beside other indexes

Written by `bench/lists`. The 10 rows with the largest inner product are asked for, of vectors of length 1, \
one query at a time, on one thread: through `qx_collection.h`, Faiss 1.7.3 (`IndexIVFFlat` with as many \
lists) and hnswlib 0.6.2 (`HierarchicalNSW`, M 16, efConstruction 200), Debian's packages: Faiss is built \
for any x86-64, hnswlib, of headers alone, for the machine. {QUERIES} queries are not among the rows. Settings are \
interleaved in 5 rounds, of which the median counts; a *CPU second* is one that the thread ran for. Recall \
is the share of the rows that the exact search finds. *All words* are those of `scripts/fetch_words`, of \
dimension 100; the *made million*, of dimension 128, is drawn about 10,000 centres, which are drawn about \
100: normal numbers, the first of standard deviation 1, the others of 0.8. Memory is that which the \
process has more of.

{machine.cpu()}. The load of the machine was {before:.1f} before and {os.getloadavg()[0]:.1f} after: above \
1, others shared its cores, caches and memory, so figures are low, and only ratios hold. \
{time.strftime('%Y-%m-%d')}.
{pages}"""
    (docs / "LISTS.md").write_text(text)
    print(text, end="")


main()
