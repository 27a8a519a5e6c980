"""Random calls on an index, each compared with the model in every bit."""

import numpy as np

import qx_runtime
from model import Model

MOST32 = (1 << 31) - 1


class Subclass(np.ndarray):
    ctypes = property(lambda self: None)
    shape = property(lambda self: (1 << 40,))


def int_array(numbers):
    return np.array(numbers, dtype=np.int64)


def same_kinds(rng, good):
    """Arrays with the same elements that must be taken all the same."""
    frozen = good.copy()
    frozen.flags.writeable = False
    return rng.choice([good, frozen, good.view(Subclass) if good.size else good,
                       np.lib.stride_tricks.as_strided(good), good.view(np.memmap)])


class CallSequence:
    """Its steps are drawn from `rng`, a random.Random or what behaves like one."""

    def __init__(self, rng):
        self.rng = rng
        self.dim = rng.randint(1, 5)
        self.index = qx_runtime.Index(self.dim, user_tag=np.uint32(3))
        self.model = Model(self.dim)
        self.parts = []
        self.ivfs = {}
        self.sealed = False

    # ---- Arguments ----

    def some(self, count, low, high):
        return int_array([self.rng.randint(low, high) for _ in range(count)])

    def some_ids(self):
        most = 9 if self.rng.random() < 0.98 else 500
        edges = [1 << 40, (1 << 63) - 1, MOST32]
        return int_array([self.rng.choice(edges) if self.rng.random() < 0.03 else
                          self.rng.randint(0, 30) for _ in range(self.rng.randint(0, most))])

    def some_vectors(self, count):
        return self.some(count * self.dim, -9, 9).astype(np.float32).reshape(count, self.dim)

    def query(self):
        return self.some_vectors(1)[0]

    def number(self, most=30):
        number = self.rng.randint(0, most)
        return self.rng.choice([number, np.int8(number), np.uint64(number), np.int64(number)])

    def good_build(self):
        ids = self.some(self.rng.randint(0, 25), 0, 30)
        half = len(ids) // 2
        parts = [(-4, 0, half), (7, half, len(ids) - half)][:self.rng.randint(0, 2)]
        return dict(vectors=self.some_vectors(len(ids)), ids=ids, partitions=parts)

    # ---- Steps ----

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
        labels = self.some(len(ids), -1, 2)
        values = self.some(len(ids) * columns, -1, 2).reshape(len(ids), columns)
        self.index.set_metadata(ids, labels, values)
        self.model.set_metadata(ids, labels, values)

    def set_ivf(self):
        """Its searches look into all lists, or into one."""
        key = self.rng.randint(-1, 2)
        centroids = self.some_vectors(self.rng.randint(0, 4))
        list_ids = self.some_ids()
        cuts = sorted(self.some(len(centroids) + 1, 0, len(list_ids)).tolist())
        probes = self.rng.choice([0, 1, MOST32])
        self.index.set_ivf(key, centroids, list_ids, np.array(cuts, dtype=np.int32), self.number(6))
        self.index.set_nprobe(key, probes)
        self.ivfs[key] = (centroids, list_ids, cuts, probes)

    def clear_ivf(self):
        if self.rng.random() < 0.1:
            self.index.clear_ivf()
            self.ivfs.clear()

    # ---- Searches: the named arguments of a way, and the rows that are searched ----

    def whole_base(self, _):
        return {}, self.model.base

    def one_partition(self, _):
        key, start, size = self.rng.choice(self.parts + [(99, 0, 0)])
        return dict(partition=key), self.model.base[start:start + size]

    def candidates(self, _):
        given = dict(candidates=self.some_ids(), current=self.rng.random() < 0.5)
        return given, self.model.candidates(given["candidates"], given["current"])

    def current(self, _):
        return dict(current=True), self.model.visible()

    def label(self, _):
        label = self.rng.randint(-1, 2)
        rows = [row for row in self.model.visible() if self.model.labels.get(row[0], -1) == label]
        assert self.index.match(label=label).tolist() == [id for id, _ in rows]
        return dict(label=label), rows

    def column(self, _):
        column, value = self.rng.randint(0, self.model.columns - 1), self.rng.randint(-1, 2)
        rows = [row for row in self.model.visible() if self.model.value(row[0], column) == value]
        assert self.index.match(column=(column, value)).tolist() == [id for id, _ in rows]
        return dict(column=(column, value)), rows

    def lists(self, query):
        """The rows of the probed lists, best centroid first."""
        key = self.rng.choice(list(self.ivfs))
        centroids, ids, cuts, probes = self.ivfs[key]
        base = self.model.by_id()
        order = self.model.best(list(enumerate(centroids)), query, probes)
        return dict(ivf=key), [(int(id), base[int(id)]) for c, _ in order
                               for id in ids[cuts[c]:cuts[c + 1]] if int(id) in base]

    def search(self):
        ways = [self.whole_base, self.one_partition, self.candidates, self.candidates, self.current,
                self.label]
        ways += [self.column] * (self.model.columns > 0) + [self.lists] * (len(self.ivfs) > 0)
        query, k = self.query(), self.rng.choice([self.number(), self.number(), 0, MOST32])
        given, rows = self.rng.choice(ways)(query)
        hits = self.index.search(same_kinds(self.rng, query), k, **given)
        expected = self.model.best(rows, query, k)
        assert hits.ids.dtype == np.int64 and hits.scores.dtype == np.float32
        assert hits.ids.tolist() == [id for id, _ in expected], (hits.ids, expected)
        assert hits.scores.tobytes() == np.array([s for _, s in expected], np.float32).tobytes()

    def read(self):
        index, model, visible = self.index, self.model, self.model.visible()
        ids = [id for id, _ in visible]
        assert len(index) == len(ids)
        assert index.visible_ids().tolist() == list(index) == ids
        rows = index.export()
        assert rows.ids.tolist() == ids
        assert rows.vectors.tolist() == [vector.tolist() for _, vector in visible]
        assert index.export_base().ids.tolist() == [id for id, _ in model.base]
        meta = index.metadata(np.arange(31))
        assert meta.labels.tolist() == [model.labels.get(id, -1) for id in range(31)]
        assert meta.values.tolist() == [[model.value(id, column) for column in range(model.columns)]
                                        for id in range(31)]
        assert [id for id in range(31) if id in index] == sorted(set(ids) & set(range(31)))
        assert (index.sealed, index.columns) == (self.sealed, model.columns)
        assert index.delta_count == len(model.delta)
        assert [key for key in range(-2, 5) if index.has_ivf(key)] == sorted(self.ivfs)

    def step(self):
        steps = [self.build, self.insert, self.insert, self.delete, self.set_metadata, self.set_ivf,
                 self.clear_ivf] + [self.search] * 6
        self.rng.choice(steps)()
