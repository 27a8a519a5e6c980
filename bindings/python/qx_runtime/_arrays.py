"""Checks of the arguments of a caller. Nothing is converted."""

from __future__ import annotations

import operator
from typing import Any

import numpy as np
import numpy.typing as npt

Ids = npt.NDArray[np.int64]
Floats = npt.NDArray[np.float32]

_FLOAT32_MAX = float(np.finfo(np.float32).max)
INT32_MAX = (1 << 31) - 1
INT64_MIN, INT64_MAX = -(1 << 63), (1 << 63) - 1


def array(what: str, value: Any, dtype: type, ndim: int) -> npt.NDArray[Any]:
    """The value, if it is an array that the library can read in place."""
    name = dtype.__name__
    if not isinstance(value, np.ndarray):
        raise TypeError(f"{what} must be a numpy array of {name}, not {type(value).__name__}; "
                        f"np.asarray(..., dtype=np.{name}) makes one")
    if isinstance(value, np.ma.MaskedArray):
        raise TypeError(f"{what} must be a plain array, not a masked one")
    # The same elements, without what a subclass may make of them.
    plain: npt.NDArray[Any] = np.asarray(value)
    if plain.dtype != np.dtype(dtype):
        raise TypeError(f"{what} must be of {name}, not {plain.dtype}")
    if plain.ndim != ndim:
        raise ValueError(f"{what} must have {ndim} dimension{'s' if ndim > 1 else ''}, "
                         f"not {plain.ndim}")
    if not plain.flags.c_contiguous or not plain.flags.aligned:
        raise ValueError(f"{what} must be C-contiguous; np.ascontiguousarray makes it so")
    return plain


def floats(what: str, value: Any, ndim: int, dim: int) -> Floats:
    """Finite vectors of the dimension."""
    checked = array(what, value, np.float32, ndim)
    if checked.shape[-1] != dim:
        raise ValueError(f"{what} must have {dim} components, not {checked.shape[-1]}")
    if not np.isfinite(checked).all():
        raise ValueError(f"{what} must be finite, without NaN and infinity")
    return checked


def ids(what: str, value: Any, limit: int = INT64_MAX) -> Ids:
    """Ids from 0 to the limit."""
    checked = array(what, value, np.int64, 1)
    if checked.size > INT32_MAX and limit == INT64_MAX:
        raise ValueError(f"{what} must be at most 2**31 - 1 in one call, not {checked.size}")
    if checked.size and (checked.min() < 0 or checked.max() > limit):
        wrong = checked[(checked < 0) | (checked > limit)][0]
        raise ValueError(f"{what} must be from 0 to {limit}, not {wrong}")
    return checked


def number(what: str, value: Any, low: int, high: int) -> int:
    """An integer from low to high, of no subclass: those may compare otherwise. A bool is none."""
    try:
        if isinstance(value, (bool, np.bool_)):
            raise TypeError
        integer = int.__add__(operator.index(value), 0)
    except TypeError:
        raise TypeError(f"{what} must be an integer, not {type(value).__name__}") from None
    if not low <= integer <= high:
        raise ValueError(f"{what} must be from {low} to {high}, not {integer}")
    return integer


def _real(what: str, value: Any) -> Any:
    if isinstance(value, bool) or not isinstance(value, (int, float, np.integer, np.floating)):
        raise TypeError(f"{what} must be a number, not {type(value).__name__}")
    return value


def fraction(what: str, value: Any) -> float:
    """A number above 0, at most 1."""
    if not 0 < _real(what, value) <= 1:
        raise ValueError(f"{what} must be above 0 and at most 1, not {value}")
    return float(value)


def float32(what: str, value: Any) -> float:
    """A number that is finite as a float32."""
    if not -_FLOAT32_MAX <= _real(what, value) <= _FLOAT32_MAX:
        raise ValueError(f"{what} must be finite as a float32, not {value}")
    return float(value)


def key(what: str, value: Any) -> int:
    """Any 64-bit integer."""
    return number(what, value, INT64_MIN, INT64_MAX)


def count(what: str, value: Any) -> int:
    """A 32-bit integer from 0 on."""
    return number(what, value, 0, INT32_MAX)


def same_length(what: str, value: npt.NDArray[Any], other: Ids) -> None:
    """Whether there is a row for each of the ids."""
    if len(value) != len(other):
        raise ValueError(f"{what} must have one row for each of the {len(other)} ids, "
                         f"not {len(value)}")
