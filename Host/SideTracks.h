#pragma once

#include "MovieWriter.h"
#include "Refusals.h"
#include "SccFile.h"
#include "TextTrack.h"
#include "Track.h"
#include "TrackOptions.h"
#include "Wrap.h"

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace Host
{

//! The tracks that a movie has beside its media (timecode, chapters, texts, captions), the references between tracks and
//! the metadata.
class SideTracks
{
public:
    //! A track of the media, and what is known of it.
    struct Media
    {
        const Track* track = nullptr;
        QT::TrackID id = 0;
        std::int64_t trimIn = 0;   //!< units
        std::int64_t duration = 0; //!< units written so far
        double inputStart = 0;     //!< seconds: where the track's input begins in its own time
    };

    //! Reads all files that the options name. What is refused here and below goes to `ioRefusals`.
    SideTracks(const TrackOptions& inOptions, Refusals& ioRefusals);

    //! Those files, which must not be written over.
    std::vector<std::string> GetFiles() const;

    //! Delay that was asked for on a track of the media, by its number.
    std::int64_t GetTrimIn(int inNumber, int inTimeScale) const;

    //! Refuses what does not fit the media. \param inEnd  length of the movie in seconds, where the
    //! inputs state it
    void Fit(const std::vector<Media>& inMedia, std::optional<double> inEnd);

    //! Adds the tracks, behind all those of the media, and the metadata; writes what belongs to the front of the media.
    void Start(MovieWriter& ioWriter, const std::vector<Media>& inMedia);

    //! A frame of `inTrack` is written: `inEnd` units after the track's first.
    void TakeFrame(const Track& inTrack, std::int64_t inDuration, std::int64_t inEnd);

    //! Writes what starts before `inEnd` seconds, each track in a chunk.
    void WriteUpTo(MovieWriter& ioWriter, double inEnd);

    //! The media has ended, after `inEnd` seconds: writes the rest. Refuses a file of which what is left begins only
    //! after the end.
    void Finish(MovieWriter& ioWriter, const std::vector<Media>& inMedia, double inEnd);

    //! After `Finish`: the tracks are to be cut, or the timecode to last, until the end of the media.
    bool EndsWithMedia() const { return mEndsWithMedia; }

    //! The media ends before its planned end: what is ready is written. The writer cuts the tracks.
    void FinishEarly(MovieWriter& ioWriter, const std::vector<Media>& inMedia);

    void Summarise(WrapSummary& ioSummary) const;

private:
    //! What all kinds of side track have.
    struct Side
    {
        std::string kind;
        std::string format;
        QT::TrackID id = 0;
        int timeScale = 0;
        int number = 0;
        std::int64_t trimIn = 0;
        std::int64_t duration = 0;
        std::int64_t samples = 0;
        std::uint64_t bytes = 0;
    };
    struct TimecodeTrack
    {
        Side side;
        Timecode timecode;
        AVRational rate = {0, 1};
        std::size_t video = 0; //!< among the media
        int frameDuration = 0; //!< units
    };
    struct TextTrack
    {
        Side side;
        std::string option; //!< "--text" or "--chapters"
        std::string source;
        bool isChapters = false;
        bool hasFormatting = false;
        std::vector<Cue> cues;
        std::size_t next = 0;
        std::optional<std::int64_t> limit; //!< the end of the movie, in units of cues, once it is known
        std::int64_t cutCount = 0;
    };
    struct CaptionTrack
    {
        Side side;
        CaptionQueue queue;
        Timecode start;                                                        //!< on the first video frame
        std::vector<std::pair<std::vector<std::uint8_t>, std::int64_t>> ready; //!< samples and their durations
        std::size_t cutCount = 0;
    };

    void FitTimecode(const std::vector<Media>& inMedia);
    void FitChapters(const std::vector<Media>& inMedia);
    void FitTexts(std::optional<double> inEnd);
    void FitCaptions(const std::vector<Media>& inMedia, std::optional<double> inEnd);
    void FitNumbers(const std::vector<Media>& inMedia);
    std::int64_t ExtraTrimIn(const Side& inSide, bool inFollowsVideo) const;
    std::int64_t LimitOf(const TextTrack& inTrack, double inEnd) const;
    QT::TrackID FindTrack(int inNumber, const std::vector<Media>& inMedia);
    void AddReferences(MovieWriter& ioWriter, const std::vector<Media>& inMedia);
    void AddMetadata(MovieWriter& ioWriter, const std::vector<Media>& inMedia);
    void SetTrimIns(MovieWriter& ioWriter, const std::vector<Media>& inMedia);
    void WriteTimecode(MovieWriter& ioWriter, std::int64_t inDuration);
    void WriteText(MovieWriter& ioWriter, TextTrack& ioTrack, std::int64_t inUpTo) const;
    void WriteCaptions(MovieWriter& ioWriter);
    std::vector<Side*> ListSides();
    void RefuseStart(const TextTrack& inTrack, const Cue& inCue, double inEnd) const;
    void CheckCaptionStart(double inVideoSeconds) const;

    const TrackOptions& mOptions;
    Refusals& mRefusals;
    bool mIsWhole = true; //!< Every track that the options ask for is known, and so is its number.
    std::vector<MetadataItem> mMetadata;
    std::vector<TrackOptions::TrackMetadata> mTrackMetadata;
    std::vector<SccLine> mCaptionLines;
    std::optional<std::size_t> mVideo; //!< the first video, among the media
    int mMediaCount = 0;
    bool mEndsWithMedia = false;
    std::optional<TimecodeTrack> mTimecode;
    std::vector<TextTrack> mTexts; //!< chapters first
    std::optional<CaptionTrack> mCaptions;
    const Track* mCaptioned = nullptr;
    std::vector<std::string> mNotes;
};

} // namespace Host
