// ReelmillReplay SCRIPTS FOLDER: runs scripts of calls against the library, through its public interface only.
//
// SCRIPTS holds one script per line, as JSON:
//
//   name      of the script
//   file      name of the movie file in FOLDER
//   existing  optional: {seed, size} of a file that is there before
//   volume    optional: the volume to pretend: {bufferSize (null: the query fails), kind, settings, cached, sparse}
//   calls     [{call: name of the operation, its arguments}, ...]
//
// Data is given as a seed and a size: byte i is (seed + i) modulo 251, all zero for a seed below 0, a null pointer for
// a null seed. Strings are arrays of UTF-16 code units. Descriptions are numbered from 0 in the order of their
// creation.
//
// For every script one line goes to standard output: {name, values (one per call), reports ([call, kind, expression,
// message, function], ...), traces, bufferSize and created (once the movie was created)}. Results are unsigned.

#include "Support/ForwardingFileSystem.h"

#include <Reelmill/QTSampleDescription.h>
#include <Reelmill/Reelmill.h>
#include <Tolbin/Debug.h>
#include <Tolbin/FileSupport.h>
#include <Tolbin/Result.h>
#include <Tolbin/String.h>
#include <Ventra/DiskUtils.h>
#include <Ventra/FileSystem.h>

#include <nlohmann/json.hpp>

#include <boost/make_shared.hpp>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <exception>
#include <fstream>
#include <iostream>
#include <map>
#include <memory>
#include <new>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

using Json = nlohmann::json;
using Tolbin::Result;

// ---- Arguments ------------------------------------------------------------------------------------------------------

//! A 32-bit argument that a script may spell signed or unsigned.
template <typename T>
T Bits32(const Json& inValue)
{
    static_assert(sizeof(T) == 4);
    return static_cast<T>(inValue.get<std::int64_t>() & 0xFFFFFFFF);
}

int Int(const Json& inValue)
{
    return inValue.get<int>();
}

Tolbin::UTF16String Text(const Json& inUnits)
{
    Tolbin::UTF16String text;
    for (const Json& unit : inUnits)
    {
        text.push_back(static_cast<char16_t>(unit.get<std::uint16_t>()));
    }
    return text;
}

//! The data of a call. The pointer is not null for a seed, even without any bytes.
class Data
{
public:
    Data(const Json& inSeed, std::int64_t inSize) : mIsNull(inSeed.is_null())
    {
        if (mIsNull)
        {
            return;
        }
        const auto seed = inSeed.get<std::int64_t>();
        mBytes.resize(static_cast<std::size_t>(std::max<std::int64_t>(inSize, 0)) + 1);
        for (std::size_t i = 0; seed >= 0 && i + 1 < mBytes.size(); ++i)
        {
            mBytes[i] = static_cast<char>((static_cast<std::size_t>(seed) + i) % 251);
        }
    }

    explicit Data(const Json& inCall) : Data(inCall.at("seed"), inCall.at("size").get<std::int64_t>()) {}

    char* Pointer() { return mIsNull ? nullptr : mBytes.data(); }
    std::streamsize Size() const { return static_cast<std::streamsize>(mBytes.size()) - 1; }

private:
    bool mIsNull;
    std::vector<char> mBytes;
};

// ---- Doubles --------------------------------------------------------------------------------------------------------

//! The operating system's files on a volume that says of itself what the script wants.
class ScriptedVolume final : public ForwardingFileSystem
{
public:
    explicit ScriptedVolume(const Json& inVolume)
        : mKind(static_cast<Ventra::FileSystemType::Type>(inVolume.value("kind", 1))),
          mIsCached(inVolume.value("cached", false)),
          mIsSparse(inVolume.value("sparse", false))
    {
        if (!inVolume.at("bufferSize").is_null())
        {
            mBufferSize = inVolume.at("bufferSize").get<unsigned int>();
        }
    }

    Result Open(const Tolbin::UTF16String& inPath, const Ventra::FileOpenMode& inMode, Handle& outHandle) override
    {
        Ventra::FileOpenMode mode = inMode;
        if (mIsCached || mIsSparse)
        {
            mode.attributes = Ventra::FileAttributesFlags::kNormal;
        }
        return System().Open(inPath, mode, outHandle);
    }

    Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                 std::size_t& outWritten) override
    {
        return mIsSparse ? WriteSparse(inHandle, inOffset, static_cast<const char*>(inData), inLength, outWritten)
                         : System().Write(inHandle, inOffset, inData, inLength, outWritten);
    }

    Ventra::FileSystemType::Type GetType(Handle) override { return mKind; }

    Result GetEfficientDiskBufferSize(const Tolbin::UTF16String&, unsigned int& outSize) override
    {
        outSize = mBufferSize.value_or(0);
        return mBufferSize ? Tolbin::kResultSuccess : Tolbin::ResultFromSystemError(EIO);
    }

private:
    static constexpr std::size_t kSpan = 65536;

    //! Leaves holes where zeros are appended, but for the last span, which gives the file its length.
    static Result WriteSparse(Handle inHandle, std::int64_t inOffset, const char* inData, std::size_t inLength,
                              std::size_t& outWritten)
    {
        outWritten = 0;
        std::int64_t end = 0;
        Result result = System().GetSize(inHandle, end);
        while (result >= 0 && outWritten < inLength)
        {
            const char* span = inData + outWritten;
            const std::int64_t offset = inOffset + static_cast<std::int64_t>(outWritten);
            std::size_t length = std::min(kSpan, inLength - outWritten);
            const bool isHole = offset >= end && outWritten + length < inLength &&
                                std::all_of(span, span + length, [](char inByte) { return inByte == 0; });
            if (!isHole)
            {
                result = System().Write(inHandle, offset, span, length, length);
            }
            outWritten += length;
        }
        return result;
    }

    Ventra::FileSystemType::Type mKind;
    bool mIsCached;
    bool mIsSparse;
    std::optional<unsigned int> mBufferSize;
};

//! A sample description of the host's own: any bytes, or an exception.
class ScriptedDescription final : public QT::QTSampleDescription
{
public:
    ScriptedDescription(const std::string& inHex, bool inThrows) : mThrows(inThrows)
    {
        for (std::size_t i = 0; i + 1 < inHex.size(); i += 2)
        {
            mContent.push_back(static_cast<std::uint8_t>(std::stoi(inHex.substr(i, 2), nullptr, 16)));
        }
    }

    void GetAsBinary(Tolbin::utility::BinaryDataArray& outEntry) override
    {
        if (mThrows)
        {
            throw std::bad_alloc();
        }
        outEntry = mContent;
    }

private:
    Tolbin::utility::BinaryDataArray mContent;
    bool mThrows;
};

//! Settings that are there for the time of one script.
class ScriptedSettings
{
public:
    explicit ScriptedSettings(const Json& inVolume)
    {
        const Json settings = inVolume.value("settings", Json::object());
        for (const auto& [key, value] : settings.items())
        {
            Tolbin::debug::DebugDatabase::Instance().SetEntry(key, value.get<std::string>());
            mKeys.push_back(key);
        }
    }

    ~ScriptedSettings()
    {
        for (const std::string& key : mKeys)
        {
            Tolbin::debug::DebugDatabase::Instance().RemoveEntry(key);
        }
    }

    ScriptedSettings(const ScriptedSettings&) = delete;
    ScriptedSettings& operator=(const ScriptedSettings&) = delete;

private:
    std::vector<std::string> mKeys;
};

// ---- One script -----------------------------------------------------------------------------------------------------

//! A writer and its descriptions, from creation to destruction.
class Session
{
public:
    explicit Session(const std::string& inPath) : mPath(Tolbin::string::PathToUTF16(inPath)) {}

    //! Runs the script's calls and fills the outcome.
    void Run(const Json& inScript, Json& outOutcome)
    {
        Json reports = Json::array();
        Json traces = Json::array();
        Json values = Json::array();
        Tolbin::debug::SetReportHandler([&](const Tolbin::debug::Report& inReport, bool& ioDisabled) {
            const char* kind = inReport.kind == Tolbin::debug::ReportKind::Assert ? "assert" : "contract";
            reports.push_back({values.size(), kind, inReport.expression, inReport.message, inReport.function});
            ioDisabled = mSilencesReports;
            return false;
        });
        Tolbin::debug::SetTraceHandler([&](int inLevel, const std::string& inCategory, const std::string& inMessage) {
            traces.push_back({inLevel, inCategory, inMessage});
        });
        for (const Json& call : inScript.at("calls"))
        {
            values.push_back(Perform(call));
        }
        mWriter.reset();
        Tolbin::debug::SetReportHandler({});
        Tolbin::debug::SetTraceHandler({});

        outOutcome["values"] = std::move(values);
        outOutcome["reports"] = std::move(reports);
        outOutcome["traces"] = std::move(traces);
        outOutcome.update(mVolume);
    }

private:
    using Operation = Json (Session::*)(const Json&);

    Json Perform(const Json& inCall)
    {
        static const std::map<std::string, Operation> operations = {
            {"SilenceReports", &Session::SilenceReports},
            {"TextDescription", &Session::TextDescription},
            {"ClosedCaptionDescription", &Session::ClosedCaptionDescription},
            {"TimecodeDescription", &Session::TimecodeDescription},
            {"Init", &Session::Init},
            {"HostDescription", &Session::HostDescription},
            {"SoundDescription", &Session::SoundDescription},
            {"ImageDescription", &Session::ImageDescription},
            {"SetColorSpaceParameter", &Session::SetColorSpaceParameter},
            {"AddCleanAperture", &Session::AddCleanAperture},
            {"AddGamma", &Session::AddGamma},
            {"SetTemporalQuality", &Session::SetTemporalQuality},
            {"SetSpatialQuality", &Session::SetSpatialQuality},
            {"SetImageDescriptionCodecFourCC", &Session::SetImageDescriptionCodecFourCC},
            {"SetVendorFourCC", &Session::SetVendorFourCC},
            {"SetRevisionLevel", &Session::SetRevisionLevel},
            {"SetCodecName", &Session::SetCodecName},
            {"SetShouldOmitFieldExtension", &Session::SetShouldOmitFieldExtension},
            {"SetExtraPaddingAmount", &Session::SetExtraPaddingAmount},
            {"AddArbitraryImageDescriptionExtension", &Session::AddArbitraryImageDescriptionExtension},
            {"GetColorSpaceParameter", &Session::GetColorSpaceParameter},
            {"GetCleanAperture", &Session::GetCleanAperture},
            {"GetGeometry", &Session::GetGeometry},
            {"GetAsBinary", &Session::GetAsBinary},
            {"Create", &Session::Create},
            {"NewMovieTrack", &Session::NewMovieTrack},
            {"AddMediaSample", &Session::AddMediaSample},
            {"EndMediaChunk", &Session::EndMediaChunk},
            {"AddTextMediaSample", &Session::AddTextMediaSample},
            {"AddTrackUserData", &Session::AddTrackUserData},
            {"AddUserData", &Session::AddUserData},
            {"AddTrackReference", &Session::AddTrackReference},
            {"SetTrackTrimIn", &Session::SetTrackTrimIn},
            {"Close", &Session::Close},
            {"Flush", &Session::Flush},
            {"GetMovieDuration", &Session::GetMovieDuration},
        };
        const Operation operation = operations.at(inCall.at("call").get<std::string>());
        try
        {
            return (this->*operation)(inCall);
        }
        catch (const Json::exception&)
        {
            throw; // the script is wrong, not the library
        }
        catch (const std::exception& exception)
        {
            return {{"exception", exception.what()}};
        }
    }

    static Json Code(Result inResult) { return static_cast<std::uint32_t>(inResult); }
    static QT::TrackID Track(const Json& inCall, const char* inName = "track") { return inCall.at(inName); }

    // ---- Listening

    Json SilenceReports(const Json& inCall)
    {
        mSilencesReports = inCall.at("on");
        return nullptr;
    }

    // ---- Descriptions

    boost::shared_ptr<QT::QTSampleDescription> Description(const Json& inCall) const
    {
        const Json& index = inCall.at("description");
        return index.is_null() ? nullptr : mDescriptions.at(index.get<std::size_t>());
    }

    //! The description that a call names, as one of its own kind.
    template <typename Kind>
    Kind& DescriptionAs(const Json& inCall) const
    {
        const auto description = boost::dynamic_pointer_cast<Kind>(Description(inCall));
        if (!description)
        {
            throw std::invalid_argument("the script names a description of another kind");
        }
        return *description; // Kept alive by the list.
    }

    QT::QTImageDescription& Image(const Json& inCall) const { return DescriptionAs<QT::QTImageDescription>(inCall); }

    Json TextDescription(const Json&)
    {
        mDescriptions.emplace_back(QT::CreateTextDescription());
        return nullptr;
    }

    Json ClosedCaptionDescription(const Json&)
    {
        mDescriptions.emplace_back(QT::CreateClosedCaptionDescription());
        return nullptr;
    }

    Json TimecodeDescription(const Json& inCall)
    {
        mDescriptions.emplace_back(QT::CreateTimecodeDescription(Int(inCall.at("timeScale")),
                                                                 Int(inCall.at("frameDuration")),
                                                                 Int(inCall.at("frames")), inCall.at("dropFrame")));
        return nullptr;
    }

    Json Init(const Json& inCall)
    {
        DescriptionAs<QT::QTTimecodeDescription>(inCall).Init(Int(inCall.at("timeScale")),
                                                              Int(inCall.at("frameDuration")), Int(inCall.at("frames")),
                                                              inCall.at("dropFrame"));
        return nullptr;
    }

    Json HostDescription(const Json& inCall)
    {
        mDescriptions.emplace_back(boost::make_shared<ScriptedDescription>(inCall.at("content").get<std::string>(),
                                                                           inCall.value("throws", false)));
        return nullptr;
    }

    Json SoundDescription(const Json& inCall)
    {
        Quorlan::AudioChannelLayout layout;
        for (const Json& label : inCall.at("labels"))
        {
            layout.emplace_back(Quorlan::AudioChannelLabel{label.get<std::uint32_t>()});
        }
        mDescriptions.emplace_back(QT::CreateSoundDescription(
            Int(inCall.at("discreteChannel")), Int(inCall.at("channels")), Int(inCall.at("rate")),
            Sambrel::AudioSampleType{Int(inCall.at("sampleType"))}, layout, inCall.at("discrete")));
        return nullptr;
    }

    Json ImageDescription(const Json& inCall)
    {
        Tolbin::UTF16String name = Text(inCall.at("name"));
        const Json& aspect = inCall.at("aspect");
        mDescriptions.emplace_back(QT::CreateImageDescription(
            Bits32<int>(inCall.at("codec")), name, Int(inCall.at("width")), Int(inCall.at("height")),
            Int(inCall.at("depth")), Quorlan::FieldType{Int(inCall.at("fieldType"))},
            Quorlan::PixelAspectRatio(aspect.at(0).get<std::uint32_t>(), aspect.at(1).get<std::uint32_t>())));
        return nullptr;
    }

    Json SetColorSpaceParameter(const Json& inCall)
    {
        const Json& values = inCall.at("values");
        Image(inCall).SetColorSpaceParameter(values.at(0), values.at(1), values.at(2));
        return nullptr;
    }

    Json AddCleanAperture(const Json& inCall)
    {
        const Json& values = inCall.at("values");
        Image(inCall).AddCleanAperture(values.at(0), values.at(1), values.at(2), values.at(3), values.at(4),
                                       values.at(5), values.at(6), values.at(7));
        return nullptr;
    }

    Json AddGamma(const Json& inCall)
    {
        Image(inCall).AddGamma(QT::GammaValue{Int(inCall.at("value"))});
        return nullptr;
    }

    Json SetTemporalQuality(const Json& inCall)
    {
        Image(inCall).SetTemporalQuality(inCall.at("value"));
        return nullptr;
    }

    Json SetSpatialQuality(const Json& inCall)
    {
        Image(inCall).SetSpatialQuality(inCall.at("value"));
        return nullptr;
    }

    Json SetImageDescriptionCodecFourCC(const Json& inCall)
    {
        Image(inCall).SetImageDescriptionCodecFourCC(inCall.at("value"));
        return nullptr;
    }

    Json SetVendorFourCC(const Json& inCall)
    {
        Image(inCall).SetVendorFourCC(inCall.at("value"));
        return nullptr;
    }

    Json SetRevisionLevel(const Json& inCall)
    {
        Image(inCall).SetRevisionLevel(inCall.at("value"));
        return nullptr;
    }

    Json SetCodecName(const Json& inCall)
    {
        Image(inCall).SetCodecName(Text(inCall.at("name")));
        return nullptr;
    }

    Json SetShouldOmitFieldExtension(const Json& inCall)
    {
        Image(inCall).SetShouldOmitFieldExtension(inCall.at("value"));
        return nullptr;
    }

    Json SetExtraPaddingAmount(const Json& inCall)
    {
        Image(inCall).SetExtraPaddingAmount(inCall.at("value"));
        return nullptr;
    }

    Json AddArbitraryImageDescriptionExtension(const Json& inCall)
    {
        Data data(inCall);
        Image(inCall).AddArbitraryImageDescriptionExtension(inCall.at("type"), data.Pointer(), Int(inCall.at("size")));
        return nullptr;
    }

    Json GetColorSpaceParameter(const Json& inCall)
    {
        unsigned short primaries = 7;
        unsigned short transferFunction = 7;
        unsigned short matrix = 7;
        const bool isThere = Image(inCall).GetColorSpaceParameter(primaries, transferFunction, matrix);
        return {isThere, primaries, transferFunction, matrix};
    }

    Json GetCleanAperture(const Json& inCall)
    {
        unsigned int widthN = 7;
        unsigned int widthD = 7;
        unsigned int heightN = 7;
        unsigned int heightD = 7;
        int horizOffN = 7;
        unsigned int horizOffD = 7;
        int vertOffN = 7;
        unsigned int vertOffD = 7;
        const bool isThere =
            Image(inCall).GetCleanAperture(widthN, widthD, heightN, heightD, horizOffN, horizOffD, vertOffN, vertOffD);
        return {isThere, widthN, widthD, heightN, heightD, horizOffN, horizOffD, vertOffN, vertOffD};
    }

    Json GetGeometry(const Json& inCall)
    {
        QT::QTImageDescription& image = Image(inCall);
        return {image.GetPixelAspect().GetNumerator(), image.GetPixelAspect().GetDenominator(),
                image.GetDescriptionWidth(), image.GetDescriptionHeight()};
    }

    Json GetAsBinary(const Json& inCall)
    {
        Tolbin::utility::BinaryDataArray entry(100, 0xEE); // nothing of the old content may survive
        Description(inCall)->GetAsBinary(entry);
        static constexpr char kDigits[] = "0123456789abcdef";
        std::string hex;
        for (const std::uint8_t byte : entry)
        {
            hex += kDigits[byte >> 4];
            hex += kDigits[byte & 15];
        }
        return hex;
    }

    // ---- The writer

    Json Create(const Json& inCall)
    {
        const bool isElsewhere = inCall.contains("path");
        const Tolbin::UTF16String path = isElsewhere ? Text(inCall.at("path")) : mPath;
        const Result result = mWriter->Create(path, Int(inCall.at("timeScale")));
        if (result >= 0)
        {
            unsigned int bufferSize = 0;
            mVolume["volumeResult"] = Code(Ventra::DiskUtils::GetEfficientDiskBufferSizeFromPath(path, bufferSize));
            mVolume["bufferSize"] = bufferSize;
            const auto created =
                Tolbin::filesupport::File(path, Tolbin::filesupport::StorageType::kFileSystem).Created();
            mVolume["created"] = std::chrono::floor<std::chrono::seconds>(created.time_since_epoch()).count();
        }
        return Code(result);
    }

    Json NewMovieTrack(const Json& inCall)
    {
        QT::TrackID trackID = 0xDEADBEEF;
        const Result result = mWriter->NewMovieTrack(QT::MediaType{inCall.at("mediaType").get<std::uint32_t>()},
                                                     Int(inCall.at("timeScale")), Int(inCall.at("width")),
                                                     Int(inCall.at("height")), Description(inCall), trackID);
        return {Code(result), trackID};
    }

    Json AddMediaSample(const Json& inCall)
    {
        Data data(inCall);
        return Code(mWriter->AddMediaSample(Track(inCall), data.Pointer(), Int(inCall.at("size")),
                                            Int(inCall.at("count")), Int(inCall.at("duration")),
                                            inCall.value("auxValue", 0), inCall.value("auxFlag", false)));
    }

    Json EndMediaChunk(const Json& inCall) { return Code(mWriter->EndMediaChunk(Track(inCall))); }

    Json AddTextMediaSample(const Json& inCall)
    {
        return Code(mWriter->AddTextMediaSample(Track(inCall), Text(inCall.at("text")), Int(inCall.at("duration"))));
    }

    Json AddTrackUserData(const Json& inCall)
    {
        Data data(inCall);
        return Code(
            mWriter->AddTrackUserData(Track(inCall), Int(inCall.at("type")), data.Pointer(), Int(inCall.at("size"))));
    }

    Json AddUserData(const Json& inCall)
    {
        Data data(inCall);
        return Code(mWriter->AddUserData(Int(inCall.at("type")), data.Pointer(), Int(inCall.at("size"))));
    }

    Json AddTrackReference(const Json& inCall)
    {
        return Code(mWriter->AddTrackReference(Track(inCall), Track(inCall, "other"),
                                               QT::TrackReferenceType{inCall.at("type").get<std::uint32_t>()}));
    }

    Json SetTrackTrimIn(const Json& inCall)
    {
        return Code(mWriter->SetTrackTrimIn(Track(inCall), Int(inCall.at("trimIn"))));
    }

    Json Close(const Json&) { return Code(mWriter->Close()); }
    Json Flush(const Json&) { return Code(mWriter->Flush()); }
    Json GetMovieDuration(const Json&) { return mWriter->GetMovieDuration(); }

    Tolbin::UTF16String mPath;
    boost::shared_ptr<QT::Reelmill> mWriter = QT::CreateReelmill();
    std::vector<boost::shared_ptr<QT::QTSampleDescription>> mDescriptions;
    bool mSilencesReports = false;
    Json mVolume = Json::object();
};

Json RunScript(const Json& inScript, const std::string& inFolder)
{
    const std::string path = inFolder + "/" + inScript.at("file").get<std::string>();
    if (inScript.contains("existing"))
    {
        Data data(inScript.at("existing"));
        std::ofstream file(path, std::ios::binary);
        file.write(data.Pointer(), data.Size());
        if (!file.flush())
        {
            throw std::runtime_error("cannot write " + path);
        }
    }

    const Json volume = inScript.value("volume", Json::object());
    const ScriptedSettings settings(volume);
    std::optional<ScriptedVolume> fileSystem;
    std::optional<Ventra::FileSystemScope> scope;
    if (!volume.empty())
    {
        fileSystem.emplace(volume);
        scope.emplace(*fileSystem);
    }

    Json outcome = {{"name", inScript.at("name")}};
    Session(path).Run(inScript, outcome);
    return outcome;
}

} // namespace

int main(int inCount, char** inArguments)
{
    if (inCount != 3)
    {
        std::cerr << "usage: ReelmillReplay SCRIPTS FOLDER\n";
        return 1;
    }
    try
    {
        std::ifstream scripts(inArguments[1]);
        if (!scripts)
        {
            std::cerr << "ReelmillReplay: cannot read " << inArguments[1] << '\n';
            return 3;
        }
        Tolbin::debug::SetTraceEnabled("UnbufferedWriter::OpenExisting()", true);
        for (std::string line; std::getline(scripts, line);)
        {
            std::cout << RunScript(Json::parse(line), inArguments[2]) << std::endl; // flushed: the next one may crash
        }
        return std::cout ? 0 : 3;
    }
    catch (const std::exception& exception)
    {
        std::cerr << "ReelmillReplay: " << exception.what() << '\n';
        return 3;
    }
}
