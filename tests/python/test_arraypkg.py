"""The typed array types of veltramultidimarrayforpython: construction, errors, indexing, assignment,
reshape, tolist, equality and repr."""

import array
import decimal
import fractions
import math

import numpy as np
import pytest

import veltra
import veltramultidimarrayforpython as vpkg

TYPES = {
    "double": np.float64,
    "single": np.float32,
    "int8": np.int8,
    "uint8": np.uint8,
    "int16": np.int16,
    "uint16": np.uint16,
    "int32": np.int32,
    "uint32": np.uint32,
    "int64": np.int64,
    "uint64": np.uint64,
    "logical": np.bool_,
}
COMPLEX_VIEW = {np.float64: np.complex128, np.float32: np.complex64}


def expected_view_dtype(name, complex_):
    """The numpy dtype numpy.asarray gives for a package array."""
    base = np.dtype(TYPES[name])
    if not complex_:
        return base
    if base.type in COMPLEX_VIEW:
        return np.dtype(COMPLEX_VIEW[base.type])
    return np.dtype([("real", base), ("imag", base)])


# ---------------------------------------------------------------------------------------------------------
# The types and the veltra package


@pytest.mark.parametrize("name", list(TYPES))
def test_each_type_is_named_veltra_and_builds_zeros_and_complex_arrays(name):
    cls = getattr(vpkg, name)
    assert getattr(veltra, name) is cls and (cls.__module__, cls.__name__) == ("veltra", name)
    assert type(cls()) is cls and cls().size == (0, 0)
    zeros = np.asarray(cls(size=(2, 3, 4)))
    assert zeros.shape == (2, 3, 4) and zeros.dtype == TYPES[name] and not zeros.any()
    if name == "logical":
        return  # cannot be complex: test_logical_cannot_be_complex_and_keyword_errors
    x = cls([[1, 2], [3, 4]], is_complex=True)
    assert x._is_complex and x.tolist() == [[1, 2], [3, 4]] and type(x[1, 0]) is complex
    assert np.asarray(x).dtype == expected_view_dtype(name, True)
    y = cls([1 + 2j, 3])  # complex elements imply it
    assert y._is_complex and y.tolist() == [[1 + 2j, 3 + 0j]]
    assert not cls([1, 2])._is_complex
    z = cls(np.array([1 + 1j, 2]))
    assert z._is_complex and z.tolist() == [[1 + 1j, 2 + 0j]]
    assert cls(size=(2, 2), is_complex=True)._is_complex


def test_types_are_closed():
    with pytest.raises(TypeError):
        type("Sub", (vpkg.double,), {})
    with pytest.raises(TypeError):
        hash(vpkg.double([1.0]))
    with pytest.raises(TypeError):
        vpkg.double.extra = 1
    import inspect

    assert str(inspect.signature(vpkg.int8)) == "(initializer=None, size=None, is_complex=False)"


# ---------------------------------------------------------------------------------------------------------
# Construction


@pytest.mark.parametrize(
    "initializer,size,tolist",
    [
        (3, (1, 1), [[3]]),
        ([1, 2, 3], (1, 3), [[1, 2, 3]]),
        ((1, 2, 3), (1, 3), [[1, 2, 3]]),
        ([[1, 2, 3], [4, 5, 6]], (2, 3), [[1, 2, 3], [4, 5, 6]]),
        ([[1], [2], [3]], (3, 1), [[1], [2], [3]]),
        ([[[1, 2], [3, 4], [5, 6]], [[7, 8], [9, 10], [11, 12]]], (2, 3, 2),
         [[[1, 2], [3, 4], [5, 6]], [[7, 8], [9, 10], [11, 12]]]),
        ([], (1, 0), [[]]),
        ([[], []], (2, 0), [[], []]),
        (range(4), (1, 4), [[0, 1, 2, 3]]),
        ([np.int16(1), np.float32(2), np.bool_(True), decimal.Decimal(4), fractions.Fraction(5)], (1, 5),
         [[1, 2, 1, 4, 5]]),
        ([np.array(7.0), np.array([8.0])[0]], (1, 2), [[7, 8]]),
        ([np.array([1, 2]), np.array([3, 4])], (2, 2), [[1, 2], [3, 4]]),
        # Buffers, read whole (their formats and layouts: test_arraypkg_capi.py).
        (array.array("h", [1, -2, 3]), (1, 3), [[1, -2, 3]]),
        (memoryview(b"\x01\x02\x03\x04").cast("B", shape=[2, 2]), (2, 2), [[1, 2], [3, 4]]),
        (b"\x05\x06", (1, 2), [[5, 6]]),
        (np.float32(2.5), (1, 1), [[2.5]]),
        (np.array(4), (1, 1), [[4]]),
    ],
    ids=["number", "flat", "tuple", "rows", "column", "3d", "empty", "empty-rows", "range", "number-likes",
         "0d-arrays", "nested-ndarrays", "array.array", "memoryview-2d", "bytes", "numpy-scalar", "0d"],
)
def test_initializers(initializer, size, tolist):
    x = vpkg.double(initializer)
    assert x.size == size and x.tolist() == tolist


def test_size_forms_and_flat_data_in_column_major_order():
    assert vpkg.int16(size=5).size == (1, 5)
    assert vpkg.int16(size=[3]).size == (1, 3)
    assert vpkg.int16(size=(0, 4)).size == (0, 4)
    x = vpkg.double([1, 2, 3, 4, 5, 6], size=(2, 3))
    assert x.tolist() == [[1, 3, 5], [2, 4, 6]]
    y = vpkg.int8([[1, 2], [3, 4]], size=(1, 4))  # any data of the right count, in its column-major order
    assert y.tolist() == [[1, 3, 2, 4]]
    z = vpkg.double(np.arange(6.0), size=(3, 2))
    assert z.tolist() == [[0, 3], [1, 4], [2, 5]]


# Every type as a source into a floating, an integer and the logical target, and a floating, an integer and the
# logical source into every type: the conversion's branches go by these categories, not by the pair.
CONVERSIONS = sorted({(s, t) for s in TYPES for t in ("double", "uint8", "logical")}
                     | {(s, t) for s in ("single", "int64", "logical") for t in TYPES})


@pytest.mark.parametrize("source,target", CONVERSIONS)
def test_numpy_and_package_sources_convert(source, target):
    a = (np.arange(6) % 3).astype(TYPES[source]).reshape(2, 3)
    for x in (a, getattr(vpkg, source)(a)):
        y = getattr(vpkg, target)(x)
        assert type(y) is getattr(vpkg, target) and y.size == (2, 3)
        got = np.asarray(y)
        assert got.dtype == TYPES[target]
        np.testing.assert_array_equal(got, a.astype(TYPES[target]))


def test_unsupported_buffer_formats_fall_back_to_their_elements():
    np.testing.assert_array_equal(np.asarray(vpkg.double(np.array([1, 2.5], dtype=object))), [[1, 2.5]])
    np.testing.assert_array_equal(np.asarray(vpkg.single(np.array([[1.5], [2]], dtype=np.float16))),
                                  [[1.5], [2]])


@pytest.mark.parametrize(
    "cls,value,exc,text",
    [
        (vpkg.double, [[1, 2], [3]], ValueError,
         "initializer is not rectangular: the sequence at index (1,) has length 1, expected 2"),
        (vpkg.double, [[1, 2], 3], ValueError,
         "initializer is not rectangular: expected a sequence of length 2 at index (1,), found int"),
        (vpkg.double, [1, [2]], ValueError,
         "initializer is not rectangular: expected a number at index (1,), found a sequence (list)"),
        (vpkg.double, [[[1], [2]], [[3], [4, 5]]], ValueError,
         "initializer is not rectangular: the sequence at index (1, 1) has length 2, expected 1"),
        (vpkg.double, [[], [1]], ValueError,
         "initializer is not rectangular: the sequence at index (1,) has length 1, expected 0"),
        (vpkg.double, [1, "a"], TypeError, "initializer element at index (1,) is not a number: 'a' of type str"),
        (vpkg.int8, [[1, None]], TypeError, "initializer element at index (0, 1) is not a number: None of type NoneType"),
        (vpkg.int8, [[1, 300]], ValueError, "value 300 at index (0, 1) is out of range for int8"),
        (vpkg.uint8, [-1], ValueError, "value -1 at index (0,) is out of range for uint8"),
        (vpkg.uint64, [2**64], ValueError, "value 18446744073709551616 at index (0,) is out of range for uint64"),
        (vpkg.int64, [2**63], ValueError, "value 9223372036854775808 at index (0,) is out of range for int64"),
        (vpkg.int32, [[1.5]], ValueError, "value 1.5 at index (0, 0) is not a whole number and cannot be stored in int32"),
        (vpkg.int16, [float("nan")], ValueError,
         "value nan at index (0,) is not a whole number and cannot be stored in int16"),
        (vpkg.int8, [1 + 200j], ValueError, "value (1+200j) at index (0,) is out of range for int8"),
        (vpkg.logical, [float("nan")], ValueError, "value nan at index (0,) cannot be converted to logical"),
        (vpkg.logical, [1j], TypeError, "value 1j at index (0,) is complex and cannot be stored in a logical array"),
        (vpkg.double, [10**400], ValueError,
         "value " + str(10**400)[:100] + "... at index (0,) is out of range for double"),  # echoed values are cut
        # A position whose column-major and row-major readings differ.
        (vpkg.int8, np.array([[1, 400], [3, 4]]), ValueError, "value 400 at index (0, 1) is out of range for int8"),
        (vpkg.uint16, np.array([1.0, -2.0]), ValueError, "value -2.0 at index (1,) is out of range for uint16"),
        (vpkg.int8, 128, ValueError, "value 128 is out of range for int8"),
        (vpkg.double, {1, 2}, TypeError, "cannot build a veltra.double from an object of type set"),
        (vpkg.double, "12", TypeError, "cannot build a veltra.double from an object of type str"),
    ],
)
def test_construction_errors(cls, value, exc, text):
    with pytest.raises(exc) as info:
        cls(value)
    assert str(info.value) == text


@pytest.mark.parametrize(
    "kwargs,exc,text",
    [
        (dict(initializer=[1, 2, 3], size=(2, 2)), ValueError, "size (2, 2) holds 4 elements but the initializer has 3"),
        (dict(size=(2, -1)), ValueError, "size must not contain negative dimensions: -1 at position 1"),
        (dict(size=(2, "3")), TypeError, "size must be a sequence of non-negative integers; found str at position 1"),
        (dict(size=2.0), TypeError, "size must be a sequence of non-negative integers, not float"),
        (dict(size=()), ValueError, "size must have at least one dimension"),
        (dict(size=(2**40, 2**40)), ValueError, "size (1099511627776, 1099511627776) is too large"),
        (dict(size=(2**40, 2**20)), MemoryError, ""),
        (dict(size=(1, 2**70)), ValueError, "size (1, 1180591620717411303424) is too large"),
    ],
    ids=["count", "negative", "entry-type", "size-type", "no-dims", "overflow", "huge", "beyond-int64"],
)
def test_size_errors(kwargs, exc, text):
    with pytest.raises(exc) as info:
        vpkg.double(**kwargs)
    if text:
        assert str(info.value) == text


def test_logical_cannot_be_complex_and_keyword_errors():
    with pytest.raises(ValueError, match="^logical arrays cannot be complex$"):
        vpkg.logical([True], is_complex=True)
    with pytest.raises(TypeError):
        vpkg.double([1], nonsense=1)
    with pytest.raises(TypeError):
        vpkg.double(1, 2, 3, 4)


def test_logical_takes_numbers_by_truth():
    assert vpkg.logical([0, 2, -0.5, True, 0.0]).tolist() == [[False, True, True, True, False]]


def test_deep_and_cyclic_nesting_fails_cleanly():
    deep = 1.0
    for _ in range(70):
        deep = [deep]
    with pytest.raises(ValueError, match="nested more than 64 levels deep"):
        vpkg.double(deep)
    cyclic = []
    cyclic.append(cyclic)
    with pytest.raises(ValueError, match="^initializer is nested more than 64 levels deep$"):
        vpkg.double(cyclic)


def test_exact_64_bit_integers():
    big = [2**63 - 1, -(2**63)]
    assert vpkg.int64(big).tolist() == [big]
    assert vpkg.uint64([2**64 - 1]).tolist() == [[2**64 - 1]]
    assert vpkg.uint64(np.array([2**64 - 1], dtype=np.uint64)).tolist() == [[2**64 - 1]]


class MutatingFloat:
    """A number whose conversion empties the list holding it."""

    def __init__(self, owner):
        self.owner = owner

    def __float__(self):
        self.owner.clear()
        return 1.0


def test_initializer_changed_while_read_fails_cleanly():
    data = [1.0, 2.0]
    data.insert(1, MutatingFloat(data))
    with pytest.raises(IndexError):  # the list shrank under the reader; every element read was held
        vpkg.double(data)
    nested = [[1.0, 2.0], [3.0, 4.0]]
    nested[1].insert(0, MutatingFloat(nested[0]))
    nested[1].pop()
    assert vpkg.double(nested).tolist() == [[1.0, 2.0], [1.0, 3.0]]


# ---------------------------------------------------------------------------------------------------------
# size, len, indexing


def matrix():
    return vpkg.double([[1, 2, 3], [4, 5, 6]])


def test_size_and_len():
    x = matrix()
    assert x.size == (2, 3) and len(x) == 2
    assert len(vpkg.double([1, 2, 3])) == 1
    assert len(x[0]) == 3 and x[0].size == (3,)
    assert len(vpkg.double(size=(0, 4))) == 0


@pytest.mark.parametrize(
    "key,expected",
    [
        (0, [1, 2, 3]),
        (-1, [4, 5, 6]),
        ((1, 2), 6),
        ((-2, -3), 1),
        (slice(None, None, -1), [[4, 5, 6], [1, 2, 3]]),
        (slice(1, None), [[4, 5, 6]]),
        (slice(5, 9), []),
        ((slice(None), 1), [2, 5]),
        ((slice(None), slice(None, None, 2)), [[1, 3], [4, 6]]),
        ((0, slice(1, None)), [2, 3]),
        ((), [[1, 2, 3], [4, 5, 6]]),
    ],
    ids=["row", "negative-row", "element", "negative-element", "reversed", "slice", "empty-slice", "column",
         "stepped", "row-slice", "all"],
)
def test_indexing_matches_numpy(key, expected):
    x = matrix()
    got = x[key]
    want = np.asarray(x)[key]
    if isinstance(expected, list):
        assert type(got) is vpkg.double
        assert got.tolist() == expected
        assert got.size == want.shape
        np.testing.assert_array_equal(np.asarray(got), want)
    else:
        assert type(got) is float and got == expected == want


def test_chained_indexing_reaches_scalars_of_each_kind():
    assert vpkg.double([[1, 2]])[0][1] == 2.0 and type(vpkg.double([[1, 2]])[0][1]) is float
    assert type(vpkg.single([1])[0, 0]) is float
    assert type(vpkg.int8([1])[0][0]) is int
    assert type(vpkg.uint64([2**64 - 1])[0][0]) is int and vpkg.uint64([2**64 - 1])[0][0] == 2**64 - 1
    assert vpkg.logical([True])[0][0] is True
    assert vpkg.int16([3], is_complex=True)[0][0] == 3 + 0j
    cube = vpkg.int32(np.arange(24).reshape(2, 3, 4))
    assert cube[1].size == (3, 4) and cube[1][2].size == (4,) and cube[1][2][3] == 23
    assert cube[1, 2, 3] == 23 and cube[1, 2].tolist() == [20, 21, 22, 23]


def test_iteration_and_membership_run_over_the_first_dimension():
    x = matrix()
    assert [row.tolist() for row in x] == [[1, 2, 3], [4, 5, 6]]
    assert [v for v in x[1]] == [4.0, 5.0, 6.0]
    assert 5.0 in x[1] and 7.0 not in x[1]


@pytest.mark.parametrize(
    "key,exc,text",
    [
        (2, IndexError, "index 2 is out of range for dimension 0 of size 2"),
        (-3, IndexError, "index -3 is out of range for dimension 0 of size 2"),
        ((0, 3), IndexError, "index 3 is out of range for dimension 1 of size 3"),
        ((0, 0, 0), IndexError, "too many indices: the array has 2 dimensions"),
        ("a", TypeError, "array indices must be integers or slices, not str"),
        (1.0, TypeError, "array indices must be integers or slices, not float"),
        ((0, None), TypeError, "array indices must be integers or slices, not NoneType"),
        (2**70, IndexError, "index 9223372036854775807 is out of range for dimension 0 of size 2"),
    ],
    ids=["past-end", "before-start", "second-dim", "too-many", "str", "float", "none", "huge"],
)
def test_indexing_errors(key, exc, text):
    with pytest.raises(exc) as info:
        matrix()[key]
    assert str(info.value) == text


def test_row_view_indexing_errors_name_its_dimension():
    with pytest.raises(IndexError, match=r"^too many indices: the array has 1 dimension$"):
        matrix()[0][1, 1]


# ---------------------------------------------------------------------------------------------------------
# Assignment


def test_element_assignment_through_views_writes_the_array():
    x = matrix()
    x[0][1] = 20
    x[1, 2] = 60
    x[-1][0] = True
    assert x.tolist() == [[1, 20, 3], [1, 5, 60]]


@pytest.mark.parametrize(
    "key,value,expected",
    [
        (0, [7, 8, 9], [[7, 8, 9], [4, 5, 6]]),
        (1, 0, [[1, 2, 3], [0, 0, 0]]),
        ((slice(None), 0), [10, 40], [[10, 2, 3], [40, 5, 6]]),
        ((slice(None), slice(1, None)), [[0, 0], [0, 0]], [[1, 0, 0], [4, 0, 0]]),
        (slice(None), np.array([[9, 8, 7], [6, 5, 4]], dtype=np.int8), [[9, 8, 7], [6, 5, 4]]),
        (slice(None, None, -1), vpkg.int16([[9, 8, 7], [6, 5, 4]]), [[6, 5, 4], [9, 8, 7]]),
        (0, vpkg.double([[7, 8, 9]]), [[7, 8, 9], [4, 5, 6]]),
        (slice(0, 0), 5, [[1, 2, 3], [4, 5, 6]]),
    ],
    ids=["row", "broadcast", "column", "block", "numpy", "reversed-package", "row-from-1xN", "empty"],
)
def test_region_assignment(key, value, expected):
    x = matrix()
    x[key] = value
    assert x.tolist() == expected


def test_self_assignment_uses_the_values_before_the_write():
    x = matrix()
    x[::-1] = x
    assert x.tolist() == [[4, 5, 6], [1, 2, 3]]
    x[0] = x[1]
    assert x.tolist() == [[1, 2, 3], [1, 2, 3]]


@pytest.mark.parametrize(
    "cls,key,value,exc,text",
    [
        (vpkg.double, 0, [1, 2], ValueError, "cannot assign a value of shape (2,) to a region of shape (3,)"),
        (vpkg.double, 0, 1j, TypeError, "value 1j is complex and cannot be stored in a real double array"),
        (vpkg.double, 0, [1, 2j, 3], TypeError,
         "value 2j at index (1,) is complex and cannot be stored in a real double array"),
        (vpkg.int8, (0, 0), 1000, ValueError, "value 1000 is out of range for int8"),
        (vpkg.int8, 0, [1, 2, 1000], ValueError, "value 1000 at index (2,) is out of range for int8"),
        (vpkg.double, 0, "abc", TypeError, "cannot assign an object of type str to array elements"),
        (vpkg.double, 5, 1, IndexError, "index 5 is out of range for dimension 0 of size 2"),
    ],
    ids=["shape", "complex-scalar", "complex-element", "range-scalar", "range-element", "text", "index"],
)
def test_assignment_errors_leave_the_array_unchanged(cls, key, value, exc, text):
    x = cls([[1, 2, 3], [4, 5, 6]])
    with pytest.raises(exc) as info:
        x[key] = value
    assert str(info.value) == text
    assert x.tolist() == [[1, 2, 3], [4, 5, 6]]


def test_deleting_elements_is_refused():
    with pytest.raises(TypeError, match="^cannot delete elements of a veltra.double$"):
        del matrix()[0]


# ---------------------------------------------------------------------------------------------------------
# reshape, tolist, equality, repr


def test_reshape_in_place_keeps_column_major_order():
    x = vpkg.double([[1, 2, 3], [4, 5, 6]])
    assert x.reshape(3, 2) is None
    assert x.size == (3, 2) and x.tolist() == [[1, 5], [4, 3], [2, 6]]
    x.reshape((1, 6))
    assert x.tolist() == [[1, 4, 2, 5, 3, 6]]
    x.reshape([6])
    assert x.size == (1, 6)
    x.reshape(1, 2, 3)
    assert x.size == (1, 2, 3) and np.asarray(x).shape == (1, 2, 3)


@pytest.mark.parametrize(
    "args,exc,text",
    [
        ((4, 2), ValueError, "cannot reshape an array of 6 elements to size (4, 2) (8 elements)"),
        ((-1, 6), ValueError, "reshape must not contain negative dimensions: -1 at position 0"),
        (("a",), TypeError, "reshape must be a sequence of non-negative integers, not str"),
        ((), ValueError, "reshape must have at least one dimension"),
    ],
    ids=["count", "negative", "type", "none"],
)
def test_reshape_errors(args, exc, text):
    x = matrix()
    with pytest.raises(exc) as info:
        x.reshape(*args)
    assert str(info.value) == text
    assert x.size == (2, 3)


def test_views_cannot_be_reshaped():
    x = matrix()
    with pytest.raises(ValueError, match=r"^a sub-array view cannot be reshaped in place; copy it first with "
                                         r"veltra.double\(view\)$"):
        x[0].reshape(1, 3)


def test_views_and_exports_keep_their_elements_across_a_reshape():
    x = matrix()
    row = x[1]
    a = np.asarray(x)
    x.reshape(3, 2)
    assert row.tolist() == [4, 5, 6] and a.tolist() == [[1, 2, 3], [4, 5, 6]]
    x[0, 1] = 50  # column-major position 3: element (1, 1) of the old shape
    assert row.tolist() == [4, 50, 6] and a[1, 1] == 50
    assert np.shares_memory(a, np.asarray(x))


def test_reshape_of_shared_storage_leaves_the_other_holder_alone():
    x = matrix()
    y = vpkg.double(x)
    assert vpkg._holds(x) == 2
    y.reshape(3, 2)
    assert x.size == (2, 3) and x.tolist() == [[1, 2, 3], [4, 5, 6]]
    assert y.size == (3, 2)


@pytest.mark.parametrize("shape", [(2, 1, 3), (0, 3), (3, 0, 2)],
                         ids=lambda s: "x".join(map(str, s)))
def test_tolist_matches_numpy_and_rebuilds_the_array(shape):
    a = np.arange(math.prod(shape), dtype=np.int16).reshape(shape)
    x = vpkg.int16(a)
    assert x.tolist() == a.tolist()
    if a.size:
        assert vpkg.int16(x.tolist()).size == shape


@pytest.mark.parametrize(
    "a,b,equal",
    [
        (vpkg.double([1, 2]), vpkg.double([1, 2]), True),
        (vpkg.double([1, 2]), vpkg.int8([1, 2]), True),
        (vpkg.double([1, 2]), vpkg.double([1, 3]), False),
        (vpkg.double([1, 2]), vpkg.double([[1], [2]]), False),
        (vpkg.double([1, 2]), vpkg.double([1, 2], is_complex=True), True),
        (vpkg.double([1j]), vpkg.double([1]), False),
        (vpkg.double([float("nan")]), vpkg.double([float("nan")]), True),
        (vpkg.uint64([2**64 - 1]), vpkg.int64([-1]), False),
        (vpkg.int64([2**53 + 1]), vpkg.double([2**53]), False),
        (vpkg.logical([True, False]), vpkg.uint8([1, 0]), True),
        (vpkg.double([[1, 2], [3, 4]])[:, 1], vpkg.double([2, 4])[0], True),
    ],
    ids=["same", "cross-kind", "values", "shape", "complex-zero-imag", "imag", "nan", "u64-vs-i64",
         "beyond-double", "logical", "views"],
)
def test_equality(a, b, equal):
    assert (a == b) is equal
    assert (a != b) is not equal
    assert (b == a) is equal


def test_equality_with_other_objects_is_not_supported():
    x = vpkg.double([1, 2])
    assert (x == [[1, 2]]) is False
    assert x != 1
    with pytest.raises(TypeError):
        x < x


@pytest.mark.parametrize(
    "value,text",
    [
        (vpkg.double([[1, 2.5], [3, 4]]), "veltra.double([[1.0, 2.5], [3.0, 4.0]])"),
        (vpkg.int64([[2**62, -5]]), "veltra.int64([[4611686018427387904, -5]])"),
        (vpkg.logical([[True], [False]]), "veltra.logical([[True], [False]])"),
        (vpkg.single([1 + 2j, 3]), "veltra.single([[(1+2j), (3+0j)]], is_complex=True)"),
        (vpkg.uint16([1], is_complex=True), "veltra.uint16([[(1+0j)]], is_complex=True)"),
        (vpkg.double(size=(0, 3)), "veltra.double(size=(0, 3))"),
        (vpkg.uint8(size=(2, 0, 3), is_complex=True), "veltra.uint8(size=(2, 0, 3), is_complex=True)"),
        (vpkg.double(size=(1000, 1000)), "<veltra.double of size (1000, 1000)>"),
        (vpkg.double([[1, 2], [3, 4]])[1], "veltra.double([3.0, 4.0])"),
    ],
    ids=["double", "int64", "logical", "complex", "complex-int", "empty", "empty-3d-complex", "big", "view"],
)
def test_repr_and_its_evaluation(value, text):
    assert repr(value) == str(value) == text
    if text.startswith("veltra.") and len(value.size) > 1:  # not the summary, nor a 1-d view (it reads back 1-by-N)
        again = eval(text, {"veltra": veltra})
        assert type(again) is type(value) and again == value and again._is_complex == value._is_complex


def test_weak_references():
    import weakref

    x = matrix()
    r = weakref.ref(x)
    assert r() is x
    del x
    assert r() is None


def test_copies_share_until_written_and_pickles_round_trip():
    import copy
    import pickle

    x = vpkg.int16([[1, 2], [3, 4]], is_complex=True)
    for make in (copy.copy, copy.deepcopy):
        y = make(x)
        assert type(y) is vpkg.int16 and y == x and vpkg._holds(x) == 2
        y[0, 0] = 9
        assert x[0, 0] == 1 and vpkg._holds(x) == 1
    row = copy.copy(x[1])
    assert row.size == (1, 2) and row.tolist() == [[3, 4]]
    for value in (x, vpkg.double(size=(0, 3)), vpkg.logical([[True], [False]]), x[:, 1], vpkg.uint64([2**64 - 1])):
        again = pickle.loads(pickle.dumps(value))
        assert type(again) is type(value) and again._is_complex == value._is_complex
        assert np.array_equal(np.asarray(again).reshape(-1, order="F"), np.asarray(value).reshape(-1, order="F"))
