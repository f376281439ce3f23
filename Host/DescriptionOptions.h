#pragma once

#include "LibAV.h"

#include <Quorlan/MediaTypes.h>
#include <Ventra/FileSystem.h>

#include <cstdint>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace CLI
{
class App;
}

namespace Host
{

//! Options of `wrap` as they stand on the command line; empty where they were not given.
struct DescriptionArguments
{
    std::vector<std::string> audio;
    bool splitAudio = false;
    std::string aspect;
    std::string cleanAperture;
    std::string colour;
    std::string field;
    bool gamma = false;
    std::string vendor;
    std::optional<std::string> codecName;
    std::string codecTag;
    std::string padding;
    std::string chunk;
    std::string movieTimeScale;
    std::string io;
    bool verbose = false;
};

//! A value and the option that it comes from as the user wrote it, for sentences: "--aspect 4:3".
template <typename T>
struct Chosen
{
    std::string option;
    T value;
};

template <typename T>
using Choice = std::optional<Chosen<T>>;

//! What the channels of a file are for.
struct AudioLabels
{
    std::string option;
    std::string file;
    bool isAudioOnly = false;                       //!< The file is no input otherwise.
    std::vector<Quorlan::AudioChannelLabel> labels; //!< Empty: every channel is discrete.
    int firstDiscrete = 0;                          //!< Number of the first of them.
};

struct Aspect
{
    AVRational ratio;
    bool isOfPixel = false; //!< Not of the picture that is shown.
};

//! In pixels; centred without a position.
struct CleanAperture
{
    int width = 0;
    int height = 0;
    std::optional<std::pair<int, int>> position; //!< of its upper left corner
};

//! Indices of the 'nclc' colour tables.
struct Colour
{
    std::uint16_t primaries = 0;
    std::uint16_t transferFunction = 0;
    std::uint16_t matrix = 0;
};

enum class FieldChoice
{
    kTopFirst,
    kBottomFirst,
    kProgressive,
    kOmit
};

//! What is said about video, whatever the input says.
struct VideoOptions
{
    Choice<Aspect> aspect;
    Choice<CleanAperture> cleanAperture;
    Choice<Colour> colour;
    Choice<FieldChoice> field;
    Choice<bool> gamma;
    Choice<std::uint32_t> vendor; //!< a four-character code, its first character in the most significant byte
    Choice<std::string> codecName;
    Choice<std::uint32_t> codecTag;
    Choice<unsigned long> padding; //!< bytes

    //! One of the options that were given; empty when none was.
    std::string GetAny() const;
};

//! How long the chunks of a track get; one of the three is above 0.
struct ChunkLength
{
    double seconds = 0;
    std::size_t bytes = 0;
    std::size_t frames = 0; //!< of video; chunks of sound last as long
};

//! Size of the blocks that are written to volumes of one kind.
struct BlockSize
{
    Ventra::FileSystemType::Type volume = Ventra::FileSystemType::kLocal;
    int kibibytes = 0;
};

struct DescriptionOptions
{
    std::vector<AudioLabels> audio;
    bool splitAudio = false;
    VideoOptions video;
    Choice<ChunkLength> chunk;
    Choice<int> movieTimeScale;
    Choice<BlockSize> blockSize; //!< Empty: the library's own.
    bool verbose = false;

    //! The labels for an input; null when none were given.
    const AudioLabels* FindLabels(const std::string& inInput) const;
};

void AddDescriptionOptions(CLI::App& ioCommand, DescriptionArguments& outArguments);

//! Throws CommandError (`kUsage`) for an option that is not written as it must be.
DescriptionOptions ParseDescriptionOptions(const DescriptionArguments& inArguments);

//! Adds the files that have labels to the inputs, and gives those that are inputs already the name that they have
//! there. Throws CommandError (`kUsage`) when a file has labels twice.
void AddLabelledFiles(DescriptionOptions& ioOptions, std::vector<std::string>& ioInputs);

//! What to tell when the file that was written is not on a volume that `--io` is for.
std::optional<std::string> NoteOnBlockSize(const Choice<BlockSize>& inChoice, const std::filesystem::path& inFile);

//! The short name of a label: "Ls" for left surround.
std::string_view LabelName(Quorlan::AudioChannelLabel inLabel);

//! The library's settings, and its trace, as the options say, while the object lives. The trace goes to `outTrace`.
class LibraryScope
{
public:
    LibraryScope(const DescriptionOptions& inOptions, std::ostream& outTrace);
    ~LibraryScope();

    LibraryScope(const LibraryScope&) = delete;
    LibraryScope& operator=(const LibraryScope&) = delete;

private:
    std::vector<std::function<void()>> mRestorers;
};

} // namespace Host
