// The array model's non-numeric kinds (structs, cells, strings, value objects, handle references,
// enumerations), view construction, equality and element conversion.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "array_model_test_util.h"
#include "veltradata/veltradata.h"

namespace {

using namespace foundation::veltradata;
using array_model_test::thrownMessage;

std::vector<std::string> names(const std::vector<VeltraFieldIdentifier>& ids) {
    return std::vector<std::string>(ids.begin(), ids.end());
}

// ---------------------------------------------------------------------------------------------------------
// Views constructed from the wrong kind.

struct ViewCase {
    const char* view;
    ArrayType accepts;
    std::function<void(const Array&)> construct;
};

class ArrayModelViews : public ::testing::TestWithParam<ViewCase> {};

TEST_P(ArrayModelViews, AcceptsOnlyItsOwnKindFromCopyOrMove) {
    const ViewCase& c = GetParam();
    ClientArrayFactory f;
    for (int v = 1; v <= 32; ++v) {
        if (v == 26) continue;
        const auto t = static_cast<ArrayType>(v);
        Array a = f.createArray(t, {1, 1});
        if (t == c.accepts) {
            EXPECT_NO_THROW(c.construct(a)) << arrayTypeName(t);
        } else {
            EXPECT_THROW(c.construct(a), TypeMismatchException) << c.view << " from " << arrayTypeName(t);
        }
    }
    EXPECT_THROW(c.construct(Array()), TypeMismatchException);
}

INSTANTIATE_TEST_SUITE_P(
    EveryView, ArrayModelViews,
    ::testing::Values(
        ViewCase{"CharArray", ArrayType::CHAR, [](const Array& a) { CharArray v(a); }},
        ViewCase{"StructArray", ArrayType::STRUCT, [](const Array& a) { StructArray v(a); }},
        ViewCase{"StructArray(&&)", ArrayType::STRUCT, [](const Array& a) { StructArray v(Array{a}); }},
        ViewCase{"cell", ArrayType::CELL, [](const Array& a) { TypedArray<Array> v(a); }},
        ViewCase{"ValueObjectArray", ArrayType::VALUE_OBJECT, [](const Array& a) { ValueObjectArray v(a); }},
        ViewCase{"handles", ArrayType::HANDLE_OBJECT_REF, [](const Array& a) { TypedArray<HandleObjectRef> v(a); }},
        ViewCase{"EnumArray", ArrayType::ENUM, [](const Array& a) { EnumArray v(a); }},
        ViewCase{"EnumArray(&&)", ArrayType::ENUM, [](const Array& a) { EnumArray v(Array{a}); }},
        ViewCase{"strings", ArrayType::VELTRA_STRING, [](const Array& a) { TypedArray<VeltraString> v(a); }},
        ViewCase{"logical", ArrayType::LOGICAL, [](const Array& a) { TypedArray<bool> v(a); }},
        ViewCase{"uint16", ArrayType::UINT16, [](const Array& a) { TypedArray<std::uint16_t> v(Array{a}); }},
        ViewCase{"complex int64", ArrayType::COMPLEX_INT64,
                 [](const Array& a) { TypedArray<std::complex<std::int64_t>> v(a); }}),
    [](const ::testing::TestParamInfo<ViewCase>& i) { return "case" + std::to_string(i.index); });

// ---------------------------------------------------------------------------------------------------------
// Structs.

TEST(ArrayModelStruct, FieldsKeepCreationOrderAndStartEmpty) {
    ClientArrayFactory f;
    StructArray s = f.createStructArray({2, 1}, {"zeta", "alpha", "Mid_1"});
    EXPECT_EQ(s.getType(), ArrayType::STRUCT);
    EXPECT_EQ(s.getNumberOfFields(), 3u);
    EXPECT_EQ(names(s.getFieldNames()), (std::vector<std::string>{"zeta", "alpha", "Mid_1"}));
    EXPECT_TRUE(s.getFieldNames()[1] == VeltraFieldIdentifier("alpha"));
    EXPECT_EQ(std::string(s.getFieldNames()[0]), "zeta");
    for (auto e : s) {
        Struct v = *e;
        EXPECT_EQ(names(v.getFieldNames()), (std::vector<std::string>{"zeta", "alpha", "Mid_1"}));
        for (const char* fld : {"zeta", "alpha", "Mid_1"}) EXPECT_TRUE(v[fld].isEmpty());
    }
    StructArray none = f.createStructArray({1, 1}, {});
    EXPECT_EQ(none.getNumberOfFields(), 0u);
    EXPECT_TRUE(none.getFieldNames().empty());
}

TEST(ArrayModelStruct, FieldsAreReadAndWrittenPerElementAndUnknownFieldsThrow) {
    ClientArrayFactory f;
    StructArray s = f.createStructArray({1, 2}, {"a", "b"});
    s[0]["a"] = f.createScalar(1.0);
    s[1]["a"] = f.createScalar(2.0);
    s[1].addIndex("b").setElement(std::string("text"));
    EXPECT_TRUE(Array(s[0]["a"]) == f.createScalar(1.0));
    EXPECT_TRUE(Array(s[1]["a"]) == f.createScalar(2.0));
    EXPECT_TRUE(s[0]["b"].castTo<Array>().isEmpty());
    EXPECT_EQ(s[1]["b"].castToString(), "text");
    EXPECT_EQ(CharArray(Array(s[1]["b"])).toAscii(), "text");
    const std::string field = "a";
    EXPECT_TRUE(Array(s[1][field]) == f.createScalar(2.0));
    Struct whole = *s[1];
    EXPECT_TRUE(whole["a"] == f.createScalar(2.0));
    EXPECT_TRUE(whole.hasField("b"));
    EXPECT_FALSE(whole.hasField("c"));

    EXPECT_THROW((void)Array(s[0]["c"]), ArrayException);
    EXPECT_THROW(s[0]["c"] = f.createScalar(1.0), ArrayException);
    EXPECT_THROW((void)whole["c"], ArrayException);
    EXPECT_THROW((void)Array(s[0]["A"]), ArrayException);  // names are case-sensitive
    EXPECT_THROW((void)Array(s[0]), TypeMismatchException);  // an element is read field by field
    EXPECT_THROW((void)s[0]["a"]["b"], TypeMismatchException);
    // Field names index only struct elements.
    Array cell = f.createCellArray({1, 1});
    EXPECT_THROW((void)cell[0]["a"], TypeMismatchException);
}

class ArrayModelStructNames : public ::testing::TestWithParam<std::pair<std::string, bool>> {};

TEST_P(ArrayModelStructNames, OnlyIdentifiersAreFieldNames) {
    const auto& [name, valid] = GetParam();
    ClientArrayFactory f;
    EXPECT_EQ(isValidFieldName(name), valid);
    if (valid) {
        EXPECT_NO_THROW(f.createStructArray({1, 1}, {name}));
    } else {
        EXPECT_THROW(f.createStructArray({1, 1}, {"ok", name}), InvalidFieldNameException);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Names, ArrayModelStructNames,
    ::testing::Values(std::make_pair(std::string("a"), true), std::make_pair(std::string("A9_z"), true),
                      std::make_pair(std::string(63, 'x'), true), std::make_pair(std::string(64, 'x'), false),
                      std::make_pair(std::string(""), false), std::make_pair(std::string("9a"), false),
                      std::make_pair(std::string("_a"), false), std::make_pair(std::string("a b"), false),
                      std::make_pair(std::string("a-b"), false), std::make_pair(std::string("a.b"), false),
                      std::make_pair(std::string("caf\xc3\xa9"), false),
                      std::make_pair(std::string("a\0b", 3), false)));

TEST(ArrayModelStruct, DuplicateFieldNamesAreRefused) {
    ClientArrayFactory f;
    EXPECT_THROW(f.createStructArray({1, 1}, {"a", "b", "a"}), InvalidFieldNameException);
    EXPECT_NO_THROW(f.createStructArray({1, 1}, {"a", "A"}));
}

// ---------------------------------------------------------------------------------------------------------
// Cells.

TEST(ArrayModelCell, ElementsAreEmptyUntilWrittenAndGivenElementsAreColumnMajor) {
    ClientArrayFactory f;
    TypedArray<Array> fresh = f.createCellArray({2, 2});
    for (auto r : fresh) {
        Array e = r;
        // The engine's own empty value, a 0-by-0 double.
        EXPECT_EQ(e.getType(), ArrayType::DOUBLE);
        EXPECT_EQ(e.getDimensions(), (Dims{0, 0}));
    }
    TypedArray<Array> c = f.createCellArray(
        {2, 2}, {f.createScalar(0.0), f.createScalar(1.0), f.createScalar(2.0), f.createScalar(3.0)});
    EXPECT_TRUE(Array(c[1][0]) == f.createScalar(1.0));
    EXPECT_TRUE(Array(c[0][1]) == f.createScalar(2.0));
    EXPECT_TRUE(c[1][1].castTo<Array>() == f.createScalar(3.0));
    EXPECT_THROW(f.createCellArray({2, 2}, {f.createScalar(1.0)}), ArrayException);
    EXPECT_THROW(c[0].setElement(1.0), TypeMismatchException);  // a cell holds arrays, not numbers
    EXPECT_THROW((void)c[0].castTo<double>(), TypeMismatchException);
    // A typed element read of the array inside a cell.
    EXPECT_EQ(TypedArray<double>(Array(c[3]))[0].castTo<double>(), 3.0);
}

TEST(ArrayModelCell, WritingStringsIntoCellsMakesCharOrStringArrays) {
    ClientArrayFactory f;
    TypedArray<Array> c = f.createCellArray({1, 3});
    c[0].setElement(std::string("h\xc3\xa9"));
    c[1].setElement(VeltraString(u"x"));
    c[2].setElement(VeltraString());
    CharArray chars = Array(c[0]);
    EXPECT_EQ(chars.toUTF16(), u"h\u00e9");
    EXPECT_EQ(c[0].castToString(), "h\xc3\xa9");
    TypedArray<VeltraString> s1 = Array(c[1]);
    EXPECT_EQ(std::u16string(s1[0]), u"x");
    TypedArray<VeltraString> s2 = Array(c[2]);
    EXPECT_FALSE(s2[0].has_value());
    EXPECT_THROW((void)c[1].castToString(), TypeMismatchException);  // a string array is not a char array
}

TEST(ArrayModelCell, NestedCellsCompareDeeply) {
    ClientArrayFactory f;
    auto nested = [&](double leaf) {
        Array inner = f.createCellArray({1, 2}, {f.createScalar(leaf), f.createCharArray("k")});
        return Array(f.createCellArray({1, 1}, {f.createCellArray({1, 1}, {inner})}));
    };
    EXPECT_TRUE(nested(1.0) == nested(1.0));
    EXPECT_FALSE(nested(1.0) == nested(2.0));
    EXPECT_TRUE(nested(std::nan("")) == nested(std::nan("")));
}

// ---------------------------------------------------------------------------------------------------------
// Strings and char arrays.

TEST(ArrayModelString, ScalarsFromUtf8AndUtf16AndMissingVersusEmpty) {
    ClientArrayFactory f;
    TypedArray<VeltraString> a = f.createScalar(std::string("\xe2\x82\xac" "5"));
    TypedArray<VeltraString> b = f.createScalar(std::u16string(u"\u20ac" "5"));
    EXPECT_EQ(a.getType(), ArrayType::VELTRA_STRING);
    EXPECT_TRUE(a == b);
    EXPECT_TRUE(a[0].has_value());
    EXPECT_EQ(std::u16string(a[0]), u"\u20ac" "5");

    TypedArray<VeltraString> fresh = f.createArray(ArrayType::VELTRA_STRING, {1, 2});
    EXPECT_FALSE(fresh[0].has_value());
    EXPECT_THROW((void)std::u16string(fresh[0]), ArrayException);
    fresh[1] = VeltraString(u"");
    EXPECT_TRUE(fresh[1].has_value());
    EXPECT_EQ(std::u16string(fresh[1]), u"");
    // Missing and empty are different values.
    EXPECT_FALSE(f.createStringArray({1, 1}, {VeltraString()}) == f.createStringArray({1, 1}, {VeltraString(u"")}));
    fresh[0].setElement(std::string("\xf0\x9f\x98\x80"));
    EXPECT_EQ(*fresh[0], VeltraString(u"\U0001F600"));
    EXPECT_THROW(f.createStringArray({1, 2}, {VeltraString()}), ArrayException);
}

TEST(ArrayModelString, CharArraysHoldCodeUnitsAndToAsciiRefusesOthers) {
    ClientArrayFactory f;
    CharArray c = f.createCharArray("h\xc3\xa9llo \xf0\x9f\x98\x80");
    EXPECT_EQ(c.getDimensions(), (Dims{1, 8}));  // the emoji is two code units
    EXPECT_EQ(c.toUTF16(), u"h\u00e9llo \U0001F600");
    EXPECT_THROW(c.toAscii(), NonAsciiCharException);
    EXPECT_THROW(f.createCharArray(std::u16string(1, char16_t(128))).toAscii(), NonAsciiCharException);
    EXPECT_EQ(f.createCharArray(std::u16string(1, char16_t(127))).toAscii(), "\x7f");
    CharArray plain = f.createCharArray(u"Plain text 1");
    EXPECT_EQ(plain.toAscii(), "Plain text 1");
    EXPECT_EQ(static_cast<char16_t>(plain[1]), u'l');
    // Column-major order of a 2-D char array.
    const char16_t units[] = {u'a', u'b', u'c', u'd'};
    CharArray sq = f.createArrayWithData(ArrayType::CHAR, {2, 2}, units, sizeof units);
    EXPECT_EQ(sq.toUTF16(), u"abcd");
    EXPECT_EQ(static_cast<char16_t>(sq[0][1]), u'c');
}

// ---------------------------------------------------------------------------------------------------------
// Value objects, class information and identifiers.

TEST(ArrayModelValueObject, IdentifiersCompareAndConvertByName) {
    VeltraClassIdentifier c("datetime");
    EXPECT_EQ(c.getClassName(), "datetime");
    EXPECT_TRUE(c == VeltraClassIdentifier("datetime"));
    EXPECT_TRUE(c != VeltraClassIdentifier("duration"));
    VeltraPropertyIdentifier p("TimeZone");
    VeltraPropertyIdentifier copy = p;
    EXPECT_EQ(copy.getPropertyName(), "TimeZone");
    EXPECT_EQ(static_cast<std::string>(p), "TimeZone");
    EXPECT_TRUE(p == copy);
    EXPECT_FALSE(p == VeltraPropertyIdentifier("timezone"));
    VeltraFieldIdentifier fld("x");
    EXPECT_EQ(static_cast<std::string>(fld), "x");
    EXPECT_TRUE(fld == VeltraFieldIdentifier("x"));
    EXPECT_FALSE(fld == VeltraFieldIdentifier("y"));
}

TEST(ArrayModelValueObject, ClassInfoDeclaresBothPropertyListsInOrder) {
    ClientArrayFactory f;
    const VeltraPropertyIdentifier tz("TimeZone"), y("Year"), mo("Month");
    ClassInfo info = f.createClassInfo(VeltraClassIdentifier("datetime"), {tz}, {y, mo});
    EXPECT_EQ(info.getClassIdentifier().getClassName(), "datetime");
    EXPECT_EQ(info.getFirstProperties(), (std::vector<VeltraPropertyIdentifier>{tz}));
    EXPECT_EQ(info.getSecondProperties(), (std::vector<VeltraPropertyIdentifier>{y, mo}));
    ClassInfo bare = f.createClassInfo(VeltraClassIdentifier("table"));
    EXPECT_EQ(bare.getClassIdentifier().getClassName(), "table");
    EXPECT_TRUE(bare.getFirstProperties().empty());

    ValueObjectArray scalar = f.createValueObjectScalar(info);
    EXPECT_EQ(scalar.getType(), ArrayType::VALUE_OBJECT);
    EXPECT_EQ(scalar.getDimensions(), (Dims{1, 1}));
    EXPECT_EQ(scalar.getClassInfo().getClassIdentifier().getClassName(), "datetime");
    ValueObject vo = *scalar[0];
    EXPECT_EQ(vo.getClassInfo().getClassIdentifier().getClassName(), "datetime");
    std::vector<std::string> seen;
    for (const Property& p : vo) {
        seen.push_back(p.getIdentifier().getPropertyName());
        EXPECT_TRUE(Array(p).isEmpty());
    }
    EXPECT_EQ(seen, (std::vector<std::string>{"TimeZone", "Year", "Month"}));
    EXPECT_TRUE(vo.hasProperty(y));
    EXPECT_FALSE(vo.hasProperty(VeltraPropertyIdentifier("Day")));
}

TEST(ArrayModelValueObject, ScalarFromIdentifierAndPropertiesAndWritingProperties) {
    ClientArrayFactory f;
    const VeltraPropertyIdentifier millis("millis");
    ValueObjectArray d = f.createValueObjectScalar(VeltraClassIdentifier("duration"), {millis});
    EXPECT_TRUE(d.hasArrayProperty(millis));
    EXPECT_FALSE(d.hasArrayProperty(VeltraPropertyIdentifier("other")));
    EXPECT_TRUE(d[millis].isEmpty());
    const double ms[] = {1, 2, 3};
    Array values = f.createArrayWithData(ArrayType::DOUBLE, {1, 3}, ms, sizeof ms);
    ValueObject vo = *d[0];
    vo[millis] = values;
    d[0] = vo;  // assignment through ValueObjectRef writes the element
    EXPECT_TRUE(d[millis] == values);
    EXPECT_TRUE((*d[0])[millis] == values);
    const ValueObject& cvo = vo;
    EXPECT_THROW((void)cvo[VeltraPropertyIdentifier("nope")], ArrayException);
    EXPECT_THROW((void)d[VeltraPropertyIdentifier("nope")], ArrayException);
    // A shared copy is not changed by a property write through the other.
    ValueObjectArray copy = d;
    copy.setProperty(0, millis, f.createScalar(9.0));
    EXPECT_TRUE(d[millis] == values);
    EXPECT_TRUE(copy[millis] == f.createScalar(9.0));
    EXPECT_THROW(copy.setProperty(1, millis, values), IndexOutOfRangeException);
}

TEST(ArrayModelValueObject, PropertyAcrossANonScalarArrayIsACellOfElementValues) {
    ClientArrayFactory f;
    const VeltraPropertyIdentifier p("P");
    ValueObjectArray a = f.createValueObjectArray({2, 1}, f.createClassInfo(VeltraClassIdentifier("k"), {p}, {}), true);
    a.setProperty(0, p, f.createScalar(10.0));
    a.setProperty(1, p, f.createScalar(11.0));
    EXPECT_TRUE(a.hasArrayProperty(p));
    TypedArray<Array> across = a[p];
    EXPECT_EQ(across.getDimensions(), (Dims{2, 1}));
    EXPECT_TRUE(Array(across[0]) == f.createScalar(10.0));
    EXPECT_TRUE(Array(across[1]) == f.createScalar(11.0));
    // An element lacking the property: no array property, and reading it across the array throws.
    ValueObject bare(f.createClassInfo(VeltraClassIdentifier("k")));
    a[1] = bare;
    EXPECT_FALSE(a.hasArrayProperty(p));
    EXPECT_THROW((void)a[p], ArrayException);
    ValueObjectArray empty = f.createValueObjectArray({0, 0}, f.createClassInfo(VeltraClassIdentifier("k"), {p}, {}), true);
    EXPECT_FALSE(empty.hasArrayProperty(p));
    EXPECT_EQ(empty.getClassInfo().getClassIdentifier().getClassName(), "k");
}

TEST(ArrayModelValueObject, ExternalDimensionsDefaultToOwnAndAreAValue) {
    ClientArrayFactory f;
    ValueObjectArray t = f.createValueObjectScalar(f.createClassInfo(VeltraClassIdentifier("table")));
    EXPECT_EQ(t.getExternalDimensions(), (Dims{1, 1}));
    ValueObjectArray shared = t;
    t.setExternalDimensions({5, 3});
    EXPECT_EQ(t.getExternalDimensions(), (Dims{5, 3}));
    EXPECT_EQ(t.getDimensions(), (Dims{1, 1}));
    EXPECT_EQ(shared.getExternalDimensions(), (Dims{1, 1}));
    EXPECT_FALSE(t == shared);
    // Setting them to the array's own dimensions is the same value as leaving them unset.
    shared.setExternalDimensions({1, 1});
    EXPECT_TRUE(shared == f.createValueObjectScalar(f.createClassInfo(VeltraClassIdentifier("table"))));
    t.setExternalDimensions({4});
    EXPECT_EQ(t.getExternalDimensions(), (Dims{1, 4}));
}

TEST(ArrayModelValueObject, EqualityLooksAtClassPropertiesAndValuesNotDeclarationOrOrder) {
    ClientArrayFactory f;
    const VeltraPropertyIdentifier a("a"), b("b");
    const VeltraClassIdentifier k("k");
    ValueObjectArray x = f.createValueObjectScalar(k, {a, b});
    x.setProperty(0, a, f.createScalar(1.0));
    x.setProperty(0, b, f.createScalar(std::nan("")));
    // Same class and properties, declared differently and written in the other order.
    ValueObjectArray y = f.createValueObjectScalar(f.createClassInfo(k));
    y.setProperty(0, b, f.createScalar(std::nan("")));
    y.setProperty(0, a, f.createScalar(1.0));
    EXPECT_TRUE(x == y);
    y.setProperty(0, a, f.createScalar(2.0));
    EXPECT_FALSE(x == y);
    ValueObjectArray z = f.createValueObjectScalar(VeltraClassIdentifier("other"), {a, b});
    z.setProperty(0, a, f.createScalar(1.0));
    z.setProperty(0, b, f.createScalar(std::nan("")));
    EXPECT_FALSE(x == z);
    ValueObjectArray fewer = f.createValueObjectScalar(k, {a});
    fewer.setProperty(0, a, f.createScalar(1.0));
    EXPECT_FALSE(x == fewer);
    EXPECT_FALSE(fewer == x);
}

TEST(ArrayModelValueObject, OneByOneCopyOfAnElementAsTheObjectTypeMakesIt) {
    // Selecting element 4 of a 1-by-5 array into a fresh 1-by-1 array of the element's class.
    ClientArrayFactory f;
    const VeltraPropertyIdentifier p("v");
    ValueObjectArray arr = f.createValueObjectArray({1, 5}, f.createClassInfo(VeltraClassIdentifier("k"), {p}, {}), false);
    for (std::uint64_t i = 0; i < 5; ++i) arr.setProperty(i, p, f.createScalar(static_cast<double>(i)));
    ValueObject picked = *arr[4];
    ValueObjectArray one = f.createValueObjectArray({1, 1}, picked.getClassInfo(), true);
    one[0] = picked;
    EXPECT_TRUE(one[p] == f.createScalar(4.0));
    EXPECT_EQ(one.getClassInfo().getClassIdentifier().getClassName(), "k");
}

// ---------------------------------------------------------------------------------------------------------
// Handle references and enumerations.

TEST(ArrayModelHandle, SetValueCopiesTheHandleIntoAnotherReference) {
    ClientArrayFactory f;
    std::vector<HandleObjectRef> hs;
    for (std::uint64_t i = 0; i < 12; ++i) hs.push_back({"Widget", 100 + i});
    TypedArray<HandleObjectRef> all = f.createHandleArray({3, 4}, hs);
    EXPECT_EQ(all.getType(), ArrayType::HANDLE_OBJECT_REF);
    HandleObjectRef seven = *all[1][2];  // row 1, column 2: linear position 7
    EXPECT_EQ(seven.id, 107u);
    EXPECT_EQ(seven.className, "Widget");

    TypedArray<HandleObjectRef> one = f.createArray(ArrayType::HANDLE_OBJECT_REF, {1, 1});
    EXPECT_EQ((*one[0]).id, 0u);
    TypedArray<HandleObjectRef> oneShared = one;
    handle_ref_set_value_x(one[0], all[1][2]);
    EXPECT_TRUE(*one[0] == seven);
    EXPECT_EQ((*oneShared[0]).id, 0u);  // the copy made before the write keeps its own value
    EXPECT_TRUE(*all[7] == seven);       // the source is only read

    const TypedArray<HandleObjectRef> frozen = one;
    EXPECT_THROW(handle_ref_set_value_x(frozen[0], all[0]), ArrayException);
    EXPECT_THROW(handle_ref_set_value_x(one[1], all[0]), IndexOutOfRangeException);
    EXPECT_FALSE(one == all);
    EXPECT_TRUE(f.createHandleArray({1, 1}, {{"Widget", 107}}) == one);
    EXPECT_FALSE(f.createHandleArray({1, 1}, {{"Gadget", 107}}) == one);
    EXPECT_THROW(f.createHandleArray({1, 2}, {{"W", 1}}), ArrayException);
}

TEST(ArrayModelEnum, EnumArraysAreViewedAndRead) {
    ClientArrayFactory f;
    EnumArray e = f.createEnumArray({1, 2}, "Color", {{"red"}, {"blue"}});
    EXPECT_EQ(e.getType(), ArrayType::ENUM);
    EXPECT_EQ(e.getClassName(), "Color");
    EXPECT_EQ((*e[1]).name, "blue");
    Array plain = e;
    EnumArray again(plain);
    EXPECT_TRUE(again == e);
    EXPECT_FALSE(f.createEnumArray({1, 2}, "Shade", {{"red"}, {"blue"}}) == e);
    EXPECT_FALSE(f.createEnumArray({1, 2}, "Color", {{"red"}, {"red"}}) == e);
    EXPECT_THROW(f.createEnumArray({1, 3}, "Color", {{"red"}}), ArrayException);
    EXPECT_FALSE(isSparse(e));
}

// ---------------------------------------------------------------------------------------------------------
// Equality.

TEST(ArrayModelEquality, NanIsEqualToNanWhetherOrNotStorageIsShared) {
    ClientArrayFactory f;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double src[] = {1.0, nan};
    Array a = f.createArrayWithData(ArrayType::DOUBLE, {1, 2}, src, sizeof src);
    Array shared = a;
    Array deep = f.createArrayWithData(ArrayType::DOUBLE, {1, 2}, src, sizeof src);
    EXPECT_TRUE(a == a);
    EXPECT_TRUE(a == shared);
    EXPECT_TRUE(a == deep);
    const double other[] = {1.0, -nan};  // another NaN bit pattern is still NaN
    EXPECT_TRUE(a == f.createArrayWithData(ArrayType::DOUBLE, {1, 2}, other, sizeof other));
    const double num[] = {1.0, 2.0};
    EXPECT_FALSE(a == f.createArrayWithData(ArrayType::DOUBLE, {1, 2}, num, sizeof num));
    EXPECT_TRUE(f.createScalar(0.0) == f.createScalar(-0.0));
    EXPECT_TRUE(f.createScalar(std::nanf("")) == f.createScalar(std::nanf("")));
    EXPECT_TRUE(f.createScalar(std::complex<double>(nan, 1)) == f.createScalar(std::complex<double>(nan, 1)));
    EXPECT_FALSE(f.createScalar(std::complex<double>(nan, 1)) == f.createScalar(std::complex<double>(nan, 2)));
}

TEST(ArrayModelEquality, KindShapeAndEveryElementMatter) {
    ClientArrayFactory f;
    EXPECT_TRUE(Array() == Array());
    EXPECT_FALSE(Array() == f.createArray(ArrayType::DOUBLE, {0, 0}));
    const std::int32_t v[] = {1, 2, 3, 4, 5, 6};
    EXPECT_FALSE(f.createArrayWithData(ArrayType::INT32, {1, 6}, v, sizeof v) ==
                 f.createArrayWithData(ArrayType::UINT32, {1, 6}, v, sizeof v));
    EXPECT_FALSE(f.createArrayWithData(ArrayType::INT32, {2, 3}, v, sizeof v) ==
                 f.createArrayWithData(ArrayType::INT32, {3, 2}, v, sizeof v));
    EXPECT_FALSE(f.createArrayWithData(ArrayType::INT32, {1, 6}, v, sizeof v) ==
                 f.createArrayWithData(ArrayType::INT32, {1, 6, 1}, v, sizeof v));
    EXPECT_FALSE(f.createScalar(true) == f.createScalar(std::uint8_t{1}));
    EXPECT_FALSE(f.createCharArray("a") == f.createScalar("a"));
    // Logical elements are stored as 0/1 whatever bytes they came from.
    const unsigned char bytes[] = {0, 1, 2, 255};
    const unsigned char canon[] = {0, 1, 1, 1};
    TypedArray<bool> l = f.createArrayWithData(ArrayType::LOGICAL, {1, 4}, bytes, sizeof bytes);
    EXPECT_TRUE(l == f.createArrayWithData(ArrayType::LOGICAL, {1, 4}, canon, sizeof canon));
    EXPECT_TRUE(static_cast<bool>(l[3]));
    EXPECT_EQ(reinterpret_cast<const unsigned char*>(std::as_const(l).data())[3], 1);
    EXPECT_EQ(l[2].castTo<int>(), 1);
}

TEST(ArrayModelEquality, StructsCompareFieldNamesInOrderAndValues) {
    ClientArrayFactory f;
    auto make = [&](std::vector<std::string> fields, double x) {
        StructArray s = f.createStructArray({1, 1}, fields);
        s[0][fields[0]] = f.createScalar(x);
        return s;
    };
    EXPECT_TRUE(make({"a", "b"}, 1) == make({"a", "b"}, 1));
    EXPECT_FALSE(make({"a", "b"}, 1) == make({"a", "b"}, 2));
    EXPECT_FALSE(make({"a", "b"}, 1) == make({"a", "c"}, 1));
    EXPECT_FALSE(make({"a", "b"}, 1) == make({"a"}, 1));
    EXPECT_TRUE(make({"a"}, std::nan("")) == make({"a"}, std::nan("")));
    EXPECT_TRUE(*make({"a", "b"}, 1)[0] == *make({"a", "b"}, 1)[0]);
}

TEST(ArrayModelEquality, SparseArraysCompareStoredValuesByPosition) {
    ClientArrayFactory f;
    const double v[] = {1.5, 2.5};
    const double rev[] = {2.5, 1.5};
    Array a = f.createSparseArray(ArrayType::SPARSE_30, {3, 3}, {0, 2}, {1, 0}, v, sizeof v);
    EXPECT_TRUE(isSparse(a));
    EXPECT_EQ(a.getNumberOfElements(), 9u);
    EXPECT_TRUE(a == f.createSparseArray(ArrayType::SPARSE_30, {3, 3}, {2, 0}, {0, 1}, rev, sizeof rev));
    const double withZero[] = {1.5, 0.0, 2.5};
    EXPECT_TRUE(a == f.createSparseArray(ArrayType::SPARSE_30, {3, 3}, {0, 1, 2}, {1, 1, 0}, withZero,
                                         sizeof withZero));
    EXPECT_FALSE(a == f.createSparseArray(ArrayType::SPARSE_30, {3, 3}, {0, 2}, {1, 1}, v, sizeof v));
    EXPECT_FALSE(a == f.createSparseArray(ArrayType::SPARSE_30, {3, 4}, {0, 2}, {1, 0}, v, sizeof v));
    EXPECT_FALSE(a == f.createArray(ArrayType::SPARSE_30, {3, 3}));
    EXPECT_TRUE(f.createArray(ArrayType::SPARSE_31, {3, 3}) == f.createArray(ArrayType::SPARSE_31, {3, 3}));
    const unsigned char t[] = {7};
    const unsigned char one[] = {1};
    EXPECT_TRUE(f.createSparseArray(ArrayType::SPARSE_31, {2, 2}, {1}, {1}, t, 1) ==
                f.createSparseArray(ArrayType::SPARSE_31, {2, 2}, {1}, {1}, one, 1));
}

TEST(ArrayModelEquality, SparseConstructionIsChecked) {
    ClientArrayFactory f;
    const double v[] = {1.0, 2.0};
    EXPECT_THROW(f.createSparseArray(ArrayType::DOUBLE, {2, 2}, {0}, {0}, v, 8), InvalidArrayTypeException);
    EXPECT_THROW(f.createSparseArray(ArrayType::SPARSE_30, {2, 2, 2}, {0}, {0}, v, 8), ArrayException);
    EXPECT_THROW(f.createSparseArray(ArrayType::SPARSE_30, {2, 2}, {0, 1}, {0}, v, 16), ArrayException);
    EXPECT_THROW(f.createSparseArray(ArrayType::SPARSE_30, {2, 2}, {0}, {0}, v, 16), ArrayException);
    EXPECT_EQ(thrownMessage([&] { f.createSparseArray(ArrayType::SPARSE_30, {2, 2}, {2}, {0}, v, 8); }),
              "Array index is out of range.");
    EXPECT_THROW(f.createSparseArray(ArrayType::SPARSE_30, {2, 2}, {1, 1}, {0, 0}, v, 16), ArrayException);
    EXPECT_THROW(f.createSparseArray(ArrayType::SPARSE_32, {2, 2}, {0}, {0}, v, 8), ArrayException);
    EXPECT_NO_THROW(f.createSparseArray(ArrayType::SPARSE_32, {2, 2}, {0}, {0}, v, 16));
}

// ---------------------------------------------------------------------------------------------------------
// Element conversion on read (castTo) and write (setElement).

TEST(ArrayModelConversion, NumericElementsConvertToEveryNumericTypeAndBool) {
    ClientArrayFactory f;
    Array d = f.createScalar(42.75);
    EXPECT_EQ(d[0].castTo<double>(), 42.75);
    EXPECT_EQ(d[0].castTo<float>(), 42.75f);
    EXPECT_EQ(d[0].castTo<std::int8_t>(), 42);
    EXPECT_EQ(d[0].castTo<std::uint64_t>(), 42u);
    EXPECT_TRUE(d[0].castTo<bool>());
    EXPECT_FALSE(f.createScalar(0.0)[0].castTo<bool>());
    EXPECT_EQ(f.createScalar(-3.9)[0].castTo<std::int32_t>(), -3);  // truncation toward zero
    EXPECT_EQ(f.createScalar(std::uint16_t{65535})[0].castTo<double>(), 65535.0);
    EXPECT_EQ(f.createScalar(true)[0].castTo<std::int64_t>(), 1);
    EXPECT_EQ(f.createScalar(2.0)[0].castTo<std::complex<float>>(), std::complex<float>(2, 0));
    EXPECT_THROW((void)f.createScalar(std::complex<double>(1, 1))[0].castTo<double>(), TypeMismatchException);
    EXPECT_EQ(f.createScalar(std::complex<std::int8_t>(1, -2))[0].castTo<std::complex<double>>(),
              std::complex<double>(1, -2));
}

TEST(ArrayModelConversion, OutOfRangeAndNanFloatingValuesSaturateInsteadOfUndefinedBehaviour) {
    ClientArrayFactory f;
    const double inf = std::numeric_limits<double>::infinity();
    EXPECT_EQ(f.createScalar(1e300)[0].castTo<std::int8_t>(), 127);
    EXPECT_EQ(f.createScalar(-1e300)[0].castTo<std::int8_t>(), -128);
    EXPECT_EQ(f.createScalar(std::nan(""))[0].castTo<std::int32_t>(), 0);
    EXPECT_EQ(f.createScalar(inf)[0].castTo<std::int64_t>(), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(f.createScalar(-inf)[0].castTo<std::int64_t>(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(f.createScalar(9.3e18)[0].castTo<std::int64_t>(), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(f.createScalar(-9.3e18)[0].castTo<std::int64_t>(), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(f.createScalar(-9.2e18)[0].castTo<std::int64_t>(), static_cast<std::int64_t>(-9.2e18));
    EXPECT_EQ(f.createScalar(1.9e19)[0].castTo<std::uint64_t>(), std::numeric_limits<std::uint64_t>::max());
    EXPECT_EQ(f.createScalar(1.8e19)[0].castTo<std::uint64_t>(), static_cast<std::uint64_t>(1.8e19));
    EXPECT_EQ(f.createScalar(-1.0)[0].castTo<std::uint32_t>(), 0u);
    EXPECT_EQ(f.createScalar(-0.5)[0].castTo<std::uint32_t>(), 0u);
    EXPECT_EQ(f.createScalar(3e9f)[0].castTo<std::int32_t>(), std::numeric_limits<std::int32_t>::max());
    EXPECT_EQ(f.createScalar(std::complex<double>(1e10, std::nan("")))[0].castTo<std::complex<std::int16_t>>(),
              std::complex<std::int16_t>(32767, 0));
    // Writes convert the same way.
    TypedArray<std::uint8_t> u = f.createArray<std::uint8_t>({1, 3});
    u[0].setElement(300.0);
    u[1].setElement(-5.0);
    u[2].setElement(std::nan(""));
    EXPECT_EQ(static_cast<std::uint8_t>(u[0]), 255);
    EXPECT_EQ(static_cast<std::uint8_t>(u[1]), 0);
    EXPECT_EQ(static_cast<std::uint8_t>(u[2]), 0);
}

TEST(ArrayModelConversion, SetElementWritesEveryNumericTypeIntoTheArraysKind) {
    ClientArrayFactory f;
    TypedArray<double> d = f.createArray<double>({1, 8});
    d[0].setElement(std::int8_t{-8});
    d[1].setElement(std::uint16_t{16});
    d[2].setElement(std::int32_t{-32});
    d[3].setElement(std::uint64_t{64});
    d[4].setElement(1.5f);
    d[5].setElement(true);
    d[6].setElement(char16_t{65});
    d[7] = 7.0;
    const double want[] = {-8, 16, -32, 64, 1.5, 1, 65, 7};
    EXPECT_TRUE(d == f.createArrayWithData(ArrayType::DOUBLE, {1, 8}, want, sizeof want));
    TypedArray<std::complex<float>> c = f.createArray<std::complex<float>>({1, 2});
    c[0].setElement(std::complex<double>(1, 2));
    c[1].setElement(3);
    EXPECT_EQ(static_cast<std::complex<float>>(c[0]), std::complex<float>(1, 2));
    EXPECT_EQ(static_cast<std::complex<float>>(c[1]), std::complex<float>(3, 0));
    EXPECT_THROW(d[0].setElement(std::complex<double>(1, 1)), TypeMismatchException);
    EXPECT_THROW(d[0].setElement(f.createScalar(1.0)), TypeMismatchException);
    EXPECT_THROW(d[0].setElement(VeltraString(u"x")), TypeMismatchException);
}

}  // namespace
