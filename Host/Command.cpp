#include "Command.h"

#include "CommandError.h"
#include "Demo.h"
#include "DescriptionOptions.h"
#include "Info.h"
#include "Manual.h"
#include "Map.h"
#include "MediaSource.h"
#include "Recover.h"
#include "VerifyFiles.h"
#include "Wrap.h"
#include "WrapReport.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <exception>
#include <fmt/format.h>
#include <iostream>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>

namespace Host
{

namespace
{

//! Where a subcommand writes what.
struct Streams
{
    std::ostream& out;
    std::ostream& err;
};

//! The style that was asked for; without one it goes by where the stream leads.
Progress::Style ProgressStyle(const std::ostream& inStream, bool inIsQuiet, const std::string& inChoice)
{
    if (!inChoice.empty())
    {
        return inChoice == "tty"    ? Progress::Style::kTerminal
               : inChoice == "json" ? Progress::Style::kJson
                                    : Progress::Style::kLines;
    }
    if (inIsQuiet)
    {
        return Progress::Style::kQuiet;
    }
    const bool isTerminal = &inStream == &std::cerr && ::isatty(STDERR_FILENO) == 1;
    return isTerminal ? Progress::Style::kTerminal : Progress::Style::kLines;
}

void PrintError(std::ostream& err, const std::string& inSentence)
{
    err << "reelmill: " << FormatNames(inSentence) << std::endl;
}

void PrintNotes(const WrapSummary& inSummary, std::ostream& err)
{
    for (const std::string& note : inSummary.notes)
    {
        err << fmt::format("reelmill: note: {}\n", FormatNames(note));
    }
}

//! A frame rate as a user writes it: 25, 29.97, 30000/1001.
AVRational ParseFrameRate(const std::string& inText)
{
    AVRational rate = {0, 1};
    const bool isNumber = !inText.empty() && inText.find_first_not_of("0123456789./") == std::string::npos;
    if (!isNumber || av_parse_video_rate(&rate, inText.c_str()) < 0)
    {
        throw CommandError(ExitCode::kUsage,
                           fmt::format("--fps {} is no frame rate; write it as 25, 23.976 or 24000/1001", inText));
    }
    return rate;
}

struct WrapArguments
{
    std::vector<std::string> inputs;
    std::string output;
    std::string frameRate;
    std::string progress;
    bool overwrite = false;
    bool allowDamage = false;
    bool quiet = false;
    bool dryRun = false;
    bool json = false;
    DescriptionArguments descriptions;
    TrackArguments tracks;
};

//! Says what is left to say of a run: all on standard error but the one thing that was asked for.
ExitCode ReportWrap(const WrapArguments& inArguments, const WrapSummary& inSummary, const Streams& inStreams)
{
    if (inArguments.json || inArguments.quiet)
    {
        PrintNotes(inSummary, inStreams.err);
    }
    if (inArguments.json)
    {
        PrintSummaryJson(inSummary, inStreams.out);
    }
    else if (!inArguments.quiet)
    {
        PrintSummary(inSummary, inStreams.out);
    }
    return ExitCode::kDone;
}

ExitCode ReportDryRun(const WrapArguments& inArguments, const WrapPrediction& inPrediction, const Streams& inStreams)
{
    if (inPrediction.summary && (inArguments.json || inArguments.quiet))
    {
        PrintNotes(*inPrediction.summary, inStreams.err);
    }
    if (inArguments.json)
    {
        PrintPredictionJson(inPrediction, inStreams.out);
    }
    else if (!inArguments.quiet)
    {
        PrintPrediction(inPrediction, inStreams.out);
    }
    for (const CommandError& refusal : inPrediction.refusals)
    {
        PrintError(inStreams.err, refusal.what());
    }
    return inPrediction.GetExitCode();
}

ExitCode RunWrap(const WrapArguments& inArguments, const Streams& inStreams)
{
    WrapOptions options;
    options.inputs = inArguments.inputs;
    options.descriptions = ParseDescriptionOptions(inArguments.descriptions);
    AddLabelledFiles(options.descriptions, options.inputs);
    options.tracks = ParseTrackOptions(inArguments.tracks);
    if (options.inputs.empty())
    {
        throw CommandError(ExitCode::kUsage, "there is no input; name a media file (see reelmill wrap --help)");
    }
    options.output = inArguments.output;
    options.overwrite = inArguments.overwrite;
    options.allowDamage = inArguments.allowDamage;
    if (!inArguments.frameRate.empty())
    {
        options.frameRate = ParseFrameRate(inArguments.frameRate);
        if (std::none_of(options.inputs.begin(), options.inputs.end(), MediaSource::IsImageSequence))
        {
            throw CommandError(
                ExitCode::kUsage,
                fmt::format("--fps {} is for image sequences, and none of the inputs is one; leave it out",
                            inArguments.frameRate));
        }
    }
    std::optional<WrapSummary> summary;
    WrapPrediction prediction;
    {
        const LibraryScope library(options.descriptions, inStreams.err);
        Progress progress(inStreams.err, ProgressStyle(inStreams.err, inArguments.quiet, inArguments.progress));
        if (inArguments.dryRun)
        {
            prediction = PredictWrap(options, progress);
        }
        else
        {
            summary = Wrap(options, progress);
        }
    }
    return summary ? ReportWrap(inArguments, *summary, inStreams) : ReportDryRun(inArguments, prediction, inStreams);
}

//! Its callback sets `outExitCode`.
const CLI::App& AddWrap(CLI::App& ioApp, const Streams& inStreams, ExitCode& outExitCode)
{
    const auto arguments = std::make_shared<WrapArguments>();
    CLI::App* command =
        ioApp.add_subcommand("wrap", "Puts media files into a QuickTime movie without encoding them anew");
    command
        ->add_option("input", arguments->inputs,
                     "Media files, or image sequences by a pattern such as frame%04d.png: the first video and all "
                     "audio streams of each are taken")
        ->type_name("INPUT");
    command->add_option("-o,--output", arguments->output, "The movie to write")->required()->type_name("OUT.mov");
    command->add_option("--fps", arguments->frameRate, "Frame rate of image sequences, such as 25 or 24000/1001")
        ->type_name("RATE");
    command->add_flag("-y,--overwrite", arguments->overwrite, "Replace the movie if it exists");
    command->add_flag("--allow-damage", arguments->allowDamage,
                      "Take inputs that break off up to there, and packets that are marked as damaged; notes say what "
                      "is missing");
    command->add_flag("-q,--quiet", arguments->quiet,
                      "Print no summary, and progress only with --progress; notes go to standard error");
    command->add_flag("--dry-run", arguments->dryRun,
                      "Write nothing; read the inputs and say what would be written, and everything that keeps it from "
                      "being written");
    command->add_flag("--json", arguments->json,
                      "Print the result as a JSON object, and everything else on standard error");
    command
        ->add_option("--progress", arguments->progress,
                     "How to show progress on standard error: one line that is redrawn, a line now and then, or a JSON "
                     "object a line; otherwise tty on a terminal and lines elsewhere")
        ->type_name("STYLE")
        ->check(CLI::IsMember({"tty", "lines", "json"}));
    AddDescriptionOptions(*command, arguments->descriptions);
    AddTrackOptions(*command, arguments->tracks);
    command->callback([arguments, inStreams, &outExitCode] { outExitCode = RunWrap(*arguments, inStreams); });
    return *command;
}

struct DemoArguments
{
    std::string output;
    bool overwrite = false;
    bool quiet = false;
};

void RunDemo(const DemoArguments& inArguments, const Streams& inStreams)
{
    DemoOptions options;
    options.output = inArguments.output;
    options.overwrite = inArguments.overwrite;
    const DemoSummary summary = WriteDemoMovie(options);
    if (!inArguments.quiet)
    {
        inStreams.out << fmt::format("{}: {}, {}, {} tracks\n", FormatNames(summary.path.string()),
                                     FormatSeconds(summary.seconds), FormatBytes(summary.bytes), summary.tracks);
    }
}

void AddDemo(CLI::App& ioApp, const Streams& inStreams)
{
    const auto arguments = std::make_shared<DemoArguments>();
    CLI::App* command = ioApp.add_subcommand("demo", "Writes a movie that shows what the library can do");
    command->add_option("output", arguments->output, "The movie to write")->required()->type_name("OUT.mov");
    command->add_flag("-y,--overwrite", arguments->overwrite, "Replace the movie if it exists");
    command->add_flag("-q,--quiet", arguments->quiet, "Print no summary");
    command->callback([arguments, inStreams] { RunDemo(*arguments, inStreams); });
}

const CLI::App& AddRecover(CLI::App& ioApp, const Streams& inStreams)
{
    const auto options = std::make_shared<RecoverOptions>();
    CLI::App* command =
        ioApp.add_subcommand("recover", "Finishes a movie that a crash left behind, from the journal beside it");
    command->add_option("movie", options->movie, "The movie, or the output that wrap was asked for")
        ->required()
        ->type_name("MOVIE");
    command
        ->add_option("-o,--output", options->output, "Write a finished copy, and leave the movie and its journal alone")
        ->type_name("COPY");
    command->add_flag("-y,--overwrite", options->overwrite, "Replace the copy if it exists");
    command->add_flag("--dry-run", options->dryRun, "Print what would be recovered, and write nothing");
    command->add_flag("--drop-for-space", options->dropsForSpace,
                      "Leave out samples at the end where the volume has no room to finish the movie with them");
    command->add_flag("--json", options->json, "Print the result as JSON");
    command->callback([options, inStreams] { RecoverMovieFile(*options, inStreams.out); });
    return *command;
}

void AddInfo(CLI::App& ioApp, const Streams& inStreams)
{
    const auto options = std::make_shared<InfoOptions>();
    CLI::App* command = ioApp.add_subcommand("info", "Shows what a movie file holds");
    command->add_option("input", options->input, "The movie")->required()->type_name("FILE");
    command->add_flag("--json", options->json, "Print it as JSON");
    CLI::Option* atoms = command->add_flag("--atoms", options->atoms, "Print the tree of atoms: offset, size, type");
    command->add_option("--samples", options->samples, "Print every sample of the track with this ID")
        ->type_name("TRACK")
        ->excludes(atoms);
    command->callback([options, inStreams] { PrintInfo(*options, inStreams.out); });
}

void AddVerify(CLI::App& ioApp, const Streams& inStreams)
{
    const auto options = std::make_shared<VerifyOptions>();
    CLI::App* command = ioApp.add_subcommand("verify", "Checks that movie files are sound, and says what is wrong");
    command->add_option("input", options->inputs, "The movies")->required()->type_name("FILE");
    command->add_flag("--json", options->json, "Print the findings as JSON");
    command->add_flag("-q,--quiet", options->quiet, "Print only files that are not sound");
    command->callback([options, inStreams] { VerifyFiles(*options, inStreams.out); });
}

void AddMap(CLI::App& ioApp)
{
    const auto options = std::make_shared<MapOptions>();
    CLI::App* command = ioApp.add_subcommand("map", "Draws where everything lies in a movie file");
    command->add_option("input", options->input, "The movie")->required()->type_name("FILE");
    command->add_option("-o,--output", options->output, "The picture to write: .svg, or .html for a page")
        ->required()
        ->type_name("OUT");
    command->add_flag("-y,--overwrite", options->overwrite, "Replace the picture if it exists");
    command->callback([options] { WriteMap(*options); });
}

void AddHelp(CLI::App& ioApp, const Streams& inStreams)
{
    struct Arguments
    {
        std::string subcommand;
        bool manual = false;
        bool completion = false;
    };
    const auto arguments = std::make_shared<Arguments>();
    CLI::App* command = ioApp.add_subcommand("help", "Explains a subcommand, with examples");
    command->add_option("subcommand", arguments->subcommand, "What to explain")->type_name("SUBCOMMAND");
    CLI::Option* manual = command->add_flag("--man", arguments->manual, "Print the manual page, for man(1)");
    command->add_flag("--bash-completion", arguments->completion, "Print tab completion for bash, to be sourced")
        ->excludes(manual);
    command->callback([arguments, inStreams, app = &ioApp] {
        if (arguments->manual)
        {
            PrintManualPage(*app, REELMILL_VERSION, inStreams.out);
        }
        else if (arguments->completion)
        {
            PrintBashCompletion(*app, inStreams.out);
        }
        else
        {
            PrintHelp(*app, arguments->subcommand, inStreams.out);
        }
    });
}

} // namespace

int RunCommand(int argc, const char* const* argv, std::ostream& out, std::ostream& err)
{
    CLI::App app("Writes QuickTime movies.", "reelmill");
    std::vector<const CLI::App*> reporting; // Those whose result is an object for programs.
    const auto fail = [&](ExitCode inExitCode, const std::string& inSentence) {
        PrintError(err, inSentence);
        const auto isForPrograms = [](const CLI::App* inCommand) { return inCommand->count("--json") > 0; };
        if (std::any_of(reporting.begin(), reporting.end(), isForPrograms))
        {
            PrintFailureJson(inExitCode, inSentence, out);
        }
        return static_cast<int>(inExitCode);
    };
    try
    {
        const Streams streams = {out, err};
        ExitCode exitCode = ExitCode::kDone;
        app.set_version_flag("--version", "reelmill " REELMILL_VERSION);
        app.require_subcommand(1);
        reporting.push_back(&AddWrap(app, streams, exitCode));
        reporting.push_back(&AddRecover(app, streams));
        AddDemo(app, streams);
        AddInfo(app, streams);
        AddVerify(app, streams);
        AddMap(app);
        AddHelp(app, streams);
        try
        {
            app.parse(argc, argv);
        }
        catch (const CLI::ParseError& error)
        {
            if (error.get_exit_code() != static_cast<int>(CLI::ExitCodes::Success))
            {
                const std::vector<CLI::App*> given = app.get_subcommands();
                const bool isMisnamed = given.empty() && !app.remaining().empty();
                const std::string name = given.empty() ? "" : given.front()->get_name() + " ";
                return fail(ExitCode::kUsage,
                            isMisnamed ? fmt::format("\"{}\" is no subcommand or option (see reelmill --help)",
                                                     app.remaining().front())
                                       : fmt::format("{} (see reelmill {}--help)", error.what(), name));
            }
            app.exit(error, out, err); // Help or version was asked for.
        }
        out.flush();
        return out ? static_cast<int>(exitCode)
                   : fail(ExitCode::kIOFailed,
                          "standard output cannot be written to; check where it leads and the space there");
    }
    catch (const CommandError& error)
    {
        return fail(error.GetExitCode(), error.what());
    }
    catch (const std::bad_alloc&)
    {
        return fail(ExitCode::kIOFailed,
                    "memory ran out; end other programs, or raise the limit of this one, and run the command again");
    }
    catch (const std::exception& error)
    {
        return fail(
            ExitCode::kIOFailed,
            fmt::format("the command failed unexpectedly: {}; please report this with the command line", error.what()));
    }
}

} // namespace Host
