"""Vector search in memory: nearest neighbours by inner product, exact to the bit.

>>> import numpy as np
>>> import qx_runtime
>>> vectors = np.array([[1, 0], [0.6, 0.8], [0, 1]], dtype=np.float32)
>>> with qx_runtime.Index(2) as index:
...     index.build(vectors, np.array([10, 20, 30]))
...     _ = index.insert(np.array([[2, 0]], dtype=np.float32), np.array([40]))
...     _ = index.delete(np.array([10]))
...     query = np.array([1, 0], dtype=np.float32)
...     base, now = index.search(query, 2), index.search(query, 2, current=True)
>>> base.ids.tolist(), now.ids.tolist()
([10, 20], [40, 20])
"""

from ._index import Hits, Index, Metadata, Partition, Rows

__all__ = ["Hits", "Index", "Metadata", "Partition", "Rows"]
__version__ = "1.0.0"
