#include "QTAtomHelpers.h"

#include "Support/Bytes.h"
#include "Support/ReportCapture.h"

#include <gtest/gtest.h>

#include <ostream>
#include <random>
#include <string>

using Tolbin::utility::BinaryDataArray;

namespace
{

QT::MediaSampleRec Sample(std::int64_t inOffset, std::int32_t inCount, std::int32_t inDuration, std::int32_t inSize,
                          bool inEndsChunk = false)
{
    return {inOffset, inCount, inDuration, 0, inSize, false, inEndsChunk};
}

QT::TrackRec Track(std::vector<QT::MediaSampleRec> inSamples, bool inExplicitChunking)
{
    QT::TrackRec track(QT::kQTMediaTypeVideo, 600, 0, 0, {});
    track.samples.assign(inSamples.begin(), inSamples.end());
    track.explicitChunking = inExplicitChunking;
    return track;
}

//! The atoms of a track; empty where the slot is null.
struct Tables
{
    BinaryDataArray stsz, stts, stsc, stco, co64;
};

template <typename Record>
BinaryDataArray AtomBytes(const Record* inAtom)
{
    if (inAtom == nullptr)
    {
        return {};
    }
    const auto* bytes = reinterpret_cast<const std::uint8_t*>(inAtom);
    return {bytes, bytes + TO_BIG(inAtom->header.atomSize)};
}

Tables MakeTablesOnce(QT::TrackRec& inTrack)
{
    QT::SampleTableItemsRec items;
    EXPECT_EQ(QT::MakeSampleTableItems(inTrack, items), 0);
    Tables tables{AtomBytes(items.sampleSizeAtom), AtomBytes(items.timeToSampleAtom),
                  AtomBytes(items.sampleToChunkAtom), AtomBytes(items.chunkOffsetAtom),
                  AtomBytes(items.chunkOffset64Atom)};
    QT::DisposeSampleTableItems(items);
    return tables;
}

//! The tables, which are the same whether the track has the summary of its records or not.
Tables MakeTables(QT::TrackRec inTrack)
{
    Tables tables = MakeTablesOnce(inTrack);
    for (const QT::MediaSampleRec& record : inTrack.samples)
    {
        inTrack.summary.Add(record);
    }
    const ReportCapture reports; // They were made once.
    const Tables again = MakeTablesOnce(inTrack);
    EXPECT_SAME_BYTES(again.stsz, tables.stsz);
    EXPECT_SAME_BYTES(again.stts, tables.stts);
    EXPECT_SAME_BYTES(again.stsc, tables.stsc);
    EXPECT_SAME_BYTES(again.stco, tables.stco);
    EXPECT_SAME_BYTES(again.co64, tables.co64);
    return tables;
}

struct Row
{
    const char* name;
    bool explicitChunking;
    std::vector<QT::MediaSampleRec> samples;
    const char* stts;
    const char* stsc;
    const char* stsz;
    const char* stco; //!< Empty when `co64` is not.
    const char* co64;

    friend std::ostream& operator<<(std::ostream& ioStream, const Row& inRow) { return ioStream << inRow.name; }
};

constexpr std::int64_t kMax32 = 0xFFFFFFFF;

// clang-format off
const Row kRows[] = {
    {"Audio", false, {Sample(1000, 1024, 1, 4096), Sample(9000, 1024, 1, 4096), Sample(20000, 1000, 1, 4000)},
     "#24 'stts' #0 #1 #3048 #1", "#40 'stsc' #0 #2 #1 #1024 #1 #3 #1000 #1", "#20 'stsz' #0 #4 #3048",
     "#28 'stco' #0 #3 #1000 #9000 #20000", ""},
    {"Video", false, {Sample(0, 1, 1001, 10), Sample(10, 1, 1001, 20), Sample(30, 1, 1001, 30), Sample(60, 1, 2002, 1)},
     "#32 'stts' #0 #2 #3 #1001 #1 #2002", "#28 'stsc' #0 #1 #1 #1 #1", "#36 'stsz' #0 #0 #4 #10 #20 #30 #1",
     "#32 'stco' #0 #4 #0 #10 #30 #60", ""},
    {"SamplesPerChunkChange", false, {Sample(0, 1, 5, 7), Sample(7, 1, 5, 7), Sample(14, 2, 5, 14)},
     "#24 'stts' #0 #1 #4 #5", "#40 'stsc' #0 #2 #1 #1 #1 #3 #2 #1", "#20 'stsz' #0 #7 #4",
     "#28 'stco' #0 #3 #0 #7 #14", ""},
    {"SeveralSamplesOfDifferingSizes", false, {Sample(0, 2, 5, 20), Sample(20, 3, 5, 11), Sample(31, 0, 5, 9)},
     "#24 'stts' #0 #1 #5 #5", "#52 'stsc' #0 #3 #1 #2 #1 #2 #3 #1 #3 #0 #1",
     "#40 'stsz' #0 #0 #5 #10 #10 #3 #3 #3", "#28 'stco' #0 #3 #0 #20 #31", ""},
    {"LeadingZeroCountJoinsTheRun", false, {Sample(0, 0, 5, 0), Sample(8, 3, 5, 0)},
     "#24 'stts' #0 #1 #3 #5", "#28 'stsc' #0 #1 #1 #3 #1", "#20 'stsz' #0 #0 #3", "#24 'stco' #0 #2 #0 #8", ""},
    {"ZeroCountsHaveNoPartInTheSizes", false,
     {Sample(0, 0, 1, 0), Sample(0, 1024, 1, 4096), Sample(4096, 0, 1, 7), Sample(4103, 1024, 1, 4096)},
     "#24 'stts' #0 #1 #2048 #1", "#40 'stsc' #0 #2 #1 #1024 #1 #3 #1024 #1", "#20 'stsz' #0 #4 #2048",
     "#32 'stco' #0 #4 #0 #0 #4096 #4103", ""},
    {"OnlyZeroCounts", false, {Sample(8, 0, 5, 0)},
     "#16 'stts' #0 #0", "#28 'stsc' #0 #1 #1 #0 #1", "#20 'stsz' #0 #0 #0", "#20 'stco' #0 #1 #8", ""},
    {"ZeroDurationsJoinTheNext", false, {Sample(0, 1, 0, 4), Sample(4, 1, 1001, 4)},
     "#24 'stts' #0 #1 #2 #1001", "#28 'stsc' #0 #1 #1 #1 #1", "#20 'stsz' #0 #4 #2", "#24 'stco' #0 #2 #0 #4", ""},
    {"ZeroDurationInBetween", false, {Sample(0, 1, 9, 4), Sample(4, 2, 0, 8), Sample(12, 1, 7, 4), Sample(16, 1, 0, 4)},
     "#40 'stts' #0 #3 #1 #9 #3 #7 #1 #0", "#52 'stsc' #0 #3 #1 #1 #1 #2 #2 #1 #3 #1 #1", "#20 'stsz' #0 #4 #5",
     "#32 'stco' #0 #4 #0 #4 #12 #16", ""},
    {"NegativeDurationsAreKept", false, {Sample(0, 1, -1, 4), Sample(4, 1, -1, 4)},
     "#24 'stts' #0 #1 #2 FF FF FF FF", "#28 'stsc' #0 #1 #1 #1 #1", "#20 'stsz' #0 #4 #2",
     "#24 'stco' #0 #2 #0 #4", ""},
    {"CountsAddUpIn32Bits", false, {Sample(0, 0x7FFFFFFF, 0, 0), Sample(0, 0x7FFFFFFF, 0, 0), Sample(0, 3, 0, 0)},
     "#24 'stts' #0 #1 #1 #0", "#40 'stsc' #0 #2 #1 #2147483647 #1 #3 #3 #1", "#20 'stsz' #0 #0 #1",
     "#28 'stco' #0 #3 #0 #0 #0", ""},
    {"CountsAddUpToNoneIn32Bits", false,
     {Sample(0, 0x40000000, 0, 0), Sample(0, 0x40000000, 0, 0), Sample(0, 0x40000000, 0, 0), Sample(0, 0x40000000, 0, 0)},
     "#16 'stts' #0 #0", "#28 'stsc' #0 #1 #1 #1073741824 #1", "#20 'stsz' #0 #0 #0", "#32 'stco' #0 #4 #0 #0 #0 #0", ""},
    {"SizesThatDifferByLessThanASample", false, {Sample(0, 2, 5, 20), Sample(20, 2, 5, 21)},
     "#24 'stts' #0 #1 #4 #5", "#28 'stsc' #0 #1 #1 #2 #1", "#20 'stsz' #0 #10 #4", "#24 'stco' #0 #2 #0 #20", ""},
    {"LastOffsetOf32Bits", false, {Sample(0, 1, 5, 4), Sample(kMax32, 1, 5, 4)},
     "#24 'stts' #0 #1 #2 #5", "#28 'stsc' #0 #1 #1 #1 #1", "#20 'stsz' #0 #4 #2", "#24 'stco' #0 #2 #0 FF FF FF FF", ""},
    {"FirstOffsetOf64Bits", false, {Sample(0, 1, 5, 4), Sample(kMax32 + 1, 1, 5, 4)},
     "#24 'stts' #0 #1 #2 #5", "#28 'stsc' #0 #1 #1 #1 #1", "#20 'stsz' #0 #4 #2", "", "#32 'co64' #0 #2 #0 #0 #1 #0"},
    {"MarkedChunkSharesAnEntry", true, {Sample(100, 1, 5, 10), Sample(110, 1, 5, 20, true), Sample(130, 2, 5, 10)},
     "#24 'stts' #0 #1 #4 #5", "#28 'stsc' #0 #1 #1 #2 #1", "#36 'stsz' #0 #0 #4 #10 #20 #5 #5",
     "#24 'stco' #0 #2 #100 #130", ""},
    {"MarkedChunkOfAnotherLength", true, {Sample(100, 1, 5, 4, true), Sample(104, 1, 5, 4), Sample(108, 1, 5, 4, true)},
     "#24 'stts' #0 #1 #3 #5", "#40 'stsc' #0 #2 #1 #1 #1 #2 #2 #1", "#20 'stsz' #0 #4 #3",
     "#24 'stco' #0 #2 #100 #104", ""},
    {"ChunkInFrontOfAGapBeginsAnEntry", true,
     {Sample(0, 2, 5, 4, true), Sample(4, 2, 5, 4), Sample(100, 2, 5, 4, true), Sample(104, 2, 5, 4)},
     "#24 'stts' #0 #1 #8 #5", "#40 'stsc' #0 #2 #1 #2 #1 #2 #2 #1", "#20 'stsz' #0 #2 #8",
     "#32 'stco' #0 #4 #0 #4 #100 #104", ""},
    {"FirstChunkInFrontOfAGap", true, {Sample(0, 2, 5, 4), Sample(100, 2, 5, 4, true)},
     "#24 'stts' #0 #1 #4 #5", "#28 'stsc' #0 #1 #1 #2 #1", "#20 'stsz' #0 #2 #4", "#24 'stco' #0 #2 #0 #100", ""},
    {"MarkAndGapTogetherAreAGap", true, {Sample(0, 2, 5, 4, true), Sample(4, 2, 5, 4, true), Sample(100, 2, 5, 4, true)},
     "#24 'stts' #0 #1 #6 #5", "#40 'stsc' #0 #2 #1 #2 #1 #2 #2 #1", "#20 'stsz' #0 #2 #6",
     "#28 'stco' #0 #3 #0 #4 #100", ""},
    {"ZeroCountOpensNoChunk", true, {Sample(100, 0, 5, 10), Sample(110, 3, 5, 30, true)},
     "#24 'stts' #0 #1 #3 #5", "#28 'stsc' #0 #1 #1 #3 #1", "#20 'stsz' #0 #10 #3", "#20 'stco' #0 #1 #110", ""},
    {"LastRecordWithoutSamplesIsAChunk", true, {Sample(100, 3, 5, 30, true), Sample(130, 0, 5, 10)},
     "#24 'stts' #0 #1 #3 #5", "#40 'stsc' #0 #2 #1 #3 #1 #2 #0 #1", "#20 'stsz' #0 #10 #3",
     "#24 'stco' #0 #2 #100 #130", ""},
    {"OffsetInsideAChunkCounts", true, {Sample(kMax32 - 3, 1, 5, 4), Sample(kMax32 + 1, 1, 5, 4, true)},
     "#24 'stts' #0 #1 #2 #5", "#28 'stsc' #0 #1 #1 #2 #1", "#20 'stsz' #0 #4 #2", "", "#24 'co64' #0 #1 #0 FF FF FF FC"},
};
// clang-format on

class SampleTables : public testing::TestWithParam<Row>
{
};

TEST_P(SampleTables, MatchTheirAtoms)
{
    ReportCapture reports;
    const Tables tables = MakeTables(Track(GetParam().samples, GetParam().explicitChunking));
    EXPECT_BYTES(tables.stts, GetParam().stts);
    EXPECT_BYTES(tables.stsc, GetParam().stsc);
    EXPECT_BYTES(tables.stsz, GetParam().stsz);
    EXPECT_BYTES(tables.stco, GetParam().stco);
    EXPECT_BYTES(tables.co64, GetParam().co64);
    EXPECT_EQ(reports.Take(), ReportTexts{});
}

INSTANTIATE_TEST_SUITE_P(Rows, SampleTables, testing::ValuesIn(kRows),
                         [](const auto& inRow) { return inRow.param.name; });

TEST(SampleTablesOfNothing, AreEmptyAndReported)
{
    for (const bool explicitChunking : {false, true})
    {
        ReportCapture reports;
        const Tables tables = MakeTables(Track({}, explicitChunking));
        EXPECT_BYTES(tables.stsz, "#20 'stsz' #0 #0 #0");
        EXPECT_BYTES(tables.stts, "#16 'stts' #0 #0");
        EXPECT_BYTES(tables.stsc, "#16 'stsc' #0 #0");
        EXPECT_BYTES(tables.stco, "#16 'stco' #0 #0");
        EXPECT_TRUE(tables.co64.empty());
        EXPECT_EQ(reports.Take(), (ReportTexts{"chunkOffsets.size()|", "sampleToChunkTable.size()|"}));
    }
}

TEST(SampleTableItems, StandInTheOrderOfTheContainer)
{
    QT::TrackRec track = Track({Sample(0, 1, 1, 1), Sample(kMax32 + 1, 1, 1, 1)}, false);
    QT::SampleTableItemsRec items;
    qtn_GenericAtomHeader stale;
    items.spare1 = items.spare2 = items.spare3 = &stale;
    ASSERT_EQ(QT::MakeSampleTableItems(track, items), 0);

    qtn_GenericAtomHeader description;
    std::vector<qtn_GenericAtomHeader*> atoms{&description};
    QT::PushSampleTableItemsToAtomVector(atoms, items);
    ASSERT_EQ(atoms.size(), 9u);
    std::string types;
    for (std::size_t i = 1; i < atoms.size(); ++i)
    {
        const BinaryDataArray type = atoms[i] == nullptr ? Bytes("'null'") : BytesOf(atoms[i]->atomType);
        types += std::string(type.begin(), type.end()) + " ";
    }
    EXPECT_EQ(types, "stts stsc stsz null co64 null null null ");
    QT::DisposeSampleTableItems(items);
    EXPECT_NE(items.sampleSizeAtom, nullptr) << "the slots are freed, not cleared";
}

TEST(SampleTableItems, RefuseAnAtomOfTwoGiBytes)
{
    QT::TrackRec track = Track({Sample(0, 0x20000000, 0, 0), Sample(0, 1, 0, 1)}, false);
    QT::SampleTableItemsRec items;
    EXPECT_EQ(QT::MakeSampleTableItems(track, items), QT::kQTErrTooLarge);
    QT::DisposeSampleTableItems(items);
}

//! Reads the tables the way a player does: file offset of every sample.
std::vector<std::uint64_t> SampleOffsets(const Tables& inTables)
{
    const std::uint32_t sampleCount = Big32(inTables.stsz, 16);
    const std::uint32_t chunkCount = Big32(inTables.stco, 12);
    const std::uint32_t entryCount = Big32(inTables.stsc, 12);
    std::vector<std::uint64_t> offsets;
    std::uint32_t entry = 0;
    for (std::uint32_t chunk = 1; chunk <= chunkCount; ++chunk)
    {
        while (entry + 1 < entryCount && Big32(inTables.stsc, 16 + 12 * (entry + 1)) <= chunk)
        {
            ++entry;
        }
        std::uint64_t offset = Big32(inTables.stco, 12 + 4 * chunk);
        for (std::uint32_t i = 0; i < Big32(inTables.stsc, 20 + 12 * entry) && offsets.size() < sampleCount; ++i)
        {
            const std::uint32_t uniform = Big32(inTables.stsz, 12);
            const std::uint32_t size = uniform != 0 ? uniform : Big32(inTables.stsz, 20 + 4 * offsets.size());
            offsets.push_back(offset);
            offset += size;
        }
    }
    return offsets;
}

TEST(SampleTablesOfAnyTrack, LeadAReaderToEverySample)
{
    std::mt19937 random(20120229);
    const auto upTo = [&](int inLimit) { return static_cast<std::int32_t>(random() % static_cast<unsigned>(inLimit)); };
    for (int round = 0; round < 500; ++round)
    {
        const bool explicitChunking = round % 2 != 0;
        const bool uniform = round % 3 == 0;
        const bool ordinary = round % 5 == 0;
        std::vector<QT::MediaSampleRec> samples;
        std::vector<std::uint64_t> offsets;
        std::int64_t end = 1000;
        for (int i = upTo(40) + 1; i > 0; --i)
        {
            end += upTo(3) == 0 ? upTo(100) : 0;
            const std::int32_t count = ordinary ? 1 + round % 2 : upTo(3) + 1;
            const std::int32_t size = uniform ? 7 : upTo(9) + 1;
            const std::int32_t duration = ordinary ? 1 : upTo(2) + 1;
            samples.push_back(Sample(end, count, duration, count * size, explicitChunking && upTo(4) == 0));
            for (std::int32_t j = 0; j < count; ++j)
            {
                offsets.push_back(static_cast<std::uint64_t>(end + j * size));
            }
            end += count * size;
        }
        const Tables tables = MakeTables(Track(samples, explicitChunking));
        ASSERT_EQ(SampleOffsets(tables), offsets) << "round " << round;
        std::uint64_t timed = 0;
        for (std::size_t at = 16; at < tables.stts.size(); at += 8)
        {
            timed += Big32(tables.stts, at);
        }
        ASSERT_EQ(timed, offsets.size()) << "'stts' and 'stsz' agree";
    }
}

} // namespace
