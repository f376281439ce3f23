#pragma once

#include "DescriptionOptions.h"
#include "MediaSource.h"

#include <Reelmill/QTSampleDescription.h>

#include <boost/shared_ptr.hpp>

#include <cstddef>
#include <string>
#include <vector>

namespace Host
{

//! How a video stream is described in a movie.
struct VideoFormat
{
    int trackWidth = 0; //!< Size at which the track is shown, with the pixel aspect applied.
    int trackHeight = 0;
    std::size_t frameSize = 0; //!< Bytes that every packet must have; 0 when they differ.
    bool needsKeyFlag = false; //!< The codec does not promise that frames stand alone, so each packet must say so.
    bool isOneImage = false;   //!< A packet must hold one JPEG image, not one for each field.
    std::string summary;       //!< for people: "Apple ProRes 422 HQ ('apch'), 1920x1080"
    std::vector<std::string> notes;
    boost::shared_ptr<QT::QTImageDescription> description;
};

//! Refuses (RefuseStream) what the format cannot hold: inter-frame codecs, codecs and pixel layouts without a tag,
//! sizes outside 1 to 65535. What the options say counts more than what the input says; one that does not fit the
//! stream is refused.
VideoFormat DescribeVideo(const MediaSource& inSource, AVStream& ioStream, const VideoOptions& inOptions);

} // namespace Host
