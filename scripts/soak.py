"""Mixed load against `velkoro serve`, and a look at whether anything grows.

Usage: soak.py PROGRAM MINUTES. Clients of nine kinds work at a fixed pace, so that the load is the same
from beginning to end; the machine may be slower or faster. Memory (what is resident and not of a file),
descriptors, threads and children of the server are sampled, and a probe measures how long a small
request takes.

How a slope is decided: the first fifth of the samples is left out, as pools and caches fill then. Of the
others the Theil-Sen slope is taken (the median of the slopes between all pairs of samples, which single
outliers do not move) and multiplied by the time that they span. That growth must stay below: memory 8 %
of its median and 1 MiB; descriptors and threads 4; the probe's time half its median and 1 ms.
"""

import collections
import http.client
import json
import os
import random
import re
import socket
import ssl
import statistics
import struct
import subprocess
import sys
import tempfile
import threading
import time

BIG = 4 << 20
FORM = b"name=value&text=" + b"x" * 2000


class Load:
    def __init__(self, program, ports, certificate):
        self.program, self.ports, self.certificate = program, ports, certificate
        self.ended = threading.Event()
        self.done = collections.Counter()
        self.wrong = []
        self.probes = []
        self.context = ssl.create_default_context(cafile=certificate)

    def connect(self, secure):
        if secure:
            return http.client.HTTPSConnection("127.0.0.1", self.ports["https"], timeout=30, context=self.context)
        return http.client.HTTPConnection("127.0.0.1", self.ports["http"], timeout=30)

    def ask(self, connection, path, expected, method="GET", body=None):
        connection.request(method, path, body)
        got = connection.getresponse().read()
        if got != expected:
            raise ValueError(f"{method} {path}: {len(got)} bytes, not {len(expected)}")

    def kept(self, secure):
        connection = self.connect(secure)
        for _ in range(50):
            self.ask(connection, "/small", b"small")
            self.ended.wait(0.005)
        connection.close()
        return 50

    def fresh(self, secure):
        connection = self.connect(secure)
        self.ask(connection, "/small", b"small")
        connection.close()
        return 1

    def form(self):
        connection = self.connect(random.random() < 0.5)
        self.ask(connection, "/cgi-bin/echo", FORM, "POST", FORM)
        connection.close()
        return 1

    def abort(self):
        """Goes away with a reset, at some point of some request."""
        peer = socket.create_connection(("127.0.0.1", self.ports["http"]), timeout=30)
        request = random.choice([b"GET /big HTTP/1.1\r\nHost: h\r\n\r\n", b"GET /cgi-bin/slow HTTP/1.1\r\nHost: h\r\n\r\n",
                                 b"POST /cgi-bin/echo HTTP/1.1\r\nHost: h\r\nContent-Length: 90000\r\n\r\n" + FORM])
        peer.sendall(request[: random.randrange(len(request) + 1)])
        if request.startswith(b"GET /big") and random.random() < 0.5:
            peer.sendall(request)
        if random.random() < 0.5:
            self.ended.wait(0.01)
        peer.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        peer.close()
        return 1

    def abort_secure(self):
        peer = socket.create_connection(("127.0.0.1", self.ports["https"]), timeout=30)
        try:
            secure = self.context.wrap_socket(peer, server_hostname="127.0.0.1")
            secure.sendall(random.choice([b"GET /small HTTP/1.1\r\nHost: h\r\n\r\n",
                                          b"GET /cgi-bin/slow HTTP/1.1\r\nHost: h\r\n\r\n"]))
            if random.random() < 0.5:
                secure.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
            secure.close()
        finally:
            peer.close()
        return 1

    def slow_reader(self):
        connection = self.connect(random.random() < 0.5)
        connection.connect()
        connection.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 16384)
        connection.request("GET", "/big")
        answer = connection.getresponse()
        got = 0
        while not self.ended.is_set() and (piece := answer.read(65536)):
            got += len(piece)
            self.ended.wait(0.02)
        if got != BIG and not self.ended.is_set():
            raise ValueError(f"slow reader: {got} bytes")
        connection.close()
        return 1

    def garbage(self):
        with socket.create_connection(("127.0.0.1", self.ports[random.choice(["http", "https"])]), timeout=30) as peer:
            try:
                peer.sendall(random.randbytes(300) + b"\r\n\r\n")
                peer.shutdown(socket.SHUT_WR)
                while peer.recv(4096):
                    pass
            except OSError:
                pass  # a reset is an answer to garbage
        return 1

    def outgoing(self):
        words = [self.program, "get", "--repeat", "20", "--ca", self.certificate]
        for scheme, port in self.ports.items():
            words.append(f"{scheme}://127.0.0.1:{port}/small")
        run = subprocess.run(words, capture_output=True, timeout=60)
        if run.returncode != 0 or run.stdout != b"small" * 40:
            raise ValueError(f"outgoing: {run.returncode} {run.stderr[:200]}")
        return 40

    def probe(self):
        connection = self.connect(False)
        for _ in range(20):
            start = time.monotonic()
            self.ask(connection, "/small", b"small")
            self.probes.append((start, (time.monotonic() - start) * 1000))
            self.ended.wait(0.05)
        connection.close()
        return 20

    def work(self, name, step, pause, *arguments):
        while not self.ended.is_set():
            try:
                self.done[name] += step(*arguments)
            except Exception as problem:  # the load goes on; what went wrong is told at the end
                if not self.ended.is_set():
                    self.wrong.append(f"{name}: {type(problem).__name__}: {problem}")
            self.ended.wait(pause)

    def start(self):
        kinds = [("kept", self.kept, 0.05, False), ("kept TLS", self.kept, 0.05, True),
                 ("fresh", self.fresh, 0.01, False), ("fresh TLS", self.fresh, 0.02, True), ("forms", self.form, 0.03),
                 ("resets", self.abort, 0.02), ("resets TLS", self.abort_secure, 0.05), ("slow readers", self.slow_reader, 0.1),
                 ("slow readers", self.slow_reader, 0.2), ("garbage", self.garbage, 0.05),
                 ("outgoing", self.outgoing, 1), ("probe", self.probe, 0.1)]
        self.threads = [threading.Thread(target=self.work, args=kind, daemon=True) for kind in kinds]
        for thread in self.threads:
            thread.start()

    def stop(self):
        self.ended.set()
        for thread in self.threads:
            thread.join(60)


def status(process, field):
    with open(f"/proc/{process}/status") as file:
        return int(re.search(rf"{field}:\s+(\d+)", file.read()).group(1))


def sample(process):
    children = 0
    for thread in os.listdir(f"/proc/{process}/task"):
        try:
            with open(f"/proc/{process}/task/{thread}/children") as file:
                children += len(file.read().split())
        except FileNotFoundError:
            pass  # it ended meanwhile
    return {"time": time.monotonic(), "memory": status(process, "RssAnon"), "threads": status(process, "Threads"),
            "descriptors": len(os.listdir(f"/proc/{process}/fd")), "children": children}


def cpu_ticks(process):
    with open(f"/proc/{process}/stat") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return int(fields[11]) + int(fields[12])


def growth(points):
    """The Theil-Sen slope over the time that the points span."""
    points = points[len(points) // 5:]
    points = points[:: max(1, len(points) // 400)]
    slopes = [(b[1] - a[1]) / (b[0] - a[0]) for i, a in enumerate(points) for b in points[i + 1:] if b[0] > a[0]]
    return statistics.median(slopes) * (points[-1][0] - points[0][0])


def serve(program, folder):
    os.makedirs(f"{folder}/www/cgi-bin")
    for name, size in (("small", 0), ("big", BIG)):
        with open(f"{folder}/www/{name}", "wb") as file:
            file.write(b"small" if size == 0 else os.urandom(size))
    for name, text in (("echo", "cat"), ("slow", "sleep 0.3; echo slow")):
        path = f"{folder}/www/cgi-bin/{name}"
        with open(path, "w") as file:
            file.write(f"#!/bin/sh\nprintf 'Content-Type: text/plain\\r\\n\\r\\n'\n{text}\n")
        os.chmod(path, 0o755)
    with open(f"{folder}/out", "wb") as out, open(f"{folder}/err", "wb") as err:
        server = subprocess.Popen([program, "serve", f"{folder}/www", "--listen", "http://127.0.0.1:0", "--listen",
                                   "https://127.0.0.1:0", "--log", f"{folder}/log"], stdout=out, stderr=err,
                                  env={**os.environ, "XDG_STATE_HOME": f"{folder}/state"})
    for _ in range(500):
        with open(f"{folder}/out") as file:
            text = file.read()
        ports = {scheme: int(port) for scheme, port in re.findall(r"on (https?)://127\.0\.0\.1:(\d+)/", text)}
        if len(ports) == 2:
            return server, ports, re.search(r"\(certificate (.*)\)", text).group(1)
        time.sleep(0.02)
    server.kill()
    raise SystemExit("soak: the server does not come up: " + text)


def judge(samples, probes, load, before, after, idle_ticks, ended):
    faults = [f"{len(load.wrong)} wrong answers, the first: {load.wrong[0]}"] if load.wrong else []
    rows = []
    for name, points, share, room in (
            ("memory (KiB)", [(s["time"], s["memory"]) for s in samples], 0.08, 1024),
            ("descriptors", [(s["time"], s["descriptors"]) for s in samples], 0, 4),
            ("threads", [(s["time"], s["threads"]) for s in samples], 0, 4),
            ("probe (ms)", probes, 0.5, 1)):
        values = sorted(value for _, value in points)
        middle, grown = statistics.median(values), growth(points)
        rows.append(f"| {name} | {middle:.4g} | {values[int(len(values) * 0.99)]:.4g} | {values[-1]:.4g} | {grown:+.3g} |")
        if grown > middle * share + room:
            faults.append(f"{name} grows: {grown:+.3g} over the run, median {middle:.4g}")
    for name, room in (("descriptors", 2), ("threads", 12), ("children", 0)):
        if after[name] > before[name] + room:
            faults.append(f"{name} left behind: {before[name]} -> {after[name]}")
    if idle_ticks > 15:
        faults.append(f"{idle_ticks * 10} ms of CPU time in three idle seconds")
    if ended != 0:
        faults.append(f"the stop: status {ended}")
    return rows, faults


def main():
    program, minutes = sys.argv[1], float(sys.argv[2])
    with tempfile.TemporaryDirectory(prefix="velkoro_soak_") as folder:
        server, ports, certificate = serve(program, folder)
        load = Load(program, ports, certificate)
        before = sample(server.pid)
        start = time.monotonic()
        load.start()
        samples = []
        while time.monotonic() - start < minutes * 60 and server.poll() is None:
            time.sleep(min(5, max(0.25, minutes * 60 / 400)))
            if server.poll() is None:
                samples.append(sample(server.pid))
        load.stop()
        seconds = time.monotonic() - start
        if server.poll() is not None:
            raise SystemExit(f"soak: the server ended with status {server.returncode}")
        time.sleep(3)  # programs that nobody waits for end
        ticks = cpu_ticks(server.pid)
        time.sleep(3)
        ticks = cpu_ticks(server.pid) - ticks
        after = sample(server.pid)
        server.terminate()
        try:
            ended = server.wait(20)
        except subprocess.TimeoutExpired:
            server.kill()
            ended = "none within 20 s"
        rows, faults = judge(samples, load.probes, load, before, after, ticks, ended)
    done = {name: load.done[name] for name in sorted(load.done)}
    print(f"\n{seconds / 60:.1f} minutes, {sum(done.values())} requests: {json.dumps(done)}\n")
    print("| | median | 99 % | most | growth |\n|---|---|---|---|---|")
    print("\n".join(rows))
    for fault in faults:
        print("soak: " + fault, file=sys.stderr)
    sys.exit(1 if faults else 0)


if __name__ == "__main__":
    main()
