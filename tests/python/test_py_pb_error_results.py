"""Results that carry an engine error come back as a dict; results that cannot be read are reported on
standard error with a null result and no Python exception (the interpreter then raises SystemError)."""

import numpy as np
import pytest

import py_pb
import veltramultidimarrayforpython as vpkg
from conftest import DOUBLE
from py_pb_peer import numeric, result
from veltra.loopback import error_result
from veltra.wire import messages

READ_FAILED = "Exception thrown from protobuf2vdata with the following content:\n"


def peer_error(message="", identifier=None, frames=(), outputs=()):
    r = messages().VELTRA_Result()
    r.lhs.extend(outputs)
    r.error.message = message
    if identifier is not None:
        r.error.identifier = identifier
    for file, name, line in frames:
        r.error.stack.add(file=file, name=name, line=line)
    return r.SerializeToString()


def test_error_dict_keys_and_values():
    out = py_pb.serialized_str_to_py(peer_error("Undefined function 'f'.", "VELTRA:UndefinedFunction",
                                                [("a", "f", 3), ("b", "g", 7)]))
    assert list(out) == ["message", "identifier", "stack_as_str"]
    assert out == {
        "message": "Undefined function 'f'.",
        "identifier": "VELTRA:UndefinedFunction",
        "stack_as_str": "Error in => file: a, function name: f, at line: 3\n"
                        "Error in => file: b, function name: g, at line: 7\n",
    }


def assert_no_identifier(value):
    # The field keeps what the struct was created with: the engine's empty value, a 0-by-0 double.
    assert type(value) is vpkg.double and np.asarray(value).shape == (0, 0)


def test_error_without_identifier_or_stack():
    out = py_pb.serialized_str_to_py(peer_error("boom"))
    assert list(out) == ["message", "identifier", "stack_as_str"]
    assert (out["message"], out["stack_as_str"]) == ("boom", "")
    assert_no_identifier(out["identifier"])


def test_empty_identifier_is_still_an_identifier():
    assert py_pb.serialized_str_to_py(peer_error("m", ""))["identifier"] == ""


@pytest.mark.parametrize("line", [0, -1, 2**31 - 1, -2**31])
def test_stack_line_numbers(line):
    out = py_pb.serialized_str_to_py(peer_error("m", frames=[("/p/f.v", "fn", line)]))
    assert out["stack_as_str"] == f"Error in => file: /p/f.v, function name: fn, at line: {line}\n"


def test_non_ascii_error_text():
    out = py_pb.serialized_str_to_py(peer_error("\u00e9chec \U0001F600", "x:y", [("d\u00e9j\u00e0", "f", 1)]))
    assert out["message"] == "\u00e9chec \U0001F600"
    assert out["stack_as_str"] == "Error in => file: d\u00e9j\u00e0, function name: f, at line: 1\n"


def test_an_error_hides_the_outputs():
    out = py_pb.serialized_str_to_py(peer_error("bad", outputs=[numeric(DOUBLE, [1.0])]))
    assert type(out) is dict and (out["message"], out["stack_as_str"]) == ("bad", "")
    assert_no_identifier(out["identifier"])


def test_the_loopback_error_helper_writes_what_the_peer_reads():
    data = error_result("m", "id:x", [("a", "f", 3)])
    r = messages().VELTRA_Result()
    r.ParseFromString(data)
    assert (r.error.message, r.error.identifier, [(s.file, s.name, s.line) for s in r.error.stack]) == (
        "m", "id:x", [("a", "f", 3)])
    assert py_pb.serialized_str_to_py(data)["stack_as_str"] == "Error in => file: a, function name: f, at line: 3\n"


def test_zero_outputs_without_error():
    assert py_pb.serialized_str_to_py(result()) == []


@pytest.mark.parametrize(
    "data, detail",
    [
        # output 1 claims 5 bytes, 1 is there
        (b"\x0a\x05\x08", "Malformed VELTRA_Result: output 1 claims 5 bytes but only 1 remain"),
        # an output of a kind that does not exist
        (b"\x0a\x02\x08\x63", None),
    ],
)
def test_unreadable_results_are_reported_on_stderr_only(capfd, data, detail):
    # The interpreter's own complaint about a null result without an exception shows none was set.
    with pytest.raises(SystemError) as e:
        py_pb.serialized_str_to_py(data)
    assert str(e.value) == "<built-in function serialized_str_to_py> returned NULL without setting an exception"
    err = capfd.readouterr().err
    assert err.startswith(READ_FAILED)
    lines = err.splitlines()
    assert len(lines) == 2 and lines[1]
    if detail is not None:
        assert lines[1] == detail
