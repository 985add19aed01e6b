// The VELTRA_Array codec, written directly on the protobuf wire format. Writing sizes every nested message
// first so that each payload is copied once, straight into its final place; fields go out in field-number
// order with proto3's omissions, so the bytes equal what the generated classes would serialize. Reading
// trusts nothing: every count is checked against what the message carries before anything is allocated.
#include "serialization.h"

#include <algorithm>
#include <climits>
#include <cstring>
#include <limits>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>
#include <vector>

#include <google/protobuf/io/coded_stream.h>

#include "veltradata/impl.h"
#include "field_numbers.h"
#include "wire_format.h"

namespace foundation::veltradata::protobuf {

using namespace foundation::veltradata::detail;  // the storage behind Array
using wire::Reader;
using wire::Span;
using wire::WireType;
using namespace field;

namespace {

// Bytes of a string array's two payloads: the UTF-16 units of present elements, and the zigzag length list
// (-1 marks a missing element).
struct StringPayloadSizes {
    std::size_t units = 0, lengths = 0;
};
StringPayloadSizes stringPayloadSizes(const std::vector<VeltraString>& v) {
    StringPayloadSizes n;
    for (const VeltraString& s : v) {
        n.units += s ? s->size() * 2 : 0;
        n.lengths += wire::varintSize(wire::zigzag(s ? static_cast<std::int64_t>(s->size()) : -1));
    }
    return n;
}

static_assert(kNotUniform < 32, "field presence is tracked in a 32-bit mask");

ArrayType sparseElementType(ArrayType t) {
    return t == ArrayType::SPARSE_30 ? ArrayType::DOUBLE
         : t == ArrayType::SPARSE_31 ? ArrayType::LOGICAL
                                     : ArrayType::COMPLEX_DOUBLE;
}

// ---------------------------------------------------------------------------------------------------------
// Writing

std::size_t stringSize(int field, const std::string& s) {  // proto3: an empty string is not written
    return s.empty() ? 0 : wire::lenFieldSize(field, s.size());
}
std::size_t packedSize(int field, const std::vector<std::uint64_t>& v) {
    if (v.empty()) return 0;
    std::size_t body = 0;
    for (std::uint64_t x : v) body += wire::varintSize(x);
    return wire::lenFieldSize(field, body);
}
std::size_t namesSize(int field, const std::vector<VeltraPropertyIdentifier>& v) {
    std::size_t n = 0;
    for (const auto& p : v) n += wire::lenFieldSize(field, p.getPropertyName().size());
    return n;
}
std::size_t handleBodySize(const HandleObjectRef& h) {
    return stringSize(kHandleClass, h.className) +
           (h.id ? wire::tagSize(kHandleId) + wire::varintSize(h.id) : 0);
}

std::uint8_t* writeString(std::uint8_t* p, int field, const std::string& s) {
    return s.empty() ? p : wire::writeBytes(p, field, s.data(), s.size());
}
std::uint8_t* writePacked(std::uint8_t* p, int field, const std::vector<std::uint64_t>& v) {
    if (v.empty()) return p;
    std::size_t body = 0;
    for (std::uint64_t x : v) body += wire::varintSize(x);
    p = wire::writeLenHeader(p, field, body);
    for (std::uint64_t x : v) p = wire::writeVarint(p, x);
    return p;
}
std::uint8_t* writeNames(std::uint8_t* p, int field, const std::vector<VeltraPropertyIdentifier>& v) {
    for (const auto& x : v) p = wire::writeBytes(p, field, x.getPropertyName().data(), x.getPropertyName().size());
    return p;
}

// An element whose class is the array's travels without a class of its own.
bool ownClass(const ValueObject& o, const ClassInfo& arrayInfo) { return !(o.getClassInfo() == arrayInfo); }

class Measurer {
public:
    explicit Measurer(std::vector<std::size_t>& sizes) : s_(sizes) {}

    std::size_t array(const Array& a, int depth) {
        detail::checkNestingDepth(depth);
        const std::size_t slot = s_.size();
        s_.push_back(0);
        const ArrayImpl* impl = a.getImpl();
        if (!impl) return 0;  // an Array without contents: the empty message
        const ArrayType t = impl->type;
        std::size_t n = wire::tagSize(kType) + wire::varintSize(wire::int32Bits(static_cast<int>(t)));
        n += packedSize(kDims, impl->dims);
        if (isRawBufferType(t)) {
            const std::size_t bytes = impl->get<AlignedBuffer>().size();
            if (bytes) n += wire::lenFieldSize(kData, bytes);
        } else if (isSparseType(t)) {
            const auto& s = impl->get<SparseStorage>();
            if (s.values.size()) n += wire::lenFieldSize(kData, s.values.size());
            n += packedSize(kSparseRows, s.rows) + packedSize(kSparseCols, s.cols);
        } else {
            switch (t) {
                case ArrayType::VELTRA_STRING: {
                    const auto& v = impl->get<std::vector<VeltraString>>();
                    const auto [units, lengths] = stringPayloadSizes(v);
                    if (units) n += wire::lenFieldSize(kStringUnits, units);
                    if (!v.empty()) n += wire::lenFieldSize(kStringLengths, lengths);
                    break;
                }
                case ArrayType::CELL:
                    for (const Array& e : impl->get<std::vector<Array>>())
                        n += wire::lenFieldSize(kElements, array(e, depth + 1));
                    break;
                case ArrayType::STRUCT: {
                    const auto& s = impl->get<StructStorage>();
                    for (const Array& e : s.values) n += wire::lenFieldSize(kElements, array(e, depth + 1));
                    for (const std::string& f : s.fields) n += wire::lenFieldSize(kFieldNames, f.size());
                    break;
                }
                case ArrayType::VALUE_OBJECT: {
                    const auto& s = impl->get<ObjectStorage>();
                    n += stringSize(kClassName, s.classInfo.getClassIdentifier().getClassName());
                    n += namesSize(kFirstProps, s.classInfo.getFirstProperties());
                    n += namesSize(kSecondProps, s.classInfo.getSecondProperties());
                    for (const ValueObject& o : s.objects)
                        n += wire::lenFieldSize(kObjects, object(o, s.classInfo, depth));
                    n += packedSize(kExternalDims, s.externalDims);
                    if (!s.uniform) n += wire::tagSize(kNotUniform) + 1;
                    break;
                }
                case ArrayType::HANDLE_OBJECT_REF:
                    for (const HandleObjectRef& h : impl->get<std::vector<HandleObjectRef>>())
                        n += wire::lenFieldSize(kHandles, handleBodySize(h));
                    break;
                case ArrayType::ENUM: {
                    const auto& s = impl->get<EnumStorage>();
                    n += stringSize(kClassName, s.className);
                    for (const EnumValue& e : s.values) n += wire::lenFieldSize(kEnumNames, e.name.size());
                    break;
                }
                default:
                    throw InvalidArrayTypeException();
            }
        }
        s_[slot] = n;
        return n;
    }

private:
    std::size_t object(const ValueObject& o, const ClassInfo& arrayInfo, int depth) {
        const std::size_t slot = s_.size();
        s_.push_back(0);
        std::size_t n = 0;
        if (ownClass(o, arrayInfo)) {
            const ClassInfo& c = o.getClassInfo();
            n += wire::lenFieldSize(kObjClass, c.getClassIdentifier().getClassName().size());  // explicit presence
            n += namesSize(kObjFirst, c.getFirstProperties()) + namesSize(kObjSecond, c.getSecondProperties());
        }
        for (const Property& p : o) n += wire::lenFieldSize(kObjProps, property(p, depth));
        s_[slot] = n;
        return n;
    }

    std::size_t property(const Property& p, int depth) {
        const std::size_t slot = s_.size();
        s_.push_back(0);
        // The value is always written, so that the generated classes re-serialize the same bytes.
        const std::size_t n = stringSize(kPropName, p.getIdentifier().getPropertyName()) +
                              wire::lenFieldSize(kPropValue, array(p.getValue(), depth + 1));
        s_[slot] = n;
        return n;
    }

    std::vector<std::size_t>& s_;
};

class Writer {
public:
    Writer(const std::vector<std::size_t>& sizes, std::size_t& pos) : s_(sizes), pos_(pos) {}

    std::uint8_t* array(const Array& a, std::uint8_t* p) {
        ++pos_;  // this array's own size, already written by whoever holds it
        const ArrayImpl* impl = a.getImpl();
        if (!impl) return p;
        const ArrayType t = impl->type;
        p = wire::writeTag(p, kType, wire::kVarint);
        p = wire::writeVarint(p, wire::int32Bits(static_cast<int>(t)));
        p = writePacked(p, kDims, impl->dims);
        if (isRawBufferType(t)) {
            // Straight from wherever the elements lie (a borrowed buffer reorders on the way): one copy.
            const AlignedBuffer& b = impl->get<AlignedBuffer>();
            if (b.size()) {
                p = wire::writeLenHeader(p, kData, b.size());
                b.copyTo(p);
                p += b.size();
            }
        } else if (isSparseType(t)) {
            const auto& s = impl->get<SparseStorage>();
            if (s.values.size()) p = wire::writeBytes(p, kData, s.values.data(), s.values.size());
            p = writePacked(p, kSparseRows, s.rows);
            p = writePacked(p, kSparseCols, s.cols);
        } else {
            switch (t) {
                case ArrayType::VELTRA_STRING: {
                    const auto& v = impl->get<std::vector<VeltraString>>();
                    const auto [units, lengths] = stringPayloadSizes(v);
                    if (units) {
                        p = wire::writeLenHeader(p, kStringUnits, units);
                        for (const VeltraString& s : v) {
                            if (s && !s->empty()) {
                                std::memcpy(p, s->data(), s->size() * 2);
                                p += s->size() * 2;
                            }
                        }
                    }
                    if (!v.empty()) {
                        p = wire::writeLenHeader(p, kStringLengths, lengths);
                        for (const VeltraString& s : v)
                            p = wire::writeVarint(p, wire::zigzag(s ? static_cast<std::int64_t>(s->size()) : -1));
                    }
                    break;
                }
                case ArrayType::CELL:
                    for (const Array& e : impl->get<std::vector<Array>>()) p = nested(kElements, e, p);
                    break;
                case ArrayType::STRUCT: {
                    const auto& s = impl->get<StructStorage>();
                    for (const Array& e : s.values) p = nested(kElements, e, p);
                    for (const std::string& f : s.fields) p = wire::writeBytes(p, kFieldNames, f.data(), f.size());
                    break;
                }
                case ArrayType::VALUE_OBJECT: {
                    const auto& s = impl->get<ObjectStorage>();
                    p = writeString(p, kClassName, s.classInfo.getClassIdentifier().getClassName());
                    p = writeNames(p, kFirstProps, s.classInfo.getFirstProperties());
                    p = writeNames(p, kSecondProps, s.classInfo.getSecondProperties());
                    for (const ValueObject& o : s.objects) {
                        p = wire::writeLenHeader(p, kObjects, s_[pos_]);
                        p = object(o, s.classInfo, p);
                    }
                    p = writePacked(p, kExternalDims, s.externalDims);
                    if (!s.uniform) {
                        p = wire::writeTag(p, kNotUniform, wire::kVarint);
                        *p++ = 1;
                    }
                    break;
                }
                case ArrayType::HANDLE_OBJECT_REF:
                    for (const HandleObjectRef& h : impl->get<std::vector<HandleObjectRef>>()) {
                        p = wire::writeLenHeader(p, kHandles, handleBodySize(h));
                        p = writeString(p, kHandleClass, h.className);
                        if (h.id) {
                            p = wire::writeTag(p, kHandleId, wire::kVarint);
                            p = wire::writeVarint(p, h.id);
                        }
                    }
                    break;
                case ArrayType::ENUM: {
                    const auto& s = impl->get<EnumStorage>();
                    p = writeString(p, kClassName, s.className);
                    for (const EnumValue& e : s.values) p = wire::writeBytes(p, kEnumNames, e.name.data(), e.name.size());
                    break;
                }
                default:
                    throw InvalidArrayTypeException();
            }
        }
        return p;
    }

private:
    std::uint8_t* nested(int field, const Array& a, std::uint8_t* p) {
        p = wire::writeLenHeader(p, field, s_[pos_]);
        return array(a, p);
    }

    std::uint8_t* object(const ValueObject& o, const ClassInfo& arrayInfo, std::uint8_t* p) {
        ++pos_;
        if (ownClass(o, arrayInfo)) {
            const ClassInfo& c = o.getClassInfo();
            const std::string& name = c.getClassIdentifier().getClassName();
            p = wire::writeBytes(p, kObjClass, name.data(), name.size());
        }
        for (const Property& prop : o) {
            p = wire::writeLenHeader(p, kObjProps, s_[pos_]);
            ++pos_;
            p = writeString(p, kPropName, prop.getIdentifier().getPropertyName());
            p = nested(kPropValue, prop.getValue(), p);
        }
        if (ownClass(o, arrayInfo)) {
            const ClassInfo& c = o.getClassInfo();
            p = writeNames(p, kObjFirst, c.getFirstProperties());
            p = writeNames(p, kObjSecond, c.getSecondProperties());
        }
        return p;
    }

    const std::vector<std::size_t>& s_;
    std::size_t& pos_;
};

// ---------------------------------------------------------------------------------------------------------
// Reading

[[noreturn]] void malformed(const std::string& what) { throw WireFormatException("Malformed VELTRA_Array: " + what); }

std::string dimsText(const Dims& d) {
    if (d.size() > 8) return std::to_string(d.size()) + "-dimensional";
    std::string s;
    for (std::size_t i = 0; i < d.size(); ++i) s += (i ? "-by-" : "") + std::to_string(d[i]);
    return s;
}

std::string typeText(ArrayType t) { return arrayTypeName(t); }

std::string text(Span s, int field) {
    if (!wire::validUtf8(s.data, s.size)) malformed("field " + std::to_string(field) + " holds text that is not valid UTF-8");
    return s.size ? std::string(reinterpret_cast<const char*>(s.data), s.size) : std::string();
}

// One occurrence of a length-delimited field, or a clear complaint naming the field.
Span readLen(Reader& r, int field) {
    std::uint64_t n;
    if (!r.varint(n)) malformed("the length of field " + std::to_string(field) + " is cut short");
    Span s;
    if (!r.take(n, s))
        malformed("truncated: field " + std::to_string(field) + " claims " + std::to_string(n) + " bytes but only " +
                  std::to_string(r.remaining()) + " remain");
    return s;
}

template <typename Container>
void readVarints(Reader& r, int field, WireType wt, Container& out) {
    if (!wire::readRepeatedVarint(r, wt, out)) malformed("field " + std::to_string(field) + " is cut short or unparseable");
}

// Walks the fields of one message; `on(field, wireType, reader)` returns false for a field it does not take,
// which is then skipped as protobuf skips unknown fields (a known number with another wire type included).
template <typename F>
void forEachField(Span msg, const char* what, F&& on) {
    Reader r(msg);
    while (!r.done()) {
        int field;
        WireType wt;
        if (!r.tag(field, wt)) malformed(std::string("unparseable field tag in ") + what);
        if (!on(field, wt, r) && !r.skip(field, wt))
            malformed("field " + std::to_string(field) + " of " + what + " is cut short or unparseable");
    }
}

struct ArrayFields {
    std::int32_t type = 0;
    std::uint32_t seen = 0;  // bit f: field f occurred
    std::vector<std::uint64_t> dims, externalDims, rows, cols;
    wire::SmallVector<std::uint64_t, 4> lengths;  // one per string: a string scalar's needs no heap block
    Span data, units, className;
    // Cells and structs are mostly small: their lists of element and field-name positions start inline.
    wire::SmallVector<Span, 8> elements;
    wire::SmallVector<Span, 4> fieldNames;
    std::vector<Span> firstProps, secondProps, objects, handles, enumNames;
    bool notUniform = false;
};

ArrayFields parseArray(Span msg) {
    ArrayFields f;
    forEachField(msg, "VELTRA_Array", [&](int field, WireType wt, Reader& r) {
        const bool isLen = wt == wire::kLen;
        const bool isScalar = wt == wire::kVarint || isLen;  // repeated scalars: packed or one by one
        switch (field) {
            case kType: {
                if (wt != wire::kVarint) return false;
                std::uint64_t v;
                if (!r.varint(v)) malformed("field 1 is cut short");
                f.type = static_cast<std::int32_t>(static_cast<std::uint32_t>(v));  // int32 keeps the low bits
                break;
            }
            case kDims: if (!isScalar) return false; readVarints(r, field, wt, f.dims); break;
            case kStringLengths: if (!isScalar) return false; readVarints(r, field, wt, f.lengths); break;
            case kExternalDims: if (!isScalar) return false; readVarints(r, field, wt, f.externalDims); break;
            case kSparseRows: if (!isScalar) return false; readVarints(r, field, wt, f.rows); break;
            case kSparseCols: if (!isScalar) return false; readVarints(r, field, wt, f.cols); break;
            case kNotUniform: {
                if (wt != wire::kVarint) return false;
                std::uint64_t v;
                if (!r.varint(v)) malformed("field 17 is cut short");
                f.notUniform = v != 0;
                break;
            }
            case kData: if (!isLen) return false; f.data = readLen(r, field); break;
            case kStringUnits: if (!isLen) return false; f.units = readLen(r, field); break;
            case kClassName: if (!isLen) return false; f.className = readLen(r, field); break;
            case kElements: if (!isLen) return false; f.elements.push_back(readLen(r, field)); break;
            case kFieldNames: if (!isLen) return false; f.fieldNames.push_back(readLen(r, field)); break;
            case kFirstProps: if (!isLen) return false; f.firstProps.push_back(readLen(r, field)); break;
            case kSecondProps: if (!isLen) return false; f.secondProps.push_back(readLen(r, field)); break;
            case kObjects: if (!isLen) return false; f.objects.push_back(readLen(r, field)); break;
            case kHandles: if (!isLen) return false; f.handles.push_back(readLen(r, field)); break;
            case kEnumNames: if (!isLen) return false; f.enumNames.push_back(readLen(r, field)); break;
            default: return false;
        }
        f.seen |= 1u << field;
        return true;
    });
    return f;
}

constexpr std::uint32_t bit(int field) { return 1u << field; }

// The fields an array of kind t may carry besides type and dims.
std::uint32_t allowedFields(ArrayType t) {
    std::uint32_t m = bit(kType) | bit(kDims);
    if (isRawBufferType(t)) return m | bit(kData);
    if (isSparseType(t)) return m | bit(kData) | bit(kSparseRows) | bit(kSparseCols);
    switch (t) {
        case ArrayType::VELTRA_STRING: return m | bit(kStringUnits) | bit(kStringLengths);
        case ArrayType::CELL: return m | bit(kElements);
        case ArrayType::STRUCT: return m | bit(kElements) | bit(kFieldNames);
        case ArrayType::VALUE_OBJECT:
            return m | bit(kClassName) | bit(kFirstProps) | bit(kSecondProps) | bit(kObjects) | bit(kExternalDims) |
                   bit(kNotUniform);
        case ArrayType::HANDLE_OBJECT_REF: return m | bit(kHandles);
        case ArrayType::ENUM: return m | bit(kClassName) | bit(kEnumNames);
        default: return m;
    }
}

// Element count of the dimensions (the library's checked product: a zero dimension makes the array empty
// however large the others are); a message whose product does not fit 64 bits is malformed.
std::uint64_t checkedElements(const Dims& dims) {
    try {
        return numberOfElements(dims);
    } catch (const DimensionsOverflowException&) {
        malformed("the dimensions " + dimsText(dims) + " have more elements than 64 bits can count");
    }
}

void requireCount(std::size_t have, std::uint64_t want, const char* what, ArrayType t, const Dims& dims) {
    if (have != want)
        malformed(std::string("a ") + typeText(t) + " array of " + dimsText(dims) + " needs " + std::to_string(want) +
                  " " + what + ", the message holds " + std::to_string(have));
}

std::vector<VeltraPropertyIdentifier> propertyNames(const std::vector<Span>& spans, int field) {
    std::vector<VeltraPropertyIdentifier> out;
    out.reserve(spans.size());
    for (Span s : spans) out.emplace_back(text(s, field));
    return out;
}

Array decodeAt(Span s, ArrayFactory& factory, int depth) { return decodeArray(s.data, s.size, factory, depth); }

// A singular message field that occurs more than once is merged, which for protobuf means parsing the
// concatenation of its occurrences.
template <typename Spans>
Array decodeMerged(const Spans& spans, ArrayFactory& factory, int depth) {
    if (spans.empty()) return Array();
    if (spans.size() == 1) return decodeAt(spans[0], factory, depth);
    std::string joined;
    for (Span s : spans) joined.append(reinterpret_cast<const char*>(s.data), s.size);
    return decodeArray(reinterpret_cast<const std::uint8_t*>(joined.data()), joined.size(), factory, depth);
}

ValueObject decodeObject(Span msg, const ClassInfo& arrayInfo, ArrayFactory& factory, int depth) {
    bool hasClass = false;
    Span className;
    // Engine arrays of dates and the like hold millions of small objects: their lists start inline.
    wire::SmallVector<Span, 4> props;
    std::vector<Span> first, second;
    forEachField(msg, "VELTRA_ValueObject", [&](int field, WireType wt, Reader& r) {
        if (wt != wire::kLen) return false;
        switch (field) {
            case kObjClass: className = readLen(r, field); hasClass = true; return true;
            case kObjProps: props.push_back(readLen(r, field)); return true;
            case kObjFirst: first.push_back(readLen(r, field)); return true;
            case kObjSecond: second.push_back(readLen(r, field)); return true;
            default: return false;
        }
    });
    if (!hasClass && (!first.empty() || !second.empty()))
        malformed("a value object element declares properties without naming its class");
    ValueObject obj(hasClass ? ClassInfo(VeltraClassIdentifier(text(className, kObjClass)), propertyNames(first, kObjFirst),
                                         propertyNames(second, kObjSecond))
                             : arrayInfo);
    std::unordered_set<std::string> names;  // only for objects with many properties
    constexpr std::size_t kFewProperties = 8;
    for (Span p : props) {
        Span name;
        wire::SmallVector<Span, 1> values;
        forEachField(p, "VELTRA_Property", [&](int field, WireType wt, Reader& r) {
            if (wt != wire::kLen) return false;
            if (field == kPropName) name = readLen(r, field);
            else if (field == kPropValue) values.push_back(readLen(r, field));
            else return false;
            return true;
        });
        std::string n = text(name, kPropName);
        const bool repeated = props.size() <= kFewProperties
                                  ? std::any_of(obj.begin(), obj.end(), [&n](const Property& q) { return q.getIdentifier().getPropertyName() == n; })
                                  : !names.insert(n).second;
        if (repeated) malformed("a value object element has the property '" + n + "' twice");
        obj.appendProperty(VeltraPropertyIdentifier(std::move(n)), decodeMerged(values, factory, depth + 1));
    }
    return obj;
}

HandleObjectRef decodeHandle(Span msg) {
    HandleObjectRef h;
    forEachField(msg, "VELTRA_Handle", [&](int field, WireType wt, Reader& r) {
        if (field == kHandleClass && wt == wire::kLen) {
            h.className = text(readLen(r, field), field);
        } else if (field == kHandleId && wt == wire::kVarint) {
            if (!r.varint(h.id)) malformed("a handle id is cut short");
        } else {
            return false;
        }
        return true;
    });
    return h;
}

}  // namespace

// ---------------------------------------------------------------------------------------------------------

namespace detail {

std::size_t measureArray(const Array& a, std::vector<std::size_t>& sizes, int depth) {
    return Measurer(sizes).array(a, depth);
}

void checkMessageSize(std::size_t n, const char* what) {
    if (n > kMaxMessageBytes)
        throw WireFormatException(std::string("the ") + what + " would be " + std::to_string(n) +
                                  " bytes, more than the " + std::to_string(kMaxMessageBytes) +
                                  " bytes (2 GiB) a message can hold");
}

void checkNestingDepth(int depth) {
    if (depth > kMaxNestingDepth)
        throw WireFormatException("The array is nested more than " + std::to_string(kMaxNestingDepth) +
                                  " levels deep and cannot be serialized.");
}

std::uint8_t* writeArray(const Array& a, const std::vector<std::size_t>& sizes, std::size_t& pos, std::uint8_t* out) {
    return Writer(sizes, pos).array(a, out);
}

}  // namespace detail

std::size_t encodedSize(const Array& a) {
    std::vector<std::size_t> sizes;
    return detail::measureArray(a, sizes);
}

std::uint8_t* encodeArray(const Array& a, std::uint8_t* out) {
    std::vector<std::size_t> sizes;
    detail::measureArray(a, sizes);
    std::size_t pos = 0;
    return detail::writeArray(a, sizes, pos, out);
}

namespace {

// The numeric, logical or char array in the layout every writer gives it (type, packed dims of two or more,
// data, nothing else), read without the general field table: most arrays in a message are scalars, and
// this is their whole cost. Anything else, malformed messages included, is left to the general reader
// (an absent result).
std::optional<Array> decodeCanonicalRaw(const std::uint8_t* data, std::size_t size, ArrayFactory& factory) {
    Reader r(data, size);
    Head h;
    if (!readHead(r, h) || !isRawBufferType(h.type)) return std::nullopt;
    std::uint64_t numel = 1;
    for (std::size_t k = 0; k < h.ndims; ++k) {
        if (h.dims[k] && numel > std::numeric_limits<std::uint32_t>::max() / h.dims[k]) return std::nullopt;
        numel *= h.dims[k];
    }
    const std::size_t want = static_cast<std::size_t>(numel) * elementSize(h.type);
    Span payload;
    if (want) {
        int field;
        WireType wt;
        if (!r.tag(field, wt) || field != kData || wt != wire::kLen || !r.len(payload) || payload.size != want)
            return std::nullopt;
    }
    if (!r.done()) return std::nullopt;
    AlignedBuffer buf(want, false);
    if (want) std::memcpy(buf.data(), payload.data, want);
    return factory.adoptBuffer(h.type, Dims(h.dims, h.dims + h.ndims), std::move(buf));
}

}  // namespace

Array decodeArray(const std::uint8_t* data, std::size_t size, ArrayFactory& factory, int depth) {
    if (depth > kMaxNestingDepth)
        malformed("arrays are nested more than " + std::to_string(kMaxNestingDepth) + " levels deep");
    if (std::optional<Array> a = decodeCanonicalRaw(data, size, factory)) return std::move(*a);
    ArrayFields f = parseArray(Span{data, size});

    if (!isValidArrayType(f.type) || f.type == static_cast<int>(ArrayType::CLASSIC_OBJECT))
        throw InvalidArrayTypeException();
    const ArrayType t = static_cast<ArrayType>(f.type);
    if (t == ArrayType::UNKNOWN) {
        if (f.seen & ~bit(kType)) throw InvalidArrayTypeException();
        return Array();
    }
    if (const std::uint32_t extra = f.seen & ~allowedFields(t)) {
        int field = 0;
        while (!(extra & bit(field))) ++field;
        malformed("field " + std::to_string(field) + " does not belong to an array of type " + typeText(t));
    }
    Dims dims = normalizeDims(std::move(f.dims));  // f.dims is not used again
    const std::uint64_t numel = checkedElements(dims);

    if (isRawBufferType(t)) {
        const std::size_t es = elementSize(t);
        if (numel > std::numeric_limits<std::size_t>::max() / es)
            malformed("a " + typeText(t) + " array of " + dimsText(dims) + " is too large for this machine");
        const std::size_t want = static_cast<std::size_t>(numel) * es;
        if (f.data.size != want)
            malformed("a " + typeText(t) + " array of " + dimsText(dims) + " needs " + std::to_string(want) +
                      " bytes of data, the message holds " + std::to_string(f.data.size));
        // Uninitialised: every byte is written just below, once. Logical bytes other than 0 and 1 are
        // normalised by the library when it adopts the buffer.
        AlignedBuffer buf(want, false);
        if (want) std::memcpy(buf.data(), f.data.data, want);
        return factory.adoptBuffer(t, std::move(dims), std::move(buf));
    }

    if (isSparseType(t)) {
        if (dims.size() != 2) malformed("a sparse array must have two dimensions, not " + std::to_string(dims.size()));
        if (f.rows.size() != f.cols.size())
            malformed("a sparse array has " + std::to_string(f.rows.size()) + " row positions but " +
                      std::to_string(f.cols.size()) + " column positions");
        const ArrayType et = sparseElementType(t);
        const std::size_t want = f.rows.size() * elementSize(et);  // rows.size() is bounded by the message
        if (f.data.size != want)
            malformed("a sparse " + typeText(et) + " array with " + std::to_string(f.rows.size()) +
                      " stored values needs " + std::to_string(want) + " bytes of data, the message holds " +
                      std::to_string(f.data.size));
        for (std::size_t k = 0; k < f.rows.size(); ++k) {
            if (f.rows[k] >= dims[0] || f.cols[k] >= dims[1])
                malformed("the sparse position (" + std::to_string(f.rows[k]) + ", " + std::to_string(f.cols[k]) +
                          ") lies outside the " + dimsText(dims) + " array");
        }
        // The library refuses two values for one position and normalises logical values.
        return factory.createSparseArray(t, dims, f.rows, f.cols, f.data.data, want);
    }

    switch (t) {
        case ArrayType::VELTRA_STRING: {
            requireCount(f.lengths.size(), numel, "string lengths", t, dims);
            if (f.units.size % 2)
                malformed("the UTF-16 text of a string array has an odd number of bytes (" +
                          std::to_string(f.units.size) + ")");
            const std::uint64_t totalUnits = f.units.size / 2;
            std::vector<VeltraString> values(f.lengths.size());
            std::uint64_t used = 0;
            for (std::size_t i = 0; i < values.size(); ++i) {
                const std::int64_t len = wire::unzigzag(f.lengths[i]);
                if (len == -1) continue;  // a missing string
                if (len < -1) malformed("string element " + std::to_string(i) + " has the length " + std::to_string(len));
                if (static_cast<std::uint64_t>(len) > totalUnits - used)
                    malformed("the string lengths add up to more than the " + std::to_string(totalUnits) +
                              " UTF-16 code units the message holds");
                std::u16string s(static_cast<std::size_t>(len), u'\0');
                if (len) std::memcpy(s.data(), f.units.data + used * 2, static_cast<std::size_t>(len) * 2);
                used += static_cast<std::uint64_t>(len);
                values[i] = std::move(s);
            }
            if (used != totalUnits)
                malformed("the string lengths add up to " + std::to_string(used) + " UTF-16 code units but the message holds " +
                          std::to_string(totalUnits));
            return factory.createStringArray(dims, std::move(values));
        }
        case ArrayType::CELL: {
            requireCount(f.elements.size(), numel, "elements", t, dims);
            std::vector<Array> values;
            values.reserve(f.elements.size());
            for (Span e : f.elements) values.push_back(decodeAt(e, factory, depth + 1));
            return factory.createCellArray(std::move(dims), std::move(values));
        }
        case ArrayType::STRUCT: {
            const std::size_t nf = f.fieldNames.size();
            if (nf == 0) {
                requireCount(f.elements.size(), 0, "field values (it has no fields)", t, dims);
            } else {
                if (numel > std::numeric_limits<std::uint64_t>::max() / nf)
                    malformed("a struct array of " + dimsText(dims) + " with " + std::to_string(nf) +
                              " fields has more field values than 64 bits can count");
                requireCount(f.elements.size(), numel * nf, "field values", t, dims);
            }
            std::vector<std::string> names;
            names.reserve(nf);
            for (Span s : f.fieldNames) names.push_back(text(s, kFieldNames));
            StructArray s = factory.createStructArray(dims, names);
            auto& values = s.mutableImpl().get<StructStorage>().values;
            for (std::size_t k = 0; k < f.elements.size(); ++k) values[k] = decodeAt(f.elements[k], factory, depth + 1);
            return std::move(s);
        }
        case ArrayType::VALUE_OBJECT: {
            requireCount(f.objects.size(), numel, "objects", t, dims);
            const ClassInfo info(VeltraClassIdentifier(text(f.className, kClassName)), propertyNames(f.firstProps, kFirstProps),
                                 propertyNames(f.secondProps, kSecondProps));
            std::vector<ValueObject> objects;
            objects.reserve(f.objects.size());
            for (Span o : f.objects) objects.push_back(decodeObject(o, info, factory, depth));
            Dims external = f.externalDims.empty() ? Dims() : normalizeDims(f.externalDims);
            return Array(new ArrayImpl(ArrayType::VALUE_OBJECT, dims, numel,
                                       ObjectStorage{info, std::move(objects), std::move(external), !f.notUniform}));
        }
        case ArrayType::HANDLE_OBJECT_REF: {
            requireCount(f.handles.size(), numel, "handles", t, dims);
            std::vector<HandleObjectRef> handles;
            handles.reserve(f.handles.size());
            for (Span h : f.handles) handles.push_back(decodeHandle(h));
            return factory.createHandleArray(dims, std::move(handles));
        }
        case ArrayType::ENUM: {
            requireCount(f.enumNames.size(), numel, "enumeration names", t, dims);
            std::vector<EnumValue> values;
            values.reserve(f.enumNames.size());
            for (Span s : f.enumNames) values.push_back(EnumValue{text(s, kEnumNames)});
            return factory.createEnumArray(dims, text(f.className, kClassName), std::move(values));
        }
        default:
            throw InvalidArrayTypeException();
    }
}

// ---------------------------------------------------------------------------------------------------------

SerializationContext::SerializationContext(ArrayFactory& factory, bool, std::shared_ptr<DataFrameWriter>,
                                           std::shared_ptr<DataFrameReader>, OptimizedSparseFormat)
    : factory_(factory) {}

std::unique_ptr<VELTRA_Array> SerializationContext::convertToProtobuf(const Array& a) {
    std::vector<std::size_t> sizes;
    const std::size_t n = detail::measureArray(a, sizes);
    detail::checkMessageSize(n, "array message");
    std::string bytes(n, '\0');
    std::size_t pos = 0;
    detail::writeArray(a, sizes, pos, reinterpret_cast<std::uint8_t*>(bytes.data()));
    auto msg = std::make_unique<VELTRA_Array>();
    google::protobuf::io::CodedInputStream in(reinterpret_cast<const std::uint8_t*>(bytes.data()), static_cast<int>(n));
    // Each level of arrays is up to three levels of messages (object, property, value).
    in.SetRecursionLimit(3 * kMaxNestingDepth + 8);
    if (!msg->ParseFromCodedStream(&in)) throw WireFormatException("The generated VELTRA_Array class refused the encoded array.");
    return msg;
}

Array SerializationContext::convertFromProtobuf(std::unique_ptr<VELTRA_Array> message) {
    if (!message) throw WireFormatException("convertFromProtobuf was given no message.");
    std::string bytes;
    if (!message->SerializeToString(&bytes)) throw WireFormatException("The VELTRA_Array message could not be serialized.");
    return decodeArray(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), factory_, 0);
}

}  // namespace foundation::veltradata::protobuf
