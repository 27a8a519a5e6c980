"""Writes transactions without end, for a test that kills it: writer.py DATABASE FIRST

Transaction n inserts the rows 3n, 3n + 1 and 3n + 2, deletes row 3n - 6 and moves the vector of row
3n - 5. The number of each is printed once it is committed.
"""
import sys

from conftest import connect


def vector(rowid):
    return f"[{rowid % 7}, {rowid % 5}, 1]"


def main():
    database, first = sys.argv[1], int(sys.argv[2])
    connection = connect(database)
    for n in range(first, first + 100000):
        connection.execute("BEGIN")
        for rowid in range(3 * n, 3 * n + 3):
            connection.execute("INSERT INTO t(rowid, embedding, label) VALUES (?, ?, ?)",
                               [rowid, vector(rowid), n])
        connection.execute("DELETE FROM t WHERE rowid = ?", [3 * n - 6])
        connection.execute("UPDATE t SET embedding = '[9, 9, 9]' WHERE rowid = ?", [3 * n - 5])
        if n % 10 == 9:
            connection.execute("INSERT INTO t(t) VALUES ('rebuild')")
        connection.execute("COMMIT")
        print(n, flush=True)


if __name__ == "__main__":
    main()
