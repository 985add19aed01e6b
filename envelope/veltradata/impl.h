// The shared implementation behind Array. Internal: used by the library, the serializer and the typed array
// package; converters never include it. A pointer to it is the "array implementation handle" passed between
// the two extension modules; its first virtual operation, retain(), gives the receiver a hold of its own.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <variant>
#include <vector>

#include "array.h"
#include "element_block.h"

namespace foundation::veltradata::detail {

using foundation::veltradata::Array;
using foundation::veltradata::ArrayType;
using foundation::veltradata::Dims;

struct StructStorage {
    std::vector<std::string> fields;
    std::vector<Array> values;  // element-major: element e, field f at e * fields.size() + f
};

struct ObjectStorage {
    foundation::veltradata::ClassInfo classInfo;
    std::vector<foundation::veltradata::ValueObject> objects;
    Dims externalDims;  // empty: same as the array's dimensions
    bool uniform = true;
};

struct EnumStorage {
    std::string className;
    std::vector<foundation::veltradata::EnumValue> values;
};

struct SparseStorage {
    std::vector<std::uint64_t> rows, cols;  // zero-based positions of the stored values
    AlignedBuffer values;                   // one element of the sparse kind's element type per position
};

using Storage = std::variant<std::monostate, AlignedBuffer, std::vector<Array>, StructStorage,
                             std::vector<foundation::veltradata::VeltraString>, ObjectStorage,
                             std::vector<foundation::veltradata::HandleObjectRef>, EnumStorage, SparseStorage>;

class ArrayImpl {
public:
    ArrayImpl(ArrayType type, Dims dims, std::uint64_t numel, Storage storage)
        : type(type), dims(std::move(dims)), numel(numel), storage(std::move(storage)) {}
    ArrayImpl(const ArrayImpl&) = delete;
    ArrayImpl& operator=(const ArrayImpl&) = delete;
    // From the library's pool of small blocks: scalars come and go by the hundred thousand.
    static void* operator new(std::size_t bytes) { return allocateSmall(bytes); }
    static void operator delete(void* p, std::size_t bytes) noexcept { deallocateSmall(p, bytes); }

    // First operation of the handle: one more hold.
    virtual void retain() noexcept { holds.fetch_add(1, std::memory_order_relaxed); }
    // Drops one hold; the last one deletes the implementation.
    virtual void release() noexcept {
        if (holds.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }
    virtual ~ArrayImpl() = default;

    bool shared() const noexcept { return holds.load(std::memory_order_acquire) > 1; }
    // A deep copy of the storage (nested arrays stay shared: they are values themselves).
    ArrayImpl* clone() const;

    template <typename S> S& get() { return std::get<S>(storage); }
    template <typename S> const S& get() const { return std::get<S>(storage); }

    const ArrayType type;
    Dims dims;  // changed only by an in-place reshape of an unshared array
    const std::uint64_t numel;
    Storage storage;
    std::atomic<std::uint32_t> holds{1};
};

}  // namespace foundation::veltradata::detail
