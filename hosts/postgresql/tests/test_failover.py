"""Three shards of two servers each. Under searches and writes, primaries are killed and standbys promoted,
and one pair is made whole and fails over again: an answer is whole, says what it lacks, or is an error that
names the shard; no committed row is lost."""
import re
import threading

import psycopg2
import pytest

from cluster import Cluster, wait_until
from conftest import Database
from shards import add_server, spread

NAMES = ["s0", "s1", "s2"]


class Pair:
    """A primary whose commits wait for its standby."""

    def __init__(self):
        self.primary = Cluster()
        self.clusters = [self.primary]
        self.database = Database(self.primary)
        self.database.session.make_table()
        self.add_standby()

    def add_standby(self):
        self.standby = Cluster(base=self.primary)
        self.clusters.append(self.standby)
        with self.primary.connect().cursor() as cursor:
            cursor.execute("ALTER SYSTEM SET synchronous_standby_names = '*'")
            cursor.execute("SELECT pg_reload_conf()")
        wait_until(self.commits_wait)

    def commits_wait(self):
        with self.primary.connect().cursor() as cursor:
            cursor.execute("SELECT sync_state = 'sync' FROM pg_stat_replication")
            return cursor.fetchall() == [(True,)]

    def promote(self):
        self.standby.run("pg_ctl", "-D", self.standby.data, "-w", "promote")
        self.primary = self.standby

    def close(self):
        for cluster in self.clusters:
            cluster.close()


@pytest.fixture
def pairs():
    made = []
    try:
        for _ in NAMES:
            made.append(Pair())
        yield made
    finally:
        for pair in made:
            pair.close()


class Repeats(threading.Thread):
    """Does something again and again until it is told to end; keeps errors by their first line."""

    def __init__(self, work):
        super().__init__()
        self.work, self.ends, self.errors = work, False, []
        self.start()

    def run(self):
        while not self.ends:
            try:
                self.work()
            except psycopg2.Error as error:
                self.errors.append(str(error).split("\n", maxsplit=1)[0])

    def stop(self):
        self.ends = True
        self.join()


def test_shards_fail_over_under_load(database, pairs):
    session = database.session
    session.make_table(600)
    session.run("CREATE EXTENSION postgres_fdw")
    for name, pair in zip(NAMES, pairs):
        add_server(session.run, name, pair.database.name, pair.primary, pair.standby)
    spread(session.run, "parts", "id bigint NOT NULL, v real[], label int, word text", NAMES, "t")
    session.run("INSERT INTO parts SELECT * FROM t")
    place = dict(session.run("SELECT id, substr(tableoid::regclass::text, 7) FROM parts"))
    ranked = session.run("SELECT id, score FROM qx.search('t', '{1,2,3}', 1000)")
    strict, partial, writer = (database.connect() for _ in range(3))
    partial.run("SET qx.partial_answers = on")
    wrong, missed, written = [], [], []

    def search(session, lacks):
        found = session.run("SELECT id, score FROM qx.search('parts', '{1,2,3}', 100)")
        missing = session.one("SELECT qx.missing_shards()")
        lacks.append(missing)
        if found != [hit for hit in ranked if place[hit[0]] not in missing][:100]:
            wrong.append((missing, found))

    def write():
        row = 1000 + len(written)
        written.append(None)
        writer.run("INSERT INTO parts VALUES (%s, '{-9,-9,-9}')", row)
        written[-1] = row

    whole = []
    loads = [Repeats(lambda: search(strict, whole)), Repeats(lambda: search(partial, missed)), Repeats(write)]
    try:
        for name, pair in zip([*NAMES, "s0"], [*pairs, pairs[0]]):
            wait_until(lambda: whole and written)
            if pair.primary is pair.standby:
                pair.add_standby()
                session.run(f"ALTER SERVER s0 OPTIONS (SET host '{pair.primary.folder},{pair.standby.folder}')")
            errors, answers = len(loads[0].errors), len(missed)
            pair.primary.kill()
            wait_until(lambda: [name] in missed[answers:] and any(f'"{name}" does not answer' in error
                                                                  for error in loads[0].errors[errors:]))
            pair.promote()
            done = len(whole), len(missed), len(written)
            wait_until(lambda: len(whole) > done[0] + 1 and [] in missed[done[1] + 1:]
                       and any(written[done[2] + 1:]))
    finally:
        for load in loads:
            load.stop()
    assert not wrong and all(missing == [] for missing in whole)
    assert all(re.match(r'shard "s\d" does not answer', error) for error in loads[0].errors)
    assert not loads[1].errors
    kept = {row for row, in session.run("SELECT id FROM parts WHERE id >= 1000")}
    assert {row for row in written if row} <= kept
    assert len(session.run("SELECT id FROM qx.search('parts', '{1,2,3}', 100000)")) == len(ranked) + len(kept)
