// VELTRA_Params written and VELTRA_Result read directly on the wire format, with the array codec of
// serialization.cpp: parameters are sized first and written once into the caller's buffer; results are read
// straight from the received bytes, each payload copied once into its array.
#include "call_messages.h"

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "serialization.h"
#include "veltradata/impl.h"
#include "field_numbers.h"
#include "wire_format.h"

namespace foundation::protobuf::common {

namespace vp = foundation::veltradata::protobuf;
namespace wire = vp::wire;
using foundation::veltradata::ArrayType;
using foundation::veltradata::ClientArrayFactory;
using foundation::veltradata::StructArray;
using foundation::veltradata::TypeMismatchException;
using wire::Reader;
using wire::Span;
using wire::WireType;
using namespace vp::field;

namespace {

std::string str(Span s) { return s.size ? std::string(reinterpret_cast<const char*>(s.data), s.size) : std::string(); }

struct ErrorFields {
    std::string message;
    bool hasIdentifier = false;
    std::string identifier;
    std::string stack;  // the frames as text, in message order
};

// The reading of VELTRA_Error and its frames follows protobuf's parser where bytes stop making sense: what
// was read stays, a frame cut short still counts with the fields it got, a string cut short is not taken.
// Each returns false at the first bytes it cannot parse.
bool parseFrame(Span msg, std::string& stack) {
    std::string file, name;
    std::int32_t line = 0;
    Reader r(msg);
    bool ok = true;
    while (!r.done()) {
        int field;
        WireType wt;
        if (!r.tag(field, wt)) { ok = false; break; }
        if ((field == kFrameFile || field == kFrameName) && wt == wire::kLen) {
            Span s;
            if (!r.len(s)) { ok = false; break; }
            (field == kFrameFile ? file : name) = str(s);
        } else if (field == kFrameLine && wt == wire::kVarint) {
            std::uint64_t v;
            if (!r.varint(v)) { ok = false; break; }
            line = static_cast<std::int32_t>(static_cast<std::uint32_t>(v));  // int32 keeps the low bits
        } else if (!r.skip(field, wt)) {
            ok = false;
            break;
        }
    }
    stack += "Error in => file: " + file + ", function name: " + name + ", at line: " + std::to_string(line) + "\n";
    return ok;
}

// A second occurrence of the error merges into the first, as protobuf merges singular message fields.
bool parseError(Span msg, ErrorFields& e) {
    Reader r(msg);
    while (!r.done()) {
        int field;
        WireType wt;
        if (!r.tag(field, wt)) return false;
        if (wt == wire::kLen && (field == kErrMessage || field == kErrIdentifier)) {
            Span s;
            if (!r.len(s)) return false;
            if (field == kErrMessage) {
                e.message = str(s);
            } else {
                e.identifier = str(s);
                e.hasIdentifier = true;
            }
        } else if (wt == wire::kLen && field == kErrStack) {
            Span s;
            bool cut;
            if (!r.lenOrRest(s, cut)) return false;
            if (!parseFrame(s, e.stack) || cut) return false;
        } else if (!r.skip(field, wt)) {
            return false;
        }
    }
    return true;
}

Array errorStruct(ClientArrayFactory& factory, const ErrorFields& e) {
    StructArray s = factory.createStructArray({1, 1}, {"message", "identifier", "stack_as_str"});
    s[0]["message"] = factory.createCharArray(e.message);
    if (e.hasIdentifier) s[0]["identifier"] = factory.createScalar(e.identifier);
    s[0]["stack_as_str"] = factory.createCharArray(e.stack);
    return std::move(s);
}

}  // namespace

ParamsMessage::ParamsMessage(const Array& args, std::int32_t nargout) {
    tape_.addArguments(args);
    size_ = tape_.finish(nargout);
}

void ParamsMessage::writeTo(std::uint8_t* out) const { tape_.writeTo(out); }

std::string ParamsMessage::serialize() const {
    std::string s(size_, '\0');
    writeTo(reinterpret_cast<std::uint8_t*>(s.data()));
    return s;
}

ResultFields readResultFields(const std::uint8_t* data, std::size_t size) {
    ResultFields out;
    ErrorFields error;
    Reader r(data, size);
    while (!r.done()) {
        int field;
        WireType wt;
        if (!r.tag(field, wt)) break;
        if (field == kLhs && wt == wire::kLen) {
            std::uint64_t n;
            if (!r.varint(n)) break;
            Span s;
            if (!r.take(n, s)) {
                if (out.hasError) break;
                throw vp::WireFormatException("Malformed VELTRA_Result: output " +
                                              std::to_string(out.outputs.size() + 1) + " claims " +
                                              std::to_string(n) + " bytes but only " +
                                              std::to_string(r.remaining()) + " remain");
            }
            out.outputs.push_back({s.data, s.size});
        } else if (field == kError && wt == wire::kLen) {
            Span s;
            bool cut;
            if (!r.lenOrRest(s, cut)) break;
            out.hasError = true;
            if (!parseError(s, error) || cut) break;
        } else if (!r.skip(field, wt)) {
            break;
        }
    }
    if (out.hasError) {
        ClientArrayFactory factory;
        out.error = errorStruct(factory, error);
        out.outputs.clear();
    }
    return out;
}

Array readResult(const std::uint8_t* data, std::size_t size) {
    ResultFields fields = readResultFields(data, size);
    if (fields.hasError) return fields.error;
    ClientArrayFactory factory;
    std::vector<Array> outputs;
    outputs.reserve(fields.outputs.size());
    for (const ResultFields::Output& o : fields.outputs) outputs.push_back(vp::decodeArray(o.data, o.size, factory, 0));
    const std::uint64_t n = outputs.size();  // read before the vector is moved from
    return factory.createCellArray({1, n}, std::move(outputs));
}

}  // namespace foundation::protobuf::common
