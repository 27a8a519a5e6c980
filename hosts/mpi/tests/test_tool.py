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


def results(ranks, *arguments):
    ran = run(ranks, *arguments)
    assert ran.returncode == 0, ran.stderr
    return ran.stdout


def error_of(ranks, *arguments):
    """The one line that a run says before it ends."""
    ran = run(ranks, *arguments)
    assert ran.returncode != 0 and ran.stdout == ""
    said = [line for line in ran.stderr.splitlines() if line.startswith("qx-mpi:")]
    assert len(said) == 1, ran.stderr
    return said[0]


@pytest.fixture
def files(tmp_path):
    """Small whole numbers, whose scores numpy computes exactly too."""
    random = np.random.default_rng(4)
    vectors = random.integers(-3, 4, (50, 8)).astype("<f4")
    np.save(tmp_path / "vectors.npy", vectors)
    np.save(tmp_path / "queries.npy", random.integers(-3, 4, (5, 8)).astype("<f4"))
    np.save(tmp_path / "ids.npy", random.permutation(1000)[:50].astype("<i8"))
    return tmp_path


def expected(vectors, ids, queries, k):
    lines = []
    for number, query in enumerate(queries):
        scores = vectors @ query
        for place, row in enumerate(np.argsort(-scores, kind="stable")[:k]):
            lines.append(f"{number}\t{place}\t{ids[row]}\t{scores[row]:.9g}\n")
    return "".join(lines)


@pytest.mark.parametrize("ranks", [1, 2, 3, 4])
@pytest.mark.parametrize("batch", [2, 64])
def test_rows_of_files(files, ranks, batch):
    vectors, queries = np.load(files / "vectors.npy"), np.load(files / "queries.npy")
    ids = np.load(files / "ids.npy")
    common = ["--vectors", files / "vectors.npy", "--queries", files / "queries.npy", "--k", 20,
              "--batch", batch]
    assert results(ranks, *common) == expected(vectors, range(50), queries, 20)
    assert results(ranks, *common, "--ids", files / "ids.npy") == expected(vectors, ids, queries, 20)


@pytest.mark.parametrize("ranks", [1, 3])
def test_changes(files, ranks):
    vectors, queries = np.load(files / "vectors.npy"), np.load(files / "queries.npy")
    inserted = np.array([7, 90, 3, 51], dtype="<i8")
    np.save(files / "insert.npy", vectors[:4] + 1)
    np.save(files / "insert_ids.npy", inserted)
    np.save(files / "delete.npy", np.array([3, 20, 500], dtype="<i8"))
    common = ["--vectors", files / "vectors.npy", "--queries", files / "queries.npy", "--k", 100,
              "--insert", files / "insert.npy", "--insert-ids", files / "insert_ids.npy",
              "--delete", files / "delete.npy"]
    # Inserted rows come first, in the order of their insertion.
    left = [row for row in range(50) if row not in (3, 7, 20)]
    now = np.concatenate([(vectors[:4] + 1)[[0, 1, 3]], vectors[left]])
    assert results(ranks, *common) == expected(now, [7, 90, 51, *left], queries, 100)
    assert results(ranks, *common, "--exact") == expected(vectors, range(50), queries, 100)


@pytest.mark.parametrize("ranks", [1, 3])
def test_labels(files, ranks):
    vectors, queries = np.load(files / "vectors.npy"), np.load(files / "queries.npy")
    labels = np.array([-5, 0, 9], dtype="<i8")[np.arange(50) % 3]
    np.save(files / "labels.npy", labels)
    np.save(files / "delete.npy", np.array([3, 20], dtype="<i8"))
    common = ["--vectors", files / "vectors.npy", "--queries", files / "queries.npy", "--k", 20,
              "--labels", files / "labels.npy"]
    for label in (-5, 0, 9, 7):
        rows = np.flatnonzero(labels == label)
        assert results(ranks, *common, "--label", label) == expected(
            vectors[rows], rows, queries, 20)
    ids = np.load(files / "ids.npy")
    rows = np.flatnonzero((labels == 0) & (ids != 3) & (ids != 20))
    assert results(ranks, *common, "--label", 0, "--ids", files / "ids.npy", "--delete",
                   files / "delete.npy") == expected(vectors[rows], ids[rows], queries, 20)


def test_lists(tmp_path):
    random = np.random.default_rng(11)
    np.save(tmp_path / "vectors.npy", random.standard_normal((700, 20)).astype("<f4"))
    np.save(tmp_path / "queries.npy", random.standard_normal((9, 20)).astype("<f4"))
    common = ["--vectors", tmp_path / "vectors.npy", "--queries", tmp_path / "queries.npy"]
    exact = results(2, *common, "--exact")
    # All lists together are all rows.
    assert results(3, *common, "--ivf", 12, "--nprobe", 12) == exact
    some = results(1, *common, "--ivf", 12, "--nprobe", 3)
    assert len(some.splitlines()) == 90 and some != exact
    assert all(results(ranks, *common, "--ivf", 12, "--nprobe", 3) == some for ranks in (2, 5))
    shared = set(some.splitlines()) & set(exact.splitlines())
    assert shared, "three of twelve lists find no row at its place"


def test_lists_of_few_rows(files):
    common = ["--vectors", files / "one.npy", "--queries", files / "queries.npy", "--ivf", 5]
    np.save(files / "one.npy", np.ones((1, 8), dtype="<f4"))
    assert len(results(3, *common).splitlines()) == 5
    np.save(files / "one.npy", np.ones((0, 8), dtype="<f4"))
    assert "there are none" in error_of(3, *common)


def test_all_numbers_of_ranks_print_the_same(tmp_path):
    random = np.random.default_rng(9)
    np.save(tmp_path / "vectors.npy", random.standard_normal((500, 100)).astype("<f4"))
    np.save(tmp_path / "queries.npy", random.standard_normal((9, 100)).astype("<f4"))
    common = ["--vectors", tmp_path / "vectors.npy", "--queries", tmp_path / "queries.npy"]
    one = results(1, *common)
    assert len(one.splitlines()) == 90
    assert all(results(ranks, *common) == one for ranks in (2, 3, 5))


def test_more_ranks_than_rows(files):
    np.save(files / "two.npy", np.ones((2, 8), dtype="<f4"))
    assert len(results(5, "--vectors", files / "two.npy", "--queries",
                       files / "queries.npy").splitlines()) == 10


def test_old_and_new_headers(files):
    vectors = np.load(files / "vectors.npy")
    for version in ((1, 0), (2, 0), (3, 0)):
        with open(files / "versions.npy", "wb") as out:
            np.lib.format.write_array(out, vectors, version=version)
        assert results(2, "--vectors", files / "versions.npy", "--queries", files / "queries.npy",
                       "--k", 3) == expected(vectors, range(50), np.load(files / "queries.npy"), 3)


def test_help():
    ran = run(3, "--help")
    assert ran.returncode == 0 and ran.stdout.count("mpirun -n RANKS qx-mpi") == 1


def test_times(files):
    lines = results(2, "--vectors", files / "vectors.npy", "--queries", files / "queries.npy",
                    "--measure", 1, "--batch", 4).splitlines()
    assert [line.split("\t")[1] for line in lines] == ["batch", "1", "2", "4"]


@pytest.mark.parametrize("arguments, message", [
    ([], "--vectors FILE is missing"),
    (["--vectors", "x"], "--queries FILE is missing"),
    (["--vectors"], "--vectors needs a value"),
    (["--vectors", "x", "--queries", "y", "--insert", "z"], "go together"),
    (["--k", "0"], "--k is 0, and must be a number from 1 to"),
    (["--k", "ten"], "--k is ten"),
    (["--k", "99999999999999999999"], "--k is 9999"),
    (["--batch", "-1"], "--batch is -1"),
    (["--fast"], "unknown argument --fast"),
    (["--vectors", "x", "--queries", "y", "--label", "1"], "--labels and --label go together"),
    (["--vectors", "x", "--queries", "y", "--labels", "z"], "--labels and --label go together"),
    (["--vectors", "x", "--queries", "y", "--nprobe", "2"], "--nprobe goes with --ivf"),
    (["--vectors", "x", "--queries", "y", "--ivf", "2", "--exact"], "exclude each other"),
    (["--ivf", "0"], "--ivf is 0, and must be a number from 1 to"),
])
def test_arguments_that_do_not_fit(arguments, message):
    assert message in error_of(3, *arguments)


def spoil(path, kind):
    vectors = np.ones((6, 8), dtype="<f4")
    if kind == "columns":
        np.save(path, np.asfortranarray(vectors))
    elif kind == "doubles":
        np.save(path, vectors.astype("<f8"))
    elif kind == "other bytes":
        np.save(path, vectors.astype(">f4"))
    elif kind == "a list":
        np.save(path, vectors[0])
    elif kind == "no numbers":
        np.save(path, vectors[:, :0])
    elif kind == "text":
        path.write_text("king 0.1 0.2\n")
    elif kind == "short":
        np.save(path, vectors)
        path.write_bytes(path.read_bytes()[:-1])
    elif kind == "no header":
        np.save(path, vectors)
        path.write_bytes(path.read_bytes()[:20])
    elif kind == "a shape of words":
        np.save(path, vectors)
        path.write_bytes(path.read_bytes().replace(b"(6, 8)", b"(6, x)"))
    elif kind == "a huge shape":
        np.save(path, vectors)
        path.write_bytes(path.read_bytes().replace(b"(6, 8), }" + 11 * b" ",
                                                  b"(999999999999, 8), }"))


@pytest.mark.parametrize("kind, message", [
    ("columns", "save it in C order"), ("doubles", "its numbers are '<f8'"),
    ("other bytes", "its numbers are '>f4'"), ("a list", "not a matrix"),
    ("no numbers", "its vectors have 0 numbers"), ("text", "not a .npy file"),
    ("short", "it is short"), ("no header", "it ends too early"),
    ("a shape of words", "not a matrix"), ("a huge shape", "it is short"), ("missing", "No such file")])
def test_files_that_do_not_fit(files, kind, message):
    spoil(files / "spoiled.npy", kind)
    vectors = error_of(3, "--vectors", files / "spoiled.npy", "--queries", files / "queries.npy")
    queries = error_of(1, "--vectors", files / "vectors.npy", "--queries", files / "spoiled.npy")
    assert message in vectors and message in queries and "spoiled.npy" in vectors


def test_ids_that_do_not_fit(files):
    common = ["--vectors", files / "vectors.npy", "--queries", files / "queries.npy"]
    for ids, message in ((np.arange(49), "has 49 ids"), (np.arange(50) - 1, "the id -1"),
                         (np.arange(50) // 2, "more than one base row"),
                         (np.arange(50.0), "its numbers are '<f8'")):
        np.save(files / "bad.npy", ids)
        assert message in error_of(3, *common, "--ids", files / "bad.npy")
    np.save(files / "bad.npy", np.arange(49))
    assert "has 49 labels" in error_of(2, *common, "--labels", files / "bad.npy", "--label", 1)


def test_dimensions_that_do_not_fit(files):
    np.save(files / "wide.npy", np.ones((3, 9), dtype="<f4"))
    assert "have 9 numbers" in error_of(2, "--vectors", files / "vectors.npy", "--queries",
                                        files / "wide.npy")


def on_two_machines(files, other):
    """Two ranks with the same command line but for the file of the second."""
    line = ["--queries", str(files / "queries.npy"), "--vectors"]
    command = ["mpirun", "--quiet", "--oversubscribe", "-n", "1", TOOL, *line,
               str(files / "vectors.npy"), ":", "-n", "1", TOOL, *line, str(other)]
    ran = subprocess.run(command, env=ENVIRONMENT, capture_output=True, text=True, timeout=LIMIT)
    assert ran.returncode != 0
    return ran.stderr


def test_a_file_that_differs_between_ranks(files):
    np.save(files / "wide.npy", np.ones((50, 9), dtype="<f4"))
    np.save(files / "long.npy", np.ones((51, 8), dtype="<f4"))
    assert "its shape differs between ranks" in on_two_machines(files, files / "wide.npy")
    assert "its shape differs between ranks" in on_two_machines(files, files / "long.npy")
    assert "rank 1:" in on_two_machines(files, pathlib.Path("no-such-file.npy"))
    spoil(files / "short.npy", "short")
    assert "rank 1:" in on_two_machines(files, files / "short.npy")
