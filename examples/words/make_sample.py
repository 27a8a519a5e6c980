#!/usr/bin/env python3
"""Makes data/words-20000.qxw: the most frequent words of the whole package in a small binary file.

usage: make_sample.py JSON OUTPUT [COUNT]

JSON is the package's file of words and vectors, as scripts/fetch_words leaves it; COUNT is 20000
unless given. The file format is described in data/README.md. The same input always gives the same
bytes. Reading the JSON takes about 2 GB of memory and well under a minute.
"""

import json
import math
import os
import struct
import sys
import zlib

MAGIC = b"QXWORDS\n"
VERSION = 1
MAX_DIMENSIONS = 4096


class InputError(Exception):
    """What is wrong with the arguments or the JSON, in one line."""


def read_json(path):
    """Returns the words in order, the vectors by word, and the dimension."""
    try:
        with open(path, encoding="utf-8") as file:
            package = json.load(file)
    except OSError as error:
        raise InputError(f"cannot read {path}: {error.strerror}") from error
    except (ValueError, RecursionError) as error:
        raise InputError(f"{path} is not complete JSON: {error}") from error
    try:
        words, vectors = package["words"], package["vectors"]
        dimensions = package["dimensions"]
    except (KeyError, TypeError) as error:
        raise InputError(f"{path} has no words, vectors or dimensions") from error
    if not (isinstance(words, list) and isinstance(vectors, dict)
            and isinstance(dimensions, int) and 0 < dimensions <= MAX_DIMENSIONS):
        raise InputError(f"{path} has words, vectors or dimensions of an unexpected kind")
    return words, vectors, dimensions


def check_word(word):
    """Refuses what the text part of the file cannot hold."""
    if not isinstance(word, str) or not word or not word.isprintable():
        raise InputError(f"the word {word!r} is empty or not printable")


def pack_vector(word, row, dimensions):
    """Returns the components of one row as half-precision floats."""
    # A row is the components, its length and the word's number.
    if not isinstance(row, list) or len(row) != dimensions + 2:
        raise InputError(f"the vector of {word!r} does not have {dimensions} + 2 numbers")
    values = row[:dimensions]
    if not all(type(value) in (int, float) and value == value for value in values):
        raise InputError(f"the vector of {word!r} holds something that is not a number")
    try:
        packed = struct.pack(f"<{dimensions}e", *map(float, values))
        if not all(map(math.isfinite, struct.unpack(f"<{dimensions}e", packed))):
            raise OverflowError
    except OverflowError as error:
        raise InputError(f"the vector of {word!r} is too large for half precision") from error
    if not any(struct.unpack(f"<{dimensions}e", packed)):
        raise InputError(f"the vector of {word!r} has no length")
    return packed


def choose_words(words, vectors, count):
    """Returns the first count words that have a vector, and how many words were passed over."""
    chosen, skipped = [], 0
    for word in words:
        if len(chosen) == count:
            break
        check_word(word)
        if word in vectors:
            chosen.append(word)
        else:
            skipped += 1
    if len(chosen) < count:
        raise InputError(f"there are only {len(chosen)} words with a vector, not {count}")
    if len(set(chosen)) < count:
        raise InputError("a word appears twice")
    return chosen, skipped


def sample_bytes(chosen, vectors, dimensions):
    """Returns the whole file."""
    text = "".join(word + "\n" for word in chosen).encode("utf-8")
    numbers = b"".join(pack_vector(word, vectors[word], dimensions) for word in chosen)
    checksum = zlib.crc32(numbers, zlib.crc32(text))
    header = struct.pack("<8sIIIII4x", MAGIC, VERSION, len(chosen), dimensions, len(text), checksum)
    return header + text + numbers


def write_file(path, content):
    """Writes a temporary file beside the target and renames it, so that an interrupted run leaves no half file."""
    partial = path + ".partial"
    try:
        with open(partial, "wb") as file:
            file.write(content)
        os.replace(partial, path)
    except OSError as error:
        raise InputError(f"cannot write {path}: {error.strerror}") from error


def parse_count(text):
    """Returns the number of words asked for."""
    if not (text.isascii() and text.isdigit() and len(text) < 9 and int(text) > 0):
        raise InputError(f"COUNT must be a whole number from 1 to 99999999, not {text!r}")
    return int(text)


def main(arguments):
    if len(arguments) not in (2, 3):
        raise InputError("usage: make_sample.py JSON OUTPUT [COUNT]")
    json_path, output_path = arguments[:2]
    count = parse_count(arguments[2]) if len(arguments) == 3 else 20000
    print(f"Reading {json_path} ...", flush=True)
    words, vectors, dimensions = read_json(json_path)
    chosen, skipped = choose_words(words, vectors, count)
    content = sample_bytes(chosen, vectors, dimensions)
    write_file(output_path, content)
    print(f"{output_path}: {count} words of {len(words)}, {dimensions} dimensions, "
          f"{len(content)} bytes, {skipped} words without a vector skipped")


if __name__ == "__main__":
    try:
        main(sys.argv[1:])
    except InputError as problem:
        print(f"make_sample.py: {problem}", file=sys.stderr)
        sys.exit(2)
    except KeyboardInterrupt:
        sys.exit(130)
