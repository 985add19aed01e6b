// The one translation of C++ exceptions into Python ones. Every boundary where C++ code returns to Python
// (converter bases, the module functions and PyInit, the typed array package's slots and capsule entries,
// veltra.object's slots) calls it from its catch block, so an exception reads the same whichever way it came:
//
//   PyErrorSet (raise/check)        the Python error already set stands
//   std::bad_alloc                  MemoryError
//   the library's index error       IndexError, its text
//   any other std::exception        ValueError, its text (the library's texts are the messages users see)
//   anything else                   ValueError "Unknown exception"
//
// `prefix` goes before the texts (start-up reports "Unable to initialize py_pb. Details: ...").
#pragma once

#include <Python.h>

#include <new>
#include <stdexcept>
#include <string>

#include "pyutil/error.h"
#include "veltradata/errors.h"

namespace PythonVeltraDataArray::pyutil {

inline constexpr const char* kUnknownException = "Unknown exception";

// Call only inside a catch block.
inline Failure failFromCurrentException(const char* prefix = "") noexcept {
    try {
        throw;
    } catch (const PyErrorSet&) {
        if (!PyErr_Occurred()) PyErr_SetString(PyExc_SystemError, "error reported without an exception set");
        return {};
    } catch (const std::bad_alloc&) {
        if (!stopPending()) PyErr_NoMemory();
        return {};
    } catch (const foundation::veltradata::IndexOutOfRangeException& e) {
        return fail(PyExc_IndexError, std::string(prefix) + e.what());
    } catch (const std::exception& e) {
        return fail(PyExc_ValueError, std::string(prefix) + e.what());
    } catch (...) {
        return fail(PyExc_ValueError, std::string(prefix) + kUnknownException);
    }
}

}  // namespace PythonVeltraDataArray::pyutil
