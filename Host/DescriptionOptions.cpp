#include "DescriptionOptions.h"

#include "CommandError.h"

#include <Tolbin/Debug.h>
#include <Tolbin/String.h>
#include <Ventra/File.h>

#include <CLI/CLI.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <fmt/format.h>
#include <system_error>

namespace Host
{

namespace
{

constexpr const char* kNFSBlockSizeKey = "Reelmill.NFSWriteSizeInKBytes";
constexpr const char* kSMBBlockSizeKey = "Reelmill.SMBWriteSizeInKBytes";

//! Everything that the library traces.
constexpr std::array kTraceCategories = {"UnbufferedWriter::OpenExisting()"};

constexpr const char* kLabelsMark = ":labels=";
constexpr std::string_view kDiscrete = "discrete";
constexpr std::int64_t kMaximumDiscrete = 0xFFFF; // The format's discrete labels are 0x10000 to 0x1FFFF.

struct NamedLabel
{
    std::string_view name;
    Quorlan::AudioChannelLabel label;
};

constexpr std::array kLabels = {
    NamedLabel{"L", Quorlan::kAudioChannelLabelLeft},
    NamedLabel{"R", Quorlan::kAudioChannelLabelRight},
    NamedLabel{"C", Quorlan::kAudioChannelLabelCenter},
    NamedLabel{"LFE", Quorlan::kAudioChannelLabelLFEScreen},
    NamedLabel{"Ls", Quorlan::kAudioChannelLabelLeftSurround},
    NamedLabel{"Rs", Quorlan::kAudioChannelLabelRightSurround},
    NamedLabel{"Cs", Quorlan::kAudioChannelLabelCenterSurround},
    NamedLabel{"Lc", Quorlan::kAudioChannelLabelLeftCenter},
    NamedLabel{"Rc", Quorlan::kAudioChannelLabelRightCenter},
    NamedLabel{"Lsd", Quorlan::kAudioChannelLabelLeftSurroundDirect},
    NamedLabel{"Rsd", Quorlan::kAudioChannelLabelRightSurroundDirect},
    NamedLabel{"Ts", Quorlan::kAudioChannelLabelTopCenterSurround},
    NamedLabel{"Vhl", Quorlan::kAudioChannelLabelVerticalHeightLeft},
    NamedLabel{"Vhr", Quorlan::kAudioChannelLabelVerticalHeightRight},
    NamedLabel{"Vhc", Quorlan::kAudioChannelLabelVerticalHeightCenter},
    NamedLabel{"Tbl", Quorlan::kAudioChannelLabelTopBackLeft},
    NamedLabel{"Tbr", Quorlan::kAudioChannelLabelTopBackRight},
    NamedLabel{"Tbc", Quorlan::kAudioChannelLabelTopBackCenter},
    NamedLabel{"Lw", Quorlan::kAudioChannelLabelLeftWide},
    NamedLabel{"Rw", Quorlan::kAudioChannelLabelRightWide},
    NamedLabel{"Rls", Quorlan::kAudioChannelLabelRearSurroundLeft},
    NamedLabel{"Rrs", Quorlan::kAudioChannelLabelRearSurroundRight},
    NamedLabel{"LFE2", Quorlan::kAudioChannelLabelLFE2},
    NamedLabel{"Lt", Quorlan::kAudioChannelLabelLeftTotal},
    NamedLabel{"Rt", Quorlan::kAudioChannelLabelRightTotal},
    NamedLabel{"W", Quorlan::kAudioChannelLabelAmbisonicW},
    NamedLabel{"X", Quorlan::kAudioChannelLabelAmbisonicX},
    NamedLabel{"Y", Quorlan::kAudioChannelLabelAmbisonicY},
    NamedLabel{"Z", Quorlan::kAudioChannelLabelAmbisonicZ},
    NamedLabel{kDiscrete, Quorlan::kAudioChannelLabelDiscrete},
};

struct NamedColour
{
    std::string_view name;
    Colour colour;
};

constexpr std::array kColours = {
    NamedColour{"bt709", {1, 1, 1}},
    NamedColour{"bt601-525", {6, 1, 6}},
    NamedColour{"bt601-625", {5, 1, 6}},
    NamedColour{"bt2020", {9, 1, 9}},
};

struct NamedField
{
    std::string_view name;
    FieldChoice field;
};

constexpr std::array kFields = {
    NamedField{"tff", FieldChoice::kTopFirst},
    NamedField{"bff", FieldChoice::kBottomFirst},
    NamedField{"progressive", FieldChoice::kProgressive},
    NamedField{"omit", FieldChoice::kOmit},
};

template <typename Named>
std::string Names(const Named& inNamed, const char* inSeparator)
{
    std::string names;
    for (const auto& named : inNamed)
    {
        names += (names.empty() ? "" : inSeparator);
        names += named.name;
    }
    return names;
}

template <typename Named>
auto FindName(const Named& inNamed, std::string_view inName)
{
    const auto found =
        std::find_if(inNamed.begin(), inNamed.end(), [inName](const auto& inEntry) { return inEntry.name == inName; });
    return found != inNamed.end() ? &*found : nullptr;
}

//! An option with its value on the way to what it means.
class Argument
{
public:
    Argument(std::string inOption, std::string inValue) : mOption(std::move(inOption)), mValue(std::move(inValue)) {}

    const std::string& GetValue() const { return mValue; }

    //! As the user wrote it.
    std::string GetText() const { return fmt::format("{} {}", mOption, mValue); }

    //! `inWrong` completes "--option value ", `inRight` says what to write instead.
    [[noreturn]] void Refuse(const std::string& inWrong, const std::string& inRight) const
    {
        throw CommandError(ExitCode::kUsage, fmt::format("{} {}; {}", GetText(), inWrong, inRight));
    }

    template <typename T>
    Chosen<T> Choose(T inMeaning) const
    {
        return {GetText(), std::move(inMeaning)};
    }

private:
    std::string mOption;
    std::string mValue;
};

//! A whole number of decimal digits; none for anything else, or outside the limits.
std::optional<std::int64_t> ReadNumber(std::string_view inText, std::int64_t inMinimum, std::int64_t inMaximum)
{
    std::int64_t number = 0;
    const auto [end, error] = std::from_chars(inText.data(), inText.data() + inText.size(), number);
    const bool isNumber =
        !inText.empty() && inText.front() != '-' && error == std::errc() && end == inText.data() + inText.size();
    return isNumber && number >= inMinimum && number <= inMaximum ? std::optional(number) : std::nullopt;
}

std::optional<int> ReadInt(std::string_view inText, int inMinimum, int inMaximum = INT32_MAX)
{
    const std::optional<std::int64_t> number = ReadNumber(inText, inMinimum, inMaximum);
    return number ? std::optional(static_cast<int>(*number)) : std::nullopt; // Within the limits of an int.
}

std::vector<std::string_view> Split(std::string_view inText, char inSeparator)
{
    std::vector<std::string_view> parts;
    for (;;)
    {
        const std::size_t end = inText.find(inSeparator);
        parts.push_back(inText.substr(0, end));
        if (end == std::string_view::npos)
        {
            return parts;
        }
        inText.remove_prefix(end + 1);
    }
}

//! Takes `inPrefix` off the front; false when it is not there.
bool TakePrefix(std::string_view& ioText, std::string_view inPrefix)
{
    const bool hasPrefix = ioText.substr(0, inPrefix.size()) == inPrefix;
    ioText.remove_prefix(hasPrefix ? inPrefix.size() : 0);
    return hasPrefix;
}

bool TakeSuffix(std::string_view& ioText, std::string_view inSuffix)
{
    const bool hasSuffix =
        ioText.size() >= inSuffix.size() && ioText.substr(ioText.size() - inSuffix.size()) == inSuffix;
    ioText.remove_suffix(hasSuffix ? inSuffix.size() : 0);
    return hasSuffix;
}

// ---- One option each
// -------------------------------------------------------------------------------------------------

AudioLabels ParseAudio(const Argument& inArgument)
{
    const std::string& value = inArgument.GetValue();
    const std::size_t mark = value.rfind(kLabelsMark);
    if (mark == std::string::npos || mark == 0)
    {
        inArgument.Refuse("names no file and labels", "write it as in.wav:labels=L,R, in.wav:labels=discrete or "
                                                      "in.wav:labels=discrete:9");
    }
    AudioLabels audio;
    audio.option = inArgument.GetText();
    audio.file = value.substr(0, mark);
    const std::string text = value.substr(mark + std::string_view(kLabelsMark).size());
    std::string_view number = text;
    if (text == kDiscrete)
    {
        return audio;
    }
    if (TakePrefix(number, "discrete:"))
    {
        const std::optional<int> first = ReadInt(number, 0, kMaximumDiscrete);
        if (!first)
        {
            inArgument.Refuse(fmt::format("numbers channels from \"{}\"", number),
                              fmt::format("write a number from 0 to {}, as in discrete:9", kMaximumDiscrete));
        }
        audio.firstDiscrete = *first;
        return audio;
    }
    for (const std::string_view name : Split(text, ','))
    {
        const NamedLabel* named = FindName(kLabels, name);
        if (named == nullptr)
        {
            inArgument.Refuse(
                fmt::format("has the label \"{}\", which there is not", name),
                fmt::format("write one of these for each channel, as in labels=L,R: {}", Names(kLabels, " ")));
        }
        audio.labels.push_back(named->label);
    }
    return audio;
}

Chosen<Aspect> ParseAspect(const Argument& inArgument)
{
    std::string_view text = inArgument.GetValue();
    Aspect aspect = {};
    aspect.isOfPixel = TakePrefix(text, "par=");
    const std::vector<std::string_view> parts = Split(text, ':');
    const std::optional<int> width = ReadInt(parts[0], 1);
    const std::optional<int> height = parts.size() == 2 ? ReadInt(parts[1], 1) : std::nullopt;
    if (!width || !height)
    {
        inArgument.Refuse("is no aspect ratio",
                          "write that of the picture as 4:3, or that of a pixel as par=10:11, in whole numbers");
    }
    aspect.ratio = {*width, *height};
    return inArgument.Choose(aspect);
}

Chosen<CleanAperture> ParseCleanAperture(const Argument& inArgument)
{
    const std::vector<std::string_view> parts = Split(inArgument.GetValue(), '+');
    const std::vector<std::string_view> size = Split(parts[0], 'x');
    const int width = ReadInt(size[0], 1).value_or(0);
    const int height = size.size() == 2 ? ReadInt(size[1], 1).value_or(0) : 0;
    const bool hasPosition = parts.size() == 3;
    const std::optional<int> left = hasPosition ? ReadInt(parts[1], 0) : std::nullopt;
    const std::optional<int> top = hasPosition ? ReadInt(parts[2], 0) : std::nullopt;
    if (width == 0 || height == 0 || (parts.size() != 1 && (!left || !top)))
    {
        inArgument.Refuse("is no part of a picture",
                          "write its size, and its upper left corner where it is not in the middle, in pixels: 704x480 "
                          "or 704x480+8+0");
    }
    CleanAperture aperture = {};
    aperture.width = width;
    aperture.height = height;
    if (hasPosition)
    {
        aperture.position.emplace(*left, *top);
    }
    return inArgument.Choose(aperture);
}

Chosen<Colour> ParseColour(const Argument& inArgument)
{
    if (const NamedColour* named = FindName(kColours, inArgument.GetValue()))
    {
        return inArgument.Choose(named->colour);
    }
    std::array<std::uint16_t, 3> indices = {};
    const std::vector<std::string_view> parts = Split(inArgument.GetValue(), ',');
    bool isRight = parts.size() == indices.size();
    for (std::size_t index = 0; isRight && index < indices.size(); ++index)
    {
        const std::optional<int> number = ReadInt(parts[index], 0, UINT16_MAX);
        isRight = number.has_value();
        indices[index] = static_cast<std::uint16_t>(number.value_or(0)); // Within 16 bits.
    }
    if (!isRight)
    {
        inArgument.Refuse("is no colour", fmt::format("write {}, or the indices of primaries, transfer function and "
                                                      "matrix, 0 to 65535, as in 9,16,9",
                                                      Names(kColours, ", ")));
    }
    return inArgument.Choose(Colour{indices[0], indices[1], indices[2]});
}

Chosen<FieldChoice> ParseField(const Argument& inArgument)
{
    const NamedField* named = FindName(kFields, inArgument.GetValue());
    if (named == nullptr)
    {
        inArgument.Refuse("is no field order", fmt::format("write one of {}", Names(kFields, ", ")));
    }
    return inArgument.Choose(named->field);
}

Chosen<std::uint32_t> ParseCode(const Argument& inArgument)
{
    constexpr int kHexadecimal = 16;
    const std::string& text = inArgument.GetValue();
    std::uint32_t code = 0;
    if (text.size() == 4 && std::all_of(text.begin(), text.end(),
                                        [](char inCharacter) { return inCharacter >= 0x20 && inCharacter <= 0x7E; }))
    {
        for (const char character : text)
        {
            code = code << 8 | static_cast<unsigned char>(character);
        }
        return inArgument.Choose(code);
    }
    const char* const end = text.data() + text.size();
    const bool isHexadecimal = text.size() == 10 && text.compare(0, 2, "0x") == 0;
    if (isHexadecimal && std::from_chars(text.data() + 2, end, code, kHexadecimal).ptr == end)
    {
        return inArgument.Choose(code);
    }
    inArgument.Refuse("is no four-character code",
                      "write four ASCII characters, spaces at the end included, as in \"png \", or 0x and eight "
                      "hexadecimal digits");
}

Chosen<std::string> ParseCodecName(const Argument& inArgument)
{
    constexpr std::size_t kMaximumLength = 31;
    const std::string& name = inArgument.GetValue();
    if (Tolbin::string::UTF16to8(Tolbin::string::UTF8to16(name)) != name)
    {
        inArgument.Refuse("is not UTF-8", "write the name in UTF-8");
    }
    if (name.size() > kMaximumLength)
    {
        inArgument.Refuse(fmt::format("has {} bytes", name.size()),
                          fmt::format("write at most {} bytes of UTF-8", kMaximumLength));
    }
    return inArgument.Choose(name);
}

Chosen<unsigned long> ParsePadding(const Argument& inArgument)
{
    constexpr int kMaximum = 1 << 20;
    const std::optional<int> size = ReadInt(inArgument.GetValue(), 0, kMaximum);
    if (!size)
    {
        inArgument.Refuse("is no number of bytes", fmt::format("write a whole number from 0 to {}", kMaximum));
    }
    return inArgument.Choose(static_cast<unsigned long>(*size));
}

Chosen<ChunkLength> ParseChunk(const Argument& inArgument)
{
    struct Unit
    {
        std::string_view name;
        std::size_t bytes;
        double seconds;
    };
    constexpr std::array kUnits = {Unit{"ms", 0, 1e-3}, Unit{"s", 0, 1}, Unit{"KiB", 1U << 10, 0},
                                   Unit{"MiB", 1U << 20, 0}};
    constexpr int kMaximumFrames = 1000000;
    constexpr double kMaximumSeconds = 3600;
    constexpr std::size_t kMaximumBytes = 128U << 20; // Half of what may wait in memory.

    const std::string_view text = inArgument.GetValue();
    std::string_view frameCount = text;
    if (TakePrefix(frameCount, "frames="))
    {
        if (const std::optional<int> frames = ReadInt(frameCount, 1, kMaximumFrames))
        {
            return inArgument.Choose(ChunkLength{0, 0, static_cast<std::size_t>(*frames)});
        }
    }
    for (const Unit& unit : kUnits)
    {
        std::string_view number = text;
        const std::optional<int> count = TakeSuffix(number, unit.name) ? ReadInt(number, 1) : std::nullopt;
        const ChunkLength length = {count.value_or(0) * unit.seconds,
                                    static_cast<std::size_t>(count.value_or(0)) * unit.bytes, 0};
        if (count && length.seconds <= kMaximumSeconds && length.bytes <= kMaximumBytes)
        {
            return inArgument.Choose(length);
        }
    }
    inArgument.Refuse("is no length of a chunk", "write it as 500ms or 2s (up to 3600s), 64KiB or 1MiB (up to 128MiB), "
                                                 "or frames=1, in whole numbers");
}

Chosen<int> ParseMovieTimeScale(const Argument& inArgument)
{
    const std::optional<int> timeScale = ReadInt(inArgument.GetValue(), 1);
    if (!timeScale)
    {
        inArgument.Refuse("is no time scale",
                          fmt::format("write units per second as a whole number from 1 to {}, as in "
                                      "600",
                                      INT32_MAX));
    }
    return inArgument.Choose(*timeScale);
}

Choice<BlockSize> ParseIO(const Argument& inArgument)
{
    constexpr int kStep = 4; // What unbuffered writes must align to.
    constexpr int kMaximum = 1 << 20;
    std::string_view text = inArgument.GetValue();
    if (text == "auto")
    {
        return std::nullopt;
    }
    const bool isForNFS = TakePrefix(text, "nfs=");
    const bool isForSMB = !isForNFS && TakePrefix(text, "smb=");
    const std::optional<int> size = isForNFS || isForSMB ? ReadInt(text, kStep, kMaximum) : std::nullopt;
    if (!size || *size % kStep != 0)
    {
        inArgument.Refuse("is no size of blocks", fmt::format("write auto, or the KiB of a block on one kind of volume "
                                                              "as in nfs=64 or smb=1024, a multiple of {} up to {}",
                                                              kStep, kMaximum));
    }
    return inArgument.Choose(BlockSize{isForNFS ? Ventra::FileSystemType::kNFS : Ventra::FileSystemType::kSMB, *size});
}

//! Parses an option where it was given.
template <typename Parser>
auto ParseGiven(const char* inOption, const std::string& inValue, Parser inParser)
    -> std::optional<decltype(inParser(std::declval<Argument>()))>
{
    return inValue.empty() ? std::nullopt : std::optional(inParser(Argument(inOption, inValue)));
}

} // namespace

// ---- All of them
// -----------------------------------------------------------------------------------------------------

std::string_view LabelName(Quorlan::AudioChannelLabel inLabel)
{
    const auto* named = std::find_if(kLabels.begin(), kLabels.end(),
                                     [inLabel](const NamedLabel& inNamed) { return inNamed.label == inLabel; });
    return named != kLabels.end() ? named->name : "?";
}

std::string VideoOptions::GetAny() const
{
    std::string any;
    const auto take = [&any](const auto& inChoice) { any = inChoice ? inChoice->option : any; };
    take(padding);
    take(codecTag);
    take(codecName);
    take(vendor);
    take(gamma);
    take(field);
    take(colour);
    take(cleanAperture);
    take(aspect);
    return any;
}

const AudioLabels* DescriptionOptions::FindLabels(const std::string& inInput) const
{
    const auto found = std::find_if(audio.begin(), audio.end(),
                                    [&inInput](const AudioLabels& inLabels) { return inLabels.file == inInput; });
    return found != audio.end() ? &*found : nullptr;
}

void AddDescriptionOptions(CLI::App& ioCommand, DescriptionArguments& outArguments)
{
    const auto add = [&ioCommand](const char* inName, auto& outValue, const char* inType, const std::string& inHelp) {
        // An empty value would pass for an option that was not given.
        const auto isGiven = [](const std::string& inText) { return inText.empty() ? "the value is empty" : ""; };
        return ioCommand.add_option(inName, outValue, inHelp)->type_name(inType)->check(isGiven);
    };
    add("--audio", outArguments.audio, "FILE:labels=LABELS",
        fmt::format(
            "What the channels of FILE are for, which is taken as an input of audio only unless it is one of the "
            "inputs: a label for each channel (L,R), \"discrete\" for numbered channels, or \"discrete:9\" to "
            "number them from 9. Labels: {}",
            Names(kLabels, " ")))
        ->allow_extra_args(false);
    ioCommand.add_flag("--split-audio", outArguments.splitAudio, "Make a track of one channel of each audio channel");
    add("--aspect", outArguments.aspect, "W:H|par=W:H",
        "Aspect ratio of the picture (of its clean aperture, where that is given), or of a pixel");
    add("--clean-aperture", outArguments.cleanAperture, "WxH[+X+Y]",
        "The part of the picture to show, in pixels; in the middle unless its upper left corner is given");
    add("--color", outArguments.colour, "COLOR",
        fmt::format("Colour of the video: {}, or the indices of primaries, transfer function and matrix, as in 9,16,9",
                    Names(kColours, ", ")));
    add("--field", outArguments.field, "ORDER",
        "Scanning of the video: tff or bff (top or bottom field shown first), progressive, or omit to say nothing");
    ioCommand.add_flag("--gamma", outArguments.gamma, "State a gamma of 2.2");
    add("--vendor", outArguments.vendor, "CODE", "Vendor of the video's codec, four characters");
    ioCommand.add_option("--codec-name", outArguments.codecName, "Name of the video's codec, up to 31 bytes of UTF-8")
        ->type_name("NAME");
    add("--codec-tag", outArguments.codecTag, "CODE", "Data format of the video, four characters");
    add("--padding", outArguments.padding, "BYTES", "Zero bytes at the end of the video's description");
    add("--chunk", outArguments.chunk, "LENGTH",
        "Length of a chunk of one track: 500ms (the default), 1MiB or frames=1; packets are not divided");
    add("--movie-timescale", outArguments.movieTimeScale, "UNITS", "Units of the movie's time per second");
    add("--io", outArguments.io, "auto|nfs=KIB|smb=KIB", "Size of a block that is written to a network volume");
    ioCommand.add_flag("-v,--verbose", outArguments.verbose, "Show what the library traces");
}

DescriptionOptions ParseDescriptionOptions(const DescriptionArguments& inArguments)
{
    DescriptionOptions options;
    std::transform(inArguments.audio.begin(), inArguments.audio.end(), std::back_inserter(options.audio),
                   [](const std::string& inValue) { return ParseAudio(Argument("--audio", inValue)); });
    options.splitAudio = inArguments.splitAudio;
    options.video.aspect = ParseGiven("--aspect", inArguments.aspect, ParseAspect);
    options.video.cleanAperture = ParseGiven("--clean-aperture", inArguments.cleanAperture, ParseCleanAperture);
    options.video.colour = ParseGiven("--color", inArguments.colour, ParseColour);
    options.video.field = ParseGiven("--field", inArguments.field, ParseField);
    if (inArguments.gamma)
    {
        options.video.gamma = Chosen<bool>{"--gamma", true};
    }
    options.video.vendor = ParseGiven("--vendor", inArguments.vendor, ParseCode);
    if (inArguments.codecName)
    {
        options.video.codecName = ParseCodecName(Argument("--codec-name", *inArguments.codecName));
    }
    options.video.codecTag = ParseGiven("--codec-tag", inArguments.codecTag, ParseCode);
    options.video.padding = ParseGiven("--padding", inArguments.padding, ParsePadding);
    options.chunk = ParseGiven("--chunk", inArguments.chunk, ParseChunk);
    options.movieTimeScale = ParseGiven("--movie-timescale", inArguments.movieTimeScale, ParseMovieTimeScale);
    options.blockSize = ParseGiven("--io", inArguments.io, ParseIO).value_or(std::nullopt);
    options.verbose = inArguments.verbose;
    return options;
}

void AddLabelledFiles(DescriptionOptions& ioOptions, std::vector<std::string>& ioInputs)
{
    const auto isSame = [](const std::string& inLeft, const std::string& inRight) {
        std::error_code error; // Files that do not exist are the same when their names are.
        return inLeft == inRight || std::filesystem::equivalent(inLeft, inRight, error);
    };
    for (auto audio = ioOptions.audio.begin(); audio != ioOptions.audio.end(); ++audio)
    {
        const auto other = std::find_if(ioOptions.audio.begin(), audio,
                                        [&](const AudioLabels& inOther) { return isSame(inOther.file, audio->file); });
        if (other != audio)
        {
            throw CommandError(ExitCode::kUsage, fmt::format("{}: the file has labels already, by {}; give them once",
                                                             audio->option, other->option));
        }
        const auto input = std::find_if(ioInputs.begin(), ioInputs.end(),
                                        [&](const std::string& inInput) { return isSame(inInput, audio->file); });
        audio->isAudioOnly = input == ioInputs.end();
        if (audio->isAudioOnly)
        {
            ioInputs.push_back(audio->file);
        }
        else
        {
            audio->file = *input;
        }
    }
}

std::optional<std::string> NoteOnBlockSize(const Choice<BlockSize>& inChoice, const std::filesystem::path& inFile)
{
    Ventra::File file;
    const Tolbin::Result result =
        file.Create(Tolbin::string::PathToUTF16(inFile.string()), Ventra::FileAccessFlags::kRead,
                    Ventra::FileShareModeFlags::kReadWrite, Ventra::FileCreateDispositionFlags::kOpenExisting,
                    Ventra::FileAttributesFlags::kNormal, false);
    if (!inChoice || result < 0 || file.GetFileSystemType() == inChoice->value.volume)
    {
        return std::nullopt; // Without the file there is nothing to tell.
    }
    return fmt::format("{} has no effect: the movie is not on such a volume", inChoice->option);
}

LibraryScope::LibraryScope(const DescriptionOptions& inOptions, std::ostream& outTrace)
{
    using Tolbin::debug::DebugDatabase;
    if (inOptions.blockSize)
    {
        const BlockSize& size = inOptions.blockSize->value;
        const std::string key = size.volume == Ventra::FileSystemType::kNFS ? kNFSBlockSizeKey : kSMBBlockSizeKey;
        const std::string none = "none"; // No number.
        const std::string previous = DebugDatabase::Instance().GetEntry(key, none);
        mRestorers.emplace_back([key, none, previous] {
            previous == none ? DebugDatabase::Instance().RemoveEntry(key)
                             : DebugDatabase::Instance().SetEntry(key, previous);
        });
        DebugDatabase::Instance().SetEntry(key, std::to_string(size.kibibytes));
    }
    if (!inOptions.verbose)
    {
        return;
    }
    const auto previous =
        Tolbin::debug::SetTraceHandler([&outTrace](int, const std::string& inCategory, const std::string& inMessage) {
            outTrace << fmt::format("reelmill: trace: {}: {}", inCategory, inMessage) << std::flush;
        });
    mRestorers.emplace_back([previous] { Tolbin::debug::SetTraceHandler(previous); });
    for (const char* category : kTraceCategories)
    {
        if (!Tolbin::debug::TraceEnabled(category, 1, false))
        {
            Tolbin::debug::SetTraceEnabled(category, true);
            mRestorers.emplace_back([category] { Tolbin::debug::SetTraceEnabled(category, false); });
        }
    }
}

LibraryScope::~LibraryScope()
{
    std::for_each(mRestorers.begin(), mRestorers.end(), [](const std::function<void()>& inRestore) { inRestore(); });
}

} // namespace Host
