"""What else becomes of a table and its index: each is followed, or an error."""
import os
import re
import signal

import psycopg2
import pytest

from cluster import SOURCES, Cluster, wait_until
from conftest import Database, Session


@pytest.fixture
def session(database):
    database.session.make_table(100)
    database.session.agree()
    return database.session


def test_the_examples_of_the_readme(database):
    examples = re.findall("```sql\n(.*?)```", (SOURCES / "README.md").read_text(), re.DOTALL)
    database.session.run("DROP EXTENSION qx")
    found = [[row[0] for row in database.session.run(example)] for example in examples]
    assert found == [["cat", "dog"], ["cat", "dog"]]


def comes_back_to_the_index(session):
    wait_until(lambda: session.agree(k=1000) is None or session.way() == "index")
    return True


@pytest.mark.parametrize("statement", [
    "TRUNCATE t",
    "VACUUM FULL t",
    "ALTER TABLE t ADD COLUMN more text DEFAULT now()::text",
    "ALTER TABLE t RENAME COLUMN word TO other",
    "ALTER TABLE t DISABLE TRIGGER \"0_qx_change\"; DELETE FROM t WHERE id > 50; "
    "ALTER TABLE t ENABLE ALWAYS TRIGGER \"0_qx_change\"",
    "SET session_replication_role = replica; DELETE FROM t WHERE id > 50",
    "SET session_replication_role = replica; TRUNCATE t",
])
def test_what_changes_rows_without_a_row_trigger(session, statement):
    session.run(statement)
    session.agree(k=1000)
    assert comes_back_to_the_index(session)


def test_a_truncation_that_is_not_committed(database, session):
    other = database.connect()
    session.run("BEGIN")
    session.run("TRUNCATE t")
    assert session.search() == [] and session.way() == "scan"
    session.run("INSERT INTO t VALUES (7, '{1,1,1}')")
    assert session.agree() == ['(7,6)']
    session.run("ROLLBACK")
    assert len(session.agree(k=1000)) == len(other.agree(k=1000)) == 100


@pytest.mark.parametrize("statement", [
    "ALTER TABLE t DISABLE TRIGGER ALL",
    "DROP TRIGGER \"0_qx_change\" ON t",
    "DROP TRIGGER \"0_qx_columns\" ON t",
    "ALTER TABLE t DROP CONSTRAINT t_pkey",
    "SELECT qx.drop_index('t')",
])
def test_an_index_without_what_it_needs_is_an_error(session, statement):
    session.run(statement)
    with pytest.raises(psycopg2.Error, match="index of qx|lacks a trigger"):
        session.search()


def test_a_column_that_is_dropped_takes_the_index_with_it(session):
    with pytest.raises(psycopg2.Error, match="depends on column label"):
        session.run("ALTER TABLE t DROP COLUMN label")
    session.run("ALTER TABLE t DROP COLUMN label CASCADE; INSERT INTO t VALUES (1000, '{1,1}')")
    with pytest.raises(psycopg2.Error, match="has no index"):
        session.search()
    session.run("DELETE FROM t WHERE id = 1000; SELECT qx.create_index('t', 'v', '{word}')")
    assert session.agree(condition="word = 'w1'")
    with pytest.raises(psycopg2.Error, match="number of components"):
        session.run("INSERT INTO t VALUES (1000, '{1,1}')")


def test_a_table_with_children_is_not_searched_for_its_own_rows_alone(session):
    session.run("CREATE TABLE child () INHERITS (t); INSERT INTO child VALUES (1000, '{9,9,9}')")
    with pytest.raises(psycopg2.Error, match="has children"):
        session.search()
    session.run("DROP TABLE child")
    session.agree()


def test_the_view_says_how_an_index_does(database):
    session, other = database.session, database.connect()
    session.make_table()
    session.run("INSERT INTO t SELECT i, array_fill(1::real, '{512}') FROM generate_series(1, 50000) i; ANALYZE t")
    stat = "SELECT ready, rows, rows_expected, bytes, changes, log_entries, searches, error FROM qx.stat_indexes"
    assert other.run(stat)[0][:3] == (None, None, None)
    loading = session.background("SELECT count(*) FROM qx.search('t', array_fill(1::real, '{512}'), 5)")
    wait_until(lambda: (other.run(stat)[0][1] or 0) > 0)
    os.kill(other.worker(), signal.SIGSTOP)
    ready, rows, expected, size = other.run(stat)[0][:4]
    os.kill(other.worker(), signal.SIGCONT)
    assert not ready and 0 < rows <= expected == 50000 and size >= rows * 2048
    loading.join()
    assert loading.found == [(5,)]
    session.run("UPDATE t SET v[1] = 2 WHERE id <= 70")
    wait_until(lambda: other.run(stat)[0][4] == 140)  # each is removed and written
    ready, rows, expected, size, _, entries, searches, error = other.run(stat)[0]
    assert (ready, rows, expected, searches, error) == (True, 50000, 0, 1, None)
    assert size >= 50000 * 2048 and entries >= 70
    assert other.one("SELECT search_microseconds FROM qx.stat_indexes") > 0


def test_a_database_is_dropped_copied_and_renamed_beside_its_worker(cluster, session):
    name = session.one("SELECT current_database()")
    session.connection.close()
    administrator = cluster.connect()
    cursor = administrator.cursor()
    assert name in [row[0] for row in workers(cursor)]
    cursor.execute(f"CREATE DATABASE copied TEMPLATE {name}")
    copied = Session(cluster.connect("copied"))
    assert len(copied.agree()) == 10 and copied.way() == "index"
    copied.run("INSERT INTO t VALUES (1000, '{9,9,9}')")
    assert copied.agree(k=1) == ['(1000,54)']
    copied.connection.close()
    cursor.execute("ALTER DATABASE copied RENAME TO renamed")
    cursor.execute("DROP DATABASE renamed")
    administrator.close()


def workers(cursor):
    cursor.execute("SELECT datname FROM pg_stat_activity WHERE backend_type = 'qx worker'")
    return cursor.fetchall()


def test_a_new_declaration_is_searched_at_once(session):
    session.run("ALTER TABLE t RENAME COLUMN label TO other")
    session.agree(condition="other = 2")
    session.run("SELECT qx.drop_index('t'); SELECT qx.create_index('t', 'v', '{word}', 'euclidean')")
    session.agree(condition="word = 'w1'", metric="euclidean")
    with pytest.raises(psycopg2.Error, match="other"):
        session.search(condition="other = 2")
    session.run("TRUNCATE t")
    with pytest.raises(psycopg2.Error, match="other"):
        session.search(condition="other = 2")


def test_changes_without_the_schema_of_the_extension_are_errors(database, session):
    session.run("ALTER SCHEMA qx RENAME TO elsewhere")
    for writer in (session, database.connect()):
        with pytest.raises(psycopg2.Error, match="no schema qx"):
            writer.run("DELETE FROM t WHERE id < 9")
    session.run("ALTER SCHEMA elsewhere RENAME TO qx")
    assert len(session.agree(k=1000)) == 100


def test_the_type_of_an_indexed_column_stays(session):
    with pytest.raises(psycopg2.Error, match="used in a trigger definition"):
        session.run("ALTER TABLE t ALTER COLUMN label TYPE bigint")
    session.agree()


def test_drop_and_create_again(session):
    session.run("SELECT qx.drop_index('t')")
    session.run("UPDATE t SET v = '{5,5,5}' WHERE id < 10")
    session.run("SELECT qx.create_index('t', 'v', metric => 'euclidean')")
    session.agree(k=1000, metric="euclidean")
    session.run("DROP TABLE t; DROP FUNCTION key")
    session.make_table(10)
    assert len(session.agree()) == 10
    wait_until(lambda: len(session.run("SELECT * FROM qx.stat()")) == 1)


def test_an_index_and_its_table_made_in_one_transaction(database):
    session = database.session
    session.run("BEGIN")
    session.make_table(30)
    assert len(session.agree()) == 10 and session.way() == "scan"
    session.run("COMMIT")
    assert len(session.agree()) == 10 and session.way() == "index"


def test_old_snapshots_do_not_know_a_new_index(database):
    session, other = database.session, database.connect()
    session.run("CREATE TABLE t (id int PRIMARY KEY, v real[], label int, word text)")
    session.run("INSERT INTO t SELECT i, ARRAY[i, 1, 1] FROM generate_series(1, 20) i")
    other.run("BEGIN ISOLATION LEVEL REPEATABLE READ")
    other.run("SELECT 1 FROM t")
    session.run("DELETE FROM t WHERE id = 20")
    session.run("SELECT qx.create_index('t', 'v')")
    assert session.agree()[0] == '(19,24)'
    assert other.agree()[0] == '(20,25)' and other.way() == "scan"


def test_renamed_tables_schemas_and_names_that_need_quotes(session):
    session.run('CREATE SCHEMA "a b"')
    session.run('ALTER TABLE t SET SCHEMA "a b"')
    session.run('ALTER TABLE "a b".t RENAME TO "t\'""t"')
    session.run('ALTER TABLE "a b"."t\'""t" RENAME COLUMN label TO "la ""bel"')
    found = session.run("""SELECT id FROM qx.search('"a b"."t''""t"', '{1,2,3}', 1000,
                           filter => 'word = ''w1''')""")
    assert len(found) == 34


def test_the_log_is_pruned_and_snapshots_that_are_older_stay_right(database, session):
    """Also in a database that is read only by default, beside a replication slot that nobody reads."""
    database.connect().run(f"ALTER DATABASE {database.name} SET default_transaction_read_only = on;"
                           "SELECT pg_terminate_backend(%s, 10000);"
                           "SELECT pg_create_physical_replication_slot('idle', true)", session.worker())
    session.agree()
    session.run("BEGIN ISOLATION LEVEL REPEATABLE READ")
    before = session.agree(k=1000)
    other = database.connect()
    other.run("SET default_transaction_read_only = off")
    for statement in ("CREATE TABLE u (id int PRIMARY KEY, v real[])", "SELECT qx.create_index('u', 'v')",
                      "INSERT INTO u VALUES (1, '{1,2}')", "DROP TABLE u", "UPDATE t SET v = '{6,6,6}'"):
        other.run(statement)
    log = "SELECT log_entries FROM qx.stat_indexes"
    assert other.one(log) >= 100
    other.run("SELECT pg_sleep(11)")
    assert other.one(log) >= 100 and session.agree(k=1000) == before
    session.run("COMMIT")
    wait_until(lambda: other.one(log) == 0)
    wait_until(lambda: other.run("SELECT relation FROM qx.changes") == [])
    assert other.run("SELECT relation::regclass::text FROM qx.tables") == [("t",)]
    session.agree(k=1000)
    session.run("SELECT pg_drop_replication_slot('idle')")


@pytest.mark.parametrize("metric, operator", [
    ("inner product", "<#>"), ("cosine", "<=>"), ("euclidean", "<->")])
def test_operators_rank_as_searches_do_and_warn_where_they_cannot_use_the_index(database, metric, operator):
    session = database.session
    session.make_table(300, metric, dim=5)
    query = [3, 1, 4, 1, 5]
    notices = session.connection.notices

    def ordered(by, limit="LIMIT 5"):
        return session.run(f"SELECT id FROM t ORDER BY v OPERATOR(qx.{by}) %s::real[], id {limit}", query)

    session.run("SET qx.use_index = off")
    ranked = ordered(operator, "")
    assert ranked[:20] == [(number,) for number, _ in session.search(query, 20)] and not notices
    assert ordered(operator) == ranked[:5]
    assert len(notices) == 1 and 'reads every row of "t"' in notices[0]
    session.run("RESET qx.use_index")
    assert ordered(operator) == ranked[:5] and len(notices) == 1
    other = "<->" if metric != "euclidean" else "<#>"
    ordered(other)
    assert len(notices) == 2 and "another metric" in notices[1]
    session.run("SET qx.warn_scans = off")
    ordered(other)
    session.run("SET qx.warn_scans = on; SELECT qx.drop_index('t')")
    ordered(operator)
    assert len(notices) == 2


def test_an_older_version_is_updated(database):
    session = database.session
    session.run("DROP EXTENSION qx; CREATE EXTENSION qx VERSION '1.0'")
    session.run("CREATE TABLE t (id int PRIMARY KEY, v real[])")
    session.run("INSERT INTO t SELECT i, ARRAY[i % 7, 1, 1] FROM generate_series(1, 50) i")
    session.run("ALTER EVENT TRIGGER qx_notice_ddl DISABLE; SELECT qx.create_index('t', 'v');"
                "ALTER EVENT TRIGGER qx_notice_ddl ENABLE ALWAYS")
    with pytest.raises(psycopg2.Error, match="older than its library"):
        session.run("INSERT INTO t VALUES (51, '{1,1,1}')")
    session.run("INSERT INTO qx.log VALUES ('t'::regclass, 7, 1)")
    session.run("ALTER EXTENSION qx UPDATE")
    assert session.run("SELECT key FROM qx.changes")[0][0].tobytes() == (1).to_bytes(8, "big")
    session.run("INSERT INTO t VALUES (51, '{1,1,1}')")
    assert len(session.agree(k=100)) == 51 and comes_back_to_the_index(session)


def test_partitions_have_indexes_of_their_own(database):
    session = database.session
    session.run("CREATE TABLE parts (id int PRIMARY KEY, v real[]) PARTITION BY RANGE (id)")
    for part, bounds in (("t", "FROM (0) TO (100)"), ("u", "FROM (100) TO (200)")):
        session.run(f"CREATE TABLE {part} PARTITION OF parts FOR VALUES {bounds}")
        session.run(f"SELECT qx.create_index('{part}', 'v')")
    session.run("INSERT INTO parts SELECT i, ARRAY[i % 7, i % 5, 1] FROM generate_series(0, 199) i")
    session.run("UPDATE parts SET id = id + 1000 WHERE false; UPDATE parts SET v = '{1,1,1}' WHERE id % 9 = 0")
    session.run("DELETE FROM parts WHERE id = 150; UPDATE parts SET id = 150 WHERE id = 50")
    assert comes_back_to_the_index(session)
    both = session.run("""SELECT array(SELECT (id, score)::text FROM (
            SELECT * FROM qx.search('t', '{1,2,3}', 10) UNION ALL SELECT * FROM qx.search('u', '{1,2,3}', 10)) s
          ORDER BY score DESC, id LIMIT 10),
        array(SELECT (id, score)::text FROM (SELECT id, qx.inner_product(v, '{1,2,3}') AS score FROM parts) s
          ORDER BY score DESC, id LIMIT 10)""")[0]
    assert both[0] == both[1]
    session.run("TRUNCATE parts")
    assert session.search() == []


def test_partitions_attached_and_detached(session):
    """Without a gap: rows that came before, by the partitioned table, and after."""
    session.run("CREATE TABLE parts (id bigint PRIMARY KEY, v real[], label int, word text) PARTITION BY RANGE (id)")
    session.run("INSERT INTO t VALUES (200, '{9,9,9}');"
                "ALTER TABLE parts ATTACH PARTITION t FOR VALUES FROM (0) TO (10000)")
    session.run("INSERT INTO parts VALUES (201, '{9,9,8}'); DELETE FROM parts WHERE id < 5")
    assert session.agree(k=2) == ['(200,54)', '(201,51)'] and len(session.agree(k=1000)) == 98
    for command in ("DISABLE TRIGGER ALL", "ENABLE TRIGGER ALL"):  # those of the partitioned table
        session.run(f"ALTER TABLE parts {command}; DELETE FROM parts WHERE id < 10")
        assert len(session.agree(k=1000)) == 93
    session.run("ALTER TABLE parts DETACH PARTITION t CONCURRENTLY")
    session.run("INSERT INTO t VALUES (202, '{9,9,7}')")
    assert len(session.agree(k=1000)) == 94 and comes_back_to_the_index(session)


def test_dump_and_restore(cluster, database, session):
    session.run("CREATE TABLE u (id text COLLATE \"C\" PRIMARY KEY, v real[]);"
                "SELECT qx.create_index('u', 'v', dim => 4)")
    dump = cluster.folder / "dump.sql"
    cluster.run("pg_dump", "-h", cluster.folder, "-U", "postgres", "-f", dump, database.name)
    before = session.agree(k=1000)
    restored = Database.__new__(Database)
    restored.cluster, restored.name, restored.connections = cluster, "restored", []
    session.run("CREATE DATABASE restored")
    cluster.run("psql", "-h", cluster.folder, "-U", "postgres", "-v", "ON_ERROR_STOP=1", "-q", "-f", dump,
                "restored")
    again = restored.connect()
    assert again.agree(k=1000) == before and again.way() == "index"
    with pytest.raises(psycopg2.Error, match="another number of components"):
        again.run("INSERT INTO t VALUES (1000, '{1,2}')")
    with pytest.raises(psycopg2.Error, match="for vectors of 4 numbers"):
        again.run("INSERT INTO u VALUES ('a', '{1,2}')")
    data = cluster.folder / "data.sql"
    cluster.run("pg_dump", "-h", cluster.folder, "-U", "postgres", "--data-only", "--disable-triggers", "-t", "t",
                "-f", data, database.name)
    again.run("DELETE FROM t")
    cluster.run("psql", "-h", cluster.folder, "-U", "postgres", "-v", "ON_ERROR_STOP=1", "-q", "-f", data, "restored")
    with pytest.raises(psycopg2.Error, match="lacks a trigger of qx that fires always"):
        again.search()
    again.run('ALTER TABLE t ENABLE ALWAYS TRIGGER "0_qx_change", ENABLE ALWAYS TRIGGER "0_qx_truncate"')
    assert again.agree(k=1000) == before
    restored.close()


def test_keys_that_are_equal_without_equal_bytes(database):
    session = database.session
    session.function = "qx.search_text"
    session.run("CREATE COLLATION any_case (provider = icu, locale = 'und-u-ks-level2', deterministic = false);"
                "CREATE TABLE t (id text COLLATE any_case PRIMARY KEY, v real[]); SELECT qx.create_index('t', 'v');"
                "INSERT INTO t VALUES ('a', '{1,2,3}'), ('b', '{3,2,1}')")
    assert session.search() == [("a", 14), ("b", 10)]
    session.run("BEGIN; UPDATE t SET id = 'A' WHERE id = 'a'")
    for _ in range(2):
        assert session.search() == [("A", 14), ("b", 10)]
        session.run("UPDATE t SET v = v WHERE id = 'a'; COMMIT")
    wait_until(lambda: session.search() and session.way() == "index")
    assert session.search() == [("A", 14), ("b", 10)]


def test_the_memory_limit_is_of_the_server_and_an_error_of_searches_alone():
    limited = Cluster(settings="qx.memory_limit = '10MB'\n")
    try:
        first, second = (Database(limited).session for _ in range(2))
        for session in (first, second):
            session.make_table(20000, dim=64)
        assert len(first.search(query=[1] * 64)) == 10
        with pytest.raises(psycopg2.Error, match="qx.memory_limit"):
            second.search(query=[1] * 64)
        assert second.one("SELECT error IS NOT NULL FROM qx.stat_indexes")
        assert second.one("SELECT count(*) FROM t") == 20000
        assert len(first.search(query=[1] * 64)) == 10
        wait_until(lambda: second.one("SELECT log_entries FROM qx.stat_indexes") == 0)
        first.run("ALTER SYSTEM SET qx.memory_limit = '20MB'")
        first.run("SELECT pg_reload_conf()")
        wait_until(lambda: second.one("SELECT error IS NULL FROM qx.stat_indexes"))
        assert len(second.search(query=[1] * 64)) == 10
    finally:
        limited.close()
