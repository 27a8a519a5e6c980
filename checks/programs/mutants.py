"""The mutants of engine/ and collection/: which there are, and which of them behave as the original does.

A mutant changes one operator, number or statement of one line. Two things excuse mutants:

A comment `// Tuning: REASON` in a source says that the lines from there to the next blank line,
or to the end of the block, only choose among ways to the same results. They are not mutated.

An entry of equivalent_mutants.txt excuses one mutant, or all mutants of some lines. It holds code
as it was when it was listed, and finds it again by its structure: any name may have changed, as
long as equal names are still equal and different names different. Indentation, line breaks,
comments and the place in the file do not matter. Exactly one piece of code must have the structure
of an entry; where two have it, the entry needs more lines around the change.
"""
import bisect
import collections
import re

# Operators between blanks, each with what replaces it; then patterns.
BETWEEN_BLANKS = {"comparison": "< >=  <= >  > <=  >= <  == !=  != ==",
                  "off by one": "< <=  <= <  > >=  >= >",
                  "operator": "+ -  - +  / *  % /  << >>  >> <<  | &  += -=  -= +=  |= &=  &= |="}
REPLACED = [(kind, rf"(?<= ){re.escape(pair[0])}(?= )", pair[1])
            for kind, pairs in BETWEEN_BLANKS.items() for pair in zip(*[iter(pairs.split())] * 2)]
REPLACED += [("operator", pattern, new) for pattern, new in [
    (r"(?<=[\w)\]] )\*(?= [\w(])", "/"), ("&&", "||"), (r"\|\|", "&&"), (r"\+\+", "--"),
    ("(?<!-)--(?!-)", "++"), (r"(?<=\w )&(?= \w)", "|"), (r"\(!", "("), (r"(?<=[(= ])~(?=\w)", ""),
    (r"\bstd::min\b", "std::max"), (r"\bstd::max\b", "std::min")]]
REPLACED += [("constant", r"\btrue\b", "false"), ("constant", r"\bfalse\b", "true")]
NUMBER = re.compile(r"(?<![\w.])(\d+|0x[0-9A-F]+)(?=u?(?![\w.']))")
STATEMENT = re.compile(r"^\s+(?!return\b|const\b|auto\b|std::\w+ \w+(;| =)|using\b|typedef\b)"
                       r"[\w:*.\[\]()<>+-]+.*;$")
SKIPPED = re.compile(r"^\s*(//|#|template|static_assert|namespace|struct|class|extern|"
                     r"inline const)")
COMMENT = re.compile(r"\s//|^//")
TUNING = re.compile(r"\s*// Tuning: (.*)")
SHORTEST_REASON = 10

TOKEN = re.compile(r"""(?P<name>[A-Za-z_]\w*) | 0[xX][0-9A-Fa-f']+\w* | \.?\d(?:[eE][+-]\d|[\w.'])*
                     | "(?:\\.|[^"\\])*" | '(?:\\.|[^'\\])+'
                     | <<=|>>=|<=>|\.\.\.|->\*|::|->|\+\+|--|&&|\|\||[-+*/%&|^=!<>]=|<<|>>|\S""",
                   re.VERBOSE)
# Names of the language, which nobody can rename.
KEYWORDS = set("""
    alignas alignof auto bool break case char class const const_cast constexpr continue decltype
    default delete do double else enum explicit extern false float for friend if inline int long
    namespace new noexcept nullptr operator private protected public reinterpret_cast return short
    signed sizeof static static_assert static_cast struct switch template this true typedef typename
    union unsigned using virtual void volatile while""".split())

# `which` numbers the equal lines of a file, from 1 on. With file, line and change it names a mutant
# for the draw by a seed and for stored verdicts.
class Mutant(collections.namedtuple("Mutant", "file which line changed number kind")):
    __slots__ = ()

    def of(self, folder):
        return self.file.startswith(f"{folder}/")


Token = collections.namedtuple("Token", "text is_name")
Entry = collections.namedtuple("Entry", "file reason hunk")
LeftOut = collections.namedtuple("LeftOut", "file first last reason mutants")


def changed_numbers(text):
    """A number's neighbours, then 0."""
    base = 16 if text.startswith("0x") else 10
    value = int(text, base)
    for kind, new in (("off by one", value + 1), ("off by one", value - 1), ("constant", 0)):
        if new >= 0 and new != value:
            yield kind, f"0x{new:X}" if base == 16 else str(new)


def changes_of_line(line):
    """The kind and the text of each change of a line."""
    code = re.split(r"\s//", line)[0]
    if SKIPPED.match(line) or "prefetch" in code or '"' in code:
        return
    for kind, pattern, new in REPLACED:
        for match in re.finditer(pattern, code):
            yield kind, code[:match.start()] + new + code[match.end():]
    for match in NUMBER.finditer(code):
        for kind, new in changed_numbers(match[0]):
            yield kind, code[:match.start()] + new + code[match.end():]
    if STATEMENT.match(code) and code.count("(") == code.count(")") and "operator" not in code:
        yield "statement", re.match(r"\s*", code)[0] + ";"


def tokens_of(code):
    """The tokens of code without comments; the names are those that somebody could change."""
    tokens = []
    code = "\n".join(COMMENT.split(line)[0] for line in code.splitlines())
    for match in TOKEN.finditer(code):
        text = match[0]
        of_std = len(tokens) >= 2 and tokens[-1].text == "::" and tokens[-2].text == "std"
        is_name = match["name"] is not None and not (text in KEYWORDS or text == "std" or of_std)
        tokens.append(Token(text, is_name))
    return tokens


class Source:
    """One file: its lines, its mutants, and its tokens with their lines."""

    def __init__(self, file, text):
        self.file, self.lines = file, text.splitlines()
        self.mutants, self.tokens, self.starts = [], [], []
        alike = collections.Counter()
        for number, line in enumerate(self.lines, 1):
            alike[line.strip()] += 1
            found = {}
            for kind, changed in changes_of_line(line):
                if changed != line:
                    found.setdefault(changed, kind)
            self.mutants += [Mutant(file, alike[line.strip()], line, changed, number, kind)
                             for changed, kind in found.items()]
            self.starts.append(len(self.tokens))
            self.tokens += self.line_tokens(line)

    @staticmethod
    def line_tokens(line):
        return [] if line.lstrip().startswith("#") else tokens_of(line)

    def line_of(self, place):
        """The number of the line that a token is on."""
        return bisect.bisect_right(self.starts, place)

    def find(self, pattern):
        """Each place where code of the pattern's structure begins, with its names."""
        for place in range(len(self.tokens) - len(pattern) + 1):
            names = names_between(pattern, self.tokens[place:place + len(pattern)])
            if names is not None:
                yield place, names

    def makes(self, mutant, place, length, wanted):
        """Whether the mutant turns the `length` tokens from a place on into the wanted ones."""
        start = self.starts[mutant.number - 1]
        old = self.line_tokens(self.lines[mutant.number - 1])
        new = self.line_tokens(mutant.changed)
        if len(new) - len(old) != len(wanted) - length:
            return False
        after = self.tokens[start + len(old):place + max(length, len(wanted)) + len(old)]
        changed = (self.tokens[:start] + new + after)[place:place + len(wanted)]
        return [token.text for token in changed] == wanted


def names_between(pattern, tokens):
    """What each name of the pattern is called in the tokens; None if the structure differs."""
    there, back = {}, {}
    for mine, other in zip(pattern, tokens):
        if mine.is_name != other.is_name or not mine.is_name and mine.text != other.text:
            return None
        if mine.is_name and (there.setdefault(mine.text, other.text) != other.text or
                             back.setdefault(other.text, mine.text) != mine.text):
            return None
    return there


def entries_of(text, problems):
    """The entries of a list, which its opening comment describes."""
    for paragraph in re.split(r"\n\s*\n", text):
        lines = [line for line in paragraph.splitlines() if line and not line.startswith("#")]
        if not lines:
            continue
        header = re.fullmatch(r"(\S+): (.+)", lines[0])
        hunk = [(line[0], line[1:]) for line in lines[1:]]
        signs = {sign for sign, _ in hunk}
        if not header or len(header[2]) < SHORTEST_REASON or "-" not in signs or signs - set(" -+"):
            problems.append(f"not a file with a reason, then code and changed code: {lines[0]}")
        else:
            yield Entry(header[1], header[2], hunk)


def tuning_of(source, problems):
    """The lines that each marker of a file covers, with its reason."""
    blocks = []
    for number, line in enumerate(source.lines, 1):
        match = TUNING.match(line)
        if not match:
            continue
        indent, reason, last = len(line) - len(line.lstrip()), match[1], number
        for later in source.lines[number:]:
            if not later.strip() or len(later) - len(later.lstrip()) < indent:
                break
            last += 1
        mutants = [mutant for mutant in source.mutants if number < mutant.number <= last]
        if len(reason) < SHORTEST_REASON:
            problems.append(f"{source.file}:{number}: `Tuning:` without a reason")
        elif not mutants:
            problems.append(f"{source.file}:{number}: `Tuning:` above nothing that has a mutant")
        blocks.append(LeftOut(source.file, number, last, reason, mutants))
    return blocks


class Excused:
    """The mutants that markers and entries excuse. Whatever does not fit is in `problems`."""

    def __init__(self, sources, text):
        self.problems = []
        self.blocks = []    # lines that are not mutated
        self.reasons = {}   # of the mutants that may survive
        for source in sources:
            self.blocks += tuning_of(source, self.problems)
        by_file = {source.file: source for source in sources}
        for entry in entries_of(text, self.problems):
            self.place(entry, by_file.get(entry.file))

    def place(self, entry, source):
        code = [(sign, token)
                for sign, line in entry.hunk if sign != "+" for token in tokens_of(line)]
        pattern = [token for _, token in code]
        shown = f"{entry.file}: " + " ".join(token.text for token in pattern)
        found = list(source.find(pattern)) if source else []
        if len(found) != 1:
            lines = ", ".join(str(source.line_of(place)) for place, _ in found) if found else "none"
            self.problems.append(f"listed, but {len(found)} pieces of code have its structure "
                                 f"(lines: {lines}): {shown}")
            return
        place, names = found[0]
        lines = {source.line_of(place + i) for i, (sign, _) in enumerate(code) if sign == "-"}
        mutants = [mutant for mutant in source.mutants if mutant.number in lines]
        for at, (sign, changed) in enumerate(entry.hunk):
            if sign != "+":
                continue
            wanted = [names.get(token.text, token.text) if token.is_name else token.text
                      for i, (sign, line) in enumerate(entry.hunk) if i == at or sign == " "
                      for token in tokens_of(line)]
            found = [m for m in mutants if source.makes(m, place, len(pattern), wanted)]
            self.reasons.update(dict.fromkeys(found, entry.reason))
            if not found:
                self.problems.append(f"listed, but line {min(lines)} has no mutant {changed}")
        if "+" not in {sign for sign, _ in entry.hunk}:
            self.blocks.append(LeftOut(source.file, min(lines), max(lines), entry.reason, mutants))
            if not mutants:
                self.problems.append(f"listed, but line {min(lines)} has no mutant: {shown}")

    def left_out(self):
        return {mutant for block in self.blocks for mutant in block.mutants}


def sources_of(root, folder):
    for path in sorted((root / folder).rglob("*")):
        if path.suffix in (".h", ".cpp") and not path.name.startswith(("neon", "qx_collection")):
            yield Source(str(path.relative_to(root)), path.read_text())
