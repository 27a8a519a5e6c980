"""Reads include/qx_runtime.h: its overview, conventions and constants, and what it says of each function."""
import dataclasses
import itertools
import pathlib
import re

HEADER = pathlib.Path(__file__).resolve().parents[1] / "include/qx_runtime.h"


@dataclasses.dataclass
class Function:
    name: str
    prototype: str  # as it is written, several lines of it too
    section: str
    summary: str  # the first sentence, without its full stop
    description: list  # paragraphs
    parameters: list  # pairs of names and what is said of them
    result: str  # the paragraph that begins with "Returns", if there is one
    notes: list  # paragraphs after the parameters


@dataclasses.dataclass
class Constants:  # some that belong together
    text: str
    named: list  # triples of a name, its value as it is written, and what is said beside it


@dataclasses.dataclass
class Header:
    summary: str
    overview: list  # paragraphs and, as tuples of lines, what is set as it is
    views: list  # what each function sees, such a list too
    conventions: list  # triples of number, title and such a list
    constants: list
    functions: list


def comment_lines(comment):
    return [re.sub(r"^ \* ?", "", line).rstrip() for line in comment.splitlines()[1:-1]]


def paragraphs(lines):
    return [text.splitlines() for text in re.split(r"\n{2,}", "\n".join(lines).strip("\n")) if text]


def joined(lines):
    return " ".join(line.strip() for line in lines)


def blocks(lines):
    """Paragraphs of text; lines that are indented are kept as they are, as tuples."""
    found = []
    for paragraph in paragraphs(lines):
        for indented, group in itertools.groupby(paragraph, lambda line: line.startswith("  ")):
            found.append(tuple(group) if indented else joined(group))
    return found


def parameters_of(paragraph):
    """The pairs of a paragraph that lists parameters, or None: names, two blanks, text."""
    listed = []
    for line in paragraph:
        match = re.match(r"(\w+(?:, \w+)*)  +(\S.*)", line)
        if match:
            listed.append([match[1], match[2]])
        elif listed and line.startswith("   "):
            listed[-1][1] += " " + line.strip()
        else:
            return None
    return [tuple(pair) for pair in listed]


def function_of(comment, prototype, section):
    description, parameters, result, notes = [], [], "", []
    for paragraph in paragraphs(comment_lines(comment)):
        listed = parameters_of(paragraph)
        text = joined(paragraph)
        if listed:
            parameters += listed
        elif text.startswith("Returns "):
            result = text
        else:
            (notes if parameters or result else description).append(text)
    first = description[0] if description else result
    summary = re.split(r"(?<=\w)[.:;](?: |$)", first)[0].rstrip(".")
    return Function(re.search(r"(\w+)\(", prototype)[1], prototype, section, summary, description,
                    parameters, result, notes)


def constants_of(text):
    groups = []
    for match in re.finditer(r"(/\*\n(?: \*[^\n]*\n)*? \*/)\n((?:#define \w+ [^\n]+\n)+)", text):
        lines = re.findall(r"#define (\w+) (.*?)(?: +/\* (.*) \*/)?\n", match[2])
        groups.append(Constants(joined(comment_lines(match[1])), lines))
    return groups


def read(path=HEADER):
    text = path.read_text()
    first = comment_lines(re.match(r"/\*.*?\*/", text, re.S)[0])
    life = first.index("THE LIFE OF AN INDEX")
    views = next(i for i, line in enumerate(first) if line.startswith("WHAT EACH FUNCTION SEES"))
    conventions = next(i for i, line in enumerate(first) if line.startswith("CONVENTIONS"))
    opening = blocks(first[:life])
    summary = opening[0].split(": ", 1)[1].rstrip(".")
    titled = []
    continued = re.search(r"/\* -+ Conventions, continued -+ \*/\n\n(/\*.*?\*/)", text, re.S)
    for line in first[conventions + 1:] + [""] + comment_lines(continued[1]):
        match = re.match(r"(\d+)\. ([^.]+)\. ?(.*)", line)
        if match:
            titled.append((int(match[1]), match[2], []))
            line = "   " + match[3]
        if titled:
            titled[-1][2].append(line[3:])
    functions, section = [], ""
    for match in re.finditer(r"/\* -+ (.*?) -+ \*/|(/\*\n(?: \*[^\n]*\n)*? \*/)\n(\w[^;{]*?\([^;]*\);)",
                             text):
        if match[1]:
            section = match[1]
        else:
            functions.append(function_of(match[2], match[3], section))
    words = first[views].split(", ", 1)[1]
    seen = [words[0].upper() + words[1:] + ":"] + blocks(first[views + 1:conventions])
    return Header(summary, opening[1:] + blocks(first[life + 1:views]), seen,
                  [(number, title, blocks(lines)) for number, title, lines in titled],
                  constants_of(text), functions)
