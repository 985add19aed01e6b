"""The module py_pb itself: its definition, initialisation, the two functions' arguments and keywords."""

import pytest

import py_pb
from conftest import CHAR, DOUBLE, INT64, run_python
from py_pb_peer import decode, numeric, params, result

ONE_POSITIONAL = "py_to_serialized_str requires exactly one positional argument"
NOT_A_NUMBER = "Keyword argument 'nargout' was not a string corresponding to a number as expected"
NOT_STR_OR_INT = "Value of keyword argument 'nargout' was not a string or int as expected"
BELOW_ZERO = "Value of keyword argument 'nargout' ({}) was less than zero"
BEYOND_32_BITS = "Value of keyword argument 'nargout' ({}) was greater than 2147483647"
SCHEMA_NOT_STR = "Value of keyword argument 'schema' was not a string as expected"


# ---------------------------------------------------------------------------------------------------------
# the module


def test_module_definition():
    assert py_pb.__name__ == "py_pb"
    assert py_pb.__doc__ == "py_pb"
    assert py_pb.py_to_serialized_str.__doc__ == "Convert tuple of Python objects to protobuf-serialized byte string."
    assert py_pb.serialized_str_to_py.__doc__ == "Convert protobuf-serialized byte string to tuple of Python objects."
    public = sorted(n for n in dir(py_pb) if not n.startswith("_"))
    assert public == ["py_to_serialized_str", "serialized_str_to_py"]


def test_missing_array_package_fails_initialisation_with_sys_path_listed():
    out = run_python(
        """
        import sys, types
        sys.modules["veltra"] = types.ModuleType("veltra")  # importable on its own, so step 1 passes
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


def test_an_interrupt_while_importing_stays_an_interrupt():
    out = run_python(
        """
        import sys, types
        class Stop:  # the typed array package's import is interrupted
            def find_spec(self, name, path=None, target=None):
                if name == "veltramultidimarrayforpython":
                    raise KeyboardInterrupt
        sys.meta_path.insert(0, Stop())
        try:
            import py_pb
        except KeyboardInterrupt:
            print("interrupted")
        """
    )
    assert out == "interrupted\n"


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
        import sys, types
        sys.modules["veltra"] = types.ModuleType("veltra")  # importable on its own, so step 1 passes
        {setup}
        try:
            import py_pb
        except ValueError as e:
            print(e)
        """
    )
    assert out == f"Unable to initialize py_pb. Details: {details}\n"


@pytest.mark.parametrize(
    "header, theirs",
    [
        pytest.param("size, version + 1", "version {v1} ({size} bytes)", id="another version"),
        pytest.param("size - 8, version", "version {v} ({size8} bytes)", id="an entry missing"),
        # A table from before the header: it begins with entry 0, an address.
        pytest.param("0x7F12_3456_7890 & 0xFFFF_FFFF, 0x7F12_3456_7890 >> 32", "no version", id="no header"),
    ],
)
def test_a_capsule_table_of_another_version_fails_the_import_naming_both(header, theirs):
    out = run_python(
        f"""
        import ctypes, veltramultidimarrayforpython as p
        api = ctypes.pythonapi
        api.PyCapsule_GetPointer.restype = ctypes.c_void_p
        api.PyCapsule_GetPointer.argtypes = [ctypes.py_object, ctypes.c_char_p]
        api.PyCapsule_New.restype = ctypes.py_object
        api.PyCapsule_New.argtypes = [ctypes.c_void_p, ctypes.c_char_p, ctypes.c_void_p]
        name = b"veltramultidimarrayforpython._capi"
        size, version = (ctypes.c_uint32 * 2).from_address(api.PyCapsule_GetPointer(p._capi, name))
        print(size, version)
        # The package's own table as the header says, with its entries null (import calls none of them).
        table = (ctypes.c_uint32 * (size // 4))({header})
        p._capi = api.PyCapsule_New(ctypes.addressof(table), name, None)
        try:
            import py_pb
        except ImportError as e:
            print(e)
        """
    )
    first, message = out.splitlines()
    size, v = map(int, first.split())
    assert theirs.format(v=v, v1=v + 1, size=size, size8=size - 8) in message
    assert f"py_pb needs version {v} (at least {size} bytes)" in message


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


def test_two_inputs_or_none_and_default_nargout():
    assert type(py_pb.py_to_serialized_str((1,))) is bytes
    m = params((1.0, "a"))
    assert m.nargout == 1
    assert [decode(a) for a in m.rhs] == [(DOUBLE, (1, 1), [1.0]), (CHAR, (1, 1), "a")]
    m = params(())
    assert len(m.rhs) == 0 and m.nargout == 1


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
        (" 4xyz", 4),
        ("\t\n+7", 7),
        ("-0", 0),
        (0, 0),
        (True, 1),
        (2**31 - 1, 2**31 - 1),
        (str(2**31 - 1), 2**31 - 1),
    ],
)
def test_nargout_values(nargout, expected):
    assert params((), nargout=nargout).nargout == expected


@pytest.mark.parametrize(
    "nargout, text",
    # std::stol rules: no digits at the start, or out of the range of long. Non-ASCII digits are no digits.
    [(v, NOT_A_NUMBER) for v in ["abc", "", "   ", "+", "x1", "99999999999999999999", "\u0663"]]
    + [(v, NOT_STR_OR_INT) for v in [2.0, None, b"3"]]
    + [(v, BELOW_ZERO.format(n)) for v, n in [(-1, "-1"), ("-1", "-1"), (" -12abc", "-12"), (-2**63, str(-2**63)),
                                                (-2**80, str(-2**80))]]
    # The message carries a 32-bit count; a larger one is refused rather than cut to its low bits.
    + [(v, BEYOND_32_BITS.format(n)) for v, n in [(2**31, str(2**31)), (str(2**31), str(2**31)),
                                                    (2**100, str(2**100))]],
)
def test_nargout_errors(nargout, text):
    with pytest.raises(ValueError) as e:
        py_pb.py_to_serialized_str((), nargout=nargout)
    assert str(e.value) == text


@pytest.mark.parametrize("schema", ["VELTRA_PARAMS", "VELTRA_RESULT"])
def test_schema_is_checked_but_selects_nothing(schema):
    m = params((2.5,), schema=schema, nargout=2)
    assert m.nargout == 2
    assert [decode(a) for a in m.rhs] == [(DOUBLE, (1, 1), [2.5])]


@pytest.mark.parametrize("fn", ["to", "from"])
@pytest.mark.parametrize(
    "schema, text",
    [
        ("veltra_result", "Invalid value ('veltra_result') for keyword 'schema'"),
        ("VELTRA_PARAMS ", "Invalid value ('VELTRA_PARAMS ') for keyword 'schema'"),
        ("", "Invalid value ('') for keyword 'schema'"),
        ("\ud800x", "Invalid value ('\ud800x') for keyword 'schema'"),
        (1, SCHEMA_NOT_STR),
        (b"VELTRA_PARAMS", SCHEMA_NOT_STR),
    ],
)
def test_schema_errors_in_both_functions(fn, schema, text):
    with pytest.raises(ValueError) as e:
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


def test_reads_outputs_from_any_contiguous_buffer_and_releases_it():
    import numpy as np

    data = result(numeric(DOUBLE, [1.5]), numeric(INT64, [-3]))
    for d in (data, bytearray(data), memoryview(data), np.frombuffer(data, dtype=np.uint8)):
        assert py_pb.serialized_str_to_py(d) == [1.5, -3]
    held = bytearray(data)
    py_pb.serialized_str_to_py(held)
    held.extend(b"\x00")  # would raise BufferError while an export were still held


def _strided(data):
    return memoryview(bytes(b for byte in data for b in (byte, 0)))[::2]


def _fortran(data):
    import numpy as np

    return np.asfortranarray(np.frombuffer(data * 2, dtype=np.uint8).reshape(2, -1))


@pytest.mark.parametrize("args", [("text",), (1,), (None,), ([1],), (), (b"", b""),
                                  (_strided(result(numeric(DOUBLE, [1.5]))),),
                                  (_fortran(result(numeric(DOUBLE, [1.5]))),)])
def test_args_that_are_not_one_contiguous_bytes_like_object(args):
    with pytest.raises(ValueError) as e:
        py_pb.serialized_str_to_py(*args)
    assert str(e.value) == "args invalid"


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
    out = py_pb.serialized_str_to_py(b"")
    assert type(out) is list and out == []


def test_out_of_memory_is_a_memory_error_whichever_way_it_comes():
    # A fresh interpreter whose address space ends 60 MiB past what it holds: every large allocation fails, in
    # Python's allocator, numpy's or the array library's, and each reads as MemoryError.
    out = run_python("""
        import resource, numpy as np, py_pb, veltramultidimarrayforpython as v
        from veltra.loopback import loopback
        a, floats = np.ones(40 << 20), [0.5] * 4_000_000
        data = loopback(py_pb.py_to_serialized_str((a,)))
        size = next(int(l.split()[1]) for l in open("/proc/self/status") if l.startswith("VmSize:")) * 1024
        resource.setrlimit(resource.RLIMIT_AS, (size + (60 << 20), resource.RLIM_INFINITY))
        for call in (lambda: py_pb.serialized_str_to_py(data), lambda: py_pb.py_to_serialized_str((a,)),
                     lambda: py_pb.py_to_serialized_str((floats,)), lambda: py_pb.py_to_serialized_str((floats, a[:4])),
                     lambda: v.double(a)):
            try:
                call()
                print("converted")
            except BaseException as e:
                print(type(e).__name__)
    """)
    assert out.split() == ["MemoryError"] * 5
