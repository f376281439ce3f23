#include "Wrap.h"

#include "CommandError.h"
#include "DryRunFileSystem.h"
#include "Interrupt.h"
#include "MovieWriter.h"
#include "OutputFile.h"
#include "Refusals.h"
#include "SideTracks.h"
#include "Track.h"

#include <algorithm>
#include <cmath>
#include <fmt/format.h>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>

namespace Host
{

namespace
{

constexpr double kChunkSeconds = 0.5;

//! Times that are this close are one, whatever their fractions were rounded to.
constexpr double kSameSeconds = 1e-6;

//! Samples of all tracks that may wait for those of others. An input that interleaves its streams more coarsely than
//! this is written as it comes.
constexpr std::size_t kQueueLimit = 256 * 1024 * 1024;

//! A track, and what has been written of it.
struct Output
{
    std::unique_ptr<Track> track;
    std::int64_t extraTrimIn = 0; //!< units that were asked for
    QT::TrackID id = 0;
    std::int64_t trimIn = 0; //!< units
    std::int64_t duration = 0;
    std::int64_t samples = 0;
    std::uint64_t bytes = 0;
    bool isRefused = false; //!< Nothing more is given to the track.

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
    std::vector<std::string> notes; //!< On streams that became no tracks.
};

class Wrapper
{
public:
    Wrapper(const WrapOptions& inOptions, Progress& ioProgress, bool inIsDryRun)
        : mOptions(inOptions), mProgress(ioProgress), mRefusals(inIsDryRun), mSides(inOptions.tracks, mRefusals)
    {
    }

    WrapSummary Run();
    WrapPrediction Predict();

private:
    void CloseEarly();
    [[noreturn]] void KeepEarly(OutputFile& ioOutput, const EarlyEnd& inError);
    [[noreturn]] void KeepWhole(OutputFile& ioOutput, const WriteError& inError);
    [[noreturn]] static void EndWith(const std::string& inReason, double inSeconds,
                                     const std::filesystem::path& inKept);
    std::vector<std::string> ListFiles() const;
    void Prepare();
    void OpenInput(const std::string& inPath);
    void AddTracks(Input& ioInput, AVStream& ioStream) const;
    void CheckOptions();
    void ChooseChunks();
    void CheckMovieTimeScale();
    bool HasChunk(const Track& inTrack) const;
    void ReadPacket(Input& ioInput);
    void StopReading(const EarlyEnd& inError);
    void Fill(double inEnd);
    void ReadRest();
    void DropEmptyTracks();
    void PlaceTracks(Input& ioInput);
    void PlaceTrack(const Input& inInput, Output& ioOutput);
    std::vector<SideTracks::Media> ListMedia() const;
    std::optional<double> GetExpectedEnd() const;
    void WriteMovie(const std::filesystem::path& inPart);
    void StartMovie(const std::filesystem::path& inPart);
    void WriteMedia();
    void WriteUpTo(Output& ioOutput, double inEnd);
    void WriteSample(Output& ioOutput, const Sample& inSample);
    std::size_t GetQueuedSize() const;
    std::optional<double> GetOldestSeconds() const;
    WrapSummary Summarise(const MovieLayout& inLayout, const std::filesystem::path& inPart) const;

    //! Runs a step without which the media is not whole.
    template <typename Step>
    bool TryMedia(const Step& inStep)
    {
        const bool isDone = mRefusals.Try(inStep);
        mIsWhole = mIsWhole && isDone;
        return isDone;
    }

    //! Runs a step of a track, which is over when that is refused.
    template <typename Step>
    void TryTrack(Output& ioOutput, const Step& inStep)
    {
        ioOutput.isRefused = ioOutput.isRefused || !TryMedia(inStep);
    }

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
    Refusals mRefusals;
    bool mIsWhole = true;              //!< Nothing of the media was refused.
    std::optional<EarlyEnd> mEarlyEnd; //!< An input broke off: the movie ends with what has been read of all.
    SideTracks mSides;
    std::vector<Input> mInputs;
    std::unique_ptr<DryRunFileSystem> mDryRun; //!< Outlives the writer.
    std::unique_ptr<MovieWriter> mWriter;
    int mMovieTimeScale = 0;
    ChunkLength mChunk;
    double mWindow = 0;  //!< Seconds of all tracks that are written in one go.
    double mSeconds = 0; //!< Length of what has been written.
    std::uint64_t mBytes = 0;
};

//! The tracks that a stream becomes.
std::vector<std::unique_ptr<Track>> MakeTracks(const MediaSource& inSource, AVStream& ioStream,
                                               const DescriptionOptions& inOptions)
{
    std::vector<std::unique_ptr<Track>> tracks;
    if (ioStream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO)
    {
        tracks.push_back(std::make_unique<VideoTrack>(inSource, ioStream, inOptions.video));
        return tracks;
    }
    const AudioLabels* labels = inOptions.FindLabels(inSource.GetPath());
    if (!inOptions.splitAudio)
    {
        tracks.push_back(std::make_unique<SoundTrack>(inSource, ioStream, labels, std::nullopt));
        return tracks;
    }
    const int channels = std::max(1, ioStream.codecpar->ch_layout.nb_channels); // The first track refuses none.
    for (int channel = 0; channel < channels; ++channel)
    {
        tracks.push_back(std::make_unique<SoundTrack>(inSource, ioStream, labels, channel));
    }
    return tracks;
}

void Wrapper::OpenInput(const std::string& inPath)
{
    Input input;
    const AudioLabels* labels = mOptions.descriptions.FindLabels(inPath);
    input.source = std::make_unique<MediaSource>(
        inPath, MediaSource::IsImageSequence(inPath) ? mOptions.frameRate : AVRational{0, 1},
        labels != nullptr && labels->isAudioOnly, mOptions.allowDamage);
    try
    {
        input.source->ReadAhead(); // What a stream is cannot always be told without its packets.
    }
    catch (const EarlyEnd& error)
    {
        mEarlyEnd = error;
        throw;
    }
    for (AVStream* stream : input.source->GetStreams())
    {
        TryMedia([&] { AddTracks(input, *stream); });
    }
    mInputs.push_back(std::move(input));
}

void Wrapper::AddTracks(Input& ioInput, AVStream& ioStream) const
{
    for (std::unique_ptr<Track>& track : MakeTracks(*ioInput.source, ioStream, mOptions.descriptions))
    {
        Output output;
        output.track = std::move(track);
        const double seconds = ioInput.source->GetExpectedSeconds();
        if (seconds * output.track->GetTimeScale() > static_cast<double>(kMaximumDuration))
        {
            RefuseStream(*ioInput.source, ioStream,
                         fmt::format("it lasts {}, and a track of 1/{} s units holds {}", FormatSeconds(seconds),
                                     output.track->GetTimeScale(), FormatSeconds(output.SecondsOf(kMaximumDuration))),
                         "divide the input");
        }
        ioInput.outputs.push_back(std::move(output));
    }
}

//! "a.mov", "b.wav"
std::string NamesOf(const std::vector<std::string>& inPaths)
{
    std::string names;
    for (const std::string& path : inPaths)
    {
        names += fmt::format("{}\"{}\"", names.empty() ? "" : ", ", path);
    }
    return names;
}

//! Options that fit none of the inputs.
void Wrapper::CheckOptions()
{
    const DescriptionOptions& options = mOptions.descriptions;
    bool hasVideo = false;
    bool hasAudio = false;
    for (const Input& input : mInputs)
    {
        const std::vector<AVStream*>& streams = input.source->GetStreams();
        const auto isVideo = [](const AVStream* inStream) {
            return inStream->codecpar->codec_type == AVMEDIA_TYPE_VIDEO;
        };
        const bool hasOwnAudio = !std::all_of(streams.begin(), streams.end(), isVideo);
        const AudioLabels* labels = options.FindLabels(input.source->GetPath());
        if (labels != nullptr && !hasOwnAudio)
        {
            mRefusals.Refuse(CommandError(ExitCode::kInputRefused,
                                          fmt::format("{} does not fit \"{}\": it has no audio; name a file that has",
                                                      labels->option, input.source->GetPath())));
        }
        hasVideo = hasVideo || std::any_of(streams.begin(), streams.end(), isVideo);
        hasAudio = hasAudio || hasOwnAudio;
    }
    const bool countsFrames = options.chunk && options.chunk->value.frames > 0;
    const std::string forVideo = countsFrames ? options.chunk->option : options.video.GetAny();
    const std::string lonely = !hasVideo && !forVideo.empty()    ? forVideo
                               : !hasAudio && options.splitAudio ? "--split-audio"
                                                                 : "";
    if (!lonely.empty() && mInputs.size() == mOptions.inputs.size()) // An input that is refused may have had it.
    {
        const char* missing = hasVideo ? "audio" : "video";
        mRefusals.Refuse(
            CommandError(ExitCode::kInputRefused,
                         fmt::format("{} does not fit {}: there is no {}; leave it out, or add an input with {}",
                                     lonely, NamesOf(mOptions.inputs), missing, missing)));
    }
}

void Wrapper::ChooseChunks()
{
    constexpr double kMinimumWindow = 1e-3;
    constexpr double kMaximumWindow = 3600;
    mChunk = mOptions.descriptions.chunk ? mOptions.descriptions.chunk->value : ChunkLength{kChunkSeconds, 0, 0};
    mWindow = mChunk.seconds > 0 ? mChunk.seconds : kChunkSeconds;
    double rate = 0; // of the first video track
    for (const Input& input : mInputs)
    {
        for (const Output& output : input.outputs)
        {
            const bool isFirst = rate <= 0 && output.track->GetMediaType() == QT::kQTMediaTypeVideo;
            const AVRational found =
                isFirst ? av_guess_frame_rate(&input.source->GetFormat(), &output.track->GetStream(), nullptr)
                        : AVRational{0, 1};
            rate = found.num > 0 && found.den > 0 ? av_q2d(found) : rate;
        }
    }
    if (mChunk.frames > 0 && rate > 0)
    {
        mWindow = std::clamp(static_cast<double>(mChunk.frames) / rate, kMinimumWindow, kMaximumWindow);
    }
}

void Wrapper::CheckMovieTimeScale()
{
    const Choice<int>& choice = mOptions.descriptions.movieTimeScale;
    for (const Input& input : mInputs)
    {
        for (const Output& output : input.outputs)
        {
            const double end = output.SecondsOf(output.trimIn) + input.source->GetExpectedSeconds();
            if (choice && end * choice->value > static_cast<double>(kMaximumDuration))
            {
                mRefusals.Try([&] {
                    RefuseOption(choice->option, *input.source, output.track->GetStream(),
                                 fmt::format("it ends at {}, and such a movie holds {}", FormatSeconds(end),
                                             FormatSeconds(static_cast<double>(kMaximumDuration) / choice->value)),
                                 "give fewer units per second");
                });
            }
        }
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

//! What is to be told of a track.
void AddNotes(const Track& inTrack, std::vector<std::string>& ioNotes)
{
    for (const std::string& note : inTrack.GetNotes())
    {
        ioNotes.push_back(fmt::format("{}: {}", DescribeStream(inTrack.GetSource(), inTrack.GetStream()), note));
    }
}

//! An input broke off: all inputs end with what has been read of them.
void Wrapper::StopReading(const EarlyEnd& inError)
{
    mEarlyEnd = inError;
    for (Input& input : mInputs)
    {
        input.isEnded = true;
        for (Output& output : input.outputs)
        {
            TryTrack(output, [&] { output.track->Finish(); });
        }
    }
}

//! Gives an input's next packet to its tracks.
void Wrapper::ReadPacket(Input& ioInput)
{
    ThrowIfStopRequested();
    PacketPtr packet;
    try
    {
        packet = ioInput.source->ReadPacket();
    }
    catch (const EarlyEnd& error)
    {
        StopReading(error);
        return;
    }
    ioInput.isEnded = packet == nullptr;
    for (Output& output : ioInput.outputs)
    {
        if (output.isRefused)
        {
            continue;
        }
        if (ioInput.isEnded)
        {
            TryTrack(output, [&] { output.track->Finish(); });
            continue;
        }
        if (output.track->GetStream().index != packet->stream_index)
        {
            continue;
        }
        const bool hadStarted = output.track->HasStarted();
        PacketPtr reference(av_packet_clone(packet.get())); // The tracks of a stream share its data.
        if (reference == nullptr)
        {
            throw std::bad_alloc();
        }
        TryTrack(output, [&] {
            output.track->Push(std::move(reference));
            if (!hadStarted && output.track->HasStarted() && ioInput.start)
            {
                PlaceTrack(ioInput, output);
            }
        });
    }
}

//! Reads every input until each of its tracks has all that starts before `inEnd`, or until too much waits.
void Wrapper::Fill(double inEnd)
{
    for (Input& input : mInputs)
    {
        const auto isCovered = [inEnd](const Output& inOutput) {
            return inOutput.isRefused ||
                   (inOutput.track->HasStarted() && inOutput.MovieSecondsOf(inOutput.track->GetHorizon()) >= inEnd);
        };
        while (!input.isEnded && !std::all_of(input.outputs.begin(), input.outputs.end(), isCovered) &&
               GetQueuedSize() < kQueueLimit)
        {
            ReadPacket(input);
        }
    }
}

//! Reads what is left of the inputs, to see what else is refused.
void Wrapper::ReadRest()
{
    const auto isRefused = [](const Output& inOutput) { return inOutput.isRefused; };
    for (Input& input : mInputs)
    {
        while (!input.isEnded && !std::all_of(input.outputs.begin(), input.outputs.end(), isRefused))
        {
            ReadPacket(input);
            for (Output& output : input.outputs)
            {
                for (const Sample* sample = output.track->GetReady(); sample != nullptr;
                     sample = output.track->GetReady())
                {
                    mSeconds = std::max(mSeconds, output.MovieSecondsOf(sample->start));
                    mBytes += static_cast<std::uint64_t>(sample->size);
                    output.track->DropReady();
                }
            }
            mProgress.Update(std::chrono::steady_clock::now(), mSeconds, mBytes);
        }
    }
}

//! Forgets the tracks of streams without packets, so that options number the tracks as the movie does. Where so much
//! media comes first that none of it may be read ahead of writing, the end of the input tells too late.
void Wrapper::DropEmptyTracks()
{
    for (Input& input : mInputs)
    {
        std::erase_if(input.outputs, [&input](const Output& inOutput) {
            const Track& track = *inOutput.track;
            const bool isEmpty = input.isEnded && !track.HasStarted();
            if (isEmpty)
            {
                AddNotes(track, input.notes);
                input.notes.push_back(fmt::format("{} has no packets and no track",
                                                  DescribeStream(track.GetSource(), track.GetStream())));
            }
            return isEmpty;
        });
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
            TryTrack(output, [&] { PlaceTrack(ioInput, output); });
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
                     "it starts before the other streams of its input, but only far behind them in the file",
                     "rewrite the input with its streams interleaved");
    }
    ioOutput.trimIn += ioOutput.extraTrimIn;
    if (ioOutput.trimIn > kMaximumDuration)
    {
        RefuseStream(track.GetSource(), track.GetStream(), "it starts later than a track can say",
                     "shorten --trim-in, or divide the input");
    }
    if (mWriter != nullptr)
    {
        mWriter->SetTrimIn(ioOutput.id, static_cast<int>(ioOutput.trimIn));
    }
}

std::vector<SideTracks::Media> Wrapper::ListMedia() const
{
    std::vector<SideTracks::Media> media;
    for (const Input& input : mInputs)
    {
        for (const Output& output : input.outputs)
        {
            media.push_back({output.track.get(), output.id, output.trimIn, output.duration,
                             static_cast<double>(input.start.value_or(0))});
        }
    }
    return media;
}

//! Length of the movie in seconds; none when an input does not state its own.
std::optional<double> Wrapper::GetExpectedEnd() const
{
    double end = 0;
    for (const Input& input : mInputs)
    {
        const double seconds = input.source->GetExpectedSeconds();
        if (seconds <= 0)
        {
            return std::nullopt;
        }
        for (const Output& output : input.outputs)
        {
            const AVStream& stream = output.track->GetStream();
            const bool isStated = stream.duration != AV_NOPTS_VALUE && stream.duration > 0;
            // Without lengths of streams an input's own is that of its last packet's start, but for Matroska's.
            if (!isStated && std::string_view(input.source->GetFormat().iformat->name).find("matroska") != 0)
            {
                return std::nullopt;
            }
            const double own = isStated && output.track->HasStarted()
                                   ? output.SecondsOf(output.trimIn - output.extraTrimIn) +
                                         static_cast<double>(stream.duration) * av_q2d(stream.time_base)
                                   : seconds;
            end = std::max(end, output.SecondsOf(output.extraTrimIn) + std::min(own, seconds));
        }
    }
    return end;
}

//! Leaves the movie unfinished when something is refused on the way.
void Wrapper::WriteMovie(const std::filesystem::path& inPart)
{
    StartMovie(inPart);
    mSides.Start(*mWriter, ListMedia());
    WriteMedia();
    if (mRefusals.IsEmpty())
    {
        if (mEarlyEnd)
        {
            CloseEarly();
            return;
        }
        mSides.Finish(*mWriter, ListMedia(), mSeconds);
        mSides.EndsWithMedia() ? mWriter->CloseWithMedia() : mWriter->Close();
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
    const Choice<int>& timeScale = mOptions.descriptions.movieTimeScale;
    mMovieTimeScale = timeScale ? timeScale->value
                                : ChooseMovieTimeScale(videoTimeScales, soundTimeScales, isMaximumKnown ? maximum : 0);
    mProgress.SetExpectedSeconds(isExpectedKnown ? expected : 0);

    mWriter = std::make_unique<MovieWriter>(inPart, mOptions.output, mMovieTimeScale,
                                            mDryRun != nullptr ? MovieWriter::Safety::kPlain
                                                               : MovieWriter::Safety::kJournaled);
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
                                 fitsMovie ? track.GetTimeScale() : mMovieTimeScale),
                     mOptions.descriptions.movieTimeScale && !fitsMovie
                         ? "give fewer units per second with --movie-timescale"
                         : "divide the input");
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
    mSides.TakeFrame(track, duration, ioOutput.duration);
    ioOutput.bytes += static_cast<std::uint64_t>(inSample.size);
    mBytes += static_cast<std::uint64_t>(inSample.size);
    mSeconds = std::max(mSeconds, ioOutput.MovieSecondsOf(ioOutput.duration));
}

//! Whether what is ready of a track fills a chunk, or no more of it can wait.
bool Wrapper::HasChunk(const Track& inTrack) const
{
    const bool isVideo = inTrack.GetMediaType() == QT::kQTMediaTypeVideo;
    const bool isFull =
        inTrack.GetReadySize() >= mChunk.bytes && (!isVideo || inTrack.GetReadyCount() >= mChunk.frames);
    return inTrack.GetReady() != nullptr && (isFull || inTrack.IsFinished() || GetQueuedSize() >= kQueueLimit);
}

//! Writes what is ready of a track: one chunk of all that starts before `inEnd`, or full chunks that start before it.
void Wrapper::WriteUpTo(Output& ioOutput, double inEnd)
{
    Track& track = *ioOutput.track;
    const std::size_t maximumCount = track.GetMediaType() == QT::kQTMediaTypeVideo ? mChunk.frames : 0;
    const bool endsByTime = mChunk.bytes == 0 && maximumCount == 0;
    const auto isBefore = [&](const Sample& inSample) {
        return ioOutput.MovieSecondsOf(inSample.start) < inEnd - kSameSeconds;
    };
    while (HasChunk(track) && isBefore(*track.GetReady()))
    {
        std::size_t count = 0;
        std::size_t size = 0;
        for (const Sample* sample = track.GetReady(); sample != nullptr; sample = track.GetReady())
        {
            const auto sampleSize = static_cast<std::size_t>(sample->size);
            const bool isTooMuch = endsByTime ? !isBefore(*sample)
                                              : (mChunk.bytes > 0 && size + sampleSize > mChunk.bytes) ||
                                                    (maximumCount > 0 && count == maximumCount);
            if (count > 0 && isTooMuch)
            {
                break;
            }
            ThrowIfStopRequested();
            WriteSample(ioOutput, *sample);
            track.DropReady();
            ++count;
            size += sampleSize;
        }
        mWriter->EndChunk(ioOutput.id);
    }
}

void Wrapper::WriteMedia()
{
    double end = mWindow;
    for (;;)
    {
        ForEachOutput([this, end](Output& ioOutput) { WriteUpTo(ioOutput, end); });
        mSides.WriteUpTo(*mWriter, end);
        mProgress.Update(std::chrono::steady_clock::now(), mSeconds, mBytes);
        const bool isEnded =
            std::all_of(mInputs.begin(), mInputs.end(), [](const Input& inInput) { return inInput.isEnded; });
        const std::optional<double> oldest = GetOldestSeconds();
        if ((isEnded && !oldest) || !mRefusals.IsEmpty())
        {
            return;
        }
        // A stretch without media is passed over at once.
        end += mWindow;
        if (oldest)
        {
            end = std::max(end, (std::floor(*oldest / mWindow) + 1) * mWindow);
        }
        Fill(end);
    }
}

WrapSummary Wrapper::Summarise(const MovieLayout& inLayout, const std::filesystem::path& inPart) const
{
    constexpr double kMissingSeconds = 1;

    WrapSummary summary;
    summary.output = mOptions.output;
    summary.seconds = mSeconds;
    summary.layout = inLayout;
    int number = 0; // That options count by.
    for (const Input& input : mInputs)
    {
        const std::vector<std::string>& notes = input.source->GetNotes();
        summary.notes.insert(summary.notes.end(), notes.begin(), notes.end());
        summary.notes.insert(summary.notes.end(), input.notes.begin(), input.notes.end());
        double reached = 0;
        for (const Output& output : input.outputs)
        {
            const Track& track = *output.track;
            AddNotes(track, summary.notes);
            ++number;
            if (output.samples == 0)
            {
                summary.notes.push_back(fmt::format("{} has no packets and no track, but options count it as track {}",
                                                    DescribeStream(track.GetSource(), track.GetStream()), number));
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
    mSides.Summarise(summary);
    if (const std::optional<std::string> note = NoteOnBlockSize(mOptions.descriptions.blockSize, inPart))
    {
        summary.notes.push_back(*note);
    }
    // The tracks of one stream say the same.
    std::vector<std::string> notes;
    for (std::string& note : summary.notes)
    {
        if (std::find(notes.begin(), notes.end(), note) == notes.end())
        {
            notes.push_back(std::move(note));
        }
    }
    summary.notes = std::move(notes);
    return summary;
}

//! All files that must not be written over.
std::vector<std::string> Wrapper::ListFiles() const
{
    std::vector<std::string> files = mSides.GetFiles();
    for (const std::string& input : mOptions.inputs)
    {
        const std::vector<std::string> some = MediaSource::FilesOf(input);
        files.insert(files.end(), some.begin(), some.end());
    }
    return files;
}

//! Everything that comes before the movie is created.
void Wrapper::Prepare()
{
    mProgress.Update(std::chrono::steady_clock::now(), 0, 0); // The rate counts from here.
    for (const std::string& path : mOptions.inputs)
    {
        TryMedia([&] { OpenInput(path); });
    }
    CheckOptions();
    ChooseChunks();
    Fill(mWindow);
    if (mEarlyEnd && !GetOldestSeconds())
    {
        TryMedia([this] { throw CommandError(*mEarlyEnd); });
    }
    else if (mIsWhole && !GetOldestSeconds())
    {
        TryMedia([this] {
            throw CommandError(ExitCode::kInputRefused,
                               fmt::format("there is no movie to write, for the streams of {} hold no packets; name "
                                           "inputs with media",
                                           NamesOf(mOptions.inputs)));
        });
    }
    DropEmptyTracks();
    int number = 0;
    ForEachOutput([this, &number](Output& ioOutput) {
        ++number;
        ioOutput.extraTrimIn = mIsWhole ? mSides.GetTrimIn(number, ioOutput.track->GetTimeScale()) : 0;
    });
    std::for_each(mInputs.begin(), mInputs.end(), [this](Input& ioInput) { PlaceTracks(ioInput); });
    CheckMovieTimeScale();
    if (mIsWhole)
    {
        mSides.Fit(ListMedia(), GetExpectedEnd());
    }
}

//! Closes the movie at the last whole sample.
void Wrapper::CloseEarly()
{
    mSides.FinishEarly(*mWriter, ListMedia());
    mWriter->CloseWithMedia();
}

//! The user asked to stop: closes the movie at the last whole sample, keeps it, and ends the command.
void Wrapper::KeepEarly(OutputFile& ioOutput, const EarlyEnd& inError)
{
    if (mBytes == 0)
    {
        throw inError;
    }
    try
    {
        CloseEarly();
    }
    catch (const WriteError& error)
    {
        KeepWhole(ioOutput, error);
    }
    EndWith(inError.GetReason(), mSeconds, ioOutput.CommitPartial());
}

//! Writing has failed: finishes the movie with the samples that are whole in the file, keeps it, and ends the command.
void Wrapper::KeepWhole(OutputFile& ioOutput, const WriteError& inError)
{
    if (mWriter == nullptr)
    {
        throw inError;
    }
    std::optional<double> seconds;
    try
    {
        seconds = mWriter->Recover();
    }
    catch (const CommandError& error)
    {
        static_cast<void>(ioOutput.Keep()); // The sentence names it.
        throw CommandError(ExitCode::kIOFailed, fmt::format("{}; {}", inError.what(), error.what()));
    }
    if (!seconds)
    {
        throw inError;
    }
    EndWith(inError.what(), *seconds, ioOutput.CommitPartial());
}

//! Tells what was kept.
void Wrapper::EndWith(const std::string& inReason, double inSeconds, const std::filesystem::path& inKept)
{
    throw CommandError(ExitCode::kIOFailed, fmt::format("{}; \"{}\" is a movie of the first {}, so keep it or run the "
                                                        "command again",
                                                        inReason, inKept.string(), FormatSeconds(inSeconds)));
}

WrapSummary Wrapper::Run()
{
    OutputFile output(mOptions.output, mOptions.overwrite, ListFiles());
    Prepare();
    const std::filesystem::path& part = output.CreatePart();
    // Ends before `output`: a journal that goes with its movie goes first, as alone it would bar the way to the next.
    struct WriterEnd
    {
        std::unique_ptr<MovieWriter>& writer;
        ~WriterEnd() { writer.reset(); }
    } const writerEnd{mWriter};
    try
    {
        WriteMovie(part);
    }
    catch (const WriteError& error)
    {
        KeepWhole(output, error);
    }
    catch (const EarlyEnd& error)
    {
        KeepEarly(output, error);
    }
    if (mEarlyEnd)
    {
        EndWith(mEarlyEnd->GetReason(), mSeconds, output.CommitPartial());
    }
    WrapSummary summary;
    try
    {
        summary = Summarise(ReadMovieLayout(part, mOptions.output), part);
        output.Commit();
    }
    catch (const CommandError& error)
    {
        const std::filesystem::path kept = output.Keep(); // It is closed.
        throw CommandError(ExitCode::kIOFailed, kept.empty() ? std::string(error.what())
                                                             : fmt::format("{}; what was written is in \"{}\"",
                                                                           error.what(), kept.string()));
    }
    mProgress.Finish(std::chrono::steady_clock::now(), mSeconds, mBytes);
    return summary;
}

WrapPrediction Wrapper::Predict()
{
    WrapPrediction prediction;
    Refusals refusals(true); // Of the output; they do not keep the movie from being told.
    std::vector<std::string> files;
    refusals.Try([&] { files = ListFiles(); });
    std::filesystem::path folder = mOptions.output.has_parent_path() ? mOptions.output.parent_path() : ".";
    for (const bool overwrite : {mOptions.overwrite, true}) // Where it may not be overwritten: whether it could be.
    {
        refusals.Try([&] {
            const OutputFile output(mOptions.output, overwrite, files);
            folder = output.GetFolder();
            output.CheckPart();
        });
    }
    prediction.freeSpace = GetFreeSpace(folder);

    Prepare();
    if (mRefusals.IsEmpty())
    {
        mDryRun = std::make_unique<DryRunFileSystem>(folder);
        const Ventra::FileSystemScope scope(*mDryRun);
        mRefusals.Try([&] {
            WriteMovie(mOptions.output);
            if (mRefusals.IsEmpty())
            {
                const MovieLayout layout = ReadMovieLayout(mDryRun->GetContent(), mOptions.output);
                prediction.summary = Summarise(layout, mOptions.output);
                refusals.Try([&] { CheckFreeSpace(mOptions.output, layout.fileSize, prediction.freeSpace); });
            }
        });
    }
    ReadRest(); // Nothing is left of media that was written.
    for (const CommandError& error : mRefusals.GetErrors())
    {
        refusals.Add(error);
    }
    if (mEarlyEnd)
    {
        prediction.endsEarly = true;
        refusals.Add(prediction.summary ? CommandError(ExitCode::kIOFailed,
                                                       fmt::format("{}; a movie of the first {} would be kept",
                                                                   mEarlyEnd->GetReason(), FormatSeconds(mSeconds)))
                                        : *mEarlyEnd);
    }
    prediction.refusals = refusals.GetErrors();
    mProgress.Finish(std::chrono::steady_clock::now(), mSeconds, mBytes);
    return prediction;
}

} // namespace

WrapSummary Wrap(const WrapOptions& inOptions, Progress& ioProgress)
{
    return Wrapper(inOptions, ioProgress, false).Run();
}

WrapPrediction PredictWrap(const WrapOptions& inOptions, Progress& ioProgress)
{
    return Wrapper(inOptions, ioProgress, true).Predict();
}

} // namespace Host
