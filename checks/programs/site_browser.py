"""Looks at the built site in a headless browser, narrow and wide.

site_browser.py HTML PLOTS PICTURES    serves HTML on 127.0.0.1; PLOTS has the pictures that
                                       performance/ must show; screenshots go to PICTURES
--plots                                looks at the plots alone

A page passes at a width if its body does not overflow, the console is silent, every picture is
decoded, and nothing was asked of another host. A plot passes if it is decoded, and each colour (greys
apart) that it draws lines in, give or take 24 in each channel, stands in at least 20 pixels of its
screenshots, taken from its left to its right end. A link passes if its page and its anchor are there.
"""
import base64
import io
import json
import pathlib
import re
import subprocess
import sys
import tempfile
import urllib.parse

import numpy
from PIL import Image
from selenium import webdriver
from selenium.webdriver.chrome.service import Service

WIDTHS = (390, 1280)
FLAGS = ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-dev-shm-usage", "--hide-scrollbars",
         "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1")
LEAST_PIXELS = 20
NEAR = 24  # how far each channel of a pixel may be from a colour: lines have soft edges
OVERFLOW = "return document.documentElement.scrollWidth - document.documentElement.clientWidth"
PICTURES = """return Promise.all([...document.images].map(
  image => image.decode().then(() => [image.currentSrc, image.naturalWidth, image.naturalHeight],
                               () => [image.src, 0, 0])))"""
LINKS = "return [...document.querySelectorAll('a[href]')].map(a => a.href)"
ANCHORS = "return [...document.querySelectorAll('[id], a[name]')].map(e => e.id || e.name)"


def open_browser(profile):
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    for flag in (*FLAGS, f"--user-data-dir={profile}"):
        options.add_argument(flag)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
    driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    driver.set_page_load_timeout(60)
    driver.set_script_timeout(60)
    driver.get("about:blank")
    for log in ("browser", "performance"):  # what the browser's own first page asked for
        driver.get_log(log)
    return driver


def serve(folder):
    """The server, which chooses its port, and the address of the site."""
    server = subprocess.Popen([sys.executable, "-u", "-m", "http.server", "0", "--bind", "127.0.0.1",
                               "--directory", folder], stdout=subprocess.PIPE,
                              stderr=subprocess.DEVNULL, text=True)
    return server, re.search(r"http://[\d.]+:\d+/", server.stdout.readline())[0]


def show(driver, address, width):
    driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": width, "height": 900, "deviceScaleFactor": 1, "mobile": False})
    driver.get(address)


def asked(driver):
    """The addresses that the browser asked for since the last look."""
    for entry in driver.get_log("performance"):
        message = json.loads(entry["message"])["message"]
        if message["method"] == "Network.requestWillBeSent":
            yield message["params"]["request"]["url"]


def screenshot(driver, clip=None):
    arguments = {"captureBeyondViewport": True}
    if clip is not None:
        arguments["clip"] = {**clip, "scale": 1}
    data = driver.execute_cdp_cmd("Page.captureScreenshot", arguments)["data"]
    return Image.open(io.BytesIO(base64.b64decode(data))).convert("RGB")


def whole_page(driver):
    size = driver.execute_script("return [document.documentElement.clientWidth, "
                                 "document.documentElement.scrollHeight]")
    return screenshot(driver, {"x": 0, "y": 0, "width": size[0], "height": min(size[1], 12000)})


def wrong_with_page(driver, site):
    findings = []
    overflow = driver.execute_script(OVERFLOW)
    if overflow > 0:
        findings.append(f"{overflow} pixels wider than the window")
    findings += [f"console: {entry['message']}" for entry in driver.get_log("browser")]
    findings += [f"no picture: {source}" for source, width, height
                 in driver.execute_script(PICTURES) if not (width and height)]
    findings += [f"asks for {url}" for url in asked(driver)
                 if not url.startswith((site, "data:", "blob:" + site))]
    return findings


def line_colours(svg):
    colours = set(re.findall(r"stroke='#([0-9a-fA-F]{6})'", svg.read_text()))
    return {colour for colour in map(str.lower, colours) if len({*re.findall("..", colour)}) > 1}


# The part of a plot that is in sight, after moving it sideways to a place.
PART = """
  const image = [...document.images].find(i => new URL(i.src).pathname.endsWith(arguments[0]));
  if (!image) return null;
  const frame = image.parentElement.closest('.plot') || image;
  frame.scrollLeft = arguments[1];
  const box = frame.getBoundingClientRect();
  return {decoded: image.complete && image.naturalWidth > 0 && image.naturalHeight > 0,
          full: image.getBoundingClientRect().width,
          clip: {x: box.x + scrollX, y: box.y + scrollY, width: box.width, height: box.height}};"""


def wrong_with_plot(driver, svg, pictures):
    colours = line_colours(svg)
    seen = dict.fromkeys(sorted(colours), 0)
    left = 0
    while True:
        part = driver.execute_script(PART, "/" + svg.name, left)
        if part is None:
            return ["is not on the page"]
        if not part["decoded"] or not (part["clip"]["width"] and part["clip"]["height"]):
            return ["is not decoded"]
        picture = screenshot(driver, part["clip"])
        picture.save(pictures / f"plot_{svg.stem}_{left:.0f}.png")
        pixels = numpy.asarray(picture, dtype=int)
        for colour in seen:
            near = abs(pixels - [*bytes.fromhex(colour)]) <= NEAR
            seen[colour] += int(near.all(axis=2).sum())
        left += part["clip"]["width"]
        if left >= part["full"]:
            break
    wrong = [f"has {count} pixels of #{colour}, not {LEAST_PIXELS}"
             for colour, count in seen.items() if count < LEAST_PIXELS]
    return wrong if colours else ["draws no coloured line"]


class Report:
    def __init__(self):
        self.passed = self.failed = 0

    def add(self, name, findings):
        if findings:
            self.failed += 1
        else:
            self.passed += 1
        print(f"{name}: " + ("failed: " + "; ".join(findings) if findings else "passed"), flush=True)


def look_at_pages(driver, site, html, pictures, report):
    links, anchors = {}, {}
    for file in sorted(html.rglob("*.html")):
        path = str(file.relative_to(html))
        path = path[:-len("index.html")] if path.endswith("index.html") else path
        for width in WIDTHS:
            show(driver, site + path, width)
            report.add(f"/{path} at {width}", wrong_with_page(driver, site))
            name = path.strip("/").replace("/", "_") or "index"
            whole_page(driver).save(pictures / f"{name}_{width}.png")
        links[path] = driver.execute_script(LINKS)
        anchors[path] = set(driver.execute_script(ANCHORS))
    for path, targets in links.items():
        report.add(f"/{path} links", [url for url in sorted(set(targets))
                                      if not leads_somewhere(url, site, html, anchors)])
    report.add("functions in the reference",
               [f"{len(found)} of 30 anchors"] if len(found := [
                   name for name in anchors.get("reference/", ()) if name.startswith("qx_")]) != 30
               else [])


def leads_somewhere(url, site, html, anchors):
    if not url.startswith(site):
        return False
    path, _, anchor = url[len(site):].partition("#")
    if path not in anchors:
        return bool(path) and (html / urllib.parse.unquote(path)).is_file() and not anchor
    return not anchor or urllib.parse.unquote(anchor) in anchors[path]


def look_at_plots(driver, site, plots, pictures, report):
    for width in WIDTHS:
        show(driver, site + "performance/", width)
        driver.execute_script(PICTURES)
        for svg in sorted(plots.glob("*.svg")):
            report.add(f"plot {svg.stem} at {width}", wrong_with_plot(driver, svg, pictures))


def main():
    arguments = [argument for argument in sys.argv[1:] if argument != "--plots"]
    if len(arguments) != 3:
        sys.exit("usage: site_browser.py [--plots] HTML PLOTS PICTURES")
    html, plots, pictures = map(pathlib.Path, arguments)
    pictures.mkdir(parents=True, exist_ok=True)
    report = Report()
    server, site = serve(html)
    try:
        with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as profile:
            driver = open_browser(profile)
            try:
                if "--plots" not in sys.argv:
                    look_at_pages(driver, site, html, pictures, report)
                look_at_plots(driver, site, plots, pictures, report)
            finally:
                driver.quit()
    finally:
        server.terminate()
        server.wait()
    print(f"browser: {report.passed} passed, {report.failed} failed")
    return 1 if report.failed or not report.passed else 0


sys.exit(main())
