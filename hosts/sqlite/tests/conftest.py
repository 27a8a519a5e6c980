"""Connections that have the extension, whose path is in QX_SQLITE_EXTENSION."""
import os
import sqlite3

import pytest


def connect(path=":memory:"):
    connection = sqlite3.connect(path, isolation_level=None, timeout=10,
                                 cached_statements=0)
    connection.enable_load_extension(True)
    connection.load_extension(os.environ["QX_SQLITE_EXTENSION"])
    return connection


@pytest.fixture
def database():
    connection = connect()
    yield connection
    connection.close()
