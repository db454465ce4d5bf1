"""Clients of media-station's servers: some are orderly, some vanish, some are a nuisance."""

import collections
import re
import socket
import struct
import subprocess
import time
import urllib.parse

from support import Broken, require

PATIENCE = 30  # seconds, on a busy machine
KEEP_ALIVE = 25  # seconds between signs of life; the server gives a session a minute
ENOUGH = 2000  # bytes of a stream that prove that it comes


def connect(url):
    parts = urllib.parse.urlsplit(url)
    try:
        return socket.create_connection((parts.hostname, parts.port), PATIENCE)
    except OSError as error:
        raise Broken(f"{url}: {error}") from None


def reset(client):
    """Closes without a goodbye: the other side gets an RST."""
    client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    client.close()


def request(method, path, *headers, version="HTTP/1.1"):
    return "\r\n".join([f"{method} {path} {version}", *headers, "", ""]).encode()


class Http:
    """A client that behaves, and what has arrived but was not read yet."""

    def __init__(self, url):
        self.url = urllib.parse.urlsplit(url)
        self.socket = connect(url)
        self.buffer = b""

    def receive(self):
        data = self.socket.recv(65536)
        if not data:
            raise Broken("the server closed the connection")
        self.buffer += data

    def take(self, count):
        while len(self.buffer) < count:
            self.receive()
        data, self.buffer = self.buffer[:count], self.buffer[count:]
        return data

    def answer(self):
        """The header fields."""
        while b"\r\n\r\n" not in self.buffer:
            self.receive()
        head, _, self.buffer = self.buffer.partition(b"\r\n\r\n")
        lines = head.decode().split("\r\n")
        require(lines[0].split()[1] == "200", f"{self.url.path}: {lines[0]}")
        return {name.lower(): value for name, value in (line.split(": ", 1) for line in lines[1:])}

    def vanish(self):
        reset(self.socket)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()

    def get(self, path):
        self.socket.sendall(request("GET", path, f"Host: {self.url.netloc}"))

    def watch(self, path, seconds):
        """Bytes of the stream that came."""
        self.get(path)
        self.answer()
        end, size = time.monotonic() + seconds, 0
        while time.monotonic() < end or size < ENOUGH:
            size += len(self.take(1)) + len(self.buffer)
            self.buffer = b""
        return size


class Rtsp:
    """A client that says over one connection whatever it is told to."""
    Answer = collections.namedtuple("Answer", "status headers")

    def __init__(self, url, client=None):
        self.url = url
        self.client = client if client is not None else connect(url)
        self.stream = self.client.makefile("rb")
        self.session = None
        self.number = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stream.close()
        self.client.close()

    def send(self, method, path, *headers, body=b""):
        self.number += 1
        session = [f"Session: {self.session}"] if self.session else []
        length = [f"Content-Length: {len(body)}"] if body else []
        self.client.sendall(request(method, self.url + path, f"CSeq: {self.number}", *session,
                                    *length, *headers, version="RTSP/1.0") + body)

    def packet(self):
        """The next interleaved packet; answers before it are skipped."""
        while (first := self.stream.read(1)) != b"$":
            require(first, "the connection ended")
            self.finish_answer(first)
        channel, length = struct.unpack(">BH", self.stream.read(3))
        return channel, self.stream.read(length)

    def answer(self):
        """The next answer; packets before it are skipped. None if the server has closed."""
        try:
            while (first := self.stream.read(1)) == b"$":
                self.stream.read(struct.unpack(">BH", self.stream.read(3))[1])
            return self.finish_answer(first) if first else None
        except (ConnectionError, struct.error):
            return None

    def finish_answer(self, first):
        line = (first + self.stream.readline()).decode(errors="replace")
        found = re.fullmatch(r"RTSP/[12]\.\d ([1-5]\d\d) .*\r\n", line)
        require(found, f"not a status line: {line!r}")
        headers = {}
        while (line := self.stream.readline().decode(errors="replace").strip()):
            name, _, value = line.partition(":")
            headers[name.lower()] = value.strip()
        self.stream.read(int(headers.get("content-length", 0)))
        return self.Answer(int(found[1]), headers)

    def ask(self, method, path="", *headers, body=b""):
        """The status, 0 if the server has closed instead. Remembers the session."""
        try:
            self.send(method, path, *headers, body=body)
        except ConnectionError:
            return 0
        answer = self.answer()
        if answer is None:
            return 0
        if "session" in answer.headers:
            self.session = answer.headers["session"].partition(";")[0]
        return answer.status

    def setup(self, transport="RTP/AVP/TCP;unicast;interleaved=0-1"):
        return self.ask("SETUP", "/stream=0", f"Transport: {transport}")

    def begin(self, *transport):
        for status in (self.ask("DESCRIBE", "", "Accept: application/sdp"), self.setup(*transport),
                       self.ask("PLAY")):
            require(status == 200, f"a client that behaves is answered {status}")

    def watch(self, seconds):
        end = time.monotonic() + seconds
        said = time.monotonic()
        while self.packet()[0] != 0 or time.monotonic() < end:
            if time.monotonic() >= said + KEEP_ALIVE:
                self.send("OPTIONS", "")
                said = time.monotonic()

    def tear_down(self):
        require(self.ask("TEARDOWN") == 200, "a session does not end")

    def vanish(self):
        self.stream.detach()
        reset(self.client)


# Latencies, in milliseconds.

def snapshot_latency(url):
    """From the request of a picture to the first byte of the answer."""
    with Http(url) as client:
        begin = time.monotonic()
        client.get("/snapshot.jpg")
        client.receive()
        latency = time.monotonic() - begin
        client.take(int(client.answer()["content-length"]))
        return 1000 * latency


def first_packet_latency(url):
    """From the first request of a session to its first RTP packet."""
    with Rtsp(url) as client:
        begin = time.monotonic()
        client.begin()
        client.packet()
        latency = time.monotonic() - begin
        client.tear_down()
        return 1000 * latency


# Who comes and goes. Each takes the server's URL, a chance, and seconds to stay.

def http_viewer(url, chance, seconds):
    with Http(url) as client:
        client.watch(chance.choice(["/stream.mjpeg", "/stream.h264"]), seconds)


def http_vanishes(url, chance, seconds):
    client = Http(url)
    client.watch(chance.choice(["/stream.mjpeg", "/stream.h264"]), seconds)
    client.vanish()


def http_does_not_read(url, chance, seconds):
    client = Http(url)
    client.get(chance.choice(["/stream.mjpeg", "/stream.h264"]))
    time.sleep(seconds)
    client.vanish()


def http_half_a_request(url, _chance, seconds):
    with Http(url) as client:
        client.socket.sendall(b"GET /stream.mjpeg HTT")
        time.sleep(seconds)


def http_reader(url, chance, _seconds):
    for _ in range(3):
        with Http(url) as client:
            client.get(chance.choice(["/", "/page.js", "/status.json", "/metrics", "/snapshot.jpg"]))
            client.take(int(client.answer()["content-length"]))


def rtsp_viewer(url, _chance, seconds):
    with Rtsp(url) as client:
        client.begin()
        client.watch(seconds)
        client.tear_down()


def rtsp_vanishes(url, _chance, seconds):
    client = Rtsp(url)
    client.begin()
    client.watch(seconds)
    client.vanish()


def rtsp_does_not_read(url, _chance, seconds):
    client = Rtsp(url)
    client.begin()
    time.sleep(seconds)
    client.vanish()


def rtsp_over_udp(url, chance, seconds):
    """Whether it says goodbye is chance."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as rtp, Rtsp(url) as client:
        rtp.settimeout(PATIENCE)
        rtp.bind(("127.0.0.1", 0))
        port = rtp.getsockname()[1]
        client.begin(f"RTP/AVP/UDP;unicast;client_port={port}-{port}")
        end = time.monotonic() + seconds
        while True:
            rtp.recv(65536)
            if time.monotonic() >= end:
                break
        if chance.random() < 0.5:
            client.tear_down()


def rtsp_half_a_session(url, _chance, seconds):
    with Rtsp(url) as client:
        client.ask("DESCRIBE", "", "Accept: application/sdp")
        time.sleep(seconds)


def ffmpeg(arguments, chance, seconds):
    """Decodes, or is killed."""
    killed = chance.random() < 0.3
    process = subprocess.Popen(["ffmpeg", "-v", "error", *arguments, "-frames:v",
                                "100000" if killed else "20", "-f", "null", "-"],
                               stdin=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    try:
        code = process.wait(seconds if killed else 3 * PATIENCE)
        if code != 0:
            raise Broken(f"ffmpeg: exit code {code}")
    except subprocess.TimeoutExpired:
        if not killed:
            raise Broken("ffmpeg does not end") from None
    finally:
        process.kill()
        process.wait()


def http_ffmpeg(url, chance, seconds):
    ffmpeg(["-f", "h264", "-i", url + "stream.h264"], chance, seconds)


def rtsp_ffmpeg(url, chance, seconds):
    ffmpeg(["-rtsp_transport", chance.choice(["tcp", "udp"]), "-i", url], chance, seconds)


# Each kind with how often it comes, relative to the others.
HTTP = {http_viewer: 6, http_vanishes: 6, http_does_not_read: 3, http_half_a_request: 2,
        http_reader: 6, http_ffmpeg: 1}
RTSP = {rtsp_viewer: 6, rtsp_vanishes: 6, rtsp_does_not_read: 3, rtsp_over_udp: 4,
        rtsp_half_a_session: 2, rtsp_ffmpeg: 1}
