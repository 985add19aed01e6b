// PyRef: one owned Python reference, released on every path. steal() takes over a new reference,
// borrow() adds one to a borrowed reference, release() hands ownership on.
#pragma once

#include <Python.h>

#include <utility>

namespace PythonVeltraDataArray::detail {

class PyRef {
public:
    PyRef() noexcept = default;
    static PyRef steal(PyObject* o) noexcept { return PyRef(o); }
    static PyRef borrow(PyObject* o) noexcept {
        Py_XINCREF(o);
        return PyRef(o);
    }
    PyRef(const PyRef&) = delete;
    PyRef& operator=(const PyRef&) = delete;
    PyRef(PyRef&& o) noexcept : obj_(std::exchange(o.obj_, nullptr)) {}
    PyRef& operator=(PyRef&& o) noexcept {
        if (this != &o) {
            Py_XDECREF(obj_);
            obj_ = std::exchange(o.obj_, nullptr);
        }
        return *this;
    }
    ~PyRef() { Py_XDECREF(obj_); }

    PyObject* get() const noexcept { return obj_; }
    PyObject* release() noexcept { return std::exchange(obj_, nullptr); }
    explicit operator bool() const noexcept { return obj_ != nullptr; }
    void reset(PyObject* stolen = nullptr) noexcept {
        Py_XDECREF(obj_);
        obj_ = stolen;
    }

private:
    explicit PyRef(PyObject* o) noexcept : obj_(o) {}
    PyObject* obj_ = nullptr;
};

}  // namespace PythonVeltraDataArray::detail
