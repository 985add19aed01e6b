// The wire layer: VELTRA_Array round trips of every kind, the parameters and result messages, and hostile
// bytes. Hostile messages are built by hand with the small builder below, independent of the codec's writer.
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "call_messages.h"
#include "serialization.h"
#include "veltra_common.pb.h"
#include "veltradata/impl.h"
#include "veltradata/veltradata.h"

using namespace foundation::veltradata;
namespace vp = foundation::veltradata::protobuf;
namespace pc = foundation::protobuf::common;

namespace {

// ---- helpers ---------------------------------------------------------------------------------------------

// Hand-built protobuf bytes.
struct Msg {
    std::string b;
    static void putVarint(std::string& s, std::uint64_t v) {
        while (v >= 0x80) {
            s.push_back(static_cast<char>(v | 0x80));
            v >>= 7;
        }
        s.push_back(static_cast<char>(v));
    }
    Msg& tag(int f, int wt) { putVarint(b, (static_cast<std::uint64_t>(f) << 3) | wt); return *this; }
    Msg& varint(int f, std::uint64_t v) { tag(f, 0); putVarint(b, v); return *this; }
    Msg& bytes(int f, const std::string& s) { tag(f, 2); putVarint(b, s.size()); b += s; return *this; }
    Msg& msg(int f, const Msg& m) { return bytes(f, m.b); }
    Msg& packed(int f, const std::vector<std::uint64_t>& v) {
        std::string t;
        for (std::uint64_t x : v) putVarint(t, x);
        return bytes(f, t);
    }
    Msg& raw(const std::string& s) { b += s; return *this; }
};

template <typename T>
std::string rawBytes(const std::vector<T>& v) {
    return std::string(reinterpret_cast<const char*>(v.data()), v.size() * sizeof(T));
}

std::string encode(const Array& a) {
    const std::size_t n = vp::encodedSize(a);
    // One byte of slack filled with a marker shows that the writer stays within the measured size.
    std::string out(n + 1, '\x5a');
    auto* begin = reinterpret_cast<std::uint8_t*>(out.data());
    std::uint8_t* end = vp::encodeArray(a, begin);
    EXPECT_EQ(static_cast<std::size_t>(end - begin), n);
    EXPECT_EQ(out.back(), '\x5a');
    out.pop_back();
    return out;
}

Array decode(const std::string& bytes) {
    ClientArrayFactory f;
    return vp::decodeArray(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size(), f);
}

template <typename F>
std::string thrownText(F&& f) {
    try {
        f();
    } catch (const std::exception& e) {
        return e.what();
    }
    return "<no exception>";
}

bool contains(const std::string& s, const std::string& part) { return s.find(part) != std::string::npos; }

Array doubles(Dims dims) {
    ClientArrayFactory f;
    const std::uint64_t n = numberOfElements(normalizeDims(dims));
    std::vector<double> v(n);
    for (std::uint64_t i = 0; i < n; ++i) v[i] = 0.5 + static_cast<double>(i);
    return f.createArrayWithData(ArrayType::DOUBLE, std::move(dims), v.data(), v.size() * sizeof(double));
}

// One array of every kind and shape the wire must carry.
std::vector<std::pair<std::string, Array>> everyKind() {
    ClientArrayFactory f;
    std::vector<std::pair<std::string, Array>> out;
    out.emplace_back("double_0x0", f.createArray(ArrayType::DOUBLE, {0, 0}));
    out.emplace_back("double_1x0", f.createArray(ArrayType::DOUBLE, {1, 0}));
    out.emplace_back("double_0x3", f.createArray(ArrayType::DOUBLE, {0, 3}));
    out.emplace_back("double_scalar", f.createScalar(3.25));
    out.emplace_back("double_2x3", doubles({2, 3}));
    out.emplace_back("double_2x3x4", doubles({2, 3, 4}));
    out.emplace_back("double_2x1x1x2", doubles({2, 1, 1, 2}));
    // Every raw kind with a byte pattern that differs per byte (complex kinds: real and imaginary differ).
    for (int t = 1; t <= 23; ++t) {
        const ArrayType k = static_cast<ArrayType>(t);
        if (!isRawBufferType(k)) continue;
        std::vector<std::uint8_t> bytes(6 * elementSize(k));
        for (std::size_t i = 0; i < bytes.size(); ++i)
            bytes[i] = k == ArrayType::LOGICAL ? static_cast<std::uint8_t>(i % 2) : static_cast<std::uint8_t>(i * 37 + 1);
        out.emplace_back(std::string(arrayTypeName(k)) + "_3x2", f.createArrayWithData(k, {3, 2}, bytes.data(), bytes.size()));
    }
    out.emplace_back("double_nan_inf", [&] {
        std::vector<double> v{std::numeric_limits<double>::quiet_NaN(), -std::numeric_limits<double>::infinity(), -0.0};
        return f.createArrayWithData(ArrayType::DOUBLE, {1, 3}, v.data(), 24);
    }());
    out.emplace_back("char_text", f.createCharArray(u"h\u00e9llo \U0001F600"));
    out.emplace_back("char_1x0", f.createCharArray(""));
    out.emplace_back("char_0x0", f.createArray(ArrayType::CHAR, {0, 0}));
    out.emplace_back("string_2x2_missing_empty",
                     f.createStringArray({2, 2}, {VeltraString(u"a"), std::nullopt, VeltraString(u""), VeltraString(u"\u00fcn\u00ef")}));
    out.emplace_back("string_missing_scalar", f.createStringArray({1, 1}, {std::nullopt}));
    out.emplace_back("string_empty_scalar", f.createScalar(std::string()));
    out.emplace_back("string_0x0", f.createArray(ArrayType::VELTRA_STRING, {0, 0}));
    out.emplace_back("string_1x3_all_missing", f.createArray(ArrayType::VELTRA_STRING, {1, 3}));
    out.emplace_back("cell_0x0", f.createCellArray({0, 0}));
    out.emplace_back("cell_1x0", f.createCellArray({1, 0}));
    out.emplace_back("cell_unwritten_2x2", f.createCellArray({2, 2}));
    {
        Array inner = f.createCellArray({1, 2}, {doubles({1, 2}), f.createCharArray("x")});
        Array middle = f.createCellArray({2, 1}, {inner, f.createCellArray({0, 0})});
        out.emplace_back("cell_nested", f.createCellArray({1, 3}, {middle, Array(), f.createScalar(true)}));
    }
    {
        StructArray s = f.createStructArray({1, 1}, {"alpha", "b2"});
        s[0]["alpha"] = doubles({2, 2});
        s[0]["b2"] = f.createCharArray("text");
        out.emplace_back("struct_1x1", s);
        StructArray t = f.createStructArray({2, 1}, {"inner", "n"});
        t[0]["inner"] = s;
        t[1]["n"] = f.createScalar(std::int32_t{-7});
        out.emplace_back("struct_nested_2x1", t);
        out.emplace_back("struct_no_fields_1x1", f.createStructArray({1, 1}, {}));
        out.emplace_back("struct_no_fields_3x4", f.createStructArray({3, 4}, {}));
        out.emplace_back("struct_0x0_with_fields", f.createStructArray({0, 0}, {"a", "b"}));
        out.emplace_back("cell_of_struct", f.createCellArray({1, 1}, {t}));
    }
    {
        ClassInfo dt = f.createClassInfo(VeltraClassIdentifier("datetime"), {VeltraPropertyIdentifier("data")},
                                         {VeltraPropertyIdentifier("fmt"), VeltraPropertyIdentifier("tz")});
        ValueObjectArray v = f.createValueObjectScalar(dt);
        v.setProperty(0, VeltraPropertyIdentifier("data"), doubles({1, 3}));
        v.setProperty(0, VeltraPropertyIdentifier("tz"), f.createCharArray("UTC"));
        out.emplace_back("value_object_scalar", v);

        ValueObjectArray table = f.createValueObjectArray({1, 1}, f.createClassInfo(VeltraClassIdentifier("table")), false);
        table.setExternalDimensions({5, 3});
        table.setProperty(0, VeltraPropertyIdentifier("data"), f.createCellArray({1, 3}));
        out.emplace_back("value_object_external_dims_not_uniform", table);

        ValueObjectArray mixed = f.createValueObjectArray({1, 3}, dt, true);
        mixed[1] = ValueObject(f.createClassInfo(VeltraClassIdentifier("duration"), {VeltraPropertyIdentifier("millis")}, {}));
        mixed[2] = ValueObject();  // no class at all, in an array that has one
        mixed.setProperty(1, VeltraPropertyIdentifier("millis"), f.createScalar(12.0));
        mixed.setProperty(2, VeltraPropertyIdentifier("x"), v);  // a value object inside a value object
        out.emplace_back("value_object_mixed_classes", mixed);

        out.emplace_back("value_object_0x0", f.createValueObjectArray({0, 0}, dt, true));
        out.emplace_back("value_object_without_class", f.createArray(ArrayType::VALUE_OBJECT, {1, 2}));
    }
    out.emplace_back("handles_1x3", f.createHandleArray({1, 3}, {{"Figure", 1}, {"", 0}, {"Axes", ~std::uint64_t{0}}}));
    out.emplace_back("enum_3x1", f.createEnumArray({3, 1}, "Color", {{"Red"}, {""}, {"Blue"}}));
    {
        const std::vector<double> v{1.5, -2.0, 3.0};
        out.emplace_back("sparse_double", f.createSparseArray(ArrayType::SPARSE_30, {4, 5}, {0, 3, 2}, {0, 1, 4}, v.data(), 24));
        const std::vector<std::uint8_t> l{1, 1};
        out.emplace_back("sparse_logical", f.createSparseArray(ArrayType::SPARSE_31, {2, 2}, {1, 0}, {0, 1}, l.data(), 2));
        const std::vector<std::complex<double>> c{{1, 2}, {-3, 0.5}};
        out.emplace_back("sparse_complex", f.createSparseArray(ArrayType::SPARSE_32, {3, 3}, {2, 2}, {0, 2}, c.data(), 32));
        out.emplace_back("sparse_empty", f.createSparseArray(ArrayType::SPARSE_30, {1000000, 1000000}, {}, {}, nullptr, 0));
    }
    out.emplace_back("array_without_contents", Array());
    return out;
}

class WireRoundTrip : public ::testing::TestWithParam<std::pair<std::string, Array>> {};

std::string kindName(const ::testing::TestParamInfo<std::pair<std::string, Array>>& info) { return info.param.first; }

}  // namespace

// ---- round trips -----------------------------------------------------------------------------------------

TEST_P(WireRoundTrip, DecodesToAnEqualArray) {
    const Array& a = GetParam().second;
    const Array b = decode(encode(a));
    EXPECT_EQ(b.getType(), a.getType());
    EXPECT_EQ(b.getDimensions(), a.getDimensions());
    EXPECT_TRUE(b == a);
}

TEST_P(WireRoundTrip, GeneratedClassesReadTheSameFieldsAndWriteTheSameBytes) {
    // The generated classes parse our bytes, and serializing what they parsed gives our bytes back: our writer
    // uses the schema's fields, field order and proto3 omissions exactly.
    const Array& a = GetParam().second;
    const std::string bytes = encode(a);
    vp::VELTRA_Array m;
    ASSERT_TRUE(m.ParseFromString(bytes));
    EXPECT_EQ(m.type(), static_cast<int>(a.getType()));
    if (a.getImpl()) {
        const Dims& d = a.getDimensions();
        EXPECT_EQ(std::vector<std::uint64_t>(m.dims().begin(), m.dims().end()), d);
    }
    EXPECT_EQ(m.GetReflection()->GetUnknownFields(m).field_count(), 0);
    EXPECT_EQ(m.SerializeAsString(), bytes);
    EXPECT_EQ(m.ByteSizeLong(), bytes.size());
}

TEST_P(WireRoundTrip, SerializationContextConvertsBothWays) {
    const Array& a = GetParam().second;
    ClientArrayFactory f;
    vp::SerializationContext ctx(f, false, nullptr, nullptr, vp::OptimizedSparseFormat::Compact);
    std::unique_ptr<vp::VELTRA_Array> m = ctx.convertToProtobuf(a);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->SerializeAsString(), encode(a));
    EXPECT_TRUE(ctx.convertFromProtobuf(std::move(m)) == a);
}

TEST_P(WireRoundTrip, TravelsAsAnOutputOfAResult) {
    const Array& a = GetParam().second;
    pc::VELTRA_Result r;
    ASSERT_TRUE(r.add_lhs()->ParseFromString(encode(a)));
    ASSERT_TRUE(r.add_lhs()->ParseFromString(encode(a)));
    const Array out = pc::readResult(r.SerializeAsString());
    ASSERT_EQ(out.getType(), ArrayType::CELL);
    EXPECT_EQ(out.getDimensions(), (Dims{1, 2}));
    EXPECT_TRUE(Array(out[0]) == a);
    EXPECT_TRUE(Array(out[1]) == a);
}

INSTANTIATE_TEST_SUITE_P(EveryKind, WireRoundTrip, ::testing::ValuesIn(everyKind()), kindName);

TEST(WireFields, DoublePayloadIsRawColumnMajorLittleEndian) {
    const Array a = doubles({2, 3});
    vp::VELTRA_Array m;
    ASSERT_TRUE(m.ParseFromString(encode(a)));
    EXPECT_EQ(m.type(), 4);
    EXPECT_EQ(m.data(), rawBytes(std::vector<double>{0.5, 1.5, 2.5, 3.5, 4.5, 5.5}));
    EXPECT_EQ(m.elements_size(), 0);
    const Array b = decode(encode(a));
    EXPECT_EQ(b[1][0].castTo<double>(), 1.5);
    EXPECT_EQ(b[0][1].castTo<double>(), 2.5);
}

TEST(WireFields, ComplexPayloadIsInterleaved) {
    ClientArrayFactory f;
    const std::vector<std::complex<float>> v{{1, 2}, {3, 4}};
    vp::VELTRA_Array m;
    ASSERT_TRUE(m.ParseFromString(encode(f.createArrayWithData(ArrayType::COMPLEX_SINGLE, {1, 2}, v.data(), 16))));
    EXPECT_EQ(m.data(), rawBytes(std::vector<float>{1, 2, 3, 4}));
}

TEST(WireFields, StringsKeepMissingApartFromEmpty) {
    ClientArrayFactory f;
    const Array a = f.createStringArray({1, 4}, {VeltraString(u"ab"), std::nullopt, VeltraString(u""), VeltraString(u"c")});
    vp::VELTRA_Array m;
    ASSERT_TRUE(m.ParseFromString(encode(a)));
    EXPECT_EQ(std::vector<std::int64_t>(m.string_lengths().begin(), m.string_lengths().end()),
              (std::vector<std::int64_t>{2, -1, 0, 1}));
    EXPECT_EQ(m.string_units(), rawBytes(std::vector<char16_t>{u'a', u'b', u'c'}));
    const TypedArray<VeltraString> b = decode(encode(a));
    EXPECT_TRUE(b[0].has_value());
    EXPECT_FALSE(b[1].has_value());
    EXPECT_TRUE(b[2].has_value());
    EXPECT_EQ(static_cast<std::u16string>(b[2]), u"");
    EXPECT_EQ(static_cast<std::u16string>(b[3]), u"c");
}

TEST(WireFields, StructFieldsAreElementMajorInCreationOrder) {
    ClientArrayFactory f;
    StructArray s = f.createStructArray({1, 2}, {"zeta", "alpha"});
    s[0]["zeta"] = f.createScalar(1.0);
    s[0]["alpha"] = f.createScalar(2.0);
    s[1]["zeta"] = f.createScalar(3.0);
    vp::VELTRA_Array m;
    ASSERT_TRUE(m.ParseFromString(encode(s)));
    ASSERT_EQ(m.field_names_size(), 2);
    EXPECT_EQ(m.field_names(0), "zeta");
    EXPECT_EQ(m.field_names(1), "alpha");
    ASSERT_EQ(m.elements_size(), 4);
    EXPECT_EQ(m.elements(1).data(), rawBytes(std::vector<double>{2.0}));
    EXPECT_EQ(m.elements(2).data(), rawBytes(std::vector<double>{3.0}));
    EXPECT_EQ(m.elements(3).type(), 4);  // never written: the 0-by-0 double
    const StructArray b = decode(encode(s));
    const std::vector<VeltraFieldIdentifier> names = b.getFieldNames();
    ASSERT_EQ(names.size(), 2u);
    EXPECT_EQ(std::string(names[0]), "zeta");
    EXPECT_EQ(std::string(names[1]), "alpha");
}

TEST(WireFields, ValueObjectsKeepClassInfoExternalDimsAndUniformFlag) {
    ClientArrayFactory f;
    ClassInfo info = f.createClassInfo(VeltraClassIdentifier("table"), {VeltraPropertyIdentifier("data")},
                                       {VeltraPropertyIdentifier("props")});
    ValueObjectArray v = f.createValueObjectArray({1, 2}, info, false);
    v.setExternalDimensions({10, 4});
    v[1] = ValueObject(f.createClassInfo(VeltraClassIdentifier("other"), {VeltraPropertyIdentifier("p")}, {}));
    const ValueObjectArray b = decode(encode(v));
    EXPECT_EQ(b.getClassInfo(), info);
    EXPECT_EQ(b.getExternalDimensions(), (Dims{10, 4}));
    EXPECT_FALSE(b.impl().get<foundation::veltradata::detail::ObjectStorage>().uniform);
    const ValueObject second = b[1];
    EXPECT_EQ(second.getClassInfo().getClassIdentifier().getClassName(), "other");
    EXPECT_EQ(second.getClassInfo().getFirstProperties(), (std::vector<VeltraPropertyIdentifier>{VeltraPropertyIdentifier("p")}));
    const ValueObject first = b[0];
    EXPECT_TRUE(first.hasProperty(VeltraPropertyIdentifier("data")));
    EXPECT_TRUE(first.hasProperty(VeltraPropertyIdentifier("props")));

    vp::VELTRA_Array m;
    ASSERT_TRUE(m.ParseFromString(encode(v)));
    EXPECT_EQ(m.class_name(), "table");
    EXPECT_FALSE(m.objects(0).has_class_name());  // the array's own class is not repeated per element
    EXPECT_TRUE(m.objects(1).has_class_name());
    EXPECT_TRUE(m.not_uniform());
}

TEST(WireFields, HandlesAndEnumsKeepTheirNames) {
    ClientArrayFactory f;
    const TypedArray<HandleObjectRef> h = decode(encode(f.createHandleArray({1, 2}, {{"Figure", 42}, {"Line", 7}})));
    EXPECT_EQ(HandleObjectRef(h[0]).className, "Figure");
    EXPECT_EQ(HandleObjectRef(h[0]).id, 42u);
    EXPECT_EQ(HandleObjectRef(h[1]).id, 7u);
    const EnumArray e = decode(encode(f.createEnumArray({1, 2}, "Color", {{"Red"}, {"Green"}})));
    EXPECT_EQ(e.getClassName(), "Color");
    EXPECT_EQ(EnumValue(e[1]).name, "Green");
}

TEST(WireFields, DeepestNestingTheReaderAcceptsCanBeWritten) {
    ClientArrayFactory f;
    Array a = f.createScalar(1.0);
    for (int i = 0; i < vp::kMaxNestingDepth; ++i) a = f.createCellArray({1, 1}, {a});
    EXPECT_TRUE(decode(encode(a)) == a);
    ClientArrayFactory g;
    vp::SerializationContext ctx(g, false, nullptr, nullptr, vp::OptimizedSparseFormat::Compact);
    EXPECT_TRUE(ctx.convertFromProtobuf(ctx.convertToProtobuf(a)) == a);
    Array deeper = f.createCellArray({1, 1}, {a});
    EXPECT_TRUE(contains(thrownText([&] { vp::encodedSize(deeper); }), "nested more than 200 levels"));
}

// ---- the reader's leniency where protobuf is lenient --------------------------------------------------------

TEST(WireLenient, SkipsUnknownFieldsOfEveryWireType) {
    const Array a = doubles({1, 2});
    Msg m;
    m.raw(encode(a)).varint(100, 5).tag(101, 1).raw("12345678").tag(102, 5).raw("1234").bytes(103, "xyz");
    m.tag(104, 3).varint(1, 9).tag(105, 3).tag(105, 4).tag(104, 4);  // nested groups
    EXPECT_TRUE(decode(m.b) == a);
}

TEST(WireLenient, KnownFieldWithAnotherWireTypeIsSkippedAsUnknown) {
    const Array a = doubles({1, 2});
    Msg m;
    m.raw(encode(a)).bytes(1, "not a varint");
    EXPECT_TRUE(decode(m.b) == a);
}

TEST(WireLenient, RepeatedScalarsMayComeUnpacked) {
    Msg m;
    m.varint(1, 4).varint(2, 1).varint(2, 2).bytes(3, rawBytes(std::vector<double>{7, 8}));
    ClientArrayFactory f;
    const std::vector<double> v{7, 8};
    EXPECT_TRUE(decode(m.b) == f.createArrayWithData(ArrayType::DOUBLE, {1, 2}, v.data(), 16));
}

TEST(WireLenient, LogicalBytesAreNormalisedToZeroAndOne) {
    Msg m;
    m.varint(1, 1).packed(2, {1, 4}).bytes(3, std::string("\x00\x02\xff\x01", 4));
    const TypedArray<bool> b = decode(m.b);
    EXPECT_EQ(std::vector<std::uint8_t>(reinterpret_cast<const std::uint8_t*>(b.data()),
                                        reinterpret_cast<const std::uint8_t*>(b.data()) + 4),
              (std::vector<std::uint8_t>{0, 1, 1, 1}));
    ClientArrayFactory f;
    const std::vector<std::uint8_t> ones{0, 1, 1, 1};
    EXPECT_TRUE(Array(b) == f.createArrayWithData(ArrayType::LOGICAL, {1, 4}, ones.data(), 4));
}

TEST(WireLenient, SparseLogicalValuesAreNormalisedToOne) {
    Msg m;
    m.varint(1, 31).packed(2, {2, 2}).bytes(3, "\x05\xff").packed(15, {0, 1}).packed(16, {0, 1});
    const Array b = decode(m.b);
    EXPECT_EQ(b.impl().get<foundation::veltradata::detail::SparseStorage>().values.data()[0], 1);
    EXPECT_EQ(b.impl().get<foundation::veltradata::detail::SparseStorage>().values.data()[1], 1);
}

TEST(WireLenient, MissingDimsMeanZeroByZero) {
    EXPECT_EQ(decode(Msg().varint(1, 4).b).getDimensions(), (Dims{0, 0}));
    EXPECT_EQ(decode(Msg().varint(1, 24).packed(2, {0}).b).getDimensions(), (Dims{1, 0}));
}

TEST(WireLenient, EmptyMessageIsTheUnwrittenArray) {
    EXPECT_EQ(decode("").getImpl(), nullptr);
    EXPECT_EQ(decode(Msg().varint(1, 0).b).getImpl(), nullptr);
}

TEST(WireLenient, RepeatedPropertyValueMergesLikeProtobuf) {
    // A singular message field given twice is merged: the later occurrence's fields join the earlier ones.
    Msg value1, value2, prop, obj, arr;
    value1.varint(1, 4).packed(2, {1, 1});
    value2.bytes(3, rawBytes(std::vector<double>{2.5}));
    prop.bytes(1, "p").msg(2, value1).msg(2, value2);
    obj.msg(2, prop);
    arr.varint(1, 27).packed(2, {1, 1}).bytes(8, "C").msg(11, obj);
    const ValueObjectArray v = decode(arr.b);
    const ValueObject o = v[0];
    EXPECT_EQ(o[VeltraPropertyIdentifier("p")][0].castTo<double>(), 2.5);
}

// ---- hostile arrays ----------------------------------------------------------------------------------------

struct Hostile {
    std::string name;
    std::string bytes;
    std::string text;  // part of the exception text
};

class WireHostile : public ::testing::TestWithParam<Hostile> {};

namespace {

Msg nestedCells(int levels) {
    Msg m = Msg().varint(1, 4);
    for (int i = 0; i < levels; ++i) m = Msg().varint(1, 24).packed(2, {1, 1}).msg(4, m);
    return m;
}

std::vector<Hostile> hostileArrays() {
    const std::string unknownType = kUnknownDataType;
    const std::string d8 = rawBytes(std::vector<double>{1});
    std::vector<Hostile> h;
    h.push_back({"type_99", Msg().varint(1, 99).b, unknownType});
    h.push_back({"type_negative", Msg().varint(1, ~std::uint64_t{0}).b, unknownType});
    h.push_back({"type_classic_object", Msg().varint(1, 26).b, unknownType});
    h.push_back({"type_zero_with_dims", Msg().packed(2, {1, 1}).b, unknownType});
    h.push_back({"odd_utf16", Msg().varint(1, 3).packed(2, {1, 1}).bytes(6, "abc").packed(7, {2}).b,
                 "odd number of bytes (3)"});
    h.push_back({"payload_short", Msg().varint(1, 4).packed(2, {2, 2}).bytes(3, std::string(24, 'x')).b,
                 "a DOUBLE array of 2-by-2 needs 32 bytes of data, the message holds 24"});
    h.push_back({"payload_long", Msg().varint(1, 10).packed(2, {1, 1}).bytes(3, std::string(8, 'x')).b,
                 "needs 4 bytes of data, the message holds 8"});
    h.push_back({"payload_cut_by_end", Msg().varint(1, 4).packed(2, {1, 1}).tag(3, 2).raw("\x08").raw("abc").b,
                 "truncated: field 3 claims 8 bytes but only 3 remain"});
    h.push_back({"length_cut_by_end", Msg().varint(1, 4).tag(3, 2).raw("\x80").b, "length of field 3 is cut short"});
    h.push_back({"varint_cut_by_end", Msg().varint(1, 4).raw("\x10\x80").b, "cut short"});
    h.push_back({"bad_wire_type", Msg().varint(1, 4).raw("\x0f").b, "unparseable field tag"});
    h.push_back({"end_group_without_start", Msg().varint(1, 4).tag(9, 4).b, "field 9 of VELTRA_Array"});
    h.push_back({"dims_product_overflow", Msg().varint(1, 4).packed(2, {1ull << 32, 1ull << 32, 2}).bytes(3, d8).b,
                 "have more elements than 64 bits can count"});
    h.push_back({"byte_count_overflow", Msg().varint(1, 4).packed(2, {1ull << 62, 1}).bytes(3, d8).b,
                 "too large for this machine"});
    h.push_back({"huge_cell_three_bytes", Msg().varint(1, 24).packed(2, {1000000, 1000000}).msg(4, Msg().varint(1, 4)).b,
                 "a CELL array of 1000000-by-1000000 needs 1000000000000 elements, the message holds 1"});
    h.push_back({"huge_double_no_data", Msg().varint(1, 4).packed(2, {1000000, 1000000}).b,
                 "needs 8000000000000 bytes of data, the message holds 0"});
    h.push_back({"huge_strings", Msg().varint(1, 3).packed(2, {1ull << 40, 1}).packed(7, {1}).b,
                 "needs 1099511627776 string lengths, the message holds 1"});
    h.push_back({"string_lengths_exceed_units", Msg().varint(1, 3).packed(2, {1, 2}).bytes(6, "ab").packed(7, {2, 2}).b,
                 "add up to more than the 1 UTF-16 code units"});
    h.push_back({"string_lengths_fall_short", Msg().varint(1, 3).packed(2, {1, 1}).bytes(6, "abcd").packed(7, {2}).b,
                 "add up to 1 UTF-16 code units but the message holds 2"});
    h.push_back({"string_length_below_minus_one", Msg().varint(1, 3).packed(2, {1, 1}).packed(7, {3}).b,
                 "has the length -2"});
    h.push_back({"huge_struct", Msg().varint(1, 25).packed(2, {1ull << 40, 1ull << 20}).bytes(5, "a").msg(4, Msg()).b,
                 "needs 1152921504606846976 field values, the message holds 1"});
    h.push_back({"struct_values_overflow", Msg().varint(1, 25).packed(2, {1ull << 62, 1}).bytes(5, "a").bytes(5, "b").bytes(5, "c").bytes(5, "d").b,
                 "more field values than 64 bits can count"});
    h.push_back({"struct_without_fields_with_values", Msg().varint(1, 25).packed(2, {1, 1}).msg(4, Msg()).b,
                 "needs 0 field values (it has no fields), the message holds 1"});
    h.push_back({"struct_bad_field_name", Msg().varint(1, 25).packed(2, {1, 1}).bytes(5, "1abc").msg(4, Msg()).b,
                 "field name is not a valid VELTRA identifier: '1abc'"});
    h.push_back({"struct_duplicate_field", Msg().varint(1, 25).packed(2, {0, 0}).bytes(5, "a").bytes(5, "a").b,
                 "duplicate field name: 'a'"});
    h.push_back({"huge_value_objects", Msg().varint(1, 27).packed(2, {1ull << 50, 1}).msg(11, Msg()).b,
                 "needs 1125899906842624 objects, the message holds 1"});
    h.push_back({"duplicate_property", Msg().varint(1, 27).packed(2, {1, 1})
                                           .msg(11, Msg().msg(2, Msg().bytes(1, "p")).msg(2, Msg().bytes(1, "p"))).b,
                 "has the property 'p' twice"});
    h.push_back({"object_props_without_class", Msg().varint(1, 27).packed(2, {1, 1}).msg(11, Msg().bytes(3, "p")).b,
                 "declares properties without naming its class"});
    h.push_back({"property_value_malformed", Msg().varint(1, 27).packed(2, {1, 1})
                                                 .msg(11, Msg().msg(2, Msg().bytes(1, "p").msg(2, Msg().varint(1, 77)))).b,
                 unknownType});
    h.push_back({"huge_handles", Msg().varint(1, 28).packed(2, {1ull << 33, 3}).b, "needs 25769803776 handles, the message holds 0"});
    h.push_back({"huge_enum", Msg().varint(1, 29).packed(2, {1ull << 33, 3}).bytes(14, "A").b,
                 "needs 25769803776 enumeration names, the message holds 1"});
    h.push_back({"class_name_not_utf8", Msg().varint(1, 29).packed(2, {1, 1}).bytes(8, "\xc3\x28").bytes(14, "A").b,
                 "field 8 holds text that is not valid UTF-8"});
    h.push_back({"element_malformed", Msg().varint(1, 24).packed(2, {1, 1}).msg(4, Msg().varint(1, 4).packed(2, {1, 1})).b,
                 "needs 8 bytes of data, the message holds 0"});
    h.push_back({"element_cut", Msg().varint(1, 24).packed(2, {1, 1}).tag(4, 2).raw("\x05\x08").b,
                 "truncated: field 4 claims 5 bytes but only 1 remain"});
    h.push_back({"field_of_another_kind", Msg().varint(1, 4).packed(2, {0, 0}).msg(4, Msg()).b,
                 "field 4 does not belong to an array of type DOUBLE"});
    h.push_back({"sparse_three_dims", Msg().varint(1, 30).packed(2, {2, 2, 2}).b, "must have two dimensions, not 3"});
    h.push_back({"sparse_position_outside", Msg().varint(1, 30).packed(2, {2, 2}).bytes(3, d8).packed(15, {2}).packed(16, {0}).b,
                 "the sparse position (2, 0) lies outside the 2-by-2 array"});
    h.push_back({"sparse_rows_cols_differ", Msg().varint(1, 30).packed(2, {2, 2}).bytes(3, d8).packed(15, {0}).b,
                 "1 row positions but 0 column positions"});
    h.push_back({"sparse_position_twice", Msg().varint(1, 31).packed(2, {2, 2}).bytes(3, "\x01\x01").packed(15, {1, 1}).packed(16, {0, 0}).b,
                 "two values for one element"});
    h.push_back({"sparse_values_short", Msg().varint(1, 32).packed(2, {2, 2}).bytes(3, d8).packed(15, {0}).packed(16, {0}).b,
                 "needs 16 bytes of data, the message holds 8"});
    h.push_back({"nesting_too_deep", nestedCells(vp::kMaxNestingDepth + 1).b, "nested more than 200 levels deep"});
    return h;
}

std::string hostileName(const ::testing::TestParamInfo<Hostile>& info) { return info.param.name; }

}  // namespace

TEST_P(WireHostile, DecodeArrayThrowsWithAClearText) {
    const std::string text = thrownText([&] { decode(GetParam().bytes); });
    EXPECT_TRUE(contains(text, GetParam().text)) << text;
}

TEST_P(WireHostile, ReadResultThrowsTheSameForAnOutput) {
    const std::string bytes = Msg().msg(1, Msg().varint(1, 4)).bytes(1, GetParam().bytes).b;
    const std::string text = thrownText([&] { pc::readResult(bytes); });
    EXPECT_TRUE(contains(text, GetParam().text)) << text;
}

TEST_P(WireHostile, IsIgnoredWhenTheResultCarriesAnError) {
    // Outputs are not looked at when there is an error, as the reading algorithm never converts them.
    const std::string bytes = Msg().bytes(1, GetParam().bytes).msg(2, Msg().bytes(1, "boom")).b;
    const StructArray s = pc::readResult(bytes);
    EXPECT_EQ(s[0]["message"].castToString(), "boom");
}

INSTANTIATE_TEST_SUITE_P(Malformed, WireHostile, ::testing::ValuesIn(hostileArrays()), hostileName);

TEST(WireHostileLimits, NestingAtTheLimitIsAccepted) {
    EXPECT_EQ(decode(nestedCells(vp::kMaxNestingDepth).b).getType(), ArrayType::CELL);
}

TEST(WireHostileLimits, NestingThroughValueObjectsCounts) {
    Msg m = Msg().varint(1, 4);
    for (int i = 0; i <= vp::kMaxNestingDepth; ++i)
        m = Msg().varint(1, 27).packed(2, {1, 1}).msg(11, Msg().msg(2, Msg().bytes(1, "p").msg(2, m)));
    EXPECT_TRUE(contains(thrownText([&] { decode(m.b); }), "nested more than 200 levels deep"));
}

TEST(WireHostileLimits, DeeplyNestedGroupsAreRefusedWithoutRecursion) {
    Msg m = Msg().varint(1, 4);
    for (int i = 0; i < 100000; ++i) m.tag(50, 3);
    EXPECT_TRUE(contains(thrownText([&] { decode(m.b); }), "field 50 of VELTRA_Array"));
}

// ---- parameters --------------------------------------------------------------------------------------------

TEST(ParamsMessage, OneRhsPerCellElementInColumnMajorOrder) {
    ClientArrayFactory f;
    const Array a = doubles({2, 2}), b = f.createCharArray("hi"), c = f.createScalar(std::string("s"));
    const Array args = f.createCellArray({2, 2}, {a, b, c, Array()});
    pc::ParamsMessage p(args, 3);
    const std::string bytes = p.serialize();
    EXPECT_EQ(bytes.size(), p.byteSize());
    pc::VELTRA_Params m;
    ASSERT_TRUE(m.ParseFromString(bytes));
    EXPECT_EQ(m.nargout(), 3);
    ASSERT_EQ(m.rhs_size(), 4);
    ClientArrayFactory g;
    vp::SerializationContext ctx(g, false, nullptr, nullptr, vp::OptimizedSparseFormat::Compact);
    const Array expected[] = {a, b, c, Array()};
    for (int i = 0; i < 4; ++i)
        EXPECT_TRUE(ctx.convertFromProtobuf(std::make_unique<vp::VELTRA_Array>(m.rhs(i))) == expected[i]) << i;
    EXPECT_EQ(m.SerializeAsString(), bytes);
}

TEST(ParamsMessage, WriteToFillsExactlyByteSize) {
    ClientArrayFactory f;
    Array mixed;
    for (const auto& [name, a] : everyKind())
        if (name == "value_object_mixed_classes") mixed = a;
    ASSERT_EQ(mixed.getType(), ArrayType::VALUE_OBJECT);
    const Array args = f.createCellArray({1, 2}, {doubles({3, 3}), mixed});
    pc::ParamsMessage p(args, 1);
    std::vector<std::uint8_t> buf(p.byteSize() + 16, 0xa5);
    p.writeTo(buf.data());
    for (std::size_t i = p.byteSize(); i < buf.size(); ++i) EXPECT_EQ(buf[i], 0xa5);
    EXPECT_EQ(std::string(buf.begin(), buf.begin() + p.byteSize()), p.serialize());
}

TEST(ParamsMessage, ZeroArgumentsGiveNargoutAlone) {
    ClientArrayFactory f;
    EXPECT_EQ(pc::ParamsMessage(f.createCellArray({1, 0}), 1).serialize(), std::string("\x08\x01", 2));
    EXPECT_EQ(pc::ParamsMessage(f.createCellArray({0, 0}), 0).serialize(), "");
    // An empty argument array is not read at all, whatever its kind.
    EXPECT_EQ(pc::ParamsMessage(f.createArray(ArrayType::DOUBLE, {0, 0}), 2).serialize(), std::string("\x08\x02", 2));
    EXPECT_EQ(pc::ParamsMessage(Array(), 2).serialize(), std::string("\x08\x02", 2));
}

TEST(ParamsMessage, NegativeAndLargeNargoutTravelAsInt32) {
    ClientArrayFactory f;
    for (std::int32_t n : {-1, -2147483647 - 1, 2147483647, 127, 128}) {
        pc::VELTRA_Params m;
        ASSERT_TRUE(m.ParseFromString(pc::ParamsMessage(f.createCellArray({1, 0}), n).serialize()));
        EXPECT_EQ(m.nargout(), n);
    }
}

TEST(ParamsMessage, ArgumentsOfAnotherKindAreRefused) {
    ClientArrayFactory f;
    EXPECT_TRUE(contains(thrownText([&] { pc::ParamsMessage(doubles({1, 2}), 1); }), "not an array"));
    EXPECT_FALSE(contains(thrownText([&] { pc::ParamsMessage(f.createStructArray({1, 1}, {"a"}), 1); }), "<no exception>"));
}

TEST(ParamsMessage, ArgumentsAreSnapshotAtConstruction) {
    ClientArrayFactory f;
    TypedArray<Array> args = f.createCellArray({1, 1}, {doubles({1, 2})});
    pc::ParamsMessage p(args, 1);
    const std::string before = p.serialize();
    args[0] = f.createCharArray("changed");  // the message keeps its own hold: copy-on-write detaches `args`
    EXPECT_EQ(p.serialize(), before);
}

// ---- results -----------------------------------------------------------------------------------------------

namespace {

pc::VELTRA_Result resultWithError(const std::string& message, const char* identifier,
                                  const std::vector<std::tuple<std::string, std::string, int>>& frames) {
    pc::VELTRA_Result r;
    pc::VELTRA_Error* e = r.mutable_error();
    e->set_message(message);
    if (identifier) e->set_identifier(identifier);
    for (const auto& [file, name, line] : frames) {
        pc::VELTRA_StackFrame* s = e->add_stack();
        s->set_file(file);
        s->set_name(name);
        s->set_line(line);
    }
    return r;
}

std::string field(const StructArray& s, const char* name) { return s[0][name].castToString(); }

}  // namespace

TEST(ResultReader, ZeroOutputsGiveAnEmptyOneByZeroCell) {
    const Array out = pc::readResult(std::string());
    EXPECT_EQ(out.getType(), ArrayType::CELL);
    EXPECT_EQ(out.getDimensions(), (Dims{1, 0}));
}

TEST(ResultReader, OutputsArriveInOrder) {
    ClientArrayFactory f;
    vp::SerializationContext ctx(f, false, nullptr, nullptr, vp::OptimizedSparseFormat::Compact);
    const Array a = doubles({2, 3}), b = f.createCharArray("two"), c = f.createCellArray({1, 1}, {doubles({1, 1})});
    pc::VELTRA_Result r;
    for (const Array& x : {a, b, c}) r.mutable_lhs()->AddAllocated(ctx.convertToProtobuf(x).release());
    const Array out = pc::readResult(r.SerializeAsString());
    EXPECT_EQ(out.getDimensions(), (Dims{1, 3}));
    EXPECT_TRUE(Array(out[0]) == a);
    EXPECT_TRUE(Array(out[1]) == b);
    EXPECT_TRUE(Array(out[2]) == c);
}

TEST(ResultReader, ErrorStructHasTheThreeFieldsInOrder) {
    const StructArray s = pc::readResult(
        resultWithError("Undefined function 'foo'.", "veltra:undefinedFunction", {{"a", "f", 3}, {"b", "g", 7}}).SerializeAsString());
    EXPECT_EQ(s.getDimensions(), (Dims{1, 1}));
    const std::vector<VeltraFieldIdentifier> names = s.getFieldNames();
    ASSERT_EQ(names.size(), 3u);
    EXPECT_EQ(std::string(names[0]), "message");
    EXPECT_EQ(std::string(names[1]), "identifier");
    EXPECT_EQ(std::string(names[2]), "stack_as_str");
    EXPECT_EQ(Array(s[0]["message"]).getType(), ArrayType::CHAR);
    EXPECT_EQ(field(s, "message"), "Undefined function 'foo'.");
    const Array id = s[0]["identifier"];
    ASSERT_EQ(id.getType(), ArrayType::VELTRA_STRING);
    EXPECT_EQ(id.getDimensions(), (Dims{1, 1}));
    EXPECT_EQ(static_cast<std::u16string>(id[0]), u"veltra:undefinedFunction");
    EXPECT_EQ(field(s, "stack_as_str"),
              "Error in => file: a, function name: f, at line: 3\nError in => file: b, function name: g, at line: 7\n");
}

TEST(ResultReader, IdentifierAbsentKeepsTheEmptyArrayPresentButEmptyIsAString) {
    const StructArray absent = pc::readResult(resultWithError("m", nullptr, {}).SerializeAsString());
    const Array none = absent[0]["identifier"];
    ClientArrayFactory f;
    EXPECT_TRUE(none == Array(f.createStructArray({1, 1}, {"identifier"})[0]["identifier"]));
    EXPECT_NE(none.getType(), ArrayType::VELTRA_STRING);
    const StructArray empty = pc::readResult(resultWithError("m", "", {}).SerializeAsString());
    const Array id = empty[0]["identifier"];
    ASSERT_EQ(id.getType(), ArrayType::VELTRA_STRING);
    EXPECT_EQ(static_cast<std::u16string>(id[0]), u"");
}

TEST(ResultReader, ErrorWithoutFramesHasAnEmptyStackText) {
    const StructArray s = pc::readResult(resultWithError("", nullptr, {}).SerializeAsString());
    const Array stack = s[0]["stack_as_str"];
    EXPECT_EQ(stack.getType(), ArrayType::CHAR);
    EXPECT_EQ(stack.getDimensions(), (Dims{1, 0}));
    const Array message = s[0]["message"];
    EXPECT_EQ(message.getDimensions(), (Dims{1, 0}));
}

TEST(ResultReader, StackLinesPrintNegativeAndLargeNumbersInDecimal) {
    const StructArray s = pc::readResult(
        resultWithError("m", nullptr, {{"fit_model.src", "main", -5}, {"", "", 2147483647}}).SerializeAsString());
    EXPECT_EQ(field(s, "stack_as_str"),
              "Error in => file: fit_model.src, function name: main, at line: -5\n"
              "Error in => file: , function name: , at line: 2147483647\n");
}

TEST(ResultReader, NonAsciiErrorTextSurvives) {
    const StructArray s = pc::readResult(resultWithError("caf\xc3\xa9 \xe2\x82\xac", nullptr, {}).SerializeAsString());
    EXPECT_EQ(CharArray(Array(s[0]["message"])).toUTF16(), u"caf\u00e9 \u20ac");
}

TEST(ResultReader, OutputsAndErrorYieldOnlyTheError) {
    ClientArrayFactory f;
    vp::SerializationContext ctx(f, false, nullptr, nullptr, vp::OptimizedSparseFormat::Compact);
    pc::VELTRA_Result r = resultWithError("bad", "id:x", {});
    r.mutable_lhs()->AddAllocated(ctx.convertToProtobuf(doubles({1, 1})).release());
    const Array out = pc::readResult(r.SerializeAsString());
    ASSERT_EQ(out.getType(), ArrayType::STRUCT);
    EXPECT_EQ(field(StructArray(out), "message"), "bad");
}

TEST(ResultReader, RepeatedErrorMergesLikeProtobuf) {
    const std::string first = resultWithError("one", "id:1", {{"a", "f", 1}}).SerializeAsString();
    const std::string second = resultWithError("two", nullptr, {{"b", "g", 2}}).SerializeAsString();
    const StructArray s = pc::readResult(first + second);
    EXPECT_EQ(field(s, "message"), "two");
    EXPECT_EQ(static_cast<std::u16string>(Array(s[0]["identifier"])[0]), u"id:1");
    EXPECT_EQ(field(s, "stack_as_str"),
              "Error in => file: a, function name: f, at line: 1\nError in => file: b, function name: g, at line: 2\n");
    // The generated classes agree.
    pc::VELTRA_Result r;
    ASSERT_TRUE(r.ParseFromString(first + second));
    EXPECT_EQ(r.error().message(), "two");
    EXPECT_EQ(r.error().stack_size(), 2);
}

TEST(ResultReader, UnknownTopLevelFieldsAreSkipped) {
    ClientArrayFactory f;
    const std::string out = Msg().varint(9, 1).bytes(1, encode(doubles({1, 2}))).tag(10, 1).raw("abcdefgh")
                                .tag(11, 3).varint(1, 2).tag(11, 4).b;
    const Array a = pc::readResult(out);
    EXPECT_EQ(a.getDimensions(), (Dims{1, 1}));
    EXPECT_TRUE(Array(a[0]) == doubles({1, 2}));
}

TEST(ResultReader, UnparseableTrailingBytesKeepWhatWasRead) {
    const std::string good = Msg().bytes(1, encode(doubles({1, 2}))).b;
    for (const std::string& junk : {std::string("\xff"), std::string("\x07"), std::string("\x00", 1),
                                    std::string("\x0c"), std::string("\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff\xff")}) {
        const Array a = pc::readResult(good + junk + good);
        EXPECT_EQ(a.getDimensions(), (Dims{1, 1})) << static_cast<int>(junk[0]);
        // protobuf's parser stops at the same place
        pc::VELTRA_Result r;
        EXPECT_FALSE(r.ParseFromString(good + junk + good));
        EXPECT_EQ(r.lhs_size(), 1);
    }
}

TEST(ResultReader, ErrorCutShortKeepsWhatWasRead) {
    std::string bytes = resultWithError("the message", "id:x", {{"a", "f", 3}, {"solver.src", "fn", 9}}).SerializeAsString();
    bytes.resize(bytes.size() - 3);  // into the last frame's name
    const StructArray s = pc::readResult(bytes);
    EXPECT_EQ(field(s, "message"), "the message");
    EXPECT_EQ(static_cast<std::u16string>(Array(s[0]["identifier"])[0]), u"id:x");
    EXPECT_TRUE(contains(field(s, "stack_as_str"), "Error in => file: a, function name: f, at line: 3\n"));
}

TEST(ResultReader, OutputCutShortIsRefused) {
    std::string bytes = Msg().bytes(1, encode(doubles({1, 2}))).bytes(1, encode(doubles({4, 4}))).b;
    bytes.resize(bytes.size() - 10);
    const std::string text = thrownText([&] { pc::readResult(bytes); });
    EXPECT_TRUE(contains(text, "Malformed VELTRA_Result: output 2 claims 137 bytes but only 127 remain")) << text;
}

TEST(ResultReader, ErrorTextThatIsNotUtf8IsReplacedNotRefused) {
    const std::string bytes = Msg().msg(2, Msg().bytes(1, "bad \xff byte")).b;
    const StructArray s = pc::readResult(bytes);
    EXPECT_EQ(CharArray(Array(s[0]["message"])).toUTF16(), u"bad \ufffd byte");
}
