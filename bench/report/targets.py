"""What the library is meant to reach: every target, and whether a run met it."""

from dataclasses import dataclass
from typing import Callable

from results import Case, median


@dataclass
class Target:
    work: str
    section: str
    applies: Callable[[Case], bool]
    measure: Callable[[Case], float]
    unit: str  # what the figure is a multiple of
    at_least: float = None  # one of the two bounds is given
    at_most: float = None
    by_median: bool = False  # of all cases; otherwise each case must meet the bound

    def meets(self, value):
        return value >= self.at_least if self.at_most is None else value <= self.at_most

    def bound(self):
        sign, value = ("≤", self.at_most) if self.at_least is None else ("≥", self.at_least)
        return f"{sign} {value:g} {self.unit}" + (", median" if self.by_median else "")


@dataclass
class Outcome:
    target: Target
    values: list

    @property
    def deciding_value(self):
        """The median, or the one that is furthest from the bound."""
        if self.target.by_median:
            return median(self.values)
        return min(self.values) if self.target.at_most is None else max(self.values)

    @property
    def met(self):
        return self.target.meets(self.deciding_value)

    def reached(self):
        text = f"{self.deciding_value:.2f}"
        if len(self.values) > 1:
            text += f" ({min(self.values):.2f} to {max(self.values):.2f})"
        if not self.met and not self.target.by_median and len(self.values) > 1:
            held = sum(self.target.meets(value) for value in self.values)
            text += f", {held} of {len(self.values)} cases"
        return text


def in_set(name, low=0, high=1 << 30):
    return lambda case: case["set"] == name and low <= case["dim"] <= high


def labelled(**labels):
    return lambda case: case.matches(**labels)


def on_kernel(name):
    """The part of the limit that a named kernel reaches, chosen by the CPU or forced."""

    def measure(case):
        chosen = case.engine["name"].endswith(", " + name)
        return case.of_limit(case.engine if chosen else case.named(name))

    return measure


def portable_against_one_row(case):
    return case.named("one row at a time")["median"] / case.named("portable, -O3")["median"]


LIMIT = "of the limit"
PEER = "× the fastest peer"
ONE_ROW = "× one row at a time"
ABSL = "× absl::flat_hash_map"
PLAIN = "× plain shifting insertion"


def scan_targets():
    return [
        Target("whole-base scan, memory, up to dim 256", "scan", in_set("DRAM", high=256),
               Case.of_limit, LIMIT, at_least=0.95),
        Target("whole-base scan, memory, above dim 256", "scan", in_set("DRAM", low=257),
               Case.of_limit, LIMIT, at_least=0.92),
        Target("whole-base scan, memory", "scan", in_set("DRAM"), Case.against_peer, PEER,
               at_least=1.0),
        Target("whole-base scan, L3", "scan", in_set("L3"), Case.of_limit, LIMIT, at_least=0.75,
               by_median=True),
        Target("whole-base scan, L3", "scan", in_set("L3"), Case.against_peer, PEER, at_least=1.0),
        Target("whole-base scan, L2", "scan", in_set("L2"), Case.of_limit, LIMIT, at_least=0.50,
               by_median=True),
        Target("whole-base scan, L2", "scan", in_set("L2"), Case.against_peer, PEER, at_least=1.0),
        Target("AVX2 kernel, memory", "scan", in_set("DRAM"), on_kernel("avx2"), LIMIT,
               at_least=0.92),
        Target("portable kernel under -mavx2 -mfma, L2", "scan", in_set("L2"),
               portable_against_one_row, ONE_ROW, at_least=8, by_median=True),
    ]


def candidate_targets():
    unchanged = labelled(changed=0)
    return [
        Target("candidate lists", "candidates", unchanged, Case.against_baseline, ONE_ROW,
               at_least=8),
        Target("candidate lists, dim 128, 100,000 ids", "candidates",
               labelled(changed=0, dim=128, ids=100000), Case.against_baseline, ONE_ROW,
               at_least=12),
        Target("candidate lists", "candidates", unchanged, Case.of_limit, LIMIT, at_least=0.85),
    ]


def walk_targets():
    def changed(*orders):
        return lambda case: case["ids"] in orders and case["changed"] in (1, 10)

    def match(attached):
        return labelled(attached=attached)

    return [
        Target("visible count and ids, dense, 1 % and 10 % changed", "walk",
               changed("ascending", "permuted"), Case.against_baseline, ABSL, at_least=8),
        Target("visible count and ids, sparse, 1 % and 10 % changed", "walk", changed("sparse"),
               Case.against_baseline, ABSL, at_least=5),
        Target("visible count and ids, nothing changed", "walk", labelled(changed=0),
               Case.of_limit, LIMIT, at_least=0.8),
        Target("label match, metadata in base order", "match", match("base order"),
               Case.against_baseline, ABSL, at_least=13),
        Target("label match, 5 % without metadata", "match", match("5 % missing"),
               Case.against_baseline, ABSL, at_least=8),
        Target("label match, metadata in random order", "match", match("random order"),
               Case.against_baseline, ABSL, at_least=3),
    ]


def search_targets():
    scan = "× the whole-base scan"
    faiss = "× Faiss IndexIVFFlat"
    return [
        Target("filtered search, every row passing, 1 % changed", "filtered",
               labelled(passing=100, changed=1), Case.cost, scan, at_most=1.10),
        Target("filtered search, 1 % passing, 1 % changed", "filtered",
               labelled(passing=1, changed=1), Case.cost, scan, at_most=0.15),
        Target("IVF search, base in list order", "ivf", labelled(base="list order"),
               Case.against_peer, faiss, at_least=1.5),
        Target("IVF search, base scattered", "ivf", labelled(base="scattered"), Case.against_peer,
               faiss, at_least=1.0),
    ]


def topk_targets():
    bounds = [("random", 100, 1.3), ("random", 1000, 5), ("random", 10000, 25),
              ("ascending", 1000, 40), ("random", 10, 1.0), ("ascending", 10, 1.0)]
    return [Target(f"top {k:,}, {scores} scores", "topk", labelled(scores=scores, k=k),
                   Case.against_baseline, PLAIN, at_least=bound) for scores, k, bound in bounds]


def storage_targets():
    def function(start):
        return lambda case: case["function"].startswith(start)

    return [
        Target("delete", "mutation", function("delete"), Case.against_baseline, ABSL,
               at_least=2.5),
        Target("row metadata", "mutation", function("set_rowmeta"), Case.against_baseline, ABSL,
               at_least=2.5),
        Target("insert", "mutation", function("insert"), Case.cost, "× vector copy and map entry",
               at_most=1.5),
        Target("bulk build", "mutation", function("build"), Case.cost,
               "× block copies and table", at_most=1.2),
        Target("memory of a map, 1 M entries", "mutation", function("memory"),
               lambda case: case.figures["bytes per entry"], "bytes per entry", at_most=26),
        Target("patterned keys", "keys", lambda case: True, Case.cost, "× random keys", at_most=2),
    ]


def all_targets():
    return (scan_targets() + candidate_targets() + walk_targets() + search_targets() +
            topk_targets() + storage_targets())


def outcomes(run):
    """One outcome for each target that the run has cases for."""
    found = []
    for target in all_targets():
        cases = [case for case in run.select(target.section) if target.applies(case)]
        values = [value for value in map(target.measure, cases) if value is not None]
        if values:
            found.append(Outcome(target, values))
    return found
