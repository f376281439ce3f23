#include "FitTracks.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace QT
{

bool IsMedia(const TrackRec& inTrack)
{
    return inTrack.mediaType == kQTMediaTypeVideo || inTrack.mediaType == kQTMediaTypeSound;
}

namespace
{

//! In media units.
std::int64_t EndOf(const TrackRec& inTrack)
{
    return inTrack.samples.empty() ? 0 : std::int64_t{inTrack.duration} + std::max(inTrack.trimIn, 0);
}

//! Lets the last sample last longer, or less long. The sums fit their fields.
void Lengthen(TrackRec& ioTrack, std::int64_t inBy)
{
    MediaSampleRec& last = ioTrack.samples.back();
    last.sampleDuration = static_cast<std::int32_t>(last.sampleDuration + inBy);
    ioTrack.duration = static_cast<std::int32_t>(ioTrack.duration + inBy);
    ioTrack.summary = {};
}

//! Leaves alone what is no track of its kind: samples of several at once, durations beyond their field. Returns how
//! many samples were left out.
std::uint64_t FitTrack(TrackRec& ioTrack, std::int64_t inEnd)
{
    std::uint64_t count = 0;
    while (EndOf(ioTrack) > inEnd)
    {
        const MediaSampleRec& last = ioTrack.samples.back();
        const std::int64_t excess = EndOf(ioTrack) - inEnd;
        if (last.sampleCount != 1 || last.sampleDuration <= 0)
        {
            return count;
        }
        if (excess < last.sampleDuration)
        {
            Lengthen(ioTrack, -excess);
            break;
        }
        ioTrack.duration -= last.sampleDuration;
        ioTrack.samples.pop_back();
        ++count;
    }
    const std::int64_t missing = inEnd - EndOf(ioTrack);
    if (ioTrack.mediaType == kQTMediaTypeTimecode && !ioTrack.samples.empty() && missing > 0 &&
        ioTrack.samples.back().sampleCount == 1 &&
        ioTrack.samples.back().sampleDuration + missing <= std::numeric_limits<std::int32_t>::max())
    {
        Lengthen(ioTrack, missing);
    }
    return count;
}

//! Where picture and sound end of the tracks that count, in seconds.
template <typename Predicate>
double GetMediaSeconds(const PrivateReelmill::TrackMap& inTracks, Predicate inCounts)
{
    double seconds = 0;
    for (const auto& [trackID, track] : inTracks)
    {
        if (IsMedia(track) && track.timeScale > 0 && inCounts(track))
        {
            seconds = std::max(seconds, static_cast<double>(EndOf(track)) / track.timeScale);
        }
    }
    return seconds;
}

} // namespace

std::uint64_t FitTracksToMedia(PrivateReelmill::TrackMap& ioTracks)
{
    const double mediaSeconds = GetMediaSeconds(ioTracks, [](const TrackRec&) { return true; });
    std::uint64_t count = 0;
    for (auto& [trackID, track] : ioTracks)
    {
        double seconds = mediaSeconds;
        if (track.mediaType == kQTMediaTypeTimecode)
        {
            const TrackID timecode = trackID;
            const double users = GetMediaSeconds(ioTracks, [timecode](const TrackRec& inTrack) {
                const auto found = inTrack.trackReferences.find(kQTTrackReferenceTimecode);
                return found != inTrack.trackReferences.end() &&
                       std::find(found->second.begin(), found->second.end(), timecode) != found->second.end();
            });
            seconds = users > 0 ? users : mediaSeconds;
        }
        const double end = std::round(seconds * track.timeScale);
        if (!IsMedia(track) && end > 0 && end <= std::numeric_limits<std::int32_t>::max())
        {
            count += FitTrack(track, static_cast<std::int64_t>(end));
        }
    }
    return count;
}

} // namespace QT
