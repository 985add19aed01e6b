#include "arraypkg/buffer_format.h"

#include <climits>
#include <cstring>

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

ArrayType integerKind(std::size_t size, bool isSigned) {
    switch (size) {
        case 1: return isSigned ? ArrayType::INT8 : ArrayType::UINT8;
        case 2: return isSigned ? ArrayType::INT16 : ArrayType::UINT16;
        case 4: return isSigned ? ArrayType::INT32 : ArrayType::UINT32;
        case 8: return isSigned ? ArrayType::INT64 : ArrayType::UINT64;
        default: return ArrayType::UNKNOWN;
    }
}

// One real element code; UNKNOWN when it has none.
ArrayType realCode(char c, Order order, std::size_t& size) {
    const bool native = order == Order::Native;
    switch (c) {
        case 'b': size = 1; return ArrayType::INT8;
        case 'B': size = 1; return ArrayType::UINT8;
        case 'h': size = 2; return ArrayType::INT16;
        case 'H': size = 2; return ArrayType::UINT16;
        case 'i': size = native ? sizeof(int) : 4; return integerKind(size, true);
        case 'I': size = native ? sizeof(unsigned) : 4; return integerKind(size, false);
        case 'l': size = native ? sizeof(long) : 4; return integerKind(size, true);
        case 'L': size = native ? sizeof(unsigned long) : 4; return integerKind(size, false);
        case 'q': size = 8; return ArrayType::INT64;
        case 'Q': size = 8; return ArrayType::UINT64;
        case 'n': size = sizeof(std::size_t); return native ? integerKind(size, true) : ArrayType::UNKNOWN;
        case 'N': size = sizeof(std::size_t); return native ? integerKind(size, false) : ArrayType::UNKNOWN;
        case 'f': size = 4; return ArrayType::SINGLE;
        case 'd': size = 8; return ArrayType::DOUBLE;
        case '?': size = 1; return ArrayType::LOGICAL;
        default: return ArrayType::UNKNOWN;
    }
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
    switch (type) {
        case ArrayType::LOGICAL: return "?";
        case ArrayType::DOUBLE: return "d";
        case ArrayType::SINGLE: return "f";
        case ArrayType::INT8: return "b";
        case ArrayType::UINT8: return "B";
        case ArrayType::INT16: return "h";
        case ArrayType::UINT16: return "H";
        case ArrayType::INT32: return "i";
        case ArrayType::UINT32: return "I";
        case ArrayType::INT64: return "q";
        case ArrayType::UINT64: return "Q";
        case ArrayType::COMPLEX_DOUBLE: return "Zd";
        case ArrayType::COMPLEX_SINGLE: return "Zf";
        case ArrayType::COMPLEX_INT8: return "T{b:real:b:imag:}";
        case ArrayType::COMPLEX_UINT8: return "T{B:real:B:imag:}";
        case ArrayType::COMPLEX_INT16: return "T{h:real:h:imag:}";
        case ArrayType::COMPLEX_UINT16: return "T{H:real:H:imag:}";
        case ArrayType::COMPLEX_INT32: return "T{i:real:i:imag:}";
        case ArrayType::COMPLEX_UINT32: return "T{I:real:I:imag:}";
        case ArrayType::COMPLEX_INT64: return "T{q:real:q:imag:}";
        case ArrayType::COMPLEX_UINT64: return "T{Q:real:Q:imag:}";
        default: return "B";
    }
}

}  // namespace PythonVeltraDataArray::arraypkg
