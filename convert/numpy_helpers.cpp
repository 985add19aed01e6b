#include "convert/numpy_helpers.h"

#include <stdexcept>

#include "convert/py_helpers.h"

namespace PythonVeltraDataArray::detail {

namespace {

std::size_t sizeFromPyLong(PyObject* value) {
    std::size_t n = PyLong_AsSize_t(value);
    if (n == static_cast<std::size_t>(-1) && PyErr_Occurred()) {
        PyErr_Clear();  // reported as an internal error at the module boundary instead
        throw std::runtime_error("PyLong_AsSize_t returned error");
    }
    return n;
}

PyRef orderF() {
    PyRef kwargs = PyRef::steal(PyDict_New());
    if (!kwargs) return kwargs;
    PyRef f = PyRef::steal(PyUnicode_FromString("F"));
    if (!f || PyDict_SetItemString(kwargs.get(), "order", f.get()) < 0) return PyRef();
    return kwargs;
}

}  // namespace

bool flattenColumnMajor(PyObject* array, FlattenedNumpyArray& out) {
    PyRef numpy = importModule("numpy");
    if (!numpy) return false;

    PyRef size = getAttribute(array, "size", PyExc_IndexError);
    if (!size) return false;
    const std::size_t numel = sizeFromPyLong(size.get());

    PyRef shape = getAttribute(array, "shape", PyExc_IndexError);
    if (!shape) return false;
    if (!PySequence_Check(shape.get())) throw std::runtime_error("object is not a sequence");
    const Py_ssize_t ndim = PySequence_Size(shape.get());
    if (ndim < 0) return false;
    std::vector<std::size_t> dims;
    dims.reserve(static_cast<std::size_t>(ndim));
    for (Py_ssize_t i = 0; i < ndim; ++i) {
        PyRef item = PyRef::steal(PySequence_GetItem(shape.get(), i));
        if (!item) return false;
        dims.push_back(sizeFromPyLong(item.get()));
    }

    // numpy.ndarray.flatten(array, order="F"): unbound, so an ndarray subclass cannot redirect it.
    PyRef ndarrayType = getAttribute(numpy.get(), "ndarray");
    if (!ndarrayType) return false;
    PyRef args = PyRef::steal(PyTuple_Pack(1, array));
    PyRef kwargs = orderF();
    if (!args || !kwargs) return false;
    PyRef flat = callMethod(ndarrayType.get(), "flatten", args.get(), kwargs.get());
    if (!flat) return false;

    out.numberOfElements = numel;
    out.dims = std::move(dims);
    out.flat = std::move(flat);
    return true;
}

PyRef reshapeColumnMajor(PyObject* callable, PyObject* args, PyObject* kwargs,
                         const std::vector<std::uint64_t>& dims) {
    if (!callable || !args) return PyRef();
    PyRef made = PyRef::steal(PyObject_Call(callable, args, kwargs));
    if (!made) return made;

    PyRef shape = PyRef::steal(PyTuple_New(static_cast<Py_ssize_t>(dims.size())));
    if (!shape) return PyRef();
    for (std::size_t i = 0; i < dims.size(); ++i) {
        PyObject* d = PyLong_FromUnsignedLongLong(dims[i]);
        if (!d) return PyRef();
        PyTuple_SetItem(shape.get(), static_cast<Py_ssize_t>(i), d);  // steals d
    }
    PyRef reshapeArgs = PyRef::steal(PyTuple_Pack(1, shape.get()));
    PyRef kw = orderF();
    if (!reshapeArgs || !kw) return PyRef();
    return callMethod(made.get(), "reshape", reshapeArgs.get(), kw.get());
}

}  // namespace PythonVeltraDataArray::detail
