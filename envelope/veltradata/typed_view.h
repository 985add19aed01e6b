// Typed views over an Array. A view is itself an Array (sharing storage) whose kind was checked once, at
// construction; constructing a view over another kind throws TypeMismatchException.
#pragma once

#include <cstdint>
#include <iterator>
#include <string>
#include <vector>

#include "array.h"

namespace foundation::veltradata {

template <typename T>
class Reference : public ArrayElementRef {
public:
    using ArrayElementRef::ArrayElementRef;
    using ArrayElementRef::operator[];  // field names of struct elements
    Reference(const ArrayElementRef& r) : ArrayElementRef(r) {}  // NOLINT: chaining keeps the element type
    Reference(const Reference&) = default;

    operator T() const { return this->template getValue<T>(); }
    T operator*() const { return this->template getValue<T>(); }
    Reference& operator=(const T& v) { this->setElement(v); return *this; }
    Reference& operator=(const Reference& o) { this->setElement(static_cast<T>(o)); return *this; }
    Reference operator[](std::uint64_t next) const { return Reference(ArrayElementRef::operator[](next)); }
};

// Element references of handle-object arrays.
using HandleRef = Reference<HandleObjectRef>;
// Element references of value-object arrays: dereference gives the ValueObject, assignment writes it.
using ValueObjectRef = Reference<ValueObject>;

// Copies the engine handle of `src` into the element `dst` refers to (the handle is shared, not copied).
void handle_ref_set_value_x(HandleRef dst, const HandleRef& src);

template <typename T>
class TypedIterator {
public:
    using iterator_category = std::forward_iterator_tag;
    using value_type = T;
    using difference_type = std::int64_t;
    using pointer = void;
    using reference = Reference<T>;

    TypedIterator(Array* owner, std::int64_t pos, bool writable) : owner_(owner), pos_(pos), writable_(writable) {}
    Reference<T> operator*() const { return Reference<T>(owner_, static_cast<std::uint64_t>(pos_), writable_); }
    TypedIterator& operator++() { ++pos_; return *this; }
    TypedIterator operator++(int) { TypedIterator t = *this; ++pos_; return t; }
    TypedIterator& operator+=(std::int64_t n) { pos_ += n; return *this; }
    TypedIterator operator+(std::int64_t n) const { TypedIterator t = *this; t.pos_ += n; return t; }
    std::int64_t operator-(const TypedIterator& o) const { return pos_ - o.pos_; }
    bool operator==(const TypedIterator& o) const { return owner_ == o.owner_ && pos_ == o.pos_; }
    bool operator!=(const TypedIterator& o) const { return !(*this == o); }

private:
    Array* owner_;
    std::int64_t pos_;
    bool writable_;
};

template <typename T>
class TypedArray : public Array {
public:
    using iterator = TypedIterator<T>;

    TypedArray(const Array& a) : Array(a) { check(); }          // NOLINT: views convert implicitly
    TypedArray(Array&& a) : Array(std::move(a)) { check(); }    // NOLINT
    TypedArray(const TypedArray&) = default;
    TypedArray(TypedArray&&) noexcept = default;
    TypedArray& operator=(const TypedArray&) = default;
    TypedArray& operator=(TypedArray&&) noexcept = default;

    iterator begin() { return iterator(this, 0, true); }
    iterator end() { return iterator(this, static_cast<std::int64_t>(getNumberOfElements()), true); }
    iterator begin() const { return iterator(const_cast<TypedArray*>(this), 0, false); }
    iterator end() const {
        return iterator(const_cast<TypedArray*>(this), static_cast<std::int64_t>(getNumberOfElements()), false);
    }
    iterator cbegin() const { return begin(); }
    iterator cend() const { return end(); }

    Reference<T> operator[](std::uint64_t i) { return Reference<T>(this, i, true); }
    Reference<T> operator[](std::uint64_t i) const { return Reference<T>(const_cast<TypedArray*>(this), i, false); }

    // Internal, raw kinds only: the contiguous column-major elements. data() detaches shared storage.
    template <typename U = T, typename = std::enable_if_t<kIsRawElement<U>>>
    T* data() { return reinterpret_cast<T*>(rawData(true)); }
    template <typename U = T, typename = std::enable_if_t<kIsRawElement<U>>>
    const T* data() const { return reinterpret_cast<const T*>(const_cast<TypedArray*>(this)->rawData(false)); }

private:
    void check() const;
    std::uint8_t* rawData(bool forWrite);
};

class CharArray : public TypedArray<char16_t> {
public:
    using TypedArray<char16_t>::TypedArray;
    std::u16string toUTF16() const;
    // Throws NonAsciiCharException when a code unit is above 127.
    std::string toAscii() const;
};

// Elements are struct elements: a reference dereferences to a Struct value and is indexed further by a field
// name to read or write the Array in that field (s[i]["name"]).
class StructArray : public TypedArray<Struct> {
public:
    using TypedArray<Struct>::TypedArray;
    std::size_t getNumberOfFields() const;
    // In the order the fields were created.
    std::vector<VeltraFieldIdentifier> getFieldNames() const;
};

class ValueObjectArray : public TypedArray<ValueObject> {
public:
    using TypedArray<ValueObject>::TypedArray;
    using TypedArray<ValueObject>::operator[];
    // The class of the array (of its first element when elements differ).
    ClassInfo getClassInfo() const;
    // The property across the whole array: a scalar's own property; otherwise a cell of the array's
    // dimensions holding each element's value. Throws when an element lacks it.
    Array operator[](const VeltraPropertyIdentifier& id) const;
    bool hasArrayProperty(const VeltraPropertyIdentifier& id) const;
    // What the object presents to the user (a table is 1-by-1 inside but rows-by-columns outside).
    Dims getExternalDimensions() const;
    void setExternalDimensions(Dims dims);
    // Internal convenience: writes one property of one element.
    void setProperty(std::uint64_t index, const VeltraPropertyIdentifier& id, const Array& value);
};

class EnumArray : public TypedArray<EnumValue> {
public:
    using TypedArray<EnumValue>::TypedArray;
    std::string getClassName() const;
};

namespace detail {
void checkViewKind(const Array& a, ArrayType want);
std::uint8_t* rawData(Array& a, bool forWrite);
}  // namespace detail

template <typename T>
void TypedArray<T>::check() const {
    detail::checkViewKind(*this, ElementKind<T>::value);
}

template <typename T>
std::uint8_t* TypedArray<T>::rawData(bool forWrite) {
    return detail::rawData(*this, forWrite);
}

}  // namespace foundation::veltradata
