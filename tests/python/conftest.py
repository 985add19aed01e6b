"""What several test files share: the ArrayType numbers as they travel in messages, and small helpers.
pytest puts this folder on sys.path, so the test files import them with `from conftest import ...`."""

import os
import subprocess
import sys
import textwrap

from hypothesis import settings

# The property tests draw their examples from a fixed derivation and keep no database, so that the same commit
# always meets the same examples (a CI verdict is reproducible). HYPOTHESIS_PROFILE=explore draws new ones each
# run, for hunting outside CI; what it finds becomes an @example.
settings.register_profile("ci", derandomize=True, database=None, print_blob=True)
settings.register_profile("explore", derandomize=False)
settings.load_profile(os.environ.get("HYPOTHESIS_PROFILE", "ci"))

UNKNOWN, LOGICAL, CHAR, STRING, DOUBLE, SINGLE = 0, 1, 2, 3, 4, 5
INT8, UINT8, INT16, UINT16, INT32, UINT32, INT64, UINT64 = range(6, 14)
COMPLEX_DOUBLE, COMPLEX_SINGLE = 14, 15
COMPLEX_OFFSET = COMPLEX_DOUBLE - DOUBLE  # every real kind from DOUBLE to UINT64 has its complex kind this far on
CELL, STRUCT, CLASSIC_OBJECT, VALUE_OBJECT, HANDLE, ENUM = 24, 25, 26, 27, 28, 29
SPARSE_DOUBLE, SPARSE_LOGICAL, SPARSE_COMPLEX = 30, 31, 32


def rss_kib():
    """The process's resident memory, which leak tests compare before and after many rounds."""
    with open("/proc/self/status") as f:
        for line in f:
            if line.startswith("VmRSS:"):
                return int(line.split()[1])
    raise RuntimeError("no VmRSS")


def named(module, name, **body):
    """A Python class with the given __module__ and __name__ (heap type: its tp_name is the __name__)."""
    cls = type(name, (), dict(body))
    cls.__module__ = module
    return cls


def run_python(code):
    """The standard output of a fresh interpreter running code, for what must not touch this process's modules."""
    out = subprocess.run([sys.executable, "-c", textwrap.dedent(code)], capture_output=True, text=True, timeout=120)
    assert out.returncode == 0, out.stderr
    return out.stdout
