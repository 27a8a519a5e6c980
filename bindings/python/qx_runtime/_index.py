"""The index."""

from __future__ import annotations

import ctypes
import threading
from collections.abc import Iterable, Iterator
from typing import Any, NamedTuple, NoReturn, Optional

import numpy as np

from . import _arrays, _library, _memory
from ._arrays import INT32_MAX, INT64_MAX, Floats, Ids
from ._library import FILTER_ALL, FILTER_COLUMN, FILTER_LABEL

_lib = _library.load()
_EMPTY_SCORE = np.float32(_library.EMPTY_SCORE)
_FourNumbers = ctypes.c_uint64 * 4


class Hits(NamedTuple):
    """What a search found, best first: as many ids and scores as rows were found."""

    ids: Ids
    scores: Floats


class Rows(NamedTuple):
    """Ids and their vectors, one row each."""

    ids: Ids
    vectors: Floats


class Metadata(NamedTuple):
    """Labels, and one row of column values for each id; -1 where there is none."""

    labels: Ids
    values: Ids


class Partition(NamedTuple):
    """Contiguous rows of the base: those from ``start`` on, ``size`` of them."""

    key: int
    start: int
    size: int


class Index:
    """An index of vectors, searched by inner product.

    >>> import numpy as np
    >>> index = Index(2)
    >>> index.build(np.array([[1, 0], [0, 1]], dtype=np.float32), np.array([10, 20]))
    >>> index.search(np.array([0.6, 0.8], dtype=np.float32), 1)
    Hits(ids=array([20]), scores=array([0.8], dtype=float32))

    Vectors and queries are finite float32 arrays, ids are int64 arrays from 0 on, all C-contiguous:
    they are read in place. Anything else raises TypeError or ValueError and changes nothing;
    too little memory raises MemoryError, also where a call that needs half of what is left might
    have succeeded.

    Threads may share an index: a lock lets one call in at a time. Calls release the interpreter's
    lock, so other threads go on. What they write into an array during a call may or may not be seen,
    and no more than that: what the engine must be able to trust is copied before it is checked. An
    array must keep its memory during a call. A signal handler must not use an index that it may have
    interrupted.
    """

    def __init__(self, dim: int, *, user_tag: int = 0) -> None:
        self._handle: Optional[int] = None
        self._lock = threading.Lock()
        self._dim = _arrays.number("dim", dim, 1, INT32_MAX)
        self._user_tag = _arrays.number("user_tag", user_tag, 0, (1 << 32) - 1)
        self._partitions: tuple[Partition, ...] = ()
        self._ivfs: dict[int, tuple[int, int]] = {}  # how many ids and lists there are at most
        self._deleted = _memory.DistinctIds()
        # The metadata: columns that came with one call, and the ids that had values in them since.
        self._tables: list[tuple[int, _memory.DistinctIds]] = []
        _memory.require(_memory.SLACK)
        self._handle = _lib.qx_index_new(self._dim, self._user_tag)

    # ---- Lifecycle ----

    def close(self) -> None:
        """Releases the index. Every other method then raises ValueError; closing again does nothing."""
        with self._lock:
            handle, self._handle = self._handle, None
            _lib.qx_index_free(handle)

    def __enter__(self) -> Index:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __del__(self) -> None:
        if getattr(self, "_handle", None) is not None:
            self.close()

    def __reduce__(self) -> NoReturn:
        raise TypeError("an Index is neither copied nor pickled; build another from export()")

    def __repr__(self) -> str:
        with self._lock:
            if self._handle is None:
                return f"<qx_runtime.Index of dimension {self._dim}, closed>"
            base = self._base_count(self._handle)
            delta = _lib.qx_index_delta_count(self._handle)
        return (f"<qx_runtime.Index of dimension {self._dim}, {base} base rows, "
                f"{delta} delta rows>")

    def _open(self) -> int:
        if self._handle is None:
            raise ValueError("the index is closed")
        return self._handle

    def _ask(self, function: Any, *arguments: Any) -> Any:
        """One call under the lock."""
        with self._lock:
            return _call(function, self._open(), *arguments)

    # ---- What it is ----

    @property
    def dim(self) -> int:
        """The number of components of a vector."""
        return self._dim

    @property
    def user_tag(self) -> int:
        """The number that the index was created with."""
        return self._user_tag

    @property
    def sealed(self) -> bool:
        """Whether the base has been built."""
        return bool(self._ask(_lib.qx_index_sealed))

    @property
    def mutated(self) -> bool:
        """Whether rows have been inserted or deleted."""
        return bool(self._ask(_lib.qx_index_mutated))

    @property
    def snapshot(self) -> int:
        """A counter that each insert and delete of at least one row raises by one."""
        return int(self._ask(_lib.qx_index_snapshot))

    @property
    def base_count(self) -> int:
        """The number of base rows, deleted and replaced ones included."""
        with self._lock:
            return self._base_count(self._open())

    @staticmethod
    def _base_count(handle: int) -> int:
        numbers = _FourNumbers()
        first = ctypes.addressof(numbers)
        _lib.qx_index_stats(handle, first, first + 8, first + 16, first + 24)
        return numbers[0]

    @property
    def delta_count(self) -> int:
        """The number of distinct ids that were ever inserted."""
        return int(self._ask(_lib.qx_index_delta_count))

    @property
    def columns(self) -> int:
        """The number of metadata columns."""
        with self._lock:
            return self._column_count(self._open())

    @staticmethod
    def _column_count(handle: int) -> int:
        """Not kept here: a signal between the call and the update would leave a stale number."""
        return int(_lib.qx_index_export_rowmeta(handle, None, 0, None, None))

    @property
    def partitions(self) -> tuple[Partition, ...]:
        """The partitions of the base."""
        return self._partitions

    def __len__(self) -> int:
        """The number of visible rows."""
        return int(self._ask(_lib.qx_index_visible_count))

    def __iter__(self) -> Iterator[int]:
        """The ids of the rows that are visible when the iteration begins."""
        return iter(self.visible_ids().tolist())

    def __contains__(self, id: object) -> bool:
        """Whether a row of this id is visible.

        >>> index = Index(1)
        >>> _ = index.insert(np.array([[1]], dtype=np.float32), np.array([5]))
        >>> 5 in index, 6 in index
        (True, False)
        """
        try:
            wanted = _arrays.number("id", id, 0, INT64_MAX)
        except (TypeError, ValueError):
            return False
        # Every vector is finite, so each visible row scores 0 with the query of zeros.
        query = np.zeros(self._dim, dtype=np.float32)
        ids = np.array([wanted], dtype=np.int64)
        return bool(self._among(_lib.qx_index_search_mvcc, ids, query, 1).ids.size)

    # ---- Changes ----

    def build(self, vectors: Floats, ids: Optional[Ids] = None, *,
              partitions: Iterable[tuple[int, int, int]] = ()) -> None:
        """Seals the base: one row of `vectors` for each id, by default the row numbers.

        `partitions` are (key, start, size), with ascending keys. An index is built once; for a
        changed base build a new one, from :meth:`export`.
        """
        checked = _arrays.floats("vectors", vectors, 2, self._dim)
        if ids is None:
            ids = np.arange(len(checked), dtype=np.int64)
        # A copy, since the largest id decides over memory: no thread may raise it any more.
        given_ids = _arrays.array("ids", ids, np.int64, 1)
        checked_ids = _arrays.ids("ids", given_ids.copy(), _library.MAX_BASE_ID)
        _arrays.same_length("vectors", checked, checked_ids)
        parts = _check_partitions(partitions, len(checked))
        table = [np.array([part[i] for part in parts], dtype=dtype)
                 for i, dtype in enumerate((np.int64, np.int32, np.int32))]
        largest = int(checked_ids.max()) if checked_ids.size else -1
        with self._lock:
            handle = self._open()
            if _lib.qx_index_sealed(handle):
                raise ValueError("the index is built already; make a new one")
            _memory.require(4.0 * checked.size + 16 * len(checked) + 8.0 * (largest + 3) +
                            16 * len(parts) + _memory.SLACK)
            if _call(_lib.qx_index_build, handle, checked, len(checked), self._dim, checked_ids,
                     *table, len(parts)) != 0:
                raise ValueError("the base is larger than 2**40 components")
            self._partitions = parts

    def insert(self, vectors: Floats, ids: Ids) -> int:
        """Inserts rows, or replaces those of the ids. Returns the snapshot counter."""
        checked = _arrays.floats("vectors", vectors, 2, self._dim)
        checked_ids = _arrays.ids("ids", ids)
        _arrays.same_length("vectors", checked, checked_ids)
        with self._lock:
            handle = self._open()
            before = int(_lib.qx_index_delta_count(handle))
            after = _memory.delta_bytes(before + len(checked_ids), self._dim)
            if after > _memory.delta_bytes(before, self._dim):
                _memory.require(after)
            return int(_call(_lib.qx_index_insert, handle, checked, checked_ids, len(checked)))

    def delete(self, ids: Ids) -> int:
        """Hides the rows of the ids, if they have any. Returns the snapshot counter."""
        checked = _arrays.ids("ids", ids)
        with self._lock:
            handle = self._open()
            _memory.require(self._deleted.growth(checked))
            return int(_call(_lib.qx_index_delete, handle, checked, len(checked)))

    def set_metadata(self, ids: Ids, labels: Ids, values: Optional[Ids] = None) -> None:
        """Sets the label of each id, and its row of column values.

        More columns than before widen the index; fewer raise ValueError. Without `values` the index
        must have no columns. -1 stands for a value that is missing.
        """
        checked = _arrays.ids("ids", ids)
        checked_labels = _arrays.array("labels", labels, np.int64, 1)
        if values is None:
            values = np.empty((len(checked), 0), dtype=np.int64)
        checked_values = _arrays.array("values", values, np.int64, 2)
        _arrays.same_length("labels", checked_labels, checked)
        _arrays.same_length("values", checked_values, checked)
        columns = _arrays.count("the number of columns", checked_values.shape[1])
        with self._lock:
            handle = self._open()
            before = self._column_count(handle)
            if columns < before:
                raise ValueError(f"values must have {before} columns or more, not {columns}")
            self._require_for_metadata(checked, before, columns)
            _call(_lib.qx_index_set_rowmeta, handle, checked, checked_labels, checked_values,
                  columns, len(checked))

    def _require_for_metadata(self, ids: Ids, before: int, columns: int) -> None:
        # The labels are one more column, which is there from the first call on.
        more = columns + 1 - sum(count for count, _ in self._tables)
        tables = self._tables + ([(more, _memory.DistinctIds())] if more > 0 else [])
        widened = 40 * _memory.power(columns) if columns > before else 0
        _memory.require(widened + sum(count * table.growth(ids) for count, table in tables))
        self._tables = tables

    def set_ivf(self, key: int, centroids: Floats, list_ids: Ids,
                list_offsets: np.ndarray[Any, np.dtype[np.int32]], nprobe: int) -> None:
        """Attaches an inverted file: list c is ``list_ids[list_offsets[c]:list_offsets[c + 1]]``."""
        checked_key = _arrays.key("key", key)
        probes = _arrays.count("nprobe", nprobe)
        checked = _arrays.floats("centroids", centroids, 2, self._dim)
        checked_ids = _arrays.ids("list_ids", list_ids)
        _arrays.count("the number of centroids", len(checked))
        # A copy, since they say where the engine reads: no thread may change them any more.
        offsets = _arrays.array("list_offsets", list_offsets, np.int32, 1).copy()
        if len(offsets) != len(checked) + 1:
            raise ValueError(f"list_offsets must have {len(checked) + 1} elements, one more than "
                             f"there are centroids, not {len(offsets)}")
        if (offsets[1:] < offsets[:-1]).any() or offsets[0] < 0 or offsets[-1] > len(checked_ids):
            raise ValueError(f"list_offsets must ascend from 0 or more to at most "
                             f"{len(checked_ids)}, the number of list_ids")
        with self._lock:
            handle = self._open()
            keys = len(self._ivfs) + 1
            _memory.require(4.0 * checked.size + 8.0 * checked_ids.size + 4.0 * offsets.size +
                            _memory.table_bytes(keys) + 80 * _memory.power(keys) + _memory.SLACK)
            # First here, so that a signal in between leaves no inverted file that is not known.
            self._ivfs[checked_key] = (len(checked_ids), len(checked))
            _call(_lib.qx_index_set_ivf, handle, checked_key, len(checked), probes, checked,
                  checked_ids, offsets, len(checked_ids))

    def set_nprobe(self, key: int, nprobe: int) -> None:
        """Changes how many lists a search of the inverted file looks into."""
        checked = _arrays.key("key", key)
        probes = _arrays.count("nprobe", nprobe)
        with self._lock:
            handle = self._open()
            self._ivf(checked)
            _lib.qx_index_set_ivf_nprobe(handle, checked, probes)

    def has_ivf(self, key: int) -> bool:
        """Whether the key has an inverted file."""
        checked = _arrays.key("key", key)
        return bool(self._ask(_lib.qx_index_has_ivf, checked))

    def clear_ivf(self) -> None:
        """Releases all inverted files."""
        with self._lock:
            _lib.qx_index_clear_ivf(self._open())
            self._ivfs.clear()

    def _ivf(self, key: int) -> tuple[int, int]:
        if key not in self._ivfs:
            raise ValueError(f"there is no inverted file under key {key}")
        return self._ivfs[key]

    # ---- Reads ----

    def search(self, query: Floats, k: int, *, partition: Optional[int] = None,
               candidates: Optional[Ids] = None, ivf: Optional[int] = None,
               label: Optional[int] = None, column: Optional[tuple[int, int]] = None,
               current: bool = False) -> Hits:
        """Finds the k best rows, or all there are.

        Of the sealed base, as it was built: all of it; those of one `partition`; those of
        `candidates`; or by the inverted file under the key `ivf`.

        Of the rows that are visible now, inserted ones included and deleted ones not: all of them
        with `current`; those of `candidates` with `current`; those that have a `label`; those whose
        `column`, given as (number, value), has a value.
        """
        wanted = _arrays.count("k", k)
        checked = _arrays.floats("query", query, 1, self._dim)
        given = [name for name, value in (("partition", partition), ("candidates", candidates),
                                          ("ivf", ivf), ("label", label), ("column", column))
                 if value is not None]
        if len(given) > 1:
            raise ValueError(f"{given[0]} and {given[1]} cannot be given together")
        if current and given and given[0] in ("partition", "ivf"):
            raise ValueError(f"a search by {given[0]} sees the sealed base, not what is current")
        if partition is not None:
            part = _arrays.key("partition", partition)
            return self._search(_lib.qx_index_search_partition, (part, checked), wanted)
        if ivf is not None:
            key = _arrays.key("ivf", ivf)
            return self._search(_lib.qx_index_search_ivf, (key, checked), wanted, key)
        if candidates is not None:
            ids = _arrays.ids("candidates", candidates)
            function = _lib.qx_index_search_mvcc if current else _lib.qx_index_scatter_topk
            return self._among(function, ids, checked, wanted)
        if current or given:
            test = self._test(label, column)
            return self._search(_lib.qx_index_search_filtered, (*test, checked), wanted)
        return self._search(_lib.qx_index_search_full, (checked,), wanted)

    def _test(self, label: Optional[int],
              column: Optional[tuple[int, int]]) -> tuple[int, int, int]:
        """A filter, as the library takes it."""
        if label is not None:
            return FILTER_LABEL, 0, _arrays.key("label", label)
        if column is None:
            return FILTER_ALL, 0, 0
        if not isinstance(column, tuple) or len(column) != 2:
            raise TypeError("column must be a tuple of a column number and a value")
        columns = self.columns  # which never become fewer
        if columns == 0:
            raise ValueError("the index has no columns")
        return (FILTER_COLUMN, _arrays.number("the column number", column[0], 0, columns - 1),
                _arrays.key("the column value", column[1]))

    def _among(self, function: Any, ids: Ids, query: Floats, k: int) -> Hits:
        with self._lock:
            return _fill(function, self._open(), (ids, len(ids), query), min(k, len(ids)))

    def _search(self, function: Any, arguments: tuple[Any, ...], k: int,
                ivf: Optional[int] = None) -> Hits:
        with self._lock:
            handle = self._open()
            if ivf is not None:
                most, lists = self._ivf(ivf)
                _memory.require(4.0 * lists)
            else:
                most = self._base_count(handle) + int(_lib.qx_index_delta_count(handle))
            return _fill(function, handle, arguments, min(k, most))

    def match(self, *, label: Optional[int] = None,
              column: Optional[tuple[int, int]] = None) -> Ids:
        """The ids of the visible rows that have the label, or the value in the column."""
        if (label is None) == (column is None):
            raise ValueError("one of label and column must be given")
        ids, count = self._listed(_lib.qx_index_match_ids, *self._test(label, column))
        return ids[:count].copy()

    def metadata(self, ids: Ids) -> Metadata:
        """The labels and column values of the ids, -1 where there is none."""
        checked = _arrays.ids("ids", ids)
        with self._lock:
            handle = self._open()
            labels = np.empty(len(checked), dtype=np.int64)
            columns = self._column_count(handle)
            _memory.require(8.0 * len(checked) * columns)
            values = np.empty((len(checked), columns), dtype=np.int64)
            _call(_lib.qx_index_export_rowmeta, handle, checked, len(checked), labels, values)
        return Metadata(labels, values)

    def visible_ids(self) -> Ids:
        """The ids of the visible rows: inserted ones first, then those of the base."""
        return self._listed(_lib.qx_index_visible_ids)[0]

    def _listed(self, function: Any, *test: int) -> tuple[Ids, int]:
        """As many slots as there are visible rows, and how many of them were filled."""
        with self._lock:
            handle = self._open()
            ids = np.empty(_lib.qx_index_visible_count(handle), dtype=np.int64)
            return ids, _call(function, handle, *test, ids)

    def export(self) -> Rows:
        """All visible rows, in the order of :meth:`visible_ids`."""
        with self._lock:
            count = _lib.qx_index_visible_count(self._open())
            return self._rows(_lib.qx_index_export_visible, count)

    def export_base(self) -> Rows:
        """The base as it was built."""
        with self._lock:
            return self._rows(_lib.qx_index_export_base, self._base_count(self._open()))

    def _rows(self, export: Any, count: int) -> Rows:
        rows = Rows(np.empty(count, dtype=np.int64), np.empty((count, self._dim), dtype=np.float32))
        _call(export, self._handle, rows.vectors, rows.ids)
        return rows


def _check_partitions(partitions: Iterable[tuple[int, int, int]],
                      rows: int) -> tuple[Partition, ...]:
    checked: list[Partition] = []
    for given in partitions:
        try:
            key, start, size = given
        except (TypeError, ValueError):
            raise TypeError("a partition must be (key, start, size)") from None
        part = Partition(_arrays.key("a partition key", key),
                         _arrays.count("a partition's start", start),
                         _arrays.count("a partition's size", size))
        if checked and part.key <= checked[-1].key:
            raise ValueError(f"partition keys must ascend, and {part.key} follows "
                             f"{checked[-1].key}")
        if part.start + part.size > rows:
            raise ValueError(f"partition {part.key} ends after the {rows} rows")
        checked.append(part)
    return tuple(checked)


def _call(function: Any, *arguments: Any) -> Any:
    """Calls the library. Arrays are given as they are, and kept until it returns."""
    return function(*[argument.ctypes.data if isinstance(argument, np.ndarray) else argument
                      for argument in arguments])


def _fill(function: Any, handle: int, arguments: tuple[Any, ...], k: int) -> Hits:
    """Calls a search that fills k slots; gives those that a row reached."""
    ids = np.empty(k, dtype=np.int64)
    scores = np.empty(k, dtype=np.float32)
    count = _call(function, handle, *arguments, k, ids, scores)
    ids, scores = ids[:count], scores[:count]
    if count and ids[-1] == _library.EMPTY_ID:
        count = int(np.count_nonzero(scores > _EMPTY_SCORE))
    return Hits(ids[:count], scores[:count])
