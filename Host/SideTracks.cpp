#include "SideTracks.h"

#include "ChapterFile.h"
#include "CommandError.h"
#include "SideFile.h"

#include <Tolbin/String.h>

#include <algorithm>
#include <cmath>
#include <fmt/format.h>

namespace Host
{

namespace
{

constexpr std::size_t kMaximumText = 32766; //!< UTF-16 code units of a text sample

int FlatInt(std::int64_t inValue)
{
    return static_cast<int>(std::clamp<std::int64_t>(inValue, 0, kMaximumDuration));
}

//! The timecode that an input states of itself: its video's, else its own.
const char* TimecodeTag(const Track& inTrack)
{
    const AVDictionaryEntry* tag = av_dict_get(inTrack.GetStream().metadata, "timecode", nullptr, 0);
    const AVFormatContext& format = inTrack.GetSource().GetFormat();
    for (unsigned int index = 0; tag == nullptr && index < format.nb_streams; ++index)
    {
        const AVStream& stream = *format.streams[index];
        const bool isData = stream.codecpar->codec_type == AVMEDIA_TYPE_DATA;
        tag = isData ? av_dict_get(stream.metadata, "timecode", nullptr, 0) : nullptr;
    }
    tag = tag != nullptr ? tag : av_dict_get(format.metadata, "timecode", nullptr, 0);
    return tag != nullptr ? tag->value : nullptr;
}

bool IsVideo(const SideTracks::Media& inMedia)
{
    return inMedia.track->GetMediaType() == QT::kQTMediaTypeVideo;
}

void AddSamples(MovieWriter& ioWriter, QT::TrackID inTrack, std::vector<std::uint8_t>& ioData, std::int64_t inDuration)
{
    ioWriter.AddSamples(inTrack, ioData.data(), static_cast<int>(ioData.size()), 1, FlatInt(inDuration));
}

} // namespace

// ---- Before anything is written -------------------------------------------------------------------------------------

SideTracks::SideTracks(const TrackOptions& inOptions, Refusals& ioRefusals)
    : mOptions(inOptions), mRefusals(ioRefusals), mMetadata(inOptions.metadata), mTrackMetadata(inOptions.trackMetadata)
{
    for (MetadataItem& item : mMetadata)
    {
        mRefusals.Try([&] { LoadMetadata("--meta", item); });
    }
    for (TrackOptions::TrackMetadata& metadata : mTrackMetadata)
    {
        mRefusals.Try([&] { LoadMetadata("--track-meta", metadata.item); });
    }
    const auto load = [this](const auto& inStep) { mIsWhole = mRefusals.Try(inStep) && mIsWhole; };
    if (!inOptions.chapters.empty())
    {
        load([&] {
            TextTrack track;
            track.isChapters = true;
            track.option = "--chapters";
            track.source = inOptions.chapters;
            track.cues = MakeTextSamples(ReadChapterFile(inOptions.chapters));
            mTexts.push_back(std::move(track));
        });
    }
    for (const std::string& path : inOptions.texts)
    {
        load([&] {
            CueFile file = ReadTextFile(path);
            TextTrack track;
            track.option = "--text";
            track.source = path;
            track.hasFormatting = file.hasFormatting;
            track.cues = MakeTextSamples(file.cues);
            mTexts.push_back(std::move(track));
        });
    }
    if (!inOptions.captions.empty())
    {
        load([&] { mCaptionLines = ParseScc(inOptions.captions, ReadSideFile("--captions", inOptions.captions)); });
    }
}

std::vector<std::string> SideTracks::GetFiles() const
{
    std::vector<std::string> files = mOptions.texts;
    files.push_back(mOptions.chapters);
    files.push_back(mOptions.captions);
    std::transform(mMetadata.begin(), mMetadata.end(), std::back_inserter(files),
                   [](const MetadataItem& inItem) { return inItem.file; });
    std::transform(mTrackMetadata.begin(), mTrackMetadata.end(), std::back_inserter(files),
                   [](const TrackOptions::TrackMetadata& inMetadata) { return inMetadata.item.file; });
    files.erase(std::remove(files.begin(), files.end(), std::string()), files.end());
    return files;
}

std::int64_t SideTracks::GetTrimIn(int inNumber, int inTimeScale) const
{
    std::int64_t nanoseconds = 0;
    bool isOwn = false;
    for (const TrackOptions::TrimIn& trimIn : mOptions.trimIns)
    {
        if (trimIn.track == inNumber || (trimIn.track == 0 && !isOwn))
        {
            nanoseconds = trimIn.nanoseconds;
            isOwn = trimIn.track == inNumber;
        }
    }
    return av_rescale(nanoseconds, inTimeScale, 1'000'000'000);
}

//! Delay of a side track beyond that of the video which it goes along with, if it does.
std::int64_t SideTracks::ExtraTrimIn(const Side& inSide, bool inFollowsVideo) const
{
    const bool isOwn =
        std::any_of(mOptions.trimIns.begin(), mOptions.trimIns.end(),
                    [&](const TrackOptions::TrimIn& inTrimIn) { return inTrimIn.track == inSide.number; });
    return inFollowsVideo && !isOwn ? 0 : GetTrimIn(inSide.number, inSide.timeScale);
}

void SideTracks::FitTimecode(const std::vector<Media>& inMedia)
{
    if (!mOptions.takesTimecode)
    {
        return;
    }
    if (mOptions.timecode && !mVideo)
    {
        throw CommandError(
            ExitCode::kInputRefused,
            fmt::format("--timecode {} does not fit the inputs: there is no video to count; leave it out, or "
                        "add an input with video",
                        FormatTimecode(*mOptions.timecode)));
    }
    TimecodeTrack track;
    std::string name = mOptions.timecode ? FormatTimecode(*mOptions.timecode) : std::string();
    const char* tag = nullptr;
    track.video = mVideo.value_or(0);
    for (std::size_t index = 0; !mOptions.timecode && tag == nullptr && index < inMedia.size(); ++index)
    {
        tag = IsVideo(inMedia[index]) ? TimecodeTag(*inMedia[index].track) : nullptr;
        track.video = tag != nullptr ? index : track.video;
    }
    if (!mOptions.timecode && tag == nullptr)
    {
        return;
    }
    const Track& video = *inMedia[track.video].track;
    const std::optional<Timecode> timecode = mOptions.timecode ? mOptions.timecode : ParseTimecode(tag);
    const std::optional<TimecodeFault> fault = timecode ? FindTimecodeFault(*timecode, video.GetFrameRate())
                                                        : TimecodeFault{"it is no timecode HH:MM:SS:FF", {}};
    if (fault)
    {
        const std::string stream = DescribeStream(video.GetSource(), video.GetStream());
        throw CommandError(
            ExitCode::kInputRefused,
            mOptions.timecode
                ? fmt::format("--timecode {} does not fit {}: {}; {}", name, stream, fault->reason, fault->remedy)
                : fmt::format("the timecode {} of {} cannot be written: {}; give another with "
                              "--timecode, or none with --timecode none",
                              tag, stream, fault->reason));
    }
    track.timecode = *timecode;
    track.rate = video.GetFrameRate();
    track.side.kind = "timecode";
    track.side.format =
        fmt::format("from {} at {:.6g} frames per second", FormatTimecode(*timecode), av_q2d(track.rate));
    const std::int64_t units = static_cast<std::int64_t>(video.GetTimeScale()) * track.rate.den;
    const bool isExact = units % track.rate.num == 0;
    track.side.timeScale = isExact ? video.GetTimeScale() : track.rate.num;
    track.frameDuration = isExact ? static_cast<int>(units / track.rate.num) : track.rate.den;
    for (const auto& media : inMedia)
    {
        const Track& other = *media.track;
        const char* own = IsVideo(media) && !mOptions.timecode ? TimecodeTag(other) : nullptr;
        if (IsVideo(media) && av_cmp_q(other.GetFrameRate(), track.rate) != 0)
        {
            mNotes.push_back(fmt::format("{} does not refer to the timecode track, whose frame rate is another",
                                         DescribeStream(other.GetSource(), other.GetStream())));
        }
        if (own != nullptr && std::string(own) != tag)
        {
            mNotes.push_back(fmt::format("the timecode {} of {} is left out: the movie has that of \"{}\"", own,
                                         DescribeStream(other.GetSource(), other.GetStream()),
                                         video.GetSource().GetPath()));
        }
    }
    mTimecode = std::move(track);
}

void SideTracks::FitChapters(const std::vector<Media>& inMedia)
{
    if (!mOptions.takesChapters || !mOptions.chapters.empty())
    {
        return;
    }
    const MediaSource* taken = nullptr;
    const MediaSource* last = nullptr;
    for (const Media& media : inMedia)
    {
        const MediaSource& source = media.track->GetSource();
        const std::vector<Cue> chapters =
            &source != last ? ChaptersOf(source.GetFormat(), media.inputStart) : std::vector<Cue>();
        last = &source;
        if (chapters.empty())
        {
            continue;
        }
        if (taken != nullptr)
        {
            mNotes.push_back(fmt::format(R"(the chapters of "{}" are left out: the movie has those of "{}")",
                                         source.GetPath(), taken->GetPath()));
            continue;
        }
        taken = &source;
        TextTrack track;
        track.isChapters = true;
        track.source = source.GetPath();
        track.cues = MakeTextSamples(chapters);
        mTexts.insert(mTexts.begin(), std::move(track));
    }
}

void SideTracks::RefuseStart(const TextTrack& inTrack, const Cue& inCue, double inEnd) const
{
    RefuseSideFile(inTrack.option, inTrack.source,
                   fmt::format("it does not fit the input: \"{}\" starts at {:.3f} s, and the movie ends at {:.3f} s",
                               inCue.text, static_cast<double>(inCue.start) / kCueTimeScale, inEnd),
                   "shift its times, or remove what lies behind the end");
}

//! The end of the movie in units of the track's cues.
std::int64_t SideTracks::LimitOf(const TextTrack& inTrack, double inEnd) const
{
    const double delay = static_cast<double>(inTrack.side.trimIn) / inTrack.side.timeScale;
    return std::max<std::int64_t>(0, std::llround((inEnd - delay) * kCueTimeScale));
}

void SideTracks::FitTexts(std::optional<double> inEnd)
{
    for (TextTrack& track : mTexts)
    {
        const std::int64_t start = track.cues.back().start;
        const std::int64_t end = track.cues.back().end == kOpenEnd ? start : track.cues.back().end;
        const double seconds = std::max(inEnd.value_or(0), static_cast<double>(end) / kCueTimeScale);
        const bool isLong = seconds * kCueTimeScale > 0.95 * static_cast<double>(kMaximumDuration);
        track.side.timeScale = isLong ? kLongCueTimeScale : kCueTimeScale;
        track.side.trimIn = ExtraTrimIn(track.side, false);
        track.side.kind = track.isChapters ? "chapters" : "text";
        track.side.format = fmt::format("of \"{}\"", track.source);
        for (const Cue& cue : track.cues)
        {
            if (Tolbin::string::UTF8to16(cue.text).size() > kMaximumText)
            {
                mRefusals.Refuse(CommandError(
                    ExitCode::kInputRefused,
                    fmt::format("a text of \"{}\" has more than the {} characters that a sample holds; divide it",
                                track.source, kMaximumText)));
            }
        }
        if (track.hasFormatting)
        {
            mNotes.push_back(
                fmt::format("the formatting of \"{}\" is left out: a text track holds plain text", track.source));
        }
        if (!inEnd)
        {
            continue;
        }
        track.limit = LimitOf(track, *inEnd);
        const auto isBehind = [&](const Cue& inCue) { return !inCue.text.empty() && inCue.start >= *track.limit; };
        const auto behind = std::find_if(track.cues.begin(), track.cues.end(), isBehind);
        const auto first =
            std::find_if(track.cues.begin(), track.cues.end(), [](const Cue& inCue) { return !inCue.text.empty(); });
        if (!track.option.empty() && behind != track.cues.end() && (track.isChapters || behind == first))
        {
            mRefusals.Try([&] { RefuseStart(track, *behind, *inEnd); });
        }
    }
}

void SideTracks::FitCaptions(const std::vector<Media>& inMedia, std::optional<double> inEnd)
{
    if (mCaptionLines.empty())
    {
        return;
    }
    if (!mVideo)
    {
        RefuseSideFile("--captions", mOptions.captions, "it does not fit the inputs: there is no video to caption",
                       "leave the option out, or add an input with video");
    }
    Timecode start;
    const Timecode& first = mCaptionLines.front().timecode;
    if (mOptions.captionsStart)
    {
        start = *mOptions.captionsStart;
    }
    else if (mTimecode)
    {
        // The frames of the movie's timecode in the thirtieths of the captions'.
        Timecode own = mTimecode->timecode;
        own.frames = own.frames * 30 / TimecodeFrames(mTimecode->rate);
        own.isDropFrame = first.isDropFrame;
        start = CountFrames(first, 30) >= CountFrames(own, 30) ? own : start;
    }
    start.isDropFrame = first.isDropFrame;
    Side side;
    side.kind = "captions";
    side.format = fmt::format("of \"{}\", {} on the first frame", mOptions.captions, FormatTimecode(start));
    side.timeScale = mCaptioned->GetTimeScale();
    mCaptions = CaptionTrack{
        side, CaptionQueue(mOptions.captions, mCaptionLines, start, mCaptioned->GetFrameRate()), start, {}, 0};
    const double delay = static_cast<double>(inMedia[*mVideo].trimIn) / mCaptioned->GetTimeScale();
    const std::int64_t stated = mCaptioned->GetStatedDuration();
    if (stated > 0 || inEnd)
    {
        CheckCaptionStart(stated > 0 ? static_cast<double>(stated) / mCaptioned->GetTimeScale() : *inEnd - delay);
    }
}

//! Refuses captions of which none falls on a frame of the video, which lasts so long.
void SideTracks::CheckCaptionStart(double inVideoSeconds) const
{
    const double first = mCaptions->queue.GetFirstSeconds();
    if (first >= inVideoSeconds)
    {
        RefuseSideFile("--captions", mOptions.captions,
                       fmt::format("it does not fit the input: its first caption {} falls {:.3f} s behind {}, where "
                                   "the video begins, and the video lasts {:.3f} s",
                                   FormatTimecode(mCaptionLines.front().timecode), first,
                                   FormatTimecode(mCaptions->start), inVideoSeconds),
                       "say with --start which timecode is on the first video frame");
    }
}

std::vector<SideTracks::Side*> SideTracks::ListSides()
{
    std::vector<Side*> sides;
    if (mTimecode)
    {
        sides.push_back(&mTimecode->side);
    }
    for (TextTrack& track : mTexts)
    {
        sides.push_back(&track.side);
    }
    if (mCaptions)
    {
        sides.push_back(&mCaptions->side);
    }
    return sides;
}

void SideTracks::FitNumbers(const std::vector<Media>& inMedia)
{
    std::vector<std::string> kinds;
    std::transform(inMedia.begin(), inMedia.end(), std::back_inserter(kinds),
                   [](const Media& inItem) { return std::string(IsVideo(inItem) ? "video" : "sound"); });
    for (const Side* side : ListSides())
    {
        kinds.push_back(side->kind);
    }
    const int count = static_cast<int>(kinds.size());
    const auto check = [&](const std::string& inOption, int inNumber) {
        if (inNumber > count)
        {
            mRefusals.Refuse(
                CommandError(ExitCode::kInputRefused,
                             fmt::format("{} names track {}, but the movie has {} ({}); write a number from 1 to {}",
                                         inOption, inNumber, count, fmt::join(kinds, ", "), count)));
        }
        return inNumber <= count;
    };
    for (const TrackOptions::TrimIn& trimIn : mOptions.trimIns)
    {
        check("--trim-in", trimIn.track);
    }
    for (const TrackOptions::TrackMetadata& metadata : mTrackMetadata)
    {
        check("--track-meta", metadata.track);
    }
    for (const TrackOptions::Reference& reference : mOptions.references)
    {
        const std::string option = "--ref " + reference.text;
        check(option, reference.from);
        if (!check(option, reference.to))
        {
            continue;
        }
        const std::string& kind = kinds[static_cast<std::size_t>(reference.to) - 1];
        const bool isChapters = reference.type == QT::kQTTrackReferenceChapter;
        if (isChapters ? kind != "chapters" && kind != "text" : kind != "timecode")
        {
            mRefusals.Refuse(CommandError(ExitCode::kInputRefused,
                                          fmt::format("{} does not fit: track {} is {}; name a {} track, of these: {}",
                                                      option, reference.to, kind, isChapters ? "text" : "timecode",
                                                      fmt::join(kinds, ", "))));
        }
    }
}

void SideTracks::Fit(const std::vector<Media>& inMedia, std::optional<double> inEnd)
{
    const auto video = std::find_if(inMedia.begin(), inMedia.end(), IsVideo);
    if (video != inMedia.end())
    {
        mVideo = static_cast<std::size_t>(video - inMedia.begin());
        mCaptioned = video->track;
    }
    mMediaCount = static_cast<int>(inMedia.size());
    mIsWhole = mRefusals.Try([&] { FitTimecode(inMedia); }) && mIsWhole;
    mIsWhole = mRefusals.Try([&] { FitChapters(inMedia); }) && mIsWhole;
    if (mIsWhole || mOptions.captionsStart) // Without a start of their own captions count from the timecode.
    {
        mIsWhole = mRefusals.Try([&] { FitCaptions(inMedia, inEnd); }) && mIsWhole;
    }
    int number = mMediaCount;
    for (Side* side : ListSides())
    {
        side->number = ++number;
    }
    if (mIsWhole || mOptions.trimIns.empty()) // A delay goes by the number of its track.
    {
        FitTexts(inEnd);
    }
    if (mIsWhole)
    {
        FitNumbers(inMedia);
    }
}

// ---- Writing --------------------------------------------------------------------------------------------------------

QT::TrackID SideTracks::FindTrack(int inNumber, const std::vector<Media>& inMedia)
{
    return inNumber <= mMediaCount ? inMedia[static_cast<std::size_t>(inNumber) - 1].id
                                   : ListSides()[static_cast<std::size_t>(inNumber - mMediaCount) - 1]->id;
}

void SideTracks::AddReferences(MovieWriter& ioWriter, const std::vector<Media>& inMedia)
{
    struct Reference
    {
        QT::TrackID from;
        QT::TrackID to;
        QT::TrackReferenceType type;
        bool operator==(const Reference&) const = default;
    };
    std::vector<Reference> references;
    for (const Media& media : inMedia)
    {
        if (mTimecode && IsVideo(media) && av_cmp_q(media.track->GetFrameRate(), mTimecode->rate) == 0)
        {
            references.push_back({media.id, mTimecode->side.id, QT::kQTTrackReferenceTimecode});
        }
        if (!mTexts.empty() && mTexts.front().isChapters)
        {
            references.push_back({media.id, mTexts.front().side.id, QT::kQTTrackReferenceChapter});
        }
    }
    for (const TrackOptions::Reference& given : mOptions.references)
    {
        const Reference reference = {FindTrack(given.from, inMedia), FindTrack(given.to, inMedia), given.type};
        if (std::find(references.begin(), references.end(), reference) == references.end())
        {
            references.push_back(reference);
        }
    }
    for (const Reference& reference : references)
    {
        ioWriter.AddReference(reference.from, reference.to, reference.type);
    }
}

void SideTracks::AddMetadata(MovieWriter& ioWriter, const std::vector<Media>& inMedia)
{
    for (MetadataItem& item : mMetadata)
    {
        ioWriter.AddUserData(std::nullopt, item.type, item.payload);
    }
    for (TrackOptions::TrackMetadata& metadata : mTrackMetadata)
    {
        ioWriter.AddUserData(FindTrack(metadata.track, inMedia), metadata.item.type, metadata.item.payload);
    }
}

void SideTracks::Start(MovieWriter& ioWriter, const std::vector<Media>& inMedia)
{
    if (mTimecode)
    {
        Side& side = mTimecode->side;
        side.id = ioWriter.AddTrack(QT::kQTMediaTypeTimecode, side.timeScale, 0, 0,
                                    QT::CreateTimecodeDescription(side.timeScale, mTimecode->frameDuration,
                                                                  TimecodeFrames(mTimecode->rate),
                                                                  mTimecode->timecode.isDropFrame));
    }
    for (TextTrack& track : mTexts)
    {
        const bool isShown = !track.isChapters && mVideo;
        track.side.id =
            ioWriter.AddTrack(QT::kQTMediaTypeText, track.side.timeScale, isShown ? mCaptioned->GetWidth() : 0,
                              isShown ? mCaptioned->GetHeight() : 0, QT::CreateTextDescription());
    }
    if (mCaptions)
    {
        mCaptions->side.id =
            ioWriter.AddTrack(QT::kQTMediaTypeClosedCaption, mCaptions->side.timeScale, mCaptioned->GetWidth(),
                              mCaptioned->GetHeight(), QT::CreateClosedCaptionDescription());
    }
    // Early, and all of it, so that a movie that is cut short has them too.
    AddReferences(ioWriter, inMedia);
    AddMetadata(ioWriter, inMedia);
    SetTrimIns(ioWriter, inMedia);
    if (mTimecode)
    {
        const Track& video = *inMedia[mTimecode->video].track;
        const std::int64_t stated =
            av_rescale(video.GetStatedDuration(), mTimecode->side.timeScale, video.GetTimeScale());
        WriteTimecode(ioWriter, std::max<std::int64_t>(stated, mTimecode->frameDuration));
    }
    if (!mTexts.empty() && mTexts.front().isChapters)
    {
        WriteText(ioWriter, mTexts.front(), kOpenEnd - 1);
    }
}

//! Adds the only sample.
void SideTracks::WriteTimecode(MovieWriter& ioWriter, std::int64_t inDuration)
{
    Side& side = mTimecode->side;
    const int frames = TimecodeFrames(mTimecode->rate);
    const auto number = static_cast<std::uint32_t>(CountFrames(mTimecode->timecode, frames));
    std::vector<std::uint8_t> sample = {
        static_cast<std::uint8_t>(number >> 24U), static_cast<std::uint8_t>(number >> 16U & 0xFFU),
        static_cast<std::uint8_t>(number >> 8U & 0xFFU), static_cast<std::uint8_t>(number & 0xFFU)};
    AddSamples(ioWriter, side.id, sample, inDuration);
    ioWriter.EndChunk(side.id);
    side.duration += inDuration;
    side.bytes += sample.size();
    ++side.samples;
}

//! Writes texts that start before `inUpTo`, in units of cues. As long as the end of the movie is not known, only such
//! that end before it too.
void SideTracks::WriteText(MovieWriter& ioWriter, TextTrack& ioTrack, std::int64_t inUpTo) const
{
    Side& side = ioTrack.side;
    const std::int64_t samplesBefore = side.samples;
    for (; ioTrack.next < ioTrack.cues.size(); ++ioTrack.next)
    {
        const Cue& cue = ioTrack.cues[ioTrack.next];
        if ((ioTrack.limit ? cue.start : cue.end) >= inUpTo)
        {
            break;
        }
        const std::int64_t end = std::min(cue.end, ioTrack.limit.value_or(kOpenEnd));
        if (end <= cue.start)
        {
            ioTrack.cutCount += cue.text.empty() ? 0 : 1;
            continue;
        }
        const std::int64_t duration = av_rescale(end, side.timeScale, kCueTimeScale) - side.duration;
        ioWriter.AddText(side.id, Tolbin::string::UTF8to16(cue.text), FlatInt(duration));
        side.duration += duration;
        side.bytes += 16 + 2 * Tolbin::string::UTF8to16(cue.text).size();
        ++side.samples;
    }
    if (side.samples > samplesBefore)
    {
        ioWriter.EndChunk(side.id);
    }
}

void SideTracks::TakeFrame(const Track& inTrack, std::int64_t inDuration, std::int64_t inEnd)
{
    if (mCaptions && &inTrack == mCaptioned)
    {
        mCaptions->ready.emplace_back(MakeCaptionSample(mCaptions->queue.TakeUpTo(inEnd, inTrack.GetTimeScale())),
                                      inDuration);
    }
}

void SideTracks::WriteCaptions(MovieWriter& ioWriter)
{
    if (!mCaptions || mCaptions->ready.empty())
    {
        return;
    }
    Side& side = mCaptions->side;
    for (auto& [sample, duration] : mCaptions->ready)
    {
        AddSamples(ioWriter, side.id, sample, duration);
        side.duration += duration;
        side.bytes += sample.size();
        ++side.samples;
    }
    ioWriter.EndChunk(side.id);
    mCaptions->ready.clear();
}

void SideTracks::WriteUpTo(MovieWriter& ioWriter, double inEnd)
{
    WriteCaptions(ioWriter);
    for (TextTrack& track : mTexts)
    {
        WriteText(ioWriter, track, LimitOf(track, inEnd));
    }
}

void SideTracks::SetTrimIns(MovieWriter& ioWriter, const std::vector<Media>& inMedia)
{
    if (mCaptions)
    {
        mCaptions->side.trimIn = inMedia[*mVideo].trimIn + ExtraTrimIn(mCaptions->side, true);
    }
    if (mTimecode)
    {
        const Media& video = inMedia[mTimecode->video];
        mTimecode->side.trimIn = av_rescale(video.trimIn, mTimecode->side.timeScale, video.track->GetTimeScale()) +
                                 ExtraTrimIn(mTimecode->side, true);
    }
    for (const Side* side : ListSides())
    {
        ioWriter.SetTrimIn(side->id, FlatInt(side->trimIn));
    }
}

void SideTracks::FinishEarly(MovieWriter& ioWriter, const std::vector<Media>& inMedia)
{
    WriteCaptions(ioWriter);
    SetTrimIns(ioWriter, inMedia);
}

void SideTracks::Finish(MovieWriter& ioWriter, const std::vector<Media>& inMedia, double inEnd)
{
    SetTrimIns(ioWriter, inMedia);
    WriteCaptions(ioWriter);
    if (mCaptions)
    {
        const Media& video = inMedia[*mVideo];
        CheckCaptionStart(static_cast<double>(video.duration) / mCaptioned->GetTimeScale());
        mCaptions->cutCount = mCaptions->queue.GetCount();
    }
    if (mTimecode)
    {
        Side& side = mTimecode->side;
        const Media& video = inMedia[mTimecode->video];
        const auto toUnits = [&](std::int64_t inUnits) {
            return av_rescale(inUnits, side.timeScale, video.track->GetTimeScale());
        };
        mEndsWithMedia = side.duration != toUnits(video.duration);
        side.duration = toUnits(video.duration);
    }
    for (TextTrack& track : mTexts)
    {
        if (!track.limit)
        {
            track.limit = LimitOf(track, inEnd);
        }
        const auto rest = track.cues.begin() + static_cast<std::ptrdiff_t>(track.next);
        const auto behind = std::find_if(rest, track.cues.end(), [&](const Cue& inCue) {
            return !inCue.text.empty() && inCue.start >= *track.limit;
        });
        if (!track.option.empty() && behind != track.cues.end() && (track.isChapters || track.side.samples == 0) &&
            (track.isChapters ||
             behind == std::find_if(rest, track.cues.end(), [](const Cue& inCue) { return !inCue.text.empty(); })))
        {
            mRefusals.Try([&] { RefuseStart(track, *behind, inEnd); });
        }
        WriteText(ioWriter, track, kOpenEnd);
    }
}

void SideTracks::Summarise(WrapSummary& ioSummary) const
{
    const auto add = [&ioSummary](const Side& inSide) {
        if (inSide.samples == 0)
        {
            return;
        }
        WrapSummary::Track entry;
        entry.kind = inSide.kind;
        entry.format = inSide.format;
        entry.samples = inSide.samples;
        entry.bytes = inSide.bytes;
        entry.seconds = static_cast<double>(inSide.duration) / inSide.timeScale;
        entry.delay = static_cast<double>(inSide.trimIn) / inSide.timeScale;
        ioSummary.tracks.push_back(std::move(entry));
    };
    if (mTimecode)
    {
        add(mTimecode->side);
    }
    for (const TextTrack& track : mTexts)
    {
        add(track.side);
        if (track.cutCount > 0)
        {
            ioSummary.notes.push_back(fmt::format("{} {} of \"{}\" start behind the end of the movie and are left out",
                                                  track.cutCount, track.isChapters ? "chapters" : "texts",
                                                  track.source));
        }
    }
    if (mCaptions)
    {
        add(mCaptions->side);
        if (mCaptions->cutCount > 0)
        {
            ioSummary.notes.push_back(fmt::format("{} byte pairs of \"{}\" come behind the end of the video and are "
                                                  "left out",
                                                  mCaptions->cutCount, mOptions.captions));
        }
    }
    ioSummary.notes.insert(ioSummary.notes.end(), mNotes.begin(), mNotes.end());
}

} // namespace Host
