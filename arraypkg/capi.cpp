#include "arraypkg/capi.h"

#include <cstdint>
#include <string>

#include "arraypkg/buffer_source.h"
#include "arraypkg/typed_array.h"
#include "veltradata/array_factory.h"
#include "veltradata/impl.h"

namespace PythonVeltraDataArray::arraypkg {

namespace {

bool isElementKind(ArrayType t) {
    return t == ArrayType::LOGICAL || foundation::veltradata::isRealNumericType(t) ||
           foundation::veltradata::isComplexType(t);
}

// Entry 0.
PyObject* wrapEntry(void* handle) {
    if (!handle) {
        PyErr_SetString(PyExc_ValueError, "null array implementation handle");
        return nullptr;
    }
    return wrapArray(Array::adoptHandle(handle));  // adopts the caller's hold
}

// Entry 1.
void* getArrayEntry(PyObject* obj, PyObject* /*owner: package objects and handles keep their own holds*/,
                    uint32_t arrayType) {
    if (!obj) raise(PyExc_TypeError, "null object");
    Array a;
    std::vector<std::uint64_t> shape;
    if (isPackageObject(obj)) {
        a = arrayOf(obj);
        shape = bodyOf(obj).shape;
    } else if (isBufferHandle(obj)) {
        BufferFormat format;
        const Py_buffer* view = handleBuffer(obj, format);
        if (!view) raise(PyExc_ValueError, "the buffer handle was already released");
        a = copyBuffer(*view, format);
        shape = bufferShape(*view);
    } else {
        raise(PyExc_TypeError, "an object of type " + typeName(obj) + " is neither a typed array nor a buffer handle");
    }
    const ArrayType want = arrayType == 0 ? a.getType() : static_cast<ArrayType>(arrayType);
    if (arrayType > static_cast<uint32_t>(foundation::veltradata::kMaxArrayType) || !isElementKind(want))
        raise(PyExc_TypeError, "array type " + std::to_string(arrayType) + " is not a numeric or logical type");
    if (a.getType() != want) {
        try {
            a = convertArray(a, want);
        } catch (const ElementError& e) {
            setElementError(e, shape);
            throw PyErrorSet{};
        }
    }
    return a.releaseImpl();
}

// Entry 2.
PyObject* acquireEntry(PyObject* obj, uint32_t* arrayType) {
    if (!obj) {
        PyErr_SetString(PyExc_TypeError, "null object");
        return nullptr;
    }
    ArrayType kind = ArrayType::UNKNOWN;
    PyObject* handle = newBufferHandle(obj, kind);
    if (!handle) {
        // Exporters refuse some formats outright (numpy's datetime64, for one) with their own exception
        // types; every format the caller cannot carry is a TypeError here.
        if (!PyErr_ExceptionMatches(PyExc_TypeError) && !PyErr_ExceptionMatches(PyExc_MemoryError))
            pyutil::replaceError(PyExc_TypeError, "cannot read an object of type " + typeName(obj) + " as a buffer: ",
                                 true);
        return nullptr;
    }
    if (arrayType) *arrayType = static_cast<uint32_t>(kind);
    return handle;
}

// Entry 3.
void releaseEntry(PyObject* handle) {
    if (!handle) return;
    const Ref owned = Ref::steal(handle);  // entry 2's reference ends here
    if (isBufferHandle(handle)) releaseHandleBuffer(handle);
}

// Entry 4.
int isBufferEntry(PyObject* obj) { return obj && PyObject_CheckBuffer(obj) ? 1 : 0; }

// Entry 5.
uint64_t bufferBytesEntry(PyObject* handle) {
    BufferFormat format;
    const Py_buffer* view = handle && isBufferHandle(handle) ? handleBuffer(handle, format) : nullptr;
    if (!view) return 0;
    std::uint64_t bytes = static_cast<std::uint64_t>(view->itemsize);
    for (int k = 0; k < view->ndim; ++k) {
        const std::uint64_t d = static_cast<std::uint64_t>(view->shape[k]);
        if (d == 0) return 0;
        bytes = foundation::veltradata::saturatingProduct(bytes, d);
    }
    return bytes;
}

// Entry 6.
void* borrowArrayEntry(PyObject* handle) {
    if (!handle || !isBufferHandle(handle)) raise(PyExc_TypeError, "not a buffer handle");
    BufferFormat format;
    pyutil::BufferView* view = handleView(handle, format);
    if (!view) raise(PyExc_ValueError, "the buffer handle was already released");
    // Logical bytes other than 0 and 1 and the other byte order are normalised by the copy alone.
    if (format.type == ArrayType::LOGICAL || format.swap) return nullptr;
    return borrowBuffer(*view, format).releaseImpl();
}

const VeltraArrayCapi kTable = {sizeof(VeltraArrayCapi), VELTRA_CAPI_VERSION,
                                guarded<wrapEntry>,       guarded<getArrayEntry>,
                                acquireEntry,             releaseEntry,
                                isBufferEntry,            bufferBytesEntry,
                                guarded<borrowArrayEntry>};

}  // namespace

const VeltraArrayCapi* capiTable() noexcept { return &kTable; }

}  // namespace PythonVeltraDataArray::arraypkg
