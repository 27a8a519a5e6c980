"""Random call sequences agree with the model in every answer."""

import numpy as np
from hypothesis import settings, strategies as st
from hypothesis.stateful import RuleBasedStateMachine, invariant, precondition, rule

import qx_runtime
from model import Model

DIM = 5
NUMBERS = st.integers(-9, 9)
SOME_IDS = st.lists(st.integers(0, 30), max_size=12)
KS = st.integers(0, 40)


def ids_of(numbers):
    return np.array(numbers, dtype=np.int64)


def vectors_of(draw, count):
    flat = draw.draw(st.lists(NUMBERS, min_size=count * DIM, max_size=count * DIM))
    return np.array(flat, dtype=np.float32).reshape(count, DIM)


def query_of(draw):
    return vectors_of(draw, 1)[0]


class CallSequence(RuleBasedStateMachine):
    def __init__(self):
        super().__init__()
        self.index = qx_runtime.Index(DIM)
        self.model = Model(DIM)

    def teardown(self):
        self.index.close()

    def agree(self, hits, expected):
        assert [int(id) for id in hits.ids] == [id for id, _ in expected]
        assert hits.scores.tobytes() == np.array([s for _, s in expected],
                                                 dtype=np.float32).tobytes()

    @precondition(lambda self: not self.index.sealed)
    @rule(ids=SOME_IDS, draw=st.data())
    def build(self, ids, draw):
        vectors = vectors_of(draw, len(ids))
        half = len(ids) // 2
        parts = [(4, 0, half), (7, half, len(ids) - half)]
        self.index.build(vectors, ids_of(ids), partitions=parts)
        self.model.build(vectors, ids)

    @rule(ids=SOME_IDS, draw=st.data())
    def insert(self, ids, draw):
        vectors = vectors_of(draw, len(ids))
        before = self.index.snapshot
        assert self.index.insert(vectors, ids_of(ids)) == before + (1 if ids else 0)
        self.model.insert(vectors, ids)

    @rule(ids=SOME_IDS)
    def delete(self, ids):
        self.index.delete(ids_of(ids))
        self.model.delete(ids)

    @rule(ids=SOME_IDS, more=st.integers(0, 1), draw=st.data())
    def set_metadata(self, ids, more, draw):
        columns = self.model.columns + more
        labels = draw.draw(st.lists(st.integers(0, 2), min_size=len(ids), max_size=len(ids)))
        size = len(ids) * columns
        values = draw.draw(st.lists(st.integers(-1, 2), min_size=size, max_size=size))
        table = np.array(values, dtype=np.int64).reshape(len(ids), columns)
        self.index.set_metadata(ids_of(ids), ids_of(labels), table)
        self.model.set_metadata(ids, labels, table)

    @rule(k=KS, draw=st.data())
    def search_base(self, k, draw):
        query = query_of(draw)
        self.agree(self.index.search(query, k), self.model.best(self.model.base, query, k))

    @rule(k=KS, key=st.sampled_from([4, 7, 9]), draw=st.data())
    def search_partition(self, k, key, draw):
        query = query_of(draw)
        base = self.model.base
        half = len(base) // 2
        rows = {4: base[:half], 7: base[half:], 9: []}[key]
        self.agree(self.index.search(query, k, partition=key), self.model.best(rows, query, k))

    @rule(k=KS, ids=SOME_IDS, current=st.booleans(), draw=st.data())
    def search_candidates(self, k, ids, current, draw):
        query = query_of(draw)
        hits = self.index.search(query, k, candidates=ids_of(ids), current=current)
        self.agree(hits, self.model.best(self.model.candidates(ids, current), query, k))

    @rule(k=KS, draw=st.data())
    def search_current(self, k, draw):
        query = query_of(draw)
        self.agree(self.index.search(query, k, current=True),
                   self.model.best(self.model.visible(), query, k))

    @rule(k=KS, label=st.integers(-1, 2), draw=st.data())
    def search_label(self, k, label, draw):
        query = query_of(draw)
        rows = [row for row in self.model.visible() if self.model.labels.get(row[0], -1) == label]
        self.agree(self.index.search(query, k, label=label), self.model.best(rows, query, k))
        assert self.index.match(label=label).tolist() == [id for id, _ in rows]

    @precondition(lambda self: self.model.columns > 0)
    @rule(k=KS, value=st.integers(-1, 2), draw=st.data())
    def search_column(self, k, value, draw):
        query = query_of(draw)
        column = draw.draw(st.integers(0, self.model.columns - 1))
        rows = [row for row in self.model.visible() if self.model.value(row[0], column) == value]
        self.agree(self.index.search(query, k, column=(column, value)),
                   self.model.best(rows, query, k))

    @rule(k=KS, nprobe=st.integers(0, 4), draw=st.data())
    def search_ivf(self, k, nprobe, draw):
        """Two lists: probed both, they are the candidates in the order of the centroids."""
        query = query_of(draw)
        base = self.model.by_id()
        even = [id for id in base if id % 2 == 0]
        odd = [id for id in base if id % 2 == 1]
        centroids = np.stack([query, -query])  # the first is never worse
        self.index.set_ivf(1, centroids, ids_of(even + odd),
                           np.array([0, len(even), len(even + odd)], dtype=np.int32), 1)
        self.index.set_nprobe(1, nprobe)
        rows = [(id, base[id]) for id in (even + odd if nprobe > 1 else even if nprobe else [])]
        self.agree(self.index.search(query, k, ivf=1), self.model.best(rows, query, k))

    @invariant()
    def is_the_same(self):
        visible = self.model.visible()
        assert len(self.index) == len(visible)
        assert list(self.index) == [id for id, _ in visible]
        exported = self.index.export()
        assert exported.ids.tolist() == [id for id, _ in visible]
        assert exported.vectors.tolist() == [vector.tolist() for _, vector in visible]
        assert self.index.export_base().ids.tolist() == [id for id, _ in self.model.base]
        seen = {id for id, _ in visible}
        assert all((id in self.index) == (id in seen) for id in range(31))
        meta = self.index.metadata(ids_of(range(31)))
        assert meta.labels.tolist() == [self.model.labels.get(id, -1) for id in range(31)]
        assert meta.values.tolist() == [
            [self.model.value(id, column) for column in range(self.model.columns)]
            for id in range(31)]


TestCallSequence = CallSequence.TestCase
TestCallSequence.settings = settings(max_examples=150, stateful_step_count=25, deadline=None,
                                     derandomize=True)
