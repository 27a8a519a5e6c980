"""SQL that does not fit is an SQL error that says why, and changes nothing."""
import os
import sqlite3
import struct

import pytest

from conftest import connect

TABLE = ("CREATE VIRTUAL TABLE t USING qx(embedding float[2], label integer, "
         "letter integer partition key, name text, +word text)")
BEST = "embedding MATCH '[1,2]' AND k = 1"

WRONG_DECLARATIONS = {
    "": "no column of vectors",
    "label integer": "no column of vectors",
    "embedding float[0]": "is no number from 1",
    "embedding float[65537]": "is no number from 1",
    "embedding float[x]": "is no number from 1",
    "embedding float[2], other float[2]": "one column of vectors",
    "embedding float[2], a integer, A integer": "two columns have the name a",
    "embedding float[2], k integer": "has a meaning of its own",
    "embedding float[2], u integer": "has the name of the table",
    "embedding float[2], metric=hamming": "is no metric",
    "embedding float[2], filter text": "has a meaning of its own",
    "embedding float[2], a varchar": "is no column",
    "embedding float[2], +a varchar": "is no text, integer, real or blob",
    "dim=2, rows=3": "unknown option 'rows'",
    "dim=2, columns='a;b'": "is no name of a column",
    "dim=2, columns='a,'": "is no name of a column",
    "dim=99999999999999999999": "is no number from 1",
}
WRONG_ROWS = [
    (1, "[1]", "a vector of 1 numbers for the column embedding, which has 2"),
    (1, "[1, 2, 3]", "a vector of 3 numbers"),
    (1, b"12345", "a BLOB of 5 bytes"),
    (1, struct.pack("<2f", 1, float("nan")), "is not a finite number"),
    (1, struct.pack("<2f", float("inf"), 1), "is not a finite number"),
    (1, "[1, nan]", "not a JSON array"),
    (1, "[1, 1e99]", "beyond the range"),
    (1, "[1, 2", "not a JSON array"),
    (1, "[1, 2] x", "not a JSON array"),
    (1, "[1,,2]", "not a JSON array"),
    (1, "", "not a JSON array"),
    (1, None, "a vector is NULL"),
    (1, 7, "a vector is a BLOB"),
]
NO_NUMBERS = ["x", 1.5, b"1", 2.0**63]
WRONG_SEARCHES = [
    *((where, "belong to a search: write 'embedding MATCH query' beside them")
      for where in ("k = 3", "score > 0.5", "distance < 1", "filter = 'label = 1'")),
    ("embedding MATCH '[1,2]'", "needs 'k = N'"),
    ("embedding MATCH '[1,2]' AND k = -1", "k is -1, below 0"),
    ("embedding MATCH '[1,2]' AND k = 'x'", "k is no whole number"),
    ("embedding MATCH '[1,2]' AND k = 1.5", "k is no whole number"),
    ("embedding MATCH '[1,2]' AND k = NULL", "k is NULL, no whole number"),
    ("embedding MATCH '[1]' AND k = 1", "a vector of 1 numbers"),
    ("embedding MATCH x'00' AND k = 1", "a BLOB of 1 bytes"),
    (BEST + " AND word = 'a'", "cannot be filtered by word"),
    (BEST + " AND label LIKE '1%'", "cannot be filtered by label"),
    (BEST + " AND label = 'x'", "a value that is no number"),
    (BEST + " AND rowid = 'x'", "a value that is no number"),
    (BEST + " AND label < 9e999", "an infinite number"),
    (BEST + " AND name = x'00'", "compared with a BLOB"),
    (BEST + " AND name = char(0)", "a text that has a NUL"),
    (BEST + " AND name = 'a' COLLATE NOCASE", "cannot be filtered by name"),
    (BEST + " AND filter = 'labe = 1'", "filter, byte 1: found labe"),
    (BEST + " AND filter = 1", "filter is no text"),
    *((where, "MATCH is a search: WHERE vectors MATCH query AND k = N") for where in (
        "label MATCH '[1,2]' AND k = 1", f"{BEST} AND embedding MATCH '[2,1]'",
        "embedding MATCH '[1,2]' OR label = 1", "NOT embedding MATCH '[1,2]'")),
]
WRONG_COMMANDS = ["", "x", "rebuild now", "memory", "memory=", "memory=x", "memory=-1", "optimize=1", "lists",
                  "lists=x", "probes=1 ", "probes", "recall=", "recall=nan"]
# Statements with their values, and what the error says.
REFUSED = [
    *((f"CREATE VIRTUAL TABLE u USING qx({declaration})", [], message)
      for declaration, message in WRONG_DECLARATIONS.items()),
    *(("INSERT INTO t(rowid, embedding) VALUES (?, ?)", row, message)
      for *row, message in WRONG_ROWS),
    *(("INSERT INTO t(embedding, label) VALUES ('[1,2]', ?)", [value],
       "the column label takes integers") for value in NO_NUMBERS),
    *((f"SELECT rowid FROM t WHERE {where}", [], message) for where, message in WRONG_SEARCHES),
    *(("INSERT INTO t(t) VALUES (?)", [command], "the command is unknown or incomplete")
      for command in WRONG_COMMANDS),
]


@pytest.mark.parametrize("sql, values, message", REFUSED)
def test_what_does_not_fit_is_refused(database, sql, values, message):
    database.execute(TABLE)
    database.execute("INSERT INTO t(rowid, embedding, label) VALUES (5, '[1,2]', 1)")
    tables = database.execute("SELECT name FROM sqlite_schema").fetchall()
    with pytest.raises(sqlite3.DatabaseError, match=message):
        database.execute(sql, values).fetchall()
    assert database.execute("SELECT name FROM sqlite_schema").fetchall() == tables
    assert database.execute("SELECT rowid FROM t WHERE embedding MATCH '[1,2]' AND k = 9223372036854775807"
                            ).fetchall() == [(5,)]


def test_the_short_form_declares_the_same_columns(database):
    database.execute("CREATE VIRTUAL TABLE t USING qx(dim=2, label integer, "
                     "columns='length,band', partition=letter)")
    names = [row[1] for row in database.execute("PRAGMA table_info(t)")]
    assert names == ["embedding", "label", "length", "band", "letter"]


DAMAGES = {
    "UPDATE t_vectors SET vectors = x'00'": "a chunk of vectors is damaged: it is too short",
    "UPDATE t_vectors SET vectors = 'text'": "a chunk of vectors is damaged: it is too short",
    "UPDATE t_vectors SET vectors = x'0000c07f' || substr(vectors, 5)": "is not finite",
    "UPDATE t_vectors SET chunk = 7": "are damaged: chunk 0 is missing",
    "UPDATE t_vectors SET vectors = 7": "are damaged: chunk 0 is missing",
    "DELETE FROM t_vectors": "are damaged: chunk 0 is missing",
    "UPDATE t_values SET \"#\" = -1": "a row of t has the place -1",
    "UPDATE t_values SET \"#\" = 1e300": "it has no place",
    "UPDATE t_values SET \"#\" = 1 << 62": "are damaged: chunk .* is missing",
    "UPDATE t_values SET label = 'text'": "is damaged: a value of another type in label",
    "INSERT INTO t_state VALUES ('centroids', x'0000803f')": "the centroids of t are damaged",
    "DELETE FROM t_commits": "t_commits is empty",
    "DROP TABLE t_values": "no such table",
    "DROP TABLE t_commits": "no such table",
    "UPDATE t_state SET value = 3 WHERE key = 'version'": "of no version of its format",
    "DELETE FROM t_state": "of no version of its format",
}


@pytest.mark.parametrize("damage", DAMAGES)
def test_damaged_tables_are_an_error(tmp_path, damage):
    path = tmp_path / "damaged.db"
    first = connect(path)
    first.execute(TABLE)
    first.execute("INSERT INTO t(rowid, embedding, label) VALUES (1, '[1,2]', 1)")
    first.execute(damage)
    first.close()
    with pytest.raises(sqlite3.DatabaseError, match=DAMAGES[damage]):
        connect(path).execute(
            "SELECT rowid FROM t WHERE embedding MATCH '[1,2]' AND k = 1").fetchall()


@pytest.mark.parametrize("damage", [
    "UPDATE t_commits SET places = -1", "UPDATE t_commits SET places = 1 << 62",
    "UPDATE t_commits SET total = -1",
    "UPDATE t_commits SET entry = -1 - (1 << 63) WHERE entry = (SELECT max(entry) FROM t_commits)",
    "INSERT INTO t_free VALUES (-5)", "INSERT INTO t_free VALUES (1 << 62)",
    "UPDATE t_vectors SET vectors = x'00'", "UPDATE t_vectors SET vectors = 7",
])
def test_nothing_is_written_into_damaged_tables(tmp_path, damage):
    first = connect(tmp_path / "damaged.db")
    first.execute(TABLE)
    first.execute("INSERT INTO t(rowid, embedding, label) VALUES (1, '[1,2]', 1)")
    first.execute(damage)
    with pytest.raises(sqlite3.DatabaseError):
        first.execute("INSERT INTO t(rowid, embedding) VALUES (2, '[1,2]')")
    assert first.execute("SELECT rowid FROM t").fetchall() == [(1,)]


def test_shadow_tables_that_are_views_of_the_table_do_not_recur(tmp_path):
    path = tmp_path / "crafted.db"
    for name in ("values", "vectors", "commits", "free", "state"):
        first = connect(path)
        first.execute(TABLE)
        first.execute("INSERT INTO t(rowid, embedding, label) VALUES (1, '[1,2]', 1)")
        columns = [row[1] for row in first.execute(f"PRAGMA table_info(t_{name})")]
        first.execute(f"DROP TABLE t_{name}")
        listed = ", ".join(f'1 AS "{column}"' for column in columns)
        first.execute(f"CREATE VIEW t_{name} AS SELECT {listed} FROM t WHERE {BEST}")
        first.close()
        for statement in (f"SELECT rowid FROM t WHERE {BEST}", "DELETE FROM t", "SELECT * FROM t",
                          "INSERT INTO t(embedding) VALUES ('[1,1]')"):
            try:
                connect(path).execute(statement).fetchall()
            except sqlite3.DatabaseError as error:
                assert str(error)
        os.remove(path)
