#include "convert/numeric.h"

#include "convert/budget.h"
#include "convert/datetime.h"
#include "convert/dispatch.h"
#include "convert/duration.h"
#include "convert/text_arrays.h"
#include "convert/module_state.h"
#include "convert/py_helpers.h"
#include "pyutil/messages.h"

namespace PythonVeltraDataArray::detail {

namespace {

constexpr char kCapsuleNoContents[] = "capsule unable to retrieve object contents";
constexpr char kKindNotText[] = "unable to retrieve attribute 'Unable to retrieve kind from string";

// Owns a buffer handle from capsule entry 2 and gives it back through entry 3 on every path.
class BufferHandle {
public:
    BufferHandle(const VeltraArrayCapi* capi, PyObject* handle) noexcept : capi_(capi), handle_(handle) {}
    BufferHandle(const BufferHandle&) = delete;
    BufferHandle& operator=(const BufferHandle&) = delete;
    ~BufferHandle() {
        pyutil::ErrorAside aside;  // entry 3 must not see (or clobber) an error we are about to report
        capi_->release_buffer(handle_);
    }
    PyObject* get() const noexcept { return handle_; }

private:
    const VeltraArrayCapi* capi_;
    PyObject* handle_;
};

// The datetime64 ("M") and timedelta64 ("m") kinds go to the time converters, never to the capsule (numpy
// exports no buffer for them).
std::optional<Array> convertNumpyTimeKind(char kind, PyObject* obj, const ConversionState& state) {
    static const std::shared_ptr<ArrayFactory> factory = sharedArrayFactory();
    static PyNumpyDatetime64ArrayToDatetime datetimes(factory);
    static PyNumpyTimedelta64ToDuration durations(factory);
    return kind == 'M' ? datetimes.convert(obj, state) : durations.convert(obj, state);
}

// Capsule entry 1 on (obj, obj, type): the package's own array for a package object, or one column-major copy
// for a buffer handle.
std::optional<Array> fromCapsule(PyObject* obj, ArrayType type) {
    const VeltraArrayCapi* capi = capsule();
    if (!capi) return fail(PyExc_TypeError, pyutil::kCapsuleIsNull);
    void* handle = capi->get_array(obj, obj, static_cast<uint32_t>(type));
    if (!handle) {
        pyutil::replaceError(PyExc_TypeError, kCapsuleNoContents);
        return failed();
    }
    return Array::adoptHandle(handle);
}

// Below this a copy costs less than keeping the buffer borrowed.
constexpr std::uint64_t kBorrowWorthwhile = 16 * 1024;

// Entries 2, 1, 3: acquire the buffer, copy it, release the buffer handle on every path. Within a call that
// holds the source, entry 6 borrows a large buffer instead (copied once, when the message is written).
std::optional<Array> fromBuffer(PyObject* obj, const ConversionState& state) {
    const VeltraArrayCapi* capi = capsule();
    if (!capi) return fail(PyExc_TypeError, pyutil::kCapsuleIsNull);
    uint32_t type = 0;
    PyObject* raw = capi->acquire_buffer(obj, &type);
    if (!raw) return failed();  // entry 2's own error says why
    BufferHandle handle(capi, raw);
    const std::uint64_t bytes = capi->buffer_bytes(raw);
    if (state.budget && !state.budget->chargeBytes(bytes)) return failed();  // before the copy is allocated
    if (state.callHoldsSources && bytes >= kBorrowWorthwhile) {
        if (void* borrowed = capi->borrow_array(raw)) return Array::adoptHandle(borrowed);
        if (PyErr_Occurred()) return failed();
    }
    return fromCapsule(handle.get(), static_cast<ArrayType>(type));
}

// A package object's array, shared rather than copied, still goes into the message whole.
std::optional<Array> charged(std::optional<Array> a, CallBudget* budget) {
    if (!a || !budget) return a;
    const std::uint64_t bytes = a->getNumberOfElements() * foundation::veltradata::elementSize(a->getType());
    if (!budget->chargeBytes(bytes)) return failed();
    return a;
}

}  // namespace

template <ArrayType Kind>
std::optional<Array> VCPyTypedToTyped<Kind>::doConvert(PyObject* obj, const ConversionState& state) {
    Ref isComplex = getAttribute(obj, "_is_complex");
    if (!isComplex) return failed();
    const int truth = PyObject_IsTrue(isComplex.get());
    if (truth < 0) return failed();
    return charged(fromCapsule(obj, truth ? foundation::veltradata::complexTypeOf(Kind) : Kind), state.budget);
}

#define VELTRA_INSTANTIATE(KIND, T, NAME) template class VCPyTypedToTyped<ArrayType::KIND>;
VELTRA_NUMERIC_KINDS(VELTRA_INSTANTIATE)
#undef VELTRA_INSTANTIATE

std::optional<Array> VCPyLogicalToLogical::doConvert(PyObject* obj, const ConversionState& state) {
    return charged(fromCapsule(obj, ArrayType::LOGICAL), state.budget);
}

std::optional<Array> BufferProtocolObjectToBuffer::doConvert(PyObject* obj, const ConversionState& state) {
    if (!PyObject_CheckBuffer(obj)) return failUnsupportedType(obj);  // only claims to be a memoryview
    return fromBuffer(obj, state);
}

std::optional<Array> NumpyNDArrayObjectToBuffer::doConvert(PyObject* obj, const ConversionState& state) {
    Ref dtype = getAttribute(obj, "dtype");
    if (!dtype) return failed();
    Ref kindObj = getAttribute(dtype.get(), "kind");
    if (!kindObj) return failed();

    const char* kindText = nullptr;
    Py_ssize_t kindLen = 0;
    if (PyUnicode_Check(kindObj.get())) kindText = PyUnicode_AsUTF8AndSize(kindObj.get(), &kindLen);
    if (!kindText || kindLen < 1) {
        if (!pyutil::clearOrdinary()) return failed();
        return fail(PyExc_AttributeError, kKindNotText);
    }
    const char kind = kindText[0];
    if (kind == 'M' || kind == 'm') return convertNumpyTimeKind(kind, obj, state);
    if (kind == 'U' || kind == 'S' || kind == 'O') {
        bool notText = false;
        std::optional<Array> text = numpyTextArray(factory(), obj, kind, state, notText);
        if (text || !notText) return text;  // an object array of other things: the buffer path refuses it
    }
    return fromBuffer(obj, state);
}

PyObject* ConvertVDAToVCPyArray::doConvert(const Array& a) {
    const VeltraArrayCapi* capi = capsule();
    if (!capi) return fail(PyExc_ValueError, pyutil::kCapsuleIsNull);
    void* handle = a.shareHandle();  // the package object's own hold; entry 0 adopts it (and drops it on failure)
    if (!handle) return fail(PyExc_ValueError, kCapsuleNoContents);
    return capi->wrap_array(handle);
}

}  // namespace PythonVeltraDataArray::detail
