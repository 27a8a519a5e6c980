#!/usr/bin/env python3
"""Loads the word vectors of this repository into a table of SQLite and asks for neighbours.

words.py [--full] [--database FILE] [--extension FILE] [WORD]...
"""
import argparse
import pathlib
import sqlite3
import subprocess
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(ROOT / "hosts"))
from word_vectors import read_words


def load(database, full):
    words, vectors = read_words(full)
    database.execute("BEGIN")
    database.execute(f"CREATE VIRTUAL TABLE words USING qx(embedding float[{vectors.shape[1]}], "
                     "length integer, letter text, +word text)")
    database.executemany(
        "INSERT INTO words(rowid, embedding, length, letter, word) VALUES (?, ?, ?, ?, ?)",
        ((rowid, vector.tobytes(), len(word), word[0], word)
         for rowid, (word, vector) in enumerate(zip(words, vectors))))
    database.execute("COMMIT")


def show_neighbours(database, word):
    row = database.execute("SELECT embedding, rowid FROM words WHERE word = ?", [word]).fetchone()
    if row is None:
        print(f"{word}: not among the words")
        return
    for title, condition, *more in (("nearest", ""), ("of up to 5 letters", "AND length <= 5"),
                             (f"with {word[0]}", "AND letter = ?", word[0])):
        started = time.perf_counter()
        found = database.execute(
            f"SELECT word, score FROM words WHERE embedding MATCH ? AND k = 6 AND rowid <> ? "
            f"{condition} ORDER BY distance", [*row, *more]).fetchall()
        milliseconds = 1000 * (time.perf_counter() - started)
        print(f"{word}, {title} ({milliseconds:.1f} ms): "
              + ", ".join(f"{other} {score:.2f}" for other, score in found))


def main():
    parser = argparse.ArgumentParser(prog="words.py", description=__doc__.splitlines()[0])
    parser.add_argument("--full", action="store_true", help="all words, which are fetched once")
    parser.add_argument("--database", default=":memory:")
    parser.add_argument("--extension", default=str(ROOT / "build/sqlite/hosts/sqlite/qx"))
    parser.add_argument("words", nargs="*", default=["king", "river"])
    options = parser.parse_args()
    try:
        database = sqlite3.connect(options.database, isolation_level=None)
        database.enable_load_extension(True)
        database.load_extension(options.extension)
        if not database.execute("SELECT 1 FROM sqlite_schema WHERE name = 'words'").fetchone():
            load(database, options.full)
        for word in options.words:
            show_neighbours(database, word)
    except (sqlite3.Error, AttributeError, OSError, subprocess.CalledProcessError) as error:
        sys.exit(f"words: {error}")


if __name__ == "__main__":
    main()
