#!/usr/bin/env python3
"""usage: make_sample.py JSON OUTPUT [COUNT]

Makes data/words-20000.qxw: the first COUNT (20000) words of the package's JSON that have a vector,
in the format of data/README.md. The same JSON gives the same bytes. It takes about 2 GB of memory.
"""

import json
import pathlib
import struct
import sys
import zlib


def file_bytes(package, count):
    dim = package["dimensions"]
    words = [word for word in package["words"] if word in package["vectors"]][:count]
    if not 0 < len(words) == count:
        raise ValueError(f"there are {len(words)} words with a vector, not {count}")
    body = "".join(word + "\n" for word in words).encode()
    text_bytes = len(body)
    for word in words:
        row = package["vectors"][word]  # the components, its length and the word's place
        if len(row) != dim + 2:
            raise ValueError(f"the vector of {word!r} has not {dim} + 2 numbers")
        body += struct.pack(f"<{dim}e", *row[:dim])
    return struct.pack("<8sIIIII4x", b"QXWORDS\n", 1, count, dim, text_bytes,
                       zlib.crc32(body)) + body


def main(source, target, count="20000"):
    content = file_bytes(json.loads(pathlib.Path(source).read_bytes()), int(count))
    partial = pathlib.Path(target + ".partial")
    partial.write_bytes(content)
    partial.rename(target)


if __name__ == "__main__":
    if len(sys.argv) not in (3, 4) or not (sys.argv + ["1"])[3].isdigit():
        sys.exit("make_sample.py: " + __doc__.splitlines()[0])
    try:
        main(*sys.argv[1:])
    except (OSError, ValueError, TypeError, KeyError, struct.error) as error:
        sys.exit(f"make_sample.py: {error}")
