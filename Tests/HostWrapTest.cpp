#include "Support/FailingFileSystem.h"
#include "Support/ForwardingFileSystem.h"
#include "Support/HostRun.h"
#include "Support/TempDirectory.h"

#include <Host/CommandError.h>
#include <Host/MediaSource.h>
#include <Host/MovieLayout.h>
#include <Host/MovieWriter.h>
#include <Host/Progress.h>
#include <Host/Timing.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <numeric>
#include <sstream>
#include <string>
#include <sys/stat.h>
#include <vector>

namespace fs = std::filesystem;
using Json = nlohmann::json;

namespace
{

const std::string kPicture = "-f lavfi -i testsrc2=s=64x48:r=25:d=1 ";
const std::string kTone = "-f lavfi -i sine=r=48000:d=1 ";

std::string Text(const Tolbin::utility::BinaryDataArray& inBytes)
{
    return {inBytes.begin(), inBytes.end()};
}

class HostWrapTest : public testing::Test
{
protected:
    std::string Path(const std::string& inName) const { return mFolder.Path(inName); }

    std::string Make(const std::string& inName, const std::string& inOptions)
    {
        MakeMedia(inOptions, Path(inName));
        return Path(inName);
    }

    std::string MakeWave() { return Make("in.wav", kTone + "-c:a pcm_s16le"); }

    //! Every file with its content: what must be the same after a failure.
    std::map<std::string, std::string> Contents() const
    {
        std::map<std::string, std::string> contents;
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(mFolder.Path("")))
        {
            contents[entry.path().string()] =
                entry.is_regular_file() ? Text(ReadFile(entry.path().string())) : std::string();
        }
        return contents;
    }

    //! The command fails with one sentence that holds `inReason`, and no file has changed.
    void ExpectRefusal(int inCode, const std::string& inReason, const std::vector<std::string>& inArguments)
    {
        SCOPED_TRACE(inReason);
        const std::map<std::string, std::string> before = Contents();
        const Outcome outcome = RunHost(inArguments);
        EXPECT_EQ(inCode, outcome.code);
        EXPECT_EQ("", outcome.out);
        ExpectHelpfulSentence(outcome.err);
        EXPECT_NE(std::string::npos, outcome.err.find(inReason)) << outcome.err;
        EXPECT_TRUE(before == Contents()) << "the folder has changed";
    }

    TempDirectory mFolder;
};

//! A packet of a source: where it lies, and its bytes.
struct SourcePacket
{
    int stream;
    std::uintmax_t start;
    std::uintmax_t end;
    std::string bytes;
    bool isVideo;
};

std::vector<SourcePacket> PacketsOf(const std::string& inPath)
{
    Host::MediaSource source(inPath, {0, 1}, false, false);
    std::vector<SourcePacket> packets;
    while (const Host::PacketPtr packet = source.ReadPacket())
    {
        const auto start = static_cast<std::uintmax_t>(packet->pos);
        const auto size = static_cast<std::size_t>(packet->size);
        const AVStream& stream = *source.GetFormat().streams[packet->stream_index];
        packets.push_back({stream.index,
                           start,
                           start + size,
                           {packet->data, packet->data + size},
                           stream.codecpar->codec_type == AVMEDIA_TYPE_VIDEO});
    }
    return packets;
}

//! The bytes of each stream's packets that end at `inEnd` or before it.
std::map<int, std::string> StreamsOf(const std::vector<SourcePacket>& inPackets, std::uintmax_t inEnd = UINTMAX_MAX)
{
    std::map<int, std::string> streams;
    for (const SourcePacket& packet : inPackets)
    {
        streams[packet.stream] += packet.end <= inEnd ? packet.bytes : "";
    }
    return streams;
}

std::vector<std::size_t> VideoSizesOf(const std::vector<SourcePacket>& inPackets, int inStream)
{
    std::vector<std::size_t> sizes;
    for (const SourcePacket& packet : inPackets)
    {
        if (packet.isVideo && packet.stream == inStream)
        {
            sizes.push_back(packet.bytes.size());
        }
    }
    return sizes;
}

std::string Replaced(std::string inText, const std::string& inOld, const std::string& inNew)
{
    const std::size_t position = inText.find(inOld);
    EXPECT_NE(std::string::npos, position);
    return position == std::string::npos ? inText : inText.replace(position, inOld.size(), inNew);
}

} // namespace

TEST_F(HostWrapTest, UsageErrors)
{
    const std::string wave = MakeWave();
    const std::string out = Path("out.mov");
    ExpectRefusal(1, "subcommand", {});
    ExpectRefusal(1, "explode", {"explode"});
    ExpectRefusal(1, "--output", {"wrap", wave});
    ExpectRefusal(1, "input", {"wrap", "-o", out});
    ExpectRefusal(1, "--nonsense", {"wrap", wave, "-o", out, "--nonsense"});
    ExpectRefusal(1, "none of the inputs is one", {"wrap", wave, "-o", out, "--fps", "25"});
    MakeMedia(kPicture + "-frames:v 3", Path("frame%02d.png"));
    for (const char* rate : {"fast", "0", "-1", "1/0", "ntsc", "25;"})
    {
        ExpectRefusal(1, "is no frame rate", {"wrap", Path("frame%02d.png"), "-o", out, "--fps", rate});
    }
    ExpectRefusal(1, "give its frame rate with --fps", {"wrap", Path("frame%02d.png"), "-o", out});
    ExpectRefusal(1, "give its frame rate with --fps", {"wrap", Path("frame01.png"), "-o", out});
}

TEST_F(HostWrapTest, RefusesStreamsThatNoMovieCanHold)
{
    const std::string wave = MakeWave();
    const struct
    {
        const char* name;
        std::string options;
        const char* reason;
    } cases[] = {
        {"mpeg4.mov", kPicture + "-c:v mpeg4", "stream 0 (video, mpeg4)"},
        {"inter.mkv", kPicture + "-c:v mpeg2video", "inter-frame"},
        {"huffyuv.avi", kPicture + "-c:v huffyuv", "no movie tag is known for huffyuv"},
        {"planar.avi", kPicture + "-c:v rawvideo -pix_fmt yuv420p", "no tag for uncompressed yuv420p pixels"},
        {"rgba64.nut", kPicture + "-c:v rawvideo -pix_fmt rgba64be", "no tag for uncompressed rgba64be pixels"},
        {"palette.avi", kPicture + "-c:v rawvideo -pix_fmt pal8", "palette"},
        {"adpcm.wav", kTone + "-c:a adpcm_ima_wav", "compressed"},
        {"alaw.wav", kTone + "-c:a pcm_alaw", "pcm_alaw is not a form of PCM"},
        {"f64be.mov", kTone + "-c:a pcm_f64be", "pcm_f64be is not a form of PCM"},
        {"u16.nut", kTone + "-c:a pcm_u16le", "pcm_u16le is not a form of PCM"},
        {"second.mov", kPicture + kTone + "-c:v mjpeg -c:a aac", "stream 1 (audio, aac)"},
    };
    for (const auto& [name, options, reason] : cases)
    {
        const std::string input = Make(name, options);
        ExpectRefusal(2, reason, {"wrap", wave, input, "-o", Path("out.mov")});
    }
}

TEST_F(HostWrapTest, RefusesWhatIsNoMedia)
{
    const std::string out = Path("out.mov");
    WriteFile(Path("noise.mov"), std::string(5000, '\x5A'));
    WriteFile(Path("empty.wav"), "");
    WriteFile(Path("text.srt"), "1\n00:00:00,000 --> 00:00:01,000\nHello\n");
    ExpectRefusal(2, "no media file", {"wrap", Path("noise.mov"), "-o", out});
    ExpectRefusal(2, "empty.wav", {"wrap", Path("empty.wav"), "-o", out});
    ExpectRefusal(2, "neither video nor audio", {"wrap", Path("text.srt"), "-o", out});
    ExpectRefusal(2, "is a folder", {"wrap", mFolder.Path(""), "-o", out});
    ExpectRefusal(3, "No such file", {"wrap", Path("missing.mov"), "-o", out});
    ExpectRefusal(3, "no file is named like", {"wrap", Path("missing%04d.png"), "-o", out, "--fps", "25"});
}

TEST_F(HostWrapTest, RefusesAnImageSequenceWithAGap)
{
    MakeMedia(kPicture + "-frames:v 5 -start_number 8", Path("frame%d.png"));
    const std::vector<std::string> arguments = {"wrap", Path("frame%d.png"), "-o", Path("out.mov"), "--fps", "25"};
    WriteFile(Path("frame007b.png"), "of another name");
    EXPECT_EQ(0, RunHost(arguments).code);
    ExpectRefusal(2, "the same file as the input", {"wrap", Path("frame%d.png"), "-o", Path("frame9.png"), "-y"});
    fs::remove(Path("out.mov"));
    fs::remove(Path("frame10.png"));
    ExpectRefusal(2, "has no image 10, but goes on with 11", arguments);
}

TEST_F(HostWrapTest, RefusesImagesThatMakeNoSequenceByName)
{
    const struct
    {
        std::string suffix;
        std::string options;
        std::string otherPixels;
    } kinds[] = {{"png", "", "gray"},
                 {"jpg", "-pix_fmt yuvj420p", "yuvj422p"},
                 {"tif", "", "gray"},
                 {"tga", "", "gray"},
                 {"j2k", "-c:v jpeg2000 -format j2k", "gray"},
                 {"jp2", "-c:v jpeg2000 -format jp2", "gray"}};
    for (const auto& [suffix, options, otherPixels] : kinds)
    {
        SCOPED_TRACE(suffix);
        const auto name = [&suffix = suffix](std::string inStem) { return inStem.append(".").append(suffix); };
        const auto make = [this, &name, &options = options](const std::string& inName, const char* inSize,
                                                            const std::string& inMore) {
            std::ostringstream all;
            all << "-f lavfi -i testsrc2=r=25:d=1:s=" << inSize << ' ' << options << ' ' << inMore;
            Make(name(inName), all.str());
        };
        const auto read = [this, &name](const std::string& inName) { return Text(ReadFile(Path(name(inName)))); };
        make("image%d", "64x48", "-frames:v 4");
        make("size", "48x64", "-frames:v 1");
        make("form", "64x48", "-frames:v 1 -pix_fmt " + otherPixels);
        const std::vector<std::string> arguments = {"wrap", Path(name("image%d")), "-o", Path("out.mov"), "--fps",
                                                    "25"};
        const Outcome good = RunHost(arguments);
        EXPECT_EQ(0, good.code) << good.err;
        EXPECT_NE(std::string::npos, good.out.find("4 frames")) << good.out;
        fs::remove(Path("out.mov"));
        const std::string third = name("image3") + "\" ";
        std::string whole = read("image3");
        if (suffix == "jpg")
        {
            whole.insert(2, std::string("\xFF\xE1\0\6\xFF\xD8\xFF\xD9", 8)); // A small picture in the head.
        }
        const std::string cut =
            suffix == "tif" ? "is no tiff image" : "is cut off"; // What says its form is at its end.
        for (const auto& [content, reason] : {std::pair<std::string, std::string>{"", "is empty"},
                                              {whole.substr(0, whole.size() / 2), cut},
                                              {whole.substr(0, whole.size() - 30), cut},
                                              {whole.substr(0, 7), "is no "},
                                              {read("size"), "has 48x64 pixels, and the images before it have 64x48"},
                                              {read("form"), "has pixels of the form \""}})
        {
            WriteFile(Path(name("image3")), content);
            ExpectRefusal(2, third + reason, arguments);
        }
        fs::remove(Path(name("image3")));
        fs::create_directory(Path(name("image3")));
        ExpectRefusal(2, third + "is a folder", arguments);
        fs::remove(Path(name("image3")));
        fs::create_symlink(Path("nowhere"), Path(name("image3")));
        ExpectRefusal(3, third + "cannot be read", arguments);
        fs::remove(Path(name("image3")));
        WriteFile(Path(name("image1")), whole.substr(0, whole.size() - 30));
        ExpectRefusal(2, name("image1"), {"wrap", Path(name("image1")), "-o", Path("out.mov"), "--fps", "25"});
    }
    // What follows an image, and a resolution that lies nowhere, are no faults of it.
    const std::string resolution("\x1A\1\5\0\1\0\0\0", 8);
    for (const std::string suffix : {"png", "jpg", "j2k", "tif"})
    {
        std::string image = Text(ReadFile(Path("image2." + suffix))) + std::string(70000, '\0');
        if (suffix == "tif")
        {
            image.replace(image.find(resolution) + 8, 4, "\xFF\xFF\xFF\x0F");
        }
        WriteFile(Path("image1." + suffix), image);
        fs::copy_file(Path("image2." + suffix), Path("image3." + suffix));
        EXPECT_EQ(0, RunHost({"wrap", Path("image%d." + suffix), "-o", Path("out.mov"), "--fps", "25", "-y"}).code);
    }
}

TEST_F(HostWrapTest, AnImageThatChangesOnceItIsListedEndsTheMovieByName)
{
    const std::string last = Path("image40.png");
    for (const auto& [content, reason] : {std::pair<const char*, std::string>{nullptr, "No such file"},
                                          {"", "it is empty"},
                                          {"something else", "is no png image"}})
    {
        MakeMedia("-f lavfi -i testsrc2=s=64x48:r=40:d=1", Path("image%d.png"));
        Host::MediaSource source(Path("image%d.png"), {2, 1}, /*inAudioOnly*/ false, /*inAllowsDamage*/ false);
        fs::remove(last);
        if (content != nullptr)
        {
            WriteFile(last, content);
        }
        try
        {
            for (int count = 0; count < 40; ++count)
            {
                EXPECT_NE(nullptr, source.ReadPacket());
            }
            FAIL() << reason;
        }
        catch (const Host::CommandError& error)
        {
            EXPECT_NE(std::string::npos, std::string(error.what()).find("image40.png\" ")) << error.what();
            EXPECT_NE(std::string::npos, std::string(error.what()).find(reason)) << error.what();
        }
    }
}

TEST_F(HostWrapTest, RefusesWhatGoesWrongOnTheWay)
{
    // Block times in milliseconds behind the track number: the third frame takes the time of the second, and one before
    // it.
    const std::string media = Text(ReadFile(Make("source.mkv", kPicture + "-c:v mjpeg -pix_fmt yuvj420p")));
    const std::string block("\x81\x00\x50\x80", 4);
    WriteFile(Path("same.mkv"), Replaced(media, block, std::string("\x81\x00\x28\x80", 4)));
    WriteFile(Path("back.mkv"), Replaced(media, block, std::string("\x81\x00\x03\x80", 4)));
    ASSERT_EQ(0, RunHost({"wrap", Path("source.mkv"), "-o", Path("old.mov")}).code);
    for (const std::string output : {"new.mov", "old.mov"})
    {
        ExpectRefusal(2, "two frames have the same time at 0.040 s",
                      {"wrap", Path("same.mkv"), "-o", Path(output), "-y"});
        ExpectRefusal(2, "its times go backwards at 0.003 s", {"wrap", Path("back.mkv"), "-o", Path(output), "-y"});
    }
}

TEST_F(HostWrapTest, RefusesATrackLongerThan31Bits)
{
    // 8-bit mono needs 2 GiB for 2^31 samples, of which the file has none on disk.
    const std::string wave = Make("long.wav", kTone + "-c:a pcm_u8");
    std::string head = Text(ReadFile(wave));
    constexpr std::uint32_t kDataSize = 0x80000010U;
    const std::size_t data = head.find("data");
    ASSERT_NE(std::string::npos, data);
    for (std::size_t index = 0; index < 4; ++index)
    {
        head[4 + index] = static_cast<char>((kDataSize + data) >> (8 * index) & 0xFF);
        head[data + 4 + index] = static_cast<char>(kDataSize >> (8 * index) & 0xFF);
    }
    WriteFile(wave, head);
    fs::resize_file(wave, data + 8 + kDataSize);
    const Outcome outcome = RunHost({"wrap", wave, "-o", Path("out.mov")});
    EXPECT_EQ(2, outcome.code);
    EXPECT_NE(std::string::npos, outcome.err.find("it lasts 12:25:39.243")) << outcome.err;
    EXPECT_FALSE(fs::exists(Path("out.mov")));
}

TEST_F(HostWrapTest, OutputMustBeSafeToWrite)
{
    const std::string wave = MakeWave();
    const std::string old = Path("old.mov");
    WriteFile(old, "precious");
    fs::create_hard_link(wave, Path("twin.wav"));
    fs::create_symlink(wave, Path("link.wav"));
    fs::create_symlink(Path("nowhere"), Path("dangling.mov"));
    fs::create_directory(Path("folder"));
    ExpectRefusal(2, "exists already; use -y", {"wrap", wave, "-o", old});
    ExpectRefusal(2, "the same file as the input", {"wrap", wave, "-o", wave, "-y"});
    ExpectRefusal(2, "the same file as the input", {"wrap", wave, "-o", Path("twin.wav"), "-y"});
    ExpectRefusal(2, "the same file as the input", {"wrap", wave, "-o", Path("link.wav"), "-y"});
    ExpectRefusal(2, "a link to a file that does not exist", {"wrap", wave, "-o", Path("dangling.mov"), "-y"});
    ExpectRefusal(2, "not a regular file", {"wrap", wave, "-o", "/dev/null", "-y"});
    ExpectRefusal(2, "not a regular file", {"wrap", wave, "-o", Path("folder"), "-y"});
    ExpectRefusal(2, "there is no folder", {"wrap", wave, "-o", Path("missing/out.mov")});
    ExpectRefusal(2, "names a folder", {"wrap", wave, "-o", Path("missing/")});
}

TEST_F(HostWrapTest, NamesThatAreNotUTF8AreNamesOfTheirOwn)
{
    const std::string wave = Path("\xFD.wav");
    fs::rename(MakeWave(), wave);
    for (const std::string name : {"a\xFF.mov", "a\xFE.mov", "a\uFFFD.mov", "a\xED\xB3\xBF.mov"})
    {
        const std::string movie = Path(name);
        WriteFile(Path("chapters\xFF"), "00:00:00.000 One\n");
        const Outcome outcome = RunHost({"wrap", wave, "-o", movie, "--chapters", Path("chapters\xFF"), "--json"});
        EXPECT_EQ(0, outcome.code) << outcome.err;
        EXPECT_TRUE(Json::accept(outcome.out)) << outcome.out;
        for (const std::string command : {"info", "verify", "recover"})
        {
            EXPECT_EQ(0, RunHost({command, movie}).code) << command;
            EXPECT_TRUE(Json::accept(RunHost({command, movie, "--json"}).out)) << command;
        }
        EXPECT_EQ(0, RunHost({"map", movie, "-o", movie + ".svg"}).code);
        EXPECT_NO_THROW(Json(Text(ReadFile(movie + ".svg"))).dump()) << "it is UTF-8";
    }
    EXPECT_EQ(0, RunHost({"demo", "-y", Path("a\xFE.mov")}).code);
    EXPECT_EQ(10, std::distance(fs::directory_iterator(Path("")), fs::directory_iterator())) << "none replaces another";
    const Outcome refused = RunHost({"wrap", wave, "-o", Path("a\xFF.mov"), "--json"});
    EXPECT_NE(std::string::npos, refused.err.find("a\\xFF.mov")) << refused.err;
    EXPECT_NE(std::string::npos, refused.out.find("a\\\\xFF.mov")) << refused.out;
}

TEST_F(HostWrapTest, OverwritingKeepsLinkAndPermissions)
{
    const std::string wave = MakeWave();
    const std::string old = Path("old.mov");
    WriteFile(old, "expendable");
    fs::permissions(old, fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read);
    fs::create_symlink(old, Path("link.mov"));
    const Outcome outcome = RunHost({"wrap", wave, "-o", Path("link.mov"), "--overwrite"});
    EXPECT_EQ(0, outcome.code) << outcome.err;
    EXPECT_TRUE(fs::is_symlink(Path("link.mov")));
    EXPECT_EQ(fs::perms::owner_read | fs::perms::owner_write | fs::perms::group_read, fs::status(old).permissions());
    EXPECT_EQ(fs::file_size(old), Host::ReadMovieLayout(old).fileSize);
}

TEST_F(HostWrapTest, SummaryTellsWhatWasWritten)
{
    const std::string input = Make("in.mov", kPicture + kTone + "-ac 2 -c:v mjpeg -pix_fmt yuvj420p -c:a pcm_s24le");
    const Outcome outcome = RunHost({"wrap", input, "-o", Path("out.mov")});
    EXPECT_EQ(0, outcome.code);
    EXPECT_EQ("", outcome.err);
    for (const char* part : {"out.mov: 0:00:01.000",
                             "track 1: video, Photo - JPEG ('jpeg'), 64x48, 25 frames per second; "
                             "25 frames, 0:00:01.000",
                             "track 2: sound, pcm_s24le, 48000 Hz, stereo; 48000 samples, 0:00:01.000",
                             "'moov' at byte 32, before the media at byte"})
    {
        EXPECT_NE(std::string::npos, outcome.out.find(part)) << part << " is missing in\n" << outcome.out;
    }
    const Outcome quiet = RunHost({"wrap", input, "-o", Path("out.mov"), "-y", "--quiet"});
    EXPECT_EQ(0, quiet.code);
    EXPECT_EQ("", quiet.out + quiet.err);
}

TEST_F(HostWrapTest, NotesReachTheUserEvenWhenQuiet)
{
    const std::string wave =
        Make("four.wav", "-f lavfi -i aevalsrc='0|0|0|0:c=FL+FR+TSL+TSR:d=0.1' -c:a pcm_s16le -f nut");
    const Outcome outcome = RunHost({"wrap", "-q", wave, "-o", Path("out.mov")});
    EXPECT_EQ(0, outcome.code) << outcome.err;
    EXPECT_EQ(0U, outcome.err.find("reelmill: note: stream 0")) << outcome.err;
    EXPECT_EQ("", outcome.out);
}

TEST_F(HostWrapTest, EveryFailedWriteIsNoticedAndLosesNothing)
{
    const std::string wave = MakeWave();
    WriteFile(Path("old.mov"), "precious");
    ASSERT_EQ(0, RunHost({"wrap", wave, "-o", Path("sound.mov")}).code);
    const std::string sound = Text(ReadFile(Path("sound.mov")));
    const std::size_t mediaOffset = Host::ReadMovieLayout(Path("sound.mov")).mediaOffset;
    int failures = 0;
    int noticed = 0;
    int kept = 0;
    for (const auto extent : {FailingFileSystem::Once, FailingFileSystem::FromThenOn})
    {
        for (int number = 1;; ++number)
        {
            SCOPED_TRACE(number);
            FailingFileSystem failing(Ventra::FileSystem::Current(), FileOperation::Write, number, extent, ENOSPC);
            const std::map<std::string, std::string> before = Contents();
            Outcome outcome;
            {
                Ventra::FileSystemScope scope(failing);
                outcome = RunHost({"wrap", wave, "-o", Path("old.mov"), "-y"});
            }
            if (failing.Failures() == 0)
            {
                EXPECT_EQ(0, outcome.code) << outcome.err;
                WriteFile(Path("old.mov"), "precious");
                break;
            }
            ++failures;
            ++noticed;
            EXPECT_EQ(3, outcome.code);
            EXPECT_EQ("", outcome.out);
            EXPECT_NE(std::string::npos, outcome.err.find("/old.mov\"")) << outcome.err;
            ExpectHelpfulSentence(outcome.err);
            // All media was in the file: it was finished beside the file that it was to replace, or still can be.
            const std::string part = Path("old.mov.part");
            if (outcome.err.find("reelmill recover") != std::string::npos)
            {
                EXPECT_EQ(0, RunHost({"recover", part}).code);
            }
            if (fs::exists(part))
            {
                EXPECT_EQ(0, RunHost({"verify", part}).code);
                EXPECT_TRUE(sound.substr(mediaOffset) == Text(ReadFile(part)).substr(mediaOffset));
                EXPECT_NE(std::string::npos, outcome.err.find("old.mov.part\""));
                fs::remove(part);
                ++kept;
            }
            EXPECT_TRUE(before == Contents());
        }
    }
    EXPECT_EQ(failures, noticed);
    EXPECT_GT(noticed, 16); // The head, the media, the 'mdat' size, the 'moov' and the placeholder behind it, twice.
    EXPECT_GT(kept, 4);     // From the 'mdat' size on.
}

TEST_F(HostWrapTest, AnInputThatBreaksOffIsKeptToItsLastWholeSample)
{
    const std::string dv = "-f lavfi -i testsrc2=s=720x576:r=25:d=1 " + kTone + "-target pal-dv -shortest";
    const std::string raw = kPicture + kTone + "-c:v rawvideo -pix_fmt uyvy422 -c:a pcm_s16le";
    const std::string jpeg = kPicture + kTone + "-c:v mjpeg -pix_fmt yuvj420p -c:a pcm_s24le ";
    Make("raw.avi", raw);
    ASSERT_EQ(0, RunHost({"wrap", Path("raw.avi"), "-o", Path("own.mov"), "-y"}).code);
    const struct
    {
        const char* name;
        std::string options;
        bool hasTail;               //!< Something comes after the media.
        std::uintmax_t header = 32; //!< The position of a packet may be this far in front of it.
    } cases[] = {{"own.mov", "", false},
                 {"raw.avi", "", true},
                 {"front.mov", jpeg + "-movflags faststart", false},
                 {"pieces.mov", jpeg + "-movflags frag_keyframe+empty_moov", true},
                 {"in.mkv", jpeg, true},
                 {"live.mkv", jpeg + "-live 1", false},
                 {"in.mxf", "-f lavfi -i testsrc2=s=256x120:d=1 " + kTone + "-c:v dnxhd -profile:v dnxhr_sq", true},
                 {"atom.mxf", "-f lavfi -i testsrc2=s=256x120:d=1 -c:v dnxhd -profile:v dnxhr_sq -f mxf_opatom", true},
                 {"in.wav", kTone + "-ac 2", false},
                 {"large.wav", kTone + "-ac 2 -rf64 always", false},
                 {"in.w64", kTone, false},
                 {"in.aiff", kTone, false},
                 {"in.caf", kTone, false},
                 {"in.dv", dv, false, 144000},
                 {"raw.nut", kPicture + "-c:v rawvideo -pix_fmt uyvy422", true}};
    for (const auto& [name, options, hasTail, header] : cases)
    {
        const std::string source = options.empty() ? Path(name) : Make(name, options);
        const std::string cut = Path(std::string("cut-") + name);
        const std::uintmax_t size = fs::file_size(source);
        const std::vector<SourcePacket> packets = PacketsOf(source);
        const auto endsLast = [](const auto& inLeft, const auto& inRight) { return inLeft.end < inRight.end; };
        const SourcePacket& last = *std::max_element(packets.begin(), packets.end(), endsLast);
        const std::uintmax_t first = std::max<std::uintmax_t>(packets.front().start, 1000); // An empty file is none.
        const std::map<int, std::string> whole = StreamsOf(packets);
        for (const std::uintmax_t end :
             {size, hasTail ? size - 1 : size, first, first + (last.end - first) / 2,
              first + (last.end - first) * 9 / 10, (last.start + last.end) / 2, last.end - 1})
        {
            SCOPED_TRACE(std::string(name) + " of " + std::to_string(end) + " bytes");
            const std::string out = Path("out.mov");
            fs::copy_file(source, cut, fs::copy_options::overwrite_existing);
            fs::resize_file(cut, end);
            const bool isWhole = end == size || (hasTail && end == size - 1);
            const Outcome dry = RunHost({"wrap", cut, "-o", out, "--dry-run"});
            const Outcome outcome = RunHost({"wrap", cut, "-o", out});
            EXPECT_EQ(isWhole ? 0 : 3, outcome.code) << outcome.err << outcome.out;
            EXPECT_EQ(outcome.code, dry.code) << dry.err;
            if (outcome.code == 3)
            {
                const std::string reason = "reelmill: \"" + cut + "\" breaks off: ";
                ExpectHelpfulSentence(outcome.err);
                EXPECT_EQ(0U, outcome.err.find(reason)) << outcome.err;
                EXPECT_EQ(0U, dry.err.find(reason)) << dry.err;
                EXPECT_EQ("", outcome.out);
            }
            const std::map<int, std::string> expected =
                StreamsOf(packets, isWhole ? size : end - std::min(header, end));
            const std::size_t count =
                std::accumulate(expected.begin(), expected.end(), std::size_t{0},
                                [](std::size_t inSum, const auto& inStream) { return inSum + inStream.second.size(); });
            ASSERT_TRUE(count == 0 || fs::exists(out));
            if (!fs::exists(out))
            {
                continue;
            }
            EXPECT_EQ(0, RunHost({"verify", out}).code);
            const std::vector<SourcePacket> kept = PacketsOf(out);
            std::map<int, std::string> streams = StreamsOf(kept);
            for (const auto& [stream, bytes] : whole)
            {
                EXPECT_EQ(streams[stream], bytes.substr(0, streams[stream].size()));
                EXPECT_GE(streams[stream].size(), expected.at(stream).size());
                // Nothing is kept that did not come.
                std::size_t limit = 0;
                for (const SourcePacket& packet : packets)
                {
                    const std::size_t came = packet.stream != stream || packet.start >= end
                                                 ? 0
                                                 : std::min<std::size_t>(packet.bytes.size(), end - packet.start);
                    limit += !packet.isVideo || came == packet.bytes.size() ? came : 0;
                }
                EXPECT_LE(streams[stream].size(), limit);
                const std::vector<std::size_t> sizes = VideoSizesOf(packets, stream);
                const std::vector<std::size_t> keptSizes = VideoSizesOf(kept, stream);
                ASSERT_LE(keptSizes.size(), sizes.size());
                EXPECT_TRUE(std::equal(keptSizes.begin(), keptSizes.end(), sizes.begin()));
            }
            fs::remove(out);
        }
        const Outcome allowed = RunHost({"wrap", cut, "-o", Path("out.mov"), "--allow-damage"});
        EXPECT_EQ(0, allowed.code) << allowed.err;
        EXPECT_NE(std::string::npos, allowed.out.find("note: \"" + cut + "\" breaks off: ")) << allowed.out;
        fs::remove(Path("out.mov"));
    }
}

TEST_F(HostWrapTest, AnInputThatIsAllThereDoesNotBreakOff)
{
    const std::string jpeg = kPicture + kTone + "-c:v mjpeg -pix_fmt yuvj420p -c:a pcm_s16le";
    std::string dropped = Text(ReadFile(Make("in.avi", jpeg)));
    dropped[dropped.find("vids") + 32] = 30; // Frames: those that did not come were dropped.
    std::string live = Text(ReadFile(Make("in.mkv", jpeg)));
    live.replace(live.find("\x18\x53\x80\x67") + 4, 8, "\x01\xFF\xFF\xFF\xFF\xFF\xFF\xFF");   // Its size is open,
    live.replace(live.find("\x44\x89\x88") + 3, 8, std::string("\x40\x90\x18\0\0\0\0\0", 8)); // for 1030 ms.
    const std::string sound = Text(ReadFile(Make("sound.avi", kTone + "-c:a pcm_s16le")));
    for (const std::string& content : {dropped, live, sound + "x", sound + "12345678"})
    {
        WriteFile(Path("in"), content);
        const Outcome outcome = RunHost({"wrap", Path("in"), "-o", Path("out.mov"), "-y"});
        EXPECT_EQ(0, outcome.code) << outcome.err;
    }
}

TEST_F(HostWrapTest, PacketsMarkedAsDamagedAreTold)
{
    const std::string source = Make("in.mov", kPicture + "-c:v mjpeg -pix_fmt yuvj420p");
    Host::MediaSource media(source, {0, 1}, false, false);
    Host::Completeness completeness(source, media.GetFormat());
    EXPECT_EQ("", completeness.FindLoss()); // What does not come though it is there is in another file.
    Host::PacketPtr packet = media.ReadPacket();
    EXPECT_EQ(Host::Completeness::Verdict::kWhole, completeness.Take(*packet));
    packet->flags |= AV_PKT_FLAG_CORRUPT;
    EXPECT_EQ(Host::Completeness::Verdict::kDamaged, completeness.Take(*packet));
}

TEST_F(HostWrapTest, AnInputMayBecomeShorterWhileItIsRead)
{
    //! Cuts the input off when the movie is begun, of which the first half second has been read by then.
    class CuttingFileSystem final : public ForwardingFileSystem
    {
    public:
        CuttingFileSystem(const std::string& inPath, std::uintmax_t inSize) : mPath(inPath), mSize(inSize) {}

        Tolbin::Result Open(const Tolbin::UTF16String& inPath, const Ventra::FileOpenMode& inMode,
                            Handle& outHandle) override
        {
            fs::resize_file(mPath, mSize);
            return ForwardingFileSystem::Open(inPath, inMode, outHandle);
        }

    private:
        std::string mPath;
        std::uintmax_t mSize;
    };
    const std::string picture = "-f lavfi -i testsrc2=s=720x576:r=25:d=2 ";
    const std::string options = picture + "-f lavfi -i sine=r=48000:d=2 -c:v rawvideo -pix_fmt uyvy422 -c:a pcm_s16le";
    for (const auto& [name, how] :
         std::map<std::string, std::string>{{"in.mov", options + " -movflags faststart"},
                                            {"in.mkv", options},
                                            {"in.avi", options},
                                            {"in.wav", "-f lavfi -i sine=r=48000:d=20"},
                                            {"in.dv", picture + "-target pal-dv"},
                                            {"stream.wav", "-f lavfi -i sine=r=48000:d=20 -f wav - | cat >"}})
    {
        SCOPED_TRACE(name);
        const std::string source = Make(name, how);
        const std::uintmax_t size = fs::file_size(source) * 3 / 4;
        CuttingFileSystem cutting(source, size);
        const Ventra::FileSystemScope scope(cutting);
        const Outcome outcome = RunHost({"wrap", source, "-o", Path("out.mov"), "-y"});
        EXPECT_EQ(3, outcome.code) << outcome.err;
        EXPECT_NE(std::string::npos, outcome.err.find("breaks off: ")) << outcome.err;
        EXPECT_EQ(0, RunHost({"verify", Path("out.mov")}).code);
        fs::remove(Path("out.mov"));
    }
}

TEST_F(HostWrapTest, ReportsOfTheLibraryAreFailures)
{
    Host::MovieWriter writer(Path("out.mov"), "out.mov", 600, Host::MovieWriter::Safety::kPlain);
    Quorlan::AudioChannelLayout channels = {Quorlan::kAudioChannelLabelDiscrete};
    const QT::TrackID track =
        writer.AddTrack(QT::kQTMediaTypeSound, 600, 0, 0,
                        QT::CreateSoundDescription(0, 1, 48000, Sambrel::kAudioSampleTypeInt16LE, channels, false));
    std::uint8_t data[4] = {};
    writer.AddSamples(track, data, 2, 1, INT32_MAX);
    try
    {
        writer.AddSamples(track, data, 2, 1, 1);
        FAIL() << "the overflow went unnoticed";
    }
    catch (const Host::CommandError& error)
    {
        EXPECT_EQ(Host::ExitCode::kIOFailed, error.GetExitCode());
        EXPECT_NE(nullptr, std::strstr(error.what(), "Signed 32-bit overflow")) << error.what();
    }
}

TEST_F(HostWrapTest, MovieLayoutFindsWhatIsMissing)
{
    const std::string movie = Path("out.mov");
    ASSERT_EQ(0, RunHost({"wrap", MakeWave(), "-o", movie}).code);
    const std::string whole = Text(ReadFile(movie));
    const Host::MovieLayout layout = Host::ReadMovieLayout(movie);
    EXPECT_EQ(whole.size(), layout.fileSize);
    EXPECT_EQ("moov", whole.substr(layout.movieOffset + 4, 4));
    EXPECT_EQ("mdat", whole.substr(layout.mediaOffset + 4, 4));

    const std::string large = std::string("\0\0\0\1mdat\0\0\0\0\0\0\0\x14", 16) + "wxyz";
    const std::string moov("\0\0\0\x08moov", 8);
    WriteFile(movie, moov + large);
    EXPECT_EQ(8U, Host::ReadMovieLayout(movie).mediaOffset);
    for (const std::string& content :
         {whole.substr(0, whole.size() - 1), whole + "x", std::string(whole).replace(layout.movieOffset + 4, 4, "free"),
          moov + large.substr(0, 15), moov + std::string("\0\0\0\1mdat\0\0\0\0\0\0\0\x0F", 16), moov, std::string()})
    {
        WriteFile(movie, content);
        EXPECT_THROW(Host::ReadMovieLayout(movie), Host::CommandError);
    }
}

TEST(HostTiming, VideoClockIsExactWhereTheInputIs)
{
    Host::VideoTiming timing = {{1001, 30000}, {30000, 1001}, false, 60};
    Host::VideoClock frames(timing);
    EXPECT_EQ(30000, frames.GetTimeScale());
    EXPECT_EQ(3 * 1001, frames.UnitsSince(7, 10));
    EXPECT_EQ(1001, frames.GetFrameUnits());

    // A day of microseconds does not fit 31 bits.
    Host::VideoClock rounded({{1, 1000000}, {0, 1}, false, 86400});
    EXPECT_TRUE(rounded.IsRounded());
    EXPECT_EQ(15000, rounded.GetTimeScale());
    EXPECT_EQ(15000, rounded.UnitsSince(500000, 1500000));
}

TEST(HostTiming, RoundedTimesReturnToTheFrameRate)
{
    Host::VideoClock clock({{1, 1000}, {30000, 1001}, true, 3600});
    EXPECT_EQ(30000, clock.GetTimeScale());
    for (std::int64_t frame = 0; frame < 100000; ++frame)
    {
        const std::int64_t tick = (frame * 1001 * 1000 + 15000) / 30000;
        ASSERT_EQ(frame * 1001, clock.UnitsSince(0, tick)) << frame;
    }
    EXPECT_EQ(0, clock.GetOffGridCount());
    EXPECT_EQ(1001, clock.UnitsOf(33));
    EXPECT_EQ(45 * 30, clock.UnitsSince(0, 45)); // Half a frame late: kept to the millisecond.
    EXPECT_EQ(1, clock.GetOffGridCount());
}

TEST(HostTiming, MovieTimeScaleHoldsTheMovie)
{
    EXPECT_EQ(240000, Host::ChooseMovieTimeScale({30000}, {48000}, 3600));
    EXPECT_EQ(48000, Host::ChooseMovieTimeScale({30000}, {48000}, 10 * 3600));
    EXPECT_EQ(30000, Host::ChooseMovieTimeScale({30000}, {48000}, 15 * 3600));
    EXPECT_EQ(600, Host::ChooseMovieTimeScale({30000}, {48000}, 48 * 3600));
    EXPECT_EQ(48000, Host::ChooseMovieTimeScale({24000}, {48000}, 0));
    EXPECT_EQ(600, Host::ChooseMovieTimeScale({}, {192000}, 0));
}

TEST(HostProgress, ShowsTheStateNowAndThen)
{
    using std::chrono::milliseconds;
    const Host::Progress::TimePoint start{};
    std::ostringstream lines;
    std::ostringstream terminal;
    std::ostringstream quiet;
    {
        Host::Progress toLines(lines, Host::Progress::Style::kLines);
        Host::Progress toTerminal(terminal, Host::Progress::Style::kTerminal);
        Host::Progress toNobody(quiet, Host::Progress::Style::kQuiet);
        for (Host::Progress* progress : {&toLines, &toTerminal, &toNobody})
        {
            progress->SetExpectedSeconds(100);
            for (int time : {0, 4999, 5000, 5120, 9999, 10000})
            {
                progress->Update(start + milliseconds(time), time / 200.0, static_cast<std::uint64_t>(time) * 1024);
            }
        }
    }
    EXPECT_EQ("0:00:25.000 (25 %), 4.9 MiB, 1000.0 KiB/s\n0:00:50.000 (50 %), 9.8 MiB, 1000.0 KiB/s\n", lines.str());
    const std::string drawn = terminal.str();
    EXPECT_EQ(3, std::count(drawn.begin(), drawn.end(), '\r')) << drawn;
    EXPECT_EQ('\n', drawn.back());
    EXPECT_EQ("", quiet.str());
}
