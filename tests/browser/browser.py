"""Headless Chromium and the server it visits, for the tests beside this file.

Needs the Debian packages chromium, chromium-driver and python3-selenium. Everything it starts
listens on loopback, at ports the system chooses, and is ended with the stack it is given.
"""

import contextlib
import re
import subprocess

from selenium import webdriver
from selenium.common.exceptions import TimeoutException, WebDriverException
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.support.wait import WebDriverWait

LIMIT = 60  # seconds for any single step
WAIT = 10  # seconds for a page to come
BROWSER_ARGUMENTS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync",
    "--window-size=900,600",
]


def start_server(ending, words, line):
    """Starts a program and returns it with the address in that line of its output, a pattern."""
    server = ending.enter_context(subprocess.Popen(
        ["timeout", str(5 * LIMIT), *words], stdin=subprocess.PIPE, stdout=subprocess.PIPE,
        text=True))
    ending.callback(server.terminate)
    told = server.stdout.readline()
    if not (found := re.search(line, told)):
        raise SystemExit(f"FAIL {words[0]} does not say where it listens: {told!r}")
    return server, found.group(1)


def open_browser(ending, folder, **settings):
    """A page of a browser that ends with the stack `ending`; its profile lies in the folder."""
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    options.accept_insecure_certs = True
    for argument in BROWSER_ARGUMENTS + [f"--user-data-dir={folder / 'profile'}"]:
        options.add_argument(argument)
    for name, value in settings.items():
        options.add_experimental_option(name, value)
    browser = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
    ending.callback(browser.quit)
    browser.implicitly_wait(WAIT)
    browser.set_page_load_timeout(LIMIT)
    browser.set_script_timeout(WAIT)
    return Page(browser)


class Page:
    """What the browser shows, and the failures so far."""

    def __init__(self, browser):
        self.browser = browser
        self.failures = 0

    def find(self, selector):
        """The first element of a CSS selector; waits until there is one."""
        return self.browser.find_element(By.CSS_SELECTOR, selector)

    def click(self, selector):
        self.find(selector).click()

    def check(self, what, actual, expected):
        self.failures += actual != expected
        print(f"ok   {what}" if actual == expected else
              f"FAIL {what}: {actual!r}, not {expected!r}", flush=True)

    def expect(self, what, script, expected):
        """Evaluates a script until it gives the value: a click returns before the page it leads to
        is there."""
        with contextlib.suppress(TimeoutException):
            WebDriverWait(self.browser, WAIT, 0.02, [WebDriverException]).until(
                lambda browser: browser.execute_script("return " + script) == expected)
        try:
            actual = self.browser.execute_script("return " + script)
        except WebDriverException as failed:
            actual = failed.msg
        self.check(what, actual, expected)

    def expect_title(self, what, expected):
        self.expect(what, "document.title", expected)

    def expect_text(self, what, selector, expected):
        self.expect(what, f"(document.querySelector('{selector}') || {{}}).innerText", expected)

    def expect_no_complaints(self, what):
        """What the browser found wrong since this was asked last: missing files, refused types."""
        self.check(what, [entry["message"] for entry in self.browser.get_log("browser")], [])
