#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Inspect
{

//! How bad a finding is.
enum class Severity
{
    kNote,    //!< Unusual, but every reader copes.
    kWarning, //!< Some readers will stumble or show something else.
    kError    //!< The file contradicts itself or its format, or media is missing.
};

//! The name of every check, in alphabetical order. Names are stable from version to version.
inline constexpr std::array kChecks = std::to_array<std::string_view>({
    "aperture",          //!< 'tapt' is complete and agrees with the description.
    "atom-count",        //!< The file has no more atoms than are read.
    "atom-depth",        //!< Atoms are nested no deeper than is read.
    "atom-long",         //!< An atom ends with its last field.
    "atom-short",        //!< An atom holds all of its fields.
    "atom-size",         //!< An atom has room for its header and fits the atom around it, or the file.
    "atom-twice",        //!< What describes one thing is there once.
    "atom-type",         //!< The types of the top level are characters.
    "atom-version",      //!< An atom has a version that the format defines.
    "chunk-outside",     //!< Every chunk lies inside an 'mdat'.
    "chunk-overlap",     //!< No two chunks share bytes.
    "clean-aperture",    //!< 'clap' lies inside the frame.
    "ctts-count",        //!< 'ctts' counts as many samples as 'stsz'.
    "data-reference",    //!< A description's media is in one of the places that 'dref' lists.
    "dref-count",        //!< 'dref' holds as many entries as it says.
    "duration-width",    //!< A 32-bit duration stays below 2^31, where signed readers turn negative.
    "edit-none",         //!< An edit list has entries.
    "edit-range",        //!< An edit ends with its media.
    "edit-rate",         //!< An edit plays at its media's own speed.
    "edit-time",         //!< An edit begins in its media, or is empty (-1).
    "entry-format",      //!< A sample description has a data format.
    "entry-short",       //!< A sample description holds all of its fields.
    "external-media",    //!< The media lies in this file.
    "field",             //!< 'fiel' counts one field or two.
    "fragments",         //!< The movie has no fragments, or has announced them ('mvex').
    "frame-short",       //!< Uncompressed frames have bytes for all of their pixels.
    "ftyp-order",        //!< 'ftyp' stands in front of the movie and its media.
    "generic-header",    //!< 'gmhd' holds 'gmin' and what its kind of media needs.
    "handler",           //!< The kind of media is a known one.
    "media-duration",    //!< 'mdhd' lasts as long as the samples.
    "media-header",      //!< The media information header is the one for the kind of media.
    "media-kind",        //!< Descriptions and samples are of the kind of media that the track has.
    "media-unused",      //!< Every byte of an 'mdat' belongs to a track.
    "moov-in-media",     //!< No 'moov' hides in an 'mdat' of a file that has none.
    "moov-twice",        //!< The file has one 'moov'.
    "movie-duration",    //!< 'mvhd' lasts as long as the longest track.
    "next-track-id",     //!< The next track ID is a free one.
    "no-dref",           //!< The track says where its media is.
    "no-hdlr",           //!< The track says what kind of media it has.
    "no-mdat",           //!< A file with samples has media.
    "no-mdhd",           //!< The media has a header.
    "no-mdia",           //!< The track has media.
    "no-moov",           //!< The file has a movie.
    "no-mvhd",           //!< The movie has a header.
    "no-stbl",           //!< The track has a sample table.
    "no-tkhd",           //!< The track has a header.
    "no-tracks",         //!< The movie has tracks.
    "offset-width",      //!< Chunk offsets are as wide as the file needs.
    "payload-limit",     //!< The atoms that describe the movie are of a size that can be read.
    "picture",           //!< PNG, JPEG, TIFF, TGA and JPEG 2000 samples are such pictures, of the size described.
    "pixel-aspect",      //!< 'pasp' has no 0.
    "reference-kind",    //!< A timecode reference leads to timecode, a chapter reference to what can be chapters.
    "reference-none",    //!< No reference leads to track 0.
    "reference-self",    //!< No track refers to itself.
    "reference-size",    //!< A reference is a whole number of track IDs.
    "reference-track",   //!< A reference leads to a track that exists.
    "sdtp-count",        //!< 'sdtp' has as many entries as 'stsz'.
    "sound-channels",    //!< A sound description has channels.
    "sound-frame",       //!< Channels and sample size of PCM make its frame size.
    "sound-labels",      //!< 'chan' has as many channels as the sound.
    "sound-rate",        //!< A sound description has a sample rate.
    "sound-size",        //!< Samples of PCM are whole frames.
    "stsc-count",        //!< The chunks hold as many samples as 'stsz' counts.
    "stsc-description",  //!< Chunks use descriptions that exist.
    "stsc-empty",        //!< Chunks hold samples.
    "stsc-order",        //!< 'stsc' counts through the chunks that there are.
    "stsd-count",        //!< 'stsd' holds as many descriptions as it says.
    "stsd-none",         //!< The track has a sample description.
    "stss-order",        //!< 'stss' names samples that exist, in ascending order.
    "stts-count",        //!< 'stts' gives times to as many samples as 'stsz' counts.
    "table-count",       //!< A table has as many entries as it says.
    "table-missing",     //!< No table is missing.
    "time-scale",        //!< No time scale is 0.
    "timecode-drop",     //!< Drop-frame counting is used with rates that have it.
    "timecode-duration", //!< Timecode lasts as long as the track that it belongs to.
    "timecode-rate",     //!< The timecode's frame count fits its frame duration.
    "timecode-sample",   //!< A timecode sample is one frame number.
    "track-duration",    //!< 'tkhd' lasts as long as the edits.
    "track-id",          //!< Every track has an ID of its own.
    "track-size",        //!< Video is shown with a size.
    "trailing-bytes",    //!< Nothing follows the last atom.
    "user-text",         //!< Texts of user data have their length and language in front.
    "video-size",        //!< A video description has a width and a height.
});

//! The name of a check, known when the program is compiled.
class CheckName
{
public:
    // Implicit, so that a check is named where it fails; does not compile with a name that is not listed.
    consteval CheckName(const char* inName)
        : mIndex(static_cast<std::size_t>(std::find(kChecks.begin(), kChecks.end(), inName) - kChecks.begin()))
    {
        if (mIndex == kChecks.size())
        {
            throw "no such check";
        }
    }

    std::size_t GetIndex() const { return mIndex; } //!< In `kChecks`.

private:
    std::size_t mIndex;
};

//! One thing that is wrong with a file.
struct Finding
{
    Severity severity;
    std::string check;    //!< One of `kChecks`.
    std::uint64_t offset; //!< In the file, of the atom or the bytes in question.
    std::uint32_t track;  //!< ID of the track in question, 0 for none.
    std::string what;     //!< One sentence without a full stop.
};

//! So many findings of one check are listed.
inline constexpr std::uint64_t kMaxListedPerCheck = 100;

//! Collects findings. Past a limit those of one check are only counted, so that a file that is wrong throughout stays
//! readable and nothing else is lost from sight.
class Findings
{
public:
    void Add(Severity inSeverity, CheckName inCheck, std::uint64_t inOffset, std::uint32_t inTrack,
             const std::string& inWhat);

    const std::vector<Finding>& List() const { return mList; }
    std::uint64_t GetOmittedCount() const { return mOmittedCount; }
    bool HasErrors() const { return mHasErrors; }

private:
    std::vector<Finding> mList;
    std::array<std::uint64_t, kChecks.size()> mCounts{}; //!< Of each check.
    std::uint64_t mOmittedCount = 0;
    bool mHasErrors = false;
};

} // namespace Inspect
