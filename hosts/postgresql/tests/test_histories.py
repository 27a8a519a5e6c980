"""Random statements through five connections at all isolation levels. Each search is judged by the
plain exact scan of the table in the same statement: ids, the bits of scores, and order. QX_HISTORIES
sets how many histories are played."""
import collections
import os
import random

import psycopg2
import pytest

HISTORIES = int(os.environ.get("QX_HISTORIES", "8"))
LEVELS = ("READ COMMITTED", "REPEATABLE READ", "SERIALIZABLE")
OPERATORS = {"inner product": "<#>", "cosine": "<=>", "euclidean": "<->"}
FILTERS = (None, "label = 2", "label IS NULL OR word = 'w1'", "label BETWEEN 1 AND 3 AND word <> 'w2'")


class History:
    def __init__(self, database, seed):
        self.draw = random.Random(seed)
        self.metric = self.draw.choice(["inner product", "cosine", "euclidean"])
        self.whole = self.draw.random() < 0.5  # components are integers, so that many rows tie
        key = self.draw.choice(["bigint", "uuid", "text"])
        database.session.make_table(self.draw.choice([0, 300]), self.metric, key=key)
        self.sessions = [database.connect() for _ in range(5)]
        self.began = [False] * 5
        self.ways = collections.Counter()
        for session in self.sessions:
            session.run("SET lock_timeout = '20ms'")
            session.function = database.session.function

    def vector(self):
        if self.draw.random() < 0.05:
            return None
        return [self.draw.randint(-3, 3) if self.whole else self.draw.gauss(0, 1) for _ in range(3)]

    def change(self, session):
        draw, row = self.draw, self.draw.randint(1, 330)
        kind = draw.choices("iudmkt", [30, 30, 20, 8, 8, 1])[0]
        if kind == "i":
            session.run("INSERT INTO t VALUES (key(%s), %s::real[], %s, %s) ON CONFLICT (id) DO UPDATE "
                        "SET v = excluded.v", row, self.vector(), draw.choice([None, 1, 2, 3]), "w1")
        elif kind == "u":
            session.run("UPDATE t SET v = %s::real[], label = %s WHERE id = key(%s)", self.vector(),
                        draw.randint(0, 4), row)
        elif kind == "d":
            session.run("DELETE FROM t WHERE id = key(%s)", row)
        elif kind == "m":
            session.run("UPDATE t SET label = label + 1, word = 'w' || label %% 4 "
                        "WHERE id BETWEEN key(%s) AND key(%s)", row, row + 20)
        elif kind == "k":
            session.run("UPDATE t SET id = key(%s) WHERE id = key(%s)", draw.randint(1, 330), row)
        else:
            session.run("TRUNCATE t")

    def order(self, session, query, limit):
        """ORDER BY an operator, by the index and by a sort."""
        found = []
        for by in ("on", "off"):
            session.run(f"SET qx.use_index = {by}; SET enable_sort = {'off' if by == 'on' else 'on'}")
            found.append(session.run(f"SELECT id FROM t WHERE v IS NOT NULL ORDER BY v OPERATOR(qx."
                                     f"{OPERATORS[self.metric]}) %s::real[], id LIMIT {limit}", query))
        assert found[0] == found[1]

    def step(self, at):
        session, draw = self.sessions[at], self.draw
        kind = draw.choices(["search", "order", "change", "begin", "end", "savepoint", "undo"],
                            [40, 8, 40, 6, 6, 4, 4])[0]
        if kind == "search":
            session.agree(query=self.vector() or [1, 1, 1], k=draw.choice([1, 5, 1000]),
                          condition=draw.choice(FILTERS), metric=self.metric)
            self.ways[session.way()] += 1
        elif kind == "order":
            self.order(session, self.vector() or [1, 1, 1], draw.choice([1, 5, 1000]))
        elif kind == "change":
            self.change(session)
        elif kind == "begin" and not self.began[at]:
            session.run(f"BEGIN ISOLATION LEVEL {draw.choice(LEVELS)}")
            self.began[at] = True
        elif kind == "end" and self.began[at]:
            self.began[at] = False
            session.run(draw.choice(["COMMIT", "COMMIT", "ROLLBACK"]))
        elif kind == "savepoint" and self.began[at]:
            session.run("SAVEPOINT s")
        elif kind == "undo" and self.began[at]:
            session.run("ROLLBACK TO s")

    def play(self, steps):
        for _ in range(steps):
            at = self.draw.randrange(5)
            try:
                self.step(at)
            except psycopg2.Error as error:
                # Locks, keys that are there, serialization, a savepoint that is not there.
                assert error.pgcode in ("55P03", "23505", "40001", "40P01", "3B001"), error
                self.began[at] = False
                self.sessions[at].run("ROLLBACK")
        for session in self.sessions:
            session.run("ROLLBACK")
            session.agree(k=1000, metric=self.metric)


@pytest.mark.parametrize("seed", range(HISTORIES))
def test_history(database, seed):
    history = History(database, seed)
    history.play(400)
    assert history.ways["index"] + history.ways["index, replaced rows"] > 0
