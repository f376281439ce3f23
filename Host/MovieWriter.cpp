#include "MovieWriter.h"

#include "CommandError.h"

#include <Tolbin/String.h>

#include <fmt/format.h>
#include <system_error>

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

MovieWriter::MovieWriter(const std::filesystem::path& inPath, const std::filesystem::path& inName, int inTimeScale,
                         Safety inSafety)
    : mPath(inPath), mName(inName.string())
{
    if (inSafety == Safety::kJournaled)
    {
        mJournal = inPath;
        mJournal += ".journal";
        mWriter = QT::CreateJournaledReelmill(Tolbin::string::PathToUTF16(mJournal.string()));
    }
    else
    {
        mWriter = QT::CreateReelmill();
    }
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
        Check(mWriter->Create(Tolbin::string::PathToUTF16(inPath.string()), inTimeScale));
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
    if (!mJournal.empty())
    {
        mWriter.reset();
        std::error_code ignored; // It went with the movie's `Close`, or what it belongs to goes.
        std::filesystem::remove(mJournal, ignored);
    }
}

void MovieWriter::Check(Tolbin::Result inResult)
{
    if (inResult < 0)
    {
        throw WriteError(fmt::format("\"{}\" cannot be written: {}; {}", mName, Tolbin::ResultMessage(inResult),
                                     RemedyFor(inResult)));
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
    mJournal.clear(); // It is gone.
}

void MovieWriter::CloseWithMedia()
{
    Check(QT::CloseMovieWithMedia(*mWriter));
    mJournal.clear(); // It is gone.
}

std::optional<double> MovieWriter::Recover()
{
    mWriter.reset();
    QT::RecoveryReport report;
    QT::RecoveryOptions options;
    options.journalPath = Tolbin::string::PathToUTF16(mJournal.string());
    options.dropsForSpace = true;
    const Tolbin::Result result = QT::RecoverMovie(Tolbin::string::PathToUTF16(mPath.string()), report, options);
    if (result == QT::kQTErrNothingWhole)
    {
        return std::nullopt;
    }
    if (result < 0)
    {
        mJournal.clear(); // Stays.
        throw CommandError(ExitCode::kIOFailed,
                           fmt::format("what is there could not be finished ({}): make room on its volume and run "
                                       "reelmill recover \"{}\"",
                                       Tolbin::ResultMessage(result), mPath.string()));
    }
    return report.movieTimeScale > 0 ? static_cast<double>(report.movieDuration) / report.movieTimeScale : 0;
}

} // namespace Host
