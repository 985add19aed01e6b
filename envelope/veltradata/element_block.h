// One contiguous, 64-byte-aligned block of element bytes. Internal to the array library and its close users
// (serialization, the typed array package): everything else reaches elements through typed views.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace foundation::veltradata::detail {

// Throws std::bad_alloc when `bytes` exceeds what this machine could ever back (physical memory plus swap).
// Called before every allocation whose size comes from claimed dimensions: asking the allocator first is not
// safe, since some allocators (sanitizer runtimes among them) abort on absurd requests instead of failing.
void checkAllocationSize(std::size_t bytes);

// Small objects the library makes by the hundred thousand (implementation objects, tiny element blocks):
// allocateSmall gives a block of at least `bytes` bytes, from a pool of 64-byte-aligned blocks when bytes <=
// kPooledBlockMax (except in sanitizer builds), from the general heap otherwise; deallocateSmall takes it
// back with the same size. Throws std::bad_alloc. The pool cuts slabs of kPoolSlabBytes from memory mapped for
// it; slabs none of whose blocks is in use are kept for the next call up to kPoolIdleBytesKept over all size
// classes, and unmapped beyond that.
inline constexpr std::size_t kPooledBlockMax = 256;
inline constexpr std::size_t kPoolSlabBytes = std::size_t{64} << 10;
inline constexpr std::size_t kPoolIdleBytesKept = std::size_t{32} << 20;
void* allocateSmall(std::size_t bytes);
void deallocateSmall(void* p, std::size_t bytes) noexcept;
// The bytes of slabs the pool holds now, in use or not.
std::size_t pooledBytes() noexcept;

// Gives back to the system what is free but kept for reuse: the pool's slabs with no block in use, and the C
// library's free heap pages (arrays keep parts there, dimensions and lists of elements, and the C library
// holds on to what they freed, often for good). For the end of a call that made and dropped a great many
// arrays, so that the process shrinks back: it walks the heap's free lists (milliseconds after a call of
// millions of values), and the next call maps and touches its memory afresh.
void releaseFreeMemory() noexcept;

// Asks the kernel to back the whole 2 MiB pages inside [p, p + bytes) with huge pages before they are first
// written; worth it only for blocks of several MiB that are about to be filled.
void adviseHugePages(void* p, std::size_t bytes) noexcept;

// Elements that live in memory the library does not own (another program's buffer), borrowed for a short
// while instead of copied. Whoever makes one keeps that memory valid and unchanged until it is destroyed.
class ExternalElements {
public:
    virtual ~ExternalElements() = default;
    // The elements in column-major order where they lie, or null when they lie in another order.
    virtual const std::uint8_t* columnMajor() const noexcept = 0;
    // Writes every element, column-major, to `out`: exactly the bytes of the buffer that borrows them.
    virtual void copyTo(std::uint8_t* out) const = 0;
};

class AlignedBuffer {
public:
    static constexpr std::size_t kAlignment = 64;

    AlignedBuffer() noexcept = default;
    // Uninitialised storage of `bytes` bytes; zero-filled when `zeroed`. Throws std::bad_alloc.
    explicit AlignedBuffer(std::size_t bytes, bool zeroed = true);
    // `bytes` bytes of elements borrowed from `source` rather than held. Reads reach the source (elements in
    // another order are first copied into storage of its own), copyTo() writes from it in one pass, and the
    // first write through the non-const data() takes storage of its own. Changes form under const: never for
    // buffers that several threads read at once.
    static AlignedBuffer borrow(std::size_t bytes, std::unique_ptr<const ExternalElements> source);
    AlignedBuffer(const AlignedBuffer&) = delete;
    AlignedBuffer& operator=(const AlignedBuffer&) = delete;
    AlignedBuffer(AlignedBuffer&& o) noexcept;
    AlignedBuffer& operator=(AlignedBuffer&& o) noexcept;
    ~AlignedBuffer();

    // Never null, also for zero bytes, so that a buffer export always has a valid address. A borrowing buffer
    // may allocate here (and throw std::bad_alloc).
    std::uint8_t* data() {
        if (source_) own();
        return data_ ? data_ : empty_;
    }
    const std::uint8_t* data() const {
        if (source_) {
            if (const std::uint8_t* p = source_->columnMajor()) return p;
            const_cast<AlignedBuffer*>(this)->own();  // never a const object: buffers live in array storage
        }
        return data_ ? data_ : empty_;
    }
    std::size_t size() const noexcept { return size_; }
    bool borrowed() const noexcept { return source_ != nullptr; }
    // Writes the size() bytes to `out`, from wherever the elements lie.
    void copyTo(std::uint8_t* out) const;
    // Storage of its own, also for a borrowing buffer.
    AlignedBuffer clone() const;

private:
    void reset() noexcept;
    void own();
    std::uint8_t* data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t mapped_ = 0;  // non-zero when the block came from mmap
    void* mapBase_ = nullptr;
    std::unique_ptr<const ExternalElements> source_;  // set while the elements are borrowed
    alignas(kAlignment) static std::uint8_t empty_[kAlignment];
};

}  // namespace foundation::veltradata::detail
