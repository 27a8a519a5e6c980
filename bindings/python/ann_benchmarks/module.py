"""qx_runtime for the ann-benchmarks suite: exact search, and search through an inverted file.

The engine ranks by inner product, so rows and queries are scaled to length 1: the metric is angular.
This file and config.yml belong into the folder ann_benchmarks/algorithms/qx_runtime of the suite,
beside a Dockerfile that installs the wheel of bindings/python. The suite has not been run with them;
bench/word_recall runs the two classes, and docs/WORD_RECALL.md has what it measured.
"""

import numpy as np
import qx_runtime

try:
    from ..base.module import BaseANN
except ImportError:  # outside the suite
    BaseANN = object

SAMPLE = 64  # rows for each list that the clustering looks at
ROUNDS = 10


def scaled(given):
    rows = np.asarray(given, dtype=np.float32)
    lengths = np.linalg.norm(rows, axis=1, keepdims=True)
    return np.ascontiguousarray(rows / np.where(lengths == 0, 1, lengths))


def best(rows, centroids):
    """For each row the centroid that a search for it scores highest."""
    offered = scaled(centroids).T
    return np.concatenate([np.argmax(rows[i:i + 8192] @ offered, axis=1)
                           for i in range(0, len(rows), 8192)])


def cluster(rows, count):
    """Centroids by a few rounds over a sample, the same for the same rows."""
    numbers = np.random.default_rng(1)
    sample = rows[numbers.choice(len(rows), min(len(rows), SAMPLE * count), replace=False)]
    centroids = sample[:count].copy()
    for _ in range(ROUNDS):
        of = best(sample, centroids)
        order = np.argsort(of, kind="stable")
        used, starts = np.unique(of[order], return_index=True)
        sums = np.add.reduceat(sample[order], starts, axis=0)
        centroids[used] = sums / np.diff([*starts, len(of)])[:, None]
    return scaled(centroids)


class QxRuntimeExact(BaseANN):
    def __init__(self, metric):
        if metric != "angular":
            raise NotImplementedError(f"the metric {metric} is not angular")
        self._index = None
        self.name = "qx_runtime-exact"

    def fit(self, X):
        rows = scaled(X)
        self._index = qx_runtime.Index(rows.shape[1])
        self._index.build(rows)

    def query(self, q, n):
        return self._index.search(scaled(q[None])[0], n).ids

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
        rows = scaled(X)
        lists = min(self._n_list, len(rows))
        centroids = cluster(rows, lists)
        of = best(rows, centroids)
        # The base is in the order of the lists, and ids are the numbers of the given rows.
        order = np.argsort(of, kind="stable")
        offsets = np.zeros(lists + 1, dtype=np.int32)
        np.cumsum(np.bincount(of, minlength=lists), out=offsets[1:])
        self._index = qx_runtime.Index(rows.shape[1])
        self._index.build(rows[order], order)
        self._index.set_ivf(self.KEY, centroids, order, offsets, self._n_probe)

    def set_query_arguments(self, n_probe):
        self._n_probe = n_probe
        self._index.set_nprobe(self.KEY, n_probe)

    def query(self, q, n):
        return self._index.search(scaled(q[None])[0], n, ivf=self.KEY).ids

    def __str__(self):
        return f"qx_runtime-ivf(n_list={self._n_list}, n_probe={self._n_probe})"
