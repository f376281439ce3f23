// Any sequence of calls on a writer, in order or not: every result is the documented one, a refused call changes
// nothing, and the file holds what was accepted; so does what is recovered of a take that was not closed, as far as it
// came to the disk. The files stay in memory.
//
// The input's first byte picks the factory, the second the setting (see `Session`), for a journaled writer three more
// say what is lost of the movie before it is recovered, and the rest is read as calls and their arguments until it runs
// out.

#include "WriterModel.h"

#include <AtomTree.h>
#include <ReportCapture.h>
#include <SettingScope.h>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <array>
#include <functional>
#include <iterator>
#include <optional>
#include <span>
#include <string>
#include <utility>

namespace
{

using namespace WriterModel;
using Tolbin::Result;

constexpr const char16_t* kPath = u"/nowhere/movie.mov";
constexpr const char16_t* kJournalPath = u"/nowhere/movie.mov.journal";
constexpr std::size_t kMaxMedia = 1u << 18;

constexpr int Code(const char (&inText)[5])
{
    return static_cast<int>(Inspect::FourCC(inText));
}

//! Gives zeros once the bytes have run out.
class Input : public Inspect::ByteReader
{
public:
    using ByteReader::ByteReader;

    bool IsEmpty() const { return Rest().empty(); }
    bool Bit() { return (U8() & 1) != 0; }

    //! A number of the range, or once in a while any other.
    int Number(int inLow, int inHigh)
    {
        constexpr int kOdd[] = {0, -1, 1, INT32_MAX, INT32_MIN, 0xFFFF, 0x10000};
        const std::uint8_t choice = mMustBeSane ? 0 : U8();
        if (choice < 0xE0)
        {
            const int range = inHigh - inLow + 1;
            return inLow + (range > 0x100 ? U16() : U8()) % range;
        }
        mWasOdd = true;
        return choice < 0xE0 + std::size(kOdd) ? kOdd[choice - 0xE0] : I32();
    }

    unsigned int Unsigned(int inLow, int inHigh) { return static_cast<unsigned int>(Number(inLow, inHigh)); }

    template <typename T, std::size_t size>
    T Pick(const std::array<T, size>& inValues)
    {
        return inValues[U8() % size];
    }

    //! Whether to do what no careful host does.
    bool IsOdd(int inRarity = 16)
    {
        const bool isOdd = !mMustBeSane && U8() >= 0x100 - 0x100 / inRarity;
        mWasOdd = mWasOdd || isOdd;
        return isOdd;
    }

    ::Bytes TakeBytes(std::size_t inCount)
    {
        const auto bytes = Bytes(std::min(inCount, Rest().size()));
        return {bytes.begin(), bytes.end()};
    }

    void SetSane(bool inMustBe) { mMustBeSane = inMustBe; }
    bool WasOdd() const { return mWasOdd; }

private:
    bool mMustBeSane = false;
    bool mWasOdd = false;
};

//! A description of the host's own: any bytes, none, or an exception.
class HostDescription final : public QT::QTSampleDescription
{
public:
    explicit HostDescription(std::optional<Bytes> inEntry) : mEntry(std::move(inEntry)) {}

    void GetAsBinary(Tolbin::utility::BinaryDataArray& outEntry) override
    {
        outEntry.assign(mEntry.value().begin(), mEntry->end());
    }

private:
    std::optional<Bytes> mEntry;
};

//! Whether a call reports; none: perhaps.
using Reports = std::optional<bool>;

//! One writer and the host that calls it. Bits of the setting: 0 to 2 the disk-buffer size, 3 and 4 the block size,
//! 5 leaves it to the calls to create the movie, 6 abandons it at the end, 7 keeps to sane values.
class Session
{
public:
    explicit Session(Input inInput)
        : mInput(inInput),
          mIsJournaled(mInput.Bit()),
          mSetting(mInput.U8()),
          mLoss(mIsJournaled ? mInput.U24() : 0),
          mFiles(kBufferSizes[mSetting % kBufferSizes.size()]),
          mFileSystem(mFiles),
          mBlockSetting("Reelmill.NFSWriteSizeInKBytes", std::to_string(GetBlockSize() / 1024)),
          mWriter(mIsJournaled ? QT::CreateJournaledReelmill() : QT::CreateReelmill())
    {
        mMovie.isJournaled = mIsJournaled;
        mInput.SetSane((mSetting & 0x80) != 0);
    }

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
        const bool isAbandoned = mMovie.isOpen && (mSetting & 0x40) != 0;
        if (mMovie.isOpen && !isAbandoned)
        {
            Close();
        }
        mWriter.reset();
        const bool hasJournal = mIsJournaled && (isAbandoned || mHasCloseFailed);
        Require(mFiles.GetOpenCount() == 0, "no file stays open");
        Require(mFiles.HasFile(kJournalPath) == hasJournal, "there is a journal as long as it is needed");
        Require(mFiles.GetFileCount() == (mMovie.isNew ? 0 : 1) + (hasJournal ? 1 : 0), "there is no other file");
        if (isAbandoned)
        {
            CheckAbandoned(mMovie, mFiles.GetFile(kPath));
        }
        if (hasJournal)
        {
            Recover();
        }
    }

private:
    void CallOnce()
    {
        using S = Session;
        constexpr auto kCalls = std::to_array<void (S::*)()>(
            {&S::Create, &S::CloseOrGetDuration, &S::Flush, &S::AddDescription, &S::AddDescription,
             &S::ChangeDescription, &S::ChangeDescription, &S::AddTrack, &S::AddTrack, &S::AddTrack, &S::EndChunk,
             &S::EndChunk, &S::AddText, &S::AddText, &S::AddUserData, &S::AddUserData, &S::AddReference,
             &S::AddReference, &S::SetTrimIn});
        const std::size_t choice = mInput.U8() % 32;
        choice < kCalls.size() ? (this->*kCalls[choice])() : AddSample();
    }

    // ---- Calls ----

    //! Calls the writer and holds it to the result, to what it may report, and to the disk, which no refusal changes.
    template <typename Call>
    Result Try(const std::string& inName, Result inExpected, Call inCall, Reports inReports = false,
               bool inMayFail = false)
    {
        const std::uint64_t changes = mFiles.GetChangeCount();
        mReports.Take();
        const Result result = inCall();
        const ReportTexts reports = mReports.Take();
        const bool isReported = inExpected == QT::kQTErrUnknownTrackID || inExpected == QT::kQTErrUnknownMediaType;
        // A journal asks descriptions at once, and those that were given nonsense report it then.
        const bool mayReport = !inReports || (mIsJournaled && mInput.WasOdd());
        Require(inExpected < 0 ? result == inExpected : result >= 0,
                inName + " gave " + std::to_string(result) + " instead of " + std::to_string(inExpected));
        Require(result >= 0 || inMayFail || mFiles.GetChangeCount() == changes, inName + " changed a file");
        Require(mayReport || (*inReports || isReported) == !reports.empty(),
                inName + " reported " + (reports.empty() ? "nothing" : reports.front()));
        return result;
    }

    //! What a call on tracks gives: the first fault counts.
    Result Expect(std::initializer_list<QT::TrackID> inTracks,
                  std::initializer_list<std::pair<bool, Result>> inRefusals = {})
    {
        if (!mMovie.isOpen)
        {
            return QT::kQTErrBadState;
        }
        const bool areKnown =
            std::all_of(inTracks.begin(), inTracks.end(), [this](QT::TrackID inID) { return mMovie.FindTrack(inID); });
        const auto refusal =
            std::find_if(inRefusals.begin(), inRefusals.end(), [](const auto& inRefusal) { return inRefusal.first; });
        return !areKnown                     ? QT::kQTErrUnknownTrackID
               : refusal != inRefusals.end() ? refusal->second
                                             : Tolbin::kResultSuccess;
    }

    void Create()
    {
        const int timeScale = mInput.Number(1, 60000);
        const bool isFirst = mMovie.isNew;
        const std::uint64_t bufferSize = kBufferSizes[mSetting % kBufferSizes.size()];
        const Result expected = !isFirst          ? QT::kQTErrBadState
                                : bufferSize == 0 ? QT::kQTErrBadArgument
                                                  : Tolbin::kResultSuccess;
        const auto create = [&] { return mWriter->Create(kPath, timeScale); };
        const Result result = Try("Create", expected, create, false, isFirst);
        if (isFirst)
        {
            mMovie.isNew = false;
            mMovie.isOpen = result >= 0;
            mMovie.timeScale = timeScale;
            mMovie.blockSize = GetBlockSize();
            mMovie.mediaOffset = bufferSize != 0 ? ((1u << 20) + bufferSize - 1) / bufferSize * bufferSize : 0;
        }
    }

    void Close()
    {
        const auto close = [&] { return mWriter->Close(); };
        if (!std::exchange(mMovie.isOpen, false))
        {
            Try("Close", QT::kQTErrBadState, close);
            return;
        }
        mMovie.isOdd = mInput.WasOdd();
        mMovie.AskDescriptions();
        const Reports reports = MayReportOnClose(mMovie) ? Reports() : false;
        const Result result = Try("Close", ExpectClose(mMovie), close, reports, true);
        mHasCloseFailed = result < 0;
        Require(mFiles.GetOpenCount() == 0, "Close closes the files");
        CheckClosed(mMovie, result, mFiles.GetFile(kPath));
    }

    //! Loses the end of the movie, or its content, and recovers what is left.
    void Recover()
    {
        Bytes& file = mFiles.GetFile(kPath);
        const std::uint64_t left = mMovie.mediaOffset + mLoss / 4 % (file.size() - mMovie.mediaOffset + 1);
        const std::uint64_t size = file.size();
        file.resize(mLoss % 4 == 0 ? size : left);
        file.resize(mLoss % 4 == 1 ? left : size);
        const Bytes found = file;
        mMovie.isOdd = mInput.WasOdd();
        mReports.Take();
        QT::RecoveryReport report;
        const Result result = QT::RecoverMovie(kPath, report);
        const ReportTexts reports = mReports.Take();
        const auto isEmpty = [](const WriterModel::Record& inRecord) {
            return inRecord.size == 0 || inRecord.count == 0;
        };
        const bool isUnclear = std::any_of(mMovie.tracks.begin(), mMovie.tracks.end(), [&](const Track& inTrack) {
            return std::any_of(inTrack.records.begin(), inTrack.records.end(), isEmpty);
        });
        if (isUnclear)
        {
            return; // Whether they were kept does not show in the counts.
        }
        const Movie movie = WriterModel::Recover(mMovie, mHasCloseFailed, found, report);
        const Result expected = movie.isNothing ? QT::kQTErrNothingWhole : ExpectClose(movie);
        Require(result == expected, "recovery gave " + std::to_string(result));
        Require(reports.empty() || MayReportOnClose(mMovie) || MayReportOnClose(movie), "recovery reports nothing");
        Require(mFiles.GetOpenCount() == 0, "recovery closes the files");
        Require(mFiles.HasFile(kJournalPath) == (result < 0), "the journal stays unless the movie is finished");
        if (result < 0)
        {
            Require(file == found, "recovery that fails leaves the movie alone");
            return;
        }
        CheckClosed(movie, result, file);
        const auto tracks = std::count_if(movie.tracks.begin(), movie.tracks.end(),
                                          [](const Track& inTrack) { return !inTrack.records.empty(); });
        bool isReported = false;
        Require(report.tracksKept == tracks && report.movieDuration == movie.GetDuration(isReported) &&
                    report.movieSize == file.size() && report.bytesUnknown == 0 && report.damagedPlaces == 0,
                "recovery reports what it did");
    }

    void CloseOrGetDuration()
    {
        if (mInput.U8() < 0x20) // Few calls are of interest behind it.
        {
            return Close();
        }
        bool isReported = false;
        const int expected = mMovie.isOpen ? mMovie.GetDuration(isReported) : 0;
        const auto get = [&] { return mWriter->GetMovieDuration() == expected ? 0 : -1; };
        Try("GetMovieDuration", Tolbin::kResultSuccess, get, isReported);
    }

    void Flush()
    {
        Try("Flush", Expect({}), [&] { return mWriter->Flush(); });
    }

    void AddTrack()
    {
        const bool hasDescription = !mMovie.descriptions.empty() && !mInput.IsOdd();
        const std::size_t index = hasDescription ? mInput.U8() % mMovie.descriptions.size() : 0;
        const Description description = hasDescription ? mMovie.descriptions[index] : Description();
        const int number = mInput.IsOdd(4) ? mInput.Number(256, 260) : static_cast<int>(description.mediaType);
        const auto type = static_cast<QT::MediaType>(number);
        const int timeScale = mInput.Number(1, 60000);
        const int width = mInput.Number(0, 4096);
        const int height = mInput.Number(0, 4096);
        constexpr QT::TrackID kUntouched = 7;
        QT::TrackID id = kUntouched;
        const Result expected = Expect(
            {}, {{number < 256 || number > 260, QT::kQTErrUnknownMediaType}, {!hasDescription, QT::kQTErrBadArgument}});
        Try("NewMovieTrack", expected,
            [&] { return mWriter->NewMovieTrack(type, timeScale, width, height, description.object, id); });
        Require(id == (expected >= 0 ? kFirstTrackID + mMovie.tracks.size() : kUntouched),
                "tracks are numbered from 256, and only a track that is added gets an ID");
        if (expected >= 0)
        {
            mMovie.tracks.push_back({type, timeScale, index, {}, {}, {}, 0, 0, {}, {}});
            mMovie.AskDescriptions(mMovie.tracks.size() - 1);
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
        int size = isOddSize                             ? std::min(mInput.Number(0, 0x3000), 0x3000)
                   : fixedSize != 0 && !mInput.IsOdd(32) ? fixedSize
                                                         : mInput.U8();
        if (!isOddSize)
        {
            size = count > 0 && count <= 0x1000 ? size * count : 0;
        }
        const int duration = mInput.Number(1, 2000);
        const bool isNull = mInput.IsOdd();
        const bool isUncounted = mIsJournaled && size == 0 && count == 0; // Recovery does not tell whether it is there.
        if (isUncounted || (size > 0 && mMovie.media.size() + static_cast<std::size_t>(size) > kMaxMedia))
        {
            return;
        }
        Bytes data(static_cast<std::size_t>(std::max(size, 1)));
        std::generate(data.begin(), data.end(), [this] { return mPattern = (mPattern * 5 + 3) ^ (mPattern >> 3); });
        std::fill(data.end() - static_cast<std::ptrdiff_t>(data.size()) * (duration & 3) / 3, data.end(), 0);
        const Result expected = Expect({id}, {{size < 0 || count < 0 || (isNull && size > 0), QT::kQTErrBadArgument}});
        const bool isReported = expected >= 0 && mMovie.AddRecord(*track, data, size, count, duration);
        const auto add = [&] {
            return mWriter->AddMediaSample(id, isNull ? nullptr : data.data(), size, count, duration, size, isNull);
        };
        Try("AddMediaSample", expected, add, isReported);
    }

    void AddText()
    {
        const QT::TrackID id = TakeTrack();
        constexpr std::size_t kMaxLength = 32766;
        const std::size_t length = mInput.IsOdd() ? kMaxLength - 1 + mInput.U8() % 3 : mInput.U8() % 16;
        const int duration = mInput.Number(1, 2000);
        Tolbin::UTF16String text; // Any code units, surrogates without their other half among them.
        while (text.size() < length)
        {
            text.append(length < 16 ? 1 : length, static_cast<char16_t>(mInput.U16()));
        }
        // Length with the mark, mark, text, 'encd'.
        const std::size_t marked = 2 * length + 2;
        Bytes data = {static_cast<std::uint8_t>(marked >> 8), static_cast<std::uint8_t>(marked), 0xFF, 0xFE};
        for (const char16_t unit : text)
        {
            data.insert(data.end(), {static_cast<std::uint8_t>(unit), static_cast<std::uint8_t>(unit >> 8)});
        }
        data.insert(data.end(), {0, 0, 0, 12, 'e', 'n', 'c', 'd', 0, 0, 1, 0});
        const int size = static_cast<int>(data.size());
        Track* track = mMovie.FindTrack(id);
        const bool isOther = track != nullptr && track->mediaType != QT::kQTMediaTypeText;
        if ((isOther && !mInput.IsOdd(2)) || mMovie.media.size() + data.size() > kMaxMedia)
        {
            return;
        }
        const Result expected = Expect({id}, {{length > kMaxLength, QT::kQTErrBadArgument}});
        const bool isReported = expected >= 0 && mMovie.AddRecord(*track, data, size, 1, duration);
        const auto add = [&] { return mWriter->AddTextMediaSample(id, text, duration); };
        Try("AddTextMediaSample", expected, add, isReported);
    }

    void EndChunk()
    {
        const QT::TrackID id = TakeTrack();
        const Result result = Try("EndMediaChunk", Expect({id}), [&] { return mWriter->EndMediaChunk(id); });
        if (result >= 0 && !mMovie.FindTrack(id)->records.empty())
        {
            mMovie.FindTrack(id)->records.back().endsChunk = true;
        }
    }

    void SetTrimIn()
    {
        const QT::TrackID id = TakeTrack();
        const int trimIn = mInput.Number(-100, 10000);
        if (Try("SetTrackTrimIn", Expect({id}), [&] { return mWriter->SetTrackTrimIn(id, trimIn); }) >= 0)
        {
            mMovie.FindTrack(id)->trimIn = trimIn;
        }
    }

    void AddReference()
    {
        const QT::TrackID from = TakeTrack();
        const QT::TrackID to = TakeTrack();
        const auto type = static_cast<QT::TrackReferenceType>(mInput.Number(256, 257));
        const auto add = [&] { return mWriter->AddTrackReference(from, to, type); };
        if (Try("AddTrackReference", Expect({from, to}), add) >= 0)
        {
            mMovie.FindTrack(from)->references[type].push_back(to);
        }
    }

    void AddUserData()
    {
        constexpr auto kTypes = std::to_array({Code("\xA9nam"),
                                               Code("\xA9"
                                                    "ART"),
                                               Code("\xA9swr"), Code("name")});
        constexpr auto kOddTypes = std::to_array({0, -1, Code("meta"), Code("udta"), Code("moov"), Code("stsd")});
        int type = mInput.Pick(kTypes);
        if (mInput.IsOdd())
        {
            type = mInput.Bit() ? mInput.I32() : mInput.Pick(kOddTypes);
        }
        Item item(mInput);
        if (mInput.U8() >= 0xFC)
        {
            item.data.resize(1u << 20); // No room in front of the media.
        }
        const std::optional<QT::TrackID> id = mInput.Bit() ? std::optional(TakeTrack()) : std::nullopt;
        const auto refusals = {std::pair(item.isNull, QT::kQTErrNullUserData),
                               std::pair(item.GetSize() < 0, QT::kQTErrBadArgument)};
        const auto add = [&] {
            return id ? mWriter->AddTrackUserData(*id, type, item.GetData(), item.GetSize())
                      : mWriter->AddUserData(type, item.GetData(), item.GetSize());
        };
        if (Try("Adding user data", id ? Expect({*id}, refusals) : Expect({}, refusals), add) >= 0)
        {
            (id ? mMovie.FindTrack(*id)->userData : mMovie.userData).insert_or_assign(type, item.data);
        }
    }

    // ---- Descriptions ----

    void AddDescription()
    {
        switch (mInput.U8() % 6)
        {
        case 0:
            return AddImageDescription();
        case 1:
            return AddSoundDescription();
        case 2:
            mMovie.descriptions.push_back({QT::CreateTextDescription()});
            return;
        case 3:
            mMovie.descriptions.push_back({nullptr, QT::kQTMediaTypeTimecode, 4});
            return SetTimecode(mMovie.descriptions.back());
        case 4:
            mMovie.descriptions.push_back({QT::CreateClosedCaptionDescription(), QT::kQTMediaTypeClosedCaption});
            return;
        default:
            return AddHostDescription();
        }
    }

    void AddHostDescription()
    {
        std::optional<Bytes> entry = Bytes{0, 0, 0, 16, 't', 'e', 'x', 't', 0, 0, 0, 0, 0, 0, 0, 1};
        if (mInput.IsOdd(2))
        {
            entry = mInput.TakeBytes(mInput.U8() % 32);
        }
        if (mInput.IsOdd())
        {
            entry.reset();
        }
        mMovie.descriptions.push_back({boost::make_shared<HostDescription>(entry)});
    }

    void AddImageDescription()
    {
        const int codec = mInput.IsOdd() ? mInput.I32() : Code("apcn");
        Tolbin::UTF16String name = TakeName();
        const int width = mInput.Number(1, 8192);
        const int height = mInput.Number(1, 8192);
        const int depth = mInput.Number(1, 40);
        const auto field = static_cast<Quorlan::FieldType>(mInput.Number(0, 2));
        const unsigned int across = mInput.Unsigned(1, 100);
        const unsigned int down = mInput.Unsigned(1, 100);
        mMovie.descriptions.push_back(
            {QT::CreateImageDescription(codec, name, width, height, depth, field, {across, down}),
             QT::kQTMediaTypeVideo});
    }

    void AddSoundDescription()
    {
        constexpr auto kSizes = std::to_array({0, 1, 1, 2, 3, 4, 4, 0, 0, 0, 8, 2, 3, 4, 4}); // By the sample's type.
        constexpr auto kTypes = std::to_array({1, 2, 3, 4, 5, 6, 10, 11, 12, 13, 14});
        const bool isOddType = mInput.IsOdd();
        const int type = isOddType ? mInput.Number(0, 16) : mInput.Pick(kTypes);
        const int channels = mInput.Number(1, 8);
        const int rate = mInput.Bit() ? mInput.Number(1, 65535) : 65535 + mInput.Number(1, 65535) % 65536;
        const int discreteChannel = mInput.Number(0, 100);
        const bool isDiscrete = mInput.Bit();
        const int labels = mInput.IsOdd() ? mInput.U8() % 4 : channels;
        Quorlan::AudioChannelLayout layout;
        for (int i = 0; i < std::min(labels, 64); ++i)
        {
            const int label = mInput.Number(99, 119); // 99 stands for no position.
            layout.emplace_back(static_cast<Quorlan::AudioChannelLabel>(label == 99 ? 0 : label));
        }
        const bool isSane = !isOddType && rate > 0 && layout.size() == static_cast<std::size_t>(channels);
        mMovie.descriptions.push_back(
            {QT::CreateSoundDescription(discreteChannel, channels, rate, static_cast<Sambrel::AudioSampleType>(type),
                                        layout, isDiscrete),
             QT::kQTMediaTypeSound, isSane ? kSizes[static_cast<unsigned>(type)] * channels : 0});
    }

    void SetTimecode(Description& ioDescription)
    {
        const int timeScale = mInput.Number(1, 60000);
        const int frameDuration = mInput.Number(1, 2000);
        const int frames = mInput.Number(1, 60);
        const bool isDrop = mInput.IsOdd() || (frames % 30 == 0 && mInput.Bit());
        if (const auto timecode = boost::dynamic_pointer_cast<QT::QTTimecodeDescription>(ioDescription.object))
        {
            return timecode->Init(timeScale, frameDuration, frames, isDrop);
        }
        ioDescription.object = QT::CreateTimecodeDescription(timeScale, frameDuration, frames, isDrop);
    }

    void ChangeDescription()
    {
        if (mMovie.descriptions.empty())
        {
            return;
        }
        Description& description = mMovie.descriptions[mInput.U8() % mMovie.descriptions.size()];
        if (const auto image = boost::dynamic_pointer_cast<QT::QTImageDescription>(description.object))
        {
            ChangeImage(*image);
        }
        else if (description.mediaType == QT::kQTMediaTypeTimecode)
        {
            SetTimecode(description);
        }
    }

    void ChangeImage(QT::QTImageDescription& ioImage)
    {
        const auto codec = static_cast<unsigned int>(Code("apcn"));
        const std::function<void()> changes[] = {
            [&] { SetColor(ioImage); },
            [&] { AddCleanAperture(ioImage); },
            [&] { ioImage.AddGamma(static_cast<QT::GammaValue>(mInput.Number(-1, 0))); },
            [&] { ioImage.SetTemporalQuality(mInput.Unsigned(0, 1023)); },
            [&] { ioImage.SetSpatialQuality(mInput.Unsigned(0, 1024)); },
            [&] { AddExtension(ioImage); },
            [&] { ioImage.SetImageDescriptionCodecFourCC(mInput.IsOdd() ? mInput.U32() : codec); },
            [&] { ioImage.SetVendorFourCC(mInput.U32()); },
            [&] { ioImage.SetRevisionLevel(mInput.I16()); },
            [&] { ioImage.SetCodecName(TakeName()); },
            [&] { ioImage.SetShouldOmitFieldExtension(mInput.Bit()); },
            [&] { SetPadding(ioImage); },
        };
        changes[mInput.U8() % std::size(changes)]();
    }

    void SetColor(QT::QTImageDescription& ioImage)
    {
        const auto index = static_cast<unsigned short>(mInput.Number(0, 9));
        ioImage.SetColorSpaceParameter(index, 1, index);
        unsigned short primaries = 0, transferFunction = 0, matrix = 0;
        Require(ioImage.GetColorSpaceParameter(primaries, transferFunction, matrix) && primaries == index &&
                    transferFunction == 1 && matrix == index,
                "an image description keeps its colour");
    }

    void AddCleanAperture(QT::QTImageDescription& ioImage)
    {
        const unsigned int widthN = mInput.Unsigned(0, ioImage.GetDescriptionWidth() & 0xFFFF);
        const unsigned int heightN = mInput.Unsigned(0, ioImage.GetDescriptionHeight() & 0xFFFF);
        const unsigned int widthD = mInput.Unsigned(1, 4);
        const unsigned int heightD = mInput.Unsigned(1, 4);
        const unsigned int horizOffD = mInput.Unsigned(1, 4);
        const unsigned int vertOffD = mInput.Unsigned(1, 4);
        const int horizOffN = mInput.Number(-9, 9);
        const int vertOffN = mInput.Number(-9, 9);
        ioImage.AddCleanAperture(widthN, widthD, heightN, heightD, horizOffN, horizOffD, vertOffN, vertOffD);
    }

    void AddExtension(QT::QTImageDescription& ioImage)
    {
        constexpr auto kOddTypes = std::to_array({0, Code("colr"), Code("fiel"), Code("pasp"), Code("clap"),
                                                  Code("gama"), Code("wave"), Code("stsd"), Code("meta")});
        const int type = mInput.IsOdd() ? mInput.Pick(kOddTypes) : Code("ACLR");
        Item item(mInput);
        const bool isRefused = item.GetSize() < 0 || (item.isNull && item.GetSize() > 0);
        const auto add = [&] {
            ioImage.AddArbitraryImageDescriptionExtension(static_cast<unsigned int>(type), item.GetData(),
                                                          item.GetSize());
            return Tolbin::kResultSuccess;
        };
        Try("AddArbitraryImageDescriptionExtension", Tolbin::kResultSuccess, add, isRefused);
    }

    void SetPadding(QT::QTImageDescription& ioImage)
    {
        const std::uint8_t choice = mInput.U8();
        unsigned long size = mInput.U8();
        if (choice >= 0xE0)
        {
            size = (1u << 20) - 2048 + mInput.U16() % 2048; // 'moov' just fits in front of the media, or does not.
        }
        // Some can never be had. What can be had but does not fit memory would end the fuzzer.
        ioImage.SetExtraPaddingAmount(size + (mInput.IsOdd() ? 1ul << 63 : 0));
    }

    // ---- Helpers ----

    //! Bytes that a host hands in: once in a while null, or with a size below 0.
    struct Item
    {
        explicit Item(Input& ioInput)
            : data(ioInput.TakeBytes(ioInput.U8() % 24)), isNull(ioInput.IsOdd()), isNegative(ioInput.IsOdd())
        {
            data.reserve(1); // Not null.
        }

        void* GetData() { return isNull ? nullptr : data.data(); }
        int GetSize() const { return isNegative ? -1 : static_cast<int>(data.size()); }

        Bytes data;
        bool isNull;
        bool isNegative;
    };

    //! One of the movie's tracks, or once in a while none.
    QT::TrackID TakeTrack()
    {
        constexpr auto kOdd = std::to_array<QT::TrackID>({0, 1, 255, 1ul << 32, ~0ul});
        const std::uint8_t choice = mInput.U8();
        return choice >= 0xF8 ? mInput.Pick(kOdd)
                              : kFirstTrackID + choice % std::max<std::size_t>(mMovie.tracks.size(), 1);
    }

    Tolbin::UTF16String TakeName()
    {
        const std::size_t length = mInput.U8() % 40;
        return Tolbin::UTF16String(length, static_cast<char16_t>(mInput.U16()));
    }

    std::uint64_t GetBlockSize() const { return kBlockSizes[(mSetting >> 3) % kBlockSizes.size()]; }

    // The last is of no use to a movie.
    static constexpr auto kBufferSizes = std::to_array<unsigned int>({4096, 512, 1000, 8192, 4096, 1, 1u << 20, 0});
    static constexpr auto kBlockSizes = std::to_array<std::uint64_t>({1024, 4096, 32768, 3072});

    Input mInput;
    bool mIsJournaled;
    std::uint8_t mSetting;
    std::uint32_t mLoss; //!< Bits 0 and 1: 0 nothing, 1 the end, else its content; from the others on.
    MemoryFileSystem mFiles;
    Ventra::FileSystemScope mFileSystem;
    SettingScope mBlockSetting;
    ReportCapture mReports;
    std::uint8_t mPattern = 1;
    Movie mMovie;
    bool mHasCloseFailed = false;
    boost::shared_ptr<QT::Reelmill> mWriter;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* inData, std::size_t inSize)
{
    Session(Input({inData, inSize})).Run();
    return 0;
}
