"""Finds libqx_runtime and libqx_collection, and declares their functions."""

from __future__ import annotations

import ctypes
import functools
import os
import pathlib
from typing import Any

# The constants of qx_runtime.h.
FORMAT_VERSION = 1
EMPTY_ID, EMPTY_SCORE = -1, -1000000015047466219876688855040.0  # -1e30 as a 32-bit float
FILTER_ALL, FILTER_LABEL, FILTER_COLUMN = 0, 1, 2
MAX_BASE_ID = (1 << 40) - 1

_handle = ctypes.c_void_p
_array = ctypes.c_void_p  # the address of an array that the caller has checked
_int32, _uint32 = ctypes.c_int32, ctypes.c_uint32
_int64, _uint64 = ctypes.c_int64, ctypes.c_uint64

# The result and the arguments of each function, in the order of the header.
_FUNCTIONS: dict[str, tuple[Any, ...]] = {
    "qx_index_new": (_handle, _uint32, _uint32),
    "qx_index_free": (None, _handle),
    "qx_index_stats": (_int32, _handle, _array, _array, _array, _array),
    "qx_index_snapshot": (_uint64, _handle),
    "qx_index_mutated": (_uint32, _handle),
    "qx_index_sealed": (_uint32, _handle),
    "qx_index_delta_count": (_int64, _handle),
    "qx_runtime_format_version": (_int32,),
    "qx_index_build": (_int32, _handle, _array, _int64, _int32, _array, _array, _array, _array,
                       _int32),
    "qx_index_export_base": (_int64, _handle, _array, _array),
    "qx_index_search_full": (_int32, _handle, _array, _int32, _array, _array),
    "qx_index_search_partition": (_int32, _handle, _int64, _array, _int32, _array, _array),
    "qx_index_scatter_topk": (_int32, _handle, _array, _int32, _array, _int32, _array, _array),
    "qx_tuner_defaults": (_int32, _array, _array),
    "qx_index_tuner_oversized": (_int32, _handle, _int32, _array, _array),
    "qx_index_insert": (_uint64, _handle, _array, _array, _int32),
    "qx_index_delete": (_uint64, _handle, _array, _int32),
    "qx_index_set_ivf": (_int32, _handle, _int64, _int32, _int32, _array, _array, _array, _int32),
    "qx_index_has_ivf": (_int32, _handle, _int64),
    "qx_index_clear_ivf": (_int32, _handle),
    "qx_index_set_ivf_nprobe": (_int64, _handle, _int64, _int32),
    "qx_index_search_ivf": (_int32, _handle, _int64, _array, _int32, _array, _array),
    "qx_index_search_mvcc": (_int64, _handle, _array, _int32, _array, _uint32, _array, _array),
    "qx_index_set_rowmeta": (_int32, _handle, _array, _array, _array, _int32, _int32),
    "qx_index_export_rowmeta": (_int32, _handle, _array, _uint32, _array, _array),
    "qx_index_search_filtered": (_int64, _handle, _uint32, _int32, _int64, _array, _uint32,
                                 _array, _array),
    "qx_index_match_ids": (_int64, _handle, _uint32, _int32, _int64, _array),
    "qx_index_visible_ids": (_int64, _handle, _array),
    "qx_index_visible_count": (_int64, _handle),
    "qx_index_export_visible": (_int64, _handle, _array, _array),
}


# The constants of qx_collection.h.
OK, INVALID, OUT_OF_MEMORY, CANCELLED, IO_ERROR, CORRUPT = range(6)
NUMBERS, TEXTS = 0, 1
INTEGER, REAL, BOOLEAN, TEXT = range(4)
INNER_PRODUCT, COSINE, EUCLIDEAN = range(3)

Progress = ctypes.CFUNCTYPE(_int32, ctypes.c_void_p, _int64, _int64)
Fill = ctypes.CFUNCTYPE(_int32, ctypes.c_void_p, _int64, _int64, ctypes.c_void_p)
Accept = ctypes.CFUNCTYPE(_int32, ctypes.c_void_p, _int64, ctypes.c_void_p)


class Text(ctypes.Structure):
    _fields_ = [("data", ctypes.c_void_p), ("size", _int64)]


class Ids(ctypes.Structure):
    kept: Any  # what its pointers point to
    _fields_ = [("count", _int64), ("numbers", _array), ("texts", _array)]


class Column(ctypes.Structure):
    _fields_ = [("name", ctypes.c_char_p), ("type", _int32)]


class Values(ctypes.Structure):
    _fields_ = [("integers", _array), ("reals", _array), ("booleans", _array), ("texts", _array),
                ("nulls", _array)]


class Options(ctypes.Structure):
    _fields_ = [("dim", _int32), ("id_kind", _int32), ("columns", ctypes.POINTER(Column)),
                ("n_columns", _int32), ("threads", _int32), ("memory_limit", _int64),
                ("manual", _int32), ("metric", _int32)]


class Search(ctypes.Structure):
    kept: Any  # what its pointers point to
    _fields_ = [("filter", ctypes.c_char_p), ("among", ctypes.POINTER(Ids)), ("accept", Accept),
                ("accept_context", ctypes.c_void_p), ("progress", Progress),
                ("progress_context", ctypes.c_void_p), ("threads", _int32), ("probes", _int32),
                ("limit", ctypes.POINTER(ctypes.c_float))]


class Hits(ctypes.Structure):
    _fields_ = [("n_queries", _int64), ("k", _int64), ("counts", _array), ("ids", _array),
                ("texts", _array), ("scores", _array)]


class Rows(ctypes.Structure):
    _fields_ = [("count", _int64), ("dim", _int32), ("n_columns", _int32), ("ids", _array),
                ("texts", _array), ("vectors", _array), ("columns", ctypes.POINTER(Values)),
                ("found", _array)]


class CollectionStats(ctypes.Structure):
    _fields_ = [(name, _int64) for name in ("rows", "dead_rows", "tail_rows", "segments", "bytes",
                                            "lists")]


class Tuning(ctypes.Structure):
    _fields_ = [("n_queries", _int64), ("probes", _int32), ("recall", ctypes.c_double),
                ("seconds", ctypes.c_double), ("exact_seconds", ctypes.c_double)]


class Lists(ctypes.Structure):
    _fields_ = [("count", _int64), ("centroids", _array), ("of_rows", _array)]


_out = ctypes.c_void_p  # where a pointer is to be written
_COLLECTION_FUNCTIONS: dict[str, tuple[Any, ...]] = {
    "qx_collection_new": (_int32, ctypes.POINTER(Options), _out),
    "qx_collection_build": (_int32, ctypes.POINTER(Options), Ids, _array, ctypes.POINTER(Lists),
                            Fill, ctypes.c_void_p, _out),
    "qx_collection_free": (None, _handle),
    "qx_collection_message": (ctypes.c_char_p,),
    "qx_collection_upsert": (_int32, _handle, Ids, _array, _array),
    "qx_collection_remove": (_int32, _handle, Ids, _out),
    "qx_collection_compact": (_int32, _handle, Progress, ctypes.c_void_p),
    "qx_view_new": (_int32, _handle, _out),
    "qx_view_free": (None, _handle),
    "qx_view_upsert": (_int32, _handle, Ids, _array, _array),
    "qx_view_remove": (_int32, _handle, Ids, _out),
    "qx_collection_search": (_int32, _handle, _handle, _array, _int64, _int64,
                             ctypes.POINTER(Search), _out),
    "qx_hits_free": (None, _handle),
    "qx_collection_explain": (_int32, _handle, _handle, ctypes.POINTER(Search), _out),
    "qx_text_free": (None, _handle),
    "qx_collection_get": (_int32, _handle, _handle, Ids, _out),
    "qx_rows_free": (None, _handle),
    "qx_collection_contains": (_int32, _handle, _handle, Ids, _array),
    "qx_collection_list": (_int32, _handle, _handle, ctypes.c_char_p, Ids, _int64, _out),
    "qx_collection_count": (_int64, _handle, _handle),
    "qx_collection_stats": (None, _handle, ctypes.POINTER(CollectionStats)),
    "qx_collection_train": (_int32, _handle, _int64, Progress, ctypes.c_void_p),
    "qx_collection_lists": (_int32, _handle, Ids, _int64, _array, _array),
    "qx_collection_tune": (_int32, _handle, _array, _int64, _int64, ctypes.c_double,
                           ctypes.POINTER(Search), ctypes.POINTER(Tuning)),
    "qx_collection_save": (_int32, _handle, _handle, ctypes.c_char_p, Progress, ctypes.c_void_p),
    "qx_collection_load": (_int32, ctypes.c_char_p, ctypes.POINTER(Options), Progress,
                           ctypes.c_void_p, _out),
    "qx_collection_schema": (None, _handle, ctypes.POINTER(Options)),
}


def _candidates(name: str) -> list[str]:
    """The places to look at: what the user says, the library of the wheel, the system's."""
    named = os.environ.get(f"{name[3:].upper()}_LIBRARY")
    if named:
        return [named]
    beside = pathlib.Path(__file__).with_name(f"{name}.so.1")
    return ([str(beside)] if beside.exists() else []) + [f"{name}.so.1"]


def _load(name: str, functions: dict[str, tuple[Any, ...]]) -> tuple[ctypes.CDLL, str]:
    """Returns a library, and where it is. Its calls release the interpreter's lock."""
    failures = []
    for candidate in _candidates(name):
        try:
            library = ctypes.CDLL(candidate)
        except OSError as error:
            failures.append(str(error))
            continue
        for function_name, (result, *arguments) in functions.items():
            function = getattr(library, function_name)
            function.restype = result
            function.argtypes = arguments
        return library, candidate
    raise ImportError(f"{name}.so.1 was not found; install the library, or set "
                      f"{name[3:].upper()}_LIBRARY to its path. " + "; ".join(failures))


def load() -> ctypes.CDLL:
    """Returns libqx_runtime."""
    library, path = _load("libqx_runtime", _FUNCTIONS)
    version = library.qx_runtime_format_version()
    if version != FORMAT_VERSION:
        raise ImportError(f"{path} has interface {version}, and this package needs "
                          f"{FORMAT_VERSION}")
    return library


@functools.lru_cache(maxsize=None)
def collection() -> ctypes.CDLL:
    """Returns libqx_collection, which is looked for when it is first needed."""
    return _load("libqx_collection", _COLLECTION_FUNCTIONS)[0]
