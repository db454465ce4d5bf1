"""Clients of media-station's servers: some behave, some vanish, some do not read."""

import collections
import contextlib
import http.client
import re
import signal
import socket
import struct
import subprocess
import threading
import time
import urllib.parse

from support import PATIENCE, Broken, require

STREAMS = ["/stream.h264", "/stream.mjpeg"]
PAGES = ["/", "/page.js", "/status.json", "/metrics", "/snapshot.jpg"]


def connect(url, receive_buffer=None):
    parts = urllib.parse.urlsplit(url)
    client = socket.socket()
    if receive_buffer is not None:
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
    client.settimeout(PATIENCE)
    client.connect((parts.hostname, parts.port))
    return client


def reset(client):
    """Closes without a goodbye: the other side gets an RST."""
    client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    client.close()


def request(method, path, *headers, version="HTTP/1.1"):
    return "\r\n".join([f"{method} {path} {version}", *headers, "", ""]).encode()


def get(url, path):
    """Status and body."""
    client = http.client.HTTPConnection(urllib.parse.urlsplit(url).netloc, timeout=PATIENCE)
    with contextlib.closing(client):
        client.request("GET", path)
        answer = client.getresponse()
        return answer.status, answer.read() if path not in STREAMS else b""


class Rtsp:
    """Sends any request over one connection."""
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

    def answer(self):
        """The next answer; packets before it are skipped. None if the server has closed."""
        while (first := self.stream.read(1)) == b"$":
            self.stream.read(struct.unpack(">BH", self.stream.read(3))[1])
        if not first:
            return None
        line = (first + self.stream.readline()).decode(errors="replace")
        found = re.fullmatch(r"RTSP/[12]\.\d ([1-5]\d\d) .*\r\n", line)
        require(found, f"not a status line: {line!r}")
        headers = {}
        while (line := self.stream.readline().decode(errors="replace").strip()):
            name, _, value = line.partition(":")
            headers[name.lower()] = value.strip()
        self.stream.read(int(headers.get("content-length", 0)))
        return self.Answer(int(found[1]), headers)

    def ask(self, method, path="", *headers):
        """The status, 0 if the server has closed instead. Remembers the session."""
        self.number += 1
        session = [f"Session: {self.session}"] if self.session else []
        try:
            self.client.sendall(request(method, self.url + path, f"CSeq: {self.number}", *session,
                                        *headers, version="RTSP/1.0"))
            answer = self.answer()
        except (ConnectionError, struct.error):
            answer = None
        if answer is None:
            return 0
        if "session" in answer.headers:
            self.session = answer.headers["session"].partition(";")[0]
        return answer.status

    def setup(self, transport="RTP/AVP/TCP;unicast;interleaved=0-1"):
        return self.ask("SETUP", "/stream=0", f"Transport: {transport}")

    def begin(self):
        for status in self.ask("DESCRIBE"), self.setup(), self.ask("PLAY"):
            require(status == 200, f"a client that behaves is answered {status}")


def begin_to_watch(url, chance, receive_buffer=None):
    """A connection with a stream, or without one if the server has enough clients."""
    client = connect(url, receive_buffer)
    with contextlib.suppress(OSError, Broken):
        if url.startswith("http"):
            client.sendall(request("GET", chance.choice(STREAMS), "Host: a"))
        else:
            Rtsp(url, client).begin()
    return client


class Watcher(threading.Thread):
    """ffmpeg as a client that behaves. Notes when pictures come."""

    def __init__(self, url, transport="tcp"):
        super().__init__(daemon=True)
        source = (["-f", "h264", "-i", url + "stream.h264"] if url.startswith("http") else
                  ["-rtsp_transport", transport, "-i", url])
        self.process = subprocess.Popen(
            ["ffmpeg", "-v", "error", "-probesize", "500000", *source, "-c", "copy", "-flush_packets", "1",
             "-f", "framecrc", "-"], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.times = []
        self.start()

    def run(self):
        for line in self.process.stdout:
            if not line.startswith(b"#"):
                self.times.append(time.monotonic())

    def longest_gap(self, begin):
        """The longest time without a picture since then."""
        times = [begin, *(moment for moment in self.times[:] if moment >= begin), time.monotonic()]
        return max(later - earlier for earlier, later in zip(times, times[1:]))

    def end(self, how=signal.SIGINT):
        """What it complained about."""
        self.process.send_signal(how)
        self.join()
        errors = self.process.stderr.read().decode(errors="replace")
        self.process.wait()
        return errors


def come_and_go(url, chance, seconds):
    """A client of any kind, for so long."""
    kind = chance.choice(["watches", "watches", "does not read", "half a request", "ffmpeg", "pages"])
    if kind == "ffmpeg":
        watcher = Watcher(url, chance.choice(["tcp", "udp"]))
        time.sleep(seconds)
        watcher.end(chance.choice([signal.SIGINT, signal.SIGKILL]))
        return
    if kind == "pages" and url.startswith("http"):
        for path in PAGES:
            require(get(url, path)[0] == 200, f"{path} is not served")
        return
    end = time.monotonic() + seconds
    if kind == "half a request":
        client = connect(url)
        client.sendall(b"GET /stream.mjpeg HTT")
    else:
        client = begin_to_watch(url, chance)
    while kind == "watches" and time.monotonic() < end:
        require(client.recv(65536), "the stream ended")
    time.sleep(max(0, end - time.monotonic()))
    if chance.random() < 0.5:
        reset(client)
    client.close()
