"""Clients of media-station's servers: some behave, some vanish, some do not read."""

import http.client
import re
import signal
import socket
import struct
import subprocess
import threading
import time
import urllib.parse

from support import CHILDREN, PATIENCE, require

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


class Rtsp:
    """Sends any request over one connection."""

    def __init__(self, url, client=None):
        self.url = url
        self.client = client or connect(url)
        self.stream = self.client.makefile("rb")
        self.session = []
        self.number = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stream.close()
        self.client.close()

    def ask(self, method, path="", *headers):
        """The status, 0 if the server has closed instead. Remembers the session, skips packets."""
        self.number += 1
        try:
            self.client.sendall(request(method, self.url + path, f"CSeq: {self.number}", *self.session,
                                        *headers, version="RTSP/1.0"))
            while (line := self.stream.read(1)) == b"$":
                self.stream.read(struct.unpack(">BH", self.stream.read(3))[1])
            line += self.stream.readline()
            answer = http.client.parse_headers(self.stream)
        except (ConnectionError, struct.error):
            return 0
        if not line:
            return 0
        found = re.fullmatch(rb"RTSP/[12]\.\d ([1-5]\d\d) .*\r\n", line)
        require(found, f"not a status line: {line!r}")
        self.stream.read(int(answer.get("Content-Length", 0)))
        if "Session" in answer:
            self.session = ["Session: " + answer["Session"].partition(";")[0]]
        return int(found[1])

    def setup(self, transport="RTP/AVP/TCP;unicast;interleaved=0-1"):
        return self.ask("SETUP", "/stream=0", f"Transport: {transport}")


def begin_to_watch(url, path, receive_buffer=None):
    """A connection with a stream, or without one if the server has enough clients."""
    client = connect(url, receive_buffer)
    if url.startswith("http"):
        client.sendall(request("GET", path, "Host: localhost"))
    else:
        talk = Rtsp(url, client)
        talk.ask("DESCRIBE")
        talk.setup()
        talk.ask("PLAY")
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
        CHILDREN.append(self.process)
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
