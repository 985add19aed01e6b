#include "element_block.h"

#include <malloc.h>
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
// its fast paths, so blocks of each size class (multiples of one alignment unit) come from slabs of their own.
// Slabs are cut from chunks mapped straight from the system, aligned to the slab size so that a block finds
// its slab's header by masking its address. A slab none of whose blocks is in use stays for the next call as
// long as the idle slabs of all pools come to at most kPoolIdleBytesKept, and is unmapped otherwise;
// releaseFreeMemory unmaps every idle slab. Sanitizer builds allocate each block separately so that misuse is
// still caught.
class BlockPool {
public:
    static constexpr std::size_t kUnit = AlignedBuffer::kAlignment;
    static constexpr std::size_t kSlabBytes = kPoolSlabBytes;
    static constexpr std::size_t kChunkBytes = 32 * kSlabBytes;

    explicit BlockPool(std::size_t block) : block_(block), perSlab_((kSlabBytes - kUnit) / block) {}

    void* allocate() {
        {
            Lock lock(busy_);
            if (room_) return take(room_);
        }
        return allocateInNewSlab();
    }

    void deallocate(void* p) noexcept {
        Slab* s = slabOf(p);
        {
            Lock lock(busy_);
            Node* n = static_cast<Node*>(p);
            n->next = s->free;
            s->free = n;
            if (s->used-- == perSlab_) link(s);
            if (s->used != 0 || keepIdle(s)) return;
        }
        ::munmap(s, kSlabBytes);
    }

    // Unmaps every slab with no block in use.
    void releaseIdle() noexcept {
        Slab* idle = nullptr;
        {
            Lock lock(busy_);
            for (Slab* s = room_; s;) {
                Slab* next = s->next;
                if (s->used == 0) {
                    unlink(s);
                    s->next = idle;
                    idle = s;
                    remove(idle_);
                    remove(mapped_);
                }
                s = next;
            }
        }
        while (idle) {
            Slab* next = idle->next;
            ::munmap(idle, kSlabBytes);
            idle = next;
        }
    }

    std::size_t mappedBytes() const noexcept { return mapped_.load(std::memory_order_relaxed); }

private:
    struct Node {
        Node* next;
    };
    // At the start of each slab, in the first alignment unit; the blocks follow it.
    struct Slab {
        Node* free;           // blocks given back
        std::uint8_t* fresh;  // blocks from here on were never handed out (their pages not yet touched)
        Slab* prev;           // the list of slabs with a free block
        Slab* next;
        std::size_t used;     // blocks handed out
    };
    static_assert(sizeof(Slab) <= kUnit, "a slab's header fits in front of its first block");
    static_assert((kSlabBytes & (kSlabBytes - 1)) == 0 && kSlabBytes % 4096 == 0, "slabs are whole, aligned pages");

    // Held for a few instructions, never across a call into the system, and mostly by one thread (the
    // interpreter's lock serialises callers): a spin costs less than a mutex.
    class Lock {
    public:
        explicit Lock(std::atomic_flag& f) noexcept : f_(f) {
            while (f_.test_and_set(std::memory_order_acquire)) std::this_thread::yield();
        }
        ~Lock() { f_.clear(std::memory_order_release); }

    private:
        std::atomic_flag& f_;
    };

    // Counts of slab bytes, written under the pool's lock and read without it: no atomic read-modify-write on
    // the paths every block takes.
    static void add(std::atomic<std::size_t>& count) noexcept {
        count.store(count.load(std::memory_order_relaxed) + kSlabBytes, std::memory_order_relaxed);
    }
    static void remove(std::atomic<std::size_t>& count) noexcept {
        count.store(count.load(std::memory_order_relaxed) - kSlabBytes, std::memory_order_relaxed);
    }
    // The bytes of slabs with no block in use, over all pools.
    static std::size_t idleEverywhere() noexcept;

    static Slab* slabOf(void* p) noexcept {
        return reinterpret_cast<Slab*>(reinterpret_cast<std::uintptr_t>(p) & ~(kSlabBytes - 1));
    }

    void* take(Slab* s) noexcept {
        Node* n = s->free;
        if (n) {
            s->free = n->next;
        } else {
            n = reinterpret_cast<Node*>(s->fresh);
            s->fresh += block_;
        }
        if (s->used++ == 0) remove(idle_);
        if (s->used == perSlab_) unlink(s);
        return n;
    }

    [[gnu::noinline]] void* allocateInNewSlab() {
        {
            Lock lock(busy_);
            if (Slab* s = room_ ? room_ : cut()) return take(s);
        }
        std::uint8_t* chunk = mapChunk();
        void* block;
        {
            Lock lock(busy_);
            if (next_ == end_) {
                next_ = chunk;
                end_ = chunk + kChunkBytes;
                chunk = nullptr;
            }
            block = take(room_ ? room_ : cut());
        }
        if (chunk) ::munmap(chunk, kChunkBytes);  // another thread mapped one meanwhile
        return block;
    }

    // Whether `s`, whose last block in use has just come back, stays; if not, it is unlinked, for the caller
    // to unmap once the lock is let go. A pool's first idle slab always stays: a call that gives back all of
    // its blocks leaves it for the next.
    [[gnu::noinline]] bool keepIdle(Slab* s) noexcept {
        if (idle_.load(std::memory_order_relaxed) == 0 || idleEverywhere() + kSlabBytes <= kPoolIdleBytesKept) {
            add(idle_);
            return true;
        }
        unlink(s);
        remove(mapped_);
        return false;
    }

    // The next slab of the current chunk, linked and counted as idle until its first block is taken; null
    // when the chunk is used up.
    Slab* cut() noexcept {
        if (next_ == end_) return nullptr;
        auto* s = reinterpret_cast<Slab*>(next_);
        next_ += kSlabBytes;
        s->fresh = reinterpret_cast<std::uint8_t*>(s) + kUnit;
        add(idle_);
        add(mapped_);
        link(s);
        return s;
    }
    void link(Slab* s) noexcept {
        s->prev = nullptr;
        s->next = room_;
        if (room_) room_->prev = s;
        room_ = s;
    }
    void unlink(Slab* s) noexcept {
        if (s->prev) s->prev->next = s->next;
        else room_ = s->next;
        if (s->next) s->next->prev = s->prev;
    }

    // kChunkBytes of fresh, zero-filled memory aligned to kSlabBytes: a little more is mapped, and the ends
    // trimmed.
    static std::uint8_t* mapChunk() {
        const std::size_t len = kChunkBytes + kSlabBytes;
        void* p = ::mmap(nullptr, len, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
        if (p == MAP_FAILED) throw std::bad_alloc();
        const auto base = reinterpret_cast<std::uintptr_t>(p);
        const std::uintptr_t at = (base + kSlabBytes - 1) & ~(kSlabBytes - 1);
        if (at > base) ::munmap(p, at - base);
        if (base + len > at + kChunkBytes)
            ::munmap(reinterpret_cast<void*>(at + kChunkBytes), base + len - at - kChunkBytes);
        return reinterpret_cast<std::uint8_t*>(at);
    }

    const std::size_t block_;
    const std::size_t perSlab_;
    std::atomic_flag busy_ = ATOMIC_FLAG_INIT;
    Slab* room_ = nullptr;          // the slabs with a free block
    std::uint8_t* next_ = nullptr;  // the current chunk's slabs not cut yet
    std::uint8_t* end_ = nullptr;
    std::atomic<std::size_t> idle_{0};    // bytes of slabs with no block in use
    std::atomic<std::size_t> mapped_{0};  // bytes of slabs cut and not unmapped
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

std::size_t BlockPool::idleEverywhere() noexcept {
    std::size_t total = 0;
    for (std::size_t k = 0; k < kPoolClasses; ++k)
        total += poolFor((k + 1) * kUnit).idle_.load(std::memory_order_relaxed);
    return total;
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

std::size_t pooledBytes() noexcept {
    std::size_t total = 0;
    if (kPoolSmallBlocks)
        for (std::size_t k = 0; k < kPoolClasses; ++k) total += poolFor((k + 1) * BlockPool::kUnit).mappedBytes();
    return total;
}

void releaseFreeMemory() noexcept {
    if (kPoolSmallBlocks)
        for (std::size_t k = 0; k < kPoolClasses; ++k) poolFor((k + 1) * BlockPool::kUnit).releaseIdle();
#if defined(__GLIBC__)
    ::malloc_trim(0);
#endif
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
