#include "Wrap.h"

#include "CommandError.h"
#include "Interrupt.h"
#include "MovieWriter.h"
#include "OutputFile.h"
#include "Track.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <utility>

namespace Host
{

namespace
{

constexpr double kChunkSeconds = 0.5;

//! Samples of all tracks that may wait for those of others. An input that interleaves its streams more coarsely than
//! this is written as it comes.
constexpr std::size_t kQueueLimit = 256 * 1024 * 1024;

//! A track, and what has been written of it.
struct Output
{
    std::unique_ptr<Track> track;
    QT::TrackID id = 0;
    std::int64_t trimIn = 0; //!< units
    std::int64_t duration = 0;
    std::int64_t samples = 0;
    std::uint64_t bytes = 0;

    double SecondsOf(std::int64_t inUnits) const { return static_cast<double>(inUnits) / track->GetTimeScale(); }

    //! Movie time of a time of the track.
    double MovieSecondsOf(std::int64_t inUnits) const { return SecondsOf(trimIn + inUnits); }
};

struct Input
{
    std::unique_ptr<MediaSource> source;
    std::vector<Output> outputs;
    std::optional<long double> start; //!< Time of its earliest stream, in seconds, once that is known.
    bool isEnded = false;
};

class Wrapper
{
public:
    Wrapper(const WrapOptions& inOptions, Progress& ioProgress) : mOptions(inOptions), mProgress(ioProgress) {}

    WrapSummary Run();

private:
    void OpenInputs();
    void Fill(double inEnd);
    void PlaceTracks(Input& ioInput);
    void PlaceTrack(const Input& inInput, Output& ioOutput);
    void StartMovie(const std::filesystem::path& inPart);
    void WriteMedia();
    void WriteUpTo(Output& ioOutput, double inEnd);
    void WriteSample(Output& ioOutput, const Sample& inSample);
    std::size_t GetQueuedSize() const;
    std::optional<double> GetOldestSeconds() const;
    WrapSummary Summarise(const MovieLayout& inLayout) const;

    template <typename Function>
    void ForEachOutput(Function inFunction)
    {
        for (Input& input : mInputs)
        {
            std::for_each(input.outputs.begin(), input.outputs.end(), inFunction);
        }
    }

    const WrapOptions& mOptions;
    Progress& mProgress;
    std::vector<Input> mInputs;
    std::unique_ptr<MovieWriter> mWriter;
    int mMovieTimeScale = 0;
    double mSeconds = 0; //!< Length of what has been written.
    std::uint64_t mBytes = 0;
};

void Wrapper::OpenInputs()
{
    for (const std::string& path : mOptions.inputs)
    {
        Input input;
        input.source = std::make_unique<MediaSource>(path, MediaSource::IsImageSequence(path) ? mOptions.frameRate
                                                                                              : AVRational{0, 1});
        for (AVStream* stream : input.source->GetStreams())
        {
            Output output;
            if (stream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO)
            {
                output.track = std::make_unique<VideoTrack>(*input.source, *stream);
            }
            else
            {
                output.track = std::make_unique<SoundTrack>(*input.source, *stream);
            }
            const double seconds = input.source->GetExpectedSeconds();
            if (seconds * output.track->GetTimeScale() > static_cast<double>(kMaximumDuration))
            {
                RefuseStream(*input.source, *stream,
                             fmt::format("it lasts {}, and a track of 1/{} s units holds {}", FormatSeconds(seconds),
                                         output.track->GetTimeScale(),
                                         FormatSeconds(output.SecondsOf(kMaximumDuration))));
            }
            input.outputs.push_back(std::move(output));
        }
        mInputs.push_back(std::move(input));
    }
}

std::size_t Wrapper::GetQueuedSize() const
{
    std::size_t size = 0;
    for (const Input& input : mInputs)
    {
        for (const Output& output : input.outputs)
        {
            size += output.track->GetQueuedSize();
        }
    }
    return size;
}

std::optional<double> Wrapper::GetOldestSeconds() const
{
    std::optional<double> oldest;
    for (const Input& input : mInputs)
    {
        for (const Output& output : input.outputs)
        {
            if (const std::optional<std::int64_t> start = output.track->GetOldest())
            {
                const double seconds = output.MovieSecondsOf(*start);
                oldest = std::min(oldest.value_or(seconds), seconds);
            }
        }
    }
    return oldest;
}

//! Reads every input until each of its tracks has all that starts before `inEnd`, or until too much waits.
void Wrapper::Fill(double inEnd)
{
    for (Input& input : mInputs)
    {
        const auto isCovered = [inEnd](const Output& inOutput) {
            return inOutput.track->HasStarted() && inOutput.MovieSecondsOf(inOutput.track->GetHorizon()) >= inEnd;
        };
        while (!input.isEnded && !std::all_of(input.outputs.begin(), input.outputs.end(), isCovered) &&
               GetQueuedSize() < kQueueLimit)
        {
            ThrowIfStopRequested();
            PacketPtr packet = input.source->ReadPacket();
            if (packet == nullptr)
            {
                input.isEnded = true;
                for (const Output& output : input.outputs)
                {
                    output.track->Finish();
                }
                break;
            }
            const int index = packet->stream_index;
            const auto output =
                std::find_if(input.outputs.begin(), input.outputs.end(),
                             [index](const Output& inOutput) { return inOutput.track->GetStream().index == index; });
            const bool hadStarted = output->track->HasStarted(); // The source gives packets of its tracks only.
            output->track->Push(std::move(packet));
            if (!hadStarted && output->track->HasStarted() && input.start)
            {
                PlaceTrack(input, *output);
            }
        }
    }
}

//! Time of the track's first sample in the input, in seconds; before it has come, what the input states.
std::optional<long double> StartOf(const Track& inTrack)
{
    const AVStream& stream = inTrack.GetStream();
    if (!inTrack.HasStarted() && stream.start_time == AV_NOPTS_VALUE)
    {
        return std::nullopt;
    }
    const AVRational base = inTrack.HasStarted() ? inTrack.GetFirstTimeBase() : stream.time_base;
    const std::int64_t time = inTrack.HasStarted() ? inTrack.GetFirstTime() : stream.start_time;
    return static_cast<long double>(time) * base.num / base.den;
}

//! Gives each track of an input its distance from the start of the input, which is its earliest stream's.
void Wrapper::PlaceTracks(Input& ioInput)
{
    for (const Output& output : ioInput.outputs)
    {
        const bool isEmpty = ioInput.isEnded && !output.track->HasStarted();
        const std::optional<long double> start = StartOf(*output.track);
        if (start && !isEmpty)
        {
            ioInput.start = std::min(ioInput.start.value_or(*start), *start);
        }
    }
    for (Output& output : ioInput.outputs)
    {
        if (output.track->HasStarted())
        {
            PlaceTrack(ioInput, output);
        }
    }
}

void Wrapper::PlaceTrack(const Input& inInput, Output& ioOutput)
{
    const Track& track = *ioOutput.track;
    ioOutput.trimIn = std::llround((*StartOf(track) - *inInput.start) * track.GetTimeScale());
    if (ioOutput.trimIn < 0)
    {
        RefuseStream(track.GetSource(), track.GetStream(),
                     "it starts before the other streams of its input, but only far behind them in the file");
    }
    if (ioOutput.trimIn > kMaximumDuration)
    {
        RefuseStream(track.GetSource(), track.GetStream(), "it starts later than a track can say");
    }
    if (mWriter != nullptr)
    {
        mWriter->SetTrimIn(ioOutput.id, static_cast<int>(ioOutput.trimIn));
    }
}

void Wrapper::StartMovie(const std::filesystem::path& inPart)
{
    std::vector<int> videoTimeScales;
    std::vector<int> soundTimeScales;
    double expected = 0; // What progress is measured against.
    double maximum = 0;
    bool isExpectedKnown = true;
    bool isMaximumKnown = true;
    for (const Input& input : mInputs)
    {
        const double seconds = input.source->GetExpectedSeconds();
        const double most = input.source->GetMaximumSeconds();
        isExpectedKnown = isExpectedKnown && seconds > 0;
        isMaximumKnown = isMaximumKnown && most > 0;
        for (const Output& output : input.outputs)
        {
            std::vector<int>& timeScales =
                output.track->GetMediaType() == QT::kQTMediaTypeVideo ? videoTimeScales : soundTimeScales;
            timeScales.push_back(output.track->GetTimeScale());
            expected = std::max(expected, output.SecondsOf(output.trimIn) + seconds);
            maximum = std::max(maximum, output.SecondsOf(output.trimIn) + most);
        }
    }
    mMovieTimeScale = ChooseMovieTimeScale(videoTimeScales, soundTimeScales, isMaximumKnown ? maximum : 0);
    mProgress.SetExpectedSeconds(isExpectedKnown ? expected : 0);

    mWriter = std::make_unique<MovieWriter>(inPart, mOptions.output, mMovieTimeScale);
    ForEachOutput([this](Output& ioOutput) {
        const Track& track = *ioOutput.track;
        ioOutput.id = mWriter->AddTrack(track.GetMediaType(), track.GetTimeScale(), track.GetWidth(), track.GetHeight(),
                                        track.GetDescription());
        mWriter->SetTrimIn(ioOutput.id, static_cast<int>(ioOutput.trimIn));
    });
}

void Wrapper::WriteSample(Output& ioOutput, const Sample& inSample)
{
    const Track& track = *ioOutput.track;
    const std::int64_t duration = inSample.duration * (inSample.count - 1) + inSample.lastDuration;
    const std::int64_t end = ioOutput.trimIn + ioOutput.duration + duration;
    const bool fitsMovie =
        end <= av_rescale_rnd(kMaximumDuration, track.GetTimeScale(), mMovieTimeScale, AV_ROUND_DOWN);
    if (end > kMaximumDuration || !fitsMovie)
    {
        RefuseStream(track.GetSource(), track.GetStream(),
                     fmt::format("it is longer than the {} that the format can count in units of 1/{} s",
                                 FormatSeconds(ioOutput.SecondsOf(ioOutput.duration)),
                                 fitsMovie ? track.GetTimeScale() : mMovieTimeScale));
    }
    // A run of samples of one duration, and the last one where its own is different.
    const int lastSize = inSample.size / inSample.count;
    const bool isUniform = inSample.count == 1 || inSample.lastDuration == inSample.duration;
    const int runCount = isUniform ? inSample.count : inSample.count - 1;
    const int runSize = isUniform ? inSample.size : inSample.size - lastSize;
    mWriter->AddSamples(ioOutput.id, inSample.data, runSize, runCount,
                        static_cast<int>(inSample.count == 1 ? inSample.lastDuration : inSample.duration));
    if (!isUniform)
    {
        mWriter->AddSamples(ioOutput.id, inSample.data + runSize, lastSize, 1, static_cast<int>(inSample.lastDuration));
    }
    ioOutput.duration += duration;
    ioOutput.samples += inSample.count;
    ioOutput.bytes += static_cast<std::uint64_t>(inSample.size);
    mBytes += static_cast<std::uint64_t>(inSample.size);
    mSeconds = std::max(mSeconds, ioOutput.MovieSecondsOf(ioOutput.duration));
}

//! Writes one chunk of a track: all that is ready and starts before `inEnd`.
void Wrapper::WriteUpTo(Output& ioOutput, double inEnd)
{
    Track& track = *ioOutput.track;
    bool hasWritten = false;
    for (const Sample* sample = track.GetReady(); sample != nullptr && ioOutput.MovieSecondsOf(sample->start) < inEnd;
         sample = track.GetReady())
    {
        ThrowIfStopRequested();
        WriteSample(ioOutput, *sample);
        track.DropReady();
        hasWritten = true;
    }
    if (hasWritten)
    {
        mWriter->EndChunk(ioOutput.id);
    }
}

void Wrapper::WriteMedia()
{
    double end = kChunkSeconds;
    for (;;)
    {
        ForEachOutput([this, end](Output& ioOutput) { WriteUpTo(ioOutput, end); });
        mProgress.Update(std::chrono::steady_clock::now(), mSeconds, mBytes);
        const bool isEnded =
            std::all_of(mInputs.begin(), mInputs.end(), [](const Input& inInput) { return inInput.isEnded; });
        const std::optional<double> oldest = GetOldestSeconds();
        if (isEnded && !oldest)
        {
            return;
        }
        // A stretch without media is passed over at once.
        end += kChunkSeconds;
        if (oldest)
        {
            end = std::max(end, (std::floor(*oldest / kChunkSeconds) + 1) * kChunkSeconds);
        }
        Fill(end);
    }
}

WrapSummary Wrapper::Summarise(const MovieLayout& inLayout) const
{
    constexpr double kMissingSeconds = 1;

    WrapSummary summary;
    summary.output = mOptions.output;
    summary.seconds = mSeconds;
    summary.layout = inLayout;
    for (const Input& input : mInputs)
    {
        const std::vector<std::string>& notes = input.source->GetNotes();
        summary.notes.insert(summary.notes.end(), notes.begin(), notes.end());
        double reached = 0;
        for (const Output& output : input.outputs)
        {
            const Track& track = *output.track;
            for (const std::string& note : track.GetNotes())
            {
                summary.notes.push_back(
                    fmt::format("{}: {}", DescribeStream(track.GetSource(), track.GetStream()), note));
            }
            if (output.samples == 0)
            {
                summary.notes.push_back(fmt::format("{} has no packets and no track",
                                                    DescribeStream(track.GetSource(), track.GetStream())));
                continue;
            }
            const std::int64_t timeScale = track.GetTimeScale();
            if (output.trimIn * mMovieTimeScale % timeScale != 0 || output.duration * mMovieTimeScale % timeScale != 0)
            {
                summary.notes.push_back(fmt::format("{}: its edits are cut to 1/{} s, the unit of the movie",
                                                    DescribeStream(track.GetSource(), track.GetStream()),
                                                    mMovieTimeScale));
            }
            WrapSummary::Track entry;
            entry.kind = track.GetMediaType() == QT::kQTMediaTypeVideo ? "video" : "sound";
            entry.format = track.GetSummary();
            entry.samples = output.samples;
            entry.bytes = output.bytes;
            entry.seconds = output.SecondsOf(output.duration);
            entry.delay = output.SecondsOf(output.trimIn);
            summary.tracks.push_back(std::move(entry));
            reached = std::max(reached, output.MovieSecondsOf(output.duration));
        }
        const double expected = input.source->GetExpectedSeconds();
        if (expected - reached > kMissingSeconds)
        {
            summary.notes.push_back(fmt::format("\"{}\" says that it lasts {}, but its media ends at {}",
                                                input.source->GetPath(), FormatSeconds(expected),
                                                FormatSeconds(reached)));
        }
    }
    return summary;
}

WrapSummary Wrapper::Run()
{
    std::vector<std::string> files;
    for (const std::string& input : mOptions.inputs)
    {
        const std::vector<std::string> some = MediaSource::FilesOf(input);
        files.insert(files.end(), some.begin(), some.end());
    }
    OutputFile output(mOptions.output, mOptions.overwrite, files);
    OpenInputs();
    Fill(kChunkSeconds);
    if (!GetOldestSeconds())
    {
        throw CommandError(ExitCode::kInputRefused,
                           "the inputs hold no video or audio packets, so there is no movie to write");
    }
    std::for_each(mInputs.begin(), mInputs.end(), [this](Input& ioInput) { PlaceTracks(ioInput); });
    const std::filesystem::path& part = output.CreatePart();
    StartMovie(part);
    WriteMedia();
    mWriter->Close();
    const MovieLayout layout = ReadMovieLayout(part);
    WrapSummary summary = Summarise(layout);
    output.Commit();
    return summary;
}

} // namespace

WrapSummary Wrap(const WrapOptions& inOptions, Progress& ioProgress)
{
    return Wrapper(inOptions, ioProgress).Run();
}

} // namespace Host
