#pragma once

#include "Atoms.h"
#include "Bytes.h"
#include "QTDiskTypes.h"
#include "ReportCapture.h"
#include "TempDirectory.h"
#include "VolumeFileSystem.h"

#include <Reelmill/Reelmill.h>

#include <gtest/gtest.h>

#include <string>
#include <string_view>

//! A writer on a movie in a directory of its own, on a local volume with a disk buffer of 4096 bytes.
class MovieTest : public testing::Test
{
protected:
    //! Where the head's parts lie, with that disk buffer.
    static constexpr std::int64_t kPlaceholderSize = 1048528;
    static constexpr std::int64_t kWideOffset = 1048560;
    static constexpr std::int64_t kMediaOffset = 1048576;

    //! Makes a file system the current one for a scope. The writer goes with the scope, since its files live there.
    class On
    {
    public:
        On(MovieTest& inTest, Ventra::FileSystem& inFileSystem) : mTest(inTest), mFileSystemScope(inFileSystem) {}
        ~On() { mTest.writer.reset(); }

        On(const On&) = delete;
        On& operator=(const On&) = delete;

    private:
        MovieTest& mTest;
        Ventra::FileSystemScope mFileSystemScope;
    };

    Tolbin::Result Create(int inTimeScale = 600) { return writer->Create(path, inTimeScale); }

    QT::TrackID NewTrack(QT::MediaType inType = QT::kQTMediaTypeVideo, int inTimeScale = 600,
                         boost::shared_ptr<QT::QTSampleDescription> inDescription = QT::CreateTextDescription())
    {
        QT::TrackID track = 0;
        EXPECT_EQ(writer->NewMovieTrack(inType, inTimeScale, 64, 48, inDescription, track), 0);
        return track;
    }

    Tolbin::Result Add(QT::TrackID inTrack, std::string inData, int inCount = 1, int inDuration = 1)
    {
        return writer->AddMediaSample(inTrack, inData.data(), static_cast<int>(inData.size()), inCount, inDuration, 0,
                                      false);
    }

    Tolbin::utility::BinaryDataArray Movie() const { return ReadFile(directory.Path("movie.mov")); }

    //! The finished movie without its times.
    Tolbin::utility::BinaryDataArray TimelessMovie() const
    {
        Tolbin::utility::BinaryDataArray movie = Movie();
        ClearTimes(movie);
        return movie;
    }

    Tolbin::utility::BinaryDataArray MovieAtom(std::string_view inPath) const { return FindAtom(Movie(), inPath); }

    TempDirectory directory;
    Tolbin::UTF16String path = directory.Path16("movie.mov");
    boost::shared_ptr<QT::Reelmill> writer = QT::CreateReelmill();

private:
    VolumeFileSystem mVolume{Ventra::FileSystem::System(), Ventra::FileSystemType::kLocal, 4096};
    Ventra::FileSystemScope mScope{mVolume};
};

inline int Code(const char (&inText)[5])
{
    return static_cast<int>(QT::FourCC(inText));
}
