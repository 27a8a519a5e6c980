"""Times the collection beside its peers: one process, contestants interleaved, medians of rounds.

    bench/collection [--quick] [SECTION]...
"""
import argparse
import ctypes
import os
import statistics
import subprocess
import tempfile
import time

import faiss
import numpy

LIBRARY = os.environ["QX_COLLECTION"]


class Ids(ctypes.Structure):
    _fields_ = [("count", ctypes.c_int64), ("numbers", ctypes.c_void_p), ("texts", ctypes.c_void_p)]


class Options(ctypes.Structure):
    _fields_ = [("dim", ctypes.c_int32), ("id_kind", ctypes.c_int32), ("columns", ctypes.c_void_p),
                ("n_columns", ctypes.c_int32), ("threads", ctypes.c_int32),
                ("memory_limit", ctypes.c_int64), ("manual", ctypes.c_int32),
                ("metric", ctypes.c_int32)]


class Search(ctypes.Structure):
    _fields_ = [("filter", ctypes.c_char_p), ("among", ctypes.c_void_p), ("accept", ctypes.c_void_p),
                ("accept_context", ctypes.c_void_p), ("progress", ctypes.c_void_p),
                ("progress_context", ctypes.c_void_p), ("threads", ctypes.c_int32),
                ("probes", ctypes.c_int32)]


class Stats(ctypes.Structure):
    _fields_ = [(name, ctypes.c_int64) for name in ("rows", "dead", "tail", "segments", "bytes",
                                                  "lists")]


class Collection:
    """As much of the C interface as the figures need."""

    def __init__(self, dim, handle=None, metric=0):
        self.c = ctypes.CDLL(LIBRARY)
        self.c.qx_collection_message.restype = ctypes.c_char_p
        self.dim = dim
        self.handle = handle or ctypes.c_void_p()
        if handle is None:
            self.call("new", ctypes.byref(Options(dim=dim, metric=metric)), ctypes.byref(self.handle))

    def call(self, name, *arguments):
        if getattr(self.c, "qx_collection_" + name)(*arguments) != 0:
            raise RuntimeError(self.c.qx_collection_message().decode())

    def upsert(self, ids, vectors):
        self.call("upsert", self.handle, Ids(len(ids), ids.ctypes.data, None),
                  ctypes.c_void_p(vectors.ctypes.data), None)

    def search(self, queries, k, threads):
        hits = ctypes.c_void_p()
        options = Search(threads=threads)
        self.call("search", self.handle, None, ctypes.c_void_p(queries.ctypes.data),
                  ctypes.c_int64(queries.size // self.dim), ctypes.c_int64(k),
                  ctypes.byref(options), ctypes.byref(hits))
        self.c.qx_hits_free(hits)

    def best(self, query):
        """The id of the best row, to compare answers."""
        hits = ctypes.c_void_p()
        self.call("search", self.handle, None, ctypes.c_void_p(query.ctypes.data), ctypes.c_int64(1),
                  ctypes.c_int64(1), None, ctypes.byref(hits))
        fields = ctypes.cast(hits, ctypes.POINTER(ctypes.c_int64))
        found = ctypes.cast(fields[3], ctypes.POINTER(ctypes.c_int64))[0]
        self.c.qx_hits_free(hits)
        return found

    def compact(self):
        self.call("compact", self.handle, None, None)

    def bytes(self):
        stats = Stats()
        self.c.qx_collection_stats(self.handle, ctypes.byref(stats))
        return stats.bytes

    def save(self, path):
        self.call("save", self.handle, None, path.encode(), None, None)

    @classmethod
    def load(cls, path, dim):
        handle = ctypes.c_void_p()
        made = cls(dim, handle)
        made.call("load", path.encode(), None, None, None, ctypes.byref(handle))
        return made

    def close(self):
        self.c.qx_collection_free(self.handle)


def gaussian(rows, dim, seed=1):
    return numpy.random.default_rng(seed).standard_normal((rows, dim), dtype=numpy.float32)


def filled(rows, metric=0):
    collection = Collection(rows.shape[1], metric=metric)
    collection.upsert(numpy.arange(len(rows), dtype=numpy.int64), rows)
    return collection


def interleaved(contestants, rounds):
    """The median seconds of each of the named functions."""
    times = {name: [] for name in contestants}
    names = list(contestants)
    for function in contestants.values():
        function()
    for turn in range(rounds):
        for name in names[turn % len(names):] + names[:turn % len(names)]:
            began = time.perf_counter()
            contestants[name]()
            times[name].append(time.perf_counter() - began)
    return {name: statistics.median(all_times) for name, all_times in times.items()}


def table(title, medians):
    ours = next(iter(medians.values()))
    print(f"\n{title}")
    for name, seconds in medians.items():
        print(f"  {name:34} {seconds * 1e3:10.3f} ms   x {seconds / ours:.2f}")


def faiss_search(index, queries, k, threads):
    faiss.omp_set_num_threads(threads)
    index.search(queries, k)


def flat(rows, of=faiss.IndexFlatIP):
    index = of(rows.shape[1])
    index.add(rows)
    return index


def single(quick):
    """One query over rows in memory by each metric, by one thread and by two; and by distances of
    rows that are far from zero, where bounds fail."""
    for dim in (128, 768):
        rows = gaussian((100 if quick else 500) * 2**20 // 4 // dim, dim)
        units = rows / numpy.linalg.norm(rows, axis=1, keepdims=True)
        queries = gaussian(64, dim, 2)
        turn = iter(range(10**9))
        query = lambda: queries[next(turn) % 64:][:1]
        for name, metric, peer in (("inner product", 0, flat(rows)), ("cosine", 1, flat(units)),
                                   ("distance", 2, flat(rows, faiss.IndexFlatL2))):
            collection = filled(rows, metric)
            assert collection.best(queries[0]) == peer.search(queries[:1], 1)[1][0][0]
            table(f"{name}: one query of {len(rows)} x {dim}, k 10", interleaved({
                "collection, 2 threads": lambda: collection.search(query(), 10, 2),
                "collection, 1 thread": lambda: collection.search(query(), 10, 1),
                "Faiss IndexFlat, 2 threads": lambda: faiss_search(peer, query(), 10, 2),
                "Faiss IndexFlat, 1 thread": lambda: faiss_search(peer, query(), 10, 1)}, 21))
            collection.close()
        rows += 1000
        queries += 1000
        collection, peer = filled(rows, 2), flat(rows, faiss.IndexFlatL2)
        table(f"distance, far from zero: one query of {len(rows)} x {dim}, k 10", interleaved({
            "collection, 2 threads": lambda: collection.search(query(), 10, 2),
            "Faiss IndexFlat, 2 threads": lambda: faiss_search(peer, query(), 10, 2)}, 11))
        collection.close()


def of_threads(section, rounds):
    """By a program of its own, since threads of Python wait for each other."""
    subprocess.run([os.environ["QX_THREADS"], section, str(rounds)], check=True)


def independent(quick):
    """Searches of two threads that know nothing of each other, beside those of one."""
    of_threads("independent", 3 if quick else 9)


def batch(quick):
    """100 queries over 100,000 x 384."""
    rows = gaussian(20_000 if quick else 100_000, 384)
    queries = gaussian(100, 384, 2)
    collection, index = filled(rows), flat(rows)

    def by_numpy():
        scores = queries @ rows.T
        best = numpy.argpartition(-scores, 10, axis=1)[:, :10]
        order = numpy.argsort(-numpy.take_along_axis(scores, best, axis=1), axis=1)
        return numpy.take_along_axis(best, order, axis=1)

    assert collection.best(queries[0]) == by_numpy()[0][0]
    table(f"100 queries of {len(rows)} x 384, k 10", interleaved({
        "collection, 2 threads": lambda: collection.search(queries, 10, 2),
        "collection, 1 thread": lambda: collection.search(queries, 10, 1),
        "Faiss IndexFlat, 2 threads": lambda: faiss_search(index, queries, 10, 2),
        "Faiss IndexFlat, 1 thread": lambda: faiss_search(index, queries, 10, 1),
        "NumPy product and argpartition": by_numpy}, 15))
    collection.close()


def ties(quick):
    """Queries for which every row has the same score, beside one that ranks."""
    rows = gaussian(200_000 if quick else 1_000_000, 128)
    rows[:, 7] = 1
    collection, alike = filled(rows), filled(rows[:1].repeat(len(rows), axis=0))
    query = gaussian(1, 128, 2)
    one = numpy.zeros((1, 128), numpy.float32)
    one[0, 7] = 1
    null = numpy.zeros((1, 128), numpy.float32)
    table(f"ties, {len(rows)} x 128, k 10", interleaved({
        "a query that ranks": lambda: collection.search(query, 10, 2),
        "one component, equal in all rows": lambda: collection.search(one, 10, 2),
        "the null query": lambda: collection.search(null, 10, 2),
        "all rows alike": lambda: alike.search(query, 10, 2)}, 15))
    collection.close()
    alike.close()


def changing(quick):
    """Searches beside 10,000 upserts a second and a compaction, and the peak of memory."""
    of_threads("changing", 1 if quick else 5)


def files(quick):
    """Saving and loading, of a file in the page cache; and what new memory alone costs."""
    rows = gaussian((100 if quick else 1000) * 2**20 // 4 // 128, 128)
    collection = filled(rows)
    with tempfile.TemporaryDirectory() as folder:
        path = os.path.join(folder, "rows.qx")
        collection.save(path)
        size, memory = os.path.getsize(path), collection.bytes()
        medians = interleaved({"save": lambda: collection.save(path),
                               "load": lambda: Collection.load(path, 128).close(),
                               "writing as much new memory as a load takes":
                                   lambda: numpy.full(memory, 1, numpy.uint8)}, 5)
    print(f"\na file of {size / 1e6:.0f} MB")
    for name, took in medians.items():
        print(f"  {name}: {took:.3f} s, {size / took / 1e9:.2f} GB/s")
    collection.close()


SECTIONS = {section.__name__: section
            for section in (single, independent, batch, ties, changing, files)}


def main():
    parser = argparse.ArgumentParser(description=__doc__,
                                     formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--quick", action="store_true", help="smaller data")
    parser.add_argument("sections", nargs="*", metavar="SECTION", choices=[*SECTIONS, []],
                        help=", ".join(SECTIONS))
    options = parser.parse_args()
    for name in options.sections or SECTIONS:
        SECTIONS[name](options.quick)


main()
