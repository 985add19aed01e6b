"""The module py_pb itself: its definition, initialisation, the two functions' arguments and keywords."""

import pytest

import py_pb
from conftest import CHAR, DOUBLE, INT64, run_python
from py_pb_peer import decode, numeric, params, result

ONE_POSITIONAL = "py_to_serialized_str requires exactly one positional argument"
NOT_A_NUMBER = "Keyword argument 'nargout' was not a string corresponding to a number as expected"
NOT_STR_OR_INT = "Value of keyword argument 'nargout' was not a string or int as expected"
SCHEMA_NOT_STR = "Value of keyword argument 'schema' was not a string as expected"


# ---------------------------------------------------------------------------------------------------------
# the module


def test_module_definition():
    assert py_pb.__name__ == "py_pb"
    assert py_pb.__doc__ == "py_pb"
    assert py_pb.py_to_serialized_str.__doc__ == "Convert tuple of Python objects to protobuf-serialized byte string."
    assert py_pb.serialized_str_to_py.__doc__ == "Convert protobuf-serialized byte string to tuple of Python objects."
    public = sorted(n for n in dir(py_pb) if not n.startswith("__"))
    assert public == ["py_to_serialized_str", "serialized_str_to_py"]


def test_missing_array_package_fails_initialisation_with_sys_path_listed():
    out = run_python(
        """
        import sys
        sys.modules["veltramultidimarrayforpython"] = None
        sys.path.append("/no/such/dir")
        try:
            import py_pb
        except ValueError as e:
            print(repr(str(e)))
            print(repr("".join(str(p) + "\\n" for p in sys.path)))
        """
    )
    message, path_text = [eval(line) for line in out.splitlines()]
    prefix = "Unable to initialize py_pb. Details: Unable to import veltramultidimarrayforpython; sys.path: \n"
    assert message == prefix + path_text
    assert message.endswith("/no/such/dir\n")


@pytest.mark.parametrize(
    "setup, details",
    [
        # The package imports but offers no capsule.
        ("import types; sys.modules['veltramultidimarrayforpython'] = types.ModuleType('veltramultidimarrayforpython')",
         "Unable to import capsule"),
        # Capsule present, `double` missing.
        ("import veltramultidimarrayforpython as p; del p.double", "unable to retrieve type object 'double'"),
    ],
)
def test_initialisation_step_failures(setup, details):
    out = run_python(
        f"""
        import sys
        {setup}
        try:
            import py_pb
        except ValueError as e:
            print(e)
        """
    )
    assert out == f"Unable to initialize py_pb. Details: {details}\n"


def test_second_import_in_the_same_process_reuses_the_module():
    out = run_python(
        """
        import sys
        import py_pb
        first = py_pb
        del sys.modules["py_pb"]
        import py_pb
        print(py_pb.py_to_serialized_str((1.0,)) == first.py_to_serialized_str((1.0,)))
        """
    )
    assert out == "True\n"


# ---------------------------------------------------------------------------------------------------------
# py_to_serialized_str


def test_two_inputs_and_default_nargout():
    m = params((1.0, "a"))
    assert m.nargout == 1
    assert [decode(a) for a in m.rhs] == [(DOUBLE, (1, 1), [1.0]), (CHAR, (1, 1), "a")]


def test_empty_tuple_gives_nargout_only():
    m = params(())
    assert len(m.rhs) == 0 and m.nargout == 1


def test_result_is_bytes():
    assert type(py_pb.py_to_serialized_str((1,))) is bytes


@pytest.mark.parametrize("value", [[1, "x"], ["only"]])
def test_a_list_argument_is_a_cell_of_inputs_too(value):
    assert len(params(value).rhs) == len(value)


@pytest.mark.parametrize(
    "value, text",
    [
        (1.0, "The element is not an array: only cell elements and struct fields are."),
        ("abc", "The element is not an array: only cell elements and struct fields are."),
        ({"a": 1}, "A struct element is read by field name."),
    ],
)
def test_a_non_container_argument_is_refused_by_the_message(value, text):
    # The parameters are built from a cell of arguments; anything else fails with the array library's text.
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str(value)
    assert str(e.value) == text


@pytest.mark.parametrize("args", [(), ((1,), (2,)), ((1,), (2,), (3,))])
def test_exactly_one_positional_argument(args):
    with pytest.raises(TypeError) as e:
        py_pb.py_to_serialized_str(*args)
    assert str(e.value) == ONE_POSITIONAL


def test_keyword_errors_come_before_the_argument_count():
    with pytest.raises(ValueError, match=r"^Key \('bogus'\) for keyword is invalid$"):
        py_pb.py_to_serialized_str(bogus=1)


@pytest.mark.parametrize(
    "nargout, expected",
    [
        ("3", 3),
        (" 4xyz", 4),
        ("\t\n+7", 7),
        ("0", 0),
        ("-0", 0),
        (0, 0),
        (5, 5),
        (True, 1),
        (2**31 - 1, 2**31 - 1),
        (str(2**31 - 1), 2**31 - 1),
    ],
)
def test_nargout_values(nargout, expected):
    assert params((), nargout=nargout).nargout == expected


@pytest.mark.parametrize("nargout", ["abc", "", "   ", "+", "x1", "99999999999999999999", "\u0663"])
def test_nargout_strings_without_a_number(nargout):
    # std::stol rules: no digits at the start, or out of the range of long. Non-ASCII digits are no digits.
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str((), nargout=nargout)
    assert str(e.value) == NOT_A_NUMBER


@pytest.mark.parametrize("nargout", [2.0, None, b"3", [1], 1j])
def test_nargout_of_other_types(nargout):
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str((), nargout=nargout)
    assert str(e.value) == NOT_STR_OR_INT


@pytest.mark.parametrize(
    "nargout, number",
    [(-1, "-1"), ("-1", "-1"), (" -12abc", "-12"), (-2**63, str(-2**63)), (-2**80, str(-2**80))],
)
def test_negative_nargout(nargout, number):
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str((), nargout=nargout)
    assert str(e.value) == f"Value of keyword argument 'nargout' ({number}) was less than zero"


@pytest.mark.parametrize(
    "nargout, number",
    [(2**31, str(2**31)), (str(2**31), str(2**31)), (2**63 - 1, str(2**63 - 1)), (2**100, str(2**100))],
)
def test_nargout_beyond_32_bits_is_refused(nargout, number):
    # The message carries a 32-bit count; a larger one is refused rather than cut to its low bits.
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str((), nargout=nargout)
    assert str(e.value) == f"Value of keyword argument 'nargout' ({number}) was greater than 2147483647"


@pytest.mark.parametrize("schema", ["VELTRA_PARAMS", "VELTRA_RESULT"])
def test_schema_is_checked_but_selects_nothing(schema):
    m = params((2.5,), schema=schema, nargout=2)
    assert m.nargout == 2
    assert [decode(a) for a in m.rhs] == [(DOUBLE, (1, 1), [2.5])]


@pytest.mark.parametrize("fn", ["to", "from"])
@pytest.mark.parametrize(
    "schema, exc, text",
    [
        ("veltra_result", ValueError, "Invalid value ('veltra_result') for keyword 'schema'"),
        ("VELTRA_PARAMS ", ValueError, "Invalid value ('VELTRA_PARAMS ') for keyword 'schema'"),
        ("", ValueError, "Invalid value ('') for keyword 'schema'"),
        ("\ud800x", ValueError, "Invalid value ('\ud800x') for keyword 'schema'"),
        (1, ValueError, SCHEMA_NOT_STR),
        (b"VELTRA_PARAMS", ValueError, SCHEMA_NOT_STR),
    ],
)
def test_schema_errors_in_both_functions(fn, schema, exc, text):
    with pytest.raises(exc) as e:
        if fn == "to":
            py_pb.py_to_serialized_str((), schema=schema)
        else:
            py_pb.serialized_str_to_py(b"", schema=schema)
    assert str(e.value) == text


def test_schema_accepts_a_str_subclass():
    class S(str):
        pass

    assert params((), schema=S("VELTRA_RESULT")).nargout == 1


def test_first_bad_keyword_wins_in_call_order():
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str((), nargout="x", schema="bad")
    assert str(e.value) == NOT_A_NUMBER
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str((), schema="bad", nargout="x")
    assert str(e.value) == "Invalid value ('bad') for keyword 'schema'"


def test_unknown_keyword_with_unencodable_name():
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str((), **{"\ud800": 1})
    assert str(e.value) == "Key ('\ud800') for keyword is invalid"


# ---------------------------------------------------------------------------------------------------------
# serialized_str_to_py


def test_reads_outputs_from_bytes_bytearray_and_memoryview():
    data = result(numeric(DOUBLE, [1.5]), numeric(INT64, [-3]))
    for d in (data, bytearray(data), memoryview(data)):
        assert py_pb.serialized_str_to_py(d) == [1.5, -3]


def test_the_buffer_is_released_before_the_result_is_read():
    data = bytearray(result(numeric(DOUBLE, [1.5])))
    assert py_pb.serialized_str_to_py(data) == [1.5]
    data.extend(b"\x00")  # would raise BufferError while an export were still held


@pytest.mark.parametrize("args", [("text",), (1,), (None,), ([1],), (), (b"", b"")])
def test_args_that_are_not_one_bytes_like_object(args):
    with pytest.raises(ValueError) as e:
        py_pb.serialized_str_to_py(*args)
    assert str(e.value) == "args invalid"


def test_any_contiguous_buffer_is_read_and_a_strided_one_is_refused():
    import numpy as np

    data = result(numeric(DOUBLE, [1.5]))
    assert py_pb.serialized_str_to_py(np.frombuffer(data, dtype=np.uint8)) == [1.5]
    strided = memoryview(bytes(b for byte in data for b in (byte, 0)))[::2]
    assert strided.tobytes() == data
    with pytest.raises(ValueError, match="^args invalid$"):
        py_pb.serialized_str_to_py(strided)
    fortran = np.asfortranarray(np.frombuffer(data * 2, dtype=np.uint8).reshape(2, -1))
    with pytest.raises(ValueError, match="^args invalid$"):
        py_pb.serialized_str_to_py(fortran)


def test_args_error_comes_before_keyword_errors():
    with pytest.raises(ValueError, match="^args invalid$"):
        py_pb.serialized_str_to_py("x", nargout=1)


@pytest.mark.parametrize("key", ["nargout", "Schema", "other"])
def test_only_schema_is_a_keyword_of_serialized_str_to_py(key):
    with pytest.raises(ValueError) as e:
        py_pb.serialized_str_to_py(b"", **{key: 1})
    assert str(e.value) == f"Key ('{key}') for keyword is invalid"


@pytest.mark.parametrize("schema", ["VELTRA_RESULT", "VELTRA_PARAMS"])
def test_schema_does_not_switch_the_message_read(schema):
    assert py_pb.serialized_str_to_py(result(numeric(DOUBLE, [2.0])), schema=schema) == [2.0]


def test_empty_bytes_are_a_result_without_outputs():
    assert py_pb.serialized_str_to_py(b"") == []


def test_outputs_come_back_as_a_list_of_a_1_by_n_cell():
    out = py_pb.serialized_str_to_py(result(numeric(DOUBLE, [1.0]), numeric(DOUBLE, [2.0])))
    assert type(out) is list and out == [1.0, 2.0]
