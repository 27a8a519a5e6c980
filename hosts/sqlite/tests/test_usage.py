"""What users of SQLite do with any table works with this one."""
import os
import sqlite3
import subprocess

import pytest

from conftest import connect

TABLE = ("CREATE VIRTUAL TABLE t USING qx(embedding float[2], label integer, length integer, "
         "letter integer partition key, +word text)")
ROWS = [(i, f"[{i}, {i % 3}]", i % 2, i % 5, i % 4, f"word {i}") for i in range(1, 21)]
LOAD = f".load {os.environ['QX_SQLITE_EXTENSION']}\n{TABLE};\n"
NEAREST = "SELECT rowid FROM t WHERE embedding MATCH ? AND k = ?"


def fill(connection):
    connection.execute(TABLE)
    connection.executemany("INSERT INTO t(rowid, embedding, label, length, letter, word) "
                           "VALUES (?, ?, ?, ?, ?, ?)", ROWS)


def rowids(connection, sql, values=()):
    return [rowid for rowid, in connection.execute(sql, values)]


def nearest(connection, query="[1, 0]", k=1, more=""):
    return rowids(connection, f"{NEAREST} {more}", [query, k])


def plan(connection, sql, values=()):
    return connection.execute("EXPLAIN QUERY PLAN " + sql, values).fetchone()[3]


def make(connection, rows, name="t", dim=2):
    """A table of vectors alone."""
    connection.execute(f"CREATE VIRTUAL TABLE {name} USING qx(embedding float[{dim}])")
    connection.execute("BEGIN")
    connection.executemany(f"INSERT INTO {name}(rowid, embedding) VALUES (?, ?)", rows)
    connection.execute("COMMIT")


def command(connection, text):
    connection.execute("INSERT INTO t(t) VALUES (?)", [text])


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
    assert nearest(filled, k=3, more=order) == expected


@pytest.mark.parametrize("where, access_path", [
    ("", "exact"), ("AND label = 1 AND length = 2", "filtered by label, length"),
    ("AND rowid IN (1, 2)", "filtered by rowid"),
])
def test_the_plan_names_the_access_path(filled, where, access_path):
    assert f"INDEX 1:{access_path} |" in plan(filled, f"{NEAREST} {where}", ["[1, 0]", 1])


def test_filters_apply_before_the_best_are_taken(filled):
    assert nearest(filled, k=3, more="AND label = 1 AND length IN (0, 1)") == [15, 11, 5]
    listed = "AND rowid IN (SELECT rowid FROM t WHERE word LIKE '%2')"
    assert nearest(filled, k=5, more=listed) == [12, 2]


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
    assert nearest(filled, blob, 1) == nearest(filled, "[4, 1]", 1)


def test_conflicts_are_resolved_as_asked(filled):
    with pytest.raises(sqlite3.IntegrityError):
        filled.execute("INSERT INTO t(rowid, embedding) VALUES (3, '[50, 0]')")
    filled.execute("INSERT OR IGNORE INTO t(rowid, embedding) VALUES (3, '[50, 0]')")
    assert nearest(filled) == [20]
    filled.execute("REPLACE INTO t(rowid, embedding) VALUES (3, '[50, 0]')")
    assert nearest(filled) == [3]
    with pytest.raises(sqlite3.IntegrityError):
        filled.execute("UPDATE t SET rowid = 4 WHERE rowid = 5")
    assert filled.execute("SELECT count(*) FROM t").fetchone() == (20,)


def test_a_failing_statement_changes_nothing(filled):
    nearest(filled)
    with pytest.raises(sqlite3.DatabaseError):
        filled.execute("INSERT INTO t(rowid, embedding) VALUES (90, '[90, 0]'), (91, '[1]')")
    assert nearest(filled) == [20]


def test_a_rowid_is_chosen_where_none_is_given(filled):
    cursor = filled.execute("INSERT INTO t(embedding) VALUES ('[99, 0]')")
    assert cursor.lastrowid == 21
    assert nearest(filled) == [21]


def test_a_backup_and_a_vacuum_keep_the_rows(tmp_path, filled):
    filled.execute("DELETE FROM t WHERE rowid = 20")
    copy = sqlite3.connect(tmp_path / "backup.db")
    filled.backup(copy)
    copy.close()
    filled.execute("VACUUM")
    for connection in (connect(tmp_path / "backup.db"), filled):
        assert nearest(connection, "[1, 0]", 2) == [19, 18]
        assert connection.execute("SELECT count(*) FROM t").fetchone() == (19,)


def shell(path, script):
    return subprocess.run(["sqlite3", path], input=script, text=True, capture_output=True)


def test_the_shell_loads_and_dumps_it(tmp_path):
    done = shell(tmp_path / "shell.db", LOAD +
                 "INSERT INTO t(embedding) VALUES ('[1, 2]'), ('[3, 4]');\n"
                 "SELECT rowid, score FROM t WHERE embedding MATCH '[1, 1]' AND k = 5;\n")
    assert done.stdout.splitlines() == ["2|7.0", "1|3.0"]
    again = connect(tmp_path / "again.db")
    again.executescript(shell(tmp_path / "shell.db", ".dump\n").stdout)
    again.close()
    assert nearest(connect(tmp_path / "again.db"), "[1, 1]", 5) == [2, 1]


def test_a_table_is_renamed_and_dropped(filled):
    filled.execute("ALTER TABLE t RENAME TO u")
    assert rowids(filled, "SELECT rowid FROM u WHERE embedding MATCH '[1, 0]' AND k = 1") == [20]
    filled.execute("DROP TABLE u")
    assert filled.execute("SELECT count(*) FROM sqlite_schema").fetchone() == (0,)


def test_shadow_tables_are_protected_in_defensive_mode(tmp_path):
    done = shell(tmp_path / "d.db", f"{LOAD}.dbconfig defensive on\nDELETE FROM t_values;\n")
    assert "table t_values may not be modified" in done.stderr


def test_many_changes_are_folded_into_a_new_base(database):
    make(database, [(1, "[1]")], dim=1)
    assert nearest(database, "[1]", 1) == [1]
    for first in (2, 120_000):
        database.execute("BEGIN")
        database.executemany("INSERT INTO t(rowid, embedding) VALUES (?, ?)",
                             ((i, f"[{i}]") for i in range(first, first + 110_000)))
        assert nearest(database, "[1]", 1) == [first + 109_999]
        database.execute("COMMIT")
    database.execute("BEGIN")
    database.execute("DELETE FROM t WHERE rowid > 5")
    assert nearest(database, "[1]", 9) == [5, 4, 3, 2, 1]
    database.execute("ROLLBACK")
    assert nearest(database, "[1]", 1) == [229_999]


def test_a_load_is_interrupted_by_the_progress_handler(database):
    make(database, ((i, f"[{i % 37}, {i % 41}]") for i in range(20_000)))
    database.set_progress_handler(lambda: 1, 1000)
    with pytest.raises(sqlite3.OperationalError, match="interrupted"):
        nearest(database, "[1, 1]", 3)
    database.set_progress_handler(None, 0)
    assert len(nearest(database, "[1, 1]", 3)) == 3


def test_a_host_that_forbids_pragmas(database):
    make(database, [(1, "[1]"), (2, "[3]")], dim=1)
    database.set_authorizer(lambda operation, *_: sqlite3.SQLITE_DENY
                            if operation == sqlite3.SQLITE_PRAGMA else sqlite3.SQLITE_OK)
    with pytest.raises(sqlite3.DatabaseError, match="not authorized"):
        database.execute("PRAGMA page_count")
    assert nearest(database, "[1]", 9) == [2, 1]


def test_every_database_of_a_connection(database):
    database.execute("ATTACH ':memory:' AS \"a name\"")
    for schema in ("main", "temp", '"a name"'):
        make(database, [(1, "[1]"), (2, "[3]")], f"{schema}.t", 1)
        assert rowids(database, NEAREST.replace(" t ", f" {schema}.t "), ["[1]", 1]) == [2]
        database.execute(f"DROP TABLE {schema}.t")
