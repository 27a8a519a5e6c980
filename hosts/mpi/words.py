#!/usr/bin/env python3
"""Finds neighbours of words among the word vectors of this repository, spread over ranks of MPI.

words.py [--full] [--ranks N] [WORD]...
"""
import argparse
import os
import pathlib
import subprocess
import sys

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "hosts"))
from word_vectors import read_words

TOOL = ROOT / "build/mpi/hosts/mpi/qx-mpi"
FOLDER = ROOT / "build/mpi-words"
# mpirun wants to be told twice that root may run it.
ENVIRONMENT = os.environ | {"OMPI_ALLOW_RUN_AS_ROOT": "1", "OMPI_ALLOW_RUN_AS_ROOT_CONFIRM": "1"}
NEIGHBOURS = 6
# What is asked of the tool: a title, and its arguments.
SEARCHES = (("nearest", "--vectors vectors.npy --integers length lengths.npy --save saved"),
            ("of 5 letters", "--load saved --filter length=5"),
            ("without the first", "--load saved --delete first.npy"))


def mpirun(ranks, command, environment=ENVIRONMENT, **options):
    """Runs a command on ranks of this machine, however few cores it has; gives how that ended."""
    line = ["mpirun", "--quiet", "--oversubscribe", "--bind-to", "none", "-n", str(ranks),
            *map(str, command)]
    return subprocess.run(line, env=environment, capture_output=True, text=True, **options)


def main():
    parser = argparse.ArgumentParser(prog="words.py", description=__doc__.splitlines()[0])
    parser.add_argument("--full", action="store_true", help="all words, which are fetched once")
    parser.add_argument("--ranks", type=int, default=4)
    parser.add_argument("words", nargs="*", default=["king", "river"])
    options = parser.parse_args()
    words, vectors = read_words(options.full)
    rows = {word: row for row, word in enumerate(words)}
    asked = [rows.get(word) for word in options.words]
    if None in asked:
        sys.exit(f"words: {options.words[asked.index(None)]} is not among the words")
    FOLDER.mkdir(parents=True, exist_ok=True)
    np.save(FOLDER / "vectors.npy", vectors)
    np.save(FOLDER / "lengths.npy", np.array([len(word) for word in words], dtype="<i8"))
    np.save(FOLDER / "queries.npy", vectors[asked])
    lines = {}
    for title, arguments in SEARCHES:
        ran = mpirun(options.ranks, [TOOL, "--queries", "queries.npy", "--k", NEIGHBOURS,
                                     *arguments.split()], cwd=FOLDER, timeout=300)
        if ran.returncode != 0:
            sys.exit(f"words: the search failed\n{ran.stderr}")
        found = [line.split("\t") for line in ran.stdout.splitlines()]
        for number, word in enumerate(options.words):
            lines[word, title] = [(int(row), float(score)) for query, _, row, score in found
                                  if int(query) == number and int(row) != asked[number]]
        if title == "nearest":
            np.save(FOLDER / "first.npy", np.array([hits[0][0] for hits in lines.values()]))
    for word in options.words:
        for title, _ in SEARCHES:
            print(f"{word}, {title}: " + ", ".join(
                f"{words[row]} {score:.2f}" for row, score in lines[word, title][:NEIGHBOURS - 1]))


if __name__ == "__main__":
    main()
