#pragma once

#include <Tolbin/Result.h>

#include <cstdint>

namespace QT
{

//! What a track carries. Decides its handlers, its media information header and its track-header flags.
enum MediaType : std::uint32_t
{
    kQTMediaTypeVideo = 256,
    kQTMediaTypeSound = 257,
    kQTMediaTypeTimecode = 258,
    kQTMediaTypeClosedCaption = 259,
    kQTMediaTypeText = 260
};

//! How one track depends on another ('tref').
enum TrackReferenceType : std::uint32_t
{
    kQTTrackReferenceTimecode = 256, //!< 'tmcd': the other track is this track's timecode.
    kQTTrackReferenceChapter = 257   //!< 'chap': the other track holds this track's chapters.
};

//! Names a track of one writer while it lives: 256, 257, ... in order of creation. The file numbers its tracks from 1.
using TrackID = unsigned long;
static_assert(sizeof(TrackID) == 8, "track IDs have 64 bits");

//! Gamma of a video track ('gama'). Every value but the first is written as 2.2.
enum GammaValue : std::int32_t
{
    kQTGammaNone = -1,
    kQTGamma22 = 0
};

//! \name Results of the library, beside those of <Tolbin/Result.h>. `Tolbin::ResultMessage` spells them out.
//! @{
constexpr Tolbin::Result kQTErrUnknownTrackID = Tolbin::MakeResult(0xA0810001);   //!< No track has the given ID.
constexpr Tolbin::Result kQTErrUnknownMediaType = Tolbin::MakeResult(0xA0810002); //!< Not one of the five media types.
constexpr Tolbin::Result kQTErrNullUserData = Tolbin::MakeResult(0xA0810003);     //!< User data without a pointer.
constexpr Tolbin::Result kQTErrBadState = Tolbin::MakeResult(0xA0810004);    //!< Before a successful `Create`, a second
                                                                             //!< `Create`, after `Close`, or amid
                                                                             //!< another call.
constexpr Tolbin::Result kQTErrBadArgument = Tolbin::MakeResult(0xA0810005); //!< An argument that no movie can hold.
constexpr Tolbin::Result kQTErrTooLarge = Tolbin::MakeResult(0xA0810006);    //!< An atom would pass its 32-bit size.
constexpr Tolbin::Result kQTErrBadJournal = Tolbin::MakeResult(0xA0810007);  //!< No journal that can be read here.
constexpr Tolbin::Result kQTErrOtherMovie = Tolbin::MakeResult(0xA0810008);  //!< The journal of another movie.
constexpr Tolbin::Result kQTErrNothingWhole = Tolbin::MakeResult(0xA0810009); //!< No whole sample is in the file.
using Tolbin::kResultFailed;      //!< A track's sample description gave no bytes.
using Tolbin::kResultOutOfMemory; //!< Memory could not be obtained, or an exception ended the assembly of 'moov'.
using Tolbin::kResultShortWrite;  //!< The system wrote fewer bytes than it was asked to.
//! @}

} // namespace QT
