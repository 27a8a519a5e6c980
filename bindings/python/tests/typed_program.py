"""A program of a user, which a type checker accepts and the tests run."""

from typing import Optional

import numpy as np

import qx_runtime as qx


def best(songs: qx.Collection, query: "list[float]") -> Optional[int]:
    hits: qx.CollectionHits = songs.search(query, k=1, filter=qx.col("year") > 2000)
    for id, score in hits:
        assert isinstance(score, float)
        return int(id)
    return None


def main() -> None:
    songs = qx.Collection(2, columns={"year": int, "genre": str}, threads=1)
    songs.add([1, 2], np.eye(2), year=[1999, 2004], genre=["jazz", None])
    songs.upsert(3, (1.0, 1.0), {"year": 2010})
    assert best(songs, [1.0, 0.5]) == 3
    row: qx.Row = songs[2]
    assert row["year"] == 2004 and row.vector.tolist() == [0.0, 1.0]
    with songs.view() as view:
        removed: int = view.remove([1, 2])
        assert removed == 2 and len(view) == 1 and 1 in songs
    for page in songs.rows((qx.col("genre") == "jazz") | qx.col("genre").is_null(), page=2):
        assert page.vectors.shape == (len(page), 2)
    stats: qx.Stats = songs.stats()
    assert stats.rows == 3
    batch = songs.search(np.eye(2, dtype=np.float32), among=[1, 2], accept=lambda id: bool(id > 1))
    assert [len(hits) for hits in batch] == [1, 1]
    songs.train(2, progress=lambda done, total: None)
    tuning: qx.Tuning = songs.tune(1, 0.9, [[1.0, 0.0]])
    assert 1 <= tuning.probes <= songs.lists and songs.search([1.0, 0.0], 1, probes=tuning.probes)
    del songs[3]
    copied: qx.Collection = songs.copy()
    assert list(copied) == [1, 2]


main()
