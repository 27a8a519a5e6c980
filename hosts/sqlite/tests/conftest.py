"""Connections that have the extension, whose path is in QX_SQLITE_EXTENSION."""
import os
import sqlite3

import pytest


def connect(path=":memory:", extension=True):
    connection = sqlite3.connect(path, isolation_level=None, timeout=10, cached_statements=0,
                                 check_same_thread=False)
    if extension:
        connection.enable_load_extension(True)
        connection.load_extension(os.environ["QX_SQLITE_EXTENSION"])
    return connection


@pytest.fixture
def database():
    connection = connect()
    yield connection
    connection.close()
