// One contiguous, 64-byte-aligned block of element bytes. Internal to the array library and its close users
// (serialization, the typed array package): everything else reaches elements through typed views.
#pragma once

#include <cstddef>
#include <cstdint>

namespace foundation::veltradata::detail {

// Throws std::bad_alloc when `bytes` exceeds what this machine could ever back (physical memory plus swap).
// Called before every allocation whose size comes from claimed dimensions: asking the allocator first is not
// safe, since some allocators (sanitizer runtimes among them) abort on absurd requests instead of failing.
void checkAllocationSize(std::size_t bytes);

// Asks the kernel to back the whole 2 MiB pages inside [p, p + bytes) with huge pages before they are first
// written; worth it only for blocks of several MiB that are about to be filled.
void adviseHugePages(void* p, std::size_t bytes) noexcept;

class AlignedBuffer {
public:
    static constexpr std::size_t kAlignment = 64;

    AlignedBuffer() noexcept = default;
    // Uninitialised storage of `bytes` bytes; zero-filled when `zeroed`. Throws std::bad_alloc.
    explicit AlignedBuffer(std::size_t bytes, bool zeroed = true);
    AlignedBuffer(const AlignedBuffer&) = delete;
    AlignedBuffer& operator=(const AlignedBuffer&) = delete;
    AlignedBuffer(AlignedBuffer&& o) noexcept;
    AlignedBuffer& operator=(AlignedBuffer&& o) noexcept;
    ~AlignedBuffer();

    // Never null, also for zero bytes, so that a buffer export always has a valid address.
    std::uint8_t* data() noexcept { return data_ ? data_ : empty_; }
    const std::uint8_t* data() const noexcept { return data_ ? data_ : empty_; }
    std::size_t size() const noexcept { return size_; }
    AlignedBuffer clone() const;

private:
    void reset() noexcept;
    std::uint8_t* data_ = nullptr;
    std::size_t size_ = 0;
    std::size_t mapped_ = 0;  // non-zero when the block came from mmap
    void* mapBase_ = nullptr;
    alignas(kAlignment) static std::uint8_t empty_[kAlignment];
};

}  // namespace foundation::veltradata::detail
