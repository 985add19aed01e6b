// Ref: one owned Python reference, released on every path.
//
//   Ref::steal(PyList_New(0))   takes over a new reference (a null one stays null: check it)
//   Ref::borrow(PyTuple_GetItem(t, 0))   adds a reference of its own to a borrowed one
//   ref.release()               hands the reference on (to a function that steals, or to the caller)
//   PyErr_Fetch(t.out(), ...)   lets a C API function write a new reference into it
#pragma once

#include <Python.h>

#include <utility>

namespace PythonVeltraDataArray::pyutil {

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
        reset(std::exchange(o.obj_, nullptr));
        return *this;
    }
    ~Ref() { Py_XDECREF(obj_); }

    PyObject* get() const noexcept { return obj_; }
    explicit operator bool() const noexcept { return obj_ != nullptr; }
    PyObject* release() noexcept { return std::exchange(obj_, nullptr); }
    // Drops the current reference (after taking over `stolen`, so resetting to the same object is safe).
    void reset(PyObject* stolen = nullptr) noexcept {
        PyObject* old = std::exchange(obj_, stolen);
        Py_XDECREF(old);
    }
    // For C API out-parameters that write a new reference: the current one is dropped first.
    PyObject** out() noexcept {
        reset();
        return &obj_;
    }

private:
    explicit Ref(PyObject* o) noexcept : obj_(o) {}
    PyObject* obj_ = nullptr;
};

}  // namespace PythonVeltraDataArray::pyutil
