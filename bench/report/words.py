"""The vectors of all the words."""
import json

import numpy as np


def read_vectors(path):
    """The components of every word that has a vector, in the order of the package."""
    with open(path, encoding="utf-8") as file:
        package = json.load(file)
    vectors, dim = package["vectors"], package["dimensions"]
    return np.array([vectors[word][:dim] for word in package["words"] if word in vectors],
                    dtype=np.float32)
