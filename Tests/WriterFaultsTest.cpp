#include "Support/FailingFileSystem.h"
#include "Support/MovieTest.h"
#include "Support/RecordingFileSystem.h"
#include "Support/SettingScope.h"
#include "Support/ShortWriteFileSystem.h"

#include <cerrno>
#include <ctime>

using QT::kQTErrBadState;
using Tolbin::kResultShortWrite;
using Tolbin::Result;
using Tolbin::utility::BinaryDataArray;

namespace
{

const Result kIOError = Tolbin::ResultFromSystemError(EIO);

//! A movie whose media goes out in two blocks of 4096 bytes and a tail.
class WriterFaults : public MovieTest
{
protected:
    static constexpr int kSamples = 9;
    static constexpr int kSampleSize = 1000; //!< Sample 4 fills the first block, sample 8 the second.
    static constexpr int kHeadWrites = 8;    //!< 'ftyp', the 'skip' in three, 'wide' and 'mdat' in four.

    //! The results of Create, of the first sample that failed, and of Close.
    struct Results
    {
        Result create = 0;
        Result sample = 0;
        Result close = 0;

        bool operator==(const Results&) const = default;
    };

    //! Writes the whole movie, however far it gets. Nothing may be left open then.
    Results WriteMovie(Ventra::FileSystem& inFileSystem)
    {
        RecordingFileSystem files(inFileSystem);
        writer = QT::CreateReelmill();
        On scope(*this, files);
        Results results;
        results.create = Create();
        if (results.create < 0)
        {
            EXPECT_EQ(files.OpenHandles(), 0u) << "a failed Create closes what it opened";
            EXPECT_EQ(writer->Close(), kQTErrBadState);
            const std::size_t writes = files.Writes().size();
            writer.reset();
            EXPECT_EQ(files.Writes().size(), writes) << "a writer that failed writes no more";
            return results;
        }
        const QT::TrackID track = NewTrack();
        for (int i = 0; i < kSamples; ++i)
        {
            const Result result = Add(track, std::string(kSampleSize, static_cast<char>('a' + i)));
            results.sample = results.sample < 0 ? results.sample : result;
        }
        results.close = writer->Close();
        EXPECT_EQ(files.OpenHandles(), 0u) << "Close closes whatever its result";
        EXPECT_EQ(writer->Close(), kQTErrBadState);
        return results;
    }

    bool HasMovieAtom() const
    {
        const BinaryDataArray movie = Movie();
        return movie.size() > 40 && Big32(movie, 36) == QT::FourCC("moov");
    }

    VolumeFileSystem volume{Ventra::FileSystem::System(), Ventra::FileSystemType::kNFS, 4096};
    SettingScope setting{"Reelmill.NFSWriteSizeInKBytes", "4"};
};

TEST_F(WriterFaults, WithoutAFaultEverythingSucceeds)
{
    EXPECT_EQ(WriteMovie(volume), (Results{0, 0, 0}));
    EXPECT_TRUE(HasMovieAtom());
    EXPECT_EQ(Movie().size(), static_cast<std::size_t>(kMediaOffset + kSamples * kSampleSize));
}

TEST_F(WriterFaults, EveryFailedWriteIsToldByTheCallThatMadeIt)
{
    int number = 0;
    for (;;)
    {
        FailingFileSystem failing(volume, FileOperation::Write, ++number);
        const Results results = WriteMovie(failing);
        if (failing.Failures() == 0)
        {
            break;
        }
        const int inStep = number - kHeadWrites; // 1, 2: blocks; 3: tail; 4: 'mdat'; 5: 'moov'; 6 to 8: its 'skip'
        if (inStep <= 0)
        {
            EXPECT_EQ(results, (Results{kIOError, 0, 0})) << "write " << number;
        }
        else if (inStep <= 2)
        {
            EXPECT_EQ(results, (Results{0, kIOError, 0})) << "write " << number;
        }
        else
        {
            EXPECT_EQ(results, (Results{0, 0, inStep == 4 || inStep == 5 ? kIOError : 0})) << "write " << number;
            EXPECT_EQ(HasMovieAtom(), inStep != 4 && inStep != 5) << "write " << number;
        }
    }
    EXPECT_EQ(number - 1, kHeadWrites + 8) << "writes of the movie";
}

TEST_F(WriterFaults, FromAnyWriteOnTheFirstFailureOfACallIsItsResult)
{
    for (int number = 1; number <= kHeadWrites + 5; ++number)
    {
        FailingFileSystem failing(volume, FileOperation::Write, number, FailingFileSystem::FromThenOn, ENOSPC);
        const Result full = Tolbin::ResultFromSystemError(ENOSPC);
        const Results expected = number <= kHeadWrites       ? Results{full, 0, 0}
                                 : number <= kHeadWrites + 2 ? Results{0, full, full}
                                                             : Results{0, 0, full};
        EXPECT_EQ(WriteMovie(failing), expected) << "write " << number;
        EXPECT_FALSE(HasMovieAtom()) << "write " << number;
    }
}

TEST_F(WriterFaults, EveryWriteThatTakesNothingIsAShortWrite)
{
    for (int number = 1; number <= kHeadWrites + 5; ++number)
    {
        ShortWriteFileSystem shortWrites(volume, 0, number);
        const Results expected = number <= kHeadWrites       ? Results{kResultShortWrite, 0, 0}
                                 : number <= kHeadWrites + 2 ? Results{0, kResultShortWrite, kResultShortWrite}
                                                             : Results{0, 0, kResultShortWrite};
        EXPECT_EQ(WriteMovie(shortWrites), expected) << "write " << number;
    }
}

TEST_F(WriterFaults, PartialAndInterruptedWritesLeaveNoTrace)
{
    ASSERT_EQ(WriteMovie(volume), (Results{0, 0, 0}));
    const BinaryDataArray clean = TimelessMovie();
    ShortWriteFileSystem shortWrites(volume, 777);
    EXPECT_EQ(WriteMovie(shortWrites), (Results{0, 0, 0}));
    EXPECT_SAME_BYTES(TimelessMovie(), clean);
    for (int number = 1; number <= kHeadWrites + 8; ++number)
    {
        FailingFileSystem interrupted(volume, FileOperation::Write, number, FailingFileSystem::Once, EINTR);
        EXPECT_EQ(WriteMovie(interrupted), (Results{0, 0, 0})) << "write " << number;
        EXPECT_SAME_BYTES(TimelessMovie(), clean) << "write " << number;
    }
}

TEST_F(WriterFaults, OfOtherOperations)
{
    struct Row
    {
        FileOperation operation;
        int number;
        Results expected;
    };
    const Row rows[] = {
        {FileOperation::Open, 1, {kIOError, 0, 0}}, {FileOperation::Open, 2, {kIOError, 0, 0}}, // the unbuffered handle
        {FileOperation::Seek, 1, {0, 0, 0}},        // to the start of the new file
        {FileOperation::Seek, 2, {kIOError, 0, 0}}, // the unbuffered handle, to the first media byte
        {FileOperation::BufferSize, 1, {0, 0, 0}},  // 4096 bytes are taken then
        {FileOperation::Close, 1, {0, 0, 0}},       {FileOperation::Close, 2, {0, 0, 0}},
    };
    for (const Row& row : rows)
    {
        FailingFileSystem failing(volume, row.operation, row.number);
        const std::string name =
            std::to_string(static_cast<int>(row.operation)) + ", call " + std::to_string(row.number);
        EXPECT_EQ(WriteMovie(failing), row.expected) << "operation " << name;
        EXPECT_EQ(failing.Failures(), 1) << "operation " << name;
        if (row.expected.create == 0)
        {
            EXPECT_TRUE(HasMovieAtom()) << "operation " << name;
            EXPECT_EQ(Movie().size(), static_cast<std::size_t>(kMediaOffset + kSamples * kSampleSize));
        }
    }
}

TEST_F(WriterFaults, FailedOpenOfTheMovieWritesNothing)
{
    FailingFileSystem failing(volume, FileOperation::Open, 1);
    RecordingFileSystem files(failing);
    On scope(*this, files);
    EXPECT_EQ(Create(), kIOError);
    EXPECT_TRUE(files.Writes().empty());
    EXPECT_EQ(files.Opens().size(), 1u);
    EXPECT_FALSE(std::filesystem::exists(directory.Path("movie.mov")));
}

//! Opens every file under another name.
class ElsewhereFileSystem final : public ForwardingFileSystem
{
public:
    using ForwardingFileSystem::ForwardingFileSystem;

    Result Open(const Tolbin::UTF16String& inPath, const Ventra::FileOpenMode& inMode, Handle& outHandle) override
    {
        return ForwardingFileSystem::Open(inPath + u".elsewhere", inMode, outHandle);
    }
};

TEST_F(WriterFaults, FileThatCannotTellItsCreationTimeWasCreatedNow)
{
    ElsewhereFileSystem elsewhere(volume);
    const std::time_t before = std::time(nullptr);
    EXPECT_EQ(WriteMovie(elsewhere), (Results{0, 0, 0}));
    const BinaryDataArray movie = ReadFile(directory.Path("movie.mov.elsewhere"));
    const std::int64_t created = Big32(FindAtom(movie, "moov/mvhd"), 12) - std::int64_t{2082844800};
    EXPECT_GE(created, before);
    EXPECT_LE(created, std::time(nullptr));
}

TEST_F(WriterFaults, SamplesOfAFailedWriteAreNotInTheMovie)
{
    FailingFileSystem failing(volume, FileOperation::Write, kHeadWrites + 1);
    On scope(*this, failing);
    ASSERT_EQ(Create(), 0);
    const QT::TrackID track = NewTrack();
    EXPECT_EQ(Add(track, std::string(3000, 'a'), 1, 10), 0);
    EXPECT_EQ(Add(track, std::string(3000, 'b'), 1, 10), kIOError);
    EXPECT_EQ(writer->GetMovieDuration(), 10);
    EXPECT_EQ(writer->EndMediaChunk(track), 0);
    EXPECT_EQ(Add(track, std::string(500, 'c'), 1, 10), 0);
    ASSERT_EQ(writer->Close(), 0);
    // 'mdat' counts the media that was taken, so that the hole leaves bytes behind it.
    const BinaryDataArray movie = Movie();
    const BinaryDataArray head(movie.begin(), movie.begin() + kMediaOffset - 8);
    EXPECT_EQ(Big32(movie, kMediaOffset - 8), 3508u);
    EXPECT_BYTES(FindAtom(head, "moov/trak/mdia/minf/stbl/stsz"), "#28 'stsz' #0 #0 #2 #3000 #500");
    EXPECT_BYTES(FindAtom(head, "moov/trak/mdia/minf/stbl/stco"), "#24 'stco' #0 #2 #1048576 #1052672")
        << "the block that failed counts as written";
    EXPECT_BYTES(BinaryDataArray(movie.begin() + kMediaOffset + 4096, movie.end()), "63*500");
}

} // namespace
