#!/usr/bin/python3
"""Uses examples/notes on a phone in headless Chromium: log in, write, find, add a picture, leave.

    notes_test.py NOTES [SCREENSHOT]

Needs what browser.py needs.
"""

import contextlib
import pathlib
import struct
import subprocess
import sys
import tempfile
import zlib

from browser import LIMIT, open_browser, start_server

PHONE = {"deviceMetrics": {"width": 360, "height": 640, "pixelRatio": 1.5, "mobile": True}}
HOSTILE = "</textarea><script>document.title = 'broken'</script> & \"all\""


def picture(width=320, height=180):
    """A PNG file: the sun over hills."""
    rows = bytearray()
    for y in range(height):
        rows.append(0)  # no filter
        for x in range(width):
            if y > 140 + 0.0009 * (x - 90) ** 2:
                rows += bytes((36, 74, 58))
            elif (x - 215) ** 2 + (y - 58) ** 2 < 700:
                rows += bytes((255, 226, 140))
            else:
                rows += bytes((250 - y // 3, 150 + y // 3, 110 + y // 2))
    def chunk(kind, data):
        return struct.pack(">I", len(data)) + kind + data + struct.pack(">I", zlib.crc32(kind + data))
    return (b"\x89PNG\r\n\x1a\n" + chunk(b"IHDR", struct.pack(">IIBBBBB", width, height, 8, 2, 0, 0, 0))
            + chunk(b"IDAT", zlib.compress(bytes(rows), 9)) + chunk(b"IEND", b""))


def write_note(page, title, text, file=None):
    page.click("header a")
    page.click("a.button")
    page.find("input[name=title]").send_keys(title)
    page.find("textarea").send_keys(text)
    if file:
        page.find("input[type=file]").send_keys(str(file))
    page.click("main form button")
    page.expect_title("the note is kept", title + " - Notes")
    page.expect("its text is as it was written", "document.querySelector('textarea').value", text)


def log_in(page, password):
    page.find("input[name=name]").clear()
    page.find("input[name=name]").send_keys("Ada")
    page.find("input[name=password]").send_keys(password)
    page.click("main button")


def main(program, screenshot=None):
    with contextlib.ExitStack() as ending:
        folder = pathlib.Path(ending.enter_context(tempfile.TemporaryDirectory()))
        database = folder / "notes.db"
        subprocess.run([program, database, "add", "Ada"], input=b"analytical engine\n", check=True,
                       timeout=LIMIT)
        server, url = start_server(ending, [program, database, "http://127.0.0.1:0"],
                                   r"^(http://\S+)\n$")
        page = open_browser(ending, folder, mobileEmulation=PHONE)
        page.browser.get(url + "/notes/1")
        page.expect_title("a stranger is asked to log in", "Log in - Notes")
        log_in(page, "difference engine")
        page.expect_text("a wrong password is none", "[role=alert]",
                         "Name and password do not go together.")
        log_in(page, "analytical engine")
        page.expect_title("the right one opens the notes", "Notes")
        page.expect("scripts do not see the session", "document.cookie", "")

        (folder / "hills.png").write_bytes(picture())
        write_note(page, HOSTILE, HOSTILE)
        write_note(page, "Shopping", "Bread, butter, tea\nA ribbon for the typewriter")
        write_note(page, "The hills at six", "Walk the ridge again in May: start before the sun does.",
                   folder / "hills.png")
        page.expect("the picture is shown", "document.querySelector('main img').naturalWidth", 320)
        page.click("header a")
        page.expect("no note broke the page", "document.querySelectorAll('.card').length", 3)
        page.expect("nothing is wider than the phone",
                    "document.documentElement.scrollWidth <= document.documentElement.clientWidth",
                    True)
        page.find("input[type=search]").send_keys("TYPEWR\n")
        page.expect_text("a word is found by its beginning", ".card h2", "Shopping")
        page.expect("and nothing else", "document.querySelectorAll('.card').length", 1)
        page.find("input[type=search]").clear()
        page.find("input[type=search]").send_keys("</textarea>\n")
        page.expect_text("hostile words are words", ".card h2", HOSTILE)
        page.click(".card")
        page.click("main form + form button")
        page.expect("a note is deleted", "document.querySelectorAll('.card').length", 2)
        if screenshot:
            page.expect("pictures are loaded", "[...document.images].every(i => i.complete)", True)
            page.browser.save_screenshot(screenshot)
        secret = page.browser.get_cookie("session")["value"]
        page.click("header button")
        page.expect_title("who leaves is out", "Log in - Notes")
        page.browser.add_cookie({"name": "session", "value": secret})
        page.browser.get(url)
        page.expect_title("and the session has ended", "Log in - Notes")
        server.terminate()
        print(f"the program ends with its signal: {server.wait(LIMIT)}")
        return 1 if page.failures or server.returncode else 0


if __name__ == "__main__":
    if len(sys.argv) not in (2, 3):
        sys.exit(__doc__)
    sys.exit(main(*sys.argv[1:]))
