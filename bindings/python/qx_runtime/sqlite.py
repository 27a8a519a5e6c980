"""Vector search in SQLite: load(connection) makes its tables of vectors.

>>> import sqlite3
>>> from qx_runtime import sqlite
>>> connection = sqlite3.connect(":memory:")
>>> sqlite.load(connection)  # doctest: +SKIP
>>> connection.execute("CREATE VIRTUAL TABLE words USING qx(embedding float[3])")  # doctest: +SKIP
"""

from __future__ import annotations

import glob
import os
import pathlib
import sqlite3


def extension() -> str:
    """The path of the extension: the one that QX_SQLITE_EXTENSION names, that this package carries,
    or that is installed on the system."""
    own = pathlib.Path(__file__).with_name("qx.so")
    places = [os.environ.get("QX_SQLITE_EXTENSION", ""), str(own),
              *sorted(glob.glob("/usr/lib/*/sqlite3/qx.so")), "/usr/local/lib/sqlite3/qx.so"]
    for place in places:
        if place and (os.path.isfile(place) or os.path.isfile(place + ".so")):
            return place
    raise OSError("the extension of SQLite is not installed: set QX_SQLITE_EXTENSION to its path")


def load(connection: sqlite3.Connection) -> None:
    """Loads the extension into a connection, and forbids it to load others, as it was."""
    path = extension()
    connection.enable_load_extension(True)
    try:
        connection.load_extension(path)
    finally:
        connection.enable_load_extension(False)


def vector(numbers: object) -> bytes:
    """A vector as the extension takes it: of a list, or an array."""
    import numpy

    return numpy.asarray(numbers, dtype="<f4").tobytes()
