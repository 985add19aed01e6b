#include "array.h"

#include <algorithm>
#include <cstring>
#include <sstream>

#include "array_factory.h"
#include "impl.h"
#include "raw_visit.h"
#include "utf16.h"
#include "typed_view.h"

namespace foundation::veltradata {

using namespace detail;  // the storage behind Array

namespace {
const Dims kEmptyDims{0, 0};

[[noreturn]] void mismatch(const char* what) { throw TypeMismatchException(what); }
}  // namespace

// ---- ArrayType ----

const char* arrayTypeName(ArrayType t) {
    switch (t) {
        case ArrayType::UNKNOWN: return "UNKNOWN";
        case ArrayType::LOGICAL: return "LOGICAL";
        case ArrayType::CHAR: return "CHAR";
        case ArrayType::VELTRA_STRING: return "VELTRA_STRING";
#define VELTRA_NAME(KIND, T, NAME)       \
    case ArrayType::KIND: return #KIND; \
    case ArrayType::COMPLEX_##KIND: return "COMPLEX_" #KIND;
        VELTRA_NUMERIC_KINDS(VELTRA_NAME)
#undef VELTRA_NAME
        case ArrayType::CELL: return "CELL";
        case ArrayType::STRUCT: return "STRUCT";
        case ArrayType::CLASSIC_OBJECT: return "CLASSIC_OBJECT";
        case ArrayType::VALUE_OBJECT: return "VALUE_OBJECT";
        case ArrayType::HANDLE_OBJECT_REF: return "HANDLE_OBJECT_REF";
        case ArrayType::ENUM: return "ENUM";
        case ArrayType::SPARSE_30: return "SPARSE_30";
        case ArrayType::SPARSE_31: return "SPARSE_31";
        case ArrayType::SPARSE_32: return "SPARSE_32";
    }
    return "";  // a value outside the enumeration
}

std::string arrayTypeTable() {
    std::string out = "   Compare to: \n";
    for (int v = 1; v <= 27; ++v) {
        if (v == 26) continue;
        out += "       ";
        out += arrayTypeName(static_cast<ArrayType>(v));
        out += ": " + std::to_string(v) + "\n";
    }
    return out;
}

bool isValidFieldName(const std::string& name) {
    if (name.empty() || name.size() > kMaxFieldNameLength) return false;
    auto alpha = [](char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z'); };
    if (!alpha(name[0])) return false;
    return std::all_of(name.begin(), name.end(),
                       [&](char c) { return alpha(c) || (c >= '0' && c <= '9') || c == '_'; });
}

// ---- Array ----

Array::Array(const Array& o) noexcept : impl_(o.impl_) {
    if (impl_) impl_->retain();
}

Array& Array::operator=(const Array& o) noexcept {
    if (o.impl_) o.impl_->retain();
    if (impl_) impl_->release();
    impl_ = o.impl_;
    return *this;
}

Array& Array::operator=(Array&& o) noexcept {
    if (this != &o) {
        if (impl_) impl_->release();
        impl_ = std::exchange(o.impl_, nullptr);
    }
    return *this;
}

Array::~Array() {
    if (impl_) impl_->release();
}

ArrayType Array::getType() const noexcept { return impl_ ? impl_->type : ArrayType::UNKNOWN; }
const Dims& Array::getDimensions() const noexcept { return impl_ ? impl_->dims : kEmptyDims; }
std::uint64_t Array::getNumberOfElements() const noexcept { return impl_ ? impl_->numel : 0; }

ArrayElementRef Array::operator[](std::uint64_t index) { return ArrayElementRef(this, index, true); }
ArrayElementRef Array::operator[](std::uint64_t index) const {
    return ArrayElementRef(const_cast<Array*>(this), index, false);
}

ArrayImpl& Array::mutableImpl() {
    if (!impl_) throw ArrayException("The array has no contents.");
    if (impl_->shared()) {
        ArrayImpl* copy = impl_->clone();
        impl_->release();
        impl_ = copy;
    }
    return *impl_;
}

const ArrayImpl& Array::impl() const {
    if (!impl_) throw ArrayException("The array has no contents.");
    return *impl_;
}

bool isSparse(const Array& a) { return isSparseType(a.getType()); }

namespace {

template <typename T>
bool rawEquals(const AlignedBuffer& a, const AlignedBuffer& b, std::uint64_t n) {
    const T* pa = reinterpret_cast<const T*>(a.data());
    const T* pb = reinterpret_cast<const T*>(b.data());
    if constexpr (std::is_integral_v<T>) {
        return n == 0 || std::memcmp(pa, pb, n * sizeof(T)) == 0;
    } else {
        for (std::uint64_t i = 0; i < n; ++i)
            if (!foundation::veltradata::detail::elementEquals(pa[i], pb[i])) return false;
        return true;
    }
}

ArrayType sparseElementType(ArrayType t) {
    return t == ArrayType::SPARSE_30 ? ArrayType::DOUBLE
         : t == ArrayType::SPARSE_31 ? ArrayType::LOGICAL
                                     : ArrayType::COMPLEX_DOUBLE;
}

// The stored non-zero values of a sparse array by column-major position. Stored zeros and the order of the
// triplets are representation, not value, so equality looks only at this.
template <typename T>
std::vector<std::pair<std::uint64_t, T>> sparseEntries(const SparseStorage& s, std::uint64_t rowCount) {
    std::vector<std::pair<std::uint64_t, T>> out;
    const std::uint8_t* base = s.values.data();
    for (std::size_t k = 0; k < s.rows.size(); ++k) {
        T v;
        if constexpr (std::is_same_v<T, bool>) v = base[k] != 0;
        else std::memcpy(&v, base + k * sizeof(T), sizeof(T));
        if (v == T{}) continue;
        out.emplace_back(s.cols[k] * rowCount + s.rows[k], v);
    }
    std::sort(out.begin(), out.end(), [](const auto& a, const auto& b) { return a.first < b.first; });
    return out;
}

// The class an object array reports: its first element's when that has one (see getClassInfo).
const VeltraClassIdentifier& effectiveClass(const ObjectStorage& s) {
    if (!s.objects.empty() && !s.objects[0].getClassInfo().getClassIdentifier().getClassName().empty())
        return s.objects[0].getClassInfo().getClassIdentifier();
    return s.classInfo.getClassIdentifier();
}

}  // namespace

bool operator==(const Array& a, const Array& b) {
    const ArrayImpl* x = a.getImpl();
    const ArrayImpl* y = b.getImpl();
    if (x == y) return true;
    if (!x || !y) return false;
    if (x->type != y->type || x->dims != y->dims) return false;
    const ArrayType t = x->type;
    if (isRawBufferType(t)) {
        return foundation::veltradata::detail::visitRawType(t, [&](auto tag) {
            return rawEquals<decltype(tag)>(x->get<AlignedBuffer>(), y->get<AlignedBuffer>(), x->numel);
        });
    }
    if (isSparseType(t)) {
        const auto& s = x->get<SparseStorage>();
        const auto& u = y->get<SparseStorage>();
        return foundation::veltradata::detail::visitRawType(sparseElementType(t), [&](auto tag) {
            using T = decltype(tag);
            const auto p = sparseEntries<T>(s, x->dims[0]);
            const auto q = sparseEntries<T>(u, y->dims[0]);
            return std::equal(p.begin(), p.end(), q.begin(), q.end(), [](const auto& a, const auto& b) {
                return a.first == b.first && foundation::veltradata::detail::elementEquals(a.second, b.second);
            });
        });
    }
    switch (t) {
        case ArrayType::CELL:
            return x->get<std::vector<Array>>() == y->get<std::vector<Array>>();
        case ArrayType::STRUCT: {
            const auto& s = x->get<StructStorage>();
            const auto& u = y->get<StructStorage>();
            return s.fields == u.fields && s.values == u.values;
        }
        case ArrayType::VELTRA_STRING:
            return x->get<std::vector<VeltraString>>() == y->get<std::vector<VeltraString>>();
        case ArrayType::VALUE_OBJECT: {
            // Compared as the user sees them: the class (not its declaration lists), the elements and the
            // presented dimensions, whether those were set explicitly or default to the array's own.
            const auto& s = x->get<ObjectStorage>();
            const auto& u = y->get<ObjectStorage>();
            const Dims& se = s.externalDims.empty() ? x->dims : s.externalDims;
            const Dims& ue = u.externalDims.empty() ? y->dims : u.externalDims;
            return effectiveClass(s) == effectiveClass(u) && s.objects == u.objects && se == ue;
        }
        case ArrayType::HANDLE_OBJECT_REF:
            return x->get<std::vector<HandleObjectRef>>() == y->get<std::vector<HandleObjectRef>>();
        case ArrayType::ENUM: {
            const auto& s = x->get<EnumStorage>();
            const auto& u = y->get<EnumStorage>();
            return s.className == u.className && s.values == u.values;
        }
        default:
            return true;  // kinds without elements
    }
}

// ---- ClassInfo, ValueObject ----

struct ClassInfo::Data {
    VeltraClassIdentifier id;
    std::vector<VeltraPropertyIdentifier> first, second;
};

ClassInfo::ClassInfo(VeltraClassIdentifier id, std::vector<VeltraPropertyIdentifier> first,
                     std::vector<VeltraPropertyIdentifier> second)
    : data_(std::make_shared<const Data>(Data{std::move(id), std::move(first), std::move(second)})) {}

const VeltraClassIdentifier& ClassInfo::getClassIdentifier() const {
    static const VeltraClassIdentifier kNone{""};
    return data_ ? data_->id : kNone;
}
const std::vector<VeltraPropertyIdentifier>& ClassInfo::getFirstProperties() const {
    static const std::vector<VeltraPropertyIdentifier> kNone;
    return data_ ? data_->first : kNone;
}
const std::vector<VeltraPropertyIdentifier>& ClassInfo::getSecondProperties() const {
    static const std::vector<VeltraPropertyIdentifier> kNone;
    return data_ ? data_->second : kNone;
}
bool ClassInfo::operator==(const ClassInfo& o) const {
    return getClassIdentifier() == o.getClassIdentifier() && getFirstProperties() == o.getFirstProperties() &&
           getSecondProperties() == o.getSecondProperties();
}

Struct::Struct(std::vector<std::string> fields, std::vector<Array> values)
    : fields_(std::move(fields)), values_(std::move(values)) {
    if (fields_.size() != values_.size()) throw ArrayException("A struct needs one value per field.");
}

std::vector<VeltraFieldIdentifier> Struct::getFieldNames() const {
    return std::vector<VeltraFieldIdentifier>(fields_.begin(), fields_.end());
}

bool Struct::hasField(const std::string& field) const {
    return std::find(fields_.begin(), fields_.end(), field) != fields_.end();
}

const Array& Struct::operator[](const std::string& field) const {
    auto it = std::find(fields_.begin(), fields_.end(), field);
    if (it == fields_.end()) throw ArrayException("The struct has no field '" + field + "'.");
    return values_[static_cast<std::size_t>(it - fields_.begin())];
}

bool ValueObject::hasProperty(const VeltraPropertyIdentifier& id) const {
    return std::any_of(props_.begin(), props_.end(), [&](const Property& p) { return p.getIdentifier() == id; });
}

const Array& ValueObject::operator[](const VeltraPropertyIdentifier& id) const {
    for (const Property& p : props_)
        if (p.getIdentifier() == id) return p.getValue();
    throw ArrayException("The object has no property '" + id.getPropertyName() + "'.");
}

Array& ValueObject::operator[](const VeltraPropertyIdentifier& id) {
    for (Property& p : props_)
        if (p.getIdentifier() == id) return p.getValue();
    props_.emplace_back(id, emptyArray());
    return props_.back().getValue();
}

bool ValueObject::operator==(const ValueObject& o) const {
    if (info_.getClassIdentifier() != o.info_.getClassIdentifier() || props_.size() != o.props_.size())
        return false;
    for (const Property& p : props_) {
        if (!o.hasProperty(p.getIdentifier()) || !(o[p.getIdentifier()] == p.getValue())) return false;
    }
    return true;
}

// ---- Element references ----

ArrayElementRef::ArrayElementRef(Array* owner, std::uint64_t index, bool writable) noexcept
    : owner_(owner), writable_(writable) {
    idx_[0] = index;
}

ArrayElementRef ArrayElementRef::operator[](std::uint64_t next) const {
    if (hasField_) mismatch("A struct field cannot be indexed further by position.");
    if (nidx_ >= kMaxIndices) throw IndexOutOfRangeException();
    ArrayElementRef r = *this;
    r.idx_[r.nidx_++] = next;
    return r;
}

ArrayElementRef ArrayElementRef::addIndex(const std::string& field) const {
    if (owner_->getType() != ArrayType::STRUCT) mismatch("Only struct elements can be indexed by a field name.");
    if (hasField_) mismatch("A struct field cannot be indexed by a second field name.");
    ArrayElementRef r = *this;
    r.hasField_ = true;
    r.field_ = field;
    return r;
}

std::uint64_t ArrayElementRef::linearIndex() const {
    const ArrayImpl& impl = owner_->impl();
    if (nidx_ == 1) {
        if (idx_[0] >= impl.numel) throw IndexOutOfRangeException();
        return idx_[0];
    }
    const Dims& d = impl.dims;
    if (nidx_ > d.size()) throw IndexOutOfRangeException();
    std::uint64_t pos = 0, stride = 1;
    for (std::size_t k = 0; k < nidx_; ++k) {
        // The last index may run over all the remaining (trailing) dimensions.
        std::uint64_t extent = d[k];
        if (k + 1 == nidx_)
            for (std::size_t j = k + 1; j < d.size(); ++j) extent *= d[j];
        if (idx_[k] >= extent) throw IndexOutOfRangeException();
        pos += idx_[k] * stride;
        stride *= d[k];
    }
    return pos;
}

namespace {
// Position of a struct field value; throws for an unknown field.
std::size_t fieldSlot(const StructStorage& s, std::uint64_t element, const std::string& field) {
    auto it = std::find(s.fields.begin(), s.fields.end(), field);
    if (it == s.fields.end()) throw ArrayException("The struct has no field '" + field + "'.");
    return static_cast<std::size_t>(element * s.fields.size() + (it - s.fields.begin()));
}
}  // namespace

void ArrayElementRef::requireWritable() const {
    if (!writable_) throw ArrayException("The element is read-only.");
}

void ArrayElementRef::readRaw(ArrayType want, void* out, bool exact) const {
    const ArrayImpl& impl = owner_->impl();
    if (hasField_ || !isRawBufferType(impl.type)) mismatch("The element is not a numeric, logical or char value.");
    if (exact && impl.type != want) mismatch("The element is not of the requested type.");
    const std::uint64_t i = linearIndex();
    const std::uint8_t* base = impl.get<AlignedBuffer>().data();
    foundation::veltradata::detail::visitRawType(impl.type, [&](auto s) {
        using S = decltype(s);
        S v;
        // A logical byte is read as zero or not: loading any other byte value as a bool is undefined.
        if constexpr (std::is_same_v<S, bool>) v = base[i] != 0;
        else std::memcpy(&v, base + i * sizeof(S), sizeof(S));
        foundation::veltradata::detail::visitRawType(want, [&](auto d) {
            using D = decltype(d);
            D r = foundation::veltradata::detail::convertElement<D>(v);
            std::memcpy(out, &r, sizeof(D));
        });
    });
}

void ArrayElementRef::writeRaw(ArrayType from, const void* in) {
    requireWritable();
    const ArrayType t = owner_->getType();
    if (hasField_ || !isRawBufferType(t)) mismatch("The element is not a numeric, logical or char value.");
    const std::uint64_t i = linearIndex();
    ArrayImpl& impl = owner_->mutableImpl();
    std::uint8_t* base = impl.get<AlignedBuffer>().data();
    foundation::veltradata::detail::visitRawType(from, [&](auto s) {
        using S = decltype(s);
        S v;
        std::memcpy(&v, in, sizeof(S));
        foundation::veltradata::detail::visitRawType(t, [&](auto d) {
            using D = decltype(d);
            D r = foundation::veltradata::detail::convertElement<D>(v);
            std::memcpy(base + i * sizeof(D), &r, sizeof(D));
        });
    });
}

Array ArrayElementRef::readArray() const {
    const ArrayImpl& impl = owner_->impl();
    if (impl.type == ArrayType::CELL) {
        if (hasField_) mismatch("A cell element has no fields.");
        return impl.get<std::vector<Array>>()[linearIndex()];
    }
    if (impl.type == ArrayType::STRUCT) {
        if (!hasField_) mismatch("A struct element is read by field name.");
        const auto& s = impl.get<StructStorage>();
        return s.values[fieldSlot(s, linearIndex(), field_)];
    }
    mismatch("The element is not an array: only cell elements and struct fields are.");
}

void ArrayElementRef::writeArray(const Array& a) {
    requireWritable();
    const ArrayType t = owner_->getType();
    if (t == ArrayType::CELL && !hasField_) {
        const std::uint64_t i = linearIndex();
        owner_->mutableImpl().get<std::vector<Array>>()[i] = a;
        return;
    }
    if (t == ArrayType::STRUCT && hasField_) {
        const std::uint64_t i = linearIndex();
        const std::size_t slot = fieldSlot(owner_->impl().get<StructStorage>(), i, field_);
        owner_->mutableImpl().get<StructStorage>().values[slot] = a;
        return;
    }
    mismatch("Only cell elements and struct fields hold arrays.");
}

Struct ArrayElementRef::readStruct() const {
    const ArrayImpl& impl = owner_->impl();
    if (impl.type != ArrayType::STRUCT || hasField_) mismatch("The element is not a struct element.");
    const auto& s = impl.get<StructStorage>();
    const std::size_t nf = s.fields.size();
    const std::size_t first = static_cast<std::size_t>(linearIndex()) * nf;
    return Struct(s.fields, std::vector<Array>(s.values.begin() + first, s.values.begin() + first + nf));
}

ArrayElementRef& ArrayElementRef::operator=(const ArrayElementRef& o) {
    const ArrayType t = o.owner_->getType();
    if (o.hasField_ || t == ArrayType::CELL) {
        writeArray(o.readArray());
    } else if (isRawBufferType(t)) {
        alignas(16) unsigned char value[16];  // the largest element: a complex double
        o.readRaw(t, value, true);
        writeRaw(t, value);
    } else if (t == ArrayType::VELTRA_STRING) {
        writeString(o.readString());
    } else if (t == ArrayType::VALUE_OBJECT) {
        writeValueObject(o.readValueObject());
    } else if (t == ArrayType::HANDLE_OBJECT_REF) {
        writeHandle(o.readHandle());
    } else {
        mismatch("An element of this kind cannot be assigned.");
    }
    return *this;
}

VeltraString ArrayElementRef::readString() const {
    const ArrayImpl& impl = owner_->impl();
    if (impl.type != ArrayType::VELTRA_STRING || hasField_) mismatch("The element is not a string.");
    return impl.get<std::vector<VeltraString>>()[linearIndex()];
}

void ArrayElementRef::writeString(const VeltraString& s) {
    requireWritable();
    const ArrayType t = owner_->getType();
    if (t == ArrayType::VELTRA_STRING && !hasField_) {
        const std::uint64_t i = linearIndex();
        owner_->mutableImpl().get<std::vector<VeltraString>>()[i] = s;
        return;
    }
    ClientArrayFactory f;
    writeArray(f.createStringArray({1, 1}, {s}));
}

void ArrayElementRef::writeUtf8(const std::string& s) {
    if (owner_->getType() == ArrayType::VELTRA_STRING && !hasField_) {
        writeString(utf8ToUtf16(s));
        return;
    }
    ClientArrayFactory f;
    writeArray(f.createCharArray(s));
}

std::string ArrayElementRef::castToString() const {
    Array a = readArray();
    if (a.getType() != ArrayType::CHAR) mismatch("The element is not a char array.");
    return utf16ToUtf8(CharArray(a).toUTF16());
}

bool ArrayElementRef::has_value() const { return readString().has_value(); }

ArrayElementRef::operator std::u16string() const {
    VeltraString s = readString();
    if (!s) throw ArrayException("Missing string value.");
    return *s;
}

ValueObject ArrayElementRef::readValueObject() const {
    const ArrayImpl& impl = owner_->impl();
    if (impl.type != ArrayType::VALUE_OBJECT || hasField_) mismatch("The element is not a value object.");
    return impl.get<ObjectStorage>().objects[linearIndex()];
}

void ArrayElementRef::writeValueObject(const ValueObject& v) {
    requireWritable();
    if (owner_->getType() != ArrayType::VALUE_OBJECT || hasField_) mismatch("The element is not a value object.");
    const std::uint64_t i = linearIndex();
    owner_->mutableImpl().get<ObjectStorage>().objects[i] = v;
}

HandleObjectRef ArrayElementRef::readHandle() const {
    const ArrayImpl& impl = owner_->impl();
    if (impl.type != ArrayType::HANDLE_OBJECT_REF || hasField_) mismatch("The element is not a handle reference.");
    return impl.get<std::vector<HandleObjectRef>>()[linearIndex()];
}

void ArrayElementRef::writeHandle(const HandleObjectRef& h) {
    requireWritable();
    if (owner_->getType() != ArrayType::HANDLE_OBJECT_REF || hasField_)
        mismatch("The element is not a handle reference.");
    const std::uint64_t i = linearIndex();
    owner_->mutableImpl().get<std::vector<HandleObjectRef>>()[i] = h;
}

EnumValue ArrayElementRef::readEnum() const {
    const ArrayImpl& impl = owner_->impl();
    if (impl.type != ArrayType::ENUM || hasField_) mismatch("The element is not an enumeration value.");
    return impl.get<EnumStorage>().values[linearIndex()];
}

void handle_ref_set_value_x(HandleRef dst, const HandleRef& src) { dst.setElement(*src); }

// ---- Views ----

namespace detail {

void checkViewKind(const Array& a, ArrayType want) {
    if (a.getType() != want) {
        throw TypeMismatchException(std::string("Cannot view an array of type ") + arrayTypeName(a.getType()) +
                                    " as " + arrayTypeName(want) + ".");
    }
}

std::uint8_t* rawData(Array& a, bool forWrite) {
    if (!isRawBufferType(a.getType())) mismatch("The array has no raw element buffer.");
    if (forWrite) return a.mutableImpl().get<AlignedBuffer>().data();
    return const_cast<std::uint8_t*>(a.impl().get<AlignedBuffer>().data());
}

}  // namespace detail

const std::uint8_t* elementBytes(const Array& a) {
    if (!isRawBufferType(a.getType())) mismatch("The array has no raw element buffer.");
    return a.impl().get<AlignedBuffer>().data();
}

const Array* cellElements(const Array& a) {
    detail::checkViewKind(a, ArrayType::CELL);
    return a.impl().get<std::vector<Array>>().data();
}

const VeltraString* stringElements(const Array& a) {
    detail::checkViewKind(a, ArrayType::VELTRA_STRING);
    return a.impl().get<std::vector<VeltraString>>().data();
}

const ValueObject* valueObjects(const Array& a) {
    detail::checkViewKind(a, ArrayType::VALUE_OBJECT);
    return a.impl().get<detail::ObjectStorage>().objects.data();
}

std::uint8_t* mutableElementBytes(Array& a) { return detail::rawData(a, true); }

Array Array::adoptHandle(void* handle) noexcept { return Array(static_cast<ArrayImpl*>(handle)); }

void* Array::shareHandle() const noexcept {
    if (impl_) impl_->retain();
    return impl_;
}

std::u16string CharArray::toUTF16() const {
    const char16_t* p = data();
    return std::u16string(p, p + getNumberOfElements());
}

std::string CharArray::toAscii() const {
    const char16_t* p = data();
    std::string out;
    out.reserve(getNumberOfElements());
    for (std::uint64_t i = 0; i < getNumberOfElements(); ++i) {
        if (p[i] > 127) throw NonAsciiCharException("The char array holds a character that is not ASCII.");
        out.push_back(static_cast<char>(p[i]));
    }
    return out;
}

std::size_t StructArray::getNumberOfFields() const { return impl().get<StructStorage>().fields.size(); }

std::vector<VeltraFieldIdentifier> StructArray::getFieldNames() const {
    std::vector<VeltraFieldIdentifier> out;
    for (const std::string& f : impl().get<StructStorage>().fields) out.emplace_back(f);
    return out;
}

ClassInfo ValueObjectArray::getClassInfo() const {
    const auto& s = impl().get<ObjectStorage>();
    if (!s.objects.empty() && !s.objects[0].getClassInfo().getClassIdentifier().getClassName().empty())
        return s.objects[0].getClassInfo();
    return s.classInfo;
}

Array ValueObjectArray::operator[](const VeltraPropertyIdentifier& id) const {
    const auto& s = impl().get<ObjectStorage>();
    if (s.objects.size() == 1) return s.objects[0][id];
    ClientArrayFactory f;
    std::vector<Array> values;
    values.reserve(s.objects.size());
    for (const ValueObject& o : s.objects) values.push_back(o[id]);
    return f.createCellArray(getDimensions(), std::move(values));
}

bool ValueObjectArray::hasArrayProperty(const VeltraPropertyIdentifier& id) const {
    const auto& s = impl().get<ObjectStorage>();
    return !s.objects.empty() &&
           std::all_of(s.objects.begin(), s.objects.end(), [&](const ValueObject& o) { return o.hasProperty(id); });
}

Dims ValueObjectArray::getExternalDimensions() const {
    const auto& s = impl().get<ObjectStorage>();
    return s.externalDims.empty() ? getDimensions() : s.externalDims;
}

void ValueObjectArray::setExternalDimensions(Dims dims) {
    mutableImpl().get<ObjectStorage>().externalDims = normalizeDims(std::move(dims));
}

void ValueObjectArray::setProperty(std::uint64_t index, const VeltraPropertyIdentifier& id, const Array& value) {
    if (index >= getNumberOfElements()) throw IndexOutOfRangeException();
    mutableImpl().get<ObjectStorage>().objects[index][id] = value;
}

std::string EnumArray::getClassName() const { return impl().get<EnumStorage>().className; }

}  // namespace foundation::veltradata

namespace foundation::veltradata::detail {

ArrayImpl* ArrayImpl::clone() const {
    Storage copy = std::visit(
        [](const auto& s) -> Storage {
            using S = std::decay_t<decltype(s)>;
            if constexpr (std::is_same_v<S, AlignedBuffer>) {
                return s.clone();
            } else if constexpr (std::is_same_v<S, SparseStorage>) {
                return SparseStorage{s.rows, s.cols, s.values.clone()};
            } else {
                return s;
            }
        },
        storage);
    return new ArrayImpl(type, dims, numel, std::move(copy));
}

}  // namespace foundation::veltradata::detail
