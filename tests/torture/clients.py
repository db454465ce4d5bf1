"""Clients of media-station's servers: some are orderly, some vanish, some are a nuisance."""

import socket
import struct
import subprocess
import time
import urllib.parse

PATIENCE = 20  # seconds, on a busy machine
KEEP_ALIVE = 25  # seconds between signs of life; the server gives a session a minute
ENOUGH = 2000  # bytes of a stream that prove that it comes


class Failure(Exception):
    """A client that was in order was not served."""


class Connection:
    """A socket, and what has arrived on it but was not read yet."""

    def __init__(self, url):
        self.url = urllib.parse.urlsplit(url)
        self.socket = socket.create_connection((self.url.hostname, self.url.port), PATIENCE)
        self.buffer = b""

    def receive(self):
        data = self.socket.recv(65536)
        if not data:
            raise Failure("the server closed the connection")
        self.buffer += data

    def take(self, count):
        while len(self.buffer) < count:
            self.receive()
        data, self.buffer = self.buffer[:count], self.buffer[count:]
        return data

    def take_head(self):
        """Status and header fields of an answer."""
        while b"\r\n\r\n" not in self.buffer:
            self.receive()
        head, _, self.buffer = self.buffer.partition(b"\r\n\r\n")
        lines = head.decode().split("\r\n")
        fields = dict(line.split(": ", 1) for line in lines[1:])
        return int(lines[0].split()[1]), {name.lower(): value for name, value in fields.items()}

    def vanish(self):
        """Closes with a reset, as a process that is killed with data unread."""
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.socket.close()


class Http(Connection):
    def get(self, path):
        self.socket.sendall(f"GET {path} HTTP/1.1\r\nHost: {self.url.netloc}\r\n\r\n".encode())

    def answer(self):
        status, fields = self.take_head()
        if status != 200:
            raise Failure(f"status {status}")
        return fields

    def watch(self, path, seconds):
        """Bytes of the stream that came."""
        self.get(path)
        self.answer()
        end, size = time.monotonic() + seconds, 0
        while time.monotonic() < end or size < ENOUGH:
            size += len(self.take(1)) + len(self.buffer)
            self.buffer = b""
        return size


class Rtsp(Connection):
    def __init__(self, url):
        super().__init__(url)
        self.count = 0
        self.session = None

    def ask(self, method, target, **more):
        self.count += 1
        fields = {"CSeq": self.count, **more}
        if self.session:
            fields["Session"] = self.session
        text = "".join(f"{name}: {value}\r\n" for name, value in fields.items())
        self.socket.sendall(f"{method} {target} RTSP/1.0\r\n{text}\r\n".encode())
        # Packets of the stream may come before the answer.
        while self.take(1) == b"$":
            self.packet_after_dollar()
        self.buffer = b"R" + self.buffer
        status, fields = self.take_head()
        if status != 200:
            raise Failure(f"{method}: status {status}")
        return fields, self.take(int(fields.get("content-length", 0)))

    def packet_after_dollar(self):
        channel, length = struct.unpack(">BH", self.take(3))
        return channel, self.take(length)

    def packet(self):
        """The next RTP packet."""
        while True:
            if self.take(1) != b"$":
                raise Failure("not an interleaved packet")
            channel, data = self.packet_after_dollar()
            if channel == 0:
                return data

    def play(self, transport="RTP/AVP/TCP;unicast;interleaved=0-1"):
        fields, _ = self.ask("DESCRIBE", self.url.geturl(), Accept="application/sdp")
        self.base = fields["content-base"]
        fields, _ = self.ask("SETUP", self.base + "stream=0", Transport=transport)
        self.session = fields["session"].partition(";")[0]
        self.ask("PLAY", self.base)

    def watch(self, seconds):
        end = time.monotonic() + seconds
        said = time.monotonic()
        while True:
            self.packet()
            if time.monotonic() >= end:
                return
            if time.monotonic() >= said + KEEP_ALIVE:
                self.ask("OPTIONS", self.base)
                said = time.monotonic()

    def tear_down(self):
        self.ask("TEARDOWN", self.base)


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
        client.play()
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
        client.play()
        client.watch(seconds)
        client.tear_down()


def rtsp_vanishes(url, _chance, seconds):
    client = Rtsp(url)
    client.play()
    client.watch(seconds)
    client.vanish()


def rtsp_does_not_read(url, _chance, seconds):
    client = Rtsp(url)
    client.play()
    time.sleep(seconds)
    client.vanish()


def rtsp_over_udp(url, chance, seconds):
    """Whether it says goodbye is chance."""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as rtp, Rtsp(url) as client:
        rtp.settimeout(PATIENCE)
        rtp.bind((client.url.hostname, 0))
        port = rtp.getsockname()[1]
        client.play(f"RTP/AVP/UDP;unicast;client_port={port}-{port}")
        end = time.monotonic() + seconds
        while True:
            rtp.recv(65536)
            if time.monotonic() >= end:
                break
        if chance.random() < 0.5:
            client.tear_down()


def rtsp_half_a_session(url, _chance, seconds):
    with Rtsp(url) as client:
        client.ask("DESCRIBE", client.url.geturl(), Accept="application/sdp")
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
            raise Failure(f"ffmpeg: exit code {code}")
    except subprocess.TimeoutExpired:
        if not killed:
            raise Failure("ffmpeg does not end") from None
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
