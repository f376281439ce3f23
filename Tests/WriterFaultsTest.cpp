#include "Support/FailingFileSystem.h"
#include "Support/MovieTest.h"
#include "Support/SettingScope.h"
#include "Support/SparseFileSystem.h"

#include <Reelmill/Recovery.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <sys/resource.h>

using Tolbin::Result;
using Tolbin::utility::BinaryDataArray;

namespace
{

const Result kIOError = Tolbin::ResultFromSystemError(EIO);

//! In 32 bits, which come round again in 2040. Not from `time`, which may lag this clock.
std::uint32_t SecondsSince1904()
{
    const auto now = std::chrono::system_clock::to_time_t(std::chrono::system_clock::now());
    return static_cast<std::uint32_t>(now + 2082844800);
}

class WriterFaults : public MovieTest
{
};

TEST_F(WriterFaults, FileThatCannotTellItsCreationTimeWasCreatedNow)
{
    SparseFileSystem files;
    On scope(*this, files);
    const auto before = SecondsSince1904();
    ASSERT_EQ(Create(), 0);
    ASSERT_EQ(writer->Close(), 0);
    const BinaryDataArray movie = files.Read(path, 0, static_cast<std::size_t>(files.Size(path)));
    const std::uint32_t created = Big32(FindAtom(movie, "moov/mvhd"), 12);
    EXPECT_LE(created - before, SecondsSince1904() - before);
}

TEST_F(WriterFaults, SizeLimitIsAnErrorAndWhatFitsIsKept)
{
    const SettingScope setting{"Reelmill.NFSWriteSizeInKBytes", "4"};
    VolumeFileSystem volume{Ventra::FileSystem::System(), Ventra::FileSystemType::kNFS, 4096};
    On scope(*this, volume);
    rlimit previous = {};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &previous), 0);
    const rlimit limit = {kMediaOffset + 6001, previous.rlim_max};
    auto* const previousHandler = std::signal(SIGXFSZ, SIG_IGN);
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
    writer = QT::CreateJournaledReelmill();
    EXPECT_EQ(Create(), 0);
    const QT::TrackID track = NewTrack();
    EXPECT_EQ(Add(track, std::string(6000, 'a')), 0);
    EXPECT_EQ(Add(track, std::string(6000, 'b')), Tolbin::ResultFromSystemError(EFBIG));
    EXPECT_EQ(writer->Close(), Tolbin::ResultFromSystemError(EFBIG));
    QT::RecoveryReport report;
    EXPECT_EQ(QT::RecoverMovie(path, report), 0);
    EXPECT_EQ(report.samplesKept, 1u);
    setrlimit(RLIMIT_FSIZE, &previous);
    std::signal(SIGXFSZ, previousHandler);
}

TEST_F(WriterFaults, SamplesOfAFailedWriteAreNotInTheMovie)
{
    constexpr int kHeadWrites = 8;
    VolumeFileSystem volume{Ventra::FileSystem::System(), Ventra::FileSystemType::kNFS, 4096};
    const SettingScope setting{"Reelmill.NFSWriteSizeInKBytes", "4"};
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
