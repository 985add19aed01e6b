#include "module/result_reader.h"

#include <cstring>
#include <string>
#include <vector>

#include "convert/arguments.h"
#include "convert/budget.h"
#include "convert/container.h"
#include "convert/datetime.h"
#include "convert/dispatch.h"
#include "convert/recursion_guard.h"
#include "convert/text.h"
#include "envelope/call_messages.h"
#include "envelope/plain_values.h"
#include "envelope/serialization.h"
#include "pyutil/error.h"
#include "pyutil/numbers.h"
#include "pyutil/ref.h"

namespace PythonVeltraDataArray::module {

namespace common = foundation::protobuf::common;
using common::PlainArray;
using common::PlainKind;
using detail::Array;
using detail::ArrayType;
using detail::RecursionGuard;
using pyutil::Ref;

namespace {

constexpr int kMaxDepth = foundation::veltradata::protobuf::kMaxNestingDepth;

template <typename T>
T load(const std::uint8_t* p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

PyObject* number(ArrayType t, const std::uint8_t* p) {
    switch (t) {
#define VELTRA_NUMBER_CASE(KIND, T, NAME) \
    case ArrayType::KIND: return pyutil::numberToPython(load<T>(p));
        VELTRA_NUMERIC_KINDS(VELTRA_NUMBER_CASE)
#undef VELTRA_NUMBER_CASE
        default: return nullptr;
    }
}

class ResultReader {
public:
    // One array, at the dispatch point every array passes: a plain one straight into its Python value, any other
    // decoded and handed to its converter. `inCell`: an element of a cell (or an output), where an empty array of
    // any kind is an empty list. A new reference, or null with a Python exception set; throws the codec's
    // exception for bytes that are no valid array.
    PyObject* value(const std::uint8_t* data, std::size_t size, bool inCell, int depth) {
        if (!detail::pollSignals()) return nullptr;
        if (!plain_ || depth > kMaxDepth) return converted(data, size, inCell, depth);
        PlainArray a = common::readPlain(data, size);
        switch (a.kind) {
            case PlainKind::Number: return number(a.type, a.data);
            case PlainKind::Logical: return PyBool_FromLong(*a.data != 0);
            case PlainKind::Char: return detail::utf16ToPyStr(a.data, static_cast<std::size_t>(a.count));
            case PlainKind::Empty:
                // An empty element of a cell is an empty list; elsewhere empty text and cells keep their kind.
                if (inCell || (a.type == ArrayType::CELL && a.rowOrColumn)) return PyList_New(0);
                if (a.type == ArrayType::CHAR && a.rowOrColumn) return PyUnicode_FromStringAndSize("", 0);
                break;
            case PlainKind::Cell: return list(a, depth);
            case PlainKind::Struct: return dict(a, data, size, depth);
            case PlainKind::DateTexts: return dates(a, data, size, inCell, depth);
            case PlainKind::NotPlain: break;
        }
        return converted(data, size, inCell, depth);
    }

private:
    // Through the array codec and the array's converter.
    PyObject* converted(const std::uint8_t* data, std::size_t size, bool inCell, int depth) {
        const Array a = foundation::veltradata::protobuf::decodeArray(data, size, factory_, depth);
        if (inCell && a.isEmpty()) return PyList_New(0);
        return detail::convertToPython(a);
    }

    PyObject* list(PlainArray& a, int depth) {
        RecursionGuard guard(detail::kIntoPython);
        if (!guard) return nullptr;
        Ref out = Ref::steal(PyList_New(static_cast<Py_ssize_t>(a.count)));
        if (!out) return nullptr;
        const std::uint8_t* data;
        std::size_t size;
        for (Py_ssize_t i = 0; a.nextElement(data, size); ++i) {
            PyObject* item = value(data, size, true, depth + 1);
            if (!item) return nullptr;
            PyList_SetItem(out.get(), i, item);  // steals item
        }
        return out.release();
    }

    PyObject* dict(PlainArray& a, const std::uint8_t* data, std::size_t size, int depth) {
        RecursionGuard guard(detail::kIntoPython);
        if (!guard) return nullptr;
        Ref out = Ref::steal(PyDict_New());
        if (!out) return nullptr;
        const std::uint8_t* element;
        std::size_t elementSize;
        const char* name;
        std::size_t length;
        while (a.nextElement(element, elementSize) && a.nextFieldName(name, length)) {
            const Ref key = Ref::steal(PyUnicode_FromStringAndSize(name, static_cast<Py_ssize_t>(length)));
            if (!key) return nullptr;
            const Ref item = Ref::steal(value(element, elementSize, false, depth + 1));
            if (!item) return nullptr;
            if (PyDict_SetItem(out.get(), key.get(), item.get()) != 0) return nullptr;
        }
        // A name given twice: the codec refuses the struct.
        if (PyDict_Size(out.get()) != static_cast<Py_ssize_t>(a.count)) return converted(data, size, false, depth);
        return out.release();
    }

    // Each text is copied out (message bytes need not be aligned) and read where the datetime converter reads
    // it. Anything the texts do not make (a text that is no date, an array that is not the engine's datetime
    // after all) is the converter's to make or refuse.
    PyObject* dates(const PlainArray& a, const std::uint8_t* data, std::size_t size, bool inCell, int depth) {
        if (!common::dateTexts(a, texts_)) return converted(data, size, inCell, depth);
        std::u16string text;
        const foundation::veltradata::Dims dims(a.dims, a.dims + a.ndims);
        PyObject* values = detail::datetimeArrayFromTexts(a.count, dims, [&](std::uint64_t i, std::u16string_view& out) {
            const common::PlainText& t = texts_[static_cast<std::size_t>(i)];
            text.resize(t.units);
            if (t.units) std::memcpy(text.data(), t.data, 2 * t.units);
            out = text;
            return true;
        });
        if (values || !pyutil::clearOrdinary()) return values;
        return converted(data, size, inCell, depth);
    }

    const bool plain_ = detail::plainCaseOn();
    foundation::veltradata::ClientArrayFactory factory_;
    std::vector<common::PlainText> texts_;
};

}  // namespace

PyObject* readResultToPython(const std::uint8_t* data, std::size_t size) {
    common::ResultFields fields = common::readResultFields(data, size);
    if (fields.hasError) return detail::toPython(fields.error);
    Ref list = Ref::steal(PyList_New(static_cast<Py_ssize_t>(fields.outputs.size())));
    if (!list) return nullptr;
    ResultReader reader;
    for (std::size_t i = 0; i < fields.outputs.size(); ++i) {
        PyObject* item = reader.value(fields.outputs[i].data, fields.outputs[i].size, true, 0);
        if (!item) return nullptr;
        PyList_SetItem(list.get(), static_cast<Py_ssize_t>(i), item);  // steals item
    }
    return list.release();
}

}  // namespace PythonVeltraDataArray::module
