#!/usr/bin/python3
"""Holds the README and the guides to what they show:  check_docs.py SOURCE BUILD PREFIX

PREFIX is where the library is installed; the blocks that run find it as $HOME/velkoro.

Above a block of code stands what becomes of it, as a comment of Markdown:

    program: FOLDER/NAME   it is examples/FOLDER/NAME, or with ".cpp" behind that; blocks that run find it under
                           that name, or the one behind "as"
    output: FOLDER/NAME    it is what that program prints
    run                    the shell runs it, with the programs of the build on its path; the same for all
                           blocks of a page, in one folder; "output" below: it is what that prints. C++ is built
                           against PREFIX and runs there: in a handler, beside a server that is then asked
    start                  the same, in the background, until it says at which URL it listens: $URL. It ends with
                           Return, with the next one that starts, or the page
    inside                 C++ of the library's inside, not of the public headers: it is compiled
    shown: REASON          it cannot run here; commands for a shell are parsed

What has no such line is for nginx or systemd, which check it (the latter where it is there), XML, which is read,
or a drawing; anything else is an error. Links lead somewhere; every member of an options structure stands in a
table of its guide. Ports 8080 and 8443 become free ones.
"""

import concurrent.futures
import contextlib
import os
import pathlib
import random
import re
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time

SOURCE, BUILD, PREFIX = (pathlib.Path(argument).resolve() for argument in sys.argv[1:4])
LIMIT = 120  # seconds for any one program
BLOCK = re.compile(r"(?:<!-- ([a-z]+)(?:: (.+?))?(?: as (\S+))? -->\n)?^```(\w*)\n(.*?)^```$", re.M | re.S)
OPTIONS = {"docs/server.md": ("server.h", "ServerOptions"), "docs/client.md": ("client.h", "ClientRequest")}
failures = []
# A block of C++ as a part of a program. What it throws ends that with an error; so does a server that fails.
FRAGMENT = """#include <velkoro/client.h>
#include <velkoro/documents.h>
#include <velkoro/server.h>
#include <velkoro/store.h>
#include <iostream>
using velkoro::Answer; using velkoro::Request;
void Shown([[maybe_unused]] velkoro::Server& server, [[maybe_unused]] const Request& request,
           [[maybe_unused]] Answer& answer) {
%s
}
int main() {
  velkoro::Server first({.listen = {"http://127.0.0.1:0"}}), second({.listen = {"http://127.0.0.1:0"}});
  first.Handle("GET", "/", [&](const Request& request, Answer& answer) { Shown(second, request, answer); });
  second.Handle("GET", "/", [](const Request&, Answer& answer) { answer.Text("asked"); });
  for (velkoro::Server* server : {&first, &second}) {
    const velkoro::Outcome outcome = velkoro::Ask({.url = server->Start() + "/"}).get();
    if (outcome.status < 200 || outcome.status >= 500) return 1;
  }
}
"""


def fail(place, what):
    failures.append(f"{place}: {what}")


def call(words, **settings):
    return subprocess.run(words, text=True, timeout=LIMIT,
                          **{"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT} | settings)


def expect(place, words, **settings):
    done = call(words, **settings)
    if done.returncode:
        fail(place, f"{words[0]} ends with {done.returncode}\n{done.stdout}")
    return done.stdout


def compile_inside(place, text):
    text = (SOURCE / "tests/docs/inside.h").read_text() + f"void Shown() {{\n{text}}}\n"
    expect(place, ["c++", "-std=c++20", "-fsyntax-only", "-Wall", "-Wextra", "-Wno-unused", "-x", "c++", "-",
                   f"-I{SOURCE}/src", f"-I{SOURCE}/include"], input=text)


def source_of(name):
    """The file that a block shows: examples/server/routes.cpp for server/routes."""
    path = SOURCE / "examples" / name
    return path if path.suffix or path.name.startswith("CMake") else path.with_suffix(".cpp")


def program_of(name):
    folder, program = name.split("/")
    return BUILD / "examples" / folder / (folder if program == "main" else f"{folder}_{program}")


def free_port():
    """Below those that the system gives to others meanwhile."""
    while True:
        port = random.randrange(10000, 32000)
        with contextlib.suppress(OSError), socket.socket() as probe:
            probe.bind(("", port))
            return str(port)


class Shell:
    """The blocks of a page that run, in a folder of their own."""

    def __init__(self, page):
        self.page = page
        self.folder = tempfile.TemporaryDirectory()
        os.symlink(PREFIX, pathlib.Path(self.folder.name, "velkoro"))
        self.started = None
        self.ports = {shown: free_port() for shown in ("8080", "8443")}
        programs = [BUILD / "src/cli", *(path for path in (BUILD / "examples").iterdir() if path.is_dir())]
        self.settings = {"cwd": self.folder.name, "env": os.environ | {
            "PATH": ":".join(map(str, programs)) + ":" + os.environ["PATH"],
            "HOME": self.folder.name, "XDG_STATE_HOME": self.folder.name + "/.local/state", "CMAKE_GENERATOR": "Ninja"}}

    def with_ports(self, text):
        return re.sub(r"\b(8080|8443)\b", lambda match: self.ports[match[0]], text)

    def write(self, name, text):
        path = pathlib.Path(self.folder.name, name)
        path.parent.mkdir(exist_ok=True)
        path.write_text(self.with_ports(text))

    def words(self, text):
        return ["bash", "-euo", "pipefail", "-c", self.with_ports(text)]

    def run(self, place, text):
        output = expect(place, self.words(text), stdin=subprocess.DEVNULL, **self.settings)
        for shown, port in self.ports.items():
            output = output.replace(port, shown)
        return output

    def run_fragment(self, place, text):
        self.write("fragment.cpp", FRAGMENT % text)
        flags = f"PKG_CONFIG_PATH={PREFIX}/lib/pkgconfig pkg-config --cflags --libs velkoro-server"
        return self.run(place, f"c++ -std=c++20 -Wall -Wextra -Wno-unused fragment.cpp -o fragment $({flags}) "
                               f"-Wl,-rpath,{PREFIX}/lib && ./fragment")

    def start(self, place, text):
        self.stop()
        program = subprocess.Popen(self.words(text), stdin=subprocess.PIPE, stdout=subprocess.PIPE,
                                   stderr=subprocess.STDOUT, text=True, start_new_session=True, **self.settings)
        self.started = program
        said = ""
        for line in program.stdout:
            said += line
            if url := re.search(r"https?://[^/ ]+:[1-9][0-9]*", line):
                self.settings["env"]["URL"] = url[0]
                return
        fail(place, "it ends and does not listen\n" + said)

    def stop(self):
        if self.started:
            self.started.stdin.write("\n")
            self.started.stdin.close()
            signalled = "velkoro serve" in self.started.args[-1]  # asks for no Return
            if signalled:
                os.killpg(self.started.pid, signal.SIGTERM)
            if self.started.wait(LIMIT) not in (0, -signal.SIGTERM if signalled else 0):
                fail(self.page, f"what it starts ends with {self.started.returncode}")
            self.started.stdout.close()
        self.started = None

    def end(self):
        self.stop()
        self.folder.cleanup()


def check_unit(place, text):
    """What systemd would leave out of it is said, and no failure for systemd."""
    if not shutil.which("systemd-analyze"):
        return
    with tempfile.TemporaryDirectory() as folder:
        unit = pathlib.Path(folder, "shown.service")
        unit.write_text(re.sub(r"/usr/local/bin/(\w+)", lambda program: str(program_of(program[1] + "/main")), text))
        if said := expect(place, ["systemd-analyze", "verify", unit]):
            fail(place, said)


def check_block(page, shell, found, last):
    """Answers what the block printed when it ran; `last` is that of the block before."""
    marker, name, saved, language, text = found.groups()
    line = found.string.count("\n", 0, found.start(4)) + 1
    place = f"{page}:{line}"
    if marker == "program":
        if source_of(name).read_text() != text:
            fail(place, f"it does not show {source_of(name)}")
        shell.write(saved or name, text)
    elif marker == "output":
        printed = call([program_of(name)], stderr=subprocess.DEVNULL).stdout if name else last
        if printed != text:
            fail(place, f"printed is\n{printed}")
    elif marker == "run" and language == "cpp":
        return shell.run_fragment(place, f'#line {line + 1} "{page}"\n{text}')
    elif marker == "run":
        return shell.run(place, text)
    elif marker == "start":
        shell.start(place, text)
    elif marker == "inside":
        compile_inside(place, f'#line {line + 1} "{page}"\n{text}')
    elif marker == "shown":
        if language == "sh":
            expect(place, ["bash", "-n", "-c", text])
    elif language == "xml":
        expect(place, [BUILD / "src/cli/velkoro", "markup", "write", "-"], input=text)
    elif language == "ini":
        check_unit(place, text)
    elif language == "nginx":
        with tempfile.TemporaryDirectory() as folder:
            command = f"openssl req -x509 -newkey rsa:2048 -nodes -days 2 -subj /CN=x -keyout {folder}/key -out {folder}/cert"
            expect(place, command.split())
            text = re.sub(r"/etc/\S+?(key|cert)\.pem", rf"{folder}/\1", text)
            paths = "".join(f"{kind}_temp_path {folder}/{kind};\n"
                            for kind in ("client_body", "proxy", "fastcgi", "uwsgi", "scgi"))
            conf = pathlib.Path(folder) / "conf"
            conf.write_text(f"pid pid;\nevents {{}}\nhttp {{\naccess_log off;\n{paths}{text}}}\n")
            expect(place, ["/usr/sbin/nginx", "-t", "-q", "-e", "stderr", "-p", folder, "-c", conf])
    elif language:
        fail(place, "nothing is done with it")
    return last


def headings(file):
    """Of a page, as links call them."""
    return [re.sub(r"[^\w -]", "", heading.lower()).strip().replace(" ", "-")
            for heading in re.findall(r"^#+ (.*)$", BLOCK.sub("", file.read_text()), re.M)]


def check_page(page):
    text = (SOURCE / page).read_text()
    shell = Shell(page)
    try:
        printed = ""
        for found in BLOCK.finditer(text):
            printed = check_block(page, shell, found, printed)
    finally:
        shell.end()
    for target, anchor in re.findall(r"\]\(([^)#\s]*)(?:#([^)\s]+))?\)", BLOCK.sub("", text)):
        file = (SOURCE / page).parent / target if target else SOURCE / page
        if "://" not in target and not (file.exists() and (not anchor or anchor in headings(file))):
            fail(page, f"the link to {target} {anchor} leads nowhere")
    if page in OPTIONS:
        header, name = OPTIONS[page]
        members = re.search(rf"struct {name} {{(.*?)\n}};", (SOURCE / "include/velkoro" / header).read_text(), re.S)
        for member in re.findall(r"^\s+[\w:<>(), ]*?\b(\w+)(?: = .*)?;", members[1], re.M):
            if f"`{member}`" not in text:
                fail(page, f"the option {member} is missing")


def main():
    pages = ["README.md", "examples/notes/README.md",
             *(str(path.relative_to(SOURCE)) for path in sorted((SOURCE / "docs").glob("*.md")))]
    started = time.monotonic()
    with concurrent.futures.ThreadPoolExecutor(os.cpu_count()) as pool:
        for page, done in [(page, pool.submit(check_page, page)) for page in pages]:
            try:
                done.result()
            except Exception as failure:  # said with the page that it was met on
                fail(page, repr(failure))
    print("\n".join(failures) or f"{len(pages)} pages hold in {time.monotonic() - started:.1f} s")
    return 1 if failures else 0


if __name__ == "__main__":
    sys.exit(main())
