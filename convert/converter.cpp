#include "convert/converter.h"

#include <cxxabi.h>

#include <cstdlib>
#include <exception>
#include <typeinfo>

#include "convert/budget.h"
#include "pyutil/exceptions.h"
#include "pyutil/messages.h"
#include "pyutil/type_name.h"

namespace PythonVeltraDataArray::detail {

namespace {

// "PyFloatToDouble": the converter's class name without its namespaces, for internal-error messages.
std::string className(const std::type_info& type) {
    int status = 0;
    char* demangled = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
    std::string name = status == 0 && demangled ? demangled : type.name();
    std::free(demangled);
    const std::size_t template_ = name.find('<');
    const std::size_t colons = name.rfind("::", template_);
    return colons == std::string::npos ? name : name.substr(colons + 2);
}

// A converter that reported failure without saying why is a bug of ours; say which one it was.
pyutil::Failure failSilent(const std::type_info& converter) {
    return fail(PyExc_RuntimeError, "internal error: the converter " + className(converter) +
                                        " failed without setting a Python exception");
}

// Holds a converter's outcome to the convention. False: report failure (with exactly one error set).
bool settled(bool produced, const std::type_info& converter) {
    if (!produced) {
        if (!PyErr_Occurred()) failSilent(converter);
        return false;
    }
    // A value with an error pending: the error is the outcome (an int beyond 64 bits, a failing truth test).
    return !PyErr_Occurred();
}

}  // namespace

std::optional<Array> ToArrayConverter::convert(PyObject* obj, const ConversionState& state) {
    if (!obj) return fail(PyExc_RuntimeError, pyutil::kNullObject);
    if (state.budget && !state.budget->chargeValue()) return failed();
    std::optional<Array> result;
    try {
        result = doConvert(obj, state);
    } catch (...) {
        pyutil::failFromCurrentException();
        result.reset();
    }
    if (!settled(result.has_value(), typeid(*this))) return failed();
    if (result->getType() == ArrayType::UNKNOWN) return failUnsupportedType(obj);
    return result;
}

PyObject* ToPythonConverter::convert(const Array& a) {
    if (!pollSignals()) return failed();
    Ref result;
    try {
        result = Ref::steal(doConvert(a));
    } catch (...) {
        pyutil::failFromCurrentException();
    }
    if (!settled(bool(result), typeid(*this))) return failed();
    return result.release();
}

std::string unsupportedTypeText(const std::string& name) {
    return "conversion of Python data type '" + name + "' to VELTRA not supported";
}

pyutil::Failure failUnsupportedType(PyObject* obj) {
    return fail(PyExc_TypeError, unsupportedTypeText(pyutil::typeName(obj)));
}

pyutil::Failure failProtocol(PyObject* obj) {
    if (PyErr_ExceptionMatches(PyExc_TypeError) || PyErr_ExceptionMatches(PyExc_AttributeError) ||
        PyErr_ExceptionMatches(PyExc_BufferError)) {
        pyutil::replaceError(PyExc_TypeError, unsupportedTypeText(pyutil::typeName(obj)));
    }
    return failed();
}

}  // namespace PythonVeltraDataArray::detail
