"""A second statement of what a table answers, over plain SQL rows and NumPy."""
import numpy as np


def score(query, vector):
    """One chain of fused multiply-adds in 32 bits: exact products, one rounding a step."""
    total = np.float32(0)
    for a, b in zip(query, vector):
        # The product is exact in 64 bits; for the small whole numbers of the tests, so is the sum.
        total = np.float32(np.float64(a) * np.float64(b) + np.float64(total))
    return total


def best(rows, query, k, passes):
    """rows: rowid -> (vector, numbers). The k best (rowid, score) that pass, ties by rowid."""
    scored = [(-float(score(query, vector)), rowid)
              for rowid, (vector, numbers) in rows.items() if passes(rowid, numbers)]
    return [(rowid, -negative) for negative, rowid in sorted(scored)[:k]]
