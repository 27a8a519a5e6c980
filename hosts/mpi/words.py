#!/usr/bin/env python3
"""Finds neighbours of words among the word vectors of this repository, spread over ranks of MPI.

words.py [--full] [--ranks N] [--tool FILE] [--folder FOLDER] [WORD]...
"""
import argparse
import pathlib
import subprocess
import sys

import numpy as np

from mpirun import mpirun

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "hosts"))
from word_vectors import read_words

NEIGHBOURS = 6
# What is asked of the tool: a title, and its arguments. Labels are the words' lengths.
SEARCHES = (("nearest", []),
            ("of 5 letters", ["--labels", "lengths.npy", "--label", "5"]),
            ("nearest through lists", ["--ivf", "100", "--nprobe", "8"]))


def write_files(folder, words, vectors, asked):
    folder.mkdir(parents=True, exist_ok=True)
    np.save(folder / "vectors.npy", vectors)
    np.save(folder / "lengths.npy", np.array([len(word) for word in words], dtype="<i8"))
    np.save(folder / "queries.npy", vectors[asked])


def search(options, arguments):
    """The lines that the tool prints: query, place, id, score."""
    command = [options.tool.resolve(), "--vectors", "vectors.npy", "--queries", "queries.npy",
               "--k", NEIGHBOURS, *arguments]
    ran = mpirun(options.ranks, command, cwd=options.folder, timeout=300)
    if ran.returncode != 0:
        sys.exit(f"words: the search failed\n{ran.stderr}")
    return [line.split("\t") for line in ran.stdout.splitlines()]


def main():
    parser = argparse.ArgumentParser(prog="words.py", description=__doc__.splitlines()[0])
    parser.add_argument("--full", action="store_true", help="all words, which are fetched once")
    parser.add_argument("--ranks", type=int, default=4)
    parser.add_argument("--tool", type=pathlib.Path, default=ROOT / "build/mpi/hosts/mpi/qx-mpi")
    parser.add_argument("--folder", type=pathlib.Path, default=ROOT / "build/mpi-words",
                        help="where the files for the tool go")
    parser.add_argument("words", nargs="*", default=["king", "river"])
    options = parser.parse_args()
    if options.ranks < 1:
        parser.error("--ranks is 1 or more")
    if not options.tool.exists():
        sys.exit(f"words: {options.tool} is not built; hosts/mpi/demo does that")
    try:
        words, vectors = read_words(options.full)
    except subprocess.CalledProcessError as error:
        sys.exit(f"words: {error}")
    rows = {word: row for row, word in enumerate(words)}
    for word in options.words:
        if word not in rows:
            sys.exit(f"words: {word} is not among the words")
    write_files(options.folder, words, vectors, [rows[word] for word in options.words])
    found = [search(options, arguments) for _, arguments in SEARCHES]
    for query, word in enumerate(options.words):
        for (title, _), lines in zip(SEARCHES, found):
            others = [f"{words[int(row)]} {float(score):.2f}" for number, _, row, score in lines
                      if int(number) == query and words[int(row)] != word]
            print(f"{word}, {title}: " + ", ".join(others[:NEIGHBOURS - 1]))


if __name__ == "__main__":
    main()
