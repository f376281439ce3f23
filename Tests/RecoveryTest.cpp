#include "JournalWriter.h"
#include "Support/AllocationLimit.h"
#include "Support/FailingFileSystem.h"
#include "Support/MovieTest.h"
#include "Support/RecordingFileSystem.h"
#include "Support/SettingScope.h"

#include <Reelmill/Recovery.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <random>

using QT::RecoverMovie;
using QT::RecoveryOptions;
using QT::RecoveryReport;
using Tolbin::Result;
using Tolbin::utility::BinaryDataArray;

namespace
{

//! Says that all is on the device. Tests lose no power.
class UnsyncedFileSystem final : public ForwardingFileSystem
{
public:
    using ForwardingFileSystem::ForwardingFileSystem;

    Result Sync(Handle) override { return 0; }
};

//! Takes of a journaled writer that is let go of before it was closed, as a process that died leaves them. Media goes
//! out in blocks of 4096 bytes.
class Recovery : public MovieTest
{
protected:
    static constexpr int kSamples = 60;

    //! A sample's bytes: some end in zeros, some are all zero, some are empty. Those of sound are not ten of one size.
    static std::string SampleOf(int inNumber)
    {
        std::minstd_rand random(static_cast<unsigned>(inNumber) + 1);
        std::string data((random() % 700) | static_cast<unsigned>(inNumber % 2), 0);
        if (inNumber % 11 != 3)
        {
            std::generate(data.begin(), data.end(), [&] { return static_cast<char>(random() % 255 + 1); });
            std::fill_n(data.rbegin(), inNumber % 5 == 1 ? data.size() / 3 : 0, 0);
        }
        return inNumber == 7 ? std::string() : data;
    }

    static boost::shared_ptr<QT::QTImageDescription> MakeVideo()
    {
        Tolbin::UTF16String name = u"Test";
        auto video =
            QT::CreateImageDescription(Code("apcn"), name, 720, 486, 24, Quorlan::kFieldTypeLowerFirst, {10, 11});
        video->AddCleanAperture(704, 1, 480, 1, 0, 1, -1, 1);
        return video;
    }

    //! The first `inCount` samples of the take, and what belongs to them.
    void Play(QT::Reelmill& ioWriter, int inCount)
    {
        ASSERT_EQ(ioWriter.Create(path, 600), 0);
        QT::TrackID tracks[3] = {};
        const Quorlan::AudioChannelLayout stereo{Quorlan::kAudioChannelLabelLeft, Quorlan::kAudioChannelLabelRight};
        const auto sound = QT::CreateSoundDescription(0, 2, 48000, Sambrel::kAudioSampleTypeInt16LE, stereo, false);
        ASSERT_EQ(ioWriter.NewMovieTrack(QT::kQTMediaTypeVideo, 25, 720, 486, MakeVideo(), tracks[0]), 0);
        ASSERT_EQ(ioWriter.NewMovieTrack(QT::kQTMediaTypeSound, 48000, 0, 0, sound, tracks[1]), 0);
        ASSERT_EQ(ioWriter.NewMovieTrack(QT::kQTMediaTypeText, 600, 10, 10, QT::CreateTextDescription(), tracks[2]), 0);
        ASSERT_EQ(ioWriter.AddTrackReference(tracks[0], tracks[2], QT::kQTTrackReferenceChapter), 0);
        ASSERT_EQ(ioWriter.SetTrackTrimIn(tracks[1], 4800), 0);
        char title[] = "title";
        ASSERT_EQ(ioWriter.AddUserData(Code("name"), title, 5), 0);
        ASSERT_EQ(ioWriter.AddTrackUserData(tracks[1], Code("name"), title, 0), 0);
        for (int i = 0; i < inCount; ++i)
        {
            std::string data = SampleOf(i);
            const QT::TrackID track = tracks[i % 2];
            ASSERT_EQ(ioWriter.AddMediaSample(track, data.data(), static_cast<int>(data.size()), i % 2 == 0 ? 1 : 10,
                                              i % 2 == 0 ? i % 4 : 192, 0, false),
                      0);
            if (i % 3 == 0)
            {
                ASSERT_EQ(ioWriter.EndMediaChunk(track), 0);
            }
        }
    }

    //! The movie that a plain writer makes of them.
    BinaryDataArray MovieOf(int inCount)
    {
        const auto plain = QT::CreateReelmill();
        Play(*plain, inCount);
        EXPECT_EQ(plain->Close(), 0);
        return TimelessMovie();
    }

    //! Leaves the take behind as it was when the process died, and its files' names with the numbers of `kSamples`.
    void Abandon(int inCount)
    {
        std::filesystem::remove(directory.Path("movie.mov"));
        std::filesystem::remove(Journal());
        const auto journaled = QT::CreateJournaledReelmill();
        Play(*journaled, inCount);
    }

    //! How many samples are whole in so many bytes of media.
    static int WholeIn(std::int64_t inSize)
    {
        int count = 0;
        for (std::int64_t end = 0; count < kSamples; ++count)
        {
            end += static_cast<std::int64_t>(SampleOf(count).size());
            if (end > inSize)
            {
                break;
            }
        }
        return count;
    }

    std::string Journal() const { return directory.Path("movie.mov.journal"); }

    Result Recover(RecoveryReport& outReport, const RecoveryOptions& inOptions = {})
    {
        return RecoverMovie(path, outReport, inOptions);
    }

    //! Recovers the movie by another journal, and requires that what is refused is left alone.
    Result RecoverBy(const std::function<void(QT::JournalWriter&)>& inWrite)
    {
        const BinaryDataArray found = Movie();
        std::filesystem::remove(Journal());
        QT::JournalWriter journal;
        EXPECT_EQ(journal.Create(path + u".journal"), 0);
        inWrite(journal);
        EXPECT_EQ(journal.Write(), 0);
        EXPECT_EQ(journal.Close(), 0);
        RecoveryReport report;
        RecoveryOptions options;
        options.keepJournal = true;
        const Result result = Recover(report, options);
        if (result < 0)
        {
            EXPECT_SAME_BYTES(Movie(), found);
        }
        return result;
    }

    //! All samples count for one in video, for ten in sound.
    static std::uint64_t Counted(int inCount)
    {
        return static_cast<std::uint64_t>(inCount + 1) / 2 + static_cast<std::uint64_t>(inCount / 2) * 10;
    }

    UnsyncedFileSystem unsynced;
    VolumeFileSystem volume{unsynced, Ventra::FileSystemType::kNFS, 4096};
    Ventra::FileSystemScope scope{volume};
    SettingScope setting{"Reelmill.NFSWriteSizeInKBytes", "4"};
};

TEST_F(Recovery, JournaledMovieIsThePlainOne)
{
    const BinaryDataArray plain = MovieOf(kSamples);
    std::filesystem::remove(directory.Path("movie.mov"));
    const auto journaled = QT::CreateJournaledReelmill();
    Play(*journaled, kSamples);
    EXPECT_TRUE(std::filesystem::exists(Journal()));
    EXPECT_EQ(journaled->GetMovieDuration(), 720);
    EXPECT_EQ(journaled->Close(), 0);
    EXPECT_FALSE(std::filesystem::exists(Journal()));
    EXPECT_SAME_BYTES(TimelessMovie(), plain);
    EXPECT_EQ(journaled->Close(), QT::kQTErrBadState);
    EXPECT_EQ(journaled->Create(path, 600), QT::kQTErrBadState);
}

TEST_F(Recovery, MovieIsThatOfTheSamplesThatAreWhole)
{
    for (const int count : {1, 12, 30, 45, kSamples})
    {
        Abandon(count);
        const auto size = static_cast<std::int64_t>(std::filesystem::file_size(directory.Path("movie.mov")));
        const int whole = std::min(count, WholeIn(size - kMediaOffset));
        RecoveryReport report;
        if (whole == 0)
        {
            EXPECT_EQ(Recover(report), QT::kQTErrNothingWhole);
            EXPECT_TRUE(std::filesystem::exists(Journal()));
            continue;
        }
        ASSERT_EQ(Recover(report), 0) << count;
        EXPECT_EQ(report.samplesKept, Counted(whole));
        EXPECT_LE(report.samplesKept + report.samplesDropped, Counted(count));
        EXPECT_FALSE(std::filesystem::exists(Journal()));
        const BinaryDataArray recovered = TimelessMovie();
        EXPECT_EQ(report.movieSize, recovered.size());
        EXPECT_SAME_BYTES(recovered, MovieOf(whole)) << count;
    }
}

TEST_F(Recovery, CutOrZeroedMovieKeepsWhatIsWhole)
{
    Abandon(kSamples);
    const std::string movie = directory.Path("movie.mov");
    const BinaryDataArray found = ReadFile(movie);
    std::minstd_rand random(1);
    RecoveryOptions options;
    options.keepJournal = true;
    for (int round = 0; round < 300; ++round)
    {
        const std::size_t cut = kMediaOffset + random() % (found.size() - kMediaOffset);
        const bool isZeroed = round % 2 == 0;
        std::string content(found.begin(), found.end());
        isZeroed ? std::fill(content.begin() + static_cast<std::ptrdiff_t>(cut), content.end(), '\0')
                 : content.resize(cut);
        WriteFile(movie, content);
        // A sample whose lost bytes were zero has lost nothing.
        auto whole = static_cast<std::size_t>(WholeIn(static_cast<std::int64_t>(cut) - kMediaOffset));
        std::int64_t end = kMediaOffset;
        std::size_t number = 0;
        for (; isZeroed && number < kSamples; ++number)
        {
            end += static_cast<std::int64_t>(SampleOf(static_cast<int>(number)).size());
            if (end > static_cast<std::int64_t>(found.size()) ||
                std::memcmp(found.data(), content.data(), static_cast<std::size_t>(end)) != 0)
            {
                break;
            }
        }
        whole = isZeroed ? number : whole;
        RecoveryReport report;
        const Result result = Recover(report, options);
        ASSERT_EQ(result, whole == 0 ? QT::kQTErrNothingWhole : 0) << "round " << round << ", cut at " << cut;
        ASSERT_EQ(report.samplesKept, Counted(static_cast<int>(whole))) << "round " << round << ", cut at " << cut;
        if (round % 20 < 2 && result == 0)
        {
            const BinaryDataArray recovered = TimelessMovie();
            std::filesystem::rename(Journal(), directory.Path("kept"));
            EXPECT_SAME_BYTES(recovered, MovieOf(static_cast<int>(whole))) << "round " << round;
            std::filesystem::rename(directory.Path("kept"), Journal());
        }
    }
}

TEST_F(Recovery, TornJournalLosesNoMedia)
{
    Abandon(kSamples);
    const std::string movie = directory.Path("movie.mov");
    const BinaryDataArray found = ReadFile(movie);
    const BinaryDataArray journal = ReadFile(Journal());
    std::uint64_t kept = 0;
    for (std::size_t cut = 0; cut < journal.size(); cut += 1 + cut % 7)
    {
        for (const bool isZeroed : {false, true})
        {
            std::string content(journal.begin(), journal.end());
            isZeroed ? std::fill(content.begin() + static_cast<std::ptrdiff_t>(cut), content.end(), '\0')
                     : content.resize(cut);
            WriteFile(Journal(), content);
            WriteFile(movie, std::string(found.begin(), found.end()));
            RecoveryReport report;
            const Result result = Recover(report);
            if (cut < 16)
            {
                ASSERT_EQ(result, QT::kQTErrBadJournal) << cut;
                continue;
            }
            if (result == QT::kQTErrNothingWhole)
            {
                ASSERT_EQ(kept, 0u) << cut;
                continue;
            }
            ASSERT_EQ(result, 0) << cut;
            ASSERT_GE(report.samplesKept, kept) << "a longer journal keeps no less";
            kept = report.samplesKept;
            const BinaryDataArray recovered = Movie();
            ASSERT_GE(recovered.size(), found.size() - report.bytesCut);
            ASSERT_TRUE(std::equal(found.begin() + kMediaOffset,
                                   found.end() - static_cast<std::ptrdiff_t>(report.bytesCut),
                                   recovered.begin() + kMediaOffset));
            ASSERT_EQ(Big32(recovered, kMediaOffset - 8) - 8, report.bytesKept + report.bytesUnknown);
        }
    }
    EXPECT_GT(kept, 0u);
}

TEST_F(Recovery, CanBeRunAgainAndDry)
{
    Abandon(kSamples);
    const BinaryDataArray found = Movie();
    RecoveryReport dry;
    RecoveryOptions options;
    options.dryRun = true;
    ASSERT_EQ(Recover(dry, options), 0);
    EXPECT_SAME_BYTES(Movie(), found);
    options.dryRun = false;
    options.keepJournal = true;
    RecoveryReport report;
    ASSERT_EQ(Recover(report, options), 0);
    EXPECT_EQ(report.samplesKept, dry.samplesKept);
    EXPECT_EQ(report.movieSize, dry.movieSize);
    EXPECT_EQ(report.bytesCut, dry.bytesCut);
    const BinaryDataArray recovered = Movie();
    ASSERT_EQ(Recover(report), 0);
    EXPECT_SAME_BYTES(Movie(), recovered);
    EXPECT_EQ(Recover(report), Tolbin::ResultFromSystemError(ENOENT)) << "no journal any more";
    EXPECT_SAME_BYTES(Movie(), recovered);
}

//! As the test before, but 'moov' has no room in front: it follows the media, where the samples were that are missing.
TEST_F(Recovery, CanBeRunAgainWhereTheMovieAtomIsBehind)
{
    const auto journaled = QT::CreateJournaledReelmill();
    Play(*journaled, kSamples);
    std::string item(1 << 20, 'x');
    ASSERT_EQ(journaled->AddUserData(Code("free"), item.data(), 1 << 20), 0);
    RecoveryReport first;
    RecoveryOptions options;
    options.keepJournal = true;
    ASSERT_EQ(Recover(first, options), 0);
    EXPECT_FALSE(first.isMovieAtomInFront);
    EXPECT_GT(first.samplesDropped, 0u);
    const BinaryDataArray recovered = Movie();
    RecoveryReport second;
    ASSERT_EQ(Recover(second, options), 0);
    EXPECT_EQ(second.samplesKept, first.samplesKept);
    EXPECT_SAME_BYTES(Movie(), recovered);
}

TEST_F(Recovery, RefusesTheJournalOfAnotherMovie)
{
    Abandon(kSamples);
    std::filesystem::rename(Journal(), directory.Path("kept"));
    const auto other = QT::CreateReelmill();
    ASSERT_EQ(other->Create(path, 600), 0);
    QT::TrackID track = 0;
    ASSERT_EQ(other->NewMovieTrack(QT::kQTMediaTypeVideo, 25, 64, 48, QT::CreateTextDescription(), track), 0);
    for (int i = 0; i < kSamples; ++i)
    {
        std::string data(1000, 'x');
        ASSERT_EQ(other->AddMediaSample(track, data.data(), 1000, 1, 1, 0, false), 0);
    }
    ASSERT_EQ(other->Close(), 0);
    const BinaryDataArray before = Movie();
    RecoveryReport report;
    RecoveryOptions options;
    options.journalPath = directory.Path16("kept");
    EXPECT_EQ(Recover(report, options), QT::kQTErrOtherMovie);
    WriteFile(directory.Path("movie.mov"), "not a movie at all");
    EXPECT_EQ(Recover(report, options), QT::kQTErrOtherMovie);
    options.journalPath = path;
    EXPECT_EQ(Recover(report, options), QT::kQTErrBadJournal);
    EXPECT_TRUE(std::filesystem::exists(directory.Path("kept")));
}

//! Checksums do not help where it is the program that was wrong, or the journal that was made up.
TEST_F(Recovery, RefusesJournalsThatNoWriterMakes)
{
    const ReportCapture reports;
    Abandon(kSamples);
    const QT::JournalMovie movie{600, kPlaceholderSize, 0};
    const QT::JournalTrack track{QT::kQTMediaTypeVideo, 25, 64, 48, QT::StoreDescription(*MakeVideo())};
    const QT::JournalSample sample{0, 100, 1, 1, 0};
    EXPECT_EQ(RecoverBy([&](QT::JournalWriter& ioJournal) {
                  ioJournal.AddTrack(track);
                  ioJournal.Add(movie);
                  ioJournal.AddSample(sample);
              }),
              QT::kQTErrBadJournal)
        << "a track before the movie";
    EXPECT_EQ(RecoverBy([&](QT::JournalWriter& ioJournal) {
                  ioJournal.Add(movie);
                  ioJournal.AddTrack({1, 25, 64, 48, track.description});
                  ioJournal.AddSample(sample);
              }),
              QT::kQTErrBadJournal)
        << "an unknown media type";
    EXPECT_EQ(RecoverBy([&](QT::JournalWriter& ioJournal) {
                  ioJournal.Add(movie);
                  ioJournal.AddTrack(track);
                  ioJournal.AddSample(sample);
                  ioJournal.AddSample({0, 0, 1 << 28, 1, 0});
              }),
              QT::kQTErrTooLarge)
        << "a table of 1 GiB";
    EXPECT_EQ(RecoverBy([&](QT::JournalWriter& ioJournal) {
                  ioJournal.Add(QT::JournalMovie{600, kPlaceholderSize, std::int64_t{1} << 55});
                  ioJournal.AddTrack(track);
                  ioJournal.AddSample(sample);
              }),
              0)
        << "created in the year 1 141 709 097, whose calendar takes long";
}

TEST_F(Recovery, UnfinishedMovieIsNotWrittenOver)
{
    Abandon(kSamples);
    const BinaryDataArray found = Movie();
    const auto again = QT::CreateJournaledReelmill();
    EXPECT_EQ(again->Create(path, 600), Tolbin::ResultFromSystemError(EEXIST));
    EXPECT_SAME_BYTES(Movie(), found);
    EXPECT_TRUE(std::filesystem::exists(Journal()));
}

//! A movie that would have lasted longer: timecode and a chapter were written for all of it.
TEST_F(Recovery, SideTracksEndWithPictureAndSound)
{
    const auto journaled = QT::CreateJournaledReelmill();
    ASSERT_EQ(journaled->Create(path, 100), 0);
    QT::TrackID video = 0, timecode = 0, shortTimecode = 0, chapters = 0, shortened = 0, dropped = 0;
    ASSERT_EQ(journaled->NewMovieTrack(QT::kQTMediaTypeVideo, 25, 64, 48, MakeVideo(), video), 0);
    ASSERT_EQ(journaled->NewMovieTrack(QT::kQTMediaTypeTimecode, 25, 0, 0,
                                       QT::CreateTimecodeDescription(25, 1, 25, false), timecode),
              0);
    ASSERT_EQ(journaled->NewMovieTrack(QT::kQTMediaTypeTimecode, 25, 0, 0,
                                       QT::CreateTimecodeDescription(25, 1, 25, false), shortTimecode),
              0);
    for (QT::TrackID* const text : {&chapters, &shortened, &dropped})
    {
        ASSERT_EQ(journaled->NewMovieTrack(QT::kQTMediaTypeText, 1000, 0, 0, QT::CreateTextDescription(), *text), 0);
    }
    char counter[4] = {0, 0, 0, 1};
    for (const int size : {1, 1, 2})
    {
        ASSERT_EQ(journaled->AddMediaSample(dropped, counter, size, 1, 980, 0, false), 0);
    }
    ASSERT_EQ(journaled->AddMediaSample(shortened, counter, 1, 1, 1000, 0, false), 0);
    ASSERT_EQ(journaled->AddMediaSample(shortened, counter, 1, 1, 1000, 0, false), 0);
    ASSERT_EQ(journaled->AddMediaSample(timecode, counter, 4, 1, 25 * 3600, 0, false), 0);
    ASSERT_EQ(journaled->AddMediaSample(shortTimecode, counter, 4, 1, 1, 0, false), 0);
    ASSERT_EQ(journaled->AddTextMediaSample(chapters, u"One", 100), 0);
    ASSERT_EQ(journaled->AddTextMediaSample(chapters, u"Two", 60000), 0);
    ASSERT_EQ(journaled->AddTextMediaSample(chapters, u"Three", 60000), 0);
    for (int i = 0; i < 50; ++i)
    {
        std::string data(1000, static_cast<char>(i + 1));
        ASSERT_EQ(journaled->AddMediaSample(video, data.data(), 1000, 1, 1, 0, false), 0);
    }
    RecoveryReport report;
    ASSERT_EQ(Recover(report), 0);
    EXPECT_EQ(report.samplesKept, 49u + 10u) << "12 blocks of 4096 bytes hold the small samples and 49 frames";
    EXPECT_EQ(report.samplesCut, 2u) << "the third chapter, and the third text of two";
    EXPECT_EQ(report.movieDuration, 49 * 4);
    const BinaryDataArray movie = Movie();
    EXPECT_BYTES(FindAtom(movie, "moov/trak[1]/mdia/minf/stbl/stts"), "#24 'stts' #0 #1 #1 #49");
    EXPECT_BYTES(FindAtom(movie, "moov/trak[2]/mdia/minf/stbl/stts"), "#24 'stts' #0 #1 #1 #49");
    EXPECT_BYTES(FindAtom(movie, "moov/trak[3]/mdia/minf/stbl/stts"), "#32 'stts' #0 #2 #1 #100 #1 #1860");
    EXPECT_BYTES(FindAtom(movie, "moov/trak[4]/mdia/minf/stbl/stts"), "#32 'stts' #0 #2 #1 #1000 #1 #960");
    EXPECT_BYTES(FindAtom(movie, "moov/trak[5]/mdia/minf/stbl/stts"), "#24 'stts' #0 #1 #2 #980");
    EXPECT_BYTES(FindAtom(movie, "moov/trak[5]/mdia/minf/stbl/stsz"), "#20 'stsz' #0 #1 #2");
}

//! A block holds a record of sound and the beginning of the next.
TEST_F(Recovery, RecordsAreKeptInPart)
{
    const Quorlan::AudioChannelLayout stereo{Quorlan::kAudioChannelLabelLeft, Quorlan::kAudioChannelLabelRight};
    for (const bool hasSound : {true, false})
    {
        std::filesystem::remove(directory.Path("movie.mov"));
        std::filesystem::remove(Journal());
        const auto journaled = QT::CreateJournaledReelmill();
        ASSERT_EQ(journaled->Create(path, 600), 0);
        QT::TrackID sound = 0, timecode = 0;
        ASSERT_EQ(journaled->NewMovieTrack(
                      QT::kQTMediaTypeSound, 48000, 0, 0,
                      QT::CreateSoundDescription(0, 2, 48000, Sambrel::kAudioSampleTypeInt16LE, stereo, false), sound),
                  0);
        ASSERT_EQ(journaled->NewMovieTrack(QT::kQTMediaTypeTimecode, 25, 0, 0,
                                           QT::CreateTimecodeDescription(25, 1, 25, false), timecode),
                  0);
        std::string data(8192, 'x');
        ASSERT_EQ(journaled->AddMediaSample(timecode, data.data(), 92, 1, 25, 0, false), 0);
        if (hasSound)
        {
            ASSERT_EQ(journaled->AddMediaSample(sound, data.data(), 4000, 1000, 1, 0, false), 0);
        }
        ASSERT_EQ(journaled->AddMediaSample(sound, data.data(), 4006, hasSound ? 2003 : 1, 1, 0, false), 0);
        RecoveryReport report;
        if (hasSound)
        {
            ASSERT_EQ(Recover(report), 0);
            EXPECT_EQ(report.samplesKept, 1u + 1000 + 2) << "the last 4 bytes of the block are 2 samples of 2";
            EXPECT_EQ(report.samplesDropped, 2001u);
            EXPECT_EQ(report.movieSize, static_cast<std::uint64_t>(kMediaOffset) + 4096);
        }
        else
        {
            EXPECT_EQ(Recover(report), QT::kQTErrNothingWhole) << "timecode alone is no movie";
        }
    }
}

//! Zeros at the end of a file are what was written only where the sample ends with so many.
TEST_F(Recovery, ZerosInPlaceOfTheLastByteThatIsNoneAreALoss)
{
    for (std::size_t zeros = 0; zeros < 70; ++zeros)
    {
        {
            const auto journaled = QT::CreateJournaledReelmill();
            ASSERT_EQ(journaled->Create(path, 100), 0);
            QT::TrackID video = 0;
            ASSERT_EQ(journaled->NewMovieTrack(QT::kQTMediaTypeVideo, 25, 64, 48, MakeVideo(), video), 0);
            std::string data(4096, '\0');
            data[0] = 'x';
            data[data.size() - 1 - zeros] = 'x';
            ASSERT_EQ(journaled->AddMediaSample(video, data.data(), 4096, 1, 1, 0, false), 0);
        }
        BinaryDataArray movie = Movie();
        std::fill_n(movie.rbegin(), zeros + 1, std::uint8_t{0});
        WriteFile(directory.Path("movie.mov"), std::string(movie.begin(), movie.end()));
        RecoveryReport report;
        ASSERT_EQ(Recover(report), QT::kQTErrNothingWhole) << zeros;
        ASSERT_EQ(Ventra::File::Remove(path + u".journal"), 0);
    }
}

TEST_F(Recovery, AllZerosThatEndAPendingSampleAreItsOwn)
{
    const SettingScope blocks("Reelmill.NFSWriteSizeInKBytes", "1024");
    {
        const auto journaled = QT::CreateJournaledReelmill();
        ASSERT_EQ(journaled->Create(path, 100), 0);
        QT::TrackID video = 0;
        ASSERT_EQ(journaled->NewMovieTrack(QT::kQTMediaTypeVideo, 25, 64, 48, MakeVideo(), video), 0);
        const auto add = [&](std::size_t inSize, char inFirst) {
            std::string data(inSize, '\0');
            data[0] = inFirst;
            ASSERT_EQ(journaled->AddMediaSample(video, data.data(), static_cast<int>(inSize), 1, 1, 0, false), 0);
        };
        for (int i = 0; i < 9; ++i)
        {
            add(30000, 'x'); // The more there are, the larger a sample may stay pending.
        }
        add(150000, 'x');
        add(1 << 20, '\0'); // Takes the block to disk, and is not whole there.
    }
    RecoveryReport report;
    ASSERT_EQ(Recover(report), 0);
    EXPECT_EQ(report.samplesKept, 10u);
    EXPECT_EQ(report.samplesDropped, 1u);
}

//! `Close` may be made again, or has told that the journal is needed.
TEST_F(Recovery, CloseThatFindsNoMemoryLosesNothing)
{
    if (!AllocationLimit::Works())
    {
        GTEST_SKIP() << "a memory checker has taken over operator new";
    }
    bool hasStruck = true;
    for (int number = 1; hasStruck; ++number)
    {
        SCOPED_TRACE(number);
        std::filesystem::remove(directory.Path("movie.mov"));
        const auto journaled = QT::CreateJournaledReelmill();
        Play(*journaled, 3);
        Result result = 0;
        const ReportCapture reports;
        try
        {
            const AllocationFault fault(number);
            result = journaled->Close();
            hasStruck = AllocationFault::HasStruck();
        }
        catch (const std::bad_alloc&)
        {
            result = journaled->Close();
            EXPECT_EQ(result, 0);
        }
        RecoveryReport report;
        ASSERT_EQ(result < 0 ? Recover(report) : result, 0);
        ASSERT_EQ(Big32(FindAtom(Movie(), "moov/trak/mdia/minf/stbl/stsz"), 16), 2u);
        ASSERT_FALSE(std::filesystem::exists(Journal()));
    }
}

//! A description that gives no bytes makes no track, and no movie that is called finished.
TEST_F(Recovery, MovieWithoutUsableDescriptionsKeepsItsJournal)
{
    class Empty final : public QT::QTSampleDescription
    {
    public:
        void GetAsBinary(BinaryDataArray& outEntry) override { outEntry.clear(); }
    };
    for (const QT::MediaType type : {QT::kQTMediaTypeVideo, QT::kQTMediaTypeText})
    {
        const auto journaled = QT::CreateJournaledReelmill();
        ASSERT_EQ(journaled->Create(path, 100), 0);
        QT::TrackID track = 0;
        ASSERT_EQ(journaled->NewMovieTrack(type, 25, 64, 48, boost::make_shared<Empty>(), track), 0);
        std::string data(4096, 'x');
        ASSERT_EQ(journaled->AddMediaSample(track, data.data(), 4096, 1, 1, 0, false), 0);
        RecoveryReport report;
        EXPECT_EQ(Recover(report), QT::kQTErrNothingWhole);
        EXPECT_EQ(Recover(report), QT::kQTErrNothingWhole) << "the journal is still there";
        ASSERT_EQ(Ventra::File::Remove(path + u".journal"), 0);
    }
}

//! A duration beyond its field is the host's fault, which recovery must not add to.
TEST_F(Recovery, TimecodeWhoseDurationHasWrappedIsLeftAlone)
{
    const ReportCapture reports;
    const auto journaled = QT::CreateJournaledReelmill();
    ASSERT_EQ(journaled->Create(path, 100), 0);
    QT::TrackID video = 0, timecode = 0;
    ASSERT_EQ(journaled->NewMovieTrack(QT::kQTMediaTypeVideo, 25, 64, 48, MakeVideo(), video), 0);
    ASSERT_EQ(journaled->NewMovieTrack(QT::kQTMediaTypeTimecode, 25, 0, 0,
                                       QT::CreateTimecodeDescription(25, 1, 25, false), timecode),
              0);
    std::string data(4096, 'x');
    ASSERT_EQ(journaled->AddMediaSample(timecode, data.data(), 4, 1, 0x7FFFFFFF, 0, false), 0);
    ASSERT_EQ(journaled->AddMediaSample(timecode, data.data(), 4, 1, 100, 0, false), 0);
    ASSERT_EQ(journaled->AddMediaSample(video, data.data(), 4088, 1, 50, 0, false), 0);
    RecoveryReport report;
    ASSERT_EQ(Recover(report), 0);
    EXPECT_BYTES(FindAtom(Movie(), "moov/trak[1]/mdia/minf/stbl/stts"), "#32 'stts' #0 #2 #1 #2147483647 #1 #100");
}

//! One of the tracks cannot be finished, one begins behind the end of picture and sound.
TEST_F(Recovery, ReportTellsOfTheTracksThatAreLeft)
{
    const auto journaled = QT::CreateJournaledReelmill();
    ASSERT_EQ(journaled->Create(path, 100), 0);
    QT::TrackID video = 0, undescribed = 0, late = 0;
    const auto endless = MakeVideo();
    endless->SetExtraPaddingAmount(~0ul); // Never to be had.
    ASSERT_EQ(journaled->NewMovieTrack(QT::kQTMediaTypeVideo, 25, 64, 48, MakeVideo(), video), 0);
    ASSERT_EQ(journaled->NewMovieTrack(QT::kQTMediaTypeVideo, 25, 64, 48, endless, undescribed), 0);
    ASSERT_EQ(journaled->NewMovieTrack(QT::kQTMediaTypeText, 25, 0, 0, QT::CreateTextDescription(), late), 0);
    ASSERT_EQ(journaled->SetTrackTrimIn(late, 1000), 0);
    std::string data(2048, 'x');
    ASSERT_EQ(journaled->AddMediaSample(undescribed, data.data(), 1024, 1, 500, 0, false), 0);
    ASSERT_EQ(journaled->AddMediaSample(late, data.data(), 1024, 1, 1, 0, false), 0);
    ASSERT_EQ(journaled->AddMediaSample(video, data.data(), 2048, 1, 50, 0, false), 0);
    RecoveryReport report;
    ASSERT_EQ(Recover(report), 0);
    EXPECT_EQ(report.tracksKept, 1);
    EXPECT_EQ(report.tracksDropped, 2);
    EXPECT_EQ(report.movieDuration, 200);
    EXPECT_EQ(Big32(FindAtom(Movie(), "moov/mvhd"), 24), 200u);
}

//! A host's description that changes with every answer.
class ChangingDescription final : public QT::QTSampleDescription
{
public:
    void GetAsBinary(BinaryDataArray& outEntry) override
    {
        QT::CreateTextDescription()->GetAsBinary(outEntry);
        outEntry.back() = static_cast<std::uint8_t>(++asked);
    }

    int asked = 0;
};

TEST_F(Recovery, DescriptionsAreThoseOfTheLastBlock)
{
    const auto journaled = QT::CreateJournaledReelmill();
    const auto changing = boost::make_shared<ChangingDescription>();
    const auto video = MakeVideo();
    QT::TrackID track = 0, idle = 0;
    const auto add = [&](QT::MediaType inType, const auto& inDescription, QT::TrackID& outTrack) {
        return journaled->NewMovieTrack(inType, 25, 64, 48, inDescription, outTrack);
    };
    EXPECT_EQ(add(QT::kQTMediaTypeText, changing, idle), QT::kQTErrBadState);
    ASSERT_EQ(journaled->Create(path, 100), 0);
    {
        const ReportCapture reports;
        EXPECT_EQ(add(static_cast<QT::MediaType>(1), changing, idle), QT::kQTErrUnknownMediaType);
    }
    EXPECT_EQ(changing->asked, 0) << "what is refused asks for nothing";
    ASSERT_EQ(add(QT::kQTMediaTypeVideo, video, track), 0);
    ASSERT_EQ(add(QT::kQTMediaTypeText, changing, idle), 0);
    EXPECT_EQ(changing->asked, 1);
    video->SetVendorFourCC(QT::FourCC("abcd"));
    for (int i = 0; i < 10; ++i)
    {
        std::string data(1000, 'x');
        ASSERT_EQ(journaled->AddMediaSample(track, data.data(), 1000, 1, 1, 0, false), 0);
    }
    EXPECT_EQ(changing->asked, 1) << "a track without samples is in no block";
    ASSERT_EQ(journaled->AddTextMediaSample(idle, u"Text", 10), 0);
    for (std::string data(5000, 'x'); changing->asked < 3;)
    {
        ASSERT_EQ(journaled->AddMediaSample(track, data.data(), 5000, 1, 1, 0, false), 0);
    }
    RecoveryReport report;
    ASSERT_EQ(Recover(report), 0);
    BinaryDataArray entry;
    video->GetAsBinary(entry);
    const BinaryDataArray atom = FindAtom(Movie(), "moov/trak/mdia/minf/stbl/stsd");
    EXPECT_SAME_BYTES(BinaryDataArray(atom.begin() + 16, atom.end()), entry);
    EXPECT_EQ(FindAtom(Movie(), "moov/trak/tapt").size(), 68u);
    EXPECT_EQ(FindAtom(Movie(), "moov/trak[1]/mdia/minf/stbl/stsd").back(), 3);
}

TEST_F(Recovery, ReportHandlerNeitherLosesNorRepeatsSamples)
{
    const SettingScope blocks("Reelmill.NFSWriteSizeInKBytes", "1024");
    {
        const auto journaled = QT::CreateJournaledReelmill();
        ASSERT_EQ(journaled->Create(path, 100), 0);
        QT::TrackID track = 0;
        ASSERT_EQ(journaled->NewMovieTrack(QT::kQTMediaTypeVideo, 25, 64, 48, MakeVideo(), track), 0);
        const auto add = [&](int inSize) {
            std::string data(static_cast<std::size_t>(inSize), 'x');
            return journaled->AddMediaSample(track, data.data(), inSize, 1, -1, 0, false);
        };
        const auto previous = Tolbin::debug::SetReportHandler([&](const Tolbin::debug::Report&, bool&) -> bool {
            EXPECT_EQ(add(5), QT::kQTErrBadState);
            EXPECT_EQ(journaled->Close(), QT::kQTErrBadState);
            throw 7;
        });
        for (const int size : {5, 200000, 1 << 20, 1 << 20})
        {
            EXPECT_THROW(add(size), int);
        }
        Tolbin::debug::SetReportHandler(previous);
    }
    const ReportCapture reports;
    RecoveryReport report;
    ASSERT_EQ(Recover(report), 0);
    EXPECT_EQ(report.damagedPlaces, 0u);
    EXPECT_BYTES(FindAtom(Movie(), "moov/trak/mdia/minf/stbl/stsz"), "#32 'stsz' #0 #0 #3 #5 #200000 #1048576");
}

//! Fails every other full frame of a journal, and counts them. Blocks of media have other sizes.
class FrameFailingFileSystem final : public ForwardingFileSystem
{
public:
    using ForwardingFileSystem::ForwardingFileSystem;

    Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                 std::size_t& outWritten) override
    {
        outWritten = 0;
        const bool isFullFrame = inLength >= 64 * 1024 && inLength < 128 * 1024;
        return isFullFrame && mFrames++ % 2 == 0
                   ? Tolbin::ResultFromSystemError(EIO)
                   : ForwardingFileSystem::Write(inHandle, inOffset, inData, inLength, outWritten);
    }

    int GetFrames() const { return mFrames; }

private:
    int mFrames = 0;
};

//! Adds samples, most of them small, to three tracks, in stretches that a journal has its own ways for, and fills the
//! last block. Calls that fail are made again.
void PlayStretches(QT::Reelmill& ioWriter, const Tolbin::UTF16String& inPath, unsigned int inSeed, int inBlockSize)
{
    std::minstd_rand random(inSeed);
    const auto chance = [&](unsigned int inOf) { return random() % inOf == 0; };
    const auto succeed = [](const std::function<Result()>& inCall) {
        int attempts = 1;
        for (; attempts < 10 && inCall() < 0; ++attempts)
        {
        }
        ASSERT_LT(attempts, 10);
    };
    succeed([&] { return ioWriter.Create(inPath, 600); });
    QT::TrackID tracks[3] = {};
    for (QT::TrackID& track : tracks)
    {
        succeed([&] {
            return ioWriter.NewMovieTrack(QT::kQTMediaTypeVideo, 25, 64, 48, QT::CreateTextDescription(), track);
        });
    }
    int end = 0;
    const auto add = [&](QT::TrackID inTrack, std::string inData, int inCount, int inDuration) {
        const int size = static_cast<int>(inData.size());
        succeed([&] { return ioWriter.AddMediaSample(inTrack, inData.data(), size, inCount, inDuration, 0, false); });
        end += size;
    };
    for (int stretch = 0; stretch < 60; ++stretch)
    {
        const auto inTurn = 1 + random() % 3, first = random() % 3, sizes = 1 + random() % 2 * (random() % 300);
        const auto durations = 1 + random() % 3, counts = 1 + random() % 2, length = random() % 200;
        const bool hasZeros = chance(4), hasLarge = chance(4), endsChunks = chance(2), endsAll = chance(2);
        for (std::size_t i = 0; i < length; ++i)
        {
            const QT::TrackID track = tracks[(first + i % inTurn) % 3];
            const std::size_t large = inBlockSize > (1 << 16) && chance(8) ? 200000 : 3000;
            std::string data(hasLarge && chance(8) ? large : 1 + random() % sizes, 'x');
            const std::size_t zeros = hasZeros && chance(4) ? 1 + data.size() / 2 * (random() % 2) : 0;
            data.replace(data.size() - zeros, zeros, zeros, '\0');
            add(track, chance(50) ? std::string() : data, 1 + static_cast<int>(random() % counts),
                static_cast<int>(random() % durations));
            if (endsChunks && (endsAll || chance(5)))
            {
                succeed([&] { return ioWriter.EndMediaChunk(tracks[chance(20) ? 0 : (first + i % inTurn) % 3]); });
            }
        }
    }
    // Either half is more than a frame of the journal holds.
    for (int i = 0; inBlockSize > (1 << 16) && i < 140000; ++i)
    {
        add(tracks[0], i < 70000 ? "x" : std::string(1 + random() % 2, '\0'), 1, i % 3);
    }
    add(tracks[0], std::string(static_cast<std::size_t>(inBlockSize - end % inBlockSize), 'x'), 1, 1);
}

TEST_F(Recovery, NothingOfPendingSamplesIsLost)
{
    for (unsigned int seed = 1; seed <= 12; ++seed)
    {
        const int kibibytes = seed % 3 == 0 ? 1024 : 4;
        const SettingScope blocks("Reelmill.NFSWriteSizeInKBytes", std::to_string(kibibytes));
        {
            FrameFailingFileSystem failing(volume);
            const Ventra::FileSystemScope failingScope(failing);
            PlayStretches(*QT::CreateJournaledReelmill(), path, seed, kibibytes * 1024);
            EXPECT_EQ(failing.GetFrames() > 2, kibibytes > 4);
        }
        RecoveryReport report;
        ASSERT_EQ(Recover(report), 0);
        EXPECT_EQ(report.samplesDropped + report.bytesCut, 0u);
        const BinaryDataArray recovered = TimelessMovie();
        const auto plain = QT::CreateReelmill();
        PlayStretches(*plain, path, seed, kibibytes * 1024);
        ASSERT_EQ(plain->Close(), 0);
        EXPECT_SAME_BYTES(recovered, TimelessMovie()) << "seed " << seed;
    }
}

//! A volume on which no file gets longer than the movie is.
class FullFileSystem final : public ForwardingFileSystem
{
public:
    FullFileSystem(Ventra::FileSystem& inNext, std::int64_t inLimit) : ForwardingFileSystem(inNext), mLimit(inLimit) {}

    Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                 std::size_t& outWritten) override
    {
        outWritten = 0;
        return inOffset + static_cast<std::int64_t>(inLength) > mLimit
                   ? Tolbin::ResultFromSystemError(ENOSPC)
                   : ForwardingFileSystem::Write(inHandle, inOffset, inData, inLength, outWritten);
    }

private:
    std::int64_t mLimit;
};

TEST_F(Recovery, MovieAtomTakesThePlaceOfSamplesOnAFullDisk)
{
    constexpr int kCount = 200000; // Their tables do not fit in front of the media.
    {
        const auto journaled = QT::CreateJournaledReelmill();
        ASSERT_EQ(journaled->Create(path, 100), 0);
        QT::TrackID track = 0;
        ASSERT_EQ(journaled->NewMovieTrack(QT::kQTMediaTypeVideo, 25, 64, 48, MakeVideo(), track), 0);
        std::string data(60, 'x');
        for (int i = 0; i < kCount; ++i)
        {
            ASSERT_EQ(journaled->AddMediaSample(track, data.data(), 40 + i % 20, 1, 1, 0, false), 0);
        }
    }
    const BinaryDataArray found = Movie();
    FullFileSystem full(volume, static_cast<std::int64_t>(found.size()));
    const Ventra::FileSystemScope fullScope(full);
    RecoveryReport report;
    RecoveryOptions options;
    EXPECT_EQ(Recover(report, options), Tolbin::ResultFromSystemError(ENOSPC));
    const std::uint64_t all = report.samplesKept;
    const BinaryDataArray left = Movie();
    EXPECT_EQ(left.size(), kMediaOffset + report.bytesKept) << "a recovery without room loses nothing";
    EXPECT_TRUE(std::equal(left.begin() + kMediaOffset, left.end(), found.begin() + kMediaOffset));
    options.dropsForSpace = true;
    ASSERT_EQ(Recover(report, options), 0);
    EXPECT_EQ(report.samplesKept + report.samplesDroppedForSpace, all);
    EXPECT_GT(report.samplesKept, all / 2);
    const BinaryDataArray movie = Movie();
    EXPECT_EQ(movie.size(), report.movieSize);
    EXPECT_LE(movie.size(), found.size());
    const std::vector<Atom> atoms = ListAtoms(movie);
    EXPECT_EQ(atoms.back().type, "moov");
    EXPECT_EQ(static_cast<std::uint64_t>(atoms.back().size), report.movieAtomSize);
    EXPECT_EQ(Big32(FindAtom(movie, "moov/trak/mdia/minf/stbl/stsz"), 16), report.samplesKept);
}

} // namespace
