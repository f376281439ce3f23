#include "Demo.h"

#include "CommandError.h"
#include "DemoCaptions.h"
#include "DemoPicture.h"
#include "Interrupt.h"
#include "MovieLayout.h"
#include "OutputFile.h"

#include <Reelmill/Reelmill.h>
#include <Tolbin/String.h>

#include <fmt/chrono.h>
#include <fmt/format.h>

#include <cmath>
#include <ctime>
#include <string>
#include <string_view>
#include <vector>

namespace Host
{

namespace
{

// ---- Times ----------------------------------------------------------------------------------------------------------

constexpr int kVideoTimeScale = 30000;
constexpr int kFrameDuration = 1001;
constexpr int kNominalFrameRate = 30;
constexpr int kFrameCount = 300;

// Samples are interleaved in runs of about half a second: 15 frames last exactly 24 024 sample frames of sound.
constexpr int kFramesPerRun = 15;
constexpr int kSampleRate = 48000;
constexpr int kSoundPerRun = 24024;
static_assert(kFrameCount % kFramesPerRun == 0);
static_assert(kFramesPerRun * kFrameDuration * (kSampleRate / 1000) == kSoundPerRun * (kVideoTimeScale / 1000));

struct DropFrameTime
{
    int hours, minutes, seconds, frames;
};

constexpr DropFrameTime kStart = {1, 0, 0, 0};

// Every minute skips the numbers ;00 and ;01, but for every tenth.
constexpr int FrameNumber(const DropFrameTime& inTime)
{
    const int minutes = inTime.hours * 60 + inTime.minutes;
    return (minutes * 60 + inTime.seconds) * kNominalFrameRate + inTime.frames - 2 * (minutes - minutes / 10);
}
static_assert(FrameNumber({0, 1, 0, 2}) == FrameNumber({0, 0, 59, 29}) + 1);
static_assert(FrameNumber({0, 10, 0, 0}) == FrameNumber({0, 9, 59, 29}) + 1);
static_assert(FrameNumber({24, 0, 0, 0}) == 2589408);

// The movie ends before the first skipped number, so counting on is plain.
std::string TimecodeOfFrame(int inFrame)
{
    static_assert(kFrameCount < 60 * kNominalFrameRate && kStart.minutes % 10 == 0 && kStart.seconds == 0);
    return fmt::format("{:02}:{:02}:{:02};{:02}", kStart.hours, kStart.minutes, inFrame / kNominalFrameRate,
                       inFrame % kNominalFrameRate);
}

// ---- Content --------------------------------------------------------------------------------------------------------

struct Chapter
{
    int frames;
    const char16_t* title;
};

constexpr Chapter kChapters[] = {{90, u"Bars and tone"}, {105, u"Captions"}, {105, u"Farewell"}};

std::vector<Caption> Captions()
{
    return {{45, 100, {"Colour bars and tone,", "made by the library alone."}},
            {145, 200, {"These captions are CEA-608,", "one pair of bytes a frame."}},
            {240, 290, {"That is all.", "Goodbye!"}}};
}

constexpr unsigned int FourCC(const char (&inCode)[5])
{
    unsigned int code = 0;
    for (int i = 0; i < 4; ++i)
    {
        code = code << 8U | static_cast<unsigned char>(inCode[i]);
    }
    return code;
}

// 1 kHz left and 400 Hz right as 16-bit little-endian pairs, both at -20 dBFS. A run holds whole periods of neither,
// so each starts where the one before ended.
std::vector<std::uint8_t> ToneRun(int inFirstSample)
{
    constexpr double kPeak = 32767 * 0.1;
    constexpr int kPeriod = 240; // of both tones together
    constexpr double kTurn = 6.283185307179586;

    std::vector<std::uint8_t> run;
    run.reserve(kSoundPerRun * 4);
    for (int i = 0; i < kSoundPerRun; ++i)
    {
        const double time = static_cast<double>((inFirstSample + i) % kPeriod) / kSampleRate;
        for (const double frequency : {1000.0, 400.0})
        {
            const auto sample = static_cast<unsigned int>(std::lround(kPeak * std::sin(kTurn * frequency * time)));
            run.push_back(static_cast<std::uint8_t>(sample & 0xFFU));
            run.push_back(static_cast<std::uint8_t>(sample >> 8U & 0xFFU));
        }
    }
    return run;
}

// ---- The movie ------------------------------------------------------------------------------------------------------

class DemoMovie
{
public:
    //! Creates the movie file `inPart`; errors speak of `inPath`, which it will become.
    DemoMovie(const std::filesystem::path& inPath, const std::filesystem::path& inPart)
        : mPath(inPath), mWriter(QT::CreateReelmill())
    {
        Check(mWriter->Create(Tolbin::string::PathToUTF16(inPart.string()), kVideoTimeScale));
    }

    DemoSummary Write()
    {
        AddTracks();
        AddUserData();
        AddTimecode();
        AddChapters();
        AddRuns();

        DemoSummary summary;
        summary.path = mPath;
        summary.seconds = static_cast<double>(mWriter->GetMovieDuration()) / kVideoTimeScale;
        summary.tracks = mTrackCount;
        Check(mWriter->Close());
        return summary;
    }

private:
    void AddTracks()
    {
        Tolbin::UTF16String codecName = u"Uncompressed 4:2:2";
        const auto video = QT::CreateImageDescription(static_cast<int>(FourCC("2vuy")), codecName, DemoPicture::kWidth,
                                                      DemoPicture::kHeight, 24, Quorlan::kFieldTypeProgressive, {1, 1});
        video->SetColorSpaceParameter(1, 1, 1); // BT.709 throughout
        video->AddCleanAperture(DemoPicture::kWidth, 1, DemoPicture::kHeight, 1, 0, 1, 0, 1);
        video->AddGamma(QT::kQTGamma22);
        mVideo = NewTrack(QT::kQTMediaTypeVideo, kVideoTimeScale, DemoPicture::kWidth, DemoPicture::kHeight, video,
                          "Colour bars");

        const Quorlan::AudioChannelLayout stereo = {Quorlan::kAudioChannelLabelLeft, Quorlan::kAudioChannelLabelRight};
        mSound =
            NewTrack(QT::kQTMediaTypeSound, kSampleRate, 0, 0,
                     QT::CreateSoundDescription(0, 2, kSampleRate, Sambrel::kAudioSampleTypeInt16LE, stereo, false),
                     "1 kHz left, 400 Hz right, -20 dBFS");
        mTimecode = NewTrack(QT::kQTMediaTypeTimecode, kVideoTimeScale, 0, 0,
                             QT::CreateTimecodeDescription(kVideoTimeScale, kFrameDuration, kNominalFrameRate, true),
                             "Timecode");
        mChapters = NewTrack(QT::kQTMediaTypeText, kVideoTimeScale, 0, 0, QT::CreateTextDescription(), "Chapters");
        mCaptions = NewTrack(QT::kQTMediaTypeClosedCaption, kVideoTimeScale, DemoPicture::kWidth, DemoPicture::kHeight,
                             QT::CreateClosedCaptionDescription(), "Captions");

        Check(mWriter->AddTrackReference(mVideo, mTimecode, QT::kQTTrackReferenceTimecode));
        Check(mWriter->AddTrackReference(mVideo, mChapters, QT::kQTTrackReferenceChapter));
        Check(mWriter->AddTrackReference(mSound, mChapters, QT::kQTTrackReferenceChapter));
    }

    void AddUserData()
    {
        AddUserText("\251nam", "Colour bars and tone");
        AddUserText("\251cmt",
                    "75 % colour bars with 1 kHz and 400 Hz tone at -20 dBFS, a demonstration of everything that a "
                    "movie can carry");
        AddUserText("\251swr", "reelmill demo");
        AddUserText("\251day", fmt::format("{:%Y-%m-%d}", fmt::gmtime(std::time(nullptr))));
    }

    void AddTimecode()
    {
        constexpr unsigned int kNumber = FrameNumber(kStart);
        std::vector<std::uint8_t> sample = {kNumber >> 24U, kNumber >> 16U & 0xFFU, kNumber >> 8U & 0xFFU,
                                            kNumber & 0xFFU};
        AddSamples(mTimecode, sample, 1, kFrameCount * kFrameDuration);
    }

    void AddChapters()
    {
        for (const Chapter& chapter : kChapters)
        {
            const Tolbin::UTF16String title = chapter.title;
            Check(mWriter->AddTextMediaSample(mChapters, title, chapter.frames * kFrameDuration));
        }
    }

    // Sound, captions and pictures of the same half second lie next to each other, each in one chunk.
    void AddRuns()
    {
        DemoPicture picture;
        const std::vector<CaptionPair> captions = EncodeCaptions(Captions(), kFrameCount);
        for (int first = 0; first < kFrameCount; first += kFramesPerRun)
        {
            ThrowIfStopRequested();
            std::vector<std::uint8_t> tone = ToneRun(first / kFramesPerRun * kSoundPerRun);
            AddSamples(mSound, tone, kSoundPerRun, 1);
            Check(mWriter->EndMediaChunk(mSound));

            for (int frame = first; frame < first + kFramesPerRun; ++frame)
            {
                const CaptionPair& pair = captions[static_cast<std::size_t>(frame)];
                std::vector<std::uint8_t> sample = {0, 0, 0, 10, 'c', 'd', 'a', 't', pair[0], pair[1]};
                AddSamples(mCaptions, sample, 1, kFrameDuration);
            }
            Check(mWriter->EndMediaChunk(mCaptions));

            for (int frame = first; frame < first + kFramesPerRun; ++frame)
            {
                const double phase = static_cast<double>(frame % kNominalFrameRate) / kNominalFrameRate;
                AddSamples(mVideo, picture.Draw(TimecodeOfFrame(frame), phase), 1, kFrameDuration);
            }
            Check(mWriter->EndMediaChunk(mVideo));
        }
    }

    // `inName` is shown by players that list a movie's tracks.
    QT::TrackID NewTrack(QT::MediaType inType, int inTimeScale, int inWidth, int inHeight,
                         const boost::shared_ptr<QT::QTSampleDescription>& inDescription, std::string inName)
    {
        QT::TrackID track = 0;
        Check(mWriter->NewMovieTrack(inType, inTimeScale, inWidth, inHeight, inDescription, track));
        Check(mWriter->AddTrackUserData(track, static_cast<int>(FourCC("name")), inName.data(),
                                        static_cast<int>(inName.size())));
        ++mTrackCount;
        return track;
    }

    void AddSamples(QT::TrackID inTrack, std::vector<std::uint8_t>& inData, int inCount, int inDuration)
    {
        Check(mWriter->AddMediaSample(inTrack, inData.data(), static_cast<int>(inData.size()), inCount, inDuration, 0,
                                      false));
    }

    // International text, whose codes begin with a copyright sign (octal 251): length and language in 16 bits each,
    // then the text; a packed ISO 639-2 language means UTF-8.
    void AddUserText(const char (&inType)[5], std::string_view inText)
    {
        constexpr unsigned int kEnglish = ('e' - 0x60U) << 10U | ('n' - 0x60U) << 5U | ('g' - 0x60U);
        std::string item = {static_cast<char>(inText.size() >> 8U), static_cast<char>(inText.size() & 0xFFU),
                            static_cast<char>(kEnglish >> 8U), static_cast<char>(kEnglish & 0xFFU)};
        item += inText;
        Check(mWriter->AddUserData(static_cast<int>(FourCC(inType)), item.data(), static_cast<int>(item.size())));
    }

    void Check(Tolbin::Result inResult) const
    {
        if (inResult < 0)
        {
            throw CommandError(ExitCode::kIOFailed,
                               fmt::format("\"{}\" cannot be written: {}; check its volume, and run the command again",
                                           mPath.string(), Tolbin::ResultMessage(inResult)));
        }
    }

    std::filesystem::path mPath;
    boost::shared_ptr<QT::Reelmill> mWriter;
    QT::TrackID mVideo = 0, mSound = 0, mTimecode = 0, mChapters = 0, mCaptions = 0;
    int mTrackCount = 0;
};

} // namespace

DemoSummary WriteDemoMovie(const DemoOptions& inOptions)
{
    OutputFile output(inOptions.output, inOptions.overwrite, {});
    const std::filesystem::path part = output.CreatePart();
    DemoSummary summary = DemoMovie(output.GetPath(), part).Write();
    summary.bytes =
        ReadMovieLayout(part, inOptions.output).fileSize; // tells of a lost last block of media, which `Close` does not
    output.Commit();
    return summary;
}

} // namespace Host
