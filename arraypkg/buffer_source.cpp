#include "buffer_source.h"

#include <cstring>
#include <limits>
#include <string>

#include "common.h"
#include "strided_copy.h"
#include "veltradata/array_factory.h"
#include "veltradata/buffer.h"

namespace veltra::arraypkg {

bool acquireBuffer(PyObject* obj, Py_buffer& view, BufferFormat& format) {
    if (PyObject_GetBuffer(obj, &view, PyBUF_RECORDS_RO) != 0) return false;
    std::string why;
    std::string problem;
    if (!parseBufferFormat(view.format, format, why)) {
        problem = "unsupported buffer format '" + std::string(view.format ? view.format : "B") + "'";
        if (!why.empty()) problem += " (" + why + ")";
    } else if (view.itemsize != static_cast<Py_ssize_t>(format.itemsize)) {
        problem = "buffer item size " + std::to_string(view.itemsize) + " does not match its format '" +
                  std::string(view.format ? view.format : "B") + "'";
    } else if (view.suboffsets) {
        problem = "indirect buffers (with suboffsets) are not supported";
    } else if (view.ndim < 0 || (view.ndim > 0 && !view.shape)) {
        problem = "the buffer does not describe its shape";
    } else {
        for (int k = 0; k < view.ndim; ++k)
            if (view.shape[k] < 0) problem = "the buffer has a negative dimension";
    }
    if (!problem.empty()) {
        PyBuffer_Release(&view);
        PyErr_SetString(PyExc_TypeError, problem.c_str());
        return false;
    }
    return true;
}

std::vector<std::uint64_t> bufferShape(const Py_buffer& view) {
    std::vector<std::uint64_t> shape;
    for (int k = 0; k < view.ndim; ++k) shape.push_back(static_cast<std::uint64_t>(view.shape[k]));
    return shape;
}

Dims arrayDimsOf(const std::vector<std::uint64_t>& shape) {
    if (shape.empty()) return {1, 1};
    if (shape.size() == 1) return {1, shape[0]};
    return shape;
}

Array copyBuffer(const Py_buffer& view, const BufferFormat& format) {
    const std::vector<std::uint64_t> shape = bufferShape(view);
    Dims dims = arrayDimsOf(shape);
    const std::uint64_t n = foundation::veltradata::numberOfElements(dims);
    if (n > std::numeric_limits<std::size_t>::max() / format.itemsize)
        throw foundation::veltradata::DimensionsOverflowException("The array dimensions are too large.");
    veltra::data::AlignedBuffer out(static_cast<std::size_t>(n) * format.itemsize, false);
    if (n) {
        const int nd = view.ndim;
        std::vector<std::int64_t> ext(shape.begin(), shape.end());
        std::vector<std::int64_t> src(static_cast<std::size_t>(nd)), dst(static_cast<std::size_t>(nd));
        if (view.strides) {
            for (int k = 0; k < nd; ++k) src[k] = view.strides[k];
        } else {
            // Without strides an exporter promises C order.
            std::int64_t s = view.itemsize;
            for (int k = nd - 1; k >= 0; --k) {
                src[k] = s;
                s *= ext[k];
            }
        }
        columnMajorStrides(ext.data(), nd, format.itemsize, dst.data());
        stridedCopy(out.data(), dst.data(), static_cast<const std::uint8_t*>(view.buf), src.data(), ext.data(), nd,
                    format.itemsize, format.component, format.swap);
    }
    foundation::veltradata::ClientArrayFactory f;
    return f.adoptBuffer(format.type, std::move(dims), std::move(out));
}

// ---- The buffer handle type ----

namespace {

struct BufferHandle {
    PyObject_HEAD
    Py_buffer view;
    int held;
    BufferFormat format;
};

PyObject* g_handleType = nullptr;

void handleDealloc(PyObject* self) {
    auto* h = reinterpret_cast<BufferHandle*>(self);
    if (h->held) {
        h->held = 0;
        PyBuffer_Release(&h->view);
    }
    PyTypeObject* type = Py_TYPE(self);
    auto freeFn = reinterpret_cast<freefunc>(PyType_GetSlot(type, Py_tp_free));
    freeFn(self);
    Py_DECREF(type);
}

PyType_Slot kHandleSlots[] = {
    {Py_tp_dealloc, reinterpret_cast<void*>(handleDealloc)},
    {Py_tp_doc, const_cast<char*>("A held buffer of another object, for the capsule's buffer entries.")},
    {0, nullptr},
};

PyType_Spec kHandleSpec = {
    "veltramultidimarrayforpython._BufferHandle",
    static_cast<int>(sizeof(BufferHandle)),
    0,
    Py_TPFLAGS_DEFAULT | Py_TPFLAGS_DISALLOW_INSTANTIATION,
    kHandleSlots,
};

}  // namespace

bool createBufferHandleType(PyObject* module) {
    if (!g_handleType) {
        g_handleType = PyType_FromSpec(&kHandleSpec);
        if (!g_handleType) return false;
    }
    Py_INCREF(g_handleType);
    if (PyModule_AddObject(module, "_BufferHandle", g_handleType) != 0) {
        Py_DECREF(g_handleType);
        return false;
    }
    return true;
}

PyObject* newBufferHandle(PyObject* obj, ArrayType& kind) {
    if (!g_handleType) {
        PyErr_SetString(PyExc_SystemError, "veltramultidimarrayforpython is not initialised");
        return nullptr;
    }
    auto* h = reinterpret_cast<BufferHandle*>(PyType_GenericAlloc(reinterpret_cast<PyTypeObject*>(g_handleType), 0));
    if (!h) return nullptr;
    h->held = 0;
    if (!acquireBuffer(obj, h->view, h->format)) {
        Py_DECREF(h);
        return nullptr;
    }
    h->held = 1;
    kind = h->format.type;
    return reinterpret_cast<PyObject*>(h);
}

bool isBufferHandle(PyObject* o) {
    return g_handleType && Py_TYPE(o) == reinterpret_cast<PyTypeObject*>(g_handleType);
}

const Py_buffer* handleBuffer(PyObject* handle, BufferFormat& format) {
    auto* h = reinterpret_cast<BufferHandle*>(handle);
    if (!h->held) return nullptr;
    format = h->format;
    return &h->view;
}

void releaseHandleBuffer(PyObject* handle) {
    auto* h = reinterpret_cast<BufferHandle*>(handle);
    if (h->held) {
        h->held = 0;
        PyBuffer_Release(&h->view);
    }
}

}  // namespace veltra::arraypkg
