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
    ("", "exact"), ("AND letter = 3", "partition by letter"), ("AND label = 1", "filtered by label"),
    ("AND label = 1 AND length = 2", "candidates by label, length"),
    ("AND rowid IN (1, 2)", "candidates by rowid"), ("AND length > 2", "candidates by length"),
])
def test_the_plan_names_the_access_path(filled, where, access_path):
    def shown():
        nearest(filled)
        return plan(filled, f"{NEAREST} {where}", ["[1, 0]", 1])

    assert f"INDEX 2:{access_path} |" in shown()
    filled.execute("DELETE FROM t WHERE rowid = 20")
    changed = {"exact": "current", "partition by letter": "filtered by letter"}
    assert f"INDEX 2:{changed.get(access_path, access_path)} |" in shown()


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
    done = shell(tmp_path / "d.db", f"{LOAD}.dbconfig defensive on\nDELETE FROM t_rows;\n")
    assert "table t_rows may not be modified" in done.stderr


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


def test_an_ivf_finds_what_was_written_since(database):
    make(database, ((i, f"[{i % 37}, {i % 41}]") for i in range(1, 2001)))
    search = "SELECT rowid, score FROM t WHERE embedding MATCH '[1, 2]' AND k = 9"
    exact = database.execute(search).fetchall()
    command(database, "ivf nlist=16 nprobe=16")
    assert database.execute(search).fetchall() == exact
    assert "INDEX 2:ivf |" in plan(database, search)
    database.execute("DELETE FROM t WHERE rowid = ?", [exact[0][0]])
    database.execute("INSERT INTO t(rowid, embedding) VALUES (5000, '[100, 100]')")
    now = [5000] + [rowid for rowid, _ in exact[1:]]
    assert [rowid for rowid, _ in database.execute(search)] == now
    command(database, "ivf nprobe=1")
    assert len(database.execute(search).fetchall()) == 9
    command(database, "ivf off")
    assert [rowid for rowid, _ in database.execute(search)] == now


def test_a_connection_takes_the_lists_as_they_were_filled(tmp_path):
    first = connect(tmp_path / "lists.db")
    make(first, ((i, f"[{i % 37 + 1}, {i % 41 - 20}]") for i in range(500)))
    command(first, "ivf nlist=8 nprobe=1")
    queries = ["[1, 3]", "[1, 0]", "[2, -1]", "[1, -9]"]

    def found(database):
        return [nearest(database, query, 3) for query in queries]

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
        command(first, "rebuild")
        assert nearest(connect(tmp_path / "lists.db"), "[9, 9]", 1) == [77]
    # Without what was stored, or with bytes that mean nothing, all are.
    first.execute("UPDATE t SET embedding = '[4, 16]' WHERE rowid = 77")
    for bytes_ in (b"", stored[:-5], stored[::-1], b"\xff" * 8000,
                   b"".join(struct.pack("<qiI", *row[:1], 99, row[2]) for row in filed)):
        first.execute(change, [bytes_])
        first.execute("UPDATE t_state SET value = value + 1 WHERE key = 'generation'")
        assert found(connect(tmp_path / "lists.db")) == as_filled


def test_long_work_is_interrupted_by_the_progress_handler(database):
    make(database, ((i, f"[{i % 37}, {i % 41}]") for i in range(20_000)))
    calls = []

    def stop_late():
        calls.append(1)
        return len(calls) > 50

    database.set_progress_handler(stop_late, 1000)
    with pytest.raises(sqlite3.OperationalError, match="interrupted"):
        command(database, "ivf nlist=64 nprobe=4")
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
