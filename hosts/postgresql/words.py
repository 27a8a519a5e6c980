#!/usr/bin/env python3
"""Puts the word vectors of this repository into a table of a temporary cluster of PostgreSQL, and asks
for neighbours.

words.py [--full] [WORD]...
"""
import argparse
import io
import pathlib
import sys

sys.path[:0] = [str(pathlib.Path(__file__).resolve().parents[1]), str(pathlib.Path(__file__).parent)]
from cluster import Cluster
from word_vectors import read_words

SEARCH = """SELECT w.word, s.score
FROM qx.search('words', (SELECT embedding FROM words WHERE word = %s), 6, filter => %s) s
JOIN words w USING (id) WHERE w.word <> %s ORDER BY s.score DESC, id LIMIT 5"""
SEARCHES = (("nearest", None), ("of 5 letters", "length = 5"))


def load(cursor, words, vectors):
    cursor.execute("CREATE EXTENSION qx")
    cursor.execute("CREATE TABLE words (id bigint PRIMARY KEY, word text, embedding real[], length int)")
    cursor.execute("SELECT qx.create_index('words', vector => 'embedding', columns => '{length}', "
                   "metric => 'cosine')")
    rows = io.StringIO()
    for number, (word, vector) in enumerate(zip(words, vectors)):
        escaped = word.replace("\\", "\\\\")
        rows.write(f"{number}\t{escaped}\t{{{','.join(map(str, vector))}}}\t{len(word)}\n")
    rows.seek(0)
    cursor.copy_expert("COPY words FROM STDIN", rows)


def show(cursor, word, title, condition):
    cursor.execute(SEARCH, (word, condition, word))
    print(f"{word}, {title}: " + ", ".join(f"{found} {score:.2f}" for found, score in cursor))


def main():
    parser = argparse.ArgumentParser(prog="words.py")
    parser.add_argument("--full", action="store_true", help="all words, which are fetched once")
    parser.add_argument("words", nargs="*", default=["king", "river"])
    options = parser.parse_args()
    words, vectors = read_words(options.full)
    unknown = [word for word in options.words if word not in words]
    if unknown:
        sys.exit(f"words: {unknown[0]} is not among the words")
    cluster = Cluster()
    try:
        connection = cluster.connect()
        with connection.cursor() as cursor:
            load(cursor, words, vectors)
            for word in options.words:
                for title, condition in SEARCHES:
                    show(cursor, word, title, condition)
                cursor.execute("BEGIN")
                cursor.execute("DELETE FROM words WHERE id = (SELECT id FROM qx.search('words', (SELECT "
                               "embedding FROM words WHERE word = %s), 2) OFFSET 1)", (word,))
                show(cursor, word, "without the first", None)
                cursor.execute("ROLLBACK")
        connection.close()
    finally:
        cluster.close()


if __name__ == "__main__":
    main()
