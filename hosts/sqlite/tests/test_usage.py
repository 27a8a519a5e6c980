"""What users of SQLite do with any table works with this one."""
import os
import sqlite3
import struct
import subprocess

import pytest

from conftest import connect

TABLE = ("CREATE VIRTUAL TABLE t USING qx(embedding float[2], label integer, length integer, "
         "letter integer partition key, +word text)")
ROWS = [(i, f"[{i}, {i % 3}]", i % 2, i % 5, i % 4, f"word {i}") for i in range(1, 21)]
NEAREST = "SELECT rowid FROM t WHERE embedding MATCH ? AND k = ?"


def fill(connection):
    connection.execute(TABLE)
    connection.executemany("INSERT INTO t(rowid, embedding, label, length, letter, word) "
                           "VALUES (?, ?, ?, ?, ?, ?)", ROWS)


def rowids(connection, sql, values=()):
    return [rowid for rowid, in connection.execute(sql, values)]


@pytest.fixture
def filled(database):
    fill(database)
    return database


def test_a_search_gives_rows_best_first(filled):
    found = filled.execute("SELECT rowid, score, distance, word, label, k FROM t "
                           "WHERE embedding MATCH '[1, 0]' AND k = 2").fetchall()
    assert found == [(20, 20.0, -20.0, "word 20", 0, 2), (19, 19.0, -19.0, "word 19", 1, 2)]


@pytest.mark.parametrize("order, expected", [
    ("ORDER BY distance", [20, 19, 18]), ("ORDER BY score DESC", [20, 19, 18]),
    ("ORDER BY distance DESC", [18, 19, 20]), ("ORDER BY word", [18, 19, 20]),
    ("ORDER BY distance LIMIT 2", [20, 19]), ("ORDER BY score DESC LIMIT 1 OFFSET 1", [19]),
])
def test_results_are_ordered_as_asked(filled, order, expected):
    assert rowids(filled, f"{NEAREST} {order}", ["[1, 0]", 3]) == expected


@pytest.mark.parametrize("where, access_path", [
    ("", "exact"), ("AND letter = 3", "partition by letter"), ("AND label = 1", "filtered by label"),
    ("AND label = 1 AND length = 2", "candidates by label, length"),
    ("AND rowid IN (1, 2)", "candidates by rowid"), ("AND length > 2", "candidates by length"),
])
def test_the_plan_names_the_access_path(filled, where, access_path):
    rowids(filled, NEAREST, ["[1, 0]", 1])
    detail = filled.execute(f"EXPLAIN QUERY PLAN {NEAREST} {where}", ["[1, 0]", 1]).fetchone()[3]
    assert f"INDEX 2:{access_path} |" in detail
    filled.execute("DELETE FROM t WHERE rowid = 20")
    rowids(filled, NEAREST, ["[1, 0]", 1])
    changed = {"exact": "current", "partition by letter": "filtered by letter"}.get(
        access_path, access_path)
    detail = filled.execute(f"EXPLAIN QUERY PLAN {NEAREST} {where}", ["[1, 0]", 1]).fetchone()[3]
    assert f"INDEX 2:{changed} |" in detail


def test_filters_apply_before_the_best_are_taken(filled):
    assert rowids(filled, NEAREST + " AND label = 1 AND length IN (0, 1)", ["[1, 0]", 3]) == [
        15, 11, 5]
    assert rowids(filled, NEAREST + " AND rowid IN (SELECT rowid FROM t WHERE word LIKE '%2')",
                  ["[1, 0]", 5]) == [12, 2]


def test_a_search_joins_other_tables(filled):
    filled.execute("CREATE TABLE asked(id INTEGER PRIMARY KEY, query TEXT, wanted INTEGER)")
    filled.executemany("INSERT INTO asked VALUES (?, ?, ?)", [(1, "[1, 0]", 0), (2, "[-1, 0]", 1)])
    found = filled.execute("SELECT asked.id, t.rowid FROM asked JOIN t ON t.embedding MATCH "
                           "asked.query AND k = 2 AND t.label = asked.wanted ORDER BY 1, t.distance")
    assert found.fetchall() == [(1, 20), (1, 18), (2, 1), (2, 3)]


def test_vectors_go_in_and_out_as_blobs_and_as_json(filled):
    blob, = filled.execute("SELECT embedding FROM t WHERE rowid = 4").fetchone()
    assert blob == b"\x00\x00\x80\x40\x00\x00\x80\x3f"
    assert filled.execute("SELECT qx_json(?), qx_f32(?) = ?, qx_json(NULL)",
                          [blob, "[4, 1]", blob]).fetchone() == ("[4,1]", 1, None)
    assert rowids(filled, NEAREST, [blob, 1]) == rowids(filled, NEAREST, ["[4, 1]", 1])


def test_conflicts_are_resolved_as_asked(filled):
    with pytest.raises(sqlite3.IntegrityError):
        filled.execute("INSERT INTO t(rowid, embedding) VALUES (3, '[50, 0]')")
    filled.execute("INSERT OR IGNORE INTO t(rowid, embedding) VALUES (3, '[50, 0]')")
    assert rowids(filled, NEAREST, ["[1, 0]", 1]) == [20]
    filled.execute("REPLACE INTO t(rowid, embedding) VALUES (3, '[50, 0]')")
    assert rowids(filled, NEAREST, ["[1, 0]", 1]) == [3]
    with pytest.raises(sqlite3.IntegrityError):
        filled.execute("UPDATE t SET rowid = 4 WHERE rowid = 5")
    assert filled.execute("SELECT count(*) FROM t").fetchone() == (20,)


def test_a_failing_statement_changes_nothing(filled):
    rowids(filled, NEAREST, ["[1, 0]", 1])
    with pytest.raises(sqlite3.DatabaseError):
        filled.execute("INSERT INTO t(rowid, embedding) VALUES (90, '[90, 0]'), (91, '[1]')")
    assert rowids(filled, NEAREST, ["[1, 0]", 1]) == [20]


def test_a_rowid_is_chosen_where_none_is_given(filled):
    cursor = filled.execute("INSERT INTO t(embedding) VALUES ('[99, 0]')")
    assert cursor.lastrowid == 21
    assert rowids(filled, NEAREST, ["[1, 0]", 1]) == [21]


def test_writes_of_another_connection_are_seen(tmp_path):
    first, second = connect(tmp_path / "two.db"), connect(tmp_path / "two.db")
    fill(first)
    assert rowids(second, NEAREST, ["[1, 0]", 1]) == [20]
    first.execute("DELETE FROM t WHERE rowid = 20")
    assert rowids(second, NEAREST, ["[1, 0]", 1]) == [19]
    second.execute("INSERT INTO t(rowid, embedding) VALUES (70, '[70, 0]')")
    assert rowids(first, NEAREST, ["[1, 0]", 1]) == [70]
    first.execute("INSERT INTO t(t) VALUES ('rebuild')")
    second.execute("DELETE FROM t")
    assert rowids(first, NEAREST, ["[1, 0]", 1]) == []


def test_a_backup_and_a_vacuum_keep_the_rows(tmp_path, filled):
    filled.execute("DELETE FROM t WHERE rowid = 20")
    copy = sqlite3.connect(tmp_path / "backup.db")
    filled.backup(copy)
    copy.close()
    filled.execute("VACUUM")
    for connection in (connect(tmp_path / "backup.db"), filled):
        assert rowids(connection, NEAREST, ["[1, 0]", 2]) == [19, 18]
        assert connection.execute("SELECT count(*) FROM t").fetchone() == (19,)


def test_the_shell_loads_and_dumps_it(tmp_path):
    script = (f".load {os.environ['QX_SQLITE_EXTENSION']}\n{TABLE};\n"
              "INSERT INTO t(embedding) VALUES ('[1, 2]'), ('[3, 4]');\n"
              "SELECT rowid, score FROM t WHERE embedding MATCH '[1, 1]' AND k = 5;\n")
    done = subprocess.run(["sqlite3", tmp_path / "shell.db"], input=script, text=True,
                          capture_output=True, check=True)
    assert done.stdout.splitlines() == ["2|7.0", "1|3.0"]
    dump = subprocess.run(["sqlite3", tmp_path / "shell.db", ".dump"], text=True,
                          capture_output=True, check=True).stdout
    again = connect(tmp_path / "again.db")
    again.executescript(dump)
    again.close()
    assert rowids(connect(tmp_path / "again.db"), NEAREST, ["[1, 1]", 5]) == [2, 1]


def test_a_table_is_renamed_and_dropped(filled):
    filled.execute("ALTER TABLE t RENAME TO u")
    assert rowids(filled, "SELECT rowid FROM u WHERE embedding MATCH '[1, 0]' AND k = 1") == [20]
    filled.execute("DROP TABLE u")
    assert filled.execute("SELECT count(*) FROM sqlite_schema").fetchone() == (0,)


def test_shadow_tables_are_protected_in_defensive_mode(tmp_path):
    script = (f".load {os.environ['QX_SQLITE_EXTENSION']}\n{TABLE};\n.dbconfig defensive on\n"
              "DELETE FROM t_rows;\n")
    done = subprocess.run(["sqlite3", tmp_path / "d.db"], input=script, text=True,
                          capture_output=True)
    assert "table t_rows may not be modified" in done.stderr


def test_many_changes_are_folded_into_a_new_base(database):
    database.execute("CREATE VIRTUAL TABLE t USING qx(embedding float[1])")
    database.execute("INSERT INTO t(rowid, embedding) VALUES (1, '[1]')")
    assert rowids(database, NEAREST, ["[1]", 1]) == [1]
    for first in (2, 120_000):
        database.execute("BEGIN")
        database.executemany("INSERT INTO t(rowid, embedding) VALUES (?, ?)",
                             ((i, f"[{i}]") for i in range(first, first + 110_000)))
        assert rowids(database, NEAREST, ["[1]", 1]) == [first + 109_999]
        database.execute("COMMIT")
    database.execute("BEGIN")
    database.execute("DELETE FROM t WHERE rowid > 5")
    assert rowids(database, NEAREST, ["[1]", 9]) == [5, 4, 3, 2, 1]
    database.execute("ROLLBACK")
    assert rowids(database, NEAREST, ["[1]", 1]) == [229_999]


def test_an_ivf_finds_what_was_written_since(database):
    database.execute("CREATE VIRTUAL TABLE t USING qx(embedding float[2])")
    database.executemany("INSERT INTO t(rowid, embedding) VALUES (?, ?)",
                         ((i, f"[{i % 37}, {i % 41}]") for i in range(1, 2001)))
    exact = database.execute("SELECT rowid, score FROM t WHERE embedding MATCH '[1, 2]' AND k = 9"
                             ).fetchall()
    database.execute("INSERT INTO t(t) VALUES ('ivf nlist=16 nprobe=16')")
    search = "SELECT rowid, score FROM t WHERE embedding MATCH '[1, 2]' AND k = 9"
    assert database.execute(search).fetchall() == exact
    detail = database.execute("EXPLAIN QUERY PLAN " + search).fetchone()[3]
    assert "INDEX 2:ivf |" in detail
    database.execute("DELETE FROM t WHERE rowid = ?", [exact[0][0]])
    database.execute("INSERT INTO t(rowid, embedding) VALUES (5000, '[100, 100]')")
    assert [row[0] for row in database.execute(search)] == [5000] + [r for r, _ in exact[1:]]
    database.execute("INSERT INTO t(t) VALUES ('ivf nprobe=1')")
    assert len(database.execute(search).fetchall()) == 9
    database.execute("INSERT INTO t(t) VALUES ('ivf off')")
    assert [row[0] for row in database.execute(search)] == [5000] + [r for r, _ in exact[1:]]


def test_a_connection_takes_the_lists_as_they_were_filled(tmp_path):
    first = connect(tmp_path / "lists.db")
    first.execute("CREATE VIRTUAL TABLE t USING qx(embedding float[2])")
    first.executemany("INSERT INTO t(rowid, embedding) VALUES (?, ?)",
                      ((i, f"[{i % 37 + 1}, {i % 41 - 20}]") for i in range(500)))
    first.execute("INSERT INTO t(t) VALUES ('ivf nlist=8 nprobe=1')")
    queries = ["[1, 3]", "[1, 0]", "[2, -1]", "[1, -9]"]

    def found(database):
        return [rowids(database, NEAREST, [query, 3]) for query in queries]

    as_filled = found(first)
    assert all(len(hits) == 3 for hits in as_filled)
    assert found(connect(tmp_path / "lists.db")) == as_filled
    # What stands in the lists decides: when all rows are said to be in one, three of these are empty.
    (stored,) = first.execute("SELECT value FROM t_state WHERE key = 'ivf_filed'").fetchone()
    filed = [list(row) for row in struct.iter_unpack("<qiI", stored)]
    assert [row[0] for row in filed] == list(range(500)) and len({row[1] for row in filed}) == 8
    moved = b"".join(struct.pack("<qiI", rowid, filed[0][1], check) for rowid, _, check in filed)
    change = "UPDATE t_state SET value = ? WHERE key = 'ivf_filed'"
    first.execute(change, [moved])
    empty = [hits for hits in found(connect(tmp_path / "lists.db")) if not hits]
    assert len(empty) == 3
    # A row that was written since is put where it belongs, also by a rebuild.
    first.execute("UPDATE t SET embedding = '[9, 9]' WHERE rowid = 77")
    for _ in range(2):
        first.execute("INSERT INTO t(t) VALUES ('rebuild')")
        assert rowids(connect(tmp_path / "lists.db"), NEAREST, ["[9, 9]", 1]) == [77]
    # Without what was stored, or with bytes that mean nothing, all are.
    first.execute("UPDATE t SET embedding = '[4, 16]' WHERE rowid = 77")
    for bytes_ in (b"", stored[:-5], stored[::-1], b"\xff" * 8000,
                   b"".join(struct.pack("<qiI", *row[:1], 99, row[2]) for row in filed)):
        first.execute(change, [bytes_])
        first.execute("UPDATE t_state SET value = value + 1 WHERE key = 'generation'")
        assert found(connect(tmp_path / "lists.db")) == as_filled


def test_long_work_is_interrupted_by_the_progress_handler(database):
    database.execute("CREATE VIRTUAL TABLE t USING qx(embedding float[2])")
    database.executemany("INSERT INTO t(rowid, embedding) VALUES (?, ?)",
                         ((i, f"[{i % 37}, {i % 41}]") for i in range(20_000)))
    calls = []

    def stop_late():
        calls.append(1)
        return len(calls) > 50

    database.set_progress_handler(stop_late, 1000)
    with pytest.raises(sqlite3.OperationalError, match="interrupted"):
        database.execute("INSERT INTO t(t) VALUES ('ivf nlist=64 nprobe=4')")
    database.set_progress_handler(None, 0)
    assert len(database.execute("SELECT rowid FROM t WHERE embedding MATCH '[1, 1]' AND k = 3"
                                ).fetchall()) == 3


def test_a_host_that_forbids_pragmas(database):
    database.execute("CREATE VIRTUAL TABLE t USING qx(embedding float[1])")
    database.execute("INSERT INTO t(rowid, embedding) VALUES (1, '[1]'), (2, '[3]')")
    database.set_authorizer(lambda operation, *_: sqlite3.SQLITE_DENY
                            if operation == sqlite3.SQLITE_PRAGMA else sqlite3.SQLITE_OK)
    with pytest.raises(sqlite3.DatabaseError, match="not authorized"):
        database.execute("PRAGMA page_count")
    assert rowids(database, NEAREST, ["[1]", 9]) == [2, 1]


def test_every_database_of_a_connection(database):
    database.execute("ATTACH ':memory:' AS \"a name\"")
    for schema in ("main", "temp", '"a name"'):
        database.execute(f"CREATE VIRTUAL TABLE {schema}.t USING qx(embedding float[1])")
        database.execute(f"INSERT INTO {schema}.t(rowid, embedding) VALUES (1, '[1]'), (2, '[3]')")
        found = database.execute(f"SELECT rowid FROM {schema}.t WHERE embedding MATCH '[1]' AND k = 1")
        assert found.fetchall() == [(2,)]
        database.execute(f"DROP TABLE {schema}.t")
