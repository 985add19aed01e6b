#include "array_factory.h"

#include <algorithm>
#include <cstring>
#include <limits>
#include <unordered_set>

#include "impl.h"
#include "utf16.h"

namespace foundation::veltradata {

using namespace detail;  // the storage behind Array

std::uint64_t numberOfElements(const Dims& dims) {
    std::uint64_t n = 1;
    bool zero = false;
    bool overflow = false;
    for (std::uint64_t d : dims) {
        if (d == 0) zero = true;
        else if (!overflow && n > std::numeric_limits<std::uint64_t>::max() / d) overflow = true;
        else if (!overflow) n *= d;
    }
    // A zero dimension makes the array empty however large the others are.
    if (zero) return 0;
    if (overflow) throw DimensionsOverflowException("The array dimensions are too large.");
    return n;
}

std::uint64_t saturatingProduct(std::uint64_t a, std::uint64_t b) noexcept {
    std::uint64_t n;
    return __builtin_mul_overflow(a, b, &n) ? std::numeric_limits<std::uint64_t>::max() : n;
}

Dims normalizeDims(Dims dims) {
    if (dims.empty()) return {0, 0};
    if (dims.size() == 1) return {1, dims[0]};
    return dims;
}

namespace {

// A vector of n elements, refusing counts no allocation could satisfy before trying.
template <typename T>
std::vector<T> sizedVector(std::uint64_t n) {
    if (n > std::vector<T>().max_size() || n > std::numeric_limits<std::size_t>::max() / sizeof(T))
        throw std::bad_alloc();
    foundation::veltradata::detail::checkAllocationSize(static_cast<std::size_t>(n) * sizeof(T));
    return std::vector<T>(static_cast<std::size_t>(n));
}

std::vector<Array> emptyArrays(std::uint64_t n) {
    std::vector<Array> v = sizedVector<Array>(n);
    std::fill(v.begin(), v.end(), emptyArray());
    return v;
}

std::size_t rawBytes(ArrayType type, std::uint64_t numel) {
    const std::size_t es = elementSize(type);
    if (numel > std::numeric_limits<std::size_t>::max() / es)
        throw DimensionsOverflowException("The array dimensions are too large.");
    return static_cast<std::size_t>(numel) * es;
}

// Logical elements are stored as bytes 0 and 1 only, whatever bytes the source held: equality compares bytes
// and views hand the buffer out as bool.
void normalizeLogical(AlignedBuffer& buf) {
    std::uint8_t* p = buf.data();
    for (std::size_t i = 0; i < buf.size(); ++i) p[i] = p[i] != 0;
}

Array make(ArrayType type, Dims dims, std::uint64_t numel, Storage storage) {
    return Array(new ArrayImpl(type, std::move(dims), numel, std::move(storage)));
}

}  // namespace

const Array& emptyArray() {
    // Never destroyed: arrays in other static objects may still hold it at exit.
    static const Array* const kEmpty = new Array(make(ArrayType::DOUBLE, {0, 0}, 0, AlignedBuffer()));
    return *kEmpty;
}

Array ArrayFactory::createArray(ArrayType type, Dims dims) {
    dims = normalizeDims(std::move(dims));
    const std::uint64_t n = numberOfElements(dims);
    if (isRawBufferType(type)) return make(type, std::move(dims), n, AlignedBuffer(rawBytes(type, n), true));
    switch (type) {
        case ArrayType::VELTRA_STRING: return make(type, std::move(dims), n, sizedVector<VeltraString>(n));
        case ArrayType::CELL: return make(type, std::move(dims), n, emptyArrays(n));
        case ArrayType::STRUCT: return make(type, std::move(dims), n, StructStorage{});
        case ArrayType::VALUE_OBJECT:
            return make(type, std::move(dims), n, ObjectStorage{ClassInfo(), sizedVector<ValueObject>(n), {}, true});
        case ArrayType::HANDLE_OBJECT_REF: return make(type, std::move(dims), n, sizedVector<HandleObjectRef>(n));
        case ArrayType::ENUM: return make(type, std::move(dims), n, EnumStorage{"", sizedVector<EnumValue>(n)});
        case ArrayType::SPARSE_30: case ArrayType::SPARSE_31: case ArrayType::SPARSE_32:
            if (dims.size() != 2) throw ArrayException("A sparse array must have two dimensions.");
            return make(type, std::move(dims), n, SparseStorage{});
        default: throw InvalidArrayTypeException();
    }
}

Array ArrayFactory::createArrayWithData(ArrayType type, Dims dims, const void* data, std::size_t bytes) {
    if (!isRawBufferType(type)) throw ArrayException("Raw data can only fill a numeric, logical or char array.");
    dims = normalizeDims(std::move(dims));
    const std::uint64_t n = numberOfElements(dims);
    const std::size_t want = rawBytes(type, n);
    if (bytes != want) throw ArrayException("The data size does not match the array dimensions.");
    AlignedBuffer buf(want, false);
    if (want) std::memcpy(buf.data(), data, want);
    if (type == ArrayType::LOGICAL) normalizeLogical(buf);
    return make(type, std::move(dims), n, std::move(buf));
}

Array ArrayFactory::adoptBuffer(ArrayType type, Dims dims, AlignedBuffer&& buffer) {
    if (!isRawBufferType(type)) throw ArrayException("Raw data can only fill a numeric, logical or char array.");
    dims = normalizeDims(std::move(dims));
    const std::uint64_t n = numberOfElements(dims);
    if (buffer.size() != rawBytes(type, n)) throw ArrayException("The data size does not match the array dimensions.");
    if (type == ArrayType::LOGICAL) normalizeLogical(buffer);
    return make(type, std::move(dims), n, std::move(buffer));
}

Array ArrayFactory::createScalar(const std::string& utf8) { return createScalar(utf8ToUtf16(utf8)); }

Array ArrayFactory::createScalar(const std::u16string& utf16) {
    return createStringArray({1, 1}, {VeltraString(utf16)});
}

CharArray ArrayFactory::createCharArray(const std::string& utf8) { return createCharArray(utf8ToUtf16(utf8)); }

CharArray ArrayFactory::createCharArray(const std::u16string& utf16) {
    return CharArray(createArrayWithData(ArrayType::CHAR, {1, utf16.size()}, utf16.data(),
                                         utf16.size() * sizeof(char16_t)));
}

TypedArray<Array> ArrayFactory::createCellArray(Dims dims, std::vector<Array> elements) {
    dims = normalizeDims(std::move(dims));
    const std::uint64_t n = numberOfElements(dims);
    if (elements.empty()) return TypedArray<Array>(createArray(ArrayType::CELL, std::move(dims)));
    if (elements.size() != n) throw ArrayException("The number of cell elements does not match the dimensions.");
    return TypedArray<Array>(make(ArrayType::CELL, std::move(dims), n, std::move(elements)));
}

StructArray ArrayFactory::createStructArray(Dims dims, const std::vector<std::string>& fieldNames) {
    std::unordered_set<std::string> seen;
    for (const std::string& f : fieldNames) {
        if (!isValidFieldName(f)) throw InvalidFieldNameException("field name is not a valid VELTRA identifier: '" + f + "'");
        if (!seen.insert(f).second) throw InvalidFieldNameException("duplicate field name: '" + f + "'");
    }
    dims = normalizeDims(std::move(dims));
    const std::uint64_t n = numberOfElements(dims);
    StructStorage s;
    s.fields = fieldNames;
    if (!fieldNames.empty()) {
        if (n > std::numeric_limits<std::uint64_t>::max() / fieldNames.size()) throw std::bad_alloc();
        s.values = emptyArrays(n * fieldNames.size());
    }
    return StructArray(make(ArrayType::STRUCT, std::move(dims), n, std::move(s)));
}

ClassInfo ArrayFactory::createClassInfo(const VeltraClassIdentifier& id) { return ClassInfo(id, {}, {}); }

ClassInfo ArrayFactory::createClassInfo(const VeltraClassIdentifier& id,
                                        const std::vector<VeltraPropertyIdentifier>& first,
                                        const std::vector<VeltraPropertyIdentifier>& second) {
    return ClassInfo(id, first, second);
}

ValueObjectArray ArrayFactory::createValueObjectArray(Dims dims, const ClassInfo& info, bool uniform) {
    dims = normalizeDims(std::move(dims));
    const std::uint64_t n = numberOfElements(dims);
    ValueObject proto(info);
    for (const auto& p : info.getFirstProperties()) proto[p];
    for (const auto& p : info.getSecondProperties()) proto[p];
    // Every element gets its own copy of the property list: count that too before allocating.
    const std::size_t perObject = sizeof(ValueObject) + proto.getNumberOfProperties() * sizeof(Property);
    if (n > std::numeric_limits<std::size_t>::max() / perObject) throw std::bad_alloc();
    foundation::veltradata::detail::checkAllocationSize(static_cast<std::size_t>(n) * perObject);
    std::vector<ValueObject> objects = sizedVector<ValueObject>(n);
    std::fill(objects.begin(), objects.end(), proto);
    return ValueObjectArray(
        make(ArrayType::VALUE_OBJECT, std::move(dims), n, ObjectStorage{info, std::move(objects), {}, uniform}));
}

ValueObjectArray ArrayFactory::createValueObjectScalar(const ClassInfo& info) {
    return createValueObjectArray({1, 1}, info, true);
}

ValueObjectArray ArrayFactory::createValueObjectScalar(const VeltraClassIdentifier& id,
                                                       const std::vector<VeltraPropertyIdentifier>& props) {
    return createValueObjectScalar(createClassInfo(id, props, {}));
}

TypedArray<VeltraString> ArrayFactory::createStringArray(Dims dims, std::vector<VeltraString> elements) {
    dims = normalizeDims(std::move(dims));
    const std::uint64_t n = numberOfElements(dims);
    if (elements.size() != n) throw ArrayException("The number of string elements does not match the dimensions.");
    return TypedArray<VeltraString>(make(ArrayType::VELTRA_STRING, std::move(dims), n, std::move(elements)));
}

TypedArray<HandleObjectRef> ArrayFactory::createHandleArray(Dims dims, std::vector<HandleObjectRef> handles) {
    dims = normalizeDims(std::move(dims));
    const std::uint64_t n = numberOfElements(dims);
    if (handles.size() != n) throw ArrayException("The number of handles does not match the dimensions.");
    return TypedArray<HandleObjectRef>(make(ArrayType::HANDLE_OBJECT_REF, std::move(dims), n, std::move(handles)));
}

EnumArray ArrayFactory::createEnumArray(Dims dims, const std::string& className, std::vector<EnumValue> values) {
    dims = normalizeDims(std::move(dims));
    const std::uint64_t n = numberOfElements(dims);
    if (values.size() != n) throw ArrayException("The number of enumeration values does not match the dimensions.");
    return EnumArray(make(ArrayType::ENUM, std::move(dims), n, EnumStorage{className, std::move(values)}));
}

Array ArrayFactory::createSparseArray(ArrayType type, Dims dims, std::vector<std::uint64_t> rows,
                                      std::vector<std::uint64_t> cols, const void* values, std::size_t bytes) {
    if (!isSparseType(type)) throw InvalidArrayTypeException();
    dims = normalizeDims(std::move(dims));
    if (dims.size() != 2) throw ArrayException("A sparse array must have two dimensions.");
    const std::uint64_t n = numberOfElements(dims);
    const ArrayType elem = type == ArrayType::SPARSE_30 ? ArrayType::DOUBLE
                         : type == ArrayType::SPARSE_31 ? ArrayType::LOGICAL
                                                        : ArrayType::COMPLEX_DOUBLE;
    if (rows.size() != cols.size()) throw ArrayException("Sparse row and column counts differ.");
    if (bytes != rows.size() * elementSize(elem)) throw ArrayException("Sparse value count does not match.");
    std::vector<std::uint64_t> positions;
    positions.reserve(rows.size());
    for (std::size_t k = 0; k < rows.size(); ++k) {
        if (rows[k] >= dims[0] || cols[k] >= dims[1]) throw IndexOutOfRangeException();
        positions.push_back(cols[k] * dims[0] + rows[k]);
    }
    // Two values for one element would leave the element's value undefined.
    std::sort(positions.begin(), positions.end());
    if (std::adjacent_find(positions.begin(), positions.end()) != positions.end())
        throw ArrayException("A sparse array holds two values for one element.");
    AlignedBuffer buf(bytes, false);
    if (bytes) std::memcpy(buf.data(), values, bytes);
    if (type == ArrayType::SPARSE_31) normalizeLogical(buf);
    return make(type, std::move(dims), n, SparseStorage{std::move(rows), std::move(cols), std::move(buf)});
}

}  // namespace foundation::veltradata
