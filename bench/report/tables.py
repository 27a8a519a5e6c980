"""The tables of the report: one for each section, a row for each case."""

from results import Case

WORST_CASES = 20  # of the grid, which has hundreds


def table(headers, rows):
    """A Markdown table; the first column is text, the others are figures."""
    lines = ["| " + " | ".join(headers) + " |", "|---|" + "---:|" * (len(headers) - 1)]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows])


def ratio(value):
    return "–" if value is None else f"{value:.2f}"


def times(value):
    """A ratio that may be large: two digits after the point are enough below ten."""
    return ratio(value) if value is None or value < 10 else f"{value:.1f}"


def spread(contestant):
    """How far the fastest and the slowest sample are from the median."""
    low, high = (contestant[end] / contestant["median"] - 1 for end in ("min", "max"))
    return f"{low * 100:+.0f} … {high * 100:+.0f} %"


def short_peer(name):
    return name.split(",")[0].replace(" IndexFlatIP", "").replace(" BruteforceSearch", "")


def per_item(case):
    return f"{case.nanoseconds_per_item():.2f}"


def x_baseline(case):
    return times(case.against_baseline())


def time_x_baseline(case):
    return times(case.cost())


def of_limit(case):
    return ratio(case.of_limit())


def baseline(case, per, digits):
    """The baseline's time by item, in a unit of which a second has `per`."""
    return f"{case.fastest('baseline')['median'] / case.items * per:.{digits}f}"


def gigabytes(case):
    return f"{case.gigabytes_per_second(case.engine):.1f}"


def limit_gigabytes(case):
    return f"{case.gigabytes_per_second(case.fastest('limit')):.1f}"


def per_query(case):
    return f"{case.engine['median'] * 1e6:.1f}"


def x_named(name):
    return lambda case: times(case.speed(case.named(name)))


def cost_of(name):
    return lambda case: f"{case.speed(case.named(name), case.fastest('baseline')):.3f}"


def more_than_baseline(name):
    return lambda case: "{:+.1f}".format(
        *[case.nanoseconds_per_item(case.named(name)) -
          case.nanoseconds_per_item(case.fastest("baseline"))])


# Of each section: its title, the labels of its cases, and what is computed from a case.
SECTIONS = {
    "scan": ("Exact search of the whole base", "", {}),
    "sets": ("Words, and a million rows of 960", "rows dim k", {
        "rows searched": lambda case: f"{case.items:,}", "µs a query": per_query,
        "**× without codes**": x_baseline, "**of limit**": of_limit,
        **{f"× {short_peer(name)}": x_named(name) for name in (
            "Faiss IndexFlatIP", "hnswlib", "OpenBLAS sgemv", "-ffast-math loop")}}),
    "codes": ("Codes", "set rows dim k", {
        "ns a row": per_item, "**× without codes**": x_baseline, "**of limit**": of_limit}),
    "searches": ("Searches of some rows", "function dim rows changed", {
        "ns a row": per_item, "**× without codes**": x_baseline}),
    "grid": ("Where codes might lose", "set rows dim k", {
        "ns a row": per_item, "× without codes": x_baseline,
        "**beyond the spread**": lambda case: times(case.beyond_spread())}),
    "pages": ("Large pages", "dim pages large", {
        "GB/s": gigabytes, "limit GB/s": limit_gigabytes, "**of limit**": of_limit}),
    "candidates": ("Search of listed ids", "function dim ids changed", {
        "ns an id": per_item, "**× one row at a time**": x_baseline, "**of limit**": of_limit,
        "fastest touch": lambda case: case.fastest("limit")["name"].removeprefix("touch ")}),
    "walk": ("The walk over visible rows", "function ids changed", {
        "ns a row": per_item, "**× absl**": x_baseline, "**of limit**": of_limit}),
    "match": ("Ids by label", "attached ids changed", {
        "ns a row": per_item, "**× absl**": x_baseline, "of id copy": of_limit}),
    "filtered": ("Filtered search", "filter changed", {
        "ns a row": per_item, "**time × whole-base scan**": time_x_baseline,
        "of reading all vectors": of_limit}),
    "ivf": ("Search through lists", "base dim nlist nprobe", {
        "µs a query": lambda case: f"{case.nanoseconds_per_item() / 1000:.1f}",
        "**× Faiss**": lambda case: times(case.against_peer()), "of limit": of_limit}),
    "topk": ("The result buffer", "scores k", {
        "ns a row": per_item, "**× plain insertion**": x_baseline,
        "of reading the scores": of_limit}),
    "mutation": ("Insert, delete, metadata, build", "function ids", {
        "ns an id": per_item, "**× baseline**": x_baseline, "time × baseline": time_x_baseline,
        "baseline": lambda case: case.fastest("baseline")["name"]}),
    "keys": ("Patterned keys", "operation keys", {
        "ns a key": per_item, "**time × random keys**": time_x_baseline}),
    "header": ("The C++ header beside the C interface", "call rows dim k", {
        "ns in C": lambda case: baseline(case, 1e9, 0), "**slots, time × C**": cost_of("slots"),
        "results, time × C": cost_of("results")}),
    "environment": ("The host's floating-point environment", "call", {
        "ns in the default environment": lambda case: baseline(case, 1e9, 1),
        "no flag set, ns more": more_than_baseline("no flag set"),
        "denormals flushed, ns more": more_than_baseline("flushing")}),
    "readers": ("Two threads that read one handle", "base rows dim", {
        "µs a search, one thread": lambda case: baseline(case, 1e6, 1),
        "**two threads, × one**": x_baseline}),
}
LABELS = {"changed": "changed %", "attached": "metadata", "pages": "large pages",
          "large": "MB in them"}  # where the title is another


def make(cases, columns):
    return table(list(columns) + ["spread"],
                 [[show(case) for show in columns.values()] + [spread(case.engine)]
                  for case in cases])


def scan_columns(first):
    """One column for each kernel and each peer that the cases have."""
    def bold(text):
        return f"**{text}**"

    def part_of_limit(name):
        return lambda case: ratio(case.of_limit(case.named(name)))

    kernels = [time["name"] for time in first.of_role("kernel") if "-O3" not in time["name"]]
    return {
        "dim": lambda case: str(case["dim"]),
        "GB/s": gigabytes,
        "limit GB/s": limit_gigabytes,
        "fastest read": lambda case: case.fastest("limit")["name"][len("read "):].split(",")[0],
        "of linear read": lambda case: ratio(case.speed(case.named("read linearly"))),
        "**of limit**": lambda case: bold(of_limit(case)),
        **{f"{name}, of limit": part_of_limit(name) for name in kernels},
        "**× fastest peer**": lambda case: bold(ratio(case.against_peer())),
        **{"× " + short_peer(peer["name"]): x_named(peer["name"]) for peer in first.of_role("peer")},
        "× one row at a time": x_baseline,
        "portable by flags, × one row":
            lambda case: times(case.speed(case.fastest("baseline"), case.named("portable, -O3"))),
    }


def worst(cases):
    case = min(cases, key=Case.beyond_spread)
    return f"{times(case.beyond_spread())} (dim {case['dim']}, k {case['k']})"


def grid_table(run):
    """The worst case of each kind of rows and each size."""
    sets = run.values("grid", "set")
    return table(["rows", *sets], [[kind, *[worst(run.select("grid", rows=kind, set=name))
                                            for name in sets]]
                                   for kind in run.values("grid", "rows")])


def section_tables(run, section):
    if section == "scan":
        parts = []
        for name in run.values("scan", "set"):
            cases = run.select("scan", set=name)
            megabytes = max(case.bytes for case in cases) / (1 << 20)
            size = f"{megabytes:.1f}" if megabytes < 10 else f"{megabytes:.0f}"
            parts += [f"### {name}: {size} MB", make(cases, scan_columns(cases[0]))]
        return parts
    _, labels, computed = SECTIONS[section]
    columns = {LABELS.get(key, key): lambda case, key=key: str(case[key]) for key in labels.split()}
    cases = [case for case in run.select(section) if case.times]
    parts = []
    if section == "grid":
        parts.append(grid_table(run))
        cases = sorted(cases, key=Case.beyond_spread)[:WORST_CASES]
    parts.append(make(cases, {**columns, **computed}))
    figures = [case for case in run.select(section) if case.figures]
    if figures:
        parts.append(table(["keys", "entries", *figures[0].figures],
                           [[case["ids"], f"{case.items:,}", *map(ratio, case.figures.values())]
                            for case in figures]))
    return parts
