"""qx-mpi as users run it: its results by numpy's, its files, and arguments that do not fit."""
import os
import pathlib
import subprocess
import sys

import numpy as np
import pytest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
from words import ENVIRONMENT, mpirun

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

    def __init__(self, folder):
        self.folder = folder
        # Small whole numbers, whose scores numpy computes exactly too.
        random = np.random.default_rng(4)
        self.vectors = self.save("vectors", random.integers(-3, 4, (50, 8)).astype("<f4"))
        self.queries = self.save("queries", random.integers(-3, 4, (5, 8)).astype("<f4"))
        self.ids = self.save("ids", random.permutation(1000)[:50].astype("<i8") - 100)

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
            for place, row in enumerate(np.lexsort((ids, -scores))[:k]):
                lines.append(f"{number}\t{place}\t{ids[row]}\t{scores[row]:.9g}\n")
        return "".join(lines)


@pytest.fixture
def files(tmp_path):
    return Files(tmp_path)


@pytest.mark.parametrize("ranks, batch", [(1, 2), (2, 64), (3, 2), (4, 64)])
def test_rows_of_files(files, ranks, batch):
    common = ["--k", 20, "--batch", batch]
    assert files.results(ranks, *common) == files.expected(files.vectors, range(50), 20)
    assert files.results(ranks, *common, ids="ids") == files.expected(files.vectors, files.ids, 20)


@pytest.mark.parametrize("ranks", [1, 3])
def test_changes_and_saved_rows(files, ranks):
    inserted = files.save("insert", files.vectors[:4] + 1)
    files.save("insert_ids", np.array([7, 90, 3, 51]))
    files.save("delete", np.array([3, 20, 500]))
    left = [row for row in range(50) if row not in (3, 7, 20)]
    expected = files.expected(np.concatenate([inserted[[0, 1, 3]], files.vectors[left]]),
                              [7, 90, 51, *left], 100)
    changes = dict(insert="insert", insert_ids="insert_ids", delete="delete")
    saved = files.folder / "saved"
    assert files.results(ranks, "--k", 100, "--save", saved, **changes) == expected
    again = ["--load", saved, "--queries", files.path("queries"), "--k", 100]
    for _ in range(2):  # saved where it was loaded from
        assert run(ranks, *again, "--save", saved).stdout == expected
    assert len(list(saved.iterdir())) == ranks + 1
    assert f"was saved by {ranks} ranks, and there are 2" in error_of(2, *again)


@pytest.mark.parametrize("ranks", [1, 3])
def test_filters(files, ranks):
    years, labels = files.save("years", np.arange(50) + 1980), files.save("labels", np.arange(50) % 3)
    columns = ["--integers", "year", files.path("years"), "--integers", "label", files.path("labels")]
    rows = np.flatnonzero((years >= 2000) & (labels != 1))
    found = files.results(ranks, *columns, "--filter", "year >= 2000 AND NOT label = 1", ids="ids")
    assert found == files.expected(files.vectors[rows], files.ids[rows], 10)
    assert "rank 0: filter, byte" in files.error(ranks, *columns, "--filter", "day > 3")


@pytest.mark.parametrize("rows", [0, 2])
def test_few_rows(files, rows):
    files.save("some", np.ones((rows, 8), dtype="<f4"))
    assert len(files.results(5, vectors="some").splitlines()) == 5 * rows


def test_help_and_times(files):
    assert run(3, "--help").stdout.count("mpirun -n RANKS qx-mpi") == 1
    lines = files.results(2, "--measure", 1).splitlines()
    assert [line.split("\t")[3] for line in lines] == ["batch", "1"]


@pytest.mark.parametrize("arguments, message", [
    ("", "give either --vectors or --load"),
    ("--vectors x --load y --queries z", "give either --vectors or --load"),
    ("--load x --ids y --queries z", "--ids and --integers go with --vectors"),
    ("--load x --integers y z --queries z", "--ids and --integers go with --vectors"),
    ("--vectors x", "give --queries, --save or both"),
    ("--vectors x --save y --measure 1", "--measure goes with --queries"),
    ("--vectors", "--vectors needs a value"),
    ("--integers x", "--integers needs NAME FILE"),
    ("--vectors x --queries y --insert z", "go together"),
    ("--k 0", "--k is 0, and must be a number from 1 to"),
    ("--k ten", "--k is ten"),
    ("--k 99999999999999999999", "--k is 9999"),
    ("--fast", "unknown argument --fast"),
])
def test_arguments_that_do_not_fit(arguments, message):
    assert message in error_of(2, *arguments.split())


ONES = np.ones((6, 8), dtype="<f4")


@pytest.mark.parametrize("saved, change, message", [
    (np.asfortranarray(ONES), None, "save it in C order"),
    (ONES.astype("<f8"), None, "its numbers are '<f8'"),
    (ONES[0], None, "not a matrix"),
    (ONES[np.newaxis], None, "not a matrix"),
    (ONES[:, :0], None, "its vectors have 0 numbers"),
    (ONES, lambda data: b"king 0.1 0.2\n", "not a .npy file"),
    (ONES, lambda data: data.replace(b"Y\x01", b"Y\x02"), "not of version 1"),
    (ONES, lambda data: data[:-1], "it is short"),
    (ONES, lambda data: data[:20], "it ends too early"),
    (ONES, lambda data: data.replace(b"(6, 8)", b"(6, x)"), "not a matrix"),
    (ONES, lambda data: data.replace(b"(6, 8), }" + 11 * b" ", b"(999999999999, 8), }"), "it is short"),
    (np.full((9, 8), np.nan, dtype="<f4"), None, "is not finite"),
    (None, None, "No such file"),
])
def test_files_that_do_not_fit(files, saved, change, message):
    path = files.path("spoiled")
    if saved is not None:
        np.save(path, saved)
        path.write_bytes((change or bytes)(path.read_bytes()))
    assert message in files.error(3, vectors="spoiled") and message in files.error(1, queries="spoiled")


@pytest.mark.parametrize("option, saved, message", [
    ("ids", np.arange(49), "has 49 numbers for 50 rows"),
    ("ids", np.arange(50) // 2, "of 50 ids, 25 are distinct"),
    ("ids", np.arange(50.0), "its numbers are '<f8'"),
    ("queries", np.ones((3, 9), dtype="<f4"), "have 9 numbers"),
])
def test_files_that_do_not_fit_each_other(files, option, saved, message):
    files.save("bad", saved)
    assert message in files.error(3, **{option: "bad"})


@pytest.mark.parametrize("saved, message", [
    (np.ones((50, 9), dtype="<f4"), "its shape differs between ranks"),
    (np.ones((51, 8), dtype="<f4"), "its shape differs between ranks"),
    (None, "rank 1: {}: No such file or directory")])
def test_a_file_that_differs_between_ranks(files, saved, message):
    """Two ranks with the same command line but for the file of the second."""
    if saved is not None:
        files.save("other", saved)
    lines = [map(str, files.line([], dict(vectors=name))) for name in ("vectors", "other")]
    command = ["mpirun", "--quiet", "--oversubscribe", "-n", "1", TOOL, *lines[0], ":", "-n", "1",
               TOOL, *lines[1]]
    ran = subprocess.run(command, env=ENVIRONMENT, capture_output=True, text=True, timeout=LIMIT)
    assert ran.returncode != 0 and message.format(files.path("other")) in ran.stderr
