"""What does not fit ends in an error, in the statement that brings it, and nothing else ends."""
import psycopg2
import pytest

VECTORS = {
    "'{1,2}'": "another number", "'{1,2,3,4}'": "another number", "'{}'": "one dimension",
    "'{{1,2,3}}'": "one dimension", "'{1,NULL,3}'": "no NULL", "'{1,NaN,3}'": "no NaN",
    "'{1,2,Infinity}'": "no infinity",
}
SEARCHES = {
    "qx.search('t', NULL, 1)": "must not be NULL",
    "qx.search('t', '{1,2,3}', -1)": "below 0",
    "qx.search('t', '{1,2,3}', 1, 'label = ')": "filter",
    "qx.search('t', '{1,2,3}', 1, 'none = 1')": "none",
    "qx.search('t', '{1,2,3}', 1, '\"')": "filter",
    "qx.search('t', '{1,2,3}', 1, repeat('(', 1000000))": "filter",
    "qx.search('t', '{1,2,3}', 1, 'label = 1' || repeat(' OR label = 1', 80000))": "",
    "qx.search('pg_class', '{1,2,3}', 1)": "no index",
    "qx.search(0::regclass, '{1,2,3}', 1)": "could not open",
    "qx.log_change()": "trigger",
}
INDEXES = {
    "qx.create_index('t', 'v')": "has an index",
    "qx.create_index('u', 'none')": "no column",
    "qx.create_index('u', 'x')": "real\\[\\]",
    "qx.create_index('u', 'v', '{p}')": "Filtered columns",
    "qx.create_index('u', 'v', '{NULL}')": "NULL",
    "qx.create_index('u', 'v', metric => 'taxicab')": "no metric",
    "qx.create_index('u', 'v', dim => 0)": "1 to 65536",
    "qx.create_index('u', 'v', dim => 4)": "another number",
    "qx.create_index('without', 'v')": "primary key",
    "qx.create_index('pg_class', 'relname')": "cannot have",
    "qx.create_index('parts', 'v')": "cannot have",
    "qx.create_index(0::regclass, 'v')": "no such table",
    "qx.drop_index('u')": "no index",
}


@pytest.fixture
def session(database):
    session = database.session
    session.make_table(50)
    session.run("CREATE TABLE u (id int PRIMARY KEY, v real[], x int, p point);"
                "INSERT INTO u VALUES (1, '{1,2,3}', 1, NULL);"
                "CREATE TABLE without (id int, v real[]);"
                "CREATE TABLE parts (id int PRIMARY KEY, v real[]) PARTITION BY RANGE (id)")
    session.agree()
    return session


def test_hostile_vectors(session):
    before = session.agree(k=1000)
    for vector, message in VECTORS.items():
        for statement in (f"INSERT INTO t VALUES (1000, {vector})", f"UPDATE t SET v = {vector}"):
            with pytest.raises(psycopg2.Error, match=message):
                session.run(statement)
        with pytest.raises(psycopg2.Error, match="no vector of the index"):
            session.run(f"SELECT * FROM qx.search('t', {vector}, 1)")
    assert session.agree(k=1000) == before


@pytest.mark.parametrize("call", SEARCHES)
def test_hostile_searches(session, call):
    if SEARCHES[call]:
        with pytest.raises(psycopg2.Error, match=SEARCHES[call]):
            session.run(f"SELECT * FROM {call}" if "search" in call else f"SELECT {call}")
    else:
        session.run(f"SELECT * FROM {call}")
    session.agree()


@pytest.mark.parametrize("call", INDEXES)
def test_indexes_that_cannot_be(session, call):
    with pytest.raises(psycopg2.Error, match=INDEXES[call]):
        session.run(f"SELECT {call}")
    session.agree()


def test_huge_k_and_no_rows(session):
    assert len(session.search(k=2**62)) == 50
    assert session.search(k=0) == []
    session.run("DELETE FROM t")
    assert session.search() == []


def test_names_are_not_looked_up_where_the_caller_says(database, session):
    """What the extension runs as its owner must be no operator or table of a user."""
    session.run("""CREATE SCHEMA evil; CREATE FUNCTION evil.run(oid, int) RETURNS boolean LANGUAGE plpgsql
                   AS 'BEGIN RAISE EXCEPTION ''hijacked''; END';
                   CREATE OPERATOR evil.= (FUNCTION = evil.run, LEFTARG = oid, RIGHTARG = int)""")
    session.run("SET search_path = evil, public, pg_catalog")
    session.run("SELECT qx.drop_index('t'); SELECT qx.create_index('t', 'v', '{label,word}')")
    session.run("INSERT INTO t VALUES (1000, '{9,9,9}')")
    session.agree(k=1000)
    session.run("SELECT * FROM qx.stat_indexes")


def test_a_schema_of_an_ordinary_user_is_no_place_for_the_extension(database):
    session = database.session
    session.run("DROP EXTENSION qx; DROP SCHEMA IF EXISTS qx; DROP ROLE IF EXISTS qx_reader;"
                "CREATE ROLE qx_reader; CREATE SCHEMA qx AUTHORIZATION qx_reader")
    with pytest.raises(psycopg2.Error, match="no superuser"):
        session.run("CREATE EXTENSION qx")
    session.run("ALTER SCHEMA qx OWNER TO postgres; CREATE EXTENSION qx; DROP ROLE qx_reader")


def test_privileges(database, session):
    session.run("DROP ROLE IF EXISTS qx_reader; CREATE ROLE qx_reader LOGIN")
    reader = database.connect("qx_reader")
    for refused in ("SELECT * FROM qx.search('t', '{1,2,3}', 1)", "SELECT qx.create_index('u', 'v')",
                    "SELECT qx.drop_index('t')", "SELECT * FROM qx.changes", "SELECT qx.log_table(1)",
                    "DELETE FROM qx.tables"):
        with pytest.raises(psycopg2.Error, match="permission denied|must be owner"):
            reader.run(refused)
    assert reader.run("SELECT * FROM qx.stat_indexes") == reader.run("SELECT * FROM qx.stat()") == []
    session.run("GRANT SELECT, INSERT ON t TO qx_reader")
    reader.run("INSERT INTO t VALUES (1000, '{9,9,9}')")
    assert reader.agree(k=1) == ['(1000,54)']
    session.run("ALTER TABLE t ENABLE ROW LEVEL SECURITY")
    with pytest.raises(psycopg2.Error, match="ow-level security"):
        reader.search()
    session.run("CREATE POLICY few ON t USING (id < 9)")
    ordered = "SELECT id FROM t ORDER BY v OPERATOR(qx.<#>) '{1,2,3}' LIMIT 20"
    assert sorted(reader.run(ordered)) == [(i,) for i in range(1, 9)]
    session.run("REVOKE ALL ON t FROM qx_reader")
    with pytest.raises(psycopg2.Error, match="permission denied"):
        reader.run(ordered)
    session.run("CREATE FUNCTION lent() RETURNS bigint SECURITY DEFINER LANGUAGE sql "
                "AS $$ SELECT id FROM qx.search('t', '{1,2,3}', 1) $$")
    assert reader.one("SELECT lent()") == 1000
    session.run("GRANT SELECT (id, v, label, word) ON t TO qx_reader; ALTER TABLE t DISABLE ROW LEVEL SECURITY")
    assert len(reader.search()) == 10
    session.run("REVOKE SELECT (label) ON t FROM qx_reader")
    with pytest.raises(psycopg2.Error, match="permission denied"):
        reader.search()
    session.run("REVOKE SELECT (id, v, word) ON t FROM qx_reader")
    reader.connection.close()
    session.run("DROP ROLE qx_reader")
