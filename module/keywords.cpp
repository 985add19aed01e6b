#include "module/keywords.h"

#include <climits>
#include <limits>
#include <optional>
#include <stdexcept>
#include <string>

#include "pyutil/error.h"
#include "pyutil/ref.h"

namespace PythonVeltraDataArray::module {

using pyutil::fail;
using pyutil::Ref;

namespace {

const char* const kKeyNotStr = "Key of keyword argument was not a string as expected";
const char* const kSchemaNotStr = "Value of keyword argument 'schema' was not a string as expected";
const char* const kNargoutNotNumber = "Keyword argument 'nargout' was not a string corresponding to a number as expected";
const char* const kNargoutWrongType = "Value of keyword argument 'nargout' was not a string or int as expected";
const std::string kNargoutPrefix = "Value of keyword argument 'nargout' (";
const std::string kLessThanZero = ") was less than zero";
const std::string kTooLarge = ") was greater than " + std::to_string(std::numeric_limits<std::int32_t>::max());

// ValueError from a format with one %U for a str object.
bool failWithText(const char* format, PyObject* str) {
    Ref message = Ref::steal(PyUnicode_FromFormat(format, str));
    if (message) PyErr_SetObject(PyExc_ValueError, message.get());
    return false;
}

bool isKey(PyObject* key, const char* name) { return PyUnicode_CompareWithASCIIString(key, name) == 0; }

bool parseSchema(PyObject* value, KeywordOptions& out) {
    if (!PyUnicode_Check(value)) return fail(PyExc_ValueError, kSchemaNotStr);
    if (isKey(value, "VELTRA_PARAMS")) {
        out.schema = Schema::Params;
    } else if (isKey(value, "VELTRA_RESULT")) {
        out.schema = Schema::Result;
    } else {
        return failWithText("Invalid value ('%U') for keyword 'schema'", value);
    }
    return true;
}

// A str read the way std::stol reads it; nothing when no number can be read or it is out of long's range.
std::optional<long> stringToLong(PyObject* value) {
    Py_ssize_t size = 0;
    const char* text = PyUnicode_AsUTF8AndSize(value, &size);
    if (!text) {
        pyutil::clearOrdinary();  // text UTF-8 cannot carry holds no number either; out of memory stays
        return std::nullopt;
    }
    try {
        return std::stol(std::string(text, static_cast<std::size_t>(size)));
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

// The decimal text of an int for messages; "" when Python cannot print it (more digits than it allows).
std::string decimalText(PyObject* value) {
    Ref exact = Ref::steal(PyNumber_Long(value));  // an int subclass may print itself otherwise
    Ref text = exact ? Ref::steal(PyObject_Str(exact.get())) : Ref();
    const char* utf8 = text ? PyUnicode_AsUTF8AndSize(text.get(), nullptr) : nullptr;
    if (!utf8) {
        pyutil::clearOrdinary();  // the caller's failure follows; out of memory stays
        return std::string();
    }
    return utf8;
}

bool checkRange(long n, const std::string& decimal, KeywordOptions& out) {
    if (n < 0) return fail(PyExc_ValueError, (kNargoutPrefix + decimal + kLessThanZero).c_str());
    if (n > std::numeric_limits<std::int32_t>::max())
        return fail(PyExc_ValueError, (kNargoutPrefix + decimal + kTooLarge).c_str());
    out.nargout = static_cast<std::int32_t>(n);
    return true;
}

bool parseNargout(PyObject* value, KeywordOptions& out) {
    if (PyUnicode_Check(value)) {
        const std::optional<long> n = stringToLong(value);
        if (!n) return fail(PyExc_ValueError, kNargoutNotNumber);
        return checkRange(*n, std::to_string(*n), out);
    }
    if (PyLong_Check(value)) {
        int overflow = 0;
        const long n = PyLong_AsLongAndOverflow(value, &overflow);
        if (n == -1 && PyErr_Occurred()) return false;
        if (overflow != 0) {
            // Beyond long on either side: still a negative or a too large count, reported with its digits.
            return checkRange(overflow < 0 ? LONG_MIN : LONG_MAX, decimalText(value), out);
        }
        return checkRange(n, std::to_string(n), out);
    }
    return fail(PyExc_ValueError, kNargoutWrongType);
}

}  // namespace

KeywordOptions parseKeywords(PyObject* kwargs, Direction direction) {
    KeywordOptions out;
    out.schema = direction == Direction::ToBytes ? Schema::Params : Schema::Result;
    if (!kwargs) return out;

    Py_ssize_t pos = 0;
    PyObject *key = nullptr, *value = nullptr;
    while (PyDict_Next(kwargs, &pos, &key, &value)) {
        bool ok;
        if (!PyUnicode_Check(key)) {
            ok = fail(PyExc_TypeError, kKeyNotStr);
        } else if (isKey(key, "schema")) {
            ok = parseSchema(value, out);
        } else if (direction == Direction::ToBytes && isKey(key, "nargout")) {
            ok = parseNargout(value, out);
        } else {
            ok = failWithText("Key ('%U') for keyword is invalid", key);
        }
        if (!ok) {
            out.failed = true;
            return out;
        }
    }
    return out;
}

}  // namespace PythonVeltraDataArray::module
