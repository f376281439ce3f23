//! Writes, into the folder named on the command line, one movie for each kind that readers are asked about. Every
//! track's media is a counting pattern (see `Pattern`), so that a reader's packets can be compared byte by byte.

#include <Reelmill/Reelmill.h>
#include <Tolbin/String.h>

#include <cstddef>
#include <cstdint>
#include <iostream>
#include <stdexcept>
#include <string>
#include <vector>

namespace
{

constexpr int kFrameWidth = 64;
constexpr int kFrameHeight = 36;

constexpr unsigned int FourCC(const char (&inCode)[5])
{
    unsigned int code = 0;
    for (int i = 0; i < 4; ++i)
    {
        code = code << 8U | static_cast<unsigned char>(inCode[i]);
    }
    return code;
}

void Check(Tolbin::Result inResult)
{
    if (inResult < 0)
    {
        throw std::runtime_error(Tolbin::ResultMessage(inResult));
    }
}

//! The bytes of one track: byte k is (167 k + 13 (k >> 8) + seed) mod 256, counted over the whole track.
class Pattern
{
public:
    explicit Pattern(unsigned int inSeed) : mSeed(inSeed) {}

    std::vector<std::uint8_t> Next(int inSize)
    {
        std::vector<std::uint8_t> bytes(static_cast<std::size_t>(inSize));
        for (std::uint8_t& byte : bytes)
        {
            byte = static_cast<std::uint8_t>(mPosition * 167 + (mPosition >> 8U) * 13 + mSeed);
            ++mPosition;
        }
        return bytes;
    }

private:
    unsigned int mSeed;
    unsigned int mPosition = 0;
};

//! A track under construction; its pattern's seed is its number in the movie, from 1.
struct Track
{
    QT::TrackID id;
    Pattern pattern;
};

class Movie
{
public:
    Movie(const std::string& inPath, int inTimeScale) : mWriter(QT::CreateReelmill())
    {
        Check(mWriter->Create(Tolbin::string::PathToUTF16(inPath), inTimeScale));
    }

    QT::Reelmill& Writer() { return *mWriter; }

    Track AddTrack(QT::MediaType inType, int inTimeScale, int inWidth, int inHeight,
                   const boost::shared_ptr<QT::QTSampleDescription>& inDescription)
    {
        Track track{0, Pattern(++mTrackCount)};
        Check(mWriter->NewMovieTrack(inType, inTimeScale, inWidth, inHeight, inDescription, track.id));
        return track;
    }

    Track AddSound(int inSampleRate, const boost::shared_ptr<QT::QTSoundDescription>& inDescription)
    {
        return AddTrack(QT::kQTMediaTypeSound, inSampleRate, 0, 0, inDescription);
    }

    //! A video track of small progressive frames with square pixels.
    Track AddVideo(int inTimeScale)
    {
        Tolbin::UTF16String name = u"Uncompressed 4:2:2";
        return AddTrack(QT::kQTMediaTypeVideo, inTimeScale, kFrameWidth, kFrameHeight,
                        QT::CreateImageDescription(static_cast<int>(FourCC("2vuy")), name, kFrameWidth, kFrameHeight,
                                                   24, Quorlan::kFieldTypeProgressive, {1, 1}));
    }

    void AddSamples(Track& ioTrack, int inSize, int inCount, int inDuration)
    {
        std::vector<std::uint8_t> bytes = ioTrack.pattern.Next(inSize);
        Check(mWriter->AddMediaSample(ioTrack.id, bytes.data(), inSize, inCount, inDuration, 0, false));
    }

    void AddFrames(Track& ioTrack, int inCount, int inDuration)
    {
        for (int i = 0; i < inCount; ++i)
        {
            AddSamples(ioTrack, kFrameWidth * kFrameHeight * 2, 1, inDuration);
        }
    }

    void Close() { Check(mWriter->Close()); }

private:
    boost::shared_ptr<QT::Reelmill> mWriter;
    unsigned int mTrackCount = 0;
};

struct SampleForm
{
    Sambrel::AudioSampleType type;
    int bytes;
};

constexpr SampleForm kSampleForms[] = {
    {Sambrel::kAudioSampleTypeUInt8, 1},     {Sambrel::kAudioSampleTypeInt8, 1},
    {Sambrel::kAudioSampleTypeInt16LE, 2},   {Sambrel::kAudioSampleTypeInt24LE, 3},
    {Sambrel::kAudioSampleTypeInt32LE, 4},   {Sambrel::kAudioSampleTypeFloat32LE, 4},
    {Sambrel::kAudioSampleTypeFloat64LE, 8}, {Sambrel::kAudioSampleTypeInt16BE, 2},
    {Sambrel::kAudioSampleTypeInt24BE, 3},   {Sambrel::kAudioSampleTypeInt32BE, 4},
    {Sambrel::kAudioSampleTypeFloat32BE, 4},
};

//! One stereo track of each sample form, a tenth of a second in two writes. Rates from 65 536 Hz on need version 2.
void WritePCM(const std::string& inPath, int inSampleRate)
{
    const Quorlan::AudioChannelLayout stereo = {Quorlan::kAudioChannelLabelLeft, Quorlan::kAudioChannelLabelRight};
    const int half = inSampleRate / 20;
    Movie movie(inPath, inSampleRate);
    for (const SampleForm& form : kSampleForms)
    {
        Track track =
            movie.AddSound(inSampleRate, QT::CreateSoundDescription(0, 2, inSampleRate, form.type, stereo, false));
        for (int run = 0; run < 2; ++run)
        {
            movie.AddSamples(track, half * 2 * form.bytes, half, 1);
        }
    }
    movie.Close();
}

//! Channel labels: 5.1, discrete, ambisonic, stereo, mono, and a single discrete channel with number 3.
void WriteChannels(const std::string& inPath)
{
    using namespace Quorlan;
    struct Layout
    {
        AudioChannelLayout channels;
        bool discrete;
    };
    const std::vector<Layout> layouts = {
        {{kAudioChannelLabelLeft, kAudioChannelLabelRight, kAudioChannelLabelCenter, kAudioChannelLabelLFEScreen,
          kAudioChannelLabelLeftSurround, kAudioChannelLabelRightSurround},
         false},
        {{kAudioChannelLabelDiscrete, kAudioChannelLabelDiscrete, kAudioChannelLabelDiscrete,
          kAudioChannelLabelDiscrete},
         true},
        {{kAudioChannelLabelAmbisonicW, kAudioChannelLabelAmbisonicX, kAudioChannelLabelAmbisonicY,
          kAudioChannelLabelAmbisonicZ},
         false},
        {{kAudioChannelLabelLeft, kAudioChannelLabelRight}, false},
        {{kAudioChannelLabelDiscrete}, false},
        {{kAudioChannelLabelDiscrete}, true},
    };
    constexpr int kRate = 48000;
    constexpr int kLength = 4800;
    constexpr int kDiscreteChannel = 3;

    Movie movie(inPath, kRate);
    for (const Layout& layout : layouts)
    {
        const int channels = static_cast<int>(layout.channels.size());
        Track track = movie.AddSound(kRate, QT::CreateSoundDescription(kDiscreteChannel, channels, kRate,
                                                                       Sambrel::kAudioSampleTypeInt16LE,
                                                                       layout.channels, layout.discrete));
        movie.AddSamples(track, kLength * channels * 2, kLength, 1);
    }
    movie.Close();
}

//! NTSC frames with narrow pixels, lower field first, a clean aperture, SD colour and gamma.
void WriteAperture(const std::string& inPath)
{
    Tolbin::UTF16String name = u"Uncompressed 4:2:2";
    const auto description = QT::CreateImageDescription(static_cast<int>(FourCC("2vuy")), name, 720, 480, 24,
                                                        Quorlan::kFieldTypeLowerFirst, {10, 11});
    description->AddCleanAperture(704, 1, 480, 1, 0, 1, 0, 1);
    description->SetColorSpaceParameter(6, 1, 6);
    description->AddGamma(QT::kQTGamma22);

    Movie movie(inPath, 30000);
    Track track = movie.AddTrack(QT::kQTMediaTypeVideo, 30000, 640, 480, description);
    for (int i = 0; i < 3; ++i)
    {
        movie.AddSamples(track, 720 * 480 * 2, 1, 1001);
    }
    movie.Close();
}

struct TimecodeForm
{
    const char* name;
    int timeScale, frameDuration, frames;
    bool dropFrame;
    std::uint32_t start; //!< Frame number at the first frame.
};

// The starts read 10:00:00:00, 10:00:00:00, 01:00:00;00 and 01:00:00:00.
constexpr TimecodeForm kTimecodeForms[] = {
    {"timecode-24", 24, 1, 24, false, 10 * 3600 * 24},
    {"timecode-25", 25, 1, 25, false, 10 * 3600 * 25},
    {"timecode-2997-drop", 30000, 1001, 30, true, 107892},
    {"timecode-2997-nondrop", 30000, 1001, 30, false, 3600 * 30},
};

void WriteTimecode(const std::string& inPath, const TimecodeForm& inForm)
{
    constexpr int kFrames = 12;
    Movie movie(inPath, inForm.timeScale);
    Track video = movie.AddVideo(inForm.timeScale);
    const Track timecode = movie.AddTrack(
        QT::kQTMediaTypeTimecode, inForm.timeScale, 0, 0,
        QT::CreateTimecodeDescription(inForm.timeScale, inForm.frameDuration, inForm.frames, inForm.dropFrame));
    Check(movie.Writer().AddTrackReference(video.id, timecode.id, QT::kQTTrackReferenceTimecode));

    std::vector<std::uint8_t> number;
    for (int shift = 24; shift >= 0; shift -= 8)
    {
        number.push_back(static_cast<std::uint8_t>(inForm.start >> shift));
    }
    Check(movie.Writer().AddMediaSample(timecode.id, number.data(), 4, 1, kFrames * inForm.frameDuration, 0, false));
    movie.AddFrames(video, kFrames, inForm.frameDuration);
    movie.Close();
}

//! Chapters in plain, accented and Japanese text and beyond the Basic Multilingual Plane.
void WriteText(const std::string& inPath)
{
    Movie movie(inPath, 600);
    Track video = movie.AddVideo(25);
    const Track text = movie.AddTrack(QT::kQTMediaTypeText, 600, 0, 0, QT::CreateTextDescription());
    Check(movie.Writer().AddTrackReference(video.id, text.id, QT::kQTTrackReferenceChapter));
    for (const char16_t* title : {u"Prologue", u"\u00c9t\u00e9", u"\u65e5\u672c\u8a9e", u"Film \U0001F3AC"})
    {
        Check(movie.Writer().AddTextMediaSample(text.id, title, 600));
    }
    movie.AddFrames(video, 100, 1);
    movie.Close();
}

//! Video from the start, sound half a second later.
void WriteTrimIn(const std::string& inPath)
{
    const Quorlan::AudioChannelLayout mono = {Quorlan::kAudioChannelLabelDiscrete};
    Movie movie(inPath, 600);
    Track video = movie.AddVideo(25);
    Track sound =
        movie.AddSound(48000, QT::CreateSoundDescription(0, 1, 48000, Sambrel::kAudioSampleTypeInt16BE, mono, false));
    Check(movie.Writer().SetTrackTrimIn(sound.id, 24000));
    movie.AddFrames(video, 50, 1);
    movie.AddSamples(sound, 72000 * 2, 72000, 1);
    movie.Close();
}

//! So many samples of differing sizes (1 to 16 bytes) that 'moov' does not fit in front of the media.
void WriteManySamples(const std::string& inPath)
{
    constexpr int kSamples = 150000;
    Tolbin::UTF16String name = u"Apple ProRes 422";
    Movie movie(inPath, 600);
    Track track = movie.AddTrack(QT::kQTMediaTypeVideo, 600, kFrameWidth, kFrameHeight,
                                 QT::CreateImageDescription(static_cast<int>(FourCC("apcn")), name, kFrameWidth,
                                                            kFrameHeight, 24, Quorlan::kFieldTypeProgressive, {1, 1}));
    for (int i = 0; i < kSamples; ++i)
    {
        movie.AddSamples(track, 1 + i % 16, 1, 1);
    }
    movie.Close();
}

//! So many short writes (1 to 16 samples) that the chunk tables do not fit in front of the media.
void WriteManyChunks(const std::string& inPath)
{
    constexpr int kWrites = 80000;
    const Quorlan::AudioChannelLayout mono = {Quorlan::kAudioChannelLabelDiscrete};
    Movie movie(inPath, 48000);
    Track track =
        movie.AddSound(48000, QT::CreateSoundDescription(0, 1, 48000, Sambrel::kAudioSampleTypeUInt8, mono, false));
    for (int i = 0; i < kWrites; ++i)
    {
        movie.AddSamples(track, 1 + i % 16, 1 + i % 16, 1);
    }
    movie.Close();
}

//! A text track without samples stands between two others and is referred to.
void WriteEmptyTrack(const std::string& inPath)
{
    const Quorlan::AudioChannelLayout mono = {Quorlan::kAudioChannelLabelDiscrete};
    const auto description = QT::CreateSoundDescription(0, 1, 48000, Sambrel::kAudioSampleTypeInt16BE, mono, false);
    Movie movie(inPath, 600);
    Track video = movie.AddVideo(25);
    const Track empty = movie.AddTrack(QT::kQTMediaTypeText, 600, 0, 0, QT::CreateTextDescription());
    Track sound = movie.AddSound(48000, description);
    Check(movie.Writer().AddTrackReference(video.id, empty.id, QT::kQTTrackReferenceChapter));
    movie.AddFrames(video, 10, 1);
    movie.AddSamples(sound, 19200 * 2, 19200, 1);
    movie.Close();
}

} // namespace

int main(int inArgumentCount, char** inArguments)
{
    if (inArgumentCount != 2)
    {
        std::cerr << "usage: SampleMovies FOLDER\n";
        return 1;
    }
    try
    {
        const std::string folder = std::string(inArguments[1]) + "/";
        WritePCM(folder + "pcm-version1.mov", 48000);
        WritePCM(folder + "pcm-version2.mov", 96000);
        WriteChannels(folder + "channels.mov");
        WriteAperture(folder + "aperture.mov");
        for (const TimecodeForm& form : kTimecodeForms)
        {
            WriteTimecode(folder + form.name + ".mov", form);
        }
        WriteText(folder + "text.mov");
        WriteTrimIn(folder + "trim-in.mov");
        WriteManySamples(folder + "many-samples.mov");
        WriteManyChunks(folder + "many-chunks.mov");
        WriteEmptyTrack(folder + "empty-track.mov");
    }
    catch (const std::exception& error)
    {
        std::cerr << "SampleMovies: " << error.what() << '\n';
        return 1;
    }
    return 0;
}
