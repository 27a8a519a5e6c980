"""qx-mpi as users run it: its results by numpy's, its files, and arguments that do not fit."""
import os
import pathlib
import subprocess
import sys

import numpy as np
import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
from mpirun import ENVIRONMENT, mpirun

TOOL = os.environ["QX_MPI_TOOL"]
# After an error, mpirun waits a second for ranks that have not ended, unless told otherwise.
ENVIRONMENT = ENVIRONMENT | {"OMPI_MCA_odls_base_sigkill_timeout": "0"}
LIMIT = 60  # seconds, after which a run counts as one that hangs


def run(ranks, *arguments):
    return mpirun(ranks, [TOOL, *arguments], ENVIRONMENT, timeout=LIMIT)


def error_of(ranks, *arguments):
    """The one line that a run says before it ends."""
    ran = run(ranks, *arguments)
    assert ran.returncode != 0 and ran.stdout == ""
    said = [line for line in ran.stderr.splitlines() if line.startswith("qx-mpi:")]
    assert len(said) == 1, ran.stderr
    return said[0]


class Files:
    """Files of vectors, queries and more, and runs of the tool on them."""

    def __init__(self, folder, vectors, queries):
        self.folder = folder
        self.vectors = self.save("vectors", vectors.astype("<f4"))
        self.queries = self.save("queries", queries.astype("<f4"))

    def path(self, name):
        return self.folder / f"{name}.npy"

    def save(self, name, array):
        np.save(self.path(name), array)
        return array

    def line(self, more, named):
        """Arguments: the two files, others by their options, and what is not a file."""
        files = {"vectors": "vectors", "queries": "queries"} | named
        return [word for option, name in files.items()
                for word in ("--" + option.replace("_", "-"), self.path(name))] + [*more]

    def results(self, ranks, *more, **named):
        ran = run(ranks, *self.line(more, named))
        assert ran.returncode == 0, ran.stderr
        return ran.stdout

    def error(self, ranks, *more, **named):
        return error_of(ranks, *self.line(more, named))

    def expected(self, vectors, ids, k):
        lines = []
        for number, query in enumerate(self.queries):
            scores = vectors @ query
            for place, row in enumerate(np.argsort(-scores, kind="stable")[:k]):
                lines.append(f"{number}\t{place}\t{ids[row]}\t{scores[row]:.9g}\n")
        return "".join(lines)


@pytest.fixture
def files(tmp_path):
    """Small whole numbers, whose scores numpy computes exactly too."""
    random = np.random.default_rng(4)
    vectors, queries = random.integers(-3, 4, (50, 8)), random.integers(-3, 4, (5, 8))
    files = Files(tmp_path, vectors, queries)
    files.ids = files.save("ids", random.permutation(1000)[:50].astype("<i8"))
    return files


@pytest.mark.parametrize("ranks", [1, 2, 3, 4])
@pytest.mark.parametrize("batch", [2, 64])
def test_rows_of_files(files, ranks, batch):
    common = ["--k", 20, "--batch", batch]
    assert files.results(ranks, *common) == files.expected(files.vectors, range(50), 20)
    assert files.results(ranks, *common, ids="ids") == files.expected(files.vectors, files.ids, 20)


@pytest.mark.parametrize("ranks", [1, 3])
def test_changes(files, ranks):
    inserted = files.save("insert", files.vectors[:4] + 1)
    files.save("insert_ids", np.array([7, 90, 3, 51]))
    files.save("delete", np.array([3, 20, 500]))
    changes = dict(insert="insert", insert_ids="insert_ids", delete="delete")
    # Inserted rows come first, in the order of their insertion.
    left = [row for row in range(50) if row not in (3, 7, 20)]
    now = np.concatenate([inserted[[0, 1, 3]], files.vectors[left]])
    ids = [7, 90, 51, *left]
    assert files.results(ranks, "--k", 100, **changes) == files.expected(now, ids, 100)
    exact = files.results(ranks, "--k", 100, "--exact", **changes)
    assert exact == files.expected(files.vectors, range(50), 100)


@pytest.mark.parametrize("ranks", [1, 3])
def test_labels(files, ranks):
    labels = files.save("labels", np.array([-5, 0, 9])[np.arange(50) % 3])
    files.save("delete", np.array([3, 20]))
    for label in (-5, 0, 9, 7):
        rows = np.flatnonzero(labels == label)
        found = files.results(ranks, "--k", 20, "--label", label, labels="labels")
        assert found == files.expected(files.vectors[rows], rows, 20)
    rows = np.flatnonzero((labels == 0) & (files.ids != 3) & (files.ids != 20))
    assert files.results(ranks, "--k", 20, "--label", 0, labels="labels", ids="ids",
                         delete="delete") == files.expected(files.vectors[rows], files.ids[rows], 20)


def test_lists(tmp_path):
    random = np.random.default_rng(11)
    files = Files(tmp_path, random.standard_normal((700, 20)), random.standard_normal((9, 20)))
    exact = files.results(2, "--exact")
    # All lists together are all rows.
    assert files.results(3, "--ivf", 12, "--nprobe", 12) == exact
    some = files.results(1, "--ivf", 12, "--nprobe", 3)
    assert len(some.splitlines()) == 90 and some != exact
    assert all(files.results(ranks, "--ivf", 12, "--nprobe", 3) == some for ranks in (2, 5))
    shared = set(some.splitlines()) & set(exact.splitlines())
    assert shared, "three of twelve lists find no row at its place"


def test_few_rows(files):
    files.save("some", np.ones((2, 8), dtype="<f4"))
    assert len(files.results(5, vectors="some").splitlines()) == 10
    files.save("some", np.ones((1, 8), dtype="<f4"))
    assert len(files.results(3, "--ivf", 5, vectors="some").splitlines()) == 5
    files.save("some", np.ones((0, 8), dtype="<f4"))
    assert "there are none" in files.error(3, "--ivf", 5, vectors="some")


@pytest.mark.parametrize("version", [(1, 0), (2, 0), (3, 0)])
def test_old_and_new_headers(files, version):
    with open(files.path("versions"), "wb") as out:
        np.lib.format.write_array(out, files.vectors, version=version)
    assert files.results(2, "--k", 3, vectors="versions") == files.expected(
        files.vectors, range(50), 3)


def test_help():
    ran = run(3, "--help")
    assert ran.returncode == 0 and ran.stdout.count("mpirun -n RANKS qx-mpi") == 1


def test_times(files):
    lines = files.results(2, "--measure", 1, "--batch", 4).splitlines()
    assert [line.split("\t")[1] for line in lines] == ["batch", "1", "2", "4"]


@pytest.mark.parametrize("arguments, message", [
    ("", "--vectors FILE is missing"),
    ("--vectors x", "--queries FILE is missing"),
    ("--vectors", "--vectors needs a value"),
    ("--vectors x --queries y --insert z", "go together"),
    ("--k 0", "--k is 0, and must be a number from 1 to"),
    ("--k ten", "--k is ten"),
    ("--k 99999999999999999999", "--k is 9999"),
    ("--batch -1", "--batch is -1"),
    ("--fast", "unknown argument --fast"),
    ("--vectors x --queries y --label 1", "--labels and --label go together"),
    ("--vectors x --queries y --labels z", "--labels and --label go together"),
    ("--vectors x --queries y --nprobe 2", "--nprobe goes with --ivf"),
    ("--vectors x --queries y --ivf 2 --exact", "exclude each other"),
    ("--ivf 0", "--ivf is 0, and must be a number from 1 to"),
])
def test_arguments_that_do_not_fit(arguments, message):
    assert message in error_of(3, *arguments.split())


ONES = np.ones((6, 8), dtype="<f4")
# What is saved, what becomes of its bytes, and what the tool says.
SPOILED = {
    "columns": (np.asfortranarray(ONES), None, "save it in C order"),
    "doubles": (ONES.astype("<f8"), None, "its numbers are '<f8'"),
    "other bytes": (ONES.astype(">f4"), None, "its numbers are '>f4'"),
    "a list": (ONES[0], None, "not a matrix"),
    "three dimensions": (ONES[np.newaxis], None, "not a matrix"),
    "no numbers": (ONES[:, :0], None, "its vectors have 0 numbers"),
    "text": (ONES, lambda data: b"king 0.1 0.2\n", "not a .npy file"),
    "short": (ONES, lambda data: data[:-1], "it is short"),
    "no header": (ONES, lambda data: data[:20], "it ends too early"),
    "a shape of words": (ONES, lambda data: data.replace(b"(6, 8)", b"(6, x)"), "not a matrix"),
    "a huge shape": (ONES, lambda data: data.replace(b"(6, 8), }" + 11 * b" ",
                                                     b"(999999999999, 8), }"), "it is short"),
    "missing": (None, None, "No such file"),
}


def spoil(path, kind):
    saved, change, _ = SPOILED[kind]
    if saved is not None:
        np.save(path, saved)
    if change:
        path.write_bytes(change(path.read_bytes()))


@pytest.mark.parametrize("kind", SPOILED)
def test_files_that_do_not_fit(files, kind):
    spoil(files.path("spoiled"), kind)
    vectors, queries = files.error(3, vectors="spoiled"), files.error(1, queries="spoiled")
    message = SPOILED[kind][2]
    assert message in vectors and message in queries and "spoiled.npy" in vectors


@pytest.mark.parametrize("option, saved, more, message", [
    ("ids", np.arange(49), [], "has 49 ids"),
    ("ids", np.arange(50) - 1, [], "the id -1"),
    ("ids", np.arange(50) // 2, [], "more than one base row"),
    ("ids", np.arange(50.0), [], "its numbers are '<f8'"),
    ("labels", np.arange(49), ["--label", 1], "has 49 labels"),
    ("queries", np.ones((3, 9), dtype="<f4"), [], "have 9 numbers"),
])
def test_files_that_do_not_fit_the_vectors(files, option, saved, more, message):
    files.save("bad", saved)
    assert message in files.error(3, *more, **{option: "bad"})


@pytest.mark.parametrize("kind, message", [
    ("wide", "its shape differs between ranks"), ("long", "its shape differs between ranks"),
    ("missing", "rank 1: {}: No such file or directory"),
    ("short", "rank 1: {}: it is short: 319 of 320 bytes")])
def test_a_file_that_differs_between_ranks(files, kind, message):
    """Two ranks with the same command line but for the file of the second."""
    if kind in SPOILED:
        spoil(files.path("other"), kind)
    else:
        files.save("other", np.ones((50, 9) if kind == "wide" else (51, 8), dtype="<f4"))
    lines = [map(str, files.line([], dict(vectors=name))) for name in ("vectors", "other")]
    command = ["mpirun", "--quiet", "--oversubscribe", "-n", "1", TOOL, *lines[0], ":", "-n", "1",
               TOOL, *lines[1]]
    ran = subprocess.run(command, env=ENVIRONMENT, capture_output=True, text=True, timeout=LIMIT)
    assert ran.returncode != 0 and message.format(files.path("other")) in ran.stderr
