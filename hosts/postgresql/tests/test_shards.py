"""A table spread over shards answers as a table of one server with the same rows, to the bit."""
import io
import random
import re
import shutil
import socket
import threading

import psycopg2
import pytest

from cluster import SOURCES, wait_until
from conftest import Database
from shards import add_server, spread

COLUMNS = "id {} NOT NULL, v real[], label int, word text"
FILTERS = (None, "label = 2", "label IS NULL OR word = 'w1'", "label = 77")
SHAPES = [(shards, key, metric) for shards, key in ((1, "bigint"), (2, "uuid"), (3, "text"), (5, "bigint"))
          for metric in ("inner product", "cosine", "euclidean")]


class Shards:
    """A coordinator and shards s0, s1, ..., each a database. The coordinator's `parts` is spread over them,
    and its ordinary table `t` has the same rows."""

    def __init__(self, cluster, count, key="bigint", metric="inner product"):
        self.coordinator = Database(cluster)
        self.shards = [Database(cluster) for _ in range(count)]
        self.session = self.coordinator.session
        for database in [self.coordinator, *self.shards]:
            database.session.make_table(metric=metric, key=key)
        self.session.run("CREATE EXTENSION postgres_fdw")
        self.names = [f"s{number}" for number in range(count)]
        for name, database in zip(self.names, self.shards):
            add_server(self.session.run, name, database.name, cluster)
        spread(self.session.run, "parts", COLUMNS.format(key), self.names, "t")

    def fill(self, rows, draw):
        for row in range(1, rows + 1):
            vector = None if draw.random() < 0.05 else [draw.randint(-2, 2) for _ in range(3)]
            self.session.run("INSERT INTO t VALUES (key(%s), %s::real[], %s, %s)", row, vector,
                             draw.choice([None, 1, 2, 3]), draw.choice(["w1", "w2"]))
        self.session.run("INSERT INTO parts SELECT * FROM t")

    def change(self, statement, *values):
        for table in ("t", "parts"):
            self.session.run(statement.format(table), *values)

    def agree(self, query=(1, 2, 3), k=10, condition=None, session=None):
        found, whole = (
            (session or self.session).run(f"SELECT array(SELECT (id, score)::text FROM {self.session.function}"
                                          f"('{table}', %s::real[], %s, %s))", list(query), k, condition)[0][0]
            for table in ("parts", "t"))
        assert found == whole
        return found

    def search(self, session=None):
        return (session or self.session).run("SELECT id FROM qx.search('parts', '{1,2,3}', 10)")

    def close(self):
        for database in [self.coordinator, *self.shards]:
            database.close()


@pytest.fixture
def made(cluster):
    """Makes shards that are closed after the test."""
    all_made = []

    def make(*arguments):
        all_made.append(Shards(cluster, *arguments))
        return all_made[-1]
    yield make
    for shards in all_made:
        shards.close()


@pytest.fixture
def two(made):
    shards = made(2)
    shards.fill(60, random.Random(5))
    shards.agree()
    return shards


@pytest.mark.parametrize("count, key, metric", SHAPES)
def test_shards_answer_as_one_server(made, count, key, metric):
    draw = random.Random(count)
    shards = made(count, key, metric)
    assert shards.agree() == []
    shards.fill(150, draw)
    for part in range(3):
        for _ in range(8):
            query = [draw.randint(-2, 2) if part == 0 else draw.gauss(0, 1) for _ in range(3)]
            shards.agree(query, draw.choice([0, 1, 5, 2**62]), draw.choice(FILTERS))
        assert len(shards.agree(k=1000)) > 90
        shards.change("DELETE FROM {} WHERE id = key(%s)", draw.randint(1, 150))
        shards.change("UPDATE {} SET v = %s::real[] WHERE label = 2", [draw.gauss(0, 1) for _ in range(3)])


@pytest.mark.parametrize("statement", [
    "INSERT INTO parts VALUES (1000, '{9,9,9}')", "UPDATE parts SET label = 1 WHERE id = 1", "DELETE FROM parts",
    "DELETE FROM parts_s1", "TRUNCATE parts", "TRUNCATE parts_s1", "COPY parts FROM STDIN",
    "UPDATE elsewhere SET label = 1"])
def test_uncommitted_changes_are_never_left_out(two, statement):
    session = two.session
    session.run("CREATE FOREIGN TABLE elsewhere (id bigint, label int) SERVER s1 OPTIONS (table_name 't')")

    def change():
        with session.connection.cursor() as cursor:
            if "STDIN" in statement:
                cursor.copy_expert(statement, io.StringIO("1000\t{9,9,9}\t1\tx\n"))
            else:
                cursor.execute(statement)
    session.run("BEGIN; SAVEPOINT s")
    two.agree()
    change()
    session.run("ROLLBACK TO s")
    two.agree()
    change()
    with pytest.raises(psycopg2.errors.ActiveSqlTransaction, match="may have changed rows of foreign table"):
        two.search()
    session.run("ROLLBACK")
    before = two.agree()
    session.run("BEGIN")
    change()
    session.run("COMMIT")
    assert (two.search() == [(int(row.strip("()").split(",")[0]),) for row in before]) == ("label" in statement)


def test_a_statement_does_not_search_beside_its_own_change(two):
    with pytest.raises(psycopg2.errors.ActiveSqlTransaction):
        two.session.run("WITH new AS (INSERT INTO parts VALUES (1000, '{9,9,9}') RETURNING id) "
                        "SELECT * FROM new, qx.search('parts', '{1,2,3}', 1)")
    two.agree()


def test_changes_on_servers_that_are_not_asked_do_not_matter(two):
    session, there = two.session, two.coordinator
    add_server(session.run, "itself", there.name, there.cluster)
    session.run("CREATE TABLE u (id int); CREATE FOREIGN TABLE far (id int) SERVER itself OPTIONS (table_name 'u')")
    session.run("BEGIN; INSERT INTO far VALUES (1); DELETE FROM t WHERE false")
    two.agree()
    session.run("COMMIT")


def test_uncommitted_changes_of_others_are_not_seen(two):
    other = two.coordinator.connect()
    other.run("BEGIN; INSERT INTO parts VALUES (1000, '{9,9,9}'); INSERT INTO t VALUES (1000, '{9,9,9}')")
    before = two.agree()
    other.run("COMMIT")
    assert two.agree() != before


def test_local_foreign_and_divided_partitions(two):
    session, shard = two.session, two.shards[0].session
    shard.run("CREATE TABLE \"of 'all\" (LIKE t) PARTITION BY HASH (id);"
              "CREATE TABLE here PARTITION OF \"of 'all\" (PRIMARY KEY (id)) FOR VALUES WITH (MODULUS 1, REMAINDER 0);"
              "SELECT qx.create_index('here', 'v', '{label,word}')")
    session.run("CREATE TABLE mixed (LIKE t) PARTITION BY RANGE (id);"
                "CREATE TABLE low PARTITION OF mixed (PRIMARY KEY (id)) FOR VALUES FROM (0) TO (20);"
                "SELECT qx.create_index('low', 'v', '{label,word}');"
                "CREATE TABLE high PARTITION OF mixed FOR VALUES FROM (20) TO (100) PARTITION BY RANGE (id);"
                "CREATE FOREIGN TABLE middle PARTITION OF high FOR VALUES FROM (20) TO (40) SERVER s0 "
                "OPTIONS (table_name 'of ''all');"
                "CREATE FOREIGN TABLE rest PARTITION OF high FOR VALUES FROM (40) TO (100) SERVER s1 "
                "OPTIONS (table_name 't')")
    two.shards[1].session.run("TRUNCATE t")
    session.run("INSERT INTO mixed SELECT * FROM t")

    def agree():
        assert session.run("SELECT * FROM qx.search('mixed', '{1,2,3}', 30, 'label = 1')") == session.run(
            "SELECT * FROM qx.search('t', '{1,2,3}', 30, 'label = 1')")
    agree()
    session.run("BEGIN; DELETE FROM low WHERE id % 3 = 0; DELETE FROM t WHERE id < 20 AND id % 3 = 0")
    agree()
    session.run("COMMIT; CREATE ROLE qx_guest; GRANT SELECT ON mixed, t TO qx_guest;"
                "CREATE USER MAPPING FOR qx_guest SERVER s0 OPTIONS (user 'postgres', password_required 'false');"
                "CREATE USER MAPPING FOR qx_guest SERVER s1 OPTIONS (user 'postgres', password_required 'false');"
                "SET ROLE qx_guest")
    agree()
    session.run("RESET ROLE; DROP OWNED BY qx_guest; DROP ROLE qx_guest; SELECT qx.drop_index('low')")
    with pytest.raises(psycopg2.Error, match='"low" has no index of qx'):
        agree()


def test_a_foreign_table_by_itself_and_a_table_without_partitions(two):
    both = sorted(two.session.run("SELECT id FROM qx.search('parts_s0', '{1,2,3}', 1000)") +
                  two.session.run("SELECT id FROM qx.search('parts_s1', '{1,2,3}', 1000)"))
    assert both == two.session.run("SELECT id FROM t WHERE v IS NOT NULL ORDER BY id")
    two.session.run("CREATE TABLE none (LIKE t) PARTITION BY HASH (id)")
    assert two.session.run("SELECT * FROM qx.search('none', '{1,2,3}', 10)") == []


def test_what_does_not_fit_is_an_error_that_says_where(two):
    session, shard = two.session, two.shards[1].session
    for call, message in {"qx.search('parts', '{1,2}', 5)": 'shard "s.": the query is no vector',
                          "qx.search('parts', '{1,NaN,2}', 5)": 'shard "s.": the query is no vector',
                          "qx.search('parts', '{1,2,3}', -1)": 'shard "s.": k is below 0',
                          "qx.search('parts', '{1,2,3}', 5, 'none = 1')": 'shard "s.": .*none',
                          "qx.search_text('parts', '{1,2,3}', 5)": 'shard "s.": the key of "t" is of type bigint'}.items():
        with pytest.raises(psycopg2.Error, match=message):
            session.run(f"SELECT * FROM {call}")
        two.agree()
    shard.run("SELECT qx.drop_index('t'); SELECT qx.create_index('t', 'v', '{label,word}', 'euclidean')")
    with pytest.raises(psycopg2.Error, match="has another metric than others"):
        two.search()
    shard.run("SELECT qx.drop_index('t')")
    with pytest.raises(psycopg2.Error, match='shard "s1": table "t" has no index of qx'):
        two.search()
    session.run("CREATE DATABASE latin TEMPLATE template0 ENCODING 'LATIN1'")
    session.run("ALTER SERVER s1 OPTIONS (SET dbname 'latin')")
    with pytest.raises(psycopg2.Error, match='the database of shard "s1" has another encoding'):
        two.search()
    session.run("DROP DATABASE latin")
    session.run("CREATE EXTENSION file_fdw; CREATE SERVER files FOREIGN DATA WRAPPER file_fdw;"
                "CREATE FOREIGN TABLE lines (id bigint) SERVER files OPTIONS (filename '/dev/null')")
    with pytest.raises(psycopg2.Error, match='"lines" is of "file_fdw"'):
        session.run("SELECT * FROM qx.search('lines', '{1,2,3}', 10)")


def test_a_server_that_gives_something_else(two):
    shard = two.shards[1].session
    shard.run("DROP EXTENSION qx CASCADE")
    with pytest.raises(psycopg2.Error, match='shard "s1": function qx.search.* does not exist'):
        two.search()
    shard.run("CREATE FUNCTION qx.last_metric() RETURNS smallint LANGUAGE sql AS 'SELECT 0::int2';"
              "CREATE FUNCTION qx.search(regclass, real[], bigint, text, OUT id int, OUT score real) "
              "RETURNS SETOF record LANGUAGE sql AS 'SELECT 1, 1::real'")
    with pytest.raises(psycopg2.Error, match='shard "s1" gives no hits'):
        two.search()


def test_all_shards_are_asked_at_the_same_time(two):
    blockers = [shard.connect() for shard in two.shards]
    for blocker in blockers:
        blocker.run("BEGIN; LOCK TABLE t IN ACCESS EXCLUSIVE MODE")
    found = []
    searching = threading.Thread(target=lambda: found.extend(two.search()))
    searching.start()
    waiting = "SELECT count(*) FROM pg_stat_activity WHERE datname = current_database() AND wait_event_type = 'Lock'"
    wait_until(lambda: [shard.session.one(waiting) for shard in two.shards] == [1, 1])
    for blocker in blockers:
        blocker.run("COMMIT")
    searching.join()
    assert len(found) == 10


# ---- Roles ----------------------------------------------------------------------------------------------

@pytest.fixture
def keeper(cluster):
    """A role that the shards ask for a password, which a file of the server has."""
    administrator = cluster.connect()
    cursor = administrator.cursor()
    cursor.execute("CREATE ROLE qx_keeper LOGIN PASSWORD 'right-secret'; CREATE ROLE qx_reader LOGIN")
    rules = cluster.data / "pg_hba.conf"
    before = rules.read_text()
    rules.write_text("local all qx_keeper scram-sha-256\n" + before)
    cursor.execute("SELECT pg_reload_conf()")
    passwords = cluster.folder / "passwords"
    passwords.write_text("*:*:*:qx_keeper:right-secret")
    passwords.chmod(0o600)
    shutil.chown(passwords, cluster.data.owner())
    yield passwords
    rules.write_text(before)
    cursor.execute("SELECT pg_reload_conf(); DROP ROLE qx_keeper; DROP ROLE qx_reader")
    administrator.close()


def test_users_reach_what_their_mappings_may(two, keeper):
    session, reader = two.session, two.coordinator.connect("qx_reader")

    def refused(message):
        with pytest.raises(psycopg2.Error) as raised:
            two.search(reader)
        assert re.search(message, str(raised.value)) and "secret" not in str(raised.value)
    refused("permission denied for table parts")
    session.run("GRANT SELECT ON parts, t TO qx_reader")
    refused("user mapping not found")
    for name in two.names:
        session.run(f"ALTER SERVER {name} OPTIONS (ADD passfile '{keeper}');"
                    f"CREATE USER MAPPING FOR qx_reader SERVER {name} OPTIONS (user 'qx_keeper')")
    refused("must be reached by a password")
    for name in two.names:
        session.run(f"ALTER SERVER {name} OPTIONS (DROP passfile);"
                    f"ALTER USER MAPPING FOR qx_reader SERVER {name} OPTIONS (SET user 'postgres')")
    for name in two.names:
        session.run(f"ALTER USER MAPPING FOR qx_reader SERVER {name} OPTIONS (ADD password 'wrong-secret')")
    refused("must be reached by a password")
    for name in two.names:
        session.run(f"ALTER USER MAPPING FOR qx_reader SERVER {name} OPTIONS (SET user 'qx_keeper')")
    refused('(?s)shard "s." does not answer.*password authentication failed')
    for name in two.names:
        session.run(f"ALTER USER MAPPING FOR qx_reader SERVER {name} OPTIONS (SET password 'right-secret')")
    refused('shard "s.": permission denied for table t')
    for shard in two.shards:
        shard.session.run("GRANT SELECT ON t TO qx_keeper")
    assert len(two.agree(session=reader)) == 10
    session.run("ALTER TABLE parts ENABLE ROW LEVEL SECURITY")
    refused("ow-level security")
    for shard in two.shards:
        shard.session.run("REVOKE ALL ON t FROM qx_keeper")
    session.run("DROP OWNED BY qx_reader")


def test_a_mapping_of_all_users_lends_no_connection(two):
    """A superuser may connect without a password, and another must not go on with that connection."""
    session = two.session
    session.run("CREATE ROLE qx_guest; GRANT SELECT ON parts TO qx_guest")
    for name in two.names:
        session.run(f"DROP USER MAPPING FOR CURRENT_USER SERVER {name};"
                    f"CREATE USER MAPPING FOR PUBLIC SERVER {name} OPTIONS (user 'postgres', password 'unasked')")
    two.agree()
    session.run("SET ROLE qx_guest")
    with pytest.raises(psycopg2.Error, match="must be reached by a password"):
        two.search()
    session.run("RESET ROLE; DROP OWNED BY qx_guest; DROP ROLE qx_guest")
    two.agree()


# ---- Shards that do not answer --------------------------------------------------------------------------

@pytest.fixture
def silent(cluster):
    """The folder of a server that accepts connections and says nothing."""
    folder = cluster.folder / "silent"
    folder.mkdir()
    listener = socket.socket(socket.AF_UNIX)
    listener.bind(str(folder / ".s.PGSQL.5432"))
    listener.listen(100)
    folder.chmod(0o755)
    (folder / ".s.PGSQL.5432").chmod(0o777)
    yield folder
    listener.close()
    shutil.rmtree(folder)


def test_a_shard_that_does_not_answer_is_named(two, silent):
    session = two.session
    session.run("SET qx.shard_timeout = '400ms'")
    session.run("ALTER SERVER s1 OPTIONS (SET host '/nowhere')")
    with pytest.raises(psycopg2.Error, match='shard "s1" does not answer') as raised:
        two.search()
    assert raised.value.pgcode == "08006"
    session.run(f"ALTER SERVER s1 OPTIONS (SET host '{silent}')")
    with pytest.raises(psycopg2.Error, match='(?s)"s1" does not answer.*within 400 ms'):
        two.search()


def test_searches_that_wait_for_a_shard_can_be_cancelled(two, silent):
    session = two.session
    session.run(f"ALTER SERVER s1 OPTIONS (SET host '{silent}'); SET qx.shard_timeout = 0; SET statement_timeout = 300")
    with pytest.raises(psycopg2.errors.QueryCanceled):
        two.search()
    session.run("RESET statement_timeout")
    session.run(f"ALTER SERVER s1 OPTIONS (SET host '{two.coordinator.cluster.folder}')")
    two.agree()


def test_of_several_hosts_one_that_is_silent_has_its_part_of_the_time(two, silent):
    folder = two.coordinator.cluster.folder
    two.session.run(f"SET qx.shard_timeout = '6s'; ALTER SERVER s1 OPTIONS (SET host '/nowhere,{silent},{folder}')")
    two.agree()


def test_answers_without_a_shard_if_the_caller_says_so(two):
    session = two.session
    session.run("SET qx.partial_answers = on; ALTER SERVER s1 OPTIONS (ADD port '1')")
    notices = session.connection.notices
    notices.clear()
    found = session.run("SELECT id, score FROM qx.search('parts', '{1,2,3}', 1000)")
    assert found == two.shards[0].session.run("SELECT id, score FROM qx.search('t', '{1,2,3}', 1000)")
    assert session.one("SELECT qx.missing_shards()") == ["s1"]
    assert len(notices) == 1 and 'shard "s1" is missing from this answer' in notices[0]
    with pytest.raises(psycopg2.Error, match="none"):
        session.run("SELECT id FROM qx.search('parts', '{1,2,3}', 5, 'none = 1')")
    session.run("ALTER SERVER s1 OPTIONS (DROP port)")
    assert two.search() and session.one("SELECT qx.missing_shards()") == []


def connections(shard):
    return [pid for pid, in shard.session.run("SELECT pid FROM pg_stat_activity WHERE application_name = 'qx' "
                                              "AND datname = current_database()")]


def test_a_connection_that_was_lost_is_made_anew(two):
    for shard in two.shards:
        shard.session.run("SELECT pg_terminate_backend(%s, 10000)", connections(shard)[0])
    two.agree()
    assert [len(connections(shard)) for shard in two.shards] == [1, 1]


@pytest.mark.parametrize("setting, message", [
    ("qx.shard_timeout", '(?s)"s1" does not answer.*within 300 ms'), ("statement_timeout", "canceling statement")])
def test_work_that_nobody_waits_for_ends(two, setting, message):
    shard, blocker = two.shards[1], two.shards[1].connect()
    blocker.run("BEGIN; LOCK TABLE t IN ACCESS EXCLUSIVE MODE")
    two.session.run(f"SET {setting} = '300ms'")
    with pytest.raises(psycopg2.Error, match=message):
        two.search()
    wait_until(lambda: not connections(shard))
    blocker.run("COMMIT")
    two.session.run(f"RESET {setting}")
    two.agree()


# ---- The page -------------------------------------------------------------------------------------------

class Page:
    """The statements of SHARDS.md, each where it says, on databases in the place of servers."""

    def __init__(self, cluster):
        self.cluster = cluster
        self.places = {name: Database(cluster) for name in ("the coordinator", "a", "b", "c")}
        self.coordinator = self.places["the coordinator"]
        self.steps = re.findall("```sql\n-- on ([^\n]*)\n(.*?)```", (SOURCES / "SHARDS.md").read_text(), re.DOTALL)
        for database in self.places.values():
            database.session.run("DROP EXTENSION qx")

    def play(self, where, statements):
        """What psql prints."""
        here = str(self.cluster.folder)
        for host, name in (("10.0.0.1", "a"), ("10.0.0.2", "b"), ("10.0.0.3", "c")):
            statements = statements.replace(f"host '{host}', dbname 'words'",
                                            f"host '{here}', dbname '{self.places[name].name}'")
            statements = statements.replace(f"host={host} dbname=words",
                                            f"host={here} dbname={self.places[name].name}")
        statements = statements.replace("10.0.0.2,10.0.1.2", f"/nowhere,{here}")
        assert "10.0." not in statements
        file = self.cluster.folder / "page.sql"
        file.write_text(statements)
        return [self.cluster.run("psql", "-XqAt", "-v", "ON_ERROR_STOP=1", "-h", here, "-U", "postgres", "-f", file,
                                 self.places[name].name).split() for name in where.split(", ")][0]

    def close(self):
        for database in self.places.values():
            database.close()


@pytest.fixture
def page(cluster):
    made = Page(cluster)
    yield made
    made.close()


def test_every_statement_of_the_page(page):
    move = next(number for number, step in enumerate(page.steps) if step[1].startswith("BEGIN;"))
    printed = [page.play(*step) for step in page.steps[:move]]
    assert printed[2] == ["cat|0.9938837", "dog|0.9363292"] and printed[5] == ["1|0.9938837", "2|0.9363292"]
    page.play("c", page.steps[0][1])
    page.coordinator.session.run("INSERT INTO words SELECT i, 'w', ARRAY[i % 7, i % 5, 1 + i % 3] "
                                 "FROM generate_series(4, 3000) i")
    move_under_load(page.coordinator, lambda: page.play(*page.steps[move]))
    assert page.places["c"].session.one("SELECT count(*) FROM words_3") > 500
    page.places["b"].session.run("TRUNCATE words_3")
    assert len(page.coordinator.session.run("SELECT id FROM qx.search('words', '{1,2,3}', 3000)")) == 3000
    assert len(page.steps) == move + 1


def test_rows_are_looked_up_on_their_shards(page):
    for step in page.steps[:2]:
        page.play(*step)
    statement = next(step[1] for step in page.steps if "WITH s AS" in step[1]).split(";\n", 1)[1]
    plan = page.coordinator.session.run("EXPLAIN (VERBOSE, COSTS off) " + statement)
    asked = [line for line, in plan if "Remote SQL" in line]
    assert len(asked) == 4 and all("= ANY (" in line for line in asked)


class Reader(threading.Thread):
    """Searches without end, and keeps what it has found."""

    def __init__(self, session):
        super().__init__()
        self.session, self.found, self.ends = session, [], False

    def run(self):
        while not self.ends:
            self.found.append(self.session.run("SELECT id, score FROM qx.search('words', '{1,2,3}', 20)"))


def move_under_load(coordinator, move):
    expected = coordinator.session.run("SELECT id, score FROM qx.search('words', '{1,2,3}', 20)")
    readers, writer = [Reader(coordinator.connect()) for _ in range(2)], coordinator.connect()
    for reader in readers:
        reader.start()
    wait_until(lambda: all(reader.found for reader in readers))
    moving = threading.Thread(target=move)
    moving.start()
    row = 3000
    while moving.is_alive():
        row += 1
        writer.run("INSERT INTO words VALUES (%s, 'low', '{-1,-1,-1}', 3)", row)
    counts = [len(reader.found) for reader in readers]
    wait_until(lambda: all(len(reader.found) > count for reader, count in zip(readers, counts)))
    for reader in readers:
        reader.ends = True
        reader.join()
        assert all(answer == expected for answer in reader.found)
    whole = coordinator.session.run("SELECT id FROM words ORDER BY id")
    assert whole == [(number,) for number in range(1, row + 1)]
    assert sorted(coordinator.session.run("SELECT id FROM qx.search('words', '{1,2,3}', 100000)")) == whole
