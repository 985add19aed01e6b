#include "buffer.h"

#include <sys/mman.h>
#include <sys/sysinfo.h>

#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <utility>

namespace veltra::data {

namespace {
// Large blocks come straight from mmap: already zero, returned to the system on release, and eligible for
// transparent huge pages, which cuts the page-fault cost of first touch by a large factor.
constexpr std::size_t kMapThreshold = std::size_t{1} << 20;
constexpr std::size_t kHugePage = std::size_t{2} << 20;
}  // namespace

namespace {
std::size_t machineMemoryLimit() {
    struct sysinfo info {};
    if (::sysinfo(&info) != 0) return std::numeric_limits<std::size_t>::max();
    const unsigned __int128 total =
        (static_cast<unsigned __int128>(info.totalram) + info.totalswap) * (info.mem_unit ? info.mem_unit : 1);
    return total > std::numeric_limits<std::size_t>::max() ? std::numeric_limits<std::size_t>::max()
                                                           : static_cast<std::size_t>(total);
}
}  // namespace

void checkAllocationSize(std::size_t bytes) {
    static const std::size_t limit = machineMemoryLimit();
    if (bytes > limit) throw std::bad_alloc();
}

alignas(AlignedBuffer::kAlignment) std::uint8_t AlignedBuffer::empty_[AlignedBuffer::kAlignment] = {};

AlignedBuffer::AlignedBuffer(std::size_t bytes, bool zeroed) : size_(bytes) {
    if (bytes == 0) return;
    checkAllocationSize(bytes);
    if (bytes >= kMapThreshold) {
        if (bytes > SIZE_MAX - 2 * kHugePage) throw std::bad_alloc();
        std::size_t len = bytes + kHugePage;
        void* base = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (base == MAP_FAILED) throw std::bad_alloc();
        auto addr = reinterpret_cast<std::uintptr_t>(base);
        std::uintptr_t aligned = (addr + kHugePage - 1) & ~(kHugePage - 1);
#ifdef MADV_HUGEPAGE
        ::madvise(reinterpret_cast<void*>(aligned), bytes, MADV_HUGEPAGE);
#endif
        mapBase_ = base;
        mapped_ = len;
        data_ = reinterpret_cast<std::uint8_t*>(aligned);
        return;
    }
    std::size_t rounded = (bytes + kAlignment - 1) / kAlignment * kAlignment;
    void* p = std::aligned_alloc(kAlignment, rounded);
    if (!p) throw std::bad_alloc();
    data_ = static_cast<std::uint8_t*>(p);
    if (zeroed) std::memset(data_, 0, bytes);
}

AlignedBuffer::AlignedBuffer(AlignedBuffer&& o) noexcept
    : data_(std::exchange(o.data_, nullptr)),
      size_(std::exchange(o.size_, 0)),
      mapped_(std::exchange(o.mapped_, 0)),
      mapBase_(std::exchange(o.mapBase_, nullptr)) {}

AlignedBuffer& AlignedBuffer::operator=(AlignedBuffer&& o) noexcept {
    if (this != &o) {
        reset();
        data_ = std::exchange(o.data_, nullptr);
        size_ = std::exchange(o.size_, 0);
        mapped_ = std::exchange(o.mapped_, 0);
        mapBase_ = std::exchange(o.mapBase_, nullptr);
    }
    return *this;
}

AlignedBuffer::~AlignedBuffer() { reset(); }

void AlignedBuffer::reset() noexcept {
    if (mapped_) {
        ::munmap(mapBase_, mapped_);
    } else {
        std::free(data_);
    }
    data_ = nullptr;
    mapBase_ = nullptr;
    size_ = mapped_ = 0;
}

AlignedBuffer AlignedBuffer::clone() const {
    AlignedBuffer b(size_, false);
    if (size_) std::memcpy(b.data(), data(), size_);
    return b;
}

}  // namespace veltra::data
