// The array model: value semantics over shared storage, column-major indexing, dimensions, typed views over
// every raw element type, and refusal of impossible sizes.
#include <gtest/gtest.h>

#include <complex>
#include <cstdint>
#include <functional>
#include <limits>
#include <memory>
#include <new>
#include <utility>
#include <vector>

#include "array_model_test_util.h"
#include "veltradata/element_block.h"
#include "veltradata/impl.h"
#include "veltradata/veltradata.h"

namespace {

using namespace foundation::veltradata;
using array_model_test::different;
using array_model_test::refusedCleanly;
using array_model_test::sample;
using array_model_test::thrownMessage;

constexpr const char* kOutOfRange = "Array index is out of range.";
constexpr const char* kUnknown = "Unknown DataType field in veltra::data::Array.";

// ---------------------------------------------------------------------------------------------------------
// Typed views over every raw element type.

template <typename T>
class ArrayModelRawTyped : public ::testing::Test {
protected:
    // A column-major array of the given dimensions whose element at linear position k is sample<T>(k).
    TypedArray<T> make(const Dims& dims) {
        const std::size_t n = static_cast<std::size_t>(numberOfElements(dims));
        std::unique_ptr<T[]> buf(new T[n]);  // not std::vector: vector<bool> has no contiguous data()
        for (std::size_t k = 0; k < n; ++k) buf[k] = sample<T>(static_cast<int>(k));
        return f.createArrayWithData(ElementKind<T>::value, dims, buf.get(), n * sizeof(T));
    }
    ClientArrayFactory f;
};

using RawElementTypes =
    ::testing::Types<bool, char16_t, double, float, std::int8_t, std::uint8_t, std::int16_t, std::uint16_t,
                     std::int32_t, std::uint32_t, std::int64_t, std::uint64_t, std::complex<double>,
                     std::complex<float>, std::complex<std::int8_t>, std::complex<std::uint8_t>,
                     std::complex<std::int16_t>, std::complex<std::uint16_t>, std::complex<std::int32_t>,
                     std::complex<std::uint32_t>, std::complex<std::int64_t>, std::complex<std::uint64_t>>;
TYPED_TEST_SUITE(ArrayModelRawTyped, RawElementTypes);

TYPED_TEST(ArrayModelRawTyped, NewArrayIsZeroedAlignedAndOfItsKind) {
    using T = TypeParam;
    TypedArray<T> a = this->f.template createArray<T>({3, 5});
    EXPECT_EQ(a.getType(), ElementKind<T>::value);
    EXPECT_EQ(a.getDimensions(), (Dims{3, 5}));
    EXPECT_EQ(a.getNumberOfElements(), 15u);
    EXPECT_FALSE(a.isEmpty());
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(std::as_const(a).data()) % 64, 0u);
    for (auto r : a) EXPECT_EQ(static_cast<T>(r), T{});
}

TYPED_TEST(ArrayModelRawTyped, ElementsAreColumnMajorByLinearIndexMultiIndexAndIterator) {
    using T = TypeParam;
    const TypedArray<T> a = this->make({2, 3, 4});
    // Element (i, j, k) lives at i + 2 * (j + 3 * k).
    for (std::uint64_t i = 0; i < 2; ++i)
        for (std::uint64_t j = 0; j < 3; ++j)
            for (std::uint64_t k = 0; k < 4; ++k) {
                const int lin = static_cast<int>(i + 2 * (j + 3 * k));
                EXPECT_EQ(static_cast<T>(a[i][j][k]), sample<T>(lin)) << i << "," << j << "," << k;
                EXPECT_EQ(a[static_cast<std::uint64_t>(lin)].template getValue<T>(), sample<T>(lin));
            }
    int k = 0;
    for (auto it = a.begin(); it != a.end(); ++it, ++k) EXPECT_EQ(static_cast<T>(*it), sample<T>(k));
    EXPECT_EQ(k, 24);
    auto it = a.begin();
    it += std::int64_t{17};
    EXPECT_EQ(static_cast<T>(*it), sample<T>(17));
    EXPECT_EQ(a.end() - a.begin(), 24);
    EXPECT_TRUE(a.begin() + 24 == a.end());
}

TYPED_TEST(ArrayModelRawTyped, IndexAtOrBeyondTheEndThrowsTheFixedText) {
    using T = TypeParam;
    const TypedArray<T> a = this->make({2, 3});
    EXPECT_EQ(thrownMessage([&] { (void)a[6].template getValue<T>(); }), kOutOfRange);
    EXPECT_EQ(thrownMessage([&] { (void)a[std::numeric_limits<std::uint64_t>::max()].template getValue<T>(); }),
              kOutOfRange);
    EXPECT_EQ(thrownMessage([&] { (void)static_cast<T>(a[2][0]); }), kOutOfRange);
    EXPECT_EQ(thrownMessage([&] { (void)static_cast<T>(a[0][3]); }), kOutOfRange);
    EXPECT_EQ(thrownMessage([&] { (void)static_cast<T>(*a.end()); }), kOutOfRange);
    EXPECT_EQ(static_cast<T>(a[1][2]), sample<T>(5));
}

TYPED_TEST(ArrayModelRawTyped, WriteThroughOneCopyDoesNotShowInTheOther) {
    using T = TypeParam;
    TypedArray<T> a = this->make({2, 3});
    TypedArray<T> b = a;
    EXPECT_EQ(a.getImpl(), b.getImpl());  // a copy shares storage until written
    const T changed = different(sample<T>(4));
    b[4] = changed;
    EXPECT_EQ(static_cast<T>(b[4]), changed);
    EXPECT_EQ(static_cast<T>(a[4]), sample<T>(4));
    EXPECT_NE(a.getImpl(), b.getImpl());
    EXPECT_FALSE(a == b);
    // An unshared array is written in place, without copying.
    const auto* before = b.getImpl();
    b[0] = changed;
    EXPECT_EQ(b.getImpl(), before);
}

TYPED_TEST(ArrayModelRawTyped, ViewOfAnotherKindThrowsAndExactReadsCheckTheKind) {
    using T = TypeParam;
    const ArrayType other = std::is_same_v<T, double> ? ArrayType::INT8 : ArrayType::DOUBLE;
    Array wrong = this->f.createArray(other, {1, 2});
    EXPECT_THROW(TypedArray<T>{wrong}, TypeMismatchException);
    EXPECT_THROW(TypedArray<T>{Array()}, TypeMismatchException);
    TypedArray<T> a = this->make({1, 2});
    if constexpr (std::is_same_v<T, double>) {
        EXPECT_THROW((void)a[0].template getValue<float>(), TypeMismatchException);
    } else {
        EXPECT_THROW((void)a[0].template getValue<double>(), TypeMismatchException);
    }
    EXPECT_THROW((void)a[0].template getValue<Array>(), TypeMismatchException);
}

TYPED_TEST(ArrayModelRawTyped, ScalarEqualityAndAssignmentBackIntoAnArray) {
    using T = TypeParam;
    TypedArray<T> s = this->f.createScalar(sample<T>(2));
    EXPECT_EQ(s.getDimensions(), (Dims{1, 1}));
    EXPECT_EQ(static_cast<T>(s[0]), sample<T>(2));
    Array back = s;
    EXPECT_EQ(back.getType(), ElementKind<T>::value);
    EXPECT_TRUE(back == s);
    TypedArray<T> deep = this->make({2, 3});
    TypedArray<T> deep2 = this->make({2, 3});
    EXPECT_NE(deep.getImpl(), deep2.getImpl());
    EXPECT_TRUE(deep == deep2);
    deep2[5] = different(sample<T>(5));
    EXPECT_FALSE(deep == deep2);
    EXPECT_TRUE(deep != deep2);
    // Same elements, other shape: not equal.
    EXPECT_FALSE(this->make({3, 2}) == deep);
}

// ---------------------------------------------------------------------------------------------------------
// Value semantics of Array itself.

TEST(ArrayModelValueSemantics, DefaultArrayIsEmptyAndCopiesShareAndMovesTransfer) {
    Array empty;
    EXPECT_EQ(empty.getType(), ArrayType::UNKNOWN);
    EXPECT_EQ(empty.getNumberOfElements(), 0u);
    EXPECT_TRUE(empty.isEmpty());
    EXPECT_EQ(empty.getImpl(), nullptr);

    ClientArrayFactory f;
    Array a = f.createScalar(1.5);
    foundation::veltradata::detail::ArrayImpl* impl = a.getImpl();
    EXPECT_EQ(impl->holds.load(), 1u);
    {
        Array b = a;
        EXPECT_EQ(b.getImpl(), impl);
        EXPECT_EQ(impl->holds.load(), 2u);
        Array c;
        c = b;
        EXPECT_EQ(impl->holds.load(), 3u);
        c = c;  // self-assignment keeps the hold
        EXPECT_EQ(impl->holds.load(), 3u);
    }
    EXPECT_EQ(impl->holds.load(), 1u);

    Array moved = std::move(a);
    EXPECT_EQ(moved.getImpl(), impl);
    EXPECT_EQ(a.getImpl(), nullptr);  // NOLINT(bugprone-use-after-move): the moved-from state is specified
    EXPECT_EQ(impl->holds.load(), 1u);
    Array target = f.createScalar(2.0);
    target = std::move(moved);
    EXPECT_EQ(target.getImpl(), impl);
    EXPECT_EQ(moved.getImpl(), nullptr);  // NOLINT(bugprone-use-after-move)
    EXPECT_EQ(TypedArray<double>(target)[0].castTo<double>(), 1.5);

    TypedArray<double> view(std::move(target));
    EXPECT_EQ(view.getImpl(), impl);
    EXPECT_EQ(impl->holds.load(), 1u);
}

TEST(ArrayModelValueSemantics, ImplementationHandleCanBeHandedOverAndAdopted) {
    ClientArrayFactory f;
    Array a = f.createScalar(3.0);
    foundation::veltradata::detail::ArrayImpl* h = a.getImpl();
    h->retain();  // the receiver's own hold, as the handle's first operation gives it
    Array received(h);
    EXPECT_EQ(h->holds.load(), 2u);
    foundation::veltradata::detail::ArrayImpl* released = a.releaseImpl();
    EXPECT_EQ(released, h);
    EXPECT_EQ(a.getImpl(), nullptr);
    Array readopted(released);
    EXPECT_EQ(h->holds.load(), 2u);
    EXPECT_TRUE(received == readopted);
}

TEST(ArrayModelValueSemantics, ContainersHoldValuesNotAliases) {
    ClientArrayFactory f;
    Array inner = f.createScalar(1.0);
    TypedArray<Array> cell = f.createCellArray({1, 2}, {inner, f.createCharArray("x")});
    TypedArray<Array> copy = cell;
    copy[0] = f.createScalar(2.0);
    EXPECT_TRUE(Array(cell[0]) == inner);
    EXPECT_TRUE(Array(copy[0]) == f.createScalar(2.0));

    // Writing into an array taken out of a cell leaves the cell alone.
    TypedArray<double> taken = Array(cell[0]);
    taken[0] = 9.0;
    EXPECT_EQ(TypedArray<double>(Array(cell[0]))[0].castTo<double>(), 1.0);
    EXPECT_EQ(TypedArray<double>(inner)[0].castTo<double>(), 1.0);

    StructArray s = f.createStructArray({1, 1}, {"a"});
    s[0]["a"] = inner;
    StructArray s2 = s;
    s2[0]["a"] = f.createScalar(5.0);
    EXPECT_TRUE(Array(s[0]["a"]) == inner);
    EXPECT_TRUE(Array(s2[0]["a"]) == f.createScalar(5.0));

    TypedArray<VeltraString> str = f.createStringArray({1, 1}, {std::u16string(u"a")});
    TypedArray<VeltraString> str2 = str;
    str2[0] = VeltraString();
    EXPECT_TRUE(str[0].has_value());
    EXPECT_FALSE(str2[0].has_value());
}

TEST(ArrayModelValueSemantics, ConstArraysAndViewsRefuseWrites) {
    ClientArrayFactory f;
    const TypedArray<double> a = f.createScalar(1.0);
    EXPECT_THROW(a[0] = 2.0, ArrayException);
    const Array plain = a;
    EXPECT_THROW(plain[0].setElement(2.0), ArrayException);
    EXPECT_EQ(a[0].castTo<double>(), 1.0);
    auto it = a.begin();
    EXPECT_THROW(*it = 3.0, ArrayException);
}

TEST(ArrayModelValueSemantics, ReferenceToReferenceAssignmentCopiesTheValue) {
    ClientArrayFactory f;
    // Untyped element references: assigning one to another writes the element, it does not rebind.
    Array cell = f.createCellArray({1, 2}, {f.createScalar(1.0), f.createScalar(2.0)});
    Array other = f.createCellArray({1, 1}, {f.createScalar(7.0)});
    cell[0] = other[0];
    EXPECT_TRUE(Array(cell[0]) == f.createScalar(7.0));

    double buf[] = {1, 2, 3};
    Array d = f.createArrayWithData(ArrayType::DOUBLE, {1, 3}, buf, sizeof buf);
    Array i8 = f.createScalar(std::int8_t{-4});
    d[2] = i8[0];  // converted to the target's kind
    EXPECT_EQ(d[2].castTo<double>(), -4.0);

    TypedArray<double> t = d;
    t[0] = t[1];
    EXPECT_EQ(t[0].castTo<double>(), 2.0);

    Array strings = f.createStringArray({1, 2}, {std::u16string(u"p"), VeltraString()});
    strings[0] = strings[1];
    EXPECT_FALSE(strings[0].has_value());

    // std::copy through typed iterators writes values as well.
    TypedArray<double> dst = f.createArray<double>({1, 3});
    std::copy(t.begin(), t.end(), dst.begin());
    EXPECT_TRUE(dst == t);
}

// ---------------------------------------------------------------------------------------------------------
// Indexing.

TEST(ArrayModelIndexing, TwoByThreeExampleIsColumnMajor) {
    ClientArrayFactory f;
    const double buf[] = {1, 2, 3, 4, 5, 6};
    Array plain = f.createArrayWithData(ArrayType::DOUBLE, {2, 3}, buf, sizeof buf);
    TypedArray<double> a = plain;
    EXPECT_EQ(static_cast<double>(a[1][0]), 2);
    EXPECT_EQ(static_cast<double>(a[0][1]), 3);
    EXPECT_EQ(static_cast<double>(a[1][2]), 6);
    // The untyped Array gives the same through element references.
    EXPECT_EQ(plain[1][0].castTo<double>(), 2);
    EXPECT_EQ(plain[0][1].castTo<int>(), 3);
    EXPECT_EQ(plain[0][0].castTo<double>(), 1);
}

TEST(ArrayModelIndexing, NdMultiIndexAndTrailingDimensionsFoldIntoTheLastIndex) {
    ClientArrayFactory f;
    std::vector<std::int32_t> buf(2 * 3 * 4 * 5);
    for (std::size_t k = 0; k < buf.size(); ++k) buf[k] = static_cast<std::int32_t>(k);
    TypedArray<std::int32_t> a =
        f.createArrayWithData(ArrayType::INT32, {2, 3, 4, 5}, buf.data(), buf.size() * sizeof(std::int32_t));
    EXPECT_EQ(static_cast<std::int32_t>(a[1][2][3][4]), 1 + 2 * (2 + 3 * (3 + 4 * 4)));
    // Fewer indices than dimensions: the last one runs over the remaining dimensions together.
    EXPECT_EQ(static_cast<std::int32_t>(a[1][7]), 1 + 2 * 7);
    EXPECT_EQ(static_cast<std::int32_t>(a[1][59]), 119);
    EXPECT_EQ(thrownMessage([&] { (void)static_cast<std::int32_t>(a[1][60]); }), kOutOfRange);
    EXPECT_EQ(static_cast<std::int32_t>(a[0][2][19]), 2 * (2 + 3 * 19));
    EXPECT_EQ(thrownMessage([&] { (void)static_cast<std::int32_t>(a[0][3][0]); }), kOutOfRange);
    // More indices than dimensions.
    EXPECT_EQ(thrownMessage([&] { (void)static_cast<std::int32_t>(a[0][0][0][0][0]); }), kOutOfRange);
    // Writes go to the same position.
    a[1][0][1][0] = 777;
    EXPECT_EQ(static_cast<std::int32_t>(a[1 + 2 * 3]), 777);
}

TEST(ArrayModelIndexing, EmptyArraysHaveNoElementToIndex) {
    ClientArrayFactory f;
    for (const Dims& d : {Dims{0, 0}, Dims{1, 0}, Dims{0, 3}, Dims{2, 0, 4}}) {
        TypedArray<double> a = f.createArray<double>(d);
        EXPECT_TRUE(a.isEmpty());
        EXPECT_TRUE(a.begin() == a.end());
        EXPECT_EQ(thrownMessage([&] { (void)a[0].castTo<double>(); }), kOutOfRange);
        EXPECT_EQ(thrownMessage([&] { (void)a[0][0].castTo<double>(); }), kOutOfRange);
    }
}

TEST(ArrayModelIndexing, NonRawKindsUseTheSameBoundsAndText) {
    ClientArrayFactory f;
    TypedArray<Array> cell = f.createCellArray({2, 2});
    StructArray st = f.createStructArray({2, 2}, {"a"});
    TypedArray<VeltraString> str = f.createStringArray({2, 2}, std::vector<VeltraString>(4));
    ValueObjectArray vo = f.createValueObjectArray({2, 2}, f.createClassInfo(VeltraClassIdentifier("c")), true);
    TypedArray<HandleObjectRef> h = f.createHandleArray({2, 2}, std::vector<HandleObjectRef>(4));
    EnumArray en = f.createEnumArray({2, 2}, "E", std::vector<EnumValue>(4));
    const std::vector<std::function<void(std::uint64_t, std::uint64_t)>> reads = {
        [&](std::uint64_t i, std::uint64_t j) { (void)Array(cell[i][j]); },
        [&](std::uint64_t i, std::uint64_t j) { (void)Array(st[i][j]["a"]); },
        [&](std::uint64_t i, std::uint64_t j) { (void)str[i][j].has_value(); },
        [&](std::uint64_t i, std::uint64_t j) { (void)*vo[i][j]; },
        [&](std::uint64_t i, std::uint64_t j) { (void)*h[i][j]; },
        [&](std::uint64_t i, std::uint64_t j) { (void)*en[i][j]; },
    };
    for (std::size_t k = 0; k < reads.size(); ++k) {
        SCOPED_TRACE(k);
        EXPECT_EQ(thrownMessage([&] { reads[k](1, 1); }), "<no exception>");
        EXPECT_EQ(thrownMessage([&] { reads[k](4, 0); }), kOutOfRange);
        EXPECT_EQ(thrownMessage([&] { reads[k](0, 2); }), kOutOfRange);
        EXPECT_EQ(thrownMessage([&] { reads[k](2, 1); }), kOutOfRange);
    }
}

// ---------------------------------------------------------------------------------------------------------
// Kinds and dimensions.

class ArrayModelKinds : public ::testing::TestWithParam<int> {};

TEST_P(ArrayModelKinds, CreatableKindsGiveZeroByZeroArraysAndIsSparseOnlyFor30To32) {
    const int v = GetParam();
    const auto t = static_cast<ArrayType>(v);
    ClientArrayFactory f;
    if (v == 0 || v == 26) {
        // No storage of ours maps these kinds.
        EXPECT_EQ(thrownMessage([&] { f.createArray(t, {1, 1}); }), kUnknown);
        return;
    }
    Array a = f.createArray(t, {0, 0});
    EXPECT_EQ(a.getType(), t);
    EXPECT_EQ(a.getDimensions(), (Dims{0, 0}));
    EXPECT_EQ(a.getNumberOfElements(), 0u);
    EXPECT_TRUE(a.isEmpty());
    EXPECT_EQ(isSparse(a), v >= 30 && v <= 32);
    Array b = f.createArray(t, {2, 3});
    EXPECT_EQ(b.getNumberOfElements(), 6u);
    EXPECT_FALSE(b.isEmpty());
    EXPECT_EQ(isSparse(b), v >= 30 && v <= 32);
    EXPECT_TRUE(b == f.createArray(t, {2, 3}));
    EXPECT_FALSE(b == a);
    EXPECT_STRNE(arrayTypeName(t), "");
}

INSTANTIATE_TEST_SUITE_P(AllKinds, ArrayModelKinds, ::testing::Range(0, 33));

TEST(ArrayModelKindsExtra, UnknownNumbersAreRefusedWithTheFixedText) {
    ClientArrayFactory f;
    EXPECT_FALSE(isSparse(Array()));
    for (int v : {-1, 33, 99, 1 << 20}) {
        EXPECT_EQ(thrownMessage([&] { f.createArray(static_cast<ArrayType>(v), {1, 1}); }), kUnknown);
        EXPECT_STREQ(arrayTypeName(static_cast<ArrayType>(v)), "");
    }
    EXPECT_THROW(f.createArray(ArrayType::SPARSE_30, {2, 2, 2}), ArrayException);
}

TEST(ArrayModelDims, ScalarsAndShortDimensionListsAreNormalised) {
    ClientArrayFactory f;
    EXPECT_EQ(f.createScalar(1.0).getDimensions(), (Dims{1, 1}));
    EXPECT_EQ(f.createScalar(true).getDimensions(), (Dims{1, 1}));
    EXPECT_EQ(f.createScalar("s").getDimensions(), (Dims{1, 1}));
    EXPECT_EQ(f.createArray(ArrayType::DOUBLE, {}).getDimensions(), (Dims{0, 0}));
    EXPECT_EQ(f.createArray(ArrayType::CELL, {}).getDimensions(), (Dims{0, 0}));
    EXPECT_EQ(f.createArray(ArrayType::DOUBLE, {4}).getDimensions(), (Dims{1, 4}));
    EXPECT_EQ(f.createStructArray({3}, {"a"}).getDimensions(), (Dims{1, 3}));
    EXPECT_EQ(f.createArray(ArrayType::INT8, {2, 3, 1, 5}).getDimensions(), (Dims{2, 3, 1, 5}));
    EXPECT_EQ(normalizeDims({}), (Dims{0, 0}));
    EXPECT_EQ(normalizeDims({7}), (Dims{1, 7}));
    EXPECT_EQ(normalizeDims({7, 1}), (Dims{7, 1}));
    // {n} and {1, n} are the same array.
    const double buf[] = {1, 2, 3};
    EXPECT_TRUE(f.createArrayWithData(ArrayType::DOUBLE, {3}, buf, sizeof buf) ==
                f.createArrayWithData(ArrayType::DOUBLE, {1, 3}, buf, sizeof buf));
}

TEST(ArrayModelDims, EmptyCharArraysAndZeroSizedShapes) {
    ClientArrayFactory f;
    CharArray e = f.createCharArray("");
    EXPECT_EQ(e.getDimensions(), (Dims{1, 0}));
    EXPECT_TRUE(e.isEmpty());
    EXPECT_EQ(e.toUTF16(), u"");
    EXPECT_EQ(e.toAscii(), "");
    EXPECT_EQ(f.createCharArray(std::u16string()).getDimensions(), (Dims{1, 0}));
    Array zz = f.createArrayWithData(ArrayType::DOUBLE, {0, 0}, nullptr, 0);
    EXPECT_TRUE(zz.isEmpty());
    EXPECT_TRUE(zz == f.createArray(ArrayType::DOUBLE, {0, 0}));
    EXPECT_FALSE(zz == f.createArray(ArrayType::DOUBLE, {1, 0}));
    EXPECT_FALSE(zz == f.createArray(ArrayType::SINGLE, {0, 0}));
}

TEST(ArrayModelDims, CreateWithDataChecksKindAndByteCount) {
    ClientArrayFactory f;
    const double buf[6] = {};
    EXPECT_THROW(f.createArrayWithData(ArrayType::DOUBLE, {2, 3}, buf, sizeof buf - 8), ArrayException);
    EXPECT_THROW(f.createArrayWithData(ArrayType::DOUBLE, {2, 3}, buf, sizeof buf + 1), ArrayException);
    EXPECT_THROW(f.createArrayWithData(ArrayType::SINGLE, {2, 3}, buf, sizeof buf), ArrayException);
    EXPECT_THROW(f.createArrayWithData(ArrayType::CELL, {1, 1}, buf, 8), ArrayException);
    EXPECT_THROW(f.createArrayWithData(ArrayType::UNKNOWN, {1, 1}, buf, 8), ArrayException);
    EXPECT_NO_THROW(f.createArrayWithData(ArrayType::COMPLEX_SINGLE, {1, 6}, buf, sizeof buf));
    // The data is copied: changing the source afterwards does not reach the array.
    double src[2] = {1, 2};
    TypedArray<double> a = f.createArrayWithData(ArrayType::DOUBLE, {1, 2}, src, sizeof src);
    src[0] = 100;
    EXPECT_EQ(a[0].castTo<double>(), 1);
}

TEST(ArrayModelDims, ProductOverflowThrowsAndNeverReachesTheAllocator) {
    ClientArrayFactory f;
    const std::uint64_t big = std::uint64_t{1} << 32;
    EXPECT_THROW(numberOfElements({big, big}), DimensionsOverflowException);
    EXPECT_THROW(numberOfElements({big, 2, big}), DimensionsOverflowException);
    EXPECT_EQ(numberOfElements({big, big, 0}), 0u);  // a zero dimension makes any shape empty
    EXPECT_EQ(numberOfElements({0, big, big}), 0u);
    for (ArrayType t : {ArrayType::DOUBLE, ArrayType::CELL, ArrayType::VELTRA_STRING, ArrayType::STRUCT,
                        ArrayType::VALUE_OBJECT}) {
        SCOPED_TRACE(arrayTypeName(t));
        EXPECT_THROW(f.createArray(t, {big, big}), DimensionsOverflowException);
        Array e = f.createArray(t, {big, big, 0});
        EXPECT_TRUE(e.isEmpty());
    }
    EXPECT_THROW(f.createCellArray({big, big}, {}), DimensionsOverflowException);
    EXPECT_THROW(f.createStructArray({big, big}, {"a"}), DimensionsOverflowException);
    // The element count fits but the byte count does not.
    EXPECT_THROW(f.createArray(ArrayType::COMPLEX_DOUBLE, {std::uint64_t{1} << 61}), DimensionsOverflowException);
    EXPECT_THROW(f.createArrayWithData(ArrayType::DOUBLE, {big, big}, nullptr, 0), DimensionsOverflowException);
}

TEST(ArrayModelDims, HugeButRepresentableRequestsAreRefusedNotCrashing) {
    ClientArrayFactory f;
    const Dims huge{std::uint64_t{1} << 20, std::uint64_t{1} << 20};  // 2^40 elements
    for (ArrayType t : {ArrayType::LOGICAL, ArrayType::CHAR, ArrayType::DOUBLE, ArrayType::UINT8,
                        ArrayType::COMPLEX_DOUBLE, ArrayType::CELL, ArrayType::VELTRA_STRING,
                        ArrayType::VALUE_OBJECT, ArrayType::HANDLE_OBJECT_REF, ArrayType::ENUM}) {
        EXPECT_TRUE(refusedCleanly([&] { f.createArray(t, huge); })) << arrayTypeName(t);
    }
    EXPECT_TRUE(refusedCleanly([&] { f.createCellArray(huge, {}); }));
    EXPECT_TRUE(refusedCleanly([&] { f.createStructArray(huge, {"a"}); }));
    EXPECT_TRUE(refusedCleanly([&] {
        f.createValueObjectArray(huge, f.createClassInfo(VeltraClassIdentifier("c"), {}, {}), true);
    }));
    EXPECT_TRUE(refusedCleanly([&] { foundation::veltradata::detail::AlignedBuffer b(std::size_t{1} << 50); }));
    EXPECT_THROW(foundation::veltradata::detail::checkAllocationSize(std::numeric_limits<std::size_t>::max()), std::bad_alloc);
    EXPECT_NO_THROW(foundation::veltradata::detail::checkAllocationSize(4096));
    // Neither element storage nor declared properties exist for a struct without fields or a sparse array,
    // so their (huge) shapes are fine.
    EXPECT_EQ(f.createStructArray(huge, {}).getNumberOfElements(), std::uint64_t{1} << 40);
    EXPECT_TRUE(isSparse(f.createArray(ArrayType::SPARSE_30, huge)));
}

}  // namespace
