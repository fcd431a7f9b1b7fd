#!/usr/bin/env python3
"""What one kept-alive request costs, in figures that do not depend on the machine's speed.

request_costs.py VELKORO COUNT_CALLS OPENAT2_CALLS [--check]

Each workload runs with few and with many requests; the difference is divided by the difference of their numbers, so
that starting and stopping do not count. All but the workloads named "standard" are in minimal semantics. User
instructions come from callgrind, allocations and mutexes from a preloaded library, system calls from strace. Requests are sent in lock step on eight connections. With --check the exit
status is 1 when a figure is over its budget.
"""
import argparse
import os
import pathlib
import re
import socket
import ssl
import subprocess
import sys
import tempfile
import urllib.request

CONNECTIONS = 8
FEW, MANY = 400, 2400
TIME_LIMIT = 120

ATTEMPTS = 5

# user instructions, allocations, mutexes, system calls; see docs/performance.md. What a pass of receiving costs is
# divided by its requests: on a busy machine a pass has only one or two.
BUDGETS = {
    "plain": (14_000, 4, 16, 4.5),
    "tls": (34_000, 14, 16, 4.5),
    "404": (14_000, 4, 16, 4),
    "standard": (18_500, 4, 16, 4.5),  # "plain" in standard semantics
    "standard 404": (19_500, 4, 16, 4),
    "standard 304": (19_500, 4, 16, 4.5),
}


def start(command, folder, environment=None):
    process = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL, text=True, env=environment,
                               cwd=folder)
    urls = {}
    for line in process.stdout:
        for scheme, port in re.findall(r"(https?)://127\.0\.0\.1:(\d+)/", line):
            urls[scheme] = int(port)
        if len(urls) == 2:
            return process, urls
    raise SystemExit(f"the server did not start: {' '.join(map(str, command))}")


def read_answer(stream):
    length = 0
    status = stream.readline()
    while (line := stream.readline()) not in (b"\r\n", b""):
        name, _, value = line.partition(b":")
        if name.lower() == b"content-length":
            length = int(value)
    if not status or len(stream.read(length)) != length:
        raise SystemExit("an answer is cut short")
    return status


def validator(port, path):
    """A field by which the server answers that the client has the file already."""
    answer = urllib.request.urlopen(f"http://127.0.0.1:{port}{path}", timeout=TIME_LIMIT)
    return f"If-None-Match: {answer.headers['ETag']}\r\n"


def drive(port, tls, path, requests, status, field=""):
    peers = []
    for _ in range(CONNECTIONS):
        peer = socket.create_connection(("127.0.0.1", port), TIME_LIMIT)
        if tls:
            context = ssl.create_default_context()
            context.check_hostname = False
            context.verify_mode = ssl.CERT_NONE
            peer = context.wrap_socket(peer)
        peers.append((peer, peer.makefile("rb")))
    request = f"GET {path} HTTP/1.1\r\nHost: 127.0.0.1\r\n{field}\r\n".encode()
    for _ in range(requests // CONNECTIONS):
        for peer, _ in peers:
            peer.sendall(request)
        for _, stream in peers:
            answer = read_answer(stream)
            if status not in answer:
                raise SystemExit(f"unexpected answer: {answer!r}")
    for peer, stream in peers:
        stream.close()
        peer.close()


def run(prefix, velkoro, folder, workload, requests, environment=None):
    command = [*prefix, velkoro, "serve", folder / "www", "--listen", "http://127.0.0.1:0", "--listen",
               "https://127.0.0.1:0", "--log", folder / "access.log"]
    if not workload.startswith("standard"):
        command.append("--minimal")
    process, ports = start(command, folder, environment)
    try:
        tls = workload == "tls"
        path, status = ("/absent", b"404") if workload.endswith("404") else ("/small.bin", b"200")
        port, field = ports["https" if tls else "http"], ""
        if workload.endswith("304"):
            field, status = validator(port, path), b"304"
        drive(port, tls, path, requests, status, field)
    finally:
        # strace passes no signal on: the server itself is told.
        target = process.pid
        if prefix and prefix[0] == "strace":
            children = pathlib.Path(f"/proc/{target}/task/{target}/children").read_text().split()
            target = int(children[0])
        subprocess.run(["kill", "-TERM", str(target)], check=True)
        process.communicate(timeout=TIME_LIMIT)


def instructions(velkoro, folder, workload, requests, library):
    # A valgrind that lacks openat2 would send every file over another road than the system does.
    out = folder / "callgrind.out"
    run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}"], velkoro, folder, workload, requests,
        {**os.environ, "LD_PRELOAD": str(library)})
    return [sum(int(total) for total in re.findall(r"^(?:totals|summary): (\d+)", out.read_text(), re.M)[:1])]


def counted_calls(velkoro, folder, workload, requests, library):
    counts = folder / "counts"
    run([], velkoro, folder, workload, requests,
        {**os.environ, "LD_PRELOAD": str(library), "VELKORO_COUNTS": str(counts)})
    return [int(count) for count in counts.read_text().split()]


def system_calls(velkoro, folder, workload, requests):
    out = folder / "strace.out"
    run(["strace", "-f", "-c", "-U", "calls,name", "-o", out], velkoro, folder, workload, requests)
    return [int(re.findall(r"^\s*(\d+)\s+total", out.read_text(), re.M)[0])]


def least(measure, budget):
    """What a request costs by that measure. Others on the machine only add to it, as a pass has fewer requests then:
    figures over their budget are taken again."""
    figures = []
    for _ in range(ATTEMPTS):
        few, many = measure(FEW), measure(MANY)
        now = [(b - a) / (MANY - FEW) for a, b in zip(few, many)]
        figures = [min(pair) for pair in zip(figures, now)] if figures else now
        if all(figure <= most for figure, most in zip(figures, budget)):
            break
    return figures


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("velkoro", type=pathlib.Path)
    parser.add_argument("count_calls", type=pathlib.Path)
    parser.add_argument("openat2_calls", type=pathlib.Path)
    parser.add_argument("--check", action="store_true")
    options = parser.parse_args()
    for name in ("velkoro", "count_calls", "openat2_calls"):
        setattr(options, name, getattr(options, name).resolve())
    over = False
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name)
        (folder / "www").mkdir()
        (folder / "www" / "small.bin").write_bytes(bytes(1024))
        print("| request | user instructions | allocations | mutexes | system calls |\n|---|---:|---:|---:|---:|")
        for workload, budget in BUDGETS.items():
            figures = []
            for measure in (lambda n: instructions(options.velkoro, folder, workload, n, options.openat2_calls),
                            lambda n: counted_calls(options.velkoro, folder, workload, n, options.count_calls),
                            lambda n: system_calls(options.velkoro, folder, workload, n)):
                figures += least(measure, budget[len(figures):])
            cells = []
            for figure, most in zip(figures, budget):
                over = over or figure > most
                cells.append(f"{figure:,.{0 if figure > 1000 else 1}f}{' over ' + str(most) if figure > most else ''}")
            print(f"| {workload} | {' | '.join(cells)} |", flush=True)
    return 1 if options.check and over else 0


if __name__ == "__main__":
    sys.exit(main())
