"""Three shards of two servers each. Under searches and writes, primaries are killed and standbys promoted:
an answer is whole, says what it lacks, or is an error that names the shard; no committed row is lost."""
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
        self.database = Database(self.primary)
        run, one = self.database.session.run, self.database.session.one
        self.database.session.make_table()
        self.standby = Cluster(base=self.primary)
        run("ALTER SYSTEM SET synchronous_standby_names = '*'")
        run("SELECT pg_reload_conf()")
        wait_until(lambda: one("SELECT count(*) FROM pg_stat_replication WHERE sync_state = 'sync'") == 1)

    def close(self):
        self.primary.close()
        self.standby.close()


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
        self.work, self.ends, self.errors = work, False, set()
        self.start()

    def run(self):
        while not self.ends:
            try:
                self.work()
            except psycopg2.Error as error:
                self.errors.add(str(error).split("\n", maxsplit=1)[0])

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
        for name, pair in zip(NAMES, pairs):
            wait_until(lambda: whole and written)
            pair.primary.kill()
            wait_until(lambda: [name] in missed and any(f'"{name}" does not answer' in error
                                                        for error in loads[0].errors))
            pair.standby.run("pg_ctl", "-D", pair.standby.data, "-w", "promote")
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
