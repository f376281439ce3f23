#include "Support/HostRun.h"
#include "Support/TempDirectory.h"

#include <Host/ChapterFile.h>
#include <Host/CommandError.h>
#include <Host/MetadataOption.h>
#include <Host/Progress.h>
#include <Host/SccFile.h>
#include <Host/TextTrack.h>
#include <Host/TimecodeOption.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace
{

const std::string kScc = "Scenarist_SCC V1.0\n\n";

class HostTracksTest : public testing::Test
{
protected:
    std::string Path(const std::string& inName) const { return mFolder.Path(inName); }

    std::string Write(const std::string& inName, const std::string& inContent) const
    {
        WriteFile(Path(inName), inContent);
        return Path(inName);
    }

    std::string Make(const std::string& inName, const std::string& inOptions) const
    {
        MakeMedia(inOptions, Path(inName));
        return Path(inName);
    }

    //! One second of video.
    std::string MakeVideo(const std::string& inName, const std::string& inRate, const std::string& inMore = "") const
    {
        return Make(inName, "-f lavfi -i testsrc2=s=64x48:r=" + inRate + ":d=1 -c:v mjpeg -pix_fmt yuvj420p " + inMore);
    }

    void ExpectRefusal(int inCode, const std::vector<std::string>& inReasons, const std::string& inInput,
                       std::vector<std::string> inOptions) const
    {
        SCOPED_TRACE(inOptions.back());
        inOptions.insert(inOptions.begin(), {"wrap", inInput, "-o", Path("out.mov")});
        const Outcome outcome = RunHost(inOptions);
        EXPECT_EQ(inCode, outcome.code) << outcome.err;
        ExpectHelpfulSentence(outcome.err);
        for (const std::string& reason : inReasons)
        {
            EXPECT_NE(std::string::npos, outcome.err.find(reason)) << outcome.err;
        }
        EXPECT_FALSE(fs::exists(Path("out.mov")));
        EXPECT_FALSE(fs::exists(Path("out.mov.part")));
    }

    TempDirectory mFolder;
};

} // namespace

TEST_F(HostTracksTest, TimecodeIsReadAndChecked)
{
    for (const char* text : {"", "1:00:00:00", "24:00:00:00", "00:60:00:00", "00:00:60:00", "00;00:00:00",
                             "00:00:00.00", "00:00:00:0x", "00:00:00:000"})
    {
        EXPECT_FALSE(Host::ParseTimecode(text)) << text;
    }
    const struct
    {
        const char* text;
        AVRational rate;
        bool isSound;
        std::int64_t number;
    } cases[] = {
        {"00:00:00:24", {24, 1}, false, 0},           {"01:00:00:24", {25, 1}, true, 90024},
        {"00:01:00;00", {30000, 1001}, false, 0},     {"00:01:00;01", {30000, 1001}, false, 0},
        {"00:01:00;02", {30000, 1001}, true, 1800},   {"00:10:00;00", {30000, 1001}, true, 17982},
        {"01:00:00;00", {30000, 1001}, true, 107892}, {"00:01:00;03", {60000, 1001}, false, 0},
        {"00:01:00;04", {60000, 1001}, true, 3600},   {"00:00:01;00", {24000, 1001}, false, 0},
        {"00:00:01;00", {25, 1}, false, 0},           {"00:00:01;00", {30, 1}, false, 0},
        {"00:00:01:29", {30, 1}, true, 59},           {"00:00:01:23", {24000, 1001}, true, 47},
        {"00:00:01:24", {24000, 1001}, false, 0},     {"00:00:01:00", {0, 1}, false, 0},
        {"00:00:01;00", {2997, 100}, true, 30},
    };
    for (const auto& [text, rate, isSound, number] : cases)
    {
        SCOPED_TRACE(text);
        const std::optional<Host::Timecode> timecode = Host::ParseTimecode(text);
        ASSERT_TRUE(timecode);
        EXPECT_EQ(text, Host::FormatTimecode(*timecode));
        EXPECT_EQ(isSound, !Host::FindTimecodeFault(*timecode, rate));
        if (isSound)
        {
            EXPECT_EQ(number, Host::CountFrames(*timecode, Host::TimecodeFrames(rate)));
        }
    }
    EXPECT_EQ(2589408, Host::CountFrames({24, 0, 0, 0, true}, 30));
}

TEST_F(HostTracksTest, TextsOverlapAndLeaveGaps)
{
    const auto samples = Host::MakeTextSamples({{10, 30, "a"}, {20, 40, "b"}, {50, 60, "c"}});
    const std::vector<Host::Cue> expected = {{0, 10, ""},   {10, 20, "a"}, {20, 30, "a\nb"},
                                             {30, 40, "b"}, {40, 50, ""},  {50, 60, "c"}};
    ASSERT_EQ(expected.size(), samples.size());
    for (std::size_t index = 0; index < samples.size(); ++index)
    {
        EXPECT_EQ(expected[index].start, samples[index].start);
        EXPECT_EQ(expected[index].end, samples[index].end);
        EXPECT_EQ(expected[index].text, samples[index].text);
    }
    bool hasFormatting = false;
    EXPECT_EQ("one, two\nthree", Host::PlainText("0,0,Default,,0,0,0,,one, two\\Nthree", hasFormatting));
    EXPECT_FALSE(hasFormatting);
    EXPECT_EQ("it is", Host::PlainText("0,0,Default,,0,0,0,,{\\i1}it{\\i0} is", hasFormatting));
    EXPECT_TRUE(hasFormatting);
}

TEST_F(HostTracksTest, ChapterLinesEndWithTheNext)
{
    const auto chapters = Host::ReadChapterFile(Write("c.txt", "\xEF\xBB\xBF"
                                                               "00:00:00.000 First\r\n\r\n01:00:00.500\tThe second\n"));
    ASSERT_EQ(2U, chapters.size());
    EXPECT_EQ("First", chapters[0].text);
    EXPECT_EQ(chapters[1].start, chapters[0].end);
    EXPECT_EQ(3600 * 90000 + 45000, chapters[1].start);
    EXPECT_EQ(Host::kOpenEnd, chapters[1].end);
    EXPECT_EQ("The second", chapters[1].text);
}

TEST_F(HostTracksTest, CaptionPairsFallIntoTheirFrames)
{
    const auto lines = Host::ParseScc("a.scc", kScc + "00:00:00:02\t9420 9420\n\n00:00:00:03 94ae\n");
    ASSERT_EQ(2U, lines.size());
    EXPECT_EQ((Host::CaptionBytes{0x94, 0x20}), lines[0].pairs[1]);
    // The second line waits for the first: frames 2, 3 and 4 of 29.97 a second.
    const struct
    {
        AVRational rate;
        std::vector<std::size_t> counts;
    } cases[] = {{{30000, 1001}, {0, 0, 1, 1, 1, 0}},
                 {{60000, 1001}, {0, 0, 0, 0, 1, 0, 1, 0, 1, 0}},
                 {{24000, 1001}, {0, 1, 1, 1, 0}},
                 {{15000, 1001}, {0, 2, 1}}};
    for (const auto& [rate, counts] : cases)
    {
        SCOPED_TRACE(rate.num);
        Host::CaptionQueue queue("a.scc", lines, {}, rate);
        std::vector<std::size_t> found;
        for (std::size_t frame = 1; frame <= counts.size(); ++frame)
        {
            found.push_back(queue.TakeUpTo(static_cast<std::int64_t>(frame) * rate.den, rate.num).size());
        }
        EXPECT_EQ(counts, found);
    }
    const std::vector<std::uint8_t> two = {0, 0, 0, 12, 'c', 'd', 'a', 't', 0x94, 0x20, 0x94, 0xAE};
    EXPECT_EQ(two, Host::MakeCaptionSample({{0x94, 0x20}, {0x94, 0xAE}}));
    const std::vector<std::uint8_t> none = {0, 0, 0, 10, 'c', 'd', 'a', 't', 0x80, 0x80};
    EXPECT_EQ(none, Host::MakeCaptionSample({}));
}

TEST_F(HostTracksTest, MetadataKeysBecomeCodes)
{
    const auto title = Host::ParseMetadata("--meta", "", "title=A=\xC3\xA9");
    EXPECT_EQ(0xA96E616DU, title.type);
    EXPECT_EQ(std::string("\0\4\x55\xC4"
                          "A=\xC3\xA9",
                          8),
              title.payload);
    EXPECT_EQ(0xA96E616DU, Host::ParseMetadata("--meta", "", "\xC2\xA9nam=x").type);
    const auto raw = Host::ParseMetadata("--meta", "", "name=Camera A");
    EXPECT_EQ(0x6E616D65U, raw.type);
    EXPECT_EQ("Camera A", raw.payload);
    EXPECT_EQ("logo.bin", Host::ParseMetadata("--meta", "", "LOGO=@logo.bin").file);
    EXPECT_EQ("", Host::ParseMetadata("--meta", "", "artist=@home").file);
}

TEST_F(HostTracksTest, MalformedOptionsAreUsageErrors)
{
    const std::string video = MakeVideo("in.mov", "25");
    const std::vector<std::vector<std::string>> cases = {
        {"--timecode", "1:2:3:4"},
        {"--timecode", "25:00:00:00"},
        {"--start", "soon"},
        {"--start", "00:00:00:00"},
        {"--trim-in", "0.5"},
        {"--trim-in", "-1s"},
        {"--trim-in", "x:1s"},
        {"--trim-in", "0:1s"},
        {"--trim-in", "1:"},
        {"--trim-in", "nans"},
        {"--meta", "title"},
        {"--meta", "nonsense=1"},
        {"--meta", "logo=@"},
        {"--meta", "title=\xFF"},
        {"--track-meta", "title=x"},
        {"--track-meta", "0:title=x"},
        {"--track-meta", "1:nonsense=x"},
        {"--ref", "1:2"},
        {"--ref", "1:1:timecode"},
        {"--ref", "1:2:subtitle"},
        {"--ref", "a:2:chapter"},
    };
    for (const auto& options : cases)
    {
        ExpectRefusal(1, {options[0], Host::FormatNames(options[1])}, video, options);
    }
    ExpectRefusal(1, {"--meta title=b", "once"}, video, {"--meta", "title=a", "--meta", "title=b"});
}

TEST_F(HostTracksTest, OptionsThatDoNotFitAreRefused)
{
    const std::string video = MakeVideo("in.mov", "25");
    const std::string wave = Make("in.wav", "-f lavfi -i sine=r=48000:d=1");
    const std::string noisy = Write("noise.bin", std::string(3000, '\x5A'));
    const std::string scc = Write("a.scc", kScc + "00:00:00:02\t9420\n");
    const struct
    {
        std::string input;
        std::vector<std::string> options;
        std::vector<std::string> reasons;
    } cases[] = {
        {video, {"--timecode", "01:00:00;00"}, {"01:00:00;00", "in.mov", "drop-frame"}},
        {video, {"--timecode", "01:00:00:25"}, {"01:00:00:25", "0 to 24"}},
        {wave, {"--timecode", "01:00:00:00"}, {"no video"}},
        {wave, {"--captions", scc}, {"a.scc", "no video"}},
        {video, {"--captions", noisy}, {"noise.bin", "SCC"}},
        {video, {"--captions", Write("b.scc", kScc + "00:00:00:02 942\n")}, {"b.scc", "line 3", "942"}},
        {video, {"--captions", Write("c.scc", kScc + "00:01:00;00 9420\n")}, {"c.scc", "line 3", "00:01:00;00"}},
        {video,
         {"--captions", Write("d.scc", kScc + "00:00:02:00 9420\n00:00:01:00 9420\n")},
         {"d.scc", "line 4", "before"}},
        {video, {"--captions", Write("e.scc", kScc)}, {"e.scc", "no captions"}},
        {video, {"--captions", Write("f.scc", kScc + "10:00:00:00 9420\n")}, {"f.scc", "--start"}},
        {video, {"--captions", scc, "--start", "00:00:01:00"}, {"a.scc", "before 00:00:01:00"}},
        {video, {"--text", noisy}, {"noise.bin", "--text"}},
        {video, {"--text", wave}, {"in.wav", "--text"}},
        {video,
         {"--text", Write("late.srt", "1\n00:00:05,000 --> 00:00:06,000\nLate\n")},
         {"late.srt", "Late", "5.000"}},
        {video, {"--chapters", noisy}, {"noise.bin", "line 1"}},
        {video, {"--chapters", Write("empty.txt", "\n")}, {"empty.txt", "no chapters"}},
        {video, {"--chapters", Write("bad.txt", "00:00:00.000 A\n00:61:00.000 B\n")}, {"bad.txt", "line 2"}},
        {video, {"--chapters", Write("same.txt", "00:00:00.500 A\n00:00:00.500 B\n")}, {"same.txt", "line 2"}},
        {video, {"--chapters", Write("long.txt", "00:00:00.000 A\n00:00:05.000 B\n")}, {"long.txt", "\"B\"", "5.000"}},
        {video,
         {"--chapters", Write("ff.txt", ";FFMETADATA1\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=5\nEND=5\ntitle=A\n")},
         {"ff.txt", "no length"}},
        {video, {"--trim-in", "2:1s"}, {"--trim-in", "track 2"}},
        {video, {"--track-meta", "7:title=x"}, {"--track-meta", "track 7"}},
        {video, {"--ref", "1:2:timecode"}, {"--ref 1:2:timecode", "track 2"}},
        {video, {"--timecode", "01:00:00:00", "--ref", "1:2:chapter"}, {"--ref 1:2:chapter", "timecode"}},
    };
    for (const auto& [input, options, reasons] : cases)
    {
        ExpectRefusal(2, reasons, input, options);
    }
    // A first caption behind the end of the video, however long the sound is and whether or not the input tells its
    // length.
    const std::string late = Write("late.scc", kScc + "00:00:05;00 9420\n");
    for (const char* name : {"long.mov", "long.nut"})
    {
        const std::string input = Make(name, "-f lavfi -i testsrc2=s=64x48:r=25:d=1 -f lavfi -i sine=r=48000:d=9 "
                                             "-c:v mjpeg -pix_fmt yuvj420p -c:a pcm_s16le");
        ExpectRefusal(2, {"late.scc", "the video lasts 1.000 s", "--start"}, input, {"--captions", late});
    }
    // The output may not be one of the files.
    const Outcome same = RunHost({"wrap", video, "--captions", scc, "-o", scc, "-y"});
    EXPECT_EQ(2, same.code) << same.err;
}

TEST_F(HostTracksTest, FilesThatCannotBeRead)
{
    const std::string video = MakeVideo("in.mov", "25");
    for (const char* option : {"--text", "--chapters", "--captions"})
    {
        ExpectRefusal(3, {option, "missing"}, video, {option, Path("missing")});
        ExpectRefusal(3, {option, "folder"}, video, {option, mFolder.Path("")});
    }
    ExpectRefusal(3, {"--meta", "missing"}, video, {"--meta", "logo=@" + Path("missing")});
    ExpectRefusal(3, {"--track-meta", "missing"}, video, {"--track-meta", "1:logo=@" + Path("missing")});
}

TEST_F(HostTracksTest, UsedTracksOfTheInputGiveNoNote)
{
    const std::string chapters = Write("c.ff", ";FFMETADATA1\n[CHAPTER]\nTIMEBASE=1/1000\nSTART=0\nEND=500\ntitle=A\n"
                                               "[CHAPTER]\nTIMEBASE=1/1000\nSTART=500\nEND=1000\ntitle=B\n");
    const std::string input =
        Make("in.mov", "-f lavfi -i testsrc2=s=64x48:r=25:d=1 -i '" + chapters +
                           "' -map 0:v -map_chapters 1 -c:v mjpeg -pix_fmt yuvj420p -timecode 10:00:00:00");
    const Outcome outcome = RunHost({"wrap", input, "-o", Path("out.mov")});
    EXPECT_EQ(0, outcome.code) << outcome.err;
    EXPECT_EQ(std::string::npos, outcome.out.find("note:")) << outcome.out;
    EXPECT_NE(std::string::npos, outcome.out.find("track 2: timecode, from 10:00:00:00")) << outcome.out;
    EXPECT_NE(std::string::npos, outcome.out.find("track 3: chapters")) << outcome.out;
    const Outcome none =
        RunHost({"wrap", input, "-o", Path("out.mov"), "-y", "--timecode", "none", "--chapters", "none"});
    EXPECT_EQ(0, none.code) << none.err;
    EXPECT_EQ(std::string::npos, none.out.find("track 2")) << none.out;
}

TEST_F(HostTracksTest, TheFirstTimecodeOfSeveralIsTaken)
{
    const std::string plain = MakeVideo("plain.mov", "25");
    const std::string ten = MakeVideo("ten.mov", "25", "-timecode 10:00:00:00");
    const std::string eleven = MakeVideo("eleven.mov", "25", "-timecode 11:00:00:00");
    const std::string other = MakeVideo("other.mov", "24", "-timecode 12:00:00:00");
    const Outcome outcome = RunHost({"wrap", plain, ten, eleven, other, "-o", Path("out.mov")});
    EXPECT_EQ(0, outcome.code) << outcome.err;
    for (const char* part :
         {"track 5: timecode, from 10:00:00:00", "eleven.mov\" is left out: the movie has that of",
          "other.mov\" is left out: the movie has that of", "other.mov\" does not refer to the timecode track"})
    {
        EXPECT_NE(std::string::npos, outcome.out.find(part)) << part << " is missing in\n" << outcome.out;
    }
    constexpr int kLines = 1 + 5 + 1 + 3; // The movie, its tracks, where the 'moov' lies, and no more notes than these.
    EXPECT_EQ(kLines, std::count(outcome.out.begin(), outcome.out.end(), '\n')) << outcome.out;
    // One that is given is for all, and needs no note but that of the other rate.
    const Outcome given =
        RunHost({"wrap", eleven, ten, other, "-o", Path("out.mov"), "-y", "--timecode", "01:00:00:00"});
    EXPECT_EQ(std::string::npos, given.out.find("left out")) << given.out;
}

TEST_F(HostTracksTest, StreamsWithoutPacketsHaveNoNumber)
{
    const std::string input = Make(
        "in.avi", "-f lavfi -i testsrc2=s=64x48:r=25:d=1 -f lavfi -i sine=r=48000:d=1 -f lavfi -i sine=r=44100:d=1 "
                  "-filter_complex '[1:a]aselect=0[none]' -map 0:v -map '[none]' -map 2:a -c:v mjpeg "
                  "-pix_fmt yuvj420p -c:a pcm_s16le");
    const Outcome outcome = RunHost({"wrap", input, "-o", Path("out.mov"), "--trim-in", "2:0.2s", "--timecode",
                                     "01:00:00:00", "--ref", "2:3:timecode"});
    EXPECT_EQ(0, outcome.code) << outcome.err;
    EXPECT_NE(std::string::npos, outcome.out.find("track 2: sound, pcm_s16le, 44100 Hz")) << outcome.out;
    EXPECT_NE(std::string::npos, outcome.out.find("starts at 0:00:00.200")) << outcome.out;
    EXPECT_NE(std::string::npos, outcome.out.find("in.avi\" has no packets and no track")) << outcome.out;
    fs::remove(Path("out.mov"));
    ExpectRefusal(2, {"--track-meta", "names track 3, but the movie has 2 (video, sound)"}, input,
                  {"--track-meta", "3:name=Tone"});
}
