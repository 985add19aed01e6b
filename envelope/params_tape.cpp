#include "params_tape.h"

#include <cstring>
#include <stdexcept>

#include "field_numbers.h"
#include "veltradata/impl.h"
#include "serialization.h"
#include "wire_format.h"

namespace foundation::protobuf::common {

namespace vp = foundation::veltradata::protobuf;
namespace wire = vp::wire;
using foundation::veltradata::ArrayType;
using namespace vp::field;

namespace {

// The type field of a kind: all plain kinds are one-byte varints.
constexpr std::size_t kTypeSize = 2;
static_assert(static_cast<int>(ArrayType::STRUCT) < 0x80, "plain kinds are one-byte varints");

// Packed dimensions [1, n].
constexpr std::size_t rowDimsSize(std::uint64_t n) { return wire::lenFieldSize(kDims, 1 + wire::varintSize(n)); }
constexpr std::size_t kNumberBody = kTypeSize + rowDimsSize(1) + wire::lenFieldSize(kData, 8);  // double, int64
constexpr std::size_t kLogicalBody = kTypeSize + rowDimsSize(1) + wire::lenFieldSize(kData, 1);
inline std::uint8_t* writeHead(std::uint8_t* p, ArrayType t, std::uint64_t n) {
    *p++ = static_cast<std::uint8_t>(wire::makeTag(kType, wire::kVarint));
    *p++ = static_cast<std::uint8_t>(t);
    p = wire::writeLenHeader(p, kDims, 1 + wire::varintSize(n));
    *p++ = 1;
    return wire::writeVarint(p, n);
}

}  // namespace

const std::size_t ParamsTape::kMaxDepth = vp::kMaxNestingDepth;

void ParamsTape::tooDeep() const {
    vp::detail::checkNestingDepth(static_cast<int>(open_.size()));
    throw std::logic_error("a value nested as deep as it may be was refused");
}

inline std::size_t ParamsTape::bodySize(const Entry& e) {
    switch (e.kind) {
        case kDouble:
        case kInt64: return kNumberBody;
        case kLogical: return kLogicalBody;
        case kChar:
        case kCharAt: return kTypeSize + rowDimsSize(e.a) + (e.a ? wire::lenFieldSize(kData, 2 * e.a) : 0);
        default: return static_cast<std::size_t>(e.b);
    }
}

void ParamsTape::addArray(const Array& a) {
    push({arrays_.size(), 0, kArray});
    arrays_.push_back(a);
}

char16_t* ParamsTape::addChar(std::size_t n) {
    push({n, units_.size(), kChar});
    const std::size_t at = units_.size();
    units_.resize(at + n);
    return units_.data() + at;
}

void ParamsTape::addCharAt(const char16_t* units, std::size_t n) {
    push({n, reinterpret_cast<std::uintptr_t>(units), kCharAt});
}

void ParamsTape::addArguments(const Array& args) {
    const std::uint64_t n = args.getNumberOfElements();
    if (!n) return;
    if (args.getType() != ArrayType::CELL) {
        // Reading an element of another kind as an array fails with the array library's own text.
        (void)static_cast<Array>(args[0]);
        throw foundation::veltradata::TypeMismatchException("The call arguments must be a cell array.");
    }
    for (const Array& e : args.impl().get<std::vector<Array>>()) addArray(e);
}

void ParamsTape::beginCell(std::uint64_t n) {
    push({n, 0, kCell});
    open_.push_back(entries_.size() - 1);
}

void ParamsTape::beginStruct() {
    push({0, 0, kStruct});
    open_.push_back(entries_.size() - 1);
}

void ParamsTape::fieldName(const char* name, std::size_t n) {
    ++entries_[open_.back()].a;
    entries_.push_back({n, names_.size(), kName});
    names_.insert(names_.end(), name, name + n);
}

void ParamsTape::end() { open_.pop_back(); }

std::size_t ParamsTape::finish(std::int32_t nargout) {
    if (!open_.empty()) throw std::logic_error("parameters finished with a container still open");
    // Every value's field goes into its container's body (or the message); a container whose last value is in
    // is a value of its own container in turn.
    std::size_t args = 0;
    closing_.clear();
    const auto add = [&](std::size_t body) {
        while (!closing_.empty()) {
            Closing& c = closing_.back();
            c.body += wire::lenFieldSize(kElements, body);
            if (--c.left) return;
            body = entries_[c.entry].b = c.body;
            closing_.pop_back();
        }
        args += wire::lenFieldSize(kRhs, body);
    };
    for (std::size_t i = 0; i < entries_.size(); ++i) {
        Entry& e = entries_[i];
        switch (e.kind) {
            case kName: closing_.back().body += wire::lenFieldSize(kFieldNames, e.a); break;
            case kArray:
                e.b = vp::detail::measureArray(arrays_[e.a], arraySizes_, static_cast<int>(closing_.size()));
                add(e.b);
                break;
            case kCell:
            case kStruct: {
                const std::size_t head = kTypeSize + rowDimsSize(e.kind == kStruct ? 1 : e.a);
                if (e.a) {
                    closing_.push_back({i, e.a, head});
                } else {
                    e.b = head;  // an empty one is done at once (and has no field names)
                    add(head);
                }
                break;
            }
            default: add(bodySize(e));
        }
    }
    nargout_ = nargout;
    size_ = (nargout ? wire::tagSize(kNargout) + wire::varintSize(wire::int32Bits(nargout)) : 0) + args;
    vp::detail::checkMessageSize(size_, "parameters message");
    return size_;
}

void ParamsTape::writeTo(std::uint8_t* out) const {
    std::uint8_t* p = out;
    if (nargout_) {
        p = wire::writeTag(p, kNargout, wire::kVarint);
        p = wire::writeVarint(p, wire::int32Bits(nargout_));
    }
    // The containers open around the entry being written: elements still to come, and where their field
    // names start in `names` (a struct writes its names after all of its values).
    struct Writing {
        std::uint64_t left;
        std::size_t names;
        bool isStruct;
    };
    std::vector<Writing> open;
    std::vector<const Entry*> names;
    std::size_t arraySize = 0;  // where the next array's nested sizes start
    auto finished = [&] {  // one value done: close every container it completes
        while (!open.empty() && --open.back().left == 0) {
            const Writing& w = open.back();
            if (w.isStruct) {
                for (std::size_t k = w.names; k < names.size(); ++k)
                    p = wire::writeBytes(p, kFieldNames, names_.data() + names[k]->b, names[k]->a);
                names.resize(w.names);
            }
            open.pop_back();
        }
    };
    for (const Entry& e : entries_) {
        if (e.kind == kName) {
            names.push_back(&e);
            continue;
        }
        p = wire::writeLenHeader(p, open.empty() ? kRhs : kElements, bodySize(e));
        switch (e.kind) {
            case kDouble:
            case kInt64:
            case kLogical: {
                const ArrayType t = e.kind == kDouble ? ArrayType::DOUBLE
                                  : e.kind == kInt64  ? ArrayType::INT64
                                                      : ArrayType::LOGICAL;
                p = writeHead(p, t, 1);
                const std::size_t bytes = e.kind == kLogical ? 1 : 8;
                p = wire::writeLenHeader(p, kData, bytes);
                std::memcpy(p, &e.a, bytes);  // little-endian: the low bytes first
                p += bytes;
                finished();
                break;
            }
            case kChar:
            case kCharAt: {
                p = writeHead(p, ArrayType::CHAR, e.a);
                if (e.a) {
                    const char16_t* units = e.kind == kChar ? units_.data() + e.b
                                                            : reinterpret_cast<const char16_t*>(e.b);
                    p = wire::writeBytes(p, kData, units, 2 * e.a);
                }
                finished();
                break;
            }
            case kArray:
                p = vp::detail::writeArray(arrays_[e.a], arraySizes_, arraySize, p);
                finished();
                break;
            case kCell:
            case kStruct: {
                const bool isStruct = e.kind == kStruct;
                p = writeHead(p, isStruct ? ArrayType::STRUCT : ArrayType::CELL, isStruct ? 1 : e.a);
                if (e.a) open.push_back({e.a, names.size(), isStruct});
                else finished();  // an empty one is done at once (and has no field names)
                break;
            }
            case kName: break;
        }
    }
    if (p != out + size_) throw std::logic_error("VELTRA_Params was written with another size than measured.");
}

}  // namespace foundation::protobuf::common
