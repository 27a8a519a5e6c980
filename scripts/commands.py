#!/usr/bin/env python3
"""Writes the table of checks/README.md from scripts/commands.txt; with --check, says whether it would
change. Every check of checks/ has a block there, and every block a check or a command."""

import os
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
README = ROOT / "checks/README.md"
BEGIN, END = "<!-- written by scripts/commands.py -->\n", "<!-- end of what is written -->\n"


def blocks():
    """(name, {field: text}) of every block, in the order of the file."""
    text = (ROOT / "scripts/commands.txt").read_text(encoding="utf-8")
    for block in text.split("\n\n"):
        lines = [line for line in block.splitlines() if not line.startswith("#")]
        if lines:
            fields = (line.partition(" ") for line in lines[1:])
            yield lines[0], {field: rest.strip() for field, _, rest in fields}


def table(checks):
    """The rows of the README, as one text."""
    rows = ["| Check | Minutes | What it proves | |\n", "|---|---|---|---|\n"]
    for name, fields in checks:
        command = "./check" if name == "check" else name
        mark = "*all*" if "in-all" in fields else ""
        rows.append(f"| `{command}` | {fields['minutes']} | {fields['proves']} | {mark} |\n")
    return "".join(rows)


def main():
    """The exit status."""
    if sys.argv[1:] not in ([], ["--check"]):
        print("usage: scripts/commands.py [--check]", file=sys.stderr)
        return 2
    checks = [(name.removeprefix("check-"), fields) for name, fields in blocks() if "proves" in fields]
    programs = {path.name for path in (ROOT / "checks").iterdir()
                if path.is_file() and os.access(path, os.X_OK) and path.suffix != ".py"}
    if programs != {name for name, _ in checks} - {"check"}:
        print(f"scripts/commands.txt: its checks are not those of checks/: "
              f"{sorted(programs ^ ({name for name, _ in checks} - {'check'}))}", file=sys.stderr)
        return 1
    before = README.read_text(encoding="utf-8")
    head, rest = before.split(BEGIN)
    after = head + BEGIN + table(checks) + END + rest.split(END)[1]
    if sys.argv[1:] == ["--check"] and after != before:
        print("checks/README.md: its table is not that of scripts/commands.txt; run scripts/commands.py",
              file=sys.stderr)
        return 1
    README.write_text(after, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main())
