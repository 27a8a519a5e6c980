"""Reference pages of what has no page by hand: Python's docstrings, and the comments of C and C++ headers."""
import ast
import pathlib
import re
import textwrap

from header import parameters_of

ROOT = pathlib.Path(__file__).resolve().parents[1]
PACKAGE = ROOT / "bindings/python/qx_runtime"


def fenced(language, text):
    return [f"```{language}", *text.strip("\n").splitlines(), "```", ""]


# ---- Python ----

def inline(text):
    text = re.sub(r":\w+:`([\w.]+)`", r"`\1`", text)
    return re.sub(r"``(.+?)``", r"`\1`", text)


def docstring_lines(node):
    lines = []
    for paragraph in (ast.get_docstring(node) or "").split("\n\n"):
        listed = parameters_of(paragraph.splitlines())
        if paragraph.startswith(">>>"):
            lines += fenced("text", paragraph)
        elif listed:
            lines += ["| parameter | meaning |", "|---|---|"]
            lines += [f"| `{name}` | {inline(text)} |".replace("||", r"\|\|") for name, text in listed] + [""]
        elif paragraph:
            lines += [inline(" ".join(paragraph.split())), ""]
    return lines


def signature(node, name):
    arguments = ast.parse(ast.unparse(node)).body[0].args
    if arguments.args and arguments.args[0].arg in ("self", "cls"):
        arguments.args.pop(0)
    elif arguments.posonlyargs and arguments.posonlyargs[0].arg == "self":
        arguments.posonlyargs.pop(0)
    result = f" -> {ast.unparse(node.returns)}" if node.returns else ""
    text = f"{name}({ast.unparse(arguments)}){result}"
    return text if len(text) < 78 else re.sub(r", (?=\*|\w+:)", ",\n    ", text.replace("(", "(\n    ", 1))


def class_lines(node, bases):
    lines = [f"## {node.name} {{: #{node.name} }}", ""]
    start = next((part for part in node.body if getattr(part, "name", "") == "__init__"), None)
    if start is not None and not node.name.startswith(("View", "Hits")):
        lines += fenced("python", signature(start, node.name).removesuffix(" -> None"))
    lines += docstring_lines(node)
    members = [*node.body, *(part for base in node.bases for part in bases.get(ast.unparse(base), []))]
    for part in members:
        if not isinstance(part, ast.FunctionDef) or part.name.startswith("_"):
            continue
        is_property = any(ast.unparse(mark) == "property" for mark in part.decorator_list)
        name = f"{node.name}.{part.name}"
        lines += [f"### {name} {{: #{name} }}", ""]
        lines += [] if is_property else fenced("python", signature(part, part.name))
        lines += docstring_lines(part)
    return lines


def python():
    trees = [ast.parse(path.read_text()) for path in sorted(PACKAGE.glob("*.py"))]
    nodes = {node.name: node for tree in trees for node in tree.body
             if isinstance(node, (ast.ClassDef, ast.FunctionDef))}
    bases = {"_Rows": nodes["_Rows"].body}
    opening = ast.parse((PACKAGE / "__init__.py").read_text())
    names = next(ast.literal_eval(node.value) for node in opening.body
                 if isinstance(node, ast.Assign) and node.targets[0].id == "__all__")
    first = ["Collection", "View", "col", "Index"]
    lines = ["# Python reference", "", "Made from the docstrings of `qx_runtime`.", ""]
    for name in first + sorted(set(names) - set(first)):
        node = nodes[name]
        if isinstance(node, ast.ClassDef):
            lines += class_lines(node, bases)
        else:
            lines += [f"## {name} {{: #{name} }}", "", *fenced("python", signature(node, name)),
                      *docstring_lines(node)]
    return "\n".join(lines) + "\n"


# ---- C and C++ ----

TOKEN = re.compile(r"//[^\n]*|\n|[(){};]|[^\n(){};/]+|/")


class Declarations:
    """What is public in the body of a class, without the bodies of functions."""

    def __init__(self, body):
        self.kept, self.comments, self.text = [], [], ""
        self.parens = self.braces = self.skipped = 0
        self.is_public, before = True, ""
        for token in TOKEN.findall(body):
            self.take(token, before)
            before = token if token.strip(" ") else before

    def take(self, token, before):
        if self.skipped:
            self.skipped += {"{": 1, "}": -1}.get(token, 0)
        elif token.startswith("//"):
            self.comment(token, before)
        elif token.strip() in ("public:", "private:", "protected:"):
            self.is_public, self.comments = token.strip() == "public:", []
        elif token == "\n" and before == "\n" and not self.text.strip():
            self.comments = []
        elif token == "{" and not self.parens and not self.braces and not self.text.endswith("= "):
            self.emit()
            self.skipped = 1
        elif token == ";" and not self.parens and not self.braces:
            self.emit()
        else:
            self.parens += {"(": 1, ")": -1}.get(token, 0)
            self.braces += {"{": 1, "}": -1}.get(token, 0)
            self.text += " " if token == "\n" else token

    def comment(self, token, before):
        if before == ";" and self.kept:
            self.kept[-1] += "  " + token
        elif not self.text.strip():
            self.comments.append("  " + token)

    def emit(self):
        text, self.text = " ".join(self.text.split()), ""
        if self.is_public and text:
            head = re.split(r"\)(?: noexcept)? : ", text)
            text = head[0] + (")" if len(head) > 1 else "")
            self.kept += [*self.comments, "  " + text.removesuffix(" try") + ";"]
        self.comments = []


def class_block(header, kind, name):
    lines = header.splitlines()
    at = next(i for i, line in enumerate(lines) if re.match(rf"{kind} {name}\b[^;]*\{{$", line))
    end = next(i for i in range(at, len(lines)) if lines[i] == "};")
    first = at
    while lines[first - 1].startswith(("//", "template <")):
        first -= 1
    declared = Declarations("\n".join(lines[at + 1:end])).kept
    return fenced("cpp", "\n".join([*lines[first:at + 1], *map(wrapped, declared), "};"]))


def wrapped(line):
    if len(line) <= 90 or line.lstrip().startswith("//"):
        return line
    kept = re.sub(r"(const|=) ", "\\1\0", line.strip())  # what belongs to the next word
    lines = textwrap.wrap(kept, 90, initial_indent="  ", subsequent_indent="      ")
    return "\n".join(lines).replace("\0", " ")


def opening_of(header):
    lines = header.splitlines()
    text = "\n".join(line[3:] for line in lines[:next(i for i, line in enumerate(lines)
                                                      if not line.startswith("//"))])
    found = []
    for paragraph in text.split("\n\n"):
        found += fenced("text", paragraph) if paragraph.startswith("  ") else [paragraph.replace("<", r"\<"), ""]
    return found


def cpp():
    collection = (ROOT / "collection/include/qx_collection.hpp").read_text()
    index = (ROOT / "bindings/cpp/qx_runtime.hpp").read_text()
    lines = ["# C++ reference", "", "Made from the headers: what is public, and the comments above it.", "",
             "## qx_collection.hpp", "", *opening_of(collection)]
    for kind, name in [("class", "BasicCollection"), ("class", "RowSet"), ("struct", "CollectionOptions"),
                       ("struct", "CollectionSearch"), ("struct", "CollectionHit"),
                       ("struct", "CollectionRow"), ("class", "Results"), ("struct", "CollectionLists")]:
        lines += [f"### {name}", "", *class_block(collection, kind, name)]
    lines += ["## qx_runtime.hpp", "", *opening_of(index)]
    for kind, name in [("class", "Index"), ("class", "Filter"), ("struct", "Hits"), ("struct", "Rows"),
                       ("struct", "RowMeta"), ("struct", "Partition")]:
        lines += [f"### {name}", "", *class_block(index, kind, name)]
    return "\n".join(lines) + "\n"


def collection():
    """The C header of the collection: its conventions as text, its sections as they stand."""
    header = (ROOT / "collection/include/qx_collection.h").read_text()
    opening, *sections = re.split(r"/\* -{2,} (.*?) -+ \*/\n", header)
    comment = [line[3:] for line in re.search(r"/\*\n(.*?) \*/", opening, re.S)[1].splitlines()]
    conventions = "\n".join(comment).split("CONVENTIONS, which hold for every function below\n")[1]
    lines = ["# Collection reference", "", "All of `qx_collection.h`, in its words.", "", "## Conventions", ""]
    for part in re.split(r"\n\n(?=\d+\. )", conventions.strip()):
        number, title, text = re.match(r"(\d+)\. ([^.]+)\.?\s*(.*)", part, re.S).groups()
        lines += [f"### {number}. {title.splitlines()[0]}", "", *fenced("text", textwrap.dedent("    " + text))]
    for title, text in zip(sections[::2], sections[1::2]):
        lines += [f"## {title}", "", *fenced("c", re.sub(r"(?s)#ifdef __cplusplus.*?#endif\n|#endif\n$", "", text))]
    return "\n".join(lines) + "\n"
