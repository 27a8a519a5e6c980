#!/usr/bin/env python3
"""Tests the words program through its command line.

usage: test_words.py PROGRAM [unittest options]

The neighbours are compared with a search in this file that shares nothing with the program. Most
tests use a small file of words cut out of the project's sample, so that they are fast in every
kind of build.
"""

import contextlib
import json
import math
import os
import pty
import select
import signal
import struct
import subprocess
import sys
import tempfile
import time
import unittest
import zlib

HERE = os.path.dirname(os.path.abspath(__file__))
SAMPLE = os.path.join(HERE, "..", "..", "data", "words-20000.qxw")
MAKE_SAMPLE = os.path.join(HERE, "make_sample.py")
SMALL_WORDS = 1200
MORE_WORDS = ["queen", "prince", "throne", "kingdom", "quest", "quite", "monarch", "kings",
              "knight"]
TIMEOUT = 300
COLUMN_STARTS = (6, 37, 68)
WORD_WIDTH, COLUMN_WIDTH = 21, 28

PROGRAM = ""


# Files of words, as data/README.md describes them.

def sample_bytes(words, rows):
    """Returns a file of words; rows are their components."""
    text = "".join(word + "\n" for word in words).encode()
    numbers = b"".join(struct.pack(f"<{len(row)}e", *row) for row in rows)
    checksum = zlib.crc32(text + numbers)
    dimension = len(rows[0]) if rows else 1
    header = struct.pack("<8sIIIII4x", b"QXWORDS\n", 1, len(words), dimension, len(text), checksum)
    return header + text + numbers


def read_sample(content):
    """Returns the words of a file and their components."""
    magic, version, count, dimension, text_bytes, checksum = struct.unpack("<8sIIIII4x",
                                                                           content[:32])
    assert (magic, version, checksum) == (b"QXWORDS\n", 1, zlib.crc32(content[32:]))
    words = content[32:32 + text_bytes].decode().split("\n")[:-1]
    numbers = struct.unpack(f"<{count * dimension}e", content[32 + text_bytes:])
    rows = [list(numbers[i * dimension:(i + 1) * dimension]) for i in range(count)]
    return words, rows


def normalised(vector):
    length = math.sqrt(sum(value * value for value in vector))
    return [value / length for value in vector]


class Oracle:
    """Nearest words by plain arithmetic."""

    def __init__(self, words, rows):
        self.words = words
        self.vectors = {word: normalised(row) for word, row in zip(words, rows)}

    def scores(self, terms, passes=lambda word: True):
        """Returns (score, word), best first. The terms are (sign, word)."""
        query = [0.0] * len(next(iter(self.vectors.values())))
        for sign, word in terms:
            query = [a + sign * b for a, b in zip(query, self.vectors[word])]
        query = normalised(query)
        used = {word for _, word in terms}
        scored = [(sum(a * b for a, b in zip(query, self.vectors[word])), word)
                  for word in self.words if word not in used and passes(word)]
        return sorted(scored, key=lambda pair: -pair[0])


# Running the program and reading what it prints.

def run(*arguments, data=None, text_in="", environment=None):
    command = [PROGRAM] + (["--data", data] if data else []) + list(arguments)
    return subprocess.run(command, input=text_in, capture_output=True, text=True, timeout=TIMEOUT,
                          env=environment, check=False)


def columns(output, title='Nearest to '):
    """Returns the answers of the first block: a list of (word, score) for each column."""
    lines = output[output.index(title):].split("\n")
    first = next(i for i, line in enumerate(lines) if line.startswith("   1  "))
    found = [[], [], []]
    for line in lines[first:]:
        if not line[:4].strip().isdigit():
            break
        for column, start in zip(found, COLUMN_STARTS):
            cell = line[start:start + COLUMN_WIDTH]
            if cell.strip() and cell.strip() != "(nothing)":
                column.append((cell[:WORD_WIDTH].strip(), float(cell[WORD_WIDTH:])))
    return found


class WordsTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.directory = tempfile.TemporaryDirectory()
        with open(SAMPLE, "rb") as file:
            cls.sample = file.read()
        words, rows = read_sample(cls.sample)
        keep = [i for i, word in enumerate(words) if i < SMALL_WORDS or word in MORE_WORDS]
        words, rows = [words[i] for i in keep], [rows[i] for i in keep]
        cls.oracle = Oracle(words, rows)
        cls.small_bytes = sample_bytes(words, rows)
        cls.small = cls.write("small.qxw", cls.small_bytes)

    @classmethod
    def tearDownClass(cls):
        cls.directory.cleanup()

    @classmethod
    def write(cls, name, content):
        path = os.path.join(cls.directory.name, name)
        with open(path, "wb") as file:
            file.write(content)
        return path

    def answer(self, *arguments, **options):
        """Runs the program, which must succeed silently, and returns its output."""
        options.setdefault("data", self.small)
        result = run(*arguments, **options)
        self.assertEqual((result.returncode, result.stderr), (0, ""), arguments)
        for line in result.stdout.split("\n"):
            self.assertLessEqual(len(line), 100, line)
        return result.stdout

    def refuse(self, *arguments, says="", **options):
        """Runs the program, which must refuse its input in one line."""
        options.setdefault("data", self.small)
        result = run(*arguments, **options)
        self.assertEqual(result.returncode, 2, (arguments, result))
        self.assertRegex(result.stderr, r"\Awords: [^\n]+\n\Z", arguments)
        self.assertIn(says, result.stderr)

    def same_answer(self, found, expected):
        """Compares words in order and scores; equal scores may stand in either order."""
        self.assertEqual(len(found), len(expected))
        for (word, score), (expected_score, expected_word) in zip(found, expected):
            self.assertAlmostEqual(score, expected_score, delta=1e-4)
            if word != expected_word:
                own = [s for s, w in expected if w == word]
                self.assertTrue(own and abs(own[0] - expected_score) < 1e-5, (word, expected_word))


class Neighbours(WordsTest):
    def test_exact_answer_is_that_of_plain_arithmetic(self):
        exact, _, letter = columns(self.answer("king", "--k", "20"))
        self.assertIn("queen", [word for word, _ in exact[:3]])
        self.same_answer(exact, self.oracle.scores([(1, "king")])[:20])
        self.same_answer(letter, self.oracle.scores([(1, "king")], lambda w: w[0] == "k")[:20])

    def test_ivf_over_all_lists_is_exact(self):
        exact, ivf, _ = columns(self.answer("king", "--k", "50", "--nprobe", "1000000"))
        self.assertEqual(exact, ivf)

    def test_ivf_over_few_lists_finds_real_scores(self):
        _, ivf, _ = columns(self.answer("king", "--nprobe", "2"))
        truth = {word: score for score, word in self.oracle.scores([(1, "king")])}
        self.assertTrue(ivf)
        for word, score in ivf:
            self.assertAlmostEqual(score, truth[word], delta=1e-4)

    def test_sum_of_words(self):
        expected = self.oracle.scores([(1, "king"), (-1, "man"), (1, "woman")])[:10]
        for arguments in (["king - man + woman"], ["king", "-", "man", "+", "woman"],
                          ["--like", "king - man + woman"]):
            self.same_answer(columns(self.answer(*arguments))[0], expected)
        self.assertEqual(expected[0][1], "queen")

    def test_letter(self):
        expected = self.oracle.scores([(1, "king")], lambda word: word[0] == "q")[:10]
        output = self.answer("--like", "king", "--letter", "Q")
        partition, label, _ = columns(output)
        self.assertEqual(partition, label)
        self.same_answer(label, expected)
        self.assertTrue(all(word.startswith("q") for word, _ in label))

    def test_words_that_begin_with_no_letter(self):
        found = columns(self.answer("king", "--letter", "#"))[0]
        self.assertTrue(found)
        self.assertFalse([word for word, _ in found if "a" <= word[0] <= "z"])

    def test_length_alone_and_with_a_letter(self):
        found = columns(self.answer("king", "--length", "6"))[0]
        self.same_answer(found, self.oracle.scores([(1, "king")], lambda w: len(w) == 6)[:10])
        found = columns(self.answer("king", "--length=5", "--letter=q"))[0]
        self.same_answer(found, self.oracle.scores(
            [(1, "king")], lambda w: len(w) == 5 and w[0] == "q")[:10])
        self.assertEqual(found[0][0], "queen")

    def test_no_word_passes(self):
        self.assertIn("(nothing)", self.answer("king", "--length", "999"))

    def test_k(self):
        self.assertEqual(len(columns(self.answer("king", "--k", "1"))[0]), 1)
        self.assertEqual(len(columns(self.answer("king", "--k", "1000"))[0]), 1000)
        self.answer(" + ".join(["government"] * 16))

    def test_more_neighbours_than_words(self):
        words = self.write("three.qxw", sample_bytes(["a", "b", "c"], [[1, 0], [0, 1], [1, 1]]))
        exact, ivf, _ = columns(self.answer("a", "--k", "1000", "--nprobe", "9", data=words))
        self.assertEqual(exact, [("c", 0.7071), ("b", 0.0)])
        self.assertEqual(exact, ivf)

    def test_deleted_word_is_gone(self):
        output = self.answer("king", "--without", "queen", "--without", "PRINCE")
        now, ivf, _ = columns(output)
        expected = self.oracle.scores([(1, "king")], lambda w: w not in ("queen", "prince"))
        self.same_answer(now, expected[:10])
        self.assertFalse({"queen", "prince"} & {word for word, _ in ivf})

    def test_capitals_do_not_matter(self):
        self.assertEqual(columns(self.answer("KING")), columns(self.answer("king")))

    def test_words_that_look_like_options_or_signs(self):
        self.assertIn('Nearest to "-"', self.answer("-"))
        self.assertIn('Nearest to "-"', self.answer("--", "-"))
        self.assertIn('Nearest to ","', self.answer(","))


class CommandLine(WordsTest):
    def test_help(self):
        for flag in ("--help", "-h"):
            text = self.answer(flag)
            for option in ("--k", "--letter", "--length", "--nprobe", "--without", "--full",
                           "--prompt", "--data", "--like"):
                self.assertIn(option, text)

    def test_check_options_prints_nothing(self):
        self.assertEqual(self.answer("king", "--check-options"), "")
        self.refuse("king", "--check-options", "--k", "0")

    def test_bad_numbers(self):
        for option in ("--k", "--nprobe", "--length"):
            for value in ("0", "-1", "abc", "99999999999", "99999999999999999999", "", " 5", "5 ",
                          "+5", "5.0", "1e3", "0x10", "５"):
                self.refuse("king", option, value, says="whole number")

    def test_bad_arguments(self):
        self.refuse("king", "--letter", "qq", says="a letter")
        self.refuse("king", "--letter", "", says="a letter")
        self.refuse("king", "--letter", "é", says="a letter")
        self.refuse("--unknown", says="unknown option")
        self.refuse("-x", says="unknown option")
        self.refuse("king", "--k", says="needs a value")
        self.refuse("king", "--prompt=yes", says="no value")
        self.refuse("king", "--prompt", says="no word")
        self.refuse("--letter", "q", says="needs a word")
        self.refuse("--length", "3", says="needs a word")
        self.refuse("--without", "king", says="needs a word")
        self.refuse("--full", says="exclude")
        self.refuse("", says="empty")
        self.refuse(" ", says="no word")

    def test_bad_sums(self):
        self.refuse("king +", says="no word follows")
        self.refuse("king - king", says="adds up to nothing")
        self.refuse("king man", says="+ or -")
        self.refuse("king man woman", says="+ or -")
        self.refuse(" + ".join(["king"] * 40), says="more than")

    def test_unknown_words(self):
        self.refuse("kign", says='did you mean "king"?')
        self.refuse("king", "--without", "quen", says='did you mean "queen"?')
        self.refuse("xzqxzqxzqxzq", says="is not among")
        self.refuse("x" * 100000, says="is not among")
        self.refuse("a\x1b[31m", says='"a?[31m"')
        self.refuse("king", data="/missing\n\x1b[31m", says="missing??[31m")
        self.refuse("--un\nknown", says="un?known")
        self.refuse(b"\xff\xfe".decode(errors="surrogateescape"), says="is not among")

    def test_reader_that_has_seen_enough(self):
        with subprocess.Popen([PROGRAM, "--data", self.small], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE) as process:
            process.stdout.close()
            self.assertEqual(process.stderr.read(), b"")
            self.assertIn(process.wait(TIMEOUT), (0, -signal.SIGPIPE))

    def test_output_that_cannot_be_written(self):
        if not os.path.exists("/dev/full"):
            self.skipTest("there is no /dev/full")
        with open("/dev/full", "w", encoding="ascii") as full:
            result = subprocess.run([PROGRAM, "--data", self.small, "king"], stdout=full,
                                    stderr=subprocess.PIPE, timeout=TIMEOUT, check=False)
        self.assertEqual((result.returncode, result.stderr),
                         (1, b"words: cannot write the output\n"))


class DataFiles(WordsTest):
    def refuse_file(self, content, says=""):
        self.refuse("king", data=self.write("bad", content), says=says)

    def changed(self, at, replacement):
        return self.small_bytes[:at] + replacement + self.small_bytes[at + len(replacement):]

    def test_the_project_sample(self):
        words, rows = read_sample(self.sample)
        self.assertEqual((len(words), len(rows[0])), (20000, 100))
        self.assertLess(len(self.sample), 5_000_000)
        exact = columns(self.answer("king", data=SAMPLE))[0]
        self.assertIn("queen", [word for word, _ in exact[:3]])

    def test_missing_empty_and_directory(self):
        self.refuse("king", data=os.path.join(self.directory.name, "missing"), says="cannot read")
        self.refuse("king", data=self.directory.name, says="cannot read")
        self.refuse_file(b"")
        self.refuse("king", "--data", "", data=None)

    def test_truncated_at_any_place(self):
        size = len(self.small_bytes)
        for length in (1, 7, 8, 31, 32, 33, 1000, size // 2, size - 1):
            self.refuse_file(self.small_bytes[:length])
        self.refuse_file(self.small_bytes + b"\0", says="bytes where")

    def test_wrong_magic_and_version(self):
        self.refuse_file(self.changed(0, b"XXWORDS\n"), says="does not begin")
        self.refuse_file(self.changed(8, b"\x02"), says="version 2")

    def test_absurd_counts(self):
        for at in (12, 16, 20):
            for count in (0, 2**31 - 1, 2**31, 2**32 - 1):
                self.refuse_file(self.changed(at, struct.pack("<I", count)))
        self.refuse_file(struct.pack("<8sIIIII4x", b"QXWORDS\n", 1, 0, 100, 0, 0), says="no words")

    def test_one_bit_changed(self):
        for at in (32, 5000, len(self.small_bytes) - 1):
            self.refuse_file(self.changed(at, bytes([self.small_bytes[at] ^ 1])), says="checksum")

    def test_numbers_that_are_not_finite(self):
        for value in (math.inf, -math.inf, math.nan):
            self.refuse_file(sample_bytes(["king", "b"], [[1, 0], [value, 1]]), says="not finite")

    def test_words_that_are_no_words(self):
        for word in ("", "king", "a b", "a\x1b[2J", "\u0085"):
            self.refuse_file(sample_bytes(["king", word], [[1, 0], [0, 1]]))
        text = b"king\n\xff\xfe\n"
        body = text + struct.pack("<4e", 1, 0, 0, 1)
        self.refuse_file(struct.pack("<8sIIIII4x", b"QXWORDS\n", 1, 2, 2, len(text),
                                     zlib.crc32(body)) + body, says="plain text")

    def test_word_of_no_length_is_left_out(self):
        path = self.write("zero", sample_bytes(["a", "b", "c"], [[1, 0], [0, 0], [1, 1]]))
        output = self.answer("a", data=path)
        self.assertIn("1 without a vector skipped", output)
        self.assertEqual(columns(output)[0], [("c", 0.7071)])
        self.refuse("b", data=path, says="is not among the 2 words")


class Json(WordsTest):
    def package(self, **changes):
        words = {"king": [3, 4], "queen": [4, 3], "car": [-1, 0.5], "the": [0.25, 1e-3]}
        members = {
            "precision": 8, "l2NormIndex": 2, "wordIndex": 3, "size": 4, "dimensions": 2,
            "words": list(words),
            "vectors": {word: row + [math.hypot(*row), i]
                        for i, (word, row) in enumerate(words.items())},
            "unkVector": [0, 0, 0, -1], "other": {"nested": [{"deep": [None, True, "x", -1.5]}]},
        }
        members.update(changes)
        return {name: value for name, value in members.items() if value is not None}

    def path(self, package):
        text = package if isinstance(package, str) else json.dumps(package)
        return self.write("package.json", text.encode())

    def refuse_package(self, package, says="is not the words' JSON"):
        self.refuse("king", data=self.path(package), says=says)

    def test_valid(self):
        exact = columns(self.answer("king", data=self.path(self.package())))[0]
        self.assertEqual(exact, [("queen", 0.96), ("the", 0.6032), ("car", -0.1789)])

    def test_vectors_in_another_order(self):
        package = self.package()
        package["vectors"] = dict(reversed(package["vectors"].items()))
        exact = columns(self.answer("king", data=self.path(package)))[0]
        self.assertEqual(exact[0], ("queen", 0.96))

    def test_word_without_a_vector_is_skipped(self):
        package = self.package()
        del package["vectors"]["car"]
        output = self.answer("king", data=self.path(package))
        self.assertIn("1 without a vector skipped", output)
        self.assertEqual([word for word, _ in columns(output)[0]], ["queen", "the"])

    def test_truncated_at_every_byte(self):
        text = json.dumps(self.package())
        for length in range(1, len(text), 7):
            self.refuse_package(text[:length])

    def test_not_json(self):
        for text in ("{", "{}", "{]", "{\"words\": }", "{\"words\": [}", "{'a': 1}", "{\0}",
                     '{"a": ' + "[" * 100000, "{}{}"):
            self.refuse_package(text)
        for text in ("[]", "null", "words"):
            self.refuse_package(text, says="is not a word file")

    def test_wrong_dimensions(self):
        for dimensions in (0, -1, 3, 1, 1.5, 1e300, 2**31, "2", None):
            self.refuse_package(self.package(dimensions=dimensions))

    def test_wrong_rows(self):
        for row in ([], [1], [3, 4, 5, 0, 0], [3, 4, 5, 1], [3, 4, 5, -1], [3, 4, 5, 9],
                    [3, 4, 5, 0.5], [3, 4, 5, 1e300], [1e39, 4, 5, 0], [3, "4", 5, 0],
                    [3, None, 5, 0], [3, [4], 5, 0], {"a": 1}, "x", 7):
            package = self.package()
            package["vectors"]["king"] = row
            self.refuse_package(package)
        self.refuse_package(json.dumps(self.package()).replace("[3, 4", "[3e999, 4"))

    def test_wrong_members(self):
        for changes in ({"words": {}}, {"words": "king"}, {"words": [1]}, {"words": [["king"]]},
                        {"words": []}, {"words": None}, {"vectors": []}, {"vectors": None},
                        {"vectors": {}, "words": None}, {"vectors": 3}):
            self.refuse_package(self.package(**changes))

    def test_members_twice_or_late(self):
        text = json.dumps(self.package())
        words = '"words": ["king", "queen", "car", "the"], '
        self.refuse_package(text.replace(words, words + words))
        self.refuse_package(text.replace(words, words + '"dimensions": 2, '))
        self.refuse_package(text.replace(words, "").replace('"unk', words + '"unk'))
        vectors = text[text.index('"vectors"'):text.index('"unk')]
        self.refuse_package(text.replace(vectors, vectors + vectors))
        self.refuse_package(text.replace('"vectors": {', '"vectors": {"king": [1, 2, 3, 0], '))

    def test_make_sample_makes_what_the_program_reads(self):
        source = self.path(self.package())
        target = os.path.join(self.directory.name, "made.qxw")
        made = []
        for _ in range(2):
            subprocess.run([sys.executable, MAKE_SAMPLE, source, target, "3"], check=True,
                           capture_output=True, timeout=TIMEOUT)
            with open(target, "rb") as file:
                made.append(file.read())
        self.assertEqual(made[0], made[1])
        self.assertEqual(read_sample(made[0]),
                         (["king", "queen", "car"], [[3, 4], [4, 3], [-1, 0.5]]))
        self.assertEqual(columns(self.answer("king", data=target))[0][0], ("queen", 0.96))

    def test_make_sample_refuses_bad_input(self):
        good = self.path(self.package())
        bad = self.write("bad.json", b'{"words": [')
        short = self.write("short.json", json.dumps(self.package(dimensions=3)).encode())
        target = os.path.join(self.directory.name, "never.qxw")
        for arguments in ([], [good], [good, target, "0"], [good, target, "x"], [good, target, "5"],
                          [bad, target, "1"], [short, target, "1"], ["missing", target],
                          [good, os.path.join(target, "x"), "1"]):
            result = subprocess.run([sys.executable, MAKE_SAMPLE, *arguments], capture_output=True,
                                    text=True, timeout=TIMEOUT, check=False)
            self.assertEqual(result.returncode, 2, arguments)
            self.assertRegex(result.stderr, r"\Amake_sample.py: [^\n]+\n\Z")
            self.assertFalse(os.path.exists(target))


class Tour(WordsTest):
    def check_tour(self, output):
        self.assertIn("all identical", output)
        self.assertNotIn("DIFFERENT", output)
        self.assertIn("called 30 of the library's 30 functions", output)

    def test_whole_sample(self):
        output = self.answer(data=SAMPLE)
        self.check_tour(output)
        self.assertIn("20,000 rows copied", output)
        self.assertIn("0 partitions of 20,000 rows or more", output)
        self.assertRegex(output, r"8 partitions of 1,091 rows or more: a 1,349, b 1,145")

    def test_deleted_word_goes_and_comes_back(self):
        output = self.answer()
        step = output[output.index('Delete "queen"'):output.index("Insert a row")]
        flat = " ".join(step.split())
        gone, sealed = flat.split("still sealed:")
        sealed, back = sealed.split("visible now:")
        gone = gone.split("visible now:")[1]
        self.assertNotIn("queen 0.", gone)
        self.assertIn("queen 0.", sealed)
        self.assertIn("queen 0.", back)

    def test_recall_over_all_lists_is_complete(self):
        output = self.answer()
        table = output[output.index("lists scanned"):output.index("Search what passes")]
        rows = [line.split() for line in table.split("\n") if line[3:4].isdigit()]
        recalls = [float(row[3]) for row in rows]
        self.assertEqual(recalls, sorted(recalls))
        self.assertEqual((rows[-1][1], recalls[-1]), ("100.0", 100.0))
        self.assertLess(recalls[0], 100.0)

    def test_options(self):
        output = self.answer("--k", "2", "--nprobe", "3")
        self.check_tour(output)
        self.assertIn("of which a search scans 3", output)

    def test_few_words_and_dimensions(self):
        for count in (1, 2, 3, 5):
            words = [f"w{i}" for i in range(count)]
            for dimension in (1, 7):
                rows = [[(i + 2) * (j + 3) % 5 + 1 for j in range(dimension)]
                        for i in range(count)]
                path = self.write("few.qxw", sample_bytes(words, rows))
                self.check_tour(self.answer(data=path))


class Prompt(WordsTest):
    def talk(self, *lines, errors=0):
        """Sends lines to the prompt, and returns its output."""
        result = run("--prompt", data=self.small, text_in="".join(line + "\n" for line in lines))
        self.assertEqual(result.returncode, 0)
        self.assertEqual(result.stderr.count("\n"), errors, result.stderr)
        self.errors = result.stderr
        return result.stdout

    def test_end_of_input_and_quit(self):
        self.talk()
        self.talk("", "   ", "quit", "never read")
        self.assertNotIn("Nearest", self.talk("exit", "king"))
        result = run("--prompt", data=self.small, text_in="king")
        self.assertEqual((result.returncode, result.stderr), (0, ""))
        self.assertIn("Nearest", result.stdout)

    def test_delete_and_insert(self):
        output = self.talk("king", "delete queen", "king", "insert queen", "king")
        before, gone, back = [columns("Nearest to " + part)[0]
                              for part in output.split("Nearest to ")[1:]]
        self.assertIn("queen", [word for word, _ in before])
        self.assertNotIn("queen", [word for word, _ in gone])
        self.assertEqual(before, back)

    def test_every_column_follows_a_change(self):
        output = self.talk("delete kings", "king")
        for column in columns(output):
            self.assertTrue(column)
            self.assertNotIn("kings", [word for word, _ in column])

    def test_new_word(self):
        output = self.talk("insert royalwoman = king - man + woman", "queen", "royalwoman",
                              "delete royalwoman", "queen")
        first, second, third = [columns("Nearest to " + part)
                                for part in output.split("Nearest to ")[1:]]
        expected = self.oracle.scores([(1, "king"), (-1, "man"), (1, "woman")])
        score = next(score for score, word in expected if word == "queen")
        for column in first[:2]:
            self.assertIn("royalwoman", [word for word, _ in column])
            self.assertAlmostEqual(dict(column)["royalwoman"], score, delta=1e-4)
        self.assertEqual(second[0][0][0], "king")
        self.assertNotIn("royalwoman", [word for word, _ in third[0]])

    def test_filters_and_sums(self):
        output = self.talk("letter q king", "length 6 king", "king - man + woman", "like letter",
                           "letter", "help", "status", "nprobe 1")
        parts = ["Nearest to " + part for part in output.split("Nearest to ")[1:]]
        self.assertTrue(all(word[0] == "q" for word, _ in columns(parts[0])[0]))
        self.assertTrue(all(len(word) == 6 for word, _ in columns(parts[1])[0]))
        self.assertEqual(columns(parts[2])[0][0][0], "queen")
        self.assertEqual(columns(parts[3]), columns(parts[4]))
        self.assertIn("1,209 sealed rows", output)

    def test_command_words_in_sums(self):
        output = self.talk("like + king", "letter - king", "king + like")
        parts = ["Nearest to " + part for part in output.split("Nearest to ")[1:]]
        self.same_answer(columns(parts[0])[0], self.oracle.scores([(1, "like"), (1, "king")])[:10])
        self.same_answer(columns(parts[1])[0],
                         self.oracle.scores([(1, "letter"), (-1, "king")])[:10])
        self.assertEqual(columns(parts[0])[0], columns(parts[2])[0])

    def test_mistakes_do_not_end_it(self):
        mistakes = ["kign", "letter qq king", "letter q", "length x king", "length 0 king",
                    "delete kign", "delete queen man", "insert queen", "insert king = queen",
                    "insert new =", "insert new = kign", "insert new word = king", "nprobe 0",
                    "nprobe 99999999999", "nprobe x", "king - king", "king +", "+ king king",
                    "x" * 5000, "\x1b[31m", "insert " + "y" * 70 + " = king", "king\0man"]
        output = self.talk(*mistakes, "delete queen", "delete queen", "king",
                              errors=len(mistakes) + 1)
        self.assertIn('did you mean "king"?', self.errors)
        self.assertNotIn("\x1b", self.errors)
        self.assertIn("Nearest to \"king\"", output)
        self.assertTrue(all(line.startswith("words: ") for line in self.errors.splitlines()))

    def test_without(self):
        result = run("--prompt", "--without", "queen", data=self.small, text_in="king\n")
        self.assertNotIn("queen", [word for word, _ in columns(result.stdout)[0]])


class Terminal(WordsTest):
    @contextlib.contextmanager
    def terminal(self, *arguments):
        """Runs the program on a terminal of its own."""
        master, slave = pty.openpty()
        process = subprocess.Popen([PROGRAM, "--data", self.small, *arguments], stdin=slave,
                                   stdout=slave, stderr=slave, start_new_session=True)
        os.close(slave)
        try:
            yield process, master
        finally:
            process.kill()
            process.wait()
            os.close(master)

    def read_until(self, master, end):
        """Returns what the terminal shows until it shows the end, or the program is gone."""
        shown = b""
        deadline = time.monotonic() + TIMEOUT
        while not shown.endswith(end):
            ready, _, _ = select.select([master], [], [], max(0, deadline - time.monotonic()))
            self.assertTrue(ready, shown)
            try:
                shown += os.read(master, 65536)
            except OSError:
                break
        return shown.decode().replace("\r\n", "\n")

    def test_prompt_follows_the_tour(self):
        with self.terminal() as (process, master):
            tour = self.read_until(master, b"\n> ")
            self.assertIn("all identical", tour)
            os.write(master, b"letter q king\n")
            answer = self.read_until(master, b"\n> ")
            self.assertEqual(columns(answer)[0][0][0], "queen")
            os.write(master, b"kign\n")
            self.assertIn('did you mean "king"?', self.read_until(master, b"\n> "))
            os.write(master, b"quit\n")
            self.read_until(master, b"never")
            self.assertEqual(process.wait(TIMEOUT), 0)

    def test_end_of_input(self):
        with self.terminal("--prompt") as (process, master):
            self.read_until(master, b"\n> ")
            os.write(master, b"\x04")
            self.read_until(master, b"never")
            self.assertEqual(process.wait(TIMEOUT), 0)

    def test_one_word_needs_no_prompt(self):
        with self.terminal("king") as (process, master):
            shown = self.read_until(master, b"never")
            self.assertEqual(process.wait(TIMEOUT), 0)
            self.assertNotIn("> ", shown)
            self.assertIn("queen", shown)


if __name__ == "__main__":
    if len(sys.argv) < 2 or not os.access(sys.argv[1], os.X_OK):
        print("usage: test_words.py PROGRAM [unittest options]", file=sys.stderr)
        sys.exit(2)
    PROGRAM = os.path.abspath(sys.argv.pop(1))
    unittest.main()
