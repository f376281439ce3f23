#include "QTAtomHelpers.h"

#include "Support/ReportCapture.h"

#include <gtest/gtest.h>

#include <chrono>
#include <ostream>
#include <string>

namespace
{

struct ConversionRow
{
    const char* name;
    std::int32_t time, sourceScale, destinationScale, expected;
    const char* report; //!< Null for none.

    friend std::ostream& operator<<(std::ostream& ioStream, const ConversionRow& inRow)
    {
        return ioStream << inRow.name;
    }
};

constexpr const char* kOverflow =
    "(result & 0xFFFFFFFF80000000LL) == 0|Signed 32-bit overflow in ConvertSrcTimeToDestTimescale.  Do not ignore this "
    "problem.  The file is being written in an invalid state.\n";
constexpr const char* kNoScale = "inSrcTimeScale != 0|";

constexpr std::int32_t kMin = std::numeric_limits<std::int32_t>::min();
constexpr std::int32_t kMax = std::numeric_limits<std::int32_t>::max();

const ConversionRow kConversionRows[] = {
    {"Zero", 0, 600, 30000, 0, nullptr},
    {"ScalesUp", 600, 600, 30000, 30000, nullptr},
    {"Truncates", 1001, 30000, 1000, 33, nullptr},
    {"ThirdIsZero", 1, 3, 1, 0, nullptr},
    {"NegativeThirdIsZero", -1, 3, 1, 0, nullptr},
    {"Negative", -3, 1, 1, -3, kOverflow},
    {"NegativeTruncatesTowardZero", -7, 2, 1, -3, kOverflow},
    {"LargestThatFits", kMax, 1, 1, kMax, nullptr},
    {"OneBeyond", 0x40000000, 1, 2, kMin, kOverflow},
    {"Wraps", kMax, 1, 2, -2, kOverflow},
    {"ProductNeeds64Bits", kMax, kMax, kMax, kMax, nullptr},
    {"LowBitsAreReturned", kMax, 1, kMax, 1, kOverflow},
    {"SmallestByMinusOne", kMin, -1, 1, kMin, kOverflow},
    {"NoSourceScale", 100, 0, 600, 0, kNoScale},
};

class TimeConversion : public testing::TestWithParam<ConversionRow>
{
};

TEST_P(TimeConversion, GivesResultAndReport)
{
    const ConversionRow& row = GetParam();
    ReportCapture reports;
    EXPECT_EQ(QT::ConvertSrcTimeToDestTimescale(row.time, row.sourceScale, row.destinationScale), row.expected);
    EXPECT_EQ(reports.Take(), row.report == nullptr ? ReportTexts{} : ReportTexts{row.report});
}

INSTANTIATE_TEST_SUITE_P(Rows, TimeConversion, testing::ValuesIn(kConversionRows),
                         [](const auto& inRow) { return inRow.param.name; });

TEST(DateTime, CountsSecondsSince1904)
{
    EXPECT_EQ(DateTimeToQTTimeSeconds(1, 1, 1904, 0, 0, 0), 0u);
    EXPECT_EQ(DateTimeToQTTimeSeconds(29, 2, 1904, 12, 0, 0), 5140800u);
    EXPECT_EQ(DateTimeToQTTimeSeconds(1, 3, 1904, 0, 0, 0), 5184000u);
    EXPECT_EQ(DateTimeToQTTimeSeconds(1, 1, 1905, 0, 0, 0), 31622400u);
    EXPECT_EQ(DateTimeToQTTimeSeconds(1, 1, 2000, 0, 0, 0), 3029529600u);
    EXPECT_EQ(DateTimeToQTTimeSeconds(6, 2, 2040, 6, 28, 16), 0x100000000u);
}

TEST(DateTime, AgreesWithTheCalendarOnEveryDay)
{
    using namespace std::chrono;
    constexpr sys_days kFirst = year{1904} / 1 / 1;
    for (sys_days day = kFirst; day < sys_days(year{2405} / 1 / 1); day += days{1})
    {
        const year_month_day date(day);
        const auto seconds = DateTimeToQTTimeSeconds(static_cast<int>(static_cast<unsigned>(date.day())),
                                                     static_cast<int>(static_cast<unsigned>(date.month())),
                                                     static_cast<int>(date.year()), 23, 59, 58);
        ASSERT_EQ(seconds, static_cast<std::uint64_t>((day - kFirst).count()) * 86400 + 86398)
            << static_cast<int>(date.year()) << '-' << static_cast<unsigned>(date.month());
    }
}

TEST(DateTime, TakesFieldsAsTheyAre)
{
    EXPECT_EQ(DateTimeToQTTimeSeconds(1, 1, 1904, 24, 75, 61), 24u * 3600 + 75 * 60 + 61);
    EXPECT_EQ(DateTimeToQTTimeSeconds(2, 1, 1904, -1, 0, -1), 86400u - 3601);
    EXPECT_EQ(DateTimeToQTTimeSeconds(1, 0, 1904, 0, 0, 0), 0u) << "a month below 2 adds nothing";
    EXPECT_EQ(DateTimeToQTTimeSeconds(1, 3, 1900, 0, 0, 0), 59u * 86400) << "a year up to 1904 adds nothing";
    EXPECT_EQ(DateTimeToQTTimeSeconds(0, 1, 1904, 0, 0, 0), 0xFFFFFFFFu * std::uint64_t{86400});
}

} // namespace
