// Small shared pieces of the typed array package: an owned Python reference, the exception that carries an
// already-set Python error through C++ frames, and the translation of C++ exceptions at the Python boundary.
#pragma once

#include <Python.h>

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace veltra::arraypkg {

// One owned Python reference, released on every path.
class Ref {
public:
    Ref() noexcept = default;
    static Ref steal(PyObject* o) noexcept { return Ref(o); }
    static Ref borrow(PyObject* o) noexcept {
        Py_XINCREF(o);
        return Ref(o);
    }
    Ref(const Ref&) = delete;
    Ref& operator=(const Ref&) = delete;
    Ref(Ref&& o) noexcept : obj_(std::exchange(o.obj_, nullptr)) {}
    Ref& operator=(Ref&& o) noexcept {
        if (this != &o) {
            Py_XDECREF(obj_);
            obj_ = std::exchange(o.obj_, nullptr);
        }
        return *this;
    }
    ~Ref() { Py_XDECREF(obj_); }

    PyObject* get() const noexcept { return obj_; }
    PyObject* release() noexcept { return std::exchange(obj_, nullptr); }
    explicit operator bool() const noexcept { return obj_ != nullptr; }

private:
    explicit Ref(PyObject* o) noexcept : obj_(o) {}
    PyObject* obj_ = nullptr;
};

// Thrown after a Python error has been set; the boundary returns failure without setting another.
struct PyErrorSet {};

[[noreturn]] inline void raise(PyObject* type, const std::string& message) {
    PyErr_SetString(type, message.c_str());
    throw PyErrorSet{};
}

// A new reference, or PyErrorSet when `o` is null (the callee set the error).
inline Ref check(PyObject* o) {
    if (!o) throw PyErrorSet{};
    return Ref::steal(o);
}

// Sets the Python error for the exception being handled. Call only inside a catch block.
void setErrorFromCurrentException() noexcept;

// "numpy.ndarray", "list": the name of an object's type as users write it.
std::string typeName(PyObject* obj);

// "(0, 2)": an index tuple as Python prints it; "()" for none, "(3,)" for one.
std::string formatIndex(const std::vector<std::uint64_t>& index);
std::string formatDims(const std::vector<std::uint64_t>& dims);

// repr() of a Python object as UTF-8; "<unprintable>" when repr fails (the error is cleared).
std::string reprOf(PyObject* obj);

// Python's repr of a float ("1.5", "nan", "1e+300").
std::string formatDouble(double v);

}  // namespace veltra::arraypkg
