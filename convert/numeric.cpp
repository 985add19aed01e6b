#include "convert/numeric.h"

#include <string>

#include "convert/module_state.h"
#include "convert/py_helpers.h"
#include "convert/py_ref.h"
#include "veltradata/impl.h"

namespace PythonVeltraDataArray::detail {

namespace {

const char* const kCapsuleIsNull = "capsule is null";
const char* const kCapsuleNoContents = "capsule unable to retrieve object contents";
const char* const kKindNotText = "Unable to retrieve kind from string";

// Replaces the pending error (if any) with `type(text)`, keeping the replaced one as its __cause__ so the
// capsule's own reason stays visible in the traceback.
void setErrorWithCause(PyObject* type, const char* text) {
    PyObject *ptype = nullptr, *pvalue = nullptr, *ptb = nullptr;
    PyErr_Fetch(&ptype, &pvalue, &ptb);
    PyErr_NormalizeException(&ptype, &pvalue, &ptb);
    PyRef causeType = PyRef::steal(ptype), cause = PyRef::steal(pvalue), causeTb = PyRef::steal(ptb);
    if (cause && causeTb) PyException_SetTraceback(cause.get(), causeTb.get());

    PyErr_SetString(type, text);
    if (!cause) return;
    PyErr_Fetch(&ptype, &pvalue, &ptb);
    PyErr_NormalizeException(&ptype, &pvalue, &ptb);
    if (pvalue) PyException_SetCause(pvalue, cause.release());  // steals the cause
    PyErr_Restore(ptype, pvalue, ptb);
}

// Owns a buffer handle from capsule entry 2 and gives it back through entry 3 on every path.
class BufferHandle {
public:
    BufferHandle(const VeltraArrayCapi* capi, PyObject* handle) noexcept : capi_(capi), handle_(handle) {}
    BufferHandle(const BufferHandle&) = delete;
    BufferHandle& operator=(const BufferHandle&) = delete;
    ~BufferHandle() {
        if (!handle_) return;
        // Entry 3 must not see (or clobber) an error we are about to report.
        PyObject *t = nullptr, *v = nullptr, *tb = nullptr;
        PyErr_Fetch(&t, &v, &tb);
        capi_->release_buffer(handle_);
        PyErr_Restore(t, v, tb);
    }
    PyObject* get() const noexcept { return handle_; }

private:
    const VeltraArrayCapi* capi_;
    PyObject* handle_;
};

// The datetime64 ("M") and timedelta64 ("m") kinds belong to the time converters, which are not part of the
// module yet. This is the one place that refuses them; it becomes a hand-over once those converters exist.
std::optional<Array> convertNumpyTimeKind(char kind, PyObject* /*obj*/, const ConversionState& /*state*/) {
    PyErr_SetString(PyExc_TypeError,
                    kind == 'M' ? "conversion of numpy datetime64 arrays to VELTRA not supported yet"
                                : "conversion of numpy timedelta64 arrays to VELTRA not supported yet");
    return std::nullopt;
}

}  // namespace

std::optional<Array> ConvertVCPyArray::fromCapsule(PyObject* obj, ArrayType type) {
    const VeltraArrayCapi* capi = capsule();
    if (!capi) {
        PyErr_SetString(PyExc_TypeError, kCapsuleIsNull);
        return std::nullopt;
    }
    void* handle = capi->get_array(obj, obj, static_cast<uint32_t>(type));
    if (!handle) {
        setErrorWithCause(PyExc_TypeError, kCapsuleNoContents);
        return std::nullopt;
    }
    return Array(static_cast<veltra::data::ArrayImpl*>(handle));
}

std::optional<Array> ConvertVCPyArray::fromBuffer(PyObject* obj) {
    const VeltraArrayCapi* capi = capsule();
    if (!capi) {
        PyErr_SetString(PyExc_TypeError, kCapsuleIsNull);
        return std::nullopt;
    }
    uint32_t type = 0;
    PyObject* raw = capi->acquire_buffer(obj, &type);
    if (!raw) return std::nullopt;  // entry 2's own error says why
    BufferHandle handle(capi, raw);
    return fromCapsule(handle.get(), static_cast<ArrayType>(type));
}

template <ArrayType Real, ArrayType Complex>
std::optional<Array> VCPyTypedToTyped<Real, Complex>::convert(PyObject* obj, const ConversionState&) {
    PyRef isComplex = getAttribute(obj, "_is_complex");
    if (!isComplex) return std::nullopt;
    int truth = PyObject_IsTrue(isComplex.get());
    if (truth < 0) return std::nullopt;
    return fromCapsule(obj, truth ? Complex : Real);
}

template class VCPyTypedToTyped<ArrayType::DOUBLE, ArrayType::COMPLEX_DOUBLE>;
template class VCPyTypedToTyped<ArrayType::SINGLE, ArrayType::COMPLEX_SINGLE>;
template class VCPyTypedToTyped<ArrayType::INT8, ArrayType::COMPLEX_INT8>;
template class VCPyTypedToTyped<ArrayType::UINT8, ArrayType::COMPLEX_UINT8>;
template class VCPyTypedToTyped<ArrayType::INT16, ArrayType::COMPLEX_INT16>;
template class VCPyTypedToTyped<ArrayType::UINT16, ArrayType::COMPLEX_UINT16>;
template class VCPyTypedToTyped<ArrayType::INT32, ArrayType::COMPLEX_INT32>;
template class VCPyTypedToTyped<ArrayType::UINT32, ArrayType::COMPLEX_UINT32>;
template class VCPyTypedToTyped<ArrayType::INT64, ArrayType::COMPLEX_INT64>;
template class VCPyTypedToTyped<ArrayType::UINT64, ArrayType::COMPLEX_UINT64>;

std::optional<Array> VCPyLogicalToLogical::convert(PyObject* obj, const ConversionState&) {
    return fromCapsule(obj, ArrayType::LOGICAL);
}

std::optional<Array> BufferProtocolObjectToBuffer::convert(PyObject* obj, const ConversionState&) {
    return fromBuffer(obj);
}

std::optional<Array> NumpyNDArrayObjectToBuffer::convert(PyObject* obj, const ConversionState& state) {
    PyRef dtype = getAttribute(obj, "dtype");
    if (!dtype) return std::nullopt;
    PyRef kindObj = getAttribute(dtype.get(), "kind");
    if (!kindObj) return std::nullopt;

    const char* kindText = nullptr;
    Py_ssize_t kindLen = 0;
    if (PyUnicode_Check(kindObj.get())) kindText = PyUnicode_AsUTF8AndSize(kindObj.get(), &kindLen);
    if (!kindText || kindLen < 1) {
        PyErr_Clear();
        PyErr_SetString(PyExc_AttributeError, (std::string("unable to retrieve attribute '") + kKindNotText).c_str());
        return std::nullopt;
    }

    const char kind = kindText[0];
    if (kind == 'M' || kind == 'm') return convertNumpyTimeKind(kind, obj, state);
    return fromBuffer(obj);
}

PyObject* ConvertVDAToVCPyArray::convert(const Array& a) {
    const VeltraArrayCapi* capi = capsule();
    if (!capi) {
        PyErr_SetString(PyExc_ValueError, kCapsuleIsNull);
        return nullptr;
    }
    veltra::data::ArrayImpl* impl = a.getImpl();
    if (!impl) {
        PyErr_SetString(PyExc_ValueError, kCapsuleNoContents);
        return nullptr;
    }
    impl->retain();  // the package object's own hold; entry 0 adopts it (and drops it on failure)
    return capi->wrap_array(impl);
}

}  // namespace PythonVeltraDataArray::detail
