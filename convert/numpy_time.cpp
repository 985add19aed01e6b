#include "convert/numpy_time.h"

#include <string>

#include "convert/converter.h"
#include "convert/py_helpers.h"
#include "pyutil/error.h"

namespace PythonVeltraDataArray::detail {

pyutil::Ref importNumpy() {
    return importModule("numpy");
}

bool numpySize(PyObject* array, std::uint64_t& size, std::uint64_t& itemsize) {
    const pyutil::Ref numpy = importNumpy();
    const pyutil::Ref ndarray = numpy ? pyutil::Ref::steal(PyObject_GetAttrString(numpy.get(), "ndarray")) : pyutil::Ref();
    const int isArray = ndarray ? PyObject_IsInstance(array, ndarray.get()) : -1;
    if (isArray < 0) return false;
    if (!isArray) return failUnsupportedType(array);
    const pyutil::Ref n = pyutil::Ref::steal(PyObject_GetAttrString(array, "size"));
    const pyutil::Ref item = pyutil::Ref::steal(PyObject_GetAttrString(array, "itemsize"));
    if (!n || !item) return false;
    size = PyLong_AsUnsignedLongLong(n.get());
    if (size == static_cast<std::uint64_t>(-1) && PyErr_Occurred()) return false;
    itemsize = PyLong_AsUnsignedLongLong(item.get());
    return !(itemsize == static_cast<std::uint64_t>(-1) && PyErr_Occurred());
}

bool TimeArrayValues::open(PyObject* array) {
    const pyutil::Ref numpy = importNumpy();
    if (!numpy) return false;
    const pyutil::Ref ndarray = pyutil::Ref::steal(PyObject_GetAttrString(numpy.get(), "ndarray"));
    if (!ndarray) return false;
    const int isArray = PyObject_IsInstance(array, ndarray.get());
    if (isArray < 0) return false;
    if (!isArray) return failUnsupportedType(array);

    // The same memory as int64 in the array's byte order, then in native order (a copy only for a byte-swapped
    // array). Not a cast of the time dtype itself: numpy's casts of the generic unit leave the bytes unswapped.
    const pyutil::Ref dtype = pyutil::Ref::steal(PyObject_GetAttrString(array, "dtype"));
    if (!dtype) return false;
    dtype_ = pyutil::Ref::steal(PyObject_CallMethod(dtype.get(), "newbyteorder", "s", "="));
    const pyutil::Ref isNative = pyutil::Ref::steal(PyObject_GetAttrString(dtype.get(), "isnative"));
    const int native = isNative ? PyObject_IsTrue(isNative.get()) : -1;
    if (!dtype_ || native < 0) return false;
    pyutil::Ref storedInts = pyutil::Ref::steal(PyObject_CallMethod(numpy.get(), "dtype", "s", "=i8"));
    if (storedInts && !native)
        storedInts = pyutil::Ref::steal(PyObject_CallMethod(storedInts.get(), "newbyteorder", "s", "S"));
    if (!storedInts) return false;
    const pyutil::Ref stored = pyutil::Ref::steal(PyObject_CallMethod(array, "view", "O", storedInts.get()));
    if (!stored) return false;
    pyutil::Ref kwargs = pyutil::Ref::steal(Py_BuildValue("{s:O}", "copy", Py_False));
    pyutil::Ref args = pyutil::Ref::steal(Py_BuildValue("(s)", "=i8"));
    const pyutil::Ref astype = pyutil::Ref::steal(PyObject_GetAttrString(stored.get(), "astype"));
    if (!kwargs || !args || !astype) return false;
    ints_ = pyutil::Ref::steal(PyObject_Call(astype.get(), args.get(), kwargs.get()));
    if (!ints_ || !view_.acquire(ints_.get(), PyBUF_RECORDS_RO)) return false;
    if (view_->itemsize != 8 || view_->ndim > 64) return fail(PyExc_TypeError, "unexpected layout of a numpy time array");

    // Unit and multiple, as numpy.datetime_data reports them.
    const pyutil::Ref data = pyutil::Ref::steal(PyObject_CallMethod(numpy.get(), "datetime_data", "O", dtype_.get()));
    if (!data) return false;
    const char* unitName = nullptr;
    long long count = 0;
    if (!PyArg_ParseTuple(data.get(), "sL", &unitName, &count)) return false;
    const std::optional<TimeUnit> unit = timeUnitFromName(unitName);
    if (!unit || count < 1) return fail(PyExc_TypeError, std::string("unsupported numpy time unit '") + unitName + "'");
    unit_ = *unit;
    count_ = count;

    dims_.clear();
    size_ = 1;
    for (int k = 0; k < view_->ndim; ++k) {
        dims_.push_back(static_cast<std::uint64_t>(view_->shape[k]));
        size_ *= static_cast<std::uint64_t>(view_->shape[k]);
    }
    if (dims_.empty()) dims_ = {1, 1};
    else if (dims_.size() == 1) dims_.insert(dims_.begin(), 1);
    return true;
}

bool TimeArrayBuilder::start(std::uint64_t n) {
    numpy_ = importNumpy();
    if (!numpy_) return false;
    ints_ = pyutil::Ref::steal(PyObject_CallMethod(numpy_.get(), "empty", "(K)s", static_cast<unsigned long long>(n), "int64"));
    if (!ints_) return false;
    pyutil::BufferView view;
    if (!view.acquire(ints_.get(), PyBUF_WRITABLE | PyBUF_C_CONTIGUOUS)) return false;
    data_ = static_cast<std::int64_t*>(view->buf);  // stays valid: the array owns its memory and is not resized
    return true;
}

PyObject* TimeArrayBuilder::finish(const char* dtype, const foundation::veltradata::Dims& dims) {
    pyutil::Ref typed = pyutil::Ref::steal(PyObject_CallMethod(ints_.get(), "view", "s", dtype));
    if (!typed) return nullptr;
    if (dims.size() == 2 && dims[0] == 1) return typed.release();
    pyutil::Ref shape = pyutil::Ref::steal(PyTuple_New(static_cast<Py_ssize_t>(dims.size())));
    if (!shape) return nullptr;
    for (std::size_t k = 0; k < dims.size(); ++k) {
        PyObject* d = PyLong_FromUnsignedLongLong(dims[k]);
        if (!d) return nullptr;
        PyTuple_SetItem(shape.get(), static_cast<Py_ssize_t>(k), d);
    }
    const pyutil::Ref reshape = pyutil::Ref::steal(PyObject_GetAttrString(typed.get(), "reshape"));
    const pyutil::Ref args = pyutil::Ref::steal(PyTuple_Pack(1, shape.get()));
    const pyutil::Ref kwargs = pyutil::Ref::steal(Py_BuildValue("{s:s}", "order", "F"));
    if (!reshape || !args || !kwargs) return nullptr;
    return PyObject_Call(reshape.get(), args.get(), kwargs.get());
}

}  // namespace PythonVeltraDataArray::detail
