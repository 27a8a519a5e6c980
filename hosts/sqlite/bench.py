#!/usr/bin/env python3
"""Measures the extension beside sqlite-vec, in the same rounds, and writes docs/SQLITE.md.

bench.py --qx FILE --vec FILE [--rows N] [--rounds N]
"""
import argparse
import os
import pathlib
import platform
import sqlite3
import statistics
import sys
import tempfile
import time

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "hosts"))
from word_vectors import read_words

PAGE = ROOT / "docs/SQLITE.md"
K = 10
BATCH = 10_000
DELETED = 2_000


class Peer:
    """One of the two tables, in a database of its own."""

    def __init__(self, name, extension, folder, declaration):
        self.name = name
        self.database = sqlite3.connect(pathlib.Path(folder) / f"{name}.db", isolation_level=None)
        self.database.enable_load_extension(True)
        self.database.load_extension(extension)
        self.database.execute("PRAGMA journal_mode = WAL")
        self.database.execute("PRAGMA synchronous = NORMAL")
        self.database.execute(declaration)

    def write(self, sql, rows):
        """The time of one transaction, a row."""
        started = time.perf_counter()
        self.database.execute("BEGIN")
        self.database.executemany(sql, rows)
        self.database.execute("COMMIT")
        return (time.perf_counter() - started) / len(rows)

    def insert(self, first, vectors, labels):
        return self.write("INSERT INTO t(rowid, embedding, label) VALUES (?, ?, ?)",
                          [(first + i, vector.tobytes(), int(label))
                           for i, (vector, label) in enumerate(zip(vectors, labels))])

    def delete(self, rowids):
        return self.write("DELETE FROM t WHERE rowid = ?", [(int(rowid),) for rowid in rowids])

    def search(self, query, label=None):
        """The time, and the rowids that were found."""
        sql = "SELECT rowid FROM t WHERE embedding MATCH ? AND k = ?"
        values = [query.tobytes(), K]
        if label is not None:
            sql += " AND label = ?"
            values.append(label)
        started = time.perf_counter()
        found = self.database.execute(sql, values).fetchall()
        return time.perf_counter() - started, {rowid for rowid, in found}


def show(text):
    print(text, file=sys.stderr, flush=True)


def measure(title, vectors, rounds, options):
    """The lines of a table: each work, both times, their ratio."""
    count, dim = vectors.shape
    draw = np.random.default_rng(7)
    labels = draw.integers(0, 100, count)
    with tempfile.TemporaryDirectory(dir=options.folder) as folder:
        ours = Peer("qx", options.qx, folder,
                    f"CREATE VIRTUAL TABLE t USING qx(embedding float[{dim}], label integer)")
        theirs = Peer("vec", options.vec, folder,
                      f"CREATE VIRTUAL TABLE t USING vec0(embedding float[{dim}] "
                      "distance_metric=cosine, label integer)")
        peers = ours, theirs
        times = {work: ([], []) for work in ("insert, a row", "first search, which loads the rows",
                                             "exact, k = 10", "filtered by label, 1 % pass",
                                             "delete, a row", "exact, after the deletes")}
        unequal = 0
        for first in range(0, count, BATCH):
            part = slice(first, first + BATCH)
            for i, peer in enumerate(peers):
                times["insert, a row"][i].append(peer.insert(first, vectors[part], labels[part]))
            if first // BATCH % 10 == 9:
                show(f"{title}: {first + BATCH:,} of {count:,} rows inserted")
        queries = draw.integers(0, count, rounds + 1)
        for i, peer in enumerate(peers):
            times["first search, which loads the rows"][i].append(
                peer.search(vectors[queries[rounds]])[0])

        def round_of(work, number, label=None):
            found = []
            for i, peer in enumerate(peers):
                taken, rowids = peer.search(vectors[queries[number]], label)
                times[work][i].append(taken)
                found.append(rowids)
            return found[0] != found[1]

        for number in range(rounds):
            unequal += round_of("exact, k = 10", number)
            unequal += round_of("filtered by label, 1 % pass", number, int(draw.integers(0, 100)))
        show(f"{title}: searched")
        gone = draw.permutation(count)[:DELETED]
        for part in np.split(gone, 10):
            for i, peer in enumerate(peers):
                times["delete, a row"][i].append(peer.delete(part))
        for peer in peers:
            peer.search(vectors[queries[0]])
        for number in range(rounds):
            unequal += round_of("exact, after the deletes", number)
        show(f"{title}: done")
        for peer in peers:
            peer.database.close()
    lines = [f"## {title}", "", "| work | qx | sqlite-vec | times as fast |", "|---|---:|---:|---:|"]
    for work, (own, other) in times.items():
        mine, its = statistics.median(own), statistics.median(other)
        lines.append(f"| {work} | {text(mine)} | {text(its)} | {its / mine:.1f} |")
    lines += ["", f"Of {3 * rounds} pairs of answers, {unequal} differ in their sets of rows.", ""]
    return lines


def text(seconds):
    return f"{1e6 * seconds:.1f} µs" if seconds < 1e-3 else f"{1e3 * seconds:.2f} ms"


def unit(vectors):
    return (vectors / np.linalg.norm(vectors, axis=1, keepdims=True)).astype("<f4")


def main():
    parser = argparse.ArgumentParser(prog="bench.py", description=__doc__.splitlines()[0])
    parser.add_argument("--qx", required=True)
    parser.add_argument("--vec", required=True)
    parser.add_argument("--rows", type=int, default=1_000_000)
    parser.add_argument("--rounds", type=int, default=21)
    parser.add_argument("--folder", help="where the databases are made")
    options = parser.parse_args()
    if options.rows < DELETED or options.rounds < 1:
        parser.error(f"--rows is {DELETED:,} or more, --rounds is 1 or more")
    load_before = os.getloadavg()[0]
    vectors = read_words(full=True)[1]
    tables = measure(f"{len(vectors):,} words of dimension 100", vectors, options.rounds, options)
    drawn = np.random.default_rng(1).standard_normal((options.rows, 128), dtype=np.float32)
    tables += measure(f"{options.rows:,} drawn vectors of dimension 128", unit(drawn),
                      options.rounds, options)
    version = sqlite3.connect(":memory:")
    version.enable_load_extension(True)
    version.load_extension(options.vec)
    peer = version.execute("SELECT vec_version()").fetchone()[0]
    PAGE.write_text("\n".join([
        "# SQLite: beside sqlite-vec", "",
        "Written by `hosts/sqlite/bench`. Both extensions run in one process, each on a database of its "
        "own (WAL), in the same rounds; the medians count. Vectors have length 1, so that the cosine of "
        "the one ranks as the inner product of the other.", "",
        f"SQLite {sqlite3.sqlite_version}, sqlite-vec {peer}, Python {platform.python_version()}, "
        f"{os.cpu_count()} CPUs; the load of the machine was {load_before:.1f} before and "
        f"{os.getloadavg()[0]:.1f} after.", "", *tables]).rstrip() + "\n")
    show(f"written: {PAGE.relative_to(ROOT)}")


if __name__ == "__main__":
    main()
