"""What an index answers, said a second time over dictionaries and numpy."""

import numpy as np


def score(query, vector):
    """One chain of fused multiply-adds; float64 holds each product of float32 exactly, and the sum of
    the small whole numbers that the tests use. A sum that starts from +0 is never -0."""
    return np.float32(0.0 + np.dot(query.astype(np.float64), vector.astype(np.float64)))


class Model:
    def __init__(self, dim):
        self.dim = dim
        self.base = []  # (id, vector)
        self.delta = {}  # in the order of first insertion
        self.deleted = set()
        self.labels = {}
        self.values = {}
        self.columns = 0

    def build(self, vectors, ids):
        self.base = [(int(id), vector.copy()) for id, vector in zip(ids, vectors)]

    def insert(self, vectors, ids):
        for id, vector in zip(ids, vectors):
            self.delta[int(id)] = vector.copy()
            self.deleted.discard(int(id))

    def delete(self, ids):
        self.deleted.update(int(id) for id in ids)

    def set_metadata(self, ids, labels, values):
        self.columns = values.shape[1]
        for id, label, row in zip(ids, labels, values):
            self.labels[int(id)] = int(label)
            self.values[int(id)] = [int(value) for value in row]

    def value(self, id, column):
        row = self.values.get(id, [])
        return row[column] if column < len(row) else -1

    def visible(self):
        rows = [(id, vector) for id, vector in self.delta.items() if id not in self.deleted]
        return rows + [(id, vector) for id, vector in self.base
                       if id not in self.deleted and id not in self.delta]

    def by_id(self):
        return dict(self.base)  # the last row of an id

    @staticmethod
    def best(rows, query, k):
        """The k best, of equal scores the first."""
        scored = [(id, score(query, vector)) for id, vector in rows]
        order = sorted(range(len(scored)), key=lambda i: -scored[i][1])
        return [scored[i] for i in order[:k]]

    def candidates(self, ids, current):
        base = self.by_id()
        rows = []
        for id in map(int, ids):
            if current and id in self.deleted:
                continue
            if current and id in self.delta:
                rows.append((id, self.delta[id]))
            elif id in base:
                rows.append((id, base[id]))
        return rows
