#!/usr/bin/env python3
"""How long small files take while others have large texts compressed.

beside_compression.py VELKORO [--rounds N] [--seconds S] [--coding gzip|br] [--check]

Eight connections ask for 1 KiB every 5 ms, alone and beside four clients that ask for texts of 5 MB, each time for
a version that was never asked for before, as fast as they get them. Both are measured in turn in every round; the
medians over the rounds are shown, and with --check the exit status is 1 when p99 beside is over twice p99 alone.
"""
import argparse
import http.client
import multiprocessing
import os
import pathlib
import random
import re
import selectors
import socket
import statistics
import subprocess
import sys
import tempfile
import time

CONNECTIONS, PERIOD = 8, 0.005
READERS, TEXT_SIZE = 4, 5_000_000
TIME_LIMIT = 60
REQUEST = b"GET /small.bin HTTP/1.1\r\nHost: h\r\n\r\n"


def make_text(seed):
    """Prose-like: words of a few letters, some far more often than others."""
    source = random.Random(seed)
    words = ["".join(source.choices("etaoinshrdlu", k=source.randint(2, 9))) for _ in range(5000)]
    return " ".join(source.choices(words, [1 / (i + 1) for i in range(5000)], k=TEXT_SIZE // 5))[:TEXT_SIZE].encode()


def read_texts(port, path, coding, stop, read):
    """Asks for one text until it is told to stop; every request is for a version of its own."""
    connection = http.client.HTTPConnection("127.0.0.1", port, timeout=TIME_LIMIT)
    while not stop.is_set():
        os.utime(path, ns=(0, time.time_ns()))
        connection.request("GET", "/" + path.name, headers={"Accept-Encoding": coding})
        answer = connection.getresponse()
        answer.read()
        if answer.getheader("Content-Encoding") == coding:
            with read.get_lock():
                read.value += 1


def small_files(port, seconds):
    """The times of all answers, in seconds, from when a request was due."""
    wait = selectors.DefaultSelector()
    times, due = [], {}
    begin = time.perf_counter()
    for number in range(CONNECTIONS):
        peer = socket.create_connection(("127.0.0.1", port), TIME_LIMIT)
        due[peer] = begin + PERIOD * number / CONNECTIONS
    idle = sorted(due, key=due.get)
    while (now := time.perf_counter()) < begin + seconds:
        while idle and due[idle[0]] <= now:
            peer = idle.pop(0)
            peer.sendall(REQUEST)
            wait.register(peer, selectors.EVENT_READ)
        for key, _ in wait.select(max(0, due[idle[0]] - now) if idle else TIME_LIMIT):
            peer = key.fileobj
            answer = peer.recv(65536)
            if not answer.startswith(b"HTTP/1.1 200 "):
                raise SystemExit(f"unexpected answer: {answer[:60]!r}")
            now = time.perf_counter()
            times.append(now - due[peer])
            wait.unregister(peer)
            due[peer] = max(due[peer] + PERIOD, now)
            idle = sorted([*idle, peer], key=due.get)
    for peer in due:
        peer.close()
    return times


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("velkoro", type=pathlib.Path)
    parser.add_argument("--rounds", type=int, default=7)
    parser.add_argument("--seconds", type=float, default=4)
    parser.add_argument("--coding", choices=("gzip", "br"), default="gzip")
    parser.add_argument("--check", action="store_true")
    options = parser.parse_args()
    with tempfile.TemporaryDirectory() as name:
        folder = pathlib.Path(name) / "www"
        folder.mkdir()
        (folder / "small.bin").write_bytes(bytes(1024))
        texts = [folder / f"text{number}.txt" for number in range(READERS)]
        for number, path in enumerate(texts):
            path.write_bytes(make_text(number))
        server = subprocess.Popen([options.velkoro.resolve(), "serve", folder, "--listen", "http://127.0.0.1:0", "--log",
                                   folder.with_name("access.log")], stdout=subprocess.PIPE, text=True)
        try:
            found = re.search(r"http://127\.0\.0\.1:(\d+)/", server.stdout.readline())
            if not found:
                raise SystemExit("the server did not start")
            port = int(found[1])
            rows = []
            for _ in range(options.rounds):
                alone = small_files(port, options.seconds)
                stop, read = multiprocessing.Event(), multiprocessing.Value("i", 0)
                readers = [multiprocessing.Process(target=read_texts, args=(port, path, options.coding, stop, read))
                           for path in texts]
                for reader in readers:
                    reader.start()
                beside = small_files(port, options.seconds)
                stop.set()
                for reader in readers:
                    reader.join(TIME_LIMIT)
                if not read.value:
                    raise SystemExit("no text came compressed")
                row = [1000 * statistics.quantiles(times, n=100)[at] for times in (alone, beside) for at in (49, 98)]
                rows.append((*row, row[3] / row[1], read.value))
                print("p50 {:.2f} p99 {:.2f} ms alone, {:.2f} and {:.2f} ms beside: {:.2f}; {} texts".format(*rows[-1]),
                      flush=True)
        finally:
            server.terminate()
            server.wait(TIME_LIMIT)
    middle = [statistics.median(column) for column in zip(*rows)]
    print("median: p50 {:.2f} p99 {:.2f} ms alone, {:.2f} and {:.2f} ms beside: {:.2f}".format(*middle[:5]))
    return 1 if options.check and middle[4] > 2 else 0


if __name__ == "__main__":
    sys.exit(main())
