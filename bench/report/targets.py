"""What the library is meant to reach: every target, and whether a run met it."""

from dataclasses import dataclass
from statistics import median

from results import Case


def avx2_of_limit(case):
    """The part of the limit that the kernel reaches, chosen by the CPU or forced."""
    return case.of_limit(case.engine if case.engine["name"].endswith(", avx2") else
                         case.named("avx2"))


def portable_against_one_row(case):
    return case.speed(case.named("one row at a time"), case.named("portable, -O3"))


# The work, the section and the labels of its cases, what is measured, and the bound. Each case must
# meet it, or the median of all where it says so.
L2, L3, MEMORY = {"set": "L2"}, {"set": "L3"}, {"set": "DRAM"}
LIMIT, PEER, BASELINE, COST = Case.of_limit, Case.against_peer, Case.against_baseline, Case.cost
TARGETS = [
    *[(f"whole-base scan, normal, memory, {name}, dim {dim}", "pages",
       {"pages": pages, "dim": dim}, LIMIT, f"≥ {bound} of the limit")
      for name, pages, bounds in [
          ("large pages", "asked for", (4.5, 5.3, 5.8, 5.8, 5.8, 4.4, 4.2, 4.0)),
          ("small pages", "off", (3.3, 4.2, 4.5, 4.5, 4.5, 3.8, 3.5, 3.2))]
      for dim, bound in zip((32, 64, 100, 128, 256, 384, 768, 1536), bounds)],
    ("whole-base scan, memory, dim 8", "scan", {**MEMORY, "dim": 8}, PEER,
     "≥ 1.8 × the fastest peer"),
    ("whole-base scan, memory, from dim 32 on", "scan", {**MEMORY, "dim": range(32, 1 << 30)},
     PEER, "≥ 3 × the fastest peer"),
    ("whole-base scan, L3, from dim 32 on", "scan", {**L3, "dim": range(32, 1 << 30)}, PEER,
     "≥ 2 × the fastest peer"),
    ("whole-base scan, L2", "scan", L2, PEER, "≥ 1 × the fastest peer"),
    ("AVX2 kernel, memory, from dim 32 on", "scan", {**MEMORY, "dim": range(32, 1 << 30)},
     avx2_of_limit, "≥ 3.2 of the limit"),
    ("portable kernel under -mavx2 -mfma, L2", "scan", L2, portable_against_one_row,
     "≥ 8 × one row at a time, median"),
    *[(f"all words, k {k:,}", "sets", {"rows": "all words", "k": k}, BASELINE,
       f"≥ {bound} × without codes") for k, bound in [(1, 6.5), (10, 6), (100, 3.8), (1000, 2)]],
    ("1 M rows of 960", "sets", {"rows": "normal"}, PEER, "≥ 15 × Faiss IndexFlatIP"),
    *[(f"with codes, {rows}, {size}, dim {least}{f' to {most}' if most > least else ''}, k {k:,}",
       "codes", {"set": size, "rows": rows, "dim": range(least, most + 1), "k": k}, BASELINE,
       f"≥ {bound} × without codes")
      for rows, size, least, most, k, bound in [
          ("normal", "0.5 MB", 64, 256, 10, 1.2), ("normal", "2 MB", 64, 768, 10, 1.7),
          ("normal", "12 MB", 32, 768, 10, 2.5), ("normal", "12 MB", 100, 768, 100, 1.8),
          ("normal", "12 MB", 128, 128, 1000, 0.97), ("normal", "memory", 128, 128, 100, 4.5),
          ("normal", "memory", 128, 128, 1000, 3.3), ("clustered", "memory", 768, 768, 10, 6.5),
          ("clustered", "memory", 768, 768, 100, 4.5),
          ("clustered, asked at random", "memory", 768, 768, 10, 6.5),
          ("clustered, asked at random", "memory", 768, 768, 100, 4.5)]],
    *[(f"with codes, {rows}", "codes", {"rows": rows}, BASELINE, "≥ 0.97 × without codes")
      for rows in ("all equal", "one huge component", "100 added", "a NaN in every 32nd",
                   "best last")],
    *[(f"with codes, {function}, {f'{rows:,} ids' if isinstance(rows, int) else what}, dim {dim}",
       "searches", {"function": function, "dim": dim, **({"rows": rows} if rows else {})}, BASELINE,
       f"≥ {bound} × without codes")
      for function, rows, what, dim, bound in [
          ("scatter_topk", 100000, "", 32, 1.0), ("scatter_topk", 100000, "", 128, 2.2),
          ("scatter_topk", 100000, "", 768, 1.6), ("search_mvcc", 1000, "", 32, 1.6),
          ("search_mvcc", 1000, "", 128, 1.6), ("search_mvcc", 100000, "", 32, 1.6),
          ("search_mvcc", 100000, "", 128, 1.6), ("delta", None, "100,000 rows", 128, 3),
          ("delta", None, "100,000 rows", 768, 3)]],
    *[(f"with codes, search_filtered, {part} % pass at random", "searches",
       {"function": "search_filtered", "rows": range(least, most)}, BASELINE,
       f"≥ {bound} × without codes")
      for part, least, most, bound in [(1, 0, 20000, 2), (10, 20000, 1 << 30, 3)]],
    ("with codes, every size, dim, k and kind of rows", "grid", {}, Case.beyond_spread,
     "≥ 0.97 × without codes, beyond the spread"),
    ("candidate lists", "candidates", {"changed": 0}, BASELINE, "≥ 8 × one row at a time"),
    ("candidate lists, dim 128, 100,000 ids", "candidates",
     {"changed": 0, "dim": 128, "ids": 100000}, BASELINE, "≥ 12 × one row at a time"),
    ("candidate lists", "candidates", {"changed": 0}, LIMIT, "≥ 0.85 of the limit"),
    ("visible count and ids, dense, 1 % and 10 % changed", "walk",
     {"ids": ("ascending", "permuted"), "changed": (1, 10)}, BASELINE, "≥ 8 × absl::flat_hash_map"),
    ("visible count and ids, sparse, 1 % and 10 % changed", "walk",
     {"ids": "sparse", "changed": (1, 10)}, BASELINE, "≥ 5 × absl::flat_hash_map"),
    ("visible count and ids, nothing changed", "walk", {"changed": 0}, LIMIT, "≥ 0.8 of the limit"),
    ("label match, metadata in base order", "match", {"attached": "base order"}, BASELINE,
     "≥ 13 × absl::flat_hash_map"),
    ("label match, 5 % without metadata", "match", {"attached": "5 % missing"}, BASELINE,
     "≥ 8 × absl::flat_hash_map"),
    ("label match, metadata in random order", "match", {"attached": "random order"}, BASELINE,
     "≥ 3 × absl::flat_hash_map"),
    ("filtered search, every row passing, 1 % changed", "filtered", {"passing": 100, "changed": 1},
     COST, "≤ 1.1 × the whole-base scan"),
    ("filtered search, 1 % passing, 1 % changed", "filtered", {"passing": 1, "changed": 1}, COST,
     "≤ 0.15 × the whole-base scan"),
    ("IVF search, base in list order", "ivf", {"base": "list order"}, PEER,
     "≥ 6 × Faiss IndexIVFFlat"),
    *[(f"IVF search, base scattered, dim {dim}", "ivf", {"base": "scattered", "dim": dim}, PEER,
       f"≥ {bound} × Faiss IndexIVFFlat") for dim, bound in [(32, 1), (128, 2.5), (768, 4)]],
    *[(f"top {k:,}, {scores} scores", "topk", {"scores": scores, "k": k}, BASELINE,
       f"≥ {bound} × plain shifting insertion")
      for scores, k, bound in [("random", 100, 1.3), ("random", 1000, 5), ("random", 10000, 25),
                               ("ascending", 1000, 40), ("random", 10, 1), ("ascending", 10, 1)]],
    ("delete", "mutation", {"function": "delete"}, BASELINE, "≥ 2.5 × absl::flat_hash_map"),
    ("row metadata", "mutation",
     {"function": ("set_rowmeta, columns: 0", "set_rowmeta, columns: 2")}, BASELINE,
     "≥ 2.5 × absl::flat_hash_map"),
    ("insert", "mutation", {"function": "insert"}, COST, "≤ 2.7 × vector copy and map entry"),
    ("bulk build", "mutation", {"function": "build"}, COST, "≤ 2.4 × block copies and table"),
    ("memory of a map, 1 M entries", "mutation", {"function": "memory"},
     lambda case: case.figures["bytes per entry"], "≤ 26 bytes per entry"),
    ("patterned keys", "keys", {}, COST, "≤ 2 × random keys"),
]


@dataclass
class Outcome:
    work: str
    bound: str
    values: list

    def meets(self, value, tolerance=0.0):
        sign, limit, _ = self.bound.split(" ", 2)
        if sign == "≥":
            return value >= float(limit) * (1 - tolerance)
        return value <= float(limit) * (1 + tolerance)

    @property
    def deciding_value(self):
        """The median, or the one that is furthest from the bound."""
        if self.bound.endswith(", median"):
            return median(self.values)
        return min(self.values) if self.bound.startswith("≥") else max(self.values)

    @property
    def met(self):
        return self.meets(self.deciding_value)

    @property
    def nearly_met(self):
        """True if it is missed by no more than equal runs differ."""
        return not self.met and self.meets(self.deciding_value,
                                           0.15 if "memory" in self.work else 0.1)

    def reached(self):
        text = f"{self.deciding_value:.2f}"
        if len(self.values) > 1:
            text += f" ({min(self.values):.2f} to {max(self.values):.2f})"
            if not self.met and not self.bound.endswith(", median"):
                text += f", {sum(map(self.meets, self.values))} of {len(self.values)} cases"
        return text


def outcomes(run):
    """One outcome for each target that the run has cases for."""
    found = []
    for work, section, labels, measure, bound in TARGETS:
        values = [measure(case) for case in run.select(section, **labels)]
        if any(value is not None for value in values):
            found.append(Outcome(work, bound, [value for value in values if value is not None]))
    return found
