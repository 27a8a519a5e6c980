"""Prints what the native library finds for words, as demo_bits.mjs does by the engine of the demo.

demo_bits.py WORDS    scores as their bits: of words as they are, of ones so small that all products are
                      subnormal, and of ones so large that sums overflow
"""
import sys

import numpy as np
import qx_runtime

data = open(sys.argv[1], "rb").read()
count, dim, size = (int.from_bytes(data[at:at + 4], "little") for at in (12, 16, 20))
names = data[32:32 + size].decode().split("\n")[:count]
vectors = np.frombuffer(data, "<f2", count * dim, 32 + size).reshape(count, dim).astype(np.float32)
for exponent in (0, -72, 62):
    scaled = vectors * np.float32(2.0 ** exponent)
    with qx_runtime.Index(dim) as index:
        index.build(scaled)
        index.set_metadata(np.arange(count), np.array([len(name) for name in names]))
        for word in range(0, 20000, 101):
            for label in (None, 5):
                hits = index.search(scaled[word], 10, current=True, label=label)
                print(" ".join(f"{id}:{score.view(np.uint32):x}" for id, score in zip(hits.ids, hits.scores)))
