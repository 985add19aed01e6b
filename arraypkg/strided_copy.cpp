#include "arraypkg/strided_copy.h"

#include <algorithm>
#include <array>
#include <cstdlib>
#include <stdexcept>
#include <cstring>
#include <memory>
#include <vector>

#include "arraypkg/transpose_blocks.h"

namespace PythonVeltraDataArray::arraypkg {

namespace {

struct Dim {
    std::int64_t n;
    std::int64_t ds;  // destination stride, bytes
    std::int64_t ss;  // source stride, bytes
};

template <std::size_t E>
struct Item {
    unsigned char b[E];
};

template <std::size_t C>
inline void swapComponent(unsigned char* p) {
    if constexpr (C == 2) {
        std::uint16_t v;
        std::memcpy(&v, p, 2);
        v = __builtin_bswap16(v);
        std::memcpy(p, &v, 2);
    } else if constexpr (C == 4) {
        std::uint32_t v;
        std::memcpy(&v, p, 4);
        v = __builtin_bswap32(v);
        std::memcpy(p, &v, 4);
    } else if constexpr (C == 8) {
        std::uint64_t v;
        std::memcpy(&v, p, 8);
        v = __builtin_bswap64(v);
        std::memcpy(p, &v, 8);
    }
}

// One element; with Swap, each C-byte component is byte-reversed.
template <std::size_t E, std::size_t C, bool Swap>
inline void copyOne(unsigned char* d, const unsigned char* s) {
    if constexpr (!Swap || C == 1) {
        std::memcpy(d, s, E);
    } else {
        Item<E> v;
        std::memcpy(&v, s, E);
        for (std::size_t k = 0; k < E; k += C) swapComponent<C>(v.b + k);
        std::memcpy(d, &v, E);
    }
}

template <std::size_t E, std::size_t C, bool Swap>
inline void copyRun(unsigned char* d, std::int64_t ds, const unsigned char* s, std::int64_t ss, std::int64_t n) {
    if (!Swap && ds == static_cast<std::int64_t>(E) && ss == static_cast<std::int64_t>(E)) {
        std::memcpy(d, s, static_cast<std::size_t>(n) * E);
        return;
    }
    for (std::int64_t i = 0; i < n; ++i, d += ds, s += ss) copyOne<E, C, Swap>(d, s);
}

// Square tiles of this many elements per side keep both the source lines and the destination lines of a
// transposing copy in the first-level cache while the tile is worked through.
template <std::size_t E>
constexpr std::int64_t kTile = E >= 8 ? 32 : 64;

// Transposing copies from this size on write their destination with streaming stores: it would not stay cached
// for long, and written through the caches every line of it would first be read in.
constexpr std::int64_t kStreamFrom = 8 << 20;

// The kernel clears a fresh huge page on first touch, finishing at the touched address: touched near its start, a
// page is cleared back to front, which takes about twice as long as front to back. A transposing copy first
// touches each page of its destination near the start, so a large dense destination has its huge pages touched
// at their ends beforehand.
constexpr std::uintptr_t kHugePage = std::uintptr_t{2} << 20;

void touchHugePagesAtTheirEnds(unsigned char* d, std::int64_t bytes) {
    const std::uintptr_t end = reinterpret_cast<std::uintptr_t>(d) + static_cast<std::uintptr_t>(bytes);
    std::uintptr_t page = (reinterpret_cast<std::uintptr_t>(d) + kHugePage - 1) & ~(kHugePage - 1);
    for (; page + kHugePage <= end; page += kHugePage)
        *reinterpret_cast<volatile unsigned char*>(page + kHugePage - 1) = 0;
}

template <std::size_t E, std::size_t C, bool Swap>
void copyTiledElementwise(unsigned char* d, const unsigned char* s, const Dim& a, const Dim& b);

// How many elements of size `e` from `p` to the next 64-byte line boundary, when elements lie at whole multiples
// of their size from it (else 0).
std::int64_t elementsToLine(const unsigned char* p, std::int64_t e) {
    const auto bytes = static_cast<std::int64_t>((~reinterpret_cast<std::uintptr_t>(p) + 1) & 63);
    return bytes % e ? 0 : bytes / e;
}

// A transposing copy of one 2-D slab: `a` runs along the destination, `b` along the source. With `stage` (see
// transposeStageBytes) the blocks take streaming stores.
template <std::size_t E, std::size_t C, bool Swap>
void copyTiled(unsigned char* d, const unsigned char* s, const Dim& a, const Dim& b, std::uint8_t* stage) {
    // Plain elements contiguous along both runs: whole blocks with the vector kernels, starting on a line of the
    // source rows where the alignment allows; the columns beside them and the rows below them element by element.
    if constexpr (!Swap) {
        const std::int64_t e = static_cast<std::int64_t>(E), side = transposeBlockSide(E);
        const TransposeBlocks blocks = transposeBlocksFor(E);
        std::int64_t j0 = elementsToLine(s, e);
        if (b.n - j0 < side) j0 = 0;
        const std::int64_t m = a.n / side * side, n = (b.n - j0) / side * side;
        if (a.ds == e && b.ss == e && m && n && blocks) {
            if (stage && b.ds == a.n * e) touchHugePagesAtTheirEnds(d, a.n * b.n * e);
            blocks(d + j0 * b.ds, b.ds, s + j0 * e, a.ss, m, n, stage);
            const std::int64_t j1 = j0 + n;
            copyTiledElementwise<E, C, Swap>(d, s, a, {j0, b.ds, b.ss});
            copyTiledElementwise<E, C, Swap>(d + j1 * b.ds, s + j1 * e, a, {b.n - j1, b.ds, b.ss});
            copyTiledElementwise<E, C, Swap>(d + m * e + j0 * b.ds, s + m * a.ss + j0 * e, {a.n - m, a.ds, a.ss},
                                             {n, b.ds, b.ss});
            return;
        }
    }
    copyTiledElementwise<E, C, Swap>(d, s, a, b);
}

template <std::size_t E, std::size_t C, bool Swap>
void copyTiledElementwise(unsigned char* d, const unsigned char* s, const Dim& a, const Dim& b) {
    constexpr std::int64_t T = kTile<E>;
    for (std::int64_t jb = 0; jb < b.n; jb += T) {
        const std::int64_t je = std::min(b.n, jb + T);
        for (std::int64_t ib = 0; ib < a.n; ib += T) {
            const std::int64_t ie = std::min(a.n, ib + T);
            for (std::int64_t j = jb; j < je; ++j) {
                unsigned char* dd = d + j * b.ds + ib * a.ds;
                const unsigned char* ss = s + j * b.ss + ib * a.ss;
                for (std::int64_t i = ib; i < ie; ++i, dd += a.ds, ss += a.ss) copyOne<E, C, Swap>(dd, ss);
            }
        }
    }
}

template <std::size_t E, std::size_t C, bool Swap>
void run(unsigned char* dst, const unsigned char* src, std::vector<Dim>& dims) {
    // dims[0] is the destination's fastest dimension. When some other dimension is faster in the source,
    // work through 2-D tiles of the two; every remaining dimension is walked by an odometer.
    std::size_t inner = 0;
    for (std::size_t k = 1; k < dims.size(); ++k)
        if (std::llabs(dims[k].ss) < std::llabs(dims[inner].ss)) inner = k;
    const bool tiled = inner != 0 && dims[0].n > 1;

    std::vector<Dim> outer;
    for (std::size_t k = 1; k < dims.size(); ++k)
        if (!(tiled && k == inner)) outer.push_back(dims[k]);
    std::vector<std::int64_t> count(outer.size(), 0);

    std::unique_ptr<std::uint8_t[]> stageMemory;
    std::uint8_t* stage = nullptr;
    const auto e = static_cast<std::int64_t>(E);
    if (tiled && !Swap && dims[0].ds == e && dims[inner].ss == e) {
        std::int64_t bytes = e;
        for (const Dim& d : dims) bytes *= d.n;
        if (bytes >= kStreamFrom && transposeStageBytes(E)) {
            stageMemory.reset(new std::uint8_t[transposeStageBytes(E) + 63]);
            stage = stageMemory.get() + (~reinterpret_cast<std::uintptr_t>(stageMemory.get()) + 1) % 64;
        }
    }

    for (;;) {
        if (tiled) {
            copyTiled<E, C, Swap>(dst, src, dims[0], dims[inner], stage);
        } else {
            copyRun<E, C, Swap>(dst, dims[0].ds, src, dims[0].ss, dims[0].n);
        }
        std::size_t k = 0;
        for (; k < outer.size(); ++k) {
            dst += outer[k].ds;
            src += outer[k].ss;
            if (++count[k] < outer[k].n) break;
            dst -= outer[k].ds * outer[k].n;
            src -= outer[k].ss * outer[k].n;
            count[k] = 0;
        }
        if (k == outer.size()) return;
    }
}

template <std::size_t E, std::size_t C>
void dispatchSwap(unsigned char* dst, const unsigned char* src, std::vector<Dim>& dims, bool swap) {
    if (swap) run<E, C, true>(dst, src, dims);
    else run<E, E, false>(dst, src, dims);
}

}  // namespace

void columnMajorStrides(const std::int64_t* shape, int ndim, std::size_t itemsize, std::int64_t* out) {
    std::int64_t s = static_cast<std::int64_t>(itemsize);
    for (int k = 0; k < ndim; ++k) {
        out[k] = s;
        s *= shape[k];
    }
}

void stridedCopy(std::uint8_t* dst, const std::int64_t* dstStrides, const std::uint8_t* src,
                 const std::int64_t* srcStrides, const std::int64_t* shape, int ndim, std::size_t itemsize,
                 std::size_t component, bool swap) {
    std::vector<Dim> dims;
    dims.reserve(static_cast<std::size_t>(ndim) + 1);
    for (int k = 0; k < ndim; ++k) {
        if (shape[k] == 0) return;
        if (shape[k] != 1) dims.push_back({shape[k], dstStrides[k], srcStrides[k]});
    }
    // Walk in destination order, and fuse dimensions that are contiguous on both sides into longer runs.
    std::stable_sort(dims.begin(), dims.end(),
                     [](const Dim& x, const Dim& y) { return std::llabs(x.ds) < std::llabs(y.ds); });
    std::vector<Dim> fused;
    for (const Dim& d : dims) {
        if (!fused.empty()) {
            Dim& f = fused.back();
            if (d.ds == f.ds * f.n && d.ss == f.ss * f.n) {
                f.n *= d.n;
                continue;
            }
        }
        fused.push_back(d);
    }
    if (fused.empty()) fused.push_back({1, static_cast<std::int64_t>(itemsize), static_cast<std::int64_t>(itemsize)});

    if (component == 0 || component > itemsize) component = itemsize;
    switch (itemsize) {
        case 1: run<1, 1, false>(dst, src, fused); break;
        case 2: dispatchSwap<2, 2>(dst, src, fused, swap); break;
        case 4:
            if (component == 2) dispatchSwap<4, 2>(dst, src, fused, swap);
            else dispatchSwap<4, 4>(dst, src, fused, swap);
            break;
        case 8:
            if (component == 4) dispatchSwap<8, 4>(dst, src, fused, swap);
            else dispatchSwap<8, 8>(dst, src, fused, swap);
            break;
        case 16: dispatchSwap<16, 8>(dst, src, fused, swap); break;
        default: throw std::invalid_argument("unsupported element size");
    }
}

}  // namespace PythonVeltraDataArray::arraypkg
