"""Makes the pages of the site that are not written by hand.

site_pages.py PAGES    writes the references into PAGES from headers and docstrings, copies the plots of
                       the benchmark to PAGES/plots, puts into the other pages what stands elsewhere,
                       and the version into mkdocs.yml beside PAGES
"""
import pathlib
import re
import shutil
import sys
import textwrap

import header
import reference_pages

ROOT = pathlib.Path(__file__).resolve().parents[1]
DOCS = ROOT / "docs"


def marked(text, names, page=""):
    """Text as Markdown reads it: every function is a link, and nothing is taken for markup."""
    text = re.sub(r"([\\`*_<>\[\]#|])", r"\\\1", text)
    def link(match):
        plain = match[0].replace("\\", "")
        return f"[`{plain}`]({page}#{plain})" if plain in names else f"`{plain}`"
    return re.sub(r"\bqx\\_(?:\w|\\_)+", link, text)


def set_blocks(blocks, names, page=""):
    lines = []
    for block in blocks:
        if isinstance(block, tuple):
            lines += ["```text", *textwrap.dedent("\n".join(block)).splitlines(), "```", ""]
        else:
            lines += [marked(block, names, page), ""]
    return lines


def function_lines(function, names):
    lines = [f"### {function.name} {{: #{function.name} }}", "", "```c",
             function.prototype, "```", ""]
    lines += set_blocks(function.description, names)
    if function.parameters:
        lines += ["| parameter | meaning |", "|---|---|"]
        lines += [f"| `{name}` | {marked(text, names)} |" for name, text in function.parameters]
        lines.append("")
    if function.result:
        lines += [marked(function.result, names), ""]
    return lines + set_blocks(function.notes, names)


def reference(read):
    names = {function.name for function in read.functions}
    lines = ["# Reference", "", f"All {len(names)} functions of `qx_runtime.h`, in its words. This "
             "page is made from the header's own comments.", ""]
    lines += ["| family | functions |", "|---|---|"]
    sections = {}
    for function in read.functions:
        sections.setdefault(function.section, []).append(function)
    for section, functions in sections.items():
        links = " ".join(f"[`{function.name}`](#{function.name})" for function in functions)
        lines.append(f"| {section} | {links} |")
    lines += ["", "## Overview", "", *set_blocks(read.overview, names),
              "## What each function sees {: #views }", "", *set_blocks(read.views, names),
              "## Conventions", ""]
    for number, title, blocks in read.conventions:
        lines += [f"### {number}. {title} {{: #convention-{number} }}", "",
                  *set_blocks(blocks, names)]
    lines += ["## Constants", ""]
    for group in read.constants:
        lines += [marked(group.text, names), ""]
        lines += [f"- `{name}`: `{value}`" + (f", {marked(note, names)}" if note else "")
                  for name, value, note in group.named] + [""]
    for section, functions in sections.items():
        lines += [f"## {section}", ""]
        for function in functions:
            lines += function_lines(function, names)
    return "\n".join(lines) + "\n"


def benchmark_part(name):
    """The part of the report under a heading that begins with the name; "" is the machine."""
    report = (DOCS / "BENCHMARKS.md").read_text()
    parts = re.split(r"(?m)^## ", report)
    if not name:
        return parts[0][parts[0].index("| machine"):].strip()
    found = [part for part in parts[1:] if part.startswith(name)]
    if len(found) != 1:
        sys.exit(f"site_pages: BENCHMARKS.md has {len(found)} parts named '{name}'")
    return "## " + found[0].strip()


def word_recall(_):
    """What the page of the word vectors says under its title, without the picture."""
    paragraphs = (DOCS / "WORD_RECALL.md").read_text().split("\n\n")[2:]
    return "\n\n".join(part for part in paragraphs if not part.startswith("![")).strip()


def block_of(name):
    """A block of another document: "README.md 2" is the second of the README."""
    path, number = name.split()
    blocks = re.findall(r"^```(\w*)\n(.*?)^```$", (ROOT / path).read_text(), re.M | re.S)
    language, text = blocks[int(number) - 1]
    return f"```{language or 'text'}\n{text}```"


def opening(path):
    """What a document says under its title, up to the paragraph that introduces its first block."""
    return "\n\n".join((ROOT / path).read_text().split("\n\n```")[0].split("\n\n")[1:-1])


def part(name):
    """What stands in a document under a heading, without links that lead out of the site."""
    path, title = name.split(" ", 1)
    text = (ROOT / path).read_text()
    match = re.search(rf"(?m)^(#+) {re.escape(title)}\n", text)
    rest = re.split(rf"(?m)^#{{1,{max(2, len(match[1]))}}} ", text[match.end():])[0]
    return re.sub(r"\[([^]]*)\]\((?!http)[^)]*\)", r"\1", rest).strip()


def latency(_):
    """Milliseconds of an exact search, by the sizes and dimensions of the benchmark's first section."""
    report, lines = benchmark_part("Exact search of the whole base"), []
    for size, table in re.findall(r"### \w+: ([\d.]+) MB\n\n(.*?)(?=\n###|\Z)", report, re.S):
        header, _, *rows = [[cell.strip(" *") for cell in row.strip("|").split("|")]
                            for row in table.strip().splitlines() if row.startswith("|")]
        for row in rows:
            case = dict(zip(header, row))
            found = float(size) * 2**20 // (4 * int(case["dim"]))
            time = found * 4 * int(case["dim"]) / float(case["GB/s"]) / 1e6
            lines.append(f"| {found:,.0f} | {case['dim']} | {time:.3g} ms | {case['of limit']} "
                         f"| {case['× fastest peer']} | {case['× Faiss']} |")
    return "\n".join(["| rows | dim | time | of the read limit | × fastest peer | × Faiss |",
                      "|---:|---:|---:|---:|---:|---:|", *lines])


def convention(read, number):
    blocks = next(blocks for its, _, blocks in read.conventions if int(its) == int(number))
    names = {function.name for function in read.functions}
    return "\n".join(set_blocks(blocks, names, "reference.md")).strip()


def main():
    if len(sys.argv) != 2:
        sys.exit("usage: site_pages.py PAGES")
    pages, read = pathlib.Path(sys.argv[1]), header.read()
    sources = {"benchmarks": benchmark_part, "word recall": word_recall, "block": block_of,
               "opening": opening, "part": part, "latency": latency,
               "convention": lambda number: convention(read, number)}
    for page in pages.glob("*.md"):
        page.write_text(re.sub(rf"(?m)^<!-- ({'|'.join(sources)}): *(.*?) *-->$",
                               lambda match: sources[match[1]](match[2]), page.read_text()))
    style = (pages / "drawings/style.css").read_text()
    for drawing in (pages / "drawings").glob("*.svg"):
        drawing.write_text(drawing.read_text().replace("<style/>", f"<style>{style}</style>"))
    (pages / "reference.md").write_text(reference(read))
    for name in ("python", "cpp", "collection"):
        (pages / f"reference_{name}.md").write_text(getattr(reference_pages, name)())
    settings = pages.parent / "mkdocs.yml"
    version = re.search(r"VERSION (\S+)", (ROOT / "CMakeLists.txt").read_text().split("project(")[1])[1]
    settings.write_text(settings.read_text().replace("@VERSION@", version))
    (pages / "plots").mkdir(exist_ok=True)
    for plot in (DOCS / "benchmarks").glob("*.svg"):
        shutil.copy(plot, pages / "plots")


main()
