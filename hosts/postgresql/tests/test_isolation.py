"""A search sees what its snapshot sees: two sessions, by hand."""
import os
import signal

import pytest

from cluster import wait_until


@pytest.fixture
def two(database):
    database.session.make_table(100)
    database.session.agree()
    return database.session, database.connect()


def ids(session):
    return {number for number, _ in session.search(k=1000)}


def test_uncommitted_changes_are_seen_by_their_own_transaction_alone(two):
    one, other = two
    one.run("BEGIN")
    one.run("INSERT INTO t VALUES (1000, '{9,9,9}', 1, 'x')")
    one.run("DELETE FROM t WHERE id = 5")
    one.run("UPDATE t SET id = 2000, v = '{8,8,8}' WHERE id = 6")
    assert one.agree(k=2) == ['(1000,54)', '(2000,48)']
    assert one.way() == "index, replaced rows"
    assert {1000, 2000} & ids(other) == set() and {5, 6} <= ids(other)
    one.run("COMMIT")
    assert {1000, 2000} <= ids(other) and {5, 6} & ids(other) == set()
    other.agree()


def test_rolled_back_changes_are_never_seen(two):
    one, other = two
    one.run("BEGIN")
    one.run("INSERT INTO t VALUES (1000, '{9,9,9}')")
    one.run("SAVEPOINT s")
    one.run("INSERT INTO t VALUES (1001, '{9,9,9}')")
    assert one.agree(k=2) == ['(1000,54)', '(1001,54)']
    one.run("ROLLBACK TO s")
    assert {1000, 1001} & ids(one) == {1000}
    one.run("ROLLBACK")
    for session in two:
        session.agree()
        assert {1000, 1001} & ids(session) == set()


@pytest.mark.parametrize("level", ["REPEATABLE READ", "SERIALIZABLE"])
def test_a_snapshot_stays_and_uses_the_index(two, level):
    one, other = two
    one.run(f"BEGIN ISOLATION LEVEL {level}")
    before = one.agree(k=1000)
    other.run("DELETE FROM t WHERE id < 10")
    other.run("INSERT INTO t VALUES (1000, '{9,9,9}')")
    other.run("UPDATE t SET v = '{7,7,7}' WHERE id = 50")
    for _ in range(3):
        assert one.agree(k=1000) == before
        assert one.way().startswith("index")
        other.run("SELECT pg_sleep(0.1)")
    one.run("COMMIT")
    assert one.agree(k=1) == ['(1000,54)']


def test_write_skew_fails_under_serializable(two):
    """Each transaction reads that the best row is poor, and inserts a better one."""
    from psycopg2.errors import SerializationFailure
    for session in two:
        session.run("BEGIN ISOLATION LEVEL SERIALIZABLE")
        session.search(k=1)
    two[0].run("INSERT INTO t VALUES (1000, '{9,9,9}')")
    two[0].run("COMMIT")
    with pytest.raises(SerializationFailure):
        two[1].run("INSERT INTO t VALUES (1001, '{9,9,9}')")
        two[1].run("COMMIT")


def test_prepared_transactions(two):
    one, other = two
    one.run("BEGIN")
    one.run("INSERT INTO t VALUES (1000, '{9,9,9}')")
    one.run("PREPARE TRANSACTION 'p'")
    assert 1000 not in ids(other)
    other.run("COMMIT PREPARED 'p'")
    assert other.agree(k=1) == one.agree(k=1) == ['(1000,54)']


def test_a_worker_that_stops_amid_its_work_holds_nobody(two):
    one, other = two
    one.run("INSERT INTO t SELECT i, '{1,1,1}' FROM generate_series(1000, 8000) i")
    worker = one.worker()
    for n in range(10):
        other.run("BEGIN ISOLATION LEVEL REPEATABLE READ")
        before = other.agree(k=10000)
        one.run(f"UPDATE t SET v = ARRAY[id * {n} % 11, (id + {n}) % 7, 1] WHERE id % 3 <> 0")
        one.run("SELECT pg_sleep(%s)", n / 100)
        os.kill(worker, signal.SIGSTOP)
        try:
            one.agree(k=10000)
            assert other.agree(k=10000) == before
        finally:
            os.kill(worker, signal.SIGCONT)
        other.run("COMMIT")
        one.agree(k=10000)


def test_changes_of_one_statement_on_conflict_and_copy(two):
    one, other = two
    one.run("INSERT INTO t SELECT i, '{9,9,9}' FROM generate_series(95, 105) i "
            "ON CONFLICT (id) DO UPDATE SET v = '{8,8,8}'")
    one.agree(k=1000)
    with one.connection.cursor() as cursor:
        import io
        cursor.copy_expert("COPY t (id, v) FROM STDIN", io.StringIO("500\t{9,9,9}\n501\t{9,9,8}\n"))
    one.run("MERGE INTO t USING (SELECT i FROM generate_series(480, 520) i) s ON t.id = s.i "
            "WHEN MATCHED AND s.i = 500 THEN DELETE WHEN MATCHED THEN UPDATE SET v = '{1,9,9}' "
            "WHEN NOT MATCHED THEN INSERT (id, v) VALUES (s.i, '{9,1,9}')")
    assert other.agree(k=1000) == one.agree(k=1000) and len(ids(one)) == 145


def test_the_first_vector_decides_the_dimension_for_all(database):
    one, other = database.session, database.connect()
    one.run("CREATE TABLE t (id int PRIMARY KEY, v real[]); SELECT qx.create_index('t', 'v')")
    one.run("BEGIN; INSERT INTO t VALUES (1, '{1,2,3}')")
    waiting = other.background("INSERT INTO t VALUES (2, '{1,2}')")
    one.run("SELECT pg_sleep(0.1); COMMIT")
    waiting.join()
    assert "another number of components" in str(waiting.found)
    assert one.agree() == ['(1,14)']


def test_a_search_that_waits_for_its_index_lets_others_have_the_table(two):
    """Who waits for the table waits for the search, and the worker for him."""
    one, other = two
    worker = one.worker()
    os.kill(worker, signal.SIGSTOP)
    try:
        one.run("CREATE TABLE u (id int PRIMARY KEY, v real[]); INSERT INTO u VALUES (1, '{1,2,3}');"
                "SELECT qx.create_index('u', 'v')")
        searching = one.background("SELECT id FROM qx.search('u', '{1,2,3}', 1)")
        wait_until(lambda: other.one("SELECT count(*) FROM pg_locks WHERE relation = 'u'::regclass"))
        changing = other.background("ALTER TABLE u ADD COLUMN more int")
        for waiting in (searching, changing):
            waiting.join(30)
            assert not waiting.is_alive()
        assert searching.found == [(1,)]
    finally:
        os.kill(worker, signal.SIGCONT)


def test_what_long_transactions_leave_is_not_read_again(two):
    """Neither what one has logged, nor what others log beside it."""
    one, other = two
    other.run("BEGIN; INSERT INTO t SELECT i, '{1,1,1}' FROM generate_series(1000, 4000) i")
    one.run("UPDATE t SET v = '{2,2,2}' WHERE id < 50")
    one.agree()

    def reads_no_log():
        one.run("BEGIN")
        one.search()
        read = one.one("SELECT coalesce(sum(idx_tup_fetch), 0) FROM pg_stat_xact_all_tables "
                       "WHERE relid = 'qx.changes'::regclass")
        one.run("COMMIT")
        return read == 0 and one.way() == "index"

    wait_until(reads_no_log)
    other.run("COMMIT")
    assert len(one.agree(k=10000)) == 3101
