"""The pictures of the report, drawn from the cases of a run."""

from svg import COLOURS, Axis, Panel, Series, chart
from tables import short_peer

SET_NAMES = {"L2": "second-level cache", "L3": "third-level cache", "DRAM": "memory"}


def dimension_axis(cases):
    dims = sorted({case["dim"] for case in cases})
    ticks = [dim for dim in (2, 8, 32, 128, 512, 1536) if dims[0] <= dim <= dims[-1]]
    low, high = dims[0] / 1.15, dims[-1] * 1.15
    return Axis([(dim, str(dim)) for dim in ticks], low, high, True, "dimension")


def fraction_axis(label, values):
    """From 0 to 1, or higher where a contestant in cache beats the reading loops."""
    high = max(1.0, min(1.4, max(values) * 1.02))
    return Axis([(tick / 5, f"{tick / 5:.1f}") for tick in range(0, int(high * 5) + 1)], 0.0, high,
                label=label)


def set_names(run):
    return run.values("scan", "set")


def fraction_of_limit(run):
    cases = run.select("scan")
    series = []
    for i, name in enumerate(set_names(run)):
        chosen = run.select("scan", set=name)
        megabytes = max(case.bytes for case in chosen) / (1 << 20)
        points = [(case["dim"], case.of_limit()) for case in chosen]
        series.append(Series(f"{megabytes:.3g} MB, {SET_NAMES[name]}", points, COLOURS[i]))
    values = [y for entry in series for _, y in entry.points]
    panel = Panel("", dimension_axis(cases), fraction_axis("part of the limit", values), series,
                  width=660)
    return chart("Exact search: part of the read limit, by dimension and size", [panel], series)


def peer_series(cases):
    engine = [(case["dim"], case.of_limit()) for case in cases]
    series = [Series("qx_runtime", engine, COLOURS[0], width=3)]
    for i, peer in enumerate(cases[0].of_role("peer")):
        points = [(case["dim"], case.of_limit(case.named(peer["name"]))) for case in cases]
        series.append(Series(short_peer(peer["name"]), points, COLOURS[i + 1], width=1.6))
    return series


def peers_side_by_side(run):
    panels = []
    for name in set_names(run):
        cases = run.select("scan", set=name)
        series = peer_series(cases)
        values = [y for entry in series for _, y in entry.points]
        panels.append(Panel(SET_NAMES[name].capitalize(), dimension_axis(cases),
                            fraction_axis("part of the limit", values), series))
    return chart("Exact search: the library and its peers, as parts of the read limit", panels,
                 panels[0].series)


def share_axis(shares):
    """The shares at equal distances: they include 0, so a logarithm cannot place them."""
    ticks = [(place, f"{share:g} %") for place, share in enumerate(shares)]
    return Axis(ticks, -0.2, len(shares) - 0.8, label="changed rows, each of delta and deleted")


def cost_axis(values):
    low, high = 10, 0.01
    while low > min(values):
        low /= 10
    while high < max(values):
        high *= 10
    ticks, value = [], low
    while value <= high * 1.01:
        ticks.append((value, f"{value:g}"))
        value *= 10
    return Axis(ticks, low, high, True, "ns a row")


def walk_panel(run, order):
    cases = run.select("walk", function="visible_count", ids=order)
    contestants = [("qx_runtime", lambda case: case.engine),
                   ("absl::flat_hash_map loop", lambda case: case.fastest("baseline")),
                   ("reading the ids", lambda case: case.fastest("limit"))]
    series = []
    for i, (name, contestant) in enumerate(contestants):
        points = [(place, case.nanoseconds_per_item(contestant(case)))
                  for place, case in enumerate(cases)]
        dash = "5 4" if name == "reading the ids" else ""
        series.append(Series(name, points, COLOURS[i], dash))
    return Panel(f"Ids {order}", share_axis([case["changed"] for case in cases]), None, series)


def walk_cost(run):
    panels = [walk_panel(run, order) for order in run.values("walk", "ids")]
    values = [y for panel in panels for series in panel.series for _, y in series.points]
    for panel in panels:
        panel.y = cost_axis(values)
    return chart("Counting visible rows: cost by share of changed rows", panels,
                 panels[0].series)


def draw_all(run):
    """The pictures that the run has cases for: file name, what it shows, section, content."""
    pictures = []
    if run.select("scan"):
        pictures += [("fraction_of_limit.svg", "Part of the read limit by dimension and size",
                      "scan", fraction_of_limit(run)),
                     ("peers.svg", "The library and its peers as parts of the read limit", "scan",
                      peers_side_by_side(run))]
    if run.select("walk"):
        pictures.append(("walk.svg", "Cost of counting visible rows by share of changed rows",
                         "walk", walk_cost(run)))
    return pictures
