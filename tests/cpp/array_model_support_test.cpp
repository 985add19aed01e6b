// Support of the array model: UTF-8/UTF-16 conversion, the debugging type table, the fixed texts, and the
// 64-byte aligned element buffer (heap and mmap'd).
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "veltradata/element_block.h"
#include "veltradata/utf16.h"
#include "veltradata/veltradata.h"

namespace {

using namespace foundation::veltradata;
using foundation::veltradata::detail::AlignedBuffer;

// ---------------------------------------------------------------------------------------------------------
// UTF-8 <-> UTF-16.

struct Utf8Case {
    std::string utf8;
    std::u16string utf16;
};

class ArrayModelUtf8 : public ::testing::TestWithParam<Utf8Case> {};

TEST_P(ArrayModelUtf8, WellFormedTextRoundTrips) {
    const auto& c = GetParam();
    EXPECT_EQ(utf8ToUtf16(c.utf8), c.utf16);
    EXPECT_EQ(utf16ToUtf8(c.utf16), c.utf8);
    std::u16string strict;
    EXPECT_TRUE(utf8ToUtf16Strict(c.utf8.data(), c.utf8.size(), strict));
    EXPECT_EQ(strict, c.utf16);
}

INSTANTIATE_TEST_SUITE_P(
    Text, ArrayModelUtf8,
    ::testing::Values(Utf8Case{"", u""}, Utf8Case{"plain ASCII", u"plain ASCII"},
                      Utf8Case{std::string("nul\0inside", 10), std::u16string(u"nul\0inside", 10)},
                      Utf8Case{"\x7f", u"\x7f"}, Utf8Case{"\xc2\x80", u"\u0080"},
                      Utf8Case{"caf\xc3\xa9", u"caf\u00e9"}, Utf8Case{"\xdf\xbf", u"\u07ff"},
                      Utf8Case{"\xe0\xa0\x80", u"\u0800"}, Utf8Case{"\xe2\x82\xac", u"\u20ac"},
                      Utf8Case{"\xed\x9f\xbf", u"\ud7ff"}, Utf8Case{"\xee\x80\x80", u"\ue000"},
                      Utf8Case{"\xef\xbf\xbf", u"\uffff"},
                      // Beyond the basic plane: surrogate pairs.
                      Utf8Case{"\xf0\x90\x80\x80", u"\U00010000"}, Utf8Case{"\xf0\x9f\x98\x80", u"\U0001F600"},
                      Utf8Case{"\xf4\x8f\xbf\xbf", u"\U0010FFFF"},
                      Utf8Case{"a\xf0\x9f\x98\x80z", std::u16string{u'a', 0xD83D, 0xDE00, u'z'}}));

// Malformed UTF-8: every bad byte becomes U+FFFD, the good text around it survives, and nothing malformed
// (no surrogate code unit, no decoded overlong character) comes out.
class ArrayModelUtf8Malformed : public ::testing::TestWithParam<std::string> {};

TEST_P(ArrayModelUtf8Malformed, BecomesReplacementCharacters) {
    const std::string bad = GetParam();
    const std::u16string out = utf8ToUtf16("<" + bad + ">");
    std::u16string strict;
    EXPECT_FALSE(utf8ToUtf16Strict(bad.data(), bad.size(), strict));  // the strict mode refuses it instead
    ASSERT_GE(out.size(), 3u);
    EXPECT_EQ(out.front(), u'<');
    EXPECT_EQ(out.back(), u'>');
    const std::u16string middle = out.substr(1, out.size() - 2);
    EXPECT_FALSE(middle.empty());
    EXPECT_LE(middle.size(), bad.size());
    for (char16_t u : middle) EXPECT_EQ(u, 0xFFFD) << std::hex << static_cast<int>(u);
}

INSTANTIATE_TEST_SUITE_P(Text, ArrayModelUtf8Malformed,
                         ::testing::Values(std::string("\x80"), std::string("\xbf"), std::string("\xc3"),
                                           std::string("\xe2\x82"), std::string("\xf0\x9f\x98"),
                                           std::string("\xff"), std::string("\xfe"), std::string("\xf8\x88\x80\x80\x80"),
                                           std::string("\xc0\xaf"),                // overlong '/'
                                           std::string("\xe0\x80\xaf"),            // overlong '/'
                                           std::string("\xf0\x80\x80\xaf"),        // overlong '/'
                                           std::string("\xed\xa0\x80"),            // encoded surrogate
                                           std::string("\xed\xbf\xbf"),            // encoded surrogate
                                           std::string("\xf4\x90\x80\x80")));      // beyond U+10FFFF

TEST(ArrayModelUtf8Malformed, TruncatedSequenceDoesNotSwallowTheNextCharacter) {
    EXPECT_EQ(utf8ToUtf16("\xe2\x82" "A"), (std::u16string{0xFFFD, 0xFFFD, u'A'}));
    EXPECT_EQ(utf8ToUtf16("\xc3(") , (std::u16string{0xFFFD, u'('}));
    EXPECT_EQ(utf8ToUtf16("\xf0\x9f\x98\xf0\x9f\x98\x80"), (std::u16string{0xFFFD, 0xFFFD, 0xFFFD, 0xD83D, 0xDE00}));
}

TEST(ArrayModelUtf16, LoneSurrogatesBecomeReplacementCharacters) {
    const std::string fffd = "\xef\xbf\xbd";
    EXPECT_EQ(utf16ToUtf8(std::u16string{0xD800}), fffd);
    EXPECT_EQ(utf16ToUtf8(std::u16string{0xDC00}), fffd);
    EXPECT_EQ(utf16ToUtf8(std::u16string{u'a', 0xD83D}), "a" + fffd);
    EXPECT_EQ(utf16ToUtf8(std::u16string{0xDE00, 0xD83D}), fffd + fffd);  // a pair in the wrong order
    EXPECT_EQ(utf16ToUtf8(std::u16string{0xD83D, u'x', 0xDE00}), fffd + "x" + fffd);
    EXPECT_EQ(utf16ToUtf8(std::u16string{0xD83D, 0xD83D, 0xDE00}), fffd + "\xf0\x9f\x98\x80");
    // Decoding what came out never yields a surrogate again.
    EXPECT_EQ(utf8ToUtf16(utf16ToUtf8(std::u16string{0xDBFF})), std::u16string{0xFFFD});
}

// ---------------------------------------------------------------------------------------------------------
// Fixed texts and the type table.

TEST(ArrayModelTexts, TheTwoFixedMessages) {
    EXPECT_STREQ(IndexOutOfRangeException().what(), "Array index is out of range.");
    EXPECT_STREQ(InvalidArrayTypeException().what(), "Unknown DataType field in veltra::data::Array.");
    // Every library exception is a std::exception whose text is all a caller reads.
    const std::exception& e = TypeMismatchException("t");
    EXPECT_STREQ(e.what(), "t");
}

TEST(ArrayModelTexts, TypeTableListsMembersOneToTwentyFiveAndTwentySeven) {
    const std::string want =
        "   Compare to: \n"
        "       LOGICAL: 1\n"
        "       CHAR: 2\n"
        "       VELTRA_STRING: 3\n"
        "       DOUBLE: 4\n"
        "       SINGLE: 5\n"
        "       INT8: 6\n"
        "       UINT8: 7\n"
        "       INT16: 8\n"
        "       UINT16: 9\n"
        "       INT32: 10\n"
        "       UINT32: 11\n"
        "       INT64: 12\n"
        "       UINT64: 13\n"
        "       COMPLEX_DOUBLE: 14\n"
        "       COMPLEX_SINGLE: 15\n"
        "       COMPLEX_INT8: 16\n"
        "       COMPLEX_UINT8: 17\n"
        "       COMPLEX_INT16: 18\n"
        "       COMPLEX_UINT16: 19\n"
        "       COMPLEX_INT32: 20\n"
        "       COMPLEX_UINT32: 21\n"
        "       COMPLEX_INT64: 22\n"
        "       COMPLEX_UINT64: 23\n"
        "       CELL: 24\n"
        "       STRUCT: 25\n"
        "       VALUE_OBJECT: 27\n";
    EXPECT_EQ(arrayTypeTable(), want);
}

TEST(ArrayModelTexts, EnumerationValuesAreFixed) {
    const std::vector<std::pair<ArrayType, int>> fixed = {
        {ArrayType::UNKNOWN, 0},          {ArrayType::LOGICAL, 1},          {ArrayType::CHAR, 2},
        {ArrayType::VELTRA_STRING, 3},    {ArrayType::DOUBLE, 4},           {ArrayType::SINGLE, 5},
        {ArrayType::INT8, 6},             {ArrayType::UINT64, 13},          {ArrayType::COMPLEX_DOUBLE, 14},
        {ArrayType::COMPLEX_SINGLE, 15},  {ArrayType::COMPLEX_UINT64, 23},  {ArrayType::CELL, 24},
        {ArrayType::STRUCT, 25},          {ArrayType::CLASSIC_OBJECT, 26},  {ArrayType::VALUE_OBJECT, 27},
        {ArrayType::HANDLE_OBJECT_REF, 28}, {ArrayType::ENUM, 29},          {ArrayType::SPARSE_30, 30},
        {ArrayType::SPARSE_32, 32}};
    for (const auto& [t, v] : fixed) {
        EXPECT_EQ(static_cast<int>(t), v) << arrayTypeName(t);
    }
    EXPECT_STREQ(arrayTypeName(ArrayType::HANDLE_OBJECT_REF), "HANDLE_OBJECT_REF");
    EXPECT_STREQ(arrayTypeName(ArrayType::CLASSIC_OBJECT), "CLASSIC_OBJECT");
}

// ---------------------------------------------------------------------------------------------------------
// AlignedBuffer.

class ArrayModelBuffer : public ::testing::TestWithParam<std::size_t> {};

TEST_P(ArrayModelBuffer, IsSixtyFourByteAlignedZeroedAndWritableToItsEnd) {
    const std::size_t n = GetParam();
    {
        // Dirty the allocator first so that a missing zero-fill would show.
        AlignedBuffer dirty(n, false);
        std::memset(dirty.data(), 0xAB, n);
    }
    AlignedBuffer b(n, true);
    EXPECT_EQ(b.size(), n);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(b.data()) % AlignedBuffer::kAlignment, 0u);
    EXPECT_EQ(AlignedBuffer::kAlignment, 64u);
    EXPECT_TRUE(std::all_of(b.data(), b.data() + n, [](std::uint8_t c) { return c == 0; }));
    std::memset(b.data(), 0x5A, n);  // every byte is ours to write (ASan checks the heap-backed ones)
    AlignedBuffer c = b.clone();
    EXPECT_EQ(c.size(), n);
    EXPECT_NE(c.data(), b.data());
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(c.data()) % 64, 0u);
    EXPECT_EQ(std::memcmp(c.data(), b.data(), n), 0);
    const std::uint8_t* where = b.data();
    AlignedBuffer moved(std::move(b));
    EXPECT_EQ(moved.data(), where);
    EXPECT_EQ(moved.size(), n);
    EXPECT_EQ(b.size(), 0u);  // NOLINT(bugprone-use-after-move)
    AlignedBuffer assigned;
    assigned = std::move(moved);
    EXPECT_EQ(assigned.data(), where);
}

INSTANTIATE_TEST_SUITE_P(Sizes, ArrayModelBuffer,
                         ::testing::Values(1, 7, 63, 64, 65, 1000, 4096, (std::size_t{1} << 20) - 1,
                                           std::size_t{1} << 20, (std::size_t{1} << 20) + 3,
                                           (std::size_t{5} << 20) + 17, std::size_t{64} << 20));

TEST(ArrayModelBufferExtra, EmptyBufferHasAnAlignedAddressAndRefusesImpossibleSizes) {
    AlignedBuffer empty;
    EXPECT_NE(empty.data(), nullptr);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(empty.data()) % 64, 0u);
    AlignedBuffer zero(0);
    EXPECT_NE(zero.data(), nullptr);
    EXPECT_EQ(zero.size(), 0u);
    EXPECT_EQ(zero.clone().size(), 0u);
    EXPECT_THROW(AlignedBuffer(SIZE_MAX), std::bad_alloc);
    EXPECT_THROW(AlignedBuffer(SIZE_MAX - 100), std::bad_alloc);
    EXPECT_THROW(AlignedBuffer(std::size_t{1} << 52), std::bad_alloc);
}

TEST(ArrayModelBufferExtra, ArraysOfEveryRawKindExposeAlignedStorageAlsoWhenLarge) {
    ClientArrayFactory f;
    for (int v = 1; v <= 23; ++v) {
        const auto t = static_cast<ArrayType>(v);
        if (!isRawBufferType(t)) continue;
        for (std::uint64_t n : {std::uint64_t{3}, std::uint64_t{1} << 18}) {
            Array a = f.createArray(t, {1, n});
            const std::uint8_t* p = detail::rawData(a, false);
            EXPECT_EQ(reinterpret_cast<std::uintptr_t>(p) % 64, 0u) << arrayTypeName(t) << " " << n;
            const std::size_t bytes = static_cast<std::size_t>(n) * elementSize(t);
            EXPECT_TRUE(std::all_of(p, p + bytes, [](std::uint8_t c) { return c == 0; }));
        }
    }
    // Adopting a buffer keeps its address: no copy.
    AlignedBuffer buf(2 * sizeof(double));
    const std::uint8_t* where = buf.data();
    Array adopted = f.adoptBuffer(ArrayType::DOUBLE, {1, 2}, std::move(buf));
    EXPECT_EQ(detail::rawData(adopted, false), where);
    AlignedBuffer wrong(3);
    EXPECT_THROW(f.adoptBuffer(ArrayType::DOUBLE, {1, 1}, std::move(wrong)), ArrayException);
    AlignedBuffer logical(3);
    logical.data()[1] = 9;
    TypedArray<bool> l = f.adoptBuffer(ArrayType::LOGICAL, {1, 3}, std::move(logical));
    EXPECT_EQ(reinterpret_cast<const std::uint8_t*>(std::as_const(l).data())[1], 1);
}

}  // namespace
