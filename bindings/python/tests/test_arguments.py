"""What is not as it must be raises a clear error, and changes nothing."""

import copy
import gc
import pathlib
import pickle
import re
import threading

import numpy as np
import pytest

import qx_runtime
from qx_runtime import _library


def vectors(rows, dim=3, dtype=np.float32):
    return np.arange(rows * dim, dtype=dtype).reshape(rows, dim)


def ids(*numbers):
    return np.array(numbers, dtype=np.int64)


QUERY = np.ones(3, dtype=np.float32)


@pytest.fixture
def index():
    index = qx_runtime.Index(3)
    index.build(vectors(4), ids(0, 1, 2, 3), partitions=[(5, 0, 2), (6, 2, 2)])
    index.set_metadata(ids(0, 1), ids(7, 8), np.array([[1], [2]]))
    index.set_ivf(9, vectors(1), ids(0, 1), np.array([0, 2], dtype=np.int32), 1)
    yield index
    # Whatever was refused, the index is as it was.
    assert index.visible_ids().tolist() == [0, 1, 2, 3]
    assert (index.snapshot, index.columns, index.has_ivf(9)) == (0, 1, True)
    assert index.search(QUERY, 9).ids.tolist() == [3, 2, 1, 0]


NOT_FLOATS = [
    (None, TypeError, "numpy array of float32, not NoneType"),
    ([1.0, 2.0, 3.0], TypeError, "numpy array of float32, not list"),
    ("abc", TypeError, "not str"),
    (np.ones(3), TypeError, "must be of float32, not float64"),
    (np.ones(3, dtype=np.int32), TypeError, "must be of float32, not int32"),
    (np.ones(3, dtype=">f4"), TypeError, "must be of float32, not >f4"),
    (np.ones(4, dtype=np.float32), ValueError, "3 components, not 4"),
    (np.ones(0, dtype=np.float32), ValueError, "3 components, not 0"),
    (np.ones((1, 3), dtype=np.float32), ValueError, "must have 1 dimension, not 2"),
    (np.float32(1), TypeError, "not float32"),
    (np.ones(6, dtype=np.float32)[::2], ValueError, "C-contiguous"),
    (np.array([1, np.nan, 1], dtype=np.float32), ValueError, "finite"),
    (np.array([1, np.inf, 1], dtype=np.float32), ValueError, "finite"),
]


@pytest.mark.parametrize("query,error,message", NOT_FLOATS)
def test_a_query_that_is_none(index, query, error, message):
    with pytest.raises(error, match=message):
        index.search(query, 1)


NOT_IDS = [
    ([1], TypeError, "numpy array of int64, not list"),
    (np.array([1], dtype=np.int32), TypeError, "must be of int64, not int32"),
    (np.array([1.0]), TypeError, "must be of int64, not float64"),
    (np.array([[1]]), ValueError, "must have 1 dimension, not 2"),
    (np.arange(4)[::2], ValueError, "C-contiguous"),
    (np.array([-1]), ValueError, "must be from 0 to"),
    (np.ma.array([1], mask=[True]), TypeError, "not a masked one"),
]


@pytest.mark.parametrize("wrong,error,message", NOT_IDS)
def test_ids_that_are_none(index, wrong, error, message):
    for call in (lambda: index.delete(wrong), lambda: index.metadata(wrong),
                 lambda: index.insert(vectors(len(wrong)), wrong),
                 lambda: index.search(QUERY, 1, candidates=wrong),
                 lambda: index.set_metadata(wrong, ids(1), np.array([[1]]))):
        with pytest.raises(error, match=message):
            call()


@pytest.mark.parametrize("k,error", [(-1, ValueError), (1 << 31, ValueError), (1 << 70, ValueError),
                                     (1.0, TypeError), ("1", TypeError), (None, TypeError),
                                     (True, TypeError), (np.bool_(True), TypeError)])
def test_a_k_that_is_none(index, k, error):
    with pytest.raises(error, match="k must be"):
        index.search(QUERY, k)


def test_a_huge_k_takes_no_memory(index):
    assert len(index.search(QUERY, (1 << 31) - 1).ids) == 4
    assert len(index.search(QUERY, (1 << 31) - 1, current=True).ids) == 4
    assert len(index.search(QUERY, (1 << 31) - 1, ivf=9).ids) == 2


@pytest.mark.parametrize("arguments,error,message", [
    (dict(partition=1, ivf=9), ValueError, "partition and ivf cannot be given together"),
    (dict(partition=1, current=True), ValueError, "sees the sealed base"),
    (dict(partition=1 << 63), ValueError, "partition must be"),
    (dict(partition="a"), TypeError, "partition must be an integer"),
    (dict(ivf=10), ValueError, "no inverted file under key 10"),
    (dict(label="x"), TypeError, "label must be an integer"),
    (dict(column=1), TypeError, "column must be a tuple"),
    (dict(column=(1, 0)), ValueError, "column number must be from 0 to 0, not 1"),
    (dict(column=(-1, 0)), ValueError, "column number"),
])
def test_a_search_that_cannot_be(index, arguments, error, message):
    with pytest.raises(error, match=message):
        index.search(QUERY, 1, **arguments)


def test_changes_that_cannot_be(index):
    offsets = lambda *numbers: np.array(numbers, dtype=np.int32)
    for call, error, message in (
        (lambda: index.build(vectors(1), ids(9)), ValueError, "built already"),
        (lambda: index.insert(vectors(2), ids(1)), ValueError, "one row for each of the 1 ids"),
        (lambda: index.insert(vectors(1, 4), ids(1)), ValueError, "3 components, not 4"),
        (lambda: index.set_metadata(ids(1), ids(1)), ValueError, "1 columns or more, not 0"),
        (lambda: index.set_metadata(ids(1), ids(1, 2), np.array([[1]])), ValueError, "labels"),
        (lambda: index.set_metadata(ids(1), ids(1), np.array([[1], [1]])), ValueError, "values"),
        (lambda: index.set_ivf(1, vectors(1), ids(1), offsets(0), 1), ValueError, "2 elements"),
        (lambda: index.set_ivf(1, vectors(1), ids(1), offsets(0, 2), 1), ValueError, "at most 1"),
        (lambda: index.set_ivf(1, vectors(1), ids(1), offsets(1, 0), 1), ValueError, "ascend"),
        (lambda: index.set_ivf(1, vectors(1), ids(1), offsets(-1, 0), 1), ValueError, "ascend"),
        (lambda: index.set_ivf(1, vectors(1), ids(1), ids(0, 1), 1), TypeError, "int32"),
        (lambda: index.set_ivf(1, vectors(1), ids(1), offsets(0, 1), -1), ValueError, "nprobe"),
        (lambda: index.set_nprobe(8, 1), ValueError, "key 8"),
        (lambda: index.match(), ValueError, "one of label and column"),
        (lambda: index.match(label=1, column=(0, 1)), ValueError, "one of label and column"),
    ):
        with pytest.raises(error, match=message):
            call()


@pytest.mark.parametrize("dim,error", [(0, ValueError), (-1, ValueError), (1 << 31, ValueError),
                                       (2.0, TypeError), ("2", TypeError)])
def test_a_dimension_that_is_none(dim, error):
    with pytest.raises(error, match="dim must be"):
        qx_runtime.Index(dim)


@pytest.mark.parametrize("partitions,error,message", [
    ([(1, 0, 2), (1, 0, 2)], ValueError, "must ascend"),
    ([(1, 3, 2)], ValueError, "ends after the 4 rows"),
    ([(1, -1, 2)], ValueError, "start"),
    ([(1, 2)], TypeError, "key, start, size"),
    ([7], TypeError, "key, start, size"),
])
def test_partitions_that_cannot_be(partitions, error, message):
    index = qx_runtime.Index(3)
    with pytest.raises(error, match=message):
        index.build(vectors(4), partitions=partitions)
    assert not index.sealed


def test_base_ids_end_at_two_to_the_forty():
    index = qx_runtime.Index(1)
    with pytest.raises(ValueError, match="must be from 0 to"):
        index.build(vectors(1, 1), ids(1 << 40))
    with pytest.raises(MemoryError):
        index.build(vectors(1, 1), ids((1 << 40) - 1))
    assert not index.sealed


def test_memory_that_is_not_there(index):
    with pytest.raises(MemoryError):
        index.set_metadata(ids(), ids(), np.empty((0, (1 << 31) - 1), dtype=np.int64))


def test_a_closed_index():
    index = qx_runtime.Index(3)
    index.close()
    index.close()
    for call in (lambda: len(index), lambda: index.insert(vectors(1), ids(1)), lambda: 1 in index,
                 lambda: index.search(QUERY, 1), lambda: index.export(), lambda: index.sealed):
        with pytest.raises(ValueError, match="closed"):
            call()
    assert "closed" in repr(index)


def test_nothing_is_copied(index):
    """An array is read in place: the library gets its address."""
    seen = []
    original = qx_runtime._index._lib.qx_index_search_full
    try:
        qx_runtime._index._lib.qx_index_search_full = lambda *given: seen.append(given) or 0
        index.search(QUERY, 1)
    finally:
        qx_runtime._index._lib.qx_index_search_full = original
    assert seen[0][1] == QUERY.ctypes.data


def test_threads_share_an_index():
    index = qx_runtime.Index(16)
    rng = np.random.default_rng(1)
    index.build(rng.standard_normal((20000, 16), dtype=np.float32))
    queries = rng.standard_normal((8, 16), dtype=np.float32)
    expected = [index.search(query, 5).ids.tolist() for query in queries]
    wrong = []

    def ask(query, right):
        for round in range(50):
            index.delete(ids(20000 + round))
            if index.search(query, 5).ids.tolist() != right:
                wrong.append(query)

    threads = [threading.Thread(target=ask, args=pair) for pair in zip(queries, expected)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not wrong
    assert index.snapshot == 400


def test_other_threads_go_on_during_a_call():
    """A build holds the index's own lock, not the interpreter's."""
    index = qx_runtime.Index(256)
    rows = np.ones((200000, 256), dtype=np.float32)
    ticks, done = [], threading.Event()

    def tick():
        while not done.wait(0.001):
            ticks.append(1)

    ticker = threading.Thread(target=tick)
    ticker.start()
    before = len(ticks)
    index._ask(qx_runtime._index._lib.qx_index_build, rows, len(rows), 256,
               np.arange(len(rows)), None, None, None, 0)
    during = len(ticks) - before
    done.set()
    ticker.join()
    assert during > 2


def test_an_index_that_nobody_holds_is_released():
    index = qx_runtime.Index(3)
    index.insert(vectors(1), ids(1))
    del index
    gc.collect()


def test_offsets_whose_differences_overflow(index):
    """In 32 bits each of these offsets looks no smaller than the one before it."""
    most, least = (1 << 31) - 1, -(1 << 31)
    offsets = np.array([0, most, least, -1, 0], dtype=np.int32)
    with pytest.raises(ValueError, match="ascend"):
        index.set_ivf(1, np.ones((4, 3), dtype=np.float32), ids(), offsets, 4)


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


def test_integers_that_compare_otherwise(index):
    class Liar(int):
        __le__ = __ge__ = __lt__ = __gt__ = lambda self, other: True

    with pytest.raises(ValueError, match="k must be"):
        index.search(QUERY, Liar(1 << 40))
    with pytest.raises(ValueError, match="dim must be"):
        qx_runtime.Index(Liar(-3))


def test_an_integer_that_uses_the_index(index):
    """No code of the caller runs under the lock."""
    class Asker:
        def __index__(self):
            return 9 if len(index) else 0

    assert len(index.search(QUERY, 1, ivf=Asker()).ids) == 1
    index.set_nprobe(Asker(), 1)
    assert index.has_ivf(Asker())


def test_an_index_is_neither_copied_nor_pickled(index):
    """A copy would release the same handle a second time."""
    for call in (copy.copy, copy.deepcopy, pickle.dumps):
        with pytest.raises(TypeError, match="neither copied nor pickled"):
            call(index)


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


def test_ids_and_offsets_that_another_thread_changes():
    """What decides over memory and places is copied before it is checked."""
    seen = {}

    def stand_in(name):
        original = getattr(qx_runtime._index._lib, name)

        def call(*given):
            seen[name] = given
            return original(*given)
        return call

    index = qx_runtime.Index(3)
    base_ids, offsets = ids(0, 1), np.array([0, 1], dtype=np.int32)
    for name, call in (("qx_index_build", lambda: index.build(vectors(2), base_ids)),
                       ("qx_index_set_ivf",
                        lambda: index.set_ivf(1, vectors(1), ids(1), offsets, 1))):
        original = getattr(qx_runtime._index._lib, name)
        setattr(qx_runtime._index._lib, name, stand_in(name))
        try:
            call()
        finally:
            setattr(qx_runtime._index._lib, name, original)
    assert base_ids.ctypes.data not in seen["qx_index_build"]
    assert offsets.ctypes.data not in seen["qx_index_set_ivf"]


def test_the_constants_are_those_of_the_header():
    header = pathlib.Path(__file__).resolve().parents[3] / "include/qx_runtime.h"
    said = dict(re.findall(r"^#define QX_(?:RUNTIME_)?(\w+) ([^/\n]+)", header.read_text(), re.M))
    for name in ("FORMAT_VERSION", "EMPTY_ID", "EMPTY_SCORE", "FILTER_ALL", "FILTER_LABEL",
                 "FILTER_COLUMN", "MAX_BASE_ID"):
        value = re.sub(r"U?INT(32|64)_C|(?<=\d)f\b", "", said[name])
        assert getattr(_library, name) == eval(value), name
