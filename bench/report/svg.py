"""Line charts as SVG, written out by hand: panels side by side under a title and a legend."""

import math
from dataclasses import dataclass, field
from xml.sax.saxutils import escape

FONT = "font-family='Helvetica, Arial, sans-serif'"
INK = "#222222"
PALE = "#e4e4e4"
# Colours that stay apart for colour-blind readers, strongest first.
COLOURS = ["#0072b2", "#d55e00", "#009e73", "#cc79a7", "#e69f00", "#777777"]

PANEL_HEIGHT = 240
GAP = 62
TOP = 84
BOTTOM = 58


@dataclass
class Series:
    name: str
    points: list  # (x, y)
    colour: str
    dash: str = ""
    width: float = 2.2


@dataclass
class Axis:
    ticks: list  # (value, text)
    low: float
    high: float
    logarithmic: bool = False
    label: str = ""

    def part(self, value):
        """The position of a value between the ends of the axis: 0 to 1."""
        if self.logarithmic:
            return math.log(value / self.low) / math.log(self.high / self.low)
        return (value - self.low) / (self.high - self.low)


@dataclass
class Panel:
    title: str
    x: Axis
    y: Axis
    series: list = field(default_factory=list)
    width: int = 300


def text(x, y, words, size=12, anchor="middle", colour=INK, extra=""):
    return (f"<text x='{x:.1f}' y='{y:.1f}' font-size='{size}' text-anchor='{anchor}' "
            f"fill='{colour}' {FONT} {extra}>{escape(words)}</text>")


def line(x1, y1, x2, y2, colour=PALE, width=1):
    return (f"<line x1='{x1:.1f}' y1='{y1:.1f}' x2='{x2:.1f}' y2='{y2:.1f}' "
            f"stroke='{colour}' stroke-width='{width}'/>")


def draw_grid(panel, left, top):
    bottom, right = top + PANEL_HEIGHT, left + panel.width
    parts = []
    for value, words in panel.y.ticks:
        y = bottom - panel.y.part(value) * PANEL_HEIGHT
        parts += [line(left, y, right, y), text(left - 7, y + 4, words, 11, "end")]
    for value, words in panel.x.ticks:
        x = left + panel.x.part(value) * panel.width
        parts += [line(x, bottom, x, bottom + 4, INK), text(x, bottom + 18, words, 11)]
    parts += [line(left, bottom, right, bottom, INK), line(left, top, left, bottom, INK)]
    parts.append(text(left + panel.width / 2, bottom + 40, panel.x.label, 12))
    return parts


def draw_series(panel, series, left, top):
    places = [(left + panel.x.part(x) * panel.width,
               top + PANEL_HEIGHT - panel.y.part(min(max(y, panel.y.low), panel.y.high)) *
               PANEL_HEIGHT) for x, y in series.points]
    path = " ".join(f"{x:.1f},{y:.1f}" for x, y in places)
    dash = f" stroke-dasharray='{series.dash}'" if series.dash else ""
    parts = [f"<polyline points='{path}' fill='none' stroke='{series.colour}' "
             f"stroke-width='{series.width}' stroke-linejoin='round'{dash}/>"]
    parts += [f"<circle cx='{x:.1f}' cy='{y:.1f}' r='{series.width + 0.6:.1f}' "
              f"fill='{series.colour}'/>" for x, y in places]
    return parts


def draw_legend(series, left, y):
    parts = []
    for entry in series:
        dash = f" stroke-dasharray='{entry.dash}'" if entry.dash else ""
        parts.append(f"<line x1='{left}' y1='{y}' x2='{left + 24}' y2='{y}' "
                     f"stroke='{entry.colour}' stroke-width='{entry.width + 0.5}'{dash}/>")
        parts.append(text(left + 30, y + 4, entry.name, 12, "start"))
        left += 54 + 6.8 * len(entry.name)
    return parts


def draw_panel(panel, left):
    parts = draw_grid(panel, left, TOP)
    if panel.title:
        parts.append(text(left + panel.width / 2, TOP - 8, panel.title, 13,
                          extra="font-weight='bold'"))
    # The first series is the subject of the picture: it is drawn last, above the others.
    for series in reversed(panel.series):
        parts += draw_series(panel, series, left, TOP)
    return parts


def chart(title, panels, legend):
    """The whole picture. The vertical axis is labelled once, at the left."""
    width = 48 + sum(panel.width + GAP for panel in panels)
    height = TOP + PANEL_HEIGHT + BOTTOM
    middle = TOP + PANEL_HEIGHT / 2
    parts = [f"<rect width='{width}' height='{height}' fill='white'/>",
             text(24, 26, title, 15, "start", extra="font-weight='bold'"),
             text(18, middle, panels[0].y.label, 12,
                  extra=f"transform='rotate(-90 18 {middle})'")]
    parts += draw_legend(legend, 24, 48)
    left = 68
    for panel in panels:
        parts += draw_panel(panel, left)
        left += panel.width + GAP
    body = "\n".join(parts)
    return (f"<svg xmlns='http://www.w3.org/2000/svg' width='{width}' height='{height}' "
            f"viewBox='0 0 {width} {height}'>\n{body}\n</svg>\n")
