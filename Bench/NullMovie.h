#pragma once

#include <NullFileSystem.h>
#include <Reelmill/QTSampleDescription.h>
#include <Reelmill/Recovery.h>
#include <Reelmill/Reelmill.h>

#include <cstddef>
#include <stdexcept>
#include <vector>

//! Throws a failure, so that nothing is measured that was not done.
inline void Check(Tolbin::Result inResult)
{
    if (inResult < 0)
    {
        throw std::runtime_error(Tolbin::ResultMessage(inResult));
    }
}

//! A movie on a volume that keeps nothing, created, with video tracks. While it lives, all files are on that volume.
struct NullMovie
{
    explicit NullMovie(std::size_t inTracks = 1, bool inIsJournaled = false)
        : writer(inIsJournaled ? QT::CreateJournaledReelmill() : QT::CreateReelmill()), tracks(inTracks)
    {
        Check(writer->Create(u"/nowhere/null.mov", 600));
        for (QT::TrackID& track : tracks)
        {
            Check(writer->NewMovieTrack(QT::kQTMediaTypeVideo, 600, 64, 48, QT::CreateTextDescription(), track));
        }
    }

    NullFileSystem fileSystem;
    Ventra::FileSystemScope scope{fileSystem};
    boost::shared_ptr<QT::Reelmill> writer;
    std::vector<QT::TrackID> tracks;
};
