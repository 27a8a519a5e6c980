"""How users write searches: each statement gives what it gives over the plain scan of the table."""
import psycopg2
import pytest

from cluster import wait_until

Q = "'{1,2,3}'::real[]"
RANKED = f"ORDER BY t.v <#> {Q}, t.id"
ORDERS = {
    "limit": f"SELECT id FROM t {RANKED} LIMIT 10",
    "far": f"SELECT id FROM t {RANKED} LIMIT 10 OFFSET 700",
    "filter": f"SELECT id, word FROM t WHERE label = 3 {RANKED} LIMIT 10",
    "score": f"SELECT id, v <#> {Q} AS score FROM t ORDER BY score, id LIMIT 10",
    "commuted": f"SELECT id FROM t ORDER BY {Q} <#> v, id LIMIT 10",
    "system columns": f"SELECT id, ctid, xmin, tableoid::regclass FROM t {RANKED} LIMIT 10",
    "aggregate": f"SELECT count(*), sum(id) FROM (SELECT id FROM t {RANKED} LIMIT 70) best",
    "query of a row": "SELECT id FROM t ORDER BY v <#> (SELECT v FROM t WHERE id = 7), id LIMIT 10",
    "lateral": "SELECT q, n.id FROM generate_series(1, 5) q, LATERAL (SELECT id FROM t "
               "ORDER BY v <#> ARRAY[q, 1, 1]::real[], id LIMIT 3) n",
    "join": f"SELECT t.id, u.word FROM t JOIN t u ON u.id = t.id + 1 {RANKED} LIMIT 10",
    "window": f"SELECT id, rank() OVER (ORDER BY v <#> {Q}) FROM t {RANKED} LIMIT 10",
    "lock": f"SELECT id FROM t {RANKED} LIMIT 10 FOR UPDATE",
    "all": f"SELECT id FROM t {RANKED}",
}
SEARCHES = [
    "SELECT * FROM {f}({q}, 10) JOIN t USING (id) ORDER BY score DESC, id",
    "SELECT word, count(*) FROM t WHERE id IN (SELECT id FROM {f}({q}, 200)) GROUP BY word ORDER BY word",
    "SELECT u.id, n.* FROM t u, LATERAL {f}(u.v, 3) n WHERE u.id < 20 ORDER BY u.id, n.score DESC, n.id",
    "SELECT u.id, n.id FROM t u LEFT JOIN LATERAL (SELECT * FROM {f}(u.v, 9) s WHERE s.id <> u.id LIMIT 1) n "
    "ON true WHERE u.id < 9 ORDER BY u.id, n.id",
    "WITH best AS MATERIALIZED (SELECT * FROM {f}({q}, 50)) SELECT max(score), min(id) FROM best",
    "SELECT ({f}({q}, 5)).id",
    "SELECT id FROM {f}(ARRAY[1.0, 2, 3]::numeric[]::real[], 5)",
    "SELECT id FROM {f}(ARRAY[1, 2, 3]::float8[]::real[], 5)",
    "SELECT id FROM {f}((SELECT v FROM t WHERE id = 7), 5)",
    "SELECT array_agg(id ORDER BY id) FROM {f}({q}, 2000) WHERE score > 20",
]


@pytest.fixture
def session(database):
    session = database.session
    session.make_table(2000)
    session.run("""ANALYZE t; SET search_path = public, qx;
        CREATE FUNCTION searched(real[], bigint, OUT id bigint, OUT score real) RETURNS SETOF record STABLE
          LANGUAGE sql AS $$ SELECT * FROM qx.search('t', $1, $2) $$;
        CREATE FUNCTION judged(real[], bigint, OUT id bigint, OUT score real) RETURNS SETOF record STABLE
          LANGUAGE sql AS $$ SELECT id, qx.inner_product(v, $1) s FROM t ORDER BY s DESC, id LIMIT $2 $$""")
    session.agree()
    return session


def plan(session, statement):
    return "\n".join(line for (line,) in session.run(f"EXPLAIN (COSTS OFF) {statement}"))


def by_index_and_by_scan(session, statement):
    """What a statement gives with the index, which its plan must use, and without."""
    assert "Custom Scan (qx)" in plan(session, statement), plan(session, statement)
    by_index = session.run(statement)
    session.run("SET qx.use_index = off")
    assert "Custom Scan" not in plan(session, statement)
    by_scan = session.run(statement)
    session.run("RESET qx.use_index")
    return by_index, by_scan


@pytest.mark.parametrize("name", ORDERS)
def test_order_by_an_operator_uses_the_index(session, name):
    if name in ("join", "window", "all", "far"):
        session.run("SET enable_sort = off")  # over so few rows a sort may be cheaper
    by_index, by_scan = by_index_and_by_scan(session, ORDERS[name])
    assert by_index == by_scan and len(by_index) > 0
    assert session.way() == "index"


def test_partitions_are_ordered_by_their_indexes(session):
    session.run("""CREATE TABLE parts (id bigint PRIMARY KEY, v real[], label int, word text) PARTITION BY RANGE (id);
        CREATE TABLE u (LIKE t INCLUDING INDEXES);
        ALTER TABLE parts ATTACH PARTITION t FOR VALUES FROM (0) TO (10000);
        ALTER TABLE parts ATTACH PARTITION u FOR VALUES FROM (10000) TO (20000);
        SELECT qx.create_index('u', 'v');
        INSERT INTO parts SELECT id + 10000, v, label, word FROM t; ANALYZE parts""")
    by_index, by_scan = by_index_and_by_scan(
        session, f"SELECT id FROM parts WHERE label > 2 ORDER BY v <#> {Q}, id LIMIT 30")
    assert by_index == by_scan


def test_rows_that_no_search_finds_come_last(session):
    session.run("INSERT INTO t VALUES (3000, NULL), (3001, '{-3e38,-3e38,-3e38}'), (3002, '{3e38,3e38,-3e38}')")
    session.run("SET enable_sort = off; SET enable_incremental_sort = off")
    statement = f"SELECT v <#> {Q}, id >= 3000 FROM t ORDER BY v <#> {Q}"
    by_index, by_scan = by_index_and_by_scan(session, statement)
    assert [row[1] for row in by_index[-2:]] == [True] * 2 and by_index[:-2] == by_scan[:-2]
    assert len(session.run("SELECT id FROM t ORDER BY v <#> NULL::real[] LIMIT 5")) == 5
    with pytest.raises(psycopg2.Error, match="number of components"):
        session.run("SELECT id FROM t ORDER BY v <#> '{1,2}' LIMIT 5")


def test_generic_plans(session):
    session.run(f"""SET plan_cache_mode = force_generic_plan;
        PREPARE ordered(real[], bigint) AS SELECT id FROM t ORDER BY v <#> $1, id LIMIT $2;
        PREPARE searched(real[], bigint, text) AS SELECT id FROM qx.search('t', $1, $2, $3)""")
    for n in range(1, 8):
        query = f"'{{{n},1,2}}'"
        assert session.run(f"EXECUTE ordered({query}, {n})") == session.run(f"EXECUTE searched({query}, {n}, NULL)")
    assert "Custom Scan (qx)" in plan(session, "EXECUTE ordered('{1,2,3}', 10)")
    assert session.run("EXECUTE ordered(NULL, 0)") == []
    session.run("SELECT qx.drop_index('t')")
    assert "Custom Scan" not in plan(session, "EXECUTE ordered('{1,2,3}', 10)")


@pytest.mark.parametrize("source", [f"SELECT id FROM t {RANKED}", f"SELECT id FROM qx.search('t', {Q}, 500)"])
def test_cursors_keep_what_they_saw(session, source):
    expected = session.run(f"SELECT id FROM t {RANKED} LIMIT 500")
    session.run(f"BEGIN; DECLARE c SCROLL CURSOR FOR {source}")
    found = session.run("FETCH 5 FROM c")
    session.run("SAVEPOINT s; UPDATE t SET v = '{9,9,9}' WHERE id % 2 = 0; DELETE FROM t WHERE id % 3 = 0")
    found += session.run("FETCH 200 FROM c")
    session.run("ROLLBACK TO s")
    assert found + session.run("FETCH 295 FROM c") == expected
    assert session.run("FETCH BACKWARD 10 FROM c") == expected[489:499][::-1]
    session.run("COMMIT")


def test_a_row_that_changes_before_it_is_locked(database, session):
    other = database.connect()
    statement = f"SELECT id, word FROM t ORDER BY v OPERATOR(qx.<#>) {Q}, id LIMIT 1 FOR UPDATE"
    (best, _), = session.run(statement)
    session.run(f"BEGIN; UPDATE t SET word = 'new' WHERE id = {best}")
    assert "Custom Scan (qx)" in plan(other, statement)
    waiting = other.background(statement)
    wait_until(lambda: session.one("SELECT count(*) FROM pg_locks WHERE NOT granted"))
    session.run("COMMIT")
    waiting.join()
    assert waiting.found == [(best, "new")]


@pytest.mark.parametrize("statement", SEARCHES)
def test_statements_around_a_search(session, statement):
    searched, judged = (session.run(statement.format(f=f, q=Q)) for f in ("searched", "judged"))
    assert searched == judged and len(judged) > 0
    assert session.way() == "index"


def test_views_and_functions(session):
    session.run(f"""CREATE VIEW best AS SELECT id, word FROM searched({Q}, 5) JOIN t USING (id);
        CREATE MATERIALIZED VIEW kept AS SELECT * FROM best;
        CREATE FUNCTION grow() RETURNS SETOF bigint LANGUAGE plpgsql AS $$ BEGIN
          FOR n IN 1..5 LOOP
            INSERT INTO t VALUES (5000 + n, ARRAY[10 + n, 10, 10]);
            RETURN QUERY SELECT id FROM qx.search('t', {Q}, 1);
          END LOOP; END $$""")
    before = session.run("SELECT * FROM best ORDER BY id")
    assert before == session.run("SELECT * FROM kept ORDER BY id")
    assert session.run("SELECT grow()") == [(5000 + n,) for n in range(1, 6)]
    session.run("REFRESH MATERIALIZED VIEW kept")
    assert session.run("SELECT id FROM kept ORDER BY id") == [(5000 + n,) for n in range(1, 6)]


def test_a_parallel_query_around_a_search(session):
    session.run("SET parallel_setup_cost = 0; SET parallel_tuple_cost = 0; SET min_parallel_table_scan_size = 0")
    statement = "SELECT count(*), sum(t.label) FROM t JOIN {} s ON s.id / 2 = t.id / 2 WHERE t.word <> 'x'"
    searched, judged = (statement.format(f) for f in (f"qx.search('t', {Q}, 500)", f"judged({Q}, 500)"))
    assert "Gather" in plan(session, searched)
    assert session.run(searched) == session.run(judged) and session.way() == "index"


def test_a_search_amid_a_statement_sees_what_the_statement_has_changed(session):
    """In triggers before and after rows, and in a volatile function."""
    session.run(f"""CREATE FUNCTION differ() RETURNS boolean VOLATILE LANGUAGE plpgsql AS $$ BEGIN
          RETURN (SELECT array_agg(s::text) FROM searched({Q}, 4000) s) IS DISTINCT FROM
                 (SELECT array_agg(s::text) FROM judged({Q}, 4000) s); END $$;
        CREATE FUNCTION look() RETURNS trigger LANGUAGE plpgsql AS $$ BEGIN
          IF differ() THEN RAISE EXCEPTION 'a search differs'; END IF; RETURN NEW; END $$;
        CREATE TRIGGER look BEFORE INSERT OR UPDATE ON t FOR EACH ROW EXECUTE FUNCTION look();
        CREATE TRIGGER "!look" AFTER INSERT OR UPDATE ON t FOR EACH ROW EXECUTE FUNCTION look()""")
    session.run("INSERT INTO t SELECT i, ARRAY[i, 1, 1] FROM generate_series(3000, 3005) i")
    session.run("BEGIN; UPDATE t SET v = '{7,7,7}' WHERE id < 4; SAVEPOINT s")
    session.run("UPDATE t SET v = '{8,8,8}' WHERE id < 6; ROLLBACK TO s")
    session.run("SAVEPOINT s; DELETE FROM t WHERE id = 3; RELEASE s")
    session.agree(k=4000)
    assert session.way() == "index, replaced rows"
    session.run("COMMIT; DROP TRIGGER look ON t; DROP TRIGGER \"!look\" ON t")
    session.run("UPDATE t SET label = differ()::int WHERE id < 10")
    assert session.one("SELECT sum(label) FROM t WHERE id < 10") == 0


def test_a_connection_for_each_request(database, session):
    expected = session.search()
    for _ in range(40):
        request = database.connect()
        assert request.search() == expected
        request.connection.close()
