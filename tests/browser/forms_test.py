#!/usr/bin/env python3
"""Drives examples/forms in headless Chromium: fill, submit, upload, see the answers.

    forms_test.py VELKORO_FORMS [SCREENSHOT_FOLDER]

Needs the Debian packages chromium, chromium-driver and openssl. Everything it starts listens on
loopback, at ports the system chooses, and is ended by it.
"""

import base64
import contextlib
import json
import os
import re
import subprocess
import sys
import tempfile
import threading
import time
import urllib.error
import urllib.request

LIMIT = 60  # seconds for any single step
WAIT = 10  # seconds for a page to come
BROWSER_ARGUMENTS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--window-size=900,600",
]


class Started:
    """A child process whose standard output says when it is ready."""

    def __init__(self, command, ready):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                        stderr=subprocess.STDOUT, text=True)
        guard = threading.Timer(LIMIT, self.process.kill)
        guard.start()
        output = ""
        for line in self.process.stdout:
            output += line
            found = re.search(ready, line)
            if found:
                self.answer = found.group(1)
                break
        else:
            raise SystemExit(f"{command[0]} did not start:\n{output}")
        guard.cancel()
        # What it writes later must not block it.
        threading.Thread(target=self.process.stdout.read, daemon=True).start()

    def stop(self):
        """Closes its standard input and returns its exit status; ends it when it does not end."""
        self.process.stdin.close()
        try:
            return self.process.wait(LIMIT)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
            return "none within the limit"


class Browser:
    """One browser window, driven through the WebDriver protocol."""

    ELEMENT = "element-6066-11e4-a52e-4f735466cecf"

    def __init__(self, driver_port, profile):
        self.root = f"http://127.0.0.1:{driver_port}/session"
        options = {"binary": "/usr/bin/chromium",
                   "args": BROWSER_ARGUMENTS + ["--user-data-dir=" + profile]}
        session = self.call("POST", "", {"capabilities": {"alwaysMatch": {
            "acceptInsecureCerts": True, "goog:chromeOptions": options,
            "timeouts": {"implicit": WAIT * 1000, "pageLoad": LIMIT * 1000}}}})
        self.root += "/" + session["sessionId"]

    def call(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.root + path, data, method=method,
                                         headers={"Content-Type": "application/json"})
        try:
            with urllib.request.urlopen(request, timeout=LIMIT) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as failure:
            raise SystemExit(f"{method} {path}: {failure.read().decode()}") from None

    def open(self, url):
        self.call("POST", "/url", {"url": url})

    def title(self):
        return self.call("GET", "/title")

    def find(self, selector):
        """The first element of a CSS selector; waits until there is one."""
        return self.call("POST", "/element",
                         {"using": "css selector", "value": selector})[self.ELEMENT]

    def text(self, selector):
        return self.call("GET", f"/element/{self.find(selector)}/text")

    def message(self):
        """The answer of a form; none while another page is shown."""
        return self.script("const e = document.querySelector('#message'); return e && e.innerText")

    def type(self, selector, text):
        self.call("POST", f"/element/{self.find(selector)}/value", {"text": text})

    def click(self, selector):
        self.call("POST", f"/element/{self.find(selector)}/click", {})

    def script(self, text):
        return self.call("POST", "/execute/sync", {"script": text, "args": []})

    def drag(self, selector, x, y):
        """Presses the mouse on the element, moves it to a place of the window and lets go."""
        move = {"type": "pointerMove", "duration": 50}
        self.call("POST", "/actions", {"actions": [{"type": "pointer", "id": "mouse", "actions": [
            {**move, "origin": {self.ELEMENT: self.find(selector)}, "x": 0, "y": 0},
            {"type": "pointerDown", "button": 0}, {**move, "x": x, "y": y},
            {"type": "pointerUp", "button": 0}]}]})

    def screenshot(self, path):
        with open(path, "wb") as file:
            file.write(base64.b64decode(self.call("GET", "/screenshot")))

    def close(self):
        self.call("DELETE", "")


failures = 0


def expect_soon(what, read, expected):
    """Like expect(); a click returns before the page it leads to is there."""
    end = time.monotonic() + WAIT
    while (actual := read()) != expected and time.monotonic() < end:
        time.sleep(0.02)
    expect(what, actual, expected)


def expect(what, actual, expected):
    global failures
    right = actual == expected
    failures += not right
    print(f"{'ok  ' if right else 'FAIL'} {what}" + ("" if right else f": {actual!r}, not {expected!r}"))


def look_at_start_page(browser, url):
    browser.open(url)
    expect("the start page shows", browser.title(), "Forms")
    expect("a script added its part", browser.text("#extra > #added"),
           "This part was added by a script; it isn't in the page's own text.")
    expect("the lamps are animated", browser.script(
        "return [0, 1, 2].map(i => getComputedStyle(document.querySelector('.lamp' + i))"
        ".animationName)"), ["lamp0", "lamp1", "lamp2"])
    expect("the style sheet is in force", browser.script(
        "return getComputedStyle(document.querySelector('#box')).cursor"), "move")
    browser.drag("#box", 300, 200)
    expect("the box was dragged", browser.script(
        "const s = document.querySelector('#box').style; return [s.left, s.top]"),
        ["300px", "200px"])


def send_forms(browser, url, folder):
    browser.type("#name", "<b>Ann & Bj\u00f6rn</b>")
    browser.click("#colour option[value=green]")
    browser.click("#greet input[type=submit]")
    expect_soon("the URL-encoded form is answered", browser.message,
           "Hello <b>Ann & Bj\u00f6rn</b>, your lamp is green.")

    small = os.path.join(folder, "note.txt")
    with open(small, "w", encoding="ascii") as file:
        file.write("A small <note>")
    large = os.path.join(folder, "large.bin")
    with open(large, "wb") as file:
        file.write(b"0123456789" * 300_000)
    for path, answer in ((small, "14 bytes of text/plain came: A small <note>"),
                         (large, "3000000 bytes of application/octet-stream came: "
                          + "0123456789" * 6)):
        browser.click("a")
        browser.type("#file", path)
        browser.click("#upload input[type=submit]")
        expect_soon("the multipart form is answered", browser.message, answer)


def hand_over(browser):
    browser.click("a")
    browser.click("#finish input[type=submit]")
    expect_soon("the first handler says good-bye", browser.title, "Finished")
    browser.click("a")
    expect_soon("the second handler answers", browser.message,
           "The forms are closed: another handler answers.")
    browser.click("a")
    expect_soon("it hands back and sends to the start page", browser.title, "Forms")
    browser.click("#greet input[type=submit]")
    expect_soon("the first handler answers again", browser.message,
           "Hello stranger, your lamp is red.")


def miss_a_page(browser, url, screenshots):
    browser.open(url + "nothing/here.html")
    expect("a missing page shows its title", browser.title(), "Error 404 - not found")
    expect("and its message", browser.text("body"),
           "Error 404 - not found\nThe requested page was not found or the project was timed out."
           "\nStartseite")
    if screenshots:
        browser.screenshot(os.path.join(screenshots, "not_found.png"))
    browser.click("a")
    expect_soon("its link leads to the start page", browser.title, "Forms")
    if screenshots:
        browser.screenshot(os.path.join(screenshots, "forms.png"))


def main(program, screenshots=None):
    with tempfile.TemporaryDirectory(prefix="velkoro-browser-") as folder, \
            contextlib.ExitStack() as ending:
        certificate, key = os.path.join(folder, "cert.pem"), os.path.join(folder, "key.pem")
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                        "-subj", "/CN=localhost", "-keyout", key, "-out", certificate],
                       check=True, stderr=subprocess.DEVNULL)
        server = Started([program, "0", certificate, key], r"^listening at (https://\S+)$")
        ending.callback(lambda: expect("the program ends with its input", server.stop(), 0))
        driver = Started(["chromedriver", "--port=0"], r"successfully on port (\d+)")
        ending.callback(driver.process.wait)
        ending.callback(driver.process.terminate)
        browser = Browser(driver.answer, os.path.join(folder, "profile"))
        ending.callback(browser.close)

        look_at_start_page(browser, server.answer)
        send_forms(browser, server.answer, folder)
        hand_over(browser)
        miss_a_page(browser, server.answer, screenshots)
    return 1 if failures else 0


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
