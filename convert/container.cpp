#include "convert/container.h"

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "convert/budget.h"
#include "convert/dispatch.h"
#include "convert/recursion_guard.h"
#include "convert/text.h"

namespace PythonVeltraDataArray::detail {

using foundation::veltradata::StructArray;

namespace {


constexpr char kFieldNotStr[] = "field name of Python dict object passed to VELTRA must be a nonempty string";
constexpr char kFieldEmpty[] = "field name passed to VELTRA is empty";
constexpr char kCellShape[] = "cell arrays returned from VELTRA must be 1-by-N or M-by-1";
constexpr char kStructNotScalar[] = "only a scalar struct can be returned from VELTRA";

// A 1-by-n cell of the conversions of n items; `item(i)` gives item i as a new reference, or null with an error
// set. The recursion guard is the caller's.
template <typename Item>
std::optional<Array> cellOf(ArrayFactory& f, Py_ssize_t n, const ConversionState& state, Item&& item) {
    if (n < 0) return failed();
    const ConversionState inner = state.forElement();
    std::vector<Array> elements;
    // No more than the budget allows: a longer container fails on the way.
    elements.reserve(static_cast<std::size_t>(std::min<std::uint64_t>(n, CallBudget::kMaxValues)));
    for (Py_ssize_t i = 0; i < n; ++i) {
        const Ref value = item(i);
        if (!value) return failed();
        std::optional<Array> element = convertToArray(value.get(), inner);
        if (!element) return failed();
        elements.push_back(std::move(*element));
    }
    Array cell = f.createCellArray({1, static_cast<std::uint64_t>(n)}, std::move(elements));
    return cell;
}

// A 1-by-N cell of what iterating `obj` gives: the way in for objects that only claim a container's name. The
// budget's value count bounds an iterator that never ends.
std::optional<Array> cellOfIterable(ArrayFactory& f, PyObject* obj, const ConversionState& state) {
    const Ref iterator = Ref::steal(PyObject_GetIter(obj));
    if (!iterator) return failProtocol(obj);
    const ConversionState inner = state.forElement();
    std::vector<Array> elements;
    while (const Ref item = Ref::steal(PyIter_Next(iterator.get()))) {
        if (item.get() == obj) return fail(PyExc_ValueError, kRecursiveList);
        std::optional<Array> element = convertToArray(item.get(), inner);
        if (!element) return failed();
        elements.push_back(std::move(*element));
    }
    if (PyErr_Occurred()) return failed();
    const std::uint64_t n = elements.size();
    Array cell = f.createCellArray({1, n}, std::move(elements));
    return cell;
}

// Converts a container once per call: a container met again shares its first conversion (budget.h).
template <typename Convert>
std::optional<Array> convertShared(PyObject* obj, CallBudget* budget, Convert&& convert) {
    RecursionGuard guard(kIntoVeltra);
    if (!guard) return failed();
    if (!budget) return convert();
    std::optional<Array> earlier = budget->reuse(obj);
    if (earlier || PyErr_Occurred()) return earlier;
    const CallBudget::Counts since = budget->counts();
    std::optional<Array> result = convert();
    if (result) budget->remember(obj, *result, since);
    return result;
}

// A dict key as a field name: a non-empty str whose UTF-8 form is a valid identifier.
std::optional<std::string> fieldName(PyObject* key) {
    if (!PyUnicode_Check(key)) return fail(PyExc_ValueError, kFieldNotStr);
    Py_ssize_t size = 0;
    const char* utf8 = PyUnicode_AsUTF8AndSize(key, &size);
    if (!utf8 || size == 0) {
        // A key UTF-8 cannot carry (a lone surrogate) counts as no name.
        if (!pyutil::clearOrdinary()) return failed();
        return fail(PyExc_ValueError, kFieldEmpty);
    }
    std::string name(utf8, static_cast<std::size_t>(size));
    if (!foundation::veltradata::isValidFieldName(name))
        return fail(PyExc_ValueError, "field name is not a valid VELTRA identifier: " + pyutil::shortRepr(key));
    return name;
}

}  // namespace

std::optional<Array> PyListToCell::doConvert(PyObject* obj, const ConversionState& state) {
    return convertShared(obj, state.budget, [&]() -> std::optional<Array> {
        if (!PyList_Check(obj)) return cellOfIterable(factory(), obj, state);
        return cellOf(factory(), PyList_Size(obj), state, [obj](Py_ssize_t i) {
            // An element's conversion can run Python code that shrinks the list: then this raises IndexError.
            PyObject* item = PyList_GetItem(obj, i);
            if (item != obj) return Ref::borrow(item);
            fail(PyExc_ValueError, kRecursiveList);
            return Ref();
        });
    });
}

std::optional<Array> PyTupleToCell::doConvert(PyObject* obj, const ConversionState& state) {
    return convertShared(obj, state.budget, [&]() -> std::optional<Array> {
        if (!PyTuple_Check(obj)) return cellOfIterable(factory(), obj, state);
        return cellOf(factory(), PyTuple_Size(obj), state,
                      [obj](Py_ssize_t i) { return Ref::borrow(PyTuple_GetItem(obj, i)); });
    });
}

std::optional<Array> PySetToCell::doConvert(PyObject* obj, const ConversionState& state) {
    return convertShared(obj, state.budget, [&]() -> std::optional<Array> {
        if (!PyAnySet_Check(obj)) return cellOfIterable(factory(), obj, state);
        const Py_ssize_t n = PySet_Size(obj);
        const Ref copy = Ref::steal(PySet_New(obj));  // popped from in the set's own order
        if (!copy) return failed();
        return cellOf(factory(), n, state, [&copy](Py_ssize_t) { return Ref::steal(PySet_Pop(copy.get())); });
    });
}

// A dict, or any other mapping that claims the name: its keys() and the value of each key.
std::optional<Array> PyDictToStruct::doConvert(PyObject* obj, const ConversionState& state) {
    return convertShared(obj, state.budget, [&]() -> std::optional<Array> {
        const bool dict = PyDict_Check(obj);
        if (!dict && !PyMapping_Check(obj)) return failUnsupportedType(obj);
        const Ref keys = Ref::steal(dict ? PyDict_Keys(obj) : PyMapping_Keys(obj));
        if (!keys) return dict ? failed() : failProtocol(obj);
        const Py_ssize_t n = PyList_Size(keys.get());
        if (n < 0) return failed();

        std::vector<std::string> names;
        names.reserve(static_cast<std::size_t>(n));
        for (Py_ssize_t i = 0; i < n; ++i) {
            std::optional<std::string> name = fieldName(PyList_GetItem(keys.get(), i));
            if (!name) return failed();
            names.push_back(std::move(*name));
        }
        StructArray s = factory().createStructArray({1, 1}, names);  // throws for a repeated name
        const ConversionState inner = state.forElement();
        for (Py_ssize_t i = 0; i < n; ++i) {
            PyObject* key = PyList_GetItem(keys.get(), i);
            const Ref value = dict ? Ref::borrow(PyDict_GetItemWithError(obj, key)) : Ref::steal(PyObject_GetItem(obj, key));
            if (!value) {
                // Python code run by an earlier value's conversion removed this key.
                return PyErr_Occurred() ? failed() : fail(PyExc_RuntimeError, kDictChanged);
            }
            if (value.get() == obj) return fail(PyExc_ValueError, kRecursiveDict);
            std::optional<Array> field = convertToArray(value.get(), inner);
            if (!field) return failed();
            s[0][names[static_cast<std::size_t>(i)]] = *field;
        }
        return s;
    });
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
