// ArrayFactory creates every array; ClientArrayFactory is the standalone factory a client default-constructs.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "array.h"
#include "element_block.h"
#include "typed_view.h"

namespace foundation::veltradata {

class ArrayFactory {
public:
    virtual ~ArrayFactory() = default;

    // Elements are zero, false, empty cells, empty struct fields or missing strings. Dimensions with fewer than
    // two entries are padded: {} becomes 0-by-0 and {n} becomes 1-by-n.
    Array createArray(ArrayType type, Dims dims);
    template <typename T>
    TypedArray<T> createArray(Dims dims) { return TypedArray<T>(createArray(ElementKind<T>::value, std::move(dims))); }

    // Elements copied from a column-major raw buffer of exactly the array's byte size (complex interleaved).
    Array createArrayWithData(ArrayType type, Dims dims, const void* data, std::size_t bytes);

    template <typename T>
    TypedArray<T> createScalar(const T& value) {
        TypedArray<T> a = createArray<T>({1, 1});
        a[0] = value;
        return a;
    }
    // String scalars (VELTRA_STRING), from UTF-8 or UTF-16 text.
    Array createScalar(const std::string& utf8);
    Array createScalar(const char* utf8) { return createScalar(std::string(utf8)); }
    Array createScalar(const std::u16string& utf16);

    // A 1-by-N CHAR array (1-by-0 for empty text); the narrow form is decoded as UTF-8.
    CharArray createCharArray(const std::string& utf8);
    CharArray createCharArray(const std::u16string& utf16);

    TypedArray<Array> createCellArray(Dims dims, std::vector<Array> elements = {});
    // Throws InvalidFieldNameException for a name that is not a valid identifier or is repeated.
    StructArray createStructArray(Dims dims, const std::vector<std::string>& fieldNames);

    ClassInfo createClassInfo(const VeltraClassIdentifier& id);
    ClassInfo createClassInfo(const VeltraClassIdentifier& id, const std::vector<VeltraPropertyIdentifier>& first,
                              const std::vector<VeltraPropertyIdentifier>& second);
    // `uniform` is recorded only: every element gets the class's declared properties either way.
    ValueObjectArray createValueObjectArray(Dims dims, const ClassInfo& info, bool uniform);
    ValueObjectArray createValueObjectScalar(const ClassInfo& info);
    ValueObjectArray createValueObjectScalar(const VeltraClassIdentifier& id,
                                             const std::vector<VeltraPropertyIdentifier>& props);

    // ---- Internal operations, beyond the public contract ----
    // Takes ownership of a buffer already holding the elements (its size must match the dimensions).
    Array adoptBuffer(ArrayType type, Dims dims, foundation::veltradata::detail::AlignedBuffer&& buffer);
    TypedArray<VeltraString> createStringArray(Dims dims, std::vector<VeltraString> elements);
    TypedArray<HandleObjectRef> createHandleArray(Dims dims, std::vector<HandleObjectRef> handles);
    EnumArray createEnumArray(Dims dims, const std::string& className, std::vector<EnumValue> values);
    // A sparse array of a 2-D shape from (row, column, value) triplets; values as raw bytes of the element kind
    // (double for SPARSE_30, bool for SPARSE_31, complex double for SPARSE_32).
    Array createSparseArray(ArrayType type, Dims dims, std::vector<std::uint64_t> rows,
                            std::vector<std::uint64_t> cols, const void* values, std::size_t bytes);
};

class ClientArrayFactory : public ArrayFactory {};

// What a cell element, struct field or value-object property holds until written: a 0-by-0 double, the
// engine's own empty value. One process-wide instance, shared by every such slot.
const Array& emptyArray();

// Checked product of dimensions; throws DimensionsOverflowException on overflow.
std::uint64_t numberOfElements(const Dims& dims);
// a * b, or UINT64_MAX when the product does not fit 64 bits: for byte counts that are held against a limit
// or handed to an allocator, both of which refuse the largest value.
std::uint64_t saturatingProduct(std::uint64_t a, std::uint64_t b) noexcept;
// Dimensions as the library stores them: at least two entries ({} -> {0, 0}, {n} -> {1, n}).
Dims normalizeDims(Dims dims);

}  // namespace foundation::veltradata
