#!/usr/bin/env python3
"""Measures what a search over 1 to 5 shards costs, in time and on the wire, and plans a billion rows.

bench_shards.py [--rows N] [--rounds N]    writes docs/benchmarks/shards.json, and the tables of docs/SCALE.md
bench_shards.py --page                     writes the tables alone; --check fails if the page has others
"""
import argparse
import io
import json
import math
import os
import pathlib
import select
import socket
import statistics
import sys
import threading
import time

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path[:0] = [str(ROOT / folder) for folder in ("hosts", "hosts/postgresql", "bench/report")]
RESULTS, PAGE = ROOT / "docs/benchmarks/shards.json", ROOT / "docs/SCALE.md"
COUNTS, DIM, FEW, K = range(1, 6), 768, 100, 10
SETTINGS = "max_worker_processes = 80\nmax_connections = 200\nmax_wal_size = 8GB\nautovacuum = off\njit = off\n"
SEARCH = f"SELECT id, score FROM qx.search('{{}}', (SELECT v FROM asked WHERE id = %s), {K})"
# What is planned, and what is assumed of a machine and a network.
ROWS, CORES, USABLE, MACHINE_GBS, GBIT, LATENCY_US = 1_000_000_000, 64, 0.9, 200, 25, 20


class Relay(threading.Thread):
    """Passes the bytes of connections to a server on, and counts them: to the server, and back."""

    def __init__(self, folder, server):
        super().__init__(daemon=True)
        self.folder, self.server, self.counts, self.pairs = folder, server, [0, 0], {}
        folder.mkdir()
        self.listener = socket.socket(socket.AF_UNIX)
        self.listener.bind(str(folder / ".s.PGSQL.5432"))
        folder.chmod(0o755)
        (folder / ".s.PGSQL.5432").chmod(0o777)
        self.listener.listen()
        self.start()

    def run(self):
        while True:
            for ready in select.select([self.listener, *self.pairs], [], [])[0]:
                if ready is self.listener:
                    client, server = ready.accept()[0], socket.socket(socket.AF_UNIX)
                    server.connect(str(self.server / ".s.PGSQL.5432"))
                    self.pairs |= {client: (server, 0), server: (client, 1)}
                    continue
                if ready not in self.pairs:
                    continue
                other, way = self.pairs[ready]
                try:
                    passed = ready.recv(1 << 20)
                except ConnectionResetError:
                    passed = b""
                self.counts[way] += len(passed)
                if passed:
                    other.sendall(passed)
                else:
                    del self.pairs[ready], self.pairs[other]
                    other.close()


class Bench:
    """The same rows on one server, and spread over 1 to 5 shards; each shard is a database."""

    def __init__(self, cluster, name, vectors, rounds):
        from bench import binary_rows
        self.cluster, self.name, self.vectors, self.rounds = cluster, name, vectors, rounds
        self.binary_rows = binary_rows
        self.one = self.database(f"{name}_one", 0, len(vectors))
        self.coordinator = self.database(f"{name}_coordinator", 0, 0)
        self.coordinator.execute("CREATE EXTENSION postgres_fdw")
        draw = np.random.default_rng(7)
        for number, row in enumerate(draw.integers(0, len(vectors), rounds)):
            query = (vectors[row] + draw.standard_normal(DIM, dtype=np.float32) / 100).tolist()
            for cursor in (self.one, self.coordinator):
                cursor.execute("INSERT INTO asked VALUES (%s, %s)", (number, query))
        for count in COUNTS:
            self.coordinator.execute(f"CREATE TABLE over_{count} (id bigint, v real[]) PARTITION BY RANGE (id)")
            for part in range(count):
                self.add(count, part)

    def database(self, name, first, end):
        self.cluster.connect().cursor().execute(f"CREATE DATABASE {name}")
        cursor = self.cluster.connect(name).cursor()
        cursor.execute("CREATE EXTENSION qx; CREATE TABLE t (id bigint PRIMARY KEY, v real[]);"
                       "CREATE UNLOGGED TABLE read (id bigint, v real[], label int);"
                       "CREATE TABLE asked (id int PRIMARY KEY, v real[])")
        for at in range(first, end, 20_000):
            rows = self.vectors[at:min(at + 20_000, end)]
            cursor.copy_expert("COPY read FROM STDIN BINARY", io.BytesIO(self.binary_rows(rows, np.zeros(len(rows)))))
            cursor.execute("INSERT INTO t SELECT id + %s, v FROM read; TRUNCATE read", (at,))
        cursor.execute("SELECT qx.create_index('t', 'v')")
        return cursor

    def add(self, count, part):
        from shards import add_server
        first, end = (len(self.vectors) * at // count for at in (part, part + 1))
        self.database(f"{self.name}_{count}_{part}", first, end).connection.close()
        server = f"s{count}_{part}"
        add_server(self.coordinator.execute, server, f"{self.name}_{count}_{part}", self.cluster)
        self.coordinator.execute(f"CREATE FOREIGN TABLE {server} PARTITION OF over_{count} FOR VALUES "
                                 f"FROM ({first}) TO ({end}) SERVER {server} OPTIONS (table_name 't')")

    def timed(self, cursor, table, query):
        cursor.execute(SEARCH.format(table), (query,))  # brings the data back into the caches
        started = time.perf_counter()
        cursor.execute(SEARCH.format(table), (query,))
        return time.perf_counter() - started, cursor.fetchall()

    def search(self):
        times, unequal = {count: [] for count in (0, *COUNTS)}, 0
        for query in range(self.rounds):
            took, whole = self.timed(self.one, "t", query)
            times[0].append(took)
            for count in COUNTS:
                took, found = self.timed(self.coordinator, f"over_{count}", query)
                times[count].append(took)
                unequal += found != whole
        return {"us": [1e6 * statistics.median(times[count]) for count in (0, *COUNTS)], "unequal": unequal}

    def wire(self):
        """Bytes of one search, to shards and back, when it is connected."""
        found = []
        relay = Relay(self.cluster.folder / f"relay_{self.name}", self.cluster.folder)
        for count in COUNTS:
            for part in range(count):
                self.coordinator.execute(f"ALTER SERVER s{count}_{part} OPTIONS (SET host '{relay.folder}')")
            self.timed(self.coordinator, f"over_{count}", 0)
            before = list(relay.counts)
            self.coordinator.execute(SEARCH.format(f"over_{count}"), (0,))
            found.append([after - one for after, one in zip(relay.counts, before)])
        return found

    def sizes(self):
        """Bytes of a row, in memory and on disk, and the seconds of loading them."""
        self.one.execute("SELECT bytes, pg_total_relation_size('t') FROM qx.stat_indexes")
        memory, disk = self.one.fetchone()
        loads = []
        for _ in range(5):
            self.one.execute("SELECT pg_terminate_backend(pid, 10000) FROM pg_stat_activity "
                             "WHERE backend_type = 'qx worker' AND datname = current_database()")
            started = time.perf_counter()
            self.one.execute(SEARCH.format("t"), (0,))
            loads.append(time.perf_counter() - started)
        rows = len(self.vectors)
        return {"rows": rows, "memory": memory / rows, "disk": disk / rows, "load": statistics.median(loads)}


def measure(rows, rounds):
    import machine
    from cluster import Cluster
    drawn = np.random.default_rng(1).standard_normal((rows, DIM), dtype=np.float32)
    drawn /= np.linalg.norm(drawn, axis=1, keepdims=True)
    before, found = os.getloadavg()[0], {}
    cluster = Cluster(settings=SETTINGS)
    try:
        for name, vectors in (("few", drawn[:FEW]), ("many", drawn)):
            bench = Bench(cluster, name, vectors, rounds)
            found[name] = bench.search() | {"wire": bench.wire()} | bench.sizes()
            print(f"{name}: measured", file=sys.stderr)
    finally:
        cluster.close()
    found["cores"] = os.cpu_count()
    found["run"] = (f"PostgreSQL 15, {machine.cpu()}, medians of {rounds} rounds in which all take turns; the load of "
                    f"the machine was {before:.1f} before and {os.getloadavg()[0]:.1f} after.")
    return found


def table(heads, rows):
    first, *others = (f"| {' | '.join(line)} |" for line in (heads, *rows))
    return "\n".join([first, "|" + "---:|" * len(heads), *others])


def measured_part(found):
    few, many = found["few"], found["many"]
    names = ["one server", *(f"{count} shard{'s' * (count > 1)}" for count in COUNTS)]
    wire = [("", ""), *((f"{size:,}" for size in sizes) for sizes in many["wire"])]
    rows = [[name, f"{few_us:,.0f}", f"{many_us:,.0f}", *sizes]
            for name, few_us, many_us, sizes in zip(names, few["us"], many["us"], wire)]
    return [found["run"],
            table(["", f"{few['rows']:,} rows, µs", f"{many['rows']:,} rows, µs", "bytes to shards", "bytes back"], rows),
            f"Answers that differ from those of one server: {few['unequal'] + many['unequal']}.",
            f"A row takes {many['memory']:,.0f} bytes of memory and {many['disk']:,.0f} of disk. "
            f"{many['rows']:,} rows are loaded, from the first search to its answer, in {many['load']:.2f} s."]


def plan_part(found):
    few, many, cores = found["few"], found["many"], found["cores"]
    each = max(0, (few["us"][5] - few["us"][1]) / 4e6)  # seconds that a further shard adds
    base = few["us"][1] / 1e6
    scanned = (many["rows"] - few["rows"]) / (many["us"][0] - few["us"][0])  # million rows a second
    bytes_each = sum(many["wire"][4]) / 5
    loaded = many["rows"] / many["load"]

    def row(memory):
        # While rows are compacted, they are there twice.
        shards = math.ceil(ROWS * 2 * many["memory"] / (USABLE * memory * 2**30))
        rows = ROWS / shards
        scan = max(rows / (scanned * 1e6 * CORES / cores), rows * (DIM + 5) / (MACHINE_GBS * 1e9))
        wire = shards * bytes_each * 8 / (GBIT * 1e9) + 2 * LATENCY_US * 1e-6
        return [f"{memory:,} GiB", f"{shards}", f"{rows * many['disk'] / 1e12:.2f} TB", f"{scan * 1e3:,.0f} ms",
                f"{(base + shards * each + wire) * 1e3:,.1f} ms", f"{shards * bytes_each / 1e3:,.0f} kB",
                f"{rows / loaded / 60:,.0f} min"]

    return [f"Computed from the figures above: {scanned:,.2f} million rows scanned a second by {cores} cores, "
            f"{base * 1e6:,.0f} µs for a search of one shard with next to no rows, {each * 1e6:,.0f} µs for each "
            f"further one, {bytes_each:,.0f} bytes a shard on the wire. Assumed: machines of {CORES} cores that scan in "
            f"proportion, whose memory gives {MACHINE_GBS} GB/s; {LATENCY_US} µs and {GBIT} Gbit/s for a message.",
            table(["memory of a shard", "shards", "disk of each", "scan", "asking and merging", "on the wire",
                   "loading after a start"], map(row, (256, 512, 1024, 2048)))]


def filled(text, found):
    """The page with the tables between their marks."""
    for mark, made in (("measured", measured_part(found)), ("planned", plan_part(found))):
        begin, end = f"<!-- {mark} -->", f"<!-- end of {mark} -->"
        before, rest = text.split(begin)
        text = "\n\n".join([before + begin, *made, end + rest.split(end)[1]])
    return text


def main():
    parser = argparse.ArgumentParser(prog="bench_shards.py", description=__doc__.splitlines()[0])
    parser.add_argument("--rows", type=int, default=200_000)
    parser.add_argument("--rounds", type=int, default=51)
    parser.add_argument("--page", action="store_true")
    parser.add_argument("--check", action="store_true")
    options = parser.parse_args()
    if not options.page and not options.check:
        found = measure(options.rows, options.rounds)
        lines = (f"{json.dumps(name)}: {json.dumps(result)}" for name, result in found.items())
        RESULTS.write_text("{\n" + ",\n".join(lines) + "\n}\n")
    text = filled(PAGE.read_text(), json.loads(RESULTS.read_text()))
    if options.check and PAGE.read_text() != text:
        sys.exit("bench_shards: docs/SCALE.md has other tables than docs/benchmarks/shards.json gives")
    PAGE.write_text(text)
    print("the tables of docs/SCALE.md are those of docs/benchmarks/shards.json")


if __name__ == "__main__":
    main()
