#!/usr/bin/env python3
"""Tests the demo through its command line: test_words.py PROGRAM [unittest options]

Scores have the same bits on every CPU, so that all but times is compared as it is printed.
"""
import json
import math
import os
import pathlib
import pty
import re
import subprocess
import sys
import tempfile
import unittest

ROOT = pathlib.Path(__file__).resolve().parents[2]
FOLDER = tempfile.TemporaryDirectory()
SCREEN = """\
20,000 words of 100 floats, by cosine. Columns: letter, length, rank
> king
  prince 0.768  queen 0.751  son 0.702  brother 0.699  monarch 0.698
> king - man + woman
  queen 0.770  monarch 0.684  throne 0.676  daughter 0.659  princess 0.652
> king where letter = 'q' AND length < 7
  queen 0.751  qin 0.344  quoted 0.335  queens 0.332  quest 0.332
> .remove queen
  19,999 words
> king - man + woman
  monarch 0.684  throne 0.676  daughter 0.659  princess 0.652  prince 0.652
> .restore
  20,000 words
> king - man + woman
  queen 0.770  monarch 0.684  throne 0.676  daughter 0.659  princess 0.652
> .recall 0.9
  5 of 141 lists give 91.1 % of the 5 nearest, for 200 words
> .recall 0.99
  26 of 141 lists give 99.0 % of the 5 nearest, for 200 words
> king - man + woman
  queen 0.770  monarch 0.684  throne 0.676  daughter 0.659  princess 0.652
"""
ANSWERS = {
    "KING": "  prince 0.768  queen 0.751  son 0.702  brother 0.699  monarch 0.698",
    "king -man +woman":
        "  queen 0.770  monarch 0.684  throne 0.676  daughter 0.659  princess 0.652",
    "king-man+woman": "  queen 0.770  monarch 0.684  throne 0.676  daughter 0.659  princess 0.652",
    "well-known":
        "  notable 0.814  renowned 0.790  famous 0.790  best-known 0.769  prominent 0.728",
    "-": "  ' 0.679  _ 0.663  old 0.652  long 0.641  up 0.634",
    "king where": "  . 0.779  when 0.771  once 0.767  later 0.766  one 0.754",
    "king where length = 4 AND rank <= 1000":
        "  john 0.587  name 0.558  rule 0.544  came 0.530  gave 0.529",
    "king WHERE letter IN ('é', '€')": "  € 0.076",
    "king where length > 99": "  no word passes",
}
COMPLAINTS = {
    "kign": 'no word "kign" is here; did you mean king, sign, kin',
    "king - qwxzqwxz": 'no word "qwxzqwxz" is here',
    "king -": "a word is missing",
    "king - king": "these words add up to nothing",
    "king where length = 'x'":
        "filter, byte 9: found 'x', expected a number of 64 bits to compare with length",
    ".k 0": "expected a number from 1 to 1000",
    ".probes x": "expected a number from 0 to 65536",
    ".recall 2": "expected a number from 0.01 to 1",
    ".remove": 'no word "" is here',
    ".save /no/such/folder/file": "/no/such/folder/file: its folder cannot be opened",
    "\x1b[31m": 'no word "?[31m" is here',
    "x" * 5000: 'no word "' + "x" * 291 + "...",
}


def path_of(name, content=None):
    path = pathlib.Path(FOLDER.name, name)
    if content is not None:
        path.write_bytes(content)
    return str(path)


def run(*arguments, lines="", **options):
    return subprocess.run([PROGRAM, *arguments], input=lines, text=True, check=False,
                          **{"stdout": subprocess.PIPE, "stderr": subprocess.PIPE, **options})


class WordsTest(unittest.TestCase):
    def output(self, *arguments, lines=""):
        result = run(*arguments, lines=lines)
        self.assertEqual((result.returncode, result.stderr), (0, ""), arguments)
        return result.stdout

    def refuses(self, *arguments, says):
        result = run(*arguments)
        self.assertEqual((result.returncode, result.stdout), (2, ""), arguments)
        self.assertRegex(result.stderr, rf"\Awords: .*{says}.*\n\Z")

    def test_first_screen(self):
        self.assertEqual(self.output(), SCREEN)
        master, slave = pty.openpty()
        with subprocess.Popen([PROGRAM], stdin=slave, stdout=slave, stderr=slave):
            os.close(slave)
            shown = b""
            while not shown.endswith(b"\n> "):
                shown += os.read(master, 65536)
            os.write(master, b".quit\n")
        os.close(master)
        lines = shown.decode().splitlines()
        self.assertEqual((len(lines) <= 24, max(map(len, lines)) <= 80), (True, True), lines)

    def test_answers(self):
        for line, answer in ANSWERS.items():
            self.assertEqual(self.output(*line.split()), answer + "\n", line)
        self.assertEqual(self.output("--prompt", lines="\n\n".join(ANSWERS)),
                         "".join(answer + "\n" for answer in ANSWERS.values()))
        many = self.output("--prompt", lines=".k 1000\n.probes 1\nking\n.probes 0\nking")
        self.assertEqual(len(re.findall(r"\S+ -?\d\.\d{3}\b", many)), 2000)

    def test_complaints_do_not_end_it(self):
        result = run("--prompt", lines="\n".join([*COMPLAINTS, "king\0man", "king"]))
        self.assertEqual(result.stderr.count("\n"), len(COMPLAINTS) + 1)
        for line, said in zip(result.stderr.splitlines(), COMPLAINTS.values()):
            self.assertEqual(line.startswith("words: " + said), True, (line, said))
        self.assertEqual((result.returncode, result.stdout), (0, ANSWERS["KING"] + "\n"))
        self.refuses("kign", says="king, sign")
        self.refuses("--unknown", says="option --unknown")
        self.refuses("king", "--file", says="option --file")

    def test_a_file_keeps_the_collection(self):
        path = path_of("collection")
        self.output("--file", path, "--prompt", lines=f".remove queen\n.recall 0.9\n.save {path}")
        kept = self.output("--file", path, "--data", "none", "--prompt", lines="king - man + woman")
        self.assertIn(SCREEN.splitlines()[10], kept)
        content = pathlib.Path(path).read_bytes()
        self.refuses("king", "--file", path_of("cut", content[:-1]), says="it is made again")

    def test_costs_and_help(self):
        costs = self.output("--costs")
        self.assertEqual(len(re.findall(r"^  .* \d+\.\d{3} ms$", costs, re.MULTILINE)), 8, costs)
        self.assertRegex(costs, r"\n  bytes a word +\d+\n\Z")
        text = (ROOT / "examples/words/help.txt").read_text()
        self.assertEqual(self.output("--help"), text)
        self.assertEqual(self.output("--prompt", lines=".help"), text)

    def test_output_that_cannot_be_written(self):
        with open("/dev/full", "w", encoding="ascii") as full:
            result = run("king", stdout=full)
        self.assertEqual((result.returncode, result.stderr),
                         (1, "words: cannot write the output\n"))

    def test_other_words(self):
        rows = {"a": [3, 4], "b": [4, 3], "c": [-4, 3]}
        vectors = {word: row + [math.hypot(*row), i] for i, (word, row) in enumerate(rows.items())}
        package = {"dimensions": 2, "words": [*rows, "none"], "vectors": vectors}
        source, target = path_of("json", json.dumps(package).encode()), path_of("words")
        make = [sys.executable, ROOT / "scripts/make_words", source, target]
        too_many = subprocess.run([*make, "4"], capture_output=True, check=False)
        self.assertEqual(too_many.returncode, 1)
        subprocess.run(make, check=True)
        self.assertEqual(self.output("--data", target, "a"), "  b 0.960  c 0.000\n")
        content = pathlib.Path(target).read_bytes()
        for damaged in (b"", content[:-1], content + b"\0", b"x" + content[1:]):
            self.refuses("--data", path_of("bad", damaged), "a", says="")
        self.refuses("--data", path_of("missing"), "a", says="cannot be read")


if __name__ == "__main__":
    PROGRAM = os.path.abspath(sys.argv.pop(1))
    unittest.main()
