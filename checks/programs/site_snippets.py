"""Runs the programs that stand in Markdown pages, and compares what they print.

site_snippets.py FOLDER PAGE...    works in FOLDER/<name of the page>; --show prints differing output

docs/site/README.md says how a page marks its programs.
"""
import pathlib
import re
import subprocess
import sys

CODE = {"c", "cpp", "cmake", "python", "sh"}
BLOCK = re.compile(r"(?:^<!-- (file: (?P<file>[\w.]+)|(?P<run>run)) -->\n)?"
                   r"^```(?P<language>\w*)\n(?P<text>.*?)^```$", re.M | re.S)


def results_of(page, folder):
    """What was tried in a page: pairs of a name and None or what is wrong."""
    text = page.read_text()
    blocks = list(BLOCK.finditer(text))
    if text.count("\n```") != 2 * len(blocks):
        yield page.name, "a block is not closed, or its mark is not above it"
    for at, block in enumerate(blocks):
        where = f"{page.name}:{text[:block.start()].count(chr(10)) + 1}"
        if block["file"]:
            (folder / block["file"]).write_text(block["text"])
        elif block["run"]:
            shown = blocks[at + 1] if at + 1 < len(blocks) else None
            if shown is None or shown["language"] != "text":
                yield where, "no block shows the output"
                continue
            yield f"{where} {block['text'].splitlines()[-1]}", wrong_with(block, shown, folder)
        elif block["language"] in CODE:
            yield where, "this block is neither a file nor run"


def wrong_with(block, shown, folder):
    try:
        done = subprocess.run(["bash", "-euo", "pipefail", "-c", block["text"]], cwd=folder,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, timeout=300)
    except subprocess.TimeoutExpired:
        return "takes more than 300 seconds"
    if done.returncode != 0:
        return f"ends with {done.returncode}\n{done.stderr}"
    if done.stderr:
        return f"writes to standard error\n{done.stderr}"
    if done.stdout != shown["text"]:
        return f"prints\n{done.stdout}and the page shows\n{shown['text']}"
    return None


def main():
    if len(sys.argv) < 3:
        sys.exit("usage: site_snippets.py FOLDER PAGE...")
    passed = failed = 0
    for page in map(pathlib.Path, sys.argv[2:]):
        folder = pathlib.Path(sys.argv[1]) / page.stem
        folder.mkdir(parents=True)
        for name, wrong in results_of(page, folder):
            if wrong is None:
                passed += 1
                print(f"{name}: passed", flush=True)
            else:
                failed += 1
                print(f"{name}: failed: {wrong}", flush=True)
    print(f"programs: {passed} passed, {failed} failed")
    return 1 if failed or not passed else 0


sys.exit(main())
