#include "convert/container.h"

#include <string>
#include <utility>
#include <vector>

#include "convert/dispatch.h"
#include "convert/recursion_guard.h"
#include "convert/text.h"

namespace PythonVeltraDataArray::detail {

using foundation::veltradata::StructArray;
using foundation::veltradata::TypedArray;

namespace {

const char* const kIntoVeltra = " while converting a Python object to VELTRA";
const char* const kIntoPython = " while converting a VELTRA array to Python";

constexpr char kRecursiveList[] = "passing recursive list to VELTRA not supported";
constexpr char kRecursiveDict[] = "passing recursive dict to VELTRA not supported";
constexpr char kFieldNotStr[] = "field name of Python dict object passed to VELTRA must be a nonempty string";
constexpr char kFieldEmpty[] = "field name passed to VELTRA is empty";
constexpr char kDictChanged[] = "dict changed size during conversion to VELTRA";
constexpr char kCellShape[] = "cell arrays returned from VELTRA must be 1-by-N or M-by-1";
constexpr char kStructNotScalar[] = "only a scalar struct can be returned from VELTRA";

// A 1-by-n cell of the conversions of n items; `item(i)` gives item i as a new reference, or null with an error
// set. The recursion guard is the caller's.
template <typename Item>
std::optional<Array> cellOf(ArrayFactory& f, Py_ssize_t n, const ConversionState& state, Item&& item) {
    if (n < 0) return failed();
    const ConversionState inner = state.forElement();
    std::vector<Array> elements;
    elements.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
        const Ref value = item(i);
        if (!value) return failed();
        std::optional<Array> element = convertToArray(value.get(), inner);
        if (!element) return failed();
        elements.push_back(std::move(*element));
    }
    return std::move(f.createCellArray({1, static_cast<std::uint64_t>(n)}, std::move(elements)));
}

}  // namespace

std::optional<Array> PyListToCell::doConvert(PyObject* obj, const ConversionState& state) {
    RecursionGuard guard(kIntoVeltra);
    if (!guard) return failed();
    return cellOf(factory(), PyList_Size(obj), state, [obj](Py_ssize_t i) {
        // An element's conversion can run Python code that shrinks the list: then this raises IndexError.
        PyObject* item = PyList_GetItem(obj, i);
        if (item != obj) return Ref::borrow(item);
        fail(PyExc_ValueError, kRecursiveList);
        return Ref();
    });
}

std::optional<Array> PyTupleToCell::doConvert(PyObject* obj, const ConversionState& state) {
    RecursionGuard guard(kIntoVeltra);
    if (!guard) return failed();
    return cellOf(factory(), PyTuple_Size(obj), state, [obj](Py_ssize_t i) { return Ref::borrow(PyTuple_GetItem(obj, i)); });
}

std::optional<Array> PySetToCell::doConvert(PyObject* obj, const ConversionState& state) {
    RecursionGuard guard(kIntoVeltra);
    if (!guard) return failed();
    const Py_ssize_t n = PySet_Size(obj);
    if (n < 0) return failed();
    const Ref copy = Ref::steal(PySet_New(obj));
    if (!copy) return failed();
    return cellOf(factory(), n, state, [&copy](Py_ssize_t) { return Ref::steal(PySet_Pop(copy.get())); });
}

std::optional<Array> PyDictToStruct::doConvert(PyObject* obj, const ConversionState& state) {
    RecursionGuard guard(kIntoVeltra);
    if (!guard) return failed();
    const Ref keys = Ref::steal(PyDict_Keys(obj));
    if (!keys) return failed();
    const Py_ssize_t n = PyList_Size(keys.get());

    std::vector<std::string> names;
    names.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* key = PyList_GetItem(keys.get(), i);
        if (!PyUnicode_Check(key)) return fail(PyExc_ValueError, kFieldNotStr);
        const Ref utf8 = Ref::steal(PyUnicode_AsUTF8String(key));
        if (!utf8 || PyBytes_Size(utf8.get()) == 0) {
            PyErr_Clear();  // a key UTF-8 cannot carry (a lone surrogate) counts as no name
            return fail(PyExc_ValueError, kFieldEmpty);
        }
        names.emplace_back(PyBytes_AsString(utf8.get()), static_cast<std::size_t>(PyBytes_Size(utf8.get())));
    }

    // Throws for a name that is no valid identifier ("field name is not a valid VELTRA identifier: '...'");
    // the base turns that into ValueError.
    StructArray s = factory().createStructArray({1, 1}, names);
    const ConversionState inner = state.forElement();
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* key = PyList_GetItem(keys.get(), i);
        PyObject* value = PyDict_GetItemWithError(obj, key);
        if (!value) {
            // Python code run by an earlier value's conversion removed this key.
            return PyErr_Occurred() ? failed() : fail(PyExc_RuntimeError, kDictChanged);
        }
        if (value == obj) return fail(PyExc_ValueError, kRecursiveDict);
        const Ref hold = Ref::borrow(value);
        std::optional<Array> field = convertToArray(value, inner);
        if (!field) return failed();
        s[0][names[static_cast<std::size_t>(i)]] = *field;
    }
    return s;
}

PyObject* CellToPyList::doConvert(const Array& a) {
    RecursionGuard guard(kIntoPython);
    if (!guard) return failed();
    if (!isRowOrColumn(a)) return fail(PyExc_ValueError, kCellShape);
    // The elements where they lie rather than through element references; each is still held while it is
    // converted.
    const Array* cells = foundation::veltradata::cellElements(a);
    const std::uint64_t n = a.getNumberOfElements();
    Ref list = Ref::steal(PyList_New(static_cast<Py_ssize_t>(n)));
    if (!list) return failed();
    for (std::uint64_t i = 0; i < n; ++i) {
        const Array element = cells[i];
        PyObject* item = element.isEmpty() ? PyList_New(0) : convertToPython(element);
        if (!item) return failed();
        if (PyList_SetItem(list.get(), static_cast<Py_ssize_t>(i), item) != 0) return failed();
    }
    return list.release();
}

PyObject* StructToPyDict::doConvert(const Array& a) {
    RecursionGuard guard(kIntoPython);
    if (!guard) return failed();
    // The element count is the product of the dimensions: more than one element, or none, is not a scalar.
    if (a.getNumberOfElements() != 1) return fail(PyExc_ValueError, kStructNotScalar);
    const StructArray s(a);
    Ref dict = Ref::steal(PyDict_New());
    if (!dict) return failed();
    for (const auto& field : s.getFieldNames()) {
        const std::string& name = field.str();
        const Ref key = Ref::steal(PyUnicode_FromString(name.c_str()));
        if (!key) return failed();
        const Array value = s[0][name];
        const Ref item = Ref::steal(convertToPython(value));
        if (!item) return failed();
        if (PyDict_SetItem(dict.get(), key.get(), item.get()) != 0) return failed();
    }
    return dict.release();
}

}  // namespace PythonVeltraDataArray::detail
