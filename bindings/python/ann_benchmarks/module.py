"""qx_runtime for the ann-benchmarks suite: exact search, and search through an inverted file.

The engine ranks by inner product. For angular distance, rows and queries are scaled to length 1; for
Euclidean distance, a row gets one more component, half its negative squared length, and a query a 1.
"""

import numpy as np
import qx_runtime

try:
    from ..base.module import BaseANN
except ImportError:  # outside the suite
    BaseANN = object

SAMPLE = 64  # rows for each list that the clustering looks at
ROUNDS = 10


def scaled(rows):
    lengths = np.linalg.norm(rows, axis=1, keepdims=True)
    return rows / np.where(lengths == 0, 1, lengths)


class Space:
    """How rows and queries of a metric become those of an inner product."""

    def __init__(self, metric):
        if metric not in ("angular", "euclidean"):
            raise NotImplementedError(f"the metric {metric} is none of angular, euclidean")
        self.angular = metric == "angular"

    def rows(self, given):
        rows = np.asarray(given, dtype=np.float32)
        if self.angular:
            rows = scaled(rows)
        else:
            rows = np.hstack([rows, -(rows ** 2).sum(axis=1, keepdims=True) / 2])
        return np.ascontiguousarray(rows, dtype=np.float32)

    def queries(self, given):
        queries = np.asarray(given, dtype=np.float32)
        if self.angular:
            queries = scaled(queries)
        else:
            queries = np.hstack([queries, np.ones((len(queries), 1), dtype=np.float32)])
        return np.ascontiguousarray(queries, dtype=np.float32)

    def best(self, given, centroids):
        """For each vector the centroid that a search for it scores highest."""
        wanted, offered = self.queries(given), self.rows(centroids).T
        parts = [np.argmax(wanted[i:i + 8192] @ offered, axis=1)
                 for i in range(0, len(wanted), 8192)]
        return np.concatenate(parts)

    def cluster(self, given, count):
        """Centroids by a few rounds over a sample, the same for the same rows."""
        numbers = np.random.default_rng(1)
        chosen = numbers.choice(len(given), min(len(given), SAMPLE * count), replace=False)
        sample = np.asarray(given, dtype=np.float32)[chosen]
        if self.angular:
            sample = scaled(sample)
        centroids = sample[:count].copy()
        for _ in range(ROUNDS):
            of = self.best(sample, centroids)
            order = np.argsort(of, kind="stable")
            used, starts = np.unique(of[order], return_index=True)
            sums = np.add.reduceat(sample[order], starts, axis=0)
            centroids[used] = sums / np.diff([*starts, len(of)])[:, None]
        return centroids


class QxRuntimeExact(BaseANN):
    def __init__(self, metric):
        self._space = Space(metric)
        self._index = None
        self.name = "qx_runtime-exact"

    def fit(self, X):
        rows = self._space.rows(X)
        self._index = qx_runtime.Index(rows.shape[1])
        self._index.build(rows)

    def query(self, q, n):
        return self._index.search(self._space.queries(q[None])[0], n).ids

    def done(self):
        if self._index is not None:
            self._index.close()

    def __str__(self):
        return self.name


class QxRuntimeIVF(QxRuntimeExact):
    KEY = 0

    def __init__(self, metric, n_list):
        super().__init__(metric)
        self._n_list = n_list
        self._n_probe = 1

    def fit(self, X):
        rows = self._space.rows(X)
        lists = min(self._n_list, len(rows))
        centroids = self._space.cluster(X, lists)
        of = self._space.best(X, centroids)
        # The base is in the order of the lists, and ids are the numbers of the given rows.
        order = np.argsort(of, kind="stable")
        offsets = np.zeros(lists + 1, dtype=np.int32)
        np.cumsum(np.bincount(of, minlength=lists), out=offsets[1:])
        self._index = qx_runtime.Index(rows.shape[1])
        self._index.build(np.ascontiguousarray(rows[order]), order)
        self._index.set_ivf(self.KEY, self._space.rows(centroids), order, offsets, self._n_probe)

    def set_query_arguments(self, n_probe):
        self._n_probe = n_probe
        self._index.set_nprobe(self.KEY, n_probe)

    def query(self, q, n):
        return self._index.search(self._space.queries(q[None])[0], n, ivf=self.KEY).ids

    def __str__(self):
        return f"qx_runtime-ivf(n_list={self._n_list}, n_probe={self._n_probe})"
