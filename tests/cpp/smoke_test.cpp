#include <gtest/gtest.h>
#include "veltradata/veltradata.h"
using namespace foundation::veltradata;
TEST(Smoke, ColumnMajor) {
    ClientArrayFactory f;
    double buf[] = {1, 2, 3, 4, 5, 6};
    TypedArray<double> a = f.createArrayWithData(ArrayType::DOUBLE, {2, 3}, buf, sizeof buf);
    EXPECT_EQ(double(a[1][0]), 2);
    EXPECT_EQ(double(a[0][1]), 3);
    Array b = a;
    a[0] = 9.0;
    EXPECT_EQ(b[0].castTo<double>(), 1);
    EXPECT_EQ(a[0].castTo<int>(), 9);
}
