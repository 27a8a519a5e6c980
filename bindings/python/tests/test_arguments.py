"""What is not as it must be raises a clear error, and changes nothing."""

import copy
import ctypes
import gc
import pathlib
import pickle
import re
import time
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import qx_runtime
from hostile_calls import LEAST32, MOST32, Liar
from qx_runtime import _library


def vectors(rows, dim=3, dtype=np.float32):
    return np.arange(rows * dim, dtype=dtype).reshape(rows, dim)


def ids(*numbers):
    return np.array(numbers, dtype=np.int64)


def int32s(*numbers):
    return np.array(numbers, dtype=np.int32)


QUERY = np.ones(3, dtype=np.float32)


@pytest.fixture
def index():
    index = qx_runtime.Index(3)
    index.build(vectors(4), ids(0, 1, 2, 3), partitions=[(5, 0, 2), (6, 2, 2)])
    index.set_metadata(ids(0, 1), ids(7, 8), np.array([[1], [2]]))
    index.set_ivf(9, vectors(1), ids(0, 1), int32s(0, 2), 1)
    yield index
    # Whatever was refused, the index is as it was.
    assert index.visible_ids().tolist() == [0, 1, 2, 3]
    assert (index.snapshot, index.columns, index.has_ivf(9)) == (0, 1, True)
    assert index.search(QUERY, 9).ids.tolist() == [3, 2, 1, 0]


ONES = np.ones(6, dtype=np.float32)

NO_QUERIES = [
    (None, TypeError, "numpy array of float32, not NoneType"),
    (np.ones(3), TypeError, "must be of float32, not float64"),
    (np.ones(3, dtype=">f4"), TypeError, "must be of float32, not >f4"),
    (ONES[:4], ValueError, "3 components, not 4"),
    (ONES[np.newaxis, :3], ValueError, "must have 1 dimension, not 2"),
    (ONES[::2], ValueError, "C-contiguous"),
    (np.array([1, np.nan, 1], dtype=np.float32), ValueError, "finite"),
]
NO_IDS = [
    ([1], TypeError, "numpy array of int64, not list"),
    (np.array([1], dtype=np.int32), TypeError, "must be of int64, not int32"),
    (np.array([-1]), ValueError, "must be from 0 to"),
    (np.ma.array([1], mask=[True]), TypeError, "not a masked one"),
]
NO_KS = [(-1, ValueError), (1 << 31, ValueError), (1.0, TypeError), (None, TypeError),
         (True, TypeError), (np.bool_(True), TypeError), (Liar(1 << 40), ValueError)]
NO_DIMS = [(0, ValueError), (1 << 31, ValueError), (Liar(-3), ValueError)]
NO_SEARCHES = [
    (dict(partition=1, ivf=9), ValueError, "partition and ivf cannot be given together"),
    (dict(partition=1, current=True), ValueError, "sees the sealed base"),
    (dict(partition=1 << 63), ValueError, "partition must be"),
    (dict(partition="a"), TypeError, "partition must be an integer"),
    (dict(ivf=10), ValueError, "no inverted file under key 10"),
    (dict(label="x"), TypeError, "label must be an integer"),
    (dict(column=1), TypeError, "column must be a tuple"),
    (dict(column=(1, 0)), ValueError, "column number must be from 0 to 0, not 1"),
    (dict(column=(-1, 0)), ValueError, "column number"),
]
NO_PARTITIONS = [
    ([(1, 0, 2), (1, 0, 2)], ValueError, "must ascend"),
    ([(1, 3, 2)], ValueError, "ends after the 4 rows"),
    ([(1, -1, 2)], ValueError, "start"),
    ([(1, 2)], TypeError, "key, start, size"),
    ([7], TypeError, "key, start, size"),
]
# Vectors, ids, offsets and nprobe. In 32 bits, no difference of the last offsets is below 0.
NO_IVFS = [
    (vectors(1), ids(1), int32s(0), 1, ValueError, "2 elements"),
    (vectors(1), ids(1), int32s(0, 2), 1, ValueError, "at most 1"),
    (vectors(1), ids(1), int32s(1, 0), 1, ValueError, "ascend"),
    (vectors(1), ids(1), int32s(-1, 0), 1, ValueError, "ascend"),
    (vectors(1), ids(1), ids(0, 1), 1, TypeError, "int32"),
    (vectors(1), ids(1), int32s(0, 1), -1, ValueError, "nprobe"),
    (vectors(4), ids(), int32s(0, MOST32, LEAST32, -1, 0), 4, ValueError, "ascend"),
]
NO_COLUMNS = np.empty((0, MOST32), dtype=np.int64)
NO_CALLS = [
    (lambda i: i.build(vectors(1), ids(9)), ValueError, "built already"),
    (lambda i: i.insert(vectors(2), ids(1)), ValueError, "one row for each of the 1 ids"),
    (lambda i: i.insert(vectors(1, 4), ids(1)), ValueError, "3 components, not 4"),
    (lambda i: i.set_metadata(ids(1), ids(1)), ValueError, "1 columns or more, not 0"),
    (lambda i: i.set_metadata(ids(1), ids(1, 2), np.array([[1]])), ValueError, "labels"),
    (lambda i: i.set_metadata(ids(1), ids(1), np.array([[1], [1]])), ValueError, "values"),
    (lambda i: i.set_metadata(ids(), ids(), NO_COLUMNS), MemoryError, ""),
    (lambda i: i.set_nprobe(8, 1), ValueError, "key 8"),
    (lambda i: i.match(), ValueError, "one of label and column"),
    (lambda i: i.match(label=1, column=(0, 1)), ValueError, "one of label and column"),
    # A copy would release the same handle a second time.
    (copy.copy, TypeError, "neither copied nor pickled"),
    (copy.deepcopy, TypeError, "neither copied nor pickled"),
    (pickle.dumps, TypeError, "neither copied nor pickled"),
]
ID_CALLS = [
    lambda i, wrong: i.delete(wrong),
    lambda i, wrong: i.metadata(wrong),
    lambda i, wrong: i.insert(vectors(len(wrong)), wrong),
    lambda i, wrong: i.search(QUERY, 1, candidates=wrong),
    lambda i, wrong: i.set_metadata(wrong, ids(1), np.array([[1]])),
]
REFUSED = (
    [(lambda i, q=query: i.search(q, 1), *rest) for query, *rest in NO_QUERIES]
    + [(lambda i, c=call, w=wrong: c(i, w), *rest) for wrong, *rest in NO_IDS for call in ID_CALLS]
    + [(lambda i, k=k: i.search(QUERY, k), error, "k must be") for k, error in NO_KS]
    + [(lambda i, d=dim: qx_runtime.Index(d), error, "dim must be") for dim, error in NO_DIMS]
    + [(lambda i, g=given: i.search(QUERY, 1, **g), *rest) for given, *rest in NO_SEARCHES]
    + [(lambda i, r=row: i.set_ivf(1, *r[:4]), *row[4:]) for row in NO_IVFS]
    + NO_CALLS)


@pytest.mark.parametrize("call,error,message", REFUSED)
def test_what_does_not_fit_is_refused(index, call, error, message):
    with pytest.raises(error, match=message):
        call(index)


@pytest.mark.parametrize("dim,given,error,message", [
    *((3, (vectors(4), None, parts), error, message) for parts, error, message in NO_PARTITIONS),
    (1, (vectors(1, 1), ids(1 << 40), []), ValueError, "must be from 0 to"),
    (1, (vectors(1, 1), ids((1 << 40) - 1), []), MemoryError, ""),
])
def test_a_base_that_cannot_be(dim, given, error, message):
    index = qx_runtime.Index(dim)
    with pytest.raises(error, match=message):
        index.build(given[0], given[1], partitions=given[2])
    assert not index.sealed


def test_a_huge_k_takes_no_memory(index):
    for given, found in (({}, 4), (dict(current=True), 4), (dict(ivf=9), 2)):
        assert len(index.search(QUERY, MOST32, **given).ids) == found


def test_a_closed_index():
    index = qx_runtime.Index(3)
    index.close()
    index.close()
    for call in (lambda: len(index), lambda: index.insert(vectors(1), ids(1)), lambda: 1 in index,
                 lambda: index.search(QUERY, 1), lambda: index.export(), lambda: index.sealed):
        with pytest.raises(ValueError, match="closed"):
            call()
    assert "closed" in repr(index)


@pytest.fixture
def seen(monkeypatch):
    """The arguments of the latest call of each function of the library that decides over memory."""
    seen = {}
    for name in ("qx_index_build", "qx_index_set_ivf", "qx_index_search_full"):
        original = getattr(qx_runtime._index._lib, name)
        call = lambda *given, name=name, original=original: (seen.update({name: given}),
                                                             original(*given))[1]
        monkeypatch.setattr(qx_runtime._index._lib, name, call)
    return seen


def test_queries_are_read_in_place(seen):
    qx_runtime.Index(3).search(QUERY, 1)
    assert seen["qx_index_search_full"][1] == QUERY.ctypes.data


def test_ids_and_offsets_that_another_thread_changes(seen):
    """What decides over memory and places is copied before it is checked."""
    index, base_ids, offsets = qx_runtime.Index(3), ids(0, 1), int32s(0, 1)
    index.build(vectors(2), base_ids)
    index.set_ivf(1, vectors(1), ids(1), offsets, 1)
    assert base_ids.ctypes.data not in seen["qx_index_build"]
    assert offsets.ctypes.data not in seen["qx_index_set_ivf"]


def test_threads_share_an_index():
    index = qx_runtime.Index(16)
    rng = np.random.default_rng(1)
    index.build(rng.standard_normal((20000, 16), dtype=np.float32))
    queries = rng.standard_normal((8, 16), dtype=np.float32)
    expected = [index.search(query, 5).ids.tolist() for query in queries]

    def ask(query):
        found = []
        for number in range(50):
            index.delete(ids(20000 + number))
            found.append(index.search(query, 5).ids.tolist())
        return found

    def ask_until_closed(query):
        found = []
        with pytest.raises(ValueError, match="closed"):
            while True:
                found.append(index.search(query, 5).ids.tolist())
                index.visible_ids(), index.metadata(ids(1))
        return found

    with ThreadPoolExecutor(len(queries)) as pool:
        assert list(pool.map(ask, queries)) == [[right] * 50 for right in expected]
        assert index.snapshot == 400
        asked = [pool.submit(ask_until_closed, query) for query in queries]
        time.sleep(0.01)
        index.close()
        for done, right in zip(asked, expected):
            assert all(found == right for found in done.result())


def test_other_threads_go_on_during_a_call():
    """A call holds the index's own lock, not the interpreter's, which PyDLL would keep."""
    assert type(qx_runtime._index._lib) is ctypes.CDLL


def test_an_index_that_nobody_holds_is_released():
    index = qx_runtime.Index(3)
    index.insert(vectors(1), ids(1))
    del index
    gc.collect()


class Changed(np.ndarray):
    """An array whose attributes are false."""

    ctypes = property(lambda self: pytest.fail("asked for"))
    size = property(lambda self: 0)

    def copy(self):
        return pytest.fail("asked for")


def test_subclasses_are_read_as_plain_arrays(index):
    assert index.search(QUERY.view(Changed), 9).ids.tolist() == [3, 2, 1, 0]
    assert index.metadata(ids(1).view(Changed)).labels.tolist() == [8]
    with pytest.raises(ValueError, match="must be from 0 to"):
        index.delete(ids(-5).view(Changed))


def test_an_integer_that_uses_the_index(index):
    """No code of the caller runs under the lock."""
    class Asker:
        def __index__(self):
            return 9 if len(index) else 0

    assert len(index.search(QUERY, 1, ivf=Asker()).ids) == 1
    index.set_nprobe(Asker(), 1)
    assert index.has_ivf(Asker())


def test_memory_is_required_for_every_growth(monkeypatch):
    """Also where a growing block depends on what earlier calls brought."""
    index, required = qx_runtime.Index(3), []
    monkeypatch.setattr(qx_runtime._memory, "require", required.append)

    def asked(call):
        required.clear()
        call()
        return max(required, default=0)

    index.insert(vectors(5), np.arange(5))
    assert asked(lambda: index.insert(vectors(1), ids(5))) > 4 * 32  # 18 floats do not fit into 16
    assert asked(lambda: index.insert(vectors(1), ids(6))) == 0
    index.delete(np.arange(1024))
    assert asked(lambda: index.delete(ids(7, 8))) == 0
    assert asked(lambda: index.delete(ids(1024))) > 24 * 2048
    table = np.zeros((1024, 2), dtype=np.int64)
    index.set_metadata(np.arange(1024), np.arange(1024), table)
    assert asked(lambda: index.set_metadata(ids(1), ids(1), table[:1])) == 0
    assert asked(lambda: index.set_metadata(ids(1024), ids(1), table[:1])) > 3 * 24 * 2048


@pytest.mark.parametrize("step", [1, 2, 1 << 20, 12345])
def test_a_count_of_distinct_ids(step):
    counted = qx_runtime._memory.DistinctIds()
    counted.add(ids(1, 2, 2, 1))
    assert counted.least == counted.most == 2
    for _ in range(2):
        counted.add(np.arange(100000) * step)
    assert 50000 < counted.least <= 100002 and 100000 <= counted.most < 150000


def test_the_constants_are_those_of_the_header():
    header = pathlib.Path(__file__).resolve().parents[3] / "include/qx_runtime.h"
    said = dict(re.findall(r"^#define QX_(?:RUNTIME_)?(\w+) ([^/\n]+)", header.read_text(), re.M))
    for name in ("FORMAT_VERSION", "EMPTY_ID", "EMPTY_SCORE", "FILTER_ALL", "FILTER_LABEL",
                 "FILTER_COLUMN", "MAX_BASE_ID"):
        value = re.sub(r"U?INT(32|64)_C|(?<=\d)f\b", "", said[name])
        assert getattr(_library, name) == eval(value), name
