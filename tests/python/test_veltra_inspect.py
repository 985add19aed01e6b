"""python -m veltra.inspect: a parameters or result message as a tree or as JSON, and one line for what
cannot be read."""

import json
import random
import subprocess
import sys

import numpy as np
import pytest

import py_pb
import veltra
from veltra.inspect import inspect, main, render
from veltra.loopback import error_result, loopback

PARAMS = py_pb.py_to_serialized_str((1.5, "text", [1, {"a": np.arange(20.0).reshape(4, 5)}], veltra.dictionary(k=1)),
                                    nargout=2)


def test_parameters_show_as_a_tree_with_values_abbreviated():
    text = render(inspect(PARAMS), limit=3)
    assert text.splitlines()[:7] == [
        "parameters: nargout 2, 4 inputs",
        "  input 0: DOUBLE 1x1 [1.5]",
        "  input 1: CHAR 1x4 'text'",
        "  input 2: CELL 1x2",
        "    [0]: INT64 1x1 [1]",
        "    [1]: STRUCT 1x1",
        "      [0].a: DOUBLE 4x5 [0.0, 5.0, 10.0, ... (20 values)]",
    ]
    assert "  input 3: VALUE_OBJECT 1x1 class 'dictionary'" in text and "        [0].Keys: STRING 1x1 ['k']" in text


def test_every_numeric_kind_reads_back_under_its_name_with_its_values():
    # The inspector lists the kinds itself, so that it reads messages without the extensions: held to theirs here.
    # The largest value of each integer kind tells signed from unsigned.
    types = [getattr(veltra, name) for name in veltra.__all__ if name != "logical"]
    values = [[1, np.iinfo(t.__name__).max if np.dtype(t.__name__).kind in "iu" else 0.5] for t in types]
    arrays = [t(v, is_complex=c) for t, v in zip(types, values) for c in (False, True)]
    nodes = inspect(py_pb.py_to_serialized_str(tuple(arrays)))["inputs"]
    for a, v, node in zip(arrays, [v for v in values for _ in (0, 1)], nodes, strict=True):
        name = type(a).__name__.upper()
        assert node["kind"] == ("COMPLEX_" + name if a._is_complex else name)
        assert node["values"] == ([[x, 0] for x in v] if a._is_complex else v)


def test_results_and_engine_errors():
    assert inspect(loopback(PARAMS))["outputs"] == inspect(PARAMS)["inputs"]
    text = render(inspect(error_result("boom", "pkg:id", [("solver.src", "f", 3)])))
    assert text == "result: 0 outputs, with an error\n  error: 'boom' (pkg:id)\n    at solver.src, f, line 3"


def test_json_for_scripts(tmp_path, capsys):
    path = tmp_path / "result.bin"
    path.write_bytes(loopback(PARAMS))
    assert main([str(path), "--json"]) == 0
    out = json.loads(capsys.readouterr().out)
    assert out["message"] == "result" and out["outputs"][0] == {"kind": "DOUBLE", "dims": [1, 1], "values": [1.5]}


@pytest.mark.parametrize("data, readable", [(PARAMS[:-7], False), (b"\x0a\xff\xff\xff\xff\x0f", False),
                                            (b"\x08", False)] +
                         [(random.Random(seed).randbytes(200), None) for seed in range(20)])
def test_unreadable_input_gets_one_line_and_status_1(data, readable):
    run = subprocess.run([sys.executable, "-m", "veltra.inspect", "-"], input=data, capture_output=True)
    assert "Traceback" not in run.stderr.decode()
    assert run.returncode in (0, 1) and (readable is None or run.returncode == (0 if readable else 1))
    if run.returncode:
        assert run.stderr.decode().count("\n") == 1
        assert run.stderr.startswith(b"veltra.inspect: malformed message at byte ")
