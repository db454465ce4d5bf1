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
        self.transport = {}  # what the server said
        self.ssrcs = set()   # of RTP that has come
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
                channel, size = struct.unpack(">BH", self.stream.read(3))
                packet = self.stream.read(size)
                if channel == 0:
                    self.ssrcs.add(packet[8:12].hex().upper())
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
        if "Transport" in answer:
            self.transport = dict(re.findall(r"(\w+)=([^;]+)", answer["Transport"]))
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


def interleaved(channel, packet):
    return struct.pack(">cBH", b"$", channel, len(packet)) + packet


def receiver_report(ssrc):
    return struct.pack(">BBHI", 0x80, 201, 1, ssrc)


def sender_report(ssrc):
    return struct.pack(">BBHIQIII", 0x80, 200, 6, ssrc, 0, 0, 1, 1)


def rtp(ssrc, payload=b""):
    return struct.pack(">BBHII", 0x80, 96, 1, 1, ssrc) + payload


class Watcher(threading.Thread):
    """ffmpeg as a client that behaves. Notes when pictures come."""

    def __init__(self, url, transport="tcp"):
        super().__init__(daemon=True)
        source = (["-f", "h264", "-i", url + "stream.h264"] if url.startswith("http") else
                  ["-rtsp_transport", transport, "-i", url])
        self.process = subprocess.Popen(
            ["ffmpeg", "-v", "error", "-probesize", "500000", "-analyzeduration", "1000000", *source, "-c", "copy", "-flush_packets", "1",
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
