#!/usr/bin/env python3
"""usage: make_words.py JSON OUTPUT [COUNT]

Writes the first COUNT words of the package's JSON that have a vector, or all, in the format of
data/README.md. The same JSON gives the same bytes. It takes about 1 GB of memory.
"""

import json
import pathlib
import re
import struct
import sys
import zlib

ROW = re.compile(r'[\s,]*("(?:[^"\\]|\\.)*")\s*:\s*(\[[^\]]*\])')


def begin(text, name):
    """Where the value of a member begins. Each is decoded by itself: all at once takes 2 GB."""
    return re.search(rf'"{name}"\s*:\s*', text).end()


def file_bytes(text, count):
    decode = json.JSONDecoder().raw_decode
    dim, words = (decode(text, begin(text, name))[0] for name in ("dimensions", "words"))
    rows = {}
    at = begin(text, "vectors") + 1
    while match := ROW.match(text, at):
        *row, _, place = json.loads(match[2])  # the components, its length and the word's place
        if len(row) != dim or words[place] != json.loads(match[1]):
            raise ValueError(f"the vector of {match[1]} has not {dim} numbers, or another's place")
        rows[words[place]] = struct.pack(f"<{dim}e", *row)
        at = match.end()
    if text[at:at + 100].strip()[:1] != "}":
        raise ValueError(f"there is no vector at character {at}")
    words = [word for word in words if word in rows][:count or None]
    if not words or len(words) != (count or len(words)):
        raise ValueError(f"there are {len(words)} words with a vector, not {count}")
    lines = "".join(word + "\n" for word in words).encode()
    body = lines + b"".join(rows[word] for word in words)
    return struct.pack("<8sIIIII4x", b"QXWORDS\n", 1, len(words), dim, len(lines),
                       zlib.crc32(body)) + body


def main(source, target, count="0"):
    content = file_bytes(pathlib.Path(source).read_text(encoding="utf-8"), int(count))
    partial = pathlib.Path(target + ".partial")
    partial.write_bytes(content)
    partial.rename(target)


if __name__ == "__main__":
    if len(sys.argv) not in (3, 4) or not (sys.argv + ["1"])[3].isdigit():
        sys.exit("make_words.py: " + __doc__.splitlines()[0])
    try:
        main(*sys.argv[1:])
    except (OSError, ValueError, TypeError, IndexError, AttributeError, OverflowError,
            struct.error) as error:
        sys.exit(f"make_words.py: {error}")
