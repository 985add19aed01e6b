#include "module/plain_calls.h"

#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include "convert/budget.h"
#include "convert/datetime.h"
#include "convert/recursion_guard.h"
#include "convert/numeric_kinds.h"
#include "convert/text.h"
#include "envelope/plain_values.h"
#include "envelope/serialization.h"
#include "module/entry_points.h"
#include "pyutil/ref.h"
#include "veltradata/buffer.h"

namespace PythonVeltraDataArray::module {

namespace common = foundation::protobuf::common;
using common::PlainArray;
using common::PlainKind;
using detail::ArrayType;
using detail::CallBudget;
using detail::RecursionGuard;
using pyutil::Ref;

namespace {

enum class Step { Ok, Decline, Fail };

constexpr std::uint64_t kSignalEvery = CallBudget::kSignalEvery;  // as the general path checks
constexpr int kMaxDepth = foundation::veltradata::protobuf::kMaxNestingDepth;
constexpr char kWhere[] = "";

// A recursion guard that declines instead of raising: the general path raises what it must.
struct Level {
    RecursionGuard guard{kWhere};
    Level() {
        if (!guard) PyErr_Clear();
    }
    explicit operator bool() const { return bool(guard); }
};

// One tape per process, reused; a call that finds it taken (a signal handler calling in) makes its own. A
// huge call's tape is not kept, and the memory it grew in is given back.
class TapeLease {
public:
    TapeLease() : tape_(spare_ ? std::move(spare_) : std::make_unique<common::PlainParams>()) { tape_->clear(); }
    ~TapeLease() {
        constexpr std::size_t kKeep = std::size_t{8} << 20;  // bytes
        if (tape_->heldBytes() > kKeep) {
            tape_.reset();
            Py_BEGIN_ALLOW_THREADS
            foundation::veltradata::detail::releaseFreeMemory();
            Py_END_ALLOW_THREADS
        } else if (!spare_) {
            spare_ = std::move(tape_);
        }
    }
    common::PlainParams& operator*() { return *tape_; }

private:
    std::unique_ptr<common::PlainParams> tape_;
    static inline std::unique_ptr<common::PlainParams> spare_;
};

// ---- Python -> parameters ----

class ParamsWalker {
public:
    explicit ParamsWalker(common::PlainParams& out) : out_(out) {}

    // The argument tuple or list: its items are the arguments.
    Step arguments(PyObject* obj) {
        PyTypeObject* t = Py_TYPE(obj);
        if (t != &PyTuple_Type && t != &PyList_Type) return Step::Decline;
        if (const Step s = count(); s != Step::Ok) return s;
        Level level;
        if (!level) return Step::Decline;
        return items(obj, t == &PyList_Type, true);
    }

private:
    // One more value, as the general path counts them: past the limit that path refuses the call; every few
    // thousand values, pending signals run their handlers.
    Step count() {
        if (++values_ > CallBudget::kMaxValues) return Step::Decline;
        if (values_ % kSignalEvery == 0 && PyErr_CheckSignals() != 0) return Step::Fail;
        return Step::Ok;
    }

    // A value already counted: count() runs signal handlers, which may drop what the caller only borrows, so
    // it comes before the value is fetched.
    Step value(PyObject* o) {
        if (out_.depth() > static_cast<std::size_t>(kMaxDepth)) return Step::Decline;
        PyTypeObject* t = Py_TYPE(o);
        if (t == &PyFloat_Type) {
            out_.addDouble(PyFloat_AsDouble(o));
        } else if (t == &PyLong_Type) {
            int overflow = 0;
            const long long v = PyLong_AsLongLongAndOverflow(o, &overflow);
            if (overflow) return Step::Decline;
            out_.addInt64(v);
        } else if (t == &PyBool_Type) {
            out_.addLogical(o == Py_True);
        } else if (t == &PyUnicode_Type) {
            return text(o);
        } else if (t == &PyList_Type || t == &PyTuple_Type) {
            const Ref hold = Ref::borrow(o);  // a signal handler may drop it from its container meanwhile
            Level level;
            if (!level || metAgain(o)) return Step::Decline;
            return items(o, t == &PyList_Type, false);
        } else if (t == &PyDict_Type) {
            const Ref hold = Ref::borrow(o);
            Level level;
            if (!level || metAgain(o)) return Step::Decline;
            return fields(o);
        } else {
            return Step::Decline;
        }
        return Step::Ok;
    }

    // A container met a second time (a shared sub-list, or a cycle) is the general path's: it converts each
    // once however often it occurs, where this walk would go through it every time. Below three references
    // (its parent's slot and our hold) a container cannot occur twice; empty ones cost nothing either way.
    bool metAgain(PyObject* container) {
        if (Py_REFCNT(container) < 3 || PyObject_Length(container) == 0) return false;
        return !seen_.insert(container).second;
    }

    // The items of a list or tuple: a 1-by-N cell, or at the top the arguments themselves.
    Step items(PyObject* seq, bool list, bool top) {
        const Py_ssize_t n = list ? PyList_Size(seq) : PyTuple_Size(seq);
        if (!top) out_.beginCell(static_cast<std::uint64_t>(n));
        for (Py_ssize_t i = 0; i < n; ++i) {
            if (const Step s = count(); s != Step::Ok) return s;
            // Read afresh each time: a signal handler may have shortened the list.
            PyObject* item = list ? PyList_GetItem(seq, i) : PyTuple_GetItem(seq, i);
            if (!item) {
                PyErr_Clear();
                return Step::Decline;
            }
            if (item == seq) return Step::Decline;  // the general path names the cycle
            if (const Step s = value(item); s != Step::Ok) return s;
        }
        if (!top) out_.end();
        return Step::Ok;
    }

    // A dict's keys as they stand now, then each key's value, as the general path reads them.
    Step fields(PyObject* dict) {
        const Ref keys = Ref::steal(PyDict_Keys(dict));
        if (!keys) {
            PyErr_Clear();
            return Step::Decline;
        }
        out_.beginStruct();
        const Py_ssize_t n = PyList_Size(keys.get());
        for (Py_ssize_t i = 0; i < n; ++i) {
            PyObject* key = PyList_GetItem(keys.get(), i);
            if (!PyUnicode_CheckExact(key)) return Step::Decline;
            Py_ssize_t size = 0;
            const char* name = PyUnicode_AsUTF8AndSize(key, &size);
            if (!name) {
                PyErr_Clear();
                return Step::Decline;
            }
            if (!foundation::veltradata::isValidFieldName(std::string(name, static_cast<std::size_t>(size))))
                return Step::Decline;
            if (const Step s = count(); s != Step::Ok) return s;
            PyObject* item = PyDict_GetItemWithError(dict, key);
            if (!item || item == dict) {
                PyErr_Clear();
                return Step::Decline;
            }
            out_.fieldName(name, static_cast<std::size_t>(size));
            if (const Step s = value(item); s != Step::Ok) return s;
        }
        out_.end();
        return Step::Ok;
    }

    // A 1-by-N char array of the text's UTF-16 units: short text through code points on the stack, long text
    // from the codec's bytes, which are kept until the message is written.
    Step text(PyObject* o) {
        constexpr Py_ssize_t kStack = 256;
        const Py_ssize_t n = PyUnicode_GetLength(o);
        if (n < 0) {
            PyErr_Clear();
            return Step::Decline;
        }
        if (n <= kStack) {
            Py_UCS4 cps[kStack];
            char16_t units[2 * kStack];
            if (n && !PyUnicode_AsUCS4(o, cps, kStack, 0)) {
                PyErr_Clear();
                return Step::Decline;
            }
            std::size_t written = 0;
            if (detail::writeUtf16(cps, static_cast<std::size_t>(n), units, written) != static_cast<std::size_t>(n))
                return Step::Decline;  // a lone surrogate: the codec's error comes from the general path
            if (!charge(written)) return Step::Decline;
            std::copy(units, units + written, out_.addChar(written));
            return Step::Ok;
        }
        Ref bytes = Ref::steal(PyUnicode_AsUTF16String(o));
        if (!bytes) {
            PyErr_Clear();
            return Step::Decline;
        }
        const char* data = PyBytes_AsString(bytes.get());
        const Py_ssize_t size = PyBytes_Size(bytes.get());
        const std::size_t units = static_cast<std::size_t>(size - 2) / 2;  // after the byte-order mark
        if (!charge(units)) return Step::Decline;
        out_.addCharAt(reinterpret_cast<const char16_t*>(data + 2), units);
        held_.push_back(std::move(bytes));
        return Step::Ok;
    }

    bool charge(std::size_t units) {
        bytes_ += 2 * units;
        return bytes_ <= CallBudget::kMaxMessageBytes;
    }

    common::PlainParams& out_;
    std::uint64_t values_ = 0;
    std::size_t bytes_ = 0;
    std::vector<Ref> held_;
    std::unordered_set<PyObject*> seen_;
};

// ---- result -> Python ----

template <typename T>
T load(const std::uint8_t* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

PyObject* number(ArrayType t, const std::uint8_t* p) {
    switch (t) {
#define VELTRA_NUMBER_CASE(KIND, T, NAME) \
    case ArrayType::KIND: return detail::NumericKind<ArrayType::KIND>::toPython(load<T>(p));
        VELTRA_NUMERIC_KINDS(VELTRA_NUMBER_CASE)
#undef VELTRA_NUMBER_CASE
        default: return nullptr;
    }
}

class ResultReader {
public:
    // A new reference; null with `step` Decline (no error set) or Fail (an error set).
    PyObject* value(const std::uint8_t* data, std::size_t size, bool inCell, int depth) {
        if (++values_ % kSignalEvery == 0 && PyErr_CheckSignals() != 0) return fail();
        if (depth > kMaxDepth) return decline();
        PlainArray a = common::readPlain(data, size);
        switch (a.kind) {
            case PlainKind::Number: return made(number(a.type, a.data));
            case PlainKind::Logical: return made(PyBool_FromLong(*a.data != 0));
            case PlainKind::Char: {
                PyObject* s = detail::utf16ToPyStr(a.data, static_cast<std::size_t>(a.count));
                if (!s) PyErr_Clear();  // an unpaired surrogate: the general path raises the codec's error
                return s ? s : decline();
            }
            case PlainKind::Empty:
                // An empty element of a cell is an empty list; elsewhere empty text and cells keep their kind.
                if (inCell || (a.type == ArrayType::CELL && a.rowOrColumn)) return made(PyList_New(0));
                if (a.type == ArrayType::CHAR && a.rowOrColumn) return made(PyUnicode_FromStringAndSize("", 0));
                return decline();
            case PlainKind::Cell: return list(a, depth);
            case PlainKind::Struct: return dict(a, depth);
            case PlainKind::DateTexts: return dates(a);
            case PlainKind::NotPlain: break;
        }
        return decline();
    }

    bool failed() const { return failed_; }

private:
    PyObject* made(PyObject* o) {
        if (!o) failed_ = true;
        return o;
    }
    PyObject* fail() {
        failed_ = true;
        return nullptr;
    }
    static PyObject* decline() { return nullptr; }

    PyObject* list(PlainArray& a, int depth) {
        Level level;
        if (!level) return decline();
        Ref out = Ref::steal(PyList_New(static_cast<Py_ssize_t>(a.count)));
        if (!out) return fail();
        for (std::uint64_t i = 0; i < a.count; ++i) {
            const std::uint8_t* data;
            std::size_t size;
            common::nextElement(a, data, size);
            PyObject* item = value(data, size, true, depth + 1);
            if (!item) return nullptr;
            PyList_SetItem(out.get(), static_cast<Py_ssize_t>(i), item);  // steals item
        }
        return out.release();
    }

    PyObject* dict(PlainArray& a, int depth) {
        Level level;
        if (!level) return decline();
        Ref out = Ref::steal(PyDict_New());
        if (!out) return fail();
        for (std::uint64_t i = 0; i < a.count; ++i) {
            const std::uint8_t* data;
            std::size_t size;
            const char* name;
            std::size_t length;
            common::nextElement(a, data, size);
            common::nextFieldName(a, name, length);
            const Ref key = Ref::steal(PyUnicode_FromStringAndSize(name, static_cast<Py_ssize_t>(length)));
            if (!key) return fail();
            const Ref item = Ref::steal(value(data, size, false, depth + 1));
            if (!item) return nullptr;
            if (PyDict_SetItem(out.get(), key.get(), item.get()) != 0) return fail();
        }
        // A name given twice: the general reader refuses the struct.
        if (PyDict_Size(out.get()) != static_cast<Py_ssize_t>(a.count)) return decline();
        return out.release();
    }

    // Each text is copied out (message bytes need not be aligned) and read where the general path reads it.
    PyObject* dates(const PlainArray& a) {
        if (!common::dateTexts(a, texts_)) return decline();
        std::u16string text;
        const foundation::veltradata::Dims dims(a.dims, a.dims + a.ndims);
        PyObject* values = detail::datetimeArrayFromTexts(a.count, dims, [&](std::uint64_t i, std::u16string_view& out) {
            const common::PlainText& t = texts_[static_cast<std::size_t>(i)];
            text.resize(t.units);
            if (t.units) std::memcpy(text.data(), t.data, 2 * t.units);
            out = text;
            return true;
        });
        // A text that is no date: the general path raises it, unless a later output cannot be read at all,
        // which it reports instead. What a signal handler raised stands.
        if (!values && PyErr_ExceptionMatches(PyExc_Exception)) {
            PyErr_Clear();
            return decline();
        }
        return made(values);
    }

    std::uint64_t values_ = 0;
    bool failed_ = false;
    std::vector<common::PlainText> texts_;
};

}  // namespace

Shortcut plainParams(PyObject* obj, std::int32_t nargout) {
    TapeLease lease;
    common::PlainParams& tape = *lease;
    ParamsWalker walker(tape);
    switch (walker.arguments(obj)) {
        case Step::Ok: break;
        case Step::Fail: return {};
        case Step::Decline: return {nullptr, true};
    }
    const std::size_t size = tape.finish(nargout);
    if (size > CallBudget::kMaxMessageBytes) return {nullptr, true};
    std::uint8_t* out = nullptr;
    Ref bytes = newMessageBytes(size, out);
    if (!bytes) return {};
    tape.writeTo(out);
    return {bytes.release(), false};
}

Shortcut plainResult(const std::uint8_t* data, std::size_t size) {
    std::vector<common::PlainOutput> outputs;
    if (!common::plainOutputs(data, size, outputs)) return {nullptr, true};
    Ref list = Ref::steal(PyList_New(static_cast<Py_ssize_t>(outputs.size())));
    if (!list) return {};
    ResultReader reader;
    for (std::size_t i = 0; i < outputs.size(); ++i) {
        PyObject* item = reader.value(outputs[i].data, outputs[i].size, true, 0);
        if (!item) return {nullptr, !reader.failed()};
        PyList_SetItem(list.get(), static_cast<Py_ssize_t>(i), item);  // steals item
    }
    return {list.release(), false};
}

}  // namespace PythonVeltraDataArray::module
