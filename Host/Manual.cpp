#include "Manual.h"

#include "CommandError.h"

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <fmt/ostream.h>
#include <fmt/ranges.h>
#include <ostream>
#include <string_view>
#include <vector>

namespace Host
{

namespace
{

struct Example
{
    std::string_view subcommand;
    std::string_view what;
    std::string_view arguments; //!< Behind "reelmill ".
};

constexpr std::array kExamples = {
    Example{"wrap", "Another container, the same packets", "wrap camera.mxf -o camera.mov"},
    Example{"wrap", "Picture from one file, sound from another", "wrap shot.avi mix.wav -o shot.mov"},
    Example{"wrap", "An image sequence", "wrap frame.%04d.png --fps 24000/1001 -o frames.mov"},
    Example{"wrap", "A 5.1 mix with its channels named",
            "wrap shot.mov --audio mix.wav:labels=L,R,C,LFE,Ls,Rs -o shot51.mov"},
    Example{"wrap", "Timecode, chapters and captions for broadcast",
            "wrap shot.mov --timecode '01:00:00;00' --chapters chapters.txt --captions shot.scc -o air.mov"},
    Example{"wrap", "Colour, pixel shape and clean aperture of a DV picture",
            "wrap tape.avi --color bt601-525 --aspect par=10:11 --clean-aperture 704x480 -o tape.mov"},
    Example{"wrap", "What would be written, and everything that keeps it from being written",
            "wrap shot.mov --chapters chapters.txt -o shot_ch.mov --dry-run"},
    Example{"wrap", "What is left of an input that breaks off", "wrap broken.mxf -o rest.mov --allow-damage"},
    Example{"wrap", "Under a program: the result on standard output, progress on standard error",
            "wrap camera.mxf -o camera.mov --json --progress=json"},
    Example{"recover", "Finish a movie whose wrap was killed", "recover camera.mov"},
    Example{"recover", "Finish a copy of it elsewhere", "recover camera.mov.part -o /volume/camera.mov"},
    Example{"demo", "Bars and tone", "demo demo.mov"},
    Example{"info", "A summary for people", "info movie.mov"},
    Example{"info", "All of it for a program", "info --json movie.mov"},
    Example{"info", "Every sample of track 2", "info --samples 2 movie.mov"},
    Example{"verify", "Check a folder of movies, and name only those that are not sound", "verify -q *.mov"},
    Example{"map", "A page that shows where everything lies", "map movie.mov -o movie.html"},
};

std::vector<const CLI::App*> Subcommands(const CLI::App& inApp)
{
    return inApp.get_subcommands([](const CLI::App*) { return true; });
}

//! The options of a (sub)command that have a name, and those that are positional.
std::vector<const CLI::Option*> Options(const CLI::App& inApp)
{
    return inApp.get_options([](const CLI::Option*) { return true; });
}

//! "-o,--output" as a list.
std::vector<std::string> Names(const CLI::Option& inOption)
{
    std::vector<std::string> names;
    for (const std::string& name : inOption.get_snames())
    {
        names.push_back("-" + name);
    }
    for (const std::string& name : inOption.get_lnames())
    {
        names.push_back("--" + name);
    }
    return names;
}

//! Text for troff: backslashes and dashes escaped, no line that begins with a dot or a quote.
std::string Troff(const std::string& inText)
{
    std::string escaped;
    for (const char character : inText)
    {
        if (character == '\\')
        {
            escaped += "\\e";
        }
        else if (character == '-')
        {
            escaped += "\\-";
        }
        else
        {
            escaped += character;
        }
    }
    return !escaped.empty() && (escaped[0] == '.' || escaped[0] == '\'') ? "\\&" + escaped : escaped;
}

void PrintExamples(std::string_view inSubcommand, std::ostream& out)
{
    bool isFirst = true;
    for (const Example& example : kExamples)
    {
        if (inSubcommand.empty() || example.subcommand == inSubcommand)
        {
            fmt::print(out, "{}  {}:\n    reelmill {}\n", isFirst ? "Examples:\n" : "", example.what,
                       example.arguments);
            isFirst = false;
        }
    }
}

} // namespace

void PrintHelp(const CLI::App& inApp, const std::string& inName, std::ostream& out)
{
    if (inName.empty())
    {
        out << inApp.help();
        PrintExamples("", out);
        return;
    }
    for (const CLI::App* subcommand : Subcommands(inApp))
    {
        if (subcommand->get_name() == inName)
        {
            out << subcommand->help("reelmill");
            PrintExamples(inName, out);
            return;
        }
    }
    throw CommandError(ExitCode::kUsage, fmt::format("there is no subcommand \"{}\" (see reelmill help)", inName));
}

void PrintManualPage(const CLI::App& inApp, const std::string& inVersion, std::ostream& out)
{
    fmt::print(out, ".TH REELMILL 1 \"\" \"reelmill {}\" \"User Commands\"\n", inVersion);
    out << ".SH NAME\nreelmill \\- writes, shows and checks QuickTime movies\n.SH SYNOPSIS\n";
    for (const CLI::App* subcommand : Subcommands(inApp))
    {
        fmt::print(out, ".B reelmill {}\n.RI [ option ...]\\&\n", Troff(subcommand->get_name()));
        for (const CLI::Option* option : Options(*subcommand))
        {
            const std::string value = Troff(option->get_type_name()) + (option->get_expected_max() > 1 ? " ..." : "");
            if (option->get_positional())
            {
                out << (option->get_required() ? ".I " + value : ".RI [ \"" + value + "\" ]\\&") << '\n';
            }
            else if (option->get_required())
            {
                fmt::print(out, ".BI \\-{} \" {}\"\n", option->get_snames().front(), value);
            }
        }
        out << ".br\n";
    }
    out << ".SH COMMANDS\n";
    for (const CLI::App* subcommand : Subcommands(inApp))
    {
        fmt::print(out, ".SS {}\n{}.\n", Troff(subcommand->get_name()), Troff(subcommand->get_description()));
        for (const CLI::Option* option : Options(*subcommand))
        {
            const std::string type = option->get_type_size() == 0 ? "" : option->get_type_name();
            fmt::print(out, ".TP\n.B {}\n{}.\n",
                       Troff(fmt::format("{}{}{}", fmt::join(Names(*option), ", "),
                                         option->get_positional() || type.empty() ? "" : " ", type)),
                       Troff(option->get_description()));
        }
    }
    out << ".SH EXIT STATUS\n"
           ".TP\n.B 0\nDone.\n.TP\n.B 1\nThe command line is wrong.\n"
           ".TP\n.B 2\nThe input cannot be written as asked; nothing was written.\n"
           ".TP\n.B 3\nReading or writing failed.\n.TP\n.B 4\nA file that was checked is not sound.\n"
           ".SH EXAMPLES\n";
    for (const Example& example : kExamples)
    {
        fmt::print(out, ".TP\n{}\n.B reelmill {}\n", Troff(std::string(example.what)),
                   Troff(std::string(example.arguments)));
    }
}

void PrintBashCompletion(const CLI::App& inApp, std::ostream& out)
{
    std::vector<std::string> subcommands;
    std::string cases;
    for (const CLI::App* subcommand : Subcommands(inApp))
    {
        subcommands.push_back(subcommand->get_name());
        std::vector<std::string> words;
        for (const CLI::Option* option : Options(*subcommand))
        {
            const std::vector<std::string> names = Names(*option);
            words.insert(words.end(), names.begin(), names.end());
        }
        cases += fmt::format("        {}) options='{}' ;;\n", subcommand->get_name(), fmt::join(words, " "));
    }
    fmt::print(out,
               "# Tab completion of reelmill for bash: subcommands, options, files.\n"
               "_reelmill()\n"
               "{{\n"
               "    local word=${{COMP_WORDS[COMP_CWORD]}} subcommands='{}' options=\n"
               "    case ${{COMP_WORDS[1]}} in\n"
               "{}"
               "    esac\n"
               "    if [[ $COMP_CWORD -eq 1 || ${{COMP_WORDS[1]}} == help && $word != -* ]]; then\n"
               "        mapfile -t COMPREPLY < <(compgen -W \"$subcommands\" -- \"$word\")\n"
               "    elif [[ $word == -* ]]; then\n"
               "        mapfile -t COMPREPLY < <(compgen -W \"$options\" -- \"$word\")\n"
               "    else\n"
               "        COMPREPLY=()\n"
               "        compopt -o default # Files, as the shell completes them.\n"
               "    fi\n"
               "}}\n"
               "complete -F _reelmill reelmill\n",
               fmt::join(subcommands, " "), cases);
}

} // namespace Host
