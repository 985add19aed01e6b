// libFuzzer target: the result reader and the array decoder over arbitrary bytes. Besides "no crash, no
// leak, no undefined behaviour", whatever decodes must survive the way back: re-encoding it gives bytes the
// generated classes accept and that decode to the same bytes again.
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>

#include "call_messages.h"
#include "serialization.h"
#include "veltradata/veltradata.h"

namespace {

namespace vp = foundation::veltradata::protobuf;
using foundation::veltradata::Array;
using foundation::veltradata::ClientArrayFactory;

std::string encode(const Array& a) {
    std::string out(vp::encodedSize(a), '\0');
    auto* begin = reinterpret_cast<std::uint8_t*>(out.data());
    if (vp::encodeArray(a, begin) != begin + out.size()) std::abort();
    return out;
}

// Any exception here is a finding too: what we decoded, we must be able to write and read back.
void checkWayBack(const Array& a) {
    try {
        const std::string once = encode(a);
        ClientArrayFactory f;
        const Array again = vp::decodeArray(reinterpret_cast<const std::uint8_t*>(once.data()), once.size(), f);
        if (encode(again) != once) std::abort();
        if (!(again == a)) std::abort();
        vp::VELTRA_Array m;
        if (!m.ParseFromString(once) || m.SerializeAsString() != once) std::abort();
    } catch (...) {
        std::abort();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    Array result;
    try {
        result = foundation::protobuf::common::readResult(data, size);
    } catch (const std::exception&) {
        // Refusing a message is fine; a crash, a leak or a failed check is a finding.
    }
    if (result.getType() == foundation::veltradata::ArrayType::CELL) {
        // The outputs one by one: the cell around them adds a level the nesting bound does not allow for.
        for (std::uint64_t i = 0; i < result.getNumberOfElements(); ++i) checkWayBack(result[i]);
    } else if (result.getImpl()) {
        checkWayBack(result);  // the error struct
    }

    Array single;
    try {
        ClientArrayFactory f;
        single = vp::decodeArray(data, size, f);
    } catch (const std::exception&) {
    }
    checkWayBack(single);
    return 0;
}
