// The ISO date-time texts and unit arithmetic behind the time converters. Agreement with numpy's own str()
// and casts over random values is checked from Python; here: what the parser must refuse, and the limits.
#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "convert/time_text.h"

using namespace PythonVeltraDataArray::detail;

namespace {

DatetimeText parsed(std::u16string_view text) {
    DatetimeText t;
    EXPECT_TRUE(parseDatetime(text, t)) << std::string(text.begin(), text.end());
    return t;
}

}  // namespace

TEST(TimeText, ReadsTheFormsNumpyWritesWithTheUnitNumpyInfers) {
    EXPECT_TRUE(parsed(u"").nat);
    EXPECT_TRUE(parsed(u"nAt").nat);
    EXPECT_EQ(parsed(u"-030").unit, TimeUnit::Year);
    EXPECT_EQ(parsed(u"-030").year, -30);
    EXPECT_EQ(parsed(u"2024-02").unit, TimeUnit::Month);
    EXPECT_EQ(parsed(u"2024-02-29 10").unit, TimeUnit::Hour);
    EXPECT_EQ(parsed(u"2024-02-29T10:11:12.1234").unit, TimeUnit::Micro);
    EXPECT_EQ(parsed(u"2024-02-29T10:11:12.123456789012345678").unit, TimeUnit::Atto);
}

TEST(TimeText, LeavesEverythingElseToNumpy) {
    for (std::u16string_view text : {u"2024-1-1", u"2023-02-29", u"2024-01-01T24:00", u"2024-01-01T10:60",
                                     u"2024-01-01T10:00:60", u"2024-01-01T10:00:00.", u"2024-01-01T10:00:00Z",
                                     u"2024-01-01T10:00:00.1234567890123456789", u"99999999999999999999-01-01", u"today",
                                     u"-", u"2024-13"}) {
        DatetimeText t;
        EXPECT_FALSE(parseDatetime(text, t)) << std::string(text.begin(), text.end());
    }
}

TEST(TimeText, CountsDropFinerPartsTowardThePastAndRefuseWhatInt64CannotHold) {
    std::int64_t v = 0;
    ASSERT_TRUE(datetimeValue(parsed(u"1969-12-31T23:59:59.9999"), TimeUnit::Milli, v));
    EXPECT_EQ(v, -1);
    EXPECT_FALSE(datetimeValue(parsed(u"2300-01-01"), TimeUnit::Nano, v));
    ASSERT_TRUE(datetimeValue(parsed(u"2300-01-01"), TimeUnit::Micro, v));
    EXPECT_FALSE(datetimeValue(parsed(u"2024-01-01T10"), TimeUnit::Year, v));  // no Year from a finer text
    EXPECT_FALSE(datetimeValue(parsed(u"999999999999-01-01"), TimeUnit::Atto, v));
    ASSERT_TRUE(datetimeValue(parsed(u"292277026596-12-04T15:30:07"), TimeUnit::Second, v));
    EXPECT_EQ(v, std::numeric_limits<std::int64_t>::max());
    EXPECT_FALSE(datetimeValue(parsed(u"-9223372036854773838"), TimeUnit::Year, v));  // the NaT pattern
    ASSERT_TRUE(datetimeValue(parsed(u"-9223372036854773837"), TimeUnit::Year, v));
}

TEST(TimeText, ACountIsExactOnlyWhenEverythingFinerThanItsUnitIsZero) {
    EXPECT_TRUE(datetimeExact(parsed(u"1000-01-01T00:00:00.123456000000"), TimeUnit::Micro));
    EXPECT_FALSE(datetimeExact(parsed(u"1000-01-01T00:00:00.123456000001"), TimeUnit::Micro));
    EXPECT_TRUE(datetimeExact(parsed(u"2024-03-01T00:00:00.000"), TimeUnit::Day));
    EXPECT_FALSE(datetimeExact(parsed(u"2024-03-01T00:00:01"), TimeUnit::Minute));
    EXPECT_FALSE(datetimeExact(parsed(u"2024-03-02"), TimeUnit::Month));
    EXPECT_TRUE(datetimeExact(parsed(u"2024-01"), TimeUnit::Year) && datetimeExact(parsed(u"NaT"), TimeUnit::Year));
}

TEST(TimeText, PrintsNaTAndDeclinesWhatOnlyNumpyCanPrint) {
    std::u16string out;
    ASSERT_TRUE(formatDatetime(kNaT, TimeUnit::Generic, 1, out));
    EXPECT_EQ(out, u"NaT");
    out.clear();
    EXPECT_FALSE(formatDatetime(5, TimeUnit::Generic, 1, out));
    EXPECT_FALSE(formatDatetime(std::int64_t{1} << 62, TimeUnit::Milli, 10, out));  // numpy wraps the product
    EXPECT_FALSE(formatDatetime(std::int64_t{1} << 62, TimeUnit::Day, 1, out));
    EXPECT_TRUE(out.empty());
    ASSERT_TRUE(formatDatetime(-1, TimeUnit::Nano, 1, out));
    EXPECT_EQ(out, u"1969-12-31T23:59:59.999999999");
}

TEST(TimeText, DurationMillisecondsNeitherWrapNorRoundTowardZero) {
    EXPECT_TRUE(std::isnan(durationMillis(kNaT, TimeUnit::Milli, 1)));
    EXPECT_EQ(durationMillis(-1500, TimeUnit::Micro, 1), -2.0);
    EXPECT_EQ(durationMillis(-1, TimeUnit::Micro, 3), -1.0);
    EXPECT_EQ(durationMillis(std::int64_t{1} << 62, TimeUnit::Day, 1), std::ldexp(86400000.0, 62));
    EXPECT_EQ(durationMillis(1, TimeUnit::Year, 1), 31556952000.0);
}
