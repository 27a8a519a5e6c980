"""A writer that is killed at a random moment loses and invents nothing. QX_CRASHES sets how often.

As a program this file is that writer: test_crashes.py DATABASE FIRST
"""
import os
import random
import subprocess
import sys
import time

from conftest import connect

CRASHES = int(os.environ.get("QX_CRASHES", "15"))


def vector(rowid):
    return f"[{rowid % 7},{rowid % 5},1]"


def write(path, first):
    """Transaction n inserts three rows, deletes row 3n - 6, moves the vector of row 3n - 5, and is
    printed once it is committed."""
    connection = connect(path)
    for n in range(first, first + 100000):
        connection.execute("BEGIN")
        connection.executemany("INSERT INTO t(rowid, embedding, label) VALUES (?, ?, ?)",
                               [(rowid, vector(rowid), n) for rowid in range(3 * n, 3 * n + 3)])
        connection.execute("DELETE FROM t WHERE rowid = ?", [3 * n - 6])
        connection.execute("UPDATE t SET embedding = '[9,9,9]' WHERE rowid = ?", [3 * n - 5])
        if n % 10 == 9:
            connection.execute("INSERT INTO t(t) VALUES ('optimize')")
        connection.execute("COMMIT")
        print(n, flush=True)


def rows_after(transactions):
    """What is in the table after the transactions 0 to `transactions` - 1."""
    rows = {}
    for n in range(transactions):
        for rowid in range(3 * n, 3 * n + 3):
            rows[rowid] = vector(rowid), n
        rows.pop(3 * n - 6, None)
        if 3 * n - 5 in rows:
            rows[3 * n - 5] = "[9,9,9]", n - 2
    return rows


def kill_while_writing(path, first, delay):
    """Returns the number of the first transaction that was not reported."""
    with subprocess.Popen([sys.executable, __file__, str(path), str(first)],
                          stdout=subprocess.PIPE, text=True) as writer:
        reported = [writer.stdout.readline()]  # it has begun
        time.sleep(delay)
        writer.kill()
        reported += writer.stdout.readlines()
    whole = [int(line) for line in reported if line.endswith("\n")]
    return whole[-1] + 1


def test_a_killed_writer_loses_nothing_and_invents_nothing(tmp_path):
    draw = random.Random(1)
    for number in range(CRASHES):
        if number % 25 == 0:
            path = tmp_path / f"{number}.db"
            setup = connect(path)
            setup.execute(f"PRAGMA journal_mode = {'wal' if number % 50 == 0 else 'delete'}")
            setup.execute("CREATE VIRTUAL TABLE t USING qx(embedding float[3], label integer)")
            setup.close()
            reader = connect(path)  # stays, whatever happens to the writer
            done = 0
        reported = kill_while_writing(path, done, draw.uniform(0, 0.08))
        fresh = connect(path)
        rows = {rowid: (embedding, label) for rowid, embedding, label in
                fresh.execute("SELECT rowid, qx_json(embedding), label FROM t")}
        done = reported if rows == rows_after(reported) else reported + 1
        assert rows == rows_after(done)
        for query in ("[1, 2, 3]", "[-1, 1, 0]"):
            search = "SELECT rowid, score FROM t WHERE embedding MATCH ? AND k = 100000"
            answers = [c.execute(search, [query]).fetchall() for c in (reader, fresh)]
            assert answers[0] == answers[1]
            assert sorted(rowid for rowid, _ in answers[0]) == sorted(rows)
        assert fresh.execute("PRAGMA integrity_check").fetchone() == ("ok",)
        fresh.close()


if __name__ == "__main__":
    write(sys.argv[1], int(sys.argv[2]))
