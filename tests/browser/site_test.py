#!/usr/bin/python3
"""Visits `velkoro serve` with headless Chromium: what pages are made of today, what Velkoro writes.

    site_test.py VELKORO [SCREENSHOT_FOLDER]

Needs what browser.py needs, and the Debian package fonts-font-awesome.
"""

import collections
import contextlib
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile

from selenium.common.exceptions import TimeoutException
from selenium.webdriver.support.wait import WebDriverWait

from browser import LIMIT, WAIT, open_browser, start_server

HERE = pathlib.Path(__file__).parent
FONT = "/usr/share/fonts-font-awesome/fonts/fontawesome-webfont.woff2"
ADDED = "This part was added by a script; it isn't in the page's own text."


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
    statuses("what the page is made of is sent", 200)
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


def visit_written(page, site, screenshots):
    page.browser.get(site.url + "written.html")
    page.expect_text("a script adds its part", "#added", ADDED)
    page.expect("the lamps are animated", "[0, 1].map(i => getComputedStyle(document.querySelector("
                "'.lamp' + i)).animationName)", ["lamp0", "lamp1"])
    page.browser.get(site.url + "nothing/here.html")
    page.expect_title("a missing page shows its title", "Error 404 - not found")
    page.expect("and its message", "document.body.innerText.replace(/\\n+/g, '\\n')",
                "Error 404 - not found\nThe requested page was not found or the project was timed "
                "out.\nStartseite")
    page.browser.save_screenshot(str(screenshots / "not_found.png"))
    page.click("a")
    page.expect_title("its link leads to the start page", "Site")


def visit_routes(page, site):
    page.browser.get(site.url + "items/12")
    page.expect_title("a route of an app is opened from outside", "Site")
    page.expect_later("a missing script is no page",
                      "fetch('/none.js').then(answer => answer.status)", 404)


def main(program, screenshots=None):
    with contextlib.ExitStack() as ending:
        folder = pathlib.Path(ending.enter_context(tempfile.TemporaryDirectory()))
        screenshots = pathlib.Path(screenshots or folder)
        shutil.copytree(HERE / "site", folder / "site")
        shutil.copy(FONT, folder / "site/icons.woff2")
        write_page(program, folder / "site")
        page = open_browser(ending, folder)
        # Without TLS, as a browser keeps nothing of a server whose certificate it does not know.
        visit_site(page, Site(ending, program, folder / "site", "http", ["--cache", "0"]),
                   screenshots)
        visit_routes(page, Site(ending, program, folder / "site", "https",
                                ["--fallback", "index.html"]))
        visit_written(page, Site(ending, program, folder / "site", "https", ["--minimal"]),
                      screenshots)
        return 1 if page.failures else 0


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
