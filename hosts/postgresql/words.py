#!/usr/bin/env python3
"""Puts the word vectors of this repository into a table of a temporary cluster of PostgreSQL, or spreads
them over several, and asks for neighbours.

words.py [--full] [--shards N] [WORD]...
"""
import argparse
import io
import pathlib
import sys

sys.path[:0] = [str(pathlib.Path(__file__).resolve().parents[1]), str(pathlib.Path(__file__).parent)]
from cluster import Cluster
from shards import add_server, spread
from word_vectors import read_words

COLUMNS = "id bigint{}, word text, embedding real[], length int"
SEARCH = """WITH s AS (SELECT * FROM qx.search('words', (SELECT embedding FROM words WHERE word = %s), 6, filter => %s))
SELECT w.word, s.score FROM s JOIN words w USING (id)
WHERE w.id = ANY (ARRAY(SELECT id FROM s)) AND w.word <> %s ORDER BY s.score DESC, id LIMIT 5"""
SEARCHES = (("nearest", None), ("of 5 letters", "length = 5"))


def make_table(cursor):
    cursor.execute("CREATE EXTENSION qx")
    cursor.execute(f"CREATE TABLE words ({COLUMNS.format(' PRIMARY KEY')})")
    cursor.execute("SELECT qx.create_index('words', vector => 'embedding', columns => '{length}', "
                   "metric => 'cosine')")


def make_shards(cursor, shards):
    cursor.execute("CREATE EXTENSION qx; CREATE EXTENSION postgres_fdw")
    names = [f"shard_{number}" for number in range(1, len(shards) + 1)]
    for name, shard in zip(names, shards):
        with shard.connect() as connection:
            make_table(connection.cursor())
        add_server(cursor.execute, name, "postgres", shard)
    spread(cursor.execute, "words", COLUMNS.format(" NOT NULL"), names, "words")


def copy(cursor, words, vectors):
    rows = io.StringIO()
    for number, (word, vector) in enumerate(zip(words, vectors)):
        escaped = word.replace("\\", "\\\\")
        rows.write(f"{number}\t{escaped}\t{{{','.join(map(str, vector))}}}\t{len(word)}\n")
    rows.seek(0)
    cursor.copy_expert("COPY words FROM STDIN", rows)


def show(cursor, word, title, condition):
    cursor.execute(SEARCH, (word, condition, word))
    print(f"{word}, {title}: " + ", ".join(f"{found} {score:.2f}" for found, score in cursor))


def show_without_first(cursor, word):
    cursor.execute("BEGIN")
    cursor.execute("DELETE FROM words WHERE id = (SELECT id FROM qx.search('words', (SELECT "
                   "embedding FROM words WHERE word = %s), 2) OFFSET 1)", (word,))
    show(cursor, word, "without the first", None)
    cursor.execute("ROLLBACK")


def show_without_shard(cursor, words, word, vector):
    cursor.execute("SET qx.partial_answers = on")
    cursor.execute("SELECT id, score FROM qx.search('words', %s::real[], 6)", (vector.tolist(),))
    found = ", ".join([f"{words[row]} {score:.2f}" for row, score in cursor if words[row] != word][:5])
    cursor.execute("SELECT qx.missing_shards()")
    print(f"{word}, without {cursor.fetchone()[0][0]}: {found}")


def main():
    parser = argparse.ArgumentParser(prog="words.py")
    parser.add_argument("--full", action="store_true", help="all words, which are fetched once")
    parser.add_argument("--shards", type=int, default=0, metavar="N", help="spread over N servers")
    parser.add_argument("words", nargs="*", default=["king", "river"])
    options = parser.parse_args()
    words, vectors = read_words(options.full)
    unknown = [word for word in options.words if word not in words]
    if unknown:
        sys.exit(f"words: {unknown[0]} is not among the words")
    clusters = [Cluster() for _ in range(options.shards + 1)]
    try:
        cursor = clusters[0].connect().cursor()
        if options.shards:
            make_shards(cursor, clusters[1:])
        else:
            make_table(cursor)
        copy(cursor, words, vectors)
        for word in options.words:
            for title, condition in SEARCHES:
                show(cursor, word, title, condition)
            if not options.shards:
                show_without_first(cursor, word)
        if options.shards:
            clusters[-1].stop("immediate")
            for word in options.words:
                show_without_shard(cursor, words, word, vectors[words.index(word)])
        cursor.connection.close()
    finally:
        for cluster in clusters:
            cluster.close()


if __name__ == "__main__":
    main()
