"""Reads what abidw writes, and prints it as lines: the library, each type, and each function.

What these lines do not say is an error, so equal lines mean equal interfaces.
"""
import sys
import xml.etree.ElementTree as ElementTree

# Of each element: the attributes that may differ, and those that must be as here.
SHAPES = {
    "abi-corpus": ({"version", "architecture", "soname"}, {}),
    "elf-needed": (set(), {}),
    "dependency": ({"name"}, {}),
    "elf-function-symbols": (set(), {}),
    "elf-symbol": ({"name"}, {"type": "func-type", "binding": "global-binding",
                              "visibility": "default-visibility", "is-defined": "yes"}),
    "abi-instr": ({"path", "language"}, {"address-size": "64"}),
    "type-decl": ({"id", "name", "size-in-bits"}, {}),
    "typedef-decl": ({"id", "name", "type-id"}, {}),
    "qualified-type-def": ({"id", "type-id"}, {"const": "yes"}),
    "pointer-type-def": ({"id", "type-id"}, {"size-in-bits": "64"}),
    "class-decl": ({"id", "name"}, {"is-struct": "yes", "visibility": "default",
                                    "is-declaration-only": "yes"}),
    "function-decl": ({"name", "mangled-name", "elf-symbol-id"},
                      {"visibility": "default", "binding": "global", "size-in-bits": "64"}),
    "parameter": ({"type-id", "name"}, {}),
    "return": ({"type-id"}, {}),
}


def check(element):
    free, fixed = SHAPES.get(element.tag, (set(), {"": ""}))
    if {name: value for name, value in element.items() if name not in free} != fixed:
        sys.exit(f"abi: no line says {ElementTree.tostring(element, 'unicode').strip()}")


def spelled(types, number):
    """A type as C writes it."""
    element = types[number]
    if element.get("name"):
        return element.get("name")
    of = spelled(types, element.get("type-id"))
    if element.tag == "pointer-type-def":
        return of + "*"
    return of + " const" if of.endswith("*") else "const " + of


def line(types, element):
    name = element.get("name")
    if element.tag == "typedef-decl":
        return f"type {name}: {spelled(types, element.get('type-id'))}"
    if element.tag == "type-decl":
        return f"type {name}: {element.get('size-in-bits', 'no')} bits"
    if element.tag == "class-decl":
        return f"type {name}: a struct that is declared only"
    *given, result = [f"{spelled(types, part.get('type-id'))} {part.get('name', '')}".strip()
                      for part in element]
    return f"{result} {name}({', '.join(given)})"


def main():
    corpus = ElementTree.parse(sys.stdin).getroot()
    for element in corpus.iter():
        check(element)
    functions = list(corpus.iter("function-decl"))
    names = [set(map(function.get, SHAPES["function-decl"][0])) for function in functions]
    symbols = [{symbol.get("name")} for symbol in corpus.iter("elf-symbol")]
    if sorted(names, key=sorted) != sorted(symbols, key=sorted):
        sys.exit("abi: the names of functions and symbols differ")
    types = {element.get("id"): element for element in corpus.iter() if element.get("id")}
    named = [element for element in types.values() if element.get("name")]
    print(f"library {corpus.get('soname')} for {corpus.get('architecture')}")
    print("\n".join(sorted(line(types, element) for element in named)))
    print("\n".join(sorted((line(types, element) for element in functions),
                           key=lambda text: text.split("(")[0].split()[-1])))


main()
