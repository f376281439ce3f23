#include <Reelmill/QTSampleDescription.h>

#include "Support/Bytes.h"
#include "Support/ReportCapture.h"

#include <algorithm>
#include <map>
#include <ostream>
#include <string>

using Tolbin::utility::BinaryDataArray;

namespace
{

Quorlan::AudioChannelLayout Layout(const std::vector<std::uint32_t>& inLabels)
{
    Quorlan::AudioChannelLayout layout;
    for (const std::uint32_t label : inLabels)
    {
        layout.emplace_back(static_cast<Quorlan::AudioChannelLabel>(label));
    }
    return layout;
}

BinaryDataArray Entry(int inChannels, int inRate, int inType, const std::vector<std::uint32_t>& inLabels,
                      bool inDiscrete = false, int inDiscreteChannel = 0)
{
    const auto sound =
        QT::CreateSoundDescription(inDiscreteChannel, inChannels, inRate, static_cast<Sambrel::AudioSampleType>(inType),
                                   Layout(inLabels), inDiscrete);
    BinaryDataArray entry = Bytes("EE*300");
    sound->GetAsBinary(entry);
    EXPECT_EQ(Big32(entry, 0), entry.size());
    return entry;
}

BinaryDataArray Slice(const BinaryDataArray& inBytes, std::size_t inBegin, std::size_t inEnd)
{
    return {inBytes.data() + inBegin, inBytes.data() + std::min(inEnd, inBytes.size())};
}

constexpr const char* kStereo = "#64 'chan' #0 00 65 00 02 #0 #0 00*40";

struct TypeRow
{
    int type;
    const char* version1; //!< Of a mono 44100 Hz entry: data format; then from byte 24 to the end of the fixed part.
    const char* wave;
    const char* version2; //!< Of a 3-channel entry: from byte 56 to the end of the fixed part.

    friend std::ostream& operator<<(std::ostream& ioStream, const TypeRow& inRow) { return ioStream << inRow.type; }
};

constexpr const char* kRate44100 = "AC 44 00 00 #1 ";

const TypeRow kTypeRows[] = {
    {1, "'raw ' 00 01 00 08 #1 #1 #1", "", "#8 #8 #3 #1"},
    {2, "'raw ' 00 01 00 08 #1 #1 #1", "", "#8 #12 #3 #1"},
    {3, "'sowt' 00 01 00 10 #2 #2 #2", "", "#16 #12 #6 #1"},
    {4, "'in24' 00 01 00 18 #3 #3 #3", "'in24' #10 'enda' 00 01", "#24 #12 #9 #1"},
    {5, "'in32' 00 01 00 20 #4 #4 #4", "'in32' #10 'enda' 00 01", "#32 #12 #12 #1"},
    {6, "'fl32' 00 01 00 20 #4 #4 #4", "'fl32' #10 'enda' 00 01", "#32 #1 #12 #1"},
    {10, "'fl64' 00 01 00 40 #8 #8 #8", "'fl64' #10 'enda' 00 01", "#64 #1 #24 #1"},
    {11, "'twos' 00 01 00 10 #2 #2 #2", "'twos' #10 'enda' 00 00", "#16 #14 #6 #1"},
    {12, "'in24' 00 01 00 18 #3 #3 #3", "'in24' #10 'enda' 00 00", "#24 #14 #9 #1"},
    {13, "'in32' 00 01 00 20 #4 #4 #4", "'in32' #10 'enda' 00 00", "#32 #14 #12 #1"},
    {14, "'fl32' 00 01 00 20 #4 #4 #4", "'fl32' #10 'enda' 00 00", "#32 #3 #12 #1"},
};

class SoundType : public testing::TestWithParam<TypeRow>
{
};

TEST_P(SoundType, MatchesBothTables)
{
    ReportCapture reports;
    const BinaryDataArray row = Bytes(GetParam().version1);
    BinaryDataArray wave = Bytes(GetParam().wave);
    wave = wave.empty() ? wave : Bytes("#38 'wave' #12 'frma'") + wave + Bytes("#8 #0");
    const BinaryDataArray chan = Bytes("#44 'chan' #0 #0 #0 #1 #42 00*16");
    BinaryDataArray size = Bytes("#0");
    size[3] = static_cast<std::uint8_t>(52 + wave.size() + chan.size());
    EXPECT_SAME_BYTES(Entry(1, 44100, GetParam().type, {0}),
                      size + Slice(row, 0, 4) + Bytes("00*6 00 01 00 01 00 00 20*4") + Slice(row, 4, 8) +
                          Bytes("FF FF 00 00") + Bytes(kRate44100) + Slice(row, 8, 20) + wave + chan);

    EXPECT_SAME_BYTES(Entry(3, 48000, GetParam().type, {100, 101, 102}),
                      Bytes("#156 'lpcm' 00*6 00 01 00 02 00 00 20*4 00 03 00 10 FF FE 00 00 00 01 00 00 #72 "
                            "40 E7 70 00 00 00 00 00 #3 7F 00 00 00") +
                          Bytes(GetParam().version2) + Bytes("#84 'chan' #0 #0 #0 #3 #1 00*16 #2 00*16 #3 00*16"));
    EXPECT_EQ(reports.Take(), ReportTexts{});
}

INSTANTIATE_TEST_SUITE_P(Rows, SoundType, testing::ValuesIn(kTypeRows),
                         [](const auto& inRow) { return std::to_string(inRow.param.type); });

TEST(SoundDescription, VersionIsChosenByChannelsAndRate)
{
    struct Row
    {
        int channels, rate, version;
    };
    for (const Row& row : {Row{1, 65535, 1}, Row{2, 65535, 1}, Row{0, 48000, 1}, Row{1, 0, 1}, Row{2, 65536, 2},
                           Row{1, 96000, 2}, Row{3, 44100, 2}, Row{2, -1, 2}})
    {
        const BinaryDataArray entry =
            Entry(row.channels, row.rate, 3, std::vector<std::uint32_t>(static_cast<std::size_t>(row.channels), 102));
        EXPECT_EQ(entry[17], row.version) << row.channels << " channels at " << row.rate;
    }
    EXPECT_BYTES(Slice(Entry(1, 65535, 3, {0}), 32, 36), "FF FF 00 00");
    EXPECT_BYTES(Slice(Entry(2, 65536, 3, {0, 0}), 40, 48), "40 F0 00 00 00 00 00 00");
    EXPECT_BYTES(Slice(Entry(0, 48000, 3, {}), 52, 100), "#24 'chan' #0 #0 #0 #0");
}

TEST(SoundDescription, StereoHasItsOwnTag)
{
    EXPECT_SAME_BYTES(Entry(2, 48000, 11, {100, 101}),
                      Bytes("#154 'twos' 00*6 00 01 00 01 00 00 20*4 00 02 00 10 FF FF 00 00 BB 80 00 00 #1 #2 #4 #2 "
                            "#38 'wave' #12 'frma' 'twos' #10 'enda' 00 00 #8 #0") +
                          Bytes(kStereo));
    const BinaryDataArray high = Entry(2, 96000, 5, {100, 101});
    EXPECT_BYTES(Slice(high, 56, 72), "#32 #12 #8 #1");
    EXPECT_SAME_BYTES(Slice(high, 72, 999), Bytes(kStereo));
    EXPECT_BYTES(Slice(Entry(2, 48000, 3, {101, 100}), 52, 999), "#64 'chan' #0 #0 #0 #2 #2 00*16 #1 00*16");
    EXPECT_BYTES(Slice(Entry(2, 48000, 3, {100, 102}), 52, 999), "#64 'chan' #0 #0 #0 #2 #1 00*16 #3 00*16");
    EXPECT_EQ(Big32(Entry(3, 48000, 3, {100, 101, 102}), 84), 0u) << "two channels only";
}

TEST(SoundDescription, SixChannels)
{
    EXPECT_BYTES(Entry(6, 48000, 6, {100, 101, 102, 103, 104, 105}),
                 "#216 'lpcm' 00*6 00 01 00 02 00 00 20*4 00 03 00 10 FF FE 00 00 00 01 00 00 #72 "
                 "40 E7 70 00 00 00 00 00 #6 7F 00 00 00 #32 #1 #24 #1 #144 'chan' #0 #0 #0 #6 "
                 "#1 00*16 #2 00*16 #3 00*16 #4 00*16 #5 00*16 #6 00*16");
}

TEST(SoundDescription, LabelsOfDiscreteChannels)
{
    const auto label = [](const BinaryDataArray& inEntry, std::size_t inIndex) {
        return Big32(inEntry, inEntry.size() - 20 * (inIndex + 1));
    };
    EXPECT_EQ(label(Entry(1, 44100, 3, {0}, true, 3), 0), 0x10003u);
    EXPECT_EQ(label(Entry(1, 44100, 3, {0}, false, 3), 0), 42u);
    EXPECT_EQ(label(Entry(1, 44100, 3, {101}, true, 3), 0), 2u) << "discrete labelling keeps a single channel's label";
    EXPECT_EQ(label(Entry(1, 44100, 3, {101}, false, 3), 0), 42u) << "Mono whatever the label";
    const BinaryDataArray discrete = Entry(2, 44100, 3, {0, 0}, true, 7);
    EXPECT_EQ(label(discrete, 1), 0x10000u) << "counted from 0, whatever the discrete channel number";
    EXPECT_EQ(label(discrete, 0), 0x10001u);
    EXPECT_EQ(label(Entry(2, 44100, 3, {0, 102}, false), 1), 42u);
}

TEST(SoundDescription, EveryLabelIsMappedOrReported)
{
    std::map<std::uint32_t, std::uint32_t> expected{
        {0, 42},   {100, 1},  {101, 2},   {102, 3},   {103, 4},   {104, 5},  {105, 6},  {106, 9},
        {107, 7},  {108, 8},  {109, 10},  {110, 11},  {111, 12},  {112, 13}, {113, 15}, {114, 14},
        {115, 16}, {116, 18}, {117, 17},  {118, 35},  {119, 36},  {129, 33}, {130, 34}, {131, 37},
        {132, 38}, {133, 39}, {134, 200}, {135, 201}, {136, 202}, {137, 203}};
    ReportCapture reports;
    for (std::uint32_t label = 0; label <= 300; ++label)
    {
        // Beside a channel that makes the layout no stereo one.
        const BinaryDataArray entry = Entry(2, 48000, 3, {label, 102});
        const auto found = expected.find(label);
        EXPECT_EQ(Big32(entry, 52 + 24), found == expected.end() ? 0xFFFFFFFF : found->second) << "label " << label;
        if (found == expected.end())
        {
            ASSERT_EQ(reports.Reports().size(), 1u) << "label " << label;
            EXPECT_EQ(
                reports.Reports()[0].function,
                "qtn_AudioChannelLabel (anonymous namespace)::MakeQTAudioChannelLabel(Quorlan::AudioChannelLabel, "
                "int, bool, bool)");
            EXPECT_EQ(reports.Take(), ReportTexts{"0|Unknown channel label!\n"});
        }
        EXPECT_TRUE(reports.Reports().empty()) << "label " << label;
    }
}

TEST(SoundDescription, LayoutOfAnotherSizeIsReportedAndLeftOut)
{
    ReportCapture reports;
    EXPECT_EQ(Entry(3, 48000, 3, {100, 101}).size(), 72u);
    ASSERT_EQ(reports.Reports().size(), 1u);
    EXPECT_EQ(reports.Reports()[0].function,
              "void (anonymous namespace)::MakeAudioChannelLayoutAtom(Tolbin::utility::BinaryDataArray &, int, int, "
              "Quorlan::AudioChannelLayout &, bool)");
    EXPECT_EQ(reports.Take(), ReportTexts{"0|Audio layout size doesn't match the number of channels\n"});
    EXPECT_EQ(Entry(1, 48000, 4, {}).size(), 52u + 38);
    EXPECT_EQ(Entry(1, 48000, 4, {100, 101}).size(), 52u + 38);
}

TEST(SoundDescription, UnsupportedTypesAreReportedEachTimeAndWritten)
{
    for (const int type : {7, 8, 9, 0, 15, -1, 0x7FFFFFFF, -0x7FFFFFFF - 1})
    {
        ReportCapture reports;
        const auto reported = [&](const std::string& inFunction) {
            return std::count_if(reports.Reports().begin(), reports.Reports().end(), [&](const auto& inReport) {
                return inReport.function == inFunction && inReport.expression + "|" + inReport.message == "0|";
            });
        };
        const std::string code =
            "std::uint32_t (anonymous namespace)::AudioSampleTypeToQTAudioFourCC(Sambrel::AudioSampleType)";
        const std::string bits =
            "std::int16_t (anonymous namespace)::AudioSampleTypeToBitsPerSample(Sambrel::AudioSampleType)";

        EXPECT_SAME_BYTES(Entry(2, 48000, type, {100, 101}),
                          Bytes("#154 #0 00*6 00 01 00 01 00 00 20*4 00 02 FF FF FF FF 00 00 BB 80 00 00 #1 #0 #0 #0 "
                                "#38 'wave' #12 'frma' #0 #10 'enda' 00 00 #8 #0") +
                              Bytes(kStereo));
        EXPECT_EQ(reported(code), 2) << "for the data format and for 'frma'";
        EXPECT_GE(reported(bits), 2) << "for the sample size and for the byte counts";
        EXPECT_EQ(reports.Reports().size(), static_cast<std::size_t>(reported(code) + reported(bits)));
        reports.Take();

        EXPECT_BYTES(Slice(Entry(3, 48000, type, {100, 101, 102}), 56, 72), "FF FF FF FF #12 #0 #1");
        EXPECT_EQ(reported(bits), 2);
        EXPECT_EQ(reports.Reports().size(), 2u);
        reports.Take();

        EXPECT_EQ(Big32(Entry(8, 48000, type, {1, 1, 1, 1, 1, 1, 1, 1}), 64), 0xFFFFFFFFu) << "-1 bit x 8 channels / 8";
    }
}

} // namespace
