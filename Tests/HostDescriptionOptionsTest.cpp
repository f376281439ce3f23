#include "Support/HostRun.h"
#include "Support/TempDirectory.h"
#include "Support/VolumeFileSystem.h"

#include <Host/DescriptionOptions.h>
#include <Tolbin/Debug.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <set>
#include <sstream>
#include <string>
#include <vector>

namespace fs = std::filesystem;

namespace
{

//! What the format has for a label's short name.
struct LabelCase
{
    const char* name;
    std::uint32_t label;
};

constexpr LabelCase kLabels[] = {
    {"L", 1},    {"R", 2},    {"C", 3},    {"LFE", 4},  {"Ls", 5},    {"Rs", 6},
    {"Lc", 7},   {"Rc", 8},   {"Cs", 9},   {"Lsd", 10}, {"Rsd", 11},  {"Ts", 12},
    {"Vhl", 13}, {"Vhc", 14}, {"Vhr", 15}, {"Tbl", 16}, {"Tbc", 17},  {"Tbr", 18},
    {"Rls", 33}, {"Rrs", 34}, {"Lw", 35},  {"Rw", 36},  {"LFE2", 37}, {"Lt", 38},
    {"Rt", 39},  {"W", 200},  {"X", 201},  {"Y", 202},  {"Z", 203},   {"discrete", 0x10000},
};

struct OptionCase
{
    std::vector<std::string> arguments; //!< "%V", "%S" and "%M" stand for the input files.
    const char* reason;                 //!< Part of the sentence.
};

class HostDescriptionOptionsTest : public testing::Test
{
protected:
    void SetUp() override
    {
        Make("video.mov", "-f lavfi -i testsrc2=s=64x48:r=25:d=1 -c:v v210");
        Make("stereo.wav", "-f lavfi -i aevalsrc='0.1|0.2:s=48000:d=0.1:c=stereo' -c:a pcm_s24le");
        Make("mono.wav", "-f lavfi -i sine=r=48000:d=0.1 -c:a pcm_s16le");
    }

    std::string Path(const std::string& inName) const { return mFolder.Path(inName); }

    void Make(const std::string& inName, const std::string& inOptions)
    {
        MakeMedia(inOptions, "file:" + Path(inName)); // Names may hold a colon.
    }

    Outcome RunWrap(std::vector<std::string> inArguments) const
    {
        const std::map<std::string, std::string> files = {
            {"%V", Path("video.mov")}, {"%S", Path("stereo.wav")}, {"%M", Path("mono.wav")}};
        for (std::string& argument : inArguments)
        {
            const auto found = files.find(argument.substr(0, 2));
            argument = found != files.end() ? found->second + argument.substr(2) : argument;
        }
        inArguments.insert(inArguments.begin(), "wrap");
        inArguments.insert(inArguments.end(), {"-o", Path("out.mov")});
        return RunHost(inArguments);
    }

    //! The command fails with one sentence that holds `inReason`, and writes nothing.
    void ExpectRefusal(int inCode, const OptionCase& inCase) const
    {
        std::string line;
        for (const std::string& argument : inCase.arguments)
        {
            line += argument + " ";
        }
        SCOPED_TRACE(line);
        const Outcome outcome = RunWrap(inCase.arguments);
        EXPECT_EQ(inCode, outcome.code) << outcome.err;
        EXPECT_EQ("", outcome.out);
        ExpectHelpfulSentence(outcome.err);
        EXPECT_NE(std::string::npos, outcome.err.find(inCase.reason)) << outcome.err;
        EXPECT_FALSE(fs::exists(Path("out.mov")));
        EXPECT_FALSE(fs::exists(Path("out.mov.part")));
        for (const std::string& argument : inCase.arguments)
        {
            // The option is named, and so is its value.
            const bool isOption = argument.substr(0, 2) == "--" || inCase.arguments.size() == 1;
            EXPECT_TRUE(!isOption || outcome.err.find(argument) != std::string::npos) << outcome.err;
        }
    }

    void ExpectDone(const std::vector<std::string>& inArguments) const
    {
        const Outcome outcome = RunWrap(inArguments);
        EXPECT_EQ(0, outcome.code) << outcome.err;
        EXPECT_TRUE(fs::remove(Path("out.mov")));
    }

    //! The labels of the movie's channels, of all its tracks.
    std::vector<std::uint32_t> WrittenLabels() const
    {
        const auto bytes = ReadFile(Path("out.mov"));
        const std::string text(bytes.begin(), bytes.end());
        const auto number = [&text](std::size_t inOffset) {
            std::uint32_t value = 0;
            for (std::size_t index = 0; index < 4; ++index)
            {
                value = value << 8 | static_cast<unsigned char>(text.at(inOffset + index));
            }
            return value;
        };
        std::vector<std::uint32_t> labels;
        for (std::size_t found = text.find("chan"); found != std::string::npos; found = text.find("chan", found + 4))
        {
            const std::uint32_t count = number(found + 16); // Behind the version, the layout tag and the bitmap.
            for (std::uint32_t index = 0; index < count; ++index)
            {
                labels.push_back(number(found + 20 + 20 * std::size_t{index}));
            }
        }
        return labels;
    }

    TempDirectory mFolder;
};

} // namespace

TEST_F(HostDescriptionOptionsTest, MalformedOptions)
{
    const OptionCase cases[] = {
        {{"--audio", "%S"}, "names no file and labels"},
        {{"--audio", ":labels=L,R"}, "names no file and labels"},
        {{"--audio", "%S:label=L,R"}, "names no file and labels"},
        {{"--audio", "%S:labels="}, "has the label \"\""},
        {{"--audio", "%S:labels=L,"}, "has the label \"\""},
        {{"--audio", "%S:labels=L,Right"}, "has the label \"Right\""},
        {{"--audio", "%S:labels=l,r"}, "one of these for each channel"},
        {{"--audio", "%S:labels=discrete:"}, "numbers channels from \"\""},
        {{"--audio", "%S:labels=discrete:-1"}, "0 to 65535"},
        {{"--audio", "%S:labels=discrete:65536"}, "0 to 65535"},
        {{"--audio", "%S:labels=L,R", "--audio", "%S:labels=R,L"}, "has labels already"},
        {{"%V", "--aspect", "wide"}, "4:3"},
        {{"%V", "--aspect", "0:3"}, "4:3"},
        {{"%V", "--aspect", "4:3:2"}, "4:3"},
        {{"%V", "--aspect", "4/3"}, "4:3"},
        {{"%V", "--aspect", "par=10"}, "par=10:11"},
        {{"%V", "--aspect", "par=10:-11"}, "par=10:11"},
        {{"%V", "--aspect", "99999999999:1"}, "4:3"},
        {{"%V", "--clean-aperture", "32"}, "704x480"},
        {{"%V", "--clean-aperture", "0x32"}, "704x480"},
        {{"%V", "--clean-aperture", "32x32+1"}, "704x480+8+0"},
        {{"%V", "--clean-aperture", "32x32+1+-1"}, "704x480+8+0"},
        {{"%V", "--clean-aperture", "32x32+1+1+1"}, "704x480+8+0"},
        {{"%V", "--color", "bt601"}, "bt601-525"},
        {{"%V", "--color", "1,1"}, "9,16,9"},
        {{"%V", "--color", "1,1,1,1"}, "9,16,9"},
        {{"%V", "--color", "1,1,65536"}, "0 to 65535"},
        {{"%V", "--field", "top"}, "tff, bff, progressive, omit"},
        {{"%V", "--vendor", "abc"}, "four"},
        {{"%V", "--vendor", "abcde"}, "four"},
        {{"%V", "--vendor",
          "\xC3\xA4"
          "bc"},
         "four ASCII characters"},
        {{"%V", "--codec-tag", "0x1234567g"}, "hexadecimal"},
        {{"%V", "--codec-name", "12345678901234567890123456789012"}, "has 32 bytes"},
        {{"%V", "--codec-name", "\xFF"}, "is not UTF-8"},
        {{"%V", "--padding", "-1"}, "0 to 1048576"},
        {{"%V", "--padding", "1048577"}, "0 to 1048576"},
        {{"%V", "--padding", "1k"}, "0 to 1048576"},
        {{"%V", "--chunk", "500"}, "500ms"},
        {{"%V", "--chunk", "0ms"}, "500ms"},
        {{"%V", "--chunk", "1.5s"}, "500ms"},
        {{"%V", "--chunk", "3601s"}, "up to 3600s"},
        {{"%V", "--chunk", "129MiB"}, "up to 128MiB"},
        {{"%V", "--chunk", "1MB"}, "1MiB"},
        {{"%V", "--chunk", "frames=0"}, "frames=1"},
        {{"%V", "--chunk", "frames=5ms"}, "frames=1"},
        {{"%V", "--movie-timescale", "0"}, "1 to 2147483647"},
        {{"%V", "--movie-timescale", "2147483648"}, "1 to 2147483647"},
        {{"%V", "--io", "fast"}, "nfs=64"},
        {{"%V", "--io", "nfs="}, "nfs=64"},
        {{"%V", "--io", "smb=2"}, "a multiple of 4"},
        {{"%V", "--io", "nfs=66"}, "a multiple of 4"},
        {{"%V", "--io", "nfs=1048580"}, "up to 1048576"},
        {{"%V", "--aspect", ""}, "empty"},
    };
    for (const OptionCase& malformed : cases)
    {
        ExpectRefusal(1, malformed);
    }
    ExpectRefusal(1, {{}, "input"});
}

TEST_F(HostDescriptionOptionsTest, OptionsThatDoNotFitTheInput)
{
    const OptionCase cases[] = {
        {{"--audio", "%S:labels=L"}, "stereo.wav\": the channels are 2, and the labels 1"},
        {{"--audio", "%S:labels=L,R,C"}, "stereo.wav\": the channels are 2, and the labels 3"},
        {{"--audio", "%S:labels=discrete:65535"}, "stereo.wav\": the channels are 2, and numbers end at 65535"},
        {{"%S", "--audio", "%S:labels=L"}, "stereo.wav\": the channels are 2, and the labels 1"},
        {{"%V", "--audio", "%V:labels=L"}, "video.mov\": it has no audio"},
        {{"%V", "--split-audio"}, "video.mov\": there is no audio"},
        {{"%S", "--aspect", "4:3"}, "stereo.wav\": there is no video"},
        {{"%S", "--clean-aperture", "4x3"}, "stereo.wav\": there is no video"},
        {{"%S", "--color", "bt709"}, "stereo.wav\": there is no video"},
        {{"%S", "--field", "omit"}, "stereo.wav\": there is no video"},
        {{"%S", "--gamma"}, "stereo.wav\": there is no video"},
        {{"%S", "--vendor", "abcd"}, "stereo.wav\": there is no video"},
        {{"%S", "--codec-name", ""}, "stereo.wav\": there is no video"},
        {{"%S", "--codec-tag", "abcd"}, "stereo.wav\": there is no video"},
        {{"%S", "--padding", "0"}, "stereo.wav\": there is no video"},
        {{"%S", "--chunk", "frames=1"}, "stereo.wav\": there is no video"},
        {{"%V", "--aspect", "par=1025:1"}, "video.mov\": its picture would be shown 65600 pixels wide"},
        {{"%V", "--aspect", "1:1000"}, "video.mov\": its picture would be shown 0 pixels wide"},
        {{"%V", "--clean-aperture", "65x48"}, "video.mov\": its frames have 64x48 pixels"},
        {{"%V", "--clean-aperture", "64x48+1+0"}, "video.mov\": its frames have 64x48 pixels"},
        {{"%V", "--clean-aperture", "64x40+0+2147483647"}, "video.mov\": its frames have 64x48 pixels"},
        {{"%V", "--codec-tag", "apcn"}, "video.mov\": the tag is for prores"},
    };
    for (const OptionCase& misfit : cases)
    {
        ExpectRefusal(2, misfit);
    }
    // A second in as many units is what a movie holds; any longer is not.
    ExpectDone({"%V", "--movie-timescale", "2147483647"});
    Make("video.mov", "-f lavfi -i testsrc2=s=64x48:r=25:d=2 -c:v v210");
    ExpectRefusal(2, {{"%V", "--movie-timescale", "2147483647"}, "video.mov\": it ends at 0:00:02.000"});
    Make("video.mov", "-f lavfi -i testsrc2=s=64x48:r=25:d=1 -c:v rawvideo -pix_fmt uyvy422");
    ExpectRefusal(2, {{"%V", "--codec-tag", "yuvs"}, "video.mov\": the tag is for another layout of pixels"});
}

TEST_F(HostDescriptionOptionsTest, OptionsAtTheirLimits)
{
    const std::vector<std::vector<std::string>> cases = {
        {"%V", "--aspect", "par=1023:1"},
        {"%V", "--clean-aperture", "64x48+0+0"},
        {"%V", "--clean-aperture", "1x1+63+47"},
        {"%V", "--color", "65535,0,65535"},
        {"%V", "--vendor", "0x00000000"},
        {"%V", "--codec-name", ""},
        {"%V", "--codec-name", "1234567890123456789012345678901"},
        {"%V", "--padding", "1048576"},
        {"%V", "--chunk", "3600s"},
        {"%V", "--chunk", "128MiB"},
        {"%V", "--chunk", "1ms"},
        {"%V", "--chunk", "frames=1000000"},
        {"%V", "--io", "auto"},
        {"--audio", "%S:labels=discrete:65534"},
    };
    for (const std::vector<std::string>& arguments : cases)
    {
        SCOPED_TRACE(arguments.back());
        ExpectDone(arguments);
    }
}

TEST_F(HostDescriptionOptionsTest, EveryLabelHasAName)
{
    const std::string help = RunHost({"wrap", "--help"}).out;
    std::set<Quorlan::AudioChannelLabel> labels;
    for (const LabelCase& label : kLabels)
    {
        SCOPED_TRACE(label.name);
        EXPECT_NE(std::string::npos, help.find(std::string(" ") + label.name)) << help;
        ASSERT_EQ(0, RunWrap({"-y", "--audio", std::string("%M:labels=") + label.name}).code);
        EXPECT_EQ(std::vector<std::uint32_t>{label.label}, WrittenLabels());
    }
    const auto isLabel = [](int inLabel) {
        return inLabel == 0 || (inLabel >= 100 && inLabel <= 119) || (inLabel >= 129 && inLabel <= 137);
    };
    for (int label = 0; label <= 140; ++label)
    {
        const auto name = Host::LabelName(static_cast<Quorlan::AudioChannelLabel>(label));
        EXPECT_EQ(isLabel(label), name != "?") << label;
    }
}

TEST_F(HostDescriptionOptionsTest, FilesOfAudio)
{
    // A file that is an input already stays one input, by whatever path it is named.
    const std::string other = Path("./stereo.wav");
    ASSERT_EQ(0, RunWrap({"-y", "%S", "%M", "--audio", other + ":labels=C,Cs"}).code);
    EXPECT_EQ((std::vector<std::uint32_t>{3, 9, 42}), WrittenLabels());
    // Names may hold what separates a name from labels.
    fs::copy(Path("stereo.wav"), Path("a:b.wav"));
    fs::copy(Path("stereo.wav"), Path("a:labels=L.wav"));
    ASSERT_EQ(0, RunWrap({"-y", "--audio", Path("a:b.wav") + ":labels=Lt,discrete", "--audio",
                          Path("a:labels=L.wav") + ":labels=discrete:9"})
                     .code);
    EXPECT_EQ((std::vector<std::uint32_t>{38, 0x10001, 0x10009, 0x1000A}), WrittenLabels());
    // No video is taken of a file that is added for its audio.
    Make("both.mov", "-i '" + Path("video.mov") + "' -i '" + Path("mono.wav") + "' -c copy");
    const Outcome outcome = RunWrap({"-y", "--audio", Path("both.mov") + ":labels=Cs"});
    EXPECT_EQ(0, outcome.code) << outcome.err;
    EXPECT_NE(std::string::npos, outcome.out.find("is left out: only audio is taken")) << outcome.out;
    EXPECT_EQ(std::string::npos, outcome.out.find("track 2")) << outcome.out;
    fs::remove(Path("out.mov"));
    ExpectRefusal(2, {{"--audio", "%V:labels=L"}, "video.mov\": it has no audio"});
}

TEST_F(HostDescriptionOptionsTest, SplitAudioKeepsLabels)
{
    ASSERT_EQ(0, RunWrap({"-y", "%S", "%M", "--split-audio"}).code);
    EXPECT_EQ((std::vector<std::uint32_t>{1, 2, 42}), WrittenLabels());
    ASSERT_EQ(0, RunWrap({"-y", "--audio", "%S:labels=discrete:9", "--split-audio"}).code);
    EXPECT_EQ((std::vector<std::uint32_t>{0x10009, 0x1000A}), WrittenLabels());
    // A layout that is not known is told once, not for each channel.
    Make("stereo.wav", "-f lavfi -i aevalsrc='0.1|0.2|0.3:s=48000:d=0.1:c=3c' -c:a pcm_s16le -f nut");
    const Outcome outcome = RunWrap({"-y", "%S", "--split-audio"});
    EXPECT_EQ(0, outcome.code) << outcome.err;
    EXPECT_EQ((std::vector<std::uint32_t>{0x10000, 0x10001, 0x10002}), WrittenLabels());
    const std::size_t note = outcome.out.find("does not say what its 3 channels are for");
    EXPECT_NE(std::string::npos, note) << outcome.out;
    EXPECT_EQ(std::string::npos, outcome.out.find("does not say", note + 1)) << outcome.out;
}

TEST_F(HostDescriptionOptionsTest, BlockSizeAndTrace)
{
    struct Case
    {
        Ventra::FileSystemType::Type type;
        std::vector<std::string> arguments;
        const char* trace;
    };
    const Case cases[] = {
        {Ventra::FileSystemType::kNFS, {"--io", "nfs=64", "-v"}, "blocksize 65536\n"},
        {Ventra::FileSystemType::kNFS, {"--io", "smb=64", "-v"}, "blocksize 32768\n"},
        {Ventra::FileSystemType::kSMB, {"--io", "smb=1024", "-q", "--verbose"}, "blocksize 1048576\n"},
        {Ventra::FileSystemType::kNFS, {"--io", "auto", "-v"}, "blocksize 32768\n"},
        {Ventra::FileSystemType::kNFS, {"-v"}, "blocksize 32768\n"},
        {Ventra::FileSystemType::kNFS, {"--io", "nfs=64"}, ""},
    };
    for (const Case& setting : cases)
    {
        VolumeFileSystem volume(Ventra::FileSystem::System(), setting.type, 4096);
        const Ventra::FileSystemScope scope(volume);
        std::vector<std::string> arguments = {"-y", "%V"};
        arguments.insert(arguments.end(), setting.arguments.begin(), setting.arguments.end());
        const Outcome outcome = RunWrap(arguments);
        EXPECT_EQ(0, outcome.code) << outcome.err;
        const std::size_t found = outcome.err.find("blocksize");
        const bool isUnused =
            setting.type == Ventra::FileSystemType::kNFS && setting.arguments[1 % setting.arguments.size()] == "smb=64";
        EXPECT_EQ(isUnused, outcome.out.find("--io smb=64 has no effect") != std::string::npos) << outcome.out;
        EXPECT_EQ(setting.trace, found != std::string::npos
                                     ? outcome.err.substr(found, outcome.err.find('\n', found) + 1 - found)
                                     : "");
    }
    // What the environment or a host has set is there again afterwards.
    Tolbin::debug::DebugDatabase& database = Tolbin::debug::DebugDatabase::Instance();
    EXPECT_EQ("none", database.GetEntry("Reelmill.NFSWriteSizeInKBytes", "none"));
    database.SetEntry("Reelmill.NFSWriteSizeInKBytes", "8");
    EXPECT_EQ(0, RunWrap({"-y", "%V", "--io", "nfs=64"}).code);
    EXPECT_EQ("8", database.GetEntry("Reelmill.NFSWriteSizeInKBytes", "none"));
    database.RemoveEntry("Reelmill.NFSWriteSizeInKBytes");
}
