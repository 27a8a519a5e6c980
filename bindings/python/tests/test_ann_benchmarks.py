"""The adapter for ann-benchmarks, called as that suite calls it."""

import importlib.util
import itertools
import pathlib

import numpy as np
import pytest
import yaml

FOLDER = pathlib.Path(__file__).resolve().parents[1] / "ann_benchmarks"


def combinations(listed):
    """The suite's: each of the first with each of the second, and so on; a list of one if there is none."""
    return [list(each) for each in itertools.product(
        *(entry if isinstance(entry, list) else [entry] for entry in listed))]


def runs():
    """Constructor, its arguments, and those of queries, of every run that config.yml defines."""
    config = yaml.safe_load((FOLDER / "config.yml").read_text())
    for definition in config["float"]["any"]:
        assert definition["module"] == "ann_benchmarks.algorithms.qx_runtime"
        for group in definition["run_groups"].values():
            assert set(group) <= {"args", "query_args"} and isinstance(group["args"], list)
            for arguments in combinations(group["args"]):
                yield definition["constructor"], arguments, combinations(group.get("query_args", []))


def adapter():
    spec = importlib.util.spec_from_file_location("adapter", FOLDER / "module.py")
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


@pytest.mark.parametrize("metric", ["angular", "euclidean"])
@pytest.mark.parametrize("constructor, arguments, of_queries", runs())
def test_every_run_of_the_configuration(metric, constructor, arguments, of_queries):
    numbers = np.random.default_rng(1)
    vectors = numbers.standard_normal((300, 8))
    algorithm = getattr(adapter(), constructor)(metric, *arguments)
    algorithm.fit(vectors.astype(np.float32))
    for given in of_queries:
        if given:
            algorithm.set_query_arguments(*given)
        single = [list(algorithm.query(query, 10)) for query in vectors[:5]]
        assert [ids[0] for ids in single] == list(range(5)) and {len(ids) for ids in single} == {10}
        algorithm.batch_query(vectors[:5], 10)
        assert [list(ids) for ids in algorithm.get_batch_results()] == single
        assert str(algorithm)
    algorithm.done()


def test_a_metric_that_there_is_not():
    with pytest.raises(NotImplementedError):
        adapter().QxRuntimeExact("hamming")
