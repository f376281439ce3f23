#pragma once

#include "TrackRec.h"
#include "UnbufferedWriter.h"

#include <Reelmill/Reelmill.h>
#include <Tolbin/Allocator.h>
#include <Tolbin/BinaryDataArray.h>
#include <Ventra/File.h>

#include <boost/shared_ptr.hpp>

#include <cstdint>
#include <ctime>
#include <functional>
#include <map>
#include <utility>

namespace QT
{

//! The writer. Every direct write to the file goes through `VentraFileWriteChk::Write`; media goes through the
//! `UnbufferedWriter`. The members stand so that destruction releases user data, writer, tracks, file and path in that
//! order.
class PrivateReelmill final : public Reelmill
{
public:
    Tolbin::Result Create(Tolbin::UTF16String inPath, int inMovieTimeScale) override;
    Tolbin::Result NewMovieTrack(MediaType inMediaType, int inTimeScale, int inWidth, int inHeight,
                                 boost::shared_ptr<QTSampleDescription> inSampleDescription,
                                 TrackID& outTrackID) override;
    Tolbin::Result AddMediaSample(TrackID inTrackID, void* inData, int inDataSize, std::int32_t inSampleCount,
                                  std::int32_t inSampleDuration, std::int32_t inAuxValue, bool inAuxFlag) override;
    Tolbin::Result EndMediaChunk(TrackID inTrackID) override;
    Tolbin::Result AddTextMediaSample(TrackID inTrackID, const Tolbin::UTF16String& inText, int inDuration) override;
    Tolbin::Result AddTrackUserData(TrackID inTrackID, int inUserDataType, void* inData, int inDataSize) override;
    Tolbin::Result AddUserData(int inUserDataType, void* inData, int inDataSize) override;
    Tolbin::Result AddTrackReference(TrackID inTrackID, TrackID inReferencedTrackID,
                                     TrackReferenceType inReferenceType) override;
    Tolbin::Result SetTrackTrimIn(TrackID inTrackID, int inTrimIn) override;
    Tolbin::Result Close() override;
    Tolbin::Result Flush() override;
    int GetMovieDuration() override;

private:
    using TrackMap =
        std::map<TrackID, TrackRec, std::less<>, Tolbin::allocator::STLAllocator<std::pair<const TrackID, TrackRec>>>;
    using UserDataMap = std::map<int, Tolbin::utility::BinaryDataArray>;

    enum class State
    {
        Constructed, //!< No file yet.
        Streaming,   //!< Head written; media may be added.
        Finished     //!< `Close` was called, or `Create` failed.
    };

    Tolbin::Result OpenMovieFile();
    void ReadCreationTime();
    Tolbin::Result WriteMovieStart(unsigned int inDiskBufferSize);
    Tolbin::Result WritePlaceholderAtom(int inAtomType, int inAtomSize);
    Tolbin::Result PatchMediaDataSize();
    Tolbin::Result PlaceMooVAtom(Tolbin::utility::BinaryDataArray& inMooVAtom);
    Tolbin::Result MakeMooVAtom(Tolbin::utility::BinaryDataArray& outMooVAtom);
    Tolbin::Result MakeTrackAtom(TrackID inTrackID, TrackRec& inTrack, std::map<TrackID, int>& inTrackIndexByID,
                                 Tolbin::utility::BinaryDataArray& outTrackAtom);
    Tolbin::Result GetTrackPtr(TrackID inTrackID, TrackPtr& outTrackPtr);
    Tolbin::Result Write(void* inData, std::size_t inLength);

    Tolbin::UTF16String path;
    boost::shared_ptr<Ventra::File> file;
    std::int32_t movieTimeScale = 0; //!< Movie time units per second.
    TrackMap tracks;
    std::int64_t placeholderOffset = 0;
    std::int64_t wideOffset = 0;      //!< Of the 'wide' atom, right behind the placeholder.
    std::int64_t mediaDataSize = 0;   //!< Media bytes recorded so far.
    std::int64_t mediaDataOffset = 0; //!< Of the first media byte.
    std::uint32_t diskBufferSize = 0;
    std::uint32_t placeholderSize = 0; //!< Of the whole 'skip' atom.
    std::tm creationTime{};            //!< Of the file, in UTC.
    boost::shared_ptr<UnbufferedWriter> unbufferedWriter;
    UserDataMap userData; //!< The movie's, by four-character type.
    State state = State::Constructed;
};

} // namespace QT
