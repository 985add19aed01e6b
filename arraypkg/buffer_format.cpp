#include "arraypkg/buffer_format.h"

#include <array>
#include <climits>
#include <cstring>
#include <type_traits>

namespace PythonVeltraDataArray::arraypkg {

using foundation::veltradata::ArrayType;

namespace {

constexpr bool kLittleEndian = __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__;

enum class Order { Native, NativeStd, Little, Big };

bool readOrder(const char*& p, Order& order) {
    switch (*p) {
        case '@': order = Order::Native; break;
        case '=': order = Order::NativeStd; break;
        case '<': order = Order::Little; break;
        case '>': case '!': order = Order::Big; break;
        default: return false;
    }
    ++p;
    return true;
}

bool swapped(Order o) {
    if (o == Order::Little) return !kLittleEndian;
    if (o == Order::Big) return kLittleEndian;
    return false;
}

// The struct-module code of one real element of type T: b, h, i, q by size (upper case when unsigned), f, d.
template <typename T>
constexpr char formatCode() {
    if constexpr (std::is_floating_point_v<T>) {
        return sizeof(T) == sizeof(float) ? 'f' : 'd';
    } else {
        const char code = sizeof(T) == 1 ? 'b' : sizeof(T) == 2 ? 'h' : sizeof(T) == 4 ? 'i' : 'q';
        return std::is_signed_v<T> ? code : static_cast<char>(code - 'a' + 'A');
    }
}

// Each real numeric kind's element code, in the standard sizes.
struct RealFormat {
    ArrayType kind;
    char code;
    std::size_t size;
    bool integer, isSigned;
};
constexpr RealFormat kRealFormats[] = {
#define VELTRA_FORMAT(KIND, T, NAME) \
    {ArrayType::KIND, formatCode<T>(), sizeof(T), std::is_integral_v<T>, std::is_signed_v<T>},
    VELTRA_NUMERIC_KINDS(VELTRA_FORMAT)
#undef VELTRA_FORMAT
};

ArrayType integerKind(std::size_t size, bool isSigned) {
    for (const RealFormat& f : kRealFormats)
        if (f.integer && f.size == size && f.isSigned == isSigned) return f.kind;
    return ArrayType::UNKNOWN;
}

// One real element code; UNKNOWN when it has none.
ArrayType realCode(char c, Order order, std::size_t& size) {
    const bool native = order == Order::Native;
    switch (c) {
        // C types of the platform's size in native order, of the standard size otherwise.
        case 'i': size = native ? sizeof(int) : 4; return integerKind(size, true);
        case 'I': size = native ? sizeof(unsigned) : 4; return integerKind(size, false);
        case 'l': size = native ? sizeof(long) : 4; return integerKind(size, true);
        case 'L': size = native ? sizeof(unsigned long) : 4; return integerKind(size, false);
        case 'n': size = sizeof(std::size_t); return native ? integerKind(size, true) : ArrayType::UNKNOWN;
        case 'N': size = sizeof(std::size_t); return native ? integerKind(size, false) : ArrayType::UNKNOWN;
        case '?': size = 1; return ArrayType::LOGICAL;
        default: break;
    }
    for (const RealFormat& f : kRealFormats) {
        if (f.code == c) {
            size = f.size;
            return f.kind;
        }
    }
    return ArrayType::UNKNOWN;
}

const char* describe(const char* format) {
    const char* p = format;
    Order ignored;
    readOrder(p, ignored);
    while (*p >= '0' && *p <= '9') ++p;
    switch (*p) {
        case 'e': return "16-bit float";
        case 'g': return "long double";
        case 'Z':
            if (p[1] == 'g') return "complex long double";
            if (p[1] == 'e') return "complex 16-bit float";
            return "complex";
        case 'O': return "Python object";
        case 's': case 'p': case 'c': return "bytes";
        case 'u': case 'w': return "text";
        case 'T': return "structured";
        case 'x': return "padding";
        case 'P': return "pointer";
        case 'n': case 'N': return "size type in standard byte order";
        default: return nullptr;
    }
}

// "T{h:real:h:imag:}": two integers of one kind named real and imag, as complex integers are exported. A
// byte-order prefix holds for the fields after it until another one appears.
bool parseComplexInteger(const char* p, Order outer, BufferFormat& out) {
    if (std::strncmp(p, "T{", 2) != 0) return false;
    p += 2;
    Order order = outer;
    ArrayType kind[2];
    std::size_t size[2];
    bool swap[2];
    const char* names[2] = {":real:", ":imag:"};
    for (int k = 0; k < 2; ++k) {
        readOrder(p, order);
        if (*p == '\0') return false;  // cut short: never step past the terminator
        kind[k] = realCode(*p++, order, size[k]);
        swap[k] = swapped(order);
        const std::size_t len = std::strlen(names[k]);
        if (std::strncmp(p, names[k], len) != 0) return false;
        p += len;
    }
    if (std::strcmp(p, "}") != 0 || kind[0] != kind[1] || size[0] != size[1] || swap[0] != swap[1]) return false;
    if (!foundation::veltradata::isIntegerType(kind[0])) return false;
    out.type = foundation::veltradata::complexTypeOf(kind[0]);
    out.itemsize = 2 * size[0];
    out.component = size[0];
    out.swap = swap[0];
    return true;
}

// The format exportFormat gives each raw kind, by the kind's number; empty for the other kinds.
struct ExportFormat {
    char text[18];  // the longest: "T{b:real:b:imag:}"
};
constexpr ExportFormat exportFormatOf(char code, bool complex, bool integer) {
    ExportFormat out{};
    if (!complex) {
        out.text[0] = code;
    } else if (!integer) {
        out.text[0] = 'Z';
        out.text[1] = code;
    } else {
        constexpr char kPair[] = "T{?:real:?:imag:}";
        for (std::size_t i = 0; i + 1 < sizeof kPair; ++i) out.text[i] = kPair[i] == '?' ? code : kPair[i];
    }
    return out;
}
constexpr auto kExportFormats = [] {
    std::array<ExportFormat, foundation::veltradata::kMaxArrayType + 1> out{};
    out[static_cast<std::size_t>(ArrayType::LOGICAL)] = exportFormatOf('?', false, false);
    for (const RealFormat& f : kRealFormats) {
        out[static_cast<std::size_t>(f.kind)] = exportFormatOf(f.code, false, f.integer);
        out[static_cast<std::size_t>(foundation::veltradata::complexTypeOf(f.kind))] =
            exportFormatOf(f.code, true, f.integer);
    }
    return out;
}();

}  // namespace

bool parseBufferFormat(const char* format, BufferFormat& out, std::string& why) {
    const char* fmt = format ? format : "B";
    const char* p = fmt;
    Order order = Order::Native;
    readOrder(p, order);
    out = BufferFormat{};
    if (*p == 'T') {
        if (parseComplexInteger(p, order, out)) return true;
    } else {
        const bool complex = *p == 'Z';
        if (complex) ++p;
        std::size_t size = 0;
        ArrayType t = realCode(*p, order, size);
        if (t != ArrayType::UNKNOWN && p[1] == '\0' &&
            (!complex || t == ArrayType::DOUBLE || t == ArrayType::SINGLE)) {
            out.type = complex ? foundation::veltradata::complexTypeOf(t) : t;
            out.itemsize = complex ? 2 * size : size;
            out.component = size;
            out.swap = swapped(order);
            return true;
        }
    }
    const char* d = describe(fmt);
    why = d ? d : "";
    return false;
}

const char* exportFormat(ArrayType type) {
    const int v = static_cast<int>(type);
    if (!foundation::veltradata::isValidArrayType(v) || kExportFormats[static_cast<std::size_t>(v)].text[0] == '\0')
        return "B";
    return kExportFormats[static_cast<std::size_t>(v)].text;
}

}  // namespace PythonVeltraDataArray::arraypkg
