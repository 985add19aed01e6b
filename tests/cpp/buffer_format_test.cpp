// The buffer-format parser of the typed array package, on every prefix of the formats it knows: each prefix
// sits in a heap block of exactly its size, so a read past the terminator is an AddressSanitizer report.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "arraypkg/buffer_format.h"

namespace {

using foundation::veltradata::ArrayType;
using PythonVeltraDataArray::arraypkg::BufferFormat;
using PythonVeltraDataArray::arraypkg::parseBufferFormat;

bool parse(const std::string& format, BufferFormat& out) {
    std::unique_ptr<char[]> exact(new char[format.size() + 1]);
    std::memcpy(exact.get(), format.c_str(), format.size() + 1);
    std::string why;
    return parseBufferFormat(exact.get(), out, why);
}

class BufferFormatPrefixes : public ::testing::TestWithParam<const char*> {};

TEST_P(BufferFormatPrefixes, OnlyTheWholeFormatParsesAndNoPrefixReadsPastItsEnd) {
    const std::string format = GetParam();
    BufferFormat out;
    EXPECT_TRUE(parse(format, out)) << format;
    for (std::size_t n = 0; n < format.size(); ++n) {
        const std::string prefix = format.substr(0, n);
        // "<i" also parses cut to "<" (a byte, by default): only longer layouts must refuse their prefixes.
        if (prefix.empty() || prefix.find('{') != std::string::npos || prefix == "Z" || prefix == ">Z")
            EXPECT_FALSE(parse(prefix, out)) << prefix;
        else
            parse(prefix, out);
    }
}

INSTANTIATE_TEST_SUITE_P(Formats, BufferFormatPrefixes,
                         ::testing::Values("T{h:real:h:imag:}", "<T{<q:real:<q:imag:}", "T{B:real:B:imag:}", ">Zd",
                                           "Zf", "<i", "@?"));

TEST(BufferFormat, ComplexIntegerLayoutReadsAsItsKind) {
    BufferFormat out;
    ASSERT_TRUE(parse(">T{i:real:i:imag:}", out));
    EXPECT_EQ(out.type, ArrayType::COMPLEX_INT32);
    EXPECT_EQ(out.itemsize, 8u);
    EXPECT_EQ(out.component, 4u);
}

}  // namespace
