"""Writes the manual pages, an overview and one for each function, from the public header.

man_pages.py FOLDER VERSION DATE    writes FOLDER/man7/qx_runtime.7 and FOLDER/man3/*.3
"""
import pathlib
import re
import sys

import header


def roff(text):
    """Text as roff reads it: no line is taken for a request, and no character for another."""
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("^", "\\(ha").replace("~", "\\(ti")
    text = re.sub(r"\b(qx_(?:index|runtime|tuner)_\w+)", r"\\fB\1\\fP", text)
    return re.sub(r"(?m)^(?=[.'])", r"\\&", text)


def set_blocks(blocks):
    lines = []
    for block in blocks:
        if isinstance(block, tuple):
            lines += [".PP", ".in +2n", ".nf", *map(roff, block), ".fi", ".in"]
        else:
            lines += [".PP", roff(block)]
    return lines[1:]


def title(name, section, release):
    version, date = release
    return [f'.TH {name} {section} "{date}" "qx_runtime {version}" "qx_runtime manual"']


def function_page(function, neighbours, release):
    summary = function.summary[0].lower() + function.summary[1:]
    lines = title(function.name, 3, release)
    lines += [".SH NAME", f"{function.name} \\- {roff(summary)}", ".SH LIBRARY",
              "In-memory vector search engine (\\fIlibqx_runtime\\fP, \\fI\\-lqx_runtime\\fP)",
              ".SH SYNOPSIS", ".nf", "#include <qx_runtime.h>", ".PP",
              *map(roff, function.prototype.splitlines()), ".fi"]
    if function.description:
        lines += [".SH DESCRIPTION", *set_blocks(function.description)]
    if function.parameters:
        lines += [".SH PARAMETERS"]
        for names, text in function.parameters:
            lines += [".TP", f"\\fI{names}\\fP", roff(text)]
    if function.result:
        lines += [".SH RETURN VALUE", roff(function.result)]
    if function.notes:
        lines += [".SH NOTES", *set_blocks(function.notes)]
    others = [name for name in neighbours if name != function.name]
    references = [f".BR {name} (3)," for name in others] + [".BR qx_runtime (7)"]
    lines += [".SH SEE ALSO", *references]
    return "\n".join(lines) + "\n"


def overview_page(read, release):
    lines = title("qx_runtime", 7, release)
    lines += [".SH NAME", f"qx_runtime \\- {roff(read.summary)}", ".SH SYNOPSIS", ".nf",
              "#include <qx_runtime.h>", ".PP", "cc host.c $(pkg\\-config \\-\\-cflags \\-\\-libs "
              "qx_runtime)", ".fi", ".SH DESCRIPTION", *set_blocks(read.overview),
              ".SH FUNCTIONS"]
    section = None
    for function in read.functions:
        if function.section != section:
            section = function.section
            lines.append(f".SS {section}")
        lines += [".TP", f".BR {function.name} (3)", roff(function.summary)]
    lines += [".SS What each function sees", *set_blocks(read.views)]
    for at, group in enumerate(read.constants):
        lines += [".PP" if at else ".SH CONSTANTS", roff(group.text)]
        for name, value, note in group.named:
            lines += [".TP", f".B {name}", roff(value) + (f", {roff(note)}" if note else "")]
    lines.append(".SH CONVENTIONS")
    for number, name, blocks in read.conventions:
        lines += [f".SS {number}. {name}", *set_blocks(blocks)]
    return "\n".join(lines) + "\n"


def main():
    if len(sys.argv) != 4:
        sys.exit("usage: man_pages.py FOLDER VERSION DATE")
    folder, release = pathlib.Path(sys.argv[1]), sys.argv[2:]
    read = header.read()
    for section in ("man3", "man7"):
        (folder / section).mkdir(parents=True, exist_ok=True)
    (folder / "man7/qx_runtime.7").write_text(overview_page(read, release))
    for function in read.functions:
        neighbours = [other.name for other in read.functions if other.section == function.section]
        page = function_page(function, neighbours, release)
        (folder / "man3" / f"{function.name}.3").write_text(page)


main()
