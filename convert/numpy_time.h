// numpy's datetime64 and timedelta64 arrays from C++: reading their int64 values in column-major order, and
// making new ones from int64 values written in place. numpy exports no buffer for these dtypes, so both go
// through an int64 view of the same memory.
#pragma once

#include <Python.h>

#include <cstdint>

#include "convert/time_text.h"
#include "pyutil/buffer.h"
#include "pyutil/ref.h"
#include "veltradata/veltradata.h"

namespace PythonVeltraDataArray::detail {

// The numpy module; ImportError "failed to import module 'numpy'" (with the import's own error as its cause).
pyutil::Ref importNumpy();

// The element count and item size a numpy array (a real one: TypeError naming the type otherwise) reports,
// read before anything is copied out of it: a broadcast view claims far more elements than it holds. False
// with an error set.
bool numpySize(PyObject* array, std::uint64_t& size, std::uint64_t& itemsize);

// The values of a numpy array (a real ndarray) of kind "M" or "m", as numpy stores them.
class TimeArrayValues {
public:
    // False with an error set; TypeError naming the type when `array` is not a numpy array.
    bool open(PyObject* array);

    TimeUnit unit() const { return unit_; }
    std::int64_t count() const { return count_; }
    // The numpy shape as dimensions: () -> 1-by-1, (n,) -> 1-by-n, otherwise the shape.
    const foundation::veltradata::Dims& dims() const { return dims_; }
    std::uint64_t size() const { return size_; }
    // The array's dtype in native byte order.
    PyObject* dtype() const { return dtype_.get(); }

    // Calls f(value) for every element in column-major order; stops, returning false, when f does.
    template <typename F>
    bool forEachColumnMajor(F&& f) const;

private:
    pyutil::Ref ints_, dtype_;
    pyutil::BufferView view_;
    TimeUnit unit_ = TimeUnit::Generic;
    std::int64_t count_ = 1;
    foundation::veltradata::Dims dims_;
    std::uint64_t size_ = 0;
};

// A new numpy array of `n` int64 values written through data(), handed out as `dtype` ("datetime64[ns]",
// ...) in the engine's shape.
class TimeArrayBuilder {
public:
    bool start(std::uint64_t n);  // false with an error set
    std::int64_t* data() const { return data_; }
    // The array as `dtype`: one-dimensional when `dims` is a 1-by-N row, otherwise reshaped to `dims` in
    // column-major order. A new reference, or null with an error set.
    PyObject* finish(const char* dtype, const foundation::veltradata::Dims& dims);

private:
    pyutil::Ref numpy_, ints_;
    std::int64_t* data_ = nullptr;
};

template <typename F>
bool TimeArrayValues::forEachColumnMajor(F&& f) const {
    if (size_ == 0) return true;
    const Py_buffer& b = *view_;
    const auto* base = static_cast<const char*>(b.buf);
    const int nd = b.ndim;
    std::int64_t v;  // copied out: a numpy array need not be aligned
    if (nd == 0) {
        __builtin_memcpy(&v, base, sizeof v);
        return f(v);
    }
    // Column-major: the first axis moves fastest.
    Py_ssize_t index[64] = {0};
    const char* p = base;
    const Py_ssize_t n0 = b.shape[0], s0 = b.strides[0];
    for (;;) {
        const char* q = p;
        for (Py_ssize_t i = 0; i < n0; ++i, q += s0) {
            __builtin_memcpy(&v, q, sizeof v);
            if (!f(v)) return false;
        }
        int k = 1;
        for (; k < nd; ++k) {
            p += b.strides[k];
            if (++index[k] < b.shape[k]) break;
            p -= b.strides[k] * b.shape[k];
            index[k] = 0;
        }
        if (k == nd) return true;
    }
}

}  // namespace PythonVeltraDataArray::detail
