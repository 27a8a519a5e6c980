"""Looks at the built site in a headless browser, narrow and wide.

site_browser.py HTML PLOTS PICTURES [PAGE]    serves HTML on 127.0.0.1; PLOTS has the pictures that
                                              performance/ must show; screenshots go to PICTURES;
                                              looks at all pages or at one

A page passes at a width if its body does not overflow, the console is silent, every picture is
decoded, nothing was asked of another host, no line of code of a reference is wider than its column in a
wide window, and each plot can be moved in a narrow one; performance/, if each plot is among its pictures
and draws a line. A link passes if its page and its anchor are there. The search must find words that
newcomers look for, and the demo must find neighbours, filter them and delete one.
"""
import json
import pathlib
import re
import subprocess
import sys
import tempfile
import urllib.parse

from selenium import webdriver
from selenium.common.exceptions import TimeoutException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.support.ui import WebDriverWait

WIDTHS = (390, 1440)
SOUGHT = ("persist", "batch", "normalize", "cosine", "windows", "macos", "licence", "uninstall")
FLAGS = ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
         "--disable-background-networking", "--disable-component-update", "--disable-sync",
         "--disable-dev-shm-usage", "--hide-scrollbars",
         "--host-resolver-rules=MAP * ~NOTFOUND, EXCLUDE 127.0.0.1")
OVERFLOW = "return document.documentElement.scrollWidth - document.documentElement.clientWidth"
PICTURES = """return Promise.all([...document.images].map(
  image => image.decode().then(() => [image.currentSrc, image.naturalWidth, image.naturalHeight],
                               () => [image.src, 0, 0])))"""
CUT_CODE = """return [...document.querySelectorAll('.md-content pre > code')].filter(
  code => code.scrollWidth > code.clientWidth).map(code => code.innerText.slice(0, 60))"""
FIXED_PLOTS = """return [...document.querySelectorAll('.plot')].filter(plot => {
  plot.scrollLeft = 40; const moved = plot.scrollLeft; plot.scrollLeft = 0; return moved !== 40; }).length"""
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


def show(driver, address, width, height=900):
    driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
        "width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})
    if driver.current_url != address:
        driver.get(address)


def asked(driver):
    """The addresses that the browser asked for since the last look."""
    for entry in driver.get_log("performance"):
        message = json.loads(entry["message"])["message"]
        if message["method"] == "Network.requestWillBeSent":
            yield message["params"]["request"]["url"]


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


def wrong_with_width(driver, path, width):
    if width == WIDTHS[0]:
        fixed = driver.execute_script(FIXED_PLOTS)
        return [f"{fixed} plots cannot be moved"] if fixed else []
    cut = driver.execute_script(CUT_CODE) if path.startswith("reference") else []
    return [f"code is cut off: {text!r}" for text in cut]


def look_for_words(driver, site, report):
    for word in SOUGHT:
        driver.get("about:blank")
        show(driver, site, WIDTHS[1])
        driver.find_element("css selector", "input.md-search__input").send_keys(word)
        try:
            WebDriverWait(driver, 20).until(
                lambda seen: seen.find_elements("css selector", ".md-search-result__item"))
            findings = []
        except TimeoutException:
            findings = ["nothing is found"]
        report.add(f"search for {word}", findings)


def neighbours(driver):
    return [row.text.split()[0] for row in driver.find_elements("css selector", "#demo-hits tr")]


def wrong_with_demo(driver, site):
    show(driver, site + "demo/", WIDTHS[1])
    WebDriverWait(driver, 60).until(neighbours)
    found = neighbours(driver)
    if len(found) != 12 or "musical" not in found:
        yield f"the neighbours of music are {found}"
    if not re.search(r"A search of 20,000 words took [\d.]+ ms", driver.find_element("id", "demo-time").text):
        yield "there is no time"
    driver.find_element("css selector", "#demo-hits button").click()
    left = neighbours(driver)
    if left[:11] != found[1:] or "19,999" not in driver.find_element("id", "demo-time").text:
        yield f"{found[0]} was deleted, and {left} are left"
    driver.find_element("id", "demo-letters").send_keys("5")
    if {len(word) for word in neighbours(driver)} != {5}:
        yield "words of another length pass"
    driver.find_element("id", "demo-word").send_keys("xx")
    if neighbours(driver) or "not among" not in driver.find_element("id", "demo-time").text:
        yield "a word that there is not has neighbours"


def wrong_with_plots(driver, html, plots):
    decoded = {pathlib.PurePosixPath(source).name
               for source, width, height in driver.execute_script(PICTURES) if width and height}
    for svg in sorted(plots.glob("*.svg")):
        if svg.name not in decoded:
            yield f"no plot {svg.stem}"
        elif "<polyline" not in (html / "plots" / svg.name).read_text():
            yield f"plot {svg.stem} draws no line"


class Report:
    def __init__(self):
        self.passed = self.failed = 0

    def add(self, name, findings):
        if findings:
            self.failed += 1
        else:
            self.passed += 1
        print(f"{name}: " + ("failed: " + "; ".join(findings) if findings else "passed"), flush=True)


def look_at_page(driver, site, path, html, plots, pictures, report):
    for width in WIDTHS:
        driver.get("about:blank")
        show(driver, site + path, width)
        findings = wrong_with_page(driver, site) + wrong_with_width(driver, path, width)
        if path == "performance/":
            findings += wrong_with_plots(driver, html, plots)
        report.add(f"/{path} at {width}", findings)
        height = driver.execute_script("return document.documentElement.scrollHeight")
        show(driver, site + path, width, min(height, 12000))
        driver.save_screenshot(pictures / f"{path.strip('/').replace('/', '_') or 'index'}_{width}.png")


def look_at_all(driver, site, html, plots, pictures, report):
    links, anchors = {}, {}
    for file in sorted(html.rglob("*.html")):
        path = str(file.relative_to(html)).removesuffix("index.html")
        look_at_page(driver, site, path, html, plots, pictures, report)
        links[path] = driver.execute_script(LINKS)
        anchors[path] = set(driver.execute_script(ANCHORS))
    for path, targets in links.items():
        report.add(f"/{path} links", [url for url in sorted(set(targets))
                                      if not leads_somewhere(url, site, html, anchors)])
    functions = [name for name in anchors.get("reference/", ()) if name.startswith("qx_")]
    report.add("functions in the reference",
               [f"{len(functions)} of 30 anchors"] if len(functions) != 30 else [])
    look_for_words(driver, site, report)
    report.add("demo", list(wrong_with_demo(driver, site)))


def leads_somewhere(url, site, html, anchors):
    if not url.startswith(site):
        return False
    path, _, anchor = url[len(site):].partition("#")
    if path not in anchors:
        return bool(path) and (html / urllib.parse.unquote(path)).is_file() and not anchor
    return not anchor or urllib.parse.unquote(anchor) in anchors[path]


def main():
    if len(sys.argv) not in (4, 5):
        sys.exit("usage: site_browser.py HTML PLOTS PICTURES [PAGE]")
    html, plots, pictures = map(pathlib.Path, sys.argv[1:4])
    pictures.mkdir(parents=True, exist_ok=True)
    report = Report()
    server, site = serve(html)
    try:
        with tempfile.TemporaryDirectory(ignore_cleanup_errors=True) as profile:
            driver = open_browser(profile)
            try:
                if len(sys.argv) == 5:
                    look_at_page(driver, site, sys.argv[4], html, plots, pictures, report)
                else:
                    look_at_all(driver, site, html, plots, pictures, report)
            finally:
                driver.quit()
    finally:
        server.terminate()
        server.wait()
    print(f"browser: {report.passed} passed, {report.failed} failed")
    return 1 if report.failed or not report.passed else 0


sys.exit(main())
