"""Killed programs, back ends and servers lose nothing and invent nothing. QX_KILLS sets how often."""
import os
import pathlib
import random
import resource
import signal
import threading
import time

import psycopg2
import pytest

from cluster import Cluster, as_user, wait_until
from conftest import Database

KILLS = int(os.environ.get("QX_KILLS", "6"))


@pytest.fixture
def own():
    """A cluster that tests may kill."""
    cluster = Cluster()
    yield Database(cluster)
    cluster.close()


def search_again(session):
    """Until the program is there again; an error must be that of a program that has ended."""
    while True:
        try:
            return session.agree(k=20)
        except psycopg2.Error as error:
            assert "the program of qx has ended" in str(error), error


def test_a_killed_program_is_an_error_at_most_and_loads_again(own):
    own.session.make_table(2000)
    before = own.session.agree(k=20)
    postmaster = own.cluster.postmaster()
    for _ in range(KILLS):
        own.cluster.kill_program()
        wait_until(lambda: not own.cluster.programs())
        assert search_again(own.session) == before
        assert own.session.way() == "index"
    assert own.cluster.postmaster() == postmaster


class Writer(threading.Thread):
    """Transaction n inserts the rows 3n to 3n + 2 and deletes row 3n - 1; counts what is committed."""

    def __init__(self, own, first):
        super().__init__()
        self.session, self.first, self.done = own.connect(), first, first

    def run(self):
        try:
            for n in range(self.first, self.first + 100000):
                self.session.run("BEGIN")
                self.session.run("INSERT INTO t SELECT i, ARRAY[i % 7, i % 5, 1] "
                                 f"FROM generate_series({3 * n}, {3 * n + 2}) i")
                self.session.run(f"DELETE FROM t WHERE id = {3 * n - 1}")
                self.session.search(k=3)
                self.session.run("COMMIT")
                self.done = n + 1
        except psycopg2.Error:
            pass


def expected(transactions):
    rows = set(range(3, 3 * transactions))
    return rows - {3 * n - 1 for n in range(1, transactions)}


@pytest.mark.parametrize("victim", ["back end", "everything"])
def test_killed_servers_lose_nothing_and_invent_nothing(own, victim):
    """A killed back end makes the postmaster start all others anew, too."""
    own.session.make_table()
    draw, done = random.Random(1), 1
    for _ in range(KILLS):
        witness, writer = own.connect(), Writer(own, done)
        process = writer.session.one("SELECT pg_backend_pid()")
        writer.start()
        wait_until(lambda: writer.done > writer.first)
        time.sleep(draw.uniform(0, 0.1))
        if victim == "everything":
            own.cluster.kill_everything()
        else:
            os.kill(process, signal.SIGKILL)
            wait_until(lambda: not alive(witness))
        writer.join()
        wait_until(lambda: can_connect(own))
        session = own.connect()
        found = {number for number, _ in session.search(k=1000000)}
        session.agree(k=1000000)
        done = writer.done if found == expected(writer.done) else writer.done + 1
        assert found == expected(done)


def alive(session):
    try:
        return session.one("SELECT true")
    except psycopg2.Error:
        return False


def can_connect(own):
    try:
        own.connect()
        return True
    except psycopg2.OperationalError:
        return False


def limit_memory(program, size):
    as_user(["prlimit", f"--pid={program}", f"--as={size}:"], check=False)  # it may have ended


def test_a_lack_of_memory_is_an_error_at_most_and_the_index_is_loaded_again(own):
    """The program refuses what it has no memory for, or ends where it cannot even read it."""
    own.session.make_table(100)
    before = own.session.agree()
    postmaster, (program,) = own.cluster.postmaster(), own.cluster.programs()
    taken = pathlib.Path(f"/proc/{program}/statm").read_text().split()[0]
    limit_memory(program, int(taken) * resource.getpagesize())
    own.session.run("CREATE TABLE u (id int PRIMARY KEY, v real[]); INSERT INTO u SELECT i, "
                    "array_fill(1::real, '{1000}') FROM generate_series(1, 20000) i; SELECT qx.create_index('u', 'v')")
    search = "SELECT id FROM qx.search('u', array_fill(1::real, '{1000}'), 1)"
    try:
        assert own.session.run(search) == [(1,)] and own.cluster.programs() != [program]
    except psycopg2.Error as error:
        assert "memory" in str(error) or "the program of qx has ended" in str(error), error
    limit_memory(program, "unlimited")
    assert search_again(own.session)[:10] == before
    wait_until(lambda: own.session.one("SELECT bool_and(error IS NULL) FROM qx.stat_indexes"))
    assert own.session.run(search) == [(1,)] and own.cluster.postmaster() == postmaster


def test_a_terminated_worker_takes_its_program_with_it(own):
    own.session.make_table(10)
    own.session.agree()
    own.session.run("SELECT pg_terminate_backend(pid) FROM pg_stat_activity "
                    "WHERE backend_type = 'qx worker'")
    wait_until(lambda: not own.cluster.programs())
    assert len(search_again(own.session)) == 10
    assert len(own.cluster.programs()) == 1


def test_a_base_backup_is_searched_and_follows_and_is_promoted(own):
    own.session.make_table(100)
    own.session.run("CREATE UNLOGGED TABLE unlogged (id int PRIMARY KEY, v real[]);"
                    "SELECT qx.create_index('unlogged', 'v', dim => 3)")
    before = own.session.agree()
    standby = Cluster(base=own.cluster, settings="default_transaction_isolation = serializable\n")
    try:
        session = Database.__new__(Database)
        session.cluster, session.name, session.connections = standby, own.name, []
        replica = session.connect()
        replica.run("SET default_transaction_isolation = 'read committed'")
        assert replica.agree() == before and replica.way() == "index"
        with pytest.raises(psycopg2.Error, match="qx: could not open file|during recovery"):
            replica.run("SELECT * FROM qx.search('unlogged', '{1,2,3}', 1)")
        assert replica.agree() == before and replica.way() == "index"
        own.session.run("INSERT INTO t VALUES (1000, '{9,9,9}')")
        own.session.run("DELETE FROM t WHERE id < 20")
        wait_until(lambda: replica.one("SELECT count(*) FROM t") == 82)
        assert replica.agree(k=1000) == own.session.agree(k=1000)
        standby.run("pg_ctl", "-D", standby.data, "-w", "promote")
        replica.run("INSERT INTO t VALUES (1001, '{9,9,8}')")
        assert replica.agree(k=2) == ['(1000,54)', '(1001,51)']
        assert '(1001,51)' not in own.session.agree(k=2)
    finally:
        standby.close()


def test_a_standby_that_lost_its_part_of_the_log_loads_again(own):
    own.session.make_table(100)
    own.session.agree()
    standby = Cluster(base=own.cluster)
    try:
        session = Database.__new__(Database)
        session.cluster, session.name, session.connections = standby, own.name, []
        replica = session.connect()
        assert replica.agree() and replica.way() == "index"
        worker = replica.worker()
        os.kill(worker, signal.SIGSTOP)
        own.session.run("UPDATE t SET v = '{5,5,5}' WHERE id < 20")
        wait_until(lambda: own.session.one("SELECT log_entries FROM qx.stat_indexes") == 0)
        own.session.run("INSERT INTO t VALUES (1000, '{9,9,9}')")
        wait_until(lambda: replica.one("SELECT count(*) FROM t") == 101)
        assert replica.agree(k=1000) and replica.way() == "scan"
        os.kill(worker, signal.SIGCONT)
        wait_until(lambda: replica.agree(k=1000) is None or replica.way() == "index")
        assert replica.agree(k=1) == ['(1000,54)']
    finally:
        standby.close()
