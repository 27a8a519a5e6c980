#!/usr/bin/env python3
"""Tests the words program through its command line: test_words.py PROGRAM [unittest options]

The neighbours are compared with a search in this file that shares nothing with the program. Most
tests use a small file of words out of the project's, so that they are fast in every kind of build.
"""

import json
import math
import os
import pathlib
import pty
import re
import signal
import struct
import subprocess
import sys
import tempfile
import unittest
import zlib

HERE = pathlib.Path(__file__).resolve().parent
SAMPLE = str(HERE.parents[1] / "data/words-20000.qxw")
MORE_WORDS = "queen prince throne kingdom quest quite monarch kings knight".split()
TIMEOUT = 300
FOLDER = tempfile.TemporaryDirectory()


def write(name, content):
    path = pathlib.Path(FOLDER.name, name)
    path.write_bytes(content)
    return str(path)


def file_bytes(words, rows, text=None, **header):
    """A file of words, as data/README.md describes it; the header as asked, or as it must be."""
    text = "".join(word + "\n" for word in words).encode() if text is None else text
    body = text + b"".join(struct.pack(f"<{len(row)}e", *row) for row in rows)
    fields = {"magic": b"QXWORDS\n", "version": 1, "count": len(words),
              "dim": len(rows[0]) if rows else 1, "text": len(text), "sum": zlib.crc32(body)}
    return struct.pack("<8sIIIII4x", *(fields | header).values()) + body


def read_small():
    """A part of the project's words, and their rows."""
    content = pathlib.Path(SAMPLE).read_bytes()
    _, _, count, dim, text, _ = struct.unpack_from("<8sIIIII", content)
    words = content[32:32 + text].decode().splitlines()
    keep = [i for i, word in enumerate(words) if i < 1200 or word in MORE_WORDS]
    return {words[i]: struct.unpack_from(f"<{dim}e", content, 32 + text + 2 * dim * i)
            for i in keep}


def normalised(vector):
    return [value / math.hypot(*vector) for value in vector]


ROWS = read_small()
VECTORS = {word: normalised(row) for word, row in ROWS.items()}
GOOD = file_bytes(list(ROWS), list(ROWS.values()))
SMALL = write("small.qxw", GOOD)


def nearest(terms, passes=lambda word: True):
    """The (word, score) by plain arithmetic, best first, of a sum such as "king - man"."""
    parts = [[-x if sign else x for x in VECTORS[word]]
             for sign, word in re.findall(r"(- )?(\w+)", terms)]
    query, used = normalised([sum(part) for part in zip(*parts)]), re.findall(r"\w+", terms)
    scored = [(word, sum(a * b for a, b in zip(query, vector)))
              for word, vector in VECTORS.items() if passes(word) and word not in used]
    return sorted(scored, key=lambda pair: -pair[1])


def columns(output):
    """The answers of each block of columns: for each column its (word, score)."""
    found = []
    for line in output.splitlines():
        if line.startswith("   1  "):
            found.append([[], [], []])
        if not re.match(r" *\d+  \S", line[:7]):
            continue
        for column, start in zip(found[-1], (6, 37, 68)):
            if line[start + 21:start + 28].strip():
                column.append((line[start:start + 21].strip(), float(line[start + 21:start + 28])))
    return found


def names(column):
    return [word for word, _ in column]


def run(*arguments, data=SMALL, lines=""):
    return subprocess.run([PROGRAM, "--data", data, *arguments], input=lines, text=True,
                          capture_output=True, timeout=TIMEOUT, check=False)


class WordsTest(unittest.TestCase):
    def answer(self, *arguments, **options):
        """Runs the program, which must succeed without a complaint, and returns its output."""
        result = run(*arguments, **options)
        self.assertEqual((result.returncode, result.stderr), (0, ""), arguments)
        self.assertLessEqual(max(map(len, result.stdout.splitlines()), default=0), 100)
        return result.stdout

    def refuse(self, *arguments, says="", **options):
        """Runs the program, which must refuse its input in one line."""
        with self.subTest(arguments=arguments, says=says):
            result = run(*arguments, **options)
            self.assertEqual(result.returncode, 2, result)
            self.assertRegex(result.stderr, r"\Awords: [^\n]+\n\Z")
            self.assertIn(says, result.stderr)

    def same(self, found, expected, k=10):
        """Compares words in order and scores; nearly equal scores may stand in either order."""
        scores = dict(expected)
        self.assertEqual(len(found), min(k, len(expected)))
        for (word, score), (_, wanted) in zip(found, expected):
            self.assertAlmostEqual(score, wanted, delta=1e-4)
            self.assertAlmostEqual(scores[word], wanted, delta=1e-5)

    def test_answers_are_those_of_plain_arithmetic(self):
        tests = {"all": lambda w: True, "k": lambda w: w[0] == "k", "q": lambda w: w[0] == "q",
                 "#": lambda w: not "a" <= w[0] <= "z", "6": lambda w: len(w) == 6,
                 "5q": lambda w: len(w) == 5 and w[0] == "q",
                 "left": lambda w: w not in ("queen", "prince")}
        for arguments, text, passing in [
                ("KING", "king", ["all", None, "k"]),
                ("king --nprobe 999999", "king", ["all", "all", "k"]),
                ("king - man + woman", "king - man + woman", ["all", None, "k"]),
                ("--like king --like - --like man", "king - man", ["all", None, "k"]),
                ("--like king --letter Q", "king", ["q", "q"]),
                ("king --letter #", "king", ["#", "#"]), ("king --length 6", "king", ["6"]),
                ("king --length 5 --letter q", "king", ["5q"]),
                ("king --without queen --without PRINCE --nprobe 50", "king", ["left"] * 2 + ["k"]),
                ("king --without king --letter q", "king", ["q"])]:
            for k in (1, 10, 1000):
                with self.subTest(arguments=arguments, k=k):
                    block, = columns(self.answer(*arguments.split(), "--k", str(k)))
                    for column, name in zip(block, passing):
                        if name:
                            self.same(column, nearest(text, tests[name]), k)
        self.assertEqual(nearest("king - man + woman")[0][0], "queen")
        (_, ivf, _), = columns(self.answer("king", "--nprobe", "2"))  # less, with real scores
        self.assertTrue(ivf and set(ivf) <= set(columns(self.answer("king", "--k", "1000"))[0][0]))

    def test_few_words_and_none(self):
        three = write("three.qxw", file_bytes("abc", [[1, 0], [0, 1], [1, 1]]))
        exact, ivf, _ = columns(self.answer("a", "--k", "1000", "--nprobe", "9", data=three))[0]
        self.assertEqual((exact, ivf), ([("c", 0.7071), ("b", 0.0)],) * 2)
        self.assertIn("(nothing)", self.answer("king", "--length", "999"))
        for arguments, text in [(["-"], "-"), (["--like", "-"], "-"), ([","], ",")]:
            self.assertIn(f'Nearest to "{text}"', self.answer(*arguments))

    def test_help(self):
        for option in "k letter length nprobe without full prompt data like".split():
            self.assertIn("--" + option, self.answer("--help"))
        self.assertEqual(self.answer("-h"), self.answer("--help"))

    def test_bad_arguments(self):
        for option in ("--k", "--nprobe", "--length"):
            for value in ("0", "-1", "abc", "99999999999", "99999999999999999999", "", " 5", "5 ",
                          "+5", "5.0", "1e3", "0x10", "５"):
                self.refuse("king", option, value, says="whole number")
        for says, *lines in [
                ("a letter", ["--letter", "qq"], ["--letter", ""], ["--letter", "é"]),
                ("unknown option", ["--unknown"], ["-x"], ["-xy"]), ("un?known", ["--un\nknown"]),
                ("needs a value", ["king", "--k"]),
                ("no word", ["king", "--prompt"]), ("with a word", [" "], ["king +"], ["king man"]),
                ("need a word", ["--letter", "q"], ["--length", "3"]), ("empty", [""]),
                ("adds up to nothing", ["king - king"]), ("+ or -", ["king a b"]),
                ("is not among", ["kign"], ["king", "--without", "quen"],
                 ["xzqxzqxzqxzq"], ["x" * 100000], ["\udcff\udcfe"]),
                ('"a?[31m"', ["a\x1b[31m"])]:
            for arguments in lines:
                self.refuse(*arguments, says=says)
        for path in (FOLDER.name, FOLDER.name + "/missing", ""):
            self.refuse("king", data=path, says="cannot be read")
        self.refuse("king", data="/missing\n\x1b[31m", says="missing??[31m")

    def test_output_that_is_not_read_or_cannot_be_written(self):
        with subprocess.Popen([PROGRAM, "--data", SMALL], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE) as process:
            process.stdout.close()
            self.assertEqual(process.stderr.read(), b"")
            self.assertIn(process.wait(TIMEOUT), (0, -signal.SIGPIPE))
        with open("/dev/full", "w", encoding="ascii") as full:
            result = subprocess.run([PROGRAM, "--data", SMALL, "king"], stdout=full, check=False,
                                    stderr=subprocess.PIPE, timeout=TIMEOUT)
        self.assertEqual((result.returncode, result.stderr),
                         (1, b"words: cannot write the output\n"))

    def test_damaged_files(self):
        size, two, units = len(GOOD), ["king", "b"], [[1, 0], [0, 1]]
        bad = [(GOOD[:length], "") for length in (0, 1, 7, 31, 32, 33, 1000, size // 2, size - 1)]
        bad += [(GOOD + b"\0", "bytes")]
        bad += [(GOOD[:at] + bytes([GOOD[at] ^ 1]) + GOOD[at + 1:], "checksum")
                for at in (32, 5000, size - 1)]
        bad += [(file_bytes(two, units, **header), says) for header, says in [
            ({"magic": b"XXWORDS\n"}, "begin"), ({"version": 2}, "version"),
            *(({"text": text}, "") for text in (b"king\nb", b"king\n", b"king\nb\nc\n")),
            ({"text": b"king\n\xff\xfe\n"}, "plain text"),
            *(({name: count}, "") for name in ("count", "dim")
              for count in (0, 2**31 - 1, 2**31, 2**32 - 1))]]
        bad += [(GOOD[:20] + struct.pack("<I", count) + GOOD[24:], "")
                for count in (0, 2**31 - 1, 2**31, 2**32 - 1)]
        bad += [(file_bytes(two, [[1, 0], [value, 1]]), "not finite")
                for value in (math.inf, -math.inf, math.nan)]
        bad += [(file_bytes(two, [[1, 0], [0, 0]]), "no vector")]
        bad += [(file_bytes(["king", word], units), "the word")
                for word in ("", "king", "a b", "a\x1b[2J", "\u0085")]
        for content, says in bad + [(file_bytes([], []), "no words")]:
            self.refuse("king", data=write("bad", content), says=says)

    def test_word_files_are_made_of_a_package(self):
        rows = {"king": [3, 4], "qu]": [4, 3], "car": [-1, 0.5]}
        vectors = {word: row + [math.hypot(*row), i] for i, (word, row) in enumerate(rows.items())}
        package = {"precision": 8, "dimensions": 2, "words": [*rows, "none"],
                   "vectors": dict(reversed(vectors.items())), "unkVector": [0, 0, 0, -1]}
        target = pathlib.Path(FOLDER.name, "made")

        def make(*arguments, **changes):
            source = write("package.json", json.dumps(package | changes, indent=1).encode())
            return subprocess.run([sys.executable, HERE / "make_words.py", source, *arguments],
                                  capture_output=True, text=True, check=False)

        for result in (make(), make(target, "x"), make(target, "4"), make(target / "x"),
                       make(target, dimensions=3), make(target, words=["king"] * 4),
                       make(target, vectors=[]), make(target, vectors={"king": [3, "4", 5, 0]}),
                       make(target, vectors={"king": [1e9, 4, 5, 0]})):
            self.assertRegex(result.stderr, r"\Amake_words.py: [^\n]+\n\Z")
            self.assertEqual((result.returncode, target.exists()), (1, False))
        for count in ("3", "2"):
            self.assertEqual((make(target, count).stderr, target.read_bytes()), (
                "", file_bytes(list(rows)[:int(count)], list(rows.values())[:int(count)])))
        self.assertEqual((make(target).stderr, target.read_bytes()),
                         ("", file_bytes(list(rows), list(rows.values()))))

    def test_steps(self):
        blocks = columns(self.answer("--k", "3", data=SAMPLE))
        self.assertEqual({len(column) for block in blocks for column in block if column}, {3})
        (exact, part, listed), _, (label, length, both), gone, back = blocks
        self.assertEqual(names(exact)[:2], ["prince", "queen"])
        self.assertEqual(names(listed), ["prince", "queen", "throne"])
        self.assertEqual((part[0], both[0]), (exact[1], exact[1]))
        self.assertEqual((part, {len(word) for word in names(length)}), (label, {6}))
        self.assertEqual(["queen" in names(column) for column in gone], [False, True, False])
        self.assertEqual(back[0][1:], exact[:2])
        for column in back:
            self.assertIn("king - man + woman", names(column))

    def test_costs_name_every_function(self):
        header = (HERE.parents[1] / "include/qx_runtime.h").read_text(encoding="utf-8")
        declared = set(re.findall(r"^\w[\w* ]*?\b(qx_\w+)\(", header, re.MULTILINE))
        costs = self.answer("--nprobe", "3").split("What the calls cost")[1]
        self.assertEqual(set(re.findall(r"^   (qx_\w+)", costs, re.MULTILINE)), declared)
        self.assertEqual(len(declared), 30)
        self.assertIn("3 lists", costs)

    def test_tour_of_few_words_and_dimensions(self):
        for count, dim in [(count, dim) for count in (1, 2, 3, 5) for dim in (1, 7)]:
            rows = [[(i + 2) * (j + 3) % 5 + 1 for j in range(dim)] for i in range(count)]
            path = write("few.qxw", file_bytes([f"w{i}" for i in range(count)], rows))
            self.assertIn("qx_index_has_ivf", self.answer(data=path))

    def test_commands(self):
        output = self.answer("--prompt", "--without", "quest", lines="\n".join([
            "king - man + woman", "  king --letter q --k 3", "king --length 6", "--without queen",
            "king", "king --nprobe 1", "help", "-", "quit", "never read"]))
        total, letter, length, gone, _, _ = columns(output)
        self.assertEqual(total[0][0][0], "queen")
        self.same(letter[0], nearest("king", lambda word: word[0] == "q" and word != "quest"), 3)
        self.assertEqual({len(word) for word in names(length[0])}, {6})
        self.same(gone[0], nearest("king", lambda word: word not in ("queen", "quest")))
        self.assertIn("usage:", output)
        self.assertIn("Nearest", self.answer("--prompt", lines="king"))  # without a line's end
        self.assertNotIn("Nearest", self.answer("--prompt", lines="\n   \nexit\nking\n"))

    def test_mistakes_do_not_end_it(self):
        mistakes = ["kign", "king --letter qq", "--letter q", "king --length x", "king --k 0",
                    "--without kign", "queen man", "--nprobe 0", "--nprobe",
                    "king - king", "king +", "+ king king", "x" * 5000, "king " * 300, "\x1b[31m",
                    "king\0man", "--prompt", "--data x"]
        result = run("--prompt", lines="\n".join([*mistakes, "king"]))
        self.assertEqual((result.returncode, result.stderr.count("\n")), (0, len(mistakes)))
        self.assertTrue(all(line.startswith("words: ") for line in result.stderr.splitlines()))
        self.assertNotIn("\x1b", result.stderr)
        self.assertIn('Nearest to "king"', result.stdout)

    def test_terminal(self):
        for arguments, lines, shown in [
                ([], "king --letter q\nkign\nquit\n", ["qx_index_has_ivf", "> ", "is not among"]),
                (["--prompt"], "\x04", ["> "]), (["king"], "", ["queen"])]:
            master, slave = pty.openpty()
            with subprocess.Popen([PROGRAM, "--data", SMALL, *arguments], stdin=slave,
                                  stdout=slave, stderr=slave, start_new_session=True) as process:
                os.close(slave)
                os.write(master, lines.encode())
                output = ""
                try:
                    while part := os.read(master, 65536):
                        output += part.decode(errors="replace")
                except OSError:  # the program has gone
                    pass
                self.assertEqual(process.wait(TIMEOUT), 0)
            os.close(master)
            self.assertEqual([text in output for text in shown], [True] * len(shown), output)
            self.assertEqual("> " in output, "> " in shown)


if __name__ == "__main__":
    if len(sys.argv) < 2 or not os.access(sys.argv[1], os.X_OK):
        sys.exit(__doc__.splitlines()[0])
    PROGRAM = os.path.abspath(sys.argv.pop(1))
    unittest.main()
