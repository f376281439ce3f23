#include "Recover.h"

#include "CommandError.h"
#include "MovieLayout.h"
#include "OutputFile.h"
#include "Progress.h"

#include <Reelmill/Recovery.h>
#include <Tolbin/String.h>

#include <cerrno>
#include <fmt/format.h>
#include <nlohmann/json.hpp>
#include <system_error>

namespace fs = std::filesystem;

namespace Host
{

namespace
{

using Json = nlohmann::ordered_json;

//! An unfinished movie, its journal, and the name that it is to have.
struct Unfinished
{
    fs::path movie;
    fs::path journal;
    fs::path target;
};

fs::path WithSuffix(fs::path inPath, const char* inSuffix)
{
    inPath += inSuffix;
    return inPath;
}

bool IsThere(const fs::path& inPath)
{
    std::error_code error;
    return fs::exists(inPath, error);
}

Unfinished FindUnfinished(const fs::path& inMovie)
{
    const fs::path part = WithSuffix(inMovie, ".part");
    const bool hasPart = IsThere(WithSuffix(part, ".journal")) || (!IsThere(inMovie) && IsThere(part));
    const bool isOwn = IsThere(WithSuffix(inMovie, ".journal")) || !hasPart;
    const fs::path movie = isOwn ? inMovie : part;
    return {movie, WithSuffix(movie, ".journal"), isOwn || IsThere(inMovie) ? movie : inMovie};
}

bool IsWhole(const fs::path& inMovie)
{
    try
    {
        static_cast<void>(ReadMovieLayout(inMovie));
        return true;
    }
    catch (const CommandError&)
    {
        return false; // Whatever the reason, there is nothing to recover it from.
    }
}

//! Gives a finished movie the name that it is to have, and returns the name that it has.
fs::path GiveName(const Unfinished& inFound)
{
    std::error_code error;
    fs::rename(inFound.movie, inFound.target, error);
    return error ? inFound.movie : inFound.target; // It is finished under either.
}

[[noreturn]] void Fail(const Unfinished& inFound, Tolbin::Result inResult)
{
    const std::string movie = inFound.movie.string();
    const std::string journal = inFound.journal.string();
    switch (inResult)
    {
    case QT::kQTErrBadJournal:
        throw CommandError(
            ExitCode::kInputRefused,
            fmt::format("\"{}\" is no journal that can be read here; \"{}\" cannot be recovered from it, "
                        "so look for another copy",
                        journal, movie));
    case QT::kQTErrOtherMovie:
        throw CommandError(ExitCode::kInputRefused,
                           fmt::format(R"("{}" is the journal of another movie than "{}"; put each journal beside its )"
                                       "own movie",
                                       journal, movie));
    case QT::kQTErrNothingWhole:
        throw CommandError(ExitCode::kInputRefused,
                           fmt::format("no whole sample has reached \"{}\", so there is nothing to recover; remove it "
                                       "and \"{}\"",
                                       movie, journal));
    default:
        throw CommandError(ExitCode::kIOFailed,
                           fmt::format("\"{}\" cannot be finished: {}; {}", movie, Tolbin::ResultMessage(inResult),
                                       Tolbin::SystemErrorFromResult(inResult) == ENOSPC
                                           ? "make room on its volume and run the command again, write a copy to "
                                             "another with --output, or give up its end with --drop-for-space"
                                           : "check its volume and permissions, and run the command again"));
    }
}

Json Describe(const RecoverOptions& inOptions, const fs::path& inMovie, const QT::RecoveryReport& inReport)
{
    return {{"movie", inMovie.string()},
            {"dryRun", inOptions.dryRun},
            {"seconds",
             inReport.movieTimeScale > 0 ? static_cast<double>(inReport.movieDuration) / inReport.movieTimeScale : 0.0},
            {"samples",
             {{"kept", inReport.samplesKept},
              {"dropped", inReport.samplesDropped},
              {"droppedForSpace", inReport.samplesDroppedForSpace},
              {"cut", inReport.samplesCut}}},
            {"tracks", {{"kept", inReport.tracksKept}, {"dropped", inReport.tracksDropped}}},
            {"media",
             {{"kept", inReport.bytesKept},
              {"unknown", inReport.bytesUnknown},
              {"cut", inReport.bytesCut},
              {"damagedPlaces", inReport.damagedPlaces}}},
            {"journalBytesTorn", inReport.journalBytesTorn},
            {"size", inReport.movieSize},
            {"moov", {{"size", inReport.movieAtomSize}, {"position", inReport.isMovieAtomInFront ? "front" : "end"}}}};
}

//! Names of files may be no UTF-8, and JSON must be.
void Print(const Json& inObject, std::ostream& out)
{
    out << inObject.dump(2, ' ', false, Json::error_handler_t::replace) << '\n';
}

void Print(const RecoverOptions& inOptions, const fs::path& inMovie, const QT::RecoveryReport& inReport,
           std::ostream& out)
{
    if (inOptions.json)
    {
        Print(Describe(inOptions, inMovie, inReport), out);
        return;
    }
    const double seconds =
        inReport.movieTimeScale > 0 ? static_cast<double>(inReport.movieDuration) / inReport.movieTimeScale : 0;
    out << fmt::format("{}: {} {}, {} samples in {} tracks, {}\n", FormatNames(inMovie.string()),
                       inOptions.dryRun ? "would be finished:" : "finished:", FormatSeconds(seconds),
                       inReport.samplesKept, inReport.tracksKept, FormatBytes(inReport.movieSize));
    const auto note = [&out](std::uint64_t inCount, const char* inWhat) {
        out << (inCount > 0 ? fmt::format("  note: {} {}\n", inCount, inWhat) : "");
    };
    note(inReport.samplesDropped, "samples were not whole in the file and are left out");
    note(inReport.samplesDroppedForSpace, "samples at the end are left out for lack of space");
    note(inReport.samplesCut, "texts or captions begin behind the end of picture and sound and are left out");
    note(static_cast<std::uint64_t>(inReport.tracksDropped), "tracks have no sample and are left out");
    note(inReport.journalBytesTorn, "bytes at the end of the journal cannot be read");
    note(inReport.bytesUnknown,
         "bytes of media are not in the journal; they stay in 'mdat', where no track names them");
    note(inReport.damagedPlaces, "places of the media are not what was written");
}

//! Writes the output as a copy of the movie that `inFinish` has been at.
template <typename Function>
void WriteCopy(const Unfinished& inFound, const RecoverOptions& inOptions, const Function& inFinish)
{
    OutputFile output(inOptions.output, inOptions.overwrite, {inFound.movie.string(), inFound.journal.string()});
    const fs::path& part = output.CreatePart();
    std::error_code error;
    fs::copy_file(inFound.movie, part, fs::copy_options::overwrite_existing, error);
    if (error)
    {
        throw CommandError(ExitCode::kIOFailed,
                           fmt::format(R"("{}" cannot be copied to "{}": {}; check the space on its volume)",
                                       inFound.movie.string(), inOptions.output.string(), error.message()));
    }
    inFinish(part);
    output.Commit();
}

} // namespace

void RecoverMovieFile(const RecoverOptions& inOptions, std::ostream& out)
{
    const Unfinished found = FindUnfinished(inOptions.movie);
    if (!IsThere(found.movie))
    {
        throw CommandError(ExitCode::kInputRefused, fmt::format(R"(there is no "{}" and no "{}.part"; check the name)",
                                                                found.movie.string(), inOptions.movie.string()));
    }
    if (!IsThere(found.journal))
    {
        if (!IsWhole(found.movie))
        {
            throw CommandError(ExitCode::kInputRefused,
                               fmt::format(R"("{}" is not complete, and there is no journal "{}" to recover it from; )"
                                           "put the journal there",
                                           found.movie.string(), found.journal.string()));
        }
        const bool isCopied = !inOptions.dryRun && !inOptions.output.empty();
        if (isCopied)
        {
            WriteCopy(found, inOptions, [](const fs::path&) {});
        }
        const fs::path own = inOptions.dryRun || isCopied ? found.movie : GiveName(found);
        const std::string name = (isCopied ? inOptions.output : own).string();
        if (inOptions.json)
        {
            Print(Json{{"movie", name}, {"isWhole", true}}, out);
        }
        else
        {
            out << fmt::format("{}: is whole, there is nothing to recover\n", FormatNames(name));
        }
        return;
    }

    QT::RecoveryOptions options;
    options.journalPath = Tolbin::string::PathToUTF16(found.journal.string());
    options.dryRun = inOptions.dryRun;
    options.dropsForSpace = inOptions.dropsForSpace;
    options.keepJournal = !inOptions.output.empty();
    QT::RecoveryReport report;
    const auto recover = [&](const fs::path& inMovie) {
        const Tolbin::Result result = QT::RecoverMovie(Tolbin::string::PathToUTF16(inMovie.string()), report, options);
        if (result < 0)
        {
            Fail(found, result);
        }
    };
    if (inOptions.output.empty() || inOptions.dryRun)
    {
        recover(found.movie);
        Print(inOptions, inOptions.dryRun ? found.movie : GiveName(found), report, out);
        return;
    }
    WriteCopy(found, inOptions, recover);
    Print(inOptions, inOptions.output, report, out);
}

} // namespace Host
