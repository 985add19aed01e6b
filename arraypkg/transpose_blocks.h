// The transposing copy of a 2-D slab in whole blocks, with the widest vector instructions the machine has. Used
// by stridedCopy when a C-ordered (or otherwise row-major) source goes into column-major storage.
#pragma once

#include <cstddef>
#include <cstdint>

namespace PythonVeltraDataArray::arraypkg {

// Copies an m-by-n slab of `itemsize`-byte elements: element (i, j) from s + i * ss + j * itemsize to
// d + i * itemsize + j * ds. m and n must be multiples of transposeBlockSide(itemsize); the rest of a slab is
// left to the caller. The destination must not overlap the source. With `stage` (transposeStageBytes(itemsize)
// bytes, 64-byte aligned) the destination is written with streaming stores, past the caches, where the machine
// has them: for destinations too big to stay cached anyway.
using TransposeBlocks = void (*)(std::uint8_t* d, std::int64_t ds, const std::uint8_t* s, std::int64_t ss,
                                 std::int64_t m, std::int64_t n, std::uint8_t* stage);

// A block is one 64-byte line of each of its source rows and of each of its destination columns.
constexpr std::int64_t transposeBlockSide(std::size_t itemsize) { return 64 / static_cast<std::int64_t>(itemsize); }

// The copy for 1-, 2-, 4-, 8- or 16-byte elements (null for any other size), chosen once for this machine.
TransposeBlocks transposeBlocksFor(std::size_t itemsize);

// The scratch the streaming form of that copy takes; 0 where it has none.
std::size_t transposeStageBytes(std::size_t itemsize);

}  // namespace PythonVeltraDataArray::arraypkg
