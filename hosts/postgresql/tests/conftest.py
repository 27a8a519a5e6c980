"""One cluster for all tests, a database for each."""
import itertools
import pathlib
import sys
import threading

import psycopg2
import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
from cluster import Cluster

NUMBERS = itertools.count()
JUDGES = {"inner product": ("qx.inner_product", "DESC"), "cosine": ("qx.cosine", "DESC"),
          "euclidean": ("qx.squared_distance", "ASC")}
KEYS = {"bigint": ("qx.search", "$1"), "text": ("qx.search_text", "'k' || $1"),
        "uuid": ("qx.search_uuid", "lpad(to_hex($1), 32, '0')::uuid")}


class Database:
    """A database with the extension, and connections to it."""

    def __init__(self, cluster):
        self.cluster = cluster
        self.name = f"test{next(NUMBERS)}"
        self.connections = []
        administrator = cluster.connect()
        administrator.cursor().execute(f"CREATE DATABASE {self.name}")
        administrator.close()
        self.session = self.connect()
        self.session.run("CREATE EXTENSION qx")

    def connect(self, user="postgres"):
        session = Session(self.cluster.connect(self.name, user))
        self.connections.append(session)
        return session

    def close(self):
        for session in self.connections:
            session.connection.close()
        administrator = self.cluster.connect()
        administrator.cursor().execute(f"DROP DATABASE {self.name} WITH (FORCE)")
        administrator.close()


class Session:
    def __init__(self, connection):
        self.connection = connection
        self.function = "qx.search"

    def run(self, statement, *values):
        with self.connection.cursor() as cursor:
            cursor.execute(statement, values or None)
            return cursor.fetchall() if cursor.description else None

    def one(self, statement, *values):
        return self.run(statement, *values)[0][0]

    def make_table(self, rows=0, metric="inner product", dim=3, key="bigint"):
        self.function, made = KEYS[key]
        self.run(f"CREATE FUNCTION key(bigint) RETURNS {key} IMMUTABLE LANGUAGE sql AS $$ SELECT {made} $$")
        self.run(f"CREATE TABLE t (id {key} PRIMARY KEY, v real[], label int, word text)")
        self.run("SELECT qx.create_index('t', 'v', '{label,word}', %s)", metric)
        self.run("INSERT INTO t SELECT key(i), ARRAY(SELECT (i * j) %% 7 FROM generate_series(1, %s) j), "
                 "i %% 5, 'w' || i %% 3 FROM generate_series(1, %s) i", dim, rows)

    def search(self, query=(1, 2, 3), k=10, condition=None):
        return self.run(f"SELECT id, score FROM {self.function}('t', %s::real[], %s, %s)", list(query), k,
                        condition)

    def both(self, query=(1, 2, 3), k=10, condition=None, metric="inner product"):
        """What a search gives, and what the table says in the same statement."""
        function, order = JUDGES[metric]
        return self.run(
            f"""SELECT (SELECT array_agg((id, score)::text) FROM {self.function}('t', %s::real[], %s, %s)),
                (SELECT array_agg((id, score)::text) FROM (
                  SELECT id, {function}(v, %s::real[]) AS score FROM t
                  WHERE v IS NOT NULL AND ({condition or 'true'})
                  ORDER BY score {order}, id LIMIT %s) judged)""",
            list(query), k, condition, list(query), k)[0]

    def agree(self, **options):
        found, judged = self.both(**options)
        assert found == judged
        return found

    def background(self, statement):
        """A statement that waits for others: a thread that gives what it gives, or its error."""
        def run():
            try:
                waiting.found = self.run(statement)
            except psycopg2.Error as error:
                waiting.found = error
        waiting = threading.Thread(target=run)
        waiting.start()
        return waiting

    def worker(self):
        found = self.run("SELECT pid FROM pg_stat_activity WHERE backend_type = 'qx worker' "
                         "AND datname = current_database()")
        return found[0][0] if found else None

    def way(self):
        return self.one("SELECT qx.last_search()")


@pytest.fixture(scope="session")
def cluster():
    made = Cluster()
    yield made
    made.close()


@pytest.fixture
def database(cluster):
    made = Database(cluster)
    yield made
    made.close()
