#include "convert/container.h"

#include <string>
#include <utility>
#include <vector>

#include "convert/dispatch.h"
#include "convert/py_ref.h"
#include "convert/recursion_guard.h"
#include "convert/text.h"

namespace PythonVeltraDataArray::detail {

using foundation::veltradata::StructArray;
using foundation::veltradata::TypedArray;

namespace {

const char* const kIntoVeltra = " while converting a Python object to VELTRA";
const char* const kIntoPython = " while converting a VELTRA array to Python";

const std::string kRecursiveList = "passing recursive list to VELTRA not supported";
const std::string kRecursiveDict = "passing recursive dict to VELTRA not supported";
const std::string kFieldNotStr = "field name of Python dict object passed to VELTRA must be a nonempty string";
const std::string kFieldEmpty = "field name passed to VELTRA is empty";
const std::string kDictChanged = "dict changed size during conversion to VELTRA";
const std::string kCellShape = "cell arrays returned from VELTRA must be 1-by-N or M-by-1";
const std::string kStructNotScalar = "only a scalar struct can be returned from VELTRA";

std::optional<Array> noValue(PyObject* type, const std::string& text) {
    PyErr_SetString(type, text.c_str());
    return std::nullopt;
}

Array cellRow(ArrayFactory& f, std::vector<Array>&& elements) {
    const std::uint64_t n = elements.size();
    return std::move(f.createCellArray({1, n}, std::move(elements)));
}

}  // namespace

std::optional<Array> PyListToCell::convert(PyObject* obj, const ConversionState& state) {
    if (!obj) return std::nullopt;
    RecursionGuard guard(kIntoVeltra);
    if (!guard) return std::nullopt;
    const Py_ssize_t n = PyList_Size(obj);
    if (n < 0) return std::nullopt;
    const ConversionState inner = state.forElement();
    std::vector<Array> elements;
    elements.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
        // An element's conversion can run Python code that shrinks the list: then this raises IndexError.
        PyObject* item = PyList_GetItem(obj, i);
        if (!item) return std::nullopt;
        if (item == obj) return noValue(PyExc_ValueError, kRecursiveList);
        const PyRef hold = PyRef::borrow(item);
        std::optional<Array> element = convertToArray(item, inner);
        if (!element) return std::nullopt;
        elements.push_back(std::move(*element));
    }
    return cellRow(factory(), std::move(elements));
}

std::optional<Array> PyTupleToCell::convert(PyObject* obj, const ConversionState& state) {
    if (!obj) return std::nullopt;
    RecursionGuard guard(kIntoVeltra);
    if (!guard) return std::nullopt;
    const Py_ssize_t n = PyTuple_Size(obj);
    if (n < 0) return std::nullopt;
    const ConversionState inner = state.forElement();
    std::vector<Array> elements;
    elements.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
        std::optional<Array> element = convertToArray(PyTuple_GetItem(obj, i), inner);
        if (!element) return std::nullopt;
        elements.push_back(std::move(*element));
    }
    return cellRow(factory(), std::move(elements));
}

std::optional<Array> PySetToCell::convert(PyObject* obj, const ConversionState& state) {
    if (!obj) return std::nullopt;
    RecursionGuard guard(kIntoVeltra);
    if (!guard) return std::nullopt;
    const Py_ssize_t n = PySet_Size(obj);
    if (n < 0) return std::nullopt;
    const PyRef copy = PyRef::steal(PySet_New(obj));
    if (!copy) return std::nullopt;
    const ConversionState inner = state.forElement();
    std::vector<Array> elements;
    elements.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
        const PyRef item = PyRef::steal(PySet_Pop(copy.get()));
        if (!item) return std::nullopt;
        std::optional<Array> element = convertToArray(item.get(), inner);
        if (!element) return std::nullopt;
        elements.push_back(std::move(*element));
    }
    return cellRow(factory(), std::move(elements));
}

std::optional<Array> PyDictToStruct::convert(PyObject* obj, const ConversionState& state) {
    if (!obj) return std::nullopt;
    RecursionGuard guard(kIntoVeltra);
    if (!guard) return std::nullopt;
    const PyRef keys = PyRef::steal(PyDict_Keys(obj));
    if (!keys) return std::nullopt;
    const Py_ssize_t n = PyList_Size(keys.get());

    std::vector<std::string> names;
    names.reserve(static_cast<std::size_t>(n));
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* key = PyList_GetItem(keys.get(), i);
        if (!PyUnicode_Check(key)) return noValue(PyExc_ValueError, kFieldNotStr);
        const PyRef utf8 = PyRef::steal(PyUnicode_AsUTF8String(key));
        if (!utf8 || PyBytes_Size(utf8.get()) == 0) {
            PyErr_Clear();  // a key UTF-8 cannot carry (a lone surrogate) counts as no name
            return noValue(PyExc_ValueError, kFieldEmpty);
        }
        names.emplace_back(PyBytes_AsString(utf8.get()), static_cast<std::size_t>(PyBytes_Size(utf8.get())));
    }

    // Throws for a name that is no valid identifier ("field name is not a valid VELTRA identifier: '...'");
    // the module function turns that into ValueError.
    StructArray s = factory().createStructArray({1, 1}, names);
    const ConversionState inner = state.forElement();
    for (Py_ssize_t i = 0; i < n; ++i) {
        PyObject* key = PyList_GetItem(keys.get(), i);
        PyObject* value = PyDict_GetItemWithError(obj, key);
        if (!value) {
            // Python code run by an earlier value's conversion removed this key.
            if (!PyErr_Occurred()) PyErr_SetString(PyExc_RuntimeError, kDictChanged.c_str());
            return std::nullopt;
        }
        if (value == obj) return noValue(PyExc_ValueError, kRecursiveDict);
        const PyRef hold = PyRef::borrow(value);
        std::optional<Array> field = convertToArray(value, inner);
        if (!field) return std::nullopt;
        s[0][names[static_cast<std::size_t>(i)]] = *field;
    }
    return s;
}

PyObject* CellToPyList::convert(const Array& a) {
    RecursionGuard guard(kIntoPython);
    if (!guard) return nullptr;
    if (!isRowOrColumn(a)) {
        PyErr_SetString(PyExc_ValueError, kCellShape.c_str());
        return nullptr;
    }
    // The elements where they lie rather than through element references; each is still held while it is
    // converted.
    const Array* cells = foundation::veltradata::detail::cellElements(a);
    const std::uint64_t n = a.getNumberOfElements();
    PyRef list = PyRef::steal(PyList_New(static_cast<Py_ssize_t>(n)));
    if (!list) return nullptr;
    for (std::uint64_t i = 0; i < n; ++i) {
        const Array element = cells[i];
        if (PyErr_Occurred()) return nullptr;
        PyObject* item = element.isEmpty() ? PyList_New(0) : convertToPython(element);
        if (!item) return nullptr;
        if (PyList_SetItem(list.get(), static_cast<Py_ssize_t>(i), item) != 0) return nullptr;
    }
    return list.release();
}

PyObject* StructToPyDict::convert(const Array& a) {
    RecursionGuard guard(kIntoPython);
    if (!guard) return nullptr;
    // The element count is the product of the dimensions: more than one element, or none, is not a scalar.
    if (!elementMode_ && a.getNumberOfElements() != 1) {
        PyErr_SetString(PyExc_ValueError, kStructNotScalar.c_str());
        return nullptr;
    }
    const StructArray s(a);
    const std::uint64_t index = elementMode_ ? index_ : 0;
    PyRef dict = PyRef::steal(PyDict_New());
    if (!dict) return nullptr;
    for (const auto& field : s.getFieldNames()) {
        const std::string& name = field.str();
        const PyRef key = PyRef::steal(PyUnicode_FromString(name.c_str()));
        if (!key) return nullptr;
        const Array value = s[index][name];
        const PyRef item = PyRef::steal(convertToPython(value));
        if (!item) return nullptr;
        if (PyDict_SetItem(dict.get(), key.get(), item.get()) != 0) return nullptr;
    }
    return dict.release();
}

}  // namespace PythonVeltraDataArray::detail
