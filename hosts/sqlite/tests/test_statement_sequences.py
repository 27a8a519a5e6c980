"""Random sequences of SQL statements on a table, through two connections, against a model."""
import random

import pytest

from conftest import connect

DIM = 3
COLUMNS = ["label", "length", "letter"]


def best(rows, query, k, passes):
    """The k best (rowid, score) of rows that pass, by score and then by rowid. The vectors are small
    whole numbers, whose scores are exact in any order."""
    scored = [(sum(a * b for a, b in zip(query, vector)), rowid)
              for rowid, (vector, numbers) in rows.items() if passes(rowid, numbers)]
    scored.sort(key=lambda hit: (-hit[0], hit[1]))
    return [(rowid, score) for score, rowid in scored[:k]]


class StatementSequence:
    """Draws statements, runs them, and keeps the rows that the table must then hold."""

    def __init__(self, path, seed):
        self.random = random.Random(seed)
        self.connections = [connect(path), connect(path)]
        for connection in self.connections:
            connection.execute("PRAGMA synchronous = off")
        self.connections[0].execute(
            "CREATE VIRTUAL TABLE t USING qx(embedding float[3], label integer, length integer, "
            "letter integer partition key, +word text)")
        self.rows = {}
        self.kept = []  # what the rows were at each open savepoint
        self.writer = None
        self.searches = 0

    def vector(self):
        return [float(self.random.randint(-2, 2)) for _ in range(DIM)]

    def number(self):
        return self.random.choice([None, -1, 0, 1, 2, -(2**63), 2**62])

    def rowid(self):
        return self.random.choice([self.random.randint(0, 12), self.random.randint(-20, 40),
                                   2**62 + self.random.randint(0, 3), -2**63])

    def connection(self):
        return self.connections[self.random.randint(0, 1) if self.writer is None else self.writer]

    def insert(self):
        count = self.random.choice([1, 1, 3])
        connection = self.connection()
        for _ in range(count):
            rowid, vector = self.rowid(), self.vector()
            numbers = [self.number() for _ in COLUMNS]
            connection.execute("INSERT OR REPLACE INTO t(rowid, embedding, label, length, letter, "
                               "word) VALUES (?, ?, ?, ?, ?, ?)",
                               [rowid, str(vector), *numbers, f"word {rowid}"])
            self.rows[rowid] = vector, numbers

    def update(self):
        column = self.random.randint(0, 2)
        where, value = self.number(), self.number()
        self.connection().execute(
            f"UPDATE t SET {COLUMNS[column]} = ? WHERE {COLUMNS[column]} IS ?", [value, where])
        for _, numbers in list(self.rows.values()):
            if numbers[column] == where:
                numbers[column] = value

    def move(self):
        old, new = self.rowid(), self.rowid()
        if old in self.rows and new not in self.rows:
            self.connection().execute("UPDATE t SET rowid = ? WHERE rowid = ?", [new, old])
            self.rows[new] = self.rows.pop(old)

    def delete(self):
        rowid = self.rowid()
        self.connection().execute("DELETE FROM t WHERE rowid = ?", [rowid])
        self.rows.pop(rowid, None)

    def begin(self):
        if self.writer is None:
            self.writer = self.random.randint(0, 1)
            self.connections[self.writer].execute("BEGIN IMMEDIATE")
            self.kept = [self.copy()]

    def savepoint(self):
        if self.writer is not None:
            self.connections[self.writer].execute(f"SAVEPOINT s{len(self.kept)}")
            self.kept.append(self.copy())

    def roll_back(self):
        if self.writer is None:
            return
        self.rows = self.kept.pop()
        name = f"s{len(self.kept)}"
        for statement in (f"ROLLBACK TO {name}", f"RELEASE {name}") if self.kept else ("ROLLBACK",):
            self.connections[self.writer].execute(statement)
        if not self.kept:
            self.writer = None

    def commit(self):
        if self.writer is not None:
            self.connections[self.writer].execute("COMMIT")
            self.writer = None
            self.kept = []

    def command(self):
        text = self.random.choice(["rebuild", "optimize"])
        self.connection().execute("INSERT INTO t(t) VALUES (?)", [text])

    def copy(self):
        return {rowid: (vector, list(numbers)) for rowid, (vector, numbers) in self.rows.items()}

    def condition(self):
        """A condition in SQL, its values, and the same in Python."""
        column = self.random.randint(0, 2)
        name, value = COLUMNS[column], self.number()
        number = value if value is not None else 0
        members = [self.number() for _ in range(3)]
        rowids = [self.rowid() for _ in range(5)]
        return self.random.choice([
            (f"{name} = ?", [number], lambda r, n: n[column] == number),
            (f"{name} = ?", [number], lambda r, n: n[column] == number),
            (f"{name} IS ?", [value], lambda r, n: n[column] == value),
            (f"{name} IS NOT NULL", [], lambda r, n: n[column] is not None),
            (f"{name} != ?", [number], lambda r, n: n[column] not in (None, number)),
            (f"{name} < ?", [number], lambda r, n: n[column] is not None and n[column] < number),
            (f"{name} >= ?", [number], lambda r, n: n[column] is not None and n[column] >= number),
            (f"{name} IN (?, ?, ?)", members,
             lambda r, n: n[column] is not None and n[column] in members),
            ("rowid IN (?, ?, ?, ?, ?)", rowids, lambda r, n: r in rowids),
            ("rowid > ?", [10], lambda r, n: r > 10),
        ])

    def search(self):
        connection = self.random.randint(0, 1)
        rows = self.rows
        if self.writer is not None and connection != self.writer:
            rows = self.kept[0]
        query, k = self.vector(), self.random.choice([0, 1, 3, 1000])
        conditions = [self.condition() for _ in range(self.random.choice([0, 0, 1, 1, 2]))]
        sql = "SELECT rowid, score FROM t WHERE embedding MATCH ? AND k = ?"
        for text, _, _ in conditions:
            sql += f" AND {text}"
        values = [value for _, given, _ in conditions for value in given]
        found = self.connections[connection].execute(sql, [str(query), k, *values]).fetchall()
        assert found == best(rows, query, k,
                             lambda r, n: all(test(r, n) for _, _, test in conditions))
        self.searches += 1

    def play(self, steps):
        weighted = ([self.insert] * 6 + [self.update, self.move, self.delete, self.delete] +
                    [self.begin, self.savepoint, self.roll_back, self.commit, self.command] +
                    [self.search] * 8)
        for _ in range(steps):
            self.random.choice(weighted)()
        while self.writer is not None:
            self.roll_back()
        rowids = [rowid for rowid, in self.connections[0].execute("SELECT rowid FROM t")]
        assert sorted(rowids) == sorted(self.rows)


@pytest.mark.parametrize("seed", range(60))
def test_answers_are_those_of_the_model(tmp_path, seed):
    path = tmp_path / "rows.db"
    connect(path).execute(f"PRAGMA journal_mode = {'wal' if seed % 2 else 'delete'}")
    sequence = StatementSequence(path, seed)
    sequence.play(150)
    assert sequence.searches > 20
