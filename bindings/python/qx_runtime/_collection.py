"""The collection, and views of it."""

from __future__ import annotations

import contextlib
import copy
import ctypes
import operator
import os
import pathlib
import tempfile
import threading
from collections.abc import Iterator, Mapping
from typing import Any, Callable, NamedTuple, NoReturn, Optional, Type, Union

import numpy.typing as npt

from . import _arrays, _calls, _library, _values
from ._filter import Filter, col, text_of
from ._results import CollectionHits, CollectionRows, Row, Stats, Tuning, hits_of, rows_of
from ._values import IdsLike, ListedIds

Path = Union[str, "os.PathLike[str]"]
Progress = Union[None, bool, Callable[[int, int], object], Any]

_METRICS = {"ip": _library.INNER_PRODUCT, "cosine": _library.COSINE,
            "euclidean": _library.EUCLIDEAN}
_LONG = 1 << 28  # multiplications of a search that are worth a thread, to be interrupted
_PAGE = 1000


class _Handle(NamedTuple):
    """A collection of the library, released when nobody holds it: no collection, view or call."""

    holder: _calls.Holder
    dim: int
    has_texts: bool
    metric: str
    schema: _values.Schema


class _Rows:
    """What a collection and a view of it can both do."""

    _handle: Optional[_Handle] = None
    _what = "collection"

    @contextlib.contextmanager
    def _reading(self) -> Iterator[tuple[_Handle, Any, Any]]:
        """The handle, and its pointers, for a call."""
        _calls.enter()
        handle = self._open()
        yield handle, handle.holder.address.pointer, None

    def _writing(self) -> contextlib.AbstractContextManager[tuple[_Handle, Any, Any]]:
        return self._reading()

    def _open(self) -> _Handle:
        if self._handle is None:
            raise ValueError(f"the {self._what} is closed")
        return self._handle

    # ---- What it is ----

    @property
    def dim(self) -> int:
        """The number of components of a vector."""
        return self._open().dim

    @property
    def id_type(self) -> type:
        """int or str."""
        return str if self._open().has_texts else int

    @property
    def metric(self) -> str:
        """"ip", "cosine" or "euclidean"."""
        return self._open().metric

    @property
    def columns(self) -> dict[str, type]:
        """The columns by name: int, float, bool or str."""
        return dict(self._open().schema)

    def __len__(self) -> int:
        """The number of rows."""
        with self._reading() as (_, collection, view):
            return int(_library.collection().qx_collection_count(collection, view))

    def __repr__(self) -> str:
        if self._handle is None:
            return f"<qx_runtime.{type(self).__name__}, closed>"
        columns = "".join(f", {name}: {of.__name__}" for name, of in self.columns.items())
        metric = "" if self.metric == "ip" else f", metric: {self.metric}"
        return (f"<qx_runtime.{type(self).__name__} of dimension {self.dim}, {len(self)} rows, "
                f"ids: {self.id_type.__name__}{metric}{columns}>")

    # ---- Changes ----

    def add(self, ids: IdsLike, vectors: npt.ArrayLike, /, columns: Mapping[str, Any] = {},
            **more: Any) -> None:
        """Adds rows as :meth:`upsert` does. An id that has a row, or repeats, is refused with a
        ValueError, and nothing is added."""
        self._put(ids, vectors, _values.named(columns, more), True)

    def upsert(self, ids: IdsLike, vectors: npt.ArrayLike, /, columns: Mapping[str, Any] = {},
               **more: Any) -> None:
        """Adds rows, or replaces those of their ids, vectors and values. The rows of one call appear
        together. Of an id that repeats in the call, the last row counts.

        ids      n of them, or a single one.
        vectors  of shape (n, dim), all finite; or (dim,) for a single id.
        columns  values by the name of their column, n each, in a mapping or as named arguments; or
                 one each for a single id. None, and what is masked in a masked array, is NULL; so
                 are the values of columns that are not given, also of rows that are replaced.
        """
        self._put(ids, vectors, _values.named(columns, more), False)

    def _put(self, ids: IdsLike, vectors: npt.ArrayLike, columns: Mapping[str, Any],
             is_new: bool) -> None:
        handle = self._open()
        listed = _values.ids("ids", ids, handle.has_texts, in_order=True)
        rows = _values.rows(listed, vectors, handle.dim)
        values = _values.columns(columns, handle.schema, listed)
        with self._writing() as (_, collection, view):
            if is_new:
                if listed.repeats():
                    raise ValueError("an id repeats")
                found = self._found(listed, collection, view)
                if 1 in found:
                    raise ValueError(f"there is a row of id {listed.elements[found.index(1)]}")
            name = "qx_collection_upsert" if view is None else "qx_view_upsert"
            _calls.check(getattr(_library.collection(), name)(
                view or collection, listed.struct, rows.ctypes.data, ctypes.addressof(values)))

    def remove(self, ids: IdsLike) -> int:
        """Removes the rows of ids, and returns how many there were."""
        listed = _values.ids("ids", ids, self._open().has_texts)
        removed = ctypes.c_int64()
        with self._writing() as (_, collection, view):
            name = "qx_collection_remove" if view is None else "qx_view_remove"
            _calls.check(getattr(_library.collection(), name)(
                view or collection, listed.struct, ctypes.byref(removed)))
        return removed.value

    def __delitem__(self, id: Any) -> None:
        """Removes the row of an id; KeyError if there is none."""
        self._one(id, "remove")
        if self.remove(id) == 0:
            raise KeyError(id)

    # ---- Reads ----

    def search(self, queries: npt.ArrayLike, k: int = 10, *,
               filter: Union[Filter, str, None] = None, among: Optional[IdsLike] = None,
               accept: Optional[Callable[[Any], object]] = None, threads: int = 0,
               probes: int = 0, limit: Optional[float] = None,
               progress: Progress = None) -> CollectionHits:
        """Finds the k best rows by the metric, or all there are if they are fewer; of equal scores the
        lower id comes first.

        queries   of shape (dim,) or (n, dim), all finite.
        filter    only rows that pass: made by :func:`col`, or a text such as
                  ``"label = 3 AND name IN ('a', 'b')"``.
        among     only rows of these ids.
        accept    only rows for whose id this returns true. It is called on any thread, also for rows
                  that are not found then, and must not use a collection.
        threads   at most; 0: as many as the collection has.
        probes    if not 0, only rows of so many lists of :meth:`Collection.train`, the nearest to a
                  query: approximate and faster, :meth:`Collection.tune` says how. There are k hits
                  all the same, or all rows that pass, for want of which further lists are searched,
                  unless there is a limit.
        limit     if not None, only hits whose score, as a float32, is at least this, or whose squared
                  distance is at most this; ``k=len(rows)`` gives all of them.
        progress  as of :meth:`Collection.save`.
        """
        handle = self._open()
        vectors = _values.vectors("queries", queries, handle.dim, (1, 2))
        count = len(vectors) if vectors.ndim == 2 else 1
        wanted = _arrays.number("k", k, 0, _arrays.INT64_MAX)
        search = _search(handle, filter, among, accept, threads, probes)
        if limit is not None:
            search.limit = ctypes.pointer(ctypes.c_float(_arrays.float32("limit", limit)))
        report = _calls.report_of(progress)
        library = _library.collection()
        with _calls.result(_library.Hits, "qx_hits_free") as (out, hits), \
                self._reading() as (_, collection, view):
            rows = library.qx_collection_count(collection, view)
            _run(search, accept, report, count * rows * handle.dim > _LONG,
                 lambda: library.qx_collection_search(
                     collection, view, vectors.ctypes.data, count, wanted, ctypes.byref(search), out))
            return hits_of(hits(), vectors.ndim == 2)

    def explain(self, *, filter: Union[Filter, str, None] = None,
                among: Optional[IdsLike] = None, probes: int = 0) -> str:
        """Says how a search would go: the lists that are probed, and a line for each segment,
        with its rows, those that pass, and whether rows are scanned as they stand, by a bitmap, or as
        candidates."""
        search = _search(self._open(), filter, among, probes=probes)
        with _calls.result(ctypes.c_char, "qx_text_free") as (out, text), \
                self._reading() as (_, collection, view):
            _calls.check(_library.collection().qx_collection_explain(
                collection, view, ctypes.byref(search), out))
            return ctypes.string_at(ctypes.addressof(text())).decode()

    def _found(self, listed: ListedIds, collection: Any, view: Any) -> bytes:
        found = ctypes.create_string_buffer(len(listed.elements) + 1)
        _calls.check(_library.collection().qx_collection_contains(
            collection, view, listed.struct, ctypes.addressof(found)))
        return found.raw[:len(listed.elements)]

    def __contains__(self, id: object) -> bool:
        """Whether there is a row of this id; False for what is no id of this collection."""
        try:
            listed = _values.ids("ids", id, self._open().has_texts)
        except (TypeError, ValueError):
            self._open()
            return False
        if not listed.is_single:
            raise TypeError("one id is looked for, not a list")
        with self._reading() as (_, collection, view):
            return self._found(listed, collection, view) == b"\1"

    def get(self, ids: IdsLike) -> CollectionRows:
        """The rows of ids, in the order of the list; `found` says which of them there are."""
        listed = _values.ids("ids", ids, self._open().has_texts, in_order=True)
        with _calls.result(_library.Rows, "qx_rows_free") as (out, rows), \
                self._reading() as (handle, collection, view):
            _calls.check(_library.collection().qx_collection_get(
                collection, view, listed.struct, out))
            return rows_of(rows(), handle.schema)

    def __getitem__(self, id: Any) -> Row:
        """The row of an id; KeyError if there is none."""
        self._one(id, "get")
        for row in self.get(id):
            return row
        raise KeyError(id)

    def _one(self, id: Any, other: str) -> None:
        if not _values.ids("ids", id, self._open().has_texts).is_single:
            raise TypeError(f"one id has a row; {other}() takes a list")

    def rows(self, filter: Union[Filter, str, None] = None, *,
             page: int = _PAGE) -> Iterator[CollectionRows]:
        """The rows that pass a filter, or all, by ascending id, in pages of at most `page` rows. All
        are rows of the moment at which the iteration begins."""
        text = text_of(filter)
        most = _arrays.number("page", page, 1, _arrays.INT64_MAX)
        self._open()
        return self._pages(text, most)

    def _pages(self, filter: Optional[bytes], most: int) -> Iterator[CollectionRows]:
        still, after = self._still(), _values.ids("after", [], self._open().has_texts)
        while True:
            with _calls.result(_library.Rows, "qx_rows_free") as (out, rows), \
                    still._reading() as (handle, collection, view):
                _calls.check(_library.collection().qx_collection_list(
                    collection, view, filter, after.struct, most, out))
                page = rows_of(rows(), handle.schema)
            if len(page):
                yield page
            if len(page) < most:
                return
            after = _values.ids("after", page.ids[-1:], handle.has_texts)

    def _still(self) -> _Rows:
        """What does not change while its pages are read."""
        return self

    def __iter__(self) -> Iterator[Any]:
        """The ids, ascending, of the moment at which the iteration begins."""
        for page in self.rows():
            yield from page.ids.tolist()

    def save(self, path: Path, *, progress: Progress = None) -> None:
        """Writes the rows to a file, which appears whole or not at all.

        progress  called with (done, total) now and then, or an object with update() and total, as a
                  bar of tqdm, or True for such a bar. What it raises cancels the call, and so does
                  an interrupt from the keyboard: then nothing has changed.
        """
        name, report = os.fsencode(path), _calls.report_of(progress)
        if b"\0" in name:
            raise ValueError("a path cannot hold the character 0")
        with self._reading() as (_, collection, view):
            _calls.run(lambda work: int(_library.collection().qx_collection_save(
                collection, view, name, work.progress, None)), report, True)


class Collection(_Rows):
    """Rows of an id, a vector and typed columns, searched by their vectors on all cores.

    >>> songs = Collection(2, columns={"year": int, "genre": str})
    >>> songs.add([-7, 41, 90], [[1, 0], [0.8, 0.6], [0, 1]],
    ...           year=[1999, 2004, 2010], genre=["jazz", "folk", None])
    >>> songs.search([1, 0.5], k=2)
    <2 hits: 41 1.1, -7 1.0>
    >>> for id, score in songs.search([1, 0.5], filter=col("year") > 2000):
    ...     print(f"{id} scores {score:.2f}")
    41 scores 1.10
    90 scores 0.50
    >>> songs[41]
    <row 41, year=2004, genre='folk'>

    dim           components of a vector, 1 to 65536.
    ids           int, for any integers of 64 bits, or str.
    metric        "ip": scores are inner products, the largest first. "cosine": the same of vectors
                  divided by their norms, and rows are kept and given out so; a zero vector stays
                  zero. "euclidean": scores are squared distances, the smallest first.
    columns       types by name: int (64 bits), float (64 bits), bool or str.
    threads       at most for a call; 0: as many as there are CPUs.
    memory_limit  bytes of all rows, those of views and of compaction included; 0: none.
    manual        whether rows are compacted by :meth:`compact` alone.

    Vectors and queries are given as anything that NumPy makes an array of integers or floats of, and
    are converted to float32; C-contiguous float32 arrays are read in place. Ids are integers, arrays
    of them, or texts, as UTF-8. What does not fit raises TypeError or ValueError, too little memory
    MemoryError, and nothing has changed then.

    Any thread may call anything at any time; calls release the interpreter's lock. What other threads
    write into an array during a call may or may not be seen.
    """

    def __init__(self, dim: int, *, ids: Type[Any] = int, metric: str = "ip",
                 columns: Mapping[str, type] = {}, threads: int = 0, memory_limit: int = 0,
                 manual: bool = False) -> None:
        if ids not in (int, str):
            raise TypeError(f"ids must be int or str, not {ids!r}")
        if not isinstance(metric, str):
            raise TypeError(f"metric must be a str, not {type(metric).__name__}")
        if metric not in _METRICS:
            raise ValueError(f"metric must be one of {', '.join(_METRICS)}, not {metric!r}")
        columns = _values.named(columns, {})
        listed = (_library.Column * len(columns))()
        for column, (name, of) in zip(listed, columns.items()):
            if not isinstance(name, str) or of not in _values.TYPES:
                raise TypeError(f"columns must be int, float, bool or str by name, not {name!r}: "
                                f"{of!r}")
            if "\0" in name:
                raise ValueError("the name of a column cannot hold the character 0")
            column.name, column.type = name.encode(), _values.TYPES[of].number
        options = _options(threads, memory_limit, manual)
        options.dim = _arrays.number("dim", dim, 1, 65536)
        options.id_kind = _library.TEXTS if ids is str else _library.NUMBERS
        options.columns, options.n_columns = listed, len(listed)
        options.metric = _METRICS[metric]
        address = _calls.Address("qx_collection_free")
        _calls.check(_library.collection().qx_collection_new(ctypes.byref(options), address.out))
        self._adopt(address, options)

    def _adopt(self, address: _calls.Address, options: _library.Options) -> None:
        schema = _library.Options()
        _library.collection().qx_collection_schema(address.pointer, ctypes.byref(schema))
        types = {of.number: type_ for type_, of in _values.TYPES.items()}
        columns = {column.name.decode(errors="surrogateescape"): types[column.type]
                   for column in schema.columns[:schema.n_columns]}
        self._settings = {"threads": options.threads, "memory_limit": options.memory_limit,
                          "manual": bool(options.manual)}
        self._change = threading.Lock()
        self._handle = _Handle(_calls.Holder(address), schema.dim,
                               schema.id_kind == _library.TEXTS, list(_METRICS)[schema.metric],
                               columns)

    @classmethod
    def load(cls, path: Path, *, threads: int = 0, memory_limit: int = 0, manual: bool = False,
             progress: Progress = None) -> Collection:
        """A collection from a file. Raises :class:`CorruptFile` if the file is none, or not whole."""
        name, report = os.fsencode(path), _calls.report_of(progress)
        if b"\0" in name:
            raise ValueError("a path cannot hold the character 0")
        _calls.enter()
        options = _options(threads, memory_limit, manual)
        address, loaded = _calls.Address("qx_collection_free"), cls.__new__(cls)
        _calls.run(lambda work: int(_library.collection().qx_collection_load(
            name, ctypes.byref(options), work.progress, None, address.out)), report, True)
        loaded._adopt(address, options)
        return loaded

    @contextlib.contextmanager
    def _changing(self) -> Iterator[tuple[_Handle, Any, Any]]:
        with self._reading() as opened, self._change:
            yield opened

    def _writing(self) -> contextlib.AbstractContextManager[tuple[_Handle, Any, Any]]:
        """Changes wait for one another here, so that none comes in the middle of an add."""
        return self._changing()

    def close(self) -> None:
        """Every other method then raises ValueError; closing again does nothing. The memory is
        released when calls in other threads, and views, have ended."""
        self._handle = None

    def __enter__(self) -> Collection:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def view(self) -> View:
        """A view of the current rows."""
        return View(self)

    def _still(self) -> _Rows:
        return self.view()

    def compact(self, *, progress: Progress = None) -> None:
        """Brings all rows into one segment, and gives back the memory of removed and replaced ones,
        while other calls go on. `progress` is as of :meth:`save`."""
        report = _calls.report_of(progress)
        with self._reading() as (_, collection, _view):
            _calls.run(lambda work: int(_library.collection().qx_collection_compact(
                collection, work.progress, None)), report, True)

    def train(self, lists: int, *, progress: Progress = None) -> None:
        """Divides the rows into lists by k-means, for searches with `probes`; 0 gives them up. Rows
        that are upserted later join their lists, and a file keeps them. Searches and changes go on
        meanwhile. The same rows give the same lists.

        lists     0, or 1 to 65536 and at most the number of rows; about its square root is usual.
        progress  as of :meth:`save`.
        """
        count, report = _arrays.number("lists", lists, 0, 65536), _calls.report_of(progress)
        with self._reading() as (_, collection, _view):
            _calls.run(lambda work: int(_library.collection().qx_collection_train(
                collection, count, work.progress, None)), report, True)

    @property
    def lists(self) -> int:
        """The number of lists that :meth:`train` has made, or 0."""
        return self.stats().lists

    def tune(self, k: int = 10, recall: float = 0.95, queries: Optional[npt.ArrayLike] = None, *,
             filter: Union[Filter, str, None] = None, among: Optional[IdsLike] = None,
             accept: Optional[Callable[[Any], object]] = None, progress: Progress = None) -> Tuning:
        """Finds the fewest `probes` by which searches find a part of their k best rows.

        k        1 or more.
        recall   that part: above 0, at most 1.
        queries  of shape (n, dim) or (dim,), such as those to come; None takes up to 200 rows of the
                 collection, which are easier.

        The other arguments are those of :meth:`search`.
        """
        handle = self._open()
        vectors = None if queries is None else _values.vectors("queries", queries, handle.dim, (1, 2))
        wanted = _arrays.number("k", k, 1, _arrays.INT64_MAX)
        part = _arrays.fraction("recall", recall)
        search = _search(handle, filter, among, accept)
        report, tuning = _calls.report_of(progress), _library.Tuning()
        given = (None, 0) if vectors is None else (vectors.ctypes.data, vectors.size // handle.dim)
        if vectors is not None and vectors.size == 0:
            raise ValueError("queries must be one at least")
        with self._reading() as (_, collection, _view):
            _run(search, accept, report, True, lambda: _library.collection().qx_collection_tune(
                collection, *given, wanted, part, ctypes.byref(search), ctypes.byref(tuning)))
        return Tuning(tuning.probes, tuning.recall, tuning.seconds, tuning.exact_seconds,
                      tuning.n_queries)

    def stats(self) -> Stats:
        """Numbers of rows, segments, bytes and lists."""
        stats = _library.CollectionStats()
        with self._reading() as (_, collection, _view):
            _library.collection().qx_collection_stats(collection, ctypes.byref(stats))
        return Stats(*(getattr(stats, name) for name in Stats._fields))

    def copy(self) -> Collection:
        """A collection of the same rows, lists and options, by the bytes of a file."""
        return copy.copy(self)

    def __reduce__(self) -> Any:
        """Copied and pickled as the bytes of a file, with the options."""
        with tempfile.TemporaryDirectory() as folder:
            path = pathlib.Path(folder) / "rows"
            self.save(path)
            return _from_bytes, (type(self), path.read_bytes(), self._settings)


class View(_Rows):
    """The rows of a collection at one moment: what a transaction needs.

    It sees no later change of the collection, and nobody else sees its own changes. It holds the
    memory of the rows that it sees until it is closed; the collection may be closed before. Threads
    may share it: a lock lets one call in at a time.
    """

    _what = "view"

    def __init__(self, collection: Collection) -> None:
        self._lock = threading.Lock()
        with collection._reading() as (handle, pointer, _):
            view = _calls.Address("qx_view_free", handle.holder.address)
            _calls.check(_library.collection().qx_view_new(pointer, view.out))
        self._view: Optional[_calls.Holder] = _calls.Holder(view)
        self._handle = handle

    @contextlib.contextmanager
    def _reading(self) -> Iterator[tuple[_Handle, Any, Any]]:
        _calls.enter()
        with self._lock:
            handle, view = self._open(), self._view
            yield handle, handle.holder.address.pointer, view.address.pointer if view else None

    def close(self) -> None:
        """Every other method then raises ValueError; closing again does nothing."""
        with self._lock:
            self._handle = self._view = None

    def __enter__(self) -> View:
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def __reduce__(self) -> NoReturn:
        raise TypeError("a View is neither copied nor pickled; it can be saved")


def _from_bytes(of: Type[Collection], content: bytes, settings: dict[str, Any]) -> Collection:
    with tempfile.TemporaryDirectory() as folder:
        path = pathlib.Path(folder) / "rows"
        path.write_bytes(content)
        return of.load(path, **settings)


def _options(threads: int, memory_limit: int, manual: bool) -> _library.Options:
    return _library.Options(
        threads=_arrays.count("threads", threads), manual=operator.truth(manual),
        memory_limit=_arrays.number("memory_limit", memory_limit, 0, _arrays.INT64_MAX))


def _search(handle: _Handle, filter: Union[Filter, str, None], among: Optional[IdsLike],
            accept: Optional[Callable[[Any], object]] = None, threads: int = 0,
            probes: int = 0) -> _library.Search:
    """What a search asks of rows."""
    search = _library.Search(filter=text_of(filter), threads=_arrays.count("threads", threads),
                             probes=_arrays.count("probes", probes))
    listed = None if among is None else _values.ids("among", among, handle.has_texts)
    if listed is not None:
        search.among, search.kept = ctypes.pointer(listed.struct), listed
    if accept is not None and not callable(accept):
        raise TypeError(f"accept must be callable, not {type(accept).__name__}")
    return search


def _run(search: _library.Search, accept: Optional[Callable[[Any], object]],
         report: Optional[_calls.Report], is_long: bool, call: Callable[[], Any]) -> None:
    """Makes a call that reads the search."""
    def run(work: _calls.Work) -> int:
        search.progress = work.progress
        if accept is not None:
            search.accept = work.acceptance(accept)
        return int(call())
    _calls.run(run, report, accept is not None or is_long)
