#include "arraypkg/transpose_blocks.h"

#include <cstring>
#include <utility>

#if defined(__x86_64__) && defined(__GNUC__)
#include <immintrin.h>
#define TB_X86 1
#else
#define TB_X86 0
#endif

namespace PythonVeltraDataArray::arraypkg {

namespace {

#if TB_X86
namespace sse2 {
#define TB_ISA 1
#define TB_TARGET __attribute__((target("sse2")))
#include "arraypkg/transpose_blocks.inc"
#undef TB_TARGET
#undef TB_ISA
}  // namespace sse2

namespace avx2 {
#define TB_ISA 2
#define TB_TARGET __attribute__((target("avx2")))
#include "arraypkg/transpose_blocks.inc"
#undef TB_TARGET
#undef TB_ISA
}  // namespace avx2

// GCC 12 takes the undefined-value placeholders inside its own AVX-512 intrinsics for uninitialized variables.
#if !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif
namespace avx512 {
#define TB_ISA 3
#define TB_TARGET __attribute__((target("avx512f,avx512bw")))
#include "arraypkg/transpose_blocks.inc"
#undef TB_TARGET
#undef TB_ISA
}  // namespace avx512
#if !defined(__clang__)
#pragma GCC diagnostic pop
#endif
#else
namespace portable {
#define TB_ISA 0
#define TB_TARGET
#include "arraypkg/transpose_blocks.inc"
#undef TB_TARGET
#undef TB_ISA
}  // namespace portable
#endif

#define TB_TABLE(ns) \
    { ns::transposeBlocks<1>, ns::transposeBlocks<2>, ns::transposeBlocks<4>, ns::transposeBlocks<8>, \
      ns::transposeBlocks<16> }

using Table = TransposeBlocks[5];

const TransposeBlocks* machineTable() {
#if TB_X86
    static const Table kSse2 = TB_TABLE(sse2), kAvx2 = TB_TABLE(avx2), kAvx512 = TB_TABLE(avx512);
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx512f") && __builtin_cpu_supports("avx512bw")) return kAvx512;
    if (__builtin_cpu_supports("avx2")) return kAvx2;
    return kSse2;
#else
    static const Table kPortable = TB_TABLE(portable);
    return kPortable;
#endif
}

}  // namespace

std::size_t transposeStageBytes(std::size_t itemsize) {
#if TB_X86
    using namespace sse2;  // the same layout for every instruction set
    switch (itemsize) {
        case 1: return stageBytes<1>();
        case 2: return stageBytes<2>();
        case 4: return stageBytes<4>();
        case 8: return stageBytes<8>();
        case 16: return stageBytes<16>();
        default: return 0;
    }
#else
    return 0;
#endif
}

TransposeBlocks transposeBlocksFor(std::size_t itemsize) {
    static const TransposeBlocks* const table = machineTable();
    switch (itemsize) {
        case 1: return table[0];
        case 2: return table[1];
        case 4: return table[2];
        case 8: return table[3];
        case 16: return table[4];
        default: return nullptr;
    }
}

}  // namespace PythonVeltraDataArray::arraypkg
