#include "PrivateReelmill.h"
#include "Support/AllocationLimit.h"
#include "Support/MovieTest.h"
#include "Support/RecordingFileSystem.h"

#include <Reelmill/Recovery.h>
#include <Tolbin/FileSupport.h>

#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <ctime>
#include <fstream>
#include <functional>
#include <limits>
#include <new>
#include <optional>
#include <ostream>
#include <stdexcept>
#include <tuple>

using QT::kQTErrBadArgument;
using QT::kQTErrBadState;
using QT::kQTErrNullUserData;
using QT::kQTErrTooLarge;
using QT::kQTErrUnknownMediaType;
using QT::kQTErrUnknownTrackID;
using Tolbin::Result;
using Tolbin::utility::BinaryDataArray;

namespace
{

char sByte = 'x';

//! A host's own description.
class Description final : public QT::QTSampleDescription
{
public:
    explicit Description(std::function<void(BinaryDataArray&)> inGet) : mGet(std::move(inGet)) {}
    void GetAsBinary(BinaryDataArray& outEntry) override { mGet(outEntry); }

private:
    std::function<void(BinaryDataArray&)> mGet;
};

boost::shared_ptr<Description> Describe(std::function<void(BinaryDataArray&)> inGet)
{
    return boost::shared_ptr<Description>(new Description(std::move(inGet)));
}

ReportTexts UnknownTrack(const std::string& inID)
{
    return {"false|Unknown TrackID: " + inID + "\n"};
}

// ---- Refusals -------------------------------------------------------------------------------------------------------

struct Operation
{
    const char* name;
    std::function<Result(QT::Reelmill&, QT::TrackID)> call;
    bool takesTrack = false;

    friend std::ostream& operator<<(std::ostream& ioStream, const Operation& inRow) { return ioStream << inRow.name; }
};

// With arguments that would be refused as well: the state comes first, then the track.
const Operation kOperations[] = {
    {"NewMovieTrack",
     [](QT::Reelmill& inWriter, QT::TrackID) {
         QT::TrackID track = 0;
         return inWriter.NewMovieTrack(static_cast<QT::MediaType>(1), 600, 0, 0, {}, track);
     }},
    {"AddMediaSample",
     [](QT::Reelmill& inWriter, QT::TrackID inTrack) {
         return inWriter.AddMediaSample(inTrack, nullptr, -1, -1, 0, 0, false);
     },
     true},
    {"EndMediaChunk", [](QT::Reelmill& inWriter, QT::TrackID inTrack) { return inWriter.EndMediaChunk(inTrack); },
     true},
    {"AddTextMediaSample",
     [](QT::Reelmill& inWriter, QT::TrackID inTrack) {
         return inWriter.AddTextMediaSample(inTrack, Tolbin::UTF16String(40000, u'x'), 1);
     },
     true},
    {"AddTrackUserData",
     [](QT::Reelmill& inWriter, QT::TrackID inTrack) { return inWriter.AddTrackUserData(inTrack, 1, nullptr, -1); },
     true},
    {"AddUserData", [](QT::Reelmill& inWriter, QT::TrackID) { return inWriter.AddUserData(1, nullptr, -1); }},
    {"AddTrackReference",
     [](QT::Reelmill& inWriter, QT::TrackID inTrack) {
         return inWriter.AddTrackReference(inTrack, 998, QT::kQTTrackReferenceChapter);
     },
     true},
    {"SetTrackTrimIn", [](QT::Reelmill& inWriter, QT::TrackID inTrack) { return inWriter.SetTrackTrimIn(inTrack, 1); },
     true},
    {"Flush", [](QT::Reelmill& inWriter, QT::TrackID) { return inWriter.Flush(); }},
    {"Close", [](QT::Reelmill& inWriter, QT::TrackID) { return inWriter.Close(); }},
    {"CloseMovieWithMedia", [](QT::Reelmill& inWriter, QT::TrackID) { return QT::CloseMovieWithMedia(inWriter); }},
};

//! Both writers.
using MakeWriter = std::function<boost::shared_ptr<QT::Reelmill>()>;
const MakeWriter kWriters[] = {[] { return QT::CreateReelmill(); }, [] { return QT::CreateJournaledReelmill(); }};

class WriterState : public MovieTest, public testing::WithParamInterface<std::tuple<Operation, MakeWriter>>
{
};

TEST_P(WriterState, IsCheckedFirst)
{
    const auto& [operation, makeWriter] = GetParam();
    writer = makeWriter();
    ReportCapture reports;
    EXPECT_EQ(operation.call(*writer, 999), kQTErrBadState) << "before Create";
    EXPECT_EQ(writer->GetMovieDuration(), 0);

    const auto failed = makeWriter();
    EXPECT_LT(failed->Create(directory.Path16("no/such/folder"), 600), 0);
    EXPECT_EQ(operation.call(*failed, 999), kQTErrBadState) << "after a failed Create";
    EXPECT_EQ(failed->Create(path, 600), kQTErrBadState) << "and Create is not tried again";
    EXPECT_EQ(failed->GetMovieDuration(), 0);

    ASSERT_EQ(Create(), 0);
    int asked = 0;
    QT::TrackID track = 0;
    const auto description = Describe([&, &call = operation.call](BinaryDataArray& outEntry) {
        EXPECT_EQ(call(*writer, track), kQTErrBadState) << "amid a call";
        EXPECT_EQ(Add(track, "media"), kQTErrBadState) << "also where nothing else is wrong";
        EXPECT_EQ(writer->GetMovieDuration(), 0);
        QT::CreateTextDescription()->GetAsBinary(outEntry);
        ++asked;
    });
    const QT::TrackID text = NewTrack(QT::kQTMediaTypeText);
    track = NewTrack(QT::kQTMediaTypeVideo, 600, description);
    ASSERT_EQ(Add(track, "media", 1, 600), 0);
    ASSERT_EQ(writer->AddTextMediaSample(text, u"One", 400), 0);
    ASSERT_EQ(writer->AddTextMediaSample(text, u"Two", 600), 0);
    EXPECT_EQ(writer->GetMovieDuration(), 1000) << "the call goes on";
    if (operation.takesTrack)
    {
        EXPECT_EQ(operation.call(*writer, 999), kQTErrUnknownTrackID);
        EXPECT_EQ(reports.Take(), UnknownTrack("999"));
    }
    ASSERT_EQ(writer->Close(), 0);
    EXPECT_GT(asked, 0);
    const BinaryDataArray movie = Movie();
    EXPECT_BYTES(FindAtom(movie, "moov/trak/mdia/minf/stbl/stts"), "#32 'stts' #0 #2 #1 #400 #1 #600");
    EXPECT_EQ(operation.call(*writer, track), kQTErrBadState) << "after Close";
    EXPECT_EQ(writer->Create(path, 600), kQTErrBadState);
    EXPECT_EQ(writer->GetMovieDuration(), 0);
    EXPECT_EQ(reports.Take(), ReportTexts{});
    writer.reset();
    EXPECT_SAME_BYTES(Movie(), movie);
}

INSTANTIATE_TEST_SUITE_P(EveryOperation, WriterState,
                         testing::Combine(testing::ValuesIn(kOperations), testing::ValuesIn(kWriters)));

using WriterTest = MovieTest;

TEST_F(WriterTest, RefusalsChangeNothing)
{
    BinaryDataArray clean;
    for (const bool refused : {false, true})
    {
        writer = QT::CreateReelmill();
        ASSERT_EQ(Create(), 0);
        const QT::TrackID track = NewTrack();
        ASSERT_EQ(Add(track, "media"), 0);
        ASSERT_EQ(writer->AddUserData(Code("name"), &sByte, 1), 0);
        ASSERT_EQ(writer->AddTrackUserData(track, Code("name"), &sByte, 1), 0);
        if (refused)
        {
            ReportCapture reports;
            EXPECT_EQ(writer->Create(directory.Path16("other.mov"), 1), kQTErrBadState);
            EXPECT_FALSE(std::filesystem::exists(directory.Path("other.mov")));
            QT::TrackID untouched = 77;
            const auto description = QT::CreateTextDescription();
            EXPECT_EQ(writer->NewMovieTrack(static_cast<QT::MediaType>(261), 600, 0, 0, {}, untouched),
                      kQTErrUnknownMediaType);
            EXPECT_EQ(reports.Take(), ReportTexts{"false|Unknown MediaType: 261\n"});
            EXPECT_EQ(writer->NewMovieTrack(QT::kQTMediaTypeText, 600, 0, 0, {}, untouched), kQTErrBadArgument);
            EXPECT_EQ(untouched, 77u);
            EXPECT_EQ(writer->AddMediaSample(track, &sByte, -1, 1, 1, 0, false), kQTErrBadArgument);
            EXPECT_EQ(writer->AddMediaSample(track, &sByte, 1, -1, 1, 0, false), kQTErrBadArgument);
            EXPECT_EQ(writer->AddMediaSample(track, nullptr, 1, 1, 1, 0, false), kQTErrBadArgument);
            EXPECT_EQ(writer->AddTextMediaSample(track, Tolbin::UTF16String(32767, u'x'), 1), kQTErrBadArgument);
            for (const int size : {-1, 0, 1})
            {
                EXPECT_EQ(writer->AddUserData(Code("name"), nullptr, size), kQTErrNullUserData);
                EXPECT_EQ(writer->AddTrackUserData(track, Code("name"), nullptr, size), kQTErrNullUserData);
            }
            EXPECT_EQ(writer->AddUserData(Code("name"), &sByte, -1), kQTErrBadArgument);
            EXPECT_EQ(writer->AddTrackUserData(track, Code("name"), &sByte, -1), kQTErrBadArgument);
            EXPECT_EQ(reports.Take(), ReportTexts{});

            for (const QT::TrackID unknown : {QT::TrackID{255}, QT::TrackID{257}, ~QT::TrackID{0}})
            {
                EXPECT_EQ(Add(unknown, "lost"), kQTErrUnknownTrackID);
                EXPECT_EQ(reports.Take(), UnknownTrack(std::to_string(unknown)));
            }
            EXPECT_EQ(writer->AddTrackReference(track, 999, QT::kQTTrackReferenceChapter), kQTErrUnknownTrackID);
            EXPECT_EQ(reports.Take(), UnknownTrack("999"));
            EXPECT_EQ(writer->AddTrackReference(998, track, QT::kQTTrackReferenceChapter), kQTErrUnknownTrackID);
            EXPECT_EQ(reports.Take(), UnknownTrack("998"));
        }
        EXPECT_EQ(NewTrack(), 257u);
        ASSERT_EQ(Add(track, "more media"), 0);
        ASSERT_EQ(writer->Close(), 0);
        if (!refused)
        {
            clean = TimelessMovie();
        }
    }
    EXPECT_SAME_BYTES(TimelessMovie(), clean);
}

TEST_F(WriterTest, UserDataBeyondTwoGiBytesIsRefusedUnread)
{
    constexpr std::size_t kSize = 0x7FFFFFFF;
    void* unreadable = mmap(nullptr, kSize, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    ASSERT_NE(unreadable, MAP_FAILED);
    for (const MakeWriter& makeWriter : kWriters)
    {
        writer = makeWriter();
        ASSERT_EQ(Create(), 0);
        const QT::TrackID track = NewTrack();
        EXPECT_EQ(writer->AddUserData(Code("name"), unreadable, kSize), kQTErrTooLarge);
        EXPECT_EQ(writer->AddTrackUserData(track, Code("name"), unreadable, kSize), kQTErrTooLarge);
        ASSERT_EQ(Add(track, "media"), 0);
        ASSERT_EQ(writer->Close(), 0);
        EXPECT_EQ(AtomTree(MovieAtom("moov")).find("udta"), std::string::npos);
    }
    EXPECT_EQ(munmap(unreadable, kSize), 0);
}

// ---- Tracks and samples ---------------------------------------------------------------------------------------------

TEST_F(WriterTest, SamplesLieBackToBackInCallOrder)
{
    ASSERT_EQ(Create(), 0);
    const QT::TrackID first = NewTrack();
    const QT::TrackID second = NewTrack();
    EXPECT_EQ(first, 256u);
    EXPECT_EQ(second, 257u);
    EXPECT_EQ(NewTrack(), 258u);
    EXPECT_EQ(Add(first, std::string(100, 'a')), 0);
    EXPECT_EQ(Add(second, std::string(50, 'b'), 25, 2), 0);
    EXPECT_EQ(writer->AddMediaSample(first, nullptr, 0, 1, 1, 0, false), 0) << "a sample without bytes";
    EXPECT_EQ(writer->AddMediaSample(first, &sByte, 1, 0, -1, -9, true), 0) << "a record without samples";
    EXPECT_EQ(writer->Flush(), 0);
    ASSERT_EQ(writer->Close(), 0);
    const BinaryDataArray movie = Movie();
    EXPECT_EQ(movie.size(), static_cast<std::size_t>(kMediaOffset) + 151);
    EXPECT_BYTES(BinaryDataArray(movie.begin() + kMediaOffset, movie.end()), "61*100 62*50 78");
    EXPECT_BYTES(MovieAtom("moov/trak/mdia/minf/stbl/stco"), "#28 'stco' #0 #3 #1048576 #1048726 #1048726");
    EXPECT_BYTES(MovieAtom("moov/trak[1]/mdia/minf/stbl/stco"), "#20 'stco' #0 #1 #1048676");
    EXPECT_BYTES(MovieAtom("moov/trak[1]/mdia/minf/stbl/stts"), "#24 'stts' #0 #1 #25 #2");
}

TEST_F(WriterTest, ChunksEndAtMarksAndWhereOtherTracksLie)
{
    ASSERT_EQ(Create(), 0);
    const QT::TrackID marked = NewTrack();
    const QT::TrackID plain = NewTrack();
    EXPECT_EQ(writer->EndMediaChunk(marked), 0) << "no samples yet: no chunks either";
    EXPECT_EQ(writer->EndMediaChunk(plain), 0);
    for (int i = 0; i < 3; ++i)
    {
        ASSERT_EQ(Add(marked, "1234"), 0);
    }
    EXPECT_EQ(writer->EndMediaChunk(marked), 0);
    ASSERT_EQ(Add(marked, "5678"), 0);
    ASSERT_EQ(Add(plain, "ab"), 0);
    ASSERT_EQ(Add(plain, "cd"), 0);
    ASSERT_EQ(Add(marked, "9012"), 0);
    ASSERT_EQ(writer->Close(), 0);
    EXPECT_BYTES(MovieAtom("moov/trak/mdia/minf/stbl/stco"), "#28 'stco' #0 #3 #1048576 #1048588 #1048596");
    EXPECT_BYTES(MovieAtom("moov/trak/mdia/minf/stbl/stsc"), "#40 'stsc' #0 #2 #1 #3 #1 #2 #1 #1");
    EXPECT_BYTES(MovieAtom("moov/trak[1]/mdia/minf/stbl/stco"), "#24 'stco' #0 #2 #1048592 #1048594");
}

TEST_F(WriterTest, TextSamples)
{
    ASSERT_EQ(Create(), 0);
    const QT::TrackID text = NewTrack(QT::kQTMediaTypeText);
    EXPECT_EQ(writer->AddTextMediaSample(text, u"Hi", 600), 0);
    EXPECT_EQ(writer->AddTextMediaSample(text, u"", 300), 0);
    EXPECT_EQ(writer->AddTextMediaSample(text, Tolbin::UTF16String(1, char16_t{0xD83C}), 1), 0);
    EXPECT_EQ(writer->AddTextMediaSample(text, Tolbin::UTF16String(32766, u'\u20AC'), 2), 0) << "the longest text";
    ASSERT_EQ(writer->Close(), 0);
    const BinaryDataArray movie = Movie();
    EXPECT_BYTES(BinaryDataArray(movie.begin() + kMediaOffset, movie.begin() + kMediaOffset + 58),
                 "00 06 FF FE 48 00 69 00 #12 'encd' 00 00 01 00 00 02 FF FE #12 'encd' 00 00 01 00 "
                 "00 04 FF FE 3C D8 #12 'encd' 00 00 01 00 FF FE FF FE");
    EXPECT_BYTES(BinaryDataArray(movie.end() - 16, movie.end()), "AC 20 AC 20 #12 'encd' 00 00 01 00");
    EXPECT_BYTES(MovieAtom("moov/trak/mdia/minf/stbl/stsz"), "#36 'stsz' #0 #0 #4 #20 #16 #18 #65548");
    EXPECT_BYTES(MovieAtom("moov/trak/mdia/minf/stbl/stts"), "#48 'stts' #0 #4 #1 #600 #1 #300 #1 #1 #1 #2");
}

TEST_F(WriterTest, MovieIsAsLongAsItsLongestTrack)
{
    ASSERT_EQ(Create(600), 0);
    EXPECT_EQ(writer->GetMovieDuration(), 0);
    const QT::TrackID video = NewTrack(QT::kQTMediaTypeVideo, 600);
    const QT::TrackID sound = NewTrack(QT::kQTMediaTypeSound, 48000);
    ASSERT_EQ(Add(video, "v", 2, 600), 0);
    ASSERT_EQ(Add(sound, "ss", 48000, 2), 0);
    EXPECT_EQ(writer->GetMovieDuration(), 1200);
    ASSERT_EQ(Add(sound, "s", 80, 1), 0);
    EXPECT_EQ(writer->GetMovieDuration(), 1201);
    EXPECT_EQ(writer->SetTrackTrimIn(video, 100000), 0);
    EXPECT_EQ(writer->SetTrackTrimIn(video, 300), 0) << "the last one counts";
    EXPECT_EQ(writer->GetMovieDuration(), 1201);
    ASSERT_EQ(writer->Close(), 0);
    EXPECT_EQ(Big32(MovieAtom("moov/mvhd"), 24), 1201u);
    EXPECT_EQ(Big32(MovieAtom("moov/trak/tkhd"), 28), 1500u);
    EXPECT_BYTES(MovieAtom("moov/trak/edts"),
                 "#48 'edts' #40 'elst' #0 #2 #300 FF FF FF FF 00 01 00 00 #1200 #0 00 01 00 00");
    EXPECT_EQ(Big32(MovieAtom("moov/trak[1]/mdia/mdhd"), 20), 48000u);
    EXPECT_EQ(Big32(MovieAtom("moov/trak[1]/mdia/mdhd"), 24), 96080u);
}

// The samples are in the movie all the same: only the host's handler ends the call.
TEST_F(WriterTest, ReportHandlerThatThrowsLosesNoSample)
{
    for (const MakeWriter& makeWriter : kWriters)
    {
        writer = makeWriter();
        ASSERT_EQ(Create(), 0);
        const QT::TrackID track = NewTrack();
        const auto previous = Tolbin::debug::SetReportHandler([](const Tolbin::debug::Report&, bool&) -> bool {
            throw 7; // NOLINT: as a host may.
        });
        for (const char* data : {"first", "second"})
        {
            EXPECT_THROW(Add(track, data, 1, -1), int);
        }
        Tolbin::debug::SetReportHandler(previous);
        EXPECT_EQ(Add(track, "third", 1, 602), 0);
        ASSERT_EQ(writer->Close(), 0);
        EXPECT_BYTES(MovieAtom("moov/trak/mdia/minf/stbl/stsz"), "#32 'stsz' #0 #0 #3 #5 #6 #5");
        EXPECT_BYTES(MovieAtom("moov/trak/mdia/minf/stbl/stco"), "#28 'stco' #0 #3 #1048576 #1048581 #1048587");
        EXPECT_EQ(Big32(MovieAtom("moov/trak/mdia/mdhd"), 24), 600u);
        EXPECT_EQ(Big32(Movie(), kMediaOffset - 8), 24u);
    }
}

TEST_F(WriterTest, DurationBeyond31BitsIsReportedAndKeptTruncated)
{
    const ReportTexts overflow{
        "(newDuration & 0xFFFFFFFF80000000LL) == 0|Signed 32-bit overflow in PrivateReelmill::AddMediaSample.  Do not "
        "ignore this problem.  The file is being written in an invalid state.\n"};
    ReportCapture reports;
    ASSERT_EQ(Create(600), 0);
    const QT::TrackID track = NewTrack();
    EXPECT_EQ(Add(track, "a", 1, 0x7FFFFFFF), 0);
    EXPECT_EQ(reports.Take(), ReportTexts{});
    EXPECT_EQ(Add(track, "b", 1, 1), 0);
    EXPECT_EQ(reports.Take(), overflow);
    EXPECT_EQ(writer->GetMovieDuration(), 0) << "the track's is negative";
    EXPECT_EQ(reports.Take().size(), 1u);
    const QT::TrackID product = NewTrack();
    EXPECT_EQ(Add(product, "c", 0x10000, 0x10001), 0) << "the product needs 64 bits";
    EXPECT_EQ(reports.Take(), overflow);
    const QT::TrackID negative = NewTrack();
    EXPECT_EQ(Add(negative, "d", 1, -1), 0);
    EXPECT_EQ(reports.Take(), overflow);
    ASSERT_EQ(writer->Close(), 0);
    EXPECT_EQ(Big32(MovieAtom("moov/trak/mdia/mdhd"), 24), 0x80000000u);
    EXPECT_EQ(Big32(MovieAtom("moov/trak[1]/mdia/mdhd"), 24), 0x10000u);
    EXPECT_EQ(Big32(MovieAtom("moov/trak[2]/mdia/mdhd"), 24), 0xFFFFFFFFu);
}

// ---- The movie atom -------------------------------------------------------------------------------------------------

TEST_F(WriterTest, MovieAtomOfEveryKindOfTrack)
{
    ReportCapture reports;
    ASSERT_EQ(Create(600), 0);
    Tolbin::UTF16String name = u"Pixels";
    const auto image = QT::CreateImageDescription(Code("apcn"), name, 1440, 1080, 24, Quorlan::kFieldTypeProgressive,
                                                  Quorlan::PixelAspectRatio(4, 3));
    image->AddCleanAperture(1440, 1, 1080, 1, 0, 1, 0, 1);
    const auto sound =
        QT::CreateSoundDescription(0, 1, 48000, Sambrel::kAudioSampleTypeInt16LE,
                                   Quorlan::AudioChannelLayout{Quorlan::kAudioChannelLabelCenter}, false);
    const QT::TrackID video = NewTrack(QT::kQTMediaTypeVideo, 600, image);
    const QT::TrackID tracks[] = {
        video, NewTrack(QT::kQTMediaTypeSound, 600, sound),
        NewTrack(QT::kQTMediaTypeTimecode, 600, QT::CreateTimecodeDescription(600, 20, 30, false)),
        NewTrack(QT::kQTMediaTypeClosedCaption, 600, QT::CreateClosedCaptionDescription()),
        NewTrack(QT::kQTMediaTypeText)};
    for (const QT::TrackID track : tracks)
    {
        ASSERT_EQ(Add(track, "xx"), 0);
    }
    image->SetCodecName(u"later");
    EXPECT_EQ(writer->AddTrackReference(video, tracks[4], QT::kQTTrackReferenceChapter), 0);
    EXPECT_EQ(writer->AddTrackReference(video, tracks[2], QT::kQTTrackReferenceTimecode), 0);
    EXPECT_EQ(writer->AddTrackReference(video, tracks[2], QT::kQTTrackReferenceTimecode), 0);
    EXPECT_EQ(writer->AddTrackReference(video, video, QT::kQTTrackReferenceChapter), 0);
    EXPECT_EQ(writer->AddTrackUserData(video, Code("name"), &sByte, 1), 0);
    EXPECT_EQ(writer->AddUserData(Code("name"), &sByte, 1), 0);
    EXPECT_EQ(writer->AddUserData(Code("\xA9"
                                       "cpy"),
                                  &sByte, 0),
              0);
    EXPECT_EQ(writer->AddUserData(Code("name"), name.data(), 4), 0) << "replaces the first";
    ASSERT_EQ(writer->Close(), 0);
    EXPECT_EQ(reports.Take(), ReportTexts{});

    const BinaryDataArray moov = MovieAtom("moov");
    const std::string media = "edts mdia(mdhd hdlr minf(%mhd hdlr dinf stbl(stsd stts stsc stsz stco)))";
    const auto trak = [&](char inKind) { return std::string(media).replace(media.find('%'), 1, 1, inKind); };
    EXPECT_EQ(AtomTree(moov), "moov(mvhd trak(tkhd tapt(clef prof enof) load " + trak('v').insert(5, "tref ") +
                                  " udta) trak(tkhd " + trak('s') + ") trak(tkhd " + trak('g') + ") trak(tkhd " +
                                  trak('g') + ") trak(tkhd " + trak('g') + ") udta)");
    EXPECT_EQ(Big32(FindAtom(moov, "moov/mvhd"), 104), 6u) << "next track ID";
    for (int i = 0; i < 5; ++i)
    {
        const std::string track = "moov/trak[" + std::to_string(i) + "]";
        EXPECT_EQ(Big32(FindAtom(moov, track + "/tkhd"), 20), static_cast<std::uint32_t>(i) + 1);
        BinaryDataArray entry;
        const boost::shared_ptr<QT::QTSampleDescription> descriptions[] = {
            image, sound, QT::CreateTimecodeDescription(600, 20, 30, false), QT::CreateClosedCaptionDescription(),
            QT::CreateTextDescription()};
        descriptions[i]->GetAsBinary(entry);
        BinaryDataArray head = Bytes("#0 'stsd' #0 #1");
        head[2] = static_cast<std::uint8_t>((16 + entry.size()) >> 8);
        head[3] = static_cast<std::uint8_t>(16 + entry.size());
        EXPECT_SAME_BYTES(FindAtom(moov, track + "/mdia/minf/stbl/stsd"), head + entry);
    }
    EXPECT_BYTES(FindAtom(moov, "moov/trak/load"), "#24 'load' #0 #0 #0 00 00 01 00");
    EXPECT_BYTES(FindAtom(moov, "moov/trak/tref"), "#40 'tref' #16 'tmcd' #3 #3 #16 'chap' #5 #1");
    EXPECT_BYTES(FindAtom(moov, "moov/trak/udta"), "#17 'udta' #9 'name' 'x'");
    EXPECT_BYTES(FindAtom(moov, "moov/udta"), "#28 'udta' #8 A9 'cpy' #12 'name' 'P' 00 'i' 00");
}

TEST_F(WriterTest, TracksWithoutSamplesVanish)
{
    ASSERT_EQ(Create(), 0);
    const QT::TrackID dropped = NewTrack();
    const QT::TrackID kept = NewTrack();
    const QT::TrackID alsoDropped = NewTrack(QT::kQTMediaTypeVideo, 600, Describe([](BinaryDataArray&) {}));
    EXPECT_EQ(writer->EndMediaChunk(alsoDropped), 0);
    EXPECT_EQ(writer->AddTrackUserData(dropped, Code("name"), &sByte, 1), 0);
    EXPECT_EQ(writer->AddTrackReference(kept, dropped, QT::kQTTrackReferenceChapter), 0);
    EXPECT_EQ(writer->AddTrackReference(kept, kept, QT::kQTTrackReferenceChapter), 0);
    ASSERT_EQ(Add(kept, "media"), 0);
    ASSERT_EQ(writer->Close(), 0);
    const BinaryDataArray moov = MovieAtom("moov");
    EXPECT_EQ(ListAtoms(BinaryDataArray(moov.begin() + 8, moov.end())).size(), 2u) << AtomTree(moov);
    EXPECT_EQ(Big32(FindAtom(moov, "moov/mvhd"), 104), 2u);
    EXPECT_EQ(Big32(FindAtom(moov, "moov/trak/tkhd"), 20), 1u);
    EXPECT_BYTES(FindAtom(moov, "moov/trak/tref"), "#24 'tref' #16 'chap' #0 #1");
}

TEST_F(WriterTest, MovieWithoutSamplesIsAHeader)
{
    ASSERT_EQ(Create(), 0);
    NewTrack();
    ASSERT_EQ(writer->AddUserData(Code("name"), &sByte, 1), 0);
    ASSERT_EQ(writer->Close(), 0);
    EXPECT_EQ(AtomTree(MovieAtom("moov")), "moov(mvhd udta)");
    EXPECT_EQ(Big32(MovieAtom("moov/mvhd"), 104), 1u);
    EXPECT_BYTES(MovieAtom("mdat"), "#8 'mdat'");
}

TEST_F(WriterTest, EveryHeaderCarriesTheFilesCreationTimeInUTC)
{
    ASSERT_EQ(setenv("TZ", "EAST-9", 1), 0);
    tzset();
    const Result result = Create();
    ASSERT_EQ(unsetenv("TZ"), 0);
    tzset();
    ASSERT_EQ(result, 0);
    const auto created =
        Tolbin::filesupport::File(path, Tolbin::filesupport::StorageType::kFileSystem).Created().time_since_epoch();
    ASSERT_EQ(Add(NewTrack(), "media"), 0);
    ASSERT_EQ(writer->Close(), 0);
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(created).count() + 2082844800;
    for (const char* atom : {"moov/mvhd", "moov/trak/tkhd", "moov/trak/mdia/mdhd"})
    {
        EXPECT_EQ(Big32(MovieAtom(atom), 12), static_cast<std::uint32_t>(seconds)) << atom;
        EXPECT_EQ(Big32(MovieAtom(atom), 16), static_cast<std::uint32_t>(seconds)) << atom;
    }
}

// ---- Closing that fails ---------------------------------------------------------------------------------------------

struct CloseRow
{
    const char* name;
    std::function<void(BinaryDataArray&)> getAsBinary;
    Result result;
    ReportTexts reports;

    friend std::ostream& operator<<(std::ostream& ioStream, const CloseRow& inRow) { return ioStream << inRow.name; }
};

const CloseRow kCloseRows[] = {
    {"NoBytes",
     [](BinaryDataArray&) {},
     Tolbin::kResultFailed,
     {"false|Empty Sample Description Table for Track: 257\n"}},
    {"OutOfMemory", [](BinaryDataArray&) { throw std::bad_alloc(); }, Tolbin::kResultOutOfMemory, {"0|"}},
    {"Exception", [](BinaryDataArray&) { throw std::runtime_error("host"); }, Tolbin::kResultOutOfMemory, {"0|"}},
    {"NoException", [](BinaryDataArray&) { throw 7; }, Tolbin::kResultOutOfMemory, {"0|"}},
};

// Memory may be gone for good, and the handler is the host's: neither may keep the file open.
TEST_F(WriterTest, ReportHandlerThatThrowsKeepsNoFileOpen)
{
    RecordingFileSystem recording(Ventra::FileSystem::Current());
    const On scope(*this, recording);
    const auto previous =
        Tolbin::debug::SetReportHandler([](const Tolbin::debug::Report&, bool&) -> bool { throw std::bad_alloc(); });
    EXPECT_EQ(Create(), 0);
    EXPECT_EQ(Add(NewTrack(QT::kQTMediaTypeText, 600, Describe([](BinaryDataArray&) { throw 7; })), "media"), 0);
    EXPECT_EQ(writer->Close(), Tolbin::kResultOutOfMemory);
    EXPECT_EQ(writer->Close(), kQTErrBadState);
    EXPECT_EQ(recording.OpenHandles(), 0u);
    Tolbin::debug::SetReportHandler(previous);
}

TEST_F(WriterTest, TraceHandlerThatThrowsOutOfCreateKeepsNoFileOpen)
{
    RecordingFileSystem recording(Ventra::FileSystem::Current());
    const On scope(*this, recording);
    constexpr const char* kCategory = "UnbufferedWriter::OpenExisting()";
    const auto previous = Tolbin::debug::SetTraceHandler([](int, const std::string&, const std::string&) { throw 7; });
    Tolbin::debug::SetTraceEnabled(kCategory, true);
    EXPECT_THROW(Create(), int);
    EXPECT_EQ(writer->Close(), kQTErrBadState);
    EXPECT_EQ(recording.OpenHandles(), 0u);
    Tolbin::debug::SetTraceEnabled(kCategory, false);
    Tolbin::debug::SetTraceHandler(previous);
}

class WriterClose : public MovieTest, public testing::WithParamInterface<CloseRow>
{
};

TEST_P(WriterClose, ThatFailsWritesNoMovieAtomAndCloses)
{
    ReportCapture reports;
    ASSERT_EQ(Create(), 0);
    ASSERT_EQ(Add(NewTrack(), "media"), 0);
    ASSERT_EQ(Add(NewTrack(QT::kQTMediaTypeText, 600, Describe(GetParam().getAsBinary)), "more"), 0);
    EXPECT_EQ(writer->Close(), GetParam().result);
    EXPECT_EQ(reports.Take(), GetParam().reports);
    EXPECT_EQ(writer->Close(), kQTErrBadState) << "a failed Close is still a close";
    EXPECT_EQ(ListAtoms(Movie()), (std::vector<Atom>{{"ftyp", 0, 32, 8},
                                                     {"skip", 32, kPlaceholderSize, 8},
                                                     {"wide", kWideOffset, 8, 8},
                                                     {"mdat", kWideOffset + 8, 17, 8}}));
}

INSTANTIATE_TEST_SUITE_P(Descriptions, WriterClose, testing::ValuesIn(kCloseRows),
                         [](const auto& inRow) { return inRow.param.name; });

TEST_F(WriterTest, TableOfTwoGiBytesFailsTheClose)
{
    ReportCapture reports;
    ASSERT_EQ(Create(), 0);
    const QT::TrackID track = NewTrack();
    ASSERT_EQ(writer->AddMediaSample(track, nullptr, 0, 0x20000000, 1, 0, false), 0);
    ASSERT_EQ(Add(track, "x"), 0);
    EXPECT_EQ(writer->Close(), kQTErrTooLarge);
    EXPECT_EQ(ListAtoms(Movie()).size(), 4u) << "no 'moov'";
}

TEST_F(WriterTest, NoMemoryForTheBlockFailsTheCreate)
{
    if (!AllocationLimit::Works())
    {
        GTEST_SKIP() << "a memory checker has taken over operator new";
    }
    {
        AllocationLimit limit(16 << 20);
        EXPECT_EQ(Create(), Tolbin::kResultOutOfMemory);
    }
    EXPECT_EQ(writer->Close(), kQTErrBadState);
}

// ---- Files ----------------------------------------------------------------------------------------------------------

TEST_F(WriterTest, CreateReplacesAnExistingFile)
{
    WriteFile(directory.Path("movie.mov"), std::string(3 << 20, 'x'));
    ASSERT_EQ(Create(), 0);
    ASSERT_EQ(Add(NewTrack(), "media"), 0);
    ASSERT_EQ(writer->Close(), 0);
    const BinaryDataArray movie = Movie();
    EXPECT_EQ(movie.size(), static_cast<std::size_t>(kMediaOffset) + 5);
    EXPECT_EQ(std::count(movie.begin() + 1000, movie.begin() + kWideOffset, 0), kWideOffset - 1000)
        << "the placeholder behind the small 'moov' is zero";
}

TEST_F(WriterTest, WithoutCloseTheFileKeepsItsHead)
{
    ASSERT_EQ(Create(), 0);
    ASSERT_EQ(Add(NewTrack(), "media"), 0);
    const BinaryDataArray before = Movie();
    writer.reset();
    EXPECT_SAME_BYTES(Movie(), before);
    EXPECT_EQ(before.size(), static_cast<std::size_t>(kMediaOffset));
    EXPECT_BYTES(FindAtom(before, "mdat"), "#8 'mdat'");
}

TEST_F(WriterTest, PathsAreUnicode)
{
    path = directory.Path16("\u00FCber \U0001F3AC.mov");
    ASSERT_EQ(Create(), 0);
    ASSERT_EQ(writer->Close(), 0);
    EXPECT_TRUE(std::filesystem::exists(directory.Path("\u00FCber \U0001F3AC.mov")));

    path.insert(path.size() - 4, 1, char16_t{0xDC00});
    writer = QT::CreateReelmill();
    EXPECT_EQ(Create(), Tolbin::ResultFromSystemError(EILSEQ));
}

TEST_F(WriterTest, WritersAreIndependent)
{
    const auto other = QT::CreateReelmill();
    ASSERT_EQ(Create(600), 0);
    ASSERT_EQ(other->Create(directory.Path16("other.mov"), 1000), 0);
    const QT::TrackID track = NewTrack();
    QT::TrackID otherTrack = 0;
    ASSERT_EQ(other->NewMovieTrack(QT::kQTMediaTypeText, 10, 0, 0, QT::CreateTextDescription(), otherTrack), 0);
    EXPECT_EQ(otherTrack, track);
    ASSERT_EQ(Add(track, "one"), 0);
    ASSERT_EQ(other->AddTextMediaSample(otherTrack, u"other", 1), 0);
    ASSERT_EQ(writer->Close(), 0);
    ASSERT_EQ(other->Close(), 0);
    EXPECT_BYTES(MovieAtom("mdat"), "#11 'mdat' 'one'");
    EXPECT_EQ(Big32(FindAtom(ReadFile(directory.Path("other.mov")), "moov/mvhd"), 20), 1000u);
}

// ---- Long takes -----------------------------------------------------------------------------------------------------

//! For a scope, the process may take so many more bytes of address space than it has.
class AddressSpaceLimit
{
public:
    explicit AddressSpaceLimit(rlim_t inMore)
    {
        getrlimit(RLIMIT_AS, &mBefore);
        std::ifstream status("/proc/self/statm");
        rlim_t pages = 0;
        status >> pages;
        const rlimit limit{pages * static_cast<rlim_t>(sysconf(_SC_PAGESIZE)) + inMore, mBefore.rlim_max};
        mIsSet = status && setrlimit(RLIMIT_AS, &limit) == 0;
    }
    ~AddressSpaceLimit() { setrlimit(RLIMIT_AS, &mBefore); }
    AddressSpaceLimit(const AddressSpaceLimit&) = delete;
    AddressSpaceLimit& operator=(const AddressSpaceLimit&) = delete;

    bool IsSet() const { return mIsSet; }

private:
    rlimit mBefore{};
    bool mIsSet = false;
};

//! Records that outgrow the heap go to address space of their own; where there is little of it, to twice as much as
//! before.
TEST_F(MovieTest, RecordsOfALongTakeAreKeptWhateverTheAddressSpace)
{
    constexpr int kRecords = 300'000;
    for (const bool isLimited : {false, true})
    {
        std::optional<AddressSpaceLimit> limit;
        if (isLimited)
        {
            limit.emplace(rlim_t{48} << 20);
            ASSERT_TRUE(limit->IsSet());
        }
        QT::PrivateReelmill movie;
        movie.Resume({600, 0, 0});
        QT::TrackID track = 0;
        ASSERT_EQ(movie.NewMovieTrack(QT::kQTMediaTypeVideo, 600, 0, 0, QT::CreateTextDescription(), track), 0);
        for (int i = 0; i < kRecords; ++i)
        {
            movie.RestoreMediaSample(track, 16 * std::int64_t{i}, i % 7, 1, 1);
        }
        const QT::MediaSampleVector& samples = movie.GetTracks().at(track).samples;
        EXPECT_EQ(samples.capacity() > (std::size_t{1} << 20), !isLimited);
        ASSERT_EQ(samples.size(), std::size_t{kRecords});
        for (int i = 0; i < kRecords; ++i)
        {
            const QT::MediaSampleRec& record = samples[static_cast<std::size_t>(i)];
            ASSERT_TRUE(record.fileOffset == 16 * std::int64_t{i} && record.dataSize == i % 7) << i;
        }
    }
}

} // namespace
