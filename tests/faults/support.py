"""What the parts of scripts/torture share that are written in Python."""

import contextlib
import os
import pathlib
import re
import signal
import subprocess
import sys
import tempfile
import time

BEGIN = time.monotonic()
PATIENCE = 30  # seconds, on a busy machine
# Without these, malloc() keeps freed memory in an arena for every few threads, and its level rises for tens
# of minutes.
ONE_HEAP = {"MALLOC_ARENA_MAX": "1", "MALLOC_MMAP_THRESHOLD_": "16384"}
CHILDREN = []  # that end with the part


class Broken(Exception):
    """A promise that was not kept."""


def require(condition, text):
    if not condition:
        raise Broken(text() if callable(text) else text)


def log(text):
    print(f"{time.monotonic() - BEGIN:7.2f} {text}", file=sys.stderr, flush=True)


def await_that(holds, text, patience=PATIENCE):
    """Waits until something holds by itself."""
    end = time.monotonic() + patience
    while not holds():
        require(time.monotonic() < end, text)
        time.sleep(0.05)


def run(part):
    """Calls a part with the program, a scratch folder, the seconds and the seed; ends with its exit code."""
    builds, seconds, seed = sys.argv[1], int(sys.argv[2]), sys.argv[3]
    program = pathlib.Path(builds).resolve() / "release/station/media-station"
    if not program.is_file():
        log(f"there is no {program}")
        sys.exit(77)
    code = 1
    with tempfile.TemporaryDirectory() as scratch:
        try:
            code = part(program, pathlib.Path(scratch), seconds, seed)
        except (Broken, OSError) as broken:
            log(f"BROKEN: {broken!r}")
        finally:
            for child in CHILDREN:
                child.kill()
                child.wait()
    sys.exit(code)


def make_clip(path, size, seconds, look="null"):
    subprocess.run(["ffmpeg", "-v", "error", "-f", "lavfi", "-i",
                    f"testsrc2=size={size[0]}x{size[1]}:rate=30:duration={seconds},{look}", "-c:v",
                    "libx264", "-preset", "ultrafast", path], check=True, stdin=subprocess.DEVNULL)


class Station:
    """A process of media-station, and what it takes."""

    def __init__(self, name, folder, command, **more):
        self.name = name
        self.errors = folder / (name.replace(" ", "-") + ".log")
        self.process = subprocess.Popen(command, stdout=subprocess.PIPE, text=True, env={**ONE_HEAP, **os.environ},
                                        stderr=self.errors.open("wb"), **more)
        CHILDREN.append(self.process)
        self.urls = []
        for word in command:
            if word in ("serve", "--rtsp", "--http"):
                found = re.search(r"\w+://[\d.:]+/\S*", line := self.process.stdout.readline())
                require(found, f"{name} does not start: {line}")
                self.urls.append(found[0])

    @property
    def url(self):
        return self.urls[0]

    def usage(self):
        """Anonymous memory in KiB, descriptors and threads; frames of the camera's pool count as memory."""
        proc = pathlib.Path(f"/proc/{self.process.pid}")
        rollup = (proc / "smaps_rollup").read_text()
        names = []
        for entry in (proc / "fd").iterdir():
            with contextlib.suppress(FileNotFoundError):  # closed meanwhile
                names.append(os.readlink(entry))
        return {"memory": sum(map(int, re.findall(r"^(?:Pss_Anon|SwapPss): +(\d+)", rollup, re.M))),
                "descriptors": sum("lumora-frame" not in name for name in names),
                "threads": len(os.listdir(proc / "task"))}

    def require_alive(self):
        lines = self.errors.read_text(errors="replace").splitlines()
        require(self.process.poll() is None, f"{self.name} ended with {self.process.returncode}, "
                f"said {lines[-3:]}")
        for line in lines:
            require("-CRITICAL " not in line and "Too many open files" not in line,
                    f"{self.name} said: {line[:200]}")

    def stop(self):
        """What it printed, after Ctrl-C. A recording may lack frames that the encoder was too slow for: 9."""
        self.require_alive()
        self.process.send_signal(signal.SIGINT)
        text, _ = self.process.communicate(timeout=PATIENCE)
        require(self.process.returncode in (0, 9), f"{self.name} ended with {self.process.returncode}")
        return text
