"""The public API used as the README shows it. tests/python/test_typing.py runs mypy --strict over this file
against the installed package (its stubs and py.typed markers) and then runs it.

The lines marked `# type: ignore[...]` in `_misuse` are mistakes the stubs must catch: mypy's --strict reports
an ignore that is not needed, so a stub that lets one of them through fails the check.
"""

import copy
import datetime
import io
import pathlib
import sys
import zoneinfo
from collections import OrderedDict
from contextlib import redirect_stdout
from typing import Any, assert_type

import numpy as np

import py_pb
import veltra
import veltramultidimarrayforpython
from veltra.inspect import inspect, main, render
from veltra.loopback import error_result, input_arrays, loopback


def outputs(result: bytes) -> list[Any]:
    """The outputs of a result message; the engine's error, if it sent one, raised."""
    out = assert_type(py_pb.serialized_str_to_py(result), list[Any] | dict[str, Any])
    if isinstance(out, dict):
        raise RuntimeError(f"{out['identifier']}: {out['message']}")
    return out


def round_trip(*args: object) -> list[Any]:
    return outputs(loopback(py_pb.py_to_serialized_str(args)))


def calls() -> None:
    params: bytes = py_pb.py_to_serialized_str(
        (1.5, "text", 42, [1, "two"], {"a": 1.0, "b": [True, b"xy"]}, np.arange(6.0).reshape(2, 3)), nargout=2)
    assert len(input_arrays(params)) == 6
    assert outputs(loopback(params))[:3] == [1.5, "text", 42]
    py_pb.py_to_serialized_str([1, 2], nargout="3", schema="VELTRA_PARAMS")
    py_pb.py_to_serialized_str({1.0, 2.0})
    py_pb.serialized_str_to_py(memoryview(loopback(params)), schema="VELTRA_RESULT")

    error = py_pb.serialized_str_to_py(error_result("boom", identifier="pkg:id", stack=[("solver.src", "f", 3)]))
    assert isinstance(error, dict) and error["message"] == "boom"

    when = datetime.datetime(2024, 1, 2, 9, 30, tzinfo=zoneinfo.ZoneInfo("Europe/Paris"))
    back = round_trip(when, datetime.timedelta(seconds=1.5), np.datetime64("2024-01-02"))
    assert back[0] == when


def typed_arrays() -> None:
    x = assert_type(veltra.int16([[1, 2, 3], [4, 5, 6]]), veltramultidimarrayforpython.int16)
    size: tuple[int, ...] = x.size
    assert size == (2, 3) and len(x) == 2 and x[1][2] == 6 and x[1, 2] == 6
    row = x[1]
    assert isinstance(row, veltra.int16)
    x[0] = [7, 8, 9]
    x[0, 0:2] = 0
    view = np.asarray(x)
    assert view.shape == (2, 3) and bytes(memoryview(x))[:2] == b"\x00\x00"
    x.reshape(3, 2)
    x.reshape((6, 1))
    nested: list[Any] = x.tolist()
    assert len(nested) == 6
    assert veltra.double([1, 2j])._is_complex
    zeros = veltramultidimarrayforpython.uint8(size=(2, 2))
    assert zeros == veltra.uint8(np.zeros((2, 2), dtype=np.uint8)) and zeros != veltra.uint8(1)
    assert copy.deepcopy(zeros).size == (2, 2)
    assert veltra.logical(True, size=[1, 1]).tolist() == [[True]]
    kinds = [veltra.single, veltra.int8, veltra.int32, veltra.int64, veltra.uint16, veltra.uint32, veltra.uint64]
    assert [k(2).tolist() for k in kinds] == [[[2]]] * len(kinds)
    y: veltra.double = round_trip(veltra.double([[1.0, 2.0]]))[0]
    assert y.size == (1, 2)


def dictionaries() -> None:
    d = assert_type(veltra.dictionary({"a": 1}, b=2), veltra.dictionary)
    d["n"] = 24
    del d["a"]
    assert len(d) == 2 and list(d) == ["b", "n"] and d.keys() == ["b", "n"]
    assert d.items() == [("b", 2), ("n", 24)] and d.values() == [2, 24]
    plain: dict[Any, Any] = d.todict()
    assert plain == {"b": 2, "n": 24}
    again = veltra.dictionary(OrderedDict(d.items()))
    assert again == d
    back: veltra.dictionary = round_trip(again)[0]
    assert back == d
    back.clear()


def objects(handles: veltra.object) -> veltra.object:
    """An element of an engine object array (none comes without an engine: this only gets type-checked)."""
    rows, *_ = handles.size
    assert len(handles) == rows and handles == handles
    return assert_type(handles[0][-1], veltra.object)


def inspecting(folder: pathlib.Path) -> None:
    params = py_pb.py_to_serialized_str((np.eye(2), "hi"))
    tree: dict[str, Any] = inspect(params)
    assert render(tree, limit=4).startswith("parameters: nargout 1, 2 inputs")
    (folder / "params.bin").write_bytes(params)
    with redirect_stdout(io.StringIO()) as printed:
        status: int = main(["--json", str(folder / "params.bin")])
    assert status == 0 and '"nargout": 1' in printed.getvalue()


def _misuse() -> None:
    """Never called: each line is a mistake mypy must report."""
    py_pb.py_to_serialized_str(1.0)  # type: ignore[arg-type]
    py_pb.py_to_serialized_str((1.0,), nargout=1.5)  # type: ignore[arg-type]
    py_pb.py_to_serialized_str((1.0,), schema="params")  # type: ignore[arg-type]
    py_pb.serialized_str_to_py(b"", nargout=1)  # type: ignore[call-arg]
    py_pb.serialized_str_to_py("text")  # type: ignore[arg-type]
    py_pb.serialized_str_to_py(b"")[0]  # type: ignore[index]
    veltra.double([1.0]).size = (2,)  # type: ignore[misc]
    veltra.int8([1]).reshape("2")  # type: ignore[arg-type]
    veltra.int8(object())  # type: ignore[arg-type]
    veltra.dictionary(1)  # type: ignore[arg-type]
    loopback("params")  # type: ignore[arg-type]
    error_result("boom", stack=[("solver.src", "f")])  # type: ignore[list-item]


if __name__ == "__main__":
    calls()
    typed_arrays()
    dictionaries()
    inspecting(pathlib.Path(sys.argv[1]))
