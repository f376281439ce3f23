#pragma once

#include "CommandError.h"

#include <Reelmill/Recovery.h>
#include <Reelmill/Reelmill.h>
#include <Tolbin/Debug.h>

#include <boost/shared_ptr.hpp>

#include <filesystem>
#include <optional>
#include <string>

namespace Host
{

//! Writing the movie failed.
class WriteError : public CommandError
{
public:
    explicit WriteError(const std::string& inSentence) : CommandError(ExitCode::kIOFailed, inSentence) {}
};

//! A movie writer whose failures are CommandErrors (WriteError where it is the writing that failed). What the library reports as an assertion while the object lives is
//! a failure too: the file would not be what it says.
class MovieWriter
{
public:
    enum class Safety
    {
        kPlain,
        kJournaled //!< Keeps a journal beside the movie ("movie.mov.part.journal") until it is closed.
    };

    //! Creates the movie at `inPath`; sentences call it `inName`.
    MovieWriter(const std::filesystem::path& inPath, const std::filesystem::path& inName, int inTimeScale,
                Safety inSafety);

    //! A journal that is still there goes, unless `Recover` has failed.
    ~MovieWriter();

    MovieWriter(const MovieWriter&) = delete;
    MovieWriter& operator=(const MovieWriter&) = delete;

    QT::TrackID AddTrack(QT::MediaType inMediaType, int inTimeScale, int inWidth, int inHeight,
                         const boost::shared_ptr<QT::QTSampleDescription>& inDescription);
    void SetTrimIn(QT::TrackID inTrack, int inTrimIn);
    void AddSamples(QT::TrackID inTrack, std::uint8_t* inData, int inSize, int inCount, int inDuration);
    void AddText(QT::TrackID inTrack, const Tolbin::UTF16String& inText, int inDuration);
    void EndChunk(QT::TrackID inTrack);
    void AddReference(QT::TrackID inTrack, QT::TrackID inReferenced, QT::TrackReferenceType inType);

    //! User data of a track, or of the movie when there is none.
    void AddUserData(std::optional<QT::TrackID> inTrack, std::uint32_t inType, std::string& inPayload);
    void Close();

    //! Closes a movie whose end was not known before: its tracks end with picture and sound.
    void CloseWithMedia();

    //! After a WriteError: finishes the movie with what is whole in the file. Returns its length in seconds; none when
    //! nothing is whole. Throws CommandError when that fails, and movie and journal stay.
    std::optional<double> Recover();

private:
    void Check(Tolbin::Result inResult);

    std::filesystem::path mPath;
    std::filesystem::path mJournal; //!< Empty where there is none.
    std::string mName;
    std::optional<std::string> mReport; //!< The first report.
    Tolbin::debug::ReportHandler mPreviousHandler;
    boost::shared_ptr<QT::Reelmill> mWriter;
};

} // namespace Host
