#include "Support/HostRun.h"
#include "Support/TempDirectory.h"
#include "Support/VolumeFileSystem.h"

#include <Host/CommandError.h>
#include <Host/OutputFile.h>
#include <Host/Progress.h>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <iterator>
#include <optional>
#include <sstream>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace fs = std::filesystem;

namespace
{

using Json = nlohmann::json;

const std::string kPicture = "-f lavfi -i testsrc2=s=64x48:r=25:d=1 ";
const std::string kTone = "-f lavfi -i sine=r=48000:d=1 ";

//! `wrap` with a dry run, JSON and progress, for people and for programs.
class HostWrapReportTest : public testing::Test
{
protected:
    std::string Path(const std::string& inName) const { return mFolder.Path(inName); }

    std::string Make(const std::string& inName, const std::string& inOptions) const
    {
        MakeMedia(inOptions, Path(inName));
        return Path(inName);
    }

    std::string Write(const std::string& inName, const std::string& inContent) const
    {
        WriteFile(Path(inName), inContent);
        return Path(inName);
    }

    std::string MakeMovie() const
    {
        return Make("in.mov", kPicture + kTone + "-c:v mjpeg -pix_fmt yuvj420p -c:a pcm_s16le");
    }

    std::ptrdiff_t CountFiles() const
    {
        return std::distance(fs::directory_iterator(mFolder.Path("")), fs::directory_iterator());
    }

    //! The refusals of a dry run, which creates nothing and tells people the same as programs.
    std::vector<std::string> Refusals(std::vector<std::string> inArguments) const
    {
        inArguments.insert(inArguments.begin(), "wrap");
        inArguments.insert(inArguments.end(), {"--dry-run", "--json"});
        const std::ptrdiff_t before = CountFiles();
        const Outcome outcome = RunHost(inArguments);
        EXPECT_EQ(before, CountFiles());
        const Json result = Json::parse(outcome.out);
        auto refusals = result.at("refusals").get<std::vector<std::string>>();
        EXPECT_EQ(refusals.empty() ? 0 : 2, outcome.code) << outcome.err;
        EXPECT_EQ(outcome.code, result.at("exitCode").get<int>());
        std::string sentences;
        for (const std::string& refusal : refusals)
        {
            sentences += "reelmill: " + refusal + "\n";
        }
        EXPECT_EQ(sentences, outcome.err);
        return refusals;
    }

    //! Every refusal holds its part, in order, and there are no others.
    void ExpectRefusals(const std::vector<std::string>& inParts, const std::vector<std::string>& inArguments) const
    {
        const std::vector<std::string> refusals = Refusals(inArguments);
        EXPECT_EQ(inParts.size(), refusals.size()) << testing::PrintToString(refusals);
        for (std::size_t index = 0; index < std::min(inParts.size(), refusals.size()); ++index)
        {
            EXPECT_NE(std::string::npos, refusals[index].find(inParts[index])) << refusals[index];
        }
    }

    TempDirectory mFolder;
};

} // namespace

TEST_F(HostWrapReportTest, DryRunTellsExactlyWhatIsWrittenThen)
{
    const std::string movie = MakeMovie();
    const std::string large =
        Make("large.nut", "-f lavfi -i testsrc2=s=640x480:r=25:d=2 -c:v rawvideo -pix_fmt uyvy422");
    const std::string chapters = Write("chapters.txt", "00:00:00.000 One\n00:00:00.500 Two\n");
    const std::string texts = Write("texts.srt", "1\n00:00:00,100 --> 00:00:00,900\nHello\n");
    const std::string item = Write("item.xmp", std::string(1100000, 'x'));
    const struct
    {
        std::vector<std::string> arguments;
        std::size_t tracks;
        const char* position;
        unsigned int bufferSize;
    } cases[] = {
        {{movie}, 2, "front", 4096},
        {{movie, "--chapters", chapters, "--text", texts, "--timecode", "01:00:00:00"}, 5, "front", 4096},
        {{movie, "--trim-in", "2:0.25s", "--chunk", "frames=5"}, 2, "front", 3u << 20},
        {{movie, "--meta", "XMP_=@" + item}, 2, "end", 4096},
        {{large, movie}, 3, "front", 4096}, // Blocks of the media go to disk before the end.
    };
    for (const auto& [inputs, tracks, position, bufferSize] : cases)
    {
        SCOPED_TRACE(inputs.back());
        VolumeFileSystem volume(Ventra::FileSystem::System(), Ventra::FileSystemType::kLocal, bufferSize);
        const Ventra::FileSystemScope scope(volume);
        std::vector<std::string> arguments = {"wrap", "--json", "-o", Path("out.mov")};
        arguments.insert(arguments.end(), inputs.begin(), inputs.end());
        const std::ptrdiff_t before = CountFiles();
        std::vector<std::string> dry = arguments;
        dry.emplace_back("--dry-run");
        const Outcome predicted = RunHost(dry);
        EXPECT_EQ(before, CountFiles());
        ASSERT_EQ(0, predicted.code) << predicted.err;
        const Outcome written = RunHost(arguments);
        ASSERT_EQ(0, written.code) << written.err;
        EXPECT_EQ(written.err, predicted.err);

        Json prediction = Json::parse(predicted.out);
        Json result = Json::parse(written.out);
        const Json& layout = result.at("layout");
        EXPECT_EQ(fs::file_size(Path("out.mov")), layout.at("size").get<std::uintmax_t>());
        EXPECT_EQ(position, layout.at("moov").at("position"));
        EXPECT_EQ(tracks, result.at("tracks").size());
        EXPECT_GT(prediction.at("freeSpace").get<std::uint64_t>(), 0U);
        EXPECT_EQ(Json::array(), prediction.at("refusals"));
        EXPECT_EQ(Json::array(), result.at("errors"));
        EXPECT_TRUE(prediction.at("dryRun").get<bool>());
        for (const char* key : {"freeSpace", "refusals", "dryRun"})
        {
            prediction.erase(key);
        }
        result.erase("errors");
        EXPECT_EQ(result, prediction);
        fs::remove(Path("out.mov"));
    }
}

TEST_F(HostWrapReportTest, DryRunForPeople)
{
    const std::string movie = MakeMovie();
    const Outcome outcome = RunHost({"wrap", movie, "-o", Path("out.mov"), "--dry-run"});
    EXPECT_EQ(0, outcome.code);
    for (const char* part :
         {"track 2: sound", "'moov' at byte 32, before", "dry run: the file would have ", "are free on the volume"})
    {
        EXPECT_NE(std::string::npos, outcome.out.find(part)) << outcome.out;
    }
    EXPECT_EQ("", outcome.err);
    EXPECT_EQ("", RunHost({"wrap", movie, "-o", Path("out.mov"), "--dry-run", "-q"}).out);
}

TEST_F(HostWrapReportTest, DryRunTellsEveryRefusal)
{
    const std::string movie = MakeMovie();
    const std::string aac = Make("aac.mov", kPicture + kTone + "-c:v mpeg4 -c:a aac");
    const std::string old = Write("old.mov", "precious");
    const std::string late = Write("late.txt", "00:00:00.000 One\n00:01:00.000 Two\n");
    // What is wrong with the output keeps nothing else from being told, the movie included.
    ExpectRefusals({"exists already"}, {movie, "-o", old});
    EXPECT_NE(std::string::npos, RunHost({"wrap", movie, "-o", old, "--dry-run"}).out.find("the file would have"));
    ExpectRefusals({"no folder", "missing.wav", "old.mov\" is no media", "stream 0 (video, mpeg4)",
                    "stream 1 (audio, aac)", "it has no audio"},
                   {Path("missing.wav"), old, aac, Make("mute.avi", kPicture + "-c:v mjpeg"), "--audio",
                    Path("mute.avi") + ":labels=L", "-o", Path("none/out.mov")});
    ExpectRefusals(
        {"exists already", "--meta", "no SCC file", "--timecode 01:00:00;00 does not fit", "Two\" starts at 60"},
        {movie, "-o", old, "--meta", "XMP_=@" + Path("none"), "--captions", late, "--timecode", "01:00:00;00",
         "--chapters", late});
    ExpectRefusals({"--trim-in names track 7", "--track-meta names track 8", "track 2 is sound", "names track 9"},
                   {movie, "-o", old, "-y", "--trim-in", "7:1s", "--track-meta", "8:name=x", "--ref", "1:2:timecode",
                    "--ref", "1:9:chapter"});
    // How many tracks there are is not known as long as some are refused, nor whether there is any video.
    ExpectRefusals({"stream 0", "stream 1"}, {aac, "-o", old, "-y", "--trim-in", "7:1s", "--chapters", late});
    ExpectRefusals({"missing.mov"}, {Path("missing.mov"), Make("in.wav", kTone), "-o", old, "-y", "--gamma"});
    EXPECT_EQ(8U, fs::file_size(old));
}

TEST_F(HostWrapReportTest, DryRunReadsTheInputsToTheirEnd)
{
    // Times of blocks in milliseconds since their cluster, behind the track number: of one near the end, far behind the
    // stretch that is read before a movie is begun.
    const auto source =
        ReadFile(Make("source.mkv", "-f lavfi -i testsrc2=s=64x48:r=25:d=3 -c:v mjpeg -pix_fmt yuvj420p"));
    const std::string media(source.begin(), source.end());
    const std::string block("\x81\x00\x28\x80", 4);
    const std::size_t last = media.rfind(block);
    ASSERT_LT(media.size() / 2, last);
    const std::string same = Write("same.mkv", std::string(media).replace(last + 1, 2, std::string(2, '\0')));
    const std::string back = Write("back.mkv", std::string(media).replace(last + 1, 1, "\xFF"));
    ExpectRefusals({"two frames have the same time at 2.", "its times go backwards at 2."},
                   {same, back, "-o", Path("out.mov")});
    ExpectRefusals({"--trim-in names track 9", "two frames have the same time"},
                   {same, "-o", Path("out.mov"), "--trim-in", "9:0.5s"});
}

TEST_F(HostWrapReportTest, NoMovieBeyondTheFreeSpace)
{
    EXPECT_NO_THROW(Host::CheckFreeSpace("out.mov", 1000, 1000));
    EXPECT_NO_THROW(Host::CheckFreeSpace("out.mov", 1000, std::nullopt));
    try
    {
        Host::CheckFreeSpace("out.mov", 1001, 1000);
        FAIL() << "there is no room for the last byte";
    }
    catch (const Host::CommandError& error)
    {
        EXPECT_EQ(Host::ExitCode::kInputRefused, error.GetExitCode());
    }
    EXPECT_FALSE(Host::GetFreeSpace(Path("missing")));
}

TEST_F(HostWrapReportTest, JsonHasStandardOutputToItself)
{
    const std::string wave =
        Make("four.wav", "-f lavfi -i aevalsrc='0|0|0|0:c=FL+FR+TSL+TSR:s=48000:d=0.1' -c:a pcm_s16le -f nut");
    const Outcome done = RunHost({"wrap", wave, "-o", Path("out.mov"), "--json"});
    const Json result = Json::parse(done.out);
    EXPECT_EQ(0, result.at("exitCode"));
    EXPECT_EQ(Path("out.mov"), result.at("output"));
    EXPECT_EQ("sound", result.at("tracks").at(0).at("kind"));
    EXPECT_EQ(4800, result.at("tracks").at(0).at("samples"));
    EXPECT_EQ("reelmill: note: " + result.at("notes").at(0).get<std::string>() + "\n", done.err);

    for (const auto& [code, arguments] : std::vector<std::pair<int, std::vector<std::string>>>{
             {2, {"wrap", wave, "-o", Path("out.mov"), "--json"}},
             {3, {"wrap", Path("none.wav"), "-o", Path("new.mov"), "--json"}},
             {1, {"wrap", wave, "-o", Path("new.mov"), "--json", "--fps", "25"}},
             {1, {"wrap", wave, "--json", "--nonsense"}}})
    {
        const Outcome failed = RunHost(arguments);
        const Json failure = Json::parse(failed.out);
        EXPECT_EQ(code, failed.code);
        EXPECT_EQ(code, failure.at("exitCode"));
        EXPECT_EQ("reelmill: " + failure.at("errors").at(0).get<std::string>() + "\n", failed.err);
    }
}

TEST_F(HostWrapReportTest, ProgressForPrograms)
{
    const Host::Progress::TimePoint start{};
    std::ostringstream lines;
    Host::Progress progress(lines, Host::Progress::Style::kJson);
    for (const int time : {0, 999, 1000, 1500, 2000})
    {
        progress.Update(start + std::chrono::milliseconds(time), time / 100.0, static_cast<std::uint64_t>(time));
        progress.SetExpectedSeconds(time < 1000 ? 0 : 30);
    }
    progress.Finish(start + std::chrono::seconds(4), 25, 4000);
    std::istringstream shown(lines.str());
    for (const auto& [seconds, expected, bytes, isDone] :
         {std::tuple(10.0, Json(nullptr), 1000, false), std::tuple(20.0, Json(30.0), 2000, false),
          std::tuple(25.0, Json(25.0), 4000, true)})
    {
        std::string line;
        std::getline(shown, line);
        EXPECT_EQ((Json{{"seconds", seconds},
                        {"expectedSeconds", expected},
                        {"bytes", bytes},
                        {"bytesPerSecond", 1000},
                        {"done", isDone}}),
                  Json::parse(line));
    }
    EXPECT_EQ(lines.str().size(), static_cast<std::size_t>(shown.tellg()));

    // What was asked for is shown even when all else is silent.
    const std::string movie = MakeMovie();
    const Outcome quiet = RunHost({"wrap", movie, "-o", Path("out.mov"), "-q", "--progress=json"});
    EXPECT_EQ("", quiet.out);
    // A slow machine shows more lines, one a second.
    const Json last = Json::parse(quiet.err.substr(quiet.err.rfind('\n', quiet.err.size() - 2) + 1));
    EXPECT_EQ(1, last.at("expectedSeconds"));
    EXPECT_TRUE(last.at("done").get<bool>());
    EXPECT_EQ(1, RunHost({"wrap", movie, "-o", Path("out.mov"), "--progress=loud"}).code);
}
