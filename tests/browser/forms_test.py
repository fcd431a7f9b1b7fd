#!/usr/bin/python3
"""Drives tests/browser/elements.cpp in headless Chromium: fill, submit, upload, see the answers.

    forms_test.py VELKORO_ELEMENTS [SCREENSHOT_FOLDER]

Needs what browser.py needs, and the Debian package openssl.
"""

import contextlib
import pathlib
import subprocess
import sys
import tempfile

from selenium import webdriver

from browser import LIMIT, open_browser, start_server


def look_at_start_page(page, url):
    page.browser.get(url)
    page.expect_title("the start page shows", "Forms")
    page.expect_text("a script added its part", "#extra > #added",
                     "This part was added by a script; it isn't in the page's own text.")
    page.expect("the lamps are animated",
                "[0, 1, 2].map(i => getComputedStyle(document.querySelector('.lamp' + i))"
                ".animationName)", ["lamp0", "lamp1", "lamp2"])
    page.expect("the style sheet is in force",
                "getComputedStyle(document.querySelector('#box')).cursor", "move")
    drag = webdriver.ActionChains(page.browser).click_and_hold(page.find("#box"))
    drag.w3c_actions.pointer_action.move_to_location(300, 200)
    drag.release().perform()
    page.expect("the box was dragged",
                "(s => [s.left, s.top])(document.querySelector('#box').style)", ["300px", "200px"])


def send_forms(page, folder):
    page.find("#name").send_keys("<b>Ann & Bj\u00f6rn</b>")
    page.click("#colour option[value=green]")
    page.click("#greet input[type=submit]")
    page.expect_text("the URL-encoded form is answered", "#message",
                     "Hello <b>Ann & Bj\u00f6rn</b>, your lamp is green.")
    for name, content, answer in (
            ("note.txt", b"A small <note>", "14 bytes of text/plain came: A small <note>"),
            ("large.bin", b"0123456789" * 300_000,
             "3000000 bytes of application/octet-stream came: " + "0123456789" * 6)):
        file = folder / name
        file.write_bytes(content)
        page.click("a")
        page.find("#file").send_keys(str(file))
        page.click("#upload input[type=submit]")
        page.expect_text("the multipart form is answered", "#message", answer)


def miss_a_page(page, url, screenshots):
    page.browser.get(url + "nothing/here.html")
    page.expect_title("a missing page shows its title", "Error 404 - not found")
    page.expect("and its message", "document.body.innerText.replace(/\\n+/g, '\\n')",
                "Error 404 - not found\nThe requested page was not found or the project was timed "
                "out.\nStartseite")
    page.browser.save_screenshot(str(screenshots / "not_found.png"))
    page.click("a")
    page.expect_title("its link leads to the start page", "Forms")
    page.browser.save_screenshot(str(screenshots / "forms.png"))


def main(program, screenshots=None):
    with contextlib.ExitStack() as ending:
        folder = pathlib.Path(ending.enter_context(tempfile.TemporaryDirectory()))
        certificate, key = folder / "cert.pem", folder / "key.pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-days", "2",
                        "-subj", "/CN=localhost", "-keyout", key, "-out", certificate],
                       check=True, stderr=subprocess.DEVNULL, timeout=LIMIT)
        server, url = start_server(ending, [program, certificate, key], r"^(https://\S+)\n$")
        page = open_browser(ending, folder)
        look_at_start_page(page, url)
        send_forms(page, folder)
        miss_a_page(page, url, pathlib.Path(screenshots or folder))
        server.stdin.close()
        print(f"the program ends with its input: {server.wait(LIMIT)}")
        return 1 if page.failures or server.returncode else 0


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
