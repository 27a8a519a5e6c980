"""Filters that are written in Python, and become texts as the library reads them."""

from __future__ import annotations

import math
from collections.abc import Iterable
from typing import Any, Optional, Union

import numpy as np

Literal = Union[int, float, bool, str, np.generic]

_HINT = ("combine conditions with &, | and ~, each in parentheses: "
         "(col('a') == 1) & (col('b') > 2); a range is col('a').between(1, 2)")


class Filter:
    """A condition on the columns of a row, made by :func:`col` or from a text.

    >>> str((col("year") > 2000) & ~col("genre").isin(["jazz", "folk"]))
    '"year" > 2000 AND NOT ("genre" IN (\\'jazz\\', \\'folk\\'))'

    A comparison with NULL is neither true nor false, and so is its negation: rows whose value is
    NULL are found by ``is_null()`` alone.
    """

    __array_ufunc__ = None  # a NumPy scalar on the left leaves the comparison to the column

    def __init__(self, text: str) -> None:
        self._text = _checked(text)
        self._joint: Optional[str] = "text"  # what joins its parts, None for a single condition

    def __str__(self) -> str:
        return self._text

    def __repr__(self) -> str:
        return f"{type(self).__name__}({self._text!r})"

    def __and__(self, other: Union[Filter, str]) -> Filter:
        return _join(self, "AND", other)

    def __or__(self, other: Union[Filter, str]) -> Filter:
        return _join(self, "OR", other)

    def __rand__(self, other: str) -> Filter:
        return _join(other, "AND", self)

    def __ror__(self, other: str) -> Filter:
        return _join(other, "OR", self)

    def __invert__(self) -> Filter:
        return _made(f"NOT ({self._text})")

    def __bool__(self) -> bool:
        raise TypeError(f"a filter has no truth of its own: {_HINT}")


class Column(Filter):
    """A column, to be compared; a boolean one is a condition by itself."""

    def __init__(self, name: str) -> None:
        if not isinstance(name, str) or not name:
            raise TypeError(f"the name of a column must be a text, not {name!r}")
        super().__init__('"' + name.replace('"', '""') + '"')
        self._joint = None

    def __eq__(self, value: Literal) -> Filter:  # type: ignore[override]
        return self._compared("=", value)

    def __ne__(self, value: Literal) -> Filter:  # type: ignore[override]
        return self._compared("<>", value)

    def __lt__(self, value: Literal) -> Filter:
        return self._compared("<", value)

    def __le__(self, value: Literal) -> Filter:
        return self._compared("<=", value)

    def __gt__(self, value: Literal) -> Filter:
        return self._compared(">", value)

    def __ge__(self, value: Literal) -> Filter:
        return self._compared(">=", value)

    __hash__ = None  # type: ignore[assignment]

    def _compared(self, operator: str, value: Any) -> Filter:
        return _made(f"{self} {operator} {_literal(value)}")

    def isin(self, values: Iterable[Literal]) -> Filter:
        """True where the value is one of these; false everywhere if there is none of them."""
        if isinstance(values, str):
            raise TypeError("isin takes a list of values, not a text")
        listed = ", ".join(_literal(value) for value in values)
        return _made(f"{self} IN ({listed})" if listed else "FALSE")

    def between(self, low: Literal, high: Literal) -> Filter:
        """True from low to high, both included."""
        return _made(f"{self} BETWEEN {_literal(low)} AND {_literal(high)}")

    def is_null(self) -> Filter:
        return _made(f"{self} IS NULL")

    def not_null(self) -> Filter:
        return _made(f"{self} IS NOT NULL")


def col(name: str) -> Column:
    """A column by its name, for filters: ``col("label") == 3``."""
    return Column(name)


def text_of(filter: Union[Filter, str, None]) -> Optional[bytes]:
    """A filter as the library takes it."""
    if filter is None:
        return None
    if not isinstance(filter, (Filter, str)):
        raise TypeError(f"filter must be a text or made by col(), not {type(filter).__name__}")
    return _checked(str(filter)).encode()


def _checked(text: str) -> str:
    if not isinstance(text, str):
        raise TypeError(f"a filter must be a text, not {type(text).__name__}")
    if "\0" in text:
        raise ValueError("a filter cannot hold the character 0")
    try:
        text.encode()
    except UnicodeEncodeError:
        raise ValueError("a filter cannot hold surrogates, which are no characters") from None
    return text


def _made(text: str, joint: Optional[str] = None) -> Filter:
    made = Filter(text)
    made._joint = joint
    return made


def _join(left: Any, word: str, right: Any) -> Filter:
    parts = []
    for part in (left, right):
        if not isinstance(part, (Filter, str)):
            raise TypeError(f"{part!r} is no filter; {_HINT}")
        part = part if isinstance(part, Filter) else Filter(part)
        parts.append(str(part) if part._joint in (None, word) else f"({part})")
    return _made(f" {word} ".join(parts), word)


def _literal(value: Any) -> str:
    """A value as a filter names it."""
    if isinstance(value, Filter):
        raise TypeError(f"a column is compared with a value, not with a filter; {_HINT}")
    if isinstance(value, np.generic):
        value = value.item()
    if value is None:
        raise TypeError("nothing equals None; use is_null() or not_null()")
    if isinstance(value, bool):
        return "TRUE" if value else "FALSE"
    if isinstance(value, int):
        return int.__repr__(value)
    if isinstance(value, float):
        if not math.isfinite(value):
            raise ValueError(f"a filter cannot name {value}")
        return float.__repr__(value)
    if isinstance(value, str):
        return "'" + value.replace("'", "''") + "'"
    raise TypeError(f"a column is compared with a number, a bool or a text, not with a "
                    f"{type(value).__name__}")
