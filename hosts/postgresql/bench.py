#!/usr/bin/env python3
"""Measures the extension beside others in the same rounds, and writes docs/POSTGRESQL.md.

bench.py [--rows N] [--rounds N] [--quick]
"""
import argparse
import io
import os
import pathlib
import re
import statistics
import sys
import threading
import time

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / folder) for folder in ("hosts", "hosts/postgresql", "bench/report", "bindings/python")]
import machine
import qx_runtime
from cluster import Cluster
from word_vectors import read_words

K = 10
INSERTED = 1000
SETTINGS = """
shared_buffers = 3GB
max_wal_size = 8GB
checkpoint_timeout = 1h
autovacuum = off
jit = off
max_parallel_workers_per_gather = {cpus}
qx.warn_scans = off
qx.use_index = off
"""
TABLES = """
CREATE EXTENSION qx;
CREATE TABLE t (id bigint PRIMARY KEY, v real[], label int);
CREATE TABLE plain (id bigint PRIMARY KEY, v real[], label int);
CREATE TABLE plain_log (id bigint);
CREATE FUNCTION log_id() RETURNS trigger LANGUAGE plpgsql AS
  'BEGIN INSERT INTO plain_log VALUES (NEW.id); RETURN NULL; END';
CREATE TRIGGER log_id AFTER INSERT ON plain FOR EACH ROW EXECUTE FUNCTION log_id();
CREATE FUNCTION any_order(real[], real[]) RETURNS real LANGUAGE c IMMUTABLE STRICT PARALLEL SAFE
  AS '{any_order}', 'any_order';
CREATE OPERATOR <+> (FUNCTION = any_order, LEFTARG = real[], RIGHTARG = real[]);
CREATE FUNCTION by_sql(a real[], b real[]) RETURNS real LANGUAGE sql IMMUTABLE PARALLEL SAFE AS
  'SELECT -sum(x * y)::real FROM unnest(a, b) AS pairs(x, y)';
"""
QUERY = "(SELECT v FROM t WHERE id = %s)"
SEARCH = f"SELECT id FROM qx.search('t', {QUERY}, {K})"
FILTERED = f"SELECT id FROM qx.search('t', {QUERY}, {K}, 'label = 7')"
SCAN = f"SELECT id FROM t ORDER BY {{}} LIMIT {K}"


def show(text):
    print(text, file=sys.stderr, flush=True)


def literal(vector):
    return "{" + ",".join(map(repr, vector.tolist())) + "}"


def text(seconds):
    return f"{1e6 * seconds:.0f} µs" if seconds < 1e-3 else f"{1e3 * seconds:.2f} ms"


def processor_seconds(process):
    fields = pathlib.Path(f"/proc/{process}/stat").read_text().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def running_seconds(process):
    """More exactly."""
    return int(pathlib.Path(f"/proc/{process}/schedstat").read_text().split()[0]) / 1e9


def binary_rows(vectors, labels):
    """What COPY BINARY reads."""
    count, dim = vectors.shape
    rows = np.zeros(count, [
        ("fields", ">i2"), ("of_id", ">i4"), ("id", ">i8"), ("of_v", ">i4"), ("ndim", ">i4"), ("nulls", ">i4"),
        ("type", ">i4"), ("dim", ">i4"), ("first", ">i4"), ("v", [("size", ">i4"), ("x", ">f4")], dim),
        ("of_label", ">i4"), ("label", ">i4")])
    for name, value in {"fields": 3, "of_id": 8, "id": np.arange(count), "of_v": 20 + 8 * dim, "ndim": 1,
                        "type": 700, "dim": dim, "first": 1, "of_label": 4, "label": labels}.items():
        rows[name] = value
    rows["v"]["size"], rows["v"]["x"] = 4, vectors
    return b"PGCOPY\n\xff\r\n\0" + bytes(8) + rows.tobytes() + b"\xff\xff"


class Bench:
    """One set of vectors: a table with an index, a collection, and the times of each work."""

    def __init__(self, title, vectors, rounds):
        self.title, self.vectors, self.rounds = title, vectors, rounds
        self.draw = np.random.default_rng(7)
        self.times = {}
        self.unequal = 0
        self.cluster = Cluster(settings=SETTINGS.format(cpus=os.cpu_count()))
        self.cursor = self.cluster.connect().cursor()
        self.back_end = self.cursor.connection.info.backend_pid

    def keep(self, work, seconds):
        self.times.setdefault(work, []).append(seconds)

    def median(self, work):
        return statistics.median(self.times[work])

    def timed(self, work, run, warm=True):
        if warm:  # brings the data back into the caches
            run()
        started = time.perf_counter()
        found = run()
        self.keep(work, time.perf_counter() - started)
        return found

    def ask(self, work, statement, *values, warm=False):
        def run():
            self.cursor.execute(statement, values or None)
            return self.cursor.fetchall() if self.cursor.description else None
        return self.timed(work, run, warm)

    def fill(self):
        self.cursor.execute(TABLES.format(any_order=ROOT / "build/postgresql/any_order.so"))
        labels = self.draw.integers(0, 100, len(self.vectors))
        for first in range(0, len(self.vectors), 100_000):
            part = slice(first, first + 100_000)
            rows = binary_rows(self.vectors[part], labels[part])
            self.cursor.execute("TRUNCATE plain")
            self.cursor.copy_expert("COPY plain FROM STDIN BINARY", io.BytesIO(rows))
            self.cursor.execute("INSERT INTO t SELECT id + %s, v, label FROM plain", (first,))
        self.cursor.execute("TRUNCATE plain; TRUNCATE plain_log")
        self.cursor.execute("VACUUM ANALYZE t")
        self.cursor.execute("SELECT qx.create_index('t', 'v', '{label}')")
        show(f"{self.title}: {len(self.vectors):,} rows in the table")
        dim = self.vectors.shape[1]
        self.collection = qx_runtime.Collection(dim, columns={"label": int})
        self.collection.upsert(np.arange(len(self.vectors)), self.vectors, label=labels)
        self.collection.compact()

    def load(self):
        """From the first search, which starts the worker, to its answer."""
        for _ in range(7):
            self.cursor.execute("SELECT pg_terminate_backend(pid, 10000) FROM pg_stat_activity "
                                "WHERE backend_type = 'qx worker'")
            self.ask("load", SEARCH, 0)
            self.cursor.execute("SELECT pid FROM pg_stat_activity WHERE backend_type = 'qx worker'")
            self.keep("work of load", sum(map(processor_seconds, [*self.cluster.programs(), self.cursor.fetchone()[0]])))
        show(f"{self.title}: loaded")

    def search(self):
        queries = self.draw.integers(0, len(self.vectors), self.rounds).tolist()
        for number, row in enumerate(queries):
            query = self.vectors[row]
            found = self.ask("search", SEARCH, row, warm=True)
            held = self.timed("in process", lambda q=query: self.collection.search(q, K))
            self.unequal += [hit[0] for hit in found] != np.asarray(held.ids).ravel().tolist()
            self.ask("as text", f"SELECT id FROM qx.search('t', %s, {K})", literal(query), warm=True)
            self.ask("filtered", FILTERED, row, warm=True)
            self.timed("filtered in process", lambda q=query: self.collection.search(q, K, filter="label = 7"))
            if number < 7:
                self.unequal += self.ask("operator", SCAN.format(f"v OPERATOR(qx.<#>) {QUERY}"), row) != found
                self.ask("any order", SCAN.format(f"v <+> {QUERY}"), row)
        show(f"{self.title}: searched")
        self.cursor.execute("SET max_parallel_workers_per_gather = 0")
        for row in queries[:3 if len(self.vectors) < 500_000 else 1]:
            self.ask("SQL function", SCAN.format(f"by_sql(v, {QUERY})"), row)

    def clients(self, seconds):
        """Searches a second of one and of two clients, which are pgbench, and of as many threads in process."""
        script = self.cluster.folder / "search.sql"
        script.write_text(f"\\set row random(0, {len(self.vectors) - 1})\n{SEARCH.replace('%s', ':row')}\n")
        script.chmod(0o644)
        collection = self.collection

        def of_server(count, threads):
            said = self.cluster.run(
                "pgbench", "-h", self.cluster.folder, "-U", "postgres", "-n", "-M", "prepared", "-c", count, "-j", count,
                "-T", seconds, "-f", script, "postgres",
                env=os.environ | {"PGOPTIONS": f"-c qx.search_threads={threads}"})
            return float(re.search(r"tps = ([\d.]+)", said)[1])

        def in_process(count):
            counts, end = [], time.perf_counter() + seconds

            def ask(draw):
                done = 0
                while time.perf_counter() < end:
                    collection.search(self.vectors[draw.integers(len(self.vectors))], K, threads=1)
                    done += 1
                counts.append(done)
            running = [threading.Thread(target=ask, args=(np.random.default_rng(n),)) for n in range(count)]
            for thread in running:
                thread.start()
            for thread in running:
                thread.join()
            return sum(counts) / seconds

        for _ in range(9):
            for count in (1, 2):
                for threads in (0, 1):
                    self.keep(f"clients {count}, threads {threads}", of_server(count, threads))
                self.keep(f"threads {count}", in_process(count))

    def insert(self):
        self.cursor.execute(f"CREATE TEMP TABLE rows AS SELECT id, v, label FROM t LIMIT {INSERTED}")
        next_id = len(self.vectors)
        for _ in range(15):
            for table in ("t", "plain"):
                began = running_seconds(self.back_end)
                self.ask(f"insert into {table}",
                         f"INSERT INTO {table} SELECT id + {next_id}, v, label FROM rows")
                self.keep(f"work of insert into {table}", running_seconds(self.back_end) - began)
                for i in range(100):
                    self.ask(f"insert one into {table}", f"INSERT INTO {table} SELECT {next_id + INSERTED + i}, "
                             f"v, label FROM rows LIMIT 1")
            next_id += 2 * INSERTED

    def run(self):
        try:
            self.fill()
            self.load()
            self.search()
            self.clients(1)
            self.insert()
        finally:
            self.cursor.connection.close()
            self.cluster.close()
        return self.lines()

    def lines(self):
        median = self.median
        found, held = median("search"), median("in process")
        rows = [("k = 10", found, "the collection in process", held, "1.3 times + 150 µs",
                 found <= 1.3 * held + 150e-6)]
        for name, work, goal in (("the operator `<#>`, parallel", "operator", 20),
                                 ("an operator in any order, parallel", "any order", None),
                                 ("an SQL function", "SQL function", None)):
            rows.append(("k = 10", found, name, median(work), goal and f"{goal} times faster",
                         goal and median(work) >= goal * found))
        rows += [("k = 10, the query as text", median("as text"), "the query as a row", found, None, None),
                 ("1 % pass a filter", median("filtered"), "unfiltered", found, "as fast",
                  median("filtered") <= found),
                 ("1 % pass a filter", median("filtered"), "the collection in process",
                  median("filtered in process"), None, None)]
        for name, work in ((f"{INSERTED:,} rows inserted at once", "insert into"),
                           ("one row inserted", "insert one into")):
            one, other = median(f"{work} t"), median(f"{work} plain")
            rows.append((name, one, "a table whose trigger logs the id", other, "1.5 times", one <= 1.5 * other))
        rows.append((f"{INSERTED:,} rows, time of a CPU that the back end has", median("work of insert into t"),
                     "a table whose trigger logs the id", median("work of insert into plain"), None, None))
        lines = [f"## {self.title}", "", "| work | qx | beside | | theirs, times ours | goal | |",
                 "|---|---:|---|---:|---:|---|---|"]
        for work, one, name, other, goal, reached in rows:
            verdict = "" if goal is None else "yes" if reached else "**no**"
            lines.append(f"| {work} | {text(one)} | {name} | {text(other)} | {other / one:.2f} | {goal or ''} | {verdict} |")
        speed = self.vectors.nbytes / median("load") / 1e6
        work = self.vectors.nbytes / median("work of load") / 1e6
        lines += ["", f"Loading, from the first search to its answer: {median('load'):.2f} s, {speed:.0f} MB of vectors a "
                      f"second (goal: 300, {'yes' if speed >= 300 else '**no**'}); {work:.0f} MB for each second that "
                      "worker and program have of a CPU.", ""]
        for threads, name in ((1, "one thread"), (0, "all threads")):
            one, two = (median(f"clients {count}, threads {threads}") for count in (1, 2))
            goal = f" (goal: 1.6, {'yes' if two >= 1.6 * one else '**no**'})" if threads == 1 else ""
            lines += [f"Clients with {name} a search: one has {one:.0f} answers a second, two have {two:.0f}, "
                      f"{two / one:.2f} times as many{goal}.", ""]
        one, two = median("threads 1"), median("threads 2")
        lines += [f"In process: one thread has {one:.0f} answers a second, two have {two:.0f}, {two / one:.2f} times as "
                  "many, which is what this machine gives.", ""]
        return lines + [f"Answers that differ from those of the collection or of `<#>`: {self.unequal}.", ""]


def main():
    parser = argparse.ArgumentParser(prog="bench.py", description=__doc__.splitlines()[0])
    parser.add_argument("--rows", type=int, default=1_000_000)
    parser.add_argument("--rounds", type=int, default=51)
    parser.add_argument("--quick", action="store_true", help="20,000 words and 50,000 drawn vectors")
    options = parser.parse_args()
    rows = 50_000 if options.quick else options.rows
    page = ROOT / ("build/postgresql/POSTGRESQL.md" if options.quick else "docs/POSTGRESQL.md")
    load_before = os.getloadavg()[0]
    words = read_words(full=not options.quick)[1]
    lines = Bench(f"{len(words):,} words of dimension 100", words, options.rounds).run()
    drawn = np.random.default_rng(1).standard_normal((rows, 384), dtype=np.float32)
    drawn /= np.linalg.norm(drawn, axis=1, keepdims=True)
    lines += Bench(f"{rows:,} drawn vectors of dimension 384", drawn, options.rounds).run()
    page.write_text("\n".join([
        "# PostgreSQL: beside the collection and scans", "",
        "Written by `hosts/postgresql/bench`. Contestants take turns in the same rounds, and medians count. "
        "Queries are rows of the table, which the server looks up; the work of a client on the same "
        "machine, in Python, is in every figure but those of clients, which are pgbench. The operator in any order is a "
        "loop that the compiler may reorder, for "
        "this CPU; `<#>` has the bits of the index.", "",
        f"PostgreSQL 15, {machine.cpu()}, caches {machine.caches()}; the load of the machine was "
        f"{load_before:.1f} before and {os.getloadavg()[0]:.1f} after.", "", *lines]).rstrip() + "\n")
    show(f"written: {page.relative_to(ROOT)}")


if __name__ == "__main__":
    main()
