#include "MovieWriter.h"

#include "CommandError.h"

#include <Tolbin/String.h>

#include <fmt/format.h>

namespace Host
{

namespace
{

//! What the user can do about a failure of the library.
const char* RemedyFor(Tolbin::Result inResult)
{
    if (Tolbin::SystemErrorFromResult(inResult) != 0 || inResult == Tolbin::kResultShortWrite)
    {
        return "check the space and the state of its volume, or write to another";
    }
    return inResult == QT::kQTErrTooLarge           ? "divide the inputs"
           : inResult == Tolbin::kResultOutOfMemory ? "end other programs, and run the command again"
                                                    : "please report this with the command line";
}

} // namespace

MovieWriter::MovieWriter(const std::filesystem::path& inPath, const std::filesystem::path& inName, int inTimeScale)
    : mName(inName.string()), mWriter(QT::CreateReelmill())
{
    mPreviousHandler = Tolbin::debug::SetReportHandler([this](const Tolbin::debug::Report& inReport, bool&) {
        if (!mReport)
        {
            mReport = inReport.message.empty() ? inReport.expression : inReport.message;
            while (!mReport->empty() && mReport->back() == '\n')
            {
                mReport->pop_back();
            }
        }
        return false;
    });
    try
    {
        Check(mWriter->Create(Tolbin::string::UTF8to16(inPath.string()), inTimeScale));
    }
    catch (...)
    {
        Tolbin::debug::SetReportHandler(mPreviousHandler);
        throw;
    }
}

MovieWriter::~MovieWriter()
{
    Tolbin::debug::SetReportHandler(mPreviousHandler);
}

void MovieWriter::Check(Tolbin::Result inResult)
{
    if (inResult < 0)
    {
        throw CommandError(ExitCode::kIOFailed, fmt::format("\"{}\" cannot be written: {}; {}", mName,
                                                            Tolbin::ResultMessage(inResult), RemedyFor(inResult)));
    }
    if (mReport)
    {
        throw CommandError(
            ExitCode::kIOFailed,
            fmt::format("\"{}\" would not be a sound movie: {}; please report this with the command line", mName,
                        *mReport));
    }
}

QT::TrackID MovieWriter::AddTrack(QT::MediaType inMediaType, int inTimeScale, int inWidth, int inHeight,
                                  const boost::shared_ptr<QT::QTSampleDescription>& inDescription)
{
    QT::TrackID track = 0;
    Check(mWriter->NewMovieTrack(inMediaType, inTimeScale, inWidth, inHeight, inDescription, track));
    return track;
}

void MovieWriter::SetTrimIn(QT::TrackID inTrack, int inTrimIn)
{
    Check(mWriter->SetTrackTrimIn(inTrack, inTrimIn));
}

void MovieWriter::AddSamples(QT::TrackID inTrack, std::uint8_t* inData, int inSize, int inCount, int inDuration)
{
    Check(mWriter->AddMediaSample(inTrack, inData, inSize, inCount, inDuration, 0, false));
}

void MovieWriter::EndChunk(QT::TrackID inTrack)
{
    Check(mWriter->EndMediaChunk(inTrack));
}

void MovieWriter::AddText(QT::TrackID inTrack, const Tolbin::UTF16String& inText, int inDuration)
{
    Check(mWriter->AddTextMediaSample(inTrack, inText, inDuration));
}

void MovieWriter::AddReference(QT::TrackID inTrack, QT::TrackID inReferenced, QT::TrackReferenceType inType)
{
    Check(mWriter->AddTrackReference(inTrack, inReferenced, inType));
}

void MovieWriter::AddUserData(std::optional<QT::TrackID> inTrack, std::uint32_t inType, std::string& inPayload)
{
    const auto type = static_cast<std::int32_t>(inType); // The format's codes reach beyond 31 bits.
    const int size = static_cast<int>(inPayload.size()); // A file of user data is far smaller.
    Check(inTrack ? mWriter->AddTrackUserData(*inTrack, type, inPayload.data(), size)
                  : mWriter->AddUserData(type, inPayload.data(), size));
}

void MovieWriter::Close()
{
    Check(mWriter->Close());
}

} // namespace Host
