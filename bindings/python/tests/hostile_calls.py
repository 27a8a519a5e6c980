"""Random call sequences for the Python package, with hostile arguments among good ones.

    hostile_calls.py [--calls N] [--seed S] [--processes P]

A hostile call must raise TypeError, ValueError or MemoryError and change nothing; a good one must
answer as the model, in every bit. In one call sequence of fifty, threads share the index, and
one of them keeps writing into the arrays that another passes to it.
"""

import argparse
import copy
import faulthandler
import multiprocessing
import random
import resource
import sys
import threading
import time

import numpy as np

import qx_runtime
from model import Model

CALLS_OF_A_SEQUENCE = 120
REFUSALS = (TypeError, ValueError, MemoryError)
MOST32 = (1 << 31) - 1


class Subclass(np.ndarray):
    ctypes = property(lambda self: None)
    shape = property(lambda self: (1 << 40,))


class Liar(int):
    __le__ = __lt__ = __ge__ = __gt__ = lambda self, other: True


class Broken:
    def __index__(self):
        raise ValueError("no number")


def int_array(numbers):
    return np.array(numbers, dtype=np.int64)


def wrong_arrays(rng, good):
    """Arrays that are not what `good` is, and things that are none."""
    flat = good.ravel()
    unaligned = np.frombuffer(b"\0" + good.tobytes() + b"\0" * 16, dtype=np.uint8)[1:]
    choices = [
        None, 3, "text", good.tolist(), [], object(), memoryview(good.tobytes()),
        good.astype(np.float64) if good.dtype != np.float64 else None,
        good.astype(np.int16), good.astype(object), good.astype(complex), good.astype("U3"),
        good.astype(good.dtype.newbyteorder()), good.astype(np.uint64), good.astype(bool),
        np.array(5, dtype=good.dtype), good[np.newaxis], good[..., np.newaxis],
        np.ma.array(good), np.ma.array(good, mask=True),
        np.zeros((2, 2, 2), dtype=good.dtype), np.zeros(3, dtype=[("a", good.dtype)]),
        np.array(["2020-01-01"], dtype="datetime64[D]"),
    ]
    if flat.size > 1:
        doubled = np.repeat(good, 2, axis=-1)[..., ::2]
        choices += [doubled, np.broadcast_to(flat[:1], good.shape), flat[::-1].reshape(good.shape)[::-1]]
        choices.append(unaligned[:good.nbytes].view(good.dtype).reshape(good.shape))
    if good.ndim == 2 and min(good.shape) > 1:
        choices.append(np.asfortranarray(good))
    return rng.choice(choices)


def same_kinds(rng, good):
    """Arrays with the same elements that must be taken all the same."""
    frozen = good.copy()
    frozen.flags.writeable = False
    return rng.choice([good, frozen, good.view(Subclass) if good.size else good,
                       np.lib.stride_tricks.as_strided(good), good.view(np.memmap)])


WRONG_NUMBERS = [None, 1.0, "1", 1j, True, np.bool_(True), np.float32(1), [], 1 << 63, -(1 << 63) - 1,
                 1 << 200, Liar(1 << 40), Broken(), np.array([1, 2]), object(), float("nan")]


class CallSequence:
    DIM = 4

    def __init__(self, seed):
        self.rng = random.Random(seed)
        self.dim = self.rng.randint(1, 5)
        self.index = qx_runtime.Index(self.dim, user_tag=np.uint32(3))
        self.model = Model(self.dim)
        self.parts = []
        self.ivfs = {}
        self.sealed = False
        self.calls = 0

    # ---- Arguments ----

    def some_ids(self):
        most = 9 if self.rng.random() < 0.98 else 500
        edges = [1 << 40, (1 << 63) - 1, MOST32]
        return int_array([self.rng.choice(edges) if self.rng.random() < 0.03 else
                          self.rng.randint(0, 30) for _ in range(self.rng.randint(0, most))])

    def some_vectors(self, count):
        flat = [self.rng.randint(-9, 9) for _ in range(count * self.dim)]
        return np.array(flat, dtype=np.float32).reshape(count, self.dim)

    def query(self):
        return self.some_vectors(1)[0]

    def number(self, most=30):
        number = self.rng.randint(0, most)
        return self.rng.choice([number, np.int8(number), np.uint64(number), np.int64(number)])

    # ---- Steps: each is a good call and its comparison; or, spoiled, one that must be refused ----

    def good_build(self):
        """The arguments of a build, and what the model shall do."""
        ids = int_array([self.rng.randint(0, 30) for _ in range(self.rng.randint(0, 25))])
        vectors = self.some_vectors(len(ids))
        half = len(ids) // 2
        parts = [(-4, 0, half), (7, half, len(ids) - half)][:self.rng.randint(0, 2)]
        return dict(vectors=vectors, ids=ids, partitions=parts)

    def build(self):
        if self.sealed:
            return
        given = self.good_build()
        self.index.build(**given)
        self.model.build(given["vectors"], given["ids"])
        self.parts, self.sealed = given["partitions"], True

    def insert(self):
        ids = self.some_ids()
        vectors = self.some_vectors(len(ids))
        before = self.index.snapshot
        after = self.index.insert(same_kinds(self.rng, vectors), same_kinds(self.rng, ids))
        assert after == before + (len(ids) > 0)
        self.model.insert(vectors, ids)

    def delete(self):
        ids = self.some_ids()
        if self.rng.random() < 0.002:
            ids = np.arange(9000) * 7919
        self.index.delete(same_kinds(self.rng, ids))
        self.model.delete(ids)

    def set_metadata(self):
        ids = self.some_ids()
        columns = self.model.columns + (self.model.columns < 4 and self.rng.random() < 0.1)
        labels = int_array([self.rng.randint(-1, 2) for _ in ids])
        values = int_array([self.rng.randint(-1, 2) for _ in range(len(ids) * columns)])
        values = values.reshape(len(ids), columns)
        self.index.set_metadata(ids, labels, values)
        self.model.set_metadata(ids, labels, values)

    def set_ivf(self):
        key = self.rng.randint(-1, 2)
        centroids = self.some_vectors(self.rng.randint(0, 4))
        list_ids = self.some_ids()
        cuts = sorted(self.rng.randint(0, len(list_ids)) for _ in range(len(centroids) + 1))
        self.index.set_ivf(key, centroids, list_ids, np.array(cuts, dtype=np.int32), self.number(6))
        self.index.set_nprobe(key, MOST32)
        self.ivfs[key] = (centroids, list_ids, cuts)

    def clear_ivf(self):
        if self.rng.random() < 0.1:
            self.index.clear_ivf()
            self.ivfs.clear()

    def agree(self, hits, rows, query, k):
        expected = self.model.best(rows, query, k)
        assert hits.ids.dtype == np.int64 and hits.scores.dtype == np.float32
        assert hits.ids.tolist() == [id for id, _ in expected], (hits.ids, expected)
        assert hits.scores.tobytes() == np.array([s for _, s in expected], np.float32).tobytes()

    def search(self):
        query, model = self.query(), self.model
        k = self.rng.choice([self.number(), self.number(), 0, MOST32])
        given = same_kinds(self.rng, query)
        way = self.rng.randint(0, 7)
        if way == 0:
            self.agree(self.index.search(given, k), model.base, query, k)
        elif way == 1:
            key, start, size = self.rng.choice(self.parts + [(99, 0, 0)])
            rows = model.base[start:start + size]
            self.agree(self.index.search(given, k, partition=key), rows, query, k)
        elif way in (2, 3):
            ids, current = self.some_ids(), way == 3
            self.agree(self.index.search(given, k, candidates=ids, current=current),
                       model.candidates(ids, current), query, k)
        elif way == 4:
            self.agree(self.index.search(given, k, current=True), model.visible(), query, k)
        elif way == 5:
            label = self.rng.randint(-1, 2)
            rows = [row for row in model.visible() if model.labels.get(row[0], -1) == label]
            self.agree(self.index.search(given, k, label=label), rows, query, k)
            assert self.index.match(label=label).tolist() == [id for id, _ in rows]
        elif way == 6 and model.columns:
            column, value = self.rng.randint(0, model.columns - 1), self.rng.randint(-1, 2)
            rows = [row for row in model.visible() if model.value(row[0], column) == value]
            self.agree(self.index.search(given, k, column=(column, value)), rows, query, k)
        elif way == 7 and self.ivfs:
            key = self.rng.choice(list(self.ivfs))
            self.agree(self.index.search(given, k, ivf=key), self.listed(key, query), query, k)

    def listed(self, key, query):
        """The rows of all lists, best centroid first."""
        centroids, ids, cuts = self.ivfs[key]
        base = self.model.by_id()
        order = self.model.best(list(enumerate(centroids)), query, len(centroids))
        return [(int(id), base[int(id)]) for c, _ in order for id in ids[cuts[c]:cuts[c + 1]]
                if int(id) in base]

    def read(self):
        visible = self.model.visible()
        assert len(self.index) == len(visible)
        assert self.index.visible_ids().tolist() == [id for id, _ in visible]
        rows = self.index.export()
        assert rows.ids.tolist() == [id for id, _ in visible]
        assert rows.vectors.tolist() == [vector.tolist() for _, vector in visible]
        assert self.index.export_base().ids.tolist() == [id for id, _ in self.model.base]
        meta = self.index.metadata(np.arange(31))
        assert meta.labels.tolist() == [self.model.labels.get(id, -1) for id in range(31)]
        assert meta.values.tolist() == [[self.model.value(id, column)
                                         for column in range(self.model.columns)]
                                        for id in range(31)]
        seen = {id for id, _ in visible}
        assert all((id in self.index) == (id in seen) for id in range(5))
        assert (self.index.sealed, self.index.columns) == (self.sealed, self.model.columns)
        assert self.index.delta_count == len(self.model.delta)
        assert [key for key in range(-2, 5) if self.index.has_ivf(key)] == sorted(self.ivfs)

    # ---- What must be refused ----

    def refused(self, call, *arguments, **named):
        self.calls += 1
        try:
            call(*arguments, **named)
        except REFUSALS as error:
            assert str(error), "an error without a message"
        else:
            raise AssertionError(f"{call.__name__} took {arguments} {named}")

    def hostile(self):
        self.rng.choice([self.wrong_search, self.wrong_search, self.wrong_rows, self.wrong_numbers,
                         self.wrong_ivf, self.wrong_metadata, self.wrong_build, self.wrong_lifecycle])()

    def not_this(self, good):
        """Another thing than the array, that no call may take for it."""
        while True:
            wrong = wrong_arrays(self.rng, good)
            if not (type(wrong) is np.ndarray and wrong.dtype == good.dtype and
                    wrong.ndim == good.ndim and wrong.flags.c_contiguous and wrong.flags.aligned):
                return wrong

    def spoiled_floats(self, good):
        bad = good.copy()
        if bad.size:
            bad.flat[self.rng.randrange(bad.size)] = self.rng.choice([np.nan, np.inf, -np.inf])
        wider = np.zeros((*good.shape[:-1], good.shape[-1] + 1), dtype=np.float32)
        return self.rng.choice(([bad] if bad.size else []) + [wider, wider[..., :0].copy(),
                                                              self.not_this(good)])

    def wrong_ids(self, good):
        negative = np.append(good, self.rng.choice([-1, -(1 << 63)]))
        wrong = self.not_this(good)
        return self.rng.choice([negative, 5 if wrong is None else wrong])  # None may be left out

    def wrong_search(self):
        query, search = self.query(), self.index.search
        self.rng.choice([
            lambda: self.refused(search, self.spoiled_floats(query), 1),
            lambda: self.refused(search, query, self.rng.choice(WRONG_NUMBERS + [-1, 1 << 31])),
            lambda: self.refused(search, query, 1, candidates=self.wrong_ids(self.some_ids())),
            lambda: self.refused(search, query, 1, ivf=self.rng.choice([77, *WRONG_NUMBERS[1:]])),
            lambda: self.refused(search, query, 1, label=self.rng.choice(WRONG_NUMBERS[1:11])),
            lambda: self.refused(search, query, 1, column=self.rng.choice(
                [(4, 0), (-1, 0), (MOST32, 0), (0, 1 << 63), (0,), [0, 1], (None, 1), ("a", "b"), 7])),
            lambda: self.refused(search, query, 1, partition=1, label=1),
            lambda: self.refused(search, query, 1, partition=1, current=True),
            lambda: self.refused(search, query, 1, current=np.array([1, 2])),
        ])()

    def wrong_rows(self):
        ids = self.some_ids()
        vectors = self.some_vectors(len(ids))
        self.rng.choice([
            lambda: self.refused(self.index.insert, self.spoiled_floats(vectors), ids),
            lambda: self.refused(self.index.insert, vectors, self.wrong_ids(ids)),
            lambda: self.refused(self.index.insert, self.some_vectors(len(ids) + 1), ids),
            lambda: self.refused(self.index.delete, self.wrong_ids(ids)),
            lambda: self.refused(self.index.metadata, self.wrong_ids(ids)),
        ])()

    def wrong_numbers(self):
        wrong = self.rng.choice(WRONG_NUMBERS[1:])
        self.rng.choice([
            lambda: self.refused(qx_runtime.Index, self.rng.choice([wrong, None, 0, -1, 1 << 31])),
            lambda: self.refused(qx_runtime.Index, 1, user_tag=self.rng.choice([wrong, -1, 1 << 32])),
            lambda: self.refused(self.index.has_ivf,
                                 wrong if type(wrong) is not Liar else None),
            lambda: self.refused(self.index.set_nprobe, 0, self.rng.choice([wrong, -1, 1 << 31])),
            lambda: self.refused(self.index.match, label=1, column=(0, 1)),
            lambda: self.refused(self.index.match),
        ])()
        assert self.rng.choice([None, "a", 1.0, True, -1, 1 << 70, object()]) not in self.index

    def wrong_ivf(self):
        centroids = self.some_vectors(3)
        ids = np.arange(5)
        most, least = MOST32, -(1 << 31)
        bad = self.rng.choice([[0, 1, 2], [0, 1, 2, 6], [-1, 0, 1, 2], [0, 3, 2, 5],
                               [0, most, least, 0], [most, least, -1, 0], [0, most, least, -1],
                               [least] * 4, [most] * 4, []])
        good = np.array([0, 1, 2, 5], dtype=np.int32)
        call = self.index.set_ivf
        self.rng.choice([
            lambda: self.refused(call, 1, centroids, ids, np.array(bad, dtype=np.int32), 1),
            lambda: self.refused(call, 1, centroids, ids, self.not_this(good), 1),
            lambda: self.refused(call, 1, self.spoiled_floats(centroids), ids, good, 1),
            lambda: self.refused(call, 1, centroids, self.wrong_ids(ids), good, 1),
            lambda: self.refused(call, 1, centroids, ids, good, -1),
            lambda: self.refused(call, None, centroids, ids, good, 1),
        ])()

    def wrong_metadata(self):
        ids = self.some_ids()
        columns = self.model.columns
        values = np.zeros((len(ids), columns), dtype=np.int64)
        call = self.index.set_metadata
        many = np.empty((0, self.rng.choice([1 << 30, MOST32, 1 << 32, 1 << 40])), dtype=np.int64)
        choices = [
            lambda: self.refused(call, self.wrong_ids(ids), ids, values),
            lambda: self.refused(call, ids, self.not_this(ids), values),
            lambda: self.refused(call, ids, np.append(ids, 1), values),
            lambda: self.refused(call, ids, ids, self.not_this(values) if columns else 1),
            lambda: self.refused(call, ids[:0], ids[:0], many),
            lambda: self.refused(call, ids, ids, np.zeros((len(ids) + 1, columns), dtype=np.int64)),
        ]
        if columns:
            choices.append(lambda: self.refused(call, ids, ids, values[:, 1:].copy()))
        self.rng.choice(choices)()

    def wrong_build(self):
        given = self.good_build()
        rows = len(given["ids"])
        kind = self.rng.choice(["again", "vectors", "ids", "partitions", "huge", "length"])
        if kind == "vectors":
            given["vectors"] = self.spoiled_floats(given["vectors"])
        elif kind == "ids":
            given["ids"] = self.wrong_ids(given["ids"])
        elif kind == "partitions":
            given["partitions"] = self.rng.choice([
                None, 5, [5], [(1, 2)], [(1, 0, rows + 1)], [(1, -1, 1)], [(1, 0, -1)],
                [(1, 0, 0), (1, 0, 0)], [(2, 0, 0), (1, 0, 0)], [(1 << 63, 0, 0)], [("a", 0, 0)],
                [(1, MOST32, MOST32)], [(1, rows, 1)], [(1, 1.0, 0)], "abc"])
        elif kind == "huge":
            top = self.rng.choice([(1 << 40) - 1, 1 << 39, 1 << 40, (1 << 63) - 1])
            given["ids"] = np.append(given["ids"], top)
            given["vectors"] = self.some_vectors(rows + 1)
        elif kind == "length":
            given["vectors"] = self.some_vectors(rows + 1)
        elif not self.sealed:
            return
        self.refused(self.index.build, **given)

    def wrong_lifecycle(self):
        closed = qx_runtime.Index(self.dim)
        closed.close()
        closed.close()
        self.rng.choice([
            lambda: self.refused(copy.copy, self.index),
            lambda: self.refused(closed.search, self.query(), 1),
            lambda: self.refused(closed.insert, self.some_vectors(1), int_array([1])),
            lambda: self.refused(closed.set_ivf, 1, self.some_vectors(0), int_array([]),
                                 np.zeros(1, dtype=np.int32), 1),
            lambda: self.refused(closed.set_metadata, int_array([]), int_array([])),
            lambda: self.refused(closed.set_nprobe, 1, 1),
            lambda: self.refused(closed.match, label=1),
            lambda: self.refused(closed.build, self.some_vectors(0)),
            lambda: self.refused(closed.export),
            lambda: self.refused(closed.__len__),
            lambda: self.refused(closed.__enter__().clear_ivf),
        ])()
        assert "closed" in repr(closed) and "closed" not in repr(self.index)

    def play(self):
        steps = [self.build, self.insert, self.insert, self.delete, self.set_metadata, self.set_ivf,
                 self.clear_ivf] + [self.search] * 6
        while self.calls < CALLS_OF_A_SEQUENCE:
            if self.rng.random() < 0.5:
                self.hostile()
            else:
                self.calls += 1
                self.rng.choice(steps)()
            if self.rng.random() < 0.05:
                self.calls += 1
                self.read()
        self.read()
        self.index.close()
        return self.calls


class SharedCallSequence:
    """Threads share an index while another changes the arrays that are passed to it."""

    def __init__(self, seed):
        self.rng = np.random.default_rng(seed)
        self.index = qx_runtime.Index(3)
        vectors = self.rng.integers(-9, 10, (300, 3)).astype(np.float32)
        self.index.build(vectors)
        self.queries = self.rng.integers(-9, 10, (4, 3)).astype(np.float32)
        self.expected = [self.index.search(query, 5).ids.tolist() for query in self.queries]
        self.done = threading.Event()
        self.errors = []
        self.calls = 0

    def guarded(self, work, *arguments):
        try:
            work(*arguments)
        except BaseException as error:  # reported by the thread that waits
            self.errors.append(error)

    def ask(self, query, right):
        for _ in range(40):
            try:
                assert self.index.search(query, 5).ids.tolist() == right
                len(self.index.visible_ids()), self.index.metadata(np.arange(9))
            except ValueError as error:
                assert "closed" in str(error)

    def change(self, arrays):
        while not self.done.is_set():
            for array in arrays:
                array[...] = np.roll(array, 1)

    def pass_arrays(self, offsets, ids):
        for round in range(60):
            for call in (
                lambda: qx_runtime.Index(1).build(np.zeros((len(ids), 1), dtype=np.float32), ids),
                lambda: self.index.set_ivf(round % 3, np.zeros((len(offsets) - 1, 3), np.float32),
                                           np.arange(2), offsets, 9),
                lambda: self.index.search(self.queries[0], 9, ivf=round % 3),
                lambda: self.index.delete(ids),
                lambda: self.index.set_metadata(ids, ids, np.zeros((len(ids), 1 + round // 20),
                                                                   dtype=np.int64)),
            ):
                try:
                    call()
                except REFUSALS:
                    pass

    def play(self):
        offsets = np.array([0, 1, 2, 2, 2, MOST32], dtype=np.int32)
        ids = int_array([1, 2, 3, 1 << 39, -1])
        threads = [threading.Thread(target=self.guarded, args=(self.ask, *pair))
                   for pair in zip(self.queries, self.expected)]
        threads.append(threading.Thread(target=self.guarded, args=(self.pass_arrays, offsets, ids)))
        changer = threading.Thread(target=self.guarded, args=(self.change, [offsets, ids]))
        for thread in (*threads, changer):
            thread.start()
        if self.rng.random() < 0.3:
            time.sleep(0.01)
            self.index.close()
        for thread in threads:
            thread.join()
        self.done.set()
        changer.join()
        if self.errors:
            raise self.errors[0]
        return 4 * 40 * 3 + 60 * 5


def play(seed):
    return (SharedCallSequence if seed % 50 == 0 else CallSequence)(seed).play()


def work(first, step, calls, results):
    """Plays the call sequences of every `step`-th seed, until the calls are made."""
    faulthandler.enable()
    np.seterr(all="ignore")
    resource.setrlimit(resource.RLIMIT_AS, (1 << 32, 1 << 32))
    done, sequences, seed = 0, 0, first
    while done < calls:
        try:
            done += play(seed)
        except BaseException:
            print(f"replay: hostile_calls.py --seed {seed} --calls 1 --processes 1", file=sys.stderr,
                  flush=True)
            raise
        sequences += 1
        seed += step
        results.put((seed, 0, 0))
    results.put((None, done, sequences))


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--calls", type=int, default=20000)
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--processes", type=int, default=2)
    options = parser.parse_args()
    started = time.monotonic()
    context = multiprocessing.get_context("spawn")
    queues = [context.SimpleQueue() for _ in range(options.processes)]
    workers = [context.Process(target=work, args=(
        options.seed + i, options.processes, -(-options.calls // options.processes), queue))
        for i, queue in enumerate(queues)]
    for worker in workers:
        worker.start()
    done = sequences = 0
    last = [options.seed + i for i in range(options.processes)]
    running = set(range(options.processes))
    while running:
        for i in list(running):
            while not queues[i].empty():
                seed, calls, count = queues[i].get()
                last[i] = seed or last[i]
                if seed is None:
                    done, sequences = done + calls, sequences + count
                    running.discard(i)
            if i in running and workers[i].exitcode is not None and queues[i].empty():
                print(f"a process ended with {workers[i].exitcode} in the call sequence of seed "
                      f"{last[i]}", file=sys.stderr)
                return 1
        time.sleep(0.05)
    for worker in workers:
        worker.join()
    print(f"Python: {done} calls of {sequences} call sequences as they must be, seeds from "
          f"{options.seed}, {time.monotonic() - started:.1f} s")
    return 0


if __name__ == "__main__":
    sys.exit(main())
