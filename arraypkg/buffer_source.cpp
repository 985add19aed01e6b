#include "arraypkg/buffer_source.h"

#include <cstring>
#include <limits>
#include <memory>
#include <new>
#include <string>

#include "arraypkg/common.h"
#include "arraypkg/strided_copy.h"
#include "veltradata/array_factory.h"
#include "veltradata/element_block.h"

namespace PythonVeltraDataArray::arraypkg {

bool acquireBuffer(PyObject* obj, pyutil::BufferView& view, BufferFormat& format) {
    if (!view.acquire(obj, PyBUF_RECORDS_RO)) return false;
    const char* fmt = view->format ? view->format : "B";
    std::string why;
    std::string problem;
    if (!parseBufferFormat(view->format, format, why)) {
        problem = "unsupported buffer format '" + std::string(fmt) + "'";
        if (!why.empty()) problem += " (" + why + ")";
    } else if (view->itemsize != static_cast<Py_ssize_t>(format.itemsize)) {
        problem = "buffer item size " + std::to_string(view->itemsize) + " does not match its format '" + fmt + "'";
    } else if (view->suboffsets) {
        problem = "indirect buffers (with suboffsets) are not supported";
    } else if (view->ndim < 0 || (view->ndim > 0 && !view->shape)) {
        problem = "the buffer does not describe its shape";
    } else {
        for (int k = 0; k < view->ndim; ++k)
            if (view->shape[k] < 0) problem = "the buffer has a negative dimension";
    }
    if (!problem.empty()) {
        view.release();
        return pyutil::fail(PyExc_TypeError, problem);
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
    foundation::veltradata::detail::AlignedBuffer out(static_cast<std::size_t>(n) * format.itemsize, false);
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

namespace {

// Column-major byte strides of the array a buffer becomes, and the buffer's own, over the buffer's shape.
struct Layout {
    std::vector<std::int64_t> shape, src, dst;
};

Layout layoutOf(const Py_buffer& view, std::size_t itemsize) {
    const int nd = view.ndim;
    Layout l;
    l.shape.assign(view.shape, view.shape + nd);
    l.src.resize(static_cast<std::size_t>(nd));
    l.dst.resize(static_cast<std::size_t>(nd));
    if (view.strides) {
        for (int k = 0; k < nd; ++k) l.src[k] = view.strides[k];
    } else {
        // Without strides an exporter promises C order.
        std::int64_t s = view.itemsize;
        for (int k = nd - 1; k >= 0; --k) {
            l.src[k] = s;
            s *= l.shape[k];
        }
    }
    columnMajorStrides(l.shape.data(), nd, itemsize, l.dst.data());
    return l;
}

// A buffer's elements, borrowed by an array's storage for the length of one call.
class BorrowedElements final : public foundation::veltradata::detail::ExternalElements {
public:
    BorrowedElements(pyutil::BufferView&& view, std::size_t itemsize)
        : view_(std::move(view)), layout_(layoutOf(*view_, itemsize)), itemsize_(itemsize),
          columnMajor_(PyBuffer_IsContiguous(&*view_, 'F') ? static_cast<const std::uint8_t*>(view_->buf) : nullptr) {}
    ~BorrowedElements() override {
        // The library may drop its last hold anywhere; giving a buffer back needs the interpreter.
        const PyGILState_STATE gil = PyGILState_Ensure();
        view_.release();
        PyGILState_Release(gil);
    }
    const std::uint8_t* columnMajor() const noexcept override { return columnMajor_; }
    void copyTo(std::uint8_t* out) const override {
        if (columnMajor_) {
            std::memcpy(out, columnMajor_, bytes());
            return;
        }
        stridedCopy(out, layout_.dst.data(), static_cast<const std::uint8_t*>(view_->buf), layout_.src.data(),
                    layout_.shape.data(), view_->ndim, itemsize_, itemsize_, false);
    }

private:
    std::size_t bytes() const {
        std::size_t n = itemsize_;
        for (std::int64_t d : layout_.shape) n *= static_cast<std::size_t>(d);
        return n;
    }
    pyutil::BufferView view_;
    Layout layout_;
    std::size_t itemsize_;
    const std::uint8_t* columnMajor_;
};

}  // namespace

Array borrowBuffer(pyutil::BufferView& view, const BufferFormat& format) {
    Dims dims = arrayDimsOf(bufferShape(*view));
    const std::uint64_t n = foundation::veltradata::numberOfElements(dims);
    if (n > std::numeric_limits<std::size_t>::max() / format.itemsize)
        throw foundation::veltradata::DimensionsOverflowException("The array dimensions are too large.");
    const std::size_t bytes = static_cast<std::size_t>(n) * format.itemsize;
    auto source = std::make_unique<const BorrowedElements>(std::move(view), format.itemsize);
    foundation::veltradata::ClientArrayFactory f;
    return f.adoptBuffer(format.type, std::move(dims),
                         foundation::veltradata::detail::AlignedBuffer::borrow(bytes, std::move(source)));
}

// ---- The buffer handle type ----

namespace {

// Built by PyType_GenericAlloc, so the C++ member is constructed and destroyed by hand.
struct BufferHandle {
    PyObject_HEAD
    pyutil::BufferView view;
    BufferFormat format;
};

PyObject* g_handleType = nullptr;

void handleDealloc(PyObject* self) {
    reinterpret_cast<BufferHandle*>(self)->view.~BufferView();
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
    return PyModule_AddObjectRef(module, "_BufferHandle", g_handleType) == 0;
}

PyObject* newBufferHandle(PyObject* obj, ArrayType& kind) {
    if (!g_handleType) return pyutil::fail(PyExc_SystemError, "veltramultidimarrayforpython is not initialised");
    Ref handle = Ref::steal(PyType_GenericAlloc(reinterpret_cast<PyTypeObject*>(g_handleType), 0));
    if (!handle) return nullptr;
    auto* h = reinterpret_cast<BufferHandle*>(handle.get());
    new (&h->view) pyutil::BufferView();
    if (!acquireBuffer(obj, h->view, h->format)) return nullptr;
    kind = h->format.type;
    return handle.release();
}

bool isBufferHandle(PyObject* o) {
    return g_handleType && Py_TYPE(o) == reinterpret_cast<PyTypeObject*>(g_handleType);
}

const Py_buffer* handleBuffer(PyObject* handle, BufferFormat& format) {
    auto* h = reinterpret_cast<BufferHandle*>(handle);
    if (!h->view.held()) return nullptr;
    format = h->format;
    return &*h->view;
}

pyutil::BufferView* handleView(PyObject* handle, BufferFormat& format) {
    auto* h = reinterpret_cast<BufferHandle*>(handle);
    if (!h->view.held()) return nullptr;
    format = h->format;
    return &h->view;
}

void releaseHandleBuffer(PyObject* handle) { reinterpret_cast<BufferHandle*>(handle)->view.release(); }

}  // namespace PythonVeltraDataArray::arraypkg
