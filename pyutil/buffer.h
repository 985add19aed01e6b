// BufferView: one Py_buffer, released on every path (also when C++ code throws while it is held).
#pragma once

#include <Python.h>

#include "pyutil/error.h"

namespace PythonVeltraDataArray::pyutil {

class BufferView {
public:
    BufferView() noexcept = default;
    BufferView(const BufferView&) = delete;
    BufferView& operator=(const BufferView&) = delete;
    // Takes over o's hold: the Py_buffer protocol lets a view be moved by value (memoryview does so itself).
    BufferView(BufferView&& o) noexcept : view_(o.view_), held_(o.held_) { o.held_ = false; }
    BufferView& operator=(BufferView&&) = delete;
    ~BufferView() { release(); }

    // PyObject_GetBuffer(obj, flags); false with the exporter's error set. Releases a view held before.
    bool acquire(PyObject* obj, int flags) noexcept {
        release();
        if (PyObject_GetBuffer(obj, &view_, flags) != 0) return false;
        held_ = true;
        return true;
    }
    // Gives the buffer back now. An exporter's release hook may run Python code: a pending error is kept
    // aside meanwhile, so it is still the one reported.
    void release() noexcept {
        if (!held_) return;
        held_ = false;
        if (PyErr_Occurred()) {
            ErrorAside aside;
            PyBuffer_Release(&view_);
        } else {
            PyBuffer_Release(&view_);
        }
    }

    bool held() const noexcept { return held_; }
    const Py_buffer& operator*() const noexcept { return view_; }
    const Py_buffer* operator->() const noexcept { return &view_; }

private:
    Py_buffer view_{};
    bool held_ = false;
};

}  // namespace PythonVeltraDataArray::pyutil
