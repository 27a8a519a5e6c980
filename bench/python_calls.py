r"""What a call of the Python package costs beside the same call of the library alone, in microseconds.

    QX_RUNTIME_LIBRARY=build/release/libqx_runtime.so PYTHONPATH=bindings/python \
        python3 bench/python_calls.py

Each sample is some calls of the package and as many of the library by ctypes, with arguments that are
ready, in turn; medians are printed. The library alone is what ctypes makes of it.
"""

import statistics
import timeit

import numpy as np

import qx_runtime

ROUNDS = 31
LIBRARY = qx_runtime._index._lib


def compare(name, package, alone, calls):
    """The order changes from round to round."""
    samples = ([], [])
    for round in range(ROUNDS):
        for which in (0, 1) if round % 2 else (1, 0):
            seconds = timeit.timeit((package, alone)[which], number=calls)
            samples[which].append(seconds / calls * 1e6)
    through, bare = map(statistics.median, samples)
    print(f"{name:<42} {through:9.2f} {bare:9.2f} {through - bare:9.2f} {through / bare:9.3f}")


def searches(random, rows, dim):
    index = qx_runtime.Index(dim)
    index.build(random.standard_normal((rows, dim), dtype=np.float32))
    query = random.standard_normal(dim, dtype=np.float32)
    ids, scores = np.empty(10, dtype=np.int64), np.empty(10, dtype=np.float32)
    places = (index._handle, query.ctypes.data, 10, ids.ctypes.data, scores.ctypes.data)
    compare(f"search, {rows} rows of {dim}", lambda: index.search(query, 10),
            lambda: LIBRARY.qx_index_search_full(*places), 200 if rows <= 1000 else 10)
    assert index.search(query, 10).ids.tolist() == ids[:min(rows, 10)].tolist()


def changes(random, count):
    index = qx_runtime.Index(128)
    vectors, ids = random.standard_normal((count, 128), dtype=np.float32), np.arange(count)
    places = (vectors.ctypes.data, ids.ctypes.data, count)
    compare(f"insert, {count} rows of 128", lambda: index.insert(vectors, ids),
            lambda: LIBRARY.qx_index_insert(index._handle, *places), max(10, 200 // count))
    compare(f"delete, {count} ids", lambda: index.delete(ids),
            lambda: LIBRARY.qx_index_delete(index._handle, *places[1:]), max(10, 200 // count))


random = np.random.default_rng(1)
print(f"{'call':<42} {'package':>9} {'library':>9} {'more':>9} {'times':>9}")
for rows, dim in ((10, 16), (1000, 128), (100000, 128)):
    searches(random, rows, dim)
for count in (1, 1000):
    changes(random, count)
