#!/usr/bin/python3
"""Visits `velkoro serve` with headless Chromium: what pages are made of today, what Velkoro writes
for pages, and a built app.

    site_test.py VELKORO [SCREENSHOT_FOLDER]

Needs what browser.py needs, and the Debian packages esbuild, fonts-font-awesome, node-react and
node-react-dom: the bundler of npm and its most used library, from the place that every machine of
these tests reaches anyway, so that no second registry has to answer and nothing needs a lock file.
"""

import collections
import contextlib
import json
import os
import pathlib
import shutil
import struct
import subprocess
import sys
import tempfile

from selenium.common.exceptions import TimeoutException
from selenium.webdriver.support.wait import WebDriverWait

from browser import LIMIT, WAIT, open_browser, start_server

HERE = pathlib.Path(__file__).parent
FONT = "/usr/share/fonts-font-awesome/fonts/fontawesome-webfont.woff2"
ADDED = "This part was added by a script; it isn't in the page's own text."
VIDEO_GAP = 32 << 20  # more than a browser reads ahead


def stretched(video):
    """An MP4 film in two chunks, with a gap between them in place of hours of film: who is sent
    behind it must ask for that part."""
    at = video.index(b"stco") + 12
    second, = struct.unpack_from(">I", video, at + 4)
    data = video.index(b"mdat") - 4
    size, = struct.unpack_from(">I", video, data)
    film = bytearray(video)
    struct.pack_into(">I", film, at + 4, second + VIDEO_GAP)
    struct.pack_into(">I", film, data, size + VIDEO_GAP)
    return bytes(film[:second]) + bytes(VIDEO_GAP) + bytes(film[second:])


def build_app(folder):
    """The app as its bundler builds it: chunks that are loaded when needed, names with hashes."""
    subprocess.run(
        ["esbuild", HERE / "app/main.jsx", "--bundle", "--splitting", "--format=esm", "--minify",
         "--sourcemap", "--loader:.svg=file", "--public-path=/", f"--outdir={folder}",
         "--log-level=warning", '--define:process.env.NODE_ENV="production"',
         *(f"--{kind}-names=[name]-[hash]" for kind in ("asset", "chunk", "entry"))],
        check=True, timeout=LIMIT, env={**os.environ, "NODE_PATH": "/usr/share/nodejs"})
    page = (HERE / "app/index.html").read_text()
    for kind in ("js", "css"):
        entry, = folder.glob(f"main-*.{kind}")
        page = page.replace(f"/main.{kind}", f"/{entry.name}")
    (folder / "index.html").write_text(page)


class Site:
    """A served folder and the lines of its access log."""

    def __init__(self, ending, program, folder, scheme, options):
        self.log = folder.with_suffix(".log")
        self.old = 0
        _, self.url = start_server(
            ending, [program, "serve", folder, "--listen", f"{scheme}://127.0.0.1:0", "--state",
                     folder.with_suffix(".state"), "--log", self.log, "--log-format", "json",
                     *options],
            r" on (https?://127\.0\.0\.1:\d+/)")

    def answers(self, page, wanted):
        """Waits until there are lines with these targets; all since the last visit, by target."""
        answers = collections.defaultdict(list)

        def complete(_):
            answers.clear()
            lines = self.log.read_text().split("\n")[self.old:-1]
            for line in map(json.loads, lines):
                answers[line["target"]].append(line)
            return answers.keys() >= wanted

        with contextlib.suppress(TimeoutException):
            WebDriverWait(page.browser, WAIT, 0.02).until(complete)
        return answers

    def begin_visit(self):
        self.old = self.log.read_text().count("\n")


def visit_site(page, site, screenshots):
    browser = page.browser
    parts = {"/", "/style.css", "/picture.svg", "/main.mjs", "/part.mjs", "/part.mjs?late",
             "/worker.mjs", "/add.wasm", "/icons.woff2"}

    def look(when):
        page.expect(f"modules: static, {when}", "site.word", "module")
        page.expect(f"modules: dynamic, {when}", "site.late", "module")
        page.expect(f"a module worker, {when}", "site.worker", "hello to a worker with a module")
        page.expect(f"WebAssembly, {when}", "site.sum", 42)
        page.expect(f"a web font, {when}", "site.fonts", ["loaded"])
        page.expect(f"an SVG picture, {when}", "document.querySelector('img').naturalWidth", 40)

    def statuses(what, expected):
        answers = site.answers(page, parts)
        page.check(what, {part: answers[part][0]["status"] for part in parts & answers.keys()},
                   dict.fromkeys(parts, expected))

    browser.get(site.url)
    look("first visit")
    page.expect("the film's head is read", "document.querySelector('video').duration", 6)
    statuses("what the page is made of is sent", 200)
    for second, colour in ((4.5, "blue"), (1.5, "red")):
        page.expect_later(f"the film goes to second {second}", f"site.seek({second})", second)
        page.expect(f"the film shows second {second}", "site.colour()", colour)
    films = site.answers(page, {"/video.mp4"})["/video.mp4"]
    page.check("the film's end was asked for without what is before it",
               any(film["status"] == 206 and film["bytes"] < VIDEO_GAP // 2 for film in films), True)
    browser.save_screenshot(str(screenshots / "site.png"))
    page.expect_no_complaints("the browser has no complaints")

    site.begin_visit()
    browser.refresh()
    look("reloaded")
    statuses("what the browser has is not sent again", 304)
    page.expect_no_complaints("nor after the reload")


def write_page(program, folder):
    """A page whose animation and whose one paragraph are what the commands write."""
    def written(*words):
        return subprocess.run([program, *words], check=True, capture_output=True, text=True,
                              timeout=LIMIT).stdout

    animation = written("animate", "!linearanimation('.lamp', 3s, infinite, 2, 'opacity: 1;', "
                                   "'opacity: 0.2;', 5)")
    (folder / "part.html").write_text(f"<p id=\"added\">{ADDED}</p>")
    script = written("markup", "script", folder / "part.html")
    (folder / "written.html").write_text(
        f"<!DOCTYPE html><html><head><style>{animation}</style></head><body>"
        "<i class=\"lamp0\">0</i><i class=\"lamp1\">1</i><script>(function (document) "
        f"{script})({{createElement: tag => window.document.createElement(tag),"
        "appendChild: part => window.document.body.appendChild(part)})</script></body></html>")


def visit_written(page, url, screenshots):
    page.browser.get(url + "written.html")
    page.expect_text("a script adds its part", "#added", ADDED)
    page.expect("the lamps are animated", "[0, 1].map(i => getComputedStyle(document.querySelector("
                "'.lamp' + i)).animationName)", ["lamp0", "lamp1"])
    page.browser.get(url + "nothing/here.html")
    page.expect_title("a missing page shows its title", "Error 404 - not found")
    page.expect("and its message", "document.body.innerText.replace(/\\n+/g, '\\n')",
                "Error 404 - not found\nThe requested page was not found or the project was timed "
                "out.\nStartseite")
    page.browser.save_screenshot(str(screenshots / "not_found.png"))
    page.click("a")
    page.expect_title("its link leads to the start page", "Site")


def use_app(page, site, screenshots):
    browser = page.browser
    browser.get(site.url)
    page.expect_text("the app starts", "h1", "All items")
    page.expect("its style is in force", "getComputedStyle(document.querySelector('h1')).color",
                "rgb(0, 128, 128)")
    page.expect("its picture shows", "document.querySelector('img').naturalWidth", 40)
    page.expect("its script came compressed",
                "performance.getEntriesByType('resource').filter(e => e.name.endsWith('.js'))"
                ".every(e => e.encodedBodySize < e.decodedBodySize / 2)", True)
    page.click("a")
    page.expect_text("a route within the browser loads its chunk", "h1", "Item 7")
    browser.get(site.url + "items/12")
    page.expect_text("a route is opened from outside", "h1", "Item 12")
    browser.refresh()
    page.expect_text("and reloaded", "h1", "Item 12")
    browser.save_screenshot(str(screenshots / "app.png"))
    page.expect_no_complaints("the browser has no complaints about the app")
    page.expect_later("a missing script is no page",
                      "fetch('/none.js').then(answer => answer.status)", 404)


def main(program, screenshots=None):
    with contextlib.ExitStack() as ending:
        folder = pathlib.Path(ending.enter_context(tempfile.TemporaryDirectory()))
        screenshots = pathlib.Path(screenshots or folder)
        shutil.copytree(HERE / "site", folder / "site")
        shutil.copy(FONT, folder / "site/icons.woff2")
        (folder / "site/video.mp4").write_bytes(stretched((HERE / "site/video.mp4").read_bytes()))
        build_app(folder / "app")
        write_page(program, folder / "site")
        page = open_browser(ending, folder)
        # Without TLS, as a browser keeps nothing of a server whose certificate it does not know.
        visit_site(page, Site(ending, program, folder / "site", "http", ["--cache", "0"]),
                   screenshots)
        use_app(page, Site(ending, program, folder / "app", "https",
                           ["--fallback", "index.html", "--header",
                            "Content-Security-Policy: default-src 'self'; img-src 'self' data:"]),
                screenshots)
        visit_written(page, Site(ending, program, folder / "site", "https", ["--minimal"]).url,
                      screenshots)
        return 1 if page.failures else 0


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
