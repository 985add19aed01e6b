#include "arraypkg/common.h"

#include <exception>
#include <new>
#include <stdexcept>

#include "arraypkg/element_cast.h"
#include "pyutil/exceptions.h"

namespace PythonVeltraDataArray::arraypkg {

void setErrorFromCurrentException() noexcept {
    try {
        throw;
    } catch (const ElementError& e) {
        // Callers that know the shape report these themselves; this is the shapeless fallback.
        PyErr_SetString(e.typeError ? PyExc_TypeError : PyExc_ValueError, ("value " + e.value + " " + e.reason).c_str());
    } catch (...) {
        pyutil::failFromCurrentException();
    }
}

std::string formatIndex(const std::vector<std::uint64_t>& index) {
    std::string out = "(";
    for (std::size_t k = 0; k < index.size(); ++k) {
        if (k) out += ", ";
        out += std::to_string(index[k]);
    }
    if (index.size() == 1) out += ",";
    return out + ")";
}

std::string formatDims(const std::vector<std::uint64_t>& dims) { return formatIndex(dims); }

std::string formatDouble(double v) {
    char* s = PyOS_double_to_string(v, 'r', 0, Py_DTSF_ADD_DOT_0, nullptr);
    if (!s) {
        pyutil::clearOrdinary();  // out of memory stays pending
        return std::to_string(v);
    }
    std::string out(s);
    PyMem_Free(s);
    return out;
}

}  // namespace PythonVeltraDataArray::arraypkg
