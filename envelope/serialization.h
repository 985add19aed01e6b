// Array <-> VELTRA_Array. The encoder and decoder work on the wire format directly (sizes first, payloads
// written once); the message classes are built from the same bytes so every other client sees one schema.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "veltra_array.pb.h"
#include "veltradata/veltradata.h"

namespace foundation::veltradata::protobuf {

class DataFrameWriter;
class DataFrameReader;

// What the compact form selects is internal; clients pass 1.
enum class OptimizedSparseFormat : int { None = 0, Compact = 1 };

// Bounds on what a received message may claim before it is believed. The writer keeps to the same bound, so
// whatever we send we can also read back.
inline constexpr int kMaxNestingDepth = 200;
// The most bytes a protobuf message holds (2 GiB - 1): every size checked against the limit is checked against this.
inline constexpr std::size_t kMaxMessageBytes = 2147483647;

// A message that is not a valid VELTRA_Array (or an array too deep to write). what() says what is wrong.
class WireFormatException : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

class SerializationContext {
public:
    SerializationContext(ArrayFactory& factory, bool reserved, std::shared_ptr<DataFrameWriter> writer,
                         std::shared_ptr<DataFrameReader> reader, OptimizedSparseFormat sparse);

    std::unique_ptr<VELTRA_Array> convertToProtobuf(const Array& a);
    // Throws std::exception (ArrayException or a wire-format error) for a message that is not a valid array.
    Array convertFromProtobuf(std::unique_ptr<VELTRA_Array> message);

    ArrayFactory& factory() { return factory_; }

private:
    ArrayFactory& factory_;
};

// ---- The wire codec used by the above and by the call messages ----

// Exact encoded size of `a` as a VELTRA_Array message body (without its own tag and length).
std::size_t encodedSize(const Array& a);
// Writes exactly encodedSize(a) bytes at `out`; returns the end.
std::uint8_t* encodeArray(const Array& a, std::uint8_t* out);
// Decodes one VELTRA_Array message body. Throws std::exception with a clear text for anything malformed:
// unknown type numbers, dimension products that overflow or disagree with the payload, truncated payloads,
// odd UTF-16 byte counts, element counts that disagree with the dimensions, nesting beyond kMaxNestingDepth.
Array decodeArray(const std::uint8_t* data, std::size_t size, ArrayFactory& factory, int depth = 0);

namespace detail {
// For messages that hold several arrays: measureArray appends the body size of `a` and of every message
// nested in it (pre-order) to `sizes` and returns a's size; writeArray then writes `a` from sizes[pos]
// onwards, advancing pos. Each nested size is computed once, whatever the depth. `depth` is how deep `a`
// itself is nested in the message (0: a top-level field).
std::size_t measureArray(const Array& a, std::vector<std::size_t>& sizes, int depth = 0);
// Throws the WireFormatException for a value nested `depth` levels deep when that is too deep to be read back.
void checkNestingDepth(int depth);
// Throws the WireFormatException for a `what` (say "parameters message") of n bytes past kMaxMessageBytes.
void checkMessageSize(std::size_t n, const char* what);
std::uint8_t* writeArray(const Array& a, const std::vector<std::size_t>& sizes, std::size_t& pos,
                         std::uint8_t* out);
}  // namespace detail

}  // namespace foundation::veltradata::protobuf
