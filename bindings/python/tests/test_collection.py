"""Collections: answers of random calls are those of a model; what does not fit is refused."""

import copy
import ctypes
import gc
import operator
import pathlib
import pickle
import random
import re
import subprocess
import sys
import threading
import types
from concurrent.futures import ThreadPoolExecutor

import numpy as np
import pytest

import qx_runtime as qx
from qx_runtime import _library, _values, col

ROOT = pathlib.Path(__file__).resolve().parents[3]
COLUMNS = {"label": int, "price": float, "done": bool, "name": str}
NO_VALUES = dict.fromkeys(COLUMNS)


# ---- A model ----

TESTS = [
    (col("label") == 1, lambda row: row["label"] is not None and row["label"] == 1),
    (~(col("label") == 1), lambda row: row["label"] is not None and row["label"] != 1),
    (col("price").between(0, 1.5) | col("done"),
     lambda row: row["done"] is True or row["price"] is not None and 0 <= row["price"] <= 1.5),
    (col("name").isin(["it's", 'a "b"']) & col("label").not_null(),
     lambda row: row["name"] in ("it's", 'a "b"') and row["label"] is not None),
    ("name IS NULL AND NOT done", lambda row: row["name"] is None and row["done"] is False),
    (col("name").isin([]), lambda row: False),
]
NAMES = [None, "", "it's", 'a "b"', "\0", "naïve", "\U0001F3B5"]


class Model(dict):
    """Rows by id: a vector of small whole numbers, whose products any order sums exactly, and values."""

    def best(self, metric, query, k, passes=lambda id, row: True):
        sign = 1 if metric == "euclidean" else -1
        scored = [(sign * self.score(metric, query, row["vector"]), key(id), id)
                  for id, row in self.items() if passes(id, row)]
        return [(id, sign * score) for score, _, id in sorted(scored)[:k]]

    @staticmethod
    def score(metric, query, vector):
        if metric == "euclidean":
            return float(sum((a - b) ** 2 for a, b in zip(query, vector)))
        return float(np.dot(query, vector))

    def ordered(self, passes=lambda row: True):
        return [id for id in sorted(self, key=key) if passes(self[id])]


def key(id):
    return id.encode() if isinstance(id, str) else id


class Player:
    DIM = 3

    def __init__(self, seed):
        self.rng = random.Random(seed)
        self.of = self.rng.choice([int, str])
        self.metric = self.rng.choice(["ip", "euclidean"])
        self.rows = qx.Collection(self.DIM, ids=self.of, metric=self.metric, columns=COLUMNS, threads=2)
        self.model = Model()

    def id(self):
        number = self.rng.choice([-1, 1]) * self.rng.randrange(12) << self.rng.choice([0, 0, 59])
        return number if self.of is int else self.rng.choice(["", "é", "\0"]) + str(number)

    def vectors(self, count):
        return [[self.rng.randrange(-3, 4) for _ in range(self.DIM)] for _ in range(count)]

    def values(self, count):
        draw = {"label": [None, 0, 1, 2, -1 << 63], "price": [None, 0, 1.5, -0.0, 1e300],
                "done": [None, True, False], "name": NAMES}
        return {name: [self.rng.choice(draw[name]) for _ in range(count)] for name in COLUMNS
                if self.rng.random() < 0.8}

    def change(self, rows, model):
        ids = [self.id() for _ in range(self.rng.randrange(5))]
        if self.rng.random() < 0.3:
            assert rows.remove(ids) == len({id for id in ids if model.pop(id, None) is not None})
            if model:
                gone = self.rng.choice(list(model))
                del rows[gone], model[gone]
            return
        vectors, values = self.vectors(len(ids)), self.values(len(ids))
        if self.rng.random() < 0.3 and (set(ids) & set(model) or len(set(ids)) < len(ids)):
            with pytest.raises(ValueError, match="there is a row of id|an id repeats"):
                rows.add(ids, vectors, values)
            return
        is_new = not set(ids) & set(model) and len(set(ids)) == len(ids)
        (rows.add if is_new else rows.upsert)(ids, vectors, **values)
        for i, id in enumerate(ids):
            model[id] = {**NO_VALUES, **{name: values[name][i] for name in values},
                         "vector": vectors[i]}

    def read(self, rows, model):
        assert len(rows) == len(model) and list(rows) == model.ordered()
        queries, k = self.vectors(self.rng.randrange(1, 4)), self.rng.choice([0, 1, 3, 100])
        filter, test = self.rng.choice(TESTS)
        among = [self.id() for _ in range(6)]
        for given, passes in [
                ({}, lambda id, row: True), ({"filter": filter}, lambda id, row: test(row)),
                ({"among": among}, lambda id, row: id in among),
                ({"accept": lambda id: len(str(id)) % 2, "filter": str(filter)},
                 lambda id, row: len(str(id)) % 2 and test(row))]:
            right = [model.best(self.metric, query, k, passes) for query in queries]
            hits = rows.search(queries, k, threads=self.rng.randrange(3), **given)
            assert [list(each) for each in hits] == right
            assert list(rows.search(queries[0], k, **given)) == right[0]
        found = rows.get(among)
        assert found.found.tolist() == [id in model for id in among] == [id in rows for id in among]
        for row in found:
            assert {**row.columns, "vector": row.vector.tolist()} == model[row.id]
        pages = list(rows.rows(filter, page=2))
        assert [id for page in pages for id in page.ids] == model.ordered(test)
        assert all(len(page) == 2 for page in pages[:-1])


@pytest.mark.parametrize("seed", range(40))
def test_every_answer_is_that_of_the_model(seed, tmp_path):
    player = Player(seed)
    for step in range(12):
        player.change(player.rows, player.model)
        player.read(player.rows, player.model)
        if step % 4 == 3:
            with player.rows.view() as view:
                model = Model(player.model)
                for _ in range(3):
                    player.change(view, model)
                player.change(player.rows, player.model)
                player.read(view, model)
                view.save(tmp_path / "view")
            player.read(qx.Collection.load(tmp_path / "view"), model)
            player.rows = player.rng.choice([copy.copy, copy.deepcopy, lambda rows: rows,
                                             lambda rows: pickle.loads(pickle.dumps(rows))])(player.rows)
            player.rows.compact()
            assert player.rows.stats()[:3] == (len(player.model), 0, 0)
        player.read(player.rows, player.model)


def test_scores_do_not_depend_on_how_rows_are_searched():
    rng = np.random.default_rng(7)
    vectors = rng.standard_normal((6000, 24), dtype=np.float32)
    vectors[4000:] = vectors[:2000]  # ties
    rows = qx.Collection(24, columns={"part": int})
    rows.upsert(np.arange(6000), vectors, part=np.arange(6000) % 2)
    queries = rng.standard_normal((40, 24), dtype=np.float32)
    batch, view = rows.search(queries, 20), rows.view()
    for q, query in enumerate(queries):
        for hits in (rows.search(query, 20, threads=1), view.search(query, 20)):
            assert hits.ids.tolist() == batch[q].ids.tolist()
            assert hits.scores.tobytes() == batch[q].scores.tobytes()
        pairs = list(batch[q])
        assert pairs == sorted(pairs, key=lambda pair: (-pair[1], pair[0]))
        halves = [pair for part in (0, 1) for pair in rows.search(query, 20, filter=col("part") == part)]
        assert sorted(halves, key=lambda pair: (-pair[1], pair[0]))[:20] == pairs


def test_cosine_is_the_inner_product_of_vectors_of_length_1(tmp_path):
    rng = np.random.default_rng(8)
    vectors = rng.standard_normal((2000, 24), dtype=np.float32)
    vectors[5] = 0
    query = rng.standard_normal(24, dtype=np.float32)
    rows, units = qx.Collection(24, metric="cosine"), qx.Collection(24)
    rows.upsert(np.arange(2000), vectors)
    kept = rows.get(np.arange(2000)).vectors

    def of_length_1(vector):
        square, precise = 0.0, vector.astype(np.float64)
        for component in precise:
            square += component * component
        return (precise / np.sqrt(square)).astype(np.float32) if square else vector

    assert kept.tobytes() == np.array([of_length_1(vector) for vector in vectors]).tobytes()
    rows.upsert(np.arange(2000), kept)
    assert rows.get(np.arange(2000)).vectors.tobytes() == kept.tobytes()
    units.upsert(np.arange(2000), kept)
    right = units.search(of_length_1(query), 2000)
    rows.save(tmp_path / "rows")
    for collection in (rows, rows.view(), qx.Collection.load(tmp_path / "rows")):
        hits = collection.search(query, 2000)
        assert hits.ids.tolist() == right.ids.tolist() and (hits.ids == 5).sum() == 1
        assert hits.scores.tobytes() == right.scores.tobytes()


@pytest.mark.parametrize("metric", ["ip", "cosine", "euclidean"])
def test_the_metric_stays(metric, tmp_path):
    rows = qx.Collection(2, metric=metric)
    rows.add([1, 2], [[3, 4], [0, 1]])
    rows.save(tmp_path / "rows")
    for each in (rows, rows.view(), copy.copy(rows), qx.Collection.load(tmp_path / "rows")):
        assert each.metric == metric and (metric in repr(each)) == (metric != "ip")
        assert list(each.search([3, 4], 2)) == {
            "ip": [(1, 25), (2, 4)], "euclidean": [(1, 0), (2, 18)],
            "cosine": [(1, 1.0), (2, float(np.float32(0.8)))]}[metric]


def test_searches_of_lists(tmp_path):
    rows, query = qx.Collection(3, columns={"n": int}), [0.75, 1, 0]
    rows.add([1, 2, 3], np.eye(3))
    rows.train(3)  # a list for each
    rows.add(4, [10, 0, 0], n=1)  # joins the list of 1
    rows.save(tmp_path / "rows")
    for each in (rows, rows.view(), rows.copy(), qx.Collection.load(tmp_path / "rows")):
        for probes, best in [(0, (4, 7.5)), (1, (2, 1.0)), (2, (4, 7.5)), (99, (4, 7.5))]:
            assert list(each.search(query, 1, probes=probes)) == [best]
        batch = each.search([query, [0, 0, 1]], 1, probes=1)
        assert batch.ids.tolist() == [[2], [3]] and batch.scores.tolist() == [[1.0], [1.0]]
        assert list(each.search(query, probes=1)) == [(4, 7.5), (2, 1.0), (1, 0.75), (3, 0.0)]
        assert list(each.search(query, filter="n = 1", probes=1)) == [(4, 7.5)]
        assert "of 3 lists, the nearest 1" in each.explain(probes=1)
        assert list(each.search(query, probes=1, limit=1)) == [(2, 1.0)]
        assert list(each.search(query, limit=np.float64(0.75))) == [(4, 7.5), (2, 1.0), (1, 0.75)]
        assert list(each.search(query, 1, limit=0)) == [(4, 7.5)] and not each.search(query, limit=8)
    for recall, probes in [(0.5, 1), (0.75, 2), (1, 2)]:
        tuning = rows.tune(1, recall, [query, [0, 0, 1]])
        assert (tuning.probes, tuning.recall, tuning.queries) == (probes, 0.5 * probes, 2)
    assert rows.tune(1, 1, [0, 1, 0.5], among=[2, 3], accept=lambda id: id > 2)[:2] == (2, 1.0)
    assert rows.tune(2).queries == 4
    assert rows.lists == rows.stats().lists == rows.copy().lists == 3
    rows.train(0)
    assert rows.lists == 0


# ---- Arguments ----

class Arrayed:
    def __init__(self, held):
        self.held = held

    def __array__(self, dtype=None, copy=None):
        return np.asarray(self.held, dtype=dtype)


PLAIN = [[1, 2, 3], [4, 5, 6]]
SAME = [PLAIN, tuple(map(tuple, PLAIN)), Arrayed(PLAIN), np.asfortranarray(PLAIN),
        np.repeat(PLAIN, 2, axis=1)[:, ::2], np.array(PLAIN)[::-1][::-1],
        np.frombuffer(b"\0" + np.array(PLAIN, dtype="f4").tobytes(), dtype=np.uint8)[1:].view("f4")
        .reshape(2, 3), [np.array(row) for row in PLAIN],
        *(np.array(PLAIN, dtype=dtype) for dtype in "b B h H i I q Q e f d g >f4 >i8".split())]


@pytest.mark.parametrize("vectors", SAME)
def test_what_numpy_reads_as_numbers_is_converted(vectors):
    rows = qx.Collection(3)
    rows.upsert([1, 2], vectors)
    assert rows.get([1, 2]).vectors.tolist() == PLAIN
    assert rows.search(vectors, 1).scores.tolist() == [[32], [77]]


def test_float32_is_read_in_place():
    given = np.array(PLAIN, dtype=np.float32)
    assert _values.vectors("vectors", given, 3, (2,)) is given


@pytest.mark.parametrize("ids", [
    [5, -6], (5, -6), {5: 0, -6: 0}.keys(), np.array([5, -6]), np.array([5, -6], dtype=np.int8),
    np.array([5, 0, -6])[::2], [np.int16(5), np.int64(-6)], (id for id in (5, -6)), Arrayed([5, -6]),
    np.array([5, -6], dtype=">i4"), {5, -6}])
def test_ids_of_any_integer_type(ids):
    rows = qx.Collection(1)
    rows.add([5, -6, 7], [[1], [2], [3]])
    assert rows.remove(ids) == 2 and list(rows) == [7]


def test_a_single_row():
    rows = qx.Collection(2, columns={"name": str, "label": int})
    rows.add(np.uint8(7), [1, 2], name="x", label=np.int8(3))
    rows.upsert(8, np.ones(2), {"name": None})
    assert (rows[7]["name"], rows[7]["label"], rows[np.int64(8)]["name"]) == ("x", 3, None)
    assert repr(rows[7]) == "<row 7, name='x', label=3>" and rows.remove(7) == 1 and 7 not in rows


@pytest.mark.parametrize("name,given,read", [
    ("label", [1, None], [1, None]), ("label", np.array([1, 2], dtype=np.uint64), [1, 2]),
    ("label", np.ma.array([1, 2], mask=[True, False]), [None, 2]), ("label", (np.int8(-1), 3), [-1, 3]),
    ("price", [1, None], [1.0, None]), ("price", np.array([1, 2], dtype=np.float16), [1.0, 2.0]),
    ("price", np.ma.array([0.5, 2], mask=True), [None, None]), ("price", [np.inf, 2], [np.inf, 2.0]),
    ("done", [True, None], [True, None]), ("done", np.array([False, True]), [False, True]),
    ("done", [np.bool_(True), False], [True, False]), ("name", np.array(["a", "é"]), ["a", "é"]),
    ("name", np.array(["a", None], dtype=object), ["a", None]), ("name", ["\0", ""], ["\0", ""])])
def test_values_and_null(name, given, read):
    rows = qx.Collection(1, columns=COLUMNS)
    rows.upsert([1, 2], [[1], [1]], {name: given})
    assert [row[name] for row in rows.get([1, 2])] == read
    assert all(row[other] is None for row in rows.get([1, 2]) for other in COLUMNS if other != name)
    again = qx.Collection(1, columns=COLUMNS)
    given_back = rows.get([1, 2])
    again.upsert(given_back.ids, given_back.vectors, given_back.columns)
    assert [row.columns for row in again.get([1, 2])] == [row.columns for row in given_back]


def test_a_nan_is_a_value():
    rows = qx.Collection(1, columns=COLUMNS)
    rows.upsert([1, 2], [[1], [1]], price=[np.nan, None])
    assert rows.search([1], filter=col("price").not_null()).ids.tolist() == [1]


OBJECTS = np.array([[1, None]], dtype=object)
NO_VECTORS = [
    ([[1, 2], [3]], ValueError, "of one length"), ([1, 2], ValueError, "must have 2 dimensions, not 1"),
    ([[1]], ValueError, "2 components, not 1"), ([[[1, 2]]], ValueError, "dimensions, not 3"),
    (OBJECTS, TypeError, "numbers, not object"), ([["1", "2"]], TypeError, "numbers, not <U1"),
    ([[True, False]], TypeError, "numbers, not bool"), ([[1j, 2]], TypeError, "numbers, not complex"),
    (None, TypeError, "numbers, not object"), (np.ma.zeros((1, 2)), TypeError, "not a masked one"),
    ([[1, np.nan]], ValueError, "not finite"), ([[1, 1e300]], ValueError, "not finite"),
    ([[1, 2], [3, 4]], ValueError, "one row for each of the 1 ids, not 2")]
NO_IDS = [
    (1.0, TypeError, "integers, not float"), ("a", TypeError, "integers, not str"),
    (["1"], TypeError, "not str"), ([1.0], TypeError, "not float"), ([True], TypeError, "not bool"),
    (None, TypeError, "not NoneType"), ([None], TypeError, "not NoneType"), (b"a", TypeError, "not bytes"),
    (np.array([1.0]), TypeError, "not float64"), (np.array([True]), TypeError, "not bool"),
    ([1 << 63], ValueError, "of 64 bits"), (np.array([1 << 63], dtype="Q"), ValueError, "from -9"),
    ([[1]], TypeError, "not list"), (np.array([[1]]), ValueError, "1 dimension, not 2"),
    (np.ma.array([1]), TypeError, "masked"), (np.array([1, None]), TypeError, "not NoneType")]
NO_TEXT_IDS = [
    ("\ud800", ValueError, "surrogates"), (["a", "\udc80"], ValueError, "surrogates"),
    (1, TypeError, "texts, not int"), ([b"a"], TypeError, "texts, not bytes"),
    (np.array([1]), TypeError, "texts, not int64"), ([None], TypeError, "texts, not NoneType")]
NO_VALUES_OF = [
    ("label", [1.0], TypeError, "column label must be integers, not float"),
    ("label", [np.nan], TypeError, "not float"), ("label", [True], TypeError, "not bool"),
    ("label", np.array([1.0]), TypeError, "not float64"), ("label", [1 << 63], ValueError, "64 bits"),
    ("label", ["1"], TypeError, "not str"), ("label", 1, TypeError, "must be a list"),
    ("label", None, TypeError, "must be a list"), ("label", [1, 2], ValueError, "of the 1 ids, not 2"),
    ("label", {1}, TypeError, "a set has none"), ("label", [[1]], TypeError, "not list"),
    ("price", ["1"], TypeError, "numbers, not str"), ("price", [True], TypeError, "not bool"),
    ("price", [1j], TypeError, "not complex"), ("price", [10**400], ValueError, "64 bits"),
    ("done", [1], TypeError, "bools, not int"), ("done", np.array([1]), TypeError, "not int64"),
    ("name", [1], TypeError, "texts, not int"), ("name", "x", TypeError, "must be a list"),
    ("name", [b"x"], TypeError, "not bytes"), ("name", ["\ud800"], ValueError, "surrogates"),
    ("other", [1], ValueError, "no column 'other' among label, price, done, name")]
NO_FILTERS = [
    ("x = 1", ValueError, "name of a column"), ("label =", ValueError, "found the end"),
    (3, TypeError, "not int"), (b"done", TypeError, "not bytes"), ("done\0", ValueError, "character 0"),
    ("name = '\ud800'", ValueError, "surrogates"), 
    (col("label"), ValueError, "comparison of label"), (col("label") == 1 << 64, ValueError, "64 bits")]
NO_OPTIONS = [
    (dict(dim=0), ValueError, "dim must be"), (dict(dim=65537), ValueError, "dim must be"),
    (dict(dim=1.0), TypeError, "dim"), (dict(ids=float), TypeError, "ids must be int or str"),
    (dict(metric=1), TypeError, "metric must be a str"),
    (dict(metric="l2"), ValueError, "one of ip, cosine, euclidean, not 'l2'"),
    (dict(columns={"a": list}), TypeError, "columns must be"), (dict(columns={1: int}), TypeError, ""),
    (dict(columns=[("a", int)]), TypeError, "a mapping by name"),
    (dict(columns={"": int}), ValueError, "has no name"), (dict(threads=-1), ValueError, "threads"),
    (dict(columns={"a\0": int}), ValueError, "character 0"), (dict(memory_limit=-1), ValueError, ""),
    (dict(columns={"\ud800": int}), ValueError, "surrogates")]
NO_CALLS = [
    (lambda c: c.search([1, 2, 3]), ValueError, "queries must have 2 components, not 3"),
    (lambda c: c.search(5), ValueError, "1 or 2 dimensions, not 0"),
    (lambda c: c.search([1, 2], -1), ValueError, "k must be"),
    (lambda c: c.search([1, 2], 1.0), TypeError, "k must be"),
    (lambda c: c.search([1, 2], threads=-1), ValueError, "threads"),
    (lambda c: c.search([1, 2], accept=3), TypeError, "accept must be callable"),
    (lambda c: c.search([1, 2], progress=3), TypeError, "progress must be"),
    (lambda c: c.search([1, 2], accept=lambda id: id in c), RuntimeError, "must not use"),
    (lambda c: c.search([1, 2], progress=lambda *_: len(c)), RuntimeError, "must not use"),
    (lambda c: c.search([1, 2], accept=lambda id: 1 // 0), ZeroDivisionError, ""),
    (lambda c: c.search([1, 2], probes=-1), ValueError, "probes must be"),
    (lambda c: c.search([1, 2], limit=np.inf), ValueError, "limit must be finite"),
    (lambda c: c.search([1, 2], limit=-1e39), ValueError, "limit must be finite"),
    (lambda c: c.search([1, 2], limit="1"), TypeError, "limit must be a number"),
    (lambda c: c.search([1, 2], probes=1), ValueError, "no lists to probe"),
    (lambda c: c.view().search([1, 2], probes=1.0), TypeError, "probes must be an integer"),
    (lambda c: c.train(2), ValueError, "2 lists of 1 rows"), (lambda c: c.train(-1), ValueError, "lists"),
    (lambda c: c.train(1, progress=3), TypeError, "progress must be"),
    (lambda c: c.tune(), ValueError, "no lists to probe"), (lambda c: c.tune(0), ValueError, "k must be"),
    (lambda c: c.tune(1, 0), ValueError, "recall must be above 0"), (lambda c: c.tune(1, "1"), TypeError, ""),
    (lambda c: c.tune(1, np.nan), ValueError, "not nan"), (lambda c: c.tune(1, True), TypeError, "not bool"),
    (lambda c: c.tune(1, 10**400), ValueError, "at most 1"),
    (lambda c: c.tune(1, 1, [[1]]), ValueError, "2 components, not 1"),
    (lambda c: c.tune(1, 1, np.ones((0, 2))), ValueError, "one at least"),
    (lambda c: c.tune(accept=3), TypeError, "accept must be callable"),
    (lambda c: c.__delitem__(2), KeyError, "2"), (lambda c: c.__delitem__([1]), TypeError, "takes a list"),
    (lambda c: c.add(1, [1, 2]), ValueError, "there is a row of id 1"),
    (lambda c: c.add(9, [1, 2], {"label": 1}, label=2), TypeError, "label is given twice"),
    (lambda c: c.upsert(9, [1, 2], [1]), TypeError, "a mapping by name"),
    (lambda c: c.add([9, 9], PLAIN_2), ValueError, "an id repeats"),
    (lambda c: c.upsert({8, 9}, PLAIN_2), TypeError, "a set has none"),
    (lambda c: c[9], KeyError, "9"), (lambda c: c[[1]], TypeError, "one id"),
    (lambda c: [1] in c, TypeError, "one id"), (lambda c: c.rows(page=0), ValueError, "page must be"),
    (lambda c: c.save("a\0"), ValueError, "character 0"), (lambda c: c.save(3), TypeError, ""),
    (lambda c: c.save("/none/of/it"), FileNotFoundError, "folder"),
    (lambda c: c.save("/"), OSError, "no file"), (lambda c: c.load("/none"), FileNotFoundError, ""),
    (lambda c: c.load(__file__), qx.CorruptFile, "no file of a collection"),
    (lambda c: pickle.dumps(c.view()), TypeError, "neither copied nor pickled"),
    (lambda c: col("label") == 1e400, ValueError, "cannot name inf"),
    (lambda c: col("label").isin("ab"), TypeError, "not a text"), (lambda c: col(""), TypeError, "")]
PLAIN_2 = [[1, 2], [3, 4]]
REFUSED = (
    NO_CALLS + [(lambda c, v=given: c.upsert([9], v), *rest) for given, *rest in NO_VECTORS]
    + [(lambda c, i=given, f=function: f(c, i), *rest) for given, *rest in NO_IDS for function in (
        lambda c, i: c.upsert(i, [[1, 2]]), lambda c, i: c.remove(i), lambda c, i: c.get(i),
        lambda c, i: c.search([1, 2], among=[i] if i is None else i))]
    + [(lambda c, i=given: qx.Collection(2, ids=str).upsert(i, [[1, 2]]), *rest)
       for given, *rest in NO_TEXT_IDS]
    + [(lambda c, n=name, v=given: c.upsert([9], [[1, 2]], {n: v}), *rest)
       for name, given, *rest in NO_VALUES_OF]
    + [(lambda c, f=filter, g=function: g(c, f), *rest) for filter, *rest in NO_FILTERS
       for function in (lambda c, f: c.search([1, 2], filter=f), lambda c, f: list(c.rows(f)),
                        lambda c, f: c.explain(filter=f))]
    + [(lambda c, g=given: qx.Collection(**{"dim": 2, **g}), *rest) for given, *rest in NO_OPTIONS])


@pytest.mark.parametrize("call,error,message", REFUSED)
def test_what_does_not_fit_is_refused(call, error, message):
    rows = qx.Collection(2, columns=COLUMNS)
    rows.add([1], [[1, 2]], label=[5])
    with pytest.raises(error, match=message):
        call(rows)
    assert list(rows) == [1] and rows[1]["label"] == 5 and list(rows.search([1, 1])) == [(1, 3)]


# ---- Filters ----

@pytest.mark.parametrize("filter,text", [
    (col("a") == 1, '"a" = 1'), (col('x "y"') != "it's", '"x ""y""" <> \'it\'\'s\''),
    (col("a") < -1.5e-7, '"a" < -1.5e-07'), (col("a") <= np.float32(0.5), '"a" <= 0.5'),
    (np.int8(3) < col("a"), '"a" > 3'), (1 >= col("a"), '"a" <= 1'), (col("a") == np.bool_(1), '"a" = TRUE'),
    (col("a").isin(np.arange(2)), '"a" IN (0, 1)'), (col("a").isin(x for x in "b'"), "\"a\" IN ('b', '''')"),
    (col("a").isin([]), "FALSE"), (col("a").between(1, 2), '"a" BETWEEN 1 AND 2'),
    (col("a").is_null() & col("b"), '"a" IS NULL AND "b"'), (~col("a").not_null(), 'NOT ("a" IS NOT NULL)'),
    (col("a") & col("b") & col("c") | col("d") | col("e"), '("a" AND "b" AND "c") OR "d" OR "e"'),
    (col("a") & "b = 1 OR c", '"a" AND (b = 1 OR c)'), ("b" | ~col("a"), '(b) OR NOT ("a")')])
def test_a_filter_is_a_text(filter, text):
    assert str(filter) == text and text in eval(repr(filter).split("(", 1)[1][:-1])


@pytest.mark.parametrize("call,hint", [
    (lambda: col("a") == 1 and col("b"), "in parentheses"), (lambda: 1 < col("a") < 3, "between"),
    (lambda: not col("a"), "&, | and ~"), (lambda: col("a") == 1 & col("b"), "no filter"),
    (lambda: col("a") & True, "no filter"), (lambda: col("a") == col("b"), "not with a filter"),
    (lambda: col("a") == None, "is_null"), (lambda: col("a").isin([None]), "is_null"),  # noqa: E711
    (lambda: col("a") == b"x", "not with a bytes"), (lambda: {col("a")}, "unhashable")])
def test_a_filter_that_is_none(call, hint):
    with pytest.raises(TypeError, match=hint):
        call()


# ---- Hits ----

@pytest.mark.parametrize("of", [int, str])
def test_hits(of):
    rows, a, b = qx.Collection(2, ids=of, columns={"n": int}), of(1), of(2)
    none = rows.search([1, 0])
    assert not none and len(none) == 0 and list(none) == [] and repr(none) == "<0 hits>"
    assert rows.search([[1, 0]] * 2).ids.shape == (2, 0) and not rows.search([[1, 0]])
    rows.add([a, b], np.eye(2), n=[0, 1])
    hits = rows.search([3, 1])
    assert hits and len(hits) == hits.counts == 2 and (hits.ids.shape, hits.scores.dtype) == ((2,), "f4")
    assert list(hits) == [(a, 3.0), (b, 1.0)] == [hits[0], hits[-1]] and list(hits[1:]) == [(b, 1.0)]
    assert repr(hits) == f"<2 hits: {a!r} 3.0, {b!r} 1.0>"
    batch = rows.search(np.eye(2), 5, filter="n = 1")
    assert len(batch) == 2 and batch.counts.tolist() == [1, 1] and repr(batch) == "<2 queries: 1 hit, 1 hit>"
    assert batch.ids.tolist() == [[b, -1 if of is int else None]] * 2
    assert np.isnan(batch.scores).tolist() == [[False, True]] * 2
    assert [list(each) for each in batch] == [[(b, 0.0)], [(b, 1.0)]] and list(batch[-1:][0]) == [(b, 1.0)]
    assert not rows.search(np.eye(2), filter="n = 7") and len(rows.search(np.zeros((0, 2)))) == 0
    with pytest.raises(IndexError):
        hits[2]


# ---- Lifetimes ----

def test_a_closed_collection(tmp_path):
    rows = qx.Collection(1)
    rows.add(1, [1])
    view, ids = rows.view(), iter(rows)
    with rows:
        pass
    for call in (len, list, repr, lambda c: c.search([1]), lambda c: c.upsert(1, [1]), lambda c: 1 in c,
                 lambda c: c.save(tmp_path / "f"), lambda c: c.view(), lambda c: c.compact(),
                 lambda c: c.get([1]), lambda c: c.dim, lambda c: c["x"], lambda c: c.rows(),
                 lambda c: c.train(1), lambda c: c.tune(), lambda c: c.lists, lambda c: c.__delitem__(1)):
        if call is repr:
            assert repr(rows) == "<qx_runtime.Collection, closed>"
            continue
        with pytest.raises(ValueError, match="the collection is closed"):
            call(rows)
    rows.close()
    # What was taken before goes on, and the last to end releases the rows.
    assert list(view) == [1] and list(view.search([2])) == [(1, 2.0)]
    view.close()
    for call in (len, lambda v: v.remove(1), lambda v: v.search([1])):
        with pytest.raises(ValueError, match="the view is closed"):
            call(view)
    with pytest.raises(ValueError, match="closed"):
        next(ids)


def test_nothing_is_left_for_the_collector_of_garbage():
    rows = qx.Collection(1)
    rows.add([1, 2], [[1], [2]])
    gc.collect()
    rows.search([1]), rows.search([1], accept=bool), rows.search([1], progress=lambda *_: None)
    list(rows), rows.compact(), rows.view().search([1]), rows.stats(), rows.train(1)
    rows.search([1], probes=1), rows.tune(1, 1), rows.tune(accept=bool)
    assert gc.collect() == 0


RELEASED = """
import gc
import qx_runtime as qx
from qx_runtime import _calls, _library

class Logged:
    def __init__(self, name):
        self.name, self.free = name, getattr(_library.collection(), name)

    def __call__(self, address):
        print(self.name)
        return self.free(address)

for name in ("qx_collection_free", "qx_view_free"):
    setattr(_library.collection(), name, Logged(name))

def hold():
    rows = qx.Collection(1)
    rows.add([1], [[1]])
    views = [rows.view(), rows.view()]
    cycle = [rows, views]
    cycle.append(cycle)

hold()
gc.collect()
"""


def test_a_collection_is_released_after_its_views():
    """Also where all of them are garbage, which is not collected in an order."""
    done = subprocess.run([sys.executable, "-c", RELEASED], capture_output=True, text=True)
    assert done.stdout.split() == ["qx_view_free", "qx_view_free", "qx_collection_free"]
    assert (done.returncode, done.stderr) == (0, "")


def test_memory_has_a_limit():
    rows = qx.Collection(64, memory_limit=1 << 16, manual=True)
    with pytest.raises(MemoryError, match="above the limit"):
        rows.add(range(10000), np.ones((10000, 64)))
    assert len(rows) == 0 and rows.explain(filter="TRUE") == ""
    with pytest.raises(MemoryError):
        pickle.loads(pickle.dumps(rows)).add(range(10000), np.ones((10000, 64)))


def test_a_file_that_is_not_whole(tmp_path):
    rows = qx.Collection(4, columns=COLUMNS)
    rows.add(range(100), np.ones((100, 4)))
    rows.save(str(tmp_path / "rows"))
    content = (tmp_path / "rows").read_bytes()
    for changed in (content[:-1], content[:900] + b"x" + content[901:], b""):
        (tmp_path / "rows").write_bytes(changed)
        with pytest.raises(qx.CorruptFile):
            qx.Collection.load(tmp_path / "rows")
    with pytest.raises(MemoryError):
        (tmp_path / "rows").write_bytes(content)
        qx.Collection.load(tmp_path / "rows", memory_limit=100)


# ---- Threads, progress, interrupts ----

def test_threads_share_a_collection():
    rows, per_thread = qx.Collection(4, columns={"of": int}), 300
    rows.add([-1], [[9, 9, 9, 9]])

    def change_and_read(thread):
        won = 0
        for number in range(per_thread):
            try:
                rows.add([number, per_thread * (thread + 1) + number], np.ones((2, 4)), of=[thread] * 2)
                won += 1
            except ValueError:
                rows.upsert(per_thread * (thread + 1) + number, np.ones(4), of=thread)
            assert rows.search([1, 1, 1, 1], 1).ids.tolist() == [-1]
            with rows.view() as view:
                assert len(view) == len(list(view))
                assert view.remove([-1]) == 1 and -1 in rows
        return won

    with ThreadPoolExecutor(4) as pool:
        assert sum(pool.map(change_and_read, range(4))) == per_thread  # one of them adds each number
    assert len(rows) == 1 + 5 * per_thread and list(rows) == sorted(rows)
    counts = [len(rows.search([1, 1, 1, 1], 9999, filter=col("of") == thread)) for thread in range(4)]
    assert sum(counts) == 5 * per_thread and min(counts) >= per_thread


def long_calls(rows, path):
    return [lambda **given: rows.search(np.ones((9, 2)), **given), rows.compact,
            lambda **given: rows.save(path, **given), lambda **given: qx.Collection.load(path, **given),
            lambda **given: rows.train(7, **given), rows.tune]


@pytest.fixture
def some_rows(tmp_path):
    rows = qx.Collection(2)
    rows.add(range(5000), np.ones((5000, 2)))
    rows.remove(range(10))
    rows.train(3)
    rows.save(tmp_path / "rows")
    return rows, long_calls(rows, tmp_path / "rows")


class Bar:
    def __init__(self):
        self.n, self.total, self.open = 0, None, True

    def update(self, step):
        self.n += step

    def close(self):
        self.open = False


def test_progress(some_rows, monkeypatch, capsys):
    bars = [Bar() for _ in range(2 * len(some_rows[1]))]
    for call, bar in zip(some_rows[1], bars):
        seen = []
        call(progress=lambda *given: seen.append(given))
        assert seen[-1][0] == seen[-1][1] and all(0 <= done <= total for done, total in seen)
        call(progress=bar)
        assert bar.n == bar.total > 0 and bar.open
    left = bars[len(some_rows[1]):]
    monkeypatch.setitem(sys.modules, "tqdm", types.ModuleType("tqdm"))
    monkeypatch.setitem(sys.modules, "tqdm.auto", types.SimpleNamespace(tqdm=lambda: left.pop()))
    for call in some_rows[1]:
        call(progress=True)
    assert all(bar.n == bar.total and not bar.open for bar in bars[len(some_rows[1]):])
    monkeypatch.setitem(sys.modules, "tqdm.auto", None)  # it cannot be imported
    some_rows[1][2](progress=True)
    assert capsys.readouterr().err.endswith("\r100 %\n")


@pytest.mark.parametrize("error", [qx.Cancelled, KeyboardInterrupt, ZeroDivisionError, SystemExit])
def test_what_progress_raises_cancels(some_rows, error):
    rows, calls = some_rows

    def fail(done, total):
        raise error("from the caller")
    for call in calls:
        with pytest.raises(error, match="from the caller"):
            call(progress=fail)
        assert len(rows) == 4990 and rows.search([1, 1], 1).ids.tolist() == [10]
    with pytest.raises(error, match="from the caller"):
        rows.search([1, 1], accept=lambda id: fail(id, 0))


INTERRUPTED = """
import signal, sys, threading, time
import numpy as np
import qx_runtime as qx

rng = np.random.default_rng(3)
rows = qx.Collection(16, columns={"n": int})
rows.upsert(range(30000), rng.standard_normal((30000, 16)), n=np.arange(30000))
queries = rng.standard_normal((400, 16))
right = rows.search(queries[:3]).ids.tolist()
rows.save(sys.argv[1])
rows.train(20)
calls = [lambda: rows.search(queries), rows.compact, lambda: rows.save(sys.argv[1]),
         lambda: qx.Collection.load(sys.argv[1]), lambda: rows.train(100), lambda: rows.tune(queries=queries)]
waiting = threading.Event()
def spin(id):
    waiting.wait()
    time.sleep(0.01)  # for each of the rows, minutes
    return True
def handle(*_):
    waiting.set()
    raise KeyboardInterrupt
signal.signal(signal.SIGALRM, handle)
signal.setitimer(signal.ITIMER_REAL, 0.05)
try:
    rows.search(queries[0], accept=spin)  # goes on until the signal comes
    print("not interrupted")
except KeyboardInterrupt:
    pass
rounds = 0
for call in calls:
    for _ in range(10):
        signal.setitimer(signal.ITIMER_REAL, rng.uniform(0.0005, 0.02))
        try:
            while True:  # a signal that gets lost is waited for without end
                call()
        except KeyboardInterrupt:
            rounds += 1
        assert rows.search(queries[:3]).ids.tolist() == right and len(rows) == 30000
        assert qx.Collection.load(sys.argv[1]).search(queries[:3]).ids.tolist() == right
print(rounds, "interrupts")
"""


def test_an_interrupt_is_raised_in_the_caller(tmp_path):
    done = subprocess.run([sys.executable, "-c", INTERRUPTED, str(tmp_path / "rows")], timeout=100,
                          capture_output=True, text=True)
    assert (done.returncode, done.stdout, done.stderr) == (0, "60 interrupts\n", "")
    assert [path.name for path in tmp_path.iterdir()] == ["rows"]


def test_a_call_that_gets_no_thread_runs_on_that_of_the_caller(some_rows, monkeypatch):
    def refuse(*_):
        raise RuntimeError("can't start new thread")
    monkeypatch.setattr(qx._calls._thread, "start_new_thread", refuse)
    for call in some_rows[1]:
        call()


# ---- What is said elsewhere ----

def test_a_typed_program_runs():
    path = pathlib.Path(__file__).with_name("typed_program.py")
    exec(compile(path.read_text(), path, "exec"), {})


@pytest.mark.parametrize("path, number", [
    ("README.md", 0), ("bindings/python/README.md", 0), ("bindings/python/README.md", 2)])
def test_the_programs_of_the_readmes(path, number, capsys, tmp_path, monkeypatch):
    monkeypatch.chdir(tmp_path)
    blocks = re.findall(r"^```\w*\n(.*?)^```$", (ROOT / path).read_text(), re.M | re.S)
    exec(compile(blocks[number], "README.md", "exec"), {})
    assert capsys.readouterr().out == blocks[number + 1]


def test_declarations_are_those_of_the_header():
    header = (ROOT / "collection/include/qx_collection.h").read_text()
    numbers = dict(re.findall(r"^#define QX_(\w+) (\d+)", header, re.M))
    assert len(numbers) == 15
    for name, number in numbers.items():
        assert getattr(_library, name) == int(number), name
    plain = re.sub(r"/\*.*?\*/", "", header, flags=re.S)
    structs = re.findall(r"typedef struct Qx(\w+) \{(.*?)\} Qx", plain, re.S)
    assert len(structs) == 11
    for name, body in structs:
        declared = [re.search(r"\(\*(\w+)\)|(\w+)$", field.strip()) for field in body.split(";")[:-1]]
        fields = [match[1] or match[2] for match in declared]
        assert fields == [field for field, _ in getattr(_library, name)._fields_], name
    for name, arguments in re.findall(r"^\w[\w ]*[ *]+(qx_\w+)\((.*?)\);", plain, re.M | re.S):
        given = _library._COLLECTION_FUNCTIONS.pop(name)
        assert len(given) - 1 == (0 if arguments == "void" else arguments.count(",") + 1), name
    assert not _library._COLLECTION_FUNCTIONS
