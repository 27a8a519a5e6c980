"""Random call sequences for the Python package, with hostile arguments among good ones.

    hostile_calls.py [--calls N] [--seed S]

A hostile call must raise TypeError, ValueError or MemoryError and change nothing; a good one must
answer as the model, in every bit.
"""

import argparse
import copy
import faulthandler
import multiprocessing
import random
import resource
import sys
import time

import numpy as np

import qx_runtime
from call_sequence import MOST32, CallSequence, int_array

CALLS_OF_A_SEQUENCE = 120
REFUSALS = (TypeError, ValueError, MemoryError)


class Liar(int):
    __le__ = __lt__ = __ge__ = __gt__ = lambda self, other: True


class Broken:
    def __index__(self):
        raise ValueError("no number")


def wrong_arrays(rng, good):
    """Arrays that are not what `good` is, and things that are none."""
    flat = good.ravel()
    choices = [
        None, 3, "text", good.tolist(), [], object(), memoryview(good.tobytes()),
        good.astype(np.float64), good.astype(np.int16), good.astype(object), good.astype(complex),
        good.astype("U3"), good.astype(good.dtype.newbyteorder()), good.astype(np.uint64),
        good.astype(bool), np.array(5, dtype=good.dtype), good[np.newaxis], good[..., np.newaxis],
        np.ma.array(good), np.ma.array(good, mask=True),
        np.zeros((2, 2, 2), dtype=good.dtype), np.zeros(3, dtype=[("a", good.dtype)]),
        np.array(["2020-01-01"], dtype="datetime64[D]"),
    ]
    if flat.size > 1:
        unaligned = np.frombuffer(b"\0" + good.tobytes() + b"\0" * 16, dtype=np.uint8)[1:]
        choices += [np.repeat(good, 2, axis=-1)[..., ::2], np.broadcast_to(flat[:1], good.shape),
                    flat[::-1].reshape(good.shape)[::-1],
                    unaligned[:good.nbytes].view(good.dtype).reshape(good.shape)]
    if good.ndim == 2 and min(good.shape) > 1:
        choices.append(np.asfortranarray(good))
    return rng.choice(choices)


WRONG_NUMBERS = [None, 1.0, "1", 1j, True, np.bool_(True), np.float32(1), [], 1 << 63, -(1 << 63) - 1,
                 1 << 200, Liar(1 << 40), Broken(), np.array([1, 2]), object(), float("nan")]
WRONG_COLUMNS = [(4, 0), (-1, 0), (MOST32, 0), (0, 1 << 63), (0,), [0, 1], (None, 1), ("a", "b"), 7]
LEAST32 = -(1 << 31)
WRONG_OFFSETS = [[0, 1, 2], [0, 1, 2, 6], [-1, 0, 1, 2], [0, 3, 2, 5], [0, MOST32, LEAST32, 0],
                 [MOST32, LEAST32, -1, 0], [0, MOST32, LEAST32, -1], [LEAST32] * 4, [MOST32] * 4, []]


class HostileSequence(CallSequence):
    def __init__(self, seed):
        super().__init__(random.Random(seed))
        self.calls = 0

    def refused(self, *rows):
        """Makes the call of one row, with its arguments: it must be refused."""
        call, *arguments = self.rng.choice(rows)
        named = arguments.pop() if arguments and isinstance(arguments[-1], dict) else {}
        self.calls += 1
        try:
            call(*arguments, **named)
        except REFUSALS as error:
            assert str(error), "an error without a message"
        else:
            raise AssertionError(f"{call.__name__} took {arguments} {named}")

    # ---- What no call may take ----

    def not_this(self, good):
        """Another thing than the array, that no call may take for it."""
        while True:
            wrong = wrong_arrays(self.rng, good)
            if not (type(wrong) is np.ndarray and wrong.dtype == good.dtype and
                    wrong.ndim == good.ndim and wrong.flags.c_contiguous and wrong.flags.aligned):
                return wrong

    def wrong_floats(self, good):
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

    def wrong_number(self, *others, first=0):
        return self.rng.choice([*WRONG_NUMBERS[first:], *others])

    # ---- Hostile calls ----

    def hostile(self):
        self.rng.choice([self.wrong_search, self.wrong_search, self.wrong_rows, self.wrong_numbers,
                         self.wrong_ivf, self.wrong_metadata, self.wrong_build, self.use_closed])()

    def wrong_search(self):
        query, search = self.query(), self.index.search
        self.refused(
            (search, self.wrong_floats(query), 1),
            (search, query, self.wrong_number(-1, 1 << 31)),
            (search, query, 1, dict(candidates=self.wrong_ids(self.some_ids()))),
            (search, query, 1, dict(ivf=self.wrong_number(77, first=1))),
            (search, query, 1, dict(label=self.rng.choice(WRONG_NUMBERS[1:11]))),
            (search, query, 1, dict(column=self.rng.choice(WRONG_COLUMNS))),
            (search, query, 1, dict(partition=1, label=1)),
            (search, query, 1, dict(partition=1, current=True)),
            (search, query, 1, dict(current=np.array([1, 2]))))

    def wrong_rows(self):
        index, ids = self.index, self.some_ids()
        vectors = self.some_vectors(len(ids))
        self.refused(
            (index.insert, self.wrong_floats(vectors), ids),
            (index.insert, vectors, self.wrong_ids(ids)),
            (index.insert, self.some_vectors(len(ids) + 1), ids),
            (index.delete, self.wrong_ids(ids)),
            (index.metadata, self.wrong_ids(ids)))

    def wrong_numbers(self):
        index, wrong = self.index, self.wrong_number(first=1)
        self.refused(
            (qx_runtime.Index, self.rng.choice([wrong, None, 0, -1, 1 << 31])),
            (qx_runtime.Index, 1, dict(user_tag=self.rng.choice([wrong, -1, 1 << 32]))),
            (index.has_ivf, wrong if type(wrong) is not Liar else None),
            (index.set_nprobe, 0, self.rng.choice([wrong, -1, 1 << 31])),
            (index.match, dict(label=1, column=(0, 1))),
            (index.match,))
        assert self.rng.choice([None, "a", 1.0, True, -1, 1 << 70, object()]) not in index

    def wrong_ivf(self):
        call, centroids, ids = self.index.set_ivf, self.some_vectors(3), np.arange(5)
        good = np.array([0, 1, 2, 5], dtype=np.int32)
        bad = np.array(self.rng.choice(WRONG_OFFSETS), dtype=np.int32)
        self.refused(
            (call, 1, centroids, ids, bad, 1),
            (call, 1, centroids, ids, self.not_this(good), 1),
            (call, 1, self.wrong_floats(centroids), ids, good, 1),
            (call, 1, centroids, self.wrong_ids(ids), good, 1),
            (call, 1, centroids, ids, good, -1),
            (call, None, centroids, ids, good, 1))

    def wrong_metadata(self):
        call, ids, columns = self.index.set_metadata, self.some_ids(), self.model.columns
        values = np.zeros((len(ids), columns), dtype=np.int64)
        many = np.empty((0, self.rng.choice([1 << 30, MOST32, 1 << 32, 1 << 40])), dtype=np.int64)
        self.refused(
            (call, self.wrong_ids(ids), ids, values),
            (call, ids, self.not_this(ids), values),
            (call, ids, np.append(ids, 1), values),
            (call, ids, ids, self.not_this(values) if columns else 1),
            (call, ids[:0], ids[:0], many),
            (call, ids, ids, np.zeros((len(ids) + 1, columns), dtype=np.int64)),
            *[(call, ids, ids, values[:, 1:].copy())] * (columns > 0))

    def wrong_build(self):
        given = self.good_build()
        call, rows = self.index.build, len(given["ids"])
        parts = self.rng.choice([
            None, 5, [5], [(1, 2)], [(1, 0, rows + 1)], [(1, -1, 1)], [(1, 0, -1)],
            [(1, 0, 0), (1, 0, 0)], [(2, 0, 0), (1, 0, 0)], [(1 << 63, 0, 0)], [("a", 0, 0)],
            [(1, MOST32, MOST32)], [(1, rows, 1)], [(1, 1.0, 0)], "abc"])
        top = self.rng.choice([(1 << 40) - 1, 1 << 39, 1 << 40, (1 << 63) - 1])
        more = self.some_vectors(rows + 1)
        self.refused(
            (call, given | dict(vectors=self.wrong_floats(given["vectors"]))),
            (call, given | dict(ids=self.wrong_ids(given["ids"]))),
            (call, given | dict(partitions=parts)),
            (call, given | dict(ids=np.append(given["ids"], top), vectors=more)),
            (call, given | dict(vectors=more)),
            *[(call, given)] * self.sealed)

    def use_closed(self):
        closed = qx_runtime.Index(self.dim)
        closed.close()
        closed.close()
        none = int_array([])
        self.refused(
            (copy.copy, self.index),
            (closed.search, self.query(), 1),
            (closed.insert, self.some_vectors(1), int_array([1])),
            (closed.set_ivf, 1, self.some_vectors(0), none, np.zeros(1, dtype=np.int32), 1),
            (closed.set_metadata, none, none),
            (closed.set_nprobe, 1, 1),
            (closed.match, dict(label=1)),
            (closed.build, self.some_vectors(0)),
            (closed.export,),
            (closed.__len__,),
            (closed.__enter__().clear_ivf,))
        assert "closed" in repr(closed) and "closed" not in repr(self.index)

    def play(self):
        while self.calls < CALLS_OF_A_SEQUENCE:
            if self.rng.random() < 0.5:
                self.hostile()
            else:
                self.calls += 1
                self.step()
            if self.rng.random() < 0.05:
                self.calls += 1
                self.read()
        self.read()
        self.index.close()
        return self.calls


def work(calls, state):
    """Plays the call sequences of one seed after the other, until the calls are made."""
    faulthandler.enable()
    np.seterr(all="ignore")
    resource.setrlimit(resource.RLIMIT_AS, (1 << 32, 1 << 32))
    while state[1] < calls:
        state[1] += HostileSequence(state[0]).play()
        state[0] += 1


def main():
    parser = argparse.ArgumentParser()
    parser.add_argument("--calls", type=int, default=20000)
    parser.add_argument("--seed", type=int, default=1)
    options = parser.parse_args()
    started = time.monotonic()
    context = multiprocessing.get_context("spawn")
    state = context.Array("q", [options.seed, 0])  # the seed that is played, and the calls done
    worker = context.Process(target=work, args=(options.calls, state))
    worker.start()
    worker.join()
    seed, calls = state
    if worker.exitcode:
        sys.exit(f"the process ended with {worker.exitcode}; replay: hostile_calls.py --seed {seed} "
                 "--calls 1")
    print(f"Python: {calls} calls of {seed - options.seed} call sequences as they must be, seeds "
          f"{options.seed} to {seed - 1}, {time.monotonic() - started:.1f} s")


if __name__ == "__main__":
    main()
