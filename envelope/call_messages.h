// The call messages as the module uses them: parameters built from a cell of arguments, results read into a
// 1-by-N cell of outputs or the error struct. Both throw std::exception; the module turns that into Python.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "params_tape.h"
#include "veltra_common.pb.h"
#include "veltradata/veltradata.h"
#include "wire_format.h"

namespace foundation::protobuf::common {

using foundation::veltradata::Array;

// A VELTRA_Params message for the elements of a cell array (column-major order) and nargout, sized up front
// so that it can be written straight into a caller's buffer (one copy of every payload): a tape of one array
// entry per argument.
class ParamsMessage {
public:
    // Throws when `args` holds elements and is not a cell array (an empty array of any kind gives a message
    // with nargout alone), and when an argument is nested too deeply to be read back.
    ParamsMessage(const Array& args, std::int32_t nargout);
    std::size_t byteSize() const { return size_; }
    // Writes exactly byteSize() bytes.
    void writeTo(std::uint8_t* out) const;
    std::string serialize() const;

private:
    ParamsTape tape_;
    std::size_t size_ = 0;
};

// The fields of a VELTRA_Result, read as protobuf's own parser reads them: unparseable bytes end the reading and
// what was read before them is used. An output cut short by the end of the bytes throws, unless an error already
// makes the outputs irrelevant. With an error, `error` is the 1-by-1 struct with the fields "message",
// "identifier" and "stack_as_str"; otherwise `outputs` are the bytes of each output's VELTRA_Array.
struct ResultFields {
    bool hasError = false;
    Array error;
    struct Output {
        const std::uint8_t* data;
        std::size_t size;
    };
    foundation::veltradata::protobuf::wire::SmallVector<Output, 8> outputs;  // most results have a few
};
ResultFields readResultFields(const std::uint8_t* data, std::size_t size);

// Reads a VELTRA_Result whole: a 1-by-N cell of the outputs, or the error struct. An output array that is
// malformed throws.
Array readResult(const std::uint8_t* data, std::size_t size);
inline Array readResult(const std::string& bytes) {
    return readResult(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
}

}  // namespace foundation::protobuf::common
