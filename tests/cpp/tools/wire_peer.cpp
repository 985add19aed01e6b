// Test-only companion of tests/python/test_wire_peer.py, which checks our wire layer against the Python
// protobuf runtime generated from the same schema files.
//
//   wire_peer params CASE [NARGOUT]   writes the VELTRA_Params of a fixed set of arguments to stdout
//   wire_peer read                    reads a VELTRA_Result from stdin, prints what was read as JSON
//   wire_peer seeds DIR               writes the fuzzer's seed results into DIR
//
// The argument values follow simple rules the Python side recomputes (see the test).
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

#include "call_messages.h"
#include "serialization.h"
#include "veltradata/impl.h"
#include "veltradata/raw_visit.h"
#include "veltradata/veltradata.h"

using namespace foundation::veltradata;
namespace pc = foundation::protobuf::common;
using namespace foundation::veltradata::detail;

namespace {

// ---- arguments -------------------------------------------------------------------------------------------

// Element i of a numeric argument: i+1, negated at odd i for signed kinds, plus a quarter for floating kinds;
// complex kinds take twice that as the imaginary part.
template <typename R>
R realValue(std::size_t i) {
    double v = static_cast<double>(i + 1);
    if constexpr (std::is_floating_point_v<R>) v += 0.25;
    if constexpr (std::is_signed_v<R>) v = (i % 2) ? -v : v;
    return static_cast<R>(v);
}

Array numeric(ArrayType t, Dims dims) {
    ClientArrayFactory f;
    const std::uint64_t n = numberOfElements(normalizeDims(dims));
    return foundation::veltradata::detail::visitRawType(t, [&](auto tag) -> Array {
        using T = decltype(tag);
        std::vector<std::uint8_t> bytes(n * sizeof(T));  // not vector<T>: vector<bool> has no data()
        for (std::size_t i = 0; i < n; ++i) {
            T v;
            if constexpr (std::is_same_v<T, bool>) {
                v = i % 2 == 1;
            } else if constexpr (std::is_same_v<T, char16_t>) {
                v = static_cast<char16_t>(u'a' + i);
            } else if constexpr (foundation::veltradata::detail::IsComplex<T>::value) {
                using R = typename T::value_type;
                v = T(realValue<R>(i), static_cast<R>(realValue<R>(i) * 2));
            } else {
                v = realValue<T>(i);
            }
            std::memcpy(bytes.data() + i * sizeof(T), &v, sizeof(T));
        }
        return f.createArrayWithData(t, dims, bytes.data(), bytes.size());
    });
}

std::vector<Array> argumentsOf(const std::string& name) {
    ClientArrayFactory f;
    if (name == "numeric") {
        std::vector<Array> out;
        for (int t = 1; t <= 23; ++t)
            if (isRawBufferType(static_cast<ArrayType>(t))) out.push_back(numeric(static_cast<ArrayType>(t), {2, 3}));
        return out;
    }
    if (name == "shapes") {
        return {numeric(ArrayType::DOUBLE, {2, 3, 4}), numeric(ArrayType::DOUBLE, {1, 0}),
                numeric(ArrayType::DOUBLE, {0, 0}), numeric(ArrayType::INT8, {0, 3}), numeric(ArrayType::UINT16, {1, 1}),
                numeric(ArrayType::SINGLE, {2, 1, 1, 2})};
    }
    if (name == "text") {
        return {f.createCharArray(u"h\u00e9llo \u20ac"), f.createCharArray(""),
                f.createStringArray({2, 2}, {VeltraString(u"a"), std::nullopt, VeltraString(u""),
                                             VeltraString(u"\u00fc\u20ac\U0001D11E")})};
    }
    if (name == "containers") {
        Array inner = f.createCellArray({1, 2}, {f.createCharArray("x"), Array()});
        Array cell = f.createCellArray({2, 1}, {f.createScalar(1.5), inner});
        StructArray s = f.createStructArray({1, 2}, {"name", "value"});
        s[0]["name"] = f.createCharArray("a");
        s[0]["value"] = f.createScalar(std::int32_t{7});
        return {cell, s};
    }
    if (name == "objects") {
        ClassInfo dt = f.createClassInfo(VeltraClassIdentifier("datetime"), {VeltraPropertyIdentifier("data")},
                                         {VeltraPropertyIdentifier("tz")});
        ValueObjectArray v = f.createValueObjectScalar(dt);
        v.setProperty(0, VeltraPropertyIdentifier("data"), numeric(ArrayType::DOUBLE, {1, 2}));
        v.setProperty(0, VeltraPropertyIdentifier("tz"), f.createCharArray("UTC"));
        ValueObjectArray table = f.createValueObjectArray({1, 1}, f.createClassInfo(VeltraClassIdentifier("table")), false);
        table.setExternalDimensions({5, 3});
        return {v, table, f.createHandleArray({1, 2}, {{"Figure", 1}, {"Axes", 18446744073709551615ull}}),
                f.createEnumArray({1, 2}, "Color", {{"Red"}, {"Blue"}})};
    }
    if (name == "sparse") {
        const std::vector<double> d{1.5, -2.0, 3.0};
        const std::vector<std::uint8_t> l{1, 1};
        const std::vector<std::complex<double>> c{{1, 2}, {-3, 0.5}};
        return {f.createSparseArray(ArrayType::SPARSE_30, {4, 5}, {0, 3, 2}, {0, 1, 4}, d.data(), 24),
                f.createSparseArray(ArrayType::SPARSE_31, {2, 2}, {1, 0}, {0, 1}, l.data(), 2),
                f.createSparseArray(ArrayType::SPARSE_32, {3, 3}, {2, 2}, {0, 2}, c.data(), 32)};
    }
    if (name == "empty") return {};
    throw std::runtime_error("unknown case " + name);
}

// ---- dump --------------------------------------------------------------------------------------------------

std::string quoted(const std::string& s) {
    std::string out = "\"";
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (c < 0x20) {
            char buf[8];
            std::snprintf(buf, sizeof buf, "\\u%04x", c);
            out += buf;
        } else {
            out += static_cast<char>(c);
        }
    }
    return out + "\"";
}

std::string hex(const void* p, std::size_t n) {
    static const char* d = "0123456789abcdef";
    std::string out = "\"";
    const auto* b = static_cast<const std::uint8_t*>(p);
    for (std::size_t i = 0; i < n; ++i) {
        out += d[b[i] >> 4];
        out += d[b[i] & 15];
    }
    return out + "\"";
}

template <typename C, typename F>
std::string list(const C& c, F&& each) {
    std::string out = "[";
    bool first = true;
    for (const auto& x : c) {
        if (!first) out += ", ";
        first = false;
        out += each(x);
    }
    return out + "]";
}

std::string num(std::uint64_t v) { return std::to_string(v); }
std::string names(const std::vector<VeltraPropertyIdentifier>& v) {
    return list(v, [](const VeltraPropertyIdentifier& p) { return quoted(p.getPropertyName()); });
}

std::string dump(const Array& a);

std::string dumpObject(const ValueObject& o) {
    const ClassInfo& c = o.getClassInfo();
    return "{\"class\": " + quoted(c.getClassIdentifier().getClassName()) + ", \"first\": " +
           names(c.getFirstProperties()) + ", \"second\": " + names(c.getSecondProperties()) + ", \"properties\": " +
           list(o, [](const Property& p) { return "[" + quoted(p.getIdentifier().getPropertyName()) + ", " + dump(p.getValue()) + "]"; }) +
           "}";
}

std::string dump(const Array& a) {
    const ArrayImpl* impl = a.getImpl();
    if (!impl) return "{\"type\": 0, \"null\": true}";
    const ArrayType t = impl->type;
    std::string out = "{\"type\": " + std::to_string(static_cast<int>(t)) + ", \"dims\": " + list(impl->dims, num);
    if (isRawBufferType(t)) {
        const AlignedBuffer& b = impl->get<AlignedBuffer>();
        out += ", \"data\": " + hex(b.data(), b.size());
    } else if (isSparseType(t)) {
        const auto& s = impl->get<SparseStorage>();
        out += ", \"rows\": " + list(s.rows, num) + ", \"cols\": " + list(s.cols, num) + ", \"data\": " +
               hex(s.values.data(), s.values.size());
    } else {
        switch (t) {
            case ArrayType::VELTRA_STRING:
                out += ", \"strings\": " + list(impl->get<std::vector<VeltraString>>(), [](const VeltraString& s) {
                           return s ? hex(s->data(), s->size() * 2) : std::string("null");
                       });
                break;
            case ArrayType::CELL:
                out += ", \"elements\": " + list(impl->get<std::vector<Array>>(), dump);
                break;
            case ArrayType::STRUCT: {
                const auto& s = impl->get<StructStorage>();
                out += ", \"fields\": " + list(s.fields, quoted) + ", \"elements\": " + list(s.values, dump);
                break;
            }
            case ArrayType::VALUE_OBJECT: {
                const auto& s = impl->get<ObjectStorage>();
                out += ", \"class\": " + quoted(s.classInfo.getClassIdentifier().getClassName()) + ", \"first\": " +
                       names(s.classInfo.getFirstProperties()) + ", \"second\": " + names(s.classInfo.getSecondProperties()) +
                       ", \"external_dims\": " + list(s.externalDims, num) + ", \"uniform\": " + (s.uniform ? "true" : "false") +
                       ", \"objects\": " + list(s.objects, dumpObject);
                break;
            }
            case ArrayType::HANDLE_OBJECT_REF:
                out += ", \"handles\": " + list(impl->get<std::vector<HandleObjectRef>>(), [](const HandleObjectRef& h) {
                           return "[" + quoted(h.className) + ", " + num(h.id) + "]";
                       });
                break;
            case ArrayType::ENUM: {
                const auto& s = impl->get<EnumStorage>();
                out += ", \"class\": " + quoted(s.className) + ", \"names\": " +
                       list(s.values, [](const EnumValue& e) { return quoted(e.name); });
                break;
            }
            default:
                break;
        }
    }
    return out + "}";
}

// ---- seeds -------------------------------------------------------------------------------------------------

std::string resultOf(const std::vector<Array>& outputs) {
    ClientArrayFactory f;
    foundation::veltradata::protobuf::SerializationContext ctx(f, false, nullptr, nullptr,
                                                              foundation::veltradata::protobuf::OptimizedSparseFormat::Compact);
    pc::VELTRA_Result r;
    for (const Array& a : outputs) r.mutable_lhs()->AddAllocated(ctx.convertToProtobuf(a).release());
    return r.SerializeAsString();
}

void writeSeeds(const std::string& dir) {
    auto put = [&](const std::string& name, const std::string& bytes) {
        std::ofstream(dir + "/" + name, std::ios::binary) << bytes;
    };
    ClientArrayFactory f;
    for (const char* c : {"numeric", "shapes", "text", "containers", "objects", "sparse"}) {
        std::vector<Array> args = argumentsOf(c);
        put(std::string("result_") + c + ".bin", resultOf(args));
        // The same arguments as one cell array, for the decoder on its own.
        const std::uint64_t n = args.size();
        const Array cell = f.createCellArray({1, n}, std::move(args));
        std::string body(foundation::veltradata::protobuf::encodedSize(cell), '\0');
        foundation::veltradata::protobuf::encodeArray(cell, reinterpret_cast<std::uint8_t*>(body.data()));
        put(std::string("array_") + c + ".bin", body);
    }
    put("result_empty.bin", "");
    pc::VELTRA_Result r;
    r.add_lhs();
    pc::VELTRA_Error* e = r.mutable_error();
    e->set_message("Undefined function 'f'.");
    e->set_identifier("veltra:undefined");
    for (int i = 0; i < 2; ++i) {
        pc::VELTRA_StackFrame* s = e->add_stack();
        s->set_file(i ? "run_study.src" : "solver.src");
        s->set_name(i ? "g" : "f");
        s->set_line(3 + 4 * i);
    }
    put("result_error.bin", r.SerializeAsString());
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::string mode = argc > 1 ? argv[1] : "";
        if (mode == "params" && argc >= 3) {
            ClientArrayFactory f;
            std::vector<Array> args = argumentsOf(argv[2]);
            const std::uint64_t n = args.size();
            pc::ParamsMessage p(f.createCellArray({1, n}, std::move(args)), argc > 3 ? std::stoi(argv[3]) : 2);
            const std::string bytes = p.serialize();
            std::cout.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
            return 0;
        }
        if (mode == "read") {
            const std::string in((std::istreambuf_iterator<char>(std::cin)), std::istreambuf_iterator<char>());
            std::string out;
            try {
                out = dump(pc::readResult(in));
            } catch (const std::exception& e) {
                out = "{\"exception\": " + quoted(e.what()) + "}";
            }
            std::cout << out << "\n";
            return 0;
        }
        if (mode == "seeds" && argc >= 3) {
            writeSeeds(argv[2]);
            return 0;
        }
        std::cerr << "usage: wire_peer params CASE [NARGOUT] | wire_peer read | wire_peer seeds DIR\n";
        return 2;
    } catch (const std::exception& e) {
        std::cerr << "wire_peer: " << e.what() << "\n";
        return 1;
    }
}
