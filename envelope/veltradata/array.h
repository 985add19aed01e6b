// Array: the one value type. Value semantics over a shared, reference-counted implementation: copies share
// storage, and the first write through a shared copy detaches it (copy-on-write).
#pragma once

#include <array>
#include <complex>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "array_type.h"
#include "errors.h"
#include "identifiers.h"

namespace foundation::veltradata::detail {
class ArrayImpl;
}

namespace foundation::veltradata {

using Dims = std::vector<std::uint64_t>;
class ArrayElementRef;
class ValueObject;
struct HandleObjectRef;
struct EnumValue;
class ClassInfo;
class Struct;

class Array {
public:
    Array() noexcept = default;
    // Adopts one hold on `impl` (an array implementation handle); the Array releases it when destroyed.
    explicit Array(foundation::veltradata::detail::ArrayImpl* impl) noexcept : impl_(impl) {}
    Array(const Array& o) noexcept;
    Array(Array&& o) noexcept : impl_(std::exchange(o.impl_, nullptr)) {}
    Array& operator=(const Array& o) noexcept;
    Array& operator=(Array&& o) noexcept;
    ~Array();

    // UNKNOWN for a default-constructed Array.
    ArrayType getType() const noexcept;
    // At least two entries; a scalar is {1, 1}. {0, 0} for a default-constructed Array.
    const Dims& getDimensions() const noexcept;
    std::uint64_t getNumberOfElements() const noexcept;
    bool isEmpty() const noexcept { return getNumberOfElements() == 0; }

    // Element access by linear (column-major) index; chain operator[] on the result for a multi-index.
    ArrayElementRef operator[](std::uint64_t index);
    ArrayElementRef operator[](std::uint64_t index) const;

    // Array implementation handles, the form in which arrays pass between the two extension modules:
    // adoptHandle takes over the one hold the sender gave with it; shareHandle gives the receiver a hold of
    // its own (null for a default-constructed Array).
    static Array adoptHandle(void* handle) noexcept;
    void* shareHandle() const noexcept;

    // Internal: the implementation handle. getImpl() borrows it, releaseImpl() hands this Array's hold over.
    foundation::veltradata::detail::ArrayImpl* getImpl() const noexcept { return impl_; }
    foundation::veltradata::detail::ArrayImpl* releaseImpl() noexcept { return std::exchange(impl_, nullptr); }
    // Internal: the implementation, detached from other holders first so that it may be written.
    foundation::veltradata::detail::ArrayImpl& mutableImpl();
    const foundation::veltradata::detail::ArrayImpl& impl() const;

protected:
    foundation::veltradata::detail::ArrayImpl* impl_ = nullptr;
};

bool operator==(const Array& a, const Array& b);
inline bool operator!=(const Array& a, const Array& b) { return !(a == b); }
bool isSparse(const Array& a);

// ---- Elements where they lie, for fast read-only paths ----
// Nothing is detached: a pointer stays valid while the caller's hold on `a` lasts and nothing writes to it.

// The element bytes of a numeric, logical or char array in column-major order. Throws TypeMismatchException
// for kinds without a raw element buffer.
const std::uint8_t* elementBytes(const Array& a);
// The elements of a cell array in column-major order. Throws TypeMismatchException for other kinds.
const Array* cellElements(const Array& a);
// The elements of a string array, or of a value-object array, in column-major order. Throw
// TypeMismatchException for other kinds.
const std::optional<std::u16string>* stringElements(const Array& a);
const ValueObject* valueObjects(const Array& a);
// The element bytes of a numeric, logical or char array for writing, detached from other holders first.
std::uint8_t* mutableElementBytes(Array& a);

// ---- Element types of the typed views ----

struct HandleObjectRef {
    std::string className;  // class of the engine handle object
    std::uint64_t id = 0;   // the engine's handle value
    bool operator==(const HandleObjectRef& o) const { return id == o.id && className == o.className; }
    bool operator!=(const HandleObjectRef& o) const { return !(*this == o); }
};

struct EnumValue {
    std::string name;  // the enumeration member
    bool operator==(const EnumValue& o) const { return name == o.name; }
    bool operator!=(const EnumValue& o) const { return !(*this == o); }
};

class ClassInfo {
public:
    ClassInfo() = default;
    ClassInfo(VeltraClassIdentifier id, std::vector<VeltraPropertyIdentifier> first,
              std::vector<VeltraPropertyIdentifier> second);
    const VeltraClassIdentifier& getClassIdentifier() const;
    // Properties declared at creation (first list, then second); may be empty.
    const std::vector<VeltraPropertyIdentifier>& getFirstProperties() const;
    const std::vector<VeltraPropertyIdentifier>& getSecondProperties() const;
    bool operator==(const ClassInfo& o) const;
    bool operator!=(const ClassInfo& o) const { return !(*this == o); }

private:
    struct Data;
    std::shared_ptr<const Data> data_;
};

// A struct element read out as a value: its fields in creation order, each holding an Array.
class Struct {
public:
    Struct() = default;
    Struct(std::vector<std::string> fields, std::vector<Array> values);
    std::size_t getNumberOfFields() const { return fields_.size(); }
    std::vector<VeltraFieldIdentifier> getFieldNames() const;
    bool hasField(const std::string& field) const;
    // Throws when the struct has no such field.
    const Array& operator[](const std::string& field) const;
    bool operator==(const Struct& o) const { return fields_ == o.fields_ && values_ == o.values_; }
    bool operator!=(const Struct& o) const { return !(*this == o); }

private:
    std::vector<std::string> fields_;
    std::vector<Array> values_;
};

class Property {
public:
    Property(VeltraPropertyIdentifier id, Array value) : id_(std::move(id)), value_(std::move(value)) {}
    const VeltraPropertyIdentifier& getIdentifier() const { return id_; }
    const Array& getValue() const { return value_; }
    Array& getValue() { return value_; }
    operator Array() const { return value_; }

private:
    VeltraPropertyIdentifier id_;
    Array value_;
};

class ValueObject {
public:
    ValueObject() = default;
    explicit ValueObject(ClassInfo info) : info_(std::move(info)) {}
    const ClassInfo& getClassInfo() const { return info_; }
    bool hasProperty(const VeltraPropertyIdentifier& id) const;
    // Throws when the object has no such property.
    const Array& operator[](const VeltraPropertyIdentifier& id) const;
    // Adds the property (as an empty array) when missing.
    Array& operator[](const VeltraPropertyIdentifier& id);
    std::vector<Property>::const_iterator begin() const { return props_.begin(); }
    std::vector<Property>::const_iterator end() const { return props_.end(); }
    std::size_t getNumberOfProperties() const { return props_.size(); }
    // Internal: appends a property the caller knows is not there yet (decoders that checked the names
    // themselves), without the per-property search operator[] does.
    void appendProperty(VeltraPropertyIdentifier id, Array value) { props_.emplace_back(std::move(id), std::move(value)); }
    bool operator==(const ValueObject& o) const;
    bool operator!=(const ValueObject& o) const { return !(*this == o); }

private:
    ClassInfo info_;
    std::vector<Property> props_;
};

// ---- Mapping of view element types to kinds ----

// ::value is the ArrayType of TypedArray<T>; UNKNOWN for types that are no element type.
template <typename T> struct ElementKind { static constexpr ArrayType value = ArrayType::UNKNOWN; };
#define VELTRA_ELEMENT_KIND(T, K) \
    template <> struct ElementKind<T> { static constexpr ArrayType value = ArrayType::K; }
VELTRA_ELEMENT_KIND(bool, LOGICAL);
VELTRA_ELEMENT_KIND(char16_t, CHAR);
VELTRA_ELEMENT_KIND(VeltraString, VELTRA_STRING);
#define VELTRA_NUMERIC_ELEMENT_KIND(KIND, T, NAME) \
    VELTRA_ELEMENT_KIND(T, KIND);                  \
    VELTRA_ELEMENT_KIND(std::complex<T>, COMPLEX_##KIND);
VELTRA_NUMERIC_KINDS(VELTRA_NUMERIC_ELEMENT_KIND)
#undef VELTRA_NUMERIC_ELEMENT_KIND
VELTRA_ELEMENT_KIND(Array, CELL);
VELTRA_ELEMENT_KIND(Struct, STRUCT);
VELTRA_ELEMENT_KIND(ValueObject, VALUE_OBJECT);
VELTRA_ELEMENT_KIND(HandleObjectRef, HANDLE_OBJECT_REF);
VELTRA_ELEMENT_KIND(EnumValue, ENUM);
#undef VELTRA_ELEMENT_KIND

template <typename T>
inline constexpr bool kIsRawElement = isRawBufferType(ElementKind<T>::value);

// ---- Element references ----

// A reference to one element (or, after addIndex, to one field of a struct element). It stays valid while the
// Array it was taken from lives. Reads convert or check the kind; writes detach shared storage first.
class ArrayElementRef {
public:
    static constexpr std::size_t kMaxIndices = 16;

    ArrayElementRef(Array* owner, std::uint64_t index, bool writable) noexcept;
    ArrayElementRef(const ArrayElementRef&) = default;
    // Like every other assignment to a reference, writes the element: the value `o` refers to is copied into
    // the element this refers to (converted to this array's numeric kind where needed).
    ArrayElementRef& operator=(const ArrayElementRef& o);

    ArrayElementRef operator[](std::uint64_t next) const;   // one more index of a multi-index
    ArrayElementRef addIndex(const std::string& field) const;  // a field of a struct element
    ArrayElementRef operator[](const std::string& field) const { return addIndex(field); }
    // Literals only: a `const char*` overload would make ref[0] ambiguous (0 is also a null pointer).
    template <std::size_t N>
    ArrayElementRef operator[](const char (&field)[N]) const { return addIndex(field); }

    // The element as exactly its own type; throws TypeMismatchException for another kind.
    template <typename T> T getValue() const;
    // The element converted: any real numeric or logical element to any numeric type or bool, complex to
    // complex, a cell element or struct field to Array.
    template <typename T> T castTo() const;
    // Writes the element; numeric values are converted to the array's numeric kind.
    template <typename T> void setElement(const T& value);
    void setElement(const char* utf8) { setElement(std::string(utf8)); }

    ArrayElementRef& operator=(const Array& a) { setElement(a); return *this; }
    operator Array() const { return castTo<Array>(); }

    // A char array held in a cell element or struct field, read as a UTF-8 string.
    std::string castToString() const;
    // String elements.
    bool has_value() const;
    operator std::u16string() const;

    // The linear position this reference resolves to; throws IndexOutOfRangeException.
    std::uint64_t linearIndex() const;

protected:
    void readRaw(ArrayType want, void* out, bool exact) const;
    void writeRaw(ArrayType from, const void* in);
    Array readArray() const;
    void writeArray(const Array& a);
    Struct readStruct() const;
    VeltraString readString() const;
    void writeString(const VeltraString& s);
    void writeUtf8(const std::string& s);
    ValueObject readValueObject() const;
    void writeValueObject(const ValueObject& v);
    HandleObjectRef readHandle() const;
    void writeHandle(const HandleObjectRef& h);
    EnumValue readEnum() const;
    void requireWritable() const;

    Array* owner_;
    std::array<std::uint64_t, kMaxIndices> idx_{};
    std::uint8_t nidx_ = 1;
    bool writable_;
    bool hasField_ = false;
    std::string field_;
};

template <typename T>
T ArrayElementRef::getValue() const {
    if constexpr (kIsRawElement<T>) {
        T out{};
        readRaw(ElementKind<T>::value, &out, true);
        return out;
    } else if constexpr (std::is_same_v<T, Array>) {
        return readArray();
    } else if constexpr (std::is_same_v<T, Struct>) {
        return readStruct();
    } else if constexpr (std::is_same_v<T, VeltraString>) {
        return readString();
    } else if constexpr (std::is_same_v<T, ValueObject>) {
        return readValueObject();
    } else if constexpr (std::is_same_v<T, HandleObjectRef>) {
        return readHandle();
    } else if constexpr (std::is_same_v<T, EnumValue>) {
        return readEnum();
    } else if constexpr (std::is_same_v<T, std::string>) {
        return castToString();
    } else {
        static_assert(sizeof(T) == 0, "no element of this type");
    }
}

template <typename T>
T ArrayElementRef::castTo() const {
    if constexpr (kIsRawElement<T>) {
        T out{};
        readRaw(ElementKind<T>::value, &out, false);
        return out;
    } else {
        return getValue<T>();
    }
}

template <typename T>
void ArrayElementRef::setElement(const T& value) {
    if constexpr (kIsRawElement<T>) {
        writeRaw(ElementKind<T>::value, &value);
    } else if constexpr (std::is_same_v<T, Array> || std::is_base_of_v<Array, T>) {
        writeArray(value);
    } else if constexpr (std::is_same_v<T, VeltraString>) {
        writeString(value);
    } else if constexpr (std::is_same_v<T, std::u16string>) {
        writeString(VeltraString(value));
    } else if constexpr (std::is_same_v<T, std::string>) {
        writeUtf8(value);
    } else if constexpr (std::is_same_v<T, ValueObject>) {
        writeValueObject(value);
    } else if constexpr (std::is_same_v<T, HandleObjectRef>) {
        writeHandle(value);
    } else {
        static_assert(sizeof(T) == 0, "no element of this type");
    }
}

}  // namespace foundation::veltradata
