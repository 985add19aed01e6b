#include "module/entry_points.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <new>
#include <string>
#include <vector>

#include "convert/arguments.h"
#include "convert/budget.h"
#include "module/keywords.h"
#include "module/result_reader.h"
#include "pyutil/buffer.h"
#include "pyutil/error.h"
#include "pyutil/exceptions.h"
#include "pyutil/messages.h"
#include "pyutil/ref.h"
#include "veltradata/element_block.h"

namespace PythonVeltraDataArray::module {

using foundation::protobuf::common::ParamsTape;
using pyutil::fail;
using pyutil::Ref;

namespace {

const char* const kInvalidModule = "Invalid module";
const char* const kModuleIsNull = "Module is null";
const char* const kArgsIsNull = "args is null";
const char* const kArgsInvalid = "args invalid";
const char* const kOnePositional = "py_to_serialized_str requires exactly one positional argument";
const char* const kReadFailed = "Exception thrown from protobuf2vdata with the following content:";
constexpr std::size_t kHugePageWorthwhile = std::size_t{8} << 20;
// Calls this large make and drop so many arrays that the memory they freed is handed back to the system
// afterwards (releaseFreeMemory): arguments of this many values, results of this many bytes.
constexpr std::uint64_t kManyValues = std::uint64_t{1} << 18;
constexpr std::size_t kLargeResult = std::size_t{8} << 20;

// Without the interpreter lock: no Python object is touched.
void releaseFreeMemory() {
    Py_BEGIN_ALLOW_THREADS
    foundation::veltradata::detail::releaseFreeMemory();
    Py_END_ALLOW_THREADS
}

// One tape per process, reused; a call that finds it taken (a signal handler calling in) makes its own. The
// tape lets go of the call's arrays when the call ends; a huge call's tape is not kept, and the memory it grew
// in is given back.
class TapeLease {
public:
    TapeLease() : tape_(spare_ ? std::move(spare_) : std::make_unique<ParamsTape>()) {}
    ~TapeLease() {
        constexpr std::size_t kKeep = std::size_t{8} << 20;  // bytes
        tape_->clear();
        if (tape_->heldBytes() > kKeep) {
            tape_.reset();
            releaseFreeMemory();
        } else if (!spare_) {
            spare_ = std::move(tape_);
        }
    }
    ParamsTape& operator*() { return *tape_; }

private:
    std::unique_ptr<ParamsTape> tape_;
    static inline std::unique_ptr<ParamsTape> spare_;
};

// Building parameters, start to end: the arguments onto the tape, one walk (convert/arguments.h), then the
// message sized and written once, straight into the bytes object that is returned. Large buffers on the tape
// are borrowed from the arguments, which the call holds until then.
PyObject* buildParams(PyObject* obj, std::int32_t nargout) {
    TapeLease lease;
    ParamsTape& tape = *lease;
    std::uint64_t values = 0;
    Ref bytes;
    {
        detail::CallBudget budget;  // what the conversion may still produce; see convert/budget.h
        std::vector<Ref> held;
        if (!detail::putArguments(obj, tape, budget, held)) return nullptr;
        values = budget.counts().values;
        const std::size_t size = tape.finish(nargout);  // throws past the message limit
        std::uint8_t* out = nullptr;
        bytes = newMessageBytes(size, out);
        if (!bytes) return nullptr;
        tape.writeTo(out);
    }
    if (values >= kManyValues) releaseFreeMemory();
    return bytes.release();
}

}  // namespace

Ref newMessageBytes(std::size_t size, std::uint8_t*& out) {
    Ref bytes = Ref::steal(PyBytes_FromStringAndSize(nullptr, static_cast<Py_ssize_t>(size)));
    if (!bytes) return bytes;
    out = reinterpret_cast<std::uint8_t*>(PyBytes_AsString(bytes.get()));
    if (size >= kHugePageWorthwhile) foundation::veltradata::detail::adviseHugePages(out, size);
    return bytes;
}

PyObject* pyToSerializedStr(PyObject* module, PyObject* args, PyObject* kwargs) noexcept {
    try {
        if (!module) return fail(PyExc_ValueError, kInvalidModule);
        const KeywordOptions options = parseKeywords(kwargs, Direction::ToBytes);
        if (options.failed) return nullptr;
        if (!args || PyTuple_Size(args) != 1) return fail(PyExc_TypeError, kOnePositional);
        PyObject* obj = PyTuple_GetItem(args, 0);
        if (!obj) {
            PyErr_Clear();
            return fail(PyExc_RuntimeError, pyutil::kNullObject);
        }
        return buildParams(obj, options.nargout);
    } catch (...) {
        return pyutil::failFromCurrentException();
    }
}

PyObject* serializedStrToPy(PyObject* module, PyObject* args, PyObject* kwargs) noexcept {
    try {
        if (!module) return fail(PyExc_ValueError, kModuleIsNull);
        if (!args) return fail(PyExc_ValueError, kArgsIsNull);

        // Exactly one C-contiguous bytes-like argument, as the "y*" argument format takes it, without the
        // format parser's overhead on every call.
        if (!PyTuple_Check(args) || PyTuple_Size(args) != 1) return fail(PyExc_ValueError, kArgsInvalid);
        pyutil::BufferView view;
        if (!view.acquire(PyTuple_GetItem(args, 0), PyBUF_SIMPLE)) {
            if (!pyutil::clearOrdinary()) return nullptr;
            return fail(PyExc_ValueError, kArgsInvalid);
        }
        if (!PyBuffer_IsContiguous(&*view, 'C')) return fail(PyExc_ValueError, kArgsInvalid);
        const auto size = static_cast<std::size_t>(view->len);

        const KeywordOptions options = parseKeywords(kwargs, Direction::FromBytes);
        if (options.failed) return nullptr;

        // Values are made while the bytes are read, and making some runs Python code (a signal handler, the
        // pandas a table becomes); bytes cannot change meanwhile, any other buffer is read from a copy.
        const auto* data = static_cast<const std::uint8_t*>(view->buf);
        std::vector<std::uint8_t> copy;
        if (!PyBytes_CheckExact(PyTuple_GetItem(args, 0))) {
            copy.assign(data, data + size);
            data = copy.data();
            view.release();
        }

        // A result that cannot be read is reported on standard error only, and the function returns null
        // with no Python exception set: that is how this function has always behaved, unlike the building
        // direction, and callers rely on it.
        PyObject* value = nullptr;
        try {
            value = readResultToPython(data, size);
        } catch (const std::bad_alloc&) {
            return PyErr_NoMemory();  // out of memory is not a malformed message
        } catch (const std::exception& e) {
            pyutil::clearOrdinary();
            std::fprintf(stderr, "%s\n%s\n", kReadFailed, e.what());
            std::fflush(stderr);
            return nullptr;
        } catch (...) {
            pyutil::clearOrdinary();
            std::fputs("unknown exception\n", stderr);
            std::fflush(stderr);
            return nullptr;
        }
        if (size >= kLargeResult) releaseFreeMemory();
        return value;
    } catch (...) {
        return pyutil::failFromCurrentException();
    }
}

}  // namespace PythonVeltraDataArray::module
