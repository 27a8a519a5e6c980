"""SQL that does not fit is an SQL error that says why, and changes nothing."""
import sqlite3
import struct

import pytest

from conftest import connect

TABLE = ("CREATE VIRTUAL TABLE t USING qx(embedding float[2], label integer, "
         "letter integer partition key, +word text)")
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
    "embedding float[2], a integer partition key, b integer partition key": "one partition key",
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
    (1, None, "a vector is a BLOB"),
    (1, 7, "a vector is a BLOB"),
    (-1, "[1, 2]", "the rowid -1 is below 0"),
    (-2**63, "[1, 2]", "is below 0"),
]
NO_NUMBERS = ["x", 1.5, b"1", -2**63]
WRONG_SEARCHES = [
    ("embedding MATCH '[1,2]'", "needs 'k = N'"),
    ("embedding MATCH '[1,2]' AND k = -1", "k is -1, outside 0"),
    ("embedding MATCH '[1,2]' AND k = 4294967296", "outside 0"),
    ("embedding MATCH '[1,2]' AND k = 'x'", "k is no whole number"),
    ("embedding MATCH '[1,2]' AND k = 1.5", "k is no whole number"),
    ("embedding MATCH '[1,2]' AND k = NULL", "k is no whole number"),
    ("embedding MATCH '[1]' AND k = 1", "a vector of 1 numbers"),
    ("embedding MATCH NULL AND k = 1", "a vector is a BLOB"),
    ("embedding MATCH x'00' AND k = 1", "a BLOB of 1 bytes"),
    (BEST + " AND word = 'a'", "cannot be filtered by the column word"),
    (BEST + " AND label LIKE '1%'", "cannot be filtered"),
    (BEST + " AND label = 'x'", "a value that is no number"),
    (BEST + " AND label > 1.5", "not whole"),
    ("label MATCH '[1,2]' AND k = 1", "unable to use function MATCH"),
]
WRONG_COMMANDS = ["", "x", "rebuild now", "ivf", "ivf nlist=0", "ivf nlist=x", "ivf nprobe=3",
                  "ivf nlist=99999999", "ivf off x", "ivf nlist=2=3", "ivf =", "ivf nlist"]
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
    assert database.execute("SELECT rowid FROM t WHERE embedding MATCH '[1,2]' AND k = 2147483646"
                            ).fetchall() == [(5,)]


def test_the_short_form_declares_the_same_columns(database):
    database.execute("CREATE VIRTUAL TABLE t USING qx(dim=2, label integer, "
                     "columns='length,band', partition=letter)")
    names = [row[1] for row in database.execute("PRAGMA table_info(t)")]
    assert names == ["embedding", "label", "length", "band", "letter"]


DAMAGES = {
    "UPDATE t_rows SET embedding = x'00'": "the stored row 1 is damaged: no vector",
    "UPDATE t_rows SET embedding = x'0000c07f0000c07f'": "is damaged: element 0",
    "UPDATE t_rows SET embedding = 'text'": "is damaged: no vector",
    "UPDATE t_rows SET label = 'text'": "is damaged: no number in label",
    "UPDATE t_rows SET rowid = -5": "a rowid below 0",
    "DELETE FROM t_state WHERE key = 'generation'": "no generation",
    "UPDATE t_state SET value = 'x' WHERE key = 'generation'": "no generation",
    "INSERT INTO t_state VALUES ('ivf_nprobe', 3)": "the stored centroids are damaged",
    "INSERT INTO t_state VALUES ('ivf_nprobe', 0)": "the stored number of probes is damaged",
    "DROP TABLE t_rows": "no such table",
    "DROP TABLE t_log": "no such table",
    "UPDATE t_state SET value = 2 WHERE key = 'version'": "not of version 1",
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
