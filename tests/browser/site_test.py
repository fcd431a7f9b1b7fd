#!/usr/bin/python3
"""Visits `velkoro serve` with headless Chromium: what pages are made of today, what Velkoro writes.

    site_test.py VELKORO [SCREENSHOT_FOLDER]

Needs what browser.py needs, and the Debian package fonts-font-awesome.
"""

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


def serve(ending, program, folder, scheme, *options):
    """Where a folder is served; the access log is beside it."""
    return start_server(
        ending, [program, "serve", folder, "--listen", f"{scheme}://127.0.0.1:0", "--state",
                 folder.with_suffix(".state"), "--log", folder.with_suffix(".log"), "--log-format",
                 "json", *options],
        r" on (https?://127\.0\.0\.1:\d+/)")[1]


def statuses(page, log, wanted, seen):
    """Waits until there are lines for these targets behind so many; their first statuses."""
    found = {}

    def complete(_):
        for line in map(json.loads, log.read_text().split("\n")[seen:-1]):
            found.setdefault(line["target"], line["status"])
        return found.keys() >= wanted

    with contextlib.suppress(TimeoutException):
        WebDriverWait(page.browser, WAIT, 0.02).until(complete)
    return {target: found.get(target) for target in wanted}


def visit_site(page, url, log, screenshots):
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

    browser.get(url)
    look("first visit")
    page.check("what the page is made of is sent", statuses(page, log, parts, 0),
               dict.fromkeys(parts, 200))
    browser.save_screenshot(str(screenshots / "site.png"))
    page.expect_no_complaints("the browser has no complaints")
    seen = log.read_text().count("\n")
    browser.refresh()
    look("reloaded")
    page.check("what the browser has is not sent again", statuses(page, log, parts, seen),
               dict.fromkeys(parts, 304))
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


def visit_routes(page, url):
    page.browser.get(url + "items/12")
    page.expect_title("a route of an app is opened from outside", "Site")
    page.expect("a missing script is no page", "fetch('/none.js').then(answer => answer.status)",
                404)


def main(program, screenshots=None):
    with contextlib.ExitStack() as ending:
        folder = pathlib.Path(ending.enter_context(tempfile.TemporaryDirectory()))
        screenshots = pathlib.Path(screenshots or folder)
        shutil.copytree(HERE / "site", folder / "site")
        shutil.copy(FONT, folder / "site/icons.woff2")
        write_page(program, folder / "site")
        page = open_browser(ending, folder)
        # Without TLS, as a browser keeps nothing of a server whose certificate it does not know.
        site = folder / "site"
        visit_site(page, serve(ending, program, site, "http", "--cache", "0"), folder / "site.log",
                   screenshots)
        visit_routes(page, serve(ending, program, site, "https", "--fallback", "index.html"))
        visit_written(page, serve(ending, program, site, "https", "--minimal"), screenshots)
        return 1 if page.failures else 0


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
