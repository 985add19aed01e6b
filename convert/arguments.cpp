#include "convert/arguments.h"

#include <algorithm>
#include <exception>
#include <optional>
#include <string>
#include <vector>

#include "convert/container.h"
#include "convert/dispatch.h"
#include "convert/recursion_guard.h"
#include "convert/text.h"
#include "pyutil/exceptions.h"

namespace PythonVeltraDataArray::detail {

using foundation::protobuf::common::ParamsTape;

namespace {

bool g_plainCase = true;

class ArgumentWalk {
public:
    ArgumentWalk(ParamsTape& tape, CallBudget& budget, std::vector<Ref>& held)
        : tape_(tape), budget_(budget), held_(held),
          element_(ConversionState::topLevel(&budget, true).forElement()) {}

    bool arguments(PyObject* obj) {
        PyTypeObject* t = Py_TYPE(obj);
        if (t != &PyTuple_Type && t != &PyList_Type) {
            // Anything else converts as a whole, and its elements are the arguments.
            std::optional<Array> args = convertToArray(obj, ConversionState::topLevel(&budget_, true));
            if (!args) return false;
            tape_.addArguments(*args);
            return true;
        }
        if (!budget_.chargeValue()) return false;
        RecursionGuard guard(kIntoVeltra);
        if (!guard) return false;
        return items(obj, t == &PyList_Type, true);
    }

private:
    // One value, at the dispatch point every value passes: an exact built-in plain value straight onto the
    // tape, anything else through its converter.
    bool value(PyObject* o) {
        if (!g_plainCase) return converted(o);
        PyTypeObject* t = Py_TYPE(o);
        if (t == &PyFloat_Type) {
            if (!budget_.chargeValue()) return false;
            tape_.addDouble(PyFloat_AsDouble(o));
            return true;
        }
        if (t == &PyLong_Type) {
            int overflow = 0;
            const long long v = PyLong_AsLongLongAndOverflow(o, &overflow);
            if (overflow) return converted(o);  // its converter knows the wider kinds and the errors
            if (!budget_.chargeValue()) return false;
            tape_.addInt64(v);
            return true;
        }
        if (t == &PyBool_Type) {
            if (!budget_.chargeValue()) return false;
            tape_.addLogical(o == Py_True);
            return true;
        }
        if (t == &PyUnicode_Type) return text(o);
        if (t == &PyList_Type || t == &PyTuple_Type) {
            if (!budget_.firstMeeting(o)) return converted(o);
            if (!budget_.chargeValue()) return false;
            RecursionGuard guard(kIntoVeltra);
            if (!guard) return false;
            return items(o, t == &PyList_Type, false);
        }
        if (t == &PyDict_Type) return fields(o);
        return converted(o);
    }

    // Through the value's converter, as an array entry.
    bool converted(PyObject* o) {
        std::optional<Array> a = convertToArray(o, element_);
        if (!a) return false;
        tape_.addArray(*a);
        return true;
    }

    // The items of a list or tuple: a 1-by-N cell, or at the top the arguments themselves. Each item is held
    // while it is converted: Python code its conversion runs may take it out of the list.
    bool items(PyObject* seq, bool list, bool top) {
        const Py_ssize_t n = list ? PyList_Size(seq) : PyTuple_Size(seq);
        if (n < 0) return false;
        if (!top) tape_.beginCell(static_cast<std::uint64_t>(n));
        for (Py_ssize_t i = 0; i < n; ++i) {
            // Read afresh each time; a list shortened meanwhile raises IndexError, as its converter does.
            const Ref item = Ref::borrow(list ? PyList_GetItem(seq, i) : PyTuple_GetItem(seq, i));
            if (!item) return false;
            if (item.get() == seq) return fail(PyExc_ValueError, kRecursiveList);
            if (!value(item.get())) return false;
        }
        if (!top) tape_.end();
        return true;
    }

    // A dict whose keys (as they stand now) are all valid field names: a 1-by-1 struct of each key's value.
    // Any other dict is its converter's, which refuses it with the error that fits.
    bool fields(PyObject* dict) {
        if (PyDict_Size(dict) && !budget_.firstMeeting(dict)) return converted(dict);
        const Ref keys = Ref::steal(PyDict_Keys(dict));
        if (!keys) return false;
        const Py_ssize_t n = PyList_Size(keys.get());
        for (Py_ssize_t i = 0; i < n; ++i) {
            PyObject* key = PyList_GetItem(keys.get(), i);
            if (!PyUnicode_CheckExact(key)) return converted(dict);
            Py_ssize_t size = 0;
            const char* name = PyUnicode_AsUTF8AndSize(key, &size);
            if (!name) return pyutil::clearOrdinary() ? converted(dict) : false;
            if (!foundation::veltradata::isValidFieldName(std::string(name, static_cast<std::size_t>(size))))
                return converted(dict);
        }
        if (!budget_.chargeValue()) return false;
        RecursionGuard guard(kIntoVeltra);
        if (!guard) return false;
        tape_.beginStruct();
        for (Py_ssize_t i = 0; i < n; ++i) {
            PyObject* key = PyList_GetItem(keys.get(), i);
            Py_ssize_t size = 0;
            const char* name = PyUnicode_AsUTF8AndSize(key, &size);  // the form cached above, held by `keys`
            const Ref item = Ref::borrow(PyDict_GetItemWithError(dict, key));
            if (!item) return PyErr_Occurred() ? false : fail(PyExc_RuntimeError, kDictChanged);
            if (item.get() == dict) return fail(PyExc_ValueError, kRecursiveDict);
            tape_.fieldName(name, static_cast<std::size_t>(size));
            if (!value(item.get())) return false;
        }
        tape_.end();
        return true;
    }

    // A 1-by-N char array of the text's UTF-16 units: short text through code points on the stack, long text
    // from the codec's bytes, which are kept until the message is written. Text UTF-16 cannot carry is its
    // converter's, which raises the codec's error.
    bool text(PyObject* o) {
        constexpr Py_ssize_t kStack = 256;
        const Py_ssize_t n = PyUnicode_GetLength(o);
        if (n < 0) return false;
        if (n <= kStack) {
            Py_UCS4 cps[kStack];
            char16_t units[2 * kStack];
            if (n && !PyUnicode_AsUCS4(o, cps, kStack, 0)) return false;
            std::size_t written = 0;
            if (writeUtf16(cps, static_cast<std::size_t>(n), units, written) != static_cast<std::size_t>(n))
                return converted(o);
            if (!budget_.chargeValue() || !budget_.chargeBytes(2 * written)) return false;
            std::copy(units, units + written, tape_.addChar(written));
            return true;
        }
        std::optional<Utf16Bytes> encoded = encodeUtf16(o);
        if (!encoded) return false;
        if (!budget_.chargeValue() || !budget_.chargeBytes(2 * encoded->units)) return false;
        tape_.addCharAt(reinterpret_cast<const char16_t*>(encoded->data), encoded->units);
        held_.push_back(std::move(encoded->bytes));
        return true;
    }

    ParamsTape& tape_;
    CallBudget& budget_;
    std::vector<Ref>& held_;
    const ConversionState element_;
};

}  // namespace

bool putArguments(PyObject* obj, ParamsTape& tape, CallBudget& budget, std::vector<Ref>& held) {
    try {
        return ArgumentWalk(tape, budget, held).arguments(obj);
    } catch (...) {
        // The tape's refusal of a value nested too deeply to be read back, or out of memory.
        pyutil::failFromCurrentException();
        return false;
    }
}

bool plainCaseOn() { return g_plainCase; }
void setPlainCase(bool on) { g_plainCase = on; }

}  // namespace PythonVeltraDataArray::detail
