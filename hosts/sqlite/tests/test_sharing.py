"""Connections of a process share the rows, and each sees its own: uncommitted changes, snapshots of
before, files that were restored, copied or replaced."""
import os
import shutil
import sqlite3
import subprocess
import sys
import threading

import pytest

from conftest import connect

ALL = "SELECT rowid FROM t WHERE embedding MATCH '[1, 0]' AND k = 100"


def make(path, rows=10, declaration="embedding float[2], label integer"):
    connection = connect(path)
    connection.execute("PRAGMA journal_mode = wal")
    connection.execute(f"CREATE VIRTUAL TABLE t USING qx({declaration})")
    add(connection, range(rows))
    return connection


def add(connection, rowids):
    connection.execute("SAVEPOINT many")
    connection.executemany("INSERT OR REPLACE INTO t(rowid, embedding) VALUES (?, ?)",
                           ((rowid, f"[{rowid}, 1]") for rowid in rowids))
    connection.execute("RELEASE many")


def found(connection):
    rowids = sorted(rowid for rowid, in connection.execute(ALL))
    assert rowids == sorted(rowid for rowid, in connection.execute("SELECT rowid FROM t"))[-100:]
    return rowids


def test_changes_are_seen_by_others_when_they_are_committed(tmp_path):
    first, second = make(tmp_path / "a.db"), connect(tmp_path / "a.db")
    assert found(first) == found(second) == list(range(10))
    first.execute("BEGIN")
    first.execute("DELETE FROM t WHERE rowid < 5")
    add(first, [77])
    assert found(first) == [5, 6, 7, 8, 9, 77] and found(second) == list(range(10))
    first.execute("COMMIT")
    assert found(second) == found(first) == [5, 6, 7, 8, 9, 77]


def test_a_snapshot_of_before_sees_the_rows_of_before(tmp_path):
    first, second = make(tmp_path / "a.db"), connect(tmp_path / "a.db")
    second.execute("BEGIN")
    assert found(second) == list(range(10))
    for count in range(3):
        add(first, [50 + count])
        first.execute("DELETE FROM t WHERE rowid = ?", [count])
        assert 50 + count in found(first) and count not in found(first)
        assert found(second) == list(range(10))
    first.execute("INSERT INTO t(t) VALUES ('rebuild')")
    assert found(first) == [*range(3, 10), 50, 51, 52]
    assert found(second) == list(range(10))
    second.execute("COMMIT")
    assert found(second) == [*range(3, 10), 50, 51, 52]


def test_a_snapshot_is_written_in_by_nobody_else(tmp_path):
    """A rollback, also to a savepoint, and what is written after it."""
    first, second = make(tmp_path / "a.db"), connect(tmp_path / "a.db")
    first.execute("BEGIN")
    add(first, [20])
    first.execute("SAVEPOINT s")
    first.execute("DELETE FROM t WHERE rowid < 8")
    assert found(first) == [8, 9, 20]
    first.execute("ROLLBACK TO s")
    assert found(first) == [*range(10), 20]
    add(first, [21])
    assert found(first) == [*range(10), 20, 21] and found(second) == list(range(10))
    first.execute("ROLLBACK")
    assert found(first) == found(second) == list(range(10))


def test_a_statement_that_searches_what_it_writes(tmp_path):
    """Its rows are seen by itself alone, and by nobody after it has failed."""
    first, second = make(tmp_path / "a.db"), connect(tmp_path / "a.db")
    first.execute("CREATE TABLE asked(id, query)")
    first.executemany("INSERT INTO asked VALUES (?, ?)", [(20, "[20, 1]"), (21, "[21, 1]"), (22, None)])
    copy = ("INSERT INTO t(rowid, embedding, label) SELECT id, query, (SELECT t.rowid FROM t "
            "WHERE embedding MATCH a.query AND k = 1) FROM asked a")
    for connection in (first, second):
        with pytest.raises(sqlite3.DatabaseError, match="a vector is NULL"):
            connection.execute(copy)
        assert found(first) == found(second) == list(range(10))
    first.execute(copy + " WHERE id < 22")
    assert found(first) == found(second) == [*range(10), 20, 21]
    add(second, [30])
    assert found(first) == found(second) == [*range(10), 20, 21, 30]


def test_another_process_writes(tmp_path):
    path = tmp_path / "a.db"
    here = make(path)
    assert found(here) == list(range(10))
    program = ("import sys; sys.path.insert(0, sys.argv[1]); from conftest import connect; "
               "c = connect(sys.argv[2]); c.execute('DELETE FROM t WHERE rowid = 3'); "
               "c.execute(\"INSERT INTO t(rowid, embedding) VALUES (99, '[9, 9]')\")")
    subprocess.run([sys.executable, "-c", program, os.path.dirname(__file__), str(path)], check=True)
    assert found(here) == [0, 1, 2, 4, 5, 6, 7, 8, 9, 99]


def test_a_file_goes_back_in_time(tmp_path):
    path, kept = tmp_path / "a.db", tmp_path / "kept.db"
    first = make(path)
    first.execute("PRAGMA journal_mode = delete")
    shutil.copy(path, kept)
    add(first, [30])
    assert found(first) == [*range(10), 30]
    # A divergent copy has as many commits.
    other = connect(kept)
    add(other, [40])
    other.close()
    shutil.copyfile(kept, path)
    assert found(connect(path)) == [*range(10), 40]
    found(first)  # SQLite goes by the number of commits, and may have pages of before
    first = connect(path)
    add(first, [50])
    assert found(first) == found(connect(path)) == [*range(10), 40, 50]
    source = connect(kept)
    source.backup(first)
    assert found(first) == found(source) == [*range(10), 40]


def test_a_file_is_replaced_beside_an_open_one(tmp_path):
    path, other = tmp_path / "a.db", tmp_path / "b.db"
    first, second = make(path), make(other, 4)
    first.execute("PRAGMA journal_mode = delete")
    second.execute("PRAGMA journal_mode = delete")
    second.close()
    assert found(first) == list(range(10))
    os.replace(other, path)
    second = connect(path)
    for _ in range(2):
        assert found(second) == list(range(4)) and found(first) == list(range(10))


@pytest.mark.skipif(sys.version_info < (3, 11), reason="serialize came with Python 3.11")
def test_a_database_is_deserialized():
    first, second = connect(), connect()
    for connection, rows in ((first, 3), (second, 5)):
        connection.execute("CREATE VIRTUAL TABLE t USING qx(embedding float[2], label integer)")
        add(connection, range(rows))
        assert found(connection) == list(range(rows))
    second.deserialize(first.serialize())
    assert found(second) == [0, 1, 2]
    add(second, [9])
    assert found(second) == [0, 1, 2, 9] and found(first) == [0, 1, 2]


def test_many_changes_at_once_and_one_by_one(tmp_path):
    first = make(tmp_path / "a.db", 300, "embedding float[2]")
    second = connect(tmp_path / "a.db")
    assert found(second) == list(range(200, 300))
    add(first, range(300, 30_000))
    assert found(second) == list(range(29_900, 30_000))
    for rowid in range(40_000, 40_040):
        add(first, [rowid])
        if rowid % 7 == 0:
            assert found(second)[-1] == rowid
    first.execute("DELETE FROM t WHERE rowid > 50")
    first.execute("INSERT INTO t(t) VALUES ('optimize')")
    assert found(first) == found(second) == list(range(51))
    assert first.execute("SELECT count(*) FROM t_vectors").fetchone() == (1,)
    assert first.execute("SELECT count(*) FROM t_free").fetchone() == (0,)


def resident():
    with open("/proc/self/statm") as file:
        return int(file.read().split()[1]) * os.sysconf("SC_PAGESIZE")


def test_fifty_connections_hold_the_vectors_once(tmp_path):
    path, dim, rows = tmp_path / "a.db", 256, 20_000
    first = connect(path)
    first.execute(f"CREATE VIRTUAL TABLE t USING qx(embedding float[{dim}])")
    blob = b"\0\0\x80\x3f" * dim
    first.execute("BEGIN")
    first.executemany("INSERT INTO t(embedding) VALUES (?)", ([blob] for _ in range(rows)))
    first.execute("COMMIT")
    search = "SELECT rowid FROM t WHERE embedding MATCH ? AND k = 2"
    assert first.execute(search, [blob]).fetchall() == [(1,), (2,)]
    before, answers = resident(), []

    def serve():
        connection = connect(path)
        for _ in range(5):
            answers.append(connection.execute(search, [blob]).fetchall())
        held.append(connection)

    held = []
    threads = [threading.Thread(target=serve) for _ in range(49)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert answers == [[(1,), (2,)]] * (49 * 5)
    # 49 connections take less than the vectors of one more would.
    assert resident() - before < rows * dim * 4
    for connection in held:
        connection.close()


def test_a_limit_of_memory_is_an_error(tmp_path):
    first = make(tmp_path / "a.db", 5000)
    first.execute("INSERT INTO t(t) VALUES ('memory=100000')")
    for connection in (first, connect(tmp_path / "a.db")):
        with pytest.raises(sqlite3.OperationalError, match="limit"):
            found(connection)
    first.execute("INSERT INTO t(t) VALUES ('memory=0')")
    assert len(found(first)) == 100


def test_writers_and_searchers_in_threads(tmp_path):
    path = tmp_path / "a.db"
    make(path, 50, "embedding float[2]").close()
    wrong = []

    def search():
        connection = connect(path)
        for _ in range(60):
            connection.execute("BEGIN")
            try:
                found(connection)
            except AssertionError as error:
                wrong.append(error)
            connection.execute("COMMIT")

    def write(first):
        connection = connect(path)
        for i in range(40):
            add(connection, range(first + i, first + i + 3))
            connection.execute("DELETE FROM t WHERE rowid = ?", [first + i])

    threads = [threading.Thread(target=search) for _ in range(3)]
    threads += [threading.Thread(target=write, args=[first]) for first in (1000, 2000)]
    for thread in threads:
        thread.start()
    for thread in threads:
        thread.join()
    assert not wrong
