"""Memory that a call needs is allocated as a trial: where the engine cannot, it ends the process.

The sizes are those of the library's version that this package came with, or somewhat more.
"""

from __future__ import annotations

import numpy as np

from ._arrays import Ids

SLACK = 4096


def require(count: float) -> None:
    """Allocates this many bytes as a trial; raises MemoryError if that fails."""
    if count >= 1 << 62:
        raise MemoryError(f"{count:.3g} bytes are needed")
    np.empty(int(count), dtype=np.uint8)


def power(count: float) -> int:
    """The smallest power of two that is not below the count; 0 for 0."""
    whole = int(-(-count // 1))
    return 0 if whole == 0 else 1 << (whole - 1).bit_length()


def table_bytes(keys: float) -> float:
    """At least the bytes of the engine's table of this many ids."""
    return 0 if keys == 0 else 128 + 32 * power(keys)


def delta_bytes(rows: int, dim: int) -> float:
    """At least the bytes of this many inserted rows."""
    return table_bytes(rows) + 16 * power(rows) + 4 * power(rows * dim)


class DistinctIds:
    """Bounds on how many distinct ids a table has, where the engine does not report it.

    Exact for few of them; from a sample of their hashes for many.
    """

    MOST = 4096  # a quarter is more than ten times the usual error

    def __init__(self) -> None:
        self._sample: set[int] = set()
        self._level = 0  # sampled hashes end in this many zeros or more

    def add(self, ids: Ids) -> None:
        mixed = ids.view(np.uint64) * np.uint64(0x9E3779B97F4A7C15)
        mixed = (mixed ^ (mixed >> np.uint64(29))) * np.uint64(0xBF58476D1CE4E5B9)
        mixed ^= mixed >> np.uint64(32)
        # In pieces, so that many new ids raise the level before they take memory.
        for start in range(0, len(mixed), self.MOST):
            piece = mixed[start:start + self.MOST]
            if self._level:
                piece = piece[piece & np.uint64((1 << self._level) - 1) == 0]
            self._sample.update(piece.tolist())
            while len(self._sample) > self.MOST:
                self._thin()

    def _thin(self) -> None:
        self._level += 1
        rest = (1 << self._level) - 1
        self._sample = {hash for hash in self._sample if hash & rest == 0}

    @property
    def least(self) -> float:
        count = len(self._sample) << self._level
        return count if self._level == 0 else count * 0.75

    @property
    def most(self) -> float:
        count = len(self._sample) << self._level
        return count if self._level == 0 else count * 1.25

    def growth(self, ids: Ids) -> float:
        """Adds ids. Returns the bytes that the engine may now have to allocate."""
        before = table_bytes(self.least)
        self.add(ids)
        after = table_bytes(self.most)
        return after if after > before else 0
