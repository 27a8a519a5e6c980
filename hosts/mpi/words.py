#!/usr/bin/env python3
"""Finds neighbours of words among the word vectors of this repository, spread over ranks of MPI.

words.py [--ranks N] [--tool FILE] [--folder FOLDER] [WORD]...
"""
import argparse
import importlib.util
import os
import pathlib
import subprocess
import sys

import numpy as np

ROOT = pathlib.Path(__file__).resolve().parents[2]
NEIGHBOURS = 6


def read_words():
    """As the other host reads them."""
    place = ROOT / "hosts/sqlite/words.py"
    spec = importlib.util.spec_from_file_location("sqlite_words", place)
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module.read_words()


def write_files(folder, vectors, asked):
    folder.mkdir(parents=True, exist_ok=True)
    np.save(folder / "vectors.npy", vectors)
    np.save(folder / "queries.npy", vectors[asked])


def search(options):
    """The lines that the tool prints: query, place, id, score."""
    # mpirun wants to be told twice that root may run it.
    environment = os.environ | {"OMPI_ALLOW_RUN_AS_ROOT": "1",
                                "OMPI_ALLOW_RUN_AS_ROOT_CONFIRM": "1"}
    command = ["mpirun", "--oversubscribe", "-n", str(options.ranks), str(options.tool),
               "--vectors", str(options.folder / "vectors.npy"),
               "--queries", str(options.folder / "queries.npy"), "--k", str(NEIGHBOURS)]
    ran = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=300)
    if ran.returncode != 0:
        sys.exit(f"words: the search failed\n{ran.stderr}")
    return [line.split("\t") for line in ran.stdout.splitlines()]


def main():
    parser = argparse.ArgumentParser(prog="words.py", description=__doc__.splitlines()[0])
    parser.add_argument("--ranks", type=int, default=4)
    parser.add_argument("--tool", type=pathlib.Path, default=ROOT / "build/mpi/hosts/mpi/qx-mpi")
    parser.add_argument("--folder", type=pathlib.Path, default=ROOT / "build/mpi-words",
                        help="where the files for the tool go")
    parser.add_argument("words", nargs="*", default=["king", "river"])
    options = parser.parse_args()
    if not options.tool.exists():
        sys.exit(f"words: build {options.tool} first; hosts/mpi/README.md says how")
    words, vectors = read_words()
    rows = {word: row for row, word in enumerate(words)}
    for word in options.words:
        if word not in rows:
            sys.exit(f"words: {word} is not among the words")
    write_files(options.folder, vectors, [rows[word] for word in options.words])
    lines = search(options)
    for query, word in enumerate(options.words):
        found = [f"{words[int(row)]} {float(score):.2f}" for number, _, row, score in lines
                 if int(number) == query and words[int(row)] != word]
        print(f"{word}: " + ", ".join(found))


if __name__ == "__main__":
    main()
