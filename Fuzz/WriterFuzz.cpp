// Any sequence of calls on the writer, in order or not: every result is the documented one, a refused call changes
// nothing, and the file holds what was accepted. The movie stays in memory.
//
// The input's first byte picks the factory, the second the setting (see `Session`), and the rest is read as calls and
// their arguments until it runs out.

#include "WriterModel.h"

#include <AtomTree.h>
#include <SettingScope.h>
#include <Tolbin/Debug.h>
#include <Ventra/FileSystem.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <functional>
#include <iterator>
#include <span>
#include <stdexcept>
#include <string>
#include <utility>

namespace
{

using namespace WriterModel;
using Tolbin::Result;

constexpr auto kFactories = std::to_array({&QT::CreateReelmill});
constexpr const char16_t* kPath = u"/nowhere/movie.mov";
constexpr std::size_t kMaxMedia = 1u << 20;

constexpr int Code(const char (&inText)[5])
{
    return static_cast<int>(Inspect::FourCC(inText));
}

// ---- The input ----

class Input
{
public:
    explicit Input(std::span<const std::uint8_t> inBytes) : mRest(inBytes) {}

    bool IsEmpty() const { return mRest.empty(); }

    //! Big-endian; zeros once the bytes have run out.
    std::uint32_t Take(int inBytes)
    {
        std::uint32_t value = 0;
        for (int i = 0; i < inBytes; ++i)
        {
            value = value << 8 | (mRest.empty() ? 0 : mRest.front());
            mRest = mRest.subspan(mRest.empty() ? 0 : 1);
        }
        return value;
    }

    std::uint8_t Byte() { return static_cast<std::uint8_t>(Take(1)); }
    bool Bit() { return (Byte() & 1) != 0; }
    int Any() { return static_cast<int>(Take(4)); }

    //! A number of the range, or once in a while any other.
    int Number(int inLow, int inHigh)
    {
        constexpr int kOdd[] = {0, -1, 1, INT32_MAX, INT32_MIN, 0xFFFF, 0x10000};
        const std::uint8_t choice = mIsSane ? 0 : Byte();
        if (choice < 0xE0)
        {
            const int range = inHigh - inLow + 1;
            return inLow + static_cast<int>(Take(range > 0x100 ? 2 : 1)) % range;
        }
        return choice < 0xE0 + std::size(kOdd) ? kOdd[choice - 0xE0] : Any();
    }

    template <typename T, std::size_t size>
    T Pick(const std::array<T, size>& inValues)
    {
        return inValues[Byte() % size];
    }

    //! Whether to do what no careful host does.
    bool IsOdd() { return !mIsSane && Byte() >= 0xF0; }

    Bytes TakeBytes(std::size_t inCount)
    {
        Bytes bytes(inCount);
        std::generate(bytes.begin(), bytes.end(), [this] { return Byte(); });
        return bytes;
    }

    void StaySane() { mIsSane = true; }
    bool IsSane() const { return mIsSane; }

private:
    std::span<const std::uint8_t> mRest;
    bool mIsSane = false;
};

// ---- The disk ----

//! Keeps files in memory and counts what changes them.
class MemoryFileSystem final : public Ventra::FileSystem
{
public:
    explicit MemoryFileSystem(unsigned int inBufferSize) : mBufferSize(inBufferSize) {}

    const Bytes& GetFile(const Tolbin::UTF16String& inPath) const { return *mFiles.at(inPath); }
    std::size_t GetFileCount() const { return mFiles.size(); }
    std::size_t GetOpenCount() const { return mHandles.size(); }
    std::uint64_t GetChangeCount() const { return mChangeCount; }

    Result Open(const Tolbin::UTF16String& inPath, const Ventra::FileOpenMode& inMode, Handle& outHandle) override
    {
        const bool creates = inMode.disposition == Ventra::FileCreateDispositionFlags::kCreateAlways;
        if (!creates && !mFiles.contains(inPath))
        {
            return Tolbin::ResultFromSystemError(ENOENT);
        }
        if (creates)
        {
            ++mChangeCount;
            mFiles[inPath] = TakeStorage();
        }
        outHandle = ++mLastHandle;
        mHandles[outHandle] = mFiles[inPath];
        return Tolbin::kResultSuccess;
    }

    Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                 std::size_t& outWritten) override
    {
        Bytes& file = *mHandles.at(inHandle);
        const auto offset = static_cast<std::size_t>(inOffset);
        file.resize(std::max(file.size(), offset + inLength));
        std::copy_n(static_cast<const std::uint8_t*>(inData), inLength,
                    file.begin() + static_cast<std::ptrdiff_t>(offset));
        mChangeCount += inLength != 0 ? 1 : 0;
        outWritten = inLength;
        return Tolbin::kResultSuccess;
    }

    Result Seek(Handle inHandle, std::int64_t inDistance, Ventra::FilePointerMoveMethod::Type inMethod,
                std::int64_t& ioPosition) override
    {
        const std::int64_t from = inMethod == Ventra::FilePointerMoveMethod::kBegin     ? 0
                                  : inMethod == Ventra::FilePointerMoveMethod::kCurrent ? ioPosition
                                                                                        : Size(inHandle);
        if (from + inDistance < 0)
        {
            return Tolbin::ResultFromSystemError(EINVAL);
        }
        ioPosition = from + inDistance;
        return Tolbin::kResultSuccess;
    }

    Result GetSize(Handle inHandle, std::int64_t& outSize) override
    {
        outSize = Size(inHandle);
        return Tolbin::kResultSuccess;
    }

    Result Sync(Handle) override { return Tolbin::kResultSuccess; }

    Result Close(Handle inHandle) override
    {
        Require(mHandles.erase(inHandle) == 1, "a handle is closed once");
        return Tolbin::kResultSuccess;
    }

    //! NFS, where a setting gives the size of the blocks.
    Ventra::FileSystemType::Type GetType(Handle) override { return Ventra::FileSystemType::kNFS; }

    Result GetEfficientDiskBufferSize(const Tolbin::UTF16String&, unsigned int& outSize) override
    {
        outSize = mBufferSize;
        return Tolbin::kResultSuccess;
    }

private:
    //! An empty file, in memory of an earlier run where there is some: to obtain it anew takes longer than the run.
    static std::shared_ptr<Bytes> TakeStorage()
    {
        static const auto sStorage = std::make_shared<Bytes>();
        if (sStorage.use_count() > 1)
        {
            return std::make_shared<Bytes>();
        }
        sStorage->clear();
        return sStorage;
    }

    std::int64_t Size(Handle inHandle) const { return static_cast<std::int64_t>(mHandles.at(inHandle)->size()); }

    unsigned int mBufferSize;
    std::map<Tolbin::UTF16String, std::shared_ptr<Bytes>> mFiles;
    std::map<Handle, std::shared_ptr<Bytes>> mHandles;
    Handle mLastHandle = 0;
    std::uint64_t mChangeCount = 0;
};

// ---- The host ----

//! A description of the host's own: any bytes, none, or an exception.
class HostDescription final : public QT::QTSampleDescription
{
public:
    HostDescription(Bytes inEntry, bool inThrows) : mEntry(std::move(inEntry)), mThrows(inThrows) {}

    void GetAsBinary(Tolbin::utility::BinaryDataArray& outEntry) override
    {
        if (mThrows)
        {
            throw std::runtime_error("no entry");
        }
        outEntry.assign(mEntry.begin(), mEntry.end());
    }

private:
    Bytes mEntry;
    bool mThrows;
};

enum class Reports
{
    kNone,
    kSome,
    kAny
};

//! One writer and the host that calls it. Bits of the setting: 0 to 2 the disk-buffer size, 3 and 4 the block size,
//! 5 leaves it to the calls to create the movie, 6 abandons it at the end, 7 keeps to sane values.
class Session
{
public:
    Session(std::uint8_t inFactory, std::uint8_t inSetting, Input& ioInput)
        : mInput(ioInput),
          mSetting(inSetting),
          mBufferSize(kBufferSizes[inSetting % kBufferSizes.size()]),
          mFiles(mBufferSize),
          mFileSystem(mFiles),
          mBlockSetting("Reelmill.NFSWriteSizeInKBytes", std::to_string(GetBlockSize() / 1024)),
          mWriter(kFactories[inFactory % kFactories.size()]())
    {
        mPreviousHandler = Tolbin::debug::SetReportHandler([this](const Tolbin::debug::Report& inReport, bool&) {
            ++mReportCount;
            mLastReport = inReport.expression + " " + inReport.message;
            return false;
        });
        if ((inSetting & 0x80) != 0)
        {
            mInput.StaySane();
        }
    }

    ~Session() { Tolbin::debug::SetReportHandler(std::move(mPreviousHandler)); }

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    void Run()
    {
        if ((mSetting & 0x20) == 0)
        {
            Create();
        }
        while (!mInput.IsEmpty())
        {
            CallOnce();
        }
        const bool isAbandoned = mMovie.state == Movie::State::kOpen && (mSetting & 0x40) != 0;
        if (mMovie.state == Movie::State::kOpen && !isAbandoned)
        {
            Close();
        }
        mWriter.reset();
        Require(mFiles.GetOpenCount() == 0, "no file stays open");
        Require(mFiles.GetFileCount() <= 1, "there is no other file");
        if (isAbandoned)
        {
            CheckAbandoned(mMovie, mFiles.GetFile(kPath));
        }
    }

private:
    void CallOnce()
    {
        switch (mInput.Byte() % 32)
        {
        case 0:
            return Create();
        case 1:
            return mInput.Byte() < 0x20 ? Close() : GetDuration(); // Few calls are of interest behind it.
        case 2:
            return Flush();
        case 3:
        case 4:
            return AddDescription();
        case 5:
        case 6:
            return ChangeDescription();
        case 7:
        case 8:
        case 9:
            return AddTrack();
        case 10:
        case 11:
            return EndChunk();
        case 12:
        case 13:
            return AddText();
        case 14:
            return AddTrackUserData();
        case 15:
            return AddUserData();
        case 16:
        case 17:
            return AddReference();
        case 18:
            return SetTrimIn();
        default:
            return AddSample();
        }
    }

    // ---- Calls ----

    //! Calls the writer and holds it to the result, to what it may report, and to the disk, which only a call that
    //! succeeds may change (and `Create` and `Close`, whose failures are no refusals).
    template <typename Call>
    Result Try(const char* inName, Result inExpected, Reports inReports, Call inCall, bool inMayFail = false)
    {
        const std::uint64_t changes = mFiles.GetChangeCount();
        mReportCount = 0;
        const Result result = inCall();
        const std::string name = inName;
        Require(inExpected < 0 ? result == inExpected : result >= 0,
                name + " gave " + std::to_string(result) + " instead of " + std::to_string(inExpected));
        Require(result >= 0 || inMayFail || mFiles.GetChangeCount() == changes, name + " changed the file");
        Require(inReports != Reports::kNone || mReportCount == 0, name + " reported " + mLastReport);
        Require(inReports != Reports::kSome || mReportCount != 0, name + " reported nothing");
        return result;
    }

    //! What a call on tracks gives that has nothing else to refuse.
    Result Expect(std::initializer_list<QT::TrackID> inTracks)
    {
        if (mMovie.state != Movie::State::kOpen)
        {
            return QT::kQTErrBadState;
        }
        const bool areKnown = std::all_of(inTracks.begin(), inTracks.end(),
                                          [this](QT::TrackID inID) { return mMovie.FindTrack(inID) != nullptr; });
        return areKnown ? Tolbin::kResultSuccess : QT::kQTErrUnknownTrackID;
    }

    //! The first fault counts.
    static Result Expect(Result inBefore, bool inIsRefused, Result inRefusal)
    {
        return inBefore < 0 || !inIsRefused ? inBefore : inRefusal;
    }

    static Reports ReportsOf(Result inExpected)
    {
        return inExpected == QT::kQTErrUnknownTrackID ? Reports::kSome : Reports::kNone;
    }

    void Create()
    {
        const int timeScale = mInput.Number(1, 60000);
        const bool isFirst = mMovie.state == Movie::State::kNew;
        const Result expected =
            Expect(isFirst ? Tolbin::kResultSuccess : QT::kQTErrBadState, mBufferSize == 0, QT::kQTErrBadArgument);
        const Result result = Try(
            "Create", expected, Reports::kNone, [&] { return mWriter->Create(kPath, timeScale); }, isFirst);
        if (isFirst)
        {
            mMovie.state = result >= 0 ? Movie::State::kOpen : Movie::State::kFinished;
            mMovie.timeScale = timeScale;
            mMovie.blockSize = GetBlockSize();
            mMovie.mediaOffset = mBufferSize != 0 ? ((1u << 20) + mBufferSize - 1) / mBufferSize * mBufferSize : 0;
        }
    }

    void Close()
    {
        const bool isOpen = mMovie.state == Movie::State::kOpen;
        const Result expected = isOpen ? ExpectClose(mMovie) : QT::kQTErrBadState;
        const Reports reports = isOpen && MayReportOnClose(mMovie) ? Reports::kAny : Reports::kNone;
        const Result result = Try(
            "Close", expected, reports, [&] { return mWriter->Close(); }, isOpen);
        if (isOpen)
        {
            mMovie.state = Movie::State::kFinished;
            Require(mFiles.GetOpenCount() == 0, "Close closes the file");
            CheckClosed(mMovie, result, mFiles.GetFile(kPath));
        }
    }

    void Flush()
    {
        Try("Flush", Expect({}), Reports::kNone, [&] { return mWriter->Flush(); });
    }

    void GetDuration()
    {
        bool isReported = false;
        const int expected = mMovie.state == Movie::State::kOpen ? mMovie.GetDuration(isReported) : 0;
        Try("GetMovieDuration", Tolbin::kResultSuccess, isReported ? Reports::kSome : Reports::kNone, [&] {
            Require(mWriter->GetMovieDuration() == expected, "the duration is that of the longest track");
            return Tolbin::kResultSuccess;
        });
    }

    void AddTrack()
    {
        Description none;
        const bool hasDescription = !mMovie.descriptions.empty() && mInput.Byte() < 0xF0;
        const std::size_t index = hasDescription ? mInput.Byte() % mMovie.descriptions.size() : 0;
        const Description& description = hasDescription ? mMovie.descriptions[index] : none;
        const bool fits = mInput.IsSane() || mInput.Byte() < 0xC0;
        const int type = fits ? static_cast<int>(description.mediaType) : mInput.Number(256, 260);
        const bool isKnown = type >= 256 && type <= 260;
        const int timeScale = mInput.Number(1, 60000);
        const int width = mInput.Number(0, 4096);
        const int height = mInput.Number(0, 4096);
        Result expected = Expect(Expect({}), !isKnown, QT::kQTErrUnknownMediaType);
        const Reports reports =
            expected < 0 && !isKnown && mMovie.state == Movie::State::kOpen ? Reports::kSome : Reports::kNone;
        expected = Expect(expected, !hasDescription, QT::kQTErrBadArgument);
        constexpr QT::TrackID kUntouched = 7;
        QT::TrackID id = kUntouched;
        const Result result = Try("NewMovieTrack", expected, reports, [&] {
            return mWriter->NewMovieTrack(static_cast<QT::MediaType>(type), timeScale, width, height,
                                          description.object, id);
        });
        Require(id == (result >= 0 ? kFirstTrackID + mMovie.tracks.size() : kUntouched),
                "tracks are numbered from 256, and only a track that is added gets an ID");
        if (result >= 0)
        {
            Track& track = mMovie.tracks.emplace_back();
            track.mediaType = static_cast<QT::MediaType>(type);
            track.timeScale = timeScale;
            track.description = index;
        }
    }

    void AddSample()
    {
        const QT::TrackID id = TakeTrack();
        Track* track = mMovie.FindTrack(id);
        const int fixedSize = track != nullptr ? mMovie.descriptions[track->description].sampleSize : 0;
        const bool isOddSize = mInput.IsOdd();
        int count = mInput.Number(1, 8);
        // Tables of a size between would take the memory of the machine.
        count = count > 0x1000 ? INT32_MAX : count;
        int size = 0;
        if (isOddSize)
        {
            size = std::min(mInput.Number(0, 0x3000), 0x3000);
        }
        else
        {
            size = fixedSize != 0 && mInput.Byte() < 0xF8 ? fixedSize : static_cast<int>(mInput.Byte());
            size = count > 0 && count <= 0x1000 ? size * count : 0;
        }
        const int duration = mInput.Number(1, 2000);
        const bool isNull = mInput.IsOdd();
        if (size > 0 && mMovie.media.size() + static_cast<std::size_t>(size) > kMaxMedia)
        {
            return;
        }
        Bytes data(static_cast<std::size_t>(std::max(size, 1)));
        std::generate(data.begin(), data.end(), [this] { return mPattern = (mPattern * 5 + 3) ^ (mPattern >> 3); });

        const Result expected =
            Expect(Expect({id}), size < 0 || count < 0 || (isNull && size > 0), QT::kQTErrBadArgument);
        const bool isReported = expected >= 0 && mMovie.AddRecord(*track, data.data(), size, count, duration);
        Try("AddMediaSample", expected, isReported ? Reports::kSome : ReportsOf(expected), [&] {
            return mWriter->AddMediaSample(id, isNull ? nullptr : data.data(), size, count, duration, size, isNull);
        });
    }

    void AddText()
    {
        const QT::TrackID id = TakeTrack();
        Track* track = mMovie.FindTrack(id);
        constexpr std::size_t kMaxLength = 32766;
        const std::size_t length = mInput.IsOdd() ? kMaxLength - 1 + mInput.Byte() % 3 : mInput.Byte() % 16;
        const int duration = mInput.Number(1, 2000);
        Tolbin::UTF16String text;
        while (text.size() < length) // Any code units, surrogates without their other half among them.
        {
            text.append(length < 16 ? 1 : length, static_cast<char16_t>(mInput.Take(2)));
        }
        text.resize(length);
        const Result expected = Expect(Expect({id}), length > kMaxLength, QT::kQTErrBadArgument);
        if (mMovie.media.size() + 2 * length + 16 > kMaxMedia)
        {
            return;
        }
        bool isReported = false;
        if (expected >= 0)
        {
            // Length with the mark, mark, text, 'encd'.
            const std::size_t marked = 2 * length + 2;
            Bytes sample = {static_cast<std::uint8_t>(marked >> 8), static_cast<std::uint8_t>(marked), 0xFF, 0xFE};
            for (const char16_t unit : text)
            {
                sample.push_back(static_cast<std::uint8_t>(unit));
                sample.push_back(static_cast<std::uint8_t>(unit >> 8));
            }
            sample.insert(sample.end(), {0, 0, 0, 12, 'e', 'n', 'c', 'd', 0, 0, 1, 0});
            isReported = mMovie.AddRecord(*track, sample.data(), static_cast<int>(sample.size()), 1, duration);
        }
        Try("AddTextMediaSample", expected, isReported ? Reports::kSome : ReportsOf(expected),
            [&] { return mWriter->AddTextMediaSample(id, text, duration); });
    }

    void EndChunk()
    {
        const QT::TrackID id = TakeTrack();
        const Result expected = Expect({id});
        Try("EndMediaChunk", expected, ReportsOf(expected), [&] { return mWriter->EndMediaChunk(id); });
        if (Track* track = mMovie.FindTrack(id); expected >= 0 && !track->records.empty())
        {
            track->isChunkedByHand = true;
            track->records.back().endsChunk = true;
        }
    }

    void SetTrimIn()
    {
        const QT::TrackID id = TakeTrack();
        const int trimIn = mInput.Number(-100, 10000);
        const Result expected = Expect({id});
        Try("SetTrackTrimIn", expected, ReportsOf(expected), [&] { return mWriter->SetTrackTrimIn(id, trimIn); });
        if (expected >= 0)
        {
            mMovie.FindTrack(id)->trimIn = trimIn;
        }
    }

    void AddReference()
    {
        const QT::TrackID from = TakeTrack();
        const QT::TrackID to = TakeTrack();
        const auto type = static_cast<std::uint32_t>(mInput.Number(256, 257));
        const Result expected = Expect({from, to});
        Try("AddTrackReference", expected, ReportsOf(expected),
            [&] { return mWriter->AddTrackReference(from, to, static_cast<QT::TrackReferenceType>(type)); });
        if (expected >= 0)
        {
            mMovie.FindTrack(from)->references[type].push_back(to);
        }
    }

    void AddTrackUserData()
    {
        const QT::TrackID id = TakeTrack();
        AddItem(
            "AddTrackUserData", Expect({id}), [this, id] { return &mMovie.FindTrack(id)->userData; },
            [&](int inType, void* inData, int inSize) {
                return mWriter->AddTrackUserData(id, inType, inData, inSize);
            });
    }

    void AddUserData()
    {
        AddItem(
            "AddUserData", Expect({}), [this] { return &mMovie.userData; },
            [&](int inType, void* inData, int inSize) { return mWriter->AddUserData(inType, inData, inSize); });
    }

    template <typename GetItems, typename Call>
    void AddItem(const char* inName, Result inExpected, GetItems inGetItems, Call inCall)
    {
        constexpr auto kTypes = std::to_array({Code("\xA9nam"),
                                               Code("\xA9"
                                                    "ART"),
                                               Code("\xA9swr"), Code("name")});
        constexpr auto kOddTypes = std::to_array({0, -1, Code("meta"), Code("udta"), Code("moov"), Code("stsd")});
        int type = mInput.Pick(kTypes);
        if (mInput.IsOdd())
        {
            type = mInput.Bit() ? mInput.Any() : mInput.Pick(kOddTypes);
        }
        Bytes data = mInput.TakeBytes(mInput.Byte() % 24);
        if (mInput.Byte() >= 0xFC)
        {
            data.resize(1u << 20); // No room in front of the media.
        }
        const bool isNull = mInput.IsOdd();
        const int size = mInput.IsOdd() ? -1 - mInput.Byte() : static_cast<int>(data.size());
        data.reserve(1); // Not null.
        Result expected = Expect(inExpected, isNull, QT::kQTErrNullUserData);
        expected = Expect(expected, size < 0, QT::kQTErrBadArgument);
        Try(inName, expected, ReportsOf(expected), [&] { return inCall(type, isNull ? nullptr : data.data(), size); });
        if (expected >= 0)
        {
            inGetItems()->insert_or_assign(type, data);
        }
    }

    // ---- Descriptions ----

    void AddDescription()
    {
        switch (mInput.Byte() % 6)
        {
        case 0:
            return AddImageDescription();
        case 1:
            return AddSoundDescription();
        case 2:
            mMovie.descriptions.push_back({QT::CreateTextDescription(), QT::kQTMediaTypeText, 0, true});
            return;
        case 3: {
            const Timecode timecode = TakeTimecode();
            mMovie.descriptions.push_back({QT::CreateTimecodeDescription(timecode.timeScale, timecode.frameDuration,
                                                                         timecode.frames, timecode.dropFrame),
                                           QT::kQTMediaTypeTimecode, 4, timecode.isSane});
            return;
        }
        case 4:
            mMovie.descriptions.push_back(
                {QT::CreateClosedCaptionDescription(), QT::kQTMediaTypeClosedCaption, 0, true});
            return;
        default:
            return AddHostDescription();
        }
    }

    void AddHostDescription()
    {
        Bytes entry = mInput.TakeBytes(mInput.Byte() % 32);
        const bool isSane = mInput.IsSane() || mInput.Bit();
        if (isSane)
        {
            entry = {0, 0, 0, 16, 't', 'e', 'x', 't', 0, 0, 0, 0, 0, 0, 0, 1};
        }
        const bool throws = mInput.IsOdd();
        mMovie.descriptions.push_back(
            {boost::make_shared<HostDescription>(entry, throws), QT::kQTMediaTypeText, 0, isSane});
    }

    void AddImageDescription()
    {
        const int codec = mInput.IsOdd() ? mInput.Any() : Code("apcn");
        Tolbin::UTF16String name = TakeName();
        const int width = mInput.Number(1, 8192);
        const int height = mInput.Number(1, 8192);
        const int depth = mInput.Number(1, 40);
        const int field = mInput.Number(0, 2);
        const auto across = static_cast<std::uint32_t>(mInput.Number(1, 100));
        const auto down = static_cast<std::uint32_t>(mInput.Number(1, 100));
        const bool isSane = codec != 0 && (width & 0xFFFF) != 0 && (height & 0xFFFF) != 0;
        mMovie.descriptions.push_back(
            {QT::CreateImageDescription(codec, name, width, height, depth, static_cast<Quorlan::FieldType>(field),
                                        {across, down}),
             QT::kQTMediaTypeVideo, 0, isSane});
    }

    void AddSoundDescription()
    {
        struct SampleType
        {
            Sambrel::AudioSampleType type;
            int size;
        };
        using namespace Sambrel;
        constexpr auto kTypes = std::to_array<SampleType>({{kAudioSampleTypeUInt8, 1},
                                                           {kAudioSampleTypeInt8, 1},
                                                           {kAudioSampleTypeInt16LE, 2},
                                                           {kAudioSampleTypeInt24LE, 3},
                                                           {kAudioSampleTypeInt32LE, 4},
                                                           {kAudioSampleTypeFloat32LE, 4},
                                                           {kAudioSampleTypeFloat64LE, 8},
                                                           {kAudioSampleTypeInt16BE, 2},
                                                           {kAudioSampleTypeInt24BE, 3},
                                                           {kAudioSampleTypeInt32BE, 4},
                                                           {kAudioSampleTypeFloat32BE, 4}});
        const bool isOddType = mInput.IsOdd();
        const SampleType type =
            isOddType ? SampleType{static_cast<AudioSampleType>(mInput.Number(0, 16)), 0} : mInput.Pick(kTypes);
        const int channels = mInput.Number(1, 8);
        const int rate = mInput.Bit() ? mInput.Number(1, 65535) : 65535 + mInput.Number(1, 65535) % 65536;
        const int discreteChannel = mInput.Number(0, 100);
        const bool isDiscrete = mInput.Bit();
        const bool isOddLayout = mInput.IsOdd();
        Quorlan::AudioChannelLayout layout;
        const int labels = isOddLayout ? mInput.Byte() % 4 : channels;
        bool isSane = !isOddType && !isOddLayout && channels > 0 && rate > 0;
        for (int i = 0; i < std::min(labels, 64); ++i)
        {
            const int label = mInput.Number(99, 119); // 99 stands for no position.
            isSane = isSane && label >= 99 && label <= 119;
            layout.emplace_back(static_cast<Quorlan::AudioChannelLabel>(label == 99 ? 0 : label));
        }
        isSane = isSane && layout.size() == static_cast<std::size_t>(channels);
        mMovie.descriptions.push_back(
            {QT::CreateSoundDescription(discreteChannel, channels, rate, type.type, layout, isDiscrete),
             QT::kQTMediaTypeSound, isSane ? type.size * channels : 0, isSane});
    }

    struct Timecode
    {
        int timeScale;
        int frameDuration;
        int frames;
        bool dropFrame;
        bool isSane;
    };

    Timecode TakeTimecode()
    {
        const int timeScale = mInput.Number(1, 60000);
        const int frameDuration = mInput.Number(1, 2000);
        const int frames = mInput.Number(1, 60);
        const bool isDropRate = (frames & 0xFF) % 30 == 0;
        const bool dropFrame = mInput.IsOdd() || (isDropRate && mInput.Bit());
        const bool isSane = timeScale > 0 && frameDuration > 0 && (frames & 0xFF) != 0 && (!dropFrame || isDropRate);
        return {timeScale, frameDuration, frames, dropFrame, isSane};
    }

    void ChangeDescription()
    {
        if (mMovie.descriptions.empty())
        {
            return;
        }
        Description& description = mMovie.descriptions[mInput.Byte() % mMovie.descriptions.size()];
        if (const auto image = boost::dynamic_pointer_cast<QT::QTImageDescription>(description.object))
        {
            const bool staysSane = ChangeImage(*image);
            description.isSane = description.isSane && staysSane;
        }
        else if (const auto object = boost::dynamic_pointer_cast<QT::QTTimecodeDescription>(description.object))
        {
            const Timecode timecode = TakeTimecode();
            object->Init(timecode.timeScale, timecode.frameDuration, timecode.frames, timecode.dropFrame);
            description.isSane = timecode.isSane;
        }
    }

    //! Whether the change is one that the format allows.
    bool ChangeImage(QT::QTImageDescription& ioImage)
    {
        const auto number = [this](int inLow, int inHigh) {
            return static_cast<unsigned int>(mInput.Number(inLow, inHigh));
        };
        switch (mInput.Byte() % 11)
        {
        case 0: {
            const auto index = static_cast<unsigned short>(number(0, 9));
            ioImage.SetColorSpaceParameter(index, 1, index);
            unsigned short primaries = 0, transferFunction = 0, matrix = 0;
            Require(ioImage.GetColorSpaceParameter(primaries, transferFunction, matrix) && primaries == index &&
                        transferFunction == 1 && matrix == index,
                    "an image description keeps its colour");
            return true;
        }
        case 1:
            return AddCleanAperture(ioImage);
        case 2:
            ioImage.AddGamma(static_cast<QT::GammaValue>(mInput.Number(-1, 0)));
            return true;
        case 3:
            ioImage.SetTemporalQuality(number(0, 1023));
            return true;
        case 4:
            ioImage.SetSpatialQuality(number(0, 1024));
            return true;
        case 5:
            return AddExtension(ioImage);
        case 6: {
            const unsigned int codec = mInput.Take(4);
            ioImage.SetImageDescriptionCodecFourCC(codec);
            return codec != 0;
        }
        case 7:
            ioImage.SetVendorFourCC(mInput.Take(4));
            ioImage.SetRevisionLevel(static_cast<short>(mInput.Take(2)));
            return true;
        case 8:
            ioImage.SetCodecName(TakeName());
            return true;
        case 9:
            ioImage.SetShouldOmitFieldExtension(mInput.Bit());
            return true;
        default:
            return SetPadding(ioImage);
        }
    }

    bool AddCleanAperture(QT::QTImageDescription& ioImage)
    {
        const auto width = static_cast<std::uint16_t>(ioImage.GetDescriptionWidth());
        const auto height = static_cast<std::uint16_t>(ioImage.GetDescriptionHeight());
        const auto number = [this](int inLow, int inHigh) {
            return static_cast<unsigned int>(mInput.Number(inLow, inHigh));
        };
        const unsigned int widthD = number(1, 4);
        const unsigned int heightD = number(1, 4);
        const unsigned int widthN = number(0, width);
        const unsigned int heightN = number(0, height);
        const unsigned int horizOffD = number(1, 4);
        const unsigned int vertOffD = number(1, 4);
        const int horizOffN = mInput.Number(-9, 9);
        const int vertOffN = mInput.Number(-9, 9);
        ioImage.AddCleanAperture(widthN, widthD, heightN, heightD, horizOffN, horizOffD, vertOffN, vertOffD);
        return widthD != 0 && heightD != 0 && horizOffD != 0 && vertOffD != 0 &&
               widthN <= std::uint64_t{widthD} * width && heightN <= std::uint64_t{heightD} * height;
    }

    bool AddExtension(QT::QTImageDescription& ioImage)
    {
        constexpr auto kOddTypes = std::to_array({0, Code("colr"), Code("fiel"), Code("pasp"), Code("clap"),
                                                  Code("gama"), Code("wave"), Code("stsd"), Code("meta")});
        const bool isOdd = mInput.IsOdd();
        const auto type = static_cast<unsigned int>(isOdd ? mInput.Pick(kOddTypes) : Code("ACLR"));
        Bytes data = mInput.TakeBytes(mInput.Byte() % 24);
        const bool isNull = mInput.IsOdd();
        const int size = mInput.IsOdd() ? -1 - mInput.Byte() : static_cast<int>(data.size());
        data.reserve(1);
        const bool isRefused = size < 0 || (isNull && size > 0);
        Try("AddArbitraryImageDescriptionExtension", Tolbin::kResultSuccess,
            isRefused ? Reports::kSome : Reports::kNone, [&] {
                ioImage.AddArbitraryImageDescriptionExtension(type, isNull ? nullptr : data.data(), size);
                return Tolbin::kResultSuccess;
            });
        return isRefused || !isOdd;
    }

    bool SetPadding(QT::QTImageDescription& ioImage)
    {
        const std::uint8_t choice = mInput.Byte();
        unsigned long size = mInput.Byte();
        if (choice >= 0xE0)
        {
            size = (1u << 20) - 2048 + mInput.Take(2) % 2048; // 'moov' just fits in front of the media, or does not.
        }
        if (mInput.IsOdd())
        {
            size += 1ul << 63; // Never to be had. What can be had but does not fit memory would end the fuzzer.
        }
        ioImage.SetExtraPaddingAmount(size);
        return true;
    }

    // ---- Helpers ----

    //! One of the movie's tracks, or once in a while none.
    QT::TrackID TakeTrack()
    {
        constexpr auto kOdd = std::to_array<QT::TrackID>({0, 1, 255, 1ul << 32, ~0ul});
        const std::uint8_t choice = mInput.Byte();
        if (choice >= 0xF8)
        {
            return mInput.Pick(kOdd);
        }
        return kFirstTrackID + choice % std::max<std::size_t>(mMovie.tracks.size(), 1);
    }

    Tolbin::UTF16String TakeName()
    {
        const std::size_t length = mInput.Byte() % 40;
        return Tolbin::UTF16String(length, static_cast<char16_t>(mInput.Take(2)));
    }

    std::uint64_t GetBlockSize() const { return kBlockSizes[(mSetting >> 3) % kBlockSizes.size()]; }

    // The last is of no use to a movie.
    static constexpr auto kBufferSizes = std::to_array<unsigned int>({4096, 512, 1000, 8192, 4096, 1, 1u << 20, 0});
    static constexpr auto kBlockSizes = std::to_array<std::uint64_t>({1024, 4096, 32768, 3072});

    Input& mInput;
    std::uint8_t mSetting;
    unsigned int mBufferSize;
    MemoryFileSystem mFiles;
    Ventra::FileSystemScope mFileSystem;
    SettingScope mBlockSetting;
    Tolbin::debug::ReportHandler mPreviousHandler;
    std::uint64_t mReportCount = 0; //!< During the last call.
    std::string mLastReport;
    std::uint8_t mPattern = 1;
    Movie mMovie;
    boost::shared_ptr<QT::Reelmill> mWriter;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* inData, std::size_t inSize)
{
    Input input({inData, inSize});
    const std::uint8_t factory = input.Byte();
    const std::uint8_t setting = input.Byte();
    Session(factory, setting, input).Run();
    return 0;
}
