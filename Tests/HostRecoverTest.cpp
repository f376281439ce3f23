#include "Support/HostRun.h"
#include "Support/SettingScope.h"
#include "Support/TempDirectory.h"
#include "Support/VolumeFileSystem.h"

#include <Host/Interrupt.h>
#include <Reelmill/Recovery.h>

#include <nlohmann/json.hpp>

#include <cerrno>
#include <filesystem>

namespace fs = std::filesystem;
using Json = nlohmann::json;

namespace
{

//! A disk on which no file gets longer than so many bytes, and where the user may interrupt.
class SmallDisk final : public ForwardingFileSystem
{
public:
    explicit SmallDisk(std::int64_t inLimit, int inStopAt = 0) : mLimit(inLimit), mStopAt(inStopAt) {}

    Tolbin::Result Write(Handle inHandle, std::int64_t inOffset, const void* inData, std::size_t inLength,
                         std::size_t& outWritten) override
    {
        if (--mStopAt == 0)
        {
            Host::RequestStop();
        }
        outWritten = 0;
        if (inOffset >= mLimit)
        {
            return Tolbin::ResultFromSystemError(ENOSPC);
        }
        const auto room = static_cast<std::size_t>(mLimit - inOffset);
        return ForwardingFileSystem::Write(inHandle, inOffset, inData, std::min(inLength, room), outWritten);
    }

    Tolbin::Result Sync(Handle) override { return 0; }

private:
    std::int64_t mLimit;
    int mStopAt;
};

//! Wraps of 4 s of picture and sound onto a volume that takes blocks of 32 KiB.
class HostRecoverTest : public testing::Test
{
protected:
    static void SetUpTestSuite()
    {
        sFolder = new TempDirectory;
        MakeMedia("-f lavfi -i testsrc2=s=64x48:r=25:d=4 -f lavfi -i sine=r=48000:d=4 -c:v mjpeg -c:a pcm_s16le "
                  "-timecode 01:00:00:00",
                  sFolder->Path("in.mov"));
    }

    static void TearDownTestSuite() { delete sFolder; }

    void TearDown() override { Host::ForgetStop(); }

    std::string Path(const std::string& inName) const { return mFolder.Path(inName); }

    Outcome Wrap(Ventra::FileSystem& inDisk, const std::vector<std::string>& inMore = {})
    {
        VolumeFileSystem volume(inDisk, Ventra::FileSystemType::kNFS, 4096);
        const Ventra::FileSystemScope scope(volume);
        WriteFile(Path("chapters"), "00:00:00.000 One\n00:00:01.500 Two\n00:00:03.000 Three\n");
        std::vector<std::string> arguments = {"wrap",       sFolder->Path("in.mov"), "-o", Path("out.mov"),
                                              "--chapters", Path("chapters")};
        arguments.insert(arguments.end(), inMore.begin(), inMore.end());
        return RunHost(arguments);
    }

    //! The movie is sound, and its tracks end together.
    void ExpectMovie(const std::string& inPath, double inSeconds)
    {
        const Outcome verified = RunHost({"verify", inPath});
        EXPECT_EQ(0, verified.code) << verified.out;
        EXPECT_EQ(std::string::npos, verified.out.find("warning")) << verified.out;
        const Json movie = Json::parse(RunHost({"info", "--json", inPath}).out);
        ASSERT_EQ(4u, movie["tracks"].size());
        for (const Json& track : movie["tracks"])
        {
            EXPECT_NEAR(inSeconds, track["mediaSeconds"].get<double>(), 0.6) << track;
        }
    }

    TempDirectory mFolder;
    SettingScope mSetting{"Reelmill.NFSWriteSizeInKBytes", "32"};

    static TempDirectory* sFolder;
};

TempDirectory* HostRecoverTest::sFolder = nullptr;

} // namespace

TEST_F(HostRecoverTest, FullDiskKeepsWhatIsWhole)
{
    constexpr std::int64_t kLimit = (1 << 20) + 300000; // Half of the media.
    SmallDisk disk(kLimit);
    const Outcome outcome = Wrap(disk, {"--json"});
    EXPECT_EQ(3, outcome.code);
    ExpectHelpfulSentence(outcome.err);
    EXPECT_NE(std::string::npos, outcome.err.find("No space left")) << outcome.err;
    EXPECT_EQ(3, Json::parse(outcome.out)["exitCode"]);
    ExpectMovie(Path("out.mov"), 2);
    EXPECT_LE(fs::file_size(Path("out.mov")), static_cast<std::uintmax_t>(kLimit));
    EXPECT_FALSE(fs::exists(Path("out.mov.part")) || fs::exists(Path("out.mov.part.journal")));

    const auto size = fs::file_size(Path("out.mov"));
    EXPECT_EQ(3, Wrap(disk, {"-y"}).code);
    EXPECT_EQ(size, fs::file_size(Path("out.mov"))) << "the file that was to be replaced";
    ExpectMovie(Path("out.mov.part"), 2);
}

TEST_F(HostRecoverTest, InterruptionClosesTheMovie)
{
    for (const int stopAt : {1, 40})
    {
        fs::remove(Path("out.mov"));
        Host::ForgetStop();
        SmallDisk disk(INT64_MAX, stopAt);
        const Outcome outcome = Wrap(disk);
        EXPECT_EQ(3, outcome.code);
        ExpectHelpfulSentence(outcome.err);
        EXPECT_NE(std::string::npos, outcome.err.find("interrupted")) << outcome.err;
        EXPECT_FALSE(fs::exists(Path("out.mov.part")) || fs::exists(Path("out.mov.part.journal")));
        EXPECT_EQ(stopAt != 1, fs::exists(Path("out.mov")));
    }
    const Json movie = Json::parse(RunHost({"info", "--json", Path("out.mov")}).out);
    const auto seconds = movie["seconds"].get<double>();
    EXPECT_LT(seconds, 3.5);
    ExpectMovie(Path("out.mov"), seconds);
}

TEST_F(HostRecoverTest, FinishesWhatACrashLeft)
{
    {
        const auto writer = QT::CreateJournaledReelmill();
        QT::TrackID track = 0;
        ASSERT_EQ(0, writer->Create(mFolder.Path16("out\xFF.mov.part"), 25));
        ASSERT_EQ(0, writer->NewMovieTrack(QT::kQTMediaTypeText, 25, 0, 0, QT::CreateTextDescription(), track));
        for (int i = 0; i < 25; ++i)
        {
            std::string data(1 << 20, static_cast<char>(i + 1));
            ASSERT_EQ(0, writer->AddMediaSample(track, data.data(), 1 << 20, 1, 1, 0, false));
        }
    }
    const std::string part = Path("out\xFF.mov.part");
    const std::string journal = Path("out\xFF.mov.part.journal");
    const auto found = ReadFile(part);

    const Json dry = Json::parse(RunHost({"recover", "--dry-run", "--json", Path("out\xFF.mov")}).out);
    EXPECT_EQ(20, dry["samples"]["kept"]);
    EXPECT_EQ(found, ReadFile(part));
    EXPECT_EQ(0, RunHost({"recover", part, "-o", Path("copy.mov")}).code);
    EXPECT_EQ(found, ReadFile(part));
    EXPECT_TRUE(fs::exists(journal));
    EXPECT_EQ(2, RunHost({"recover", part, "-o", Path("copy.mov")}).code) << "the copy exists";

    const auto refuses = [&](const std::string& inMovie, const std::string& inReason) {
        const Outcome outcome = RunHost({"recover", inMovie});
        EXPECT_EQ(2, outcome.code);
        ExpectHelpfulSentence(outcome.err);
        EXPECT_NE(std::string::npos, outcome.err.find(inReason)) << outcome.err;
    };
    refuses(Path("nothing.mov"), "there is no");
    fs::copy_file(journal, Path("other.mov.journal"));
    WriteFile(Path("other.mov"), std::string(5 << 20, 'x'));
    refuses(Path("other.mov"), "journal of another movie");
    fs::remove(Path("other.mov.journal"));
    refuses(Path("other.mov"), "there is no journal");
    WriteFile(Path("other.mov.journal"), "journal");
    refuses(Path("other.mov"), "is no journal");

    const Outcome done = RunHost({"recover", Path("out\xFF.mov")});
    EXPECT_EQ(0, done.code) << done.err;
    EXPECT_EQ(ReadFile(Path("copy.mov")), ReadFile(Path("out\xFF.mov")));
    EXPECT_FALSE(fs::exists(part) || fs::exists(journal));
    const Outcome again = RunHost({"recover", Path("out\xFF.mov")});
    EXPECT_EQ(0, again.code);
    EXPECT_NE(std::string::npos, again.out.find("is whole")) << again.out;
    EXPECT_EQ(0, RunHost({"recover", Path("out\xFF.mov"), "-o", Path("copy.mov"), "-y"}).code);
    EXPECT_EQ(ReadFile(Path("copy.mov")), ReadFile(Path("out\xFF.mov")));

    WriteFile(journal, "of a movie that is lost");
    MakeMedia("-f lavfi -i sine=d=1 -c:a pcm_s16le", Path("in.wav"));
    EXPECT_EQ(0, RunHost({"wrap", Path("in.wav"), "-o", Path("out\xFF.mov"), "-y"}).code);
    EXPECT_TRUE(fs::exists(journal)) << "another's journal is left alone";
}
