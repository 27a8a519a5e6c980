"""What a collection answers with: hits, rows and numbers."""

from __future__ import annotations

import ctypes
from collections.abc import Iterator
from typing import Any, NamedTuple, Union

import numpy as np
import numpy.typing as npt

from . import _library, _values
from ._arrays import Floats, Ids
from ._calls import text_at

_MOST_SHOWN = 10


def array_at(address: int, dtype: Any, *shape: int) -> npt.NDArray[Any]:
    """A copy of an array of the library."""
    copy = np.empty(shape, dtype=dtype)
    if copy.nbytes:
        ctypes.memmove(copy.ctypes.data, address, copy.nbytes)
    return copy


def texts_at(address: int, count: int) -> npt.NDArray[Any]:
    size = ctypes.sizeof(_library.Text)
    texts = np.empty(count, dtype=object)
    texts[:] = [text_at(address + i * size) for i in range(count)]
    return texts


def _counted(number: int, noun: str) -> str:
    return f"{number} {noun}" + ("" if number == 1 else "s")


class CollectionHits:
    """What a search found, best first.

    Of one query, its hits: they iterate as pairs of an id and a score, ``hits[0]`` is the best one,
    ``len(hits)`` says how many there are. Of a batch, what each query found: it iterates as one
    ``CollectionHits`` for each query, and ``hits[q]`` is that of query q. Hits are true if a row was
    found.

    ids     int64, or str as object; of one query of shape (n,), of a batch (queries, k), where k is
            at most the number of rows.
    scores  float32, of the same shape.
    counts  int64, of shape () or (queries,): how many hits a query has. In a batch, slots from there
            on have NaN as a score, and -1 or None as an id.
    """

    __slots__ = ("ids", "scores", "counts")

    def __init__(self, ids: npt.NDArray[Any], scores: Floats, counts: Ids) -> None:
        self.ids, self.scores, self.counts = ids, scores, counts

    def __len__(self) -> int:
        return len(self.ids)

    def __bool__(self) -> bool:
        return bool(self.counts.any())

    def __iter__(self) -> Iterator[Any]:
        if self.ids.ndim == 1:
            return zip(self.ids.tolist(), self.scores.tolist())
        return (self[query] for query in range(len(self)))

    def __getitem__(self, at: Union[int, slice]) -> Any:
        if isinstance(at, slice):
            ids, scores = self.ids[at], self.scores[at]
            one = self.ids.ndim == 1
            return CollectionHits(ids, scores, np.array(len(ids)) if one else self.counts[at])
        if self.ids.ndim == 1:
            id = self.ids[at]
            return id if isinstance(id, str) else int(id), float(self.scores[at])
        count = self.counts[at]
        return CollectionHits(self.ids[at, :count], self.scores[at, :count], np.array(count))

    def __repr__(self) -> str:
        if self.ids.ndim == 2:
            parts = [_counted(count, "hit") for count in self.counts[:_MOST_SHOWN].tolist()]
            what = f"{len(self)} queries: " if len(self) != 1 else "1 query: "
        else:
            parts = [f"{id!r} {score!s}" for id, score in
                     zip(self.ids[:_MOST_SHOWN].tolist(), self.scores)]
            what = _counted(len(self), "hit") + ": "
        more = ["..."] if len(self) > _MOST_SHOWN else []
        return f"<{what}{', '.join(parts + more)}>" if parts else f"<{what[:-2]}>"


def hits_of(hits: _library.Hits, is_batch: bool) -> CollectionHits:
    shape = hits.n_queries, hits.k
    slots = hits.n_queries * hits.k
    counts: Ids = array_at(hits.counts, np.int64, hits.n_queries)
    scores: Floats = array_at(hits.scores, np.float32, *shape)
    is_text = bool(hits.texts)
    ids = texts_at(hits.texts, slots).reshape(shape) if is_text else array_at(hits.ids, np.int64, *shape)
    if is_batch:
        empty = np.arange(hits.k) >= counts[:, np.newaxis]
        scores[empty] = np.nan
        ids[empty] = None if is_text else -1
        return CollectionHits(ids, scores, counts)
    return CollectionHits(ids[0, :counts[0]], scores[0, :counts[0]], counts.reshape(()))


class Row:
    """A row: its id, its vector, and its values by the names of their columns, None for NULL."""

    __slots__ = ("id", "vector", "columns")

    def __init__(self, id: Any, vector: Floats, columns: dict[str, Any]) -> None:
        self.id, self.vector, self.columns = id, vector, columns

    def __getitem__(self, name: str) -> Any:
        return self.columns[name]

    def __repr__(self) -> str:
        columns = "".join(f", {name}={value!r}" for name, value in self.columns.items())
        return f"<row {self.id!r}{columns}>"


class CollectionRows:
    """Rows, which iterate as a :class:`Row` for each that was found.

    ids      int64, or str as object, of shape (n,).
    vectors  float32, of shape (n, dim).
    columns  by name: masked arrays of int64, float64 or bool, masked where NULL; or str as object,
             None where NULL. They may be given back to ``upsert``.
    found    bool: False where an id has no row; its vector is zero, its values are NULL.
    """

    __slots__ = ("ids", "vectors", "columns", "found")

    def __init__(self, ids: npt.NDArray[Any], vectors: Floats, columns: dict[str, Any],
                 found: npt.NDArray[np.bool_]) -> None:
        self.ids, self.vectors, self.columns, self.found = ids, vectors, columns, found

    def __len__(self) -> int:
        return len(self.ids)

    def __iter__(self) -> Iterator[Row]:
        ids = self.ids.tolist()
        lists = {name: values.tolist() for name, values in self.columns.items()}  # masked: None
        for i in np.flatnonzero(self.found).tolist():
            yield Row(ids[i], self.vectors[i], {name: lists[name][i] for name in lists})

    def __repr__(self) -> str:
        return f"<{_counted(len(self), 'row')}, {np.count_nonzero(self.found)} found>"


def rows_of(rows: _library.Rows, schema: _values.Schema) -> CollectionRows:
    count = rows.count
    columns = {}
    for (name, type_), values in zip(schema.items(), rows.columns[:rows.n_columns]):
        nulls = array_at(values.nulls, np.bool_, count)
        of = _values.TYPES[type_]
        if type_ is str:
            columns[name] = texts_at(values.texts, count)
            columns[name][nulls] = None
        else:
            plain = array_at(getattr(values, of.field), np.bool_ if type_ is bool else of.dtype, count)
            columns[name] = _values.masked.array(plain, mask=nulls)
    ids = texts_at(rows.texts, count) if rows.texts else array_at(rows.ids, np.int64, count)
    return CollectionRows(ids, array_at(rows.vectors, np.float32, count, rows.dim), columns,
                          array_at(rows.found, np.bool_, count))


class Stats(NamedTuple):
    """Numbers of a collection."""

    rows: int
    dead_rows: int  #: removed or replaced, and not yet compacted
    tail_rows: int  #: of the rows, those that are in no segment yet
    segments: int
    bytes: int  #: of all rows, those of views and of compaction included
    lists: int  #: 0 before :meth:`Collection.train`


class Tuning(NamedTuple):
    """What :meth:`Collection.tune` has measured."""

    probes: int  #: the fewest that reach the recall; what ``search(probes=...)`` takes
    recall: float  #: that they reach: the part of the k best rows found
    seconds: float  #: of a search with them, one query on one thread: the median
    exact_seconds: float  #: of one of all rows
    queries: int  #: that were measured
