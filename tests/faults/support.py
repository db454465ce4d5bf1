"""What parts of scripts/torture that are written in Python share."""

import datetime
import importlib.machinery
import importlib.util
import os
import pathlib
import sys
import time

ROOT = pathlib.Path(__file__).resolve().parents[2]
BEGIN = time.monotonic()
# For a process whose memory is watched. What was freed, but malloc() keeps, counts, too. By default it grows
# for tens of minutes: every new thread takes another arena, and each arena comes to the most that one ever
# held. With one arena, and with large blocks given back at once, it is at its level after the warm-up.
ONE_HEAP = {"MALLOC_ARENA_MAX": "1", "MALLOC_MMAP_THRESHOLD_": "16384"}


class Broken(Exception):
    """A promise that was not kept."""


def require(condition, text):
    if not condition:
        raise Broken(text)


def now():
    """Seconds since the start."""
    return time.monotonic() - BEGIN


def log(text):
    print(f"{now():7.2f} {text}", file=sys.stderr, flush=True)


def descriptors(pid):
    """A process's open descriptors, and the frames of its camera's pool, which are not among them. There
    are as many of these as were ever under way at once, which depends on how busy the machine is."""
    names = []
    for entry in pathlib.Path(f"/proc/{pid}/fd").iterdir():
        try:
            names.append(os.readlink(entry))
        except FileNotFoundError:
            pass  # closed meanwhile
    frames = sum(name.startswith("/memfd:lumora-frame") for name in names)
    return len(names) - frames, frames


def load_script(path):
    """A script of the repository as a module."""
    name = pathlib.Path(path).name
    loader = importlib.machinery.SourceFileLoader(name, str(ROOT / path))
    module = importlib.util.module_from_spec(importlib.util.spec_from_loader(name, loader))
    sys.dont_write_bytecode = True
    loader.exec_module(module)
    return module


def segment_begin(path):
    """When a recorded segment began, in seconds since 1970, from its name."""
    stem = path.stem.partition("Z")[0]
    return datetime.datetime.strptime(stem + "+0000", "%Y%m%dT%H%M%S.%f%z").timestamp()
