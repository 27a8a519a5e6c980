"""What users of SQLite do with any table works with this one."""
import importlib.util
import operator
import os
import sqlite3
import subprocess
import zipfile

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


def test_many_rows_are_counted_and_read_late(database):
    make(database, ((3 * i, "[1, 2]") for i in range(5000)))
    database.execute("BEGIN")
    database.execute("DELETE FROM t WHERE rowid < 30 OR rowid % 2")
    database.execute("INSERT INTO t(rowid, embedding) VALUES (1, '[1, 2]'), (20000, '[1, 2]')")
    rows = rowids(database, "SELECT rowid FROM t")
    assert rows == [1, *range(30, 15000, 6), 20000]
    assert rowids(database, "SELECT count(*) FROM t") == [len(rows)]
    assert rowids(database, "SELECT count(*) FROM t WHERE rowid > 6000") == [1500]
    for order, there in (("", rows), ("ORDER BY rowid DESC", rows[::-1])):
        calls = iter(range(len(there)))
        database.create_function("is_late", 0, lambda seen=calls: next(seen) in (1500, 1501, 2300))
        read = database.execute(f"SELECT CASE WHEN is_late() THEN rowid END FROM t {order}").fetchall()
        assert [rowid for rowid, in read if rowid] == [there[1500], there[1501], there[2300]]
        assert len(read) == len(there)
    database.execute("ROLLBACK")
    assert rowids(database, "SELECT count(*) FROM t") == [5000]


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
    own = {name: value for name, value in os.environ.items() if name != "LD_LIBRARY_PATH"}
    return subprocess.run(["sqlite3", path], input=script, text=True, capture_output=True, env=own)


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


PYTHON = os.path.join(os.path.dirname(__file__), "../../../bindings/python")


def module(path):
    spec = importlib.util.spec_from_file_location("loaded", path)
    loaded = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(loaded)
    return loaded


def test_the_wheel_of_python_carries_it(tmp_path, monkeypatch):
    library = os.environ["QX_SQLITE_EXTENSION"] + ".so"
    for name in ("QX_SQLITE_EXTENSION", "QX_RUNTIME_LIBRARY"):
        monkeypatch.setenv(name, library)
    wheel = module(f"{PYTHON}/backend.py").build_wheel(tmp_path)
    monkeypatch.delenv("QX_SQLITE_EXTENSION")
    zipfile.ZipFile(tmp_path / wheel).extractall(tmp_path)
    sqlite = module(tmp_path / "qx_runtime/sqlite.py")
    connection = sqlite3.connect(":memory:")
    sqlite.load(connection)
    assert sqlite.extension() == str(tmp_path / "qx_runtime/qx.so")
    assert connection.execute("SELECT qx_json(qx_int8(x'0102'))").fetchone() == ("[1,2]",)


def test_the_package_of_python_loads_it():
    sqlite = module(f"{PYTHON}/qx_runtime/sqlite.py")
    connection = sqlite3.connect(":memory:")
    sqlite.load(connection)
    assert connection.execute("SELECT qx_json(?)", [sqlite.vector([1, 2])]).fetchone() == ("[1,2]",)
    with pytest.raises(sqlite3.OperationalError, match="not authorized"):
        connection.execute("SELECT load_extension(?)", [sqlite.extension()])


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


@pytest.mark.parametrize("base", [0, 2**62, -(2**63)])
def test_lists_find_what_was_written_since(database, base):
    make(database, ((base + i, f"[{i % 37}, {i % 41}]") for i in range(1, 2001)))
    search = "SELECT rowid, score FROM t WHERE embedding MATCH '[1, 2]' AND k = 9"
    exact = database.execute(search).fetchall()
    command(database, "lists=16")
    command(database, "probes=16")
    assert database.execute(search).fetchall() == exact
    database.execute("DELETE FROM t WHERE rowid = ?", [exact[0][0]])
    database.execute("INSERT INTO t(rowid, embedding) VALUES (?, '[100, 100]')", [base + 5000])
    now = [base + 5000] + [rowid for rowid, _ in exact[1:]]
    assert [rowid for rowid, _ in database.execute(search)] == now
    command(database, "probes=1")
    assert len(database.execute(search).fetchall()) == 9
    command(database, "recall=1")
    assert [rowid for rowid, _ in database.execute(search)] == now
    command(database, "lists=0")
    assert [rowid for rowid, _ in database.execute(search)] == now
    with pytest.raises(sqlite3.OperationalError, match="there are no lists"):
        command(database, "recall=1")


@pytest.mark.parametrize("metric", ["ip", "cosine", "l2"])
def test_a_connection_takes_the_lists_as_they_are_stored(tmp_path, metric):
    first = connect(tmp_path / "lists.db")
    first.execute(f"CREATE VIRTUAL TABLE t USING qx(embedding float[2], metric={metric})")
    first.executemany("INSERT INTO t(rowid, embedding) VALUES (?, ?)",
                      ((i, f"[{i % 37 + 1}, {i % 41 - 20}]") for i in range(500)))
    command(first, "lists=8")
    command(first, "probes=1")
    queries = ["[1, 3]", "[1, 0]", "[2, -1]", "[1, -9]"]

    def found():
        command(first, "rebuild")
        return [nearest(first, query, 5) for query in queries]

    as_stored = found()
    lists = 'SELECT rowid, "#list" FROM t_values'
    assert {row[1] for row in first.execute(lists)} == set(range(8))
    # What stands there decides: rows of a wrong list are not found by one probe.
    first.execute('UPDATE t_values SET "#list" = ("#list" + 4) % 8')
    assert all(one != other for one, other in zip(as_stored, found()))
    # Without it, the rows find theirs, as one does that was written since.
    first.execute('UPDATE t_values SET "#list" = NULL')
    assert found() == as_stored
    before = first.execute(lists + " WHERE rowid < 499").fetchall()
    assert before[0] == (0, None)
    first.execute("UPDATE t SET embedding = '[9, 9]' WHERE rowid = 499")
    command(first, "optimize")
    assert first.execute("SELECT count(*) FROM t_values WHERE \"#list\" IS NULL").fetchone() == (0,)
    first.execute("UPDATE t SET embedding = '[9, 8]' WHERE rowid = 499")
    assert first.execute("SELECT rowid FROM t_values WHERE \"#list\" IS NULL").fetchall() == [(499,)]
    first.execute('UPDATE t_values SET "#list" = 99 WHERE rowid = 3')
    with pytest.raises(sqlite3.DatabaseError, match="is in list 99"):
        found()


def test_a_load_is_interrupted_by_the_progress_handler(database):
    make(database, ((i, f"[{i % 37}, {i % 41}]") for i in range(20_000)))
    database.set_progress_handler(lambda: 1, 1000)
    with pytest.raises(sqlite3.OperationalError, match="interrupted"):
        nearest(database, "[1, 1]", 3)
    with pytest.raises(sqlite3.OperationalError, match="interrupted"):
        command(database, "lists=64")
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


# ---- Metrics, types, thresholds ----

@pytest.mark.parametrize("metric, expected", [
    ("ip", [(3, 15.0, -15.0), (2, 4.0, -4.0), (1, 3.0, -3.0)]),
    ("cosine", [(1, 1.0, 0.0), (3, 1.0, 0.0), (2, 0.800000011920929, 0.19999998807907104)]),
    ("l2", [(1, -2.0, 2.0), (2, -(10**0.5), 10**0.5), (3, -10.0, 10.0)]),
])
def test_a_metric_has_its_distance(database, metric, expected):
    database.execute(f"CREATE VIRTUAL TABLE t USING qx(embedding float[2], metric={metric})")
    database.executemany("INSERT INTO t(rowid, embedding) VALUES (?, ?)",
                         [(1, "[3, 0]"), (2, "[4, 3]"), (3, "[15, 0]")])
    query = "[1, 0]" if metric != "l2" else "[5, 0]"
    for order in ("", "ORDER BY distance", "ORDER BY score DESC"):
        assert database.execute("SELECT rowid, score, distance FROM t WHERE embedding MATCH ? AND k = 3 "
                                + order, [query]).fetchall() == expected
    farthest = expected[1][2]
    assert nearest(database, query, 3, f"AND distance <= {farthest!r}") == [e[0] for e in expected[:2]]


TYPED = [(1, 7, 1.5, 1, "de"), (2, None, None, None, None), (3, -2**63, -1e300, 0, "it's"),
         (4, 2**63 - 1, 2.0, 1, ""), (5, 0, 1.5, 0, "é")]


@pytest.mark.parametrize("where, values", [
    ("i = 7", []), ("i >= -9223372036854775808", []), ("i = 9223372036854775807", []), ("i = 7.0", []),
    ("i < 6.5", []), ("i IS NULL", []), ("i IS NOT NULL", []), ("i IS NOT 7", []), ("i IS ?", [None]),
    ("i = ?", [None]), ("i <> ?", [7]), ("i BETWEEN 0 AND 7", []), ("i IN (0, 7, NULL)", []),
    ("r = 1.5", []), ("r > 1", []), ("r < -1e299", []), ("r <> 1.5", []), ("r IN (2, 1.5)", []),
    ("b = 1", []), ("b = TRUE", []), ("b IS NOT 1", []), ("s = 'de'", []), ("s = 'it''s'", []),
    ("s < 'e'", []), ("s >= ?", ["é"]), ("s = ''", []), ("s IN ('de', 'é')", []), ("s IS NULL", []),
    ("rowid > 2 AND rowid <> 4", []), ("rowid < 2.5", []), ("rowid IN (?, ?)", [1, 5]),
    ("rowid = 2.5", []), ("rowid >= 4 AND s = ''", []), ("_rowid_ = 3", []), ("rowid > -1e300", []),
    ("rowid > 1e300", []), ("rowid < 9e18 AND rowid > -9223372036854775808", []), ("rowid IS NULL", []),
])
def test_filters_have_the_types_of_columns(database, where, values):
    database.execute("CREATE VIRTUAL TABLE t USING qx(e float[1], i integer, r real, b boolean, s text)")
    database.execute("CREATE TABLE plain(i integer, r real, b boolean, s text)")
    for row in TYPED:
        database.execute("INSERT INTO t(rowid, e, i, r, b, s) VALUES (?, '[1]', ?, ?, ?, ?)", row)
        database.execute("INSERT INTO plain(rowid, i, r, b, s) VALUES (?, ?, ?, ?, ?)", row)
    expected = rowids(database, f"SELECT rowid FROM plain WHERE {where}", values)
    assert rowids(database, f"SELECT rowid FROM t WHERE e MATCH '[1]' AND k = 9 AND {where}",
                  values) == expected
    if expected:
        assert rowids(database, f"SELECT rowid FROM t WHERE e MATCH '[1]' AND k = 1 AND {where}",
                      values) == expected[:1]


def test_a_threshold_does_without_k(filled):
    best = "SELECT rowid FROM t WHERE embedding MATCH '[1, 0]' AND "
    assert rowids(filled, best + "score > 17") == [20, 19, 18]
    assert rowids(filled, best + "score >= 17 AND label = 1") == [19, 17]
    assert rowids(filled, best + "distance < -17 AND k = 2") == [20, 19]
    assert rowids(filled, best + "score BETWEEN 17 AND 19 LIMIT 2") == [19, 18]
    make(filled, ((i, f"[{i}, 0]") for i in range(3000)), "many")
    assert len(rowids(filled, "SELECT rowid FROM many WHERE embedding MATCH '[1, 0]' AND score > 99"
                      )) == 2900


@pytest.mark.parametrize("metric", ["ip", "cosine", "l2"])
@pytest.mark.parametrize("column", ["score", "distance"])
def test_scores_are_compared_before_the_best_are_taken(database, metric, column):
    """So that a page begins where the last one ended."""
    database.execute(f"CREATE VIRTUAL TABLE t USING qx(embedding float[2], metric={metric})")
    database.executemany("INSERT INTO t(rowid, embedding) VALUES (?, ?)",
                         ((i, f"[{i % 7}, {i % 5 + 1}]") for i in range(60)))
    search = f"SELECT rowid, {column} FROM t WHERE embedding MATCH '[2, 1]'"
    everything = database.execute(f"{search} AND k = 60").fetchall()
    for compares, sign in ((operator.lt, "<"), (operator.le, "<="), (operator.gt, ">"), (operator.ge, ">="),
                           (operator.eq, "="), (operator.ne, "<>")):
        for _, bound in everything[::7]:
            expected = [hit for hit in everything if compares(hit[1], bound)]
            for k in (1, 5, 60):
                assert database.execute(f"{search} AND k = ? AND {column} {sign} ?", [k, bound]
                                        ).fetchall() == expected[:k]
            if sign.rstrip("=") == ("<" if column == "distance" else ">"):
                assert database.execute(f"{search} AND {column} {sign} ?", [bound]).fetchall() == expected
    for bound, count in (("9e999", 60), ("1e300", 60), ("-1e300", 0), ("-9e999", 0), ("NULL", 0)):
        low = bound if column == "distance" else bound[1:] if bound[0] == "-" else f"-{bound}"
        sign = "<" if column == "distance" else ">"
        assert len(database.execute(f"{search} AND {column} {sign} {low}").fetchall()) == count
    with pytest.raises(sqlite3.OperationalError, match=f"the {column} is compared with a value that is no number"):
        database.execute(f"{search} AND k = 3 AND {column} < 'x'").fetchall()


def test_vectors_of_16_bit_floats_and_of_bytes(database):
    database.execute("CREATE VIRTUAL TABLE t USING qx(e float[3])")
    halves = bytes.fromhex("003c 00c0 0100".replace(" ", ""))
    database.execute("INSERT INTO t(e) VALUES (qx_f16(?)), (qx_int8(?))", [halves, b"\x01\xff\x80"])
    assert rowids(database, "SELECT qx_json(e) FROM t") == ["[1,-2,5.9604645e-08]", "[1,-1,-128]"]
    with pytest.raises(sqlite3.OperationalError, match="not a finite number"):
        database.execute("SELECT qx_f16(?)", [b"\x00\x7c"]).fetchall()


def test_small_numbers_and_whole_reals_are_taken(database):
    database.execute("CREATE VIRTUAL TABLE t USING qx(e float[2], label integer)")
    database.execute("INSERT INTO t(rowid, e, label) VALUES (1, '[1e-46, -1e-400]', 2.0)")
    assert database.execute("SELECT qx_json(e), label, typeof(label) FROM t").fetchall() == [
        ("[0,-0]", 2, "integer")]
    assert rowids(database, "SELECT rowid FROM t WHERE e MATCH '[1, 0]' AND k = 2.0 AND label = 2.0") == [1]


# ---- Rows ----

def test_last_insert_rowid_is_that_of_the_host(filled):
    filled.execute("CREATE TABLE plain(x)")
    filled.execute("INSERT INTO plain(rowid, x) VALUES (1234, 1)")
    for statement in ("DELETE FROM t WHERE rowid = 3", "UPDATE t SET label = 5 WHERE rowid = 4",
                      "UPDATE t SET embedding = '[5, 5]' WHERE rowid = 4",
                      "INSERT INTO t(t) VALUES ('optimize')", f"DELETE FROM t WHERE rowid > 15"):
        filled.execute(statement)
        assert filled.execute("SELECT last_insert_rowid()").fetchone() == (1234,), statement
    filled.execute("INSERT INTO t(rowid, embedding) VALUES (-70, '[1, 1]')")
    assert filled.execute("SELECT last_insert_rowid()").fetchone() == (-70,)


def test_rows_of_a_search_are_updated_and_deleted(filled):
    best = "embedding MATCH '[1, 0]' AND k = 2"
    filled.execute(f"UPDATE t SET label = 9 WHERE {best}")
    assert filled.execute("SELECT rowid, qx_json(embedding), word FROM t WHERE label = 9").fetchall() == [
        (19, "[19,1]", "word 19"), (20, "[20,2]", "word 20")]
    filled.execute(f"UPDATE t SET embedding = '[-1, 0]' WHERE {best}")
    assert nearest(filled, k=2) == [18, 17]
    filled.execute(f"DELETE FROM t WHERE {best}")
    assert nearest(filled, k=2) == [16, 15]
    filled.execute("CREATE TABLE news(id INTEGER PRIMARY KEY, label)")
    filled.execute("INSERT INTO news VALUES (16, 77)")
    filled.execute("UPDATE t SET label = news.label FROM news WHERE news.id = t.rowid")
    assert filled.execute("SELECT rowid, qx_json(embedding) FROM t WHERE label = 77").fetchall() == [
        (16, "[16,1]")]


def test_ranges_of_rowids_in_their_order(filled):
    for more, expected in (("rowid > 17", [18, 19, 20]), ("rowid BETWEEN 3 AND 4", [3, 4]),
                           ("rowid < 3 ORDER BY rowid DESC", [2, 1]), ("rowid = 'x'", []),
                           ("rowid >= 19.5", [20]), ("rowid > 5 ORDER BY rowid DESC LIMIT 1", [20])):
        assert rowids(filled, f"SELECT rowid FROM t WHERE {more}") == expected
    assert rowids(filled, "SELECT count(*) FROM t WHERE rowid > 5") == [15]
    assert rowids(filled, "SELECT sum(label) FROM t") == [10]
    assert "rowid > ?" in plan(filled, "SELECT rowid FROM t WHERE rowid > 5 ORDER BY rowid")
    assert "TEMP B-TREE" not in str(filled.execute(
        "EXPLAIN QUERY PLAN SELECT rowid FROM t ORDER BY rowid DESC").fetchall())


@pytest.mark.parametrize("name", ["k", "score", "rowid", "filter", "embedding", "LABEL"])
def test_a_table_is_not_renamed_to_a_column(filled, name):
    with pytest.raises(sqlite3.OperationalError, match="name"):
        filled.execute(f"ALTER TABLE t RENAME TO {name}")
    assert nearest(filled) == [20]


def test_a_table_of_many_columns(database):
    names = [f"c{i}" for i in range(80)]
    database.execute(f"CREATE VIRTUAL TABLE t USING qx(e float[1], {', '.join(n + ' integer' for n in names)})")
    database.execute(f"INSERT INTO t(e, {', '.join(names)}) VALUES ('[1]', {', '.join('?' * 80)})", range(80))
    for name, value in (("c0", 0), ("c61", 61), ("c62", 62), ("c63", 63), ("c79", 79)):
        assert database.execute(f"SELECT {name} FROM t").fetchall() == [(value,)]
        assert database.execute(f"SELECT {name} FROM t WHERE e MATCH '[1]' AND k = 1 AND {name} = ?",
                                [value]).fetchall() == [(value,)]


def test_a_table_is_dropped_without_the_extension(tmp_path):
    first = connect(tmp_path / "a.db")
    fill(first)
    first.close()
    plain = connect(tmp_path / "a.db", extension=False)
    with open(os.path.join(os.path.dirname(__file__), "../README.md")) as readme:
        script = readme.read().split("PRAGMA writable_schema = ON;")[1].split("```")[0]
    plain.executescript("PRAGMA writable_schema = ON;" + script.replace("words", "t"))
    assert plain.execute("SELECT count(*) FROM sqlite_schema").fetchone() == (0,)
    assert plain.execute("PRAGMA integrity_check").fetchone() == ("ok",)


def test_views_of_a_table_under_untrusted_schemas(filled):
    filled.execute("CREATE VIEW seen AS SELECT rowid AS id, qx_json(embedding) AS vector FROM t")
    filled.execute("PRAGMA trusted_schema = OFF")
    assert filled.execute("SELECT * FROM seen WHERE id = 3").fetchall() == [(3, "[3,0]")]
    assert nearest(filled, k=2) == [20, 19]


def test_a_table_of_the_layout_before_is_migrated(tmp_path):
    old = connect(tmp_path / "old.db")
    fill(old)
    expected = old.execute("SELECT rowid, embedding, label, length, letter, word FROM t").fetchall()
    old.execute("CREATE TABLE t_rows(rowid INTEGER PRIMARY KEY, embedding BLOB NOT NULL, label INTEGER, "
                "length INTEGER, letter INTEGER, word text)")
    old.executemany("INSERT INTO t_rows VALUES (?, ?, ?, ?, ?, ?)", expected)
    old.execute("CREATE TABLE t_log(entry INTEGER PRIMARY KEY, rowid_ INTEGER NOT NULL)")
    for name in ("values", "vectors", "free", "commits"):
        old.execute(f"DROP TABLE t_{name}")
    old.execute("UPDATE t_state SET value = 1 WHERE key = 'version'")
    old.execute("INSERT INTO t_state VALUES ('generation', 12345), ('ivf_nprobe', 3)")
    old.close()
    database = connect(tmp_path / "old.db")
    for statement in (f"{NEAREST.replace('?', '1')}", "INSERT INTO t(embedding) VALUES ('[1, 1]')",
                      "DELETE FROM t WHERE rowid = 1", "INSERT INTO t(t) VALUES ('optimize')"):
        with pytest.raises(sqlite3.OperationalError, match="migrate"):
            database.execute(statement).fetchall()
    command(database, "migrate")
    assert nearest(database, k=2) == [20, 19]
    assert database.execute("SELECT rowid, embedding, label, length, letter, word FROM t"
                            ).fetchall() == expected
    assert nearest(connect(tmp_path / "old.db"), k=2) == [20, 19]
    with pytest.raises(sqlite3.OperationalError, match="present layout"):
        command(database, "migrate")
    assert database.execute("SELECT count(*) FROM t_rows").fetchone() == (0,)
    database.execute("DROP TABLE t")
    assert database.execute("SELECT count(*) FROM sqlite_schema").fetchone() == (0,)
