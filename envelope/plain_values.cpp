#include "plain_values.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <stdexcept>

#include "engine_names.h"
#include "field_numbers.h"
#include "serialization.h"
#include "veltradata/veltradata.h"
#include "wire_format.h"

namespace foundation::protobuf::common {

namespace vp = foundation::veltradata::protobuf;
namespace wire = vp::wire;
using namespace vp::field;
using wire::Reader;
using wire::Span;
using wire::WireType;

// ---- Reading ----

namespace {

bool validName(const std::uint8_t* s, std::size_t n) {
    return foundation::veltradata::isValidFieldName(std::string(reinterpret_cast<const char*>(s), n));
}

// Consecutive length-delimited occurrences of `field`, as many as there are; false when something else that
// is not the end comes first, or a length runs past the end.
bool countRun(Reader& r, int field, std::uint64_t& n, bool checkNames = false) {
    n = 0;
    while (!r.done()) {
        Reader peek = r;
        int f;
        WireType wt;
        if (!peek.tag(f, wt)) return false;
        if (f != field || wt != wire::kLen) return true;
        Span s;
        if (!peek.len(s)) return false;
        if (checkNames && !validName(s.data, s.size)) return false;
        r = peek;
        ++n;
    }
    return true;
}

// One length-delimited field, `field`; false for anything else.
bool lenField(Reader& r, int field, Span& out) {
    int f;
    WireType wt;
    return r.tag(f, wt) && f == field && wt == wire::kLen && r.len(out);
}

// A 1-by-1 string array body, as every writer lays it out: its text, or none for a missing string.
bool stringScalar(Span body, PlainText& out) {
    Reader r(body);
    Head h;
    if (!readHead(r, h) || h.type != ArrayType::VELTRA_STRING || h.ndims != 2 || h.dims[0] != 1 || h.dims[1] != 1)
        return false;
    std::uint64_t v;
    Span units{nullptr, 0}, lengths;
    Reader peek = r;
    if (lenField(peek, kStringUnits, units)) r = peek;
    if (!lenField(r, kStringLengths, lengths) || !r.done()) return false;
    Reader l(lengths);
    if (!l.varint(v) || !l.done()) return false;
    const std::int64_t n = wire::unzigzag(v);
    if (n == -1 ? units.size != 0 : n < 0 || units.size != 2 * static_cast<std::uint64_t>(n)) return false;
    out = PlainText{units.size ? units.data : nullptr, units.size / 2};
    return true;
}

// The objects of an engine datetime array from `r` on: each exactly one property, DateString, holding a
// 1-by-1 string. Their texts go to `out`.
bool dateStringObjects(Reader& r, std::uint64_t n, std::vector<PlainText>& out) {
    constexpr auto& kDateString = foundation::veltradata::engine::datetime::kDateString;
    for (std::uint64_t i = 0; i < n; ++i) {
        Span object, property, name, value;
        if (!lenField(r, kObjects, object)) return false;
        Reader o(object);
        if (!lenField(o, kObjProps, property) || !o.done()) return false;
        Reader p(property);
        if (!lenField(p, kPropName, name) || name.size != sizeof kDateString - 1 ||
            std::memcmp(name.data, kDateString, name.size) != 0 || !lenField(p, kPropValue, value) || !p.done())
            return false;
        PlainText text;
        if (!stringScalar(value, text)) return false;
        out.push_back(text);
    }
    return r.done();
}

// From the class name of a value-object array on: "datetime", declared property names (valid UTF-8), then
// the objects of dateStringObjects.
bool datetimeArrayRest(Reader& r, std::uint64_t n, std::vector<PlainText>& out) {
    constexpr auto& kDatetime = foundation::veltradata::engine::datetime::kClass;
    Span name;
    if (!lenField(r, kClassName, name) || name.size != sizeof kDatetime - 1 ||
        std::memcmp(name.data, kDatetime, name.size) != 0)
        return false;
    for (int field : {kFirstProps, kSecondProps}) {
        for (Reader peek = r; lenField(peek, field, name); r = peek)
            if (!wire::validUtf8(name.data, name.size)) return false;
    }
    return dateStringObjects(r, n, out);
}

}  // namespace

PlainArray readPlain(const std::uint8_t* data, std::size_t size) {
    PlainArray out;
    out.end_ = data + size;
    Reader r(data, size);
    Head h;
    if (!readHead(r, h)) return out;
    const ArrayType t = h.type;
    const bool raw = foundation::veltradata::isRawBufferType(t);
    if (!raw && t != ArrayType::VALUE_OBJECT && t != ArrayType::CELL && t != ArrayType::STRUCT) return out;
    const std::uint64_t* dims = h.dims;
    const std::size_t nd = h.ndims;
    const bool empty = std::find(dims, dims + nd, 0) != dims + nd;
    if (t == ArrayType::VALUE_OBJECT) {
        // Any shape of two or more elements; dateTexts checks that each has its object.
        std::uint64_t n = 1;
        for (std::size_t k = 0; k < nd; ++k) {
            if (dims[k] == 0 || n > size / dims[k]) return out;  // no more elements than bytes
            n *= dims[k];
        }
        if (n < 2) return out;
        out.kind = PlainKind::DateTexts;
        out.type = t;
        out.count = n;
        out.element_ = data + (size - r.remaining());
        std::copy(dims, dims + nd, out.dims);
        out.ndims = nd;
        return out;
    }
    const bool rowOrColumn = nd == 2 && !(dims[0] >= 2 && dims[1] > 1);

    if (empty) {
        if (!r.done()) return out;  // no payload, no elements, no field names
        out.kind = PlainKind::Empty;
        out.type = t;
        out.rowOrColumn = rowOrColumn;
        return out;
    }
    if (!rowOrColumn) return out;
    const std::uint64_t n = dims[0] * dims[1];  // one of them is 1
    out.type = t;

    if (raw) {
        if (foundation::veltradata::isComplexType(t)) return out;
        const bool text = t == ArrayType::CHAR;
        if (!text && n != 1) return out;
        Span payload;
        if (!lenField(r, kData, payload) || !r.done()) return out;
        if (payload.size / foundation::veltradata::elementSize(t) != n ||
            payload.size % foundation::veltradata::elementSize(t))
            return out;
        out.data = payload.data;
        out.count = n;
        out.kind = text ? PlainKind::Char : t == ArrayType::LOGICAL ? PlainKind::Logical : PlainKind::Number;
        return out;
    }

    // A cell's n elements, or a struct's values and then as many field names; nothing else.
    const std::uint8_t* first = data + (size - r.remaining());
    std::uint64_t values = 0, names = 0;
    if (!countRun(r, kElements, values)) return out;
    const std::uint8_t* firstName = data + (size - r.remaining());
    if (t == ArrayType::STRUCT) {
        if (n != 1 || !countRun(r, kFieldNames, names, true) || names != values) return out;
    } else if (values != n) {
        return out;
    }
    if (!r.done()) return out;
    out.kind = t == ArrayType::CELL ? PlainKind::Cell : PlainKind::Struct;
    out.count = values;
    out.element_ = first;
    out.elementsLeft_ = values;
    out.name_ = firstName;
    out.namesLeft_ = names;
    return out;
}

namespace {
// A field readPlain has checked, from `p` on: its body, and `p` past it.
Span checkedField(const std::uint8_t*& p, const std::uint8_t* end) {
    Reader r(p, static_cast<std::size_t>(end - p));
    int field;
    WireType wt;
    Span s;
    r.tag(field, wt);
    r.len(s);
    p = s.data + s.size;
    return s;
}
}  // namespace

bool PlainArray::nextElement(const std::uint8_t*& data, std::size_t& size) {
    if (!elementsLeft_) return false;
    --elementsLeft_;
    const Span s = checkedField(element_, end_);
    data = s.data;
    size = s.size;
    return true;
}

bool PlainArray::nextFieldName(const char*& name, std::size_t& size) {
    if (!namesLeft_) return false;
    --namesLeft_;
    const Span s = checkedField(name_, end_);
    name = reinterpret_cast<const char*>(s.data);
    size = s.size;
    return true;
}

bool dateTexts(const PlainArray& a, std::vector<PlainText>& out) {
    out.clear();
    out.reserve(static_cast<std::size_t>(a.count));
    Reader r(a.element_, static_cast<std::size_t>(a.end_ - a.element_));
    return datetimeArrayRest(r, a.count, out);
}

}  // namespace foundation::protobuf::common
