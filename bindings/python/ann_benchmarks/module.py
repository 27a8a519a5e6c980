"""qx_runtime for the ann-benchmarks suite: exact search, and search through lists.

This file, config.yml and Dockerfile belong into the folder ann_benchmarks/algorithms/qx_runtime of the
suite, with an archive of the source tree, whose command is in Dockerfile. The suite has not been run with
them; a test makes the calls that it makes, and bench/word_recall runs the two classes.
"""

import numpy as np
import qx_runtime

try:
    from ..base.module import BaseANN
except ImportError:  # outside the suite
    BaseANN = object

METRICS = {"angular": "cosine", "euclidean": "euclidean"}


class QxRuntimeExact(BaseANN):
    def __init__(self, metric):
        if metric not in METRICS:
            raise NotImplementedError(f"the metric {metric} is not among {', '.join(METRICS)}")
        self._metric = METRICS[metric]
        self._rows = None
        self._results = None
        self._probes = 0
        self.name = "qx_runtime-exact"

    def fit(self, X):
        self._rows = qx_runtime.Collection(X.shape[1], metric=self._metric)
        self._rows.upsert(np.arange(len(X)), X)
        self._rows.compact()

    def query(self, q, n):
        return self._rows.search(q, n, probes=self._probes, threads=1).ids

    def batch_query(self, X, n):
        self._results = self._rows.search(X, n, probes=self._probes)

    def get_batch_results(self):
        return [hits.ids for hits in self._results]

    def done(self):
        if self._rows is not None:
            self._rows.close()

    def __str__(self):
        return self.name


class QxRuntimeIVF(QxRuntimeExact):
    def __init__(self, metric, n_list):
        super().__init__(metric)
        self._n_list = n_list
        self._probes = 1

    def fit(self, X):
        super().fit(X)
        self._rows.train(min(self._n_list, len(X)))

    def set_query_arguments(self, n_probe):
        self._probes = n_probe

    def __str__(self):
        return f"qx_runtime-ivf(n_list={self._n_list}, n_probe={self._probes})"
