#pragma once

#include "DescriptionOptions.h"
#include "MediaSource.h"

#include <Reelmill/QTSampleDescription.h>

#include <boost/shared_ptr.hpp>

#include <optional>
#include <string>
#include <vector>

namespace Host
{

//! How an audio stream is described in a movie.
struct SoundFormat
{
    int sampleRate = 0;
    int bytesPerFrame = 0; //!< one sample of every channel of the stream
    int bytesPerSample = 0;
    std::string summary; //!< for people: "pcm_s16le, 48000 Hz, stereo"
    std::vector<std::string> notes;
    boost::shared_ptr<QT::QTSampleDescription> description;
};

//! Refuses (RefuseStream) what is not PCM of one of the movie format's eleven forms, and labels (RefuseOption) that do
//! not fit the stream.
//!
//! \param inLabels   what the channels are for, whatever the input says; null without
//! \param inChannel  describes a track of this channel of the stream, instead of one of all
SoundFormat DescribeSound(const MediaSource& inSource, const AVStream& inStream, const AudioLabels* inLabels,
                          std::optional<int> inChannel);

} // namespace Host
