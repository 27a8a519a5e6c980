r"""What a call of the Python package costs beside the same call of the library alone, in microseconds.

    QX_RUNTIME_LIBRARY=build/release/libqx_runtime.so PYTHONPATH=bindings/python \
        python3 bench/python_calls.py

Each sample is some calls of the package and as many of the library by ctypes, with arguments that are
ready, in turn; medians are printed. The library alone is what ctypes makes of it.
"""

import statistics
import time

import numpy as np

import qx_runtime

ROUNDS, CALLS = 31, 200


def microseconds(call, calls):
    start = time.perf_counter()
    for _ in range(calls):
        call()
    return (time.perf_counter() - start) / calls * 1e6


def compare(name, package, alone, calls=CALLS):
    """The order changes from round to round."""
    samples = ([], [])
    for round in range(ROUNDS):
        for which in (0, 1) if round % 2 else (1, 0):
            samples[which].append(microseconds((package, alone)[which], calls))
    through, bare = map(statistics.median, samples)
    print(f"{name:<42} {through:9.2f} {bare:9.2f} {through - bare:9.2f} {through / bare:9.3f}")


def searches(rows, dim):
    rng = np.random.default_rng(1)
    index = qx_runtime.Index(dim)
    index.build(rng.standard_normal((rows, dim), dtype=np.float32))
    query = rng.standard_normal(dim, dtype=np.float32)
    ids, scores = np.empty(10, dtype=np.int64), np.empty(10, dtype=np.float32)
    library = qx_runtime._index._lib
    handle, places = index._handle, (query.ctypes.data, 10, ids.ctypes.data, scores.ctypes.data)
    calls = CALLS if rows <= 1000 else 10
    compare(f"search, {rows} rows of {dim}", lambda: index.search(query, 10),
            lambda: library.qx_index_search_full(handle, *places), calls)
    assert index.search(query, 10).ids.tolist() == ids[:min(rows, 10)].tolist()


def changes():
    rng = np.random.default_rng(2)
    index = qx_runtime.Index(128)
    vectors = rng.standard_normal((1000, 128), dtype=np.float32)
    ids = np.arange(1000)
    index.insert(vectors, ids)
    library, handle = qx_runtime._index._lib, index._handle
    for count in (1, 1000):
        few, their_ids = vectors[:count], ids[:count]
        places = (few.ctypes.data, their_ids.ctypes.data, count)
        compare(f"insert, {count} rows of 128", lambda: index.insert(few, their_ids),
                lambda: library.qx_index_insert(handle, *places), max(10, CALLS // count))
        compare(f"delete, {count} ids", lambda: index.delete(their_ids),
                lambda: library.qx_index_delete(handle, places[1], count), max(10, CALLS // count))


def main():
    print(f"{'call':<42} {'package':>9} {'library':>9} {'more':>9} {'times':>9}")
    for rows, dim in ((10, 16), (1000, 128), (100000, 128)):
        searches(rows, dim)
    changes()


if __name__ == "__main__":
    main()
