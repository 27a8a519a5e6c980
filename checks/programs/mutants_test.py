"""Tests of what mutants.py excuses, by entries and by markers, and of mutation.py's verdict."""
import contextlib
import io
import unittest

from mutants import Excused, Source, tokens_of
from mutation import report

FILE = "engine/map.h"
CODE = """\
int find(int key) {
  // Tuning: how far the loop looks ahead.
  const int ahead = 16;

  if (key > 0) {
    return key + 1;
  }
  if (size > 0) return size;
  return ahead;
}
"""
ENTRY = """\
engine/map.h: no key is 1, so both are equal
- if (key > 0) {
+ if (key > 1) {
    return key + 1;
"""


def excused(code, entries=""):
    return Excused([Source(FILE, code)], entries)


def changes(code, entries=ENTRY):
    """The changed lines that the entries excuse, and the problems."""
    found = excused(code, entries)
    return [mutant.changed.strip() for mutant in found.reasons], found.problems


class Entries(unittest.TestCase):
    def test_excuse_the_mutant_of_each_changed_line(self):
        self.assertEqual((["if (key > 1) {"], []), changes(CODE))
        both = ENTRY.replace("+ if", "+ if (key <= 0) {\n+ if")
        self.assertEqual((["if (key <= 0) {", "if (key > 1) {"], []), changes(CODE, both))

    def test_survive_better_names(self):
        renamed = CODE.replace("key", "id").replace("find", "lookup").replace("ahead", "kDistance")
        self.assertEqual((["if (id > 1) {"], []), changes(renamed))

    def test_survive_another_place_indentation_line_breaks_and_comments(self):
        moved = """\
struct Map {
  int lookup(int key) {
    if (key >
        0) {  // the usual case
      return
          key + 1;
    }
  }
};
"""
        self.assertEqual((["1) {"], []), changes(moved))

    def test_excuse_a_removed_statement(self):
        entry = f"{FILE}: the copy has the same numbers\n  size = 3;\n- key = copy;\n+ ;\n"
        code = "void f() {\n  size = 3;\n  key = copy;\n  size = key;\n}\n"
        self.assertEqual(([";"], []), changes(code, entry))

    def test_leave_out_lines_without_a_changed_line(self):
        entry = f"{FILE}: either way is right\n- if (key > 0) {{\n    return key + 1;\n"
        found = excused(CODE, entry)
        self.assertEqual([], found.problems)
        self.assertEqual({3, 5}, {mutant.number for mutant in found.left_out()})

    def test_are_errors_where_they_do_not_fit(self):
        two_names = f"{FILE}: both are positive\n- if (a > 0 && b > 0) {{\n+ if (a > 0 || b > 0) {{\n"
        for part, code, entries in [
                ("0 pieces", CODE.replace("key > 0", "key > 7"), ENTRY),
                ("0 pieces", "  if (a > 0 && a > 0) {\n", two_names),  # two names became one
                ("0 pieces", CODE.replace("return key + 1", "return size + 1"), ENTRY),
                ("0 pieces", CODE, ENTRY.replace("map.h", "maps.h")),  # no such file
                ("2 pieces", CODE + CODE, ENTRY),
                ("has no mutant", CODE, ENTRY.replace("> 1", "> 2")),
                ("not a file with a reason", CODE, ENTRY.replace("no key is 1, so both ", ""))]:
            with self.subTest(part=part, code=code, entries=entries):
                found, problems = changes(code, entries)
                self.assertEqual(([], 1), (found, len(problems)), problems)
                self.assertIn(part, problems[0])


class Markers(unittest.TestCase):
    def test_leave_out_the_lines_up_to_a_blank_one(self):
        found = excused(CODE)
        self.assertEqual([], found.problems)
        self.assertEqual({"const int ahead = 17;", "const int ahead = 15;", "const int ahead = 0;"},
                         {mutant.changed.strip() for mutant in found.left_out()})

    def test_leave_out_the_lines_up_to_the_end_of_the_block(self):
        found = excused("int f() {\n  // Tuning: any number will do.\n  return 3;\n}\nint a = 4;\n")
        self.assertEqual({3}, {mutant.number for mutant in found.left_out()})

    def test_are_errors_above_nothing(self):
        self.assertEqual(1, len(excused("// Tuning: any number will do.\n\nint a = 4;\n").problems))

    def test_are_errors_without_a_reason(self):
        self.assertEqual(1, len(excused("// Tuning: yes\nint a = 4;\n").problems))


class Verdicts(unittest.TestCase):
    def test_of_listed_mutants_may_be_survived_and_not_killed(self):
        found = excused(CODE, ENTRY)
        listed, = found.reasons
        others = [mutant for mutant in Source(FILE, CODE).mutants if mutant != listed]
        for verdict, passes, line in (("survived", True, "1 equivalent"),
                                      ("killed", False, "listed as equivalent, but killed")):
            verdicts = dict.fromkeys(others, "killed") | {listed: verdict}
            with contextlib.redirect_stdout(io.StringIO()) as printed:
                self.assertEqual(passes, report([*others, listed], found, verdicts))
            self.assertIn(line, printed.getvalue())


class Tokens(unittest.TestCase):
    def test_are_names_unless_the_language_fixes_them(self):
        tokens = tokens_of("if (std::min(a, b) >> 2u != kMost) return;  // c")
        names = [token.text for token in tokens if token.is_name]
        self.assertEqual(["a", "b", "kMost"], names)

    def test_keep_operators_and_numbers_whole(self):
        self.assertEqual(["a", ">>=", "0xFFu", "->", "b", "<<", "1.5e-3f"],
                         [token.text for token in tokens_of("a >>= 0xFFu->b << 1.5e-3f")])


if __name__ == "__main__":
    unittest.main()
