// The UTF-16-to-narrow helper used for category and variable names.
#include <gtest/gtest.h>

#include "convert/text_narrow.h"

using foundation::veltradata::ClientArrayFactory;
using foundation::veltradata::TypedArray;
using foundation::veltradata::VeltraString;
using PythonVeltraDataArray::detail::narrowUtf16;

TEST(PyPbNarrowText, AsciiPassesThrough) {
    EXPECT_EQ(narrowUtf16(VeltraString(u"Var_1")), "Var_1");
}

TEST(PyPbNarrowText, MissingAndEmptyGiveEmpty) {
    EXPECT_EQ(narrowUtf16(VeltraString()), "");
    EXPECT_EQ(narrowUtf16(VeltraString(u"")), "");
}

TEST(PyPbNarrowText, KeepsLowEightBitsWithoutTranscoding) {
    // U+00E9 stays one byte 0xE9; U+4E2D keeps 0x2D; a surrogate 0xD83D keeps 0x3D.
    EXPECT_EQ(narrowUtf16(VeltraString(u"\u00e9\u4e2d\xd83d")), std::string("\xe9\x2d\x3d"));
    EXPECT_EQ(narrowUtf16(VeltraString(std::u16string(1, u'\0'))), std::string(1, '\0'));
}

TEST(PyPbNarrowText, StringElements) {
    ClientArrayFactory f;
    TypedArray<VeltraString> a = f.createStringArray({1, 2}, {VeltraString(u"name"), VeltraString()});
    EXPECT_EQ(narrowUtf16(a[0]), "name");
    try {
        narrowUtf16(a[1]);
        FAIL() << "a missing element was narrowed";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "Missing string value");
    }
}
