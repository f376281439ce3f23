#pragma once

#include "MediaSource.h"

#include <Reelmill/QTSampleDescription.h>

#include <boost/shared_ptr.hpp>

#include <string>
#include <vector>

namespace Host
{

//! How an audio stream is described in a movie.
struct SoundFormat
{
    int sampleRate = 0;
    int bytesPerFrame = 0; //!< one sample of every channel
    std::string summary;   //!< for people: "pcm_s16le, 48000 Hz, stereo"
    std::vector<std::string> notes;
    boost::shared_ptr<QT::QTSampleDescription> description;
};

//! Refuses (RefuseStream) what is not PCM of one of the movie format's eleven forms.
SoundFormat DescribeSound(const MediaSource& inSource, const AVStream& inStream);

} // namespace Host
