"""The pictures of a report: line charts as SVG, panels side by side under a title and a legend."""

import math
import pathlib
import re
from dataclasses import dataclass
from xml.sax.saxutils import escape

from tables import short_peer

FONT = "font-family='Helvetica, Arial, sans-serif'"
INK = "#222222"
PALE = "#e4e4e4"
# Colours that stay apart for colour-blind readers, strongest first.
COLOURS = ["#0072b2", "#d55e00", "#009e73", "#cc79a7", "#e69f00", "#777777"]
HEIGHT, GAP, TOP, BOTTOM = 240, 62, 84, 58
SET_NAMES = {"L2": "second-level cache", "L3": "third-level cache", "DRAM": "memory"}


@dataclass
class Series:
    name: str
    points: list  # (x, y)
    colour: str
    width: float = 2.2
    dash: str = ""

    @property
    def dashes(self):
        return f" stroke-dasharray='{self.dash}'" if self.dash else ""


@dataclass
class Axis:
    ticks: list  # (value, text)
    low: float
    high: float
    logarithmic: bool = False
    label: str = ""

    def part(self, value):
        """The position of a value between the ends of the axis: 0 to 1."""
        value = min(max(value, self.low), self.high)
        if self.logarithmic:
            return math.log(value / self.low) / math.log(self.high / self.low)
        return (value - self.low) / (self.high - self.low)


def text(x, y, words, size=12, anchor="middle", extra=""):
    return (f"<text x='{x:.1f}' y='{y:.1f}' font-size='{size}' text-anchor='{anchor}' "
            f"fill='{INK}' {FONT} {extra}>{escape(words)}</text>")


def line(x1, y1, x2, y2, colour):
    return (f"<line x1='{x1:.1f}' y1='{y1:.1f}' x2='{x2:.1f}' y2='{y2:.1f}' "
            f"stroke='{colour}' stroke-width='1'/>")


def draw_panel(title, x_axis, y_axis, series, left, width):
    bottom, right, parts = TOP + HEIGHT, left + width, []
    for value, words in y_axis.ticks:
        y = bottom - y_axis.part(value) * HEIGHT
        parts += [line(left, y, right, y, PALE), text(left - 7, y + 4, words, 11, "end")]
    for value, words in x_axis.ticks:
        x = left + x_axis.part(value) * width
        parts += [line(x, bottom, x, bottom + 4, INK), text(x, bottom + 18, words, 11)]
    parts += [line(left, bottom, right, bottom, INK), line(left, TOP, left, bottom, INK),
              text(left + width / 2, bottom + 40, x_axis.label)]
    if title:
        parts.append(text(left + width / 2, TOP - 8, title, 13, extra="font-weight='bold'"))
    # The first series is the subject of the picture: it is drawn last, above the others.
    for entry in reversed(series):
        places = [(left + x_axis.part(x) * width, bottom - y_axis.part(y) * HEIGHT)
                  for x, y in entry.points]
        path = " ".join(f"{x:.1f},{y:.1f}" for x, y in places)
        parts.append(f"<polyline points='{path}' fill='none' stroke='{entry.colour}' "
                     f"stroke-width='{entry.width}' stroke-linejoin='round'{entry.dashes}/>")
        parts += [f"<circle cx='{x:.1f}' cy='{y:.1f}' r='{entry.width + 0.6:.1f}' "
                  f"fill='{entry.colour}'/>" for x, y in places]
    return parts


def chart(title, panels, y_axis):
    """The picture of panels (title, horizontal axis, series), which share vertical axis and legend."""
    width_of_panel = 300 if len(panels) > 1 else 660
    width, height = 48 + len(panels) * (width_of_panel + GAP), TOP + HEIGHT + BOTTOM
    middle = TOP + HEIGHT / 2
    parts = [f"<rect width='{width}' height='{height}' fill='white'/>",
             text(24, 26, title, 15, "start", extra="font-weight='bold'"),
             text(18, middle, y_axis.label, extra=f"transform='rotate(-90 18 {middle})'")]
    left = 24
    for entry in panels[0][2]:
        parts += [f"<line x1='{left}' y1='48' x2='{left + 24}' y2='48' stroke='{entry.colour}' "
                  f"stroke-width='{entry.width + 0.5}'{entry.dashes}/>",
                  text(left + 30, 52, entry.name, 12, "start")]
        left += 54 + 6.8 * len(entry.name)
    for i, (name, x_axis, series) in enumerate(panels):
        parts += draw_panel(name, x_axis, y_axis, series, 68 + i * (width_of_panel + GAP),
                            width_of_panel)
    body = "\n".join(parts)
    return (f"<svg xmlns='http://www.w3.org/2000/svg' width='{width}' height='{height}' "
            f"viewBox='0 0 {width} {height}'>\n{body}\n</svg>\n")


def highest(panels):
    return max(y for _, _, series in panels for entry in series for _, y in entry.points)


def decades(label, values):
    """A logarithmic axis from the power of ten below all values to the one above."""
    low, high = math.floor(math.log10(min(values))), math.ceil(math.log10(max(values)))
    return Axis([(10.0 ** i, f"{10.0 ** i:,g}") for i in range(low, high + 1)], 10.0 ** low,
                10.0 ** high, True, label)


def dimension_axis(cases):
    dims = sorted({case["dim"] for case in cases})
    ticks = [dim for dim in (2, 8, 32, 128, 512, 1536) if dims[0] <= dim <= dims[-1]]
    return Axis([(dim, str(dim)) for dim in ticks], dims[0] / 1.15, dims[-1] * 1.15, True, "dimension")


def fraction_chart(title, panels):
    """From 0 to 1, or higher where a contestant in cache beats the reading loops."""
    high = max(1.0, min(1.4, highest(panels) * 1.02))
    ticks = [(tick / 5, f"{tick / 5:.1f}") for tick in range(0, int(high * 5) + 1)]
    return chart(title, panels, Axis(ticks, 0.0, high, label="part of the limit"))


def fraction_of_limit(run):
    series = []
    for name, colour in zip(run.values("scan", "set"), COLOURS):
        cases = run.select("scan", set=name)
        megabytes = max(case.bytes for case in cases) / (1 << 20)
        series.append(Series(f"{megabytes:.3g} MB, {SET_NAMES[name]}",
                             [(case["dim"], case.of_limit()) for case in cases], colour))
    return fraction_chart("Exact search: part of the read limit, by dimension and size",
                          [("", dimension_axis(run.select("scan")), series)])


def peers(run):
    panels = []
    for name in run.values("scan", "set"):
        cases = run.select("scan", set=name)
        series = [Series("qx_runtime", [(case["dim"], case.of_limit()) for case in cases],
                         COLOURS[0], 3)]
        for peer, colour in zip(cases[0].of_role("peer"), COLOURS[1:]):
            points = [(case["dim"], case.of_limit(case.named(peer["name"]))) for case in cases]
            series.append(Series(short_peer(peer["name"]), points, colour, 1.6))
        panels.append((SET_NAMES[name].capitalize(), dimension_axis(cases), series))
    return fraction_chart("Exact search: the library and its peers, as parts of the read limit",
                          panels)


def walk(run):
    panels = []
    for order in run.values("walk", "ids"):
        cases = run.select("walk", function="visible_count", ids=order)
        series = [Series(name, [(place, case.nanoseconds_per_item(case.fastest(role)))
                                for place, case in enumerate(cases)], colour, dash=dash)
                  for name, role, colour, dash in [
                      ("qx_runtime", "engine", COLOURS[0], ""),
                      ("absl::flat_hash_map loop", "baseline", COLOURS[1], ""),
                      ("reading the ids", "limit", COLOURS[2], "5 4")]]
        # The shares at equal distances: they include 0, so a logarithm cannot place them.
        ticks = [(place, f"{case['changed']:g} %") for place, case in enumerate(cases)]
        panels.append((f"Ids {order}", Axis(ticks, -0.2, len(cases) - 0.8,
                                            label="changed rows, each of delta and deleted"), series))
    values = [y for _, _, series in panels for entry in series for _, y in entry.points]
    return chart("Counting visible rows: cost by share of changed rows", panels,
                 decades("ns a row", values))


def bars(title, groups):
    """The picture of groups (name, bars), each on its own scale; a bar is (name, milliseconds, colour)."""
    left, width, parts, y = 190, 420, [text(24, 26, title, 15, "start", extra="font-weight='bold'")], 30
    for name, entries in groups:
        y += 26
        parts.append(text(24, y, name, 13, "start"))
        longest = max(value for _, value, _ in entries)
        for label, value, colour in entries:
            y += 25
            end = left + width * value / longest
            parts += [text(left - 10, y, label, 13, "end"), text(end + 8, y, f"{value:.3g} ms", 13, "start"),
                      f"<polyline points='{left},{y - 4} {end:.1f},{y - 4}' stroke='{colour}' "
                      f"stroke-width='17'/>"]
    body, height = "\n".join(parts), y + 20
    return (f"<svg xmlns='http://www.w3.org/2000/svg' width='720' height='{height}' "
            f"viewBox='0 0 720 {height}'>\n<rect width='720' height='{height}' fill='white'/>\n{body}\n</svg>\n")


def sqlite_times():
    """Milliseconds of an exact search in SQLite, here and by sqlite-vec, as docs/SQLITE.md has them."""
    report = pathlib.Path(__file__).parents[2] / "docs/SQLITE.md"
    part = report.read_text(encoding="utf-8").split("## 1,000,000 drawn vectors of dimension 128")[1]
    return [float(time) for time in re.search(r"\| exact, k = 10 \| ([\d.]+) ms \| ([\d.]+) ms", part).groups()]


def exact(run):
    case = run.select("scan", set="DRAM", dim=128)[0]
    contestants = [("qx_runtime", case.engine, COLOURS[0]),
                   ("reading the vectors", case.fastest("limit"), COLOURS[5]),
                   ("hnswlib, exact", case.named("hnswlib"), COLOURS[1]),
                   ("Faiss IndexFlatIP", case.named("Faiss"), COLOURS[1])]
    ours, theirs = sqlite_times()
    return bars("One exact search: time, the ten best", [
        (f"{case.items:,} rows of 128 floats in memory, one thread",
         [(name, one["median"] * 1e3, colour) for name, one, colour in contestants]),
        ("1,000,000 rows of 128 floats in SQLite, two cores",
         [("qx_runtime", ours, COLOURS[0]), ("sqlite-vec", theirs, COLOURS[1])])])


# The pictures: file name, section, what it shows, how it is drawn.
PICTURES = [
    ("exact.svg", "scan", "One exact search: the library, reading the vectors, hnswlib, Faiss, sqlite-vec",
     exact),
    ("fraction_of_limit.svg", "scan", "Part of the read limit by dimension and size",
     fraction_of_limit),
    ("peers.svg", "scan", "The library and its peers as parts of the read limit", peers),
    ("walk.svg", "walk", "Cost of counting visible rows by share of changed rows", walk),
]
