// libFuzzer target: the result reader and the array decoder over arbitrary bytes. Besides "no crash, no
// leak, no undefined behaviour", whatever decodes must survive the way back: re-encoding it gives bytes the
// generated classes accept and that decode to the same bytes again. And where the plain reader says what an
// array is, the decoder reads the same array.
#include <cstdint>
#include <cstdlib>
#include <exception>
#include <string>

#include <cstring>
#include <vector>

#include "call_messages.h"
#include "plain_values.h"
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

namespace pc = foundation::protobuf::common;
using foundation::veltradata::ArrayType;

void check(bool ok) {
    if (!ok) std::abort();
}

// The plain reader's answer for these bytes against the decoder's. A plain cell or struct may hold an element
// the decoder refuses (the reader then meets it as not plain, and the decoder refuses the whole), so elements
// are compared one by one, each against its own decoding.
void checkPlainAgrees(const std::uint8_t* data, std::size_t size, int depth) {
    pc::PlainArray p = pc::readPlain(data, size);
    if (p.kind == pc::PlainKind::NotPlain || depth > vp::kMaxNestingDepth) return;
    Array a;
    bool decoded = true;
    try {
        ClientArrayFactory f;
        a = vp::decodeArray(data, size, f, depth);
    } catch (const std::exception&) {
        decoded = false;
    }
    switch (p.kind) {
        case pc::PlainKind::Number:
        case pc::PlainKind::Logical:
            check(decoded && a.getType() == (p.kind == pc::PlainKind::Logical ? ArrayType::LOGICAL : p.type) &&
                  a.getNumberOfElements() == 1);
            if (p.kind == pc::PlainKind::Logical) check((*foundation::veltradata::elementBytes(a) != 0) == (*p.data != 0));
            else check(std::memcmp(foundation::veltradata::elementBytes(a), p.data, foundation::veltradata::elementSize(p.type)) == 0);
            break;
        case pc::PlainKind::Char:
            check(decoded && a.getType() == ArrayType::CHAR && a.getNumberOfElements() == p.count &&
                  (p.count == 0 || std::memcmp(foundation::veltradata::elementBytes(a), p.data, 2 * p.count) == 0));
            break;
        case pc::PlainKind::Empty:
            check(decoded && a.getNumberOfElements() == 0 && a.getType() == p.type);
            break;
        case pc::PlainKind::Cell:
        case pc::PlainKind::Struct: {
            const bool isCell = p.kind == pc::PlainKind::Cell;
            if (decoded) check(a.getType() == (isCell ? ArrayType::CELL : ArrayType::STRUCT));
            if (decoded && isCell) check(a.getNumberOfElements() == p.count);
            if (decoded && !isCell)
                check(a.getNumberOfElements() == 1 &&
                      foundation::veltradata::StructArray(a).getFieldNames().size() == p.count);
            std::vector<foundation::veltradata::VeltraFieldIdentifier> names;
            if (decoded && !isCell) names = foundation::veltradata::StructArray(a).getFieldNames();
            const std::uint8_t* element;
            std::size_t elementSize;
            std::uint64_t i = 0;
            for (; p.nextElement(element, elementSize); ++i) {
                if (!isCell) {
                    const char* name;
                    std::size_t length;
                    check(p.nextFieldName(name, length));
                    if (decoded) check(names[i].str() == std::string(name, length));
                }
                checkPlainAgrees(element, elementSize, depth + 1);
            }
            check(i == p.count);
            break;
        }
        case pc::PlainKind::DateTexts: {
            std::vector<pc::PlainText> texts;
            if (pc::dateTexts(p, texts)) check(decoded && a.getType() == ArrayType::VALUE_OBJECT && texts.size() == p.count);
            break;
        }
        case pc::PlainKind::NotPlain: break;
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
    checkPlainAgrees(data, size, 0);
    return 0;
}
