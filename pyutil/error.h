// Reporting failure. A failing function sets exactly one Python exception and returns "nothing": a null
// object, an empty optional, false. Two spellings, one meaning:
//
//   return fail(PyExc_TypeError, text);   where the caller takes a return value (converters, module code);
//   return failed();                      when a C API call has already set the error;
//   raise(PyExc_TypeError, text);         from deep inside C++ code, which throws PyErrorSet; the boundary
//                                         that catches it (a converter's base, a slot wrapper) returns
//                                         failure with the error as it was set.
#pragma once

#include <Python.h>

#include <optional>
#include <string>

#include "pyutil/ref.h"

namespace PythonVeltraDataArray::pyutil {

// What fail() and failed() return: converts to every failure result.
struct Failure {
    operator PyObject*() const noexcept { return nullptr; }  // NOLINT: that is the point
    template <typename T>
    operator std::optional<T>() const noexcept {  // NOLINT
        return std::nullopt;
    }
    operator bool() const noexcept { return false; }  // NOLINT
    operator Ref() const noexcept { return Ref(); }    // NOLINT
};

// Errors a conversion may absorb or restate are ordinary ones (`Exception` and below, MemoryError aside).
// KeyboardInterrupt, SystemExit, MemoryError and every other BaseException are the user's or the machine's
// verdict on the whole call: they pass through as raised, never cleared, wrapped or replaced.
inline bool isOrdinaryError(PyObject* type) noexcept {
    return type && PyErr_GivenExceptionMatches(type, PyExc_Exception) &&
           !PyErr_GivenExceptionMatches(type, PyExc_MemoryError);
}
inline bool pendingIsOrdinary() noexcept { return isOrdinaryError(PyErr_Occurred()); }
// Such an error is pending: nothing may clear or overwrite it.
inline bool stopPending() noexcept {
    PyObject* pending = PyErr_Occurred();
    return pending && !isOrdinaryError(pending);
}

// fail() never overwrites a pending error that is not ordinary (KeyboardInterrupt, MemoryError ...).
inline Failure fail(PyObject* type, const char* text) noexcept {
    if (stopPending()) return {};
    PyErr_SetString(type, text);
    return {};
}
// The whole text, also past a NUL that a name or value in it may hold.
inline Failure fail(PyObject* type, const std::string& text) noexcept {
    if (stopPending()) return {};
    const Ref message = Ref::steal(PyUnicode_DecodeUTF8(text.data(), static_cast<Py_ssize_t>(text.size()), "replace"));
    if (message) PyErr_SetObject(type, message.get());  // otherwise the MemoryError stands
    return {};
}
inline Failure failed() noexcept { return {}; }

// Thrown after a Python error has been set.
struct PyErrorSet {};

[[noreturn]] inline void raise(PyObject* type, const std::string& text) {
    fail(type, text);
    throw PyErrorSet{};
}

// Takes over a new reference; a null one means the callee set an error, and throws PyErrorSet.
inline Ref check(PyObject* o) {
    if (!o) throw PyErrorSet{};
    return Ref::steal(o);
}

// Clears the pending error when it is ordinary (or none is pending) and says so; leaves any other pending
// error in place and returns false, so that the caller passes it up:  if (!clearOrdinary()) return failed();
inline bool clearOrdinary() noexcept {
    if (stopPending()) return false;
    PyErr_Clear();
    return true;
}

// hasattr that lets only ordinary errors count as "no": 1 present, 0 absent, -1 with the other error pending.
inline int hasAttribute(PyObject* obj, const char* name) noexcept {
    PyObject* value = PyObject_GetAttrString(obj, name);
    if (value) {
        Py_DECREF(value);
        return 1;
    }
    return clearOrdinary() ? 0 : -1;
}

// Keeps the pending error (if any) aside while other Python code runs, and puts it back at the end of the
// scope; an ordinary error raised in between is dropped, any other one wins over what was kept aside.
class ErrorAside {
public:
    ErrorAside() noexcept { PyErr_Fetch(type_.out(), value_.out(), traceback_.out()); }
    ~ErrorAside() {
        if (stopPending() && isOrdinaryOrNone(type_.get())) return;
        PyErr_Clear();
        PyErr_Restore(type_.release(), value_.release(), traceback_.release());
    }
    ErrorAside(const ErrorAside&) = delete;
    ErrorAside& operator=(const ErrorAside&) = delete;

private:
    static bool isOrdinaryOrNone(PyObject* type) noexcept { return !type || isOrdinaryError(type); }
    Ref type_, value_, traceback_;
};

// repr(obj) for a message, cut after `limit` characters ("..." marks the cut): a value echoed back must fit on a
// line and show what a NUL or a control character really is. "<unprintable>" when repr fails; the error
// indicator is left as it was.
inline std::string shortRepr(PyObject* obj, Py_ssize_t limit = 100) {
    ErrorAside aside;
    Ref repr = Ref::steal(PyObject_Repr(obj));
    const Py_ssize_t length = repr ? PyUnicode_GetLength(repr.get()) : -1;
    if (length > limit) repr = Ref::steal(PyUnicode_Substring(repr.get(), 0, limit));
    Py_ssize_t size = 0;
    const char* text = repr ? PyUnicode_AsUTF8AndSize(repr.get(), &size) : nullptr;
    if (!text) return "<unprintable>";
    std::string out(text, static_cast<std::size_t>(size));
    return length > limit ? out + "..." : out;
}

// Takes the pending exception out of the indicator as an exception object carrying its traceback (null when
// none is pending).
inline Ref fetchNormalized() noexcept {
    PyObject *type = nullptr, *value = nullptr, *traceback = nullptr;
    PyErr_Fetch(&type, &value, &traceback);
    if (!type) return Ref();
    PyErr_NormalizeException(&type, &value, &traceback);
    Ref t = Ref::steal(type), v = Ref::steal(value), tb = Ref::steal(traceback);
    if (v && tb) PyException_SetTraceback(v.get(), tb.get());
    return v;
}

// Replaces the pending error with type(text), keeping the replaced one as its __cause__ so that the lower
// reason stays visible in the traceback. With `appendCauseText`, str(cause) is added to the text. An error
// that is not ordinary is left as it is.
inline void replaceError(PyObject* type, std::string text, bool appendCauseText = false) {
    if (stopPending()) return;
    Ref cause = fetchNormalized();
    if (appendCauseText) {
        Ref str = cause ? Ref::steal(PyObject_Str(cause.get())) : Ref();
        const char* c = str ? PyUnicode_AsUTF8AndSize(str.get(), nullptr) : nullptr;
        text += c ? c : "unknown error";
        PyErr_Clear();
    }
    fail(type, text);
    if (!cause) return;
    Ref value = fetchNormalized();
    PyException_SetCause(value.get(), cause.release());  // steals the cause
    PyObject* valueType = reinterpret_cast<PyObject*>(Py_TYPE(value.get()));
    PyErr_Restore(Py_NewRef(valueType), value.release(), nullptr);
}

}  // namespace PythonVeltraDataArray::pyutil
