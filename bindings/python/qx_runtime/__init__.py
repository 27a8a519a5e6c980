"""Vector search in memory: nearest neighbours by inner product, exact to the bit.

:class:`Collection` has rows by any id, typed columns, filters, views and files, and uses all cores.

>>> import qx_runtime
>>> songs = qx_runtime.Collection(2, columns={"year": int})
>>> songs.add([10, 20, 30], [[1, 0], [0.6, 0.8], [0, 1]], year=[1999, 2004, 2010])
>>> [id for id, score in songs.search([1, 0.5], filter=qx_runtime.col("year") > 2000)]
[20, 30]

:class:`Index` is the engine itself.

>>> import numpy as np
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

from ._calls import Cancelled, CorruptFile
from ._collection import Collection, View
from ._filter import Column, Filter, col
from ._index import Hits, Index, Metadata, Partition, Rows
from ._results import CollectionHits, CollectionRows, Row, Stats, Tuning

__all__ = ["Cancelled", "Collection", "CollectionHits", "CollectionRows", "Column", "CorruptFile",
           "Filter", "Hits", "Index", "Metadata", "Partition", "Row", "Rows", "Stats", "Tuning",
           "View", "col"]
__version__ = "1.0.0"
