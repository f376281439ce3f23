#include "Map.h"

#include "CommandError.h"
#include "OutputFile.h"
#include "Progress.h"

#include <Content.h>
#include <MovieFile.h>
#include <Names.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdint>
#include <fmt/format.h>
#include <fstream>
#include <iterator>
#include <map>
#include <system_error>
#include <vector>

namespace Host
{

namespace
{

// The picture, in SVG units. Panels stand under each other and share their left and right edge.
constexpr double kWidth = 1200;
constexpr double kLeft = 180;
constexpr double kRight = kWidth - 24;
constexpr double kPlotWidth = kRight - kLeft;
constexpr int kColumns = 520; //!< Cells of everything that is drawn along the file.

// Distinguishable with any colour vision, and on paper.
constexpr std::array<const char*, 8> kTrackColors = {"#0072B2", "#E69F00", "#009E73", "#CC79A7",
                                                     "#56B4E9", "#D55E00", "#F0E442", "#7F6BB3"};
constexpr const char* kHeadColor = "#6B7280";
constexpr const char* kMovieColor = "#B91C1C";
constexpr const char* kFreeColor = "#E5E7EB";
constexpr const char* kMediaColor = "#CBD5E1";

std::string Escaped(const std::string& inText)
{
    std::string escaped;
    for (const char character : inText)
    {
        switch (character)
        {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped += static_cast<unsigned char>(character) < 0x20 ? ' ' : character;
        }
    }
    return escaped;
}

const char* TrackColor(std::size_t inIndex)
{
    return kTrackColors[inIndex % kTrackColors.size()];
}

std::string TrackName(const Inspect::Track& inTrack)
{
    std::string name = fmt::format("{} {}", inTrack.id, Inspect::HandlerName(inTrack.handlerType));
    if (!inTrack.entries.empty())
    {
        name += fmt::format(" {}", Inspect::FourCCText(inTrack.entries.front().format));
    }
    return name;
}

//! A round number not below `inValue`, for the end of an axis: 1, 2 or 5 times a power of ten.
double RoundUp(double inValue)
{
    if (!(inValue > 0))
    {
        return 1;
    }
    const double power = std::pow(10, std::floor(std::log10(inValue)));
    for (const double factor : {1.0, 2.0, 5.0})
    {
        if (inValue <= factor * power)
        {
            return factor * power;
        }
    }
    return 10 * power;
}

//! A round number of bytes: "20 MiB".
std::string BytesLabel(double inBytes)
{
    constexpr double kUnit = 1024;
    constexpr std::array kUnits = {"bytes", "KiB", "MiB", "GiB", "TiB"};
    std::size_t unit = 0;
    for (; inBytes >= kUnit && unit + 1 < kUnits.size(); ++unit)
    {
        inBytes /= kUnit;
    }
    return inBytes == 1 && unit == 0 ? "1 byte" : fmt::format("{:g} {}", inBytes, kUnits[unit]);
}

// Steps between round numbers that divide `inLength` into at most eight parts; of seconds minutes and hours are
// round too, of bytes powers of two.
double SecondsStep(double inLength)
{
    constexpr double kMostParts = 8;
    const double least = inLength / kMostParts;
    constexpr std::array kSteps = {1.0, 2.0, 5.0, 10.0, 30.0, 60.0, 120.0, 300.0, 600.0, 1800.0, 3600.0};
    const auto* step = std::find_if(kSteps.begin(), kSteps.end(), [least](double inStep) { return inStep >= least; });
    return least <= 0.5 ? RoundUp(least) : step != kSteps.end() ? *step : 3600 * RoundUp(least / 3600);
}

double BytesStep(double inLength)
{
    constexpr double kMostParts = 8;
    return std::exp2(std::ceil(std::log2(std::max(1.0, inLength / kMostParts))));
}

class Drawing
{
public:
    Drawing(const Inspect::MovieFile& inMovie, const std::string& inTitle)
        : mMovie(inMovie),
          mTitle(inTitle),
          mChunks(Inspect::ChunksInFileOrder(inMovie)),
          mFileSize(std::max<std::uint64_t>(1, inMovie.GetSource().GetSize()))
    {
    }

    std::string Draw()
    {
        DrawHeading();
        DrawAtoms();
        DrawMedia();
        DrawChunkSizes();
        DrawSkew();
        DrawLegend();
        return fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" viewBox=\"0 0 {0:g} {1:g}\" width=\"{0:g}\" "
                           "height=\"{1:g}\" font-family=\"system-ui, sans-serif\" font-size=\"12\" fill=\"#111827\" "
                           "role=\"img\">\n<title>{2}</title>\n<rect width=\"{0:g}\" height=\"{1:g}\" "
                           "fill=\"#FFFFFF\"/>\n{3}</svg>\n",
                           kWidth, mY, Escaped(mTitle), mBody);
    }

private:
    template <typename... Arguments>
    void Put(fmt::format_string<Arguments...> inFormat, Arguments&&... inArguments)
    {
        fmt::format_to(std::back_inserter(mBody), inFormat, std::forward<Arguments>(inArguments)...);
    }

    void PutBox(double inX, double inY, double inWidth, double inHeight, const char* inColor,
                const std::string& inTooltip)
    {
        Put("<rect x=\"{:.2f}\" y=\"{:.2f}\" width=\"{:.2f}\" height=\"{:.2f}\" fill=\"{}\"><title>{}</title></rect>\n",
            inX, inY, inWidth, inHeight, inColor, Escaped(inTooltip));
    }

    void PutText(double inX, double inY, const char* inAnchor, const std::string& inText,
                 const char* inColor = "#111827")
    {
        Put("<text x=\"{:.2f}\" y=\"{:.2f}\" text-anchor=\"{}\" fill=\"{}\">{}</text>\n", inX, inY, inAnchor, inColor,
            Escaped(inText));
    }

    void PutPanelTitle(const std::string& inTitle)
    {
        mY += 34;
        Put("<text x=\"24\" y=\"{:.2f}\" font-size=\"14\" font-weight=\"600\">{}</text>\n", mY, Escaped(inTitle));
        mY += 14;
    }

    double FileX(std::uint64_t inOffset) const
    {
        return kLeft + kPlotWidth * (static_cast<double>(inOffset) / static_cast<double>(mFileSize));
    }

    //! Round numbers beneath a panel, as `inName` writes them.
    template <typename Name>
    void PutAxis(double inLength, double inStep, Name inName)
    {
        constexpr double kLastLabel = 40; // A text in the middle of this would pass the edge.
        for (int tick = 0; tick * inStep <= inLength; ++tick)
        {
            const double x = kLeft + kPlotWidth * tick * inStep / inLength;
            Put("<line x1=\"{0:.2f}\" x2=\"{0:.2f}\" y1=\"{1:.2f}\" y2=\"{2:.2f}\" stroke=\"#9CA3AF\"/>\n", x, mY,
                mY + 4);
            PutText(x, mY + 17,
                    tick == 0                 ? "start"
                    : x > kRight - kLastLabel ? "end"
                                              : "middle",
                    inName(tick * inStep), "#4B5563");
        }
        mY += 18;
    }

    //! Offsets beneath a panel that runs along the file.
    void PutFileAxis()
    {
        const auto length = static_cast<double>(mFileSize);
        PutAxis(length, BytesStep(length), [](double inOffset) { return BytesLabel(inOffset); });
    }

    //! A thin line across the panel with its value in front.
    void PutLevel(double inY, const std::string& inName)
    {
        Put("<line x1=\"{0:.2f}\" x2=\"{1:.2f}\" y1=\"{2:.2f}\" y2=\"{2:.2f}\" stroke=\"#E5E7EB\"/>\n", kLeft, kRight,
            inY);
        PutText(kLeft - 8, inY + 4, "end", inName, "#4B5563");
    }

    void DrawHeading()
    {
        mY = 34;
        Put("<text x=\"24\" y=\"{:.2f}\" font-size=\"18\" font-weight=\"700\">{}</text>\n", mY, Escaped(mTitle));
        mY += 20;
        const double seconds =
            mMovie.GetTimeScale() != 0 ? static_cast<double>(mMovie.GetDuration()) / mMovie.GetTimeScale() : 0;
        PutText(24, mY, "start",
                fmt::format("{}, {}, {} tracks", FormatSeconds(seconds), FormatBytes(mMovie.GetSource().GetSize()),
                            mMovie.GetTracks().size()),
                "#4B5563");
    }

    // Every atom of the top level, wide enough to be seen whatever its size.
    void DrawAtoms()
    {
        PutPanelTitle("Atoms in order, with size and offset (not to scale)");
        const std::vector<Inspect::Atom>& atoms = mMovie.GetTree().GetAtoms();
        constexpr std::size_t kMaxShown = 40;
        const std::size_t shown = std::min(atoms.size(), kMaxShown);
        constexpr double kHeight = 60;
        std::vector<double> weights(shown);
        double sum = 0;
        for (std::size_t i = 0; i < shown; ++i)
        {
            weights[i] = 1 + std::log2(1 + static_cast<double>(atoms[i].size)) / 6;
            sum += weights[i];
        }
        double x = kLeft;
        for (std::size_t i = 0; i < shown; ++i)
        {
            const Inspect::Atom& atom = atoms[i];
            const double width = kPlotWidth * weights[i] / sum;
            const bool isFree = atom.type == Inspect::FourCC("skip") || atom.type == Inspect::FourCC("free") ||
                                atom.type == Inspect::FourCC("wide");
            const char* color = atom.type == Inspect::FourCC("moov")   ? kMovieColor
                                : atom.type == Inspect::FourCC("mdat") ? kMediaColor
                                : isFree                               ? kFreeColor
                                                                       : kHeadColor;
            const bool isDark = color == kMovieColor || color == kHeadColor;
            PutBox(x, mY, width - 2, kHeight, color,
                   fmt::format("{} at byte {}, {} bytes", Inspect::FourCCText(atom.type), atom.offset, atom.size));
            const char* textColor = isDark ? "#FFFFFF" : "#111827";
            PutText(x + width / 2 - 1, mY + 20, "middle", Inspect::FourCCText(atom.type), textColor);
            PutText(x + width / 2 - 1, mY + 36, "middle", FormatBytes(atom.size), textColor);
            PutText(x + width / 2 - 1, mY + 52, "middle", fmt::format("at {}", atom.offset), textColor);
            x += width;
        }
        mY += kHeight;
        if (shown < atoms.size())
        {
            mY += 16;
            PutText(kRight, mY, "end", fmt::format("and {} more", atoms.size() - shown), "#4B5563");
        }
    }

    // One row for each track: how much of each cell of the file belongs to it.
    void DrawMedia()
    {
        PutPanelTitle("Media along the file");
        constexpr double kRow = 20;
        const std::vector<Inspect::Track>& tracks = mMovie.GetTracks();
        std::vector<std::vector<double>> share(tracks.size(), std::vector<double>(kColumns));
        const double cellBytes = static_cast<double>(mFileSize) / kColumns;
        for (const Inspect::PlacedChunk& placed : mChunks)
        {
            const double begin = static_cast<double>(placed.chunk.offset) / cellBytes;
            const double end =
                std::min<double>(kColumns, static_cast<double>(placed.chunk.offset + placed.chunk.size) / cellBytes);
            for (auto cell = static_cast<std::size_t>(begin); static_cast<double>(cell) < end; ++cell)
            {
                const auto cellBegin = static_cast<double>(cell);
                share[placed.track][cell] += std::min(end, cellBegin + 1) - std::max(begin, cellBegin);
            }
        }
        for (std::size_t track = 0; track < tracks.size(); ++track)
        {
            PutText(kLeft - 8, mY + kRow - 6, "end", TrackName(tracks[track]));
            Put("<rect x=\"{:.2f}\" y=\"{:.2f}\" width=\"{:.2f}\" height=\"{:.2f}\" fill=\"#F3F4F6\"/>\n", kLeft, mY,
                kPlotWidth, kRow - 4);
            // The square root keeps a thin track, such as sound beside video, in sight.
            std::string path;
            for (int column = 0; column < kColumns; ++column)
            {
                const double filled = std::min(1.0, share[track][static_cast<std::size_t>(column)]);
                if (filled > 0)
                {
                    const double height = std::max(1.5, std::sqrt(filled) * (kRow - 4));
                    fmt::format_to(std::back_inserter(path), "M{:.2f} {:.2f}h{:.2f}v{:.2f}h-{:.2f}z",
                                   kLeft + kPlotWidth * column / kColumns, mY + kRow - 4 - height,
                                   kPlotWidth / kColumns, height, kPlotWidth / kColumns);
                }
            }
            Put("<path class=\"media\" d=\"{}\" fill=\"{}\"><title>{}</title></path>\n", path, TrackColor(track),
                Escaped(TrackName(tracks[track])));
            mY += kRow;
        }
        DrawStructure();
        PutFileAxis();
    }

    // Beneath the tracks: what is not media.
    void DrawStructure()
    {
        constexpr double kRow = 20;
        PutText(kLeft - 8, mY + kRow - 6, "end", "structure");
        Put("<rect x=\"{:.2f}\" y=\"{:.2f}\" width=\"{:.2f}\" height=\"{:.2f}\" fill=\"#F3F4F6\"/>\n", kLeft, mY,
            kPlotWidth, kRow - 4);
        for (const Inspect::Atom& atom : mMovie.GetTree().GetAtoms())
        {
            if (atom.type == Inspect::FourCC("mdat"))
            {
                continue;
            }
            const bool isMovie = atom.type == Inspect::FourCC("moov");
            const bool isFree = atom.type == Inspect::FourCC("skip") || atom.type == Inspect::FourCC("free");
            PutBox(FileX(atom.offset), mY, std::max(isMovie ? 2.0 : 0.5, FileX(atom.GetEnd()) - FileX(atom.offset)),
                   kRow - 4,
                   isMovie  ? kMovieColor
                   : isFree ? "#D1D5DB"
                            : kHeadColor,
                   fmt::format("{} at byte {}, {} bytes", Inspect::FourCCText(atom.type), atom.offset, atom.size));
        }
        mY += kRow;
    }

    // The largest chunk of each track in each cell of the file; logarithmic, since tracks differ by orders of
    // magnitude.
    void DrawChunkSizes()
    {
        PutPanelTitle("Chunk sizes along the file (logarithmic)");
        constexpr double kHeight = 120;
        std::uint64_t largest = 1;
        std::map<std::size_t, std::map<int, std::uint64_t>> sizes; // By track and cell.
        for (const Inspect::PlacedChunk& placed : mChunks)
        {
            largest = std::max(largest, placed.chunk.size);
            const int column = std::min(kColumns - 1, static_cast<int>(static_cast<double>(placed.chunk.offset) /
                                                                       static_cast<double>(mFileSize) * kColumns));
            std::uint64_t& size = sizes[placed.track][column];
            size = std::max(size, placed.chunk.size);
        }
        Put("<rect x=\"{:.2f}\" y=\"{:.2f}\" width=\"{:.2f}\" height=\"{:.2f}\" fill=\"#F9FAFB\" "
            "stroke=\"#E5E7EB\"/>\n",
            kLeft, mY, kPlotWidth, kHeight);
        constexpr double kHeadroom = 1.08;
        const double scale = kHeadroom * std::log2(1 + static_cast<double>(largest));
        const auto yOf = [&](double inSize) { return mY + kHeight - kHeight * std::log2(1 + inSize) / scale; };
        constexpr std::array<double, 9> kLevels = {1,        32,      1 << 10,          32 << 10,          1 << 20,
                                                   32 << 20, 1 << 30, 32.0 * (1 << 30), 1024.0 * (1 << 30)};
        for (const double level : kLevels)
        {
            if (level <= static_cast<double>(largest))
            {
                PutLevel(yOf(level), BytesLabel(level));
            }
        }
        for (const auto& [track, columns] : sizes)
        {
            std::string points;
            for (const auto& [column, size] : columns)
            {
                fmt::format_to(std::back_inserter(points), R"(<circle cx="{:.2f}" cy="{:.2f}" r="1.7"/>)",
                               kLeft + kPlotWidth * (column + 0.5) / kColumns, yOf(static_cast<double>(size)));
            }
            Put("<g class=\"chunks\" fill=\"{}\">{}</g>\n", TrackColor(track), points);
        }
        mY += kHeight;
        PutFileAxis();
    }

    // Along the movie's time: how far each sound track has come at the end of each of its chunks in the file, less how
    // far the first video track has. What the other track has nothing for, because it begins later or has ended, counts
    // for neither.
    void DrawSkew()
    {
        const std::vector<Inspect::Track>& tracks = mMovie.GetTracks();
        const auto isKind = [](std::uint32_t inType) {
            return [inType](const Inspect::Track& inTrack) {
                return inTrack.handlerType == inType && !inTrack.chunkOffsets.empty();
            };
        };
        const auto video = std::find_if(tracks.begin(), tracks.end(), isKind(Inspect::FourCC("vide")));
        if (video == tracks.end() || std::none_of(tracks.begin(), tracks.end(), isKind(Inspect::FourCC("soun"))))
        {
            return;
        }
        const auto videoIndex = static_cast<std::size_t>(video - tracks.begin());
        struct Point
        {
            double time;
            double skew;
        };
        std::map<std::size_t, std::vector<Point>> curves;
        const double videoStart = Inspect::MediaStart(mMovie, *video);
        const double videoEnd =
            videoStart + static_cast<double>(video->mediaDuration) / std::max(1U, video->mediaTimeScale);
        double videoReached = videoStart;
        double longest = 0;
        double end = 0;
        for (const Inspect::PlacedChunk& placed : mChunks)
        {
            end = std::max(end, placed.end);
            if (placed.track == videoIndex)
            {
                videoReached = placed.end;
            }
            else if (tracks[placed.track].handlerType == Inspect::FourCC("soun") && placed.end > videoStart)
            {
                const double skew = std::min(placed.end, videoEnd) - videoReached;
                curves[placed.track].push_back({placed.end, skew});
                longest = std::max(longest, std::abs(skew));
            }
        }
        PutPanelTitle("How far sound is ahead of video in the file, along time (seconds)");
        constexpr double kHeight = 120;
        const double top = RoundUp(longest);
        const double middle = mY + kHeight / 2;
        Put("<rect x=\"{:.2f}\" y=\"{:.2f}\" width=\"{:.2f}\" height=\"{:.2f}\" fill=\"#F9FAFB\" "
            "stroke=\"#E5E7EB\"/>\n",
            kLeft, mY, kPlotWidth, kHeight);
        for (const double level : {1.0, 0.5, 0.0, -0.5, -1.0})
        {
            PutLevel(middle - level * kHeight / 2, level == 0 ? "0" : fmt::format("{:+g}", level * top));
        }
        for (const auto& [track, curve] : curves)
        {
            std::string points;
            const std::size_t step = std::max<std::size_t>(1, curve.size() / (2 * kColumns));
            for (std::size_t i = 0; i < curve.size(); i += step)
            {
                fmt::format_to(std::back_inserter(points), "{:.2f},{:.2f} ",
                               kLeft + kPlotWidth * std::max(0.0, curve[i].time) / std::max(end, 1e-9),
                               middle - kHeight / 2 * curve[i].skew / top);
            }
            Put("<polyline class=\"skew\" points=\"{}\" fill=\"none\" stroke=\"{}\" stroke-width=\"1.5\"/>\n", points,
                TrackColor(track));
        }
        mY += kHeight;
        PutAxis(std::max(end, 1e-9), SecondsStep(std::max(end, 1e-9)),
                [](double inSeconds) { return FormatSeconds(inSeconds); });
    }

    void DrawLegend()
    {
        mY += 30;
        double x = 24;
        const auto entry = [&](const char* inColor, const std::string& inName) {
            const double width = 30 + 7.0 * static_cast<double>(inName.size());
            if (x + width > kRight)
            {
                x = 24;
                mY += 20;
            }
            PutBox(x, mY - 10, 12, 12, inColor, inName);
            PutText(x + 18, mY, "start", inName);
            x += width;
        };
        for (std::size_t track = 0; track < mMovie.GetTracks().size(); ++track)
        {
            entry(TrackColor(track), "track " + TrackName(mMovie.GetTracks()[track]));
        }
        entry(kMovieColor, "'moov'");
        entry("#D1D5DB", "kept free");
        entry(kHeadColor, "other atoms");
        mY += 24;
    }

    const Inspect::MovieFile& mMovie;
    std::string mTitle;
    std::vector<Inspect::PlacedChunk> mChunks;
    std::uint64_t mFileSize;
    std::string mBody;
    double mY = 0; //!< Where the next panel begins.
};

} // namespace

std::string DrawMap(const Inspect::MovieFile& inMovie, const std::string& inTitle)
{
    return Drawing(inMovie, inTitle).Draw();
}

void WriteMap(const MapOptions& inOptions)
{
    const std::string extension = inOptions.output.extension().string();
    if (extension != ".svg" && extension != ".html")
    {
        throw CommandError(ExitCode::kUsage, fmt::format("--output {} is no name of a map; end it with .svg or .html",
                                                         inOptions.output.string()));
    }
    OutputFile output(inOptions.output, inOptions.overwrite, {inOptions.input.string()});
    const std::string title = FormatNames(inOptions.input.filename().string());
    std::string document;
    try
    {
        const Inspect::FileSource source(inOptions.input);
        Inspect::Findings findings;
        const Inspect::MovieFile movie(source, findings);
        if (movie.GetMooV() == nullptr)
        {
            throw CommandError(ExitCode::kInputRefused,
                               fmt::format("\"{}\" has no 'moov' atom, so it is no finished movie; name another file",
                                           inOptions.input.string()));
        }
        document = DrawMap(movie, title);
    }
    catch (const std::system_error& error)
    {
        throw CommandError(ExitCode::kIOFailed, fmt::format("\"{}\" cannot be read: {}; check its name and permissions",
                                                            inOptions.input.string(), error.code().message()));
    }
    if (extension == ".html")
    {
        document = fmt::format("<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n"
                               "<meta name=\"viewport\" content=\"width=device-width\">\n<title>{}</title>\n"
                               "<style>body {{ margin: 1rem auto; max-width: 1240px; }} svg {{ width: 100%; height: "
                               "auto; }}</style>\n</head>\n<body>\n{}</body>\n</html>\n",
                               Escaped(title), document);
    }
    std::ofstream file(output.CreatePart(), std::ios::binary);
    file << document;
    file.close();
    if (!file)
    {
        throw CommandError(ExitCode::kIOFailed, fmt::format("\"{}\" cannot be written; check the space on its volume",
                                                            inOptions.output.string()));
    }
    output.Commit();
}

} // namespace Host
