"""Type information of the installed package: mypy --strict over tests/typing/usage.py, which uses the API as
the README does, resolved against what is installed in this environment (the extensions' stubs, veltra's
py.typed and its declarations of the types py_pb adds); then the same file run, so that the stubs and the
package agree on what it calls."""

import pathlib
import subprocess
import sys

USAGE = pathlib.Path(__file__).resolve().parents[1] / "typing" / "usage.py"


def run(args, cwd):
    return subprocess.run([sys.executable, *args], cwd=cwd, capture_output=True, text=True, timeout=300)


def test_mypy_strict_over_the_usage_file(tmp_path):
    # Run from an empty folder, so that only the installed package can be found, never the source tree.
    out = run(["-m", "mypy", "--strict", "--no-color-output", "--cache-dir", str(tmp_path / "cache"),
               "--python-executable", sys.executable, str(USAGE)], tmp_path)
    assert out.returncode == 0, out.stdout + out.stderr
    assert "Success: no issues found in 1 source file" in out.stdout


def test_the_usage_file_runs(tmp_path):
    out = run([str(USAGE), str(tmp_path)], tmp_path)
    assert out.returncode == 0, out.stdout + out.stderr
