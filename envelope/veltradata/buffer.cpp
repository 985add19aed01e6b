#include "buffer.h"

#include <sys/mman.h>
#include <sys/sysinfo.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <thread>
#include <utility>

namespace foundation::veltradata::detail {

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

namespace {

#if defined(__SANITIZE_ADDRESS__)
#define VELTRA_POOL_SMALL_BLOCKS 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VELTRA_POOL_SMALL_BLOCKS 0
#endif
#endif
#ifndef VELTRA_POOL_SMALL_BLOCKS
#define VELTRA_POOL_SMALL_BLOCKS 1
#endif

// Scalars and other tiny arrays are the most frequent allocation by far: their element blocks and their
// implementation objects. Aligned allocation of many small blocks fragments the general heap badly (memalign
// splits chunks), and a hundred thousand implementation objects alive at once push the general allocator off
// its fast paths, so blocks of each size class (multiples of one alignment unit) come from slabs kept on a
// free list instead. Slabs are never returned: what is kept is bounded by the peak number of small objects
// alive at once. Sanitizer builds allocate each block separately so that misuse is still caught.
class BlockPool {
public:
    static constexpr std::size_t kUnit = AlignedBuffer::kAlignment;
    static constexpr std::size_t kSlabBytes = std::size_t{16} << 10;

    explicit BlockPool(std::size_t block) : block_(block) {}

    void* allocate() {
        Lock lock(busy_);
        if (!free_) refill();
        Node* n = free_;
        free_ = n->next;
        return n;
    }
    void deallocate(void* p) noexcept {
        Lock lock(busy_);
        Node* n = static_cast<Node*>(p);
        n->next = free_;
        free_ = n;
    }

private:
    struct Node {
        Node* next;
    };
    // Held for a few instructions, and mostly by one thread (the interpreter's lock serialises callers): a
    // spin costs less than a mutex.
    class Lock {
    public:
        explicit Lock(std::atomic_flag& f) noexcept : f_(f) {
            while (f_.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
        }
        ~Lock() { f_.clear(std::memory_order_release); }

    private:
        std::atomic_flag& f_;
    };
    void refill() {
        void* slab = std::aligned_alloc(kUnit, kSlabBytes);
        if (!slab) throw std::bad_alloc();
        auto* bytes = static_cast<std::uint8_t*>(slab);
        for (std::size_t i = kSlabBytes / block_; i-- > 0;) {
            Node* n = reinterpret_cast<Node*>(bytes + i * block_);
            n->next = free_;
            free_ = n;
        }
    }
    const std::size_t block_;
    std::atomic_flag busy_ = ATOMIC_FLAG_INIT;
    Node* free_ = nullptr;
};

constexpr std::size_t kPoolClasses = kPooledBlockMax / BlockPool::kUnit;
static_assert(kPooledBlockMax % BlockPool::kUnit == 0, "size classes are whole alignment units");

BlockPool& poolFor(std::size_t bytes) {
    // Never destroyed: buffers held by static arrays may be released during exit.
    static BlockPool* const* const pools = [] {
        auto** p = new BlockPool*[kPoolClasses];
        for (std::size_t k = 0; k < kPoolClasses; ++k) p[k] = new BlockPool((k + 1) * BlockPool::kUnit);
        return p;
    }();
    return *pools[(bytes + BlockPool::kUnit - 1) / BlockPool::kUnit - 1];
}

// Element blocks up to one alignment unit come from the pool.
constexpr std::size_t kPooledElementBytes = BlockPool::kUnit;

constexpr bool kPoolSmallBlocks = VELTRA_POOL_SMALL_BLOCKS != 0;

}  // namespace

void* allocateSmall(std::size_t bytes) {
    if (!kPoolSmallBlocks || bytes == 0 || bytes > kPooledBlockMax) return ::operator new(bytes);
    return poolFor(bytes).allocate();
}

void deallocateSmall(void* p, std::size_t bytes) noexcept {
    if (!p) return;
    if (!kPoolSmallBlocks || bytes == 0 || bytes > kPooledBlockMax) ::operator delete(p);
    else poolFor(bytes).deallocate(p);
}

void adviseHugePages(void* p, std::size_t bytes) noexcept {
#ifdef MADV_HUGEPAGE
    const auto begin = reinterpret_cast<std::uintptr_t>(p);
    const std::uintptr_t first = (begin + kHugePage - 1) & ~(kHugePage - 1);
    const std::uintptr_t last = (begin + bytes) & ~(kHugePage - 1);
    if (last > first) ::madvise(reinterpret_cast<void*>(first), last - first, MADV_HUGEPAGE);
#endif
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
        adviseHugePages(reinterpret_cast<void*>(aligned), bytes);
        mapBase_ = base;
        mapped_ = len;
        data_ = reinterpret_cast<std::uint8_t*>(aligned);
        return;
    }
    if (kPoolSmallBlocks && bytes <= kPooledElementBytes) {
        data_ = static_cast<std::uint8_t*>(poolFor(bytes).allocate());
        if (zeroed) std::memset(data_, 0, bytes);
        return;
    }
    std::size_t rounded = (bytes + kAlignment - 1) / kAlignment * kAlignment;
    void* p = std::aligned_alloc(kAlignment, rounded);
    if (!p) throw std::bad_alloc();
    data_ = static_cast<std::uint8_t*>(p);
    if (zeroed) std::memset(data_, 0, bytes);
}

AlignedBuffer AlignedBuffer::borrow(std::size_t bytes, std::unique_ptr<const ExternalElements> source) {
    AlignedBuffer b;
    if (bytes == 0) return b;
    b.size_ = bytes;
    b.source_ = std::move(source);
    return b;
}

AlignedBuffer::AlignedBuffer(AlignedBuffer&& o) noexcept
    : data_(std::exchange(o.data_, nullptr)),
      size_(std::exchange(o.size_, 0)),
      mapped_(std::exchange(o.mapped_, 0)),
      mapBase_(std::exchange(o.mapBase_, nullptr)),
      source_(std::move(o.source_)) {}

AlignedBuffer& AlignedBuffer::operator=(AlignedBuffer&& o) noexcept {
    if (this != &o) {
        reset();
        data_ = std::exchange(o.data_, nullptr);
        size_ = std::exchange(o.size_, 0);
        mapped_ = std::exchange(o.mapped_, 0);
        mapBase_ = std::exchange(o.mapBase_, nullptr);
        source_ = std::move(o.source_);
    }
    return *this;
}

AlignedBuffer::~AlignedBuffer() { reset(); }

void AlignedBuffer::reset() noexcept {
    if (source_) {
        source_.reset();  // nothing of ours to free: the elements were borrowed
    } else if (mapped_) {
        ::munmap(mapBase_, mapped_);
    } else if (kPoolSmallBlocks && data_ && size_ <= kPooledElementBytes) {
        poolFor(size_).deallocate(data_);
    } else {
        std::free(data_);
    }
    data_ = nullptr;
    mapBase_ = nullptr;
    size_ = mapped_ = 0;
}

void AlignedBuffer::copyTo(std::uint8_t* out) const {
    if (source_) source_->copyTo(out);
    else if (size_) std::memcpy(out, data_, size_);
}

void AlignedBuffer::own() {
    AlignedBuffer b(size_, false);
    source_->copyTo(b.data_);
    *this = std::move(b);
}

AlignedBuffer AlignedBuffer::clone() const {
    AlignedBuffer b(size_, false);
    if (size_) copyTo(b.data_);
    return b;
}

}  // namespace foundation::veltradata::detail
