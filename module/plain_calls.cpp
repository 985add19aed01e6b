#include "module/plain_calls.h"

#include <cstring>
#include <memory>
#include <string>
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

// ---- result -> Python ----

template <typename T>
T load(const std::uint8_t* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

PyObject* number(ArrayType t, const std::uint8_t* p) {
    switch (t) {
#define VELTRA_NUMBER_CASE(KIND, T, NAME, TO_PYTHON) \
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
