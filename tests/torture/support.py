"""What parts of scripts/torture that are written in Python share."""

import datetime
import importlib.machinery
import importlib.util
import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parents[2]


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
