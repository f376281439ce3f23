#include "PrivateReelmill.h"
#include "QTAtomHelpers.h"

#include <Tolbin/Debug.h>
#include <Tolbin/FileSupport.h>
#include <Ventra/DiskUtils.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <chrono>
#include <memory>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

namespace QT
{

namespace
{

constexpr std::uint32_t kMediaStartTarget = 0x100000;    //!< The first media byte lies here or beyond.
constexpr std::uint32_t kHeadSize = 48;                  //!< 'ftyp', 'wide' and the 'mdat' header together.
constexpr std::uint32_t kMaxDiskBufferSize = 0xFFF00000; //!< Beyond, the placeholder's size does not fit 32 bits.
constexpr std::size_t kMaxTextLength =
    (0xFFFF - 2) / 2; //!< Code units; the length field counts the mark's 2 bytes too.
constexpr TrackID kFirstTrackID = 256;

const char* QTResultMessage(Tolbin::Result inResult)
{
    switch (inResult)
    {
    case kQTErrUnknownTrackID:
        return "no track of this movie has that ID";
    case kQTErrUnknownMediaType:
        return "the media type is not one of video, sound, timecode, closed caption and text";
    case kQTErrNullUserData:
        return "a user data item came without a data pointer";
    case kQTErrBadState:
        return "the movie is not open: it was not created, its creation failed, it is closed already, or it is amid "
               "another call";
    case kQTErrBadArgument:
        return "an argument, or the volume's disk-buffer size, has a value that no movie can be written with";
    case kQTErrTooLarge:
        return "an atom of the movie would pass what its 32-bit size can hold";
    case kQTErrBadJournal:
        return "the file is not a journal, or one of a version that is not known here";
    case kQTErrOtherMovie:
        return "the journal belongs to another movie";
    case kQTErrNothingWhole:
        return "no whole sample of the movie has reached the file";
    default:
        return nullptr;
    }
}

const Tolbin::ResultMessages sResultMessages(QTResultMessage);

//! Whether an item can be stored among these. \return 0; what `AddUserData` gives otherwise.
Tolbin::Result CheckItem(const std::map<int, Tolbin::utility::BinaryDataArray>& inItems, int inType, const void* inData,
                         int inSize)
{
    if (inData == nullptr)
    {
        return kQTErrNullUserData;
    }
    if (inSize < 0)
    {
        return kQTErrBadArgument;
    }
    const auto itemSize = [](std::size_t inPayloadSize) { return kAtomHeaderSize + std::uint64_t{inPayloadSize}; };
    std::uint64_t size = kAtomHeaderSize + itemSize(static_cast<std::size_t>(inSize));
    for (const auto& [type, payload] : inItems)
    {
        size += type != inType ? itemSize(payload.size()) : 0;
    }
    return size > kMaxAtomSize ? kQTErrTooLarge : Tolbin::kResultSuccess;
}

//! Stores a copy of an item, in place of an earlier one of its type.
Tolbin::Result StoreItem(std::map<int, Tolbin::utility::BinaryDataArray>& ioItems, int inType, const void* inData,
                         int inSize)
{
    const Tolbin::Result result = CheckItem(ioItems, inType, inData, inSize);
    if (result >= 0)
    {
        const auto* bytes = static_cast<const std::uint8_t*>(inData);
        ioItems.insert_or_assign(inType, Tolbin::utility::BinaryDataArray(bytes, bytes + inSize));
    }
    return result;
}

//! Reports that the assembly of 'moov' ended in an exception; never throws itself, though memory may be exhausted and
//! the handler is the host's.
void ReportAssemblyException() noexcept
{
    try
    {
        TOLBIN_REPORT("0", "");
    }
    catch (...) // NOLINT(bugprone-empty-catch): the result tells as much.
    {
    }
}

//! Closes the movie file at the end of a scope, exceptions included, unless released.
class FileCloser
{
public:
    FileCloser(boost::shared_ptr<Ventra::File>& ioFile, boost::shared_ptr<UnbufferedWriter>& ioWriter)
        : mFile(ioFile), mWriter(ioWriter)
    {
    }

    FileCloser(const FileCloser&) = delete;
    FileCloser& operator=(const FileCloser&) = delete;

    ~FileCloser()
    {
        if (!mIsReleased)
        {
            mWriter.reset();
            static_cast<void>(mFile->Close()); // Everything that matters has been written, or has failed already.
        }
    }

    void Release() { mIsReleased = true; }

private:
    boost::shared_ptr<Ventra::File>& mFile;
    boost::shared_ptr<UnbufferedWriter>& mWriter;
    bool mIsReleased = false;
};

} // namespace

Reelmill::~Reelmill() = default;

boost::shared_ptr<Reelmill> CreateReelmill()
{
    return boost::make_shared<PrivateReelmill>();
}

// ---- File and head --------------------------------------------------------------------------------------------------

Tolbin::Result PrivateReelmill::Create(Tolbin::UTF16String inPath, int inMovieTimeScale)
{
    if (state != State::Constructed)
    {
        return kQTErrBadState;
    }
    state = State::Finished; // Until everything has succeeded.
    path = inPath;
    movieTimeScale = inMovieTimeScale;
    file = boost::make_shared<Ventra::File>();
    FileCloser closer(file, unbufferedWriter);
    const Tolbin::Result result = OpenMovieFile();
    if (result >= 0)
    {
        state = State::Streaming;
        closer.Release();
    }
    return result;
}

Tolbin::Result PrivateReelmill::OpenMovieFile()
{
    Tolbin::Result result =
        file->Create(path, Ventra::FileAccessFlags::kWrite, Ventra::FileShareModeFlags::kReadWrite,
                     Ventra::FileCreateDispositionFlags::kCreateAlways, Ventra::FileAttributesFlags::kNormal, false);
    if (result < 0)
    {
        return result;
    }
    ReadCreationTime();
    // On failure the size is the platform's default.
    static_cast<void>(Ventra::DiskUtils::GetEfficientDiskBufferSizeFromPath(path, diskBufferSize));
    if (diskBufferSize == 0 || diskBufferSize > kMaxDiskBufferSize)
    {
        return kQTErrBadArgument;
    }
    result = WriteMovieStart(diskBufferSize);
    if (result < 0)
    {
        return result;
    }
    unbufferedWriter = CreateUnbufferedWriter(diskBufferSize, result);
    if (result < 0)
    {
        return result;
    }
    return unbufferedWriter->OpenExisting(file, path, mediaDataOffset);
}

void PrivateReelmill::ReadCreationTime()
{
    std::chrono::system_clock::time_point created;
    try
    {
        created = Tolbin::filesupport::File(path, Tolbin::filesupport::StorageType::kFileSystem).Created();
    }
    catch (const std::system_error&)
    {
        created = std::chrono::system_clock::now(); // The file was created a moment ago.
    }
    const std::time_t seconds = std::chrono::system_clock::to_time_t(created);
    // The reentrant form of `gmtime`: writers on different threads share nothing. Fails for years beyond 32 bits only.
    static_cast<void>(gmtime_r(&seconds, &creationTime));
}

// On disk afterwards: 0 'ftyp' (32), 32 'skip' (P), 32 + P 'wide' (8), 40 + P the header of 'mdat' (8), 48 + P the
// first media byte: the smallest multiple of the disk-buffer size that is not below 1 MiB.
Tolbin::Result PrivateReelmill::WriteMovieStart(unsigned int inDiskBufferSize)
{
    placeholderSize = (inDiskBufferSize + (kMediaStartTarget - 1)) / inDiskBufferSize * inDiskBufferSize - kHeadSize;

    // Positions are not checked: the writes behind them are.
    long long position = 0;
    static_cast<void>(file->SetFilePointer(0, Ventra::FilePointerMoveMethod::kBegin));
    qtn_FileTypeAtom fileType;
    Tolbin::Result result = Write(&fileType, sizeof(fileType));
    if (result < 0)
    {
        return result;
    }
    static_cast<void>(file->GetFilePointer(position));
    placeholderOffset = position;
    result = WritePlaceholderAtom(FourCC("skip"), static_cast<int>(placeholderSize));
    if (result < 0)
    {
        return result;
    }
    static_cast<void>(file->GetFilePointer(position));
    wideOffset = position;
    result = WriteMediaDataStart();
    static_cast<void>(file->GetFilePointer(position));
    mediaDataOffset = position;
    return result;
}

// On disk afterwards, from the file pointer on: 'wide' (8) and the header of 'mdat' (8), whose size is provisional.
Tolbin::Result PrivateReelmill::WriteMediaDataStart()
{
    Tolbin::Result result = Tolbin::kResultSuccess;
    for (const std::uint32_t word :
         {std::uint32_t{kAtomHeaderSize}, FourCC("wide"), std::uint32_t{kAtomHeaderSize}, FourCC("mdat")})
    {
        big_uint32_t field = word;
        result = Write(&field, sizeof(field));
        if (result < 0)
        {
            break;
        }
    }
    return result;
}

// On disk afterwards, from the file pointer on: size, type, zeros up to `inAtomSize` bytes.
Tolbin::Result PrivateReelmill::WritePlaceholderAtom(int inAtomType, int inAtomSize)
{
    big_uint32_t size = Bits32(inAtomSize);
    Tolbin::Result result = Write(&size, sizeof(size));
    if (result < 0)
    {
        return result;
    }
    big_uint32_t type = Bits32(inAtomType);
    result = Write(&type, sizeof(type));
    if (result < 0)
    {
        return result;
    }
    const std::size_t bodySize = size - std::uint32_t{kAtomHeaderSize};
    const std::unique_ptr<char[]> body(new (std::nothrow) char[bodySize]());
    return body ? Write(body.get(), bodySize) : Tolbin::kResultOutOfMemory;
}

Tolbin::Result PrivateReelmill::Write(void* inData, std::size_t inLength)
{
    unsigned int bytesWritten = 0;
    return VentraFileWriteChk::Write(file, inData, Low32(inLength), bytesWritten);
}

Tolbin::Result PrivateReelmill::Flush()
{
    return state == State::Streaming ? Tolbin::kResultSuccess : kQTErrBadState;
}

// ---- Tracks and media -----------------------------------------------------------------------------------------------

Tolbin::Result PrivateReelmill::NewMovieTrack(MediaType inMediaType, int inTimeScale, int inWidth, int inHeight,
                                              boost::shared_ptr<QTSampleDescription> inSampleDescription,
                                              TrackID& outTrackID)
{
    const Tolbin::Result result = CheckNewTrack(inMediaType, inSampleDescription);
    if (result < 0)
    {
        return result;
    }
    const TrackID trackID = kFirstTrackID + tracks.size();
    tracks.emplace(trackID, TrackRec(inMediaType, inTimeScale, inWidth, inHeight, inSampleDescription));
    outTrackID = trackID;
    return result;
}

Tolbin::Result PrivateReelmill::CheckNewTrack(MediaType inMediaType,
                                              const boost::shared_ptr<QTSampleDescription>& inSampleDescription) const
{
    if (state != State::Streaming)
    {
        return kQTErrBadState;
    }
    if (!IsKnownMediaType(inMediaType))
    {
        return kQTErrUnknownMediaType;
    }
    return inSampleDescription ? Tolbin::kResultSuccess : kQTErrBadArgument;
}

Tolbin::Result PrivateReelmill::GetTrackPtr(TrackID inTrackID, TrackPtr& outTrackPtr)
{
    outTrackPtr = nullptr;
    if (state != State::Streaming)
    {
        return kQTErrBadState;
    }
    const auto found = tracks.find(inTrackID);
    if (found == tracks.end())
    {
        TOLBIN_REPORT("false", "Unknown TrackID: " << inTrackID << '\n');
        return kQTErrUnknownTrackID;
    }
    outTrackPtr = &found->second;
    return Tolbin::kResultSuccess;
}

Tolbin::Result PrivateReelmill::AddMediaSample(TrackID inTrackID, void* inData, int inDataSize,
                                               std::int32_t inSampleCount, std::int32_t inSampleDuration,
                                               std::int32_t inAuxValue, bool inAuxFlag)
{
    TrackPtr track = nullptr;
    Tolbin::Result result = GetTrackPtr(inTrackID, track);
    if (result < 0)
    {
        return result;
    }
    if (!IsValidBuffer(inData, inDataSize) || inSampleCount < 0)
    {
        return kQTErrBadArgument;
    }
    return AddToTrack(*track, unbufferedWriter->GetFilePointer(), inData, inDataSize, inSampleCount, inSampleDuration,
                      inAuxValue, inAuxFlag, [] { return 0u; });
}

// Doubles while the vector lies in the heap. Beyond, room that is not used is address space only, so that the steps are
// larger and less is copied. They are not larger still, since a host may have locked all memory that is to come, or
// have little address space.
void PrivateReelmill::Grow(MediaSampleVector& ioSamples)
{
    constexpr std::size_t kFirstCapacity = 64;
    constexpr std::size_t kMappedCapacity = Tolbin::allocator::MemoryRecycler::kMappedSize / sizeof(MediaSampleRec);
    constexpr std::size_t kFarCapacity = 32 * kMappedCapacity; // 64 MiB; 4.8 hours of 120 records a second.
    const std::size_t twice = std::max(kFirstCapacity, 2 * ioSamples.capacity());
    if (twice >= kMappedCapacity)
    {
        try
        {
            ioSamples.reserve(std::max(kFarCapacity, 2 * twice));
            return;
        }
        catch (const std::bad_alloc&) // NOLINT(bugprone-empty-catch): there may not be that much.
        {
        }
    }
    ioSamples.reserve(twice);
}

Tolbin::Result PrivateReelmill::EndMediaChunk(TrackID inTrackID)
{
    TrackPtr track = nullptr;
    const Tolbin::Result result = GetTrackPtr(inTrackID, track);
    if (result < 0)
    {
        return result;
    }
    if (!track->samples.empty())
    {
        track->explicitChunking = true;
        track->samples.back().endsChunk = true;
    }
    return Tolbin::kResultSuccess;
}

// 0 length of the text with its mark, 2 byte-order mark, 4 the text as little-endian UTF-16, then 'encd'.
Tolbin::Result MakeTextSample(const Tolbin::UTF16String& inText, Tolbin::utility::BinaryDataArray& outSample)
{
    if (inText.size() > kMaxTextLength)
    {
        return kQTErrBadArgument;
    }
    qtn_TextSampleHead head;
    head.textSize = static_cast<std::uint16_t>(2 * inText.size() + sizeof(head.byteOrderMark)); // Fits: checked above.
    outSample.clear();
    outSample.reserve(sizeof(head) + 2 * inText.size() + sizeof(qtn_TextEncodingAtom));
    AppendRecord(outSample, head);
    for (const char16_t unit : inText)
    {
        AppendRecord(outSample, boost::endian::little_uint16_t(unit));
    }
    AppendRecord(outSample, qtn_TextEncodingAtom{});
    return Tolbin::kResultSuccess;
}

Tolbin::Result PrivateReelmill::AddTextMediaSample(TrackID inTrackID, const Tolbin::UTF16String& inText, int inDuration)
{
    TrackPtr track = nullptr;
    Tolbin::Result result = GetTrackPtr(inTrackID, track);
    if (result < 0)
    {
        return result;
    }
    Tolbin::utility::BinaryDataArray sample;
    result = MakeTextSample(inText, sample);
    if (result < 0)
    {
        return result;
    }
    return AddMediaSample(inTrackID, sample.data(), static_cast<int>(sample.size()), 1, inDuration, 0, false);
}

int PrivateReelmill::GetMovieDuration()
{
    if (state != State::Streaming)
    {
        return 0;
    }
    const Pause pause(*this); // It may report.
    return GetLongestDuration();
}

int PrivateReelmill::GetLongestDuration() const
{
    std::int32_t longest = 0;
    for (const auto& [trackID, track] : tracks)
    {
        longest = std::max(longest, ConvertSrcTimeToDestTimescale(track.duration, track.timeScale, movieTimeScale));
    }
    return longest;
}

Tolbin::Result PrivateReelmill::SetTrackTrimIn(TrackID inTrackID, int inTrimIn)
{
    TrackPtr track = nullptr;
    const Tolbin::Result result = GetTrackPtr(inTrackID, track);
    if (result < 0)
    {
        return result;
    }
    track->trimIn = inTrimIn;
    return Tolbin::kResultSuccess;
}

// ---- User data and references ---------------------------------------------------------------------------------------

Tolbin::Result PrivateReelmill::AddUserData(int inUserDataType, void* inData, int inDataSize)
{
    if (state != State::Streaming)
    {
        return kQTErrBadState;
    }
    return StoreItem(userData, inUserDataType, inData, inDataSize);
}

Tolbin::Result PrivateReelmill::CheckUserData(int inUserDataType, const void* inData, int inDataSize) const
{
    return state == State::Streaming ? CheckItem(userData, inUserDataType, inData, inDataSize) : kQTErrBadState;
}

Tolbin::Result PrivateReelmill::AddTrackUserData(TrackID inTrackID, int inUserDataType, void* inData, int inDataSize)
{
    TrackPtr track = nullptr;
    const Tolbin::Result result = GetTrackPtr(inTrackID, track);
    if (result < 0)
    {
        return result;
    }
    return StoreItem(track->userData, inUserDataType, inData, inDataSize);
}

Tolbin::Result PrivateReelmill::CheckTrackUserData(TrackID inTrackID, int inUserDataType, const void* inData,
                                                   int inDataSize)
{
    TrackPtr track = nullptr;
    const Tolbin::Result result = GetTrackPtr(inTrackID, track);
    return result < 0 ? result : CheckItem(track->userData, inUserDataType, inData, inDataSize);
}

Tolbin::Result PrivateReelmill::AddTrackReference(TrackID inTrackID, TrackID inReferencedTrackID,
                                                  TrackReferenceType inReferenceType)
{
    TrackPtr track = nullptr;
    Tolbin::Result result = GetTrackPtr(inTrackID, track);
    if (result < 0)
    {
        return result;
    }
    TrackPtr referencedTrack = nullptr;
    result = GetTrackPtr(inReferencedTrackID, referencedTrack);
    if (result < 0)
    {
        return result;
    }
    // Not `operator[]`, which would leave a list of no references behind when memory fails.
    const auto [references, isNew] = track->trackReferences.try_emplace(inReferenceType, 1, inReferencedTrackID);
    if (!isNew)
    {
        references->second.push_back(inReferencedTrackID);
    }
    return Tolbin::kResultSuccess;
}

// ---- Closing --------------------------------------------------------------------------------------------------------

// On disk before: head with a provisional 'mdat' size, media up to the last full block. Afterwards: all media, the
// final 'mdat' size, and 'moov' in the placeholder or at the end of the file.
Tolbin::Result PrivateReelmill::Close()
{
    if (state != State::Streaming && state != State::MediaClosed)
    {
        return kQTErrBadState;
    }
    const FileCloser closer(file, unbufferedWriter);
    static_cast<void>(CloseMedia()); // A tail that is missing shows in the file's length.
    state = State::Finished;         // For descriptions as well, which may be the host's and call the movie.
    Tolbin::Result result = PatchMediaDataSize();
    if (result >= 0)
    {
        Tolbin::utility::BinaryDataArray mooVAtom;
        result = MakeMooVAtom(mooVAtom);
        if (result >= 0)
        {
            result = PlaceMooVAtom(mooVAtom);
        }
    }
    return result;
}

Tolbin::Result PrivateReelmill::CloseMedia()
{
    state = State::MediaClosed;
    if (!unbufferedWriter)
    {
        return Tolbin::kResultSuccess;
    }
    const Tolbin::Result result = unbufferedWriter->Close();
    unbufferedWriter.reset();
    return result;
}

void PrivateReelmill::Abandon() noexcept
{
    state = State::Finished;
    tracks.clear();
    unbufferedWriter.reset();
    if (file)
    {
        static_cast<void>(file->Close()); // What it holds is all that there is to keep.
    }
}

// On disk afterwards, from 'wide' on: 'wide' (8) and 'mdat' with a 32-bit size, or 'mdat' with a 64-bit size (16).
Tolbin::Result PrivateReelmill::PatchMediaDataSize()
{
    const std::int64_t size32 = mediaDataSize + kAtomHeaderSize;
    if (size32 <= 0xFFFFFFFF)
    {
        static_cast<void>(file->SetFilePointer(wideOffset + kAtomHeaderSize, Ventra::FilePointerMoveMethod::kBegin));
        big_uint32_t size = Low32(static_cast<std::uint64_t>(size32));
        return Write(&size, sizeof(size));
    }
    qtn_MediaDataHeader64 header;
    header.size = static_cast<std::uint64_t>(mediaDataSize) + sizeof(header);
    static_cast<void>(file->SetFilePointer(wideOffset, Ventra::FilePointerMoveMethod::kBegin));
    Tolbin::Result result = Write(&header.header.atomSize, sizeof(header.header.atomSize));
    if (result < 0)
    {
        return result;
    }
    result = Write(&header.header.atomType, sizeof(header.header.atomType));
    if (result < 0)
    {
        return result;
    }
    return Write(&header.size, sizeof(header.size));
}

// On disk afterwards: 'moov' and a smaller 'skip' where the placeholder was, or 'moov' at the end of the file.
Tolbin::Result PrivateReelmill::PlaceMooVAtom(Tolbin::utility::BinaryDataArray& inMooVAtom)
{
    const std::uint64_t size = inMooVAtom.size();
    if (!FitsPlaceholder(size))
    {
        // A movie that was resumed may still reach beyond its media.
        static_cast<void>(isResumed ? file->SetFilePointer(GetMediaEnd(), Ventra::FilePointerMoveMethod::kBegin)
                                    : file->SetFilePointer(0, Ventra::FilePointerMoveMethod::kEnd));
        return Write(inMooVAtom.data(), size);
    }
    static_cast<void>(file->SetFilePointer(placeholderOffset, Ventra::FilePointerMoveMethod::kBegin));
    const Tolbin::Result result = Write(inMooVAtom.data(), size);
    if (result < 0)
    {
        return result;
    }
    // The movie itself is complete: a failure here does not count.
    placeholderResult = WritePlaceholderAtom(FourCC("skip"), static_cast<int>(placeholderSize - Low32(size)));
    return result;
}

Tolbin::Result PrivateReelmill::MakeMooVAtom(Tolbin::utility::BinaryDataArray& outMooVAtom)
{
    try
    {
        std::erase_if(tracks, [](const auto& inTrack) { return inTrack.second.samples.empty(); });
        std::map<TrackID, int> trackIndexByID;
        for (const auto& [trackID, track] : tracks)
        {
            trackIndexByID.emplace(trackID, static_cast<int>(trackIndexByID.size()) + 1);
        }
        qtn_MovieHeaderAtom movieHeader;
        MakeMovieHeader(movieHeader, movieTimeScale, GetLongestDuration(), static_cast<int>(tracks.size()),
                        creationTime);

        std::vector<AtomNode> children;
        children.push_back(AtomNode::FromRecord(movieHeader));
        for (auto& [trackID, track] : tracks)
        {
            const Tolbin::Result result = MakeTrackAtom(trackID, track, trackIndexByID, children.emplace_back());
            if (result < 0)
            {
                return result;
            }
        }
        if (!userData.empty())
        {
            Tolbin::utility::BinaryDataArray userDataAtom;
            MakeUserDataAtom(userDataAtom, userData);
            children.emplace_back(std::move(userDataAtom));
        }
        AtomNode movie;
        const Tolbin::Result result = AtomNode::MakeContainer(FourCC("moov"), std::move(children), movie);
        if (result < 0)
        {
            return result;
        }
        outMooVAtom.resize(movie.GetSize());
        const std::uint8_t* const end = movie.Write(outMooVAtom.data());
        TOLBIN_ASSERT_AS(end == outMooVAtom.data() + outMooVAtom.size() &&
                             outMooVAtom.size() == TO_BIG(AtomHeader(outMooVAtom)->atomSize),
                         "outMooVAtom.size() == TO_BIG ( ((qtn_GenericAtomHeaderPtr)&outMooVAtom[0])->atomSize)",
                         __PRETTY_FUNCTION__, "");
        return result;
    }
    catch (...)
    {
        ReportAssemblyException();
        return Tolbin::kResultOutOfMemory;
    }
}

// 'trak': 'tkhd', ['tapt'], ['load'], 'edts', ['tref'], 'mdia' ('mdhd', 'hdlr', 'minf'), ['udta']; 'minf': media
// header, data 'hdlr', 'dinf', 'stbl'. Built from the inside out.
Tolbin::Result PrivateReelmill::MakeTrackAtom(TrackID inTrackID, TrackRec& inTrack,
                                              std::map<TrackID, int>& inTrackIndexByID, AtomNode& outTrackAtom)
{
    using Tolbin::utility::BinaryDataArray;

    qtn_MediaHeaderAtom mediaHeader;
    MakeMediaHeaderAtom(mediaHeader, inTrack.timeScale, inTrack.duration, creationTime);
    BinaryDataArray mediaHandler;
    MakeMediaHandlerAtom(mediaHandler, inTrack.mediaType);
    qtn_CanonicalDataHandlerAtom dataHandler;
    qtn_OneDataRef dataInfo;
    MakeSelfReferencingDataHandlerAtom(dataHandler, dataInfo);

    BinaryDataArray descriptionEntry;
    inTrack.sampleDescription->GetAsBinary(descriptionEntry);
    if (descriptionEntry.empty())
    {
        TOLBIN_REPORT("false", "Empty Sample Description Table for Track: " << inTrackID << '\n');
        return Tolbin::kResultFailed;
    }
    const std::uint64_t descriptionSize = sizeof(qtn_SampleDescriptionAtom) + descriptionEntry.size();
    if (descriptionSize > kMaxAtomSize)
    {
        return kQTErrTooLarge;
    }
    qtn_SampleDescriptionAtom description;
    description.header = qtn_GenericAtomHeader(Low32(descriptionSize), FourCC("stsd"));
    BinaryDataArray descriptionAtom;
    descriptionAtom.reserve(descriptionSize);
    AppendRecord(descriptionAtom, description);
    descriptionAtom.insert(descriptionAtom.end(), descriptionEntry.begin(), descriptionEntry.end());

    const SampleTables tables(inTrack);
    Tolbin::Result result = tables.GetResult();
    if (result < 0)
    {
        return result;
    }
    std::vector<AtomNode> children;
    children.emplace_back(std::move(descriptionAtom));
    children.emplace_back(tables);
    AtomNode sampleTable;
    result = AtomNode::MakeContainer(FourCC("stbl"), std::move(children), sampleTable);
    if (result < 0)
    {
        return result;
    }

    BinaryDataArray mediaInfoHeader;
    MakeMediaSpecificMediaInfoHeaderAtom(mediaInfoHeader, inTrack.mediaType);
    children.clear();
    children.emplace_back(std::move(mediaInfoHeader));
    children.push_back(AtomNode::FromRecord(dataHandler));
    children.push_back(AtomNode::FromRecord(dataInfo));
    children.push_back(std::move(sampleTable));
    AtomNode mediaInfo;
    result = AtomNode::MakeContainer(FourCC("minf"), std::move(children), mediaInfo);
    if (result < 0)
    {
        return result;
    }
    children.clear();
    children.push_back(AtomNode::FromRecord(mediaHeader));
    children.emplace_back(std::move(mediaHandler));
    children.push_back(std::move(mediaInfo));
    AtomNode media;
    result = AtomNode::MakeContainer(FourCC("mdia"), std::move(children), media);
    if (result < 0)
    {
        return result;
    }

    qtn_TrackHeaderAtom trackHeader;
    MakeTrackHeaderAtom(trackHeader, movieTimeScale, inTrack.timeScale, inTrackIndexByID[inTrackID], inTrack.mediaType,
                        inTrack.width, inTrack.height, inTrack.duration, inTrack.trimIn, creationTime);
    children.clear();
    children.push_back(AtomNode::FromRecord(trackHeader));
    BinaryDataArray aperture;
    MakeOptionalTrackApertureAtom(inTrack.sampleDescription, inTrack.mediaType, aperture);
    if (!aperture.empty())
    {
        children.emplace_back(std::move(aperture));
    }
    if (inTrack.mediaType == kQTMediaTypeVideo)
    {
        children.push_back(AtomNode::FromRecord(qtn_TrackLoadSettingsAtom{}));
    }
    BinaryDataArray edits;
    MakeEditsAtom(edits, movieTimeScale, inTrack.timeScale, inTrack.duration, inTrack.trimIn);
    children.emplace_back(std::move(edits));
    if (!inTrack.trackReferences.empty())
    {
        BinaryDataArray references;
        MakeTrackReferencesAtom(references, inTrack.trackReferences, inTrackIndexByID);
        children.emplace_back(std::move(references));
    }
    children.push_back(std::move(media));
    if (!inTrack.userData.empty())
    {
        BinaryDataArray userDataAtom;
        MakeUserDataAtom(userDataAtom, inTrack.userData);
        children.emplace_back(std::move(userDataAtom));
    }
    return AtomNode::MakeContainer(FourCC("trak"), std::move(children), outTrackAtom);
}

// ---- A movie that is in the file already ----------------------------------------------------------------------------

std::int64_t MovieStart::GetMediaDataOffset() const
{
    return std::int64_t{placeholderSize} + kHeadSize;
}

MovieStart PrivateReelmill::GetStart() const
{
    std::tm time = creationTime;
    return {movieTimeScale, placeholderSize, timegm(&time)};
}

void PrivateReelmill::Resume(const MovieStart& inStart)
{
    movieTimeScale = inStart.movieTimeScale;
    placeholderSize = inStart.placeholderSize;
    placeholderOffset = sizeof(qtn_FileTypeAtom);
    wideOffset = placeholderOffset + placeholderSize;
    mediaDataOffset = inStart.GetMediaDataOffset();
    const auto seconds = static_cast<std::time_t>(inStart.creationTime);
    static_cast<void>(gmtime_r(&seconds, &creationTime));
    isResumed = true;
    state = State::Streaming;
}

// On disk before: a head whose placeholder and 'mdat' header may have been written over by an earlier attempt to close
// the movie, media, anything. Afterwards: the head as `Create` left it, but for the placeholder's body, and the media.
Tolbin::Result PrivateReelmill::OpenResumed(const Tolbin::UTF16String& inPath, std::int64_t inFileSize)
{
    path = inPath;
    file = boost::make_shared<Ventra::File>();
    Tolbin::Result result =
        file->Create(path, Ventra::FileAccessFlags::kWrite, Ventra::FileShareModeFlags::kReadWrite,
                     Ventra::FileCreateDispositionFlags::kOpenExisting, Ventra::FileAttributesFlags::kNormal, false);
    if (result >= 0)
    {
        result = file->SetSize(inFileSize);
    }
    if (result >= 0)
    {
        static_cast<void>(file->SetFilePointer(placeholderOffset, Ventra::FilePointerMoveMethod::kBegin));
        qtn_GenericAtomHeader placeholder(placeholderSize, FourCC("skip"));
        result = Write(&placeholder, sizeof(placeholder));
    }
    if (result >= 0)
    {
        static_cast<void>(file->SetFilePointer(wideOffset, Ventra::FilePointerMoveMethod::kBegin));
        result = WriteMediaDataStart();
    }
    return result;
}

void PrivateReelmill::RestoreMediaSample(TrackID inTrackID, std::int64_t inFileOffset, std::int32_t inDataSize,
                                         std::int32_t inSampleCount, std::int32_t inSampleDuration)
{
    TrackRec& track = tracks.at(inTrackID);
    ReserveOneMore(track.samples);
    RecordMediaSample(track, {inFileOffset, inSampleCount, inSampleDuration, /*auxValue*/ 0, inDataSize,
                              /*auxFlag*/ false, /*endsChunk*/ false});
}

} // namespace QT
