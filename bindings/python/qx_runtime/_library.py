"""Finds libqx_runtime and declares its functions."""

from __future__ import annotations

import ctypes
import ctypes.util
import os
import pathlib

# The constants of the header.
FORMAT_VERSION = 1
EMPTY_ID, EMPTY_SCORE = -1, -1000000015047466219876688855040.0  # -1e30 as a 32-bit float
FILTER_ALL, FILTER_LABEL, FILTER_COLUMN = 0, 1, 2
MAX_BASE_ID = (1 << 40) - 1

_handle = ctypes.c_void_p
_array = ctypes.c_void_p  # the address of an array that the caller has checked
_int32, _uint32 = ctypes.c_int32, ctypes.c_uint32
_int64, _uint64 = ctypes.c_int64, ctypes.c_uint64

# The result and the arguments of each function, in the order of the header.
_FUNCTIONS = {
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


def _candidates() -> list[str]:
    """The places to look at: what the user says, the library of the wheel, the system's."""
    named = os.environ.get("QX_RUNTIME_LIBRARY")
    if named:
        return [named]
    beside = pathlib.Path(__file__).with_name("libqx_runtime.so.1")
    return ([str(beside)] if beside.exists() else []) + ["libqx_runtime.so.1"]


def load() -> ctypes.CDLL:
    """Returns the library. Its calls release the interpreter's lock."""
    failures = []
    for candidate in _candidates():
        try:
            library = ctypes.CDLL(candidate)
        except OSError as error:
            failures.append(str(error))
            continue
        for name, (result, *arguments) in _FUNCTIONS.items():
            function = getattr(library, name)
            function.restype = result
            function.argtypes = arguments
        version = library.qx_runtime_format_version()
        if version != FORMAT_VERSION:
            raise ImportError(f"{candidate} has interface {version}, and this package needs "
                              f"{FORMAT_VERSION}")
        return library
    raise ImportError("libqx_runtime.so.1 was not found; install the library, or set "
                      "QX_RUNTIME_LIBRARY to its path. " + "; ".join(failures))
