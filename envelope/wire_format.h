// Protobuf wire-format primitives shared by the array codec and the call messages. Internal to envelope/.
// Writers assume the caller sized the destination exactly; the reader never reads past its end and reports
// anything it cannot parse by returning false, so each caller decides between throwing and stopping.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

namespace foundation::veltradata::protobuf::wire {

#if defined(__BYTE_ORDER__) && __BYTE_ORDER__ != __ORDER_LITTLE_ENDIAN__
#error "payloads are copied as raw little-endian bytes; a big-endian host needs byte swapping here"
#endif

enum WireType : std::uint32_t { kVarint = 0, kFixed64 = 1, kLen = 2, kStartGroup = 3, kEndGroup = 4, kFixed32 = 5 };

constexpr std::uint32_t makeTag(int field, WireType wt) { return (static_cast<std::uint32_t>(field) << 3) | wt; }

constexpr std::size_t varintSize(std::uint64_t v) {
    // 1 byte per 7 bits, at least one.
    return static_cast<std::size_t>((64 - __builtin_clzll(v | 1) + 6) / 7);
}
constexpr std::size_t tagSize(int field) { return varintSize(makeTag(field, kVarint)); }
// A length-delimited field: tag, length, body.
constexpr std::size_t lenFieldSize(int field, std::size_t body) { return tagSize(field) + varintSize(body) + body; }
// int32 fields: negative values travel sign-extended to 64 bits, as protobuf writes them.
inline std::uint64_t int32Bits(std::int32_t v) { return static_cast<std::uint64_t>(static_cast<std::int64_t>(v)); }
inline std::uint64_t zigzag(std::int64_t v) {
    return (static_cast<std::uint64_t>(v) << 1) ^ static_cast<std::uint64_t>(v >> 63);
}
inline std::int64_t unzigzag(std::uint64_t v) {
    return static_cast<std::int64_t>(v >> 1) ^ -static_cast<std::int64_t>(v & 1);
}

inline std::uint8_t* writeVarint(std::uint8_t* p, std::uint64_t v) {
    while (v >= 0x80) {
        *p++ = static_cast<std::uint8_t>(v | 0x80);
        v >>= 7;
    }
    *p++ = static_cast<std::uint8_t>(v);
    return p;
}
inline std::uint8_t* writeTag(std::uint8_t* p, int field, WireType wt) { return writeVarint(p, makeTag(field, wt)); }
inline std::uint8_t* writeLenHeader(std::uint8_t* p, int field, std::size_t len) {
    return writeVarint(writeTag(p, field, kLen), len);
}
inline std::uint8_t* writeBytes(std::uint8_t* p, int field, const void* data, std::size_t len) {
    p = writeLenHeader(p, field, len);
    if (len) std::memcpy(p, data, len);
    return p + len;
}

// A contiguous piece of the input.
struct Span {
    const std::uint8_t* data = nullptr;
    std::size_t size = 0;
};

class Reader {
public:
    Reader(const std::uint8_t* data, std::size_t size) : p_(data), end_(data + size) {}
    explicit Reader(Span s) : Reader(s.data, s.size) {}

    bool done() const { return p_ == end_; }
    std::size_t remaining() const { return static_cast<std::size_t>(end_ - p_); }

    bool varint(std::uint64_t& v) {
        v = 0;
        for (int shift = 0; shift < 70; shift += 7) {
            if (p_ == end_) return false;
            const std::uint8_t b = *p_++;
            if (shift < 64) v |= static_cast<std::uint64_t>(b & 0x7f) << shift;
            if (!(b & 0x80)) return true;
        }
        return false;  // more than ten bytes
    }

    // A field tag; false at a tag protobuf itself refuses (field 0, wire types 6 and 7, more than 32 bits).
    bool tag(int& field, WireType& wt) {
        std::uint64_t t;
        if (!varint(t) || t > 0xffffffffu) return false;
        field = static_cast<int>(t >> 3);
        const std::uint32_t w = static_cast<std::uint32_t>(t & 7);
        if (field == 0 || w > kFixed32) return false;
        wt = static_cast<WireType>(w);
        return true;
    }

    // The body of a length-delimited field; false when the length runs past the end.
    bool len(Span& out) {
        std::uint64_t n;
        return varint(n) && take(n, out);
    }
    // The next n bytes; false when fewer remain.
    bool take(std::uint64_t n, Span& out) {
        if (n > remaining()) return false;
        out = Span{p_, static_cast<std::size_t>(n)};
        p_ += n;
        return true;
    }
    // As len(), but a body cut short by the end of the input yields what is there and reports the cut.
    bool lenOrRest(Span& out, bool& cut) {
        std::uint64_t n;
        if (!varint(n)) return false;
        cut = n > remaining();
        const std::size_t take = cut ? remaining() : static_cast<std::size_t>(n);
        out = Span{p_, take};
        p_ += take;
        return true;
    }

    // Skips the value of a field protobuf would keep as unknown: groups to their matching end tag.
    bool skip(int field, WireType wt) {
        switch (wt) {
            case kVarint: { std::uint64_t v; return varint(v); }
            case kFixed64: return advance(8);
            case kFixed32: return advance(4);
            case kLen: { Span s; return len(s); }
            case kStartGroup: return skipGroup(field);
            default: return false;  // an end tag without its start
        }
    }

private:
    bool advance(std::size_t n) {
        if (n > remaining()) return false;
        p_ += n;
        return true;
    }
    bool skipGroup(int field) {
        // Iterative, so that nested groups cannot exhaust the stack; bounded like protobuf's recursion limit.
        std::vector<int> open{field};
        while (!open.empty()) {
            int f;
            WireType w;
            if (!tag(f, w)) return false;
            if (w == kEndGroup) {
                if (f != open.back()) return false;
                open.pop_back();
            } else if (w == kStartGroup) {
                if (open.size() >= 100) return false;
                open.push_back(f);
            } else if (!skip(f, w)) {
                return false;
            }
        }
        return true;
    }

    const std::uint8_t* p_;
    const std::uint8_t* end_;
};

// Repeated scalar fields may arrive packed (one length-delimited run) or one value per tag: protobuf
// readers accept both. Appends the value(s) of one occurrence; false when malformed.
template <typename Container>
bool readRepeatedVarint(Reader& r, WireType wt, Container& out) {
    if (wt == kVarint) {
        std::uint64_t v;
        if (!r.varint(v)) return false;
        out.push_back(v);
        return true;
    }
    Span s;
    if (!r.len(s)) return false;
    // A packed run holds one value per byte without the continuation bit: room for all of them at once
    // (bounded by the bytes the message carries) instead of growing one value at a time.
    std::size_t count = 0;
    for (std::size_t i = 0; i < s.size; ++i) count += (s.data[i] & 0x80) == 0;
    out.reserve(out.size() + count);
    Reader in(s);
    while (!in.done()) {
        std::uint64_t v;
        if (!in.varint(v)) return false;
        out.push_back(v);
    }
    return true;
}

// A growable list that keeps its first N entries inline: the repeated fields of a message mostly occur a few
// times, and each of those lists would otherwise cost a heap allocation or several. For trivially copyable T.
template <typename T, std::size_t N>
class SmallVector {
public:
    void push_back(const T& v) {
        if (heap_.empty() && size_ < N) {
            inline_[size_++] = v;
            return;
        }
        if (heap_.empty()) {
            heap_.reserve(2 * N);
            heap_.assign(inline_, inline_ + size_);
        }
        heap_.push_back(v);
        ++size_;
    }
    // Room for n entries at once; inline storage needs none.
    void reserve(std::size_t n) {
        if (n > N) heap_.reserve(n);
    }
    void clear() {
        size_ = 0;
        heap_.clear();
    }
    std::size_t size() const { return size_; }
    bool empty() const { return size_ == 0; }
    const T* begin() const { return heap_.empty() ? inline_ : heap_.data(); }
    const T* end() const { return begin() + size_; }
    const T& operator[](std::size_t i) const { return begin()[i]; }

private:
    T inline_[N];
    std::size_t size_ = 0;
    std::vector<T> heap_;
};

// The UTF-8 check protobuf applies to proto3 string fields.
inline bool validUtf8(const std::uint8_t* s, std::size_t n) {
    std::size_t i = 0;
    while (i < n) {
        const std::uint8_t c = s[i];
        if (c < 0x80) { ++i; continue; }
        std::size_t len;
        std::uint32_t cp;
        if ((c & 0xe0) == 0xc0) { len = 2; cp = c & 0x1f; }
        else if ((c & 0xf0) == 0xe0) { len = 3; cp = c & 0x0f; }
        else if ((c & 0xf8) == 0xf0) { len = 4; cp = c & 0x07; }
        else return false;
        if (n - i < len) return false;
        for (std::size_t k = 1; k < len; ++k) {
            if ((s[i + k] & 0xc0) != 0x80) return false;
            cp = (cp << 6) | (s[i + k] & 0x3f);
        }
        static constexpr std::uint32_t kMin[] = {0, 0, 0x80, 0x800, 0x10000};
        if (cp < kMin[len] || cp > 0x10ffff || (cp >= 0xd800 && cp <= 0xdfff)) return false;
        i += len;
    }
    return true;
}

}  // namespace foundation::veltradata::protobuf::wire
