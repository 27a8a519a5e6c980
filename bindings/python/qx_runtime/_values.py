"""Arguments of a caller, converted to what the library reads."""

from __future__ import annotations

import array
from collections.abc import Iterable, Mapping, Set
from typing import Any, NamedTuple, Optional, SupportsIndex, Union

import numpy as np
import numpy.typing as npt

from . import _library
from ._arrays import INT64_MAX, INT64_MIN, Floats

IdsLike = Union[SupportsIndex, str, Iterable[Union[SupportsIndex, str]], npt.NDArray[Any]]
Schema = dict[str, type]
masked: Any = np.ma  # of which not every NumPy declares the types
Elements = Union[npt.NDArray[Any], list[Any]]


class _Type(NamedTuple):
    """A type of columns. Ids are as values of int or str."""

    number: int
    field: str  # of the library's struct
    dtype: type
    kinds: str  # of the arrays that are taken
    elements: tuple[type, ...]  # of the lists that are taken
    name: str
    zero: Any


TYPES: dict[type, _Type] = {
    int: _Type(_library.INTEGER, "integers", np.int64, "iu", (int, np.integer), "integers", 0),
    float: _Type(_library.REAL, "reals", np.float64, "fiu", (float, int, np.floating, np.integer),
                 "numbers", 0.0),
    bool: _Type(_library.BOOLEAN, "booleans", np.uint8, "b", (bool, np.bool_), "bools", False),
    str: _Type(_library.TEXT, "texts", np.int64, "", (str,), "texts", ""),
}


class ListedIds(NamedTuple):
    struct: _library.Ids
    elements: Elements
    is_single: bool  # whether one id was given, not a list of one

    def repeats(self) -> bool:
        given = self.elements
        distinct: Any = set(given) if isinstance(given, list) else np.unique(given)
        return len(distinct) < len(given)


def _listed(what: str, value: Any, in_order: bool) -> tuple[Elements, bool]:
    """The elements, as a list or as an array of numbers; and whether it was a single one."""
    if isinstance(value, (str, bytes)) or value is None:
        return [value], True
    if hasattr(value, "__array__"):
        plain: npt.NDArray[Any] = np.asarray(value)
        if plain.ndim > 1:
            raise ValueError(f"{what} must have 1 dimension, not {plain.ndim}")
        is_numbers = plain.dtype.kind in "biufc" and plain.size > 0
        elements = plain.reshape(-1)
        return elements if is_numbers else elements.tolist(), plain.ndim == 0
    if in_order and isinstance(value, (Set, Mapping)):
        raise TypeError(f"{what} must be in an order, and a {type(value).__name__} has none")
    return (list(value), False) if isinstance(value, Iterable) else ([value], True)


def _numbers(what: str, given: Elements, of: _Type) -> npt.NDArray[Any]:
    wrong: Optional[str] = None
    if isinstance(given, np.ndarray):
        if given.dtype.kind not in of.kinds:
            wrong = str(given.dtype)
        elif given.dtype.kind == "u" and of.dtype is np.int64 and given.size \
                and int(given.max()) > INT64_MAX:
            raise ValueError(f"{what} must be from {INT64_MIN} to {INT64_MAX}, not {given.max()}")
    else:
        for kind in set(map(type, given)):
            if not issubclass(kind, of.elements) or (kind is bool and of.name != "bools"):
                wrong = kind.__name__
    if wrong is not None:
        raise TypeError(f"{what} must be {of.name}, not {wrong}")
    try:
        if isinstance(given, list) and of.name != "bools":
            given = np.array(array.array("q" if of.dtype is np.int64 else "d", given))
        return np.require(np.asarray(given, dtype=of.dtype), requirements=["C", "A"])
    except OverflowError:
        raise ValueError(f"{what} must be of 64 bits, and one is beyond") from None


def _texts(what: str, given: Elements) -> tuple[npt.NDArray[Any], object]:
    """The library's array of texts, and the bytes that it points to."""
    for kind in {given.dtype.type} if isinstance(given, np.ndarray) else set(map(type, given)):
        if not issubclass(kind, str):
            raise TypeError(f"{what} must be texts, not {kind.__name__}")
    try:
        encoded = [text.encode() for text in given]
    except UnicodeEncodeError as error:
        raise ValueError(f"{what} must be of characters, without surrogates: "
                         f"{ascii(error.object)}") from None
    joined = np.frombuffer(b"".join(encoded) + b"\0", dtype=np.uint8)
    texts = np.empty((len(encoded), 2), dtype=np.int64)
    texts[:, 1] = [len(text) for text in encoded]
    texts[:, 0] = joined.ctypes.data + np.cumsum(texts[:, 1]) - texts[:, 1]
    return texts, joined


def ids(what: str, value: Any, has_texts: bool, *, in_order: bool = False) -> ListedIds:
    """Listed ids; a single one is a list of one."""
    if isinstance(value, np.ma.MaskedArray):
        raise TypeError(f"{what} must be a plain array, not a masked one")
    given, is_single = _listed(what, value, in_order)
    struct = _library.Ids(len(given))
    if has_texts:
        texts, bytes_ = _texts(what, given)
        struct.texts, struct.kept = texts.ctypes.data, (texts, bytes_)
        return ListedIds(struct, given, is_single)
    numbers = _numbers(what, given, TYPES[int])
    struct.numbers, struct.kept = numbers.ctypes.data, numbers
    return ListedIds(struct, numbers, is_single)


def vectors(what: str, value: Any, dim: int, ndims: tuple[int, ...]) -> Floats:
    """Vectors as C-contiguous float32; an array that is one is not copied."""
    if isinstance(value, np.ma.MaskedArray):
        raise TypeError(f"{what} must be a plain array, not a masked one")
    try:
        given: npt.NDArray[Any] = np.asarray(value)
    except ValueError:
        raise ValueError(f"{what} must have rows of one length") from None
    if given.dtype.kind not in "fiu":
        raise TypeError(f"{what} must be numbers, not {given.dtype}")
    if given.ndim not in ndims:
        raise ValueError(f"{what} must have {' or '.join(map(str, ndims))} dimensions, "
                         f"not {given.ndim}")
    if given.shape[-1] != dim:
        raise ValueError(f"{what} must have {dim} components, not {given.shape[-1]}")
    if given.dtype == np.float32 and given.flags.c_contiguous and given.flags.aligned:
        return given
    with np.errstate(over="ignore"):  # the library refuses what is not finite
        return np.require(given, np.float32, ["C", "A"])


def rows(listed: ListedIds, value: Any, dim: int) -> Floats:
    """One vector for each of the ids."""
    given = vectors("vectors", value if len(listed.elements) else np.empty((0, dim)), dim,
                    (1, 2) if listed.is_single else (2,)).reshape(-1, dim)
    if len(given) != len(listed.elements):
        raise ValueError(f"vectors must have one row for each of the {len(listed.elements)} ids, "
                         f"not {len(given)}")
    return given


def _column(what: str, value: Any, of: _Type, listed: ListedIds, struct: _library.Values) -> object:
    """Sets the struct to the values. Returns what it points to."""
    nulls = None
    if isinstance(value, np.ma.MaskedArray):
        hidden = masked.getmaskarray(value).tolist()
        value = [None if null else element for element, null in zip(value.data.tolist(), hidden)]
    given, is_single = _listed(what, value, True)
    if is_single and not listed.is_single:
        raise TypeError(f"{what} must be a list, one value for each of the ids")
    if len(given) != len(listed.elements):
        raise ValueError(f"{what} must have one value for each of the {len(listed.elements)} ids, "
                         f"not {len(given)}")
    if isinstance(given, list) and any(element is None for element in given):
        nulls = np.array([element is None for element in given], dtype=np.uint8)
        given = [of.zero if element is None else element for element in given]
        struct.nulls = nulls.ctypes.data
    values, kept = _texts(what, given) if of.name == "texts" else (_numbers(what, given, of), None)
    setattr(struct, of.field, values.ctypes.data)
    return nulls, values, kept


def named(columns: Mapping[str, Any], more: Mapping[str, Any]) -> dict[str, Any]:
    """What is given by the names of columns, in a mapping and as named arguments."""
    if not isinstance(columns, Mapping):
        raise TypeError(f"columns must be a mapping by name, not {type(columns).__name__}")
    for name in more:
        if name in columns:
            raise TypeError(f"column {name} is given twice")
    return {**columns, **more}


def columns(given: Mapping[str, Any], schema: Schema, listed: ListedIds) -> Any:
    """The values of all columns; of those that are not given, NULL."""
    unknown = [name for name in given if name not in schema]
    if unknown:
        raise ValueError(f"there is no column {unknown[0]!r} among {', '.join(schema) or 'none'}")
    structs = (_library.Values * len(schema))()
    kept = [_column(f"column {name}", given[name], TYPES[type_], listed, struct)
            for (name, type_), struct in zip(schema.items(), structs) if name in given]
    structs.kept = kept  # type: ignore[attr-defined]
    return structs
