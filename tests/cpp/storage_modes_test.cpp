// Storage modes of numeric arrays beyond a block of their own: elements borrowed from memory the library
// does not own, read in place or reordered, and detached before any write.
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "serialization.h"
#include "veltradata/element_block.h"
#include "veltradata/impl.h"
#include "veltradata/veltradata.h"

namespace {

using namespace foundation::veltradata;
using foundation::veltradata::detail::AlignedBuffer;
using foundation::veltradata::detail::ExternalElements;
namespace vp = foundation::veltradata::protobuf;

// A 2-by-3 double matrix held by someone else, in column-major or row-major order.
struct Source {
    std::vector<double> values;
    bool rowMajor = false;
    int released = 0;
    int copies = 0;
};

class Borrowed final : public ExternalElements {
public:
    explicit Borrowed(Source& s) : s_(s) {}
    ~Borrowed() override { ++s_.released; }
    const std::uint8_t* columnMajor() const noexcept override {
        return s_.rowMajor ? nullptr : reinterpret_cast<const std::uint8_t*>(s_.values.data());
    }
    void copyTo(std::uint8_t* out) const override {
        ++s_.copies;
        double* d = reinterpret_cast<double*>(out);
        for (int r = 0; r < 2; ++r)
            for (int c = 0; c < 3; ++c) d[c * 2 + r] = s_.rowMajor ? s_.values[r * 3 + c] : s_.values[c * 2 + r];
    }

private:
    Source& s_;
};

const std::vector<double> kColumnMajor{1, 4, 2, 5, 3, 6};  // [[1, 2, 3], [4, 5, 6]]

Array borrowedMatrix(Source& s) {
    ClientArrayFactory f;
    return f.adoptBuffer(ArrayType::DOUBLE, {2, 3},
                         AlignedBuffer::borrow(6 * sizeof(double), std::make_unique<Borrowed>(s)));
}

std::string encode(const Array& a) {
    std::string out(vp::encodedSize(a), '\0');
    vp::encodeArray(a, reinterpret_cast<std::uint8_t*>(out.data()));
    return out;
}

class BorrowedStorage : public ::testing::TestWithParam<bool> {
protected:
    Source source{GetParam() ? std::vector<double>{1, 2, 3, 4, 5, 6} : kColumnMajor, GetParam()};
};

TEST_P(BorrowedStorage, IsWrittenOnceFromTheSourceAsAnOwnedCopyWouldBe) {
    ClientArrayFactory f;
    const Array owned = f.createArrayWithData(ArrayType::DOUBLE, {2, 3}, kColumnMajor.data(), 6 * sizeof(double));
    {
        const Array a = borrowedMatrix(source);
        EXPECT_EQ(encode(a), encode(owned));
        EXPECT_EQ(source.copies, 1);  // straight from the source into the message
        EXPECT_EQ(source.released, 0);
    }
    EXPECT_EQ(source.released, 1);
}

TEST_P(BorrowedStorage, ReadsReachTheSourceOrAReorderedCopyOfIt) {
    const Array a = borrowedMatrix(source);
    const std::uint8_t* p = elementBytes(a);
    EXPECT_EQ(std::memcmp(p, kColumnMajor.data(), 6 * sizeof(double)), 0);
    if (GetParam()) {
        EXPECT_EQ(source.released, 1);  // reordered into storage of its own, the source let go at once
    } else {
        EXPECT_EQ(p, reinterpret_cast<const std::uint8_t*>(source.values.data()));  // in place
        EXPECT_EQ(source.copies, 0);
    }
    EXPECT_EQ(a[1][2].getValue<double>(), 6.0);
    EXPECT_TRUE(a == borrowedMatrix(source));
}

TEST_P(BorrowedStorage, WritesNeverReachTheSource) {
    const std::vector<double> before = source.values;
    Array a = borrowedMatrix(source);
    Array shared = a;
    a[0].setElement(10.0);  // shared: detaches
    shared[5].setElement(60.0);  // now alone, but still borrowing: takes storage of its own first
    EXPECT_EQ(source.values, before);
    EXPECT_EQ(source.released, 1);
    EXPECT_EQ(a[0].getValue<double>(), 10.0);
    EXPECT_EQ(a[5].getValue<double>(), 6.0);
    EXPECT_EQ(shared[0].getValue<double>(), 1.0);
    EXPECT_EQ(shared[5].getValue<double>(), 60.0);
    AlignedBuffer b = AlignedBuffer::borrow(6 * sizeof(double), std::make_unique<Borrowed>(source));
    const AlignedBuffer c = b.clone();
    EXPECT_TRUE(b.borrowed());
    EXPECT_FALSE(c.borrowed());
    EXPECT_EQ(std::memcmp(c.data(), kColumnMajor.data(), c.size()), 0);
}

INSTANTIATE_TEST_SUITE_P(Order, BorrowedStorage, ::testing::Values(false, true),
                         [](const auto& info) { return info.param ? "RowMajor" : "ColumnMajor"; });

TEST(BorrowedStorageExtra, EmptyBorrowLetsTheSourceGo) {
    Source s{{}, false};
    AlignedBuffer b = AlignedBuffer::borrow(0, std::make_unique<Borrowed>(s));
    EXPECT_EQ(s.released, 1);
    EXPECT_FALSE(b.borrowed());
    EXPECT_NE(b.data(), nullptr);
}

// ---------------------------------------------------------------------------------------------------------
// Pooled small blocks: implementation objects and tiny element blocks.

TEST(PooledBlocks, EverySizeClassGivesDistinctWritableBlocksAndTakesThemBack) {
    for (std::size_t bytes : {std::size_t{1}, std::size_t{64}, std::size_t{65}, sizeof(detail::ArrayImpl),
                              detail::kPooledBlockMax, detail::kPooledBlockMax + 1}) {
        std::vector<void*> blocks;
        for (int i = 0; i < 600; ++i) {  // past one slab of every class
            blocks.push_back(detail::allocateSmall(bytes));
            std::memset(blocks.back(), i & 0xff, bytes);
        }
        for (std::size_t i = 0; i < blocks.size(); ++i) {
            const auto* p = static_cast<const std::uint8_t*>(blocks[i]);
            ASSERT_EQ(p[0], i & 0xff) << bytes;
            ASSERT_EQ(p[bytes - 1], i & 0xff) << bytes;
        }
        for (void* p : blocks) detail::deallocateSmall(p, bytes);
    }
    detail::deallocateSmall(nullptr, 8);
}

TEST(PooledBlocks, ManyScalarsAliveAtOnceKeepTheirValuesAndHandles) {
    ClientArrayFactory f;
    std::vector<Array> scalars;
    for (int i = 0; i < 5000; ++i) scalars.push_back(f.createScalar<double>(i));
    void* handle = scalars[1234].shareHandle();  // the receiver's own hold outlives the Array
    scalars.erase(scalars.begin() + 1000, scalars.begin() + 2000);
    for (int i = 0; i < 1000; ++i) scalars.push_back(f.createScalar<double>(-i));
    const Array kept = Array::adoptHandle(handle);
    EXPECT_EQ(kept[0].getValue<double>(), 1234.0);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(scalars[i][0].getValue<double>(), i);
    for (int i = 0; i < 1000; ++i) ASSERT_EQ(scalars[4000 + i][0].getValue<double>(), -i);
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool kPooled = false;  // sanitizer builds allocate each block on its own
#elif defined(__has_feature)
constexpr bool kPooled = !__has_feature(address_sanitizer);
#else
constexpr bool kPooled = true;
#endif

// A call that makes a great many scalars: once they are gone, the pool keeps no more than its idle allowance,
// and nothing once told to give memory back, while blocks still in use (one in many) stay intact.
TEST(PooledBlocks, SlabsWithNoBlockInUseGoBackToTheSystem) {
    if (!kPooled) GTEST_SKIP() << "no pool in sanitizer builds";
    constexpr std::size_t kEvery = 5000;
    const std::size_t before = detail::pooledBytes();
    const std::size_t sizes[] = {8, sizeof(detail::ArrayImpl)};
    const std::size_t counts[] = {2 * detail::kPoolIdleBytesKept / 64, 20000};
    std::vector<void*> blocks[2], kept[2];
    for (int k = 0; k < 2; ++k) {
        blocks[k].reserve(counts[k]);
        for (std::size_t i = 0; i < counts[k]; ++i) {
            blocks[k].push_back(detail::allocateSmall(sizes[k]));
            std::memcpy(blocks[k].back(), &i, sizeof i);
        }
    }
    ASSERT_GE(detail::pooledBytes(), before + counts[0] * 64);
    for (int k = 0; k < 2; ++k) {
        // Given back out of order: the even ones first, then the odd ones from the end.
        for (std::size_t i = 0; i < counts[k]; i += 2) {
            if (i % kEvery == 0) kept[k].push_back(blocks[k][i]);
            else detail::deallocateSmall(blocks[k][i], sizes[k]);
        }
        for (std::size_t i = counts[k] - 1; i < counts[k]; i -= 2) detail::deallocateSmall(blocks[k][i], sizes[k]);
    }
    const std::size_t keptSlabs = (kept[0].size() + kept[1].size()) * detail::kPoolSlabBytes;
    EXPECT_LE(detail::pooledBytes(), before + detail::kPoolIdleBytesKept + keptSlabs);
    detail::releaseFreeMemory();
    EXPECT_LE(detail::pooledBytes(), before + keptSlabs);
    for (int k = 0; k < 2; ++k) {
        for (std::size_t j = 0; j < kept[k].size(); ++j) {
            std::size_t stamp;
            std::memcpy(&stamp, kept[k][j], sizeof stamp);
            EXPECT_EQ(stamp, j * kEvery);
            detail::deallocateSmall(kept[k][j], sizes[k]);
        }
    }
    detail::releaseFreeMemory();
    EXPECT_LE(detail::pooledBytes(), before);
}

// Several threads take and give back blocks of every class at once, across slab boundaries, while one of them
// keeps giving idle slabs back: no block is handed out twice or unmapped while in use.
TEST(PooledBlocks, ThreadsShareThePoolSafely) {
    constexpr int kThreads = 4, kRounds = 300, kBlocks = 3000;
    std::vector<std::thread> threads;
    std::vector<int> faults(kThreads, 0);
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([t, &faults] {
            for (int round = 0; round < kRounds; ++round) {
                // Room for the stamp each block carries, in four size classes.
                const std::size_t bytes = sizeof(std::uint32_t) + static_cast<std::size_t>(round % 4) * 64;
                std::vector<std::uint32_t*> blocks;
                for (int i = 0; i < kBlocks; ++i) {
                    auto* p = static_cast<std::uint32_t*>(detail::allocateSmall(bytes));
                    *p = static_cast<std::uint32_t>(t << 24 | i);
                    blocks.push_back(p);
                }
                for (int i = 0; i < kBlocks; ++i)
                    if (*blocks[i] != static_cast<std::uint32_t>(t << 24 | i)) ++faults[t];
                for (std::uint32_t* p : blocks) detail::deallocateSmall(p, bytes);
                if (t == 0) detail::releaseFreeMemory();
            }
        });
    }
    for (std::thread& th : threads) th.join();
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(faults[t], 0) << t;
}

}  // namespace
