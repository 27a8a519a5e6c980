#!/usr/bin/env python3
"""Measures the extension beside sqlite-vec, in the same rounds, and writes docs/SQLITE.md.

bench.py --qx FILE --vec FILE [--rows N] [--rounds N]

What a first search takes, and memory, is measured in a process of its own:
bench.py --first FILE DATABASE CONNECTIONS
"""
import argparse
import os
import pathlib
import platform
import sqlite3
import statistics
import subprocess
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


def first_search(extension, path, count):
    """The milliseconds of the first search of a process, and of that of its last connection; then the
    megabytes that all have taken."""
    def anonymous():
        with open("/proc/self/status", encoding="utf-8") as status:
            return next(int(line.split()[1]) for line in status if line.startswith("RssAnon")) / 1000

    before = anonymous()
    held, times = [], []
    for _ in range(count):
        held.append(connect(path, extension))
        query, = held[-1].execute("SELECT embedding FROM t LIMIT 1").fetchone()
        started = time.perf_counter()
        held[-1].execute(f"SELECT rowid FROM t WHERE embedding MATCH ? AND k = {K}", [query]).fetchall()
        times.append(time.perf_counter() - started)
    time.sleep(1)  # codes are made after the first search
    print(times[0], times[-1], anonymous() - before)


class Peers:
    """Both tables, each in a database of its own, and what each took for each work."""

    def __init__(self, folder, options, dim):
        column, label = f"embedding float[{dim}]", "label integer"
        self.databases, self.extensions = [], (options.qx, options.vec)
        self.folder, self.raw, self.codes = folder, 0, 0
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

    def first_searches(self, rounds):
        """In processes of their own: with one connection and with ten."""
        for number, extension in enumerate(self.extensions):
            for work, count in (("one connection", 1), ("ten connections", 10)):
                for _ in range(rounds):
                    done = subprocess.run([sys.executable, __file__, "--first", extension,
                                           f"{self.folder}/{number}.db", str(count)],
                                          capture_output=True, text=True, check=True)
                    first, last, megabytes = map(float, done.stdout.split())
                    name = f"{'first search' if count == 1 else 'first search of the tenth connection'}"
                    self.keep(name, number, first if count == 1 else last)
                self.keep(f"memory of {work}, by vectors and codes", number,
                          megabytes * 1e6 / (self.raw + self.codes))

    def keep(self, work, number, value):
        self.times.setdefault(work, ([], []))[number].append(value)

    def file_sizes(self):
        for number, database in enumerate(self.databases):
            database.execute("PRAGMA wal_checkpoint(TRUNCATE)")
            size = os.path.getsize(f"{self.folder}/{number}.db")
            self.keep("file, by the vectors", number, size / self.raw)

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
        peers.raw, peers.codes = vectors.nbytes, count * (dim + 6)
        peers.file_sizes()
        peers.first_searches(5)
        *queries, last = vectors[draw.integers(0, count, rounds + 1)]
        peers.search("", last)
        peers.times.pop("")
        for query in queries:
            unequal += peers.search("exact, k = 10", query)
            unequal += peers.search("filtered by label, 1 % pass", query, "AND label = ?",
                                    int(draw.integers(0, 100)))
            unequal += peers.search("filtered by label, 10 % pass", query, "AND label < ?", 10)
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
    lines = [f"## {title}", "", "| work | qx | sqlite-vec | theirs, times ours |", "|---|---:|---:|---:|"]
    for work, times in peers.times.items():
        own, other = map(statistics.median, times)
        show_value = "{:.2f}".format if ", by " in work else text
        lines.append(f"| {work} | {show_value(own)} | {show_value(other)} | {other / own:.1f} |")
    lines += ["", f"Of {4 * rounds} pairs of answers, {unequal} differ in their sets of rows.", ""]
    return lines


def text(seconds):
    return f"{1e6 * seconds:.1f} µs" if seconds < 1e-3 else f"{1e3 * seconds:.2f} ms"


def unit(vectors):
    return (vectors / np.linalg.norm(vectors, axis=1, keepdims=True)).astype("<f4")


def main():
    if sys.argv[1:2] == ["--first"]:
        return first_search(sys.argv[2], sys.argv[3], int(sys.argv[4]))
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
    draw = np.random.default_rng(1)
    tables = measure("30,000 drawn vectors of dimension 768",
                     unit(draw.standard_normal((30_000, 768), dtype=np.float32)), options.rounds, options)
    vectors = read_words(full=True)[1]
    tables += measure(f"{len(vectors):,} words of dimension 100", vectors, options.rounds, options)
    drawn = draw.standard_normal((options.rows, 128), dtype=np.float32)
    tables += measure(f"{options.rows:,} drawn vectors of dimension 128", unit(drawn),
                      options.rounds, options)
    peer = connect(":memory:", options.vec).execute("SELECT vec_version()").fetchone()[0]
    PAGE.write_text("\n".join([
        "# SQLite: beside sqlite-vec", "",
        "Written by `hosts/sqlite/bench`. Both extensions run in one process, each on a database of its "
        "own (WAL), in the same rounds; the medians count. First searches and memory are of processes of their "
        "own, whose files the system has in memory; codes are a byte a number and six a row. Searches of the two "
        "alternate, and each begins with the caches full of the other's rows. Vectors have "
        "length 1, so that the cosine of the one ranks as the inner product of the other.", "",
        f"SQLite {sqlite3.sqlite_version}, sqlite-vec {peer}, Python {platform.python_version()}, "
        f"{os.cpu_count()} CPUs; the load of the machine was {load_before:.1f} before and "
        f"{os.getloadavg()[0]:.1f} after.", "", *tables]).rstrip() + "\n")
    show(f"written: {PAGE.relative_to(ROOT)}")


if __name__ == "__main__":
    main()
