// Guards each level of container nesting, in both directions. Python's own recursion limit turns a cycle
// through several containers (a list holding a tuple holding the list) into RecursionError; the hard cap
// keeps the C stack safe even when a program raises that limit far beyond what the C stack can take. Nothing
// nested that deep could be sent anyway: messages carry at most a few hundred levels.
#pragma once

#include <Python.h>

namespace PythonVeltraDataArray::detail {

class RecursionGuard {
public:
    static constexpr int kMaxDepth = 1000;

    // `where` completes Python's message: "maximum recursion depth exceeded" + where.
    explicit RecursionGuard(const char* where) noexcept {
        if (depth_ >= kMaxDepth) {
            PyErr_Format(PyExc_RecursionError, "maximum recursion depth exceeded%s", where);
            return;
        }
        if (Py_EnterRecursiveCall(where) != 0) return;
        ++depth_;
        entered_ = true;
    }
    RecursionGuard(const RecursionGuard&) = delete;
    RecursionGuard& operator=(const RecursionGuard&) = delete;
    ~RecursionGuard() {
        if (!entered_) return;
        --depth_;
        Py_LeaveRecursiveCall();
    }
    // False: RecursionError is set and the container must give up.
    explicit operator bool() const noexcept { return entered_; }

private:
    // Per thread: another thread may run Python code, and so convert, while this one waits inside a
    // conversion (an attribute read can switch threads).
    static inline thread_local int depth_ = 0;
    bool entered_ = false;
};

}  // namespace PythonVeltraDataArray::detail
