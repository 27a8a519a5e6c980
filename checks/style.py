"""Reads the sources for what ./check style promises. Prints each finding and their number."""
import pathlib
import re
import sys

LONGEST_LINE = 100
LONGEST_FUNCTION = 60
WORDS = ["TO" + "DO", "FIX" + "ME", "X" + "XX", "ha" + "ck", "sim" + "ply", "obvi" + "ously"]
BANNED = re.compile(r"\b(" + "|".join(WORDS) + r")\b", re.IGNORECASE)
SOURCES = {".h", ".hpp", ".c", ".cpp"}
FOLDERS = ("engine", "include", "collection", "tests", "examples", "checks", "bench", "bindings",
           "hosts")


def functions(lines):
    """The first line and length of each function whose closing brace stands in its opening column."""
    start = None
    for number, line in enumerate(lines, 1):
        if re.match(r"(  )?[\w\[][^;={}]*\($|(  )?[\w\[~][^;]*\(.*[^;]$", line) and start is None:
            start = (number, len(line) - len(line.lstrip()))
        elif start and line == " " * start[1] + "}":
            yield start[0], number - start[0] + 1
            start = None
        elif start and not line.startswith(" ") or line.endswith(";") and start and number == start[0]:
            start = None


def findings_of(path):
    lines = path.read_text(encoding="utf-8").splitlines()
    for number, line in enumerate(lines, 1):
        if path.suffix in SOURCES and len(line) > LONGEST_LINE:
            yield f"{path}:{number}: {len(line)} columns"
        word = BANNED.search(line)
        if word:
            yield f"{path}:{number}: the word '{word.group()}'"
    if path.suffix in SOURCES:
        for number, length in functions(lines):
            if length > LONGEST_FUNCTION:
                yield f"{path}:{number}: a function of {length} lines"


def unnamed():
    for path in sorted(pathlib.Path("engine").rglob("*.*")):
        name = str(path.relative_to("engine"))
        if path.suffix in SOURCES and f"`{name}`" not in pathlib.Path("engine/README.md").read_text():
            yield f"{path}: not named in engine/README.md"
    readme = pathlib.Path("checks/README.md").read_text()
    listed = re.findall(r"^check-(\S+)\n(?:.+\n)*proves ", pathlib.Path("scripts/commands.txt").read_text(),
                        re.MULTILINE)
    programs = [path for path in sorted(pathlib.Path("checks").iterdir()) if path.is_file()]
    for path in programs:
        if path.name not in [*listed, "README.md"] and f"`{path.name}`" not in readme:
            yield f"{path}: not named in scripts/commands.txt or checks/README.md"
    for name in set(listed) - {path.name for path in programs}:
        yield f"scripts/commands.txt: there is no check {name}"


# What the files of a layer may include: their own layer and those below.
ENGINE = {
    "interface": {"interface", "read", "store", "support"},
    "read": {"read", "store", "kernels", "support"},
    "store": {"store", "kernels", "support", "qx_runtime.h"},
    "kernels": {"kernels", "support"},
    "support": {"support"},
}
BELOW = {"lists", "columns", "metric", "threads", "index", "support", "read", "store", "kernels"}
COLLECTION = {
    "include": {"qx_collection.h"},
    "interface": {"interface", "files", "search", "state"} | BELOW,
    "files": {"files", "state"} | BELOW,
    "search": {"search", "batch", "state"} | BELOW,
    "batch": {"batch", "read", "kernels", "support"},
    "state": {"state"} | BELOW,
    "lists": {"lists", "threads", "index", "read", "support"},
    "columns": {"columns", "support"},
    "metric": {"metric", "read", "kernels", "support"},
    "threads": {"threads", "support"},
    "index": {"index", "store", "support"},
    "support": {"support", "qx_collection.h"},
}


def upward_includes(folder, layers):
    for path in sorted(pathlib.Path(folder).rglob("*.*")):
        if path.suffix not in SOURCES:
            continue
        layer = path.relative_to(folder).parts[0]
        if layer not in layers:
            yield f"{path}: no file of {folder} is outside of its layers"
            continue
        for name in re.findall(r'^#include "(.*)"$', path.read_text(encoding="utf-8"), re.MULTILINE):
            if name.split("/")[0] not in layers[layer]:
                yield f"{path}: includes {name}, which is no part of {', '.join(sorted(layers[layer]))}"


def main():
    paths = sorted(path for folder in FOLDERS for path in pathlib.Path(folder).rglob("*"))
    text = [path for path in paths if path.suffix in SOURCES or path.suffix in {".sh", ".md"}]
    findings = [finding for path in text for finding in findings_of(path)] + list(unnamed()) + \
        list(upward_includes("engine", ENGINE)) + list(upward_includes("collection", COLLECTION))
    print("\n".join(findings), end="\n" if findings else "")
    print(f"style: {len(text)} files, {len(findings)} findings")
    return 1 if findings else 0


sys.exit(main())
