#!/usr/bin/env python3
"""What a handler's answer costs beside a file of that size, and beside the handlers of other libraries.

answers.py FOLDER [--rounds N] [--seconds S] [--connections N] [--check]

FOLDER holds answers_server and what there is of hello_microhttpd and hello_httplib. Each is asked by wrk in turn, round
by round; the medians are shown. CPU is the time of all threads of the server, of the program and of the system, for one
request. With --check the exit status is 1 when a handler's answer costs more than 1.15 times the file's.
"""
import argparse
import os
import pathlib
import re
import statistics
import subprocess
import sys
import tempfile

MOST = 1.15  # of the CPU of a file
TICK = os.sysconf("SC_CLK_TCK")


class Program:
    def __init__(self, *command):
        self.process = subprocess.Popen(command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        self.url = self.process.stdout.readline().strip()

    def cpu(self):
        fields = pathlib.Path(f"/proc/{self.process.pid}/stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / TICK

    def ask(self, path, options):
        """Requests in a second, and microseconds of CPU for each."""
        before = self.cpu()
        out = subprocess.run(["wrk", "-t1", f"-c{options.connections}", f"-d{options.seconds}s", self.url + path],
                             check=True, capture_output=True, text=True).stdout
        requests = int(re.search(r"(\d+) requests in", out).group(1))
        if "Non-2xx" in out or "Socket errors" in out or not requests:
            raise SystemExit(f"{self.url}{path}: {out}")
        return requests / options.seconds, (self.cpu() - before) / requests * 1e6

    def end(self):
        self.process.communicate()


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("folder", type=pathlib.Path)
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--seconds", type=int, default=2)
    parser.add_argument("--connections", type=int, default=16)
    parser.add_argument("--check", action="store_true")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as name:
        www = pathlib.Path(name)
        (www / "hello.txt").write_bytes(b"hello\n")
        (www / "kilobyte.txt").write_bytes(b"x" * 1024)
        programs = [ours := Program(options.folder / "answers_server", www),
                    many := Program(options.folder / "answers_server", www, "1000")]
        rows = {"file, 6 bytes": (ours, "/hello.txt"), "handler, 6 bytes": (ours, "/hello"),
                "handler among 1,000 routes": (many, "/hello"), "file, 1 KiB": (ours, "/kilobyte.txt"),
                "handler, 1 KiB": (ours, "/kilobyte")}
        for other in ("microhttpd", "httplib"):
            if (program := options.folder / f"hello_{other}").exists():
                programs.append(Program(program))
                rows[f"handler of {other}, 6 bytes"] = (programs[-1], "/hello")
        figures = {row: [] for row in rows}
        for _ in range(options.rounds):
            for row, (program, path) in rows.items():
                figures[row].append(program.ask(path, options))
        for program in programs:
            program.end()
    print("| answer | requests/s | CPU us/request | to the file |\n|---|---:|---:|---:|")
    over = False
    cost = {row: statistics.median(cpu for _, cpu in values) for row, values in figures.items()}
    for row, values in figures.items():
        file = cost["file, 1 KiB" if "KiB" in row else "file, 6 bytes"]
        over = over or (row.startswith("handler, ") and cost[row] > MOST * file)
        print(f"| {row} | {statistics.median(rate for rate, _ in values):,.0f} | {cost[row]:.1f} | "
              f"{cost[row] / file:.2f} |")
    return 1 if options.check and over else 0


if __name__ == "__main__":
    sys.exit(main())
