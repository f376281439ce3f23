#include "QTAtomHelpers.h"

#include "Support/Bytes.h"
#include "Support/ReportCapture.h"

#include <array>
#include <bit>
#include <cstdlib>
#include <ostream>
#include <stdexcept>
#include <string>

using Tolbin::utility::BinaryDataArray;

namespace
{

constexpr const char* kUnityMatrix = "00 01 00 00 00*12 00 01 00 00 00*12 40 00 00 00 ";

template <typename Record>
Record Filled(std::uint8_t inByte)
{
    std::array<std::uint8_t, sizeof(Record)> bytes;
    bytes.fill(inByte);
    return std::bit_cast<Record>(bytes);
}

std::tm Date(int inYear, int inMonth, int inDay, int inHour, int inMinute, int inSecond)
{
    std::tm date{};
    date.tm_year = inYear - 1900;
    date.tm_mon = inMonth - 1;
    date.tm_mday = inDay;
    date.tm_hour = inHour;
    date.tm_min = inMinute;
    date.tm_sec = inSecond;
    return date;
}

int Code(const char (&inText)[5])
{
    return static_cast<int>(QT::FourCC(inText));
}

QT::MediaType Media(std::uint32_t inValue)
{
    return static_cast<QT::MediaType>(inValue);
}

// ---- Containers -----------------------------------------------------------------------------------------------------

BinaryDataArray Container(std::vector<BinaryDataArray*> inChildren, BinaryDataArray inOutput = {})
{
    std::vector<qtn_GenericAtomHeader*> atoms;
    for (BinaryDataArray* child : inChildren)
    {
        atoms.push_back(child == nullptr ? nullptr : QT::AtomHeader(*child));
    }
    QT::ConcatenateAtomsToAtomContainer(Code("moov"), atoms, inOutput);
    return inOutput;
}

TEST(Container, ConcatenatesChildrenInOrderAndSkipsNullEntries)
{
    BinaryDataArray twenty = Bytes("#20 'aaaa' 11*12");
    BinaryDataArray twelve = Bytes("#12 'bbbb' 22*4");
    BinaryDataArray empty = Bytes("#8 'free'");
    EXPECT_BYTES(Container({&twenty, nullptr, &twelve}), "#40 'moov' #20 'aaaa' 11*12 #12 'bbbb' 22*4");
    EXPECT_BYTES(Container({&empty, &twelve}), "#28 'moov' #8 'free' #12 'bbbb' 22*4");
    EXPECT_BYTES(Container({}), "00 00 00 08 'moov'");
    EXPECT_BYTES(Container({nullptr, nullptr}), "00 00 00 08 'moov'");
}

TEST(Container, ReplacesWhatTheOutputHeld)
{
    BinaryDataArray child = Bytes("#12 'bbbb' 22*4");
    EXPECT_BYTES(Container({&child}, Bytes("EE*100")), "#20 'moov' #12 'bbbb' 22*4");
    EXPECT_BYTES(Container({&child}, Bytes("EE*3")), "#20 'moov' #12 'bbbb' 22*4");
}

TEST(Container, CopiesAsManyBytesAsTheChildSays)
{
    BinaryDataArray child = Bytes("#10 'bbbb' 22*8");
    EXPECT_BYTES(Container({&child}), "#18 'moov' #10 'bbbb' 22*2");
}

TEST(Container, RefusesTwoGiBytes)
{
    BinaryDataArray justTooLarge = Bytes("7F FF FF F8 'huge'");
    BinaryDataArray wraps = Bytes("60 00 00 00 'huge'");
    EXPECT_THROW(Container({&justTooLarge}), std::length_error);
    EXPECT_THROW(Container({&wraps, &wraps, &wraps}), std::length_error) << "the sum passes 32 bits";
}

// ---- Media types and handlers ---------------------------------------------------------------------------------------

TEST(MediaTypes, KnowsExactlyFive)
{
    ReportCapture reports;
    for (std::uint32_t type = 256; type <= 260; ++type)
    {
        EXPECT_TRUE(QT::IsKnownMediaType(Media(type))) << type;
    }
    EXPECT_EQ(reports.Take(), ReportTexts{});
    for (const std::uint32_t type : {0u, 255u, 261u, 0xFFFFFFFFu})
    {
        EXPECT_FALSE(QT::IsKnownMediaType(Media(type)));
        EXPECT_EQ(reports.Take(), ReportTexts{"false|Unknown MediaType: " + std::to_string(type) + "\n"});
    }
}

struct MediaRow
{
    std::uint32_t mediaType;
    const char* handler;
    const char* infoHeader;
    const char* trackFlagsAndVolume; //!< Bytes 8 to 11 and 44 to 45 of the track header.

    friend std::ostream& operator<<(std::ostream& ioStream, const MediaRow& inRow)
    {
        return ioStream << inRow.mediaType;
    }
};

const MediaRow kMediaRows[] = {
    {256, "00 00 00 3A 'hdlr' 00*4 'mhlr' 'vide' 'appl' 00 00 00 01 00 00 00 01 19 'Apple Video Media Handler'",
     "#20 'vmhd' 00 00 00 01 00 40 80 00 80 00 80 00", "00 00 00 0F 00 00"},
    {257, "00 00 00 3A 'hdlr' 00*4 'mhlr' 'soun' 'appl' 00 00 00 01 00 00 00 01 19 'Apple Sound Media Handler'",
     "#16 'smhd' 00*8", "00 00 00 03 01 00"},
    {258, "00 00 00 38 'hdlr' 00*4 'mhlr' 'tmcd' 'appl' 00 00 00 01 00 00 00 01 17 'Time Code Media Handler'",
     "#79 'gmhd' #24 'gmin' 00*4 00 40 80 00 80 00 80 00 00*4 #47 'tmcd' #39 'tcmi' 00*4 00 00 00 00 00 0C 00 00 "
     "00*6 00 00 FF FF FF FF 06 'System'",
     "00 00 00 03 00 00"},
    {259,
     "00 00 00 43 'hdlr' 00*4 'mhlr' 'clcp' 'appl' 00 00 00 01 00 00 00 01 22 'Apple Closed Caption Media Handler'",
     "#32 'gmhd' #24 'gmin' 00*4 00 40 80 00 80 00 80 00 00*4", "00 00 00 0F 00 00"},
    {260, "00 00 00 39 'hdlr' 00*4 'mhlr' 'text' 'app2' 80 00 00 01 00 01 00 29 18 'Apple Text Media Handler'",
     "#76 'gmhd' #24 'gmin' 00*4 00 40 80 00 80 00 80 00 00*4 #44 'text' "
     "00 01 00 00 00*12 00 01 00 00 00*12 40 00 00 00",
     "00 00 00 0F 00 00"}};

class MediaAtoms : public testing::TestWithParam<MediaRow>
{
};

TEST_P(MediaAtoms, MatchTheirTables)
{
    ReportCapture reports;
    BinaryDataArray atom = Bytes("EE*200");
    QT::MakeMediaHandlerAtom(atom, Media(GetParam().mediaType));
    EXPECT_BYTES(atom, GetParam().handler);

    atom = Bytes("EE*200");
    QT::MakeMediaSpecificMediaInfoHeaderAtom(atom, Media(GetParam().mediaType));
    EXPECT_BYTES(atom, GetParam().infoHeader);

    std::tm date = Date(1904, 1, 1, 0, 0, 0);
    auto header = Filled<qtn_TrackHeaderAtom>(0);
    QT::MakeTrackHeaderAtom(header, 600, 600, 1, Media(GetParam().mediaType), 0, 0, 0, 0, date);
    const BinaryDataArray bytes = BytesOf(header);
    EXPECT_BYTES(BinaryDataArray({bytes[8], bytes[9], bytes[10], bytes[11], bytes[44], bytes[45]}),
                 GetParam().trackFlagsAndVolume);
    EXPECT_EQ(reports.Take(), ReportTexts{});
}

INSTANTIATE_TEST_SUITE_P(AllTypes, MediaAtoms, testing::ValuesIn(kMediaRows),
                         [](const auto& inRow) { return std::to_string(inRow.param.mediaType); });

TEST(MediaAtomsOfUnknownType, AreReportedAndWellFormed)
{
    ReportCapture reports;
    BinaryDataArray atom = Bytes("EE*200");
    QT::MakeMediaHandlerAtom(atom, Media(300));
    EXPECT_BYTES(atom, "#33 'hdlr' 00*4 'mhlr' FF*16 00");
    EXPECT_EQ(reports.Take(), (ReportTexts{"false|Unknown MediaType: 300\n", "false|Unknown media type: 300\n",
                                           "false|Unknown media type: 300\n", "false|Unknown media type: 300\n",
                                           "false|Unknown media type: 300\n"}));

    QT::MakeMediaSpecificMediaInfoHeaderAtom(atom, Media(300));
    EXPECT_EQ(atom.size(), 33u) << "not touched";
    EXPECT_EQ(reports.Take(), ReportTexts{"false|Unimplemented Media Type: 300\n"});

    std::tm date = Date(1904, 1, 1, 0, 0, 0);
    auto header = Filled<qtn_TrackHeaderAtom>(0);
    QT::MakeTrackHeaderAtom(header, 600, 600, 1, Media(300), 0, 0, 0, 0, date);
    EXPECT_EQ(Big32(BytesOf(header), 8), 3u);
    EXPECT_EQ(BytesOf(header)[44], 0) << "volume";
}

// A site that was silenced stays silent for the rest of the process, hence the child process.
TEST(MediaAtomsOfUnknownTypeDeathTest, EachReportSiteIsSilencedByItself)
{
    const auto silenceThird = [] {
        int reported = 0;
        const auto handler = [&](const Tolbin::debug::Report&, bool& ioDisabled) {
            ioDisabled = ++reported == 3;
            return false;
        };
        Tolbin::debug::SetReportHandler(handler);
        BinaryDataArray atom;
        QT::MakeMediaHandlerAtom(atom, Media(300));
        const int first = std::exchange(reported, 10);
        QT::MakeMediaHandlerAtom(atom, Media(300));
        std::exit(first == 5 && reported == 14 && atom == Bytes("#33 'hdlr' 00*4 'mhlr' FF*16 00") ? 0 : 1);
    };
    EXPECT_EXIT(silenceThird(), testing::ExitedWithCode(0), "");
}

TEST(DataHandler, FillsBothRecordsCompletely)
{
    auto handler = Filled<qtn_CanonicalDataHandlerAtom>(0xEE);
    auto dataInfo = Filled<qtn_OneDataRef>(0xEE);
    QT::MakeSelfReferencingDataHandlerAtom(handler, dataInfo);
    EXPECT_BYTES(BytesOf(handler), "#57 'hdlr' 00*4 'dhlr' 'alis' 'appl' 00 00 00 01 00 01 00 2E 18 "
                                   "'Apple Alias Data Handler'");
    EXPECT_BYTES(BytesOf(dataInfo), "#36 'dinf' #28 'dref' 00*4 #1 #12 'alis' 00 00 00 01");
}

// ---- Headers --------------------------------------------------------------------------------------------------------

TEST(Headers, MovieHeader)
{
    std::tm date = Date(2000, 1, 1, 0, 0, 0); // 3 029 529 600 seconds
    auto atom = Filled<qtn_MovieHeaderAtom>(0);
    QT::MakeMovieHeader(atom, 600, 1234, 3, date);
    EXPECT_SAME_BYTES(BytesOf(atom),
                      Bytes("#108 'mvhd' 00*4 #3029529600 #3029529600 #600 #1234 00 01 00 00 01 00 00*10") +
                          Bytes(kUnityMatrix) + Bytes("00*24 #4"));
    QT::MakeMovieHeader(atom, 600, 0, 0, date);
    EXPECT_EQ(Big32(BytesOf(atom), 104), 1u) << "next track ID of a movie without tracks";
}

TEST(Headers, TrackHeader)
{
    std::tm date = Date(1904, 1, 1, 0, 0, 9);
    auto atom = Filled<qtn_TrackHeaderAtom>(0);
    QT::MakeTrackHeaderAtom(atom, 600, 30000, 7, QT::kQTMediaTypeSound, 1920, 1080, 1499, 1499, date);
    EXPECT_SAME_BYTES(BytesOf(atom), Bytes("#92 'tkhd' 00 00 00 03 #9 #9 #7 00*4 #59 00*8 00 00 00 00 01 00 00 00") +
                                         Bytes(kUnityMatrix) + Bytes("07 80 00 00 04 38 00 00"));

    QT::MakeTrackHeaderAtom(atom, 600, 600, 7, QT::kQTMediaTypeVideo, 40000, -1, 1000, -5, date);
    EXPECT_EQ(Big32(BytesOf(atom), 28), 995u) << "a negative trim-in counts in the header";
    EXPECT_EQ(Big32(BytesOf(atom), 84), 0x9C400000u) << "a width beyond 15 bits keeps its low bits";
    EXPECT_EQ(Big32(BytesOf(atom), 88), 0xFFFF0000u);
}

TEST(Headers, TrackDurationWrapsBeforeItIsConverted)
{
    ReportCapture reports;
    std::tm date = Date(1904, 1, 1, 0, 0, 0);
    auto atom = Filled<qtn_TrackHeaderAtom>(0);
    QT::MakeTrackHeaderAtom(atom, 600, 600, 1, QT::kQTMediaTypeVideo, 0, 0, 0x7FFFFFFF, 1, date);
    EXPECT_EQ(Big32(BytesOf(atom), 28), 0x80000000u);
    EXPECT_EQ(reports.Take().size(), 1u);
}

TEST(Headers, MediaHeader)
{
    std::tm date = Date(2040, 2, 6, 6, 28, 17); // one second past 2^32
    auto atom = Filled<qtn_MediaHeaderAtom>(0);
    QT::MakeMediaHeaderAtom(atom, 30000, 123456, date);
    EXPECT_BYTES(BytesOf(atom), "#32 'mdhd' 00*4 #1 #1 #30000 #123456 00 00 00 00");
}

TEST(Headers, Edits)
{
    struct Row
    {
        int trimIn;
        const char* edits;
    };
    const Row rows[] = {
        {0, "#36 'edts' #28 'elst' 00*4 #1 #29 #0 00 01 00 00"},
        {-5, "#36 'edts' #28 'elst' 00*4 #1 #29 #0 00 01 00 00"},
        {1, "#48 'edts' #40 'elst' 00*4 #2 #0 FF FF FF FF 00 01 00 00 #29 #0 00 01 00 00"},
        {1499, "#48 'edts' #40 'elst' 00*4 #2 #29 FF FF FF FF 00 01 00 00 #29 #0 00 01 00 00"},
    };
    for (const Row& row : rows)
    {
        BinaryDataArray atom = Bytes("EE*100");
        QT::MakeEditsAtom(atom, 600, 30000, 1499, row.trimIn);
        EXPECT_BYTES(atom, row.edits) << "trim-in " << row.trimIn;
    }

    ReportCapture reports;
    BinaryDataArray atom;
    QT::MakeEditsAtom(atom, 600, 0, 1499, 0);
    EXPECT_BYTES(atom, "#36 'edts' #28 'elst' 00*4 #1 #0 #0 00 01 00 00");
    EXPECT_EQ(reports.Take(), ReportTexts{"inSrcTimeScale != 0|"});
}

// ---- Track aperture -------------------------------------------------------------------------------------------------

struct ApertureRow
{
    const char* name;
    int width, height;
    std::uint32_t aspectN, aspectD;
    std::uint32_t cleanWidthN, cleanWidthD, cleanHeightN, cleanHeightD;
    const char* clef; //!< Width and height of each; empty: no atom at all.
    const char* prof;
    const char* enof;

    friend std::ostream& operator<<(std::ostream& ioStream, const ApertureRow& inRow) { return ioStream << inRow.name; }
};

const ApertureRow kApertureRows[] = {
    {"Anamorphic", 1440, 1080, 4, 3, 1440, 1, 1080, 1, "07 80 00 00 04 38 00 00", "07 80 00 00 04 38 00 00",
     "05 A0 00 00 04 38 00 00"},
    {"RoundsToNearest", 720, 480, 10, 11, 704, 1, 480, 1, "02 80 00 00 01 E0 00 00", "02 8E 8B A3 01 E0 00 00",
     "02 D0 00 00 01 E0 00 00"},
    {"HeightIsWholePixels", 1440, 1080, 4, 3, 2880, 2, 1079, 2, "07 80 00 00 02 1B 00 00", "07 80 00 00 04 38 00 00",
     "05 A0 00 00 04 38 00 00"},
    {"Saturates", 720, 480, 4000000000, 1, 4000000000, 1, 480, 1, "7F FF FF FF 01 E0 00 00", "7F FF FF FF 01 E0 00 00",
     "02 D0 00 00 01 E0 00 00"},
    {"SquarePixels", 1920, 1080, 1, 1, 1920, 1, 1080, 1, "", "", ""},
    {"SquarePixelsUnreduced", 1920, 1080, 7, 7, 1920, 1, 1080, 1, "", "", ""},
    {"AspectNumerator0", 1920, 1080, 0, 1, 1920, 1, 1080, 1, "", "", ""},
    {"AspectDenominator0", 1920, 1080, 1, 0, 1920, 1, 1080, 1, "", "", ""},
    {"WidthDenominator0", 1440, 1080, 4, 3, 1440, 0, 1080, 1, "", "", ""},
    {"HeightDenominator0", 1440, 1080, 4, 3, 1440, 1, 1080, 0, "", "", ""},
};

boost::shared_ptr<QT::QTImageDescription> Image(const ApertureRow& inRow)
{
    Tolbin::UTF16String name;
    return QT::CreateImageDescription(Code("apcn"), name, inRow.width, inRow.height, 24, Quorlan::kFieldTypeProgressive,
                                      {inRow.aspectN, inRow.aspectD});
}

class TrackAperture : public testing::TestWithParam<ApertureRow>
{
};

TEST_P(TrackAperture, MatchesItsTable)
{
    const ApertureRow& row = GetParam();
    const auto image = Image(row);
    image->AddCleanAperture(row.cleanWidthN, row.cleanWidthD, row.cleanHeightN, row.cleanHeightD, 1, 2, -3, 4);
    BinaryDataArray atom;
    QT::MakeOptionalTrackApertureAtom(image, QT::kQTMediaTypeVideo, atom);
    BinaryDataArray expected;
    if (*row.clef != '\0')
    {
        expected = Bytes("#68 'tapt' #20 'clef' 00*4") + Bytes(row.clef) + Bytes("#20 'prof' 00*4") + Bytes(row.prof) +
                   Bytes("#20 'enof' 00*4") + Bytes(row.enof);
    }
    EXPECT_SAME_BYTES(atom, expected);
}

INSTANTIATE_TEST_SUITE_P(Rows, TrackAperture, testing::ValuesIn(kApertureRows),
                         [](const auto& inRow) { return inRow.param.name; });

TEST(TrackApertureOf, EverythingButVideoWithACleanApertureIsNone)
{
    ReportCapture reports;
    const auto image = Image(kApertureRows[0]);
    BinaryDataArray atom;
    QT::MakeOptionalTrackApertureAtom(image, QT::kQTMediaTypeVideo, atom);
    EXPECT_TRUE(atom.empty()) << "no clean aperture";
    image->AddCleanAperture(1440, 1, 1080, 1, 0, 1, 0, 1);
    QT::MakeOptionalTrackApertureAtom(image, QT::kQTMediaTypeText, atom);
    EXPECT_TRUE(atom.empty()) << "not a video track";
    QT::MakeOptionalTrackApertureAtom(QT::CreateTextDescription(), QT::kQTMediaTypeVideo, atom);
    EXPECT_TRUE(atom.empty()) << "not an image description";
    QT::MakeOptionalTrackApertureAtom({}, QT::kQTMediaTypeVideo, atom);
    EXPECT_TRUE(atom.empty()) << "no description";
    EXPECT_EQ(reports.Take(), ReportTexts{});
}

// ---- References and user data ---------------------------------------------------------------------------------------

TEST(TrackReferences, AreNumberedByTheFilesTracks)
{
    std::map<QT::TrackReferenceType, std::vector<QT::TrackID>> references{{QT::kQTTrackReferenceChapter, {258, 257}},
                                                                          {QT::kQTTrackReferenceTimecode, {259}}};
    std::map<QT::TrackID, int> numbers{{257, 2}, {258, 3}, {259, 4}};
    BinaryDataArray atom = Bytes("EE*100");
    QT::MakeTrackReferencesAtom(atom, references, numbers);
    EXPECT_BYTES(atom, "#36 'tref' 00 00 00 0C 'tmcd' 00 00 00 04 00 00 00 10 'chap' 00 00 00 03 00 00 00 02");

    references = {{QT::kQTTrackReferenceChapter, {257, 999, 257}}};
    QT::MakeTrackReferencesAtom(atom, references, numbers);
    EXPECT_BYTES(atom, "#28 'tref' #20 'chap' #2 #0 #2");
}

TEST(TrackReferences, OfAnUnknownKindAreReportedAndWritten)
{
    ReportCapture reports;
    std::map<QT::TrackReferenceType, std::vector<QT::TrackID>> references{
        {static_cast<QT::TrackReferenceType>(258), {257}}, {QT::kQTTrackReferenceTimecode, {257}}};
    std::map<QT::TrackID, int> numbers{{257, 2}};
    BinaryDataArray atom;
    QT::MakeTrackReferencesAtom(atom, references, numbers);
    EXPECT_BYTES(atom, "#32 'tref' #12 'tmcd' #2 #12 FF*4 #2");
    EXPECT_EQ(reports.Take(), ReportTexts{"0|"});
}

TEST(UserData, IsOrderedBySignedType)
{
    std::map<int, BinaryDataArray> items{{Code("name"), Bytes("'Movie'")},
                                         {Code("\xA9"
                                               "cpy"),
                                          Bytes("00 FF")},
                                         {Code("none"), {}}};
    BinaryDataArray atom = Bytes("EE*100");
    QT::MakeUserDataAtom(atom, items);
    EXPECT_BYTES(atom, "#39 'udta' #10 A9 'cpy' 00 FF #13 'name' 'Movie' #8 'none'");

    items.clear();
    QT::MakeUserDataAtom(atom, items);
    EXPECT_BYTES(atom, "#8 'udta'");
}

} // namespace
