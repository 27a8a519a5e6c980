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


def connect(path, extension):
    database = sqlite3.connect(path, isolation_level=None)
    database.enable_load_extension(True)
    database.load_extension(extension)
    return database


class Peers:
    """Both tables, each in a database of its own, and what each took for each work."""

    def __init__(self, folder, options, dim):
        column, label = f"embedding float[{dim}]", "label integer"
        self.databases = []
        self.times = {}
        for extension, declaration in (
                (options.qx, f"qx({column}, {label})"),
                (options.vec, f"vec0({column} distance_metric=cosine, {label})")):
            database = connect(f"{folder}/{len(self.databases)}.db", extension)
            database.execute("PRAGMA journal_mode = WAL")
            database.execute("PRAGMA synchronous = NORMAL")
            database.execute(f"CREATE VIRTUAL TABLE t USING {declaration}")
            self.databases.append(database)

    def measure(self, work, run, rows=1):
        """What run(database) gives of both, after its time a row is kept."""
        found = []
        for number, database in enumerate(self.databases):
            started = time.perf_counter()
            found.append(run(database))
            taken = (time.perf_counter() - started) / rows
            self.times.setdefault(work, ([], []))[number].append(taken)
        return found

    def write(self, work, sql, rows):
        def run(database):
            database.execute("BEGIN")
            database.executemany(sql, rows)
            database.execute("COMMIT")
        self.measure(work, run, len(rows))

    def search(self, work, query, more="", *values):
        """Whether the answers are different sets of rows."""
        sql = f"SELECT rowid FROM t WHERE embedding MATCH ? AND k = {K} {more}"
        given = [query.tobytes(), *values]
        one, other = self.measure(work, lambda database: database.execute(sql, given).fetchall())
        return set(one) != set(other)


def show(text):
    print(text, file=sys.stderr, flush=True)


def measure(title, vectors, rounds, options):
    """The lines of a table: each work, both times, their ratio."""
    count, dim = vectors.shape
    draw = np.random.default_rng(7)
    labels = draw.integers(0, 100, count).tolist()
    unequal = 0
    with tempfile.TemporaryDirectory(dir=options.folder) as folder:
        peers = Peers(folder, options, dim)
        for first in range(0, count, BATCH):
            peers.write("insert, a row", "INSERT INTO t(rowid, embedding, label) VALUES (?, ?, ?)",
                        [(i, vectors[i].tobytes(), labels[i])
                         for i in range(first, min(first + BATCH, count))])
            if first // BATCH % 10 == 9:
                show(f"{title}: {first + BATCH:,} of {count:,} rows inserted")
        *queries, last = vectors[draw.integers(0, count, rounds + 1)]
        peers.search("first search, which loads the rows", last)
        for query in queries:
            unequal += peers.search("exact, k = 10", query)
            unequal += peers.search("filtered by label, 1 % pass", query, "AND label = ?",
                                    int(draw.integers(0, 100)))
        show(f"{title}: searched")
        for part in np.split(draw.permutation(count)[:DELETED], 10):
            peers.write("delete, a row", "DELETE FROM t WHERE rowid = ?",
                        [(rowid,) for rowid in part.tolist()])
        for database in peers.databases:  # both catch up
            database.execute("SELECT rowid FROM t WHERE embedding MATCH ? AND k = 1",
                             [queries[0].tobytes()]).fetchall()
        unequal += sum(peers.search("exact, after the deletes", query) for query in queries)
        show(f"{title}: done")
        for database in peers.databases:
            database.close()
    lines = [f"## {title}", "", "| work | qx | sqlite-vec | times as fast |", "|---|---:|---:|---:|"]
    for work, times in peers.times.items():
        own, other = map(statistics.median, times)
        lines.append(f"| {work} | {text(own)} | {text(other)} | {other / own:.1f} |")
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
    peer = connect(":memory:", options.vec).execute("SELECT vec_version()").fetchone()[0]
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
