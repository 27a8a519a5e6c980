"""The tables of the report: one for each section, a row for each case."""


def table(headers, rows):
    """A Markdown table; the first column is text, the others are figures."""
    lines = ["| " + " | ".join(headers) + " |", "|---|" + "---:|" * (len(headers) - 1)]
    lines += ["| " + " | ".join(row) + " |" for row in rows]
    return "\n".join(lines)


def ratio(value):
    return "–" if value is None else f"{value:.2f}"


def times(value):
    """A ratio that may be large: two digits after the point are enough below ten."""
    if value is None:
        return "–"
    return f"{value:.2f}" if value < 10 else f"{value:.1f}"


def spread(contestant):
    """How far the fastest and the slowest sample are from the median."""
    low = contestant["min"] / contestant["median"] - 1
    high = contestant["max"] / contestant["median"] - 1
    return f"{low * 100:+.0f} … {high * 100:+.0f} %"


def read_name(contestant):
    return contestant["name"].removeprefix("read ").split(",")[0]


def short_peer(name):
    return name.split(",")[0].replace(" IndexFlatIP", "").replace(" BruteforceSearch", "")


def scan_table(cases):
    first = cases[0]
    kernels = [time["name"] for time in first.of_role("kernel") if "-O3" not in time["name"]]
    peers = [time["name"] for time in first.of_role("peer")]
    headers = ["dim", "GB/s", "limit GB/s", "fastest read", "of linear read", "**of limit**"]
    headers += [f"{name}, of limit" for name in kernels]
    headers += ["**× fastest peer**"] + ["× " + short_peer(name) for name in peers]
    headers += ["× one row at a time", "portable by flags, × one row", "spread"]

    def row(case):
        limit = case.fastest("limit")
        flagged = case.named("portable, -O3")
        one_row = case.fastest("baseline")
        cells = [str(case["dim"]), f"{case.gigabytes_per_second():.1f}",
                 f"{case.gigabytes_per_second(limit):.1f}", read_name(limit),
                 ratio(case.speed(case.named("read linearly"))), f"**{ratio(case.of_limit())}**"]
        cells += [ratio(case.of_limit(case.named(name))) for name in kernels]
        cells += [f"**{ratio(case.against_peer())}**"]
        cells += [times(case.speed(case.named(name))) for name in peers]
        return cells + [times(case.against_baseline()),
                        times(one_row["median"] / flagged["median"]), spread(case.engine)]

    return table(headers, [row(case) for case in cases])


def scan_tables(run):
    parts = []
    for name in run.values("scan", "set"):
        cases = run.select("scan", set=name)
        megabytes = max(case.bytes for case in cases) / (1 << 20)
        size = f"{megabytes:.1f}" if megabytes < 10 else f"{megabytes:.0f}"
        parts += [f"### {name}: {size} MB", scan_table(cases)]
    return "\n\n".join(parts)


def plain_table(run, section, labels, columns):
    """A table whose first columns are labels, and whose others are computed from a case."""
    headers = [title for title, _ in labels] + [title for title, _ in columns] + ["spread"]
    rows = []
    for case in run.select(section):
        if not case.times:
            continue
        cells = [str(case[key]) for _, key in labels]
        cells += [show(case) for _, show in columns]
        rows.append(cells + [spread(case.engine)])
    return table(headers, rows)


def per_item(case):
    return f"{case.nanoseconds_per_item():.2f}"


def candidates_table(run):
    return plain_table(
        run, "candidates",
        [("function", "function"), ("dim", "dim"), ("ids", "ids"), ("changed %", "changed")],
        [("ns an id", per_item), ("**× one row at a time**", lambda c: times(c.against_baseline())),
         ("**of limit**", lambda c: ratio(c.of_limit())),
         ("fastest touch", lambda c: c.fastest("limit")["name"].removeprefix("touch "))])


def walk_table(run):
    return plain_table(
        run, "walk", [("function", "function"), ("ids", "ids"), ("changed %", "changed")],
        [("ns a row", per_item), ("**× absl**", lambda c: times(c.against_baseline())),
         ("**of limit**", lambda c: ratio(c.of_limit()))])


def match_table(run):
    return plain_table(
        run, "match", [("metadata", "attached"), ("ids", "ids"), ("changed %", "changed")],
        [("ns a row", per_item), ("**× absl**", lambda c: times(c.against_baseline())),
         ("of id copy", lambda c: ratio(c.of_limit()))])


def filtered_table(run):
    return plain_table(
        run, "filtered", [("filter", "filter"), ("changed %", "changed")],
        [("ns a row", per_item), ("**time × whole-base scan**", lambda c: times(c.cost())),
         ("of reading all vectors", lambda c: ratio(c.of_limit()))])


def ivf_table(run):
    return plain_table(
        run, "ivf",
        [("base", "base"), ("dim", "dim"), ("nlist", "nlist"), ("nprobe", "nprobe")],
        [("µs a query", lambda c: f"{c.nanoseconds_per_item() / 1000:.1f}"),
         ("**× Faiss**", lambda c: times(c.against_peer())),
         ("of limit", lambda c: ratio(c.of_limit()))])


def topk_table(run):
    return plain_table(
        run, "topk", [("scores", "scores"), ("k", "k")],
        [("ns a row", per_item), ("**× plain insertion**", lambda c: times(c.against_baseline())),
         ("of reading the scores", lambda c: ratio(c.of_limit()))])


def mutation_table(run):
    timed = plain_table(
        run, "mutation", [("function", "function"), ("ids", "ids")],
        [("ns an id", per_item), ("**× baseline**", lambda c: times(c.against_baseline())),
         ("time × baseline", lambda c: times(c.cost())),
         ("baseline", lambda c: c.fastest("baseline")["name"])])
    memory = table(["keys", "entries", "bytes per entry"],
                   [[case["ids"], f"{case.items:,}", f"{case.figures['bytes per entry']:.2f}"]
                    for case in run.select("mutation", function="memory")])
    return timed + "\n\n" + memory


def keys_table(run):
    return plain_table(
        run, "keys", [("operation", "operation"), ("keys", "keys")],
        [("ns a key", per_item), ("**time × random keys**", lambda c: times(c.cost()))])


def header_table(run):
    def cost(case, name):
        return f"{case.named(name)['median'] / case.fastest('baseline')['median']:.3f}"

    return plain_table(
        run, "header", [("call", "call"), ("rows", "rows"), ("dim", "dim"), ("k", "k")],
        [("ns in C", lambda c: f"{c.fastest('baseline')['median'] * 1e9:.0f}"),
         ("**slots, time × C**", lambda c: cost(c, "slots")),
         ("results, time × C", lambda c: cost(c, "results"))])


def environment_table(run):
    def nanoseconds(case, name):
        return case.named(name)["median"] / case.items * 1e9

    def more(case, name):
        return f"{nanoseconds(case, name) - nanoseconds(case, 'default'):+.1f}"

    return plain_table(
        run, "environment", [("call", "call")],
        [("ns in the default environment", lambda c: f"{nanoseconds(c, 'default'):.1f}"),
         ("no flag set, ns more", lambda c: more(c, "no flag set")),
         ("denormals flushed, ns more", lambda c: more(c, "flushing"))])


def readers_table(run):
    return plain_table(
        run, "readers", [("base", "base"), ("rows", "rows"), ("dim", "dim")],
        [("µs a search, one thread",
          lambda c: f"{c.fastest('baseline')['median'] / c.items * 1e6:.1f}"),
         ("**two threads, × one**", lambda c: times(c.against_baseline()))])


def targets_table(outcomes):
    rows = [[outcome.target.work, outcome.target.bound(), outcome.reached(),
             "yes" if outcome.met else "**no**"] for outcome in outcomes]
    return table(["work", "target", "reached", "met"], rows)
